// The equation solver and its noise removal: what the presolve takes apart
// and what it leaves to the factorisation, the closest point with its safety
// rule, broken symmetry, noise, and out-of-memory on every route.
#include <math.h>

#include "ipm/ipm.h"
#include "presolve/eqnsolve.h"
#include "support/bridge_seam.h"
#include "support/oom.h"
#include "support/presolve_support.h"

namespace {

using hxtest::Dense;
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

// K z = b given densely; K is stored in full, both triangles, every non-zero
// (the diagonal too) as an ordinary entry.  b defaults to K z for the z given.
struct System {
  Dense k;
  Vec b;
  int n;
  std::vector<int32_t> colBegin, rowIndex;
  Vec matValue, rhs;

  System(Dense matrix, const Vec& z) : k(std::move(matrix)), n((int)k.size()) {
    b = hxtest::multiply(k, z);
  }
  // Fresh caller's arrays; eqnSolve works on them in place.
  int32_t solve(HalvexEnv* env, const Vec* start = nullptr, int32_t mode = 0, int32_t verify = 0) {
    colBegin.assign(1, 0);
    rowIndex.clear();
    matValue.clear();
    for (int j = 0; j < n; j++) {
      for (int i = 0; i < n; i++)
        if (k[i][j] != 0.0) rowIndex.push_back(i), matValue.push_back(k[i][j]);
      colBegin.push_back((int32_t)rowIndex.size());
    }
    rhs = b;
    return eqnSolve(1e20, 1e-8, env, n, n, 1, colBegin.data(), rowIndex.data(), matValue.data(),
                    rhs.data(), start ? const_cast<double*>(start->data()) : nullptr, verify, mode);
  }
  // Dense elimination; NaN where K is singular.
  Vec reference() const {
    Vec x;
    return hxtest::luSolve(k, b, &x) ? x : Vec(n, NAN);
  }
};

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
  void TearDown() override { EXPECT_EQ(liveBlocks(), 0); }
  LdlNumericOverride counting{countingFactor, nullptr};
};

// A path: row i couples only to i - 1 and i + 1.
System chain(int n) {
  Dense k(n, Vec(n, 0.0));
  Vec z(n);
  for (int i = 0; i < n; i++) {
    k[i][i] = 3.0 + i;
    if (i + 1 < n) k[i][i + 1] = k[i + 1][i] = 1.0 - 0.3 * i;
    z[i] = 1.0 + 0.5 * i * (i % 2 ? -1 : 1);
  }
  return System(k, z);
}

const Dense kBlock = {{4, 1, -1}, {1, 5, 2}, {-1, 2, 6}};  // survives the presolve

// Index 0 a diagonal singleton, 1 - 2 a chain into the dense block 3 - 5,
// 6 an empty row and column.
System mixed() {
  return System({{4, 0, 0, 0, 0, 0, 0},
                 {0, 2, 1, 0, 0, 0, 0},
                 {0, 1, 5, -1, 0, 0, 0},
                 {0, 0, -1, 9, 1.2, 0.7, 0},
                 {0, 0, 0, 1.2, 10, 1.2, 0},
                 {0, 0, 0, 0.7, 1.2, 11, 0},
                 {0, 0, 0, 0, 0, 0, 0}},
                {1, -2, 3, 0.5, -1, 2, 0});
}

