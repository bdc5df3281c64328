// SPDX-License-Identifier: GPL-2.0-only
// The bitmap files: their bytes, what the load makes of any file, failures, and power cuts.
#include <filesystem>
#include <optional>

#include "driver/bitmap/bitmap.h"
#include "driver/bitmap/dirty.h"
#include "kernel/fs.h"
#include "kernel/state.h"
#include "support/at_log_line.h"
#include "support/driver_fixture.h"

using namespace zorv;
using namespace zorv_test;
namespace fs = std::filesystem;

namespace {

constexpr u32 incr = ZORV_BMP_INCREMENTAL, diff = ZORV_BMP_DIFFERENTIAL;
const bytes stale{'Z', 'O', 'R', 'V', 'B', 'M', 'P', 1};
const bytes saved_01_00{'Z', 'O', 'R', 'V',  'B',  'M',  'P',  0,    2,
                        0,   0,   0,   0x41, 0xDC, 0x3D, 0xA7, 0x01, 0};

struct bitmap_file_test : driver_test {
  memory_disk disk{"d0", 1 << 20};  // 16 extents
  const std::string file = dir / "zorv0.incr";

  static zorv_filter* filter() { return &zorv_blkdev_arr[0]->f; }
  static u32 dirty() { return filter()->incr_bmp_dirty.load(); }
  // A node whose files hold extent 0.
  void saved_node() {
    ASSERT_EQ(add_started_filter(disk.path()), 0U);
    mark(0);
    save_both();
  }
  void save_both() {
    for (u32 type : {incr, diff}) ASSERT_EQ(bmp(ZORV_SAVE_BMP, 0, type), 0) << log.errors();
  }
  static void mark(u32 extent) { zorv_block_mark_extents(filter(), extent * 128ULL, 1); }
  bool stale_on_disk() {
    return eventually([] { return !zorv_marks_pending(filter()); }) && read_file(file) == stale;
  }
  // The daemon dies here: nothing more is saved, and the next one finds these files.
  std::vector<u32> after_crash(client* c) {
    const temp_dir kept;
    for (const auto& folder : {dir.path(), state / "zorv"}) {
      fs::copy(folder, kept / fs::path(folder).filename(),
               fs::copy_options::recursive | fs::copy_options::copy_symlinks);
    }
    c->close();
    EXPECT_EQ(del(0), 0);
    for (const auto& folder : {dir.path(), state / "zorv"}) {
      const fs::path from = kept / fs::path(folder).filename();
      for (const auto& entry : fs::directory_iterator(folder)) {
        if (!fs::exists(fs::symlink_status(from / entry.path().filename()))) fs::remove(entry);
      }
      for (const auto& entry : fs::directory_iterator(from)) {
        const fs::path to = folder / entry.path().filename();
        if (!entry.is_symlink()) {
          write_file(to, read_file(entry.path()));  // a copy would not be believed
        } else if (to.filename() != "id") {
          fs::remove(to);
          fs::copy_symlink(entry, to);
        }
      }
    }
    EXPECT_EQ(add_filter(disk.path()) | start(0), 0U);
    return changed(0, incr);
  }
};

}  // namespace

TEST_F(bitmap_file_test, files_are_exact_to_the_byte) {
  saved_node();
  EXPECT_EQ(read_file(file), saved_01_00);
  mark(0);
  EXPECT_EQ(read_file(file), saved_01_00) << "no new bit";
  mark(9);
  EXPECT_TRUE(stale_on_disk());
  EXPECT_EQ(bmp(ZORV_LOAD_BMP, 0, incr), 0);
  EXPECT_TRUE(log.has("zorv_block_load_bmp(): File " + file + " is dirty. Ignoring file"));
  EXPECT_EQ(get_bmp(0, incr), bytes(2, 0xFF));
  EXPECT_EQ(changed(0, diff), (std::vector<u32>{0, 9}));
}

