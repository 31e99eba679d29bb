// Triangular solves with the supernodal factor, the solve call with its
// choice of refinement, and the stand-alone residual measure.
#include <immintrin.h>
#include <math.h>
#include <string.h>

#include "kernels/cpu.h"
#include "kernels/kernels.h"
#include "la/la_numeric_internal.h"

namespace {

// The sweeps are compiled once per instruction set and picked when the
// library loads; the helpers are forced inline so that each copy gets them
// compiled for its own set.
#define LA_SWEEP inline __attribute__((always_inline))
#define LA_SWEEP_CLONES __attribute__((target_clones(HXK_CLONE_AVX2, "default")))
// The work on one supernode is kept out of the loop over the supernodes,
// which is then small enough to hold its pointers in registers.
// clang refuses noinline beside target_clones and never inlines a
// multi-versioned function anyway.
#if defined(__clang__)
#define LA_SWEEP_OUTLINE __attribute__((target_clones(HXK_CLONE_AVX2, "default")))
#define LA_SHUFFLE(a, b, i0, i1, i2, i3) __builtin_shufflevector(a, b, i0, i1, i2, i3)
#else
#define LA_SWEEP_OUTLINE \
  __attribute__((noinline, target_clones(HXK_CLONE_AVX2, "default")))
#define LA_SHUFFLE(a, b, i0, i1, i2, i3) \
  __builtin_shuffle(a, b, (long long __attribute__((vector_size(32)))){i0, i1, i2, i3})
#endif

// Gathers through an index list, one instruction per four values where
// the processor has them.  Called, not inlined, from the sweeps of either
// instruction set, which pass whether the processor has them.
__attribute__((target("avx2"))) void gatherAvx2(int32_t n, const int32_t* __restrict idx,
                                                const double* __restrict src,
                                                double* __restrict dst) {
  const __m256d all = _mm256_castsi256_pd(_mm256_set1_epi64x(-1));
  int32_t i = 0;
  for (; i + 4 <= n; i += 4) {
    __m128i k = _mm_loadu_si128(reinterpret_cast<const __m128i*>(idx + i));
    _mm256_storeu_pd(dst + i, _mm256_mask_i32gather_pd(_mm256_setzero_pd(), src, k, all, 8));
  }
  for (; i < n; i++) dst[i] = src[idx[i]];
}

// dst[i] = src[idx[i]] for n values.
LA_SWEEP void gather(bool avx2, int32_t n, const int32_t* __restrict idx,
                     const double* __restrict src, double* __restrict dst) {
  if (avx2 && n >= 8) {
    gatherAvx2(n, idx, src, dst);
    return;
  }
  int32_t i = 0;
  for (; i + 2 <= n; i += 2) {
    double u = src[idx[i]], v = src[idx[i + 1]];
    dst[i] = u;
    dst[i + 1] = v;
  }
  if (i < n) dst[i] = src[idx[i]];
}

inline void swapEntries(double* a, int32_t i, int32_t j) {
  double t = a[i];
  a[i] = a[j];
  a[j] = t;
}

// Up to this many columns the rows under a supernode go straight through
// the row list; wider ones through one dense product.
constexpr int32_t kIndexedCols = 4;

typedef double v4d __attribute__((vector_size(32)));
typedef double v4u __attribute__((vector_size(32), aligned(8)));
#define LA_LOAD4(p) (*reinterpret_cast<const v4u*>(p))

// The dense parts of a supernode in blocks of up to four columns, in
// explicit four-wide steps with the rows that do not fill a step done
// together for the block: no alias checks or peeling, which cost more than
// the loop on the short columns of most supernodes.
#define LA_STORE4(p, v) (*reinterpret_cast<v4u*>(p) = (v))

typedef long long v4l __attribute__((vector_size(32)));
// Lanes kept of a four-wide step over the last four rows, when the steps
// before it took the first 0 to 3 of them (the index).
alignas(32) const long long kLastRows[4][4] = {
    {-1, -1, -1, -1}, {0, -1, -1, -1}, {0, 0, -1, -1}, {0, 0, 0, -1}};
#define lastRowsMask(done) (*reinterpret_cast<const v4l*>(kLastRows[done]))

// x[c] -= sum_i F(i, c) y[i] for the G columns of F (leading dimension ld)
// over m rows.  With Back, fewer than four rows go in one masked step that
// starts before the first row: F and y must be readable there.
template <int G, bool Back = false>
LA_SWEEP void colDotsT(int32_t m, const double* __restrict F, int64_t ld,
                       const double* __restrict y, double* __restrict x) {
  double t[G];
  int32_t i = 0;
  if (m >= 4 || (Back && m > 0)) {
    v4d s[G];
    for (int c = 0; c < G; c++) s[c] = (v4d){0, 0, 0, 0};
    for (; i + 4 <= m; i += 4) {
      v4d yv = LA_LOAD4(y + i);
      for (int c = 0; c < G; c++) s[c] += LA_LOAD4(F + c * ld + i) * yv;
    }
    // The rows left over: one more step over the last four rows, with the
    // ones already taken zeroed in y.
    if (i < m) {
      int32_t e = m - 4;
      v4d yv = (v4d)((v4l)LA_LOAD4(y + e) & lastRowsMask(i - e));
      for (int c = 0; c < G; c++) s[c] += LA_LOAD4(F + c * ld + e) * yv;
      i = m;
    }
    if (G == 4) {
      // The four sums reduced together, each in the same order as alone.
      v4d a = LA_SHUFFLE(s[0], s[1 % G], 0, 4, 2, 6) + LA_SHUFFLE(s[0], s[1 % G], 1, 5, 3, 7);
      v4d b = LA_SHUFFLE(s[2 % G], s[3 % G], 0, 4, 2, 6) + LA_SHUFFLE(s[2 % G], s[3 % G], 1, 5, 3, 7);
      v4d u = LA_SHUFFLE(a, b, 0, 1, 4, 5) + LA_SHUFFLE(a, b, 2, 3, 6, 7);
      for (int c = 0; c < G; c++) t[c] = u[c];
    } else {
      for (int c = 0; c < G; c++) t[c] = (s[c][0] + s[c][1]) + (s[c][2] + s[c][3]);
    }
  } else {
    for (int c = 0; c < G; c++) t[c] = 0.0;
  }
  for (; i < m; i++) {
    double yi = y[i];
    for (int c = 0; c < G; c++) t[c] += F[c * ld + i] * yi;
  }
  for (int c = 0; c < G; c++) x[c] -= t[c];
}

// x[i] -= sum_c F(i, c) t[c] over m rows for the G columns of F; with Init,
// x[i] = -sum_c F(i, c) t[c].  With Back, fewer than four rows go in one
// masked step that starts before the first row: F must be readable there,
// x readable and writable (it is left as it is).
template <int G, bool Init, bool Back = false>
LA_SWEEP void colUpdateT(int32_t m, const double* __restrict F, int64_t ld,
                         const double* __restrict t, double* __restrict x) {
  double tc[G];
  for (int c = 0; c < G; c++) tc[c] = t[c];
  int32_t i = 0;
  for (; i + 4 <= m; i += 4) {
    v4d u = LA_LOAD4(F + i) * tc[0];
    for (int c = 1; c < G; c++) u += LA_LOAD4(F + c * ld + i) * tc[c];
    if (Init)
      LA_STORE4(x + i, -u);
    else
      LA_STORE4(x + i, LA_LOAD4(x + i) - u);
  }
  // The rows left over: one more step over the last four rows, which
  // leaves the ones already done as they are.
  if (i < m && (m >= 4 || Back)) {
    int32_t e = m - 4;
    v4l keep = lastRowsMask(i - e);
    v4d u = LA_LOAD4(F + e) * tc[0];
    for (int c = 1; c < G; c++) u += LA_LOAD4(F + c * ld + e) * tc[c];
    if (Init)
      LA_STORE4(x + e, (v4d)(((v4l)LA_LOAD4(x + e) & ~keep) | ((v4l)(-u) & keep)));
    else
      LA_STORE4(x + e, LA_LOAD4(x + e) - (v4d)((v4l)u & keep));
    i = m;
  }
  for (; i < m; i++) {
    double u = F[i] * tc[0];
    for (int c = 1; c < G; c++) u += F[c * ld + i] * tc[c];
    x[i] = Init ? -u : x[i] - u;
  }
}

// The same for any number of columns, four at a time.
template <bool Back = false>
LA_SWEEP void colDots(int32_t m, int32_t c, const double* F, int64_t ld, const double* y,
                      double* x) {
  if (m <= 0) return;
  int32_t j = 0;
  for (; j + 4 <= c; j += 4) colDotsT<4, Back>(m, F + j * ld, ld, y, x + j);
  switch (c - j) {
    case 1: colDotsT<1, Back>(m, F + j * ld, ld, y, x + j); break;
    case 2: colDotsT<2, Back>(m, F + j * ld, ld, y, x + j); break;
    case 3: colDotsT<3, Back>(m, F + j * ld, ld, y, x + j); break;
    default: break;
  }
}

template <bool Init, bool Back = false>
LA_SWEEP void colUpdate(int32_t m, int32_t c, const double* F, int64_t ld, const double* t,
                        double* x) {
  if (m <= 0) return;
  int32_t j = 0;
  if (c >= 4) {
    colUpdateT<4, Init, Back>(m, F, ld, t, x);
    j = 4;
  } else {
    switch (c) {
      case 1: colUpdateT<1, Init, Back>(m, F, ld, t, x); break;
      case 2: colUpdateT<2, Init, Back>(m, F, ld, t, x); break;
      case 3: colUpdateT<3, Init, Back>(m, F, ld, t, x); break;
      default: break;
    }
    return;
  }
  for (; j + 4 <= c; j += 4) colUpdateT<4, false, Back>(m, F + j * ld, ld, t + j, x);
  switch (c - j) {
    case 1: colUpdateT<1, false, Back>(m, F + j * ld, ld, t + j, x); break;
    case 2: colUpdateT<2, false, Back>(m, F + j * ld, ld, t + j, x); break;
    case 3: colUpdateT<3, false, Back>(m, F + j * ld, ld, t + j, x); break;
    default: break;
  }
}

// Pivots are taken in groups of up to four columns, a 2x2 pair never split,
// so that the rows under a group are updated in one pass with the group's
// factors held.  An interchange must see every earlier column's update on
// both its rows, so a pivot that is not the group's first may only swap
// with a row inside the group: the group ends before one that does not.
LA_SWEEP int32_t forwardGroup(const int32_t* piv, int32_t j, int32_t w) {
  int32_t e = j;
  while (e < w) {
    int32_t step = piv[e] >= 0 ? 1 : 2;
    if (e + step > j + 4) break;
    e += step;
  }
  for (bool again = true; again;) {
    again = false;
    for (int32_t k = j; k < e;) {
      int32_t step = piv[k] >= 0 ? 1 : 2;
      int32_t target = step == 1 ? piv[k] : -piv[k];
      if (k > j && target >= e) {
        e = k;
        again = true;
        break;
      }
      k += step;
    }
  }
  return e - j;
}

// Unit-lower part of the forward sweep on the w columns of one diagonal
// block T (leading dimension ld), interchanges included.  x keeps the
// values before their division by D: the rows below need exactly those.
LA_SWEEP void forwardDiag(double* __restrict x, const double* __restrict T, int64_t ld, int32_t w,
                          const int32_t* piv) {
  for (int32_t j = 0; j < w;) {
    int32_t g = forwardGroup(piv, j, w);
    int32_t end = j + g;
    for (int32_t k = j; k < end;) {
      const double* f = T + k * ld;
      if (piv[k] >= 0) {
        if (piv[k] != k) swapEntries(x, k, piv[k]);
        double xk = x[k];
        for (int32_t i = k + 1; i < end; i++) x[i] -= xk * f[i];
        k += 1;
      } else {
        if (-piv[k] != k + 1) swapEntries(x, k + 1, -piv[k]);
        double a0 = x[k], a1 = x[k + 1];
        const double* h = f + ld;
        for (int32_t i = k + 2; i < end; i++) x[i] -= f[i] * a0 + a1 * h[i];
        k += 2;
      }
    }
    colUpdate<false>(w - end, g, T + j * ld + end, ld, x + j, x + end);
    j = end;
  }
}

// The D part.
LA_SWEEP void divideDiag(double* __restrict x, const double* __restrict T, int64_t ld, int32_t w,
                         const int32_t* piv) {
  for (int32_t j = 0; j < w;) {
    if (piv[j] >= 0) {
      x[j] /= T[j + j * ld];
      j += 1;
    } else {
      double d = T[j + 1 + j * ld];
      double u = T[j + j * ld] / d;
      double v = T[j + 1 + (j + 1) * ld] / d;
      double den = u * v - 1.0;
      double a0 = x[j], a1 = x[j + 1];
      x[j + 1] = (u * (a1 / d) - a0 / d) / den;
      x[j] = (v * (a0 / d) - a1 / d) / den;
      j += 2;
    }
  }
}

// The same grouping going up: the group ends at column j, a pair is found
// by its second column, and the sums over the rows under the group are
// taken before any of its interchanges, so only the group's last pivot may
// swap with a row outside it.
LA_SWEEP int32_t backwardGroup(const int32_t* piv, int32_t j) {
  int32_t k = j, lowest = -1;
  while (k >= 0) {
    int32_t step = piv[k] >= 0 ? 1 : 2;
    if (k - step < j - 4) break;
    if (lowest >= 0) {
      int32_t target = piv[lowest] >= 0 ? piv[lowest] : -piv[lowest];
      if (target > j) break;
    }
    lowest = k;
    k -= step;
  }
  return j - k;
}

// Backward sweep inside one diagonal block whose rows below have already
// been taken off x.
LA_SWEEP void backwardDiag(double* __restrict x, const double* __restrict T, int64_t ld,
                           int32_t w, const int32_t* piv) {
  for (int32_t j = w - 1; j >= 0;) {
    int32_t g = backwardGroup(piv, j);
    int32_t lo = j - g + 1;
    colDots(w - j - 1, g, T + lo * ld + j + 1, ld, x + j + 1, x + lo);
    for (int32_t k = j; k >= lo;) {
      const double* f = T + k * ld;
      if (piv[k] >= 0) {
        double sum = 0.0;
        for (int32_t i = k + 1; i <= j; i++) sum += x[i] * f[i];
        x[k] -= sum;
        if (piv[k] != k) swapEntries(x, k, piv[k]);
        k -= 1;
      } else {
        // The pair's first column skips the off-diagonal of D at row k.
        double s1 = 0.0, s0 = 0.0;
        for (int32_t i = k + 1; i <= j; i++) {
          s1 += x[i] * f[i];
          s0 += x[i] * f[i - ld];
        }
        x[k] -= s1;
        x[k - 1] -= s0;
        if (-piv[k] != k) swapEntries(x, k, -piv[k]);
        k -= 2;
      }
    }
    j = lo - 1;
  }
}

// Scatters through a row list two rows per step: the rows are distinct,
// and the loop's own counting is a good part of a short scatter's cost.
#define LA_ROWS2(m, BODY)              \
  do {                                 \
    int32_t i0 = 0;                    \
    for (; i0 + 2 <= (m); i0 += 2) {   \
      {                                \
        int32_t i = i0;                \
        BODY;                          \
      }                                \
      {                                \
        int32_t i = i0 + 1;            \
        BODY;                          \
      }                                \
    }                                  \
    if (i0 < (m)) {                    \
      int32_t i = i0;                  \
      BODY;                            \
    }                                  \
  } while (0)

// y[idx[i]] -= sum_j F(i, j) t[j] for m rows and c columns (c at most
// kIndexedCols), one pass over the rows.
LA_SWEEP void indexedUpdate4(int32_t m, int32_t c, const double* F, int64_t ld, const double* t,
                   const int32_t* idx, double* y) {
  const double* f0 = F;
  switch (c) {
    case 1: {
      double t0 = t[0];
      LA_ROWS2(m, y[idx[i]] -= f0[i] * t0);
      break;
    }
    case 2: {
      const double* f1 = f0 + ld;
      double t0 = t[0], t1 = t[1];
      LA_ROWS2(m, y[idx[i]] -= f0[i] * t0 + f1[i] * t1);
      break;
    }
    case 3: {
      const double *f1 = f0 + ld, *f2 = f1 + ld;
      double t0 = t[0], t1 = t[1], t2 = t[2];
      LA_ROWS2(m, y[idx[i]] -= f0[i] * t0 + f1[i] * t1 + f2[i] * t2);
      break;
    }
    default: {
      const double *f1 = f0 + ld, *f2 = f1 + ld, *f3 = f2 + ld;
      double t0 = t[0], t1 = t[1], t2 = t[2], t3 = t[3];
      for (int32_t i = 0; i < m; i++)
        y[idx[i]] -= (f0[i] * t0 + f1[i] * t1) + (f2[i] * t2 + f3[i] * t3);
      break;
    }
  }
}

// x[j] -= sum_i F(i, j) y[idx[i]] for m rows and c columns (c at most
// kIndexedCols), one pass over the rows.
LA_SWEEP void indexedDots4(int32_t m, int32_t c, const double* F, int64_t ld, const int32_t* idx,
                 const double* y, double* x) {
  const double* f0 = F;
  switch (c) {
    case 1: {
      double s0 = 0.0;
      for (int32_t i = 0; i < m; i++) s0 += f0[i] * y[idx[i]];
      x[0] -= s0;
      break;
    }
    case 2: {
      const double* f1 = f0 + ld;
      double s0 = 0.0, s1 = 0.0;
      for (int32_t i = 0; i < m; i++) {
        double v = y[idx[i]];
        s0 += f0[i] * v;
        s1 += f1[i] * v;
      }
      x[0] -= s0;
      x[1] -= s1;
      break;
    }
    case 3: {
      const double *f1 = f0 + ld, *f2 = f1 + ld;
      double s0 = 0.0, s1 = 0.0, s2 = 0.0;
      for (int32_t i = 0; i < m; i++) {
        double v = y[idx[i]];
        s0 += f0[i] * v;
        s1 += f1[i] * v;
        s2 += f2[i] * v;
      }
      x[0] -= s0;
      x[1] -= s1;
      x[2] -= s2;
      break;
    }
    default: {
      const double *f1 = f0 + ld, *f2 = f1 + ld, *f3 = f2 + ld;
      double s0 = 0.0, s1 = 0.0, s2 = 0.0, s3 = 0.0;
      for (int32_t i = 0; i < m; i++) {
        double v = y[idx[i]];
        s0 += f0[i] * v;
        s1 += f1[i] * v;
        s2 += f2[i] * v;
        s3 += f3[i] * v;
      }
      x[0] -= s0;
      x[1] -= s1;
      x[2] -= s2;
      x[3] -= s3;
      break;
    }
  }
}

// y := y - A x and y := y - A^T x through the module's kernels.
inline void gemvMinus(int32_t m, int32_t n, const double* A, int64_t lda, const double* x,
                      double* y) {
  if (m <= 0 || n <= 0) return;
  int mm = m, nn = n, ld = (int)lda, one = 1;
  double alpha = -1.0, beta = 1.0;
  my_dgemv_n_1m1_one("N", &mm, &nn, &alpha, A, &ld, x, &one, &beta, y, &one);
}
inline void gemvTransMinus(int32_t m, int32_t n, const double* A, int64_t lda, const double* x,
                           double* y) {
  if (m <= 0 || n <= 0) return;
  int mm = m, nn = n, ld = (int)lda, one = 1;
  double alpha = -1.0, beta = 1.0;
  my_dgemv_t_1m1_one("T", &mm, &nn, &alpha, A, &ld, x, &one, &beta, y, &one);
}

// Most diagonal blocks have 1x1 pivots only and no interchange; they take
// the paths below, which keep the values before division apart and so
// divide as they go.
LA_SWEEP bool plainPivots(const int32_t* piv, int32_t w) {
  for (int32_t k = 0; k < w; k++)
    if (piv[k] != k) return false;
  return true;
}

// x -= t f over n entries.
LA_SWEEP void axpyShort(double* __restrict x, const double* __restrict f, double t, int32_t n) {
  v4d tv = {t, t, t, t};
  int32_t i = 0;
  for (; i + 4 <= n; i += 4) LA_STORE4(x + i, LA_LOAD4(x + i) - tv * LA_LOAD4(f + i));
  for (; i < n; i++) x[i] -= t * f[i];
}

// x -= f t0 + g t1 over n entries.
LA_SWEEP void axpy2Short(double* __restrict x, const double* __restrict f,
                         const double* __restrict g, double t0, double t1, int32_t n) {
  v4d u0 = {t0, t0, t0, t0}, u1 = {t1, t1, t1, t1};
  int32_t i = 0;
  for (; i + 4 <= n; i += 4)
    LA_STORE4(x + i, LA_LOAD4(x + i) - (LA_LOAD4(f + i) * u0 + LA_LOAD4(g + i) * u1));
  for (; i < n; i++) x[i] -= f[i] * t0 + g[i] * t1;
}

LA_SWEEP double dotShort(const double* __restrict x, const double* __restrict f, int32_t n) {
  v4d s = {0, 0, 0, 0};
  int32_t i = 0;
  for (; i + 4 <= n; i += 4) s += LA_LOAD4(x + i) * LA_LOAD4(f + i);
  double sum = (s[0] + s[1]) + (s[2] + s[3]);
  for (; i < n; i++) sum += x[i] * f[i];
  return sum;
}

LA_SWEEP void dot2Short(const double* __restrict x, const double* __restrict f,
                        const double* __restrict g, int32_t n, double* sf, double* sg) {
  v4d s = {0, 0, 0, 0}, u = s;
  int32_t i = 0;
  for (; i + 4 <= n; i += 4) {
    v4d xv = LA_LOAD4(x + i);
    s += xv * LA_LOAD4(f + i);
    u += xv * LA_LOAD4(g + i);
  }
  double a = (s[0] + s[1]) + (s[2] + s[3]), b = (u[0] + u[1]) + (u[2] + u[3]);
  for (; i < n; i++) {
    a += x[i] * f[i];
    b += x[i] * g[i];
  }
  *sf = a;
  *sg = b;
}

// Diagonal blocks with 2x2 pivots or interchanges, column by column: the
// search for groups that interchanges allow costs more than it saves on
// the blocks that have them.  t gets the values before division.
LA_SWEEP void forwardPivots(double* __restrict x, double* __restrict t,
                            const double* __restrict T, int64_t ld, int32_t w,
                            const int32_t* piv) {
  for (int32_t j = 0; j < w;) {
    const double* f = T + j * ld;
    if (piv[j] >= 0) {
      if (piv[j] != j) swapEntries(x, j, piv[j]);
      double tj = x[j];
      axpyShort(x + j + 1, f + j + 1, tj, w - j - 1);
      t[j] = tj;
      x[j] = tj / f[j];
      j += 1;
    } else {
      if (-piv[j] != j + 1) swapEntries(x, j + 1, -piv[j]);
      double a0 = x[j], a1 = x[j + 1];
      const double* h = f + ld;
      axpy2Short(x + j + 2, f + j + 2, h + j + 2, a0, a1, w - j - 2);
      t[j] = a0;
      t[j + 1] = a1;
      double d = f[j + 1];
      double u = f[j] / d;
      double v = h[j + 1] / d;
      double den = u * v - 1.0;
      x[j + 1] = (u * (a1 / d) - a0 / d) / den;
      x[j] = (v * (a0 / d) - a1 / d) / den;
      j += 2;
    }
  }
}

// The same going up, on a block whose rows below are already taken off x.
LA_SWEEP void backwardPivots(double* __restrict x, const double* __restrict T, int64_t ld,
                             int32_t w, const int32_t* piv) {
  for (int32_t j = w - 1; j >= 0;) {
    const double* f = T + j * ld;
    if (piv[j] >= 0) {
      x[j] -= dotShort(x + j + 1, f + j + 1, w - j - 1);
      if (piv[j] != j) swapEntries(x, j, piv[j]);
      j -= 1;
    } else {
      // The pair's first column skips the off-diagonal of D at row j.
      double s1, s0;
      dot2Short(x + j + 1, f + j + 1, f - ld + j + 1, w - j - 1, &s1, &s0);
      x[j] -= s1;
      x[j - 1] -= s0;
      if (-piv[j] != j) swapEntries(x, j, -piv[j]);
      j -= 2;
    }
  }
}

// Forward sweep of a plain diagonal block, four columns at a time: t gets
// the values before division (what the rows below need), x the solved ones.
LA_SWEEP void forwardPlain(double* __restrict x, double* __restrict t, const double* __restrict T,
                           int64_t ld, int32_t w) {
  int32_t j = 0;
  for (; j + 4 <= w; j += 4) {
    const double *f0 = T + j * ld, *f1 = f0 + ld, *f2 = f1 + ld, *f3 = f2 + ld;
    double t0 = x[j];
    double t1 = x[j + 1] - t0 * f0[j + 1];
    double t2 = x[j + 2] - t0 * f0[j + 2] - t1 * f1[j + 2];
    double t3 = x[j + 3] - t0 * f0[j + 3] - t1 * f1[j + 3] - t2 * f2[j + 3];
    t[j] = t0;
    t[j + 1] = t1;
    t[j + 2] = t2;
    t[j + 3] = t3;
    x[j] = t0 / f0[j];
    x[j + 1] = t1 / f1[j + 1];
    x[j + 2] = t2 / f2[j + 2];
    x[j + 3] = t3 / f3[j + 3];
    colUpdateT<4, false>(w - j - 4, f0 + j + 4, ld, t + j, x + j + 4);
  }
  // The last columns have no rows of the block below them but their own.
  for (; j < w; j++) {
    const double* f = T + j * ld;
    double tj = x[j];
    for (int32_t k = j + 1; k < w; k++) x[k] -= tj * f[k];
    t[j] = tj;
    x[j] = tj / f[j];
  }
}

// Backward sweep of a plain diagonal block whose rows below are already
// taken off x, four columns at a time from the bottom.
LA_SWEEP void backwardPlain(double* __restrict x, const double* __restrict T, int64_t ld,
                            int32_t w) {
  int32_t j = w - 1;
  // Whole groups unrolled, each sum in the order of the loop below.
  for (; j >= 3; j -= 4) {
    colDotsT<4>(w - j - 1, T + (j - 3) * ld + j + 1, ld, x + j + 1, x + j - 3);
    const double *f0 = T + (j - 3) * ld, *f1 = f0 + ld, *f2 = f1 + ld;
    double x3 = x[j];
    double x2 = x[j - 1] - x3 * f2[j];
    double x1 = x[j - 2] - (x2 * f1[j - 1] + x3 * f1[j]);
    double x0 = x[j - 3] - (x1 * f0[j - 2] + x2 * f0[j - 1] + x3 * f0[j]);
    x[j - 1] = x2;
    x[j - 2] = x1;
    x[j - 3] = x0;
  }
  // The first one to three columns.
  if (j >= 0) {
    colDots(w - j - 1, j + 1, T + j + 1, ld, x + j + 1, x);
    for (int32_t k = j; k >= 0; k--) {
      const double* f = T + k * ld;
      double sum = 0.0;
      for (int32_t i = k + 1; i <= j; i++) sum += x[i] * f[i];
      x[k] -= sum;
    }
  }
}

// One supernode stored as a single column-major array (the sequential
// storage, and narrow supernodes of the block storage).  Its own columns
// are contiguous in b, so they are worked on in place; only the rows below
// go through the row list: straight for a narrow supernode, through one
// dense product into buf and one scatter otherwise.  buf holds r doubles.
// One column and no interchange: the commonest supernode of all.
LA_SWEEP void forwardOne(double* b, int32_t first, const int32_t* rows, const double* F,
                         int32_t r) {
  double* x = b + first;
  int32_t m = r - 1;
  const int32_t* idx = rows + 1;
  double t0 = x[0];
  x[0] = t0 / F[0];
  const double* f = F + 1;
  LA_ROWS2(m, b[idx[i]] -= f[i] * t0);
}

LA_SWEEP void backwardOne(double* b, int32_t first, const int32_t* rows, const double* F,
                          int32_t r) {
  int32_t m = r - 1;
  if (m == 0) return;
  double* x = b + first;
  const int32_t* idx = rows + 1;
  const double* f = F + 1;
  double s0 = 0.0, s1 = 0.0;
  int32_t i = 0;
  for (; i + 2 <= m; i += 2) {
    s0 += f[i] * b[idx[i]];
    s1 += f[i + 1] * b[idx[i + 1]];
  }
  if (i < m) s0 += f[i] * b[idx[i]];
  x[0] -= s0 + s1;
}

// Two to four columns, no 2x2 pivot and no interchange: unrolled whole.
template <int C>
LA_SWEEP void forwardSmall(double* b, int32_t first, const int32_t* rows, const double* F,
                           int32_t r) {
  double* x = b + first;
  double t[C];
  for (int j = 0; j < C; j++) {
    double v = x[j];
    for (int k = 0; k < j; k++) v -= t[k] * F[k * r + j];
    t[j] = v;
  }
  for (int j = 0; j < C; j++) x[j] = t[j] / F[j * r + j];
  for (int32_t i = C; i < r; i++) {
    double u = F[i] * t[0];
    for (int k = 1; k < C; k++) u += F[k * r + i] * t[k];
    b[rows[i]] -= u;
  }
}

template <int C>
LA_SWEEP void backwardSmall(double* b, int32_t first, const int32_t* rows, const double* F,
                            int32_t r) {
  double* x = b + first;
  double s[C];
  for (int k = 0; k < C; k++) s[k] = 0.0;
  for (int32_t i = C; i < r; i++) {
    double v = b[rows[i]];
    for (int k = 0; k < C; k++) s[k] += F[k * r + i] * v;
  }
  for (int j = C - 1; j >= 0; j--) {
    double inner = 0.0;
    for (int k = j + 1; k < C; k++) inner += x[k] * F[j * r + k];
    x[j] = (x[j] - s[j]) - inner;
  }
}

LA_SWEEP bool smallPlain(int32_t c, const int32_t* piv) {
  if (c < 2 || c > 4 || piv[0] != 0 || piv[1] != 1) return false;
  return c == 2 || (piv[2] == 2 && (c == 3 || piv[3] == 3));
}

// A diagonal block through its copy, whose entries the solve keeps in the
// block's interchanged order: the unit triangle four columns at a time,
// then D, four 1x1 pivots at a time with the pairs done over after.  t gets
// the values before division, for the rows below; pairs lists the block's
// 2x2 pivots (count first).
LA_SWEEP void forwardCopy(double* __restrict x, double* __restrict t, const double* __restrict T,
                          const int32_t* pairs, int32_t w) {
  int32_t j = 0;
  for (; j + 4 <= w; j += 4) {
    const double *f0 = T + j * w, *f1 = f0 + w, *f2 = f1 + w;
    double t0 = x[j];
    double t1 = x[j + 1] - t0 * f0[j + 1];
    double t2 = x[j + 2] - t0 * f0[j + 2] - t1 * f1[j + 2];
    double t3 = x[j + 3] - t0 * f0[j + 3] - t1 * f1[j + 3] - t2 * f2[j + 3];
    x[j + 1] = t1;
    x[j + 2] = t2;
    x[j + 3] = t3;
    colUpdateT<4, false>(w - j - 4, f0 + j + 4, w, x + j, x + j + 4);
  }
  for (; j < w; j++) {
    const double* f = T + j * w;
    double tj = x[j];
    for (int32_t k = j + 1; k < w; k++) x[k] -= tj * f[k];
  }
  const double* D = T + w * w;
  for (j = 0; j + 4 <= w; j += 4) {
    v4d v = LA_LOAD4(x + j);
    LA_STORE4(t + j, v);
    LA_STORE4(x + j, v / LA_LOAD4(D + j));
  }
  for (; j < w; j++) {
    t[j] = x[j];
    x[j] = t[j] / D[j];
  }
  const double* pair = D + w;
  for (int32_t k = 1; k <= pairs[0]; k++) {
    j = pairs[k];
    const double* e = pair + 2 * j;
    double d = e[0], u = e[1], v = e[2], den = e[3];
    double a0 = t[j], a1 = t[j + 1];
    x[j + 1] = (u * (a1 / d) - a0 / d) / den;
    x[j] = (v * (a0 / d) - a1 / d) / den;
  }
}

LA_SWEEP_OUTLINE void forwardNarrow(double* b, int32_t first, const int32_t* rows,
                                    const double* F, int32_t r, int32_t c, const int32_t* piv,
                                    double* buf, const double* T, const int32_t* pairs) {
  double* x = b + first;
  int32_t m = r - c;
  const int32_t* idx = rows + c;
  // The rows below take the values before division, which buf gets.
  if (T)
    forwardCopy(x, buf, T, pairs, c);
  else if (plainPivots(piv, c))
    forwardPlain(x, buf, F, r, c);
  else
    forwardPivots(x, buf, F, r, c, piv);
  const double* t = buf;
  if (m > 0) {
    const double* F21 = F + c;
    if (c <= kIndexedCols) {
      indexedUpdate4(m, c, F21, r, t, idx, b);
    } else if (m < 4) {
      // A few rows below many columns: one masked step that starts above
      // them, in the factor's own rows and in a place of its own here.
      double room[8] = {0, 0, 0, 0, 0, 0, 0, 0};
      double* tmp = room + 4;
      colUpdate<true, true>(m, c, F21, r, t, tmp);
      for (int32_t i = 0; i < m; i++) b[idx[i]] += tmp[i];
    } else {
      double* tmp = buf + c;
      colUpdate<true>(m, c, F21, r, t, tmp);
      LA_ROWS2(m, b[idx[i]] += tmp[i]);
    }
  }
}

LA_SWEEP_OUTLINE void backwardNarrow(double* b, int32_t first, const int32_t* rows,
                                     const double* F, int32_t r, int32_t c, const int32_t* piv,
                                     double* buf, bool avx2, const double* T) {
  double* x = b + first;
  int32_t m = r - c;
  const int32_t* idx = rows + c;
  // The rows below gathered when that is cheap (or the supernode wide),
  // read straight through the row list otherwise.
  bool gathered = m > 0 && (c > kIndexedCols || (avx2 && m >= 8));
  // A few rows below many columns: one masked step that starts above them,
  // in the factor's own rows and in buf's first four places (c > 4, so buf
  // has room).
  bool few = gathered && m < 4 && c > kIndexedCols;
  double* y = few ? buf + 4 : buf;
  if (gathered) gather(avx2, m, idx, b, y);
  if (c == 1 && piv[0] == 0) {
    if (gathered)
      colDotsT<1>(m, F + 1, r, y, x);
    else
      backwardOne(b, first, rows, F, r);
    return;
  }
  if (few)
    colDots<true>(m, c, F + c, r, y, x);
  else if (gathered)
    colDots(m, c, F + c, r, y, x);
  else if (m > 0)
    indexedDots4(m, c, F + c, r, idx, b, x);
  // The copy's unit triangle has zeros where the pairs keep their
  // off-diagonal, so the plain block sweep serves.
  if (T)
    backwardPlain(x, T, c, c);
  else if (plainPivots(piv, c))
    backwardPlain(x, F, r, c);
  else
    backwardPivots(x, F, r, c, piv);
}

// A wide supernode of the block storage: column blocks of width nb, each cut
// into tiles that are column-major with their own height as leading
// dimension.  The supernode is gathered once into a (r doubles).
LA_SWEEP_OUTLINE void forwardWide(double* a, const double* F, int32_t nb, int32_t r, int32_t c,
                 const int32_t* piv) {
  for (int32_t J = 0; J * nb < c; J++) {
    int32_t j0 = J * nb;
    int32_t w = c - j0 < nb ? c - j0 : nb;
    const double* block = F + laWideColBlockStart(nb, r, J);
    int32_t hJ = r - j0 < nb ? r - j0 : nb;
    double* x = a + j0;
    forwardDiag(x, block, hJ, w, piv + j0);
    gemvMinus(hJ - w, w, block + w, hJ, x, x + w);
    for (int32_t I = J + 1; I * nb < r; I++) {
      int32_t h = r - I * nb < nb ? r - I * nb : nb;
      gemvMinus(h, w, block + (int64_t)(I - J) * nb * w, h, x, a + (int64_t)I * nb);
    }
    divideDiag(x, block, hJ, w, piv + j0);
  }
}

LA_SWEEP_OUTLINE void backwardWide(double* a, const double* F, int32_t nb, int32_t r, int32_t c,
                  const int32_t* piv) {
  int32_t last = (c - 1) / nb;
  for (int32_t J = last; J >= 0; J--) {
    int32_t j0 = J * nb;
    int32_t w = c - j0 < nb ? c - j0 : nb;
    const double* block = F + laWideColBlockStart(nb, r, J);
    int32_t hJ = r - j0 < nb ? r - j0 : nb;
    double* x = a + j0;
    gemvTransMinus(hJ - w, w, block + w, hJ, x + w, x);
    for (int32_t I = J + 1; I * nb < r; I++) {
      int32_t h = r - I * nb < nb ? r - I * nb : nb;
      gemvTransMinus(h, w, block + (int64_t)(I - J) * nb * w, h, a + (int64_t)I * nb, x);
    }
    backwardDiag(x, block, hJ, w, piv + j0);
  }
}

LA_SWEEP void gatherSNode(double* a, const double* b, const int32_t* rows, int32_t first,
                        int32_t r, int32_t c) {
  memcpy(a, b + first, sizeof(double) * (size_t)c);
  for (int32_t i = c; i < r; i++) a[i] = b[rows[i]];
}

// Whether a value of x has reached the guard.  A value that leaves its
// pivot is not touched again in the same sweep, so one look at the whole
// vector after each sweep stops the solve on the same values as a look at
// each pivot would.  Four values a step where the processor has them (the
// plain copy would split each step in two through memory).
LA_SWEEP bool overGuard(bool avx2, int32_t n, const double* __restrict x) {
  const double G = LA_SOLVE_GUARD;
  int32_t i = 0;
  bool over = false;
  if (avx2) {
    const v4d hi = {G, G, G, G}, lo = -hi;
    v4l hit = {0, 0, 0, 0};
    for (; i + 4 <= n; i += 4) {
      v4d v = LA_LOAD4(x + i);
      hit |= (v >= hi) | (v <= lo);
    }
    over = (hit[0] | hit[1] | hit[2] | hit[3]) != 0;
  }
  for (; i < n; i++) over |= fabs(x[i]) >= G;
  return over;
}

// The two sweeps over the factor, in storage order, on b with a as
// scratch; nb is 0 for the storage of the sequential path and blockSize for
// the block storage.
LA_SWEEP int32_t sweeps(double* __restrict b, double* __restrict a, const LASymbolic* sym,
                        const int32_t* rowList, int32_t nb, bool avx2) {
  const int32_t* start = sym->snodeStart;
  const int64_t* rowBegin = sym->rowBegin;
  const int64_t* factorBegin = sym->factorBegin;
  const double* factor = sym->factor;
  const int32_t* pivots = sym->pivots;
  const int32_t numSNodes = sym->numSNodes;
  const int64_t* copyBegin = sym->diagCopyBegin;
  const double* copies = sym->diagCopy;
  const int32_t* copyPairs = sym->diagCopyPairs;

  for (int32_t s = 0; s < numSNodes; s++) {
    int32_t first = start[s];
    int32_t c = start[s + 1] - first, r = (int32_t)(rowBegin[s + 1] - rowBegin[s]);
    const int32_t* rows = rowList + rowBegin[s];
    const double* F = factor + factorBegin[s];
    const int32_t* piv = pivots + first;
    if (c == 1 && piv[0] == 0) {
      forwardOne(b, first, rows, F, r);
    } else if (smallPlain(c, piv)) {
      if (c == 2)
        forwardSmall<2>(b, first, rows, F, r);
      else if (c == 3)
        forwardSmall<3>(b, first, rows, F, r);
      else
        forwardSmall<4>(b, first, rows, F, r);
    } else if (nb > 0 && c > nb) {
      gatherSNode(a, b, rows, first, r, c);
      forwardWide(a, F, nb, r, c, piv);
      memcpy(b + first, a, sizeof(double) * (size_t)c);
      for (int32_t i = c; i < r; i++) b[rows[i]] = a[i];
    } else {
      const double* T = copyPairs && copyPairs[first] >= 0 ? copies + copyBegin[s] : nullptr;
      forwardNarrow(b, first, rows, F, r, c, piv, a, T, copyPairs + first);
    }
  }
  if (overGuard(avx2, sym->n, b)) return LA_ERR_SOLVE_OVERFLOW;

  for (int32_t s = numSNodes - 1; s >= 0; s--) {
    int32_t first = start[s];
    int32_t c = start[s + 1] - first, r = (int32_t)(rowBegin[s + 1] - rowBegin[s]);
    const int32_t* rows = rowList + rowBegin[s];
    const double* F = factor + factorBegin[s];
    const int32_t* piv = pivots + first;
    if (c == 1 && piv[0] == 0 && r < 9) {
      backwardOne(b, first, rows, F, r);
    } else if (r < 9 + c && smallPlain(c, piv)) {
      if (c == 2)
        backwardSmall<2>(b, first, rows, F, r);
      else if (c == 3)
        backwardSmall<3>(b, first, rows, F, r);
      else
        backwardSmall<4>(b, first, rows, F, r);
    } else if (nb > 0 && c > nb) {
      gatherSNode(a, b, rows, first, r, c);
      backwardWide(a, F, nb, r, c, piv);
      // The rows below are only read on the way back.
      memcpy(b + first, a, sizeof(double) * (size_t)c);
    } else {
      const double* T = copyPairs && copyPairs[first] >= 0 ? copies + copyBegin[s] : nullptr;
      backwardNarrow(b, first, rows, F, r, c, piv, a, avx2, T);
    }
  }
  return overGuard(avx2, sym->n, b) ? LA_ERR_SOLVE_OVERFLOW : LA_OK;
}

LA_SWEEP_CLONES int32_t supernodalSolve(int32_t mode, double* a, LASymbolic* sym, double* b,
                                        int32_t nb) {
  static const bool avx2 = hxk::avx2Available();
  int32_t n = sym->n;
  bool moved = sym->solveMoved != 0;
  const int32_t* rowList = moved ? sym->solveRowList : sym->rowList;
  // The sweeps run on x in the solve's order: b, gathered from a in mode 0;
  // in mode 1 b is in analysis order, which the solve's order may move.
  double* x = b;
  double* buf = a;
  if (mode == 0) {
    gather(avx2, n, moved ? sym->solvePerm : sym->perm, a, b);
  } else if (moved) {
    gather(avx2, n, sym->solvePos, b, a);
    x = a;
    buf = b;
  }
  int32_t status = sweeps(x, buf, sym, rowList, nb, avx2);
  if (status) return status;
  if (mode == 0) {
    if (moved || sym->invPerm) {
      gather(avx2, n, moved ? sym->solveInvPerm : sym->invPerm, b, a);
    } else {
      const int32_t* perm = sym->perm;
      for (int32_t i = 0; i < n; i++) a[perm[i]] = b[i];
    }
  } else if (moved) {
    const int32_t* pos = sym->solvePos;
    for (int32_t i = 0; i < n; i++) b[pos[i]] = a[i];
  }
  return LA_OK;
}

}  // namespace

