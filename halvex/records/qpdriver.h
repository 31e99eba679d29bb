// The instance's QP entries and the in-place preparation of a QP model.
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

// Largest magnitude a QP's data may have.
#define QP_MAX_MAGNITUDE 1.3407807929943e+151

// Flags of what qpPresolver made for the length of the solve.
enum { QPMADE_COLBEGIN = 0, QPMADE_COLLENGTH = 1, QPMADE_QUADCOLLENGTH = 2, QPMADE_REDUCEDCOST = 3 };

int32_t ipqpmain(HalvexEnv* env, QPRecord* record, ScripterOptions* options);
int32_t ipqpScripter(void* instance, QPRecord* record);

int32_t qpPresolver(HalvexEnv* env, ipmModel* model, ipmOption* option, int32_t qpMade[4]);
int32_t qpPostsolver(HalvexEnv* env, ipmModel* model, ipmOption* option, int32_t qpMade[4]);

// Internal status to the host's return code.
int32_t qpReturnCode(int32_t status);

#endif
