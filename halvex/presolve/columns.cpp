// Column and bound reductions: activity bounds of a row and what follows
// from them, bound checks, and the removal of fixed and empty columns.
#include "presolve/internal.h"
#include "util/sparse.h"

using presolve::isQP;
using presolve::rangeOf;

namespace {

enum Outcome { kInfeasible, kRedundant, kForceMin, kForceMax, kTighten, kNone };

// A bound was taken: the column and every row through it are to be looked at
// again.
void boundTaken(presolver* pre, int32_t j) {
  pre->changed = 1;
  pre->colDone[j] = 0;
  const int32_t begin = pre->colBegin[j], end = begin + pre->colLength[j];
  for (int32_t k = begin; k < end; k++) pre->rowDone[pre->rowIndex[k]] = 0;
}

void takeLower(HalvexEnv* env, presolver* pre, int32_t j, double bound, int32_t row,
               double tol) {
  if (pre->colMap[j] < 0 || !(pre->lowerBound[j] < bound - tol)) return;
  pre->lowerBound[j] = bound;
  updateMapLower(env, pre->rowMap, pre->lbMap, j, row);
  boundTaken(pre, j);
}

void takeUpper(HalvexEnv* env, presolver* pre, int32_t j, double bound, int32_t row,
               double tol) {
  if (pre->colMap[j] < 0 || !(tol + bound < pre->upperBound[j])) return;
  pre->upperBound[j] = bound;
  updateMapUpper(env, pre->rowMap, pre->ubMap, j, row);
  boundTaken(pre, j);
}

// Forcing row: every column goes to the end of its range that gives the row
// its extreme activity.  atMin selects the smallest activity.
void forceRow(HalvexEnv* env, presolver* pre, int32_t row, bool atMin) {
  pre->numRemovedRow++;
  pre->changed = 1;
  bool moved = false;
  const int32_t begin = pre->rowBegin[row], end = begin + pre->rowLength[row];
  for (int32_t k = begin; k < end; k++) {
    const int32_t j = pre->colIndex[k];
    const double a = pre->rowMatValue[k];
    double& lb = pre->lowerBound[j];
    double& ub = pre->upperBound[j];
    pre->colDone[j] = 0;
    if (!(lb < ub)) continue;
    if ((a < 0.0) == atMin) {
      lb = ub;
      updateMapLower(env, pre->rowMap, pre->lbMap, j, row);
    } else {
      ub = lb;
      updateMapUpper(env, pre->rowMap, pre->ubMap, j, row);
    }
    moved = true;
  }
  pre->rowMap[row] = moved ? ROWMAP_FIXED : ROWMAP_EMPTY;
}

void removeRedundantRow(HalvexEnv* env, presolver* pre, int32_t row) {
  pre->rowMap[row] = ROWMAP_FREE;
  pre->numRemovedRow++;
  pre->numRemovedElement += pre->rowLength[row];
  pre->changed = 1;
  const int32_t begin = pre->rowBegin[row], end = begin + pre->rowLength[row];
  for (int32_t k = begin; k < end; k++) {
    const int32_t j = pre->colIndex[k];
    removeElement(env, row, j, pre->colBegin, pre->colLength, pre->rowIndex, pre->matValue);
    pre->colDone[j] = 0;
  }
  pre->rowLength[row] = 0;
}

}  // namespace

