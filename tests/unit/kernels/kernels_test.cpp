// The dense kernels against plain reference loops: random shapes around the
// block size, zero sizes, padded leading dimensions (whose padding must be
// neither read nor written), and every sign and scaling variant.
#include <gtest/gtest.h>
#include <math.h>

#include <cstring>
#include <functional>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "kernels/kernels.h"
#include "kernels/panel.h"

namespace {

const double kNaN = std::numeric_limits<double>::quiet_NaN();
const double kGuard = 12345.0;  // in output padding: must survive

struct Mat {
  int rows = 0, cols = 0, ld = 1;
  std::vector<double> v;
  // Entries uniform in [-1, 1]; the padding rows hold `pad`.
  Mat(int r, int c, int extra, std::mt19937& rng, double pad) : rows(r), cols(c) {
    ld = r + extra > 0 ? r + extra : 1;
    v.assign((size_t)ld * (c > 0 ? c : 1), pad);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    for (int j = 0; j < c; ++j)
      for (int i = 0; i < r; ++i) (*this)(i, j) = u(rng);
  }
  double& operator()(int i, int j) { return v[(size_t)i + (size_t)j * ld]; }
  double operator()(int i, int j) const { return v[(size_t)i + (size_t)j * ld]; }
  double* p() { return v.data(); }
};

// A well-conditioned triangle: unit-ish off-diagonal, a large diagonal.  The
// other triangle is NaN, so any use of it shows.
Mat triangular(int n, bool lower, std::mt19937& rng) {
  Mat a(n, n, 2, rng, kNaN);
  for (int j = 0; j < n; ++j)
    for (int i = 0; i < n; ++i) {
      if (i == j) a(i, j) = 2.0 + fabs(a(i, j));
      else if ((i > j) != lower) a(i, j) = kNaN;
      else a(i, j) *= 0.5;
    }
  return a;
}

// Largest difference over the rows x cols part, scaled by the size of ref.
double relDiff(const Mat& got, const Mat& ref) {
  double d = 0.0, s = 1.0;
  for (int j = 0; j < ref.cols; ++j)
    for (int i = 0; i < ref.rows; ++i) {
      s = fmax(s, fabs(ref(i, j)));
      const double e = fabs(got(i, j) - ref(i, j));
      d = (e == e) ? fmax(d, e) : INFINITY;
    }
  return d / s;
}

// Padding rows of an output matrix still hold the guard.
bool paddingIntact(const Mat& m) {
  for (int j = 0; j < m.cols; ++j)
    for (int i = m.rows; i < m.ld; ++i)
      if (m(i, j) != kGuard) return false;
  return true;
}

// NaN-filled so that reading past what was packed spoils the result.
struct Buffers {
  std::vector<double> a, b;
  explicit Buffers(int cols) : a(96 * 96, kNaN), b(96 * (size_t)(cols > 1 ? cols : 1), kNaN) {}
};

// ---- panel product -------------------------------------------------------------

using PanelFn = void (*)(double*, int, const double*, const double*, int, int, int, bool,
                         hxk::PanelShape);

// A copy of v whose first element sits `off` doubles past a 32-byte boundary.
const double* place(std::vector<double>& store, const std::vector<double>& v, int off) {
  store.resize(v.size() + 8);
  double* p = store.data();
  while (((uintptr_t)p / sizeof(double)) % 4 != (uintptr_t)off) ++p;
  std::copy(v.begin(), v.end(), p);
  return p;
}

// Panels in caller buffers may start anywhere on an 8-byte boundary.  The
// sums must come out the same to the last bit wherever they start: otherwise
// the same problem, solved twice with the pool laid out differently, takes
// two different paths through the solver.
TEST(KernelDispatch, ClonesRunTheAvx2CopyWhereverTheProcessorHasIt) {
  // Picking a copy by processor model instead of instruction set left every
  // AVX2 processor but one model on the plain copies.
  EXPECT_EQ(hxk::avx2Available() ? 2 : 0, hxk::cloneLevel());
}

TEST(KernelPanel, BothPathsMatchReferenceForAllShapesAndAlignments) {
  std::vector<std::pair<const char*, PanelFn>> paths = {{"portable", hxk::panelUpdatePortable}};
  if (hxk::avx2Available()) paths.push_back({"avx2", hxk::panelUpdateAvx2});
  if (hxk::avx512Available()) paths.push_back({"avx512", hxk::panelUpdateAvx512});
  std::mt19937 rng(1);
  const int dims[][3] = {{0, 4, 4}, {4, 0, 4},   {4, 4, 0},    {1, 1, 1},   {5, 7, 3},   {7, 5, 2},
                         {6, 9, 13}, {96, 96, 96}, {13, 50, 95}, {96, 200, 61}, {3, 26, 97 - 1}};
  std::vector<double> storeA, storeB;
  // The exported kernels, by shape and sign, take the same panels.
  using Kernel = std::function<void(double*, int, const double*, const double*, int, int, int)>;
#define SYRK2K(F) [](double* c, int ld, const double* a, const double* b, int, int n, int k) { \
    F(c, ld, a, b, n, k); }
  const Kernel exported[3][2] = {
      {my_dgemm_kernel_plus, my_dgemm_kernel_minus},
      {SYRK2K(my_dsyrk2_kernel_lower_plus), SYRK2K(my_dsyrk2_kernel_lower_minus)},
      {SYRK2K(my_dsyrk2_kernel_upper_plus), SYRK2K(my_dsyrk2_kernel_upper_minus)}};
  for (auto& path : paths)
    for (auto& d : dims)
      for (int shape = 0; shape < 3; ++shape)
        for (bool minus : {false, true}) {
          int m = d[0], n = d[1], k = d[2];
          if (shape != 0) n = m;  // triangle kernels work on square blocks
          Mat pa(96, m, 0, rng, 0.0), pb(96, n, 0, rng, 0.0);
          for (int r = 0; r < m; ++r)
            for (int q = k; q < 96; ++q) pa(q, r) = kNaN;  // beyond k: never read
          for (int r = 0; r < n; ++r)
            for (int q = k; q < 96; ++q) pb(q, r) = kNaN;
          const Mat c0(m, n, 3, rng, kGuard);
          Mat ref = c0;
          for (int j = 0; j < n; ++j)
            for (int i = 0; i < m; ++i) {
              if ((shape == 1 && i < j) || (shape == 2 && i > j)) continue;
              double s = 0.0;
              for (int q = 0; q < k; ++q) s += pa(q, i) * pb(q, j);
              ref(i, j) += minus ? -s : s;
            }
          SCOPED_TRACE(testing::Message() << path.first << " m " << m << " n " << n << " k " << k
                                        << " shape " << shape << " minus " << minus);
          Mat first = c0;
          exported[shape][minus](first.p(), first.ld, pa.p(), pb.p(), m, n, k);
          EXPECT_LT(relDiff(first, ref), 1e-13) << "exported kernel";
          for (int off = 0; off < 4; ++off) {
            Mat c = c0;
            path.second(c.p(), c.ld, place(storeA, pa.v, off), place(storeB, pb.v, off), m, n, k,
                        minus, (hxk::PanelShape)shape);
            if (off > 0) {
              ASSERT_EQ(0, std::memcmp(first.p(), c.p(), c.v.size() * sizeof(double))) << off;
              continue;
            }
            first = c;
            EXPECT_LT(relDiff(c, ref), 1e-13);
            EXPECT_TRUE(paddingIntact(c));
            // Entries outside the triangle are exactly as before.
            for (int j = 0; j < n; ++j)
              for (int i = 0; i < m; ++i)
                if ((shape == 1 && i < j) || (shape == 2 && i > j)) {
                  ASSERT_EQ(c(i, j), ref(i, j));
                }
          }
        }
}

