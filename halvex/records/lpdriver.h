// The LP entry: bramlet presolves, the pipeline solves, bramlet postsolves,
// and on request fennick takes the interior point to a vertex.
#ifndef HALVEX_RECORDS_LPDRIVER_H
#define HALVEX_RECORDS_LPDRIVER_H

#include <stdint.h>

#include "frame/qv.h"
#include "records/model_records.h"
#include "records/siblings.h"

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
