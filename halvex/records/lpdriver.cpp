#include "records/lpdriver.h"

#include "records/model.h"
#include "records/pipeline.h"
#include "util/timer.h"

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

// Validation of the caller's options.  Warnings go on; the first error ends
// the test with status 10.
int32_t validateOptions(HalvexEnv* env, const LPOptions* o) {
  if (o->presolver < -1 || o->presolver > 3) {
    if (env->messageLog)
      env->messageLog->log(env->messageLog, MSG_ERROR, (int64_t)(int32_t)0x827FD80D,
                           (int)o->presolver);
    return IPM_STATUS_FAILED;
  }
  if (o->solverKind != 3) message(env, MSG_WARNING, 0x827FD80E);
  if (o->timerType != 0 && o->timerType != 1) message(env, MSG_WARNING, 0x827FD80F);
  if (o->gapTol < 1e-15) {
    message(env, MSG_ERROR, 0x827FD810);
    return IPM_STATUS_FAILED;
  }
  if (o->primalTol < 1e-15) {
    message(env, MSG_ERROR, 0x827FD811);
    return IPM_STATUS_FAILED;
  }
  if (o->dualTol < 1e-15) {
    message(env, MSG_ERROR, 0x827FD812);
    return IPM_STATUS_FAILED;
  }
  if (o->rowScaleOnly != 0 && o->rowScaleOnly != 1) {
    if (env->textLog) env->textLog("Unknown initialization option %d", (int)o->rowScaleOnly);
    return IPM_STATUS_FAILED;
  }
  if (o->sibling3 != -1) message(env, MSG_WARNING, 0x827FD813);
  return 0;
}

// The pipeline reads the right side of a range row as the row's upper end,
// which is how the QP driver hands its model over.  bramlet's presolved
// record keeps the host's form, lower end and width, since its postsolve and
// the crossover read that record; so the model gets a right side of its own.
// A width of infinity or more would round the lower end away (b + 1e20 -
// 1e20 is not b), so such a row with a finite lower end goes in as the G row
// it is, in a sense array of the model's own behind the right sides.
// Returns the one block, or null when the pool refuses (or there are no rows).
double* rangeRowsAtUpperEnd(QVPool* pool, ipmModel* model) {
  const int32_t numRow = model->numRow;
  if (numRow <= 0) return nullptr;
  const double infinity = 1e+20;
  double* rhs = poolNew<double>(pool, numRow + (numRow + 7) / 8, false);
  if (!rhs) return nullptr;
  char* sense = reinterpret_cast<char*>(rhs + numRow);
  for (int32_t i = 0; i < numRow; i++) {
    rhs[i] = model->rhs[i];
    sense[i] = model->rowSense[i];
    if (sense[i] != 'R' || !model->range) continue;
    if (model->range[i] >= infinity && rhs[i] > -infinity)
      sense[i] = 'G';
    else
      rhs[i] += model->range[i];
  }
  model->rhs = rhs;
  model->rowSense = sense;
  return rhs;
}

// Problem, context and instance, in this order, whatever of them exists.
void releaseBramlet(LPContext* ctx, void** bramlet) {
  BramletFreeProblemFn freeProblem =
      slotOf<BramletFreeProblemFn>(bramlet, BRAMLET_SLOT_FREE_PROBLEM);
  if (freeProblem && bramlet[BRAMLET_SLOT_PROBLEM])
    freeProblem(bramlet, &bramlet[BRAMLET_SLOT_PROBLEM]);
  BramletFreeContextFn freeContext =
      slotOf<BramletFreeContextFn>(bramlet, BRAMLET_SLOT_FREE_CONTEXT);
  if (freeContext && bramlet[BRAMLET_SLOT_CONTEXT])
    freeContext(bramlet, &bramlet[BRAMLET_SLOT_CONTEXT]);
  ctx->preContext = nullptr;
  BramletDestroyFn destroy = slotOf<BramletDestroyFn>(bramlet, BRAMLET_SLOT_DESTROY);
  if (destroy) destroy(bramlet);
  ctx->env.preObject = nullptr;
}

}  // namespace

