// Inside the factorisation library: the analysis and factor records, the
// symbolic steps and the helpers that the numeric phases share with them.
#ifndef HALVEX_LA_LA_INTERNAL_H
#define HALVEX_LA_LA_INTERNAL_H

#include <stddef.h>
#include <stdint.h>

#include "frame/qv.h"
#include "la/la.h"
#include "ordering/ordering.h"

// Solved panels of the threaded path.
struct LASlotPool {
  int32_t* inUse;     // numSlots, 1 when taken
  int32_t* refCount;  // numSlots, tasks that still read the slot
  double* data;       // blockSize * blockSize doubles per slot
};

struct LASymbolic {
  int32_t n;
  int32_t numSNodes;
  int32_t kind;              // 1 LDL, 0 Cholesky
  int32_t threaded;
  int32_t blockSize;         // 0 on the sequential path
  int32_t threadsUsed;
  int64_t numRowEntries;     // length of rowList
  int64_t numFactorEntries;  // length of factor
  int32_t maxSNodeCols;
  int32_t updateBufferSize;  // doubles per thread
  int32_t panelBufferSize;   // doubles per thread
  int32_t cholParam;
  int32_t numPerturbed;
  double pivotTol;
  double estFactorEntries;
  double estOperations;
  int32_t numBlocks;
  int32_t numLeaves;
  int32_t* leaves;
  int32_t** blockDepsInit;   // per supernode; the flat array hangs on entry 0
  int32_t** blockDeps;
  int32_t numSlots;
  LASlotPool* slotPool;
  QVLock*** blockLocks;
  int32_t nextLeaf;
  int32_t taskCapacity;
  void* cholInfo;
  int32_t* perm;             // analysis position -> caller's index
  int32_t* invPerm;          // caller's index -> analysis position
  int32_t* snodeParent;
  int32_t* snodeStart;       // numSNodes + 1
  int32_t* colToSNode;
  int32_t* pivots;           // null on the Cholesky path
  int64_t* rowBegin;         // numSNodes + 1
  int32_t* rowList;
  int64_t* factorBegin;      // numSNodes + 1
  double* factor;
  void* work;
  // Narrow diagonal blocks with interchanges or 2x2 pivots, rewritten by
  // each factor step so that the solves take a block's interchanges at once
  // and its unit triangle four columns at a time (laBuildDiagCopies).  Kept
  // apart from the factor, whose own form the other readers expect.  Null
  // where a record never had them (the Cholesky path): the solves then take
  // the interchanges pivot by pivot.
  int64_t* diagCopyBegin;    // numSNodes + 1; an empty range: no copy
  double* diagCopy;
  int32_t* diagCopyPairs;    // n; per supernode with a copy, the number of its
                             // 2x2 pivots and then their first columns; -1 at
                             // its first position: no copy
  // Where some copy interchanges, the solves keep each such block in its
  // interchanged order from the first sweep to the end of the second: the
  // row lists and the permutations below then point at those places, so
  // that no sweep moves an entry.  solveMoved says whether they are in use.
  int32_t solveMoved;
  int32_t* solveRowList;     // rowList with every position mapped
  int32_t* solvePos;         // n; solve place -> analysis position
  int32_t* solvePerm;        // n; perm through solvePos
  int32_t* solveInvPerm;     // n; its inverse
};

static_assert(offsetof(LASymbolic, numRowEntries) == 24, "LASymbolic layout");
static_assert(offsetof(LASymbolic, pivotTol) == 64, "LASymbolic layout");
static_assert(offsetof(LASymbolic, leaves) == 96, "LASymbolic layout");
static_assert(offsetof(LASymbolic, perm) == 160, "LASymbolic layout");
static_assert(offsetof(LASymbolic, work) == 240, "LASymbolic layout");

struct LANumeric {
  LAMatrix lowerCopy;    // lower triangle with diagonal, in analysis order
  void* block;           // the analysis block
  void* block2;          // its second section
  void* scratch;         // integer and float scratch at the end of section one
  uint64_t block1Size;
  uint64_t block2Size;
  int32_t panelWidth;    // 96 sequential, blockSize threaded
  void* packBuffers;     // LA_PACK_BUFFER_BYTES per thread
  double* panelBuffers;  // panelWidth * 96 doubles per thread
};

// Limits and fixed sizes.
#define LA_SIZE_LIMIT 1.8446744073709552e+19
#define LA_PACK_BUFFER_BYTES 0x12000
#define LA_SEQ_PANEL_WIDTH 96
#define LA_PIVOT_SINGLE (-2)
#define LA_PIVOT_PAIR (-1)