// Each system against dense elimination, with the size of the part left to
// the factorisation (0: presolve alone).
TEST_F(EqnSolve, PresolveTakesApartWhatItCanAndFactorsTheRest) {
  const std::pair<System, int> cases[] = {
      // z0 + z1 = 3, z0 = 1: the partner row is set aside.
      {System({{1, 1}, {1, 0}}, {1, 2}), 0},
      {chain(9), 0},  // rows of two, eliminated and unwound in reverse
      // A row of two without diagonal is left alone.
      {System({{0, 1, 1}, {1, 2, 1}, {1, 1, 3}}, {1, -1, 2}), 3},
      // Row 0 goes into row 1, which has no diagonal until then.
      {System({{2, 1, 0, 0}, {1, 0, 1, 1}, {0, 1, 3, 1}, {0, 1, 1, 4}}, {1, 2, -1, 0.5}), 3},
      // Diagonal but for couplings of 1e-14, which go first.
      {System({{1, 0, 1e-14, 0}, {0, 2, 0, -3e-14}, {1e-14, 0, 3, 0}, {0, -3e-14, 0, 4}},
              {1, 1, 1, 1}),
       0},
  };
  for (const auto& c : cases) {
    System s = c.first;
    gFactorCalls = 0;
    gFactorDim = -1;
    ASSERT_EQ(s.solve(&env), 0) << s.n;
    EXPECT_EQ(gFactorCalls, c.second ? 1 : 0) << s.n;
    EXPECT_EQ(gFactorDim, c.second ? c.second : -1) << s.n;
    expectNear(s.rhs, s.reference(), 1e-10);
  }
  // All of it at once; the empty variable takes the start's value, or 0.
  System s = mixed();
  const Vec start = {9, 9, 9, 9, 9, 9, 7.5};
  ASSERT_EQ(s.solve(&env, &start), 0);
  EXPECT_EQ(gFactorDim, 3);
  expectNear(s.rhs, {1, -2, 3, 0.5, -1, 2, 7.5}, 1e-10);
  ASSERT_EQ(s.solve(&env), 0);
  EXPECT_EQ(s.rhs[6], 0.0);
  // Lift mode raises a tiny diagonal in the caller's array.
  System lift({{-5e-7, 1, -1}, {1, 5, 2}, {-1, 2, 6}}, {1, 2, 3});
  ASSERT_EQ(lift.solve(&env, nullptr, EQN_MODE_LIFT_DIAGONAL), 0);
  EXPECT_EQ(lift.matValue[0], 1e-6);
  lift.k[0][0] = 1e-6;
  expectNear(lift.rhs, lift.reference(), 1e-9);
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
    Dense k(n, Vec(n, 0.0));
    Vec z(n);
    for (int i = 0; i < n; i++) {
      if (next() < 0.8) k[i][i] = (next() < 0.3 ? -1.0 : 1.0) * (1.0 + 4.0 * next());
      for (int j = i + 1; j < n; j++)
        if (next() < 1.5 / n) k[i][j] = k[j][i] = 2.0 * next() - 1.0;
    }
    for (int i = 0; i < n; i++) z[i] = 4.0 * next() - 2.0;
    System s(k, z);
    // Singular or badly conditioned draws say nothing about the solver.
    const Vec reference = s.reference();
    bool usable = hxtest::residual(k, reference, s.b) < 1e-10;
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

TEST_F(EqnSolve, ClosestPointAndItsSafetyRule) {
  // K = A'A with A = [1 2 1; 1 1 2] of rank 2: the solutions form a line
  // along (-3, 1, 1).  The start is the point (0.1, 1.3, 1.3) of it plus
  // (0, 0.1, -0.1), orthogonal to the line; the nearest solution drops that.
  System line({{2, 3, 3}, {3, 5, 4}, {3, 4, 5}}, {1, 1, 1});
  const Vec onLine = {0.1, 1.4, 1.2};
  ASSERT_EQ(line.solve(&env, &onLine, EQN_MODE_TO_POINT), 0);
  EXPECT_EQ(gFactorDim, 6);  // [I K; K 0]
  expectNear(line.rhs, {0.1, 1.3, 1.3}, 1e-8);

  // Moves of 0.5, 0.5 and 5e-5: all accepted, the last because it is below
  // 1e-4 although it exceeds the start's magnitude of 0.  From 0.25 entry 0
  // would move by 0.75: rejected, the whole start returns.  Without a start
  // the point is 0, from which any solution is a jump.
  System s(kBlock, {1.0, 2.0, 5e-5});
  const Vec near = {1.5, 2.5, 0.0}, far = {0.25, 2.0, 0.0};
  ASSERT_EQ(s.solve(&env, &near, EQN_MODE_TO_POINT), 0);
  expectNear(s.rhs, {1.0, 2.0, 5e-5}, 1e-10);
  ASSERT_EQ(s.solve(&env, &far, EQN_MODE_TO_POINT), 0);
  EXPECT_EQ(s.rhs, far);
  ASSERT_EQ(s.solve(&env, nullptr, EQN_MODE_TO_POINT), 0);
  EXPECT_EQ(s.rhs, Vec(3, 0.0));

  // Column 0 goes by presolve: the block's start is start[1..3], and a block
  // start kept as it is leaves the presolved value alone.
  System r({{2, 0, 0, 0}, {0, 4, 1, -1}, {0, 1, 5, 2}, {0, -1, 2, 6}}, {0.5, 1, 2, 3});
  const Vec mapped = {-40.0, 1.2, 2.2, 3.2}, kept = {-40.0, 0.2, 2.2, 3.2};
  ASSERT_EQ(r.solve(&env, &mapped, EQN_MODE_TO_POINT), 0);
  expectNear(r.rhs, {0.5, 1.0, 2.0, 3.0}, 1e-10);
  ASSERT_EQ(r.solve(&env, &kept, EQN_MODE_TO_POINT), 0);
  EXPECT_EQ(r.rhs, (Vec{0.5, 0.2, 2.2, 3.2}));
}

TEST_F(EqnSolve, BadArgumentsFailedFactorisationAndBrokenSymmetry) {
  System s(kBlock, {1, 2, 3});
  ASSERT_EQ(s.solve(&env), 0);
  EXPECT_EQ(eqnSolve(1e20, 1e-8, &env, 3, 3, 1, nullptr, s.rowIndex.data(), s.matValue.data(),
                     s.rhs.data(), nullptr, 0, 0),
            IPM_STATUS_FAILED);
  gFactorCode = LA_ERR_MEMORY;
  EXPECT_EQ(s.solve(&env), IPM_STATUS_OUT_OF_MEMORY);
  gFactorCode = 99;
  EXPECT_EQ(s.solve(&env), IPM_STATUS_FAILED);
  EXPECT_EQ(s.solve(&env, nullptr, EQN_MODE_TO_POINT), IPM_STATUS_FAILED);
  gFactorCode = -1;

  // Row 1 holds only (1, 0), but column 1 has two entries.
  System twice({{2, 1, 1}, {1, 0, 0}, {0, 1, 3}}, {0, 0, 0});
  twice.b = {1, 1, 1};
  EXPECT_EQ(twice.solve(&env), IPM_STATUS_FAILED);
  EXPECT_TRUE(hxtest::logged("Error removeSingletonEquation: length of column 1 must be 1"));
  // Column 1 has one entry, but in row 2, not 0.
  System elsewhere({{2, 0, 1, 1}, {1, 0, 0, 0}, {1, 1, 3, 1}, {1, 0, 1, 4}}, {0, 0, 0, 0});
  elsewhere.b = {1, 1, 1, 1};
  EXPECT_EQ(elsewhere.solve(&env), IPM_STATUS_FAILED);
  EXPECT_TRUE(hxtest::logged("Error removeSingletonEquation: row index of column 1 must be 0"));
}

TEST_F(EqnSolve, OutOfMemoryOnEveryRoute) {
  const Vec start = {1.1, 2.1, 3.1};
  const struct {
    System s;
    const Vec* start;
    int32_t mode, verifyLevel;
  } routes[] = {{chain(5), nullptr, 0, 0},
                {mixed(), nullptr, 0, 1},  // with the check copy
                {System(kBlock, {1, 2, 3}), &start, EQN_MODE_TO_POINT, 0}};
  for (const auto& r : routes) {
    System s = r.s;
    // A check short of memory before the solve only goes unchecked: the
    // solve itself takes no note of what its checks find.
    hxtest::OomSweep sweep(host);
    if (r.verifyLevel) sweep.absorbed = 0;
    const auto res = sweep.run(
        [&](hxtest::OomProbe&) { return s.solve(&env, r.start, r.mode, r.verifyLevel); });
    EXPECT_EQ(res.finalStatus, 0);
    EXPECT_GT(res.refusedRuns, 10);
    EXPECT_LT(hxtest::residual(s.k, s.rhs, s.b), 1e-8);
  }
}

// One coupling in each decade from first to last, placed mid-decade so that
// no case hangs on the rounding of a break; a non-zero tiny adds one more
// pair, between row 1 and a last row of its own.
Dense decades(int first, int last, double tiny) {
  const int n = last - first + 2 + (tiny != 0.0);
  Dense k(n, Vec(n, 0.0));
  for (int i = 0; i < n; i++) k[i][i] = 1.0;
  for (int d = first; d <= last; d++) k[0][d - first + 1] = k[d - first + 1][0] = 3 * pow(10, -d - 1);
  if (tiny != 0.0) k[1][n - 1] = k[n - 1][1] = tiny;
  return k;
}

// The threshold the noise detection finds, and what the removal leaves: in
// the column copy and in the row copy exactly the entries above it.
TEST_F(EqnSolve, NoiseGoesDownToTheThresholdInBothCopies) {
  const struct {
    Dense k;
    double low, high;  // bracket of the threshold
    int removed;       // -1: the threshold is set by hand to low
  } cases[] = {
      {Dense(3, Vec(3, 0.0)), 1e20, 1e20, 0},
      {decades(0, 15, 0.0), 1e20, 1e20, 0},  // down to 3e-16, no empty decade
      // 3e-13 sits in the bin up to 1e-12; the bin above it is empty.
      {{{2, 0.7, 3e-13}, {0.7, 3, 0}, {3e-13, 0, 4}}, 1e-11 - 1e-24, 1e-11 + 1e-24, 2},
      // Below 3e-16 the decades are empty: an ordinary gap.  To 3e-19 every
      // decade is taken, so there is none; the last bin still goes, alone.
      {decades(0, 15, 1e-25), 1e-20, 1e-17, 2},
      {decades(0, 18, 1e-25), 1e-20, 1e-18, 2},
      {{{1, 1e-8, -1.0000001e-8}, {1e-8, 1, 0}, {-1.0000001e-8, 0, 1}}, 1e-8, 1e-8, -1},
  };
  for (const auto& c : cases) {
    const int n = (int)c.k.size();
    pretest::Problem p = pretest::lp(c.k, std::string(n, 'E'), Vec(n, 1.0), Vec(n, 0.0),
                                     Vec(n, -1e20), Vec(n, 1e20));
    p.type = PRESOLVE_MODEL_EQUATION;
    ipmOption option = pretest::defaultOption();
    option.primalTol = 1e-8;
    presolver* pre = poolNew<presolver>(pool, 1);
    ipmModel* model = p.build();
    ASSERT_EQ(CreatePresolver(&env, model, &option, pre), 0);
    detectNoise(&env, model, pre);
    EXPECT_TRUE(c.removed < 0 || pre->numRemovedElement == c.removed) << n;
    if (c.removed < 0) pre->noiseThreshold = c.low;
    const double threshold = pre->noiseThreshold;
    EXPECT_GE(threshold, c.low) << n;
    EXPECT_LE(threshold, c.high) << n;
    ASSERT_EQ(removeNoiseA(&env, model, pre), 0);
    Dense want(n, Vec(n, 0.0)), byCol = want, byRow = want;
    for (int i = 0; i < n; i++)
      for (int j = 0; j < n; j++)
        if (fabs(c.k[i][j]) > threshold) want[i][j] = c.k[i][j];
    for (int j = 0; j < n; j++) {
      for (int k = pre->colBegin[j]; k < pre->colBegin[j] + pre->colLength[j]; k++)
        byCol[pre->rowIndex[k]][j] += pre->matValue[k];
      for (int k = pre->rowBegin[j]; k < pre->rowBegin[j] + pre->rowLength[j]; k++)
        byRow[j][pre->colIndex[k]] += pre->rowMatValue[k];
    }
    EXPECT_EQ(byCol, want) << n;
    EXPECT_EQ(byRow, want) << n;
    DestroyPresolver(&env, nullptr, pre);
  }
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
