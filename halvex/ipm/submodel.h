// The side record of big rows, columns and bounds that the starting point
// leaves out of its least-squares systems.  Only the layout lives here so far;
// the starting point reads it, and accepts its absence (null).
#ifndef HALVEX_IPM_SUBMODEL_H
#define HALVEX_IPM_SUBMODEL_H

#include <stdint.h>

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

#endif  // HALVEX_IPM_SUBMODEL_H
