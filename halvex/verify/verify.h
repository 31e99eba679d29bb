// Self-checks of the iteration, woken by verifyLevel.  Every check takes the
// level and decides itself whether it runs; at level 0 it costs one compare.
#ifndef HALVEX_VERIFY_VERIFY_H
#define HALVEX_VERIFY_VERIFY_H

#include <stdint.h>

#include "ipm/ipm.h"

// Helpers of the checks and of the starting point.
double norm2(int32_t length, const double* vector);
void clearBuffer(int32_t length, double* vector);
void ATimesVector(const Ipm* ipm, const double* x, double* y);       // y = A x
void AtranTimesVector(const Ipm* ipm, const double* x, double* y);   // y = A' x

int32_t VerifyPrimalInfeas(Ipm* ipm, int32_t level);
int32_t VerifyBoundInfeas(Ipm* ipm, int32_t level);
int32_t VerifyDualInfeas(Ipm* ipm, int32_t level);
int32_t VerifyDualityGap(Ipm* ipm, int32_t level);
int32_t VerifyComplementarity(Ipm* ipm, int32_t level);
int32_t VerifyPredictorRhs(Ipm* ipm, int32_t level);
// Newton residuals of the step in vecRhs and the delta arrays, and the
// zero tests of absent sides; the norms come back for the traces.
int32_t VerifyKktCommon(Ipm* ipm, int32_t level, double* primalResidual, double* dualResidual);
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
// The off-diagonal part of an augmented matrix against the model's; null
// maps keep every column or row.
int32_t VerifyAugValue(Ipm* ipm, int32_t level, const int32_t* begin, const int32_t* index,
                       const double* value, const int32_t* colMap, int32_t numColMapped,
                       const int32_t* rowMap, int32_t numRowMapped);
// A matrix held in both triangles: every off-diagonal entry has its mirror
// with the same value.  length null means begin has a closing entry; a
// negative skip entry leaves that column and row out.
int32_t VerifySymMatrix(HalvexEnv* env, int32_t level, int32_t numDim, int32_t numCoef,
                        const int32_t* skip, const int32_t* begin, const int32_t* length,
                        const int32_t* index, const double* value);
// Every element finite, below 1e20 and not a denormal-sized leftover.
int32_t VerifyVector(HalvexEnv* env, int32_t level, int32_t length, const double* vector);

int32_t VerifyPrimalFeasible(Ipm* ipm, int32_t level);
int32_t VerifyInitDerivPrimal(Ipm* ipm, int32_t level);
int32_t VerifyDualFeasible(Ipm* ipm, int32_t level);
// A starting point x inside its bounds, to (normLower + 1 + normUpper) 1e-10.
int32_t VerifyBoundFeasible(Ipm* ipm, int32_t level, const double* x);
int32_t VerifyInitDerivDual(Ipm* ipm, int32_t level);
int32_t VerifySubmodel(HalvexEnv* env, int32_t level, ipmModel* model, subModel* sub);
// A map of the starting point compacted from the sub-model's.
int32_t VerifyInitRowMap(HalvexEnv* env, int32_t level, const subModel* sub, const int32_t* rowMap,
                         int32_t numRow);
int32_t VerifyInitColMap(HalvexEnv* env, int32_t level, const subModel* sub, const int32_t* colMap,
                         int32_t numCol);
// Prints how far the point may move along random directions; no caller.
int32_t VerifyDomainShape(Ipm* ipm, int32_t level);

#endif  // HALVEX_VERIFY_VERIFY_H
