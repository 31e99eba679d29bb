// The main loop: measure, judge, and either stop, try the active-set finish,
// or take one Newton step with one factorisation and two solves.
#include "frame/qv.h"
#include "ipm/ipm.h"
#include "ipm/submodel.h"
#include "presolve/presolver.h"
#include "verify/verify.h"

namespace {

bool isFeasible(const Ipm* ipm) {
  return ipm->primalInfeas <= ipm->primalTol && ipm->boundInfeas <= ipm->primalTol &&
         ipm->dualInfeas <= ipm->dualTol;
}

}  // namespace

void ipmJudge(Ipm* ipm, int32_t st) {
  const bool feasible = isFeasible(ipm);
  if (st == IPM_STATUS_OPTIMAL) {
    ipm->status = IPM_STATUS_OPTIMAL;
    // Under a heavily shrunk objective an optimum is not believed until the
    // active-set finish has confirmed it.
    ipm->control = ipm->smallObjScale ? IPM_CONTROL_RESET_GO_ON : IPM_CONTROL_STOP;
    return;
  }
  if (feasible && ipm->complRatio <= 0.001) {
    // Feasible with the pairs separated: the active set can be trusted.
    ipm->status = st;
    ipm->control = IPM_CONTROL_RESET_GO_ON;
    return;
  }
  const double muBase = ipm->muFirst > 1.0 ? ipm->muFirst : 1.0;
  if (ipm->mu > 1000.0 * muBase) {
    ipm->status = st;
    ipm->control = IPM_CONTROL_STOP;
    return;
  }
  ipm->status = st;
  if (ipm->mu <= 0.99 * ipm->muPrev || ipm->mu > 0.0001 || ipm->dualityGap >= 0.1) {
    ipm->numStall = 0;
  } else {
    const bool noProgress =
        (ipm->primalInfeas > 0.99 * ipm->primalPrev || ipm->primalPrev <= ipm->primalTol) &&
        (ipm->boundInfeas > 0.99 * ipm->boundPrev || ipm->boundPrev <= ipm->primalTol) &&
        (ipm->dualInfeas > 0.99 * ipm->dualPrev || ipm->dualPrev <= ipm->dualTol);
    if (noProgress && ++ipm->numStall >= 3) {
      if (ipm->primalInfeas > 100.0 * ipm->primalTol ||
          ipm->boundInfeas > 100.0 * ipm->primalTol || ipm->dualInfeas > 100.0 * ipm->dualTol) {
        ipm->control = IPM_CONTROL_STOP;
      } else if (ipm->complRatio >= 0.1) {
        ipm->status = IPM_STATUS_ACCEPTABLE;
        ipm->control = IPM_CONTROL_STOP;
      } else {
        ipm->control = IPM_CONTROL_RESET_STOP;
      }
      return;
    }
  }
  const bool good =
      (ipm->mu <= ipm->muPrev && ipm->dualityGap <= ipm->gapPrev) ||
      (ipm->primalInfeas <= 0.99 * ipm->primalPrev && ipm->boundInfeas <= 0.99 * ipm->boundPrev &&
       ipm->dualInfeas <= 0.99 * ipm->dualPrev);
  if (!good) ipm->numBadIter++;
  if (ipm->numBadIter > 49) ipm->control = IPM_CONTROL_STOP;
  if (ipm->mu < ipm->muLimit) ipm->control = IPM_CONTROL_STOP;
  if (ipm->divisor < ipm->divisorLimit) ipm->control = IPM_CONTROL_STOP;
  if (ipm->checkSolverBreak && ipm->checkSolverBreak(ipm->scripterDataStruct)) {
    ipm->status = IPM_STATUS_INTERRUPTED;
    ipm->control = IPM_CONTROL_STOP;
    return;
  }
  int32_t reached = 0;
  if (ipm->iteration >= ipm->maxIteration) {
    ipm->status = IPM_STATUS_ITERATION_LIMIT;
    ipm->control = IPM_CONTROL_STOP;
  } else if (ipm->timer && IPM_timerReachLimit(ipm->timer, &reached) == 0 && reached) {
    ipm->status = IPM_STATUS_TIME_LIMIT;
    ipm->control = IPM_CONTROL_STOP;
  } else if (ipm->iteration > 999) {
    // A hard cap below any maxIteration, and a failure rather than a limit.
    ipm->status = IPM_STATUS_FAILED;
    ipm->control = IPM_CONTROL_STOP;
  }
}

void printLog(Ipm* ipm) {
  if (ipm->printLevel == 0 || ipm->printLevel == 1 || ipm->printFreq <= 0) return;
  if (ipm->control != IPM_CONTROL_STOP && ipm->iteration % ipm->printFreq != 0) return;
  MessageLog* log = ipm->env ? ipm->env->messageLog : nullptr;
  if (!log || !log->log) return;
  log->log(log, MSG_TABLE_LINE, IPM_MSG_TABLE_LINE, ipm->iteration, ipm->complementarity,
           ipm->dualityGap, ipm->primalInfeas, ipm->boundInfeas, ipm->dualInfeas);
}

