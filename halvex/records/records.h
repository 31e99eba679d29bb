// The records a problem travels in, the status codes, and the two call-backs
// through which the solver speaks.
//
// QPRecord, LPRecord, LPOptions, ScripterOptions and ReconRecord are filled by
// the host and read by position: their field order is part of the interface
// and pinned below.  The internal records are pinned too, since the
// diagnostics dump them by layout.
#ifndef HALVEX_RECORDS_RECORDS_H
#define HALVEX_RECORDS_RECORDS_H

#include <stddef.h>
#include <stdint.h>

#include "frame/qvkernel.h"

#ifdef __cplusplus
extern "C" {
#endif

// ---- status codes ------------------------------------------------------------
#define IPM_STATUS_OK 0
#define IPM_STATUS_OPTIMAL 1
#define IPM_STATUS_PRIMAL_INFEASIBLE 3
#define IPM_STATUS_DUAL_INFEASIBLE 4
#define IPM_STATUS_ITERATION_LIMIT 7
#define IPM_STATUS_TIME_LIMIT 8
#define IPM_STATUS_FAILED 10
#define IPM_STATUS_INTERRUPTED 12
#define IPM_STATUS_BOTH_INFEASIBLE 14
#define IPM_STATUS_ACCEPTABLE 15
#define IPM_STATUS_SOLVE_FAILED 100
#define IPM_STATUS_SIBLING_INFEASIBLE 256
#define IPM_STATUS_RESET_FAILED 1003
#define IPM_STATUS_OUT_OF_MEMORY (-1086)

#define IPM_MODEL_LP 1
#define IPM_MODEL_QP 2

// Message severities of the message log.
#define MSG_INFO 2
#define MSG_WARNING 3
#define MSG_ERROR 4
#define MSG_TABLE_HEADING 100
#define MSG_TABLE_LINE 101

// ---- call-backs ---------------------------------------------------------------

// Text log: printf-like, may begin with a host control prefix ("%1z", ...).
typedef void (*TextLogFn)(const char* format, ...);

// Message log object: the call-back in slot 0, the host's data behind it.
typedef struct MessageLog MessageLog;
typedef void (*MessageLogFn)(MessageLog* self, int32_t severity, int64_t code, ...);
struct MessageLog {
  MessageLogFn log;
};

// Break test of the caller: non-zero stops the solve.
typedef int32_t (*SolverBreakFn)(void* scripterDataStruct);

// ---- the environment ----------------------------------------------------------

// First six slots of the instance (QP) or of the LP host's context.
typedef struct HalvexEnv {
  QVPool* pool;             // 0
  TextLogFn textLog;        // 1
  MessageLog* messageLog;   // 2
  void* destroyOperation;   // 3
  QVModule* preModule;      // 4: bramlet while loaded
  void* preObject;          // 5: bramlet instance while it lives
} HalvexEnv;

// The LP host's context: env first, then the LP driver's slots.
typedef struct LPContext {
  HalvexEnv env;                // 0-5
  QVModule* simplexModule;      // 6: fennick
  void* simplexObject;          // 7
  void* hostSlot8;
  struct LPOptions* lpOptions;  // 9
  void* hostSlot10[2];
  void* preContext;             // 12: bramlet context
  double savedObjConstant;      // 13
  void* hostSlot14[2];
} LPContext;

// ---- host records --------------------------------------------------------------

typedef struct ScripterOptions {
  double gapTol;
  double primalTol;
  double dualTol;
  int32_t maxIteration;
  double notRead1;
  double notRead2;
  int32_t printFreq;
  int32_t presolver;
  double maxTime;
  int32_t timerType;
  int32_t numThreads;
} ScripterOptions;

typedef struct LPOptions {
  uint8_t flag0;
  int32_t presolver;
  int32_t solverKind;
  int32_t sibling3;
  int32_t sibling4;
  int32_t maxIteration;
  double maxTime;
  int32_t timerType;
  int32_t sibling8;
  int32_t sibling9;
  int32_t printFreq;
  int32_t printLevel;
  double sibling12;
  double sibling13;
  int32_t sibling14;
  double sibling15;
  int32_t sibling16;
  int32_t verifyLevel;
  int32_t sibling18;
  int32_t crossover;
  int32_t sibling20;
  int32_t sibling21;
  int64_t sibling22;
  int64_t sibling23;
  double gapTol;
  double primalTol;
  double dualTol;
  int32_t rowScaleOnly;
  int32_t numThreads;
  int32_t loadMode;
  int64_t sibling31;
  int64_t sibling32;
  double timeUsed;
} LPOptions;

// Size and magnitude figures of a QP, behind the fields of QPRecord.
typedef struct ProbStatistics {
  int32_t statNumCol;
  int32_t statNumRow;
  int32_t statNumCoef;
  double matMax;
  double matMin;
  double matAvg;
  int32_t statNumQuadCoef;
  int32_t quadDiagCount;
  double quadMax;
  double quadMin;
  double quadAvg;
  int32_t objCount;
  double objMax;
  double objMin;
  double objAvg;
  int32_t rhsCount;
  double rhsMax;
  double rhsMin;
  double rhsAvg;
  int32_t colCountMax;
  int32_t colCountMin;
  double colCountAvg;
  int32_t rowCountMax;
  int32_t rowCountMin;
  double rowCountAvg;
} ProbStatistics;

typedef struct QPRecord {
  int32_t objSense;
  int32_t numRow;
  int32_t notRead0;
  int32_t numCol;
  int32_t numCoef;
  int32_t numQuadCoef;
  double* matValue;
  int32_t* rowIndex;
  int32_t* colBegin;
  double* quadDiag;
  double* quadMatValue;
  int32_t* quadRowIndex;
  int32_t* quadColBegin;
  double* obj;
  double* rhs;
  double* range;
  double* lower;
  double* upper;
  char* rowSense;
  void* notRead1;
  void* notRead2;
  double* solPrimal;
  double* solDual;
  double* rowActivity;
  double objConstant;
  int64_t notRead3;
  double objValue;
  double dualityGap;
  double primalInfeas;
  double dualInfeas;
  double boundInfeas;
  double complementarity;
  int32_t iterations;
  double timeZero;
  double solverTime;
  int64_t notRead4;
  SolverBreakFn checkSolverBreak;
  void* scripterDataStruct;
  ProbStatistics stats;
} QPRecord;

// Handed whole to bramlet's load operation; its content is bramlet's.
typedef struct LPLoadArea {
  int64_t word[8];
} LPLoadArea;

typedef struct LPRecord {
  int32_t objSense;
  int32_t numRow;
  int32_t notRead0;
  int32_t numCol;
  int32_t numCoef;
  double* matValue;
  int32_t* rowIndex;
  int32_t* colBegin;
  int32_t* colLength;
  double* obj;
  double* rhs;
  double* range;
  double* lower;
  double* upper;
  char* rowSense;
  double* solPrimal;
  double* solDual;
  double objConstant;  // objective constant on entry, objective value on return
  int64_t siblingWord[7];
  double* reducedCost;
  double* rowActivity;
  int32_t status;
  int32_t iteration;
  double primalInfeas;
  double dualInfeas;
  double boundInfeas;
  double presolveTime;
  double totalTime;
  int32_t returnCode;
  double dualityGap;
  double complementarity;
  SolverBreakFn checkSolverBreak;
  void* scripterDataStruct;
  LPLoadArea loadArea;
} LPRecord;

// The one-row separable QP of qpReconQP.
typedef struct ReconRecord {
  int32_t maxIter;
  double big;
  double primalTol;
  double dualTol;
  double gapTol;
  int32_t n;
  double* q;
  double* c;
  double* lower;
  double* upper;
  double b;
  uint8_t* flags;
  double* x;
  int64_t notRead;
  int32_t iterations;
  double primalResidual;
  double dualResidual;
  double gap;
  double objective;
  double* lowerSlack;
  double* upperSlack;
  double* lowerDual;
  double* upperDual;
  double* step;
  double* inverse;
} ReconRecord;

#define RECON_HAS_LOWER 1
#define RECON_HAS_UPPER 2

// ---- internal records -------------------------------------------------------------

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

// relaxColBound bits, set by bramlet.
#define RELAX_NO_LOWER 1
#define RELAX_NO_UPPER 2

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

#define HX_FIELD(type, field, offset) \
  static_assert(offsetof(type, field) == (offset), #type "." #field " at byte " #offset)

HX_FIELD(HalvexEnv, pool, 0);
HX_FIELD(HalvexEnv, textLog, 8);
HX_FIELD(HalvexEnv, messageLog, 16);
HX_FIELD(HalvexEnv, preModule, 32);
HX_FIELD(HalvexEnv, preObject, 40);
HX_FIELD(LPContext, simplexModule, 6 * 8);
HX_FIELD(LPContext, simplexObject, 7 * 8);
HX_FIELD(LPContext, lpOptions, 9 * 8);
HX_FIELD(LPContext, preContext, 12 * 8);
HX_FIELD(LPContext, savedObjConstant, 13 * 8);

HX_FIELD(ScripterOptions, maxIteration, 24);
HX_FIELD(ScripterOptions, notRead1, 32);
HX_FIELD(ScripterOptions, printFreq, 48);
HX_FIELD(ScripterOptions, presolver, 52);
HX_FIELD(ScripterOptions, maxTime, 56);
HX_FIELD(ScripterOptions, timerType, 64);
HX_FIELD(ScripterOptions, numThreads, 68);
static_assert(sizeof(ScripterOptions) == 9 * 8, "ScripterOptions fills instance slots 10 to 18");

HX_FIELD(LPOptions, presolver, 4);
HX_FIELD(LPOptions, solverKind, 8);
HX_FIELD(LPOptions, maxIteration, 20);
HX_FIELD(LPOptions, maxTime, 24);
HX_FIELD(LPOptions, timerType, 32);
HX_FIELD(LPOptions, printFreq, 44);
HX_FIELD(LPOptions, printLevel, 48);
HX_FIELD(LPOptions, sibling12, 56);
HX_FIELD(LPOptions, sibling14, 72);
HX_FIELD(LPOptions, sibling15, 80);
HX_FIELD(LPOptions, verifyLevel, 92);
HX_FIELD(LPOptions, crossover, 100);
HX_FIELD(LPOptions, sibling22, 112);
HX_FIELD(LPOptions, gapTol, 128);
HX_FIELD(LPOptions, primalTol, 136);
HX_FIELD(LPOptions, dualTol, 144);
HX_FIELD(LPOptions, rowScaleOnly, 152);
HX_FIELD(LPOptions, numThreads, 156);
HX_FIELD(LPOptions, loadMode, 160);
HX_FIELD(LPOptions, sibling31, 168);
HX_FIELD(LPOptions, timeUsed, 184);
static_assert(sizeof(LPOptions) == 192, "LPOptions size");

HX_FIELD(QPRecord, numCol, 12);
HX_FIELD(QPRecord, numQuadCoef, 20);
HX_FIELD(QPRecord, matValue, 24);
HX_FIELD(QPRecord, colBegin, 40);
HX_FIELD(QPRecord, quadDiag, 48);
HX_FIELD(QPRecord, quadColBegin, 72);
HX_FIELD(QPRecord, obj, 80);
HX_FIELD(QPRecord, rowSense, 120);
HX_FIELD(QPRecord, solPrimal, 144);
HX_FIELD(QPRecord, rowActivity, 160);
HX_FIELD(QPRecord, objConstant, 168);
HX_FIELD(QPRecord, objValue, 184);
HX_FIELD(QPRecord, dualityGap, 192);
HX_FIELD(QPRecord, complementarity, 224);
HX_FIELD(QPRecord, iterations, 232);
HX_FIELD(QPRecord, timeZero, 240);
HX_FIELD(QPRecord, solverTime, 248);
HX_FIELD(QPRecord, checkSolverBreak, 264);
HX_FIELD(QPRecord, scripterDataStruct, 272);
HX_FIELD(QPRecord, stats, 280);
HX_FIELD(ProbStatistics, matMax, 16);
HX_FIELD(ProbStatistics, statNumQuadCoef, 40);
HX_FIELD(ProbStatistics, quadMax, 48);
HX_FIELD(ProbStatistics, objCount, 72);
HX_FIELD(ProbStatistics, rhsCount, 104);
HX_FIELD(ProbStatistics, colCountMax, 136);
HX_FIELD(ProbStatistics, colCountAvg, 144);
HX_FIELD(ProbStatistics, rowCountMax, 152);
HX_FIELD(ProbStatistics, rowCountAvg, 160);
static_assert(sizeof(ProbStatistics) == 168, "statistics block size");

HX_FIELD(LPRecord, numCoef, 16);
HX_FIELD(LPRecord, matValue, 24);
HX_FIELD(LPRecord, colLength, 48);
HX_FIELD(LPRecord, rowSense, 96);
HX_FIELD(LPRecord, solDual, 112);
HX_FIELD(LPRecord, objConstant, 120);
HX_FIELD(LPRecord, siblingWord, 128);
HX_FIELD(LPRecord, reducedCost, 184);
HX_FIELD(LPRecord, status, 200);
HX_FIELD(LPRecord, iteration, 204);
HX_FIELD(LPRecord, primalInfeas, 208);
HX_FIELD(LPRecord, presolveTime, 232);
HX_FIELD(LPRecord, totalTime, 240);
HX_FIELD(LPRecord, returnCode, 248);
HX_FIELD(LPRecord, dualityGap, 256);
HX_FIELD(LPRecord, checkSolverBreak, 272);
HX_FIELD(LPRecord, loadArea, 288);

HX_FIELD(ReconRecord, big, 8);
HX_FIELD(ReconRecord, n, 40);
HX_FIELD(ReconRecord, q, 48);
HX_FIELD(ReconRecord, b, 80);
HX_FIELD(ReconRecord, flags, 88);
HX_FIELD(ReconRecord, x, 96);
HX_FIELD(ReconRecord, iterations, 112);
HX_FIELD(ReconRecord, primalResidual, 120);
HX_FIELD(ReconRecord, objective, 144);
HX_FIELD(ReconRecord, lowerSlack, 152);
HX_FIELD(ReconRecord, inverse, 192);
static_assert(sizeof(ReconRecord) == 200, "ReconRecord size");

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

#endif
