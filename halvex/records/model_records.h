// The solver's own records: the model it works on, its options, a solution
// and the scratch record around slacks and scaling.  Hosts never see them.
// They are pinned too, since the diagnostics dump them by layout.
#ifndef HALVEX_RECORDS_MODEL_RECORDS_H
#define HALVEX_RECORDS_MODEL_RECORDS_H

#include "records/env.h"

#ifdef __cplusplus
extern "C" {
#endif

#define IPM_MODEL_LP 1
#define IPM_MODEL_QP 2


typedef struct ipmModel {
  int32_t typeModel;
  int32_t numRow;
  int32_t numCol;
  int32_t numCoef;
  int32_t* colBegin;
  int32_t* colLength;
  int32_t* rowIndex;
  double* matValue;
  int32_t numQuadCoef;
  double* quadDiag;
  int32_t* quadColBegin;
  int32_t* quadColLength;
  int32_t* quadRowIndex;
  double* quadMatValue;
  int32_t objSense;
  double objConstant;
  double objValue;
  double* obj;
  char* rowSense;
  double* rhs;
  double* range;
  double* lower;
  double* upper;
  uint8_t* relaxColBound;
  double* solPrimal;
  double* solDual;
  double* reducedCost;
  double* rowActivity;
  int32_t status;
  int32_t iteration;
  double primalInfeas;
  double dualInfeas;
  double boundInfeas;
  double dualityGap;
  double complementarity;
  SolverBreakFn checkSolverBreak;
  void* scripterDataStruct;
} ipmModel;

// varBndType flags of a column's bounds.
#define VARBND_FREE 1
#define VARBND_UPPER 2
#define VARBND_LOWER 4
#define VARBND_LOWER_ZERO 8

typedef struct ipmOption {
  int32_t presolver;
  int32_t verifyLevel;
  int32_t timerType;
  double primalTol;
  double dualTol;
  double gapTol;
  double infinity;
  int32_t maxIteration;
  double maxTime;
  int32_t printFreq;
  int32_t printLevel;
  int32_t crossover;
  int32_t rowScaleOnly;
  int32_t numThreads;
} ipmOption;

typedef struct ipmSolution {
  double* solPrimal;   // borrowed from the model
  double* solDual;     // borrowed from the model
  double* lowerSlack;
  double* upperSlack;
  double* lowerDual;
  double* upperDual;
  double* ineqnSlack;
} ipmSolution;

typedef struct ipmStorage {
  int32_t numRow;
  int32_t numCol;
  int32_t numCoef;
  int32_t numQuadCoef;
  int32_t numFreeVar;
  int32_t* freeVarPlus;
  int32_t* freeVarMinus;
  int32_t numRange;
  int32_t firstSlackCoef;
  int32_t firstSlackCol;
  int32_t* rangeRow;
  int32_t numLcont;
  int32_t* lcontRow;
  double objScale;
  double* rowScale;
  double* colScale;
  double* rowScaleAux;
  double* colScaleAux;
} ipmStorage;

#ifdef __cplusplus
}  // extern "C"

HX_FIELD(ipmModel, colBegin, 16);
HX_FIELD(ipmModel, numQuadCoef, 48);
HX_FIELD(ipmModel, quadDiag, 56);
HX_FIELD(ipmModel, objSense, 96);
HX_FIELD(ipmModel, objConstant, 104);
HX_FIELD(ipmModel, relaxColBound, 168);
HX_FIELD(ipmModel, status, 208);
HX_FIELD(ipmModel, complementarity, 248);
HX_FIELD(ipmModel, scripterDataStruct, 264);
HX_FIELD(ipmOption, primalTol, 16);
HX_FIELD(ipmOption, maxIteration, 48);
HX_FIELD(ipmOption, maxTime, 56);
HX_FIELD(ipmOption, numThreads, 80);
HX_FIELD(ipmSolution, ineqnSlack, 48);
HX_FIELD(ipmStorage, freeVarPlus, 24);
HX_FIELD(ipmStorage, numRange, 40);
HX_FIELD(ipmStorage, rangeRow, 56);
HX_FIELD(ipmStorage, lcontRow, 72);
HX_FIELD(ipmStorage, objScale, 80);
HX_FIELD(ipmStorage, colScaleAux, 112);
#endif

#endif  // HALVEX_RECORDS_MODEL_RECORDS_H
