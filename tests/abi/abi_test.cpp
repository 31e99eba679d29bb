// Drives libhalvex.so the way a closed host does: dlopen, then only the
// tables, read slot by slot.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "host/host.h"

namespace {

class ModuleAbi : public ::testing::Test {
 protected:
  void SetUp() override {
    host.silence(true);
    std::string error;
    ASSERT_TRUE(hxhost::openHalvexLibrary(nullptr, &entries, &error)) << error;
  }
  void TearDown() override { hxhost::closeHalvexLibrary(&entries); }
  hxhost::Host host;
  hxhost::HalvexEntries entries;
};

int64_t hostUnloadCalls = 0;
void hostUnload(QVModule*) { ++hostUnloadCalls; }

TEST_F(ModuleAbi, ExtensionInstanceAndVersionSlotBySlot) {
  void** raw;
  QVKernel* kernel = host.kernel();
  ASSERT_EQ(entries.qvextent(kernel), 0);
  QVPool* parent = host.createPool("abi parent");

  void* object = entries.halvex(nullptr, parent);
  ASSERT_NE(object, nullptr);
  raw = static_cast<void**>(object);
  EXPECT_EQ(static_cast<uint32_t>(reinterpret_cast<uintptr_t>(raw[0])), 0x6F76656Eu);
  // Slots 3, 4, 6, 10 are callable operations; slot 9 is the object's pool.
  using VersionFn = int64_t (*)(void*, int64_t*, int64_t*, int64_t*);
  int64_t a = -1, b = -1, c = -1;
  EXPECT_EQ(reinterpret_cast<VersionFn>(raw[3])(nullptr, &a, &b, &c), 0);
  EXPECT_EQ(a, 4);
  EXPECT_EQ(b, 1);
  EXPECT_EQ(c, 1);
  EXPECT_EQ(reinterpret_cast<VersionFn>(raw[4])(nullptr, &a, &b, &c), 0);
  EXPECT_EQ(a, 1);
  EXPECT_EQ(b, 0);
  EXPECT_EQ(c, 0);
  QVPool* objectPool = static_cast<QVPool*>(raw[9]);
  ASSERT_NE(objectPool, nullptr);
  EXPECT_EQ(host.poolStats(objectPool).liveBlocks, 1);  // the object itself
  // The host keeps its unload operation in slot 2 of the object.
  raw[2] = reinterpret_cast<void*>(&hostUnload);

  using CreateFn = void* (*)(void*);
  void* instanceRaw = reinterpret_cast<CreateFn>(raw[10])(nullptr);
  ASSERT_NE(instanceRaw, nullptr);
  void** slot = static_cast<void**>(instanceRaw);
  QVPool* instancePool = static_cast<QVPool*>(slot[0]);
  ASSERT_NE(instancePool, nullptr);
  EXPECT_NE(instancePool, objectPool);
  // Logs (1, 2) are the host's to fill, the sibling (4, 5) the solve's;
  // 3 destroys the instance, 6 to 9 are its operations.
  for (int s = 1; s <= 9; ++s) EXPECT_EQ(slot[s] != nullptr, s == 3 || s >= 6) << "slot " << s;
  // Slots 10 to 18 hold the ScripterOptions, whose layout the headers pin.
  for (int s = 19; s < 26; ++s) EXPECT_EQ(slot[s], nullptr) << "slot " << s;

  // Slot 8 solves a one-row QP from the record alone.
  double q[2] = {1.0, 1.0}, cvec[2] = {0.0, 0.0}, lo[2] = {0, 0}, up[2] = {0, 0};
  double x[2], w[6][2];
  uint8_t flags[2] = {0, 0};
  ReconRecord r{};
  r.maxIter = 50;
  r.big = 1e30;
  r.primalTol = r.dualTol = r.gapTol = 1e-9;
  r.n = 2;
  r.q = q;
  r.c = cvec;
  r.lower = lo;
  r.upper = up;
  r.b = 4.0;
  r.flags = flags;
  r.x = x;
  r.lowerSlack = w[0];
  r.upperSlack = w[1];
  r.lowerDual = w[2];
  r.upperDual = w[3];
  r.step = w[4];
  r.inverse = w[5];
  using ReconFn = int32_t (*)(ReconRecord*);
  EXPECT_EQ(reinterpret_cast<ReconFn>(slot[8])(&r), 0);
  EXPECT_NEAR(x[0], 2.0, 1e-7);
  EXPECT_NEAR(x[1], 2.0, 1e-7);

  using DestroyFn = void (*)(void*);
  reinterpret_cast<DestroyFn>(slot[3])(nullptr);  // accepted, does nothing
  reinterpret_cast<DestroyFn>(slot[3])(instanceRaw);

  HalvexVersionInfo info;
  std::memset(&info, 0xA5, sizeof(info));
  entries.qvvercn1(&info);
  const char* const* text = reinterpret_cast<const char* const*>(&info);
  EXPECT_STREQ(text[4], "sorrel");
  EXPECT_STREQ(text[5], "halvex");
  EXPECT_STREQ(text[6], "sorrel");
  EXPECT_STREQ(text[2], "");
  EXPECT_STREQ(text[8], "");
  EXPECT_STREQ(text[9], "version");
  EXPECT_STREQ(text[10], "::");
  EXPECT_STREQ(text[11], "");
  EXPECT_STREQ(text[13], "");
  ASSERT_EQ(std::strlen(text[12]), 65u);
  EXPECT_EQ(std::string(text[12]).rfind("ORBEN_VERSION_HOTFIX_NUMBER=", 0), 0u);
  EXPECT_EQ(std::string(text[12]).find_last_not_of(' '), 27u);
  ASSERT_EQ(std::strlen(text[14]), 65u);
  EXPECT_EQ(std::string(text[14]).rfind("VERCON_IMAGE_DESCRIPTION=", 0), 0u);
  EXPECT_GT(std::strlen(text[0]), 0u);
  EXPECT_GT(std::strlen(text[15]), 0u);
  for (int s = 16; s < 26; ++s) EXPECT_EQ(text[s], nullptr) << "slot " << s;

  using RealDestroyFn = int64_t (*)(void*, void*);
  EXPECT_EQ(reinterpret_cast<RealDestroyFn>(raw[6])(nullptr, nullptr), 0);
  EXPECT_EQ(reinterpret_cast<RealDestroyFn>(raw[6])(object, nullptr), 0);
  EXPECT_EQ(hostUnloadCalls, 0);  // unloading is the host's own business

  parent->poolDestroy(parent);
  EXPECT_EQ(host.totalStats().liveBlocks, 0);
  EXPECT_EQ(host.livePools(), 0);
}

TEST_F(ModuleAbi, RefusedPoolOrBlockGivesNullAndNothingLeaks) {
  ASSERT_EQ(entries.qvextent(host.kernel()), 0);
  QVPool* parent = host.createPool("abi parent");
  // Refusal 0 is the new pool, refusal 1 the object or instance in it.
  for (int k = 0; k < 2; ++k) {
    host.failAllocation(k);
    EXPECT_EQ(entries.halvex(nullptr, parent), nullptr) << "refusal " << k;
    host.clearFailures();
  }
  HalvexExtension* object = entries.halvex(nullptr, parent);
  ASSERT_NE(object, nullptr);
  for (int k = 0; k < 2; ++k) {
    host.failAllocation(k);
    EXPECT_EQ(object->createInstance(nullptr), nullptr) << "refusal " << k;
    host.clearFailures();
  }
  object->realDestroy(object, nullptr);
  parent->poolDestroy(parent);
  EXPECT_EQ(host.totalStats().liveBlocks, 0);
  EXPECT_EQ(host.livePools(), 0);
}

}  // namespace
