// The presolver record, the two presolve entries and the pass loop.
#include "presolve/presolver.h"

#include "frame/qv.h"
#include "ipm/directsolve.h"
#include "presolve/internal.h"
#include "records/model.h"
#include "util/sparse.h"
#include "verify/verify_presolve.h"

using presolve::isQP;
using presolve::newArray;

namespace {

int32_t verifyRowMatrix(HalvexEnv* env, int32_t level, int32_t numRow, int32_t numCol,
                        int32_t numCoef, const int32_t* colSkip, const int32_t* rowSkip,
                        const int32_t* colBegin, const int32_t* colLength,
                        const int32_t* rowIndex, const double* matValue,
                        const int32_t* rowBegin, const int32_t* rowLength,
                        const int32_t* colIndex, const double* rowMatValue) {
  if (level == 0) return 0;
  return ipmVerifyRowMatrix(env, level, numRow, numCol, numCoef, colSkip, rowSkip, colBegin,
                            colLength, rowIndex, matValue, rowBegin, rowLength, colIndex,
                            rowMatValue);
}

int32_t liveCount(int32_t numMajor, const int32_t* length) {
  int32_t total = 0;
  if (length)
    for (int32_t j = 0; j < numMajor; j++) total += length[j];
  return total;
}

// numLcont and numRange of the storage, counted on the senses that the
// iteration will see.
void collectStatistics(HalvexEnv* env, ipmModel* model, presolver* pre, ipmStorage* storage) {
  int32_t numL = 0, numR = 0;
  const char* sense = nullptr;
  switch (pre->preControl) {
    case PRECONTROL_NONE:
    case PRECONTROL_BOUND:
      sense = model->rowSense;
      break;
    case PRECONTROL_REDUCED:
      sense = pre->rowSense;
      break;
    default:
      PRE_TEXT(env, "Error collectStatistics: unknown presolver control type.");
      break;
  }
  if (sense) {
    for (int32_t i = 0; i < model->numRow; i++) {
      if (pre->preControl == PRECONTROL_REDUCED && pre->rowMap[i] < 0) continue;
      if (sense[i] == 'L') numL++;
      if (sense[i] == 'R') numR++;
    }
  }
  storage->numLcont = numL;
  storage->numRange = numR;
}

// The slack columns of range rows need room in the solution record.
int32_t widenSolution(HalvexEnv* env, ipmModel* model, int32_t numRange,
                      ipmSolution** outerSolution, ipmSolution** innerSolution) {
  if (numRange <= 0) return 0;
  FreeSolution(env, *outerSolution);
  *innerSolution = nullptr;
  int32_t status = NewSolution(env, outerSolution, model->numRow, model->numCol + numRange,
                               model->solPrimal, model->solDual);
  *innerSolution = *outerSolution;
  return status;
}

}  // namespace