int32_t tightenBound(HalvexEnv* env, ipmModel* model, ipmOption* option, presolver* pre,
                     int32_t row) {
  const double tol = option->primalTol;
  const double inf = option->infinity;
  double sumMin = 0.0, sumMax = 0.0;
  int32_t numInfMin = 0, numInfMax = 0, posMin = -1, posMax = -1;
  const int32_t begin = pre->rowBegin[row], end = begin + pre->rowLength[row];
  for (int32_t k = begin; k < end; k++) {
    const int32_t j = pre->colIndex[k];
    const double a = pre->rowMatValue[k];
    const double lb = pre->lowerBound[j], ub = pre->upperBound[j];
    // The comparisons are not mirrored: with a negative a a lower bound of
    // exactly -inf still counts as a number.
    if (a < 0.0) {
      if (ub > inf) {
        numInfMin++;
        posMin = k;
      } else {
        sumMin += a * ub;
      }
      if (lb < -inf) {
        numInfMax++;
        posMax = k;
      } else {
        sumMax += a * lb;
      }
    } else {
      if (lb <= -inf) {
        numInfMin++;
        posMin = k;
      } else {
        sumMin += a * lb;
      }
      if (ub > inf) {
        numInfMax++;
        posMax = k;
      } else {
        sumMax += a * ub;
      }
    }
  }
  const double minAct = numInfMin >= 1 ? -inf : sumMin;
  const double maxAct = numInfMax >= 1 ? inf : sumMax;

  const double b = pre->rhs[row];
  Outcome outcome = kNone;
  switch (pre->rowSense[row]) {
    case 'L':
      outcome = minAct > tol + b ? kInfeasible
                : minAct >= b    ? kForceMin
                : maxAct <= b    ? kRedundant
                                 : kTighten;
      break;
    case 'G':
      outcome = maxAct < b - tol ? kInfeasible
                : maxAct <= b    ? kForceMax
                : b <= minAct    ? kRedundant
                                 : kTighten;
      break;
    case 'E':
      outcome = (minAct > tol + b || maxAct < b - tol) ? kInfeasible
                : minAct >= b                          ? kForceMin
                : maxAct <= b                          ? kForceMax
                                                       : kTighten;
      break;
    case 'R': {
      const double range = rangeOf(model, row);
      const double lo = b - range;
      outcome = (minAct > tol + b || maxAct < (b - tol) - range) ? kInfeasible
                : minAct >= b                                   ? kForceMin
                : maxAct <= lo                                  ? kForceMax
                : (maxAct <= b && lo < minAct)                  ? kRedundant
                                                                : kTighten;
      if (outcome == kTighten) {
        // An end that the activity cannot reach is no end: the row keeps the
        // other one as a plain inequality.
        if (maxAct < b) {
          pre->rowSense[row] = 'G';
          pre->rhs[row] = lo;
          pre->numChangeRange++;
        }
        if (lo < minAct) {
          pre->rowSense[row] = 'L';
          pre->rhs[row] = b;
          pre->numChangeRange++;
        }
      }
      break;
    }
    default:
      PRE_TEXT(env, "Error: unknown row type.");
      return 0;
  }

  switch (outcome) {
    case kInfeasible:
      return IPM_STATUS_PRIMAL_INFEASIBLE;
    case kRedundant:
      removeRedundantRow(env, pre, row);
      return 0;
    case kForceMin:
      forceRow(env, pre, row, true);
      return 0;
    case kForceMax:
      forceRow(env, pre, row, false);
      return 0;
    case kTighten:
      break;
    case kNone:
      return 0;
  }

  const presolveRow lower = {row, sumMin, pre->rhs[row], numInfMin, posMin};
  const presolveRow upper = {row, sumMax, pre->rhs[row], numInfMax, posMax};
  switch (pre->rowSense[row]) {
    case 'L':
      tightenBoundL(env, option, pre, &lower);
      break;
    case 'G':
      tightenBoundG(env, option, pre, &upper);
      break;
    case 'E':
      tightenBoundL(env, option, pre, &lower);
      tightenBoundG(env, option, pre, &upper);
      break;
    case 'R': {
      tightenBoundL(env, option, pre, &lower);
      const presolveRow lowerEnd = {row, sumMax, b - rangeOf(model, row), numInfMax, posMax};
      tightenBoundG(env, option, pre, &lowerEnd);
      break;
    }
    default:
      break;
  }
  return 0;
}

void tightenBoundL(HalvexEnv* env, ipmOption* option, presolver* pre, const presolveRow* rec) {
  const double tol = option->primalTol;
  const double slack = rec->rhs - rec->activity;
  const int32_t row = rec->row;
  if (rec->numInf == 0) {
    const int32_t begin = pre->rowBegin[row], end = begin + pre->rowLength[row];
    for (int32_t k = begin; k < end; k++) {
      const int32_t j = pre->colIndex[k];
      const double a = pre->rowMatValue[k];
      if (a < 0.0)
        takeLower(env, pre, j, slack / a + pre->upperBound[j], row, tol);
      else
        takeUpper(env, pre, j, slack / a + pre->lowerBound[j], row, tol);
    }
  } else if (rec->numInf == 1) {
    // The one infinite term is this column's own, missing from the sum.
    const int32_t j = pre->colIndex[rec->infPos];
    const double a = pre->rowMatValue[rec->infPos];
    if (a < 0.0)
      takeLower(env, pre, j, slack / a, row, tol);
    else
      takeUpper(env, pre, j, slack / a, row, tol);
  }
}

