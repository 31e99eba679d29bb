// The one-row separable QP of the instance:
//   minimise sum 1/2 q_i x_i^2 + c_i x_i  s.t.  sum x_i = b,  bounds by flags,
// solved by a short path-following scheme whose Newton systems are closed
// form.  All work arrays come from the caller's ReconRecord.
#ifndef HALVEX_RECORDS_RECON_H
#define HALVEX_RECORDS_RECON_H

#include <stdint.h>

#include "records/host_records.h"

// Return codes of qpReconQP.
#define RECON_SOLVED 0
#define RECON_INFEASIBLE 1
#define RECON_ITERATION_LIMIT 4
#define RECON_BAD_DIAGONAL 5

// 0 solved, 1 infeasible bounds or sum (also a malformed record),
// 4 iteration limit, 5 a negative or unusable diagonal entry.
int32_t qpReconQP(ReconRecord* record);

// Raises every slack and dual whose bound exists (by flags) to at least floor.
void qpPositiveness(double floor, int32_t n, const uint8_t* flags, double* lowerSlack,
                    double* upperSlack, double* lowerDual, double* upperDual);

#endif  // HALVEX_RECORDS_RECON_H
