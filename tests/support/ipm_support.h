// Test support of the iteration: small models built in code, the record
// made and analysed on one of them, and a message log that keeps what it
// was given.
#ifndef HALVEX_TESTS_IPM_SUPPORT_H
#define HALVEX_TESTS_IPM_SUPPORT_H

#include <math.h>

#include <memory>
#include <string>
#include <vector>

#include "ipm/ipm.h"
#include "records/model.h"
#include "frame/qv.h"
#include "support/dense_ref.h"
#include "support/support.h"

namespace ipmtest {

using hxtest::Dense;
using hxtest::Vec;
constexpr double kInf = 1e+20;

// A message with the values of an iteration-table line.
struct LoggedMessage {
  int severity;
  int64_t code;
  int32_t iteration;
  double values[5];
};
std::vector<LoggedMessage>& loggedMessages();
void logMessage(MessageLog*, int32_t severity, int64_t code, ...);

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
          std::vector<double> ranges = {});
  // Q given dense and symmetric; its strict lower triangle is stored.
  void setQuad(const Dense& q);
  void link();
  double objective() const;
};

// min -x1 - x2, x1 + 2x2 <= 4, 3x1 + x2 <= 6, x >= 0: the vertex (1.6, 1.2)
// with both rows active, duals -0.4 and -0.2 in the caller's sense.
Problem textbookLP();

// addSlack, ipmSolve, removeSlack, as the pipeline runs them.  The solution
// record is made before and released after; its ineqnSlack is copied out.
struct RunResult {
  int32_t status = 0;
  int32_t addStatus = 0;
  std::vector<double> ineqnSlack;
};
RunResult runSolve(HalvexEnv* env, Problem& p, IPM_timer* timer = nullptr);

// The record of the iteration made on a problem with its slacks, and dense
// views of it for checks from scratch.
class IpmFixture : public HostTest {
 protected:
  ~IpmFixture() override { release(); }
  // Slacks added, Ipm made, assigned and analysed.
  void setUp(Problem model);
  void release();

  bool hasLower(int32_t j) const;
  bool hasUpper(int32_t j) const;
  bool isG(int32_t i) const { return ipm->rowSense[i] == 'G'; }
  // A (rows by columns) and the full symmetric Q of the model with slacks.
  Dense denseA() const;
  Dense denseQ() const;
  Dense denseKkt() const;
  // Stationarity, feasibility, sign and complementarity of the record's
  // point: the largest violation.
  double kktError() const;

  std::unique_ptr<Problem> owned;
  ipmSolution* solution = nullptr;
  Ipm* ipm = nullptr;
};

}  // namespace ipmtest

#endif  // HALVEX_TESTS_IPM_SUPPORT_H