int64_t laDiagCopyLayout(LASymbolic* sym) {
  int32_t nb = sym->blockSize;
  int64_t total = 0;
  sym->diagCopyBegin[0] = 0;
  for (int32_t s = 0; s < sym->numSNodes; s++) {
    int64_t c = sym->snodeStart[s + 1] - sym->snodeStart[s];
    if (c >= 2 && c <= LA_DIAG_COPY_COLS && (nb == 0 || c <= nb)) total += c * c + 3 * c;
    sym->diagCopyBegin[s + 1] = total;
  }
  return total;
}

void laBuildDiagCopies(LASymbolic* sym) {
  sym->solveMoved = 0;
  if (!sym->diagCopyPairs || !sym->pivots) return;
  // The copies pay where the sweeps take four values a step; the plain
  // copy of the sweeps does better on the factor itself.
  if (!hxk::avx2Available()) {
    for (int32_t s = 0; s < sym->numSNodes; s++) sym->diagCopyPairs[sym->snodeStart[s]] = -1;
    return;
  }
  // Solve place i holds analysis position pos[i]: a block's interchanges,
  // composed, move its places.
  int32_t* pos = sym->solvePos;
  for (int32_t i = 0; i < sym->n; i++) pos[i] = i;
  bool moved = false;
  for (int32_t s = 0; s < sym->numSNodes; s++) {
    int32_t first = sym->snodeStart[s];
    int32_t c = sym->snodeStart[s + 1] - first;
    int32_t* pairs = sym->diagCopyPairs + first;
    int32_t* q = pos + first;
    const int32_t* piv = sym->pivots + first;
    pairs[0] = -1;
    if (sym->diagCopyBegin[s + 1] == sym->diagCopyBegin[s] || plainPivots(piv, c)) continue;
    int32_t r = (int32_t)(sym->rowBegin[s + 1] - sym->rowBegin[s]);
    const double* F = sym->factor + sym->factorBegin[s];
    double* T = sym->diagCopy + sym->diagCopyBegin[s];
    for (int32_t j = 0; j < c; j++)
      for (int32_t i = 0; i < c; i++) T[i + (int64_t)j * c] = i >= j ? F[i + (int64_t)j * r] : 0.0;
    bool valid = true;
    int32_t count = 0;
    for (int32_t k = 0; k < c && valid;) {
      // The interchange of step k moves rows a and p of every column before
      // k; the pair's own columns see it before their update.
      int32_t a = k, p = piv[k], step = 1;
      if (p < 0) {
        a = k + 1;
        p = -p;
        step = 2;
        valid = a < c && piv[a] == piv[k];
        if (!valid) break;
        T[k + (int64_t)a * c] = T[a + (int64_t)k * c];
        T[a + (int64_t)k * c] = 0.0;
        pairs[1 + count++] = k;
      }
      if (p < a || p >= c) {
        valid = false;
        break;
      }
      if (p != a) {
        int32_t tq = q[a];
        q[a] = q[p];
        q[p] = tq;
        for (int32_t j = 0; j < k; j++) {
          double t = T[a + (int64_t)j * c];
          T[a + (int64_t)j * c] = T[p + (int64_t)j * c];
          T[p + (int64_t)j * c] = t;
        }
      }
      k += step;
    }
    // A record that the copy cannot express is left to the sweeps that read
    // the factor itself, in the factor's own order.
    if (!valid) {
      for (int32_t k = 0; k < c; k++) q[k] = first + k;
      continue;
    }
    pairs[0] = count;
    for (int32_t k = 0; k < c; k++) moved |= q[k] != first + k;
    // D: the 1x1 pivots and, per pair, the constants of its solve, made as
    // the solve of the factor itself makes them.
    double* D = T + (int64_t)c * c;
    double* pair = D + c;
    for (int32_t k = 0; k < c;) {
      if (piv[k] >= 0) {
        D[k] = T[k + (int64_t)k * c];
        k += 1;
      } else {
        double* e = pair + 2 * k;
        double d = T[k + (int64_t)(k + 1) * c];
        e[0] = d;
        e[1] = T[k + (int64_t)k * c] / d;
        e[2] = T[k + 1 + (int64_t)(k + 1) * c] / d;
        e[3] = e[1] * e[2] - 1.0;
        D[k] = D[k + 1] = 1.0;
        k += 2;
      }
    }
  }
  sym->solveMoved = moved;
  if (!moved) return;
  int32_t n = sym->n;
  int32_t* place = sym->solveInvPerm;  // for now: analysis position -> place
  for (int32_t i = 0; i < n; i++) place[pos[i]] = i;
  int64_t entries = sym->rowBegin[sym->numSNodes];
  for (int64_t e = 0; e < entries; e++) sym->solveRowList[e] = place[sym->rowList[e]];
  for (int32_t i = 0; i < n; i++) sym->solvePerm[i] = sym->perm[pos[i]];
  for (int32_t i = 0; i < n; i++) sym->solveInvPerm[sym->solvePerm[i]] = i;
}