// ---- matrix products and symmetric updates -------------------------------------

// C := keep C + sign op(A) op(B) over the whole of C or one triangle (tri 1
// lower, 2 upper); a symmetric update has one operand, or two for syrk2.
struct ProductVariant {
  const char* name;
  std::function<void(int, int, int, const Mat&, const Mat&, Mat&, Buffers&)> fn;
  bool ta, tb;
  double keep, sign;
  int tri;
  bool oneOperand;
};

#define GEMM(F) [](int m, int n, int k, const Mat& a, const Mat& b, Mat& c, Buffers& buf) { \
    const double one = 1.0, zero = 0.0;                                                    \
    F("?", "?", &m, &n, &k, &one, a.v.data(), &a.ld, b.v.data(), &b.ld, &zero, c.p(), &c.ld, \
      buf.a.data(), buf.b.data()); }
#define SYRK2(F) [](int n, int, int k, const Mat& a, const Mat& b, Mat& c, Buffers& buf) { \
    F(&n, &k, a.v.data(), &a.ld, b.v.data(), &b.ld, c.p(), &c.ld, buf.a.data(), buf.b.data()); }
#define SYRK(F) [](int n, int, int k, const Mat& a, const Mat&, Mat& c, Buffers& buf) { \
    const double al = 7, be = 7;                                                     \
    F("?", "?", &n, &k, &al, a.v.data(), &a.ld, &be, c.p(), &c.ld, buf.a.data(), buf.b.data()); }

