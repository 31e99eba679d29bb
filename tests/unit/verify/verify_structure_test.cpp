// The symmetric-matrix and vector checks that guard every system handed to
// the factorisation.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "support/support.h"
#include "unit/verify/verify_support.h"
#include "verify/verify.h"

namespace {

using verifytest::errors;
using verifytest::firstError;
using verifytest::lines;
using verifytest::logged;

// [ 4  1  0 ]
// [ 1  0 -2 ]   held in both triangles, with a closing begin.
// [ 0 -2  5 ]
struct Sym {
  std::vector<int32_t> begin{0, 2, 5, 7};
  std::vector<int32_t> index{0, 1, 0, 1, 2, 1, 2};
  std::vector<double> value{4, 1, 1, 0, -2, -2, 5};
};

class VerifySym : public verifytest::LoggedTest {
 protected:
  int32_t check(Sym& m, const int32_t* skip = nullptr, const int32_t* length = nullptr,
                int32_t numCoef = 7) {
    return VerifySymMatrix(&env, 1, 3, numCoef, skip, m.begin.data(), length, m.index.data(),
                           m.value.data());
  }
};

TEST_F(VerifySym, SymmetricMatricesPass) {
  Sym m;
  EXPECT_EQ(VerifySymMatrix(&env, 0, 3, 7, nullptr, m.begin.data(), nullptr, m.index.data(),
                            m.value.data()),
            0);
  EXPECT_TRUE(lines().empty());
  EXPECT_EQ(check(m), 0) << firstError();
  // With lengths and a gap behind column 0, and with row and column 2 left
  // out by the skip list.
  Sym g;
  g.begin = {0, 3, 6};
  g.index = {0, 1, 99, 0, 1, 2, 1, 2};
  g.value = {4, 1, 0, 1, 0, -2, -2, 5};
  std::vector<int32_t> length{2, 3, 2};
  EXPECT_EQ(check(g, nullptr, length.data()), 0) << firstError();
  std::vector<int32_t> skip{0, 1, -1};
  m.value[4] = 7.0;  // would break symmetry, but row and column 2 are skipped
  EXPECT_EQ(check(m, skip.data(), nullptr, 5), 0) << firstError();
  EXPECT_EQ(liveBlocks(), 0);
}

TEST_F(VerifySym, AsymmetryAndMissingMirrors) {
  Sym m;
  m.value[4] = -2.0000001;  // (2,1) against (1,2) = -2
  EXPECT_EQ(check(m), IPM_STATUS_FAILED);
  EXPECT_TRUE(logged("Error VerifySymMatrix: not symmetric matValue("));
  EXPECT_EQ(errors(), 1) << "each pair is reported once";
  m.value[4] = -2.0;
  m.index[1] = 2;  // column 0 now holds (2,0), whose mirror (0,2) is absent
  m.value[1] = 1e-3;
  verifytest::clear();
  EXPECT_EQ(check(m), IPM_STATUS_FAILED);
  EXPECT_TRUE(logged("Error VerifySymMatrix: not symmetric at element col=0 row=2"));
  EXPECT_TRUE(logged("Error VerifySymMatrix: not symmetric at element col=1 row=0"));
  EXPECT_EQ(liveBlocks(), 0);
}

TEST_F(VerifySym, ShapeCountsAndValues) {
  Sym m;
  m.index[3] = 0;  // column 1 holds row 0 twice
  EXPECT_EQ(check(m), IPM_STATUS_FAILED);
  EXPECT_TRUE(logged("Error VerifySymMatrix: in column 1, rowIndex(2)=rowIndex(3)=0"));
  m = Sym();
  m.index[6] = 3;
  verifytest::clear();
  EXPECT_EQ(check(m), IPM_STATUS_FAILED);
  EXPECT_TRUE(logged("Error VerifySymMatrix: in column 2, rowIndex(6)=3 should between (0, 3)"));
  m = Sym();
  verifytest::clear();
  EXPECT_EQ(check(m, nullptr, nullptr, 6), IPM_STATUS_FAILED);
  EXPECT_TRUE(logged("Error VerifySymMatrix: numCoef=6 <> actual=7"));
  EXPECT_TRUE(logged("Error VerifySymMatrix: numCoef=6 <> colBegin(3)=7"));
  m.value[4] = m.value[5] = 1e20;  // off the diagonal
  m.value[6] = std::numeric_limits<double>::quiet_NaN();
  m.value[1] = m.value[2] = 1e-17;
  verifytest::clear();
  EXPECT_EQ(check(m), IPM_STATUS_FAILED);
  EXPECT_TRUE(logged("Error VerifySymMatrix: invalid matrix component matValue(2,1)=1e+20"));
  EXPECT_TRUE(logged("Error VerifySymMatrix: invalid matrix component matValue(2,2)=nan"));
  EXPECT_TRUE(logged("Error VerifySymMatrix: invalid matrix component matValue(1,0)=1e-17"));
  EXPECT_FALSE(logged("matValue(1,1)"));  // the explicit zero on the diagonal is a place
  m = Sym();
  m.value[3] = 1e-30;  // diagonals as small and as large as the iteration makes them
  m.value[0] = 1e25;
  verifytest::clear();
  EXPECT_EQ(check(m), 0) << firstError();
  EXPECT_EQ(liveBlocks(), 0);
}

TEST_F(VerifySym, VectorElements) {
  std::vector<double> v{0.0, 1e-16, -3.0, 9.9e19};
  EXPECT_EQ(VerifyVector(&env, 0, 4, v.data()), 0);
  EXPECT_EQ(VerifyVector(&env, 1, 4, v.data()), 0) << firstError();
  v.push_back(1e20);
  v.push_back(-1e-17);
  v.push_back(std::numeric_limits<double>::quiet_NaN());
  EXPECT_EQ(VerifyVector(&env, 1, 7, v.data()), IPM_STATUS_FAILED);
  EXPECT_TRUE(logged("Error VerifyVector: invalid vector element vector(4)=1e+20"));
  EXPECT_TRUE(logged("Error VerifyVector: invalid vector element vector(5)=-1e-17"));
  EXPECT_TRUE(logged("Error VerifyVector: invalid vector element vector(6)=nan"));
  EXPECT_EQ(errors(), 3);
}

}  // namespace
