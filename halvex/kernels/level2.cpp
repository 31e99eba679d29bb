// Level-2 kernels.  Matrix-vector products take the columns of A four at a
// time, so that y is swept once per four columns while the four factors of
// x stay in registers; the row loops are plain and vectorised by the
// compiler.
#include "kernels/cpu.h"
#include "kernels/kernels.h"
#include "kernels/vec.h"

// The plain row loops are compiled once per instruction set and picked when
// the library loads: AVX2 with FMA, AVX-512, or the baseline.  Not under the
// thread sanitizer, whose instrumented resolvers would run before it starts.
#if defined(__SANITIZE_THREAD__)
#define HXK_CLONES
#else
#define HXK_CLONES __attribute__((target_clones(HXK_CLONE_AVX2, "avx512f", "default")))
#endif

namespace {

inline size_t at(int i, int j, int ld) { return (size_t)i + (size_t)j * (size_t)ld; }

// y[i*incy] += sign * sum_j A(i, j) x[j*incx], columns from j0 on.
HXK_CLONES void gemvN(bool kMinus, int m, int n, const double* A, int lda, const double* x,
                      int incx, double* y, int incy, int j0) {
  if (m <= 0) return;
  int j = j0;
  for (; j + 4 <= n; j += 4) {
    double x0 = x[(size_t)j * incx], x1 = x[(size_t)(j + 1) * incx],
           x2 = x[(size_t)(j + 2) * incx], x3 = x[(size_t)(j + 3) * incx];
    if (kMinus) {
      x0 = -x0;
      x1 = -x1;
      x2 = -x2;
      x3 = -x3;
    }
    const double* a0 = A + at(0, j, lda);
    const double* a1 = a0 + lda;
    const double* a2 = a1 + lda;
    const double* a3 = a2 + lda;
    if (incy == 1) {
      for (int i = 0; i < m; ++i) y[i] += a0[i] * x0 + a1[i] * x1 + a2[i] * x2 + a3[i] * x3;
    } else {
      for (int i = 0, iy = 0; i < m; ++i, iy += incy)
        y[iy] += a0[i] * x0 + a1[i] * x1 + a2[i] * x2 + a3[i] * x3;
    }
  }
  for (; j < n; ++j) {
    const double xj = kMinus ? -x[(size_t)j * incx] : x[(size_t)j * incx];
    const double* a0 = A + at(0, j, lda);
    for (int i = 0, iy = 0; i < m; ++i, iy += incy) y[iy] += a0[i] * xj;
  }
}

// Dot products of four columns of A with x at once.
inline void dot4(const double* a0, int lda, const double* x, int incx, int m, double* s) {
  const double* a1 = a0 + lda;
  const double* a2 = a1 + lda;
  const double* a3 = a2 + lda;
  if (incx == 1) {
    hxk::v2d t0 = {0, 0}, t1 = t0, t2 = t0, t3 = t0;
    int i = 0;
    for (; i + 2 <= m; i += 2) {
      const hxk::v2d xv = hxk::load2(x + i);
      t0 += hxk::load2(a0 + i) * xv;
      t1 += hxk::load2(a1 + i) * xv;
      t2 += hxk::load2(a2 + i) * xv;
      t3 += hxk::load2(a3 + i) * xv;
    }
    s[0] = t0[0] + t0[1];
    s[1] = t1[0] + t1[1];
    s[2] = t2[0] + t2[1];
    s[3] = t3[0] + t3[1];
    if (i < m) {
      s[0] += a0[i] * x[i];
      s[1] += a1[i] * x[i];
      s[2] += a2[i] * x[i];
      s[3] += a3[i] * x[i];
    }
    return;
  }
  s[0] = s[1] = s[2] = s[3] = 0.0;
  for (int i = 0, ix = 0; i < m; ++i, ix += incx) {
    s[0] += a0[i] * x[ix];
    s[1] += a1[i] * x[ix];
    s[2] += a2[i] * x[ix];
    s[3] += a3[i] * x[ix];
  }
}

inline double dot1(const double* a, const double* x, int incx, int m) {
  if (incx == 1) return hxk::dotUnit(a, x, m);
  double s = 0.0;
  for (int i = 0, ix = 0; i < m; ++i, ix += incx) s += a[i] * x[ix];
  return s;
}

// y[j*incy] (op)= A(:, j)^T x; kind 0 stores, 1 adds, -1 subtracts.
void gemvT(int m, int n, const double* A, int lda, const double* x, int incx, double* y,
           int incy, int kind) {
  int j = 0;
  double s[4];
  for (; j + 4 <= n; j += 4) {
    dot4(A + at(0, j, lda), lda, x, incx, m, s);
    for (int c = 0; c < 4; ++c) {
      double& t = y[(size_t)(j + c) * incy];
      t = kind == 0 ? s[c] : (kind > 0 ? t + s[c] : t - s[c]);
    }
  }
  for (; j < n; ++j) {
    const double d = dot1(A + at(0, j, lda), x, incx, m);
    double& t = y[(size_t)j * incy];
    t = kind == 0 ? d : (kind > 0 ? t + d : t - d);
  }
}

// y := beta y at unit stride; beta 0 clears without reading y.
void scaleY(int len, double beta, double* y) {
  if (beta == 1.0) return;
  if (beta == 0.0) {
    for (int i = 0; i < len; ++i) y[i] = 0.0;
  } else {
    for (int i = 0; i < len; ++i) y[i] *= beta;
  }
}

}  // namespace

