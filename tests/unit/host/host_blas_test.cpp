// The host keeps the BLAS that the module loads on one thread.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>

#include "host/host.h"

namespace {

TEST(HostBlas, MakingAHostOrOpeningTheModuleSetsOneBlasThread) {
  auto get = reinterpret_cast<int (*)()>(dlsym(RTLD_DEFAULT, "openblas_get_num_threads"));
  auto set = reinterpret_cast<void (*)(int)>(dlsym(RTLD_DEFAULT, "openblas_set_num_threads"));
  if (!get || !set) GTEST_SKIP() << "the BLAS of this build is not OpenBLAS";
  set(2);
  if (get() != 2) GTEST_SKIP() << "OpenBLAS runs one thread here whatever is asked";
  { hxhost::Host host; }
  EXPECT_EQ(1, get());

  // The shared module's BLAS is found through the library's dependencies.
  set(2);
  hxhost::HalvexEntries entries;
  std::string error;
  ASSERT_TRUE(hxhost::openHalvexLibrary(nullptr, &entries, &error)) << error;
  EXPECT_EQ(1, get());
  hxhost::closeHalvexLibrary(&entries);
  EXPECT_EQ(1, hxhost::keepBlasOnOneThread(nullptr));
}

}  // namespace
