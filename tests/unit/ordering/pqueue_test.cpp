// Priority queues and the pair sort of the ordering code,
// against plain reference models.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <vector>

#include "ordering/pqueue.h"
#include "support/graph_support.h"

namespace {

using graphs::PoolEnv;

// A control with the stack workspace of a graph of `vertices` vertices.
struct Workspace {
  PoolEnv e;
  OrderingControl control{};
  explicit Workspace(int32_t vertices) {
    OrderingGraph g;
    InitGraph(&g);
    g.numVertex = vertices;
    g.numEdge = 0;
    control.env = &e.env;
    control.seed = 4321;
    EXPECT_EQ(AllocateWorkSpace(&control, &g), 0);
  }
  ~Workspace() { poolFree(e.pool, control.workBase); }
};

// Random inserts, deletes, updates and removals of the maximum, checked
// against a map from element to gain after every operation.
void exerciseMaxQueue(PQueueMax* q, int32_t maxNodes, int32_t maxGain, uint32_t seed) {
  std::mt19937 rng(seed);
  std::map<int32_t, int32_t> gainOf;
  auto randomGain = [&] { return (int32_t)(rng() % (2 * maxGain + 1)) - maxGain; };
  auto randomMember = [&] {
    auto it = gainOf.begin();
    std::advance(it, rng() % gainOf.size());
    return it;
  };
  for (int32_t step = 0; step < 4000; step++) {
    int32_t op = rng() % 6;
    if (op <= 1 && (int32_t)gainOf.size() < maxNodes) {
      int32_t el;
      do el = rng() % maxNodes; while (gainOf.count(el));
      int32_t gain = randomGain();
      PQueueMaxInsert(q, el, gain);
      gainOf[el] = gain;
    } else if (op == 2 && !gainOf.empty()) {
      auto it = randomMember();
      PQueueMaxDelete(q, it->first, it->second);
      gainOf.erase(it);
    } else if (op == 3 && !gainOf.empty()) {
      auto it = randomMember();
      int32_t g = randomGain();
      PQueueMaxUpdate(q, it->first, it->second, g);
      it->second = g;
    } else if (op == 4 && !gainOf.empty()) {
      auto it = randomMember();
      int32_t g = it->second + (int32_t)(rng() % (maxGain - it->second + 1));
      PQueueMaxUpdateUp(q, it->first, it->second, g);
      it->second = g;
    } else {
      int32_t seen = PQueueMaxSeeMax(q);
      int32_t got = PQueueMaxGetMax(q);
      ASSERT_EQ(seen, got);
      if (gainOf.empty()) {
        ASSERT_EQ(got, -1);
        continue;
      }
      int32_t best = -maxGain - 1;
      for (auto& kv : gainOf) best = std::max(best, kv.second);
      ASSERT_TRUE(gainOf.count(got)) << "step " << step;
      ASSERT_EQ(gainOf[got], best) << "step " << step;
      gainOf.erase(got);
    }
    ASSERT_EQ(q->count, (int32_t)gainOf.size());
  }
}

}  // namespace

TEST(PQueueMax, FormFollowsSizeAndGainAndBothFormsAgreeWithAModel) {
  Workspace w(2000);
  struct {
    int32_t nodes, gain, form;
  } cases[] = {{499, 3, PQUEUE_HEAP}, {500, 500, PQUEUE_BUCKET}, {500, 501, PQUEUE_HEAP},
               {1200, 40, PQUEUE_BUCKET}, {60, 2000, PQUEUE_HEAP}};
  for (auto& c : cases) {
    PQueueMax q;
    ASSERT_EQ(PQueueMaxInit(&w.control, &q, c.nodes, c.gain), 0);
    EXPECT_EQ(q.form, c.form) << c.nodes << " " << c.gain;
    EXPECT_EQ(q.heapAllocated, 0);
    exerciseMaxQueue(&q, c.nodes, c.gain, (uint32_t)(c.nodes + c.gain));
    PQueueMaxReset(&q);
    EXPECT_EQ(PQueueMaxGetMax(&q), -1);
    if (q.form == PQUEUE_BUCKET) {
      EXPECT_EQ(q.topBucket, -c.gain);
    }
    // A reset queue is as good as new.
    exerciseMaxQueue(&q, c.nodes, c.gain, 7);
    PQueueMaxFree(&w.control, &q);
    EXPECT_EQ(w.control.workTop, 0);
  }
}

