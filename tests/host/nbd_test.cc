// SPDX-License-Identifier: GPL-2.0-only
// The NBD server as a client that may be wrong, slow, rude or dead sees it.
#include <sys/stat.h>
#include <unistd.h>

#include <thread>

#include "host/nbd/buffers.h"
#include "support/nbd_client.h"

namespace zorv_test {

using wire::cmd_block_status;
using wire::cmd_disc;
using wire::cmd_flag_df;
using wire::cmd_flag_fast_zero;
using wire::cmd_flag_fua;
using wire::cmd_flag_no_hole;
using wire::cmd_flag_req_one;
using wire::cmd_flush;
using wire::cmd_read;
using wire::cmd_write;
using wire::cmd_write_zeroes;
using serving = zorv::memory_disk::serving;

constexpr u32 KiB = 1024, MiB = 1024 * KiB;

// ---- handshake -----------------------------------------------------------------------------

TEST_F(nbd_test, odd_options_get_an_answer_and_the_next_one_is_heard) {
  const bytes nul{0, 0, 0, 3, 'd', 0, 'k', 0, 0};
  const bytes overlong{0, 0, 0, 2, 0xc0, 0x80, 0, 0};
  const struct {
    const char* what;
    u32 option;
    bytes data;
    u32 outcome;
  } table[] = {
      {"unknown", 77, pattern(1000, 1), wire::rep_err_unsup},
      {"starttls", 5, {}, wire::rep_err_unsup},
      {"huge unknown", 78, bytes(100000), wire::rep_err_too_big},
      {"list with data", wire::opt_list, {1}, wire::rep_err_invalid},
      {"structured with data", wire::opt_structured_reply, {1}, wire::rep_err_invalid},
      {"go without data", wire::opt_go, {}, wire::rep_err_invalid},
      {"go, name longer than data", wire::opt_go, packed().be32(0xffffffff).text("disk").be16(0),
       wire::rep_err_invalid},
      {"go, infos missing", wire::opt_go, packed().be32(4).text("disk").be16(3).be16(0),
       wire::rep_err_invalid},
      {"go, bytes left over", wire::opt_go, packed().be32(4).text("disk").be16(0).be16(0),
       wire::rep_err_invalid},
      {"go, NUL in the name", wire::opt_go, nul, wire::rep_err_invalid},
      {"go, bad UTF-8", wire::opt_go, overlong, wire::rep_err_invalid},
      {"go, unknown name", wire::opt_go, go_data("disc"), wire::rep_err_unknown},
      {"set before structured", wire::opt_set_meta_context, meta_data("disk", {"base:allocation"}),
       wire::rep_err_invalid},
      {"meta, query count is a lie", wire::opt_list_meta_context,
       packed().be32(4).text("disk").be32(0xffffffff), wire::rep_err_invalid},
      {"info", wire::opt_info, go_data("disk"), wire::rep_ack},
  };
  raw_client c(options.socket_path);
  c.greet();
  for (const auto& t : table) EXPECT_EQ(c.outcome(t.option, t.data), t.outcome) << t.what;
  EXPECT_EQ(openers(), 0);
  EXPECT_EQ(c.outcome(wire::opt_go, go_data("disk")), wire::rep_ack);
  EXPECT_EQ(openers(), 1);
}

TEST_F(nbd_test, nonsense_in_the_handshake_is_hung_up_on) {
  const std::vector<bytes> openings = {
      packed().be32(0x80000003),                                       // client flags
      packed().be32(3).text("IHAVEOPX").be32(wire::opt_list).be32(0),  // magic
      packed().be32(3).text("IHAVEOPT").be32(99).be32(0xffffffff),     // length
      packed().be32(3).text("IHAVEOPT").be32(wire::opt_export_name).be32(3).text("abc"),
      packed().be32(0).text("IHAVEOPT").be32(wire::opt_list).be32(0),  // not fixed newstyle
  };
  for (std::size_t i = 0; i < openings.size(); ++i) {
    raw_client c(options.socket_path);
    ASSERT_EQ(c.receive(18).size(), 18U);
    c.send(openings[i]);
    EXPECT_TRUE(c.at_eof()) << i;
  }
}

TEST_F(nbd_test, exports_are_listed_described_and_one_filter_is_the_default) {
  raw_client c(options.socket_path);
  c.greet();
  auto l = c.haggle(wire::opt_list);
  ASSERT_EQ(l.size(), 2U);
  EXPECT_EQ(l[0].data, packed().be32(4).text("disk").text("a memory disk"));

  EXPECT_EQ(c.outcome(wire::opt_structured_reply), wire::rep_ack);
  const auto wanted = go_data("", {wire::info_name, wire::info_description, 3, 999});
  const auto i = c.haggle(wire::opt_info, wanted);
  ASSERT_EQ(i.size(), 5U);
  EXPECT_EQ(i[0].data, packed().be16(0).be64(disk_bytes).be16(0x9cd));
  EXPECT_EQ(i[1].data, packed().be16(3).be32(512).be32(4096).be32(32 * MiB));
  EXPECT_EQ(i[2].data, packed().be16(1).text("disk"));
  EXPECT_EQ(i[3].data, packed().be16(2).text("a memory disk"));

  offered[0].min_block_bytes = 4096;
  offered[0].preferred_block_bytes = 65536;
  EXPECT_EQ(c.haggle(wire::opt_info, go_data("disk"))[1].data,
            packed().be16(3).be32(4096).be32(65536).be32(32 * MiB));
  offered[0].min_block_bytes = 512;
  offered[0].preferred_block_bytes = 4096;
  offered.push_back({"other", "", disk.dev(), disk_bytes, true, true});
  EXPECT_EQ(c.outcome(wire::opt_go, go_data("")), wire::rep_err_unknown);
  offered.back().default_candidate = false;
  const auto g = c.haggle(wire::opt_go, wanted);
  ASSERT_EQ(g.size(), i.size());
  for (std::size_t k = 0; k < g.size(); ++k) EXPECT_EQ(g[k].data, i[k].data);
}

TEST_F(nbd_test, old_ways_in_give_zeroes_only_when_asked_for) {
  for (const u32 flags : {1U, 3U}) {
    raw_client c(options.socket_path);
    c.greet(flags);
    c.say_option(wire::opt_export_name, packed().text("disk"));
    packed want;
    want.be64(disk_bytes).be16(0x94d);
    if (flags == 1) want.insert(want.end(), 124, 0);
    EXPECT_EQ(c.receive(want.size()), want);
    EXPECT_EQ(c.call(cmd_read, 0, 512).data, bytes(512));
  }
}

TEST_F(nbd_test, contexts_are_listed_selected_and_belong_to_one_export) {
  offered.push_back({"other", "", disk.dev(), disk_bytes, false, false});
  const auto connect = [this](const std::string& set_for, const std::vector<std::string>& queries,
                              const std::string& go) {
    auto c = std::make_unique<raw_client>(options.socket_path);
    c->greet();
    c->outcome(wire::opt_structured_reply);
    EXPECT_EQ(c->haggle(wire::opt_list_meta_context, meta_data(set_for, {})).size(), 2U);
    EXPECT_EQ(c->haggle(wire::opt_list_meta_context, meta_data(set_for, {"base:", "x:y"})).size(),
              2U);
    EXPECT_EQ(c->haggle(wire::opt_list_meta_context, meta_data(set_for, {"x-a:b"})).size(), 1U);
    c->haggle(wire::opt_set_meta_context, meta_data(set_for, queries));
    EXPECT_EQ(c->outcome(wire::opt_go, go_data(go)), wire::rep_ack);
    return c;
  };
  auto c = connect("disk", {"base:allocation", "base:allocation"}, "disk");
  EXPECT_EQ(c->call(cmd_block_status, 4096, 8192).status, packed().be32(1).be32(8192).be32(0));
  EXPECT_EQ(c->call(cmd_block_status, 0, disk_bytes, cmd_flag_req_one).status.size(), 12U);
  EXPECT_EQ(c->call(cmd_block_status, disk_bytes, 512).error, wire::einval);
  EXPECT_EQ(c->call(cmd_block_status, 0, 0).error, wire::einval);
  EXPECT_EQ(connect("disk", {"base:"}, "disk")->call(cmd_block_status, 0, 512).error, wire::einval);
  EXPECT_EQ(connect("other", {"base:allocation"}, "disk")->call(cmd_block_status, 0, 512).error,
            wire::einval);
  EXPECT_EQ(connect("", {"base:allocation"}, "disk")->call(cmd_block_status, 0, 512).error, 0U);
}

// ---- requests ------------------------------------------------------------------------------

class nbd_replies : public nbd_test, public ::testing::WithParamInterface<bool> {};
INSTANTIATE_TEST_SUITE_P(replies, nbd_replies, ::testing::Bool(), [](const auto& i) {
  return std::string(i.param ? "structured" : "simple");
});

TEST_P(nbd_replies, wrong_requests_get_the_protocols_numbers_and_harm_nothing) {
  disk_client c(options, GetParam());
  const struct {
    u16 type;
    u64 offset;
    u32 length;
    u16 flags;
    u32 error;
  } table[] = {
      {cmd_read, 1, 512, 0, wire::einval},
      {cmd_read, 0, 513, 0, wire::einval},
      {cmd_read, disk_bytes, 512, 0, wire::einval},
      {cmd_read, ~u64{511}, 1024, 0, wire::einval},
      {cmd_read, 0, 32 * MiB + 512, 0, wire::einval},
      {cmd_read, 0, 512, cmd_flag_no_hole, wire::einval},
      {cmd_write, disk_bytes - 512, 1024, 0, wire::enospc},
      {cmd_write, 3, 4096, 0, wire::einval},
      {cmd_write, 0, 512, cmd_flag_df, wire::einval},
      {cmd_write, 0, 33 * MiB, 0, wire::einval},
      {cmd_write_zeroes, disk_bytes, 512, 0, wire::enospc},
      {cmd_write_zeroes, 0, 512, cmd_flag_fast_zero, wire::enotsup},
      {cmd_flush, 0, 512, 0, wire::einval},
      {cmd_block_status, 0, 512, 0, wire::einval},
      {4 /* TRIM */, 0, 512, 0, wire::einval},
      {999, 0, 512, 0, wire::einval},
      {cmd_read, 0, 0, 0, 0},
      {cmd_write, 0, 0, 0, 0},
      {cmd_write_zeroes, disk_bytes, 0, cmd_flag_fua, 0},
      {cmd_read, 0, 512, cmd_flag_fua, 0},
  };
  for (const auto& t : table) {
    const bytes payload = t.type == cmd_write ? pattern(t.length, 5) : bytes();
    const auto a = c.call(t.type, t.offset, t.length, t.flags, payload);
    EXPECT_EQ(a.error, t.error) << t.type << " " << t.offset << " " << t.length;
    EXPECT_FALSE(a.closed) << t.type << " " << t.offset << " " << t.length;
  }
  EXPECT_EQ(disk.writes(), 0U);
  EXPECT_EQ(c.call(cmd_write, 0, 512, 0, pattern(512, 6)).error, 0U);
}

TEST_P(nbd_replies, data_goes_both_ways_in_every_size) {
  disk_client c(options, GetParam());
  for (const u32 length :
       {512U, 4096U, 4608U, 65536U, 256 * KiB, 256 * KiB + 512, MiB - 512, 3 * MiB, 32 * MiB}) {
    const u64 offset = disk_bytes / 2 - length / 1024 * 512;
    const bytes data = pattern(length, length);
    ASSERT_EQ(c.call(cmd_write, offset, length, 0, data).error, 0U) << length;
    EXPECT_TRUE(disk.peek(offset, length) == data) << length;
    EXPECT_TRUE(c.call(cmd_read, offset, length).data == data) << length;
    const auto whole = c.call(cmd_read, offset, length, GetParam() ? cmd_flag_df : 0);
    EXPECT_TRUE(whole.data == data) << length;
    if (GetParam()) {
      EXPECT_EQ(whole.data_chunks.size(), 1U);
    }
  }
  EXPECT_EQ(c.call(cmd_write_zeroes, 8 * MiB, 5 * MiB).error, 0U);
  EXPECT_TRUE(disk.peek(8 * MiB, 5 * MiB) == bytes(5 * MiB));
}

TEST_P(nbd_replies, a_disk_error_reaches_the_client_and_the_next_request_works) {
  disk_client c(options, GetParam());
  disk.fail(5 * MiB, 4096, zorv::memory_disk::direction::both, -EIO);
  for (const u32 length : {64 * KiB, 4 * MiB}) {
    const auto r = c.call(cmd_read, 5 * MiB - length / 2, length);
    EXPECT_EQ(r.error, wire::eio);
    EXPECT_FALSE(r.closed);
    if (GetParam()) {  // the piece that failed is named and no chunk claims to hold it
      EXPECT_LE(r.error_offset, 5 * MiB);
      for (const auto& [from, n] : r.data_chunks) {
        EXPECT_TRUE(from + n <= 5 * MiB || from > 5 * MiB);
      }
    }
    EXPECT_EQ(c.call(cmd_write, 5 * MiB - length / 2, length, 0, bytes(length)).error, wire::eio);
    EXPECT_EQ(c.call(cmd_write_zeroes, 5 * MiB - length / 2, length).error, wire::eio);
  }
  kernel::fault_arm(kernel::fault_site::bio_flush, 1, 1, ENOSPC);
  const auto flush = c.call(cmd_flush, 0, 0);
  EXPECT_EQ(flush.error, wire::enospc);
  EXPECT_EQ(flush.error_offset, ~u64{0}) << "a flush fails at no place";
  kernel::fault_arm(kernel::fault_site::bio_flush, 1, 1, EIO);
  const auto fua = c.call(cmd_write, 0, MiB, cmd_flag_fua, bytes(MiB));
  EXPECT_EQ(fua.error, wire::eio);
  EXPECT_EQ(fua.error_offset, ~u64{0}) << "nor does the one behind a large FUA write";
  disk.heal();
  EXPECT_EQ(c.call(cmd_read, 5 * MiB, 4096).error, 0U);
  EXPECT_EQ(c.call(cmd_flush, 0, 0).error, 0U);
}

TEST_F(nbd_test, what_fua_and_flush_acknowledge_survives_a_power_cut) {
  disk_client c(options);
  disk.remember_unsynced();
  const struct {
    u16 type;
    u32 length;
    u16 flags;
    bool flush;
  } table[] = {{cmd_write, 4096, cmd_flag_fua, false},
               {cmd_write, 3 * MiB, cmd_flag_fua, false},
               {cmd_write_zeroes, MiB, cmd_flag_fua, false},
               {cmd_write, 64 * KiB, 0, true}};
  for (const auto& t : table) {
    const bytes data = t.type == cmd_write ? pattern(t.length, 9) : bytes(t.length);
    disk.poke(MiB, bytes(4 * MiB, 0xee));
    const bytes payload = t.type == cmd_write ? data : bytes();
    ASSERT_EQ(c.call(t.type, MiB, t.length, t.flags, payload).error, 0U);
    if (t.flush) {
      ASSERT_EQ(c.call(cmd_flush, 0, 0).error, 0U);
    }
    disk.power_cut();
    disk.power_on();
    EXPECT_TRUE(disk.peek(MiB, t.length) == data) << t.type << " " << t.length;
  }
}

TEST_F(nbd_test, a_read_only_export_takes_no_write) {
  offered[0].read_only = true;
  disk_client c(options);
  EXPECT_EQ(c.call(cmd_write, 0, 512, 0, bytes(512)).error, wire::eperm);
  EXPECT_EQ(c.call(cmd_write_zeroes, 0, 512).error, wire::eperm);
  EXPECT_EQ(c.call(cmd_flush, 0, 0).error, 0U);
  EXPECT_EQ(c.call(cmd_read, 0, 512).error, 0U);
  EXPECT_EQ(disk.writes() + disk.flushes(), 0U);
}

// ---- in flight -----------------------------------------------------------------------------

TEST_F(nbd_test, replies_overtake_a_request_that_waits) {
  disk_client c(options);
  disk.serve(serving::held);
  const u64 slow = c.ask(cmd_write, 0, 4096, 0, pattern(4096, 1));
  ASSERT_TRUE(eventually([this] { return disk.held_count() == 1; }));
  disk.serve(serving::at_once);
  EXPECT_EQ(c.call(cmd_read, MiB, 4096).error, 0U);
  EXPECT_FALSE(c.anything_to_hear(0));
  disk.release_all();
  EXPECT_EQ(c.hear(slow).error, 0U);
}

TEST_F(nbd_test, what_is_in_flight_is_bounded_and_everything_is_served_in_the_end) {
  disk_client c(options);
  disk.serve(serving::held);
  constexpr u32 count = 64;
  std::vector<u64> cookies;
  std::thread sender([&] {
    for (u32 i = 0; i < count; ++i) {
      cookies.push_back(c.ask(cmd_write, u64{i} * MiB, MiB, 0, pattern(MiB, i)));
    }
  });
  const auto held_bytes = [this] {
    std::size_t sum = 0;
    for (const auto& r : disk.held()) sum += r.length_bytes;
    return sum;
  };
  // Up to the limit less one piece, and then not a byte more.
  ASSERT_TRUE(eventually(
      [&] { return held_bytes() + wire::max_piece_bytes >= options.max_inflight_bytes; }));
  EXPECT_FALSE(c.anything_to_hear(100));
  EXPECT_LE(held_bytes(), options.max_inflight_bytes);
  disk.serve(serving::by_worker);
  disk.release_all();
  sender.join();
  for (const u64 cookie : cookies) EXPECT_EQ(c.hear(cookie).error, 0U);
  for (u32 i = 0; i < count; ++i) {
    EXPECT_TRUE(disk.peek(u64{i} * MiB, MiB) == pattern(MiB, i)) << i;
  }
}

TEST_F(nbd_test, pieces_that_end_in_any_order_make_whole_replies) {
  disk.poke(0, pattern(40 * MiB, 3));
  disk.serve(serving::by_worker);
  for (const bool structured : {true, false}) {
    disk_client c(options, structured);
    std::vector<std::pair<u64, u64>> asked;
    for (u64 i = 0; i < 10; ++i) {
      asked.emplace_back(c.ask(cmd_read, i * MiB, 3 * MiB), i * MiB);
      asked.emplace_back(c.ask(cmd_read, i * MiB, 8 * KiB), i * MiB);
    }
    asked.emplace_back(c.ask(cmd_read, 512, 32 * MiB), 512);
    for (const auto& [cookie, offset] : asked) {
      const bytes got = c.hear(cookie).data;
      EXPECT_TRUE(got == disk.peek(offset, got.size())) << offset;
    }
  }
}

TEST_F(nbd_test, a_slow_reader_holds_up_nobody_else) {
  disk_client slow(options), fast(options);
  std::vector<u64> asked;
  for (int i = 0; i < 40; ++i) asked.push_back(slow.ask(cmd_read, 0, 2 * MiB));
  for (int i = 0; i < 200; ++i) ASSERT_EQ(fast.call(cmd_write, 0, 4096, 0, bytes(4096)).error, 0U);
  // Not even a freeze has to wait for it: what it was sent has left the disk.
  kernel::block_device* bdev = disk.bdev();
  kernel::super_block* sb = kernel::freeze_bdev(bdev, kernel::jiffies() + 20000);
  kernel::thaw_bdev(bdev, sb);
  for (const u64 cookie : asked) EXPECT_EQ(slow.hear(cookie).error, 0U);
}

TEST_F(nbd_test, a_frozen_device_delays_requests_and_keeps_answering_earlier_ones) {
  disk_client c(options);
  disk.serve(serving::held);
  const u64 before = c.ask(cmd_write, 0, 4096, 0, pattern(4096, 1));
  ASSERT_TRUE(eventually([this] { return disk.held_count() == 1; }));
  disk.serve(serving::at_once);
  kernel::block_device* bdev = disk.bdev();
  kernel::super_block* sb = nullptr;
  std::thread starter([&] { sb = kernel::freeze_bdev(bdev, kernel::jiffies() + 20000); });
  ASSERT_TRUE(eventually([bdev] {
    const bool open = kernel::blkdev_try_enter(bdev);
    if (open) kernel::blkdev_exit(bdev);
    return !open;
  }));
  const u64 during = c.ask(cmd_write, MiB, 4096, 0, pattern(4096, 2));
  ASSERT_TRUE(eventually([&c] { return c.everything_taken(); }));
  disk.release_all();
  starter.join();
  const u64 writes = disk.writes();
  EXPECT_EQ(c.hear(before).error, 0U);
  EXPECT_FALSE(c.anything_to_hear(50));
  EXPECT_EQ(disk.writes(), writes);
  kernel::thaw_bdev(bdev, sb);
  EXPECT_EQ(c.hear(during).error, 0U);
}

// ---- the end of a connection ---------------------------------------------------------------

TEST_F(nbd_test, a_client_that_vanishes_leaves_nothing_open) {
  const packed head =
      packed().be32(wire::magic_request).be16(0).be16(cmd_write).be64(1).be64(0).be32(8 * MiB);
  const std::vector<std::function<void(raw_client*)>> deaths = {
      [](raw_client*) {},
      [&](raw_client* c) { c->send(bytes(head.begin(), head.begin() + 11)); },
      [&](raw_client* c) { c->send(head); },
      [&](raw_client* c) {
        c->send(head);
        c->send(bytes(3 * MiB + 77));
      },
      [](raw_client* c) { c->ask(cmd_read, 0, 32 * MiB); },
      [](raw_client* c) { c->send(bytes(28)); },  // bad magic
      [this](raw_client* c) {
        disk.serve(serving::held);
        c->ask(cmd_write, 0, 4096, 0, bytes(4096));
        ASSERT_TRUE(eventually([this] { return disk.held_count() == 1; }));
      },
  };
  for (std::size_t i = 0; i < deaths.size(); ++i) {
    disk_client c(options);
    EXPECT_EQ(openers(), 1);
    deaths[i](&c);
    c.hang_up();
    if (disk.held_count() != 0) {
      EXPECT_EQ(openers(), 1) << "released under a request";
    }
    disk.serve(serving::at_once);
    disk.release_all();
    EXPECT_TRUE(eventually([this] { return openers() == 0; })) << i;
  }
}

TEST_F(nbd_test, the_device_is_free_when_the_client_sees_the_connection_close) {
  for (int i = 0; i < 50; ++i) {
    disk_client c(options);
    const u64 last = c.ask(cmd_write, 0, 4096, 0, bytes(4096));
    c.ask(cmd_disc, 0, 0);
    EXPECT_EQ(c.hear(last).error, 0U);
    EXPECT_TRUE(c.at_eof());
    ASSERT_EQ(openers(), 0);
  }
}

TEST_F(nbd_test, stop_ends_requests_in_flight_and_every_connection) {
  server.reset();
  options.reply_limit_ms = 200;
  serve();
  disk_client idle(options), busy(options), zeroing(options);
  raw_client haggling(options.socket_path);
  raw_client deaf(options.socket_path);
  ASSERT_TRUE(deaf.enter("disk", /*structured=*/false));
  haggling.greet();
  deaf.ask(cmd_read, 0, 8 * MiB);
  ASSERT_TRUE(deaf.anything_to_hear(10000));
  disk.serve(serving::held);
  const u64 written = busy.ask(cmd_write, 0, 4096, 0, pattern(4096, 4));
  const u64 zeroed = zeroing.ask(cmd_write_zeroes, 0, static_cast<u32>(disk_bytes));
  ASSERT_TRUE(eventually([this] {
    return disk.held_count() == 1 + options.max_inflight_bytes / wire::max_piece_bytes;
  }));
  std::thread stopper([this] { server->stop(); });
  EXPECT_TRUE(idle.at_eof());
  EXPECT_TRUE(haggling.at_eof());
  EXPECT_TRUE(eventually([this] { return openers() == 2; })) << "who does not read is cut off";
  EXPECT_FALSE(busy.anything_to_hear(400)) << "who waits for the disk is not";
  const u64 writes = disk.writes();
  disk.serve(serving::at_once);
  disk.release_all();
  EXPECT_EQ(busy.hear(written).error, 0U);
  EXPECT_TRUE(busy.at_eof());
  EXPECT_EQ(zeroing.hear(zeroed).error, u32{wire::eshutdown});
  stopper.join();
  EXPECT_EQ(disk.writes(), writes) << "nothing more of what a stop found half done";
  EXPECT_EQ(openers(), 0);
  EXPECT_NE(::access(options.socket_path.c_str(), F_OK), 0);
}

TEST_F(nbd_test, garbage_harms_only_who_sends_it) {
  const auto seed = static_cast<u32>(::testing::UnitTest::GetInstance()->random_seed());
  SCOPED_TRACE("seed " + std::to_string(seed));
  disk_client good(options);
  for (u32 i = 0; i < 200; ++i) {
    raw_client c(options.socket_path);
    const bytes dice = pattern(64, seed + i);
    if (i % 2 == 0) {
      c.greet();
      packed m;
      for (int k = 0; k < 8; ++k) {  // options that are almost right
        bytes data = k % 2 == 0 ? go_data("disk", {1, 3}) : meta_data("disk", {"base:allocation"});
        data[dice[k] % data.size()] ^= dice[k + 8];
        m.text("IHAVEOPT").be32(dice[k + 16] % 12).be32(static_cast<u32>(data.size()));
        m.insert(m.end(), data.begin(), data.end());
      }
      c.send(m);
    } else {
      ASSERT_TRUE(c.enter("disk", i % 4 == 1));
      packed m;
      for (int k = 0; k < 8; ++k) {  // requests with one odd field, payload that is none
        m.be32(wire::magic_request).be16(dice[k] % 32).be16(dice[k + 8] % 9).be64(k);
        m.be64(u64{dice[k + 16]} << (dice[k + 24] % 60))
            .be32(u32{dice[k + 32]} << dice[k + 40] % 32);
      }
      c.send(m);
    }
    c.hang_up();
    if (i % 20 == 0) {
      ASSERT_EQ(good.call(cmd_read, 0, 4096).error, 0U);
    }
  }
  EXPECT_TRUE(eventually([this] { return openers() == 1; }));
}

// ---- the socket ----------------------------------------------------------------------------

TEST_F(nbd_test, connections_and_handshakes_have_limits) {
  server.reset();
  options.max_connections = 2;
  options.handshake_limit_ms = 300;
  serve();
  disk_client served(options);
  raw_client silent(options.socket_path);
  ASSERT_EQ(silent.receive(18).size(), 18U);
  EXPECT_TRUE(raw_client(options.socket_path).at_eof());
  EXPECT_TRUE(log.has("connections are refused"));
  EXPECT_TRUE(silent.at_eof());
  EXPECT_EQ(served.call(cmd_read, 0, 512).error, 0U);
  EXPECT_TRUE(eventually([this] {
    raw_client next(options.socket_path);
    return !next.receive(18).empty();
  }));
}

}  // namespace zorv_test
