#include "mps.h"

#include <zlib.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <unordered_map>

namespace hxcli {

int32_t MpsProblem::numQuadDiag() const {
  int32_t n = 0;
  for (double d : quadDiag) n += d != 0.0;
  return n;
}

std::string MpsError::message() const {
  if (line > 0) return file + ":" + std::to_string(line) + ": " + reason;
  return file + ": " + reason;
}

namespace {

constexpr size_t kMaxLine = 65536;

enum class Section {
  None, Name, ObjSense, ObjName, Rows, Columns, Rhs, Ranges, Bounds, QuadObj, QMatrix, End
};

// The six positional fields of a data line, as fixed form places them.
// Free-form tokens are moved into the same places, so that one handler
// serves both forms.
struct Fields {
  std::string f[6];
  int count = 0;  // tokens on a free-form line; fields present on a fixed one
};

struct Entry {
  int32_t col, row;
  double value;
  int line;
};

struct QuadEntry {
  int32_t row, col;  // row >= col
  double value;
  int line;
};

std::string trim(const std::string& s) {
  size_t b = 0, e = s.size();
  while (b < e && std::isspace((unsigned char)s[b])) ++b;
  while (e > b && std::isspace((unsigned char)s[e - 1])) --e;
  return s.substr(b, e - b);
}

std::string upper(std::string s) {
  for (char& c : s) c = (char)std::toupper((unsigned char)c);
  return s;
}

std::vector<std::string> tokens(const std::string& line) {
  std::vector<std::string> out;
  size_t i = 0, n = line.size();
  while (i < n) {
    while (i < n && std::isspace((unsigned char)line[i])) ++i;
    if (i >= n) break;
    size_t b = i;
    while (i < n && !std::isspace((unsigned char)line[i])) ++i;
    out.push_back(line.substr(b, i - b));
  }
  return out;
}

std::string column(const std::string& line, size_t from, size_t length) {
  if (from >= line.size()) return std::string();
  return trim(line.substr(from, length));
}

class Parser {
 public:
  Parser(const std::string& text, const std::string& file, bool fixedForm, MpsProblem* p)
      : text_(text), file_(file), fixed_(fixedForm), p_(p) {}

  bool run(MpsError* error);
  // How far the reader got: the failing line, or past the end when the file
  // was read whole.
  int progress() const { return progress_; }

 private:
  bool fail(const std::string& reason) {
    error_.file = file_;
    error_.line = lineNo_;
    // Names and numbers are quoted from the file: keep a long one readable.
    error_.reason = reason.size() <= 240 ? reason : reason.substr(0, 200) + "...";
    return false;
  }
  void warn(const std::string& what) {
    p_->warnings.push_back(file_ + ":" + std::to_string(lineNo_) + ": " + what);
  }

  bool header(const std::string& line);
  bool data(const std::string& line);
  bool split(const std::string& line, Fields* out);
  bool number(const std::string& text, double* value);
  bool rowLine(const Fields& f);
  bool columnLine(const Fields& f);
  bool rhsLine(const Fields& f, bool ranges);
  bool boundLine(const Fields& f);
  bool quadLine(const Fields& f);
  bool objSenseWord(const std::string& word);
  bool finish();

  // Rows: -1 is the objective, -2 a row name not known.
  int32_t findRow(const std::string& name) const {
    auto it = rowByName_.find(name);
    return it == rowByName_.end() ? -2 : it->second;
  }
  int32_t findCol(const std::string& name) const {
    auto it = colByName_.find(name);
    return it == colByName_.end() ? -1 : it->second;
  }

  const std::string& text_;
  std::string file_;
  bool fixed_;
  MpsProblem* p_;
  MpsError error_;
  int lineNo_ = 0;
  int progress_ = 0;
  int objNameLine_ = 0;
  Section section_ = Section::None;
  bool seenRows_ = false, seenColumns_ = false, seenEnd_ = false;
  bool inInteger_ = false;
  std::string wantedObj_;  // from OBJNAME

