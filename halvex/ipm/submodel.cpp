// The big-data sub-model: which right sides, objective coefficients and
// bounds are big next to the matrix, and copies of the rows and columns they
// sit in, so that the starting point can solve without them and set their
// slacks and duals afterwards by direct formulas.
#include "ipm/submodel.h"

#include "frame/qv.h"
#include "ipm/histogram.h"
#include "presolve/presolver.h"
#include "util/sparse.h"

namespace {

// Zero-sized requests still get a block, so that null always means refusal.
template <typename T>
T* subArray(QVPool* pool, int64_t count) {
  return poolNew<T>(pool, count > 0 ? count : 1, true);
}

void logText(HalvexEnv* env, const char* format) {
  if (env && env->textLog) env->textLog(format);
}

void logText(HalvexEnv* env, const char* format, int32_t a, int32_t b) {
  if (env && env->textLog) env->textLog(format, a, b);
}

void logText(HalvexEnv* env, const char* format, int32_t a, int32_t b, int32_t c) {
  if (env && env->textLog) env->textLog(format, a, b, c);
}

// Place among the kept items, or -1 for a big one appended to the list.
// Returns the number of big ones.
template <typename IsBig>
int32_t markItems(int32_t count, int32_t* map, int32_t* list, IsBig isBig, int32_t* kept) {
  int32_t numBig = 0, pos = 0;
  for (int32_t k = 0; k < count; k++) {
    if (isBig(k)) {
      map[k] = SUB_LEFT_OUT;
      list[numBig++] = k;
    } else {
      map[k] = pos++;
    }
  }
  *kept = pos;
  return numBig;
}

// The system's numbering with left-out items kept in it: a map entry that
// asks for an item to be skipped outright is copied, every other one gets
// the next running number.
void fillSystemMap(int32_t count, const int32_t* itemMap, int32_t* systemMap) {
  int32_t next = 0;
  for (int32_t k = 0; k < count; k++) {
    const int32_t m = itemMap ? itemMap[k] : 0;
    systemMap[k] = (m < 0 && m != SUB_LEFT_OUT) ? m : next++;
  }
}

}  // namespace

void FreeSubModel(HalvexEnv* env, subModel* sub) {
  if (!sub) return;
  QVPool* pool = env->pool;
  poolRelease(pool, sub->rowMapSub);
  poolRelease(pool, sub->colMapSub);
  poolRelease(pool, sub->rhsMapSub);
  poolRelease(pool, sub->objMapSub);
  poolRelease(pool, sub->idxRowSub);
  poolRelease(pool, sub->idxColSub);
  poolRelease(pool, sub->idxBoundSub);
  poolRelease(pool, sub->colBeginSub);
  poolRelease(pool, sub->colLengthSub);
  poolRelease(pool, sub->rowIndexSub);
  poolRelease(pool, sub->matValueSub);
  poolRelease(pool, sub->objSub);
  poolRelease(pool, sub->rowBeginSub);
  poolRelease(pool, sub->rowLengthSub);
  poolRelease(pool, sub->colIndexSub);
  poolRelease(pool, sub->rowMatValueSub);
  poolRelease(pool, sub->rhsSub);
  poolRelease(pool, sub->rowSenseSub);
  poolRelease(pool, sub->statusBoundSub);
  poolRelease(pool, sub->lowerSub);
  poolRelease(pool, sub->upperSub);
  poolFree(pool, sub);
}

int32_t NewSubModel(HalvexEnv* env, const ipmModel* model, subModel** out) {
  *out = nullptr;
  QVPool* pool = env->pool;
  subModel* sub = poolNew<subModel>(pool, 1, true);
  if (!sub) return IPM_STATUS_OUT_OF_MEMORY;
  sub->numRow = model->numRow;
  sub->numCol = model->numCol;
  // Each may be needed in full; none is trimmed later.
  sub->rowMapSub = subArray<int32_t>(pool, sub->numRow);
  sub->rhsMapSub = subArray<int32_t>(pool, sub->numRow);
  sub->idxRowSub = subArray<int32_t>(pool, sub->numRow);
  sub->colMapSub = subArray<int32_t>(pool, sub->numCol);
  sub->objMapSub = subArray<int32_t>(pool, sub->numCol);
  sub->idxColSub = subArray<int32_t>(pool, sub->numCol);
  sub->idxBoundSub = subArray<int32_t>(pool, sub->numCol);
  if (!sub->rowMapSub || !sub->rhsMapSub || !sub->idxRowSub || !sub->colMapSub ||
      !sub->objMapSub || !sub->idxColSub || !sub->idxBoundSub) {
    FreeSubModel(env, sub);
    return IPM_STATUS_OUT_OF_MEMORY;
  }
  *out = sub;
  return 0;
}

