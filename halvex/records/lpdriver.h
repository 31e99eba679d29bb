// The LP entry: bramlet presolves, the pipeline solves, bramlet postsolves,
// and on request fennick takes the interior point to a vertex.
#ifndef HALVEX_RECORDS_LPDRIVER_H
#define HALVEX_RECORDS_LPDRIVER_H

#include <stdint.h>

#include "frame/qv.h"
#include "records/fennick_abi.h"
#include "records/records.h"

// ---- bramlet's LP presolve service --------------------------------------------------
//
// Slots of the bramlet instance, a table of 8-byte slots; scale and unscale
// (24, 25) are in ipm/scale.h.
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

// ---- fennick's crossover ------------------------------------------------------------
// Slots, parameter positions and the basis are in records/fennick_abi.h.
typedef void (*FennickDestroyFn)(void* instance);
typedef int32_t (*FennickRunFn)(void* instance, void* bramletInstance, void* context,
                                LPRecord* record);

// ---- entries ------------------------------------------------------------------------

// env is the LP host's context.  Returns 1 when a failure broke the chain, 0
// otherwise; the solver status, the times and the internal code are in the
// record in every case.
HALVEX_EXPORT int32_t iplpmain(LPContext* env, LPRecord* record, LPOptions* options);

// Crossover from the interior solution of bramlet's presolved LP.  env must
// be the first member of an LPContext.  Returns 0 when fennick ran and left
// its answer in the record, or a status.
int32_t iplpCrossover(HalvexEnv* env, LPRecord* record, ipmSolution* solution, ipmOption* option,
                      int32_t status);

#endif  // HALVEX_RECORDS_LPDRIVER_H
