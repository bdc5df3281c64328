// SPDX-License-Identifier: GPL-2.0-only
// What snaps show while the disk changes under them, and how the COW thread gets there.
#include "driver/snap/cowwork.h"
#include "snap/snap_fixture.h"

using namespace zorv;
using namespace zorv_test;

namespace {

struct cow_test : snap_test {
  // Holds a copying task in the copy of a chunk of its own. Returns the write that waits for it.
  std::unique_ptr<pending_io> hold_thread(client& c, u64 offset) {
    const auto held = disk.held_count();
    disk.serve(memory_disk::serving::held);
    auto io = c.start_write(offset, bytes(512, 0xee));
    EXPECT_TRUE(eventually([this, held] { return disk.held_count() > held; }));
    return io;
  }
  void let_go() {
    disk.serve(memory_disk::serving::at_once);
    disk.release_all();
  }
  int queue_length() { return zorv_blkdev_arr[filter]->f.cowqueue.cnt.load(); }
  bool queued(int n) {
    return eventually([this, n] { return queue_length() == n; });
  }
};

}  // namespace

TEST_F(cow_test, a_write_waits_until_what_it_overwrites_is_copied_and_recorded) {
  const u32 snap = add_started_snap({.files = dir / "s"});
  EXPECT_EQ(cow_contents(dir / "s.cow").size(), disk_bytes);
  client c(filter);
  auto io = hold_thread(c, 3 * 64 * KiB + 512);
  for (const auto& held : disk.held()) EXPECT_EQ(held.rw & 1, kernel::READ);
  EXPECT_FALSE(io->done());
  EXPECT_EQ(disk.peek(3 * 64 * KiB, 1024), pattern(3 * 64 * KiB, 1024));
  let_go();
  EXPECT_EQ(io->wait(), 0);
  EXPECT_EQ(disk.peek(3 * 64 * KiB + 512, 512), bytes(512, 0xee));
  bytes bits(disk_bytes / (64 * KiB) / 8);
  bits[0] = 1 << 3;
  EXPECT_EQ(cow_contents(dir / "s.bmp"), bits);
  const bytes data = cow_contents(dir / "s.cow");
  EXPECT_EQ(bytes(data.begin() + 3 * 64 * KiB, data.begin() + 4 * 64 * KiB),
            pattern(3 * 64 * KiB, 64 * KiB));
  EXPECT_EQ(bytes(data.begin(), data.begin() + 3 * 64 * KiB), bytes(3 * 64 * KiB)) << "sparse";
  const auto reads = disk.reads();
  EXPECT_EQ(c.fill(3 * 64 * KiB, 64 * KiB, 1), 0);
  EXPECT_EQ(disk.reads(), reads) << "what is copied is not copied again";
  expect_unchanged(snap);
}

TEST_F(cow_test, a_write_waits_for_a_bit_that_is_set_but_not_yet_on_stable_storage) {
  const u32 snap = add_started_snap();
  client c(filter);
  EXPECT_EQ(c.fill(0, 512, 1), 0);
  zorv_cowbmp& map = zorv_blkdev_arr[snap]->s.cowbmp;
  ASSERT_EQ(zorv_cowbmp_test_stable(&map, 0), 1);
  ASSERT_EQ(zorv_cowbmp_begin_copy(&map, 0, kernel::GFP_NOIO), 0);  // as between bit and sync
  auto io = c.start_write(4096, bytes(512, 2));
  EXPECT_FALSE(eventually([&] { return io->done(); }, 30));
  EXPECT_EQ(shown(snap, 0, 4096), pattern(0, 4096)) << "the copy serves reads already";
  zorv_cowbmp_end_copy(&map, 0);
  EXPECT_EQ(c.fill(MiB, 512, 1), 0);  // the end of another copy
  EXPECT_EQ(io->wait(), 0);
}

TEST_F(cow_test, a_batch_of_an_earlier_life_of_its_snap_is_not_copied) {
  const u32 snap = add_started_snap({.files = dir / "s"});
  zorv_snap& s = zorv_blkdev_arr[snap]->s;
  auto w = std::make_unique<cow_worker>();
  w->filter = &zorv_blkdev_arr[filter]->f;
  cow_copier& copier = w->copiers[0];
  copier.worker = w.get();
  copier.batch.snap = zorv_node_get(snap);
  copier.batch.life = s.life.load();
  copier.batch.chunks[copier.batch.count++] = 5;
  EXPECT_EQ(stop(snap) | start(snap), 0);
  ASSERT_EQ(zorv_cowbmp_begin_copy(&s.cowbmp, 5, kernel::GFP_NOIO), 0);  // the present life's
  const auto reads = disk.reads();
  cow_chunks(&copier);
  EXPECT_EQ(disk.reads(), reads);
  EXPECT_EQ(zorv_cowbmp_state(&s.cowbmp, 5), chunk_state::on_its_way);
  zorv_cowbmp_end_copy(&s.cowbmp, 5);
}