void ipmMarkBigdata(HalvexEnv* env, const ipmModel* model, subModel* sub,
                    const ipmOption* option) {
  QVPool* pool = env->pool;
  int32_t lowCount[HIST_BINS], highCount[HIST_BINS];
  double lowBreak[HIST_BINS], highBreak[HIST_BINS];
  initDistribution(lowCount, lowBreak, highCount, highBreak);
  getMatrixDistribution(env, model->numCol, model->colBegin, model->colLength, model->matValue,
                        lowCount, lowBreak, highCount, highBreak);
  // The upper edge of the bin: a power of ten, so the thresholds are too.
  const double p = getPercentile(0.95, model->numCoef, 1, nullptr, lowCount, lowBreak, highCount,
                                 highBreak);
  const double big = p * 100.0 > SUB_MIN_THRESHOLD_BIG ? p * 100.0 : SUB_MIN_THRESHOLD_BIG;
  const double bigBound =
      p * 10.0 > SUB_MIN_THRESHOLD_BIG_BOUND ? p * 10.0 : SUB_MIN_THRESHOLD_BIG_BOUND;
  sub->thresholdBig = big;
  sub->thresholdBigBound = bigBound;

  // An equation stays in, however big its right side: its slack is 0
  // whatever the point, so no formula could set it afterwards.
  const int32_t numRow = sub->numRow;
  int32_t keptRows = 0;
  const int32_t numBigRows = markItems(
      numRow, sub->rhsMapSub, sub->idxRowSub,
      [&](int32_t i) {
        const double b = model->rhs[i];
        return !(b > -big && b < big) && model->rowSense[i] != 'E';
      },
      &keptRows);
  sub->numRhsBigIneqn = 0;
  sub->numRhsBigAll = numBigRows;
  if (numBigRows + keptRows != numRow)
    logText(env, "Error markBigRhs: idx=%d + pos=%d <> numRow=%d", numBigRows, keptRows, numRow);
  if (numBigRows == 0) {
    poolRelease(pool, sub->rhsMapSub);
    poolRelease(pool, sub->idxRowSub);
  }

  // A free column has no bound for a dual to sit on, so a big objective
  // coefficient there cannot be absorbed afterwards: it stays in.
  const int32_t numCol = sub->numCol;
  const double inf = option->infinity;
  int32_t keptCols = 0;
  const int32_t numBigCols = markItems(
      numCol, sub->objMapSub, sub->idxColSub,
      [&](int32_t j) {
        const double c = model->obj[j];
        const bool free = model->lower[j] <= -inf && model->upper[j] >= inf;
        return !(c > -big && c < big) && !free;
      },
      &keptCols);
  // Only a large negative lower or a large positive upper bound is big: one
  // far out on the other side is a tight bound, not a distant one.
  int32_t numBigBounds = 0;
  for (int32_t j = 0; j < numCol; j++) {
    const double lo = model->lower[j], up = model->upper[j];
    int32_t status = 0;
    if (lo > -inf && lo <= -bigBound) status |= SUB_BIG_LOWER;
    if (up < inf && up >= bigBound) status |= SUB_BIG_UPPER;
    sub->colMapSub[j] = status;
    if (status) sub->idxBoundSub[numBigBounds++] = j;
  }
  sub->numObjBigBounded = 0;
  sub->numObjBigAll = numBigCols;
  sub->numBoundBig = numBigBounds;
  if (numBigCols + keptCols != numCol)
    logText(env, "Error markBigCol: idxObj=%d + pos=%d <> numCol=%d", numBigCols, keptCols,
            numCol);
  if (numBigCols == 0) {
    poolRelease(pool, sub->objMapSub);
    poolRelease(pool, sub->idxColSub);
  }
  if (numBigBounds == 0) poolRelease(pool, sub->idxBoundSub);
}

