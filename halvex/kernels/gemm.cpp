// Matrix products and symmetric rank-k updates.  One K-panel of B (all
// columns) is packed once and reused by every 96-row block of A, so that the
// panel product always runs over two packed operands at unit stride: a
// transposed operand packs by plain copies, a plain one by a gather.
#include "kernels/kernels.h"
#include "kernels/panel.h"

#include <string.h>

using hxk::at;
using hxk::kBlock;

namespace {

inline int imin(int a, int b) { return a < b ? a : b; }

void clearColumn(double* c, int len) {
  if (len <= 0) return;
  if (len < 13) {
    for (int i = 0; i < len; ++i) c[i] = 0.0;
  } else {
    memset(c, 0, sizeof(double) * (size_t)len);
  }
}

// C (m by n) := [C] +/- op(A) op(B); op(A) is m by k, op(B) k by n.
void gemmBlocked(bool transA, bool transB, bool clear, bool minus, int m, int n, int k,
                 const double* A, int lda, const double* B, int ldb, double* C, int ldc,
                 double* bufA, double* bufB) {
  if (m <= 0 || n <= 0) return;
  if (clear)
    for (int j = 0; j < n; ++j) clearColumn(C + at(0, j, ldc), m);
  for (int k0 = 0; k0 < k; k0 += kBlock) {
    const int kb = imin(kBlock, k - k0);
    // Panel row j of bufB is column j of op(B) over this K-panel.
    if (transB)
      hxk::packGather(bufB, B + at(0, k0, ldb), n, kb, ldb);
    else
      hxk::packCopy(bufB, B + k0, n, kb, ldb);
    for (int i0 = 0; i0 < m; i0 += kBlock) {
      const int ib = imin(kBlock, m - i0);
      if (transA)
        hxk::packCopy(bufA, A + at(k0, i0, lda), ib, kb, lda);
      else
        hxk::packGather(bufA, A + at(i0, k0, lda), ib, kb, lda);
      hxk::panelUpdate(C + i0, ldc, bufA, bufB, ib, n, kb, minus, hxk::PANEL_FULL);
    }
  }
}

void clearTriangle(bool lower, int n, double* C, int ldc) {
  for (int j = 0; j < n; ++j) {
    if (lower)
      clearColumn(C + at(j, j, ldc), n - j);
    else
      clearColumn(C + at(0, j, ldc), j + 1);
  }
}

// Triangle of C := [C] +/- P Q^T where the K-panels of P and Q are packed
// by the callers' pack functions: packA(k0, kb, i0, ib) fills bufA with rows
// i0.. of P or returns the address of those rows elsewhere; packB fills
// bufB with all n rows of Q.
template <typename PackA, typename PackB>
void syrkBlocked(bool lower, bool clear, bool minus, int n, int k, double* C, int ldc,
                 double* bufB, PackA packA, PackB packB) {
  if (n <= 0) return;
  if (clear) clearTriangle(lower, n, C, ldc);
  for (int k0 = 0; k0 < k; k0 += kBlock) {
    const int kb = imin(kBlock, k - k0);
    packB(k0, kb);
    for (int i0 = 0; i0 < n; i0 += kBlock) {
      const int ib = imin(kBlock, n - i0);
      const double* pa = packA(k0, kb, i0, ib);
      const double* pb = bufB + (size_t)i0 * kBlock;
      if (lower) {
        if (i0 > 0) hxk::panelUpdate(C + i0, ldc, pa, bufB, ib, i0, kb, minus, hxk::PANEL_FULL);
        hxk::panelUpdate(C + at(i0, i0, ldc), ldc, pa, pb, ib, ib, kb, minus, hxk::PANEL_LOWER);
      } else {
        hxk::panelUpdate(C + at(i0, i0, ldc), ldc, pa, pb, ib, ib, kb, minus, hxk::PANEL_UPPER);
        const int rest = n - i0 - ib;
        if (rest > 0)
          hxk::panelUpdate(C + at(i0, i0 + ib, ldc), ldc, pa, pb + (size_t)ib * kBlock, ib, rest,
                           kb, minus, hxk::PANEL_FULL);
      }
    }
  }
}

// A B^T, both n by k.
void syrk2(bool lower, bool clear, bool minus, int n, int k, const double* A, int lda,
           const double* B, int ldb, double* C, int ldc, double* bufA, double* bufB) {
  syrkBlocked(
      lower, clear, minus, n, k, C, ldc, bufB,
      [&](int k0, int kb, int i0, int ib) {
        hxk::packGather(bufA, A + at(i0, k0, lda), ib, kb, lda);
        return (const double*)bufA;
      },
      [&](int k0, int kb) { hxk::packGather(bufB, B + at(0, k0, ldb), n, kb, ldb); });
}

// One operand: its packed K-panel serves as both sides.  trans: A is k by n
// and the product is A^T A.
void syrk1(bool lower, bool trans, bool clear, bool minus, int n, int k, const double* A,
           int lda, double* C, int ldc, double* bufB) {
  syrkBlocked(
      lower, clear, minus, n, k, C, ldc, bufB,
      [&](int, int, int i0, int) { return (const double*)(bufB + (size_t)i0 * kBlock); },
      [&](int k0, int kb) {
        if (trans)
          hxk::packCopy(bufB, A + k0, n, kb, lda);
        else
          hxk::packGather(bufB, A + at(0, k0, lda), n, kb, lda);
      });
}

}  // namespace

