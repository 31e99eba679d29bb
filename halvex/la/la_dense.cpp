// Dense LDL' of one supernode's diagonal block with Bunch-Kaufman pivots
// confined to the block, and the small dense solves that go with it.
#include <math.h>
#include <string.h>

#include "kernels/kernels.h"
#include "la/la_numeric_internal.h"

namespace {

inline double* at(double* A, int64_t lda, int64_t i, int64_t j) { return A + i + j * lda; }
inline const double* at(const double* A, int64_t lda, int64_t i, int64_t j) {
  return A + i + j * lda;
}

const int kOne = 1;

// Rows below the block from which the panel forms them apart (formBelow).
constexpr int32_t kDeferRows = 48;

// The two L columns of a 2x2 pivot at k over count rows, from the reduced
// columns w0 and w1 by the inverse of the pivot's block, which W holds at
// (k, k).
void pairColumns(const double* W, int32_t ldw, int32_t k, const double* w0, const double* w1,
                 double* a0, double* a1, int32_t count) {
  double d21 = *at(W, ldw, k + 1, k);
  double d11 = *at(W, ldw, k + 1, k + 1) / d21;
  double d22 = *at(W, ldw, k, k) / d21;
  double t = 1.0 / (d21 * (d11 * d22 - 1.0));
  for (int32_t j = 0; j < count; j++) {
    a0[j] = t * (d11 * w0[j] - w1[j]);
    a1[j] = t * (d22 * w1[j] - w0[j]);
  }
}

// The rows below the block of the panel's kb done columns.  Column k there
// is its unreduced part minus L(below, 0:k) W(k, 0:k)', as the panel forms
// it within the block; the reduced column goes to W (which keeps L D for
// the update of the factor) and L from it as in the panel.  Columns go in
// groups: one matrix product brings a group up to date from the columns
// before it, and matrix-vector products over the group's own columns
// finish it column by column.  A(0, 0) of the panel is Ad (for its D).
void formBelow(int32_t mb, int32_t kb, double* AB, int32_t lda, double* W, int32_t ldw,
               const int32_t* pivots, const double* Ad) {
  constexpr int32_t kGroup = 16;
  double* WB = W + (AB - Ad);  // the same rows of W
  for (int32_t k0 = 0; k0 < kb;) {
    int32_t k1 = k0;
    while (k1 < kb && k1 - k0 < kGroup) k1 += pivots[k1] >= 0 ? 1 : 2;
    for (int32_t j = k0; j < k1; j++)
      memcpy(at(WB, ldw, 0, j), at(AB, lda, 0, j), sizeof(double) * (size_t)mb);
    if (k0 > 0)
      laGemmNT(mb, k1 - k0, k0, -1.0, AB, lda, at(W, ldw, k0, 0), ldw, 1.0, at(WB, ldw, 0, k0),
               ldw);
    for (int32_t k = k0; k < k1;) {
      int32_t step = pivots[k] >= 0 ? 1 : 2;
      for (int32_t c = k; c < k + step && k > k0; c++)
        laGemv('N', mb, k - k0, -1.0, at(AB, lda, 0, k0), lda, at(W, ldw, c, k0), 1.0,
               at(WB, ldw, 0, c), ldw);
      if (step == 1) {
        memcpy(at(AB, lda, 0, k), at(WB, ldw, 0, k), sizeof(double) * (size_t)mb);
        my_dscal(1.0 / *at(Ad, lda, k, k), mb, at(AB, lda, 0, k), 1);
      } else {
        pairColumns(W, ldw, k, at(WB, ldw, 0, k), at(WB, ldw, 0, k + 1), at(AB, lda, 0, k),
                    at(AB, lda, 0, k + 1), mb);
      }
      k += step;
    }
    k0 = k1;
  }
}

}  // namespace

void laGemmNT(int m, int n, int k, double alpha, const double* A, int lda, const double* B,
              int ldb, double beta, double* C, int ldc) {
  if (m <= 0 || n <= 0) return;
  dgemm_("N", "T", &m, &n, &k, &alpha, A, &lda, B, &ldb, &beta, C, &ldc, 1, 1);
}