int32_t CreatePresolver(HalvexEnv* env, ipmModel* model, ipmOption* option, presolver* pre) {
  QVPool* pool = env->pool;
  const int32_t numRow = model->numRow, numCol = model->numCol;
  pre->typeModel = model->typeModel;
  pre->maxPass = PRESOLVE_MAX_PASS;
  pre->numRemovedRow = pre->numRemovedCol = pre->numRemovedElement = 0;
  pre->numRemovedQuadElement = pre->numChangeRange = 0;
  pre->changed = 0;
  pre->numPass = 0;

  // Sized by the live entries as well as by numCoef, so that a model whose
  // count disagrees with its lengths cannot make the copies overrun.
  int32_t numCoef = liveCount(numCol, model->colLength);
  if (model->numCoef > numCoef) numCoef = model->numCoef;

  pre->rowBegin = newArray<int32_t>(pool, numRow + 1);
  pre->rowLength = newArray<int32_t>(pool, numRow);
  pre->colIndex = newArray<int32_t>(pool, numCoef, false);
  pre->rowMatValue = newArray<double>(pool, numCoef, false);
  if (!pre->rowBegin || !pre->rowLength || !pre->colIndex || !pre->rowMatValue)
    return IPM_STATUS_OUT_OF_MEMORY;
  toggleMatrixWithLength(numCol, numRow, nullptr, model->colBegin, model->colLength,
                         model->rowIndex, model->matValue, pre->rowBegin, pre->rowLength,
                         pre->colIndex, pre->rowMatValue);
  int32_t status = verifyRowMatrix(env, option->verifyLevel, numRow, numCol, model->numCoef,
                                   nullptr, nullptr, model->colBegin, model->colLength,
                                   model->rowIndex, model->matValue, pre->rowBegin,
                                   pre->rowLength, pre->colIndex, pre->rowMatValue);
  if (status) return status;

  pre->colBegin = newArray<int32_t>(pool, numCol + 1);
  pre->colLength = newArray<int32_t>(pool, numCol);
  pre->rowIndex = newArray<int32_t>(pool, numCoef, false);
  pre->matValue = newArray<double>(pool, numCoef, false);
  if (!pre->colBegin || !pre->colLength || !pre->rowIndex || !pre->matValue)
    return IPM_STATUS_OUT_OF_MEMORY;
  if (model->colBegin && model->colLength)
    copyMatrix(numCol, model->colBegin, model->colLength, model->rowIndex, model->matValue,
               pre->colBegin, pre->colLength, pre->rowIndex, pre->matValue);

  if (model->numQuadCoef > 0) {
    int32_t numQuad = liveCount(numCol, model->quadColLength);
    if (model->numQuadCoef > numQuad) numQuad = model->numQuadCoef;
    pre->quadRowBegin = newArray<int32_t>(pool, numCol + 1);
    pre->quadRowLength = newArray<int32_t>(pool, numCol);
    pre->quadColIndex = newArray<int32_t>(pool, numQuad, false);
    pre->quadRowMatValue = newArray<double>(pool, numQuad, false);
    if (!pre->quadRowBegin || !pre->quadRowLength || !pre->quadColIndex || !pre->quadRowMatValue)
      return IPM_STATUS_OUT_OF_MEMORY;
    toggleMatrixWithLength(numCol, numCol, nullptr, model->quadColBegin, model->quadColLength,
                           model->quadRowIndex, model->quadMatValue, pre->quadRowBegin,
                           pre->quadRowLength, pre->quadColIndex, pre->quadRowMatValue);
    status = verifyRowMatrix(env, option->verifyLevel, numCol, numCol, model->numQuadCoef,
                             nullptr, nullptr, model->quadColBegin, model->quadColLength,
                             model->quadRowIndex, model->quadMatValue, pre->quadRowBegin,
                             pre->quadRowLength, pre->quadColIndex, pre->quadRowMatValue);
    if (status) return status;
    pre->quadColBegin = newArray<int32_t>(pool, numCol + 1);
    pre->quadColLength = newArray<int32_t>(pool, numCol);
    pre->quadRowIndex = newArray<int32_t>(pool, numQuad, false);
    pre->quadMatValue = newArray<double>(pool, numQuad, false);
    if (!pre->quadColBegin || !pre->quadColLength || !pre->quadRowIndex || !pre->quadMatValue)
      return IPM_STATUS_OUT_OF_MEMORY;
    if (model->quadColBegin && model->quadColLength)
      copyMatrix(numCol, model->quadColBegin, model->quadColLength, model->quadRowIndex,
                 model->quadMatValue, pre->quadColBegin, pre->quadColLength, pre->quadRowIndex,
                 pre->quadMatValue);
  }

  pre->rowSense = newArray<char>(pool, numRow, false);
  pre->rhs = newArray<double>(pool, numRow, false);
  pre->obj = newArray<double>(pool, numCol, false);
  pre->rowMap = newArray<int32_t>(pool, numRow);
  pre->colMap = newArray<int32_t>(pool, numCol);
  pre->lowerBound = newArray<double>(pool, numCol, false);
  pre->upperBound = newArray<double>(pool, numCol, false);
  pre->lbMap = newArray<int32_t>(pool, numCol, false);
  pre->ubMap = newArray<int32_t>(pool, numCol, false);
  if (!pre->rowSense || !pre->rhs || !pre->obj || !pre->rowMap || !pre->colMap ||
      !pre->lowerBound || !pre->upperBound || !pre->lbMap || !pre->ubMap)
    return IPM_STATUS_OUT_OF_MEMORY;
  for (int32_t i = 0; i < numRow; i++) {
    pre->rowSense[i] = model->rowSense[i];
    pre->rhs[i] = model->rhs[i];
  }
  // A bound at exactly plus or minus infinity means none, but the activity
  // tests count a lower bound of exactly -infinity on a negative entry as a
  // number.  Summed in, 1e20 would wipe out every digit of the bounds that
  // the row implies, so the working copies keep "none" beyond infinity,
  // where every test reads it as none.
  const double inf = option->infinity;
  for (int32_t j = 0; j < numCol; j++) {
    pre->obj[j] = model->obj[j];
    const double lower = model->lower[j], upper = model->upper[j];
    pre->lowerBound[j] = lower <= -inf && lower > -2.0 * inf ? -2.0 * inf : lower;
    pre->upperBound[j] = upper >= inf && upper < 2.0 * inf ? 2.0 * inf : upper;
    pre->lbMap[j] = -1;
    pre->ubMap[j] = -1;
  }

  pre->rowDone = newArray<int32_t>(pool, numRow);
  pre->colDone = newArray<int32_t>(pool, numCol);
  pre->spec = newArray<int32_t>(pool, numCol, false);
  if (!pre->rowDone || !pre->colDone || !pre->spec) return IPM_STATUS_OUT_OF_MEMORY;
  return 0;
}

