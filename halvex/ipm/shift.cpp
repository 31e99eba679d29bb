#include "ipm/shift.h"

#include "records/host_records.h"

#include <float.h>
#include <math.h>

#include "frame/qv.h"

namespace {

// Live part of column j: removed entries sit behind it.
inline int32_t columnEnd(const int32_t* colBegin, const int32_t* colLength, int32_t j) {
  return colLength ? colBegin[j] + colLength[j] : colBegin[j + 1];
}

inline void swapValues(double* v, int32_t j, double* w) {
  double keep = v[j];
  v[j] = w[j];
  w[j] = keep;
}

// The bound duals and slacks belong to the other end once a column is
// mirrored.
void swapSides(ipmSolution* solution, int32_t j) {
  if (solution->lowerDual && solution->upperDual)
    swapValues(solution->lowerDual, j, solution->upperDual);
  if (solution->lowerSlack && solution->upperSlack)
    swapValues(solution->lowerSlack, j, solution->upperSlack);
}

void negateColumn(ipmModel* m, int32_t j) {
  if (!m->colBegin) return;
  const int32_t end = columnEnd(m->colBegin, m->colLength, j);
  for (int32_t k = m->colBegin[j]; k < end; k++) m->matValue[k] = -m->matValue[k];
}

// rhs[row] += factor * a over the live entries of column j.
void moveRhs(ipmModel* m, int32_t j, double factor) {
  if (!m->colBegin) return;
  const int32_t end = columnEnd(m->colBegin, m->colLength, j);
  for (int32_t k = m->colBegin[j]; k < end; k++) m->rhs[m->rowIndex[k]] += m->matValue[k] * factor;
}

void shiftColumn(ipmModel* m, presolver* pre, ipmSolution* solution, int32_t j, double t,
                 double inf) {
  pre->shiftValue[j] = t;
  pre->shiftStatus[j] = SHIFT_MOVED;
  m->lower[j] -= t;
  if (m->upper[j] < inf) m->upper[j] -= t;
  moveRhs(m, j, -t);
  if (solution) solution->solPrimal[j] -= t;
}

// Mirrors column j around its upper bound ub; newUpper is the width of the
// column, infinite when it has no lower bound.
void flipColumn(ipmModel* m, presolver* pre, ipmSolution* solution, int32_t j, double ub,
                double newUpper) {
  const bool aroundZero = ub == 0.0;
  pre->shiftValue[j] = aroundZero ? 0.0 : ub;
  pre->shiftStatus[j] = aroundZero ? SHIFT_FLIPPED_ZERO : SHIFT_FLIPPED;
  m->lower[j] = 0.0;
  m->upper[j] = newUpper;
  m->obj[j] = -m->obj[j];
  if (!aroundZero) moveRhs(m, j, -ub);
  negateColumn(m, j);
  if (solution) {
    solution->solPrimal[j] = aroundZero ? -solution->solPrimal[j] : ub - solution->solPrimal[j];
    swapSides(solution, j);
  }
}

// Sign of a column's status; a flip around 0 counts as negative with t = 0.
inline int statusSign(int32_t status) { return status > 0 ? 1 : (status < 0 ? -1 : 0); }

// The linear terms that the quadratic objective gains from the shifted and
// mirrored columns.  The mixed cases are built as they stand and are undone
// only in part by restoreQuadratic.
void shiftQuadratic(ipmModel* m, presolver* pre) {
  const double* t = pre->shiftValue;
  const int32_t* st = pre->shiftStatus;
  double* obj = m->obj;
  for (int32_t j = 0; j < m->numCol; j++) {
    if (m->quadDiag) {
      if (st[j] == SHIFT_MOVED) obj[j] += m->quadDiag[j] * t[j];
      if (st[j] == SHIFT_FLIPPED) obj[j] -= m->quadDiag[j] * t[j];
    }
    if (m->numQuadCoef <= 0 || !m->quadColBegin) continue;
    const int32_t end = columnEnd(m->quadColBegin, m->quadColLength, j);
    const int sj = statusSign(st[j]);
    for (int32_t k = m->quadColBegin[j]; k < end; k++) {
      const int32_t r = m->quadRowIndex[k];
      const int sr = statusSign(st[r]);
      double& q = m->quadMatValue[k];
      if (sj > 0 && sr > 0) {
        obj[j] += q * t[r];
        obj[r] += q * t[j];
      } else if (sj < 0 && sr < 0) {
        obj[j] -= q * t[r];
        obj[r] -= q * t[j];
      } else if (sj > 0 && sr < 0) {
        q = -q;
        obj[j] += q * t[r];
        obj[r] -= q * t[j];
      } else if (sj < 0 && sr > 0) {
        q = -q;
        obj[j] -= q * t[r];
        obj[r] += q * t[j];
      } else if (sj < 0) {  // sr zero
        obj[r] += q * t[j];
        q = -q;
      } else if (sr < 0) {  // sj zero
        obj[j] += q * t[r];
        q = -q;
      } else if (sj > 0) {  // sr zero
        obj[r] += q * t[j];
      } else if (sr > 0) {  // sj zero
        obj[j] += q * t[r];
      }
    }
  }
}

void restoreQuadratic(ipmModel* m, presolver* pre) {
  const double* t = pre->shiftValue;
  const int32_t* st = pre->shiftStatus;
  double* obj = m->obj;
  for (int32_t j = 0; j < m->numCol; j++) {
    if (m->quadDiag) {
      if (st[j] == SHIFT_MOVED) obj[j] -= m->quadDiag[j] * t[j];
      if (st[j] == SHIFT_FLIPPED) obj[j] += m->quadDiag[j] * t[j];
    }
    if (m->numQuadCoef <= 0 || !m->quadColBegin) continue;
    const int32_t end = columnEnd(m->quadColBegin, m->quadColLength, j);
    const int sj = statusSign(st[j]);
    for (int32_t k = m->quadColBegin[j]; k < end; k++) {
      const int32_t r = m->quadRowIndex[k];
      const int sr = statusSign(st[r]);
      double& q = m->quadMatValue[k];
      if (sj * sr < 0) {
        q = -q;
        obj[j] += q * t[r];
        obj[r] += q * t[j];
      } else if (sj < 0 && sr == 0) {
        obj[r] += q * t[j];
        q = -q;
      } else if (sj == 0 && sr < 0) {
        obj[j] += q * t[r];
        q = -q;
      } else if (sj == 0 && sr > 0) {
        obj[j] -= q * t[r];
      } else if (sj > 0 && sr == 0) {
        obj[r] -= q * t[j];
      } else if (sj != 0) {  // same sign
        obj[j] -= q * t[r];
        obj[r] -= q * t[j];
      }
    }
  }
}

}  // namespace

