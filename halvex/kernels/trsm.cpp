// Triangular solves and multiplies with a matrix of 96-blocks.  The
// diagonal blocks are done inline on packed panels, by groups of four rows
// (of twelve or three columns on the right side), with the long dot products
// of each group going through the panel product; the blocks off the
// diagonal are plain panel products.
#include "kernels/kernels.h"
#include "kernels/panel.h"

using hxk::at;
using hxk::kBlock;

namespace {

inline int imin(int a, int b) { return a < b ? a : b; }
inline int imax(int a, int b) { return a > b ? a : b; }

// Columns of B that one pass over the rows of a diagonal block takes: their
// solved parts, packed, stay in L2 while the block's row groups go by.
constexpr int kSolveChunk = 192;

// Width of the column groups of the right-side diagonal blocks.
constexpr int kRightGroup = hxk::kRightGroupMax;

// B (m by n, m <= 96) := T^-1 B with T lower triangular, T(r, q) =
// panelA[r*96 + q].  Solved values go to B and to panel row j of panelB.
void solveLowerLeft(double* B, int ldb, const double* pA, double* pB, int m, int n) {
  for (int jc = 0; jc < n; jc += kSolveChunk) {
    const int jn = imin(kSolveChunk, n - jc);
    for (int i = 0; i < m; i += 4) {
      const int ir = imin(4, m - i);
      if (i > 0)
        hxk::panelUpdate(B + at(i, jc, ldb), ldb, pA + (size_t)i * kBlock,
                         pB + (size_t)jc * kBlock, ir, jn, i, true, hxk::PANEL_FULL);
      const double* t = pA + (size_t)i * kBlock + i;  // t[r*96 + q] = T(i+r, i+q)
      int j = jc;
      if (ir == 4 && hxk::avx2Available())
        j = hxk::triSolve4Avx2(B + i, ldb, pB + i, t, jc, jc + jn, false);
      for (; j < jc + jn; ++j) {
        double* b = B + at(i, j, ldb);
        double* p = pB + (size_t)j * kBlock + i;
        for (int r = 0; r < ir; ++r) {
          double s = b[r];
          for (int q = 0; q < r; ++q) s -= t[r * kBlock + q] * p[q];
          s /= t[r * kBlock + r];
          b[r] = s;
          p[r] = s;
        }
      }
    }
  }
}

// The mirror: T upper triangular, from the last row group up.
void solveUpperLeft(double* B, int ldb, const double* pA, double* pB, int m, int n) {
  for (int jc = 0; jc < n; jc += kSolveChunk) {
    const int jn = imin(kSolveChunk, n - jc);
    for (int ie = m; ie > 0; ie -= 4) {
      const int i = imax(0, ie - 4), ir = ie - i;
      if (ie < m)
        hxk::panelUpdate(B + at(i, jc, ldb), ldb, pA + (size_t)i * kBlock + ie,
                         pB + (size_t)jc * kBlock + ie, ir, jn, m - ie, true, hxk::PANEL_FULL);
      const double* t = pA + (size_t)i * kBlock + i;
      int j = jc;
      if (ir == 4 && hxk::avx2Available())
        j = hxk::triSolve4Avx2(B + i, ldb, pB + i, t, jc, jc + jn, true);
      for (; j < jc + jn; ++j) {
        double* b = B + at(i, j, ldb);
        double* p = pB + (size_t)j * kBlock + i;
        for (int r = ir - 1; r >= 0; --r) {
          double s = b[r];
          for (int q = r + 1; q < ir; ++q) s -= t[r * kBlock + q] * p[q];
          s /= t[r * kBlock + r];
          b[r] = s;
          p[r] = s;
        }
      }
    }
  }
}

// How a left-side solve walks its blocks and packs its panels.
struct LeftSolve {
  bool forward;     // first block to last
  bool copyPack;    // op(A)(r, q) = A(q, r): rows of op(A) are columns of A
};

void trsmLeft(LeftSolve how, int m, int n, const double* A, int lda, double* B, int ldb,
              double* bufA, double* bufB) {
  if (m <= 0 || n <= 0) return;
  const int nb = (m + kBlock - 1) / kBlock;
  // Panel rows r of the block of op(A) at block row bi, block column bk.
  auto packOp = [&](int bi, int bk, int rows, int cols) {
    if (how.copyPack)
      hxk::packCopy(bufA, A + at(bk * kBlock, bi * kBlock, lda), rows, cols, lda);
    else
      hxk::packGather(bufA, A + at(bi * kBlock, bk * kBlock, lda), rows, cols, lda);
  };
  for (int s = 0; s < nb; ++s) {
    const int bi = how.forward ? s : nb - 1 - s;
    const int i0 = bi * kBlock, ib = imin(kBlock, m - i0);
    // bufB needs no packing of B first: the diagonal solve fills it.
    packOp(bi, bi, ib, ib);
    if (how.forward)
      solveLowerLeft(B + i0, ldb, bufA, bufB, ib, n);
    else
      solveUpperLeft(B + i0, ldb, bufA, bufB, ib, n);
    const int jFirst = how.forward ? bi + 1 : 0, jEnd = how.forward ? nb : bi;
    for (int bj = jFirst; bj < jEnd; ++bj) {
      const int j0 = bj * kBlock, jb = imin(kBlock, m - j0);
      packOp(bj, bi, jb, ib);
      hxk::panelUpdate(B + j0, ldb, bufA, bufB, jb, n, ib, true, hxk::PANEL_FULL);
    }
  }
}

}  // namespace

