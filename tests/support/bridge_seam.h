// The test program's own numeric phases behind the bridge.  They run the
// library's unless a test hands in replacements, which then see every
// factorisation and solve of the iteration, the reset and the equation
// solver.
#ifndef HALVEX_TESTS_BRIDGE_SEAM_H
#define HALVEX_TESTS_BRIDGE_SEAM_H

#include "la/la.h"

struct LdlNumericOverride {
  int32_t (*factor)(int32_t mode, int32_t n, const int32_t* begin, const int32_t* index,
                    const double* value, LAEnv* env, LASymbolic* symbolic, LANumeric* numeric);
  int32_t (*solve)(int32_t mode, const int32_t* begin, const int32_t* index, const double* value,
                   double* x, LAEnv* env, LASymbolic* symbolic, LANumeric* numeric);
};

// Null: the library's own numeric phases.  A member left null also runs the
// library's.
extern LdlNumericOverride* ldlNumericOverride;

#endif
