// The presolver's stage entries of the pipeline: the pass loop of
// reductions, the presolve that may swap in a reduced model or finish by a
// direct solve, and the entry for an LP that bramlet has presolved.
#include "presolve/stage.h"

#include "frame/qv.h"
#include "ipm/directsolve.h"
#include "presolve/internal.h"
#include "records/model.h"
#include "util/sparse.h"

using presolve::isQP;
using presolve::newArray;
using presolve::verifyRowMatrix;

namespace {

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
