// Approximate minimum degree and minimum fill on the quotient graph.
//
// The three public codes share one elimination engine.  Vertices are either
// variables (still to be eliminated), elements (eliminated pivots, standing
// for the clique of their remaining neighbours), absorbed, dense or
// isolated; the state is coded in place in the caller's arrays so that the
// whole run needs nothing beyond them.
#include <math.h>

#include "ordering/ordering.h"

namespace {

const int32_t kIntMax = 2147483647;

inline int32_t flip(int32_t x) { return -x - 2; }
inline int32_t imin(int32_t a, int32_t b) { return a < b ? a : b; }
inline int32_t imax(int32_t a, int32_t b) { return a > b ? a : b; }

enum Mode { MODE_AMD, MODE_AMF, MODE_CAMF };

struct Engine {
  Mode mode;
  int32_t n;
  int32_t* pe;
  int32_t* iw;
  int32_t* len;
  int32_t iwlen;
  int32_t pfree;
  int32_t* nv;
  int32_t* next;
  int32_t* last;
  int32_t* head;
  int32_t* elen;
  int32_t* degree;
  int32_t* w;
  int32_t* score;  // null for MODE_AMD
  const int32_t* label;
  int32_t orderClass;
  int32_t mindeg;
  int32_t curLabel;
  int32_t active;
  int32_t nel;
  int32_t wflg;
  int32_t wbig;
  int32_t lemax;
  bool broken;  // elbow room ran out even after compaction

  int32_t key(int32_t i) const {
    if (mode == MODE_AMD) return imin(degree[i], n - 1);
    return imin(score[i], n);
  }
  // Only vertices of the current label live in the buckets.
  bool inGroup(int32_t i) const { return !label || label[i] == curLabel; }

  void insert(int32_t i) {
    int32_t k = key(i);
    int32_t inext = head[k];
    if (inext != -1) last[inext] = i;
    next[i] = inext;
    last[i] = -1;
    head[k] = i;
    if (k < mindeg) mindeg = k;
  }
  void unlink(int32_t i) {
    int32_t ilast = last[i], inext = next[i];
    if (inext != -1) last[inext] = ilast;
    if (ilast != -1)
      next[ilast] = inext;
    else
      head[key(i)] = inext;
  }
  // The fill that eliminating i would add beyond the clique it already sits
  // in; supervariables are weighed down so that big ones go early.
  void setScore(int32_t i, int32_t s, int32_t D, int32_t deg) {
    double wgt = orderClass != 0 ? (double)s : sqrt((double)s);
    double dd = deg, ds = (double)D - s;
    double f = (dd * (dd - 1.0) - ds * (ds - 1.0)) / (2.0 * wgt);
    if (f > (double)wbig) f = wbig;
    if (f < 0.0) f = 0.0;
    score[i] = (int32_t)f;
  }
  void clearStamps() {
    if (wflg >= wbig) {
      for (int32_t x = 0; x < n; x++)
        if (w[x] != 0) w[x] = 1;
      wflg = 2;
    }
  }