void FreePresolver(HalvexEnv* env, presolver* pre) {
  if (!pre) return;
  QVPool* pool = env->pool;
  poolRelease(pool, pre->colBegin);
  poolRelease(pool, pre->colLength);
  poolRelease(pool, pre->rowIndex);
  poolRelease(pool, pre->matValue);
  poolRelease(pool, pre->quadColBegin);
  poolRelease(pool, pre->quadColLength);
  poolRelease(pool, pre->quadRowIndex);
  poolRelease(pool, pre->quadMatValue);
  poolRelease(pool, pre->quadRowBegin);
  poolRelease(pool, pre->quadRowLength);
  poolRelease(pool, pre->quadColIndex);
  poolRelease(pool, pre->quadRowMatValue);
  poolRelease(pool, pre->rowSense);
  poolRelease(pool, pre->rowDone);
  poolRelease(pool, pre->colDone);
  // The equation solver back-substitutes through the row copy and rhs.
  if (pre->numPostdet <= 0) {
    poolRelease(pool, pre->rowBegin);
    poolRelease(pool, pre->rowLength);
    poolRelease(pool, pre->colIndex);
    poolRelease(pool, pre->rowMatValue);
    poolRelease(pool, pre->rhs);
  }
}

void DestroyPresolver(HalvexEnv* env, ipmModel* model, presolver* pre) {
  if (!pre) return;
  FreePresolver(env, pre);
  QVPool* pool = env->pool;
  // With bounds-only presolve the relaxation flags were made on the caller's
  // model.  The postsolve drops them; when a stage failed before it, this is
  // the last chance.
  if (pre->preControl == PRECONTROL_BOUND && model && !pre->inModel)
    poolRelease(pool, model->relaxColBound);
  poolRelease(pool, pre->rowBegin);
  poolRelease(pool, pre->rowLength);
  poolRelease(pool, pre->colIndex);
  poolRelease(pool, pre->rowMatValue);
  poolRelease(pool, pre->rhs);
  poolRelease(pool, pre->obj);
  poolRelease(pool, pre->lowerBound);
  poolRelease(pool, pre->upperBound);
  poolRelease(pool, pre->rowMap);
  poolRelease(pool, pre->colMap);
  poolRelease(pool, pre->lbMap);
  poolRelease(pool, pre->ubMap);
  poolRelease(pool, pre->shiftValue);
  poolRelease(pool, pre->shiftStatus);
  poolRelease(pool, pre->spec);
  poolFree(pool, pre);
}

void setMapping(HalvexEnv* /*env*/, ipmModel* model, presolver* pre) {
  int32_t gaps = 0;
  for (int32_t i = 0; i < model->numRow; i++) {
    if (pre->rowMap[i] < 0)
      gaps++;
    else
      pre->rowMap[i] = i - gaps;
  }
  gaps = 0;
  for (int32_t j = 0; j < model->numCol; j++) {
    if (pre->colMap[j] < 0)
      gaps++;
    else
      pre->colMap[j] = j - gaps;
  }
}

void adjustBound(HalvexEnv* /*env*/, ipmModel* model, presolver* pre) {
  for (int32_t j = 0; j < model->numCol; j++) {
    double t = model->lower[j];
    model->lower[j] = pre->lowerBound[j];
    pre->lowerBound[j] = t;
    t = model->upper[j];
    model->upper[j] = pre->upperBound[j];
    pre->upperBound[j] = t;
  }
}

