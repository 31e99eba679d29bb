// Checks of the presolver's books and of its two working copies of a matrix.
#include "verify/verify_presolve.h"

#include <math.h>

#include "frame/qv.h"

namespace {

const int32_t kStructure = 1;

void running(HalvexEnv* env) {
  if (env && env->textLog) env->textLog("running debug code......");
}

inline bool live(const int32_t* skip, int32_t k) { return !skip || skip[k] >= 0; }

// Scratch of one check, all from the pool and all handed back.
struct Scratch {
  QVPool* pool;
  void* blocks[4] = {nullptr, nullptr, nullptr, nullptr};
  int n = 0;
  template <class T>
  T* take(int64_t count) {
    T* p = poolNew<T>(pool, count > 0 ? count : 1, false);
    blocks[n++] = p;
    return p;
  }
  bool ok() const {
    for (int k = 0; k < n; k++)
      if (!blocks[k]) return false;
    return true;
  }
  ~Scratch() {
    for (int k = 0; k < n; k++)
      if (blocks[k]) poolFree(pool, blocks[k]);
  }
};

}  // namespace

// The row-wise copy is turned into columns, live rows and columns only, and
// each column is held against the column-wise copy through a marker.
int32_t ipmVerifyRowMatrix(HalvexEnv* env, int32_t level, int32_t numRow, int32_t numCol,
                           int32_t numCoef, const int32_t* colSkip, const int32_t* rowSkip,
                           const int32_t* colBegin, const int32_t* colLength,
                           const int32_t* rowIndex, const double* matValue,
                           const int32_t* rowBegin, const int32_t* rowLength,
                           const int32_t* colIndex, const double* rowMatValue) {
  if (level < kStructure) return 0;
  running(env);
  TextLogFn log = env->textLog;
  int32_t status = 0;
  auto fail = [&](const char* format, auto... values) {
    if (log) log(format, values...);
    status = IPM_STATUS_FAILED;
  };
  int64_t count1 = 0, count2 = 0;
  for (int32_t j = 0; j < numCol; j++)
    if (live(colSkip, j))
      for (int32_t p = colBegin[j]; p < colBegin[j] + colLength[j]; p++)
        count1 += live(rowSkip, rowIndex[p]);
  for (int32_t i = 0; i < numRow; i++)
    if (live(rowSkip, i))
      for (int32_t p = rowBegin[i]; p < rowBegin[i] + rowLength[i]; p++)
        count2 += live(colSkip, colIndex[p]);
  if (count1 != numCoef) fail("Error VerifyRowMatrix: numCoef1=%d should be %d", (int32_t)count1, numCoef);
  if (count2 != numCoef) fail("Error VerifyRowMatrix: numCoef2=%d should be %d", (int32_t)count2, numCoef);

  Scratch s{env->pool};
  int32_t* begin2 = s.take<int32_t>((int64_t)numCol + 1);
  int32_t* index2 = s.take<int32_t>(count2);
  double* value2 = s.take<double>(count2);
  int32_t* mark = s.take<int32_t>(numRow);
  if (!s.ok()) return IPM_STATUS_OUT_OF_MEMORY;
  // The transposition walks the rows in order, so each column of index2
  // comes sorted by row and a repeated entry sits next to its twin: dense
  // rows cost no quadratic scan.
  for (int32_t j = 0; j <= numCol; j++) begin2[j] = 0;
  for (int32_t i = 0; i < numRow; i++)
    if (live(rowSkip, i))
      for (int32_t p = rowBegin[i]; p < rowBegin[i] + rowLength[i]; p++)
        if (live(colSkip, colIndex[p])) begin2[colIndex[p] + 1]++;
  for (int32_t j = 0; j < numCol; j++) begin2[j + 1] += begin2[j];
  for (int32_t i = 0; i < numRow; i++) {
    mark[i] = -1;
    if (!live(rowSkip, i)) continue;
    for (int32_t p = rowBegin[i]; p < rowBegin[i] + rowLength[i]; p++) {
      const int32_t j = colIndex[p];
      if (!live(colSkip, j)) continue;
      index2[begin2[j]] = i;
      value2[begin2[j]++] = rowMatValue[p];
    }
  }
  for (int32_t j = numCol; j > 0; j--) begin2[j] = begin2[j - 1];
  begin2[0] = 0;

  for (int32_t j = 0; j < numCol; j++) {
    if (!live(colSkip, j)) continue;
    int32_t length = 0;
    for (int32_t p = colBegin[j]; p < colBegin[j] + colLength[j]; p++) {
      const int32_t i = rowIndex[p];
      if (!live(rowSkip, i)) continue;
      length++;
      if (mark[i] >= 0)
        fail("Error VerifyRowMatrix: duplicate rowIndex(%d)=rowIndex(%d)=%d in column(%d)", mark[i],
             p, i, j);
      else
        mark[i] = p;
    }
    const int32_t length2 = begin2[j + 1] - begin2[j];
    if (length != length2)
      fail("Error VerifyRowMatrix: colLength(%d)=%d should be %d", j, length, length2);
    for (int32_t q = begin2[j]; q < begin2[j + 1]; q++) {
      const int32_t i = index2[q];
      if (q > begin2[j] && index2[q - 1] == i)
        fail("Error VerifyRowMatrix: duplicate rowIndex2(%d)=rowIndex2(%d)=%d in column(%d)", q - 1,
             q, i, j);
      if (mark[i] < 0) {
        fail("Error VerifyRowMatrix: miss row(%d) in column(%d)", i, j);
        continue;
      }
      if (matValue[mark[i]] != value2[q])
        fail("Error VerifyRowMatrix: matValue(%d)=%15.7g <> matValue2(%d)=%15.7g", mark[i],
             matValue[mark[i]], q, value2[q]);
    }
    for (int32_t p = colBegin[j]; p < colBegin[j] + colLength[j]; p++) mark[rowIndex[p]] = -1;
  }
  return status;
}