  int32_t pickPivot();
  void eliminate(int32_t me);
  void compact(int32_t& pme1);
  void finish();
};

int32_t Engine::pickPivot() {
  for (int32_t d = mindeg < 0 ? 0 : mindeg; d < n; d++) {
    if (head[d] != -1) {
      mindeg = d;
      return head[d];
    }
  }
  if (mode == MODE_AMD) return -1;
  // The overflow bucket holds every score of n and above, unsorted.
  int32_t best = head[n];
  if (best == -1) return -1;
  for (int32_t j = next[best]; j != -1; j = next[j])
    if (score[j] < score[best]) best = j;
  mindeg = score[best];
  return best;
}

// Moves all live lists to the front of iw, then the element being built
// (which starts at pme1 and ends at pfree).  Live objects are found by a
// marker FLIP(j) written over the first word of their list.
void Engine::compact(int32_t& pme1) {
  for (int32_t j = 0; j < n; j++) {
    int32_t pn = pe[j];
    if (pn >= 0 && len[j] > 0) {
      pe[j] = iw[pn];
      iw[pn] = flip(j);
    }
  }
  int32_t psrc = 0, pdst = 0;
  while (psrc < pme1) {
    int32_t j = flip(iw[psrc++]);
    if (j >= 0) {
      iw[pdst] = pe[j];
      pe[j] = pdst++;
      int32_t lenj = len[j];
      for (int32_t k = 1; k < lenj; k++) iw[pdst++] = iw[psrc++];
    }
  }
  int32_t newStart = pdst;
  for (int32_t p = pme1; p < pfree; p++) iw[pdst++] = iw[p];
  pme1 = newStart;
  pfree = pdst;
}

void Engine::eliminate(int32_t me) {
  unlink(me);
  int32_t elenme = elen[me];
  int32_t nvpiv = nv[me];
  nel += nvpiv;
  active--;
  nv[me] = -nvpiv;
  int32_t degme = 0;
  int32_t pme1, pme2;

  if (elenme == 0) {
    // No elements next to the pivot: its own list becomes the element.
    pme1 = pe[me];
    pme2 = pme1 - 1;
    int32_t pend = pme1 + len[me];
    for (int32_t p = pme1; p < pend; p++) {
      int32_t i = iw[p];
      int32_t nvi = nv[i];
      if (nvi > 0) {
        degme += nvi;
        nv[i] = -nvi;
        iw[++pme2] = i;
        if (inGroup(i)) {
          unlink(i);
          active--;
        }
      }
    }
  } else {
    // Union of the pivot's elements and variables, built at the free end.
    int32_t p = pe[me];
    int32_t meEnd = p + len[me];
    pme1 = pfree;
    for (int32_t k1 = 0; k1 <= elenme; k1++) {
      int32_t e, pj, pjEnd;
      if (k1 < elenme) {
        e = iw[p++];
        pj = pe[e];
        pjEnd = pj + len[e];
      } else {
        e = me;
        pj = p;
        pjEnd = meEnd;
      }
      while (pj < pjEnd) {
        int32_t i = iw[pj++];
        int32_t nvi = nv[i];
        if (nvi <= 0) continue;
        if (pfree >= iwlen) {
          // Save what is left of the lists being read, then compact.
          if (e != me) {
            pe[me] = p;
            len[me] = meEnd - p;
            if (len[me] == 0) pe[me] = -1;
          }
          pe[e] = pj;
          len[e] = pjEnd - pj;
          if (len[e] == 0) pe[e] = -1;
          compact(pme1);
          if (pfree >= iwlen) {
            broken = true;
            return;
          }
          if (e != me) {
            p = pe[me];
            meEnd = p < 0 ? p : p + len[me];
            if (p < 0) p = meEnd = 0;
          }
          if (pe[e] >= 0) {
            pj = pe[e];
            pjEnd = pj + len[e];
          } else {
            pj = pjEnd = 0;
          }
          if (e == me) {
            p = pj;
            meEnd = pjEnd;
          }
        }
        degme += nvi;
        nv[i] = -nvi;
        iw[pfree++] = i;
        if (inGroup(i)) {
          unlink(i);
          active--;
        }
      }
      if (e != me) {
        pe[e] = flip(me);
        w[e] = 0;
      }
    }
    pme2 = pfree - 1;
  }

  degree[me] = degme;
  pe[me] = pme1;
  len[me] = pme2 - pme1 + 1;
  elen[me] = flip(nvpiv + degme);

  clearStamps();

  // |Le \ Lme| for every element e next to a variable of the new element,
  // kept as w[e] - wflg.
  for (int32_t pme = pme1; pme <= pme2; pme++) {
    int32_t i = iw[pme];
    int32_t eln = elen[i];
    if (eln > 0) {
      int32_t nvi = -nv[i];
      int32_t wnvi = wflg - nvi;
      int32_t pb = pe[i];
      for (int32_t p = pb; p < pb + eln; p++) {
        int32_t e = iw[p];
        int32_t we = w[e];
        if (we >= wflg)
          we -= nvi;
        else if (we != 0)
          we = degree[e] + wnvi;
        w[e] = we;
      }
    }
  }

  // Degree update, pruning, absorption and hashing of each variable.
  for (int32_t pme = pme1; pme <= pme2; pme++) {
    int32_t i = iw[pme];
    int32_t p1 = pe[i];
    int32_t p2 = p1 + elen[i] - 1;
    int32_t pn = p1;
    uint32_t hash = 0;
    int32_t deg = 0;
    for (int32_t p = p1; p <= p2; p++) {
      int32_t e = iw[p];
      int32_t we = w[e];
      if (we == 0) continue;
      int32_t dext = we - wflg;
      if (dext > 0) {
        deg += dext;
        iw[pn++] = e;
        hash += (uint32_t)e;
      } else {
        // Everything of e is inside the new element: absorb it now.
        pe[e] = flip(me);
        w[e] = 0;
      }
    }
    elen[i] = pn - p1 + 1;
    int32_t p3 = pn;
    int32_t p4 = p1 + len[i];
    for (int32_t p = p2 + 1; p < p4; p++) {
      int32_t j = iw[p];
      int32_t nvj = nv[j];
      if (nvj > 0) {
        deg += nvj;
        iw[pn++] = j;
        hash += (uint32_t)j;
      }
    }
    if (elen[i] == 1 && p3 == pn && inGroup(i)) {
      // Only the new element is left next to i: it goes with the pivot.
      pe[i] = flip(me);
      int32_t nvi = -nv[i];
      degme -= nvi;
      nvpiv += nvi;
      nel += nvi;
      nv[i] = 0;
      elen[i] = -1;
    } else {
      if (deg < degree[i]) degree[i] = deg;
      iw[pn] = iw[p3];
      iw[p3] = iw[p1];
      iw[p1] = me;
      len[i] = pn - p1 + 1;
      int32_t h = (int32_t)(hash % (uint32_t)n);
      int32_t j = head[h];
      if (j <= -1) {
        next[i] = flip(j);
        head[h] = flip(i);
      } else {
        next[i] = last[j];
        last[j] = i;
      }
      last[i] = h;
    }
  }
  degree[me] = degme;
  if (degme > lemax) lemax = degme;
  wflg += lemax;
  clearStamps();

  // Supervariables: variables with the same lists (past the new element)
  // merge.  Candidates share a hash slot.
  for (int32_t pme = pme1; pme <= pme2; pme++) {
    int32_t i = iw[pme];
    if (nv[i] >= 0) continue;
    int32_t h = last[i];
    int32_t j = head[h];
    if (j == -1) continue;
    if (j < -1) {
      i = flip(j);
      head[h] = -1;
    } else {
      i = last[j];
      last[j] = -1;
    }
    while (i != -1 && next[i] != -1) {
      int32_t ln = len[i];
      int32_t eln = elen[i];
      int32_t pb = pe[i];
      for (int32_t p = pb + 1; p < pb + ln; p++) w[iw[p]] = wflg;
      int32_t jlast = i;
      j = next[i];
      while (j != -1) {
        bool ok = len[j] == ln && elen[j] == eln && (!label || label[j] == label[i]);
        int32_t qb = pe[j];
        for (int32_t p = qb + 1; ok && p < qb + ln; p++)
          if (w[iw[p]] != wflg) ok = false;
        if (ok) {
          pe[j] = flip(i);
          nv[i] += nv[j];
          nv[j] = 0;
          elen[j] = -1;
          j = next[j];
          next[jlast] = j;
        } else {
          jlast = j;
          j = next[j];
        }
      }
      wflg++;
      i = next[i];
    }
  }

  // New degrees and scores; the variables go back into the buckets.
  int32_t p = pme1;
  int32_t nleft = n - nel;
  int32_t D = degme;
  for (int32_t pme = pme1; pme <= pme2; pme++) {
    int32_t i = iw[pme];
    int32_t s = -nv[i];
    if (s <= 0) continue;
    nv[i] = s;
    int32_t deg = imin(degree[i] + D - s, nleft - s);
    if (mode != MODE_AMD) setScore(i, s, D, deg);
    degree[i] = deg;
    if (inGroup(i)) {
      insert(i);
      active++;
    }
    iw[p++] = i;
  }
  nv[me] = nvpiv;
  len[me] = p - pme1;
  elen[me] = flip(nvpiv + degme);
  if (len[me] == 0) {
    pe[me] = -1;
    w[me] = 0;
  }
  if (elenme != 0) pfree = p;
}

void Engine::finish() {
  for (int32_t i = 0; i < n; i++) {
    // Anything still holding a list is a root of the assembly tree.
    if (pe[i] >= 0) pe[i] = -1;
    pe[i] = flip(pe[i]);
    elen[i] = flip(elen[i]);
  }
  // pe of an absorbed vertex is now its parent, of a root or dense one -1.
  for (int32_t i = 0; i < n; i++) {
    if (nv[i] != 0) continue;
    int32_t e = i;
    while (e != -1 && nv[e] == 0) e = pe[e];
    int32_t j = i;
    while (j != -1 && nv[j] == 0) {
      int32_t up = pe[j];
      pe[j] = e;
      j = up;
    }
  }
  // Elements are post-ordered; w receives the numbers.
  nd_postorder(n, pe, nv, elen, w, head, next, last, nullptr, 0);
  for (int32_t k = 0; k < n; k++) {
    head[k] = -1;
    next[k] = -1;
  }
  for (int32_t e = 0; e < n; e++)
    if (nv[e] > 0 && w[e] >= 0) head[w[e]] = e;
  int32_t pos = 0;
  for (int32_t k = 0; k < n; k++) {
    int32_t e = head[k];
    if (e == -1) break;
    next[e] = pos;
    pos += nv[e];
  }
  for (int32_t i = 0; i < n; i++) {
    if (nv[i] != 0) continue;
    int32_t e = pe[i];
    if (e != -1)
      next[i] = next[e]++;
    else
      next[i] = pos++;  // dense: after everything else
  }
  for (int32_t i = 0; i < n; i++) last[next[i]] = i;
}

// Shared setup; returns the dense threshold to use when the caller has no
// rule of its own.
int32_t defaultDense(int32_t n) {
  int32_t t = (int32_t)(10.0 * sqrt((double)n));
  return imin(n, imax(16, t));
}

void initialScore(Engine& g, int32_t i) {
  int32_t d = g.degree[i];
  if (d < 46341)
    g.score[i] = (int32_t)(0.5 * (double)d * (double)(d - 1));
  else
    g.score[i] = kIntMax;
}

void setup(Engine& g, int32_t n, int32_t* pe, int32_t* iw, int32_t* len, int32_t iwlen,
           int32_t pfree, int32_t* nv, int32_t* next, int32_t* last, int32_t* head,
           int32_t* elen, int32_t* degree, int32_t* w, int32_t* score, int32_t nheads) {
  g.n = n;
  g.pe = pe;
  g.iw = iw;
  g.len = len;
  g.iwlen = iwlen;
  g.pfree = pfree;
  g.nv = nv;
  g.next = next;
  g.last = last;
  g.head = head;
  g.elen = elen;
  g.degree = degree;
  g.w = w;
  g.score = score;
  g.label = nullptr;
  g.mindeg = n;
  g.curLabel = 0;
  g.active = 0;
  g.nel = 0;
  g.wflg = 2;
  g.wbig = kIntMax - n;
  g.lemax = 0;
  g.broken = false;
  for (int32_t i = 0; i < n; i++) {
    nv[i] = 1;
    w[i] = 1;
    next[i] = -1;
    last[i] = -1;
    elen[i] = 0;
    degree[i] = len[i];
  }
  for (int32_t k = 0; k < nheads; k++) head[k] = -1;
  if (score)
    for (int32_t i = 0; i < n; i++) initialScore(g, i);
}

void markIsolated(Engine& g, int32_t i) {
  g.elen[i] = flip(1);
  g.pe[i] = -1;
  g.w[i] = 0;
  g.nel++;
}
void markDense(Engine& g, int32_t i) {
  g.pe[i] = -1;
  g.nv[i] = 0;
  g.elen[i] = -1;
  g.nel++;
}

// Isolated and dense vertices leave the game; the rest enter the buckets in
// ascending number, each at the front, so that ties go to the highest
// number.  On regular meshes that sweeps the graph from the far end and
// costs far less fill than the opposite tie rule (nearly half on nine-point
// grids).
void classify(Engine& g, int32_t dense) {
  for (int32_t i = 0; i < g.n; i++) {
    if (g.degree[i] == 0)
      markIsolated(g, i);
    else if (g.degree[i] > dense)
      markDense(g, i);
    else
      g.insert(i);
  }
}

// Last resort when the elbow room was too small after all: the natural
// order, so that callers still get a permutation.
void naturalOrder(int32_t n, int32_t* next, int32_t* last) {
  for (int32_t i = 0; i < n; i++) next[i] = last[i] = i;
}

void runUnconstrained(Engine& g) {
  while (g.nel < g.n) {
    int32_t me = g.pickPivot();
    if (me < 0) break;
    g.eliminate(me);
    if (g.broken) break;
  }
  if (g.broken || g.nel < g.n) {
    naturalOrder(g.n, g.next, g.last);
    return;
  }
  g.finish();
}

// Dense rule of the minimum-degree driver: the caller's rule 0 threshold.
int32_t ruleZeroThreshold(int32_t n, const int32_t* pe, int32_t orderClass, int32_t fallback) {
  if (orderClass == 1 && fallback == 0) return (pe[n] / n) * 50;
  return defaultDense(n);
}

}  // namespace

