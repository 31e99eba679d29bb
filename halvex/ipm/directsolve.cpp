// A model whose columns are all free and whose rows are all equations has no
// complementary pair: the iteration would have nothing to drive to zero.  Its
// optimality conditions
//     Q x - A' y = -c,   -A x = -b
// are one symmetric system, the augmented matrix with zero diagonals, so it
// is solved once and the point measured as the loop would have measured it.
#include "ipm/directsolve.h"

#include <math.h>

#include "frame/qv.h"
#include "ipm/ipm.h"
#include "presolve/eqnsolve.h"
#include "util/sparse.h"

namespace {

template <typename T>
T* specArray(QVPool* pool, int64_t count, bool zero) {
  return poolNew<T>(pool, count > 0 ? count : 1, zero);
}

double norm2(int32_t n, const double* v) {
  double s = 0.0;
  for (int32_t k = 0; k < n; k++) s += v[k] * v[k];
  return sqrt(s);
}

double dot(int32_t n, const double* a, const double* b) {
  double s = 0.0;
  for (int32_t k = 0; k < n; k++) s += a[k] * b[k];
  return s;
}

struct SpecArrays {
  int32_t* begin = nullptr;
  int32_t* index = nullptr;
  double* value = nullptr;
  int32_t* colDiag = nullptr;
  int32_t* rowDiag = nullptr;
  double* vector = nullptr;

  void release(QVPool* pool) {
    poolRelease(pool, begin);
    poolRelease(pool, index);
    poolRelease(pool, value);
    poolRelease(pool, colDiag);
    poolRelease(pool, rowDiag);
    poolRelease(pool, vector);
  }
};

// Writes the measures into the model and returns the verdict.
int32_t measure(HalvexEnv* env, ipmModel* model, const ipmOption* option, const double* x,
                const double* y, double* work) {
  const int32_t numRow = model->numRow, numCol = model->numCol;
  const bool qp = model->typeModel == IPM_MODEL_QP;
  // The caller's activity and reduced-cost arrays when it has them; the
  // measures are needed either way.
  double* reducedCost = model->reducedCost ? model->reducedCost : work;
  double* rowActivity = model->rowActivity ? model->rowActivity : work + numCol;
  matrixTimesVector(numRow, numCol, model->colBegin, model->colLength, model->rowIndex,
                    model->matValue, x, rowActivity);
  vectorTimesMatrix(numCol, model->colBegin, model->colLength, model->rowIndex, model->matValue,
                    y, reducedCost);
  for (int32_t j = 0; j < numCol; j++) reducedCost[j] = model->obj[j] - reducedCost[j];

  double objPrimal = dot(numCol, model->obj, x);
  double objDual = dot(numRow, model->rhs, y);
  if (qp) {
    const double* diag = model->quadDiag ? model->quadDiag : work + numCol + numRow;
    const int32_t* qBegin = model->numQuadCoef > 0 ? model->quadColBegin : nullptr;
    const int32_t* qLength = model->numQuadCoef > 0 ? model->quadColLength : nullptr;
    symmatrixTimesVector(numCol, qBegin, qLength, model->quadRowIndex, model->quadMatValue, diag,
                         x, reducedCost, 1.0);
    const double q =
        calcQuadForm(numCol, qBegin, qLength, model->quadRowIndex, model->quadMatValue, diag, x);
    objPrimal += q;
    objDual -= q;
  }
  model->objValue = (model->objConstant + objPrimal) * model->objSense;

  // The residual goes through the work area's row part, which is free once
  // the activity has been taken.
  double* residual = work + numCol;
  for (int32_t i = 0; i < numRow; i++) residual[i] = rowActivity[i] - model->rhs[i];
  model->primalInfeas = norm2(numRow, residual) / (norm2(numRow, model->rhs) + 1.0);
  model->dualInfeas = norm2(numCol, reducedCost) / (norm2(numCol, model->obj) + 1.0);
  model->boundInfeas = 0.0;
  model->complementarity = 0.0;
  model->dualityGap = fabs(objPrimal - objDual) / (fabs(objPrimal) + 1.0);
  model->iteration = 0;

  const int32_t status = getSolutionStatus(option->primalTol, option->dualTol, option->gapTol,
                                           option->gapTol, model->primalInfeas, 0.0,
                                           model->dualInfeas, model->dualityGap, 0.0);
  // The whole iteration table at once: its heading and the one line.
  MessageLog* log = env->messageLog;
  if (option->printFreq > 0 && log && log->log) {
    log->log(log, MSG_TABLE_HEADING, IPM_MSG_TABLE_HEAD);
    log->log(log, MSG_TABLE_HEADING, IPM_MSG_TABLE_RULE);
    log->log(log, MSG_TABLE_LINE, IPM_MSG_TABLE_LINE, (int32_t)0, model->complementarity,
             model->dualityGap, model->primalInfeas, model->boundInfeas, model->dualInfeas);
  }
  return status;
}

}  // namespace

