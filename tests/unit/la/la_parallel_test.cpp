// The threaded LDL': its answers against the sequential path, its counts,
// its failures, and a stress run under a watchdog.
#include <gtest/gtest.h>
#include <dirent.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "cli/mps.h"
#include "frame/entry.h"
#include "host/host.h"
#include "la/la.h"
#include "la/la_internal.h"
#include "la/la_numeric.h"
#include "la/la_parallel.h"
#include "support/dense_ref.h"

namespace {

using Vec = std::vector<double>;
using Triplets = std::vector<std::tuple<int32_t, int32_t, double>>;

struct Sparse {
  std::string name;
  int32_t n = 0;
  std::vector<int32_t> colBegin, rowIndex;
  Vec value;
  int32_t positive = -1;  // inertia when known
};

Sparse fromLower(const std::string& name, int32_t n, const Triplets& t, int32_t positive) {
  std::vector<std::vector<std::pair<int32_t, double>>> cols(n);
  for (auto& [i, j, v] : t) {
    cols[j].push_back({i, v});
    if (i != j) cols[i].push_back({j, v});
  }
  Sparse s;
  s.name = name;
  s.n = n;
  s.positive = positive;
  s.colBegin.push_back(0);
  for (auto& c : cols) {
    for (auto& e : c) {
      s.rowIndex.push_back(e.first);
      s.value.push_back(e.second);
    }
    s.colBegin.push_back((int32_t)s.rowIndex.size());
  }
  return s;
}

// [H A'; A -D] with H and D positive diagonals: n1 positive pivots and n2
// negative ones whatever the blocking.
Sparse randomKKT(int32_t n1, int32_t n2, uint32_t seed, int32_t perRow) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> u(0.1, 2.0), s(-1.0, 1.0);
  Triplets t;
  for (int32_t j = 0; j < n1; j++) t.push_back({j, j, u(rng)});
  for (int32_t i = 0; i < n2; i++) {
    t.push_back({n1 + i, i % n1, s(rng)});
    for (int32_t k = 0; k < perRow; k++) {
      int32_t j = (int32_t)(rng() % n1);
      if (j != i % n1) t.push_back({n1 + i, j, s(rng)});
    }
    t.push_back({n1 + i, n1 + i, -1e-4 * u(rng)});
  }
  return fromLower("kkt " + std::to_string(n1) + "x" + std::to_string(n2), n1 + n2, t, n1);
}

Sparse grid3(int32_t k) {
  Triplets t;
  auto id = [k](int32_t x, int32_t y, int32_t z) { return (z * k + y) * k + x; };
  for (int32_t z = 0; z < k; z++)
    for (int32_t y = 0; y < k; y++)
      for (int32_t x = 0; x < k; x++) {
        int32_t v = id(x, y, z);
        t.push_back({v, v, 6.1});
        if (x + 1 < k) t.push_back({id(x + 1, y, z), v, -1.0});
        if (y + 1 < k) t.push_back({id(x, y + 1, z), v, -1.0});
        if (z + 1 < k) t.push_back({id(x, y, z + 1), v, -1.0});
      }
  return fromLower("grid " + std::to_string(k) + "^3", k * k * k, t, k * k * k);
}

// The augmented matrix of a shared problem as an interior-point iteration
// sees it early on: [-(Q + X^-1 Z) A'; A  delta], quasi-definite, with
// X^-1 Z over four decades so that answers can be compared.
bool augmentedOf(const std::string& set, const std::string& file, Sparse* out) {
  hxcli::MpsProblem p;
  hxcli::MpsError err;
  std::string path = std::string(HALVEX_DATA_DIR) + "/" + set + "/" + file;
  if (!hxcli::readMpsFile(path, hxcli::MpsFormat::Auto, &p, &err)) return false;
  int32_t nc = p.numCol(), nr = p.numRow();
  std::mt19937 rng(7);
  std::uniform_real_distribution<double> scale(-2.0, 2.0);
  Triplets t;
  for (int32_t j = 0; j < nc; j++) {
    double q = p.quadDiag.empty() ? 0.0 : p.quadDiag[j];
    t.push_back({j, j, -(q + std::pow(10.0, scale(rng)))});
    if (!p.quadColBegin.empty())
      for (int32_t k = p.quadColBegin[j]; k < p.quadColBegin[j + 1]; k++)
        t.push_back({p.quadRowIndex[k], j, -p.quadValue[k]});
    for (int32_t k = p.colBegin[j]; k < p.colBegin[j + 1]; k++)
      t.push_back({nc + p.rowIndex[k], j, p.value[k]});
  }
  for (int32_t i = 0; i < nr; i++) t.push_back({nc + i, nc + i, 1e-6});
  *out = fromLower(file, nc + nr, t, nr);
  return true;
}

