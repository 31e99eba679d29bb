// Multilevel nested dissection is not in the module yet.  Reporting a stall
// sends the driver down its minimum-fill route, which orders the graph that
// dense removal left and reports ORDER_MINFILL as the method used.
#include "ordering/ordering.h"

int32_t NestedDissection(OrderingControl* control, OrderingGraph* graph, int32_t* invPerm,
                         int32_t numVertex) {
  (void)control;
  (void)graph;
  (void)invPerm;
  (void)numVertex;
  return ORDERING_STALL;
}