void laGemv(char trans, int m, int n, double alpha, const double* A, int lda, const double* x,
            double beta, double* y, int incx) {
  if (m <= 0 || n <= 0) return;
  char t[2] = {trans, 0};
  dgemv_(t, &m, &n, &alpha, A, &lda, x, &incx, &beta, y, &kOne, 1);
}

int32_t DenseLDLDlasyf(double tol, int32_t m, int32_t n, int32_t* done, double* A, int32_t lda,
                       int32_t* pivots, double* W, int32_t ldw, int32_t* numPerturbed,
                       double* bufA, double* bufB) {
  const double alpha = LA_BK_ALPHA;
  // A 2x2 step needs a second W column, so a wide block stops one short.
  int32_t kMax = n <= KERNEL_BLOCK ? n : KERNEL_BLOCK - 1;
  // The rows from n down are never pivot candidates.  When there are many,
  // the loop forms only the block's rows of each column (up to `formed`),
  // and their part of the columns is formed after it by matrix products
  // (formBelow), where one matrix-vector product per column would stream
  // the whole panel; a few rows go along with the block, as the extra
  // calls would cost more than they save.
  const int32_t formed = m - n >= kDeferRows ? n : m;
  int32_t k = 0;
  while (k < kMax) {
    int32_t len = formed - k;
    // 1. The current column, brought up to date from the done columns.
    memcpy(at(W, ldw, k, k), at(A, lda, k, k), sizeof(double) * (size_t)len);
    if (k > 0) laGemv('N', len, k, -1.0, at(A, lda, k, 0), lda, at(W, ldw, k, 0), 1.0,
                      at(W, ldw, k, k), ldw);
    // 2. Its size on the diagonal and among the candidate rows.
    double absakk = fabs(*at(W, ldw, k, k));
    double colmax = 0.0;
    int32_t imax = k;
    if (k < n - 1) {
      imax = k + 1 + my_idamax(n - k - 1, at(W, ldw, k + 1, k), 1);
      colmax = fabs(*at(W, ldw, imax, k));
    }
    int32_t kp = k, kstep = 1;
    if ((absakk > colmax ? absakk : colmax) <= tol) {
      // 3. Nothing in the column can be trusted: a fixed pivot instead.
      (*numPerturbed)++;
      *at(W, ldw, k, k) = *at(W, ldw, k, k) >= 0.0 ? tol : -tol;
      colmax = 0.0;
      absakk = tol;
    } else if (absakk < alpha * colmax) {
      // 4. Column imax decides between a swap and a 2x2 pivot.
      double* wk1 = at(W, ldw, 0, k + 1);
      for (int32_t i = k; i < imax; i++) wk1[i] = *at(A, lda, imax, i);
      memcpy(wk1 + imax, at(A, lda, imax, imax), sizeof(double) * (size_t)(formed - imax));
      if (k > 0) laGemv('N', len, k, -1.0, at(A, lda, k, 0), lda, at(W, ldw, imax, 0), 1.0, wk1 + k,
                        ldw);
      double rowmax = 0.0;
      for (int32_t i = k; i < imax; i++)
        if (fabs(wk1[i]) > rowmax) rowmax = fabs(wk1[i]);
      if (imax < n - 1) {
        int32_t jmax = imax + 1 + my_idamax(n - imax - 1, wk1 + imax + 1, 1);
        if (fabs(wk1[jmax]) > rowmax) rowmax = fabs(wk1[jmax]);
      }
      double test = rowmax == 0.0 ? 1.7976931348623157e+308 : alpha * colmax * (colmax / rowmax);
      if (absakk >= test) {
        // keep the 1x1 pivot at k
      } else if (fabs(wk1[imax]) >= (tol > alpha * rowmax ? tol : alpha * rowmax)) {
        kp = imax;
        memcpy(at(W, ldw, k, k), wk1 + k, sizeof(double) * (size_t)len);
      } else {
        kstep = 2;
        kp = imax;
      }
    }
    // 5. Interchange kk and kp in the not yet updated part of A, in the
    // done columns of this panel and in W.
    int32_t kk = k + kstep - 1;
    if (kp != kk) {
      *at(A, lda, kp, k) = *at(A, lda, kk, k);
      for (int32_t i = k + 1; i < kp; i++) *at(A, lda, kp, i) = *at(A, lda, i, kk);
      memmove(at(A, lda, kp, kp), at(A, lda, kp, kk), sizeof(double) * (size_t)(formed - kp));
      // Below the block the two columns are still unreduced: they trade
      // places, and each is reduced at its new position.
      if (m > formed) my_dswap_one(m - formed, at(A, lda, formed, kk), at(A, lda, formed, kp));
      if (kk > 0) my_dswap(kk, at(A, lda, kk, 0), lda, at(A, lda, kp, 0), lda);
      my_dswap(kk + 1, at(W, ldw, kk, 0), ldw, at(W, ldw, kp, 0), ldw);
    }
    if (kstep == 1) {
      // 6. L from the updated column.
      memcpy(at(A, lda, k, k), at(W, ldw, k, k), sizeof(double) * (size_t)len);
      if (k < formed - 1)
        my_dscal(1.0 / *at(A, lda, k, k), formed - k - 1, at(A, lda, k + 1, k), 1);
      pivots[k] = kp;
    } else {
      // 7. The two L columns of a 2x2 pivot, from W by the block inverse.
      if (k < m - 2)
        pairColumns(W, ldw, k, at(W, ldw, k + 2, k), at(W, ldw, k + 2, k + 1), at(A, lda, k + 2, k),
                    at(A, lda, k + 2, k + 1), formed - k - 2);
      *at(A, lda, k, k) = *at(W, ldw, k, k);
      *at(A, lda, k + 1, k) = *at(W, ldw, k + 1, k);
      *at(A, lda, k + 1, k + 1) = *at(W, ldw, k + 1, k + 1);
      pivots[k] = pivots[k + 1] = -kp;
    }
    k += kstep;
  }
  int32_t kb = k;
  if (m > formed) formBelow(m - formed, kb, A + formed, lda, W, ldw, pivots, A);

  // Trailing columns of the block, level 3, in strips of the kernel width.
  for (int32_t j = kb; j < n; j += KERNEL_BLOCK) {
    int32_t jb = n - j < KERNEL_BLOCK ? n - j : KERNEL_BLOCK;
    my_dsyrk2_LNT_1m1(&jb, &kb, at(A, lda, j, 0), &lda, at(W, ldw, j, 0), &ldw, at(A, lda, j, j),
                      &lda, bufA, bufB);
    int32_t below = m - j - jb;
    if (below > 0)
      laGemmNT(below, jb, kb, -1.0, at(A, lda, j + jb, 0), lda, at(W, ldw, j, 0), ldw, 1.0,
               at(A, lda, j + jb, j), lda);
  }

  // Back to the form in which each column holds the rows as they stood at
  // its own step: undo this panel's later interchanges on earlier columns.
  for (int32_t j = kb - 1; j >= 0;) {
    int32_t jp = pivots[j], jj = j - 1;
    if (jp < 0) {
      jp = -jp;
      jj = j - 2;
    }
    if (jp != j && jj >= 0) my_dswap(jj + 1, at(A, lda, j, 0), lda, at(A, lda, jp, 0), lda);
    j = jj;
  }
  *done = kb;
  return 0;
}

