// Checks of the presolver's books and of its two working copies of a matrix.
#include "verify/verify_presolve.h"

#include <math.h>
#include <string.h>

#include "frame/qv.h"
#include "util/random.h"
#include "util/sparse.h"

namespace {

const int32_t kStructure = 1;

void running(HalvexEnv* env) {
  if (env && env->textLog) env->textLog("running debug code......");
}

inline bool live(const int32_t* skip, int32_t k) { return !skip || skip[k] >= 0; }

// Scratch of one check, all from the pool and all handed back.
struct Scratch {
  QVPool* pool;
  void* blocks[8] = {};
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

namespace {

inline bool isFixed(const presolver* pre, const ipmOption* option, int32_t j) {
  return pre->upperBound[j] - pre->lowerBound[j] <= option->primalTol * 0.01;
}

// Whether row i of the caller's matrix, held row-wise, holds column j.
bool rowHolds(const int32_t* begin, const int32_t* index, int32_t i, int32_t j) {
  for (int32_t p = begin[i]; p < begin[i + 1]; p++)
    if (index[p] == j) return true;
  return false;
}

// The caller's matrix turned row-wise, pattern only.
void patternByRow(const ipmModel* model, int32_t* begin, int32_t* index) {
  const int32_t m = model->numRow, n = model->numCol;
  for (int32_t i = 0; i <= m; i++) begin[i] = 0;
  for (int32_t j = 0; j < n; j++)
    for (int32_t k = model->colBegin[j]; k < model->colBegin[j] + model->colLength[j]; k++)
      begin[model->rowIndex[k] + 1]++;
  for (int32_t i = 0; i < m; i++) begin[i + 1] += begin[i];
  for (int32_t j = 0; j < n; j++)
    for (int32_t k = model->colBegin[j]; k < model->colBegin[j] + model->colLength[j]; k++)
      index[begin[model->rowIndex[k]]++] = j;
  for (int32_t i = m; i > 0; i--) begin[i] = begin[i - 1];
  begin[0] = 0;
}

}  // namespace

int32_t VerifyPresolveStructure(HalvexEnv* env, int32_t level, ipmModel* model, ipmOption* option,
                                presolver* pre) {
  if (level < kStructure) return 0;
  running(env);
  TextLogFn log = env->textLog;
  if (log) {
    log("%2z           numRow = %d", model->numRow);
    log("%2z           numCol = %d", model->numCol);
    log("%2z          numCoef = %d", model->numCoef);
    log("%2z    numRemovedRow = %d", pre->numRemovedRow);
    log("%2z    numRemovedCol = %d", pre->numRemovedCol);
    log("%2znumRemovedElement = %d", pre->numRemovedElement);
    log("%2z   numChangeRange = %d", pre->numChangeRange);
    log("%2z          numPass = %d", pre->numPass);
    switch (pre->preControl) {
      case PRECONTROL_NONE:
        log("%2zpresolver control = NONE");
        break;
      case PRECONTROL_BOUND:
        log("%2zpresolver control = CHANGE BOUND");
        break;
      case PRECONTROL_REDUCED:
        log("%2zpresolver control = REDUCED");
        break;
      default:
        log("%1zunknown presolver control");
    }
  }
  int32_t status = 0;
  auto fail = [&](const char* format, auto... values) {
    if (log) {
      char text[160] = "Error VerifyPresolveStructure: ";
      strncat(text, format, sizeof text - strlen(text) - 1);
      log(text, values...);
    }
    status = IPM_STATUS_FAILED;
  };
  const int32_t m = model->numRow, n = model->numCol;
  const double inf = option->infinity;
  Scratch s{env->pool};
  int32_t* begin = s.take<int32_t>((int64_t)m + 1);
  int32_t* index = s.take<int32_t>(model->numCoef);
  // Per row: how many columns take their lower and upper bound from it, and
  // the first two of each.
  int32_t* lowCount = s.take<int32_t>(m);
  int32_t* upCount = s.take<int32_t>(m);
  int32_t* lowCol = s.take<int32_t>(2 * (int64_t)m);
  int32_t* upCol = s.take<int32_t>(2 * (int64_t)m);
  if (!s.ok()) return IPM_STATUS_OUT_OF_MEMORY;
  patternByRow(model, begin, index);
  for (int32_t i = 0; i < m; i++) lowCount[i] = upCount[i] = 0;
  auto note = [&](int32_t* count, int32_t* col, int32_t i, int32_t j) {
    if (count[i] < 2) col[2 * i + count[i]] = j;
    count[i]++;
  };
  for (int32_t j = 0; j < n; j++) {
    if (pre->lbMap[j] >= 0 && pre->lbMap[j] < m) note(lowCount, lowCol, pre->lbMap[j], j);
    if (pre->ubMap[j] >= 0 && pre->ubMap[j] < m) note(upCount, upCol, pre->ubMap[j], j);
  }

  // Left to the implementer: a loop cut off by its pass limit leaves work
  // behind by design, so the tests of what should have been removed are
  // skipped with the test of processing.
  const bool complete = pre->numPass < pre->maxPass;
  if (complete) {
    for (int32_t i = 0; i < m; i++)
      if (!pre->rowDone[i]) fail("row %d is not processed", i);
    // The equation solver walks rows only, a column going with its row;
    // it clears colDone to no effect, so there the rows tell it all.
    if (pre->typeModel != PRESOLVE_MODEL_EQUATION)
      for (int32_t j = 0; j < n; j++)
        if (!pre->colDone[j]) fail("column %d is not processed", j);
  }

  int32_t removedCol = 0, removedRow = 0;
  int64_t byCol = 0, byRow = 0;
  for (int32_t j = 0; j < n; j++) {
    removedCol += pre->colMap[j] < 0;
    byCol += model->colLength[j] - (pre->colMap[j] >= 0 ? pre->colLength[j] : 0);
  }
  for (int32_t i = 0; i < m; i++) {
    removedRow += pre->rowMap[i] < 0;
    byRow += (begin[i + 1] - begin[i]) - (pre->rowMap[i] >= 0 ? pre->rowLength[i] : 0);
  }
  if (removedCol != pre->numRemovedCol)
    fail("removed column = %d should be %d", removedCol, pre->numRemovedCol);
  if (removedRow != pre->numRemovedRow)
    fail("removed row = %d should be %d", removedRow, pre->numRemovedRow);
  if (byCol != pre->numRemovedElement)
    fail("by column removed element = %d should be %d", (int32_t)byCol, pre->numRemovedElement);
  if (byRow != pre->numRemovedElement)
    fail("by row removed element = %d should be %d", (int32_t)byRow, pre->numRemovedElement);

  const bool qp = model->typeModel == IPM_MODEL_QP && model->numQuadCoef > 0 && pre->quadColLength;
  for (int32_t j = 0; j < n; j++) {
    // "None" is kept beyond infinity in the working copies.
    if (pre->lowerBound[j] < model->lower[j] && model->lower[j] > -inf)
      fail("column %d reduced lb=%15.7g < original lb=%15.7g", j, pre->lowerBound[j],
           model->lower[j]);
    if (pre->upperBound[j] > model->upper[j] && model->upper[j] < inf)
      fail("column %d reduced ub=%15.7g > original ub=%15.7g", j, pre->upperBound[j],
           model->upper[j]);
    const bool fixed = isFixed(pre, option, j);
    switch (pre->colMap[j]) {
      case COLMAP_EMPTY:
        if (pre->colLength[j] != 0) fail("column %d is not empty but marked as so.", j);
        break;
      case COLMAP_POSTDET: {
        if (pre->numPostdet <= 0)
          fail("column %d is COLMAP_POSTDET status, but no POSTDET defined", j);
        bool listed = false;
        for (int32_t k = 0; k < pre->numPostdet; k++) listed = listed || pre->spec[k] == j;
        if (!listed) fail("column %d is COLMAP_POSTDET status, but not in POSTDET list", j);
        if (pre->lbMap[j] != pre->ubMap[j])
          fail("column %d is COLMAP_POSTDET status, but bounds are not defined by the same row", j);
        else if (pre->lbMap[j] < 0 || pre->lbMap[j] >= m ||
                 pre->rowMap[pre->lbMap[j]] != ROWMAP_POSTDET)
          fail("column %d is COLMAP_POSTDET status, but rowMap(%d) with wrong status", j,
               pre->lbMap[j]);
        break;
      }
      case COLMAP_FIXED:
        if (!fixed) fail("column %d is not fixed but marked as so.", j);
        break;
      default:
        if (pre->colMap[j] < 0) {
          fail("unknown column %d status", j);
          break;
        }
        if (!complete) break;
        if (pre->colLength[j] == 0 &&
            !(qp && (pre->quadColLength[j] > 0 || pre->quadRowLength[j] > 0)))
          fail("column %d is empty but not removed.", j);
        else if (fixed && pre->typeModel != PRESOLVE_MODEL_EQUATION)
          fail("column %d is fixed but not removed.", j);
        else if (fixed && pre->colLength[j] == 1)
          fail("column %d with length 1 is fixed but not removed.", j);
    }
  }

  auto allFixed = [&](int32_t i, const char* format) {
    for (int32_t p = begin[i]; p < begin[i + 1]; p++)
      if (!isFixed(pre, option, index[p])) fail(format, index[p], i);
  };
  auto onlyInRow = [&](int32_t i, const char* format) {
    for (int32_t j = 0; j < n; j++)
      if ((pre->lbMap[j] == i || pre->ubMap[j] == i) && !rowHolds(begin, index, i, j))
        fail(format, j, i);
  };
  for (int32_t i = 0; i < m; i++) {
    const int32_t rowMap = pre->rowMap[i], length = pre->rowLength[i];
    const int32_t defs = lowCount[i] + upCount[i];
    switch (rowMap) {
      case ROWMAP_FREE:
        if (defs)
          fail("row %d is free, but defined bound on column %d", i,
               lowCount[i] ? lowCol[2 * i] : upCol[2 * i]);
        break;
      case ROWMAP_FIXED:
        allFixed(i, "column %d in ROWMAP_FIXED row %d is not fixed");
        if (!defs)
          fail("row %d is ROWMAP_FIXED, but doesn't fix any column", i);
        else
          onlyInRow(i, "column %d not in ROWMAP_FIXED row %d bound is changed");
        break;
      case ROWMAP_LOWER:
      case ROWMAP_UPPER: {
        const bool lower = rowMap == ROWMAP_LOWER;
        const char* name = lower ? "ROWMAP_LOWER" : "ROWMAP_UPPER";
        const int32_t* count = lower ? lowCount : upCount;
        const int32_t* col = lower ? lowCol : upCol;
        const int32_t otherCount = lower ? upCount[i] : lowCount[i];
        if (otherCount)
          fail(lower ? "row %d is ROWMAP_LOWER, but defined upper bound of %d"
                     : "row %d is ROWMAP_UPPER, but defined lower bound of %d",
               i, lower ? upCol[2 * i] : lowCol[2 * i]);
        if (length != 1) fail("row %d is %s, but not a singleton row", i, name);
        if (count[i] > 1)
          fail(lower ? "row %d is ROWMAP_LOWER, but defined multiple lower bounds %d and %d"
                     : "row %d is ROWMAP_UPPER, but defined multiple upper bounds %d and %d",
               i, col[2 * i], col[2 * i + 1]);
        if (count[i] == 0)
          fail(lower ? "row %d is ROWMAP_LOWER, but doesn't define any lower bound"
                     : "row %d is ROWMAP_UPPER, but doesn't define any upper bound",
               i);
        break;
      }
      case ROWMAP_RANGE:
        for (int32_t k = 0; k < 2 && k < lowCount[i]; k++)
          if (pre->ubMap[lowCol[2 * i + k]] != i)
            fail("row %d should define range on column %d", i, lowCol[2 * i + k]);
        for (int32_t k = 0; k < 2 && k < upCount[i]; k++)
          if (pre->lbMap[upCol[2 * i + k]] != i)
            fail("row %d should define range on column %d", i, upCol[2 * i + k]);
        if (length != 1) fail("row %d is ROWMAP_RANGE, but not a singleton row", i);
        if (!model->rowSense || model->rowSense[i] != 'R')
          fail("row %d is ROWMAP_RANGE, but not with R sense", i);
        if (lowCount[i] > 1)
          fail("row %d is ROWMAP_RANGE, but defined multiple range bounds %d and %d", i,
               lowCol[2 * i], lowCol[2 * i + 1]);
        if (defs == 0) fail("row %d is ROWMAP_RANGE, but doesn't define any range bound", i);
        break;
      case ROWMAP_EMPTY:
        if (length != 0) {
          bool allColumnsFixed = true;
          for (int32_t p = begin[i]; p < begin[i + 1]; p++)
            allColumnsFixed = allColumnsFixed && isFixed(pre, option, index[p]);
          if (!allColumnsFixed) {
            fail("row %d is ROWMAP_EMPTY, but not an empty row", i);
            allFixed(i, "column %d in ROWMAP_EMPTY row %d is not fixed");
          }
        }
        onlyInRow(i, "column %d not in ROWMAP_EMPTY row %d is changed bounds");
        break;
      case ROWMAP_POSTDET:
        if (defs > 2 || (lowCount[i] == 2) ||
            (lowCount[i] == 1 && upCount[i] == 1 && lowCol[2 * i] != upCol[2 * i]))
          fail("row %d is ROWMAP_POSTDET, but defined multiple POSTDET columns %d and %d", i,
               lowCol[2 * i], lowCount[i] > 1 ? lowCol[2 * i + 1] : upCol[2 * i]);
        if (defs == 0) fail("row %d is ROWMAP_POSTDET, but doesn't define any POSTDET column", i);
        break;
      default: {
        if (rowMap < 0) {
          fail("unknown row %d status", i);
          break;
        }
        if (!complete) break;
        const char sense = model->rowSense ? model->rowSense[i] : 'E';
        if (length == 0)
          fail("row %d is empty but not removed.", i);
        else if (length == 1)
          fail("row %d is singleton but not removed.", i);
        else if (sense != 'E' && sense != 'L' && sense != 'G' && sense != 'R')
          fail("row %d is not accepted but not removed.", i);
      }
    }
  }

  // What each bound map names must be a row that can give that bound.
  for (int side = 0; side < 2; side++) {
    const int32_t* map = side == 0 ? pre->lbMap : pre->ubMap;
    const char* name = side == 0 ? "lbMap" : "ubMap";
    for (int32_t j = 0; j < n; j++) {
      const int32_t r = map[j];
      if (r < 0) {
        const double now = side == 0 ? pre->lowerBound[j] : pre->upperBound[j];
        const double was = side == 0 ? model->lower[j] : model->upper[j];
        const bool none = side == 0 ? now <= -inf && was <= -inf : now >= inf && was >= inf;
        if (now != was && !none && pre->colMap[j] >= 0) {
          fail(side == 0 ? "lbMap(%d)=%d, but lower bound has changed"
                         : "ubMap(%d)=%d, but upper bound has changed",
               j, r);
          if (log)
            log(side == 0 ? "      lowerBound=%15.7g  lower=%15.7g"
                          : "      upperBound=%15.7g  upper=%15.7g",
                now, was);
        }
        continue;
      }
      if (r >= m) {
        fail("row %s(%d)=%d doesn't contain that column", name, j, r);
        continue;
      }
      switch (pre->rowMap[r]) {
        case ROWMAP_FIXED:
        case ROWMAP_EMPTY:
          if (!isFixed(pre, option, j))
            fail("%s(%d)=%d is a ROWMAP_FIXED row, but column %d is not fixed", name, j, r, j);
          break;
        case ROWMAP_POSTDET:
          if (pre->colMap[j] >= 0)
            fail("%s(%d)=%d is a ROWMAP_POSTDET row, but column %d is a normal variable", name, j,
                 r, j);
          break;
        case ROWMAP_FREE:
          fail(side == 0 ? "lbMap(%d)=%d, but that row is removed"
                         : "ubMap(%d)=%d, but that row is removed",
               j, r);
          break;
        default:
          break;
      }
      if (!rowHolds(begin, index, r, j))
        fail("row %s(%d)=%d doesn't contain that column", name, j, r);
    }
  }

  if (pre->numPostdet > pre->numRemovedCol)
    fail("numPostdet=%d > numRemovedCol=%d", pre->numPostdet, pre->numRemovedCol);
  for (int32_t k = 0; k < pre->numPostdet; k++) {
    const int32_t j = pre->spec[k];
    if (j < 0 || j >= n) {
      fail("spec(%d)=%d is out of column range", k, j);
      continue;
    }
    if (pre->colMap[j] >= 0) fail("spec(%d)=%d is not removed", k, j);
    if (pre->lowerBound[j] != 0.0 || pre->upperBound[j] != 0.0)
      fail("spec(%d)=%d should be fixed at zero", k, j);
    if (pre->lbMap[j] != pre->ubMap[j]) {
      fail("spec(%d)=%d map to different row", k, j);
      if (log) log("            lbMap=%d  ubMap=%d", pre->lbMap[j], pre->ubMap[j]);
    } else if (pre->lbMap[j] >= 0 && pre->lbMap[j] < m && pre->rowMap[pre->lbMap[j]] >= 0) {
      fail("mapping row of spec(%d)=%d is not removed", k, j);
    }
  }

  for (int32_t j = 0; j < n; j++) {
    if (pre->colMap[j] < 0) continue;
    for (int32_t k = pre->colBegin[j]; k < pre->colBegin[j] + pre->colLength[j]; k++)
      if (pre->rowMap[pre->rowIndex[k]] < 0)
        fail("column %d should not appear in row %d", j, pre->rowIndex[k]);
  }
  return status;
}

namespace {

inline char upperSense(char c) { return c >= 'a' && c <= 'z' ? (char)(c - 'a' + 'A') : c; }

// The caller's point that a point of the reduced model stands for: removed
// columns at the value they were removed at, set-aside ones by their rows,
// latest first.  False when a set-aside row has lost its column.
bool expandPoint(HalvexEnv* env, const presolver* pre, double inf, int32_t n, const double* xr,
                 double* x) {
  for (int32_t j = 0; j < n; j++) {
    const int32_t c = pre->colMap[j];
    const double lb = pre->lowerBound[j], ub = pre->upperBound[j];
    x[j] = c >= 0 ? xr[c] : c == COLMAP_POSTDET ? 0.0 : lb > -inf ? lb : ub < inf ? ub : 0.0;
  }
  bool ok = true;
  for (int32_t s = pre->numPostdet - 1; s >= 0; s--) {
    const int32_t j = pre->spec[s], r = pre->lbMap[j];
    double t = pre->rhs[r], pivot = 0.0;
    for (int32_t p = pre->rowBegin[r]; p < pre->rowBegin[r] + pre->rowLength[r]; p++) {
      if (pre->colIndex[p] == j)
        pivot = pre->rowMatValue[p];
      else
        t -= pre->rowMatValue[p] * x[pre->colIndex[p]];
    }
    if (pivot == 0.0) {
      if (env->textLog)
        env->textLog("Error VerifyPresolveValue: spec-det column %d doesn't find in row %d", j, r);
      ok = false;
      continue;
    }
    x[j] = t / pivot;
  }
  return ok;
}

double objectiveAt(const ipmModel* model, const double* x) {
  double f = 0.0;
  for (int32_t j = 0; j < model->numCol; j++) f += (model->obj ? model->obj[j] : 0.0) * x[j];
  if (model->typeModel == IPM_MODEL_QP && model->quadDiag) {
    const bool off = model->numQuadCoef > 0;
    f += calcQuadForm(model->numCol, off ? model->quadColBegin : nullptr,
                      off ? model->quadColLength : nullptr, model->quadRowIndex,
                      model->quadMatValue, model->quadDiag, x);
  }
  return f;
}

// Ax into ax and the sum of the magnitudes of its terms into size.
void activity(const ipmModel* model, const double* x, double* ax, double* size) {
  for (int32_t i = 0; i < model->numRow; i++) ax[i] = size[i] = 0.0;
  for (int32_t j = 0; j < model->numCol; j++)
    for (int32_t k = model->colBegin[j]; k < model->colBegin[j] + model->colLength[j]; k++) {
      ax[model->rowIndex[k]] += model->matValue[k] * x[j];
      size[model->rowIndex[k]] += fabs(model->matValue[k] * x[j]);
    }
}

}  // namespace

int32_t VerifyPresolveValue(HalvexEnv* env, int32_t level, ipmModel* reduced, ipmModel* model,
                            presolver* pre) {
  if (level < 3 || !model || !reduced) return 0;
  running(env);
  TextLogFn log = env->textLog;
  int32_t status = 0;
  auto fail = [&](const char* format, auto... values) {
    if (log) log(format, values...);
    status = IPM_STATUS_FAILED;
  };
  const int32_t m = model->numRow, n = model->numCol, mr = reduced->numRow, nr = reduced->numCol;
  // Left to the implementer: the largest magnitude that still counts as a
  // bound; the equation solver's free columns sit at 1e20 or beyond.
  const double inf = 1e20;
  Scratch s{env->pool};
  double* xr = s.take<double>(nr);
  double* x = s.take<double>(n);
  double* ax = s.take<double>(m);
  double* size = s.take<double>(m);
  double* axr = s.take<double>(mr);
  double* sizer = s.take<double>(mr);
  if (!s.ok()) return IPM_STATUS_OUT_OF_MEMORY;

  // The reduced model drops the cost of what it removed, a constant: the
  // point that stands for the reduced origin measures it.
  for (int32_t c = 0; c < nr; c++) xr[c] = 0.0;
  if (!expandPoint(env, pre, inf, n, xr, x)) status = IPM_STATUS_FAILED;
  const double removedCost = objectiveAt(model, x);

  int64_t seed = 20011;
  for (int32_t c = 0; c < nr; c++) {
    const double u = zranuni(&seed), lb = reduced->lower[c], ub = reduced->upper[c];
    xr[c] = lb > -inf && ub < inf ? lb + u * (ub - lb)
            : lb > -inf           ? lb + u
            : ub < inf            ? ub - u
                                  : 2.0 * u - 1.0;
  }
  if (!expandPoint(env, pre, inf, n, xr, x)) status = IPM_STATUS_FAILED;
  activity(model, x, ax, size);
  activity(reduced, xr, axr, sizer);

  for (int32_t i = 0; i < m; i++) {
    const int32_t r = pre->rowMap[i];
    if (r < 0 || r >= mr) continue;
    const char inSense = model->rowSense ? upperSense(model->rowSense[i]) : 'E';
    const char sense = reduced->rowSense ? upperSense(reduced->rowSense[r]) : 'E';
    const double range = model->range ? model->range[i] : 0.0;
    double inRes = ax[i] - model->rhs[i];
    const double res = axr[r] - reduced->rhs[r];
    const bool turned = inSense == 'R' && sense != 'R';
    if (turned) {
      if (sense == 'G') {
        inRes += range;
      } else if (sense != 'L') {
        fail("Error VerifyPresolveValue: range row is reduced to wrong row type %c", sense);
        continue;
      }
    }
    const double scale =
        fmax(1.0, fmax(size[i] + fabs(model->rhs[i]), sizer[r] + fabs(reduced->rhs[r])));
    if (!(fabs(inRes - res) <= 1e-6 * scale))
      fail(
          turned
              ? "Error VerifyPresolveValue: range inRow(%d)=%15.7g  row(%d)=%15.7g  diff=%15.7g"
              : "Error VerifyPresolveValue: residual inRow(%d)=%15.7g  row(%d)=%15.7g  diff=%15.7g",
          i, inRes, r, res, inRes - res);
  }

  const double inObj = objectiveAt(model, x), obj = objectiveAt(reduced, xr) + removedCost;
  if (!(fabs(inObj - obj) <= 1e-6 * fmax(1.0, fmax(fabs(inObj), fabs(obj)))))
    fail("Error VerifyPresolveValue: inObjValue=%15.7g  objValue=%15.7g  diff=%15.7g", inObj, obj,
         inObj - obj);

  for (int32_t j = 0; j < n; j++) {
    const double tol = 1e-6 * fmax(1.0, fabs(x[j]));
    if (x[j] < model->lower[j] - tol || x[j] > model->upper[j] + tol)
      fail("Error VerifyPresolveValue: column %d sol=%15.7g  lower=%15.7g  upper=%15.7g", j, x[j],
           model->lower[j], model->upper[j]);
  }

  // What the removed rows asked for, the point must give by its bounds and
  // its removed columns alone; a free row asked for nothing, and an empty
  // equation of the equation solver is a singular row that it drops as it
  // is, whatever its right side.
  const bool equations = pre->typeModel == PRESOLVE_MODEL_EQUATION;
  for (int32_t i = 0; i < m; i++) {
    if (pre->rowMap[i] >= 0 || pre->rowMap[i] == ROWMAP_FREE) continue;
    if (equations && pre->rowMap[i] == ROWMAP_EMPTY) continue;
    const char sense = model->rowSense ? upperSense(model->rowSense[i]) : 'E';
    const double res = ax[i] - model->rhs[i], range = model->range ? model->range[i] : 0.0;
    const double tol = 1e-6 * fmax(1.0, size[i] + fabs(model->rhs[i]));
    switch (sense) {
      case 'R':
        if (res > tol || res < -range - tol)
          fail("Error VerifyPresolveValue: R row %d residual = %15.7g  range=%15.7g", i, res,
               range);
        break;
      case 'L':
        if (res > tol) fail("Error VerifyPresolveValue: L row %d residual = %15.7g", i, res);
        break;
      case 'G':
        if (res < -tol) fail("Error VerifyPresolveValue: G row %d residual = %15.7g", i, res);
        break;
      case 'E':
        if (fabs(res) > tol) fail("Error VerifyPresolveValue: E row %d residual = %15.7g", i, res);
        break;
      case 'N':
        break;
      default:
        fail("Error VerifyPresolveValue: unknown row sense %d = %c", i, sense);
    }
  }
  return status;
}
