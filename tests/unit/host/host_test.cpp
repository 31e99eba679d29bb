// The reference host kernel: pools, module registry, clock, catalogue and
// logs, driven through the kernel table as the module drives them.
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <time.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "host/host.h"
#include "support/oom.h"

namespace {

using hxhost::Host;
using hxhost::PoolStats;

std::vector<uint32_t> wide(const char* name) {
  std::vector<uint32_t> w;
  for (const char* c = name; *c; ++c) w.push_back((unsigned char)*c);
  w.push_back(0);
  return w;
}

QVModule* load(Host& host, const char* name) {
  std::vector<uint32_t> w = wide(name);
  return host.kernel()->loadModule(host.kernel(), w.data(), (int64_t)w.size() - 1, 0);
}

void* alloc(QVPool* p, int64_t size, uint32_t flags = 0) { return p->poolAlloc(p, size, flags); }
void release(QVPool* p, void* b) { p->poolFree(p, b); }

// ---- pools ------------------------------------------------------------------------

TEST(HostPools, ZeroFlagAndSizeZeroBlocks) {
  Host host;
  QVPool* p = host.createPool("zero");
  // Dirty memory first, so that the zeroed blocks very likely reuse it.
  std::vector<void*> dirty;
  for (int i = 0; i < 64; ++i) {
    void* b = alloc(p, 1000 + i);
    ASSERT_NE(b, nullptr);
    std::memset(b, 0xAB, 1000 + i);
    dirty.push_back(b);
  }
  for (void* b : dirty) release(p, b);
  for (int i = 0; i < 64; ++i) {
    unsigned char* b = static_cast<unsigned char*>(alloc(p, 1000 + i, POOL_ZERO));
    ASSERT_NE(b, nullptr);
    for (int j = 0; j < 1000 + i; ++j) ASSERT_EQ(b[j], 0) << "block " << i << " byte " << j;
  }
  // Size zero still gets a block of its own; a negative size gets none.
  void* a = alloc(p, 0);
  void* b = alloc(p, 0, POOL_ZERO);
  ASSERT_NE(a, nullptr);
  ASSERT_NE(b, nullptr);
  EXPECT_NE(a, b);
  EXPECT_EQ(host.poolStats(p).liveBlocks, 66);
  EXPECT_EQ(host.poolStats(p).liveBytes, 64 * 1000 + 63 * 64 / 2);
  EXPECT_EQ(alloc(p, -1), nullptr);
  release(p, a);
  release(p, b);
  EXPECT_EQ(host.poolStats(p).liveBlocks, 64);
  EXPECT_EQ(host.poolMisuse(), 0);
  p->poolDestroy(p);
  EXPECT_EQ(host.totalStats().liveBlocks, 0);
}

TEST(HostPools, ReallocKeepsContent) {
  Host host;
  QVPool* p = host.createPool("realloc");
  unsigned char* b = static_cast<unsigned char*>(alloc(p, 64));
  for (int i = 0; i < 64; ++i) b[i] = (unsigned char)(i * 3 + 1);

  b = static_cast<unsigned char*>(p->poolRealloc(p, b, 100000, POOL_ZERO));
  ASSERT_NE(b, nullptr);
  for (int i = 0; i < 64; ++i) ASSERT_EQ(b[i], (unsigned char)(i * 3 + 1));
  for (int i = 64; i < 100000; ++i) ASSERT_EQ(b[i], 0) << "grown byte " << i;
  EXPECT_EQ(host.poolStats(p).liveBytes, 100000);
  EXPECT_EQ(host.poolStats(p).liveBlocks, 1);

  b = static_cast<unsigned char*>(p->poolRealloc(p, b, 16, 0));
  ASSERT_NE(b, nullptr);
  for (int i = 0; i < 16; ++i) ASSERT_EQ(b[i], (unsigned char)(i * 3 + 1));
  EXPECT_EQ(host.poolStats(p).liveBytes, 16);
  EXPECT_EQ(host.poolStats(p).peakBytes, 100000);
  EXPECT_EQ(host.poolStats(p).allocations, 1) << "a resize is no new allocation";

  // A null block is a fresh allocation.
  void* fresh = p->poolRealloc(p, nullptr, 32, 0);
  ASSERT_NE(fresh, nullptr);
  EXPECT_EQ(host.poolStats(p).liveBlocks, 2);
  release(p, fresh);
  release(p, b);
  EXPECT_EQ(host.poolStats(p).liveBlocks, 0);
  EXPECT_EQ(host.poolMisuse(), 0);
  p->poolDestroy(p);
}

TEST(HostPools, StatsCountLiveBlocksPeakAndChildren) {
  Host host;
  QVPool* parent = host.createPool("parent");
  QVPool* child = host.kernel()->createPool(host.kernel(), nullptr, parent, "child");
  ASSERT_NE(child, nullptr);
  void* a = alloc(parent, 100);
  void* b = alloc(parent, 200);
  release(parent, a);
  void* c = alloc(parent, 50);
  void* d = alloc(child, 1000);

  PoolStats own = host.poolStats(parent, false);
  EXPECT_EQ(own.liveBlocks, 2);
  EXPECT_EQ(own.liveBytes, 250);
  EXPECT_EQ(own.peakBytes, 300);
  EXPECT_EQ(own.allocations, 3);

  PoolStats all = host.poolStats(parent, true);
  EXPECT_EQ(all.liveBlocks, 3);
  EXPECT_EQ(all.liveBytes, 1250);
  EXPECT_EQ(all.peakBytes, 1250);
  EXPECT_EQ(all.allocations, 4);

  release(child, d);
  EXPECT_EQ(host.poolStats(parent, true).liveBytes, 250);
  release(parent, b);
  release(parent, c);
  EXPECT_EQ(host.totalStats().liveBlocks, 0);
  EXPECT_EQ(host.totalStats().peakBytes, 1250);
  parent->poolDestroy(parent);
}

TEST(HostPools, ChildrenGoWithTheirParent) {
  Host host;
  QVPool* root = host.createPool("root");
  QVPool* child = host.createPool("child", root);
  QVPool* grandchild = host.createPool("grandchild", child);
  QVPool* other = host.createPool("other");
  ASSERT_NE(grandchild, nullptr);
  alloc(root, 10);
  alloc(child, 20);
  alloc(grandchild, 30);
  void* kept = alloc(other, 40);
  EXPECT_EQ(host.livePools(), 4);

  root->poolDestroy(root);
  EXPECT_EQ(host.livePools(), 1);
  PoolStats total = host.totalStats();
  EXPECT_EQ(total.liveBlocks, 1);
  EXPECT_EQ(total.liveBytes, 40);
  EXPECT_EQ(total.releasedByDestroy, 3) << "forgotten blocks must show as such";

  // A destroyed pool refuses service and says so, without touching memory.
  testing::internal::CaptureStderr();
  EXPECT_EQ(alloc(grandchild, 8), nullptr);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("destroyed"), std::string::npos);
  EXPECT_EQ(host.poolMisuse(), 1);

