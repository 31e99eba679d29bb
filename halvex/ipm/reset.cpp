// The active-set finish is not built yet.  Until it is, every request is
// answered as a reset that could not confirm a better point, which leaves
// the current point in force and lets the loop decide as it does after any
// failed reset.
#include "ipm/ipm.h"

int32_t ipmReset(Ipm* /*ipm*/) { return IPM_STATUS_RESET_FAILED; }
