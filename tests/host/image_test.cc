// SPDX-License-Identifier: GPL-2.0-only
// Image files as disks: who may attach what, and what reaches the file.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <thread>

#include "doubles/fault.h"
#include "host/disk/disk.h"
#include "host/held_file.h"
#include "kernel/claim.h"
#include "kernel/fs.h"
#include "kernel/uaccess.h"
#include "support/driver_fixture.h"
#include "support/own_user_space.h"

namespace zorv_test {

using zorv::access;

class image_test : public ::testing::Test {
 protected:
  void SetUp() override { kernel::fault_disarm_all(); }
  void TearDown() override {
    kernel::fault_disarm_all();
    zorv::image_detach_all();
    EXPECT_TRUE(zorv::image_list().empty());
  }
  std::string make(const std::string& name, u64 size) {
    write_file(dir / name, {});
    std::filesystem::resize_file(dir / name, size);
    return dir / name;
  }
  int attach(const std::string& path, const std::string& name = "",
             access mode = access::read_write) {
    return zorv::image_attach(path, name, mode, &error, &used);
  }
  static client open(const std::string& name) {
    return client(open_error(name, kernel::FMODE_READ | kernel::FMODE_WRITE));
  }
  static kernel::block_device* open_error(const std::string& name, kernel::fmode_t mode) {
    return kernel::open_by_devnum(device_of("/dev/image/" + name), mode);
  }
  static void drop_cache(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY);
    ::fdatasync(fd);
    ::posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
    ::close(fd);
  }

  temp_dir dir;
  log_capture log;
  std::string error, used;
};

TEST_F(image_test, is_attached_listed_and_detached_by_name) {
  ASSERT_EQ(attach(make("vm.raw", 1 << 20)), 0) << error;
  EXPECT_EQ(used, "vm");
  ASSERT_EQ(attach(make("other.raw", 4096), "second", access::read_only), 0) << error;
  const auto list = zorv::image_list();
  ASSERT_EQ(list.size(), 2U);
  EXPECT_EQ(list[0].path, std::filesystem::canonical(dir / "vm.raw"));
  EXPECT_EQ(list[0].size_bytes, 1U << 20);
  EXPECT_TRUE(list[1].read_only);
  {
    const client c = open("vm");
    EXPECT_EQ(zorv::image_list()[0].openers, 1);
    EXPECT_EQ(zorv::image_detach("vm", &error), -EBUSY);
    zorv::image_detach_all();
    EXPECT_EQ(zorv::image_list().size(), 1U);
  }
  EXPECT_EQ(zorv::image_detach("vm", &error), 0);
  EXPECT_EQ(zorv::image_detach("vm", &error), -ENOENT);
  EXPECT_EQ(device_of("/dev/image/vm"), 0U);
  EXPECT_EQ(attach(dir / "vm.raw"), 0) << error;
}

TEST_F(image_test, refusals_say_why_and_leave_nothing) {
  ASSERT_EQ(attach(make("one.raw", 8192)), 0);
  std::filesystem::create_hard_link(dir / "one.raw", dir / "link.raw");
  std::filesystem::create_directory(dir / "folder");
  ::mkfifo((dir / "pipe").c_str(), 0600);
  kernel::file_id id;
  ASSERT_EQ(kernel::path_identity(make("taken.raw", 8192).c_str(), &id), 0);
  kernel::file_claim cow_file;
  ASSERT_EQ(kernel::claim_file(id, "a COW data file", &cow_file), 0);
  const std::string written = std::filesystem::canonical(make("written.raw", 8192));
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  const pid_t writer = ::fork();
  if (writer == 0) {
    const bool open = ::open(written.c_str(), O_RDWR) >= 0;
    (void)!::write(ends[1], "x", open ? 1 : 0);
    ::pause();
  }
  char opened;
  ASSERT_EQ(::read(ends[0], &opened, 1), 1);
  const int locked = ::open(make("locked.raw", 8192).c_str(), O_RDWR);
  struct flock whole = {};
  whole.l_type = F_WRLCK;
  ASSERT_EQ(::fcntl(locked, F_OFD_SETLK, &whole), 0);
  const struct {
    const char* file;
    std::string name;
    int result;
  } table[] = {
      {"missing.raw", "", -ENOENT},  {"folder", "", -EISDIR},
      {"pipe", "", -EINVAL},         {"locked.raw", "", -EBUSY},
      {"link.raw", "", -EBUSY},      {"fresh.raw", "one", -EEXIST},
      {"fresh.raw", "a/b", -EINVAL}, {"fresh.raw", "..", -EINVAL},
      {"fresh.raw", "a b", -EINVAL}, {"fresh.raw", std::string(128, 'x'), -EINVAL},
      {"short.raw", "", -EINVAL},    {"taken.raw", "", -EBUSY},
      {"written.raw", "", -EBUSY},
  };
  make("fresh.raw", 8192);
  make("short.raw", 511);
  for (const auto& t : table) {
    error.clear();
    EXPECT_EQ(attach(dir / t.file, t.name), t.result) << t.file << " " << t.name;
    EXPECT_FALSE(error.empty()) << t.file;
  }
  ::kill(writer, SIGKILL);
  ::waitpid(writer, nullptr, 0);
  for (const int end : ends) ::close(end);
  EXPECT_EQ(attach(written), 0) << error;
  EXPECT_EQ(zorv::image_detach("written", &error), 0);
  EXPECT_EQ(zorv::image_list().size(), 1U);
  // Whatever memory runs out at, the file can be attached afterwards.
  for (u64 n = 1; n < 100; ++n) {
    kernel::fault_arm(kernel::fault_site::alloc, n, 1, ENOMEM);
    const int rc = attach(dir / "fresh.raw");
    kernel::fault_disarm_all();
    if (rc == 0) break;
    EXPECT_EQ(rc, -ENOMEM) << n;
  }
  EXPECT_EQ(zorv::image_detach("fresh", &error), 0) << error;
  ::close(locked);
  EXPECT_EQ(attach(dir / "locked.raw"), 0) << error;
}

