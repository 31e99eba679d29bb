// The pieces of the iteration on one model: the record, the augmented
// matrix in both layouts, the diagonal refresh, the measures and the step,
// each against a direct dense computation.
#include <gtest/gtest.h>

#include <memory>

#include "ipm/init_internal.h"
#include "ipm/submodel.h"
#include "support/ipm_support.h"
#include "support/oom.h"

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
    std::string name;
    double *s, *z, *ds, *dz;
  };
  std::vector<Pair> pairs() const {
    std::vector<Pair> out;
    const int32_t n = ipm->numCol;
    for (int32_t j = 0; j < n; j++) {
      if (hasUpper(j))
        out.push_back({"upper " + std::to_string(j), &ipm->upperSlack[j], &ipm->upperDual[j],
                       &ipm->upperSlackDelta[j], &ipm->upperDualDelta[j]});
      if (hasLower(j))
        out.push_back({"lower " + std::to_string(j), &ipm->lowerSlack[j], &ipm->lowerDual[j],
                       &ipm->lowerSlackDelta[j], &ipm->lowerDualDelta[j]});
    }
    for (int32_t i = 0; i < ipm->numRow; i++)
      if (isG(i))
        out.push_back({"row " + std::to_string(i), &ipm->ineqnSlack[i], &ipm->solDual[i],
                       &ipm->ineqnSlackDelta[i], &ipm->vecRhs[n + i]});
    return out;
  }
  Vec times(const Dense& m, const double* v) const {
    return hxtest::multiply(m, Vec(v, v + m[0].size()));
  }
  Vec timesT(const Dense& m, const double* v, size_t cols) const {
    Vec out(cols, 0.0);
    for (size_t i = 0; i < m.size(); i++)
      for (size_t j = 0; j < cols; j++) out[j] += m[i][j] * v[i];
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

// What the layouts hold is pinned by the start and step tests, which read the
// matrix back against the model; here its order and its memory.
TEST_F(IpmParts, QuadLayoutRunsInRowOrderAndReleasesOnFailure) {
  setUp(mixedModel(true));
  ASSERT_EQ(quadLayout(), 0);
  EXPECT_EQ(ipm->kktBegin[ipm->numDim], ipm->numIpmCoef);
  // Q's lower triangle is stored, so each variable column runs in row order:
  // transposed triangle, diagonal, triangle, then the rows of A.
  for (int32_t j = 0; j < ipm->numCol; j++)
    for (int32_t pos = ipm->kktBegin[j] + 1; pos < ipm->kktBegin[j + 1]; pos++)
      EXPECT_LT(ipm->kktIndex[pos - 1], ipm->kktIndex[pos]) << "column " << j;
  const auto sweep = hxtest::oomSweep(host, [&](hxtest::OomProbe&) { return quadLayout(); });
  EXPECT_EQ(sweep.finalStatus, 0);
  EXPECT_GE(sweep.refusedRuns, 8);
}

TEST_F(IpmParts, MeasurementAgreesWithADirectRecomputation) {
  for (bool quad : {false, true}) {
    setUp(mixedModel(quad));
    // Break the bound identities at two columns, so the right side's
    // correction has something to carry.
    ipm->upperSlack[0] += 0.3;
    ipm->lowerSlack[3] -= 0.1;
    computeMeasurement(ipm);
    const int32_t n = ipm->numCol, m = ipm->numRow;
    Dense a = denseA(), q = denseQ();
    const double* x = ipm->solPrimal;
    const double* y = ipm->solDual;
    std::vector<double> ax = times(a, x), qx = times(q, x), aty = timesT(a, y, n);
    double pSum = 0, dSum = 0, bSum = 0, compl_ = 0, ratio = 0, objP = 0, objD = 0;
    for (int32_t i = 0; i < m; i++) {
      EXPECT_NEAR(ipm->vecRhs[n + i], ax[i] - ipm->rhs[i], 1e-12);
      pSum += pow(ax[i] - ipm->ineqnSlack[i] - ipm->rhs[i], 2);
      objD += ipm->rhs[i] * y[i];
    }
    auto pair = [&](double s, double z) {
      compl_ += fabs(s * z);
      const double lo = std::min(fabs(s), fabs(z)), hi = std::max(fabs(s), fabs(z));
      if (lo > 1e-6) ratio = std::max(ratio, lo / hi);
    };
    for (int32_t j = 0; j < n; j++) {
      double r = ipm->obj[j] + qx[j] - aty[j];
      double t = -r;
      objP += ipm->obj[j] * x[j] + 0.5 * x[j] * qx[j];
      objD -= 0.5 * x[j] * qx[j];
      if (hasUpper(j)) {
        r += ipm->upperDual[j];
        bSum += pow(ipm->upper[j] - x[j] - ipm->upperSlack[j], 2);
        t -= ipm->upperDual[j] * (ipm->upperSlack[j] - (ipm->upper[j] - x[j])) / ipm->upperSlack[j];
        objD -= ipm->upper[j] * ipm->upperDual[j];
      }
      if (hasLower(j)) {
        r -= ipm->lowerDual[j];
        bSum += pow(x[j] - ipm->lower[j] - ipm->lowerSlack[j], 2);
        t += ipm->lowerDual[j] * (ipm->lowerSlack[j] - (x[j] - ipm->lower[j])) / ipm->lowerSlack[j];
        objD += ipm->lower[j] * ipm->lowerDual[j];
      }
      dSum += r * r;
      EXPECT_NEAR(ipm->vecRhs[j], t, 1e-12) << j;
    }
    for (const Pair& p : pairs()) pair(*p.s, *p.z);
    EXPECT_NEAR(ipm->primalInfeas, sqrt(pSum) / (ipm->normRhs + 1), 1e-12);
    EXPECT_NEAR(ipm->dualInfeas, sqrt(dSum) / (ipm->normObj + 1), 1e-12);
    EXPECT_NEAR(ipm->boundInfeas, sqrt(bSum) / (ipm->normLower + 1 + ipm->normUpper), 1e-12);
    EXPECT_NEAR(ipm->complementarity, compl_, 1e-12);
    EXPECT_NEAR(ipm->mu, compl_ / ipm->numComplement, 1e-12);
    EXPECT_NEAR(ipm->complRatio, ratio, 1e-12);
    EXPECT_NEAR(ipm->objValuePrimal, objP, 1e-12);
    EXPECT_NEAR(ipm->objValueDual, objD, 1e-12);
    EXPECT_NEAR(ipm->dualityGap, fabs(objP - objD) / (fabs(objP) + 1), 1e-12);

    release();
  }
}

// The predictor and the combined step satisfy the Newton equations of the
// problem: the rows, the dual equation, and the linearised complementarity,
// with the corrector's second-order and centring terms for the latter.
TEST_F(IpmParts, StepsSolveTheNewtonEquations) {
  for (bool quad : {false, true}) {
    setUp(mixedModel(quad));
    ipm->upperSlack[0] += 0.3;  // a bound residual that the step must remove
    ASSERT_EQ(ipmInitAugmat(ipm, 1), 0);
    computeMeasurement(ipm);
    computeAugmentDiag(ipm);
    denseSolveInPlace(ipm->vecRhs);
    computePredictor(ipm);
    const int32_t n = ipm->numCol, m = ipm->numRow;
    Dense a = denseA(), q = denseQ();
    auto checkNewton = [&](const char* which) {
      Vec xn(n), yn(m);
      for (int32_t j = 0; j < n; j++) xn[j] = ipm->solPrimal[j] + ipm->vecRhs[j];
      for (int32_t i = 0; i < m; i++) yn[i] = ipm->solDual[i] + ipm->vecRhs[n + i];
      Vec ax = times(a, xn.data()), qx = times(q, xn.data()), aty = timesT(a, yn.data(), n);
      for (int32_t i = 0; i < m; i++) {
        const double s = isG(i) ? ipm->ineqnSlack[i] + ipm->ineqnSlackDelta[i] : 0.0;
        EXPECT_NEAR(ax[i] - s - ipm->rhs[i], 0.0, 1e-8) << which << " row " << i;
      }
      for (int32_t j = 0; j < n; j++) {
        double r = ipm->obj[j] + qx[j] - aty[j];
        if (hasUpper(j)) {
          r += ipm->upperDual[j] + ipm->upperDualDelta[j];
          EXPECT_NEAR(xn[j] + ipm->upperSlack[j] + ipm->upperSlackDelta[j], ipm->upper[j], 1e-12);
        }
        if (hasLower(j)) {
          r -= ipm->lowerDual[j] + ipm->lowerDualDelta[j];
          EXPECT_NEAR(xn[j] - ipm->lowerSlack[j] - ipm->lowerSlackDelta[j], ipm->lower[j], 1e-12);
        }
        EXPECT_NEAR(r, 0.0, 1e-8) << which << " column " << j;
      }
    };
    checkNewton("predictor");
    // The affine step zeroes each linearised product; no pair turns negative
    // over the step; muAffine is the mean product at the step.
    EXPECT_LE(ipm->alphaPrimal, 1.0);
    if (quad) {
      EXPECT_EQ(ipm->alphaPrimal, ipm->alphaDual);
    }
    double sum = 0;
    const std::vector<Pair> all = pairs();
    for (const Pair& p : all) {
      EXPECT_NEAR(*p.z * (*p.s + *p.ds) + *p.s * *p.dz, 0.0, 1e-12) << p.name;
      EXPECT_GE(*p.s + ipm->alphaPrimal * *p.ds, -1e-12) << p.name;
      EXPECT_GE(*p.z + ipm->alphaDual * *p.dz, -1e-12) << p.name;
      sum += (*p.s + ipm->alphaPrimal * *p.ds) * (*p.z + ipm->alphaDual * *p.dz);
    }
    computeMuAffine(ipm);
    EXPECT_NEAR(ipm->muAffine, sum / ipm->numComplement, 1e-12);
    computeSigma(ipm);
    EXPECT_NEAR(ipm->sigma, pow(ipm->muAffine / ipm->mu, 3), 1e-12);

    std::vector<double> affine;  // ds * dz of the predictor, pair by pair
    for (const Pair& p : all) affine.push_back(*p.ds * *p.dz);
    computeRhsCorrector(ipm);
    denseSolveInPlace(ipm->correctorPrimal);
    computeStepCombined(ipm);
    checkNewton("combined");
    const double c = ipm->sigma * ipm->mu;
    for (size_t k = 0; k < all.size(); k++) {
      const Pair& p = all[k];
      EXPECT_NEAR(*p.z * *p.ds + *p.s * *p.dz, -*p.z * *p.s + c - affine[k], 1e-10) << p.name;
    }

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

  // Every slack and dual in force is positive; the others are exactly 0.
  for (int32_t j = 0; j < ipm->numCol; j++) {
    EXPECT_EQ(hasLower(j), ipm->lowerSlack[j] > 0 && ipm->lowerDual[j] > 0) << j;
    EXPECT_EQ(hasUpper(j), ipm->upperSlack[j] > 0 && ipm->upperDual[j] > 0) << j;
    if (!hasLower(j)) {
      EXPECT_EQ(ipm->lowerSlack[j] + ipm->lowerDual[j], 0.0);
    }
    if (!hasUpper(j)) {
      EXPECT_EQ(ipm->upperSlack[j] + ipm->upperDual[j], 0.0);
    }
  }
  EXPECT_GT(ipm->ineqnSlack[0], 0);
  EXPECT_GT(ipm->solDual[0], 0);
  EXPECT_EQ(ipm->ineqnSlack[1], 0);
  // The divisor is set for the loop.
  double least = std::min({ipm->solDual[0], ipm->lowerSlack[0], ipm->upperSlack[0],
                           ipm->lowerSlack[1]});
  EXPECT_EQ(ipm->divisor, least);
  EXPECT_NE(ipm->LDL_factor, nullptr);  // the loop's pattern stays analysed
}

}  // namespace
