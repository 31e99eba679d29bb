// The way back: the answer of the solved model mapped onto the caller's
// columns and rows, values chosen for what the presolver removed, and duals
// that landed on tightened bounds moved back onto the rows that implied them.
//
// Signs are those of the iteration here: lowerDual and upperDual are
// non-negative and the dual residual of a column is
// reducedCost - lowerDual + upperDual.
#include "presolve/internal.h"
#include "util/sparse.h"

using presolve::isQP;
using presolve::newArray;

namespace {

const int32_t kMaxDualSweeps = 10000;

// A change d arriving at column k is taken up by its two bound duals, the
// one that is in use first.
void absorb(ipmSolution* s, int32_t k, double d, double dualTol) {
  double& lower = s->lowerDual[k];
  double& upper = s->upperDual[k];
  if (d < 0.0) {
    if (lower <= dualTol) {
      lower = 0.0;
      upper -= d;
    } else {
      lower += d;
      if (dualTol + lower < 0.0) {
        upper -= lower;
        lower = 0.0;
      }
    }
  } else {
    if (upper <= dualTol) {
      lower += d;
      upper = 0.0;
    } else {
      upper -= d;
      if (dualTol + upper < 0.0) {
        lower -= upper;
        upper = 0.0;
      }
    }
  }
}

bool worthEvaluating(int32_t status) {
  return status != IPM_STATUS_OUT_OF_MEMORY && status != IPM_STATUS_FAILED &&
         status != IPM_STATUS_INTERRUPTED;
}

}  // namespace

void evaluateSolution(HalvexEnv* /*env*/, ipmModel* m) {
  const int32_t n = m->numCol;
  const double* x = m->solPrimal;
  const bool qp = isQP(m) && m->quadDiag;
  const bool offDiagonal = qp && m->numQuadCoef > 0 && m->quadColBegin && m->quadColLength;
  const int32_t* qBegin = offDiagonal ? m->quadColBegin : nullptr;
  const int32_t* qLength = offDiagonal ? m->quadColLength : nullptr;
  double value = 0.0;
  for (int32_t j = 0; j < n; j++) value += m->obj[j] * x[j];
  if (qp) value += calcQuadForm(n, qBegin, qLength, m->quadRowIndex, m->quadMatValue, m->quadDiag, x);
  m->objValue = (value + m->objConstant) * m->objSense;
  if (m->rowActivity) {
    for (int32_t i = 0; i < m->numRow; i++) m->rowActivity[i] = 0.0;
    for (int32_t j = 0; j < n; j++)
      for (int32_t k = m->colBegin[j]; k < m->colBegin[j] + m->colLength[j]; k++)
        m->rowActivity[m->rowIndex[k]] += m->matValue[k] * x[j];
  }
  if (m->reducedCost) {
    for (int32_t j = 0; j < n; j++) {
      double sum = 0.0;
      for (int32_t k = m->colBegin[j]; k < m->colBegin[j] + m->colLength[j]; k++)
        sum += m->matValue[k] * m->solDual[m->rowIndex[k]];
      m->reducedCost[j] = m->obj[j] - sum;
    }
    if (qp)
      symmatrixTimesVector(n, qBegin, qLength, m->quadRowIndex, m->quadMatValue, m->quadDiag, x,
                           m->reducedCost, 1.0);
  }
}