HALVEX_EXPORT void LA_DenseLDLFactorize(double tol, int32_t m, int32_t n, double* A, int32_t lda,
                                        int32_t* pivots, double* W, int32_t* numPerturbed,
                                        double* bufA, double* bufB) {
  int32_t j = 0;
  while (j < n) {
    int32_t kb = 0;
    double* Wp = m == n ? W : at(W, m, j, j);
    int32_t ldw = m == n ? n - j : m;
    DenseLDLDlasyf(tol, m - j, n - j, &kb, at(A, lda, j, j), lda, pivots + j, Wp, ldw,
                   numPerturbed, bufA, bufB);
    if (j > 0)
      for (int32_t i = j; i < j + kb; i++) pivots[i] += pivots[i] >= 0 ? j : -j;
    j += kb;
  }
}

void DenseLDLNonBlock(double tol, int32_t n, double* A, int32_t lda, int32_t* pivots,
                      int32_t* numPerturbed) {
  const double alpha = LA_BK_ALPHA;
  int32_t k = 0;
  while (k < n) {
    double absakk = fabs(*at(A, lda, k, k));
    double colmax = 0.0;
    int32_t imax = k;
    if (k < n - 1) {
      imax = k + 1 + my_idamax(n - k - 1, at(A, lda, k + 1, k), 1);
      colmax = fabs(*at(A, lda, imax, k));
    }
    int32_t kp = k, kstep = 1;
    if ((absakk > colmax ? absakk : colmax) <= tol) {
      (*numPerturbed)++;
      *at(A, lda, k, k) = *at(A, lda, k, k) >= 0.0 ? tol : -tol;
      colmax = 0.0;
      absakk = tol;
    } else if (absakk < alpha * colmax) {
      double rowmax = 0.0;
      for (int32_t i = k; i < imax; i++)
        if (fabs(*at(A, lda, imax, i)) > rowmax) rowmax = fabs(*at(A, lda, imax, i));
      if (imax < n - 1) {
        // Compared signed on purpose: the part below the diagonal of column
        // imax only counts when it is positive.
        int32_t jmax = imax + 1 + my_idamax(n - imax - 1, at(A, lda, imax + 1, imax), 1);
        if (*at(A, lda, jmax, imax) > rowmax) rowmax = *at(A, lda, jmax, imax);
      }
      double test = rowmax == 0.0 ? 1.7976931348623157e+308 : alpha * colmax * (colmax / rowmax);
      if (absakk < test) {
        kp = imax;
        double amm = fabs(*at(A, lda, imax, imax));
        kstep = (amm <= tol || amm < alpha * rowmax) ? 2 : 1;
      }
    }
    int32_t kk = k + kstep - 1;
    if (kp != kk) {
      if (kp < n - 1) my_dswap_one(n - kp - 1, at(A, lda, kp + 1, kk), at(A, lda, kp + 1, kp));
      for (int32_t i = kk + 1; i < kp; i++) {
        double t = *at(A, lda, i, kk);
        *at(A, lda, i, kk) = *at(A, lda, kp, i);
        *at(A, lda, kp, i) = t;
      }
      double t = *at(A, lda, kk, kk);
      *at(A, lda, kk, kk) = *at(A, lda, kp, kp);
      *at(A, lda, kp, kp) = t;
      if (kstep == 2) {
        t = *at(A, lda, k + 1, k);
        *at(A, lda, k + 1, k) = *at(A, lda, kp, k);
        *at(A, lda, kp, k) = t;
      }
    }
    if (kstep == 1) {
      if (k < n - 1)
        my_dsyr_dscal(1.0 / *at(A, lda, k, k), n - k - 1, at(A, lda, k + 1, k),
                      at(A, lda, k + 1, k + 1), lda);
      pivots[k] = kp;
    } else {
      if (k < n - 2) {
        double d21 = *at(A, lda, k + 1, k);
        double d11 = *at(A, lda, k + 1, k + 1) / d21;
        double d22 = *at(A, lda, k, k) / d21;
        double t = 1.0 / (d21 * (d11 * d22 - 1.0));
        double* a0 = at(A, lda, 0, k);
        double* a1 = at(A, lda, 0, k + 1);
        for (int32_t j = k + 2; j < n; j++) {
          double wk = t * (d11 * a0[j] - a1[j]);
          double wkp = t * (d22 * a1[j] - a0[j]);
          double* aj = at(A, lda, 0, j);
          for (int32_t i = j; i < n; i++) aj[i] -= a0[i] * wk + a1[i] * wkp;
          a0[j] = wk;
          a1[j] = wkp;
        }
      }
      pivots[k] = pivots[k + 1] = -kp;
    }
    k += kstep;
  }
}

