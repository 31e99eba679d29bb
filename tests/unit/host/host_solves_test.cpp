// Whole solves of the shared problems, as hosts make them: through the QP
// entry, the LP entry (with bramlet, and on to fennick's crossover) and the
// command's road (reader, record, the shared object).  Every refused
// allocation ends as out of memory, with no block left and the caller's
// input arrays as they came.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "cli/lprecord.h"
#include "cli/mps.h"
#include "cli/qprecord.h"
#include "frame/entry.h"
#include "frame/instance.h"
#include "host/host.h"
#include "records/lpdriver.h"
#include "support/oom.h"
#include "support/support.h"

namespace {

enum class Road { QP, LP, Crossover, Command };

// name: SET/PROBLEM, SET netlib (.mps.gz) or maros (.qps.gz).
std::string problemFile(const std::string& name) {
  const bool lp = name.rfind("netlib/", 0) == 0;
  return std::string(HALVEX_DATA_DIR) + "/" + name + (lp ? ".mps.gz" : ".qps.gz");
}

// A problem read and laid out in the record of its entry.
struct Loaded {
  hxcli::MpsProblem problem;
  hxcli::LPModel lp;  // lp.qp for the QP entry
  bool lpEntry = false;
  // The input arrays as they came, to compare after each run.
  std::vector<double> numbers;
  std::vector<int32_t> indices;
  std::vector<char> senses;
};

void snapshot(const hxcli::QPModel& m, std::vector<double>* n, std::vector<int32_t>* i,
              std::vector<char>* s) {
  n->clear(), i->clear();
  for (const auto* v : {&m.obj, &m.lower, &m.upper, &m.rhs, &m.range, &m.matValue, &m.quadDiag,
                        &m.quadMatValue})
    n->insert(n->end(), v->begin(), v->end());
  for (const auto* v : {&m.colBegin, &m.rowIndex, &m.quadColBegin, &m.quadRowIndex})
    i->insert(i->end(), v->begin(), v->end());
  *s = m.rowSense;
}

std::unique_ptr<Loaded> load(const std::string& name, bool lpEntry) {
  auto out = std::make_unique<Loaded>();
  hxcli::MpsError error;
  std::string why;
  if (!hxcli::readMpsFile(problemFile(name), hxcli::MpsFormat::Auto, &out->problem, &error)) {
    ADD_FAILURE() << error.message();
    return nullptr;
  }
  out->lpEntry = lpEntry && !out->problem.isQP();
  if (!(out->lpEntry ? hxcli::buildLPRecord(out->problem, &out->lp, &why)
                     : hxcli::buildQPRecord(out->problem, &out->lp.qp, &why))) {
    ADD_FAILURE() << why;
    return nullptr;
  }
  snapshot(out->lp.qp, &out->numbers, &out->indices, &out->senses);
  return out;
}

bool inputsIntact(const Loaded& l) {
  std::vector<double> n;
  std::vector<int32_t> i;
  std::vector<char> s;
  snapshot(l.lp.qp, &n, &i, &s);
  return n.size() == l.numbers.size() &&
         std::memcmp(n.data(), l.numbers.data(), n.size() * sizeof(double)) == 0 &&
         i == l.indices && s == l.senses;
}

// The statically linked module's QP entry on an instance of its own.  The
// instance's pool must hold as many blocks before it goes as after it came.
int32_t solveQP(hxhost::Host& host, hxcli::QPModel& m) {
  auto* instance = static_cast<HalvexInstance*>(halvex_create_instance(nullptr));
  if (!instance) return QP_RETURN_OUT_OF_MEMORY;
  const int64_t live = host.poolStats(instance->env.pool).liveBlocks;
  const int32_t code = instance->ipqpScripter(instance, &m.record);
  EXPECT_EQ(host.poolStats(instance->env.pool).liveBlocks, live) << "blocks left by ipqpmain";
  halvex_destroy_instance(instance);
  return code;
}

int32_t solveLP(hxhost::Host& host, hxcli::LPModel& m, bool crossover,
                int32_t (*entry)(LPContext*, LPRecord*, LPOptions*) = iplpmain) {
  QVPool* pool = host.createPool("LP");
  if (!pool) return QP_RETURN_OUT_OF_MEMORY;
  LPOptions options;
  setLpOptionDefaults(&options);
  options.printLevel = 0;
  options.crossover = crossover ? 1 : 0;
  hxcli::resetLPRecord(&m);
  LPContext context = hxcli::makeLpContext(pool, nullptr, nullptr);
  entry(&context, &m.record, &options);
  EXPECT_EQ(host.poolStats(pool).liveBlocks, 0) << "blocks left by iplpmain";
  pool->poolDestroy(pool);
  return hostReturnCode(m.record.status);
}

// The command's road: the file read and laid out afresh, the shared object's
// entries, an instance or a pool of a module made for the call.  A module or
// instance that cannot be made ends the command with code 1.
int32_t solveCommand(hxhost::Host& host, const hxhost::HalvexEntries& entries,
                     const std::string& name) {
  std::unique_ptr<Loaded> l = load(name, true);
  if (!l) return -1;
  hxhost::HalvexModule module(host, entries);
  if (!module.ok()) return QP_RETURN_OUT_OF_MEMORY;
  if (l->lpEntry) return solveLP(host, l->lp, false, entries.iplpmain);
  HalvexInstance* instance = module.createInstance();
  if (!instance) return QP_RETURN_OUT_OF_MEMORY;
  const int32_t code = instance->ipqpScripter(instance, &l->lp.qp.record);
  module.destroyInstance(instance);
  return code;
}

const hxhost::HalvexEntries& sharedObject() {
  static hxhost::HalvexEntries entries;
  static bool opened = [] {
    std::string why;
    bool ok = hxhost::openHalvexLibrary(nullptr, &entries, &why);
    EXPECT_TRUE(ok) << why;
    return ok;
  }();
  (void)opened;
  return entries;
}

// Refuses every allocation of a solve by one road, or an even sample of
// samples of them; reports how the runs ended.
void sweepSolve(const std::string& name, Road road, int64_t samples) {
  SCOPED_TRACE(name);
  hxhost::Host host;
  host.silence(true);
  qvextent(host.kernel());
  const bool lpRoad = road == Road::LP || road == Road::Crossover;
  std::unique_ptr<Loaded> l;
  if (road != Road::Command) {
    l = load(name, lpRoad);
    ASSERT_TRUE(l);
    if (lpRoad && !l->lpEntry) return;  // a QP has no LP road
  }
  auto solve = [&]() -> int32_t {
    switch (road) {
      case Road::QP: return solveQP(host, l->lp.qp);
      case Road::LP: return solveLP(host, l->lp, false);
      case Road::Crossover: return solveLP(host, l->lp, true);
      case Road::Command: return solveCommand(host, sharedObject(), name);
    }
    return -1;
  };
  if (road == Road::Command) sharedObject();  // dlopen before counting
  const int32_t normal = solve();
  ASSERT_TRUE(normal == QP_RETURN_OPTIMAL || normal == QP_RETURN_ACCEPTABLE) << normal;

  hxtest::OomSweep sweep(host);
  sweep.expected = QP_RETURN_OUT_OF_MEMORY;
  // A reset that cannot allocate leaves the point in force, and the solve
  // may then end as it would have: only that other ending is allowed.
  sweep.absorbed = normal;
  sweep.samples = samples;
  hxtest::OomSweep::Result r = sweep.run([&](hxtest::OomProbe&) {
    const int32_t code = solve();
    if (l) {
      EXPECT_TRUE(inputsIntact(*l)) << "input arrays changed";
    }
    return code;
  });
  EXPECT_EQ(r.finalStatus, normal);
  EXPECT_GT(r.refusedRuns, std::min<int64_t>(r.allocations, samples) / 2);
  EXPECT_EQ(host.poolMisuse(), 0);
  std::printf("  %-16s road %d: %lld allocations, %lld refused runs, %lld absorbed\n",
              name.c_str(), (int)road, (long long)r.allocations, (long long)r.refusedRuns,
              (long long)r.absorbedRuns);
}

TEST(WholeSolveOom, TinyProblemsByEveryRoad) {
  for (Road road : {Road::QP, Road::LP, Road::Crossover, Road::Command}) {
    sweepSolve("netlib/afiro", road, 300);
    sweepSolve("maros/HS21", road, 300);
  }
}

TEST(WholeSolveOomLong, DISABLED_TwentyTwoProblemsByEveryRoad) {
  for (const char* name :
       {"netlib/afiro", "netlib/sc50a", "netlib/sc50b", "netlib/adlittle", "netlib/blend",
        "netlib/share2b", "netlib/kb2", "netlib/sc105", "netlib/stocfor1", "netlib/boeing2",
        "netlib/bandm", "maros/HS21", "maros/HS35", "maros/HS118", "maros/QAFIRO", "maros/DUALC1",
        "maros/CVXQP1_S", "maros/DUAL1", "maros/HS76", "maros/PRIMAL1", "maros/QADLITTL",
        "maros/HS51"})
    for (Road road : {Road::QP, Road::LP, Road::Crossover, Road::Command})
      sweepSolve(name, road, 5000);
}

// Found by the LP entry's fuzzer: bramlet's presolve met inf - inf on the
// way and sent rows of NaN ends out as R rows without room for their slacks,
// which the solve then wrote past (seen under the sanitizer build).
using WholeSolveFuzzed = HostTest;

TEST_F(WholeSolveFuzzed, HugeNumbersLeaveRoomForEveryRangeSlack) {
  const double h = 1.3407807929942999e+151, inf = INFINITY;
  std::vector<double> obj{h, h, h, 5e-324, 0, 0, 0, 0}, lower{inf, h, 5e-324, h, 0, 0, 0, 0},
      upper{h, h, h, h, 0, 0, 0, 0}, rhs(4, h), range(4, h),
      value{1, 2, -1e300, -1, 0, 5e-324, 3.5, 1e20, h, h, 0, 0, 0, 0}, x(8), y(4), rc(8), act(4);
  std::vector<int32_t> begin{0, 0, 1, 5, 10, 10, 10, 10, 10}, length{0, 1, 4, 5, 0, 0, 0, 0},
      index{1, 1, 0, 2, 1, 2, 1, 2, 0, 3, 0, 0, 0, 0};
  std::vector<char> sense(4, 'R');
  LPRecord r{};
  r.objSense = 1, r.numRow = 4, r.numCol = 4, r.numCoef = 10;
  r.matValue = value.data(), r.rowIndex = index.data(), r.colBegin = begin.data();
  r.colLength = length.data(), r.obj = obj.data(), r.rhs = rhs.data(), r.range = range.data();
  r.lower = lower.data(), r.upper = upper.data(), r.rowSense = sense.data();
  r.solPrimal = x.data(), r.solDual = y.data(), r.reducedCost = rc.data(), r.rowActivity = act.data();
  for (int32_t level = -1; level <= 3; level++) {
    LPOptions options;
    setLpOptionDefaults(&options);
    options.presolver = level;
    LPContext context = hxcli::makeLpContext(pool, nullptr, nullptr);
    iplpmain(&context, &r, &options);
    EXPECT_EQ(liveBlocks(), 0) << level;
  }
}

// Also found by that fuzzer: with costs of 1e20 and more every pivot of the
// crossover looks like a gain, and fennick cycled without end.
TEST_F(WholeSolveFuzzed, CrossoverOnHugeCostsStops) {
  const double big = 1e300;
  std::vector<double> obj{1e20, 1e20, 1.3407807929942999e+151, -6, -6, -6, 0, 0},
      lower{-5, -6, -6, -6, -6, -6, 0, 0}, upper{big, big, big, -5.5, INFINITY, 3.5, 0, 0},
      rhs{6.5, 5e-324}, range{0, 1.5}, value{8.5, -7.5, -4.5, 1, 1, 1, 0, 0}, x(8), y(2), rc(8),
      act(2);
  std::vector<int32_t> begin{0, 1, 2, 3, 4, 5, 6, 6, 6}, length{1, 1, 1, 1, 1, 1, 0, 0},
      index{1, 1, 1, 1, 1, 1, 0, 0};
  std::vector<char> sense{'N', 'G'};
  LPRecord r{};
  r.objSense = 1, r.numRow = 2, r.numCol = 6, r.numCoef = 6;
  r.matValue = value.data(), r.rowIndex = index.data(), r.colBegin = begin.data();
  r.colLength = length.data(), r.obj = obj.data(), r.rhs = rhs.data(), r.range = range.data();
  r.lower = lower.data(), r.upper = upper.data(), r.rowSense = sense.data();
  r.solPrimal = x.data(), r.solDual = y.data(), r.reducedCost = rc.data(), r.rowActivity = act.data();
  LPOptions options;
  setLpOptionDefaults(&options);
  options.crossover = 1;
  LPContext context = hxcli::makeLpContext(pool, nullptr, nullptr);
  EXPECT_EQ(iplpmain(&context, &r, &options), 0);
  EXPECT_NE(r.status, IPM_STATUS_OPTIMAL);
  EXPECT_EQ(liveBlocks(), 0);
}

struct Answer {
  int32_t code = -1;
  std::vector<double> x, y;
  double objective = 0.0;
  int32_t iterations = 0;
  bool operator==(const Answer& o) const {
    return code == o.code && iterations == o.iterations && x.size() == o.x.size() &&
           y.size() == o.y.size() &&
           std::memcmp(x.data(), o.x.data(), x.size() * sizeof(double)) == 0 &&
           std::memcmp(y.data(), o.y.data(), y.size() * sizeof(double)) == 0 &&
           std::memcmp(&objective, &o.objective, sizeof objective) == 0;
  }
};

Answer solveOnce(hxhost::Host& host, const std::string& name) {
  Answer a;
  std::unique_ptr<Loaded> l = load(name, true);
  if (!l) return a;
  if (l->lpEntry) {
    a.code = solveLP(host, l->lp, false);
    a.objective = l->lp.record.objConstant;
    a.iterations = l->lp.record.iteration;
  } else {
    a.code = solveQP(host, l->lp.qp);
    a.objective = l->lp.qp.record.objValue;
    a.iterations = l->lp.qp.record.iterations;
  }
  a.x = l->lp.qp.solPrimal;
  a.y = l->lp.qp.solDual;
  return a;
}

TEST(WholeSolveThreads, InstancesAtOnceAnswerAsOneAtATime) {
  hxhost::Host host;
  host.silence(true);
  qvextent(host.kernel());
  const std::vector<std::string> names = {"netlib/sc50a", "netlib/bandm", "maros/HS118",
                                          "maros/CVXQP1_S", "netlib/blend", "maros/DUALC1"};
  std::vector<Answer> alone;
  for (const std::string& n : names) {
    alone.push_back(solveOnce(host, n));
    ASSERT_TRUE(alone.back().code == QP_RETURN_OPTIMAL || alone.back().code == QP_RETURN_ACCEPTABLE)
        << n;
  }
  // Twice over, so that the threads meet at different points.
  for (int round = 0; round < 2; round++) {
    std::vector<Answer> together(names.size());
    std::vector<std::thread> threads;
    for (size_t k = 0; k < names.size(); k++)
      threads.emplace_back([&, k] { together[k] = solveOnce(host, names[k]); });
    for (std::thread& t : threads) t.join();
    for (size_t k = 0; k < names.size(); k++) EXPECT_TRUE(together[k] == alone[k]) << names[k];
  }
  EXPECT_EQ(host.totalStats().liveBlocks, 0);
}

}  // namespace
