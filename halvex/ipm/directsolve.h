// The solve of a model that has nothing for the iteration to work on: every
// column free and every row an equation (or a QP with no matrix).  Its
// optimality conditions are one symmetric linear system.
#ifndef HALVEX_IPM_DIRECTSOLVE_H
#define HALVEX_IPM_DIRECTSOLVE_H

#include <stdint.h>

#include "records/model_records.h"

// Solver choices.
#define SPEC_SOLVE_DIRECT 0    // one factorisation of the whole system
#define SPEC_SOLVE_REDUCED 1   // through the equation solver's own presolve

// Fills the solution and the model's statistics and status as the loop
// would have done, with iteration 0.  The result speaks only of failures of
// the machinery (-1086, or the solve's code); the verdict on the point goes
// to model->status, which a failure leaves as it was.
int32_t ipmSpecSolve(HalvexEnv* env, ipmModel* model, ipmOption* option, ipmSolution* solution,
                     int32_t choice);

#endif  // HALVEX_IPM_DIRECTSOLVE_H
