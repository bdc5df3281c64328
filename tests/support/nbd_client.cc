// SPDX-License-Identifier: GPL-2.0-only
#include "support/nbd_client.h"

#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

namespace zorv_test {

namespace {

u16 at16(const bytes& b, std::size_t at) { return wire::load16(b.data() + at); }
u32 at32(const bytes& b, std::size_t at) { return wire::load32(b.data() + at); }
u64 at64(const bytes& b, std::size_t at) { return wire::load64(b.data() + at); }

}  // namespace

raw_client::raw_client(const std::string& socket_path)
    : fd_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, socket_path.c_str(), sizeof address.sun_path - 1);
  EXPECT_EQ(::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0)
      << std::strerror(errno);
}

raw_client::~raw_client() { hang_up(); }

void raw_client::hang_up() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

void raw_client::send_no_more() { ::shutdown(fd_, SHUT_WR); }

bool raw_client::send(const bytes& data) {
  std::size_t at = 0;
  while (at < data.size()) {
    const ssize_t n = ::send(fd_, data.data() + at, data.size() - at, MSG_NOSIGNAL);
    if (n <= 0) return false;
    at += static_cast<std::size_t>(n);
  }
  return true;
}

bool raw_client::anything_to_hear(int limit_ms) {
  pollfd p{fd_, POLLIN, 0};
  return ::poll(&p, 1, limit_ms) == 1;
}

bool raw_client::everything_taken() {
  int left = 0;
  return ::ioctl(fd_, SIOCOUTQ, &left) == 0 && left == 0;
}

bytes raw_client::receive(std::size_t n) {
  bytes out(n);
  std::size_t got = 0;
  while (got < n) {
    if (!anything_to_hear(20000)) {
      ADD_FAILURE() << "the server says nothing";
      break;
    }
    const ssize_t r = ::recv(fd_, out.data() + got, n - got, 0);
    if (r <= 0) break;
    got += static_cast<std::size_t>(r);
  }
  out.resize(got);
  return out;
}

void raw_client::greet(u32 flags) {
  const bytes greeting = receive(18);
  ASSERT_EQ(greeting.size(), 18U);
  EXPECT_EQ(std::string(greeting.begin(), greeting.begin() + 16), "NBDMAGICIHAVEOPT");
  EXPECT_EQ(at16(greeting, 16), 3U);
  send(packed().be32(flags));
}

void raw_client::say_option(u32 option, const bytes& data) {
  packed m;
  m.text("IHAVEOPT").be32(option).be32(static_cast<u32>(data.size()));
  m.insert(m.end(), data.begin(), data.end());
  send(m);
}

raw_client::option_reply raw_client::hear_option(u32 option) {
  const bytes head = receive(20);
  if (head.size() != 20) return {};
  EXPECT_EQ(at64(head, 0), wire::magic_option_reply);
  EXPECT_EQ(at32(head, 8), option);
  return {at32(head, 12), receive(at32(head, 16))};
}

std::vector<raw_client::option_reply> raw_client::haggle(u32 option, const bytes& data) {
  say_option(option, data);
  std::vector<option_reply> all;
  do {
    all.push_back(hear_option(option));
  } while (all.back().type == wire::rep_server || all.back().type == wire::rep_info ||
           all.back().type == wire::rep_meta_context);
  return all;
}

bool raw_client::enter(const std::string& name, bool structured) {
  greet();
  if (structured) {
    EXPECT_EQ(outcome(wire::opt_structured_reply), wire::rep_ack);
  }
  return outcome(wire::opt_go, go_data(name)) == wire::rep_ack;
}

u64 raw_client::ask(u16 type, u64 offset, u32 length, u16 flags, const bytes& payload) {
  const u64 cookie = ++last_cookie_;
  packed m;
  m.be32(wire::magic_request).be16(flags).be16(type).be64(cookie).be64(offset).be32(length);
  m.insert(m.end(), payload.begin(), payload.end());
  asked_[cookie] = {type, offset, length, {}, false};
  send(m);
  return cookie;
}