int32_t liveThreads() {
  int32_t count = 0;
  DIR* d = opendir("/proc/self/task");
  if (!d) return -1;
  while (dirent* e = readdir(d))
    if (e->d_name[0] != '.') count++;
  closedir(d);
  return count;
}

// Fails the run instead of letting a deadlock hang it.
class Watchdog {
 public:
  explicit Watchdog(int seconds) : thread_([this, seconds] {
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!stop_.load()) {
      if (std::chrono::steady_clock::now() > end) {
        std::fprintf(stderr, "watchdog: no end after %d s, taken as a deadlock\n", seconds);
        std::abort();
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }) {}
  ~Watchdog() {
    stop_.store(true);
    thread_.join();
  }

 private:
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

// The kernel's createThread, counted, and refused on demand.
std::atomic<int32_t> threadsMade{0};
std::atomic<bool> refuseThreads{false};
QVCreateThreadFn kernelCreateThread = nullptr;
void* countingCreateThread(QVKernel* k, QVThreadAttr* attr, int64_t zero, const char* name) {
  if (refuseThreads.load()) return nullptr;
  threadsMade++;
  return kernelCreateThread(k, attr, zero, name);
}

class LAParallel : public ::testing::Test {
 protected:
  void SetUp() override {
    qvextent(host.kernel());
    kernelCreateThread = host.kernel()->createThread;
    host.kernel()->createThread = countingCreateThread;
    threadsMade = 0;
    refuseThreads = false;
    pool = host.createPool("la-parallel");
    int32_t status = -1;
    env = LA_CreateLAEnv(pool, nullptr, &status);
    ASSERT_EQ(0, status);
    ASSERT_EQ(0, LA_SetIntParam(env, LA_PARAM_COLLECT_INERTIA, 1));
  }
  void TearDown() override {
    cleanUp();
    LA_FreeLAEnv(&env);
    EXPECT_EQ(0, host.poolStats(pool).liveBlocks);
  }
  void cleanUp() {
    if (sym || num) LA_CleanUpLDL(env, &sym, &num);
    sym = nullptr;
    num = nullptr;
  }
  // threads 0: the sequential plan.
  int32_t analyze(const Sparse& s, int32_t threads, int32_t nb) {
    cleanUp();
    EXPECT_EQ(0, LA_SetIntParam(env, LA_PARAM_NUM_THREADS, threads > 0 ? threads : 1));
    return laAnalyzeWithPlan(s.n, s.colBegin.data(), s.rowIndex.data(), s.value.data(), env, &sym,
                             &num, threads, nb);
  }
  int32_t factor(const Sparse& s) {
    return LA_FactorMatrixLDL(0, s.n, s.colBegin.data(), s.rowIndex.data(), s.value.data(), env,
                              sym, num);
  }
  Vec solve(const Sparse& s, const Vec& b, int32_t refine) {
    EXPECT_EQ(0, LA_SetIntParam(env, LA_PARAM_MAX_REFINE, refine));
    Vec x = b;
    int32_t status = LA_SolveMatrixLDL(0, s.colBegin.data(), s.rowIndex.data(), s.value.data(),
                                       x.data(), env, sym, num);
    EXPECT_TRUE(status == 0 || status == 6 || status == 7) << status;
    return x;
  }
  double residual(const Sparse& s, const Vec& x, const Vec& b) {
    Vec r(s.n);
    return LA_CalculateInfNormResidual(s.n, s.colBegin.data(), s.rowIndex.data(), s.value.data(),
                                       x.data(), b.data(), r.data());
  }
  Vec rhs(const Sparse& s, uint32_t seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    Vec x(s.n);
    for (double& v : x) v = u(rng);
    return hxtest::multiply(
        hxtest::denseFromCsc(s.n, s.n, s.colBegin.data(), s.rowIndex.data(), s.value.data()), x);
  }
  // What the plan holds: wide supernodes, the last column block with extra
  // rows, a width that is a multiple of the block edge with rows below.
  struct PlanShape { int32_t wide = 0, extra = 0, multiple = 0, narrowBlocks = 0; };
  PlanShape shape() const {
    PlanShape p;
    int32_t nb = sym->blockSize;
    for (int32_t s = 0; s < sym->numSNodes; s++) {
      LABlockShape b = laBlockShape(sym, s);
      int32_t c = laSNodeCols(sym, s), r = laSNodeRows(sym, s);
      if (!b.wide) {
        p.narrowBlocks += b.nrb > 1;
        continue;
      }
      p.wide++;
      p.extra += c % nb != 0 && r > c;
      p.multiple += c % nb == 0 && r > c;
    }
    return p;
  }

  hxhost::Host host;
  QVPool* pool = nullptr;
  LAEnv* env = nullptr;
  LASymbolic* sym = nullptr;
  LANumeric* num = nullptr;
};

std::vector<Sparse> testMatrices() {
  std::vector<Sparse> m = {randomKKT(300, 140, 3, 12), randomKKT(120, 200, 4, 30), grid3(9)};
  Sparse real;
  if (augmentedOf("maros", "CVXQP1_S.qps.gz", &real)) m.push_back(real);
  if (augmentedOf("netlib", "share2b.mps.gz", &real)) m.push_back(real);
  return m;
}

TEST_F(LAParallel, AnswersAndInertiaAgreeWithTheSequentialPath) {
  int32_t realProblems = 0, withExtra = 0, withMultiple = 0, withNarrowBlocks = 0;
  for (const Sparse& s : testMatrices()) {
    SCOPED_TRACE(s.name);
    realProblems += s.name.find(".gz") != std::string::npos;
    Vec b = rhs(s, 11);
    ASSERT_EQ(0, analyze(s, 0, 0));
    ASSERT_EQ(0, sym->threaded);
    ASSERT_EQ(0, factor(s));
    // The factor alone answers to this backward error; refined, to rounding.
    double plain = residual(s, solve(s, b, 0), b);
    Vec xs = solve(s, b, 8);
    ASSERT_LT(residual(s, xs, b), 1e-13);
    double xsNorm = 0.0;
    for (double v : xs) xsNorm = std::max(xsNorm, std::fabs(v));
    for (int32_t nb : {8, 24, 64}) {
      for (int32_t threads : {1, 2, 4, 8}) {
        SCOPED_TRACE("nb " + std::to_string(nb) + " threads " + std::to_string(threads));
        ASSERT_EQ(0, analyze(s, threads, nb));
        ASSERT_EQ(1, sym->threaded);
        PlanShape p = shape();
        if (nb == 8) {
          EXPECT_GT(p.wide, 0);
        }
        withExtra += p.extra > 0;
        withMultiple += p.multiple > 0;
        withNarrowBlocks += p.narrowBlocks > 0;
        ASSERT_EQ(0, factor(s));
        EXPECT_EQ(s.positive, env->numPositivePivots);
        EXPECT_EQ(s.n - s.positive, env->numNegativePivots);
        EXPECT_EQ(0, sym->numPerturbed);
        // The blocked factor is as good as the sequential one ...
        EXPECT_LT(residual(s, solve(s, b, 0), b), std::max(1e-10, 100.0 * plain));
        // ... and refined, it gives the same answer.
        Vec xt = solve(s, b, 8);
        EXPECT_LT(residual(s, xt, b), 1e-13);
        double diff = 0.0;
        for (int32_t i = 0; i < s.n; i++) diff = std::max(diff, std::fabs(xt[i] - xs[i]));
        EXPECT_LT(diff, 1e-7 * std::max(1.0, xsNorm));
      }
    }
  }
  // The shapes that the block walk treats apart were all met.
  EXPECT_GT(withExtra, 0);
  EXPECT_GT(withMultiple, 0);
  EXPECT_GT(withNarrowBlocks, 0);
  if (realProblems == 0) GTEST_LOG_(WARNING) << "shared problems not found in " << HALVEX_DATA_DIR;
}

TEST_F(LAParallel, ThreadsComeFromTheKernelAndOneThreadRepeatsItself) {
  Sparse s = randomKKT(200, 150, 5, 20);
  Vec b = rhs(s, 2);
  // One thread: the caller alone, and the same bits every time.
  ASSERT_EQ(0, analyze(s, 1, 16));
  ASSERT_GT(shape().wide, 0);
  ASSERT_EQ(0, factor(s));
  EXPECT_EQ(0, threadsMade.load());
  Vec first(sym->factor, sym->factor + sym->numFactorEntries);
  ASSERT_EQ(0, factor(s));
  EXPECT_EQ(0, std::memcmp(first.data(), sym->factor, first.size() * sizeof(double)));
  // Four: three helpers to populate and three to factor, all gone after.
  int32_t before = liveThreads();
  ASSERT_EQ(0, analyze(s, 4, 16));
  ASSERT_EQ(0, factor(s));
  EXPECT_EQ(6, threadsMade.load());
  EXPECT_EQ(before, liveThreads());
  // A kernel that refuses threads leaves the caller to do all of it.
  refuseThreads = true;
  ASSERT_EQ(0, factor(s));
  EXPECT_LT(residual(s, solve(s, b, 0), b), 1e-10);
}

TEST_F(LAParallel, ReplacedPivotsAddUpAcrossFactorisations) {
  // Zero columns with a diagonal entry: one replaced pivot each, on both
  // paths and whatever the blocking.
  Sparse k = randomKKT(150, 60, 6, 15);
  Triplets t;
  for (int32_t j = 0; j < k.n; j++)
    for (int32_t p = k.colBegin[j]; p < k.colBegin[j + 1]; p++)
      if (k.rowIndex[p] >= j) t.push_back({k.rowIndex[p], j, k.value[p]});
  const int32_t zeros = 5;
  for (int32_t z = 0; z < zeros; z++) t.push_back({k.n + z, k.n + z, 0.0});
  Sparse s = fromLower("with zero columns", k.n + zeros, t, 150 + zeros);
  for (int32_t threads : {0, 3}) {
    SCOPED_TRACE(threads);
    ASSERT_EQ(0, analyze(s, threads, 16));
    for (int32_t round = 1; round <= 3; round++) {
      ASSERT_EQ(0, factor(s));
      // The sequential path assigns its count; the threaded path adds.
      EXPECT_EQ(threads ? round * zeros : zeros, sym->numPerturbed);
      // Replaced by +tol, so counted positive.
      EXPECT_EQ(s.positive, env->numPositivePivots);
    }
  }
}

TEST_F(LAParallel, QueueGrowthAndEveryRefusedAllocationLeaveNothingBehind) {
  Sparse s = randomKKT(250, 120, 8, 18);
  Vec b = rhs(s, 3);
  ASSERT_EQ(0, analyze(s, 3, 8));
  // One record and no slot to start with: the run must grow both.
  sym->taskCapacity = 1;
  ASSERT_GT(sym->numSlots, 0);
  sym->numSlots = 0;
  ASSERT_EQ(0, factor(s));
  EXPECT_LT(residual(s, solve(s, b, 0), b), 1e-10);
  int64_t blocks = host.poolStats(pool).liveBlocks;
  int32_t threads = liveThreads();
  int32_t refused = 0;
  for (int64_t k = 0; k < 64; k++) {
    host.failAllocation(k);
    int32_t status = factor(s);
    bool hit = host.poolStats(pool).refused > refused;
    host.clearFailures();
    EXPECT_EQ(blocks, host.poolStats(pool).liveBlocks) << "allocation " << k;
    EXPECT_EQ(threads, liveThreads()) << "allocation " << k;
    if (!hit) {
      EXPECT_EQ(0, status);
      break;
    }
    refused++;
    EXPECT_EQ(1, status) << "allocation " << k;
  }
  // The two fixed blocks and growths of both kinds were refused in turn.
  EXPECT_GE(refused, 4);
  // Nothing of a failed run spoils the next one.
  ASSERT_EQ(0, factor(s));
  EXPECT_LT(residual(s, solve(s, b, 0), b), 1e-10);
}

TEST_F(LAParallel, ABadCountEndsTheRunWithoutAHang) {
  Watchdog dog(120);
  Sparse s = randomKKT(250, 120, 9, 18);
  int32_t threads = liveThreads();
  for (int32_t t : {1, 4}) {
    SCOPED_TRACE(t);
    ASSERT_EQ(0, analyze(s, t, 8));
    // A count that the walk never reaches: found out, not waited for.
    int32_t e = sym->numBlocks - 1;
    sym->blockDepsInit[0][e] += 1;
    EXPECT_EQ(2, factor(s));
    sym->blockDepsInit[0][e] -= 1;
    EXPECT_EQ(0, factor(s));
    EXPECT_EQ(threads, liveThreads());
  }
}

}  // namespace
