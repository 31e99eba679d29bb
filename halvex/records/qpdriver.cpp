#include "records/qpdriver.h"

#include "frame/instance.h"

// The interior-point pipeline behind this entry has not landed yet.  Until it
// does, the entry answers every call with the failure code and says why,
// rather than leaving the instance slot empty for a host to jump through.
int32_t ipqpmain(HalvexEnv* env, QPRecord* record, ScripterOptions*) {
  if (record) {
    record->timeZero = 0.0;
    record->solverTime = 0.0;
  }
  if (env && env->textLog) env->textLog("%1zThe QP solver is not available in this build of halvex.\n");
  return QP_RETURN_FAILURE;
}

int32_t ipqpScripter(void* instance, QPRecord* record) {
  HalvexInstance* self = static_cast<HalvexInstance*>(instance);
  return ipqpmain(&self->env, record, &self->scripter);
}
