// The random numbers of the checks: a multiplicative congruential generator
// on 2^31 - 1.  Each check seeds its own stream with a constant, so a failing
// check draws the same vectors when it is run again.
#ifndef HALVEX_UTIL_RANDOM_H
#define HALVEX_UTIL_RANDOM_H

#include <stdint.h>

// Advances the caller's seed and returns a number strictly between 0 and 1.
double zranuni(int64_t* seed);

#endif  // HALVEX_UTIL_RANDOM_H
