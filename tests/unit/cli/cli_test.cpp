// The command's record builder and writers: what the solver is handed, and
// what a user gets back in the solution and JSON files.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>

#include "mps.h"
#include "output.h"
#include "qprecord.h"
#include "solve.h"
#include "support/message_log.h"

using hxcli::MpsFormat;
using hxcli::MpsProblem;
using hxcli::QPModel;
using Ints = std::vector<int32_t>;
using Reals = std::vector<double>;
using hxcli::kInfinity;

namespace {

MpsProblem parse(const std::string& text) {
  MpsProblem p;
  hxcli::MpsError e;
  EXPECT_TRUE(hxcli::parseMps(text, "t.mps", MpsFormat::Free, &p, &e)) << e.message();
  return p;
}

// Six constraint rows of every kind and a free row between them.
const char* const kRows =
    "NAME ROWS6\n"
    "ROWS\n N OBJ\n E EQ\n E EQNEG\n N FREE\n G GE\n G GEZERO\n L LE\n L LERANGE\n"
    "COLUMNS\n"
    " X OBJ 1 EQ 1\n X FREE 5 GE 2\n X LERANGE 3\n"
    " Y EQNEG 1 FREE 6\n Y GEZERO 1 LE 4\n"
    "RHS\n OBJ 2.5 EQ 1\n EQNEG 4 GE 2\n GEZERO 3 LE 5\n LERANGE 9\n"
    "RANGES\n EQNEG -1.5 GEZERO 0\n LERANGE 2\n"
    "BOUNDS\n UP B X 7\n FR B Y\n"
    "ENDATA\n";

// The record states the parser's problem: the interval of every row but the
// free ones (a range row from its lower end over its width), the matrix
// without the free rows, renumbered, 0-based and column-wise, the bounds
// with 1e+20 for none, Q as diagonal and strict lower triangle.  No array
// the solver reads is null, and the column arrays have room for one slack
// per range row, the spare starts continuing the last column.
void expectRecordOf(const MpsProblem& p, const QPModel& m) {
  const QPRecord& r = m.record;
  ASSERT_EQ(r.numCol, p.numCol());
  EXPECT_EQ(r.objSense, p.objSense);
  EXPECT_EQ(r.objConstant, p.objConstant);
  std::vector<int> at(p.numRow(), -1);
  int ranges = 0;
  for (int k = 0; k < r.numRow; ++k) {
    const int i = k, row = m.recordRow[k];
    at[row] = i;
    const char sense = r.rowSense[i];
    ranges += sense == 'R';
    EXPECT_EQ(sense == 'L' ? -kInfinity : r.rhs[i], p.rowLower[row]) << p.rowNames[row];
    EXPECT_EQ(sense == 'G' ? kInfinity : r.rhs[i] + (sense == 'R' ? r.range[i] : 0.0),
              p.rowUpper[row])
        << p.rowNames[row];
  }
  EXPECT_EQ(m.numRange, ranges);
  EXPECT_EQ(r.numRow + (int)m.freeRows.size(), p.numRow());
  for (int i : m.freeRows) EXPECT_EQ(p.rowSense[i], 'N');
  int k = 0;
  for (int j = 0; j < r.numCol; ++j) {
    EXPECT_EQ(r.colBegin[j], k);
    EXPECT_EQ((Reals{r.obj[j], r.lower[j], r.upper[j], r.quadDiag[j]}),
              (Reals{p.obj[j], p.colLower[j], p.colUpper[j], p.isQP() ? p.quadDiag[j] : 0.0}));
    for (int q = p.colBegin[j]; q < p.colBegin[j + 1]; ++q)
      if (at[p.rowIndex[q]] >= 0) {
        EXPECT_EQ(r.rowIndex[k], at[p.rowIndex[q]]);
        EXPECT_EQ(r.matValue[k++], p.value[q]);
      }
  }
  EXPECT_EQ(r.numCoef, k);
  for (int j = r.numCol; j <= r.numCol + ranges; ++j) EXPECT_EQ(m.colBegin[j], k) << j;
  EXPECT_GE(std::min({m.obj.size(), m.lower.size(), m.upper.size(), m.solPrimal.size(),
                      m.quadDiag.size()}),
            size_t(r.numCol + ranges));
  EXPECT_GE(std::min(m.rowIndex.size(), m.matValue.size()), size_t(k + ranges));
  EXPECT_EQ(r.numQuadCoef, p.numQuadCoef());
  if (p.isQP()) {
    EXPECT_EQ(Ints(r.quadRowIndex, r.quadRowIndex + r.numQuadCoef), p.quadRowIndex);
    EXPECT_EQ(Reals(r.quadMatValue, r.quadMatValue + r.numQuadCoef), p.quadValue);
  }
  for (int j = 0; j <= r.numCol + ranges; ++j)
    EXPECT_EQ(r.quadColBegin[j], p.isQP() && j <= r.numCol ? p.quadColBegin[j] : r.numQuadCoef);
  for (const void* a : {(const void*)r.matValue, (const void*)r.rowIndex, (const void*)r.colBegin,
                        (const void*)r.quadDiag, (const void*)r.quadMatValue,
                        (const void*)r.quadRowIndex, (const void*)r.quadColBegin,
                        (const void*)r.obj, (const void*)r.rhs, (const void*)r.range,
                        (const void*)r.lower, (const void*)r.upper, (const void*)r.rowSense,
                        (const void*)r.solPrimal, (const void*)r.solDual,
                        (const void*)r.rowActivity})
    EXPECT_NE(a, nullptr);
}

TEST(CliRecord, StatesTheParsersProblem) {
  const char* const files[] = {
      kRows,
      // Q given from both sides of the diagonal, and a range row.
      "NAME Q\nOBJSENSE MAX\nROWS\n N OBJ\n L R\n L S\nCOLUMNS\n X R 1\n Y R 1\n Z S 1\n"
      "RHS\n R 1 OBJ -3\nRANGES\n R 1\nQUADOBJ\n X X 2\n Z X 0.5\n Y Z -1\n Z Z 3\nENDATA\n",
      "NAME E\nROWS\n N OBJ\nCOLUMNS\nENDATA\n"};
  for (const char* text : files) {
    SCOPED_TRACE(text);
    MpsProblem p = parse(text);
    QPModel m;
    std::string why;
    ASSERT_TRUE(hxcli::buildQPRecord(p, &m, &why)) << why;
    expectRecordOf(p, m);
    // A range of 0 makes an equation; any other range a range row.
    if (text == kRows) {
      EXPECT_EQ(std::string(m.record.rowSense, 6), "ERGELR");
    }
  }
}

TEST(CliRecord, RangesOfInfiniteWidthKeepTheirNearEnd) {
  // G with a range of 1e20 is a plain G row; a G row written 1e20 below its
  // real upper end is an L row at that end.  Neither may become a range row,
  // whose slack would run over an infinite width and lose the end.
  MpsProblem p = parse(
      "NAME WIDE\nROWS\n N OBJ\n G WIDEG\n G SHIFTED\n G NARROW\n"
      "COLUMNS\n X OBJ 1 WIDEG 1\n X SHIFTED 1 NARROW 1\n"
      "RHS\n RHS WIDEG -9999.5 SHIFTED -9.999999999999995e+19\n RHS NARROW 1\n"
      "RANGES\n RNG WIDEG 1e+20 SHIFTED 1e+20\n RNG NARROW 1e+19\n"
      "ENDATA\n");
  QPModel m;
  std::string why;
  ASSERT_TRUE(hxcli::buildQPRecord(p, &m, &why)) << why;
  const QPRecord& r = m.record;
  ASSERT_EQ(r.numRow, 3);
  EXPECT_EQ(r.rowSense[0], 'G');
  EXPECT_EQ(r.rhs[0], -9999.5);
  EXPECT_EQ(r.rowSense[1], 'L');
  EXPECT_EQ(r.rhs[1], -9.999999999999995e+19 + 1e+20);
  EXPECT_EQ(r.rowSense[2], 'R');  // a finite width stays a range
  EXPECT_EQ(r.range[2], 1e+19);
  EXPECT_EQ(m.numRange, 1);
}

std::string readBack(FILE* f) {
  std::rewind(f);
  std::string text;
  char buf[4096];
  size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) text.append(buf, n);
  std::fclose(f);
  return text;
}