  std::unordered_map<std::string, int32_t> rowByName_;
  std::unordered_map<std::string, int32_t> colByName_;
  std::vector<Entry> entries_;
  std::vector<uint8_t> objSet_;
  std::vector<double> rhs_, range_;
  std::vector<uint8_t> rhsSet_;
  std::vector<uint8_t> lowerSet_;
  bool objRhsSet_ = false;
  std::string rhsSetName_, rangeSetName_, boundSetName_;
  bool rhsSetKnown_ = false, rangeSetKnown_ = false, boundSetKnown_ = false;
  bool warnedRhsSet_ = false, warnedRangeSet_ = false, warnedBoundSet_ = false;
  std::vector<QuadEntry> quad_;
  std::vector<QuadEntry> quadHalf_;  // QMATRIX: both triangles, halves added up
};

bool Parser::run(MpsError* error) {
  size_t pos = 0, n = text_.size();
  while (pos < n) {
    size_t end = text_.find('\n', pos);
    if (end == std::string::npos) end = n;
    std::string line = text_.substr(pos, end - pos);
    pos = end + 1;
    ++lineNo_;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (seenEnd_) continue;  // whatever follows ENDATA is not ours
    if (line.size() > kMaxLine) {
      // No line of this format comes near; such a line is binary or damage,
      // and quoting it would bury the message.
      fail("a line of " + std::to_string(line.size()) + " characters (at most " +
           std::to_string(kMaxLine) + ")");
      progress_ = lineNo_;
      *error = error_;
      return false;
    }
    if (line.empty() || line[0] == '*') continue;
    if (trim(line).empty()) continue;
    bool ok = std::isspace((unsigned char)line[0]) ? data(line) : header(line);
    if (!ok) {
      progress_ = lineNo_;
      *error = error_;
      return false;
    }
  }
  progress_ = lineNo_ + 1;
  if (!seenEnd_) {
    // Most often a file cut short: name its last line.
    fail(section_ == Section::None ? "the file holds no MPS sections"
                                   : "the file ends without ENDATA");
    *error = error_;
    return false;
  }
  if (!finish()) {
    *error = error_;
    return false;
  }
  return true;
}

bool Parser::header(const std::string& line) {
  std::vector<std::string> t = tokens(line);
  std::string word = upper(t[0]);
  if (word == "NAME") {
    if (section_ != Section::None) return fail("NAME is not the first section");
    // Writers put remarks after the name, so the name is the first word.
    std::string rest = t.size() > 1 ? t[1] : std::string();
    p_->name = rest;
    section_ = Section::Name;
    return true;
  }
  if (word == "OBJSENSE" || word == "OBJSENCE") {
    section_ = Section::ObjSense;
    if (t.size() > 1) {
      if (!objSenseWord(t[1])) return false;
      if (t.size() > 2) return fail("OBJSENSE takes one word");
    }
    return true;
  }
  if (word == "OBJNAME") {
    if (seenRows_) return fail("OBJNAME must come before ROWS");
    section_ = Section::ObjName;
    if (t.size() > 1) wantedObj_ = t[1];
    objNameLine_ = lineNo_;
    return true;
  }
  if (word == "ROWS") {
    if (seenRows_) return fail("a second ROWS section");
    seenRows_ = true;
    section_ = Section::Rows;
  } else if (word == "COLUMNS") {
    if (!seenRows_) return fail("COLUMNS before ROWS");
    if (seenColumns_) return fail("a second COLUMNS section");
    seenColumns_ = true;
    section_ = Section::Columns;
  } else if (word == "RHS") {
    section_ = Section::Rhs;
  } else if (word == "RANGES") {
    section_ = Section::Ranges;
  } else if (word == "BOUNDS") {
    section_ = Section::Bounds;
  } else if (word == "QUADOBJ" || word == "QSECTION") {
    section_ = Section::QuadObj;
  } else if (word == "QMATRIX") {
    section_ = Section::QMatrix;
  } else if (word == "ENDATA") {
    seenEnd_ = true;
    section_ = Section::End;
    return true;
  } else if (word == "QCMATRIX" || word == "CSECTION" || word == "SOS" ||
             word == "INDICATORS" || word == "GENCONS" || word == "PWLOBJ" ||
             word == "PWLNAM" || word == "PWLCON" || word == "SETS") {
    return fail("section " + word + " is not supported: halvex solves LPs and QPs with a "
                "quadratic objective only");
  } else {
    return fail("unknown section '" + t[0] + "' (a data line must begin with a blank)");
  }
  if (word != "QSECTION" && t.size() > 1)
    return fail("unexpected text after " + word);
  if (word == "QSECTION" && t.size() > 1 && upper(t[1]) != "OBJ" &&
      (p_->objName.empty() || t[1] != p_->objName))
    return fail("QSECTION for row '" + t[1] + "': quadratic constraints are not supported");
  if ((section_ == Section::Rhs || section_ == Section::Ranges ||
       section_ == Section::Bounds || section_ == Section::QuadObj ||
       section_ == Section::QMatrix) && !seenColumns_)
    return fail(word + " before COLUMNS");
  return true;
}

bool Parser::objSenseWord(const std::string& word) {
  std::string w = upper(word);
  if (w == "MAX" || w == "MAXIMIZE" || w == "MAXIMISE")
    p_->objSense = -1;
  else if (w == "MIN" || w == "MINIMIZE" || w == "MINIMISE")
    p_->objSense = 1;
  else
    return fail("OBJSENSE must be MIN or MAX, not '" + word + "'");
  return true;
}

bool Parser::split(const std::string& line, Fields* out) {
  Fields& f = *out;
  if (fixed_) {
    // Fields begin in columns 2, 5, 15, 25, 40 and 50.  Numbers may run on
    // into the blank columns after them, as many writers let them.
    f.f[0] = column(line, 1, 2);
    f.f[1] = column(line, 4, 10);
    f.f[2] = column(line, 14, 10);
    f.f[3] = column(line, 24, 15);
    f.f[4] = column(line, 39, 10);
    f.f[5] = column(line, 49, std::string::npos);
    f.count = 0;
    for (int i = 0; i < 6; ++i) f.count += !f.f[i].empty();
    return true;
  }
  std::vector<std::string> t = tokens(line);
  f.count = (int)t.size();
  auto put = [&](std::initializer_list<int> places) {
    int k = 0;
    for (int at : places) f.f[at] = t[k++];
  };
  switch (section_) {
    case Section::Rows:
      if (t.size() != 2) return fail("a ROWS line has a type and a name");
      put({0, 1});
      break;
    case Section::Columns:
      if (t.size() == 3)
        put({1, 2, 3});
      else if (t.size() == 5)
        put({1, 2, 3, 4, 5});
      else
        return fail("a COLUMNS line has a column and one or two pairs of row and value");
      break;
    case Section::Rhs:
    case Section::Ranges:
      // An odd count means the line begins with the set's name.
      if (t.size() == 2)
        put({2, 3});
      else if (t.size() == 3)
        put({1, 2, 3});
      else if (t.size() == 4)
        put({2, 3, 4, 5});
      else if (t.size() == 5)
        put({1, 2, 3, 4, 5});
      else
        return fail(std::string("a ") + (section_ == Section::Rhs ? "RHS" : "RANGES") +
                    " line has an optional set name and one or two pairs of row and value");
      break;
    case Section::Bounds: {
      if (t.size() < 2 || t.size() > 4)
        return fail("a BOUNDS line has a type, an optional set name, a column and a value");
      std::string type = upper(t[0]);
      bool takesValue = type == "UP" || type == "LO" || type == "FX" || type == "LI" ||
                        type == "UI" || type == "SC";
      if (takesValue) {
        if (t.size() == 4)
          put({0, 1, 2, 3});
        else if (t.size() == 3)
          put({0, 2, 3});
        else
          return fail("bound type " + type + " needs a column and a value");
      } else {
        if (t.size() == 4)
          put({0, 1, 2, 3});
        else if (t.size() == 3)
          put({0, 1, 2});
        else
          put({0, 2});
      }
      break;
    }
    case Section::QuadObj:
    case Section::QMatrix:
      if (t.size() != 3) return fail("a quadratic line has two columns and a value");
      put({1, 2, 3});
      break;
    default:
      break;
  }
  return true;
}

bool Parser::number(const std::string& text, double* value) {
  if (text.empty()) return fail("a value is missing");
  errno = 0;
  char* end = nullptr;
  double v = std::strtod(text.c_str(), &end);
  if (end != text.c_str() + text.size()) {
    // Old Fortran writers use D for the exponent.
    std::string t = text;
    for (char& c : t)
      if (c == 'D' || c == 'd') c = 'E';
    v = std::strtod(t.c_str(), &end);
    if (end != t.c_str() + t.size()) return fail("'" + text + "' is not a number");
  }
  if (std::isnan(v)) return fail("'" + text + "' is not a number");
  // A literal beyond the double range reads as infinity: a typo more often
  // than a meaning, so it is refused; an infinity written as such is taken
  // only where it means "no end".
  const bool written = std::isinf(v) && std::isalpha((unsigned char)text[text[0] == '-' || text[0] == '+']);
  if (std::isinf(v) && !written) return fail("'" + text + "' is out of the range of numbers");
  if (std::isinf(v) && section_ != Section::Bounds && section_ != Section::Rhs &&
      section_ != Section::Ranges)
    return fail("'" + text + "' is not finite; only a bound, a right side or a range may be");
  *value = v;
  return true;
}

bool Parser::data(const std::string& line) {
  if (section_ == Section::None || section_ == Section::Name)
    return fail("a data line before ROWS");
  if (section_ == Section::ObjSense) {
    std::vector<std::string> t = tokens(line);
    if (t.size() != 1) return fail("OBJSENSE takes one word");
    return objSenseWord(t[0]);
  }
  if (section_ == Section::ObjName) {
    std::vector<std::string> t = tokens(line);
    if (t.size() != 1) return fail("OBJNAME takes one name");
    wantedObj_ = fixed_ ? trim(line) : t[0];
    objNameLine_ = lineNo_;
    return true;
  }
  Fields f;
  if (!split(line, &f)) return false;
  switch (section_) {
    case Section::Rows: return rowLine(f);
    case Section::Columns: return columnLine(f);
    case Section::Rhs: return rhsLine(f, false);
    case Section::Ranges: return rhsLine(f, true);
    case Section::Bounds: return boundLine(f);
    case Section::QuadObj:
    case Section::QMatrix: return quadLine(f);
    default: return fail("unexpected data line");
  }
}

bool Parser::rowLine(const Fields& f) {
  std::string type = upper(f.f[0]);
  const std::string& name = f.f[1];
  if (type.empty()) return fail("a ROWS line without a row type");
  if (name.empty()) return fail("a ROWS line without a row name");
  if (type.size() != 1 || std::strchr("NEGL", type[0]) == nullptr)
    return fail("unknown row type '" + f.f[0] + "' (N, E, G or L)");
  if (rowByName_.count(name)) return fail("row '" + name + "' is defined twice");
  bool isObj = type[0] == 'N' && (wantedObj_.empty() ? p_->objName.empty() : name == wantedObj_);
  if (isObj) {
    p_->objName = name;
    rowByName_[name] = -1;
    return true;
  }
  rowByName_[name] = (int32_t)p_->rowNames.size();
  p_->rowNames.push_back(name);
  p_->rowSense.push_back(type[0]);
  return true;
}

bool Parser::columnLine(const Fields& f) {
  const std::string& colName = f.f[1];
  if (colName.empty()) return fail("a COLUMNS line without a column name");
  if (f.f[2] == "'MARKER'") {
    std::string kind = !f.f[3].empty() ? f.f[3] : f.f[4];
    if (kind == "'INTORG'")
      inInteger_ = true;
    else if (kind == "'INTEND'")
      inInteger_ = false;
    else
      return fail("unknown marker '" + kind + "' ('INTORG' or 'INTEND')");
    return true;
  }
  int32_t col = findCol(colName);
  if (col < 0) {
    col = (int32_t)p_->colNames.size();
    colByName_[colName] = col;
    p_->colNames.push_back(colName);
    p_->obj.push_back(0.0);
    p_->colLower.push_back(0.0);
    p_->colUpper.push_back(kInfinity);
    objSet_.push_back(0);
    p_->isInteger.push_back(inInteger_ ? 1 : 0);
  }
  for (int pair = 0; pair < 2; ++pair) {
    const std::string& rowName = f.f[2 + 2 * pair];
    const std::string& valText = f.f[3 + 2 * pair];
    if (rowName.empty() && valText.empty()) {
      if (pair == 0) return fail("column '" + colName + "' without a row and a value");
      break;
    }
    if (rowName.empty()) return fail("a value without a row name");
    double v;
    if (!number(valText, &v)) return false;
    int32_t row = findRow(rowName);
    if (row == -2) return fail("unknown row '" + rowName + "'");
    if (row == -1) {
      if (objSet_[col]) return fail("column '" + colName + "' has two objective entries");
      objSet_[col] = 1;
      p_->obj[col] = v;
    } else {
      entries_.push_back(Entry{col, row, v, lineNo_});
    }
  }
  return true;
}

bool Parser::rhsLine(const Fields& f, bool ranges) {
  std::string& setName = ranges ? rangeSetName_ : rhsSetName_;
  bool& setKnown = ranges ? rangeSetKnown_ : rhsSetKnown_;
  bool& warned = ranges ? warnedRangeSet_ : warnedRhsSet_;
  const char* what = ranges ? "RANGES" : "RHS";
  // A line without a set name belongs to the set in use.
  if (!setKnown && !f.f[1].empty()) {
    setName = f.f[1];
    setKnown = true;
  } else if (setKnown && !f.f[1].empty() && f.f[1] != setName) {
    // Only the first set counts, as with every reader of this format.
    if (!warned) warn(std::string("a second ") + what + " set '" + f.f[1] + "' is ignored");
    warned = true;
    return true;
  }
  if (rhs_.size() != p_->rowNames.size()) {
    rhs_.assign(p_->rowNames.size(), 0.0);
    range_.assign(p_->rowNames.size(), 0.0);
    rhsSet_.assign(p_->rowNames.size(), 0);
    p_->hasRange.assign(p_->rowNames.size(), 0);
  }
  for (int pair = 0; pair < 2; ++pair) {
    const std::string& rowName = f.f[2 + 2 * pair];
    const std::string& valText = f.f[3 + 2 * pair];
    if (rowName.empty() && valText.empty()) {
      if (pair == 0) return fail(std::string(what) + " line without a row and a value");
      break;
    }
    if (rowName.empty()) return fail("a value without a row name");
    double v;
    if (!number(valText, &v)) return false;
    int32_t row = findRow(rowName);
    if (row == -2) return fail("unknown row '" + rowName + "'");
    if (row == -1) {
      if (ranges) {
        warn("a range on the objective row is ignored");
      } else {
        if (objRhsSet_) warn("a second RHS value of the objective row; the last one counts");
        objRhsSet_ = true;
        p_->objConstant = -v;
      }
      continue;
    }
    if (ranges) {
      if (p_->rowSense[row] == 'N') {
        warn("a range on the free row '" + rowName + "' is ignored");
        continue;
      }
      if (p_->hasRange[row]) return fail("row '" + rowName + "' has two ranges");
      p_->hasRange[row] = 1;
      range_[row] = v;
    } else {
      if (rhsSet_[row]) return fail("row '" + rowName + "' has two RHS values");
      rhsSet_[row] = 1;
      rhs_[row] = v;
    }
  }
  return true;
}

bool Parser::boundLine(const Fields& f) {
  std::string type = upper(f.f[0]);
  if (type.empty()) return fail("a BOUNDS line without a bound type");
  if (!boundSetKnown_ && !f.f[1].empty()) {
    boundSetName_ = f.f[1];
    boundSetKnown_ = true;
  } else if (boundSetKnown_ && !f.f[1].empty() && f.f[1] != boundSetName_) {
    if (!warnedBoundSet_) warn("a second BOUNDS set '" + f.f[1] + "' is ignored");
    warnedBoundSet_ = true;
    return true;
  }
  const std::string& colName = f.f[2];
  if (colName.empty()) return fail("a BOUNDS line without a column name");
  int32_t col = findCol(colName);
  if (col < 0) return fail("unknown column '" + colName + "'");
  if (lowerSet_.size() != p_->colNames.size()) lowerSet_.assign(p_->colNames.size(), 0);
  double& lo = p_->colLower[col];
  double& up = p_->colUpper[col];
  double v = 0.0;
  bool takesValue = type == "UP" || type == "LO" || type == "FX" || type == "LI" ||
                    type == "UI";
  if (takesValue) {
    if (!number(f.f[3], &v)) return false;
  }
  if (type == "UP" || type == "UI") {
    up = v;
    // A negative upper bound on a column whose lower bound is still the
    // default 0 opens the lower bound, as the widely used readers do.
    if (v < 0 && !lowerSet_[col] && lo == 0.0) {
      lo = -kInfinity;
      warn("upper bound " + f.f[3] + " below 0 on column '" + colName +
           "' makes its lower bound minus infinity");
    }
  } else if (type == "LO" || type == "LI") {
    lo = v;
    lowerSet_[col] = 1;
  } else if (type == "FX") {
    lo = up = v;
    lowerSet_[col] = 1;
  } else if (type == "FR") {
    lo = -kInfinity;
    up = kInfinity;
    lowerSet_[col] = 1;
  } else if (type == "MI") {
    lo = -kInfinity;
    lowerSet_[col] = 1;
  } else if (type == "PL") {
    up = kInfinity;
  } else if (type == "BV") {
    lo = 0.0;
    up = 1.0;
    lowerSet_[col] = 1;
  } else if (type == "SC") {
    return fail("bound type SC (semi-continuous) is not supported");
  } else {
    return fail("unknown bound type '" + f.f[0] +
                "' (UP, LO, FX, FR, MI, PL, BV, LI or UI)");
  }
  if (type == "BV" || type == "LI" || type == "UI") p_->isInteger[col] = 1;
  return true;
}

bool Parser::quadLine(const Fields& f) {
  const std::string& a = f.f[1];
  const std::string& b = f.f[2];
  if (a.empty() || b.empty()) return fail("a quadratic line names two columns");
  int32_t i = findCol(a), j = findCol(b);
  if (i < 0) return fail("unknown column '" + a + "'");
  if (j < 0) return fail("unknown column '" + b + "'");
  double v;
  if (!number(f.f[3], &v)) return false;
  QuadEntry e{std::max(i, j), std::min(i, j), v, lineNo_};
  if (section_ == Section::QMatrix) {
    // Both triangles are listed: each off-diagonal entry comes twice.
    if (i != j) e.value *= 0.5;
    quadHalf_.push_back(e);
  } else {
    quad_.push_back(e);
  }
  return true;
}

bool Parser::finish() {
  MpsProblem& p = *p_;
  const int32_t m = p.numRow(), n = p.numCol();
  if (!wantedObj_.empty() && p.objName != wantedObj_) {
    lineNo_ = objNameLine_;
    return fail("OBJNAME names '" + wantedObj_ + "', which is not an N row");
  }

  // Rows: the two ends from the sense, the RHS and the range.
  rhs_.resize(m, 0.0);
  range_.resize(m, 0.0);
  p.hasRange.resize(m, 0);
  p.rowLower.assign(m, -kInfinity);
  p.rowUpper.assign(m, kInfinity);
  for (int32_t i = 0; i < m; ++i) {
    double b = rhs_[i], r = range_[i];
    // A range from an infinite right side would give inf - inf.
    if (std::fabs(b) >= kInfinity) p.hasRange[i] = 0;
    switch (p.rowSense[i]) {
      case 'E':
        p.rowLower[i] = p.rowUpper[i] = b;
        if (p.hasRange[i]) (r >= 0 ? p.rowUpper[i] : p.rowLower[i]) = b + r;
        break;
      case 'G':
        p.rowLower[i] = b;
        if (p.hasRange[i]) p.rowUpper[i] = b + std::fabs(r);
        break;
      case 'L':
        p.rowUpper[i] = b;
        if (p.hasRange[i]) p.rowLower[i] = b - std::fabs(r);
        break;
      default:
        break;
    }
  }
  // Every end lies within +-kInfinity, whichever side it went past: an E row
  // with a right side of 1e30 is at infinity at both ends.
  auto clamp = [](double v) { return std::min(std::max(v, -kInfinity), kInfinity); };
  for (int32_t i = 0; i < m; ++i) {
    p.rowLower[i] = clamp(p.rowLower[i]);
    p.rowUpper[i] = clamp(p.rowUpper[i]);
  }
  for (int32_t j = 0; j < n; ++j) {
    p.colLower[j] = clamp(p.colLower[j]);
    p.colUpper[j] = clamp(p.colUpper[j]);
  }

  // A: sort into columns, refuse an entry given twice.
  std::stable_sort(entries_.begin(), entries_.end(), [](const Entry& x, const Entry& y) {
    return x.col != y.col ? x.col < y.col : x.row < y.row;
  });
  p.colBegin.assign(n + 1, 0);
  p.rowIndex.clear();
  p.value.clear();
  p.rowIndex.reserve(entries_.size());
  p.value.reserve(entries_.size());
  for (size_t k = 0; k < entries_.size(); ++k) {
    const Entry& e = entries_[k];
    if (k > 0 && entries_[k - 1].col == e.col && entries_[k - 1].row == e.row) {
      lineNo_ = e.line;
      return fail("column '" + p.colNames[e.col] + "' has two entries in row '" +
                  p.rowNames[e.row] + "'");
    }
    if (e.value == 0.0) continue;
    p.rowIndex.push_back(e.row);
    p.value.push_back(e.value);
    ++p.colBegin[e.col + 1];
  }
  for (int32_t j = 0; j < n; ++j) p.colBegin[j + 1] += p.colBegin[j];
  entries_.clear();

  // Q: the diagonal apart, the strict lower triangle by columns.
  auto byPlace = [](const QuadEntry& x, const QuadEntry& y) {
    return x.col != y.col ? x.col < y.col : x.row < y.row;
  };
  std::stable_sort(quad_.begin(), quad_.end(), byPlace);
  for (size_t k = 1; k < quad_.size(); ++k) {
    if (quad_[k].col == quad_[k - 1].col && quad_[k].row == quad_[k - 1].row) {
      lineNo_ = quad_[k].line;
      return fail("the quadratic entry of columns '" + p.colNames[quad_[k].row] + "' and '" +
                  p.colNames[quad_[k].col] +
                  "' is given twice (list one triangle here, or use QMATRIX)");
    }
  }
  quad_.insert(quad_.end(), quadHalf_.begin(), quadHalf_.end());
  quadHalf_.clear();
  std::stable_sort(quad_.begin(), quad_.end(), byPlace);
  p.quadDiag.assign(n, 0.0);
  p.quadColBegin.assign(n + 1, 0);
  p.quadRowIndex.clear();
  p.quadValue.clear();
  for (size_t k = 0; k < quad_.size();) {
    size_t e = k;
    double v = 0.0;
    while (e < quad_.size() && quad_[e].col == quad_[k].col && quad_[e].row == quad_[k].row)
      v += quad_[e++].value;
    const QuadEntry& q = quad_[k];
    if (!std::isfinite(v)) {
      lineNo_ = quad_[e - 1].line;
      return fail("the quadratic entry of columns '" + p.colNames[q.row] + "' and '" +
                  p.colNames[q.col] + "' adds up beyond the range of numbers");
    }
    if (q.row == q.col) {
      p.quadDiag[q.col] = v;
    } else if (v != 0.0) {
      p.quadRowIndex.push_back(q.row);
      p.quadValue.push_back(v);
      ++p.quadColBegin[q.col + 1];
    }
    k = e;
  }
  for (int32_t j = 0; j < n; ++j) p.quadColBegin[j + 1] += p.quadColBegin[j];
  quad_.clear();

  int32_t numInt = 0;
  for (uint8_t b : p.isInteger) numInt += b;
  if (numInt > 0)
    p.warnings.push_back(file_ + ": " + std::to_string(numInt) +
                         " integer columns: their integrality is ignored");
  p.fixedForm = fixed_;
  return true;
}

// A read that breaks off names the line it broke off in.
int lineAtEnd(const std::string& text) {
  return (int)std::count(text.begin(), text.end(), '\n') + 1;
}

bool readAll(const std::string& path, std::string* text, MpsError* error) {
  error->file = path;
  error->line = 0;
  gzFile in = gzopen(path.c_str(), "rb");
  if (!in) {
    error->reason = std::string("cannot open: ") + std::strerror(errno ? errno : ENOENT);
    return false;
  }
  gzbuffer(in, 1 << 17);
  text->clear();
  std::vector<char> buf(1 << 17);
  for (;;) {
    int got = gzread(in, buf.data(), (unsigned)buf.size());
    if (got < 0) {
      int code = 0;
      const char* why = gzerror(in, &code);
      error->reason = std::string("cannot read: ") +
                      (code == Z_ERRNO ? std::strerror(errno) : why);
      error->line = lineAtEnd(*text);
      gzclose(in);
      return false;
    }
    if (got == 0) break;
    text->append(buf.data(), (size_t)got);
  }
  // A gzip stream cut short reads as a shorter text; zlib says so here.
  int code = 0;
  const char* why = gzerror(in, &code);
  if (code != Z_OK && code != Z_BUF_ERROR) {
    error->reason = std::string("cannot read: ") + why;
    error->line = lineAtEnd(*text);
    gzclose(in);
    return false;
  }
  int closed = gzclose(in);
  if (closed == Z_BUF_ERROR) {
    error->reason = "the gzip data is cut short";
    error->line = lineAtEnd(*text);
    return false;
  }
  if (closed != Z_OK) {
    error->reason = "the gzip data is damaged";
    error->line = lineAtEnd(*text);
    return false;
  }
  size_t nul = text->find('\0');
  if (nul != std::string::npos) {
    error->reason = "this is not a text file (it holds NUL bytes)";
    error->line = lineAtEnd(text->substr(0, nul));
    return false;
  }
  return true;
}

}  // namespace

bool parseMps(const std::string& text, const std::string& fileName, MpsFormat format,
              MpsProblem* out, MpsError* error) {
  auto attempt = [&](bool fixedForm, MpsProblem* p, MpsError* e, int* progress = nullptr) {
    *p = MpsProblem();
    Parser parser(text, fileName, fixedForm, p);
    bool ok = parser.run(e);
    if (progress) *progress = parser.progress();
    return ok;
  };
  MpsError dummy;
  if (!error) error = &dummy;
  if (format != MpsFormat::Auto) return attempt(format == MpsFormat::Fixed, out, error);
  // Free form reads nearly every file; fixed form is the way out for names
  // with blanks.  When both fail, the form that got further tells the more
  // useful story.
  MpsError freeError, fixedError;
  int freeProgress = 0, fixedProgress = 0;
  if (attempt(false, out, &freeError, &freeProgress)) return true;
  MpsProblem fixedProblem;
  if (attempt(true, &fixedProblem, &fixedError, &fixedProgress)) {
    *out = std::move(fixedProblem);
    return true;
  }
  *error = fixedProgress > freeProgress ? fixedError : freeError;
  return false;
}

bool readMpsFile(const std::string& path, MpsFormat format, MpsProblem* out, MpsError* error) {
  MpsError dummy;
  if (!error) error = &dummy;
  std::string text;
  if (!readAll(path, &text, error)) return false;
  return parseMps(text, path, format, out, error);
}

}  // namespace hxcli
