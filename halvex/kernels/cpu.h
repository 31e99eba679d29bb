// What the processor can run, read once when first asked: the one place
// where the module's kernels and sweeps pick their instruction set.
#ifndef HALVEX_KERNELS_CPU_H
#define HALVEX_KERNELS_CPU_H

namespace hxk {

bool avx2Available();    // AVX2 with FMA
bool avx512Available();  // the above and AVX-512F

}  // namespace hxk

#endif