void SolveLD(int32_t m, int32_t n, const double* F, int32_t ldf, const int32_t* pivots, double* B,
             int32_t ldb, double* W, int32_t ldw) {
  for (int32_t j = 0; j < n;) {
    if (pivots[j] >= 0) {
      int32_t p = pivots[j];
      if (p != j) my_dswap_one(m, at(B, ldb, 0, j), at(B, ldb, 0, p));
      if (j < n - 1) {
        int rows = m, cols = n - j - 1, ld = ldb;
        double minus = -1.0;
        dger_(&rows, &cols, &minus, at(B, ldb, 0, j), &kOne, at(F, ldf, j + 1, j), &kOne,
              at(B, ldb, 0, j + 1), &ld);
      }
      memcpy(at(W, ldw, 0, j), at(B, ldb, 0, j), sizeof(double) * (size_t)m);
      my_dscal(1.0 / *at(F, ldf, j, j), m, at(B, ldb, 0, j), 1);
      j += 1;
    } else {
      int32_t p = -pivots[j];
      if (p != j + 1) my_dswap_one(m, at(B, ldb, 0, j + 1), at(B, ldb, 0, p));
      if (j < n - 2)
        my_dger2_one(m, n - j - 2, at(B, ldb, 0, j), at(B, ldb, 0, j + 1), at(F, ldf, j + 2, j),
                     at(F, ldf, j + 2, j + 1), at(B, ldb, 0, j + 2), ldb);
      memcpy(at(W, ldw, 0, j), at(B, ldb, 0, j), sizeof(double) * (size_t)m);
      memcpy(at(W, ldw, 0, j + 1), at(B, ldb, 0, j + 1), sizeof(double) * (size_t)m);
      double d = *at(F, ldf, j + 1, j);
      double a = *at(F, ldf, j, j) / d, b = *at(F, ldf, j + 1, j + 1) / d;
      double den = a * b - 1.0;
      double* b0 = at(B, ldb, 0, j);
      double* b1 = at(B, ldb, 0, j + 1);
      for (int32_t i = 0; i < m; i++) {
        double t0 = b0[i] / d, t1 = b1[i] / d;
        b0[i] = (b * t0 - t1) / den;
        b1[i] = (t1 * a - t0) / den;
      }
      j += 2;
    }
  }
}

