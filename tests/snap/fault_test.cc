// SPDX-License-Identifier: GPL-2.0-only
// Snaps when memory, files, the disk or the power fail. Whatever happens, the client's write
// succeeds, and a snap is right or says that it is not.
#include "snap/snap_fixture.h"
#include "support/at_log_line.h"

using namespace zorv;
using namespace zorv_test;
using kernel::fault_site;

namespace {

struct fault_test : snap_test {
  fault_test() : snap_test(2 * MiB) {}
  void expect_right_or_invalid(u32 snap, const bytes& want) {
    bytes out;
    const int rc = client(snap).read(0, disk_bytes, &out);
    if (valid(snap)) {
      EXPECT_EQ(rc, 0);
      EXPECT_TRUE(out == want);
    } else {
      EXPECT_EQ(rc, -EIO);
      EXPECT_TRUE(log.has(line("Invalidating snap device zorv(100, %u)", snap)));
    }
  }
};

}  // namespace

TEST_F(fault_test, a_failed_copy_invalidates_the_snap_and_the_older_ones_and_the_write_succeeds) {
  struct {
    const char* what;
    std::function<void()> spoil;
    const char* said;
  } table[] = {{"HDD", [this] { disk.fail(MiB + 8192, 4096, memory_disk::direction::read, -EIO); },
                "cow_chunks(): Failed to read 4096-byte block #258 from /dev/image/d0"},
               {"no space", [] { kernel::fault_arm(fault_site::file_write, 1, 1, ENOSPC); },
                "write_cowed_page(): Invalidating snap device zorv(100, 3)"},
               {"data sync", [] { kernel::fault_arm(fault_site::file_sync, 1, 1, EIO); },
                "cow_chunks(): Failed to sync "},
               {"bit", [] { kernel::fault_arm(fault_site::file_write, 2, 1, EIO); },
                "mark_chunk_cowed(): Invalidating snap device zorv(100, 3)"},
               {"bit sync", [] { kernel::fault_arm(fault_site::file_sync, 2, 1, EIO); },
                "cow_chunks(): Failed to sync "}};
  for (const auto& t : table) {
    const u32 a = add_started_snap(), b = add_snap();
    const u32 n = add_started_snap({.minor = 3, .files = dir / "new"});
    client c(filter);
    log.clear();
    t.spoil();
    const auto reads = disk.reads();
    EXPECT_EQ(c.fill(MiB, 4096, 1), 0) << t.what;
    EXPECT_LE(disk.reads() - reads, 6U) << "the bad block of 16 is found by halves";
    kernel::fault_disarm_all();
    disk.heal();
    EXPECT_TRUE(log.has(t.said)) << t.what << "\n" << log.errors();
    EXPECT_EQ(log.count("4096-byte block"), t.said[2] == 'w' && t.what[0] == 'H' ? 1 : 0);
    EXPECT_EQ(disk.peek(MiB, 4096), bytes(4096, 1));
    for (const u32 snap : {a, n}) EXPECT_FALSE(valid(snap)) << t.what;
    EXPECT_FALSE(log.has("Invalidating snap device zorv(100, 2)")) << "it is stopped";
    EXPECT_EQ(std::filesystem::file_size(dir / "new.cow"), 0U);
    EXPECT_EQ(c.fill(MiB / 2, 4096, 1), 0) << "no write waits any more";
    for (const u32 snap : {a, b, n}) {
      EXPECT_EQ(stop(snap), 0);
    }
    for (const u32 snap : {n, b, a}) EXPECT_EQ(del(snap), 0);
  }
}

