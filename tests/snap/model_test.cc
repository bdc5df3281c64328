// SPDX-License-Identifier: GPL-2.0-only
// Random commands, writes, reads, starts, stops, restarts and resumes against a model: the disk is
// an array of bytes, every snap another one, the changes are a set of extents.
//
// ZORV_SOAK_SEEDS=N runs N seeds instead of the usual ones, ZORV_SEED=S that one only.
#include <algorithm>
#include <list>
#include <random>
#include <set>

#include "snap/snap_fixture.h"

using namespace zorv;
using namespace zorv_test;

namespace {

constexpr u64 model_bytes = 512 * KiB;
constexpr int steps_per_seed = 2000;

struct model_snap {
  u32 minor;
  std::string files;
  bool started = false, stop_pending = false, del_pending = false;
  bool stale = false;  // stopped, and the disk has changed since
  bool ever_started = false;
  bytes shows;
};

struct range {
  u64 offset, length;
  [[nodiscard]] bool overlaps(const range& o) const {
    return offset < o.offset + o.length && o.offset < offset + length;
  }
};

// Waits without sleeping: most requests end within microseconds.
int finish(pending_io& io) {
  for (int i = 0; i < 200000 && !io.done(); ++i) kernel::yield();
  return io.wait();
}

struct model_test : snap_test, testing::WithParamInterface<int> {
  model_test() : snap_test(model_bytes) {}

  u64 pick(u64 n) { return rng() % n; }
  bool one_in(u64 n) { return pick(n) == 0; }
  range pick_range() {
    const u64 sectors = 1 + (one_in(4) ? pick(160) : pick(16));
    const u64 at = pick(model_bytes / 512);
    return {at * 512, std::min(sectors, model_bytes / 512 - at) * 512};
  }
  bytes part(const bytes& all, const range& r) {
    const auto at = all.begin() + static_cast<std::ptrdiff_t>(r.offset);
    return {at, at + static_cast<std::ptrdiff_t>(r.length)};
  }
  model_snap* pick_snap() {
    if (snaps.empty()) return nullptr;
    auto it = snaps.begin();
    std::advance(it, pick(snaps.size()));
    return &*it;
  }

  // ---- the rules of starting and stopping ----
  bool older_started(const model_snap& s) {
    for (const auto& o : snaps) {
      if (&o == &s) return false;
      if (o.started) return true;
    }
    return false;
  }
  void model_stop(model_snap& s) {
    if (!s.started) return;
    if (older_started(s)) {
      s.stop_pending = true;
    } else {
      s.started = s.stop_pending = s.stale = false;
    }
    bool behind = false;
    for (auto& n : snaps) {
      if (behind && n.started) {
        if (n.stop_pending) model_stop(n);
        break;
      }
      behind = behind || &n == &s;
    }
  }
  void model_destroy(const model_snap& s) {
    if (s.started) return;
    snaps.remove_if([&s](const model_snap& o) { return &o == &s; });
    if (!snaps.empty() && snaps.front().del_pending) model_destroy(snaps.front());
  }
  // What it had is gone; older ones showed some of it.
  void lose(const model_snap& s) {
    for (auto& o : snaps) {
      if (&o == &s) return;
      o.stale = o.stale || (s.ever_started && !o.started);
    }
  }
  void start_snap(model_snap& s) {
    lose(s);
    note(c.bdev() != nullptr ? "start" : "start without opener", s.minor);
    ASSERT_EQ(start(s.minor), 0) << log.errors();
    s.started = true;
    s.del_pending = false;
    s.shows = now;
    // It is newer than all that have had their instant.
    auto self = std::find_if(snaps.begin(), snaps.end(), [&s](auto& o) { return &o == &s; });
    const auto behind = [](const model_snap& o) { return o.ever_started; };
    s.ever_started = false;
    if (std::any_of(self, snaps.end(), behind)) snaps.splice(snaps.end(), snaps, self);
    s.ever_started = true;
  }
  // What it shows lies partly in newer snaps, so they have to be there.
  bool can_resume(const model_snap& s) {
    bool behind = false;
    for (const auto& n : snaps) {
      if (behind && n.ever_started && !n.started) return false;
      behind = behind || &n == &s;
    }
    return s.ever_started && !s.started && !s.stale;
  }

