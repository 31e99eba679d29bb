// Inside the numeric phases: the BLAS entries, the dense panel routines, the
// triangular solves and the refinement, and the block addressing of the
// threaded storage that the sequential fallback and the solves share.
#ifndef HALVEX_LA_LA_NUMERIC_INTERNAL_H
#define HALVEX_LA_LA_NUMERIC_INTERNAL_H

#include <stddef.h>
#include <stdint.h>

#include "la/la_internal.h"
#include "la/la_numeric.h"

// ---- BLAS, Fortran interface --------------------------------------------------
// The trailing lengths are the hidden character lengths of the Fortran
// calling convention.
extern "C" {
void dgemm_(const char* transa, const char* transb, const int* m, const int* n, const int* k,
            const double* alpha, const double* A, const int* lda, const double* B, const int* ldb,
            const double* beta, double* C, const int* ldc, size_t, size_t);
void dgemv_(const char* trans, const int* m, const int* n, const double* alpha, const double* A,
            const int* lda, const double* x, const int* incx, const double* beta, double* y,
            const int* incy, size_t);
void dger_(const int* m, const int* n, const double* alpha, const double* x, const int* incx,
           const double* y, const int* incy, double* A, const int* lda);
void dtrsv_(const char* uplo, const char* trans, const char* diag, const int* n, const double* A,
            const int* lda, double* x, const int* incx, size_t, size_t, size_t);
}

// Thin wrappers by value; the BLAS wants everything by reference.
void laGemmNT(int m, int n, int k, double alpha, const double* A, int lda, const double* B,
              int ldb, double beta, double* C, int ldc);
void laGemv(char trans, int m, int n, double alpha, const double* A, int lda, const double* x,
            double beta, double* y, int incx = 1);

// r = b - A x over the stored matrix (both triangles), row by row in the
// stored order; returns the largest column sum of magnitudes and puts the
// largest magnitudes of r, x and b in norms.  With gathers (the processor
// must have AVX2) four rows go at once, to the same bits.
double laResidual(bool gathers, int32_t n, const int32_t* colBegin, const int32_t* rowIndex,
                  const double* value, const double* b, const double* x, double* r,
                  double norms[3]);

// ---- constants -----------------------------------------------------------------
#define LA_PIVOT_TOL 1.0536712127723509e-08
#define LA_BK_ALPHA 0.6403882032022076
#define LA_SOLVE_GUARD 1.7976931348623158e+304
#define LA_REFINE_STAGNATION 0.3

// ---- dense LDL' -------------------------------------------------------------------
int32_t DenseLDLDlasyf(double tol, int32_t m, int32_t n, int32_t* done, double* A, int32_t lda,
                       int32_t* pivots, double* W, int32_t ldw, int32_t* numPerturbed,
                       double* bufA, double* bufB);
void DenseLDLNonBlock(double tol, int32_t n, double* A, int32_t lda, int32_t* pivots,
                      int32_t* numPerturbed);
void SolveLD(int32_t m, int32_t n, const double* F, int32_t ldf, const int32_t* pivots, double* B,
             int32_t ldb, double* W, int32_t ldw);

// ---- triangular solves and refinement ---------------------------------------------
// mode 0: a is the vector in the caller's order, b receives it permuted;
// mode 1: b is the vector in analysis order, a is a buffer.  0 or 8.
typedef int32_t (*LATriangularSolveFn)(int32_t mode, double* a, LASymbolic* sym, double* b);
int32_t ldl_solve(int32_t mode, double* a, LASymbolic* sym, double* b);
int32_t ldl_psolve(int32_t mode, double* a, LASymbolic* sym, double* b);

// Diagonal blocks of at most this many columns get a copy (none wider than
// the block size on the block storage).
#define LA_DIAG_COPY_COLS 32
// Doubles that the copies of the plan need, with diagCopyBegin filled.
int64_t laDiagCopyLayout(LASymbolic* sym);
// After a factor step, per supernode with a copy range whose pivots have
// interchanges or pairs, in diagCopy: the unit triangle (c by c,
// column-major) with every later interchange applied to the rows of the
// earlier columns and zeros at the pairs' off-diagonals; then c 1x1 pivots
// (1.0 at a pair); then, per pair at column j, from entry 2j: its
// off-diagonal and the three constants of its solve.  diagCopyPairs lists
// the pairs.  Where a copy interchanges, the solve's row list and
// permutations too.
void laBuildDiagCopies(LASymbolic* sym);

int32_t FGMRES(double tol, double stagnation, int32_t n, const int32_t* colBegin,
               const int32_t* rowIndex, const double* value, const double* b, int32_t mode,
               int32_t maxIter, int32_t m, int32_t mMax, int32_t keepExtra, int32_t ortho,
               LAEnv* env, LASymbolic* sym, LATriangularSolveFn solve, double* result, double* x,
               double* scratch);

// First position from pos on in the ascending list[.. end) whose entry is
// key or more (end if none).  The rows of an update are a sparse subset of
// a large target's rows: steps that double, then a halving, instead of a
// walk over every row in between.
inline int64_t laSeekRow(const int32_t* list, int64_t pos, int64_t end, int32_t key) {
  if (pos >= end || list[pos] >= key) return pos;
  int64_t lo = pos, step = 1;
  while (lo + step < end && list[lo + step] < key) {
    lo += step;
    step *= 2;
  }
  int64_t hi = lo + step < end ? lo + step : end;
  while (hi - lo > 1) {
    int64_t mid = lo + (hi - lo) / 2;
    if (list[mid] < key) lo = mid;
    else hi = mid;
  }
  return hi;
}

// ---- block storage of the threaded plan --------------------------------------------
// Offset, inside supernode s's array, of entry (i, j): i a position in its
// row list, j one of its columns, i >= j.  Narrow supernodes are one
// column-major array; wide ones are cut into nb by nb tiles, each tile
// column-major with its own height as leading dimension.
inline int64_t laWideColBlockStart(int64_t nb, int64_t r, int64_t J) {
  return nb * (J * r - nb * J * (J - 1) / 2);
}
inline int64_t laBlockOffset(int32_t nb, int32_t r, int32_t c, int32_t i, int32_t j) {
  if (nb <= 0 || c <= nb) return (int64_t)i + (int64_t)j * r;
  int32_t J = j / nb, I = i / nb;
  int32_t w = c - J * nb < nb ? c - J * nb : nb;
  int32_t h = r - I * nb < nb ? r - I * nb : nb;
  return laWideColBlockStart(nb, r, J) + (int64_t)(I - J) * nb * w + (i - (int64_t)I * nb) +
         (int64_t)(j - J * nb) * h;
}

#endif
