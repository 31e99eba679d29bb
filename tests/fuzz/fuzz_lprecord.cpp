// The LP entry on records made from fuzz bytes, through the real bramlet
// and, now and then, fennick's crossover.  A malformed record must end with
// the failure status and leave every array of the caller as it was; any
// record must leave the caller's input arrays as they came and no block in
// the pool.
#include <cstring>

#include "frame/entry.h"
#include "host/host.h"
#include "records/lpdriver.h"
#include "records_gen.h"

namespace {

struct Session {
  hxhost::Host host;
  QVPool* pool = nullptr;
  Session() {
    host.silence(true);
    qvextent(host.kernel());
    pool = host.createPool("FUZZ LP");
    if (!pool) hxfuzz::finding("no pool");
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Session session;
  using namespace hxfuzz;
  FuzzedDataProvider in(data, size);
  Arrays a;
  make(in, &a, false);
  LPOptions options;
  setLpOptionDefaults(&options);
  options.presolver = in.ConsumeIntegralInRange<int32_t>(-1, 3);
  options.maxIteration = in.ConsumeIntegralInRange<int32_t>(0, 200);
  options.crossover = in.ConsumeIntegralInRange<int>(0, 3) == 0;
  options.printLevel = 0;

  LPRecord r;
  std::memset(&r, 0, sizeof r);
  r.objSense = a.objSense, r.numRow = a.numRow, r.numCol = a.numCol, r.numCoef = a.numCoef;
  r.matValue = a.matValue.data(), r.rowIndex = a.rowIndex.data();
  r.colBegin = a.nullColBegin ? nullptr : a.colBegin.data(), r.colLength = a.colLength.data();
  r.obj = a.obj.data(), r.rhs = a.rhs.data(), r.range = a.nullRange ? nullptr : a.range.data();
  r.lower = a.lower.data(), r.upper = a.upper.data(), r.rowSense = a.rowSense.data();
  r.solPrimal = a.solPrimal.data(), r.solDual = a.solDual.data();
  r.reducedCost = a.reducedCost.data(), r.rowActivity = a.rowActivity.data();
  r.objConstant = a.objConstant;

  const Arrays before = a;
  shown() = &before;
  if (std::getenv("HALVEX_FUZZ_SHOW")) dump(before);  // to replay a crash
  const int64_t live = session.host.poolStats(session.pool).liveBlocks;
  const int64_t misuse = session.host.poolMisuse();
  LPContext context;
  std::memset(&context, 0, sizeof context);
  context.env.pool = session.pool;
  const int32_t failed = iplpmain(&context, &r, &options);

  if (session.host.poolStats(session.pool).liveBlocks != live) finding("a block left in the pool");
  if (session.host.poolMisuse() != misuse) finding("a pool misused");
  if (failed != 0 && failed != 1) finding("iplpmain returned neither 0 nor 1");
  if (structureBad(before, true)) {
    if (r.status != 10) finding("a malformed record not refused");
    if (!same(a.solPrimal, before.solPrimal) || !same(a.solDual, before.solDual) ||
        !same(a.rowActivity, before.rowActivity) || !same(a.reducedCost, before.reducedCost))
      finding("a refused record's solution arrays touched");
  }
  if (!same(a.obj, before.obj) || !same(a.rhs, before.rhs) || !same(a.lower, before.lower) ||
      !same(a.upper, before.upper) || !same(a.matValue, before.matValue) ||
      !same(a.rowIndex, before.rowIndex) || !same(a.colBegin, before.colBegin) ||
      !same(a.colLength, before.colLength) || !same(a.range, before.range) ||
      !same(a.rowSense, before.rowSense))
    finding("the caller's input arrays not given back");
  return 0;
}
