// The active-set finish and its two self-checks.
#ifndef HALVEX_IPM_RESET_H
#define HALVEX_IPM_RESET_H

#include <stdint.h>

#include "ipm/ipm.h"

// Values of the work maps besides the new index (0 and up).
#define RESET_MAP_DROPPED (-1)      // an inactive row, left out of the system
#define RESET_MAP_FIXED_LOWER (-2)  // a column held at its lower bound
#define RESET_MAP_FIXED_UPPER (-3)  // a column held at its upper bound

// That the entries of map that are 0 and up number 0, 1, 2, ... in order and
// that there are numReduced of them.  Runs from level 1; 0 or 10.
int32_t VerifyMapping(HalvexEnv* env, int32_t level, int32_t length, const int32_t* map,
                      int32_t numReduced);

// The reduced system against the model it came from, at a random point:
// for kept rows K z - right must be A x - rhs, for kept columns A'y - Qx - obj,
// with the fixed columns at their bounds.  Runs from level 1; 0, 10 or -1086.
int32_t VerifyResetSystem(Ipm* ipm, int32_t level, const int32_t* colMap, int32_t numColReset,
                          const int32_t* rowMap, int32_t numRowReset, const int32_t* begin,
                          const int32_t* index, const double* value, const double* right);

#endif  // HALVEX_IPM_RESET_H
