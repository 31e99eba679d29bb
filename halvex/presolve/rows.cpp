// Row reductions: free, empty and singleton rows, and the books of which row
// defines which bound.
#include "presolve/internal.h"
#include "util/sparse.h"

namespace {

// Every row of column j is to be looked at again.
void reopenRowsOf(presolver* pre, int32_t j) {
  const int32_t begin = pre->colBegin[j], end = begin + pre->colLength[j];
  for (int32_t k = begin; k < end; k++) pre->rowDone[pre->rowIndex[k]] = 0;
}

}  // namespace

int32_t removeFreeRow(HalvexEnv* env, ipmModel* model, presolver* pre) {
  int32_t removedRows = 0, removedElements = 0;
  for (int32_t i = 0; i < model->numRow; i++) {
    char& sense = pre->rowSense[i];
    switch (sense) {
      case 'E':
      case 'G':
      case 'L':
      case 'R':
        continue;
      case 'e':
      case 'g':
      case 'l':
      case 'r':
        sense = (char)(sense - 'a' + 'A');
        continue;
      case 'n':
      case 'N':
        sense = 'N';
        break;
      default:
        PRE_TEXT(env, "unknown row type %c.", sense);
        return IPM_STATUS_FAILED;
    }
    if (pre->rowMap[i] < 0) continue;
    pre->rowMap[i] = ROWMAP_FREE;
    const int32_t begin = pre->rowBegin[i], end = begin + pre->rowLength[i];
    for (int32_t k = begin; k < end; k++)
      removeElement(env, i, pre->colIndex[k], pre->colBegin, pre->colLength, pre->rowIndex,
                    pre->matValue);
    removedRows++;
    removedElements += pre->rowLength[i];
    pre->rowLength[i] = 0;
  }
  pre->numRemovedRow += removedRows;
  pre->numRemovedElement += removedElements;
  return 0;
}

int32_t removeEmptyRow(HalvexEnv* env, ipmModel* model, ipmOption* option, presolver* pre,
                       int32_t row) {
  (void)env;
  pre->numRemovedRow++;
  pre->rowMap[row] = ROWMAP_EMPTY;
  if (pre->typeModel == PRESOLVE_MODEL_EQUATION) return 0;
  const double tol = option->primalTol;
  const double b = pre->rhs[row];
  switch (pre->rowSense[row]) {
    case 'E':
      return fabs(b) > tol ? IPM_STATUS_PRIMAL_INFEASIBLE : 0;
    case 'L':
      return b < -tol ? IPM_STATUS_PRIMAL_INFEASIBLE : 0;
    case 'G':
      return b > tol ? IPM_STATUS_PRIMAL_INFEASIBLE : 0;
    case 'R':
      return (b < -tol || b - presolve::rangeOf(model, row) > tol) ? IPM_STATUS_PRIMAL_INFEASIBLE : 0;
    default:
      return 0;
  }
}

