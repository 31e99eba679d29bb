// Multiple minimum degree with exact external degrees, for the small leaf
// graphs of nested dissection.  It indexes everything from 1: vertex
// numbers, list positions and degree buckets; an adjacency entry of 0 ends a
// list early and a negative entry -e continues the list in e's storage.
#include "ordering/ordering.h"

namespace {

struct Mmd {
  int32_t n;
  int32_t* xadj;    // 1-based views
  int32_t* adjncy;
  int32_t* dhead;
  int32_t* dforw;   // invp: forward link, later the numbering
  int32_t* dbakw;   // perm: backward link, -bucket for a bucket's first
  int32_t* qsize;
  int32_t* llist;
  int32_t* marker;
  int32_t maxint;

  void unlinkDegree(int32_t v) {
    int32_t pv = dbakw[v];
    if (pv == 0 || pv == -maxint) return;
    int32_t nx = dforw[v];
    if (nx > 0) dbakw[nx] = pv;
    if (pv > 0)
      dforw[pv] = nx;
    else
      dhead[-pv] = nx;
  }
  void pushDegree(int32_t v, int32_t deg) {
    int32_t f = dhead[deg];
    dforw[v] = f;
    dbakw[v] = -deg;
    if (f > 0) dbakw[f] = v;
    dhead[deg] = v;
  }

