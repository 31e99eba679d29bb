// The instance's QP entries.
#ifndef HALVEX_RECORDS_QPDRIVER_H
#define HALVEX_RECORDS_QPDRIVER_H

#include "records/records.h"

// Host return codes of a QP solve.
#define QP_RETURN_OPTIMAL 0
#define QP_RETURN_OUT_OF_MEMORY 1
#define QP_RETURN_PRIMAL_INFEASIBLE 2
#define QP_RETURN_DUAL_INFEASIBLE 3
#define QP_RETURN_ITERATION_LIMIT 5
#define QP_RETURN_FAILURE 8
#define QP_RETURN_ACCEPTABLE 9
#define QP_RETURN_TIME_LIMIT 10
#define QP_RETURN_BOTH_INFEASIBLE 23
#define QP_RETURN_INTERRUPTED 99

int32_t ipqpmain(HalvexEnv* env, QPRecord* record, ScripterOptions* options);
int32_t ipqpScripter(void* instance, QPRecord* record);

#endif
