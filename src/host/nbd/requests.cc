// SPDX-License-Identifier: GPL-2.0-only
// From received bytes to bios.
#include <algorithm>

#include "host/nbd/transmission.h"

namespace zorv::nbd {

using kernel::bio;

namespace {

// What WRITE_ZEROES writes. Never written to, so it costs no memory.
alignas(kernel::page_size) std::byte zeroes[max_piece_bytes];

}  // namespace

transmission::stall transmission::advance() {
  stall why = stall::input;
  for (;;) {
    if (discard_ != 0) {
      discard();
      if (discard_ != 0) return stall::input;
    }
    if (current_ == nullptr ? !parse(&why) : !issue(&why)) return why;
  }
}

void transmission::discard() {
  const auto n = static_cast<u32>(std::min<std::size_t>(discard_, pending()));
  in_at_ += n;
  discard_ -= n;
}

bool transmission::parse(stall* why) {
  *why = stall::input;
  if (pending() < request_bytes) return false;
  *why = stall::room;
  if (free_requests_ == nullptr) return false;
  *why = stall::closed;
  const std::byte* at = in_->memory + in_at_;
  if (load32(at) != magic_request) return false;
  const u16 type = load16(at + 6);
  if (type == cmd_disc) return false;
  request* r = free_requests_;
  free_requests_ = r->next;
  *r = {.cookie = load64(at + 8),
        .offset = load64(at + 16),
        .length = load32(at + 24),
        .type = type,
        .flags = load16(at + 4)};
  in_at_ += request_bytes;
  begin(r);
  return true;
}

void transmission::begin(request* r) {
  current_ = r;
  current_done_ = 0;
  r->failed = check(*r);
  r->error_offset = nowhere;
  r->gathered = !s_.structured || (r->flags & cmd_flag_df) != 0;
  r->sync_at_end = r->type == cmd_flush && !s_.target.read_only;
}

error transmission::check_range(const request& r, error beyond_end) const {
  if (r.offset > s_.target.size_bytes || r.length > s_.target.size_bytes - r.offset) {
    return beyond_end;
  }
  return (r.offset | r.length) % min_block_bytes == 0 ? ok : einval;
}

error transmission::check(const request& r) const {
  if (stopping_->load(std::memory_order_relaxed)) return eshutdown;
  const bool read_only = s_.target.read_only;
  const auto only = [&r](u16 flags) { return (r.flags & ~(flags | cmd_flag_fua)) == 0; };
  switch (r.type) {
    case cmd_read:
      if (!only(s_.structured ? cmd_flag_df : 0) || r.length > max_payload_bytes) return einval;
      return check_range(r, einval);
    case cmd_write:
      if (!only(0)) return einval;
      if (read_only) return eperm;
      return r.length > max_payload_bytes ? einval : check_range(r, enospc);
    case cmd_write_zeroes: {
      if (!only(cmd_flag_no_hole | cmd_flag_fast_zero)) return einval;
      if (read_only) return eperm;
      const error e = check_range(r, enospc);
      return e == ok && (r.flags & cmd_flag_fast_zero) != 0 ? enotsup : e;
    }
    case cmd_flush:
      return only(0) && r.offset == 0 && r.length == 0 ? ok : einval;
    case cmd_block_status:
      if (!only(cmd_flag_req_one) || !s_.block_status || r.length == 0) return einval;
      return check_range(r, einval);
    default:
      return einval;
  }
}

// Cuts the current request into pieces as far as it gets; true when it needs no more of this.
bool transmission::issue(stall* why) {
  request* r = current_;
  const bool has_data = r->type == cmd_read || r->type == cmd_write || r->type == cmd_write_zeroes;
  if (is_large(*r) && current_done_ == 0 && outstanding_ != 0) {
    *why = stall::room;  // its reply comes in several sends, and no other may come between them
    return false;
  }
  while (has_data && r->failed == ok && current_done_ < r->length) {
    if (stopping_->load(std::memory_order_relaxed)) {
      r->failed = eshutdown;
      break;
    }
    const bool on = r->type == cmd_read    ? issue_read(why)
                    : r->type == cmd_write ? issue_write(why)
                                           : issue_zeroes(why);
    if (!on) return false;
  }
  if (r->sync_at_end && r->failed == ok) {
    if (r->pieces != 0) {
      *why = stall::room;
      return false;
    }
    if (!may_submit(0, why)) return false;
    submit(nullptr, 0, nullptr, kernel::REQ_WRITE | kernel::REQ_FLUSH);
  }
  if (r->type == cmd_write) discard_ = r->length - current_done_;
  issued(r);
  return true;
}

void transmission::issued(request* r) {
  current_ = nullptr;
  r->issued = true;
  if (r->pieces == 0) finish(r);
}

bool transmission::issue_write(stall* why) {
  request* r = current_;
  const u32 left = r->length - current_done_;
  auto n = static_cast<u32>(std::min<std::size_t>({pending(), left, max_piece_bytes}));
  if (n < left) {
    // Submitted while it comes in, in pieces that are worth it and end on a page of the disk.
    *why = stall::input;
    if (n < min_streamed_bytes && (in_ == nullptr || in_->room() >= min_receive_bytes)) {
      return false;
    }
    const u64 from = r->offset + current_done_;
    const u64 to = (from + n) & ~u64{kernel::page_size - 1};
    if (to <= from) return false;
    n = static_cast<u32>(to - from);
  }
  if (!may_submit(n, why)) return false;
  u32 rw = kernel::REQ_WRITE;
  if ((r->flags & cmd_flag_fua) != 0) {
    if (n == r->length) {
      rw |= kernel::REQ_FUA;
    } else {
      r->sync_at_end = true;
    }
  }
  std::byte* data = in_->memory + in_at_;
  in_at_ += n;
  buffer_pool::hold(in_);
  submit(data, n, in_, rw);
  return true;
}

bool transmission::issue_zeroes(stall* why) {
  request* r = current_;
  const auto n =
      static_cast<u32>(std::min<std::size_t>(r->length - current_done_, max_piece_bytes));
  if (!may_submit(n, why)) return false;
  r->sync_at_end = (r->flags & cmd_flag_fua) != 0;
  submit(zeroes, n, nullptr, kernel::REQ_WRITE);
  return true;
}

bool transmission::issue_read(stall* why) {
  const auto n =
      static_cast<u32>(std::min<std::size_t>(current_->length - current_done_, max_piece_bytes));
  std::byte* data = read_room(n);
  *why = stall::room;
  if (data == nullptr || !may_submit(n, why)) return false;
  read_->used += n;
  buffer_pool::hold(read_);
  submit(data, n, read_, kernel::READ);
  return true;
}

std::byte* transmission::read_room(std::size_t bytes) {
  if (read_ != nullptr && read_->refs == 1) read_->used = 0;
  if (read_ == nullptr || read_->room() < bytes) {
    buffer* fresh = pool_.take();
    if (fresh == nullptr) return nullptr;
    if (read_ != nullptr) pool_.drop(read_);
    read_ = fresh;
  }
  return read_->memory + read_->used;
}

// Whether a piece of that size may go now. When it may, one admission to the device is held for it.
bool transmission::may_submit(std::size_t bytes, stall* why) {
  if (batch_ >= batch_bytes) {
    *why = stall::batch;
    return false;
  }
  const bool alone = in_flight_ == 0;
  if (free_pieces_ == nullptr || (in_flight_ + bytes > max_inflight_bytes_ && !alone)) {
    *why = stall::room;
    return false;
  }
  if (!admitted_) admitted_ = kernel::blkdev_try_enter(s_.bdev);
  *why = stall::frozen;
  return admitted_;
}

// Sends the next piece of the current request. Takes over a reference of its buffer.
void transmission::submit(std::byte* data, u32 bytes, buffer* memory, u32 rw) {
  request* r = current_;
  piece* p = free_pieces_;
  free_pieces_ = p->next;
  p->req = r;
  p->memory = memory;
  p->data = data;
  p->offset = r->offset + current_done_;
  p->bytes = bytes;
  p->charge = bytes;
  p->result = 0;
  const u32 segments = (bytes + kernel::page_size - 1) / kernel::page_size;
  bio* b = kernel::bio_alloc(kernel::GFP_NOIO, segments);
  b->bi_bdev = s_.bdev;
  b->bi_sector = bytes == 0 ? 0 : p->offset >> kernel::sector_shift;
  b->bi_rw = rw;
  b->bi_end_io = on_end;
  b->bi_private = p;
  for (u32 at = 0; at < bytes; at += kernel::page_size) {
    kernel::bio_add_page(b, kernel::page_at(data + at), std::min(bytes - at, kernel::page_size), 0);
  }
  admitted_ = false;
  ++r->pieces;
  ++outstanding_;
  current_done_ += bytes;
  in_flight_ += bytes;
  batch_ += bytes;
  submitted_ = true;
  completing_.fetch_add(1, std::memory_order_relaxed);
  kernel::generic_make_request(b);
}

}  // namespace zorv::nbd