HALVEX_EXPORT void my_dtrsm_kernel_lower_left(double* B, int ldb, const double* panelA,
                                              double* panelB, int m, int n) {
  solveLowerLeft(B, ldb, panelA, panelB, m, n);
}

HALVEX_EXPORT void my_dtrsm_kernel_upper_left(double* B, int ldb, const double* panelA,
                                              double* panelB, int m, int n) {
  solveUpperLeft(B, ldb, panelA, panelB, m, n);
}

#define HXK_UNUSED_TRXM (void)side, (void)uplo, (void)transa, (void)diag, (void)alpha

HALVEX_EXPORT void my_dtrsm_LLNN(MY_DTRXM_ARGS) {
  HXK_UNUSED_TRXM;
  trsmLeft({true, false}, *m, *n, A, *lda, B, *ldb, bufA, bufB);
}
HALVEX_EXPORT void my_dtrsm_LLTN(MY_DTRXM_ARGS) {
  HXK_UNUSED_TRXM;
  trsmLeft({false, true}, *m, *n, A, *lda, B, *ldb, bufA, bufB);
}
HALVEX_EXPORT void my_dtrsm_LUNN(MY_DTRXM_ARGS) {
  HXK_UNUSED_TRXM;
  trsmLeft({false, false}, *m, *n, A, *lda, B, *ldb, bufA, bufB);
}
HALVEX_EXPORT void my_dtrsm_LUTN(MY_DTRXM_ARGS) {
  HXK_UNUSED_TRXM;
  trsmLeft({true, true}, *m, *n, A, *lda, B, *ldb, bufA, bufB);
}

// B (m by n) := B L^-T, L n by n lower.  Column blocks first to last; every
// 96-row block of B is packed by rows so that its solved part serves as the
// A side of the updates to the right.
HALVEX_EXPORT void my_dtrsm_RLTN(MY_DTRXM_ARGS) {
  HXK_UNUSED_TRXM;
  const int mm = *m, nn = *n, ld = *lda, ldB = *ldb;
  if (mm <= 0 || nn <= 0) return;
  for (int j0 = 0; j0 < nn; j0 += kBlock) {
    const int jb = imin(kBlock, nn - j0);
    // Panel row c: L(j0 + c, j0 .. j0+jb), for the diagonal block and below.
    hxk::packGather(bufB, A + at(j0, j0, ld), nn - j0, jb, ld);
    for (int r0 = 0; r0 < mm; r0 += kBlock) {
      const int rb = imin(kBlock, mm - r0);
      double* Bb = B + at(r0, j0, ldB);
      hxk::packGather(bufA, Bb, rb, jb, ldB);
      // Columns in groups of 12: the panel product over the solved part then
      // reuses each row group of bufA for four tiles; inside a group the
      // substitution goes down B's contiguous columns.
      for (int c = 0; c < jb; c += kRightGroup) {
        const int g = imin(kRightGroup, jb - c);
        if (c > 0)
          hxk::panelUpdate(Bb + at(0, c, ldB), ldB, bufA, bufB + (size_t)c * kBlock, rb, g, c,
                           true, hxk::PANEL_FULL);
        const double* t = bufB + (size_t)c * kBlock + c;  // t[a*96 + q] = L(c+a, c+q)
        int r0 = 0;
        if (hxk::avx2Available())
          r0 = hxk::rightSolveAvx2(Bb + at(0, c, ldB), ldB, bufA + c, t, rb, g);
        for (int a = 0; a < g; ++a) {
          double* xa = Bb + at(0, c + a, ldB);
          for (int q = 0; q < a; ++q) {
            const double* xq = Bb + at(0, c + q, ldB);
            const double f = t[a * kBlock + q];
            for (int r = r0; r < rb; ++r) xa[r] -= xq[r] * f;
          }
          const double d = t[a * kBlock + a];
          for (int r = r0; r < rb; ++r) xa[r] /= d;
          for (int r = r0; r < rb; ++r) bufA[(size_t)r * kBlock + c + a] = xa[r];
        }
      }
      const int rest = nn - j0 - jb;
      if (rest > 0)
        hxk::panelUpdate(Bb + at(0, jb, ldB), ldB, bufA, bufB + (size_t)jb * kBlock, rb, rest, jb,
                         true, hxk::PANEL_FULL);
    }
  }
}

