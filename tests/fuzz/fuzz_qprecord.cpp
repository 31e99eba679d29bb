// The QP entry on records made from fuzz bytes.  A malformed record must end
// with the failure code and leave every array of the caller as it was; any
// other record may end as it likes, but with the host's input arrays given
// back and no block left in the instance's pool.
#include "frame/entry.h"
#include "frame/instance.h"
#include "host/host.h"
#include "records_gen.h"

namespace {

struct Session {
  hxhost::Host host;
  HalvexInstance* instance = nullptr;
  Session() {
    host.silence(true);
    qvextent(host.kernel());
    instance = static_cast<HalvexInstance*>(halvex_create_instance(nullptr));
    if (!instance) hxfuzz::finding("no instance");
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Session session;
  using namespace hxfuzz;
  FuzzedDataProvider in(data, size);
  Arrays a;
  make(in, &a, true);
  ScripterOptions options = session.instance->scripter;
  options.maxIteration = in.ConsumeIntegralInRange<int32_t>(0, 200);
  options.presolver = in.ConsumeIntegralInRange<int32_t>(-2, 4);

  QPRecord r{};
  r.objSense = a.objSense, r.numRow = a.numRow, r.numCol = a.numCol, r.numCoef = a.numCoef;
  r.numQuadCoef = a.numQuadCoef;
  r.matValue = a.matValue.data(), r.rowIndex = a.rowIndex.data();
  r.colBegin = a.nullColBegin ? nullptr : a.colBegin.data();
  r.quadDiag = a.quadDiag.data(), r.quadMatValue = a.quadMatValue.data();
  r.quadRowIndex = a.quadRowIndex.data(), r.quadColBegin = a.quadColBegin.data();
  r.obj = a.obj.data(), r.rhs = a.rhs.data(), r.range = a.nullRange ? nullptr : a.range.data();
  r.lower = a.lower.data(), r.upper = a.upper.data(), r.rowSense = a.rowSense.data();
  r.solPrimal = a.solPrimal.data(), r.solDual = a.solDual.data();
  r.rowActivity = a.rowActivity.data();
  r.objConstant = a.objConstant;

  const Arrays before = a;
  shown() = &before;
  if (std::getenv("HALVEX_FUZZ_SHOW")) dump(before);  // to replay a crash
  QVPool* pool = session.instance->env.pool;
  const int64_t live = session.host.poolStats(pool).liveBlocks;
  const int64_t misuse = session.host.poolMisuse();
  const int32_t code = session.instance->ipqpmain(&session.instance->env, &r, &options);

  if (session.host.poolStats(pool).liveBlocks != live) finding("a block left in the pool");
  if (session.host.poolMisuse() != misuse) finding("a pool misused");
  const bool bad = structureBad(a, false) || qpNumbersBad(before);
  if (bad) {
    if (code != QP_RETURN_FAILURE) finding("a malformed record not refused");
    if (!same(a.solPrimal, before.solPrimal) || !same(a.solDual, before.solDual) ||
        !same(a.rowActivity, before.rowActivity) || !same(a.range, before.range) ||
        !same(a.rowSense, before.rowSense))
      finding("a refused record's arrays touched");
  }
  // The input arrays come back as they were, bar the documented edits: ranges
  // of rows that are not R are cleared, an R row of zero width stays E, and
  // the right side of an R row goes to its upper end and back, (b + r) - r.
  std::vector<double> range = before.range, rhs = before.rhs;
  std::vector<char> sense = before.rowSense;
  if (!bad && !a.nullRange)
    for (int32_t i = 0; i < a.numRow; i++) {
      if (sense[i] == 'R' && range[i] == 0.0) sense[i] = 'E';
      if (sense[i] != 'R') range[i] = 0.0;
      if (sense[i] == 'R' && !(range[i] >= 1e20 && rhs[i] > -1e20))
        rhs[i] = (rhs[i] + range[i]) - range[i];
    }
  if (!same(a.obj, before.obj) || !same(a.quadDiag, before.quadDiag) ||
      !same(a.quadMatValue, before.quadMatValue))
    finding("the objective not given back");
  if (!same(a.rhs, rhs) || !same(a.range, range) || !same(a.rowSense, sense))
    finding("the rows not given back");
  if (!same(a.lower, before.lower) || !same(a.upper, before.upper) ||
      !same(a.matValue, before.matValue) || !same(a.rowIndex, before.rowIndex) ||
      !same(a.colBegin, before.colBegin) || !same(a.quadRowIndex, before.quadRowIndex) ||
      !same(a.quadColBegin, before.quadColBegin))
    finding("the bounds or the patterns not given back");
  switch (code) {
    case 0: case 1: case 2: case 3: case 5: case 8: case 9: case 10: case 23: case 99: break;
    default: finding("an unknown return code");
  }
  return 0;
}