int32_t ipmSpecSolve(HalvexEnv* env, ipmModel* model, ipmOption* option, ipmSolution* solution,
                     int32_t choice) {
  if (!env || !env->pool || !model || !option || !solution) return IPM_STATUS_FAILED;
  QVPool* pool = env->pool;
  const int32_t numRow = model->numRow, numCol = model->numCol;
  const int32_t numDim = numRow + numCol;
  const bool qp = model->typeModel == IPM_MODEL_QP;
  const int32_t numQuad = qp ? model->numQuadCoef : 0;
  const int64_t numEntries = (int64_t)numDim + 2 * ((int64_t)model->numCoef + numQuad);

  SpecArrays a;
  a.begin = specArray<int32_t>(pool, (int64_t)numDim + 1, false);
  a.index = specArray<int32_t>(pool, numEntries, false);
  a.value = specArray<double>(pool, numEntries, false);
  a.colDiag = specArray<int32_t>(pool, numCol, false);
  a.rowDiag = specArray<int32_t>(pool, numRow, false);
  // Right side, then solution, then the measures' work area; a QP without a
  // diagonal gets zeros behind it.
  const int64_t room = (int64_t)numDim + (qp && !model->quadDiag ? numCol : 0);
  a.vector = specArray<double>(pool, room, true);
  if (!a.begin || !a.index || !a.value || !a.colDiag || !a.rowDiag || !a.vector) {
    a.release(pool);
    return IPM_STATUS_OUT_OF_MEMORY;
  }

  int32_t status = 0;
  if (numQuad > 0) {
    status = createAugmentMatrixQP(env, numRow, numCol, model->numCoef, numQuad, model->colBegin,
                                   model->colLength, model->rowIndex, model->matValue,
                                   model->quadColBegin, model->quadColLength,
                                   model->quadRowIndex, model->quadMatValue, a.begin, a.index,
                                   a.value, a.colDiag, a.rowDiag);
  } else {
    createAugmentMatrix(numRow, numCol, model->colBegin, model->colLength, model->rowIndex,
                        model->matValue, a.begin, a.index, a.value, a.colDiag, a.rowDiag);
  }
  if (status) {
    a.release(pool);
    return status;
  }
  // No regularisation: the zero diagonals are the system's own, and the
  // factorisation has to cope with them.
  if (qp && model->quadDiag)
    for (int32_t j = 0; j < numCol; j++) a.value[a.colDiag[j]] = model->quadDiag[j];

  double* v = a.vector;
  for (int32_t j = 0; j < numCol; j++) v[j] = -model->obj[j];
  for (int32_t i = 0; i < numRow; i++) v[numCol + i] = -model->rhs[i];

  // An option record whose thread count was never filled in gets the
  // caller's own thread rather than a refusal from the factorisation.
  const int32_t numThreads = option->numThreads > 0 ? option->numThreads : 1;
  if (numDim > 0) {
    if (choice != SPEC_SOLVE_DIRECT)
      status = eqnSolve(option->infinity, option->primalTol, env, numDim, numCol, numThreads,
                        a.begin, a.index, a.value, v, nullptr, option->verifyLevel,
                        EQN_MODE_PLAIN);
    else
      status = solveEquationLDL(env, option->verifyLevel, 0, numDim, numCol, numThreads, a.begin,
                                a.index, a.value, v, nullptr);
  }
  if (status) {
    a.release(pool);
    return status;
  }

  for (int32_t j = 0; j < numCol; j++) {
    solution->solPrimal[j] = v[j];
    solution->lowerSlack[j] = 0.0;
    solution->upperSlack[j] = 0.0;
    solution->lowerDual[j] = 0.0;
    solution->upperDual[j] = 0.0;
  }
  for (int32_t i = 0; i < numRow; i++) {
    solution->solDual[i] = v[numCol + i];
    solution->ineqnSlack[i] = 0.0;
  }
  // The vector has been read out and becomes the work area; a zero diagonal
  // for a QP without one sits untouched behind it.
  for (int32_t k = 0; k < numDim; k++) v[k] = 0.0;
  model->status = measure(env, model, option, solution->solPrimal, solution->solDual, v);
  a.release(pool);
  return 0;
}
