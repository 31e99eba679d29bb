// The bridge's code mapping and out-of-memory at every allocation of a whole
// solve.
#include <gtest/gtest.h>

#include "support/bridge_seam.h"
#include "support/ipm_support.h"
#include "support/oom.h"

using namespace ipmtest;

namespace {

// A numeric phase that answers with chosen LA codes.
int32_t gFactorCode = 0, gSolveCode = 0;
int32_t fakeFactor(int32_t, int32_t, const int32_t*, const int32_t*, const double*, LAEnv*,
                   LASymbolic*, LANumeric*) {
  return gFactorCode;
}
int32_t fakeSolve(int32_t, const int32_t*, const int32_t*, const double*, double*, LAEnv*,
                  LASymbolic*, LANumeric*) {
  return gSolveCode;
}

class IpmBridge : public HostTest {
 protected:
  IpmBridge() { ldlNumericOverride = &fake; }
  ~IpmBridge() override { ldlNumericOverride = nullptr; }
  LdlNumericOverride fake{fakeFactor, fakeSolve};
};

// The 2x2 system [2 1; 1 -1], both triangles stored.
const int32_t kBegin[] = {0, 2, 4};
const int32_t kIndex[] = {0, 1, 0, 1};
const double kValue[] = {2, 1, 1, -1};

TEST_F(IpmBridge, SetupFailuresLeaveNoEnvironment) {
  LAEnv* la = nullptr;
  HalvexEnv bare{};
  EXPECT_EQ(laSetup(&bare, nullptr, &la, 5, 1), IPM_STATUS_FAILED);  // no pool at all
  EXPECT_EQ(laSetup(&bare, pool, &la, 5, 1), 0);  // the argument's pool serves
  ldlCleanUpAll(&la, nullptr, nullptr);
  EXPECT_EQ(la, nullptr);
  EXPECT_EQ(laSetup(&env, nullptr, &la, 5, 0), IPM_STATUS_FAILED);  // refused parameter
  EXPECT_EQ(la, nullptr);
  EXPECT_EQ(liveBlocks(), 0);
}

TEST_F(IpmBridge, FactorAndSolveCodes) {
  LAEnv* la = nullptr;
  LASymbolic* sym = nullptr;
  LANumeric* num = nullptr;
  ASSERT_EQ(laSetup(&env, nullptr, &la, 1, 1), 0);
  ASSERT_EQ(ldlAnalyze(&env, 2, kBegin, kIndex, kValue, la, &sym, &num), 0);
  const struct {
    int32_t la, factor, solve, oneShot;
  } cases[] = {
      {LA_OK, 0, 0, 0},
      {LA_ERR_MEMORY, IPM_STATUS_OUT_OF_MEMORY, IPM_STATUS_OUT_OF_MEMORY, IPM_STATUS_OUT_OF_MEMORY},
      {LA_ERR_INTERNAL, IPM_STATUS_FAILED, IPM_STATUS_SOLVE_FAILED, IPM_STATUS_FAILED},
      {LA_REFINE_CONVERGED, IPM_STATUS_FAILED, 0, 0},
      {LA_REFINE_STOPPED, IPM_STATUS_FAILED, 0, 0},
      // The one-shot solve has no triangular code of its own.
      {LA_ERR_SOLVE_OVERFLOW, IPM_STATUS_FAILED, IPM_STATUS_SOLVE_FAILED, IPM_STATUS_FAILED}};
  double v[2] = {1, 1};
  for (const auto& c : cases) {
    gFactorCode = 0;
    gSolveCode = c.la;
    EXPECT_EQ(solveEquationLDL(&env, 0, 0, 2, 1, 1, kBegin, kIndex, kValue, v, nullptr),
              c.oneShot) << c.la;
    gFactorCode = c.la;
    EXPECT_EQ(ldlFactorize(&env, 2, kBegin, kIndex, kValue, la, sym, num), c.factor) << c.la;
    EXPECT_EQ(ldlSolve(&env, 0, 2, 0, kBegin, kIndex, kValue, v, la, sym, num), c.solve)
        << c.la;
  }
  gFactorCode = gSolveCode = 0;
  EXPECT_EQ(ldlFactorize(&env, 2, kBegin, kIndex, kValue, nullptr, sym, num), IPM_STATUS_FAILED);
  EXPECT_EQ(ldlSolve(&env, 0, 2, 0, kBegin, kIndex, kValue, v, la, sym, nullptr),
            IPM_STATUS_FAILED);
  ldlCleanUpAll(&la, &sym, &num);
  EXPECT_EQ(la, nullptr);
  EXPECT_EQ(sym, nullptr);
  EXPECT_EQ(liveBlocks(), 0);
}

// ---- whole solves through a failing numeric phase ---------------------------------

using IpmBreakdown = IpmBridge;

int32_t gSolveCalls = 0, gFailSolveAt = -1;
int32_t countingSolve(int32_t mode, const int32_t* b, const int32_t* i, const double* v, double* x,
                      LAEnv* e, LASymbolic* s, LANumeric* n) {
  if (gSolveCalls++ == gFailSolveAt) return LA_ERR_SOLVE_OVERFLOW;
  return LA_SolveMatrixLDL(mode, b, i, v, x, e, s, n);
}

TEST_F(IpmBreakdown, FailedTriangularSolveEndsWithTheLastVerdict) {
  // Two solves in the start, then two per pass: the sixth call is the
  // predictor of pass 2, after two full steps.
  LdlNumericOverride ops{nullptr, countingSolve};
  ldlNumericOverride = &ops;
  gSolveCalls = 0;
  gFailSolveAt = 6;
  Problem p = textbookLP();
  RunResult r = runSolve(&env, p);
  EXPECT_EQ(p.model.iteration, 2);
  const int32_t verdict = getSolutionStatus(1e-8, 1e-8, 1e-8, 1e-8, p.model.primalInfeas,
                                            p.model.boundInfeas, p.model.dualInfeas,
                                            p.model.dualityGap, p.model.complementarity);
  EXPECT_EQ(r.status, verdict);
  EXPECT_NE(r.status, IPM_STATUS_SOLVE_FAILED);
  // In the start the same failure is a plain failure.
  gSolveCalls = 0;
  gFailSolveAt = 0;
  Problem q = textbookLP();
  r = runSolve(&env, q);
  EXPECT_EQ(r.status, IPM_STATUS_FAILED);
  gFailSolveAt = -1;
  EXPECT_EQ(liveBlocks(), 0);
}

// ---- out of memory ----------------------------------------------------------------------

class IpmMemory : public HostTest {};

// A QP, whose layout has the most to allocate; the LP's solves are swept
// through the LP entry and the big-data routes.
TEST_F(IpmMemory, EveryRefusedAllocationOfASolveGivesOutOfMemoryAndNoLeak) {
  hxtest::OomSweep sweep(host);
  sweep.armAtStart = false;
  // A refusal inside the active-set finish is a failed reset like any
  // other: the point in force goes on, and the solve still ends.
  sweep.absorbed = IPM_STATUS_OPTIMAL;
  const auto result = sweep.run([&](hxtest::OomProbe& probe) {
    Problem p({{1, 2, 1}, {3, 1, 0}}, "LR", {4, 6}, {-1, -1, -0.5}, {0, 0, -kInf},
              {kInf, 5, kInf}, {0, 3});
    p.setQuad({{2, 1, 0}, {1, 2, 0}, {0, 0, 1}});
    p.link();
    ipmSolution* solution = nullptr;
    if (addSlack(&env, &p.model, &p.storage) ||
        NewSolution(&env, &solution, p.model.numRow, p.model.numCol, p.x.data(), p.y.data())) {
      ADD_FAILURE() << "set-up failed";
      return IPM_STATUS_FAILED;
    }
    probe.arm();
    const int32_t status = ipmSolve(&env, &p.model, &p.option, nullptr, &p.storage, solution,
                                    nullptr, IPM_CONTROL_FIRST_LEG);
    probe.disarm();
    if (status == IPM_STATUS_OUT_OF_MEMORY) {
      EXPECT_EQ(p.model.status, IPM_STATUS_OUT_OF_MEMORY);
    }
    FreeSolution(&env, solution);
    poolFree(pool, p.storage.rangeRow);
    poolFree(pool, p.storage.lcontRow);
    return status;
  });
  EXPECT_EQ(result.finalStatus, IPM_STATUS_OPTIMAL);
  EXPECT_GT(result.absorbedRuns, 0);
  // The record, its working set, the environment and the analysis.
  EXPECT_GT(result.refusedRuns, 20);
  EXPECT_EQ(liveBlocks(), 0);
}

}  // namespace