void outputSolution(presolver* pre, ipmSolution* inner, ipmSolution* outer, ipmOption* option) {
  const ipmModel* in = pre->inModel;
  const double inf = option->infinity;
  const bool qp = isQP(in) && in->quadDiag;
  for (int32_t j = 0; j < in->numCol; j++) {
    const double L = in->lower[j], U = in->upper[j];
    const double lb = pre->lowerBound[j], ub = pre->upperBound[j];
    const double c = pre->obj[j];
    double& x = outer->solPrimal[j];
    double& lowerSlack = outer->lowerSlack[j];
    double& upperSlack = outer->upperSlack[j];
    double& lowerDual = outer->lowerDual[j];
    double& upperDual = outer->upperDual[j];
    const int32_t place = pre->colMap[j];
    if (place >= 0) {
      if (inner) {
        x = inner->solPrimal[place];
        lowerSlack = inner->lowerSlack[place];
        upperSlack = inner->upperSlack[place];
        lowerDual = inner->lowerDual[place];
        upperDual = inner->upperDual[place];
      }
      continue;
    }
    if (place == COLMAP_FIXED) {
      x = lb;
      lowerDual = upperDual = 0.0;
      lowerSlack = L >= -inf ? lb - L : 0.0;
      upperSlack = U <= inf ? U - lb : 0.0;
      continue;
    }
    if (place != COLMAP_EMPTY) continue;
    const double d = qp ? in->quadDiag[j] : 0.0;
    if (!qp || fabs(d) <= 1e-10) {
      lowerSlack = upperSlack = lowerDual = upperDual = 0.0;
      if (c == 0.0) {
        if (lb < -inf && ub > inf) {
          x = 0.0;
        } else if (lb <= -inf) {
          x = ub;
        } else {
          x = lb;
          upperSlack = ub < inf ? ub - lb : 0.0;
        }
      } else if (c > 0.0) {
        x = lb;
        upperSlack = ub < inf ? ub - lb : 0.0;
        lowerDual = c;
      } else {
        x = ub;
        lowerSlack = lb > -inf ? ub - lb : 0.0;
        // Against the sign convention: the dual sweep that follows finds the
        // residual and turns it into the proper non-negative upper dual.
        upperDual = c;
      }
      continue;
    }
    lowerDual = upperDual = 0.0;
    if (d < 0.0) {
      // A concave column without both bounds has no minimum to report.
      if (lb < -inf || ub > inf) return;
      const double atLower = (c + lb * 0.5 * d) * lb;
      const double atUpper = (c + ub * 0.5 * d) * ub;
      if (atUpper < atLower) {
        x = ub;
        lowerSlack = ub - lb;
        upperSlack = 0.0;
      } else {
        x = lb;
        lowerSlack = 0.0;
        upperSlack = ub - lb;
      }
      continue;
    }
    const double free = -c / d;
    if (free < lb) {
      x = lb;
      lowerSlack = 0.0;
      upperSlack = ub >= inf ? 0.0 : ub - x;
    } else if (free > ub) {
      x = ub;
      lowerSlack = lb <= -inf ? 0.0 : x - lb;
      upperSlack = 0.0;
    } else {
      x = free;
      lowerSlack = lb <= -inf ? 0.0 : x - lb;
      upperSlack = ub >= inf ? 0.0 : ub - x;
    }
  }
  for (int32_t i = 0; i < in->numRow; i++) {
    const int32_t place = pre->rowMap[i];
    if (place >= 0) {
      if (inner) {
        outer->solDual[i] = inner->solDual[place];
        outer->ineqnSlack[i] = inner->ineqnSlack[place];
      }
    } else if (place >= ROWMAP_EMPTY) {
      outer->solDual[i] = 0.0;
      outer->ineqnSlack[i] = 0.0;
    }
  }
}

namespace {

struct RowCopy {
  int32_t* begin;
  int32_t* length;
  int32_t* index;
  double* value;
};

// Moves the dual of a tightened bound of column j onto the row that implied
// it and brings the reduced costs of the row's other columns in line.
// sign is +1 for a lower bound, -1 for an upper one.  Returns whether a dual
// moved.
bool moveDual(HalvexEnv* env, ipmModel* m, const RowCopy& rows, int32_t* colVisited,
              ipmSolution* s, int32_t j, int32_t row, double sign, double dualTol) {
  double& dual = sign > 0.0 ? s->lowerDual[j] : s->upperDual[j];
  double a = 0.0;
  if (row >= 0)
    for (int32_t k = rows.begin[row]; k < rows.begin[row] + rows.length[row]; k++)
      if (rows.index[k] == j) a = rows.value[k];
  if (row < 0 || a == 0.0) {
    if (sign > 0.0)
      PRE_TEXT(env, "this should not happen: nonzero dual on tighter lower bound.");
    else
      PRE_TEXT(env, "this should not happen: nonzero dual on tighter upper bound.");
    return false;
  }
  const double y = dual / a;
  for (int32_t k = rows.begin[row]; k < rows.begin[row] + rows.length[row]; k++) {
    const int32_t other = rows.index[k];
    if (other == j) continue;
    const double change = rows.value[k] * y * sign;
    colVisited[other] = 0;
    m->reducedCost[other] -= change;
    absorb(s, other, -change, dualTol);
  }
  s->solDual[row] += sign * y;
  m->reducedCost[j] -= sign * dual;
  dual = 0.0;
  return true;
}

}  // namespace

