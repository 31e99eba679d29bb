// The plain-array sparse helpers, checked against dense constructions.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "util/sparse.h"

namespace {

using Dense = std::vector<std::vector<double>>;  // [major][minor]

// A matrix with lengths whose majors are separated by gaps.  The gaps hold
// valid-looking entries with a huge value, so that any helper reading past a
// live part gives itself away.
struct Sparse {
  int32_t numMajor = 0;
  int32_t numMinor = 0;
  std::vector<int32_t> begin, length, index;
  std::vector<double> value;
};

constexpr double kGapValue = 1e9;

Sparse randomSparse(std::mt19937& rng, int32_t numMajor, int32_t numMinor, double density,
                    bool gaps) {
  Sparse a;
  a.numMajor = numMajor;
  a.numMinor = numMinor;
  std::uniform_real_distribution<double> u(0.0, 1.0);
  std::uniform_real_distribution<double> val(-5.0, 5.0);
  std::uniform_int_distribution<int> gapSize(0, 2);
  for (int32_t j = 0; j < numMajor; ++j) {
    std::vector<int32_t> rows;
    for (int32_t i = 0; i < numMinor; ++i)
      if (u(rng) < density) rows.push_back(i);
    std::shuffle(rows.begin(), rows.end(), rng);
    a.begin.push_back(static_cast<int32_t>(a.index.size()));
    a.length.push_back(static_cast<int32_t>(rows.size()));
    for (int32_t r : rows) {
      a.index.push_back(r);
      a.value.push_back(val(rng));
    }
    int g = gaps && numMinor > 0 ? gapSize(rng) : 0;
    for (int k = 0; k < g; ++k) {
      a.index.push_back(static_cast<int32_t>(rng() % numMinor));
      a.value.push_back(kGapValue);
    }
  }
  a.begin.push_back(static_cast<int32_t>(a.index.size()));
  return a;
}

Dense toDense(const Sparse& a) {
  Dense d(a.numMajor, std::vector<double>(a.numMinor, 0.0));
  for (int32_t j = 0; j < a.numMajor; ++j)
    for (int32_t k = a.begin[j]; k < a.begin[j] + a.length[j]; ++k) d[j][a.index[k]] += a.value[k];
  return d;
}

Dense transposed(const Dense& d, int32_t numMinor) {
  Dense t(numMinor, std::vector<double>(d.size(), 0.0));
  for (size_t j = 0; j < d.size(); ++j)
    for (int32_t i = 0; i < numMinor; ++i) t[i][j] = d[j][i];
  return t;
}

// Text log capture: the call-back has no context, so it writes to a global.
std::string gLog;
void captureLog(const char* format, ...) {
  char buf[512];
  va_list ap;
  va_start(ap, format);
  vsnprintf(buf, sizeof buf, format, ap);
  va_end(ap);
  gLog += buf;
}
std::vector<std::string> takeLogLines() {
  std::vector<std::string> lines;
  size_t start = 0;
  for (size_t nl; (nl = gLog.find('\n', start)) != std::string::npos; start = nl + 1)
    lines.push_back(gLog.substr(start, nl - start));
  if (start < gLog.size()) lines.push_back(gLog.substr(start) + "<no newline>");
  gLog.clear();
  return lines;
}
HalvexEnv logEnv() {
  HalvexEnv env{};
  env.textLog = captureLog;
  return env;
}

// ---- transpositions ---------------------------------------------------------------

TEST(SparseTranspose, ToggleMatrixRoundTripsRandomRectangular) {
  std::mt19937 rng(11);
  for (int trial = 0; trial < 30; ++trial) {
    const int32_t numMajor = 1 + rng() % 12, numMinor = 1 + rng() % 12;
    Sparse a = randomSparse(rng, numMajor, numMinor, 0.35, false);
    const int32_t nnz = a.begin[numMajor];
    std::vector<int32_t> tBegin(numMinor + 1, -7), tIndex(nnz, -7);
    std::vector<double> tValue(nnz);
    toggleMatrix(numMajor, numMinor, nnz, a.begin.data(), a.index.data(), a.value.data(),
                 tBegin.data(), tIndex.data(), tValue.data());
    ASSERT_EQ(tBegin[0], 0);
    ASSERT_EQ(tBegin[numMinor], nnz);
    Sparse t;
    t.numMajor = numMinor;
    t.numMinor = numMajor;
    t.begin = tBegin;
    t.index = tIndex;
    t.value = tValue;
    for (int32_t i = 0; i < numMinor; ++i) {
      t.length.push_back(tBegin[i + 1] - tBegin[i]);
      for (int32_t k = tBegin[i] + 1; k < tBegin[i + 1]; ++k)
        EXPECT_LT(tIndex[k - 1], tIndex[k]) << "output major " << i << " not by source major";
    }
    EXPECT_EQ(toDense(t), transposed(toDense(a), numMinor));

    std::vector<int32_t> bBegin(numMajor + 1), bIndex(nnz);
    std::vector<double> bValue(nnz);
    toggleMatrix(numMinor, numMajor, nnz, tBegin.data(), tIndex.data(), tValue.data(),
                 bBegin.data(), bIndex.data(), bValue.data());
    Sparse back = t;
    back.numMajor = numMajor;
    back.numMinor = numMinor;
    back.begin = bBegin;
    back.index = bIndex;
    back.value = bValue;
    back.length.clear();
    for (int32_t j = 0; j < numMajor; ++j) back.length.push_back(bBegin[j + 1] - bBegin[j]);
    EXPECT_EQ(back.length, a.length);
    EXPECT_EQ(toDense(back), toDense(a));
  }
}

TEST(SparseTranspose, ToggleWithLengthTakesLiveEntriesAcrossGaps) {
  std::mt19937 rng(12);
  for (int trial = 0; trial < 30; ++trial) {
    const int32_t numMajor = 1 + rng() % 12, numMinor = 1 + rng() % 12;
    Sparse a = randomSparse(rng, numMajor, numMinor, 0.35, true);
    const int32_t live = std::accumulate(a.length.begin(), a.length.end(), 0);
    Sparse t;
    t.numMajor = numMinor;
    t.numMinor = numMajor;
    t.begin.assign(numMinor + 1, -7);
    t.length.assign(numMinor, -7);
    t.index.assign(live, -7);
    t.value.assign(live, 0.0);
    toggleMatrixWithLength(numMajor, numMinor, nullptr, a.begin.data(), a.length.data(),
                           a.index.data(), a.value.data(), t.begin.data(), t.length.data(),
                           t.index.data(), t.value.data());
    ASSERT_EQ(t.begin[numMinor], live);
    for (int32_t i = 0; i < numMinor; ++i) {
      ASSERT_EQ(t.length[i], t.begin[i + 1] - t.begin[i]);
      for (int32_t k = t.begin[i] + 1; k < t.begin[i + 1]; ++k) EXPECT_LT(t.index[k - 1], t.index[k]);
    }
    EXPECT_EQ(toDense(t), transposed(toDense(a), numMinor));

    // And back: the packed transpose is itself a valid input with lengths.
    Sparse back;
    back.numMajor = numMajor;
    back.numMinor = numMinor;
    back.begin.resize(numMajor + 1);
    back.length.resize(numMajor);
    back.index.resize(live);
    back.value.resize(live);
    toggleMatrixWithLength(numMinor, numMajor, nullptr, t.begin.data(), t.length.data(),
                           t.index.data(), t.value.data(), back.begin.data(), back.length.data(),
                           back.index.data(), back.value.data());
    EXPECT_EQ(back.length, a.length);
    EXPECT_EQ(toDense(back), toDense(a));
  }
}

TEST(SparseTranspose, ToggleWithLengthSkipsWholeMajors) {
  std::mt19937 rng(13);
  for (int trial = 0; trial < 20; ++trial) {
    const int32_t numMajor = 2 + rng() % 10, numMinor = 1 + rng() % 10;
    Sparse a = randomSparse(rng, numMajor, numMinor, 0.5, true);
    std::vector<int32_t> skipMap(numMajor);
    Dense kept = toDense(a);
    for (int32_t j = 0; j < numMajor; ++j) {
      // Zero and positive entries keep a major; only negatives drop it.
      skipMap[j] = static_cast<int32_t>(rng() % 3) - 1;
      if (skipMap[j] < 0) std::fill(kept[j].begin(), kept[j].end(), 0.0);
    }
    Sparse t;
    t.numMajor = numMinor;
    t.numMinor = numMajor;
    t.begin.assign(numMinor + 1, -7);
    t.length.assign(numMinor, -7);
    t.index.assign(a.index.size(), -7);
    t.value.assign(a.index.size(), 0.0);
    toggleMatrixWithLength(numMajor, numMinor, skipMap.data(), a.begin.data(), a.length.data(),
                           a.index.data(), a.value.data(), t.begin.data(), t.length.data(),
                           t.index.data(), t.value.data());
    for (int32_t k = 0; k < t.begin[numMinor]; ++k) EXPECT_GE(skipMap[t.index[k]], 0);
    // Uncompacted: output indices are the source major numbers.
    EXPECT_EQ(toDense(t), transposed(kept, numMinor));
  }

  Sparse a = randomSparse(rng, 5, 4, 0.8, false);
  std::vector<int32_t> allSkipped(5, -1), outBegin(5, -7), outLength(4, -7);
  std::vector<int32_t> outIndex(a.index.size(), -7);
  std::vector<double> outValue(a.index.size(), 3.0);
  toggleMatrixWithLength(5, 4, allSkipped.data(), a.begin.data(), a.length.data(), a.index.data(),
                         a.value.data(), outBegin.data(), outLength.data(), outIndex.data(),
                         outValue.data());
  EXPECT_EQ(outBegin, std::vector<int32_t>(5, 0));
  EXPECT_EQ(outLength, std::vector<int32_t>(4, 0));
  EXPECT_EQ(outIndex, std::vector<int32_t>(a.index.size(), -7));
}

TEST(SparseTranspose, NullArraysAndZeroMajors) {
  const int32_t begin[] = {0, 2}, length[] = {2}, index[] = {0, 1};
  const double value[] = {1.0, 2.0};
  std::vector<int32_t> outBegin(3, -7), outLength(2, -7), outIndex(2, -7);
  std::vector<double> outValue(2, 3.0);
  toggleMatrix(1, 2, 2, nullptr, index, value, outBegin.data(), outIndex.data(), outValue.data());
  toggleMatrix(1, 2, 2, begin, index, value, nullptr, outIndex.data(), outValue.data());
  toggleMatrixWithLength(1, 2, nullptr, begin, nullptr, index, value, outBegin.data(),
                         outLength.data(), outIndex.data(), outValue.data());
  toggleMatrixWithLength(1, 2, nullptr, begin, length, index, value, outBegin.data(), nullptr,
                         outIndex.data(), outValue.data());
  EXPECT_EQ(outBegin, std::vector<int32_t>(3, -7));
  EXPECT_EQ(outLength, std::vector<int32_t>(2, -7));
  EXPECT_EQ(outIndex, std::vector<int32_t>(2, -7));

  const int32_t noBegin[] = {0};
  toggleMatrix(0, 2, 0, noBegin, index, value, outBegin.data(), outIndex.data(), outValue.data());
  EXPECT_EQ(outBegin, std::vector<int32_t>(3, 0));
  std::fill(outBegin.begin(), outBegin.end(), -7);
  toggleMatrixWithLength(0, 2, nullptr, noBegin, length, index, value, outBegin.data(),
                         outLength.data(), outIndex.data(), outValue.data());
  EXPECT_EQ(outBegin, std::vector<int32_t>(3, 0));
  EXPECT_EQ(outLength, std::vector<int32_t>(2, 0));
  EXPECT_EQ(outIndex, std::vector<int32_t>(2, -7));
}

// ---- copy -----------------------------------------------------------------------

TEST(SparseCopy, PacksLiveEntriesAndDropsGaps) {
  std::mt19937 rng(21);
  for (int trial = 0; trial < 10; ++trial) {
    const int32_t numMajor = 1 + rng() % 10;
    Sparse a = randomSparse(rng, numMajor, 8, 0.4, true);
    const int32_t live = std::accumulate(a.length.begin(), a.length.end(), 0);
    // One spare slot each, which must stay untouched: no closing begin, no
    // copied gap entries.
    std::vector<int32_t> outBegin(numMajor + 1, -7), outLength(numMajor), outIndex(live + 1, -7);
    std::vector<double> outValue(live + 1, -7.0);
    copyMatrix(numMajor, a.begin.data(), a.length.data(), a.index.data(), a.value.data(),
               outBegin.data(), outLength.data(), outIndex.data(), outValue.data());
    EXPECT_EQ(outBegin[numMajor], -7);
    EXPECT_EQ(outIndex[live], -7);
    EXPECT_EQ(outLength, a.length);
    int32_t pos = 0;
    for (int32_t j = 0; j < numMajor; ++j) {
      ASSERT_EQ(outBegin[j], pos);
      for (int32_t k = 0; k < a.length[j]; ++k, ++pos) {
        EXPECT_EQ(outIndex[pos], a.index[a.begin[j] + k]);
        EXPECT_EQ(outValue[pos], a.value[a.begin[j] + k]);
      }
    }
  }
}

// ---- augmentation ---------------------------------------------------------------

TEST(SparseAugment, SmallKktLayout) {
  // Three variable columns, two constraint rows (3 and 4); diagonals first.
  std::vector<int32_t> begin = {0, 3, 5, 7, -1, -1};
  std::vector<int32_t> index = {0, 3, 4, 1, 4, 2, 3, -1, -1, -1, -1, -1, -1};
  std::vector<double> value = {4, 1, 2, 5, 3, 6, 7, -1, -1, -1, -1, -1, -1};
  augmentMatrix(5, 3, begin.data(), index.data(), value.data());
  EXPECT_EQ(begin, (std::vector<int32_t>{0, 3, 5, 7, 10, 13}));
  EXPECT_EQ(index, (std::vector<int32_t>{0, 3, 4, 1, 4, 2, 3, 0, 2, 3, 0, 1, 4}));
  EXPECT_EQ(value, (std::vector<double>{4, 1, 2, 5, 3, 6, 7, 1, 7, 0, 2, 3, 0}));
}

TEST(SparseAugment, RandomMatchesDenseSymmetric) {
  std::mt19937 rng(31);
  std::uniform_real_distribution<double> val(0.5, 5.0);
  for (int trial = 0; trial < 30; ++trial) {
    const int32_t numCol = rng() % 8, numRow = rng() % 8, numDim = numCol + numRow;
    Dense full(numDim, std::vector<double>(numDim, 0.0));
    std::vector<int32_t> begin(numDim + 1, -1), index;
    std::vector<double> value;
    int32_t offDiag = 0;
    for (int32_t j = 0; j < numCol; ++j) {
      begin[j] = static_cast<int32_t>(index.size());
      index.push_back(j);
      value.push_back(full[j][j] = val(rng));
      std::vector<int32_t> rows;
      for (int32_t r = numCol; r < numDim; ++r)
        if (rng() % 2) rows.push_back(r);
      std::shuffle(rows.begin(), rows.end(), rng);
      for (int32_t r : rows) {
        index.push_back(r);
        value.push_back(full[j][r] = full[r][j] = val(rng));
        ++offDiag;
      }
    }
    const int32_t base = static_cast<int32_t>(index.size());
    begin[numCol] = base;
    index.resize(base + offDiag + numRow, -1);
    value.resize(base + offDiag + numRow, -1.0);
    const std::vector<int32_t> oldIndex(index.begin(), index.begin() + base);

    augmentMatrix(numDim, numCol, begin.data(), index.data(), value.data());

    ASSERT_EQ(begin[numCol], base);
    ASSERT_EQ(begin[numDim], base + offDiag + numRow);
    EXPECT_TRUE(std::equal(oldIndex.begin(), oldIndex.end(), index.begin()));
    Dense got(numDim, std::vector<double>(numDim, 0.0));
    std::vector<std::vector<int>> seen(numDim, std::vector<int>(numDim, 0));
    for (int32_t j = 0; j < numDim; ++j) {
      ASSERT_LT(begin[j], begin[j + 1]) << "column " << j << " lost its diagonal";
      for (int32_t k = begin[j]; k < begin[j + 1]; ++k) {
        got[j][index[k]] = value[k];
        seen[j][index[k]]++;
      }
      if (j >= numCol) {
        EXPECT_EQ(index[begin[j + 1] - 1], j);
        EXPECT_EQ(value[begin[j + 1] - 1], 0.0);
        for (int32_t k = begin[j] + 1; k < begin[j + 1] - 1; ++k) EXPECT_LT(index[k - 1], index[k]);
      }
    }
    for (int32_t j = 0; j < numDim; ++j)
      for (int32_t i = 0; i < numDim; ++i) EXPECT_LE(seen[j][i], 1);
    EXPECT_EQ(got, full);
  }
}

// ---- removal --------------------------------------------------------------------

struct SparseRemove : ::testing::Test {
  // Major 1 is live at positions 2..6, with one spare slot (99) behind it.
  std::vector<int32_t> begin{0, 2, 8}, length{2, 5, 1};
  std::vector<int32_t> index{0, 1, 10, 11, 12, 13, 14, 99, 5};
  std::vector<double> value{0.5, 1.5, 10, 11, 12, 13, 14, 99, 5};
  HalvexEnv env = logEnv();
  void SetUp() override { gLog.clear(); }
  void remove(int32_t minor, int32_t major) {
    removeElement(&env, minor, major, begin.data(), length.data(), index.data(), value.data());
  }
};

TEST_F(SparseRemove, RemovedEntriesLieBehindInReverseOrder) {
  remove(11, 1);
  remove(13, 1);
  EXPECT_EQ(length, (std::vector<int32_t>{2, 3, 1}));
  EXPECT_EQ(index, (std::vector<int32_t>{0, 1, 10, 12, 14, 13, 11, 99, 5}));
  EXPECT_EQ(value, (std::vector<double>{0.5, 1.5, 10, 12, 14, 13, 11, 99, 5}));
  EXPECT_TRUE(gLog.empty());
}

TEST_F(SparseRemove, LastLiveEntryOnlyShortens) {
  remove(14, 1);
  remove(0, 0);
  EXPECT_EQ(length, (std::vector<int32_t>{1, 4, 1}));
  EXPECT_EQ(index, (std::vector<int32_t>{1, 0, 10, 11, 12, 13, 14, 99, 5}));
  EXPECT_EQ(value, (std::vector<double>{1.5, 0.5, 10, 11, 12, 13, 14, 99, 5}));
  remove(1, 0);
  remove(13, 1);
  EXPECT_EQ(length, (std::vector<int32_t>{0, 3, 1}));
  EXPECT_EQ(index, (std::vector<int32_t>{1, 0, 10, 11, 12, 13, 14, 99, 5}));
}

TEST_F(SparseRemove, PatternWithoutValues) {
  removeElement(&env, 10, 1, begin.data(), length.data(), index.data(), nullptr);
  EXPECT_EQ(index, (std::vector<int32_t>{0, 1, 11, 12, 13, 14, 10, 99, 5}));
  EXPECT_EQ(length[1], 4);
}

TEST_F(SparseRemove, MissingEntryLogsAndStillShortens) {
  remove(50, 1);
  EXPECT_EQ(takeLogLines(),
            std::vector<std::string>{"Error removeElement: minor 50 not found in major 1"});
  // The slot behind the live part is taken as the one found.
  EXPECT_EQ(length[1], 4);
  EXPECT_EQ(index, (std::vector<int32_t>{0, 1, 10, 11, 12, 13, 99, 99, 5}));
  EXPECT_EQ(value[6], 99.0);

  // An empty major: the length goes negative and no neighbour is touched.
  std::vector<int32_t> emptyBegin{0, 2, 2}, emptyLength{2, 0, 1}, emptyIndex{7, 8, 9};
  std::vector<double> emptyValue{7, 8, 9};
  removeElement(&env, 3, 1, emptyBegin.data(), emptyLength.data(), emptyIndex.data(),
                emptyValue.data());
  EXPECT_EQ(takeLogLines(),
            std::vector<std::string>{"Error removeElement: minor 3 not found in major 1"});
  EXPECT_EQ(emptyLength, (std::vector<int32_t>{2, -1, 1}));
  EXPECT_EQ(emptyIndex, (std::vector<int32_t>{7, 8, 9}));
  EXPECT_EQ(emptyValue, (std::vector<double>{7, 8, 9}));

  // Silent without a log, in both ways a log can be missing.
  HalvexEnv quiet{};
  removeElement(&quiet, 50, 1, begin.data(), length.data(), index.data(), value.data());
  removeElement(nullptr, 50, 0, begin.data(), length.data(), index.data(), value.data());
  EXPECT_EQ(length, (std::vector<int32_t>{1, 3, 1}));
  EXPECT_TRUE(gLog.empty());
}

// ---- products -------------------------------------------------------------------

std::vector<double> randomVector(std::mt19937& rng, int32_t n) {
  std::uniform_real_distribution<double> u(-2.0, 2.0);
  std::vector<double> v(n);
  for (double& x : v) x = u(rng);
  return v;
}

TEST(SparseProduct, MatrixTimesVectorAndTranspose) {
  std::mt19937 rng(41);
  for (int trial = 0; trial < 20; ++trial) {
    const int32_t numCol = 1 + rng() % 10, numRow = 1 + rng() % 10;
    Sparse a = randomSparse(rng, numCol, numRow, 0.4, true);
    const Dense d = toDense(a);
    const std::vector<double> x = randomVector(rng, numCol), xr = randomVector(rng, numRow);
    std::vector<double> ax(numRow, 0.0), atx(numCol, 0.0);
    for (int32_t j = 0; j < numCol; ++j)
      for (int32_t i = 0; i < numRow; ++i) {
        ax[i] += d[j][i] * x[j];
        atx[j] += d[j][i] * xr[i];
      }

    std::vector<double> y(numRow, 123.0);
    matrixTimesVector(numRow, numCol, a.begin.data(), a.length.data(), a.index.data(),
                      a.value.data(), x.data(), y.data());
    for (int32_t i = 0; i < numRow; ++i) EXPECT_NEAR(y[i], ax[i], 1e-12);

    std::vector<double> yt(numCol, 123.0);
    vectorTimesMatrix(numCol, a.begin.data(), a.length.data(), a.index.data(), a.value.data(),
                      xr.data(), yt.data());
    for (int32_t j = 0; j < numCol; ++j) EXPECT_NEAR(yt[j], atx[j], 1e-12);

    // Without lengths each column runs to the next begin.
    Sparse packed = randomSparse(rng, numCol, numRow, 0.4, false);
    const Dense dp = toDense(packed);
    std::vector<double> yp(numRow, 123.0);
    matrixTimesVector(numRow, numCol, packed.begin.data(), nullptr, packed.index.data(),
                      packed.value.data(), x.data(), yp.data());
    for (int32_t i = 0; i < numRow; ++i) {
      double s = 0.0;
      for (int32_t j = 0; j < numCol; ++j) s += dp[j][i] * x[j];
      EXPECT_NEAR(yp[i], s, 1e-12);
    }
  }
}

// A strict triangle, each off-diagonal pair stored once in either major, with
// gaps; full is the dense symmetric matrix it stands for.
struct SymQ {
  Sparse tri;
  std::vector<double> diag;
  Dense full;
};

SymQ randomSym(std::mt19937& rng, int32_t n) {
  SymQ q;
  q.diag = randomVector(rng, n);
  q.full.assign(n, std::vector<double>(n, 0.0));
  for (int32_t i = 0; i < n; ++i) q.full[i][i] = q.diag[i];
  std::vector<std::vector<int32_t>> owned(n);
  for (int32_t i = 0; i < n; ++i)
    for (int32_t r = i + 1; r < n; ++r)
      if (rng() % 2) {
        if (rng() % 2)
          owned[i].push_back(r);
        else
          owned[r].push_back(i);
      }
  Sparse& t = q.tri;
  t.numMajor = t.numMinor = n;
  std::uniform_real_distribution<double> val(-3.0, 3.0);
  for (int32_t i = 0; i < n; ++i) {
    t.begin.push_back(static_cast<int32_t>(t.index.size()));
    t.length.push_back(static_cast<int32_t>(owned[i].size()));
    for (int32_t r : owned[i]) {
      const double v = val(rng);
      t.index.push_back(r);
      t.value.push_back(v);
      q.full[i][r] = q.full[r][i] = v;
    }
    t.index.push_back(i);  // a gap entry
    t.value.push_back(kGapValue);
  }
  t.begin.push_back(static_cast<int32_t>(t.index.size()));
  return q;
}

TEST(SparseProduct, SymmetricProductForEachAlpha) {
  std::mt19937 rng(42);
  for (int trial = 0; trial < 15; ++trial) {
    const int32_t n = 1 + rng() % 9;
    SymQ q = randomSym(rng, n);
    const std::vector<double> x = randomVector(rng, n), y0 = randomVector(rng, n);
    for (double alpha : {1.0, -1.0, 2.5}) {
      std::vector<double> y = y0;
      symmatrixTimesVector(n, q.tri.begin.data(), q.tri.length.data(), q.tri.index.data(),
                           q.tri.value.data(), q.diag.data(), x.data(), y.data(), alpha);
      for (int32_t i = 0; i < n; ++i) {
        double qx = 0.0;
        for (int32_t j = 0; j < n; ++j) qx += q.full[i][j] * x[j];
        EXPECT_NEAR(y[i], y0[i] + alpha * qx, 1e-12) << "alpha " << alpha << " row " << i;
      }
      // A diagonal Q has no triangle at all.
      y = y0;
      symmatrixTimesVector(n, nullptr, nullptr, nullptr, nullptr, q.diag.data(), x.data(),
                           y.data(), alpha);
      for (int32_t i = 0; i < n; ++i) EXPECT_NEAR(y[i], y0[i] + alpha * q.diag[i] * x[i], 1e-12);
    }
    // Alpha 0 must neither read x nor touch y.
    std::vector<double> y = y0;
    symmatrixTimesVector(n, q.tri.begin.data(), q.tri.length.data(), q.tri.index.data(),
                         q.tri.value.data(), q.diag.data(), nullptr, y.data(), 0.0);
    EXPECT_EQ(y, y0);
  }
}

TEST(SparseProduct, QuadFormIsHalfXQX) {
  std::mt19937 rng(43);
  for (int trial = 0; trial < 15; ++trial) {
    const int32_t n = 1 + rng() % 9;
    SymQ q = randomSym(rng, n);
    const std::vector<double> x = randomVector(rng, n);
    double ref = 0.0, refDiag = 0.0;
    for (int32_t i = 0; i < n; ++i) {
      refDiag += 0.5 * q.diag[i] * x[i] * x[i];
      for (int32_t j = 0; j < n; ++j) ref += 0.5 * x[i] * q.full[i][j] * x[j];
    }
    EXPECT_NEAR(calcQuadForm(n, q.tri.begin.data(), q.tri.length.data(), q.tri.index.data(),
                             q.tri.value.data(), q.diag.data(), x.data()),
                ref, 1e-12);
    EXPECT_NEAR(calcQuadForm(n, nullptr, nullptr, nullptr, nullptr, q.diag.data(), x.data()),
                refDiag, 1e-12);
  }
  EXPECT_EQ(calcQuadForm(0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), 0.0);
}

// ---- regularisation -------------------------------------------------------------

TEST(SparseRegDiag, SmallEntriesOfEitherSignGoNegative) {
  const double delta = 1e-6;
  std::vector<double> diag = {delta, -delta, 0.0, delta / 2, -delta / 2, 2 * delta, -3 * delta,
                              0.0, delta / 2};
  const int32_t first[] = {0, 1, 2, 3}, second[] = {4, 5, 6, 8};
  regMatDiag(4, 4, diag.data(), first, second, delta);
  EXPECT_EQ(diag, (std::vector<double>{delta, -delta, -delta, -delta, -delta, 2 * delta,
                                       -3 * delta, 0.0, -delta}));
  // Empty lists leave everything alone.
  std::vector<double> untouched = {0.0, delta / 2};
  regMatDiag(0, 0, untouched.data(), nullptr, nullptr, delta);
  EXPECT_EQ(untouched, (std::vector<double>{0.0, delta / 2}));
}

// ---- listings -------------------------------------------------------------------

TEST(SparsePrint, ListsEntriesMajorByMajor) {
  HalvexEnv env = logEnv();
  gLog.clear();
  const int32_t begin[] = {0, 2, 2, 3}, length[] = {1, 0, 1};
  const int32_t index[] = {2, 0, 1};
  const double value[] = {1.5, -0.125, 1234567.891};
  printMatrix(&env, 3, begin, index, value);
  EXPECT_EQ(takeLogLines(), (std::vector<std::string>{
                                "  ",
                                "mat(2, 0) =             1.5",
                                "mat(0, 0) =          -0.125",
                                "  ",
                                "  ",
                                "mat(1, 2) =         1234568",
                            }));
  // With lengths the entry at position 1 is a gap and is not listed.
  printMatrixWithLength(&env, 3, begin, length, index, value);
  EXPECT_EQ(takeLogLines(), (std::vector<std::string>{
                                "  ",
                                "mat(2, 0) =             1.5",
                                "  ",
                                "  ",
                                "mat(1, 2) =         1234568",
                            }));
  HalvexEnv quiet{};
  printMatrix(&quiet, 3, begin, index, value);
  printMatrixWithLength(&quiet, 3, begin, length, index, value);
  EXPECT_TRUE(gLog.empty());
}

}  // namespace
