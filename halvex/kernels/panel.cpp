// The one inner product of the level-3 family: packed rows of A against
// packed rows of B, both running along the summation index at unit stride,
// so every tile is a set of dot products that the vector units take in
// lanes.  A tile's sums reach C once per call, i.e. once per K-panel.
#include "kernels/panel.h"
#include "kernels/vec.h"

#include <immintrin.h>
#include <stdint.h>
#include <string.h>

namespace hxk {

namespace {

// Columns of the B panel taken per sweep over the rows of A.  24 packed rows
// (18 KiB) stay in L1 while all row groups of the A block pass over them;
// a multiple of 3 so that tiles never straddle two sweeps.
constexpr int kSweep = 24;

// How many columns ahead of the running tile C is prefetched.
constexpr int kAhead = 9;

inline int imin(int a, int b) { return a < b ? a : b; }

// Does entry (i, j) belong to the shape?
inline bool inShape(int i, int j, PanelShape shape) {
  return shape == PANEL_FULL || (shape == PANEL_LOWER ? i >= j : i <= j);
}

// Adds an R by Cn tile of sums (tile[c*4 + r]) into C entry by entry, for the
// ragged edges and the tiles that the diagonal cuts.
inline void applyEdge(double* C, int ldc, const double* tile, int i, int j, int rows, int cols,
                      bool minus, PanelShape shape) {
  for (int c = 0; c < cols; ++c)
    for (int r = 0; r < rows; ++r) {
      if (!inShape(i + r, j + c, shape)) continue;
      double& t = C[at(i + r, j + c, ldc)];
      t = minus ? t - tile[c * 4 + r] : t + tile[c * 4 + r];
    }
}

}  // namespace

// ---- portable path: 4 by 2 tiles, two lanes ------------------------------------

void panelUpdatePortable(double* C, int ldc, const double* pA, const double* pB, int m, int n,
                         int k, bool minus, PanelShape shape) {
  if (m <= 0 || n <= 0 || k <= 0) return;
  const int kv = k & ~1;
  double tile[8];
  for (int jc = 0; jc < n; jc += kSweep) {
    const int je = imin(n, jc + kSweep);
    for (int i = 0; i < m; i += 4) {
      // Rows past the end repeat the last one; their sums are thrown away.
      const double* a[4];
      for (int r = 0; r < 4; ++r) a[r] = pA + (size_t)imin(i + r, m - 1) * kBlock;
      for (int j = jc; j < je; j += 2) {
        if (shape == PANEL_LOWER && j > i + 3) break;
        if (shape == PANEL_UPPER && j + 1 < i) continue;
        const double* b0 = pB + (size_t)j * kBlock;
        const double* b1 = pB + (size_t)imin(j + 1, n - 1) * kBlock;
        v2d s[4][2] = {};
        for (int q = 0; q < kv; q += 2) {
          const v2d y0 = load2(b0 + q), y1 = load2(b1 + q);
          for (int r = 0; r < 4; ++r) {
            const v2d x = load2(a[r] + q);
            s[r][0] += x * y0;
            s[r][1] += x * y1;
          }
        }
        for (int r = 0; r < 4; ++r)
          for (int c = 0; c < 2; ++c) {
            double t = s[r][c][0] + s[r][c][1];
            if (kv < k) t += a[r][kv] * (c ? b1 : b0)[kv];
            tile[c * 4 + r] = t;
          }
        applyEdge(C, ldc, tile, i, j, imin(4, m - i), imin(2, n - j), minus, shape);
      }
    }
  }
}

// ---- AVX2 + FMA path: 4 by 3 tiles, four lanes ---------------------------------

__attribute__((target("avx2,fma"))) static inline __m256d sum4(__m256d r0, __m256d r1,
                                                               __m256d r2, __m256d r3) {
  // Lane r of the result is the sum of the four lanes of r<r>.
  const __m256d t0 = _mm256_hadd_pd(r0, r1);
  const __m256d t1 = _mm256_hadd_pd(r2, r3);
  return _mm256_add_pd(_mm256_permute2f128_pd(t0, t1, 0x20),
                       _mm256_permute2f128_pd(t0, t1, 0x31));
}

__attribute__((target("avx2,fma"))) void panelUpdateAvx2(double* C, int ldc, const double* pA,
                                                         const double* pB, int m, int n, int k,
                                                         bool minus, PanelShape shape) {
  if (m <= 0 || n <= 0 || k <= 0) return;
  // No peeling to an aligned start: that would make the lane each product
  // lands in, and so the rounding of the sums, depend on where the pool put
  // the buffer, and the same problem solved twice could take two different
  // paths.  Unaligned loads cost little next to that.
  const int kv = k & ~3;
  const int kr = k - kv;
  const __m256i tailMask =
      _mm256_set_epi64x(kr > 3 ? -1 : 0, kr > 2 ? -1 : 0, kr > 1 ? -1 : 0, kr > 0 ? -1 : 0);
  alignas(32) double tile[12];
  for (int jc = 0; jc < n; jc += kSweep) {
    const int je = imin(n, jc + kSweep);
    for (int i = 0; i < m; i += 4) {
      const double* a0 = pA + (size_t)i * kBlock;
      const double* a1 = pA + (size_t)imin(i + 1, m - 1) * kBlock;
      const double* a2 = pA + (size_t)imin(i + 2, m - 1) * kBlock;
      const double* a3 = pA + (size_t)imin(i + 3, m - 1) * kBlock;
      for (int j = jc; j < je; j += 3) {
        if (shape == PANEL_LOWER && j > i + 3) break;
        if (shape == PANEL_UPPER && j + 2 < i) continue;
        const double* b0 = pB + (size_t)j * kBlock;
        const double* b1 = pB + (size_t)imin(j + 1, n - 1) * kBlock;
        const double* b2 = pB + (size_t)imin(j + 2, n - 1) * kBlock;
        {
          // A large C streams from memory once per K-panel; ask for the
          // tile a few steps ahead so that its lines are there in time.
          const int last = imin(3, m - 1 - i);
          for (int c = 0; c < 3; ++c) {
            const double* cp = C + at(i, imin(j + kAhead + c, n - 1), ldc);
            _mm_prefetch((const char*)cp, _MM_HINT_T0);
            _mm_prefetch((const char*)(cp + last), _MM_HINT_T0);
          }
        }
        __m256d c00 = _mm256_setzero_pd(), c01 = c00, c02 = c00, c10 = c00, c11 = c00,
                c12 = c00, c20 = c00, c21 = c00, c22 = c00, c30 = c00, c31 = c00, c32 = c00;
#define HXK_STEP(LOADB, LOADA)                                              \
  {                                                                         \
    const __m256d y0 = LOADB(b0), y1 = LOADB(b1), y2 = LOADB(b2);           \
    __m256d x = LOADA(a0);                                                  \
    c00 = _mm256_fmadd_pd(x, y0, c00);                                      \
    c01 = _mm256_fmadd_pd(x, y1, c01);                                      \
    c02 = _mm256_fmadd_pd(x, y2, c02);                                      \
    x = LOADA(a1);                                                          \
    c10 = _mm256_fmadd_pd(x, y0, c10);                                      \
    c11 = _mm256_fmadd_pd(x, y1, c11);                                      \
    c12 = _mm256_fmadd_pd(x, y2, c12);                                      \
    x = LOADA(a2);                                                          \
    c20 = _mm256_fmadd_pd(x, y0, c20);                                      \
    c21 = _mm256_fmadd_pd(x, y1, c21);                                      \
    c22 = _mm256_fmadd_pd(x, y2, c22);                                      \
    x = LOADA(a3);                                                          \
    c30 = _mm256_fmadd_pd(x, y0, c30);                                      \
    c31 = _mm256_fmadd_pd(x, y1, c31);                                      \
    c32 = _mm256_fmadd_pd(x, y2, c32);                                      \
  }
        int q = 0;
#define HXK_LOAD(p) _mm256_loadu_pd((p) + q)
        for (; q < kv; q += 4) HXK_STEP(HXK_LOAD, HXK_LOAD)
#undef HXK_LOAD
        if (kr) {
          // The panel rows run on past k with whatever the buffer holds;
          // masked loads keep those values out of the sums.
#define HXK_MLOAD(p) _mm256_maskload_pd((p) + kv, tailMask)
          HXK_STEP(HXK_MLOAD, HXK_MLOAD)
#undef HXK_MLOAD
        }
#undef HXK_STEP
        const __m256d s0 = sum4(c00, c10, c20, c30);
        const __m256d s1 = sum4(c01, c11, c21, c31);
        const __m256d s2 = sum4(c02, c12, c22, c32);
        const bool inside =
            shape == PANEL_FULL || (shape == PANEL_LOWER ? i >= j + 2 : i + 3 <= j);
        const bool whole = i + 4 <= m && j + 3 <= n && inside;
        if (whole) {
          double* t0 = C + at(i, j, ldc);
          double* t1 = t0 + ldc;
          double* t2 = t1 + ldc;
          if (minus) {
            _mm256_storeu_pd(t0, _mm256_sub_pd(_mm256_loadu_pd(t0), s0));
            _mm256_storeu_pd(t1, _mm256_sub_pd(_mm256_loadu_pd(t1), s1));
            _mm256_storeu_pd(t2, _mm256_sub_pd(_mm256_loadu_pd(t2), s2));
          } else {
            _mm256_storeu_pd(t0, _mm256_add_pd(_mm256_loadu_pd(t0), s0));
            _mm256_storeu_pd(t1, _mm256_add_pd(_mm256_loadu_pd(t1), s1));
            _mm256_storeu_pd(t2, _mm256_add_pd(_mm256_loadu_pd(t2), s2));
          }
        } else {
          _mm256_store_pd(tile, s0);
          _mm256_store_pd(tile + 4, s1);
          _mm256_store_pd(tile + 8, s2);
          applyEdge(C, ldc, tile, i, j, imin(4, m - i), imin(3, n - j), minus, shape);
        }
      }
    }
  }
}

// ---- AVX-512 path: 16 by 8 tiles, rows in lanes -------------------------------

// GCC 12 takes the undefined pass-through value inside its AVX-512
// intrinsics for an uninitialised variable.
#pragma GCC diagnostic push
#if !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

// Eight panel rows turned into k vectors of eight lanes: out[q*8 + r] =
// p[r][q].  Rows past `rows` become zeros, and so do the values past k.
__attribute__((target("avx512f,avx2,fma"))) static inline void turnRows(double* out,
                                                                        const double* p,
                                                                        int rows, int k) {
  const int kv = k & ~7;
  const __mmask8 tail = (__mmask8)((1u << (k - kv)) - 1u);
  for (int q = 0; q < k; q += 8) {
    const __mmask8 mk = q < kv ? (__mmask8)0xFF : tail;
    __m512d r[8];
    for (int i = 0; i < 8; ++i)
      r[i] = i < rows ? _mm512_maskz_loadu_pd(mk, p + (size_t)i * kBlock + q) : _mm512_setzero_pd();
    // 8 by 8 transpose in three rounds of shuffles.
    __m512d t[8];
    for (int i = 0; i < 8; i += 2) {
      t[i] = _mm512_unpacklo_pd(r[i], r[i + 1]);
      t[i + 1] = _mm512_unpackhi_pd(r[i], r[i + 1]);
    }
    for (int i = 0; i < 8; i += 4)
      for (int h = 0; h < 2; ++h) {
        r[i + h] = _mm512_shuffle_f64x2(t[i + h], t[i + 2 + h], 0x88);
        r[i + 2 + h] = _mm512_shuffle_f64x2(t[i + h], t[i + 2 + h], 0xDD);
      }
    for (int h = 0; h < 4; ++h) {
      t[h] = _mm512_shuffle_f64x2(r[h], r[h + 4], 0x88);
      t[h + 4] = _mm512_shuffle_f64x2(r[h], r[h + 4], 0xDD);
    }
    // t[c] now holds column q + c across the eight rows.
    for (int c = 0; c < 8 && q + c < k; ++c) _mm512_store_pd(out + (size_t)(q + c) * 8, t[c]);
  }
}

// The rows of A go down the lanes and the columns of B are broadcast, so
// that each entry of C is one chain of multiply-adds along k in a register
// of its own: no sums across lanes at the end, and the same speed for a
// short k as for a long one.
__attribute__((target("avx512f,avx2,fma"))) void panelUpdateAvx512(
    double* C, int ldc, const double* pA, const double* pB, int m, int n, int k, bool minus,
    PanelShape shape) {
  if (m <= 0 || n <= 0 || k <= 0) return;
  alignas(64) double turned[2 * kBlock * 8];
  for (int i = 0; i < m; i += 16) {
    const int rows = imin(16, m - i);
    turnRows(turned, pA + (size_t)i * kBlock, imin(8, rows), k);
    if (rows > 8) turnRows(turned + kBlock * 8, pA + (size_t)(i + 8) * kBlock, rows - 8, k);
    const double* a0 = turned;
    const double* a1 = turned + kBlock * 8;
    for (int j = 0; j < n; j += 8) {
      if (shape == PANEL_LOWER && j > i + 15) break;
      if (shape == PANEL_UPPER && j + 7 < i) continue;
      const int cols = imin(8, n - j);
      const double* b[8];
      for (int c = 0; c < 8; ++c) b[c] = pB + (size_t)imin(j + c, n - 1) * kBlock;
      __m512d x0 = _mm512_setzero_pd(), x1 = x0, x2 = x0, x3 = x0, x4 = x0, x5 = x0, x6 = x0,
              x7 = x0, y0 = x0, y1 = x0, y2 = x0, y3 = x0, y4 = x0, y5 = x0, y6 = x0, y7 = x0;
      if (rows > 8) {
        for (int q = 0; q < k; ++q) {
          const __m512d u = _mm512_load_pd(a0 + (size_t)q * 8);
          const __m512d v = _mm512_load_pd(a1 + (size_t)q * 8);
#define HXK_COL(c, X, Y)                                  \
  {                                                       \
    const __m512d w = _mm512_set1_pd(b[c][q]);            \
    X = _mm512_fmadd_pd(u, w, X);                         \
    Y = _mm512_fmadd_pd(v, w, Y);                         \
  }
          HXK_COL(0, x0, y0) HXK_COL(1, x1, y1) HXK_COL(2, x2, y2) HXK_COL(3, x3, y3)
          HXK_COL(4, x4, y4) HXK_COL(5, x5, y5) HXK_COL(6, x6, y6) HXK_COL(7, x7, y7)
#undef HXK_COL
        }
      } else {
        for (int q = 0; q < k; ++q) {
          const __m512d u = _mm512_load_pd(a0 + (size_t)q * 8);
          x0 = _mm512_fmadd_pd(u, _mm512_set1_pd(b[0][q]), x0);
          x1 = _mm512_fmadd_pd(u, _mm512_set1_pd(b[1][q]), x1);
          x2 = _mm512_fmadd_pd(u, _mm512_set1_pd(b[2][q]), x2);
          x3 = _mm512_fmadd_pd(u, _mm512_set1_pd(b[3][q]), x3);
          x4 = _mm512_fmadd_pd(u, _mm512_set1_pd(b[4][q]), x4);
          x5 = _mm512_fmadd_pd(u, _mm512_set1_pd(b[5][q]), x5);
          x6 = _mm512_fmadd_pd(u, _mm512_set1_pd(b[6][q]), x6);
          x7 = _mm512_fmadd_pd(u, _mm512_set1_pd(b[7][q]), x7);
        }
      }
      const __m512d xs[8] = {x0, x1, x2, x3, x4, x5, x6, x7};
      const __m512d ys[8] = {y0, y1, y2, y3, y4, y5, y6, y7};
      // Rows of the tile that column c may touch: all of them, or those on
      // the shape's side of the diagonal; masks keep the others as they are.
      for (int c = 0; c < cols; ++c) {
        const int d = j + c - i;  // the tile row on the diagonal
        const int lo = shape == PANEL_LOWER ? (d > 0 ? d : 0) : 0;
        const int hi = shape == PANEL_UPPER ? (d < rows - 1 ? d : rows - 1) : rows - 1;
        if (lo > hi) continue;
        const unsigned bits = (unsigned)((2u << hi) - 1u) & ~(unsigned)((1u << lo) - 1u);
        const __mmask8 k0 = (__mmask8)(bits & 0xFFu), k1 = (__mmask8)(bits >> 8);
        double* t = C + at(i, j + c, ldc);
        if (k0) {
          __m512d t0 = _mm512_maskz_loadu_pd(k0, t);
          t0 = minus ? _mm512_sub_pd(t0, xs[c]) : _mm512_add_pd(t0, xs[c]);
          _mm512_mask_storeu_pd(t, k0, t0);
        }
        if (k1) {
          __m512d t1 = _mm512_maskz_loadu_pd(k1, t + 8);
          t1 = minus ? _mm512_sub_pd(t1, ys[c]) : _mm512_add_pd(t1, ys[c]);
          _mm512_mask_storeu_pd(t + 8, k1, t1);
        }
      }
    }
  }
}

#pragma GCC diagnostic pop

// ---- 4 by 4 triangles of the left-side solves ------------------------------

__attribute__((target("avx2,fma"))) static inline void transpose4(__m256d& c0, __m256d& c1,
                                                                  __m256d& c2, __m256d& c3) {
  const __m256d t0 = _mm256_unpacklo_pd(c0, c1), t1 = _mm256_unpackhi_pd(c0, c1);
  const __m256d t2 = _mm256_unpacklo_pd(c2, c3), t3 = _mm256_unpackhi_pd(c2, c3);
  c0 = _mm256_permute2f128_pd(t0, t2, 0x20);
  c1 = _mm256_permute2f128_pd(t1, t3, 0x20);
  c2 = _mm256_permute2f128_pd(t0, t2, 0x31);
  c3 = _mm256_permute2f128_pd(t1, t3, 0x31);
}

// Four columns at once: their four rows are turned so that each vector holds
// one row across the columns, the substitution runs on whole vectors (four
// divisions in one instruction), and the rows are turned back.
__attribute__((target("avx2,fma"))) int triSolve4Avx2(double* B, int ldb, double* pB,
                                                      const double* t, int j0, int j1,
                                                      bool upper) {
#define T(r, q) _mm256_broadcast_sd(t + (r) * kBlock + (q))
  const __m256d d0 = T(0, 0), d1 = T(1, 1), d2 = T(2, 2), d3 = T(3, 3);
  int j = j0;
  for (; j + 4 <= j1; j += 4) {
    double* b = B + at(0, j, ldb);
    __m256d x0 = _mm256_loadu_pd(b), x1 = _mm256_loadu_pd(b + ldb),
            x2 = _mm256_loadu_pd(b + 2 * (size_t)ldb), x3 = _mm256_loadu_pd(b + 3 * (size_t)ldb);
    transpose4(x0, x1, x2, x3);
    if (!upper) {
      x0 = _mm256_div_pd(x0, d0);
      x1 = _mm256_div_pd(_mm256_fnmadd_pd(T(1, 0), x0, x1), d1);
      x2 = _mm256_div_pd(_mm256_fnmadd_pd(T(2, 1), x1, _mm256_fnmadd_pd(T(2, 0), x0, x2)), d2);
      x3 = _mm256_div_pd(
          _mm256_fnmadd_pd(T(3, 2), x2,
                           _mm256_fnmadd_pd(T(3, 1), x1, _mm256_fnmadd_pd(T(3, 0), x0, x3))),
          d3);
    } else {
      x3 = _mm256_div_pd(x3, d3);
      x2 = _mm256_div_pd(_mm256_fnmadd_pd(T(2, 3), x3, x2), d2);
      x1 = _mm256_div_pd(_mm256_fnmadd_pd(T(1, 2), x2, _mm256_fnmadd_pd(T(1, 3), x3, x1)), d1);
      x0 = _mm256_div_pd(
          _mm256_fnmadd_pd(T(0, 1), x1,
                           _mm256_fnmadd_pd(T(0, 2), x2, _mm256_fnmadd_pd(T(0, 3), x3, x0))),
          d0);
    }
    transpose4(x0, x1, x2, x3);
    _mm256_storeu_pd(b, x0);
    _mm256_storeu_pd(b + ldb, x1);
    _mm256_storeu_pd(b + 2 * (size_t)ldb, x2);
    _mm256_storeu_pd(b + 3 * (size_t)ldb, x3);
    double* p = pB + (size_t)j * kBlock;
    _mm256_storeu_pd(p, x0);
    _mm256_storeu_pd(p + kBlock, x1);
    _mm256_storeu_pd(p + 2 * kBlock, x2);
    _mm256_storeu_pd(p + 3 * kBlock, x3);
  }
#undef T
  return j;
}

// NV vectors of four rows of B at a time, each column of the group one vector
// down the rows; the NV substitutions are independent, so their chains of
// dependent operations overlap.  The solved values are then turned into
// panel rows of X.
template <int NV>
__attribute__((target("avx2,fma"))) static inline void rightSolveRows(double* B, int ldb,
                                                                      double* X, const double* t,
                                                                      int r, int g) {
  __m256d x[kRightGroupMax][NV];
  for (int a = 0; a < g; ++a) {
    __m256d v[NV];
    for (int u = 0; u < NV; ++u) v[u] = _mm256_loadu_pd(B + at(r + 4 * u, a, ldb));
    for (int q = 0; q < a; ++q) {
      const __m256d f = _mm256_broadcast_sd(t + a * kBlock + q);
      for (int u = 0; u < NV; ++u) v[u] = _mm256_fnmadd_pd(f, x[q][u], v[u]);
    }
    const __m256d d = _mm256_broadcast_sd(t + a * kBlock + a);
    for (int u = 0; u < NV; ++u) {
      x[a][u] = _mm256_div_pd(v[u], d);
      _mm256_storeu_pd(B + at(r + 4 * u, a, ldb), x[a][u]);
    }
  }
  for (int u = 0; u < NV; ++u) {
    double* d = X + (size_t)(r + 4 * u) * kBlock;
    int a = 0;
    for (; a + 4 <= g; a += 4) {
      __m256d c0 = x[a][u], c1 = x[a + 1][u], c2 = x[a + 2][u], c3 = x[a + 3][u];
      transpose4(c0, c1, c2, c3);
      _mm256_storeu_pd(d + a, c0);
      _mm256_storeu_pd(d + a + kBlock, c1);
      _mm256_storeu_pd(d + a + 2 * kBlock, c2);
      _mm256_storeu_pd(d + a + 3 * kBlock, c3);
    }
    for (; a < g; ++a) {
      alignas(32) double v[4];
      _mm256_store_pd(v, x[a][u]);
      for (int i = 0; i < 4; ++i) d[a + i * kBlock] = v[i];
    }
  }
}

__attribute__((target("avx2,fma"))) int rightSolveAvx2(double* B, int ldb, double* X,
                                                       const double* t, int rows, int g) {
  int r = 0;
  for (; r + 16 <= rows; r += 16) rightSolveRows<4>(B, ldb, X, t, r, g);
  for (; r + 4 <= rows; r += 4) rightSolveRows<1>(B, ldb, X, t, r, g);
  return r;
}

// A property of the processor, read once; the kernels keep no other state.
bool avx2Available() {
  static const bool yes = (__builtin_cpu_init(), __builtin_cpu_supports("avx2") &&
                                                     __builtin_cpu_supports("fma"));
  return yes;
}

// Versions picked by the same dispatch as the clones; the dispatch is made
// where a call sees them all.
namespace {
__attribute__((target("default"))) int cloneProbe() { return 0; }
__attribute__((target(HXK_CLONE_AVX2))) int cloneProbe() { return 2; }
}  // namespace

int cloneLevel() { return cloneProbe(); }

bool avx512Available() {
  static const bool yes = (__builtin_cpu_init(), avx2Available() &&
                                                     __builtin_cpu_supports("avx512f"));
  return yes;
}

void panelUpdate(double* C, int ldc, const double* pA, const double* pB, int m, int n, int k,
                 bool minus, PanelShape shape) {
  if (avx512Available())
    panelUpdateAvx512(C, ldc, pA, pB, m, n, k, minus, shape);
  else if (avx2Available())
    panelUpdateAvx2(C, ldc, pA, pB, m, n, k, minus, shape);
  else
    panelUpdatePortable(C, ldc, pA, pB, m, n, k, minus, shape);
}

// ---- packing -----------------------------------------------------------------

// Blocks of 4 by 4 are turned in registers: four loads down the columns,
// four stores along the panel rows.
__attribute__((target("avx2,fma"))) static int packGatherAvx2(double* dst, const double* src,
                                                              int rows, int kb, int ld) {
  const int kv = kb & ~3;
  int r = 0;
  for (; r + 4 <= rows; r += 4) {
    double* d = dst + (size_t)r * kBlock;
    const double* s = src + r;
    int q = 0;
    for (; q < kv; q += 4) {
      const double* sq = s + (size_t)q * ld;
      __m256d c0 = _mm256_loadu_pd(sq), c1 = _mm256_loadu_pd(sq + ld),
              c2 = _mm256_loadu_pd(sq + 2 * (size_t)ld), c3 = _mm256_loadu_pd(sq + 3 * (size_t)ld);
      transpose4(c0, c1, c2, c3);
      _mm256_storeu_pd(d + q, c0);
      _mm256_storeu_pd(d + q + kBlock, c1);
      _mm256_storeu_pd(d + q + 2 * kBlock, c2);
      _mm256_storeu_pd(d + q + 3 * kBlock, c3);
    }
    for (; q < kb; ++q) {
      const double* sq = s + (size_t)q * ld;
      d[q] = sq[0];
      d[q + kBlock] = sq[1];
      d[q + 2 * kBlock] = sq[2];
      d[q + 3 * kBlock] = sq[3];
    }
  }
  return r;
}

void packGather(double* dst, const double* src, int rows, int kb, int ld) {
  int r = 0;
  if (avx2Available()) r = packGatherAvx2(dst, src, rows, kb, ld);
  // Four rows at a time: each column of the source gives four neighbouring
  // values, written to four panel rows in step.
  for (; r + 4 <= rows; r += 4) {
    double* d = dst + (size_t)r * kBlock;
    const double* s = src + r;
    for (int q = 0; q < kb; ++q) {
      const double* sq = s + (size_t)q * ld;
      d[q] = sq[0];
      d[q + kBlock] = sq[1];
      d[q + 2 * kBlock] = sq[2];
      d[q + 3 * kBlock] = sq[3];
    }
  }
  for (; r < rows; ++r) {
    double* d = dst + (size_t)r * kBlock;
    for (int q = 0; q < kb; ++q) d[q] = src[r + (size_t)q * ld];
  }
}

void packCopy(double* dst, const double* src, int rows, int kb, int ld) {
  if (kb <= 0) return;
  for (int r = 0; r < rows; ++r) {
    double* d = dst + (size_t)r * kBlock;
    const double* s = src + (size_t)r * ld;
    if (kb < 13) {
      for (int q = 0; q < kb; ++q) d[q] = s[q];
    } else {
      memcpy(d, s, sizeof(double) * (size_t)kb);
    }
  }
}

}  // namespace hxk
