// The magnitude histogram: decimal bins of absolute values, their quantiles
// and the outlier screen on which scaling and the sub-model decide.
#include "ipm/histogram.h"

#include <math.h>

namespace {

inline int32_t colEnd(const int32_t* colBegin, const int32_t* colLength, int32_t j) {
  return colLength ? colBegin[j] + colLength[j] : colBegin[j + 1];
}

void addToBin(double v, int32_t* lowCount, const double* lowBreak, int32_t* highCount,
              const double* highBreak) {
  if (v <= 1.0) {
    for (int32_t i = 0; i < HIST_LAST; i++) {
      if (v > lowBreak[i + 1]) {
        lowCount[i]++;
        return;
      }
    }
    lowCount[HIST_LAST]++;
    return;
  }
  for (int32_t i = 0; i < HIST_LAST; i++) {
    if (v <= highBreak[i + 1]) {
      highCount[i]++;
      return;
    }
  }
  highCount[HIST_LAST]++;
}

}  // namespace

void initDistribution(int32_t* lowCount, double* lowBreak, int32_t* highCount,
                      double* highBreak) {
  // Running products on purpose: the bins are defined by these very numbers,
  // and every user compares against them, never against exact powers of ten.
  lowBreak[0] = highBreak[0] = 1.0;
  for (int32_t i = 1; i < HIST_BINS; i++) {
    lowBreak[i] = lowBreak[i - 1] * 0.1;
    highBreak[i] = highBreak[i - 1] * 10.0;
  }
  clearDistributionCounts(lowCount, highCount);
}

void getMatrixDistribution(HalvexEnv* /*env*/, int32_t numCol, const int32_t* colBegin,
                           const int32_t* colLength, const double* matValue, int32_t* lowCount,
                           const double* lowBreak, int32_t* highCount, const double* highBreak) {
  for (int32_t j = 0; j < numCol; j++) {
    int32_t end = colEnd(colBegin, colLength, j);
    for (int32_t p = colBegin[j]; p < end; p++)
      addToBin(fabs(matValue[p]), lowCount, lowBreak, highCount, highBreak);
  }
}

void getVectorDistribution(HalvexEnv* /*env*/, int32_t length, const double* vector,
                           int32_t* numNonzero, int32_t* lowCount, const double* lowBreak,
                           int32_t* highCount, const double* highBreak) {
  int32_t n = 0;
  for (int32_t i = 0; i < length; i++) {
    if (vector[i] == 0.0) continue;
    addToBin(fabs(vector[i]), lowCount, lowBreak, highCount, highBreak);
    n++;
  }
  *numNonzero = n;
}

void getQuadDistribution(double multiplier, HalvexEnv* /*env*/, int32_t length,
                         const double* diag, int32_t* numNonzero, const double* x,
                         int32_t* lowCount, const double* lowBreak, int32_t* highCount,
                         const double* highBreak) {
  int32_t n = 0;
  for (int32_t i = 0; i < length; i++) {
    if (diag[i] == 0.0) continue;
    addToBin(fabs(diag[i] * multiplier * x[i] * x[i]), lowCount, lowBreak, highCount,
             highBreak);
    n++;
  }
  *numNonzero = n;
}

double getPercentile(double fraction, int32_t count, int32_t mode, int32_t* binCount,
                     const int32_t* lowCount, const double* lowBreak, const int32_t* highCount,
                     const double* highBreak) {
  if (count < 1) {
    if (binCount) *binCount = 0;
    return 0.0;
  }
  int64_t target = (int64_t)(count * fraction);
  int64_t accumulated = 0;
  double lower = 0.0, upper = 0.0;
  int64_t inBin = -1;
  for (int32_t k = HIST_LAST; k >= 0 && inBin < 0; k--) {
    if (target < accumulated + lowCount[k]) {
      inBin = lowCount[k];
      lower = lowBreak[k + 1];
      upper = lowBreak[k];
    } else {
      accumulated += lowCount[k];
    }
  }
  for (int32_t k = 0; k < HIST_LAST && inBin < 0; k++) {
    if (target < accumulated + highCount[k]) {
      inBin = highCount[k];
      lower = highBreak[k];
      upper = highBreak[k + 1];
    } else {
      accumulated += highCount[k];
    }
  }
  if (inBin < 0) {
    inBin = highCount[HIST_LAST];
    lower = highBreak[HIST_LAST];
    upper = highBreak[HIST_LAST + 1];
  }
  switch (mode) {
    case 0:
      // A fraction of 1 or more can run past the last value into an empty
      // catch-all bin; its lower edge is then the honest answer.
      if (inBin == 0) return lower;
      return (upper - lower) * (double)(target - accumulated) / (double)inBin + lower;
    case 1:
      if (binCount) *binCount = (int32_t)(count - accumulated - inBin);
      return upper;
    case 2:
      if (binCount) *binCount = (int32_t)accumulated;
      return lower;
    default:
      if (binCount) *binCount = 0;
      return 0.0;
  }
}

