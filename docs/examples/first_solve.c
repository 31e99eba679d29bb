/* A first solve from C: a small LP through the reference host's C calls,
 * with crossover to an optimal vertex.
 *
 *     maximise  3 x + 2 y
 *     subject to  x +   y <= 4
 *                 x + 3 y <= 6
 *                 0 <= x <= 3,  y >= 0
 *
 * The LP entry minimises, so the objective goes in negated.  The answer is
 * x = 3, y = 1, objective -11.  Exit code 0 when the solver agrees. */
#include <math.h>
#include <stdio.h>
#include <string.h>

#include "host/host_c.h"

int main(int argc, char** argv) {
  (void)argv;
  /* A column-wise, 0-based: column j is entries colBegin[j] to colBegin[j+1]-1. */
  int32_t colBegin[] = {0, 2, 4};
  int32_t colLength[] = {2, 2};
  int32_t rowIndex[] = {0, 1, 0, 1};
  double matValue[] = {1.0, 1.0, 1.0, 3.0};
  double obj[] = {-3.0, -2.0};
  double lower[] = {0.0, 0.0};
  double upper[] = {3.0, 1e20}; /* 1e20: no bound */
  char rowSense[] = {'L', 'L'};
  double rhs[] = {4.0, 6.0};
  double range[] = {0.0, 0.0};
  double x[2], rowDual[2], reducedCost[2], activity[2];

  LPRecord lp;
  memset(&lp, 0, sizeof lp);
  lp.objSense = 1; /* minimise */
  lp.numRow = 2;
  lp.numCol = 2;
  lp.numCoef = 4;
  lp.colBegin = colBegin;
  lp.colLength = colLength;
  lp.rowIndex = rowIndex;
  lp.matValue = matValue;
  lp.obj = obj;
  lp.lower = lower;
  lp.upper = upper;
  lp.rowSense = rowSense;
  lp.rhs = rhs;
  lp.range = range;
  lp.solPrimal = x;
  lp.solDual = rowDual;
  lp.reducedCost = reducedCost;
  lp.rowActivity = activity;

  LPOptions options;
  setLpOptionDefaults(&options);
  options.crossover = 1;
  options.printLevel = argc > 1 ? 2 : 0; /* any argument: show the log */

  char error[256];
  HxHost* host = hxHostOpen(NULL, error, sizeof error);
  if (!host) {
    fprintf(stderr, "first_solve: %s\n", error);
    return 1;
  }
  hxHostSolveLP(host, &lp, &options);
  hxHostClose(host);

  printf("status %d (host code %d), objective %g, x = %g, y = %g\n", lp.status,
         hostReturnCode(lp.status), lp.objConstant, x[0], x[1]);
  int good = lp.status == IPM_STATUS_OPTIMAL && fabs(lp.objConstant + 11.0) < 1e-6 &&
             fabs(x[0] - 3.0) < 1e-6 && fabs(x[1] - 1.0) < 1e-6;
  return good ? 0 : 1;
}
