// Shared state of the reference host kernel.  Every object the kernel hands
// out is a small plain struct that starts with its slot table (the layout the
// module reads) and carries one pointer to its C++ data behind the slots, so
// the module only ever sees plain data at the positions it expects.
#ifndef HALVEX_HOST_INTERNAL_H
#define HALVEX_HOST_INTERNAL_H

#include <pthread.h>

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "host/host.h"

namespace hxhost {

struct PoolData;
struct HostPool {
  QVPool slots;
  PoolData* data;
};

struct PoolData {
  HostPool* object = nullptr;
  struct HostImpl* host = nullptr;
  std::string name;
  PoolData* parent = nullptr;
  std::vector<PoolData*> children;
  std::unordered_map<void*, int64_t> blocks;  // live block -> size
  PoolStats own;
  PoolStats subtree;  // own plus every descendant, live and gone
  bool dead = false;
};

// Anything qvWait can wait on: events and threads.  Guarded by
// HostImpl::waitMu.
struct Waitable {
  bool signalled = false;
};

struct ThreadData;
struct HostThread {
  QVThread slots;
  ThreadData* data;
};

struct ThreadData {
  HostThread* object = nullptr;
  struct HostImpl* host = nullptr;
  Waitable done;  // set when the thread function has returned
  QVThreadMain function = nullptr;
  void* argument = nullptr;
  void* endEvent = nullptr;
  int64_t result = 0;
  pthread_t handle{};
  bool isMain = false;
  bool joined = false;
};

struct EventData;
struct HostEvent {
  QVEvent slots;
  EventData* data;
};
struct EventData {
  HostEvent* object = nullptr;
  struct HostImpl* host = nullptr;
  Waitable state;
};

struct LockData;
struct HostLock {
  QVLock slots;
  LockData* data;
};
struct LockData {
  struct HostImpl* host = nullptr;
  std::mutex mutex;
};

struct HostMessageLog {
  MessageLog slots;
  struct HostImpl* host;
};

// The table the module holds as Exported_QVHandle, with the way back to the
// host right behind its last slot.
struct KernelBlock {
  QVKernel table;
  struct HostImpl* host;
};

struct HostImpl {
  KernelBlock kernel{};

  // Pools: one lock for all bookkeeping, so that the subtree counts of
  // ancestors stay exact while worker threads allocate concurrently.
  mutable std::mutex poolMu;
  std::vector<std::unique_ptr<PoolData>> pools;  // every pool ever made
  std::vector<std::unique_ptr<HostPool>> poolObjects;
  PoolStats total;
  int64_t failOnceAt = -1;  // refuse the allocation this many from now
  int64_t failAfter = -1;   // allow this many more, then refuse all
  int64_t misuse = 0;       // bad frees and calls on destroyed pools

  // Waitable objects and live thread/event/lock objects.
  std::mutex waitMu;
  std::condition_variable waitCv;
  std::unordered_map<void*, Waitable*> waitables;
  std::vector<HostThread*> threads;  // live, not yet destroyed
  std::vector<HostEvent*> events;
  // A factorisation makes one lock per block; a set keeps their removal
  // from growing with their number.
  std::unordered_set<HostLock*> locks;
  HostThread* mainThread = nullptr;

  // Module registry.
  std::mutex moduleMu;
  std::map<std::string, ModuleFactory> modules;

  // Logs.
  std::recursive_mutex sinkMu;  // a sink may log again
  LineSink sink;
  bool quiet = false;
  HostMessageLog messageLog{};

  // Returns false when failure injection refuses this allocation; counts
  // the refusal.  Caller holds poolMu.
  bool admit();
  void emit(int kind, const std::string& line);
  void report(const char* what);  // host misuse, to stderr

  void installPools();
  void installThreads();
  void installModules();
  void installLogs();
  void shutdownThreads();
  void shutdownPools();
};

// The Host's private part is the kernel state itself.
struct Host::Impl : HostImpl {};

inline HostImpl* hostOf(QVKernel* k) { return reinterpret_cast<KernelBlock*>(k)->host; }

// Pool internals used by the C++ API.
QVPool* makePool(HostImpl* host, QVPool* parent, const char* name);
void destroyPool(QVPool* pool);

// Text-log routing: the most recently constructed live host.
void registerLiveHost(HostImpl* host);
void unregisterLiveHost(HostImpl* host);
void textLogEntry(const char* format, ...);

}  // namespace hxhost

#endif
