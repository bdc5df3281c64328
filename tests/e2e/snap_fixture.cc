// SPDX-License-Identifier: GPL-2.0-only
#include "e2e/snap_fixture.h"

#include <libnbd.h>

#include <algorithm>
#include <cstring>
#include <random>

namespace zorv_test {

nbd_connection::nbd_connection(const std::string& uri) : handle_(nbd_create()) {
  connected_ = handle_ != nullptr && nbd_connect_uri(handle_, uri.c_str()) == 0;
}

nbd_connection::~nbd_connection() {
  if (connected_) nbd_shutdown(handle_, 0);
  nbd_close(handle_);
}

int nbd_connection::write(u64 offset, const bytes& data) {
  if (nbd_pwrite(handle_, data.data(), data.size(), offset, 0) == 0) return 0;
  return nbd_get_errno() != 0 ? nbd_get_errno() : EIO;
}

int nbd_connection::read(u64 offset, bytes* data) {
  if (nbd_pread(handle_, data->data(), data->size(), offset, 0) == 0) return 0;
  return nbd_get_errno() != 0 ? nbd_get_errno() : EIO;
}

bytes nbd_connection::read_all() {
  if (!connected_) {
    ADD_FAILURE() << nbd_get_error();
    return {};
  }
  const auto size = static_cast<u64>(nbd_get_size(handle_));
  bytes all;
  all.reserve(size);
  for (bytes part; all.size() < size; all.insert(all.end(), part.begin(), part.end())) {
    part.resize(std::min<u64>(size - all.size(), MiB));
    if (const int error = read(all.size(), &part); error != 0) {
      ADD_FAILURE() << "at " << all.size() << ": " << std::strerror(error);
      return {};
    }
  }
  return all;
}

// ---- writers -------------------------------------------------------------------------------

numbered_writer::numbered_writer(const std::string& uri, u32 id)
    : id_(id), connection_(uri), thread_([this] { run(); }) {}

void numbered_writer::stop() {
  stop_.store(true);
  if (thread_.joinable()) thread_.join();
}

void numbered_writer::run() {
  bytes block(block_bytes);
  for (u64 number = 1; !stop_.load(); ++number) {
    const u64 word = number << 8 | id_;
    for (u64 i = 0; i < block_bytes; i += sizeof word) std::memcpy(&block[i], &word, sizeof word);
    {
      const std::lock_guard guard(lock_);
      steps_.push_back({now(), not_yet});
    }
    const int error = connection_.write(offset_of(block_of(number)), block);
    if (error != 0) {
      error_.store(error);
      return;
    }
    const std::lock_guard guard(lock_);
    steps_.back().ended = now();
    written_.store(number);
  }
}

// Narrows the moments down by what the disk holds of this writer.
//   returns  false when it holds what cannot be
bool numbered_writer::narrow(const bytes& disk, span* at) {
  std::vector<u64> found(blocks);
  for (u32 b = 0; b < blocks; ++b) {
    const u8* block = &disk[offset_of(b)];
    u64 word = 0;
    std::memcpy(&word, block, sizeof word);
    if (word != 0 && (word & 0xff) != id_) return false;
    if (!std::equal(block, block + block_bytes - sizeof word, block + sizeof word)) return false;
    const u8* gap = block + block_bytes;
    if (std::any_of(gap, gap + stride - block_bytes, [](u8 x) { return x != 0; })) return false;
    found[b] = word >> 8;
  }
  const u64 last = *std::max_element(found.begin(), found.end());
  const std::lock_guard guard(lock_);
  if (last >= steps_.size()) return false;
  std::vector<u64> expected(blocks);
  for (u64 n = 1; n <= last; ++n) expected[block_of(n)] = n;
  if (found != expected) return false;
  at->from = std::max(at->from, steps_[last].issued);
  if (last + 1 < steps_.size()) at->to = std::min(at->to, steps_[last + 1].ended);
  return true;
}

std::optional<numbered_writer::span> numbered_writer::instant_of(const writer_set& all,
                                                                 const bytes& disk, span between) {
  if (disk.size() != disk_bytes) return {};
  for (const auto& w : all) {
    if (!w->narrow(disk, &between)) return {};
  }
  if (between.from >= between.to) return {};
  return between;
}

// ---- the fixture ---------------------------------------------------------------------------

void snap_e2e::serve(const std::string& image) {
  d = std::make_unique<daemon_process>(std::vector<std::string>{"--disk", image + ",name=disk"},
                                       dir / "run");
  ASSERT_TRUE(d->serving()) << d->log();
  d->must(
      {"add-filter", "disk", "--extent-size", "64K", "--bmp-dir", dir.path(), "--name", "disk"});
  d->must({"start", "disk"});
}

void snap_e2e::TearDown() {
  if (d != nullptr && d->pid() > 0) {
    EXPECT_EQ(d->end(SIGTERM), 0) << d->log();
  }
}

void snap_e2e::add_snap(const std::string& name, const std::string& cow_dir) {
  d->must({"add-snap", "disk", "--chunk-size", std::to_string(chunk), "--cow-dir",
           cow_dir.empty() ? dir.path() : cow_dir, "--name", name});
}

void snap_e2e::take_snap(const std::string& name, const std::string& cow_dir) {
  add_snap(name, cow_dir);
  d->must({"start", name});
}

writer_set snap_e2e::start_writers() {
  writer_set all;
  for (u32 i = 0; i < numbered_writer::writers; ++i) {
    all.push_back(std::make_unique<numbered_writer>(d->uri("disk"), i));
  }
  return all;
}

void snap_e2e::let_write(const writer_set& all, u64 n) {
  for (const auto& w : all) {
    const u64 goal = w->written() + n;
    EXPECT_TRUE(eventually([&] { return w->written() >= goal || w->error() != 0; }, 20000));
    EXPECT_EQ(w->error(), 0);
  }
}

bytes make_random_file(const std::string& path, u64 size, u32 seed) {
  std::mt19937_64 random(seed);
  bytes content(size);
  for (u64 i = 0; i + 8 <= size; i += 8) {
    const u64 word = random();
    std::memcpy(&content[i], &word, sizeof word);
  }
  write_file(path, content);
  return content;
}

std::string shell(const std::string& command) {
  const program_result r = run_program({"bash", "-o", "pipefail", "-c", command});
  EXPECT_EQ(r.status, 0) << command << "\n" << r.out << r.err;
  return r.out;
}

}  // namespace zorv_test