  // What has been done to the snaps; shown when a seed fails.
  void note(const char* what, u32 minor = 0) {
    trail += std::to_string(at_step) + ": " + what + " " + std::to_string(minor) + "\n";
  }

  // ---- steps ----
  void requests() {
    struct sent {
      range where;
      std::unique_ptr<pending_io> io;
      const model_snap* snap;  // whose read it is; null: the filter's
      bytes written;           // empty: a read
    };
    std::vector<sent> all;
    std::list<client> readers;
    disk.serve(one_in(2) ? memory_disk::serving::by_worker : memory_disk::serving::at_once);
    for (u64 n = 1 + pick(6); n > 0; --n) {
      const range r = pick_range();
      const model_snap* s = pick_snap();
      if (one_in(3) && s != nullptr && s->started) {
        readers.emplace_back(s->minor);
        all.push_back({r, readers.back().start_read(r.offset, r.length), s, {}});
        continue;
      }
      bool free = true;  // requests that overlap have no order
      for (const auto& o : all) free = free && (o.snap != nullptr || !r.overlaps(o.where));
      if (!free) continue;
      bytes data;
      if (!one_in(4)) data = pattern(r.offset, r.length, static_cast<u8>(rng()));
      all.push_back({r,
                     data.empty() ? c.start_read(r.offset, r.length)
                                  : c.start_write(r.offset, data, one_in(8) ? kernel::REQ_FUA : 0),
                     nullptr, data});
    }
    bytes before = now;
    for (const auto& o : all) {
      std::copy(o.written.begin(), o.written.end(),
                now.begin() + static_cast<std::ptrdiff_t>(o.where.offset));
      if (o.written.empty()) continue;
      for (auto& s : snaps) s.stale = s.stale || !s.started;
      for (u64 e = o.where.offset / extent; e <= (o.where.offset + o.where.length - 1) / extent;
           ++e) {
        changes.insert(static_cast<u32>(e));
      }
    }
    // A snapshot holds every request that had been sent before.
    model_snap* s = pick_snap();
    if (one_in(60) && s != nullptr && !s->started) start_snap(*s);
    for (auto& o : all) {
      const bool gone = o.snap != nullptr && o.snap->stop_pending;
      ASSERT_EQ(finish(*o.io), gone ? -EIO : 0) << log.errors();
      if (gone || !o.written.empty()) continue;
      ASSERT_TRUE(o.io->data() == part(o.snap != nullptr ? o.snap->shows : before, o.where))
          << (o.snap != nullptr ? "zorv" + std::to_string(o.snap->minor) : "the disk") << " at "
          << o.where.offset << "+" << o.where.length;
    }
    disk.serve(memory_disk::serving::at_once);
  }
  void check_bitmaps() {
    const std::vector<u32> want(changes.begin(), changes.end());
    ASSERT_EQ(changed(filter, ZORV_BMP_INCREMENTAL), want);
    if (one_in(3)) {
      ASSERT_EQ(bmp(ZORV_CLR_BMP, filter, ZORV_BMP_INCREMENTAL), 0);
      changes.clear();
    }
  }
  void check_everything() {
    ASSERT_TRUE(disk.peek(0, model_bytes) == now);
    std::string order;
    for (const auto& s : snaps) order += std::to_string(s.minor) + "\n";
    ASSERT_EQ(proc("zorv/zorv" + std::to_string(filter) + "/snaps"), order);
    for (const auto& s : snaps) {
      const std::string at = "zorv/zorv" + std::to_string(s.minor) + "/";
      ASSERT_EQ(proc(at + "started"), s.started ? "1\n" : "0\n") << s.minor;
      ASSERT_EQ(proc(at + "stop_pending"), s.stop_pending ? "1\n" : "0\n") << s.minor;
      ASSERT_EQ(proc(at + "del_pending"), s.del_pending ? "1\n" : "0\n") << s.minor;
      if (s.started && !s.stop_pending) {
        ASSERT_TRUE(shown(s.minor, 0, model_bytes) == s.shows) << "zorv" << s.minor;
      }
    }
  }
  void create_snap() {
    const std::string files = dir / ("m" + std::to_string(next_files++));
    snaps.push_back({add_snap({.chunk_size = chunk, .files = files}), files});
    note("add", snaps.back().minor);
  }
  void delete_snap(model_snap& s) {
    note("del", s.minor);
    lose(s);
    ASSERT_EQ(del(s.minor), 0) << log.errors();
    model_stop(s);
    if (s.started) s.del_pending = true;
    model_destroy(s);
  }
  // Unloads the driver, loads it, and brings everything back as an agent does, newest first. Now
  // and then with the COW files as a power cut would leave them.
  void restart() {
    note("restart");
    c.close();
    if (one_in(2)) kernel::fault_power_cut();
    unload();
    load();
    filter = add_filter(disk.path(), {.extent_size = extent, .minor = static_cast<s32>(filter)});
    ASSERT_EQ(start(filter), 0);
    for (auto& s : snaps) {
      ASSERT_EQ(
          add_snap({.chunk_size = chunk, .minor = static_cast<s32>(s.minor), .files = s.files}),
          s.minor);
    }
    for (auto s = snaps.rbegin(); s != snaps.rend(); ++s) {
      if (!s->started) {
        s->del_pending = s->ever_started = false;
        continue;
      }
      ASSERT_EQ(resume(s->minor, 1, s->stop_pending, s->del_pending), 0) << log.errors();
    }
    c = client(filter);
  }
  void step() {
    model_snap* s = pick_snap();
    const u64 dice = pick(1000);
    if (dice < 15 && snaps.size() < 4) {
      create_snap();
    } else if (dice < 30 && s != nullptr && !s->started) {
      if (one_in(2)) c.close();  // without an opener the start freezes nothing
      start_snap(*s);
      if (c.bdev() == nullptr) c = client(filter);
    } else if (dice < 40 && s != nullptr) {
      note("stop", s->minor);
      ASSERT_EQ(stop(s->minor), 0) << log.errors();
      model_stop(*s);
    } else if (dice < 46 && s != nullptr) {
      delete_snap(*s);
    } else if (dice < 60 && s != nullptr && can_resume(*s)) {
      note("resume", s->minor);
      ASSERT_EQ(resume(s->minor), 0) << log.errors();
      s->started = true;
      s->del_pending = false;
    } else if (dice < 62) {
      restart();
    } else if (dice < 72) {
      check_everything();
    } else if (dice < 112) {
      check_bitmaps();
    } else {
      requests();
    }
  }
  void run(u32 seed) {
    SCOPED_TRACE("ZORV_SEED=" + std::to_string(seed));
    rng.seed(seed);
    kernel::fault_record_unsynced_begin();
    chunk = 4096U << pick(4);
    extent = 4096U << pick(3);
    ASSERT_EQ(del(filter), 0);
    now = pattern(0, model_bytes, static_cast<u8>(seed));
    disk.poke(0, now);
    filter = add_started_filter(disk.path(), {.extent_size = extent});
    changes.clear();
    snaps.clear();
    c = client(filter);
    trail.clear();
    for (at_step = 0; at_step < steps_per_seed && !HasFatalFailure(); ++at_step) step();
    if (HasFatalFailure()) ADD_FAILURE() << trail;
    if (!HasFatalFailure()) check_everything();
    c.close();
    kernel::fault_record_unsynced_end();
    log.clear();
  }

