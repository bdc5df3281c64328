// SPDX-License-Identifier: GPL-2.0-only
// A server over memory disks, and a client that says exactly what a test wants to be said.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "host/nbd/server.h"
#include "host/nbd/wire.h"
#include "support/driver_fixture.h"

namespace zorv_test {

namespace wire = zorv::nbd;
using kernel::u16;

// Big-endian bytes, put together: packed().be32(1).be16(2).text("name").
struct packed : bytes {
  packed& be16(kernel::u16 v) { return number(v, 2); }
  packed& be32(kernel::u32 v) { return number(v, 4); }
  packed& be64(kernel::u64 v) { return number(v, 8); }
  packed& text(const std::string& s) {
    insert(end(), s.begin(), s.end());
    return *this;
  }

 private:
  packed& number(kernel::u64 v, int n) {
    while (n-- > 0) push_back(static_cast<u8>(v >> (8 * n)));
    return *this;
  }
};

class raw_client {
 public:
  explicit raw_client(const std::string& socket_path);
  ~raw_client();
  raw_client(const raw_client&) = delete;
  raw_client& operator=(const raw_client&) = delete;

  struct option_reply {
    u32 type = 0;  // 0: the connection was closed
    bytes data;
  };
  struct answer {
    u32 error = 0;
    bytes data;                                    // of a read, put together
    std::vector<std::pair<u64, u64>> data_chunks;  // offset, length
    u64 error_offset = ~u64{0};
    bytes status;  // payload of a block status chunk
    bool closed = false;
  };

  void hang_up();
  void send_no_more();           // and go on listening
  bool send(const bytes& data);  // false when the peer has closed
  bytes receive(std::size_t n);  // shorter when the peer closes; fails the test after 20 s
  [[nodiscard]] bool at_eof() { return receive(1).empty(); }

  void greet(u32 flags = wire::client_fixed_newstyle | wire::client_no_zeroes);
  void say_option(u32 option, const bytes& data = {});
  option_reply hear_option(u32 option);
  // Every reply up to the one that ends the option.
  std::vector<option_reply> haggle(u32 option, const bytes& data = {});
  // Only the type of the last one.
  u32 outcome(u32 option, const bytes& data = {}) { return haggle(option, data).back().type; }
  // Greets, agrees on structured replies if asked to, and enters transmission.
  bool enter(const std::string& name, bool structured = true);

  // Sends a request; returns its cookie.
  u64 ask(u16 type, u64 offset, u32 length, u16 flags = 0, const bytes& payload = {});
  // Reads replies until that of the cookie is complete; those of others are kept for their turn.
  answer hear(u64 cookie);
  answer call(u16 type, u64 offset, u32 length, u16 flags = 0, const bytes& payload = {}) {
    return hear(ask(type, offset, length, flags, payload));
  }
  [[nodiscard]] bool anything_to_hear(int limit_ms);
  [[nodiscard]] bool everything_taken();  // the peer has received all that was sent

 private:
  struct expected {
    u16 type;
    u64 offset;
    u32 length;
    answer so_far;
    bool done = false;
  };
  bool hear_one();
  bool hear_chunk();

  int fd_;
  u64 last_cookie_ = 0x6162636465666768;
  std::map<u64, expected> asked_;
};

packed go_data(const std::string& name, const std::vector<u16>& infos = {});
packed meta_data(const std::string& name, const std::vector<std::string>& queries);
bytes pattern(std::size_t n, u32 seed);

// One that has entered the export "disk".
struct disk_client : raw_client {
  explicit disk_client(const zorv::nbd_options& server, bool structured = true)
      : raw_client(server.socket_path) {
    EXPECT_TRUE(enter("disk", structured));
  }
};

// "disk" (writable) and whatever a test adds, over memory disks.
class nbd_test : public ::testing::Test, public zorv::nbd_export_source {
 protected:
  static constexpr u64 disk_bytes = 64U << 20;

  void SetUp() override;
  void TearDown() override;
  std::vector<zorv::nbd_export> list() override;
  void serve();  // starts the server with `options`
  [[nodiscard]] int openers() { return disk.bdev()->bd_openers.load(); }

  temp_dir dir;
  log_capture log;
  zorv::memory_disk disk{"disk", disk_bytes};
  std::vector<zorv::nbd_export> offered;
  std::function<void()> after_list;  // whenever the server has looked
  zorv::nbd_options options;
  std::unique_ptr<zorv::nbd_server> server;
};

}  // namespace zorv_test