TEST_F(cow_test, every_pass_copies_one_chunk_of_each_write) {
  const u32 snap = add_started_snap();
  log_detail();
  client c(filter);
  EXPECT_EQ(c.fill(32 * KiB, 128 * KiB, 1), 0);
  const std::string one = "COWing 1 chunks (16 pages), snap_minor=1";
  EXPECT_EQ(groups(), (std::vector<std::string>{one, one, one}));

  // While all copying tasks are held, what comes is met by one pass: two writes to one chunk and
  // two to others are one group of three.
  log.clear();
  std::vector<std::unique_ptr<pending_io>> holders;
  for (u32 i = 0; i < nr_copiers; ++i) holders.push_back(hold_thread(c, 4 * MiB + i * 64 * KiB));
  std::vector<std::unique_ptr<pending_io>> rest;
  for (const u64 at : {MiB, MiB + 8 * KiB, 2 * MiB, 3 * MiB}) {
    rest.push_back(c.start_write(at, bytes(4 * KiB, 2)));
  }
  EXPECT_TRUE(queued(nr_copiers + 4));
  let_go();
  for (auto& io : rest) EXPECT_EQ(io->wait(), 0);
  std::vector<std::string> want(nr_copiers, one);
  want.emplace_back("COWing 3 chunks (48 pages), snap_minor=1");
  EXPECT_EQ(groups(), want);
  expect_unchanged(snap);
}

TEST_F(cow_test, a_request_never_overtakes_an_earlier_one_that_it_overlaps) {
  add_started_snap();
  client c(filter);
  EXPECT_EQ(c.fill(0, 64 * KiB, 1), 0);
  auto first = hold_thread(c, 7 * MiB);
  auto longer = c.start_write(0, bytes(128 * KiB, 2));  // its second chunk is missing
  auto later = c.start_write(0, bytes(4 * KiB, 3));     // nothing of it is
  EXPECT_TRUE(queued(3));
  let_go();
  EXPECT_EQ(first->wait() | longer->wait() | later->wait(), 0);
  EXPECT_EQ(disk.peek(0, 4 * KiB), bytes(4 * KiB, 3));
}

TEST_F(cow_test, groups_hold_four_mebibytes_and_larger_chunks_are_copied_piece_by_piece) {
  // The first writes hold the copying tasks in a chunk each; the others are met by one pass.
  struct {
    u32 chunk_size;
    u64 writes, step;
    std::vector<u64> groups;  // in chunks, of what is met later
  } table[] = {{4096, 1500, 4096, {1024, 1500 - 1024 - nr_copiers}},
               {64 * KiB, 80, 64 * KiB, {64, 80 - 64 - nr_copiers}},
               {4 * MiB, 2, 4 * MiB, {}},
               {8 * MiB, 1, 4 * MiB, {}}};
  log_detail();
  for (const auto& t : table) {
    disk.poke(0, pattern(0, disk_bytes));
    const u32 snap = add_started_snap({.chunk_size = t.chunk_size});
    log.clear();
    client c(filter);
    std::vector<std::unique_ptr<pending_io>> ios;
    for (u64 i = 0; i < t.writes; ++i) {
      const u64 at = i * t.step;
      ios.push_back(i < nr_copiers ? hold_thread(c, at) : c.start_write(at, bytes(512, 1)));
    }
    EXPECT_TRUE(queued(static_cast<int>(t.writes)));
    let_go();
    for (auto& io : ios) EXPECT_EQ(io->wait(), 0);
    std::vector<std::string> want;
    const auto expect_group = [&](u64 chunks) {
      want.push_back("COWing " + std::to_string(chunks) + " chunks (" +
                     std::to_string(chunks * t.chunk_size / 4096) + " pages), snap_minor=1");
    };
    for (u64 i = 0; i < t.writes && i < nr_copiers; ++i) expect_group(1);
    for (const u64 chunks : t.groups) expect_group(chunks);
    auto seen = groups();
    std::sort(seen.begin(), seen.end());  // several tasks log them
    std::sort(want.begin(), want.end());
    EXPECT_EQ(seen, want);
    expect_unchanged(snap);
    c.close();
    EXPECT_EQ(del(snap), 0);
  }
}

TEST_F(cow_test, the_last_chunk_may_reach_beyond_the_end_of_the_disk) {
  for (const u64 size : {MiB + 3 * 512, MiB + 4096, u64{5 * 512}}) {
    memory_disk odd("odd" + std::to_string(size), size);
    odd.poke(0, pattern(0, size));
    filter = add_started_filter(odd.path());
    const u32 snap = add_started_snap({.chunk_size = 256 * KiB});
    {
      client c(filter);
      EXPECT_EQ(c.fill(size - 512, 512, 9), 0);
      EXPECT_EQ(c.fill(0, 512, 9), 0);
    }
    EXPECT_TRUE(shown(snap, 0, size) == pattern(0, size)) << size << log.errors();
    EXPECT_EQ(del(filter), 0);
  }
}