  release(other, kept);
  other->poolDestroy(other);
  EXPECT_EQ(host.livePools(), 0);
}

TEST(HostPools, FailureInjectionRefusesTheChosenAllocations) {
  Host host;
  QVPool* p = host.createPool("fail");
  std::vector<void*> got;

  host.failAllocation(2);  // third from now
  for (int i = 0; i < 5; ++i) got.push_back(alloc(p, 16));
  EXPECT_NE(got[0], nullptr);
  EXPECT_NE(got[1], nullptr);
  EXPECT_EQ(got[2], nullptr);
  EXPECT_NE(got[3], nullptr);
  EXPECT_NE(got[4], nullptr);
  EXPECT_EQ(host.poolStats(p).refused, 1);

  host.failAllocationsAfter(3);
  for (int i = 0; i < 6; ++i) got.push_back(alloc(p, 16));
  for (int i = 5; i < 8; ++i) EXPECT_NE(got[i], nullptr) << i;
  for (int i = 8; i < 11; ++i) EXPECT_EQ(got[i], nullptr) << i;
  // Pools and module loads are refused as well while the failure holds.
  EXPECT_EQ(host.createPool("refused", p), nullptr);
  EXPECT_EQ(load(host, "chronis"), nullptr);
  host.clearFailures();
  EXPECT_NE(got.emplace_back(alloc(p, 16)), nullptr);

  // A refused realloc leaves the old block and its content in place.
  char* b = static_cast<char*>(alloc(p, 8));
  std::strcpy(b, "abcdefg");
  host.failAllocation(0);
  EXPECT_EQ(p->poolRealloc(p, b, 4096, 0), nullptr);
  EXPECT_STREQ(b, "abcdefg");
  EXPECT_EQ(host.poolStats(p).liveBytes, 16 * 8 + 8);

  EXPECT_EQ(host.totalStats().refused, 7);
  p->poolDestroy(p);
  EXPECT_EQ(host.poolMisuse(), 0);
}

