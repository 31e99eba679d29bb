// The pieces of multilevel nested dissection: coarsening by matching, the
// edge bisection of the coarsest level, the vertex separator and its
// refinement on the way back up.  Targets are the wanted vertex weights of
// sides 0 and 1.
#ifndef HALVEX_ORDERING_NESTED_H
#define HALVEX_ORDERING_NESTED_H

#include <stdint.h>

#include "ordering/ordering.h"

// Components below this size are leaves: ordered by multiple minimum degree
// (or labelled as one block) instead of being dissected further.
enum { ND_LEAF_SIZE = 200 };

int32_t NodeBisection(OrderingControl* control, OrderingGraph* graph, const int32_t* targets);
int32_t SplitGraphIntoComponents(OrderingControl* control, OrderingGraph* graph,
                                 OrderingGraph* records, int32_t count, const int32_t* begin,
                                 const int32_t* list);

int32_t RandomMatch(OrderingControl* control, OrderingGraph* graph);
int32_t SortedMatch(OrderingControl* control, OrderingGraph* graph);
int32_t CreateCoarseGraph(OrderingControl* control, OrderingGraph* graph, int32_t coarseCount,
                          const int32_t* match, const int32_t* walkOrder);

int32_t Init2WayPartition(OrderingControl* control, OrderingGraph* graph, const int32_t* targets);
void Compute2WayPartitionParams(OrderingGraph* graph);
int32_t Bnd2WayBalance(OrderingControl* control, OrderingGraph* graph, const int32_t* targets);
int32_t General2WayBalance(OrderingControl* control, OrderingGraph* graph,
                           const int32_t* targets);

// The k-th untouched vertex in number order, which the growing of the edge
// bisection restarts from when a component runs out.  A coarsest graph of
// many small components (or none but isolated vertices) restarts thousands
// of times, and a scan from vertex 0 each time is quadratic: the counts of
// untouched vertices per block of 2^shift let a restart walk the blocks and
// then one block.  count holds one entry per block.
struct UntouchedBlocks {
  int32_t* count;
  int32_t shift;
};
// Counts the untouched vertices of touched[0..n) (0 marks untouched).
void untouchedCount(UntouchedBlocks* u, const int32_t* touched, int32_t n);
// The k-th (from 0) untouched vertex; k is below the number untouched.
int32_t untouchedFind(const UntouchedBlocks* u, const int32_t* touched, int32_t k);
// Marks v touched, in the counts too once they are made.
inline void untouchedTake(UntouchedBlocks* u, int32_t* touched, int32_t v) {
  touched[v] = 1;
  if (u->count) u->count[v >> u->shift]--;
}
inline int32_t untouchedShift(int32_t n) {
  int32_t shift = 6;
  while ((int64_t)1 << (2 * shift) < n) shift++;
  return shift;
}

// side holds 2 on the separator; recomputes sideWeight, the boundary (the
// separator, ascending), sideReach and separatorWeight.
void ComputeSeparatorParams(OrderingGraph* graph);
int32_t NodeRefine(OrderingControl* control, OrderingGraph* graph, int32_t passes);
int32_t NodeRefineOneSided(OrderingControl* control, OrderingGraph* graph, int32_t passes);
int32_t NodeBalance(OrderingControl* control, OrderingGraph* graph);

// The partition block of a level: side, boundaryPos, boundaryList and
// sideReach (which shares its room with the two degree arrays of the edge
// bisection).  Returns 0 or 1.
int32_t AllocatePartition(OrderingControl* control, OrderingGraph* graph);
// Frees a coarse level made by CreateCoarseGraph: its arrays, its partition
// block and the record itself.
void FreeCoarseLevel(OrderingControl* control, OrderingGraph* level);

#endif
