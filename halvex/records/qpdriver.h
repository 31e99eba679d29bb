// The instance's QP entries and the in-place preparation of a QP model.
#ifndef HALVEX_RECORDS_QPDRIVER_H
#define HALVEX_RECORDS_QPDRIVER_H

#include "records/host_records.h"
#include "records/model_records.h"

// Largest magnitude a QP's data may have.
#define QP_MAX_MAGNITUDE 1.3407807929943e+151

// Flags of what qpPresolver made for the length of the solve.
enum { QPMADE_COLBEGIN = 0, QPMADE_COLLENGTH = 1, QPMADE_QUADCOLLENGTH = 2, QPMADE_REDUCEDCOST = 3 };

int32_t ipqpmain(HalvexEnv* env, QPRecord* record, ScripterOptions* options);
int32_t ipqpScripter(void* instance, QPRecord* record);

int32_t qpPresolver(HalvexEnv* env, ipmModel* model, ipmOption* option, int32_t qpMade[4]);
int32_t qpPostsolver(HalvexEnv* env, ipmModel* model, ipmOption* option, int32_t qpMade[4]);


#endif
