// SPDX-License-Identifier: GPL-2.0-only
#include "host/log.h"

#include <gtest/gtest.h>

using namespace zorv;

// What every request can cause fills no disk; what somebody asked to see is all there.
TEST(host_log, errors_that_repeat_are_counted) {
  host_log_start();
  testing::internal::CaptureStderr();
  for (int i = 0; i < 1000; ++i) {
    host_log_sink(("<3>ERROR: write(): sector " + std::to_string(i) + " is bad\n").c_str());
    host_log_sink(("<6>0007: write(): sector " + std::to_string(i) + " seen\n").c_str());
  }
  host_log_flush(10000);
  const std::string log = testing::internal::GetCapturedStderr();
  const auto count = [&log](const std::string& part) {
    int n = 0;
    for (std::size_t at = log.find(part); at != std::string::npos; at = log.find(part, at + 1)) ++n;
    return n;
  };
  EXPECT_EQ(count(" is bad\n"), 51) << log.substr(0, 500);
  EXPECT_EQ(count(" seen\n"), 1000);
  EXPECT_EQ(count("950 more messages held back that were like: <3>ERROR: write(): sector 0"), 1);
}
