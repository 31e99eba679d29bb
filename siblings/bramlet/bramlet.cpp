// bramlet's module object, instance table, working context and load.
#include "siblings/bramlet/bramlet.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <new>

#include "siblings/bramlet/internal.h"

namespace bramlet {
namespace {

void destroyInstance(Instance* instance) {
  if (!instance) return;
  InstanceBox* box = reinterpret_cast<InstanceBox*>(instance);
  delete box->loaded;
  std::free(box);
}

void* createInstance(QVModule*) {
  // calloc keeps every slot the solver does not call null.
  InstanceBox* box = static_cast<InstanceBox*>(std::calloc(1, sizeof(InstanceBox)));
  if (!box) return nullptr;
  Instance* t = &box->table;
  t->destroy = destroyInstance;
  t->createContext = createContext;
  t->freeContext = freeContext;
  t->presolve = presolve;
  t->postsolve = postsolve;
  t->freeProblem = freeProblem;
  t->load = load;
  t->scale = scale;
  t->unscale = unscale;
  return t;
}

void unload(QVModule* module) { std::free(module); }

}  // namespace

static_assert(offsetof(InstanceBox, table) == 0, "the table leads the instance");

QVModule* createModule(QVKernel*) {
  QVModule* module = static_cast<QVModule*>(std::calloc(1, sizeof(QVModule)));
  if (!module) return nullptr;
  module->moduleUnload = unload;
  module->moduleCreateInstance = createInstance;
  return module;
}

Context* createContext(Instance* instance, const LPOptions* options, int32_t* status) {
  int32_t dummy;
  if (!status) status = &dummy;
  Context* ctx = static_cast<Context*>(std::calloc(1, sizeof(Context)));
  ParamBlock* params = static_cast<ParamBlock*>(std::calloc(1, sizeof(ParamBlock)));
  LimitBlock* limits = static_cast<LimitBlock*>(std::calloc(1, sizeof(LimitBlock)));
  if (!ctx || !params || !limits) {
    std::free(ctx);
    std::free(params);
    std::free(limits);
    *status = kOutOfMemory;
    return nullptr;
  }
  ctx->params = params;
  ctx->limits = limits;
  // Without options the defaults of a fresh option record apply.
  ctx->presolveLevel = options ? options->presolver : -1;
  ctx->primalTol = options && options->primalTol > 0.0 ? options->primalTol : 1e-6;
  params->simplexStart = 1;
  params->simplexIterLimit = INT_MAX;
  params->simplexPricing = -1;
  params->simplexMethod = 3;
  limits->timeLimit = options ? options->maxTime : 8.988465674311578e+307;
  if (instance) instance->context = ctx;
  *status = kOk;
  return ctx;
}

void freeContext(Instance* instance, Context** context) {
  if (!context || !*context) return;
  Context* ctx = *context;
  std::free(ctx->params);
  std::free(ctx->limits);
  std::free(ctx);
  *context = nullptr;
  if (instance && instance->context == ctx) instance->context = nullptr;
}

int32_t load(Instance* instance, int32_t numCol, int32_t numRow, int32_t numCoef,
             const double* obj, const double* lower, const double* upper, const double* rhs,
             const double* range, const char* rowSense, const int32_t* colBegin,
             const int32_t* colLength, const int32_t* rowIndex, const double* matValue,
             void* colFlags, LPLoadArea* loadArea) {
  if (!instance || !loadArea) return IPM_STATUS_FAILED;
  InputView in;
  in.numRow = numRow;
  in.numCol = numCol;
  in.numCoef = numCoef;
  in.obj = obj;
  in.lower = lower;
  in.upper = upper;
  in.rhs = rhs;
  in.range = range;
  in.rowSense = rowSense;
  in.colBegin = colBegin;
  in.colLength = colLength;
  in.rowIndex = rowIndex;
  in.matValue = matValue;
  const char* why = checkInput(in);
  if (why) {
    if (instance->textLog) instance->textLog("%1zbramlet load: %s", why);
    return IPM_STATUS_FAILED;
  }
  LoadedLP* copy = new (std::nothrow) LoadedLP;
  if (!copy) return kOutOfMemory;
  copy->numRow = numRow;
  copy->numCol = numCol;
  copy->obj.assign(obj, obj + numCol);
  copy->lower.assign(lower, lower + numCol);
  copy->upper.assign(upper, upper + numCol);
  copy->rhs.assign(rhs, rhs + numRow);
  copy->range.assign(numRow, 0.0);
  if (range) copy->range.assign(range, range + numRow);
  copy->rowSense.assign(rowSense, rowSense + numRow);
  copy->colBegin.assign(numCol + 1, 0);
  for (int32_t j = 0; j < numCol; j++) {
    const int32_t end = colLength ? colBegin[j] + colLength[j] : colBegin[j + 1];
    for (int32_t p = colBegin[j]; p < end; p++) {
      copy->rowIndex.push_back(rowIndex[p]);
      copy->matValue.push_back(matValue[p]);
    }
    copy->colBegin[j + 1] = (int32_t)copy->rowIndex.size();
  }
  copy->colFlags = colFlags;
  InstanceBox* box = reinterpret_cast<InstanceBox*>(instance);
  delete box->loaded;
  box->loaded = copy;
  // The record's load area tells presolve to read this copy, not the
  // record's own arrays.
  std::memset(loadArea, 0, sizeof(*loadArea));
  loadArea->word[0] = kLoadMagic;
  loadArea->word[1] = reinterpret_cast<int64_t>(copy);
  return 0;
}

}  // namespace bramlet
