// The reduced model: the live rows and columns of the presolver's working
// copies, in a model of their own that stands in for the caller's.
#include "presolve/internal.h"

using presolve::isQP;
using presolve::newArray;

ipmModel* NewReducedModel(HalvexEnv* env, ipmModel* m, ipmStorage* storage, presolver* pre) {
  QVPool* pool = env->pool;
  ipmModel* r = poolNew<ipmModel>(pool, 1);
  if (!r) return nullptr;
  r->typeModel = m->typeModel;
  r->numRow = m->numRow - pre->numRemovedRow;
  r->numCol = m->numCol - pre->numRemovedCol;
  r->numCoef = m->numCoef - pre->numRemovedElement;
  r->numQuadCoef = m->numQuadCoef - pre->numRemovedQuadElement;
  r->objSense = m->objSense;
  r->objConstant = m->objConstant;
  r->reducedCost = m->reducedCost;
  r->rowActivity = m->rowActivity;
  r->checkSolverBreak = m->checkSolverBreak;
  r->scripterDataStruct = m->scripterDataStruct;

  // Later stages extend the model in place (slack and split columns), and
  // the augmented matrix is built in the same arrays: leave room for both.
  // The free-variable count is still 0 here; it is read all the same so that
  // the rule holds should the order of the stages change.
  const int64_t colRoom = (int64_t)r->numCol + storage->numFreeVar + storage->numRange;
  const int64_t coefRoom = (int64_t)r->numCoef + storage->numFreeVar + storage->numRange;
  const int64_t matRoom = colRoom + r->numRow + coefRoom;
  r->matValue = newArray<double>(pool, matRoom);
  r->rowIndex = newArray<int32_t>(pool, matRoom);
  r->colBegin = newArray<int32_t>(pool, colRoom + 2);
  r->colLength = newArray<int32_t>(pool, colRoom + 1);
  r->rhs = newArray<double>(pool, r->numRow);
  r->solDual = newArray<double>(pool, r->numRow);
  r->rowSense = newArray<char>(pool, r->numRow);
  r->obj = newArray<double>(pool, colRoom);
  r->lower = newArray<double>(pool, colRoom);
  r->upper = newArray<double>(pool, colRoom);
  r->solPrimal = newArray<double>(pool, colRoom);
  bool ok = r->matValue && r->rowIndex && r->colBegin && r->colLength && r->rhs && r->solDual &&
            r->rowSense && r->obj && r->lower && r->upper && r->solPrimal;
  if (ok && m->range) {
    r->range = newArray<double>(pool, r->numRow);
    ok = r->range != nullptr;
  }
  if (ok && isQP(m)) {
    r->quadDiag = newArray<double>(pool, colRoom);
    r->quadColLength = newArray<int32_t>(pool, colRoom);
    r->quadColBegin = newArray<int32_t>(pool, colRoom + 1);
    r->quadRowIndex = newArray<int32_t>(pool, r->numQuadCoef);
    r->quadMatValue = newArray<double>(pool, r->numQuadCoef);
    ok = r->quadDiag && r->quadColLength && r->quadColBegin && r->quadRowIndex && r->quadMatValue;
  }
  if (!ok) {
    FreeReducedModel(env, r, nullptr);
    return nullptr;
  }
  return r;
}

void reduceModel(HalvexEnv* env, ipmModel* r, presolver* pre) {
  const ipmModel* in = pre->inModel;
  for (int32_t i = 0; i < in->numRow; i++) {
    const int32_t place = pre->rowMap[i];
    if (place < 0) continue;
    r->rhs[place] = pre->rhs[i];
    r->rowSense[place] = pre->rowSense[i];
    // A range row that lost an end is a plain inequality now, and a width
    // left behind on it would read as a range to the slack stage.
    if (in->range) r->range[place] = pre->rowSense[i] == 'R' ? in->range[i] : 0.0;
  }
  for (int32_t j = 0; j < in->numCol; j++) {
    const int32_t place = pre->colMap[j];
    if (place < 0) continue;
    r->obj[place] = pre->obj[j];
    r->lower[place] = pre->lowerBound[j];
    r->upper[place] = pre->upperBound[j];
  }

  int32_t count = 0;
  for (int32_t j = 0; j < in->numCol; j++) {
    const int32_t place = pre->colMap[j];
    if (place < 0) continue;
    r->colBegin[place] = count;
    const int32_t begin = pre->colBegin[j], end = begin + pre->colLength[j];
    for (int32_t k = begin; k < end; k++) {
      const int32_t row = pre->rowMap[pre->rowIndex[k]];
      if (row < 0) continue;
      r->rowIndex[count] = row;
      r->matValue[count] = pre->matValue[k];
      count++;
    }
    r->colLength[place] = count - r->colBegin[place];
  }
  r->colBegin[r->numCol] = count;
  if (count != r->numCoef)
    PRE_TEXT(env, "Error reduceModel: nonzeros=%d should be %d", count, r->numCoef);

  if (!isQP(r)) return;
  for (int32_t j = 0; j < in->numCol; j++)
    if (pre->colMap[j] >= 0) r->quadDiag[pre->colMap[j]] = in->quadDiag ? in->quadDiag[j] : 0.0;
  count = 0;
  if (pre->quadColBegin) {
    for (int32_t j = 0; j < in->numCol; j++) {
      const int32_t place = pre->colMap[j];
      if (place < 0) continue;
      r->quadColBegin[place] = count;
      const int32_t begin = pre->quadColBegin[j], end = begin + pre->quadColLength[j];
      for (int32_t k = begin; k < end; k++) {
        const int32_t other = pre->colMap[pre->quadRowIndex[k]];
        if (other < 0) continue;
        r->quadRowIndex[count] = other;
        r->quadMatValue[count] = pre->quadMatValue[k];
        count++;
      }
      r->quadColLength[place] = count - r->quadColBegin[place];
    }
  } else {
    for (int32_t j = 0; j < r->numCol; j++) r->quadColBegin[j] = r->quadColLength[j] = 0;
  }
  r->quadColBegin[r->numCol] = count;
  if (count != r->numQuadCoef)
    PRE_TEXT(env, "Error reduceModel: quadratic nonzeros=%d should be %d", count, r->numQuadCoef);
}

void FreeReducedModel(HalvexEnv* env, ipmModel* r, ipmModel* m) {
  if (!r) return;
  if (m) {
    m->status = r->status;
    m->objValue = r->objValue;
    m->iteration = r->iteration;
    m->primalInfeas = r->primalInfeas;
    m->dualInfeas = r->dualInfeas;
    m->boundInfeas = r->boundInfeas;
    m->dualityGap = r->dualityGap;
    m->complementarity = r->complementarity;
  }
  QVPool* pool = env->pool;
  poolRelease(pool, r->colBegin);
  poolRelease(pool, r->colLength);
  poolRelease(pool, r->rowIndex);
  poolRelease(pool, r->matValue);
  poolRelease(pool, r->quadDiag);
  poolRelease(pool, r->quadColBegin);
  poolRelease(pool, r->quadColLength);
  poolRelease(pool, r->quadRowIndex);
  poolRelease(pool, r->quadMatValue);
  poolRelease(pool, r->obj);
  poolRelease(pool, r->rowSense);
  poolRelease(pool, r->rhs);
  poolRelease(pool, r->range);
  poolRelease(pool, r->lower);
  poolRelease(pool, r->upper);
  poolRelease(pool, r->relaxColBound);
  poolRelease(pool, r->solPrimal);
  poolRelease(pool, r->solDual);
  poolFree(pool, r);
}
