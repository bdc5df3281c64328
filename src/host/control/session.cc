// SPDX-License-Identifier: GPL-2.0-only
// A command that reads and clears a bitmap hands out the only copy of those bits. If the client
// dies before it has read the answer, the bits are merged back: extents count as changed once too
// often rather than once too seldom. The socket tells: a reply that cannot be sent, a connection
// that is reset (closed with an unread answer in it), or, when the daemon stops, bytes that are
// still unread.
#include "host/control/session.h"

#include <sys/uio.h>

#include <cerrno>
#include <cstring>

#include "driver/bitmap/handout.h"
#include "host/control/host_requests.h"
#include "host/log.h"
#include "kernel/chrdev.h"

namespace zorv {
namespace {

constexpr char driver_name[] = "zorv";

}  // namespace

time_point control_session::deadline(std::uint64_t bytes) const {
  return std::chrono::steady_clock::now() + std::chrono::milliseconds(options_.stall_ms) +
         std::chrono::seconds(bytes >> 20);
}

void control_session::run() {
  while (serve_one() == next::request) release_buffer();
  if (unconfirmed_) give_back_unread_bits();
}

control_session::next control_session::serve_one() {
  const io waited = stream_.wait_readable(no_deadline);
  if (waited == io::stopped) {
    unconfirmed_ = unconfirmed_ && stream_.has_unread();
    return next::leave;
  }
  zorv_ctl_request request{};
  const io got = stream_.receive(&request, sizeof request, deadline(sizeof request));
  if (got == io::reset) return next::leave;
  // An orderly end, or another request: the last answer was read.
  unconfirmed_ = false;
  if (got == io::timed_out) return send_error(0, -ETIMEDOUT, "the request did not arrive in time");
  if (got != io::done) return next::leave;
  if (const std::string text = objection(request); !text.empty()) {
    return send_error(request.kind, -EPROTO, text);
  }
  if (receive_parts(request) == next::leave) return next::leave;
  return request.kind == ZORV_CTL_IOCTL ? run_ioctl(request) : run_host(request);
}

// What is wrong with the request's header, "" when nothing is.
std::string control_session::objection(const zorv_ctl_request& r) const {
  if (r.magic != ZORV_CTL_MAGIC) return "this is no request of the control protocol";
  if (r.version != ZORV_CTL_VERSION) {
    return "protocol version " + std::to_string(r.version) + " is not spoken here";
  }
  if (r.kind != ZORV_CTL_IOCTL && r.kind != ZORV_CTL_HOST) return "unknown kind of request";
  if ((r.flags & ~(ZORV_CTL_BUFFER_IN | ZORV_CTL_BUFFER_OUT)) != 0) return "unknown flags";
  if (r.reserved[0] != 0 || r.reserved[1] != 0) return "reserved fields are not 0";
  if (r.record_bytes > ZORV_CTL_MAX_RECORD) return "the record is too long";
  if (r.buffer_bytes > ZORV_CTL_MAX_BUFFER) return "the buffer is too long";
  if (r.buffer_bytes != 0 && r.flags == 0) return "a buffer without a direction";
  if (r.kind == ZORV_CTL_HOST && r.buffer_bytes != 0) return "host requests have no buffer";
  return "";
}

control_session::next control_session::receive_parts(const zorv_ctl_request& request) {
  if (!reserve_buffer(request.buffer_bytes) || !buffer_.allocate(request.buffer_bytes)) {
    return send_error(request.kind, -ENOMEM, "no memory for the message's buffer");
  }
  record_.resize(request.record_bytes);
  const bool with_buffer = (request.flags & ZORV_CTL_BUFFER_IN) != 0;
  const std::uint64_t bytes = record_.size() + (with_buffer ? buffer_.size() : 0);
  const time_point limit = deadline(bytes);
  io got = stream_.receive(record_.data(), record_.size(), limit);
  if (got == io::done && with_buffer) got = stream_.receive(buffer_.data(), buffer_.size(), limit);
  if (got == io::timed_out) {
    return send_error(request.kind, -ETIMEDOUT, "the request did not arrive in time");
  }
  return got == io::done ? next::request : next::leave;
}

control_session::next control_session::run_ioctl(const zorv_ctl_request& request) {
  unsigned buffer_allowed = message_space::none;
  if ((request.flags & ZORV_CTL_BUFFER_IN) != 0) buffer_allowed |= message_space::in;
  if ((request.flags & ZORV_CTL_BUFFER_OUT) != 0) buffer_allowed |= message_space::out;
  message_space space(
      {request.record_addr, record_.data(), record_.size(), message_space::in | message_space::out},
      {request.buffer_addr, buffer_.data(), buffer_.size(), buffer_allowed});
  zorv_ctl_reply reply{};
  reply.kind = ZORV_CTL_IOCTL;
  const bool needs_unused = request.command == ZORV_STOP_NODE || request.command == ZORV_DEL_NODE;
  if (needs_unused && options_.settle_clients) options_.settle_clients();
  error_capture reason;
  {
    const kernel::user_space_scope scope(&space);
    reply.result = kernel::chrdev_ioctl(driver_name, request.command, request.record_addr);
  }
  const message_space::segment& record = space.record();
  const message_space::segment& buffer = space.buffer();
  // The record goes back whole: what the driver did not write is as it came.
  if (record.written_end > record.written_begin) {
    reply.record_bytes = static_cast<std::uint32_t>(record_.size());
  }
  reply.buffer_offset = static_cast<std::uint32_t>(buffer.written_begin);
  reply.buffer_bytes = static_cast<std::uint32_t>(buffer.written_end - buffer.written_begin);
  if (reply.result == 0 && request.command == ZORV_GET_AND_CLR_BMP &&
      record_.size() == sizeof taken_) {
    std::memcpy(&taken_, record_.data(), sizeof taken_);
    unconfirmed_ = true;
  }
  zorv_handout_confirm(zorv_handout_last());  // what the client does not take, this side merges
  return send_reply(reply, record_.data(), buffer_.data() + reply.buffer_offset,
                    reply.result < 0 ? reason.text() : "");
}

control_session::next control_session::run_host(const zorv_ctl_request& request) {
  std::string answer;
  std::string error;
  error_capture reason;
  zorv_ctl_reply reply{};
  reply.kind = ZORV_CTL_HOST;
  reply.result = host_request(request.command, record_, options_, &answer, &error);
  if (reply.result < 0) answer.clear();
  if (reply.result < 0 && error.empty()) error = reason.text();
  reply.buffer_bytes = static_cast<std::uint32_t>(answer.size());
  return send_reply(reply, nullptr, answer.data(), error.c_str());
}

control_session::next control_session::send_reply(const zorv_ctl_reply& reply, const char* record,
                                                  const char* buffer, const char* text) {
  zorv_ctl_reply header = reply;
  header.magic = ZORV_CTL_MAGIC;
  header.version = ZORV_CTL_VERSION;
  header.text_bytes = static_cast<std::uint32_t>(::strnlen(text, ZORV_CTL_MAX_TEXT));
  iovec parts[] = {
      {&header, sizeof header},
      {const_cast<char*>(record), header.record_bytes},
      {const_cast<char*>(buffer), header.buffer_bytes},
      {const_cast<char*>(text), header.text_bytes},
  };
  return stream_.send(parts, 4, deadline(header.buffer_bytes)) == io::done ? next::request
                                                                           : next::leave;
}

// Says what was wrong and ends the session: where the next request begins is not known.
control_session::next control_session::send_error(unsigned kind, int error,
                                                  const std::string& text) {
  zorv_ctl_reply reply{};
  reply.kind = static_cast<std::uint16_t>(kind);
  reply.result = error;
  (void)send_reply(reply, nullptr, nullptr, text.c_str());
  return next::leave;
}

void control_session::give_back_unread_bits() {
  unconfirmed_ = false;
  // The record lies anywhere beside the buffer.
  const kernel::user_addr at = taken_.data >= sizeof taken_ ? 0 : taken_.data + buffer_.size();
  message_space space({at, reinterpret_cast<char*>(&taken_), sizeof taken_, message_space::in},
                      {taken_.data, buffer_.data(), buffer_.size(), message_space::in});
  const kernel::user_space_scope scope(&space);
  const int rc = kernel::chrdev_ioctl(driver_name, ZORV_MERGE_BMP, at);
  const std::string node = "minor " + std::to_string(taken_.minor);
  if (rc == 0) {
    host_log(log_level::info,
             node + ": a client left without the bitmap that it took; merged back");
  } else {
    host_log(log_level::error, node + ": a client left without the bitmap that it took, and it " +
                                   "cannot be merged back: " + std::strerror(-rc));
  }
}

bool control_session::reserve_buffer(std::uint64_t bytes) {
  const std::uint64_t before = buffer_bytes_->fetch_add(bytes, std::memory_order_relaxed);
  reserved_bytes_ = bytes;
  if (before + bytes <= options_.max_buffer_bytes) return true;
  release_buffer();
  return false;
}

void control_session::release_buffer() {
  if (unconfirmed_) return;
  buffer_ = lazy_buffer();
  buffer_bytes_->fetch_sub(reserved_bytes_, std::memory_order_relaxed);
  reserved_bytes_ = 0;
}

}  // namespace zorv
