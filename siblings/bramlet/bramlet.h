// bramlet: the LP presolve and scaling sibling.  The module object makes
// instances whose table the solver reads by slot.
#ifndef HALVEX_SIBLINGS_BRAMLET_H
#define HALVEX_SIBLINGS_BRAMLET_H

#include <stdint.h>

#include "frame/qvkernel.h"
#include "records/records.h"

namespace bramlet {

// The instance table, 26 slots.  Slots without an operation of their own stay
// null until the LP presolve and scaling services fill them.
struct Instance {
  void* hostSlot0;
  TextLogFn textLog;          // 1: set by the solver from its env
  MessageLog* messageLog;     // 2: likewise
  void (*destroy)(Instance*); // 3
  void* context;              // 4
  void* problem;              // 5
  void* operation[20];        // 6-25
};
static_assert(sizeof(Instance) == 26 * 8, "bramlet instance is 26 slots");

QVModule* createModule(QVKernel* kernel);

}  // namespace bramlet

#endif
