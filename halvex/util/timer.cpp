#include "util/timer.h"

#include <float.h>
#include <string.h>

#include "frame/qv.h"
#include "records/env.h"

IPM_timer* IPM_timerCreate(void* owner, QVPool* pool, int32_t* status) {
  *status = 0;
  IPM_timer* timer = poolNew<IPM_timer>(pool, 1);
  if (!timer) {
    *status = IPM_STATUS_OUT_OF_MEMORY;
    return nullptr;
  }
  timer->owner = owner;
  timer->useRealTime = 0;
  timer->ticksPerSecond = 1000000.0;
  timer->cpuLimit = DBL_MAX;
  timer->cpuUsed = 0.0;
  timer->realLimit = DBL_MAX;
  timer->perfModule = reinterpret_cast<ChronisModule*>(qvLoadModule("chronis"));
  if (!timer->perfModule) {
    poolFree(pool, timer);
    *status = IPM_STATUS_OUT_OF_MEMORY;
    return nullptr;
  }
  return timer;
}

int32_t IPM_timerFree(QVPool* pool, IPM_timer** timer) {
  if (!timer || !*timer) return 0;
  IPM_timer* t = *timer;
  if (t->perfModule) t->perfModule->close(t->perfModule);
  poolFree(pool, t);
  *timer = nullptr;
  return 0;
}

int32_t IPM_timerStart(IPM_timer* timer) {
  timer->perfModule->sample(timer->perfModule, &timer->startSample);
  timer->realStart = qvzdtgmt(nullptr);
  return 0;
}

// A snapshot brings both clocks up to date, whichever the generic calls use.
int32_t IPM_timerStop(IPM_timer* timer) {
  ChronisDiff diff;
  memset(&diff, 0, sizeof(diff));
  timer->perfModule->sample(timer->perfModule, &timer->stopSample);
  timer->perfModule->cpuDiff(timer->perfModule, &timer->stopSample.cpu, &timer->startSample.cpu,
                             &diff);
  timer->cpuUsed = (double)diff.seconds + (double)diff.microseconds / timer->ticksPerSecond;
  timer->realStop = qvzdtgmt(nullptr);
  timer->realUsed = timer->realStop - timer->realStart;
  return 0;
}

int32_t IPM_timerSetCpuLimit(IPM_timer* timer, double seconds) {
  timer->cpuLimit = seconds;
  return 0;
}
int32_t IPM_timerSetRealLimit(IPM_timer* timer, double seconds) {
  timer->realLimit = seconds;
  return 0;
}
int32_t IPM_timerGetCpuLimit(IPM_timer* timer, double* seconds) {
  *seconds = timer->cpuLimit;
  return 0;
}
int32_t IPM_timerGetRealLimit(IPM_timer* timer, double* seconds) {
  *seconds = timer->realLimit;
  return 0;
}
int32_t IPM_timerCpuUsedTime(IPM_timer* timer, double* seconds) {
  IPM_timerStop(timer);
  *seconds = timer->cpuUsed;
  return 0;
}
int32_t IPM_timerRealUsedTime(IPM_timer* timer, double* seconds) {
  IPM_timerStop(timer);
  *seconds = timer->realUsed;
  return 0;
}
int32_t IPM_timerCpuLeftTime(IPM_timer* timer, double* seconds) {
  IPM_timerStop(timer);
  *seconds = timer->cpuLimit - timer->cpuUsed;
  return 0;
}
int32_t IPM_timerRealLeftTime(IPM_timer* timer, double* seconds) {
  IPM_timerStop(timer);
  *seconds = timer->realLimit - timer->realUsed;
  return 0;
}
int32_t IPM_timerReachCpuLimit(IPM_timer* timer, int32_t* reached) {
  IPM_timerStop(timer);
  *reached = timer->cpuLimit <= timer->cpuUsed ? 1 : 0;
  return 0;
}
int32_t IPM_timerReachRealLimit(IPM_timer* timer, int32_t* reached) {
  IPM_timerStop(timer);
  *reached = timer->realLimit <= timer->realUsed ? 1 : 0;
  return 0;
}

int32_t IPM_timerSetLimit(IPM_timer* timer, double seconds) {
  return timer->useRealTime ? IPM_timerSetRealLimit(timer, seconds)
                            : IPM_timerSetCpuLimit(timer, seconds);
}
int32_t IPM_timerGetLimit(IPM_timer* timer, double* seconds) {
  return timer->useRealTime ? IPM_timerGetRealLimit(timer, seconds)
                            : IPM_timerGetCpuLimit(timer, seconds);
}
int32_t IPM_timerUsedTime(IPM_timer* timer, double* seconds) {
  return timer->useRealTime ? IPM_timerRealUsedTime(timer, seconds)
                            : IPM_timerCpuUsedTime(timer, seconds);
}
int32_t IPM_timerLeftTime(IPM_timer* timer, double* seconds) {
  return timer->useRealTime ? IPM_timerRealLeftTime(timer, seconds)
                            : IPM_timerCpuLeftTime(timer, seconds);
}
int32_t IPM_timerReachLimit(IPM_timer* timer, int32_t* reached) {
  return timer->useRealTime ? IPM_timerReachRealLimit(timer, reached)
                            : IPM_timerReachCpuLimit(timer, reached);
}

double IPM_timerInterval(IPM_timer* timer) {
  IPM_timerStop(timer);
  return timer->cpuUsed;
}
double IPM_timerRealInterval(IPM_timer* timer) {
  IPM_timerStop(timer);
  return timer->realUsed;
}
