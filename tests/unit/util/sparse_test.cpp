// The diagonal regularisation of the sparse helpers.  The transpositions,
// products, copies and removals reshape every model the presolve and the
// iteration see, so the KKT checks of those stages stand for them.
#include <gtest/gtest.h>

#include <vector>

#include "util/sparse.h"

namespace {

TEST(SparseRegDiag, SmallEntriesOfEitherSignGoNegative) {
  using Reals = std::vector<double>;
  const double delta = 1e-6;
  Reals diag = {delta, -delta, 0.0, delta / 2, -delta / 2, 2 * delta, -3 * delta, 0.0, delta / 2};
  const int32_t first[] = {0, 1, 2, 3}, second[] = {4, 5, 6, 8};
  regMatDiag(4, 4, diag.data(), first, second, delta);
  EXPECT_EQ(diag, (Reals{delta, -delta, -delta, -delta, -delta, 2 * delta, -3 * delta, 0.0,
                         -delta}));
  regMatDiag(0, 0, diag.data() + 7, nullptr, nullptr, delta);
  EXPECT_EQ(diag[7], 0.0);
}

}  // namespace
