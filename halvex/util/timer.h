// One timer per solver call: CPU time from chronis, real time from the
// kernel's clock, with one switch deciding which the generic calls mean.
#ifndef HALVEX_UTIL_TIMER_H
#define HALVEX_UTIL_TIMER_H

#include <stdint.h>

#include "frame/qvkernel.h"

typedef struct IPM_timer {
  void* owner;
  int32_t useRealTime;
  double ticksPerSecond;
  double cpuLimit;
  double cpuUsed;
  ChronisModule* perfModule;
  ChronisSample startSample;
  ChronisSample stopSample;
  double realLimit;
  double realStart;
  double realStop;
  double realUsed;
} IPM_timer;

IPM_timer* IPM_timerCreate(void* owner, QVPool* pool, int32_t* status);
int32_t IPM_timerFree(QVPool* pool, IPM_timer** timer);
int32_t IPM_timerStart(IPM_timer* timer);
int32_t IPM_timerStop(IPM_timer* timer);

int32_t IPM_timerSetLimit(IPM_timer* timer, double seconds);
int32_t IPM_timerGetLimit(IPM_timer* timer, double* seconds);
int32_t IPM_timerUsedTime(IPM_timer* timer, double* seconds);
int32_t IPM_timerLeftTime(IPM_timer* timer, double* seconds);
int32_t IPM_timerReachLimit(IPM_timer* timer, int32_t* reached);

int32_t IPM_timerSetCpuLimit(IPM_timer* timer, double seconds);
int32_t IPM_timerSetRealLimit(IPM_timer* timer, double seconds);
int32_t IPM_timerGetCpuLimit(IPM_timer* timer, double* seconds);
int32_t IPM_timerGetRealLimit(IPM_timer* timer, double* seconds);
int32_t IPM_timerCpuUsedTime(IPM_timer* timer, double* seconds);
int32_t IPM_timerRealUsedTime(IPM_timer* timer, double* seconds);
int32_t IPM_timerCpuLeftTime(IPM_timer* timer, double* seconds);
int32_t IPM_timerRealLeftTime(IPM_timer* timer, double* seconds);
int32_t IPM_timerReachCpuLimit(IPM_timer* timer, int32_t* reached);
int32_t IPM_timerReachRealLimit(IPM_timer* timer, int32_t* reached);

double IPM_timerInterval(IPM_timer* timer);
double IPM_timerRealInterval(IPM_timer* timer);

#endif