int32_t ipmShiftBound(HalvexEnv* env, ipmModel* model, ipmOption* option, presolver* pre,
                      ipmSolution* solution) {
  QVPool* pool = env->pool;
  const int32_t numCol = model->numCol;
  if (!pre->shiftValue || !pre->shiftStatus) {
    // A record that has one of the two but not the other is completed, so
    // that the pair always goes together.
    const bool madeValue = !pre->shiftValue, madeStatus = !pre->shiftStatus;
    if (madeValue) pre->shiftValue = poolNew<double>(pool, numCol > 0 ? numCol : 1);
    if (madeStatus) pre->shiftStatus = poolNew<int32_t>(pool, numCol > 0 ? numCol : 1);
    if (!pre->shiftValue || !pre->shiftStatus) {
      if (madeValue) poolRelease(pool, pre->shiftValue);
      if (madeStatus) poolRelease(pool, pre->shiftStatus);
      return IPM_STATUS_OUT_OF_MEMORY;
    }
  }

  const double inf = option->infinity;
  const bool isQP = model->typeModel == IPM_MODEL_QP;
  for (int32_t j = 0; j < numCol; j++) {
    pre->shiftValue[j] = 0.0;
    pre->shiftStatus[j] = SHIFT_NONE;
    const double lb = model->lower[j], ub = model->upper[j];
    if (lb <= -inf) {
      // Only an upper bound: mirror it onto a lower bound.  A free column
      // stays as it is.
      if (ub < inf) flipColumn(model, pre, solution, j, ub, -lb);
    } else if (ub >= inf) {
      if (lb != 0.0) shiftColumn(model, pre, solution, j, lb, inf);
    } else {
      const double mid = (lb + ub) * 0.5;
      const double c = model->obj[j];
      if (isQP) {
        // The quadratic term makes the objective's direction meaningless for
        // a single column: centre the box.
        if (mid != 0.0) shiftColumn(model, pre, solution, j, mid, inf);
      } else if (c > 0.0) {
        if (lb != 0.0) shiftColumn(model, pre, solution, j, lb, inf);
      } else if (c < 0.0) {
        // The objective pushes the column to its upper end: make that end 0.
        flipColumn(model, pre, solution, j, ub, ub - lb);
      } else if (c == 0.0 && mid != 0.0) {
        shiftColumn(model, pre, solution, j, mid, inf);
      }
    }
  }
  if (isQP) shiftQuadratic(model, pre);
  return 0;
}

