// Scaling: the magnitude histogram, its quantiles and outlier screen, the
// objective rules, the row-only scaling, and the calls into bramlet's row and
// column scaling service.
#include "ipm/scale.h"

#include <math.h>

#include "frame/qv.h"
#include "verify/verify_distribution.h"

namespace {

const double kRowOnlyThreshold = 10.0;
const double kMaxObjScale = 1e6;
const double kMinObjRatio = 1e-8;

inline int32_t colEnd(const int32_t* colBegin, const int32_t* colLength, int32_t j) {
  return colLength ? colBegin[j] + colLength[j] : colBegin[j + 1];
}

void quartiles(int32_t count, const int32_t* lowCount, const double* lowBreak,
               const int32_t* highCount, const double* highBreak, double* q) {
  q[0] = getPercentile(0.25, count, 0, nullptr, lowCount, lowBreak, highCount, highBreak);
  q[1] = getPercentile(0.5, count, 0, nullptr, lowCount, lowBreak, highCount, highBreak);
  q[2] = getPercentile(0.75, count, 0, nullptr, lowCount, lowBreak, highCount, highBreak);
}

// True when every quartile of b is more than factor times that of a.
bool allAbove(const double* a, const double* b, double factor) {
  return a[0] * factor < b[0] && a[1] * factor < b[1] && a[2] * factor < b[2];
}

inline bool isOutlier(double v, double largeCut, double smallCut) {
  return v <= smallCut || v > largeCut;
}

void multiplyQuadratic(ipmModel* model, double factor) {
  for (int32_t j = 0; j < model->numCol; j++) model->obj[j] *= factor;
  if (model->quadDiag)
    for (int32_t j = 0; j < model->numCol; j++) model->quadDiag[j] *= factor;
  if (model->quadMatValue && model->quadColBegin) {
    for (int32_t j = 0; j < model->numCol; j++) {
      int32_t end = colEnd(model->quadColBegin, model->quadColLength, j);
      for (int32_t p = model->quadColBegin[j]; p < end; p++) model->quadMatValue[p] *= factor;
    }
  }
}

void divideQuadratic(ipmModel* model, double factor) {
  for (int32_t j = 0; j < model->numCol; j++) model->obj[j] /= factor;
  if (model->quadDiag)
    for (int32_t j = 0; j < model->numCol; j++) model->quadDiag[j] /= factor;
  if (model->quadMatValue && model->quadColBegin) {
    for (int32_t j = 0; j < model->numCol; j++) {
      int32_t end = colEnd(model->quadColBegin, model->quadColLength, j);
      for (int32_t p = model->quadColBegin[j]; p < end; p++) model->quadMatValue[p] /= factor;
    }
  }
}

void* bramletSlot(HalvexEnv* env, int32_t slot) {
  if (!env->preObject) return nullptr;
  return static_cast<void**>(env->preObject)[slot];
}

// The QP rule: one factor on the whole objective when the quadratic diagonal
// and the matrix are a decade apart in all three quartiles.
int32_t scaleQP(HalvexEnv* env, ipmModel* model, ipmStorage* storage, const double* qA) {
  int32_t lowCount[HIST_BINS], highCount[HIST_BINS];
  double lowBreak[HIST_BINS], highBreak[HIST_BINS];
  storage->objScale = 1.0;
  initDistribution(lowCount, lowBreak, highCount, highBreak);
  int32_t numDiag = 0;
  if (model->quadDiag)
    getVectorDistribution(env, model->numCol, model->quadDiag, &numDiag, lowCount, lowBreak,
                          highCount, highBreak);
  if (numDiag == 0) return 0;
  double qD[3];
  quartiles(numDiag, lowCount, lowBreak, highCount, highBreak, qD);
  if (!allAbove(qA, qD, 10.0) && !allAbove(qD, qA, 10.0)) return 0;
  double ratio = qA[1] / qD[1];
  if (ratio > kMinObjRatio) {
    storage->objScale = ratio < kMaxObjScale ? ratio : kMaxObjScale;
    multiplyQuadratic(model, storage->objScale);
  }
  return 0;
}

// Where an outlier was taken from, so that it can be put back scaled.
struct OutlierSave {
  int32_t* position;  // matrix position, or index into obj or rhs
  int32_t* column;    // column of a matrix entry
  double* value;
  int32_t numMatrix;
  int32_t numObj;
  int32_t numRhs;
};

void freeOutliers(QVPool* pool, OutlierSave* save) {
  poolRelease(pool, save->position);
  poolRelease(pool, save->column);
  poolRelease(pool, save->value);
}

// Replaces every outlier with the matrix median so that bramlet's factors
// are not pulled by them.  Returns the number found, which may exceed the
// room when the histogram and the data disagree; only what fits is saved.
int32_t screenOutliers(ipmModel* model, int32_t numOutlier, double largeCut, double smallCut,
                       double median, OutlierSave* save) {
  int32_t found = 0;
  for (int32_t j = 0; j < model->numCol; j++) {
    int32_t end = colEnd(model->colBegin, model->colLength, j);
    for (int32_t p = model->colBegin[j]; p < end; p++) {
      if (!isOutlier(fabs(model->matValue[p]), largeCut, smallCut)) continue;
      if (found < numOutlier) {
        save->position[found] = p;
        save->column[found] = j;
        save->value[found] = model->matValue[p];
        model->matValue[p] = median;
        save->numMatrix++;
      }
      found++;
    }
  }
  if (found < numOutlier) {
    for (int32_t j = 0; j < model->numCol; j++) {
      double v = model->obj[j];
      if (v == 0.0 || !isOutlier(fabs(v), largeCut, smallCut)) continue;
      if (found < numOutlier) {
        save->position[found] = j;
        save->value[found] = v;
        model->obj[j] = median;
        save->numObj++;
      }
      found++;
    }
  }
  if (found < numOutlier && model->rhs) {
    for (int32_t i = 0; i < model->numRow; i++) {
      double v = model->rhs[i];
      if (v == 0.0 || !isOutlier(fabs(v), largeCut, smallCut)) continue;
      if (found < numOutlier) {
        save->position[found] = i;
        save->value[found] = v;
        model->rhs[i] = median;
        save->numRhs++;
      }
      found++;
    }
  }
  return found;
}

// Puts the outliers back as bramlet would have scaled them.
void restoreOutliers(ipmModel* model, const ipmStorage* storage, const OutlierSave* save) {
  const double* r = storage->rowScale;
  const double* c = storage->colScale;
  int32_t k = 0;
  for (int32_t n = 0; n < save->numMatrix; n++, k++) {
    int32_t p = save->position[k];
    model->matValue[p] = c[save->column[k]] * r[model->rowIndex[p]] * save->value[k];
  }
  for (int32_t n = 0; n < save->numObj; n++, k++) {
    int32_t j = save->position[k];
    model->obj[j] = save->value[k] * c[j] * storage->objScale;
  }
  for (int32_t n = 0; n < save->numRhs; n++, k++) {
    int32_t i = save->position[k];
    model->rhs[i] = save->value[k] * r[i];
  }
}

int32_t scaleLP(HalvexEnv* env, ipmModel* model, ipmOption* option, ipmStorage* storage,
                int32_t* lowCount, const double* lowBreak, int32_t* highCount,
                const double* highBreak, const double* qA) {
  // Without the service there is nothing to scale with; refuse before the
  // model is touched, so that the caller sees a clean failure.
  BramletScaleFn scale = reinterpret_cast<BramletScaleFn>(bramletSlot(env, BRAMLET_SLOT_SCALE));
  if (!scale) return IPM_STATUS_FAILED;

  const int32_t level = option->verifyLevel;
  const int32_t numRow = model->numRow, numCol = model->numCol;
  double boost = 1.0;
  int32_t status;

  // Objective boost.
  int32_t objLow[HIST_BINS], objHigh[HIST_BINS];
  clearDistributionCounts(objLow, objHigh);
  int32_t numObj = 0;
  getVectorDistribution(env, numCol, model->obj, &numObj, objLow, lowBreak, objHigh, highBreak);
  double qO[3] = {0.0, 0.0, 0.0};
  if (numObj > 0) {
    quartiles(numObj, objLow, lowBreak, objHigh, highBreak, qO);
    status = VerifyPdfObj(env, level, model, numObj, objLow, lowBreak, objHigh, highBreak);
    if (status) return status;
  }
  // The floor on Q3O keeps a negligible objective from being blown up.
  if (allAbove(qA, qO, 100.0) || (allAbove(qO, qA, 100.0) && qO[2] > 1e-10)) {
    double ratio = qA[1] / qO[1];
    if (ratio > kMinObjRatio) {
      boost = ratio < kMaxObjScale ? ratio : kMaxObjScale;
      for (int32_t j = 0; j < numCol; j++)
        if (model->obj[j] != 0.0) model->obj[j] *= boost;
      clearDistributionCounts(objLow, objHigh);
      getVectorDistribution(env, numCol, model->obj, &numObj, objLow, lowBreak, objHigh,
                            highBreak);
      status = VerifyPdfObj(env, level, model, numObj, objLow, lowBreak, objHigh, highBreak);
      if (status) return status;
    }
  }

  // Outlier screen over matrix, objective and right-hand side together.
  for (int32_t i = 0; i <= HIST_LAST; i++) {
    lowCount[i] += objLow[i];
    highCount[i] += objHigh[i];
  }
  int32_t numRhs = 0;
  if (model->rhs)
    getVectorDistribution(env, numRow, model->rhs, &numRhs, lowCount, lowBreak, highCount,
                          highBreak);
  int32_t total = model->numCoef + numObj + numRhs;
  status = VerifyPdfAll(env, level, model, total, lowCount, lowBreak, highCount, highBreak);
  if (status) return status;
  int32_t numLeft = 0, numRight = 0;
  double largeCut, smallCut;
  int32_t numOutlier = countOutlier(env, total, &numLeft, &numRight, &largeCut, &smallCut,
                                    lowCount, lowBreak, highCount, highBreak);
  status = VerifyOutlier(largeCut, smallCut, env, level, model, total, numLeft, numRight,
                         lowCount, lowBreak, highCount, highBreak);
  if (status) return status;

  QVPool* pool = env->pool;
  OutlierSave save{};
  if (numOutlier > 0) {
    save.position = poolNew<int32_t>(pool, numOutlier, false);
    save.column = poolNew<int32_t>(pool, numOutlier, false);
    save.value = poolNew<double>(pool, numOutlier, false);
    if (!save.position || !save.column || !save.value) {
      freeOutliers(pool, &save);
      return IPM_STATUS_OUT_OF_MEMORY;
    }
    int32_t found = screenOutliers(model, numOutlier, largeCut, smallCut, qA[1], &save);
    if (found != numOutlier) {
      if (env->textLog) env->textLog("Error ipmScale: numOutlier=%d should be %d", found, numOutlier);
      freeOutliers(pool, &save);
      return IPM_STATUS_FAILED;
    }
  }

  // The scaling proper.
  poolRelease(pool, storage->rowScale);
  poolRelease(pool, storage->colScale);
  storage->rowScale = poolNew<double>(pool, (int64_t)numRow + 1, false);
  storage->colScale = poolNew<double>(pool, (int64_t)numCol + 1, false);
  if (!storage->rowScale || !storage->colScale) {
    poolRelease(pool, storage->rowScale);
    poolRelease(pool, storage->colScale);
    freeOutliers(pool, &save);
    return IPM_STATUS_OUT_OF_MEMORY;
  }
  for (int32_t i = 0; i <= numRow; i++) storage->rowScale[i] = 1.0;
  for (int32_t j = 0; j <= numCol; j++) storage->colScale[j] = 1.0;

  int64_t direction = model->typeModel == IPM_MODEL_LP ? 1 : -1;
  status = (int32_t)scale(option->primalTol, env->preObject, direction, numRow, numCol,
                          model->numCoef, model->colBegin, model->colLength, model->rowIndex,
                          model->matValue, model->obj, model->lower, model->upper,
                          storage->rowScale, storage->colScale, nullptr, nullptr, model->rhs,
                          model->rowSense, model->range, nullptr, nullptr, nullptr, nullptr);
  storage->objScale = storage->rowScale[numRow];
  if (status == 0) restoreOutliers(model, storage, &save);
  storage->objScale *= boost;
  storage->rowScale[numRow] *= boost;
  freeOutliers(pool, &save);
  return status;
}

}  // namespace

