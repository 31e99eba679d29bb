// Shared test fixture: a silent reference host whose kernel table the
// statically linked module uses.
#ifndef HALVEX_TESTS_SUPPORT_H
#define HALVEX_TESTS_SUPPORT_H

#include <gtest/gtest.h>

#include "frame/entry.h"
#include "host/host.h"

class HostTest : public ::testing::Test {
 protected:
  HostTest() {
    host.silence(true);
    qvextent(host.kernel());
    pool = host.createPool("test");
    env.pool = pool;
  }
  ~HostTest() override {
    if (pool) pool->poolDestroy(pool);
  }
  int64_t liveBlocks() const { return host.poolStats(pool).liveBlocks; }

  hxhost::Host host;
  QVPool* pool = nullptr;
  HalvexEnv env{};
};

#endif