TEST(HostPools, ForeignFreesAreReportedNotExecuted) {
  Host host;
  QVPool* a = host.createPool("a");
  QVPool* b = host.createPool("b");
  int onStack = 0;
  char* fromA = static_cast<char*>(alloc(a, 32));
  std::strcpy(fromA, "still here");

  release(a, nullptr);  // harmless, and no misuse
  EXPECT_EQ(host.poolMisuse(), 0);

  testing::internal::CaptureStderr();
  release(b, fromA);     // wrong pool
  release(a, &onStack);  // not a pool block at all
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(host.poolMisuse(), 2);
  EXPECT_NE(err.find("'b'"), std::string::npos) << err;
  EXPECT_STREQ(fromA, "still here");
  EXPECT_EQ(host.poolStats(a).liveBlocks, 1);

  release(a, fromA);
  testing::internal::CaptureStderr();
  release(a, fromA);  // double free
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(host.poolMisuse(), 3);
  EXPECT_EQ(host.totalStats().liveBlocks, 0);
  a->poolDestroy(a);
  b->poolDestroy(b);
}

TEST(HostPools, ConcurrentUseKeepsCountsExact) {
  Host host;
  QVPool* p = host.createPool("shared");
  const int rounds = 20000;
  auto work = [&](int seed) {
    std::vector<void*> mine;
    for (int i = 0; i < rounds; ++i) {
      void* b = alloc(p, 8 + (i + seed) % 200, (i & 1) ? POOL_ZERO : 0);
      if (!b) continue;
      if (i % 3 == 0)
        mine.push_back(b);  // kept: one in three
      else if (i % 3 == 1)
        release(p, b);
      else
        release(p, p->poolRealloc(p, b, 300, 0));
    }
    return mine;
  };
  std::vector<void*> k1, k2;
  std::thread t1([&] { k1 = work(1); });
  std::thread t2([&] { k2 = work(2); });
  t1.join();
  t2.join();
  PoolStats s = host.poolStats(p);
  EXPECT_EQ(s.allocations, 2 * rounds);
  EXPECT_EQ(s.liveBlocks, (int64_t)(k1.size() + k2.size()));
  EXPECT_EQ(k1.size(), (size_t)(rounds + 2) / 3);
  for (void* b : k1) release(p, b);
  for (void* b : k2) release(p, b);
  EXPECT_EQ(host.poolStats(p).liveBlocks, 0);
  EXPECT_EQ(host.poolStats(p).liveBytes, 0);
  EXPECT_EQ(host.poolMisuse(), 0);
  p->poolDestroy(p);
}

