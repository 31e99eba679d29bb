// The equation solver: one symmetric system K z = b, shrunk first by the
// presolver's row and column machinery and by two reductions of its own
// (singleton equations with an off-diagonal entry, and the elimination of a
// variable from a row of two entries), then factorised once, and expanded
// back to its full size.
//
// K comes in full, both triangles, column-wise without lengths: colBegin has
// numDim + 1 entries.  The arrays are worked on in place: after a reduced
// solve they hold the reduced system, so callers hand in arrays they do not
// need afterwards.  rhs holds the solution on return.
#ifndef HALVEX_PRESOLVE_EQNSOLVE_H
#define HALVEX_PRESOLVE_EQNSOLVE_H

#include <stdint.h>

#include "presolve/presolver.h"
#include "records/model_records.h"

// Modes of eqnSolve.
#define EQN_MODE_PLAIN 0
#define EQN_MODE_LIFT_DIAGONAL 1  // tiny stored diagonals become 1e-6 first
#define EQN_MODE_TO_POINT 100     // the solution closest to the start vector

// Returns 0, 10 or -1086, or the status of the factorisation.  start may be
// null; numLeading is the leading block of the factorisation.
int32_t eqnSolve(double infinity, double primalTol, HalvexEnv* env, int32_t numDim,
                 int32_t numLeading, int32_t numThreads, int32_t* colBegin, int32_t* rowIndex,
                 double* matValue, double* rhs, double* start, int32_t verifyLevel,
                 int32_t mode);

// The presolve of a model of type PRESOLVE_MODEL_EQUATION over the caller's
// arrays; pre is a zero-filled record.  On PRECONTROL_REDUCED the model's
// arrays hold the reduced system.
int32_t eqnPresolve(HalvexEnv* env, ipmModel* model, ipmOption* option, presolver* pre,
                    int32_t numLeading);

// Noise: entries separated from the bulk of the matrix by a gap of empty
// decades.  detectNoise sets pre->noiseThreshold (1e20 for none) and counts
// the entries into numRemovedElement; removeNoiseA drops them from both
// working copies.
void detectNoise(HalvexEnv* env, ipmModel* model, presolver* pre);
int32_t removeNoiseA(HalvexEnv* env, ipmModel* model, presolver* pre);
// The same for two vectors, a right side and an objective: every element at
// or below the threshold becomes 0.
void removeNoiseBC(double threshold, int32_t numFirst, int32_t numSecond, double* first,
                   double* second);

#endif  // HALVEX_PRESOLVE_EQNSOLVE_H
