/* The reference host for C programs: one call loads libhalvex.so and starts
 * the module on a host kernel; instances, pools and the LP entry follow from
 * the handle.  The records (QPRecord, LPRecord, ...) are those of
 * records/host_records.h, filled as from C++. */
#ifndef HALVEX_HOST_HOST_C_H
#define HALVEX_HOST_HOST_C_H

#include <stddef.h>
#include <stdint.h>

#include "frame/instance.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct HxHost HxHost;

/* A host with the module loaded and started, or null with the reason in
 * error (errorSize bytes, cut to fit; error may be null).  library: the
 * shared object to load, or null for the default (the installed host finds
 * the libhalvex.so beside itself). */
HxHost* hxHostOpen(const char* library, char* error, size_t errorSize);
/* Unloads the module and releases every pool of the host; null passed over.
 * Destroy the instances first. */
void hxHostClose(HxHost* host);

/* 1: drop every log line; 0: print them (the default: errors and warnings
 * to stderr, the rest to stdout). */
void hxHostSilence(HxHost* host, int quiet);

/* An instance with the host's log call-backs set, or null.  Solve with
 * instance->ipqpScripter(instance, &record) or instance->ipqpmain. */
HalvexInstance* hxHostCreateInstance(HxHost* host);
void hxHostDestroyInstance(HxHost* host, HalvexInstance* instance);

/* A pool of the host, as the LA_ calls want; release it with
 * pool->poolDestroy(pool) or leave it to hxHostClose. */
QVPool* hxHostCreatePool(HxHost* host, const char* name);

/* The LP entry (iplpmain) with a context of this host; the status and the
 * results land in record.  Returns the entry's code (0, or 1 when a failure
 * broke the chain, as for a null argument), or -1086 when the host has no
 * memory for the context. */
int32_t hxHostSolveLP(HxHost* host, LPRecord* record, LPOptions* options);

#ifdef __cplusplus
}
#endif

#endif
