// The two ends of the pipeline.  The input check looks at the caller's
// arrays before any stage touches them; the output checks judge the final
// point in the caller's own terms, so they catch a slip in any stage between.
#include "verify/verify_io.h"

#include <math.h>

#include "frame/qv.h"
#include "ipm/shift.h"
#include "util/sparse.h"

namespace {

const int32_t kStructure = 1;
const int32_t kResult = 3;
const int32_t kListing = 9;
const double kOutputTol = 1e-6;
const double kTooBig = 1e20;
const double kTooSmall = 1e-20;

void running(HalvexEnv* env) {
  if (env && env->textLog) env->textLog("running debug code......");
}

inline double atLeastOne(double v) { return fabs(v) > 1.0 ? fabs(v) : 1.0; }

// Column j's live part: length array when there is one, else the next begin.
inline int32_t colEnd(const ipmModel* m, int32_t j) {
  return m->colLength ? m->colBegin[j] + m->colLength[j] : m->colBegin[j + 1];
}

void checkMatrix(TextLogFn log, const ipmModel* m, int32_t* status) {
  int64_t total = 0;
  for (int32_t j = 0; j < m->numCol; j++) {
    const int32_t len = colEnd(m, j) - m->colBegin[j];
    if (len < 0 || len > m->numRow) {
      if (log) log("Error input: colLength(%d)=%d should between (0, %d)", j, len, m->numRow);
      *status = IPM_STATUS_FAILED;
      continue;
    }
    total += len;
    const int32_t begin = m->colBegin[j], end = begin + len;
    for (int32_t k = begin; k < end; k++) {
      const int32_t i = m->rowIndex[k];
      if (i < 0 || i >= m->numRow) {
        if (log) log("Error input: in column %d, rowIndex(%d)=%d should between (0, %d)", j, k, i,
                     m->numRow);
        *status = IPM_STATUS_FAILED;
      }
      const double v = fabs(m->matValue[k]);
      if (v < kTooSmall) {
        if (log) log("Error input: matValue(%d, %d) = %15.7g should be nonzero", i, j,
                     m->matValue[k]);
        *status = IPM_STATUS_FAILED;
      } else if (v > kTooBig) {
        if (log) log("Error input: matValue(%d, %d) = %15.7g is too big", i, j, m->matValue[k]);
        *status = IPM_STATUS_FAILED;
      }
      for (int32_t l = begin; l < k; l++)
        if (m->rowIndex[l] == i) {
          if (log) log("Error input: in column %d, rowIndex(%d)=rowIndex(%d)=%d", j, l, k, i);
          *status = IPM_STATUS_FAILED;
        }
    }
  }
  if (total != m->numCoef) {
    if (log) log("Error input: input number of nonzero coefficients = %d, actually value = %d",
                 m->numCoef, (int32_t)total);
    *status = IPM_STATUS_FAILED;
  }
}

// Q's strict lower triangle: every row index below its column is refused.
void checkQuad(TextLogFn log, const ipmModel* m, int32_t* status) {
  int64_t total = 0;
  for (int32_t j = 0; j < m->numCol; j++) {
    const int32_t len = m->quadColLength[j];
    if (len < 0 || len > m->numCol) {
      if (log) log("Error input: quadColLength(%d)=%d should between (0, %d)", j, len, m->numCol);
      *status = IPM_STATUS_FAILED;
      continue;
    }
    total += len;
    const int32_t begin = m->quadColBegin[j], end = begin + len;
    for (int32_t k = begin; k < end; k++) {
      const int32_t i = m->quadRowIndex[k];
      if (i <= j || i >= m->numCol) {
        if (log) log("Error input: in column %d, quadRowIndex(%d)=%d should between (%d, %d)", j,
                     k, i, j, m->numCol);
        *status = IPM_STATUS_FAILED;
      }
      const double v = fabs(m->quadMatValue[k]);
      if (v < kTooSmall) {
        if (log) log("Error input: quadMatValue(%d, %d) = %15.7g should be nonzero", i, j,
                     m->quadMatValue[k]);
        *status = IPM_STATUS_FAILED;
      } else if (v > kTooBig) {
        if (log) log("Error input: quadMatValue(%d, %d) = %15.7g is too big", i, j,
                     m->quadMatValue[k]);
        *status = IPM_STATUS_FAILED;
      }
      for (int32_t l = begin; l < k; l++)
        if (m->quadRowIndex[l] == i) {
          if (log) log("Error input: in column %d, quadRowIndex(%d)=quadRowIndex(%d)=%d", j, l, k,
                       i);
          *status = IPM_STATUS_FAILED;
        }
    }
  }
  if (total != m->numQuadCoef) {
    if (log)
      log("Error input: input number of nonzero quadratic coefficients = %d, actually value = %d",
          m->numQuadCoef, (int32_t)total);
    *status = IPM_STATUS_FAILED;
  }
}

}  // namespace