TEST_F(image_test, what_is_written_is_in_the_file_and_read_back_warm_and_cold) {
  const std::string path = make("vm.raw", 8 << 20);
  ASSERT_EQ(attach(path), 0);
  client c = open("vm");
  bytes want(8 << 20);
  for (u32 i = 0; i < 40; ++i) {
    const u64 offset = u64{i} * 77 % 2000 * 4096 + (i % 8) * 512;
    const bytes data(512 * (1 + i * 37 % 500), static_cast<u8>(i + 1));
    std::copy(data.begin(), data.end(), want.begin() + static_cast<long>(offset));
    ASSERT_EQ(c.write(offset, data, i % 5 == 0 ? kernel::REQ_FUA : 0), 0);
  }
  ASSERT_EQ(c.flush(), 0);
  EXPECT_TRUE(read_file(path) == want);
  EXPECT_TRUE(c.get(0, want.size()) == want);
  drop_cache(path);
  EXPECT_TRUE(c.get(0, want.size()) == want);
}

TEST_F(image_test, a_shrunk_file_is_an_error_and_is_never_extended) {
  const std::string path = make("vm.raw", 1 << 20);
  ASSERT_EQ(attach(path), 0);
  client c = open("vm");
  ASSERT_EQ(c.fill(0, 1 << 20, 7), 0);
  std::filesystem::resize_file(path, 500 * 1024 + 100);
  bytes out;
  EXPECT_EQ(c.read(512 * 1024, 4096, &out), -EIO);
  EXPECT_EQ(c.read(496 * 1024, 8192, &out), -EIO);  // the end is inside
  EXPECT_EQ(c.get(490 * 1024, 4096), bytes(4096, 7));
  EXPECT_EQ(c.fill(512 * 1024, 4096, 8), -EIO);
  EXPECT_EQ(c.fill(500 * 1024, 4096, 8), -EIO);
  EXPECT_EQ(c.write(512 * 1024, bytes(4096, 8), kernel::REQ_FUA), -EIO);
  // Of neighbours that were sent together, those before the end are served.
  kernel::request_queue* q = kernel::bdev_get_queue(c.bdev());
  const auto unplug = q->unplug.exchange(nullptr);
  auto before = c.start_write(496 * 1024, bytes(4096, 9));
  auto across = c.start_write(500 * 1024, bytes(4096, 9));
  q->unplug = unplug;
  kernel::blk_unplug(q);
  EXPECT_EQ(before->wait(), 0);
  EXPECT_EQ(across->wait(), -EIO);
  EXPECT_EQ(c.get(496 * 1024, 4096), bytes(4096, 9));
  EXPECT_EQ(std::filesystem::file_size(path), 500U * 1024 + 100);
}

TEST_F(image_test, a_broken_tail_is_not_served_and_read_only_is_read_only) {
  make("tail.raw", 10000);
  std::filesystem::permissions(dir / "tail.raw", std::filesystem::perms::owner_read);
  ASSERT_EQ(attach(dir / "tail.raw", "", access::read_only), 0) << error;
  EXPECT_TRUE(log.has("the last 272 bytes"));
  EXPECT_EQ(zorv::image_list()[0].size_bytes, 9728U);
  EXPECT_EQ(open_error("tail", kernel::FMODE_WRITE), kernel::err_ptr<kernel::block_device>(-EROFS));
  kernel::block_device* bdev = open_error("tail", kernel::FMODE_READ);
  ASSERT_FALSE(kernel::is_err(bdev));
  EXPECT_EQ(bdev->bd_disk->capacity_sectors.load(), 19U);
  kernel::blkdev_put(bdev, kernel::FMODE_READ);
}

