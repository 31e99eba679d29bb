// fennick: every basis it reports is checked from scratch with a dense
// factorisation of its own (the vertex it defines, primal and dual
// feasibility, complementarity), on random LPs from a cold start and from
// points that are not feasible, on degenerate, infeasible and unbounded LPs,
// through its instance table with the limits of the parameter blocks, and
// through the whole LP entry, where bramlet maps the basis back.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "cli/lprecord.h"
#include "frame/entry.h"
#include "host/host.h"
#include "records/lpdriver.h"
#include "siblings/fennick/factor.h"
#include "siblings/fennick/fennick.h"
#include "support/dense_ref.h"
#include "support/lp_builder.h"

namespace {

const double kInf = hxtest::kLpInf;
using hxtest::TestLP;

fennick::LpView viewOf(const TestLP& lp) {
  fennick::LpView v;
  v.numRow = lp.m;
  v.numCol = lp.n;
  v.objSense = lp.sense;
  v.colBegin = lp.colBegin.data();
  v.rowIndex = lp.rowIndex.data();
  v.matValue = lp.val.data();
  v.obj = lp.obj.data();
  v.lower = lp.lower.data();
  v.upper = lp.upper.data();
  v.rhs = lp.rhs.data();
  v.range = lp.range.data();
  v.rowSense = lp.rowSense.data();
  return v;
}

// M v = b by the shared dense reference, M row-major k x k, v into b.
bool denseSolve(const std::vector<double>& M, int k, std::vector<double>& b) {
  hxtest::Dense a(k, hxtest::Vec(k));
  for (int r = 0; r < k; r++)
    for (int c = 0; c < k; c++) a[r][c] = M[r * k + c];
  return hxtest::luSolve(a, b, &b);
}

// The basis, the point and the duals as a caller gets them (x, y, z in the
// LP's own sense) must agree with what the basis alone defines, and must
// prove optimality.
void expectOptimalBasis(const TestLP& lp, const std::vector<double>& x,
                        const std::vector<double>& y, const std::vector<double>& z,
                        const uint8_t* basis, double tol = 1e-7) {
  const int m = lp.m, n = lp.n, N = n + m;
  const double s = lp.sense < 0 ? -1.0 : 1.0;
  auto column = [&](int j, std::vector<double>& col) {
    std::fill(col.begin(), col.end(), 0.0);
    if (j >= n) {
      col[j - n] = -1.0;
      return;
    }
    for (int p = lp.colBegin[j]; p < lp.colBegin[j + 1]; p++) col[lp.rowIndex[p]] += lp.val[p];
  };
  std::vector<double> lo(N), hi(N), val(N), act(m, 0.0);
  for (int j = 0; j < n; j++) {
    lo[j] = lp.lower[j];
    hi[j] = lp.upper[j];
    val[j] = x[j];
    for (int p = lp.colBegin[j]; p < lp.colBegin[j + 1]; p++)
      act[lp.rowIndex[p]] += lp.val[p] * x[j];
  }
  for (int i = 0; i < m; i++) {
    lp.rowBounds(i, &lo[n + i], &hi[n + i]);
    val[n + i] = act[i];
  }
  std::vector<int> basic;
  for (int j = 0; j < N; j++) {
    const double scale = 1.0 + std::fabs(val[j]);
    switch (basis[j]) {
      case BASIS_BASIC: basic.push_back(j); break;
      case BASIS_AT_LOWER: EXPECT_NEAR(val[j], lo[j], tol * scale) << "var " << j; break;
      case BASIS_AT_UPPER: EXPECT_NEAR(val[j], hi[j], tol * scale) << "var " << j; break;
      case BASIS_FIXED:
        EXPECT_EQ(lo[j], hi[j]) << "var " << j;
        EXPECT_NEAR(val[j], lo[j], tol * scale) << "var " << j;
        break;
      case BASIS_FREE_ZERO:
        EXPECT_TRUE(lo[j] <= -kInf && hi[j] >= kInf) << "var " << j;
        EXPECT_NEAR(val[j], 0.0, tol) << "var " << j;
        break;
      default: ADD_FAILURE() << "var " << j << " has no basis status"; return;
    }
    EXPECT_GE(val[j], lo[j] - tol * scale) << "var " << j;
    EXPECT_LE(val[j], hi[j] + tol * scale) << "var " << j;
  }
  ASSERT_EQ((int)basic.size(), m);

  // The basic values from B xB = -N xN.
  std::vector<double> B(m * m), col(m), rhs(m, 0.0);
  for (int k = 0; k < m; k++) {
    column(basic[k], col);
    for (int i = 0; i < m; i++) B[i * m + k] = col[i];
  }
  for (int j = 0; j < N; j++) {
    if (basis[j] == BASIS_BASIC) continue;
    column(j, col);
    for (int i = 0; i < m; i++) rhs[i] -= col[i] * val[j];
  }
  ASSERT_TRUE(denseSolve(B, m, rhs)) << "the basis is singular";
  for (int k = 0; k < m; k++)
    EXPECT_NEAR(rhs[k], val[basic[k]], tol * (1.0 + std::fabs(rhs[k]))) << "basic " << basic[k];

  // The duals from B' y = c_B, in the minimising sense.
  std::vector<double> Bt(m * m), cB(m);
  for (int i = 0; i < m; i++)
    for (int k = 0; k < m; k++) Bt[k * m + i] = B[i * m + k];
  for (int k = 0; k < m; k++) cB[k] = basic[k] < n ? s * lp.obj[basic[k]] : 0.0;
  ASSERT_TRUE(denseSolve(Bt, m, cB));
  for (int i = 0; i < m; i++) EXPECT_NEAR(s * y[i], cB[i], tol * (1.0 + std::fabs(cB[i])));
  for (int j = 0; j < N; j++) {
    column(j, col);
    double d = j < n ? s * lp.obj[j] : 0.0;
    for (int i = 0; i < m; i++) d -= col[i] * cB[i];
    if (j < n) {
      EXPECT_NEAR(s * z[j], d, tol * (1.0 + std::fabs(d))) << "reduced cost " << j;
    }
    const double dtol = 1e-6;
    switch (basis[j]) {
      case BASIS_BASIC: EXPECT_NEAR(d, 0.0, dtol) << "var " << j; break;
      case BASIS_AT_LOWER: EXPECT_GE(d, -dtol) << "var " << j; break;
      case BASIS_AT_UPPER: EXPECT_LE(d, dtol) << "var " << j; break;
      case BASIS_FREE_ZERO: EXPECT_NEAR(d, 0.0, dtol) << "var " << j; break;
      default: break;  // fixed: any sign
    }
  }
}

void expectOptimalBasis(const TestLP& lp, const fennick::Result& r) {
  ASSERT_EQ(r.status, IPM_STATUS_OPTIMAL);
  auto plain = [](const fennick::Vec<double>& v) { return std::vector<double>(v.begin(), v.end()); };
  expectOptimalBasis(lp, plain(r.x), plain(r.y), plain(r.z), r.basis.data());
}

// A feasible LP with boxed columns, so bounded, and every row sense; a
// share of the rows pass through a common point, which makes it degenerate.
TestLP randomLP(std::mt19937& rng, int m, int n) {
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  TestLP lp;
  std::vector<double> xs(n);
  std::vector<std::vector<std::pair<int, double>>> cols(n);
  for (int j = 0; j < n; j++) xs[j] = 2.0 * u(rng);
  std::vector<double> act(m, 0.0);
  for (int i = 0; i < m; i++)
    for (int j = 0; j < n; j++)
      if (rng() % 3 == 0 || j == i % n) {
        const double a = std::round(u(rng) * 8.0) / 2.0;
        if (a == 0.0) continue;
        cols[j].push_back({i, a});
        act[i] += a * xs[j];
      }
  const char senses[] = {'E', 'G', 'L', 'R'};
  for (int i = 0; i < m; i++) {
    const char s = senses[rng() % 4];
    const double slack = (rng() % 2) ? 0.0 : 1.0 + std::fabs(u(rng));
    switch (s) {
      case 'E': lp.addRow('E', act[i]); break;
      case 'G': lp.addRow('G', act[i] - slack); break;
      case 'L': lp.addRow('L', act[i] + slack); break;
      default: lp.addRow('R', act[i] - slack, 2.0 * slack + 1.0); break;
    }
  }
  for (int j = 0; j < n; j++)
    lp.addCol(std::round(u(rng) * 10.0), xs[j] - 3.0 - std::fabs(u(rng)),
              xs[j] + 3.0 + std::fabs(u(rng)), cols[j]);
  return lp;
}

// The btran through many updates against the updated matrix, from unit rows
// (the etas walked by rows) and from dense ones.
TEST(FennickFactor, BtranAfterUpdatesSolvesTheUpdatedMatrix) {
  const int32_t m = 40;
  std::mt19937 rng(7);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  hxtest::Dense bt(m, hxtest::Vec(m, 0.0));  // B' by rows, B = 4 I at first
  fennick::Vec<int32_t> start(1, 0), index, dep1, dep2;
  for (int32_t j = 0; j < m; j++) index.push_back(j), start.push_back(j + 1), bt[j][j] = 4.0;
  fennick::BasisFactor f;
  ASSERT_EQ(f.factor(m, start, index, fennick::Vec<double>(m, 4.0), &dep1, &dep2), 0);
  for (int32_t k = 0, r = 0; k < 4 * m; k++, r = (int32_t)(rng() % m)) {
    hxtest::Vec a(m), y(m), alpha, x;
    for (int32_t i = 0; i < m; i++) a[i] = (i == r) * 2.0 + (rng() % 4 ? 0.0 : u(rng));
    f.ftran((alpha = a).data());
    if (std::fabs(alpha[r]) < 0.5) continue;
    f.update(r, alpha.data());
    bt[r] = a;
    for (int32_t i = 0; i < m; i++) y[i] = k % 2 ? u(rng) : i == k % m;
    f.btran((x = y).data());
    EXPECT_LT(hxtest::residual(bt, x, y), 1e-9) << "update " << k;
  }
}

TEST(FennickSimplex, RandomLPsFromColdStartAndFromPointsAgreeOnAnOptimalBasis) {
  std::mt19937 rng(20261123);
  int64_t dualIterations = 0;  // the slack basis of boxed columns goes the dual way
  int atOnce = 0;  // vertices whose crash basis needed no pivot
  for (int trial = 0; trial < 40; trial++) {
    SCOPED_TRACE(trial);
    TestLP lp = randomLP(rng, 4 + trial % 9, 6 + trial % 13);
    if (trial % 2) lp.sense = -1;
    fennick::Settings cold;
    cold.fromPoint = false;
    fennick::Result a;
    ASSERT_EQ(fennick::crossover(viewOf(lp), nullptr, nullptr, nullptr, cold, &a),
              IPM_STATUS_OPTIMAL);
    expectOptimalBasis(lp, a);
    dualIterations += a.dualIterations;

    // From the vertex itself, as from a converged interior point: the crash
    // basis of its interior columns and inactive rows is the answer.
    fennick::Result v;
    ASSERT_EQ(fennick::crossover(viewOf(lp), a.x.data(), a.y.data(), a.z.data(),
                                 fennick::Settings(), &v),
              IPM_STATUS_OPTIMAL);
    expectOptimalBasis(lp, v);
    EXPECT_NEAR(a.objective, v.objective, 1e-7 * (1.0 + std::fabs(a.objective)));
    atOnce += v.stats.pushIterations + v.stats.simplexIterations == 0;

    // From the middle of the box, which breaks most rows: the push keeps the
    // point and the dual simplex or the primal phase 1 has to repair it.
    std::vector<double> x0(lp.n), y0(lp.m, 0.0), z0(lp.n, 0.0);
    for (int j = 0; j < lp.n; j++) x0[j] = 0.5 * (lp.lower[j] + lp.upper[j]);
    for (bool dual : {true, false}) {
      fennick::Settings s;
      s.dualSimplex = dual;
      fennick::Result b;
      ASSERT_EQ(fennick::crossover(viewOf(lp), x0.data(), y0.data(), z0.data(), s, &b),
                IPM_STATUS_OPTIMAL);
      expectOptimalBasis(lp, b);
      EXPECT_NEAR(a.objective, b.objective, 1e-7 * (1.0 + std::fabs(a.objective)));
      EXPECT_GT(b.stats.pushIterations, 0);
      if (!dual) {
        EXPECT_EQ(b.dualIterations, 0);
      }
    }
  }
  EXPECT_GT(dualIterations, 40);
  EXPECT_GT(atOnce, 10);
}

TEST(FennickSimplex, FreeColumnsDegenerateVertexInfeasibleAndUnbounded) {
  // max x + y over a vertex at (1, 0) where four rows meet, y free: every
  // pivot there is degenerate.
  TestLP deg;
  deg.sense = -1;
  const int r0 = deg.addRow('L', 1.0), r1 = deg.addRow('L', 1.0), r2 = deg.addRow('L', 1.0),
            r3 = deg.addRow('G', 1.0);
  deg.addCol(1.0, 0.0, kInf, {{r0, 1.0}, {r1, 1.0}, {r2, 1.0}, {r3, 1.0}});
  deg.addCol(1.0, -kInf, kInf, {{r0, 1.0}, {r1, 2.0}, {r2, -1.0}, {r3, 1.0}});
  for (bool fromPoint : {false, true}) {
    fennick::Settings s;
    s.fromPoint = fromPoint;
    const double x0[2] = {0.4, 0.3}, y0[4] = {0, 0, 0, 0}, z0[2] = {0, 0};
    fennick::Result r;
    fennick::crossover(viewOf(deg), x0, y0, z0, s, &r);
    expectOptimalBasis(deg, r);
    EXPECT_NEAR(r.objective, 1.0, 1e-9);
  }

  TestLP inf;
  const int a = inf.addRow('G', 3.0);
  inf.addCol(1.0, 0.0, 1.0, {{a, 1.0}});
  inf.addCol(1.0, 0.0, 1.0, {{a, 1.0}});
  fennick::Result ri;
  EXPECT_EQ(fennick::crossover(viewOf(inf), nullptr, nullptr, nullptr, fennick::Settings(), &ri),
            IPM_STATUS_PRIMAL_INFEASIBLE);
  EXPECT_TRUE(ri.basis.empty());  // no basis to read after a failed run

  TestLP unb;
  const int b = unb.addRow('L', 1.0);
  unb.addCol(-1.0, 0.0, kInf, {{b, 1.0}});
  unb.addCol(0.0, 0.0, kInf, {{b, -1.0}});
  fennick::Result ru;
  EXPECT_EQ(fennick::crossover(viewOf(unb), nullptr, nullptr, nullptr, fennick::Settings(), &ru),
            IPM_STATUS_DUAL_INFEASIBLE);

  // A free column with no entries and no cost stays at zero, nonbasic.
  TestLP empty;
  const int c = empty.addRow('E', 2.0);
  empty.addCol(1.0, 0.0, 5.0, {{c, 1.0}});
  empty.addCol(0.0, -kInf, kInf, {});
  fennick::Result re;
  fennick::crossover(viewOf(empty), nullptr, nullptr, nullptr, fennick::Settings(), &re);
  expectOptimalBasis(empty, re);
  EXPECT_EQ(re.basis[1], BASIS_FREE_ZERO);
}

// At the point (1, 0) of min -x0 with big x0 <= 20 big and x0 + x1 >= 1,
// x0 is interior and the first row inactive: the crash basis is x0 and that
// row's logical.  At big 1e12 KLU's row scaling makes the logical's pivot
// 1e-12, singular, and the logical that would repair it is the one in the
// basis: the run falls back to the slack basis and pushes x0.  At big 1 the
// crash basis stands.
TEST(FennickSimplex, CrashBasisBeyondRepairFallsBackToTheSlackBasis) {
  for (double big : {1.0, 1e12}) {
    TestLP lp;
    const int r0 = lp.addRow('L', 20.0 * big), r1 = lp.addRow('G', 1.0);
    lp.addCol(-1.0, 0.0, 10.0, {{r0, big}, {r1, 1.0}});
    lp.addCol(0.0, 0.0, 10.0, {{r1, 1.0}});
    const double x0[2] = {1.0, 0.0}, y0[2] = {0.0, 0.0}, z0[2] = {0.0, 0.0};
    fennick::Result r;
    fennick::crossover(viewOf(lp), x0, y0, z0, fennick::Settings(), &r);
    expectOptimalBasis(lp, r);
    EXPECT_EQ(r.stats.pushIterations > 0, big > 1.0);
  }
}

// The run operation through the instance table, with bramlet's two blocks
// as the driver sets them.
struct RunFixture {
  std::vector<uint8_t> params = std::vector<uint8_t>(1024, 0);
  std::vector<uint8_t> limits = std::vector<uint8_t>(1768, 0);
  void* context[2];
  RunFixture(int32_t iterationLimit, double seconds) {
    const int32_t start = 2;
    std::memcpy(params.data() + FENNICK_PARAM_START, &start, 4);
    std::memcpy(params.data() + FENNICK_PARAM_ITERATION_LIMIT, &iterationLimit, 4);
    std::memcpy(limits.data() + FENNICK_LIMIT_MAXTIME, &seconds, 8);
    context[0] = params.data();
    context[1] = limits.data();
  }
};

TEST(FennickInstance, LimitsStopTheRunAndLeaveTheInteriorPointWhereItWas) {
  std::mt19937 rng(7);
  TestLP lp = randomLP(rng, 10, 16);
  LPRecord& rec = *lp.record();
  std::vector<double>& x = lp.x;
  std::vector<double>& y = lp.y;
  std::vector<double>& z = lp.z;
  std::vector<double>& act = lp.act;
  for (int j = 0; j < lp.n; j++) x[j] = 0.5 * (lp.lower[j] + lp.upper[j]);
  std::fill(y.begin(), y.end(), 0.25);
  std::fill(z.begin(), z.end(), 0.5);
  std::fill(act.begin(), act.end(), 0.75);
  std::vector<uint8_t> basis(lp.n + lp.m, 99);
  FennickStats stats{};
  rec.siblingWord[LPRECORD_BASIS_WORD] = reinterpret_cast<int64_t>(basis.data());
  rec.siblingWord[LPRECORD_CROSSOVER_STATS_WORD] = reinterpret_cast<int64_t>(&stats);

  QVModule* module = fennick::createModule(nullptr);
  ASSERT_NE(module, nullptr);
  void** instance = static_cast<void**>(module->moduleCreateInstance(module));
  ASSERT_NE(instance, nullptr);
  auto run = reinterpret_cast<FennickRunFn>(instance[FENNICK_SLOT_RUN]);
  ASSERT_NE(run, nullptr);

  const std::vector<double> x0 = x, y0 = y, z0 = z, a0 = act;
  const LPRecord r0 = rec;
  // The clock's second reading, after the push, stops the run midway.
  struct Case {
    int32_t iterations;
    double seconds;
    int32_t status;
    int64_t clock;
  } cases[] = {{1, 1e9, IPM_STATUS_ITERATION_LIMIT, -1},
               {INT32_MAX, 0.0, IPM_STATUS_TIME_LIMIT, -1},
               {INT32_MAX, -1.0, IPM_STATUS_TIME_LIMIT, -1},
               {INT32_MAX, 1e9, IPM_STATUS_TIME_LIMIT, 1}};
  for (const Case& c : cases) {
    RunFixture f(c.iterations, c.seconds);
    fennick::expireClockAt(c.clock);
    EXPECT_EQ(run(instance, nullptr, f.context, &rec), c.status);
    fennick::expireClockAt(-1);
    if (c.clock > 0) {
      EXPECT_GT(stats.pushIterations, 0);
    }
    EXPECT_EQ(std::memcmp(&rec, &r0, sizeof rec), 0);  // objective, residuals, status
    EXPECT_EQ(x, x0);
    EXPECT_EQ(y, y0);
    EXPECT_EQ(z, z0);
    EXPECT_EQ(act, a0);
    EXPECT_TRUE(std::all_of(basis.begin(), basis.end(), [](uint8_t b) { return b == BASIS_NONE; }));
  }

  RunFixture free(INT32_MAX, 1e9);
  rec.objConstant = 2.5;
  ASSERT_EQ(run(instance, nullptr, free.context, &rec), 0);
  EXPECT_EQ(rec.status, IPM_STATUS_OPTIMAL);
  expectOptimalBasis(lp, x, y, z, basis.data());
  double objective = 2.5;
  for (int j = 0; j < lp.n; j++) objective += lp.obj[j] * x[j];
  EXPECT_NEAR(rec.objConstant, objective, 1e-9 * (1.0 + std::fabs(objective)));
  EXPECT_GT(stats.pushIterations + stats.simplexIterations, 1);
  EXPECT_EQ(stats.numBasic, lp.m);

  // Each of fennick's own allocations refused in turn, from the vertex just
  // found: out of memory, the point untouched, no basis.  Leaks show under
  // the sanitizer and valgrind runs of this test.
  int64_t k = 0;
  for (;; k++) {
    SCOPED_TRACE(k);
    RunFixture f(INT32_MAX, 1e9);
    const std::vector<double> xs = x, ys = y, zs = z;
    fennick::failAllocation(k);
    const int32_t rc = run(instance, nullptr, f.context, &rec);
    const bool refused = fennick::allocationCount() > k;
    fennick::failAllocation(-1);
    if (!refused) {
      EXPECT_EQ(rc, 0);
      break;
    }
    ASSERT_EQ(rc, IPM_STATUS_OUT_OF_MEMORY);
    EXPECT_TRUE(x == xs && y == ys && z == zs);
    EXPECT_TRUE(std::all_of(basis.begin(), basis.end(), [](uint8_t b) { return b == BASIS_NONE; }));
  }
  EXPECT_GT(k, 20);

  auto destroy = reinterpret_cast<FennickDestroyFn>(instance[FENNICK_SLOT_DESTROY]);
  destroy(instance);
  module->moduleUnload(module);
}

// The whole road: bramlet presolves (a fixed column, singleton rows, an
// empty row, a forcing row at the higher levels), the interior solve, the
// crossover, and bramlet's postsolve, which must hand back a basis of the
// caller's LP.
TestLP presolvableLP() {
  TestLP lp;
  const int r0 = lp.addRow('L', 4.0);
  const int r1 = lp.addRow('G', 1.0);   // singleton on x2
  const int r2 = lp.addRow('E', 3.0);
  const int r3 = lp.addRow('R', -2.0, 6.0);
  const int r4 = lp.addRow('L', 0.0);   // forcing: x4 + x5 <= 0 with both >= 0
  lp.addRow('G', -1.0);                 // empty
  const int r6 = lp.addRow('E', 2.0);   // singleton that fixes x7 inside its bounds
  lp.addCol(-2.0, 0.0, 3.0, {{r0, 1.0}, {r2, 1.0}, {r3, 1.0}});
  lp.addCol(-1.0, 0.0, kInf, {{r0, 1.0}, {r3, -1.0}});
  lp.addCol(1.0, 0.0, 5.0, {{r1, 2.0}, {r2, 1.0}});
  lp.addCol(3.0, 1.5, 1.5, {{r0, 1.0}, {r3, 2.0}});  // fixed
  lp.addCol(-1.0, 0.0, 4.0, {{r4, 1.0}, {r2, 0.5}});
  lp.addCol(-1.0, 0.0, 4.0, {{r4, 1.0}, {r3, 1.0}});
  lp.addCol(0.5, -kInf, kInf, {{r2, 1.0}, {r0, 0.5}});  // free
  lp.addCol(1.0, 0.0, 5.0, {{r6, 1.0}, {r0, 1.0}});
  return lp;
}

// Runs the LP entry with crossover on a copy of lp at a presolve level and
// returns the status; x, y, z and basis get the caller's results.
struct EntryRun {
  std::vector<double> x, y, z;
  std::vector<uint8_t> basis;
  FennickStats stats{};
  LPRecord rec;
  int32_t failed = 0;
  int64_t liveBlocks = 0;
};

void runEntry(hxhost::Host& host, const TestLP& lp, int level, EntryRun* out) {
  TestLP copy = lp;
  // Room for the range slacks behind the columns and entries.
  out->rec = *copy.record(8);
  LPRecord& rec = out->rec;
  out->basis.assign(copy.n + copy.m, 99);
  rec.siblingWord[LPRECORD_BASIS_WORD] = reinterpret_cast<int64_t>(out->basis.data());
  rec.siblingWord[LPRECORD_CROSSOVER_STATS_WORD] = reinterpret_cast<int64_t>(&out->stats);

  QVPool* pool = host.createPool("fennick test");
  if (!pool) {
    out->failed = -1;
    return;
  }
  LPOptions options;
  setLpOptionDefaults(&options);
  options.presolver = level;
  options.crossover = 1;
  options.printLevel = 0;
  LPContext ctx = hxcli::makeLpContext(pool, nullptr, nullptr);
  out->failed = iplpmain(&ctx, &rec, &options);
  out->liveBlocks = host.poolStats(pool).liveBlocks;
  pool->poolDestroy(pool);
  out->x = copy.x;
  out->y = copy.y;
  out->z = copy.z;
  // The record's arrays die with the copy.
  rec.siblingWord[LPRECORD_BASIS_WORD] = rec.siblingWord[LPRECORD_CROSSOVER_STATS_WORD] = 0;
}

TEST(FennickThroughTheLpEntry, BasisOfTheCallersLpAtEveryPresolveLevel) {
  hxhost::Host host;
  host.silence(true);
  qvextent(host.kernel());
  TestLP lp = presolvableLP();
  for (int sense : {1, -1}) {
    lp.sense = sense;
    for (int level = -1; level <= 3; level++) {
      SCOPED_TRACE(::testing::Message() << "level " << level << " sense " << sense);
      EntryRun r;
      runEntry(host, lp, level, &r);
      EXPECT_EQ(r.failed, 0);
      EXPECT_EQ(r.liveBlocks, 0);
      ASSERT_EQ(r.rec.status, IPM_STATUS_OPTIMAL);
      expectOptimalBasis(lp, r.x, r.y, r.z, r.basis.data(), 1e-6);
      EXPECT_EQ(r.rec.dualityGap, 0.0);
      EXPECT_GT(r.stats.numBasic, 0);
    }
  }
}

// Every allocation that the host serves on the road, the load of fennick
// and the crossover's scale arrays among them, refused in turn: the call
// ends cleanly, nothing stays in the pool, and a basis is either whole and
// optimal or not there at all.
TEST(FennickThroughTheLpEntry, RefusedAllocationsFailCleanly) {
  hxhost::Host host;
  host.silence(true);
  qvextent(host.kernel());
  const TestLP lp = presolvableLP();
  int outOfMemory = 0;
  for (int64_t k = 0;; k++) {
    SCOPED_TRACE(k);
    const int64_t before = host.totalStats().refused;
    host.failAllocation(k);
    EntryRun r;
    runEntry(host, lp, -1, &r);
    host.clearFailures();
    const bool refused = host.totalStats().refused != before;
    if (r.failed < 0) continue;  // the test's own pool was refused
    EXPECT_EQ(r.liveBlocks, 0);
    if (r.rec.status == IPM_STATUS_OPTIMAL) {
      if (std::find(r.basis.begin(), r.basis.end(), BASIS_NONE) == r.basis.end())
        expectOptimalBasis(lp, r.x, r.y, r.z, r.basis.data(), 1e-6);
    } else {
      EXPECT_TRUE(std::all_of(r.basis.begin(), r.basis.end(),
                              [](uint8_t b) { return b == BASIS_NONE || b == 99; }));
      outOfMemory += r.rec.status == IPM_STATUS_OUT_OF_MEMORY;
    }
    if (!refused) {
      EXPECT_EQ(r.rec.status, IPM_STATUS_OPTIMAL);
      break;
    }
    ASSERT_LT(k, 100000);
  }
  EXPECT_GT(outOfMemory, 0);
}

}  // namespace
