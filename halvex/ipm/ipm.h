// The interior-point iteration: its state record and every stage that works
// on it, from the record's lifecycle through the augmented system, the
// measures, the step and the starting point to the main loop.
#ifndef HALVEX_IPM_IPM_H
#define HALVEX_IPM_IPM_H

#include <stddef.h>
#include <stdint.h>

#include "records/model_records.h"
#include "ipm/bridge.h"
#include "util/timer.h"

typedef struct subModel subModel;
typedef struct presolver presolver;
// The factorisation's handles, opaque here: only the bridge opens them.
typedef struct LAEnv LAEnv;
typedef struct LASymbolic LASymbolic;
typedef struct LANumeric LANumeric;

// Loop states.
#define IPM_CONTROL_RUN 0
#define IPM_CONTROL_STOP 1
#define IPM_CONTROL_RESET_GO_ON 3
#define IPM_CONTROL_RESET_STOP 4
#define IPM_CONTROL_FIRST_LEG 11

// Message codes of the iteration table.
#define IPM_MSG_TABLE_HEAD ((int64_t)(int32_t)0x827FD802)
#define IPM_MSG_TABLE_RULE ((int64_t)(int32_t)0x827FD803)
#define IPM_MSG_TABLE_LINE ((int64_t)(int32_t)0x827FD804)

// The whole state of one run of the iteration.  "Borrowed" arrays belong to
// the model or the solution record; the rest are owned and go with FreeIpm.
typedef struct Ipm {
  int32_t modelType;
  int32_t numRow;
  int32_t numCol;  // slacks included
  int32_t numFreeVar;
  int32_t* freeVarPlus;   // stays null: free variables are never split
  int32_t* freeVarMinus;  // stays null
  double* obj;            // borrowed
  double* lower;          // borrowed
  double* upper;          // borrowed
  double* rhs;            // borrowed
  char* rowSense;         // borrowed
  int32_t numCoef;
  int32_t* colBegin;  // borrowed
  int32_t* colLength;
  int32_t* rowIndex;
  double* matValue;
  int32_t numQuadCoef;
  int32_t* quadColBegin;  // borrowed
  int32_t* quadColLength;
  int32_t* quadRowIndex;
  double* quadMatValue;
  double* quadDiag;
  double* solPrimal;  // borrowed from the model
  double* solDual;
  int32_t numDim;      // numRow + numCol
  int32_t numIpmCoef;  // numDim + 2 * (numCoef + numQuadCoef)
  int32_t* kktBegin;
  int32_t* kktIndex;
  double* kktValue;
  void* spareArray;  // never allocated; FreeIpm still tests it
  int32_t* ineqnDiagIndex;
  int32_t* varBndDiagIndex;
  double* vecRhs;  // predictor right side, then (dx, dy)
  double* correctorPrimal;
  double* vecSpare;
  int32_t numIneqn;
  int32_t* ineqnIndex;
  double* ineqnSlack;  // borrowed from the solution
  double* ineqnSlackDelta;
  uint8_t* varBndType;
  int32_t numVarLowerBnd;
  int32_t numVarUpperBnd;
  double* lowerSlack;  // borrowed from the solution
  double* upperSlack;
  double* lowerDual;
  double* upperDual;
  double* lowerSlackDelta;
  double* upperSlackDelta;
  double* lowerDualDelta;
  double* upperDualDelta;
  int32_t numComplement;
  double mu;
  double muAffine;
  double sigma;
  double alphaPrimal;
  double alphaDual;
  double divisor;
  int32_t status;
  int32_t control;
  int32_t crossover;
  int32_t rowScaleOnly;
  int32_t smallObjScale;
  int32_t numBadIter;
  int32_t numStall;
  double muFirst;
  double muPrev;
  double gapPrev;
  double primalPrev;
  double boundPrev;
  double dualPrev;
  double complRatio;
  int32_t numReset;
  double stepFactor;
  double freeVarLimit;
  int32_t maxIteration;
  IPM_timer* timer;
  double primalTol;
  double dualTol;
  double gapTol;
  double complTol;
  double infinity;
  double densityRatio;
  double muLimit;
  double divisorLimit;
  double normA;
  double normObj;
  double normRhs;
  double normLower;
  double normUpper;
  int32_t iteration;
  double objValuePrimal;
  double objValueDual;
  double dualityGap;
  double primalInfeas;
  double dualInfeas;
  double boundInfeas;
  double complementarity;
  HalvexEnv* env;
  int32_t printFreq;
  int32_t printLevel;
  int32_t verifyLevel;
  int32_t numThreads;
  SolverBreakFn checkSolverBreak;
  void* scripterDataStruct;
  LAEnv* LA_env;
  LASymbolic* LDL_factor;
  LANumeric* LDL_memory;
  int32_t blockPrimal;
  int32_t blockDual;
  double* scratchA;  // must be all zero whenever a user hands it back
  double* scratchB;
  int32_t* scratchInt;
} Ipm;

