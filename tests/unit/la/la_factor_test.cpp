// The LA environment, the LDL analysis with every plan checked against a
// brute-force symbolic factorisation, dense LDL' with Bunch-Kaufman pivots,
// the sparse factor and solve, the refinement that wins back what static
// pivoting gives away, and the threaded factor held against the sequential one.
#include <gtest/gtest.h>
#include <dirent.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "cli/mps.h"
#include "frame/entry.h"
#include "host/host.h"
#include "la/la.h"
#include "la/la_internal.h"
#include "la/la_numeric.h"
#include "la/la_parallel.h"
#include "support/dense_ref.h"
#include "support/graph_support.h"
#include "support/oom.h"
#include "support/symbolic_ref.h"

namespace {

using Vec = std::vector<double>;
using hxtest::IntVec;
const double kTol = 1.0536712127723509e-08;

// ---- dense helpers ---------------------------------------------------------------

struct Dense {
  int32_t n = 0;
  Vec a;  // column-major n by n
  double& operator()(int32_t i, int32_t j) { return a[i + (size_t)j * n]; }
  double operator()(int32_t i, int32_t j) const { return a[i + (size_t)j * n]; }
};

Dense randomSymmetric(int32_t n, uint32_t seed, double diagScale = 1.0) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  Dense d;
  d.n = n;
  d.a.assign((size_t)n * n, 0.0);
  for (int32_t j = 0; j < n; j++)
    for (int32_t i = j; i < n; i++) d(i, j) = d(j, i) = i == j ? diagScale * u(rng) : u(rng);
  return d;
}

// Rebuilds the m by m matrix from a factor of its first n columns: the
// product of the interchanges and the elementary L factors, in the order in
// which the forward solve undoes them, around blockdiag(D, S).
Dense reconstruct(int32_t m, int32_t n, const Vec& F, int32_t ldf, const IntVec& piv,
                  const Dense& S) {
  Dense X;
  X.n = m;
  X.a.assign((size_t)m * m, 0.0);
  std::vector<int32_t> starts;
  for (int32_t j = 0; j < n; j += piv[j] >= 0 ? 1 : 2) {
    starts.push_back(j);
    X(j, j) = F[j + (size_t)j * ldf];
    if (piv[j] >= 0) continue;
    X(j + 1, j) = X(j, j + 1) = F[j + 1 + (size_t)j * ldf];
    X(j + 1, j + 1) = F[j + 1 + (size_t)(j + 1) * ldf];
  }
  for (int32_t i = n; i < m; i++)
    for (int32_t k = n; k < m; k++) X(i, k) = S(i - n, k - n);
  // Steps from the last to the first: X := P_j L_j X L_j^T P_j.  The two
  // columns of a 2x2 step have no rows in common, so they go one at a time.
  for (auto it = starts.rbegin(); it != starts.rend(); ++it) {
    int32_t j = *it;
    int32_t width = piv[j] >= 0 ? 1 : 2;
    for (int32_t c = j + width - 1; c >= j; c--) {
      // Row i += l_i * row c, then column i += l_i * column c.
      for (int32_t i = j + width; i < m; i++)
        for (int32_t k = 0; k < m; k++) X(i, k) += F[i + (size_t)c * ldf] * X(c, k);
      for (int32_t i = j + width; i < m; i++)
        for (int32_t k = 0; k < m; k++) X(k, i) += F[i + (size_t)c * ldf] * X(k, c);
    }
    int32_t p = piv[j] >= 0 ? piv[j] : -piv[j];
    int32_t q = piv[j] >= 0 ? j : j + 1;
    if (p != q) {
      for (int32_t k = 0; k < m; k++) std::swap(X(p, k), X(q, k));
      for (int32_t k = 0; k < m; k++) std::swap(X(k, p), X(k, q));
    }
  }
  return X;
}

struct DenseFactor {
  Vec F, W;
  IntVec piv;
  int32_t perturbed = 0;
};

// Factors the first n columns of an m by m matrix with m - n rows below.
DenseFactor denseFactor(const Dense& A, int32_t n, double tol = kTol) {
  int32_t m = A.n;
  DenseFactor f;
  f.F = A.a;  // leading dimension m; columns beyond n are not touched
  f.W.assign((size_t)m * std::max(n, 96) + 16, 0.0);
  f.piv.assign(n, 0);
  Vec bufA(96 * 96), bufB(96 * 96);
  LA_DenseLDLFactorize(tol, m, n, f.F.data(), m, f.piv.data(), f.W.data(), &f.perturbed,
                       bufA.data(), bufB.data());
  return f;
}

// The first n columns of m by m matrices: 150 columns take two panels, small
// diagonals force 2x2 pivots and swaps, and rows below the block hold by far
// the largest entries, which must never be chosen.  The Schur complement
// from W = L D completes the matrix.
TEST(LADense, ReconstructsAndSolvesRandomIndefiniteMatrices) {
  const int32_t sizes[][2] = {{1, 1},   {2, 2},   {7, 7},     {40, 40},
                              {96, 96}, {97, 97}, {150, 150}, {110, 170}, {40, 60}};
  for (auto [n, m] : sizes) {
    for (uint32_t seed : {1u, 2u}) {
      SCOPED_TRACE(testing::Message() << "n " << n << " m " << m << " seed " << seed);
      const double big = m > n ? 1e3 : 1.0;
      Dense A = randomSymmetric(m, seed * 31 + n, seed == 1 ? 1.0 : 1e-3);
      for (int32_t j = 0; j < n; j++)
        for (int32_t i = n; i < m; i++) A(i, j) = A(j, i) = big * A(i, j);
      DenseFactor f = denseFactor(A, n);
      EXPECT_EQ(0, f.perturbed);
      bool pair = false;
      for (int32_t j = 0; j < n; j += f.piv[j] >= 0 ? 1 : 2) {
        // Interchanges only look forward; a 2x2 pivot names its partner twice.
        bool two = f.piv[j] < 0;
        ASSERT_TRUE(two ? j + 1 < n && f.piv[j + 1] == f.piv[j] : true);
        ASSERT_GE(std::abs(f.piv[j]), j + (two ? 1 : 0));
        ASSERT_LT(std::abs(f.piv[j]), n);
        pair |= two;
      }
      if (n >= 40 && seed == 2) { EXPECT_TRUE(pair) << "no 2x2 pivot on a weak diagonal"; }
      Dense S{m - n, Vec((size_t)(m - n) * (m - n))};
      for (int32_t i = n; i < m; i++)
        for (int32_t k = n; k < m; k++) {
          S(i - n, k - n) = A(i, k);
          for (int32_t j = 0; j < n; j++)
            S(i - n, k - n) -= f.F[i + (size_t)j * m] * f.W[k + (size_t)j * m];
        }
      Dense R = reconstruct(m, n, f.F, m, f.piv, S);
      for (size_t k = 0; k < R.a.size(); k++) ASSERT_NEAR(A.a[k], R.a[k], m > n ? 1e-5 : 1e-10);
      if (m > n) continue;

      std::mt19937 rng(seed);
      std::uniform_real_distribution<double> u(-1.0, 1.0);
      const int32_t nrhs = 3;
      Vec B((size_t)n * nrhs), X;
      for (double& v : B) v = u(rng);
      X = B;
      LA_DenseLDLSolveMany(n, nrhs, f.F.data(), n, f.piv.data(), X.data(), n);
      Vec x1(B.begin(), B.begin() + n);
      LA_DenseLDLSolveOne(n, f.F.data(), n, f.piv.data(), x1.data());
      for (int32_t i = 0; i < n; i++) EXPECT_NEAR(X[i], x1[i], 1e-9);
      for (int32_t c = 0; c < nrhs; c++)
        for (int32_t i = 0; i < n; i++) {
          double s = 0.0;
          for (int32_t k = 0; k < n; k++) s += A(i, k) * X[k + (size_t)c * n];
          EXPECT_NEAR(B[i + (size_t)c * n], s, 1e-9);
        }
    }
  }
}

TEST(LADense, TinyPivotsAreReplacedByTheFixedTolerance) {
  DenseFactor t = denseFactor(Dense{2, {1e-9, 0.0, 0.0, -1e-9}}, 2, 1.05e-8);
  EXPECT_EQ(2, t.perturbed);
  EXPECT_EQ(1.05e-8, t.F[0]);
  EXPECT_EQ(-1.05e-8, t.F[3]);
  // A pivot that is tiny while its column is not is no reason to perturb.
  DenseFactor p = denseFactor(Dense{2, {0.0, 1.0, 1.0, 0.0}}, 2, 0.5);
  EXPECT_EQ(0, p.perturbed);
  EXPECT_EQ(IntVec({-1, -1}), p.piv);
}

// ---- sparse helpers ----------------------------------------------------------------

using Sparse = hxtest::Pattern;

// From triplets of the lower triangle, mirrored; entries stay as given, so
// duplicates stay duplicates.
Sparse fromLower(int32_t n, const std::vector<std::tuple<int32_t, int32_t, double>>& t) {
  std::vector<std::vector<std::pair<int32_t, double>>> cols(n);
  for (auto& [i, j, v] : t) {
    cols[j].push_back({i, v});
    if (i != j) cols[i].push_back({j, v});
  }
  Sparse s;
  s.n = n;
  s.colBegin.push_back(0);
  for (int32_t j = 0; j < n; j++) {
    for (auto& e : cols[j]) {
      s.rowIndex.push_back(e.first);
      s.value.push_back(e.second);
    }
    s.colBegin.push_back((int32_t)s.rowIndex.size());
  }
  return s;
}

