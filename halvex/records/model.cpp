#include "records/model.h"

#include <float.h>
#include <string.h>

#include "frame/qv.h"

ipmModel* CreateModelFromLP(QVPool* pool, const LPRecord* record) {
  if (!pool || !record) return nullptr;
  ipmModel* model = poolNew<ipmModel>(pool, 1);
  if (!model) return nullptr;
  model->typeModel = IPM_MODEL_LP;
  model->objSense = record->objSense;
  model->numRow = record->numRow;
  model->numCol = record->numCol;
  model->numCoef = record->numCoef;
  model->colBegin = record->colBegin;
  model->colLength = record->colLength;
  model->rowIndex = record->rowIndex;
  model->matValue = record->matValue;
  model->obj = record->obj;
  model->rhs = record->rhs;
  model->range = record->range;
  model->lower = record->lower;
  model->upper = record->upper;
  model->rowSense = record->rowSense;
  model->solPrimal = record->solPrimal;
  model->solDual = record->solDual;
  model->objConstant = record->objConstant;
  model->reducedCost = record->reducedCost;
  model->rowActivity = record->rowActivity;
  model->checkSolverBreak = record->checkSolverBreak;
  model->scripterDataStruct = record->scripterDataStruct;
  return model;
}

ipmModel* CreateModelFromQP(QVPool* pool, const QPRecord* record) {
  if (!pool || !record) return nullptr;
  ipmModel* model = poolNew<ipmModel>(pool, 1);
  if (!model) return nullptr;
  model->typeModel = IPM_MODEL_QP;
  model->objSense = record->objSense;
  model->numRow = record->numRow;
  model->numCol = record->numCol;
  model->numCoef = record->numCoef;
  model->numQuadCoef = record->numQuadCoef;
  model->matValue = record->matValue;
  model->rowIndex = record->rowIndex;
  model->colBegin = record->colBegin;
  model->quadDiag = record->quadDiag;
  model->quadMatValue = record->quadMatValue;
  model->quadRowIndex = record->quadRowIndex;
  model->quadColBegin = record->quadColBegin;
  model->obj = record->obj;
  model->rhs = record->rhs;
  model->range = record->range;
  model->lower = record->lower;
  model->upper = record->upper;
  model->rowSense = record->rowSense;
  model->solPrimal = record->solPrimal;
  model->solDual = record->solDual;
  model->rowActivity = record->rowActivity;
  model->objConstant = record->objConstant;
  model->checkSolverBreak = record->checkSolverBreak;
  model->scripterDataStruct = record->scripterDataStruct;
  // colLength, quadColLength and reducedCost are made by the QP presolver
  // for the length of the solve.
  return model;
}

// Silences the iteration table when no print frequency is set, keeping the
// status messages.
static void applyPrintRule(ipmOption* option) {
  if (option->printFreq < 1 && option->printLevel != 0 && option->printLevel != 1)
    option->printLevel = 1;
}

ipmOption* CreateOptionFromLP(QVPool* pool, const LPOptions* options) {
  if (!pool || !options) return nullptr;
  ipmOption* option = poolNew<ipmOption>(pool, 1);
  if (!option) return nullptr;
  option->presolver = options->presolver;
  option->verifyLevel = options->verifyLevel;
  option->timerType = options->timerType;
  option->primalTol = options->primalTol;
  option->dualTol = options->dualTol;
  option->gapTol = options->gapTol;
  option->infinity = 1e+20;
  option->maxIteration = options->maxIteration;
  option->maxTime = options->maxTime;
  option->printFreq = options->printFreq;
  option->printLevel = options->printLevel;
  option->crossover = options->crossover;
  option->rowScaleOnly = options->rowScaleOnly;
  option->numThreads = options->numThreads;
  applyPrintRule(option);
  return option;
}