int32_t ipmVerifyInput(HalvexEnv* env, int32_t level, ipmModel* m) {
  if (level < kStructure) return 0;
  running(env);
  TextLogFn log = env ? env->textLog : nullptr;
  int32_t status = 0;
  auto fail = [&](const char* format, auto... values) {
    if (log) log(format, values...);
    status = IPM_STATUS_FAILED;
  };

  if (m->numRow < 0) fail("Error input: numRow = %d", m->numRow);
  if (m->numCol < 0) fail("Error input: numCol = %d", m->numCol);
  if (m->numCoef < 0) fail("Error input: numCoef = %d", m->numCoef);
  if (m->numQuadCoef < 0) {
    fail("Error input: numQuadCoef = %d", m->numQuadCoef);
    return status;
  }
  if (status) return status;

  if (m->numCoef > 0) {
    if (!m->colBegin) fail("Error input: numCoef=%d but model->colBegin=NULL", m->numCoef);
    if (!m->colLength) fail("Error input: numCoef=%d but model->colLength=NULL", m->numCoef);
    if (!m->rowIndex) fail("Error input: numCoef=%d but model->rowIndex=NULL", m->numCoef);
    if (!m->matValue) fail("Error input: numCoef=%d but model->matValue=NULL", m->numCoef);
  }
  if (m->numQuadCoef > 0) {
    if (!m->quadColBegin)
      fail("Error input: numQuadCoef=%d but model->quadColBegin=NULL", m->numQuadCoef);
    if (!m->quadColLength)
      fail("Error input: numQuadCoef=%d but model->quadColLength=NULL", m->numQuadCoef);
    if (!m->quadRowIndex)
      fail("Error input: numQuadCoef=%d but model->quadRowIndex=NULL", m->numQuadCoef);
    if (!m->quadMatValue)
      fail("Error input: numQuadCoef=%d but model->quadMatValue=NULL", m->numQuadCoef);
  }
  if (m->typeModel == IPM_MODEL_QP) {
    if (!m->colBegin) fail("Error input: QP model but model->colBegin=NULL");
    if (!m->colLength) fail("Error input: QP model but model->colLength=NULL");
    if (!m->quadDiag) fail("Error input: QP model but model->quadDiag=NULL");
  }
  if (m->numCol > 0) {
    if (!m->obj) fail("Error input: numCol=%d but model->obj=NULL", m->numCol);
    if (!m->lower) fail("Error input: numCol=%d but model->lower=NULL", m->numCol);
    if (!m->upper) fail("Error input: numCol=%d but model->upper=NULL", m->numCol);
    if (!m->solPrimal) fail("Error input: solPrimal == NULL");
    if (!m->reducedCost) fail("Error input: reducedCost == NULL");
  }
  if (m->numRow > 0) {
    if (!m->rhs) fail("Error input: numRow=%d but model->rhs=NULL", m->numRow);
    if (!m->rowSense) fail("Error input: numRow=%d but model->rowSense=NULL", m->numRow);
    if (!m->solDual) fail("Error input: solDual == NULL");
    if (!m->rowActivity) fail("Error input: rowActivity == NULL");
  }
  if (m->checkSolverBreak && !m->scripterDataStruct)
    fail("Error input: checkSolverBreak <> NULL but scripterDataStruct == NULL");
  if (!m->checkSolverBreak && m->scripterDataStruct)
    fail("Error input: checkSolverBreak == NULL but scripterDataStruct <> NULL");

  if (m->numQuadCoef == 0) {
    if (m->quadColBegin) fail("Error input: numQuadCoef=0 but quadColBegin<>NULL");
    if (m->quadColLength) fail("Error input: numQuadCoef=0 but quadColLength<>NULL");
    if (m->quadRowIndex) fail("Error input: numQuadCoef=0 but quadRowIndex<>NULL");
    if (m->quadMatValue) fail("Error input: numQuadCoef=0 but quadMatValue<>NULL");
  } else {
    if (!m->quadDiag) fail("Error input: numQuadCoef=%d but quadDiag=NULL", m->numQuadCoef);
    if (!m->quadColBegin) fail("Error input: numQuadCoef=%d but quadColBegin=NULL", m->numQuadCoef);
    if (!m->quadColLength)
      fail("Error input: numQuadCoef=%d but quadColLength=NULL", m->numQuadCoef);
    if (!m->quadRowIndex) fail("Error input: numQuadCoef=%d but quadRowIndex=NULL", m->numQuadCoef);
    if (!m->quadMatValue) fail("Error input: numQuadCoef=%d but quadMatValue=NULL", m->numQuadCoef);
    if (m->typeModel != IPM_MODEL_QP)
      fail("Error input: numQuadCoef=%d but typeModel <> IPM_MODEL_QP", m->numQuadCoef);
  }
  // The walks below read what the null tests vouched for.
  if (status) return status;

  if (m->numCoef > 0) checkMatrix(log, m, &status);
  if (m->numQuadCoef > 0) checkQuad(log, m, &status);

  for (int32_t i = 0; i < m->numRow; i++) {
    const char sense = m->rowSense[i];
    if (!m->range) {
      if (sense == 'R') fail("Error input: rowSense(%d)='R' but range vector doesn't exist", i);
      continue;
    }
    if (sense == 'R') {
      if (m->range[i] < 0.0) fail("Error input: range(%d) = %15.7g should be non-negative", i,
                                  m->range[i]);
    } else if (m->range[i] != 0.0) {
      fail("Error input: rowSense(%d)=%c but range(%d)=%15.7g", i, sense, i, m->range[i]);
    }
  }
  for (int32_t i = 0; i < m->numRow; i++)
    if (m->rowActivity[i] != 0.0) {
      fail("Error input: rowActivity(%d) = %15.7g should be zero", i, m->rowActivity[i]);
      return status;
    }
  return status;
}