TEST_F(bitmap_file_test, the_load_takes_nothing_but_a_whole_file) {
  saved_node();
  const auto with = [](std::size_t at, u8 value) {
    bytes b = saved_01_00;
    b[at] = value;
    return b;
  };
  const auto cut = [](std::size_t n) {
    return bytes(saved_01_00.begin(), saved_01_00.begin() + n);
  };
  bytes inverted = saved_01_00;
  for (int i = 12; i < 16; ++i) inverted[i] = static_cast<u8>(~inverted[i]);
  bytes longer = saved_01_00;
  longer.push_back(0xEE);
  const std::string prefix = " is corrupt: Invalid prefix.";
  const std::string is_dirty = " is dirty. Ignoring file contents.";
  const std::string size = " contains bitmap of invalid size. Ignoring file contents.";
  const std::string sum = " has invalid checksum. Ignoring file contents.";
  const struct {
    bytes content;
    int rc;
    std::string message;
  } table[] = {
      {saved_01_00, 0, ""},
      {longer, 0, ""},
      {{}, -EIO, prefix},
      {cut(6), -EIO, prefix},
      {with(6, 'Q'), -EIO, prefix},
      {cut(7), 0, is_dirty},
      {with(7, 1), 0, is_dirty},
      {with(7, 2), 0, is_dirty},
      {cut(8), 0, size},
      {cut(11), 0, size},
      {with(8, 3), 0, size},
      {with(11, 1), 0, size},
      {cut(12), 0, sum},
      {cut(17), 0, sum},
      {with(15, 0), 0, sum},
      {with(16, 3), 0, sum},
      {inverted, 0, sum},
  };
  for (const auto& row : table) {
    ASSERT_EQ(bmp(ZORV_CLR_BMP, 0, incr), 0);
    write_file(file, row.content);
    log.clear();
    EXPECT_EQ(bmp(ZORV_LOAD_BMP, 0, incr), row.rc) << row.message;
    const bool taken = row.message.empty();
    EXPECT_EQ(get_bmp(0, incr), taken ? bytes({1, 0}) : bytes({0xFF, 0xFF})) << row.message;
    EXPECT_EQ(dirty(), taken ? 0U : 1U);
    if (!taken) {
      EXPECT_TRUE(log.has("<3>ERROR: zorv_block_load_bmp(): File " + file + row.message));
    }
  }
  fs::remove(file);
  EXPECT_EQ(bmp(ZORV_LOAD_BMP, 0, incr), -EIO);
  EXPECT_EQ(get_bmp(0, incr), bytes(2, 0xFF));
  EXPECT_EQ(bmp(ZORV_CLR_BMP, 0, incr), 0);
  EXPECT_EQ(read_file(file).size(), 18U) << "the next save of dirty bitmaps makes it";
}

TEST_F(bitmap_file_test, a_load_that_fails_trusts_nothing_or_changes_nothing) {
  saved_node();
  mark(3);
  save_both();
  for (auto [site, rc] : {std::pair{kernel::fault_site::alloc, -ENOMEM},
                          std::pair{kernel::fault_site::file_read, -EFBIG}}) {
    kernel::fault_arm(site, 1, 1, EFBIG);
    EXPECT_EQ(zorv_block_load_bmp(filter(), incr), rc);
    kernel::fault_disarm_all();
    const std::vector<u32> want{0, 3};
    if (rc == -ENOMEM) {
      EXPECT_EQ(changed(0, incr), want) << "the bitmap is untouched";
    } else {
      EXPECT_EQ(get_bmp(0, incr), bytes(2, 0xFF));
    }
  }
  EXPECT_EQ(bmp(ZORV_CLR_BMP, 0, incr), 0);
  ASSERT_EQ(kernel::state_set_dir(nullptr), 0);
  EXPECT_EQ(bmp(ZORV_LOAD_BMP, 0, incr), 0);
  EXPECT_EQ(get_bmp(0, incr), bytes(2, 0xFF)) << "there may be a note";
  ASSERT_EQ(kernel::state_set_dir((state / "zorv").c_str()), 0);
}

TEST_F(bitmap_file_test, a_file_on_the_node_itself_is_refused) {
  saved_node();
  kernel::set_fs_device_resolver([](u32, u32) { return kernel::mkdev(100, 0); });
  EXPECT_EQ(bmp(ZORV_SAVE_BMP, 0, incr), -EINVAL);
  EXPECT_TRUE(log.has("zorv_block_save_bmp(): Can't save bitmap to " + file +
                      ". The file must be moved to a different partition."));
  EXPECT_EQ(zorv_block_write_dirty_flag(filter(), incr, 1), -EINVAL);
  EXPECT_TRUE(log.has("zorv_block_write_dirty_flag(): Can't set dirty flag in " + file +
                      ". The file must be moved to a different partition."));
  EXPECT_EQ(dirty(), 1U);
  EXPECT_TRUE(eventually([&] { return log.count("Can't set dirty flag") == 2; })) << "kdirtyd's";
  kernel::set_fs_device_resolver(nullptr);
  EXPECT_EQ(read_file(file), saved_01_00);
}

