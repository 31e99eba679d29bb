// An LP in the caller's form, built row by row and column by column, with the
// LPRecord that refers to its arrays.  The sibling tests share it.
#pragma once

#include <cstring>
#include <utility>
#include <vector>

#include "records/host_records.h"

namespace hxtest {

constexpr double kLpInf = 1e20;

struct TestLP {
  int sense = 1;
  int m = 0, n = 0;
  std::vector<double> obj, lower, upper, rhs, range, val;
  std::vector<char> rowSense;
  std::vector<int32_t> colBegin{0}, colLength, rowIndex;
  double objConstant = 0.0;
  std::vector<double> x, y, z, act;
  LPRecord rec;

  int addRow(char s, double b, double w = 0.0) {
    rowSense.push_back(s);
    rhs.push_back(b);
    range.push_back(w);
    return m++;
  }
  // entries: (row, value)
  int addCol(double c, double lo, double up, std::vector<std::pair<int, double>> entries) {
    obj.push_back(c);
    lower.push_back(lo);
    upper.push_back(up);
    for (auto& e : entries) {
      rowIndex.push_back(e.first);
      val.push_back(e.second);
    }
    colLength.push_back((int32_t)entries.size());
    colBegin.push_back((int32_t)rowIndex.size());
    return n++;
  }
  // The row's interval, with kLpInf for a missing end.
  void rowBounds(int i, double* lo, double* hi) const {
    *lo = -kLpInf;
    *hi = kLpInf;
    switch (rowSense[i]) {
      case 'E': *lo = *hi = rhs[i]; break;
      case 'G': *lo = rhs[i]; break;
      case 'L': *hi = rhs[i]; break;
      case 'R': *lo = rhs[i]; *hi = rhs[i] + range[i]; break;
      default: break;
    }
  }
  // The record over these arrays, with room behind the columns and entries
  // for `spare` slacks (the LP entry adds one per range row); the results
  // start at -7 so that what is not written shows.  Adds no column after it.
  LPRecord* record(int spare = 0) {
    const int32_t nnz = (int32_t)rowIndex.size();
    colBegin.resize(n + 1 + spare, nnz);
    colLength.resize(n + spare, 0);
    for (auto* v : {&obj, &lower, &upper}) v->resize(n + spare, 0.0);
    val.resize(nnz + spare, 0.0);
    rowIndex.resize(nnz + spare, 0);
    x.assign(n + 1 + spare, -7.0);
    y.assign(m + 1, -7.0);
    z.assign(n + 1 + spare, -7.0);
    act.assign(m + 1, -7.0);
    std::memset(&rec, 0, sizeof(rec));
    rec.objSense = sense, rec.numRow = m, rec.numCol = n;
    rec.numCoef = nnz, rec.objConstant = objConstant;
    rec.matValue = val.data(), rec.rowIndex = rowIndex.data(), rec.colBegin = colBegin.data();
    rec.colLength = colLength.data(), rec.obj = obj.data(), rec.rhs = rhs.data();
    rec.range = range.data(), rec.lower = lower.data(), rec.upper = upper.data();
    rec.rowSense = rowSense.data(), rec.solPrimal = x.data(), rec.solDual = y.data();
    rec.reducedCost = z.data(), rec.rowActivity = act.data();
    return &rec;
  }
};

}  // namespace hxtest