  std::minstd_rand rng;
  u32 chunk = 0, extent = 0;
  int next_files = 0;
  int at_step = 0;
  std::string trail;
  client c;
  bytes now;
  std::set<u32> changes;
  std::list<model_snap> snaps;
};

int number_of(const char* variable, int otherwise) {
  const char* text = std::getenv(variable);
  return text != nullptr ? std::atoi(text) : otherwise;
}

}  // namespace

TEST_P(model_test, every_snap_shows_its_instant_whatever_happens) {
  constexpr int parts = 10;
  const int seeds = number_of("ZORV_SOAK_SEEDS", 50);
  const int only = number_of("ZORV_SEED", -1);
  for (int seed = GetParam(); seed < seeds && only < 0; seed += parts) {
    run(static_cast<u32>(seed));
    if (HasFatalFailure()) return;
  }
  if (only >= 0 && only % parts == GetParam()) run(static_cast<u32>(only));
}
INSTANTIATE_TEST_SUITE_P(seeds, model_test, testing::Range(0, 10));

// Two writers stamp their halves of the disk with rising numbers while snaps come and go. What a
// snap shows of a sector was written neither before the last stamp that had ended when its start
// was asked for nor after the last one that had begun when it was done, and stays the same.
TEST_F(snap_test, snaps_hold_their_instant_beside_writers_that_never_pause) {
  constexpr u64 sectors = 128;  // of each writer
  std::atomic<bool> stop_writing{false};
  std::array<std::array<std::atomic<u32>, sectors>, 2> begun{}, ended{};
  disk.poke(0, bytes(2 * MiB));
  const auto write = [&](u64 who) {
    client c(filter);
    std::minstd_rand rng(static_cast<u32>(who) + 1);
    for (u32 stamp = 1; !stop_writing; ++stamp) {
      const u64 first = rng() % sectors, n = 1 + rng() % std::min<u64>(8, sectors - first);
      bytes data(n * 512);
      for (u64 i = 0; i < n; ++i) {
        std::memcpy(&data[i * 512], &stamp, sizeof(stamp));
        begun[who][first + i] = stamp;
      }
      EXPECT_EQ(finish(*c.start_write(who * MiB + first * 512, data)), 0);
      for (u64 i = 0; i < n; ++i) ended[who][first + i] = stamp;
    }
  };
  std::thread one(write, 0), two(write, 1);
  disk.serve(memory_disk::serving::by_worker);
  std::vector<u32> minors{add_snap({.chunk_size = 16 * KiB}), add_snap({.chunk_size = 16 * KiB})};
  for (int round = 0; round < 12; ++round) {
    const u32 snap = minors[static_cast<u64>(round) % 2];
    std::array<std::array<u32, sectors>, 2> low{}, high{};
    for (u64 w = 0; w < 2; ++w) {
      for (u64 s = 0; s < sectors; ++s) low[w][s] = ended[w][s];
    }
    ASSERT_EQ(start(snap), 0) << log.errors();
    for (u64 w = 0; w < 2; ++w) {
      for (u64 s = 0; s < sectors; ++s) high[w][s] = begun[w][s];
    }
    const bytes first = shown(snap, 0, 2 * MiB);
    for (u64 w = 0; w < 2; ++w) {
      for (u64 s = 0; s < sectors; ++s) {
        u32 stamp;
        std::memcpy(&stamp, &first[w * MiB + s * 512], sizeof(stamp));
        EXPECT_TRUE(stamp >= low[w][s] && stamp <= high[w][s])
            << low[w][s] << " " << stamp << " " << high[w][s];
      }
    }
    for (int again = 0; again < 3; ++again) {
      EXPECT_TRUE(shown(snap, 0, 2 * MiB) == first) << "round " << round;
    }
    // The other one, started a round before; a stop in the wrong order is postponed.
    if (round > 0) {
      EXPECT_EQ(stop(minors[static_cast<u64>(round + 1) % 2]), 0);
      EXPECT_TRUE(round % 2 == 1 || shown(snap, 0, 2 * MiB) == first);
    }
    for (const u32 m : minors) EXPECT_EQ(stop(m), 0);
  }
  stop_writing = true;
  one.join();
  two.join();
}
