// Shared test fixture: a silent reference host whose kernel table the
// statically linked module uses, and a text log that keeps its lines.
#ifndef HALVEX_TESTS_SUPPORT_H
#define HALVEX_TESTS_SUPPORT_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

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

namespace hxtest {

// The text call-back has no context, so the lines go to one global list:
// each call's format as given and as formatted.  Clear it in the fixture.
struct TextLine {
  std::string format, text;
};
std::vector<TextLine>& textLines();
void captureText(const char* format, ...);
// Whether some formatted line contains part.
bool logged(const std::string& part);

}  // namespace hxtest

#endif
