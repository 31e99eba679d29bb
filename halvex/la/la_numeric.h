// The numeric side of the factorisation library: the dense LDL' of one
// block, its stand-alone solves, and the residual measure.  The sparse
// factor and solve calls are declared in la/la.h beside the analysis.
#ifndef HALVEX_LA_LA_NUMERIC_H
#define HALVEX_LA_LA_NUMERIC_H

#include <stdint.h>

#include "la/la.h"

// Factors the leading n columns of the m by n lower-triangular block A
// (m >= n) with Bunch-Kaufman 1x1 and 2x2 pivots chosen among the first n
// rows only.  Pivots of size tol or less, with their column, become +-tol
// and are counted into *numPerturbed.  With m > n, W (m by n, leading
// dimension m) comes back holding L * D for the whole block.
//   tol           [in]  absolute; the sparse factor passes 1.05e-8
//   m             [in]  rows, m >= n; rows n to m-1 are never pivots
//   n             [in]  columns, the pivot block
//   A             [in,out] m by n, lower part read; out D and L in place
//   lda           [in]  at least m
//   pivots        [out] n pivot records, relative to the block
//   W             [out] m > n: m by n, L * D; m == n: workspace of
//                 n * min(n, 96) doubles
//   numPerturbed  [in,out] increased by the pivots replaced; not reset
//   bufA          [workspace] 96 * 96 doubles
//   bufB          [workspace] 96 * 96 doubles
HALVEX_EXPORT void LA_DenseLDLFactorize(double tol, int32_t m, int32_t n, double* A, int32_t lda,
                                        int32_t* pivots, double* W, int32_t* numPerturbed,
                                        double* bufA, double* bufB);
// Solves F x = b in place with a factor of LA_DenseLDLFactorize (m == n).
//   n       [in]  order
//   F       [in]  n by n factor, leading dimension ldf >= n
//   pivots  [in]  n pivot records of the factor
//   x       [in,out] n: b in, x out
HALVEX_EXPORT void LA_DenseLDLSolveOne(int32_t n, const double* F, int32_t ldf,
                                       const int32_t* pivots, double* x);
// The transposed half of that solve: x := P L^-T x.
//   n, F, ldf, pivots  [in]  as for LA_DenseLDLSolveOne
//   x                  [in,out] n
HALVEX_EXPORT void LA_DenseLDLSolveOne_Lt(int32_t n, const double* F, int32_t ldf,
                                          const int32_t* pivots, double* x);
// The same for nrhs right-hand sides in the columns of B.
//   n, F, ldf, pivots  [in]  as for LA_DenseLDLSolveOne
//   nrhs               [in]  columns of B
//   B                  [in,out] n by nrhs, leading dimension ldb >= n
HALVEX_EXPORT void LA_DenseLDLSolveMany(int32_t n, int32_t nrhs, const double* F, int32_t ldf,
                                        const int32_t* pivots, double* B, int32_t ldb);
// ||A x - b||_inf / (||b||_inf + ||A||_1 ||x||_inf), 0.0 for b = 0; A x - b
// goes to residual.  A is stored with both triangles.  Also 0.0 for n <= 0
// or a null colBegin, x, rhs or residual.
//   n         [in]  order
//   colBegin  [in]  n+1 column starts
//   rowIndex  [in]  colBegin[n] rows
//   value     [in]  colBegin[n] values
//   x         [in]  n
//   rhs       [in]  n
//   residual  [out] n: A x - b
HALVEX_EXPORT double LA_CalculateInfNormResidual(int32_t n, const int32_t* colBegin,
                                                 const int32_t* rowIndex, const double* value,
                                                 const double* x, const double* rhs,
                                                 double* residual);

#endif
