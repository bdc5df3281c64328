// SPDX-License-Identifier: GPL-2.0-only
// GET_DATABLOCK_BMP and TEST_DATABLOCK as an agent meets them, and what the map saves.
#include <filesystem>

#include "driver/datablock/bits.h"
#include "images.h"
#include "kernel/claim.h"
#include "kernel/module.h"
#include "kernel/task.h"

namespace zorv_test {
namespace {

constexpr u64 MiB = 1 << 20;
constexpr u32 chunk = 65536;

class datablock_commands : public driver_test {
 protected:
  void make_image(u64 bytes = 24 * MiB, u64 extra_bytes = 0) {
    std::mt19937 random(7);
    image = make_ext2(dir / "image", bytes, "-t ext3 -b 1024", &random);
    disk = std::make_unique<image_disk>(image, extra_bytes);
  }
  // A filter over the disk and a started snap on it.
  void start_snap(const std::string& hdd) {
    filter = add_started_filter(hdd);
    zorv_add_snap_req req{};
    req.filter_minor = filter;
    req.snap_minor = -1;
    req.chunk_size = chunk;
    zorv::copy_text_n(req.cow_bmp_fname, sizeof req.cow_bmp_fname, (dir / "cow.bmp").c_str());
    zorv::copy_text_n(req.cow_data_fname, sizeof req.cow_data_fname, (dir / "cow.data").c_str());
    ASSERT_EQ(command(ZORV_ADD_SNAP_NODE, &req), 0) << log.errors();
    snap = static_cast<u32>(req.snap_minor);
    ASSERT_EQ(start(snap), 0) << log.errors();
  }
  int get(u32 minor, u32 extent_size, bytes* out, u32* size) {
    zorv_bmp_range_req req{};
    req.minor = minor;
    req.type = extent_size;
    req.size = static_cast<u32>(out->size());
    req.data = reinterpret_cast<u64>(out->data());
    const int rc = command(ZORV_GET_DATABLOCK_BMP, &req);
    *size = req.size;
    return rc;
  }
  int test(const std::string& path) {
    zorv_test_datablock_req req{};
    zorv::copy_text_n(req.hdd_name, sizeof req.hdd_name, path.c_str());
    return command(ZORV_TEST_DATABLOCK, &req);
  }