int32_t countOutlier(HalvexEnv* /*env*/, int32_t count, int32_t* numLeft, int32_t* numRight,
                     double* largeCut, double* smallCut, const int32_t* lowCount,
                     const double* lowBreak, const int32_t* highCount, const double* highBreak) {
  *numLeft = *numRight = 0;
  if (count < 1) {
    *smallCut = 1e-15;
    *largeCut = 1e15;
    return 0;
  }
  // A cut is written only when a tail takes a bin; until then the cuts must
  // mark nothing, magnitudes being never negative nor above infinity.
  *smallCut = -1.0;
  *largeCut = HUGE_VAL;

  double q1 = getPercentile(0.25, count, 0, nullptr, lowCount, lowBreak, highCount, highBreak);
  double q3 = getPercentile(0.75, count, 0, nullptr, lowCount, lowBreak, highCount, highBreak);
  int32_t lowExp = (int32_t)floor(log10(q1));
  int32_t highExp = (int32_t)ceil(log10(q3));
  int32_t spread = highExp - lowExp;
  // Narrow data get a wide margin.
  int32_t margin = (spread >= 0 && spread <= 2) ? 3 : (spread >= 3 && spread <= 5) ? 2 : 1;
  int32_t lowLimit = lowExp - margin;
  if (lowLimit < -HIST_LAST) lowLimit = -HIST_LAST;
  int32_t highLimit = highExp + margin;
  if (highLimit > HIST_LAST) highLimit = HIST_LAST;
  int64_t limit = (int64_t)(count * 0.05);

  // Small tail, from the outermost low bin inward.
  int64_t small = 0;
  if (lowCount[HIST_LAST] <= limit) {
    int32_t stop = -lowLimit < 0 ? 0 : -lowLimit;
    bool passedZero = false;
    for (int32_t k = HIST_LAST; k >= stop; k--) {
      small += lowCount[k];
      *smallCut = lowBreak[k];
      if (k == 0) {
        passedZero = true;
        break;
      }
      if (k - 1 >= stop && small + lowCount[k - 1] > limit) break;
    }
    if (passedZero && lowLimit > 0) {
      for (int32_t k = 0; k < lowLimit && small + highCount[k] <= limit; k++) {
        small += highCount[k];
        *smallCut = highBreak[k + 1];
      }
    }
  }

  // Large tail, the mirror image.
  int64_t large = 0;
  if (highCount[HIST_LAST] <= limit) {
    int32_t stop = highLimit < 0 ? 0 : highLimit;
    bool passedZero = false;
    for (int32_t k = HIST_LAST; k >= stop; k--) {
      large += highCount[k];
      *largeCut = highBreak[k];
      if (k == 0) {
        passedZero = true;
        break;
      }
      if (k - 1 >= stop && large + highCount[k - 1] > limit) break;
    }
    if (passedZero && highLimit < 0) {
      for (int32_t k = 0; k < -highLimit && large + lowCount[k] <= limit; k++) {
        large += lowCount[k];
        *largeCut = lowBreak[k + 1];
      }
    }
  }

  *numLeft = (int32_t)large;
  *numRight = (int32_t)small;
  return *numLeft + *numRight;
}

void clearDistributionCounts(int32_t* lowCount, int32_t* highCount) {
  for (int32_t i = 0; i < HIST_BINS; i++) lowCount[i] = highCount[i] = 0;
}
