// SPDX-License-Identifier: GPL-2.0-only
// Snapshots while clients write: each shows one instant, for as long as it lives, in whatever
// order they start, stop and go.
#include <gmock/gmock.h>

#include <map>
#include <random>

#include "e2e/snap_fixture.h"

using namespace zorv_test;

namespace {

// A snap as it must be by the rules for stops and deletions that wait for older snaps.
struct expected_snap {
  std::string name;
  bool started = true, stop_pending = false, del_pending = false;
  numbered_writer::span start;  // moments around its start
  bytes content;                // as it was first read
};

// The snaps of a filter, oldest first.
class expected_snaps {
 public:
  std::vector<expected_snap> list;

  auto find(const std::string& name) {
    return std::find_if(list.begin(), list.end(), [&](const auto& s) { return s.name == name; });
  }
  void stop(std::size_t i) {
    expected_snap& s = list[i];
    if (!s.started) return;
    s.stop_pending = std::any_of(list.begin(), list.begin() + static_cast<long>(i),
                                 [](const auto& older) { return older.started; });
    if (!s.stop_pending) s.started = false;
    for (std::size_t n = i + 1; n < list.size(); ++n) {
      if (!list[n].started) continue;
      if (list[n].stop_pending) stop(n);
      break;
    }
  }
  void del(std::size_t i) {
    stop(i);
    if (list[i].started) {
      list[i].del_pending = true;
      return;
    }
    list.erase(list.begin() + static_cast<long>(i));
    while (!list.empty() && list[0].del_pending && !list[0].started) list.erase(list.begin());
  }
};

class snap_clients : public snap_e2e {
 protected:
  void SetUp() override {
    make_image(dir / "disk.raw", numbered_writer::disk_bytes);
    serve(dir / "disk.raw");
    writers = start_writers();
  }
  void TearDown() override {
    for (const auto& w : writers) {
      w->stop();
      EXPECT_EQ(w->error(), 0);
    }
    snap_e2e::TearDown();
  }

  void expect_as_first_seen(const expected_snap& s) {
    SCOPED_TRACE(s.name);
    const bytes again = show(s.name);
    EXPECT_TRUE(again == s.content) << "a snapshot has changed";
  }
  // Takes a snapshot, with a stopped snap where there is one; it is the newest in either case.
  void take(const std::string& name) {
    expected_snap s;
    s.name = name;
    if (const auto stopped = expected.find(name); stopped != expected.list.end()) {
      expected.list.erase(stopped);
    } else {
      add_snap(name);
    }
    s.start.from = numbered_writer::now();
    d->must({"start", name});
    s.start.to = numbered_writer::now();
    let_write(writers, 8);
    s.content = show(name);
    EXPECT_TRUE(numbered_writer::instant_of(writers, s.content, s.start)) << "at no instant";
    expect_as_first_seen(s);
    expected.list.push_back(std::move(s));
  }
  // Every snap that is there is as it must be.
  void expect_states() {
    std::map<std::string, std::string> must, is;
    const auto text = [](bool started, bool stop, bool del) {
      return std::string(started ? "started" : "stopped") + (stop ? " stop" : "") +
             (del ? " del" : "");
    };
    for (const auto& s : expected.list) {
      must[s.name] = text(s.started, s.stop_pending, s.del_pending);
    }
    for (const auto& s : d->ctl_json({"list", "snap"})) {
      is[s.at("name")] =
          text(s.at("started") == 1, s.at("stop_pending") == 1, s.at("del_pending") == 1);
    }
    EXPECT_EQ(is, must);
  }

  writer_set writers;
  expected_snaps expected;
};

TEST_F(snap_clients, snapshots_come_and_go_in_every_order_while_clients_write) {
  const u32 seed = std::random_device{}();
  std::printf("seed %u\n", seed);
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  const std::string names[] = {"a", "b", "c"};
  for (int i = 0; i < 36 && !HasFailure(); ++i) {
    const std::string& name = names[random() % 3];
    const auto s = expected.find(name);
    const u32 what = random() % 4;
    if (s == expected.list.end() || (what < 2 && !s->started && !s->del_pending)) {
      take(name);
    } else if (what < 2 && s->started && !s->stop_pending) {
      expect_as_first_seen(*s);
    } else {
      d->must({what == 2 ? "stop" : "del", name});
      const auto at = static_cast<std::size_t>(s - expected.list.begin());
      what == 2 ? expected.stop(at) : expected.del(at);
    }
    expect_states();
  }
  // What was written has all arrived, and only that.
  for (const auto& w : writers) w->stop();
  const u64 end = numbered_writer::now();
  EXPECT_TRUE(numbered_writer::instant_of(writers, show("disk"), {end, end + 1}));
  for (const auto& s : expected.list) {
    if (s.started && !s.stop_pending) expect_as_first_seen(s);
  }
}

TEST_F(snap_clients, a_snap_is_not_stopped_under_its_reader) {
  take("old");
  take("new");
  {
    nbd_connection reader(d->uri("new"));
    ASSERT_TRUE(reader.connected());
    for (const char* command : {"stop", "del"}) {
      EXPECT_THAT(d->ctl({command, "new"}).err, testing::HasSubstr("EBUSY"));
    }
    EXPECT_THAT(d->ctl({"stop", "disk"}).err, testing::HasSubstr("EBUSY"));
    let_write(writers, 8);
    EXPECT_TRUE(reader.read_all() == expected.find("new")->content);
    EXPECT_EQ(reader.write(0, bytes(4096)), EPERM);
  }
  d->must({"del", "new"});
  EXPECT_EQ(info("new").at("del_pending"), 1);
  bytes block(4096);
  EXPECT_EQ(nbd_connection(d->uri("new")).read(0, &block), EIO) << "it only serves the older one";
  let_write(writers, 8);
  expect_as_first_seen(*expected.find("old"));
  d->must({"del", "old"});
  EXPECT_TRUE(d->ctl_json({"list", "snap"}).empty());
}

}  // namespace