// ---- block geometry of the threaded path --------------------------------------
// Shared by the analysis (table sizes, dependency counts) and the scheduler.

inline int32_t laSNodeCols(const LASymbolic* sym, int32_t s) {
  return sym->snodeStart[s + 1] - sym->snodeStart[s];
}
inline int32_t laSNodeRows(const LASymbolic* sym, int32_t s) {
  return (int32_t)(sym->rowBegin[s + 1] - sym->rowBegin[s]);
}
// Row-block height of a narrow supernode of c columns.
inline int32_t laNarrowHeight(int32_t nb, int32_t c) {
  return (int32_t)(((int64_t)nb * nb / c + 15) & ~(int64_t)15);
}
struct LABlockShape {
  int32_t wide;   // more columns than the block size
  int32_t h;      // row-block height
  int32_t w;      // column-block width
  int32_t nrb;    // row blocks
  int32_t ncb;    // column blocks
};
inline LABlockShape laBlockShape(const LASymbolic* sym, int32_t s) {
  LABlockShape b;
  int32_t nb = sym->blockSize, c = laSNodeCols(sym, s), r = laSNodeRows(sym, s);
  b.wide = c > nb;
  b.h = b.wide ? nb : laNarrowHeight(nb, c);
  b.w = b.wide ? nb : c;
  b.nrb = (r - 1) / b.h + 1;
  b.ncb = (c - 1) / b.w + 1;
  return b;
}

// ---- pool helpers ----------------------------------------------------------------

inline int64_t align16Down(int64_t bytes) { return bytes & ~(int64_t)15; }
inline int64_t align16Up(int64_t bytes) { return (bytes + 15) & ~(int64_t)15; }

// A pool block of at least one slot, so that an empty array is not taken
// for a refusal.
inline void* laAlloc(QVPool* pool, int64_t bytes, uint32_t flags = 0) {
  return poolAlloc(pool, bytes > 16 ? bytes : 16, flags);
}
inline void laFree(QVPool* pool, void* block) {
  if (block) poolFree(pool, block);
}

// ---- analysis driver ----------------------------------------------------------

int32_t InitMemoryAndStructsLDL(LAEnv* env, int32_t n, int32_t nnz, LASymbolic** symbolic,
                                LANumeric** numeric);
// Permutes by perm0 and, with pairs, compresses each pair of neighbouring
// positions into one vertex.  The output has no diagonal and names each
// neighbour once, however often the input repeats an entry.  work: 3n.
int32_t PermuteCompressMatrix(int32_t n, const int32_t* colBegin, const int32_t* rowIndex,
                              int32_t* pivots, const int32_t* perm0, const int32_t* invPerm0,
                              int32_t numCompressed, int32_t* outBegin, int32_t* outIndex,
                              int32_t* work);
// LA_AnalyzeMatrixLDL, or with forcedThreads and forcedBlockSize both above
// 0 a threaded plan of that team and block edge whatever the estimate says:
// small matrices then exercise the blocking of large ones.
int32_t laAnalyzeWithPlan(int32_t n, const int32_t* colBegin, const int32_t* rowIndex,
                          const double* value, LAEnv* env, LASymbolic** symbolic,
                          LANumeric** numeric, int32_t forcedThreads, int32_t forcedBlockSize);
// Begins monotone from 0 and every row inside the matrix.
bool laPatternIsWellFormed(int32_t n, const int32_t* colBegin, const int32_t* rowIndex);
// As many entries above the diagonal as below it.
bool laHalvesMatch(int32_t n, const int32_t* colBegin, const int32_t* rowIndex);
// Re-orders a nested-dissection result inside its blocks with nd_camf.  The
// graph (cBegin, cIndex, capacity entries) is the one that was ordered, in
// the ordered numbering; sym->perm and invPerm hold the order, numDense
// vertices at its end.  tmp: nc entries.
int32_t laConstrainedReorder(LAEnv* env, int32_t nc, int32_t numDense, int32_t* cBegin,
                             int32_t* cIndex, int32_t capacity, const int32_t* blockLabel,
                             LASymbolic* sym, int32_t* tmp);
// Gives every block of a plan, LDL or Cholesky, back to the pool; either
// record may be null or partly built.
void laReleasePlan(QVPool* pool, LASymbolic* sym, LANumeric* num);
// Task capacity of the threaded scheduler from the leaf count.
int32_t ChooseTaskCapacity(int32_t numLeaves, int32_t numSNodes);

// ---- the Cholesky path ---------------------------------------------------------

