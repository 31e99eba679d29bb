// Linked into the unit-test program as an object, ahead of the static
// library, so that the bridge calls these instead of the module's own.
#include "support/bridge_seam.h"
#include "support/bridge_seam.h"

#include "ipm/bridge.h"

LdlNumericOverride* ldlNumericOverride = nullptr;

int32_t bridgeFactorNumeric(int32_t n, const int32_t* begin, const int32_t* index,
                            const double* value, LAEnv* laEnv, LASymbolic* factor,
                            LANumeric* memory) {
  if (ldlNumericOverride && ldlNumericOverride->factor)
    return ldlNumericOverride->factor(0, n, begin, index, value, laEnv, factor, memory);
  return LA_FactorMatrixLDL(0, n, begin, index, value, laEnv, factor, memory);
}

int32_t bridgeSolveNumeric(const int32_t* begin, const int32_t* index, const double* value,
                           double* x, LAEnv* laEnv, LASymbolic* factor, LANumeric* memory) {
  if (ldlNumericOverride && ldlNumericOverride->solve)
    return ldlNumericOverride->solve(0, begin, index, value, x, laEnv, factor, memory);
  return LA_SolveMatrixLDL(0, begin, index, value, x, laEnv, factor, memory);
}
