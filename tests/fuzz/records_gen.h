// Host records made from fuzz bytes, for the harnesses of the two entries:
// small sizes, counts that may be negative, numbers from the corners of the
// double range, indices out of range, unsorted and repeated, column starts
// that do not add up.  Whether a record is malformed is decided here from the
// host's side of the contract, not by asking the module.
#ifndef HALVEX_TESTS_FUZZ_RECORDS_GEN_H
#define HALVEX_TESTS_FUZZ_RECORDS_GEN_H

#include <fuzzer/FuzzedDataProvider.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <vector>

namespace hxfuzz {

// Numbers the entries must refuse beyond this magnitude.
constexpr double kMaxMagnitude = 1.3407807929943e+151;

inline double pickNumber(FuzzedDataProvider& in, bool bound = false) {
  switch (in.ConsumeIntegralInRange<int>(0, 15)) {
    case 0: return std::numeric_limits<double>::quiet_NaN();
    case 1: return std::numeric_limits<double>::infinity();
    case 2: return -std::numeric_limits<double>::infinity();
    case 3: return in.ConsumeBool() ? 1e300 : -1e300;
    case 4: return in.ConsumeBool() ? 1e20 : -1e20;
    case 5: return in.ConsumeBool() ? kMaxMagnitude : 4.9e-324;
    case 6: return 0.0;
    case 7: return in.ConsumeFloatingPoint<double>();
    case 8: return bound ? (in.ConsumeBool() ? -1e20 : 1e20) : 1.0;
    default: return in.ConsumeIntegralInRange<int>(-20, 20) * 0.5;
  }
}

// The arrays behind one record.  Column arrays have a place for every row's
// slack behind the columns, A an entry per row, as the host guide asks.
struct Arrays {
  int32_t numRow = 0, numCol = 0, numCoef = 0, numQuadCoef = 0, objSense = 1;
  std::vector<int32_t> colBegin, colLength, rowIndex, quadColBegin, quadRowIndex;
  std::vector<double> matValue, quadDiag, quadMatValue, obj, rhs, range, lower, upper;
  std::vector<char> rowSense;
  std::vector<double> solPrimal, solDual, rowActivity, reducedCost;
  bool nullColBegin = false, nullRange = false;
  double objConstant = 0.0;
};

inline void fill(FuzzedDataProvider& in, std::vector<double>* v, size_t n, bool bound = false) {
  v->assign(n + 1, 0.0);
  for (size_t k = 0; k < n; k++) (*v)[k] = pickNumber(in, bound);
}

// A column-wise pattern over numCol columns with rows in [0, numRow): mostly
// well formed, now and then with a row out of range, an entry repeated, rows
// out of order, or starts that do not agree with the count.
inline void pattern(FuzzedDataProvider& in, int32_t numCol, int32_t numRow, int32_t room,
                    std::vector<int32_t>* begin, std::vector<int32_t>* index, int32_t* count) {
  begin->assign((size_t)std::max(numCol, 0) + room + 1, 0);
  index->clear();
  for (int32_t j = 0; j < numCol; j++) {
    (*begin)[j] = (int32_t)index->size();
    const int n = in.ConsumeIntegralInRange<int>(0, std::max(numRow, 0) + 1);
    for (int k = 0; k < n; k++) {
      int32_t r = numRow > 0 ? in.ConsumeIntegralInRange<int32_t>(0, numRow - 1) : 0;
      if (in.ConsumeIntegralInRange<int>(0, 40) == 0) r = in.ConsumeBool() ? -1 : numRow;
      index->push_back(r);
    }
  }
  for (int32_t j = std::max(numCol, 0); j < (int32_t)begin->size(); j++)
    (*begin)[j] = (int32_t)index->size();
  *count = (int32_t)index->size();
  switch (in.ConsumeIntegralInRange<int>(0, 30)) {
    case 0: *count += in.ConsumeBool() ? 1 : -1; break;
    case 1:
      if (numCol > 1) std::swap((*begin)[0], (*begin)[1]), (*begin)[0] += 1;
      break;
    case 2: *count = -1; break;
    default: break;
  }
  index->resize(index->size() + room + 1, 0);
}

inline void make(FuzzedDataProvider& in, Arrays* a, bool quadratic) {
  a->numRow = in.ConsumeIntegralInRange<int32_t>(-1, 6);
  a->numCol = in.ConsumeIntegralInRange<int32_t>(-1, 6);
  a->objSense = in.ConsumeBool() ? 1 : -1;
  const int32_t rows = std::max(a->numRow, 0), cols = std::max(a->numCol, 0);
  const int32_t room = rows;
  a->rowSense.assign(rows + 1, 'E');
  for (int32_t i = 0; i < rows; i++) a->rowSense[i] = "EGLRNRGLx"[in.ConsumeIntegralInRange<int>(0, 8)];
  fill(in, &a->rhs, rows);
  fill(in, &a->range, rows);
  fill(in, &a->obj, cols + room);
  fill(in, &a->lower, cols + room, true);
  fill(in, &a->upper, cols + room, true);
  pattern(in, a->numCol, a->numRow, room, &a->colBegin, &a->rowIndex, &a->numCoef);
  fill(in, &a->matValue, a->rowIndex.size());
  a->colLength.assign(cols + room + 1, 0);
  for (int32_t j = 0; j < cols; j++) a->colLength[j] = a->colBegin[j + 1] - a->colBegin[j];
  a->nullColBegin = a->numCoef == 0 && in.ConsumeBool();
  a->nullRange = in.ConsumeIntegralInRange<int>(0, 8) == 0;
  if (quadratic) {
    fill(in, &a->quadDiag, cols + room);
    if (in.ConsumeBool()) {
      pattern(in, a->numCol, a->numCol, room, &a->quadColBegin, &a->quadRowIndex, &a->numQuadCoef);
    } else {
      a->quadColBegin.assign(cols + room + 1, 0);
      a->quadRowIndex.assign(1, 0);
      a->numQuadCoef = 0;
    }
    fill(in, &a->quadMatValue, a->quadRowIndex.size());
  }
  a->objConstant = pickNumber(in);
  a->solPrimal.assign(cols + room + 1, 7.0);
  a->solDual.assign(rows + 1, 7.0);
  a->rowActivity.assign(rows + 1, 7.0);
  a->reducedCost.assign(cols + room + 1, 7.0);
}

inline bool outside(double v) { return std::isnan(v) || std::fabs(v) > kMaxMagnitude; }

// Malformed for both entries: what no solve can make sense of.
inline bool structureBad(const Arrays& a, bool lp) {
  if (a.numRow < 0 || a.numCol < 0 || a.numCoef < 0 || a.numQuadCoef < 0) return true;
  for (int32_t i = 0; i < a.numRow; i++) {
    const char s = a.rowSense[i];
    if (s != 'E' && s != 'G' && s != 'L' && s != 'R' && s != 'N') return true;
    if (s == 'R' && a.nullRange) return true;
    if (std::isnan(a.rhs[i]) || (s == 'R' && std::isnan(a.range[i]))) return true;
  }
  for (int32_t j = 0; j < a.numCol; j++)
    if (std::isnan(a.obj[j]) || std::isnan(a.lower[j]) || std::isnan(a.upper[j])) return true;
  if (lp) {
    if (a.nullColBegin) return a.numCol > 0;
    // The LP form gives each column's length; the starts need not add up.
    for (int32_t j = 0; j < a.numCol; j++) {
      if (a.colBegin[j] < 0 || a.colLength[j] < 0) return true;
      for (int32_t p = a.colBegin[j]; p < a.colBegin[j] + a.colLength[j]; p++)
        if (a.rowIndex[p] < 0 || a.rowIndex[p] >= a.numRow || !std::isfinite(a.matValue[p]))
          return true;
    }
    return false;
  }
  if (!a.nullColBegin) {
    if (a.colBegin[0] != 0 || a.colBegin[a.numCol] != a.numCoef) return true;
    for (int32_t j = 0; j < a.numCol; j++)
      if (a.colBegin[j + 1] < a.colBegin[j]) return true;
    for (int32_t k = 0; k < a.numCoef; k++)
      if (a.rowIndex[k] < 0 || a.rowIndex[k] >= a.numRow) return true;
  }
  if (a.numQuadCoef > 0) {
    if (a.quadColBegin[0] != 0 || a.quadColBegin[a.numCol] != a.numQuadCoef) return true;
    for (int32_t j = 0; j < a.numCol; j++)
      if (a.quadColBegin[j + 1] < a.quadColBegin[j]) return true;
    for (int32_t k = 0; k < a.numQuadCoef; k++)
      if (a.quadRowIndex[k] < 0 || a.quadRowIndex[k] >= a.numCol) return true;
  }
  return false;
}

// The QP entry also refuses numbers beyond kMaxMagnitude, an R row's ends
// included.
inline bool qpNumbersBad(const Arrays& a) {
  for (int32_t j = 0; j < a.numCol; j++)
    if (outside(a.obj[j]) || outside(a.quadDiag[j])) return true;
  for (int32_t k = 0; k < a.numCoef; k++)
    if (outside(a.matValue[k])) return true;
  for (int32_t k = 0; k < a.numQuadCoef; k++)
    if (outside(a.quadMatValue[k])) return true;
  for (int32_t i = 0; i < a.numRow; i++) {
    const bool ranged = a.rowSense[i] == 'R';
    if (outside(ranged ? a.rhs[i] + a.range[i] : a.rhs[i])) return true;
    if (ranged && outside(a.range[i])) return true;
  }
  return false;
}

// Bitwise equality, so that NaN equals itself and -0 differs from 0.
template <typename T>
bool same(const std::vector<T>& x, const std::vector<T>& y) {
  return x.size() == y.size() && std::memcmp(x.data(), y.data(), x.size() * sizeof(T)) == 0;
}

// The record as it came, for the report of a finding.
inline void dump(const Arrays& a) {
  std::fprintf(stderr, "rows %d cols %d coefs %d quad %d sense %d nullColBegin %d nullRange %d\n",
               a.numRow, a.numCol, a.numCoef, a.numQuadCoef, a.objSense, a.nullColBegin,
               a.nullRange);
  for (int32_t i = 0; i < a.numRow; i++)
    std::fprintf(stderr, "row %d: %c rhs %.17g range %.17g\n", i, a.rowSense[i], a.rhs[i],
                 a.range[i]);
  for (int32_t j = 0; j < a.numCol; j++) {
    std::fprintf(stderr, "col %d: obj %.17g [%.17g, %.17g] q %.17g:", j, a.obj[j], a.lower[j],
                 a.upper[j], a.quadDiag.empty() ? 0.0 : a.quadDiag[j]);
    for (int32_t p = a.colBegin[j]; p < a.colBegin[j] + a.colLength[j]; p++)
      std::fprintf(stderr, " %d:%.17g", a.rowIndex[p], a.matValue[p]);
    std::fprintf(stderr, "\n");
  }
  for (int32_t k = 0; k < a.numQuadCoef; k++)
    std::fprintf(stderr, "q %d: row %d %.17g\n", k, a.quadRowIndex[k], a.quadMatValue[k]);
}

// The record of the input in hand, shown with a finding.
inline const Arrays*& shown() {
  static const Arrays* record = nullptr;
  return record;
}

[[noreturn]] inline void finding(const char* what) {
  if (shown()) dump(*shown());
  std::fprintf(stderr, "fuzz finding: %s\n", what);
  std::abort();
}

}  // namespace hxfuzz

#endif
