// The iteration knows only rows of sense E and G.  addSlack brings a model
// to that form in place and removeSlack takes it back; the free-variable
// functions are the remains of a split that is switched off.
#include <float.h>

#include "frame/qv.h"
#include "ipm/ipm.h"

namespace {

void logText1(HalvexEnv* env, const char* format, int32_t a, int32_t b) {
  if (env && env->textLog) env->textLog(format, a, b);
}

}  // namespace

int32_t addSlack(HalvexEnv* env, ipmModel* model, ipmStorage* storage) {
  QVPool* pool = env->pool;
  const int32_t numRow = model->numRow, numCol = model->numCol, numCoef = model->numCoef;
  storage->numRow = numRow;
  storage->numCol = numCol;
  storage->numCoef = numCoef;
  storage->numQuadCoef = model->numQuadCoef;
  int32_t* rangeRow = nullptr;
  int32_t* lcontRow = nullptr;
  const int32_t numRange = storage->numRange, numLcont = storage->numLcont;

  if (numRange > 0) {
    rangeRow = poolNew<int32_t>(pool, numRange, false);
    if (!rangeRow) return IPM_STATUS_OUT_OF_MEMORY;
    int32_t found = 0;
    for (int32_t i = 0; i < numRow; i++)
      if (model->rowSense[i] == 'R') {
        if (found < numRange) rangeRow[found] = i;
        found++;
      }
    if (found != numRange) {
      logText1(env,
               "%1zInput model with numRange=%d, however real number of range constraint is %d",
               numRange, found);
      poolFree(pool, rangeRow);
      return IPM_STATUS_FAILED;
    }
  }

  if (numLcont > 0) {
    lcontRow = poolNew<int32_t>(pool, numLcont, false);
    if (!lcontRow) {
      if (rangeRow) poolFree(pool, rangeRow);
      return IPM_STATUS_OUT_OF_MEMORY;
    }
    for (int32_t k = 0; k < numCoef; k++)
      if (model->rowSense[model->rowIndex[k]] == 'L') model->matValue[k] = -model->matValue[k];
    int32_t found = 0;
    for (int32_t i = 0; i < numRow; i++)
      if (model->rowSense[i] == 'L') {
        model->rowSense[i] = 'G';
        model->rhs[i] = -model->rhs[i];
        if (found < numLcont) lcontRow[found] = i;
        found++;
      }
    if (found != numLcont) {
      logText1(env, "%1zInput model with numLcont=%d, however real number of L constraint is %d",
               numLcont, found);
      poolFree(pool, lcontRow);
      if (rangeRow) poolFree(pool, rangeRow);
      return IPM_STATUS_FAILED;
    }
  }

  if (numRange > 0) {
    storage->firstSlackCoef = numCoef;
    storage->firstSlackCol = numCol;
    const bool quad = model->typeModel == IPM_MODEL_QP && model->quadColBegin;
    for (int32_t k = 0; k < numRange; k++) {
      const int32_t i = rangeRow[k], c = numCol + k, pos = numCoef + k;
      model->obj[c] = 0.0;
      model->lower[c] = 0.0;
      model->upper[c] = model->range[i];
      model->colBegin[c] = pos;
      model->colLength[c] = 1;
      model->rowIndex[pos] = i;
      model->matValue[pos] = 1.0;
      model->rowSense[i] = 'E';
      if (quad) {
        if (model->quadDiag) model->quadDiag[c] = 0.0;
        model->quadColBegin[c] = model->numQuadCoef;
        if (model->quadColLength) model->quadColLength[c] = 0;
      }
    }
    model->colBegin[numCol + numRange] = numCoef + numRange;
    if (quad) model->quadColBegin[numCol + numRange] = model->numQuadCoef;
    model->numCol = numCol + numRange;
    model->numCoef = numCoef + numRange;
  }
  storage->rangeRow = rangeRow;
  storage->lcontRow = lcontRow;
  return 0;
}

