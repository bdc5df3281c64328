// SPDX-License-Identifier: GPL-2.0-only
#include "host/nbd/negotiate.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "host/nbd/wire.h"
#include "kernel/blkdev.h"

namespace zorv::nbd {

namespace {

using clock = std::chrono::steady_clock;

constexpr u32 max_option_bytes = 64U << 10;   // what any known option can need
constexpr u32 max_skipped_bytes = 16U << 20;  // an unknown option of more than that is an attack
constexpr unsigned max_options = 4096;

// UTF-8 without NUL; no overlong forms, surrogates or numbers beyond the last plane.
bool is_text(std::string_view s) {
  if (s.size() > max_string_bytes) return false;
  for (std::size_t i = 0; i < s.size();) {
    const auto c = static_cast<unsigned char>(s[i++]);
    if (c == 0) return false;
    if (c < 0x80) continue;
    const int more = c >= 0xf0 ? 3 : c >= 0xe0 ? 2 : 1;
    if (c < 0xc2 || c > 0xf4 || s.size() - i < static_cast<std::size_t>(more)) return false;
    u32 point = c & (0x3fU >> more);
    for (int k = 0; k < more; ++k) {
      const auto t = static_cast<unsigned char>(s[i++]);
      if ((t & 0xc0) != 0x80) return false;
      point = point << 6 | (t & 0x3f);
    }
    static constexpr u32 least[] = {0, 0x80, 0x800, 0x10000};
    if (point < least[more] || point > 0x10ffff || (point >= 0xd800 && point < 0xe000)) {
      return false;
    }
  }
  return true;
}

// Takes fields off an option's payload; once something is missing everything after fails too.
class payload_reader {
 public:
  explicit payload_reader(std::span<const std::byte> data) : data_(data) {}
  u16 number16() {
    const auto p = take(2);
    return p.empty() ? u16{0} : load16(p.data());
  }
  u32 number32() {
    const auto p = take(4);
    return p.empty() ? 0 : load32(p.data());
  }
  std::string_view text(std::size_t bytes) {
    const auto p = take(bytes);
    const std::string_view s(reinterpret_cast<const char*>(p.data()), p.size());
    if (!is_text(s)) good_ = false;
    return s;
  }
  [[nodiscard]] bool good() const { return good_; }
  [[nodiscard]] bool at_end() const { return good_ && data_.empty(); }

 private:
  std::span<const std::byte> take(std::size_t n) {
    if (!good_ || data_.size() < n) {
      good_ = false;
      return {};
    }
    const auto p = data_.first(n);
    data_ = data_.subspan(n);
    return p;
  }
  std::span<const std::byte> data_;
  bool good_ = true;
};

class haggler {
 public:
  haggler(const negotiation& n, session* s)
      : n_(n), s_(s), deadline_(clock::now() + std::chrono::milliseconds(n.limit_ms)) {}

  bool run();

 private:
  enum class next { option, transmission, close };

  // Each is false when the connection is of no more use: closed, broken, too late.
  bool wait_for(short events);
  bool receive(void* to, std::size_t bytes);
  bool skip(std::size_t bytes);
  bool send(const void* data, std::size_t bytes);
  bool reply(u32 type, std::string_view data = {});
  bool refuse(u32 type, std::string_view text) { return reply(type, text); }

  next option();
  next export_name();
  next list();
  next info_or_go();
  next structured_reply();
  next meta_context();
  static next go_on(bool sent) { return sent ? next::option : next::close; }

  bool send_infos(const nbd_export& e, bool name, bool description);
  std::optional<nbd_export> open(std::string_view name);
  [[nodiscard]] u16 flags_of(const nbd_export& e) const;

  const negotiation& n_;
  session* s_;
  const clock::time_point deadline_;
  bool no_zeroes_ = false;
  bool fixed_ = false;
  u32 option_ = 0;
  std::vector<std::byte> data_;
  std::string context_export_;  // canonical name of the export of the last successful SET
};

bool haggler::wait_for(short events) {
  for (;;) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline_ - clock::now()).count();
    if (left <= 0) return false;
    pollfd p{n_.fd, events, 0};
    const int rc = ::poll(&p, 1, static_cast<int>(left));
    if (rc > 0) return true;
    if (rc == 0 || errno != EINTR) return false;
  }
}

bool haggler::receive(void* to, std::size_t bytes) {
  auto* at = static_cast<char*>(to);
  while (bytes != 0) {
    const ssize_t n = ::recv(n_.fd, at, bytes, MSG_DONTWAIT);
    if (n > 0) {
      at += n;
      bytes -= static_cast<std::size_t>(n);
    } else if (n == 0 || (errno != EAGAIN && errno != EINTR) || !wait_for(POLLIN)) {
      return false;
    }
  }
  return true;
}