// The graph's adjacency negated, with diag on the diagonal.
Sparse laplacian(const graphs::Graph& g, double diag) {
  std::vector<std::tuple<int32_t, int32_t, double>> t;
  for (int32_t v = 0; v < g.n; v++) {
    t.push_back({v, v, diag});
    for (int32_t p = g.begin[v]; p < g.begin[v + 1]; p++)
      if (g.index[p] > v) t.push_back({g.index[p], v, -1.0});
  }
  return fromLower(g.n, t);
}

// [H A'; A -D]: H diagonal positive, A random, D small positive or absent.
Sparse randomKKT(int32_t n1, int32_t n2, uint32_t seed, double dReg, bool diagonalsEverywhere) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> u(0.1, 2.0), s(-1.0, 1.0);
  std::vector<std::tuple<int32_t, int32_t, double>> t;
  for (int32_t j = 0; j < n1; j++) t.push_back({j, j, u(rng)});
  for (int32_t i = 0; i < n2; i++) {
    t.push_back({n1 + i, i % n1, s(rng)});  // no empty row
    for (int32_t j = 0; j < n1; j++)
      if (rng() % 7 == 0 && j != i % n1) t.push_back({n1 + i, j, s(rng)});
    if (diagonalsEverywhere || dReg != 0.0) t.push_back({n1 + i, n1 + i, -dReg});
  }
  return fromLower(n1 + n2, t);
}

Sparse randomIndefinite(int32_t n, uint32_t seed, double density) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> s(-1.0, 1.0), p(0.0, 1.0);
  std::vector<std::tuple<int32_t, int32_t, double>> t;
  for (int32_t j = 0; j < n; j++) {
    if (j % 5 != 3) t.push_back({j, j, s(rng)});  // some diagonals missing
    if (j + 1 < n) t.push_back({j + 1, j, 1.0 + p(rng)});
    for (int32_t i = j + 2; i < n; i++)
      if (p(rng) < density) t.push_back({i, j, s(rng)});
  }
  return fromLower(n, t);
}

Sparse denseSparse(const Dense& A) {
  std::vector<std::tuple<int32_t, int32_t, double>> t;
  for (int32_t j = 0; j < A.n; j++)
    for (int32_t i = j; i < A.n; i++) t.push_back({i, j, A(i, j)});
  return fromLower(A.n, t);
}

Vec multiply(const Sparse& s, const Vec& x) {
  Vec y(s.n, 0.0);
  for (int32_t j = 0; j < s.n; j++)
    for (int32_t k = s.colBegin[j]; k < s.colBegin[j + 1]; k++) y[s.rowIndex[k]] += s.value[k] * x[j];
  return y;
}

class LANumericSparse : public ::testing::Test {
 protected:
  void SetUp() override {
    qvextent(host.kernel());  // the threaded path takes its threads and locks from it
    pool = host.createPool("la-numeric");
    int32_t status = -1;
    env = LA_CreateLAEnv(pool, nullptr, &status);
    ASSERT_EQ(0, status);
  }
  void TearDown() override {
    cleanUp();
    LA_FreeLAEnv(&env);
    EXPECT_EQ(0, host.poolStats(pool).liveBlocks);
  }
  void cleanUp() {
    if (sym || num) LA_CleanUpLDL(env, &sym, &num);
    sym = nullptr;
    num = nullptr;
  }
  int32_t analyze(const Sparse& s) {
    cleanUp();
    return LA_AnalyzeMatrixLDL(s.n, s.colBegin.data(), s.rowIndex.data(), s.value.data(), env,
                               &sym, &num);
  }
  int32_t factor(const Sparse& s, int32_t mode = 0) {
    return LA_FactorMatrixLDL(mode, s.n, s.colBegin.data(), s.rowIndex.data(), s.value.data(), env,
                              sym, num);
  }
  int32_t solve(const Sparse& s, Vec& x, int32_t mode = 0) {
    return LA_SolveMatrixLDL(mode, s.colBegin.data(), s.rowIndex.data(), s.value.data(), x.data(),
                             env, sym, num);
  }
  // Solves for a known solution on the factor in place; returns the backward
  // error.
  double solveAgain(const Sparse& s, uint32_t seed, int32_t* solveStatus = nullptr) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    Vec xTrue(s.n);
    for (double& v : xTrue) v = u(rng);
    Vec b = multiply(s, xTrue), x = b, res(s.n);
    int32_t status = solve(s, x);
    if (solveStatus) *solveStatus = status;
    EXPECT_TRUE(status == 0 || status == 6 || status == 7) << status;
    return LA_CalculateInfNormResidual(s.n, s.colBegin.data(), s.rowIndex.data(), s.value.data(),
                                       x.data(), b.data(), res.data());
  }

  hxhost::Host host;
  QVPool* pool = nullptr;
  LAEnv* env = nullptr;
  LASymbolic* sym = nullptr;
  LANumeric* num = nullptr;
};

// Splits entries of the lower triangle of s into parts: every third
// off-diagonal into two, every seventh into three, every fourth diagonal
// into two; both triangles stored, and the entries shuffled so that the
// parts of an entry do not sit side by side.
Sparse splitIntoParts(const Sparse& s, uint32_t seed) {
  std::vector<std::tuple<int32_t, int32_t, double>> t;
  int32_t count = 0;
  for (int32_t j = 0; j < s.n; j++)
    for (int32_t k = s.colBegin[j]; k < s.colBegin[j + 1]; k++) {
      int32_t i = s.rowIndex[k];
      double v = s.value[k];
      if (i < j) continue;
      count++;
      if (i != j && count % 7 == 0) {
        t.push_back({i, j, 0.5 * v});
        t.push_back({i, j, -0.25 * v});
        t.push_back({i, j, 0.75 * v});
      } else if ((i != j && count % 3 == 0) || (i == j && count % 4 == 0)) {
        t.push_back({i, j, 0.375 * v});
        t.push_back({i, j, 0.625 * v});
      } else {
        t.push_back({i, j, v});
      }
    }
  std::mt19937 rng(seed);
  std::shuffle(t.begin(), t.end(), rng);
  return fromLower(s.n, t);
}

// Each matrix, some with entries split into parts, solved with refinement
// and without, and in the analysis order: refinement multiplies with the
// parts as they stand, and the factor alone must answer for the sums where
// no pivot was replaced.
TEST_F(LANumericSparse, SolvesQuasiDefiniteIndefiniteAndSplitMatrices) {
  ASSERT_EQ(0, LA_SetIntParam(env, LA_PARAM_COLLECT_INERTIA, 1));
  struct Case {
    const char* name;
    Sparse whole;
    bool split;
    double tol;
    int32_t threads, positive, negative;  // -1: inertia not known
  };
  std::vector<Case> cases = {
      {"grid", laplacian(graphs::grid2d(20, 20), 4.0), false, 1e-14, 1, 400, 0},
      {"quasi-definite kkt", randomKKT(80, 50, 4, 1e-6, true), true, 1e-14, 1, 80, 50},
      {"kkt without a constraint diagonal", randomKKT(60, 40, 5, 0.0, false), true, 1e-13, 1, 60,
       40},
      {"indefinite", randomIndefinite(150, 6, 0.03), false, 1e-13, 1, -1, -1},
      {"dense, threaded", denseSparse(randomSymmetric(420, 31, 1e-2)), true, 1e-14, 4, -1, -1},
      // Two equal constraint rows: singular, so a pivot is replaced.
      {"singular kkt",
       fromLower(5, {{0, 0, 2.0}, {1, 1, 3.0}, {2, 2, 1.0}, {3, 0, 1.0}, {3, 1, 1.0}, {4, 0, 1.0},
                     {4, 1, 1.0}, {4, 2, 0.0}}),
       false, 1e-9, 1, -1, -1},
  };
  uint32_t seed = 40;
  int32_t unrefined = 0, replaced = 0;
  for (Case& c : cases) {
    SCOPED_TRACE(c.name);
    Sparse s = c.split ? splitIntoParts(c.whole, seed++) : c.whole;
    if (c.split) { ASSERT_GT(s.colBegin[s.n], c.whole.colBegin[c.whole.n]); }
    ASSERT_EQ(0, LA_SetIntParam(env, LA_PARAM_NUM_THREADS, c.threads));
    ASSERT_EQ(0, LA_SetIntParam(env, LA_PARAM_MAX_REFINE, 64));
    ASSERT_EQ(0, analyze(s));
    EXPECT_EQ(c.threads > 1 ? 1 : 0, sym->threaded);
    ASSERT_EQ(0, factor(s));
    EXPECT_EQ(c.whole.n, env->numPositivePivots + env->numNegativePivots);
    if (c.positive >= 0) {
      EXPECT_EQ(c.positive, env->numPositivePivots);
      EXPECT_EQ(c.negative, env->numNegativePivots);
    }
    if (c.negative == 0) {
      EXPECT_GT(env->pivotRatio, 0.0);
      EXPECT_LE(env->pivotRatio, 1.0);
    }

    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    Vec xTrue(c.whole.n);
    for (double& v : xTrue) v = u(rng);
    Vec b = multiply(c.whole, xTrue), res(c.whole.n);
    auto residual = [&](Vec& x) {
      return LA_CalculateInfNormResidual(c.whole.n, c.whole.colBegin.data(),
                                         c.whole.rowIndex.data(), c.whole.value.data(), x.data(),
                                         b.data(), res.data());
    };
    Vec x = b;
    int32_t status = solve(s, x);
    EXPECT_TRUE(status == 0 || status == 6 || status == 7) << status;
    EXPECT_LT(residual(x), c.tol);
    // A replaced pivot forces refinement, plain or FGMRES, when none is asked.
    ASSERT_EQ(0, LA_SetIntParam(env, LA_PARAM_MAX_REFINE, 0));
    unrefined += sym->numPerturbed == 0;
    replaced += sym->numPerturbed > 0;
    for (int32_t fg : {0, 1}) {
      ASSERT_EQ(0, LA_SetIntParam(env, LA_PARAM_USE_FGMRES, fg));
      Vec y = b;
      status = solve(s, y);
      EXPECT_TRUE(status == 0 || status == 6 || status == 7) << status;
      EXPECT_LT(residual(y), sym->numPerturbed > 0 ? 1e-9 : 1e-12) << "fgmres " << fg;
    }
    // Mode one takes the same entries, repeats included, and the right-hand
    // side in the analysis order.
    if (c.threads > 1) continue;
    std::vector<std::tuple<int32_t, int32_t, double>> tp;
    for (int32_t j = 0; j < s.n; j++)
      for (int32_t k = s.colBegin[j]; k < s.colBegin[j + 1]; k++)
        if (sym->invPerm[s.rowIndex[k]] >= sym->invPerm[j])
          tp.push_back({sym->invPerm[s.rowIndex[k]], sym->invPerm[j], s.value[k]});
    Sparse permuted = fromLower(s.n, tp);
    ASSERT_EQ(0, factor(permuted, 1));
    Vec y(s.n), z(s.n);
    for (int32_t i = 0; i < s.n; i++) y[i] = b[sym->perm[i]];
    status = solve(permuted, y, 1);
    EXPECT_TRUE(status == 0 || status == 6 || status == 7) << status;
    for (int32_t i = 0; i < s.n; i++) z[sym->perm[i]] = y[i];
    EXPECT_LT(residual(z), sym->numPerturbed > 0 ? 1e-9 : 1e-12) << "mode one";
  }
  EXPECT_GE(unrefined, 3);
  EXPECT_GE(replaced, 1);
}

