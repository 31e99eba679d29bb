// The plain-array sparse helpers, checked against dense constructions.
#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "support/support.h"
#include "util/sparse.h"

namespace {

using Dense = std::vector<std::vector<double>>;  // [major][minor]
using Ints = std::vector<int32_t>;
using Reals = std::vector<double>;

// Majors separated by gaps that hold valid-looking entries with a huge value,
// so that any helper reading past a live part gives itself away.
struct Sparse {
  Ints begin, length, index;
  Reals value;
  int32_t live() const { return std::accumulate(length.begin(), length.end(), 0); }
};
constexpr double kGapValue = 1e9;

Sparse randomSparse(std::mt19937& rng, int32_t numMajor, int32_t numMinor, double density,
                    bool gaps) {
  Sparse a;
  std::uniform_real_distribution<double> u(0.0, 1.0), val(-5.0, 5.0);
  for (int32_t j = 0; j < numMajor; ++j) {
    Ints rows;
    for (int32_t i = 0; i < numMinor; ++i)
      if (u(rng) < density) rows.push_back(i);
    std::shuffle(rows.begin(), rows.end(), rng);
    a.begin.push_back((int32_t)a.index.size());
    a.length.push_back((int32_t)rows.size());
    for (int32_t r : rows) a.index.push_back(r), a.value.push_back(val(rng));
    for (int k = gaps && numMinor > 0 ? (int)(rng() % 3) : 0; k > 0; --k)
      a.index.push_back((int32_t)(rng() % numMinor)), a.value.push_back(kGapValue);
  }
  a.begin.push_back((int32_t)a.index.size());
  return a;
}

// Without lengths a major runs to the next begin.
Dense dense(int32_t numMajor, int32_t numMinor, const int32_t* begin, const int32_t* length,
            const int32_t* index, const double* value) {
  Dense d(numMajor, Reals(numMinor, 0.0));
  for (int32_t j = 0; j < numMajor; ++j)
    for (int32_t k = begin[j]; k < (length ? begin[j] + length[j] : begin[j + 1]); ++k)
      d[j][index[k]] += value[k];
  return d;
}
Dense dense(const Sparse& a, int32_t numMinor) {
  return dense((int32_t)a.length.size(), numMinor, a.begin.data(), a.length.data(),
               a.index.data(), a.value.data());
}
Dense transposed(const Dense& d, int32_t numMinor) {
  Dense t(numMinor, Reals(d.size(), 0.0));
  for (size_t j = 0; j < d.size(); ++j)
    for (int32_t i = 0; i < numMinor; ++i) t[i][j] = d[j][i];
  return t;
}
void expectSortedMajors(int32_t numMajor, const Ints& begin, const Ints& index) {
  for (int32_t i = 0; i < numMajor; ++i)
    for (int32_t k = begin[i] + 1; k < begin[i + 1]; ++k)
      EXPECT_LT(index[k - 1], index[k]) << "output major " << i << " not by source major";
}

// The lines logged since the last call, each with its newline.
std::vector<std::string> takeLogLines() {
  std::vector<std::string> lines;
  for (const hxtest::TextLine& l : hxtest::textLines()) lines.push_back(l.text);
  hxtest::textLines().clear();
  return lines;
}
HalvexEnv logEnv() {
  HalvexEnv env{};
  env.textLog = hxtest::captureText;
  return env;
}

Reals randomVector(std::mt19937& rng, int32_t n) {
  std::uniform_real_distribution<double> u(-2.0, 2.0);
  Reals v(n);
  for (double& x : v) x = u(rng);
  return v;
}

// ---- transpositions ---------------------------------------------------------------

TEST(SparseTranspose, BothTogglesRoundTripRandomRectangular) {
  std::mt19937 rng(11);
  for (int trial = 0; trial < 30; ++trial) {
    const int32_t numMajor = 1 + rng() % 12, numMinor = 1 + rng() % 12;
    // Packed, through toggleMatrix.
    Sparse a = randomSparse(rng, numMajor, numMinor, 0.35, false);
    const int32_t nnz = a.begin[numMajor];
    Ints tBegin(numMinor + 1, -7), tIndex(nnz, -7), bBegin(numMajor + 1), bIndex(nnz);
    Reals tValue(nnz), bValue(nnz);
    toggleMatrix(numMajor, numMinor, nnz, a.begin.data(), a.index.data(), a.value.data(),
                 tBegin.data(), tIndex.data(), tValue.data());
    ASSERT_EQ(tBegin[0], 0);
    ASSERT_EQ(tBegin[numMinor], nnz);
    expectSortedMajors(numMinor, tBegin, tIndex);
    EXPECT_EQ(dense(numMinor, numMajor, tBegin.data(), nullptr, tIndex.data(), tValue.data()),
              transposed(dense(a, numMinor), numMinor));
    toggleMatrix(numMinor, numMajor, nnz, tBegin.data(), tIndex.data(), tValue.data(),
                 bBegin.data(), bIndex.data(), bValue.data());
    EXPECT_EQ(dense(numMajor, numMinor, bBegin.data(), nullptr, bIndex.data(), bValue.data()),
              dense(a, numMinor));

    // With lengths and gaps: only live entries move, and the packed transpose
    // is itself a valid input with lengths.
    Sparse g = randomSparse(rng, numMajor, numMinor, 0.35, true);
    const int32_t live = g.live();
    Sparse t{Ints(numMinor + 1, -7), Ints(numMinor, -7), Ints(live, -7), Reals(live)};
    toggleMatrixWithLength(numMajor, numMinor, nullptr, g.begin.data(), g.length.data(),
                           g.index.data(), g.value.data(), t.begin.data(), t.length.data(),
                           t.index.data(), t.value.data());
    ASSERT_EQ(t.begin[numMinor], live);
    for (int32_t i = 0; i < numMinor; ++i) ASSERT_EQ(t.length[i], t.begin[i + 1] - t.begin[i]);
    expectSortedMajors(numMinor, t.begin, t.index);
    EXPECT_EQ(dense(t, numMajor), transposed(dense(g, numMinor), numMinor));
    Sparse back{Ints(numMajor + 1), Ints(numMajor), Ints(live), Reals(live)};
    toggleMatrixWithLength(numMinor, numMajor, nullptr, t.begin.data(), t.length.data(),
                           t.index.data(), t.value.data(), back.begin.data(),
                           back.length.data(), back.index.data(), back.value.data());
    EXPECT_EQ(back.length, g.length);
    EXPECT_EQ(dense(back, numMinor), dense(g, numMinor));
  }
}

TEST(SparseTranspose, ToggleWithLengthSkipsWholeMajors) {
  std::mt19937 rng(13);
  for (int trial = 0; trial <= 20; ++trial) {
    const int32_t numMajor = 2 + rng() % 10, numMinor = 1 + rng() % 10;
    Sparse a = randomSparse(rng, numMajor, numMinor, 0.5, true);
    Ints skipMap(numMajor);
    Dense kept = dense(a, numMinor);
    for (int32_t j = 0; j < numMajor; ++j) {
      // Zero and positive entries keep a major; only negatives drop it.  The
      // last trial drops them all.
      skipMap[j] = trial == 20 ? -1 : (int32_t)(rng() % 3) - 1;
      if (skipMap[j] < 0) std::fill(kept[j].begin(), kept[j].end(), 0.0);
    }
    const size_t size = a.index.size();
    Sparse t{Ints(numMinor + 1, -7), Ints(numMinor, -7), Ints(size, -7), Reals(size)};
    toggleMatrixWithLength(numMajor, numMinor, skipMap.data(), a.begin.data(), a.length.data(),
                           a.index.data(), a.value.data(), t.begin.data(), t.length.data(),
                           t.index.data(), t.value.data());
    for (int32_t k = 0; k < t.begin[numMinor]; ++k) EXPECT_GE(skipMap[t.index[k]], 0);
    // Uncompacted: output indices are the source major numbers.
    EXPECT_EQ(dense(t, numMajor), transposed(kept, numMinor));
    if (trial == 20) {
      EXPECT_EQ(t.begin, Ints(numMinor + 1, 0));
      EXPECT_EQ(t.index, Ints(size, -7));
    }
  }
}

TEST(SparseTranspose, NullArraysAndZeroMajors) {
  const int32_t begin[] = {0, 2}, length[] = {2}, index[] = {0, 1}, noBegin[] = {0};
  const double value[] = {1.0, 2.0};
  Ints outBegin(3, -7), outLength(2, -7), outIndex(2, -7);
  Reals outValue(2, 3.0);
  toggleMatrix(1, 2, 2, nullptr, index, value, outBegin.data(), outIndex.data(), outValue.data());
  toggleMatrix(1, 2, 2, begin, index, value, nullptr, outIndex.data(), outValue.data());
  toggleMatrixWithLength(1, 2, nullptr, begin, nullptr, index, value, outBegin.data(),
                         outLength.data(), outIndex.data(), outValue.data());
  toggleMatrixWithLength(1, 2, nullptr, begin, length, index, value, outBegin.data(), nullptr,
                         outIndex.data(), outValue.data());
  EXPECT_EQ(outBegin, Ints(3, -7));
  EXPECT_EQ(outLength, Ints(2, -7));
  EXPECT_EQ(outIndex, Ints(2, -7));

  toggleMatrix(0, 2, 0, noBegin, index, value, outBegin.data(), outIndex.data(), outValue.data());
  EXPECT_EQ(outBegin, Ints(3, 0));
  std::fill(outBegin.begin(), outBegin.end(), -7);
  toggleMatrixWithLength(0, 2, nullptr, noBegin, length, index, value, outBegin.data(),
                         outLength.data(), outIndex.data(), outValue.data());
  EXPECT_EQ(outBegin, Ints(3, 0));
  EXPECT_EQ(outLength, Ints(2, 0));
  EXPECT_EQ(outIndex, Ints(2, -7));
}

// ---- copy and augmentation --------------------------------------------------------

TEST(SparseCopy, PacksLiveEntriesAndDropsGaps) {
  std::mt19937 rng(21);
  for (int trial = 0; trial < 10; ++trial) {
    const int32_t numMajor = 1 + rng() % 10;
    Sparse a = randomSparse(rng, numMajor, 8, 0.4, true);
    const int32_t live = a.live();
    // One spare slot each, which must stay untouched: no closing begin, no
    // copied gap entries.
    Sparse out{Ints(numMajor + 1, -7), Ints(numMajor), Ints(live + 1, -7), Reals(live + 1, -7)};
    copyMatrix(numMajor, a.begin.data(), a.length.data(), a.index.data(), a.value.data(),
               out.begin.data(), out.length.data(), out.index.data(), out.value.data());
    EXPECT_EQ(out.begin[numMajor], -7);
    EXPECT_EQ(out.index[live], -7);
    EXPECT_EQ(out.value[live], -7.0);
    EXPECT_EQ(out.length, a.length);
    for (int32_t j = 0, pos = 0; j < numMajor; pos += a.length[j++]) EXPECT_EQ(out.begin[j], pos);
    EXPECT_EQ(dense(out, 8), dense(a, 8));
  }
}

TEST(SparseAugment, RandomMatchesDenseSymmetric) {
  std::mt19937 rng(31);
  std::uniform_real_distribution<double> val(0.5, 5.0);
  for (int trial = 0; trial < 30; ++trial) {
    const int32_t numCol = rng() % 8, numRow = rng() % 8, numDim = numCol + numRow;
    Dense full(numDim, Reals(numDim, 0.0));
    Ints begin(numDim + 1, -1), index;
    Reals value;
    for (int32_t j = 0; j < numCol; ++j) {
      begin[j] = (int32_t)index.size();
      index.push_back(j);
      value.push_back(full[j][j] = val(rng));
      Ints rows;
      for (int32_t r = numCol; r < numDim; ++r)
        if (rng() % 2) rows.push_back(r);
      std::shuffle(rows.begin(), rows.end(), rng);
      for (int32_t r : rows) index.push_back(r), value.push_back(full[j][r] = full[r][j] = val(rng));
    }
    const int32_t base = (int32_t)index.size(), total = 2 * base - numCol + numRow;
    begin[numCol] = base;
    index.resize(total, -1);
    value.resize(total, -1.0);
    const Ints oldIndex(index.begin(), index.begin() + base);

    augmentMatrix(numDim, numCol, begin.data(), index.data(), value.data());

    ASSERT_EQ(begin[numCol], base);
    ASSERT_EQ(begin[numDim], total);
    EXPECT_TRUE(std::equal(oldIndex.begin(), oldIndex.end(), index.begin()));
    std::vector<Ints> seen(numDim, Ints(numDim, 0));
    for (int32_t j = 0; j < numDim; ++j) {
      ASSERT_LT(begin[j], begin[j + 1]) << "column " << j << " lost its diagonal";
      for (int32_t k = begin[j]; k < begin[j + 1]; ++k) EXPECT_EQ(++seen[j][index[k]], 1);
      if (j >= numCol) {  // row part: sorted, the zero diagonal last
        EXPECT_EQ(index[begin[j + 1] - 1], j);
        EXPECT_EQ(value[begin[j + 1] - 1], 0.0);
        for (int32_t k = begin[j] + 1; k < begin[j + 1] - 1; ++k) EXPECT_LT(index[k - 1], index[k]);
      }
    }
    EXPECT_EQ(dense(numDim, numDim, begin.data(), nullptr, index.data(), value.data()), full);
  }
}

// ---- removal --------------------------------------------------------------------

struct SparseRemove : ::testing::Test {
  // Major 1 is live at positions 2..6, with one spare slot (99) behind it.
  Ints begin{0, 2, 8}, length{2, 5, 1}, index{0, 1, 10, 11, 12, 13, 14, 99, 5};
  Reals value{0.5, 1.5, 10, 11, 12, 13, 14, 99, 5};
  HalvexEnv env = logEnv();
  void SetUp() override { hxtest::textLines().clear(); }
  void remove(int32_t minor, int32_t major, bool withValues = true) {
    removeElement(&env, minor, major, begin.data(), length.data(), index.data(),
                  withValues ? value.data() : nullptr);
  }
};

TEST_F(SparseRemove, RemovedEntriesLieBehindInReverseOrder) {
  remove(11, 1);
  remove(13, 1);
  EXPECT_EQ(length, (Ints{2, 3, 1}));
  EXPECT_EQ(index, (Ints{0, 1, 10, 12, 14, 13, 11, 99, 5}));
  EXPECT_EQ(value, (Reals{0.5, 1.5, 10, 12, 14, 13, 11, 99, 5}));
  // The last live entry only shortens; a pattern alone swaps the same way.
  remove(12, 1, false);
  remove(14, 1);
  EXPECT_EQ(length, (Ints{2, 1, 1}));
  EXPECT_EQ(index, (Ints{0, 1, 10, 14, 12, 13, 11, 99, 5}));
  remove(0, 0);
  remove(1, 0);
  EXPECT_EQ(length, (Ints{0, 1, 1}));
  EXPECT_EQ(index, (Ints{1, 0, 10, 14, 12, 13, 11, 99, 5}));
  EXPECT_EQ(value, (Reals{1.5, 0.5, 10, 12, 14, 13, 11, 99, 5}));
  EXPECT_TRUE(hxtest::textLines().empty());
}

TEST_F(SparseRemove, MissingEntryLogsAndStillShortens) {
  remove(50, 1);
  EXPECT_EQ(takeLogLines(),
            std::vector<std::string>{"Error removeElement: minor 50 not found in major 1\n"});
  // The slot behind the live part is taken as the one found.
  EXPECT_EQ(length[1], 4);
  EXPECT_EQ(index, (Ints{0, 1, 10, 11, 12, 13, 99, 99, 5}));
  EXPECT_EQ(value[6], 99.0);

  // An empty major: the length goes negative and no neighbour is touched.
  Ints emptyBegin{0, 2, 2}, emptyLength{2, 0, 1}, emptyIndex{7, 8, 9};
  Reals emptyValue{7, 8, 9};
  removeElement(&env, 3, 1, emptyBegin.data(), emptyLength.data(), emptyIndex.data(),
                emptyValue.data());
  EXPECT_EQ(takeLogLines(),
            std::vector<std::string>{"Error removeElement: minor 3 not found in major 1\n"});
  EXPECT_EQ(emptyLength, (Ints{2, -1, 1}));
  EXPECT_EQ(emptyIndex, (Ints{7, 8, 9}));
  EXPECT_EQ(emptyValue, (Reals{7, 8, 9}));

  // Silent without a log, in both ways a log can be missing.
  HalvexEnv quiet{};
  removeElement(&quiet, 50, 1, begin.data(), length.data(), index.data(), value.data());
  removeElement(nullptr, 50, 0, begin.data(), length.data(), index.data(), value.data());
  EXPECT_EQ(length, (Ints{1, 3, 1}));
  EXPECT_TRUE(hxtest::textLines().empty());
}

// ---- products -------------------------------------------------------------------

TEST(SparseProduct, MatrixTimesVectorAndTranspose) {
  std::mt19937 rng(41);
  for (int trial = 0; trial < 20; ++trial) {
    const int32_t numCol = 1 + rng() % 10, numRow = 1 + rng() % 10;
    const bool gaps = trial % 2;  // without lengths each column runs to the next begin
    Sparse a = randomSparse(rng, numCol, numRow, 0.4, gaps);
    const int32_t* length = gaps ? a.length.data() : nullptr;
    const Dense d = dense(a, numRow);
    const Reals x = randomVector(rng, numCol), xr = randomVector(rng, numRow);
    Reals y(numRow, 123.0), yt(numCol, 123.0);
    matrixTimesVector(numRow, numCol, a.begin.data(), length, a.index.data(), a.value.data(),
                      x.data(), y.data());
    for (int32_t i = 0; i < numRow; ++i) {
      double s = 0.0;
      for (int32_t j = 0; j < numCol; ++j) s += d[j][i] * x[j];
      EXPECT_NEAR(y[i], s, 1e-12);
    }
    if (!gaps) continue;
    vectorTimesMatrix(numCol, a.begin.data(), a.length.data(), a.index.data(), a.value.data(),
                      xr.data(), yt.data());
    for (int32_t j = 0; j < numCol; ++j)
      EXPECT_NEAR(yt[j], std::inner_product(d[j].begin(), d[j].end(), xr.begin(), 0.0), 1e-12);
  }
}

// A strict triangle, each off-diagonal pair stored once in either major, with
// a gap behind each major; full is the dense symmetric matrix it stands for.
struct SymQ {
  Sparse tri;
  Reals diag;
  Dense full;
};

SymQ randomSym(std::mt19937& rng, int32_t n) {
  SymQ q{{}, randomVector(rng, n), Dense(n, Reals(n, 0.0))};
  std::uniform_real_distribution<double> val(-3.0, 3.0);
  std::vector<Ints> owned(n);
  for (int32_t i = 0; i < n; ++i)
    for (int32_t r = i + 1; r < n; ++r)
      if (rng() % 2) {
        if (rng() % 2) owned[i].push_back(r);
        else owned[r].push_back(i);
      }
  Sparse& t = q.tri;
  for (int32_t i = 0; i < n; ++i) {
    q.full[i][i] = q.diag[i];
    t.begin.push_back((int32_t)t.index.size());
    t.length.push_back((int32_t)owned[i].size());
    for (int32_t r : owned[i]) {
      t.index.push_back(r);
      t.value.push_back(q.full[i][r] = q.full[r][i] = val(rng));
    }
    t.index.push_back(i);  // a gap entry
    t.value.push_back(kGapValue);
  }
  t.begin.push_back((int32_t)t.index.size());
  return q;
}

TEST(SparseProduct, SymmetricProductAndQuadForm) {
  std::mt19937 rng(42);
  for (int trial = 0; trial < 15; ++trial) {
    const int32_t n = 1 + rng() % 9;
    SymQ q = randomSym(rng, n);
    const Sparse& t = q.tri;
    const Reals x = randomVector(rng, n), y0 = randomVector(rng, n);
    double form = 0.0, formDiag = 0.0;
    for (int32_t i = 0; i < n; ++i) {
      formDiag += 0.5 * q.diag[i] * x[i] * x[i];
      form += 0.5 * x[i] * std::inner_product(x.begin(), x.end(), q.full[i].begin(), 0.0);
    }
    EXPECT_NEAR(calcQuadForm(n, t.begin.data(), t.length.data(), t.index.data(), t.value.data(),
                             q.diag.data(), x.data()),
                form, 1e-12);
    // A diagonal Q has no triangle at all.
    EXPECT_NEAR(calcQuadForm(n, nullptr, nullptr, nullptr, nullptr, q.diag.data(), x.data()),
                formDiag, 1e-12);
    for (double alpha : {1.0, -1.0, 2.5}) {
      Reals y = y0, yd = y0;
      symmatrixTimesVector(n, t.begin.data(), t.length.data(), t.index.data(), t.value.data(),
                           q.diag.data(), x.data(), y.data(), alpha);
      symmatrixTimesVector(n, nullptr, nullptr, nullptr, nullptr, q.diag.data(), x.data(),
                           yd.data(), alpha);
      for (int32_t i = 0; i < n; ++i) {
        const double qx = std::inner_product(x.begin(), x.end(), q.full[i].begin(), 0.0);
        EXPECT_NEAR(y[i], y0[i] + alpha * qx, 1e-12) << "alpha " << alpha << " row " << i;
        EXPECT_NEAR(yd[i], y0[i] + alpha * q.diag[i] * x[i], 1e-12);
      }
    }
    // Alpha 0 must neither read x nor touch y.
    Reals y = y0;
    symmatrixTimesVector(n, t.begin.data(), t.length.data(), t.index.data(), t.value.data(),
                         q.diag.data(), nullptr, y.data(), 0.0);
    EXPECT_EQ(y, y0);
  }
  EXPECT_EQ(calcQuadForm(0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), 0.0);
}

// ---- regularisation and listings ---------------------------------------------------

TEST(SparseRegDiag, SmallEntriesOfEitherSignGoNegative) {
  const double delta = 1e-6;
  Reals diag = {delta, -delta, 0.0, delta / 2, -delta / 2, 2 * delta, -3 * delta, 0.0, delta / 2};
  const int32_t first[] = {0, 1, 2, 3}, second[] = {4, 5, 6, 8};
  regMatDiag(4, 4, diag.data(), first, second, delta);
  EXPECT_EQ(diag, (Reals{delta, -delta, -delta, -delta, -delta, 2 * delta, -3 * delta, 0.0,
                         -delta}));
  regMatDiag(0, 0, diag.data() + 7, nullptr, nullptr, delta);
  EXPECT_EQ(diag[7], 0.0);
}

TEST(SparsePrint, ListsEntriesMajorByMajor) {
  HalvexEnv env = logEnv();
  hxtest::textLines().clear();
  const int32_t begin[] = {0, 2, 2, 3}, length[] = {1, 0, 1}, index[] = {2, 0, 1};
  const double value[] = {1.5, -0.125, 1234567.891};
  printMatrix(&env, 3, begin, index, value);
  EXPECT_EQ(takeLogLines(),
            (std::vector<std::string>{"  \n", "mat(2, 0) =             1.5\n",
                                      "mat(0, 0) =          -0.125\n", "  \n", "  \n",
                                      "mat(1, 2) =         1234568\n"}));
  // With lengths the entry at position 1 is a gap and is not listed.
  printMatrixWithLength(&env, 3, begin, length, index, value);
  EXPECT_EQ(takeLogLines(), (std::vector<std::string>{"  \n", "mat(2, 0) =             1.5\n",
                                                      "  \n", "  \n",
                                                      "mat(1, 2) =         1234568\n"}));
  HalvexEnv quiet{};
  printMatrix(&quiet, 3, begin, index, value);
  printMatrixWithLength(&quiet, 3, begin, length, index, value);
  EXPECT_TRUE(hxtest::textLines().empty());
}

}  // namespace