int32_t ldl_solve(int32_t mode, double* a, LASymbolic* sym, double* b) {
  return supernodalSolve(mode, a, sym, b, 0);
}

int32_t ldl_psolve(int32_t mode, double* a, LASymbolic* sym, double* b) {
  return supernodalSolve(mode, a, sym, b, sym->blockSize);
}

HALVEX_EXPORT int32_t LA_SolveMatrixLDL(int32_t mode, const int32_t* colBegin,
                                        const int32_t* rowIndex, const double* value, double* x,
                                        LAEnv* env, LASymbolic* symbolic, LANumeric* numeric) {
  if (!env || !env->pool || !symbolic || !numeric || symbolic->kind != 1) return LA_ERR_INTERNAL;
  LASymbolic* sym = symbolic;
  int32_t n = sym->n;
  if (n == 0) return LA_OK;
  if (!sym->factor || !sym->rowList || !numeric->scratch) return LA_ERR_INTERNAL;
  if (!x) return LA_ERR_INTERNAL;
  LATriangularSolveFn solve = sym->threaded ? ldl_psolve : ldl_solve;
  bool fgmres = env->useFgmres == 1;

  // A factor with replaced pivots is one of a nearby matrix: always refine it.
  int32_t limit = env->maxRefine;
  if (limit == 0 && sym->numPerturbed > 0) limit = fgmres ? 64 : 2;
  if (limit > n) limit = n;
  // Refinement multiplies with the matrix; without one it cannot run.
  if (limit > 0 && (!colBegin || (colBegin[n] > 0 && (!rowIndex || !value))))
    return LA_ERR_INTERNAL;

  double* scratch = static_cast<double*>(numeric->scratch);
  double* slice0 = scratch;
  double* correction = scratch + n;
  double* saved = nullptr;
  if (limit >= 1) {
    if (fgmres) {
      saved = static_cast<double*>(poolAlloc(env->pool, (int64_t)n * 8, 0));
      if (!saved) return LA_ERR_MEMORY;
    } else {
      saved = scratch + 2 * (int64_t)n;
    }
    memcpy(saved, x, sizeof(double) * (size_t)n);
  }

  int32_t status = mode == 0 ? solve(0, x, sym, slice0) : solve(1, slice0, sym, x);
  if (status || limit == 0) {
    if (fgmres && saved) poolFree(env->pool, saved);
    return status;
  }

  if (fgmres) {
    int32_t mMax = env->fgmresMaxRestart < n ? env->fgmresMaxRestart : n;
    // Left to the implementer: a first restart longer than the longest one
    // allowed starts at the longest, since the work space is sized for it.
    int32_t m = env->fgmresRestart < mMax ? env->fgmresRestart : mMax;
    status = FGMRES(env->refineTol, LA_REFINE_STAGNATION, n, colBegin, rowIndex, value, saved,
                    mode, limit, m, mMax, 0, env->orthoScheme, env, sym, solve,
                    &env->backwardError, x, scratch);
    poolFree(env->pool, saved);
    return status;
  }

  // Plain refinement: the full limit, no convergence test.
  for (int32_t it = 0; it < limit; it++) {
    double* d = correction;
    memcpy(d, saved, sizeof(double) * (size_t)n);
    for (int32_t j = 0; j < n; j++) {
      double xj = x[j];
      for (int32_t k = colBegin[j]; k < colBegin[j + 1]; k++) d[rowIndex[k]] -= value[k] * xj;
    }
    status = mode == 0 ? solve(0, d, sym, slice0) : solve(1, slice0, sym, d);
    if (status) return status;
    for (int32_t i = 0; i < n; i++) x[i] += d[i];
  }
  return LA_OK;
}

HALVEX_EXPORT double LA_CalculateInfNormResidual(int32_t n, const int32_t* colBegin,
                                                 const int32_t* rowIndex, const double* value,
                                                 const double* x, const double* rhs,
                                                 double* residual) {
  if (n <= 0 || !colBegin || !x || !rhs || !residual) return 0.0;
  double normA = 0.0, normB = 0.0, normX = 0.0, normR = 0.0;
  for (int32_t i = 0; i < n; i++) {
    residual[i] = -rhs[i];
    if (fabs(rhs[i]) > normB) normB = fabs(rhs[i]);
    if (fabs(x[i]) > normX) normX = fabs(x[i]);
  }
  for (int32_t j = 0; j < n; j++) {
    double sum = 0.0;
    for (int32_t k = colBegin[j]; k < colBegin[j + 1]; k++) {
      residual[rowIndex[k]] += value[k] * x[j];
      sum += fabs(value[k]);
    }
    if (sum > normA) normA = sum;
  }
  for (int32_t i = 0; i < n; i++)
    if (fabs(residual[i]) > normR) normR = fabs(residual[i]);
  if (normB == 0.0) return 0.0;
  return normR / (normB + normA * normX);
}
