#include "qprecord.h"

#include <algorithm>
#include <cmath>
#include <climits>

namespace hxcli {

namespace {

// Never hand the solver a null array for an empty part: an LP goes in as a
// QP with a zero Q, and every array is there to be read.
template <typename T>
void sized(std::vector<T>* v, int64_t n, T fill = T()) {
  v->assign((size_t)std::max<int64_t>(n, 1), fill);
}

}  // namespace

bool buildQPRecord(const MpsProblem& p, QPModel* model, std::string* error) {
  QPModel& m = *model;
  const int32_t numRow = p.numRow(), numCol = p.numCol();

  // Rows: senses from the two ends, free rows left out.
  std::vector<int32_t> newRow(numRow, -1);
  m.recordRow.clear();
  m.freeRows.clear();
  m.numRange = 0;
  // A range row's slack runs over the row's width, and a width of
  // kInfinity or more reads as no bound at all, which would silently drop
  // an end.  Such a row (a RANGES value of 1e20 is the usual way to write
  // one) keeps only the end of smaller magnitude: the other lies 1e20 away
  // and cannot bind.
  std::vector<double> rowLower = p.rowLower, rowUpper = p.rowUpper;
  for (int32_t i = 0; i < numRow; ++i) {
    double lo = rowLower[i], up = rowUpper[i];
    if (lo > -kInfinity && up < kInfinity && up - lo >= kInfinity) {
      if (std::fabs(lo) <= std::fabs(up))
        rowUpper[i] = kInfinity;
      else
        rowLower[i] = -kInfinity;
    }
  }
  for (int32_t i = 0; i < numRow; ++i) {
    bool hasLo = rowLower[i] > -kInfinity, hasUp = rowUpper[i] < kInfinity;
    if (!hasLo && !hasUp) {
      m.freeRows.push_back(i);
      continue;
    }
    newRow[i] = (int32_t)m.recordRow.size();
    m.recordRow.push_back(i);
    if (hasLo && hasUp && rowLower[i] != rowUpper[i]) ++m.numRange;
  }
  const int32_t rows = (int32_t)m.recordRow.size();

  int64_t coefs = 0;
  for (int32_t k = 0; k < p.numCoef(); ++k) coefs += newRow[p.rowIndex[k]] >= 0;
  const int64_t cols = (int64_t)numCol + m.numRange;
  if (coefs + m.numRange > INT32_MAX || cols + 1 > INT32_MAX) {
    *error = "the problem is too big for 32-bit indices";
    return false;
  }

  sized(&m.rowSense, rows, 'E');
  sized(&m.rhs, rows, 0.0);
  sized(&m.range, rows, 0.0);
  sized(&m.solDual, rows, 0.0);
  sized(&m.rowActivity, rows, 0.0);
  for (int32_t k = 0; k < rows; ++k) {
    int32_t i = m.recordRow[k];
    double lo = rowLower[i], up = rowUpper[i];
    if (lo == up) {
      m.rowSense[k] = 'E';
      m.rhs[k] = lo;
    } else if (lo > -kInfinity && up < kInfinity) {
      // A range row carries its lower end and its width.
      m.rowSense[k] = 'R';
      m.rhs[k] = lo;
      m.range[k] = up - lo;
    } else if (lo > -kInfinity) {
      m.rowSense[k] = 'G';
      m.rhs[k] = lo;
    } else {
      m.rowSense[k] = 'L';
      m.rhs[k] = up;
    }
  }

  // Columns, with room for the range slacks behind them.
  sized(&m.obj, cols, 0.0);
  sized(&m.lower, cols, 0.0);
  sized(&m.upper, cols, 0.0);
  sized(&m.solPrimal, cols, 0.0);
  sized(&m.quadDiag, cols, 0.0);
  std::copy(p.obj.begin(), p.obj.end(), m.obj.begin());
  std::copy(p.colLower.begin(), p.colLower.end(), m.lower.begin());
  std::copy(p.colUpper.begin(), p.colUpper.end(), m.upper.begin());
  std::copy(p.quadDiag.begin(), p.quadDiag.end(), m.quadDiag.begin());

  m.colBegin.assign((size_t)cols + 1, 0);
  sized(&m.rowIndex, coefs + m.numRange, 0);
  sized(&m.matValue, coefs + m.numRange, 0.0);
  int32_t at = 0;
  for (int32_t j = 0; j < numCol; ++j) {
    m.colBegin[j] = at;
    for (int32_t k = p.colBegin[j]; k < p.colBegin[j + 1]; ++k) {
      int32_t r = newRow[p.rowIndex[k]];
      if (r < 0) continue;
      m.rowIndex[at] = r;
      m.matValue[at] = p.value[k];
      ++at;
    }
  }
  for (int64_t j = numCol; j <= cols; ++j) m.colBegin[j] = at;

  const int32_t quadCoefs = p.numQuadCoef();
  m.quadColBegin.assign((size_t)cols + 1, quadCoefs);
  std::copy(p.quadColBegin.begin(), p.quadColBegin.end(), m.quadColBegin.begin());
  sized(&m.quadRowIndex, quadCoefs, 0);
  sized(&m.quadMatValue, quadCoefs, 0.0);
  std::copy(p.quadRowIndex.begin(), p.quadRowIndex.end(), m.quadRowIndex.begin());
  std::copy(p.quadValue.begin(), p.quadValue.end(), m.quadMatValue.begin());

  QPRecord& r = m.record;
  r = QPRecord{};
  r.objSense = p.objSense;
  r.numRow = rows;
  r.numCol = numCol;
  r.numCoef = at;
  r.numQuadCoef = quadCoefs;
  r.matValue = m.matValue.data();
  r.rowIndex = m.rowIndex.data();
  r.colBegin = m.colBegin.data();
  r.quadDiag = m.quadDiag.data();
  r.quadMatValue = m.quadMatValue.data();
  r.quadRowIndex = m.quadRowIndex.data();
  r.quadColBegin = m.quadColBegin.data();
  r.obj = m.obj.data();
  r.rhs = m.rhs.data();
  r.range = m.range.data();
  r.lower = m.lower.data();
  r.upper = m.upper.data();
  r.rowSense = m.rowSense.data();
  r.solPrimal = m.solPrimal.data();
  r.solDual = m.solDual.data();
  r.rowActivity = m.rowActivity.data();
  r.objConstant = p.objConstant;
  return true;
}

}  // namespace hxcli
