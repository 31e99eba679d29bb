// A first solve from C++: a small convex QP through the reference host.
//
//     minimise   (x - 2)^2 + (y - 1)^2  =  x^2 + y^2 - 4 x - 2 y + 5
//     subject to x + y <= 2
//
// The quadratic part is 1/2 v'Qv with Q = 2 I.  The answer is x = 1.5,
// y = 0.5, objective 0.5, and the row's multiplier has size 1.  Exit code 0
// when the solver agrees.
#include <cmath>
#include <cstdio>
#include <string>

#include "host/host.h"

int main(int argc, char**) {
  int32_t colBegin[] = {0, 1, 2};
  int32_t rowIndex[] = {0, 0};
  double matValue[] = {1.0, 1.0};
  double quadDiag[] = {2.0, 2.0};  // Q's diagonal
  int32_t quadColBegin[] = {0, 0, 0};  // Q's strict lower triangle: empty
  double obj[] = {-4.0, -2.0};
  double lower[] = {-1e20, -1e20};  // free columns
  double upper[] = {1e20, 1e20};
  char rowSense[] = {'L'};
  double rhs[] = {2.0};
  double range[] = {0.0};
  double x[2] = {}, rowDual[1] = {}, activity[1] = {};

  QPRecord qp{};
  qp.objSense = 1;  // minimise
  qp.numRow = 1;
  qp.numCol = 2;
  qp.numCoef = 2;
  qp.colBegin = colBegin;
  qp.rowIndex = rowIndex;
  qp.matValue = matValue;
  qp.quadDiag = quadDiag;
  qp.quadColBegin = quadColBegin;
  qp.obj = obj;
  qp.objConstant = 5.0;
  qp.lower = lower;
  qp.upper = upper;
  qp.rowSense = rowSense;
  qp.rhs = rhs;
  qp.range = range;
  qp.solPrimal = x;
  qp.solDual = rowDual;
  qp.rowActivity = activity;

  hxhost::Host host;
  if (argc < 2) host.silence(true);  // any argument: show the log
  hxhost::HalvexEntries entries;
  std::string error;
  if (!hxhost::openHalvexLibrary(nullptr, &entries, &error)) {
    std::fprintf(stderr, "first_solve: %s\n", error.c_str());
    return 1;
  }
  int32_t code = -1;
  {
    hxhost::HalvexModule module(host, entries);
    HalvexInstance* instance = module.ok() ? module.createInstance() : nullptr;
    if (instance) {
      code = instance->ipqpScripter(instance, &qp);  // the instance's own options
      module.destroyInstance(instance);
    }
  }
  hxhost::closeHalvexLibrary(&entries);

  std::printf("host code %d, objective %g, x = %g, y = %g, row dual %g\n", code, qp.objValue,
              x[0], x[1], rowDual[0]);
  bool good = code == QP_RETURN_OPTIMAL && std::fabs(qp.objValue - 0.5) < 1e-5 &&
              std::fabs(x[0] - 1.5) < 1e-5 && std::fabs(x[1] - 0.5) < 1e-5 &&
              std::fabs(std::fabs(rowDual[0]) - 1.0) < 1e-5;
  return good ? 0 : 1;
}
