// bramlet's LP presolve and postsolve.
//
// Presolve works on a minimising copy of the LP with rows as intervals
// lo <= a'x <= hi and keeps a stack of the reductions it made.  Postsolve
// replays the stack backwards.  Throughout it keeps z as the reduced costs of
// the LP as it stood at the step being undone, so that each step can choose
// its row dual by looking at the columns it brought back; at the end the
// reduced costs are recomputed on the caller's LP itself.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>
#include <vector>

#include "records/siblings.h"
#include "siblings/bramlet/bramlet.h"
#include "siblings/bramlet/internal.h"

namespace bramlet {

namespace {

const double kInf = HUGE_VAL;

enum StepKind : uint8_t {
  kColValue,      // a fixed or empty column went with its value
  kSingletonRow,  // a row of one entry became a bound of its column
  kForcingRow,    // a row at the end of its activity fixed all its columns
  kFreeColumn,    // a column of one entry, free or kept inside its bounds by its
                  // equation, left with its row
};

// Which bound of a singleton row's column the row gave.
constexpr uint8_t kFromRowLower = 1;
constexpr uint8_t kFromRowUpper = 2;

struct Step {
  StepKind kind;
  int8_t side;  // forcing row: +1 at its lower end, -1 at its upper end
  uint8_t flags;
  int32_t row, col;
  double a, value, cost, lo, hi;
  int32_t first, count;  // entries of the row at the time, for rows that need them
};

double inBound(double v) {
  if (v <= -kInfinity) return -kInf;
  if (v >= kInfinity) return kInf;
  return v;
}

double outBound(double v) {
  if (v == -kInf) return -kInfinity;
  if (v == kInf) return kInfinity;
  return v;
}

}  // namespace

struct PostsolveState {
  int32_t level = -1;
  int32_t objSense = 1;
  int32_t m = 0, n = 0;
  double callerConstant = 0.0;
  double feasTol = 1e-6;
  double costScale = 1.0;
  int32_t decided = 0;

  // The caller's LP, minimising, columns and rows both ways.
  std::vector<int32_t> cStart, cRow, rStart, rCol;
  std::vector<double> cVal, rVal;
  std::vector<double> origLower, origUpper, origObj, origLo, origHi;

  // The LP as presolve leaves it.
  std::vector<double> lo, hi, l, u, c;
  double constant = 0.0;
  std::vector<char> rowAlive, colAlive;
  std::vector<int32_t> rowCnt, colCnt;
  std::vector<Step> steps;
  std::vector<int32_t> entCol;
  std::vector<double> entVal;
  std::vector<uint8_t> relax;
  // The row behind each relaxed bound, in the order the flags were given.
  struct RelaxMark {
    int32_t col, row;
    double a;
    uint8_t flag;
  };
  std::vector<RelaxMark> relaxLog;

  // Place of each kept row and column in the presolved LP, -1 if removed.
  std::vector<int32_t> newRow, newCol;

  // Arrays behind the presolved LPRecord.
  LPRecord record;
  std::vector<double> pMat, pObj, pLower, pUpper, pRhs, pRange, pX, pY, pZ, pAct;
  std::vector<int32_t> pRowIndex, pColBegin, pColLength;
  std::vector<char> pSense;
  std::vector<uint8_t> pRelax;
  // The crossover's basis of the presolved LP, when the caller asked for one.
  std::vector<uint8_t> pBasis;

  // Relative slacks; zero at an infinite value, so that comparisons with an
  // absent bound stay plain.
  double eps(double v) const { return std::isfinite(v) ? 1e-9 * (1.0 + std::fabs(v)) : 0.0; }
  double ftol(double v) const { return std::isfinite(v) ? feasTol * (1.0 + std::fabs(v)) : 0.0; }

  void removeRow(int32_t i) {
    rowAlive[i] = 0;
    for (int32_t p = rStart[i]; p < rStart[i + 1]; p++)
      if (colAlive[rCol[p]]) colCnt[rCol[p]]--;
  }
  void removeCol(int32_t j) {
    colAlive[j] = 0;
    for (int32_t p = cStart[j]; p < cStart[j + 1]; p++)
      if (rowAlive[cRow[p]]) rowCnt[cRow[p]]--;
  }
  // Takes a column out at a value; its entries move into the row bounds.
  void fixColumn(int32_t j, double v) {
    Step s{};
    s.kind = kColValue;
    s.col = j;
    s.value = v;
    s.cost = c[j];
    steps.push_back(s);
    constant += c[j] * v;
    for (int32_t p = cStart[j]; p < cStart[j + 1]; p++) {
      const int32_t i = cRow[p];
      if (!rowAlive[i]) continue;
      lo[i] -= cVal[p] * v;
      hi[i] -= cVal[p] * v;
    }
    removeCol(j);
  }
  void liveEntries(int32_t i, Step& s, int32_t skipCol) {
    s.first = (int32_t)entCol.size();
    for (int32_t p = rStart[i]; p < rStart[i + 1]; p++) {
      const int32_t k = rCol[p];
      if (!colAlive[k] || k == skipCol) continue;
      entCol.push_back(k);
      entVal.push_back(rVal[p]);
    }
    s.count = (int32_t)entCol.size() - s.first;
  }

