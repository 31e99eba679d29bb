// Helpers over the plain-array sparse matrices of the solver side.
//
// A matrix is four parallel arrays: begin, length, index, value.  The helpers
// do not care whether a matrix runs by columns or by rows, so "major" is the
// column of a column-wise matrix and "minor" its row.  Major j owns positions
// begin[j] .. begin[j] + length[j] - 1; where no length array is passed, begin
// has one entry more and major j ends at begin[j + 1].  Entries removed by
// removeElement stay, intact, just behind the live part of their major, the
// latest removal first.  A symmetric matrix is a diagonal array plus its
// strict triangle, each off-diagonal pair stored once.
//
// Nothing here allocates; all work is on the caller's arrays.
#ifndef HALVEX_UTIL_SPARSE_H
#define HALVEX_UTIL_SPARSE_H

#include <stdint.h>

#include "records/env.h"

// Packs the live entries, dropping gaps and removed entries.  outBegin gets
// numMajor entries, no closing one.
void copyMatrix(int32_t numMajor, const int32_t* begin, const int32_t* length,
                const int32_t* index, const double* value, int32_t* outBegin,
                int32_t* outLength, int32_t* outIndex, double* outValue);

// Transposes a matrix without lengths; outBegin gets numMinor + 1 entries.
// Within an output major the entries come sorted by source major.
void toggleMatrix(int32_t numMajor, int32_t numMinor, int32_t numCoef, const int32_t* begin,
                  const int32_t* index, const double* value, int32_t* outBegin,
                  int32_t* outIndex, double* outValue);

// Transposes the live entries of a matrix with lengths.  Majors with a negative
// skipMap entry (skipMap may be null) are left out whole; the indices written
// are source major numbers.  outBegin gets numMinor + 1 entries.
void toggleMatrixWithLength(int32_t numMajor, int32_t numMinor, const int32_t* skipMap,
                            const int32_t* begin, const int32_t* length,
                            const int32_t* index, const double* value, int32_t* outBegin,
                            int32_t* outLength, int32_t* outIndex, double* outValue);

// Completes, in place, a symmetric matrix whose first numCol columns (diagonal
// first, then rows >= numCol) are stored without lengths, by appending columns
// numCol .. numDim - 1 that hold the transposed entries and then a zero
// diagonal as their last entry.  begin gets numDim + 1 entries.
void augmentMatrix(int32_t numDim, int32_t numCol, int32_t* begin, int32_t* index,
                   double* value);

// Moves the entry with index minor to the end of the live part of major and
// shortens the major by one.  value may be null.
void removeElement(HalvexEnv* env, int32_t minor, int32_t major, const int32_t* begin,
                   int32_t* length, int32_t* index, double* value);

// y = A x, y of numRow entries.  length may be null.
void matrixTimesVector(int32_t numRow, int32_t numCol, const int32_t* begin,
                       const int32_t* length, const int32_t* index, const double* value,
                       const double* x, double* y);

// y = A' x, y of numCol entries.
void vectorTimesMatrix(int32_t numCol, const int32_t* begin, const int32_t* length,
                       const int32_t* index, const double* value, const double* x, double* y);

// y += alpha Q x.  begin and length null means Q is diagonal.
void symmatrixTimesVector(int32_t numDim, const int32_t* begin, const int32_t* length,
                          const int32_t* index, const double* value, const double* diag,
                          const double* x, double* y, double alpha);

// 0.5 x' Q x.
double calcQuadForm(int32_t numDim, const int32_t* begin, const int32_t* length,
                    const int32_t* index, const double* value, const double* diag,
                    const double* x);

// Moves every listed diagonal entry below delta to at most -delta.
void regMatDiag(int32_t numFirst, int32_t numSecond, double* diag, const int32_t* firstIndex,
                const int32_t* secondIndex, double delta);

// Listings through the text log, for debugging.
void printMatrix(HalvexEnv* env, int32_t numMajor, const int32_t* begin, const int32_t* index,
                 const double* value);
void printMatrixWithLength(HalvexEnv* env, int32_t numMajor, const int32_t* begin,
                           const int32_t* length, const int32_t* index, const double* value);

#endif  // HALVEX_UTIL_SPARSE_H
