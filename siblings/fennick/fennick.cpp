// fennick's module object, its instance table and the run operation that the
// LP driver calls with bramlet's presolved, scaled LP.
#include <cstdlib>
#include <cstring>
#include <new>

#include "siblings/fennick/fennick.h"

namespace fennick {

AllocProbe& allocProbe() {
  static thread_local AllocProbe probe;
  return probe;
}

void failAllocation(int64_t k) {
  allocProbe().count = 0;
  allocProbe().failAt = k;
}

int64_t allocationCount() { return allocProbe().count; }

namespace {
struct ClockProbe {
  int64_t count = 0;
  int64_t expireAt = -1;
};
thread_local ClockProbe clockProbe;
}  // namespace

void expireClockAt(int64_t k) { clockProbe = ClockProbe{0, k}; }

bool clockExpired() {
  return clockProbe.expireAt >= 0 && clockProbe.count++ >= clockProbe.expireAt;
}

namespace {

int32_t readInt(const uint8_t* block, int position) {
  int32_t v;
  std::memcpy(&v, block + position, sizeof v);
  return v;
}

double readDouble(const uint8_t* block, int position) {
  double v;
  std::memcpy(&v, block + position, sizeof v);
  return v;
}

void destroyInstance(Instance* instance) { std::free(instance); }

// The context is bramlet's: a parameter block and a block of limits, by
// reference, in its first two slots.
int32_t runCrossover(Instance* instance, void* /*bramlet*/, void* context, LPRecord* record) {
  if (!record) return IPM_STATUS_FAILED;
  Settings settings;
  if (context) {
    const uint8_t* const* blocks = static_cast<const uint8_t* const*>(context);
    if (const uint8_t* params = blocks[0]) {
      settings.fromPoint = readInt(params, FENNICK_PARAM_START) != 1;
      const int32_t limit = readInt(params, FENNICK_PARAM_ITERATION_LIMIT);
      if (limit >= 0) settings.iterationLimit = limit;
    }
    if (const uint8_t* limits = blocks[1])
      settings.timeLimit = readDouble(limits, FENNICK_LIMIT_MAXTIME);
  }
  uint8_t* basisOut = reinterpret_cast<uint8_t*>(record->siblingWord[LPRECORD_BASIS_WORD]);
  FennickStats* statsOut =
      reinterpret_cast<FennickStats*>(record->siblingWord[LPRECORD_CROSSOVER_STATS_WORD]);
  if (basisOut)
    std::memset(basisOut, BASIS_NONE, (size_t)record->numCol + (size_t)record->numRow);
  if (!(settings.timeLimit > 0.0)) return IPM_STATUS_TIME_LIMIT;

  LpView lp;
  lp.numRow = record->numRow;
  lp.numCol = record->numCol;
  lp.objSense = record->objSense;
  lp.colBegin = record->colBegin;
  lp.colLength = record->colLength;
  lp.rowIndex = record->rowIndex;
  lp.matValue = record->matValue;
  lp.obj = record->obj;
  lp.lower = record->lower;
  lp.upper = record->upper;
  lp.rhs = record->rhs;
  lp.range = record->range;
  lp.rowSense = record->rowSense;

  Result* result = new (std::nothrow) Result;
  if (!result) return IPM_STATUS_OUT_OF_MEMORY;
  int32_t status;
  try {
    status = crossover(lp, record->solPrimal, record->solDual, record->reducedCost, settings,
                       result);
  } catch (const std::bad_alloc&) {
    status = IPM_STATUS_OUT_OF_MEMORY;
  }
  if (statsOut) *statsOut = result->stats;
  if (status != IPM_STATUS_OPTIMAL) {
    // The interior point stays in the record as it came.
    if (instance && instance->textLog)
      instance->textLog("%3zCrossover stopped with status %d after %d simplex iterations",
                        (int)status, (int)result->stats.simplexIterations);
    delete result;
    return status;
  }
  const int32_t n = record->numCol, m = record->numRow;
  for (int32_t j = 0; j < n; j++) {
    record->solPrimal[j] = result->x[j];
    if (record->reducedCost) record->reducedCost[j] = result->z[j];
  }
  for (int32_t i = 0; i < m; i++) {
    record->solDual[i] = result->y[i];
    if (record->rowActivity) record->rowActivity[i] = result->activity[i];
  }
  if (basisOut) std::memcpy(basisOut, result->basis.data(), result->basis.size());
  record->status = IPM_STATUS_OPTIMAL;
  // The objective value in the form that the interior run leaves it.
  record->objConstant =
      (result->objective + record->objConstant) * (record->objSense < 0 ? -1.0 : 1.0);
  record->primalInfeas = result->primalInfeas;
  record->boundInfeas = result->boundInfeas;
  record->dualInfeas = result->dualInfeas;
  record->dualityGap = 0.0;
  record->complementarity = 0.0;
  delete result;
  return 0;
}

void* createInstance(QVModule*) {
  // calloc keeps every slot the solver does not call null.
  Instance* t = static_cast<Instance*>(std::calloc(1, sizeof(Instance)));
  if (!t) return nullptr;
  t->destroy = destroyInstance;
  t->run = runCrossover;
  return t;
}

void unload(QVModule* module) { std::free(module); }

}  // namespace

QVModule* createModule(QVKernel*) {
  QVModule* module = static_cast<QVModule*>(std::calloc(1, sizeof(QVModule)));
  if (!module) return nullptr;
  module->moduleUnload = unload;
  module->moduleCreateInstance = createInstance;
  return module;
}

}  // namespace fennick
