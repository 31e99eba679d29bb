// What every layer of the module shares: the status codes, the two call-backs
// through which the solver speaks, and the environment record that carries
// the pool and those call-backs.  This is all that util/ needs.
#ifndef HALVEX_RECORDS_ENV_H
#define HALVEX_RECORDS_ENV_H

#include <stddef.h>
#include <stdint.h>

#include "frame/qvkernel.h"

#ifdef __cplusplus
extern "C" {
#endif

// ---- status codes ------------------------------------------------------------
#define IPM_STATUS_OK 0
#define IPM_STATUS_OPTIMAL 1
#define IPM_STATUS_PRIMAL_INFEASIBLE 3
#define IPM_STATUS_DUAL_INFEASIBLE 4
#define IPM_STATUS_ITERATION_LIMIT 7
#define IPM_STATUS_TIME_LIMIT 8
#define IPM_STATUS_FAILED 10
#define IPM_STATUS_INTERRUPTED 12
#define IPM_STATUS_BOTH_INFEASIBLE 14
#define IPM_STATUS_ACCEPTABLE 15
#define IPM_STATUS_SOLVE_FAILED 100
#define IPM_STATUS_SIBLING_INFEASIBLE 256
#define IPM_STATUS_RESET_FAILED 1003
#define IPM_STATUS_OUT_OF_MEMORY (-1086)

// Message severities of the message log.
#define MSG_INFO 2
#define MSG_WARNING 3
#define MSG_ERROR 4
#define MSG_TABLE_HEADING 100
#define MSG_TABLE_LINE 101

// ---- call-backs ---------------------------------------------------------------

// Text log: printf-like, may begin with a host control prefix ("%1z", ...).
typedef void (*TextLogFn)(const char* format, ...);

// Message log object: the call-back in slot 0, the host's data behind it.
typedef struct MessageLog MessageLog;
typedef void (*MessageLogFn)(MessageLog* self, int32_t severity, int64_t code, ...);
struct MessageLog {
  MessageLogFn log;
};

// Break test of the caller: non-zero stops the solve.
typedef int32_t (*SolverBreakFn)(void* scripterDataStruct);

// ---- the environment ----------------------------------------------------------

// First six slots of the instance (QP) or of the LP host's context.
typedef struct HalvexEnv {
  QVPool* pool;             // 0
  TextLogFn textLog;        // 1
  MessageLog* messageLog;   // 2
  void* destroyOperation;   // 3
  QVModule* preModule;      // 4: bramlet while loaded
  void* preObject;          // 5: bramlet instance while it lives
} HalvexEnv;

#ifdef __cplusplus
}  // extern "C"

#define HX_FIELD(type, field, offset) \
  static_assert(offsetof(type, field) == (offset), #type "." #field " at byte " #offset)

HX_FIELD(HalvexEnv, pool, 0);
HX_FIELD(HalvexEnv, textLog, 8);
HX_FIELD(HalvexEnv, messageLog, 16);
HX_FIELD(HalvexEnv, preModule, 32);
HX_FIELD(HalvexEnv, preObject, 40);
#endif

#endif  // HALVEX_RECORDS_ENV_H