void getSolverStat(ipmModel* model, const Ipm* ipm) {
  if (!model) return;
  model->iteration = ipm ? ipm->iteration : 0;
  model->primalInfeas = ipm ? ipm->primalInfeas : 0.0;
  model->dualInfeas = ipm ? ipm->dualInfeas : 0.0;
  model->boundInfeas = ipm ? ipm->boundInfeas : 0.0;
  model->dualityGap = ipm ? ipm->dualityGap : 0.0;
  model->complementarity = ipm ? ipm->complementarity : 0.0;
}

// The pass asked for a reset.  Returns -1 to go on with the step, otherwise
// the result to finish with.
int32_t ipmResetRoute(Ipm* ipm) {
  const int32_t asked = ipm->control;
  if (ipmReset(ipm) == 0) {
    ipm->control = IPM_CONTROL_STOP;
    printLog(ipm);
    // The new point stands for this pass's step, so the pass stays counted:
    // the reset's own increment and the finish's decrement cancel.
    return ipm->status;
  }
  ipm->numReset++;
  const bool feasible = isFeasible(ipm);
  if (feasible && ipm->dualityGap <= ipm->gapTol) {
    ipm->status = IPM_STATUS_OPTIMAL;
    ipm->control = IPM_CONTROL_STOP;
    ipm->iteration--;
    return IPM_STATUS_OPTIMAL;
  }
  if (feasible && ipm->complementarity <= ipm->complTol) {
    ipm->status = IPM_STATUS_ACCEPTABLE;
    ipm->control = IPM_CONTROL_STOP;
    ipm->iteration--;
    return IPM_STATUS_ACCEPTABLE;
  }
  if (asked == IPM_CONTROL_RESET_STOP || ipm->numReset > 4) {
    ipm->control = IPM_CONTROL_STOP;
    ipm->iteration--;
    return ipm->status;
  }
  ipm->control = IPM_CONTROL_RUN;
  return -1;
}

