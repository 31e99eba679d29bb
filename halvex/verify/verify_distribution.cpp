// Checks of the magnitude histogram against the exact answer from a sorted
// copy of the data.  They wake at level 5 and cost one compare below it.
#include "verify/verify_distribution.h"

#include <math.h>

#include "frame/qv.h"
#include "ipm/histogram.h"
#include "util/sort.h"

namespace {

const int32_t kLevel = 5;
const double kEdgeTol = 1e-6;

int32_t liveEntries(const ipmModel* model) {
  int32_t n = 0;
  for (int32_t j = 0; j < model->numCol; j++)
    n += model->colLength ? model->colLength[j] : model->colBegin[j + 1] - model->colBegin[j];
  return n;
}

int32_t nonzeros(int32_t length, const double* v) {
  int32_t n = 0;
  if (v)
    for (int32_t i = 0; i < length; i++) n += v[i] != 0.0;
  return n;
}

// Appends magnitudes; returns the new fill.
int32_t gatherMatrix(const ipmModel* model, double* out, int32_t fill) {
  for (int32_t j = 0; j < model->numCol; j++) {
    int32_t end = model->colLength ? model->colBegin[j] + model->colLength[j]
                                   : model->colBegin[j + 1];
    for (int32_t p = model->colBegin[j]; p < end; p++) out[fill++] = fabs(model->matValue[p]);
  }
  return fill;
}

int32_t gatherVector(int32_t length, const double* v, double* out, int32_t fill) {
  if (v)
    for (int32_t i = 0; i < length; i++)
      if (v[i] != 0.0) out[fill++] = fabs(v[i]);
  return fill;
}

// Magnitudes of A, obj and rhs together, sorted; null when refused.
double* gatherAll(HalvexEnv* env, const ipmModel* model, int32_t* numData) {
  int32_t n = liveEntries(model) + nonzeros(model->numCol, model->obj) +
              nonzeros(model->numRow, model->rhs);
  double* data = poolNew<double>(env->pool, (int64_t)n + 1, false);
  if (!data) return nullptr;
  int32_t fill = gatherMatrix(model, data, 0);
  fill = gatherVector(model->numCol, model->obj, data, fill);
  fill = gatherVector(model->numRow, model->rhs, data, fill);
  *numData = fill;
  return data;
}

void running(HalvexEnv* env) {
  if (env->textLog) env->textLog("running debug code......");
}

// The sort cannot fail today; the test stays so that a sort which one day
// can is heard of rather than trusted.
int32_t sortOrReport(HalvexEnv* env, double* data, int32_t n, const char* message) {
  if (QS_quickSortDblInc(env, data, n) == 0) return 0;
  if (env->textLog) env->textLog(message);
  return IPM_STATUS_FAILED;
}

void logError(HalvexEnv* env, const char* format, int32_t a, int32_t b) {
  if (env->textLog) env->textLog(format, a, b);
}

// The histogram cannot resolve below its lowest break nor above its highest,
// so quartiles are compared inside that window.
double clampToWindow(double v, const double* lowBreak, const double* highBreak) {
  if (v < lowBreak[HIST_BINS - 1]) return lowBreak[HIST_BINS - 1];
  if (v > highBreak[HIST_BINS - 1]) return highBreak[HIST_BINS - 1];
  return v;
}

// Checks the values data[pos .. pos + count - 1] of one bin.
bool checkBin(HalvexEnv* env, const double* data, int32_t pos, int32_t count, double lower,
              double upper, bool lowHalf, bool catchAll) {
  bool ok = true;
  double first = data[pos];
  bool lowerOpen = lowHalf && catchAll;  // the low catch-all also holds zero
  if (!lowerOpen && !(first > lower * (1.0 - kEdgeTol))) {
    if (env->textLog)
      env->textLog(lowHalf ? "Error VerifyDistribution: not a lower break point before "
                             "data(%d)=%15.7g  cutoff=%15.7e"
                           : "Error VerifyDistribution: not a higher break point before "
                             "data(%d)=%15.7g  cutoff=%15.7e",
                   pos, first, lower);
    ok = false;
  }
  bool upperOpen = !lowHalf && catchAll;
  double last = data[pos + count - 1];
  if (!upperOpen && !(last <= upper * (1.0 + kEdgeTol))) {
    if (env->textLog)
      env->textLog("Error VerifyDistribution: data(%d)=%15.7g should <= %15.7e",
                   pos + count - 1, last, upper);
    ok = false;
  }
  return ok;
}

}  // namespace