const ProductVariant kProducts[] = {
    {"NN_0p1", GEMM(my_dgemm_NN_0p1), false, false, 0, 1, 0, false},
    {"NN_1m1", GEMM(my_dgemm_NN_1m1), false, false, 1, -1, 0, false},
    {"NT_0p1", GEMM(my_dgemm_NT_0p1), false, true, 0, 1, 0, false},
    {"NT_1m1", GEMM(my_dgemm_NT_1m1), false, true, 1, -1, 0, false},
    {"TN_0p1", GEMM(my_dgemm_TN_0p1), true, false, 0, 1, 0, false},
    {"TN_1p1", GEMM(my_dgemm_TN_1p1), true, false, 1, 1, 0, false},
    {"TN_1m1", GEMM(my_dgemm_TN_1m1), true, false, 1, -1, 0, false},
    {"TT_0p1", GEMM(my_dgemm_TT_0p1), true, true, 0, 1, 0, false},
    {"syrk2_LNT_0p1", SYRK2(my_dsyrk2_LNT_0p1), false, true, 0, 1, 1, false},
    {"syrk2_LNT_1m1", SYRK2(my_dsyrk2_LNT_1m1), false, true, 1, -1, 1, false},
    {"syrk2_UNT_0p1", SYRK2(my_dsyrk2_UNT_0p1), false, true, 0, 1, 2, false},
    {"syrk2_UNT_1m1", SYRK2(my_dsyrk2_UNT_1m1), false, true, 1, -1, 2, false},
    {"syrk_LN_0p1", SYRK(my_dsyrk_LN_0p1), false, true, 0, 1, 1, true},
    {"syrk_LN_1m1", SYRK(my_dsyrk_LN_1m1), false, true, 1, -1, 1, true},
    {"syrk_UT_0p1", SYRK(my_dsyrk_UT_0p1), true, false, 0, 1, 2, true},
    {"syrk_UT_1m1", SYRK(my_dsyrk_UT_1m1), true, false, 1, -1, 2, true},
};

// Names the variant in test listings instead of dumping its bytes.
void PrintTo(const ProductVariant& v, std::ostream* os) { *os << v.name; }

class KernelProduct : public ::testing::TestWithParam<ProductVariant> {};

TEST_P(KernelProduct, MatchesReferenceOnRaggedShapesAndKeepsTheOtherTriangle) {
  const ProductVariant& g = GetParam();
  std::mt19937 rng(3);
  const int dims[][3] = {{0, 5, 3},   {5, 0, 3},     {4, 5, 0},      {1, 1, 1},     {7, 5, 3},
                         {96, 96, 96}, {97, 33, 97}, {130, 75, 200}, {50, 201, 96}, {150, 1, 40}};
  for (auto& d : dims) {
    const int m = d[0], n = g.tri ? m : d[1], k = d[2];  // triangles are square
    Mat a = g.ta ? Mat(k, m, 2, rng, kNaN) : Mat(m, k, 2, rng, kNaN);
    Mat b = g.oneOperand ? a : g.tb ? Mat(n, k, 1, rng, kNaN) : Mat(k, n, 1, rng, kNaN);
    Mat c(m, n, 3, rng, kGuard), ref = c;
    for (int j = 0; j < n; ++j)
      for (int i = 0; i < m; ++i) {
        if ((g.tri == 1 && i < j) || (g.tri == 2 && i > j)) continue;
        if (g.keep == 0) c(i, j) = kNaN;  // a cleared C is never read
        double s = 0.0;
        for (int q = 0; q < k; ++q) s += (g.ta ? a(q, i) : a(i, q)) * (g.tb ? b(j, q) : b(q, j));
        ref(i, j) = g.keep * ref(i, j) + g.sign * s;
      }
    Buffers buf(n);
    g.fn(m, n, k, a, b, c, buf);
    SCOPED_TRACE(testing::Message() << g.name << " " << m << " " << n << " " << k);
    EXPECT_LT(relDiff(c, ref), 1e-13);
    EXPECT_TRUE(paddingIntact(c));
    for (int j = 0; j < n; ++j)
      for (int i = 0; i < m; ++i)
        if ((g.tri == 1 && i < j) || (g.tri == 2 && i > j)) { ASSERT_EQ(c(i, j), ref(i, j)); }
  }
}

