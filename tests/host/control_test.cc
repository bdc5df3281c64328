// SPDX-License-Identifier: GPL-2.0-only
// The control socket from both of its ends: what libzorv promises, and what a peer that keeps to
// nothing gets.
#include "zorv/control.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <list>
#include <memory>

#include "host/control/command_slots.h"
#include "host/control/server.h"
#include "host/unix_socket.h"
#include "support/at_log_line.h"
#include "support/driver_fixture.h"
#include "zorv/client.h"
#include "zorv/wire.h"

using namespace zorv;
using namespace zorv_test;

namespace {

struct closer {
  void operator()(zorv_handle* h) const { zorv_close(h); }
};
using handle = std::unique_ptr<zorv_handle, closer>;

// A peer that sends what it likes.
class raw_peer {
 public:
  explicit raw_peer(const std::string& path) : fd_(::socket(AF_UNIX, SOCK_STREAM, 0)) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    EXPECT_EQ(::connect(fd_.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    const timeval limit{.tv_sec = 10, .tv_usec = 0};
    ::setsockopt(fd_.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  }
  void send(const void* p, std::size_t n) {
    EXPECT_EQ(::send(fd_.get(), p, n, MSG_NOSIGNAL), static_cast<ssize_t>(n));
  }
  // The reply's header; "text" receives its text. Result 0 and magic 0 when the peer closed.
  zorv_ctl_reply reply(std::string* text) {
    zorv_ctl_reply r{};
    if (::recv(fd_.get(), &r, sizeof r, MSG_WAITALL) != static_cast<ssize_t>(sizeof r)) return {};
    text->resize(r.record_bytes + r.buffer_bytes + r.text_bytes);
    if (!text->empty()) ::recv(fd_.get(), text->data(), text->size(), MSG_WAITALL);
    text->erase(0, r.record_bytes + r.buffer_bytes);
    return r;
  }
  int result() {
    std::string text;
    return reply(&text).result;
  }
  bool closed() {
    char c = 0;
    return ::recv(fd_.get(), &c, 1, 0) <= 0 && errno != EAGAIN;
  }
  bool has_reply() {
    pollfd p{fd_.get(), POLLIN, 0};
    return ::poll(&p, 1, 10000) == 1;
  }
  [[nodiscard]] int fd() const { return fd_.get(); }
  void end_of_sending() { ::shutdown(fd_.get(), SHUT_WR); }
  void close() { fd_.reset(); }

 private:
  unique_fd fd_;
};

zorv_ctl_request request(unsigned kind, u32 command) {
  zorv_ctl_request r{};
  r.magic = ZORV_CTL_MAGIC;
  r.version = ZORV_CTL_VERSION;
  r.kind = static_cast<uint16_t>(kind);
  r.command = command;
  return r;
}

void send(raw_peer* peer, zorv_ctl_request r, std::string_view record) {
  r.record_bytes = static_cast<u32>(record.size());
  std::string message(reinterpret_cast<const char*>(&r), sizeof r);
  message += record;
  peer->send(message.data(), message.size());
}

// Asks for the Incremental bitmap of minor 0.
void ask(raw_peer* peer, u32 command, u32 flags, u32 buffer_bytes = 32, u32 bitmap_bytes = 32) {
  const zorv_bmp_range_req record{
      .type = ZORV_BMP_INCREMENTAL, .size = bitmap_bytes, .data = 0x10000};
  auto r = request(ZORV_CTL_IOCTL, command);
  r.record_addr = 0x1000;
  r.flags = ZORV_CTL_BUFFER_OUT | flags;
  r.buffer_addr = record.data;
  r.buffer_bytes = buffer_bytes;
  send(peer, r, {reinterpret_cast<const char*>(&record), sizeof record});
}

void take(raw_peer* peer, u32 flags, u32 buffer_bytes = 32, u32 bitmap_bytes = 32) {
  ask(peer, ZORV_GET_AND_CLR_BMP, flags, buffer_bytes, bitmap_bytes);
}

struct control_test : driver_test {
  memory_disk disk{"d0", 1 << 24};
  control_options options;
  std::string error;
  control_server server;

  void SetUp() override {
    driver_test::SetUp();
    options.socket_path = dir / "control.sock";
    options.run_dir = dir.path();
  }
  void TearDown() override {
    server.stop();
    driver_test::TearDown();
  }
  void serve() { ASSERT_EQ(server.start(options, &error), 0) << error; }
  handle open() { return handle(zorv_open(options.socket_path.c_str())); }

  static int get(zorv_handle* h, u32 number, bytes* to) {
    zorv_bmp_range_req req{};
    req.type = ZORV_BMP_INCREMENTAL;
    req.size = static_cast<u32>(to->size());
    req.data = reinterpret_cast<u64>(to->data());
    return zorv_ioctl(h, number, &req);
  }
};

}  // namespace

TEST_F(control_test, bad_addresses_are_EFAULT_and_clear_nothing) {
  serve();
  const handle h = open();
  add_filter(disk.path());
  const auto before = changed(0, ZORV_BMP_INCREMENTAL);
  ASSERT_EQ(before.size(), 256U);
  auto* read_only =
      static_cast<char*>(::mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(read_only, MAP_FAILED);
  const u64 wild[] = {1, 4096, 1ULL << 46, 1ULL << 50, ~0ULL - 8, reinterpret_cast<u64>(read_only)};
  for (const u64 addr : wild) {
    SCOPED_TRACE(addr);
    zorv_bmp_range_req req{.minor = 0, .type = ZORV_BMP_INCREMENTAL, .size = 32, .data = addr};
    EXPECT_EQ(zorv_ioctl(h.get(), ZORV_GET_AND_CLR_BMP, &req), -1);
    EXPECT_EQ(errno, EFAULT);
    EXPECT_EQ(zorv_ioctl(h.get(), ZORV_GET_INFO, reinterpret_cast<void*>(addr)), -1);
    EXPECT_EQ(errno, EFAULT);
  }
  EXPECT_EQ(zorv_ioctl(h.get(), ZORV_START_NODE, nullptr), -1);
  EXPECT_EQ(errno, EFAULT);
  zorv_bmp_range_req unreadable{.minor = 0, .type = 1, .size = 32, .data = 4096};
  EXPECT_EQ(zorv_ioctl(h.get(), ZORV_MERGE_BMP, &unreadable), -1);
  EXPECT_EQ(errno, EFAULT);
  // No size is large enough to be a danger, and the driver's own reason comes back.
  unreadable = {.minor = 0, .type = 1, .size = ~0U, .data = reinterpret_cast<u64>(read_only)};
  EXPECT_EQ(zorv_ioctl(h.get(), ZORV_SET_BMP, &unreadable), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(changed(0, ZORV_BMP_INCREMENTAL), before);
  ::munmap(read_only, 4096);
}

TEST_F(control_test, records_of_any_content_are_refused) {
  serve();
  const handle h = open();
  memory_disk bystander{"d1", 1 << 20};
  for (const u32 number :
       {ZORV_ADD_FILTER_NODE, ZORV_ADD_SNAP_NODE, ZORV_DEL_NODE, ZORV_START_NODE, ZORV_STOP_NODE,
        ZORV_GET_DEVICE_LIST, ZORV_GET_INFO, ZORV_LOAD_BMP, ZORV_SAVE_BMP, ZORV_CLR_BMP,
        ZORV_SET_BMP, ZORV_MERGE_BMP, ZORV_GET_BMP, ZORV_GET_AND_CLR_BMP, ZORV_GET_DATABLOCK_BMP,
        ZORV_TEST_DATABLOCK, ZORV_RESUME_SNAP}) {
    for (const u8 fill : {0x00, 0x41, 0xff}) {  // none of them ends a text but the first
      bytes record(number >> 16 & 0x3fff, fill);
      const bytes before = record;
      EXPECT_EQ(zorv_ioctl(h.get(), number, record.data()), -1) << zorv_command_name(number);
      EXPECT_EQ(record, before) << zorv_command_name(number);
    }
  }
}

TEST_F(control_test, a_taken_bitmap_is_the_clients_when_it_has_it) {
  serve();
  add_filter(disk.path());
  const auto bits_left = [this](std::size_t n) {
    return eventually([&] { return changed(0, ZORV_BMP_INCREMENTAL).size() == n; });
  };
  const handle h = open();
  bytes all(32, 0xff);
  const auto refill = [&] { return get(h.get(), ZORV_SET_BMP, &all) == 0 && bits_left(256); };
  std::string text;
  const auto settle = [&](raw_peer* peer, u32 how, u64 number) {
    send(peer, request(ZORV_CTL_HOST, how), wire::writer().num(number).bytes());
    return peer->reply(&text).result;
  };
  // Whoever sends no more, or asks for more, or says nothing has not read the answer.
  using leave = void (*)(raw_peer*);
  for (const leave last : {leave([](raw_peer*) {}), leave([](raw_peer* p) { p->end_of_sending(); }),
                           leave([](raw_peer* p) { take(p, 0); })}) {
    raw_peer dies(options.socket_path);
    take(&dies, 0);
    last(&dies);
    EXPECT_TRUE(bits_left(0) && dies.has_reply());
    dies.close();
    EXPECT_TRUE(bits_left(256));
  }
  // Until it has, the file shows them.
  const auto file_shows = [this](u8 bits) {
    return eventually([&] {
      const bytes file = read_file(dir / "zorv0.incr");
      return file.size() == 48 && file.back() == bits;
    });
  };
  {
    raw_peer reads(options.socket_path);
    take(&reads, 0);
    EXPECT_TRUE(bits_left(0) && file_shows(0xff));
    EXPECT_EQ(reads.reply(&text).buffer_bytes, 32U);
    EXPECT_TRUE(file_shows(0));
  }
  ASSERT_TRUE(refill());
  raw_peer holds(options.socket_path);
  take(&holds, ZORV_CTL_HOLD);
  EXPECT_EQ(holds.reply(&text).handout, 1U);
  EXPECT_TRUE(bits_left(0) && file_shows(0xff));
  EXPECT_EQ(settle(&holds, ZORV_HOST_CONFIRM, 1), 0);
  EXPECT_EQ(settle(&holds, ZORV_HOST_PUT_BACK, 1), -ENOENT);
  EXPECT_TRUE(file_shows(0));
  ASSERT_TRUE(refill());
  for (const u64 number : {2, 3}) {
    take(&holds, ZORV_CTL_HOLD);
    EXPECT_EQ(holds.reply(&text).handout, number);
    EXPECT_TRUE(bits_left(0));
    if (number == 2) EXPECT_EQ(settle(&holds, ZORV_HOST_PUT_BACK, 2), 0);
    if (number == 3) holds.close();
    EXPECT_TRUE(bits_left(256));
  }
  // A plain call of the library has them.
  EXPECT_EQ(get(h.get(), ZORV_GET_AND_CLR_BMP, &all), 0);
  EXPECT_TRUE(file_shows(0));
}

TEST_F(control_test, memory_comes_back_and_everybody_has_a_share) {
  options.own_buffer_bytes = 4096;
  options.max_buffer_bytes = 1 << 20;
  serve();
  add_filter(disk.path());
  raw_peer takes(options.socket_path);
  for (int i = 0; i < 5; ++i) {  // each time half of what there is
    take(&takes, 0, 1 << 19);
    EXPECT_EQ(takes.result(), 0);
    send(&takes, request(ZORV_CTL_HOST, ZORV_HOST_DISKS), "");
    EXPECT_EQ(takes.result(), 0);
  }
  auto r = request(ZORV_CTL_IOCTL, ZORV_SET_BMP);
  r.flags = ZORV_CTL_BUFFER_IN;
  r.buffer_bytes = (1 << 20) + 4096;
  std::unique_ptr<raw_peer> slow;
  EXPECT_TRUE(eventually([&] {
    slow = std::make_unique<raw_peer>(options.socket_path);
    slow->send(&r, sizeof r);
    raw_peer large(options.socket_path);
    ask(&large, ZORV_GET_BMP, 0, 4097);
    return large.result() == -ENOMEM;
  }));
  raw_peer small(options.socket_path);
  take(&small, 0, 4096);
  EXPECT_EQ(small.result(), 0);
}

TEST_F(control_test, a_command_sees_that_nobody_waits_for_it) {
  serve();
  zorv_device_list_req list{.dev_type = ZORV_DEV_FILTER};
  const std::string record(reinterpret_cast<const char*>(&list), sizeof list);
  std::thread stopper;
  for (const bool leaves : {true, false}) {
    raw_peer peer(options.socket_path);
    std::atomic<bool> seen{false};
    const at_log_line command("ZORV_GET_DEVICE_LIST", [&] {
      peer.end_of_sending();
      EXPECT_FALSE(kernel::signal_pending());
      if (leaves) peer.close();
      if (!leaves) stopper = std::thread([this] { server.stop(); });
      seen = eventually(kernel::signal_pending);
    });
    send(&peer, request(ZORV_CTL_IOCTL, ZORV_GET_DEVICE_LIST), record);
    EXPECT_TRUE(eventually([&] { return seen.load(); }));
  }
  stopper.join();
}

TEST_F(control_test, nonsense_gets_a_reason_and_the_end) {
  serve();
  const handle bystander = open();
  const auto with = [](auto change) {
    auto r = request(ZORV_CTL_IOCTL, ZORV_START_NODE);
    change(&r);
    return r;
  };
  const struct {
    zorv_ctl_request r;
    const char* reason;
  } cases[] = {
      {with([](auto* r) { r->magic = 0x20544547; }), "no request"},
      {with([](auto* r) { r->version = 9; }), "version 9"},
      {with([](auto* r) { r->kind = 3; }), "unknown kind"},
      {with([](auto* r) { r->flags = 8; }), "unknown flags"},
      {with([](auto* r) { r->reserved[1] = 1; }), "reserved"},
      {with([](auto* r) { r->record_bytes = ~0U; }), "record is too long"},
      {with([](auto* r) { r->flags = 1, r->buffer_bytes = ZORV_CTL_MAX_BUFFER + 1; }), "too long"},
      {with([](auto* r) { r->buffer_bytes = 5; }), "without a direction"},
      {with([](auto* r) { r->kind = ZORV_CTL_HOST, r->flags = 2, r->buffer_bytes = 5; }), "no buf"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.reason);
    raw_peer peer(options.socket_path);
    peer.send(&c.r, sizeof c.r);
    std::string text;
    EXPECT_EQ(peer.reply(&text).result, -EPROTO);
    EXPECT_NE(text.find(c.reason), std::string::npos) << text;
    EXPECT_TRUE(peer.closed());
  }
  // A buffer that was sent to be read is not written to, and the other way round.
  add_filter(disk.path());
  for (const bool in : {true, false}) {
    raw_peer peer(options.socket_path);
    zorv_bmp_range_req record{.type = ZORV_BMP_INCREMENTAL, .size = 32, .data = 0x10000};
    auto r = request(ZORV_CTL_IOCTL, in ? ZORV_GET_BMP : ZORV_SET_BMP);
    r.flags = in ? ZORV_CTL_BUFFER_IN : ZORV_CTL_BUFFER_OUT;
    r.record_bytes = sizeof record;
    r.buffer_addr = record.data;
    r.buffer_bytes = record.size;
    peer.send(&r, sizeof r);
    peer.send(&record, sizeof record);
    if (in) peer.send(bytes(32).data(), 32);
    EXPECT_EQ(peer.result(), -EFAULT);
  }
  // Host requests with arguments that end too early or too late are refused; the client stays.
  raw_peer peer(options.socket_path);
  for (const std::string& arguments : {std::string(), std::string("\xff\xff\xff\xff", 4),
                                       wire::writer().str("a").num(1).bytes()}) {
    auto r = request(ZORV_CTL_HOST, ZORV_HOST_DETACH);
    r.record_bytes = static_cast<u32>(arguments.size());
    peer.send(&r, sizeof r);
    peer.send(arguments.data(), arguments.size());
    EXPECT_EQ(peer.result(), -EBADMSG);
  }
  zorv_device_list_req list{.dev_type = ZORV_DEV_FILTER};
  EXPECT_EQ(zorv_ioctl(bystander.get(), ZORV_GET_DEVICE_LIST, &list), 0);
}

TEST_F(control_test, a_peer_that_stalls_or_dies_in_the_middle_is_left_behind) {
  options.stall_ms = 50;
  serve();
  const auto r = request(ZORV_CTL_IOCTL, ZORV_START_NODE);
  raw_peer stalls(options.socket_path);
  stalls.send(&r, sizeof r / 2);
  EXPECT_EQ(stalls.result(), -ETIMEDOUT);
  EXPECT_TRUE(stalls.closed());
  raw_peer dies(options.socket_path);
  dies.send(&r, sizeof r - 1);
  dies.close();
  EXPECT_NE(open(), nullptr);
}

TEST_F(control_test, connections_and_buffers_are_bounded) {
  options.max_connections = 2;
  options.own_buffer_bytes = 0;
  options.max_buffer_bytes = 1 << 20;
  serve();
  {
    raw_peer first(options.socket_path);
    auto r = request(ZORV_CTL_IOCTL, ZORV_GET_BMP);
    r.flags = ZORV_CTL_BUFFER_OUT;
    r.buffer_bytes = (1 << 20) + 1;
    first.send(&r, sizeof r);
    EXPECT_EQ(first.result(), -ENOMEM);
  }
  const handle a = open();
  zorv_daemon info{};
  EXPECT_TRUE(eventually([&] { return zorv_daemon_info(a.get(), &info) == 0; }));
  EXPECT_EQ(std::string(info.run_dir), dir.path());
  // The first peer's place is free once its thread has ended.
  handle b;
  EXPECT_TRUE(eventually([&] {
    b = open();
    return zorv_daemon_info(b.get(), &info) == 0;
  }));
  const handle c = open();
  EXPECT_EQ(zorv_daemon_info(c.get(), &info), -1);
  EXPECT_EQ(errno, EBUSY);
  EXPECT_NE(std::string(zorv_last_error(c.get())).find("too many"), std::string::npos);
}

TEST_F(control_test, a_node_whose_commands_hang_leaves_room_for_others) {
  memory_disk other{"d1", 1 << 24};
  add_started_filter(disk.path());
  add_started_filter(other.path());
  serve();
  std::list<raw_peer> peers;
  const auto save = [&peers](u32 minor) {
    const zorv_bmp_req record{.minor = minor, .type = ZORV_BMP_INCREMENTAL};
    send(&peers.back(), request(ZORV_CTL_IOCTL, ZORV_SAVE_BMP),
         {reinterpret_cast<const char*>(&record), sizeof record});
  };
  std::string text;
  {
    rzmutex_guard hangs(&zorv_blkdev_arr[0]->f.save_mutex);
    EXPECT_TRUE(eventually([&] {
      peers.emplace_back(options.socket_path);
      save(0);
      pollfd p{peers.back().fd(), POLLIN, 0};
      return ::poll(&p, 1, 20) == 1;
    }));
    EXPECT_EQ(peers.size(), 25U);
    EXPECT_EQ(peers.back().reply(&text).result, -EBUSY);
    EXPECT_EQ(text, "too many commands wait for this node already");
    save(1);
    EXPECT_EQ(peers.back().reply(&text).result, 0);
    const handle h = open();
    zorv_info_req info{};
    EXPECT_EQ(zorv_ioctl(h.get(), ZORV_GET_INFO, &info), 0);
  }
  for (raw_peer& p : peers) {
    if (&p != &peers.back()) EXPECT_EQ(p.reply(&text).result, 0);
  }
}

TEST(command_slots, disks_are_told_by_their_whole_names) {
  command_slots slots(1);
  const command_slots::slot one(&slots, ZORV_ADD_FILTER_NODE, "/dev/one");
  const command_slots::slot other(&slots, ZORV_ADD_FILTER_NODE, "/dev/other");
  const command_slots::slot again(&slots, ZORV_ADD_FILTER_NODE, "/dev/one");
  EXPECT_TRUE(one && other && !again);
}

TEST_F(control_test, a_handle_outlives_its_daemon) {
  serve();
  const handle h = open();
  zorv_daemon info{};
  ASSERT_EQ(zorv_daemon_info(h.get(), &info), 0);
  EXPECT_EQ(zorv_detach(h.get(), "none"), -1);
  EXPECT_STRNE(zorv_last_error(h.get()), "");
  EXPECT_EQ(zorv_detach(h.get(), std::string(ZORV_CTL_MAX_RECORD, 'x').c_str()), -1);
  EXPECT_EQ(errno, E2BIG);
  EXPECT_STREQ(zorv_last_error(h.get()), "") << "that was another call's reason";
  server.stop();
  EXPECT_EQ(zorv_daemon_info(h.get(), &info), -1);
  EXPECT_EQ(errno, ECONNRESET);
  EXPECT_EQ(zorv_daemon_info(h.get(), &info), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(zorv_open(options.socket_path.c_str()), nullptr);
  control_server next;
  ASSERT_EQ(next.start(options, &error), 0) << error;
  EXPECT_EQ(zorv_daemon_info(h.get(), &info), 0);
}

TEST(unix_socket, only_a_dead_socket_is_replaced) {
  const temp_dir dir;
  const std::string path = dir / "s";
  std::string error;
  unix_listener first;
  ASSERT_EQ(first.open(path, &error), 0) << error;
  struct stat st {};
  ASSERT_EQ(::stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600U);
  EXPECT_EQ(unix_listener().open(path, &error), -EADDRINUSE);
  ASSERT_EQ(::link(path.c_str(), (dir / "dead").c_str()), 0);
  first.close();
  EXPECT_NE(::stat(path.c_str(), &st), 0);
  EXPECT_EQ(first.open(dir / "dead", &error), 0) << error;
  EXPECT_EQ(first.open(dir / std::string(200, 'x'), &error), -ENAMETOOLONG);
}