// Each page of the COW bitmap holds 32768 chunks and comes with its first bit.
TEST_F(cow_test, chunks_of_every_page_of_the_bitmap_are_copied_and_resumed) {
  memory_disk large("large", 400 * MiB);
  const std::vector<u64> places{0, 36 * KiB, 128 * MiB - 4096, 128 * MiB, 400 * MiB - 4096};
  for (const u64 at : places) large.poke(at, pattern(at, 4096));
  filter = add_started_filter(large.path());
  const u32 snap = add_started_snap({.chunk_size = 4096, .files = dir / "l"});
  {
    client c(filter);
    for (const u64 at : places) EXPECT_EQ(c.fill(at, 4096, 9), 0);
  }
  bytes bits(400 * MiB / 4096 / 8);
  for (const u64 at : places) bits[at / 4096 / 8] |= static_cast<u8>(1 << at / 4096 % 8);
  EXPECT_EQ(cow_contents(dir / "l.bmp"), bits);
  for (const bool again : {false, true}) {
    if (again) EXPECT_EQ(stop(snap) | resume(snap), 0);
    for (const u64 at : places) EXPECT_EQ(shown(snap, at, 4096), pattern(at, 4096)) << at;
    EXPECT_EQ(proc(line("zorv/zorv%u/copied_chunks", snap)), "5\n");
    EXPECT_EQ(shown(snap, 200 * MiB, 4096), bytes(4096)) << "of a page without a bit";
  }
  EXPECT_EQ(del(snap) | del(filter), 0);
}

TEST_F(cow_test, reads_of_a_snap_are_served_from_where_its_data_is) {
  const u32 snap = add_started_snap({.files = dir / "s"});
  client c(filter);
  client s(snap);
  disk.record(true);
  EXPECT_EQ(s.get(MiB, 64 * KiB), pattern(MiB, 64 * KiB));
  EXPECT_EQ(disk.recorded().back().length_bytes, 64 * KiB) << "nothing copied: straight through";
  EXPECT_EQ(disk.recorded().back().task.find("kcowd"), std::string::npos);
  EXPECT_EQ(c.fill(0, 512, 1), 0);  // copies chunk 0
  // One segment across the border of chunk 0, which is copied, and chunk 1, which is not.
  disk.record(true);
  EXPECT_EQ(s.get(64 * KiB - 1024, 4096), pattern(64 * KiB - 1024, 4096));
  ASSERT_EQ(disk.recorded().size(), 1U);
  EXPECT_EQ(disk.recorded()[0].offset_bytes, 64 * KiB);
  EXPECT_EQ(disk.recorded()[0].length_bytes, 3072U);
  // A read behind an overlapping write waits for its copy, another one does not.
  auto write = hold_thread(c, 2 * MiB);
  auto behind = s.start_read(2 * MiB - 8192, 16384);
  auto elsewhere = s.start_read(5 * MiB, 4096);
  EXPECT_TRUE(queued(2));
  EXPECT_FALSE(behind->done());
  let_go();
  EXPECT_EQ(behind->wait() | write->wait() | elsewhere->wait(), 0);
  EXPECT_EQ(behind->data(), pattern(2 * MiB - 8192, 16384));
  // A source that cannot be read fails the read and nothing else.
  bytes out;
  kernel::fault_arm(kernel::fault_site::file_read, 1, 1, EIO);
  EXPECT_EQ(s.read(0, 4096, &out), -EIO);
  disk.fail(64 * KiB, 4096, memory_disk::direction::read, -EIO);
  EXPECT_EQ(s.read(64 * KiB - 1024, 4096, &out), -EIO);
  EXPECT_TRUE(
      log.has("read_from_hdd(): Failed to read 3072 bytes starting from sector 128 from device ("))
      << log.errors();
  disk.heal();
  expect_unchanged(snap);
}

TEST_F(cow_test, a_read_of_a_snap_holds_up_nothing_but_what_overlaps_it) {
  const u32 snap = add_started_snap();
  client c(filter);
  client s(snap);
  EXPECT_EQ(c.fill(0, 512, 1), 0);
  disk.serve(memory_disk::serving::held);
  auto read = s.start_read(0, 128 * KiB);  // chunk 0 from the file, chunk 1 from the disk
  EXPECT_TRUE(eventually([this] { return disk.held_count() == 1; }));
  auto behind = c.start_write(64 * KiB, bytes(4096, 2));
  auto elsewhere = c.start_write(MiB, bytes(4096, 3));
  EXPECT_TRUE(eventually([this] { return disk.held_count() == 2; })) << "its chunk is being copied";
  EXPECT_EQ(disk.held()[1].offset_bytes, MiB);
  EXPECT_EQ(queue_length(), 3);
  disk.serve(memory_disk::serving::at_once);
  disk.release(1);
  EXPECT_EQ(elsewhere->wait(), 0);
  EXPECT_FALSE(read->done() || behind->done());
  let_go();
  EXPECT_EQ(read->wait() | behind->wait(), 0);
  EXPECT_EQ(read->data(), pattern(0, 128 * KiB));
  expect_unchanged(snap);
}

