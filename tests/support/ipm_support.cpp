#include "support/ipm_support.h"

#include <math.h>
#include <stdarg.h>

namespace ipmtest {

std::vector<LoggedMessage>& loggedMessages() {
  static std::vector<LoggedMessage> messages;
  return messages;
}

void logMessage(MessageLog*, int32_t severity, int64_t code, ...) {
  LoggedMessage m{severity, code, -1, {0, 0, 0, 0, 0}};
  if (code == IPM_MSG_TABLE_LINE) {
    va_list ap;
    va_start(ap, code);
    m.iteration = va_arg(ap, int32_t);
    for (double& v : m.values) v = va_arg(ap, double);
    va_end(ap);
  }
  loggedMessages().push_back(m);
}

Problem::Problem(const Dense& a, const std::string& senses, std::vector<double> b,
                 std::vector<double> c, std::vector<double> lo, std::vector<double> up,
                 std::vector<double> ranges)
    : numRow((int32_t)a.size()), numCol((int32_t)c.size()), obj(c), lower(lo), upper(up),
      rhs(b), range(ranges.empty() ? std::vector<double>(a.size(), 0.0) : ranges),
      sense(senses) {
  for (char s : senses) {
    storage.numRange += s == 'R';
    storage.numLcont += s == 'L';
  }
  const int32_t numRange = storage.numRange, cols = numCol + numRange;
  for (int32_t j = 0; j < numCol; j++) {
    colBegin.push_back((int32_t)rowIndex.size());
    for (int32_t i = 0; i < numRow; i++)
      if (a[i][j] != 0.0) rowIndex.push_back(i), matValue.push_back(a[i][j]);
    colLength.push_back((int32_t)rowIndex.size() - colBegin.back());
  }
  // Room behind the matrix and the columns for the range slacks.
  const int32_t numCoef = (int32_t)rowIndex.size();
  colBegin.resize(cols + 1, numCoef);
  colLength.resize(cols, 0);
  rowIndex.resize(numCoef + numRange, 0);
  matValue.resize(numCoef + numRange, 0.0);
  for (auto* v : {&obj, &lower, &upper, &x, &qDiag}) v->resize(cols, 0.0);
  y.assign(numRow, 0.0);
  qBegin.assign(cols + 1, 0);
  qLength.assign(cols, 0);

  model.typeModel = type;
  model.numRow = numRow;
  model.numCol = numCol;
  model.numCoef = numCoef;
  model.objSense = 1;
  option.primalTol = option.dualTol = option.gapTol = 1e-8;
  option.infinity = kInf;
  option.maxIteration = 200;
  option.maxTime = 1e300;
  option.printFreq = 1;
  option.printLevel = 2;
  option.numThreads = 1;
  storage.objScale = 1.0;
  link();
}

void Problem::setQuad(const Dense& q) {
  type = IPM_MODEL_QP;
  model.typeModel = IPM_MODEL_QP;
  qIndex.clear();
  qValue.clear();
  for (int32_t j = 0; j < numCol; j++) {
    qDiag[j] = q[j][j];
    qBegin[j] = (int32_t)qIndex.size();
    for (int32_t i = j + 1; i < numCol; i++)
      if (q[i][j] != 0.0) {
        qIndex.push_back(i);
        qValue.push_back(q[i][j]);
      }
    qLength[j] = (int32_t)qIndex.size() - qBegin[j];
  }
  for (size_t j = numCol; j < qBegin.size(); j++) qBegin[j] = (int32_t)qIndex.size();
  qIndex.push_back(0);  // keeps data() valid for a diagonal Q
  qValue.push_back(0.0);
  model.numQuadCoef = (int32_t)qIndex.size() - 1;
  link();
}

void Problem::link() {
  model.colBegin = colBegin.data();
  model.colLength = colLength.data();
  model.rowIndex = rowIndex.data();
  model.matValue = matValue.data();
  model.obj = obj.data();
  model.lower = lower.data();
  model.upper = upper.data();
  model.rhs = rhs.data();
  model.range = range.data();
  model.rowSense = &sense[0];
  model.solPrimal = x.data();
  model.solDual = y.data();
  if (type == IPM_MODEL_QP) {
    model.quadDiag = qDiag.data();
    model.quadColBegin = qBegin.data();
    model.quadColLength = qLength.data();
    model.quadRowIndex = qIndex.data();
    model.quadMatValue = qValue.data();
  }
}

double Problem::objective() const {
  double v = 0.0;
  for (int32_t j = 0; j < numCol; j++) v += obj[j] * x[j] + 0.5 * qDiag[j] * x[j] * x[j];
  for (int32_t j = 0; j < numCol; j++)
    for (int32_t k = qBegin[j]; k < qBegin[j] + qLength[j]; k++)
      v += x[j] * qValue[k] * x[qIndex[k]];
  return v;
}

Problem textbookLP() {
  return Problem({{1, 2}, {3, 1}}, "LL", {4, 6}, {-1, -1}, {0, 0}, {kInf, kInf});
}

RunResult runSolve(HalvexEnv* env, Problem& p, IPM_timer* timer) {
  RunResult out;
  p.link();  // the arrays may have moved with the object
  out.addStatus = addSlack(env, &p.model, &p.storage);
  if (out.addStatus) return out;
  ipmSolution* solution = nullptr;
  if (NewSolution(env, &solution, p.model.numRow, p.model.numCol, p.x.data(), p.y.data())) {
    out.status = IPM_STATUS_OUT_OF_MEMORY;
  } else {
    out.status = ipmSolve(env, &p.model, &p.option, nullptr, &p.storage, solution, timer,
                          IPM_CONTROL_FIRST_LEG);
    removeSlack(env, &p.model, &p.storage, solution);
    out.ineqnSlack.assign(solution->ineqnSlack, solution->ineqnSlack + p.model.numRow);
  }
  FreeSolution(env, solution);
  if (p.storage.rangeRow) poolFree(env->pool, p.storage.rangeRow);
  if (p.storage.lcontRow) poolFree(env->pool, p.storage.lcontRow);
  p.storage.rangeRow = nullptr;
  p.storage.lcontRow = nullptr;
  return out;
}

void IpmFixture::setUp(Problem model) {
  release();
  owned.reset(new Problem(std::move(model)));
  Problem& p = *owned;
  p.link();
  ASSERT_EQ(addSlack(&env, &p.model, &p.storage), 0);
  ASSERT_EQ(NewSolution(&env, &solution, p.model.numRow, p.model.numCol, p.x.data(), p.y.data()),
            0);
  ipm = NewIpm(&env, &p.model, nullptr, IPM_CONTROL_FIRST_LEG);
  ASSERT_NE(ipm, nullptr);
  ipmGetOption(ipm, &p.option);
  ipmSetParam(ipm, &p.option);
  ASSERT_EQ(CreateIpm(ipm), 0);
  AssignIpm(ipm, &p.model, solution);
  AnalyzeIpm(ipm);
}

void IpmFixture::release() {
  if (ipm) {
    FreeIpm(ipm);
    poolFree(pool, ipm);
    ipm = nullptr;
  }
  FreeSolution(&env, solution);
  solution = nullptr;
  if (owned) {
    if (owned->storage.rangeRow) poolFree(pool, owned->storage.rangeRow);
    if (owned->storage.lcontRow) poolFree(pool, owned->storage.lcontRow);
    owned.reset();
  }
}

bool IpmFixture::hasLower(int32_t j) const {
  return ipm->varBndType[j] & (VARBND_LOWER | VARBND_LOWER_ZERO);
}
bool IpmFixture::hasUpper(int32_t j) const { return ipm->varBndType[j] & VARBND_UPPER; }

Dense IpmFixture::denseA() const {
  return hxtest::denseFromCsc(ipm->numRow, ipm->numCol, ipm->colBegin, ipm->colLength,
                              ipm->rowIndex, ipm->matValue);
}

Dense IpmFixture::denseQ() const {
  const int32_t n = ipm->numCol;
  if (ipm->modelType != IPM_MODEL_QP) return Dense(n, Vec(n, 0.0));
  Dense q = hxtest::denseFromCsc(n, n, ipm->quadColBegin, ipm->quadColLength, ipm->quadRowIndex,
                                 ipm->quadMatValue, true);
  for (int32_t j = 0; j < n; j++) q[j][j] += ipm->quadDiag[j];
  return q;
}

Dense IpmFixture::denseKkt() const {
  return hxtest::denseFromCsc(ipm->numDim, ipm->numDim, ipm->kktBegin, ipm->kktIndex,
                              ipm->kktValue);
}

double IpmFixture::kktError() const {
  const int32_t n = ipm->numCol, m = ipm->numRow;
  const Vec x(ipm->solPrimal, ipm->solPrimal + n), y(ipm->solDual, ipm->solDual + m);
  const Dense a = denseA();
  const Vec ax = hxtest::multiply(a, x), qx = hxtest::multiply(denseQ(), x);
  double worst = 0.0;
  auto note = [&](double v) { worst = fmax(worst, fabs(v)); };
  auto pair = [&](double s, double z) {
    note(s * z);
    note(fmin(0.0, s));
    note(fmin(0.0, z));
  };
  for (int32_t j = 0; j < n; j++) {
    double r = ipm->obj[j] + qx[j];
    for (int32_t i = 0; i < m; i++) r -= a[i][j] * y[i];
    if (hasLower(j)) {
      r -= ipm->lowerDual[j];
      note(x[j] - ipm->lower[j] - ipm->lowerSlack[j]);
      pair(ipm->lowerSlack[j], ipm->lowerDual[j]);
    }
    if (hasUpper(j)) {
      r += ipm->upperDual[j];
      note(ipm->upper[j] - x[j] - ipm->upperSlack[j]);
      pair(ipm->upperSlack[j], ipm->upperDual[j]);
    }
    note(r);
  }
  for (int32_t i = 0; i < m; i++) {
    note(ax[i] - ipm->rhs[i] - ipm->ineqnSlack[i]);
    if (isG(i))
      pair(ipm->ineqnSlack[i], y[i]);
    else
      note(ipm->ineqnSlack[i]);
  }
  return worst;
}

}  // namespace ipmtest
