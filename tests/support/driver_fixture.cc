// SPDX-License-Identifier: GPL-2.0-only
#include "support/driver_fixture.h"

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "driver/bitmap/handout.h"
#include "driver/core/log.h"
#include "driver/core/module.h"
#include "kernel/chrdev.h"
#include "kernel/module.h"
#include "kernel/printk.h"
#include "kernel/procfs.h"
#include "kernel/state.h"
#include "kernel/uaccess.h"
#include "support/own_user_space.h"

namespace zorv_test {

namespace {

std::mutex log_mutex;
std::vector<std::string> log_lines;

void sink(const char* text) {
  std::string line(text);
  if (!line.empty() && line.back() == '\n') line.pop_back();
  const std::lock_guard<std::mutex> guard(log_mutex);
  log_lines.push_back(std::move(line));
}

kernel::printk_sink old_sink = nullptr;

}  // namespace

log_capture::log_capture() {
  clear();
  old_sink = kernel::set_printk_sink(sink);
}
log_capture::~log_capture() { kernel::set_printk_sink(old_sink); }
std::vector<std::string> log_capture::lines() const {
  const std::lock_guard<std::mutex> guard(log_mutex);
  return log_lines;
}
int log_capture::count(const std::string& part) const {
  int n = 0;
  for (const auto& l : lines()) n += l.find(part) != std::string::npos ? 1 : 0;
  return n;
}
void log_capture::clear() {
  const std::lock_guard<std::mutex> guard(log_mutex);
  log_lines.clear();
}
std::string log_capture::errors() const {
  std::string all;
  for (const auto& l : lines()) {
    if (l.rfind("<3>", 0) == 0) all += l + "\n";
  }
  return all;
}

temp_dir::temp_dir() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base != nullptr ? base : "/var/tmp") + "/zorv-test.XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}
temp_dir::~temp_dir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

bytes read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}
void write_file(const std::string& path, const bytes& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(content.data()),
            static_cast<std::streamsize>(content.size()));
}

