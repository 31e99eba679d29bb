// Fill-reducing orderings of symmetric graphs: the driver that picks a
// method, the records of the multilevel code, and the minimum-degree family.
//
// Return codes of the ordering code: 0 success, 1 a pool allocation failed,
// 2 a size or consistency bound was exceeded, 3 coarsening stalled (internal,
// never leaves OrderGraph), 5 structurally unfit matrix.
#ifndef HALVEX_ORDERING_ORDERING_H
#define HALVEX_ORDERING_ORDERING_H

#include <stddef.h>
#include <stdint.h>

// The LA environment; its first field is the memory pool (QVPool*).
struct LAEnv;
struct QVPool;

// Method codes, in and out of OrderGraph.
enum {
  ORDER_AUTO = -1,     // input only: choose by rule
  ORDER_MINDEG = 0,    // nd_amd
  ORDER_MINFILL = 1,   // nd_amf
  ORDER_NESTED = 2,    // multilevel nested dissection
  ORDER_NATURAL = 3    // output only: identity order
};

enum {
  ORDERING_OK = 0,
  ORDERING_NOMEM = 1,
  ORDERING_SIZE = 2,
  ORDERING_STALL = 3,
  ORDERING_UNFIT = 5
};

// One graph at one coarsening level.  Both directions of every edge are
// stored, no self loops.
struct OrderingGraph {
  void* graphStorage;       // the one block of this level's vertex arrays
  void* refineStorage;      // the one block of this level's partition arrays
  int32_t numVertex;
  int32_t numEdge;          // adjacency entries, twice the undirected edges
  int32_t* adjBegin;        // numVertex + 1
  int32_t* vertexWeight;    // numVertex
  int32_t* adjIndex;        // numEdge
  int32_t* adjWeight;       // numEdge; null in a component record marks a leaf
  int32_t* adjWeightSum;    // numVertex
  int32_t* origLabel;       // numVertex, a block of its own
  int32_t* coarseMap;       // numVertex
  int32_t separatorWeight;  // -1 while no separator is computed
  int32_t* side;            // numVertex: 0, 1, or 2 for the separator
  int32_t sideWeight[3];
  int32_t numBoundary;
  int32_t* boundaryPos;     // numVertex, -1 when not on the boundary
  int32_t* boundaryList;    // numVertex
  int32_t* internalDegree;  // numVertex
  int32_t* externalDegree;  // numVertex
  int32_t (*sideReach)[2];  // numVertex pairs
  OrderingGraph* coarser;
  OrderingGraph* finer;
};

// Settings and stack workspace of one OrderGraph call, shared by all levels.
struct OrderingControl {
  int32_t numVertex;        // top graph after dense removal
  int32_t coarsenTo;
  int32_t maxVertexWeight;
  int32_t numSeparator;     // entries in separatorList
  int32_t seed;             // advanced only through qvRand
  int32_t separatorsLast;
  double balanceRatio;
  double denseFactor;
  int32_t blockMode;
  int32_t numSeparatorBlock;
  int32_t numLeafBlock;
  int32_t* blockLabel;      // numVertex, written only in blockMode
  int32_t* workInts;
  int64_t workIntsSize;
  int64_t workTop;
  void* workBase;           // the block holding edgeScratch and workInts
  int32_t* edgeScratch;     // at least numEdge of the top graph
  int32_t* vertexScratch;   // 3 numVertex stretches and one entry
  int32_t* separatorList;
  LAEnv* env;
};

// ---- driver --------------------------------------------------------------------

// LAEnv is laid out by the LA library with the pool as its first field; the
// ordering code needs nothing else from it.
inline QVPool* envPool(LAEnv* env) { return *reinterpret_cast<QVPool**>(env); }

