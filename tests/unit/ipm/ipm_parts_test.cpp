// The pieces of the iteration on one model: the record, the augmented
// matrix, the centring and the start, each against a direct dense
// computation.
#include <gtest/gtest.h>

#include <memory>

#include "ipm/init_internal.h"
#include "ipm/submodel.h"
#include "support/ipm_support.h"

using namespace ipmtest;

namespace {

// A model with every kind of column and row: bounded both ways, upper only,
// lower only (at zero and not), free; rows E, G and L, and a range row.
Problem mixedModel(bool quad) {
  Problem p({{1, 2, 0, 1, 0}, {0, 1, -1, 0, 2}, {3, 0, 1, 1, 0}, {0, -1, 0, 2, 1}}, "EGLR",
            {4, 1, 9, 6}, {1, -2, 0.5, 3, -1}, {-1, -kInf, 0, 2, -kInf}, {5, 7, kInf, kInf, kInf},
            {0, 0, 0, 4});
  if (quad)
    p.setQuad(
        {{2, 1, 0, 0, 0}, {1, 3, 0, 0.5, 0}, {0, 0, 1, 0, 0}, {0, 0.5, 0, 0, 0}, {0, 0, 0, 0, 1}});
  return p;
}

class IpmParts : public IpmFixture {
 protected:
  // A point with every slack and dual positive and residuals in all parts.
  void setUp(Problem model) {
    IpmFixture::setUp(std::move(model));
    for (int32_t j = 0; j < ipm->numCol; j++) {
      ipm->solPrimal[j] = 0.3 + 0.1 * j;
      if (hasUpper(j)) {
        ipm->upperSlack[j] = 0.7 + 0.05 * j;
        ipm->upperDual[j] = 1.1 - 0.1 * j;
      }
      if (hasLower(j)) {
        ipm->lowerSlack[j] = 0.4 + 0.2 * j;
        ipm->lowerDual[j] = 0.9 + 0.03 * j;
      }
    }
    for (int32_t i = 0; i < ipm->numRow; i++) {
      ipm->solDual[i] = 0.5 + 0.25 * i;
      ipm->ineqnSlack[i] = isG(i) ? 1.5 - 0.2 * i : 0.0;
    }
  }
  // A complementarity pair of the record: slack, dual and their steps.
  struct Pair {
    double *s, *z, *ds, *dz;
  };
  std::vector<Pair> pairs() const {
    std::vector<Pair> out;
    const int32_t n = ipm->numCol;
    for (int32_t j = 0; j < n; j++) {
      if (hasUpper(j))
        out.push_back({&ipm->upperSlack[j], &ipm->upperDual[j], &ipm->upperSlackDelta[j],
                       &ipm->upperDualDelta[j]});
      if (hasLower(j))
        out.push_back({&ipm->lowerSlack[j], &ipm->lowerDual[j], &ipm->lowerSlackDelta[j],
                       &ipm->lowerDualDelta[j]});
    }
    for (int32_t i = 0; i < ipm->numRow; i++)
      if (isG(i))
        out.push_back({&ipm->ineqnSlack[i], &ipm->solDual[i], &ipm->ineqnSlackDelta[i],
                       &ipm->vecRhs[n + i]});
    return out;
  }
  int32_t quadLayout() {
    return createAugmentMatrixQP(&env, ipm->numRow, ipm->numCol, ipm->numCoef, ipm->numQuadCoef,
                                 ipm->colBegin, ipm->colLength, ipm->rowIndex, ipm->matValue,
                                 ipm->quadColBegin, ipm->quadColLength, ipm->quadRowIndex,
                                 ipm->quadMatValue, ipm->kktBegin, ipm->kktIndex, ipm->kktValue,
                                 ipm->varBndDiagIndex, ipm->ineqnDiagIndex);
  }
  // Solves the current augmented system densely, in place.
  void denseSolveInPlace(double* v) {
    Vec z;
    hxtest::luSolve(denseKkt(), Vec(v, v + ipm->numDim), &z, 1e-30, true);
    std::copy(z.begin(), z.end(), v);
  }
};

TEST_F(IpmParts, AnalysisFlagsCountsAndNorms) {
  Problem p = mixedModel(false);
  p.lower[3] = 1e-11;  // below 1e-10: counts as a bound at zero
  p.lower[0] = 1e-10;  // at 1e-10: an ordinary lower bound
  p.upper[4] = kInf;   // exactly infinity is no bound
  p.lower[4] = -kInf;
  setUp(p);
  ASSERT_EQ(ipm->numCol, 6);  // one range slack
  // The last column is the range slack.
  const int32_t types[] = {VARBND_LOWER | VARBND_UPPER, VARBND_UPPER,      VARBND_LOWER_ZERO,
                           VARBND_LOWER_ZERO,           VARBND_FREE, VARBND_LOWER_ZERO | VARBND_UPPER};
  for (int32_t j = 0; j < 6; j++) EXPECT_EQ(ipm->varBndType[j], types[j]) << j;
  EXPECT_EQ(ipm->numIneqn, 2);  // after addSlack: E, G, G (was L), E (was R)
  EXPECT_EQ(ipm->numComplement, 2 + 4 + 3);
  EXPECT_NEAR(ipm->normRhs, sqrt(16.0 + 1 + 81 + 36), 1e-12);
  EXPECT_NEAR(ipm->normUpper, sqrt(25.0 + 49 + 16), 1e-12);
}

// What the layouts hold is pinned by the start test and the whole solves,
// which read the matrix back against the model, and their memory by the whole
// solve's sweep; here their order.
TEST_F(IpmParts, QuadLayoutRunsInRowOrder) {
  setUp(mixedModel(true));
  ASSERT_EQ(quadLayout(), 0);
  EXPECT_EQ(ipm->kktBegin[ipm->numDim], ipm->numIpmCoef);
  // Q's lower triangle is stored, so each variable column runs in row order:
  // transposed triangle, diagonal, triangle, then the rows of A.
  for (int32_t j = 0; j < ipm->numCol; j++)
    for (int32_t pos = ipm->kktBegin[j] + 1; pos < ipm->kktBegin[j + 1]; pos++)
      EXPECT_LT(ipm->kktIndex[pos - 1], ipm->kktIndex[pos]) << "column " << j;
}

// The measures and the Newton equations of both steps are recomputed by the
// iteration's own checks along whole solves.  Left to this test: the pairs'
// ratio, a QP's common step length, and the centring that follows the
// predictor.
TEST_F(IpmParts, PairRatioStepLengthsAndCentring) {
  for (bool quad : {false, true}) {
    setUp(mixedModel(quad));
    ASSERT_EQ(ipmInitAugmat(ipm, 1), 0);
    computeMeasurement(ipm);
    computeAugmentDiag(ipm);
    denseSolveInPlace(ipm->vecRhs);
    computePredictor(ipm);
    EXPECT_LE(ipm->alphaPrimal, 1.0);
    if (quad) {
      EXPECT_EQ(ipm->alphaPrimal, ipm->alphaDual);
    }
    double sum = 0, ratio = 0;
    for (const Pair& p : pairs()) {
      const double lo = std::min(fabs(*p.s), fabs(*p.z)), hi = std::max(fabs(*p.s), fabs(*p.z));
      if (lo > 1e-6) ratio = std::max(ratio, lo / hi);
      sum += (*p.s + ipm->alphaPrimal * *p.ds) * (*p.z + ipm->alphaDual * *p.dz);
    }
    EXPECT_NEAR(ipm->complRatio, ratio, 1e-12);
    computeMuAffine(ipm);
    EXPECT_NEAR(ipm->muAffine, sum / ipm->numComplement, 1e-12);
    computeSigma(ipm);
    EXPECT_NEAR(ipm->sigma, pow(ipm->muAffine / ipm->mu, 3), 1e-12);
    release();
  }
}

// ---- starting point ------------------------------------------------------------------

TEST_F(IpmParts, StartLpStartIsTheLeastSquaresPointMadeInterior) {
  // Columns: both bounds, lower only, free; rows G and E.
  setUp(Problem({{1, 2, 1}, {1, -1, 3}}, "GE", {2, 1}, {1, -1, 2}, {0, 1, -kInf},
               {4, kInf, kInf}));
  ASSERT_EQ(ipmInitLP(ipm, nullptr), 0);
  // min 1/2 sum (x - b)^2 + 1/2 (A_G x - rhs_G)^2 under A_E x = rhs_E, by
  // its normal equations.
  Dense a = {{1, 2, 1}, {1, -1, 3}};
  const double nb[] = {2, 1, 0}, sb[] = {4, 1, 0};
  Dense k(4, std::vector<double>(4, 0.0));
  std::vector<double> b(4, 0.0);
  for (int i = 0; i < 3; i++) {
    for (int j = 0; j < 3; j++) k[i][j] = a[0][i] * a[0][j];
    k[i][i] += nb[i];
    b[i] = sb[i] + a[0][i] * 2;
    k[i][3] = k[3][i] = a[1][i];
  }
  b[3] = 1;
  Vec want;
  hxtest::luSolve(k, b, &want, 1e-30, true);
  for (int j = 0; j < 3; j++) EXPECT_NEAR(ipm->solPrimal[j], want[j], 1e-9) << j;

  // That every slack and dual in force is positive and the others are 0 is
  // checked along whole solves by the iteration's own checks.  The divisor
  // is set for the loop.
  double least = std::min({ipm->solDual[0], ipm->lowerSlack[0], ipm->upperSlack[0],
                           ipm->lowerSlack[1]});
  EXPECT_EQ(ipm->divisor, least);
  EXPECT_NE(ipm->LDL_factor, nullptr);  // the loop's pattern stays analysed
}

}  // namespace
