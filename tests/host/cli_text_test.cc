// SPDX-License-Identifier: GPL-2.0-only
// What zorvctl reckons by itself: sizes, ranges, encodings.
#include <gtest/gtest.h>

#include "cli/bitmap_file.h"
#include "cli/cli.h"
#include "cli/text.h"
#include "host/options.h"

using namespace zorv;
using namespace zorv::cli;

TEST(cli_text, sizes) {
  constexpr std::uint64_t max = 0xffffffff;
  EXPECT_EQ(parse_size("0", max), 0U);
  EXPECT_EQ(parse_size("65536", max), 65536U);
  EXPECT_EQ(parse_size("64K", max), 65536U);
  EXPECT_EQ(parse_size("3m", max), 3U << 20);
  EXPECT_EQ(parse_size("4T", ~0ULL), 4ULL << 40);
  EXPECT_EQ(parse_size("4294967295", max), max);
  for (const char* bad : {"", "K", "-1", "1KB", "0x10", " 1", "1.5G", "4G", "4294967296",
                          "18446744073709551616", "99999999999999999999K"}) {
    EXPECT_THROW((void)parse_size(bad, max), failure) << bad;
  }
  EXPECT_EQ(show_size(1023), "1023");
  EXPECT_EQ(show_size(1024), "1K");
  EXPECT_EQ(show_size(1536), "1.5K");
  EXPECT_EQ(show_size(1ULL << 40), "1T");
}

TEST(cli_text, encodings) {
  EXPECT_EQ(percent_encode("a-b_c.d~/e f?g%"), "a-b_c.d~/e%20f%3Fg%25");
  const auto encode = [](std::string_view s) {
    return base64({reinterpret_cast<const unsigned char*>(s.data()), s.size()});
  };
  EXPECT_EQ(encode(""), "");
  EXPECT_EQ(encode("f"), "Zg==");
  EXPECT_EQ(encode("fo"), "Zm8=");
  EXPECT_EQ(encode("foo"), "Zm9v");
  EXPECT_EQ(encode("\xff\xfe\xfd"), "//79");
}

TEST(daemon_options, disks_keep_commas_that_are_no_options) {
  const disk_option plain = parse_disk("/a,b/c.img");
  EXPECT_EQ(plain.image, "/a,b/c.img");
  EXPECT_EQ(plain.name, "");
  const disk_option full = parse_disk("/a,b.img,name=x,read-only");
  EXPECT_EQ(full.image, "/a,b.img");
  EXPECT_EQ(full.name, "x");
  EXPECT_TRUE(full.read_only);
}
