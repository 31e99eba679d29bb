// chronis: process CPU time with microsecond resolution, and the wall clock.
#include "siblings/chronis/chronis.h"

#include <time.h>

#include <cstdlib>
#include <cstring>

namespace chronis {
namespace {

// The object a load returns: the chronis operations from slot 2 on, then
// the rest of a module object so that slot 10 reads as a (null-returning)
// create-instance like any other module's.
struct ChronisObject {
  ChronisModule ops;
  void* unused5[5];
  QVModuleCreateInstanceFn createInstance;
};
static_assert(offsetof(ChronisObject, ops) == 0, "chronis operations start the object");
static_assert(offsetof(ChronisObject, createInstance) == 10 * 8, "create-instance in slot 10");

void close(ChronisModule* module) { std::free(module); }

int64_t sample(ChronisModule*, ChronisSample* out) {
  if (!out) return 1;
  timespec wall{}, cpu{};
  if (clock_gettime(CLOCK_REALTIME, &wall) != 0 ||
      clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &cpu) != 0)
    return 1;
  out->wallSeconds = wall.tv_sec;
  out->wallMicroseconds = wall.tv_nsec / 1000;
  out->cpu.seconds = cpu.tv_sec;
  out->cpu.microseconds = cpu.tv_nsec / 1000;
  return 0;
}

// A later sample earlier than the first one cannot come from one process;
// the difference is then 0 and the result says so.
int64_t cpuDiff(ChronisModule*, const ChronisCpu* later, const ChronisCpu* earlier,
                ChronisDiff* out) {
  if (!later || !earlier || !out) return 1;
  int64_t us = (later->seconds - earlier->seconds) * 1000000 +
               (later->microseconds - earlier->microseconds);
  if (us < 0) {
    out->seconds = 0;
    out->microseconds = 0;
    return 1;
  }
  out->seconds = (uint32_t)(us / 1000000);
  out->microseconds = (uint32_t)(us % 1000000);
  return 0;
}

void* noInstance(QVModule*) { return nullptr; }

}  // namespace

QVModule* createModule(QVKernel*) {
  ChronisObject* object = static_cast<ChronisObject*>(std::calloc(1, sizeof(ChronisObject)));
  if (!object) return nullptr;
  object->ops.close = close;
  object->ops.sample = sample;
  object->ops.cpuDiff = cpuDiff;
  object->createInstance = noInstance;
  return reinterpret_cast<QVModule*>(object);
}

}  // namespace chronis
