// SPDX-License-Identifier: GPL-2.0-only
// Numbers and layouts of the NBD protocol (fixed newstyle, structured replies). Everything on the
// wire is big-endian and unaligned.
#pragma once

#include <cstddef>
#include <cstring>

#include "kernel/types.h"

namespace zorv::nbd {

using kernel::u16;
using kernel::u32;
using kernel::u64;

inline u16 load16(const void* at) {
  u16 v;
  std::memcpy(&v, at, sizeof v);
  return __builtin_bswap16(v);
}
inline u32 load32(const void* at) {
  u32 v;
  std::memcpy(&v, at, sizeof v);
  return __builtin_bswap32(v);
}
inline u64 load64(const void* at) {
  u64 v;
  std::memcpy(&v, at, sizeof v);
  return __builtin_bswap64(v);
}
// Each returns the place behind what it stored.
inline std::byte* store16(std::byte* at, u16 v) {
  v = __builtin_bswap16(v);
  std::memcpy(at, &v, sizeof v);
  return at + sizeof v;
}
inline std::byte* store32(std::byte* at, u32 v) {
  v = __builtin_bswap32(v);
  std::memcpy(at, &v, sizeof v);
  return at + sizeof v;
}
inline std::byte* store64(std::byte* at, u64 v) {
  v = __builtin_bswap64(v);
  std::memcpy(at, &v, sizeof v);
  return at + sizeof v;
}

// ---- handshake ----
constexpr u64 magic_server = 0x4e42444d41474943;  // "NBDMAGIC"
constexpr u64 magic_option = 0x49484156454f5054;  // "IHAVEOPT"
constexpr u64 magic_option_reply = 0x3e889045565a9;
constexpr u16 handshake_fixed_newstyle = 1, handshake_no_zeroes = 2;
constexpr u32 client_fixed_newstyle = 1, client_no_zeroes = 2;

constexpr u32 opt_export_name = 1, opt_abort = 2, opt_list = 3, opt_info = 6, opt_go = 7,
              opt_structured_reply = 8, opt_list_meta_context = 9, opt_set_meta_context = 10;

constexpr u32 rep_ack = 1, rep_server = 2, rep_info = 3, rep_meta_context = 4;
constexpr u32 rep_error = 1U << 31;
constexpr u32 rep_err_unsup = rep_error + 1, rep_err_invalid = rep_error + 3,
              rep_err_unknown = rep_error + 6, rep_err_shutdown = rep_error + 7,
              rep_err_too_big = rep_error + 9;

constexpr u16 info_export = 0, info_name = 1, info_description = 2, info_block_size = 3;

// ---- transmission flags ----
constexpr u16 flag_has_flags = 1 << 0, flag_read_only = 1 << 1, flag_send_flush = 1 << 2,
              flag_send_fua = 1 << 3, flag_send_write_zeroes = 1 << 6, flag_send_df = 1 << 7,
              flag_can_multi_conn = 1 << 8, flag_send_fast_zero = 1 << 11;

// ---- requests and replies ----
constexpr u32 magic_request = 0x25609513, magic_simple = 0x67446698, magic_structured = 0x668e33ef;
constexpr std::size_t request_bytes = 28, simple_bytes = 16, chunk_bytes = 20;

constexpr u16 cmd_read = 0, cmd_write = 1, cmd_disc = 2, cmd_flush = 3, cmd_write_zeroes = 6,
              cmd_block_status = 7;
constexpr u16 cmd_flag_fua = 1 << 0, cmd_flag_no_hole = 1 << 1, cmd_flag_df = 1 << 2,
              cmd_flag_req_one = 1 << 3, cmd_flag_fast_zero = 1 << 4;

constexpr u16 chunk_none = 0, chunk_offset_data = 1, chunk_block_status = 5,
              chunk_error = (1 << 15) + 1, chunk_error_offset = (1 << 15) + 2;
constexpr u16 chunk_done = 1;

enum error : u32 {
  ok = 0,
  eperm = 1,
  eio = 5,
  enomem = 12,
  einval = 22,
  enospc = 28,
  eoverflow = 75,
  enotsup = 95,
  eshutdown = 108,
};

// The protocol's number for a negative errno.
error error_of(int negative_errno);
// What a client's log shows beside the number.
const char* error_text(error e);

constexpr std::size_t max_string_bytes = 4096;
constexpr u32 min_block_bytes = 512;  // served; a disk may want to be asked for more at once
constexpr u32 max_payload_bytes = 32U << 20;
constexpr u32 base_allocation_id = 1;

}  // namespace zorv::nbd