int32_t InitMemoryAndStructsCholesky(LAEnv* env, int32_t n, int32_t nnz, LASymbolic** symbolic,
                                     LANumeric** numeric);
// Largest column sum of magnitudes of the symmetric matrix whose one
// triangle is stored.  dblWork: n doubles.
double Get1NormOfLowerTriangMatrix(int32_t n, const int32_t* colBegin, const int32_t* rowIndex,
                                   const double* value, double* dblWork);
// Largest column sum of magnitudes of a matrix stored in full.
double Get1NormOfMatrix(int32_t n, const int32_t* colBegin, const double* value);
// The diagonal of the factor in the sequential storage, in analysis order.
void GetLFactorDiagonalChol(const LASymbolic* sym, double* diagonal);

// ---- symbolic steps -------------------------------------------------------------

// On entry numCoef of each target holds its capacity in row slots; on return
// its count.  which 0 fills the upper pattern only.
int32_t PermuteSymMatrixPattern(int32_t n, const int32_t* colBegin, const int32_t* rowIndex,
                                int32_t which, LAMatrix* upper, LAMatrix* lower,
                                const int32_t* perm, const int32_t* invPerm);
int32_t PermuteSymMatrixLower(int32_t n, const int32_t* colBegin, const int32_t* rowIndex,
                              const double* value, LAMatrix* target, const int32_t* perm,
                              const int32_t* invPerm);
int32_t PruneMatrixWithPerm(int32_t n, int32_t m, int32_t* colBegin, int32_t* rowIndex,
                            const int32_t* invPerm);
void RemoveDiagonals(int32_t n, const int32_t* colBegin, const int32_t* rowIndex,
                     int32_t* outBegin, int32_t* outIndex);
// work: n entries.
void BuildETree(const LAMatrix* upper, int32_t* parent, int32_t* work);
// Writes the postorder of the forest to post; returns the count written.
int32_t DFS(const int32_t* roots, int32_t numRoots, int32_t* firstChild, const int32_t* sibling,
            int32_t* post, int32_t* stack);
// Renumbers perm, invPerm, parent and pivots (if any) by a postorder of the
// tree.  work: 5n entries.
void PostOrder(int32_t n, int32_t* parent, LASymbolic* sym, int32_t* work);
// work: 4n entries.
void FindColCounts(const LAMatrix* lower, const int32_t* parent, int32_t* colCounts,
                   double* factorEntries, double* operations, int32_t* work);
void ChooseSequentialOrThreaded(LASymbolic* sym, int32_t threads, int32_t isLDL);
// work: 5n + 1 entries.
int32_t SupernodalAnalysis(LAEnv* env, int32_t n, const LAMatrix* upper, int32_t orderClass,
                           int32_t sequential, int32_t* parent, int32_t* colCounts,
                           LASymbolic* sym, LANumeric* num, int32_t* work);
int32_t FindFundamentalSupernodes(int32_t n, const int32_t* parent, const int32_t* colCounts,
                                  int32_t* snodeStart, int32_t* snodeParent,
                                  int32_t* colToSNode, int32_t* rowsPerSNode);
// work: 3 numSNodes entries.
void FindRelaxedSupernodes(const int32_t* parent, const int32_t* pivots, LASymbolic* sym,
                           int32_t* rows, int32_t* work);
// Tree amalgamation of the threaded LDL path.  work: 3 numSNodes + 1.
void AmalgamateSupernodes(const int32_t* parent, LASymbolic* sym, int32_t* rows,
                          int32_t* work);
// marker: 2 numSNodes entries.  Returns 2 when a row list does not come out
// at its planned length.
int32_t FindLSupernodalStructure(const LAMatrix* upper, LASymbolic* sym, int32_t* marker);
int32_t FindBlockSizes(QVPool* pool, LASymbolic* sym, int32_t* work);
// Returns 2 when the update walk meets a row that its target does not hold.
int32_t FindBlockDependencyCounts(LASymbolic* sym, LANumeric* num);
void GetLeaves(LASymbolic* sym, LANumeric* num);

// One update walk of the threaded path, counted instead of applied: the
// update of source rows colRange x rowRange (positions in rowList, both
// ascending) is cut by target column block; within it, every target row
// block that holds at least one row of rowRange is one event, on entry
// (I, J) of a wide target or of a narrow one with a single row block, and on
// entry 0 of a narrow target with several.  ApplyUpdatesBig/Small must
// decrement exactly the entries counted here.
int32_t CountUpdateWalk(const LASymbolic* sym, int64_t colBeg, int64_t colEnd, int64_t rowBeg,
                        int64_t rowEnd, int32_t add);

#endif