namespace {

int32_t setUp(Ipm* ipm, ipmModel* model, ipmOption* option, presolver* pre,
              ipmStorage* storage, ipmSolution* solution, subModel** subRef) {
  ipmGetOption(ipm, option);
  ipmSetParam(ipm, option);
  ipm->smallObjScale = storage && storage->objScale < 1e-05 ? 1 : 0;
  int32_t status = CreateIpm(ipm);
  if (status) return status;
  // The starting point leaves big data out of its systems; the sub-model
  // marks it on the scaled model with its slacks, and lives until the end.
  if ((status = NewSubModel(ipm->env, model, subRef)) != 0) return status;
  subModel* sub = *subRef;
  ipmMarkBigdata(ipm->env, model, sub, option);
  if ((status = CreateSubModel(ipm->env, model, pre, sub)) != 0) return status;
  if (ipm->verifyLevel && (status = VerifySubmodel(ipm->env, ipm->verifyLevel, model, sub)) != 0)
    return status;
  AssignIpm(ipm, model, solution);
  AnalyzeIpm(ipm);
  VerifyStatistics(ipm, ipm->verifyLevel);
  if (ipm->modelType == IPM_MODEL_LP) {
    status = ipmInitLP(ipm, sub);
  } else if (ipm->modelType == IPM_MODEL_QP) {
    status = ipmInitQP(ipm, sub);
  } else {
    if (ipm->env->textLog) ipm->env->textLog("Error ipmSolve: unknown model type.");
    return IPM_STATUS_FAILED;
  }
  // A triangular solve that fails before the first step is a breakdown like
  // any other; its own code means something only inside the loop.
  if (status == IPM_STATUS_SOLVE_FAILED) status = IPM_STATUS_FAILED;
  if (status) return status;
  if (ipm->printLevel != 0 && ipm->printLevel != 1) {
    MessageLog* log = ipm->env->messageLog;
    if (log && log->log) {
      log->log(log, MSG_TABLE_HEADING, IPM_MSG_TABLE_HEAD);
      log->log(log, MSG_TABLE_HEADING, IPM_MSG_TABLE_RULE);
    }
  }
  return 0;
}

// Result of a solve inside the loop, or -1 to go on.  A failed triangular
// solve returns the last verdict: the point is still worth reporting.
int32_t solveExit(Ipm* ipm, int32_t status) {
  if (status == 0) return -1;
  ipm->iteration--;
  if (status == IPM_STATUS_SOLVE_FAILED) return ipm->status;
  return status;
}

int32_t verifyMeasures(Ipm* ipm) {
  const int32_t level = ipm->verifyLevel;
  int32_t status;
  if ((status = VerifyPrimalInfeas(ipm, level)) != 0) return status;
  if ((status = VerifyBoundInfeas(ipm, level)) != 0) return status;
  if ((status = VerifyDualInfeas(ipm, level)) != 0) return status;
  if ((status = VerifyDualityGap(ipm, level)) != 0) return status;
  if ((status = VerifyComplementarity(ipm, level)) != 0) return status;
  if ((status = VerifyPredictorRhs(ipm, level)) != 0) return status;
  VerifySummaryReport(ipm, level);
  return 0;
}

int32_t iterate(Ipm* ipm) {
  const int32_t level = ipm->verifyLevel;
  int32_t status;
  for (;;) {
    ipm->muPrev = ipm->mu;
    ipm->gapPrev = ipm->dualityGap;
    ipm->primalPrev = ipm->primalInfeas;
    ipm->boundPrev = ipm->boundInfeas;
    ipm->dualPrev = ipm->dualInfeas;
    computeMeasurement(ipm);
    const int32_t st = getSolutionStatus(
        ipm->primalTol, ipm->dualTol, ipm->gapTol, ipm->complTol, ipm->primalInfeas,
        ipm->boundInfeas, ipm->dualInfeas, ipm->dualityGap, ipm->complementarity);
    if (ipm->iteration == 0) ipm->muFirst = ipm->mu;
    ipmJudge(ipm, st);
    printLog(ipm);
    if (ipm->control == IPM_CONTROL_STOP) return ipm->status;
    ipm->iteration++;
    if (ipm->control == IPM_CONTROL_RESET_GO_ON || ipm->control == IPM_CONTROL_RESET_STOP) {
      const int32_t r = ipmResetRoute(ipm);
      if (r != -1) return r;
    }

    computeAugmentDiag(ipm);
    status = ldlFactorize(ipm->env, ipm->numDim, ipm->kktBegin, ipm->kktIndex, ipm->kktValue,
                          ipm->LA_env, ipm->LDL_factor, ipm->LDL_memory);
    if (status) return status;
    if (level && (status = verifyMeasures(ipm)) != 0) return status;

    status = ldlSolve(ipm->env, level, ipm->numDim, ipm->control, ipm->kktBegin, ipm->kktIndex,
                      ipm->kktValue, ipm->vecRhs, ipm->LA_env, ipm->LDL_factor,
                      ipm->LDL_memory);
    if ((status = solveExit(ipm, status)) != -1) return status;
    computePredictor(ipm);
    computeMuAffine(ipm);
    computeSigma(ipm);
    if (ipm->sigma > 1.0) ipm->sigma = 1.0;
    if (level) {
      if ((status = VerifyKktPredictor(ipm, level)) != 0) return status;
      if ((status = VerifyStepsize(ipm, 0, level)) != 0) return status;
      VerifyPredictorReport(ipm, level);
    }

    computeRhsCorrector(ipm);
    status = ldlSolve(ipm->env, level, ipm->numDim, ipm->control, ipm->kktBegin, ipm->kktIndex,
                      ipm->kktValue, ipm->correctorPrimal, ipm->LA_env, ipm->LDL_factor,
                      ipm->LDL_memory);
    if ((status = solveExit(ipm, status)) != -1) return status;
    if (level && (status = VerifyCorrector(ipm, level)) != 0) return status;

    computeStepCombined(ipm);
    if (level) {
      if ((status = VerifyKktOverall(ipm, level)) != 0) return status;
      if ((status = VerifyStepsize(ipm, 0, level)) != 0) return status;
    }
    updateSolution(ipm);
    if (level && (status = VerifySolution(ipm, level)) != 0) return status;
  }
}

}  // namespace

int32_t ipmSolve(HalvexEnv* env, ipmModel* model, ipmOption* option, presolver* pre,
                 ipmStorage* storage, ipmSolution* solution, IPM_timer* timer,
                 int32_t initialControl) {
  if (!model) return IPM_STATUS_FAILED;
  if (!env || !option || !solution) {
    model->status = IPM_STATUS_FAILED;
    return IPM_STATUS_FAILED;
  }
  subModel* sub = nullptr;
  int32_t r;
  Ipm* ipm = NewIpm(env, model, timer, initialControl);
  if (!ipm) {
    r = IPM_STATUS_OUT_OF_MEMORY;
  } else if ((r = setUp(ipm, model, option, pre, storage, solution, &sub)) == 0) {
    r = iterate(ipm);
    ldlCleanUp(ipm->LA_env, &ipm->LDL_factor, &ipm->LDL_memory);
    if (r == IPM_STATUS_ACCEPTABLE && ipm->dualityGap <= ipm->gapTol) {
      ipm->status = IPM_STATUS_OPTIMAL;
      r = IPM_STATUS_OPTIMAL;
    }
    getSolverStat(model, ipm);
  }
  if (ipm) {
    FreeIpm(ipm);
    poolFree(env->pool, ipm);
  }
  FreeSubModel(env, sub);
  // The reductions' working arrays are of no further use; the maps stay for
  // the postsolve.
  if (pre) FreePresolver(env, pre);
  model->status = r;
  return r;
}
