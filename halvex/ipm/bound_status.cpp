// The analyses of bounds by which the presolver takes its decisions: whether
// bounds moved, which of them a live row enforces anyway, and how many
// columns are free.
#include "frame/qv.h"
#include "presolve/presolver.h"
#include "records/host_records.h"

void getBoundStatus(HalvexEnv* /*env*/, ipmModel* model, ipmOption* option, presolver* pre) {
  const double tol = option->primalTol;
  pre->boundChanged = 0;
  for (int32_t j = 0; j < model->numCol; j++) {
    if (pre->colMap[j] < 0) continue;
    if (pre->lowerBound[j] > model->lower[j] + tol || pre->upperBound[j] < model->upper[j] - tol) {
      pre->boundChanged = 1;
      return;
    }
  }
}

int32_t getRelaxBoundStatus(HalvexEnv* env, ipmModel* model, ipmOption* option, presolver* pre) {
  if (model->relaxColBound) {
    if (env->textLog) env->textLog("relaxColBound should not be set if control comes here.");
    return IPM_STATUS_FAILED;
  }
  const double *origLower, *origUpper, *tightLower, *tightUpper;
  int32_t numCol;
  switch (pre->preControl) {
    case PRECONTROL_BOUND:
      // adjustBound has swapped: the model holds the tight bounds.
      origLower = pre->lowerBound;
      origUpper = pre->upperBound;
      tightLower = model->lower;
      tightUpper = model->upper;
      numCol = model->numCol;
      break;
    case PRECONTROL_REDUCED:
      if (!pre->inModel) return 0;
      origLower = pre->inModel->lower;
      origUpper = pre->inModel->upper;
      tightLower = pre->lowerBound;
      tightUpper = pre->upperBound;
      numCol = pre->inModel->numCol;
      break;
    default:
      return 0;
  }
  const double tol = option->primalTol, inf = option->infinity;
  uint8_t* flags = poolNew<uint8_t>(env->pool, model->numCol > 0 ? model->numCol : 1);
  if (!flags) return IPM_STATUS_OUT_OF_MEMORY;
  bool any = false;
  // A bound may go when the row that implied it stays in the model and so
  // enforces it itself.
  for (int32_t j = 0; j < numCol; j++) {
    const int32_t place = pre->colMap[j];
    if (place < 0) continue;
    const int32_t lowRow = pre->lbMap[j], upRow = pre->ubMap[j];
    if (tightLower[j] > -inf && lowRow >= 0 && pre->rowMap[lowRow] >= 0 &&
        origLower[j] <= tightLower[j] - tol) {
      flags[place] |= RELAX_NO_LOWER;
      any = true;
    }
    if (tightUpper[j] < inf && upRow >= 0 && pre->rowMap[upRow] >= 0 &&
        tightUpper[j] + tol <= origUpper[j]) {
      flags[place] |= RELAX_NO_UPPER;
      any = true;
    }
  }
  if (any) {
    model->relaxColBound = flags;
    // A reduced model owns its flags and frees them with itself.
    if (pre->preControl == PRECONTROL_BOUND) pre->relaxMade = flags;
  } else
    poolFree(env->pool, flags);
  return 0;
}

void countFreeVar(HalvexEnv* /*env*/, ipmModel* model, ipmOption* option, presolver* pre,
                  int32_t* numFree) {
  const double inf = option->infinity;
  int32_t count = 0;
  for (int32_t j = 0; j < model->numCol; j++) {
    const uint8_t relax = model->relaxColBound ? model->relaxColBound[j] : 0;
    const bool noLower = model->lower[j] < -inf || (relax & RELAX_NO_LOWER);
    const bool noUpper = model->upper[j] > inf || (relax & RELAX_NO_UPPER);
    if (noLower && noUpper) count++;
  }
  *numFree = count;
  if (count > 0) pre->preRoute = PREROUTE_FREE_COLS;
  if (count != model->numCol) return;
  if (model->numCoef == 0) {
    if (model->typeModel == IPM_MODEL_QP && model->numQuadCoef > 0)
      pre->preRoute = PREROUTE_SPECIAL;
    return;
  }
  for (int32_t i = 0; i < model->numRow; i++)
    if (model->rowSense[i] != 'E') return;
  pre->preRoute = PREROUTE_SPECIAL;
}

void countProcessedFreeVar(HalvexEnv* /*env*/, ipmModel* model, ipmOption* option,
                           presolver* pre, int32_t* numFree) {
  const double tol = option->primalTol, inf = option->infinity;
  int32_t count = 0;
  for (int32_t j = 0; j < model->numCol; j++) {
    if (pre->colMap[j] < 0) continue;
    const int32_t lowRow = pre->lbMap[j], upRow = pre->ubMap[j];
    const bool lowerOpen = pre->lowerBound[j] < -inf ||
                           (pre->lowerBound[j] > -inf && lowRow >= 0 &&
                            pre->rowMap[lowRow] >= 0 &&
                            model->lower[j] <= pre->lowerBound[j] - tol);
    const bool upperOpen = pre->upperBound[j] > inf ||
                           (upRow >= 0 && pre->rowMap[upRow] >= 0 &&
                            pre->upperBound[j] + tol <= model->upper[j]);
    if (lowerOpen && upperOpen) count++;
  }
  *numFree = count;
  if (count > 0) pre->preRoute = PREROUTE_FREE_COLS;
  if (count != model->numCol - pre->numRemovedCol) return;
  if (pre->numRemovedElement == model->numCoef) {
    if (model->typeModel == IPM_MODEL_QP && model->numQuadCoef - pre->numRemovedQuadElement > 0)
      pre->preRoute = PREROUTE_SPECIAL;
    return;
  }
  int32_t numEquation = 0;
  for (int32_t i = 0; i < model->numRow; i++)
    if (pre->rowMap[i] >= 0 && pre->rowSense[i] == 'E') numEquation++;
  if (numEquation == model->numRow - pre->numRemovedRow) pre->preRoute = PREROUTE_SPECIAL;
}
