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
#include "unit/support.h"

namespace {

std::string gLog;
void captureLog(const char* format, ...) {
  char line[512];
  va_list args;
  va_start(args, format);
  vsnprintf(line, sizeof line, format, args);
  va_end(args);
  gLog += line;
  gLog += '\n';
}

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
  std::vector<double> k;  // row-major n x n
  std::vector<double> b;
  std::vector<int32_t> colBegin, rowIndex;
  std::vector<double> matValue, rhs;

  explicit System(int size) : n(size), k(size * size, 0.0), b(size, 0.0) {}
  double& at(int i, int j) { return k[i * n + j]; }
  double get(int i, int j) const { return k[i * n + j]; }
  void pair(int i, int j, double v) {
    at(i, j) = v;
    at(j, i) = v;
  }
  // b = K z for a chosen solution.
  void rhsFor(const std::vector<double>& z) {
    for (int i = 0; i < n; i++) {
      b[i] = 0.0;
      for (int j = 0; j < n; j++) b[i] += get(i, j) * z[j];
    }
  }
  // Fresh caller's arrays; eqnSolve works on them in place.
  void build() {
    colBegin.assign(n + 1, 0);
    rowIndex.clear();
    matValue.clear();
    for (int j = 0; j < n; j++) {
      colBegin[j] = (int32_t)rowIndex.size();
      for (int i = 0; i < n; i++)
        if (get(i, j) != 0.0) {
          rowIndex.push_back(i);
          matValue.push_back(get(i, j));
        }
    }
    colBegin[n] = (int32_t)rowIndex.size();
    rhs = b;
  }
  int32_t solve(HalvexEnv* env, const double* start = nullptr, int32_t mode = 0,
                int32_t verifyLevel = 0, int32_t numLeading = -1) {
    build();
    return eqnSolve(1e20, 1e-8, env, n, numLeading < 0 ? n : numLeading, 1, colBegin.data(),
                    rowIndex.data(), matValue.data(), rhs.data(),
                    const_cast<double*>(start), verifyLevel, mode);
  }
  double residual(const std::vector<double>& z) const {
    double worst = 0.0;
    for (int i = 0; i < n; i++) {
      double r = -b[i];
      for (int j = 0; j < n; j++) r += get(i, j) * z[j];
      worst = fmax(worst, fabs(r));
    }
    return worst;
  }
};

class EqnSolve : public HostTest {
 protected:
  EqnSolve() {
    ldlNumericOverride = &counting;
    gFactorCalls = 0;
    gFactorDim = -1;
    gFactorCode = -1;
    gLog.clear();
    env.textLog = captureLog;
  }
  ~EqnSolve() override { ldlNumericOverride = nullptr; }

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
  int32_t presolveOnly(System& s) {
    pose(s);
    return eqnPresolve(&env, &model, &option, pre, s.n);
  }
  // Refuses allocation k of one solve for k = 0, 1, ... until it gets
  // through: every refusal is -1086, and nothing stays in the pool.
  void refuseEachAllocation(System& s, const double* start, int32_t mode, int32_t verifyLevel) {
    bool done = false;
    int refused = 0;
    for (int k = 0; k < 3000 && !done; k++) {
      host.failAllocation(k);
      const int32_t status = s.solve(&env, start, mode, verifyLevel);
      host.clearFailures();
      if (status == 0) {
        done = true;
        EXPECT_LT(s.residual(s.rhs), 1e-8);
      } else {
        refused++;
        EXPECT_EQ(status, IPM_STATUS_OUT_OF_MEMORY) << "allocation " << k;
      }
      ASSERT_EQ(liveBlocks(), 0) << "allocation " << k;
    }
    EXPECT_TRUE(done);
    EXPECT_GT(refused, 10);
  }

  void TearDown() override {
    DestroyPresolver(&env, nullptr, pre);
    pre = nullptr;
    EXPECT_EQ(liveBlocks(), 0);
  }

  LdlNumericOverride counting{countingFactor, plainSolve};
  ipmModel model{};
  ipmOption option{};
  presolver* pre = nullptr;
  std::vector<int32_t> colLength;
  std::vector<double> zeros, lower, upper;
  std::string sense;
};