TEST_F(fault_test, a_read_that_its_snap_does_not_outlive_does_not_succeed_with_newer_data) {
  const auto invalidate = [this](client& c) {
    disk.fail(MiB, 4096, memory_disk::direction::read, -EIO);
    EXPECT_EQ(c.fill(MiB, 4096, 1), 0);
    disk.heal();
  };
  for (const u32 moment : {0U, 1U}) {  // when the older one, when the newer one goes
    disk.poke(0, pattern(0, disk_bytes));
    const u32 snaps[] = {add_started_snap(), add_started_snap()};
    client c(filter), older(snaps[0]);
    EXPECT_EQ(c.fill(0, 4096, 1), 0);  // copied for the newer one
    {
      at_log_line hook(line("Invalidating snap device zorv(100, %u)", snaps[moment]), [&] {
        bytes out;
        EXPECT_TRUE(older.read(0, 4096, &out) == -EIO || out == pattern(0, 4096)) << moment;
      });
      invalidate(c);
    }
    older.close();
    for (const u32 snap : snaps) EXPECT_EQ(del(snap), 0);
  }
  // One that waits for its turn at the disk, its look-ups done.
  const u32 snap = add_started_snap();
  client c(filter), s(snap);
  EXPECT_EQ(c.fill(0, 4096, 1), 0);
  disk.serve(memory_disk::serving::held);
  auto in_the_way = c.start_read(64 * KiB, 4096);
  auto read = s.start_read(0, 128 * KiB);
  auto write = c.start_write(MiB, bytes(4096, 2));
  EXPECT_TRUE(eventually([this] { return disk.held_count() == 2; }));
  disk.fail(MiB, 4096, memory_disk::direction::read, -EIO);
  disk.serve(memory_disk::serving::at_once);
  disk.release(1, -EIO);
  EXPECT_TRUE(eventually([&] { return !valid(snap); }));
  disk.release_all();
  EXPECT_EQ(in_the_way->wait() | write->wait(), 0);
  EXPECT_EQ(read->wait(), -EIO);
}

TEST_F(fault_test, without_its_thread_a_resumed_snap_holds_up_neither_a_write_nor_a_stop) {
  const u32 snap = add_started_snap();
  EXPECT_EQ(stop(filter) | start(filter), 0);
  kernel::fault_arm(fault_site::thread_create, 1, -1, EAGAIN);
  client c(filter);
  std::unique_ptr<pending_io> write;
  {
    at_log_line hook("Invalidating snap device", [&] { write = c.start_write(0, bytes(512, 1)); });
    EXPECT_EQ(resume(snap), 0);
  }
  EXPECT_EQ(write->wait(), 0);
  c.close();
  EXPECT_EQ(stop(snap) | stop(filter), 0);
}

TEST_F(fault_test, no_write_goes_without_its_copy_before_the_record_or_a_note_says_so) {
  const u32 snap = add_started_snap();
  client c(filter);
  EXPECT_EQ(c.fill(0, 512, 1), 0);
  disk.fail(MiB, 4096, memory_disk::direction::read, -EIO);
  for (const auto site : {fault_site::file_write, fault_site::file_unlink, fault_site::state_write})
    kernel::fault_arm(site, 1, -1, EIO);
  EXPECT_EQ(c.fill(MiB, 4096, 2), -EIO);
  EXPECT_FALSE(valid(snap));
  kernel::fault_disarm_all();
  disk.heal();
  EXPECT_EQ(disk.peek(MiB, 4096), pattern(MiB, 4096));
  EXPECT_TRUE(eventually([&] { return c.fill(MiB, 4096, 2) == 0; }));
}

TEST_F(fault_test, a_copy_that_is_still_being_made_does_not_make_an_emptied_file_long_again) {
  const u32 snap = add_started_snap({.files = dir / "s"});
  client c(filter);
  disk.serve(memory_disk::serving::held);
  auto failing = c.start_write(0, bytes(4096, 1));
  EXPECT_TRUE(eventually([this] { return disk.held_count() == 1; }));
  auto last = c.start_write(disk_bytes - 4096, bytes(4096, 2));
  EXPECT_TRUE(eventually([this] { return disk.held_count() == 2; }));
  disk.fail(0, 64 * KiB, memory_disk::direction::read, -EIO);
  disk.serve(memory_disk::serving::at_once);
  disk.release(0, -EIO);
  EXPECT_TRUE(eventually([&] { return !valid(snap); }));
  EXPECT_FALSE(eventually([&] { return std::filesystem::file_size(dir / "s.cow") == 0; }, 50));
  EXPECT_FALSE(failing->done() || last->done());
  disk.heal();
  disk.release_all();
  EXPECT_EQ(failing->wait() | last->wait(), 0);
  EXPECT_TRUE(eventually([&] { return std::filesystem::file_size(dir / "s.cow") == 0; }));
}