int32_t removeSingletonRow(HalvexEnv* env, ipmModel* model, ipmOption* option, presolver* pre,
                           int32_t row) {
  const double tol = option->primalTol;
  const int32_t pos = pre->rowBegin[row];
  const int32_t j = pre->colIndex[pos];
  const double a = pre->rowMatValue[pos];
  const double x = pre->rhs[row] / a;
  double& lb = pre->lowerBound[j];
  double& ub = pre->upperBound[j];

  pre->numRemovedRow++;
  pre->numRemovedElement++;
  removeElement(env, row, j, pre->colBegin, pre->colLength, pre->rowIndex, pre->matValue);
  pre->changed = 1;
  pre->colDone[j] = 0;

  const char sense = pre->rowSense[row];
  if (sense == 'E') {
    if (tol + x < lb || x - tol > ub) return IPM_STATUS_PRIMAL_INFEASIBLE;
    if (ub < tol * 0.01 + lb) {
      pre->rowMap[row] = ROWMAP_FREE;
    } else {
      pre->rowMap[row] = ROWMAP_FIXED;
      lb = x;
      ub = x;
      updateMapLower(env, pre->rowMap, pre->lbMap, j, row);
      updateMapUpper(env, pre->rowMap, pre->ubMap, j, row);
    }
    return 0;
  }
  // The sign tests of L and G do not mirror each other at a = 0: both take
  // the upper-bound road then.  A zero entry is not expected here anyway.
  const bool upperRoad = (sense == 'L' && a >= 0.0) || (sense == 'G' && a <= 0.0);
  const bool lowerRoad = (sense == 'L' && a < 0.0) || (sense == 'G' && a > 0.0);
  if (upperRoad) {
    if (tol + x < lb) return IPM_STATUS_PRIMAL_INFEASIBLE;
    if (ub <= x && pre->ubMap[j] != row) {
      pre->rowMap[row] = ROWMAP_FREE;
    } else {
      pre->rowMap[row] = ROWMAP_UPPER;
      ub = x;
      updateMapUpper(env, pre->rowMap, pre->ubMap, j, row);
      reopenRowsOf(pre, j);
    }
    return 0;
  }
  if (lowerRoad) {
    if (x - tol > ub) return IPM_STATUS_PRIMAL_INFEASIBLE;
    if (lb < x || pre->lbMap[j] == row) {
      pre->rowMap[row] = ROWMAP_LOWER;
      lb = x;
      updateMapLower(env, pre->rowMap, pre->lbMap, j, row);
      reopenRowsOf(pre, j);
    } else {
      pre->rowMap[row] = ROWMAP_FREE;
    }
    return 0;
  }
  if (sense == 'R') {
    const double y = (pre->rhs[row] - presolve::rangeOf(model, row)) / a;
    const double l = a < 0.0 ? x : y;
    const double u = a < 0.0 ? y : x;
    const bool raiseLower = lb < l, dropUpper = u < ub;
    if (raiseLower && dropUpper) {
      pre->rowMap[row] = ROWMAP_RANGE;
      lb = l;
      ub = u;
      updateMapLower(env, pre->rowMap, pre->lbMap, j, row);
      updateMapUpper(env, pre->rowMap, pre->ubMap, j, row);
    } else if (raiseLower) {
      pre->rowMap[row] = pre->ubMap[j] == row ? ROWMAP_RANGE : ROWMAP_LOWER;
      lb = l;
      updateMapLower(env, pre->rowMap, pre->lbMap, j, row);
    } else if (dropUpper) {
      pre->rowMap[row] = pre->lbMap[j] == row ? ROWMAP_RANGE : ROWMAP_UPPER;
      ub = u;
      updateMapUpper(env, pre->rowMap, pre->ubMap, j, row);
    } else {
      const bool namesLower = pre->lbMap[j] == row, namesUpper = pre->ubMap[j] == row;
      pre->rowMap[row] = namesLower && namesUpper ? ROWMAP_RANGE
                         : namesLower             ? ROWMAP_LOWER
                         : namesUpper             ? ROWMAP_UPPER
                                                  : ROWMAP_FREE;
    }
    if (raiseLower || dropUpper) reopenRowsOf(pre, j);
    if (tol + ub < lb) return IPM_STATUS_PRIMAL_INFEASIBLE;
    // Within a hundredth of tol the column is fixed, and exactly so from now.
    if (ub < tol * 0.01 + lb) ub = lb;
    return 0;
  }
  // A sense that the free-row pass let through defines nothing.
  pre->rowMap[row] = ROWMAP_FREE;
  return 0;
}

namespace {

void updateMap(HalvexEnv* env, int32_t* rowMap, int32_t* map, int32_t col, int32_t row,
               bool upper) {
  const int32_t old = map[col];
  map[col] = row;
  if (old < 0 || rowMap[old] >= 0 || old == row) return;
  switch (rowMap[old]) {
    case ROWMAP_RANGE:
      // The old range row keeps only the side that was not taken over.
      rowMap[old] = upper ? ROWMAP_LOWER : ROWMAP_UPPER;
      break;
    case ROWMAP_UPPER:
      if (upper) rowMap[old] = ROWMAP_FREE;
      break;
    case ROWMAP_LOWER:
      if (!upper) rowMap[old] = ROWMAP_FREE;
      break;
    case ROWMAP_POSTDET:
      if (upper)
        PRE_TEXT(env, "Error updateMapUpper: col=%d  row=%d  ROWMAP_POSTDET shall never change bound again.", col, row);
      else
        PRE_TEXT(env, "Error updateMapLower: col=%d  row=%d  ROWMAP_POSTDET shall never change bound again.", col, row);
      break;
    case ROWMAP_EMPTY:
      if (upper)
        PRE_TEXT(env, "Error updateMapUpper: col=%d  row=%d  ROWMAP_EMPTY shall never change bound again.", col, row);
      else
        PRE_TEXT(env, "Error updateMapLower: col=%d  row=%d  ROWMAP_EMPTY shall never change bound again.", col, row);
      break;
    case ROWMAP_FIXED:
      if (upper)
        PRE_TEXT(env, "Error updateMapUpper: col=%d  row=%d  ROWMAP_FIXED shall never change bound again.", col, row);
      else
        PRE_TEXT(env, "Error updateMapLower: col=%d  row=%d  ROWMAP_FIXED shall never change bound again.", col, row);
      break;
    case ROWMAP_FREE:
      if (upper)
        PRE_TEXT(env, "Error updateMapUpper: col=%d  row=%d  ROWMAP_FREE case should not happen.", col, row);
      else
        PRE_TEXT(env, "Error updateMapLower: col=%d  row=%d  ROWMAP_FREE case should not happen.", col, row);
      break;
    default:
      PRE_TEXT(env, "col=%d  row=%d  rowMap=%d  unknown rowMap type.", col, row, rowMap[old]);
      break;
  }
}

}  // namespace

void updateMapLower(HalvexEnv* env, int32_t* rowMap, int32_t* lbMap, int32_t col, int32_t row) {
  updateMap(env, rowMap, lbMap, col, row, false);
}

void updateMapUpper(HalvexEnv* env, int32_t* rowMap, int32_t* ubMap, int32_t col, int32_t row) {
  updateMap(env, rowMap, ubMap, col, row, true);
}
