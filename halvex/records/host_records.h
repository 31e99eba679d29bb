// The host interface: the records a host fills and reads by position, the
// host's return codes, and the defaults of the two option records.  Hosts,
// the command and the siblings include this header and nothing else of the
// module's records; their field order is part of the interface and pinned
// below.
#ifndef HALVEX_RECORDS_HOST_RECORDS_H
#define HALVEX_RECORDS_HOST_RECORDS_H

#include <float.h>
#include <string.h>

#include "records/env.h"

#ifdef __cplusplus
extern "C" {
#endif

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

// relaxColBound bits, set by bramlet.
#define RELAX_NO_LOWER 1
#define RELAX_NO_UPPER 2

// ---- host return codes --------------------------------------------------------------
#define QP_RETURN_OPTIMAL 0
#define QP_RETURN_OUT_OF_MEMORY 1
#define QP_RETURN_PRIMAL_INFEASIBLE 2
#define QP_RETURN_DUAL_INFEASIBLE 3
#define QP_RETURN_ITERATION_LIMIT 5
#define QP_RETURN_FAILURE 8
#define QP_RETURN_ACCEPTABLE 9
#define QP_RETURN_TIME_LIMIT 10
#define QP_RETURN_BOTH_INFEASIBLE 23
#define QP_RETURN_INTERRUPTED 99

// The solver's status as the host's return code.  A sibling's "infeasible"
// reads as primal infeasible; 10 and whatever a sibling returned that the
// solver has no name for read as a failure.
static inline int32_t hostReturnCode(int32_t status) {
  switch (status) {
    case IPM_STATUS_OPTIMAL: return QP_RETURN_OPTIMAL;
    case IPM_STATUS_ACCEPTABLE: return QP_RETURN_ACCEPTABLE;
    case IPM_STATUS_SIBLING_INFEASIBLE:
    case IPM_STATUS_PRIMAL_INFEASIBLE: return QP_RETURN_PRIMAL_INFEASIBLE;
    case IPM_STATUS_DUAL_INFEASIBLE: return QP_RETURN_DUAL_INFEASIBLE;
    case IPM_STATUS_BOTH_INFEASIBLE: return QP_RETURN_BOTH_INFEASIBLE;
    case IPM_STATUS_ITERATION_LIMIT: return QP_RETURN_ITERATION_LIMIT;
    case IPM_STATUS_TIME_LIMIT: return QP_RETURN_TIME_LIMIT;
    case IPM_STATUS_INTERRUPTED: return QP_RETURN_INTERRUPTED;
    case IPM_STATUS_OUT_OF_MEMORY: return QP_RETURN_OUT_OF_MEMORY;
    default: return QP_RETURN_FAILURE;
  }
}

// ---- option defaults ------------------------------------------------------------------
#define OPT_DEFAULT_TOL 1e-06
#define OPT_DEFAULT_MAX_ITERATION 2147483647
#define OPT_DEFAULT_PRESOLVER (-1)
#define OPT_DEFAULT_PRINT_FREQ 1
#define OPT_DEFAULT_TIMER_TYPE 0
#define OPT_DEFAULT_NUM_THREADS 1

#define LPOPT_DEFAULT_SOLVER_KIND 3
#define LPOPT_DEFAULT_SIBLING3 (-1)
#define LPOPT_DEFAULT_SIBLING4 (-1)
#define LPOPT_DEFAULT_MAX_TIME 8.988465674311578e+307
#define LPOPT_DEFAULT_SIBLING9 100
#define LPOPT_DEFAULT_PRINT_LEVEL 2
#define LPOPT_DEFAULT_SIBLING12 1e-06
#define LPOPT_DEFAULT_SIBLING13 1e-06
#define LPOPT_DEFAULT_SIBLING14 2000
#define LPOPT_DEFAULT_SIBLING15 1e-20
#define LPOPT_DEFAULT_SIBLING21 1

#define SCRIPTER_DEFAULT_NOT_READ 1e+20
#define SCRIPTER_DEFAULT_MAX_TIME DBL_MAX

// Every field not named here is zero, padding included, so that two default
// blocks compare equal byte for byte.
static inline void setLpOptionDefaults(LPOptions* o) {
  memset(o, 0, sizeof(*o));
  o->presolver = OPT_DEFAULT_PRESOLVER;
  o->solverKind = LPOPT_DEFAULT_SOLVER_KIND;
  o->sibling3 = LPOPT_DEFAULT_SIBLING3;
  o->sibling4 = LPOPT_DEFAULT_SIBLING4;
  o->maxIteration = OPT_DEFAULT_MAX_ITERATION;
  o->maxTime = LPOPT_DEFAULT_MAX_TIME;
  o->timerType = OPT_DEFAULT_TIMER_TYPE;
  o->sibling9 = LPOPT_DEFAULT_SIBLING9;
  o->printFreq = OPT_DEFAULT_PRINT_FREQ;
  o->printLevel = LPOPT_DEFAULT_PRINT_LEVEL;
  o->sibling12 = LPOPT_DEFAULT_SIBLING12;
  o->sibling13 = LPOPT_DEFAULT_SIBLING13;
  o->sibling14 = LPOPT_DEFAULT_SIBLING14;
  o->sibling15 = LPOPT_DEFAULT_SIBLING15;
  o->sibling21 = LPOPT_DEFAULT_SIBLING21;
  o->gapTol = OPT_DEFAULT_TOL;
  o->primalTol = OPT_DEFAULT_TOL;
  o->dualTol = OPT_DEFAULT_TOL;
  o->numThreads = OPT_DEFAULT_NUM_THREADS;
}

static inline void setScripterDefaults(ScripterOptions* o) {
  o->gapTol = OPT_DEFAULT_TOL;
  o->primalTol = OPT_DEFAULT_TOL;
  o->dualTol = OPT_DEFAULT_TOL;
  o->maxIteration = OPT_DEFAULT_MAX_ITERATION;
  o->notRead1 = SCRIPTER_DEFAULT_NOT_READ;
  o->notRead2 = SCRIPTER_DEFAULT_NOT_READ;
  o->printFreq = OPT_DEFAULT_PRINT_FREQ;
  o->presolver = OPT_DEFAULT_PRESOLVER;
  o->maxTime = SCRIPTER_DEFAULT_MAX_TIME;
  o->timerType = OPT_DEFAULT_TIMER_TYPE;
  o->numThreads = OPT_DEFAULT_NUM_THREADS;
}

#ifdef __cplusplus
}  // extern "C"

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
#endif

#endif  // HALVEX_RECORDS_HOST_RECORDS_H