// Bits that a command has taken away stood for writes: a file without them is not current before
// these are on the HDD. A bit set meanwhile is not in the file, which ends stale.
TEST_F(bitmap_file_test, a_file_is_current_when_the_hdd_has_what_it_does_not_show) {
  saved_node();
  client c(0U);
  disk.serve(memory_disk::serving::held);
  const auto before = c.start_write(3 * 65536, bytes(512, 1));
  ASSERT_TRUE(eventually([&] { return disk.held_count() == 1; }));
  confirms = false;
  const auto clear = [&](u32 number, bool write_meanwhile) {
    std::atomic<bool> ended{false};
    std::thread command([&] {
      if (number == ZORV_CLR_BMP) {
        EXPECT_EQ(bmp(number, 0, incr), 0);
      } else {
        EXPECT_EQ(get_bmp(0, incr, number)[0], 9);
      }
      ended = true;
    });
    EXPECT_TRUE(eventually([&] { return changed(0, incr).empty(); })) << "taken away";
    EXPECT_FALSE(eventually([&] { return ended.load(); }, 50));
    EXPECT_EQ(read_file(file)[7], 1) << "a kill here leaves nothing that looks current";
    if (write_meanwhile) mark(5);
    disk.release_all();
    command.join();
  };
  clear(ZORV_GET_AND_CLR_BMP, true);
  EXPECT_EQ(before->wait(), 0);
  EXPECT_EQ(read_file(file), stale);
  EXPECT_EQ(changed(0, incr), std::vector<u32>{5});
  const auto after = c.start_write(5 * 65536, bytes(512, 1));
  ASSERT_TRUE(eventually([&] { return disk.held_count() == 1; }));
  const u64 flushes = disk.flushes();
  clear(ZORV_CLR_BMP, false);
  EXPECT_GT(disk.flushes(), flushes);
  EXPECT_EQ(read_file(file).size(), 18U);
  const auto unsaved = c.start_write(6 * 65536, bytes(512, 1));
  ASSERT_TRUE(eventually([&] { return disk.held_count() == 1; }));
  kernel::fault_arm(kernel::fault_site::file_write, 1, -1, EIO);
  clear(ZORV_CLR_BMP, false);
  kernel::fault_disarm_all();
  EXPECT_EQ(after->wait() | unsaved->wait(), 0);
  disk.serve(memory_disk::serving::at_once);
  EXPECT_EQ(bmp(ZORV_SAVE_BMP, 0, incr), 0);
  {
    at_log_line hook("Killing all dirty requests", [this] {
      const kernel::lock_order_exception stands_in_for_another_task;
      kernel::fault_arm(kernel::fault_site::file_write, 1, -1, EIO);
      EXPECT_EQ(bmp(ZORV_CLR_BMP, 0, incr), 0);
      kernel::fault_disarm_all();
    });
    EXPECT_EQ(bmp(ZORV_SAVE_BMP, 0, incr), 0);
    const u64 saved = disk.flushes();
    EXPECT_EQ(bmp(ZORV_SAVE_BMP, 0, incr), 0);
    EXPECT_EQ(disk.flushes(), saved) << "what went while the save began is on the HDD";
  }
  kernel::fault_arm(kernel::fault_site::bio_flush, 1, 1, ENOSPC);
  EXPECT_EQ(bmp(ZORV_CLR_BMP, 0, incr), 0);
  EXPECT_EQ(bmp(ZORV_SAVE_BMP, 0, diff), 0) << "nothing has been taken from it";
  EXPECT_EQ(read_file(file)[7], 1);
  EXPECT_EQ(bmp(ZORV_SAVE_BMP, 0, incr), 0);
  EXPECT_EQ(read_file(file)[7], 0);
  for (const auto& writes : zorv_blkdev_arr[0]->f.writes) {
    EXPECT_EQ(writes.awaiting.load(), 0U) << "writes that end wake nobody when nobody waits";
  }
}

