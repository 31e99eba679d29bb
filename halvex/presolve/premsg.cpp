// The presolve summary of a QP solve.
#include "presolve/internal.h"

#define MSG_PRESOLVE_OFF 0x827FD868
#define MSG_PRESOLVE_UNKNOWN_VALUE 0x827FD86D
#define MSG_PRESOLVE_ON 0x827FD869
#define MSG_PRESOLVE_REMOVED 0x827FD86E
#define MSG_PRESOLVE_REMOVED_ELEMENTS 0x827FD86F
#define MSG_PRESOLVE_DONE 0x827FD864

void printPreMsgQP(HalvexEnv* env, ipmModel* model, ipmOption* option, presolver* pre) {
  if (model->typeModel != IPM_MODEL_QP || option->printLevel == 0) return;
  // A QP knows one presolve only: every setting but 0 runs it.
  switch (option->presolver) {
    case 0:
      PRE_MSG(env, MSG_INFO, MSG_PRESOLVE_OFF);
      break;
    case 1:
      PRE_TEXT(env, "%3zThe PRESOLVER value BASIC (1) is mapped to value AUTOMATIC.");
      break;
    case 2:
      PRE_TEXT(env, "%3zThe PRESOLVER value MODERATE (2) is mapped to value AUTOMATIC.");
      break;
    case 3:
      PRE_TEXT(env, "%3zThe PRESOLVER value AGGRESSIVE (3) is mapped to value AUTOMATIC.");
      break;
    case -1:
      break;
    default:
      PRE_MSG(env, MSG_ERROR, MSG_PRESOLVE_UNKNOWN_VALUE, option->presolver);
      break;
  }
  if (option->presolver != 0) {
    PRE_MSG(env, MSG_INFO, MSG_PRESOLVE_ON);
    PRE_MSG(env, MSG_INFO, MSG_PRESOLVE_REMOVED, pre->numRemovedCol, pre->numRemovedRow);
    PRE_MSG(env, MSG_INFO, MSG_PRESOLVE_REMOVED_ELEMENTS, pre->numRemovedElement);
  }
  PRE_MSG(env, MSG_INFO, MSG_PRESOLVE_DONE);
}
