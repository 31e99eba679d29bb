// Dense LDL' with Bunch-Kaufman pivots, the sparse factor and solve, and the
// refinement that wins back what static pivoting gives away.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "frame/entry.h"
#include "host/host.h"
#include "la/la.h"
#include "la/la_internal.h"
#include "la/la_numeric.h"
#include "la/la_numeric_internal.h"

namespace {

using Vec = std::vector<double>;
using IntVec = std::vector<int32_t>;
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
  for (int32_t j = 0; j < n;) {
    if (piv[j] >= 0) {
      X(j, j) = F[j + (size_t)j * ldf];
      j++;
    } else {
      X(j, j) = F[j + (size_t)j * ldf];
      X(j + 1, j) = X(j, j + 1) = F[j + 1 + (size_t)j * ldf];
      X(j + 1, j + 1) = F[j + 1 + (size_t)(j + 1) * ldf];
      j += 2;
    }
  }
  for (int32_t i = n; i < m; i++)
    for (int32_t k = n; k < m; k++) X(i, k) = S(i - n, k - n);
  // Steps from the last to the first: X := P_j L_j X L_j^T P_j.
  std::vector<int32_t> starts;
  for (int32_t j = 0; j < n; j += piv[j] >= 0 ? 1 : 2) starts.push_back(j);
  for (auto it = starts.rbegin(); it != starts.rend(); ++it) {
    int32_t j = *it;
    int32_t width = piv[j] >= 0 ? 1 : 2;
    for (int32_t c = j; c < j + width; c++) {
      // L_j X: row i += l_i * row c, then X L_j^T: column i += l_i * column c.
      for (int32_t i = j + width; i < m; i++) {
        double l = F[i + (size_t)c * ldf];
        if (l == 0.0) continue;
        for (int32_t k = 0; k < m; k++) X(i, k) += l * X(c, k);
      }
    }
    for (int32_t c = j; c < j + width; c++) {
      for (int32_t i = j + width; i < m; i++) {
        double l = F[i + (size_t)c * ldf];
        if (l == 0.0) continue;
        for (int32_t k = 0; k < m; k++) X(k, i) += l * X(k, c);
      }
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

double maxDiff(const Dense& a, const Dense& b) {
  double d = 0.0;
  for (size_t k = 0; k < a.a.size(); k++) d = std::max(d, std::fabs(a.a[k] - b.a[k]));
  return d;
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

TEST(LADense, ReconstructsRandomIndefiniteMatrices) {
  // 150 columns take two panels; small diagonals force 2x2 pivots and swaps.
  for (int32_t n : {1, 2, 7, 40, 96, 97, 150}) {
    for (uint32_t seed : {1u, 2u}) {
      Dense A = randomSymmetric(n, seed * 31 + n, seed == 1 ? 1.0 : 1e-3);
      DenseFactor f = denseFactor(A, n);
      EXPECT_EQ(0, f.perturbed);
      bool pair = false;
      for (int32_t j = 0; j < n;) {
        if (f.piv[j] >= 0) {
          EXPECT_GE(f.piv[j], j);
          EXPECT_LT(f.piv[j], n);
          j += 1;
        } else {
          ASSERT_LT(j + 1, n);
          EXPECT_EQ(f.piv[j], f.piv[j + 1]);
          EXPECT_GE(-f.piv[j], j + 1);
          EXPECT_LT(-f.piv[j], n);
          pair = true;
          j += 2;
        }
      }
      if (n >= 40 && seed == 2) {
        EXPECT_TRUE(pair) << "no 2x2 pivot on a weak diagonal";
      }
      Dense X = reconstruct(n, n, f.F, n, f.piv, Dense());
      EXPECT_LT(maxDiff(X, A), 1e-10) << "n " << n << " seed " << seed;
    }
  }
}

TEST(LADense, RowsBelowTheBlockAreCarriedButNeverPivots) {
  // The rows below hold by far the largest entries; they must not be chosen.
  const int32_t n = 110, m = 170;
  Dense A = randomSymmetric(m, 5, 1e-2);
  for (int32_t j = 0; j < n; j++)
    for (int32_t i = n; i < m; i++) A(i, j) = A(j, i) = 1e3 * A(i, j);
  DenseFactor f = denseFactor(A, n);
  for (int32_t j = 0; j < n; j++) ASSERT_LT(f.piv[j] >= 0 ? f.piv[j] : -f.piv[j], n);
  // W holds L * D: the Schur complement from it completes the matrix.
  Dense S;
  S.n = m - n;
  S.a.assign((size_t)S.n * S.n, 0.0);
  for (int32_t i = n; i < m; i++)
    for (int32_t k = n; k < m; k++) {
      double s = A(i, k);
      for (int32_t j = 0; j < n; j++) s -= f.F[i + (size_t)j * m] * f.W[k + (size_t)j * m];
      S(i - n, k - n) = s;
    }
  Dense X = reconstruct(m, n, f.F, m, f.piv, S);
  EXPECT_LT(maxDiff(X, A), 1e-8 * 1e3);
}

TEST(LADense, TinyPivotsAreReplacedByTheFixedTolerance) {
  DenseFactor z = denseFactor(Dense{3, Vec(9, 0.0)}, 3);
  EXPECT_EQ(3, z.perturbed);
  for (int32_t j = 0; j < 3; j++) {
    EXPECT_EQ(j, z.piv[j]);
    EXPECT_EQ(kTol, z.F[j + j * 3]);
    for (int32_t i = j + 1; i < 3; i++) EXPECT_EQ(0.0, z.F[i + j * 3]);
  }
  DenseFactor t = denseFactor(Dense{2, {1e-9, 0.0, 0.0, -1e-9}}, 2, 1.05e-8);
  EXPECT_EQ(2, t.perturbed);
  EXPECT_EQ(1.05e-8, t.F[0]);
  EXPECT_EQ(-1.05e-8, t.F[3]);
  // A pivot that is tiny while its column is not is no reason to perturb.
  DenseFactor p = denseFactor(Dense{2, {0.0, 1.0, 1.0, 0.0}}, 2, 0.5);
  EXPECT_EQ(0, p.perturbed);
  EXPECT_EQ(IntVec({-1, -1}), p.piv);
  EXPECT_EQ(Vec({0.0, 1.0}), Vec(p.F.begin(), p.F.begin() + 2));
  EXPECT_EQ(0.0, p.F[3]);
}

TEST(LADense, SolvesAndTheUnblockedFormAgreeWithTheMatrix) {
  const int32_t n = 120, nrhs = 3;
  Dense A = randomSymmetric(n, 9, 1e-2);
  DenseFactor f = denseFactor(A, n);
  std::mt19937 rng(3);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  Vec B((size_t)n * nrhs), X;
  for (double& v : B) v = u(rng);
  X = B;
  LA_DenseLDLSolveMany(n, nrhs, f.F.data(), n, f.piv.data(), X.data(), n);
  Vec x1(B.begin(), B.begin() + n);
  LA_DenseLDLSolveOne(n, f.F.data(), n, f.piv.data(), x1.data());
  for (int32_t c = 0; c < nrhs; c++)
    for (int32_t i = 0; i < n; i++) {
      double s = 0.0;
      for (int32_t k = 0; k < n; k++) s += A(i, k) * X[k + (size_t)c * n];
      EXPECT_NEAR(B[i + (size_t)c * n], s, 1e-9);
    }
  for (int32_t i = 0; i < n; i++) EXPECT_NEAR(X[i], x1[i], 1e-9);

  // The unblocked form, which factors a diagonal block alone.
  Dense A11 = randomSymmetric(60, 21, 1e-2), F11 = A11;
  IntVec piv(60);
  int32_t perturbed = 0;
  DenseLDLNonBlock(kTol, 60, F11.a.data(), 60, piv.data(), &perturbed);
  EXPECT_EQ(0, perturbed);
  EXPECT_LT(maxDiff(reconstruct(60, 60, F11.a, 60, piv, Dense()), A11), 1e-9);

  // SolveLD on the rows below a panel reproduces the panel's L21 and W21.
  const int32_t m = 90, w = 60, rows = m - w;
  Dense Am = randomSymmetric(m, 21, 1e-2);
  DenseFactor g = denseFactor(Am, w);
  Vec G11((size_t)w * w), L21((size_t)rows * w), W21((size_t)rows * w);
  for (int32_t j = 0; j < w; j++) {
    for (int32_t i = 0; i < w; i++) G11[i + (size_t)j * w] = g.F[i + (size_t)j * m];
    for (int32_t i = 0; i < rows; i++) L21[i + (size_t)j * rows] = Am(w + i, j);
  }
  SolveLD(rows, w, G11.data(), w, g.piv.data(), L21.data(), rows, W21.data(), rows);
  for (int32_t j = 0; j < w; j++)
    for (int32_t i = 0; i < rows; i++) {
      EXPECT_NEAR(g.F[w + i + (size_t)j * m], L21[i + (size_t)j * rows], 1e-8);
      EXPECT_NEAR(g.W[w + i + (size_t)j * m], W21[i + (size_t)j * rows], 1e-8);
    }
}

// ---- sparse helpers ----------------------------------------------------------------

struct Sparse {
  int32_t n = 0;
  IntVec colBegin, rowIndex;
  Vec value;
};

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

Sparse gridLaplacian(int32_t k, double shift = 0.0) {
  std::vector<std::tuple<int32_t, int32_t, double>> t;
  for (int32_t y = 0; y < k; y++)
    for (int32_t x = 0; x < k; x++) {
      int32_t v = y * k + x;
      t.push_back({v, v, 4.0 + shift});
      if (x + 1 < k) t.push_back({v + 1, v, -1.0});
      if (y + 1 < k) t.push_back({v + k, v, -1.0});
    }
  return fromLower(k * k, t);
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
  // Analyse, factor, solve for a known solution; returns the backward error.
  double roundTrip(const Sparse& s, uint32_t seed, int32_t* solveStatus = nullptr) {
    EXPECT_EQ(0, analyze(s));
    EXPECT_EQ(0, factor(s));
    return solveAgain(s, seed, solveStatus);
  }
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

TEST_F(LANumericSparse, SolvesQuasiDefiniteAndIndefiniteMatrices) {
  ASSERT_EQ(0, LA_SetIntParam(env, LA_PARAM_COLLECT_INERTIA, 1));
  // Without a constraint diagonal pivots come in pairs or are replaced, and
  // refinement finds the solution anyway.  -1: inertia not known.
  struct Case { const char* name; Sparse s; double tol; int32_t positive, negative; };
  const Case cases[] = {
      {"grid", gridLaplacian(20), 1e-14, 400, 0},
      {"quasi-definite kkt", randomKKT(80, 50, 4, 1e-6, true), 1e-14, 80, 50},
      {"kkt without a constraint diagonal", randomKKT(60, 40, 5, 0.0, false), 1e-13, 60, 40},
      {"indefinite", randomIndefinite(150, 6, 0.03), 1e-13, -1, -1},
  };
  uint32_t seed = 1;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_LT(roundTrip(c.s, seed++), c.tol);
    EXPECT_EQ(c.s.n, env->numPositivePivots + env->numNegativePivots);
    if (c.positive < 0) continue;
    EXPECT_EQ(c.positive, env->numPositivePivots);
    EXPECT_EQ(c.negative, env->numNegativePivots);
    if (c.negative == 0) {
      EXPECT_GT(env->pivotRatio, 0.0);
      EXPECT_LE(env->pivotRatio, 1.0);
    }
  }
}

// Splits entries of the lower triangle of s into parts: every third
// off-diagonal into two, every seventh into three, every fourth diagonal
// into two; both triangles stored, and each column shuffled so that the
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
  Sparse d = fromLower(s.n, t);
  std::mt19937 rng(seed);
  for (int32_t j = 0; j < d.n; j++) {
    std::vector<std::pair<int32_t, double>> col;
    for (int32_t k = d.colBegin[j]; k < d.colBegin[j + 1]; k++)
      col.push_back({d.rowIndex[k], d.value[k]});
    std::shuffle(col.begin(), col.end(), rng);
    for (size_t q = 0; q < col.size(); q++) {
      d.rowIndex[d.colBegin[j] + q] = col[q].first;
      d.value[d.colBegin[j] + q] = col[q].second;
    }
  }
  return d;
}

TEST_F(LANumericSparse, ModeOneTakesTheMatrixInAnalysisOrder) {
  Sparse whole = gridLaplacian(6), dup = splitIntoParts(whole, 1);
  ASSERT_EQ(0, analyze(dup));
  ASSERT_EQ(0, factor(dup));
  ASSERT_EQ(0, LA_SetIntParam(env, LA_PARAM_MAX_REFINE, 0));
  Vec x(whole.n, 1.0);
  ASSERT_EQ(0, solve(dup, x));
  Vec ax = multiply(whole, x);
  for (int32_t i = 0; i < whole.n; i++) EXPECT_NEAR(1.0, ax[i], 1e-12);

  // The same entries, repeats included, permuted by the plan.
  std::vector<std::tuple<int32_t, int32_t, double>> tp;
  for (int32_t j = 0; j < dup.n; j++)
    for (int32_t k = dup.colBegin[j]; k < dup.colBegin[j + 1]; k++) {
      int32_t a = sym->invPerm[dup.rowIndex[k]], c = sym->invPerm[j];
      if (a >= c) tp.push_back({a, c, dup.value[k]});
    }
  Sparse permuted = fromLower(whole.n, tp);
  ASSERT_EQ(0, factor(permuted, 1));
  Vec y(whole.n, 1.0);
  ASSERT_EQ(0, solve(permuted, y, 1));
  for (int32_t i = 0; i < whole.n; i++) EXPECT_NEAR(x[sym->perm[i]], y[i], 1e-12);
}

TEST_F(LANumericSparse, RepeatedOffDiagonalEntriesAddUp) {
  ASSERT_EQ(0, LA_SetIntParam(env, LA_PARAM_COLLECT_INERTIA, 1));
  struct Case {
    const char* name;
    Sparse whole;
    int32_t threads, positive, negative;
  };
  Dense A = randomSymmetric(420, 31, 1e-2);
  std::vector<Case> cases = {
      {"quasi-definite kkt", randomKKT(80, 40, 13, 1e-6, true), 1, 80, 40},
      {"kkt without a constraint diagonal", randomKKT(80, 30, 14, 0.0, false), 1, 80, 30},
      {"dense, threaded", denseSparse(A), 4, -1, -1},
  };
  uint32_t seed = 40;
  int32_t unrefined = 0;
  for (Case& c : cases) {
    SCOPED_TRACE(c.name);
    Sparse parts = splitIntoParts(c.whole, seed++);
    ASSERT_GT(parts.colBegin[parts.n], c.whole.colBegin[c.whole.n]);
    ASSERT_EQ(0, LA_SetIntParam(env, LA_PARAM_NUM_THREADS, 1));
    if (c.positive < 0) {  // the threaded factor has the sequential one's inertia
      ASSERT_EQ(0, analyze(parts));
      ASSERT_EQ(0, sym->threaded);
      ASSERT_EQ(0, factor(parts));
      c.positive = env->numPositivePivots;
      c.negative = env->numNegativePivots;
      EXPECT_EQ(c.whole.n, c.positive + c.negative);
    }
    ASSERT_EQ(0, LA_SetIntParam(env, LA_PARAM_NUM_THREADS, c.threads));
    ASSERT_EQ(0, LA_SetIntParam(env, LA_PARAM_MAX_REFINE, 64));
    ASSERT_EQ(0, analyze(parts));
    EXPECT_EQ(c.threads > 1 ? 1 : 0, sym->threaded);
    ASSERT_EQ(0, factor(parts));
    EXPECT_EQ(c.positive, env->numPositivePivots);
    EXPECT_EQ(c.negative, env->numNegativePivots);

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
    // Refinement multiplies with the parts as they stand, so it must agree
    // with the summed matrix too.
    Vec x = b;
    int32_t status = solve(parts, x);
    EXPECT_TRUE(status == 0 || status == 6 || status == 7) << status;
    EXPECT_LT(residual(x), 1e-14);
    // Without refinement the factor alone answers for the sums, where the
    // pivots were not replaced.
    if (sym->numPerturbed == 0) {
      unrefined++;
      ASSERT_EQ(0, LA_SetIntParam(env, LA_PARAM_MAX_REFINE, 0));
      Vec y = b;
      ASSERT_EQ(0, solve(parts, y));
      EXPECT_LT(residual(y), 1e-12);
    }
  }
  EXPECT_GE(unrefined, 2);
}

TEST_F(LANumericSparse, RefactorsNewValuesOnTheSameAnalysis) {
  Sparse s = randomKKT(70, 30, 8, 1e-4, true);
  ASSERT_EQ(0, analyze(s));
  for (int32_t round = 0; round < 4; round++) {
    // Values as an interior-point loop makes them: diagonals drift apart.
    Sparse v = s;
    std::mt19937 rng(round);
    std::uniform_real_distribution<double> u(-3.0, 3.0);
    for (int32_t j = 0; j < v.n; j++)
      for (int32_t k = v.colBegin[j]; k < v.colBegin[j + 1]; k++)
        if (v.rowIndex[k] == j) v.value[k] *= std::pow(10.0, round * u(rng));
    ASSERT_EQ(0, factor(v));
    EXPECT_LT(solveAgain(v, round), 1e-13) << "round " << round;
  }
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

TEST_F(LANumericSparse, ReplacedPivotsForceRefinement) {
  // A singular KKT matrix (two equal constraint rows) has a pivot that is
  // replaced; refinement still solves a consistent system.
  std::vector<std::tuple<int32_t, int32_t, double>> t = {
      {0, 0, 2.0}, {1, 1, 3.0}, {2, 2, 1.0}, {3, 0, 1.0}, {3, 1, 1.0}, {4, 0, 1.0}, {4, 1, 1.0},
      {4, 2, 0.0}};
  Sparse s = fromLower(5, t);
  ASSERT_EQ(0, analyze(s));
  ASSERT_EQ(0, factor(s));
  EXPECT_GE(sym->numPerturbed, 1);
  ASSERT_EQ(0, LA_SetIntParam(env, LA_PARAM_MAX_REFINE, 0));
  for (int32_t fg : {1, 0}) {
    ASSERT_EQ(0, LA_SetIntParam(env, LA_PARAM_USE_FGMRES, fg));
    Vec xTrue = {1.0, -2.0, 0.5, 0.0, 0.0};
    Vec b = multiply(s, xTrue), x = b, res(5);
    int32_t status = solve(s, x);
    EXPECT_TRUE(status == 0 || status == 6 || status == 7);
    EXPECT_LT(LA_CalculateInfNormResidual(5, s.colBegin.data(), s.rowIndex.data(),
                                          s.value.data(), x.data(), b.data(), res.data()),
              1e-9)
        << "fgmres " << fg;
  }
}

TEST_F(LANumericSparse, BadInputOverflowAndUnknownSchemesAreStatuses) {
  Sparse s = gridLaplacian(4);
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

  // FGMRES with an orthogonalisation scheme it does not know.
  Sparse r = randomIndefinite(30, 2, 0.1);
  ASSERT_EQ(0, analyze(r));
  ASSERT_EQ(0, factor(r));
  Vec b(r.n, 1.0), z = b, scratch(3 * r.n + 8);
  ASSERT_EQ(0, ldl_solve(0, z.data(), sym, scratch.data()));
  z[0] += 1e-3;  // far enough from the solution to need a step
  double result = -1.0;
  EXPECT_EQ(2, FGMRES(1e-16, 0.3, r.n, r.colBegin.data(), r.rowIndex.data(), r.value.data(),
                      b.data(), 0, 10, 4, 16, 0, 3, env, sym, ldl_solve, &result, z.data(),
                      scratch.data()));
  EXPECT_GT(result, 0.0);
}

TEST_F(LANumericSparse, OutOfMemoryReturnsOneAndLeaksNothing) {
  // Threaded plans take work for the run; FGMRES takes its saved copy and,
  // on small plans, its Krylov space.
  Dense A = randomSymmetric(420, 3, 1.0);
  for (const Sparse& s : {denseSparse(A), randomKKT(30, 20, 2, 1e-8, true)}) {
    ASSERT_EQ(0, LA_SetIntParam(env, LA_PARAM_NUM_THREADS, s.n > 100 ? 4 : 1));
    ASSERT_EQ(0, analyze(s));
    int64_t base = host.poolStats(pool).liveBlocks;
    int32_t refusals = 0;
    for (int64_t k = 0; k < 4; k++) {
      host.failAllocation(k);
      int64_t refusedBefore = host.poolStats(pool).refused;
      int32_t fs = factor(s);
      Vec x(s.n, 1.0);
      x[1] = 2.0;
      const Vec x0 = x;
      int32_t ss = fs == 0 ? solve(s, x) : -1;
      bool refused = host.poolStats(pool).refused > refusedBefore;
      host.clearFailures();
      EXPECT_EQ(base, host.poolStats(pool).liveBlocks) << "allocation " << k;
      if (!refused) break;
      refusals++;
      if (fs != 0) {
        EXPECT_EQ(1, fs);
      } else {
        EXPECT_TRUE(ss == 1 || ss == 6 || ss == 7) << ss;
        // Refused before the first solve: the caller's vector is untouched.
        if (ss == 1 && k == (sym->threaded ? 1 : 0)) {
          EXPECT_EQ(x0, x);
        }
      }
    }
    EXPECT_GE(refusals, 1);
  }
}

}  // namespace
