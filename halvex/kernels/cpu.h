// What the processor can run, read once when first asked: the one place
// where the module's kernels and sweeps pick their instruction set.
#ifndef HALVEX_KERNELS_CPU_H
#define HALVEX_KERNELS_CPU_H

// The target of the AVX2 copies that target_clones makes.  It must name an
// instruction-set level: an "arch=" processor name is picked only on that
// very processor model, so every other processor with AVX2 would run the
// plain copy.  A build may name another level, e.g. to measure the plain
// copies on a processor that has AVX2 ("arch=haswell" does that on any
// other model).
#ifndef HXK_CLONE_AVX2
#define HXK_CLONE_AVX2 "arch=x86-64-v3"
#endif

namespace hxk {

bool avx2Available();    // AVX2 with FMA
bool avx512Available();  // the above and AVX-512F
// Which copy the clones of HXK_CLONE_AVX2 run on this processor: 2 for the
// AVX2 one, 0 for the plain one.
int cloneLevel();

}  // namespace hxk

#endif
