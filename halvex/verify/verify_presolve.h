// Checks of the presolver's books and working copies.  Like every check they
// take verifyLevel and decide themselves whether to run; their bodies arrive
// with the diagnostics, and until then they pass.
#ifndef HALVEX_VERIFY_VERIFY_PRESOLVE_H
#define HALVEX_VERIFY_VERIFY_PRESOLVE_H

#include <stdint.h>

#include "presolve/presolver.h"
#include "records/model_records.h"

// The row-wise copy against the column-wise one, live entries only.
int32_t ipmVerifyRowMatrix(HalvexEnv* env, int32_t level, int32_t numRow, int32_t numCol,
                           int32_t numCoef, const int32_t* colSkip, const int32_t* rowSkip,
                           const int32_t* colBegin, const int32_t* colLength,
                           const int32_t* rowIndex, const double* matValue,
                           const int32_t* rowBegin, const int32_t* rowLength,
                           const int32_t* colIndex, const double* rowMatValue);
// The same for a symmetric matrix held in both triangles.
int32_t VerifySymMatrixFormat(HalvexEnv* env, int32_t level, int32_t numDim, int32_t numCoef,
                              const int32_t* colSkip, const int32_t* rowSkip,
                              const int32_t* colBegin, const int32_t* colLength,
                              const int32_t* rowIndex, const double* matValue,
                              const int32_t* rowBegin, const int32_t* rowLength,
                              const int32_t* colIndex, const double* rowMatValue);
int32_t VerifyPresolveStructure(HalvexEnv* env, int32_t level, ipmModel* model,
                                ipmOption* option, presolver* pre);
int32_t VerifyPresolveValue(HalvexEnv* env, int32_t level, ipmModel* reduced, ipmModel* model,
                            presolver* pre);
int32_t VerifyPresolveDisabled(HalvexEnv* env, int32_t level, presolver* pre, int32_t numRow,
                               int32_t numCol);

#endif
