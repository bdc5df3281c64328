// SPDX-License-Identifier: GPL-2.0-only
// A filter's export under the programs that people use.
#include "support/daemon.h"

namespace zorv_test {

class nbd_clients : public with_daemon {
 protected:
  static constexpr u64 image_bytes = 64U << 20;

  void SetUp() override {
    make_image(dir / "vm.raw", image_bytes);
    serve(dir / "vm.raw");
    add_started("disk", "vm");
    for (const char* type : {"incr", "diff"}) d->must({"bmp", "clear", "vm", type});
  }

  // What it prints; fails the test unless it succeeds.
  static std::string run(const std::vector<std::string>& argv) {
    const auto r = run_program(argv);
    EXPECT_EQ(r.status, 0) << argv[0] << ": " << r.err << r.out;
    return r.out;
  }
  std::string uri() { return d->uri("vm"); }
};

TEST_F(nbd_clients, describe_and_map_the_export) {
  const auto info = nlohmann::json::parse(run({"nbdinfo", "--json", uri()}));
  const auto& e = info["exports"][0];
  EXPECT_EQ(e["export-size"], image_bytes);
  EXPECT_EQ(e["block_size_minimum"], 512);
  for (const char* can : {"can_multi_conn", "can_flush", "can_fua", "can_zero", "can_df"}) {
    EXPECT_EQ(e[can], true) << can;
  }
  EXPECT_NE(run({"nbdinfo", "--list", d->uri("")}).find("export=\"vm\""), std::string::npos);
  const auto map = nlohmann::json::parse(run({"qemu-img", "map", "--output=json", uri()}));
  ASSERT_EQ(map.size(), 1U);
  EXPECT_EQ(map[0]["length"], image_bytes);
  EXPECT_EQ(map[0]["data"], true);
  EXPECT_NE(run_program({"nbdinfo", d->uri("nobody")}).status, 0);
}

TEST_F(nbd_clients, every_kind_of_write_is_tracked_where_it_went) {
  std::vector<std::string> argv = {"qemu-io", "-f", "raw"};
  for (const char* command :
       {"write -P 7 65024 1024", "write -f -P 8 1M 2M", "write -z 8M 64k", "flush",
        "read -P 7 65024 1024", "read -P 8 1M 2M", "read -P 0 8M 64k", "aio_write -P 1 32M 64k",
        "aio_write -P 2 33M 64k", "aio_flush"}) {
    argv.insert(argv.end(), {"-c", command});
  }
  argv.push_back(uri());
  run(argv);
  const auto shown = d->ctl_json({"bmp", "show", "vm", "incr"});
  std::vector<std::pair<u64, u64>> ranges;
  for (const auto& r : shown["ranges"]) ranges.emplace_back(r["offset"], r["length"]);
  const u64 k64 = 65536, m = 1 << 20;
  EXPECT_EQ(ranges, (std::vector<std::pair<u64, u64>>{
                        {0, 2 * k64}, {m, 2 * m}, {8 * m, k64}, {32 * m, k64}, {33 * m, k64}}))
      << shown;
}

TEST_F(nbd_clients, two_writers_on_one_export_verify_what_they_wrote) {
  run({"fio", "--ioengine=nbd", "--uri=" + uri(), "--name=one", "--name=two", "--size=24m",
       "--offset_increment=32m", "--rw=randrw", "--bsrange=512-256k", "--blockalign=512",
       "--iodepth=32", "--verify=crc32c", "--verify_fatal=1", "--verify_state_save=0",
       "--randseed=7", "--thread"});
}

}  // namespace zorv_test