void removeSlack(HalvexEnv* /*env*/, ipmModel* model, ipmStorage* storage, ipmSolution* solution) {
  model->numRow = storage->numRow;
  model->numCol = storage->numCol;
  model->numCoef = storage->numCoef;
  if (storage->numLcont > 0 && storage->lcontRow) {
    for (int32_t k = 0; k < storage->numLcont; k++) {
      const int32_t i = storage->lcontRow[k];
      model->rowSense[i] = 'L';
      model->rhs[i] = -model->rhs[i];
      if (model->solDual) model->solDual[i] = -model->solDual[i];
    }
    for (int32_t k = 0; k < model->numCoef; k++)
      if (model->rowSense[model->rowIndex[k]] == 'L') model->matValue[k] = -model->matValue[k];
  }
  if (storage->numRange > 0 && storage->rangeRow) {
    for (int32_t k = 0; k < storage->numRange; k++) {
      const int32_t i = storage->rangeRow[k];
      model->rowSense[i] = 'R';
      if (solution && solution->ineqnSlack && solution->solPrimal)
        solution->ineqnSlack[i] = solution->solPrimal[model->numCol + k];
    }
  }
}

int32_t splitFreeVar(HalvexEnv* env, ipmModel* model, ipmStorage* storage) {
  if (storage->numFreeVar < 1) {
    storage->freeVarPlus = nullptr;
    storage->freeVarMinus = nullptr;
    return 0;
  }
  QVPool* pool = env->pool;
  storage->numFreeVar = 0;
  int32_t* plus = poolNew<int32_t>(pool, 0);
  int32_t* minus = poolNew<int32_t>(pool, 0);
  if (!plus || !minus) {
    if (plus) poolFree(pool, plus);
    if (minus) poolFree(pool, minus);
    return IPM_STATUS_OUT_OF_MEMORY;
  }
  int32_t found = 0;
  for (int32_t j = 0; j < model->numCol; j++)
    if (model->lower[j] < -1e+20 && model->upper[j] > 1e+20) found++;
  if (found > 0) {
    logText1(env, "%1zInput model with numFreeVar=%d, however real number of free var is %d", 0,
             found);
    poolFree(pool, plus);
    poolFree(pool, minus);
    return IPM_STATUS_FAILED;
  }
  storage->freeVarPlus = plus;
  storage->freeVarMinus = minus;
  return 0;
}

void mergeFreeVar(HalvexEnv* /*env*/, ipmModel* model, ipmStorage* storage, ipmSolution* solution,
                  uint8_t* flags) {
  for (int32_t k = 0; k < storage->numFreeVar; k++) {
    const int32_t p = storage->freeVarPlus[k], m = storage->freeVarMinus[k];
    model->solPrimal[p] -= model->solPrimal[m];
    model->lower[p] = -DBL_MAX;
    model->upper[p] = DBL_MAX;
    if (flags) flags[p] = 1;
    if (solution) {
      solution->lowerSlack[p] = 0.0;
      solution->upperSlack[p] = 0.0;
      solution->lowerDual[p] = 0.0;
      solution->upperDual[p] = 0.0;
    }
  }
}

namespace {

// How far a split pair must move to sit freeVarLimit away from zero, or 0
// when it is already in range.
double freeVarShift(const Ipm* ipm, const double* a, const double* b, int32_t p, int32_t m) {
  double t = a[p];
  if (a[m] < t) t = a[m];
  if (b[p] < t) t = b[p];
  if (b[m] < t) t = b[m];
  if (t < 0.0 || t > ipm->freeVarLimit) return t - ipm->freeVarLimit;
  return 0.0;
}

}  // namespace

void updateFreeVar(Ipm* ipm, double* a, double* b) {
  for (int32_t k = 0; k < ipm->numFreeVar && ipm->freeVarPlus; k++) {
    const int32_t p = ipm->freeVarPlus[k], m = ipm->freeVarMinus[k];
    const double d = freeVarShift(ipm, a, b, p, m);
    if (d == 0.0) continue;
    a[p] -= d;
    a[m] -= d;
    b[p] -= d;
    b[m] -= d;
  }
}

void adjustFreeVar(Ipm* ipm, double* a, double* b, double* c) {
  for (int32_t k = 0; k < ipm->numFreeVar && ipm->freeVarPlus; k++) {
    const int32_t p = ipm->freeVarPlus[k], m = ipm->freeVarMinus[k];
    const double d = freeVarShift(ipm, a, b, p, m);
    if (d == 0.0) continue;
    const double oldP = b[p], oldM = b[m];
    a[p] -= d;
    a[m] -= d;
    b[p] -= d;
    b[m] -= d;
    c[p] *= b[p] / oldP;
    c[m] *= b[m] / oldM;
  }
}