// Forward pass of the dense solve: interchanges, L and D.
static void denseForward(int32_t n, const double* F, int32_t ldf, const int32_t* pivots,
                         double* x) {
  for (int32_t j = 0; j < n;) {
    if (pivots[j] >= 0) {
      int32_t p = pivots[j];
      if (p != j) {
        double t = x[j];
        x[j] = x[p];
        x[p] = t;
      }
      const double* f = at(F, ldf, 0, j);
      double xj = x[j];
      for (int32_t i = j + 1; i < n; i++) x[i] -= xj * f[i];
      x[j] = xj / f[j];
      j += 1;
    } else {
      int32_t p = -pivots[j];
      if (p != j + 1) {
        double t = x[j + 1];
        x[j + 1] = x[p];
        x[p] = t;
      }
      const double* f0 = at(F, ldf, 0, j);
      const double* f1 = at(F, ldf, 0, j + 1);
      double x0 = x[j], x1 = x[j + 1];
      for (int32_t i = j + 2; i < n; i++) x[i] = x[i] - f0[i] * x0 - x1 * f1[i];
      double d = f0[j + 1], u = f0[j] / d, v = f1[j + 1] / d, den = u * v - 1.0;
      x[j + 1] = (u * (x1 / d) - x0 / d) / den;
      x[j] = (v * (x0 / d) - x1 / d) / den;
      j += 2;
    }
  }
}

