// Scaling through bramlet and on its own: the histograms and outlier cuts
// behind it, the QP objective rule, and the round trip back.
#include <math.h>

#include <string>
#include <utility>
#include <vector>

#include "frame/qv.h"
#include "ipm/histogram.h"
#include "ipm/scale.h"
#include "records/model.h"
#include "support/oom.h"
#include "siblings/bramlet/bramlet.h"
#include "support/support.h"

namespace {

using hxtest::logged;
using hxtest::textLines;

// ---- bramlet, watched ----------------------------------------------------------------
//
// bramlet's own scaling behind a spy that records what it was handed, or
// fails where a test asks.  Its factors are powers of two, so that a round
// trip must come back bit for bit.

const double kInf = 1e20;

struct Spy {
  void* instance = nullptr;
  int64_t numRow = -1, numCol = -1;
  double *rowScale = nullptr, *colScale = nullptr;
  int scaleCalls = 0, unscaleCalls = 0;
  bool scaleArgsAsHanded = false;    // tolerance, instance, sizes, nulls, factors at one
  bool unscaleArgsAsHanded = false;  // direction, scale arrays, nulls, no reduced costs
  double* rowActivity = nullptr;
  double largestSeen = 0, smallestSeen = HUGE_VAL;  // over A, obj, rhs
  int64_t scaleResult = 0, unscaleResult = 0;
  void note(double v) {
    if (v == 0.0) return;
    largestSeen = fmax(largestSeen, fabs(v));
    smallestSeen = fmin(smallestSeen, fabs(v));
  }
} gB;

int64_t spyScale(double tolerance, void* instance, int64_t direction, int64_t numRow,
                 int64_t numCol, int64_t numCoef, int32_t* colBegin, int32_t* colLength,
                 int32_t* rowIndex, double* matValue, double* obj, double* lower, double* upper,
                 double* rowScale, double* colScale, void* n1, void* n2, double* rhs, char* sense,
                 double* range, void* n3, void* n4, void* n5, void* n6) {
  gB.scaleCalls++;
  gB.scaleArgsAsHanded = tolerance == 3e-7 && direction == 1 && instance == gB.instance &&
                         numRow == gB.numRow &&
                         numCol == gB.numCol && !n1 && !n2 && !n3 && !n4 && !n5 && !n6;
  for (int64_t i = 0; i <= numRow; i++) gB.scaleArgsAsHanded &= rowScale[i] == 1.0;
  for (int64_t j = 0; j <= numCol; j++) gB.scaleArgsAsHanded &= colScale[j] == 1.0;
  gB.rowScale = rowScale;
  gB.colScale = colScale;
  for (int64_t j = 0; j < numCol; j++) {
    for (int32_t p = colBegin[j]; p < colBegin[j] + colLength[j]; p++) gB.note(matValue[p]);
    gB.note(obj[j]);
  }
  for (int64_t i = 0; i < numRow; i++) gB.note(rhs[i]);
  if (gB.scaleResult) return gB.scaleResult;
  return bramlet::scale(tolerance, nullptr, direction, numRow, numCol, numCoef, colBegin,
                        colLength, rowIndex, matValue, obj, lower, upper, rowScale, colScale, n1,
                        n2, rhs, sense, range, n3, n4, n5, n6);
}

int64_t spyUnscale(int64_t direction, int64_t numRow, int64_t numCol, int32_t* colBegin,
                   int32_t* colLength, int32_t* rowIndex, double* matValue, double* rhs,
                   double* range, double* obj, double* lower, double* upper, void* n1, void* n2,
                   double* rowScale, double* colScale, double* solPrimal, double* solDual,
                   double* reducedCost, double* rowActivity) {
  gB.unscaleCalls++;
  gB.unscaleArgsAsHanded = direction == 1 && numRow == gB.numRow && numCol == gB.numCol &&
                           rowScale == gB.rowScale && colScale == gB.colScale && !n1 && !n2 &&
                           !reducedCost;
  gB.rowActivity = rowActivity;
  if (gB.unscaleResult) return gB.unscaleResult;
  return bramlet::unscale(direction, numRow, numCol, colBegin, colLength, rowIndex, matValue, rhs,
                          range, obj, lower, upper, n1, n2, rowScale, colScale, solPrimal,
                          solDual, reducedCost, rowActivity);
}

// ---- models built in code ----------------------------------------------------------

using Column = std::vector<std::pair<int32_t, double>>;

struct TestModel {
  std::vector<int32_t> colBegin, colLength, rowIndex;
  std::vector<double> matValue, obj, rhs, range, lower, upper;
  std::vector<double> quadDiag, quadMatValue;
  std::vector<int32_t> quadColBegin, quadColLength, quadRowIndex;
  std::vector<char> sense;
  std::vector<double> x, y, activity;
  ipmModel model{};