  void eliminate(int32_t mdnode, int32_t tag);
  void update(int32_t ehead, int32_t delta, int32_t& mdeg, int32_t& tag);
  void number();
};

// Turns mdnode into an element: its list becomes the set of variables it
// reaches, directly or through the elements next to it.
void Mmd::eliminate(int32_t mdnode, int32_t tag) {
  marker[mdnode] = tag;
  int32_t istrt = xadj[mdnode], istop = xadj[mdnode + 1] - 1;
  int32_t elmnt = 0, rloc = istrt, rlmt = istop;
  for (int32_t i = istrt; i <= istop; i++) {
    int32_t nabor = adjncy[i];
    if (nabor == 0) break;
    if (marker[nabor] >= tag) continue;
    marker[nabor] = tag;
    if (dforw[nabor] < 0) {
      llist[nabor] = elmnt;
      elmnt = nabor;
    } else {
      adjncy[rloc++] = nabor;
    }
  }
  // Variables reached through neighbouring elements; when the pivot's own
  // storage runs out, the absorbed elements' storage is borrowed.
  while (elmnt > 0) {
    adjncy[rlmt] = -elmnt;
    int32_t link = elmnt;
    bool more = true;
    while (more) {
      more = false;
      int32_t jstrt = xadj[link], jstop = xadj[link + 1] - 1;
      for (int32_t j = jstrt; j <= jstop; j++) {
        int32_t node = adjncy[j];
        if (node < 0) {
          link = -node;
          more = true;
          break;
        }
        if (node == 0) break;
        if (marker[node] >= tag || dforw[node] < 0) continue;
        marker[node] = tag;
        while (rloc >= rlmt) {
          int32_t l = -adjncy[rlmt];
          rloc = xadj[l];
          rlmt = xadj[l + 1] - 1;
        }
        adjncy[rloc++] = node;
      }
    }
    elmnt = llist[elmnt];
  }
  if (rloc <= rlmt) adjncy[rloc] = 0;

  // Every reached variable leaves its bucket and loses its dead neighbours.
  int32_t link = mdnode;
  bool more = true;
  while (more) {
    more = false;
    istrt = xadj[link];
    istop = xadj[link + 1] - 1;
    for (int32_t i = istrt; i <= istop; i++) {
      int32_t rnode = adjncy[i];
      if (rnode < 0) {
        link = -rnode;
        more = true;
        break;
      }
      if (rnode == 0) return;
      unlinkDegree(rnode);
      int32_t jstrt = xadj[rnode], jstop = xadj[rnode + 1] - 1;
      int32_t xqnbr = jstrt;
      for (int32_t j = jstrt; j <= jstop; j++) {
        int32_t nabor = adjncy[j];
        if (nabor == 0) break;
        if (marker[nabor] >= tag) continue;
        adjncy[xqnbr++] = nabor;
      }
      int32_t nqnbrs = xqnbr - jstrt;
      if (nqnbrs <= 0) {
        // Nothing but the pivot left: indistinguishable from it.
        qsize[mdnode] += qsize[rnode];
        qsize[rnode] = 0;
        marker[rnode] = maxint;
        dforw[rnode] = -mdnode;
        dbakw[rnode] = -maxint;
      } else {
        dforw[rnode] = nqnbrs + 1;
        dbakw[rnode] = 0;
        adjncy[xqnbr++] = mdnode;
        if (xqnbr <= jstop) adjncy[xqnbr] = 0;
      }
    }
  }
}

// Exact external degrees of the variables of the batch's new elements.
void Mmd::update(int32_t ehead, int32_t delta, int32_t& mdeg, int32_t& tag) {
  int32_t mdeg0 = mdeg + delta;
  for (int32_t elmnt = ehead; elmnt > 0; elmnt = llist[elmnt]) {
    int32_t mtag = tag + mdeg0;
    // Variables to update: those with two neighbours (the new element and
    // one more) are cheap and go first; their merges spare work later.
    int32_t q2head = 0, qxhead = 0, deg0 = 0;
    int32_t link = elmnt;
    bool more = true;
    while (more) {
      more = false;
      for (int32_t i = xadj[link]; i <= xadj[link + 1] - 1; i++) {
        int32_t enode = adjncy[i];
        if (enode < 0) {
          link = -enode;
          more = true;
          break;
        }
        if (enode == 0) break;
        if (qsize[enode] == 0) continue;
        deg0 += qsize[enode];
        marker[enode] = mtag;
        if (dbakw[enode] == 0) {
          if (dforw[enode] != 2) {
            llist[enode] = qxhead;
            qxhead = enode;
          } else {
            llist[enode] = q2head;
            q2head = enode;
          }
        }
      }
    }

    for (int pass = 0; pass < 2; pass++) {
      for (int32_t enode = pass == 0 ? q2head : qxhead; enode > 0; enode = llist[enode]) {
        if (dbakw[enode] != 0) continue;
        tag++;
        int32_t deg = deg0;
        if (pass == 0) {
          int32_t istrt = xadj[enode];
          int32_t nabor = adjncy[istrt];
          if (nabor == elmnt) nabor = adjncy[istrt + 1];
          if (dforw[nabor] >= 0) {
            deg += qsize[nabor];
          } else {
            int32_t lk = nabor;
            bool go = true;
            while (go) {
              go = false;
              for (int32_t i = xadj[lk]; i <= xadj[lk + 1] - 1; i++) {
                int32_t node = adjncy[i];
                if (node == enode) continue;
                if (node < 0) {
                  lk = -node;
                  go = true;
                  break;
                }
                if (node == 0) break;
                if (qsize[node] == 0) continue;
                if (marker[node] < tag) {
                  marker[node] = tag;
                  deg += qsize[node];
                } else if (dbakw[node] == 0) {
                  if (dforw[node] == 2) {
                    // Same two elements as enode: the same vertex for
                    // elimination purposes.
                    qsize[enode] += qsize[node];
                    qsize[node] = 0;
                    marker[node] = maxint;
                    dforw[node] = -enode;
                    dbakw[node] = -maxint;
                  } else {
                    dbakw[node] = -maxint;  // outmatched by enode
                  }
                }
              }
            }
          }
        } else {
          for (int32_t i = xadj[enode]; i <= xadj[enode + 1] - 1; i++) {
            int32_t nabor = adjncy[i];
            if (nabor == 0) break;
            if (marker[nabor] >= tag) continue;
            marker[nabor] = tag;
            if (dforw[nabor] >= 0) {
              deg += qsize[nabor];
              continue;
            }
            int32_t lk = nabor;
            bool go = true;
            while (go) {
              go = false;
              for (int32_t j = xadj[lk]; j <= xadj[lk + 1] - 1; j++) {
                int32_t node = adjncy[j];
                if (node < 0) {
                  lk = -node;
                  go = true;
                  break;
                }
                if (node == 0) break;
                if (marker[node] < tag) {
                  marker[node] = tag;
                  deg += qsize[node];
                }
              }
            }
          }
        }
        deg = deg - qsize[enode] + 1;
        pushDegree(enode, deg);
        if (deg < mdeg) mdeg = deg;
      }
    }
    tag = mtag;
  }
}

// Final numbering: merged vertices follow their representative.
void Mmd::number() {
  for (int32_t node = 1; node <= n; node++) {
    if (qsize[node] <= 0)
      dbakw[node] = dforw[node];
    else
      dbakw[node] = -dforw[node];
  }
  for (int32_t node = 1; node <= n; node++) {
    if (dbakw[node] > 0) continue;
    int32_t father = node;
    while (dbakw[father] <= 0) father = -dbakw[father];
    int32_t root = father;
    int32_t num = dbakw[root] + 1;
    dforw[node] = -num;
    dbakw[root] = num;
    father = node;
    for (int32_t nextf = -dbakw[father]; nextf > 0; nextf = -dbakw[father]) {
      dbakw[father] = -root;
      father = nextf;
    }
  }
  for (int32_t node = 1; node <= n; node++) {
    int32_t num = -dforw[node];
    dforw[node] = num;
    dbakw[num] = node;
  }
}

}  // namespace