namespace {

// The big rows, packed, with their right sides and senses, from a row-wise
// copy of A.
int32_t copyBigRows(HalvexEnv* env, const ipmModel* model, subModel* sub,
                    const int32_t* rowBegin, const int32_t* rowLength, const int32_t* colIndex,
                    const double* rowMatValue) {
  QVPool* pool = env->pool;
  const int32_t numBig = sub->numRhsBigAll;
  int32_t numCoef = 0;
  for (int32_t k = 0; k < numBig; k++) numCoef += rowLength[sub->idxRowSub[k]];
  sub->numCoefRowSub = numCoef;
  sub->rowBeginSub = subArray<int32_t>(pool, numBig);
  sub->rowLengthSub = subArray<int32_t>(pool, numBig);
  sub->colIndexSub = subArray<int32_t>(pool, numCoef);
  sub->rowMatValueSub = subArray<double>(pool, numCoef);
  sub->rhsSub = subArray<double>(pool, numBig);
  sub->rowSenseSub = subArray<char>(pool, numBig);
  if (!sub->rowBeginSub || !sub->rowLengthSub || !sub->colIndexSub || !sub->rowMatValueSub ||
      !sub->rhsSub || !sub->rowSenseSub)
    return IPM_STATUS_OUT_OF_MEMORY;
  int32_t pos = 0;
  for (int32_t k = 0; k < numBig; k++) {
    const int32_t i = sub->idxRowSub[k];
    sub->rhsSub[k] = model->rhs[i];
    sub->rowSenseSub[k] = model->rowSense[i];
    sub->rowBeginSub[k] = pos;
    sub->rowLengthSub[k] = rowLength[i];
    for (int32_t p = rowBegin[i]; p < rowBegin[i] + rowLength[i]; p++) {
      sub->colIndexSub[pos] = colIndex[p];
      sub->rowMatValueSub[pos++] = rowMatValue[p];
    }
  }
  return 0;
}

int32_t copyBigRowsVia(HalvexEnv* env, const ipmModel* model, presolver* pre, subModel* sub) {
  QVPool* pool = env->pool;
  const int32_t numRow = model->numRow;
  int32_t* ownBegin = nullptr;
  int32_t* ownLength = nullptr;
  int32_t* ownIndex = nullptr;
  double* ownValue = nullptr;
  int32_t **begin = &ownBegin, **length = &ownLength, **index = &ownIndex;
  double** value = &ownValue;
  if (pre) {
    if (pre->rowBegin || pre->rowLength || pre->colIndex || pre->rowMatValue) {
      logText(env, "Error CreateSubModel: presolver memory messed up");
      return IPM_STATUS_FAILED;
    }
    begin = &pre->rowBegin;
    length = &pre->rowLength;
    index = &pre->colIndex;
    value = &pre->rowMatValue;
  }
  int32_t numLive = 0;
  for (int32_t j = 0; j < model->numCol; j++) numLive += model->colLength[j];
  *begin = subArray<int32_t>(pool, (int64_t)numRow + 1);
  *length = subArray<int32_t>(pool, numRow);
  *index = subArray<int32_t>(pool, numLive);
  *value = subArray<double>(pool, numLive);
  int32_t status = IPM_STATUS_OUT_OF_MEMORY;
  // On failure the presolver's arrays stay for its next FreePresolver.
  if (*begin && *length && *index && *value) {
    toggleMatrixWithLength(model->numCol, numRow, nullptr, model->colBegin, model->colLength,
                           model->rowIndex, model->matValue, *begin, *length, *index, *value);
    status = copyBigRows(env, model, sub, *begin, *length, *index, *value);
  }
  poolRelease(pool, ownBegin);
  poolRelease(pool, ownLength);
  poolRelease(pool, ownIndex);
  poolRelease(pool, ownValue);
  return status;
}

int32_t copyBigCols(HalvexEnv* env, const ipmModel* model, subModel* sub) {
  QVPool* pool = env->pool;
  const int32_t numBig = sub->numObjBigAll;
  int32_t numCoef = 0;
  for (int32_t k = 0; k < numBig; k++) numCoef += model->colLength[sub->idxColSub[k]];
  sub->numCoefColSub = numCoef;
  sub->colBeginSub = subArray<int32_t>(pool, numBig);
  sub->colLengthSub = subArray<int32_t>(pool, numBig);
  sub->rowIndexSub = subArray<int32_t>(pool, numCoef);
  sub->matValueSub = subArray<double>(pool, numCoef);
  sub->objSub = subArray<double>(pool, numBig);
  if (!sub->colBeginSub || !sub->colLengthSub || !sub->rowIndexSub || !sub->matValueSub ||
      !sub->objSub)
    return IPM_STATUS_OUT_OF_MEMORY;
  int32_t pos = 0;
  for (int32_t k = 0; k < numBig; k++) {
    const int32_t j = sub->idxColSub[k];
    sub->objSub[k] = model->obj[j];
    sub->colBeginSub[k] = pos;
    sub->colLengthSub[k] = model->colLength[j];
    for (int32_t p = model->colBegin[j]; p < model->colBegin[j] + model->colLength[j]; p++) {
      sub->rowIndexSub[pos] = model->rowIndex[p];
      sub->matValueSub[pos++] = model->matValue[p];
    }
  }
  if (pos != numCoef) {
    logText(env, "Error CreateSubModel: pos=%d  numCoefColSub=%d", pos, numCoef);
    return IPM_STATUS_FAILED;
  }
  return 0;
}

int32_t copyBigBounds(HalvexEnv* env, const ipmModel* model, subModel* sub) {
  QVPool* pool = env->pool;
  const int32_t numBig = sub->numBoundBig;
  sub->statusBoundSub = subArray<int32_t>(pool, numBig);
  sub->lowerSub = subArray<double>(pool, numBig);
  sub->upperSub = subArray<double>(pool, numBig);
  if (!sub->statusBoundSub || !sub->lowerSub || !sub->upperSub) return IPM_STATUS_OUT_OF_MEMORY;
  for (int32_t k = 0; k < numBig; k++) {
    const int32_t j = sub->idxBoundSub[k];
    sub->lowerSub[k] = model->lower[j];
    sub->upperSub[k] = model->upper[j];
    sub->statusBoundSub[k] = sub->colMapSub[j];
  }
  return 0;
}

}  // namespace

