// The supernodal sweeps against a plain pivot-by-pivot transcription of the
// same solve, on factors made up directly in both storages: supernodes
// narrow and wide, 1x1 and 2x2 pivots with and without interchanges, and
// pivots as small as the ones the factorisation puts in for tiny ones.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "kernels/cpu.h"
#include "la/la_internal.h"
#include "la/la_numeric_internal.h"

namespace {

using Vec = std::vector<double>;
using IntVec = std::vector<int32_t>;
using I64Vec = std::vector<int64_t>;

// A made-up factor; the vectors own what the record points at.
struct Factor {
  LASymbolic sym{};
  IntVec snodeStart, rowList, pivots, perm;
  I64Vec rowBegin, factorBegin;
  Vec factor;
  int32_t nb = 0;
  I64Vec copyBegin;
  Vec copies;
  IntVec copyPairs, solveMaps;

  int32_t cols(int32_t s) const { return snodeStart[s + 1] - snodeStart[s]; }
  int32_t rows(int32_t s) const { return (int32_t)(rowBegin[s + 1] - rowBegin[s]); }
  bool wide(int32_t s) const { return nb > 0 && cols(s) > nb; }
  double& at(int32_t s, int32_t i, int32_t j) {
    int32_t bnb = wide(s) ? nb : 0;
    return factor[factorBegin[s] + laBlockOffset(bnb, rows(s), cols(s), i, j)];
  }
};

struct Shape {
  int32_t nb;                   // 0: the sequential storage
  std::vector<int32_t> widths;  // columns per supernode
  int32_t maxBelow;             // rows under a supernode, at most
  double tinyShare;             // share of pivots as small as the replacements
  bool plain = false;           // 1x1 pivots only, no interchange
};

Factor makeFactor(const Shape& shape, uint32_t seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> u(-0.5, 0.5), mag(0.5, 2.0), unit(0.0, 1.0);
  Factor f;
  f.nb = shape.nb;
  int32_t n = 0;
  f.snodeStart.push_back(0);
  for (int32_t w : shape.widths) f.snodeStart.push_back(n += w);
  int32_t ns = (int32_t)shape.widths.size();
  f.rowBegin.push_back(0);
  f.factorBegin.push_back(0);
  for (int32_t s = 0; s < ns; s++) {
    int32_t first = f.snodeStart[s], c = shape.widths[s];
    for (int32_t j = 0; j < c; j++) f.rowList.push_back(first + j);
    IntVec later;
    for (int32_t i = first + c; i < n; i++) later.push_back(i);
    std::shuffle(later.begin(), later.end(), rng);
    int32_t below =
        std::min<int32_t>((int32_t)later.size(), (int32_t)(rng() % (shape.maxBelow + 1)));
    later.resize(below);
    std::sort(later.begin(), later.end());
    f.rowList.insert(f.rowList.end(), later.begin(), later.end());
    int64_t r = c + below;
    f.rowBegin.push_back(f.rowBegin.back() + r);
    int64_t size = 0;
    if (shape.nb > 0 && c > shape.nb) {
      for (int64_t done = 0, left = r; done < c; done += shape.nb, left -= shape.nb)
        size += std::min<int64_t>(shape.nb, c - done) * left;
    } else {
      size = r * c;
    }
    f.factorBegin.push_back(f.factorBegin.back() + size);
  }
  f.factor.resize(f.factorBegin.back());
  for (double& v : f.factor) v = u(rng);
  f.pivots.assign(n, 0);

  // Pivots block by block: records and interchanges stay inside a column
  // block of a wide supernode, inside the supernode otherwise.
  for (int32_t s = 0; s < ns; s++) {
    int32_t c = f.cols(s), step = f.wide(s) ? shape.nb : c;
    for (int32_t b0 = 0; b0 < c; b0 += step) {
      int32_t w = std::min(step, c - b0);
      int32_t* piv = f.pivots.data() + f.snodeStart[s] + b0;
      auto pick = [&](int32_t lo) {
        return !shape.plain && unit(rng) < 0.4 ? lo + (int32_t)(rng() % (w - lo)) : lo;
      };
      auto pivot = [&]() {
        double v = unit(rng) < shape.tinyShare ? LA_PIVOT_TOL : mag(rng);
        return unit(rng) < 0.5 ? -v : v;
      };
      for (int32_t k = 0; k < w;) {
        int32_t j = b0 + k;
        if (!shape.plain && k + 1 < w && unit(rng) < 0.35) {
          int32_t p = pick(k + 1);
          piv[k] = piv[k + 1] = -p;
          f.at(s, j, j) = pivot();
          f.at(s, j + 1, j + 1) = pivot();
          f.at(s, j + 1, j) = 1.5 + unit(rng);
          k += 2;
        } else {
          piv[k] = pick(k);
          f.at(s, j, j) = pivot();
          k += 1;
        }
      }
    }
  }

  for (int32_t i = 0; i < n; i++) f.perm.push_back(i);
  std::shuffle(f.perm.begin(), f.perm.end(), rng);
  LASymbolic& sym = f.sym;
  sym.n = n;
  sym.numSNodes = ns;
  sym.kind = 1;
  sym.blockSize = shape.nb;
  sym.threaded = shape.nb > 0;
  sym.snodeStart = f.snodeStart.data();
  sym.rowBegin = f.rowBegin.data();
  sym.rowList = f.rowList.data();
  sym.factorBegin = f.factorBegin.data();
  sym.factor = f.factor.data();
  sym.pivots = f.pivots.data();
  sym.perm = f.perm.data();
  return f;
}

// The solve pivot by pivot on the whole gathered supernode, in analysis
// order: nothing grouped, nothing deferred.
int32_t referenceSolve(Factor& f, Vec& b) {
  const double G = LA_SOLVE_GUARD;
  int32_t ns = f.sym.numSNodes;
  Vec a;
  for (int32_t s = 0; s < ns; s++) {
    int32_t c = f.cols(s), r = f.rows(s);
    const int32_t* rows = f.rowList.data() + f.rowBegin[s];
    const int32_t* piv = f.pivots.data() + f.snodeStart[s];
    a.assign(r, 0.0);
    for (int32_t i = 0; i < r; i++) a[i] = b[rows[i]];
    for (int32_t j = 0; j < c;) {
      int32_t shift = f.wide(s) ? j / f.nb * f.nb : 0;
      if (piv[j] >= 0) {
        std::swap(a[j], a[piv[j] + shift]);
        for (int32_t i = j + 1; i < r; i++) a[i] -= a[j] * f.at(s, i, j);
        a[j] /= f.at(s, j, j);
        if (std::fabs(a[j]) >= G) return LA_ERR_SOLVE_OVERFLOW;
        j += 1;
      } else {
        std::swap(a[j + 1], a[-piv[j] + shift]);
        for (int32_t i = j + 2; i < r; i++)
          a[i] = a[i] - f.at(s, i, j) * a[j] - a[j + 1] * f.at(s, i, j + 1);
        double d = f.at(s, j + 1, j), u = f.at(s, j, j) / d, v = f.at(s, j + 1, j + 1) / d;
        double den = u * v - 1.0, a0 = a[j], a1 = a[j + 1];
        a[j + 1] = (u * (a1 / d) - a0 / d) / den;
        a[j] = (v * (a0 / d) - a1 / d) / den;
        if (std::fabs(a[j]) >= G || std::fabs(a[j + 1]) >= G) return LA_ERR_SOLVE_OVERFLOW;
        j += 2;
      }
    }
    for (int32_t i = 0; i < r; i++) b[rows[i]] = a[i];
  }
  for (int32_t s = ns - 1; s >= 0; s--) {
    int32_t c = f.cols(s), r = f.rows(s);
    const int32_t* rows = f.rowList.data() + f.rowBegin[s];
    const int32_t* piv = f.pivots.data() + f.snodeStart[s];
    a.assign(r, 0.0);
    for (int32_t i = 0; i < r; i++) a[i] = b[rows[i]];
    for (int32_t j = c - 1; j >= 0;) {
      int32_t shift = f.wide(s) ? j / f.nb * f.nb : 0;
      int32_t pair = piv[j] < 0;
      if (j < r - 1) {
        for (int32_t col = j - pair; col <= j; col++) {
          double sum = 0.0;
          for (int32_t i = j + 1; i < r; i++) sum += a[i] * f.at(s, i, col);
          a[col] -= sum;
          if (std::fabs(a[col]) >= G) return LA_ERR_SOLVE_OVERFLOW;
        }
      }
      std::swap(a[j], a[(pair ? -piv[j] : piv[j]) + shift]);
      j -= 1 + pair;
    }
    for (int32_t i = 0; i < c; i++) b[rows[i]] = a[i];
  }
  return LA_OK;
}

double maxAbs(const Vec& v) {
  double m = 0.0;
  for (double x : v) m = std::max(m, std::fabs(x));
  return m;
}

// The copies of the diagonal blocks as the factor step makes them; the
// number of supernodes that got one.
int32_t attachCopies(Factor& f) {
  LASymbolic& sym = f.sym;
  f.copyBegin.assign(sym.numSNodes + 1, -1);
  sym.diagCopyBegin = f.copyBegin.data();
  f.copies.assign(laDiagCopyLayout(&sym), NAN);
  f.copyPairs.assign(sym.n, -7);
  sym.diagCopy = f.copies.data();
  sym.diagCopyPairs = f.copyPairs.data();
  f.solveMaps.assign(3 * sym.n + f.rowList.size(), -7);
  sym.solvePos = f.solveMaps.data();
  sym.solvePerm = sym.solvePos + sym.n;
  sym.solveInvPerm = sym.solvePerm + sym.n;
  sym.solveRowList = sym.solveInvPerm + sym.n;
  laBuildDiagCopies(&sym);
  int32_t made = 0;
  for (int32_t s = 0; s < sym.numSNodes; s++) made += f.copyPairs[f.snodeStart[s]] >= 0;
  return made;
}

// Both modes of the fast solve against the reference on one factor.
void expectSameSolution(Factor& f, uint32_t seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  int32_t n = f.sym.n;
  Vec rhs(n);
  for (double& v : rhs) v = u(rng);
  auto solve = f.nb > 0 ? ldl_psolve : ldl_solve;

  Vec want(n);
  for (int32_t i = 0; i < n; i++) want[i] = rhs[f.perm[i]];
  ASSERT_EQ(LA_OK, referenceSolve(f, want));
  double tol = 1e-12 * std::max(1.0, maxAbs(want));

  Vec x = rhs, buffer(n, NAN);
  ASSERT_EQ(LA_OK, solve(0, x.data(), &f.sym, buffer.data()));
  for (int32_t i = 0; i < n; i++) EXPECT_NEAR(want[i], x[f.perm[i]], tol) << "mode 0, row " << i;

  Vec y(n);
  for (int32_t i = 0; i < n; i++) y[i] = rhs[f.perm[i]];
  std::fill(buffer.begin(), buffer.end(), NAN);
  ASSERT_EQ(LA_OK, solve(1, buffer.data(), &f.sym, y.data()));
  for (int32_t i = 0; i < n; i++) EXPECT_NEAR(want[i], y[i], tol) << "mode 1, row " << i;
}

TEST(LASolveSweeps, MatchThePivotByPivotSolveOnBothStorages) {
  const std::vector<int32_t> mixed = {1, 1, 2, 3, 5, 1, 9, 4, 17, 1, 2, 6, 33, 1, 8, 12, 3, 1};
  const Shape shapes[] = {
      {0, mixed, 40, 0.0},                    // sequential storage
      {0, {1, 1, 1, 2, 1, 1, 3, 1}, 6, 0.1},  // only narrow groups
      {0, {60, 7, 45}, 25, 0.05},             // wide diagonal blocks
      {4, mixed, 40, 0.0},                    // block storage, many wide supernodes
      {8, mixed, 12, 0.05},                   // wide ones with few rows below
      {5, {11, 1, 23, 2, 16}, 50, 0.0},       // column blocks of odd width
      {0, mixed, 30, 0.05, true},             // plain pivots, sequential storage
      {6, mixed, 20, 0.0, true},              // and block storage
  };
  uint32_t seed = 11;
  int32_t copied = 0, moved = 0;
  for (const Shape& shape : shapes) {
    for (int rep = 0; rep < 3; rep++, seed++) {
      SCOPED_TRACE(testing::Message() << "nb " << shape.nb << " seed " << seed);
      Factor f = makeFactor(shape, seed);
      expectSameSolution(f, seed * 7 + 1);
      // Again through the copies of the diagonal blocks; plain pivots need
      // none.
      int32_t made = attachCopies(f);
      if (shape.plain) {
        EXPECT_EQ(0, made);
      }
      copied += made;
      moved += f.sym.solveMoved;
      expectSameSolution(f, seed * 7 + 1);
    }
  }
  EXPECT_GT(copied, 40);
  EXPECT_GT(moved, 5);
}

TEST(LASolveSweeps, GuardStopsOnOverflowInEveryKindOfSupernode) {
  // A pivot that sends its value past the guard, placed in a narrow
  // supernode, a wide diagonal block and a column block of the block storage.
  struct Case {
    Shape shape;
    int32_t snode;
  };
  const Case cases[] = {
      {{0, {1, 2, 1}, 3, 0.0}, 0},
      {{0, {3, 30, 2}, 4, 0.0}, 1},
      {{4, {2, 13, 3}, 6, 0.0}, 1},
  };
  for (const Case& c : cases) {
    // A huge entry of L under the supernode's first column: the forward
    // sweep carries it, the backward sum overflows.
    for (bool copies : {false, true}) {
      Factor f = makeFactor(c.shape, 5);
      f.at(c.snode, f.rows(c.snode) - 1, 0) = 1e300;
      if (copies) attachCopies(f);
      Vec rhs(f.sym.n, 1.0), permuted(f.sym.n), buffer(f.sym.n);
      for (int32_t i = 0; i < f.sym.n; i++) permuted[i] = rhs[f.perm[i]];
      Vec ref = permuted;
      EXPECT_EQ(LA_ERR_SOLVE_OVERFLOW, referenceSolve(f, ref));
      auto solve = f.nb > 0 ? ldl_psolve : ldl_solve;
      EXPECT_EQ(LA_ERR_SOLVE_OVERFLOW, solve(0, rhs.data(), &f.sym, buffer.data()));
      EXPECT_EQ(LA_ERR_SOLVE_OVERFLOW, solve(1, buffer.data(), &f.sym, permuted.data()));
    }
  }
  for (const Case& c : cases) {
    for (bool copies : {false, true}) {
      Factor f = makeFactor(c.shape, 5);
      int32_t s = c.snode, j = f.cols(s) - 1;
      // The last pivot of the supernode; a pair gets a zero diagonal and a
      // denormal off-diagonal, so that both its values blow up.
      if (f.pivots[f.snodeStart[s] + j] < 0) {
        f.at(s, j - 1, j - 1) = f.at(s, j, j) = 0.0;
        f.at(s, j, j - 1) = 1e-310;
      } else {
        f.at(s, j, j) = 1e-310;
      }
      if (copies) attachCopies(f);
      Vec rhs(f.sym.n, 1.0), ref(f.sym.n), buffer(f.sym.n);
      for (int32_t i = 0; i < f.sym.n; i++) ref[i] = rhs[f.perm[i]];
      EXPECT_EQ(LA_ERR_SOLVE_OVERFLOW, referenceSolve(f, ref));
      auto solve = f.nb > 0 ? ldl_psolve : ldl_solve;
      EXPECT_EQ(LA_ERR_SOLVE_OVERFLOW, solve(0, rhs.data(), &f.sym, buffer.data()));
    }
  }
}

TEST(LAResidual, FourRowsAtOnceGiveTheBitsOfOneRowAtATime) {
  // The refinement's stopping test reads the last bit of the residual, so
  // the lanes must reproduce the row-by-row sums exactly: rows of every
  // length up to 13 (empty ones too), orders that are not multiples of 4,
  // magnitudes over many decades, and a non-number that the maxima skip.
  if (!hxk::avx2Available()) GTEST_SKIP() << "no AVX2 here";
  std::mt19937 rng(11);
  for (int32_t n : {1, 3, 4, 7, 30, 257}) {
    for (int variant = 0; variant < 2; variant++) {
      IntVec colBegin(n + 1, 0), rowIndex;
      Vec value;
      for (int32_t i = 0; i < n; i++) {
        int32_t len = (int32_t)(rng() % 14);
        for (int32_t k = 0; k < len; k++) {
          rowIndex.push_back((int32_t)(rng() % n));
          value.push_back(std::ldexp((double)rng() / rng.max() - 0.5, (int)(rng() % 60) - 30));
        }
        colBegin[i + 1] = (int32_t)rowIndex.size();
      }
      Vec b(n), x(n), r1(n), r2(n);
      for (int32_t i = 0; i < n; i++) {
        b[i] = std::ldexp((double)rng() / rng.max() - 0.5, (int)(rng() % 40) - 20);
        x[i] = std::ldexp((double)rng() / rng.max() - 0.5, (int)(rng() % 40) - 20);
      }
      if (variant == 1) {
        // The largest entry sits in the same lane before the non-number,
        // which must not wipe it out.
        x[n / 2] = NAN;
        if (n / 2 >= 4) x[n / 2 - 4] = 1e30;
      }
      double m1[3], m2[3];
      double a1 = laResidual(false, n, colBegin.data(), rowIndex.data(), value.data(), b.data(),
                             x.data(), r1.data(), m1);
      double a2 = laResidual(true, n, colBegin.data(), rowIndex.data(), value.data(), b.data(),
                             x.data(), r2.data(), m2);
      EXPECT_EQ(0, std::memcmp(r1.data(), r2.data(), sizeof(double) * n)) << n;
      EXPECT_EQ(0, std::memcmp(m1, m2, sizeof m1)) << n;
      EXPECT_EQ(a1, a2) << n;
      // And the plain path is the residual and the norms it says.
      double maxB = 0.0;
      for (int32_t i = 0; i < n; i++) {
        double ri = b[i];
        for (int32_t k = colBegin[i]; k < colBegin[i + 1]; k++) ri -= value[k] * x[rowIndex[k]];
        if (!std::isnan(ri)) {
          EXPECT_NEAR(ri, r1[i], 1e-12 * (1 + std::fabs(ri))) << i;
        }
        maxB = std::max(maxB, std::fabs(b[i]));
      }
      EXPECT_EQ(maxB, m1[2]);
      EXPECT_FALSE(std::isnan(m1[0]) || std::isnan(m1[1]));
    }
  }
}

}  // namespace