INSTANTIATE_TEST_SUITE_P(Kernels, KernelProduct, ::testing::ValuesIn(kProducts),
                         [](const auto& info) { return std::string(info.param.name); });

// ---- triangular solves and multiplies ------------------------------------------

using TrxmFn = void (*)(MY_DTRXM_ARGS);
struct TrxmVariant {
  const char* name;
  TrxmFn fn;
  bool left, lower, trans, unit, solve;
  double sign;  // multiplies: B := sign op(A) B or sign B op(A)
};
const TrxmVariant kTrxms[] = {
    {"trsm_LLNN", my_dtrsm_LLNN, true, true, false, false, true, 1},
    {"trsm_LLTN", my_dtrsm_LLTN, true, true, true, false, true, 1},
    {"trsm_LUNN", my_dtrsm_LUNN, true, false, false, false, true, 1},
    {"trsm_LUTN", my_dtrsm_LUTN, true, false, true, false, true, 1},
    {"trsm_RLTN", my_dtrsm_RLTN, false, true, true, false, true, 1},
    {"trmm_RLNU", my_dtrmm_RLNU, false, true, false, true, false, 1},
    {"trmm_RLTU", my_dtrmm_RLTU, false, true, true, true, false, 1},
    {"trmm_RUNN", my_dtrmm_RUNN, false, false, false, false, false, 1},
    {"trmm_LUNN_m1", my_dtrmm_LUNN_m1, true, false, false, false, false, -1},
    // The vector solves, a column at a time; the generic one divides
    // whatever the diagonal flag says.
#define TRSV(F, UPLO, TR, DIAG)                                                              \
  [](const char*, const char*, const char*, const char*, const int* m, const int* n,         \
     const double*, const double* A, const int* lda, double* B, const int* ldb, double*,     \
     double*) {                                                                              \
    for (int j = 0, one = 1; j < *n; ++j)                                                    \
      F(UPLO, TR, DIAG, m, A, lda, B + (size_t)j * *ldb, &one);                              \
  }
    {"trsv_LN", TRSV(my_dtrsv, "L", "N", "U"), true, true, false, false, true, 1},
    {"trsv_LT", TRSV(my_dtrsv, "L", "T", "U"), true, true, true, false, true, 1},
    {"trsv_UN", TRSV(my_dtrsv, "U", "N", "U"), true, false, false, false, true, 1},
    {"trsv_UT", TRSV(my_dtrsv, "U", "T", "U"), true, false, true, false, true, 1},
    {"trsv_ln", TRSV(my_dtrsv_ln, "L", "N", "N"), true, true, false, false, true, 1},
    {"trsv_ln_T", TRSV(my_dtrsv_ln, "L", "T", "N"), true, true, true, false, true, 1},
    {"trsv_utn", TRSV(my_dtrsv_utn, "U", "T", "N"), true, false, true, false, true, 1},
    {"trsv_unn", TRSV(my_dtrsv_unn, "U", "N", "N"), true, false, false, false, true, 1},
};

// op(A)(i, j) of a triangle made by triangular(); a unit diagonal reads 1.
double opA(const Mat& a, const TrxmVariant& t, int i, int j) {
  const int r = t.trans ? j : i, c = t.trans ? i : j;
  if (r == c) return t.unit ? 1.0 : a(r, c);
  return ((r > c) == t.lower) ? a(r, c) : 0.0;
}

// Names the variant in test listings instead of dumping its bytes.
void PrintTo(const TrxmVariant& v, std::ostream* os) { *os << v.name; }

class KernelTrxm : public ::testing::TestWithParam<TrxmVariant> {};