void tightenBoundG(HalvexEnv* env, ipmOption* option, presolver* pre, const presolveRow* rec) {
  const double tol = option->primalTol;
  const double slack = rec->rhs - rec->activity;
  const int32_t row = rec->row;
  if (rec->numInf == 0) {
    const int32_t begin = pre->rowBegin[row], end = begin + pre->rowLength[row];
    for (int32_t k = begin; k < end; k++) {
      const int32_t j = pre->colIndex[k];
      const double a = pre->rowMatValue[k];
      if (a < 0.0)
        takeUpper(env, pre, j, slack / a + pre->lowerBound[j], row, tol);
      else
        takeLower(env, pre, j, slack / a + pre->upperBound[j], row, tol);
    }
  } else if (rec->numInf == 1) {
    const int32_t j = pre->colIndex[rec->infPos];
    const double a = pre->rowMatValue[rec->infPos];
    if (a < 0.0)
      takeUpper(env, pre, j, slack / a, row, tol);
    else
      takeLower(env, pre, j, slack / a, row, tol);
  }
}

int32_t detectInfeasBound(HalvexEnv* /*env*/, ipmModel* model, ipmOption* option,
                          presolver* pre) {
  const double tol = option->primalTol;
  const double inf = option->infinity;
  for (int32_t j = 0; j < model->numCol; j++) {
    const double lb = pre->lowerBound[j], ub = pre->upperBound[j];
    if (-inf < lb && ub < inf && ub + tol < lb) return IPM_STATUS_PRIMAL_INFEASIBLE;
    if (lb > inf || ub < -inf) return IPM_STATUS_DUAL_INFEASIBLE;
  }
  return 0;
}

int32_t removeFixedCol(HalvexEnv* env, ipmModel* model, ipmOption* /*option*/, presolver* pre,
                       int32_t j) {
  const double x = pre->lowerBound[j];
  pre->colMap[j] = COLMAP_FIXED;
  pre->numRemovedCol++;
  pre->numRemovedElement += pre->colLength[j];
  pre->changed = 1;
  // The entries stay in the column behind colLength: the structure check
  // reads them, and nothing else will.
  const int32_t begin = pre->colBegin[j], end = begin + pre->colLength[j];
  for (int32_t k = begin; k < end; k++) {
    const int32_t r = pre->rowIndex[k];
    pre->rhs[r] -= pre->matValue[k] * x;
    removeElement(env, j, r, pre->rowBegin, pre->rowLength, pre->colIndex, pre->rowMatValue);
    pre->rowDone[r] = 0;
  }
  if (isQP(model) && model->numQuadCoef > 0) {
    // Each off-diagonal pair is stored once, in column j or in the other
    // column; the cross term x * q moves into the other column's cost.
    const int32_t colLen = pre->quadColLength[j];
    for (int32_t k = pre->quadColBegin[j]; k < pre->quadColBegin[j] + colLen; k++) {
      const int32_t other = pre->quadRowIndex[k];
      pre->obj[other] += pre->quadMatValue[k] * x;
      removeElement(env, j, other, pre->quadRowBegin, pre->quadRowLength, pre->quadColIndex,
                    pre->quadRowMatValue);
      pre->colDone[other] = 0;
    }
    pre->quadColLength[j] = 0;
    const int32_t rowLen = pre->quadRowLength[j];
    for (int32_t k = pre->quadRowBegin[j]; k < pre->quadRowBegin[j] + rowLen; k++) {
      const int32_t other = pre->quadColIndex[k];
      pre->obj[other] += pre->quadRowMatValue[k] * x;
      removeElement(env, j, other, pre->quadColBegin, pre->quadColLength, pre->quadRowIndex,
                    pre->quadMatValue);
      pre->colDone[other] = 0;
    }
    pre->quadRowLength[j] = 0;
    pre->numRemovedQuadElement += colLen + rowLen;
  }
  return 0;
}

int32_t removeEmptyCol(HalvexEnv* /*env*/, ipmModel* model, ipmOption* option, presolver* pre,
                       int32_t j) {
  const bool qp = isQP(model);
  if (qp && model->numQuadCoef > 0 && (pre->quadColLength[j] > 0 || pre->quadRowLength[j] > 0))
    return 0;
  pre->colMap[j] = COLMAP_EMPTY;
  pre->numRemovedCol++;
  const double inf = option->infinity;
  const double c = pre->obj[j];
  const double d = qp && model->quadDiag ? model->quadDiag[j] : 0.0;
  const double lb = pre->lowerBound[j], ub = pre->upperBound[j];
  if (d == 0.0) {
    if (c > 0.0 && lb < -inf) return IPM_STATUS_DUAL_INFEASIBLE;
    if (c < 0.0 && ub > inf) return IPM_STATUS_DUAL_INFEASIBLE;
  } else if (d < 0.0) {
    if (lb < -inf || ub > inf) return IPM_STATUS_DUAL_INFEASIBLE;
  }
  return 0;
}
