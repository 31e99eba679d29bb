#include "lprecord.h"

#include <cstring>


namespace hxcli {

bool buildLPRecord(const MpsProblem& p, LPModel* model, std::string* error) {
  LPModel& m = *model;
  if (p.isQP()) {
    *error = "the problem has a quadratic part; the LP entry takes linear problems only";
    return false;
  }
  if (!buildQPRecord(p, &m.qp, error)) return false;
  QPModel& q = m.qp;
  const QPRecord& qr = q.record;

  // Column lengths and reduced costs cover the spare slack columns as well:
  // a solver that adds them in place finds the arrays long enough.
  const size_t cols = q.colBegin.size() - 1;
  m.colLength.assign(cols > 0 ? cols : 1, 0);
  for (size_t j = 0; j < cols; ++j) m.colLength[j] = q.colBegin[j + 1] - q.colBegin[j];
  m.reducedCost.assign(cols > 0 ? cols : 1, 0.0);
  m.objConstant = p.objConstant;

  LPRecord& r = m.record;
  std::memset(&r, 0, sizeof r);
  r.objSense = qr.objSense;
  r.numRow = qr.numRow;
  r.numCol = qr.numCol;
  r.numCoef = qr.numCoef;
  r.matValue = qr.matValue;
  r.rowIndex = qr.rowIndex;
  r.colBegin = qr.colBegin;
  r.colLength = m.colLength.data();
  r.obj = qr.obj;
  r.rhs = qr.rhs;
  r.range = qr.range;
  r.lower = qr.lower;
  r.upper = qr.upper;
  r.rowSense = qr.rowSense;
  r.solPrimal = qr.solPrimal;
  r.solDual = qr.solDual;
  r.objConstant = m.objConstant;
  r.reducedCost = m.reducedCost.data();
  r.rowActivity = qr.rowActivity;
  return true;
}

void resetLPRecord(LPModel* model) {
  LPRecord& r = model->record;
  r.objConstant = model->objConstant;
  r.status = 0;
  r.iteration = 0;
  r.primalInfeas = r.dualInfeas = r.boundInfeas = 0.0;
  r.dualityGap = r.complementarity = 0.0;
  r.presolveTime = r.totalTime = 0.0;
  r.returnCode = 0;
}

SolveSummary summaryFromLPRecord(const LPRecord& r) {
  SolveSummary s;
  s.returnCode = hostReturnCode(r.status);
  s.objective = r.objConstant;  // the objective value, on return
  s.iterations = r.iteration;
  s.primalInfeas = r.primalInfeas;
  s.dualInfeas = r.dualInfeas;
  s.boundInfeas = r.boundInfeas;
  s.dualityGap = r.dualityGap;
  s.complementarity = r.complementarity;
  s.solverTime = r.totalTime;
  return s;
}

LPContext makeLpContext(QVPool* pool, TextLogFn textLog, MessageLog* messageLog) {
  LPContext c;
  std::memset(&c, 0, sizeof c);
  c.env.pool = pool;
  c.env.textLog = textLog;
  c.env.messageLog = messageLog;
  return c;
}

}  // namespace hxcli
