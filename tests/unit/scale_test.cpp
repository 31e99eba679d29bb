#include <math.h>
#include <stdarg.h>
#include <stdio.h>

#include <string>
#include <utility>
#include <vector>

#include "frame/qv.h"
#include "ipm/scale.h"
#include "records/model.h"
#include "unit/support.h"

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
  void* instance = nullptr;
  int64_t direction = 0, numRow = -1, numCol = -1, numCoef = -1;
  int32_t *colBegin = nullptr, *colLength = nullptr, *rowIndex = nullptr;
  double *matValue = nullptr, *obj = nullptr, *lower = nullptr, *upper = nullptr;
  double *rowScale = nullptr, *colScale = nullptr, *rhs = nullptr, *range = nullptr;
  char* rowSense = nullptr;
  bool nullsAreNull = false;
  bool factorsStartAtOne = false;
  double largestSeen = 0, smallestSeen = HUGE_VAL;  // over A, obj, rhs
  int64_t result = 0;
};
struct UnscaleCall {
  int calls = 0;
  int64_t direction = 0, numRow = -1, numCol = -1;
  double *rowScale = nullptr, *colScale = nullptr, *solPrimal = nullptr, *solDual = nullptr;
  double *reducedCost = reinterpret_cast<double*>(1), *rowActivity = nullptr;
  double* matValue = nullptr;
  bool nullsAreNull = false;
  int64_t result = 0;
};
ScaleCall gScale;
UnscaleCall gUnscale;

void note(double v) {
  if (v == 0.0) return;
  gScale.largestSeen = fmax(gScale.largestSeen, fabs(v));
  gScale.smallestSeen = fmin(gScale.smallestSeen, fabs(v));
}

