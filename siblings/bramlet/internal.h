// bramlet's private records: the instance behind its table, a loaded LP, and
// the read-only view of an LP that presolve and load check.
#ifndef HALVEX_SIBLINGS_BRAMLET_INTERNAL_H
#define HALVEX_SIBLINGS_BRAMLET_INTERNAL_H

#include <stdint.h>

#include <vector>

#include "siblings/bramlet/bramlet.h"

namespace bramlet {

constexpr int64_t kLoadMagic = 0x6272616d6c6574;  // "bramlet"
constexpr double kInfinity = 1e20;

struct LoadedLP {
  int32_t numRow = 0, numCol = 0;
  std::vector<double> obj, lower, upper, rhs, range, matValue;
  std::vector<char> rowSense;
  std::vector<int32_t> colBegin, rowIndex;
  void* colFlags = nullptr;
};

struct InstanceBox {
  Instance table;
  LoadedLP* loaded;
};

// An LP as arrays, wherever they come from.  colLength may be null, the
// column then ending where the next begins; range may be null without R rows.
struct InputView {
  int32_t numRow = 0, numCol = 0, numCoef = 0;
  const double* obj = nullptr;
  const double* lower = nullptr;
  const double* upper = nullptr;
  const double* rhs = nullptr;
  const double* range = nullptr;
  const char* rowSense = nullptr;
  const int32_t* colBegin = nullptr;
  const int32_t* colLength = nullptr;
  const int32_t* rowIndex = nullptr;
  const double* matValue = nullptr;
  int32_t colEnd(int32_t j) const { return colLength ? colBegin[j] + colLength[j] : colBegin[j + 1]; }
};

// Null when the view is a usable LP, otherwise the reason.
const char* checkInput(const InputView& in);

}  // namespace bramlet

#endif
