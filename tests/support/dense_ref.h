// A dense reference for small systems: what a sparse result is checked
// against.  Matrices are row-major vectors of rows.
#ifndef HALVEX_TESTS_SUPPORT_DENSE_REF_H
#define HALVEX_TESTS_SUPPORT_DENSE_REF_H

#include <cstdint>
#include <vector>

namespace hxtest {

using Vec = std::vector<double>;
using Dense = std::vector<Vec>;

// From column-wise arrays (begin has n + 1 entries; duplicates are summed).
// With mirror, the entries are one triangle of a symmetric matrix and the
// other triangle is filled in.
Dense denseFromCsc(int32_t numRow, int32_t numCol, const int32_t* begin, const int32_t* index,
                   const double* value, bool mirror = false);
// The same with column lengths, as the model records keep them.
Dense denseFromCsc(int32_t numRow, int32_t numCol, const int32_t* begin, const int32_t* length,
                   const int32_t* index, const double* value, bool mirror = false);

Vec multiply(const Dense& a, const Vec& x);
// max_i |(A x - b)_i|.
double residual(const Dense& a, const Vec& x, const Vec& b);

// Gaussian elimination with partial pivoting.  Returns false when a pivot
// falls below singularBelow (after the row exchange); with nudge, such a
// pivot is raised to singularBelow instead, as a static-pivoting
// factorisation would, and the solve goes on.
bool luSolve(Dense a, Vec b, Vec* x, double singularBelow = 1e-12, bool nudge = false);

// L D L' without pivoting, for quasi-definite matrices: unit lower L and
// diagonal d with A = L diag(d) L'.  False when a pivot is exactly zero.
bool ldlFactor(const Dense& a, Dense* l, Vec* d);
// The inertia of a symmetric matrix from that factor: counts of positive
// and negative pivots.
void inertia(const Vec& d, int32_t* positive, int32_t* negative);

}  // namespace hxtest

#endif
