#include <thread>
#include <vector>

#include "frame/instance.h"
#include "frame/qv.h"
#include "records/recon.h"
#include "support/oom.h"
#include "support/support.h"

namespace {

using FrameGlue = HostTest;

// Reference step of the Lehmer generator in plain 64-bit arithmetic.
int64_t lehmer(int64_t seed) { return seed * 397204094LL % 2147483647LL; }

TEST_F(FrameGlue, RandFollowsTheLehmerSequenceAndStoresItsState) {
  int32_t seed = 4321;
  int64_t expected = 4321;
  for (int k = 0; k < 1000; ++k) {
    expected = lehmer(expected);
    ASSERT_EQ(qvRand(&seed), expected) << "step " << k;
    ASSERT_EQ(seed, expected);
  }
  // Large seeds exercise the fold of a sum just past the modulus.
  seed = 2147483646;
  EXPECT_EQ(qvRand(&seed), lehmer(2147483646));
  seed = 0;
  int32_t first = qvRand(&seed);
  EXPECT_NE(first, 0);
  EXPECT_EQ(seed, first);
  EXPECT_NE(qvRand(&seed), first);
}

TEST_F(FrameGlue, AtomicsActOnTheCell) {
  volatile int64_t cell = 0;
  EXPECT_EQ(qvAtomicInit(&cell, 12), 0);
  EXPECT_FALSE(qvAtomicSet(&cell, 11, 20));
  EXPECT_EQ(cell, 12);
  EXPECT_TRUE(qvAtomicSet(&cell, 12, 20));
  EXPECT_EQ(qvAtomicAdd(&cell, 5), 25);
  EXPECT_EQ(qvAtomicAnd(&cell, 0x0C), 8);
  EXPECT_EQ(qvAtomicOr(&cell, 0x3), 11);
  qvAtomicDestroy(&cell);
  EXPECT_EQ(cell, 0);

  std::vector<std::thread> threads;
  for (int t = 0; t < 2; ++t)
    threads.emplace_back([&] {
      for (int k = 0; k < 100000; ++k) qvAtomicAdd(&cell, 1);
    });
  for (auto& t : threads) t.join();
  EXPECT_EQ(cell, 200000);
}

struct Node {
  int64_t payload;
  Node* link;
};

TEST_F(FrameGlue, StackPushPopOrderAndEmptyPop) {
  volatile int64_t head = 0;
  const int64_t linkOffset = offsetof(Node, link);
  EXPECT_EQ(qvAStackPop(&head, linkOffset), nullptr);
  EXPECT_EQ(head, 0);
  Node a{1, nullptr}, b{2, nullptr};
  EXPECT_EQ(qvAStackPush(&head, &a, linkOffset), nullptr);
  EXPECT_EQ(qvAStackPush(&head, &b, linkOffset), &a);
  EXPECT_EQ(qvAStackPop(&head, linkOffset), &b);
  EXPECT_EQ(qvAStackPop(&head, linkOffset), &a);
  EXPECT_EQ(qvAStackPop(&head, linkOffset), nullptr);
  EXPECT_EQ(head, 0);
}

TEST_F(FrameGlue, StackLosesNoNodeUnderTwoThreads) {
  constexpr int kNodes = 2000, kRounds = 200;
  std::vector<Node> nodes(kNodes);
  volatile int64_t head = 0;
  const int64_t linkOffset = offsetof(Node, link);
  for (int i = 0; i < kNodes; ++i) {
    nodes[i].payload = i;
    qvAStackPush(&head, &nodes[i], linkOffset);
  }
  // Each thread pops and pushes back; a lost or duplicated node shows up in
  // the final census.
  auto churn = [&] {
    for (int r = 0; r < kRounds; ++r) {
      Node* taken[8];
      int n = 0;
      for (; n < 8; ++n) {
        taken[n] = static_cast<Node*>(qvAStackPop(&head, linkOffset));
        if (!taken[n]) break;
      }
      for (int k = 0; k < n; ++k) qvAStackPush(&head, taken[k], linkOffset);
    }
  };
  std::thread t1(churn), t2(churn);
  t1.join();
  t2.join();
  std::vector<int> seen(kNodes, 0);
  int count = 0;
  while (Node* n = static_cast<Node*>(qvAStackPop(&head, linkOffset))) {
    ASSERT_GE(n->payload, 0);
    ASSERT_LT(n->payload, kNodes);
    ++seen[n->payload];
    ++count;
  }
  EXPECT_EQ(count, kNodes);
  for (int i = 0; i < kNodes; ++i) EXPECT_EQ(seen[i], 1) << "node " << i;
}

TEST_F(FrameGlue, WaitFallsBackToTheMainThreadOrReportsThatThereIsNone) {
  // Waiting for nothing from the main thread succeeds either way of naming it.
  EXPECT_EQ(qvWait(nullptr, 0, nullptr, nullptr, 1, 0), 0);
  EXPECT_EQ(qvWait(host.kernel(), 0, nullptr, nullptr, 1, 0), 0);
  QVKernel table{};  // no currentThread result, no main thread
  table.currentThread = [](QVKernel*) -> void* { return nullptr; };
  QVKernel* saved = Exported_QVHandle;
  Exported_QVHandle = &table;
  EXPECT_EQ(qvWait(nullptr, 0, nullptr, nullptr, 0, 0), QV_NO_THREAD);
  Exported_QVHandle = saved;
}

TEST_F(FrameGlue, ClockAgreesWithTheSystem) {
  double aux = 12345.0;
  double now = qvzdtgmt(&aux);
  EXPECT_NEAR(now, (double)time(nullptr), 2.0);
  EXPECT_NE(aux, 12345.0);
}

using ModuleEntry = HostTest;

TEST_F(ModuleEntry, InstanceFillsItsSlotsAndDestroysEverything) {
  HalvexInstance* instance = static_cast<HalvexInstance*>(halvex_create_instance(nullptr));
  ASSERT_NE(instance, nullptr);
  EXPECT_EQ(instance->qpReconQP, &qpReconQP);
  EXPECT_EQ(instance->scripter.presolver, -1);
  EXPECT_EQ(instance->env.textLog, nullptr);
  int64_t poolsBefore = host.livePools();
  halvex_destroy_instance(instance);
  EXPECT_EQ(host.livePools(), poolsBefore - 1);
  halvex_destroy_instance(nullptr);
}

// A stand-in bramlet: records the order in which its pieces go.
std::vector<std::string> releaseOrder;
void fakeDestroyObject(void*) { releaseOrder.push_back("object"); }
void fakeUnloadModule(QVModule*) { releaseOrder.push_back("module"); }

TEST_F(ModuleEntry, AbandonedSolveReleasesSiblingObjectBeforeItsModule) {
  HalvexInstance* instance = static_cast<HalvexInstance*>(halvex_create_instance(nullptr));
  ASSERT_NE(instance, nullptr);
  void* bramletTable[4] = {nullptr, nullptr, nullptr, reinterpret_cast<void*>(&fakeDestroyObject)};
  QVModule bramletModule{};
  bramletModule.moduleUnload = fakeUnloadModule;
  instance->env.preObject = bramletTable;
  instance->env.preModule = &bramletModule;
  releaseOrder.clear();
  halvex_destroy_instance(instance);
  ASSERT_EQ(releaseOrder.size(), 2u);
  EXPECT_EQ(releaseOrder[0], "object");
  EXPECT_EQ(releaseOrder[1], "module");
}

TEST_F(ModuleEntry, RefusedAllocationLeavesNoPartialObjectBehind) {
  const int64_t poolsBefore = host.livePools();
  // The object's pool, then the object in it; the sweep counts blocks, so
  // the pools are counted here.
  HalvexExtension* object = nullptr;
  const auto sweep = hxtest::oomSweep(host, [&](hxtest::OomProbe& probe) {
    object = halvex(nullptr, pool);
    if (probe.refused()) {
      EXPECT_EQ(host.livePools(), poolsBefore);
    }
    return object ? 0 : IPM_STATUS_OUT_OF_MEMORY;
  });
  EXPECT_EQ(sweep.refusedRuns, 2);
  ASSERT_NE(object, nullptr);
  const auto instances = hxtest::oomSweep(host, [&](hxtest::OomProbe& probe) {
    void* made = halvex_create_instance(nullptr);
    if (probe.refused()) {
      EXPECT_EQ(host.livePools(), poolsBefore + 1);
    }
    halvex_destroy_instance(static_cast<HalvexInstance*>(made));
    return made ? 0 : IPM_STATUS_OUT_OF_MEMORY;
  });
  EXPECT_GE(instances.refusedRuns, 2);
  EXPECT_EQ(object->pool != pool, true);
  EXPECT_EQ(halvex_realDestroy(object, nullptr), 0);
  EXPECT_EQ(halvex_realDestroy(nullptr, nullptr), 0);
  EXPECT_EQ(host.livePools(), poolsBefore);
  EXPECT_EQ(liveBlocks(), 0);
}

}  // namespace