bool eventually(const std::function<bool()>& done, int limit_ms) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(limit_ms);
  while (!done()) {
    if (std::chrono::steady_clock::now() > end) return done();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

void pending_io::end_io(kernel::bio* b, int error) {
  auto* io = static_cast<pending_io*>(b->bi_private);
  if (error != 0) io->error_.store(error);
  kernel::block_device* bdev = io->bdev_;
  if (io->left_.load() == 1) io->ended_by_ = kernel::current()->comm;
  kernel::bio_put(b);
  kernel::blkdev_exit(bdev);
  io->left_.fetch_sub(1);  // last: the owner may be gone right after
}

pending_io::pending_io(kernel::block_device* bdev, u32 rw, u64 sector, bytes data)
    : bdev_(bdev), data_(std::move(data)) {
  constexpr std::size_t bio_bytes = kernel::bio_max_segments * kernel::page_size;
  const std::size_t count = data_.empty() ? 1 : (data_.size() + bio_bytes - 1) / bio_bytes;
  left_.store(static_cast<int>(count));
  for (std::size_t i = 0, at = 0; i < count; ++i) {
    kernel::blkdev_enter(bdev_);
    kernel::bio* b = kernel::bio_alloc(kernel::GFP_KERNEL, kernel::bio_max_segments);
    b->bi_bdev = bdev_;
    b->bi_sector = sector + at / kernel::sector_size;
    b->bi_end_io = end_io;
    b->bi_private = this;
    const std::size_t end = std::min(data_.size(), at + bio_bytes);
    while (at < end) {
      const std::size_t len = std::min<std::size_t>(kernel::page_size, end - at);
      kernel::bio_add_page(b, kernel::page_at(data_.data() + at), static_cast<u32>(len), 0);
      at += len;
    }
    kernel::submit_bio(rw, b);
  }
  kernel::blk_unplug(kernel::bdev_get_queue(bdev_));
}
pending_io::~pending_io() {
  if (!done()) (void)wait();
}
int pending_io::wait() {
  EXPECT_TRUE(eventually([this] { return done(); }, 20000)) << "a request did not end";
  return error_.load();
}

client::client(u32 minor) {
  const auto dev = kernel::mkdev(static_cast<u32>(zorv::zorv_blk_major), minor);
  kernel::block_device* b = kernel::open_by_devnum(dev, kernel::FMODE_READ | kernel::FMODE_WRITE);
  EXPECT_FALSE(kernel::is_err(b)) << "opening zorv" << minor;
  if (!kernel::is_err(b)) bdev_ = b;
}
void client::close() {
  if (bdev_ != nullptr) kernel::blkdev_put(bdev_, kernel::FMODE_READ | kernel::FMODE_WRITE);
  bdev_ = nullptr;
}
std::unique_ptr<pending_io> client::start_write(u64 offset, bytes data, u32 flags) {
  return std::make_unique<pending_io>(bdev_, kernel::WRITE | flags, offset / kernel::sector_size,
                                      std::move(data));
}
std::unique_ptr<pending_io> client::start_read(u64 offset, u64 len) {
  return std::make_unique<pending_io>(bdev_, kernel::READ, offset / kernel::sector_size,
                                      bytes(len));
}
int client::write(u64 offset, const bytes& data, u32 flags) {
  return start_write(offset, data, flags)->wait();
}
int client::read(u64 offset, u64 len, bytes* out) {
  auto io = start_read(offset, len);
  const int rc = io->wait();
  *out = io->data();
  return rc;
}
bytes client::get(u64 offset, u64 len) {
  bytes out;
  EXPECT_EQ(read(offset, len, &out), 0);
  return out;
}
int client::flush() { return start_write(0, {}, kernel::REQ_FLUSH)->wait(); }

void reset_parameters() {
  for (kernel::module_param* p = kernel::module_params(); p != nullptr; p = p->next) {
    *p->value = p->default_value;
  }
}

kernel::devt device_of(const std::string& path) {
  kernel::dentry* node = zorv::zorv_get_file_dentry(path.c_str(), 1);
  if (node == nullptr || kernel::is_err(node)) return 0;
  const kernel::devt dev = node->d_inode()->i_rdev;
  kernel::dput(node);
  return dev;
}

void driver_test::SetUp() {
  kernel::fault_disarm_all();
  reset_parameters();
  ASSERT_EQ(kernel::state_set_dir((state / "zorv").c_str()), 0);
  load();
}
void driver_test::TearDown() {
  kernel::fault_disarm_all();
  unload();
}
void driver_test::load() {
  ASSERT_EQ(zorv::zorv_init(), 0) << log.errors();
  loaded = true;
}
void driver_test::unload() {
  if (loaded) EXPECT_EQ(zorv::zorv_cleanup(), 0) << log.errors();
  loaded = false;
  kernel::join_exited_threads();
}

int driver_test::raw_command(u32 number, void* record) {
  const kernel::user_space_scope scope(own_user_space());
  const int rc = kernel::chrdev_ioctl("zorv", number, reinterpret_cast<kernel::user_addr>(record));
  if (confirms) zorv::zorv_handout_confirm(zorv::zorv_handout_last());
  return rc;
}

zorv_add_filter_req driver_test::filter_request(const std::string& hdd, const filter_options& o) {
  zorv_add_filter_req req{};
  zorv::copy_text_n(req.hdd_name, sizeof(req.hdd_name), hdd.c_str());
  zorv::copy_text_n(req.bmp_dir, sizeof(req.bmp_dir), o.bmp_dir.c_str());
  zorv::copy_text_n(req.name, sizeof(req.name), o.name.c_str());
  zorv::copy_text_n(req.uuid, sizeof(req.uuid), o.uuid.c_str());
  req.minor = o.minor;
  req.extent_size = o.extent_size;
  return req;
}
u32 driver_test::add_filter(const std::string& hdd, filter_options o) {
  if (o.bmp_dir.empty()) o.bmp_dir = dir.path();
  auto req = filter_request(hdd, o);
  EXPECT_EQ(command(ZORV_ADD_FILTER_NODE, &req), 0) << log.errors();
  return static_cast<u32>(req.minor);
}
u32 driver_test::add_started_filter(const std::string& hdd, filter_options o) {
  const u32 minor = add_filter(hdd, std::move(o));
  EXPECT_EQ(bmp(ZORV_CLR_BMP, minor, ZORV_BMP_INCREMENTAL), 0);
  EXPECT_EQ(bmp(ZORV_CLR_BMP, minor, ZORV_BMP_DIFFERENTIAL), 0);
  EXPECT_EQ(start(minor), 0) << log.errors();
  return minor;
}
int driver_test::node(u32 number, u32 minor) {
  zorv_node_req req{minor};
  return command(number, &req);
}
zorv_info_req driver_test::info(u32 minor) {
  zorv_info_req req{};
  req.minor = minor;
  EXPECT_EQ(command(ZORV_GET_INFO, &req), 0);
  return req;
}
int driver_test::bmp(u32 number, u32 minor, u32 type) {
  zorv_bmp_req req{minor, type};
  return command(number, &req);
}
bytes driver_test::get_bmp(u32 minor, u32 type, u32 number) {
  const auto i = info(minor);
  bytes out(type == ZORV_BMP_INCREMENTAL ? i.incr_bmp_size : i.diff_bmp_size);
  zorv_bmp_range_req req{};
  req.minor = minor;
  req.type = type;
  req.size = static_cast<u32>(out.size());
  req.data = reinterpret_cast<u64>(out.data());
  EXPECT_EQ(command(number, &req), 0) << log.errors();
  return out;
}
std::vector<u32> driver_test::changed(u32 minor, u32 type) {
  const bytes map = get_bmp(minor, type);
  std::vector<u32> out;
  for (u32 e = 0, n = info(minor).extent_cnt; e < n; ++e) {
    if ((map[e >> 3] >> (e & 7) & 1) != 0) out.push_back(e);
  }
  return out;
}
std::string driver_test::proc(const std::string& path) {
  std::string out;
  EXPECT_EQ(kernel::proc_read(path, &out), 0) << path;
  return out;
}
driver_test::text_list driver_test::proc_texts(const std::string& directory) {
  std::vector<kernel::proc_listing> list;
  EXPECT_EQ(kernel::proc_list(directory, &list), 0) << directory;
  text_list out;
  for (const auto& e : list) {
    EXPECT_EQ(e.mode, 0444U) << e.name;
    out.emplace_back(e.name, proc(directory + "/" + e.name));
  }
  return out;
}

}  // namespace zorv_test
