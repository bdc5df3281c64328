// SPDX-License-Identifier: GPL-2.0-only
// Change bitmaps through zorvctl: raw, as ranges, and never lost on the way out.
#include <sys/stat.h>

#include "support/daemon.h"

using namespace zorv_test;
using nlohmann::json;

namespace {

struct ctl_bitmap : with_daemon {
  void SetUp() override {
    make_image(dir / "disk.img", 10 * 65536 + 512);
    serve(dir / "disk.img");
    add_filter("disk");
  }

  bytes incr() {
    d->must({"bmp", "get", "zorv0", "incr", "-o", dir / "now"});
    return read_file(dir / "now");
  }
  void set_incr(const bytes& to) {
    write_file(dir / "set", to);
    d->must({"bmp", "set", "zorv0", "incr", dir / "set"});
  }
};

}  // namespace

TEST_F(ctl_bitmap, set_merge_clear_save_and_load) {
  EXPECT_EQ(incr(), (bytes{0xff, 0xff})) << "no file: everything counts as changed";
  set_incr({0x03, 0x00});
  EXPECT_EQ(incr(), (bytes{0x03, 0x00}));
  write_file(dir / "more", {0x00, 0x04});
  d->must({"bmp", "merge", "zorv0", "incr", dir / "more"});
  EXPECT_EQ(incr(), (bytes{0x03, 0x04}));
  EXPECT_EQ(d->ctl({"bmp", "merge", "0", "incr", "-"},
                   "\x08"
                   "\x01")
                .status,
            0);
  EXPECT_EQ(incr(), (bytes{0x0b, 0x05}));
  d->must({"bmp", "save", "0", "incr"});
  d->must({"bmp", "load", "0", "incr"});
  EXPECT_EQ(incr(), (bytes{0x0b, 0x05}));
  d->must({"bmp", "clear", "0", "incr"});
  EXPECT_EQ(incr(), (bytes{0, 0}));
  d->must({"bmp", "set", "0", "incr"});
  EXPECT_EQ(incr(), (bytes{0xff, 0xff}));
  const json raw = d->ctl_json({"bmp", "get", "0", "incr"});
  EXPECT_EQ(raw.at("data"), "//8=");
  EXPECT_EQ(raw.at("size"), 2);
  for (const char* length : {"\x01", "\x01\x02\x03"}) {
    EXPECT_EQ(d->ctl({"bmp", "set", "0", "incr", "-"}, length).status, 1);
  }
  EXPECT_EQ(incr(), (bytes{0xff, 0xff}));
}

TEST_F(ctl_bitmap, ranges_end_with_the_disk) {
  set_incr({0x0b, 0xfe});  // behind the last extent's bit nothing counts
  EXPECT_EQ(d->must({"bmp", "show", "zorv0", "incr"}),
            "0 131072\n196608 65536\n589824 66048\ntotal 262656 of 655872 bytes in 3 ranges\n");
  const json shown = d->ctl_json({"bmp", "show", "zorv0", "incr"});
  EXPECT_EQ(shown.at("total"), 262656);
  EXPECT_EQ(shown.at("ranges").at(2), json({{"offset", 589824}, {"length", 66048}}));
}

TEST_F(ctl_bitmap, what_is_taken_arrives_or_is_put_back) {
  const bytes bits = {0x21, 0x01};
  set_incr(bits);
  const program_result out = d->ctl({"bmp", "get-clear", "zorv0", "incr"});
  EXPECT_EQ(bytes(out.out.begin(), out.out.end()), bits);
  EXPECT_EQ(incr(), (bytes{0, 0}));

  // A file that is there is replaced whole, with its mode, or not at all.
  set_incr(bits);
  write_file(dir / "kept", {1, 2, 3});
  ASSERT_EQ(::chmod((dir / "kept").c_str(), 0640), 0);
  EXPECT_EQ(d->ctl({"bmp", "get-clear", "nobody", "incr", "-o", dir / "kept"}).status, 1);
  EXPECT_EQ(read_file(dir / "kept"), (bytes{1, 2, 3}));
  d->must({"bmp", "get-clear", "zorv0", "incr", "-o", dir / "kept"});
  EXPECT_EQ(read_file(dir / "kept"), bits);
  struct stat st {};
  ASSERT_EQ(::stat((dir / "kept").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0640U);

  set_incr(bits);
  EXPECT_EQ(d->ctl({"bmp", "get-clear", "zorv0", "incr", "-o", dir / "none/x"}).status, 1);
  EXPECT_EQ(incr(), bits) << "nothing is taken that cannot be put anywhere";
  const program_result full = d->ctl({"bmp", "get-clear", "zorv0", "incr", "-o", "/dev/full"});
  EXPECT_EQ(full.status, 1);
  EXPECT_NE(full.err.find("merged back"), std::string::npos) << full.err;
  EXPECT_EQ(incr(), bits);
  const std::string json_into = std::string(ZORVCTL_PATH) + " --socket " + d->control() +
                                " --json bmp get-clear zorv0 incr >";
  for (const char* output : {"/dev/full", "&-"}) {
    const program_result r = run_program({"sh", "-c", json_into + output});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("merged back"), std::string::npos) << r.err;
    EXPECT_EQ(incr(), bits);
  }
  EXPECT_EQ(d->ctl_json({"bmp", "get-clear", "zorv0", "incr"}).at("data"), "IQE=");
  EXPECT_EQ(incr(), (bytes{0, 0}));
}