// While a command may still fail, what it has taken away is in every save that others make.
TEST_F(bitmap_file_test, a_command_that_fails_has_taken_nothing_away) {
  saved_node();
  {
    rzmutex_guard stuck(&filter()->save_mutex);
    std::thread command([&] { EXPECT_EQ(bmp(ZORV_CLR_BMP, 0, incr), -EIO); });
    EXPECT_TRUE(eventually([&] { return changed(0, incr).empty(); }));
    EXPECT_EQ(zorv_block_save_bmp(filter(), incr), 0);
    kernel::turn_clock(31000);
    command.join();
  }
  EXPECT_EQ(read_file(file)[16], 1) << "a kill here has lost nothing";
  EXPECT_EQ(changed(0, incr), std::vector<u32>{0});
  EXPECT_EQ(bmp(ZORV_SAVE_BMP, 0, incr), 0);
  const auto broken = {kernel::fault_site::file_write, kernel::fault_site::file_unlink,
                       kernel::fault_site::state_write};
  for (const auto site : broken) kernel::fault_arm(site, 1, -1, EIO);
  client c(0U);
  EXPECT_EQ(c.fill(3 * 65536, 512, 1), -EIO);
  bytes zeros(2, 0);
  zorv_bmp_range_req req{0, incr, 2, {}, reinterpret_cast<u64>(zeros.data())};
  EXPECT_EQ(command(ZORV_SET_BMP, &req), -EIO);
  kernel::fault_disarm_all();
  EXPECT_EQ(changed(0, incr), (std::vector<u32>{0, 3}));
}

// The load reads the file, a write marks, the load puts the file's bits in place.
TEST_F(bitmap_file_test, a_load_keeps_what_is_marked_meanwhile) {
  saved_node();
  {
    at_log_line hook("zorv_block_load_bmp(): Reading ", [] {
      EXPECT_TRUE(zorv_marks_pending(filter()));
      mark(6);
      const u8 merged[] = {0, 1};
      zorv_bmp_merge(filter(), incr, merged);
    });
    EXPECT_EQ(bmp(ZORV_LOAD_BMP, 0, incr), 0);
  }
  EXPECT_EQ(changed(0, incr), (std::vector<u32>{0, 6, 8}));
  EXPECT_TRUE(stale_on_disk());
}

// A mark that is due leaves a file that looks current; loading it must not forget the write.
TEST_F(bitmap_file_test, a_load_of_a_file_known_to_lack_bits_keeps_them) {
  saved_node();
  {
    const kernel::lock_order_exception stands_in_for_another_task;
    rzmutex_guard slow(&filter()->bmp_mutex);
    mark(7);
    EXPECT_EQ(bmp(ZORV_LOAD_BMP, 0, incr), 0);
  }
  EXPECT_EQ(changed(0, incr), (std::vector<u32>{0, 7}));
  EXPECT_TRUE(stale_on_disk());
}

// A file made for another extent size may be loaded again one day, by a node of that size.
TEST_F(bitmap_file_test, a_file_of_another_size_is_marked_by_the_first_write) {
  saved_node();
  ASSERT_EQ(stop(0), 0);
  ASSERT_EQ(del(0), 0);
  ASSERT_EQ(add_filter(disk.path(), {.extent_size = 8192}), 0U);
  ASSERT_EQ(start(0), 0);
  EXPECT_EQ(read_file(file), saved_01_00);
  client c(0U);
  EXPECT_EQ(c.fill(0, 512, 1), 0);
  EXPECT_EQ(read_file(file), stale);
}

TEST_F(bitmap_file_test, a_saved_file_and_its_name_survive_a_power_cut) {
  kernel::fault_record_unsynced_begin();
  saved_node();
  kernel::fault_power_cut();
  EXPECT_EQ(read_file(file), saved_01_00);
  kernel::fault_arm(kernel::fault_site::file_write, 1, 2, ENOSPC);
  mark(9);
  ASSERT_TRUE(eventually([] { return !zorv_marks_pending(filter()); }));
  kernel::fault_power_cut();
  EXPECT_TRUE(read_file(file).empty()) << "no room for the mark: the file is gone";
  save_both();
  client c(0U);
  EXPECT_EQ(c.fill(11 * 65536, 512, 1), 0);
  kernel::fault_power_cut();
  bytes head = read_file(file);
  head.resize(stale.size());
  EXPECT_EQ(head, stale) << "the write has reached the HDD, so the mark is on disk";
  kernel::fault_record_unsynced_end();
}

