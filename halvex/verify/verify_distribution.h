// Checks of the magnitude histogram and of the outlier screen against the
// data they were made from, woken at level 5.
#ifndef HALVEX_VERIFY_VERIFY_DISTRIBUTION_H
#define HALVEX_VERIFY_VERIFY_DISTRIBUTION_H

#include <stdint.h>

#include "records/model_records.h"

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

#endif  // HALVEX_VERIFY_VERIFY_DISTRIBUTION_H
