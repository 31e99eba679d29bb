#include "ipm/bridge.h"

#include "frame/qv.h"
#include "la/la.h"
#include "verify/verify.h"

int32_t laSetup(HalvexEnv* env, QVPool* pool, LAEnv** laEnv, int32_t numLeadingRows,
                int32_t numThreads) {
  if (!laEnv) return IPM_STATUS_FAILED;
  if (!pool && env) pool = env->pool;
  if (!pool) return IPM_STATUS_FAILED;
  int32_t status = LA_OK;
  LAEnv* created = LA_CreateLAEnv(pool, env, &status);
  if (!created) return status == LA_ERR_MEMORY ? IPM_STATUS_OUT_OF_MEMORY : IPM_STATUS_FAILED;
  if (LA_SetIntParam(created, LA_PARAM_ORDERING_METHOD, -1) != LA_OK ||
      LA_SetIntParam(created, LA_PARAM_NUM_LEADING_ROWS, numLeadingRows) != LA_OK ||
      LA_SetIntParam(created, LA_PARAM_NUM_THREADS, numThreads) != LA_OK) {
    // Not handed out half set up: the caller would factor with defaults.
    LA_FreeLAEnv(&created);
    return IPM_STATUS_FAILED;
  }
  *laEnv = created;
  return 0;
}

int32_t ldlAnalyze(HalvexEnv* /*env*/, int32_t numDim, const int32_t* begin, const int32_t* index,
                   const double* value, LAEnv* laEnv, LASymbolic** factor, LANumeric** memory) {
  if (!laEnv || !factor || !memory) return IPM_STATUS_FAILED;
  int32_t status = LA_AnalyzeMatrixLDL(numDim, begin, index, value, laEnv, factor, memory);
  if (status == LA_OK) return 0;
  // A failed analysis may leave partial records; they are of no use.
  LA_CleanUpLDL(laEnv, factor, memory);
  *factor = nullptr;
  *memory = nullptr;
  if (status == LA_ERR_MEMORY || status == LA_ERR_TOO_BIG) return IPM_STATUS_OUT_OF_MEMORY;
  return IPM_STATUS_FAILED;
}

int32_t ldlFactorize(HalvexEnv* /*env*/, int32_t numDim, const int32_t* begin, const int32_t* index,
                     const double* value, LAEnv* laEnv, LASymbolic* factor, LANumeric* memory) {
  if (!laEnv || !factor || !memory) return IPM_STATUS_FAILED;
  int32_t status = bridgeFactorNumeric(numDim, begin, index, value, laEnv, factor, memory);
  if (status == LA_OK) return 0;
  return status == LA_ERR_MEMORY ? IPM_STATUS_OUT_OF_MEMORY : IPM_STATUS_FAILED;
}

int32_t ldlSolve(HalvexEnv* env, int32_t verifyLevel, int32_t numDim, int32_t /*control*/,
                 const int32_t* begin, const int32_t* index, const double* value, double* vector,
                 LAEnv* laEnv, LASymbolic* factor, LANumeric* memory) {
  if (!laEnv || !factor || !memory) return IPM_STATUS_FAILED;
  if (verifyLevel) {
    // Reported by the checks themselves; the solve goes on regardless.
    VerifySymMatrix(env, verifyLevel, numDim, begin[numDim], nullptr, begin, nullptr, index, value);
    VerifyVector(env, verifyLevel, numDim, vector);
  }
  int32_t status = bridgeSolveNumeric(begin, index, value, vector, laEnv, factor, memory);
  // Refinement that stopped short still leaves its best point in place,
  // which is as good as the step can get.
  if (status == LA_OK || status == LA_REFINE_CONVERGED || status == LA_REFINE_STOPPED) return 0;
  if (status == LA_ERR_MEMORY) return IPM_STATUS_OUT_OF_MEMORY;
  return IPM_STATUS_SOLVE_FAILED;
}

int32_t solveEquationLDL(HalvexEnv* env, int32_t verifyLevel, int32_t /*mode*/, int32_t numDim,
                         int32_t numLeadingRows, int32_t numThreads, const int32_t* begin,
                         const int32_t* index, const double* value, double* vector, QVPool* pool) {
  if (!pool && env) pool = env->pool;
  if (!pool) return IPM_STATUS_FAILED;
  LAEnv* laEnv = nullptr;
  LASymbolic* factor = nullptr;
  LANumeric* memory = nullptr;
  int32_t status = laSetup(env, pool, &laEnv, numLeadingRows, numThreads);
  if (status == 0) status = ldlAnalyze(env, numDim, begin, index, value, laEnv, &factor, &memory);
  if (status == 0) status = ldlFactorize(env, numDim, begin, index, value, laEnv, factor, memory);
  if (status == 0) {
    if (verifyLevel) {
      VerifySymMatrix(env, verifyLevel, numDim, begin[numDim], nullptr, begin, nullptr, index, value);
      VerifyVector(env, verifyLevel, numDim, vector);
    }
    int32_t laStatus = bridgeSolveNumeric(begin, index, value, vector, laEnv, factor, memory);
    if (laStatus == LA_ERR_MEMORY)
      status = IPM_STATUS_OUT_OF_MEMORY;
    else if (laStatus != LA_OK && laStatus != LA_REFINE_CONVERGED && laStatus != LA_REFINE_STOPPED)
      status = IPM_STATUS_FAILED;
  }
  // Whatever exists goes, on every path: the environment is this call's own.
  if (laEnv) ldlCleanUpAll(&laEnv, &factor, &memory);
  return status;
}

void ldlCleanUp(LAEnv* laEnv, LASymbolic** factor, LANumeric** memory) {
  if (!laEnv) return;
  if ((factor && *factor) || (memory && *memory)) LA_CleanUpLDL(laEnv, factor, memory);
  if (factor) *factor = nullptr;
  if (memory) *memory = nullptr;
}

void ldlCleanUpAll(LAEnv** laEnv, LASymbolic** factor, LANumeric** memory) {
  if (!laEnv || !*laEnv) return;
  ldlCleanUp(*laEnv, factor, memory);
  LA_FreeLAEnv(laEnv);
  *laEnv = nullptr;
}
