// The LA environment and its numbered parameters.
#include "la/la.h"

#include <string.h>

namespace {

void setDefaults(LAEnv* env) {
  env->orderClass = LA_DEFAULT_ORDER_CLASS;
  env->orderingMethod = LA_DEFAULT_ORDERING_METHOD;
  env->numThreads = LA_DEFAULT_NUM_THREADS;
  env->useConstrainedOrdering = 0;
  env->cholParam = LA_DEFAULT_CHOL_PARAM;
  env->useStaticPermGen = 0;
  env->useStaticPermAug = 0;
  env->numLeadingRows = 0;
  env->requirePerfect = 0;
  env->collectInertia = 0;
  env->numPositivePivots = 0;
  env->numNegativePivots = 0;
  env->useFgmres = LA_DEFAULT_USE_FGMRES;
  env->pivotRatio = 0.0;
  env->reservedFlag = 0;
  env->maxRefine = LA_DEFAULT_MAX_REFINE;
  env->fgmresRestart = LA_DEFAULT_FGMRES_RESTART;
  env->fgmresMaxRestart = LA_DEFAULT_FGMRES_MAX_RESTART;
  env->orthoScheme = LA_DEFAULT_ORTHO_SCHEME;
  env->refineTol = LA_DEFAULT_REFINE_TOL;
  env->backwardError = 0.0;
}

bool isFlag(int32_t v) { return v == 0 || v == 1; }

}  // namespace

HALVEX_EXPORT LAEnv* LA_CreateLAEnv(QVPool* pool, void* owner, int32_t* status) {
  if (!pool) {
    if (status) *status = LA_ERR_BAD_PARAM;
    return nullptr;
  }
  LAEnv* env = static_cast<LAEnv*>(poolAlloc(pool, (int64_t)sizeof(LAEnv), 0));
  if (!env) {
    if (status) *status = LA_ERR_MEMORY;
    return nullptr;
  }
  memset(env, 0, sizeof(LAEnv));
  env->pool = pool;
  env->owner = owner;
  setDefaults(env);
  if (status) *status = LA_OK;
  return env;
}

HALVEX_EXPORT void LA_FreeLAEnv(LAEnv** env) {
  if (!env || !*env) return;
  QVPool* pool = (*env)->pool;
  poolFree(pool, *env);
  *env = nullptr;
}

HALVEX_EXPORT int32_t LA_SetIntParam(LAEnv* env, int32_t id, int32_t value) {
  if (!env || id < LA_PARAM_MIN_ID || id > LA_PARAM_MAX_ID) return LA_ERR_BAD_PARAM;
  int32_t* field = nullptr;
  bool ok = false;
  switch (id) {
    case LA_PARAM_NUM_THREADS: field = &env->numThreads; ok = value >= 1; break;
    case LA_PARAM_ORDER_CLASS:
      field = &env->orderClass; ok = value >= 0 && value <= LA_MAX_ORDER_CLASS; break;
    case LA_PARAM_USE_CONSTRAINED_ORDERING:
      field = &env->useConstrainedOrdering; ok = isFlag(value); break;
    case LA_PARAM_USE_STATIC_PERM_GEN: field = &env->useStaticPermGen; ok = isFlag(value); break;
    case LA_PARAM_USE_STATIC_PERM_AUG: field = &env->useStaticPermAug; ok = isFlag(value); break;
    case LA_PARAM_NUM_LEADING_ROWS: field = &env->numLeadingRows; ok = value >= 0; break;
    case LA_PARAM_CHOL_PARAM: field = &env->cholParam; ok = value >= 1; break;
    case LA_PARAM_ORDERING_METHOD:
      field = &env->orderingMethod;
      ok = value >= LA_MIN_ORDERING_METHOD && value <= LA_MAX_ORDERING_METHOD;
      break;
    case LA_PARAM_REQUIRE_PERFECT: field = &env->requirePerfect; ok = isFlag(value); break;
    case LA_PARAM_COLLECT_INERTIA: field = &env->collectInertia; ok = isFlag(value); break;
    case LA_PARAM_RESERVED_FLAG: field = &env->reservedFlag; ok = isFlag(value); break;
    case LA_PARAM_USE_FGMRES: field = &env->useFgmres; ok = isFlag(value); break;
    case LA_PARAM_MAX_REFINE: field = &env->maxRefine; ok = value >= 0; break;
    case LA_PARAM_FGMRES_RESTART: field = &env->fgmresRestart; ok = value >= 1; break;
    case LA_PARAM_FGMRES_MAX_RESTART: field = &env->fgmresMaxRestart; ok = value >= 1; break;
    case LA_PARAM_ORTHO_SCHEME:
      field = &env->orthoScheme; ok = value >= 0 && value <= LA_MAX_ORTHO_SCHEME; break;
    default:
      // Results (10, 11) and the floating ids (12, 19, 20): accepted, no effect.
      return LA_OK;
  }
  if (!ok) return LA_ERR_BAD_PARAM;
  *field = value;
  return LA_OK;
}

