// SPDX-License-Identifier: GPL-2.0-only
// Words for tests with snaps: a started filter over a memory disk with known contents.
#pragma once

#include <filesystem>

#include "kernel/procfs.h"
#include "support/driver_fixture.h"

namespace zorv_test {

using zorv::memory_disk;

constexpr u64 KiB = 1024, MiB = 1024 * KiB;

// What lies at an offset of a fresh disk: no two sectors alike.
inline bytes pattern(u64 offset, u64 length, u8 salt = 0) {
  bytes out(length);
  for (u64 i = 0; i < length; ++i) {
    const u64 at = offset + i;
    out[i] = static_cast<u8>((at >> 9) * 31 + (at >> 17) * 7 + (at & 0xff) + salt);
  }
  return out;
}

// The contents of a COW file, without the seal behind them.
inline bytes cow_contents(const std::string& path) {
  bytes all = read_file(path);
  all.resize(all.size() > zorv::cowfile_seal_bytes ? all.size() - zorv::cowfile_seal_bytes : 0);
  return all;
}

struct snap_options {
  u32 chunk_size = 64 * KiB;
  s32 minor = -1;
  std::string name, uuid;
  std::string files;  // base of both file names; empty: one of its own
};

class snap_test : public driver_test {
 protected:
  explicit snap_test(u64 size = 8 * MiB) : disk_bytes(size) {}

  void SetUp() override {
    driver_test::SetUp();
    disk.poke(0, pattern(0, disk_bytes));
    filter = add_started_filter(disk.path());
  }

  zorv_add_snap_req snap_request(const snap_options& o) {
    zorv_add_snap_req req{};
    req.filter_minor = filter;
    req.snap_minor = o.minor;
    req.chunk_size = o.chunk_size;
    const std::string base = o.files.empty() ? dir / ("snap" + std::to_string(next_++)) : o.files;
    zorv::copy_text_n(req.cow_bmp_fname, sizeof(req.cow_bmp_fname), (base + ".bmp").c_str());
    zorv::copy_text_n(req.cow_data_fname, sizeof(req.cow_data_fname), (base + ".cow").c_str());
    zorv::copy_text_n(req.name, sizeof(req.name), o.name.c_str());
    zorv::copy_text_n(req.uuid, sizeof(req.uuid), o.uuid.c_str());
    return req;
  }
  u32 add_snap(const snap_options& o = {}) {
    auto req = snap_request(o);
    EXPECT_EQ(command(ZORV_ADD_SNAP_NODE, &req), 0) << log.errors();
    return static_cast<u32>(req.snap_minor);
  }
  u32 add_started_snap(const snap_options& o = {}) {
    const u32 minor = add_snap(o);
    EXPECT_EQ(start(minor), 0) << log.errors();
    return minor;
  }
  int resume(u32 minor, u32 valid = 1, u32 stop_pending = 0, u32 del_pending = 0) {
    zorv_resume_snap_req req{minor, valid, stop_pending, del_pending};
    return command(ZORV_RESUME_SNAP, &req);
  }
  static bool valid(u32 snap) {
    return proc("zorv/zorv" + std::to_string(snap) + "/snap_valid") == "1\n";
  }
  // Everything from level 2 on is logged.
  void log_detail() { EXPECT_EQ(kernel::proc_write("zorv/debug", "2"), 1); }
  // The lines that begin with cow_chunks' trace, without their task.
  std::vector<std::string> groups() const {
    std::vector<std::string> out;
    for (const auto& l : log.lines()) {
      const auto at = l.find("COWing ");
      if (at != std::string::npos) out.push_back(l.substr(at, l.find(", queue_cnt") - at));
    }
    return out;
  }
  // What a snap shows of a range now.
  bytes shown(u32 snap, u64 offset, u64 length) { return client(snap).get(offset, length); }
  void expect_unchanged(u32 snap) {
    EXPECT_TRUE(shown(snap, 0, disk_bytes) == pattern(0, disk_bytes)) << "zorv" << snap;
  }
  static std::string line(const char* format, u32 minor) {
    char text[256];
    std::snprintf(text, sizeof(text), format, minor);
    return text;
  }

  const u64 disk_bytes;
  memory_disk disk{"d0", disk_bytes};
  u32 filter = 0;

 private:
  int next_ = 0;
};

}  // namespace zorv_test