int32_t CreateSubModel(HalvexEnv* env, const ipmModel* model, presolver* pre, subModel* sub) {
  int32_t status;
  if (sub->numRhsBigAll > 0 && (status = copyBigRowsVia(env, model, pre, sub)) != 0)
    return status;
  if (sub->numObjBigAll > 0 && (status = copyBigCols(env, model, sub)) != 0) return status;
  // The bound statuses still sit in colMapSub; they are read here, before
  // the map is reused or released.
  if (sub->numBoundBig > 0 && (status = copyBigBounds(env, model, sub)) != 0) return status;
  if (!sub->rowMapSub) {
    logText(env, "Error CreateSubModel: submodel->rowMapSub is NULL");
    return IPM_STATUS_FAILED;
  }
  if (!sub->colMapSub) {
    logText(env, "Error CreateSubModel: submodel->colMapSub is NULL");
    return IPM_STATUS_FAILED;
  }
  // Without items skipped outright the system keeps the model's numbering,
  // which the readers take from a null map.
  if (sub->numRhsBigIneqn == 0)
    poolRelease(env->pool, sub->rowMapSub);
  else
    fillSystemMap(sub->numRow, sub->rhsMapSub, sub->rowMapSub);
  if (sub->numObjBigBounded == 0)
    poolRelease(env->pool, sub->colMapSub);
  else
    fillSystemMap(sub->numCol, sub->objMapSub, sub->colMapSub);
  return 0;
}