TEST(PQueueMax, BucketsMoveToThePoolWhenTheStackIsShortAndFailCleanly) {
  Workspace w(100);  // 7884 ints of stack
  PQueueMax q;
  ASSERT_EQ(PQueueMaxInit(&w.control, &q, 1500, 200), 0);
  EXPECT_EQ(q.form, PQUEUE_BUCKET);
  EXPECT_EQ(q.heapAllocated, 1);
  EXPECT_EQ(w.control.workTop, 0);
  exerciseMaxQueue(&q, 1500, 200, 3);
  PQueueMaxFree(&w.control, &q);
  int64_t live = w.e.live();
  for (int64_t k = 0; k < 2; k++) {
    w.e.host.failAllocation(k);
    EXPECT_EQ(PQueueMaxInit(&w.control, &q, 1500, 200), ORDERING_NOMEM) << k;
    w.e.host.clearFailures();
    EXPECT_EQ(w.e.live(), live);
  }
}

TEST(PQueueMin, AgreesWithAModelAndKeepsTheLocator) {
  PoolEnv e;
  const int32_t n = 300;
  std::vector<int32_t> locator(n, -1);
  PQueueMin q;
  ASSERT_EQ(PQueueMinInit(e.pool, &q, n, locator.data()), 0);
  std::mt19937 rng(11);
  std::map<int32_t, double> keyOf;
  for (int32_t step = 0; step < 5000; step++) {
    int32_t op = rng() % 4;
    if (op == 0 && (int32_t)keyOf.size() < n) {
      int32_t el;
      do el = rng() % n; while (keyOf.count(el));
      double key = (rng() % 1000) / 8.0;  // repeated keys on purpose
      PQueueMinInsert(key, &q, el);
      keyOf[el] = key;
    } else if (op == 1 && !keyOf.empty()) {
      auto it = keyOf.begin();
      std::advance(it, rng() % keyOf.size());
      it->second -= (rng() % 100) / 4.0;
      PQueueMinDecreaseKey(it->second, &q, it->first);
    } else if (op == 2 && !keyOf.empty()) {
      PQueueMinEntry top = PQueueMinSeeMin(&q);
      double best = 1e300;
      for (auto& kv : keyOf) best = std::min(best, kv.second);
      ASSERT_EQ(top.key, best);
      ASSERT_EQ(keyOf[top.element], best);
      PQueueMinExtractMin(&q);
      keyOf.erase(top.element);
    }
    ASSERT_EQ(q.count, (int32_t)keyOf.size());
    for (int32_t i = 0; i < q.count; i++) ASSERT_EQ(locator[q.heap[i].element], i);
  }
  PQueueMinReset(&q);
  EXPECT_EQ(q.count, 0);
  for (auto& kv : keyOf) EXPECT_EQ(locator[kv.first], -1);
  PQueueMinFree(e.pool, &q);
  e.host.failAllocation(0);
  EXPECT_EQ(PQueueMinInit(e.pool, &q, n, locator.data()), ORDERING_NOMEM);
  e.host.clearFailures();
  EXPECT_EQ(e.live(), 0);
}

TEST(OrderingTools, KeySortKeepsPairsTogether) {
  std::mt19937 rng(5);
  for (int32_t n : {0, 1, 2, 11, 12, 13, 100, 5000}) {
    // Few keys, many keys, and sorted and reversed runs (the quicksort's
    // bad cases).
    for (int32_t mode : {0, 1, 2, 3}) {
      std::vector<IKeyValue> pairs(n);
      for (int32_t i = 0; i < n; i++) {
        int32_t key = mode == 0 ? rng() % 3 : mode == 1 ? rng() % 1000000 : mode == 2 ? i : n - i;
        pairs[i] = {key, i};
      }
      std::vector<std::pair<int32_t, int32_t>> want(n), got(n);
      for (int32_t i = 0; i < n; i++) want[i] = {pairs[i].key, pairs[i].value};
      ikeysort(n, pairs.data());
      for (int32_t i = 0; i < n; i++) got[i] = {pairs[i].key, pairs[i].value};
      for (int32_t i = 1; i < n; i++) ASSERT_LE(got[i - 1].first, got[i].first) << n;
      // The values travel with their keys.
      std::sort(want.begin(), want.end());
      std::sort(got.begin(), got.end());
      EXPECT_EQ(got, want);
    }
  }
}
