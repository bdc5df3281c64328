// SPDX-License-Identifier: GPL-2.0-only
#include "doubles/memory_disk.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "kernel/fault.h"
#include "kernel/fs.h"

namespace zorv {

using kernel::bio;
using kernel::block_device;
using kernel::gendisk;
using kernel::request_queue;
using kernel::u32;
using kernel::u64;
using kernel::u8;

namespace {

constexpr u64 chunk_bytes = 65536;

// The parent directory's entry of the name, with the directory locked; undone at the end.
class namespace_entry {
 public:
  explicit namespace_entry(const std::string& path) {
    if (kernel::path_lookup(path.c_str(), kernel::LOOKUP_PARENT, &nd_) != 0) return;
    kernel::dir_lock(nd_.path);
    entry_ = kernel::lookup_one_len(nd_.last.c_str(), nd_.path, nd_.last.size());
  }
  ~namespace_entry() {
    if (nd_.path == nullptr) return;
    if (usable()) kernel::dput(entry_);
    kernel::dir_unlock(nd_.path);
    kernel::path_put(&nd_);
  }
  namespace_entry(const namespace_entry&) = delete;
  namespace_entry& operator=(const namespace_entry&) = delete;

  [[nodiscard]] bool make(kernel::devt dev) {
    return usable() && kernel::vfs_mknod(nd_.path, entry_, kernel::S_IFBLK_ | 0600, dev) == 0;
  }
  [[nodiscard]] bool remove() { return usable() && kernel::vfs_unlink(nd_.path, entry_) == 0; }

 private:
  [[nodiscard]] bool usable() const { return entry_ != nullptr && !kernel::is_err(entry_); }
  kernel::nameidata nd_;
  kernel::dentry* entry_ = nullptr;
};

u64 offset_of(const bio* b) { return b->bi_sector << kernel::sector_shift; }

bool pure_flush(const bio* b) { return b->bi_size == 0 && (b->bi_rw & kernel::REQ_FLUSH) != 0; }

}  // namespace

struct memory_disk::entry_points {
  static memory_disk* of(const gendisk* disk) {
    return static_cast<memory_disk*>(disk->private_data);
  }
  static int make_request(request_queue* q, bio* b) {
    return static_cast<memory_disk*>(q->queuedata)->take(b);
  }
  static void unplug(request_queue* q) {
    auto* self = static_cast<memory_disk*>(q->queuedata);
    for (bio* b = kernel::blk_take_plugged(q); b != nullptr;) {
      bio* next = b->bi_next;
      self->dispatch(b);
      b = next;
    }
  }
  static int ioctl(block_device* bdev, kernel::fmode_t, u32 command, u64 argument) {
    memory_disk* self = of(bdev->bd_disk);
    std::lock_guard lock(self->lock_);
    self->ioctls_.emplace_back(command, argument);
    return self->ioctl_result_.load();
  }
  static int flush_cache(block_device* bdev) { return of(bdev->bd_disk)->flush(); }
  static int mounted(block_device* bdev) { return of(bdev->bd_disk)->mounted_.load() ? 1 : 0; }

  static int identity(block_device* bdev, char* text, std::size_t bytes) {
    memory_disk* self = of(bdev->bd_disk);
    const std::lock_guard lock(self->lock_);
    if (self->identity_.empty()) return -ENODATA;
    if (self->identity_.size() >= bytes) return -ENAMETOOLONG;
    std::memcpy(text, self->identity_.c_str(), self->identity_.size() + 1);
    return 0;
  }

