// The presolver's working copies held against each other, and the record
// that a disabled presolve must leave untouched.
#include <gtest/gtest.h>

#include <vector>

#include "support/support.h"
#include "unit/verify/verify_support.h"
#include "verify/verify_presolve.h"

namespace {

using verifytest::errors;
using verifytest::firstError;
using verifytest::lines;
using verifytest::logged;

// [ 2 1 0 ]
// [ 1 0 3 ]   symmetric, column-wise with a gap, row-wise packed.
// [ 0 3 5 ]
struct Copies {
  std::vector<int32_t> colBegin{0, 3, 5}, colLength{2, 2, 2}, rowIndex{0, 1, -7, 0, 2, 1, 2};
  std::vector<double> matValue{2, 1, 0, 1, 3, 3, 5};
  std::vector<int32_t> rowBegin{0, 2, 4, 6}, rowLength{2, 2, 2}, colIndex{0, 1, 0, 2, 1, 2};
  std::vector<double> rowValue{2, 1, 1, 3, 3, 5};
};

class VerifyCopies : public HostTest {
 protected:
  VerifyCopies() {
    env.textLog = hxtest::captureText;
    verifytest::clear();
  }
  int32_t rows(Copies& c, int32_t numCoef = 6, const int32_t* colSkip = nullptr,
               const int32_t* rowSkip = nullptr) {
    return ipmVerifyRowMatrix(&env, 1, 3, 3, numCoef, colSkip, rowSkip, c.colBegin.data(),
                              c.colLength.data(), c.rowIndex.data(), c.matValue.data(),
                              c.rowBegin.data(), c.rowLength.data(), c.colIndex.data(),
                              c.rowValue.data());
  }
  int32_t sym(Copies& c, int32_t numCoef = 6, const int32_t* colSkip = nullptr,
              const int32_t* rowSkip = nullptr) {
    return VerifySymMatrixFormat(&env, 1, 3, numCoef, colSkip, rowSkip, c.colBegin.data(),
                                 c.colLength.data(), c.rowIndex.data(), c.matValue.data(),
                                 c.rowBegin.data(), c.rowLength.data(), c.colIndex.data(),
                                 c.rowValue.data());
  }
};

TEST_F(VerifyCopies, MatchingCopiesPass) {
  Copies c;
  EXPECT_EQ(ipmVerifyRowMatrix(&env, 0, 3, 3, 99, nullptr, nullptr, nullptr, nullptr, nullptr,
                               nullptr, nullptr, nullptr, nullptr, nullptr),
            0);
  EXPECT_EQ(rows(c), 0) << firstError();
  EXPECT_EQ(sym(c), 0) << firstError();
  // Index 1 removed as row and column: what is left still matches, even
  // with row 1 of the row-wise copy spoiled.
  std::vector<int32_t> skip{0, -2, 1};
  c.rowValue[2] = 42.0;
  EXPECT_EQ(rows(c, 2, skip.data(), skip.data()), 0) << firstError();
  EXPECT_EQ(sym(c, 2, skip.data(), skip.data()), 0) << firstError();
  EXPECT_EQ(liveBlocks(), 0);
}

TEST_F(VerifyCopies, DifferencesBetweenTheCopiesAreReported) {
  Copies c;
  c.rowValue[3] = 3.5;  // (1,2) by rows
  EXPECT_EQ(rows(c), IPM_STATUS_FAILED);
  EXPECT_TRUE(logged("Error VerifyRowMatrix: matValue(5)="));
  EXPECT_TRUE(logged("<> matValue2("));
  EXPECT_EQ(errors(), 1);
  verifytest::clear();
  EXPECT_EQ(sym(c), IPM_STATUS_FAILED);
  EXPECT_TRUE(logged("Error VerifySymMatrixFormat: matValue(4)="));

  Copies d;
  d.rowLength[2] = 1;  // row 2 loses (2,2)
  verifytest::clear();
  EXPECT_EQ(rows(d), IPM_STATUS_FAILED);
  EXPECT_TRUE(logged("Error VerifyRowMatrix: numCoef2=5 should be 6"));
  EXPECT_TRUE(logged("Error VerifyRowMatrix: colLength(2)=2 should be 1"));
  verifytest::clear();
  EXPECT_EQ(sym(d), IPM_STATUS_FAILED);
  EXPECT_TRUE(logged("Error VerifySymMatrixFormat: length(2) row-major=1 column-major=2"));
  EXPECT_TRUE(logged("Error VerifySymMatrixFormat: nonzero count row-major=5 column-major=6"));

  Copies e;
  e.colIndex[5] = 0;  // row 2 names column 0, which has no row 2
  verifytest::clear();
  EXPECT_EQ(rows(e), IPM_STATUS_FAILED);
  EXPECT_TRUE(logged("Error VerifyRowMatrix: miss row(2) in column(0)"));
  verifytest::clear();
  EXPECT_EQ(sym(e), IPM_STATUS_FAILED);
  EXPECT_TRUE(logged("Error VerifySymMatrixFormat: missing col 0 in row 2"));

  Copies f;
  f.rowIndex[1] = 0;  // column 0 holds row 0 twice
  verifytest::clear();
  EXPECT_EQ(rows(f), IPM_STATUS_FAILED);
  EXPECT_TRUE(logged("Error VerifyRowMatrix: duplicate rowIndex(0)=rowIndex(1)=0 in column(0)"));

  std::vector<int32_t> colSkip{0, -1, 1}, rowSkip{0, 1, 2};
  verifytest::clear();
  EXPECT_EQ(sym(f, 6, colSkip.data(), rowSkip.data()), IPM_STATUS_FAILED);
  EXPECT_TRUE(logged("Error VerifySymMatrixFormat: colMap(1)=-1 and rowMap(1)=1 don't match"));
  EXPECT_EQ(liveBlocks(), 0);
}

TEST_F(VerifyCopies, DisabledPresolveLeavesTheRecordBlank) {
  presolver pre{};
  pre.preControl = PRECONTROL_NONE;
  EXPECT_EQ(VerifyPresolveDisabled(&env, 1, &pre, 3, 3), 0) << firstError();
  pre.preRoute = PREROUTE_FREE_COLS;
  EXPECT_EQ(VerifyPresolveDisabled(&env, 1, &pre, 3, 3), 0) << firstError();
  int32_t map[3] = {0, 1, 2};
  pre.preControl = PRECONTROL_REDUCED;
  pre.preRoute = PREROUTE_KNOWN;
  pre.numRemovedElement = 4;
  pre.numPass = 2;
  pre.colMap = map;
  verifytest::clear();
  EXPECT_EQ(VerifyPresolveDisabled(&env, 1, &pre, 3, 3), IPM_STATUS_FAILED);
  EXPECT_TRUE(logged("Error VerifyPresolveDisabled: presolver->preControl=3"));
  EXPECT_TRUE(logged("Error VerifyPresolveDisabled: presolver->preRoute=2"));
  EXPECT_TRUE(logged("    numRemovedElement = 4"));
  EXPECT_TRUE(logged("Error VerifyPresolveDisabled: presolver->numPass=2"));
  EXPECT_TRUE(logged("Error VerifyPresolveDisabled: presolver structure should not be defined"));
}

}  // namespace
