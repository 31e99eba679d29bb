// The LP entry over bramlet and fennick, watched on their way: option checks,
// the chain of the sibling's operations, the time accounting, and a real
// solve of a small LP whose columns take every kind of shift.
#include <string.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "frame/qv.h"
#include "ipm/scale.h"
#include "records/lpdriver.h"
#include "records/model.h"
#include "siblings/bramlet/bramlet.h"
#include "siblings/fennick/fennick.h"
#include "support/message_log.h"
#include "support/oom.h"
#include "support/support.h"

namespace {

// ---- the small LP -------------------------------------------------------------------
//
// min  -x0 + x1 - 2 x2 + x3 + x5 + 0.5
//      4 x0 + 4 x1 + 4 x2 + 4 x3 <= 24   (dual -0.25)
//      2 x4 - x1                  = 0
//      x3 + x5                   >= -10   (inactive)
//      x0 <= 4, x1 >= 2, 1 <= x2 <= 3, -1 <= x3 <= 5, x4 free, -3 <= x5 <= 0
// The bounds give a flip, a shift, a flip of a box, a shift of a box, a free
// column and a flip around 0; x0's lower bound lies beyond infinity.  The
// first two rows give bramlet factors other than 1.  Optimum
// x = (2, 2, 3, -1, 1, -3), value -9.5.
constexpr double kInf = 1e20;

struct SmallLP {
  std::vector<double> matValue{4, 4, -1, 4, 4, 1, 2, 1}, obj{-1, 1, -2, 1, 0, 1}, rhs{24, 0, -10},
      lower{-1e30, 2, 1, -1, -kInf, -3}, upper{4, kInf, 3, 5, kInf, 0}, x = std::vector<double>(6),
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

// ---- the siblings, watched ---------------------------------------------------------
//
// The real bramlet and fennick, with every operation the solver calls
// recorded on its way through, and some made to fail where a test asks.

std::vector<double> numbersOf(const LPRecord& r) {
  std::vector<double> v(r.lower, r.lower + r.numCol);
  v.insert(v.end(), r.upper, r.upper + r.numCol);
  v.insert(v.end(), r.obj, r.obj + r.numCol);
  v.insert(v.end(), r.rhs, r.rhs + r.numRow);
  v.insert(v.end(), r.matValue, r.matValue + r.numCoef);
  return v;
}

int32_t readInt(const uint8_t* block, int position) {
  int32_t v;
  memcpy(&v, block + position, sizeof v);
  return v;
}

struct Spy {
  // behaviour
  bool moduleLoads = true, instanceMade = true, fennickLoads = true, fennickInstance = true;
  // bramlet runs at presolve level 0, and so hands the LP back as it came,
  // unless a test lets it presolve.
  bool passThrough = true;
  int32_t contextStatus = 0, presolveFailure = 0, postsolveCode = 0;
  int presolveSleepMs = 0;
  std::vector<uint8_t> relax;
  // what was seen
  std::vector<std::string> calls;
  LPOptions* contextOptions = nullptr;
  int32_t presolveMode = 0, flagAtPresolve = -1;
  std::vector<double> presolvedNumbers;
  bool presolvedIntact = false;
  int32_t runParams[2] = {0, 0};
  double runTimeLimit = 0.0, runObjConstant = 0.0;
  std::vector<double> runX, runY, crossRowScale, crossColScale;
  std::vector<int64_t> scaleDirections, unscaleDirections;
  // the real operations behind the slots
  void* bramletSlot[26] = {};
  void* (*bramletCreate)(QVModule*) = nullptr;
  void (*bramletUnload)(QVModule*) = nullptr;
  void* (*fennickCreate)(QVModule*) = nullptr;
  FennickRunFn fennickRun = nullptr;
  FennickDestroyFn fennickDestroy = nullptr;
};
Spy* gSpy = nullptr;

template <typename Fn>
Fn real(int slot) {
  return reinterpret_cast<Fn>(gSpy->bramletSlot[slot]);
}

void sDestroy(void* b) {
  gSpy->calls.push_back("destroy");
  real<BramletDestroyFn>(BRAMLET_SLOT_DESTROY)(b);
}

void* sCreateContext(void* b, LPOptions* options, int32_t* status) {
  gSpy->calls.push_back("createContext");
  gSpy->contextOptions = options;
  void* context = real<BramletCreateContextFn>(BRAMLET_SLOT_CREATE_CONTEXT)(b, options, status);
  if (gSpy->contextStatus) *status = gSpy->contextStatus;
  return context;
}

void sFreeContext(void* b, void** context) {
  gSpy->calls.push_back("freeContext");
  real<BramletFreeContextFn>(BRAMLET_SLOT_FREE_CONTEXT)(b, context);
}

void* sPresolve(void* b, void* context, int32_t mode, LPRecord* r, int32_t* status) {
  gSpy->calls.push_back("presolve");
  gSpy->presolveMode = mode;
  gSpy->flagAtPresolve =
      readInt(static_cast<BramletContext*>(context)->parameters, BRAMLET_PARAM_PRESOLVE_FLAG);
  if (gSpy->presolveSleepMs > 0)
    std::this_thread::sleep_for(std::chrono::milliseconds(gSpy->presolveSleepMs));
  if (gSpy->presolveFailure) {
    *status = gSpy->presolveFailure;
    return nullptr;
  }
  if (gSpy->passThrough) static_cast<bramlet::Context*>(context)->presolveLevel = 0;
  void* problem = real<BramletPresolveFn>(BRAMLET_SLOT_PRESOLVE)(b, context, mode, r, status);
  BramletProblem* p = static_cast<BramletProblem*>(problem);
  if (p && !gSpy->relax.empty()) p->relaxColBound = gSpy->relax.data();
  if (p && *status == 0) gSpy->presolvedNumbers = numbersOf(*p->presolved);
  return problem;
}

int32_t sPostsolve(void* problem) {
  gSpy->calls.push_back("postsolve");
  const LPRecord* presolved = static_cast<BramletProblem*>(problem)->presolved;
  gSpy->presolvedIntact = presolved->numCol > 0 && numbersOf(*presolved) == gSpy->presolvedNumbers;
  const int32_t code = real<BramletPostsolveFn>(BRAMLET_SLOT_POSTSOLVE)(problem);
  return gSpy->postsolveCode ? gSpy->postsolveCode : code;
}

void sFreeProblem(void* b, void** problem) {
  gSpy->calls.push_back("freeProblem");
  real<BramletFreeProblemFn>(BRAMLET_SLOT_FREE_PROBLEM)(b, problem);
}

int64_t sScale(double tol, void* b, int64_t direction, int64_t m, int64_t n, int64_t nz,
               int32_t* cb, int32_t* cl, int32_t* ri, double* a, double* c, double* lo,
               double* up, double* rs, double* cs, void* n1, void* n2, double* rhs, char* sense,
               double* range, void* n3, void* n4, void* n5, void* n6) {
  gSpy->scaleDirections.push_back(direction);
  const int64_t status = real<BramletScaleFn>(BRAMLET_SLOT_SCALE)(
      tol, b, direction, m, n, nz, cb, cl, ri, a, c, lo, up, rs, cs, n1, n2, rhs, sense, range, n3,
      n4, n5, n6);
  if (direction == -1) {
    gSpy->crossRowScale.assign(rs, rs + m);
    gSpy->crossColScale.assign(cs, cs + n);
  }
  return status;
}

int64_t sUnscale(int64_t direction, int64_t m, int64_t n, int32_t* cb, int32_t* cl, int32_t* ri,
                 double* a, double* rhs, double* range, double* c, double* lo, double* up,
                 void* n1, void* n2, double* rs, double* cs, double* x, double* y, double* rc,
                 double* act) {
  gSpy->unscaleDirections.push_back(direction);
  return real<BramletUnscaleFn>(BRAMLET_SLOT_UNSCALE)(direction, m, n, cb, cl, ri, a, rhs, range,
                                                      c, lo, up, n1, n2, rs, cs, x, y, rc, act);
}

void* sCreateInstance(QVModule* module) {
  gSpy->calls.push_back("createInstance");
  if (!gSpy->instanceMade) return nullptr;
  void** s = static_cast<void**>(gSpy->bramletCreate(module));
  std::copy(s, s + 26, gSpy->bramletSlot);
  const std::pair<int, void*> spies[] = {
      {BRAMLET_SLOT_DESTROY, reinterpret_cast<void*>(&sDestroy)},
      {BRAMLET_SLOT_CREATE_CONTEXT, reinterpret_cast<void*>(&sCreateContext)},
      {BRAMLET_SLOT_FREE_CONTEXT, reinterpret_cast<void*>(&sFreeContext)},
      {BRAMLET_SLOT_PRESOLVE, reinterpret_cast<void*>(&sPresolve)},
      {BRAMLET_SLOT_POSTSOLVE, reinterpret_cast<void*>(&sPostsolve)},
      {BRAMLET_SLOT_FREE_PROBLEM, reinterpret_cast<void*>(&sFreeProblem)},
      {BRAMLET_SLOT_SCALE, reinterpret_cast<void*>(&sScale)},
      {BRAMLET_SLOT_UNSCALE, reinterpret_cast<void*>(&sUnscale)}};
  for (const auto& spy : spies) s[spy.first] = spy.second;
  return s;
}

void sUnload(QVModule* module) {
  gSpy->calls.push_back("unload");
  gSpy->bramletUnload(module);
}

QVModule* bramletFactory(QVKernel* kernel) {
  if (!gSpy->moduleLoads) return nullptr;
  QVModule* module = bramlet::createModule(kernel);
  gSpy->bramletCreate = module->moduleCreateInstance;
  gSpy->bramletUnload = module->moduleUnload;
  module->moduleCreateInstance = sCreateInstance;
  module->moduleUnload = sUnload;
  return module;
}

void sFennickDestroy(void* instance) {
  gSpy->calls.push_back("fennickDestroy");
  gSpy->fennickDestroy(instance);
}

int32_t sRun(void* instance, void* b, void* context, LPRecord* r) {
  gSpy->calls.push_back("run");
  const uint8_t* parameters = static_cast<BramletContext*>(context)->parameters;
  gSpy->runParams[0] = readInt(parameters, FENNICK_PARAM_INTERIOR_STATUS);
  gSpy->runParams[1] = readInt(parameters, FENNICK_PARAM_START);
  memcpy(&gSpy->runTimeLimit,
         static_cast<BramletContext*>(context)->limits + FENNICK_LIMIT_MAXTIME, sizeof(double));
  gSpy->runObjConstant = r->objConstant;
  gSpy->runX.assign(r->solPrimal, r->solPrimal + r->numCol);
  gSpy->runY.assign(r->solDual, r->solDual + r->numRow);
  return gSpy->fennickRun(instance, b, context, r);
}

void* sFennickCreate(QVModule* module) {
  gSpy->calls.push_back("fennickCreate");
  if (!gSpy->fennickInstance) return nullptr;
  void** s = static_cast<void**>(gSpy->fennickCreate(module));
  gSpy->fennickRun = reinterpret_cast<FennickRunFn>(s[FENNICK_SLOT_RUN]);
  gSpy->fennickDestroy = reinterpret_cast<FennickDestroyFn>(s[FENNICK_SLOT_DESTROY]);
  s[FENNICK_SLOT_RUN] = reinterpret_cast<void*>(&sRun);
  s[FENNICK_SLOT_DESTROY] = reinterpret_cast<void*>(&sFennickDestroy);
  return s;
}

QVModule* fennickFactory(QVKernel* kernel) {
  if (!gSpy->fennickLoads) return nullptr;
  QVModule* module = fennick::createModule(kernel);
  gSpy->fennickCreate = module->moduleCreateInstance;
  module->moduleCreateInstance = sFennickCreate;
  return module;
}

// ---- fixture ----------------------------------------------------------------------------

class LPDriver : public HostTest {
 protected:
  void SetUp() override {
    gSpy = &spy;
    host.registerModule("bramlet", bramletFactory);
    host.registerModule("fennick", fennickFactory);
    ctx.env = env;
    ctx.env.messageLog = &messages.base;
    hxtest::textLines().clear();
    ctx.env.textLog = hxtest::captureText;
    resetLpOptions(&options);
    options.rowScaleOnly = 0;
  }
  void TearDown() override { gSpy = nullptr; }
  int32_t run(LPOptions* o) { return iplpmain(&ctx, &lp.record, o); }
  int32_t run() { return run(&options); }
  bool called(const std::string& name) const {
    return std::find(spy.calls.begin(), spy.calls.end(), name) != spy.calls.end();
  }
  // A clean record of messages and of the siblings' calls.
  void fresh() {
    spy = Spy{};
    messages.clear();
    ctx.env.messageLog = &messages.base;
    resetLpOptions(&options);
  }
  // The release of the chain, whatever broke it.
  void expectReleased() {
    EXPECT_EQ(ctx.env.preModule, nullptr);
    EXPECT_EQ(ctx.env.preObject, nullptr);
    EXPECT_EQ(ctx.preContext, nullptr);
    EXPECT_EQ(liveBlocks(), 0);
  }