// A symmetric matrix held both ways: row k of the row-wise copy is column k
// of the column-wise one, and an index is removed as a row and as a column
// together.
int32_t VerifySymMatrixFormat(HalvexEnv* env, int32_t level, int32_t numDim, int32_t numCoef,
                              const int32_t* colSkip, const int32_t* rowSkip,
                              const int32_t* colBegin, const int32_t* colLength,
                              const int32_t* rowIndex, const double* matValue,
                              const int32_t* rowBegin, const int32_t* rowLength,
                              const int32_t* colIndex, const double* rowMatValue) {
  if (level < kStructure) return 0;
  running(env);
  TextLogFn log = env->textLog;
  int32_t status = 0;
  auto fail = [&](const char* format, auto... values) {
    if (log) log(format, values...);
    status = IPM_STATUS_FAILED;
  };
  if (colSkip && rowSkip)
    for (int32_t k = 0; k < numDim; k++)
      if ((colSkip[k] < 0) != (rowSkip[k] < 0))
        fail("Error VerifySymMatrixFormat: colMap(%d)=%d and rowMap(%d)=%d don't match", k,
             colSkip[k], k, rowSkip[k]);
  Scratch s{env->pool};
  int32_t* mark = s.take<int32_t>(numDim);
  if (!s.ok()) return IPM_STATUS_OUT_OF_MEMORY;
  for (int32_t k = 0; k < numDim; k++) mark[k] = -1;
  int64_t byRow = 0, byCol = 0;
  for (int32_t k = 0; k < numDim; k++) {
    if (!live(colSkip, k) || !live(rowSkip, k)) continue;
    int32_t colLive = 0, rowLive = 0;
    for (int32_t p = colBegin[k]; p < colBegin[k] + colLength[k]; p++)
      if (live(rowSkip, rowIndex[p])) {
        mark[rowIndex[p]] = p;
        colLive++;
      }
    for (int32_t q = rowBegin[k]; q < rowBegin[k] + rowLength[k]; q++) {
      const int32_t c = colIndex[q];
      if (!live(colSkip, c)) continue;
      rowLive++;
      if (mark[c] < 0) {
        fail("Error VerifySymMatrixFormat: missing col %d in row %d", c, k);
        continue;
      }
      if (matValue[mark[c]] != rowMatValue[q])
        fail("Error VerifySymMatrixFormat: matValue(%d)=%15.7g <> rowMatValue(%d)=%15.7g", mark[c],
             matValue[mark[c]], q, rowMatValue[q]);
    }
    if (colLive != rowLive)
      fail("Error VerifySymMatrixFormat: length(%d) row-major=%d column-major=%d", k, rowLive,
           colLive);
    for (int32_t p = colBegin[k]; p < colBegin[k] + colLength[k]; p++) mark[rowIndex[p]] = -1;
    byRow += rowLive;
    byCol += colLive;
  }
  if (byRow != byCol || byCol != numCoef)
    fail("Error VerifySymMatrixFormat: nonzero count row-major=%d column-major=%d", (int32_t)byRow,
         (int32_t)byCol);
  return status;
}

