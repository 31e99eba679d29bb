// Self-checks of the iteration, woken by verifyLevel.  Every check takes the
// level and decides itself whether it runs; at level 0 it costs one compare.
#ifndef HALVEX_VERIFY_VERIFY_H
#define HALVEX_VERIFY_VERIFY_H

#include <stdint.h>

#include "ipm/ipm.h"

int32_t VerifyPrimalInfeas(Ipm* ipm, int32_t level);
int32_t VerifyBoundInfeas(Ipm* ipm, int32_t level);
int32_t VerifyDualInfeas(Ipm* ipm, int32_t level);
int32_t VerifyDualityGap(Ipm* ipm, int32_t level);
int32_t VerifyComplementarity(Ipm* ipm, int32_t level);
int32_t VerifyPredictorRhs(Ipm* ipm, int32_t level);
int32_t VerifyKktPredictor(Ipm* ipm, int32_t level);
int32_t VerifyKktOverall(Ipm* ipm, int32_t level);
int32_t VerifyCorrector(Ipm* ipm, int32_t level);
int32_t VerifyStepsize(Ipm* ipm, int32_t which, int32_t level);
int32_t VerifySolution(Ipm* ipm, int32_t level);
void VerifySummaryReport(Ipm* ipm, int32_t level);
void VerifyPredictorReport(Ipm* ipm, int32_t level);
void VerifyStatistics(Ipm* ipm, int32_t level);

int32_t VerifyKKTmatrix(Ipm* ipm, int32_t level);
int32_t VerifyIneqnEnv(Ipm* ipm, int32_t level);
int32_t VerifyBoundEnv(Ipm* ipm, int32_t level);
int32_t VerifyAugValue(Ipm* ipm, int32_t level);
int32_t VerifySymMatrix(HalvexEnv* env, int32_t numDim, const int32_t* begin,
                        const int32_t* index, const double* value, int32_t level);
int32_t VerifyVector(HalvexEnv* env, int32_t numDim, const double* vector, int32_t level);

int32_t VerifyPrimalFeasible(Ipm* ipm, int32_t level);
int32_t VerifyInitDerivPrimal(Ipm* ipm, int32_t level);
int32_t VerifyDualFeasible(Ipm* ipm, int32_t level);
int32_t VerifyInitDerivDual(Ipm* ipm, int32_t level);
int32_t VerifySubmodel(HalvexEnv* env, ipmModel* model, subModel* sub, int32_t level);

#endif  // HALVEX_VERIFY_VERIFY_H