int32_t adjustDualOutput(HalvexEnv* env, ipmModel* m, ipmOption* option, presolver* pre,
                         ipmSolution* s) {
  QVPool* pool = env->pool;
  const double primalTol = option->primalTol, dualTol = option->dualTol;
  const double inf = option->infinity;
  int32_t numCoef = 0;
  for (int32_t j = 0; j < m->numCol; j++) numCoef += m->colLength[j];
  RowCopy rows = {newArray<int32_t>(pool, m->numRow + 1), newArray<int32_t>(pool, m->numRow),
                  newArray<int32_t>(pool, numCoef, false), newArray<double>(pool, numCoef, false)};
  int32_t* colVisited = newArray<int32_t>(pool, m->numCol);
  int32_t status = 0;
  if (!rows.begin || !rows.length || !rows.index || !rows.value || !colVisited) {
    status = IPM_STATUS_OUT_OF_MEMORY;
  } else {
    toggleMatrixWithLength(m->numCol, m->numRow, nullptr, m->colBegin, m->colLength,
                           m->rowIndex, m->matValue, rows.begin, rows.length, rows.index,
                           rows.value);
    bool moved = true;
    for (int32_t sweep = 0; moved && sweep < kMaxDualSweeps; sweep++) {
      moved = false;
      for (int32_t j = 0; j < m->numCol; j++) {
        if (colVisited[j]) continue;
        colVisited[j] = 1;
        const double r = (m->reducedCost[j] - s->lowerDual[j]) + s->upperDual[j];
        if (fabs(r) > dualTol) absorb(s, j, r, dualTol);
        if (pre->lbMap[j] < 0 && pre->ubMap[j] < 0) continue;

        if (pre->lbMap[j] >= 0) {
          const double lb = pre->lowerBound[j], L = m->lower[j];
          const bool differ = !(lb <= -inf && L <= -inf) &&
                              !(lb > -inf && L > -inf && fabs(lb - L) < primalTol);
          if (differ) {
            s->lowerSlack[j] = L >= -inf ? m->solPrimal[j] - L : 0.0;
            if (s->lowerDual[j] < dualTol)
              s->lowerDual[j] = 0.0;
            else if (moveDual(env, m, rows, colVisited, s, j, pre->lbMap[j], 1.0, dualTol))
              moved = true;
          }
        }
        if (pre->ubMap[j] < 0) continue;
        const double ub = pre->upperBound[j], U = m->upper[j];
        const bool differ = !(ub >= inf && U >= inf) &&
                            !(ub < inf && U < inf && fabs(ub - U) < primalTol);
        if (differ) {
          s->upperSlack[j] = U <= inf ? U - m->solPrimal[j] : 0.0;
          if (s->upperDual[j] < dualTol)
            s->upperDual[j] = 0.0;
          else if (moveDual(env, m, rows, colVisited, s, j, pre->ubMap[j], -1.0, dualTol))
            moved = true;
        }
      }
    }
  }
  poolRelease(pool, rows.begin);
  poolRelease(pool, rows.length);
  poolRelease(pool, rows.index);
  poolRelease(pool, rows.value);
  poolRelease(pool, colVisited);
  return status;
}

void adjustRowActivity(ipmModel* m, presolver* pre, ipmSolution* s) {
  for (int32_t i = 0; i < m->numRow; i++) {
    const int32_t status = pre->rowMap[i];
    if (status != ROWMAP_EMPTY && status != ROWMAP_RANGE && status != ROWMAP_UPPER &&
        status != ROWMAP_LOWER && status != ROWMAP_FREE)
      continue;
    switch (m->rowSense[i]) {
      case 'G':
        s->ineqnSlack[i] = m->rowActivity[i] - m->rhs[i];
        break;
      case 'L':
      case 'R':
        s->ineqnSlack[i] = m->rhs[i] - m->rowActivity[i];
        break;
      case 'E':
        s->ineqnSlack[i] = 0.0;
        break;
      default:
        break;
    }
  }
}

int32_t ipmPostsolve(HalvexEnv* env, ipmModel** modelRef, ipmOption* option, presolver* pre,
                     ipmSolution* inner, ipmSolution* outer) {
  ipmModel* m = *modelRef;
  int32_t status;
  switch (pre->preControl) {
    case PRECONTROL_BOUND:
      if (!outer || inner != outer) {
        PRE_TEXT(env, "PRECONTROL_BOUND case solution pointer error");
        return IPM_STATUS_FAILED;
      }
      adjustBound(env, m, pre);
      // The flags were made by the presolve for these bounds alone.
      if (pre->relaxMade && m->relaxColBound == pre->relaxMade) {
        poolRelease(env->pool, m->relaxColBound);
        pre->relaxMade = nullptr;
      }
      if (!worthEvaluating(m->status)) return 0;
      evaluateSolution(env, m);
      if ((status = adjustDualOutput(env, m, option, pre, outer)) != 0) return status;
      adjustRowActivity(m, pre, outer);
      return 0;
    case PRECONTROL_REDUCED:
      if (!inner || !outer || inner == outer || !pre->inModel) {
        PRE_TEXT(env, "PRECONTROL_REDUCED case solution pointer error");
        return IPM_STATUS_FAILED;
      }
      outputSolution(pre, inner, outer, option);
      FreeReducedModel(env, m, pre->inModel);
      m = *modelRef = pre->inModel;
      pre->inModel = nullptr;
      if (!worthEvaluating(m->status)) return 0;
      evaluateSolution(env, m);
      if ((status = adjustDualOutput(env, m, option, pre, outer)) != 0) return status;
      adjustRowActivity(m, pre, outer);
      return 0;
    default:
      if (!outer || inner != outer) {
        PRE_TEXT(env, "PRECONTROL_NONE case solution pointer error");
        return IPM_STATUS_FAILED;
      }
      if (worthEvaluating(m->status)) evaluateSolution(env, m);
      return 0;
  }
}
