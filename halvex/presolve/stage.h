// The presolver's entries as stages of the solve pipeline.
#ifndef HALVEX_PRESOLVE_STAGE_H
#define HALVEX_PRESOLVE_STAGE_H

#include "presolve/presolver.h"

int32_t ipmPresolve(HalvexEnv* env, ipmModel** model, ipmOption* option, presolver* pre,
                    ipmStorage* storage, ipmSolution** outerSolution,
                    ipmSolution** innerSolution);
int32_t ipmPresolveDisabled(HalvexEnv* env, ipmModel* model, ipmOption* option, presolver* pre,
                            ipmStorage* storage, ipmSolution** outerSolution,
                            ipmSolution** innerSolution);
int32_t ipmPreLoop(HalvexEnv* env, ipmModel* model, ipmOption* option, presolver* pre);

#endif  // HALVEX_PRESOLVE_STAGE_H