TEST(CliOutput, SolutionFileListsValuesByNameWithFreeRowActivity) {
  MpsProblem p = parse(kRows);
  QPModel m;
  std::string why;
  ASSERT_TRUE(hxcli::buildQPRecord(p, &m, &why));
  QPRecord& r = m.record;
  r.solPrimal[0] = 1.5;
  r.solPrimal[1] = -2;
  for (int k = 0; k < r.numRow; ++k) {
    r.rowActivity[k] = 10 + k;
    r.solDual[k] = 0.25 * k;
  }
  hxcli::SolveSummary s = hxcli::summaryFromRecord(r, 0);
  s.objective = -12.5;
  FILE* f = std::tmpfile();
  ASSERT_NE(f, nullptr);
  ASSERT_TRUE(hxcli::writeSolution(f, p, m, s));
  std::string text = readBack(f);
  // The free row FREE has X 5 and Y 6: 5 * 1.5 + 6 * -2 = -4.5, no dual.
  const std::string expected =
      "NAME ROWS6\nSTATUS optimal\nOBJECTIVE -12.5\n"
      "COLUMNS 2\nX 1.5\nY -2\n"
      "ROWS 7\nEQ 10 0\nEQNEG 11 0.25\nFREE -4.5 0\nGE 12 0.5\nGEZERO 13 0.75\nLE 14 1\n"
      "LERANGE 15 1.25\nEND\n";
  EXPECT_EQ(text, expected);

  // A failure leaves no point to speak of.
  f = std::tmpfile();
  ASSERT_TRUE(hxcli::writeSolution(f, p, m, hxcli::summaryFromRecord(r, 8)));
  text = readBack(f);
  EXPECT_NE(text.find("STATUS failure\nOBJECTIVE none\n"), std::string::npos) << text;
}

