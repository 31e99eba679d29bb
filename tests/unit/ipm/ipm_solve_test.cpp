// Whole solves of small LPs and QPs with known optima through addSlack,
// ipmSolve and removeSlack.
#include <gtest/gtest.h>

#include "support/ipm_support.h"

using namespace ipmtest;

namespace {

class IpmSolve : public HostTest {};

TEST_F(IpmSolve, TextbookLpWithLessRows) {
  // min -x1 - x2, x1 + 2x2 <= 4, 3x1 + x2 <= 6, x >= 0: optimum (1.6, 1.2).
  Problem p({{1, 2}, {3, 1}}, "LL", {4, 6}, {-1, -1}, {0, 0}, {kInf, kInf});
  RunResult r = runSolve(&env, p);
  ASSERT_EQ(r.addStatus, 0);
  EXPECT_EQ(r.status, IPM_STATUS_OPTIMAL);
  EXPECT_EQ(p.model.status, IPM_STATUS_OPTIMAL);
  EXPECT_NEAR(p.x[0], 1.6, 1e-6);
  EXPECT_NEAR(p.x[1], 1.2, 1e-6);
  EXPECT_NEAR(p.objective(), -2.8, 1e-6);
  // Duals in the caller's row sense, restored by removeSlack.
  EXPECT_NEAR(p.y[0], -0.4, 1e-6);
  EXPECT_NEAR(p.y[1], -0.2, 1e-6);
  EXPECT_EQ(p.sense, "LL");
  EXPECT_EQ(p.rhs[0], 4);
  EXPECT_EQ(p.matValue[0], 1);
  EXPECT_GT(p.model.iteration, 0);
  EXPECT_LE(p.model.primalInfeas, 1e-8);
  EXPECT_LE(p.model.dualityGap, 1e-8);
  EXPECT_EQ(liveBlocks(), 0);
}

TEST_F(IpmSolve, AllRowSensesWithBoundedAndFreeColumns) {
  // min x1 + 2x2 + 3x3 with x1 + x2 + x3 = 10, x1 - x2 >= -2, 1 <= x2 + x3 <= 8,
  // 0 <= x1 <= 6, x2 free, x3 >= 0: optimum (6, 4, 0), objective 14, y = (2, 0, 0).
  Problem p({{1, 1, 1}, {1, -1, 0}, {0, 1, 1}}, "EGR", {10, -2, 8}, {1, 2, 3}, {0, -kInf, 0},
            {6, kInf, kInf}, {0, 0, 7});
  RunResult r = runSolve(&env, p);
  ASSERT_EQ(r.addStatus, 0);
  EXPECT_EQ(r.status, IPM_STATUS_OPTIMAL);
  EXPECT_NEAR(p.x[0], 6, 1e-6);
  EXPECT_NEAR(p.x[1], 4, 1e-6);
  EXPECT_NEAR(p.x[2], 0, 1e-6);
  EXPECT_NEAR(p.objective(), 14, 1e-6);
  EXPECT_NEAR(p.y[0], 2, 1e-6);
  EXPECT_NEAR(p.y[1], 0, 1e-6);
  EXPECT_NEAR(p.y[2], 0, 1e-6);
  // The range row is back, with its slack: 8 - (x2 + x3) = 4.
  EXPECT_EQ(p.sense, "EGR");
  EXPECT_EQ(p.model.numCol, 3);
  EXPECT_NEAR(r.ineqnSlack[2], 4, 1e-6);
  EXPECT_EQ(liveBlocks(), 0);
}

TEST_F(IpmSolve, ActiveRangeRowAndFreeColumn) {
  // min x1 + 2x2 with x1 free, x1 + x2 >= 2, x1 - x2 <= 1, x2 >= 0:
  // optimum (1.5, 0.5).  Then a range row held at its lower end.
  Problem p({{1, 1}, {1, -1}}, "GL", {2, 1}, {1, 2}, {-kInf, 0}, {kInf, kInf});
  RunResult r = runSolve(&env, p);
  EXPECT_EQ(r.status, IPM_STATUS_OPTIMAL);
  EXPECT_NEAR(p.x[0], 1.5, 1e-6);
  EXPECT_NEAR(p.x[1], 0.5, 1e-6);
  EXPECT_NEAR(p.objective(), 2.5, 1e-6);

  // min x1 + x2, 2 <= x1 + x2 <= 5 (rhs the upper end), 0 <= x <= 3.
  Problem q({{1, 1}}, "R", {5}, {1, 1}, {0, 0}, {3, 3}, {3});
  r = runSolve(&env, q);
  EXPECT_EQ(r.status, IPM_STATUS_OPTIMAL);
  EXPECT_NEAR(q.objective(), 2, 1e-6);
  EXPECT_NEAR(r.ineqnSlack[0], 3, 1e-6);
  EXPECT_GT(q.y[0], 0.99);
  EXPECT_EQ(liveBlocks(), 0);
}

TEST_F(IpmSolve, DegenerateProblems) {
  // Primal degenerate: three rows active at the vertex (1, 1) of a plane.
  Problem p({{1, 0}, {0, 1}, {1, 1}}, "LLL", {1, 1, 2}, {-1, -1}, {0, 0}, {kInf, kInf});
  RunResult r = runSolve(&env, p);
  EXPECT_EQ(r.status, IPM_STATUS_OPTIMAL);
  EXPECT_NEAR(p.x[0], 1, 1e-6);
  EXPECT_NEAR(p.x[1], 1, 1e-6);

  // Dual degenerate: a whole edge is optimal; only the value is unique.
  Problem q({{1, 1}}, "G", {1}, {1, 1}, {0, 0}, {kInf, kInf});
  r = runSolve(&env, q);
  EXPECT_EQ(r.status, IPM_STATUS_OPTIMAL);
  EXPECT_NEAR(q.objective(), 1, 1e-6);
  EXPECT_GE(q.x[0], -1e-8);
  EXPECT_GE(q.x[1], -1e-8);

  // A fixed column (lower equal to upper) and an all-equality system.
  Problem f({{1, 1, 0}, {0, 1, 1}}, "EE", {3, 5}, {1, 1, 1}, {0, 2, 0}, {kInf, 2, kInf});
  r = runSolve(&env, f);
  EXPECT_EQ(r.status, IPM_STATUS_OPTIMAL);
  EXPECT_NEAR(f.x[0], 1, 1e-6);
  EXPECT_NEAR(f.x[1], 2, 1e-6);
  EXPECT_NEAR(f.x[2], 3, 1e-6);
  EXPECT_EQ(liveBlocks(), 0);
}

TEST_F(IpmSolve, InfeasibleProblemsEndWithAnInfeasibleStatus) {
  // x1 + x2 <= 1 and x1 + x2 >= 3 cannot both hold.
  Problem p({{1, 1}, {1, 1}}, "LG", {1, 3}, {1, 1}, {0, 0}, {kInf, kInf});
  RunResult r = runSolve(&env, p);
  EXPECT_TRUE(r.status == IPM_STATUS_PRIMAL_INFEASIBLE || r.status == IPM_STATUS_BOTH_INFEASIBLE)
      << r.status;
  EXPECT_GT(p.model.primalInfeas, p.option.primalTol);

  // min -x1 with x1 - x2 >= 0, x >= 0 runs off to infinity.
  Problem q({{1, -1}}, "G", {0}, {-1, 0}, {0, 0}, {kInf, kInf});
  r = runSolve(&env, q);
  EXPECT_TRUE(r.status == IPM_STATUS_DUAL_INFEASIBLE || r.status == IPM_STATUS_BOTH_INFEASIBLE)
      << r.status;
  EXPECT_GT(q.model.dualInfeas, q.option.dualTol);
  EXPECT_EQ(liveBlocks(), 0);
}

TEST_F(IpmSolve, ConvexQps) {
  // min 1/2 x'Qx - x1 - x2, Q = [2 1; 1 2], x1 + x2 <= 10, x >= 0:
  // the unconstrained minimiser (1/3, 1/3) is feasible.
  Problem p({{1, 1}}, "L", {10}, {-1, -1}, {0, 0}, {kInf, kInf});
  p.setQuad({{2, 1}, {1, 2}});
  RunResult r = runSolve(&env, p);
  EXPECT_EQ(r.status, IPM_STATUS_OPTIMAL);
  EXPECT_NEAR(p.x[0], 1.0 / 3, 1e-6);
  EXPECT_NEAR(p.x[1], 1.0 / 3, 1e-6);
  EXPECT_NEAR(p.objective(), -1.0 / 3, 1e-6);

  // Diagonal Q with an active constraint: min 1/2 |x|^2 - 2x1 - 2x2,
  // x1 + x2 = 1, 0 <= x <= 5: x = (0.5, 0.5), y = -1.5.
  Problem q({{1, 1}}, "E", {1}, {-2, -2}, {0, 0}, {5, 5});
  q.setQuad({{1, 0}, {0, 1}});
  r = runSolve(&env, q);
  EXPECT_EQ(r.status, IPM_STATUS_OPTIMAL);
  EXPECT_NEAR(q.x[0], 0.5, 1e-6);
  EXPECT_NEAR(q.x[1], 0.5, 1e-6);
  EXPECT_NEAR(q.y[0], -1.5, 1e-6);

  // A bound active in a QP with a free column and a G row: Q = [2 1; 1 2],
  // c = (0, 3), x1 free, x2 >= 0, x1 - x2 >= -1.  The gradient at the
  // origin is (0, 3), held by the bound of x2 alone.
  Problem f({{1, -1}}, "G", {-1}, {0, 3}, {-kInf, 0}, {kInf, kInf});
  f.setQuad({{2, 1}, {1, 2}});
  r = runSolve(&env, f);
  EXPECT_EQ(r.status, IPM_STATUS_OPTIMAL);
  EXPECT_NEAR(f.x[0], 0, 1e-6);
  EXPECT_NEAR(f.x[1], 0, 1e-6);
  EXPECT_EQ(liveBlocks(), 0);
}

}  // namespace
