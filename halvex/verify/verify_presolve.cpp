#include "verify/verify_presolve.h"

// The presolve checks are not written yet: every level passes.
int32_t ipmVerifyRowMatrix(HalvexEnv*, int32_t, int32_t, int32_t, int32_t, const int32_t*,
                           const int32_t*, const int32_t*, const int32_t*, const int32_t*,
                           const double*, const int32_t*, const int32_t*, const int32_t*,
                           const double*) {
  return 0;
}
int32_t VerifySymMatrixFormat(HalvexEnv*, int32_t, int32_t, int32_t, const int32_t*,
                              const int32_t*, const int32_t*, const int32_t*, const int32_t*,
                              const double*, const int32_t*, const int32_t*, const int32_t*,
                              const double*) {
  return 0;
}
int32_t VerifyPresolveStructure(HalvexEnv*, int32_t, ipmModel*, ipmOption*, presolver*) {
  return 0;
}
int32_t VerifyPresolveValue(HalvexEnv*, int32_t, ipmModel*, ipmModel*, presolver*) { return 0; }
int32_t VerifyPresolveDisabled(HalvexEnv*, int32_t, presolver*, int32_t, int32_t) { return 0; }