  Spy spy;
  LPContext ctx{};
  hxtest::RecordingLog messages{{0x827FD80D}};
  LPOptions options{};
  SmallLP lp;
};

void expectSmallLPSolved(const SmallLP& lp) {
  const double x[] = {2, 2, 3, -1, 1, -3}, rc[] = {0, 2, -1, 2, 0, 1};
  for (int j = 0; j < 6; j++) {
    EXPECT_NEAR(lp.x[j], x[j], 1e-5) << j;
    EXPECT_NEAR(lp.rc[j], rc[j], 1e-5) << j;
  }
  for (int i = 0; i < 3; i++) EXPECT_NEAR(lp.y[i], i == 0 ? -0.25 : 0.0, 1e-5) << i;
  EXPECT_NEAR(lp.act[0], 24.0, 1e-5);
  EXPECT_NEAR(lp.act[2], -4.0, 1e-5);
  EXPECT_NEAR(lp.record.objConstant, -9.5, 1e-5);
}

// ---- a whole solve --------------------------------------------------------------------

TEST_F(LPDriver, SolvesThroughBramletWithEveryKindOfShift) {
  ASSERT_EQ(run(), 0);
  EXPECT_EQ(lp.record.status, IPM_STATUS_OPTIMAL);
  EXPECT_EQ(lp.record.returnCode, 0);
  expectSmallLPSolved(lp);
  EXPECT_GT(lp.record.iteration, 0);
  // bramlet's copy went back to postsolve as it came: the shift was undone.
  EXPECT_TRUE(spy.presolvedIntact);
  EXPECT_EQ(spy.calls, (std::vector<std::string>{"createInstance", "createContext", "presolve",
                                                 "postsolve", "freeProblem", "freeContext",
                                                 "destroy", "unload"}));
  EXPECT_EQ(spy.presolveMode, 3);
  EXPECT_EQ(spy.flagAtPresolve, 0);
  EXPECT_EQ(spy.scaleDirections, (std::vector<int64_t>{1}));
  EXPECT_EQ(messages.severityOf(0x827FD801), MSG_INFO);
  EXPECT_EQ(messages.severityOf(0x827FD001), MSG_INFO);
  EXPECT_GE(lp.record.presolveTime, 0.0);
  EXPECT_GE(lp.record.totalTime, lp.record.presolveTime);
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
  spy.relax = {0, RELAX_NO_LOWER, 0, RELAX_NO_LOWER, 0, 0};
  // Through the load path, quietly, on options of the caller's, which are
  // kept and charged with the time.
  options.loadMode = 3;
  options.printLevel = 0;
  options.maxTime = 100.0;
  ASSERT_EQ(run(), 0);
  EXPECT_NE(lp.record.loadArea.word[0], 0);  // bramlet read the LP it was loaded with
  ASSERT_EQ(lp.record.status, IPM_STATUS_OPTIMAL);
  EXPECT_EQ(ctx.lpOptions, &options);
  EXPECT_EQ(spy.contextOptions, &options);
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
    fresh();
    options.printLevel = 0;  // the errors have no such guard
    c.set(&options);
    EXPECT_EQ(run(), 1);
    EXPECT_EQ(lp.record.status, IPM_STATUS_FAILED);
    EXPECT_EQ(lp.record.returnCode, IPM_STATUS_FAILED);
    EXPECT_EQ(lp.record.totalTime, 0.0);
    ASSERT_EQ(messages.codes.size(), 1u);
    EXPECT_EQ(messages.codes[0], c.code);
    EXPECT_EQ(messages.severities[0], MSG_ERROR);
    EXPECT_TRUE(spy.calls.empty());
    expectReleased();
  }
  EXPECT_EQ(messages.values.back(), 7);
  // The scaling option is checked last, and its error is a text line.
  fresh();
  options.rowScaleOnly = 2;
  EXPECT_EQ(run(), 1);
  EXPECT_EQ(lp.record.status, IPM_STATUS_FAILED);
  ASSERT_EQ(hxtest::textLines().size(), 1u);
  EXPECT_EQ(hxtest::textLines()[0].text, "Unknown initialization option 2");
  EXPECT_TRUE(spy.calls.empty());
}

TEST_F(LPDriver, WarningsLetTheCallGoOnAndASettledLPSkipsTheSolve) {
  options.solverKind = 1;
  options.timerType = 5;
  options.sibling3 = 0;
  options.gapTol = options.primalTol = options.dualTol = 1e-15;  // the limit itself passes
  // bramlet's presolve finds the G row out of reach: no solve at these
  // tolerances, and the verdict comes back through postsolve.
  spy.passThrough = false;
  lp.rhs[2] = 10.0;
  EXPECT_EQ(run(), 0);
  EXPECT_EQ(messages.severityOf(0x827FD80E), MSG_WARNING);
  EXPECT_EQ(messages.severityOf(0x827FD80F), MSG_WARNING);
  EXPECT_EQ(messages.severityOf(0x827FD813), MSG_WARNING);
  EXPECT_FALSE(messages.saw(0x827FD810));
  EXPECT_FALSE(messages.saw(0x827FD801));
  EXPECT_TRUE(called("postsolve"));
  EXPECT_TRUE(spy.scaleDirections.empty());
  EXPECT_EQ(lp.record.status, IPM_STATUS_PRIMAL_INFEASIBLE);
  EXPECT_EQ(lp.record.returnCode, 0);
  expectReleased();
}

TEST_F(LPDriver, EveryRefusedAllocationEndsCleanly) {
  // bramlet presolves for real here, and a failed reset goes on from the
  // point in force: such a run still solves.
  hxtest::OomSweep sweep(host);
  sweep.absorbed = IPM_STATUS_OPTIMAL;
  hxtest::OomSweep::Result r = sweep.run([&](hxtest::OomProbe& probe) {
    spy = Spy{};
    spy.passThrough = false;
    SmallLP fresh;
    const int32_t code = iplpmain(&ctx, &fresh.record, nullptr);
    if (code == 0) {
      expectSmallLPSolved(fresh);
    } else {
      EXPECT_EQ(fresh.record.returnCode, IPM_STATUS_OUT_OF_MEMORY);
    }
    if (probe.k() == 0) {
      EXPECT_TRUE(spy.calls.empty());  // the defaults come first
    }
    // Defaults made for the call are gone with it.
    EXPECT_EQ(ctx.lpOptions, nullptr);
    return fresh.record.status;
  });
  EXPECT_EQ(r.finalStatus, IPM_STATUS_OPTIMAL);
  EXPECT_GT(r.refusedRuns, 10);
}

// ---- the chain --------------------------------------------------------------------------

TEST_F(LPDriver, BrokenChainReportsAndReleasesWhatWasMade) {
  struct Case {
    const char* name;
    void (*set)(Spy*, SmallLP*, LPOptions*);
    int64_t message;  // 0: none expected
    int32_t code, status;
    std::vector<std::string> calls;
  } const cases[] = {
      {"bramlet missing", [](Spy* s, SmallLP*, LPOptions*) { s->moduleLoads = false; },
       0x827FD806, IPM_STATUS_OUT_OF_MEMORY, IPM_STATUS_OUT_OF_MEMORY, {}},
      {"no instance", [](Spy* s, SmallLP*, LPOptions*) { s->instanceMade = false; }, 0x827FD807,
       IPM_STATUS_OUT_OF_MEMORY, IPM_STATUS_OUT_OF_MEMORY, {"createInstance", "unload"}},
      {"no context", [](Spy* s, SmallLP*, LPOptions*) { s->contextStatus = 6; }, 0x827FD80A, 6,
       6, {"createInstance", "createContext", "freeContext", "destroy", "unload"}},
      // bramlet's load refuses a row of no known sense.
      {"load refused", [](Spy*, SmallLP* l, LPOptions* o) { l->sense[1] = 'X', o->loadMode = 2; },
       0, IPM_STATUS_FAILED, IPM_STATUS_FAILED,
       {"createInstance", "createContext", "freeContext", "destroy", "unload"}},
      {"presolve failed", [](Spy* s, SmallLP*, LPOptions*) { s->presolveFailure = -3; }, 0, -3,
       -3, {"createInstance", "createContext", "presolve", "freeContext", "destroy", "unload"}},
      {"postsolve failed", [](Spy* s, SmallLP*, LPOptions*) { s->postsolveCode = 2; }, 0x827FD80B,
       2, IPM_STATUS_FAILED,
       {"createInstance", "createContext", "presolve", "postsolve", "freeProblem", "freeContext",
        "destroy", "unload"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    fresh();
    lp.sense[1] = 'E';
    c.set(&spy, &lp, &options);
    EXPECT_EQ(run(), 1);
    EXPECT_EQ(lp.record.returnCode, c.code);
    EXPECT_EQ(lp.record.status, c.status);
    if (c.message) {
      EXPECT_TRUE(messages.saw(c.message));
    }
    EXPECT_EQ(spy.calls, c.calls);
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
    spy.presolveSleepMs = c.sleepMs;
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
  for (bool moduleLoads : {false, true}) {
    SCOPED_TRACE(moduleLoads);
    fresh();
    spy.fennickLoads = moduleLoads;
    spy.fennickInstance = false;
    options.crossover = 1;
    EXPECT_EQ(run(), 1);
    EXPECT_EQ(lp.record.status, IPM_STATUS_OUT_OF_MEMORY);
    EXPECT_EQ(lp.record.returnCode, IPM_STATUS_OUT_OF_MEMORY);
    EXPECT_EQ(messages.severityOf(moduleLoads ? 0x827FD809 : 0x827FD808), MSG_ERROR);
    // The presolved LP goes back to bramlet's clean-up in its own space.
    EXPECT_EQ(spy.scaleDirections, (std::vector<int64_t>{1, -1}));
    EXPECT_EQ(spy.unscaleDirections, (std::vector<int64_t>{1, -1}));
    EXPECT_FALSE(called("postsolve"));
    EXPECT_EQ(ctx.simplexModule, nullptr);
    expectReleased();
  }
}

TEST_F(LPDriver, CrossoverRunsFennickOnTheScaledPresolvedLP) {
  options.crossover = 1;
  options.maxTime = 50.0;
  ASSERT_EQ(run(), 0);
  EXPECT_EQ(lp.record.status, IPM_STATUS_OPTIMAL);
  // The interior status and the start in bramlet's block as fennick found them.
  EXPECT_EQ(spy.runParams[0], IPM_STATUS_OPTIMAL);
  EXPECT_EQ(spy.runParams[1], 2);  // odd crossover
  EXPECT_GT(spy.runTimeLimit, 0.0);
  EXPECT_LE(spy.runTimeLimit, 50.0);
  // The objective constant is back in place of the interior objective value.
  EXPECT_EQ(spy.runObjConstant, 0.5);
  EXPECT_EQ(spy.scaleDirections, (std::vector<int64_t>{1, -1}));
  // The interior point went to fennick in bramlet's scaled space.
  ASSERT_EQ(spy.runX.size(), 6u);
  ASSERT_EQ(spy.runY.size(), 3u);
  EXPECT_NE(spy.crossRowScale[0], 1.0);
  for (int j = 0; j < 6; j++) EXPECT_NEAR(spy.runX[j] * spy.crossColScale[j], lp.x[j], 1e-5) << j;
  for (int i = 0; i < 3; i++) EXPECT_NEAR(spy.runY[i] * spy.crossRowScale[i], lp.y[i], 1e-5) << i;
  expectSmallLPSolved(lp);
  EXPECT_EQ(ctx.simplexModule, nullptr);
  EXPECT_EQ(ctx.simplexObject, nullptr);
  EXPECT_TRUE(called("fennickDestroy"));
  expectReleased();
}

TEST_F(LPDriver, CrossoverStartsOnlyFromAUsablePoint) {
  // Direct calls on a context set up as iplpmain leaves it.
  QVModule* module = bramletFactory(nullptr);
  void** bramlet = static_cast<void**>(module->moduleCreateInstance(module));
  int32_t contextStatus = 0;
  void* context = sCreateContext(bramlet, &options, &contextStatus);
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
  EXPECT_TRUE(spy.scaleDirections.empty());
  EXPECT_FALSE(called("run"));

  EXPECT_EQ(iplpCrossover(&ctx.env, &presolved.record, &solution, &option,
                          IPM_STATUS_PRIMAL_INFEASIBLE),
            0);
  EXPECT_TRUE(called("run"));
  EXPECT_EQ(spy.runParams[0], IPM_STATUS_PRIMAL_INFEASIBLE);
  EXPECT_EQ(spy.runParams[1], 1);  // even crossover
  EXPECT_EQ(spy.runTimeLimit, 7.0);

  sFreeContext(bramlet, &context);
  sDestroy(bramlet);
  module->moduleUnload(module);
}

}  // namespace
