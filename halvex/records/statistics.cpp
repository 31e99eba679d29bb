#include "records/statistics.h"

#include <math.h>
#include <string.h>

#include "frame/qv.h"

namespace {

// Running magnitude figures of one source of numbers.
struct Magnitudes {
  int32_t count = 0;
  double max = 0.0;
  double min = 0.0;
  double sum = 0.0;
  void add(double value, double weight = 1.0) {
    double v = fabs(value);
    if (count == 0 || v > max) max = v;
    if (count == 0 || v < min) min = v;
    sum += weight * v;
    ++count;
  }
};

}  // namespace

int32_t getProbStatistics(HalvexEnv* env, QPRecord* record) {
  ProbStatistics s;
  memset(&s, 0, sizeof(s));
  const int32_t numCol = record->numCol;
  const int32_t numRow = record->numRow;
  if (numCol < 1) {
    record->stats = s;
    return 0;
  }
  s.statNumCol = numCol;
  s.statNumRow = numRow;
  s.statNumCoef = record->numCoef;
  s.statNumQuadCoef = record->numQuadCoef;
  const int32_t* colBegin = record->colBegin;

  if (numRow > 0 && record->numCoef > 0) {
    int32_t* rowCount = poolNew<int32_t>(env->pool, numRow);
    if (!rowCount) return 1;
    Magnitudes mat;
    for (int32_t j = 0; j < numCol; ++j) {
      int32_t length = colBegin[j + 1] - colBegin[j];
      if (j == 0 || length > s.colCountMax) s.colCountMax = length;
      if (j == 0 || length < s.colCountMin) s.colCountMin = length;
      for (int32_t k = colBegin[j]; k < colBegin[j + 1]; ++k) {
        mat.add(record->matValue[k]);
        int32_t row = record->rowIndex[k];
        if (row >= 0 && row < numRow) ++rowCount[row];
      }
    }
    s.matMax = mat.max;
    s.matMin = mat.min;
    s.matAvg = mat.count ? mat.sum / mat.count : 0.0;
    s.rowCountMax = s.rowCountMin = rowCount[0];
    for (int32_t i = 1; i < numRow; ++i) {
      if (rowCount[i] > s.rowCountMax) s.rowCountMax = rowCount[i];
      if (rowCount[i] < s.rowCountMin) s.rowCountMin = rowCount[i];
    }
    Magnitudes rhs;
    if (record->rhs)
      for (int32_t i = 0; i < numRow; ++i)
        if (record->rhs[i] != 0.0) rhs.add(record->rhs[i]);
    s.rhsCount = rhs.count;
    s.rhsMax = rhs.max;
    s.rhsMin = rhs.count ? rhs.min : 0.0;
    s.rhsAvg = rhs.count ? rhs.sum / rhs.count : 0.0;
    poolFree(env->pool, rowCount);
    // Whole numbers on purpose: the host prints these as counts.
    int32_t total = colBegin[numCol];
    s.colCountAvg = (double)(total / numCol);
    s.rowCountAvg = (double)(total / numRow);
  }

  // The off-diagonal entries stand for two entries of Q each.
  Magnitudes quad;
  if (record->numQuadCoef > 0 && record->quadMatValue)
    for (int32_t k = 0; k < record->numQuadCoef; ++k) quad.add(record->quadMatValue[k], 2.0);
  Magnitudes obj;
  int32_t diagCount = 0;
  for (int32_t j = 0; j < numCol; ++j) {
    if (record->quadDiag && record->quadDiag[j] != 0.0) {
      quad.add(record->quadDiag[j]);
      ++diagCount;
    }
    if (record->obj && record->obj[j] != 0.0) obj.add(record->obj[j]);
  }
  s.quadDiagCount = diagCount;
  if (quad.count) {
    s.quadMax = quad.max;
    s.quadMin = quad.min;
    int32_t offDiag = record->numQuadCoef > 0 ? record->numQuadCoef : 0;
    s.quadAvg = quad.sum / (diagCount + 2.0 * offDiag);
  }
  s.objCount = obj.count;
  s.objMax = obj.max;
  s.objMin = obj.count ? obj.min : 0.0;
  s.objAvg = obj.count ? obj.sum / obj.count : 0.0;
  record->stats = s;
  return 0;
}
