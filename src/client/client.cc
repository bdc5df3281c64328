// SPDX-License-Identifier: MIT
// The C interface over one channel. Nothing throws across it.
#include "zorv/client.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <string>

#include "client/channel.h"
#include "client/memory.h"
#include "zorv/wire.h"

using zorv::channel;
using zorv::exchange;

struct zorv_handle {
  std::mutex mutex;
  std::string path;
  channel link;
  std::string last_error;
  std::string last_remark;
  unsigned limit_ms = 0;
};

namespace {

// Turns a result into what a C caller expects.
template <class T>
T with_errno(T result) {
  if (result >= 0) return result;
  errno = static_cast<int>(-result);
  return -1;
}

// Runs body, which may throw only for want of memory.
template <class F>
auto guarded(F body) noexcept -> decltype(body()) {
  try {
    return with_errno(body());
  } catch (const std::bad_alloc&) {
  } catch (...) {
  }
  errno = ENOMEM;
  return -1;
}

template <std::size_t N>
void copy_field(char (&to)[N], std::string_view from) {
  const std::size_t len = std::min(from.size(), N - 1);
  std::memcpy(to, from.data(), len);
  std::memset(to + len, 0, N - len);
}

// One request and its reply; connects first if the last call lost the connection.
int call(zorv_handle* handle, exchange* x) {
  x->request.magic = ZORV_CTL_MAGIC;
  x->request.version = ZORV_CTL_VERSION;
  handle->last_error.clear();
  handle->last_remark.clear();
  if (!handle->link.connected()) {
    const int rc = handle->link.connect(handle->path, handle->limit_ms);
    if (rc != 0) return rc;
  }
  const int result = handle->link.call(x);
  if (result < 0) handle->last_error = std::move(x->text);
  return result;
}

int host_call(zorv_handle* handle, std::uint32_t what, const zorv::wire::writer& arguments,
              std::string* answer) {
  exchange x;
  x.request.kind = ZORV_CTL_HOST;
  x.request.command = what;
  x.request.record_bytes = static_cast<std::uint32_t>(arguments.bytes().size());
  x.record = arguments.bytes().data();
  x.answer = answer;
  const std::lock_guard<std::mutex> guard(handle->mutex);
  if (x.request.record_bytes <= ZORV_CTL_MAX_RECORD) return call(handle, &x);
  handle->last_error.clear();
  return -E2BIG;
}

// A host request whose answer is a list: T's of which each is filled by one().
template <class T, class F>
int host_list(zorv_handle* handle, std::uint32_t what, const zorv::wire::writer& arguments,
              T** items, std::size_t* count, F one) {
  std::string answer;
  const int rc = host_call(handle, what, arguments, &answer);
  if (rc < 0) return rc;
  zorv::wire::reader in(answer);
  const std::uint64_t n = in.num();
  if (n > answer.size() / sizeof(std::uint64_t)) return -EPROTO;
  auto* list = static_cast<T*>(std::calloc(n + 1, sizeof(T)));
  if (list == nullptr) return -ENOMEM;
  for (std::uint64_t i = 0; i < n; ++i) one(&in, list + i);
  if (!in.done()) {
    std::free(list);
    return -EPROTO;
  }
  *items = list;
  *count = n;
  return 0;
}

// What a command does with the buffer that its record points at.
std::uint32_t buffer_flags(std::uint32_t command) {
  switch (command) {
    case ZORV_SET_BMP:
    case ZORV_MERGE_BMP:
      return ZORV_CTL_BUFFER_IN;
    case ZORV_GET_BMP:
    case ZORV_GET_AND_CLR_BMP:
    case ZORV_GET_DATABLOCK_BMP:
      return ZORV_CTL_BUFFER_OUT;
    default:
      return 0;
  }
}

// Adds the record's buffer to the request. One that is out of reach, or longer than any bitmap,
// is announced by its address alone, so that the driver gives its own answer.
void describe_buffer(std::uint32_t command, const zorv_bmp_range_req& req, exchange* x) {
  const std::uint32_t flags = buffer_flags(command);
  x->request.buffer_addr = req.data;
  if (flags == 0 || req.size == 0) return;
  if (flags == ZORV_CTL_BUFFER_IN && req.size > ZORV_CTL_MAX_BUFFER) return;
  const auto how = flags == ZORV_CTL_BUFFER_IN ? zorv::reach::readable : zorv::reach::writable;
  if (!zorv::memory_reaches(req.data, req.size, how)) return;
  x->request.flags = flags;
  x->request.buffer_bytes = std::min(req.size, ZORV_CTL_MAX_BUFFER);
  if (flags == ZORV_CTL_BUFFER_IN) {
    x->buffer = reinterpret_cast<const void*>(req.data);
  } else {
    x->buffer_out = reinterpret_cast<char*>(req.data);
    x->buffer_room = req.size;
  }
}

int settle_locked(zorv_handle* handle, std::uint32_t how, std::uint64_t taken) {
  // A hand-out belongs to its connection.
  if (!handle->link.connected() || taken >> 32 != handle->link.life()) return -ENOENT;
  const zorv::wire::writer number = zorv::wire::writer().num(taken & ~0U);
  exchange x;
  x.request.kind = ZORV_CTL_HOST;
  x.request.command = how;
  x.request.record_bytes = static_cast<std::uint32_t>(number.bytes().size());
  x.record = number.bytes().data();
  const int rc = call(handle, &x);
  // A connection that is lost meanwhile merges back what it held, unless the confirmation had come.
  return rc == -ECONNRESET && how == ZORV_HOST_PUT_BACK ? -ENOENT : rc;
}

int settle(zorv_handle* handle, std::uint32_t how, std::uint64_t taken) {
  const std::lock_guard<std::mutex> guard(handle->mutex);
  return settle_locked(handle, how, taken);
}

// taken null: the bits are the caller's when this returns.
int ioctl_call(zorv_handle* handle, std::uint32_t command, void* record, std::uint64_t* taken) {
  const std::size_t record_bytes = command >> 16 & 0x3fffU;
  const bool comes_back = (command & 0x80000000U) != 0;
  const auto addr = reinterpret_cast<std::uint64_t>(record);
  exchange x;
  x.request.kind = ZORV_CTL_IOCTL;
  x.request.command = command;
  x.request.record_addr = addr;
  const auto how = comes_back ? zorv::reach::writable : zorv::reach::readable;
  if (zorv::memory_reaches(addr, record_bytes, how)) {
    x.request.record_bytes = static_cast<std::uint32_t>(record_bytes);
    x.record = record;
    if (comes_back) {
      x.record_out = record;
      x.record_room = record_bytes;
    }
    if (buffer_flags(command) != 0) {
      zorv_bmp_range_req req;
      std::memcpy(&req, record, sizeof req);
      describe_buffer(command, req, &x);
    }
  }
  if (command == ZORV_GET_AND_CLR_BMP) x.request.flags |= ZORV_CTL_HOLD;
  const std::lock_guard<std::mutex> guard(handle->mutex);
  const int rc = call(handle, &x);
  if (rc < 0) return rc;
  const std::uint64_t handout = std::uint64_t{handle->link.life()} << 32 | x.handout;
  if (taken != nullptr && x.handout != 0) {
    *taken = handout;
  } else if (x.handout != 0) {
    // When this fails the bits count as changed again, which loses nothing.
    (void)settle_locked(handle, ZORV_HOST_CONFIRM, handout);
  }
  handle->last_remark = std::move(x.text);
  return rc;
}

}  // namespace

