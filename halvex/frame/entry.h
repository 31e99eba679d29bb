// The module's exported entries and the operations of its objects.
#ifndef HALVEX_FRAME_ENTRY_H
#define HALVEX_FRAME_ENTRY_H

#include <stdint.h>

#include "frame/instance.h"

extern "C" {
int32_t qvextent(QVKernel* kernel);
void qvvercn1(HalvexVersionInfo* buffer);
HalvexExtension* halvex(void* notRead, QVPool* parent);
}

int64_t halvex_realDestroy(void* object, void* notRead);
void* halvex_create_instance(void* notRead);
void halvex_destroy_instance(void* instance);

#endif