HALVEX_EXPORT void my_dtrsm(MY_DTRXM_ARGS) {
  if (*side == 'L') {
    if (*transa == 'N')
      my_dtrsm_LLNN(side, uplo, transa, diag, m, n, alpha, A, lda, B, ldb, bufA, bufB);
    else
      my_dtrsm_LLTN(side, uplo, transa, diag, m, n, alpha, A, lda, B, ldb, bufA, bufB);
  } else if (*transa == 'T') {
    my_dtrsm_RLTN(side, uplo, transa, diag, m, n, alpha, A, lda, B, ldb, bufA, bufB);
  }
  // Right side without transposition is not a case the system has.
}

// ---- multiplies -----------------------------------------------------------------

namespace {

// B (rb by jb) := X op(T) over one diagonal block, in place: X = bufA rows
// (the old B rows), T = panel with T[c*96 + q] = op(A)(q, c).  lowerOp: the
// nonzeros of column c of op(A) lie at q >= c; otherwise at q <= c.
void rightTriBlock(double* B, int ldb, const double* X, const double* T, int rb, int jb,
                   bool lowerOp, bool unit) {
  for (int c = 0; c < jb; c += 3) {
    const int g = imin(3, jb - c);
    for (int a = 0; a < g; ++a) {
      const double* tc = T + (size_t)(c + a) * kBlock;
      const double d = unit ? 1.0 : tc[c + a];
      const int qLo = lowerOp ? c + a + 1 : c, qHi = lowerOp ? c + g : c + a;
      for (int r = 0; r < rb; ++r) {
        const double* x = X + (size_t)r * kBlock;
        double s = x[c + a] * d;
        for (int q = qLo; q < qHi; ++q) s += x[q] * tc[q];
        B[at(r, c + a, ldb)] = s;
      }
    }
    if (lowerOp) {
      if (c + g < jb)
        hxk::panelUpdate(B + at(0, c, ldb), ldb, X + c + g, T + (size_t)c * kBlock + c + g, rb, g,
                         jb - c - g, false, hxk::PANEL_FULL);
    } else if (c > 0) {
      hxk::panelUpdate(B + at(0, c, ldb), ldb, X, T + (size_t)c * kBlock, rb, g, c, false,
                       hxk::PANEL_FULL);
    }
  }
}

// B (m by n) := B op(A), A n by n.  Rows of B are independent, so each
// 96-row block goes through all column blocks on its own; a column block
// reads only old values of the blocks that the order has not reached yet.
// packT(j0, jb, k0, kb) packs T[c*96 + q] = op(A)(k0 + q, j0 + c) into bufB.
template <typename PackT>
void trmmRight(bool lowerOp, bool unit, int m, int n, double* B, int ldb, double* bufA,
               double* bufB, PackT packT) {
  if (m <= 0 || n <= 0) return;
  const int nb = (n + kBlock - 1) / kBlock;
  for (int r0 = 0; r0 < m; r0 += kBlock) {
    const int rb = imin(kBlock, m - r0);
    for (int s = 0; s < nb; ++s) {
      // With op(A) lower, column j of the result needs columns j.. of B:
      // go first to last.  Upper: last to first.
      const int bj = lowerOp ? s : nb - 1 - s;
      const int j0 = bj * kBlock, jb = imin(kBlock, n - j0);
      double* Bb = B + at(r0, j0, ldb);
      hxk::packGather(bufA, Bb, rb, jb, ldb);
      packT(j0, jb, j0, jb);
      rightTriBlock(Bb, ldb, bufA, bufB, rb, jb, lowerOp, unit);
      const int kFirst = lowerOp ? bj + 1 : 0, kEnd = lowerOp ? nb : bj;
      for (int bk = kFirst; bk < kEnd; ++bk) {
        const int k0 = bk * kBlock, kb = imin(kBlock, n - k0);
        hxk::packGather(bufA, B + at(r0, k0, ldb), rb, kb, ldb);
        packT(j0, jb, k0, kb);
        hxk::panelUpdate(Bb, ldb, bufA, bufB, rb, jb, kb, false, hxk::PANEL_FULL);
      }
    }
  }
}

}  // namespace

