// The row-and-column presolver: its record, the pass loop and its
// reductions, the reduced model, and the way back to the caller's model.
//
// The presolver never aggregates and never edits a coefficient: it removes
// rows and columns and tightens bounds, and remembers in lbMap and ubMap which
// row gave each column its bound, so that the postsolve can hand a dual that
// lands on such a bound back to the row it came from.
#ifndef HALVEX_PRESOLVE_PRESOLVER_H
#define HALVEX_PRESOLVE_PRESOLVER_H

#include <stddef.h>
#include <stdint.h>

#include "records/model_records.h"

// Result of a presolve.
#define PRECONTROL_NONE 1     // nothing changed
#define PRECONTROL_BOUND 2    // only bounds changed: the caller's model serves
#define PRECONTROL_REDUCED 3  // rows or columns went: a reduced model serves

// Routes past the iteration loop.
#define PREROUTE_NORMAL 0
#define PREROUTE_SOLVED 1      // solved here, no postsolve
#define PREROUTE_KNOWN 2       // solution known, postsolve needed
#define PREROUTE_SPECIAL 3     // all columns free, only equations
#define PREROUTE_FREE_COLS 4   // normal, with free columns

// Row status before setMapping (0 live); after it, live rows hold their place.
#define ROWMAP_FREE (-1)
#define ROWMAP_FIXED (-2)
#define ROWMAP_LOWER (-3)
#define ROWMAP_UPPER (-4)
#define ROWMAP_RANGE (-5)
#define ROWMAP_EMPTY (-6)
#define ROWMAP_POSTDET (-7)

#define COLMAP_FIXED (-1)
#define COLMAP_EMPTY (-2)
#define COLMAP_POSTDET (-3)

// typeModel of the equation solver's own models.
#define PRESOLVE_MODEL_EQUATION 10

#define PRESOLVE_MAX_PASS 100

typedef struct presolver {
  int32_t typeModel;
  int32_t preControl;
  int32_t preRoute;
  int32_t numRemovedRow;
  int32_t numRemovedCol;
  int32_t numRemovedElement;
  int32_t numRemovedQuadElement;
  int32_t numChangeRange;
  ipmModel* inModel;
  // working column-wise copy of A, packed
  int32_t* colBegin;
  int32_t* colLength;
  int32_t* rowIndex;
  double* matValue;
  // working row-wise copy of A; rowBegin has numRow + 1 entries
  int32_t* rowBegin;
  int32_t* rowLength;
  int32_t* colIndex;
  double* rowMatValue;
  // working copies of the strict triangle of Q, both ways
  int32_t* quadColBegin;
  int32_t* quadColLength;
  int32_t* quadRowIndex;
  double* quadMatValue;
  int32_t* quadRowBegin;
  int32_t* quadRowLength;
  int32_t* quadColIndex;
  double* quadRowMatValue;
  char* rowSense;
  double* rhs;  // upper end of an R row; its lower end is rhs - range
  double* obj;
  double* lowerBound;
  double* upperBound;
  double noiseThreshold;
  int32_t* rowMap;
  int32_t* colMap;
  int32_t* lbMap;
  int32_t* ubMap;
  double* shiftValue;
  int32_t* shiftStatus;
  int32_t boundChanged;
  int32_t numPostdet;
  int32_t* spec;
  int32_t* rowDone;
  int32_t* colDone;
  int32_t changed;
  int32_t numPass;
  int32_t maxPass;
  // The relaxation flags this presolver made, which it alone frees; flags a
  // sibling handed in stay the sibling's.
  uint8_t* relaxMade;
} presolver;

static_assert(offsetof(presolver, inModel) == 32, "presolver.inModel");
static_assert(offsetof(presolver, colBegin) == 40, "presolver.colBegin");
static_assert(offsetof(presolver, rowSense) == 168, "presolver.rowSense");
static_assert(offsetof(presolver, noiseThreshold) == 208, "presolver.noiseThreshold");
static_assert(offsetof(presolver, boundChanged) == 264, "presolver.boundChanged");
static_assert(offsetof(presolver, maxPass) == 304, "presolver.maxPass");