// ---- matrix products ----------------------------------------------------------

#define HXK_GEMM(NAME, TA, TB, CLEAR, MINUS)                                        \
  HALVEX_EXPORT void NAME(MY_DGEMM_ARGS) {                                          \
    (void)transa, (void)transb, (void)alpha, (void)beta;                            \
    gemmBlocked(TA, TB, CLEAR, MINUS, *m, *n, *k, A, *lda, B, *ldb, C, *ldc, bufA, \
                bufB);                                                              \
  }
HXK_GEMM(my_dgemm_NN_0p1, false, false, true, false)
HXK_GEMM(my_dgemm_NN_1m1, false, false, false, true)
HXK_GEMM(my_dgemm_NT_0p1, false, true, true, false)
HXK_GEMM(my_dgemm_NT_1m1, false, true, false, true)
HXK_GEMM(my_dgemm_TN_0p1, true, false, true, false)
HXK_GEMM(my_dgemm_TN_1p1, true, false, false, false)
HXK_GEMM(my_dgemm_TN_1m1, true, false, false, true)
HXK_GEMM(my_dgemm_TT_0p1, true, true, true, false)
#undef HXK_GEMM

// Only the cases the system needs: any nonzero beta means 1, and an alpha
// other than 1 beside it means -1.  A general scaling is not wanted here.
HALVEX_EXPORT void my_dgemm(MY_DGEMM_ARGS) {
  const bool ta = *transa != 'N';
  if (ta) {
    if (*transb != 'N')
      my_dgemm_TT_0p1(transa, transb, m, n, k, alpha, A, lda, B, ldb, beta, C, ldc, bufA, bufB);
    else if (*beta != 0.0 && *alpha != 1.0)
      my_dgemm_TN_1m1(transa, transb, m, n, k, alpha, A, lda, B, ldb, beta, C, ldc, bufA, bufB);
    else if (*beta != 0.0)
      my_dgemm_TN_1p1(transa, transb, m, n, k, alpha, A, lda, B, ldb, beta, C, ldc, bufA, bufB);
    else
      my_dgemm_TN_0p1(transa, transb, m, n, k, alpha, A, lda, B, ldb, beta, C, ldc, bufA, bufB);
  } else if (*transb == 'T') {
    if (*beta != 0.0)
      my_dgemm_NT_1m1(transa, transb, m, n, k, alpha, A, lda, B, ldb, beta, C, ldc, bufA, bufB);
    else
      my_dgemm_NT_0p1(transa, transb, m, n, k, alpha, A, lda, B, ldb, beta, C, ldc, bufA, bufB);
  } else {
    if (*beta != 0.0)
      my_dgemm_NN_1m1(transa, transb, m, n, k, alpha, A, lda, B, ldb, beta, C, ldc, bufA, bufB);
    else
      my_dgemm_NN_0p1(transa, transb, m, n, k, alpha, A, lda, B, ldb, beta, C, ldc, bufA, bufB);
  }
}