TEST_F(LANumericSparse, RefinementLimitsAndStatuses) {
  Sparse s = randomKKT(40, 25, 9, 1e-8, true);
  ASSERT_EQ(0, analyze(s));
  ASSERT_EQ(0, factor(s));
  ASSERT_EQ(0, sym->numPerturbed);
  // No refinement asked and none needed: one solve, nothing allocated.
  ASSERT_EQ(0, LA_SetIntParam(env, LA_PARAM_MAX_REFINE, 0));
  Vec x(s.n, 1.0);
  host.failAllocation(0);
  EXPECT_EQ(0, solve(s, x));
  host.clearFailures();
  // FGMRES with each scheme reaches a tiny backward error.
  for (int32_t ortho : {0, 1, 2}) {
    ASSERT_EQ(0, LA_SetIntParam(env, LA_PARAM_MAX_REFINE, 64));
    ASSERT_EQ(0, LA_SetIntParam(env, LA_PARAM_ORTHO_SCHEME, ortho));
    ASSERT_EQ(0, LA_SetDblParam(env, 1e-14, LA_PARAM_REFINE_TOL));
    int32_t status = -1;
    EXPECT_LT(solveAgain(s, 7, &status), 1e-14);
    EXPECT_EQ(6, status) << "ortho " << ortho;
    EXPECT_LT(env->backwardError, 1e-14);
  }
  // A first restart longer than the longest allowed keeps to the work space
  // made for the longest (the sanitizer build sees any overrun).
  ASSERT_EQ(0, LA_SetIntParam(env, LA_PARAM_FGMRES_RESTART, 30));
  ASSERT_EQ(0, LA_SetIntParam(env, LA_PARAM_FGMRES_MAX_RESTART, 2));
  EXPECT_LT(solveAgain(s, 8, nullptr), 1e-14);
  ASSERT_EQ(0, LA_SetIntParam(env, LA_PARAM_FGMRES_RESTART, LA_DEFAULT_FGMRES_RESTART));
  ASSERT_EQ(0, LA_SetIntParam(env, LA_PARAM_FGMRES_MAX_RESTART, LA_DEFAULT_FGMRES_MAX_RESTART));
  // A zero right-hand side: converged at once; with tol 0 stopped.
  Vec z(s.n, 0.0);
  EXPECT_EQ(6, solve(s, z));
  ASSERT_EQ(0, LA_SetDblParam(env, 0.0, LA_PARAM_REFINE_TOL));
  EXPECT_EQ(7, solve(s, z));
  for (double v : z) EXPECT_EQ(0.0, v);
  // Plain refinement never reports 6 or 7.
  ASSERT_EQ(0, LA_SetIntParam(env, LA_PARAM_USE_FGMRES, 0));
  ASSERT_EQ(0, LA_SetIntParam(env, LA_PARAM_MAX_REFINE, 3));
  int32_t status = -1;
  EXPECT_LT(solveAgain(s, 8, &status), 1e-14);
  EXPECT_EQ(0, status);
}

TEST_F(LANumericSparse, BadInputAndOverflowAreStatuses) {
  Sparse s = laplacian(graphs::grid2d(4, 4), 4.0);
  ASSERT_EQ(0, analyze(s));
  EXPECT_EQ(2, LA_FactorMatrixLDL(0, s.n, s.colBegin.data(), s.rowIndex.data(), s.value.data(),
                                  env, nullptr, num));
  EXPECT_EQ(2, LA_FactorMatrixLDL(0, s.n + 1, s.colBegin.data(), s.rowIndex.data(),
                                  s.value.data(), env, sym, num));
  Sparse bad = s;
  bad.rowIndex[3] = 99;
  EXPECT_EQ(2, factor(bad));
  EXPECT_EQ(2, factor(fromLower(16, {{0, 0, 1.0}})));

  // Overflow in the solve is status 8; without refinement nothing overflows.
  Sparse one = fromLower(1, {{0, 0, 1.0}});
  ASSERT_EQ(0, analyze(one));
  ASSERT_EQ(0, factor(one));
  Vec x = {1.7976931348623158e+304}, y = {1.7e304};
  EXPECT_EQ(8, solve(one, x));
  ASSERT_EQ(0, LA_SetIntParam(env, LA_PARAM_MAX_REFINE, 0));
  EXPECT_EQ(0, solve(one, y));
  EXPECT_EQ(1.7e304, y[0]);
  // The guard at the last pivot of a supernode of a few columns.
  Sparse three = fromLower(3, {{0, 0, 1.0}, {1, 0, 0.25}, {1, 1, 1.0}, {2, 0, 0.25},
                               {2, 1, 0.25}, {2, 2, 1.0}});
  ASSERT_EQ(0, analyze(three));
  ASSERT_EQ(0, factor(three));
  Vec z = {0.0, 0.0, 1.7976931348623158e+304};
  EXPECT_EQ(8, solve(three, z));
}

// Every allocation refused in turn; the library reports it as 1.
hxtest::OomSweep::Result laOomSweep(hxhost::Host& host,
                                    const std::function<int32_t(hxtest::OomProbe&)>& body) {
  hxtest::OomSweep sweep(host);
  sweep.expected = 1;
  return sweep.run(body);
}

TEST_F(LANumericSparse, OutOfMemoryReturnsOneAndLeaksNothing) {
  // Threaded plans take work for the run; FGMRES takes its saved copy and,
  // on small plans, its Krylov space.
  Dense A = randomSymmetric(420, 3, 1.0);
  for (const Sparse& s : {denseSparse(A), randomKKT(30, 20, 2, 1e-8, true)}) {
    ASSERT_EQ(0, LA_SetIntParam(env, LA_PARAM_NUM_THREADS, s.n > 100 ? 4 : 1));
    ASSERT_EQ(0, analyze(s));
    int64_t before = host.poolStats(pool).allocations;
    ASSERT_EQ(0, factor(s));
    const int64_t factorAllocations = host.poolStats(pool).allocations - before;
    hxtest::OomSweep::Result r = laOomSweep(host, [&](hxtest::OomProbe& probe) {
      Vec x(s.n, 1.0);
      const Vec x0 = x;
      int32_t status = factor(s);
      if (status == 0) status = solve(s, x);
      // Refused before the first solve: the caller's vector is untouched.
      if (status == 1 && probe.k() == factorAllocations) { EXPECT_EQ(x0, x); }
      return status;
    });
    EXPECT_TRUE(r.completed);
    EXPECT_EQ(6, r.finalStatus);
    EXPECT_GE(r.refusedRuns, 1);
  }
}