TEST_F(cow_test, a_write_that_is_let_go_does_not_wait_for_the_disk_to_be_unplugged_by_the_clock) {
  add_started_snap();
  client c(filter);
  disk.plug(true);
  int by_clock = 0;
  for (u64 i = 0; i < 40; ++i) {
    auto io = c.start_write(i * 64 * KiB, bytes(512, 1));
    EXPECT_EQ(io->wait(), 0);
    if (io->ended_by() == "kblockd") ++by_clock;
  }
  EXPECT_LT(by_clock, 20) << "a clock set for an earlier request may strike now and then";
}

TEST_F(cow_test, a_write_queued_before_a_newer_snap_started_changes_neither) {
  const u32 a = add_started_snap();
  const u32 b = add_snap();
  log_detail();
  client c(filter);
  kernel::block_device* bdev = c.bdev();
  c.close();  // nobody has the filter open: the start freezes nothing
  disk.serve(memory_disk::serving::held);
  pending_io first(bdev, kernel::WRITE, 0, bytes(512, 1));
  EXPECT_TRUE(eventually([this] { return disk.held_count() > 0; }));
  pending_io second(bdev, kernel::WRITE, MiB / 512, bytes(512, 1));
  // The start goes on to read through the snap, for which it needs the disk.
  std::thread starter([&] { EXPECT_EQ(start(b), 0) << log.errors(); });
  EXPECT_TRUE(eventually([b] { return zorv_blkdev_arr[b]->started.load() == 1; }));
  pending_io third(bdev, kernel::WRITE, 2 * MiB / 512, bytes(512, 1));
  EXPECT_TRUE(eventually([this] { return queue_length() >= 3; }));
  let_go();
  starter.join();
  EXPECT_EQ(first.wait() | second.wait() | third.wait(), 0);
  expect_unchanged(a);
  expect_unchanged(b);
  int copied[3] = {};
  for (const std::string& g : groups()) {
    int chunks = 0, minor = 0;
    ASSERT_EQ(
        std::sscanf(g.c_str(), "COWing %d chunks (%*d pages), snap_minor=%d", &chunks, &minor), 2);
    ASSERT_TRUE(minor == 1 || minor == 2) << g;
    copied[minor] += chunks;
  }
  EXPECT_EQ(copied[1], 2) << "two writes were queued for the older one";
  EXPECT_EQ(copied[2], 3) << "all have to wait for the newer one";
}

TEST_F(cow_test, the_thread_ends_with_an_empty_queue_and_an_abort_fails_what_is_held) {
  const u32 snap = add_started_snap();
  zorv_filter& f = zorv_blkdev_arr[filter]->f;
  kernel::block_device* bdev = client(filter).bdev();
  EXPECT_EQ(zorv_cowthread_start(&f.cowthread, "kcowd", &f), -EALREADY);
  EXPECT_EQ(zorv_cowthread_shutdown(nullptr), -EINVAL);
  for (const bool abort : {false, true}) {
    disk.serve(memory_disk::serving::held);
    pending_io copying(bdev, kernel::WRITE, abort ? 4096 : 0, bytes(512, 1));
    EXPECT_TRUE(eventually([this] { return disk.held_count() > 0; }));
    pending_io waiting(bdev, kernel::WRITE, abort ? 8192 : 2048, bytes(512, 1));
    EXPECT_TRUE(queued(2));
    std::atomic<bool> ended{false};
    std::thread ender([&] {
      EXPECT_EQ(abort ? zorv_cowthread_abort(&f.cowthread) : stop(filter), 0);
      ended = true;
    });
    EXPECT_FALSE(eventually([&] { return ended.load(); }, 30));
    EXPECT_TRUE(eventually([&] { return !abort || f.cowthread.stop.load() == 1; }));
    let_go();
    ender.join();
    EXPECT_EQ(f.cowthread.pid.load(), 0);
    EXPECT_EQ(queue_length(), 0);
    if (abort) {
      EXPECT_EQ(waiting.wait(), -EIO);
      (void)copying.wait();
      EXPECT_EQ(zorv_cowthread_abort(&f.cowthread), 0);
    } else {
      EXPECT_EQ(copying.wait() | waiting.wait(), 0);
      EXPECT_EQ(start(snap), 0);
    }
  }
}
