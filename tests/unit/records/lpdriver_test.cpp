// The LP entry over a stand-in bramlet (and fennick) that records what it is
// handed: option checks, the chain of the sibling's operations, the time
// accounting, and a real solve of a small LP whose columns take every kind of
// shift.
#include <limits.h>
#include <string.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "frame/qv.h"
#include "ipm/scale.h"
#include "records/lpdriver.h"
#include "records/model.h"
#include "support/message_log.h"
#include "support/oom.h"
#include "support/support.h"

namespace {

// ---- the small LP -------------------------------------------------------------------
//
// min  -x0 + x1 - 2 x2 + x3 + x5 + 0.5
//      x0 + x1 + x2 + x3 <= 6      (dual -1)
//      x4 - x1            = 0
//      x3 + x5           >= -10    (inactive)
//      x0 <= 4, x1 >= 2, 1 <= x2 <= 3, -1 <= x3 <= 5, x4 free, -3 <= x5 <= 0
// The bounds give a flip, a shift, a flip of a box, a shift of a box, a free
// column and a flip around 0.  Optimum x = (2, 2, 3, -1, 2, -3), value -9.5.
constexpr double kInf = 1e20;

struct SmallLP {
  std::vector<double> matValue{1, 1, -1, 1, 1, 1, 1, 1}, obj{-1, 1, -2, 1, 0, 1}, rhs{6, 0, -10},
      lower{-kInf, 2, 1, -1, -kInf, -3}, upper{4, kInf, 3, 5, kInf, 0}, x = std::vector<double>(6),
      y = std::vector<double>(3), rc = std::vector<double>(6), act = std::vector<double>(3);
  std::vector<int32_t> rowIndex{0, 0, 1, 0, 0, 2, 1, 2}, colBegin{0, 1, 3, 4, 6, 7, 8},
      colLength{1, 2, 1, 2, 1, 1};
  std::vector<char> sense{'L', 'E', 'G'};
  LPRecord record{};
  SmallLP() {
    record.objSense = 1, record.numRow = 3, record.numCol = 6, record.numCoef = 8;
    record.objConstant = 0.5;
    // Room for the slack of every row, as the solver's slack stage asks.
    for (auto* v : {&matValue, &obj, &lower, &upper, &x, &rc}) v->resize(v->size() + 3);
    for (auto* v : {&rowIndex, &colBegin, &colLength}) v->resize(v->size() + 3);
    LPRecord* r = &record;
    r->matValue = matValue.data(), r->rowIndex = rowIndex.data(), r->colBegin = colBegin.data();
    r->colLength = colLength.data(), r->obj = obj.data(), r->rhs = rhs.data();
    r->lower = lower.data(), r->upper = upper.data(), r->rowSense = sense.data();
    r->solPrimal = x.data(), r->solDual = y.data(), r->reducedCost = rc.data();
    r->rowActivity = act.data();
  }
};

// ---- the stand-in siblings ------------------------------------------------------------

// What bramlet's presolve hands back: the caller's LP as it came, on arrays
// with room for the solver's slacks, and its numbers as they were, to tell
// whether the solver gave them back unshifted.
struct FakeProblem {
  BramletProblem head;
  LPRecord lp;
  LPRecord* caller;
  std::vector<double> numbers;
  std::vector<uint8_t> relax;
};

std::vector<double> numbersOf(const LPRecord& r) {
  std::vector<double> v(r.lower, r.lower + r.numCol);
  v.insert(v.end(), r.upper, r.upper + r.numCol);
  v.insert(v.end(), r.obj, r.obj + r.numCol);
  v.insert(v.end(), r.rhs, r.rhs + r.numRow);
  v.insert(v.end(), r.matValue, r.matValue + r.numCoef);
  return v;
}

struct FakeContext {
  BramletContext head;
  std::vector<uint8_t> parameters = std::vector<uint8_t>(2048, 0xFF);
  std::vector<uint8_t> limits = std::vector<uint8_t>(2048, 0);
};

int32_t readInt(const std::vector<uint8_t>& block, int position) {
  int32_t v;
  memcpy(&v, block.data() + position, sizeof v);
  return v;
}

struct Siblings {
  // behaviour of bramlet
  bool moduleLoads = true, instanceMade = true;
  int32_t contextStatus = 0, loadResult = 0, presolveStatus = 0, postsolveCode = 0;
  int32_t postsolveStatus = 1;  // what the caller sees when presolve settled the LP
  int presolveSleepMs = 0;
  std::vector<uint8_t> relax;
  double crossScale = 1.0;  // bramlet's factor in the crossover's space
  // behaviour of fennick
  bool fennickLoads = false, fennickInstance = true;
  // what was seen
  std::vector<std::string> calls;
  LPOptions* contextOptions = nullptr;
  int64_t presolveMode = 0;
  int32_t flagAtPresolve = 0;
  bool presolvedIntact = false;
  int32_t runParams[5] = {0, 0, 0, 0, 0};
  double runTimeLimit = 0.0, runObjConstant = 0.0, runX0 = 0.0;
  std::vector<int64_t> scaleDirections, unscaleDirections;
  FakeProblem* problem = nullptr;
  FakeContext* context = nullptr;
};
Siblings* gSib = nullptr;

// bramlet ---------------------------------------------------------------------------------

void bDestroy(void* instance) {
  gSib->calls.push_back("destroy");
  delete[] static_cast<void**>(instance);
}

void* bCreateContext(void*, LPOptions* options, int32_t* status) {
  gSib->calls.push_back("createContext");
  gSib->contextOptions = options;
  *status = gSib->contextStatus;
  FakeContext* c = new FakeContext;
  c->head.parameters = c->parameters.data();
  c->head.limits = c->limits.data();
  gSib->context = c;
  return c;
}

void bFreeContext(void*, void** context) {
  gSib->calls.push_back("freeContext");
  delete static_cast<FakeContext*>(*context);
  *context = nullptr;
  gSib->context = nullptr;
}

int32_t bLoad(void*, int32_t, int32_t, int32_t, double*, double*, double*, double*, double*,
              char*, int32_t*, int32_t*, int32_t*, double*, void*, LPLoadArea*) {
  gSib->calls.push_back("load");
  return gSib->loadResult;
}

void* bPresolve(void*, void* context, int32_t mode, LPRecord* r, int32_t* status) {
  gSib->calls.push_back("presolve");
  gSib->presolveMode = mode;
  gSib->flagAtPresolve =
      readInt(static_cast<FakeContext*>(context)->parameters, BRAMLET_PARAM_PRESOLVE_FLAG);
  if (gSib->presolveSleepMs > 0)
    std::this_thread::sleep_for(std::chrono::milliseconds(gSib->presolveSleepMs));
  *status = gSib->presolveStatus;
  if (gSib->presolveStatus < 0) return nullptr;
  FakeProblem* p = new FakeProblem{{}, *r, r, numbersOf(*r), gSib->relax};
  p->lp.checkSolverBreak = nullptr;
  p->lp.scripterDataStruct = nullptr;
  p->head.presolved = &p->lp;
  p->head.relaxColBound = p->relax.empty() ? nullptr : p->relax.data();
  gSib->problem = p;
  return p;
}

int32_t bPostsolve(void* problem) {
  gSib->calls.push_back("postsolve");
  FakeProblem* p = static_cast<FakeProblem*>(problem);
  LPRecord* r = p->caller;
  if (gSib->presolveStatus > 0) {
    r->status = gSib->postsolveStatus;
    return gSib->postsolveCode;
  }
  gSib->presolvedIntact = numbersOf(*r) == p->numbers;
  r->status = p->lp.status;
  r->objConstant = p->lp.objConstant;
  r->iteration = p->lp.iteration;
  r->primalInfeas = p->lp.primalInfeas;
  r->dualityGap = p->lp.dualityGap;
  return gSib->postsolveCode;
}

void bFreeProblem(void*, void** problem) {
  gSib->calls.push_back("freeProblem");
  delete static_cast<FakeProblem*>(*problem);
  *problem = nullptr;
  gSib->problem = nullptr;
}

int64_t bScale(double, void*, int64_t direction, int64_t numRow, int64_t numCol, int64_t,
               int32_t*, int32_t*, int32_t*, double*, double*, double*, double*, double* rowScale,
               double* colScale, void*, void*, double*, char*, double*, void*, void*, void*,
               void*) {
  gSib->scaleDirections.push_back(direction);
  const double f = direction == -1 ? gSib->crossScale : 1.0;
  for (int64_t i = 0; i <= numRow; i++) rowScale[i] = f;
  for (int64_t j = 0; j <= numCol; j++) colScale[j] = f;
  return 0;
}

// Undoes what the crossover did to the solution arrays; the model arrays
// were never touched by the scale above.
int64_t bUnscale(int64_t direction, int64_t numRow, int64_t numCol, int32_t*, int32_t*, int32_t*,
                 double*, double*, double*, double*, double*, double*, void*, void*,
                 double* rowScale, double* colScale, double* x, double* y, double* rc,
                 double* act) {
  gSib->unscaleDirections.push_back(direction);
  if (direction != -1) return 0;
  for (int64_t j = 0; j < numCol; j++) {
    x[j] *= colScale[j];
    if (rc) rc[j] /= colScale[j];
  }
  for (int64_t i = 0; i < numRow; i++) {
    y[i] *= rowScale[i];
    if (act) act[i] /= rowScale[i];
  }
  return 0;
}

void* bCreateInstance(QVModule*) {
  gSib->calls.push_back("createInstance");
  if (!gSib->instanceMade) return nullptr;
  void** s = new void*[26]();
  s[BRAMLET_SLOT_DESTROY] = reinterpret_cast<void*>(&bDestroy);
  s[BRAMLET_SLOT_CREATE_CONTEXT] = reinterpret_cast<void*>(&bCreateContext);
  s[BRAMLET_SLOT_FREE_CONTEXT] = reinterpret_cast<void*>(&bFreeContext);
  s[BRAMLET_SLOT_PRESOLVE] = reinterpret_cast<void*>(&bPresolve);
  s[BRAMLET_SLOT_POSTSOLVE] = reinterpret_cast<void*>(&bPostsolve);
  s[BRAMLET_SLOT_FREE_PROBLEM] = reinterpret_cast<void*>(&bFreeProblem);
  s[BRAMLET_SLOT_LOAD] = reinterpret_cast<void*>(&bLoad);
  s[BRAMLET_SLOT_SCALE] = reinterpret_cast<void*>(&bScale);
  s[BRAMLET_SLOT_UNSCALE] = reinterpret_cast<void*>(&bUnscale);
  return s;
}

void unloadModule(QVModule* module) {
  gSib->calls.push_back("unload");
  delete module;
}

QVModule* makeModule(bool loads, void* (*createInstance)(QVModule*)) {
  if (!loads) return nullptr;
  QVModule* module = new QVModule();
  module->moduleUnload = unloadModule;
  module->moduleCreateInstance = createInstance;
  return module;
}

QVModule* bramletFactory(QVKernel*) { return makeModule(gSib->moduleLoads, bCreateInstance); }

// fennick ---------------------------------------------------------------------------------

void fDestroy(void* instance) {
  gSib->calls.push_back("fennickDestroy");
  delete[] static_cast<void**>(instance);
}

int32_t fRun(void*, void*, void* context, LPRecord* r) {
  gSib->calls.push_back("run");
  const FakeContext* c = static_cast<FakeContext*>(context);
  const int positions[5] = {FENNICK_PARAM_INTERIOR_STATUS, FENNICK_PARAM_START,
                            FENNICK_PARAM_METHOD, FENNICK_PARAM_ITERATION_LIMIT,
                            FENNICK_PARAM_PRICING};
  for (int k = 0; k < 5; k++) gSib->runParams[k] = readInt(c->parameters, positions[k]);
  memcpy(&gSib->runTimeLimit, c->limits.data() + FENNICK_LIMIT_MAXTIME, sizeof(double));
  gSib->runObjConstant = r->objConstant;
  gSib->runX0 = r->solPrimal[0];
  r->status = IPM_STATUS_OPTIMAL;
  r->objConstant = -9.5;
  r->primalInfeas = r->dualInfeas = r->boundInfeas = 0.0;
  r->dualityGap = 1.0;  // to be cleared by the pipeline
  return 0;
}

void* fCreateInstance(QVModule*) {
  gSib->calls.push_back("fennickCreate");
  if (!gSib->fennickInstance) return nullptr;
  void** s = new void*[20]();
  s[FENNICK_SLOT_DESTROY] = reinterpret_cast<void*>(&fDestroy);
  s[FENNICK_SLOT_RUN] = reinterpret_cast<void*>(&fRun);
  return s;
}

QVModule* fennickFactory(QVKernel*) { return makeModule(gSib->fennickLoads, fCreateInstance); }

// ---- fixture ----------------------------------------------------------------------------

class LPDriver : public HostTest {
 protected:
  void SetUp() override {
    gSib = &sib;
    host.registerModule("bramlet", bramletFactory);
    host.registerModule("fennick", fennickFactory);
    ctx.env = env;
    ctx.env.messageLog = &messages.base;
    hxtest::textLines().clear();
    ctx.env.textLog = hxtest::captureText;
    resetLpOptions(&options);
    options.rowScaleOnly = 0;
  }
  void TearDown() override {
    host.registerModule("fennick", nullptr);
    gSib = nullptr;
  }
  int32_t run(LPOptions* o) { return iplpmain(&ctx, &lp.record, o); }
  int32_t run() { return run(&options); }
  bool called(const std::string& name) const {
    for (const std::string& c : sib.calls)
      if (c == name) return true;
    return false;
  }
  // A clean record of messages, and of the siblings' calls unless kept.
  void fresh(bool siblings = true) {
    if (siblings) sib = Siblings{};
    messages.clear();
    ctx.env.messageLog = &messages.base;
    resetLpOptions(&options);
  }
  // The release of the chain, whatever broke it.
  void expectReleased() {
    EXPECT_EQ(ctx.env.preModule, nullptr);
    EXPECT_EQ(ctx.env.preObject, nullptr);
    EXPECT_EQ(ctx.preContext, nullptr);
    EXPECT_EQ(sib.problem, nullptr);
    EXPECT_EQ(sib.context, nullptr);
    EXPECT_EQ(liveBlocks(), 0);
  }

