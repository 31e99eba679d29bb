#include <gtest/gtest.h>

#include "util/random.h"

namespace {

TEST(Zranuni, MatchesTheWideProductAndStaysInsideTheOpenInterval) {
  int64_t seed = 1;
  EXPECT_EQ(zranuni(&seed), 397204094 / 2147483647.0);
  EXPECT_EQ(seed, 397204094);
  // Against the product in 64 bits, over a long stream and at the edges of
  // the halves, where a lost carry would show.
  int64_t ref = 1;
  seed = 1;
  for (int32_t k = 0; k < 200000; k++) {
    ref = ref * 397204094 % 2147483647;
    double u = zranuni(&seed);
    ASSERT_EQ(seed, ref) << "step " << k;
    ASSERT_GT(u, 0.0);
    ASSERT_LT(u, 1.0);
  }
  for (int64_t s0 : {int64_t(65535), int64_t(65536), int64_t(2147483646), int64_t(0x7FFF0000),
                     int64_t(0x7FFEFFFF)}) {
    seed = s0;
    zranuni(&seed);
    EXPECT_EQ(seed, s0 * 397204094 % 2147483647) << s0;
  }
}

TEST(Zranuni, DegenerateSeedsDoNotStickAtZero) {
  for (int64_t s0 : {int64_t(0), int64_t(2147483647), int64_t(-5)}) {
    int64_t seed = s0;
    double u = zranuni(&seed);
    EXPECT_GT(u, 0.0) << s0;
    EXPECT_GT(seed, 0) << s0;
  }
}

}  // namespace
