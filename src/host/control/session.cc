// SPDX-License-Identifier: GPL-2.0-only
// A command that reads and clears a bitmap hands out the only copy of those bits. Until the client
// has them the driver keeps them beside the bitmap; a client that leaves without them has them
// merged back: extents count as changed once too often rather than once too seldom. A client that
// asks for it (ZORV_CTL_HOLD) says itself when it has them. For the others the socket tells:
// everything that was sent is read, or the connection is reset with something left in it.
#include "host/control/session.h"

#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <thread>
#include <utility>

#include "driver/bitmap/handout.h"
#include "host/control/host_requests.h"
#include "host/log.h"
#include "kernel/chrdev.h"
#include "zorv/wire.h"

namespace zorv {
namespace {

constexpr char driver_name[] = "zorv";

}  // namespace

time_point control_session::deadline(std::uint64_t bytes) const {
  return std::chrono::steady_clock::now() + std::chrono::milliseconds(options_.stall_ms) +
         std::chrono::seconds(bytes >> 20);
}

control_session::~control_session() {
  put_back(unread_);
  for (const taken_bits& bits : held_) put_back(bits);
}

void control_session::run() {
  while (serve_one() == next::request) release_buffer();
}

control_session::next control_session::serve_one() {
  if (unread_.handout != 0 && await_reader() == next::leave) return next::leave;
  if (stream_.wait_readable(no_deadline) == io::stopped) return next::leave;
  zorv_ctl_request request{};
  const io got = stream_.receive(&request, sizeof request, deadline(sizeof request));
  if (got == io::timed_out) return send_error(0, -ETIMEDOUT, "the request did not arrive in time");
  if (got != io::done) return next::leave;
  if (const std::string text = objection(request); !text.empty()) {
    return send_error(request.kind, -EPROTO, text);
  }
  if (receive_parts(request) == next::leave) return next::leave;
  return request.kind == ZORV_CTL_IOCTL ? run_ioctl(request) : run_host(request);
}

// Waits until the peer has read the bits. Neither its next request nor its end of sending says so.
control_session::next control_session::await_reader() {
  constexpr auto longest_nap = std::chrono::milliseconds(64);
  const time_point limit = deadline(unread_.bytes);
  auto nap = std::chrono::milliseconds(1);
  for (;;) {
    const delivery now = stream_.delivered();
    if (now == delivery::read) break;
    if (now == delivery::lost || stop_->raised()) return next::leave;
    if (std::chrono::steady_clock::now() >= limit) return next::leave;
    std::this_thread::sleep_for(nap);
    nap = std::min(nap * 2, longest_nap);
  }
  confirm(unread_);
  unread_ = {};
  return next::request;
}

// What is wrong with the request's header, "" when nothing is.
std::string control_session::objection(const zorv_ctl_request& r) const {
  if (r.magic != ZORV_CTL_MAGIC) return "this is no request of the control protocol";
  if (r.version != ZORV_CTL_VERSION) {
    return "protocol version " + std::to_string(r.version) + " is not spoken here";
  }
  if (r.kind != ZORV_CTL_IOCTL && r.kind != ZORV_CTL_HOST) return "unknown kind of request";
  constexpr std::uint32_t known = ZORV_CTL_BUFFER_IN | ZORV_CTL_BUFFER_OUT | ZORV_CTL_HOLD;
  if ((r.flags & ~known) != 0) return "unknown flags";
  if (r.reserved[0] != 0 || r.reserved[1] != 0) return "reserved fields are not 0";
  if (r.record_bytes > ZORV_CTL_MAX_RECORD) return "the record is too long";
  if (r.buffer_bytes > ZORV_CTL_MAX_BUFFER) return "the buffer is too long";
  if (r.buffer_bytes != 0 && (r.flags & ~ZORV_CTL_HOLD) == 0) return "a buffer without a direction";
  if (r.kind == ZORV_CTL_HOST && r.buffer_bytes != 0) return "host requests have no buffer";
  return "";
}

control_session::next control_session::receive_parts(const zorv_ctl_request& request) {
  if (!memory_.take(request.buffer_bytes)) {
    return send_error(request.kind, -ENOMEM, "no memory for the message's buffer");
  }
  if (!buffer_.allocate(request.buffer_bytes)) {
    memory_.give_back(request.buffer_bytes);
    return send_error(request.kind, -ENOMEM, "no memory for the message's buffer");
  }
  buffer_share_bytes_ = request.buffer_bytes;
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
  const command_slots::slot slot(slots_, request.command, record_);
  if (!slot) {
    reply.result = -EBUSY;
    return send_reply(reply, nullptr, nullptr, "too many commands wait for this node already");
  }
  error_capture reason;
  reply.result = carry_out(request, &space);
  const message_space::segment& record = space.record();
  const message_space::segment& buffer = space.buffer();
  // The record goes back whole: what the driver did not write is as it came.
  if (record.written_end > record.written_begin) {
    reply.record_bytes = static_cast<std::uint32_t>(record_.size());
  }
  reply.buffer_offset = static_cast<std::uint32_t>(buffer.written_begin);
  reply.buffer_bytes = static_cast<std::uint32_t>(buffer.written_end - buffer.written_begin);
  note_taken(request, &reply);
  return send_reply(reply, record_.data(), buffer_.data() + reply.buffer_offset, reason.text());
}

int control_session::carry_out(const zorv_ctl_request& request, message_space* space) {
  const bool needs_unused = request.command == ZORV_STOP_NODE || request.command == ZORV_DEL_NODE;
  zorv_node_req node{};
  if (needs_unused && options_.settle_clients && record_.size() == sizeof node) {
    std::memcpy(&node, record_.data(), sizeof node);
    options_.settle_clients(node.minor);
  }
  held_.reserve(held_.size() + 1);  // what is taken has to be noted
  const kernel::user_space_scope scope(space);
  // A peer that only sends no more still waits for the answer.
  const kernel::signal_scope signal(
      [](void* arg) {
        const auto* session = static_cast<control_session*>(arg);
        return session->stop_->raised() || session->stream_.abandoned();
      },
      this);
  return kernel::chrdev_ioctl(driver_name, request.command, request.record_addr);
}

void control_session::note_taken(const zorv_ctl_request& request, zorv_ctl_reply* reply) {
  taken_bits bits;
  bits.handout = zorv_handout_last();
  if (request.command != ZORV_GET_AND_CLR_BMP || reply->result != 0 || bits.handout == 0) return;
  std::memcpy(&bits.minor, record_.data(), sizeof bits.minor);
  // What the driver keeps goes on counting.
  bits.bytes = std::exchange(buffer_share_bytes_, 0U);
  if ((request.flags & ZORV_CTL_HOLD) == 0) {
    unread_ = bits;
    return;
  }
  bits.number = reply->handout = ++taken_count_;
  held_.push_back(bits);
}

control_session::next control_session::run_host(const zorv_ctl_request& request) {
  std::string answer;
  std::string error;
  error_capture reason;
  zorv_ctl_reply reply{};
  reply.kind = ZORV_CTL_HOST;
  const bool settles =
      request.command == ZORV_HOST_CONFIRM || request.command == ZORV_HOST_PUT_BACK;
  reply.result = settles ? settle(request.command, &error)
                         : host_request(request.command, record_, options_, &answer, &error);
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

// The peer says what became of the bits that it has taken.
int control_session::settle(std::uint32_t request, std::string* error) {
  wire::reader in(record_);
  const std::uint64_t number = in.num();
  if (!in.done()) {
    *error = "the request's arguments cannot be read";
    return -EBADMSG;
  }
  const auto at = std::find_if(held_.begin(), held_.end(),
                               [number](const taken_bits& b) { return b.number == number; });
  if (at == held_.end()) {
    *error = "no bitmap of that number is held for this client";
    return -ENOENT;
  }
  const taken_bits bits = *at;
  held_.erase(at);
  if (request == ZORV_HOST_CONFIRM) {
    confirm(bits);
  } else {
    put_back(bits);
  }
  return 0;
}

void control_session::confirm(const taken_bits& bits) {
  zorv_handout_confirm(bits.handout);
  memory_.give_back(bits.bytes);
}

void control_session::put_back(const taken_bits& bits) noexcept {
  if (bits.handout == 0) return;
  zorv_handout_return(bits.handout);
  memory_.give_back(bits.bytes);
  char text[128];
  std::snprintf(text, sizeof text,
                "minor %u: the bitmap that a client took did not reach it; merged back",
                bits.minor);
  host_log(log_level::info, text);
}

void control_session::release_buffer() {
  buffer_ = lazy_buffer();
  memory_.give_back(std::exchange(buffer_share_bytes_, 0U));
}

}  // namespace zorv
