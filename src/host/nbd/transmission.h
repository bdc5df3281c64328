// SPDX-License-Identifier: GPL-2.0-only
// The transmission phase of one connection, on the connection's own thread.
//
// One receive brings as many requests as have arrived. Everything that is complete is turned into
// bios whose segments lie in the connection's buffers, the device is unplugged once, and what has
// ended by then - all of it, when the page cache had the answers - is replied to in one send.
// Payload is copied by the socket and by the disk, never in between.
//
//   - A request is cut into pieces of at most 256 KiB, one bio each. A large write is submitted
//     while it is still being received; a large read is answered in chunks as its pieces end.
//   - Completions come on any thread. They put the piece on a list and wake this thread only if it
//     sleeps.
//   - What is in flight is bounded. At the limit nothing more is received until something ends;
//     a client that does not read its replies waits for itself alone. A read that has to be
//     answered in one piece and is larger than the limit has the connection to itself: it is sent
//     in portions of that size, and if its disk fails after the first of them the connection ends.
//   - Every bio is admitted to the device by itself, so a freeze waits for disks, never for a
//     client that has sent half a request.
#pragma once

#include <atomic>

#include "host/nbd/buffers.h"
#include "host/nbd/negotiate.h"
#include "host/nbd/wire.h"
#include "kernel/bio.h"
#include "kernel/blkdev.h"

namespace zorv::nbd {

class transmission {
 public:
  transmission(int fd, const session& s, std::size_t max_inflight_bytes,
               const std::atomic<bool>* stopping);
  ~transmission();
  transmission(const transmission&) = delete;
  transmission& operator=(const transmission&) = delete;

  [[nodiscard]] bool init();
  // Serves until the client disconnects, breaks the protocol or the server stops. Nothing is in
  // flight any more when it returns.
  void run();

 private:
  struct piece;

  static constexpr u64 nowhere = ~u64{0};

  struct request {
    u64 cookie;
    u64 offset;
    u32 length;
    u16 type;
    u16 flags;
    u32 pieces;        // submitted and not seen to end
    error failed;      // ok, or why the request fails
    u64 error_offset;  // where the first failed piece begins, or nowhere
    bool issued;       // no more pieces will come
    bool gathered;     // a read with one reply: nothing is sent before all of it is there, or
                       // as much of it as may be in memory
    bool begun;        // the first of its reply has been sent
    bool sync_at_end;  // one flush behind all pieces
    piece* parts;      // gathered: pieces that have ended, in order of offset
    request* next;
  };

  // One bio's worth of a request.
  struct piece {
    transmission* owner;
    request* req;
    buffer* memory;  // null when it has none of its own
    std::byte* data;
    u64 offset;
    u32 bytes;
    u32 charge;  // counted in in_flight_ until the piece is done with
    int result;
    piece* next;
  };

  // Why parsing stopped.
  enum class stall {
    input,   // more bytes are needed from the client
    batch,   // enough has been submitted for one go
    room,    // at a limit: something has to end first
    frozen,  // the device admits nothing
    closed,  // a good-bye, or nonsense
  };

  static constexpr u32 max_requests = 512;
  static constexpr u32 max_pieces = 1024;
  static constexpr std::size_t batch_bytes = 256U << 10;
  static constexpr std::size_t min_streamed_bytes = 64U << 10;
  static constexpr std::size_t min_receive_bytes = 32U << 10;

  // Parsing and submitting (requests.cc). Those that return false say in *why what has to happen
  // before they are called again.
  stall advance();
  [[nodiscard]] bool parse(stall* why);
  void begin(request* r);
  [[nodiscard]] error check(const request& r) const;
  [[nodiscard]] error check_range(const request& r, error beyond_end) const;
  [[nodiscard]] bool issue(stall* why);
  [[nodiscard]] bool issue_write(stall* why);
  [[nodiscard]] bool issue_read(stall* why);
  [[nodiscard]] bool issue_zeroes(stall* why);
  [[nodiscard]] bool may_submit(std::size_t bytes, stall* why);
  void submit(std::byte* data, u32 bytes, buffer* memory, u32 rw);
  void issued(request* r);
  void discard();
  [[nodiscard]] std::byte* read_room(std::size_t bytes);
  [[nodiscard]] std::size_t pending() const { return in_ == nullptr ? 0 : in_->used - in_at_; }

  // Ending and replying (replies.cc).
  static void on_end(kernel::bio* b, int result);
  bool reap();
  void ended(piece* p);
  void keep_part(piece* p);
  void finish(request* r);
  void reply(const request& r, error e);
  void reply_status(const request& r);
  void reply_data(const request& r, piece* p, bool last);
  void reply_gathered(request* r);
  [[nodiscard]] bool is_large(const request& r) const {
    return r.gathered && r.type == cmd_read && r.length > max_inflight_bytes_;
  }
  void release(piece* p);

  // Waiting (transmission.cc).
  void unplug();
  [[nodiscard]] bool make_room();
  bool receive(int flags);
  void wait_for_input();
  void wait_for_end();
  [[nodiscard]] bool arm_wake();

  const int fd_;
  int wake_fd_ = -1;
  const session& s_;
  kernel::request_queue* const queue_;
  const std::size_t max_inflight_bytes_;
  const std::atomic<bool>* const stopping_;

  buffer_pool pool_;
  reply_writer out_;
  std::unique_ptr<request[]> requests_;
  std::unique_ptr<piece[]> pieces_;
  request* free_requests_ = nullptr;
  piece* free_pieces_ = nullptr;

  // Input: bytes [in_at_, in_->used) have come and wait to be looked at.
  buffer* in_ = nullptr;
  std::size_t in_at_ = 0;
  bool eof_ = false;
  request* current_ = nullptr;  // being cut into pieces
  u32 current_done_ = 0;        // bytes of it that have been
  u32 discard_ = 0;             // payload of a refused write that is still to come
  bool admitted_ = false;       // one admission to the device is held and not used

  buffer* read_ = nullptr;  // reads are put into it one behind the other

  u32 outstanding_ = 0;        // pieces submitted and not reaped
  std::size_t in_flight_ = 0;  // bytes charged
  bool lost_ = false;          // a reply that has begun cannot be completed
  bool submitted_ = false;     // since the last unplug
  std::size_t batch_ = 0;      // bytes submitted in this go

  // Shared with completions.
  std::atomic<piece*> done_{nullptr};
  std::atomic<bool> sleeping_{false};
  std::atomic<u32> completing_{0};  // completions that may still touch this object
};

}  // namespace zorv::nbd
