// Scaling of the model before the iteration and its undoing afterwards.
#ifndef HALVEX_IPM_SCALE_H
#define HALVEX_IPM_SCALE_H

#include <stdint.h>

#include "ipm/histogram.h"
#include "records/model_records.h"
#include "records/siblings.h"

// ---- scaling and unscaling ---------------------------------------------------------

int32_t ipmScale(HalvexEnv* env, ipmModel* model, ipmOption* option, ipmStorage* storage);
int32_t ipmUnscale(HalvexEnv* env, ipmModel* model, ipmOption* option, ipmStorage* storage,
                   ipmSolution* solution);

int32_t iplpScaleRow(HalvexEnv* env, ipmModel* model, ipmStorage* storage);
void iplpUnscaleRow(HalvexEnv* env, ipmModel* model, ipmStorage* storage);

// Takes a solution of the original model into the space of the factors of
// bramlet's scaling run without objective factor (the crossover's): x / c,
// slacks / c, bound duals and reduced costs * c, y / r, row slacks and
// activities * r.  reducedCost and rowActivity may be null.
void scaleSolutionToScaled(int32_t numRow, int32_t numCol, const double* rowScale,
                           const double* colScale, ipmSolution* solution, double* reducedCost,
                           double* rowActivity);

#endif  // HALVEX_IPM_SCALE_H