// What tightenBound hands to tightenBoundL and tightenBoundG.
typedef struct presolveRow {
  int32_t row;
  double activity;  // without the infinite contributions
  double rhs;       // the end of the row in use
  int32_t numInf;
  int32_t infPos;  // position in the row-wise copy of the last infinite one
} presolveRow;

// ---- record ------------------------------------------------------
int32_t CreatePresolver(HalvexEnv* env, ipmModel* model, ipmOption* option, presolver* pre);
void FreePresolver(HalvexEnv* env, presolver* pre);
void DestroyPresolver(HalvexEnv* env, ipmModel* model, presolver* pre);
void adjustBound(HalvexEnv* env, ipmModel* model, presolver* pre);
void setMapping(HalvexEnv* env, ipmModel* model, presolver* pre);

// ---- row reductions ---------------------------------------------------------------
int32_t removeFreeRow(HalvexEnv* env, ipmModel* model, presolver* pre);
int32_t removeEmptyRow(HalvexEnv* env, ipmModel* model, ipmOption* option, presolver* pre,
                       int32_t row);
int32_t removeSingletonRow(HalvexEnv* env, ipmModel* model, ipmOption* option, presolver* pre,
                           int32_t row);
void updateMapLower(HalvexEnv* env, int32_t* rowMap, int32_t* lbMap, int32_t col, int32_t row);
void updateMapUpper(HalvexEnv* env, int32_t* rowMap, int32_t* ubMap, int32_t col, int32_t row);

// ---- column and bound reductions --------------------------------------------------
int32_t tightenBound(HalvexEnv* env, ipmModel* model, ipmOption* option, presolver* pre,
                     int32_t row);
void tightenBoundL(HalvexEnv* env, ipmOption* option, presolver* pre, const presolveRow* rec);
void tightenBoundG(HalvexEnv* env, ipmOption* option, presolver* pre, const presolveRow* rec);
int32_t detectInfeasBound(HalvexEnv* env, ipmModel* model, ipmOption* option, presolver* pre);
int32_t removeFixedCol(HalvexEnv* env, ipmModel* model, ipmOption* option, presolver* pre,
                       int32_t col);
int32_t removeEmptyCol(HalvexEnv* env, ipmModel* model, ipmOption* option, presolver* pre,
                       int32_t col);

// ---- reduced model ------------------------------------------------------------------
ipmModel* NewReducedModel(HalvexEnv* env, ipmModel* model, ipmStorage* storage, presolver* pre);
void reduceModel(HalvexEnv* env, ipmModel* reduced, presolver* pre);
void FreeReducedModel(HalvexEnv* env, ipmModel* reduced, ipmModel* model);

// ---- postsolve ------------------------------------------------------------------------
int32_t ipmPostsolve(HalvexEnv* env, ipmModel** model, ipmOption* option, presolver* pre,
                     ipmSolution* innerSolution, ipmSolution* outerSolution);
void outputSolution(presolver* pre, ipmSolution* innerSolution, ipmSolution* outerSolution,
                    ipmOption* option);
int32_t adjustDualOutput(HalvexEnv* env, ipmModel* model, ipmOption* option, presolver* pre,
                         ipmSolution* solution);
void adjustRowActivity(ipmModel* model, presolver* pre, ipmSolution* solution);
// objValue, rowActivity = Ax and reducedCost = obj - A'y + Qx of a model
// whose solPrimal and solDual hold the answer.
void evaluateSolution(HalvexEnv* env, ipmModel* model);

// The presolve summary of a QP solve, at the end of both presolve functions.
void printPreMsgQP(HalvexEnv* env, ipmModel* model, ipmOption* option, presolver* pre);

// ---- the bound analyses the presolver decides by (ipm/bound_status.cpp) --------------
void getBoundStatus(HalvexEnv* env, ipmModel* model, ipmOption* option, presolver* pre);
int32_t getRelaxBoundStatus(HalvexEnv* env, ipmModel* model, ipmOption* option, presolver* pre);
void countFreeVar(HalvexEnv* env, ipmModel* model, ipmOption* option, presolver* pre,
                  int32_t* numFree);
void countProcessedFreeVar(HalvexEnv* env, ipmModel* model, ipmOption* option, presolver* pre,
                           int32_t* numFree);

#endif  // HALVEX_PRESOLVE_PRESOLVER_H
