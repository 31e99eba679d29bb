#ifndef HALVEX_RECORDS_STATISTICS_H
#define HALVEX_RECORDS_STATISTICS_H

#include "records/host_records.h"

// Fills record->stats; 0, or 1 when the row counters cannot be allocated.
int32_t getProbStatistics(HalvexEnv* env, QPRecord* record);

#endif
