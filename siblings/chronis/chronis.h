// chronis: the CPU-time sibling.  One module object per load carries the
// three operations (close, sample, CPU difference); it has no instances.
#ifndef HALVEX_SIBLINGS_CHRONIS_H
#define HALVEX_SIBLINGS_CHRONIS_H

#include "frame/qvkernel.h"

namespace chronis {

// Makes a fresh module object, laid out as ChronisModule from slot 0 on and
// as a QVModule up to slot 10; null when memory runs out.  Its close
// operation (slot 2) frees it.
QVModule* createModule(QVKernel* kernel);

}  // namespace chronis

#endif
