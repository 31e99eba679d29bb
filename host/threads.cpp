// Threads, events and locks of the reference host, on pthreads.
//
// All waiting goes through one mutex and condition variable per host.  The
// module waits on a handful of objects a few times per factorisation, so a
// shared condition costs nothing worth measuring and keeps wait-any and
// wait-all over mixed events and threads trivially correct.
#include <chrono>
#include <cstring>

#include "host/internal.h"

namespace hxhost {
namespace {

thread_local ThreadData* tlsCurrent = nullptr;

// ---- events ------------------------------------------------------------------------

void destroyEvent(void* object) {
  if (!object) return;
  EventData* d = static_cast<HostEvent*>(object)->data;
  HostImpl* h = d->host;
  {
    std::lock_guard<std::mutex> g(h->waitMu);
    h->waitables.erase(object);
    auto& v = h->events;
    for (size_t i = 0; i < v.size(); ++i)
      if (v[i] == object) {
        v.erase(v.begin() + (long)i);
        break;
      }
  }
  delete static_cast<HostEvent*>(object);
  delete d;
}

void* kernelCreateEvent(QVKernel* k, void*, int64_t, const char*) {
  HostImpl* h = hostOf(k);
  HostEvent* e = new HostEvent;
  std::memset(&e->slots, 0, sizeof e->slots);
  e->slots.destroy = destroyEvent;
  e->data = new EventData;
  e->data->object = e;
  e->data->host = h;
  std::lock_guard<std::mutex> g(h->waitMu);
  h->waitables[e] = &e->data->state;
  h->events.push_back(e);
  return e;
}

// ---- locks ----------------------------------------------------------------------------

int64_t lockTake(void* object, int64_t, int64_t) {
  static_cast<HostLock*>(object)->data->mutex.lock();
  return 0;
}

int64_t lockGive(void* object) {
  static_cast<HostLock*>(object)->data->mutex.unlock();
  return 0;
}

void destroyLock(void* object) {
  if (!object) return;
  HostLock* l = static_cast<HostLock*>(object);
  HostImpl* h = l->data->host;
  {
    std::lock_guard<std::mutex> g(h->waitMu);
    h->locks.erase(l);
  }
  delete l->data;
  delete l;
}

void* kernelCreateMutex(QVKernel* k, void*, int64_t, const char*) {
  HostImpl* h = hostOf(k);
  HostLock* l = new HostLock;
  std::memset(&l->slots, 0, sizeof l->slots);
  l->slots.destroy = destroyLock;
  l->slots.lock = lockTake;
  l->slots.unlock = lockGive;
  l->data = new LockData;
  l->data->host = h;
  std::lock_guard<std::mutex> g(h->waitMu);
  h->locks.insert(l);
  return l;
}

// ---- threads -----------------------------------------------------------------------

// The last argument (an alertable flag on other kernels) is not read.
int64_t threadWait(void* thread, int64_t count, void** objects, int64_t* timeouts, uint8_t waitAll,
                   int32_t /*last*/) {
  if (!thread) return kWaitBadObject;
  HostImpl* h = static_cast<HostThread*>(thread)->data->host;
  if (count < 0 || (count > 0 && !objects)) return kWaitBadObject;
  if (count == 0) return kWaitOk;
  bool limited = timeouts && timeouts[0] >= 0;
  auto deadline = std::chrono::steady_clock::now() +
                  std::chrono::milliseconds(limited ? timeouts[0] : 0);
  std::unique_lock<std::mutex> g(h->waitMu);
  for (;;) {
    int64_t set = 0;
    for (int64_t i = 0; i < count; ++i) {
      auto it = h->waitables.find(objects[i]);
      if (it == h->waitables.end()) return kWaitBadObject;
      set += it->second->signalled ? 1 : 0;
    }
    if (waitAll ? set == count : set > 0) return kWaitOk;
    if (!limited) {
      h->waitCv.wait(g);
    } else if (h->waitCv.wait_until(g, deadline) == std::cv_status::timeout) {
      // One last look: the signal may have come with the deadline.
      limited = false;
      set = 0;
      for (int64_t i = 0; i < count; ++i) {
        auto it = h->waitables.find(objects[i]);
        if (it == h->waitables.end()) return kWaitBadObject;
        set += it->second->signalled ? 1 : 0;
      }
      return (waitAll ? set == count : set > 0) ? kWaitOk : kWaitTimedOut;
    }
  }
}

void* threadStart(void* arg) {
  ThreadData* d = static_cast<ThreadData*>(arg);
  tlsCurrent = d;
  d->result = d->function ? d->function(d->argument) : 0;
  tlsCurrent = nullptr;
  HostImpl* h = d->host;
  {
    std::lock_guard<std::mutex> g(h->waitMu);
    d->done.signalled = true;
    if (d->endEvent) {
      auto it = h->waitables.find(d->endEvent);
      if (it != h->waitables.end())
        it->second->signalled = true;
      else
        h->report("thread end event is no event of this host; not signalled");
    }
  }
  h->waitCv.notify_all();
  return nullptr;
}

void joinAndFree(HostThread* t) {
  ThreadData* d = t->data;
  if (!d->isMain && !d->joined) {
    if (tlsCurrent == d) {
      pthread_detach(d->handle);  // a thread destroying itself cannot join
    } else {
      pthread_join(d->handle, nullptr);
    }
    d->joined = true;
  }
}

// The main thread's object belongs to the host and outlives any destroy.
void destroyThread(void* object) {
  if (!object) return;
  HostThread* t = static_cast<HostThread*>(object);
  ThreadData* d = t->data;
  if (d->isMain) return;
  HostImpl* h = d->host;
  bool self = tlsCurrent == d;
  joinAndFree(t);
  {
    std::lock_guard<std::mutex> g(h->waitMu);
    h->waitables.erase(object);
    auto& v = h->threads;
    for (size_t i = 0; i < v.size(); ++i)
      if (v[i] == t) {
        v.erase(v.begin() + (long)i);
        break;
      }
  }
  // A detached thread still runs its exit path over its data.
  if (self) return;
  delete d;
  delete t;
}

HostThread* newThreadObject(HostImpl* h) {
  HostThread* t = new HostThread;
  std::memset(&t->slots, 0, sizeof t->slots);
  t->slots.destroy = destroyThread;
  t->slots.wait = threadWait;
  t->data = new ThreadData;
  t->data->object = t;
  t->data->host = h;
  return t;
}

void* kernelCreateThread(QVKernel* k, QVThreadAttr* attr, int64_t, const char*) {
  if (!attr || !attr->function) return nullptr;
  HostImpl* h = hostOf(k);
  HostThread* t = newThreadObject(h);
  ThreadData* d = t->data;
  d->function = attr->function;
  d->argument = attr->argument;
  d->endEvent = attr->endEvent;
  {
    std::lock_guard<std::mutex> g(h->waitMu);
    h->waitables[t] = &d->done;
    h->threads.push_back(t);
  }
  if (pthread_create(&d->handle, nullptr, threadStart, d) != 0) {
    std::lock_guard<std::mutex> g(h->waitMu);
    h->waitables.erase(t);
    h->threads.pop_back();
    delete d;
    delete t;
    return nullptr;
  }
  return t;
}

void* kernelCurrentThread(QVKernel* k) {
  ThreadData* d = tlsCurrent;
  return d && d->host == hostOf(k) ? d->object : nullptr;
}

}  // namespace

void HostImpl::installThreads() {
  kernel.table.createEvent = kernelCreateEvent;
  kernel.table.createMutex = kernelCreateMutex;
  kernel.table.createThread = kernelCreateThread;
  kernel.table.currentThread = kernelCurrentThread;
  // Stands for whichever thread waits without being a kernel thread: it is
  // never signalled itself, only its wait operation is used.
  mainThread = newThreadObject(this);
  mainThread->data->isMain = true;
  waitables[mainThread] = &mainThread->data->done;
  kernel.table.mainThread = mainThread;
}

// Whatever the module left behind: threads are joined, the rest freed.
void HostImpl::shutdownThreads() {
  std::vector<HostThread*> ts;
  std::vector<HostEvent*> es;
  std::vector<HostLock*> ls;
  {
    std::lock_guard<std::mutex> g(waitMu);
    ts = threads;
    es = events;
    ls.assign(locks.begin(), locks.end());
  }
  for (HostThread* t : ts) destroyThread(t);
  for (HostEvent* e : es) destroyEvent(e);
  for (HostLock* l : ls) destroyLock(l);
  delete mainThread->data;
  delete mainThread;
  mainThread = nullptr;
}

void signalEvent(void* event) {
  if (!event) return;
  HostImpl* h = static_cast<HostEvent*>(event)->data->host;
  {
    std::lock_guard<std::mutex> g(h->waitMu);
    static_cast<HostEvent*>(event)->data->state.signalled = true;
  }
  h->waitCv.notify_all();
}

void resetEvent(void* event) {
  if (!event) return;
  HostImpl* h = static_cast<HostEvent*>(event)->data->host;
  std::lock_guard<std::mutex> g(h->waitMu);
  static_cast<HostEvent*>(event)->data->state.signalled = false;
}

}  // namespace hxhost
