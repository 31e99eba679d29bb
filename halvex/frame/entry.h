// The module's exported entries and the operations of its objects.
#ifndef HALVEX_FRAME_ENTRY_H
#define HALVEX_FRAME_ENTRY_H

#include <stdint.h>

#include "frame/instance.h"

#ifdef __cplusplus
extern "C" {
#endif
int32_t qvextent(QVKernel* kernel);
void qvvercn1(HalvexVersionInfo* buffer);
HalvexExtension* halvex(void* notRead, QVPool* parent);
#ifdef __cplusplus
}

int64_t halvex_realDestroy(void* object, void* notRead);
void* halvex_create_instance(void* notRead);
void halvex_destroy_instance(void* instance);
#endif

#endif
