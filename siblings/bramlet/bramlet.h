// bramlet: the LP presolve and scaling sibling.  The module object makes
// instances whose table the solver reads by slot; every operation the solver
// calls sits at a fixed slot, pinned below.
#ifndef HALVEX_SIBLINGS_BRAMLET_H
#define HALVEX_SIBLINGS_BRAMLET_H

#include <stddef.h>
#include <stdint.h>

#include "frame/qvkernel.h"
#include "records/host_records.h"
#include "records/siblings.h"

namespace bramlet {

struct Instance;
struct Context;
struct Problem;

// Status codes of the operations, besides the solver's own (1 optimal, 3
// infeasible, 4 dual infeasible) which a presolve that decides the LP returns.
constexpr int32_t kOk = 0;
constexpr int32_t kBadInput = -1;
constexpr int32_t kOutOfMemory = IPM_STATUS_OUT_OF_MEMORY;

// ---- the slots ----------------------------------------------------------------------

typedef void (*DestroyFn)(Instance* instance);
typedef Context* (*CreateContextFn)(Instance* instance, const LPOptions* options,
                                    int32_t* status);
typedef void (*FreeContextFn)(Instance* instance, Context** context);
typedef Problem* (*PresolveFn)(Instance* instance, Context* context, int32_t mode,
                               LPRecord* record, int32_t* status);
typedef int32_t (*PostsolveFn)(Problem* problem);
typedef void (*FreeProblemFn)(Instance* instance, Problem** problem);
typedef int32_t (*LoadFn)(Instance* instance, int32_t numCol, int32_t numRow, int32_t numCoef,
                          const double* obj, const double* lower, const double* upper,
                          const double* rhs, const double* range, const char* rowSense,
                          const int32_t* colBegin, const int32_t* colLength,
                          const int32_t* rowIndex, const double* matValue, void* colFlags,
                          LPLoadArea* loadArea);
typedef int64_t (*ScaleFn)(double tolerance, Instance* instance, int64_t direction,
                           int64_t numRow, int64_t numCol, int64_t numCoef, int32_t* colBegin,
                           int32_t* colLength, int32_t* rowIndex, double* matValue, double* obj,
                           double* lower, double* upper, double* rowScale, double* colScale,
                           void* null1, void* null2, double* rhs, char* rowSense, double* range,
                           void* null3, void* null4, void* null5, void* null6);
typedef int64_t (*UnscaleFn)(int64_t direction, int64_t numRow, int64_t numCol,
                             int32_t* colBegin, int32_t* colLength, int32_t* rowIndex,
                             double* matValue, double* rhs, double* range, double* obj,
                             double* lower, double* upper, void* null1, void* null2,
                             double* rowScale, double* colScale, double* solPrimal,
                             double* solDual, double* reducedCost, double* rowActivity);

// The instance table, 26 slots of 8 bytes.  Slots 7, 9-12 and 16-21, 23 are
// operations the solver never calls; they stay null.
struct Instance {
  void* hostSlot0;
  TextLogFn textLog;           // 1: set by the solver from its env
  MessageLog* messageLog;      // 2: likewise
  DestroyFn destroy;           // 3
  Context* context;            // 4: result of slot 6
  Problem* problem;            // 5: result of slot 13
  CreateContextFn createContext;  // 6
  void* slot7;
  FreeContextFn freeContext;   // 8
  void* slot9[4];
  PresolveFn presolve;         // 13
  PostsolveFn postsolve;       // 14
  FreeProblemFn freeProblem;   // 15
  void* slot16[6];
  LoadFn load;                 // 22
  void* slot23;
  ScaleFn scale;               // 24
  UnscaleFn unscale;           // 25
};
#define BRAMLET_SLOT(field, slot) \
  static_assert(offsetof(Instance, field) == (slot) * 8, "bramlet slot " #field)
BRAMLET_SLOT(textLog, BRAMLET_SLOT_TEXTLOG);
BRAMLET_SLOT(messageLog, BRAMLET_SLOT_MESSAGELOG);
BRAMLET_SLOT(destroy, BRAMLET_SLOT_DESTROY);
BRAMLET_SLOT(context, BRAMLET_SLOT_CONTEXT);
BRAMLET_SLOT(problem, BRAMLET_SLOT_PROBLEM);
BRAMLET_SLOT(createContext, BRAMLET_SLOT_CREATE_CONTEXT);
BRAMLET_SLOT(freeContext, BRAMLET_SLOT_FREE_CONTEXT);
BRAMLET_SLOT(presolve, BRAMLET_SLOT_PRESOLVE);
BRAMLET_SLOT(postsolve, BRAMLET_SLOT_POSTSOLVE);
BRAMLET_SLOT(freeProblem, BRAMLET_SLOT_FREE_PROBLEM);
BRAMLET_SLOT(load, BRAMLET_SLOT_LOAD);
BRAMLET_SLOT(scale, BRAMLET_SLOT_SCALE);
BRAMLET_SLOT(unscale, BRAMLET_SLOT_UNSCALE);
static_assert(sizeof(Instance) == 26 * 8, "bramlet instance is 26 slots");

// ---- the context --------------------------------------------------------------------

// The parameter block that the LP driver and the simplex sibling share with
// us.  Only the positions written by the driver have names.
struct ParamBlock {
  uint8_t pad0[844];
  int32_t simplexStart;        // 844: 1 or 2, from the parity of crossover
  uint8_t pad848[28];
  int32_t simplexIterLimit;    // 876
  uint8_t pad880[76];
  int32_t presolveReuse;       // 956: cleared before every presolve
  int32_t simplexPricing;      // 960
  uint8_t pad964[4];
  int32_t simplexMethod;       // 968
  uint8_t pad972[36];
  int32_t interiorStatus;      // 1008: status of the interior point handed over
  uint8_t pad1012[12];
};
static_assert(offsetof(ParamBlock, simplexStart) == FENNICK_PARAM_START, "param 844");
static_assert(offsetof(ParamBlock, simplexIterLimit) == FENNICK_PARAM_ITERATION_LIMIT, "param 876");
static_assert(offsetof(ParamBlock, presolveReuse) == BRAMLET_PARAM_PRESOLVE_FLAG, "param 956");
static_assert(offsetof(ParamBlock, simplexPricing) == FENNICK_PARAM_PRICING, "param 960");
static_assert(offsetof(ParamBlock, simplexMethod) == FENNICK_PARAM_METHOD, "param 968");
static_assert(offsetof(ParamBlock, interiorStatus) == FENNICK_PARAM_INTERIOR_STATUS, "param 1008");
static_assert(sizeof(ParamBlock) == 1024, "param block size");

struct LimitBlock {
  uint8_t pad0[1760];
  double timeLimit;            // 1760: seconds left for the simplex run
  uint8_t pad1768[8];
};
static_assert(offsetof(LimitBlock, timeLimit) == FENNICK_LIMIT_MAXTIME, "limit 1760");

struct Context {
  ParamBlock* params;          // slot 0
  LimitBlock* limits;          // slot 1
  int32_t presolveLevel;       // -1 automatic, 0 none, 1..3
  double primalTol;
};
static_assert(offsetof(Context, params) == 0 && offsetof(Context, limits) == 8,
              "context slots");

// ---- the problem ---------------------------------------------------------------------

struct PostsolveState;

// What presolve hands back: the presolved LP, whose solution arrays the
// solver fills, and the flags of its bounds that a kept row enforces anyway.
// The arrays of `lp` have room for one more column and entry per range row.
struct Problem {
  LPRecord* lp;                // slot 0
  uint8_t* relaxColBound;      // slot 1: RELAX_NO_LOWER / RELAX_NO_UPPER per column
  int32_t presolveStatus;      // 0, or the status that presolve decided
  LPRecord* caller;
  PostsolveState* state;
};
static_assert(offsetof(Problem, lp) == 0 && offsetof(Problem, relaxColBound) == 8,
              "problem slots");

// ---- services, reachable by the tests as well -------------------------------------------

QVModule* createModule(QVKernel* kernel);

Context* createContext(Instance* instance, const LPOptions* options, int32_t* status);
void freeContext(Instance* instance, Context** context);
Problem* presolve(Instance* instance, Context* context, int32_t mode, LPRecord* record,
                  int32_t* status);
int32_t postsolve(Problem* problem);
void freeProblem(Instance* instance, Problem** problem);
int32_t load(Instance* instance, int32_t numCol, int32_t numRow, int32_t numCoef,
             const double* obj, const double* lower, const double* upper, const double* rhs,
             const double* range, const char* rowSense, const int32_t* colBegin,
             const int32_t* colLength, const int32_t* rowIndex, const double* matValue,
             void* colFlags, LPLoadArea* loadArea);
int64_t scale(double tolerance, Instance* instance, int64_t direction, int64_t numRow,
              int64_t numCol, int64_t numCoef, int32_t* colBegin, int32_t* colLength,
              int32_t* rowIndex, double* matValue, double* obj, double* lower, double* upper,
              double* rowScale, double* colScale, void* null1, void* null2, double* rhs,
              char* rowSense, double* range, void* null3, void* null4, void* null5,
              void* null6);
int64_t unscale(int64_t direction, int64_t numRow, int64_t numCol, int32_t* colBegin,
                int32_t* colLength, int32_t* rowIndex, double* matValue, double* rhs,
                double* range, double* obj, double* lower, double* upper, void* null1,
                void* null2, double* rowScale, double* colScale, double* solPrimal,
                double* solDual, double* reducedCost, double* rowActivity);

}  // namespace bramlet

#endif