TEST_P(KernelTrxm, MatchesReference) {
  const TrxmVariant& t = GetParam();
  std::mt19937 rng(6);
  const int dims[][2] = {{0, 3}, {3, 0}, {1, 1}, {5, 7}, {96, 10}, {97, 33}, {200, 50}, {33, 200}};
  for (auto& d : dims) {
    const int m = d[0], n = d[1], na = t.left ? m : n;
    Mat a = triangular(na, t.lower, rng);
    if (t.unit)  // the stored diagonal must not be read
      for (int i = 0; i < na; ++i) a(i, i) = kNaN;
    Mat b(m, n, 2, rng, kGuard), x = b;
    // Multiply: ref = sign op(A) B (or B op(A)).  Solve: b := op(A) x for a
    // known x, and the kernel must return x.
    Mat prod = b;
    for (int j = 0; j < n; ++j)
      for (int i = 0; i < m; ++i) {
        double s = 0.0;
        if (t.left)
          for (int q = 0; q < m; ++q) s += opA(a, t, i, q) * x(q, j);
        else
          for (int q = 0; q < n; ++q) s += x(i, q) * opA(a, t, q, j);
        prod(i, j) = t.sign * s;
      }
    Mat in = t.solve ? prod : x, expect = t.solve ? x : prod;
    Buffers buf(t.left ? n : (n > m ? n : m));
    const double alpha = 3.0;
    t.fn("?", "?", "?", "?", &m, &n, &alpha, a.p(), &a.ld, in.p(), &in.ld, buf.a.data(),
         buf.b.data());
    SCOPED_TRACE(testing::Message() << t.name << " m " << m << " n " << n);
    EXPECT_LT(relDiff(in, expect), 1e-12);
    EXPECT_TRUE(paddingIntact(in));
  }
}

INSTANTIATE_TEST_SUITE_P(Kernels, KernelTrxm, ::testing::ValuesIn(kTrxms),
                         [](const auto& info) { return std::string(info.param.name); });

// ---- level 1 -------------------------------------------------------------------

std::vector<double> randomVec(int len, std::mt19937& rng) { return Mat(len, 1, 0, rng, 0.0).v; }

// Lengths around the vector steps, strides 1 to 3, and a start one element
// into the array so that the unit-stride runs begin misaligned.  The _one
// forms are the solver's own, checked by every refined solve and every
// dense interchange.
TEST(KernelLevel1, StridedRoutinesMatchReference) {
  std::mt19937 rng(9);
  for (int n : {0, 1, 7, 8, 33})
    for (int incx : {1, 2, 3})
      for (int incy : {1, 2}) {
        SCOPED_TRACE(testing::Message() << "n " << n << " incx " << incx << " incy " << incy);
        const std::vector<double> x0 = randomVec(1 + n * incx, rng);
        const std::vector<double> y0 = randomVec(1 + n * incy, rng);
        auto X = [&](int i) { return (size_t)(1 + i * incx); };
        auto Y = [&](int i) { return (size_t)(1 + i * incy); };
        double dot = 0, asum = 0, ss = 0;
        // y := y + a x, y := x (and y's entries into x for a swap), x := a x.
        std::vector<double> axpy = y0, copy = y0, swapped = x0, scal = x0;
        for (int i = 0; i < n; ++i) {
          dot += x0[X(i)] * y0[Y(i)];
          asum += fabs(x0[X(i)]);
          ss += x0[X(i)] * x0[X(i)];
          axpy[Y(i)] += 0.5 * x0[X(i)];
          copy[Y(i)] = x0[X(i)];
          swapped[X(i)] = y0[Y(i)];
          scal[X(i)] *= -3.0;
        }
        EXPECT_NEAR(my_ddot(n, x0.data() + 1, incx, y0.data() + 1, incy), dot, 1e-14 * (1 + n));
        EXPECT_NEAR(my_dasum(n, x0.data() + 1, incx), asum, 1e-14 * (1 + n));
        EXPECT_NEAR(my_dnrm2(n, x0.data() + 1, incx), sqrt(ss), 1e-14 * (1 + n));
        std::vector<double> x = x0, y = y0;
        my_daxpy(0.5, n, x.data() + 1, incx, y.data() + 1, incy);
        EXPECT_EQ(axpy, y);
        y = y0;
        my_dswap(n, x.data() + 1, incx, y.data() + 1, incy);
        EXPECT_EQ(copy, y);
        EXPECT_EQ(swapped, x);
        x = x0;
        y = y0;
        my_dcopy(n, x.data() + 1, incx, y.data() + 1, incy);
        EXPECT_EQ(copy, y);
        my_dscal(-3.0, n, x.data() + 1, incx);
        EXPECT_EQ(scal, x);
      }
}