// The sweep that the module's out-of-memory tests stand on must itself see a
// leak, a wrong status, and set-up done before it is armed.
TEST(HostPools, OutOfMemorySweepReportsWhatItMust) {
  Host host;
  QVPool* p = host.createPool("sweep");
  const int32_t oom = hxtest::OomSweep(host).expected;
  // Two allocations, the first leaked when the second is refused.
  auto pairRun = [&](bool leak, bool wrongStatus) {
    return [=](hxtest::OomProbe&) -> int32_t {
      void* a = alloc(p, 8);
      if (!a) return wrongStatus ? 0 : oom;
      void* b = alloc(p, 8);
      if (!b) {
        if (!leak) release(p, a);
        return oom;
      }
      release(p, a);
      release(p, b);
      return 0;
    };
  };
  const auto clean = hxtest::oomSweep(host, pairRun(false, false));
  EXPECT_TRUE(clean.completed);
  EXPECT_EQ(clean.refusedRuns, 2);
  EXPECT_EQ(clean.finalStatus, 0);
  EXPECT_NONFATAL_FAILURE(hxtest::oomSweep(host, pairRun(true, false)), "allocation 1 refused");
  EXPECT_NONFATAL_FAILURE(hxtest::oomSweep(host, pairRun(false, true)), "allocation 0 refused");

  hxtest::OomSweep deferred(host);
  deferred.armAtStart = false;
  const auto armed = deferred.run([&](hxtest::OomProbe& probe) -> int32_t {
    void* setUp = alloc(p, 8);  // never refused
    EXPECT_NE(setUp, nullptr);
    probe.arm();
    void* b = alloc(p, 8);
    probe.disarm();
    release(p, setUp);
    release(p, b);
    return b ? 0 : oom;
  });
  EXPECT_EQ(armed.refusedRuns, 1);
  p->poolDestroy(p);
}

// ---- modules -----------------------------------------------------------------------

TEST(HostModules, ChronisMeasuresProcessCpuTime) {
  Host host;
  ChronisModule* c = reinterpret_cast<ChronisModule*>(load(host, "chronis"));
  ASSERT_NE(c, nullptr);
  ChronisSample first{}, later{};
  ASSERT_EQ(c->sample(c, &first), 0);
  EXPECT_GT(first.wallSeconds, 1600000000);
  EXPECT_LT(first.wallMicroseconds, 1000000);
  EXPECT_LT(first.cpu.microseconds, 1000000);

  // Busy work until the CPU clock has moved; the cap only guards a hang.
  ChronisDiff diff{};
  volatile double sink = 0;
  for (int round = 0; round < 2000 && diff.seconds == 0 && diff.microseconds < 20000; ++round) {
    for (int i = 0; i < 200000; ++i) sink = sink + i * 1e-9;
    ASSERT_EQ(c->sample(c, &later), 0);
    diff = ChronisDiff{};
    ASSERT_EQ(c->cpuDiff(c, &later.cpu, &first.cpu, &diff), 0);
  }
  EXPECT_TRUE(diff.seconds > 0 || diff.microseconds >= 20000);
  EXPECT_LT(diff.microseconds, 1000000u);
  uint64_t us = (uint64_t)diff.seconds * 1000000 + diff.microseconds;
  EXPECT_EQ(us, (uint64_t)((later.cpu.seconds - first.cpu.seconds) * 1000000 +
                           (later.cpu.microseconds - first.cpu.microseconds)));

  // Reversed order is no valid difference.
  ChronisDiff back{};
  EXPECT_NE(c->cpuDiff(c, &first.cpu, &later.cpu, &back), 0);
  EXPECT_EQ(back.seconds, 0u);
  EXPECT_EQ(back.microseconds, 0u);

  c->close(c);
}