TEST_F(fault_test, a_copy_that_hangs_in_a_file_costs_its_snap_and_holds_up_nothing_else) {
  const struct {
    fault_site site;
    const char* said;
    u32 hanging;  // of three that copy
  } table[] = {{fault_site::file_sync, "Failed to sync ", 1},
               {fault_site::file_read, "does not end as it was made", 1},
               {fault_site::file_sync, "Failed to sync ", 3}};
  for (const auto& t : table) {
    client c(filter);
    EXPECT_EQ(c.fill(0, disk_bytes, 1), 0) << "no bitmap file is marked any more";
    const u32 snap = add_started_snap(), other = add_snap();
    std::atomic<bool> hangs{true};
    const auto hang = [&] {
      while (hangs) kernel::yield();
    };
    at_log_line hook(t.said, hang, static_cast<int>(t.hanging));
    kernel::fault_arm(t.site, 1, t.hanging, EIO);
    std::vector<std::unique_ptr<pending_io>> writes;
    for (u32 n = 0; n < t.hanging; ++n) {
      writes.push_back(c.start_write(MiB + n * 64 * KiB, bytes(4096, 2)));
      EXPECT_TRUE(eventually([&] { return kernel::fault_calls(t.site) > n; })) << t.said;
    }
    const bool nobody_left = t.hanging == 3;
    if (nobody_left) writes.push_back(c.start_write(MiB / 2, bytes(4096, 2)));
    kernel::turn_clock(29000);
    EXPECT_FALSE(eventually([&] { return writes.back()->done(); }, 100));
    kernel::turn_clock(2000);
    for (auto& write : writes) EXPECT_EQ(write->wait(), 0);
    EXPECT_FALSE(valid(snap));
    c.close();
    EXPECT_EQ(stop(snap), 0);
    EXPECT_EQ(start(snap), -EBUSY);
    EXPECT_EQ(del(snap), -EBUSY);
    if (nobody_left) {
      EXPECT_EQ(start(other), -EBUSY);
    } else {
      const bytes now = disk.peek(0, disk_bytes);
      EXPECT_EQ(start(other), 0);
      EXPECT_EQ(client(filter).fill(256 * KiB, 4096, 3), 0);
      EXPECT_TRUE(shown(other, 0, disk_bytes) == now);
      EXPECT_EQ(stop(filter), 0);
    }
    hangs = false;
    EXPECT_TRUE(eventually([&] { return start(snap) == 0; }, 5000))
        << "what came back late changes nothing";
    EXPECT_TRUE(valid(snap));
    EXPECT_EQ(stop(filter) | del(snap) | del(other) | start(filter), 0);
  }
}

TEST_F(fault_test, reads_that_hang_in_a_file_end_and_cost_the_snaps_that_nobody_reads) {
  for (const u32 hanging : {1U, 3U}) {  // of three that read
    const u32 snap = add_started_snap(), other = add_snap();
    client c(filter), reader(snap);
    EXPECT_EQ(c.fill(0, 192 * KiB, 1) | start(other) | c.fill(MiB / 2, 4096, 1), 0);
    client other_reader(other);
    std::atomic<bool> hangs{true};
    std::atomic<u32> there{0};
    const auto hang = [&] {
      ++there;
      while (hangs) kernel::yield();
    };
    at_log_line hook("does not end as it was made", hang, static_cast<int>(hanging));
    kernel::fault_arm(fault_site::file_read, 1, -1, EIO);
    std::vector<std::unique_ptr<pending_io>> reads;
    for (u32 n = 0; n < hanging; ++n) {
      reads.push_back(reader.start_read(n * 64 * KiB, 4096));
      EXPECT_TRUE(eventually([&] { return there > n; }));
    }
    kernel::fault_disarm_all();
    const bool nobody_left = hanging == 3;
    if (nobody_left) reads.push_back(other_reader.start_read(MiB / 2, 4096));
    kernel::turn_clock(29000);
    EXPECT_FALSE(eventually([&] { return reads.back()->done(); }, 100));
    kernel::turn_clock(2000);
    for (auto& read : reads) EXPECT_EQ(read->wait(), -EIO);
    EXPECT_FALSE(valid(snap));
    EXPECT_EQ(valid(other), !nobody_left);
    EXPECT_EQ(c.fill(MiB, 4096, 2), 0);
    reader.close();
    other_reader.close();
    c.close();
    EXPECT_EQ(stop(snap) | stop(other), 0);
    EXPECT_EQ(del(snap), -EBUSY);
    EXPECT_EQ(start(other), nobody_left ? -EBUSY : 0);
    EXPECT_EQ(stop(filter), 0);
    hangs = false;
    EXPECT_TRUE(eventually([&] { return start(snap) == 0; }));
    EXPECT_TRUE(valid(snap));
    EXPECT_EQ(stop(filter) | del(snap) | del(other) | start(filter), 0);
  }
}