void nd_camf(int32_t n, int32_t* elementPtr, int32_t* workIndex, int32_t* listLength,
             int32_t workCapacity, int32_t workFree, const int32_t* constraintLabel,
             int32_t* superSize, int32_t* nextInList, int32_t* prevInList, int32_t* bucketHead,
             int32_t* elementLength, int32_t* degree, int32_t* stamp, int32_t* score,
             int32_t* labelOrder, int32_t orderClass) {
  if (n <= 0) return;
  // Labels outside 0..n-1 cannot be counted into n slots; such a caller is
  // treated as if it had none rather than read out of bounds.
  const int32_t* label = constraintLabel;
  if (label)
    for (int32_t i = 0; i < n; i++)
      if (label[i] < 0 || label[i] >= n) {
        label = nullptr;
        break;
      }
  if (label) {
    for (int32_t k = 0; k < n; k++) stamp[k] = 0;
    for (int32_t i = 0; i < n; i++) stamp[label[i]]++;
    int32_t s = 0;
    for (int32_t k = 0; k < n; k++) {
      int32_t c = stamp[k];
      stamp[k] = s;
      s += c;
    }
    for (int32_t i = n - 1; i >= 0; i--) labelOrder[stamp[label[i]]++] = i;
  } else {
    for (int32_t i = 0; i < n; i++) labelOrder[i] = i;
  }

  Engine g;
  g.mode = MODE_CAMF;
  g.orderClass = orderClass;
  setup(g, n, elementPtr, workIndex, listLength, workCapacity, workFree, superSize, nextInList,
        prevInList, bucketHead, elementLength, degree, stamp, score, n + 1);
  g.label = label;
  int32_t dense = defaultDense(n);
  for (int32_t i = 0; i < n; i++) {
    if (degree[i] == 0)
      markIsolated(g, i);
    else if (degree[i] > dense)
      markDense(g, i);
  }

  int32_t pos = 0;
  while (g.nel < n && pos < n) {
    int32_t lab = label ? label[labelOrder[pos]] : 0;
    g.curLabel = lab;
    g.mindeg = n;
    g.active = 0;
    while (pos < n && (!label || label[labelOrder[pos]] == lab)) {
      int32_t i = labelOrder[pos++];
      if (superSize[i] > 0 && elementLength[i] >= 0) {
        g.insert(i);
        g.active++;
      }
    }
    while (g.active > 0) {
      int32_t me = g.pickPivot();
      if (me < 0) break;
      g.eliminate(me);
      if (g.broken) break;
    }
    if (g.broken) break;
  }
  if (g.broken || g.nel < n) {
    naturalOrder(n, nextInList, prevInList);
    return;
  }
  g.finish();
}

