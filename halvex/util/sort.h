// In-place sorts of one design: a key array and up to two companion arrays
// that move with it.  Not stable; no allocation and no recursion, so they are
// safe inside checks that may run with the pool nearly spent.  The status is
// always 0; it is there so that callers test it in the usual way.
//
// Floating-point keys use the plain operators: NaN has no defined place.
#ifndef HALVEX_UTIL_SORT_H
#define HALVEX_UTIL_SORT_H

#include <stdint.h>

#include "records/env.h"

int32_t QS_quickSortIntInc(HalvexEnv* env, int32_t* key, int32_t n);
int32_t QS_quickSortDblInc(HalvexEnv* env, double* key, int32_t n);
int32_t QS_quickSortDblDec(HalvexEnv* env, double* key, int32_t n);
int32_t QS_quickSortIntDblInc(HalvexEnv* env, int32_t* key, double* comp, int32_t n);
int32_t QS_quickSortDblIntInc(HalvexEnv* env, double* key, int32_t* comp, int32_t n);
int32_t QS_quickSortDblIntDec(HalvexEnv* env, double* key, int32_t* comp, int32_t n);
int32_t QS_quickSortIntIntInc(HalvexEnv* env, int32_t* key, int32_t* comp, int32_t n);
int32_t QS_quickSortDblIntDblDec(HalvexEnv* env, double* key, int32_t* comp1, double* comp2,
                                 int32_t n);

#endif  // HALVEX_UTIL_SORT_H