TEST(HostModules, RegistryByWideName) {
  Host host;
  // bramlet is there from the start, with instances of the solver's shape.
  QVModule* bramlet = load(host, "bramlet");
  ASSERT_NE(bramlet, nullptr);
  void** instance = static_cast<void**>(bramlet->moduleCreateInstance(bramlet));
  ASSERT_NE(instance, nullptr);
  EXPECT_EQ(instance[1], nullptr);  // call-backs are the solver's to set
  ASSERT_NE(instance[3], nullptr);
  reinterpret_cast<void (*)(void*)>(instance[3])(instance);
  bramlet->moduleUnload(bramlet);
  EXPECT_EQ(load(host, "chronisx"), nullptr);
  EXPECT_EQ(load(host, "chroni"), nullptr);
  uint32_t nonAscii[] = {'c', 'h', 0x3C1, 0};
  EXPECT_EQ(host.kernel()->loadModule(host.kernel(), nonAscii, 3, 0), nullptr);

  QVKernel* seen = nullptr;
  static QVModule fake{};
  host.registerModule("fennick", [&](QVKernel* k) {
    seen = k;
    return &fake;
  });
  EXPECT_EQ(load(host, "fennick"), &fake);
  EXPECT_EQ(seen, host.kernel());
  host.registerModule("fennick", nullptr);
  EXPECT_EQ(load(host, "fennick"), nullptr);
}

// ---- clock ------------------------------------------------------------------------------

TEST(HostClock, QueryClockGivesGmtAndZoneOffset) {
  Host host;
  QVQueryClockFn clock = host.kernel()->queryClock;
  ASSERT_NE(clock, nullptr);
  double out[2] = {-1, -1};
  time_t before = time(nullptr);
  ASSERT_EQ(clock(QV_CLOCK_SELECTOR, out, QV_CLOCK_CODE), 0);
  time_t after = time(nullptr);
  EXPECT_GE(out[0], (double)before);
  EXPECT_LT(out[0], (double)after + 1.0);
  tm local{};
  localtime_r(&after, &local);
  EXPECT_EQ(out[1], -(double)local.tm_gmtoff);

  double untouched[2] = {7, 8};
  EXPECT_NE(clock(0x11, untouched, QV_CLOCK_CODE), 0);
  EXPECT_NE(clock(QV_CLOCK_SELECTOR, untouched, 0x11800001), 0);
  EXPECT_EQ(untouched[0], 7);
  EXPECT_EQ(untouched[1], 8);
}

// ---- catalogue and logs ----------------------------------------------------------------

TEST(HostCatalogue, EveryCodeFormatsItsOwnValues) {
  std::vector<int64_t> codes = hxhost::catalogueCodes();
  EXPECT_EQ(codes.size(), 36u);
  const int64_t ints[] = {11, 22, 33, 44};
  const double reals[] = {1.5, 2.5, 3.5, 4.5, 5.5, 6.5};
  for (int64_t code : codes) {
    EXPECT_LT(code, 0) << "codes arrive sign-extended";
    const char* sig = hxhost::messageSignature(code);
    ASSERT_NE(sig, nullptr);
    int ni = 0, nr = 0;
    for (const char* s = sig; *s; ++s) (*s == 'i' ? ni : nr)++;
    ASSERT_EQ(ni + nr, (int)std::strlen(sig)) << std::hex << code;
    std::string line = hxhost::formatMessage(2, code, ints, ni, reals, nr);
    EXPECT_FALSE(line.empty()) << std::hex << code;
    EXPECT_EQ(line.find('?'), std::string::npos) << line;
    EXPECT_EQ(line.find('%'), std::string::npos) << line;
    for (int i = 0; i < ni; ++i)
      EXPECT_NE(line.find(std::to_string(ints[i])), std::string::npos) << line;
    // Fewer values than the text needs: marked, never read from elsewhere.
    if (ni + nr > 0) {
      std::string shortLine = hxhost::formatMessage(2, code, nullptr, 0, nullptr, 0);
      EXPECT_NE(shortLine.find('?'), std::string::npos) << shortLine;
    }
  }
  EXPECT_EQ(hxhost::messageSignature((int64_t)(int32_t)0x827FD804), std::string("iddddd"));
  EXPECT_EQ(hxhost::messageSignature(0x827FDFFF), nullptr);
  std::string unknown = hxhost::formatMessage(2, (int64_t)(int32_t)0x827FDABC, ints, 4, reals, 6);
  EXPECT_NE(unknown.find("0x827FDABC"), std::string::npos) << unknown;
}

