#include "records/qpdriver.h"

#include <math.h>

#include "frame/instance.h"
#include "frame/qv.h"
#include "records/model.h"
#include "records/pipeline.h"
#include "util/timer.h"


static void negateObjective(ipmModel* m) {
  for (int32_t j = 0; j < m->numCol; ++j) {
    if (m->obj) m->obj[j] = -m->obj[j];
    if (m->quadDiag) m->quadDiag[j] = -m->quadDiag[j];
  }
  if (m->numQuadCoef > 0 && m->quadMatValue)
    for (int32_t k = 0; k < m->numQuadCoef; ++k) m->quadMatValue[k] = -m->quadMatValue[k];
}

// A range this wide leaves a row one end only (see qpPresolver).
static bool openRange(const ipmModel* m, int32_t i, double infinity) {
  return m->rowSense[i] == 'R' && m->range[i] >= infinity && m->rhs[i] > -infinity;
}

// Gives the host's arrays their own values back; a row whose zero range made
// it E stays E.
static void restoreHostNumbers(ipmModel* m, double infinity) {
  if (m->objSense == -1) negateObjective(m);
  for (int32_t i = 0; i < m->numRow; ++i) {
    if (m->rowSense[i] == 'R') m->rhs[i] -= m->range[i];
    // Only a row made G below keeps a range.
    if (m->rowSense[i] == 'G' && m->range && m->range[i] >= infinity) m->rowSense[i] = 'R';
  }
}

static void releaseMade(HalvexEnv* env, ipmModel* m, int32_t qpMade[4]) {
  QVPool* pool = env->pool;
  if (qpMade[QPMADE_COLBEGIN]) poolRelease(pool, m->colBegin);
  if (qpMade[QPMADE_COLLENGTH]) poolRelease(pool, m->colLength);
  if (qpMade[QPMADE_QUADCOLLENGTH]) poolRelease(pool, m->quadColLength);
  if (qpMade[QPMADE_REDUCEDCOST]) poolRelease(pool, m->reducedCost);
  for (int k = 0; k < 4; ++k) qpMade[k] = 0;
}

static bool outOfRange(double v) {
  // NaN fails every comparison, so it is caught by name.
  return isnan(v) || v > QP_MAX_MAGNITUDE || v < -QP_MAX_MAGNITUDE;
}

static bool anyOutOfRange(const double* v, int32_t n) {
  for (int32_t k = 0; k < n; ++k)
    if (outOfRange(v[k])) return true;
  return false;
}

// The structure every later stage relies on: counts, the arrays the counts
// call for, column starts that ascend and row numbers in range.  The checks
// of the diagnostics go further; these run on every solve, since a bad
// record must end in a status and not in a crash.
static const char* structureError(const ipmModel* m) {
  if (m->numRow < 0 || m->numCol < 0 || m->numCoef < 0 || m->numQuadCoef < 0)
    return "a negative count";
  if (m->numCol > 0 && (!m->obj || !m->lower || !m->upper || !m->solPrimal))
    return "a column array is missing";
  if (m->numRow > 0 && (!m->rhs || !m->rowSense || !m->solDual)) return "a row array is missing";
  if (m->numCoef > 0 && (!m->colBegin || !m->rowIndex || !m->matValue))
    return "a matrix array is missing";
  if (m->numQuadCoef > 0 && (!m->quadColBegin || !m->quadRowIndex || !m->quadMatValue))
    return "a quadratic matrix array is missing";
  for (int32_t i = 0; i < m->numRow; ++i) {
    char c = m->rowSense[i];
    if (c != 'E' && c != 'G' && c != 'L' && c != 'R' && c != 'N') return "an unknown row sense";
    if (c == 'R' && !m->range) return "a range row without ranges";
  }
  if (m->colBegin) {
    if (m->colBegin[0] != 0 || m->colBegin[m->numCol] != m->numCoef)
      return "column starts that do not match the entry count";
    for (int32_t j = 0; j < m->numCol; ++j)
      if (m->colBegin[j + 1] < m->colBegin[j]) return "column starts that descend";
    for (int32_t k = 0; k < m->numCoef; ++k)
      if (m->rowIndex[k] < 0 || m->rowIndex[k] >= m->numRow) return "a row index out of range";
  }
  if (m->numQuadCoef > 0) {
    if (m->quadColBegin[0] != 0 || m->quadColBegin[m->numCol] != m->numQuadCoef)
      return "quadratic column starts that do not match the entry count";
    for (int32_t j = 0; j < m->numCol; ++j)
      if (m->quadColBegin[j + 1] < m->quadColBegin[j]) return "quadratic column starts that descend";
    for (int32_t k = 0; k < m->numQuadCoef; ++k)
      if (m->quadRowIndex[k] < 0 || m->quadRowIndex[k] >= m->numCol)
        return "a quadratic row index out of range";
  }
  if ((m->checkSolverBreak == nullptr) != (m->scripterDataStruct == nullptr))
    return "a break call-back without its data, or data without the call-back";
  return nullptr;
}

