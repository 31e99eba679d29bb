// Small helpers shared by the presolver's sources.
#ifndef HALVEX_PRESOLVE_INTERNAL_H
#define HALVEX_PRESOLVE_INTERNAL_H

#include <math.h>
#include <stdint.h>

#include "frame/qv.h"
#include "presolve/presolver.h"
#include "verify/verify_presolve.h"

#define PRE_TEXT(env, ...)                                         \
  do {                                                             \
    if ((env) != nullptr && (env)->textLog != nullptr) (env)->textLog(__VA_ARGS__); \
  } while (0)

#define PRE_MSG(env, severity, code, ...)                                                 \
  do {                                                                                    \
    if ((env) != nullptr && (env)->messageLog != nullptr && (env)->messageLog->log != nullptr) \
      (env)->messageLog->log((env)->messageLog, (severity), (int64_t)(int32_t)(code),     \
                             ##__VA_ARGS__);                                              \
  } while (0)

namespace presolve {

// A model may have no rows or no entries; a pool may answer a request for
// nothing with null, which would read as out of memory, so ask for one.
template <typename T>
inline T* newArray(QVPool* pool, int64_t count, bool zero = true) {
  return poolNew<T>(pool, count > 0 ? count : 1, zero);
}

// A model without R rows may come without a range array.
inline double rangeOf(const ipmModel* model, int32_t row) {
  return model->range ? model->range[row] : 0.0;
}

inline bool isQP(const ipmModel* model) { return model->typeModel == IPM_MODEL_QP; }

// The row-wise copy against the column-wise model, at levels that ask for it.
inline int32_t verifyRowMatrix(HalvexEnv* env, int32_t level, int32_t numRow, int32_t numCol,
                        int32_t numCoef, const int32_t* colSkip, const int32_t* rowSkip,
                        const int32_t* colBegin, const int32_t* colLength,
                        const int32_t* rowIndex, const double* matValue,
                        const int32_t* rowBegin, const int32_t* rowLength,
                        const int32_t* colIndex, const double* rowMatValue) {
  if (level == 0) return 0;
  return ipmVerifyRowMatrix(env, level, numRow, numCol, numCoef, colSkip, rowSkip, colBegin,
                            colLength, rowIndex, matValue, rowBegin, rowLength, colIndex,
                            rowMatValue);
}

}  // namespace presolve

#endif  // HALVEX_PRESOLVE_INTERNAL_H
