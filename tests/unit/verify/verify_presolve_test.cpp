// The presolver's working copies held against each other, its books and its
// reduced model, the record that a disabled presolve must leave untouched,
// and the sub-model of the starting point with its maps.
#include "verify/verify_presolve.h"

#include <gtest/gtest.h>

#include <functional>
#include <vector>

#include "ipm/submodel.h"
#include "support/ipm_support.h"
#include "support/presolve_support.h"
#include "unit/verify/verify_support.h"
#include "verify/verify.h"

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

class VerifyCopies : public verifytest::LoggedTest {
 protected:
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

// x0..x3 in [0, 5], x3 fixed at 2.  Row 1 is a singleton that lowers the
// upper bound of x1 to 3, row 2 is free, rows 0 and 3 stay.
pretest::Problem booksLP() {
  return pretest::lp({{1, 1, 1, 0}, {0, 2, 0, 0}, {1, 0, 0, 1}, {0, 1, 1, -1}}, "LLNG",
                     {10, 6, 0, 1}, {1, -1, 2, 0}, {0, 0, 0, 2}, {5, 5, 5, 2});
}

TEST_F(VerifyCopies, PresolverBooks) {
  const struct {
    std::function<void(presolver&)> spoil;
    const char* text;
  } cases[] = {
      {[](presolver&) {}, nullptr},
      {[](presolver& p) { p.rowDone[0] = 0; }, "row 0 is not processed"},
      {[](presolver& p) { p.numRemovedCol++; }, "removed column = 1 should be 2"},
      {[](presolver& p) { p.numRemovedElement--; }, "by row removed element = 4 should be 3"},
      {[](presolver& p) { p.lowerBound[0] = -1; }, "column 0 reduced lb="},
      {[](presolver& p) { p.colMap[0] = COLMAP_FIXED; }, "column 0 is not fixed but marked as so."},
      {[](presolver& p) { p.rowMap[1] = ROWMAP_LOWER; },
       "row 1 is ROWMAP_LOWER, but defined upper bound of 1"},
      {[](presolver& p) { p.ubMap[0] = 1; }, "row ubMap(0)=1 doesn't contain that column"},
      {[](presolver& p) { p.upperBound[2] = 4; }, "ubMap(2)=-1, but upper bound has changed"},
      {[](presolver& p) { p.rowMap[0] = ROWMAP_EMPTY; },
       "row 0 is ROWMAP_EMPTY, but not an empty row"},
      {[](presolver& p) { p.colLength[0]++; }, "column 0 should not appear in row 2"},
  };
  for (const auto& c : cases) {
    pretest::Problem lp = booksLP();
    ipmModel* m = lp.build();
    ipmOption option = pretest::defaultOption();
    presolver& pre = *poolNew<presolver>(pool, 1);
    ASSERT_EQ(CreatePresolver(&env, m, &option, &pre), 0);
    ASSERT_EQ(removeFreeRow(&env, m, &pre), 0);
    ASSERT_EQ(ipmPreLoop(&env, m, &option, &pre), 0);
    setMapping(&env, m, &pre);
    pre.preControl = PRECONTROL_REDUCED;
    ASSERT_EQ(pre.rowMap[1], ROWMAP_UPPER);
    c.spoil(pre);
    verifytest::clear();
    EXPECT_EQ(VerifyPresolveStructure(&env, 0, m, &option, &pre), 0);
    EXPECT_TRUE(lines().empty());
    const int32_t status = VerifyPresolveStructure(&env, 1, m, &option, &pre);
    if (c.text) {
      EXPECT_EQ(status, IPM_STATUS_FAILED) << c.text;
      EXPECT_TRUE(logged(std::string("Error VerifyPresolveStructure: ") + c.text)) << firstError();
    } else {
      EXPECT_EQ(status, 0) << firstError();
      EXPECT_TRUE(logged("presolver control = REDUCED"));
    }
    DestroyPresolver(&env, m, &pre);
  }
  EXPECT_EQ(liveBlocks(), 0);
}

TEST_F(VerifyCopies, ReducedModelStandsForTheCallers) {
  const struct {
    std::function<void(ipmModel&)> spoil;
    const char* text;
  } cases[] = {
      {[](ipmModel&) {}, nullptr},
      {[](ipmModel& r) { r.rhs[1] += 0.5; }, "Error VerifyPresolveValue: residual inRow(3)="},
      {[](ipmModel& r) { r.obj[0] += 1; }, "Error VerifyPresolveValue: inObjValue="},
      {[](ipmModel& r) { r.lower[1] = r.upper[1] = 4; },
       "Error VerifyPresolveValue: L row 1 residual ="},
      {[](ipmModel& r) { r.lower[0] = r.upper[0] = 7; },
       "Error VerifyPresolveValue: column 0 sol="},
  };
  for (const auto& c : cases) {
    // A QP whose fixed column is coupled to x2: its cross term moves into
    // the cost of x2, which the objective test must see through.
    pretest::Problem lp = c.text ? booksLP() : pretest::qp(booksLP(), {1, 0, 2, 1}, {{2, 3, 0.5}});
    pretest::Round round(&env);
    // The presolve itself runs both checks on its way and must stay silent.
    round.option.verifyLevel = 3;
    verifytest::clear();
    ASSERT_EQ(round.presolve(lp.build()), 0) << firstError();
    ASSERT_EQ(round.pre->preControl, PRECONTROL_REDUCED);
    EXPECT_TRUE(logged("running debug code......"));
    c.spoil(*round.current);
    verifytest::clear();
    const int32_t status =
        VerifyPresolveValue(&env, 3, round.current, round.pre->inModel, round.pre);
    EXPECT_EQ(status, c.text ? IPM_STATUS_FAILED : 0) << firstError();
    if (c.text) {
      EXPECT_TRUE(logged(c.text)) << c.text << " / " << firstError();
    }
    EXPECT_EQ(VerifyPresolveValue(&env, 2, round.current, round.pre->inModel, round.pre), 0);
  }
  EXPECT_EQ(VerifyPresolveValue(&env, 9, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(liveBlocks(), 0);
}

TEST_F(VerifyCopies, SubModelAndItsMaps) {
  // Row 1 has a big right side, column 1 a big cost, column 2 a big bound.
  ipmtest::Problem p({{1, 1, 0}, {1, 0, 2}, {0, 1, 1}}, "LLE", {4, 1e9, 2}, {1, 1e9, 0}, {0, 0, 0},
                     {10, 10, 1e5});
  p.link();
  subModel* sub = nullptr;
  ASSERT_EQ(NewSubModel(&env, &p.model, &sub), 0);
  ipmMarkBigdata(&env, &p.model, sub, &p.option);
  ASSERT_EQ(CreateSubModel(&env, &p.model, nullptr, sub), 0);
  ASSERT_EQ(sub->numRhsBigAll * sub->numObjBigAll * sub->numBoundBig, 1);
  const struct {
    std::function<void()> spoil;
    const char* text;
  } cases[] = {
      {[] {}, nullptr},
      {[&] { sub->rhsSub[0] += 1; }, "Error VerifySubmodel: rhsSub(0)="},
      {[&] { sub->objSub[0] = 2; }, "Error VerifySubmodel: objSub(0)="},
      {[&] { sub->rhsMapSub[2] = 0; }, "Error VerifySubmodel: normal row mapping(2)=0 should be 1"},
      {[&] { sub->idxColSub[0] = 0; }, "Error VerifySubmodel: idxColSub(0) = 0 is not marked"},
      {[&] { sub->statusBoundSub[0] = 7; }, "Error VerifySubmodel: unknown statusBoundSub(0) = 7"},
      {[&] { sub->rowMatValueSub[0] *= 2; }, "Error VerifySubmodel: row activity sub(0)="},
      {[&] { sub->matValueSub[0] *= 2; }, "Error VerifySubmodel: column activity sub(0)="},
      {[&] { sub->numCol = 4; }, "Error VerifySubmodel: submodel->numCol=4 <> model->numCol=3"},
  };
  for (const auto& c : cases) {
    // Each case spoils a copy of the record's scalars and arrays' first cells.
    const subModel saved = *sub;
    const double rhs0 = sub->rhsSub[0], obj0 = sub->objSub[0], row0 = sub->rowMatValueSub[0],
                 col0 = sub->matValueSub[0];
    const int32_t map2 = sub->rhsMapSub[2], idx0 = sub->idxColSub[0], st0 = sub->statusBoundSub[0];
    c.spoil();
    verifytest::clear();
    EXPECT_EQ(VerifySubmodel(&env, 0, &p.model, sub), 0);
    EXPECT_TRUE(lines().empty());
    EXPECT_EQ(VerifySubmodel(&env, 1, &p.model, sub), c.text ? IPM_STATUS_FAILED : 0)
        << firstError();
    if (c.text) {
      EXPECT_TRUE(logged(c.text)) << c.text << " / " << firstError();
    } else {
      EXPECT_TRUE(logged("    markBigBound(2)  lb=")) << firstError();
    }
    *sub = saved;
    sub->rhsSub[0] = rhs0, sub->objSub[0] = obj0, sub->rowMatValueSub[0] = row0;
    sub->matValueSub[0] = col0, sub->rhsMapSub[2] = map2, sub->idxColSub[0] = idx0;
    sub->statusBoundSub[0] = st0;
  }

  // A map compacted to the rows the model still has: the -2 is a row
  // skipped outright, which drops out.
  subModel s{};
  std::vector<int32_t> subMap{0, -1, 1, -2, 2}, map{0, -1, 1, 2};
  s.numRow = s.numCol = 5;
  s.rhsMapSub = s.objMapSub = subMap.data();
  s.numRhsBigAll = s.numObjBigAll = 1;
  s.numRhsBigIneqn = s.numObjBigBounded = 1;
  verifytest::clear();
  EXPECT_EQ(VerifyInitRowMap(&env, 1, &s, map.data(), 4), 0) << firstError();
  EXPECT_EQ(VerifyInitColMap(&env, 1, &s, map.data(), 4), 0) << firstError();
  map[2] = 5;
  EXPECT_EQ(VerifyInitRowMap(&env, 1, &s, map.data(), 3), IPM_STATUS_FAILED);
  EXPECT_TRUE(logged("Error VerifyInitRowMap: rowMap(2)=5  rhsMapSub(2)=1"));
  EXPECT_TRUE(logged("Error VerifyInitRowMap: pos=4  numRow=3"));
  subMap[2] = 3;
  s.numObjBigBounded = 0;
  EXPECT_EQ(VerifyInitColMap(&env, 1, &s, map.data(), 4), IPM_STATUS_FAILED);
  EXPECT_TRUE(logged("Error VerifyInitColMap: pos=1  skip=1  i=2"));
  EXPECT_TRUE(logged("Error VerifyInitColMap: counter=1  numObjBigBounded=0"));
  s.numRhsBigAll = 0;
  EXPECT_EQ(VerifyInitRowMap(&env, 1, &s, map.data(), 4), IPM_STATUS_FAILED);
  EXPECT_TRUE(logged("Error VerifyInitRowMap: numRhsBigAll=0  control should not come here"));
  FreeSubModel(&env, sub);
  EXPECT_EQ(liveBlocks(), 0);
}

}  // namespace
