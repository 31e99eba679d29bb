// The Ipm record: made, filled with options, given its working set, pointed
// at the model, analysed and released.
#include <math.h>

#include "frame/qv.h"
#include "ipm/ipm.h"

Ipm* NewIpm(HalvexEnv* env, ipmModel* model, IPM_timer* timer, int32_t control) {
  if (!env || !env->pool || !model) return nullptr;
  Ipm* ipm = poolNew<Ipm>(env->pool, 1);
  if (!ipm) return nullptr;
  ipm->numRow = model->numRow;
  ipm->numCol = model->numCol;
  ipm->numCoef = model->numCoef;
  ipm->numQuadCoef = model->numQuadCoef;
  ipm->modelType = model->typeModel;
  ipm->env = env;
  ipm->control = control;
  ipm->timer = timer;
  ipm->checkSolverBreak = model->checkSolverBreak;
  ipm->scripterDataStruct = model->scripterDataStruct;
  return ipm;
}

void ipmGetOption(Ipm* ipm, const ipmOption* option) {
  ipm->maxIteration = option->maxIteration;
  ipm->primalTol = option->primalTol;
  ipm->dualTol = option->dualTol;
  ipm->gapTol = option->gapTol;
  ipm->printFreq = option->printFreq;
  ipm->printLevel = option->printLevel;
  ipm->verifyLevel = option->verifyLevel;
  ipm->crossover = option->crossover;
  ipm->rowScaleOnly = option->rowScaleOnly;
  ipm->infinity = option->infinity;
  ipm->numThreads = option->numThreads;
}

void ipmSetParam(Ipm* ipm, const ipmOption* option) {
  ipm->densityRatio = 0.5;
  ipm->muLimit = 1e-20;
  ipm->divisorLimit = 1e-50;
  ipm->stepFactor = 0.99;
  ipm->alphaPrimal = 1.0;
  ipm->alphaDual = 1.0;
  ipm->mu = ipm->infinity;
  ipm->muAffine = ipm->infinity;
  ipm->sigma = ipm->infinity;
  ipm->complTol = option->gapTol;
  ipm->numBadIter = 0;
  ipm->numStall = 0;
}

namespace {

// Allocates into an empty slot only, so that a second call after a partial
// failure does not leak what the first one got.
template <typename T>
bool ensure(QVPool* pool, T*& slot, int64_t count) {
  if (slot) return true;
  slot = poolNew<T>(pool, count > 0 ? count : 1);
  return slot != nullptr;
}

}  // namespace

int32_t CreateIpm(Ipm* ipm) {
  QVPool* pool = ipm->env->pool;
  const int64_t numDim = (int64_t)ipm->numRow + ipm->numCol;
  const int64_t numIpmCoef = numDim + 2 * ((int64_t)ipm->numCoef + ipm->numQuadCoef);
  if (numIpmCoef > INT32_MAX) return IPM_STATUS_FAILED;
  ipm->numDim = (int32_t)numDim;
  ipm->numIpmCoef = (int32_t)numIpmCoef;
  const int64_t n = ipm->numCol, m = ipm->numRow;
  // Everything is zero-filled: the deltas of absent bounds must read 0 from
  // the start, and the rest costs nothing extra to clear once.
  if (!ensure(pool, ipm->kktBegin, numDim + 1) || !ensure(pool, ipm->kktIndex, numIpmCoef) ||
      !ensure(pool, ipm->kktValue, numIpmCoef) || !ensure(pool, ipm->ineqnDiagIndex, m) ||
      !ensure(pool, ipm->varBndDiagIndex, n) || !ensure(pool, ipm->vecRhs, numDim) ||
      !ensure(pool, ipm->correctorPrimal, numDim) || !ensure(pool, ipm->vecSpare, numDim) ||
      !ensure(pool, ipm->ineqnIndex, m) || !ensure(pool, ipm->ineqnSlackDelta, m) ||
      !ensure(pool, ipm->varBndType, n) || !ensure(pool, ipm->lowerSlackDelta, n) ||
      !ensure(pool, ipm->upperSlackDelta, n) || !ensure(pool, ipm->lowerDualDelta, n) ||
      !ensure(pool, ipm->upperDualDelta, n))
    return IPM_STATUS_OUT_OF_MEMORY;
  if (!ipm->LA_env) {
    int32_t status = laSetup(ipm->env, nullptr, &ipm->LA_env, ipm->numCol, ipm->numThreads);
    if (status) return status;
  }
  const int64_t big = m > n ? m : n;
  if (!ensure(pool, ipm->scratchA, big) || !ensure(pool, ipm->scratchB, big) ||
      !ensure(pool, ipm->scratchInt, big))
    return IPM_STATUS_OUT_OF_MEMORY;
  return 0;
}

