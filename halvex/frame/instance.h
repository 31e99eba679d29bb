// The three layers a host sees: the extension object made by halvex(), the
// instance made by halvex_create_instance, and the version record.
#ifndef HALVEX_FRAME_INSTANCE_H
#define HALVEX_FRAME_INSTANCE_H

#include <stddef.h>
#include <stdint.h>

#include "frame/qvkernel.h"
#include "records/host_records.h"

#ifdef __cplusplus
extern "C" {
#endif

#define HALVEX_MARKER 0x6F76656Eu
#define HALVEX_POOL_NAME "HALVEX POOL"

typedef int64_t (*HalvexVersionFn)(void* object, int64_t* major, int64_t* minor, int64_t* patch);
typedef int64_t (*HalvexRealDestroyFn)(void* object, void* notRead);
typedef void* (*HalvexCreateInstanceFn)(void* notRead);

// The extension object, 11 slots.  Slots the host keeps are left as the pool
// gave them.
typedef struct HalvexExtension {
  uint64_t marker;                        // 0: marker in the low half
  void* hostSlot1;                        // 1
  QVModuleUnloadFn moduleUnload;          // 2: the host's
  HalvexVersionFn getReqVersion;          // 3
  HalvexVersionFn getVersion;             // 4
  void* hostSlot5;                        // 5
  HalvexRealDestroyFn realDestroy;        // 6
  void* hostSlot7[2];                     // 7, 8
  QVPool* pool;                           // 9
  HalvexCreateInstanceFn createInstance;  // 10
} HalvexExtension;

typedef int32_t (*HalvexQPMainFn)(HalvexEnv* env, QPRecord* record, ScripterOptions* options);
typedef int32_t (*HalvexQPScripterFn)(void* instance, QPRecord* record);
typedef int32_t (*HalvexReconFn)(ReconRecord* record);
typedef int32_t (*HalvexStatisticsFn)(HalvexEnv* env, QPRecord* record);
typedef void (*HalvexDestroyInstanceFn)(void* instance);

// The instance, 26 slots; the first six are the solver's env.
typedef struct HalvexInstance {
  HalvexEnv env;                         // 0-5 (slot 3 holds halvex_destroy_instance)
  HalvexQPMainFn ipqpmain;               // 6
  HalvexQPScripterFn ipqpScripter;       // 7
  HalvexReconFn qpReconQP;               // 8
  HalvexStatisticsFn getProbStatistics;  // 9
  ScripterOptions scripter;              // 10-18
  int64_t unused[7];                     // 19-25
} HalvexInstance;

// The version record: 26 slots of text references and one build stamp.
typedef struct HalvexVersionInfo {
  const char* release;             // 0
  const char* buildTree;           // 1
  const char* empty2;              // 2
  int64_t buildStamp;              // 3
  const char* productImage;        // 4: "sorrel"
  const char* moduleName;          // 5: "halvex"
  const char* productImageAgain;   // 6: "sorrel"
  const char* buildPath;           // 7
  const char* empty8;              // 8
  const char* versionWord;         // 9: "version"
  const char* separator;           // 10: "::"
  const char* empty11;             // 11
  const char* hotfixPatch;         // 12: 65 characters, patched after the build
  const char* empty13;             // 13
  const char* descriptionPatch;    // 14: 65 characters, patched after the build
  const char* platform;            // 15
  int64_t zero[10];                // 16-25
} HalvexVersionInfo;

#ifdef __cplusplus
}  // extern "C"

#define HX_SLOT(type, field, slot) \
  static_assert(offsetof(type, field) == (slot) * 8, #type "." #field " in slot " #slot)
HX_SLOT(HalvexExtension, moduleUnload, 2);
HX_SLOT(HalvexExtension, getReqVersion, 3);
HX_SLOT(HalvexExtension, getVersion, 4);
HX_SLOT(HalvexExtension, realDestroy, 6);
HX_SLOT(HalvexExtension, pool, 9);
HX_SLOT(HalvexExtension, createInstance, 10);
static_assert(sizeof(HalvexExtension) == 11 * 8, "extension object is 11 slots");
HX_SLOT(HalvexInstance, env.pool, 0);
HX_SLOT(HalvexInstance, env.textLog, 1);
HX_SLOT(HalvexInstance, env.messageLog, 2);
HX_SLOT(HalvexInstance, env.destroyOperation, 3);
HX_SLOT(HalvexInstance, env.preModule, 4);
HX_SLOT(HalvexInstance, env.preObject, 5);
HX_SLOT(HalvexInstance, ipqpmain, 6);
HX_SLOT(HalvexInstance, ipqpScripter, 7);
HX_SLOT(HalvexInstance, qpReconQP, 8);
HX_SLOT(HalvexInstance, getProbStatistics, 9);
HX_SLOT(HalvexInstance, scripter, 10);
HX_SLOT(HalvexInstance, unused, 19);
static_assert(sizeof(HalvexInstance) == 26 * 8, "instance is 26 slots");
HX_SLOT(HalvexVersionInfo, buildStamp, 3);
HX_SLOT(HalvexVersionInfo, moduleName, 5);
HX_SLOT(HalvexVersionInfo, versionWord, 9);
HX_SLOT(HalvexVersionInfo, hotfixPatch, 12);
HX_SLOT(HalvexVersionInfo, descriptionPatch, 14);
HX_SLOT(HalvexVersionInfo, platform, 15);
static_assert(sizeof(HalvexVersionInfo) == 26 * 8, "version record is 26 slots");
#endif

#endif