void ipmShiftRestore(HalvexEnv* /*env*/, ipmModel* model, ipmOption* option, presolver* pre,
                     ipmSolution* solution) {
  if (!pre->shiftValue || !pre->shiftStatus) return;
  if (model->typeModel == IPM_MODEL_QP) restoreQuadratic(model, pre);
  const double inf = option->infinity;
  double* x = solution ? solution->solPrimal : nullptr;
  for (int32_t j = 0; j < model->numCol; j++) {
    const double t = pre->shiftValue[j];
    switch (pre->shiftStatus[j]) {
      case SHIFT_MOVED:
        if (x) x[j] += t;
        model->lower[j] += t;
        if (model->upper[j] < inf) model->upper[j] += t;
        moveRhs(model, j, t);
        break;
      case SHIFT_FLIPPED:
        if (x) x[j] = t - x[j];
        if (solution) swapSides(solution, j);
        model->lower[j] = model->upper[j] >= inf ? -model->upper[j] : t - model->upper[j];
        model->upper[j] = t;
        model->obj[j] = -model->obj[j];
        negateColumn(model, j);
        moveRhs(model, j, t);
        break;
      case SHIFT_FLIPPED_ZERO:
        if (x) x[j] = -x[j];
        if (solution) swapSides(solution, j);
        model->lower[j] = -model->upper[j];
        model->upper[j] = 0.0;
        model->obj[j] = -model->obj[j];
        negateColumn(model, j);
        break;
      default:
        break;
    }
  }
}

void relaxBound(HalvexEnv* /*env*/, ipmModel* model, ipmOption* option) {
  const uint8_t* flags = model->relaxColBound;
  if (!flags) return;
  const double inf = option->infinity;
  for (int32_t j = 0; j < model->numCol; j++) {
    const double lb = model->lower[j], ub = model->upper[j];
    // Dropping a lone bound would leave a free column, which the iteration
    // carries less well than a bounded one.
    if (!(-inf < lb && ub < inf)) continue;
    const bool dropLower = flags[j] & RELAX_NO_LOWER, dropUpper = flags[j] & RELAX_NO_UPPER;
    if (dropLower && dropUpper) {
      // Far bounds are not worth their complementarity pairs; a near one is
      // kept as the anchor of the starting point.
      const double lowMag = fabs(lb), upMag = fabs(ub);
      if ((lowMag < upMag ? lowMag : upMag) >= 100.0) {
        model->lower[j] = -DBL_MAX;
        model->upper[j] = DBL_MAX;
      } else if (lowMag > upMag) {
        model->lower[j] = -DBL_MAX;
      } else {
        model->upper[j] = DBL_MAX;
      }
    } else if (dropLower) {
      model->lower[j] = -DBL_MAX;
    } else if (dropUpper) {
      model->upper[j] = DBL_MAX;
    }
  }
}
