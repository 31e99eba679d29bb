// Out-of-memory sweeps: refuse the first allocation of a run, then the
// second, and so on, until a run goes through without a refusal.  Every
// refused run must end with the expected status and give back every block
// it took.
#ifndef HALVEX_TESTS_SUPPORT_OOM_H
#define HALVEX_TESTS_SUPPORT_OOM_H

#include <cstdint>
#include <functional>

#include "host/host.h"

namespace hxtest {

// What one run of a sweep sees.
class OomProbe {
 public:
  OomProbe(hxhost::Host& host, int64_t k) : host_(host), k_(k) {}
  // Starts refusing: the k-th allocation from here (0 the next one) fails.
  // A run that must allocate before the call under test (fresh records, a
  // set-up solve) calls this just before that call.
  void arm();
  // Stops refusing, e.g. before a clean-up that must not fail.
  void disarm();
  int64_t k() const { return k_; }
  // Whether an allocation was refused in this run so far.
  bool refused() const;

 private:
  hxhost::Host& host_;
  int64_t k_;
  bool armed_ = false;
  bool done_ = false;
  bool hit_ = false;
  int64_t refusedBefore_ = 0;
};

struct OomSweep {
  explicit OomSweep(hxhost::Host& h);

  hxhost::Host& host;
  // The status a refused run must return.
  int32_t expected;
  // Another status a refused run may end with, where the code takes the
  // refusal in its stride on purpose (a failed reset goes on from the point
  // in force); none by default.
  int32_t absorbed;
  // Runs are armed from their start; false when the body calls arm().
  bool armAtStart = true;
  // A run still allocating after this many refusals is a test failure.
  int64_t limit = 20000;
  // For whole solves: when not 0, a first run without refusal counts the
  // allocations n of a run, and only k = i * n / samples, i < samples, are
  // refused (every k when n is smaller).
  int64_t samples = 0;

  struct Result {
    int64_t refusedRuns = 0;  // runs in which an allocation was refused
    int64_t absorbedRuns = 0;  // of those, runs that ended with `absorbed`
    int32_t finalStatus = 0;  // status of the first run with no refusal
    int64_t allocations = 0;  // of the counting run, with samples
    bool completed = false;   // such a run came before the limit
  };
  // body returns the status of the call under test; it may check its own
  // outputs (probe.refused() tells a refused run from the last one).
  Result run(const std::function<int32_t(OomProbe&)>& body) const;
};

// The common case: armed from the start, out of memory expected.
OomSweep::Result oomSweep(hxhost::Host& host, const std::function<int32_t(OomProbe&)>& body);

}  // namespace hxtest

#endif