void mmd(int32_t n, int32_t* adjBegin, int32_t* adjIndex, int32_t* invp, int32_t* perm,
         int32_t delta, int32_t* head, int32_t* size, int32_t* list, int32_t* marker,
         int32_t maxint) {
  if (n <= 0) return;
  if (n == 1) {
    invp[0] = perm[0] = 1;
    return;
  }
  Mmd m;
  m.n = n;
  // One-based views of the caller's arrays.
  m.xadj = adjBegin - 1;
  m.adjncy = adjIndex ? adjIndex - 1 : nullptr;  // no edges: never read
  m.dhead = head - 1;
  m.dforw = invp - 1;
  m.dbakw = perm - 1;
  m.qsize = size - 1;
  m.llist = list - 1;
  m.marker = marker - 1;
  m.maxint = maxint;

  for (int32_t v = 1; v <= n; v++) {
    m.dhead[v] = 0;
    m.qsize[v] = 1;
    m.marker[v] = 0;
    m.llist[v] = 0;
  }
  for (int32_t v = n + 1; v <= 2 * n - 2; v++) m.dhead[v] = 0;
  for (int32_t v = 1; v <= n; v++) {
    int32_t deg = m.xadj[v + 1] - m.xadj[v];
    m.pushDegree(v, deg < 1 ? 1 : deg);
  }

  // Bucket 1 costs no fill: numbered at once.
  int32_t num = 1;
  for (int32_t v = m.dhead[1]; v > 0;) {
    int32_t nx = m.dforw[v];
    m.marker[v] = maxint;
    m.dforw[v] = -num;
    num++;
    v = nx;
  }
  if (num <= n) {
    int32_t tag = 1;
    m.dhead[1] = 0;
    int32_t mdeg = 2;
    bool done = false;
    while (!done) {
      while (m.dhead[mdeg] <= 0) mdeg++;
      int32_t mdlmt = mdeg + delta;
      int32_t ehead = 0;
      for (;;) {
        int32_t mdnode = m.dhead[mdeg];
        if (mdnode <= 0) {
          mdeg++;
          if (mdeg > mdlmt) break;
          continue;
        }
        int32_t nx = m.dforw[mdnode];
        m.dhead[mdeg] = nx;
        if (nx > 0) m.dbakw[nx] = -mdeg;
        m.dforw[mdnode] = -num;
        if (num + m.qsize[mdnode] > n) {
          done = true;
          break;
        }
        tag++;
        m.eliminate(mdnode, tag);
        num += m.qsize[mdnode];
        m.llist[mdnode] = ehead;
        ehead = mdnode;
        if (delta < 0) break;
      }
      if (done || num > n) break;
      m.update(ehead, delta, mdeg, tag);
    }
  }
  m.number();
}

void MMDOrder(OrderingGraph* graph, int32_t* order, int32_t lastPosition, int32_t* work) {
  int32_t n = graph->numVertex;
  if (n <= 0) return;
  int32_t nnz = graph->adjBegin[n];
  int32_t* perm = work;
  int32_t* invp = perm + n;
  int32_t* head = invp + n;
  int32_t* size = head + (2 * n - 2 > 0 ? 2 * n - 2 : 0);
  int32_t* list = size + n;
  int32_t* marker = list + n;
  for (int32_t v = 0; v <= n; v++) graph->adjBegin[v]++;
  for (int32_t p = 0; p < nnz; p++) graph->adjIndex[p]++;
  mmd(n, graph->adjBegin, graph->adjIndex, invp, perm, 1, head, size, list, marker,
      2147483647);
  for (int32_t v = 0; v <= n; v++) graph->adjBegin[v]--;
  for (int32_t p = 0; p < nnz; p++) graph->adjIndex[p]--;
  for (int32_t i = 0; i < n; i++) order[graph->origLabel[i]] = lastPosition - n - 1 + invp[i];
}