extern "C" {

int zorv_default_socket(char* path, size_t bytes) {
  return guarded([&]() -> int {
    std::string text;
    if (const char* given = std::getenv("ZORV_SOCKET"); given != nullptr && *given != '\0') {
      text = given;
    } else if (const char* dir = std::getenv("XDG_RUNTIME_DIR");
               geteuid() != 0 && dir != nullptr && *dir != '\0') {
      text = std::string(dir) + "/zorv/control.sock";
    } else {
      text = "/run/zorv/control.sock";
    }
    if (text.size() >= bytes) return -ENAMETOOLONG;
    std::memcpy(path, text.c_str(), text.size() + 1);
    return 0;
  });
}

zorv_handle* zorv_open(const char* path) { return zorv_open_within(path, 0); }

zorv_handle* zorv_open_within(const char* path, unsigned milliseconds) {
  zorv_handle* handle = nullptr;
  const int rc = guarded([&]() -> int {
    char standard[ZORV_PATH_LEN];
    if (path == nullptr) {
      if (zorv_default_socket(standard, sizeof standard) != 0) return -errno;
      path = standard;
    }
    handle = new zorv_handle;
    handle->path = path;
    handle->limit_ms = milliseconds;
    return handle->link.connect(handle->path, milliseconds);
  });
  if (rc == 0) return handle;
  const int error = errno;
  delete handle;
  errno = error;
  return nullptr;
}

void zorv_close(zorv_handle* handle) { delete handle; }

int zorv_ioctl(zorv_handle* handle, uint32_t command, void* record) {
  return guarded([&] { return ioctl_call(handle, command, record, nullptr); });
}

int zorv_take(zorv_handle* handle, zorv_bmp_range_req* req, uint64_t* taken) {
  *taken = 0;
  return guarded([&] { return ioctl_call(handle, ZORV_GET_AND_CLR_BMP, req, taken); });
}

int zorv_confirm(zorv_handle* handle, uint64_t taken) {
  return guarded([&] { return settle(handle, ZORV_HOST_CONFIRM, taken); });
}

int zorv_put_back(zorv_handle* handle, uint64_t taken) {
  return guarded([&] { return settle(handle, ZORV_HOST_PUT_BACK, taken); });
}

void zorv_set_limit(zorv_handle* handle, unsigned milliseconds) {
  const std::lock_guard<std::mutex> guard(handle->mutex);
  handle->limit_ms = milliseconds;
  handle->link.set_limit(milliseconds);
}

const char* zorv_last_error(zorv_handle* handle) { return handle->last_error.c_str(); }

const char* zorv_last_remark(zorv_handle* handle) { return handle->last_remark.c_str(); }

const char* zorv_command_name(uint32_t command) {
  static constexpr struct {
    uint32_t number;
    const char* name;
  } commands[] = {
      {ZORV_ADD_FILTER_NODE, "ZORV_ADD_FILTER_NODE"},
      {ZORV_ADD_SNAP_NODE, "ZORV_ADD_SNAP_NODE"},
      {ZORV_DEL_NODE, "ZORV_DEL_NODE"},
      {ZORV_START_NODE, "ZORV_START_NODE"},
      {ZORV_STOP_NODE, "ZORV_STOP_NODE"},
      {ZORV_GET_DEVICE_LIST, "ZORV_GET_DEVICE_LIST"},
      {ZORV_GET_INFO, "ZORV_GET_INFO"},
      {ZORV_LOAD_BMP, "ZORV_LOAD_BMP"},
      {ZORV_SAVE_BMP, "ZORV_SAVE_BMP"},
      {ZORV_CLR_BMP, "ZORV_CLR_BMP"},
      {ZORV_SET_BMP, "ZORV_SET_BMP"},
      {ZORV_MERGE_BMP, "ZORV_MERGE_BMP"},
      {ZORV_GET_BMP, "ZORV_GET_BMP"},
      {ZORV_GET_AND_CLR_BMP, "ZORV_GET_AND_CLR_BMP"},
      {ZORV_GET_DATABLOCK_BMP, "ZORV_GET_DATABLOCK_BMP"},
      {ZORV_TEST_DATABLOCK, "ZORV_TEST_DATABLOCK"},
      {ZORV_RESUME_SNAP, "ZORV_RESUME_SNAP"},
  };
  for (const auto& c : commands) {
    if (c.number == command) return c.name;
  }
  return nullptr;
}

int zorv_daemon_info(zorv_handle* handle, struct zorv_daemon* info) {
  return guarded([&]() -> int {
    std::string answer;
    const int rc = host_call(handle, ZORV_HOST_INFO, {}, &answer);
    if (rc < 0) return rc;
    zorv::wire::reader in(answer);
    copy_field(info->version, in.str());
    copy_field(info->run_dir, in.str());
    copy_field(info->control_socket, in.str());
    copy_field(info->nbd_socket, in.str());
    info->pid = static_cast<int64_t>(in.num());
    return in.done() ? 0 : -EPROTO;
  });
}

int zorv_attach(zorv_handle* handle, const char* image, const char* name, unsigned flags,
                char used_name[ZORV_NAME_LEN]) {
  return guarded([&]() -> int {
    zorv::wire::writer out;
    out.str(image).str(name == nullptr ? "" : name).num(flags & ZORV_ATTACH_READ_ONLY);
    std::string answer;
    const int rc = host_call(handle, ZORV_HOST_ATTACH, out, &answer);
    if (rc < 0) return rc;
    zorv::wire::reader in(answer);
    char used[ZORV_NAME_LEN];
    copy_field(used, in.str());
    if (!in.done()) return -EPROTO;
    if (used_name != nullptr) std::memcpy(used_name, used, sizeof used);
    return 0;
  });
}

int zorv_detach(zorv_handle* handle, const char* name) {
  return guarded([&]() -> int {
    std::string answer;
    return host_call(handle, ZORV_HOST_DETACH, zorv::wire::writer().str(name), &answer);
  });
}

int zorv_disks(zorv_handle* handle, struct zorv_disk** disks, size_t* count) {
  return guarded([&]() -> int {
    return host_list(handle, ZORV_HOST_DISKS, {}, disks, count,
                     [](zorv::wire::reader* in, zorv_disk* disk) {
                       copy_field(disk->name, in->str());
                       copy_field(disk->path, in->str());
                       disk->size = in->num();
                       disk->read_only = static_cast<uint32_t>(in->num());
                       disk->openers = static_cast<uint32_t>(in->num());
                     });
  });
}

int zorv_proc_list(zorv_handle* handle, const char* path, struct zorv_proc_entry** entries,
                   size_t* count) {
  return guarded([&]() -> int {
    return host_list(handle, ZORV_HOST_PROC_LIST, zorv::wire::writer().str(path), entries, count,
                     [](zorv::wire::reader* in, zorv_proc_entry* entry) {
                       copy_field(entry->name, in->str());
                       entry->mode = static_cast<uint32_t>(in->num());
                     });
  });
}

ssize_t zorv_proc_read(zorv_handle* handle, const char* path, char** text) {
  return guarded([&]() -> ssize_t {
    std::string answer;
    const int rc = host_call(handle, ZORV_HOST_PROC_READ, zorv::wire::writer().str(path), &answer);
    if (rc < 0) return rc;
    zorv::wire::reader in(answer);
    const std::string_view body = in.str();
    if (!in.done()) return -EPROTO;
    auto* copy = static_cast<char*>(std::malloc(body.size() + 1));
    if (copy == nullptr) return -ENOMEM;
    std::memcpy(copy, body.data(), body.size());
    copy[body.size()] = '\0';
    *text = copy;
    return static_cast<ssize_t>(body.size());
  });
}

ssize_t zorv_proc_write(zorv_handle* handle, const char* path, const char* text, size_t bytes) {
  return guarded([&]() -> ssize_t {
    std::string answer;
    return host_call(handle, ZORV_HOST_PROC_WRITE,
                     zorv::wire::writer().str(path).str({text, bytes}), &answer);
  });
}

}  // extern "C"
