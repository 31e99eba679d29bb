#include "support/oom.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>

#include "records/env.h"

namespace hxtest {

void OomProbe::arm() {
  if (armed_ || done_) return;  // one refusal window per run
  armed_ = true;
  refusedBefore_ = host_.totalStats().refused;
  host_.failAllocation(k_);
}

void OomProbe::disarm() {
  if (!armed_) return;
  hit_ = host_.totalStats().refused != refusedBefore_;
  host_.clearFailures();
  armed_ = false;
  done_ = true;
}

bool OomProbe::refused() const {
  return armed_ ? host_.totalStats().refused != refusedBefore_ : hit_;
}

OomSweep::OomSweep(hxhost::Host& h)
    : host(h), expected(IPM_STATUS_OUT_OF_MEMORY), absorbed(IPM_STATUS_OUT_OF_MEMORY) {}

OomSweep::Result OomSweep::run(const std::function<int32_t(OomProbe&)>& body) const {
  Result result;
  int64_t count = limit;
  if (samples > 0) {
    const int64_t before = host.totalStats().allocations;
    OomProbe never(host, INT64_MAX / 2);
    if (armAtStart) never.arm();
    result.finalStatus = body(never);
    never.disarm();
    result.allocations = host.totalStats().allocations - before;
    result.completed = true;
    count = std::min(result.allocations, samples);
  }
  for (int64_t i = 0; i < count; i++) {
    const int64_t k = samples > 0 ? i * result.allocations / count : i;
    const int64_t live = host.totalStats().liveBlocks;
    OomProbe probe(host, k);
    if (armAtStart) probe.arm();
    const int32_t status = body(probe);
    probe.disarm();
    if (!probe.refused()) {
      // Sampled runs count allocations from outside, so the last few k may
      // lie past the end of a run.
      if (samples > 0) continue;
      result.finalStatus = status;
      result.completed = true;
      return result;
    }
    result.refusedRuns++;
    if (status == absorbed && status != expected) {
      result.absorbedRuns++;
    } else {
      EXPECT_EQ(status, expected) << "allocation " << k << " refused";
    }
    EXPECT_EQ(host.totalStats().liveBlocks, live) << "allocation " << k << " refused";
    if (::testing::Test::HasFailure()) return result;  // one report, not thousands
  }
  if (samples == 0) ADD_FAILURE() << "still allocating after " << limit << " refused runs";
  return result;
}

OomSweep::Result oomSweep(hxhost::Host& host, const std::function<int32_t(OomProbe&)>& body) {
  return OomSweep(host).run(body);
}

}  // namespace hxtest