bool haggler::skip(std::size_t bytes) {
  char waste[4096];
  while (bytes != 0) {
    const std::size_t n = bytes < sizeof waste ? bytes : sizeof waste;
    if (!receive(waste, n)) return false;
    bytes -= n;
  }
  return true;
}

bool haggler::send(const void* data, std::size_t bytes) {
  const auto* at = static_cast<const char*>(data);
  while (bytes != 0) {
    const ssize_t n = ::send(n_.fd, at, bytes, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (n >= 0) {
      at += n;
      bytes -= static_cast<std::size_t>(n);
    } else if ((errno != EAGAIN && errno != EINTR) || !wait_for(POLLOUT)) {
      return false;
    }
  }
  return true;
}

bool haggler::reply(u32 type, std::string_view data) {
  std::vector<std::byte> m(20 + data.size());
  std::byte* at = store64(m.data(), magic_option_reply);
  at = store32(at, option_);
  at = store32(at, type);
  at = store32(at, static_cast<u32>(data.size()));
  if (!data.empty()) std::memcpy(at, data.data(), data.size());
  return send(m.data(), m.size());
}

bool haggler::run() {
  std::byte greeting[18];
  std::byte* at = store64(greeting, magic_server);
  at = store64(at, magic_option);
  store16(at, handshake_fixed_newstyle | handshake_no_zeroes);
  if (!send(greeting, sizeof greeting)) return false;
  std::byte answer[4];
  if (!receive(answer, sizeof answer)) return false;
  const u32 flags = load32(answer);
  if ((flags & ~(client_fixed_newstyle | client_no_zeroes)) != 0) return false;
  fixed_ = (flags & client_fixed_newstyle) != 0;
  no_zeroes_ = (flags & client_no_zeroes) != 0;
  for (unsigned i = 0; i < max_options; ++i) {
    const next n = option();
    if (n != next::option) return n == next::transmission;
  }
  return false;
}

haggler::next haggler::option() {
  std::byte head[16];
  if (!receive(head, sizeof head) || load64(head) != magic_option) return next::close;
  option_ = load32(head + 8);
  const u32 bytes = load32(head + 12);
  if (!fixed_ && option_ != opt_export_name) return next::close;
  if (bytes > max_option_bytes) {
    if (option_ == opt_export_name || bytes > max_skipped_bytes || !skip(bytes)) return next::close;
    return go_on(refuse(rep_err_too_big, "the option's data is too long"));
  }
  data_.resize(bytes);
  if (!receive(data_.data(), bytes)) return next::close;
  if (n_.stopping->load(std::memory_order_relaxed)) {
    if (option_ != opt_export_name) (void)refuse(rep_err_shutdown, error_text(eshutdown));
    return next::close;
  }
  switch (option_) {
    case opt_export_name:
      return export_name();
    case opt_abort:
      (void)reply(rep_ack);
      return next::close;
    case opt_list:
      return list();
    case opt_info:
    case opt_go:
      return info_or_go();
    case opt_structured_reply:
      return structured_reply();
    case opt_list_meta_context:
    case opt_set_meta_context:
      return meta_context();
    default:
      return go_on(refuse(rep_err_unsup, "the option is not known here"));
  }
}

u16 haggler::flags_of(const nbd_export& e) const {
  u16 flags = flag_has_flags | flag_can_multi_conn;
  if (s_->structured) flags |= flag_send_df;
  if (e.read_only) return flags | flag_read_only;
  return flags | flag_send_flush | flag_send_fua | flag_send_write_zeroes | flag_send_fast_zero;
}

// Opens the export of that name. A node may go, and another come to its number, between the look
// and the opening; once it is open it stays, so who looks again then knows.
std::optional<nbd_export> haggler::open(std::string_view name) {
  const auto found = nbd_find_export(n_.exports, name);
  if (!found) return std::nullopt;
  const kernel::fmode_t mode =
      kernel::FMODE_READ | (found->read_only ? kernel::fmode_t{0} : kernel::FMODE_WRITE);
  kernel::block_device* bdev = kernel::open_by_devnum(found->dev, mode);
  if (kernel::is_err(bdev)) return std::nullopt;
  auto e = nbd_find_export(n_.exports, name);
  if (!e || e->dev != found->dev || e->read_only != found->read_only ||
      e->size_bytes != bdev->bd_disk->capacity_sectors.load() << kernel::sector_shift) {
    kernel::blkdev_put(bdev, mode);
    return std::nullopt;
  }
  s_->target = *e;
  s_->bdev = bdev;
  s_->mode = mode;
  s_->block_status = !context_export_.empty() && context_export_ == e->name;
  return e;
}

haggler::next haggler::export_name() {
  const std::string_view name(reinterpret_cast<const char*>(data_.data()), data_.size());
  if (!is_text(name)) return next::close;
  const auto e = open(name);
  if (!e) return next::close;
  std::byte m[10 + 124] = {};
  store16(store64(m, e->size_bytes), flags_of(*e));
  return send(m, no_zeroes_ ? 10 : sizeof m) ? next::transmission : next::close;
}

haggler::next haggler::list() {
  if (!data_.empty()) return go_on(refuse(rep_err_invalid, "LIST takes no data"));
  for (const nbd_export& e : n_.exports->list()) {
    std::string m(4, '\0');
    store32(reinterpret_cast<std::byte*>(m.data()), static_cast<u32>(e.name.size()));
    m += e.name;
    m += e.description;
    if (!reply(rep_server, m)) return next::close;
  }
  return go_on(reply(rep_ack));
}

bool haggler::send_infos(const nbd_export& e, bool name, bool description) {
  std::byte m[14];
  const auto as_text = [&m](const std::byte* end) {
    return std::string_view(reinterpret_cast<const char*>(m), static_cast<std::size_t>(end - m));
  };
  std::byte* at = store16(m, info_export);
  if (!reply(rep_info, as_text(store16(store64(at, e.size_bytes), flags_of(e))))) return false;
  at = store16(m, info_block_size);
  at = store32(store32(store32(at, e.min_block_bytes), e.preferred_block_bytes), max_payload_bytes);
  if (!reply(rep_info, as_text(at))) return false;
  if (name && !reply(rep_info, std::string(as_text(store16(m, info_name))) + e.name)) return false;
  return !description ||
         reply(rep_info, std::string(as_text(store16(m, info_description))) + e.description);
}

haggler::next haggler::info_or_go() {
  payload_reader in(data_);
  const std::string_view name = in.text(in.number32());
  bool want_name = false;
  bool want_description = false;
  for (u16 left = in.number16(); in.good() && left != 0; --left) {
    const u16 wanted = in.number16();
    want_name = want_name || wanted == info_name;
    want_description = want_description || wanted == info_description;
  }
  if (!in.at_end()) return go_on(refuse(rep_err_invalid, "the option's data is malformed"));
  const auto e = option_ == opt_go ? open(name) : nbd_find_export(n_.exports, name);
  if (!e) {
    return go_on(refuse(rep_err_unknown, name.empty() ? "there is no default export"
                                                      : "there is no started node of that name"));
  }
  if (!send_infos(*e, want_name, want_description) || !reply(rep_ack)) return next::close;
  return option_ == opt_go ? next::transmission : next::option;
}

haggler::next haggler::structured_reply() {
  if (!data_.empty()) return go_on(refuse(rep_err_invalid, "STRUCTURED_REPLY takes no data"));
  s_->structured = true;
  return go_on(reply(rep_ack));
}

haggler::next haggler::meta_context() {
  const bool set = option_ == opt_set_meta_context;
  if (set) context_export_.clear();
  payload_reader in(data_);
  const std::string_view name = in.text(in.number32());
  const u32 queries = in.number32();
  bool selected = queries == 0 && !set;
  for (u32 i = 0; i < queries && in.good(); ++i) {
    const std::string_view query = in.text(in.number32());
    selected = selected || query == "base:allocation" || (!set && query == "base:");
  }
  if (!in.at_end()) return go_on(refuse(rep_err_invalid, "the option's data is malformed"));
  if (!s_->structured) {
    return go_on(refuse(rep_err_invalid, "structured replies have to be agreed on first"));
  }
  const auto e = nbd_find_export(n_.exports, name);
  if (!e) return go_on(refuse(rep_err_unknown, "there is no started node of that name"));
  if (selected) {
    std::string m(4, '\0');
    store32(reinterpret_cast<std::byte*>(m.data()), set ? base_allocation_id : 0);
    if (!reply(rep_meta_context, m + "base:allocation")) return next::close;
    if (set) context_export_ = e->name;
  }
  return go_on(reply(rep_ack));
}

}  // namespace

void session::release() {
  if (bdev != nullptr) kernel::blkdev_put(bdev, mode);
  bdev = nullptr;
}

bool negotiate(const negotiation& n, session* s) { return haggler(n, s).run(); }

}  // namespace zorv::nbd