TEST(HostCatalogue, IterationTableLinesUp) {
  const int64_t iter[] = {12};
  const double values[] = {1.23456e-3, -2.5, 3e10, 0.0, 7.125e-9};
  std::string head = hxhost::formatMessage(100, (int64_t)(int32_t)0x827FD802, nullptr, 0, nullptr, 0);
  std::string rule = hxhost::formatMessage(100, (int64_t)(int32_t)0x827FD803, nullptr, 0, nullptr, 0);
  std::string line = hxhost::formatMessage(101, (int64_t)(int32_t)0x827FD804, iter, 1, values, 5);
  EXPECT_EQ(line, "    12   1.2346e-03  -2.5000e+00   3.0000e+10   0.0000e+00   7.1250e-09");
  EXPECT_EQ(head.size(), line.size());
  EXPECT_EQ(rule.size(), line.size());
  EXPECT_NE(head.find("Iter"), std::string::npos);
  EXPECT_NE(head.find("DualInf"), std::string::npos);
}

struct Captured {
  std::vector<std::pair<int, std::string>> lines;
  hxhost::LineSink sink() {
    return [this](int kind, const std::string& line) { lines.emplace_back(kind, line); };
  }
};

TEST(HostLogs, MessageLogReadsValuesBySignature) {
  Host host;
  Captured cap;
  host.setSink(cap.sink());
  MessageLog* log = host.messageLog();
  ASSERT_NE(log, nullptr);
  log->log(log, 2, (int64_t)(int32_t)0x827FD86E, 5, 7);
  log->log(log, 101, (int64_t)(int32_t)0x827FD804, 3, 1.0, 2.0, 3.0, 4.0, 5.0);
  log->log(log, 2, (int64_t)(int32_t)0x827FD002, -12.25);
  log->log(log, 4, (int64_t)(int32_t)0x827FD006);
  log->log(log, 3, (int64_t)(int32_t)0x827FD123, 99);
  ASSERT_EQ(cap.lines.size(), 5u);
  EXPECT_EQ(cap.lines[0].first, 2);
  EXPECT_NE(cap.lines[0].second.find("5 columns and 7 rows"), std::string::npos);
  EXPECT_EQ(cap.lines[1].first, 101);
  EXPECT_EQ(cap.lines[1].second,
            "     3   1.0000e+00   2.0000e+00   3.0000e+00   4.0000e+00   5.0000e+00");
  EXPECT_NE(cap.lines[2].second.find("-12.25"), std::string::npos);
  EXPECT_EQ(cap.lines[3].first, 4);
  EXPECT_EQ(cap.lines[4].first, 3);
  EXPECT_NE(cap.lines[4].second.find("0x827FD123"), std::string::npos);
}

