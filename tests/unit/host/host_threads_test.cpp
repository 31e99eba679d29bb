// Threads, events, waits and locks of the reference host, through the slot
// layout the factorisation uses.  No assertion depends on how long anything
// takes: timeouts are only used where the awaited object can never be set.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "host/host.h"

namespace {

struct Kernel {
  hxhost::Host host;
  QVKernel* k = host.kernel();

  QVEvent* event() { return static_cast<QVEvent*>(k->createEvent(k, nullptr, 0, "event")); }
  QVThread* mainThread() { return static_cast<QVThread*>(k->mainThread); }
  // Waits through the main thread object, as a non-kernel caller does.
  int64_t wait(std::vector<void*> objects, bool all, int64_t* timeouts = nullptr) {
    QVThread* t = mainThread();
    return t->wait(t, (int64_t)objects.size(), objects.data(), timeouts, all ? 1 : 0, 0);
  }
};

struct Shared {
  QVKernel* kernel;
  void* gate;
  QVLock* lock;
  long value = 0;  // deliberately not atomic
};
struct Job {
  Shared* shared;
  void* seenCurrent = nullptr;
  int64_t gateResult = -1;
};

// Parks on the gate through its own thread object, then counts under the lock.
int64_t runJob(void* arg) {
  Job* job = static_cast<Job*>(arg);
  Shared* s = job->shared;
  QVThread* self = static_cast<QVThread*>(job->seenCurrent = s->kernel->currentThread(s->kernel));
  job->gateResult = self->wait(self, 1, &s->gate, nullptr, 1, 0);
  for (int i = 0; i < 20000; ++i) {
    s->lock->lock(s->lock, 1, 1);
    long v = s->value;
    std::this_thread::yield();  // widen the window a missing lock would leave
    s->value = v + 1;
    s->lock->unlock(s->lock);
  }
  return 0;
}

TEST(HostThreads, ThreadsWaitSignalAndCountUnderALock) {
  Kernel kn;
  Shared shared{kn.k, kn.event(), static_cast<QVLock*>(kn.k->createMutex(kn.k, nullptr, 0, "l"))};
  QVEvent* end = kn.event();
  ASSERT_TRUE(shared.gate && shared.lock && end);
  std::vector<Job> jobs(3, Job{&shared});
  std::vector<void*> threads;
  for (Job& j : jobs) {
    QVThreadAttr attr{};
    attr.function = runJob;
    attr.argument = &j;
    attr.endEvent = &j == &jobs[0] ? end : nullptr;
    threads.push_back(kn.k->createThread(kn.k, &attr, 0, "worker"));
    ASSERT_NE(threads.back(), nullptr);
  }
  // All are parked on the gate, so nothing is set yet.
  int64_t poll = 0;
  EXPECT_EQ(kn.wait(threads, false, &poll), hxhost::kWaitTimedOut);
  hxhost::signalEvent(shared.gate);
  EXPECT_EQ(kn.wait(threads, true), hxhost::kWaitOk);
  EXPECT_EQ(shared.value, 3L * 20000);
  for (size_t i = 0; i < jobs.size(); ++i) {
    EXPECT_EQ(jobs[i].gateResult, hxhost::kWaitOk);
    EXPECT_EQ(jobs[i].seenCurrent, threads[i]) << "currentThread inside a kernel thread";
  }
  // The end event stays set until reset; what is no object, or no longer
  // one, is refused.
  EXPECT_EQ(kn.wait({end, threads[0]}, true), hxhost::kWaitOk);
  hxhost::resetEvent(end);
  EXPECT_EQ(kn.wait({end}, true, &poll), hxhost::kWaitTimedOut);
  EXPECT_EQ(kn.wait({end, &poll}, false, &poll), hxhost::kWaitBadObject);
  // No thread object outside kernel threads.
  EXPECT_EQ(kn.k->currentThread(kn.k), nullptr);
  void* seen = &seen;
  std::thread plain([&] { seen = kn.k->currentThread(kn.k); });
  plain.join();
  EXPECT_EQ(seen, nullptr);
  for (void* t : threads) static_cast<QVThread*>(t)->destroy(static_cast<QVThread*>(t));
  for (QVEvent* e : {static_cast<QVEvent*>(shared.gate), end}) e->destroy(e);
  EXPECT_EQ(kn.wait({end}, true, &poll), hxhost::kWaitBadObject) << "a destroyed event is gone";
  shared.lock->destroy(shared.lock);
}

}  // namespace
