// Checks of the model as it comes in and of the solution as it goes out.
// Like every check they take verifyLevel and decide themselves whether to
// run; their bodies arrive with the diagnostics, and until then they pass.
#ifndef HALVEX_VERIFY_VERIFY_IO_H
#define HALVEX_VERIFY_VERIFY_IO_H

#include <stdint.h>

#include "presolve/presolver.h"
#include "records/model_records.h"

int32_t ipmVerifyInput(HalvexEnv* env, int32_t level, ipmModel* model);
int32_t VerifyModelPrimal(HalvexEnv* env, int32_t level, ipmModel* model, ipmOption* option,
                          ipmSolution* solution);
int32_t VerifyModelBound(HalvexEnv* env, int32_t level, ipmModel* model, ipmOption* option,
                         ipmSolution* solution);
int32_t VerifyModelDual(HalvexEnv* env, int32_t level, ipmModel* model, ipmOption* option,
                        ipmSolution* solution);
int32_t VerifyOutput(HalvexEnv* env, int32_t level, ipmModel* model, ipmOption* option,
                     ipmSolution* solution);
int32_t VerifyShiftBound(HalvexEnv* env, int32_t level, ipmModel* model, ipmOption* option,
                         presolver* pre, ipmSolution* solution);

// Whole records to the text log, for a debugging session; nothing in the
// solve calls them.  A null length array means begin has a closing entry.
void DumpModel(HalvexEnv* env, int32_t numRow, const char* rowSense, const double* rhs,
               int32_t numCol, const double* obj, const double* lower, const double* upper,
               int32_t numCoef, const int32_t* colBegin, const int32_t* colLength,
               const int32_t* rowIndex, const double* matValue);
void DumpModelQP(HalvexEnv* env, int32_t numCol, const double* quadDiag, int32_t numQuadCoef,
                 const int32_t* quadColBegin, const int32_t* quadColLength,
                 const int32_t* quadRowIndex, const double* quadMatValue);
void DumpSolution(HalvexEnv* env, int32_t numCol, const double* primal, const double* lowerSlack,
                  const double* upperSlack, const double* lowerDual, const double* upperDual,
                  int32_t numRow, const double* dual, const double* ineqnSlack);
void DumpEquation(HalvexEnv* env, int32_t numDim, const double* rhs, int32_t numCoef,
                  const int32_t* colBegin, const int32_t* colLength, const int32_t* rowIndex,
                  const double* matValue);

#endif
