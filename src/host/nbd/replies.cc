// SPDX-License-Identifier: GPL-2.0-only
// From ended bios to replies.
#include <unistd.h>

#include <cstring>

#include "host/nbd/transmission.h"

namespace zorv::nbd {

using kernel::bio;

namespace {

std::byte* put_simple(std::byte* at, u64 cookie, error e) {
  at = store32(at, magic_simple);
  at = store32(at, e);
  return store64(at, cookie);
}

std::byte* put_chunk(std::byte* at, u64 cookie, u16 flags, u16 type, u32 payload_bytes) {
  at = store32(at, magic_structured);
  at = store16(at, flags);
  at = store16(at, type);
  at = store64(at, cookie);
  return store32(at, payload_bytes);
}

}  // namespace

// Completion context, any thread, often inside this connection's own submission.
void transmission::on_end(bio* b, int result) {
  auto* p = static_cast<piece*>(b->bi_private);
  transmission* t = p->owner;
  p->result = result;
  kernel::bio_put(b);
  kernel::blkdev_exit(t->s_.bdev);
  p->next = t->done_.load(std::memory_order_relaxed);
  while (!t->done_.compare_exchange_weak(p->next, p)) {
  }
  if (t->sleeping_.load() && t->sleeping_.exchange(false)) {
    const u64 one = 1;
    (void)!::write(t->wake_fd_, &one, sizeof one);
  }
  t->completing_.fetch_sub(1, std::memory_order_release);
}

// Handles what has ended; false when nothing has.
bool transmission::reap() {
  piece* list = done_.exchange(nullptr);
  if (list == nullptr) return false;
  piece* oldest = nullptr;
  while (list != nullptr) {
    piece* p = list;
    list = p->next;
    p->next = oldest;
    oldest = p;
  }
  while (oldest != nullptr) {
    piece* p = oldest;
    oldest = p->next;
    ended(p);
  }
  return true;
}

void transmission::ended(piece* p) {
  request* r = p->req;
  --outstanding_;
  --r->pieces;
  if (p->result != 0 && r->failed == ok) {
    r->failed = error_of(p->result);
    if (p->bytes != 0) r->error_offset = p->offset;  // a flush is at no place
  }
  if (r->type != cmd_read || p->result != 0) {
    release(p);
  } else if (r->gathered) {
    keep_part(p);
  } else {
    reply_data(*r, p, r->issued && r->pieces == 0 && r->failed == ok);
  }
  if (r->issued && r->pieces == 0) finish(r);
}

void transmission::keep_part(piece* p) {
  piece** at = &p->req->parts;
  while (*at != nullptr && (*at)->offset < p->offset) at = &(*at)->next;
  p->next = *at;
  *at = p;
}

void transmission::release(piece* p) {
  in_flight_ -= p->charge;
  if (p->memory != nullptr) pool_.drop(p->memory);
  p->next = free_pieces_;
  free_pieces_ = p;
}

void transmission::finish(request* r) {
  const bool read = r->type == cmd_read && r->length != 0;
  if (r->failed != ok && r->begun) lost_ = true;  // what was promised cannot be taken back
  if (r->failed != ok || (!read && r->type != cmd_block_status)) {
    while (r->parts != nullptr) {
      piece* p = r->parts;
      r->parts = p->next;
      release(p);
    }
    if (!lost_) reply(*r, r->failed);
  } else if (r->type == cmd_block_status) {
    reply_status(*r);
  } else if (r->gathered) {
    reply_gathered(r);
  }  // else the last chunk has gone
  r->next = free_requests_;
  free_requests_ = r;
}

// A reply without data. A read is answered structured where that was agreed on, everything else
// only to say why it failed.
void transmission::reply(const request& r, error e) {
  if (!s_.structured || (e == ok && r.type != cmd_read)) {
    put_simple(out_.head(simple_bytes), r.cookie, e);
    return;
  }
  if (e == ok) {
    put_chunk(out_.head(chunk_bytes), r.cookie, chunk_done, chunk_none, 0);
    return;
  }
  const char* text = error_text(e);
  const auto length = static_cast<u16>(std::strlen(text));
  // Only I/O has a place where it failed.
  const bool placed = r.error_offset != nowhere;
  const u32 payload = 6U + length + (placed ? 8U : 0U);
  std::byte* at = put_chunk(out_.head(chunk_bytes + payload), r.cookie, chunk_done,
                            placed ? chunk_error_offset : chunk_error, payload);
  at = store16(store32(at, e), length);
  std::memcpy(at, text, length);
  if (placed) store64(at + length, r.error_offset);
}

// Nothing is known about what is allocated, so all of it counts as data.
void transmission::reply_status(const request& r) {
  std::byte* at =
      put_chunk(out_.head(chunk_bytes + 12), r.cookie, chunk_done, chunk_block_status, 12);
  store32(store32(store32(at, base_allocation_id), r.length), 0);
}

void transmission::reply_data(const request& r, piece* p, bool last) {
  std::byte* at = put_chunk(out_.head(chunk_bytes + 8), r.cookie, last ? chunk_done : u16{0},
                            chunk_offset_data, 8 + p->bytes);
  store64(at, p->offset);
  out_.data(p->data, p->bytes, p->memory);
  p->memory = nullptr;
  release(p);
}

// What there is of a read with one reply; all that was asked for so far has ended.
void transmission::reply_gathered(request* r) {
  if (r->begun) {
    // only data follows
  } else if (s_.structured) {
    std::byte* at = put_chunk(out_.head(chunk_bytes + 8), r->cookie, chunk_done, chunk_offset_data,
                              8 + r->length);
    store64(at, r->offset);
  } else {
    put_simple(out_.head(simple_bytes), r->cookie, ok);
  }
  r->begun = true;
  while (r->parts != nullptr) {
    piece* p = r->parts;
    r->parts = p->next;
    out_.data(p->data, p->bytes, p->memory);
    p->memory = nullptr;
    release(p);
  }
}

}  // namespace zorv::nbd
