// The checks' bodies are not written yet: every level answers 0 for now, so
// that the calls can stand at their places in the production path.  Level 0
// returns before anything else and will keep doing so.
#include "verify/verify.h"

int32_t VerifyPrimalInfeas(Ipm*, int32_t) { return 0; }
int32_t VerifyBoundInfeas(Ipm*, int32_t) { return 0; }
int32_t VerifyDualInfeas(Ipm*, int32_t) { return 0; }
int32_t VerifyDualityGap(Ipm*, int32_t) { return 0; }
int32_t VerifyComplementarity(Ipm*, int32_t) { return 0; }
int32_t VerifyPredictorRhs(Ipm*, int32_t) { return 0; }
int32_t VerifyKktPredictor(Ipm*, int32_t) { return 0; }
int32_t VerifyKktOverall(Ipm*, int32_t) { return 0; }
int32_t VerifyCorrector(Ipm*, int32_t) { return 0; }
int32_t VerifyStepsize(Ipm*, int32_t, int32_t) { return 0; }
int32_t VerifySolution(Ipm*, int32_t) { return 0; }
void VerifySummaryReport(Ipm*, int32_t) {}
void VerifyPredictorReport(Ipm*, int32_t) {}
void VerifyStatistics(Ipm*, int32_t) {}

int32_t VerifyKKTmatrix(Ipm*, int32_t) { return 0; }
int32_t VerifyIneqnEnv(Ipm*, int32_t) { return 0; }
int32_t VerifyBoundEnv(Ipm*, int32_t) { return 0; }
int32_t VerifyAugValue(Ipm*, int32_t) { return 0; }
int32_t VerifySymMatrix(HalvexEnv*, int32_t, const int32_t*, const int32_t*, const double*,
                        int32_t) {
  return 0;
}
int32_t VerifyVector(HalvexEnv*, int32_t, const double*, int32_t) { return 0; }

int32_t VerifyPrimalFeasible(Ipm*, int32_t) { return 0; }
int32_t VerifyInitDerivPrimal(Ipm*, int32_t) { return 0; }
int32_t VerifyDualFeasible(Ipm*, int32_t) { return 0; }
int32_t VerifyInitDerivDual(Ipm*, int32_t) { return 0; }
int32_t VerifySubmodel(HalvexEnv*, ipmModel*, subModel*, int32_t) { return 0; }