int32_t VerifyModelPrimal(HalvexEnv* env, int32_t level, ipmModel* m, ipmOption*,
                          ipmSolution* solution) {
  if (level < kResult) return 0;
  running(env);
  double* ax = poolNew<double>(env->pool, m->numRow > 0 ? m->numRow : 1, true);
  if (!ax) return IPM_STATUS_OUT_OF_MEMORY;
  matrixTimesVector(m->numRow, m->numCol, m->colBegin, m->colLength, m->rowIndex, m->matValue,
                    solution->solPrimal, ax);
  TextLogFn log = env->textLog;
  int32_t status = 0;
  const double* s = solution->ineqnSlack;
  for (int32_t i = 0; i < m->numRow; i++) {
    const double r = ax[i] - m->rhs[i];
    double res;
    switch (m->rowSense[i]) {
      case 'N':
        if (!(fabs(ax[i]) <= kTooBig)) {
          if (log) log("Error VerifyModelPrimal: primal residual (%d) = %15.7g", i, ax[i]);
          status = IPM_STATUS_FAILED;
        }
        continue;
      case 'E': res = r; break;
      case 'L': res = r + s[i]; break;
      case 'G': res = r - s[i]; break;
      case 'R': {
        const double fromTop = r + s[i], fromBottom = r + m->range[i] - s[i];
        res = fabs(fromTop) < fabs(fromBottom) ? fromTop : fromBottom;
        break;
      }
      default: res = r; break;
    }
    const double rel = res / atLeastOne(m->rhs[i]);
    if (!(fabs(rel) <= kOutputTol)) {
      if (log) log("Error VerifyModelPrimal: primal residual (%d) = %15.7g", i, rel);
      status = IPM_STATUS_FAILED;
    }
  }
  poolFree(env->pool, ax);
  return status;
}