// Orders the graph (adjBegin, adjIndex) of n vertices: both directions of
// every edge, no diagonal, no repeats; anything else is refused with 2.
// Returns ORDERING_OK, ORDERING_NOMEM or ORDERING_SIZE; a stalled
// coarsening falls back to minimum fill inside.  Nothing is kept.
//   env             [in]  only its pool, the first field, is used
//   numVertex       [in]  n, 0 or more
//   adjBegin        [in,out] n+1 list starts; consumed: the copy of a graph
//                   that is still needed is the caller's to make
//   adjIndex        [in,out] adjCapacity entries, the first adjBegin[n] the
//                   neighbours; consumed
//   adjCapacity     [in]  at least adjBegin[n], and adjBegin[n] + n on the
//                   minimum-degree routes, which use the rest as elbow room
//   orderClass      [in]  steers the automatic choice, dense rule and score
//   inputWeights    [in]  n pivot markers (-2 single, -1 pair; weight is the
//                   marker + 3) or null; read on the nested dissection path
//   denseRule       [in]  1 from the LDL analysis, 0 from Cholesky
//   perm            [out] n: position to vertex
//   invPerm         [out] n: vertex to position
//   numDense        [out] vertices set aside as dense; written on the nested
//                   dissection path only, may be null
//   methodInOut     [in,out] ORDER_AUTO, _MINDEG or _MINFILL, anything else
//                   meaning _NESTED; out the method used, _NATURAL included
//   separatorsLast  [in]  1 moves all separators behind the leaves
//   blockMode       [in]  1: nested dissection labels instead of ordering
//   blockLabel      [out] n labels in blockMode; unused otherwise
//   seed            [in]  0 means 4321
//   workspace       [workspace] 7n+1 ints
//   balanceRatio    [in]  0.0 means by the average degree
//   denseFactor     [in]  -1.0 means 50.0
int32_t OrderGraph(LAEnv* env, int32_t numVertex, int32_t* adjBegin, int32_t* adjIndex,
                   int32_t adjCapacity, int32_t orderClass, const int32_t* inputWeights,
                   int32_t denseRule, int32_t* perm, int32_t* invPerm, int32_t* numDense,
                   int32_t* methodInOut, int32_t separatorsLast, int32_t blockMode,
                   int32_t* blockLabel, int32_t seed, int32_t* workspace, double balanceRatio,
                   double denseFactor);

// The automatic choice of method (step 4 of the driver), exposed for tests
// and for the analysis' own reporting.  wanted is the caller's method code.
int32_t OrderChooseMethod(int32_t wanted, int32_t orderClass, int32_t denseRule, int32_t n,
                          double avg);

// Builds the top graph without its dense vertices.  workspace receives the
// kept list at 0..n (dense vertices from the end) and the map at n..2n.
int32_t RemoveDenseVertices(double denseFactor, OrderingGraph* graph, int32_t n,
                            int32_t* adjBegin, int32_t* adjIndex, int32_t* workspace,
                            const int32_t* inputWeights, QVPool* pool);

int32_t AllocateWorkSpace(OrderingControl* control, OrderingGraph* graph);
void InitGraph(OrderingGraph* graph);
// Stack allocation from the control's workspace; frees in reverse order.
int32_t* poolmalloc(OrderingControl* control, int64_t count);
void poolfree(OrderingControl* control, int64_t count);

// Connected components of the graph without its boundary vertices.  mark
// holds numVertex entries, begin numVertex+1, list numVertex.
int32_t FindComponents(const OrderingGraph* graph, int32_t* mark, int32_t* begin,
                       int32_t* list);

// Groups vertices with identical closed neighbourhoods.  Returns 0 with a
// compressed graph in out (its arrays in out->graphStorage), 1 when it does
// not pay (out refers to the input) or on allocation failure.  groupBegin
// holds n+1, groupList n, mark n ints.
int32_t CompressGraph(int32_t n, int32_t* adjBegin, int32_t* adjIndex, OrderingGraph* out,
                      int32_t* groupBegin, int32_t* groupList, int32_t* mark, QVPool* pool);

// Multilevel nested dissection of the top graph; writes the order in the kept
// numbering to invPerm, or labels in blockMode.
int32_t NestedDissection(OrderingControl* control, OrderingGraph* graph, int32_t* invPerm,
                         int32_t numVertex);

// ---- minimum-degree family -----------------------------------------------------
// All storage belongs to the caller; none of them allocates.  workCapacity
// must be at least workFree + n.  On return nextInList maps vertex to
// position and prevInList position to vertex.

void nd_camf(int32_t n, int32_t* elementPtr, int32_t* workIndex, int32_t* listLength,
             int32_t workCapacity, int32_t workFree, const int32_t* constraintLabel,
             int32_t* superSize, int32_t* nextInList, int32_t* prevInList, int32_t* bucketHead,
             int32_t* elementLength, int32_t* degree, int32_t* stamp, int32_t* score,
             int32_t* labelOrder, int32_t orderClass);

void nd_amf(int32_t n, int32_t* elementPtr, int32_t* workIndex, int32_t* listLength,
            int32_t workCapacity, int32_t workFree, int32_t* superSize, int32_t* nextInList,
            int32_t* prevInList, int32_t* bucketHead, int32_t* elementLength, int32_t* degree,
            int32_t* stamp, int32_t* score, int32_t denseRule, int32_t orderClass,
            int32_t fallback);

