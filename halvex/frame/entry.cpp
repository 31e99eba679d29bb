// Module entry: qvextent, the version record, the extension object and the
// instance.
#include "frame/entry.h"

#include "frame/instance.h"
#include "frame/qv.h"
#include "records/model.h"
#include "records/qpdriver.h"
#include "records/recon.h"
#include "records/statistics.h"

#ifndef HALVEX_RELEASE
#define HALVEX_RELEASE "halvex 1.0.0"
#endif
#ifndef HALVEX_BUILD_TREE
#define HALVEX_BUILD_TREE "main"
#endif
#ifndef HALVEX_BUILD_PATH
#define HALVEX_BUILD_PATH "halvex"
#endif
#ifndef HALVEX_BUILD_STAMP
#define HALVEX_BUILD_STAMP 20261121
#endif

// 65 characters each, blank-padded: release tooling patches the blanks in the
// finished binary, so they must stay in the image as plain arrays.
static const char hotfixText[66] =
    "ORBEN_VERSION_HOTFIX_NUMBER=                                     ";
static const char descriptionText[66] =
    "VERCON_IMAGE_DESCRIPTION=                                        ";
static_assert(sizeof(hotfixText) == 66 && sizeof(descriptionText) == 66,
              "the patch areas are 65 characters");

static const HalvexVersionInfo info = {
    HALVEX_RELEASE, HALVEX_BUILD_TREE, "", HALVEX_BUILD_STAMP, "sorrel", "halvex", "sorrel",
    HALVEX_BUILD_PATH, "", "version", "::", "", hotfixText, "", descriptionText, "linux-x86_64",
    {0, 0, 0, 0, 0, 0, 0, 0, 0, 0}};

HALVEX_EXPORT int32_t qvextent(QVKernel* kernel) {
  Exported_QVHandle = kernel;
  return 0;
}

HALVEX_EXPORT void qvvercn1(HalvexVersionInfo* buffer) {
  if (buffer) *buffer = info;
}

static int64_t halvex_getReqVersion(void*, int64_t* major, int64_t* minor, int64_t* patch) {
  *major = 4;
  *minor = 1;
  *patch = 1;
  return 0;
}

static int64_t halvex_getVersion(void*, int64_t* major, int64_t* minor, int64_t* patch) {
  *major = 1;
  *minor = 0;
  *patch = 0;
  return 0;
}

int64_t halvex_realDestroy(void* object, void*) {
  if (!object) return 0;
  // The object lives in its own pool, so this takes the object too.
  poolDestroy(static_cast<HalvexExtension*>(object)->pool);
  return 0;
}

static QVPool* newHalvexPool(QVPool* parent) {
  QVKernel* kernel = Exported_QVHandle;
  if (!kernel || !kernel->createPool) return nullptr;
  void* attributes[3] = {nullptr, nullptr, nullptr};
  return kernel->createPool(kernel, attributes, parent, HALVEX_POOL_NAME);
}

HALVEX_EXPORT HalvexExtension* halvex(void*, QVPool* parent) {
  QVPool* pool = newHalvexPool(parent);
  if (!pool) return nullptr;
  // Not zero-filled: the slots that belong to the host keep what the pool gave.
  HalvexExtension* object =
      static_cast<HalvexExtension*>(poolAlloc(pool, sizeof(HalvexExtension), 0));
  if (!object) {
    poolDestroy(pool);
    return nullptr;
  }
  object->marker = HALVEX_MARKER;
  object->getReqVersion = halvex_getReqVersion;
  object->getVersion = halvex_getVersion;
  object->realDestroy = halvex_realDestroy;
  object->pool = pool;
  object->createInstance = halvex_create_instance;
  return object;
}

void* halvex_create_instance(void*) {
  QVPool* pool = newHalvexPool(nullptr);
  if (!pool) return nullptr;
  HalvexInstance* instance =
      static_cast<HalvexInstance*>(poolAlloc(pool, sizeof(HalvexInstance), POOL_ZERO));
  if (!instance) {
    poolDestroy(pool);
    return nullptr;
  }
  instance->env.pool = pool;
  instance->env.destroyOperation = reinterpret_cast<void*>(&halvex_destroy_instance);
  instance->env.preModule = nullptr;
  instance->env.preObject = nullptr;
  instance->ipqpmain = ipqpmain;
  instance->ipqpScripter = ipqpScripter;
  instance->qpReconQP = qpReconQP;
  instance->getProbStatistics = getProbStatistics;
  initScripter(&instance->scripter);
  return instance;
}

void halvex_destroy_instance(void* object) {
  if (!object) return;
  HalvexInstance* instance = static_cast<HalvexInstance*>(object);
  // bramlet's instance must go before its module, and both before the pool.
  if (instance->env.preObject) {
    void** table = static_cast<void**>(instance->env.preObject);
    reinterpret_cast<void (*)(void*)>(table[3])(instance->env.preObject);
    instance->env.preObject = nullptr;
  }
  if (instance->env.preModule) {
    QVModule* module = instance->env.preModule;
    module->moduleUnload(module);
    instance->env.preModule = nullptr;
  }
  poolDestroy(instance->env.pool);
}