// ---- the threaded factor -------------------------------------------------------

namespace threaded {

using Triplets = std::vector<std::tuple<int32_t, int32_t, double>>;

struct Sparse : hxtest::Pattern {
  std::string name;
  int32_t positive = -1;  // inertia when known
};

Sparse named(const std::string& name, const hxtest::Pattern& p, int32_t positive) {
  Sparse s;
  static_cast<hxtest::Pattern&>(s) = p;
  s.name = name;
  s.positive = positive;
  return s;
}

// n1 positive pivots and n2 negative ones whatever the blocking.
Sparse randomKKT(int32_t n1, int32_t n2, uint32_t seed) {
  return named("kkt " + std::to_string(n1) + "x" + std::to_string(n2),
               ::randomKKT(n1, n2, seed, 1e-4, true), n1);
}

// The augmented matrix of a shared problem as an interior-point iteration
// sees it early on: [-(Q + X^-1 Z) A'; A  delta], quasi-definite, with
// X^-1 Z over four decades so that answers can be compared.
bool augmentedOf(const std::string& set, const std::string& file, Sparse* out) {
  hxcli::MpsProblem p;
  hxcli::MpsError err;
  std::string path = std::string(HALVEX_DATA_DIR) + "/" + set + "/" + file;
  if (!hxcli::readMpsFile(path, hxcli::MpsFormat::Auto, &p, &err)) return false;
  int32_t nc = p.numCol(), nr = p.numRow();
  std::mt19937 rng(7);
  std::uniform_real_distribution<double> scale(-2.0, 2.0);
  Triplets t;
  for (int32_t j = 0; j < nc; j++) {
    double q = p.quadDiag.empty() ? 0.0 : p.quadDiag[j];
    t.push_back({j, j, -(q + std::pow(10.0, scale(rng)))});
    if (!p.quadColBegin.empty())
      for (int32_t k = p.quadColBegin[j]; k < p.quadColBegin[j + 1]; k++)
        t.push_back({p.quadRowIndex[k], j, -p.quadValue[k]});
    for (int32_t k = p.colBegin[j]; k < p.colBegin[j + 1]; k++)
      t.push_back({nc + p.rowIndex[k], j, p.value[k]});
  }
  for (int32_t i = 0; i < nr; i++) t.push_back({nc + i, nc + i, 1e-6});
  *out = named(file, fromLower(nc + nr, t), nr);
  return true;
}

int32_t liveThreads() {
  int32_t count = 0;
  DIR* d = opendir("/proc/self/task");
  if (!d) return -1;
  while (dirent* e = readdir(d))
    if (e->d_name[0] != '.') count++;
  closedir(d);
  return count;
}

// Fails the run instead of letting a deadlock hang it.
class Watchdog {
 public:
  explicit Watchdog(int seconds) : thread_([this, seconds] {
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!stop_.load()) {
      if (std::chrono::steady_clock::now() > end) {
        std::fprintf(stderr, "watchdog: no end after %d s, taken as a deadlock\n", seconds);
        std::abort();
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }) {}
  ~Watchdog() {
    stop_.store(true);
    thread_.join();
  }

 private:
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

// The kernel's createThread, counted, and refused on demand.
std::atomic<int32_t> threadsMade{0};
std::atomic<bool> refuseThreads{false};
QVCreateThreadFn kernelCreateThread = nullptr;
void* countingCreateThread(QVKernel* k, QVThreadAttr* attr, int64_t zero, const char* name) {
  if (refuseThreads.load()) return nullptr;
  threadsMade++;
  return kernelCreateThread(k, attr, zero, name);
}

class LAParallel : public LANumericSparse {
 protected:
  void SetUp() override {
    LANumericSparse::SetUp();
    kernelCreateThread = host.kernel()->createThread;
    host.kernel()->createThread = countingCreateThread;
    threadsMade = 0;
    refuseThreads = false;
    ASSERT_EQ(0, LA_SetIntParam(env, LA_PARAM_COLLECT_INERTIA, 1));
  }
  // threads 0: the sequential plan.
  int32_t analyze(const Sparse& s, int32_t threads, int32_t nb) {
    cleanUp();
    EXPECT_EQ(0, LA_SetIntParam(env, LA_PARAM_NUM_THREADS, threads > 0 ? threads : 1));
    return laAnalyzeWithPlan(s.n, s.colBegin.data(), s.rowIndex.data(), s.value.data(), env, &sym,
                             &num, threads, nb);
  }
  Vec solve(const Sparse& s, const Vec& b, int32_t refine) {
    EXPECT_EQ(0, LA_SetIntParam(env, LA_PARAM_MAX_REFINE, refine));
    Vec x = b;
    int32_t status = LANumericSparse::solve(s, x);
    EXPECT_TRUE(status == 0 || status == 6 || status == 7) << status;
    return x;
  }
  double residual(const Sparse& s, const Vec& x, const Vec& b) {
    Vec r(s.n);
    return LA_CalculateInfNormResidual(s.n, s.colBegin.data(), s.rowIndex.data(), s.value.data(),
                                       x.data(), b.data(), r.data());
  }
  Vec rhs(const Sparse& s, uint32_t seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    Vec x(s.n);
    for (double& v : x) v = u(rng);
    return multiply(s, x);
  }
  // What the plan holds: wide supernodes, the last column block with extra
  // rows, a width that is a multiple of the block edge with rows below.
  struct PlanShape { int32_t wide = 0, extra = 0, multiple = 0, narrowBlocks = 0; };
  PlanShape shape() const {
    PlanShape p;
    int32_t nb = sym->blockSize;
    for (int32_t s = 0; s < sym->numSNodes; s++) {
      LABlockShape b = laBlockShape(sym, s);
      int32_t c = laSNodeCols(sym, s), r = laSNodeRows(sym, s);
      if (!b.wide) {
        p.narrowBlocks += b.nrb > 1;
        continue;
      }
      p.wide++;
      p.extra += c % nb != 0 && r > c;
      p.multiple += c % nb == 0 && r > c;
    }
    return p;
  }
};

std::vector<Sparse> testMatrices() {
  std::vector<Sparse> m = {randomKKT(300, 140, 3), randomKKT(120, 200, 4),
                           named("grid 9^3", laplacian(graphs::grid3d(9), 6.1), 729)};
  Sparse real;
  if (augmentedOf("maros", "CVXQP1_S.qps.gz", &real)) m.push_back(real);
  if (augmentedOf("netlib", "share2b.mps.gz", &real)) m.push_back(real);
  return m;
}

TEST_F(LAParallel, AnswersAndInertiaAgreeWithTheSequentialPath) {
  int32_t realProblems = 0, withExtra = 0, withMultiple = 0, withNarrowBlocks = 0;
  for (const Sparse& s : testMatrices()) {
    SCOPED_TRACE(s.name);
    realProblems += s.name.find(".gz") != std::string::npos;
    Vec b = rhs(s, 11);
    ASSERT_EQ(0, analyze(s, 0, 0));
    ASSERT_EQ(0, sym->threaded);
    ASSERT_EQ(0, factor(s));
    // The factor alone answers to this backward error; refined, to rounding.
    double plain = residual(s, solve(s, b, 0), b);
    Vec xs = solve(s, b, 8);
    ASSERT_LT(residual(s, xs, b), 1e-13);
    double xsNorm = 0.0;
    for (double v : xs) xsNorm = std::max(xsNorm, std::fabs(v));
    for (int32_t nb : {8, 24, 64}) {
      for (int32_t threads : {1, 2, 4, 8}) {
        SCOPED_TRACE("nb " + std::to_string(nb) + " threads " + std::to_string(threads));
        ASSERT_EQ(0, analyze(s, threads, nb));
        ASSERT_EQ(1, sym->threaded);
        PlanShape p = shape();
        if (nb == 8) {
          EXPECT_GT(p.wide, 0);
        }
        withExtra += p.extra > 0;
        withMultiple += p.multiple > 0;
        withNarrowBlocks += p.narrowBlocks > 0;
        ASSERT_EQ(0, factor(s));
        EXPECT_EQ(s.positive, env->numPositivePivots);
        EXPECT_EQ(s.n - s.positive, env->numNegativePivots);
        EXPECT_EQ(0, sym->numPerturbed);
        // The blocked factor is as good as the sequential one ...
        EXPECT_LT(residual(s, solve(s, b, 0), b), std::max(1e-10, 100.0 * plain));
        // ... and refined, it gives the same answer.
        Vec xt = solve(s, b, 8);
        EXPECT_LT(residual(s, xt, b), 1e-13);
        double diff = 0.0;
        for (int32_t i = 0; i < s.n; i++) diff = std::max(diff, std::fabs(xt[i] - xs[i]));
        EXPECT_LT(diff, 1e-7 * std::max(1.0, xsNorm));
      }
    }
  }
  // The shapes that the block walk treats apart were all met.
  EXPECT_GT(withExtra, 0);
  EXPECT_GT(withMultiple, 0);
  EXPECT_GT(withNarrowBlocks, 0);
  if (realProblems == 0) GTEST_LOG_(WARNING) << "shared problems not found in " << HALVEX_DATA_DIR;
}

TEST_F(LAParallel, ThreadsComeFromTheKernelAndOneThreadRepeatsItself) {
  Sparse s = randomKKT(200, 150, 5);
  Vec b = rhs(s, 2);
  // One thread: the caller alone, and the same bits every time.
  ASSERT_EQ(0, analyze(s, 1, 16));
  ASSERT_GT(shape().wide, 0);
  ASSERT_EQ(0, factor(s));
  EXPECT_EQ(0, threadsMade.load());
  Vec first(sym->factor, sym->factor + sym->numFactorEntries);
  ASSERT_EQ(0, factor(s));
  EXPECT_EQ(0, std::memcmp(first.data(), sym->factor, first.size() * sizeof(double)));
  // Four: three helpers to populate and three to factor, all gone after.
  int32_t before = liveThreads();
  ASSERT_EQ(0, analyze(s, 4, 16));
  ASSERT_EQ(0, factor(s));
  EXPECT_EQ(6, threadsMade.load());
  EXPECT_EQ(before, liveThreads());
  // A kernel that refuses threads leaves the caller to do all of it.
  refuseThreads = true;
  ASSERT_EQ(0, factor(s));
  EXPECT_LT(residual(s, solve(s, b, 0), b), 1e-10);
}

TEST_F(LAParallel, ReplacedPivotsAddUpAcrossFactorisations) {
  // Zero columns with a diagonal entry: one replaced pivot each, on both
  // paths and whatever the blocking.
  Sparse k = randomKKT(150, 60, 6);
  Triplets t;
  for (int32_t j = 0; j < k.n; j++)
    for (int32_t p = k.colBegin[j]; p < k.colBegin[j + 1]; p++)
      if (k.rowIndex[p] >= j) t.push_back({k.rowIndex[p], j, k.value[p]});
  const int32_t zeros = 5;
  for (int32_t z = 0; z < zeros; z++) t.push_back({k.n + z, k.n + z, 0.0});
  Sparse s = named("with zero columns", fromLower(k.n + zeros, t), 150 + zeros);
  for (int32_t threads : {0, 3}) {
    SCOPED_TRACE(threads);
    ASSERT_EQ(0, analyze(s, threads, 16));
    for (int32_t round = 1; round <= 3; round++) {
      ASSERT_EQ(0, factor(s));
      // The sequential path assigns its count; the threaded path adds.
      EXPECT_EQ(threads ? round * zeros : zeros, sym->numPerturbed);
      // Replaced by +tol, so counted positive.
      EXPECT_EQ(s.positive, env->numPositivePivots);
    }
  }
}

TEST_F(LAParallel, QueueGrowthAndEveryRefusedAllocationLeaveNothingBehind) {
  Sparse s = randomKKT(250, 120, 8);
  Vec b = rhs(s, 3);
  ASSERT_EQ(0, analyze(s, 3, 8));
  // One record and no slot to start with: the run must grow both.
  sym->taskCapacity = 1;
  ASSERT_GT(sym->numSlots, 0);
  sym->numSlots = 0;
  ASSERT_EQ(0, factor(s));
  EXPECT_LT(residual(s, solve(s, b, 0), b), 1e-10);
  int64_t blocks = host.poolStats(pool).liveBlocks;
  int32_t threads = liveThreads();
  int32_t refused = 0;
  for (int64_t k = 0; k < 64; k++) {
    host.failAllocation(k);
    int32_t status = factor(s);
    bool hit = host.poolStats(pool).refused > refused;
    host.clearFailures();
    EXPECT_EQ(blocks, host.poolStats(pool).liveBlocks) << "allocation " << k;
    EXPECT_EQ(threads, liveThreads()) << "allocation " << k;
    if (!hit) {
      EXPECT_EQ(0, status);
      break;
    }
    refused++;
    EXPECT_EQ(1, status) << "allocation " << k;
  }
  // The two fixed blocks and growths of both kinds were refused in turn.
  EXPECT_GE(refused, 4);
  // Nothing of a failed run spoils the next one.
  ASSERT_EQ(0, factor(s));
  EXPECT_LT(residual(s, solve(s, b, 0), b), 1e-10);
}

TEST_F(LAParallel, ABadCountEndsTheRunWithoutAHang) {
  Watchdog dog(120);
  Sparse s = randomKKT(250, 120, 9);
  int32_t threads = liveThreads();
  for (int32_t t : {1, 4}) {
    SCOPED_TRACE(t);
    ASSERT_EQ(0, analyze(s, t, 8));
    // A count that the walk never reaches: found out, not waited for.
    int32_t e = sym->numBlocks - 1;
    sym->blockDepsInit[0][e] += 1;
    EXPECT_EQ(2, factor(s));
    sym->blockDepsInit[0][e] -= 1;
    EXPECT_EQ(0, factor(s));
    EXPECT_EQ(threads, liveThreads());
  }
}

}  // namespace threaded

// ---- the analysis ---------------------------------------------------------------

namespace analysis {

using hxtest::blockArrow;
using hxtest::BruteFactor;
using hxtest::bruteFactor;
using hxtest::fromDense;
using hxtest::Pattern;
using hxtest::randomPattern;

class LATest : public LANumericSparse {
 protected:
  int64_t live() { return host.poolStats(pool).liveBlocks; }
  int32_t analyse(const Pattern& p, LASymbolic** sym, LANumeric** num, LAEnv* e = nullptr,
                  bool values = false) {
    return LA_AnalyzeMatrixLDL(p.n, p.colBegin.data(), p.rowIndex.data(),
                               values ? p.value.data() : nullptr, e ? e : env, sym, num);
  }
};

// ---- environment and parameters ---------------------------------------------

TEST_F(LATest, ParameterLimitsAndRejections) {
  int32_t v;
  double d;
  // Values just inside and just outside each limit; a rejected value leaves
  // the old one.
  struct Case { int32_t id, value, status; };
  const Case cases[] = {
      {7, -1, 0}, {7, 4, 0},  {7, -2, 9}, {7, 5, 9},  {1, 5, 0},  {1, 6, 9},  {1, -1, 9},
      {18, 2, 0}, {18, 3, 9}, {0, 1, 0},  {0, 0, 9},  {2, 1, 0},  {2, 2, 9},  {5, 0, 0},
      {5, -1, 9}, {6, 0, 9},  {13, 1, 0}, {13, 2, 9}, {15, 0, 0}, {15, -1, 9}, {16, 0, 9},
      {17, 1, 0}, {14, 0, 0}, {14, 2, 9}, {9, 1, 0},  {8, 2, 9}};
  for (const Case& c : cases) {
    int32_t before;
    ASSERT_EQ(0, LA_GetIntParam(env, c.id, &before));
    EXPECT_EQ(c.status, LA_SetIntParam(env, c.id, c.value)) << "id " << c.id << " value " << c.value;
    ASSERT_EQ(0, LA_GetIntParam(env, c.id, &v));
    EXPECT_EQ(c.status == 0 ? c.value : before, v) << "id " << c.id;
  }
  for (int32_t id : {-1, 21}) {
    EXPECT_EQ(9, LA_SetIntParam(env, id, 0));
    EXPECT_EQ(9, LA_GetIntParam(env, id, &v));
    EXPECT_EQ(9, LA_SetDblParam(env, 0.0, id));
    EXPECT_EQ(9, LA_GetDblParam(env, id, &d));
  }
  EXPECT_EQ(9, LA_SetDblParam(env, -1e-300, 19));
  EXPECT_EQ(1e-16, env->refineTol);
  EXPECT_EQ(0, LA_SetDblParam(env, 0.0, 19));
  EXPECT_EQ(0.0, env->refineTol);

  EXPECT_EQ(nullptr, LA_CreateLAEnv(nullptr, nullptr, &v));
  EXPECT_EQ(9, v);
  host.failAllocation(0);
  EXPECT_EQ(nullptr, LA_CreateLAEnv(pool, nullptr, &v));
  EXPECT_EQ(1, v);
  host.clearFailures();
}

// ---- the analysis driver ------------------------------------------------------

// Checks the plan against a brute-force factor in the analysis order.
// Pivot marks: all single, or pairs on neighbouring positions.
void checkPlan(const Pattern& p, const LASymbolic* sym, bool allSingle = true) {
  int32_t n = p.n;
  IntVec perm(sym->perm, sym->perm + n);
  for (int32_t k = 0; k < n; k++) ASSERT_EQ(k, sym->invPerm[perm[k]]);
  BruteFactor bf = bruteFactor(p, perm);
  double entries = -n, ops = 0;
  for (int32_t c : bf.colCounts) {
    entries += c;
    ops += (double)(c - 1) * c;
  }
  EXPECT_EQ(entries, sym->estFactorEntries);
  EXPECT_EQ(ops, sym->estOperations);

  int32_t ns = sym->numSNodes;
  ASSERT_GE(ns, 1);
  EXPECT_EQ(0, sym->snodeStart[0]);
  EXPECT_EQ(n, sym->snodeStart[ns]);
  int32_t widest = 0;
  for (int32_t s = 0; s < ns; s++) {
    int32_t first = sym->snodeStart[s], end = sym->snodeStart[s + 1];
    ASSERT_LT(first, end);
    widest = std::max(widest, end - first);
    for (int32_t j = first; j < end; j++) EXPECT_EQ(s, sym->colToSNode[j]);
    EXPECT_TRUE(sym->snodeParent[s] == -1 || sym->snodeParent[s] > s);
    // Row list: own columns, then the union of the columns' structures.
    std::set<int32_t> want;
    for (int32_t j = first; j < end; j++) {
      want.insert(j);
      for (int32_t i = j + 1; i < n; i++)
        if (bf.l[i][j]) want.insert(i);
    }
    IntVec got(sym->rowList + sym->rowBegin[s], sym->rowList + sym->rowBegin[s + 1]);
    EXPECT_EQ(IntVec(want.begin(), want.end()), got) << "supernode " << s;
    if (end < n) {
      int32_t p0 = bf.parent[end - 1];
      EXPECT_EQ(p0 == -1 ? -1 : sym->colToSNode[p0], sym->snodeParent[s]);
    }
  }
  EXPECT_LE(sym->maxSNodeCols, widest);
  // A supernode whose rows below its columns are exactly its parent's rows
  // adds no zero by joining it, whatever their sizes, so it has joined it.
  for (int32_t s = 0; s + 1 < ns; s++) {
    int32_t below = sym->rowBegin[s + 1] - sym->rowBegin[s] - laSNodeCols(sym, s);
    if (sym->snodeParent[s] == s + 1) {
      EXPECT_NE(below, sym->rowBegin[s + 2] - sym->rowBegin[s + 1]) << "supernode " << s;
    }
  }
  EXPECT_EQ(sym->rowBegin[ns], sym->numRowEntries);
  EXPECT_EQ(sym->factorBegin[ns], sym->numFactorEntries);
  if (!sym->pivots) return;
  for (int32_t k = 0; k < n; k++) {
    if (allSingle || sym->pivots[k] == -2) {
      EXPECT_EQ(-2, sym->pivots[k]) << "position " << k;
    } else {
      ASSERT_LT(k + 1, n);
      EXPECT_EQ(-1, sym->pivots[++k]) << "position " << k;
    }
  }
}

// p with a third of its off-diagonal entries written once or twice more,
// in both columns, and every fifth diagonal twice, as a caller may hand them
// over.  The repeats follow the column's own entries in no order, so p is
// the matrix with its repeats merged.
Pattern withRepeats(const Pattern& p, uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<IntVec> extra(p.n);
  for (int32_t j = 0; j < p.n; j++)
    for (int32_t q = p.colBegin[j]; q < p.colBegin[j + 1]; q++) {
      int32_t i = p.rowIndex[q];
      int32_t times = i > j && rng() % 3 == 0 ? 1 + (int32_t)(rng() % 2) : i == j && j % 5 == 0;
      for (int32_t e = 0; e < times; e++) {
        extra[j].push_back(i);
        if (i != j) extra[i].push_back(j);
      }
    }
  Pattern d = p;
  d.rowIndex.clear();
  for (int32_t j = 0; j < p.n; j++) {
    d.rowIndex.insert(d.rowIndex.end(), p.rowIndex.begin() + p.colBegin[j],
                      p.rowIndex.begin() + p.colBegin[j + 1]);
    std::shuffle(extra[j].begin(), extra[j].end(), rng);
    d.rowIndex.insert(d.rowIndex.end(), extra[j].begin(), extra[j].end());
    d.colBegin[j + 1] = (int32_t)d.rowIndex.size();
  }
  d.value.assign(d.rowIndex.size(), 1.0);
  return d;
}

// [H A'; A -D] with H diagonal: n1 columns, n2 constraint rows.
Pattern kktPattern(int32_t n1, int32_t n2, uint32_t seed) {
  std::mt19937 rng(seed);
  int32_t n = n1 + n2;
  std::vector<std::vector<bool>> a(n, std::vector<bool>(n, false));
  for (int32_t i = 0; i < n2; i++) {
    a[n1 + i][i % n1] = a[i % n1][n1 + i] = true;
    for (int32_t j = 0; j < n1; j++)
      if (rng() % 7 == 0) a[n1 + i][j] = a[j][n1 + i] = true;
  }
  return fromDense(a);
}

// Analyses p and p with repeats: the same plan, sizes and order.
void expectSamePlanWithRepeats(LAEnv* env, const Pattern& p, const LASymbolic* ms,
                               uint32_t seed, bool check) {
  Pattern dup = withRepeats(p, seed);
  ASSERT_GT(dup.colBegin[dup.n], p.colBegin[p.n]);
  LASymbolic* ds = nullptr;
  LANumeric* dn = nullptr;
  ASSERT_EQ(0, LA_AnalyzeMatrixLDL(dup.n, dup.colBegin.data(), dup.rowIndex.data(), nullptr, env,
                                   &ds, &dn));
  auto sizes = [](const LASymbolic* y) {
    return std::vector<double>{y->estFactorEntries,        y->estOperations,
                               (double)y->numFactorEntries, (double)y->updateBufferSize,
                               (double)y->panelBufferSize,  (double)y->numBlocks,
                               (double)y->numSNodes,        (double)y->numRowEntries};
  };
  EXPECT_EQ(sizes(ms), sizes(ds));
  EXPECT_TRUE(std::equal(ms->perm, ms->perm + p.n, ds->perm));
  EXPECT_TRUE(std::equal(ms->rowList, ms->rowList + ms->numRowEntries, ds->rowList));
  if (check) checkPlan(dup, ds);
  LA_CleanUpLDL(env, &ds, &dn);
}

// Random and KKT patterns under each ordering, sequential.
TEST_F(LATest, SequentialPlanMatchesBruteForceWithAndWithoutRepeats) {
  const int32_t methods[] = {-1, 0, 2};
  for (uint32_t seed = 1; seed <= 14; seed++) {
    // The last is dense: one supernode; the one before diagonal: a forest.
    double density = seed == 14 ? 1.0 : seed == 13 ? 0.0 : 0.03 + 0.01 * (seed % 5);
    int32_t size = seed == 14 ? 100 : 20 + (int32_t)seed * 5;
    Pattern p = seed % 4 == 0 ? kktPattern(size, size / 2, seed)
                              : randomPattern(size, density, seed);
    int32_t method = methods[seed % 3];
    ASSERT_EQ(0, LA_SetIntParam(env, LA_PARAM_ORDERING_METHOD, method));
    ASSERT_EQ(0, LA_SetIntParam(env, LA_PARAM_USE_CONSTRAINED_ORDERING, method == 2 && seed % 2));
    SCOPED_TRACE(testing::Message() << "seed " << seed << " method " << method);
    int64_t before = live();
    LASymbolic* sym = nullptr;
    LANumeric* num = nullptr;
    ASSERT_EQ(0, analyse(p, &sym, &num, nullptr, seed != 14));
    EXPECT_EQ(0, sym->threaded);
    EXPECT_EQ(0, sym->blockSize);
    checkPlan(p, sym);
    if (seed == 14) { EXPECT_EQ(1, sym->numSNodes); }
    int64_t maxUpdate = 0;
    for (int32_t s = 0; s < sym->numSNodes; s++)
      maxUpdate = std::max<int64_t>(maxUpdate, (sym->rowBegin[s + 1] - sym->rowBegin[s]) -
                                                   (sym->snodeStart[s + 1] - sym->snodeStart[s]));
    EXPECT_EQ((maxUpdate * maxUpdate + 15) / 16 * 16, (int64_t)sym->updateBufferSize);
    expectSamePlanWithRepeats(env, p, sym, 100 + seed, true);
    LA_CleanUpLDL(env, &sym, &num);
    EXPECT_EQ(before, live());
  }
}

// Counts the update events per block table entry from their definition:
// a source's update rows, in pairs of its row blocks for a wide source,
// against the target's column and row blocks.
std::vector<IntVec> expectedDeps(const LASymbolic* sym) {
  int32_t ns = sym->numSNodes, nb = sym->blockSize;
  std::vector<IntVec> deps(ns);
  auto rowsOf = [&](int32_t s) {
    return IntVec(sym->rowList + sym->rowBegin[s], sym->rowList + sym->rowBegin[s + 1]);
  };
  for (int32_t s = 0; s < ns; s++) {
    LABlockShape b = laBlockShape(sym, s);
    deps[s].assign(b.wide ? b.ncb * b.nrb : b.nrb, 0);
    if (b.wide)
      for (int32_t J = 0; J < b.ncb; J++)
        for (int32_t I = J; I < b.nrb; I++) deps[s][J * b.nrb + I] += I == J ? J : J + 1;
  }
  auto apply = [&](const IntVec& colRows, const IntVec& rowRows, int32_t add) {
    // Group the column part by target and column block.
    std::set<std::pair<int32_t, int32_t>> parts;
    for (int32_t row : colRows) {
      int32_t t = sym->colToSNode[row];
      LABlockShape bt = laBlockShape(sym, t);
      parts.insert({t, bt.wide ? (row - sym->snodeStart[t]) / nb : 0});
    }
    for (auto [t, J] : parts) {
      LABlockShape bt = laBlockShape(sym, t);
      IntVec trows = rowsOf(t);
      int32_t blockStart = sym->snodeStart[t] + J * bt.w;
      std::set<int32_t> hit;
      for (int32_t row : rowRows) {
        if (row < blockStart) continue;
        auto it = std::find(trows.begin(), trows.end(), row);
        if (it == trows.end()) continue;
        hit.insert((int32_t)(it - trows.begin()) / bt.h);
      }
      for (int32_t I : hit) deps[t][J * bt.nrb + I] += add;
    }
  };
  for (int32_t s = 0; s < ns; s++) {
    LABlockShape b = laBlockShape(sym, s);
    IntVec rows = rowsOf(s);
    int32_t c = laSNodeCols(sym, s), r = (int32_t)rows.size();
    if (r <= c) continue;
    if (!b.wide) {
      IntVec upd(rows.begin() + c, rows.end());
      apply(upd, upd, 1);
      continue;
    }
    for (int32_t K = c / nb; K < b.nrb; K++)
      for (int32_t I = K; I < b.nrb; I++) {
        IntVec kr(rows.begin() + std::max(K * nb, c), rows.begin() + std::min((K + 1) * nb, r));
        IntVec ir(rows.begin() + std::max(I * nb, c), rows.begin() + std::min((I + 1) * nb, r));
        apply(kr, ir, b.ncb);
      }
  }
  for (int32_t s = 0; s < ns; s++) {
    LABlockShape b = laBlockShape(sym, s);
    if (b.wide) continue;
    for (int32_t I = 1; I < b.nrb; I++) {
      deps[s][0] += deps[s][I];
      deps[s][I] = 0;
    }
  }
  return deps;
}

// Dense blocks of random sizes, sparse links between them and a border.
Pattern randomBlocks(uint32_t seed) {
  std::mt19937 rng(seed);
  std::uniform_int_distribution<int32_t> size(60, 260);
  IntVec starts = {0};
  for (int32_t b = 0; b < 4; b++) starts.push_back(starts.back() + size(rng));
  int32_t n = starts.back() + 100 + (int32_t)(seed % 3) * 40;
  std::vector<std::vector<bool>> a(n, std::vector<bool>(n, false));
  for (int32_t b = 0; b < 4; b++)
    for (int32_t i = starts[b]; i < starts[b + 1]; i++)
      for (int32_t j = starts[b]; j < starts[b + 1]; j++) a[i][j] = true;
  std::uniform_int_distribution<int32_t> any(0, n - 1);
  for (int32_t k = 0; k < 40; k++) {
    int32_t i = any(rng), j = any(rng);
    a[i][j] = a[j][i] = true;
  }
  for (int32_t i = starts.back(); i < n; i++)
    for (int32_t j = 0; j < n; j++)
      if (j >= starts.back() || rng() % 3 == 0) a[i][j] = a[j][i] = true;
  return fromDense(a);
}

class LAThreadedPlan : public LATest, public ::testing::WithParamInterface<uint32_t> {};

INSTANTIATE_TEST_SUITE_P(LARandomBlocks, LAThreadedPlan, ::testing::Values(0u, 1u, 2u, 4u, 5u, 7u));

TEST_P(LAThreadedPlan, BlockTablesMatchTheUpdateEvents) {
  Pattern p = GetParam() == 0 ? blockArrow(3, 200, 150) : randomBlocks(GetParam());
  ASSERT_EQ(0, LA_SetIntParam(env, 0, 4));
  LASymbolic* sym = nullptr;
  LANumeric* num = nullptr;
  ASSERT_EQ(0, analyse(p, &sym, &num, nullptr, true));
  ASSERT_EQ(1, sym->threaded) << "ratio " << sym->estOperations / sym->estFactorEntries;
  checkPlan(p, sym);

  int64_t blocks = 0;
  bool anyWide = false;
  std::vector<IntVec> want = expectedDeps(sym);
  for (int32_t s = 0; s < sym->numSNodes; s++) {
    LABlockShape b = laBlockShape(sym, s);
    anyWide |= b.wide != 0;
    ASSERT_EQ(sym->blockDepsInit[0] + blocks, sym->blockDepsInit[s]);
    IntVec got(sym->blockDepsInit[s], sym->blockDepsInit[s] + want[s].size());
    EXPECT_EQ(want[s], got) << "supernode " << s;
    blocks += (int64_t)want[s].size();
  }
  EXPECT_TRUE(anyWide);
  EXPECT_EQ(blocks, sym->numBlocks);

  std::vector<bool> hasChild(sym->numSNodes, false);
  for (int32_t s = 0; s < sym->numSNodes; s++)
    if (sym->snodeParent[s] != -1) hasChild[sym->snodeParent[s]] = true;
  // A wide supernode may start on its first diagonal block before its
  // children are done.
  IntVec leaves;
  for (int32_t s = 0; s < sym->numSNodes; s++)
    if (!hasChild[s] || sym->blockDepsInit[s][0] == 0) leaves.push_back(s);
  EXPECT_EQ(leaves, IntVec(sym->leaves, sym->leaves + sym->numLeaves));
  expectSamePlanWithRepeats(env, p, sym, GetParam(), false);
  LA_CleanUpLDL(env, &sym, &num);
  if (GetParam() != 0) return;
  hxtest::OomSweep::Result r = laOomSweep(host, [&](hxtest::OomProbe& probe) {
    int32_t status = analyse(p, &sym, &num);
    probe.disarm();
    LA_CleanUpLDL(env, &sym, &num);
    return status;
  });
  EXPECT_TRUE(r.completed && r.finalStatus == 0 && r.refusedRuns > 5) << r.refusedRuns;
}

TEST_F(LATest, BadPatternsAreRefusedAndOddOnesPlanned) {
  auto run = [&](const Pattern& q, bool check, LAEnv* e = nullptr) {
    int64_t before = live();
    LASymbolic* sym = nullptr;
    LANumeric* num = nullptr;
    int32_t status = analyse(q, &sym, &num, e);
    if (check && status == 0) checkPlan(q, sym);
    LA_CleanUpLDL(e ? e : env, &sym, &num);
    EXPECT_EQ(before, live());
    return status;
  };
  // An entry above the diagonal without its mirror: the halves differ.
  Pattern p = randomPattern(12, 0.3, 5);
  Pattern q = p;
  q.rowIndex.insert(q.rowIndex.begin() + q.colBegin[5], 0);  // (0,5) only
  for (int32_t j = 6; j <= q.n; j++) q.colBegin[j]++;
  EXPECT_EQ(2, run(q, false));
  Pattern r = p;
  r.rowIndex[3] = r.n;  // row out of range
  EXPECT_EQ(2, run(r, false));

  // The halves are counted after permuting, so the order of the entries
  // does not matter; the same pattern without the diagonal analyses fine.
  Pattern d;
  d.n = p.n;
  d.colBegin.push_back(0);
  for (int32_t j = 0; j < p.n; j++) {
    for (int32_t k = p.colBegin[j + 1] - 1; k >= p.colBegin[j]; k--)
      if (p.rowIndex[k] != j) d.rowIndex.push_back(p.rowIndex[k]);
    d.colBegin.push_back((int32_t)d.rowIndex.size());
  }
  EXPECT_EQ(0, run(d, true));
  EXPECT_EQ(0, run(Pattern{0, {0}, {}, {}}, false));
}

// ---- static permutations ---------------------------------------------------------

// kktPattern with values: H diagonal, A entries of both signs, a tiny
// negative diagonal on the constraint rows.
Pattern withKktValues(Pattern p, int32_t n1) {
  for (int32_t j = 0; j < p.n; j++)
    for (int32_t q = p.colBegin[j]; q < p.colBegin[j + 1]; q++) {
      int32_t i = p.rowIndex[q], lo = std::min(i, j), hi = std::max(i, j);
      p.value[q] = i == j ? (j < n1 ? 1.0 + j % 3 : -1e-8) : ((lo * 7 + hi * 3) % 5 - 2.5) * 0.4;
    }
  return p;
}

// The matching's pairs stay neighbours through ordering, expansion and
// postorder, and the plan factors to the accuracy of the plain one.
TEST_F(LATest, StaticPermutationsKeepPairsAdjacentAndSolveAsWell) {
  const int32_t n1 = 200, n2 = 100;
  Pattern p = withKktValues(kktPattern(n1, n2, 9), n1);
  int32_t n = p.n;
  std::vector<double> b(n), res(n);
  for (int32_t i = 0; i < n; i++) b[i] = 1.0 + i % 7;
  // gen, aug, constrained, method
  const int32_t cases[][4] = {{0, 0, 0, -1}, {1, 0, 0, -1}, {0, 1, 0, -1}, {1, 1, 1, 2},
                              {1, 0, 1, 2}, {0, 1, 0, 0}};
  double plainResidual = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c[0] << c[1] << c[2] << " method " << c[3]);
    LAEnv* e = LA_CreateLAEnv(pool, nullptr, nullptr);
    for (auto [id, v] : {std::pair{3, c[0]}, {4, c[1]}, {5, n1}, {2, c[2]}, {7, c[3]}, {8, 1},
                         {15, 0}})
      ASSERT_EQ(0, LA_SetIntParam(e, id, v));
    LASymbolic* sym = nullptr;
    LANumeric* num = nullptr;
    ASSERT_EQ(0, analyse(p, &sym, &num, e, true));
    checkPlan(p, sym, !c[0] && !c[1]);
    // Neighbours marked as a pair are a matched pair: joined by an entry,
    // and on the augmented route one from each block.
    int32_t np = 0;
    for (int32_t k = 0; k + 1 < n; k++)
      if (sym->pivots[k] == -1) {
        int32_t u = sym->perm[k], v = sym->perm[++k];
        auto col = p.rowIndex.begin() + p.colBegin[v];
        bool joined = std::count(col, p.rowIndex.begin() + p.colBegin[v + 1], u) > 0;
        EXPECT_TRUE(joined && (!c[1] || (u < n1) != (v < n1))) << u << " " << v;
        np++;
      }
    EXPECT_TRUE(c[1] ? np == n2 : c[0] ? np > 0 : np == 0) << np;
    ASSERT_EQ(0, LA_FactorMatrixLDL(0, n, p.colBegin.data(), p.rowIndex.data(), p.value.data(),
                                    e, sym, num));
    std::vector<double> x = b;
    int32_t st = LA_SolveMatrixLDL(0, p.colBegin.data(), p.rowIndex.data(), p.value.data(),
                                   x.data(), e, sym, num);
    EXPECT_TRUE(st == 0 || st == 6 || st == 7) << st;
    double r = LA_CalculateInfNormResidual(n, p.colBegin.data(), p.rowIndex.data(),
                                           p.value.data(), x.data(), b.data(), res.data());
    if (np == 0) plainResidual = r;
    EXPECT_LE(r, 100 * plainResidual + 1e-15);
    LA_CleanUpLDL(e, &sym, &num);
    LA_FreeLAEnv(&e);
  }