// The diagnostics dump the record by layout.
static_assert(offsetof(Ipm, obj) == 32, "Ipm layout");
static_assert(offsetof(Ipm, solPrimal) == 160, "Ipm layout");
static_assert(offsetof(Ipm, kktBegin) == 184, "Ipm layout");
static_assert(offsetof(Ipm, numComplement) == 368, "Ipm layout");
static_assert(offsetof(Ipm, status) == 424, "Ipm layout");
static_assert(offsetof(Ipm, iteration) == 656, "Ipm layout");
static_assert(offsetof(Ipm, env) == 720, "Ipm layout");
static_assert(offsetof(Ipm, LA_env) == 760, "Ipm layout");
static_assert(offsetof(Ipm, scratchInt) == 808, "Ipm layout");
static_assert(sizeof(Ipm) == 816, "Ipm layout");

// ---- record and lifecycle ----------------------------------------------------
Ipm* NewIpm(HalvexEnv* env, ipmModel* model, IPM_timer* timer, int32_t control);
void ipmGetOption(Ipm* ipm, const ipmOption* option);
void ipmSetParam(Ipm* ipm, const ipmOption* option);
int32_t CreateIpm(Ipm* ipm);
void AssignIpm(Ipm* ipm, ipmModel* model, ipmSolution* solution);
void AnalyzeIpm(Ipm* ipm);
void FreeIpm(Ipm* ipm);

// ---- augmented system --------------------------------------------------------
int32_t ipmInitAugmat(Ipm* ipm, int32_t useQuad);
void createAugmentMatrix(int32_t numRow, int32_t numCol, const int32_t* colBegin,
                         const int32_t* colLength, const int32_t* rowIndex,
                         const double* matValue, int32_t* outBegin, int32_t* outIndex,
                         double* outValue, int32_t* outColDiag, int32_t* outRowDiag);
int32_t createAugmentMatrixQP(HalvexEnv* env, int32_t numRow, int32_t numCol, int32_t numCoef,
                              int32_t numQuadCoef, const int32_t* colBegin,
                              const int32_t* colLength, const int32_t* rowIndex,
                              const double* matValue, const int32_t* quadColBegin,
                              const int32_t* quadColLength, const int32_t* quadRowIndex,
                              const double* quadMatValue, int32_t* outBegin, int32_t* outIndex,
                              double* outValue, int32_t* outColDiag, int32_t* outRowDiag);
void createAugmentMatrixPartial(Ipm* ipm, int32_t* outBegin, int32_t* outIndex,
                                double* outValue, int32_t* outColDiag, int32_t* outRowDiag,
                                const int32_t* colMap, int32_t numMappedCol,
                                const int32_t* rowMap, int32_t numMappedRow);
void computeAugmentDiag(Ipm* ipm);

// ---- measures ----------------------------------------------------------------------
void computeMeasurement(Ipm* ipm);
int32_t computeMeasurementReset(Ipm* ipm, const double* x, const double* y,
                                const double* ineqnSlack, const double* lowerSlack,
                                const double* lowerDual, const double* upperSlack,
                                const double* upperDual, double* primalInfeas,
                                double* dualInfeas, double* boundInfeas, double* dualityGap,
                                double* complementarity);

// ---- step ----------------------------------------------------------------------------
void computePredictor(Ipm* ipm);
void computeMuAffine(Ipm* ipm);
void computeSigma(Ipm* ipm);
void computeRhsCorrector(Ipm* ipm);
void computeStepCombined(Ipm* ipm);
void updateSolution(Ipm* ipm);
void updateSolution2(Ipm* ipm);
void adjustSolution(Ipm* ipm);

// ---- starting point ------------------------------------------------------------------
int32_t ipmInitLP(Ipm* ipm, subModel* sub);
int32_t ipmInitQP(Ipm* ipm, subModel* sub);
int32_t initPrimal(Ipm* ipm, subModel* sub);
int32_t initDual(Ipm* ipm, subModel* sub);
void adjustSolPrimal(Ipm* ipm, subModel* sub, double minSlack);

// ---- slacks and free variables ----------------------------------------------------
int32_t addSlack(HalvexEnv* env, ipmModel* model, ipmStorage* storage);
void removeSlack(HalvexEnv* env, ipmModel* model, ipmStorage* storage, ipmSolution* solution);
int32_t splitFreeVar(HalvexEnv* env, ipmModel* model, ipmStorage* storage);
void mergeFreeVar(HalvexEnv* env, ipmModel* model, ipmStorage* storage, ipmSolution* solution,
                  uint8_t* flags);
void updateFreeVar(Ipm* ipm, double* a, double* b);
void adjustFreeVar(Ipm* ipm, double* a, double* b, double* c);

// ---- the loop ------------------------------------------------------------------------
int32_t ipmSolve(HalvexEnv* env, ipmModel* model, ipmOption* option, presolver* pre,
                 ipmStorage* storage, ipmSolution* solution, IPM_timer* timer,
                 int32_t initialControl);
int32_t getSolutionStatus(double primalTol, double dualTol, double gapTol, double complTol,
                          double primalInfeas, double boundInfeas, double dualInfeas,
                          double dualityGap, double complementarity);
// The termination ladder on the measures just taken; sets status and control.
void ipmJudge(Ipm* ipm, int32_t st);
// The route of a pass that asked for a reset: -1 to go on with the step,
// otherwise the result to finish with.
int32_t ipmResetRoute(Ipm* ipm);
void printLog(Ipm* ipm);
void getSolverStat(ipmModel* model, const Ipm* ipm);

// Active-set finish of a nearly converged run: 0 when the point was replaced.
int32_t ipmReset(Ipm* ipm);

#endif  // HALVEX_IPM_IPM_H