int32_t VerifyDistribution(HalvexEnv* env, int32_t level, int32_t numData, const double* data,
                           const int32_t* lowCount, const double* lowBreak,
                           const int32_t* highCount, const double* highBreak) {
  if (level < kLevel) return 0;
  int32_t status = 0;
  for (int32_t i = 0; i < HIST_BINS; i++) {
    double lowExact = pow(10.0, -i), highExact = pow(10.0, i);
    if (fabs(lowBreak[i] - lowExact) > kEdgeTol * lowExact) {
      if (env->textLog)
        env->textLog("Error VerifyDistribution: cutoff value at %d break point =%15.7e should be %15.7e",
                     i, lowBreak[i], lowExact);
      status = IPM_STATUS_FAILED;
    }
    if (fabs(highBreak[i] - highExact) > kEdgeTol * highExact) {
      if (env->textLog)
        env->textLog("Error VerifyDistribution: cutoff value at %d break point =%15.7e should be %15.7e",
                     i, highBreak[i], highExact);
      status = IPM_STATUS_FAILED;
    }
  }

  // Walk the bins in ascending order of magnitude, as the quantiles do.
  int64_t total = 0;
  int32_t pos = 0;
  for (int32_t step = 0; step < 2 * (HIST_LAST + 1); step++) {
    bool lowHalf = step <= HIST_LAST;
    int32_t k = lowHalf ? HIST_LAST - step : step - (HIST_LAST + 1);
    int32_t count = lowHalf ? lowCount[k] : highCount[k];
    total += count;
    if (count <= 0) continue;
    if ((int64_t)pos + count > numData) {
      pos = numData;
      continue;  // the count check below reports it
    }
    double lower = lowHalf ? lowBreak[k + 1] : highBreak[k];
    double upper = lowHalf ? lowBreak[k] : highBreak[k + 1];
    if (!checkBin(env, data, pos, count, lower, upper, lowHalf, k == HIST_LAST))
      status = IPM_STATUS_FAILED;
    pos += count;
  }
  if (total != numData) {
    logError(env, "Error VerifyDistribution: number of data = %d should be %d", (int32_t)total,
             numData);
    status = IPM_STATUS_FAILED;
  }

  if (numData > 0 && total == numData) {
    static const char* const kWrong[3] = {
        "Error VerifyDistribution: wrong Q1 %15.7g should be around %15.7g",
        "Error VerifyDistribution: wrong Q2 %15.7g should be around %15.7g",
        "Error VerifyDistribution: wrong Q3 %15.7g should be around %15.7g"};
    for (int32_t q = 0; q < 3; q++) {
      double fraction = 0.25 * (q + 1);
      double fromHist = getPercentile(fraction, numData, 0, nullptr, lowCount, lowBreak,
                                      highCount, highBreak);
      int32_t rank = (int32_t)(numData * fraction);
      if (rank >= numData) rank = numData - 1;
      double exact = data[rank];
      double a = clampToWindow(fromHist, lowBreak, highBreak);
      double b = clampToWindow(exact, lowBreak, highBreak);
      if (a > 10.0 * b || b > 10.0 * a) {
        if (env->textLog) env->textLog(kWrong[q], fromHist, exact);
        status = IPM_STATUS_FAILED;
      }
    }
  }
  return status;
}

int32_t VerifyPdfMatrix(HalvexEnv* env, int32_t level, const ipmModel* model,
                        const int32_t* lowCount, const double* lowBreak, const int32_t* highCount,
                        const double* highBreak) {
  if (level < kLevel) return 0;
  running(env);
  int32_t n = liveEntries(model);
  if (n != model->numCoef) {
    logError(env, "Error VerifyPdfMatrix: number of A nonzero = %d should be %d", n,
             model->numCoef);
    return IPM_STATUS_FAILED;
  }
  double* data = poolNew<double>(env->pool, (int64_t)n + 1, false);
  if (!data) return IPM_STATUS_OUT_OF_MEMORY;
  gatherMatrix(model, data, 0);
  int32_t status = sortOrReport(env, data, n, "Error VerifyPdfMatrix: sort aborted.");
  if (status == 0)
    status = VerifyDistribution(env, level, n, data, lowCount, lowBreak, highCount, highBreak);
  poolFree(env->pool, data);
  return status;
}

