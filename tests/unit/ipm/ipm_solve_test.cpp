// Whole solves of small LPs and QPs with known optima through addSlack,
// ipmSolve and removeSlack, which must give the caller's model back.
#include <gtest/gtest.h>

#include <functional>

#include "support/ipm_support.h"

using namespace ipmtest;

namespace {

class IpmSolve : public HostTest {};

struct Known {
  const char* name;
  std::function<Problem()> make;
  double objective;
  Vec x, y;        // empty: not unique
  Vec ineqnSlack;  // of the rows named, after removeSlack; empty: not checked
};

TEST_F(IpmSolve, SmallModelsReachTheirKnownOptima) {
  const Known cases[] = {
      {"textbook LP with L rows; duals in the caller's sense", textbookLP, -2.8, {1.6, 1.2},
       {-0.4, -0.2}, {}},
      // x1 + x2 + x3 = 10, x1 - x2 >= -2, 1 <= x2 + x3 <= 8, 0 <= x1 <= 6,
      // x2 free: the range row is back with its slack 8 - (x2 + x3) = 4.
      {"every row sense, bounded and free columns",
       [] {
         return Problem({{1, 1, 1}, {1, -1, 0}, {0, 1, 1}}, "EGR", {10, -2, 8}, {1, 2, 3},
                        {0, -kInf, 0}, {6, kInf, kInf}, {0, 0, 7});
       },
       14, {6, 4, 0}, {2, 0, 0}, {0, 0, 4}},
      {"range row held at its lower end",
       [] { return Problem({{1, 1}}, "R", {5}, {1, 1}, {0, 0}, {3, 3}, {3}); }, 2, {}, {1},
       {3}},
      {"primal degenerate vertex",
       [] {
         return Problem({{1, 0}, {0, 1}, {1, 1}}, "LLL", {1, 1, 2}, {-1, -1}, {0, 0},
                        {kInf, kInf});
       },
       -2, {1, 1}, {}, {}},
      {"fixed column and equations only",
       [] {
         return Problem({{1, 1, 0}, {0, 1, 1}}, "EE", {3, 5}, {1, 1, 1}, {0, 2, 0},
                        {kInf, 2, kInf});
       },
       6, {1, 2, 3}, {}, {}},
      {"QP with its unconstrained minimiser inside",
       [] {
         Problem p({{1, 1}}, "L", {10}, {-1, -1}, {0, 0}, {kInf, kInf});
         p.setQuad({{2, 1}, {1, 2}});
         return p;
       },
       -1.0 / 3, {1.0 / 3, 1.0 / 3}, {0}, {}},
      {"diagonal QP with an active equation",
       [] {
         Problem p({{1, 1}}, "E", {1}, {-2, -2}, {0, 0}, {5, 5});
         p.setQuad({{1, 0}, {0, 1}});
         return p;
       },
       -1.75, {0.5, 0.5}, {-1.5}, {}},
  };
  for (const Known& c : cases) {
    SCOPED_TRACE(c.name);
    Problem p = c.make();
    const Problem original = c.make();
    RunResult r = runSolve(&env, p);
    ASSERT_EQ(r.addStatus, 0);
    EXPECT_EQ(r.status, IPM_STATUS_OPTIMAL);
    EXPECT_EQ(p.model.status, IPM_STATUS_OPTIMAL);
    EXPECT_NEAR(p.objective(), c.objective, 1e-6);
    for (size_t j = 0; j < c.x.size(); j++) EXPECT_NEAR(p.x[j], c.x[j], 1e-6) << j;
    for (size_t j = 0; j < p.x.size(); j++) EXPECT_GE(p.x[j], p.lower[j] - 1e-8) << j;
    for (size_t i = 0; i < c.y.size(); i++) EXPECT_NEAR(p.y[i], c.y[i], 1e-6) << i;
    for (size_t i = 0; i < c.ineqnSlack.size(); i++) {
      if (c.ineqnSlack[i]) {
        EXPECT_NEAR(r.ineqnSlack[i], c.ineqnSlack[i], 1e-6) << i;
      }
    }
    // The caller's model is back: senses, sizes, right sides and matrix (a
    // range slack's entry stays behind the cut-off).
    EXPECT_EQ(p.sense, original.sense);
    EXPECT_EQ(p.model.numCol, original.numCol);
    EXPECT_EQ(p.model.numCoef, original.model.numCoef);
    EXPECT_EQ(p.rhs, original.rhs);
    for (int32_t k = 0; k < original.model.numCoef; k++)
      EXPECT_EQ(p.matValue[k], original.matValue[k]) << k;
    EXPECT_LE(p.model.primalInfeas, 1e-8);
    EXPECT_LE(p.model.dualityGap, 1e-8);
    EXPECT_GT(p.model.iteration, 0);
  }
  // Row counts that disagree with the senses fail before any list is kept.
  Problem q({{1, 2}, {1, 0}}, "LL", {4, 1}, {1, 1}, {0, 0}, {kInf, kInf});
  q.storage.numLcont = 1;
  EXPECT_EQ(addSlack(&env, &q.model, &q.storage), IPM_STATUS_FAILED);
  EXPECT_EQ(liveBlocks(), 0);
}

}  // namespace
