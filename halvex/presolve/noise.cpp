// Noise removal for the equation solver.  The matrices it sees are computed
// by the solver, and cancellation leaves entries that are tiny next to the
// rest and separated from it by empty decades.  The LP and QP presolver never
// drops a coefficient; only the equation solver calls this.
#include "presolve/eqnsolve.h"
#include "presolve/internal.h"
#include "util/sparse.h"

namespace {

const int kNumBins = 20;
// The walk from the smallest entries has to get past this bin before an
// empty one counts as a gap: entries above 1e-7 are never noise.
const int kFirstNoiseBin = 7;

// Bin k holds b[k+1] < v <= b[k]; bin 0 everything above b[1], the last bin
// everything at or below its own break.
int binOf(double v, const double* breaks) {
  for (int k = 0; k < kNumBins - 1; k++)
    if (v > breaks[k + 1]) return k;
  return kNumBins - 1;
}

}  // namespace

void detectNoise(HalvexEnv* /*env*/, ipmModel* model, presolver* pre) {
  pre->noiseThreshold = 1e20;
  double breaks[kNumBins];
  int64_t count[kNumBins];
  breaks[0] = 1.0;
  for (int k = 1; k < kNumBins; k++) breaks[k] = breaks[k - 1] * 0.1;
  for (int k = 0; k < kNumBins; k++) count[k] = 0;

  for (int32_t j = 0; j < model->numCol; j++) {
    if (pre->colMap && pre->colMap[j] < 0) continue;
    const int32_t begin = pre->colBegin[j], end = begin + pre->colLength[j];
    for (int32_t p = begin; p < end; p++) count[binOf(fabs(pre->matValue[p]), breaks)]++;
  }

  int smallest = kNumBins - 1;
  while (smallest >= 0 && count[smallest] == 0) smallest--;
  // An empty matrix, or one whose smallest entry is above 1e-7.
  if (smallest < kFirstNoiseBin) return;

  int64_t sum = 0;
  int k = smallest;
  while (k >= 0 && count[k] > 0) sum += count[k--];
  if (k >= kFirstNoiseBin) {
    pre->noiseThreshold = breaks[k];
    pre->numRemovedElement += (int32_t)sum;
    return;
  }
  // The small entries join up with the bulk; only the last bin, far below
  // any sensible magnitude, goes regardless.
  if (count[kNumBins - 1] > 0) {
    pre->noiseThreshold = breaks[kNumBins - 1];
    pre->numRemovedElement += (int32_t)count[kNumBins - 1];
  }
}

int32_t removeNoiseA(HalvexEnv* env, ipmModel* model, presolver* pre) {
  const double threshold = pre->noiseThreshold;
  for (int32_t j = 0; j < model->numCol; j++) {
    if (pre->colMap && pre->colMap[j] < 0) continue;
    int32_t p = pre->colBegin[j];
    // removeElement moves the next entry into the current slot, so the walk
    // stays where it is after a removal.
    while (p < pre->colBegin[j] + pre->colLength[j]) {
      if (fabs(pre->matValue[p]) > threshold) {
        p++;
        continue;
      }
      const int32_t i = pre->rowIndex[p];
      removeElement(env, i, j, pre->colBegin, pre->colLength, pre->rowIndex, pre->matValue);
      removeElement(env, j, i, pre->rowBegin, pre->rowLength, pre->colIndex, pre->rowMatValue);
    }
  }
  return 0;
}

void removeNoiseBC(double threshold, int32_t numFirst, int32_t numSecond, double* first,
                   double* second) {
  if (second)
    for (int32_t i = 0; i < numSecond; i++)
      if (fabs(second[i]) <= threshold) second[i] = 0.0;
  if (first)
    for (int32_t i = 0; i < numFirst; i++)
      if (fabs(first[i]) <= threshold) first[i] = 0.0;
}