// Always subtracts at unit strides whatever alpha, incx and incy say: the
// callers need nothing else.
HALVEX_EXPORT void my_dgemv(MY_DGEMV_ARGS) {
  const int len = *trans == 'T' ? *n : *m;
  scaleY(len, *beta, y);
  if (*trans == 'N')
    my_dgemv_n_1m1_one(trans, m, n, alpha, A, lda, x, incx, beta, y, incy);
  else
    my_dgemv_t_1m1_one(trans, m, n, alpha, A, lda, x, incx, beta, y, incy);
}

HALVEX_EXPORT void my_dgemv_n_1m1_one(MY_DGEMV_ARGS) {
  (void)trans, (void)alpha, (void)beta, (void)incx, (void)incy;
  gemvN(true, *m, *n, A, *lda, x, 1, y, 1, 0);
}

HALVEX_EXPORT void my_dgemv_n_1m1_yone(MY_DGEMV_ARGS) {
  (void)trans, (void)alpha, (void)beta, (void)incy;
  gemvN(true, *m, *n, A, *lda, x, *incx, y, 1, 0);
}

HALVEX_EXPORT void my_dgemv_n_0p1_yone(MY_DGEMV_ARGS) {
  (void)trans, (void)alpha, (void)beta, (void)incy;
  const int rows = *m;
  if (rows <= 0 || *n <= 0) return;
  // The first column stores, so y needs no clearing beforehand.
  const double x0 = x[0];
  for (int i = 0; i < rows; ++i) y[i] = A[i] * x0;
  gemvN(false, rows, *n, A, *lda, x, *incx, y, 1, 1);
}

HALVEX_EXPORT void my_dgemv_n_1p1_one(MY_DGEMV_ARGS) {
  (void)trans, (void)alpha, (void)beta, (void)incx, (void)incy;
  gemvN(false, *m, *n, A, *lda, x, 1, y, 1, 0);
}

HALVEX_EXPORT void my_dgemv_t_1m1_one(MY_DGEMV_ARGS) {
  (void)trans, (void)alpha, (void)beta, (void)incx, (void)incy;
  gemvT(*m, *n, A, *lda, x, 1, y, 1, -1);
}

HALVEX_EXPORT void my_dgemv_t_1m1_xone(MY_DGEMV_ARGS) {
  (void)trans, (void)alpha, (void)beta, (void)incx;
  gemvT(*m, *n, A, *lda, x, 1, y, *incy, -1);
}

HALVEX_EXPORT void my_dgemv_t_0p1_one(MY_DGEMV_ARGS) {
  (void)trans, (void)alpha, (void)beta, (void)incx, (void)incy;
  gemvT(*m, *n, A, *lda, x, 1, y, 1, 0);
}

namespace {
// A(:, j) += f_j x for the columns, f_j = scale * y[j*incy], four at a time.
HXK_CLONES void rank1(int m, int n, double scale, const double* x, const double* y, int incy,
                      double* A, int lda) {
  if (m <= 0) return;
  int j = 0;
  for (; j + 4 <= n; j += 4) {
    const double f0 = scale * y[(size_t)j * incy], f1 = scale * y[(size_t)(j + 1) * incy],
                 f2 = scale * y[(size_t)(j + 2) * incy], f3 = scale * y[(size_t)(j + 3) * incy];
    double* a0 = A + at(0, j, lda);
    double* a1 = a0 + lda;
    double* a2 = a1 + lda;
    double* a3 = a2 + lda;
    for (int i = 0; i < m; ++i) {
      const double xi = x[i];
      a0[i] += xi * f0;
      a1[i] += xi * f1;
      a2[i] += xi * f2;
      a3[i] += xi * f3;
    }
  }
  for (; j < n; ++j) {
    const double f = scale * y[(size_t)j * incy];
    double* a0 = A + at(0, j, lda);
    for (int i = 0; i < m; ++i) a0[i] += x[i] * f;
  }
}
}  // namespace