  static constexpr kernel::block_device_operations operations{
      .open = nullptr,
      .release = nullptr,
      .ioctl = ioctl,
      .flush_cache = flush_cache,
      .invalidate = nullptr,
      .mounted = mounted,
      .identity = identity,
  };
};

memory_disk::memory_disk(const std::string& name, u64 size_bytes, u32 block_bytes)
    : name_(name), path_("/dev/image/" + name), identity_("memory:" + name) {
  static std::atomic<u32> next_minor{0};
  disk_ = kernel::alloc_disk(1);
  request_queue* q = disk_ == nullptr ? nullptr : kernel::blk_alloc_queue(kernel::GFP_KERNEL);
  if (q == nullptr) throw std::bad_alloc();
  kernel::blk_queue_make_request(q, entry_points::make_request);
  q->unplug = entry_points::unplug;
  q->queuedata = this;
  disk_->major = memory_major;
  disk_->first_minor = next_minor.fetch_add(1);
  std::snprintf(disk_->disk_name, sizeof(disk_->disk_name), "%s", name.c_str());
  disk_->fops = &entry_points::operations;
  disk_->private_data = this;
  disk_->queue = q;
  disk_->size_bytes = size_bytes % kernel::sector_size != 0 ? size_bytes : 0;
  kernel::set_capacity(disk_, size_bytes >> kernel::sector_shift);
  kernel::add_disk(disk_);
  if (block_bytes != 0) bdev()->bd_block_bytes = block_bytes;
  if (!namespace_entry(path_).make(dev())) throw std::runtime_error("cannot make " + path_);
}

memory_disk::~memory_disk() {
  (void)namespace_entry(path_).remove();
  kernel::del_gendisk(disk_);
  if (worker_.joinable()) {
    {
      std::lock_guard lock(lock_);
      stopping_ = true;
    }
    work_.notify_one();
    worker_.join();
  }
  while (held_count() != 0) release(0, -EIO);
  kernel::blk_cleanup_queue(disk_->queue);
  kernel::put_disk(disk_);
}

// ---- the medium ----------------------------------------------------------------------------

void memory_disk::copy_locked(u64 offset, u8* memory, u64 length, bool to_medium) {
  while (length > 0) {
    const u64 within = offset % chunk_bytes;
    const u64 n = std::min(length, chunk_bytes - within);
    const auto found = chunks_.find(offset / chunk_bytes);
    if (to_medium) {
      auto& chunk = found != chunks_.end() ? found->second : chunks_[offset / chunk_bytes];
      if (chunk == nullptr) chunk = std::make_unique<u8[]>(chunk_bytes);
      std::memcpy(chunk.get() + within, memory, n);
    } else if (found != chunks_.end()) {
      std::memcpy(memory, found->second.get() + within, n);
    } else {
      std::memset(memory, 0, n);
    }
    offset += n;
    memory += n;
    length -= n;
  }
}

// Before a write: keeps what it replaces. After a write that is stable by itself: there is nothing
// left to go back to.
void memory_disk::forget_locked(u64 offset, u64 length, bool stable) {
  if (!remembering_) return;
  const u64 end = (offset + length) / kernel::sector_size;
  for (u64 sector = offset / kernel::sector_size; sector < end; ++sector) {
    if (stable) {
      stable_.erase(sector);
    } else if (!stable_.contains(sector)) {
      sector_bytes old(kernel::sector_size);
      copy_locked(sector * kernel::sector_size, old.data(), old.size(), false);
      stable_.emplace(sector, std::move(old));
    }
  }
}

memory_disk::bytes memory_disk::peek(u64 offset_bytes, u64 length_bytes) {
  bytes out(length_bytes);
  std::lock_guard lock(lock_);
  copy_locked(offset_bytes, out.data(), out.size(), false);
  return out;
}

void memory_disk::poke(u64 offset_bytes, const bytes& data) {
  bytes copy(data);
  std::lock_guard lock(lock_);
  copy_locked(offset_bytes, copy.data(), copy.size(), true);
  forget_locked(offset_bytes, copy.size(), true);
}

int memory_disk::flush() {
  flushes_.fetch_add(1);
  if (const int error = kernel::fault_check(kernel::fault_site::bio_flush)) return error;
  std::lock_guard lock(lock_);
  if (!powered_) return -EIO;
  stable_.clear();
  return 0;
}

void memory_disk::remember_unsynced() {
  std::lock_guard lock(lock_);
  remembering_ = true;
  stable_.clear();
}

void memory_disk::power_cut(const std::function<bool(u64 sector)>& survives) {
  std::lock_guard lock(lock_);
  for (auto& [sector, old] : stable_) {
    if (survives && survives(sector)) continue;
    copy_locked(sector * kernel::sector_size, old.data(), old.size(), true);
  }
  stable_.clear();
  powered_ = false;
}

void memory_disk::power_on() {
  std::lock_guard lock(lock_);
  powered_ = true;
}

// ---- serving -------------------------------------------------------------------------------

memory_disk::request memory_disk::describe(const bio* b, std::string task) {
  return {b->bi_rw, offset_of(b), b->bi_size, std::move(task)};
}

int memory_disk::take(bio* b) {
  if (recording_.load(std::memory_order_relaxed)) {
    std::lock_guard lock(lock_);
    recorded_.push_back(describe(b, kernel::current()->comm));
  }
  if (!pure_flush(b)) (kernel::bio_is_write(b) ? writes_ : reads_).fetch_add(1);
  if (plugging_.load(std::memory_order_relaxed)) {
    kernel::blk_plug_bio(disk_->queue, b);
  } else {
    dispatch(b);
  }
  return 0;
}

void memory_disk::dispatch(bio* b) {
  switch (serving_.load(std::memory_order_relaxed)) {
    case serving::at_once:
      finish(b, 0);
      return;
    case serving::held: {
      std::lock_guard lock(lock_);
      held_.push_back(b);
      return;
    }
    case serving::by_worker: {
      std::lock_guard lock(lock_);
      to_do_.push_back(b);
      work_.notify_one();
      return;
    }
  }
}

void memory_disk::finish(bio* b, int error) {
  if (error == 0 && (b->bi_rw & kernel::REQ_FLUSH) != 0) error = flush();
  if (error == 0 && b->bi_size != 0) {
    std::lock_guard lock(lock_);
    error = check_locked(b);
    if (error == 0) error = move_data_locked(b);
  }
  kernel::bio_endio(b, error);
}

int memory_disk::check_locked(const bio* b) {
  if (!powered_) return -EIO;
  const bool write = kernel::bio_is_write(b);
  const u64 begin = offset_of(b), end = begin + b->bi_size;
  for (bad_range& bad : bad_) {
    const bool matches = bad.which == direction::both || (bad.which == direction::write) == write;
    if (!matches || bad.times == 0 || end <= bad.begin || begin >= bad.end) continue;
    if (bad.times > 0) --bad.times;
    return bad.error;
  }
  return kernel::fault_check(write ? kernel::fault_site::bio_write : kernel::fault_site::bio_read);
}

int memory_disk::move_data_locked(bio* b) {
  const bool write = kernel::bio_is_write(b);
  if (write) forget_locked(offset_of(b), b->bi_size, false);
  u64 at = offset_of(b);
  for (u32 i = b->bi_idx; i < b->bi_vcnt; ++i) {
    const kernel::bio_vec& v = b->bi_io_vec[i];
    copy_locked(at, reinterpret_cast<u8*>(kernel::page_address(v.bv_page)) + v.bv_offset, v.bv_len,
                write);
    at += v.bv_len;
  }
  if (write && (b->bi_rw & kernel::REQ_FUA) != 0) forget_locked(offset_of(b), b->bi_size, true);
  return at == offset_of(b) + b->bi_size ? 0 : -EINVAL;
}

void memory_disk::serve(serving how) {
  if (how == serving::by_worker && !worker_.joinable()) worker_ = std::thread([this] { work(); });
  serving_.store(how);
}

void memory_disk::plug(bool on) { plugging_.store(on); }

void memory_disk::work() {
  kernel::daemonize("memory_disk");
  std::unique_lock lock(lock_);
  for (;;) {
    work_.wait(lock, [this] { return stopping_ || !to_do_.empty(); });
    if (to_do_.empty()) return;
    std::swap(to_do_[order_() % to_do_.size()], to_do_.back());
    bio* b = to_do_.back();
    to_do_.pop_back();
    lock.unlock();
    finish(b, 0);
    lock.lock();
  }
}

std::vector<memory_disk::request> memory_disk::held() {
  std::lock_guard lock(lock_);
  std::vector<request> out;
  for (const bio* b : held_) out.push_back(describe(b, ""));
  return out;
}

std::size_t memory_disk::held_count() {
  std::lock_guard lock(lock_);
  return held_.size();
}

void memory_disk::release(std::size_t index, int error) {
  bio* b = nullptr;
  {
    std::lock_guard lock(lock_);
    b = held_.at(index);
    held_.erase(held_.begin() + static_cast<std::ptrdiff_t>(index));
  }
  finish(b, error);
}

void memory_disk::release_all() {
  std::vector<bio*> all;
  {
    std::lock_guard lock(lock_);
    all.swap(held_);
  }
  for (bio* b : all) finish(b, 0);
}

void memory_disk::set_identity(const std::string& text) {
  const std::lock_guard lock(lock_);
  identity_ = text;
}

// ---- watching and failing ------------------------------------------------------------------

void memory_disk::record(bool on) {
  std::lock_guard lock(lock_);
  recorded_.clear();
  recording_.store(on);
}

std::vector<memory_disk::request> memory_disk::recorded() {
  std::lock_guard lock(lock_);
  return recorded_;
}

void memory_disk::fail(u64 offset_bytes, u64 length_bytes, direction which, int error, int times) {
  std::lock_guard lock(lock_);
  bad_.push_back({offset_bytes, offset_bytes + length_bytes, which, error, times});
}

void memory_disk::heal() {
  std::lock_guard lock(lock_);
  bad_.clear();
}

std::vector<std::pair<u32, u64>> memory_disk::ioctls() {
  std::lock_guard lock(lock_);
  return ioctls_;
}

}  // namespace zorv
