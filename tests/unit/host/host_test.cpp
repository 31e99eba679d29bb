// The reference host kernel: pools, module registry, catalogue and logs,
// driven through the kernel table as the module drives them.
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
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

TEST(HostPools, BlocksZeroResizeAndCountThemselves) {
  Host host;
  QVPool* p = host.createPool("parent");
  QVPool* child = host.kernel()->createPool(host.kernel(), nullptr, p, "child");
  ASSERT_NE(child, nullptr);
  // Dirty memory first, so that the zeroed blocks very likely reuse it.
  std::vector<void*> dirty;
  for (int i = 0; i < 64; ++i) std::memset(dirty.emplace_back(alloc(p, 1000 + i)), 0xAB, 1000 + i);
  for (void* b : dirty) release(p, b);
  for (int i = 0; i < 64; ++i) {
    unsigned char* b = static_cast<unsigned char*>(dirty[i] = alloc(p, 1000 + i, POOL_ZERO));
    for (int j = 0; j < 1000 + i; ++j) ASSERT_EQ(b[j], 0) << "block " << i << " byte " << j;
  }
  for (void* b : dirty) release(p, b);
  // Size zero still gets a block of its own; a negative size gets none.
  void* z[2] = {alloc(p, 0), alloc(p, 0, POOL_ZERO)};
  EXPECT_TRUE(z[0] && z[1] && z[0] != z[1]);
  for (void* b : z) release(p, b);

  unsigned char* b = static_cast<unsigned char*>(alloc(p, 64));
  for (int i = 0; i < 64; ++i) b[i] = (unsigned char)(i * 3 + 1);
  b = static_cast<unsigned char*>(p->poolRealloc(p, b, 100000, POOL_ZERO));
  ASSERT_NE(b, nullptr);
  for (int i = 0; i < 64; ++i) ASSERT_EQ(b[i], (unsigned char)(i * 3 + 1));
  for (int i = 64; i < 100000; ++i) ASSERT_EQ(b[i], 0) << "grown byte " << i;
  b = static_cast<unsigned char*>(p->poolRealloc(p, b, 16, 0));
  for (int i = 0; i < 16; ++i) ASSERT_EQ(b[i], (unsigned char)(i * 3 + 1));
  EXPECT_NE(p->poolRealloc(p, nullptr, 32, 0), nullptr);  // a null block is a fresh one
  EXPECT_NE(alloc(child, 1000), nullptr);

  PoolStats own = host.poolStats(p, false), all = host.poolStats(p, true);
  EXPECT_EQ(own.liveBlocks, 2);
  EXPECT_EQ(own.liveBytes, 48);
  EXPECT_EQ(own.peakBytes, 100000);
  EXPECT_EQ(own.allocations, 128 + 2 + 2) << "a resize is no new allocation";
  EXPECT_EQ(all.liveBlocks, 3);
  EXPECT_EQ(all.liveBytes, 1048);
  EXPECT_EQ(all.allocations, 133);
  EXPECT_EQ(alloc(p, -1), nullptr);
  // Destroying the parent takes the child and every block left with it; the
  // destroyed child refuses service and says so, without touching memory.
  QVPool* other = host.createPool("other");
  void* kept = alloc(other, 40);
  p->poolDestroy(p);
  EXPECT_EQ(host.livePools(), 1);
  EXPECT_EQ(host.totalStats().liveBytes, 40);
  EXPECT_EQ(host.totalStats().releasedByDestroy, 3) << "forgotten blocks must show as such";
  testing::internal::CaptureStderr();
  EXPECT_EQ(alloc(child, 8), nullptr);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("destroyed"), std::string::npos);
  EXPECT_EQ(host.poolMisuse(), 1);
  release(other, kept);
  other->poolDestroy(other);
}