HALVEX_EXPORT void my_dger(const int* m, const int* n, const double* alpha, const double* x,
                           const int* incx, const double* y, const int* incy, double* A,
                           const int* lda) {
  (void)incx, (void)incy;
  if (*m == 0) return;
  rank1(*m, *n, *alpha, x, y, 1, A, *lda);
}

HALVEX_EXPORT void my_dger_xone(const int* m, const int* n, const double* alpha, const double* x,
                                const int* incx, const double* y, const int* incy, double* A,
                                const int* lda) {
  (void)alpha, (void)incx;
  rank1(*m, *n, -1.0, x, y, *incy, A, *lda);
}

HALVEX_EXPORT void my_dger2_one(int m, int n, const double* x1, const double* x2,
                                const double* y1, const double* y2, double* A, int lda) {
  if (m <= 0) return;
  int j = 0;
  for (; j + 4 <= n; j += 4) {
    double* a[4] = {A + at(0, j, lda), A + at(0, j + 1, lda), A + at(0, j + 2, lda),
                    A + at(0, j + 3, lda)};
    const double p0 = y1[j], p1 = y1[j + 1], p2 = y1[j + 2], p3 = y1[j + 3];
    const double q0 = y2[j], q1 = y2[j + 1], q2 = y2[j + 2], q3 = y2[j + 3];
    for (int i = 0; i < m; ++i) {
      const double u = x1[i], v = x2[i];
      a[0][i] -= u * p0 + v * q0;
      a[1][i] -= u * p1 + v * q1;
      a[2][i] -= u * p2 + v * q2;
      a[3][i] -= u * p3 + v * q3;
    }
  }
  for (; j < n; ++j) {
    double* a0 = A + at(0, j, lda);
    for (int i = 0; i < m; ++i) a0[i] -= x1[i] * y1[j] + x2[i] * y2[j];
  }
}

namespace {
// Lower triangle of A -= x d^T with d = alpha x; with kStore, x := d on the
// way.  Each group of four columns does its 4 by 4 corner first, on the
// unscaled x of the group, then the rows below in one pass.
HXK_CLONES void syrLower(bool kStore, double alpha, int n, double* x, double* A, int lda) {
  int j = 0;
  for (; j + 4 <= n; j += 4) {
    double d[4];
    for (int c = 0; c < 4; ++c) d[c] = alpha * x[j + c];
    for (int c = 0; c < 4; ++c)
      for (int r = c; r < 4; ++r) A[at(j + r, j + c, lda)] -= x[j + r] * d[c];
    if (kStore)
      for (int c = 0; c < 4; ++c) x[j + c] = d[c];
    double* a0 = A + at(0, j, lda);
    double* a1 = a0 + lda;
    double* a2 = a1 + lda;
    double* a3 = a2 + lda;
    for (int i = j + 4; i < n; ++i) {
      const double xi = x[i];
      a0[i] -= xi * d[0];
      a1[i] -= xi * d[1];
      a2[i] -= xi * d[2];
      a3[i] -= xi * d[3];
    }
  }
  for (; j < n; ++j) {
    const double d = alpha * x[j];
    double* a0 = A + at(0, j, lda);
    a0[j] -= x[j] * d;
    if (kStore) x[j] = d;
    for (int i = j + 1; i < n; ++i) a0[i] -= x[i] * d;
  }
}
}  // namespace

HALVEX_EXPORT void my_dsyr(int n, const double* x, double* A, int lda) {
  syrLower(false, 1.0, n, const_cast<double*>(x), A, lda);
}

HALVEX_EXPORT void my_dsyr_dscal(double alpha, int n, double* x, double* A, int lda) {
  syrLower(true, alpha, n, x, A, lda);
}

namespace {
// y := beta y + alpha A x with A symmetric, its lower triangle given column
// by column through colStart(j) (the address of A(j, j)).
template <typename ColStart>
void symvLower(int n, double alpha, ColStart colStart, const double* x, double beta, double* y) {
  if (n <= 0) return;
  scaleY(n, beta, y);
  if (alpha == 0.0) return;
  for (int j = 0; j < n; ++j) {
    const double* col = colStart(j);  // col[i - j] = A(i, j)
    const double t = alpha * x[j];
    double s = col[0] * x[j];
    for (int i = j + 1; i < n; ++i) {
      y[i] += col[i - j] * t;
      s += col[i - j] * x[i];
    }
    y[j] += alpha * s;
  }
}
}  // namespace

