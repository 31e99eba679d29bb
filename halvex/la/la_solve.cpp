// Triangular solves with the supernodal factor, the solve call with its
// choice of refinement, and the stand-alone residual measure.
#include <math.h>
#include <string.h>

#include "kernels/kernels.h"
#include "la/la_numeric_internal.h"

namespace {

// Walks column j of a supernode (r rows, c columns, tiles of nb when wide)
// from row i0 down, one contiguous run at a time: fn(entries, firstRow,
// count), entries[0] being (firstRow, j).
template <typename Fn>
inline void forColumn(const double* F, int32_t nb, int32_t r, int32_t c, int32_t j, int32_t i0,
                      Fn fn) {
  if (i0 >= r) return;
  if (nb <= 0 || c <= nb) {
    fn(F + i0 + (int64_t)j * r, i0, r - i0);
    return;
  }
  int32_t J = j / nb;
  int32_t w = c - J * nb < nb ? c - J * nb : nb;
  const double* block = F + laWideColBlockStart(nb, r, J);
  for (int32_t I = i0 / nb; I * nb < r; I++) {
    int32_t h = r - I * nb < nb ? r - I * nb : nb;
    int32_t from = i0 > I * nb ? i0 : I * nb;
    const double* tile = block + (int64_t)(I - J) * nb * w + (int64_t)(j - J * nb) * h;
    fn(tile + (from - I * nb), from, I * nb + h - from);
  }
}

inline void swapEntries(double* a, int32_t i, int32_t j) {
  double t = a[i];
  a[i] = a[j];
  a[j] = t;
}

// The two sweeps over the factor; nb is 0 for the storage of the
// sequential path and blockSize for the block storage.
int32_t supernodalSolve(int32_t mode, double* a, LASymbolic* sym, double* b, int32_t nb) {
  const double G = LA_SOLVE_GUARD;
  int32_t n = sym->n;
  if (mode == 0)
    for (int32_t i = 0; i < n; i++) b[i] = a[sym->perm[i]];

  for (int32_t s = 0; s < sym->numSNodes; s++) {
    int32_t first = sym->snodeStart[s];
    int32_t c = laSNodeCols(sym, s), r = laSNodeRows(sym, s);
    const int32_t* rows = sym->rowList + sym->rowBegin[s];
    const double* F = sym->factor + sym->factorBegin[s];
    const int32_t* piv = sym->pivots + first;
    int32_t bnb = nb > 0 && c > nb ? nb : 0;
    memcpy(a, b + first, sizeof(double) * (size_t)c);
    for (int32_t i = c; i < r; i++) a[i] = b[rows[i]];
    for (int32_t j = 0; j < c;) {
      int32_t shift = bnb ? (j / bnb) * bnb : 0;  // pivots are relative to the column block
      if (piv[j] >= 0) {
        int32_t p = piv[j] + shift;
        if (p != j) swapEntries(a, j, p);
        double aj = a[j];
        forColumn(F, bnb, r, c, j, j + 1, [&](const double* f, int32_t i0, int32_t len) {
          double* x = a + i0;
          for (int32_t i = 0; i < len; i++) x[i] -= aj * f[i];
        });
        a[j] = aj / F[laBlockOffset(bnb, r, c, j, j)];
        if (fabs(a[j]) >= G) return LA_ERR_SOLVE_OVERFLOW;
        j += 1;
      } else {
        int32_t p = -piv[j] + shift;
        if (p != j + 1) swapEntries(a, j + 1, p);
        double a0 = a[j], a1 = a[j + 1];
        forColumn(F, bnb, r, c, j, j + 2, [&](const double* f, int32_t i0, int32_t len) {
          double* x = a + i0;
          for (int32_t i = 0; i < len; i++) x[i] -= f[i] * a0;
        });
        forColumn(F, bnb, r, c, j + 1, j + 2, [&](const double* f, int32_t i0, int32_t len) {
          double* x = a + i0;
          for (int32_t i = 0; i < len; i++) x[i] -= a1 * f[i];
        });
        double d = F[laBlockOffset(bnb, r, c, j + 1, j)];
        double u = F[laBlockOffset(bnb, r, c, j, j)] / d;
        double v = F[laBlockOffset(bnb, r, c, j + 1, j + 1)] / d;
        double den = u * v - 1.0;
        a[j + 1] = (u * (a1 / d) - a0 / d) / den;
        a[j] = (v * (a0 / d) - a1 / d) / den;
        if (fabs(a[j]) >= G || fabs(a[j + 1]) >= G) return LA_ERR_SOLVE_OVERFLOW;
        j += 2;
      }
    }
    memcpy(b + first, a, sizeof(double) * (size_t)c);
    for (int32_t i = c; i < r; i++) b[rows[i]] = a[i];
  }

  for (int32_t s = sym->numSNodes - 1; s >= 0; s--) {
    int32_t first = sym->snodeStart[s];
    int32_t c = laSNodeCols(sym, s), r = laSNodeRows(sym, s);
    const int32_t* rows = sym->rowList + sym->rowBegin[s];
    const double* F = sym->factor + sym->factorBegin[s];
    const int32_t* piv = sym->pivots + first;
    int32_t bnb = nb > 0 && c > nb ? nb : 0;
    memcpy(a, b + first, sizeof(double) * (size_t)c);
    for (int32_t i = c; i < r; i++) a[i] = b[rows[i]];
    for (int32_t j = c - 1; j >= 0;) {
      int32_t shift = bnb ? (j / bnb) * bnb : 0;
      auto dotBelow = [&](int32_t col) {
        double sum = 0.0;
        forColumn(F, bnb, r, c, col, j + 1, [&](const double* f, int32_t i0, int32_t len) {
          sum += my_ddot(len, a + i0, 1, f, 1);
        });
        return sum;
      };
      if (piv[j] >= 0) {
        if (j < r - 1) {
          a[j] -= dotBelow(j);
          if (fabs(a[j]) >= G) return LA_ERR_SOLVE_OVERFLOW;
        }
        int32_t p = piv[j] + shift;
        if (p != j) swapEntries(a, j, p);
        j -= 1;
      } else {
        if (j < r - 1) {
          double s1 = dotBelow(j), s0 = dotBelow(j - 1);
          a[j] -= s1;
          a[j - 1] -= s0;
          if (fabs(a[j]) >= G || fabs(a[j - 1]) >= G) return LA_ERR_SOLVE_OVERFLOW;
        }
        int32_t p = -piv[j] + shift;
        if (p != j) swapEntries(a, j, p);
        j -= 2;
      }
    }
    memcpy(b + first, a, sizeof(double) * (size_t)c);
    for (int32_t i = c; i < r; i++) b[rows[i]] = a[i];
  }

  if (mode == 0)
    for (int32_t i = 0; i < n; i++) a[sym->perm[i]] = b[i];
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