  // The matching weighs values; every allocation of the matched and
  // constrained route refused in turn.
  for (int32_t id : {3, 4, 5, 2}) ASSERT_EQ(0, LA_SetIntParam(env, id, id == 5 ? n1 : 1));
  ASSERT_EQ(0, LA_SetIntParam(env, LA_PARAM_ORDERING_METHOD, 2));
  LASymbolic* sym = nullptr;
  LANumeric* num = nullptr;
  EXPECT_EQ(2, analyse(p, &sym, &num));
  LA_CleanUpLDL(env, &sym, &num);
  hxtest::OomSweep::Result r = laOomSweep(host, [&](hxtest::OomProbe& probe) {
    int32_t status = analyse(p, &sym, &num, nullptr, true);
    probe.disarm();
    LA_CleanUpLDL(env, &sym, &num);
    return status;
  });
  EXPECT_TRUE(r.completed);
  EXPECT_EQ(0, r.finalStatus);
}

// ---- the Cholesky path --------------------------------------------------------------

TEST_F(LATest, CholeskyPlanAgreesWithTheLdlPlan) {
  for (uint32_t seed = 1; seed <= 8; seed++) {
    Pattern p = seed == 8 ? blockArrow(2, 150, 100) : randomPattern(30 + 10 * seed, 0.06, seed);
    int32_t method = seed % 4 == 3 ? -1 : (int32_t)seed % 4;
    SCOPED_TRACE(testing::Message() << "seed " << seed << " method " << method);
    ASSERT_EQ(0, LA_SetIntParam(env, LA_PARAM_NUM_THREADS, seed == 8 ? 2 : 1));
    ASSERT_EQ(0, LA_SetIntParam(env, LA_PARAM_USE_CONSTRAINED_ORDERING, method == 2 && seed > 4));
    ASSERT_EQ(0, LA_SetIntParam(env, LA_PARAM_CHOL_PARAM, 1 + (int32_t)seed));
    int64_t before = live();
    LASymbolic *ls = nullptr, *cs = nullptr;
    LANumeric *ln = nullptr, *cn = nullptr;
    ASSERT_EQ(0, LA_SetIntParam(env, LA_PARAM_ORDERING_METHOD, method));
    ASSERT_EQ(0, analyse(p, &ls, &ln));
    ASSERT_EQ(0, LA_AnalyzeMatrixCholesky(p.n, p.colBegin.data(), p.rowIndex.data(), env, &cs, &cn));
    int32_t used = env->orderingMethod;  // the choice, written back
    EXPECT_TRUE(method != -1 || (used >= 0 && used <= 3)) << used;
    EXPECT_TRUE(cs->kind == 0 && !cs->pivots && cs->cholParam == 1 + (int32_t)seed);
    checkPlan(p, cs);
    // The same order and symbolic counts; only the supernode relaxation
    // rules of the two paths differ.
    EXPECT_TRUE(std::equal(ls->perm, ls->perm + p.n, cs->perm));
    EXPECT_EQ(ls->estFactorEntries, cs->estFactorEntries);
    EXPECT_EQ(ls->estOperations, cs->estOperations);
    EXPECT_TRUE(seed < 8 || (cs->threaded && cs->taskCapacity == 1000 && cs->cholInfo &&
                             cs->panelBufferSize == 0 && cs->numLeaves > 0));
    LA_CleanUpLDL(env, &ls, &ln);
    LA_CleanUpCholesky(env, &cs, &cn);
    EXPECT_EQ(before, live());
    hxtest::OomSweep::Result r = laOomSweep(host, [&](hxtest::OomProbe& probe) {
      env->orderingMethod = seed == 8 ? 2 : method;
      int32_t status = LA_AnalyzeMatrixCholesky(p.n, p.colBegin.data(), p.rowIndex.data(), env,
                                                &cs, &cn);
      probe.disarm();
      LA_CleanUpCholesky(env, &cs, &cn);
      return status;
    });
    EXPECT_TRUE(r.completed && r.finalStatus == 0 && r.refusedRuns >= 4)
        << r.completed << " " << r.finalStatus << " " << r.refusedRuns;
  }
}

// A A' (a zero row, a single column, a single row among the shapes) and
// its upper triangle back to both, against dense arithmetic.
TEST_F(LATest, MatrixHelpersAgainstDenseProducts) {
  std::mt19937 rng(3);
  for (auto [rows, cols] : {std::pair{7, 5}, {6, 1}, {1, 4}, {12, 12}}) {
    SCOPED_TRACE(testing::Message() << rows << " by " << cols);
    hxtest::Dense a(rows, std::vector<double>(cols, 0.0));
    for (int32_t i = 0; i < rows; i++)
      for (int32_t j = 0; j < cols; j++)
        if (i != 2 && (cols == 1 || rng() % 3 == 0)) a[i][j] = (double)(rng() % 9) - 3.5;
    Pattern pa;  // not square: built by hand
    for (int32_t j = 0; j < cols; j++, pa.colBegin.push_back((int32_t)pa.rowIndex.size()))
      for (int32_t i = 0; i < rows; i++)
        if (a[i][j] != 0) pa.rowIndex.push_back(i), pa.value.push_back(a[i][j]);
    pa.colBegin.insert(pa.colBegin.begin(), 0);
    int32_t nnz = -1, *pb = nullptr, *pi = nullptr;
    double* pv = nullptr;
    std::vector<double> dw(rows);
    IntVec iw(rows);
    auto product = [&]() {
      return LA_CreateAAt(cols, rows, pa.colBegin.data(), pa.rowIndex.data(), pa.value.data(),
                          &nnz, &pb, &pi, &pv, dw.data(), iw.data(), pool);
    };
    ASSERT_EQ(0, product());
    hxtest::Dense got = hxtest::denseFromCsc(rows, rows, pb, pi, pv), want = got;
    for (int32_t i = 0; i < rows; i++)
      for (int32_t k = 0; k < rows; k++) {
        want[i][k] = 0;
        for (int32_t j = 0; j < cols; j++) want[i][k] += a[i][j] * a[k][j];
      }
    EXPECT_EQ(want, got);
    if (cols == 1) {
      EXPECT_EQ(pa.colBegin[1] * pa.colBegin[1], nnz);  // full
    }
    EXPECT_TRUE(rows <= 2 || pb[2] == pb[3]);  // the zero row: an empty column
    Pattern up;
    for (int32_t j = 0; j < rows; j++, up.colBegin.push_back((int32_t)up.rowIndex.size()))
      for (int32_t i = 0; i <= j; i++)
        if (got[i][j] != 0) up.rowIndex.push_back(i), up.value.push_back(got[i][j]);
    up.colBegin.insert(up.colBegin.begin(), 0);
    int32_t *fb = nullptr, *fi = nullptr;
    double* fv = nullptr;
    auto full = [&]() {
      return LA_ConvertUpperToFull(rows, up.colBegin.data(), up.rowIndex.data(), up.value.data(),
                                   &fb, &fi, &fv, iw.data(), pool);
    };
    ASSERT_EQ(0, full());
    EXPECT_EQ(got, hxtest::denseFromCsc(rows, rows, fb, fi, fv));
    poolFree(pool, pv);
    poolFree(pool, fv);
    for (int32_t which = 0; which < 2; which++) {
      hxtest::OomSweep::Result r = laOomSweep(host, [&](hxtest::OomProbe&) {
        int32_t status = which == 0 ? product() : full();
        if (status == 0) poolFree(pool, which == 0 ? pv : fv);
        return status;
      });
      EXPECT_TRUE(r.completed && r.finalStatus == 0 && r.refusedRuns == 2 - which);
    }
  }
}

}  // namespace analysis

}  // namespace