int32_t VerifyModelBound(HalvexEnv* env, int32_t level, ipmModel* m, ipmOption* option,
                         ipmSolution* solution) {
  if (level < kResult) return 0;
  running(env);
  TextLogFn log = env->textLog;
  int32_t status = 0;
  const double inf = option->infinity;
  for (int32_t j = 0; j < m->numCol; j++) {
    const double x = solution->solPrimal[j];
    if (m->lower[j] > -inf) {
      const double res = x - solution->lowerSlack[j] - m->lower[j];
      if (!(fabs(res) <= atLeastOne(m->lower[j]) * kOutputTol)) {
        if (log) log("Error VerifyModelBound: lower residual (%d) = %15.7g", j, res);
        status = IPM_STATUS_FAILED;
      }
    }
    if (m->upper[j] < inf) {
      const double res = x + solution->upperSlack[j] - m->upper[j];
      if (!(fabs(res) <= atLeastOne(m->upper[j]) * kOutputTol)) {
        if (log) log("Error VerifyModelBound: upper residual (%d) = %15.7g", j, res);
        status = IPM_STATUS_FAILED;
      }
    }
  }
  return status;
}

int32_t VerifyModelDual(HalvexEnv* env, int32_t level, ipmModel* m, ipmOption*,
                        ipmSolution* solution) {
  if (level < kResult) return 0;
  running(env);
  double* y = poolNew<double>(env->pool, m->numCol > 0 ? m->numCol : 1, true);
  if (!y) return IPM_STATUS_OUT_OF_MEMORY;
  vectorTimesMatrix(m->numCol, m->colBegin, m->colLength, m->rowIndex, m->matValue,
                    solution->solDual, y);
  if (m->typeModel == IPM_MODEL_QP && m->quadDiag) {
    const bool offDiag = m->numQuadCoef > 0;
    symmatrixTimesVector(m->numCol, offDiag ? m->quadColBegin : nullptr,
                         offDiag ? m->quadColLength : nullptr, m->quadRowIndex, m->quadMatValue,
                         m->quadDiag, solution->solPrimal, y, -1.0);
  }
  TextLogFn log = env->textLog;
  int32_t status = 0;
  for (int32_t j = 0; j < m->numCol; j++) {
    const double res = y[j] + solution->lowerDual[j] + solution->upperDual[j] - m->obj[j];
    if (!(fabs(res) <= atLeastOne(m->obj[j]) * kOutputTol)) {
      if (log) log("Error VerifyModelDual: dual residual (%d) = %15.7g", j, res);
      status = IPM_STATUS_FAILED;
    }
  }
  poolFree(env->pool, y);
  return status;
}

