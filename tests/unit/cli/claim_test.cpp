// The command's own check of a claimed optimum, on a small LP and QP whose
// optimal point and duals are known by hand.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "claim.h"
#include "records/host_records.h"

namespace {

using hxcli::checkClaim;

hxcli::MpsProblem read(const std::string& text) {
  hxcli::MpsProblem p;
  hxcli::MpsError error;
  EXPECT_TRUE(hxcli::parseMps(text, "t.mps", hxcli::MpsFormat::Free, &p, &error));
  return p;
}

// min -x - y  s.t.  x + y <= 4 (dual -1), x - y >= -2 (dual 0), 0 <= x <= 3,
// y free: optimum anywhere on x + y = 4 with x <= 3, objective -4.
const char* kLp =
    "NAME LP\nROWS\n N obj\n L cap\n G diff\nCOLUMNS\n x obj -1 cap 1\n x diff 1\n"
    " y obj -1 cap 1\n y diff -1\nRHS\n rhs cap 4 diff -2\nBOUNDS\n UP b x 3\n FR b y\nENDATA\n";

TEST(ClaimCheck, OptimalPointsPassAndEachBrokenFigureIsNamed) {
  const hxcli::MpsProblem p = read(kLp);
  ASSERT_EQ(p.numCol(), 2);
  const double tol = 1e-6;
  hxcli::ClaimCheck c = checkClaim(p, {1, 3}, {-1, 0}, QP_RETURN_OPTIMAL, tol, tol, tol);
  EXPECT_TRUE(c.checked);
  EXPECT_TRUE(c.verified) << c.failure;
  EXPECT_NEAR(c.primalObjective, -4, 1e-12);
  EXPECT_NEAR(c.dualObjective, -4, 1e-12);

  struct Case {
    std::vector<double> x, y;
    const char* failure;
  } cases[] = {
      {{1, 3.1}, {-1, 0}, "primal residual"},  // x + y = 4.1 > 4
      {{1, 3}, {-1, 0.5}, "dual residual"},     // y free: its reduced cost must vanish
      {{0, 2}, {-1, 0}, "relative gap"},        // feasible, duals optimal, point not
  };
  for (const Case& k : cases) {
    c = checkClaim(p, k.x, k.y, QP_RETURN_OPTIMAL, tol, tol, tol);
    EXPECT_FALSE(c.verified) << k.failure;
    EXPECT_EQ(c.failure.rfind(k.failure, 0), 0u) << c.failure;
  }
  // "Acceptable" is held to looser limits; a status that claims no optimum
  // is not checked at all.
  EXPECT_TRUE(checkClaim(p, {1, 3.000001}, {-1, 0}, QP_RETURN_ACCEPTABLE, tol, tol, tol).verified);
  EXPECT_FALSE(checkClaim(p, {0, 0}, {0, 0}, QP_RETURN_PRIMAL_INFEASIBLE, tol, tol, tol).checked);
}

// max 2x - x^2/2 (Q = 1 as a minimisation of its negation) s.t. x <= 5:
// optimum x = 2, row inactive, objective 2.
TEST(ClaimCheck, MaximisedQuadraticObjective) {
  const hxcli::MpsProblem p = read(
      "NAME QP\nOBJSENSE\n MAX\nROWS\n N obj\n L r\nCOLUMNS\n x obj 2 r 1\nRHS\n rhs r 5\n"
      "QUADOBJ\n x x -1\nENDATA\n");
  ASSERT_EQ(p.objSense, -1);
  EXPECT_TRUE(checkClaim(p, {2}, {0}, QP_RETURN_OPTIMAL, 1e-6, 1e-6, 1e-6).verified);
  const hxcli::ClaimCheck off = checkClaim(p, {2.5}, {0}, QP_RETURN_OPTIMAL, 1e-6, 1e-6, 1e-6);
  EXPECT_FALSE(off.verified);
  // x = 2.5 prices its positive reduced cost at the lower bound 0 it is not at.
  EXPECT_EQ(off.failure.rfind("relative gap", 0), 0u) << off.failure;
}

}  // namespace