// Dense Gaussian elimination with partial pivoting, for reference answers.
std::vector<double> denseSolve(const System& s) {
  const int n = s.n;
  std::vector<double> a = s.k, x = s.b;
  for (int c = 0; c < n; c++) {
    int p = c;
    for (int r = c + 1; r < n; r++)
      if (fabs(a[r * n + c]) > fabs(a[p * n + c])) p = r;
    for (int j = 0; j < n; j++) std::swap(a[c * n + j], a[p * n + j]);
    std::swap(x[c], x[p]);
    for (int r = c + 1; r < n; r++) {
      const double f = a[r * n + c] / a[c * n + c];
      for (int j = c; j < n; j++) a[r * n + j] -= f * a[c * n + j];
      x[r] -= f * x[c];
    }
  }
  for (int c = n - 1; c >= 0; c--) {
    for (int j = c + 1; j < n; j++) x[c] -= a[c * n + j] * x[j];
    x[c] /= a[c * n + c];
  }
  return x;
}

void expectNear(const std::vector<double>& got, const std::vector<double>& want, double tol) {
  ASSERT_EQ(got.size(), want.size());
  for (size_t i = 0; i < got.size(); i++) EXPECT_NEAR(got[i], want[i], tol) << "entry " << i;
}

// A path: row i couples only to i - 1 and i + 1.
System chain(int n) {
  System s(n);
  for (int i = 0; i < n; i++) s.at(i, i) = 3.0 + i;
  for (int i = 0; i + 1 < n; i++) s.pair(i, i + 1, 1.0 - 0.3 * i);
  std::vector<double> z(n);
  for (int i = 0; i < n; i++) z[i] = 1.0 + 0.5 * i * (i % 2 ? -1 : 1);
  s.rhsFor(z);
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
  s.rhsFor({1, -2, 3, 0.5, -1, 2, 0});
  return s;
}

// ---- presolve alone ----------------------------------------------------------------

TEST_F(EqnSolve, DiagonalIsSolvedWithoutFactorisation) {
  System s(5);
  for (int i = 0; i < 5; i++) {
    s.at(i, i) = (i % 2 ? -1.0 : 1.0) * (i + 2);
    s.b[i] = i - 1.5;
  }
  ASSERT_EQ(s.solve(&env), 0);
  EXPECT_EQ(gFactorCalls, 0);
  for (int i = 0; i < 5; i++) EXPECT_DOUBLE_EQ(s.rhs[i], s.b[i] / s.get(i, i));

  ASSERT_EQ(presolveOnly(s), 0);
  EXPECT_EQ(pre->preControl, PRECONTROL_REDUCED);
  EXPECT_EQ(model.numCol, 0);
  EXPECT_EQ(model.numCoef, 0);
  EXPECT_EQ(pre->numPostdet, 0);
}

TEST_F(EqnSolve, SingletonEquationSetsItsPartnerRowAside) {
  // z0 + z1 = 3, z0 = 1
  System s(2);
  s.at(0, 0) = 1.0;
  s.pair(0, 1, 1.0);
  s.b = {3.0, 1.0};
  ASSERT_EQ(s.solve(&env), 0);
  EXPECT_EQ(gFactorCalls, 0);
  expectNear(s.rhs, {1.0, 2.0}, 1e-15);

  ASSERT_EQ(presolveOnly(s), 0);
  EXPECT_EQ(pre->colMap[0], COLMAP_FIXED);
  EXPECT_EQ(pre->colMap[1], COLMAP_POSTDET);
  EXPECT_EQ(pre->rowMap[0], ROWMAP_POSTDET);
  ASSERT_EQ(pre->numPostdet, 1);
  EXPECT_EQ(pre->spec[0], 1);
  EXPECT_EQ(pre->lbMap[1], 0);
  EXPECT_EQ(pre->numRemovedRow, 2);
  EXPECT_EQ(pre->numRemovedCol, 2);
  EXPECT_EQ(pre->numRemovedElement, 3);
}