TEST_F(fault_test, every_single_failure_of_a_start_or_a_copy_leaves_right_or_invalid_snaps) {
  for (const auto site : {fault_site::alloc, fault_site::file_open, fault_site::file_write,
                          fault_site::file_sync, fault_site::bio_read, fault_site::thread_create}) {
    bool hit = true;
    for (u64 n = 1; hit && n < 20000; n += n < 12 ? 1 : n / 3) {
      const bytes before = disk.peek(0, disk_bytes);
      const u32 snap = add_snap();
      log.clear();
      kernel::fault_arm(site, n, 1, site == fault_site::alloc ? ENOMEM : EIO);
      const int rc = start(snap);
      if (rc == 0) {
        client c(filter);
        EXPECT_EQ(c.fill((n % 16) * 100 * KiB, 200 * KiB, static_cast<u8>(n)), 0);
      }
      hit = kernel::fault_calls(site) >= n;
      kernel::fault_disarm_all();
      if (rc == 0) {
        expect_right_or_invalid(snap, before);
        if (log.has("has no COW thread")) {
          EXPECT_FALSE(valid(snap));
          EXPECT_EQ(std::filesystem::file_size(zorv_blkdev_arr[snap]->s.cow_data_fname), 0U);
          EXPECT_TRUE(valid(add_started_snap())) << "the next start has its thread";
          EXPECT_EQ(stop(filter) | del(2), 0);
        }
      } else {
        EXPECT_EQ(proc("zorv/zorv1/started"), "0\n");
        EXPECT_EQ(start(snap), 0) << "site " << static_cast<u32>(site) << " " << n << log.errors();
        EXPECT_TRUE(valid(snap));
      }
      EXPECT_EQ(stop(filter), 0);
      EXPECT_EQ(del(snap), 0);
      EXPECT_EQ(start(filter), 0);
    }
    EXPECT_FALSE(hit) << static_cast<u32>(site);
  }
}

TEST_F(fault_test, after_a_power_cut_every_chunk_is_on_the_disk_or_copied_and_recorded) {
  for (int moment = 0; moment < 8; ++moment) {
    const std::string files = dir / ("cut" + std::to_string(moment));
    disk.heal();
    disk.poke(0, pattern(0, disk_bytes));
    kernel::fault_record_unsynced_begin();
    const u32 snap = add_started_snap({.chunk_size = 16 * KiB, .files = files});
    disk.serve(memory_disk::serving::by_worker);
    std::vector<std::unique_ptr<pending_io>> ios;
    {
      client c(filter);
      for (u64 i = 0; i < 40; ++i) {
        ios.push_back(c.start_write(i * 37 % 100 * 20 * KiB, bytes(24 * KiB, 0xcc)));
      }
      EXPECT_TRUE(eventually([&] {
        int done = 0;
        for (auto& io : ios) done += io->done() ? 1 : 0;
        return done >= moment * 5;
      }));
      // The disk stands still before the files do: what it has must have been recorded by then.
      disk.fail(0, disk_bytes, memory_disk::direction::write, -EIO);
      for (const auto site : {fault_site::file_open, fault_site::file_write, fault_site::file_sync})
        kernel::fault_arm(site, 1, -1, EIO);
      kernel::fault_power_cut();
      const bytes bits = cow_contents(files + ".bmp"), data = cow_contents(files + ".cow");
      ASSERT_EQ(data.size(), disk_bytes) << "files and names were synced at the start";
      ASSERT_EQ(bits.size(), disk_bytes / (16 * KiB) / 8);
      const bytes hdd = disk.peek(0, disk_bytes), want = pattern(0, disk_bytes);
      for (u64 chunk = 0; chunk < disk_bytes / (16 * KiB); ++chunk) {
        const bool copied = (bits[chunk / 8] >> chunk % 8 & 1) != 0;
        const bytes& from = copied ? data : hdd;
        EXPECT_EQ(std::memcmp(&from[chunk * 16 * KiB], &want[chunk * 16 * KiB], 16 * KiB), 0)
            << "chunk " << chunk << (copied ? " copied" : " not copied");
      }
      for (auto& io : ios) (void)io->wait();
    }
    kernel::fault_disarm_all();
    kernel::fault_record_unsynced_end();
    disk.serve(memory_disk::serving::at_once);
    EXPECT_EQ(del(snap), 0);
  }
}