raw_client::answer raw_client::hear(u64 cookie) {
  while (!asked_.at(cookie).done) {
    if (hear_one()) continue;
    asked_.at(cookie).so_far.closed = true;
    break;
  }
  answer a = std::move(asked_.at(cookie).so_far);
  asked_.erase(cookie);
  return a;
}

bool raw_client::hear_one() {
  const bytes magic = receive(4);
  if (magic.size() != 4) return false;
  if (at32(magic, 0) == wire::magic_structured) return hear_chunk();
  EXPECT_EQ(at32(magic, 0), wire::magic_simple);
  const bytes head = receive(12);
  if (head.size() != 12) return false;
  const auto e = asked_.find(at64(head, 4));
  if (e == asked_.end()) {
    ADD_FAILURE() << "a reply to nothing";
    return false;
  }
  e->second.so_far.error = at32(head, 0);
  e->second.done = true;
  if (e->second.type == wire::cmd_read && at32(head, 0) == 0) {
    e->second.so_far.data = receive(e->second.length);
  }
  return true;
}

bool raw_client::hear_chunk() {
  const bytes head = receive(16);
  if (head.size() != 16) return false;
  const u16 type = at16(head, 2);
  const bytes payload = receive(at32(head, 12));
  const auto e = asked_.find(at64(head, 4));
  if (e == asked_.end() || payload.size() != at32(head, 12) || e->second.done) {
    ADD_FAILURE() << "a chunk that nobody waits for, or half of one";
    return false;
  }
  answer& a = e->second.so_far;
  e->second.done = (at16(head, 0) & wire::chunk_done) != 0;
  if (type == wire::chunk_offset_data) {
    const u64 at = at64(payload, 0) - e->second.offset;
    const u64 length = payload.size() - 8;
    EXPECT_LE(at + length, e->second.length);
    for (const auto& [from, n] : a.data_chunks) {
      EXPECT_TRUE(from + n <= at64(payload, 0) || at64(payload, 0) + length <= from) << "overlap";
    }
    a.data_chunks.emplace_back(at64(payload, 0), length);
    a.data.resize(e->second.length);
    std::memcpy(a.data.data() + at, payload.data() + 8, length);
  } else if (type == wire::chunk_error || type == wire::chunk_error_offset) {
    a.error = at32(payload, 0);
    const u16 text = at16(payload, 4);
    EXPECT_GT(text, 0U);
    if (type == wire::chunk_error_offset) a.error_offset = at64(payload, 6U + text);
  } else if (type == wire::chunk_block_status) {
    a.status = payload;
  }
  return true;
}

packed go_data(const std::string& name, const std::vector<u16>& infos) {
  packed m;
  m.be32(static_cast<u32>(name.size())).text(name).be16(static_cast<u16>(infos.size()));
  for (const u16 i : infos) m.be16(i);
  return m;
}

packed meta_data(const std::string& name, const std::vector<std::string>& queries) {
  packed m;
  m.be32(static_cast<u32>(name.size())).text(name).be32(static_cast<u32>(queries.size()));
  for (const std::string& q : queries) m.be32(static_cast<u32>(q.size())).text(q);
  return m;
}

bytes pattern(std::size_t n, u32 seed) {
  bytes out(n);
  u32 x = seed * 2654435761U + 1;
  for (u8& b : out) {
    x = x * 1664525 + 1013904223;
    b = static_cast<u8>(x >> 24);
  }
  return out;
}

void nbd_test::SetUp() {
  kernel::fault_disarm_all();
  options.socket_path = dir / "nbd.sock";
  options.exports = this;
  offered.push_back({"disk", "a memory disk", disk.dev(), disk_bytes, false, true});
  serve();
}

void nbd_test::serve() {
  server = std::make_unique<zorv::nbd_server>();
  std::string error;
  ASSERT_EQ(server->start(options, &error), 0) << error;
}

void nbd_test::TearDown() {
  server.reset();
  EXPECT_EQ(openers(), 0);
}

std::vector<zorv::nbd_export> nbd_test::list() {
  const auto now = offered;
  if (after_list) after_list();
  return now;
}

}  // namespace zorv_test