int32_t VerifyPdfObj(HalvexEnv* env, int32_t level, const ipmModel* model, int32_t numNonzero,
                     const int32_t* lowCount, const double* lowBreak, const int32_t* highCount,
                     const double* highBreak) {
  if (level < kLevel) return 0;
  running(env);
  int32_t n = nonzeros(model->numCol, model->obj);
  if (n != numNonzero) {
    logError(env, "Error VerifyPdfObj: number of obj nonzero = %d should be %d", n, numNonzero);
    return IPM_STATUS_FAILED;
  }
  double* data = poolNew<double>(env->pool, (int64_t)n + 1, false);
  if (!data) return IPM_STATUS_OUT_OF_MEMORY;
  gatherVector(model->numCol, model->obj, data, 0);
  int32_t status = sortOrReport(env, data, n, "Error VerifyPdfObj: sort aborted.");
  if (status == 0)
    status = VerifyDistribution(env, level, n, data, lowCount, lowBreak, highCount, highBreak);
  poolFree(env->pool, data);
  return status;
}

int32_t VerifyPdfAll(HalvexEnv* env, int32_t level, const ipmModel* model, int32_t numValue,
                     const int32_t* lowCount, const double* lowBreak, const int32_t* highCount,
                     const double* highBreak) {
  if (level < kLevel) return 0;
  running(env);
  int32_t n = 0;
  double* data = gatherAll(env, model, &n);
  if (!data) return IPM_STATUS_OUT_OF_MEMORY;
  int32_t status;
  if (n != numValue) {
    logError(env, "Error VerifyPdfAll: number of nonzero = %d should be %d", n, numValue);
    status = IPM_STATUS_FAILED;
  } else {
    status = sortOrReport(env, data, n, "Error VerifyPdfAll: sort aborted.");
    if (status == 0)
      status = VerifyDistribution(env, level, n, data, lowCount, lowBreak, highCount, highBreak);
  }
  poolFree(env->pool, data);
  return status;
}

int32_t VerifyOutlier(double largeCut, double smallCut, HalvexEnv* env, int32_t level,
                      const ipmModel* model, int32_t numValue, int32_t numLeft, int32_t numRight,
                      const int32_t* /*lowCount*/, const double* /*lowBreak*/,
                      const int32_t* /*highCount*/, const double* /*highBreak*/) {
  if (level < kLevel) return 0;
  running(env);
  int32_t status = 0;
  int32_t limit = (int32_t)(numValue * 0.05);
  if (numLeft > limit) {
    logError(env, "Error VerifyOutlier: number of left outlier = %d should <= %d", numLeft, limit);
    status = IPM_STATUS_FAILED;
  }
  if (numRight > limit) {
    logError(env, "Error VerifyOutlier: number of right outlier = %d should <= %d", numRight,
             limit);
    status = IPM_STATUS_FAILED;
  }
  int32_t n = 0;
  double* data = gatherAll(env, model, &n);
  if (!data) return IPM_STATUS_OUT_OF_MEMORY;
  if (n != numValue) {
    logError(env, "Error VerifyOutlier: number of nonzero = %d should be %d", n, numValue);
    poolFree(env->pool, data);
    return IPM_STATUS_FAILED;
  }
  if (sortOrReport(env, data, n, "Error VerifyOutlier: sort aborted.") != 0) {
    poolFree(env->pool, data);
    return IPM_STATUS_FAILED;
  }
  int32_t right = numRight < n ? numRight : n;
  for (int32_t i = 0; i < right; i++) {
    if (data[i] <= smallCut) continue;
    if (env->textLog)
      env->textLog("Error VerifyOutlier: data(%d < %d)=%15.7g should <= %7.2e", i, numRight,
                   data[i], smallCut);
    status = IPM_STATUS_FAILED;
  }
  if (right < n && data[right] < smallCut) {
    if (env->textLog)
      env->textLog("Error VerifyOutlier: data(numRight=%d)=%15.7g should >= %7.2e", numRight,
                   data[right], smallCut);
    status = IPM_STATUS_FAILED;
  }
  int32_t left = numLeft < n ? numLeft : n;
  for (int32_t i = n - left; i < n; i++) {
    if (data[i] >= largeCut) continue;
    if (env->textLog)
      env->textLog("Error VerifyOutlier: data(%d < %d)=%15.7g should >= %7.2e", i, n, data[i],
                   largeCut);
    status = IPM_STATUS_FAILED;
  }
  if (n - left - 1 >= 0 && data[n - left - 1] > largeCut) {
    if (env->textLog)
      env->textLog("Error VerifyOutlier: data(numLeft=%d)=%15.7g should <= %7.2e", numLeft,
                   data[n - left - 1], largeCut);
    status = IPM_STATUS_FAILED;
  }
  poolFree(env->pool, data);
  return status;
}
