// Crossover: the interior point of bramlet's presolved LP goes, in bramlet's
// scaled space, to fennick, which leaves a vertex and its basis in the record.
#include "ipm/scale.h"
#include "records/lpdriver.h"

namespace {

inline void message(HalvexEnv* env, int32_t severity, uint32_t code) {
  if (env->messageLog) env->messageLog->log(env->messageLog, severity, (int64_t)(int32_t)code);
}

template <typename Fn>
inline Fn slotOf(void* instance, int slot) {
  return reinterpret_cast<Fn>(static_cast<void**>(instance)[slot]);
}

inline void setInt(uint8_t* block, int position, int32_t value) {
  *reinterpret_cast<int32_t*>(block + position) = value;
}

// Scale or unscale bramlet's presolved LP in the crossover's space.
int32_t scaleRecord(void* bramlet, const LPOptions* lpOptions, LPRecord* r, double* rowScale,
                    double* colScale) {
  BramletScaleFn scale = slotOf<BramletScaleFn>(bramlet, BRAMLET_SLOT_SCALE);
  if (!scale) return IPM_STATUS_FAILED;
  return (int32_t)scale(lpOptions->primalTol, bramlet, -1, r->numRow, r->numCol, r->numCoef,
                        r->colBegin, r->colLength, r->rowIndex, r->matValue, r->obj, r->lower,
                        r->upper, rowScale, colScale, nullptr, nullptr, r->rhs, r->rowSense,
                        r->range, nullptr, nullptr, nullptr, nullptr);
}

void unscaleRecord(void* bramlet, LPRecord* r, double* rowScale, double* colScale) {
  BramletUnscaleFn unscale = slotOf<BramletUnscaleFn>(bramlet, BRAMLET_SLOT_UNSCALE);
  if (!unscale) return;
  unscale(-1, r->numRow, r->numCol, r->colBegin, r->colLength, r->rowIndex, r->matValue, r->rhs,
          r->range, r->obj, r->lower, r->upper, nullptr, nullptr, rowScale, colScale,
          r->solPrimal, r->solDual, r->reducedCost, r->rowActivity);
}

}  // namespace

int32_t iplpCrossover(HalvexEnv* env, LPRecord* record, ipmSolution* solution, ipmOption* option,
                      int32_t status) {
  if (status == IPM_STATUS_ITERATION_LIMIT || status == IPM_STATUS_TIME_LIMIT ||
      status == IPM_STATUS_FAILED || status == IPM_STATUS_INTERRUPTED ||
      status == IPM_STATUS_OUT_OF_MEMORY)
    return status;
  LPContext* ctx = reinterpret_cast<LPContext*>(env);
  BramletContext* context = static_cast<BramletContext*>(ctx->preContext);
  void* bramlet = env->preObject;
  // Without bramlet's presolved LP or an interior point there is nothing to
  // cross over from: the interior answer stands, and a missing one fails.
  if (!record || !solution || !context || !bramlet || !ctx->lpOptions)
    return status != 0 ? status : IPM_STATUS_FAILED;

  setInt(context->parameters, FENNICK_PARAM_INTERIOR_STATUS, status);

  // bramlet writes one factor beyond the rows and one beyond the columns.
  QVPool* pool = env->pool;
  const int32_t numRow = record->numRow, numCol = record->numCol;
  double* rowScale = poolNew<double>(pool, (int64_t)numRow + 1, false);
  double* colScale = poolNew<double>(pool, (int64_t)numCol + 1, false);
  if (!rowScale || !colScale) {
    poolRelease(pool, rowScale);
    poolRelease(pool, colScale);
    return IPM_STATUS_OUT_OF_MEMORY;
  }
  for (int32_t i = 0; i <= numRow; i++) rowScale[i] = 1.0;
  for (int32_t j = 0; j <= numCol; j++) colScale[j] = 1.0;

  int32_t result = scaleRecord(bramlet, ctx->lpOptions, record, rowScale, colScale);
  if (result != 0) {
    poolRelease(pool, rowScale);
    poolRelease(pool, colScale);
    return result;
  }
  scaleSolutionToScaled(numRow, numCol, rowScale, colScale, solution, record->reducedCost,
                        record->rowActivity);

  QVModule* module = qvLoadModule("fennick");
  void** simplex = nullptr;
  if (!module) {
    message(env, MSG_ERROR, 0x827FD808);
    result = IPM_STATUS_OUT_OF_MEMORY;
  } else if (!(simplex = static_cast<void**>(module->moduleCreateInstance(module)))) {
    message(env, MSG_ERROR, 0x827FD809);
    module->moduleUnload(module);
    result = IPM_STATUS_OUT_OF_MEMORY;
  }
  if (result != 0) {
    // The presolved LP goes back to bramlet's postsolve or clean-up, which
    // expect it in the space in which they made it.
    unscaleRecord(bramlet, record, rowScale, colScale);
    poolRelease(pool, rowScale);
    poolRelease(pool, colScale);
    return result;
  }

  simplex[FENNICK_SLOT_TEXTLOG] = reinterpret_cast<void*>(env->textLog);
  simplex[FENNICK_SLOT_MESSAGELOG] = env->messageLog;
  ctx->simplexModule = module;
  ctx->simplexObject = simplex;

  record->objConstant = ctx->savedObjConstant;
  setInt(context->parameters, FENNICK_PARAM_START, (option->crossover & 1) ? 2 : 1);
  setInt(context->parameters, FENNICK_PARAM_METHOD, 3);
  setInt(context->parameters, FENNICK_PARAM_ITERATION_LIMIT, 2147483647);
  setInt(context->parameters, FENNICK_PARAM_PRICING, -1);
  *reinterpret_cast<double*>(context->limits + FENNICK_LIMIT_MAXTIME) = option->maxTime;

  FennickRunFn run = slotOf<FennickRunFn>(simplex, FENNICK_SLOT_RUN);
  result = run ? run(simplex, bramlet, context, record) : IPM_STATUS_FAILED;

  unscaleRecord(bramlet, record, rowScale, colScale);

  FennickDestroyFn destroy = slotOf<FennickDestroyFn>(simplex, FENNICK_SLOT_DESTROY);
  if (destroy) destroy(simplex);
  ctx->simplexObject = nullptr;
  module->moduleUnload(module);
  ctx->simplexModule = nullptr;

  poolRelease(pool, rowScale);
  poolRelease(pool, colScale);
  return result;
}

