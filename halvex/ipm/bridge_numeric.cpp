// The numeric phases behind the bridge, apart so that tests can replace them.
#include "ipm/bridge.h"

#include "la/la.h"

int32_t bridgeFactorNumeric(int32_t n, const int32_t* begin, const int32_t* index,
                            const double* value, LAEnv* laEnv, LASymbolic* factor,
                            LANumeric* memory) {
  return LA_FactorMatrixLDL(0, n, begin, index, value, laEnv, factor, memory);
}

int32_t bridgeSolveNumeric(const int32_t* begin, const int32_t* index, const double* value,
                           double* x, LAEnv* laEnv, LASymbolic* factor, LANumeric* memory) {
  return LA_SolveMatrixLDL(0, begin, index, value, x, laEnv, factor, memory);
}