HALVEX_EXPORT int32_t LA_GetIntParam(LAEnv* env, int32_t id, int32_t* value) {
  if (!env || !value || id < LA_PARAM_MIN_ID || id > LA_PARAM_MAX_ID) return LA_ERR_BAD_PARAM;
  switch (id) {
    case LA_PARAM_NUM_THREADS: *value = env->numThreads; break;
    case LA_PARAM_ORDER_CLASS: *value = env->orderClass; break;
    case LA_PARAM_USE_CONSTRAINED_ORDERING: *value = env->useConstrainedOrdering; break;
    case LA_PARAM_USE_STATIC_PERM_GEN: *value = env->useStaticPermGen; break;
    case LA_PARAM_USE_STATIC_PERM_AUG: *value = env->useStaticPermAug; break;
    case LA_PARAM_NUM_LEADING_ROWS: *value = env->numLeadingRows; break;
    case LA_PARAM_CHOL_PARAM: *value = env->cholParam; break;
    case LA_PARAM_ORDERING_METHOD: *value = env->orderingMethod; break;
    case LA_PARAM_REQUIRE_PERFECT: *value = env->requirePerfect; break;
    case LA_PARAM_COLLECT_INERTIA: *value = env->collectInertia; break;
    case LA_PARAM_NUM_NEGATIVE_PIVOTS: *value = env->numNegativePivots; break;
    case LA_PARAM_NUM_POSITIVE_PIVOTS: *value = env->numPositivePivots; break;
    case LA_PARAM_RESERVED_FLAG: *value = env->reservedFlag; break;
    case LA_PARAM_USE_FGMRES: *value = env->useFgmres; break;
    case LA_PARAM_MAX_REFINE: *value = env->maxRefine; break;
    case LA_PARAM_FGMRES_RESTART: *value = env->fgmresRestart; break;
    case LA_PARAM_FGMRES_MAX_RESTART: *value = env->fgmresMaxRestart; break;
    case LA_PARAM_ORTHO_SCHEME: *value = env->orthoScheme; break;
    default:
      // A floating id read as an integer has no meaning; 0 is as good as any.
      *value = 0;
      break;
  }
  return LA_OK;
}

HALVEX_EXPORT int32_t LA_SetDblParam(LAEnv* env, double value, int32_t id) {
  if (!env || id < LA_PARAM_MIN_ID || id > LA_PARAM_MAX_ID) return LA_ERR_BAD_PARAM;
  if (id != LA_PARAM_REFINE_TOL) return LA_OK;
  // Written as "not below zero" so that a NaN passes and is stored.
  if (value < 0.0) return LA_ERR_BAD_PARAM;
  env->refineTol = value;
  return LA_OK;
}

HALVEX_EXPORT int32_t LA_GetDblParam(LAEnv* env, int32_t id, double* value) {
  if (!env || !value || id < LA_PARAM_MIN_ID || id > LA_PARAM_MAX_ID) return LA_ERR_BAD_PARAM;
  switch (id) {
    case LA_PARAM_PIVOT_RATIO: *value = env->pivotRatio; break;
    case LA_PARAM_REFINE_TOL: *value = env->refineTol; break;
    case LA_PARAM_BACKWARD_ERROR: *value = env->backwardError; break;
    default: *value = 0.0; break;
  }
  return LA_OK;
}