TEST(KernelLevel1, TiesAndExtremes) {
  // idamax is zero-based and takes the first of ties.
  const double zeros[4] = {0, 0, 0, 0}, x[6] = {1, -5, 2, 5, -5, 0}, nan1 = kNaN;
  EXPECT_EQ(my_idamax(4, zeros, 1), 0);
  EXPECT_EQ(my_idamax(6, x, 1), 1);
  EXPECT_EQ(my_idamax(3, x + 1, 2), 0);  // -5, 5, 0
  EXPECT_EQ(my_idamax(2, x + 2, 2), 1);  // 2, -5
  EXPECT_EQ(my_idamax(1, &nan1, 1), 0);
  // nrm2 neither overflows nor underflows.
  const double big[3] = {1e300, 1e300, 0.0}, tiny[2] = {3e-300, 4e-300}, one[1] = {-2.5};
  EXPECT_NEAR(my_dnrm2(3, big, 1) / (sqrt(2.0) * 1e300), 1.0, 1e-15);
  EXPECT_NEAR(my_dnrm2(2, tiny, 1) / 5e-300, 1.0, 1e-15);
  EXPECT_EQ(my_dnrm2(1, one, 1), 2.5);
}

// ---- level 2 -------------------------------------------------------------------

using GemvFn = void (*)(MY_DGEMV_ARGS);
struct GemvVariant {
  const char* name;
  GemvFn fn;
  bool trans;
  double keep, sign;  // y := keep y + sign op(A) x
  bool xStrided, yStrided;
  // 0: alpha and beta ignored; 1: beta taken as keep; 2: beta and alpha
  // taken as keep and sign.
  int scales = 0;
  bool symmetric = false;  // from the lower triangle of a square A
};

#define SYMV_ARGS                                                                          \
  const char*, const int *m, const int*, const double *alpha, const double *A, const int *lda, \
      const double *x, const int *incx, const double *beta, double *y, const int *incy
void symv(SYMV_ARGS) { my_dsymv("L", m, alpha, A, lda, x, incx, beta, y, incy); }
void spmv(SYMV_ARGS) {
  std::vector<double> packed(1);
  for (int j = 0; j < *m; ++j)
    for (int i = j; i < *m; ++i) packed.push_back(A[i + (size_t)j * *lda]);
  my_dspmv("L", m, alpha, packed.data() + 1, x, incx, beta, y, incy);
}