int32_t ipmPreLoop(HalvexEnv* env, ipmModel* model, ipmOption* option, presolver* pre) {
  const double tol = option->primalTol;
  const double inf = option->infinity;
  for (;;) {
    for (int32_t j = 0; j < model->numCol; j++) {
      if (pre->colDone[j] > 0) continue;
      pre->colDone[j] = 1;
      if (pre->colMap[j] < 0) continue;
      const double lb = pre->lowerBound[j], ub = pre->upperBound[j];
      const bool fixed = !(lb <= -inf || ub >= inf || lb + tol * 0.01 < ub);
      int32_t status = 0;
      if (fixed)
        status = removeFixedCol(env, model, option, pre, j);
      else if (pre->colLength[j] == 0)
        status = removeEmptyCol(env, model, option, pre, j);
      else if (lb > inf || ub < -inf)
        status = IPM_STATUS_DUAL_INFEASIBLE;
      if (status) return status;
    }
    for (int32_t i = 0; i < model->numRow; i++) {
      if (pre->rowDone[i] > 0) continue;
      pre->rowDone[i] = 1;
      if (pre->rowMap[i] < 0) continue;
      int32_t status;
      if (pre->rowLength[i] == 0)
        status = removeEmptyRow(env, model, option, pre, i);
      else if (pre->rowLength[i] == 1)
        status = removeSingletonRow(env, model, option, pre, i);
      else
        status = tightenBound(env, model, option, pre, i);
      if (status) return status;
    }
    if (!pre->changed) return 0;
    pre->changed = 0;
    pre->numPass++;
    if (pre->numPass >= pre->maxPass) return 0;
  }
}

int32_t ipmPresolve(HalvexEnv* env, ipmModel** modelRef, ipmOption* option, presolver* pre,
                    ipmStorage* storage, ipmSolution** outerSolution,
                    ipmSolution** innerSolution) {
  ipmModel* m = *modelRef;
  int32_t status = 0;
  int32_t numFree = 0;

  if (*outerSolution || *innerSolution) {
    PRE_TEXT(env, "solution pointer error before IPM pre-processing");
    status = IPM_STATUS_FAILED;
    goto end;
  }
  pre->preControl = 0;
  pre->preRoute = PREROUTE_NORMAL;
  status = NewSolution(env, outerSolution, m->numRow, m->numCol, m->solPrimal, m->solDual);
  *innerSolution = *outerSolution;
  if (status) goto end;

  countFreeVar(env, m, option, pre, &numFree);
  if (pre->preRoute == PREROUTE_SPECIAL) {
    // No presolver array exists on this road, so nothing is left to free.
    printPreMsgQP(env, m, option, pre);
    status = ipmSpecSolve(env, m, option, *outerSolution, SPEC_SOLVE_REDUCED);
    if (status == 0) {
      pre->preControl = PRECONTROL_NONE;
      pre->preRoute = PREROUTE_SOLVED;
    }
    return status;
  }

  if ((status = CreatePresolver(env, m, option, pre)) != 0) goto end;
  if ((status = removeFreeRow(env, m, pre)) != 0) goto end;
  if ((status = detectInfeasBound(env, m, option, pre)) != 0) goto end;
  if ((status = ipmPreLoop(env, m, option, pre)) != 0) goto end;

  countProcessedFreeVar(env, m, option, pre, &numFree);
  setMapping(env, m, pre);

  if (pre->numRemovedRow == 0 && pre->numRemovedCol == 0 && pre->numRemovedElement == 0 &&
      pre->numRemovedQuadElement == 0 && pre->numChangeRange == 0 && !isQP(m)) {
    getBoundStatus(env, m, option, pre);
    pre->preControl = pre->boundChanged ? PRECONTROL_BOUND : PRECONTROL_NONE;
  } else {
    pre->preControl = PRECONTROL_REDUCED;
  }

  if (option->verifyLevel != 0) {
    if ((status = VerifyPresolveStructure(env, option->verifyLevel, m, option, pre)) != 0)
      goto end;
    status = verifyRowMatrix(env, option->verifyLevel, m->numRow, m->numCol,
                             m->numCoef - pre->numRemovedElement, pre->colMap, pre->rowMap,
                             pre->colBegin, pre->colLength, pre->rowIndex, pre->matValue,
                             pre->rowBegin, pre->rowLength, pre->colIndex, pre->rowMatValue);
    if (status) goto end;
    if (m->numQuadCoef > 0) {
      status = verifyRowMatrix(env, option->verifyLevel, m->numCol, m->numCol,
                               m->numQuadCoef - pre->numRemovedQuadElement, pre->colMap,
                               pre->colMap, pre->quadColBegin, pre->quadColLength,
                               pre->quadRowIndex, pre->quadMatValue, pre->quadRowBegin,
                               pre->quadRowLength, pre->quadColIndex, pre->quadRowMatValue);
      if (status) goto end;
    }
  }

  collectStatistics(env, m, pre, storage);

  switch (pre->preControl) {
    case PRECONTROL_NONE:
      status = widenSolution(env, m, storage->numRange, outerSolution, innerSolution);
      break;
    case PRECONTROL_BOUND:
      status = widenSolution(env, m, storage->numRange, outerSolution, innerSolution);
      if (status) break;
      adjustBound(env, m, pre);
      status = getRelaxBoundStatus(env, m, option, pre);
      // A failed stage should not leave the caller's model with bounds it
      // never gave; the swap is its own inverse.
      if (status) adjustBound(env, m, pre);
      break;
    case PRECONTROL_REDUCED: {
      ipmModel* reduced = NewReducedModel(env, m, storage, pre);
      if (!reduced) {
        status = IPM_STATUS_OUT_OF_MEMORY;
        break;
      }
      if (pre->inModel) {
        PRE_TEXT(env, "Error: presolver->inModel must be NULL before generating the reduced model.");
        FreeReducedModel(env, reduced, nullptr);
        status = IPM_STATUS_FAILED;
        break;
      }
      pre->inModel = m;
      *modelRef = reduced;
      reduceModel(env, reduced, pre);
      status = NewSolution(env, innerSolution, reduced->numRow, reduced->numCol + storage->numRange,
                           reduced->solPrimal, reduced->solDual);
      if (status == 0) status = getRelaxBoundStatus(env, reduced, option, pre);
      if (status) {
        // Give the caller its own model back rather than a half-made one that
        // nobody would free.
        FreeSolution(env, *innerSolution);
        *innerSolution = *outerSolution;
        FreeReducedModel(env, reduced, nullptr);
        *modelRef = m;
        pre->inModel = nullptr;
      }
      break;
    }
    default:
      PRE_TEXT(env, "Error presolve branching: unknown control type.");
      status = 0;
      goto end;
  }

end:
  printPreMsgQP(env, pre->inModel ? pre->inModel : *modelRef, option, pre);
  FreePresolver(env, pre);
  m = *modelRef;

  if (status) return status;
  if (option->verifyLevel != 0) {
    status = VerifyPresolveValue(env, option->verifyLevel, m, pre->inModel, pre);
    if (status) return status;
  }
  if (m->numCoef == 0 && m->numQuadCoef == 0) {
    pre->preRoute = PREROUTE_KNOWN;
    return 0;
  }
  if (pre->preRoute != PREROUTE_SPECIAL) return 0;

  status = ipmSpecSolve(env, m, option, *innerSolution, SPEC_SOLVE_DIRECT);
  if (status) return status;
  switch (pre->preControl) {
    case PRECONTROL_NONE:
    case PRECONTROL_BOUND:
      pre->preRoute = PREROUTE_SOLVED;
      return 0;
    case PRECONTROL_REDUCED:
      pre->preRoute = PREROUTE_KNOWN;
      return 0;
    default:
      PRE_TEXT(env, "unknown IPM pre-processing control status.");
      return IPM_STATUS_FAILED;
  }
}