  Siblings sib;
  LPContext ctx{};
  hxtest::RecordingLog messages{{0x827FD80D}};
  LPOptions options{};
  SmallLP lp;
};

void expectSmallLPSolved(const SmallLP& lp) {
  const double x[] = {2, 2, 3, -1, 2, -3}, rc[] = {0, 2, -1, 2, 0, 1};
  for (int j = 0; j < 6; j++) {
    EXPECT_NEAR(lp.x[j], x[j], 1e-5) << j;
    EXPECT_NEAR(lp.rc[j], rc[j], 1e-5) << j;
  }
  for (int i = 0; i < 3; i++) EXPECT_NEAR(lp.y[i], i == 0 ? -1.0 : 0.0, 1e-5) << i;
  EXPECT_NEAR(lp.act[0], 6.0, 1e-5);
  EXPECT_NEAR(lp.act[2], -4.0, 1e-5);
  EXPECT_NEAR(lp.record.objConstant, -9.5, 1e-5);
}

// ---- a whole solve --------------------------------------------------------------------

TEST_F(LPDriver, SolvesThroughBramletWithEveryKindOfShift) {
  ASSERT_EQ(run(nullptr), 0);
  EXPECT_EQ(lp.record.status, IPM_STATUS_OPTIMAL);
  EXPECT_EQ(lp.record.returnCode, 0);
  expectSmallLPSolved(lp);
  EXPECT_GT(lp.record.iteration, 0);
  // bramlet's copy went back to postsolve as it came: the shift was undone.
  EXPECT_TRUE(sib.presolvedIntact);
  EXPECT_EQ(sib.calls, (std::vector<std::string>{"createInstance", "createContext", "presolve",
                                                 "postsolve", "freeProblem", "freeContext",
                                                 "destroy", "unload"}));
  EXPECT_EQ(sib.presolveMode, 3);
  EXPECT_EQ(sib.flagAtPresolve, 0);
  EXPECT_EQ(sib.scaleDirections, (std::vector<int64_t>{1}));
  EXPECT_EQ(messages.severityOf(0x827FD801), MSG_INFO);
  EXPECT_EQ(messages.severityOf(0x827FD001), MSG_INFO);
  EXPECT_GE(lp.record.presolveTime, 0.0);
  EXPECT_GE(lp.record.totalTime, lp.record.presolveTime);
  // Defaults made for the call are gone with it.
  EXPECT_EQ(ctx.lpOptions, nullptr);
  expectReleased();
}

TEST_F(LPDriver, RangeOfInfinityKeepsTheRowsLowerEnd) {
  // x3 + x5 >= -2 as a range of width 1e20 binds: x5 rises to -1 and the
  // value to -7.5.  Adding the width to the right side would lose the -2.
  std::vector<double> range{0, 0, 1e20};
  lp.sense[2] = 'R';
  lp.rhs[2] = -2;
  lp.record.range = range.data();
  ASSERT_EQ(run(nullptr), 0);
  ASSERT_EQ(lp.record.status, IPM_STATUS_OPTIMAL);
  EXPECT_NEAR(lp.record.objConstant, -7.5, 1e-5);
  EXPECT_NEAR(lp.x[3], -1.0, 1e-5);
  EXPECT_NEAR(lp.x[5], -1.0, 1e-5);
  EXPECT_EQ(lp.sense[2], 'R');
  EXPECT_EQ(lp.rhs[2], -2.0);
  expectReleased();
}

TEST_F(LPDriver, RelaxationFlagsFromBramletReachTheSolve) {
  // x3's lower bound goes, so that only the G row holds it: x3 + x5 = -10
  // and x0 rises to its bound.  x1 has one bound only and keeps it.
  sib.relax = {0, RELAX_NO_LOWER, 0, RELAX_NO_LOWER, 0, 0};
  // Through the load path, quietly, on options of the caller's, which are
  // kept and charged with the time.
  options.loadMode = 3;
  options.printLevel = 0;
  options.maxTime = 100.0;
  ASSERT_EQ(run(), 0);
  EXPECT_EQ(sib.calls[2], "load");
  ASSERT_EQ(lp.record.status, IPM_STATUS_OPTIMAL);
  EXPECT_EQ(ctx.lpOptions, &options);
  EXPECT_EQ(sib.contextOptions, &options);
  EXPECT_DOUBLE_EQ(options.maxTime, 100.0 - lp.record.presolveTime - lp.record.totalTime);
  EXPECT_FALSE(messages.saw(0x827FD801));
  EXPECT_FALSE(messages.saw(0x827FD001));
  EXPECT_NEAR(lp.record.objConstant, -17.5, 1e-5);
  EXPECT_NEAR(lp.x[0], 4.0, 1e-5);
  EXPECT_NEAR(lp.x[1], 2.0, 1e-5);
  EXPECT_NEAR(lp.x[2], 3.0, 1e-5);
  EXPECT_NEAR(lp.x[3] + lp.x[5], -10.0, 1e-5);
}

// ---- options ----------------------------------------------------------------------------

TEST_F(LPDriver, OptionErrorsStopBeforeAnySibling) {
  const struct { const char* name; void (*set)(LPOptions*); int64_t code; } cases[] = {
      {"presolver 4", [](LPOptions* o) { o->presolver = 4; }, 0x827FD80D},
      {"presolver -2", [](LPOptions* o) { o->presolver = -2; }, 0x827FD80D},
      {"gapTol", [](LPOptions* o) { o->gapTol = 1e-16; }, 0x827FD810},
      {"primalTol", [](LPOptions* o) { o->primalTol = 0.0; }, 0x827FD811},
      {"dualTol", [](LPOptions* o) { o->dualTol = -1.0; }, 0x827FD812},
      // An error takes no further test: only the first one speaks.
      {"presolver before gapTol", [](LPOptions* o) { o->presolver = 7, o->gapTol = 0.0; },
       0x827FD80D},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    fresh(false);
    sib.calls.clear();
    options.printLevel = 0;  // the errors have no such guard
    c.set(&options);
    EXPECT_EQ(run(), 1);
    EXPECT_EQ(lp.record.status, IPM_STATUS_FAILED);
    EXPECT_EQ(lp.record.returnCode, IPM_STATUS_FAILED);
    EXPECT_EQ(lp.record.totalTime, 0.0);
    ASSERT_EQ(messages.codes.size(), 1u);
    EXPECT_EQ(messages.codes[0], c.code);
    EXPECT_EQ(messages.severities[0], MSG_ERROR);
    EXPECT_TRUE(sib.calls.empty());
    expectReleased();
  }
  EXPECT_EQ(messages.values.back(), 7);
}

TEST_F(LPDriver, UnknownScalingOptionIsATextError) {
  options.rowScaleOnly = 2;
  EXPECT_EQ(run(), 1);
  EXPECT_EQ(lp.record.status, IPM_STATUS_FAILED);
  ASSERT_EQ(hxtest::textLines().size(), 1u);
  EXPECT_EQ(hxtest::textLines()[0].text, "Unknown initialization option 2");
  EXPECT_TRUE(sib.calls.empty());
}

TEST_F(LPDriver, WarningsLetTheCallGoOnAndASettledLPSkipsTheSolve) {
  options.solverKind = 1;
  options.timerType = 5;
  options.sibling3 = 0;
  options.gapTol = options.primalTol = options.dualTol = 1e-15;  // the limit itself passes
  sib.presolveStatus = 1;  // settled by presolve: no solve at these tolerances
  sib.postsolveStatus = IPM_STATUS_PRIMAL_INFEASIBLE;
  EXPECT_EQ(run(), 0);
  EXPECT_EQ(messages.severityOf(0x827FD80E), MSG_WARNING);
  EXPECT_EQ(messages.severityOf(0x827FD80F), MSG_WARNING);
  EXPECT_EQ(messages.severityOf(0x827FD813), MSG_WARNING);
  EXPECT_FALSE(messages.saw(0x827FD810));
  EXPECT_FALSE(messages.saw(0x827FD801));
  EXPECT_TRUE(called("postsolve"));
  EXPECT_EQ(lp.record.status, IPM_STATUS_PRIMAL_INFEASIBLE);
  EXPECT_EQ(lp.record.returnCode, 0);
  expectReleased();
}

TEST_F(LPDriver, EveryRefusedAllocationEndsCleanly) {
  // A failed reset goes on from the point in force: such a run still solves.
  hxtest::OomSweep sweep(host);
  sweep.absorbed = IPM_STATUS_OPTIMAL;
  hxtest::OomSweep::Result r = sweep.run([&](hxtest::OomProbe& probe) {
    sib = Siblings{};
    SmallLP fresh;
    const int32_t code = iplpmain(&ctx, &fresh.record, nullptr);
    if (code == 0) {
      expectSmallLPSolved(fresh);
    } else {
      EXPECT_EQ(fresh.record.returnCode, IPM_STATUS_OUT_OF_MEMORY);
    }
    if (probe.k() == 0) {
      EXPECT_TRUE(sib.calls.empty());  // the defaults come first
    }
    return fresh.record.status;
  });
  EXPECT_EQ(r.finalStatus, IPM_STATUS_OPTIMAL);
  EXPECT_GT(r.refusedRuns, 10);
}

// ---- the chain --------------------------------------------------------------------------

TEST_F(LPDriver, BrokenChainReportsAndReleasesWhatWasMade) {
  struct Case {
    const char* name;
    void (*set)(Siblings*, LPOptions*);
    int64_t message;  // 0: none expected
    int32_t code, status;
    std::vector<std::string> calls;
  } const cases[] = {
      {"bramlet missing", [](Siblings* s, LPOptions*) { s->moduleLoads = false; }, 0x827FD806,
       IPM_STATUS_OUT_OF_MEMORY, IPM_STATUS_OUT_OF_MEMORY, {}},
      {"no instance", [](Siblings* s, LPOptions*) { s->instanceMade = false; }, 0x827FD807,
       IPM_STATUS_OUT_OF_MEMORY, IPM_STATUS_OUT_OF_MEMORY, {"createInstance", "unload"}},
      {"no context", [](Siblings* s, LPOptions*) { s->contextStatus = 6; }, 0x827FD80A, 6, 6,
       {"createInstance", "createContext", "freeContext", "destroy", "unload"}},
      {"load refused", [](Siblings* s, LPOptions* o) { s->loadResult = 5, o->loadMode = 2; }, 0, 5, 5, {"createInstance", "createContext", "load", "freeContext", "destroy", "unload"}},
      {"presolve failed", [](Siblings* s, LPOptions*) { s->presolveStatus = -3; }, 0, -3, -3,
       {"createInstance", "createContext", "presolve", "freeContext", "destroy", "unload"}},
      {"postsolve failed", [](Siblings* s, LPOptions*) { s->postsolveCode = 2; }, 0x827FD80B, 2,
       IPM_STATUS_FAILED,
       {"createInstance", "createContext", "presolve", "postsolve", "freeProblem", "freeContext",
        "destroy", "unload"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    fresh();
    c.set(&sib, &options);
    EXPECT_EQ(run(), 1);
    EXPECT_EQ(lp.record.returnCode, c.code);
    EXPECT_EQ(lp.record.status, c.status);
    if (c.message) {
      EXPECT_TRUE(messages.saw(c.message));
    }
    EXPECT_EQ(sib.calls, c.calls);
    expectReleased();
  }
}

TEST_F(LPDriver, TimeLimitMetByPresolve) {
  // A time type that is neither 0 nor 1 runs on real time.
  const struct { int32_t timerType; double maxTime; int sleepMs; int64_t code; } cases[] = {
      {1, 0.01, 30, 0x827FD00C}, {5, 0.01, 30, 0x827FD00C}, {0, 0.0, 0, 0x827FD00B}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.timerType);
    fresh();
    options.timerType = c.timerType;
    options.maxTime = c.maxTime;
    sib.presolveSleepMs = c.sleepMs;
    EXPECT_EQ(run(), 1);
    EXPECT_EQ(lp.record.status, IPM_STATUS_TIME_LIMIT);
    EXPECT_EQ(lp.record.returnCode, 0);
    EXPECT_EQ(messages.severityOf(c.code), MSG_INFO);
    EXPECT_FALSE(messages.saw(0x827FD801));
    EXPECT_FALSE(called("postsolve"));
    EXPECT_GE(lp.record.presolveTime, c.sleepMs * 1e-3);
    EXPECT_GE(lp.record.totalTime, lp.record.presolveTime);
    EXPECT_DOUBLE_EQ(options.maxTime,
                     c.maxTime - lp.record.presolveTime - lp.record.totalTime);
    EXPECT_DOUBLE_EQ(options.timeUsed, lp.record.presolveTime + lp.record.totalTime);
    expectReleased();
  }
}

// ---- crossover --------------------------------------------------------------------------

TEST_F(LPDriver, CrossoverWithoutFennickFailsAsAMissingSibling) {
  options.crossover = 1;
  EXPECT_EQ(run(), 1);
  EXPECT_EQ(lp.record.status, IPM_STATUS_OUT_OF_MEMORY);
  EXPECT_EQ(lp.record.returnCode, IPM_STATUS_OUT_OF_MEMORY);
  EXPECT_EQ(messages.severityOf(0x827FD808), MSG_ERROR);
  EXPECT_EQ(sib.scaleDirections, (std::vector<int64_t>{1, -1}));
  EXPECT_EQ(sib.unscaleDirections, (std::vector<int64_t>{1, -1}));
  EXPECT_FALSE(called("postsolve"));
  expectReleased();
}

TEST_F(LPDriver, CrossoverRunsFennickOnTheScaledPresolvedLP) {
  sib.fennickLoads = true;
  sib.crossScale = 2.0;
  options.crossover = 1;
  options.maxTime = 50.0;
  ASSERT_EQ(run(), 0);
  EXPECT_EQ(lp.record.status, IPM_STATUS_OPTIMAL);
  EXPECT_EQ(lp.record.dualityGap, 0.0);
  EXPECT_EQ(lp.record.complementarity, 0.0);
  // Parameters in bramlet's block as fennick found them.
  EXPECT_EQ(sib.runParams[0], IPM_STATUS_OPTIMAL);
  EXPECT_EQ(sib.runParams[1], 2);  // odd crossover
  EXPECT_EQ(sib.runParams[2], 3);
  EXPECT_EQ(sib.runParams[3], INT_MAX);
  EXPECT_EQ(sib.runParams[4], -1);
  EXPECT_GT(sib.runTimeLimit, 0.0);
  EXPECT_LE(sib.runTimeLimit, 50.0);
  // The objective constant is back in place of the interior objective value.
  EXPECT_EQ(sib.runObjConstant, 0.5);
  // The interior point went to fennick in the scaled space and came back.
  EXPECT_NEAR(sib.runX0, 1.0, 1e-5);
  expectSmallLPSolved(lp);
  EXPECT_EQ(ctx.simplexModule, nullptr);
  EXPECT_EQ(ctx.simplexObject, nullptr);
  EXPECT_TRUE(called("fennickDestroy"));
  expectReleased();
}

TEST_F(LPDriver, CrossoverStartsOnlyFromAUsablePoint) {
  // Direct calls on a context set up as iplpmain leaves it.
  sib.fennickLoads = true;
  QVModule* module = bramletFactory(nullptr);
  void** bramlet = static_cast<void**>(module->moduleCreateInstance(module));
  int32_t contextStatus = 0;
  FakeContext* context =
      static_cast<FakeContext*>(bCreateContext(bramlet, &options, &contextStatus));
  ctx.env.preObject = bramlet;
  ctx.preContext = context;
  ctx.lpOptions = &options;
  ctx.savedObjConstant = 0.5;
  SmallLP presolved;
  std::vector<double> zeros(6), rowZeros(3);
  ipmSolution solution{presolved.x.data(), presolved.y.data(), zeros.data(), zeros.data(),
                       zeros.data(), zeros.data(), rowZeros.data()};
  ipmOption option{};
  option.crossover = 2;
  option.maxTime = 7.0;

  for (int32_t status : {IPM_STATUS_ITERATION_LIMIT, IPM_STATUS_TIME_LIMIT, IPM_STATUS_FAILED,
                         IPM_STATUS_INTERRUPTED, IPM_STATUS_OUT_OF_MEMORY}) {
    SCOPED_TRACE(status);
    EXPECT_EQ(iplpCrossover(&ctx.env, &presolved.record, &solution, &option, status), status);
  }
  // No interior point: the status stands, and a missing status fails.
  EXPECT_EQ(iplpCrossover(&ctx.env, &presolved.record, nullptr, &option, 3), 3);
  EXPECT_EQ(iplpCrossover(&ctx.env, &presolved.record, nullptr, &option, 0), IPM_STATUS_FAILED);
  EXPECT_TRUE(sib.scaleDirections.empty());
  EXPECT_FALSE(called("run"));

  EXPECT_EQ(iplpCrossover(&ctx.env, &presolved.record, &solution, &option,
                          IPM_STATUS_PRIMAL_INFEASIBLE),
            0);
  EXPECT_TRUE(called("run"));
  EXPECT_EQ(sib.runParams[0], IPM_STATUS_PRIMAL_INFEASIBLE);
  EXPECT_EQ(sib.runParams[1], 1);  // even crossover
  EXPECT_EQ(sib.runTimeLimit, 7.0);

  // A missing instance is out of memory.
  sib.fennickInstance = false;
  messages.clear();
  ctx.env.messageLog = &messages.base;
  EXPECT_EQ(iplpCrossover(&ctx.env, &presolved.record, &solution, &option, IPM_STATUS_OPTIMAL),
            IPM_STATUS_OUT_OF_MEMORY);
  EXPECT_EQ(messages.severityOf(0x827FD809), MSG_ERROR);
  EXPECT_EQ(sib.calls.back(), "unload");
  EXPECT_EQ(ctx.simplexModule, nullptr);

  host.failAllocation(0);
  EXPECT_EQ(iplpCrossover(&ctx.env, &presolved.record, &solution, &option, IPM_STATUS_OPTIMAL),
            IPM_STATUS_OUT_OF_MEMORY);
  host.clearFailures();
  EXPECT_EQ(liveBlocks(), 0);

  void* c = context;
  bFreeContext(bramlet, &c);
  bDestroy(bramlet);
  module->moduleUnload(module);
}

}  // namespace
