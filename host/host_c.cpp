#include "host/host_c.h"

#include <cstdio>
#include <cstring>
#include <new>
#include <string>

#include "host/host.h"

struct HxHost {
  hxhost::Host host;
  hxhost::HalvexEntries entries;
  hxhost::HalvexModule* module = nullptr;
};

namespace {
void copyError(const std::string& what, char* error, size_t size) {
  if (error && size > 0) std::snprintf(error, size, "%s", what.c_str());
}
}  // namespace

extern "C" {

HxHost* hxHostOpen(const char* library, char* error, size_t errorSize) {
  HxHost* h = new (std::nothrow) HxHost;
  if (!h) {
    copyError("out of memory", error, errorSize);
    return nullptr;
  }
  std::string reason;
  if (!hxhost::openHalvexLibrary(library, &h->entries, &reason)) {
    copyError(reason, error, errorSize);
    delete h;
    return nullptr;
  }
  h->module = new (std::nothrow) hxhost::HalvexModule(h->host, h->entries);
  if (!h->module || !h->module->ok()) {
    copyError("the module could not be started", error, errorSize);
    hxHostClose(h);
    return nullptr;
  }
  return h;
}

void hxHostClose(HxHost* host) {
  if (!host) return;
  // The module object runs code of the library, so it goes before dlclose.
  delete host->module;
  hxhost::closeHalvexLibrary(&host->entries);
  delete host;
}

void hxHostSilence(HxHost* host, int quiet) {
  if (host) host->host.silence(quiet != 0);
}

HalvexInstance* hxHostCreateInstance(HxHost* host) {
  return host && host->module ? host->module->createInstance() : nullptr;
}

void hxHostDestroyInstance(HxHost* host, HalvexInstance* instance) {
  if (host && host->module) host->module->destroyInstance(instance);
}

QVPool* hxHostCreatePool(HxHost* host, const char* name) {
  return host ? host->host.createPool(name ? name : "caller") : nullptr;
}

int32_t hxHostSolveLP(HxHost* host, LPRecord* record, LPOptions* options) {
  if (!host || !record || !options) return 1;
  QVPool* pool = host->host.createPool("LP context");
  if (!pool) return -1086;
  // The entry fills every slot but the pool and the two log call-backs.
  LPContext context;
  std::memset(&context, 0, sizeof context);
  context.env.pool = pool;
  context.env.textLog = host->host.textLog();
  context.env.messageLog = host->host.messageLog();
  int32_t rc = host->entries.iplpmain(&context, record, options);
  pool->poolDestroy(pool);
  return rc;
}

}  // extern "C"