TEST_F(EqnSolve, ChainOfTwoEntryRowsUnwindsInReverse) {
  // Each row of two entries is eliminated into the next, the last one is a
  // diagonal singleton, and every set-aside variable needs the one after it.
  for (int n : {2, 3, 9}) {
    System s = chain(n);
    gFactorCalls = 0;
    ASSERT_EQ(s.solve(&env), 0) << n;
    EXPECT_EQ(gFactorCalls, 0) << n;
    expectNear(s.rhs, denseSolve(s), 1e-12);
  }
  System s = chain(9);
  ASSERT_EQ(presolveOnly(s), 0);
  EXPECT_EQ(pre->numPostdet, 8);
  for (int p = 0; p < 8; p++) EXPECT_EQ(pre->spec[p], p);
  EXPECT_EQ(model.numCol, 0);
}

// ---- partly left to the factorisation ---------------------------------------------

TEST_F(EqnSolve, RowOfTwoWithoutDiagonalIsLeftAlone) {
  System s(3);
  s.pair(0, 1, 1.0);
  s.pair(0, 2, 1.0);
  s.at(1, 1) = 2.0;
  s.pair(1, 2, 1.0);
  s.at(2, 2) = 3.0;
  s.rhsFor({1.0, -1.0, 2.0});
  ASSERT_EQ(presolveOnly(s), 0);
  EXPECT_EQ(pre->preControl, PRECONTROL_NONE);
  EXPECT_EQ(pre->numRemovedRow, 0);

  ASSERT_EQ(s.solve(&env), 0);
  EXPECT_EQ(gFactorCalls, 1);
  EXPECT_EQ(gFactorDim, 3);
  expectNear(s.rhs, {1.0, -1.0, 2.0}, 1e-10);
}

TEST_F(EqnSolve, MixedSystemFactorsOnlyTheBlock) {
  System s = mixed();
  const std::vector<double> start = {9, 9, 9, 9, 9, 9, 7.5};
  ASSERT_EQ(s.solve(&env, start.data()), 0);
  EXPECT_EQ(gFactorCalls, 1);
  EXPECT_EQ(gFactorDim, 3);
  // The empty variable takes the start's value; the rest solve the system.
  EXPECT_EQ(s.rhs[6], 7.5);
  System block = s;
  block.at(6, 6) = 1.0;
  block.b[6] = 7.5;
  expectNear(s.rhs, denseSolve(block), 1e-10);

  // Without a start vector the empty variable is 0.
  ASSERT_EQ(s.solve(&env), 0);
  EXPECT_EQ(s.rhs[6], 0.0);
  EXPECT_LT(s.residual(s.rhs), 1e-10);
}

TEST_F(EqnSolve, CallerArraysHoldTheReducedSystem) {
  System s = mixed();
  ASSERT_EQ(presolveOnly(s), 0);
  ASSERT_EQ(pre->preControl, PRECONTROL_REDUCED);
  ASSERT_EQ(model.numCol, 3);
  ASSERT_EQ(model.numRow, 3);
  // The block 3 - 5 (full, 9 entries), with column 3 carrying what the chain
  // pushed into it: a changed diagonal, but no new entry.
  EXPECT_EQ(model.numCoef, 9);
  EXPECT_EQ(s.colBegin[3], 9);
  for (int c = 0; c < 3; c++) {
    EXPECT_EQ(s.colBegin[c], 3 * c);
    EXPECT_EQ(colLength[c], 3);
    for (int p = s.colBegin[c]; p < s.colBegin[c + 1]; p++) {
      const int r = s.rowIndex[p];
      ASSERT_LT(r, 3);
      if (r != c || c != 0) {
        EXPECT_EQ(s.matValue[p], s.get(r + 3, c + 3));
      }
    }
  }
  EXPECT_EQ(pre->colMap[4], 1);
  EXPECT_EQ(pre->rowMap[5], 2);
}

