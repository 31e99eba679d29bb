// Test support of the iteration: small models built in code, a dense view of
// the augmented matrix, a dense solve, and a dense numeric phase that tests
// put behind the bridge when they need to make it fail on purpose.
#ifndef HALVEX_TESTS_IPM_SUPPORT_H
#define HALVEX_TESTS_IPM_SUPPORT_H

#include <math.h>
#include <stdarg.h>

#include <map>
#include <string>
#include <vector>

#include "ipm/ipm.h"
#include "records/model.h"
#include "frame/qv.h"
#include "support/support.h"

namespace ipmtest {

// A message log that keeps what it was given, with the values of an
// iteration-table line.
struct LoggedMessage {
  int severity;
  int64_t code;
  int32_t iteration;
  double values[5];
};
inline std::vector<LoggedMessage>& loggedMessages() {
  static std::vector<LoggedMessage> messages;
  return messages;
}
inline void logMessage(MessageLog*, int32_t severity, int64_t code, ...) {
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

using Dense = std::vector<std::vector<double>>;

// Solves K z = b by Gaussian elimination with partial pivoting; tiny pivots
// are nudged, as a static-pivoting factorisation would.
inline std::vector<double> denseSolve(Dense k, std::vector<double> b) {
  const size_t n = b.size();
  std::vector<size_t> perm(n);
  for (size_t i = 0; i < n; i++) perm[i] = i;
  for (size_t c = 0; c < n; c++) {
    size_t best = c;
    for (size_t r = c + 1; r < n; r++)
      if (fabs(k[r][c]) > fabs(k[best][c])) best = r;
    std::swap(k[c], k[best]);
    std::swap(b[c], b[best]);
    if (fabs(k[c][c]) < 1e-30) k[c][c] = 1e-30;
    for (size_t r = c + 1; r < n; r++) {
      const double f = k[r][c] / k[c][c];
      if (f == 0.0) continue;
      for (size_t q = c; q < n; q++) k[r][q] -= f * k[c][q];
      b[r] -= f * b[c];
    }
  }
  std::vector<double> z(n);
  for (size_t i = n; i-- > 0;) {
    double s = b[i];
    for (size_t q = i + 1; q < n; q++) s -= k[i][q] * z[q];
    z[i] = s / k[i][i];
  }
  return z;
}

// The augmented matrix as a dense array, from column-wise arrays.
inline Dense denseOf(int32_t n, const int32_t* begin, const int32_t* index, const double* value) {
  Dense d(n, std::vector<double>(n, 0.0));
  for (int32_t j = 0; j < n; j++)
    for (int32_t k = begin[j]; k < begin[j + 1]; k++) d[index[k]][j] += value[k];
  return d;
}

// Dense numeric phase: keeps a dense copy per factor handle.
struct DenseNumeric {
  static std::map<const void*, Dense>& store() {
    static std::map<const void*, Dense> s;
    return s;
  }
  static int32_t factor(int32_t, int32_t n, const int32_t* begin, const int32_t* index,
                        const double* value, LAEnv*, LASymbolic*, LANumeric* numeric) {
    store()[numeric] = denseOf(n, begin, index, value);
    return 0;
  }
  static int32_t solve(int32_t, const int32_t*, const int32_t*, const double*, double* x, LAEnv*,
                       LASymbolic*, LANumeric* numeric) {
    auto it = store().find(numeric);
    if (it == store().end()) return 2;
    const Dense& k = it->second;
    std::vector<double> b(x, x + k.size());
    std::vector<double> z = denseSolve(k, b);
    // One round of refinement, as the library does.
    std::vector<double> r(b);
    for (size_t i = 0; i < k.size(); i++)
      for (size_t j = 0; j < k.size(); j++) r[i] -= k[i][j] * z[j];
    std::vector<double> dz = denseSolve(k, r);
    for (size_t i = 0; i < k.size(); i++) x[i] = z[i] + dz[i];
    return 0;
  }
};

constexpr double kInf = 1e+20;

// A model in code: A dense by rows, senses as a string ('E','G','L','R').
// For an R row, rhs is the upper end and range the width.  Arrays have room
// for the range slacks.
struct Problem {
  int32_t type = IPM_MODEL_LP;
  int32_t numRow = 0, numCol = 0;
  std::vector<int32_t> colBegin, colLength, rowIndex;
  std::vector<double> matValue, obj, lower, upper, rhs, range;
  std::string sense;
  std::vector<int32_t> qBegin, qLength, qIndex;  // strict lower triangle of Q
  std::vector<double> qValue, qDiag;
  std::vector<double> x, y;
  ipmModel model{};
  ipmOption option{};
  ipmStorage storage{};

  Problem(const Dense& a, const std::string& senses, std::vector<double> b,
          std::vector<double> c, std::vector<double> lo, std::vector<double> up,
          std::vector<double> ranges = {}) {
    numRow = (int32_t)a.size();
    numCol = (int32_t)c.size();
    int32_t numRange = 0;
    for (char s : senses) numRange += s == 'R';
    const int32_t cols = numCol + numRange;
    for (int32_t j = 0; j < numCol; j++) {
      colBegin.push_back((int32_t)rowIndex.size());
      for (int32_t i = 0; i < numRow; i++)
        if (a[i][j] != 0.0) {
          rowIndex.push_back(i);
          matValue.push_back(a[i][j]);
        }
      colLength.push_back((int32_t)rowIndex.size() - colBegin.back());
    }
    const int32_t numCoef = (int32_t)rowIndex.size();
    colBegin.resize(cols + 1, numCoef);
    colLength.resize(cols, 0);
    rowIndex.resize(numCoef + numRange, 0);
    matValue.resize(numCoef + numRange, 0.0);
    obj = c;
    obj.resize(cols, 0.0);
    lower = lo;
    lower.resize(cols, 0.0);
    upper = up;
    upper.resize(cols, 0.0);
    rhs = b;
    range = ranges.empty() ? std::vector<double>(numRow, 0.0) : ranges;
    sense = senses;
    x.assign(cols, 0.0);
    y.assign(numRow, 0.0);
    qDiag.assign(cols, 0.0);
    qBegin.assign(cols + 1, 0);
    qLength.assign(cols, 0);

    model.typeModel = type;
    model.numRow = numRow;
    model.numCol = numCol;
    model.numCoef = numCoef;
    model.objSense = 1;

    option.verifyLevel = 0;
    option.primalTol = 1e-8;
    option.dualTol = 1e-8;
    option.gapTol = 1e-8;
    option.infinity = kInf;
    option.maxIteration = 200;
    option.maxTime = 1e300;
    option.printFreq = 1;
    option.printLevel = 2;
    option.numThreads = 1;

    storage.objScale = 1.0;
    for (char s : senses) {
      storage.numRange += s == 'R';
      storage.numLcont += s == 'L';
    }
    link();
  }

  // Q given dense and symmetric; its strict lower triangle is stored.
  void setQuad(const Dense& q) {
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

  void link() {
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

  double objective() const {
    double v = 0.0;
    for (int32_t j = 0; j < numCol; j++) v += obj[j] * x[j] + 0.5 * qDiag[j] * x[j] * x[j];
    for (int32_t j = 0; j < numCol; j++)
      for (int32_t k = qBegin[j]; k < qBegin[j] + qLength[j]; k++)
        v += x[j] * qValue[k] * x[qIndex[k]];
    return v;
  }
};

// addSlack, ipmSolve, removeSlack, as the pipeline runs them.  The solution
// record is made before and released after; its ineqnSlack is copied out.
struct RunResult {
  int32_t status = 0;
  int32_t addStatus = 0;
  std::vector<double> ineqnSlack;
};

inline RunResult runSolve(HalvexEnv* env, Problem& p, IPM_timer* timer = nullptr) {
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

}  // namespace ipmtest

#endif  // HALVEX_TESTS_IPM_SUPPORT_H