HALVEX_EXPORT void my_dsymv(const char* uplo, const int* n, const double* alpha, const double* A,
                            const int* lda, const double* x, const int* incx, const double* beta,
                            double* y, const int* incy) {
  (void)uplo, (void)incx, (void)incy;
  const int ld = *lda;
  symvLower(*n, *alpha, [&](int j) { return A + at(j, j, ld); }, x, *beta, y);
}

HALVEX_EXPORT void my_dspmv(const char* uplo, const int* n, const double* alpha, const double* AP,
                            const double* x, const int* incx, const double* beta, double* y,
                            const int* incy) {
  (void)uplo, (void)incx, (void)incy;
  const int64_t nn = *n;
  // Packed lower columns: column j holds A(j..n-1, j) and starts after the
  // n + (n-1) + ... + (n-j+1) entries of the columns before it.
  symvLower(*n, *alpha, [&](int j) { return AP + (j * (2 * nn - j + 1)) / 2; }, x, *beta, y);
}

// Lower triangle, 'N': forward, four rows at a time; the rest by a plain
// loop.  Otherwise L^T x, backward in groups of four from the end.
HALVEX_EXPORT void my_dtrsv_ln(MY_DTRSV_ARGS) {
  (void)uplo, (void)diag, (void)incx;
  const int nn = *n, ld = *lda;
  if (nn <= 0) return;
  if (*trans == 'N') {
    int j = 0;
    for (; j + 4 <= nn; j += 4) {
      double v[4];
      for (int r = 0; r < 4; ++r) {
        double s = x[j + r];
        for (int c = 0; c < r; ++c) s -= A[at(j + r, j + c, ld)] * v[c];
        v[r] = s / A[at(j + r, j + r, ld)];
        x[j + r] = v[r];
      }
      const double* a0 = A + at(0, j, ld);
      const double* a1 = a0 + ld;
      const double* a2 = a1 + ld;
      const double* a3 = a2 + ld;
      for (int i = j + 4; i < nn; ++i)
        x[i] -= a0[i] * v[0] + a1[i] * v[1] + a2[i] * v[2] + a3[i] * v[3];
    }
    for (; j < nn; ++j) {
      x[j] /= A[at(j, j, ld)];
      for (int i = j + 1; i < nn; ++i) x[i] -= A[at(i, j, ld)] * x[j];
    }
    return;
  }
  int end = nn;  // x[end..nn) is solved
  const int lead = nn % 4;
  for (; end > lead; end -= 4) {
    const int j = end - 4;
    double s[4];
    dot4(A + at(end, j, ld), ld, x + end, 1, nn - end, s);
    for (int r = 3; r >= 0; --r) {
      double t = x[j + r] - s[r];
      for (int c = r + 1; c < 4; ++c) t -= A[at(j + c, j + r, ld)] * x[j + c];
      x[j + r] = t / A[at(j + r, j + r, ld)];
    }
  }
  for (int j = end - 1; j >= 0; --j) {
    const double t = x[j] - hxk::dotUnit(A + at(j + 1, j, ld), x + j + 1, nn - j - 1);
    x[j] = t / A[at(j, j, ld)];
  }
}

HALVEX_EXPORT void my_dtrsv_unn(MY_DTRSV_ARGS) {
  (void)uplo, (void)trans, (void)diag, (void)incx;
  const int ld = *lda;
  for (int j = *n - 1; j >= 0; --j) {
    const double* col = A + at(0, j, ld);
    const double xj = x[j] / col[j];
    x[j] = xj;
    for (int i = 0; i < j; ++i) x[i] -= xj * col[i];
  }
}

HALVEX_EXPORT void my_dtrsv_utn(MY_DTRSV_ARGS) {
  (void)uplo, (void)trans, (void)diag, (void)incx;
  const int ld = *lda;
  for (int j = 0; j < *n; ++j) {
    const double* col = A + at(0, j, ld);
    x[j] = (x[j] - hxk::dotUnit(col, x, j)) / col[j];
  }
}

HALVEX_EXPORT void my_dtrsv(MY_DTRSV_ARGS) {
  if (*uplo == 'L')
    my_dtrsv_ln(uplo, trans, diag, n, A, lda, x, incx);
  else if (*trans != 'N')
    my_dtrsv_utn(uplo, trans, diag, n, A, lda, x, incx);
  else
    my_dtrsv_unn(uplo, trans, diag, n, A, lda, x, incx);
}