int32_t VerifyOutput(HalvexEnv* env, int32_t level, ipmModel* m, ipmOption* option,
                     ipmSolution* solution) {
  if (level < kResult) return 0;
  running(env);
  TextLogFn log = env->textLog;
  int32_t status = 0;
  auto fail = [&](const char* format, auto... values) {
    if (log) log(format, values...);
    status = IPM_STATUS_FAILED;
  };
  const double pt = option->primalTol, dt = option->dualTol, gt = option->gapTol * 100.0;
  const double inf = option->infinity;
  // A product of a slack and its dual is judged against the objective's
  // size: the gap that stopped the iteration was relative to it too.
  const double complScale = atLeastOne(m->objValue);
  const ipmSolution* s = solution;
  // Postsolve measures a slack from the 1e20 that stands for "no bound"
  // where a row had defined the bound; such a slack means no bound too.
  auto noBoundSlack = [inf](double slack) { return fabs(slack) >= 0.5 * inf; };

  for (int32_t j = 0; j < m->numCol; j++) {
    const double x = s->solPrimal[j], sl = s->lowerSlack[j], su = s->upperSlack[j];
    const double zl = s->lowerDual[j], zu = s->upperDual[j];
    if (sl + pt < 0.0) fail("Error VerifyOutput: lower slack(%d) = %15.7g should be non-negative", j, sl);
    if (su + pt < 0.0) fail("Error VerifyOutput: upper slack(%d) = %15.7g should be non-negative", j, su);
    if (zl + dt < 0.0) fail("Error VerifyOutput: lower dual(%d) = %15.7g should be non-negative", j, zl);
    if (zu > dt) fail("Error VerifyOutput: upper dual(%d) = %15.7g should be non-positive", j, zu);
    if (!(m->lower[j] > -inf)) {
      if (sl != 0.0 && !noBoundSlack(sl)) fail("Error VerifyOutput: lower slack(%d) = %15.7g should be zero", j, sl);
      if (zl != 0.0) fail("Error VerifyOutput: lower dual(%d) = %15.7g should be zero", j, zl);
    } else {
      const double res = x - sl - m->lower[j];
      if (!(fabs(res) <= kOutputTol * atLeastOne(m->lower[j]))) {
        fail("Error VerifyOutput: lower bound residual(%d) = %15.7g should be zero", j, res);
        if (log) log("                    lower=%15.7g  x=%15.7g  slack=%15.7g", m->lower[j], x, sl);
      }
      if (!(fabs(sl * zl) <= gt * complScale))
        fail("Error VerifyOutput: violate lower bound complementarity lowerSlack(%d)=%15.7g  "
             "lowerDual(%d)=%15.7g", j, sl, j, zl);
    }
    if (!(m->upper[j] < inf)) {
      if (su != 0.0 && !noBoundSlack(su)) fail("Error VerifyOutput: upper slack(%d) = %15.7g should be zero", j, su);
      if (zu != 0.0) fail("Error VerifyOutput: upper dual(%d) = %15.7g should be zero", j, zu);
    } else {
      const double res = x + su - m->upper[j];
      if (!(fabs(res) <= kOutputTol * atLeastOne(m->upper[j]))) {
        fail("Error VerifyOutput: upper bound residual(%d) = %15.7g should be zero", j, res);
        if (log) log("                    upper=%15.7g  x=%15.7g  slack=%15.7g", m->upper[j], x, su);
      }
      if (!(fabs(su * zu) <= gt * complScale))
        fail("Error VerifyOutput: violate upper bound complementarity upperSlack(%d)=%15.7g  "
             "upperDual(%d)=%15.7g", j, su, j, zu);
    }
    const double rc = m->reducedCost[j];
    if (!(fabs(rc - (zl + zu)) <= kOutputTol * atLeastOne(m->obj[j]))) {
      fail("Error VerifyOutput: dual residual(%d) = %15.7g should be zero", j, rc - (zl + zu));
      if (log) log("                    reducedCost=%15.7g  lowerDual=%15.7g  upperDual=%15.7g", rc,
                   zl, zu);
    }
  }

  for (int32_t i = 0; i < m->numRow; i++) {
    const char sense = m->rowSense[i];
    const double act = m->rowActivity[i], slack = s->ineqnSlack[i], y = s->solDual[i];
    const double b = m->rhs[i], tol = kOutputTol * atLeastOne(b);
    if ((sense == 'L' || sense == 'G' || sense == 'R') && slack + pt < 0.0)
      fail("Error VerifyOutput: row slack(%d) = %15.7g should be non-negative", i, slack);
    switch (sense) {
      case 'R': {
        const double range = m->range[i];
        const double fromTop = act + slack - b, fromBottom = act + range - slack - b;
        const double res = fabs(fromTop) < fabs(fromBottom) ? fromTop : fromBottom;
        if (!(fabs(res) <= tol)) {
          fail("Error VerifyOutput: R row residual(%d) = %15.7g should be zero", i, res);
          if (log) log("                    rowActivity=%15.7g  slack=%15.7g  rhs=%15.7g", act,
                       slack, b);
        }
        if (slack > range + pt)
          fail("Error VerifyOutput: R row slack(%d)=%15.7g should <= range=%15.7g", i, slack, range);
        const double room = slack < range - slack ? slack : range - slack;
        if (!(fabs(room * y) <= gt * complScale))
          fail("Error VerifyOutput: violate range complementarity solDual(%d)=%15.7g should be zero",
               i, y);
        break;
      }
      case 'L':
      case 'G': {
        const double res = sense == 'L' ? act + slack - b : act - slack - b;
        if (!(fabs(res) <= tol)) {
          fail(sense == 'L' ? "Error VerifyOutput: L row residual(%d) = %15.7g should be zero"
                            : "Error VerifyOutput: G row residual(%d) = %15.7g should be zero",
               i, res);
          if (log) log("                    rowActivity=%15.7g  slack=%15.7g  rhs=%15.7g", act,
                       slack, b);
        }
        if (sense == 'L' && y > dt)
          fail("Error VerifyOutput: dual(%d) = %15.7g should be non-positive", i, y);
        if (sense == 'G' && y + dt < 0.0)
          fail("Error VerifyOutput: dual(%d) = %15.7g should be non-negative", i, y);
        if (!(fabs(slack * y) <= gt * complScale))
          fail("Error VerifyOutput: violate row complementarity ineqnSlack(%d)=%15.7g  "
               "solDual(%d)=%15.7g", i, slack, i, y);
        break;
      }
      case 'E': {
        if (!(fabs(act - b) <= tol)) {
          fail("Error VerifyOutput: E row residual(%d) = %15.7g should be zero", i, act - b);
          if (log) log("                    rowActivity=%15.7g  rhs=%15.7g", act, b);
        }
        if (slack != 0.0) fail("Error VerifyOutput: row slack(%d) = %15.7g should be zero", i, slack);
        break;
      }
      case 'N': break;
      default: fail("Error VerifyOutput: unknown row sense(%d)=%d", i, (int32_t)sense);
    }
  }

  if (level >= kListing && log) {
    log("===== output solution: numRow = %d =====", m->numRow);
    for (int32_t i = 0; i < m->numRow; i++)
      log("row(%d)  dual=%15.7g  slack=%15.7g  activ=%15.7g  rhs=%10.4g", i, s->solDual[i],
          s->ineqnSlack[i], m->rowActivity[i], m->rhs[i]);
    log("===== output solution: numCol = %d =====", m->numCol);
    for (int32_t j = 0; j < m->numCol; j++) {
      log("   col(%d)", j);
      log("             solPrimal=%15.7g         rc=%15.7g    obj=%15.7g", s->solPrimal[j],
          m->reducedCost[j], m->obj[j]);
      log("            lowerSlack=%15.7g  lowerDual=%15.7g  lower=%15.7g", s->lowerSlack[j],
          s->lowerDual[j], m->lower[j]);
      log("            upperSlack=%15.7g  upperDual=%15.7g  upper=%15.7g", s->upperSlack[j],
          s->upperDual[j], m->upper[j]);
    }
  }
  return status;
}

