// The equation solver and its noise removal: systems that the presolve takes
// apart alone, systems partly left to the factorisation, noise, the closest
// point with its safety rule, broken symmetry, and out-of-memory on every
// route.
#include <math.h>
#include <stdarg.h>
#include <stdio.h>

#include <string>
#include <vector>

#include "frame/qv.h"
#include "ipm/ipm.h"
#include "presolve/eqnsolve.h"
#include "support/bridge_seam.h"
#include "support/dense_ref.h"
#include "support/oom.h"
#include "support/support.h"

namespace {

using Vec = std::vector<double>;

// The real numeric phase, counted, with the size of the last matrix seen.
int gFactorCalls = 0, gFactorDim = -1, gFactorCode = -1;
int32_t countingFactor(int32_t mode, int32_t n, const int32_t* begin, const int32_t* index,
                       const double* value, LAEnv* la, LASymbolic* sym, LANumeric* num) {
  gFactorCalls++;
  gFactorDim = n;
  if (gFactorCode >= 0) return gFactorCode;
  return LA_FactorMatrixLDL(mode, n, begin, index, value, la, sym, num);
}
int32_t plainSolve(int32_t mode, const int32_t* begin, const int32_t* index, const double* value,
                   double* x, LAEnv* la, LASymbolic* sym, LANumeric* num) {
  return LA_SolveMatrixLDL(mode, begin, index, value, x, la, sym, num);
}

// A system K z = b given densely; K is stored in full, both triangles, every
// non-zero (the diagonal too) as an ordinary entry.
struct System {
  int n = 0;
  Vec k, b;  // k row-major n x n
  std::vector<int32_t> colBegin, rowIndex;
  Vec matValue, rhs;

  explicit System(int size) : n(size), k(size * size, 0.0), b(size, 0.0) {}
  double& at(int i, int j) { return k[i * n + j]; }
  double get(int i, int j) const { return k[i * n + j]; }
  void pair(int i, int j, double v) { at(i, j) = at(j, i) = v; }
  Vec times(const Vec& z) const {
    Vec out(n, 0.0);
    for (int i = 0; i < n; i++)
      for (int j = 0; j < n; j++) out[i] += get(i, j) * z[j];
    return out;
  }
  // Fresh caller's arrays; eqnSolve works on them in place.
  void build() {
    colBegin.assign(1, 0);
    rowIndex.clear();
    matValue.clear();
    for (int j = 0; j < n; j++) {
      for (int i = 0; i < n; i++)
        if (get(i, j) != 0.0) rowIndex.push_back(i), matValue.push_back(get(i, j));
      colBegin.push_back((int32_t)rowIndex.size());
    }
    rhs = b;
  }
  int32_t solve(HalvexEnv* env, const Vec* start = nullptr, int32_t mode = 0,
                int32_t verifyLevel = 0) {
    build();
    return eqnSolve(1e20, 1e-8, env, n, n, 1, colBegin.data(), rowIndex.data(), matValue.data(),
                    rhs.data(), start ? const_cast<double*>(start->data()) : nullptr,
                    verifyLevel, mode);
  }
  double residual(const Vec& z) const {
    double worst = 0.0;
    const Vec kz = times(z);
    for (int i = 0; i < n; i++) worst = fmax(worst, fabs(kz[i] - b[i]));
    return worst;
  }
};

// Reference answers by dense elimination; NaN where the system is singular.
Vec denseSolve(const System& s) {
  hxtest::Dense a(s.n);
  for (int i = 0; i < s.n; i++) a[i].assign(s.k.begin() + i * s.n, s.k.begin() + (i + 1) * s.n);
  Vec x;
  return hxtest::luSolve(a, s.b, &x) ? x : Vec(s.n, NAN);
}

void expectNear(const Vec& got, const Vec& want, double tol) {
  ASSERT_EQ(got.size(), want.size());
  for (size_t i = 0; i < got.size(); i++) EXPECT_NEAR(got[i], want[i], tol) << "entry " << i;
}

class EqnSolve : public HostTest {
 protected:
  EqnSolve() {
    ldlNumericOverride = &counting;
    gFactorCalls = 0;
    gFactorDim = gFactorCode = -1;
    hxtest::textLines().clear();
    env.textLog = hxtest::captureText;
  }
  ~EqnSolve() override { ldlNumericOverride = nullptr; }
  void TearDown() override {
    DestroyPresolver(&env, nullptr, pre);
    EXPECT_EQ(liveBlocks(), 0);
  }

