// Building the internal model and options from the host's records, and the
// small constructors and destructors of the solution and storage records.
#ifndef HALVEX_RECORDS_MODEL_H
#define HALVEX_RECORDS_MODEL_H

#include "records/host_records.h"
#include "records/model_records.h"

ipmModel* CreateModelFromLP(QVPool* pool, const LPRecord* record);
ipmModel* CreateModelFromQP(QVPool* pool, const QPRecord* record);
ipmOption* CreateOptionFromLP(QVPool* pool, const LPOptions* options);
ipmOption* CreateOptionFromQP(QVPool* pool, const ScripterOptions* options);
void ReturnModelToLP(const ipmModel* model, LPRecord* record);
void ReturnModelToQP(const ipmModel* model, QPRecord* record);
void DestroyModel(QVPool* pool, ipmModel* model);
void DestroyOption(QVPool* pool, ipmOption* option);

// Returns 0 or -1086; *solution is null on failure.
int32_t NewSolution(HalvexEnv* env, ipmSolution** solution, int32_t numRow, int32_t numCol,
                    double* solPrimal, double* solDual);
void FreeSolution(HalvexEnv* env, ipmSolution* solution);
void FreeStorage(HalvexEnv* env, ipmStorage* storage);

LPOptions* createLpOptions(HalvexEnv* env);
void resetLpOptions(LPOptions* options);
void initScripter(ScripterOptions* options);

#endif
