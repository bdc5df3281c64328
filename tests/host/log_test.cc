// SPDX-License-Identifier: GPL-2.0-only
#include "host/log.h"

#include <fcntl.h>
#include <unistd.h>

#include "support/driver_fixture.h"

using namespace zorv;

// What every request can cause fills no disk; what somebody asked to see is all there.
TEST(host_log, errors_that_repeat_are_counted_and_a_message_is_a_line) {
  host_log_start();
  testing::internal::CaptureStderr();
  for (int i = 0; i < 1000; ++i) {
    host_log_sink(("<3>ERROR: write(): sector " + std::to_string(i) + " is bad\n").c_str());
    host_log_sink(("<6>0007: write(): sector " + std::to_string(i) + " seen\n").c_str());
    const std::string word(1 + i % 100, 'x');  // of more kinds than are told apart
    host_log_sink(("<3>ERROR: word " + word + " is wrong\n").c_str());
  }
  host_log_sink("<6>0007: node a\n<3>ERROR: \x1b[2J\xc2\x9b \xc3\xbc\n");
  host_log_flush(10000);
  const std::string log = testing::internal::GetCapturedStderr();
  const auto count = [&log](const std::string& part) {
    int n = 0;
    for (std::size_t at = log.find(part); at != std::string::npos; at = log.find(part, at + 1)) ++n;
    return n;
  };
  EXPECT_EQ(count(" is bad\n"), 51) << log.substr(0, 500);
  EXPECT_EQ(count(" seen\n"), 1000);
  EXPECT_EQ(count("node a?<3>ERROR: ?[2J?? \xc3\xbc\n"), 1);
  EXPECT_EQ(count(" is wrong\n"), 63 * 10 + 50 + 1);
  EXPECT_EQ(count("950 more messages held back that were like: <3>ERROR: write(): sector 0"), 1);
}

TEST(host_log, nobody_waits_for_a_log_that_nobody_reads_and_what_is_lost_is_counted) {
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_NONBLOCK), 0);
  ASSERT_EQ(::fcntl(ends[1], F_SETFL, 0), 0);  // its writer waits
  ASSERT_EQ(::dup2(ends[1], STDERR_FILENO), STDERR_FILENO);
  host_log_start();
  for (int i = 0; i < 20000; ++i)
    host_log_sink(("<6>0007: " + std::string(99, 'x') + "\n").c_str());
  std::string log;
  EXPECT_TRUE(zorv_test::eventually([&] {
    char text[4096];
    const ssize_t n = ::read(ends[0], text, sizeof text);
    if (n > 0) log.append(text, static_cast<std::size_t>(n));
    return log.find(" messages lost: ") != std::string::npos;
  }));
}
