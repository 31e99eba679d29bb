#include "records/pipeline.h"

#include "frame/qv.h"
#include "ipm/ipm.h"
#include "ipm/scale.h"
#include "ipm/shift.h"
#include "presolve/stage.h"
#include "records/lpdriver.h"
#include "records/model.h"
#include "verify/verify_io.h"

void FormatSolution(ipmModel* model, ipmSolution* solution) {
  for (int32_t j = 0; j < model->numCol; ++j) solution->upperDual[j] = -solution->upperDual[j];
}

void iplpReportStatus(double objValue, HalvexEnv* env, int32_t status, ipmOption* option) {
  if (option->printLevel == 0) return;
  MessageLog* log = env->messageLog;
  if (!log) return;
  int32_t severity = MSG_INFO;
  uint32_t code;
  bool withObjective = false;
  switch (status) {
    case IPM_STATUS_OPTIMAL: code = 0x827FD001; withObjective = true; break;
    case IPM_STATUS_ACCEPTABLE: code = 0x827FD009; withObjective = true; break;
    case IPM_STATUS_SIBLING_INFEASIBLE:
    case IPM_STATUS_PRIMAL_INFEASIBLE: code = 0x827FD00E; break;
    case IPM_STATUS_DUAL_INFEASIBLE: code = 0x827FD007; break;
    case IPM_STATUS_BOTH_INFEASIBLE: code = 0x827FD00F; break;
    case IPM_STATUS_ITERATION_LIMIT: code = 0x827FD008; withObjective = true; break;
    case IPM_STATUS_TIME_LIMIT:
      code = option->timerType == 0 ? 0x827FD00B : 0x827FD00C;
      withObjective = true;
      break;
    case IPM_STATUS_OUT_OF_MEMORY: code = 0x827FD006; severity = MSG_ERROR; break;
    case IPM_STATUS_INTERRUPTED: code = 0x827FD010; severity = MSG_WARNING; break;
    case IPM_STATUS_FAILED: code = 0x827FD00D; break;
    default: code = 0x827FD011; break;
  }
  log->log(log, severity, (int64_t)(int32_t)code);
  if (withObjective) log->log(log, MSG_INFO, (int64_t)(int32_t)0x827FD002, objValue);
}

int32_t iplpSolve(HalvexEnv* env, ipmModel* model, ipmOption* option, IPM_timer* timer,
                  LPRecord* lpRecord) {
  ipmModel* m = model;
  ipmStorage* storage = nullptr;
  presolver* pre = nullptr;
  ipmSolution* outerSolution = nullptr;
  ipmSolution* innerSolution = nullptr;
  int32_t rc = 0;
  bool solvedByPresolve = false;

  if (option->verifyLevel != 0 && ipmVerifyInput(env, option->verifyLevel, m) != 0) goto report;

  storage = poolNew<ipmStorage>(env->pool, 1);
  pre = poolNew<presolver>(env->pool, 1);
  if (!storage || !pre) {
    m->status = IPM_STATUS_OUT_OF_MEMORY;
    goto report;
  }

  // An LP with a presolve level has been presolved by bramlet already.
  if (m->typeModel == IPM_MODEL_LP && option->presolver != 0)
    rc = ipmPresolveDisabled(env, m, option, pre, storage, &outerSolution, &innerSolution);
  else
    rc = ipmPresolve(env, &m, option, pre, storage, &outerSolution, &innerSolution);
  if (pre->preRoute == PREROUTE_SOLVED) goto report;
  if (pre->preRoute == PREROUTE_KNOWN) {
    m->status = IPM_STATUS_OPTIMAL;
    solvedByPresolve = true;
  } else if (rc != 0) {
    m->status = rc;
    goto report;
  }

  if (!solvedByPresolve) {
    relaxBound(env, m, option);
    // A QP keeps its columns where they are: its quadratic term would have
    // to follow every shift.
    if (m->typeModel == IPM_MODEL_LP && (rc = ipmShiftBound(env, m, option, pre, nullptr)) != 0) {
      m->status = rc;
      goto report;
    }
    if ((rc = ipmScale(env, m, option, storage)) != 0 || (rc = addSlack(env, m, storage)) != 0) {
      m->status = rc;
      goto report;
    }
    // The point reached is unscaled and reported whatever the loop's status.
    ipmSolve(env, m, option, pre, storage, innerSolution, timer, IPM_CONTROL_FIRST_LEG);
    removeSlack(env, m, storage, innerSolution);
    if ((rc = ipmUnscale(env, m, option, storage, innerSolution)) != 0) {
      m->status = rc;
      goto report;
    }
    if (m->typeModel == IPM_MODEL_LP) ipmShiftRestore(env, m, option, pre, innerSolution);
  }

  if ((rc = ipmPostsolve(env, &m, option, pre, innerSolution, outerSolution)) != 0) {
    m->status = rc;
    goto report;
  }
  FormatSolution(m, outerSolution);

  if (m->status == IPM_STATUS_OPTIMAL || m->status == IPM_STATUS_ACCEPTABLE) {
    int32_t level = option->verifyLevel;
    if ((rc = VerifyModelPrimal(env, level, m, option, outerSolution)) != 0 ||
        (rc = VerifyModelBound(env, level, m, option, outerSolution)) != 0 ||
        (rc = VerifyModelDual(env, level, m, option, outerSolution)) != 0 ||
        (rc = VerifyOutput(env, level, m, option, outerSolution)) != 0 ||
        (pre->preRoute != PREROUTE_SOLVED &&
         (rc = VerifyShiftBound(env, level, m, option, pre, outerSolution)) != 0))
      m->status = rc;
  }

report:
  // A stage that failed while a reduced model was in play leaves postsolve
  // unrun: the caller's model takes the status and the reduced one goes.
  if (m != model) {
    FreeReducedModel(env, m, model);
    m = model;
  }
  iplpReportStatus(m->objValue, env, m->status, option);
  FreeStorage(env, storage);
  DestroyPresolver(env, m, pre);
  // Crossover runs whatever the status; it knows itself which points it
  // cannot start from.
  if (option->crossover != 0 && lpRecord) {
    double used = 0.0;
    if (timer) IPM_timerUsedTime(timer, &used);
    option->maxTime -= used;
    option->maxIteration -= m->iteration;
    rc = iplpCrossover(env, lpRecord, outerSolution, option, m->status);
    if (rc == 0) {
      m->status = lpRecord->status;
      m->primalInfeas = lpRecord->primalInfeas;
      m->dualInfeas = lpRecord->dualInfeas;
      m->boundInfeas = lpRecord->boundInfeas;
      m->objValue = lpRecord->objConstant;  // the record's objective value on return
      m->dualityGap = m->complementarity = 0.0;
      lpRecord->dualityGap = lpRecord->complementarity = 0.0;
    } else {
      m->status = rc;
    }
  }
  if (innerSolution != outerSolution) FreeSolution(env, innerSolution);
  FreeSolution(env, outerSolution);
  return m->status;
}
