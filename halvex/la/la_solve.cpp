// Triangular solves with the supernodal factor, the solve call with its
// choice of refinement, and the stand-alone residual measure.
#include <math.h>
#include <string.h>

#include "kernels/kernels.h"
#include "kernels/vec.h"
#include "la/la_numeric_internal.h"

namespace {

inline void swapEntries(double* a, int32_t i, int32_t j) {
  double t = a[i];
  a[i] = a[j];
  a[j] = t;
}

// Below this many columns the rows under a supernode are updated straight
// through the row list; wider ones go through one dense product on a
// gathered copy, which vectorises where the indexed form cannot.
constexpr int32_t kIndexedCols = 4;

// Unit-lower part of the forward sweep on the w columns of one diagonal
// block T (leading dimension ld), interchanges included.  x keeps the
// values before their division by D: the rows below need exactly those.
void forwardDiag(double* x, const double* T, int64_t ld, int32_t w, const int32_t* piv) {
  for (int32_t j = 0; j < w;) {
    const double* f = T + j * ld;
    if (piv[j] >= 0) {
      if (piv[j] != j) swapEntries(x, j, piv[j]);
      double xj = x[j];
      for (int32_t i = j + 1; i < w; i++) x[i] -= xj * f[i];
      j += 1;
    } else {
      if (-piv[j] != j + 1) swapEntries(x, j + 1, -piv[j]);
      double a0 = x[j], a1 = x[j + 1];
      const double* g = f + ld;
      for (int32_t i = j + 2; i < w; i++) x[i] -= f[i] * a0 + a1 * g[i];
      j += 2;
    }
  }
}

// The D part: every value that leaves a pivot meets the guard.
bool divideDiag(double* x, const double* T, int64_t ld, int32_t w, const int32_t* piv) {
  const double G = LA_SOLVE_GUARD;
  for (int32_t j = 0; j < w;) {
    if (piv[j] >= 0) {
      x[j] /= T[j + j * ld];
      if (fabs(x[j]) >= G) return false;
      j += 1;
    } else {
      double d = T[j + 1 + j * ld];
      double u = T[j + j * ld] / d;
      double v = T[j + 1 + (j + 1) * ld] / d;
      double den = u * v - 1.0;
      double a0 = x[j], a1 = x[j + 1];
      x[j + 1] = (u * (a1 / d) - a0 / d) / den;
      x[j] = (v * (a0 / d) - a1 / d) / den;
      if (fabs(x[j]) >= G || fabs(x[j + 1]) >= G) return false;
      j += 2;
    }
  }
  return true;
}

// Backward sweep inside one diagonal block whose rows below have already
// been taken off x.  last is the position of the supernode's last row,
// relative to the block: a column with nothing below it has no sum to check.
bool backwardDiag(double* x, const double* T, int64_t ld, int32_t w, const int32_t* piv,
                  int64_t last) {
  const double G = LA_SOLVE_GUARD;
  for (int32_t j = w - 1; j >= 0;) {
    const double* f = T + j * ld;
    if (piv[j] >= 0) {
      if (j < last) {
        x[j] -= hxk::dotUnit(x + j + 1, f + j + 1, w - j - 1);
        if (fabs(x[j]) >= G) return false;
      }
      if (piv[j] != j) swapEntries(x, j, piv[j]);
      j -= 1;
    } else {
      // The pair's first column skips the off-diagonal of D at row j.
      if (j < last) {
        x[j] -= hxk::dotUnit(x + j + 1, f + j + 1, w - j - 1);
        x[j - 1] -= hxk::dotUnit(x + j + 1, f - ld + j + 1, w - j - 1);
        if (fabs(x[j]) >= G || fabs(x[j - 1]) >= G) return false;
      }
      if (-piv[j] != j) swapEntries(x, j, -piv[j]);
      j -= 2;
    }
  }
  return true;
}

// y[idx[i]] -= sum_j F(i, j) t[j] for m rows and c columns (c at most
// kIndexedCols), one pass over the rows.
void indexedUpdate(int32_t m, int32_t c, const double* F, int64_t ld, const double* t,
                   const int32_t* idx, double* y) {
  const double* f0 = F;
  switch (c) {
    case 1: {
      double t0 = t[0];
      for (int32_t i = 0; i < m; i++) y[idx[i]] -= f0[i] * t0;
      break;
    }
    case 2: {
      const double* f1 = f0 + ld;
      double t0 = t[0], t1 = t[1];
      for (int32_t i = 0; i < m; i++) y[idx[i]] -= f0[i] * t0 + f1[i] * t1;
      break;
    }
    case 3: {
      const double *f1 = f0 + ld, *f2 = f1 + ld;
      double t0 = t[0], t1 = t[1], t2 = t[2];
      for (int32_t i = 0; i < m; i++) y[idx[i]] -= f0[i] * t0 + f1[i] * t1 + f2[i] * t2;
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
void indexedDots(int32_t m, int32_t c, const double* F, int64_t ld, const int32_t* idx,
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

// One supernode stored as a single column-major array (the sequential
// storage, and narrow supernodes of the block storage).  Its own columns
// are contiguous in b, so they are worked on in place; only the rows below
// go through the row list.  buf holds r - c doubles.
bool forwardNarrow(double* b, int32_t first, const int32_t* rows, const double* F, int32_t r,
                   int32_t c, const int32_t* piv, double* buf) {
  double* x = b + first;
  forwardDiag(x, F, r, c, piv);
  int32_t m = r - c;
  if (m > 0) {
    const double* F21 = F + c;
    const int32_t* idx = rows + c;
    if (c <= kIndexedCols) {
      indexedUpdate(m, c, F21, r, x, idx, b);
    } else {
      int mm = m, nn = c, ld = r, one = 1;
      double alpha = 1.0, beta = 0.0;
      my_dgemv_n_0p1_yone("N", &mm, &nn, &alpha, F21, &ld, x, &one, &beta, buf, &one);
      for (int32_t i = 0; i < m; i++) b[idx[i]] -= buf[i];
    }
  }
  return divideDiag(x, F, r, c, piv);
}

bool backwardNarrow(double* b, int32_t first, const int32_t* rows, const double* F, int32_t r,
                    int32_t c, const int32_t* piv, double* buf) {
  double* x = b + first;
  int32_t m = r - c;
  if (m > 0) {
    const double* F21 = F + c;
    const int32_t* idx = rows + c;
    if (c <= kIndexedCols) {
      indexedDots(m, c, F21, r, idx, b, x);
    } else {
      for (int32_t i = 0; i < m; i++) buf[i] = b[idx[i]];
      gemvTransMinus(m, c, F21, r, buf, x);
    }
  }
  return backwardDiag(x, F, r, c, piv, r - 1);
}

// A wide supernode of the block storage: column blocks of width nb, each cut
// into tiles that are column-major with their own height as leading
// dimension.  The supernode is gathered once into a (r doubles).
bool forwardWide(double* a, const double* F, int32_t nb, int32_t r, int32_t c,
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
    if (!divideDiag(x, block, hJ, w, piv + j0)) return false;
  }
  return true;
}

bool backwardWide(double* a, const double* F, int32_t nb, int32_t r, int32_t c,
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
    if (!backwardDiag(x, block, hJ, w, piv + j0, (int64_t)r - 1 - j0)) return false;
  }
  return true;
}

inline void gatherSNode(double* a, const double* b, const int32_t* rows, int32_t first,
                        int32_t r, int32_t c) {
  memcpy(a, b + first, sizeof(double) * (size_t)c);
  for (int32_t i = c; i < r; i++) a[i] = b[rows[i]];
}

// The two sweeps over the factor, in storage order; nb is 0 for the
// storage of the sequential path and blockSize for the block storage.
int32_t supernodalSolve(int32_t mode, double* a, LASymbolic* sym, double* b, int32_t nb) {
  int32_t n = sym->n;
  const int32_t* perm = sym->perm;
  if (mode == 0)
    for (int32_t i = 0; i < n; i++) b[i] = a[perm[i]];

  for (int32_t s = 0; s < sym->numSNodes; s++) {
    int32_t first = sym->snodeStart[s];
    int32_t c = laSNodeCols(sym, s), r = laSNodeRows(sym, s);
    const int32_t* rows = sym->rowList + sym->rowBegin[s];
    const double* F = sym->factor + sym->factorBegin[s];
    const int32_t* piv = sym->pivots + first;
    if (nb > 0 && c > nb) {
      gatherSNode(a, b, rows, first, r, c);
      if (!forwardWide(a, F, nb, r, c, piv)) return LA_ERR_SOLVE_OVERFLOW;
      memcpy(b + first, a, sizeof(double) * (size_t)c);
      for (int32_t i = c; i < r; i++) b[rows[i]] = a[i];
    } else if (!forwardNarrow(b, first, rows, F, r, c, piv, a)) {
      return LA_ERR_SOLVE_OVERFLOW;
    }
  }

  for (int32_t s = sym->numSNodes - 1; s >= 0; s--) {
    int32_t first = sym->snodeStart[s];
    int32_t c = laSNodeCols(sym, s), r = laSNodeRows(sym, s);
    const int32_t* rows = sym->rowList + sym->rowBegin[s];
    const double* F = sym->factor + sym->factorBegin[s];
    const int32_t* piv = sym->pivots + first;
    if (nb > 0 && c > nb) {
      gatherSNode(a, b, rows, first, r, c);
      if (!backwardWide(a, F, nb, r, c, piv)) return LA_ERR_SOLVE_OVERFLOW;
      // The rows below are only read on the way back.
      memcpy(b + first, a, sizeof(double) * (size_t)c);
    } else if (!backwardNarrow(b, first, rows, F, r, c, piv, a)) {
      return LA_ERR_SOLVE_OVERFLOW;
    }
  }

  if (mode == 0)
    for (int32_t i = 0; i < n; i++) a[perm[i]] = b[i];
  return LA_OK;
}

}  // namespace

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
    int32_t m = env->fgmresRestart < n ? env->fgmresRestart : n;
    int32_t mMax = env->fgmresMaxRestart < n ? env->fgmresMaxRestart : n;
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