  // Poses a fresh copy of the system as the model that eqnSolve builds, with
  // an empty presolver record that the fixture releases.
  void pose(System& s) {
    s.build();
    model = ipmModel{};
    option = ipmOption{};
    colLength.assign(s.n, 0);
    zeros.assign(s.n, 0.0);
    lower.assign(s.n, -1e20);
    upper.assign(s.n, 1e20);
    sense.assign(s.n, 'E');
    for (int j = 0; j < s.n; j++) colLength[j] = s.colBegin[j + 1] - s.colBegin[j];
    model.typeModel = PRESOLVE_MODEL_EQUATION;
    model.numRow = model.numCol = s.n;
    model.numCoef = s.colBegin[s.n];
    model.colBegin = s.colBegin.data();
    model.colLength = colLength.data();
    model.rowIndex = s.rowIndex.data();
    model.matValue = s.matValue.data();
    model.rhs = s.rhs.data();
    model.obj = zeros.data();
    model.lower = lower.data();
    model.upper = upper.data();
    model.rowSense = &sense[0];
    option.infinity = 1e20;
    option.primalTol = 1e-8;
    DestroyPresolver(&env, nullptr, pre);
    pre = poolNew<presolver>(pool, 1);
  }

  LdlNumericOverride counting{countingFactor, plainSolve};
  ipmModel model{};
  ipmOption option{};
  presolver* pre = nullptr;
  std::vector<int32_t> colLength;
  Vec zeros, lower, upper;
  std::string sense;
};

// A path: row i couples only to i - 1 and i + 1.
System chain(int n) {
  System s(n);
  Vec z(n);
  for (int i = 0; i < n; i++) {
    s.at(i, i) = 3.0 + i;
    if (i + 1 < n) s.pair(i, i + 1, 1.0 - 0.3 * i);
    z[i] = 1.0 + 0.5 * i * (i % 2 ? -1 : 1);
  }
  s.b = s.times(z);
  return s;
}

// Index 0 a diagonal singleton, 1 - 2 a chain into the dense block 3 - 5,
// 6 an empty row and column.
System mixed() {
  System s(7);
  s.at(0, 0) = 4.0;
  s.at(1, 1) = 2.0;
  s.pair(1, 2, 1.0);
  s.at(2, 2) = 5.0;
  s.pair(2, 3, -1.0);
  for (int i = 3; i < 6; i++) {
    s.at(i, i) = 6.0 + i;
    for (int j = i + 1; j < 6; j++) s.pair(i, j, 0.5 * (i - j) + 1.7);
  }
  s.b = s.times({1, -2, 3, 0.5, -1, 2, 0});
  return s;
}

// A full 3x3 block that survives the presolve.
System fullBlock(const Vec& z) {
  System s(3);
  s.at(0, 0) = 4.0;
  s.at(1, 1) = 5.0;
  s.at(2, 2) = 6.0;
  s.pair(0, 1, 1.0);
  s.pair(0, 2, -1.0);
  s.pair(1, 2, 2.0);
  s.b = s.times(z);
  return s;
}

// Each system against dense elimination, with the size of the part left to
// the factorisation (0: presolve alone).
TEST_F(EqnSolve, PresolveTakesApartWhatItCanAndFactorsTheRest) {
  std::vector<std::pair<System, int>> cases;
  System diagonal(5);
  for (int i = 0; i < 5; i++) {
    diagonal.at(i, i) = (i % 2 ? -1.0 : 1.0) * (i + 2);
    diagonal.b[i] = i - 1.5;
  }
  cases.push_back({diagonal, 0});
  System singleton(2);  // z0 + z1 = 3, z0 = 1: the partner row is set aside
  singleton.at(0, 0) = 1.0;
  singleton.pair(0, 1, 1.0);
  singleton.b = {3.0, 1.0};
  cases.push_back({singleton, 0});
  // Rows of two entries eliminated into the next, unwound in reverse.
  for (int n : {2, 3, 9}) cases.push_back({chain(n), 0});
  System noAnchor(3);  // a row of two without diagonal is left alone
  noAnchor.pair(0, 1, 1.0);
  noAnchor.pair(0, 2, 1.0);
  noAnchor.at(1, 1) = 2.0;
  noAnchor.pair(1, 2, 1.0);
  noAnchor.at(2, 2) = 3.0;
  noAnchor.b = noAnchor.times({1.0, -1.0, 2.0});
  cases.push_back({noAnchor, 3});
  System fill(4);  // row 0 goes into row 1, which has no diagonal until then
  fill.at(0, 0) = 2.0;
  fill.pair(0, 1, 1.0);
  fill.pair(1, 2, 1.0);
  fill.pair(1, 3, 1.0);
  fill.at(2, 2) = 3.0;
  fill.pair(2, 3, 1.0);
  fill.at(3, 3) = 4.0;
  fill.b = fill.times({1.0, 2.0, -1.0, 0.5});
  cases.push_back({fill, 3});
  System noise(4);  // diagonal but for couplings of 1e-14, which go first
  for (int i = 0; i < 4; i++) noise.at(i, i) = 1.0 + i;
  noise.pair(0, 2, 1e-14);
  noise.pair(1, 3, -3e-14);
  noise.pair(0, 3, 2e-14);
  noise.b = {1.0, 2.0, 3.0, 4.0};
  cases.push_back({noise, 0});
  for (size_t c = 0; c < cases.size(); c++) {
    System& s = cases[c].first;
    gFactorCalls = 0;
    ASSERT_EQ(s.solve(&env), 0) << "case " << c;
    EXPECT_EQ(gFactorCalls, cases[c].second ? 1 : 0) << "case " << c;
    EXPECT_EQ(gFactorDim, cases[c].second ? cases[c].second : -1) << "case " << c;
    gFactorDim = -1;
    expectNear(s.rhs, denseSolve(s), 1e-10);
  }
}

TEST_F(EqnSolve, MixedSystemFactorsOnlyTheBlock) {
  System s = mixed();
  const Vec start = {9, 9, 9, 9, 9, 9, 7.5};
  ASSERT_EQ(s.solve(&env, &start), 0);
  EXPECT_EQ(gFactorCalls, 1);
  EXPECT_EQ(gFactorDim, 3);
  // The empty variable takes the start's value; the rest solve the system.
  System block = s;
  block.at(6, 6) = 1.0;
  block.b[6] = 7.5;
  expectNear(s.rhs, denseSolve(block), 1e-10);
  EXPECT_EQ(s.rhs[6], 7.5);
  // Without a start vector the empty variable is 0.
  ASSERT_EQ(s.solve(&env), 0);
  EXPECT_EQ(s.rhs[6], 0.0);
  EXPECT_LT(s.residual(s.rhs), 1e-10);
}

TEST_F(EqnSolve, LiftModeRaisesTinyDiagonals) {
  System s(3);
  s.at(0, 0) = -5e-7;
  s.at(1, 1) = 4.0;
  s.at(2, 2) = 5.0;
  s.pair(0, 1, 1.0);
  s.pair(0, 2, 1.0);
  s.pair(1, 2, 1.0);
  s.b = {1.0, 2.0, 3.0};
  ASSERT_EQ(s.solve(&env, nullptr, EQN_MODE_LIFT_DIAGONAL), 0);
  EXPECT_EQ(s.matValue[0], 1e-6);  // the caller's array, not reduced
  System lifted = s;
  lifted.at(0, 0) = 1e-6;
  expectNear(s.rhs, denseSolve(lifted), 1e-9);
  ASSERT_EQ(s.solve(&env), 0);
  EXPECT_EQ(s.matValue[0], -5e-7);
  expectNear(s.rhs, denseSolve(s), 1e-9);
}

TEST_F(EqnSolve, RandomSparseSystemsAgreeWithDenseElimination) {
  // Sparse enough that singletons and rows of two meet each other and the
  // remaining block in every combination.
  uint64_t seed = 12345;
  auto next = [&seed]() {
    seed = seed * 6364136223846793005ULL + 1442695040888963407ULL;
    return (double)(seed >> 11) / 9007199254740992.0;
  };
  int checked = 0, presolvedAway = 0;
  for (int round = 0; round < 300; round++) {
    const int n = 2 + (int)(next() * 12);
    System s(n);
    for (int i = 0; i < n; i++) {
      if (next() < 0.8) s.at(i, i) = (next() < 0.3 ? -1.0 : 1.0) * (1.0 + 4.0 * next());
      for (int j = i + 1; j < n; j++)
        if (next() < 1.5 / n) s.pair(i, j, 2.0 * next() - 1.0);
    }
    Vec z(n);
    for (int i = 0; i < n; i++) z[i] = 4.0 * next() - 2.0;
    s.b = s.times(z);
    const Vec reference = denseSolve(s);
    // Singular or badly conditioned draws say nothing about the solver.
    bool usable = s.residual(reference) < 1e-10;
    for (int i = 0; i < n && usable; i++) usable = fabs(reference[i] - z[i]) < 1e-8;
    if (!usable) continue;
    gFactorCalls = 0;
    ASSERT_EQ(s.solve(&env), 0) << "round " << round;
    presolvedAway += gFactorCalls == 0;
    for (int i = 0; i < n; i++) ASSERT_NEAR(s.rhs[i], z[i], 1e-7) << "round " << round << " i " << i;
    checked++;
  }
  EXPECT_GT(checked, 150);
  EXPECT_GT(presolvedAway, 20);
  EXPECT_LT(presolvedAway, checked);
}

// ---- the closest point ----------------------------------------------------------------

TEST_F(EqnSolve, ClosestPointOnASingularSystem) {
  // K = A'A with A of rank 2: the solutions form a line along (-3, 1, 1),
  // and the answer is the one nearest the start.
  System s(3);
  const double a[2][3] = {{1, 2, 1}, {1, 1, 2}};
  for (int i = 0; i < 3; i++)
    for (int j = 0; j < 3; j++) s.at(i, j) = a[0][i] * a[0][j] + a[1][i] * a[1][j];
  s.b = s.times({1.0, 1.0, 1.0});
  // The start is the point (0.1, 1.3, 1.3) of the line plus (0, 0.1, -0.1),
  // which is orthogonal to the line; the nearest solution drops just that.
  const Vec start = {1.0 - 0.3 * 3, 1.0 + 0.3 + 0.1, 1.0 + 0.3 - 0.1};
  ASSERT_EQ(s.solve(&env, &start, EQN_MODE_TO_POINT), 0);
  EXPECT_EQ(gFactorDim, 6);  // [I K; K 0]
  expectNear(s.rhs, {0.1, 1.3, 1.3}, 1e-8);
}

TEST_F(EqnSolve, SafetyRuleKeepsTheStartWhenTheSolutionJumps) {
  const Vec solution = {1.0, 2.0, 5e-5};
  System s = fullBlock(solution);
  // Moves of 0.5, 0.5 and 5e-5 from here: all accepted, the last because it
  // is below 1e-4 although it exceeds the start's magnitude of 0.
  const Vec near = {1.5, 2.5, 0.0};
  ASSERT_EQ(s.solve(&env, &near, EQN_MODE_TO_POINT), 0);
  expectNear(s.rhs, solution, 1e-10);
  // Entry 0 would move by 0.75 from 0.25: rejected, the whole start returns.
  const Vec far = {0.25, 2.0, 0.0};
  ASSERT_EQ(s.solve(&env, &far, EQN_MODE_TO_POINT), 0);
  EXPECT_EQ(s.rhs, far);
  // Without a start the point is 0, from which any solution is a jump.
  ASSERT_EQ(s.solve(&env, nullptr, EQN_MODE_TO_POINT), 0);
  EXPECT_EQ(s.rhs, Vec(3, 0.0));
}

TEST_F(EqnSolve, ClosestPointOnAReducedSystemUsesMappedStart) {
  // Column 0 goes by presolve; the start of the block is start[1..3].
  System s(4), block = fullBlock({1.0, 2.0, 3.0});
  s.at(0, 0) = 2.0;
  for (int i = 0; i < 3; i++)
    for (int j = 0; j < 3; j++) s.at(i + 1, j + 1) = block.get(i, j);
  s.b = s.times({0.5, 1.0, 2.0, 3.0});
  const Vec start = {-40.0, 1.2, 2.2, 3.2};
  ASSERT_EQ(s.solve(&env, &start, EQN_MODE_TO_POINT), 0);
  EXPECT_EQ(gFactorDim, 6);
  expectNear(s.rhs, {0.5, 1.0, 2.0, 3.0}, 1e-10);
  // A block start far from the answer is kept, the presolved value is not
  // touched by that.
  const Vec far = {-40.0, 0.2, 2.2, 3.2};
  ASSERT_EQ(s.solve(&env, &far, EQN_MODE_TO_POINT), 0);
  EXPECT_EQ(s.rhs, (Vec{0.5, 0.2, 2.2, 3.2}));
}

// ---- failures -------------------------------------------------------------------------

TEST_F(EqnSolve, BadArgumentsAndFailedFactorisation) {
  System s = fullBlock({1, 2, 3});
  s.build();
  EXPECT_EQ(eqnSolve(1e20, 1e-8, &env, 3, 3, 1, nullptr, s.rowIndex.data(), s.matValue.data(),
                     s.rhs.data(), nullptr, 0, 0),
            IPM_STATUS_FAILED);
  EXPECT_EQ(eqnSolve(1e20, 1e-8, &env, 3, 3, 1, s.colBegin.data(), s.rowIndex.data(),
                     s.matValue.data(), nullptr, nullptr, 0, 0),
            IPM_STATUS_FAILED);
  gFactorCode = LA_ERR_MEMORY;
  EXPECT_EQ(s.solve(&env), IPM_STATUS_OUT_OF_MEMORY);
  gFactorCode = 99;
  EXPECT_EQ(s.solve(&env), IPM_STATUS_FAILED);
  EXPECT_EQ(s.solve(&env, nullptr, EQN_MODE_TO_POINT), IPM_STATUS_FAILED);
}

TEST_F(EqnSolve, BrokenSymmetryAtASingletonEquation) {
  // Row 1 holds only (1, 0), but column 1 has two entries.
  System s(3);
  s.at(0, 0) = 2.0;
  s.at(0, 1) = s.at(0, 2) = s.at(1, 0) = s.at(2, 1) = 1.0;
  s.at(2, 2) = 3.0;
  s.b = {1, 1, 1};
  EXPECT_EQ(s.solve(&env), IPM_STATUS_FAILED);
  EXPECT_TRUE(hxtest::logged("Error removeSingletonEquation: length of column 1 must be 1"));
  // Column 1 has one entry, but in row 2, not 0.
  System t(4);
  t.at(0, 0) = 2.0;
  t.pair(0, 2, 1.0);
  t.pair(0, 3, 1.0);
  t.at(1, 0) = t.at(2, 1) = 1.0;
  t.at(2, 2) = 3.0;
  t.pair(2, 3, 1.0);
  t.at(3, 3) = 4.0;
  t.b = {1, 1, 1, 1};
  EXPECT_EQ(t.solve(&env), IPM_STATUS_FAILED);
  EXPECT_TRUE(hxtest::logged("Error removeSingletonEquation: row index of column 1 must be 0"));
}

TEST_F(EqnSolve, OutOfMemoryOnEveryRoute) {
  System diagonal(3);
  for (int i = 0; i < 3; i++) diagonal.at(i, i) = diagonal.b[i] = i + 1.0;
  const Vec start = {1.1, 2.1, 3.1};
  const struct {
    System s;
    const Vec* start;
    int32_t mode, verifyLevel;
  } routes[] = {{diagonal, nullptr, 0, 0},
                {chain(5), nullptr, 0, 0},
                {mixed(), nullptr, 0, 0},
                {mixed(), nullptr, 0, 1},  // with the check copy
                {fullBlock({1, 2, 3}), &start, EQN_MODE_TO_POINT, 0}};
  for (const auto& r : routes) {
    System s = r.s;
    hxtest::OomSweep::Result res = hxtest::oomSweep(
        host, [&](hxtest::OomProbe&) { return s.solve(&env, r.start, r.mode, r.verifyLevel); });
    EXPECT_EQ(res.finalStatus, 0);
    EXPECT_GT(res.refusedRuns, 10);
    EXPECT_LT(s.residual(s.rhs), 1e-8);
  }
}

// ---- noise ----------------------------------------------------------------------------------

class Noise : public EqnSolve {
 protected:
  // The presolver's working copies of a system, and the noise found in them.
  void detect(System& s) {
    pose(s);
    ASSERT_EQ(CreatePresolver(&env, &model, &option, pre), 0);
    detectNoise(&env, &model, pre);
  }
  // Live entries by columns and by rows, which must agree.
  int live(int n) const {
    int cols = 0, rows = 0;
    for (int j = 0; j < n; j++) cols += pre->colLength[j], rows += pre->rowLength[j];
    EXPECT_EQ(cols, rows);
    return cols;
  }
};

// One coupling in each decade from first to last, placed mid-decade so that
// no test hangs on the rounding of a break; a non-zero tiny adds one more
// pair, between row 1 and a last row of its own.
System decades(int first, int last, double tiny) {
  const int n = last - first + 2;
  System s(tiny != 0.0 ? n + 1 : n);
  for (int i = 0; i < s.n; i++) s.at(i, i) = 1.0;
  for (int d = first; d <= last; d++) s.pair(0, d - first + 1, 3.0 * pow(10.0, -d - 1));
  if (tiny != 0.0) s.pair(1, n, tiny);
  return s;
}

TEST_F(Noise, NoThresholdWithoutAGapBelow1e7) {
  System empty(3), shallow = decades(0, 5, 0.0), deep = decades(0, 15, 0.0);
  for (System* s : {&empty, &shallow, &deep}) {  // deep: down to 3e-16, no empty decade
    detect(*s);
    EXPECT_EQ(pre->noiseThreshold, 1e20) << s->n;
    EXPECT_EQ(pre->numRemovedElement, 0) << s->n;
  }
}

TEST_F(Noise, GapSetsThresholdAtTheEmptyBin) {
  System s(3);
  for (int i = 0; i < 3; i++) s.at(i, i) = 2.0 + i;
  s.pair(0, 1, 0.7);
  s.pair(0, 2, 3e-13);
  detect(s);
  // 3e-13 sits in the bin up to 1e-12; the bin above it, up to 1e-11, is empty.
  EXPECT_NEAR(pre->noiseThreshold, 1e-11, 1e-24);
  EXPECT_EQ(pre->numRemovedElement, 2);  // both triangles
  ASSERT_EQ(removeNoiseA(&env, &model, pre), 0);
  EXPECT_EQ(live(3), 5);
  EXPECT_EQ(pre->colLength[2], 1);
  EXPECT_EQ(pre->rowLength[2], 1);
  // The survivors are intact, in both copies.
  EXPECT_EQ(pre->rowIndex[pre->colBegin[2]], 2);
  EXPECT_EQ(pre->matValue[pre->colBegin[2]], 4.0);
  EXPECT_EQ(pre->colIndex[pre->rowBegin[2]], 2);
  EXPECT_EQ(pre->rowMatValue[pre->rowBegin[2]], 4.0);
}

TEST_F(Noise, LoneTinyEntryGoesWithOrWithoutAGap) {
  // Below 3e-16 the decades are empty: an ordinary gap.  To 3e-19 every
  // decade is taken, so there is no gap; the last bin still goes, and only it.
  for (int last : {15, 18}) {
    System s = decades(0, last, 1e-25);
    detect(s);
    EXPECT_LT(pre->noiseThreshold, last == 15 ? 1e-17 : 1e-18);
    EXPECT_GT(pre->noiseThreshold, 1e-20);
    EXPECT_EQ(pre->numRemovedElement, 2);
    ASSERT_EQ(removeNoiseA(&env, &model, pre), 0);
    EXPECT_EQ(live(s.n), (int)s.rowIndex.size() - 2);
    EXPECT_EQ(pre->colLength[s.n - 1], 1);
  }
}

TEST_F(Noise, EntryAtTheThresholdGoes) {
  System s(3);
  for (int i = 0; i < 3; i++) s.at(i, i) = 1.0;
  s.pair(0, 1, 1e-8);
  s.pair(0, 2, -1.0000001e-8);
  detect(s);
  pre->noiseThreshold = 1e-8;
  ASSERT_EQ(removeNoiseA(&env, &model, pre), 0);
  EXPECT_EQ(pre->colLength[1], 1);  // (0, 1) went
  EXPECT_EQ(pre->colLength[2], 2);  // (0, 2) is just above
  EXPECT_EQ(pre->rowLength[0], 2);
  EXPECT_EQ(pre->colIndex[pre->rowBegin[0] + 1], 2);
}

TEST(NoiseVectors, SecondVectorThenFirstAtOrBelowThreshold) {
  double rhs[] = {1e-9, -1e-9, 2e-9, 0.5};
  double obj[] = {-1e-10, 3.0};
  removeNoiseBC(1e-9, 4, 2, rhs, obj);
  EXPECT_EQ(Vec(rhs, rhs + 4), (Vec{0.0, 0.0, 2e-9, 0.5}));
  EXPECT_EQ(Vec(obj, obj + 2), (Vec{0.0, 3.0}));
  removeNoiseBC(1.0, 0, 2, nullptr, obj);
  EXPECT_EQ(obj[1], 3.0);
}

}  // namespace