void nd_amf(int32_t n, int32_t* elementPtr, int32_t* workIndex, int32_t* listLength,
            int32_t workCapacity, int32_t workFree, int32_t* superSize, int32_t* nextInList,
            int32_t* prevInList, int32_t* bucketHead, int32_t* elementLength, int32_t* degree,
            int32_t* stamp, int32_t* score, int32_t denseRule, int32_t orderClass,
            int32_t fallback) {
  if (n <= 0) return;
  Engine g;
  g.mode = MODE_AMF;
  g.orderClass = orderClass;
  setup(g, n, elementPtr, workIndex, listLength, workCapacity, workFree, superSize, nextInList,
        prevInList, bucketHead, elementLength, degree, stamp, score, n + 1);
  if (denseRule == 0) {
    int32_t dense = ruleZeroThreshold(n, elementPtr, orderClass, fallback);
    classify(g, dense);
  } else {
    // Peel off the vertices whose degree stands out against what is left,
    // highest first.  Degree buckets reuse the hash heads for now.
    double sum = 0.0;
    for (int32_t i = 0; i < n; i++) {
      if (degree[i] == 0) {
        markIsolated(g, i);
        continue;
      }
      sum += degree[i];
      int32_t d = imin(degree[i], n - 1);
      nextInList[i] = bucketHead[d];
      bucketHead[d] = i;
    }
    double m = n;
    double a = sum / m;
    double t = 40.0 * log(m) / m;
    for (int32_t d = n - 1; d >= 0 && m > 1.0; d--) {
      for (int32_t i = bucketHead[d]; i != -1 && m > 1.0; i = nextInList[i]) {
        double r = a * m - 2.0 * d;
        double c = a - r / m;
        if (c < t) break;
        markDense(g, i);
        m -= 1.0;
        a = r / m;
        t = 40.0 * log(m) / m;
      }
    }
    for (int32_t k = 0; k <= n; k++) bucketHead[k] = -1;
    for (int32_t i = 0; i < n; i++) nextInList[i] = -1;
    for (int32_t i = 0; i < n; i++)
      if (superSize[i] > 0 && elementLength[i] >= 0) g.insert(i);
  }
  runUnconstrained(g);
}