TEST(CliOutput, JsonCarriesStatusCodeMeasuresAndTimes) {
  MpsProblem p = parse(kRows);
  p.name = "odd \"name\"\\";
  QPRecord r{};
  r.objValue = 3.25;
  r.iterations = 17;
  r.primalInfeas = 1e-9;
  r.dualInfeas = NAN;
  r.boundInfeas = 0;
  r.dualityGap = 2e-7;
  r.complementarity = INFINITY;
  r.solverTime = 0.5;
  hxcli::SolveSummary s = hxcli::summaryFromRecord(r, 9);
  s.file = "dir/f.mps";
  s.readTime = 0.125;
  FILE* f = std::tmpfile();
  ASSERT_TRUE(hxcli::writeJson(f, p, s));
  std::string text = readBack(f);
  for (const char* part :
       {"\"problem\": \"odd \\\"name\\\"\\\\\"", "\"file\": \"dir/f.mps\"",
        "\"status\": \"acceptable\"", "\"returnCode\": 9", "\"objective\": 3.25",
        "\"iterations\": 17", "\"primalInfeas\": 1.0000000000000001e-09",
        "\"dualInfeas\": null", "\"boundInfeas\": 0", "\"dualityGap\": 1.9999999999999999e-07",
        "\"complementarity\": null", "\"read\": 0.125000", "\"solver\": 0.500000"})
    EXPECT_NE(text.find(part), std::string::npos) << "no " << part << " in\n" << text;

  EXPECT_NE(text.find("\"history\": {\"iteration\": []"), std::string::npos) << text;

  // The history by column; JSON has no NaN.
  s.history = {{0, 4.0, 3.0, 2.0, 1.0, 0.5}, {1, 0.25, NAN, 1e-9, 0.0, 1e-300}};
  f = std::tmpfile();
  ASSERT_TRUE(hxcli::writeJson(f, p, s));
  text = readBack(f);
  for (const char* part :
       {"\"iteration\": [0, 1]", "\"complementarity\": [4.000000e+00, 2.500000e-01]",
        "\"dualityGap\": [3.000000e+00, null]", "\"primalInfeas\": [2.000000e+00, 1.000000e-09]",
        "\"boundInfeas\": [1.000000e+00, 0.000000e+00]",
        "\"dualInfeas\": [5.000000e-01, 1.000000e-300]"})
    EXPECT_NE(text.find(part), std::string::npos) << "no " << part << " in\n" << text;

  f = std::tmpfile();
  ASSERT_TRUE(hxcli::writeJson(f, p, hxcli::summaryFromRecord(r, 2)));
  text = readBack(f);
  EXPECT_NE(text.find("\"status\": \"primal infeasible\""), std::string::npos) << text;
  EXPECT_NE(text.find("\"objective\": null"), std::string::npos) << text;
}