// ---- scaling -----------------------------------------------------------------------

int32_t ipmScale(HalvexEnv* env, ipmModel* model, ipmOption* option, ipmStorage* storage) {
  if (option->rowScaleOnly == 1) return iplpScaleRow(env, model, storage);

  int32_t lowCount[HIST_BINS], highCount[HIST_BINS];
  double lowBreak[HIST_BINS], highBreak[HIST_BINS];
  initDistribution(lowCount, lowBreak, highCount, highBreak);
  getMatrixDistribution(env, model->numCol, model->colBegin, model->colLength, model->matValue,
                        lowCount, lowBreak, highCount, highBreak);
  double qA[3];
  quartiles(model->numCoef, lowCount, lowBreak, highCount, highBreak, qA);
  int32_t status = VerifyPdfMatrix(env, option->verifyLevel, model, lowCount, lowBreak,
                                   highCount, highBreak);
  if (status) return status;

  if (model->typeModel == IPM_MODEL_QP) return scaleQP(env, model, storage, qA);
  return scaleLP(env, model, option, storage, lowCount, lowBreak, highCount, highBreak, qA);
}

int32_t ipmUnscale(HalvexEnv* env, ipmModel* model, ipmOption* option, ipmStorage* storage,
                   ipmSolution* solution) {
  if (option->rowScaleOnly == 1) {
    iplpUnscaleRow(env, model, storage);
    return 0;
  }
  const int32_t numRow = model->numRow, numCol = model->numCol;
  if (model->typeModel == IPM_MODEL_QP) {
    double f = storage->objScale;
    if (f == 1.0) return 0;
    // Primal values and slacks do not depend on the objective's size.
    if (solution) {
      for (int32_t j = 0; j < numCol; j++) {
        solution->lowerDual[j] /= f;
        solution->upperDual[j] /= f;
      }
    }
    divideQuadratic(model, f);
    double* y = solution ? solution->solDual : model->solDual;
    if (y)
      for (int32_t i = 0; i < numRow; i++) y[i] /= f;
    return 0;
  }

  BramletUnscaleFn unscale =
      reinterpret_cast<BramletUnscaleFn>(bramletSlot(env, BRAMLET_SLOT_UNSCALE));
  if (!unscale || !storage->rowScale || !storage->colScale) return IPM_STATUS_FAILED;
  int32_t status = (int32_t)unscale(
      1, numRow, numCol, model->colBegin, model->colLength, model->rowIndex, model->matValue,
      model->rhs, model->range, model->obj, model->lower, model->upper, nullptr, nullptr,
      storage->rowScale, storage->colScale, model->solPrimal, model->solDual, nullptr,
      model->rowActivity);
  if (status != 0 || !solution) return status;
  const double* c = storage->colScale;
  const double* r = storage->rowScale;
  for (int32_t j = 0; j < numCol; j++) {
    solution->lowerSlack[j] *= c[j];
    solution->upperSlack[j] *= c[j];
    solution->lowerDual[j] /= c[j] * storage->objScale;
    solution->upperDual[j] /= c[j] * storage->objScale;
  }
  for (int32_t i = 0; i < numRow; i++) solution->ineqnSlack[i] /= r[i];
  return 0;
}