TEST_F(EqnSolve, EliminationIntoARowWithoutDiagonalFillsIt) {
  // Row 0 is eliminated into row 1, which has no diagonal until then.
  System s(4);
  s.at(0, 0) = 2.0;
  s.pair(0, 1, 1.0);
  s.pair(1, 2, 1.0);
  s.pair(1, 3, 1.0);
  s.at(2, 2) = 3.0;
  s.pair(2, 3, 1.0);
  s.at(3, 3) = 4.0;
  s.rhsFor({1.0, 2.0, -1.0, 0.5});
  ASSERT_EQ(s.solve(&env), 0);
  EXPECT_EQ(gFactorCalls, 1);
  EXPECT_EQ(gFactorDim, 3);
  expectNear(s.rhs, {1.0, 2.0, -1.0, 0.5}, 1e-10);

  ASSERT_EQ(presolveOnly(s), 0);
  // Three entries of row and column 0 left, and the new diagonal came in.
  EXPECT_EQ(pre->numRemovedElement, 2);
  ASSERT_EQ(model.numCoef, 9);
  bool found = false;
  for (int p = s.colBegin[0]; p < s.colBegin[1]; p++)
    if (s.rowIndex[p] == 0) {
      found = true;
      EXPECT_DOUBLE_EQ(s.matValue[p], -0.5);
    }
  EXPECT_TRUE(found);
}

TEST_F(EqnSolve, NoiseCouplingsAreDroppedBeforeThePresolve) {
  // Diagonal but for couplings of 1e-14: once they go, presolve is enough.
  System s(4);
  for (int i = 0; i < 4; i++) s.at(i, i) = 1.0 + i;
  s.pair(0, 2, 1e-14);
  s.pair(1, 3, -3e-14);
  s.pair(0, 3, 2e-14);
  s.b = {1.0, 2.0, 3.0, 4.0};
  ASSERT_EQ(s.solve(&env), 0);
  EXPECT_EQ(gFactorCalls, 0);
  expectNear(s.rhs, {1.0, 1.0, 1.0, 1.0}, 1e-15);
  EXPECT_LT(s.residual(s.rhs), 1e-12);
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
    std::vector<double> z(n);
    for (int i = 0; i < n; i++) z[i] = 4.0 * next() - 2.0;
    s.rhsFor(z);
    const std::vector<double> reference = denseSolve(s);
    // Singular or badly conditioned draws say nothing about the solver.
    bool usable = s.residual(reference) < 1e-10;
    for (int i = 0; i < n && usable; i++) usable = fabs(reference[i] - z[i]) < 1e-8;
    if (!usable) continue;
    gFactorCalls = 0;
    ASSERT_EQ(s.solve(&env), 0) << "round " << round;
    if (gFactorCalls == 0) presolvedAway++;
    for (int i = 0; i < n; i++) ASSERT_NEAR(s.rhs[i], z[i], 1e-7) << "round " << round << " i " << i;
    checked++;
  }
  EXPECT_GT(checked, 150);
  EXPECT_GT(presolvedAway, 20);
  EXPECT_LT(presolvedAway, checked);
}

// ---- the closest point ----------------------------------------------------------------

// A full 3x3 block that survives the presolve.
System fullBlock(const std::vector<double>& z) {
  System s(3);
  s.at(0, 0) = 4.0;
  s.at(1, 1) = 5.0;
  s.at(2, 2) = 6.0;
  s.pair(0, 1, 1.0);
  s.pair(0, 2, -1.0);
  s.pair(1, 2, 2.0);
  s.rhsFor(z);
  return s;
}

TEST_F(EqnSolve, PointThatSolvesTheSystemComesBackUnchanged) {
  System s = fullBlock({1.0, 2.0, 3.0});
  const std::vector<double> start = {1.0, 2.0, 3.0};
  ASSERT_EQ(s.solve(&env, start.data(), EQN_MODE_TO_POINT), 0);
  EXPECT_EQ(gFactorDim, 6);  // [I K; K 0]
  expectNear(s.rhs, start, 1e-10);
}

TEST_F(EqnSolve, ClosestPointOnASingularSystem) {
  // K = A'A with A of rank 2: the solutions form a line along (-3, 1, 1),
  // and the answer is the one nearest the start.
  System s(3);
  const double a[2][3] = {{1, 2, 1}, {1, 1, 2}};
  for (int i = 0; i < 3; i++)
    for (int j = 0; j < 3; j++) s.at(i, j) = a[0][i] * a[0][j] + a[1][i] * a[1][j];
  const std::vector<double> solution = {1.0, 1.0, 1.0};
  s.rhsFor(solution);
  const std::vector<double> start = {1.0 - 0.3 * 3, 1.0 + 0.3 + 0.1, 1.0 + 0.3 - 0.1};
  ASSERT_EQ(s.solve(&env, start.data(), EQN_MODE_TO_POINT), 0);
  // The start is the point (0.1, 1.3, 1.3) of the line plus (0, 0.1, -0.1),
  // which is orthogonal to the line; the nearest solution drops just that.
  expectNear(s.rhs, {0.1, 1.3, 1.3}, 1e-8);
  EXPECT_LT(s.residual(s.rhs), 1e-8);
}

