// Sibling modules by name, and the kernel clock.
#include <time.h>

#include "host/internal.h"
#include "siblings/bramlet/bramlet.h"
#include "siblings/chronis/chronis.h"
#include "siblings/fennick/fennick.h"

namespace hxhost {
namespace {

// Names are plain ASCII; anything else names no module of ours.
QVModule* kernelLoadModule(QVKernel* k, const uint32_t* wideName, int64_t length, int64_t) {
  if (!wideName || length <= 0 || length > 256) return nullptr;
  std::string name;
  for (int64_t i = 0; i < length; ++i) {
    if (wideName[i] == 0 || wideName[i] > 0x7F) return nullptr;
    name.push_back((char)wideName[i]);
  }
  HostImpl* h = hostOf(k);
  ModuleFactory factory;
  {
    std::lock_guard<std::mutex> g(h->moduleMu);
    auto it = h->modules.find(name);
    if (it == h->modules.end()) return nullptr;
    factory = it->second;
  }
  {
    // A load makes a module object, so it can be refused like any allocation.
    std::lock_guard<std::mutex> g(h->poolMu);
    if (!h->admit()) return nullptr;
  }
  return factory ? factory(k) : nullptr;
}

}  // namespace

void HostImpl::installModules() {
  kernel.table.loadModule = kernelLoadModule;
  modules["chronis"] = chronis::createModule;
  modules["bramlet"] = bramlet::createModule;
  modules["fennick"] = fennick::createModule;
}

void Host::registerModule(const std::string& name, ModuleFactory factory) {
  std::lock_guard<std::mutex> g(impl_->moduleMu);
  if (factory)
    impl_->modules[name] = std::move(factory);
  else
    impl_->modules.erase(name);
}

// The second value is the local zone's offset from GMT in seconds (east
// positive), negated, so that qvzdtgmt hands back the offset itself.
int64_t queryClock(int64_t selector, double* out, int64_t code) {
  if (selector != QV_CLOCK_SELECTOR || code != QV_CLOCK_CODE || !out) return 1;
  timespec now{};
  if (clock_gettime(CLOCK_REALTIME, &now) != 0) return 2;
  tm local{};
  time_t seconds = now.tv_sec;
  if (!localtime_r(&seconds, &local)) return 2;
  out[0] = (double)now.tv_sec + (double)now.tv_nsec * 1e-9;
  out[1] = -(double)local.tm_gmtoff;
  return 0;
}

}  // namespace hxhost