HALVEX_EXPORT void my_dtrmm_RLNU(MY_DTRXM_ARGS) {
  HXK_UNUSED_TRXM;
  const int ld = *lda;
  // op(A)(q, c) = L(q, c): column c of L, a plain copy.
  trmmRight(true, true, *m, *n, B, *ldb, bufA, bufB, [&](int j0, int jb, int k0, int kb) {
    hxk::packCopy(bufB, A + at(k0, j0, ld), jb, kb, ld);
  });
}

HALVEX_EXPORT void my_dtrmm_RLTU(MY_DTRXM_ARGS) {
  HXK_UNUSED_TRXM;
  const int ld = *lda;
  // op(A)(q, c) = L(c, q): row c of L, a gather.
  trmmRight(false, true, *m, *n, B, *ldb, bufA, bufB, [&](int j0, int jb, int k0, int kb) {
    hxk::packGather(bufB, A + at(j0, k0, ld), jb, kb, ld);
  });
}

HALVEX_EXPORT void my_dtrmm_RUNN(MY_DTRXM_ARGS) {
  HXK_UNUSED_TRXM;
  const int ld = *lda;
  trmmRight(false, false, *m, *n, B, *ldb, bufA, bufB, [&](int j0, int jb, int k0, int kb) {
    hxk::packCopy(bufB, A + at(k0, j0, ld), jb, kb, ld);
  });
}

// B (m by n) := -U B, U m by m upper.  Columns of B are independent; row
// blocks go first to last, since row i of the result needs rows i.. of B.
HALVEX_EXPORT void my_dtrmm_LUNN_m1(MY_DTRXM_ARGS) {
  HXK_UNUSED_TRXM;
  const int mm = *m, nn = *n, ld = *lda, ldB = *ldb;
  if (mm <= 0 || nn <= 0) return;
  for (int i0 = 0; i0 < mm; i0 += kBlock) {
    const int ib = imin(kBlock, mm - i0);
    // Old rows of the block, column c as panel row c; rows of U's block.
    hxk::packCopy(bufB, B + i0, nn, ib, ldB);
    hxk::packGather(bufA, A + at(i0, i0, ld), ib, ib, ld);
    for (int a = 0; a < ib; a += 4) {
      const int g = imin(4, ib - a);
      for (int j = 0; j < nn; ++j) {
        const double* x = bufB + (size_t)j * kBlock;
        for (int r = 0; r < g; ++r) {
          const double* u = bufA + (size_t)(a + r) * kBlock;
          double s = 0.0;
          for (int q = a + r; q < a + g; ++q) s += u[q] * x[q];
          B[at(i0 + a + r, j, ldB)] = -s;
        }
      }
      if (a + g < ib)
        hxk::panelUpdate(B + at(i0 + a, 0, ldB), ldB, bufA + (size_t)a * kBlock + a + g,
                         bufB + a + g, g, nn, ib - a - g, true, hxk::PANEL_FULL);
    }
    for (int k0 = i0 + ib; k0 < mm; k0 += kBlock) {
      const int kb = imin(kBlock, mm - k0);
      hxk::packGather(bufA, A + at(i0, k0, ld), ib, kb, ld);
      hxk::packCopy(bufB, B + k0, nn, kb, ldB);
      hxk::panelUpdate(B + i0, ldB, bufA, bufB, ib, nn, kb, true, hxk::PANEL_FULL);
    }
  }
}