TEST_F(EqnSolve, SafetyRuleKeepsTheStartWhenTheSolutionJumps) {
  const std::vector<double> solution = {1.0, 2.0, 5e-5};
  System s = fullBlock(solution);
  // Moves of 0.5, 0.5 and 5e-5 from here: all accepted, the last because it
  // is below 1e-4 although it exceeds the start's magnitude of 0.
  const std::vector<double> near = {1.5, 2.5, 0.0};
  ASSERT_EQ(s.solve(&env, near.data(), EQN_MODE_TO_POINT), 0);
  expectNear(s.rhs, solution, 1e-10);

  // Entry 0 would move by 0.75 from 0.25: rejected, the whole start returns.
  const std::vector<double> far = {0.25, 2.0, 0.0};
  ASSERT_EQ(s.solve(&env, far.data(), EQN_MODE_TO_POINT), 0);
  EXPECT_EQ(s.rhs, far);

  // Without a start the point is 0, from which any solution is a jump.
  ASSERT_EQ(s.solve(&env, nullptr, EQN_MODE_TO_POINT), 0);
  expectNear(s.rhs, {0.0, 0.0, 0.0}, 0.0);
}

TEST_F(EqnSolve, ClosestPointOnAReducedSystemUsesMappedStart) {
  // Column 0 goes by presolve; the start of the block is start[1..3].
  System s(4);
  s.at(0, 0) = 2.0;
  System block = fullBlock({1.0, 2.0, 3.0});
  for (int i = 0; i < 3; i++)
    for (int j = 0; j < 3; j++) s.at(i + 1, j + 1) = block.get(i, j);
  s.rhsFor({0.5, 1.0, 2.0, 3.0});
  const std::vector<double> start = {-40.0, 1.2, 2.2, 3.2};
  ASSERT_EQ(s.solve(&env, start.data(), EQN_MODE_TO_POINT), 0);
  EXPECT_EQ(gFactorDim, 6);
  expectNear(s.rhs, {0.5, 1.0, 2.0, 3.0}, 1e-10);
  // A block start far from the answer is kept, the presolved value is not
  // touched by that.
  const std::vector<double> far = {-40.0, 0.2, 2.2, 3.2};
  ASSERT_EQ(s.solve(&env, far.data(), EQN_MODE_TO_POINT), 0);
  expectNear(s.rhs, {0.5, 0.2, 2.2, 3.2}, 0.0);
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
  s.at(0, 1) = 1.0;
  s.at(0, 2) = 1.0;
  s.at(1, 0) = 1.0;
  s.at(2, 1) = 1.0;
  s.at(2, 2) = 3.0;
  s.b = {1, 1, 1};
  EXPECT_EQ(s.solve(&env), IPM_STATUS_FAILED);
  EXPECT_NE(gLog.find("Error removeSingletonEquation: length of column 1 must be 1"),
            std::string::npos)
      << gLog;

  // Column 1 has one entry, but in row 2, not 0.
  System t(4);
  t.at(0, 0) = 2.0;
  t.pair(0, 2, 1.0);
  t.pair(0, 3, 1.0);
  t.at(1, 0) = 1.0;
  t.at(2, 1) = 1.0;
  t.at(2, 2) = 3.0;
  t.pair(2, 3, 1.0);
  t.at(3, 3) = 4.0;
  t.b = {1, 1, 1, 1};
  gLog.clear();
  EXPECT_EQ(t.solve(&env), IPM_STATUS_FAILED);
  EXPECT_NE(gLog.find("Error removeSingletonEquation: row index of column 1 must be 0"),
            std::string::npos)
      << gLog;
}