TEST_F(image_test, a_sync_that_failed_once_is_never_believed_again) {
  const std::string path = make("vm.raw", 1 << 20);
  for (const int number : {ENOSPC, EDQUOT, EIO}) {
    for (const bool by_fua : {true, false}) {
      ASSERT_EQ(attach(path), 0) << error;
      client c = open("vm");
      kernel::fault_arm(kernel::fault_site::bio_flush, 1, 1, number);
      EXPECT_EQ(by_fua ? c.write(0, bytes(4096, 1), kernel::REQ_FUA) : c.flush(), -number);
      EXPECT_EQ(c.flush(), -EIO);
      EXPECT_EQ(c.write(4096, bytes(4096, 2), kernel::REQ_FUA), -EIO);
      EXPECT_EQ(c.write(4096, bytes(4096, 3), kernel::REQ_FLUSH), -EIO);
      EXPECT_EQ(c.fill(8192, 4096, 4), 0) << "what promises nothing still goes";
      EXPECT_EQ(kernel::fsync_bdev(c.bdev()), -EIO);
      c.close();
      ASSERT_EQ(zorv::image_detach("vm", &error), 0);
    }
  }
  EXPECT_EQ(log.count("/dev/image/vm: a sync failed"), 6);
}

TEST_F(image_test, syncs_that_wait_share_the_next_one) {
  ASSERT_EQ(attach(make("vm.raw", 1 << 20)), 0);
  client c = open("vm");
  std::vector<std::unique_ptr<pending_io>> all;
  kernel::fault_arm(kernel::fault_site::bio_flush, 1, 0, EIO);  // counts
  {
    const held_file hold(dir / "vm.raw");
    all.push_back(c.start_write(0, {}, kernel::REQ_FLUSH));
    ASSERT_TRUE(eventually([] { return held_file::waiting() == 1; }));
    for (u64 i = 0; i < 16; ++i) all.push_back(c.start_write(i * 8192, {}, kernel::REQ_FLUSH));
  }
  for (auto& io : all) EXPECT_EQ(io->wait(), 0);
  EXPECT_EQ(kernel::fault_calls(kernel::fault_site::bio_flush), 2U);
  all.clear();
  for (u64 i = 0; i < 16; ++i) {
    const u32 first = i % 4 == 0 ? kernel::REQ_FLUSH : 0;
    all.push_back(c.start_write(i * 8192, bytes(4096, 1), kernel::REQ_FUA | first));
  }
  for (auto& io : all) EXPECT_EQ(io->wait(), 0);
  EXPECT_EQ(c.get(12 * 8192, 4096), bytes(4096, 1));
}

TEST_F(image_test, a_disk_that_does_not_answer_holds_up_no_other) {
  ASSERT_EQ(attach(make("slow.raw", 1 << 20)), 0);
  ASSERT_EQ(attach(make("fast.raw", 1 << 20)), 0);
  client slow = open("slow"), fast = open("fast");
  std::vector<std::unique_ptr<pending_io>> stuck;
  alignas(kernel::page_size) static std::byte page[kernel::page_size];
  {
    const held_file hold(dir / "slow.raw");
    for (u64 i = 0; i < 32; ++i) {
      stuck.push_back(slow.start_read(i * 8192, 4096));
      stuck.push_back(slow.start_write(0, {}, kernel::REQ_FLUSH));
    }
    // Requests that nobody unplugs but the timer, whose thread both disks need.
    static std::atomic<int> ended{0};
    for (const client* c : {&slow, &fast}) {
      kernel::bio* b = kernel::bio_alloc(kernel::GFP_KERNEL, 1);
      b->bi_bdev = c->bdev();
      b->bi_end_io = [](kernel::bio* done, int) { kernel::bio_put(done), ++ended; };
      kernel::bio_add_page(b, kernel::page_at(page), kernel::page_size, 0);
      kernel::submit_bio(kernel::WRITE, b);
    }
    ASSERT_TRUE(eventually([] { return ended == 1 && held_file::waiting() >= 2; }));
    for (int i = 0; i < 20; ++i) {
      EXPECT_EQ(fast.write(0, bytes(4096, 1), kernel::REQ_FUA), 0);
      drop_cache(dir / "fast.raw");
      EXPECT_EQ(fast.get(0, 4096), bytes(4096, 1));
      EXPECT_EQ(fast.flush(), 0);
    }
    EXPECT_GE(held_file::waiting(), 2U);
  }
  for (auto& io : stuck) EXPECT_EQ(io->wait(), 0);
}

TEST_F(image_test, block_ioctls_are_answered) {
  ASSERT_EQ(attach(make("vm.raw", 1 << 20)), 0);
  const client c = open("vm");
  const kernel::user_space_scope scope(own_user_space());
  const auto ask = [&c](u32 command, void* to) {
    return c.bdev()->bd_disk->fops->ioctl(c.bdev(), 3, command, reinterpret_cast<u64>(to));
  };
  const struct {
    u32 command;
    s32 result;
    u64 answer;
  } table[] = {{0x1260, 0, 2048}, {0x1268, 0, 512}, {0x80081270, 0, 4096},
               {0x125e, 0, 0},    {0x1261, 0, ~0U}, {0x1269, -ENOTTY, ~0U}};
  for (const auto& t : table) {
    u64 out = ~0U;  // a narrow answer takes the low half
    EXPECT_EQ(ask(t.command, &out), t.result) << t.command;
    EXPECT_EQ(out, t.answer) << t.command;
  }
  EXPECT_EQ(ask(0x1260, nullptr), -EFAULT);
}

}  // namespace zorv_test