void nd_amd(int32_t n, int32_t* elementPtr, int32_t* workIndex, int32_t* listLength,
            int32_t workCapacity, int32_t workFree, int32_t* superSize, int32_t* nextInList,
            int32_t* prevInList, int32_t* bucketHead, int32_t* elementLength, int32_t* degree,
            int32_t* stamp, int32_t denseRule, int32_t orderClass, int32_t fallback) {
  (void)denseRule;  // the log rule is a minimum-fill matter; nd_amd keeps rule 0
  if (n <= 0) return;
  Engine g;
  g.mode = MODE_AMD;
  g.orderClass = orderClass;
  setup(g, n, elementPtr, workIndex, listLength, workCapacity, workFree, superSize, nextInList,
        prevInList, bucketHead, elementLength, degree, stamp, nullptr, n);
  classify(g, ruleZeroThreshold(n, elementPtr, orderClass, fallback));
  runUnconstrained(g);
}

void nd_postorder(int32_t n, const int32_t* parent, const int32_t* superSize,
                  const int32_t* frontSize, int32_t* order, int32_t* child, int32_t* sibling,
                  int32_t* stack, const int32_t* labelMember, int32_t label) {
  bool useLabels = label != 0 && labelMember != nullptr;
  for (int32_t j = 0; j < n; j++) {
    child[j] = -1;
    sibling[j] = -1;
  }
  for (int32_t j = n - 1; j >= 0; j--) {
    if (superSize[j] > 0 && parent[j] != -1) {
      int32_t pj = parent[j];
      sibling[j] = child[pj];
      if (!useLabels || labelMember[pj] == labelMember[j]) child[pj] = j;
    }
  }
  // The child with the biggest front goes last, so that its front is still
  // on top when the parent is assembled.
  for (int32_t i = 0; i < n; i++) {
    if (superSize[i] <= 0 || child[i] == -1) continue;
    int32_t fbig = -1, big = -1, bigPrev = -1, prev = -1, tail = -1;
    for (int32_t f = child[i]; f != -1; f = sibling[f]) {
      if (frontSize[f] >= fbig) {
        fbig = frontSize[f];
        big = f;
        bigPrev = prev;
      }
      prev = f;
      tail = f;
    }
    if (sibling[big] != -1) {
      if (bigPrev == -1)
        child[i] = sibling[big];
      else
        sibling[bigPrev] = sibling[big];
      sibling[big] = -1;
      sibling[tail] = big;
    }
  }
  for (int32_t i = 0; i < n; i++) order[i] = -1;
  int32_t k = 0;
  for (int32_t i = 0; i < n; i++) {
    if (superSize[i] <= 0) continue;
    int32_t pi = parent[i];
    bool root = pi == -1 || (useLabels && labelMember[pi] != labelMember[i]);
    if (root) k = nd_post_tree(i, k, child, sibling, order, stack);
  }
}

int32_t nd_post_tree(int32_t root, int32_t k, int32_t* child, const int32_t* sibling,
                     int32_t* order, int32_t* stack) {
  int32_t top = 0;
  stack[0] = root;
  while (top >= 0) {
    int32_t i = stack[top];
    int32_t f = child[i];
    if (f == -1) {
      top--;
      order[i] = k++;
    } else {
      // Children go on the stack with the first one on top; i stays below
      // them and is numbered once they are all done.
      for (int32_t c = f; c != -1; c = sibling[c]) top++;
      int32_t h = top;
      for (int32_t c = f; c != -1; c = sibling[c]) stack[h--] = c;
      child[i] = -1;
    }
  }
  return k;
}