TEST_F(EqnSolve, OutOfMemoryOnEveryRoute) {
  System diagonal(3);
  for (int i = 0; i < 3; i++) {
    diagonal.at(i, i) = i + 1.0;
    diagonal.b[i] = 1.0;
  }
  refuseEachAllocation(diagonal, nullptr, 0, 0);
  System chained = chain(5);
  refuseEachAllocation(chained, nullptr, 0, 0);
  System partly = mixed();
  refuseEachAllocation(partly, nullptr, 0, 0);
  refuseEachAllocation(partly, nullptr, 0, 1);  // with the check copy
  System block = fullBlock({1, 2, 3});
  const std::vector<double> start = {1.1, 2.1, 3.1};
  refuseEachAllocation(block, start.data(), EQN_MODE_TO_POINT, 0);
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
  int live(int n) const {
    int total = 0;
    for (int j = 0; j < n; j++) total += pre->colLength[j];
    return total;
  }
  int liveRows(int n) const {
    int total = 0;
    for (int i = 0; i < n; i++) total += pre->rowLength[i];
    return total;
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
  System down(3);  // empty
  System shallow = decades(0, 5, 0.0);  // 0.3 down to 3e-6
  System deep = decades(0, 15, 0.0);  // 0.3 down to 3e-16, no empty decade
  for (System* s : {&down, &shallow, &deep}) {
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
  EXPECT_EQ(liveRows(3), 5);
  EXPECT_EQ(pre->colLength[0], 2);
  EXPECT_EQ(pre->colLength[2], 1);
  EXPECT_EQ(pre->rowLength[0], 2);
  EXPECT_EQ(pre->rowLength[2], 1);
  // The survivors are intact, in both copies.
  EXPECT_EQ(pre->rowIndex[pre->colBegin[2]], 2);
  EXPECT_EQ(pre->matValue[pre->colBegin[2]], 4.0);
  EXPECT_EQ(pre->colIndex[pre->rowBegin[2]], 2);
  EXPECT_EQ(pre->rowMatValue[pre->rowBegin[2]], 4.0);
}

TEST_F(Noise, LoneTinyEntryGoesWithOrWithoutAGap) {
  // Below 3e-16 the decades are empty: an ordinary gap.
  System s = decades(0, 15, 1e-25);
  detect(s);
  EXPECT_LT(pre->noiseThreshold, 1e-17);
  EXPECT_EQ(pre->numRemovedElement, 2);
  ASSERT_EQ(removeNoiseA(&env, &model, pre), 0);
  EXPECT_EQ(live(s.n), (int)s.rowIndex.size() - 2);
  EXPECT_EQ(pre->colLength[s.n - 1], 1);
  EXPECT_EQ(pre->rowLength[s.n - 1], 1);
  EXPECT_EQ(liveRows(s.n), live(s.n));

  // Every decade down to 3e-19 is taken, so there is no gap; the last bin
  // still goes, and only it.
  System t = decades(0, 18, 1e-25);
  detect(t);
  EXPECT_LT(pre->noiseThreshold, 1e-18);
  EXPECT_GT(pre->noiseThreshold, 1e-20);
  EXPECT_EQ(pre->numRemovedElement, 2);
  ASSERT_EQ(removeNoiseA(&env, &model, pre), 0);
  EXPECT_EQ(live(t.n), (int)t.rowIndex.size() - 2);
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
  EXPECT_EQ(pre->rowLength[1], 1);
  EXPECT_EQ(pre->colIndex[pre->rowBegin[0]], 0);
  EXPECT_EQ(pre->colIndex[pre->rowBegin[0] + 1], 2);
}

TEST(NoiseVectors, SecondVectorThenFirstAtOrBelowThreshold) {
  double rhs[] = {1e-9, -1e-9, 2e-9, 0.5};
  double obj[] = {-1e-10, 3.0};
  removeNoiseBC(1e-9, 4, 2, rhs, obj);
  EXPECT_EQ(rhs[0], 0.0);
  EXPECT_EQ(rhs[1], 0.0);
  EXPECT_EQ(rhs[2], 2e-9);
  EXPECT_EQ(rhs[3], 0.5);
  EXPECT_EQ(obj[0], 0.0);
  EXPECT_EQ(obj[1], 3.0);
  removeNoiseBC(1.0, 0, 2, nullptr, obj);
  EXPECT_EQ(obj[1], 3.0);
}

}  // namespace