// Single refusals are the sweep's and are checked with it below; a failure
// that holds refuses pools and module loads as well, and a refused resize
// keeps its block, as does a foreign free.
TEST(HostPools, RefusalsAndForeignFreesKeepTheBlocks) {
  Host host;
  QVPool* p = host.createPool("fail");
  std::vector<void*> got;
  host.failAllocationsAfter(3);
  for (int i = 0; i < 5; ++i) got.push_back(alloc(p, 16));
  for (int i = 0; i < 5; ++i) EXPECT_EQ(got[i] == nullptr, i >= 3) << i;
  EXPECT_EQ(host.createPool("refused", p), nullptr);
  EXPECT_EQ(load(host, "chronis"), nullptr);
  host.clearFailures();
  char* b = static_cast<char*>(alloc(p, 8));
  std::strcpy(b, "abcdefg");
  host.failAllocation(0);
  EXPECT_EQ(p->poolRealloc(p, b, 4096, 0), nullptr);
  EXPECT_STREQ(b, "abcdefg");
  EXPECT_EQ(host.poolStats(p).liveBytes, 3 * 16 + 8);
  EXPECT_EQ(host.totalStats().refused, 5);
  EXPECT_EQ(host.poolMisuse(), 0);

  // Frees of foreign blocks are reported, not executed; a null one is harmless.
  QVPool* other = host.createPool("other");
  int onStack = 0;
  release(p, nullptr);
  EXPECT_EQ(host.poolMisuse(), 0);
  testing::internal::CaptureStderr();
  release(other, b);     // wrong pool
  release(p, &onStack);  // not a pool block at all
  EXPECT_NE(testing::internal::GetCapturedStderr().find("'other'"), std::string::npos);
  EXPECT_EQ(host.poolMisuse(), 2);
  EXPECT_STREQ(b, "abcdefg");
  release(p, b);
  testing::internal::CaptureStderr();
  release(p, b);  // double free
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(host.poolMisuse(), 3);
  p->poolDestroy(p);
  other->poolDestroy(other);
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
      if (!leak || b) release(p, a);
      release(p, b);
      return b ? 0 : oom;
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
    probe.arm();
    void* b = alloc(p, 8);
    probe.disarm();
    release(p, setUp);
    release(p, b);
    return setUp && b ? 0 : oom;
  });
  EXPECT_EQ(armed.refusedRuns, 1);
  p->poolDestroy(p);
}

// ---- modules -----------------------------------------------------------------------

TEST(HostModules, RegistryByWideName) {
  Host host;
  // bramlet is there from the start; its instances are the sibling's tests'.
  QVModule* bramlet = load(host, "bramlet");
  ASSERT_NE(bramlet, nullptr);
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

struct Captured {
  std::vector<std::pair<int, std::string>> lines;
  hxhost::LineSink sink() {
    return [this](int kind, const std::string& line) { lines.emplace_back(kind, line); };
  }
};

using Lines = std::vector<std::pair<int, std::string>>;

TEST(HostLogs, LinesKeepTheirKindLoseTheirControlsAndGoToTheNewestHost) {
  Host host;
  Captured cap;
  host.setSink(cap.sink());
  TextLogFn text = host.textLog();
  MessageLog* log = host.messageLog();
  text("%1zbad value %d", 3);
  text("%2znote %s", "here");
  text("%3zwarning %.2f", 0.5);
  text("%7hTRACE: %mPrimal infeasibility = %15.7g", 1.5);
  text("Error ipmSolve: unknown model type.\n");
  log->log(log, 101, (int64_t)(int32_t)0x827FD804, 3, 1.0, 2.0, 3.0, 4.0, 5.0);
  log->log(log, 4, (int64_t)(int32_t)0x827FD006);
  EXPECT_EQ(cap.lines, (Lines{{1, "bad value 3"}, {2, "note here"}, {3, "warning 0.50"},
                              {7, "Primal infeasibility =             1.5"},
                              {0, "Error ipmSolve: unknown model type."},
                              {101, "     3   1.0000e+00   2.0000e+00   3.0000e+00   4.0000e+00   5.0000e+00"},
                              {4, "Out of memory."}}));
  // The table's head and rule line up with its rows.
  const std::string head = hxhost::formatMessage(100, (int64_t)(int32_t)0x827FD802, nullptr, 0, nullptr, 0);
  EXPECT_EQ(head.size(), cap.lines[5].second.size());
  EXPECT_EQ(hxhost::formatMessage(100, (int64_t)(int32_t)0x827FD803, nullptr, 0, nullptr, 0).size(),
            head.size());
  EXPECT_NE(head.find("DualInf"), std::string::npos);
  cap.lines.clear();

  std::string longLine(2000, 'x');
  text("%s!", longLine.c_str());
  EXPECT_EQ(cap.lines.back().second, longLine + "!");

  host.silence(true);
  text("%1zdropped");
  host.messageLog()->log(host.messageLog(), 2, (int64_t)(int32_t)0x827FD001);
  EXPECT_EQ(cap.lines.size(), 1u);
  host.silence(false);
  // Text goes to the newest live host, messages to their own.
  Captured newer;
  {
    Host later;
    later.setSink(newer.sink());
    text("first");
    host.messageLog()->log(host.messageLog(), 2, (int64_t)(int32_t)0x827FD001);
  }
  text("back");
  EXPECT_EQ(newer.lines, (Lines{{0, "first"}}));
  ASSERT_EQ(cap.lines.size(), 3u);
  EXPECT_EQ(cap.lines[1].first, 2);
  EXPECT_EQ(cap.lines[2].second, "back");
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

}  // namespace