// The limit is checked on the values the solve will see: an R row's rhs
// after its range has moved it to the upper end.
static bool numbersOutOfRange(const ipmModel* m) {
  if (anyOutOfRange(m->obj, m->numCol)) return true;
  if (m->numCoef > 0 && anyOutOfRange(m->matValue, m->numCoef)) return true;
  if (m->quadDiag && anyOutOfRange(m->quadDiag, m->numCol)) return true;
  if (m->numQuadCoef > 0 && anyOutOfRange(m->quadMatValue, m->numQuadCoef)) return true;
  // A NaN bound is neither a bound nor none; every size of bound is fine.
  for (int32_t j = 0; j < m->numCol; ++j)
    if (isnan(m->lower[j]) || isnan(m->upper[j])) return true;
  for (int32_t i = 0; i < m->numRow; ++i) {
    bool ranged = m->rowSense[i] == 'R';
    if (outOfRange(ranged ? m->rhs[i] + m->range[i] : m->rhs[i])) return true;
    if (ranged && outOfRange(m->range[i])) return true;
  }
  return false;
}

// Everything that can refuse the model or fail runs before the host's arrays
// are touched, so that a refused model leaves them exactly as they came: an
// instance serves many solves.
int32_t qpPresolver(HalvexEnv* env, ipmModel* m, ipmOption* option, int32_t qpMade[4]) {
  QVPool* pool = env->pool;
  for (int k = 0; k < 4; ++k) qpMade[k] = 0;
  if (const char* why = structureError(m)) {
    if (env->textLog) env->textLog("%1zThe QP record is malformed: %s.\n", why);
    return IPM_STATUS_FAILED;
  }
  if (numbersOutOfRange(m)) return IPM_STATUS_FAILED;

  const int64_t perColumn = m->numCol > 0 ? m->numCol : 1;
  if (!m->colBegin) {
    // A model without a matrix: every column empty.
    m->colBegin = poolNew<int32_t>(pool, (int64_t)m->numCol + 1);
    if (!m->colBegin) return IPM_STATUS_OUT_OF_MEMORY;
    qpMade[QPMADE_COLBEGIN] = 1;
  }
  if (!m->colLength) {
    m->colLength = poolNew<int32_t>(pool, perColumn);
    if (!m->colLength) {
      releaseMade(env, m, qpMade);
      return IPM_STATUS_OUT_OF_MEMORY;
    }
    qpMade[QPMADE_COLLENGTH] = 1;
    for (int32_t j = 0; j < m->numCol; ++j) m->colLength[j] = m->colBegin[j + 1] - m->colBegin[j];
  }
  if (!m->quadColLength && m->numQuadCoef > 0) {
    m->quadColLength = poolNew<int32_t>(pool, perColumn);
    if (!m->quadColLength) {
      releaseMade(env, m, qpMade);
      return IPM_STATUS_OUT_OF_MEMORY;
    }
    qpMade[QPMADE_QUADCOLLENGTH] = 1;
    for (int32_t j = 0; j < m->numCol; ++j)
      m->quadColLength[j] = m->quadColBegin[j + 1] - m->quadColBegin[j];
  }
  if (!m->reducedCost) {
    m->reducedCost = poolNew<double>(pool, perColumn);
    if (!m->reducedCost) {
      releaseMade(env, m, qpMade);
      return IPM_STATUS_OUT_OF_MEMORY;
    }
    qpMade[QPMADE_REDUCEDCOST] = 1;
  }

  // From here on the model is a minimisation with rhs at the upper end of
  // its R rows.
  if (m->objSense == -1) {
    negateObjective(m);
    m->objConstant = -m->objConstant;
  }
  if (m->range)
    for (int32_t i = 0; i < m->numRow; ++i)
      if (m->rowSense[i] != 'R') m->range[i] = 0.0;
  // A width of infinity or more would carry the upper end past infinity
  // and round the lower end away (b + 1e20 - 1e20 is not b): such a row is
  // solved as the G row it is, with its range kept to tell it apart on the
  // way back, as no other row has a range from here on.
  for (int32_t i = 0; i < m->numRow; ++i) {
    if (m->rowSense[i] != 'R') continue;
    if (openRange(m, i, option->infinity)) {
      m->rowSense[i] = 'G';
      continue;
    }
    m->rhs[i] += m->range[i];
    if (m->range[i] == 0.0) m->rowSense[i] = 'E';
  }
  if (m->rowActivity)
    for (int32_t i = 0; i < m->numRow; ++i) m->rowActivity[i] = 0.0;
  return 0;
}

