// The MPS/QPS reader on fuzz bytes: text in memory (free form, falling back
// to fixed form), and gzip data through a file.  A file it accepts must give
// a problem whose parts agree; a file it refuses must say where.
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "mps.h"

namespace {

[[noreturn]] void finding(const char* what) {
  std::fprintf(stderr, "fuzz finding: %s\n", what);
  std::abort();
}

// Sorted, in range, no explicit zeros, starts that add up.
void checkColumns(const std::vector<int32_t>& begin, const std::vector<int32_t>& index,
                  const std::vector<double>& value, int32_t numCol, int32_t numRow,
                  bool strictLower) {
  if ((int32_t)begin.size() != numCol + 1 || begin[0] != 0 || begin[numCol] != (int32_t)index.size() ||
      index.size() != value.size())
    finding("column starts that do not add up");
  for (int32_t j = 0; j < numCol; j++)
    for (int32_t k = begin[j]; k < begin[j + 1]; k++) {
      if (index[k] < 0 || index[k] >= numRow || (strictLower && index[k] <= j))
        finding("an index out of range");
      if (k > begin[j] && index[k] <= index[k - 1]) finding("indices not ascending");
      if (value[k] == 0.0 || !std::isfinite(value[k])) finding("a zero or non-finite entry kept");
    }
}

void checkProblem(const hxcli::MpsProblem& p) {
  const int32_t m = p.numRow(), n = p.numCol();
  if ((int32_t)p.rowSense.size() != m || (int32_t)p.rowLower.size() != m ||
      (int32_t)p.rowUpper.size() != m || (int32_t)p.hasRange.size() != m ||
      (int32_t)p.obj.size() != n || (int32_t)p.colLower.size() != n ||
      (int32_t)p.colUpper.size() != n || (int32_t)p.quadDiag.size() != n)
    finding("arrays of the wrong length");
  checkColumns(p.colBegin, p.rowIndex, p.value, n, m, false);
  checkColumns(p.quadColBegin, p.quadRowIndex, p.quadValue, n, n, true);
  for (int32_t i = 0; i < m; i++)
    if (std::isnan(p.rowLower[i]) || std::isnan(p.rowUpper[i]) ||
        std::fabs(p.rowLower[i]) > hxcli::kInfinity || std::fabs(p.rowUpper[i]) > hxcli::kInfinity)
      finding("a row end that is NaN or beyond infinity");
  for (int32_t j = 0; j < n; j++)
    if (std::isnan(p.colLower[j]) || std::isnan(p.colUpper[j]) || !std::isfinite(p.obj[j]) ||
        !std::isfinite(p.quadDiag[j]) ||
        std::fabs(p.colLower[j]) > hxcli::kInfinity || std::fabs(p.colUpper[j]) > hxcli::kInfinity)
      finding("a column number that is NaN or beyond infinity");
}

void checkError(const hxcli::MpsError& e, const std::string& file, size_t lines) {
  if (e.file != file || e.reason.empty()) finding("an error without the file or a reason");
  if (e.line < 0 || (size_t)e.line > lines + 1) finding("an error on a line the file lacks");
  if (e.message().find(file) != 0) finding("a message that does not begin with the file");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  hxcli::MpsProblem p;
  hxcli::MpsError e;
  if (size >= 2 && data[0] == 0x1f && data[1] == 0x8b) {
    static const std::string path = "/tmp/halvex-fuzz-" + std::to_string(getpid()) + ".mps.gz";
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) return 0;
    std::fwrite(data, 1, size, f);
    std::fclose(f);
    const bool ok = hxcli::readMpsFile(path, hxcli::MpsFormat::Auto, &p, &e);
    if (ok) checkProblem(p);
    // The line count of gzip data is unknown here: only the file is checked.
    else if (e.file != path || e.reason.empty()) finding("an error without the file or a reason");
    return 0;
  }
  const size_t lines = std::count(text.begin(), text.end(), '\n') + 1;
  if (hxcli::parseMps(text, "fuzz.mps", hxcli::MpsFormat::Auto, &p, &e))
    checkProblem(p);
  else
    checkError(e, "fuzz.mps", lines);
  return 0;
}