void scaleSolutionToScaled(int32_t numRow, int32_t numCol, const double* rowScale,
                           const double* colScale, ipmSolution* solution, double* reducedCost,
                           double* rowActivity) {
  for (int32_t j = 0; j < numCol; j++) {
    double c = colScale[j];
    solution->solPrimal[j] /= c;
    solution->lowerSlack[j] /= c;
    solution->upperSlack[j] /= c;
    solution->lowerDual[j] *= c;
    solution->upperDual[j] *= c;
    if (reducedCost) reducedCost[j] *= c;
  }
  for (int32_t i = 0; i < numRow; i++) {
    double r = rowScale[i];
    solution->solDual[i] /= r;
    solution->ineqnSlack[i] *= r;
    if (rowActivity) rowActivity[i] *= r;
  }
}

// ---- row-only scaling --------------------------------------------------------------

int32_t iplpScaleRow(HalvexEnv* env, ipmModel* model, ipmStorage* storage) {
  const int32_t numRow = model->numRow, numCol = model->numCol;
  double objMax = 0.0;
  for (int32_t j = 0; j < numCol; j++)
    if (fabs(model->obj[j]) > objMax) objMax = fabs(model->obj[j]);
  storage->objScale = objMax;
  if (objMax >= kRowOnlyThreshold)
    for (int32_t j = 0; j < numCol; j++) model->obj[j] /= objMax;

  poolRelease(env->pool, storage->rowScale);
  // One spare entry, so that a model without rows still gets a block.
  double* r = poolNew<double>(env->pool, (int64_t)numRow + 1, true);
  if (!r) return IPM_STATUS_OUT_OF_MEMORY;
  storage->rowScale = r;

  // Flat over the stored positions: the matrix must be packed here.
  for (int32_t p = 0; p < model->numCoef; p++) {
    double v = fabs(model->matValue[p]);
    if (v > r[model->rowIndex[p]]) r[model->rowIndex[p]] = v;
  }
  if (model->rhs) {
    for (int32_t i = 0; i < numRow; i++) {
      if (fabs(model->rhs[i]) > r[i]) r[i] = fabs(model->rhs[i]);
      if (r[i] >= kRowOnlyThreshold) model->rhs[i] /= r[i];
    }
  }
  for (int32_t p = 0; p < model->numCoef; p++) {
    double f = r[model->rowIndex[p]];
    if (f >= kRowOnlyThreshold) model->matValue[p] /= f;
  }
  return 0;
}

void iplpUnscaleRow(HalvexEnv* /*env*/, ipmModel* model, ipmStorage* storage) {
  const double* r = storage->rowScale;
  if (!r) return;
  const double objScale = storage->objScale;
  const bool objScaled = objScale >= kRowOnlyThreshold;
  if (objScaled)
    for (int32_t j = 0; j < model->numCol; j++) model->obj[j] *= objScale;
  for (int32_t p = 0; p < model->numCoef; p++) {
    double f = r[model->rowIndex[p]];
    if (f >= kRowOnlyThreshold) model->matValue[p] *= f;
  }
  if (model->rhs)
    for (int32_t i = 0; i < model->numRow; i++)
      if (r[i] >= kRowOnlyThreshold) model->rhs[i] *= r[i];
  // Only rows that were scaled themselves get the objective's factor back
  // in their dual; the others keep theirs as it stands.
  if (model->solDual) {
    for (int32_t i = 0; i < model->numRow; i++) {
      if (r[i] < kRowOnlyThreshold) continue;
      model->solDual[i] /= r[i];
      if (objScaled) model->solDual[i] *= objScale;
    }
  }
}
