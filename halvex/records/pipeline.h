// The one routine every LP and QP passes through between its driver's
// records and the answer.
#ifndef HALVEX_RECORDS_PIPELINE_H
#define HALVEX_RECORDS_PIPELINE_H

#include "records/host_records.h"
#include "records/model_records.h"
#include "util/timer.h"

// Returns the final status, also left in the model's status.  lpRecord is
// bramlet's presolved LP on the LP path, null on the QP path.
int32_t iplpSolve(HalvexEnv* env, ipmModel* model, ipmOption* option, IPM_timer* timer,
                  LPRecord* lpRecord);

// Upper duals to the caller's sign convention: non-positive.
void FormatSolution(ipmModel* model, ipmSolution* solution);

void iplpReportStatus(double objValue, HalvexEnv* env, int32_t status, ipmOption* option);

#endif