// Shifting the finished point with the model must leave a point that the
// shifted model accepts, and shifting both back must give the original:
// the shift proven by being done again.
int32_t VerifyShiftBound(HalvexEnv* env, int32_t level, ipmModel* m, ipmOption* option,
                         presolver* pre, ipmSolution* solution) {
  if (level < kResult) return 0;
  running(env);
  double* savedValue = pre->shiftValue;
  int32_t* savedStatus = pre->shiftStatus;
  pre->shiftValue = nullptr;
  pre->shiftStatus = nullptr;
  auto flipUpperDual = [&]() {
    for (int32_t j = 0; j < m->numCol; j++) solution->upperDual[j] = -solution->upperDual[j];
  };
  auto threeChecks = [&](int32_t* status) {
    int32_t rc;
    if ((rc = VerifyModelPrimal(env, level, m, option, solution)) != 0) *status = rc;
    if ((rc = VerifyModelBound(env, level, m, option, solution)) != 0) *status = rc;
    if ((rc = VerifyModelDual(env, level, m, option, solution)) != 0) *status = rc;
  };
  flipUpperDual();
  int32_t status = ipmShiftBound(env, m, option, pre, solution);
  if (status == 0) {
    flipUpperDual();
    threeChecks(&status);
    flipUpperDual();
    ipmShiftRestore(env, m, option, pre, solution);
    flipUpperDual();
    threeChecks(&status);
  } else {
    flipUpperDual();
  }
  if (pre->shiftValue) poolFree(env->pool, pre->shiftValue);
  if (pre->shiftStatus) poolFree(env->pool, pre->shiftStatus);
  pre->shiftValue = savedValue;
  pre->shiftStatus = savedStatus;
  return status;
}

namespace {

void dumpColumns(TextLogFn log, int32_t numCol, const int32_t* begin, const int32_t* length,
                 const int32_t* index, const double* value, const char* beginName,
                 const char* entryFormat) {
  for (int32_t j = 0; j < numCol; j++) {
    const int32_t len = length ? length[j] : begin[j + 1] - begin[j];
    log(beginName, j, begin[j], j, len);
    for (int32_t p = begin[j]; p < begin[j] + len; p++) log(entryFormat, p, index[p], p, value[p]);
  }
}

}  // namespace