void AssignIpm(Ipm* ipm, ipmModel* model, ipmSolution* solution) {
  ipm->obj = model->obj;
  ipm->lower = model->lower;
  ipm->upper = model->upper;
  ipm->rhs = model->rhs;
  ipm->rowSense = model->rowSense;
  ipm->colBegin = model->colBegin;
  ipm->colLength = model->colLength;
  ipm->rowIndex = model->rowIndex;
  ipm->matValue = model->matValue;
  ipm->quadColBegin = model->quadColBegin;
  ipm->quadColLength = model->quadColLength;
  ipm->quadRowIndex = model->quadRowIndex;
  ipm->quadMatValue = model->quadMatValue;
  ipm->quadDiag = model->quadDiag;
  ipm->solPrimal = model->solPrimal;
  ipm->solDual = model->solDual;
  ipm->ineqnSlack = solution->ineqnSlack;
  ipm->lowerSlack = solution->lowerSlack;
  ipm->upperSlack = solution->upperSlack;
  ipm->lowerDual = solution->lowerDual;
  ipm->upperDual = solution->upperDual;
}

void AnalyzeIpm(Ipm* ipm) {
  const double inf = ipm->infinity;
  double rhsSq = 0.0, objSq = 0.0, upperSq = 0.0, lowerSq = 0.0, aSq = 0.0;
  ipm->numIneqn = 0;
  for (int32_t i = 0; i < ipm->numRow; i++) {
    rhsSq += ipm->rhs[i] * ipm->rhs[i];
    if (ipm->rowSense[i] == 'G') ipm->ineqnIndex[ipm->numIneqn++] = i;
  }
  ipm->numVarLowerBnd = 0;
  ipm->numVarUpperBnd = 0;
  ipm->numFreeVar = 0;
  for (int32_t j = 0; j < ipm->numCol; j++) {
    const double u = ipm->upper[j], l = ipm->lower[j];
    objSq += ipm->obj[j] * ipm->obj[j];
    uint8_t flag = 0;
    if (u < inf) {
      flag |= VARBND_UPPER;
      ipm->numVarUpperBnd++;
      upperSq += u * u;
    }
    if (l > -inf) {
      flag |= fabs(l) >= 1e-10 ? VARBND_LOWER : VARBND_LOWER_ZERO;
      ipm->numVarLowerBnd++;
      lowerSq += l * l;
    }
    if (u >= inf && l <= -inf) {
      flag = VARBND_FREE;
      ipm->numFreeVar++;
    }
    ipm->varBndType[j] = flag;
    const int32_t end = ipm->colBegin[j] + ipm->colLength[j];
    for (int32_t k = ipm->colBegin[j]; k < end; k++) aSq += ipm->matValue[k] * ipm->matValue[k];
  }
  ipm->normRhs = sqrt(rhsSq);
  ipm->normObj = sqrt(objSq);
  ipm->normUpper = sqrt(upperSq);
  ipm->normLower = sqrt(lowerSq);
  ipm->normA = sqrt(aSq);
  ipm->numComplement = ipm->numIneqn + ipm->numVarLowerBnd + ipm->numVarUpperBnd;
  ipm->freeVarLimit = 1000.0;
}

void FreeIpm(Ipm* ipm) {
  if (!ipm || !ipm->env || !ipm->env->pool) return;
  QVPool* pool = ipm->env->pool;
  poolRelease(pool, ipm->kktBegin);
  poolRelease(pool, ipm->kktIndex);
  poolRelease(pool, ipm->kktValue);
  poolRelease(pool, ipm->spareArray);
  poolRelease(pool, ipm->ineqnDiagIndex);
  poolRelease(pool, ipm->varBndDiagIndex);
  poolRelease(pool, ipm->vecRhs);
  poolRelease(pool, ipm->correctorPrimal);
  poolRelease(pool, ipm->vecSpare);
  poolRelease(pool, ipm->ineqnIndex);
  // Freed here too, although the instance's pool would take it: a solve that
  // leaves nothing behind is easier to check.
  poolRelease(pool, ipm->ineqnSlackDelta);
  poolRelease(pool, ipm->varBndType);
  poolRelease(pool, ipm->lowerSlackDelta);
  poolRelease(pool, ipm->upperSlackDelta);
  poolRelease(pool, ipm->lowerDualDelta);
  poolRelease(pool, ipm->upperDualDelta);
  poolRelease(pool, ipm->freeVarPlus);
  poolRelease(pool, ipm->freeVarMinus);
  poolRelease(pool, ipm->scratchA);
  poolRelease(pool, ipm->scratchB);
  poolRelease(pool, ipm->scratchInt);
  ldlCleanUpAll(&ipm->LA_env, &ipm->LDL_factor, &ipm->LDL_memory);
}