  // One spare slot behind each column holds a removed entry that must never
  // be looked at.
  TestModel(int32_t numRow, const std::vector<Column>& columns, int32_t type = IPM_MODEL_LP) {
    const int32_t numCol = (int32_t)columns.size();
    for (const Column& column : columns) {
      colBegin.push_back((int32_t)rowIndex.size());
      colLength.push_back((int32_t)column.size());
      model.numCoef += (int32_t)column.size();
      for (const auto& e : column) rowIndex.push_back(e.first), matValue.push_back(e.second);
      rowIndex.push_back(0);
      matValue.push_back(1e30);
    }
    colBegin.push_back((int32_t)rowIndex.size());
    obj = lower = quadDiag = std::vector<double>(numCol, 0.0);
    upper.assign(numCol, kInf);
    rhs = range = std::vector<double>(numRow, 0.0);
    sense.assign(numRow, 'E');
    x.assign(numCol, 1.0);
    y = activity = std::vector<double>(numRow, 1.0);
    quadColBegin.assign(numCol + 1, 0);
    quadColLength.assign(numCol, 0);
    model.typeModel = type;
    model.numRow = numRow;
    model.numCol = numCol;
    relink();
  }
  void relink() {
    model.colBegin = colBegin.data();
    model.colLength = colLength.data();
    model.rowIndex = rowIndex.data();
    model.matValue = matValue.data();
    model.obj = obj.data();
    model.rhs = rhs.data();
    model.range = range.data();
    model.lower = lower.data();
    model.upper = upper.data();
    model.rowSense = sense.data();
    model.solPrimal = x.data();
    model.solDual = y.data();
    model.rowActivity = activity.data();
    if (model.typeModel == IPM_MODEL_QP) {
      model.quadDiag = quadDiag.data();
      model.quadColBegin = quadColBegin.data();
      model.quadColLength = quadColLength.data();
      model.quadRowIndex = quadRowIndex.empty() ? nullptr : quadRowIndex.data();
      model.quadMatValue = quadMatValue.empty() ? nullptr : quadMatValue.data();
      model.numQuadCoef = (int32_t)quadMatValue.size();
    }
  }
  // Everything that scaling may touch, for comparisons before and after.
  std::vector<double> numbers() const {
    std::vector<double> all;
    for (auto* v : {&matValue, &obj, &rhs, &range, &lower, &upper, &quadDiag, &quadMatValue})
      all.insert(all.end(), v->begin(), v->end());
    return all;
  }
};

void expectNear(const std::vector<double>& after, const std::vector<double>& before) {
  ASSERT_EQ(after.size(), before.size());
  for (size_t k = 0; k < before.size(); k++)
    EXPECT_NEAR(after[k], before[k], 1e-15 * fabs(before[k])) << k;
}

// numRow rows, each column holding perColumn values on rows j, j+1, ...
// (mod numRow).
TestModel spread(int32_t numRow, const std::vector<double>& values, int32_t perColumn) {
  std::vector<Column> columns;
  for (size_t k = 0; k < values.size(); k += perColumn) {
    Column column;
    for (size_t t = k; t < values.size() && t < k + perColumn; t++)
      column.push_back({(int32_t)((columns.size() + (t - k)) % numRow), values[t]});
    columns.push_back(column);
  }
  return TestModel(numRow, columns);
}

// Values near 1, spread over (0.5, 2), none equal to a break.
std::vector<double> nearOne(int n) {
  std::vector<double> v;
  for (int i = 0; i < n; i++) v.push_back((i % 2 ? -1.0 : 1.0) * (0.55 + 1.4 * (i % 97) / 97.0));
  return v;
}
// 100 values: 88 near 1 and three each at lowBreak[7], lowBreak[6], 1e6 and
// -5e6.  The limit is 5 per tail, so each tail stops after one group.
std::vector<double> withOutlierGroups(const double* lowBreak) {
  std::vector<double> v = nearOne(88);
  for (int i = 0; i < 3; i++) v.insert(v.end(), {lowBreak[7], lowBreak[6], 1e6, -5e6});
  return v;
}
std::vector<double> withLargeOutliers() {
  std::vector<double> v = nearOne(96);
  v.insert(v.end(), 4, 1e12);
  return v;
}

class Scale : public HostTest {
 protected:
  Scale() {
    textLines().clear();
    gB = Spy();
    for (void*& slot : bramlet) slot = nullptr;
    bramlet[BRAMLET_SLOT_SCALE] = reinterpret_cast<void*>(&spyScale);
    bramlet[BRAMLET_SLOT_UNSCALE] = reinterpret_cast<void*>(&spyUnscale);
    gB.instance = bramlet;
    env.preObject = bramlet;
    env.textLog = hxtest::captureText;
    option.primalTol = 3e-7;
    option.infinity = kInf;
    storage = poolNew<ipmStorage>(pool, 1);
  }
  ~Scale() override { FreeStorage(&env, storage); }
  int32_t scale(TestModel& m) {
    gB.numRow = m.model.numRow;
    gB.numCol = m.model.numCol;
    return ipmScale(&env, &m.model, &option, storage);
  }
  int32_t unscale(TestModel& m, ipmSolution* sol = nullptr) {
    return ipmUnscale(&env, &m.model, &option, storage, sol);
  }

