// Memory pools of the reference host.
//
// Blocks come from malloc and are tracked per pool in a hash map, so that a
// free can be checked against the pool before anything is touched: a block
// from another pool, from the stack or from malloc is reported and left
// alone rather than corrupting the heap.  A size of 0 is served with a
// distinct one-byte block, counted and freed like any other, so that a caller
// can never mistake an empty request for a refusal.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "host/internal.h"

namespace hxhost {
namespace {

PoolData* dataOf(QVPool* pool) { return reinterpret_cast<HostPool*>(pool)->data; }

// Adds a block to the pool's counts and to every ancestor's subtree counts.
void countAlloc(PoolData* p, int64_t size) {
  HostImpl* h = p->host;
  p->own.liveBlocks++;
  p->own.liveBytes += size;
  p->own.allocations++;
  if (p->own.liveBytes > p->own.peakBytes) p->own.peakBytes = p->own.liveBytes;
  for (PoolData* a = p; a; a = a->parent) {
    a->subtree.liveBlocks++;
    a->subtree.liveBytes += size;
    a->subtree.allocations++;
    if (a->subtree.liveBytes > a->subtree.peakBytes) a->subtree.peakBytes = a->subtree.liveBytes;
  }
  h->total.liveBlocks++;
  h->total.liveBytes += size;
  h->total.allocations++;
  if (h->total.liveBytes > h->total.peakBytes) h->total.peakBytes = h->total.liveBytes;
}

void countFree(PoolData* p, int64_t size) {
  HostImpl* h = p->host;
  p->own.liveBlocks--;
  p->own.liveBytes -= size;
  for (PoolData* a = p; a; a = a->parent) {
    a->subtree.liveBlocks--;
    a->subtree.liveBytes -= size;
  }
  h->total.liveBlocks--;
  h->total.liveBytes -= size;
}

void countRefused(PoolData* p) {
  p->own.refused++;
  for (PoolData* a = p; a; a = a->parent) a->subtree.refused++;
}

// Resizes the live byte counts of a block in place (realloc).
void countResize(PoolData* p, int64_t oldSize, int64_t newSize) {
  countFree(p, oldSize);
  countAlloc(p, newSize);
  // A resize is not a new allocation.
  p->own.allocations--;
  for (PoolData* a = p; a; a = a->parent) a->subtree.allocations--;
  p->host->total.allocations--;
}

void* hostPoolAlloc(QVPool* pool, int64_t size, uint32_t flags) {
  PoolData* p = dataOf(pool);
  HostImpl* h = p->host;
  if (size < 0) return nullptr;
  {
    std::lock_guard<std::mutex> g(h->poolMu);
    if (p->dead) {
      h->misuse++;
      h->report("poolAlloc on a destroyed pool");
      return nullptr;
    }
    if (!h->admit()) {
      countRefused(p);
      return nullptr;
    }
  }
  size_t bytes = size > 0 ? (size_t)size : 1;
  void* block = (flags & POOL_ZERO) ? std::calloc(1, bytes) : std::malloc(bytes);
  if (!block) return nullptr;
  std::lock_guard<std::mutex> g(h->poolMu);
  p->blocks.emplace(block, size);
  countAlloc(p, size);
  return block;
}

void hostPoolFree(QVPool* pool, void* block) {
  if (!block) return;
  PoolData* p = dataOf(pool);
  HostImpl* h = p->host;
  {
    std::lock_guard<std::mutex> g(h->poolMu);
    if (p->dead) {
      h->misuse++;
      h->report("poolFree on a destroyed pool");
      return;
    }
    auto it = p->blocks.find(block);
    if (it == p->blocks.end()) {
      h->misuse++;
      char text[160];
      std::snprintf(text, sizeof text, "poolFree of %p, which is no live block of pool '%s'", block,
                    p->name.c_str());
      h->report(text);
      return;
    }
    countFree(p, it->second);
    p->blocks.erase(it);
  }
  std::free(block);
}

// A null block is a plain allocation; a new size of 0 keeps a one-byte block.
// POOL_ZERO zero-fills whatever the block grows by.
void* hostPoolRealloc(QVPool* pool, void* block, int64_t size, uint32_t flags) {
  if (!block) return hostPoolAlloc(pool, size, flags);
  PoolData* p = dataOf(pool);
  HostImpl* h = p->host;
  if (size < 0) return nullptr;
  int64_t oldSize;
  {
    std::lock_guard<std::mutex> g(h->poolMu);
    if (p->dead) {
      h->misuse++;
      h->report("poolRealloc on a destroyed pool");
      return nullptr;
    }
    auto it = p->blocks.find(block);
    if (it == p->blocks.end()) {
      h->misuse++;
      h->report("poolRealloc of a block that is no live block of this pool");
      return nullptr;
    }
    if (!h->admit()) {
      countRefused(p);
      return nullptr;
    }
    oldSize = it->second;
    // Taken out of the map while unlocked, so that no concurrent free of the
    // same (misused) block can race with realloc.
    p->blocks.erase(it);
  }
  size_t bytes = size > 0 ? (size_t)size : 1;
  void* moved = std::realloc(block, bytes);
  std::lock_guard<std::mutex> g(h->poolMu);
  if (!moved) {
    p->blocks.emplace(block, oldSize);
    return nullptr;
  }
  if ((flags & POOL_ZERO) && size > oldSize) std::memset((char*)moved + oldSize, 0, size - oldSize);
  p->blocks.emplace(moved, size);
  countResize(p, oldSize, size);
  return moved;
}

// Children go first, then the blocks.  Caller holds poolMu.
void destroyLocked(PoolData* p) {
  while (!p->children.empty()) destroyLocked(p->children.back());
  int64_t leftover = (int64_t)p->blocks.size();
  for (auto& b : p->blocks) {
    countFree(p, b.second);
    std::free(b.first);
  }
  p->blocks = {};
  p->own.releasedByDestroy += leftover;
  for (PoolData* a = p; a; a = a->parent) a->subtree.releasedByDestroy += leftover;
  p->host->total.releasedByDestroy += leftover;
  if (p->parent) {
    auto& siblings = p->parent->children;
    for (size_t i = 0; i < siblings.size(); ++i)
      if (siblings[i] == p) {
        siblings.erase(siblings.begin() + (long)i);
        break;
      }
  }
  p->dead = true;
}

void hostPoolDestroy(QVPool* pool) {
  if (!pool) return;
  PoolData* p = dataOf(pool);
  std::lock_guard<std::mutex> g(p->host->poolMu);
  if (p->dead) {
    p->host->misuse++;
    p->host->report("poolDestroy of a pool already destroyed");
    return;
  }
  destroyLocked(p);
}

QVPool* kernelCreatePool(QVKernel* k, void* /*attr3*/, QVPool* parent, const char* name) {
  return makePool(hostOf(k), parent, name);
}

}  // namespace

bool HostImpl::admit() {
  bool ok = true;
  if (failOnceAt >= 0) {
    if (failOnceAt == 0) ok = false;
    --failOnceAt;
  }
  if (failAfter >= 0) {
    if (failAfter == 0)
      ok = false;
    else
      --failAfter;
  }
  if (!ok) total.refused++;
  return ok;
}

// Pool records are kept, dead, until the host goes: a late call on a
// destroyed pool then finds a record that says so instead of freed memory.
QVPool* makePool(HostImpl* h, QVPool* parent, const char* name) {
  std::lock_guard<std::mutex> g(h->poolMu);
  PoolData* parentData = parent ? dataOf(parent) : nullptr;
  if (parentData && parentData->dead) {
    h->misuse++;
    h->report("createPool under a destroyed parent");
    return nullptr;
  }
  if (!h->admit()) {
    if (parentData) countRefused(parentData);
    return nullptr;
  }
  auto data = std::make_unique<PoolData>();
  auto object = std::make_unique<HostPool>();
  std::memset(&object->slots, 0, sizeof object->slots);
  object->slots.poolDestroy = hostPoolDestroy;
  object->slots.poolAlloc = hostPoolAlloc;
  object->slots.poolFree = hostPoolFree;
  object->slots.poolRealloc = hostPoolRealloc;
  object->data = data.get();
  data->object = object.get();
  data->host = h;
  data->name = name ? name : "";
  data->parent = parentData;
  if (parentData) parentData->children.push_back(data.get());
  QVPool* result = &object->slots;
  h->pools.push_back(std::move(data));
  h->poolObjects.push_back(std::move(object));
  return result;
}

void destroyPool(QVPool* pool) { hostPoolDestroy(pool); }

void HostImpl::installPools() { kernel.table.createPool = kernelCreatePool; }

void HostImpl::shutdownPools() {
  std::lock_guard<std::mutex> g(poolMu);
  for (auto& p : pools)
    if (!p->dead && !p->parent) destroyLocked(p.get());
}

QVPool* Host::createPool(const char* name, QVPool* parent) { return makePool(impl_, parent, name); }

PoolStats Host::poolStats(QVPool* pool, bool withChildren) const {
  if (!pool) return PoolStats{};
  std::lock_guard<std::mutex> g(impl_->poolMu);
  PoolData* p = dataOf(pool);
  return withChildren ? p->subtree : p->own;
}

PoolStats Host::totalStats() const {
  std::lock_guard<std::mutex> g(impl_->poolMu);
  return impl_->total;
}

int64_t Host::livePools() const {
  std::lock_guard<std::mutex> g(impl_->poolMu);
  int64_t n = 0;
  for (auto& p : impl_->pools) n += p->dead ? 0 : 1;
  return n;
}

void Host::failAllocation(int64_t k) {
  std::lock_guard<std::mutex> g(impl_->poolMu);
  impl_->failOnceAt = k < 0 ? -1 : k;
}

void Host::failAllocationsAfter(int64_t k) {
  std::lock_guard<std::mutex> g(impl_->poolMu);
  impl_->failAfter = k < 0 ? -1 : k;
}

void Host::clearFailures() {
  std::lock_guard<std::mutex> g(impl_->poolMu);
  impl_->failOnceAt = -1;
  impl_->failAfter = -1;
}

int64_t Host::poolMisuse() const {
  std::lock_guard<std::mutex> g(impl_->poolMu);
  return impl_->misuse;
}

}  // namespace hxhost