// bucketHead has n entries here.
void nd_amd(int32_t n, int32_t* elementPtr, int32_t* workIndex, int32_t* listLength,
            int32_t workCapacity, int32_t workFree, int32_t* superSize, int32_t* nextInList,
            int32_t* prevInList, int32_t* bucketHead, int32_t* elementLength, int32_t* degree,
            int32_t* stamp, int32_t denseRule, int32_t orderClass, int32_t fallback);

// Post-orders the assembly tree given by parent over the elements (superSize
// > 0).  With label nonzero, a parent of another labelMember does not adopt.
void nd_postorder(int32_t n, const int32_t* parent, const int32_t* superSize,
                  const int32_t* frontSize, int32_t* order, int32_t* child, int32_t* sibling,
                  int32_t* stack, const int32_t* labelMember, int32_t label);
int32_t nd_post_tree(int32_t root, int32_t k, int32_t* child, const int32_t* sibling,
                     int32_t* order, int32_t* stack);

// Multiple minimum degree for small leaf graphs (n >= 2).  work holds 7n-2
// ints; order[origLabel[i]] = lastPosition - n - 1 + (1-based position of i).
void MMDOrder(OrderingGraph* graph, int32_t* order, int32_t lastPosition, int32_t* work);
// The arrays are stored from their first entry, but every number in them is
// 1-based: list starts in adjBegin (n+1), vertices in adjIndex, positions in
// invp (vertex to position) and perm (position to vertex).  head holds 2n-2
// ints, size, list and marker n each.  adjIndex is consumed.
void mmd(int32_t n, int32_t* adjBegin, int32_t* adjIndex, int32_t* invp, int32_t* perm,
         int32_t delta, int32_t* head, int32_t* size, int32_t* list, int32_t* marker,
         int32_t maxint);

// ---- static permutations by matching ---------------------------------------------
// The matrix comes column-compressed with both triangles.  On success perm0
// lists the vertices with each pair's two members next to each other, and
// pivots marks each position -2 (single) or -1 (member of a pair).  Results:
// ORDERING_OK; ORDERING_UNFIT for an empty column, a column of zeros, a row
// without a finite cost, or no perfect matching under requirePerfect;
// ORDERING_SIZE for inconsistent sizes; ORDERING_NOMEM when the heap of the
// augmenting search is refused.  intWork: 5n ints; dblWork: colBegin[n] + 2n
// doubles.  value is read, nothing else of the caller's is kept.

// A maximum-product transversal of the whole matrix, its cycles split into
// pairs and singles.
int32_t FindStaticPermGen(QVPool* pool, int32_t n, const int32_t* colBegin,
                          const int32_t* rowIndex, const double* value, int32_t requirePerfect,
                          int32_t* perm0, int32_t* numSingle, int32_t* numPair, int32_t* pivots,
                          int32_t* intWork, double* dblWork);
// For [A B'; B C] with blocks of n1 and n2 vertices: every vertex of the
// smaller block is paired with one of the other through B; the rest of the
// larger block stays single.  n1 + n2 must be n.
int32_t FindStaticPermAug(QVPool* pool, int32_t n, int32_t n1, int32_t n2,
                          const int32_t* colBegin, const int32_t* rowIndex, const double* value,
                          int32_t requirePerfect, int32_t* perm0, int32_t* numSingle,
                          int32_t* numPair, int32_t* pivots, int32_t* intWork, double* dblWork);
// A cheap matching on the tight entries of the costs reduced by their row
// and column minima (cost is reduced in place; matched entries end at 0).
// nRows >= nCols.  rowMin: nRows doubles; listHead: nCols ints.  Returns
// ORDERING_OK or ORDERING_UNFIT (a row without a finite cost).
int32_t FindInitialMatching(int32_t nRows, int32_t nCols, const int32_t* colBegin,
                            const int32_t* rowIndex, double* cost, double* rowMin,
                            int32_t* colMatch, int32_t* rowMatch, int32_t* matched,
                            int32_t* listHead);
// Completes a matching by shortest augmenting paths on the reduced costs.
// Without requirePerfect, columns left without a path take the lowest free
// rows so that colMatch is complete; *matched keeps the true count.
// intWork: nCols + 2 nRows ints; dist: nRows doubles.
int32_t FindColPerfectMatching(QVPool* pool, int32_t nRows, int32_t nCols,
                               const int32_t* colBegin, const int32_t* rowIndex,
                               int32_t requirePerfect, const double* cost, int32_t* colMatch,
                               int32_t* rowMatch, int32_t* matched, int32_t* intWork,
                               double* dist);

#endif