// Whatever fails once during a save or a command, and whenever the power goes: a write that was
// answered is in what the next load says.
TEST_F(bitmap_file_test, no_single_failure_leaves_a_file_that_misses_a_write) {
  using kernel::fault_site;
  for (fault_site site :
       {fault_site::alloc, fault_site::file_write, fault_site::file_sync, fault_site::bio_flush}) {
    for (u32 number : {ZORV_CLR_BMP, ZORV_SAVE_BMP}) {
      u64 calls = 1;
      for (u64 n = 1; n <= calls && !HasFailure(); ++n) {
        SCOPED_TRACE(testing::Message() << "site " << static_cast<u32>(site) << " call " << n);
        unload();
        load();
        kernel::fault_record_unsynced_begin();
        saved_node();
        kernel::fault_arm(site, n, 1, EIO);
        (void)bmp(number, 0, incr);
        calls = kernel::fault_calls(site);
        kernel::fault_disarm_all();
        client c(0U);
        EXPECT_EQ(c.fill(10 * 65536, 512, 1), 0);
        if (number == ZORV_SAVE_BMP) {
          (void)bmp(ZORV_LOAD_BMP, 0, incr);
          const auto kept = changed(0, incr);
          EXPECT_TRUE(std::find(kept.begin(), kept.end(), 10U) != kept.end());
        }
        kernel::fault_power_cut();
        kernel::fault_record_unsynced_end();
        const auto seen = after_crash(&c);
        EXPECT_TRUE(std::find(seen.begin(), seen.end(), 10U) != seen.end());
      }
      EXPECT_TRUE(calls > 0 || (site == fault_site::bio_flush && number == ZORV_SAVE_BMP));
    }
  }
}

TEST_F(bitmap_file_test, bits_that_a_stop_could_not_save_are_not_forgotten) {
  using kernel::fault_site;
  saved_node();
  for (const auto site :
       {fault_site::file_write, fault_site::file_unlink, fault_site::state_write}) {
    kernel::fault_arm(site, 1, -1, EIO);
  }
  bytes added{0, 2};
  zorv_bmp_range_req merge{0, incr, 2, {}, reinterpret_cast<u64>(added.data())};
  EXPECT_EQ(command(ZORV_MERGE_BMP, &merge), -EIO);
  for (int i = 0; i < 2; ++i) EXPECT_EQ(stop(0), -EIO);
  EXPECT_EQ(del(0), -EIO) << "the file looks current without them";
  kernel::fault_disarm_all();
  EXPECT_EQ(stop(0) | del(0), 0);
  add_filter(disk.path());
  EXPECT_EQ(changed(0, incr), (std::vector<u32>{0, 9}));
}

// What the page cache shows of a file may be more, or less, than a power cut leaves.
TEST_F(bitmap_file_test, a_file_that_the_load_finds_void_stays_void) {
  saved_node();
  const auto open_and = [&](const auto& change) {
    kernel::file* f = kernel::filp_open(file.c_str(), kernel::FO_RDWR, 0);
    kernel::file_id id;
    EXPECT_EQ(kernel::file_identity(f, &id), 0);
    change(f, id);
    kernel::filp_close(f);
  };
  const std::function<void(kernel::file*, const kernel::file_id&)> table[] = {
      [](kernel::file* f, auto&) {
        s64 at = 0;
        EXPECT_EQ(kernel::vfs_write(f, stale.data(), stale.size(), &at), 8);
      },
      [](kernel::file* f, auto&) { EXPECT_EQ(kernel::vfs_empty(f), 0); },
      [&](kernel::file*, auto& id) { EXPECT_EQ(kernel::fs_unlink_file(file.c_str(), id), 0); },
  };
  for (const auto& change : table) {
    for (const bool syncs_fail : {false, true}) {
      save_both();
      EXPECT_EQ(stop(0) | del(0), 0);
      kernel::fault_record_unsynced_begin();
      open_and(change);
      if (syncs_fail) kernel::fault_arm(kernel::fault_site::file_sync, 1, -1, EIO);
      EXPECT_EQ(add_filter(disk.path()) | start(0), 0U);
      kernel::fault_disarm_all();
      EXPECT_EQ(changed(0, incr).size(), 16U);
      client c(0U);
      EXPECT_EQ(c.fill(10 * 65536, 512, 1), 0);
      kernel::fault_power_cut();
      kernel::fault_record_unsynced_end();
      const auto seen = after_crash(&c);
      EXPECT_TRUE(std::find(seen.begin(), seen.end(), 10U) != seen.end());
      EXPECT_EQ(bmp(ZORV_CLR_BMP, 0, incr) | bmp(ZORV_CLR_BMP, 0, diff), 0);
    }
  }
}