  void rowActivity(int32_t i, double* minA, double* maxA, int32_t* minInf, int32_t* maxInf) const {
    double mn = 0.0, mx = 0.0;
    int32_t ni = 0, xi = 0;
    for (int32_t p = rStart[i]; p < rStart[i + 1]; p++) {
      const int32_t k = rCol[p];
      if (!colAlive[k]) continue;
      const double a = rVal[p];
      const double lb = a > 0 ? l[k] : u[k], ub = a > 0 ? u[k] : l[k];
      if (std::isinf(lb)) ni++; else mn += a * lb;
      if (std::isinf(ub)) xi++; else mx += a * ub;
    }
    *minA = mn;
    *maxA = mx;
    *minInf = ni;
    *maxInf = xi;
  }

  // Whether the other columns of equation i keep column j (coefficient a)
  // inside its bounds whatever their values: the column is then free in
  // effect, and can leave with the row.
  bool impliedFree(int32_t i, int32_t j, double a) const {
    double mn, mx;
    int32_t ni, xi;
    rowActivity(i, &mn, &mx, &ni, &xi);
    const double lb = a > 0 ? l[j] : u[j], ub = a > 0 ? u[j] : l[j];
    // The others' activity alone: take the column's own share out.
    if (std::isinf(lb)) ni--; else mn -= a * lb;
    if (std::isinf(ub)) xi--; else mx -= a * ub;
    const double b = lo[i];
    double xl = -kInf, xu = kInf;
    if (a > 0) {
      if (xi == 0) xl = (b - mx) / a;
      if (ni == 0) xu = (b - mn) / a;
    } else {
      if (ni == 0) xl = (b - mn) / a;
      if (xi == 0) xu = (b - mx) / a;
    }
    return (l[j] == -kInf || xl >= l[j] + eps(l[j])) && (u[j] == kInf || xu <= u[j] - eps(u[j]));
  }