ipmOption* CreateOptionFromQP(QVPool* pool, const ScripterOptions* options) {
  if (!pool || !options) return nullptr;
  ipmOption* option = poolNew<ipmOption>(pool, 1);
  if (!option) return nullptr;
  option->presolver = options->presolver;
  option->verifyLevel = 0;
  option->timerType = options->timerType;
  option->primalTol = options->primalTol;
  option->dualTol = options->dualTol;
  option->gapTol = options->gapTol;
  option->infinity = 1e+20;
  option->maxIteration = options->maxIteration;
  option->maxTime = options->maxTime;
  option->printFreq = options->printFreq;
  option->printLevel = 2;
  option->crossover = 0;
  option->rowScaleOnly = 0;
  option->numThreads = options->numThreads;
  applyPrintRule(option);
  return option;
}

void ReturnModelToLP(const ipmModel* model, LPRecord* record) {
  if (!model || !record) return;
  record->status = model->status;
  record->objConstant = model->objValue;
  record->iteration = model->iteration;
  record->primalInfeas = model->primalInfeas;
  record->dualInfeas = model->dualInfeas;
  record->boundInfeas = model->boundInfeas;
  record->dualityGap = model->dualityGap;
  record->complementarity = model->complementarity;
}

void ReturnModelToQP(const ipmModel* model, QPRecord* record) {
  if (!model || !record) return;
  record->objValue = model->objValue;
  record->iterations = model->iteration;
  record->primalInfeas = model->primalInfeas;
  record->dualInfeas = model->dualInfeas;
  record->boundInfeas = model->boundInfeas;
  record->dualityGap = model->dualityGap;
  record->complementarity = model->complementarity;
}

void DestroyModel(QVPool* pool, ipmModel* model) {
  if (pool && model) poolFree(pool, model);
}

void DestroyOption(QVPool* pool, ipmOption* option) {
  if (pool && option) poolFree(pool, option);
}

// A zero-length vector still gets one entry: a pool may answer a request for
// nothing with null, which every caller would read as out of memory.
static double* newVector(QVPool* pool, int32_t count) {
  return poolNew<double>(pool, count > 0 ? count : 1);
}

int32_t NewSolution(HalvexEnv* env, ipmSolution** solution, int32_t numRow, int32_t numCol,
                    double* solPrimal, double* solDual) {
  *solution = nullptr;
  QVPool* pool = env->pool;
  ipmSolution* s = poolNew<ipmSolution>(pool, 1);
  if (!s) return IPM_STATUS_OUT_OF_MEMORY;
  s->solPrimal = solPrimal;
  s->solDual = solDual;
  s->lowerSlack = newVector(pool, numCol);
  s->upperSlack = newVector(pool, numCol);
  s->lowerDual = newVector(pool, numCol);
  s->upperDual = newVector(pool, numCol);
  s->ineqnSlack = newVector(pool, numRow);
  if (!s->lowerSlack || !s->upperSlack || !s->lowerDual || !s->upperDual || !s->ineqnSlack) {
    FreeSolution(env, s);
    return IPM_STATUS_OUT_OF_MEMORY;
  }
  *solution = s;
  return 0;
}

void FreeSolution(HalvexEnv* env, ipmSolution* solution) {
  if (!solution) return;
  QVPool* pool = env->pool;
  poolRelease(pool, solution->lowerSlack);
  poolRelease(pool, solution->upperSlack);
  poolRelease(pool, solution->lowerDual);
  poolRelease(pool, solution->upperDual);
  poolRelease(pool, solution->ineqnSlack);
  poolFree(pool, solution);
}

void FreeStorage(HalvexEnv* env, ipmStorage* storage) {
  if (!storage) return;
  QVPool* pool = env->pool;
  poolRelease(pool, storage->lcontRow);
  poolRelease(pool, storage->freeVarPlus);
  poolRelease(pool, storage->freeVarMinus);
  poolRelease(pool, storage->rangeRow);
  poolRelease(pool, storage->rowScale);
  poolRelease(pool, storage->colScale);
  poolRelease(pool, storage->rowScaleAux);
  poolRelease(pool, storage->colScaleAux);
  poolFree(pool, storage);
}

LPOptions* createLpOptions(HalvexEnv* env) {
  LPOptions* options = poolNew<LPOptions>(env->pool, 1);
  if (options) resetLpOptions(options);
  return options;
}

void resetLpOptions(LPOptions* options) { setLpOptionDefaults(options); }

void initScripter(ScripterOptions* options) { setScripterDefaults(options); }
