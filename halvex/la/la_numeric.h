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
// dimension m) comes back holding L * D for the whole block.  bufA holds
// 96 * 96 doubles and bufB 96 * 96 doubles.
HALVEX_EXPORT void LA_DenseLDLFactorize(double tol, int32_t m, int32_t n, double* A, int32_t lda,
                                        int32_t* pivots, double* W, int32_t* numPerturbed,
                                        double* bufA, double* bufB);
// Solves F x = b in place with a factor of LA_DenseLDLFactorize (m == n).
HALVEX_EXPORT void LA_DenseLDLSolveOne(int32_t n, const double* F, int32_t ldf,
                                       const int32_t* pivots, double* x);
// The transposed half of that solve: x := P L^-T x.
HALVEX_EXPORT void LA_DenseLDLSolveOne_Lt(int32_t n, const double* F, int32_t ldf,
                                          const int32_t* pivots, double* x);
// The same for nrhs right-hand sides in the columns of B.
HALVEX_EXPORT void LA_DenseLDLSolveMany(int32_t n, int32_t nrhs, const double* F, int32_t ldf,
                                        const int32_t* pivots, double* B, int32_t ldb);
// ||A x - b||_inf / (||b||_inf + ||A||_1 ||x||_inf), 0.0 for b = 0; A x - b
// goes to residual.  A is stored with both triangles.
HALVEX_EXPORT double LA_CalculateInfNormResidual(int32_t n, const int32_t* colBegin,
                                                 const int32_t* rowIndex, const double* value,
                                                 const double* x, const double* rhs,
                                                 double* residual);

#endif