  bool reduceRow(int32_t i);
  bool reduceCol(int32_t j);
  void run();
  void markRelaxed();
};

const char* checkInput(const InputView& in) {
  if (in.numRow < 0 || in.numCol < 0 || in.numCoef < 0) return "negative size";
  if (in.numCol > 0 && (!in.obj || !in.lower || !in.upper || !in.colBegin))
    return "column arrays missing";
  if (in.numRow > 0 && (!in.rhs || !in.rowSense)) return "row arrays missing";
  for (int32_t i = 0; i < in.numRow; i++) {
    const char s = in.rowSense[i];
    if (s != 'E' && s != 'G' && s != 'L' && s != 'R' && s != 'N') return "unknown row sense";
    if (s == 'R' && !in.range) return "range row without range array";
    if (std::isnan(in.rhs[i]) || (s == 'R' && std::isnan(in.range[i]))) return "rhs not a number";
  }
  for (int32_t j = 0; j < in.numCol; j++) {
    if (std::isnan(in.obj[j]) || std::isnan(in.lower[j]) || std::isnan(in.upper[j]))
      return "column data not a number";
    const int32_t b = in.colBegin[j], e = in.colEnd(j);
    if (b < 0 || e < b) return "bad column start or length";
    if (e > b && (!in.rowIndex || !in.matValue)) return "matrix arrays missing";
    for (int32_t p = b; p < e; p++) {
      if (in.rowIndex[p] < 0 || in.rowIndex[p] >= in.numRow) return "row index out of range";
      if (!std::isfinite(in.matValue[p])) return "matrix entry not finite";
    }
  }
  return nullptr;
}

bool PostsolveState::reduceRow(int32_t i) {
  if (rowCnt[i] == 0) {
    if (lo[i] > ftol(lo[i]) || hi[i] < -ftol(hi[i])) decided = IPM_STATUS_PRIMAL_INFEASIBLE;
    removeRow(i);
    return true;
  }
  if (lo[i] == -kInf && hi[i] == kInf) {
    removeRow(i);
    return true;
  }
  if (rowCnt[i] == 1) {
    int32_t j = -1;
    double a = 0.0;
    for (int32_t p = rStart[i]; p < rStart[i + 1]; p++)
      if (colAlive[rCol[p]]) {
        j = rCol[p];
        a = rVal[p];
      }
    const double il = a > 0 ? lo[i] / a : hi[i] / a;
    const double iu = a > 0 ? hi[i] / a : lo[i] / a;
    Step s{};
    s.kind = kSingletonRow;
    s.row = i;
    s.col = j;
    s.a = a;
    double nl = l[j], nu = u[j];
    if (il > l[j] + eps(l[j])) {
      nl = il;
      s.flags |= kFromRowLower;
    }
    if (iu < u[j] - eps(u[j])) {
      nu = iu;
      s.flags |= kFromRowUpper;
    }
    if (nl > nu) {
      if (nl - nu > ftol(nl)) {
        decided = IPM_STATUS_PRIMAL_INFEASIBLE;
        return true;
      }
      // Within tolerance: the column is fixed, preferably at a bound of its own.
      const double v = !(s.flags & kFromRowLower) ? nl : !(s.flags & kFromRowUpper) ? nu
                                                                                   : 0.5 * (nl + nu);
      nl = nu = v;
    }
    steps.push_back(s);
    l[j] = nl;
    u[j] = nu;
    removeRow(i);
    return true;
  }

  double minA, maxA;
  int32_t minInf, maxInf;
  rowActivity(i, &minA, &maxA, &minInf, &maxInf);
  if ((maxInf == 0 && maxA < lo[i] - ftol(lo[i])) || (minInf == 0 && minA > hi[i] + ftol(hi[i]))) {
    decided = IPM_STATUS_PRIMAL_INFEASIBLE;
    return true;
  }
  int8_t side = 0;
  if (maxInf == 0 && lo[i] > -kInf && maxA <= lo[i] + eps(lo[i])) side = 1;
  else if (minInf == 0 && hi[i] < kInf && minA >= hi[i] - eps(hi[i])) side = -1;
  if (side != 0) {
    // Only one point of the columns' box meets the row: every column sits at
    // the bound that pushes the activity toward the row's end.
    Step s{};
    s.kind = kForcingRow;
    s.row = i;
    s.side = side;
    liveEntries(i, s, -1);
    steps.push_back(s);
    removeRow(i);
    for (int32_t e = s.first; e < s.first + s.count; e++) {
      const int32_t k = entCol[e];
      const double v = (entVal[e] > 0) == (side > 0) ? u[k] : l[k];
      l[k] = u[k] = v;
      fixColumn(k, v);
    }
    return true;
  }
  bool changed = false;
  // A side that the columns' bounds already enforce is dropped; its dual is
  // zero in any case.
  if (lo[i] > -kInf && minInf == 0 && minA >= lo[i] - eps(lo[i])) {
    lo[i] = -kInf;
    changed = true;
  }
  if (hi[i] < kInf && maxInf == 0 && maxA <= hi[i] + eps(hi[i])) {
    hi[i] = kInf;
    changed = true;
  }
  if (lo[i] == -kInf && hi[i] == kInf) removeRow(i);
  return changed;
}

bool PostsolveState::reduceCol(int32_t j) {
  if (l[j] > u[j] + ftol(l[j])) {
    decided = IPM_STATUS_PRIMAL_INFEASIBLE;
    return true;
  }
  if (l[j] == u[j] || (std::isfinite(l[j]) && u[j] - l[j] <= eps(l[j]))) {
    fixColumn(j, std::isfinite(u[j]) ? u[j] : l[j]);
    return true;
  }
  const double tiny = 1e-12 * costScale;
  if (colCnt[j] == 0) {
    double v;
    if (c[j] > tiny) {
      v = l[j];
    } else if (c[j] < -tiny) {
      v = u[j];
    } else {
      v = std::isfinite(l[j]) ? l[j] : std::isfinite(u[j]) ? u[j] : 0.0;
    }
    if (std::isinf(v)) {
      decided = IPM_STATUS_DUAL_INFEASIBLE;
      return true;
    }
    fixColumn(j, v);
    return true;
  }
  if (colCnt[j] == 1) {
    int32_t i = -1;
    double a = 0.0;
    for (int32_t p = cStart[j]; p < cStart[j + 1]; p++)
      if (rowAlive[cRow[p]]) {
        i = cRow[p];
        a = cVal[p];
      }
    const bool equation = lo[i] == hi[i];
    const bool costless = std::fabs(c[j]) <= tiny;
    if (l[j] != -kInf || u[j] != kInf) {
      // A bounded column goes only where an equation keeps it inside its
      // bounds (the two signs of a row's slack in an L1 fit, for one).
      if (!equation || !impliedFree(i, j, a)) return false;
    } else if (!equation && !costless) {
      return false;
    }
    // The column absorbs whatever the row needs; in an equation its cost
    // moves onto the other columns of the row.
    Step s{};
    s.kind = kFreeColumn;
    s.row = i;
    s.col = j;
    s.a = a;
    s.cost = costless ? 0.0 : c[j];
    s.lo = lo[i];
    s.hi = hi[i];
    liveEntries(i, s, j);
    steps.push_back(s);
    if (s.cost != 0.0) {
      for (int32_t e = s.first; e < s.first + s.count; e++)
        c[entCol[e]] -= s.cost * entVal[e] / a;
      constant += s.cost * lo[i] / a;
    }
    removeCol(j);
    removeRow(i);
    return true;
  }
  return false;
}

void PostsolveState::run() {
  const int32_t maxPass = level == 1 ? 1 : 1000;
  bool changed = true;
  for (int32_t pass = 0; changed && pass < maxPass && !decided; pass++) {
    changed = false;
    for (int32_t i = 0; i < m && !decided; i++)
      if (rowAlive[i] && reduceRow(i)) changed = true;
    for (int32_t j = 0; j < n && !decided; j++)
      if (colAlive[j] && reduceCol(j)) changed = true;
  }
  if (decided) return;
  bool any = false;
  for (int32_t i = 0; i < m; i++) any = any || rowAlive[i];
  for (int32_t j = 0; j < n; j++) any = any || colAlive[j];
  if (!any) decided = IPM_STATUS_OPTIMAL;
}

// A bound that a kept row implies from the bounds of its other columns can be
// left to the row.  Each flag rests only on bounds that stay real: the other
// columns of the row that justified it are locked against flags of their own,
// so no two relaxed bounds can lean on each other.
void PostsolveState::markRelaxed() {
  std::vector<char> locked(n, 0);
  relax.assign(n, 0);
  auto gl = [&](int32_t k) { return (relax[k] & RELAX_NO_LOWER) ? -kInf : l[k]; };
  auto gu = [&](int32_t k) { return (relax[k] & RELAX_NO_UPPER) ? kInf : u[k]; };
  for (int32_t i = 0; i < m; i++) {
    if (!rowAlive[i]) continue;
    double mn = 0.0, mx = 0.0;
    int32_t ni = 0, xi = 0;
    for (int32_t p = rStart[i]; p < rStart[i + 1]; p++) {
      const int32_t k = rCol[p];
      if (!colAlive[k]) continue;
      const double a = rVal[p];
      const double lb = a > 0 ? gl(k) : gu(k), ub = a > 0 ? gu(k) : gl(k);
      if (std::isinf(lb)) ni++; else mn += a * lb;
      if (std::isinf(ub)) xi++; else mx += a * ub;
    }
    for (int32_t p = rStart[i]; p < rStart[i + 1]; p++) {
      const int32_t j = rCol[p];
      if (!colAlive[j] || locked[j]) continue;
      const double a = rVal[p];
      const double lb = a > 0 ? gl(j) : gu(j), ub = a > 0 ? gu(j) : gl(j);
      // Activity of the other columns.
      const int32_t oni = ni - (std::isinf(lb) ? 1 : 0), oxi = xi - (std::isinf(ub) ? 1 : 0);
      const double omn = mn - (std::isinf(lb) ? 0.0 : a * lb);
      const double omx = mx - (std::isinf(ub) ? 0.0 : a * ub);
      double il = -kInf, iu = kInf;
      if (a > 0) {
        if (oxi == 0 && lo[i] > -kInf) il = (lo[i] - omx) / a;
        if (oni == 0 && hi[i] < kInf) iu = (hi[i] - omn) / a;
      } else {
        if (oni == 0 && hi[i] < kInf) il = (hi[i] - omn) / a;
        if (oxi == 0 && lo[i] > -kInf) iu = (lo[i] - omx) / a;
      }
      uint8_t flag = 0;
      const double tol = feasTol;
      if (std::isfinite(il) && il <= u[j] && (l[j] == -kInf || l[j] <= il - tol)) flag |= RELAX_NO_LOWER;
      if (std::isfinite(iu) && iu >= l[j] && (u[j] == kInf || iu + tol <= u[j])) flag |= RELAX_NO_UPPER;
      if (!flag) continue;
      if (flag & RELAX_NO_LOWER) l[j] = il;
      if (flag & RELAX_NO_UPPER) u[j] = iu;
      relax[j] |= flag;
      relaxLog.push_back({j, i, a, flag});
      for (int32_t q = rStart[i]; q < rStart[i + 1]; q++)
        if (rCol[q] != j) locked[rCol[q]] = 1;
      break;  // the row's other columns are locked now
    }
  }
}

namespace {

bool readInput(Instance* instance, LPRecord* record, InputView* in) {
  InstanceBox* box = reinterpret_cast<InstanceBox*>(instance);
  if (box && box->loaded && record->loadArea.word[0] == kLoadMagic &&
      record->loadArea.word[1] == reinterpret_cast<int64_t>(box->loaded)) {
    const LoadedLP& lp = *box->loaded;
    in->numRow = lp.numRow;
    in->numCol = lp.numCol;
    in->numCoef = (int32_t)lp.rowIndex.size();
    in->obj = lp.obj.data();
    in->lower = lp.lower.data();
    in->upper = lp.upper.data();
    in->rhs = lp.rhs.data();
    in->range = lp.range.data();
    in->rowSense = lp.rowSense.data();
    in->colBegin = lp.colBegin.data();
    in->colLength = nullptr;
    in->rowIndex = lp.rowIndex.data();
    in->matValue = lp.matValue.data();
    return true;
  }
  in->numRow = record->numRow;
  in->numCol = record->numCol;
  in->numCoef = record->numCoef;
  in->obj = record->obj;
  in->lower = record->lower;
  in->upper = record->upper;
  in->rhs = record->rhs;
  in->range = record->range;
  in->rowSense = record->rowSense;
  in->colBegin = record->colBegin;
  in->colLength = record->colLength;
  in->rowIndex = record->rowIndex;
  in->matValue = record->matValue;
  return false;
}

void buildState(PostsolveState* st, const InputView& in, int32_t sense, double objConstant) {
  const int32_t m = in.numRow, n = in.numCol;
  st->m = m;
  st->n = n;
  st->objSense = sense;
  st->callerConstant = objConstant;
  st->cStart.assign(n + 1, 0);
  for (int32_t j = 0; j < n; j++) {
    for (int32_t p = in.colBegin[j]; p < in.colEnd(j); p++) {
      st->cRow.push_back(in.rowIndex[p]);
      st->cVal.push_back(in.matValue[p]);
    }
    st->cStart[j + 1] = (int32_t)st->cRow.size();
  }
  st->rStart.assign(m + 1, 0);
  for (int32_t r : st->cRow) st->rStart[r + 1]++;
  for (int32_t i = 0; i < m; i++) st->rStart[i + 1] += st->rStart[i];
  st->rCol.resize(st->cRow.size());
  st->rVal.resize(st->cRow.size());
  std::vector<int32_t> fill(st->rStart.begin(), st->rStart.begin() + m);
  for (int32_t j = 0; j < n; j++)
    for (int32_t p = st->cStart[j]; p < st->cStart[j + 1]; p++) {
      const int32_t q = fill[st->cRow[p]]++;
      st->rCol[q] = j;
      st->rVal[q] = st->cVal[p];
    }
  st->lo.resize(m);
  st->hi.resize(m);
  for (int32_t i = 0; i < m; i++) {
    const double b = inBound(in.rhs[i]);
    switch (in.rowSense[i]) {
      case 'E': st->lo[i] = st->hi[i] = b; break;
      case 'G': st->lo[i] = b; st->hi[i] = kInf; break;
      case 'L': st->lo[i] = -kInf; st->hi[i] = b; break;
      case 'R': {
        const double w = in.range[i];
        st->lo[i] = w >= 0 ? b : inBound(in.rhs[i] + w);
        st->hi[i] = w >= 0 ? inBound(in.rhs[i] + w) : b;
        break;
      }
      default: st->lo[i] = -kInf; st->hi[i] = kInf; break;
    }
  }
  st->l.resize(n);
  st->u.resize(n);
  st->c.resize(n);
  st->costScale = 1.0;
  for (int32_t j = 0; j < n; j++) {
    st->l[j] = inBound(in.lower[j]);
    st->u[j] = inBound(in.upper[j]);
    st->c[j] = sense * in.obj[j];
    st->costScale = std::max(st->costScale, std::fabs(in.obj[j]));
  }
  st->origLower = st->l;
  st->origUpper = st->u;
  st->origObj.assign(in.obj, in.obj + n);
  st->origLo = st->lo;
  st->origHi = st->hi;
  st->constant = sense * objConstant;
  st->rowAlive.assign(m, 1);
  st->colAlive.assign(n, 1);
  st->rowCnt.resize(m);
  st->colCnt.resize(n);
  for (int32_t i = 0; i < m; i++) st->rowCnt[i] = st->rStart[i + 1] - st->rStart[i];
  for (int32_t j = 0; j < n; j++) st->colCnt[j] = st->cStart[j + 1] - st->cStart[j];
}

// Lays the reduced LP out as an LPRecord with room for the range slacks.
// At level 0 the caller's rows go out as they came.
void buildPresolved(PostsolveState* st, const InputView& in) {
  const int32_t m = st->m, n = st->n;
  st->newRow.assign(m, -1);
  st->newCol.assign(n, -1);
  // The sense a live row goes out with; the room for the solver's range
  // slacks is counted from the very same answer, so that ends which are not
  // numbers (inf - inf on the way) cannot make more R rows than room.
  auto senseOf = [&](int32_t i) {
    if (st->level == 0) return in.rowSense[i];
    const double lo = st->lo[i], hi = st->hi[i];
    return lo == hi ? 'E' : hi == kInf ? 'G' : lo == -kInf ? 'L' : 'R';
  };
  int32_t nr = 0, nc = 0, nnz = 0, numRange = 0;
  for (int32_t i = 0; i < m; i++)
    if (st->rowAlive[i]) {
      st->newRow[i] = nr++;
      if (senseOf(i) == 'R') numRange++;
    }
  for (int32_t j = 0; j < n; j++)
    if (st->colAlive[j]) st->newCol[j] = nc++;
  for (int32_t j = 0; j < n; j++)
    if (st->colAlive[j])
      for (int32_t p = st->cStart[j]; p < st->cStart[j + 1]; p++)
        if (st->rowAlive[st->cRow[p]]) nnz++;
  const size_t colCap = (size_t)nc + numRange + 1, coefCap = (size_t)nnz + numRange + 1,
               rowCap = (size_t)nr + 1;
  st->pMat.assign(coefCap, 0.0);
  st->pRowIndex.assign(coefCap, 0);
  st->pColBegin.assign(colCap + 1, 0);
  st->pColLength.assign(colCap, 0);
  st->pObj.assign(colCap, 0.0);
  st->pLower.assign(colCap, 0.0);
  st->pUpper.assign(colCap, 0.0);
  st->pX.assign(colCap, 0.0);
  st->pZ.assign(colCap, 0.0);
  st->pRelax.assign(colCap, 0);
  st->pRhs.assign(rowCap, 0.0);
  st->pRange.assign(rowCap, 0.0);
  st->pSense.assign(rowCap, 'N');
  st->pY.assign(rowCap, 0.0);
  st->pAct.assign(rowCap, 0.0);

  const int32_t sense = st->objSense;
  int32_t pos = 0;
  for (int32_t j = 0; j < n; j++) {
    const int32_t k = st->newCol[j];
    if (k < 0) continue;
    st->pColBegin[k] = pos;
    for (int32_t p = st->cStart[j]; p < st->cStart[j + 1]; p++) {
      const int32_t r = st->newRow[st->cRow[p]];
      if (r < 0) continue;
      st->pRowIndex[pos] = r;
      st->pMat[pos] = st->cVal[p];
      pos++;
    }
    st->pColLength[k] = pos - st->pColBegin[k];
    st->pObj[k] = sense * st->c[j];
    st->pLower[k] = st->level == 0 ? in.lower[j] : outBound(st->l[j]);
    st->pUpper[k] = st->level == 0 ? in.upper[j] : outBound(st->u[j]);
    if (!st->relax.empty()) st->pRelax[k] = st->relax[j];
  }
  for (size_t k = nc; k < colCap + 1; k++) st->pColBegin[k] = pos;
  for (int32_t i = 0; i < m; i++) {
    const int32_t r = st->newRow[i];
    if (r < 0) continue;
    if (st->level == 0) {
      st->pSense[r] = in.rowSense[i];
      st->pRhs[r] = in.rhs[i];
      st->pRange[r] = in.range ? in.range[i] : 0.0;
      continue;
    }
    const double lo = st->lo[i], hi = st->hi[i];
    st->pSense[r] = senseOf(i);
    st->pRhs[r] = st->pSense[r] == 'L' ? hi : lo;
    if (st->pSense[r] == 'R') st->pRange[r] = hi - lo;
  }

  LPRecord& lp = st->record;
  std::memset(&lp, 0, sizeof(lp));
  lp.objSense = sense;
  lp.numRow = nr;
  lp.numCol = nc;
  lp.numCoef = nnz;
  lp.matValue = st->pMat.data();
  lp.rowIndex = st->pRowIndex.data();
  lp.colBegin = st->pColBegin.data();
  lp.colLength = st->pColLength.data();
  lp.obj = st->pObj.data();
  lp.rhs = st->pRhs.data();
  lp.range = st->pRange.data();
  lp.lower = st->pLower.data();
  lp.upper = st->pUpper.data();
  lp.rowSense = st->pSense.data();
  lp.solPrimal = st->pX.data();
  lp.solDual = st->pY.data();
  lp.objConstant = sense * st->constant;
  lp.reducedCost = st->pZ.data();
  lp.rowActivity = st->pAct.data();
}

// Largest violations of the caller's LP at (x, y, z), all in the minimising
// sense: rows and bounds on the primal side, signs of z and y on the dual.
void measure(const PostsolveState& st, const std::vector<double>& x, const std::vector<double>& act,
             const std::vector<double>& y, const std::vector<double>& z, double* primal,
             double* bound, double* dual) {
  double p = 0.0, b = 0.0, d = 0.0;
  for (int32_t i = 0; i < st.m; i++) {
    if (st.origLo[i] > -kInf) p = std::max(p, st.origLo[i] - act[i]);
    if (st.origHi[i] < kInf) p = std::max(p, act[i] - st.origHi[i]);
    if (st.origLo[i] == -kInf) d = std::max(d, y[i]);
    if (st.origHi[i] == kInf) d = std::max(d, -y[i]);
  }
  for (int32_t j = 0; j < st.n; j++) {
    if (st.origLower[j] > -kInf) b = std::max(b, st.origLower[j] - x[j]);
    if (st.origUpper[j] < kInf) b = std::max(b, x[j] - st.origUpper[j]);
    if (st.origLower[j] == -kInf) d = std::max(d, z[j]);
    if (st.origUpper[j] == kInf) d = std::max(d, -z[j]);
  }
  *primal = p;
  *bound = b;
  *dual = d;
}


// Status of a value between two ends, for the basis.
uint8_t endStatus(const PostsolveState& st, double v, double lo, double hi) {
  if (lo == hi && std::isfinite(lo)) return BASIS_FIXED;
  if (std::isfinite(lo) && std::fabs(v - lo) <= st.eps(lo) * 10) return BASIS_AT_LOWER;
  if (std::isfinite(hi) && std::fabs(v - hi) <= st.eps(hi) * 10) return BASIS_AT_UPPER;
  if (!std::isfinite(lo) && !std::isfinite(hi) && v == 0.0) return BASIS_FREE_ZERO;
  return BASIS_BASIC;
}

// The basis of the caller's LP from the crossover's basis of the presolved
// one.  Removed rows come back with their logical basic and removed columns
// at the end where they sit, which keeps the count of basics right.  Where
// a removed row holds a column at an end that the row made (singleton row,
// forcing row with a dual) or carries a free column, the two trade places:
// the column becomes basic and the row goes to the end that it holds.
void mapBasis(const PostsolveState& st, const std::vector<double>& x,
              const std::vector<double>& y, const std::vector<double>& act, uint8_t* basis) {
  const int32_t m = st.m, n = st.n, nc = st.record.numCol;
  const uint8_t* inner = st.pBasis.data();
  for (int32_t j = 0; j < n; j++)
    basis[j] = st.newCol[j] >= 0 ? inner[st.newCol[j]]
                                 : endStatus(st, x[j], st.origLower[j], st.origUpper[j]);
  for (int32_t i = 0; i < m; i++)
    basis[n + i] = st.newRow[i] >= 0 ? inner[nc + st.newRow[i]] : BASIS_BASIC;
  // A column that the crossover left at a relaxed bound sits inside its own
  // bounds in the caller's LP: it turns basic and the row that implied the
  // bound goes to the end that holds it.
  for (size_t t = st.relaxLog.size(); t-- > 0;) {
    const PostsolveState::RelaxMark& r = st.relaxLog[t];
    const uint8_t b = basis[r.col];
    const bool atRelaxed = (b == BASIS_AT_LOWER && (r.flag & RELAX_NO_LOWER)) ||
                           (b == BASIS_AT_UPPER && (r.flag & RELAX_NO_UPPER));
    if (!atRelaxed || basis[n + r.row] != BASIS_BASIC ||
        endStatus(st, x[r.col], st.origLower[r.col], st.origUpper[r.col]) != BASIS_BASIC)
      continue;
    uint8_t rowEnd = endStatus(st, act[r.row], st.origLo[r.row], st.origHi[r.row]);
    if (rowEnd == BASIS_BASIC)
      rowEnd = std::isfinite(st.origLo[r.row]) ? BASIS_AT_LOWER : BASIS_AT_UPPER;
    basis[r.col] = BASIS_BASIC;
    basis[n + r.row] = rowEnd;
  }
  std::vector<char> held(n, 0);  // removed columns that a singleton row holds
  for (size_t t = st.steps.size(); t-- > 0;) {
    const Step& s = st.steps[t];
    const int32_t rowSlot = n + s.row;
    switch (s.kind) {
      case kSingletonRow: {
        const uint8_t b = basis[s.col];
        if (basis[rowSlot] != BASIS_BASIC) break;
        if (b == BASIS_BASIC) {
          // A column that went out fixed by the row's bounds comes back
          // basic inside its own: the row holds it, so the row is the
          // nonbasic one of the pair.
          if (st.newCol[s.col] < 0 && !held[s.col]) {
            held[s.col] = 1;
            basis[rowSlot] = endStatus(st, act[s.row], st.origLo[s.row], st.origHi[s.row]);
            if (basis[rowSlot] == BASIS_BASIC) basis[rowSlot] = BASIS_AT_LOWER;
          }
          break;
        }
        if (endStatus(st, x[s.col], st.origLower[s.col], st.origUpper[s.col]) != BASIS_BASIC &&
            y[s.row] == 0.0)
          break;
        basis[s.col] = BASIS_BASIC;
        held[s.col] = 1;
        basis[rowSlot] = endStatus(st, act[s.row], st.origLo[s.row], st.origHi[s.row]);
        break;
      }
      case kForcingRow: {
        if (y[s.row] == 0.0 || basis[rowSlot] != BASIS_BASIC) break;
        int32_t pick = -1;
        double best = -1.0;
        for (int32_t e = s.first; e < s.first + s.count; e++) {
          const int32_t k = st.entCol[e];
          if (basis[k] == BASIS_BASIC) continue;
          const double weight = std::fabs(st.entVal[e]);
          if (weight > best) {
            best = weight;
            pick = k;
          }
        }
        if (pick < 0) break;
        basis[pick] = BASIS_BASIC;
        basis[rowSlot] = endStatus(st, act[s.row], st.origLo[s.row], st.origHi[s.row]);
        break;
      }
      case kFreeColumn:
        basis[s.col] = BASIS_BASIC;
        basis[rowSlot] = endStatus(st, act[s.row], st.origLo[s.row], st.origHi[s.row]);
        if (basis[rowSlot] == BASIS_BASIC) basis[rowSlot] = BASIS_AT_LOWER;
        break;
      case kColValue:
        break;
    }
  }
}

}  // namespace

Problem* presolve(Instance* instance, Context* context, int32_t /*mode*/, LPRecord* record,
                  int32_t* status) {
  int32_t dummy;
  if (!status) status = &dummy;
  Problem* problem = new (std::nothrow) Problem();
  PostsolveState* st = new (std::nothrow) PostsolveState();
  if (!problem || !st) {
    delete problem;
    delete st;
    *status = kOutOfMemory;
    return nullptr;
  }
  problem->caller = record;
  problem->state = st;
  if (instance) instance->problem = problem;
  if (context) {
    st->level = context->presolveLevel;
    st->feasTol = context->primalTol;
    if (context->params) context->params->presolveReuse = 0;
  }

  InputView in;
  const char* why = record ? nullptr : "no LP record";
  if (!why) {
    readInput(instance, record, &in);
    why = checkInput(in);
  }
  if (why || st->level < -1 || st->level > 3) {
    if (instance && instance->textLog)
      instance->textLog("%1zbramlet presolve: %s", why ? why : "unknown presolve level");
    // Postsolve still tells the caller, through the record, what went wrong.
    problem->presolveStatus = st->decided = IPM_STATUS_FAILED;
    *status = IPM_STATUS_FAILED;
    return problem;
  }

  buildState(st, in, record->objSense < 0 ? -1 : 1, record->objConstant);
  if (st->level != 0) {
    st->run();
    if (!st->decided) st->markRelaxed();
  }
  if (st->decided != IPM_STATUS_PRIMAL_INFEASIBLE && st->decided != IPM_STATUS_DUAL_INFEASIBLE) {
    buildPresolved(st, in);
    // The crossover's counters go straight to the caller's block; its basis
    // lands on the presolved LP and postsolve carries it back.
    st->record.siblingWord[LPRECORD_CROSSOVER_STATS_WORD] =
        record->siblingWord[LPRECORD_CROSSOVER_STATS_WORD];
    if (record->siblingWord[LPRECORD_BASIS_WORD]) {
      st->pBasis.assign((size_t)st->record.numCol + st->record.numRow, BASIS_NONE);
      st->record.siblingWord[LPRECORD_BASIS_WORD] = reinterpret_cast<int64_t>(st->pBasis.data());
    }
  } else
    std::memset(&st->record, 0, sizeof(st->record));
  problem->lp = &st->record;
  // Without presolve there are no flags to give, and the solver's own
  // presolver, which runs at level 0, makes its flags only where it finds
  // none: so none at all rather than an array of zeros.
  problem->relaxColBound = st->level == 0 || st->pRelax.empty() ? nullptr : st->pRelax.data();
  problem->presolveStatus = st->decided;
  *status = st->decided;
  return problem;
}

int32_t postsolve(Problem* problem) {
  if (!problem || !problem->state || !problem->caller) return IPM_STATUS_FAILED;
  PostsolveState& st = *problem->state;
  LPRecord* out = problem->caller;
  if (st.decided == IPM_STATUS_FAILED) {
    out->status = IPM_STATUS_FAILED;
    return 0;
  }
  const int32_t m = st.m, n = st.n;
  const double sense = st.objSense;
  std::vector<double> x(n, 0.0), y(m, 0.0), z(n, 0.0), act(m, 0.0);
  const LPRecord& lp = st.record;

  if (st.decided == IPM_STATUS_PRIMAL_INFEASIBLE || st.decided == IPM_STATUS_DUAL_INFEASIBLE) {
    // No point to map back: give the box point nearest to zero.
    for (int32_t j = 0; j < n; j++)
      x[j] = std::min(std::max(0.0, st.origLower[j]), st.origUpper[j]);
  } else {
    std::vector<char> defined(n, 0);
    for (int32_t i = 0; i < m; i++)
      if (st.newRow[i] >= 0) y[i] = sense * lp.solDual[st.newRow[i]];
    auto columnCost = [&](int32_t j, double cost) {
      double v = cost;
      for (int32_t p = st.cStart[j]; p < st.cStart[j + 1]; p++) v -= st.cVal[p] * y[st.cRow[p]];
      return v;
    };
    for (int32_t j = 0; j < n; j++)
      if (st.newCol[j] >= 0) {
        x[j] = lp.solPrimal[st.newCol[j]];
        z[j] = columnCost(j, st.c[j]);
        defined[j] = 1;
      }
    auto setRowDual = [&](int32_t i, double v) {
      const double delta = v - y[i];
      y[i] = v;
      for (int32_t p = st.rStart[i]; p < st.rStart[i + 1]; p++)
        if (defined[st.rCol[p]]) z[st.rCol[p]] -= st.rVal[p] * delta;
    };
    // The solver may keep an implied bound as a real one and price it.  In
    // the caller's LP that bound is not there; the row that implies it holds
    // the column there instead, so the bound's dual moves to the row.  Later
    // flags never lean on a column of an earlier flag's row (markRelaxed
    // locks them), so undoing the flags backwards leaves each relaxed
    // column's reduced cost at zero.
    for (size_t t = st.relaxLog.size(); t-- > 0;) {
      const PostsolveState::RelaxMark& r = st.relaxLog[t];
      const double zj = z[r.col];
      if (((r.flag & RELAX_NO_LOWER) && zj > 0) || ((r.flag & RELAX_NO_UPPER) && zj < 0))
        setRowDual(r.row, y[r.row] + zj / r.a);
    }
    for (size_t t = st.steps.size(); t-- > 0;) {
      const Step& s = st.steps[t];
      switch (s.kind) {
        case kColValue:
          x[s.col] = s.value;
          z[s.col] = columnCost(s.col, s.cost);
          defined[s.col] = 1;
          break;
        case kSingletonRow: {
          // The row takes over the dual of a bound that it gave.
          const double zj = z[s.col];
          if (((s.flags & kFromRowLower) && zj > 0) || ((s.flags & kFromRowUpper) && zj < 0))
            setRowDual(s.row, zj / s.a);
          break;
        }
        case kForcingRow: {
          // The smallest dual of the right sign that turns every column's
          // reduced cost to the side of the bound it sits at.
          double v = 0.0;
          for (int32_t e = s.first; e < s.first + s.count; e++) {
            const double ratio = z[st.entCol[e]] / st.entVal[e];
            v = s.side > 0 ? std::max(v, ratio) : std::min(v, ratio);
          }
          setRowDual(s.row, v);
          break;
        }
        case kFreeColumn: {
          double r = 0.0;
          for (int32_t e = s.first; e < s.first + s.count; e++) r += st.entVal[e] * x[st.entCol[e]];
          const double target = std::min(std::max(r, s.lo), s.hi);
          x[s.col] = (target - r) / s.a;
          // The other columns' costs were changed by exactly this dual's
          // share, so their reduced costs stand as they are.
          y[s.row] = s.cost / s.a;
          z[s.col] = columnCost(s.col, s.cost);
          defined[s.col] = 1;
          break;
        }
      }
    }
  }

  // Reduced costs and activities on the caller's own LP.
  for (int32_t j = 0; j < n; j++) {
    double v = sense * st.origObj[j];
    for (int32_t p = st.cStart[j]; p < st.cStart[j + 1]; p++) {
      v -= st.cVal[p] * y[st.cRow[p]];
      act[st.cRow[p]] += st.cVal[p] * x[j];
    }
    z[j] = v;
  }
  double objValue = st.callerConstant;
  for (int32_t j = 0; j < n; j++) objValue += st.origObj[j] * x[j];
  for (int32_t j = 0; j < n; j++) {
    if (out->solPrimal) out->solPrimal[j] = x[j];
    if (out->reducedCost) out->reducedCost[j] = sense * z[j];
  }
  for (int32_t i = 0; i < m; i++) {
    if (out->solDual) out->solDual[i] = sense * y[i];
    if (out->rowActivity) out->rowActivity[i] = act[i];
  }
  out->objConstant = objValue;
  if (uint8_t* basis = reinterpret_cast<uint8_t*>(out->siblingWord[LPRECORD_BASIS_WORD])) {
    if (!st.decided && !st.pBasis.empty() && st.pBasis.size() ==
        (size_t)st.record.numCol + st.record.numRow &&
        std::find(st.pBasis.begin(), st.pBasis.end(), BASIS_NONE) == st.pBasis.end())
      mapBasis(st, x, y, act, basis);
    else
      std::memset(basis, BASIS_NONE, (size_t)n + m);
  }
  if (st.decided) {
    out->status = st.decided;
    out->iteration = 0;
    measure(st, x, act, y, z, &out->primalInfeas, &out->boundInfeas, &out->dualInfeas);
    out->dualityGap = 0.0;
    out->complementarity = 0.0;
  } else {
    out->status = lp.status;
    out->iteration = lp.iteration;
    out->primalInfeas = lp.primalInfeas;
    out->dualInfeas = lp.dualInfeas;
    out->boundInfeas = lp.boundInfeas;
    out->dualityGap = lp.dualityGap;
    out->complementarity = lp.complementarity;
  }
  return 0;
}

void freeProblem(Instance* instance, Problem** problem) {
  if (!problem || !*problem) return;
  Problem* p = *problem;
  delete p->state;
  delete p;
  *problem = nullptr;
  if (instance && instance->problem == p) instance->problem = nullptr;
}

}  // namespace bramlet