void DumpModel(HalvexEnv* env, int32_t numRow, const char* rowSense, const double* rhs,
               int32_t numCol, const double* obj, const double* lower, const double* upper,
               int32_t numCoef, const int32_t* colBegin, const int32_t* colLength,
               const int32_t* rowIndex, const double* matValue) {
  TextLogFn log = env ? env->textLog : nullptr;
  if (!log) return;
  log("   ");
  log("===== input model: numRow = %d =====", numRow);
  for (int32_t i = 0; i < numRow; i++)
    log("   sense(%d)=%c   rhs(%d)=%15.7g", i, rowSense[i], i, rhs[i]);
  log("===== input model: numCol = %d =====", numCol);
  for (int32_t j = 0; j < numCol; j++)
    log("   obj(%d)=%15.7g   lower(%d)=%15.7g   upper(%d)=%15.7g", j, obj[j], j, lower[j], j,
        upper[j]);
  log("===== input model: numCoef = %d =====", numCoef);
  dumpColumns(log, numCol, colBegin, colLength, rowIndex, matValue,
              "   colBegin(%d)=%d   colLength(%d)=%d", "      rowIndex(%d)=%d   matValue(%d)=%15.7g");
}

void DumpModelQP(HalvexEnv* env, int32_t numCol, const double* quadDiag, int32_t numQuadCoef,
                 const int32_t* quadColBegin, const int32_t* quadColLength,
                 const int32_t* quadRowIndex, const double* quadMatValue) {
  TextLogFn log = env ? env->textLog : nullptr;
  if (!log) return;
  log("   ");
  log("===== input model: quadratic diagonal =====");
  for (int32_t j = 0; j < numCol; j++) log("   quadDiag(%d)=%15.7g", j, quadDiag[j]);
  log("===== input model: numQuadCoef = %d =====", numQuadCoef);
  dumpColumns(log, numCol, quadColBegin, quadColLength, quadRowIndex, quadMatValue,
              "   quadColBegin(%d)=%d   quadColLength(%d)=%d",
              "      quadRowIndex(%d)=%d   quadMatValue(%d)=%15.7g");
}

void DumpSolution(HalvexEnv* env, int32_t numCol, const double* primal, const double* lowerSlack,
                  const double* upperSlack, const double* lowerDual, const double* upperDual,
                  int32_t numRow, const double* dual, const double* ineqnSlack) {
  TextLogFn log = env ? env->textLog : nullptr;
  if (!log) return;
  log("   ");
  log("===== primal solution: numCol = %d =====", numCol);
  for (int32_t j = 0; j < numCol; j++) {
    log("   primal(%d)=%15.7g   lowerSlack(%d)=%15.7g   upperSlack(%d)=%15.7g", j, primal[j], j,
        lowerSlack[j], j, upperSlack[j]);
    log("                               lowerDual (%d)=%15.7g   upperDual (%d)=%15.7g", j,
        lowerDual[j], j, upperDual[j]);
  }
  log("===== dual solution: numRow = %d =====", numRow);
  for (int32_t i = 0; i < numRow; i++)
    log("   dual(%d)=%15.7g   ineqnSlack(%d)=%15.7g", i, dual[i], i, ineqnSlack[i]);
}

void DumpEquation(HalvexEnv* env, int32_t numDim, const double* rhs, int32_t numCoef,
                  const int32_t* colBegin, const int32_t* colLength, const int32_t* rowIndex,
                  const double* matValue) {
  TextLogFn log = env ? env->textLog : nullptr;
  if (!log) return;
  log("   ");
  log("===== equation rhs: numDim = %d =====", numDim);
  for (int32_t i = 0; i < numDim; i++) log("   rhs(%d)=%15.7g", i, rhs[i]);
  log("===== equation matrix : numCoef = %d =====", numCoef);
  dumpColumns(log, numDim, colBegin, colLength, rowIndex, matValue,
              "   colBegin(%d)=%d   colLength(%d)=%d", "      rowIndex(%d)=%d   matValue(%d)=%15.7g");
}
