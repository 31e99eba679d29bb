// fennick: the crossover sibling.  From an interior point of bramlet's
// presolved and scaled LP it finds an optimal basis and its vertex, by a
// push of the superbasic columns and a bounded primal simplex.
#ifndef HALVEX_SIBLINGS_FENNICK_H
#define HALVEX_SIBLINGS_FENNICK_H

#include <stddef.h>
#include <stdint.h>

#include "siblings/fennick/alloc.h"

#include "frame/qvkernel.h"
#include "records/siblings.h"
#include "records/host_records.h"

namespace fennick {

struct Instance;
typedef void (*DestroyFn)(Instance* instance);
typedef int32_t (*RunFn)(Instance* instance, void* bramletInstance, void* context,
                         LPRecord* record);

struct Instance {
  void* hostSlot0;
  TextLogFn textLog;        // 1: set by the solver from its env
  void* slot2;
  MessageLog* messageLog;   // 3: likewise
  DestroyFn destroy;        // 4
  void* slot5[14];
  RunFn run;                // 19
  void* slot20[4];
};
#define FENNICK_SLOT(field, slot) \
  static_assert(offsetof(Instance, field) == (slot) * 8, "fennick slot " #field)
FENNICK_SLOT(textLog, FENNICK_SLOT_TEXTLOG);
FENNICK_SLOT(messageLog, FENNICK_SLOT_MESSAGELOG);
FENNICK_SLOT(destroy, FENNICK_SLOT_DESTROY);
FENNICK_SLOT(run, FENNICK_SLOT_RUN);
static_assert(sizeof(Instance) == FENNICK_INSTANCE_SLOTS * 8, "fennick instance size");

// ---- the simplex, reachable by the tests -----------------------------------------------

// An LP in the host's form, minimising after objSense.
struct LpView {
  int32_t numRow = 0, numCol = 0;
  int32_t objSense = 1;
  const int32_t* colBegin = nullptr;
  const int32_t* colLength = nullptr;  // may be null: columns end where the next begins
  const int32_t* rowIndex = nullptr;
  const double* matValue = nullptr;
  const double* obj = nullptr;
  const double* lower = nullptr;
  const double* upper = nullptr;
  const double* rhs = nullptr;
  const double* range = nullptr;
  const char* rowSense = nullptr;
};

struct Settings {
  bool fromPoint = true;          // false: cold start from the slack basis
  int64_t iterationLimit = INT32_MAX;
  double timeLimit = 1e300;       // seconds
  double primalTol = 1e-7;
  double dualTol = 1e-7;
  double polishTol = 1e-9;        // a bounded last run at this dual tolerance
  bool dualSimplex = true;        // false: the primal phase 1 alone repairs a basis
};

// Outcome codes are the solver's statuses: 1 optimal, 3 infeasible, 4 dual
// infeasible (unbounded), 7 iteration limit, 8 time limit, 10 numerical
// trouble, -1086 out of memory.
struct Result {
  int32_t status = IPM_STATUS_FAILED;
  Vec<double> x, y, z, activity;  // in the LP's own sense
  Vec<uint8_t> basis;             // numCol + numRow, BASIS_...
  double objective = 0.0;                 // without the constant
  double primalInfeas = 0.0, boundInfeas = 0.0, dualInfeas = 0.0;
  FennickStats stats{};
  int64_t dualIterations = 0;  // of stats.simplexIterations, by the dual simplex
};

// x0, y0, z0 may be null for a cold start.  Returns result.status.
int32_t crossover(const LpView& lp, const double* x0, const double* y0, const double* z0,
                  const Settings& settings, Result* result);

QVModule* createModule(QVKernel* kernel);

}  // namespace fennick

#endif
