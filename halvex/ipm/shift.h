// Bringing every bounded column to a lower bound of 0 before the iteration,
// and back afterwards, and dropping bounds that a live row enforces anyway.
#ifndef HALVEX_IPM_SHIFT_H
#define HALVEX_IPM_SHIFT_H

#include <stdint.h>

#include "presolve/presolver.h"
#include "records/model_records.h"

// shiftStatus of a column: what the new variable x' is.
#define SHIFT_NONE 0           // x' = x
#define SHIFT_MOVED 1          // x' = x - t
#define SHIFT_FLIPPED (-1)     // x' = t - x, t the upper bound
#define SHIFT_FLIPPED_ZERO (-2)  // x' = -x, the upper bound being 0

// Shifts the model in place, and the solution too when one is given.  The
// presolver's shiftValue and shiftStatus are made on the first call and
// reused after.  Returns 0 or -1086.
int32_t ipmShiftBound(HalvexEnv* env, ipmModel* model, ipmOption* option, presolver* pre,
                      ipmSolution* solution);

// Undoes ipmShiftBound on the model and on the solution.
void ipmShiftRestore(HalvexEnv* env, ipmModel* model, ipmOption* option, presolver* pre,
                     ipmSolution* solution);

// Drops the bounds that relaxColBound marks, where the column has both.
void relaxBound(HalvexEnv* env, ipmModel* model, ipmOption* option);

#endif  // HALVEX_IPM_SHIFT_H
