// The bridge of the augmented system: the one door from the iteration, the
// presolver and the equation solver to the factorisation.  The LA_ library
// speaks its own status codes; the bridge turns them into the solver's, and
// its handles stay opaque to everyone above.
#ifndef HALVEX_IPM_BRIDGE_H
#define HALVEX_IPM_BRIDGE_H

#include <stdint.h>

#include "frame/qvkernel.h"
#include "records/env.h"

typedef struct LAEnv LAEnv;
typedef struct LASymbolic LASymbolic;
typedef struct LANumeric LANumeric;

int32_t laSetup(HalvexEnv* env, QVPool* pool, LAEnv** laEnv, int32_t numLeadingRows,
                int32_t numThreads);
int32_t ldlAnalyze(HalvexEnv* env, int32_t numDim, const int32_t* begin, const int32_t* index,
                   const double* value, LAEnv* laEnv, LASymbolic** factor,
                   LANumeric** memory);
int32_t ldlFactorize(HalvexEnv* env, int32_t numDim, const int32_t* begin,
                     const int32_t* index, const double* value, LAEnv* laEnv,
                     LASymbolic* factor, LANumeric* memory);
int32_t ldlSolve(HalvexEnv* env, int32_t verifyLevel, int32_t numDim, int32_t control,
                 const int32_t* begin, const int32_t* index, const double* value,
                 double* vector, LAEnv* laEnv, LASymbolic* factor, LANumeric* memory);
int32_t solveEquationLDL(HalvexEnv* env, int32_t verifyLevel, int32_t mode, int32_t numDim,
                         int32_t numLeadingRows, int32_t numThreads, const int32_t* begin,
                         const int32_t* index, const double* value, double* vector,
                         QVPool* pool);
void ldlCleanUp(LAEnv* laEnv, LASymbolic** factor, LANumeric** memory);
void ldlCleanUpAll(LAEnv** laEnv, LASymbolic** factor, LANumeric** memory);

// The numeric phases as the bridge calls them, in a file of their own so
// that a test program can link its own in their place and make a
// factorisation or a solve fail on purpose.  They return the LA_ codes.
int32_t bridgeFactorNumeric(int32_t n, const int32_t* begin, const int32_t* index,
                            const double* value, LAEnv* laEnv, LASymbolic* factor,
                            LANumeric* memory);
int32_t bridgeSolveNumeric(const int32_t* begin, const int32_t* index, const double* value,
                           double* x, LAEnv* laEnv, LASymbolic* factor, LANumeric* memory);

#endif  // HALVEX_IPM_BRIDGE_H