// A point comes back with success and with the two limits only.
TEST(CliOutput, OnlySuccessAndTheLimitsHaveAPoint) {
  for (int c : {0, 9, 2, 3, 23, 5, 10, 99, 8, 1})
    EXPECT_EQ(hxcli::hasPoint(c), c == 0 || c == 9 || c == 5 || c == 10) << c;
}

constexpr int64_t kLine = (int64_t)(int32_t)0x827FD804;
constexpr int64_t kHead = (int64_t)(int32_t)0x827FD802;
constexpr int64_t kStarted = (int64_t)(int32_t)0x827FD801;

void logLine(hxcli::HistoryLog* h, int iteration, double gap) {
  h->slots.log(&h->slots, MSG_TABLE_LINE, kLine, iteration, 1.0, gap, 0.0, 0.0, 0.0);
}

TEST(CliHistory, KeepsEveryIterationAndShowsWhatWasAskedFor) {
  hxtest::RecordingLog inner({kLine & 0xFFFFFFFF});
  hxcli::HistoryLog h(&inner.base, 2);
  h.slots.log(&h.slots, MSG_INFO, kStarted);
  h.slots.log(&h.slots, MSG_TABLE_HEADING, kHead);
  for (int k = 0; k < 4; ++k) logLine(&h, k, 1.0 / (k + 1));
  // An iteration taken back and logged again replaces its row.
  logLine(&h, 3, 0.125);
  h.slots.log(&h.slots, MSG_INFO, kStarted);
  h.flush();
  ASSERT_EQ(h.rows.size(), 4u);
  EXPECT_EQ(h.rows[3].iteration, 3);
  EXPECT_EQ(h.rows[3].dualityGap, 0.125);
  EXPECT_EQ(h.rows[1].dualityGap, 0.5);
  // Every second line, and the last before the table ends, in order.
  const int64_t low = 0xFFFFFFFF;
  EXPECT_EQ(inner.codes, (std::vector<int64_t>{kStarted & low, kHead & low, kLine & low,
                                               kLine & low, kLine & low, kStarted & low}));
  EXPECT_EQ(inner.values, (std::vector<int32_t>{0, 0, 0, 2, 3, 0}));

  // Nothing of the table reaches the host when none was asked for.
  hxtest::RecordingLog quiet;
  hxcli::HistoryLog none(&quiet.base, 0);
  none.slots.log(&none.slots, MSG_TABLE_HEADING, kHead);
  logLine(&none, 0, 1.0);
  none.flush();
  EXPECT_EQ(none.rows.size(), 1u);
  EXPECT_TRUE(quiet.codes.empty());

  // A message whose values were not passed on would read garbage.
  for (int64_t code : hxhost::catalogueCodes())
    EXPECT_TRUE(hxcli::HistoryLog::forwards(hxhost::messageSignature(code)))
        << std::hex << code << " " << hxhost::messageSignature(code);
}

}  // namespace