HALVEX_EXPORT void LA_DenseLDLSolveOne_Lt(int32_t n, const double* F, int32_t ldf,
                                          const int32_t* pivots, double* x) {
  for (int32_t j = n - 1; j >= 0;) {
    if (pivots[j] >= 0) {
      if (j < n - 1) x[j] -= my_ddot(n - j - 1, x + j + 1, 1, at(F, ldf, j + 1, j), 1);
      int32_t p = pivots[j];
      if (p != j) {
        double t = x[j];
        x[j] = x[p];
        x[p] = t;
      }
      j -= 1;
    } else {
      if (j < n - 1) {
        x[j] -= my_ddot(n - j - 1, x + j + 1, 1, at(F, ldf, j + 1, j), 1);
        x[j - 1] -= my_ddot(n - j - 1, x + j + 1, 1, at(F, ldf, j + 1, j - 1), 1);
      }
      int32_t p = -pivots[j];
      if (p != j) {
        double t = x[j];
        x[j] = x[p];
        x[p] = t;
      }
      j -= 2;
    }
  }
}

HALVEX_EXPORT void LA_DenseLDLSolveOne(int32_t n, const double* F, int32_t ldf,
                                       const int32_t* pivots, double* x) {
  if (n <= 0 || !F || !pivots || !x) return;
  denseForward(n, F, ldf, pivots, x);
  LA_DenseLDLSolveOne_Lt(n, F, ldf, pivots, x);
}

HALVEX_EXPORT void LA_DenseLDLSolveMany(int32_t n, int32_t nrhs, const double* F, int32_t ldf,
                                        const int32_t* pivots, double* B, int32_t ldb) {
  if (n <= 0 || nrhs <= 0 || !F || !pivots || !B) return;
  // Forward: rows of B are the unknowns, each step a rank-one update.
  for (int32_t j = 0; j < n;) {
    if (pivots[j] >= 0) {
      int32_t p = pivots[j];
      if (p != j) my_dswap(nrhs, B + j, ldb, B + p, ldb);
      if (j < n - 1) {
        int rows = n - j - 1, cols = nrhs, ld = ldb;
        double minus = -1.0;
        dger_(&rows, &cols, &minus, at(F, ldf, j + 1, j), &kOne, B + j, &ld, B + j + 1, &ld);
      }
      my_dscal(1.0 / *at(F, ldf, j, j), nrhs, B + j, ldb);
      j += 1;
    } else {
      int32_t p = -pivots[j];
      if (p != j + 1) my_dswap(nrhs, B + j + 1, ldb, B + p, ldb);
      if (j < n - 2) {
        int rows = n - j - 2, cols = nrhs, ld = ldb;
        double minus = -1.0;
        dger_(&rows, &cols, &minus, at(F, ldf, j + 2, j), &kOne, B + j, &ld, B + j + 2, &ld);
        dger_(&rows, &cols, &minus, at(F, ldf, j + 2, j + 1), &kOne, B + j + 1, &ld, B + j + 2,
              &ld);
      }
      double d = *at(F, ldf, j + 1, j), u = *at(F, ldf, j, j) / d;
      double v = *at(F, ldf, j + 1, j + 1) / d, den = u * v - 1.0;
      for (int32_t c = 0; c < nrhs; c++) {
        double* b = at(B, ldb, 0, c);
        double x0 = b[j], x1 = b[j + 1];
        b[j + 1] = (u * (x1 / d) - x0 / d) / den;
        b[j] = (v * (x0 / d) - x1 / d) / den;
      }
      j += 2;
    }
  }
  // Backward: L^T column by column, then the interchange.
  for (int32_t j = n - 1; j >= 0;) {
    int32_t first = pivots[j] >= 0 ? j : j - 1;
    if (j < n - 1) {
      for (int32_t col = first; col <= j; col++) {
        int rows = n - j - 1, cols = nrhs, ld = ldb;
        double minus = -1.0, one = 1.0;
        dgemv_("T", &rows, &cols, &minus, B + j + 1, &ld, at(F, ldf, j + 1, col), &kOne, &one,
               B + col, &ld, 1);
      }
    }
    int32_t p = pivots[j] >= 0 ? pivots[j] : -pivots[j];
    if (p != j) my_dswap(nrhs, B + j, ldb, B + p, ldb);
    j = first - 1;
  }
}