HALVEX_EXPORT void my_dgemm_kernel_plus(double* C, int ldc, const double* panelA,
                                        const double* panelB, int m, int n, int k) {
  hxk::panelUpdate(C, ldc, panelA, panelB, m, n, k, false, hxk::PANEL_FULL);
}

HALVEX_EXPORT void my_dgemm_kernel_minus(double* C, int ldc, const double* panelA,
                                         const double* panelB, int m, int n, int k) {
  hxk::panelUpdate(C, ldc, panelA, panelB, m, n, k, true, hxk::PANEL_FULL);
}

// ---- symmetric updates ---------------------------------------------------------

#define HXK_SYRK(NAME, LOWER, TRANS, CLEAR, MINUS)                        \
  HALVEX_EXPORT void NAME(MY_DSYRK_ARGS) {                                \
    (void)uplo, (void)trans, (void)alpha, (void)beta, (void)bufA;         \
    syrk1(LOWER, TRANS, CLEAR, MINUS, *n, *k, A, *lda, C, *ldc, bufB);    \
  }
HXK_SYRK(my_dsyrk_LN_0p1, true, false, true, false)
HXK_SYRK(my_dsyrk_LN_1m1, true, false, false, true)
HXK_SYRK(my_dsyrk_UT_0p1, false, true, true, false)
HXK_SYRK(my_dsyrk_UT_1m1, false, true, false, true)
#undef HXK_SYRK

#define HXK_SYRK2(NAME, LOWER, CLEAR, MINUS)                                         \
  HALVEX_EXPORT void NAME(MY_DSYRK2_ARGS) {                                          \
    syrk2(LOWER, CLEAR, MINUS, *n, *k, A, *lda, B, *ldb, C, *ldc, bufA, bufB);       \
  }
HXK_SYRK2(my_dsyrk2_LNT_0p1, true, true, false)
HXK_SYRK2(my_dsyrk2_LNT_1m1, true, false, true)
HXK_SYRK2(my_dsyrk2_UNT_0p1, false, true, false)
HXK_SYRK2(my_dsyrk2_UNT_1m1, false, false, true)
#undef HXK_SYRK2

#define HXK_SYRK2_KERNEL(NAME, MINUS, SHAPE)                                              \
  HALVEX_EXPORT void NAME(double* C, int ldc, const double* panelA, const double* panelB, \
                          int n, int k) {                                                 \
    hxk::panelUpdate(C, ldc, panelA, panelB, n, n, k, MINUS, SHAPE);                      \
  }
HXK_SYRK2_KERNEL(my_dsyrk2_kernel_lower_plus, false, hxk::PANEL_LOWER)
HXK_SYRK2_KERNEL(my_dsyrk2_kernel_lower_minus, true, hxk::PANEL_LOWER)
HXK_SYRK2_KERNEL(my_dsyrk2_kernel_upper_plus, false, hxk::PANEL_UPPER)
HXK_SYRK2_KERNEL(my_dsyrk2_kernel_upper_minus, true, hxk::PANEL_UPPER)
#undef HXK_SYRK2_KERNEL

HALVEX_EXPORT void my_outer_prod(int m, int n, const double* x, const double* y, double* C) {
  if (m < 1 || n < 1) return;
  for (int j = 0; j < n; ++j) {
    const double yj = y[j];
    double* c = C + at(0, j, m);
    for (int i = 0; i < m; ++i) c[i] = yj * x[i];
  }
}
