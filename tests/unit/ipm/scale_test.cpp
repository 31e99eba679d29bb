#include <math.h>
#include <stdarg.h>
#include <stdio.h>

#include <string>
#include <utility>
#include <vector>

#include "frame/qv.h"
#include "ipm/scale.h"
#include "verify/verify_distribution.h"
#include "records/model.h"
#include "support/support.h"

namespace {

// ---- text log capture ------------------------------------------------------------

std::vector<std::string> gLines;

void captureLog(const char* format, ...) {
  char buffer[512];
  va_list args;
  va_start(args, format);
  vsnprintf(buffer, sizeof buffer, format, args);
  va_end(args);
  gLines.push_back(buffer);
}

bool logged(const std::string& text) {
  for (const std::string& line : gLines)
    if (line.find(text) != std::string::npos) return true;
  return false;
}

// ---- a stand-in bramlet ------------------------------------------------------------
//
// Scales by powers of two, so that a round trip must come back bit for bit,
// and records what it was handed.

double rowFactor(int64_t i) {
  static const double f[4] = {0.5, 2.0, 4.0, 0.25};
  return f[i % 4];
}
double colFactor(int64_t j) {
  static const double f[4] = {2.0, 0.5, 1.0, 8.0};
  return f[j % 4];
}
const double kObjFactor = 0.125;
const double kInf = 1e20;

struct ScaleCall {
  int calls = 0;
  double tolerance = 0;
  int64_t direction = 0;
  double* obj = nullptr;
  bool argumentsAsHanded = false;  // instance, sizes, nulls, factors at one
  double largestSeen = 0, smallestSeen = HUGE_VAL;  // over A, obj, rhs
  int64_t result = 0;
};
struct UnscaleCall {
  int calls = 0;
  bool argumentsAsHanded = false;  // direction, scale arrays, nulls, no reduced costs
  double* rowActivity = nullptr;
  int64_t result = 0;
};
ScaleCall gScale;
UnscaleCall gUnscale;
void* gInstance = nullptr;
int64_t gNumRow = -1, gNumCol = -1;
double *gRowScale = nullptr, *gColScale = nullptr;

void note(double v) {
  if (v == 0.0) return;
  gScale.largestSeen = fmax(gScale.largestSeen, fabs(v));
  gScale.smallestSeen = fmin(gScale.smallestSeen, fabs(v));
}

int64_t fakeScale(double tolerance, void* instance, int64_t direction, int64_t numRow,
                  int64_t numCol, int64_t, int32_t* colBegin, int32_t* colLength,
                  int32_t* rowIndex, double* matValue, double* obj, double* lower, double* upper,
                  double* rowScale, double* colScale, void* n1, void* n2, double* rhs, char*,
                  double* range, void* n3, void* n4, void* n5, void* n6) {
  ScaleCall& c = gScale;
  c.calls++;
  c.tolerance = tolerance;
  c.direction = direction;
  c.obj = obj;
  c.argumentsAsHanded = instance == gInstance && numRow == gNumRow && numCol == gNumCol &&
                        !n1 && !n2 && !n3 && !n4 && !n5 && !n6;
  for (int64_t i = 0; i <= numRow; i++) c.argumentsAsHanded &= rowScale[i] == 1.0;
  for (int64_t j = 0; j <= numCol; j++) c.argumentsAsHanded &= colScale[j] == 1.0;
  gRowScale = rowScale;
  gColScale = colScale;
  if (c.result) return c.result;

  for (int64_t i = 0; i < numRow; i++) rowScale[i] = rowFactor(i);
  for (int64_t j = 0; j < numCol; j++) colScale[j] = colFactor(j);
  rowScale[numRow] = kObjFactor;
  for (int64_t j = 0; j < numCol; j++) {
    for (int32_t p = colBegin[j]; p < colBegin[j] + colLength[j]; p++) {
      note(matValue[p]);
      matValue[p] *= rowScale[rowIndex[p]] * colScale[j];
    }
    note(obj[j]);
    obj[j] *= kObjFactor * colScale[j];
    if (lower[j] > -kInf) lower[j] /= colScale[j];
    if (upper[j] < kInf) upper[j] /= colScale[j];
  }
  for (int64_t i = 0; i < numRow; i++) {
    note(rhs[i]);
    rhs[i] *= rowScale[i];
    if (range) range[i] *= rowScale[i];
  }
  return 0;
}

int64_t fakeUnscale(int64_t direction, int64_t numRow, int64_t numCol, int32_t* colBegin,
                    int32_t* colLength, int32_t* rowIndex, double* matValue, double* rhs,
                    double* range, double* obj, double* lower, double* upper, void* n1, void* n2,
                    double* rowScale, double* colScale, double* solPrimal, double* solDual,
                    double* reducedCost, double* rowActivity) {
  UnscaleCall& c = gUnscale;
  c.calls++;
  c.argumentsAsHanded = direction == 1 && numRow == gNumRow && numCol == gNumCol &&
                        rowScale == gRowScale && colScale == gColScale && !n1 && !n2 &&
                        !reducedCost;
  c.rowActivity = rowActivity;
  if (c.result) return c.result;
  const double f = rowScale[numRow];
  for (int64_t j = 0; j < numCol; j++) {
    for (int32_t p = colBegin[j]; p < colBegin[j] + colLength[j]; p++)
      matValue[p] /= rowScale[rowIndex[p]] * colScale[j];
    obj[j] /= f * colScale[j];
    if (lower[j] > -kInf) lower[j] *= colScale[j];
    if (upper[j] < kInf) upper[j] *= colScale[j];
    solPrimal[j] *= colScale[j];
  }
  for (int64_t i = 0; i < numRow; i++) {
    rhs[i] /= rowScale[i];
    if (range) range[i] /= rowScale[i];
    solDual[i] *= rowScale[i] / f;
    if (rowActivity) rowActivity[i] /= rowScale[i];
  }
  return 0;
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

struct Histogram {
  int32_t lowCount[HIST_BINS], highCount[HIST_BINS];
  double lowBreak[HIST_BINS], highBreak[HIST_BINS];
  Histogram() { initDistribution(lowCount, lowBreak, highCount, highBreak); }
  explicit Histogram(const std::vector<double>& values) : Histogram() { add(values); }
  void add(const std::vector<double>& values) {
    int32_t n = 0;
    getVectorDistribution(nullptr, (int32_t)values.size(), values.data(), &n, lowCount,
                          lowBreak, highCount, highBreak);
  }
  double percentile(double f, int32_t count, int32_t mode = 0, int32_t* out = nullptr) const {
    return getPercentile(f, count, mode, out, lowCount, lowBreak, highCount, highBreak);
  }
  int32_t total() const {
    int32_t n = 0;
    for (int i = 0; i < HIST_BINS; i++) n += lowCount[i] + highCount[i];
    return n;
  }
  struct Outliers {
    int32_t found, left, right;
    double large, small;
  };
  Outliers outliers(HalvexEnv* env, int32_t count) {
    Outliers o{};
    o.found = countOutlier(env, count, &o.left, &o.right, &o.large, &o.small, lowCount, lowBreak,
                           highCount, highBreak);
    return o;
  }
  int32_t verify(HalvexEnv* env, int32_t level, const std::vector<double>& data) {
    return VerifyDistribution(env, level, (int32_t)data.size(), data.data(), lowCount, lowBreak,
                              highCount, highBreak);
  }
};

class Scale : public HostTest {
 protected:
  Scale() {
    gLines.clear();
    gScale = ScaleCall();
    gUnscale = UnscaleCall();
    for (void*& slot : bramlet) slot = nullptr;
    bramlet[BRAMLET_SLOT_SCALE] = reinterpret_cast<void*>(&fakeScale);
    bramlet[BRAMLET_SLOT_UNSCALE] = reinterpret_cast<void*>(&fakeUnscale);
    gInstance = bramlet;
    env.preObject = bramlet;
    env.textLog = captureLog;
    option.primalTol = 3e-7;
    option.infinity = kInf;
    storage = poolNew<ipmStorage>(pool, 1);
  }
  ~Scale() override { FreeStorage(&env, storage); }
  int32_t scale(TestModel& m) {
    gNumRow = m.model.numRow;
    gNumCol = m.model.numCol;
    return ipmScale(&env, &m.model, &option, storage);
  }
  int32_t unscale(TestModel& m, ipmSolution* sol = nullptr) {
    return ipmUnscale(&env, &m.model, &option, storage, sol);
  }

  void* bramlet[26];
  ipmOption option{};
  ipmStorage* storage = nullptr;
};

// ---- histogram ---------------------------------------------------------------------

TEST_F(Scale, BreaksAreRunningProductsAndBinEdges) {
  Histogram h;
  double low = 1.0, high = 1.0;
  for (int i = 0; i < HIST_BINS; i++, low *= 0.1, high *= 10.0) {
    EXPECT_EQ(h.lowBreak[i], low) << i;
    EXPECT_EQ(h.highBreak[i], high) << i;
    EXPECT_EQ(h.lowCount[i] + h.highCount[i], 0);
  }
  // The running product is what the bins use, and it is not the literal.
  EXPECT_NE(h.lowBreak[3], 1e-3);

  const double* lb = h.lowBreak;
  const double* hb = h.highBreak;
  struct Case {
    double value;
    bool low;
    int bin;
  } cases[] = {
      {1.0, true, 0},                         // exactly 1 is low bin 0
      {-1.0, true, 0},                        // by magnitude
      {nextafter(1.0, 2.0), false, 0},        // just above 1
      {lb[1], true, 1},                       // a low break belongs to the bin above it
      {nextafter(lb[1], 1.0), true, 0},
      {nextafter(lb[15], 1.0), true, 14},
      {lb[15], true, 15},                     // the low catch-all
      {1e-300, true, 15},
      {hb[1], false, 0},                      // a high break belongs to the bin below it
      {nextafter(hb[1], 1e3), false, 1},
      {hb[15], false, 14},
      {nextafter(hb[15], 1e300), false, 15},  // the high catch-all
      {HUGE_VAL, false, 15},
  };
  Histogram all;
  for (const Case& c : cases) {
    Histogram one({c.value});
    all.add({c.value});
    EXPECT_EQ(one.total(), 1) << c.value;
    EXPECT_EQ(c.low ? one.lowCount[c.bin] : one.highCount[c.bin], 1)
        << "value " << c.value << " expected in " << (c.low ? "low " : "high ") << c.bin;
  }
  // Bin 16 of either half is never used.
  EXPECT_EQ(all.lowCount[16] + all.highCount[16], 0);
}

TEST_F(Scale, VectorSkipsZerosMatrixCountsThem) {
  Histogram h;
  std::vector<double> v{0.0, 3.0, 0.0, -0.5};
  int32_t nz = -1;
  getVectorDistribution(&env, 4, v.data(), &nz, h.lowCount, h.lowBreak, h.highCount,
                        h.highBreak);
  EXPECT_EQ(nz, 2);
  EXPECT_EQ(h.total(), 2);
  EXPECT_EQ(h.lowCount[15], 0);

  // Live entries only: the removed entry of 1e30 behind each column must not
  // be counted.  Counts add to what is there.
  TestModel m(2, {{{0, 0.0}, {1, 5.0}}, {{1, 0.2}}});
  getMatrixDistribution(&env, m.model.numCol, m.model.colBegin, m.model.colLength,
                        m.model.matValue, h.lowCount, h.lowBreak, h.highCount, h.highBreak);
  EXPECT_EQ(h.total(), 5);
  EXPECT_EQ(h.lowCount[15], 1);  // the stored zero
  EXPECT_EQ(h.highCount[0], 2);  // 3 and 5
  EXPECT_EQ(h.highCount[15], 0);

  // Without lengths, column j ends where j + 1 begins.
  Histogram packed;
  std::vector<int32_t> begin{0, 2, 3};
  std::vector<double> value{1e-20, 2e5, 7.0};
  getMatrixDistribution(&env, 2, begin.data(), nullptr, value.data(), packed.lowCount,
                        packed.lowBreak, packed.highCount, packed.highBreak);
  EXPECT_EQ(packed.lowCount[15], 1);
  EXPECT_EQ(packed.highCount[5], 1);
  EXPECT_EQ(packed.highCount[0], 1);

  // The quadratic form: |d * m * x^2| for non-zero d.
  Histogram quad;
  std::vector<double> diag{2.0, 0.0, -1.0}, x{10.0, 5.0, 0.0};
  getQuadDistribution(0.5, &env, 3, diag.data(), &nz, x.data(), quad.lowCount, quad.lowBreak,
                      quad.highCount, quad.highBreak);
  EXPECT_EQ(nz, 2);
  EXPECT_EQ(quad.highCount[1], 1);  // 100
  EXPECT_EQ(quad.lowCount[15], 1);  // zero from x = 0
}

TEST_F(Scale, Percentiles) {
  Histogram h({0.5, 0.5, 5.0, 5.0});  // two in low bin 0, two in high bin 0
  int32_t out = 99;
  EXPECT_DOUBLE_EQ(h.percentile(0.25, 4, 0, &out), (1.0 - h.lowBreak[1]) * 0.5 + h.lowBreak[1]);
  EXPECT_EQ(out, 99);  // mode 0 leaves it alone
  EXPECT_DOUBLE_EQ(h.percentile(0.5, 4), 1.0);
  EXPECT_DOUBLE_EQ(h.percentile(0.75, 4), 5.5);
  // Modes 1 and 2 give a bin edge and count what lies beyond or below it.
  const struct { double f; int32_t mode; double value; int32_t count; } modes[] = {
      {0.5, 1, 10.0, 0}, {0.5, 2, 1.0, 2}, {0.1, 1, 1.0, 2}, {0.5, 7, 0.0, 0}};
  for (const auto& c : modes) {
    EXPECT_EQ(h.percentile(c.f, 4, c.mode, &out), c.value) << c.f << " mode " << c.mode;
    EXPECT_EQ(out, c.count) << c.f << " mode " << c.mode;
  }
  EXPECT_EQ(h.percentile(0.1, 4, 1, nullptr), 1.0);
  out = 5;
  EXPECT_EQ(h.percentile(0.5, 0, 1, &out), 0.0);
  EXPECT_EQ(out, 0);
  EXPECT_EQ(h.percentile(0.5, -3, 0, nullptr), 0.0);
  // Past the last value the walk ends in the empty high catch-all: finite.
  EXPECT_EQ(h.percentile(1.0, 4), h.highBreak[15]);

  // Values in the catch-alls: their one edge is all there is.
  Histogram extremes({1e-40, 1e40});
  EXPECT_EQ(extremes.percentile(0.0, 2), extremes.lowBreak[16]);
  EXPECT_EQ(extremes.percentile(0.5, 2), extremes.highBreak[15]);
}

// ---- outliers ----------------------------------------------------------------------

TEST_F(Scale, OutlierCutsAndLimits) {
  Histogram empty;
  Histogram::Outliers o = empty.outliers(&env, 0);
  EXPECT_EQ(o.found + o.left + o.right, 0);
  EXPECT_EQ(o.small, 1e-15);
  EXPECT_EQ(o.large, 1e15);

  // 19 values: limit 0, so even 1e12 and 1e-12 stay.
  std::vector<double> v = nearOne(17);
  v.insert(v.end(), {1e12, 1e-12});
  Histogram few(v);
  o = few.outliers(&env, 19);
  EXPECT_EQ(o.found + o.left + o.right, 0);
  for (double x : v) EXPECT_FALSE(fabs(x) <= o.small || fabs(x) > o.large) << x;

  Histogram groups(withOutlierGroups(empty.lowBreak));
  o = groups.outliers(&env, 100);
  EXPECT_EQ(o.found, 6);
  EXPECT_EQ(o.left, 3);
  EXPECT_EQ(o.right, 3);
  EXPECT_EQ(o.small, empty.lowBreak[7]);  // at the cut: an outlier
  EXPECT_EQ(o.large, 1e6);                // at the cut: not one

  // More in the catch-all than the limit (2) keeps the tail empty.
  v = nearOne(40);
  v.insert(v.end(), 5, 1e30);
  Histogram crowded(v);
  o = crowded.outliers(&env, 45);
  EXPECT_EQ(o.left, 0);
  EXPECT_FALSE(1e30 > o.large);
}

TEST_F(Scale, OutlierTailsCrossOverForNarrowData) {
  // All values around 1e6: the small tail goes on through every low bin and
  // into the high ones up to the margin below the data.
  std::vector<double> v;
  for (int i = 0; i < 200; i++) v.push_back(2e6 + i);
  v.insert(v.end(), {3.0, 40.0});
  Histogram h(v);
  Histogram::Outliers o = h.outliers(&env, (int32_t)v.size());
  EXPECT_EQ(o.right, 2);
  EXPECT_EQ(o.found, o.left + o.right);
  EXPECT_EQ(o.small, 1e3);  // lowExp 6, margin 3: up to high bin 2

  // Mirror image: all around 1e-6, two stray large values below 1.
  std::vector<double> w;
  for (int i = 0; i < 200; i++) w.push_back(2e-6 * (1.0 + i / 400.0));
  w.insert(w.end(), {0.5, 0.02});
  Histogram m(w);
  o = m.outliers(&env, (int32_t)w.size());
  EXPECT_EQ(o.left, 2);
  EXPECT_EQ(o.large, m.lowBreak[2]);  // highExp -5, margin 3: low bins 0 and 1
}

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

TEST_F(Scale, QPObjectiveFactorIsCappedAndUndone) {
  TestModel m = smallQP({1e-8, 1e-8, 1e-8});  // Q2A / Q2D near 1e8
  const std::vector<double> before = m.numbers();
  int64_t blocks = liveBlocks();
  ASSERT_EQ(scale(m), 0);
  EXPECT_EQ(storage->objScale, 1e6);
  EXPECT_EQ(storage->rowScale, nullptr);
  EXPECT_EQ(storage->colScale, nullptr);
  EXPECT_EQ(liveBlocks(), blocks);
  EXPECT_EQ(gScale.calls, 0);
  EXPECT_EQ(m.obj[1], -3e6);
  EXPECT_EQ(m.quadDiag[0], 1e-8 * 1e6);
  EXPECT_EQ(m.quadMatValue, (std::vector<double>{0.25e6, 1e30}));
  EXPECT_EQ(m.matValue[0], 1.0);  // constraints untouched

  ipmSolution* sol = nullptr;
  ASSERT_EQ(NewSolution(&env, &sol, 3, 3, m.x.data(), m.y.data()), 0);
  for (int j = 0; j < 3; j++) {
    sol->lowerDual[j] = 2e6;
    sol->upperDual[j] = -4e6;
    sol->lowerSlack[j] = 7.0;
    m.x[j] = 3.0;
  }
  m.y = {1e6, 2e6, 0.0};
  m.relink();
  ASSERT_EQ(unscale(m, sol), 0);
  EXPECT_EQ(gUnscale.calls, 0);
  for (int j = 0; j < 3; j++) {
    EXPECT_EQ(sol->lowerDual[j], 2.0);
    EXPECT_EQ(sol->upperDual[j], -4.0);
    EXPECT_EQ(sol->lowerSlack[j], 7.0);
    EXPECT_EQ(m.x[j], 3.0);
  }
  EXPECT_EQ(m.y, (std::vector<double>{1.0, 2.0, 0.0}));
  expectNear(m.numbers(), before);
  FreeSolution(&env, sol);
}

TEST_F(Scale, QPObjectiveRuleNeedsAllQuartiles) {
  struct Case {
    std::vector<double> diag;
    double expected;  // 0: some factor other than 1
  } cases[] = {
      {{0.0, 0.0, 0.0}, 1.0},        // no diagonal: nothing to compare
      {{0.7, 1.3, 0.9}, 1.0},        // in step
      {{1e-9, 1e-9, 1.0}, 1.0},      // only two quartiles apart
      {{5e7, 6e7, 0.0}, 1.0},        // medians 0.55 and 5.5e7: ratio exactly 1e-8
      {{1e4, 2e4, 3e4}, 0.0},        // large diagonal: factor below 1
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.diag[0]);
    TestModel m = smallQP(c.diag);
    const std::vector<double> before = m.numbers();
    storage->objScale = -1;
    ASSERT_EQ(scale(m), 0);
    if (c.expected == 0.0) {
      EXPECT_LT(storage->objScale, 1e-3);
      EXPECT_GT(storage->objScale, 1e-6);
      EXPECT_EQ(m.obj[0], storage->objScale);
      continue;
    }
    EXPECT_EQ(storage->objScale, c.expected);
    EXPECT_EQ(m.numbers(), before);
    ipmSolution* sol = nullptr;
    ASSERT_EQ(NewSolution(&env, &sol, 3, 3, m.x.data(), m.y.data()), 0);
    sol->lowerDual[0] = 5.0;
    ASSERT_EQ(unscale(m, sol), 0);
    EXPECT_EQ(sol->lowerDual[0], 5.0);
    EXPECT_EQ(m.numbers(), before);
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
  ASSERT_EQ(gScale.calls, 1);
  EXPECT_EQ(gScale.tolerance, 3e-7);
  EXPECT_EQ(gScale.direction, 1);
  EXPECT_TRUE(gScale.argumentsAsHanded);
  EXPECT_EQ(gRowScale, storage->rowScale);
  EXPECT_EQ(gColScale, storage->colScale);
  EXPECT_EQ(storage->objScale, kObjFactor);  // in step: no boost
  EXPECT_EQ(m.matValue[0], before[0] * rowFactor(m.rowIndex[0]) * colFactor(0));

  // Unscale with a solution record in the scaled space.
  ipmSolution* sol = nullptr;
  ASSERT_EQ(NewSolution(&env, &sol, numRow, numCol, m.x.data(), m.y.data()), 0);
  for (int32_t j = 0; j < numCol; j++) {
    sol->lowerSlack[j] = 3.0;
    sol->upperSlack[j] = 5.0;
    sol->lowerDual[j] = 0.75;
    sol->upperDual[j] = 1.25;
    m.x[j] = 2.0;
  }
  for (int32_t i = 0; i < numRow; i++) {
    sol->ineqnSlack[i] = 6.0;
    m.y[i] = 1.0;
    m.activity[i] = 4.0;
  }
  ASSERT_EQ(unscale(m, sol), 0);
  ASSERT_EQ(gUnscale.calls, 1);
  EXPECT_TRUE(gUnscale.argumentsAsHanded);
  EXPECT_EQ(gUnscale.rowActivity, m.activity.data());
  EXPECT_EQ(m.numbers(), before);  // bit for bit: all factors are powers of two
  for (int32_t j = 0; j < numCol; j++) {
    EXPECT_EQ(sol->lowerSlack[j], 3.0 * colFactor(j));
    EXPECT_EQ(sol->upperSlack[j], 5.0 * colFactor(j));
    EXPECT_EQ(sol->lowerDual[j], 0.75 / (colFactor(j) * kObjFactor));
    EXPECT_EQ(sol->upperDual[j], 1.25 / (colFactor(j) * kObjFactor));
    EXPECT_EQ(m.x[j], 2.0 * colFactor(j));
  }
  for (int32_t i = 0; i < numRow; i++) EXPECT_EQ(sol->ineqnSlack[i], 6.0 / rowFactor(i));

  // And into the crossover's scaled space: the inverse, without objective factor.
  scaleSolutionToScaled(numRow, numCol, storage->rowScale, storage->colScale, sol, nullptr,
                        m.activity.data());
  for (int32_t j = 0; j < numCol; j++) {
    EXPECT_EQ(sol->lowerSlack[j], 3.0);
    EXPECT_EQ(m.x[j], 2.0);
    EXPECT_EQ(sol->lowerDual[j], 0.75 / kObjFactor);
  }
  for (int32_t i = 0; i < numRow; i++) {
    EXPECT_EQ(sol->ineqnSlack[i], 6.0);
    EXPECT_EQ(m.activity[i], 4.0);
    EXPECT_EQ(m.y[i], 1.0 / kObjFactor);
  }
  FreeSolution(&env, sol);
}

TEST_F(Scale, OutliersAreKeptFromServiceAndRestoredScaled) {
  Histogram h;
  TestModel m = spread(9, withOutlierGroups(h.lowBreak), 4);  // obj and rhs empty
  const std::vector<double> before = m.numbers();
  option.verifyLevel = 5;  // the histogram checks pass on real data
  ASSERT_EQ(scale(m), 0);
  EXPECT_EQ(gScale.largestSeen, 1e6);             // the 5e6 were screened
  EXPECT_GT(gScale.smallestSeen, h.lowBreak[7]);  // and the lowBreak[7]
  int restored = 0;
  for (int32_t j = 0; j < m.model.numCol; j++)
    for (int32_t p = m.colBegin[j]; p < m.colBegin[j] + m.colLength[j]; p++) {
      EXPECT_EQ(m.matValue[p], before[p] * rowFactor(m.rowIndex[p]) * colFactor(j)) << p;
      restored += fabs(before[p]) == 5e6 || before[p] == h.lowBreak[7];
    }
  EXPECT_EQ(restored, 6);
  ASSERT_EQ(unscale(m), 0);
  EXPECT_EQ(m.numbers(), before);
  for (const std::string& line : gLines) EXPECT_NE(line.compare(0, 5, "Error"), 0) << line;

  // Outliers in the objective and the rhs are screened and restored alike.
  TestModel n = spread(10, nearOne(200), 10);  // 20 columns
  for (int32_t j = 0; j < 20; j++) n.obj[j] = 1.0 + j / 64.0;
  for (int32_t i = 0; i < 10; i++) n.rhs[i] = -1.0 - i / 32.0;
  n.obj[5] = 1e9;
  n.rhs[6] = 1e-9;
  const std::vector<double> nBefore = n.numbers();
  gScale = ScaleCall();
  ASSERT_EQ(scale(n), 0);
  EXPECT_LT(gScale.largestSeen, 10.0);
  EXPECT_GT(gScale.smallestSeen, 0.1);
  EXPECT_EQ(n.obj[5], 1e9 * colFactor(5) * kObjFactor);
  EXPECT_EQ(n.obj[4], (1.0 + 4 / 64.0) * colFactor(4) * kObjFactor);
  EXPECT_EQ(n.rhs[6], 1e-9 * rowFactor(6));
  ASSERT_EQ(unscale(n), 0);
  EXPECT_EQ(n.numbers(), nBefore);
}

TEST_F(Scale, ObjectiveBoost) {
  struct Case {
    double size;  // 0: all-zero objective
    double boost;  // 0: some boost above 1e3
  } cases[] = {{0.0, 1.0}, {3e4, 0.55 / 5.5e4}, {1e-4, 0.0}, {1e-11, 1.0}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.size);
    TestModel m = spread(5, nearOne(30), 3);
    for (int32_t j = 0; j < m.model.numCol; j++) m.obj[j] = c.size * (1 + j % 3);
    const std::vector<double> before = m.numbers();
    ASSERT_EQ(scale(m), 0);
    EXPECT_EQ(storage->rowScale[m.model.numRow], storage->objScale);
    const double boost = storage->objScale / kObjFactor;
    if (c.boost == 0.0) {  // a tiny objective is boosted only while its Q3 is above 1e-10
      EXPECT_GT(boost, 1e3);
      continue;
    }
    // Interpolated medians: 0.55 for the matrix (all in low bin 0), 5.5e4 for
    // the large objective (all in high bin 4), which bramlet sees brought down.
    EXPECT_NEAR(boost, c.boost, 1e-18);
    EXPECT_LT(gScale.largestSeen, 10.0);
    ASSERT_EQ(unscale(m), 0);
    expectNear(m.numbers(), before);
  }
}

// ---- failures ------------------------------------------------------------------------

TEST_F(Scale, ServiceFailuresAreReturnedAndNothingLeaks) {
  TestModel m = spread(9, withLargeOutliers(), 4);
  const std::vector<double> before = m.numbers();
  int64_t blocks = liveBlocks();
  gScale.result = 7;
  EXPECT_EQ(scale(m), 7);
  EXPECT_EQ(storage->objScale, 1.0);  // rowScale[numRow] as handed back
  // Outliers are left at the median: the solve is over.
  for (double x : m.matValue) EXPECT_NE(x, 1e12);
  EXPECT_EQ(liveBlocks(), blocks + 2);  // only the two scale arrays, owned by storage

  gScale.result = 0;
  gUnscale.result = 9;
  TestModel n = spread(9, withLargeOutliers(), 4);
  ASSERT_EQ(scale(n), 0);
  EXPECT_EQ(liveBlocks(), blocks + 2);  // a second run replaces, not adds
  EXPECT_EQ(unscale(n), 9);

  // Without the service: failed, and the model as it was.
  FreeStorage(&env, storage);
  storage = poolNew<ipmStorage>(pool, 1);
  TestModel o = spread(9, withLargeOutliers(), 4);
  env.preObject = nullptr;
  EXPECT_EQ(scale(o), IPM_STATUS_FAILED);
  EXPECT_EQ(o.numbers(), before);
  env.preObject = bramlet;
  bramlet[BRAMLET_SLOT_SCALE] = nullptr;
  EXPECT_EQ(scale(o), IPM_STATUS_FAILED);
  EXPECT_EQ(unscale(o), IPM_STATUS_FAILED);
}

TEST_F(Scale, OutlierCountMismatchIsAnError) {
  // A NaN lands in the high catch-all and is counted as a large outlier, but
  // no comparison marks it: the walk finds one fewer.
  std::vector<double> v = nearOne(40);
  v[7] = NAN;
  TestModel m = spread(6, v, 4);
  EXPECT_EQ(scale(m), IPM_STATUS_FAILED);
  EXPECT_TRUE(logged("Error ipmScale: numOutlier=0 should be 1"));
  EXPECT_EQ(gScale.calls, 0);
}

TEST_F(Scale, OutOfMemoryAtEachAllocation) {
  int64_t blocks = liveBlocks();
  int32_t status = IPM_STATUS_OUT_OF_MEMORY;
  int k = 0;
  for (; k < 20 && status == IPM_STATUS_OUT_OF_MEMORY; k++) {
    TestModel m = spread(9, withLargeOutliers(), 4);
    host.failAllocation(k);
    status = scale(m);
    host.clearFailures();
    if (status == IPM_STATUS_OUT_OF_MEMORY) {
      EXPECT_EQ(liveBlocks(), blocks) << "refusal " << k;
      EXPECT_EQ(storage->rowScale, nullptr);
      EXPECT_EQ(storage->colScale, nullptr);
    }
  }
  EXPECT_EQ(status, 0);
  EXPECT_EQ(k, 6);  // three outlier arrays, two scale arrays, then success

  // The checks' own arrays.
  option.verifyLevel = 5;
  for (int refuse = 0; refuse < 3; refuse++) {
    TestModel m = spread(9, withLargeOutliers(), 4);
    host.failAllocation(refuse);
    EXPECT_EQ(scale(m), IPM_STATUS_OUT_OF_MEMORY);
    host.clearFailures();
  }

  // Row-only scaling allocates once.
  option.verifyLevel = 0;
  option.rowScaleOnly = 1;
  FreeStorage(&env, storage);
  storage = poolNew<ipmStorage>(pool, 1);
  blocks = liveBlocks();
  TestModel m = spread(9, withLargeOutliers(), 4);
  host.failAllocation(0);
  EXPECT_EQ(scale(m), IPM_STATUS_OUT_OF_MEMORY);
  host.clearFailures();
  EXPECT_EQ(liveBlocks(), blocks);
}

// ---- row-only scaling ----------------------------------------------------------------

// Packed: row-only scaling runs flat over the stored positions.
TestModel packedLP(int32_t type) {
  TestModel m(3, {{{0, 9.99}, {1, 10.0}, {2, 4.0}}, {{0, 1.0}, {1, 2.0}, {2, -5.0}}}, type);
  m.colBegin = {0, 3, 6};
  m.rowIndex = {0, 1, 2, 0, 1, 2};
  m.matValue = {9.99, 10.0, 4.0, 1.0, 2.0, -5.0};
  m.obj = {3.0, -2.0};
  m.rhs = {0.5, 3.0, -40.0};
  m.relink();
  return m;
}

TEST_F(Scale, RowOnlyThresholdAndAsymmetricDuals) {
  option.rowScaleOnly = 1;
  for (int32_t type : {IPM_MODEL_LP, IPM_MODEL_QP}) {
    TestModel m = packedLP(type);
    const TestModel fresh = packedLP(type);
    ASSERT_EQ(scale(m), 0);
    EXPECT_EQ(gScale.calls, 0);
    EXPECT_EQ(storage->colScale, nullptr);
    EXPECT_EQ(storage->objScale, 3.0);  // kept though below 10
    EXPECT_EQ(m.obj[0], 3.0);
    ASSERT_NE(storage->rowScale, nullptr);
    // Row 0 below the threshold, row 1 at it, row 2 raised by the rhs.
    EXPECT_EQ(std::vector<double>(storage->rowScale, storage->rowScale + 3),
              (std::vector<double>{9.99, 10.0, 40.0}));
    EXPECT_EQ(m.matValue[0], 9.99);
    EXPECT_EQ(m.matValue[1], 1.0);
    EXPECT_EQ(m.matValue[5], -5.0 / 40.0);
    EXPECT_EQ(m.rhs, (std::vector<double>{0.5, 0.3, -1.0}));

    ASSERT_EQ(unscale(m), 0);
    EXPECT_EQ(m.y, (std::vector<double>{1.0, 0.1, 1.0 / 40.0}));
    expectNear(m.matValue, fresh.matValue);
    expectNear(m.rhs, fresh.rhs);
  }

  // A large objective is divided; only the duals of scaled rows get its
  // factor back.
  TestModel m = packedLP(IPM_MODEL_LP);
  m.obj = {50.0, -20.0};
  m.relink();
  ASSERT_EQ(scale(m), 0);
  EXPECT_EQ(storage->objScale, 50.0);
  EXPECT_EQ(m.obj, (std::vector<double>{1.0, -0.4}));
  ASSERT_EQ(unscale(m), 0);
  EXPECT_EQ(m.obj, (std::vector<double>{50.0, -20.0}));
  EXPECT_EQ(m.y, (std::vector<double>{1.0, 1.0 / 10.0 * 50.0, 1.0 / 40.0 * 50.0}));

  // No columns: objScale 0 and nothing divided.
  TestModel empty = packedLP(IPM_MODEL_LP);
  empty.model.numCol = 0;
  empty.model.numCoef = 0;
  ASSERT_EQ(iplpScaleRow(&env, &empty.model, storage), 0);
  EXPECT_EQ(storage->objScale, 0.0);
  EXPECT_EQ(empty.rhs[2], -1.0);  // the rhs alone still scales its row
}

// ---- the checks of the histogram -------------------------------------------------------

TEST_F(Scale, ChecksCatchWrongHistograms) {
  const std::vector<double> data{0.0, 0.3, 0.5, 2.0, 40.0};
  Histogram good(data);
  good.lowCount[15]++;  // the zero, as the matrix form counts it
  EXPECT_EQ(good.verify(&env, 5, data), 0);
  EXPECT_TRUE(gLines.empty());

  Histogram shifted = good;  // 40 claimed to be in high bin 0
  shifted.highCount[1]--;
  shifted.highCount[0]++;
  EXPECT_EQ(shifted.verify(&env, 4, data), 0);  // below level 5 the check does not run
  EXPECT_TRUE(gLines.empty());
  EXPECT_EQ(shifted.verify(&env, 5, data), IPM_STATUS_FAILED);
  EXPECT_TRUE(logged("Error VerifyDistribution: data(4)="));

  Histogram missing = good;
  missing.lowCount[0]--;
  EXPECT_EQ(missing.verify(&env, 5, data), IPM_STATUS_FAILED);
  EXPECT_TRUE(logged("Error VerifyDistribution: number of data = 4 should be 5"));

  Histogram badBreak = good;
  badBreak.highBreak[3] = 999.0;
  EXPECT_EQ(badBreak.verify(&env, 5, data), IPM_STATUS_FAILED);
  EXPECT_TRUE(logged("Error VerifyDistribution: cutoff value at 3 break point ="));

  // The model-level checks: counts against the model.
  gLines.clear();
  TestModel m = spread(3, {1.0, 2.0, 3.0}, 1);
  Histogram h;
  getMatrixDistribution(&env, 3, m.model.colBegin, m.model.colLength, m.model.matValue,
                        h.lowCount, h.lowBreak, h.highCount, h.highBreak);
  EXPECT_EQ(VerifyPdfMatrix(&env, 5, &m.model, h.lowCount, h.lowBreak, h.highCount, h.highBreak),
            0);
  m.model.numCoef = 4;
  EXPECT_EQ(VerifyPdfMatrix(&env, 5, &m.model, h.lowCount, h.lowBreak, h.highCount, h.highBreak),
            IPM_STATUS_FAILED);
  EXPECT_TRUE(logged("Error VerifyPdfMatrix: number of A nonzero = 3 should be 4"));
  EXPECT_EQ(VerifyPdfObj(&env, 5, &m.model, 2, h.lowCount, h.lowBreak, h.highCount, h.highBreak),
            IPM_STATUS_FAILED);
  EXPECT_TRUE(logged("Error VerifyPdfObj: number of obj nonzero = 0 should be 2"));
  EXPECT_EQ(VerifyPdfAll(&env, 5, &m.model, 9, h.lowCount, h.lowBreak, h.highCount, h.highBreak),
            IPM_STATUS_FAILED);
  EXPECT_TRUE(logged("Error VerifyPdfAll: number of nonzero = 3 should be 9"));
}

TEST_F(Scale, OutlierCheckCatchesWrongCuts) {
  std::vector<double> v = nearOne(40);
  v[3] = 1e9;
  TestModel m = spread(5, v, 4);
  auto check = [&](double largeCut, double smallCut, int32_t numLeft) {
    return VerifyOutlier(largeCut, smallCut, &env, 5, &m.model, 40, numLeft, 0, nullptr,
                         nullptr, nullptr, nullptr);
  };
  EXPECT_EQ(check(1e4, -1.0, 1), 0);
  const struct { double large, small; int32_t left; const char* line; } wrong[] = {
      // A large cut above the value said to be beyond it.
      {1e10, -1.0, 1, "Error VerifyOutlier: data(39 < 40)="},
      // More in a tail than 5 percent allows.
      {1.9, -1.0, 3, "Error VerifyOutlier: number of left outlier = 3 should <= 2"},
      // A small cut above values that were not counted.
      {1e4, 0.7, 1, "Error VerifyOutlier: data(numRight=0)="},
  };
  for (const auto& w : wrong) {
    EXPECT_EQ(check(w.large, w.small, w.left), IPM_STATUS_FAILED) << w.line;
    EXPECT_TRUE(logged(w.line)) << w.line;
  }
}

}  // namespace