int32_t VerifyPresolveDisabled(HalvexEnv* env, int32_t level, presolver* pre, int32_t,
                               int32_t) {
  if (level < kStructure) return 0;
  running(env);
  TextLogFn log = env->textLog;
  int32_t status = 0;
  if (pre->preControl != PRECONTROL_NONE) {
    if (log) log("Error VerifyPresolveDisabled: presolver->preControl=%d", pre->preControl);
    status = IPM_STATUS_FAILED;
  }
  if (pre->preRoute != PREROUTE_NORMAL && pre->preRoute != PREROUTE_FREE_COLS) {
    if (log) log("Error VerifyPresolveDisabled: presolver->preRoute=%d", pre->preRoute);
    status = IPM_STATUS_FAILED;
  }
  if (pre->numRemovedRow || pre->numRemovedCol || pre->numRemovedElement || pre->numChangeRange ||
      pre->numRemovedQuadElement) {
    if (log) {
      log("Error VerifyPresolveDisabled: ");
      log("%2z        numRemovedRow = %d", pre->numRemovedRow);
      log("%2z        numRemovedCol = %d", pre->numRemovedCol);
      log("%2z    numRemovedElement = %d", pre->numRemovedElement);
      log("%2z       numChangeRange = %d", pre->numChangeRange);
      log("%2znumRemovedQuadElement = %d", pre->numRemovedQuadElement);
    }
    status = IPM_STATUS_FAILED;
  }
  if (pre->numPass) {
    if (log) log("Error VerifyPresolveDisabled: presolver->numPass=%d", pre->numPass);
    status = IPM_STATUS_FAILED;
  }
  if (pre->inModel) {
    if (log) log("Error VerifyPresolveDisabled: presolver->inModel should be NULL");
    status = IPM_STATUS_FAILED;
  }
  const void* arrays[] = {pre->colBegin,     pre->colLength,     pre->rowIndex,
                          pre->matValue,     pre->rowBegin,      pre->rowLength,
                          pre->colIndex,     pre->rowMatValue,   pre->quadColBegin,
                          pre->quadColLength, pre->quadRowIndex, pre->quadMatValue,
                          pre->quadRowBegin, pre->quadRowLength, pre->quadColIndex,
                          pre->quadRowMatValue, pre->rowSense,   pre->rhs,
                          pre->obj,          pre->lowerBound,    pre->upperBound,
                          pre->rowMap,       pre->colMap,        pre->lbMap,
                          pre->ubMap,        pre->spec,          pre->rowDone,
                          pre->colDone};
  bool any = false;
  for (const void* a : arrays) any = any || a;
  if (any) {
    if (log) log("Error VerifyPresolveDisabled: presolver structure should not be defined");
    status = IPM_STATUS_FAILED;
  }
  return status;
}

// The presolver's books and the value test of a reduced model are not
// checked yet: these two pass at every level.
int32_t VerifyPresolveStructure(HalvexEnv*, int32_t, ipmModel*, ipmOption*, presolver*) {
  return 0;
}
int32_t VerifyPresolveValue(HalvexEnv*, int32_t, ipmModel*, ipmModel*, presolver*) { return 0; }
