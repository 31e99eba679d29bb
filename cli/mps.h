// Reader of MPS and QPS files, fixed and free form, plain or gzip.
//
// The result is a plain problem with names, close to the file: rows keep
// the sense that the ROWS section gave them, and the RHS and RANGES values
// are already turned into the two ends of each row.  Turning it into the
// solver's record is the job of qprecord.h.
#ifndef HALVEX_CLI_MPS_H
#define HALVEX_CLI_MPS_H

#include <cstdint>
#include <string>
#include <vector>

namespace hxcli {

// A bound of this magnitude or more means no bound, in the file and here.
constexpr double kInfinity = 1e+20;

enum class MpsFormat { Auto, Fixed, Free };

struct MpsProblem {
  std::string name;       // from the NAME line; may be empty
  std::string objName;    // the objective row; empty if the file has none
  int objSense = 1;       // +1 minimise, -1 maximise (OBJSENSE)
  double objConstant = 0.0;  // the objective row's RHS, negated

  // Rows other than the objective, in file order.  sense is 'E', 'G', 'L'
  // or 'N' (a free row); rowLower/rowUpper are the row's ends after RHS and
  // RANGES, +-kInfinity where open.  hasRange marks rows that RANGES named.
  std::vector<std::string> rowNames;
  std::vector<char> rowSense;
  std::vector<double> rowLower, rowUpper;
  std::vector<uint8_t> hasRange;

  // Columns in the order of their first appearance in COLUMNS.
  std::vector<std::string> colNames;
  std::vector<double> obj, colLower, colUpper;
  std::vector<uint8_t> isInteger;  // marked integer (MARKER, BV, LI, UI)

  // A column-wise, 0-based, rows sorted within a column, explicit zeros
  // dropped.  Entries of free rows are kept; the objective's are in obj.
  std::vector<int32_t> colBegin;  // numCol + 1 entries
  std::vector<int32_t> rowIndex;
  std::vector<double> value;

  // Q as a lower triangle column-wise: the diagonal apart, then for each
  // column the entries of rows below it, sorted.  The objective is
  // c'x + 1/2 x'Qx + objConstant.
  std::vector<double> quadDiag;       // numCol entries
  std::vector<int32_t> quadColBegin;  // numCol + 1 entries
  std::vector<int32_t> quadRowIndex;
  std::vector<double> quadValue;

  bool fixedForm = false;  // how the file was read in the end
  // Things a user may want to hear about that do not stop the reader,
  // each with its line.
  std::vector<std::string> warnings;

  int32_t numRow() const { return (int32_t)rowNames.size(); }
  int32_t numCol() const { return (int32_t)colNames.size(); }
  int32_t numCoef() const { return (int32_t)value.size(); }
  int32_t numQuadCoef() const { return (int32_t)quadValue.size(); }
  int32_t numQuadDiag() const;
  bool isQP() const { return numQuadCoef() > 0 || numQuadDiag() > 0; }
};

struct MpsError {
  std::string file;
  int line = 0;  // 0: about the file as a whole
  std::string reason;
  std::string message() const;  // "FILE:LINE: reason"
};

// Reads a file, gzip or not (zlib tells them apart).  Auto tries free form
// first and falls back to fixed form, which allows names with blanks.
bool readMpsFile(const std::string& path, MpsFormat format, MpsProblem* out, MpsError* error);

// The same on text in memory; fileName is only for the messages.
bool parseMps(const std::string& text, const std::string& fileName, MpsFormat format,
              MpsProblem* out, MpsError* error);

}  // namespace hxcli

#endif
