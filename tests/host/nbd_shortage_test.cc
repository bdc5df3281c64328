// SPDX-License-Identifier: GPL-2.0-only
// The NBD server short of memory, descriptors or a disk that stays the same.
#include <sys/resource.h>
#include <unistd.h>

#include "support/nbd_client.h"

namespace zorv_test {

namespace {

constexpr u32 MiB = 1024 * 1024;

// From now on this process gets that many more descriptors.
class few_descriptors {
 public:
  explicit few_descriptors(rlim_t more) {
    ::getrlimit(RLIMIT_NOFILE, &before_);
    const int next = ::dup(0);
    ::close(next);
    const rlimit now{static_cast<rlim_t>(next) + more, before_.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &now);
  }
  ~few_descriptors() { ::setrlimit(RLIMIT_NOFILE, &before_); }
  few_descriptors(const few_descriptors&) = delete;
  few_descriptors& operator=(const few_descriptors&) = delete;

 private:
  rlimit before_{};
};

}  // namespace

TEST_F(nbd_test, a_large_read_with_one_reply_takes_no_more_memory_than_others) {
  constexpr u32 length = 32 * MiB;
  disk.poke(0, pattern(length, 8));
  for (const bool structured : {false, true}) {
    disk_client c(options, structured);
    const u16 flags = structured ? wire::cmd_flag_df : u16{0};
    disk.record(true);
    const u64 small = c.ask(wire::cmd_read, 0, 4096, flags);
    const u64 large = c.ask(wire::cmd_read, 0, length, flags);
    const u64 behind = c.ask(wire::cmd_read, 0, 8192, flags);
    EXPECT_EQ(c.hear(small).data.size(), 4096U);
    ASSERT_TRUE(c.anything_to_hear(10000));
    u64 read_bytes = 0;
    for (const auto& r : disk.recorded()) read_bytes += r.length_bytes;
    EXPECT_LE(read_bytes, options.max_inflight_bytes + 4096) << "before the client reads any of it";
    EXPECT_TRUE(c.hear(large).data == pattern(length, 8));
    EXPECT_EQ(c.hear(behind).data.size(), 8192U);
    // What fails before the reply has begun is told, and afterwards only the end can tell it.
    disk.fail(MiB, 4096, zorv::memory_disk::direction::read, -EIO, 1);
    const auto early = c.call(wire::cmd_read, 0, length, flags);
    EXPECT_EQ(early.error, wire::eio);
    EXPECT_FALSE(early.closed);
    disk.fail(31 * MiB, 4096, zorv::memory_disk::direction::read, -EIO, 1);
    c.ask(wire::cmd_read, 0, length, flags);
    EXPECT_LT(c.receive(length).size(), length);
    disk.heal();
  }
}

TEST_F(nbd_test, a_connection_that_gets_no_descriptor_is_in_the_log) {
  raw_client late(options.socket_path);
  late.greet();
  std::unique_ptr<raw_client> waiting;
  {
    const few_descriptors none(0);
    EXPECT_EQ(late.outcome(wire::opt_go, go_data("disk")), wire::rep_ack);
    EXPECT_TRUE(late.at_eof());
    EXPECT_TRUE(eventually([this] { return log.has("no memory or no descriptor"); }));
  }
  late.hang_up();
  {
    const few_descriptors one(1);
    waiting = std::make_unique<raw_client>(options.socket_path);
    EXPECT_TRUE(eventually([this] { return log.has("NBD connections have to wait"); }));
  }
  EXPECT_TRUE(waiting->enter("disk")) << "and is served when there is one again";
}

TEST_F(nbd_test, another_node_under_the_number_is_not_the_export) {
  zorv::memory_disk other("other", disk_bytes);
  const auto replaced = [&] {
    offered[0].dev = other.dev();
    after_list = nullptr;
  };
  for (const u32 option : {wire::opt_go, wire::opt_export_name}) {
    offered[0].dev = disk.dev();
    raw_client c(options.socket_path);
    c.greet();
    after_list = replaced;
    if (option == wire::opt_go) {
      EXPECT_EQ(c.outcome(option, go_data("disk")), wire::rep_err_unknown);
    } else {
      c.say_option(option, packed().text("disk"));
      EXPECT_TRUE(c.at_eof());
    }
    EXPECT_EQ(openers() + other.bdev()->bd_openers.load(), 0);
  }
  // Nor is one that has got another size.
  offered[0].dev = disk.dev();
  offered[0].size_bytes -= 512;
  raw_client c(options.socket_path);
  c.greet();
  EXPECT_EQ(c.outcome(wire::opt_go, go_data("disk")), wire::rep_err_unknown);
}

TEST_F(driver_test, exports_have_the_block_sizes_of_their_disk) {
  zorv::memory_disk disk("disk", MiB);
  kernel::queue_limits& limits = disk.disk()->queue->limits;
  limits.logical_block_bytes = 4096;
  limits.io_min_bytes = 192 * 1024;  // three disks in a row
  add_started_filter(disk.path());
  const auto all = zorv::node_exports().list();
  ASSERT_EQ(all.size(), 1U);
  EXPECT_EQ(all[0].min_block_bytes, 4096U);
  EXPECT_EQ(all[0].preferred_block_bytes, 256U * 1024);
}

}  // namespace zorv_test