TEST(KernelLevel2, GemvFamilyMatchesReference) {
  const GemvVariant vars[] = {
      {"n_1m1_one", my_dgemv_n_1m1_one, false, 1, -1, false, false},
      {"n_1m1_yone", my_dgemv_n_1m1_yone, false, 1, -1, true, false},
      {"n_0p1_yone", my_dgemv_n_0p1_yone, false, 0, 1, true, false},
      {"n_1p1_one", my_dgemv_n_1p1_one, false, 1, 1, false, false},
      {"t_1m1_one", my_dgemv_t_1m1_one, true, 1, -1, false, false},
      {"t_1m1_xone", my_dgemv_t_1m1_xone, true, 1, -1, false, true},
      {"t_0p1_one", my_dgemv_t_0p1_one, true, 0, 1, false, false},
      {"N_0", my_dgemv, false, 0, -1, false, false, 1},
      {"N_half", my_dgemv, false, 0.5, -1, false, false, 1},
      {"T_1", my_dgemv, true, 1, -1, false, false, 1},
      {"T_half", my_dgemv, true, 0.5, -1, false, false, 1},
      {"symv_b0", symv, false, 0, 1.5, false, false, 2, true},
      {"symv_a0", symv, false, -0.5, 0, false, false, 2, true},
      {"symv", symv, false, 1, 1.5, false, false, 2, true},
      {"spmv_b0", spmv, false, 0, 1.5, false, false, 2, true},
      {"spmv", spmv, false, -0.5, 1.5, false, false, 2, true},
  };
  std::mt19937 rng(10);
  const int dims[][2] = {{1, 1}, {9, 4}, {4, 9}, {37, 23}, {8, 0}};
  for (const auto& g : vars)
    for (auto& d : dims) {
      const int m = d[0], n = g.symmetric ? m : d[1], incx = g.xStrided ? 3 : 1;
      const int incy = g.yStrided ? 2 : 1, lenx = g.trans ? m : n, leny = g.trans ? n : m;
      Mat a(m, n, 5, rng, kNaN);
      if (g.symmetric)  // the upper triangle is not to be read
        for (int j = 0; j < n; ++j)
          for (int i = 0; i < j; ++i) a(i, j) = kNaN;
      std::vector<double> x = randomVec(lenx * incx, rng), y = randomVec(leny * incy, rng);
      std::vector<double> ref = y;
      if (g.keep == 0 && lenx > 0)
        for (int i = 0; i < leny; ++i) y[(size_t)i * incy] = kNaN;  // stored over, never read
      for (int i = 0; i < leny; ++i) {
        double s = 0;
        for (int q = 0; q < lenx; ++q)
          s += (g.trans || (g.symmetric && q > i) ? a(q, i) : a(i, q)) * x[(size_t)q * incx];
        double& r = ref[(size_t)i * incy];
        if (lenx > 0 || g.keep != 0 || g.scales) r = g.keep * r + g.sign * s;
      }
      const double alpha = g.scales == 2 ? g.sign : 2, beta = g.scales ? g.keep : 3;
      g.fn(g.trans ? "T" : "N", &m, &n, &alpha, a.p(), &a.ld, x.data(), &incx, &beta, y.data(),
           &incy);
      for (int i = 0; i < leny; ++i)
        EXPECT_NEAR(y[(size_t)i * incy], ref[(size_t)i * incy], 1e-13 * (1 + lenx))
            << g.name << " " << m << "x" << n << " i=" << i;
    }
}

// The rank updates on an m by n block; the symmetric ones on the lower
// triangle of its leading square, scaling x on the way for dsyr_dscal.
TEST(KernelLevel2, RankUpdatesTouchTheirPartOnly) {
  std::mt19937 rng(12);
  for (int m : {0, 1, 3, 7}) for (int n : {1, 4, 9}) {
    Mat a0(m, n, 2, rng, kGuard);
    const std::vector<double> x1 = randomVec(m, rng), x2 = randomVec(m, rng);
    const std::vector<double> y1 = randomVec(n * 2, rng), y2 = randomVec(n, rng);
    const int incy = 2, unused = 99, k = m < n ? m : n;
    const double alpha = -0.75;
    Mat a = a0, b = a0, c = a0, d = a0, e = a0;
    my_dger(&m, &n, &alpha, x1.data(), &unused, y1.data(), &unused, a.p(), &a.ld);
    my_dger_xone(&m, &n, &alpha, x1.data(), &unused, y1.data(), &incy, b.p(), &b.ld);
    my_dger2_one(m, n, x1.data(), x2.data(), y1.data(), y2.data(), c.p(), c.ld);
    std::vector<double> x = x1;
    my_dsyr(k, x.data(), d.p(), d.ld);
    EXPECT_EQ(x, x1);
    my_dsyr_dscal(0.25, k, x.data(), e.p(), e.ld);
    for (int j = 0; j < n; ++j)
      for (int i = 0; i < m; ++i) {
        EXPECT_NEAR(a(i, j), a0(i, j) + alpha * y1[j] * x1[i], 1e-15);
        EXPECT_NEAR(b(i, j), a0(i, j) - x1[i] * y1[2 * j], 1e-15);
        EXPECT_NEAR(c(i, j), a0(i, j) - x1[i] * y1[j] - x2[i] * y2[j], 1e-15);
        const bool lower = i < k && j < k && i >= j;
        EXPECT_NEAR(d(i, j), a0(i, j) - (lower ? x1[i] * x1[j] : 0.0), lower ? 1e-15 : 0.0);
        EXPECT_NEAR(e(i, j), a0(i, j) - (lower ? 0.25 * x1[i] * x1[j] : 0.0), lower ? 1e-15 : 0.0);
      }
    for (int j = 0; j < k; ++j) EXPECT_DOUBLE_EQ(x[j], 0.25 * x1[j]);
    EXPECT_TRUE(paddingIntact(a) && paddingIntact(b) && paddingIntact(c) && paddingIntact(d) &&
                paddingIntact(e));
  }
}

}  // namespace
