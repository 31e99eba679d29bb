// The command's LP road: the LPRecord it builds, its option parsing, and a
// real solve of a file's LP through the LP entry with the real bramlet at
// every presolve level.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "lprecord.h"
#include "mps.h"
#include "options.h"
#include "qprecord.h"
#include "records/lpdriver.h"
#include "records/model.h"
#include "records/qpdriver.h"
#include "support/support.h"

using hxcli::LPModel;
using hxcli::MpsFormat;
using hxcli::MpsProblem;
using hxcli::SolveOptions;

namespace {

MpsProblem parse(const std::string& text) {
  MpsProblem p;
  hxcli::MpsError e;
  EXPECT_TRUE(hxcli::parseMps(text, "t.mps", MpsFormat::Free, &p, &e)) << e.message();
  return p;
}

// min -x - 2y + z  with  x + y <= 4,  -1 <= x - y <= 2 (a range),  z = 1,
// x + z >= 0.5 (slack at the optimum), a free row, and y <= 3.  The optimum
// is x = 1.5, y = 2.5, z = 1, objective -5.5 plus the constant 0.25.
const char* const kLp =
    "NAME SMALLLP\n"
    "ROWS\n N COST\n L CAP\n G DIFF\n N SPARE\n E FIX\n G LOOSE\n"
    "COLUMNS\n"
    " X COST -1 CAP 1\n X DIFF 1 SPARE 3\n X LOOSE 1\n"
    " Y COST -2 CAP 1\n Y DIFF -1\n"
    " Z COST 1 FIX 1\n Z LOOSE 1\n"
    "RHS\n COST -0.25 CAP 4\n DIFF -1 FIX 1\n LOOSE 0.5\n"
    "RANGES\n DIFF 3\n"
    "BOUNDS\n UP B Y 3\n"
    "ENDATA\n";
const double kOptimum = -5.25;

TEST(CliLpRecord, QuadraticProblemsAndEmptyOnesAreHandledApart) {
  MpsProblem qp = parse(
      "NAME Q\nROWS\n N OBJ\n G C\nCOLUMNS\n X OBJ 1 C 1\nRHS\n C 1\n"
      "QUADOBJ\n X X 2\nENDATA\n");
  LPModel m;
  std::string why;
  EXPECT_FALSE(hxcli::buildLPRecord(qp, &m, &why));
  EXPECT_NE(why.find("quadratic"), std::string::npos) << why;

  // No rows and no entries: every array is still there to be read.
  MpsProblem empty = parse("NAME E\nROWS\n N OBJ\nCOLUMNS\n X OBJ 1\nENDATA\n");
  LPModel e;
  ASSERT_TRUE(hxcli::buildLPRecord(empty, &e, &why)) << why;
  EXPECT_EQ(e.record.numRow, 0);
  EXPECT_EQ(e.record.numCoef, 0);
  for (const void* a : {(const void*)e.record.rowSense, (const void*)e.record.rowIndex,
                        (const void*)e.record.colLength, (const void*)e.record.reducedCost})
    EXPECT_NE(a, nullptr);
  EXPECT_EQ(e.record.colLength[0], 0);
}

// What a sibling may hand back beyond the solver's own codes is a failure.
TEST(CliLpOptions, SiblingCodesBeyondTheSolversAreFailures) {
  EXPECT_EQ(hostReturnCode(-1), QP_RETURN_FAILURE);
  EXPECT_EQ(hostReturnCode(0), QP_RETURN_FAILURE);
}

// ---- option parsing ------------------------------------------------------------------

bool parseArgs(std::vector<const char*> args, SolveOptions* o, std::string* error) {
  args.insert(args.begin(), {"halvex", "solve"});
  return hxcli::parseSolveArgs((int)args.size(), args.data(), 2, o, error);
}

TEST(CliOptions, PresolveTakesOnOffAndTheLevels) {
  struct Case {
    const char* value;
    int level;
  };
  const Case good[] = {{"on", -1}, {"off", 0}, {"-1", -1}, {"3", 3}};
  for (const Case& c : good) {
    SolveOptions o;
    std::string error;
    ASSERT_TRUE(parseArgs({"f.mps", "--presolve", c.value}, &o, &error)) << c.value << error;
    EXPECT_EQ(o.presolve, c.level) << c.value;
  }
  for (const char* bad : {"4", "-2", "yes", "", "1.5", "2x"}) {
    SolveOptions o;
    std::string error;
    EXPECT_FALSE(parseArgs({"f.mps", "--presolve", bad}, &o, &error)) << bad;
    EXPECT_NE(error.find("--presolve is on, off or a level from -1 to 3"), std::string::npos)
        << error;
  }
  SolveOptions unset;
  std::string error;
  ASSERT_TRUE(parseArgs({"f.mps"}, &unset, &error));
  EXPECT_EQ(unset.presolve, hxcli::kPresolveUnset);
  EXPECT_FALSE(unset.lpAsQp);
}

TEST(CliOptions, LpAsQpIsAFlagAndCrossoverTakesItsValueAfterAnEqualsSign) {
  SolveOptions o;
  std::string error;
  ASSERT_TRUE(parseArgs({"--lp-as-qp", "f.mps", "--tol", "1e-8"}, &o, &error)) << error;
  EXPECT_TRUE(o.lpAsQp);
  EXPECT_EQ(o.file, "f.mps");  // the flag took no value away
  EXPECT_DOUBLE_EQ(o.gapTol, 1e-8);
  EXPECT_TRUE(o.crossover);  // an LP crosses over unless told otherwise

  SolveOptions withValue;
  EXPECT_FALSE(parseArgs({"f.mps", "--lp-as-qp=1"}, &withValue, &error));
  EXPECT_NE(error.find("takes no value"), std::string::npos) << error;

  // What on and off do, and their errors, are the command script's cases.
  SolveOptions off;
  ASSERT_TRUE(parseArgs({"f.mps", "--crossover=off", "--write-basis", "b.bas"}, &off, &error));
  EXPECT_FALSE(off.crossover);
  EXPECT_EQ(off.basisFile, "b.bas");
}

TEST(CliOptions, ValuesAndTheirErrors) {
  SolveOptions o;
  std::string error;
  ASSERT_TRUE(parseArgs({"--format=fixed", "f.mps", "--max-iter", "30", "--time-limit", "2.5",
                         "--timer", "real", "--threads", "2", "--print-level", "1",
                         "--json", "o.json", "--primal-tol", "1e-7"},
                        &o, &error))
      << error;
  EXPECT_EQ(o.format, MpsFormat::Fixed);
  EXPECT_EQ(o.maxIteration, 30);
  EXPECT_DOUBLE_EQ(o.maxTime, 2.5);
  EXPECT_EQ(o.timerType, 1);
  EXPECT_EQ(o.threads, 2);
  EXPECT_EQ(o.printLevel, 1);
  EXPECT_EQ(o.jsonFile, "o.json");
  EXPECT_DOUBLE_EQ(o.primalTol, 1e-7);
  EXPECT_LT(o.dualTol, 0);  // untouched: the module's default stands

  const std::vector<std::vector<const char*>> bad = {
      // The command's exit-code script covers a missing file, unknown
      // options, missing values, and bad threads and print levels.
      {"a.mps", "b.mps"},
      {"f.mps", "--tol", "-1"},
      {"f.mps", "--timer", "wall"}};
  for (const auto& args : bad) {
    SolveOptions b;
    error.clear();
    EXPECT_FALSE(parseArgs(args, &b, &error)) << args.back();
    EXPECT_FALSE(error.empty());
  }
}

// ---- a real solve ------------------------------------------------------------------

class CliLpSolve : public HostTest {};

TEST_F(CliLpSolve, FileLpThroughTheLpEntryAtEveryLevel) {
  MpsProblem p = parse(kLp);
  LPModel m;
  std::string why;
  ASSERT_TRUE(hxcli::buildLPRecord(p, &m, &why)) << why;

  for (int level = -1; level <= 3; ++level) {
    hxcli::resetLPRecord(&m);
    LPOptions options;
    setLpOptionDefaults(&options);
    options.presolver = level;
    options.printLevel = 0;
    options.primalTol = options.dualTol = options.gapTol = 1e-9;
    LPContext ctx = hxcli::makeLpContext(pool, nullptr, nullptr);
    ASSERT_EQ(iplpmain(&ctx, &m.record, &options), 0) << "level " << level;
    EXPECT_EQ(hostReturnCode(m.record.status), QP_RETURN_OPTIMAL) << "level " << level;
    EXPECT_NEAR(m.record.objConstant, kOptimum, 1e-7) << "level " << level;
    // The point lands in the QP form's arrays, which the writers read.
    EXPECT_NEAR(m.qp.record.solPrimal[0], 1.5, 1e-6) << "level " << level;
    EXPECT_NEAR(m.qp.record.solPrimal[1], 2.5, 1e-6) << "level " << level;
    EXPECT_NEAR(m.qp.record.solPrimal[2], 1.0, 1e-6) << "level " << level;
    EXPECT_NEAR(m.qp.record.rowActivity[1], -1.0, 1e-6) << "level " << level;  // DIFF at its low end
    EXPECT_NEAR(m.record.reducedCost[0], 0.0, 1e-6) << "level " << level;
    EXPECT_EQ(ctx.env.preModule, nullptr);
    EXPECT_EQ(liveBlocks(), 0) << "level " << level;
  }
}

}  // namespace
