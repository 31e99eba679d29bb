#include "util/sparse.h"

void copyMatrix(int32_t numMajor, const int32_t* begin, const int32_t* length,
                const int32_t* index, const double* value, int32_t* outBegin,
                int32_t* outLength, int32_t* outIndex, double* outValue) {
  int32_t pos = 0;
  for (int32_t j = 0; j < numMajor; ++j) {
    outBegin[j] = pos;
    outLength[j] = length[j];
    const int32_t end = begin[j] + length[j];
    for (int32_t k = begin[j]; k < end; ++k, ++pos) {
      outIndex[pos] = index[k];
      outValue[pos] = value[k];
    }
  }
}

void toggleMatrix(int32_t numMajor, int32_t numMinor, int32_t numCoef, const int32_t* begin,
                  const int32_t* index, const double* value, int32_t* outBegin,
                  int32_t* outIndex, double* outValue) {
  if (begin == nullptr || outBegin == nullptr) return;
  for (int32_t i = 0; i <= numMinor; ++i) outBegin[i] = 0;
  for (int32_t k = 0; k < numCoef; ++k) outBegin[index[k]]++;
  int32_t sum = 0;
  for (int32_t i = 0; i < numMinor; ++i) {
    const int32_t count = outBegin[i];
    outBegin[i] = sum;
    sum += count;
  }
  outBegin[numMinor] = sum;
  // The scatter advances outBegin[i] to the start of minor i + 1; shifting
  // by one afterwards gives the starts back without a second array.
  for (int32_t j = 0; j < numMajor; ++j) {
    for (int32_t k = begin[j]; k < begin[j + 1]; ++k) {
      const int32_t pos = outBegin[index[k]]++;
      outIndex[pos] = j;
      outValue[pos] = value[k];
    }
  }
  for (int32_t i = numMinor; i >= 1; --i) outBegin[i] = outBegin[i - 1];
  outBegin[0] = 0;
}

void toggleMatrixWithLength(int32_t numMajor, int32_t numMinor, const int32_t* skipMap,
                            const int32_t* begin, const int32_t* length,
                            const int32_t* index, const double* value, int32_t* outBegin,
                            int32_t* outLength, int32_t* outIndex, double* outValue) {
  if (begin == nullptr || length == nullptr || outBegin == nullptr || outLength == nullptr)
    return;
  for (int32_t i = 0; i <= numMinor; ++i) outBegin[i] = 0;
  for (int32_t j = 0; j < numMajor; ++j) {
    if (skipMap != nullptr && skipMap[j] < 0) continue;
    const int32_t end = begin[j] + length[j];
    for (int32_t k = begin[j]; k < end; ++k) outBegin[index[k]]++;
  }
  int32_t sum = 0;
  for (int32_t i = 0; i < numMinor; ++i) {
    const int32_t count = outBegin[i];
    outBegin[i] = sum;
    sum += count;
  }
  outBegin[numMinor] = sum;
  for (int32_t j = 0; j < numMajor; ++j) {
    if (skipMap != nullptr && skipMap[j] < 0) continue;
    const int32_t end = begin[j] + length[j];
    for (int32_t k = begin[j]; k < end; ++k) {
      const int32_t pos = outBegin[index[k]]++;
      outIndex[pos] = j;
      outValue[pos] = value[k];
    }
  }
  for (int32_t i = numMinor; i >= 1; --i) outBegin[i] = outBegin[i - 1];
  outBegin[0] = 0;
  for (int32_t i = 0; i < numMinor; ++i) outLength[i] = outBegin[i + 1] - outBegin[i];
}

void augmentMatrix(int32_t numDim, int32_t numCol, int32_t* begin, int32_t* index,
                   double* value) {
  // The counters live in begin[numCol ..], so begin[numCol], the end of the
  // last given column, is kept aside first.
  const int32_t base = begin[numCol];
  for (int32_t r = numCol; r < numDim; ++r) begin[r] = 1;
  for (int32_t j = 0; j < numCol; ++j) {
    const int32_t end = j + 1 < numCol ? begin[j + 1] : base;
    for (int32_t k = begin[j] + 1; k < end; ++k) begin[index[k]]++;
  }
  int32_t sum = 0;
  for (int32_t r = numCol; r < numDim; ++r) {
    const int32_t count = begin[r];
    begin[r] = sum;
    sum += count;
  }
  for (int32_t j = 0; j < numCol; ++j) {
    const int32_t end = j + 1 < numCol ? begin[j + 1] : base;
    for (int32_t k = begin[j] + 1; k < end; ++k) {
      const int32_t pos = base + begin[index[k]]++;
      index[pos] = j;
      value[pos] = value[k];
    }
  }
  // Backwards, so that begin[r + 1] is read as a fill pointer before it is
  // overwritten as a start.
  for (int32_t r = numDim - 1; r >= numCol; --r) {
    const int32_t pos = base + begin[r];
    index[pos] = r;
    value[pos] = 0.0;
    begin[r + 1] = pos + 1;
  }
  begin[numCol] = base;
}

void removeElement(HalvexEnv* env, int32_t minor, int32_t major, const int32_t* begin,
                   int32_t* length, int32_t* index, double* value) {
  const int32_t start = begin[major];
  const int32_t end = start + length[major];
  int32_t k = start;
  while (k < end && index[k] != minor) ++k;
  if (k == end && env != nullptr && env->textLog != nullptr)
    env->textLog("Error removeElement: minor %d not found in major %d\n", minor, major);
  // A missing entry still rotates the slot behind the live part into the
  // last live one; on an empty major there is no such slot to write, and
  // writing before the major would damage its neighbour.
  if (end > start) {
    const int32_t keptIndex = index[k];
    const double keptValue = value != nullptr ? value[k] : 0.0;
    for (int32_t m = k; m < end - 1; ++m) index[m] = index[m + 1];
    index[end - 1] = keptIndex;
    if (value != nullptr) {
      for (int32_t m = k; m < end - 1; ++m) value[m] = value[m + 1];
      value[end - 1] = keptValue;
    }
  }
  length[major]--;
}

