// The side record of big rows, columns and bounds that the starting point
// leaves out of its least-squares systems.  It copies what it needs from the
// scaled model with its slacks and never touches the model; it lives for the
// whole of one ipmSolve.  The starting point accepts its absence (null).
#ifndef HALVEX_IPM_SUBMODEL_H
#define HALVEX_IPM_SUBMODEL_H

#include <stdint.h>

#include "records/model_records.h"

typedef struct presolver presolver;

struct subModel {
  int32_t numRow;
  int32_t numCol;
  int32_t* rowMapSub;  // null for the identity
  int32_t* colMapSub;  // null for the identity
  double thresholdBig;
  double thresholdBigBound;
  int32_t numObjBigBounded;
  int32_t numObjBigAll;
  int32_t numRhsBigIneqn;
  int32_t numRhsBigAll;
  int32_t numBoundBig;
  int32_t* rhsMapSub;
  int32_t* objMapSub;
  int32_t* idxRowSub;
  int32_t* idxColSub;
  int32_t* idxBoundSub;
  int32_t numCoefColSub;
  int32_t* colBeginSub;
  int32_t* colLengthSub;
  int32_t* rowIndexSub;
  double* matValueSub;
  double* objSub;
  int32_t numCoefRowSub;
  int32_t* rowBeginSub;
  int32_t* rowLengthSub;
  int32_t* colIndexSub;
  double* rowMatValueSub;
  double* rhsSub;
  char* rowSenseSub;
  int32_t* statusBoundSub;  // 1: the lower bound is big, 2: the upper
  double* lowerSub;
  double* upperSub;
};

#define SUB_BIG_LOWER 1
#define SUB_BIG_UPPER 2

// In the maps: left out of the system but kept in the numbering.
#define SUB_LEFT_OUT (-1)

// Thresholds' floors: what counts as big never drops below these, however
// small the matrix entries are.
#define SUB_MIN_THRESHOLD_BIG 10000.0
#define SUB_MIN_THRESHOLD_BIG_BOUND 1000.0

// The three steps run in this order.  NewSubModel returns 0 or -1086 and
// leaves *out null on failure; CreateSubModel returns 0, 10 or -1086, and
// whatever it made before a failure goes with FreeSubModel.
int32_t NewSubModel(HalvexEnv* env, const ipmModel* model, subModel** out);
void ipmMarkBigdata(HalvexEnv* env, const ipmModel* model, subModel* sub,
                    const ipmOption* option);
// The row-wise copy of A that it needs is made into the presolver's row
// arrays, which the presolver frees; with no presolver a copy of its own is
// made and freed here.
int32_t CreateSubModel(HalvexEnv* env, const ipmModel* model, presolver* pre, subModel* sub);
void FreeSubModel(HalvexEnv* env, subModel* sub);

#endif  // HALVEX_IPM_SUBMODEL_H