int32_t qpPostsolver(HalvexEnv* env, ipmModel* m, ipmOption* option, int32_t qpMade[4]) {
  // objConstant stays negated: it lives in the internal record only, and the
  // objective value already carries the host's sign.
  int32_t st = m->status;
  if (st != IPM_STATUS_OPTIMAL && st != IPM_STATUS_ACCEPTABLE &&
      st != IPM_STATUS_ITERATION_LIMIT && st != IPM_STATUS_TIME_LIMIT) {
    // A failure shows zeros, never a half-finished point.
    for (int32_t j = 0; j < m->numCol; ++j) m->solPrimal[j] = 0.0;
    for (int32_t i = 0; i < m->numRow; ++i) {
      m->solDual[i] = 0.0;
      if (m->rowActivity) m->rowActivity[i] = 0.0;
    }
  }
  restoreHostNumbers(m, option->infinity);
  releaseMade(env, m, qpMade);
  return 0;
}

int32_t ipqpmain(HalvexEnv* env, QPRecord* record, ScripterOptions* options) {
  int32_t status = 0;
  IPM_timer* timer = IPM_timerCreate(env, env->pool, &status);
  if (!timer) {
    record->timeZero = 0.0;
    record->solverTime = 0.0;
    return QP_RETURN_OUT_OF_MEMORY;
  }
  timer->useRealTime = options->timerType;
  IPM_timerSetLimit(timer, options->maxTime);
  IPM_timerStart(timer);

  MessageLog* log = env->messageLog;
  ipmModel* model = nullptr;
  ipmOption* option = nullptr;
  QVModule* module = qvLoadModule("bramlet");
  if (!module) {
    if (log) log->log(log, MSG_ERROR, (int64_t)(int32_t)0x827FD806);
    status = IPM_STATUS_OUT_OF_MEMORY;
  } else {
    void** instance = static_cast<void**>(module->moduleCreateInstance(module));
    if (!instance) {
      if (log) log->log(log, MSG_ERROR, (int64_t)(int32_t)0x827FD807);
      status = IPM_STATUS_OUT_OF_MEMORY;
    } else {
      instance[1] = reinterpret_cast<void*>(env->textLog);
      instance[2] = env->messageLog;
      env->preModule = module;
      env->preObject = instance;
      model = CreateModelFromQP(env->pool, record);
      option = CreateOptionFromQP(env->pool, options);
      if (!model || !option) {
        status = IPM_STATUS_OUT_OF_MEMORY;
      } else {
        int32_t qpMade[4];
        status = qpPresolver(env, model, option, qpMade);
        if (status == 0) {
          status = iplpSolve(env, model, option, timer, nullptr);
          qpPostsolver(env, model, option, qpMade);
          ReturnModelToQP(model, record);
        }
      }
      reinterpret_cast<void (*)(void*)>(instance[3])(instance);
      env->preObject = nullptr;
    }
    module->moduleUnload(module);
    env->preModule = nullptr;
  }
  DestroyModel(env->pool, model);
  DestroyOption(env->pool, option);

  double used = 0.0;
  IPM_timerUsedTime(timer, &used);
  IPM_timerFree(env->pool, &timer);
  record->timeZero = 0.0;
  record->solverTime = used;
  return hostReturnCode(status);
}

int32_t ipqpScripter(void* instance, QPRecord* record) {
  HalvexInstance* self = static_cast<HalvexInstance*>(instance);
  return ipqpmain(&self->env, record, &self->scripter);
}