int64_t fakeScale(double tolerance, void* instance, int64_t direction, int64_t numRow,
                  int64_t numCol, int64_t numCoef, int32_t* colBegin, int32_t* colLength,
                  int32_t* rowIndex, double* matValue, double* obj, double* lower, double* upper,
                  double* rowScale, double* colScale, void* n1, void* n2, double* rhs,
                  char* rowSense, double* range, void* n3, void* n4, void* n5, void* n6) {
  ScaleCall& c = gScale;
  c.calls++;
  c.tolerance = tolerance;
  c.instance = instance;
  c.direction = direction;
  c.numRow = numRow;
  c.numCol = numCol;
  c.numCoef = numCoef;
  c.colBegin = colBegin;
  c.colLength = colLength;
  c.rowIndex = rowIndex;
  c.matValue = matValue;
  c.obj = obj;
  c.lower = lower;
  c.upper = upper;
  c.rowScale = rowScale;
  c.colScale = colScale;
  c.rhs = rhs;
  c.rowSense = rowSense;
  c.range = range;
  c.nullsAreNull = !n1 && !n2 && !n3 && !n4 && !n5 && !n6;
  c.factorsStartAtOne = true;
  for (int64_t i = 0; i <= numRow; i++) c.factorsStartAtOne &= rowScale[i] == 1.0;
  for (int64_t j = 0; j <= numCol; j++) c.factorsStartAtOne &= colScale[j] == 1.0;
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
  c.direction = direction;
  c.numRow = numRow;
  c.numCol = numCol;
  c.rowScale = rowScale;
  c.colScale = colScale;
  c.solPrimal = solPrimal;
  c.solDual = solDual;
  c.reducedCost = reducedCost;
  c.rowActivity = rowActivity;
  c.matValue = matValue;
  c.nullsAreNull = !n1 && !n2;
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

struct TestModel {
  std::vector<int32_t> colBegin, colLength, rowIndex;
  std::vector<double> matValue, obj, rhs, range, lower, upper;
  std::vector<double> quadDiag, quadMatValue;
  std::vector<int32_t> quadColBegin, quadColLength, quadRowIndex;
  std::vector<char> sense;
  std::vector<double> x, y, activity;
  ipmModel model{};

  // columns[j] lists (row, value); one spare slot behind each column, holding
  // a value that must never be looked at.
  TestModel(int32_t numRow, const std::vector<std::vector<std::pair<int32_t, double>>>& columns,
            int32_t type = IPM_MODEL_LP) {
    const int32_t numCol = (int32_t)columns.size();
    for (const auto& column : columns) {
      colBegin.push_back((int32_t)rowIndex.size());
      colLength.push_back((int32_t)column.size());
      for (const auto& e : column) {
        rowIndex.push_back(e.first);
        matValue.push_back(e.second);
      }
      rowIndex.push_back(0);
      matValue.push_back(1e30);  // a removed entry
    }
    colBegin.push_back((int32_t)rowIndex.size());
    obj.assign(numCol, 0.0);
    lower.assign(numCol, 0.0);
    upper.assign(numCol, kInf);
    rhs.assign(numRow, 0.0);
    range.assign(numRow, 0.0);
    sense.assign(numRow, 'E');
    x.assign(numCol, 1.0);
    y.assign(numRow, 1.0);
    activity.assign(numRow, 1.0);
    quadDiag.assign(numCol, 0.0);
    quadColBegin.assign(numCol + 1, 0);
    quadColLength.assign(numCol, 0);
    model.typeModel = type;
    model.numRow = numRow;
    model.numCol = numCol;
    int32_t live = 0;
    for (const auto& column : columns) live += (int32_t)column.size();
    model.numCoef = live;
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

// A column-wise model of numRow rows, each column holding its values on rows
// j, j+1, ... (mod numRow).
TestModel spread(int32_t numRow, const std::vector<double>& values, int32_t perColumn) {
  std::vector<std::vector<std::pair<int32_t, double>>> columns;
  for (size_t k = 0; k < values.size(); k += perColumn) {
    std::vector<std::pair<int32_t, double>> column;
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

struct Histogram {
  int32_t lowCount[HIST_BINS], highCount[HIST_BINS];
  double lowBreak[HIST_BINS], highBreak[HIST_BINS];
  Histogram() { initDistribution(lowCount, lowBreak, highCount, highBreak); }
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
    env.preObject = bramlet;
    env.textLog = captureLog;
    option.primalTol = 3e-7;
    option.infinity = kInf;
    storage = poolNew<ipmStorage>(pool, 1);
  }
  ~Scale() override { FreeStorage(&env, storage); }

  void* bramlet[26];
  ipmOption option{};
  ipmStorage* storage = nullptr;
};

// ---- histogram ---------------------------------------------------------------------

TEST_F(Scale, BreaksAreRunningProducts) {
  Histogram h;
  double low = 1.0, high = 1.0;
  for (int i = 0; i < HIST_BINS; i++) {
    EXPECT_EQ(h.lowBreak[i], low) << i;
    EXPECT_EQ(h.highBreak[i], high) << i;
    EXPECT_EQ(h.lowCount[i], 0);
    EXPECT_EQ(h.highCount[i], 0);
    low *= 0.1;
    high *= 10.0;
  }
  // The running product is what the bins use, and it is not the literal.
  EXPECT_NE(h.lowBreak[3], 1e-3);
}

TEST_F(Scale, BinEdges) {
  Histogram h;
  const double* lb = h.lowBreak;
  const double* hb = h.highBreak;
  struct Case {
    double value;
    bool low;
    int bin;
  } cases[] = {
      {1.0, true, 0},                        // exactly 1 is low bin 0
      {-1.0, true, 0},                       // by magnitude
      {nextafter(1.0, 2.0), false, 0},       // just above 1
      {lb[1], true, 1},                      // a low break belongs to the bin above it
      {nextafter(lb[1], 1.0), true, 0},
      {nextafter(lb[15], 1.0), true, 14},
      {lb[15], true, 15},                    // the low catch-all
      {1e-300, true, 15},
      {hb[1], false, 0},                     // a high break belongs to the bin below it
      {nextafter(hb[1], 1e3), false, 1},
      {hb[15], false, 14},
      {nextafter(hb[15], 1e300), false, 15},  // the high catch-all
      {1e300, false, 15},
      {HUGE_VAL, false, 15},
  };
  for (const Case& c : cases) {
    Histogram one;
    one.add({c.value});
    EXPECT_EQ(one.total(), 1) << c.value;
    EXPECT_EQ(c.low ? one.lowCount[c.bin] : one.highCount[c.bin], 1)
        << "value " << c.value << " expected in " << (c.low ? "low " : "high ") << c.bin;
  }
  // Bin 16 of either half is never used.
  Histogram all;
  for (const Case& c : cases) all.add({c.value});
  EXPECT_EQ(all.lowCount[16], 0);
  EXPECT_EQ(all.highCount[16], 0);
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

  // Live entries only: the stand-in removed entry of 1e30 behind each column
  // must not be counted.  Counts add to what is there.
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
  Histogram h;
  h.add({0.5, 0.5, 5.0, 5.0});  // two in low bin 0, two in high bin 0
  int32_t out = 99;
  EXPECT_DOUBLE_EQ(h.percentile(0.25, 4, 0, &out), (1.0 - h.lowBreak[1]) * 0.5 + h.lowBreak[1]);
  EXPECT_EQ(out, 99);  // mode 0 leaves it alone
  EXPECT_DOUBLE_EQ(h.percentile(0.5, 4), 1.0);
  EXPECT_DOUBLE_EQ(h.percentile(0.75, 4), 5.5);

  EXPECT_EQ(h.percentile(0.5, 4, 1, &out), 10.0);
  EXPECT_EQ(out, 0);  // nothing above high bin 0
  EXPECT_EQ(h.percentile(0.5, 4, 2, &out), 1.0);
  EXPECT_EQ(out, 2);  // the two below
  EXPECT_EQ(h.percentile(0.1, 4, 1, &out), 1.0);
  EXPECT_EQ(out, 2);
  EXPECT_EQ(h.percentile(0.1, 4, 1, nullptr), 1.0);
  EXPECT_EQ(h.percentile(0.5, 4, 7, &out), 0.0);
  EXPECT_EQ(out, 0);

  out = 5;
  EXPECT_EQ(h.percentile(0.5, 0, 1, &out), 0.0);
  EXPECT_EQ(out, 0);
  EXPECT_EQ(h.percentile(0.5, -3, 0, nullptr), 0.0);

  // Past the last value the walk ends in the empty high catch-all: finite.
  double top = h.percentile(1.0, 4);
  EXPECT_TRUE(std::isfinite(top));
  EXPECT_EQ(top, h.highBreak[15]);

  // Values in the catch-alls: their one edge is all there is.
  Histogram extremes;
  extremes.add({1e-40, 1e40});
  EXPECT_EQ(extremes.percentile(0.0, 2), extremes.lowBreak[16]);
  EXPECT_EQ(extremes.percentile(0.5, 2), extremes.highBreak[15]);
}

// ---- outliers ----------------------------------------------------------------------

TEST_F(Scale, OutliersOnEmptyAndSmallData) {
  Histogram h;
  int32_t left = -1, right = -1;
  double large = 0, small = 0;
  EXPECT_EQ(countOutlier(&env, 0, &left, &right, &large, &small, h.lowCount, h.lowBreak,
                         h.highCount, h.highBreak),
            0);
  EXPECT_EQ(left, 0);
  EXPECT_EQ(right, 0);
  EXPECT_EQ(small, 1e-15);
  EXPECT_EQ(large, 1e15);

  // 19 values: limit 0, so even 1e12 and 1e-12 stay.
  std::vector<double> v = nearOne(17);
  v.push_back(1e12);
  v.push_back(1e-12);
  h.add(v);
  EXPECT_EQ(countOutlier(&env, 19, &left, &right, &large, &small, h.lowCount, h.lowBreak,
                         h.highCount, h.highBreak),
            0);
  EXPECT_EQ(left + right, 0);
  for (double x : v) EXPECT_FALSE(fabs(x) <= small || fabs(x) > large) << x;
}

TEST_F(Scale, OutlierCutsAndLimits) {
  // 100 values: 88 near 1 and three each at lowBreak[7], lowBreak[6], 1e6
  // and 5e6.  The limit is 5 per tail, so each tail stops after one group.
  Histogram h;
  std::vector<double> v = nearOne(88);
  for (int i = 0; i < 3; i++) {
    v.push_back(h.lowBreak[7]);
    v.push_back(h.lowBreak[6]);
    v.push_back(1e6);
    v.push_back(-5e6);
  }
  h.add(v);
  int32_t left, right;
  double large, small;
  EXPECT_EQ(countOutlier(&env, 100, &left, &right, &large, &small, h.lowCount, h.lowBreak,
                         h.highCount, h.highBreak),
            6);
  EXPECT_EQ(left, 3);
  EXPECT_EQ(right, 3);
  EXPECT_EQ(small, h.lowBreak[7]);  // at the cut: an outlier
  EXPECT_EQ(large, 1e6);            // at the cut: not one
}

TEST_F(Scale, OutlierTailsCrossOverForNarrowData) {
  // All values around 1e6: the small tail goes on through every low bin and
  // into the high ones up to the margin below the data.
  Histogram h;
  std::vector<double> v;
  for (int i = 0; i < 200; i++) v.push_back(2e6 + i);
  v.push_back(3.0);
  v.push_back(40.0);
  h.add(v);
  int32_t left, right;
  double large, small;
  int32_t n = countOutlier(&env, (int32_t)v.size(), &left, &right, &large, &small, h.lowCount,
                           h.lowBreak, h.highCount, h.highBreak);
  EXPECT_EQ(right, 2);
  EXPECT_EQ(n, left + right);
  EXPECT_EQ(small, 1e3);  // lowExp 6, margin 3: up to high bin 2
  EXPECT_TRUE(40.0 <= small);

  // Mirror image: all around 1e-6, two stray large values below 1.
  Histogram m;
  std::vector<double> w;
  for (int i = 0; i < 200; i++) w.push_back(2e-6 * (1.0 + i / 400.0));
  w.push_back(0.5);
  w.push_back(0.02);
  m.add(w);
  countOutlier(&env, (int32_t)w.size(), &left, &right, &large, &small, m.lowCount, m.lowBreak,
               m.highCount, m.highBreak);
  EXPECT_EQ(left, 2);
  EXPECT_EQ(large, m.lowBreak[2]);  // highExp -5, margin 3: low bins 0 and 1
  EXPECT_TRUE(0.02 > large);
}

TEST_F(Scale, CatchAllOverLimitKeepsTailEmpty) {
  Histogram h;
  std::vector<double> v = nearOne(40);
  for (int i = 0; i < 5; i++) v.push_back(1e30);  // limit is 2
  h.add(v);
  int32_t left, right;
  double large, small;
  countOutlier(&env, 45, &left, &right, &large, &small, h.lowCount, h.lowBreak, h.highCount,
               h.highBreak);
  EXPECT_EQ(left, 0);
  EXPECT_FALSE(1e30 > large);
}

// ---- the QP objective rule ---------------------------------------------------------

TestModel smallQP(double diagValue) {
  TestModel m(3, {{{0, 1.0}, {1, -1.0}}, {{1, 1.0}, {2, 1.0}}, {{0, 1.0}, {2, -1.0}}},
              IPM_MODEL_QP);
  m.obj = {1.0, -3.0, 0.5};
  m.quadDiag = {diagValue, diagValue, diagValue};
  m.quadColBegin = {0, 1, 1, 1};
  m.quadColLength = {1, 0, 0};
  m.quadRowIndex = {2, 9};
  m.quadMatValue = {0.25, 1e30};  // the second is a removed entry
  m.relink();
  m.model.numQuadCoef = 1;
  return m;
}

TEST_F(Scale, QPObjectiveFactorIsCappedAndUndone) {
  TestModel m = smallQP(1e-8);  // Q2A / Q2D near 1e8
  const std::vector<double> before = m.numbers();
  int64_t blocks = liveBlocks();
  ASSERT_EQ(ipmScale(&env, &m.model, &option, storage), 0);
  EXPECT_EQ(storage->objScale, 1e6);
  EXPECT_EQ(storage->rowScale, nullptr);
  EXPECT_EQ(storage->colScale, nullptr);
  EXPECT_EQ(liveBlocks(), blocks);
  EXPECT_EQ(gScale.calls, 0);
  EXPECT_EQ(m.obj[1], -3e6);
  EXPECT_EQ(m.quadDiag[0], 1e-8 * 1e6);
  EXPECT_EQ(m.quadMatValue[0], 0.25e6);
  EXPECT_EQ(m.quadMatValue[1], 1e30);
  EXPECT_EQ(m.matValue[0], 1.0);  // constraints untouched

  ipmSolution* sol = nullptr;
  ASSERT_EQ(NewSolution(&env, &sol, 3, 3, m.x.data(), m.y.data()), 0);
  for (int j = 0; j < 3; j++) {
    sol->lowerDual[j] = 2e6;
    sol->upperDual[j] = -4e6;
    sol->lowerSlack[j] = 7.0;
  }
  m.y[0] = 1e6;
  m.y[1] = 2e6;
  m.y[2] = 0.0;
  for (double& x : m.x) x = 3.0;
  ASSERT_EQ(ipmUnscale(&env, &m.model, &option, storage, sol), 0);
  EXPECT_EQ(gUnscale.calls, 0);
  for (int j = 0; j < 3; j++) {
    EXPECT_EQ(sol->lowerDual[j], 2.0);
    EXPECT_EQ(sol->upperDual[j], -4.0);
    EXPECT_EQ(sol->lowerSlack[j], 7.0);
    EXPECT_EQ(m.x[j], 3.0);
  }
  EXPECT_EQ(m.y[0], 1.0);
  EXPECT_EQ(m.y[1], 2.0);
  const std::vector<double> after = m.numbers();
  for (size_t k = 0; k < before.size(); k++)
    EXPECT_NEAR(after[k], before[k], 1e-15 * fabs(before[k])) << k;
  FreeSolution(&env, sol);
}

TEST_F(Scale, QPObjectiveRuleNeedsAllQuartiles) {
  struct Case {
    std::vector<double> diag;
    double expected;  // 0: some factor other than 1
  } cases[] = {
      {{0.0, 0.0, 0.0}, 1.0},       // no diagonal: nothing to compare
      {{0.7, 1.3, 0.9}, 1.0},       // in step
      {{1e-9, 1e-9, 1.0}, 1.0},     // only two quartiles apart
      {{5e7, 6e7, 0.0}, 1.0},       // medians 0.55 and 5.5e7: ratio exactly 1e-8
      {{1e4, 2e4, 3e4}, 0.0},       // large diagonal: factor below 1
      {{1e-30, 1e-30, 1e-30}, 1e6},  // far too small: capped
  };
  for (const Case& c : cases) {
    TestModel m = smallQP(0.0);
    m.quadDiag = c.diag;
    m.relink();
    const std::vector<double> before = m.numbers();
    storage->objScale = -1;
    ASSERT_EQ(ipmScale(&env, &m.model, &option, storage), 0);
    if (c.expected == 0.0) {
      EXPECT_LT(storage->objScale, 1e-3);
      EXPECT_GT(storage->objScale, 1e-6);
      EXPECT_EQ(m.obj[0], storage->objScale);
    } else {
      EXPECT_EQ(storage->objScale, c.expected) << c.diag[0];
      if (c.expected == 1.0) {
        EXPECT_EQ(m.numbers(), before);
        ipmSolution* sol = nullptr;
        ASSERT_EQ(NewSolution(&env, &sol, 3, 3, m.x.data(), m.y.data()), 0);
        sol->lowerDual[0] = 5.0;
        ASSERT_EQ(ipmUnscale(&env, &m.model, &option, storage, sol), 0);
        EXPECT_EQ(sol->lowerDual[0], 5.0);
        EXPECT_EQ(m.numbers(), before);
        FreeSolution(&env, sol);
      }
    }
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

  ASSERT_EQ(ipmScale(&env, &m.model, &option, storage), 0);
  ASSERT_EQ(gScale.calls, 1);
  EXPECT_EQ(gScale.tolerance, 3e-7);
  EXPECT_EQ(gScale.instance, (void*)bramlet);
  EXPECT_EQ(gScale.direction, 1);
  EXPECT_EQ(gScale.numRow, numRow);
  EXPECT_EQ(gScale.numCol, numCol);
  EXPECT_EQ(gScale.numCoef, 60);
  EXPECT_EQ(gScale.colBegin, m.colBegin.data());
  EXPECT_EQ(gScale.colLength, m.colLength.data());
  EXPECT_EQ(gScale.rowIndex, m.rowIndex.data());
  EXPECT_EQ(gScale.matValue, m.matValue.data());
  EXPECT_EQ(gScale.obj, m.obj.data());
  EXPECT_EQ(gScale.lower, m.lower.data());
  EXPECT_EQ(gScale.upper, m.upper.data());
  EXPECT_EQ(gScale.rhs, m.rhs.data());
  EXPECT_EQ(gScale.rowSense, m.sense.data());
  EXPECT_EQ(gScale.range, m.range.data());
  EXPECT_EQ(gScale.rowScale, storage->rowScale);
  EXPECT_EQ(gScale.colScale, storage->colScale);
  EXPECT_TRUE(gScale.nullsAreNull);
  EXPECT_TRUE(gScale.factorsStartAtOne);
  EXPECT_EQ(storage->objScale, kObjFactor);  // in step: no boost
  EXPECT_EQ(storage->rowScale[numRow], kObjFactor);
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
  ASSERT_EQ(ipmUnscale(&env, &m.model, &option, storage, sol), 0);
  ASSERT_EQ(gUnscale.calls, 1);
  EXPECT_EQ(gUnscale.direction, 1);
  EXPECT_EQ(gUnscale.numRow, numRow);
  EXPECT_EQ(gUnscale.numCol, numCol);
  EXPECT_EQ(gUnscale.matValue, m.matValue.data());
  EXPECT_EQ(gUnscale.rowScale, storage->rowScale);
  EXPECT_EQ(gUnscale.colScale, storage->colScale);
  EXPECT_EQ(gUnscale.solPrimal, m.x.data());
  EXPECT_EQ(gUnscale.solDual, m.y.data());
  EXPECT_EQ(gUnscale.reducedCost, nullptr);
  EXPECT_EQ(gUnscale.rowActivity, m.activity.data());
  EXPECT_TRUE(gUnscale.nullsAreNull);
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
  // As in OutlierCutsAndLimits, now in a matrix, with obj and rhs empty.
  Histogram h;
  std::vector<double> v = nearOne(88);
  for (int i = 0; i < 3; i++) {
    v.push_back(h.lowBreak[7]);
    v.push_back(h.lowBreak[6]);
    v.push_back(1e6);
    v.push_back(-5e6);
  }
  TestModel m = spread(9, v, 4);
  const std::vector<double> before = m.numbers();
  option.verifyLevel = 5;  // the histogram checks pass on real data
  ASSERT_EQ(ipmScale(&env, &m.model, &option, storage), 0);
  EXPECT_EQ(gScale.largestSeen, 1e6);              // the 5e6 were screened
  EXPECT_GT(gScale.smallestSeen, h.lowBreak[7]);   // and the lowBreak[7]
  int restored = 0;
  for (int32_t j = 0; j < m.model.numCol; j++) {
    for (int32_t p = m.colBegin[j]; p < m.colBegin[j] + m.colLength[j]; p++) {
      double scaled = before[p] * rowFactor(m.rowIndex[p]) * colFactor(j);
      EXPECT_EQ(m.matValue[p], scaled) << p;
      restored += fabs(before[p]) == 5e6 || before[p] == h.lowBreak[7];
    }
  }
  EXPECT_EQ(restored, 6);
  ASSERT_EQ(ipmUnscale(&env, &m.model, &option, storage, nullptr), 0);
  EXPECT_EQ(m.numbers(), before);
  EXPECT_TRUE(gLines.empty());
}

TEST_F(Scale, ObjectiveAndRhsOutliersRestoredScaled) {
  TestModel m = spread(10, nearOne(200), 10);  // 20 columns
  for (int32_t j = 0; j < 20; j++) m.obj[j] = 1.0 + j / 64.0;
  for (int32_t i = 0; i < 10; i++) m.rhs[i] = -1.0 - i / 32.0;
  m.obj[5] = 1e9;
  m.rhs[6] = 1e-9;
  const std::vector<double> before = m.numbers();
  ASSERT_EQ(ipmScale(&env, &m.model, &option, storage), 0);
  EXPECT_LT(gScale.largestSeen, 10.0);
  EXPECT_GT(gScale.smallestSeen, 0.1);
  EXPECT_EQ(storage->objScale, kObjFactor);
  EXPECT_EQ(m.obj[5], 1e9 * colFactor(5) * kObjFactor);
  EXPECT_EQ(m.obj[4], before[m.matValue.size() + 4] * colFactor(4) * kObjFactor);
  EXPECT_EQ(m.rhs[6], 1e-9 * rowFactor(6));
  ASSERT_EQ(ipmUnscale(&env, &m.model, &option, storage, nullptr), 0);
  EXPECT_EQ(m.numbers(), before);
}

TEST_F(Scale, ObjectiveBoost) {
  // All-zero objective: no boost, objScale is bramlet's.
  {
    TestModel m = spread(5, nearOne(30), 3);
    ASSERT_EQ(ipmScale(&env, &m.model, &option, storage), 0);
    EXPECT_EQ(storage->objScale, kObjFactor);
    EXPECT_EQ(gScale.obj[0], 0.0);
  }
  // A large objective is brought down to the matrix's median before
  // bramlet sees it, and the boost goes into objScale and rowScale[numRow].
  {
    TestModel m = spread(5, nearOne(30), 3);
    for (int32_t j = 0; j < m.model.numCol; j++) m.obj[j] = 3e4 * (1 + j % 3);
    const std::vector<double> before = m.numbers();
    ASSERT_EQ(ipmScale(&env, &m.model, &option, storage), 0);
    // Interpolated medians: 0.55 for the matrix (all in low bin 0), 5.5e4
    // for the objective (all in high bin 4).
    double boost = storage->objScale / kObjFactor;
    EXPECT_NEAR(boost, 0.55 / 5.5e4, 1e-18);
    EXPECT_EQ(storage->rowScale[m.model.numRow], storage->objScale);
    EXPECT_LT(gScale.largestSeen, 10.0);
    ASSERT_EQ(ipmUnscale(&env, &m.model, &option, storage, nullptr), 0);
    const std::vector<double> after = m.numbers();
    for (size_t k = 0; k < before.size(); k++)
      EXPECT_NEAR(after[k], before[k], 1e-15 * fabs(before[k])) << k;
  }
  // A tiny objective is boosted only while its Q3 is above 1e-10.
  for (double size : {1e-4, 1e-11}) {
    TestModel m = spread(5, nearOne(30), 3);
    for (int32_t j = 0; j < m.model.numCol; j++) m.obj[j] = size * (1 + j % 3);
    ASSERT_EQ(ipmScale(&env, &m.model, &option, storage), 0);
    if (size > 1e-10)
      EXPECT_GT(storage->objScale / kObjFactor, 1e3);
    else
      EXPECT_EQ(storage->objScale, kObjFactor);
  }
}

TEST_F(Scale, ServiceFailureIsReturnedAndNothingLeaks) {
  Histogram h;
  std::vector<double> v = nearOne(96);
  for (int i = 0; i < 4; i++) v.push_back(1e12);
  TestModel m = spread(9, v, 4);
  int64_t blocks = liveBlocks();
  gScale.result = 7;
  EXPECT_EQ(ipmScale(&env, &m.model, &option, storage), 7);
  EXPECT_EQ(storage->objScale, 1.0);  // rowScale[numRow] as handed back
  // Outliers are left at the median: the solve is over.
  for (double x : m.matValue) EXPECT_NE(x, 1e12);
  EXPECT_EQ(liveBlocks(), blocks + 2);  // only the two scale arrays, owned by storage

  gScale.result = 0;
  gUnscale.result = 9;
  TestModel n = spread(9, v, 4);
  ASSERT_EQ(ipmScale(&env, &n.model, &option, storage), 0);
  EXPECT_EQ(liveBlocks(), blocks + 2);  // a second run replaces, not adds
  EXPECT_EQ(ipmUnscale(&env, &n.model, &option, storage, nullptr), 9);
}

TEST_F(Scale, WithoutScaleServiceFailsCleanly) {
  TestModel m = spread(5, nearOne(30), 3);
  const std::vector<double> before = m.numbers();
  env.preObject = nullptr;
  EXPECT_EQ(ipmScale(&env, &m.model, &option, storage), IPM_STATUS_FAILED);
  EXPECT_EQ(m.numbers(), before);
  env.preObject = bramlet;
  bramlet[BRAMLET_SLOT_SCALE] = nullptr;
  EXPECT_EQ(ipmScale(&env, &m.model, &option, storage), IPM_STATUS_FAILED);
  EXPECT_EQ(ipmUnscale(&env, &m.model, &option, storage, nullptr), IPM_STATUS_FAILED);
}

TEST_F(Scale, OutlierCountMismatchIsAnError) {
  // A NaN lands in the high catch-all and is counted as a large outlier, but
  // no comparison marks it: the walk finds one fewer.
  std::vector<double> v = nearOne(40);
  v[7] = NAN;
  TestModel m = spread(6, v, 4);
  EXPECT_EQ(ipmScale(&env, &m.model, &option, storage), IPM_STATUS_FAILED);
  EXPECT_TRUE(logged("Error ipmScale: numOutlier=0 should be 1"));
  EXPECT_EQ(gScale.calls, 0);
}

TEST_F(Scale, OutOfMemoryAtEachAllocation) {
  std::vector<double> v = nearOne(96);
  for (int i = 0; i < 4; i++) v.push_back(1e12);
  int64_t blocks = liveBlocks();
  int32_t status = IPM_STATUS_OUT_OF_MEMORY;
  int k = 0;
  for (; k < 20 && status == IPM_STATUS_OUT_OF_MEMORY; k++) {
    TestModel m = spread(9, v, 4);
    host.failAllocation(k);
    status = ipmScale(&env, &m.model, &option, storage);
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
    TestModel m = spread(9, v, 4);
    host.failAllocation(refuse);
    EXPECT_EQ(ipmScale(&env, &m.model, &option, storage), IPM_STATUS_OUT_OF_MEMORY);
    host.clearFailures();
  }

  // Row-only scaling allocates once.
  option.verifyLevel = 0;
  option.rowScaleOnly = 1;
  FreeStorage(&env, storage);
  storage = poolNew<ipmStorage>(pool, 1);
  blocks = liveBlocks();
  TestModel m = spread(9, v, 4);
  host.failAllocation(0);
  EXPECT_EQ(ipmScale(&env, &m.model, &option, storage), IPM_STATUS_OUT_OF_MEMORY);
  host.clearFailures();
  EXPECT_EQ(liveBlocks(), blocks);
}

// ---- row-only scaling ----------------------------------------------------------------

// Packed: row-only scaling runs flat over the stored positions.
struct PackedLP {
  std::vector<int32_t> colBegin{0, 3, 6}, colLength{3, 3}, rowIndex{0, 1, 2, 0, 1, 2};
  std::vector<double> matValue{9.99, 10.0, 4.0, 1.0, 2.0, -5.0};
  std::vector<double> obj{3.0, -2.0}, rhs{0.5, 3.0, -40.0}, y{1.0, 1.0, 1.0};
  ipmModel model{};
  explicit PackedLP(int32_t type) {
    model.typeModel = type;
    model.numRow = 3;
    model.numCol = 2;
    model.numCoef = 6;
    model.colBegin = colBegin.data();
    model.colLength = colLength.data();
    model.rowIndex = rowIndex.data();
    model.matValue = matValue.data();
    model.obj = obj.data();
    model.rhs = rhs.data();
    model.solDual = y.data();
  }
};

TEST_F(Scale, RowOnlyThresholdAndAsymmetricDuals) {
  option.rowScaleOnly = 1;
  for (int32_t type : {IPM_MODEL_LP, IPM_MODEL_QP}) {
    PackedLP m(type);
    ASSERT_EQ(ipmScale(&env, &m.model, &option, storage), 0);
    EXPECT_EQ(gScale.calls, 0);
    EXPECT_EQ(storage->colScale, nullptr);
    EXPECT_EQ(storage->objScale, 3.0);  // kept though below 10
    EXPECT_EQ(m.obj[0], 3.0);
    ASSERT_NE(storage->rowScale, nullptr);
    EXPECT_EQ(storage->rowScale[0], 9.99);
    EXPECT_EQ(storage->rowScale[1], 10.0);
    EXPECT_EQ(storage->rowScale[2], 40.0);  // raised by the rhs
    EXPECT_EQ(m.matValue[0], 9.99);         // row 0 below the threshold
    EXPECT_EQ(m.rhs[0], 0.5);
    EXPECT_EQ(m.matValue[1], 1.0);          // row 1 at it
    EXPECT_EQ(m.rhs[1], 0.3);
    EXPECT_EQ(m.matValue[5], -5.0 / 40.0);
    EXPECT_EQ(m.rhs[2], -1.0);

    ASSERT_EQ(ipmUnscale(&env, &m.model, &option, storage, nullptr), 0);
    EXPECT_EQ(m.y[0], 1.0);
    EXPECT_EQ(m.y[1], 0.1);
    EXPECT_EQ(m.y[2], 1.0 / 40.0);
    PackedLP fresh(type);
    for (size_t p = 0; p < m.matValue.size(); p++)
      EXPECT_NEAR(m.matValue[p], fresh.matValue[p], 1e-15 * fabs(fresh.matValue[p]));
    for (int i = 0; i < 3; i++) EXPECT_NEAR(m.rhs[i], fresh.rhs[i], 1e-15 * fabs(fresh.rhs[i]));
  }

  // A large objective is divided; only the duals of scaled rows get its
  // factor back.
  PackedLP m(IPM_MODEL_LP);
  m.obj = {50.0, -20.0};
  ASSERT_EQ(ipmScale(&env, &m.model, &option, storage), 0);
  EXPECT_EQ(storage->objScale, 50.0);
  EXPECT_EQ(m.obj[0], 1.0);
  EXPECT_EQ(m.obj[1], -0.4);
  ASSERT_EQ(ipmUnscale(&env, &m.model, &option, storage, nullptr), 0);
  EXPECT_EQ(m.obj[0], 50.0);
  EXPECT_EQ(m.obj[1], -20.0);
  EXPECT_EQ(m.y[0], 1.0);  // unscaled row: untouched, objective factor or not
  EXPECT_EQ(m.y[1], 1.0 / 10.0 * 50.0);
  EXPECT_EQ(m.y[2], 1.0 / 40.0 * 50.0);

  // No columns: objScale 0 and nothing divided.
  PackedLP empty(IPM_MODEL_LP);
  empty.model.numCol = 0;
  empty.model.numCoef = 0;
  ASSERT_EQ(iplpScaleRow(&env, &empty.model, storage), 0);
  EXPECT_EQ(storage->objScale, 0.0);
  EXPECT_EQ(empty.rhs[2], -1.0);  // the rhs alone still scales its row
}

// ---- the checks of the histogram -------------------------------------------------------

TEST_F(Scale, ChecksCatchWrongHistograms) {
  std::vector<double> data{0.0, 0.3, 0.5, 2.0, 40.0};
  Histogram good;
  good.add(data);
  good.lowCount[15]++;  // the zero, as the matrix form counts it
  EXPECT_EQ(VerifyDistribution(&env, 5, 5, data.data(), good.lowCount, good.lowBreak,
                               good.highCount, good.highBreak),
            0);
  EXPECT_TRUE(gLines.empty());

  Histogram shifted = good;  // 40 claimed to be in high bin 0
  shifted.highCount[1]--;
  shifted.highCount[0]++;
  EXPECT_EQ(VerifyDistribution(&env, 5, 5, data.data(), shifted.lowCount, shifted.lowBreak,
                               shifted.highCount, shifted.highBreak),
            IPM_STATUS_FAILED);
  EXPECT_TRUE(logged("Error VerifyDistribution: data(4)="));
  // Below level 5 the check does not run.
  gLines.clear();
  EXPECT_EQ(VerifyDistribution(&env, 4, 5, data.data(), shifted.lowCount, shifted.lowBreak,
                               shifted.highCount, shifted.highBreak),
            0);
  EXPECT_TRUE(gLines.empty());

  Histogram missing = good;
  missing.lowCount[0]--;
  EXPECT_EQ(VerifyDistribution(&env, 5, 5, data.data(), missing.lowCount, missing.lowBreak,
                               missing.highCount, missing.highBreak),
            IPM_STATUS_FAILED);
  EXPECT_TRUE(logged("Error VerifyDistribution: number of data = 4 should be 5"));

  Histogram badBreak = good;
  badBreak.highBreak[3] = 999.0;
  EXPECT_EQ(VerifyDistribution(&env, 5, 5, data.data(), badBreak.lowCount, badBreak.lowBreak,
                               badBreak.highCount, badBreak.highBreak),
            IPM_STATUS_FAILED);
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
  m.model.numCoef = 40;
  EXPECT_EQ(VerifyOutlier(1e4, -1.0, &env, 5, &m.model, 40, 1, 0, nullptr, nullptr, nullptr,
                          nullptr),
            0);
  // A large cut above the value said to be beyond it.
  EXPECT_EQ(VerifyOutlier(1e10, -1.0, &env, 5, &m.model, 40, 1, 0, nullptr, nullptr, nullptr,
                          nullptr),
            IPM_STATUS_FAILED);
  EXPECT_TRUE(logged("Error VerifyOutlier: data(39 < 40)="));
  // More in a tail than 5 percent allows.
  EXPECT_EQ(VerifyOutlier(1.9, -1.0, &env, 5, &m.model, 40, 3, 0, nullptr, nullptr, nullptr,
                          nullptr),
            IPM_STATUS_FAILED);
  EXPECT_TRUE(logged("Error VerifyOutlier: number of left outlier = 3 should <= 2"));
  // A small cut above values that were not counted.
  EXPECT_EQ(VerifyOutlier(1e4, 0.7, &env, 5, &m.model, 40, 1, 0, nullptr, nullptr, nullptr,
                          nullptr),
            IPM_STATUS_FAILED);
  EXPECT_TRUE(logged("Error VerifyOutlier: data(numRight=0)="));
}

}  // namespace
