// The tables of the sibling modules as the module reads them: slot numbers,
// the signatures of the operations behind them, and the byte positions of
// the parameter block that the LP driver and the simplex sibling share.  The
// module and the siblings themselves take every number from here.
#ifndef HALVEX_RECORDS_SIBLINGS_H
#define HALVEX_RECORDS_SIBLINGS_H

#include <stdint.h>

#include "records/host_records.h"

#ifdef __cplusplus
extern "C" {
#endif

// ---- bramlet's LP presolve service --------------------------------------------------
//
// Slots of the bramlet instance, a table of 8-byte slots; env->preObject
// refers to it while a solve runs.
#define BRAMLET_SLOT_TEXTLOG 1
#define BRAMLET_SLOT_MESSAGELOG 2
#define BRAMLET_SLOT_DESTROY 3
#define BRAMLET_SLOT_CONTEXT 4
#define BRAMLET_SLOT_PROBLEM 5
#define BRAMLET_SLOT_CREATE_CONTEXT 6
#define BRAMLET_SLOT_FREE_CONTEXT 8
#define BRAMLET_SLOT_PRESOLVE 13
#define BRAMLET_SLOT_POSTSOLVE 14
#define BRAMLET_SLOT_FREE_PROBLEM 15
#define BRAMLET_SLOT_LOAD 22
#define BRAMLET_SLOT_SCALE 24
#define BRAMLET_SLOT_UNSCALE 25

// The presolve level handed to bramlet's presolve.
#define BRAMLET_PRESOLVE_MODE 3

typedef void (*BramletDestroyFn)(void* instance);
typedef void* (*BramletCreateContextFn)(void* instance, LPOptions* options, int32_t* status);
typedef void (*BramletFreeContextFn)(void* instance, void** context);
typedef void* (*BramletPresolveFn)(void* instance, void* context, int32_t mode, LPRecord* record,
                                   int32_t* status);
typedef int32_t (*BramletPostsolveFn)(void* problem);
typedef void (*BramletFreeProblemFn)(void* instance, void** problem);
typedef int32_t (*BramletLoadFn)(void* instance, int32_t numCol, int32_t numRow, int32_t numCoef,
                                 double* obj, double* lower, double* upper, double* rhs,
                                 double* range, char* rowSense, int32_t* colBegin,
                                 int32_t* colLength, int32_t* rowIndex, double* matValue,
                                 void* columnFlags, LPLoadArea* loadArea);

// What this module reads of bramlet's presolved problem (slot 5).
typedef struct BramletProblem {
  LPRecord* presolved;      // the LP to solve; postsolve reads its solution
  uint8_t* relaxColBound;   // becomes the model's relaxColBound
} BramletProblem;

// A bramlet context: two references to the sibling's blocks.
typedef struct BramletContext {
  uint8_t* parameters;  // parameter block, addressed by byte below
  uint8_t* limits;      // holds the crossover's time limit
} BramletContext;

#define BRAMLET_PARAM_PRESOLVE_FLAG 956
// The positions that the crossover sets are fennick's (FENNICK_PARAM_...).

// Which of the LPRecord's sibling words carries the column flag reference
// handed to bramlet's load operation.
#define LPRECORD_COLUMN_FLAG_WORD 0

// ---- fennick's crossover -------------------------------------------------------------
// What the LP driver and fennick agree on: the slots of fennick's instance,
// the positions of bramlet's parameter block that fennick reads, and the
// basis that fennick leaves behind.

// Slots of the fennick instance, a table of 8-byte slots.
#define FENNICK_SLOT_TEXTLOG 1
#define FENNICK_SLOT_MESSAGELOG 3
#define FENNICK_SLOT_DESTROY 4
#define FENNICK_SLOT_RUN 19
#define FENNICK_INSTANCE_SLOTS 24

// Byte positions in bramlet's parameter block (the context's first slot)
// written by the driver before the run and read by fennick.
#define FENNICK_PARAM_START 844          // 2: from the interior point, 1: cold start
#define FENNICK_PARAM_ITERATION_LIMIT 876
#define FENNICK_PARAM_PRICING 960         // -1: automatic
#define FENNICK_PARAM_METHOD 968          // 3: primal simplex cleanup
#define FENNICK_PARAM_INTERIOR_STATUS 1008
// Byte position in the context's second block: seconds left for the run.
#define FENNICK_LIMIT_MAXTIME 1760

// The basis.  A caller that wants it puts a reference to numCol + numRow
// bytes in this sibling word of its LPRecord: columns first, then rows.
// bramlet hands the word on through presolve and maps the basis back in
// postsolve.  A row's status is that of its activity: at lower means the
// activity sits at the row's lower end.
#define LPRECORD_BASIS_WORD 1
#define BASIS_NONE 0  // no basis was made (crossover did not finish)
#define BASIS_BASIC 1
#define BASIS_AT_LOWER 2
#define BASIS_AT_UPPER 3
#define BASIS_FREE_ZERO 4
#define BASIS_FIXED 5

// Counters of the last run, in the sibling word after the basis: a reference
// to a FennickStats that the caller owns, or 0.
#define LPRECORD_CROSSOVER_STATS_WORD 2
typedef struct FennickStats {
  int32_t pushIterations;     // superbasic columns moved to a bound or into the basis
  int32_t simplexIterations;  // primal simplex pivots and bound flips after the push
  double seconds;             // wall time of the run
  int32_t numBasic, numAtLower, numAtUpper, numFreeZero, numFixed;
} FennickStats;

typedef void (*FennickDestroyFn)(void* instance);
typedef int32_t (*FennickRunFn)(void* instance, void* bramletInstance, void* context,
                                LPRecord* record);

// Scales the model in place and fills rowScale (numRow + 1, the last one the
// objective's factor) and colScale (numCol + 1).  The tolerance comes first.
typedef int64_t (*BramletScaleFn)(double tolerance, void* instance, int64_t direction,
                                  int64_t numRow, int64_t numCol, int64_t numCoef,
                                  int32_t* colBegin, int32_t* colLength, int32_t* rowIndex,
                                  double* matValue, double* obj, double* lower, double* upper,
                                  double* rowScale, double* colScale, void* null1, void* null2,
                                  double* rhs, char* rowSense, double* range, void* null3,
                                  void* null4, void* null5, void* null6);

// The reverse, solution included.  No instance is passed.
typedef int64_t (*BramletUnscaleFn)(int64_t direction, int64_t numRow, int64_t numCol,
                                    int32_t* colBegin, int32_t* colLength, int32_t* rowIndex,
                                    double* matValue, double* rhs, double* range, double* obj,
                                    double* lower, double* upper, void* null1, void* null2,
                                    double* rowScale, double* colScale, double* solPrimal,
                                    double* solDual, double* reducedCost, double* rowActivity);

#ifdef __cplusplus
}  // extern "C"
#endif

#endif  // HALVEX_RECORDS_SIBLINGS_H
