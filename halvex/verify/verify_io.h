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

#endif