TEST(HostLogs, TextLogStripsControlsAndRoutesKinds) {
  Host host;
  Captured cap;
  host.setSink(cap.sink());
  TextLogFn text = host.textLog();
  ASSERT_NE(text, nullptr);
  text("%1zbad value %d", 3);
  text("%2znote %s", "here");
  text("%3zwarning %.2f", 0.5);
  text("%7hTRACE: %mPrimal infeasibility = %15.7g", 1.5);
  text("Error ipmSolve: unknown model type.\n");
  ASSERT_EQ(cap.lines.size(), 5u);
  EXPECT_EQ(cap.lines[0], std::make_pair(1, std::string("bad value 3")));
  EXPECT_EQ(cap.lines[1], std::make_pair(2, std::string("note here")));
  EXPECT_EQ(cap.lines[2], std::make_pair(3, std::string("warning 0.50")));
  EXPECT_EQ(cap.lines[3], std::make_pair(7, std::string("Primal infeasibility =             1.5")));
  EXPECT_EQ(cap.lines[4], std::make_pair(0, std::string("Error ipmSolve: unknown model type.")));

  std::string longLine(2000, 'x');
  text("%s!", longLine.c_str());
  EXPECT_EQ(cap.lines.back().second, longLine + "!");

  host.silence(true);
  text("%1zdropped");
  host.messageLog()->log(host.messageLog(), 2, (int64_t)(int32_t)0x827FD001);
  EXPECT_EQ(cap.lines.size(), 6u);
  host.silence(false);
  text("back");
  EXPECT_EQ(cap.lines.back().second, "back");
}

TEST(HostLogs, TextGoesToTheNewestLiveHost) {
  Host older;
  Captured a, b;
  older.setSink(a.sink());
  TextLogFn text = older.textLog();
  {
    Host newer;
    newer.setSink(b.sink());
    text("first");
    // Messages carry their own host.
    older.messageLog()->log(older.messageLog(), 2, (int64_t)(int32_t)0x827FD001);
  }
  text("second");
  ASSERT_EQ(b.lines.size(), 1u);
  EXPECT_EQ(b.lines[0].second, "first");
  ASSERT_EQ(a.lines.size(), 2u);
  EXPECT_EQ(a.lines[0].first, 2);
  EXPECT_EQ(a.lines[1].second, "second");
}

TEST(HostLogs, DefaultSinkSplitsStreams) {
  Host host;
  TextLogFn text = host.textLog();
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  text("%3zcareful");
  text("plain");
  text("%7hTRACE: %mstep");
  host.messageLog()->log(host.messageLog(), 4, (int64_t)(int32_t)0x827FD006);
  std::string out = testing::internal::GetCapturedStdout();
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(out, "plain\nTRACE: step\n");
  EXPECT_EQ(err, "careful\nOut of memory.\n");
}

// ---- loading halvex --------------------------------------------------------------------

TEST(HostHalvex, MissingLibraryIsReported) {
  hxhost::HalvexEntries entries;
  std::string error;
  EXPECT_FALSE(hxhost::openHalvexLibrary("/nonexistent/libhalvex.so", &entries, &error));
  EXPECT_NE(error.find("/nonexistent/libhalvex.so"), std::string::npos);
  EXPECT_EQ(entries.halvex, nullptr);
  EXPECT_EQ(entries.library, nullptr);
}

// The module's own ABI is tested elsewhere; here only that the host wires it
// up and gets all of its memory back.
TEST(HostHalvex, ModuleLifecycleReturnsAllMemory) {
  hxhost::HalvexEntries entries;
  std::string error;
  if (!hxhost::openHalvexLibrary(nullptr, &entries, &error))
    FAIL() << "no shared module to load: " << error;
  {
    Host host;
    host.silence(true);
    {
      hxhost::HalvexModule module(host, entries);
      ASSERT_TRUE(module.ok());
      EXPECT_NE(module.extension()->moduleUnload, nullptr);
      EXPECT_STREQ(module.version().moduleName, "halvex");
      HalvexInstance* inst = module.createInstance();
      ASSERT_NE(inst, nullptr);
      EXPECT_EQ(inst->env.textLog, host.textLog());
      EXPECT_EQ(inst->env.messageLog, host.messageLog());
      EXPECT_GT(host.livePools(), 1);
      module.destroyInstance(inst);
    }
    EXPECT_EQ(host.livePools(), 0);
    EXPECT_EQ(host.totalStats().liveBlocks, 0);
    EXPECT_EQ(host.poolMisuse(), 0);
  }
  hxhost::closeHalvexLibrary(&entries);
}

}  // namespace