void matrixTimesVector(int32_t numRow, int32_t numCol, const int32_t* begin,
                       const int32_t* length, const int32_t* index, const double* value,
                       const double* x, double* y) {
  for (int32_t i = 0; i < numRow; ++i) y[i] = 0.0;
  for (int32_t j = 0; j < numCol; ++j) {
    const int32_t end = length != nullptr ? begin[j] + length[j] : begin[j + 1];
    const double xj = x[j];
    for (int32_t k = begin[j]; k < end; ++k) y[index[k]] += xj * value[k];
  }
}

void vectorTimesMatrix(int32_t numCol, const int32_t* begin, const int32_t* length,
                       const int32_t* index, const double* value, const double* x, double* y) {
  for (int32_t j = 0; j < numCol; ++j) {
    double sum = 0.0;
    const int32_t end = begin[j] + length[j];
    for (int32_t k = begin[j]; k < end; ++k) sum += value[k] * x[index[k]];
    y[j] = sum;
  }
}

void symmatrixTimesVector(int32_t numDim, const int32_t* begin, const int32_t* length,
                          const int32_t* index, const double* value, const double* diag,
                          const double* x, double* y, double alpha) {
  if (alpha == 0.0) return;
  const bool offDiag = begin != nullptr && length != nullptr;
  // Plus and minus one are the residual updates; they get loops of their own
  // so that their sums are not disturbed by a multiplication by alpha.
  if (alpha == 1.0) {
    for (int32_t i = 0; i < numDim; ++i) {
      y[i] += diag[i] * x[i];
      if (!offDiag) continue;
      const int32_t end = begin[i] + length[i];
      for (int32_t k = begin[i]; k < end; ++k) {
        const int32_t r = index[k];
        y[r] += x[i] * value[k];
        y[i] += value[k] * x[r];
      }
    }
  } else if (alpha == -1.0) {
    for (int32_t i = 0; i < numDim; ++i) {
      y[i] -= diag[i] * x[i];
      if (!offDiag) continue;
      const int32_t end = begin[i] + length[i];
      for (int32_t k = begin[i]; k < end; ++k) {
        const int32_t r = index[k];
        y[r] -= x[i] * value[k];
        y[i] -= value[k] * x[r];
      }
    }
  } else {
    for (int32_t i = 0; i < numDim; ++i) {
      y[i] += alpha * diag[i] * x[i];
      if (!offDiag) continue;
      const int32_t end = begin[i] + length[i];
      for (int32_t k = begin[i]; k < end; ++k) {
        const int32_t r = index[k];
        y[r] += alpha * x[i] * value[k];
        y[i] += alpha * value[k] * x[r];
      }
    }
  }
}

double calcQuadForm(int32_t numDim, const int32_t* begin, const int32_t* length,
                    const int32_t* index, const double* value, const double* diag,
                    const double* x) {
  double sum = 0.0;
  for (int32_t i = 0; i < numDim; ++i) sum += 0.5 * diag[i] * x[i] * x[i];
  if (begin == nullptr || length == nullptr) return sum;
  // Each off-diagonal pair is stored once and stands for both of its terms,
  // which cancels the half.
  for (int32_t i = 0; i < numDim; ++i) {
    const int32_t end = begin[i] + length[i];
    for (int32_t k = begin[i]; k < end; ++k) sum += value[k] * x[i] * x[index[k]];
  }
  return sum;
}

void regMatDiag(int32_t numFirst, int32_t numSecond, double* diag, const int32_t* firstIndex,
                const int32_t* secondIndex, double delta) {
  // Small entries of either sign go to -delta in both lists alike: the
  // variable block of a QP start can be negative too, so no block gets a
  // sign of its own.
  for (int32_t k = 0; k < numFirst; ++k) {
    const int32_t p = firstIndex[k];
    if (diag[p] < delta) diag[p] = diag[p] < -delta ? diag[p] : -delta;
  }
  for (int32_t k = 0; k < numSecond; ++k) {
    const int32_t p = secondIndex[k];
    if (diag[p] < delta) diag[p] = diag[p] < -delta ? diag[p] : -delta;
  }
}

void printMatrix(HalvexEnv* env, int32_t numMajor, const int32_t* begin, const int32_t* index,
                 const double* value) {
  if (env == nullptr || env->textLog == nullptr) return;
  for (int32_t j = 0; j < numMajor; ++j) {
    env->textLog("  \n");
    for (int32_t k = begin[j]; k < begin[j + 1]; ++k)
      env->textLog("mat(%d, %d) = %15.7g\n", index[k], j, value[k]);
  }
}

void printMatrixWithLength(HalvexEnv* env, int32_t numMajor, const int32_t* begin,
                           const int32_t* length, const int32_t* index, const double* value) {
  if (env == nullptr || env->textLog == nullptr) return;
  for (int32_t j = 0; j < numMajor; ++j) {
    env->textLog("  \n");
    const int32_t end = begin[j] + length[j];
    for (int32_t k = begin[j]; k < end; ++k)
      env->textLog("mat(%d, %d) = %15.7g\n", index[k], j, value[k]);
  }
}
