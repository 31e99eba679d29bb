// The Host object, the kernel table's assembly, and the glue that loads and
// drives a halvex module.
#include <dlfcn.h>

#include <cstdio>
#include <cstring>

#include "host/internal.h"

#ifndef HALVEX_LIBRARY_PATH
#define HALVEX_LIBRARY_PATH "libhalvex.so"
#endif

namespace hxhost {

// The module runs its own threads in the factorisation; a BLAS that starts
// threads of its own inside each call oversubscribes the cores, and a
// module may not set it itself, since it reads no environment and calls
// nothing outside its kernel.  So the host does, by whichever name the
// loaded library knows, looked up at run time: no BLAS is required.
int keepBlasOnOneThread(void* library) {
  static const char* const kSetters[] = {"openblas_set_num_threads", "goto_set_num_threads",
                                         "bli_thread_set_num_threads", "MKL_Set_Num_Threads"};
  void* where = library ? library : RTLD_DEFAULT;
  for (const char* name : kSetters) {
    void* fn = dlsym(where, name);
    if (!fn) continue;
    if (std::strcmp(name, "bli_thread_set_num_threads") == 0)
      reinterpret_cast<void (*)(long)>(fn)(1);
    else
      reinterpret_cast<void (*)(int)>(fn)(1);
    return 1;
  }
  return 0;
}

Host::Host() : impl_(new Impl) {
  keepBlasOnOneThread(nullptr);
  std::memset(&impl_->kernel.table, 0, sizeof impl_->kernel.table);
  impl_->kernel.host = impl_;
  impl_->installPools();
  impl_->installThreads();
  impl_->installModules();
  impl_->installLogs();
  impl_->kernel.table.queryClock = hxhost::queryClock;
  registerLiveHost(impl_);
}

// Threads are joined before the pools go, since a worker may still hold
// blocks of them.
Host::~Host() {
  unregisterLiveHost(impl_);
  impl_->shutdownThreads();
  impl_->shutdownPools();
  delete impl_;
}

QVKernel* Host::kernel() { return &impl_->kernel.table; }

void HostImpl::report(const char* what) {
  std::fprintf(stderr, "halvex host: %s\n", what);
  std::fflush(stderr);
}

// ---- the halvex module -----------------------------------------------------------

bool openHalvexLibrary(const char* path, HalvexEntries* out, std::string* error) {
  if (!out) return false;
  *out = HalvexEntries{};
  const char* file = path ? path : HALVEX_LIBRARY_PATH;
  void* lib = dlopen(file, RTLD_NOW | RTLD_LOCAL);
  if (!lib) {
    if (error) *error = std::string("cannot open ") + file + ": " + dlerror();
    return false;
  }
  out->qvextent = reinterpret_cast<int32_t (*)(QVKernel*)>(dlsym(lib, "qvextent"));
  out->qvvercn1 = reinterpret_cast<void (*)(HalvexVersionInfo*)>(dlsym(lib, "qvvercn1"));
  out->halvex = reinterpret_cast<HalvexExtension* (*)(void*, QVPool*)>(dlsym(lib, "halvex"));
  out->iplpmain =
      reinterpret_cast<int32_t (*)(LPContext*, LPRecord*, LPOptions*)>(dlsym(lib, "iplpmain"));
  const char* missing = !out->qvextent ? "qvextent" : !out->qvvercn1 ? "qvvercn1"
                        : !out->halvex ? "halvex" : !out->iplpmain ? "iplpmain" : nullptr;
  if (missing) {
    if (error) *error = std::string(file) + " does not export " + missing;
    dlclose(lib);
    *out = HalvexEntries{};
    return false;
  }
  out->library = lib;
  keepBlasOnOneThread(lib);
  return true;
}

void closeHalvexLibrary(HalvexEntries* entries) {
  if (!entries) return;
  if (entries->library) dlclose(entries->library);
  *entries = HalvexEntries{};
}

namespace {
// The unload operation the host keeps in the extension's slot 2.  The
// extension lives in its own pool, so unloading it is its real destroy.
void unloadExtension(QVModule* module) {
  if (!module) return;
  HalvexExtension* ext = reinterpret_cast<HalvexExtension*>(module);
  if (ext->realDestroy) ext->realDestroy(ext, nullptr);
}
}  // namespace

HalvexModule::HalvexModule(Host& host, const HalvexEntries& entries)
    : host_(host), entries_(entries) {
  if (!entries_.qvextent || !entries_.halvex) return;
  entries_.qvextent(host_.kernel());
  parentPool_ = host_.createPool("HALVEX PARENT");
  if (!parentPool_) return;
  extension_ = entries_.halvex(nullptr, parentPool_);
  if (extension_) extension_->moduleUnload = unloadExtension;
}

HalvexModule::~HalvexModule() {
  if (extension_ && extension_->realDestroy) extension_->realDestroy(extension_, nullptr);
  extension_ = nullptr;
  if (parentPool_) parentPool_->poolDestroy(parentPool_);
  parentPool_ = nullptr;
}

HalvexInstance* HalvexModule::createInstance() {
  if (!extension_ || !extension_->createInstance) return nullptr;
  HalvexInstance* inst = static_cast<HalvexInstance*>(extension_->createInstance(nullptr));
  if (!inst) return nullptr;
  inst->env.textLog = host_.textLog();
  inst->env.messageLog = host_.messageLog();
  return inst;
}

void HalvexModule::destroyInstance(HalvexInstance* instance) {
  if (!instance || !instance->env.destroyOperation) return;
  reinterpret_cast<HalvexDestroyInstanceFn>(instance->env.destroyOperation)(instance);
}

HalvexVersionInfo HalvexModule::version() const {
  HalvexVersionInfo info;
  std::memset(&info, 0, sizeof info);
  if (entries_.qvvercn1) entries_.qvvercn1(&info);
  return info;
}

}  // namespace hxhost