int32_t ipmPresolveDisabled(HalvexEnv* env, ipmModel* m, ipmOption* option, presolver* pre,
                            ipmStorage* storage, ipmSolution** outerSolution,
                            ipmSolution** innerSolution) {
  pre->preControl = PRECONTROL_NONE;
  pre->preRoute = PREROUTE_NORMAL;
  if (m->numCoef == 0 && m->numQuadCoef == 0) {
    PRE_TEXT(env, "numCoef==0  numQuadCoef==0, external presolver should have solved this instance");
    return IPM_STATUS_FAILED;
  }
  int32_t numFree = 0;
  countFreeVar(env, m, option, pre, &numFree);
  int32_t status;
  if (pre->preRoute == PREROUTE_SPECIAL) {
    printPreMsgQP(env, m, option, pre);
    status = NewSolution(env, outerSolution, m->numRow, m->numCol, m->solPrimal, m->solDual);
    *innerSolution = *outerSolution;
    if (status) return status;
    status = ipmSpecSolve(env, m, option, *outerSolution, SPEC_SOLVE_REDUCED);
    if (status == 0) pre->preRoute = PREROUTE_SOLVED;
    return status;
  }

  collectStatistics(env, m, pre, storage);

  status = NewSolution(env, outerSolution, m->numRow, m->numCol + storage->numRange,
                       m->solPrimal, m->solDual);
  *innerSolution = *outerSolution;
  if (status) return status;
  if (option->verifyLevel != 0)
    return VerifyPresolveDisabled(env, option->verifyLevel, pre, m->numRow, m->numCol);
  return 0;
}
