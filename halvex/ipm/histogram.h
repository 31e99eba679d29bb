// The coarse magnitude histogram that scaling, the sub-model and the checks
// read.
//
// The histogram is four parallel arrays of HIST_BINS entries, kept on the
// caller's stack: lowCount/lowBreak for magnitudes up to 1, highCount/
// highBreak for magnitudes above 1.  Low bin i holds lowBreak[i+1] < v <=
// lowBreak[i], high bin i holds highBreak[i] < v <= highBreak[i+1]; bin 15 of
// either half also takes everything beyond, zero in the low half.
#ifndef HALVEX_IPM_HISTOGRAM_H
#define HALVEX_IPM_HISTOGRAM_H

#include <stdint.h>

#include "records/env.h"

#define HIST_BINS 17
#define HIST_LAST 15  // the catch-all bin of either half

// ---- the magnitude histogram -------------------------------------------------------

void initDistribution(int32_t* lowCount, double* lowBreak, int32_t* highCount,
                      double* highBreak);

// Empties the bins; the breaks stay.
void clearDistributionCounts(int32_t* lowCount, int32_t* highCount);

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

#endif  // HALVEX_IPM_HISTOGRAM_H