  fs_image image;
  std::unique_ptr<image_disk> disk;
  u32 filter = 0, snap = 0;
};

TEST_F(datablock_commands, get_exports_the_map_at_the_extent_size) {
  make_image(24 * MiB, 3 * chunk);
  start_snap(disk->disk().path());
  for (const u32 extent_size : {chunk, chunk * 4, 1U << 30}) {
    const bit_vector expected = chunks_of(image, image.bytes + 3 * chunk, extent_size);
    bytes out(100, 0xa5);
    u32 size = 0;
    ASSERT_EQ(get(snap, extent_size, &out, &size), 0) << log.errors();
    EXPECT_EQ(size, zorv::bytes_of_bits(expected.size()));
    bit_vector got;
    for (u64 k = 0; k < expected.size(); ++k) got.push_back(zorv::bit_at(out.data(), k));
    EXPECT_EQ(difference(got, expected), "");
    EXPECT_EQ(out[size], 0xa5);
  }
}

TEST_F(datablock_commands, get_without_a_map_is_all_ones_over_the_whole_volume) {
  zorv::memory_disk blank("blank", 24 * MiB + 512);
  start_snap(blank.path());
  EXPECT_TRUE(log.has("zorv_blkbmp_read(): Cannot recognize file system on hdd("));
  bytes out(49, 0);
  u32 size = 0;
  ASSERT_EQ(get(snap, chunk, &out, &size), 0);
  EXPECT_EQ(size, 49U);  // 385 chunks
  EXPECT_EQ(out, bytes(49, 0xff));
}

TEST_F(datablock_commands, maps_can_be_turned_off) {
  make_image();
  ASSERT_EQ(kernel::module_param_set("zorv_datablock_maps", "0"), 0);
  start_snap(disk->disk().path());
  ASSERT_EQ(kernel::module_param_set("zorv_datablock_maps", "1"), 0);
  bytes out(48, 0);
  u32 size = 0;
  ASSERT_EQ(get(snap, chunk, &out, &size), 0);
  EXPECT_EQ(out, bytes(48, 0xff));
}

TEST_F(datablock_commands, get_refusals) {
  make_image();
  start_snap(disk->disk().path());
  bytes out(48);
  u32 size = 0;
  const struct {
    u32 minor, extent_size;
    const char* message;
  } table[] = {
      {filter, chunk, "is not a snap device"},
      {snap, 0, "Extent size (0) must have been a power of 2."},
      {snap, 1, "Extent size (1) must have been a power of 2."},
      {snap, chunk * 3, "Extent size (196608) must have been a power of 2."},
      {snap, chunk / 2, "Extent size (32768) must be bigger than chunk size (65536)."},
  };
  for (const auto& t : table) {
    EXPECT_EQ(get(t.minor, t.extent_size, &out, &size), -EINVAL) << t.message;
    EXPECT_TRUE(log.has(t.message)) << log.errors();
  }
  bytes small(47);
  EXPECT_EQ(get(snap, chunk, &small, &size), -EINVAL);
  EXPECT_TRUE(log.has("Bitmap buffer is not large enough: should be 48B instead of 47B."));
  EXPECT_EQ(get(snap, chunk, &out, &size), 0);
  zorv_bmp_range_req wild{snap, chunk, 48, {}, 0};
  EXPECT_EQ(command(ZORV_GET_DATABLOCK_BMP, &wild), -EINVAL);
  EXPECT_TRUE(log.has("NULL bitmap data pointer passed as input"));
  wild.data = 8;
  EXPECT_EQ(command(ZORV_GET_DATABLOCK_BMP, &wild), -EFAULT);
  ASSERT_EQ(stop(snap), 0);
  EXPECT_EQ(get(snap, chunk, &out, &size), -EINVAL);
  EXPECT_TRUE(log.has("has not been started yet"));
}

TEST_F(datablock_commands, self_test_command) {
  make_image();
  EXPECT_EQ(test(disk->disk().path()), 0) << log.errors();
  zorv::memory_disk blank("blank", 4 * MiB);
  EXPECT_EQ(test(blank.path()), -EINVAL);
  EXPECT_EQ(test(""), -EINVAL);
  EXPECT_TRUE(log.has("zorv_ioctl_test_datablock(): Empty HDD name passed as input."));
  EXPECT_EQ(test(image.path), -EINVAL);
  EXPECT_TRUE(log.has(image.path + " is not a block device."));
  EXPECT_EQ(test(dir / "missing"), -EINVAL);
  EXPECT_TRUE(log.has("Unable to derive major/minor numbers for " + (dir / "missing")));
  EXPECT_EQ(test("image"), -ENOENT);
  EXPECT_TRUE(log.has("Unable to lookup image: rc=-22"));
  EXPECT_EQ(test(std::string(1024, 'x')), -ENOENT) << "no NUL in the record";
  disk->disk().set_mounted(true);
  EXPECT_EQ(test(disk->disk().path()), -EBUSY);
}

// The dumps' names are known to everybody: nothing is written through what lies there, and what is
// somebody's stays.
TEST_F(datablock_commands, self_test_dumps_replace_older_dumps_and_nothing_else) {
  // The names hold the sizes of whole and halved bitmaps; this process has its own.
  const u64 whole = 3001 + static_cast<u64>(kernel::current()->pid) % 70;
  make_image(whole * 8 * 1024);
  const auto dump = [whole](u64 part) { return "/tmp/bmp.1024." + std::to_string(whole / part); };
  const bytes precious(10000, 0x5a);
  for (const u64 part : {1, 2, 4, 8}) std::filesystem::remove(dump(part));
  write_file(dir / "linked", precious);
  for (const u64 part : {2, 4, 8}) write_file(dump(part), precious);
  std::filesystem::create_symlink(dir / "linked", dump(1));
  kernel::file_id id;
  kernel::file_claim claim;
  ASSERT_EQ(kernel::path_identity(dump(4).c_str(), &id), 0);
  ASSERT_EQ(kernel::claim_file(id, "an attached image", &claim), 0);
  EXPECT_EQ(test(disk->disk().path()), 0) << log.errors();
  EXPECT_EQ(read_file(dir / "linked"), precious) << "through a link";
  EXPECT_EQ(read_file(dump(4)), precious) << "a file that is somebody's";
  for (const u64 part : {1, 2, 8}) EXPECT_EQ(read_file(dump(part)).size(), whole) << part;
  for (const u64 part : {1, 2, 4, 8}) std::filesystem::remove(dump(part));
}

TEST_F(datablock_commands, self_test_ends_when_nobody_waits_for_it) {
  make_image(4 * MiB);
  struct patience {
    u64 asked = 0, limit = 0;
  } p;
  const kernel::signal_scope scope(
      [](void* arg) {
        auto* p = static_cast<patience*>(arg);
        return ++p->asked > p->limit;
      },
      &p);
  // Wherever it is by then, it asks and ends.
  u64 questions = 0;
  for (int rc = -EINTR; rc == -EINTR; ++questions) {
    p = {0, questions};
    rc = test(disk->disk().path());
    EXPECT_TRUE(rc == 0 || (rc == -EINTR && p.asked == questions + 1)) << rc << log.errors();
  }
  EXPECT_GT(questions, 20U);
}

}  // namespace
}  // namespace zorv_test