  void* bramlet[26];
  ipmOption option{};
  ipmStorage* storage = nullptr;
};


// ---- the QP objective rule ---------------------------------------------------------

TestModel smallQP(const std::vector<double>& diag) {
  TestModel m(3, {{{0, 1.0}, {1, -1.0}}, {{1, 1.0}, {2, 1.0}}, {{0, 1.0}, {2, -1.0}}},
              IPM_MODEL_QP);
  m.obj = {1.0, -3.0, 0.5};
  m.quadDiag = diag;
  m.quadColBegin = {0, 1, 1, 1};
  m.quadColLength = {1, 0, 0};
  m.quadRowIndex = {2, 9};
  m.quadMatValue = {0.25, 1e30};  // the second is a removed entry
  m.relink();
  m.model.numQuadCoef = 1;
  return m;
}

// The objective factor: a QP's against its diagonal, capped, with the
// constraints left alone; an LP's boost against the matrix's median.  Each
// is undone on the way back.  QPs first: they own no scale arrays.
TEST_F(Scale, ObjectiveFactorRulesAndTheirRoundTrip) {
  const double lpLarge = 0.55 / 5.5e4;  // interpolated medians of A and of the objective
  const struct {
    const char* name;
    std::vector<double> qpDiag;  // empty: an LP through bramlet
    double lpSize, lo, hi;       // the range of the factor
  } cases[] = {
      {"QP, no diagonal", {0.0, 0.0, 0.0}, 0, 1.0, 1.0},
      {"QP, in step", {0.7, 1.3, 0.9}, 0, 1.0, 1.0},
      {"QP, only two quartiles apart", {1e-9, 1e-9, 1.0}, 0, 1.0, 1.0},
      {"QP, medians 0.55 and 5.5e7: exactly 1e-8", {5e7, 6e7, 0.0}, 0, 1.0, 1.0},
      {"QP, large diagonal", {1e4, 2e4, 3e4}, 0, 1e-6, 1e-3},
      {"QP, near 1e8 apart: capped", {1e-8, 1e-8, 1e-8}, 0, 1e6, 1e6},
      {"LP, zero objective", {}, 0.0, 1.0, 1.0},
      {"LP, large objective brought down", {}, 3e4, lpLarge - 1e-18, lpLarge + 1e-18},
      {"LP, tiny objective boosted while its Q3 is above 1e-10", {}, 1e-4, 1e3, HUGE_VAL},
      {"LP, objective under 1e-10", {}, 1e-11, 1.0, 1.0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const bool qp = !c.qpDiag.empty();
    TestModel m = qp ? smallQP(c.qpDiag) : spread(5, nearOne(30), 3);
    for (int32_t j = 0; !qp && j < m.model.numCol; j++) m.obj[j] = c.lpSize * (1 + j % 3);
    const std::vector<double> before = m.numbers();
    const int64_t blocks = liveBlocks();
    gB.scaleCalls = 0;
    ASSERT_EQ(scale(m), 0);
    const double f = storage->objScale;
    EXPECT_GE(f, c.lo);
    EXPECT_LE(f, c.hi);
    if (!qp) {
      EXPECT_EQ(storage->rowScale[m.model.numRow], f);
      EXPECT_LT(gB.largestSeen, 10.0);  // a large objective reaches bramlet brought down
      ASSERT_EQ(unscale(m), 0);
      expectNear(m.numbers(), before);
      continue;
    }
    EXPECT_EQ(gB.scaleCalls, 0);
    EXPECT_EQ(liveBlocks(), blocks);
    EXPECT_EQ(m.matValue[0], 1.0);
    EXPECT_EQ(m.obj[1], -3.0 * f);
    EXPECT_EQ(m.quadDiag[0], c.qpDiag[0] * f);
    EXPECT_EQ(m.quadMatValue, (std::vector<double>{0.25 * f, 1e30}));
    ipmSolution* sol = nullptr;
    ASSERT_EQ(NewSolution(&env, &sol, 3, 3, m.x.data(), m.y.data()), 0);
    for (int j = 0; j < 3; j++) {
      sol->lowerDual[j] = 2.0 * f;
      sol->upperDual[j] = -4.0 * f;
      sol->lowerSlack[j] = 7.0;
      m.x[j] = 3.0;
    }
    m.y = {1.0 * f, 2.0 * f, 0.0};
    m.relink();
    ASSERT_EQ(unscale(m, sol), 0);
    EXPECT_EQ(gB.unscaleCalls, 0);
    for (int j = 0; j < 3; j++) {
      EXPECT_EQ(sol->lowerDual[j], 2.0);
      EXPECT_EQ(sol->upperDual[j], -4.0);
      EXPECT_EQ(sol->lowerSlack[j], 7.0);
      EXPECT_EQ(m.x[j], 3.0);
    }
    EXPECT_EQ(m.y, (std::vector<double>{1.0, 2.0, 0.0}));
    if (f == 1.0) {
      EXPECT_EQ(m.numbers(), before);
    } else {
      expectNear(m.numbers(), before);
    }
    FreeSolution(&env, sol);
  }
}

// ---- the LP path through bramlet -----------------------------------------------------

TEST_F(Scale, CallsScaleServiceAndRoundTripsExactly) {
  TestModel m = spread(7, nearOne(60), 3);
  for (int32_t j = 0; j < m.model.numCol; j++) m.obj[j] = (j % 3) ? 1.5 : -0.75;
  for (int32_t i = 0; i < 7; i++) m.rhs[i] = i - 3.0;
  m.lower[1] = -4.0;
  m.upper[2] = 6.0;
  m.sense[3] = 'R';
  m.range[3] = 2.0;
  const std::vector<double> before = m.numbers();
  const int32_t numRow = 7, numCol = m.model.numCol;

  ASSERT_EQ(scale(m), 0);
  ASSERT_EQ(gB.scaleCalls, 1);
  EXPECT_TRUE(gB.scaleArgsAsHanded);
  EXPECT_EQ(gB.rowScale, storage->rowScale);
  EXPECT_EQ(gB.colScale, storage->colScale);
  EXPECT_EQ(storage->objScale, 1.0);  // in step: no boost
  const std::vector<double> r(storage->rowScale, storage->rowScale + numRow),
      c(storage->colScale, storage->colScale + numCol);
  EXPECT_EQ(m.matValue[0], before[0] * r[m.rowIndex[0]] * c[0]);

  // Unscale with a solution record in the scaled space.
  ipmSolution* sol = nullptr;
  ASSERT_EQ(NewSolution(&env, &sol, numRow, numCol, m.x.data(), m.y.data()), 0);
  for (int32_t j = 0; j < numCol; j++) {
    sol->lowerSlack[j] = 3.0;
    sol->lowerDual[j] = 0.75;
    m.x[j] = 2.0;
  }
  for (int32_t i = 0; i < numRow; i++) {
    sol->ineqnSlack[i] = 6.0;
    m.y[i] = 1.0;
    m.activity[i] = 4.0;
  }
  ASSERT_EQ(unscale(m, sol), 0);
  ASSERT_EQ(gB.unscaleCalls, 1);
  EXPECT_TRUE(gB.unscaleArgsAsHanded);
  EXPECT_EQ(gB.rowActivity, m.activity.data());
  EXPECT_EQ(m.numbers(), before);  // bit for bit: all factors are powers of two
  for (int32_t j = 0; j < numCol; j++) {
    EXPECT_EQ(sol->lowerSlack[j], 3.0 * c[j]);
    EXPECT_EQ(sol->lowerDual[j], 0.75 / c[j]);
    EXPECT_EQ(m.x[j], 2.0 * c[j]);
  }
  for (int32_t i = 0; i < numRow; i++) EXPECT_EQ(sol->ineqnSlack[i], 6.0 / r[i]);

  FreeSolution(&env, sol);
}

// The groups sit exactly on bin breaks, so that a break in the wrong bin
// moves a cut and shows here.
TEST_F(Scale, OutliersAreKeptFromServiceAndRestoredScaled) {
  struct {
    int32_t lowCount[HIST_BINS], highCount[HIST_BINS];
    double lowBreak[HIST_BINS], highBreak[HIST_BINS];
  } h;
  initDistribution(h.lowCount, h.lowBreak, h.highCount, h.highBreak);
  TestModel m = spread(9, withOutlierGroups(h.lowBreak), 4);  // obj and rhs empty
  const std::vector<double> before = m.numbers();
  option.verifyLevel = 5;  // the histogram checks pass on real data
  ASSERT_EQ(scale(m), 0);
  EXPECT_EQ(gB.largestSeen, 1e6);             // the 5e6 were screened
  EXPECT_GT(gB.smallestSeen, h.lowBreak[7]);  // and the lowBreak[7]
  int restored = 0;
  for (int32_t j = 0; j < m.model.numCol; j++)
    for (int32_t p = m.colBegin[j]; p < m.colBegin[j] + m.colLength[j]; p++) {
      EXPECT_EQ(m.matValue[p], before[p] * storage->rowScale[m.rowIndex[p]] * storage->colScale[j])
          << p;
      restored += fabs(before[p]) == 5e6 || before[p] == h.lowBreak[7];
    }
  EXPECT_EQ(restored, 6);
  ASSERT_EQ(unscale(m), 0);
  EXPECT_EQ(m.numbers(), before);
  for (const auto& line : textLines()) EXPECT_NE(line.text.compare(0, 5, "Error"), 0) << line.text;

  // Outliers in the objective and the rhs are screened and restored alike.
  TestModel n = spread(10, nearOne(200), 10);  // 20 columns
  for (int32_t j = 0; j < 20; j++) n.obj[j] = 1.0 + j / 64.0;
  for (int32_t i = 0; i < 10; i++) n.rhs[i] = -1.0 - i / 32.0;
  n.obj[5] = 1e9;
  n.rhs[6] = 1e-9;
  const std::vector<double> nBefore = n.numbers();
  gB.largestSeen = 0;
  gB.smallestSeen = HUGE_VAL;
  ASSERT_EQ(scale(n), 0);
  EXPECT_LT(gB.largestSeen, 10.0);
  EXPECT_GT(gB.smallestSeen, 0.1);
  EXPECT_EQ(storage->objScale, 1.0);
  EXPECT_EQ(n.obj[5], 1e9 * storage->colScale[5]);
  EXPECT_EQ(n.obj[4], (1.0 + 4 / 64.0) * storage->colScale[4]);
  EXPECT_EQ(n.rhs[6], 1e-9 * storage->rowScale[6]);
  ASSERT_EQ(unscale(n), 0);
  EXPECT_EQ(n.numbers(), nBefore);
}

// ---- failures ------------------------------------------------------------------------

TEST_F(Scale, ServiceFailuresAreReturnedAndNothingLeaks) {
  TestModel m = spread(9, withLargeOutliers(), 4);
  int64_t blocks = liveBlocks();
  gB.scaleResult = 7;
  EXPECT_EQ(scale(m), 7);
  EXPECT_EQ(storage->objScale, 1.0);  // rowScale[numRow] as handed back
  // Outliers are left at the median: the solve is over.
  for (double x : m.matValue) EXPECT_NE(x, 1e12);
  EXPECT_EQ(liveBlocks(), blocks + 2);  // only the two scale arrays, owned by storage

  gB.scaleResult = 0;
  gB.unscaleResult = 9;
  TestModel n = spread(9, withLargeOutliers(), 4);
  ASSERT_EQ(scale(n), 0);
  EXPECT_EQ(unscale(n), 9);
}

TEST_F(Scale, OutlierCountMismatchIsAnError) {
  // A NaN lands in the high catch-all and is counted as a large outlier, but
  // no comparison marks it: the walk finds one fewer.
  std::vector<double> v = nearOne(40);
  v[7] = NAN;
  TestModel m = spread(6, v, 4);
  EXPECT_EQ(scale(m), IPM_STATUS_FAILED);
  EXPECT_TRUE(logged("Error ipmScale: numOutlier=0 should be 1"));
  EXPECT_EQ(gB.scaleCalls, 0);
}

TEST_F(Scale, OutOfMemoryAtEachAllocation) {
  // Three outlier arrays and two scale arrays, exactly; the checks' own
  // arrays on top; row-only scaling allocates at least once.  A refused run
  // owns no scale array.
  const struct {
    int32_t verifyLevel, rowScaleOnly;
    int64_t refusals;
    bool exact;
  } cases[] = {{0, 0, 5, true}, {5, 0, 6, false}, {0, 1, 1, false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.verifyLevel * 10 + c.rowScaleOnly);
    option.verifyLevel = c.verifyLevel;
    option.rowScaleOnly = c.rowScaleOnly;
    FreeStorage(&env, storage);
    storage = poolNew<ipmStorage>(pool, 1);
    const auto result = hxtest::oomSweep(host, [&](hxtest::OomProbe&) {
      TestModel m = spread(9, withLargeOutliers(), 4);
      const int32_t status = scale(m);
      if (status) {
        EXPECT_EQ(storage->rowScale, nullptr);
        EXPECT_EQ(storage->colScale, nullptr);
      }
      return status;
    });
    EXPECT_EQ(result.finalStatus, 0);
    if (c.exact) {
      EXPECT_EQ(result.refusedRuns, c.refusals);
    } else {
      EXPECT_GE(result.refusedRuns, c.refusals);
    }
  }
}

// ---- row-only scaling ----------------------------------------------------------------

// Row 0 below the threshold of 10, row 1 at it, row 2 raised by its rhs; a
// large objective is divided, and only the duals of scaled rows get its factor
// back.  Packed: row-only scaling runs flat over the stored positions.
TEST_F(Scale, RowOnlyThresholdAndAsymmetricDuals) {
  option.rowScaleOnly = 1;
  TestModel m(3, {{{0, 9.99}, {1, 10.0}, {2, 4.0}}, {{0, 1.0}, {1, 2.0}, {2, -5.0}}});
  m.colBegin = {0, 3, 6};
  m.rowIndex = {0, 1, 2, 0, 1, 2};
  m.matValue = {9.99, 10.0, 4.0, 1.0, 2.0, -5.0};
  m.obj = {50.0, -20.0};
  m.rhs = {0.5, 3.0, -40.0};
  m.relink();
  const std::vector<double> matValue = m.matValue, rhs = m.rhs;
  ASSERT_EQ(scale(m), 0);
  EXPECT_EQ(gB.scaleCalls, 0);
  EXPECT_EQ(storage->colScale, nullptr);
  ASSERT_NE(storage->rowScale, nullptr);
  EXPECT_EQ(std::vector<double>(storage->rowScale, storage->rowScale + 3),
            (std::vector<double>{9.99, 10.0, 40.0}));
  EXPECT_EQ(storage->objScale, 50.0);
  EXPECT_EQ(m.obj, (std::vector<double>{1.0, -0.4}));
  EXPECT_EQ(m.matValue[0], 9.99);
  EXPECT_EQ(m.matValue[1], 1.0);
  EXPECT_EQ(m.matValue[5], -5.0 / 40.0);
  EXPECT_EQ(m.rhs, (std::vector<double>{0.5, 0.3, -1.0}));
  ASSERT_EQ(unscale(m), 0);
  EXPECT_EQ(m.obj, (std::vector<double>{50.0, -20.0}));
  EXPECT_EQ(m.y, (std::vector<double>{1.0, 1.0 / 10.0 * 50.0, 1.0 / 40.0 * 50.0}));
  expectNear(m.matValue, matValue);
  expectNear(m.rhs, rhs);
}

}  // namespace
