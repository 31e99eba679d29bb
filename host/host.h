// The reference host kernel: what a C++ program links to load and drive
// halvex.  It implements the kernel table (pools, threads, events, locks,
// module registry, clock), the message catalogue and the text log.
#ifndef HALVEX_HOST_HOST_H
#define HALVEX_HOST_HOST_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "frame/instance.h"
#include "frame/qvkernel.h"
#include "records/host_records.h"

namespace hxhost {

// Counts of one pool, children included where told.
struct PoolStats {
  int64_t liveBlocks = 0;   // blocks allocated and not yet freed
  int64_t liveBytes = 0;    // bytes in those blocks
  int64_t peakBytes = 0;    // most bytes live at once
  int64_t allocations = 0;  // successful allocations so far
  int64_t refused = 0;      // allocations refused by failure injection
  // Blocks still live when their pool was destroyed: the pool took them
  // back, but whoever allocated them forgot to.
  int64_t releasedByDestroy = 0;
};

// Results of the wait operation (slot 14 of a thread object).  Timeouts: a
// null array waits forever; otherwise timeouts[0] is the limit for the whole
// wait in milliseconds, negative meaning forever and 0 a mere poll.
constexpr int64_t kWaitOk = 0;
constexpr int64_t kWaitTimedOut = 0x102;
constexpr int64_t kWaitBadObject = 0x103;  // not an event or thread of this host

// A module the host can hand out by name through loadModule.  The factory
// makes a module object (slot 2 unload, slot 10 create instance) from the
// host's kernel table, or returns null.
using ModuleFactory = std::function<QVModule*(QVKernel* kernel)>;

// Where log lines go, one line per call, control prefix stripped and no
// trailing newline.  kind: 0 plain text, 1 error-like ("%1z"), 2 note
// ("%2z"), 3 warning ("%3z"), 7 trace ("%7hTRACE: %m", lead-in stripped);
// message severities 2, 3, 4, 100 and 101 arrive with their severity as kind.
using LineSink = std::function<void(int kind, const std::string& line)>;

class Host {
 public:
  Host();
  ~Host();
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  // The kernel table, to be handed to qvextent.
  QVKernel* kernel();

  // Pools.  A child pool goes with its parent.  Pool operations are safe
  // from any thread.  poolAlloc of size 0 gives a distinct block (never
  // null), and poolFree of null does nothing; a free of a block that is not
  // live in that pool is reported on stderr, counted in poolMisuse() and
  // otherwise ignored.
  QVPool* createPool(const char* name, QVPool* parent = nullptr);
  // Stats of one pool; with children, its live descendants are added in.
  PoolStats poolStats(QVPool* pool, bool withChildren = true) const;
  // Stats over every pool the host has ever made, destroyed ones included:
  // liveBlocks is what is still live anywhere.
  PoolStats totalStats() const;
  int64_t livePools() const;

  // Failure injection over all pools of this host: refuse the k-th
  // allocation from now (k = 0: the next one) ...  Allocation here means
  // every poolAlloc and poolRealloc, every createPool and every loadModule,
  // since each of them can fail for want of memory and the module must take
  // the null in its stride.  A refused realloc leaves the old block alone.
  void failAllocation(int64_t k);
  // ... or every allocation after the next k.
  void failAllocationsAfter(int64_t k);
  void clearFailures();
  // Frees of foreign blocks, calls on destroyed pools and message codes
  // that are not sign-extended, seen so far; each is also reported on stderr.
  int64_t poolMisuse() const;

  // Module registry for loadModule; "chronis" is there from the start.  A
  // null factory removes the name.
  void registerModule(const std::string& name, ModuleFactory factory);

  // Logs: a sink for text and messages; null restores the default, which
  // writes kinds 1, 3 and 4 to stderr, trace lines to stdout after "TRACE: ",
  // and the rest to stdout.  silence(true) drops every line.
  void setSink(LineSink sink);
  void silence(bool quiet);
  // The call-backs to put in an instance's slots 1 and 2.  The text
  // call-back has no context, so it writes to the most recently constructed
  // Host still alive; the message object belongs to this host.
  TextLogFn textLog();
  MessageLog* messageLog();

 private:
  struct Impl;
  Impl* impl_;
};

// The kernel clock (slot 33): for QV_CLOCK_SELECTOR and QV_CLOCK_CODE it
// writes the GMT date-time in seconds and the local zone's offset from GMT
// in seconds (east positive) negated, and returns 0; anything else returns
// non-zero and writes nothing.
int64_t queryClock(int64_t selector, double* out, int64_t code);

// Sets or clears an event made by this host's createEvent.  Events stay set
// until cleared, so every waiter sees a signal.
void signalEvent(void* event);
void resetEvent(void* event);

// The message catalogue: every code it knows, and a code's value signature
// ('i' a 32-bit integer, 'd' a double, in call order), or null if unknown.
std::vector<int64_t> catalogueCodes();
const char* messageSignature(int64_t code);

// Formats a catalogue message the way the host prints it, from its severity,
// code and values (integers and doubles in the code's own order).  Unknown
// codes give a line that names the code.
std::string formatMessage(int32_t severity, int64_t code, const int64_t* ints, int numInts,
                          const double* reals, int numReals);

// Sets the BLAS library's own thread count to 1 through whichever of the
// known setters (OpenBLAS, BLIS, MKL) the library exports: library is a
// dlopen handle, whose dependencies are searched too, or null for the
// program's global scope.  Returns 1 when a setter was found, else 0.  The Host
// does this when it is made and when it opens the module.
int keepBlasOnOneThread(void* library);

// The exported entries of a halvex module, from libhalvex.so or linked in.
struct HalvexEntries {
  int32_t (*qvextent)(QVKernel*) = nullptr;
  void (*qvvercn1)(HalvexVersionInfo*) = nullptr;
  HalvexExtension* (*halvex)(void*, QVPool*) = nullptr;
  // The LP entry; it takes the LP host's context, not an instance.
  int32_t (*iplpmain)(LPContext*, LPRecord*, LPOptions*) = nullptr;
  void* library = nullptr;  // dlopen handle, or null
};

// dlopen of the shared object (path null: the one this build made) and
// dlsym of the entries.  On failure returns false and says why in error.
bool openHalvexLibrary(const char* path, HalvexEntries* out, std::string* error);
void closeHalvexLibrary(HalvexEntries* entries);

// A loaded halvex module on a host: qvextent, halvex, and instances with
// their log call-backs set.
class HalvexModule {
 public:
  HalvexModule(Host& host, const HalvexEntries& entries);
  ~HalvexModule();  // runs halvex_realDestroy
  bool ok() const { return extension_ != nullptr; }
  HalvexExtension* extension() { return extension_; }
  // A new instance with textLog and messageLog of the host set, or null.
  HalvexInstance* createInstance();
  void destroyInstance(HalvexInstance* instance);
  HalvexVersionInfo version() const;

 private:
  Host& host_;
  HalvexEntries entries_;
  QVPool* parentPool_ = nullptr;
  HalvexExtension* extension_ = nullptr;
};

}  // namespace hxhost

#endif
