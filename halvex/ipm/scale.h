// Scaling of the model before the iteration and its undoing afterwards, and
// the coarse magnitude histogram on which the decision to scale rests.
//
// The histogram is four parallel arrays of HIST_BINS entries, kept on the
// caller's stack: lowCount/lowBreak for magnitudes up to 1, highCount/
// highBreak for magnitudes above 1.  Low bin i holds lowBreak[i+1] < v <=
// lowBreak[i], high bin i holds highBreak[i] < v <= highBreak[i+1]; bin 15 of
// either half also takes everything beyond, zero in the low half.
#ifndef HALVEX_IPM_SCALE_H
#define HALVEX_IPM_SCALE_H

#include <stdint.h>

#include "records/model_records.h"
#include "records/siblings.h"

#define HIST_BINS 17
#define HIST_LAST 15  // the catch-all bin of either half

// ---- the magnitude histogram -------------------------------------------------------

void initDistribution(int32_t* lowCount, double* lowBreak, int32_t* highCount,
                      double* highBreak);

// Adds the magnitude of every live entry, zeros included.  colLength may be
// null, column j then ending where column j + 1 begins.
void getMatrixDistribution(HalvexEnv* env, int32_t numCol, const int32_t* colBegin,
                           const int32_t* colLength, const double* matValue, int32_t* lowCount,
                           const double* lowBreak, int32_t* highCount, const double* highBreak);

// Adds the magnitude of every non-zero element; *numNonzero gets their number.
void getVectorDistribution(HalvexEnv* env, int32_t length, const double* vector,
                           int32_t* numNonzero, int32_t* lowCount, const double* lowBreak,
                           int32_t* highCount, const double* highBreak);

// As the vector form, on |diag[i] * multiplier * x[i]^2| for non-zero diag[i].
void getQuadDistribution(double multiplier, HalvexEnv* env, int32_t length, const double* diag,
                         int32_t* numNonzero, const double* x, int32_t* lowCount,
                         const double* lowBreak, int32_t* highCount, const double* highBreak);

// Quantile of the histogram in ascending order of magnitude.  mode 0
// interpolates inside the bin, 1 gives its upper edge and the number of values
// above it, 2 its lower edge and the number below it.  binCount may be null.
double getPercentile(double fraction, int32_t count, int32_t mode, int32_t* binCount,
                     const int32_t* lowCount, const double* lowBreak, const int32_t* highCount,
                     const double* highBreak);

// Sets aside at most 5 percent of the values in either tail.  A magnitude is
// an outlier when it is <= *smallCut or > *largeCut.  Returns numLeft (large
// tail) plus numRight (small tail).
int32_t countOutlier(HalvexEnv* env, int32_t count, int32_t* numLeft, int32_t* numRight,
                     double* largeCut, double* smallCut, const int32_t* lowCount,
                     const double* lowBreak, const int32_t* highCount, const double* highBreak);

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

// ---- checks of the histogram, woken at level 5 ------------------------------------

int32_t VerifyDistribution(HalvexEnv* env, int32_t level, int32_t numData, const double* data,
                           const int32_t* lowCount, const double* lowBreak,
                           const int32_t* highCount, const double* highBreak);
int32_t VerifyPdfMatrix(HalvexEnv* env, int32_t level, const ipmModel* model,
                        const int32_t* lowCount, const double* lowBreak, const int32_t* highCount,
                        const double* highBreak);
int32_t VerifyPdfObj(HalvexEnv* env, int32_t level, const ipmModel* model, int32_t numNonzero,
                     const int32_t* lowCount, const double* lowBreak, const int32_t* highCount,
                     const double* highBreak);
int32_t VerifyPdfAll(HalvexEnv* env, int32_t level, const ipmModel* model, int32_t numValue,
                     const int32_t* lowCount, const double* lowBreak, const int32_t* highCount,
                     const double* highBreak);
int32_t VerifyOutlier(double largeCut, double smallCut, HalvexEnv* env, int32_t level,
                      const ipmModel* model, int32_t numValue, int32_t numLeft, int32_t numRight,
                      const int32_t* lowCount, const double* lowBreak, const int32_t* highCount,
                      const double* highBreak);

#endif  // HALVEX_IPM_SCALE_H