HALVEX_EXPORT int32_t iplpmain(LPContext* ctx, LPRecord* record, LPOptions* options) {
  if (!ctx || !record) return 1;
  HalvexEnv* env = &ctx->env;
  int32_t failed = 0, code = 0, st = 0;
  double presolveTime = 0.0, totalTime = 0.0;
  IPM_timer* timer = nullptr;
  QVModule* module = nullptr;
  void** bramlet = nullptr;
  ipmModel* model = nullptr;
  ipmOption* option = nullptr;
  double* workingRhs = nullptr;
  // Options this call made for itself go back to the pool at its end, where
  // nothing can reach them any longer.
  LPOptions* made = nullptr;

  if (!options) {
    options = made = createLpOptions(env);
    if (!options) {
      code = st = IPM_STATUS_OUT_OF_MEMORY;
      failed = 1;
      goto accountTime;
    }
  }
  ctx->lpOptions = options;

  if (validateOptions(env, options) != 0) {
    code = st = IPM_STATUS_FAILED;
    failed = 1;
    goto accountTime;
  }

  {
    int32_t timerStatus = 0;
    timer = IPM_timerCreate(env, env->pool, &timerStatus);
  }
  if (!timer) {
    code = st = IPM_STATUS_OUT_OF_MEMORY;
    failed = 1;
    goto writeBack;
  }
  timer->useRealTime = options->timerType;
  IPM_timerSetLimit(timer, options->maxTime);
  IPM_timerStart(timer);

  module = qvLoadModule("bramlet");
  if (!module) {
    message(env, MSG_ERROR, 0x827FD806);
    code = st = IPM_STATUS_OUT_OF_MEMORY;
    failed = 1;
    goto accountTime;
  }
  bramlet = static_cast<void**>(module->moduleCreateInstance(module));
  if (!bramlet) {
    message(env, MSG_ERROR, 0x827FD807);
    code = st = IPM_STATUS_OUT_OF_MEMORY;
    failed = 1;
    goto unload;
  }

  bramlet[BRAMLET_SLOT_TEXTLOG] = reinterpret_cast<void*>(env->textLog);
  bramlet[BRAMLET_SLOT_MESSAGELOG] = env->messageLog;
  env->preModule = module;
  env->preObject = bramlet;
  {
    int32_t contextStatus = 0;
    BramletCreateContextFn create =
        slotOf<BramletCreateContextFn>(bramlet, BRAMLET_SLOT_CREATE_CONTEXT);
    void* context = create ? create(bramlet, options, &contextStatus) : nullptr;
    bramlet[BRAMLET_SLOT_CONTEXT] = context;
    ctx->preContext = context;
    if (contextStatus != 0 || !context) {
      message(env, MSG_ERROR, 0x827FD80A);
      // A sibling that made no context and named no reason is short of memory.
      code = st = contextStatus != 0 ? contextStatus : IPM_STATUS_OUT_OF_MEMORY;
      failed = 1;
      goto release;
    }
  }

  if (options->loadMode >= 2) {
    BramletLoadFn load = slotOf<BramletLoadFn>(bramlet, BRAMLET_SLOT_LOAD);
    int32_t loaded =
        load ? load(bramlet, record->numCol, record->numRow, record->numCoef, record->obj,
                    record->lower, record->upper, record->rhs, record->range, record->rowSense,
                    record->colBegin, record->colLength, record->rowIndex, record->matValue,
                    reinterpret_cast<void*>(record->siblingWord[LPRECORD_COLUMN_FLAG_WORD]),
                    &record->loadArea)
             : IPM_STATUS_FAILED;
    if (loaded != 0) {
      code = st = loaded;
      failed = 1;
      goto release;
    }
  }

  {
    BramletContext* context = static_cast<BramletContext*>(ctx->preContext);
    setInt(context->parameters, BRAMLET_PARAM_PRESOLVE_FLAG, 0);
    BramletPresolveFn presolve = slotOf<BramletPresolveFn>(bramlet, BRAMLET_SLOT_PRESOLVE);
    int32_t presolveStatus = IPM_STATUS_FAILED;
    bramlet[BRAMLET_SLOT_PROBLEM] =
        presolve ? presolve(bramlet, context, BRAMLET_PRESOLVE_MODE, record, &presolveStatus)
                 : nullptr;
    IPM_timerUsedTime(timer, &presolveTime);
    options->maxTime -= presolveTime;
    options->timeUsed += presolveTime;
    code = presolveStatus;
  }
  if (code < 0) {
    failed = 1;
    st = code;
    goto release;
  }
  if (code == 0) {
    BramletProblem* problem = static_cast<BramletProblem*>(bramlet[BRAMLET_SLOT_PROBLEM]);
    LPRecord* presolved = problem ? problem->presolved : nullptr;
    if (!presolved) {
      // Success without a problem to solve breaks the sibling's contract.
      code = st = IPM_STATUS_FAILED;
      failed = 1;
      goto release;
    }
    ctx->savedObjConstant = presolved->objConstant;
    presolved->checkSolverBreak = record->checkSolverBreak;
    presolved->scripterDataStruct = record->scripterDataStruct;

    if (!(options->maxTime > 0.0)) {
      message(env, MSG_INFO, options->timerType == 0 ? 0x827FD00B : 0x827FD00C);
      failed = 1;
      st = IPM_STATUS_TIME_LIMIT;
      goto release;
    }
    if (options->printLevel != 0) message(env, MSG_INFO, 0x827FD801);
    IPM_timerSetLimit(timer, options->maxTime);

    model = CreateModelFromLP(env->pool, presolved);
    if (model) {
      model->relaxColBound = problem->relaxColBound;
      workingRhs = rangeRowsAtUpperEnd(env->pool, model);
    }
    option = CreateOptionFromLP(env->pool, options);
    if (!model || !option || (model->numRow > 0 && !workingRhs)) {
      code = st = IPM_STATUS_OUT_OF_MEMORY;
      failed = 1;
      goto release;
    }
    st = iplpSolve(env, model, option, timer, presolved);
    ReturnModelToLP(model, presolved);
    if (st == IPM_STATUS_OUT_OF_MEMORY) {
      code = IPM_STATUS_OUT_OF_MEMORY;
      failed = 1;
      goto release;
    }
  }

  {
    BramletPostsolveFn postsolve = slotOf<BramletPostsolveFn>(bramlet, BRAMLET_SLOT_POSTSOLVE);
    code = postsolve ? postsolve(bramlet[BRAMLET_SLOT_PROBLEM]) : IPM_STATUS_FAILED;
    st = record->status;
    if (code != 0) {
      message(env, MSG_INFO, 0x827FD80B);
      failed = 1;
      st = IPM_STATUS_FAILED;
    }
  }

release:
  releaseBramlet(ctx, bramlet);

unload:
  module->moduleUnload(module);
  env->preModule = nullptr;
  // The model borrows its arrays from bramlet's problem, relaxColBound too;
  // only the right side and the senses are its own.
  poolRelease(env->pool, workingRhs);
  DestroyModel(env->pool, model);
  DestroyOption(env->pool, option);

accountTime:
  if (timer) {
    IPM_timerUsedTime(timer, &totalTime);
    IPM_timerFree(env->pool, &timer);
    options->maxTime -= totalTime;
    options->timeUsed += totalTime;
  }

writeBack:
  if (made) {
    poolFree(env->pool, made);
    ctx->lpOptions = nullptr;
  }
  record->presolveTime = presolveTime;
  record->totalTime = totalTime;
  record->returnCode = code;
  record->status = st;
  return failed;
}
