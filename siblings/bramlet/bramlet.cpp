#include "siblings/bramlet/bramlet.h"

#include <cstddef>
#include <cstdlib>

namespace bramlet {
namespace {

void destroyInstance(Instance* instance) { std::free(instance); }

void* createInstance(QVModule*) {
  Instance* instance = static_cast<Instance*>(std::calloc(1, sizeof(Instance)));
  if (instance) instance->destroy = destroyInstance;
  return instance;
}

void unload(QVModule* module) { std::free(module); }

}  // namespace

QVModule* createModule(QVKernel*) {
  QVModule* module = static_cast<QVModule*>(std::calloc(1, sizeof(QVModule)));
  if (!module) return nullptr;
  module->moduleUnload = unload;
  module->moduleCreateInstance = createInstance;
  return module;
}

}  // namespace bramlet
