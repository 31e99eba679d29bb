// Threads, events, waits and locks of the reference host, through the slot
// layout the factorisation uses.  No assertion depends on how long anything
// takes: timeouts are only used where the awaited object can never be set.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "host/host.h"

namespace {

using hxhost::Host;

struct Kernel {
  Host host;
  QVKernel* k = host.kernel();

  QVEvent* event() { return static_cast<QVEvent*>(k->createEvent(k, nullptr, 0, "event")); }
  QVLock* lock() { return static_cast<QVLock*>(k->createMutex(k, nullptr, 0, "lock")); }
  QVThread* thread(QVThreadMain fn, void* arg, QVEvent* end = nullptr) {
    QVThreadAttr attr{};
    attr.function = fn;
    attr.argument = arg;
    attr.endEvent = end;
    return static_cast<QVThread*>(k->createThread(k, &attr, 0, "worker"));
  }
  QVThread* mainThread() { return static_cast<QVThread*>(k->mainThread); }
  // Waits through the main thread object, as a non-kernel caller does.
  int64_t wait(std::vector<void*> objects, bool all, int64_t* timeouts = nullptr) {
    QVThread* t = mainThread();
    return t->wait(t, (int64_t)objects.size(), objects.data(), timeouts, all ? 1 : 0, 0);
  }
};

struct Job {
  QVKernel* kernel = nullptr;
  std::atomic<int> ran{0};
  void* seenCurrent = nullptr;
  void* gate = nullptr;  // event to wait for before finishing, if any
  int64_t gateResult = -1;
};

int64_t runJob(void* arg) {
  Job* job = static_cast<Job*>(arg);
  job->seenCurrent = job->kernel->currentThread(job->kernel);
  if (job->gate) {
    // A kernel thread waits through its own thread object.
    QVThread* self = static_cast<QVThread*>(job->seenCurrent);
    job->gateResult = self->wait(self, 1, &job->gate, nullptr, 1, 0);
  }
  job->ran++;
  return 0;
}

TEST(HostThreads, ThreadRunsAndSignalsItsEndEvent) {
  Kernel kn;
  Job job;
  job.kernel = kn.k;
  QVEvent* end = kn.event();
  ASSERT_NE(end, nullptr);
  QVThread* t = kn.thread(runJob, &job, end);
  ASSERT_NE(t, nullptr);
  EXPECT_EQ(kn.wait({end}, true), hxhost::kWaitOk);
  EXPECT_EQ(job.ran.load(), 1);
  EXPECT_EQ(job.seenCurrent, (void*)t) << "currentThread inside a kernel thread is its object";
  // The event stays set: a second wait returns at once, as does one on the
  // finished thread itself.
  EXPECT_EQ(kn.wait({end, t}, true), hxhost::kWaitOk);
  t->destroy(t);
  end->destroy(end);
}

TEST(HostThreads, WaitAllAndAnyOverThreadsAndEvents) {
  Kernel kn;
  std::vector<Job> jobs(3);
  std::vector<QVThread*> threads;
  QVEvent* gate = kn.event();
  for (Job& j : jobs) {
    j.kernel = kn.k;
    j.gate = gate;
    threads.push_back(kn.thread(runJob, &j));
    ASSERT_NE(threads.back(), nullptr);
  }
  // All are parked on the gate, so nothing is set yet.
  int64_t poll = 0;
  EXPECT_EQ(kn.wait({threads[0], threads[1], threads[2]}, false, &poll), hxhost::kWaitTimedOut);
  hxhost::signalEvent(gate);
  EXPECT_EQ(kn.wait({threads[0], threads[1], threads[2]}, true), hxhost::kWaitOk);
  for (Job& j : jobs) {
    EXPECT_EQ(j.ran.load(), 1);
    EXPECT_EQ(j.gateResult, hxhost::kWaitOk);
  }
  for (QVThread* t : threads) t->destroy(t);
  gate->destroy(gate);
}

TEST(HostThreads, TimeoutsAndBadObjects) {
  Kernel kn;
  QVEvent* a = kn.event();
  QVEvent* b = kn.event();
  int64_t poll = 0, shortWait = 20, forever = -1;
  EXPECT_EQ(kn.wait({a}, true, &poll), hxhost::kWaitTimedOut);
  EXPECT_EQ(kn.wait({a, b}, false, &shortWait), hxhost::kWaitTimedOut);
  hxhost::signalEvent(a);
  EXPECT_EQ(kn.wait({a, b}, false, &poll), hxhost::kWaitOk);
  EXPECT_EQ(kn.wait({a, b}, true, &poll), hxhost::kWaitTimedOut);
  EXPECT_EQ(kn.wait({a}, true, &forever), hxhost::kWaitOk);
  hxhost::resetEvent(a);
  EXPECT_EQ(kn.wait({a}, true, &poll), hxhost::kWaitTimedOut);
  EXPECT_EQ(kn.wait({}, true), hxhost::kWaitOk);

  int notAnObject = 0;
  EXPECT_EQ(kn.wait({a, &notAnObject}, false, &poll), hxhost::kWaitBadObject);
  b->destroy(b);
  EXPECT_EQ(kn.wait({b}, true, &poll), hxhost::kWaitBadObject) << "a destroyed event is gone";
  a->destroy(a);
}

TEST(HostThreads, CurrentThreadOnlyForKernelThreads) {
  Kernel kn;
  EXPECT_EQ(kn.k->currentThread(kn.k), nullptr);
  void* seen = &seen;
  std::thread plain([&] { seen = kn.k->currentThread(kn.k); });
  plain.join();
  EXPECT_EQ(seen, nullptr);

  // Another host's kernel thread is not one of ours.
  Kernel other;
  Job job;
  job.kernel = kn.k;
  QVEvent* end = other.event();
  QVThread* t = other.thread(runJob, &job, end);
  EXPECT_EQ(other.wait({end}, true), hxhost::kWaitOk);
  EXPECT_EQ(job.seenCurrent, nullptr);
  t->destroy(t);
  end->destroy(end);
}

TEST(HostThreads, MainThreadWaitWorksFromAnyThread) {
  Kernel kn;
  QVEvent* e = kn.event();
  std::atomic<int64_t> result{-1};
  std::thread waiter([&] { result = kn.wait({e}, true); });
  hxhost::signalEvent(e);
  waiter.join();
  EXPECT_EQ(result.load(), hxhost::kWaitOk);
  // Destroying the main thread object is ignored: the host owns it.
  QVThread* m = kn.mainThread();
  m->destroy(m);
  EXPECT_EQ(kn.wait({e}, true), hxhost::kWaitOk);
  e->destroy(e);
}

struct Counter {
  QVLock* lock = nullptr;
  long value = 0;  // deliberately not atomic
  int rounds = 0;
};

int64_t countUnderLock(void* arg) {
  Counter* c = static_cast<Counter*>(arg);
  for (int i = 0; i < c->rounds; ++i) {
    c->lock->lock(c->lock, 1, 1);
    long v = c->value;
    std::this_thread::yield();  // widen the window a missing lock would leave
    c->value = v + 1;
    c->lock->unlock(c->lock);
  }
  return 0;
}

TEST(HostThreads, LockKeepsACounterExact) {
  Kernel kn;
  Counter c;
  c.lock = kn.lock();
  ASSERT_NE(c.lock, nullptr);
  c.rounds = 20000;
  QVEvent* e1 = kn.event();
  QVEvent* e2 = kn.event();
  QVThread* t1 = kn.thread(countUnderLock, &c, e1);
  QVThread* t2 = kn.thread(countUnderLock, &c, e2);
  ASSERT_EQ(kn.wait({e1, e2}, true), hxhost::kWaitOk);
  EXPECT_EQ(c.value, 2L * c.rounds);
  t1->destroy(t1);
  t2->destroy(t2);
  e1->destroy(e1);
  e2->destroy(e2);
  c.lock->destroy(c.lock);
}

int64_t slowJob(void* arg) {
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  static_cast<Job*>(arg)->ran++;
  return 0;
}

// A thread still running when its host goes is joined, not abandoned.
TEST(HostThreads, HostJoinsThreadsLeftBehind) {
  Job job;
  {
    Kernel kn;
    kn.lock();
    kn.event();
    ASSERT_NE(kn.thread(slowJob, &job, kn.event()), nullptr);
  }
  EXPECT_EQ(job.ran.load(), 1);
}

}  // namespace
