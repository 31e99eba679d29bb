// What the LP driver and the crossover sibling fennick agree on: the slots of
// fennick's instance, the positions of bramlet's parameter block that fennick
// reads, and the basis that fennick leaves behind.  One place, so that the
// module and the sibling cannot drift apart.
#ifndef HALVEX_RECORDS_FENNICK_ABI_H
#define HALVEX_RECORDS_FENNICK_ABI_H

#include <stdint.h>

// Slots of the fennick instance, a table of 8-byte slots.
#define FENNICK_SLOT_TEXTLOG 1
#define FENNICK_SLOT_MESSAGELOG 3
#define FENNICK_SLOT_DESTROY 4
#define FENNICK_SLOT_RUN 19
#define FENNICK_INSTANCE_SLOTS 24

// Byte positions in bramlet's parameter block (the context's first slot)
// written by the driver before the run and read by fennick.
#define FENNICK_PARAM_START 844          // 2: from the interior point, 1: cold start
#define FENNICK_PARAM_ITERATION_LIMIT 876
#define FENNICK_PARAM_PRICING 960         // -1: automatic
#define FENNICK_PARAM_METHOD 968          // 3: primal simplex cleanup
#define FENNICK_PARAM_INTERIOR_STATUS 1008
// Byte position in the context's second block: seconds left for the run.
#define FENNICK_LIMIT_MAXTIME 1760

// The basis.  A caller that wants it puts a reference to numCol + numRow
// bytes in this sibling word of its LPRecord: columns first, then rows.
// bramlet hands the word on through presolve and maps the basis back in
// postsolve.  A row's status is that of its activity: at lower means the
// activity sits at the row's lower end.
#define LPRECORD_BASIS_WORD 1
#define BASIS_NONE 0  // no basis was made (crossover did not finish)
#define BASIS_BASIC 1
#define BASIS_AT_LOWER 2
#define BASIS_AT_UPPER 3
#define BASIS_FREE_ZERO 4
#define BASIS_FIXED 5

// Counters of the last run, in the sibling word after the basis: a reference
// to a FennickStats that the caller owns, or 0.
#define LPRECORD_CROSSOVER_STATS_WORD 2
typedef struct FennickStats {
  int32_t pushIterations;     // superbasic columns moved to a bound or into the basis
  int32_t simplexIterations;  // primal simplex pivots and bound flips after the push
  double seconds;             // wall time of the run
  int32_t numBasic, numAtLower, numAtUpper, numFreeZero, numFixed;
} FennickStats;

#endif  // HALVEX_RECORDS_FENNICK_ABI_H
