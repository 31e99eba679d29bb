// The MPS/QPS reader: every section and bound type in both forms, odd
// names, empty sections, and malformed text that must be refused with the
// right line.
#include <gtest/gtest.h>

#include <string>

#include "mps.h"

using hxcli::kInfinity;
using hxcli::MpsError;
using hxcli::MpsFormat;
using hxcli::MpsProblem;

namespace {

MpsProblem parseOk(const std::string& text, MpsFormat format = MpsFormat::Auto) {
  MpsProblem p;
  MpsError e;
  bool ok = hxcli::parseMps(text, "t.mps", format, &p, &e);
  EXPECT_TRUE(ok) << e.message();
  return p;
}

MpsError parseFail(const std::string& text, MpsFormat format = MpsFormat::Auto) {
  MpsProblem p;
  MpsError e;
  EXPECT_FALSE(hxcli::parseMps(text, "t.mps", format, &p, &e)) << "accepted:\n" << text;
  return e;
}

int rowOf(const MpsProblem& p, const std::string& name) {
  for (int i = 0; i < p.numRow(); ++i)
    if (p.rowNames[i] == name) return i;
  ADD_FAILURE() << "no row " << name;
  return 0;
}

int colOf(const MpsProblem& p, const std::string& name) {
  for (int j = 0; j < p.numCol(); ++j)
    if (p.colNames[j] == name) return j;
  ADD_FAILURE() << "no column " << name;
  return 0;
}

double entry(const MpsProblem& p, const std::string& row, const std::string& col) {
  int i = rowOf(p, row), j = colOf(p, col);
  for (int k = p.colBegin[j]; k < p.colBegin[j + 1]; ++k)
    if (p.rowIndex[k] == i) return p.value[k];
  return 0.0;
}

// Fixed form: fields by column, so that names may hold blanks, and set names
// in RHS, RANGES and BOUNDS.
const char* const kFixed =
    "* comment line\n"
    "NAME          FIXED     a remark after the name\n"
    "ROWS\n"
    " N  COST\n"
    " G  MY ROW\n"
    " L  LE\n"
    "COLUMNS\n"
    "    MY COL    COST               1.0   MY ROW             2.0\n"
    "    X2        MY ROW             1.0   LE                -1.0\n"
    "RHS\n"
    "    RHS       COST              -7.5   MY ROW             4.0\n"
    "    RHS       LE                 6.0\n"
    "RANGES\n"
    "    RNG       MY ROW             3.0\n"
    "BOUNDS\n"
    " UP BND       MY COL            -3.0\n"
    " FR BND       X2\n"
    "ENDATA\n";

// Every section, every row sense with and without a range, every bound type.
const char* const kFree =
    "NAME EVERY\n"
    "ROWS\n"
    " N COST\n E EQ\n E EQPLUS\n E EQMINUS\n G GE\n G GERANGE\n L LE\n L LERANGE\n N SPARE\n"
    "COLUMNS\n"
    " X1 COST 1 EQ 2\n X1 GE 1 SPARE 4\n X2 COST -2.5 EQPLUS 1\n X2 EQMINUS 1\n"
    " X3 GERANGE 1 LE 3\n X4 LERANGE 1 LE -1\n"
    " X5 EQ 1\n X6 EQ 1\n X7 EQ 1\n X8 EQ 1\n X9 EQ 1\n MY_COL EQ 1\n X11 EQ 1\n X12 EQ 1\n"
    " X13 EQ 1\n"
    "RHS\n"
    " COST -7.5 EQ 1\n EQPLUS 2 EQMINUS 3\n GE 4 GERANGE 5\n LE 6 LERANGE 7\n"
    "RANGES\n"
    " RNG EQPLUS 1.5 EQMINUS -1.5\n RNG GERANGE -2 LERANGE 3\n"
    "BOUNDS\n"
    " UP BND X1 4\n LO BND X2 -1\n FX BND X3 2.5\n FR BND X4\n MI BND X5\n PL X6\n BV BND X7\n"
    " LI BND X8 2\n UI BND X9 9\n UP BND MY_COL -3\n LO BND X11 0\n UP BND X11 -1\n"
    " UP BND X12 1e30\n MI X13\n UP X13 5\n"
    "ENDATA\n";

void checkEvery(const MpsProblem& p) {
  EXPECT_EQ(p.name, "EVERY");
  EXPECT_EQ(p.objName, "COST");
  EXPECT_EQ(p.objSense, 1);
  EXPECT_DOUBLE_EQ(p.objConstant, 7.5);
  ASSERT_EQ(p.numRow(), 8);
  ASSERT_EQ(p.numCol(), 13);
  EXPECT_EQ(p.colNames[9], "MY_COL");

  // Rows: senses as given; ends from RHS and RANGES.
  struct RowCase { const char* name; char sense; double lo, up; };
  const RowCase rows[] = {
      {"EQ", 'E', 1, 1},           {"EQPLUS", 'E', 2, 3.5},  {"EQMINUS", 'E', 1.5, 3},
      {"GE", 'G', 4, kInfinity},   {"GERANGE", 'G', 5, 7},   {"LE", 'L', -kInfinity, 6},
      {"LERANGE", 'L', 4, 7},      {"SPARE", 'N', -kInfinity, kInfinity}};
  for (const RowCase& c : rows) {
    int i = rowOf(p, c.name);
    EXPECT_EQ(p.rowSense[i], c.sense) << c.name;
    EXPECT_DOUBLE_EQ(p.rowLower[i], c.lo) << c.name;
    EXPECT_DOUBLE_EQ(p.rowUpper[i], c.up) << c.name;
  }

  EXPECT_DOUBLE_EQ(p.obj[colOf(p, "X1")], 1.0);
  EXPECT_DOUBLE_EQ(p.obj[colOf(p, "X2")], -2.5);
  EXPECT_DOUBLE_EQ(entry(p, "EQ", "X1"), 2.0);
  EXPECT_DOUBLE_EQ(entry(p, "SPARE", "X1"), 4.0);  // free rows keep their entries
  EXPECT_DOUBLE_EQ(entry(p, "LE", "X4"), -1.0);
  EXPECT_EQ(p.numCoef(), 18);

  struct BoundCase { const char* col; double lo, up; bool integer; };
  const BoundCase bounds[] = {
      {"X1", 0, 4, false},           {"X2", -1, kInfinity, false},
      {"X3", 2.5, 2.5, false},       {"X4", -kInfinity, kInfinity, false},
      {"X5", -kInfinity, kInfinity, false}, {"X6", 0, kInfinity, false},
      {"X7", 0, 1, true},            {"X8", 2, kInfinity, true},
      {"X9", 0, 9, true},
      // A negative upper bound on a default lower bound opens it ...
      {"MY_COL", -kInfinity, -3, false},
      // ... but not one that the file set, even to 0.
      {"X11", 0, -1, false},
      {"X12", 0, kInfinity, false},  // 1e30 is no bound
      {"X13", -kInfinity, 5, false}};
  for (const BoundCase& b : bounds) {
    int j = colOf(p, b.col);
    EXPECT_DOUBLE_EQ(p.colLower[j], b.lo) << b.col;
    EXPECT_DOUBLE_EQ(p.colUpper[j], b.up) << b.col;
    EXPECT_EQ(p.isInteger[j] != 0, b.integer) << b.col;
  }
  EXPECT_FALSE(p.isQP());
}

TEST(MpsSections, FreeFormReadsEverySectionAndBoundType) {
  MpsProblem free = parseOk(kFree, MpsFormat::Free);
  checkEvery(free);
  EXPECT_FALSE(free.fixedForm);
}

// Auto falls back to fixed form for names with blanks; read as free form,
// "MY ROW" splits into too many fields on its line.
TEST(MpsSections, FixedFormReadsFieldsByColumn) {
  for (MpsFormat format : {MpsFormat::Fixed, MpsFormat::Auto}) {
    MpsProblem p = parseOk(kFixed, format);
    EXPECT_TRUE(p.fixedForm);
    EXPECT_EQ(p.name, "FIXED");
    EXPECT_EQ(p.rowNames, (std::vector<std::string>{"MY ROW", "LE"}));
    EXPECT_EQ(p.colNames, (std::vector<std::string>{"MY COL", "X2"}));
    EXPECT_EQ(p.rowLower, (std::vector<double>{4, -kInfinity}));
    EXPECT_EQ(p.rowUpper, (std::vector<double>{7, 6}));
    EXPECT_EQ(p.value, (std::vector<double>{2, 1, -1}));
    EXPECT_EQ(p.colLower, (std::vector<double>{-kInfinity, -kInfinity}));
    EXPECT_EQ(p.colUpper, (std::vector<double>{-3, kInfinity}));
    EXPECT_DOUBLE_EQ(p.objConstant, 7.5);
  }
  EXPECT_EQ(parseFail(kFixed, MpsFormat::Free).line, 5);
}

TEST(MpsSections, WarnsAboutWhatItIgnoresOrChanges) {
  MpsProblem p = parseOk(kFree);
  bool opened = false, integers = false;
  for (const std::string& w : p.warnings) {
    opened = opened || w.find("MY_COL") != std::string::npos;
    integers = integers || w.find("3 integer columns") != std::string::npos;
  }
  EXPECT_TRUE(opened);
  EXPECT_TRUE(integers);
}

TEST(MpsSections, ObjectiveSenseAndName) {
  const std::string body =
      "ROWS\n N FIRST\n N SECOND\n L R\nCOLUMNS\n X FIRST 1 SECOND 2\n X R 1\n"
      "RHS\n R 4\nENDATA\n";
  EXPECT_EQ(parseOk("NAME A\nOBJSENSE\n    MAX\n" + body).objSense, -1);
  EXPECT_EQ(parseOk("NAME A\nOBJSENSE MAXIMIZE\n" + body).objSense, -1);

  MpsProblem first = parseOk("NAME A\n" + body);
  EXPECT_EQ(first.objName, "FIRST");
  EXPECT_DOUBLE_EQ(first.obj[0], 1.0);
  EXPECT_EQ(first.numRow(), 2);  // SECOND is a free row

  MpsProblem second = parseOk("NAME A\nOBJNAME SECOND\n" + body);
  EXPECT_EQ(second.objName, "SECOND");
  EXPECT_DOUBLE_EQ(second.obj[0], 2.0);
  EXPECT_EQ(second.rowSense[rowOf(second, "FIRST")], 'N');

}

TEST(MpsSections, RhsSetNamesAndSecondSets) {
  // Free form tells a set name by the odd count of fields; only the first
  // set counts.
  MpsProblem p = parseOk(
      "NAME S\nROWS\n N C\n L A\n L B\nCOLUMNS\n X A 1 B 1\n"
      "RHS\n SET1 A 1 B 2\n SET2 A 10\nRANGES\n R1 A 0.5\nBOUNDS\n UP B1 X 3\n UP B2 X 7\n"
      "ENDATA\n");
  EXPECT_DOUBLE_EQ(p.rowUpper[0], 1.0);
  EXPECT_DOUBLE_EQ(p.rowLower[0], 0.5);
  EXPECT_DOUBLE_EQ(p.rowUpper[1], 2.0);
  EXPECT_DOUBLE_EQ(p.colUpper[0], 3.0);
  EXPECT_EQ(p.warnings.size(), 2u);
}

TEST(MpsSections, EntriesAreSortedZerosDroppedAndColumnsMayReturn) {
  MpsProblem p = parseOk(
      "NAME Z\nROWS\n N C\n L A\n L B\n L D\nCOLUMNS\n X D 1 A 2\n Y A 0\n X B 3\n"
      "RHS\nENDATA\n");
  ASSERT_EQ(p.numCol(), 2);
  EXPECT_EQ(p.colBegin, (std::vector<int32_t>{0, 3, 3}));
  EXPECT_EQ(p.rowIndex, (std::vector<int32_t>{0, 1, 2}));
  EXPECT_EQ(p.value, (std::vector<double>{2, 3, 1}));
}

TEST(MpsSections, EndsPastInfinityStopThere) {
  MpsProblem p = parseOk(
      "NAME B\nROWS\n N C\n E A\n G B\nCOLUMNS\n X A 1 B 1\nRHS\n A 4.5e87 B -1e30\n"
      "BOUNDS\n LO BND X 1e25\nENDATA\n");
  EXPECT_EQ(p.rowLower, (std::vector<double>{kInfinity, -kInfinity}));
  EXPECT_EQ(p.rowUpper, (std::vector<double>{kInfinity, kInfinity}));
  EXPECT_EQ(p.colLower[0], kInfinity);
}

TEST(MpsSections, EmptySectionsAndAnEmptyModel) {
  MpsProblem p = parseOk("NAME\nROWS\n N OBJ\nCOLUMNS\nRHS\nRANGES\nBOUNDS\nQUADOBJ\nENDATA\n");
  EXPECT_EQ(p.name, "");
  EXPECT_EQ(p.numRow(), 0);
  EXPECT_EQ(p.numCol(), 0);
  EXPECT_EQ(p.colBegin, (std::vector<int32_t>{0}));
  EXPECT_EQ(p.quadColBegin, (std::vector<int32_t>{0}));

  // No N row at all: a feasibility problem with a zero objective.
  MpsProblem q = parseOk("NAME F\nROWS\n E R\nCOLUMNS\n X R 1\nRHS\n R 2\nENDATA\n");
  EXPECT_EQ(q.objName, "");
  EXPECT_DOUBLE_EQ(q.obj[0], 0.0);
  EXPECT_DOUBLE_EQ(q.rowLower[0], 2.0);
}

TEST(MpsSections, OddNamesLineEndsAndIntegerMarkers) {
  MpsProblem p = parseOk(
      "NAME odd.name-1\r\n"
      "ROWS\r\n N obj$\r\n L c[1,2]\r\n G r:é\r\n"
      "COLUMNS\r\n"
      "    MARKER 'MARKER' 'INTORG'\r\n"
      "    x(1) obj$ 1 c[1,2] 1\r\n"
      "    MARKER 'MARKER' 'INTEND'\r\n"
      "    y.2_\"q\" r:é -1 c[1,2] 1\r\n"
      "RHS\r\n    rhs c[1,2] 1e+1 r:é -Inf\r\n"
      "BOUNDS\r\n UP bnd x(1) 1.5D+00\r\n LO bnd y.2_\"q\" -infinity\r\n"
      "ENDATA\r\n"
      "anything after the end is not read\n");
  EXPECT_EQ(p.name, "odd.name-1");
  EXPECT_EQ(p.objName, "obj$");
  EXPECT_EQ(p.rowNames, (std::vector<std::string>{"c[1,2]", "r:é"}));
  EXPECT_EQ(p.colNames, (std::vector<std::string>{"x(1)", "y.2_\"q\""}));
  EXPECT_EQ(p.isInteger, (std::vector<uint8_t>{1, 0}));
  EXPECT_DOUBLE_EQ(p.rowUpper[0], 10.0);
  EXPECT_DOUBLE_EQ(p.rowLower[1], -kInfinity);
  EXPECT_DOUBLE_EQ(p.colUpper[0], 1.5);
  EXPECT_DOUBLE_EQ(p.colLower[1], -kInfinity);
  EXPECT_DOUBLE_EQ(entry(p, "r:é", "y.2_\"q\""), -1.0);
}

TEST(MpsQuadratic, QuadObjQSectionAndQMatrixGiveTheSameQ) {
  const std::string head =
      "NAME Q\nROWS\n N OBJ\n E R\nCOLUMNS\n X OBJ 1 R 1\n Y R 1\n Z R 1\nRHS\n R 1\n";
  // Lower triangle, one entry given from the upper side.
  MpsProblem a = parseOk(head + "QUADOBJ\n X X 4\n Y X 1\n X Z -2\n Z Z 6\nENDATA\n");
  MpsProblem b = parseOk(head + "QSECTION\n X X 4\n Y X 1\n Z X -2\n Z Z 6\nENDATA\n");
  MpsProblem c = parseOk(head +
                         "QMATRIX\n X X 4\n X Y 1\n Y X 1\n X Z -2\n Z X -2\n Z Z 6\nENDATA\n");
  for (const MpsProblem* p : {&a, &b, &c}) {
    EXPECT_TRUE(p->isQP());
    EXPECT_EQ(p->quadDiag, (std::vector<double>{4, 0, 6}));
    EXPECT_EQ(p->quadColBegin, (std::vector<int32_t>{0, 2, 2, 2}));
    EXPECT_EQ(p->quadRowIndex, (std::vector<int32_t>{1, 2}));
    EXPECT_EQ(p->quadValue, (std::vector<double>{1, -2}));
    EXPECT_EQ(p->numQuadDiag(), 2);
  }
  // Only a diagonal: still a QP.
  MpsProblem d = parseOk(head + "QUADOBJ\n Y Y 2\nENDATA\n");
  EXPECT_TRUE(d.isQP());
  EXPECT_EQ(d.numQuadCoef(), 0);
}

// Files that cannot be opened, gzip cut short and NUL bytes are the command
// script's cases; a line of a megabyte is refused with a short message.
TEST(MpsFiles, OverlongLinesAndEmptyTextSayWhy) {
  MpsError e = parseFail("NAME L\nROWS\n N " + std::string(1 << 20, 'C') + "\nENDATA\n");
  EXPECT_EQ(e.line, 3);
  EXPECT_NE(e.reason.find("characters"), std::string::npos) << e.reason;
  EXPECT_LT(e.message().size(), 400u);
  e = parseFail("");
  EXPECT_NE(e.reason.find("no MPS sections"), std::string::npos) << e.reason;
}

// Each malformed file must be refused with its line and a reason that a
// person can act on.
TEST(MpsMalformed, EachErrorNamesItsLine) {
  const std::string rows = "NAME M\nROWS\n N C\n L A\n";  // lines 1-4
  const std::string cols = rows + "COLUMNS\n X C 1 A 1\n";  // lines 5-6
  struct Case { std::string text; int line; const char* reason; };
  const Case cases[] = {
      {"NAME M\nSECTIONS\nENDATA\n", 2, "unknown section 'SECTIONS'"},
      {"NAME M\n N C\nENDATA\n", 2, "before ROWS"},
      {"NAME M\nROWS\n Q C\nENDATA\n", 3, "unknown row type 'Q'"},
      {"NAME M\nROWS\n N C\n L C\nENDATA\n", 4, "row 'C' is defined twice"},
      {"NAME M\nROWS\n L\nENDATA\n", 3, "a ROWS line has a type and a name"},
      {rows + "COLUMNS\n X C 1 B 1\nENDATA\n", 6, "unknown row 'B'"},
      {rows + "COLUMNS\n X C 1 A\nENDATA\n", 6, "a COLUMNS line has"},
      {rows + "COLUMNS\n X A 1,5\nENDATA\n", 6, "'1,5' is not a number"},
      {rows + "COLUMNS\n X A nan\nENDATA\n", 6, "'nan' is not a number"},
      {rows + "COLUMNS\n X A 1e400\nENDATA\n", 6, "'1e400' is out of the range of numbers"},
      {rows + "COLUMNS\n X A -Inf\nENDATA\n", 6, "only a bound, a right side or a range may be"},
      {cols + "BOUNDS\n UP BND X 1e309\nENDATA\n", 8, "out of the range of numbers"},
      {rows + "COLUMNS\n X A 1\n X A 2\nENDATA\n", 7, "two entries in row 'A'"},
      {rows + "COLUMNS\n X C 1\n X C 2\nENDATA\n", 7, "two objective entries"},
      {rows + "COLUMNS\n MARKER 'MARKER' 'INTMID'\nENDATA\n", 6, "unknown marker"},
      {cols + "RHS\n RHS B 1\nENDATA\n", 8, "unknown row 'B'"},
      {cols + "RHS\n A 1\n A 2\nENDATA\n", 9, "row 'A' has two RHS values"},
      {cols + "RANGES\n A 1\n A 2\nENDATA\n", 9, "row 'A' has two ranges"},
      {cols + "BOUNDS\n UP BND Y 1\nENDATA\n", 8, "unknown column 'Y'"},
      {cols + "BOUNDS\n XX BND X 1\nENDATA\n", 8, "unknown bound type 'XX'"},
      {cols + "BOUNDS\n UP X\nENDATA\n", 8, "bound type UP needs a column and a value"},
      {cols + "BOUNDS\n SC BND X 1\nENDATA\n", 8, "semi-continuous"},
      {cols + "QUADOBJ\n X Y 1\nENDATA\n", 8, "unknown column 'Y'"},
      {cols + "QUADOBJ\n X X\nENDATA\n", 8, "two columns and a value"},
      {cols + "QUADOBJ\n X X 1\n X X 2\nENDATA\n", 9, "given twice"},
      {cols + "QMATRIX\n X X 1e308\n X X 1e308\nENDATA\n", 9, "beyond the range of numbers"},
      {cols + "QCMATRIX A\n X X 1\nENDATA\n", 7, "QCMATRIX is not supported"},
      {cols + "QSECTION A\n X X 1\nENDATA\n", 7, "quadratic constraints"},
      {cols + "RHS\n A 1\n", 8, "ends without ENDATA"},
      {cols + "ROWS\nENDATA\n", 7, "a second ROWS section"},
      {"NAME M\nCOLUMNS\nENDATA\n", 2, "COLUMNS before ROWS"},
      {"NAME M\nROWS\n N C\nRHS\nENDATA\n", 4, "RHS before COLUMNS"},
      {"NAME M\nOBJSENSE MAX MIN\nENDATA\n", 2, "OBJSENSE takes one word"},
      {"NAME M\nOBJSENSE\n    UP\nENDATA\n", 3, "MIN or MAX"},
      {"NAME M\nROWS EXTRA\nENDATA\n", 2, "unexpected text after ROWS"},
      {"NAME M\nOBJNAME A\nROWS\n N C\n L A\nCOLUMNS\nENDATA\n", 2, "OBJNAME names 'A'"},
  };
  for (const Case& c : cases) {
    MpsError e = parseFail(c.text);
    EXPECT_EQ(e.line, c.line) << e.message() << "\nin:\n" << c.text;
    EXPECT_NE(e.reason.find(c.reason), std::string::npos)
        << "wanted '" << c.reason << "', got: " << e.message();
    EXPECT_EQ(e.message().rfind("t.mps:" + std::to_string(c.line) + ": ", 0), 0u)
        << e.message();
  }
}

}  // namespace
