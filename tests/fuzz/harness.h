// SPDX-License-Identifier: GPL-2.0-only
// Fuzzing of the file system readers over mutated images.
//
// The images are made by the file systems' own tools when the fuzzer starts and stay in memory. An
// input is a list of small patches to the sectors that are not blank; they are undone after the
// run. A run builds the map and compares it with a reading of the same image that shares no code
// with the readers: a chunk may be clear only where that reading finds all its blocks free.
#pragma once

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "datablock/images.h"

namespace zorv_fuzz {

using zorv_test::bit_vector;
using zorv_test::bytes;
using zorv_test::u32;
using zorv_test::u64;
using zorv_test::u8;

// Reads the medium as it is, patches included; beyond its end it is blank.
using read_fn = std::function<bytes(u64 offset, u64 length)>;

struct target {
  // Makes the images in a folder.
  std::function<std::vector<zorv_test::fs_image>(const std::string& dir)> make_images;
  // Which parts of the device may be free, in units of *unit bytes; only asked when the reader
  // found something free.
  //   sectors  the offsets of the 512-byte sectors that may not be blank
  std::function<bit_vector(const read_fn& read, const std::vector<u64>& sectors, u64 device_bytes,
                           u32* unit)>
      may_be_free;
};

extern const target the_target;  // each fuzzer's own

// A little-endian number.
inline u64 little(const bytes& b, u64 at, int length) {
  u64 v = 0;
  for (int i = length - 1; i >= 0; --i) v = v << 8 | b[at + static_cast<u64>(i)];
  return v;
}

}  // namespace zorv_fuzz
