// Pieces of the starting point shared by its full and partial routes.
#ifndef HALVEX_IPM_INIT_INTERNAL_H
#define HALVEX_IPM_INIT_INTERNAL_H

#include "ipm/ipm.h"

// Least acceptable slack or dual and its replacement, by model type.
void initFloor(const Ipm* ipm, double* floor, double* refill);
// Uniform shift that lifts the smallest value found into the interior.
double initShift(const Ipm* ipm, double least);
// Shift and interior rule over every dual in force.
void shiftDuals(Ipm* ipm, double least);
// Clears the matrix diagonal and the deltas that never get written, and
// sets the first divisor.
void initFinish(Ipm* ipm);

// The big bounds leave the primal system by losing their flag for a while;
// bringing them back computes their slacks at the new x.
void hideBigBounds(Ipm* ipm, const subModel* sub, bool hide);

// The column block of the primal starting system: the diagonal counts the
// bounds in force and the right side sums them, negated.
void primalColumnBlock(Ipm* ipm);

inline int32_t mapped(const int32_t* map, int32_t k) { return map ? map[k] : k; }

int32_t initPrimalPartial(Ipm* ipm, subModel* sub);
int32_t lpInitDualPartial(Ipm* ipm, subModel* sub);

#endif  // HALVEX_IPM_INIT_INTERNAL_H
