// The basis factor: a sparse LU of the basis from KLU, refreshed now and
// then, and between refreshes a product-form file of eta columns, one per
// basis change.  KLU because bases of LPs are very sparse and often nearly
// triangular, which is what its block triangular form and left-looking
// Gilbert-Peierls factorisation are made for; it is a well-kept Debian
// package and needs no tuning.  The solves are our own, over the factors
// that KLU hands out: the right-hand sides of the simplex (a column of A,
// a unit row) and their results are mostly zeros, and a solve that skips
// the columns of the factors where the vector is zero costs a fraction of
// KLU's dense one.
#ifndef HALVEX_SIBLINGS_FENNICK_FACTOR_H
#define HALVEX_SIBLINGS_FENNICK_FACTOR_H

#include <stdint.h>

#include "siblings/fennick/alloc.h"

#include <suitesparse/klu.h>

namespace fennick {

class BasisFactor {
 public:
  BasisFactor();
  ~BasisFactor();
  BasisFactor(const BasisFactor&) = delete;
  BasisFactor& operator=(const BasisFactor&) = delete;

  // Factors the m x m matrix given column-wise.  Returns 0, 1 when the matrix
  // is singular (dependentPosition and dependentRow then name pairs of a
  // basis position and a row whose unit column would make it regular), or -1
  // when memory ran out.
  int factor(int32_t m, const Vec<int32_t>& start, const Vec<int32_t>& index,
             const Vec<double>& value, Vec<int32_t>* dependentPosition,
             Vec<int32_t>* dependentRow);

  void ftran(double* v) const;  // v <- B^-1 v
  void btran(double* v) const;  // v <- B^-T v

  // After a basis change at position r with the entering column's ftran alpha.
  void update(int32_t r, const double* alpha);
  int32_t numUpdates() const { return (int32_t)etaPivotRow_.size(); }
  // Whether the eta file has outgrown the factor: every solve then spends
  // most of its time in the updates, and a fresh factor is cheaper.  Three
  // times the factor: at once the size of the factor, KLU's analysis and
  // factorisation cost more than the updates save (dfl001, degen3).
  bool outgrown() const {
    return m_ > 0 && (int64_t)etaIndex_.size() > 3 * (factorNonzeros_ + 4 * (int64_t)m_);
  }

 private:
  void release();
  int extract();
  void btranEtas(double* v) const;

  int32_t m_ = 0;
  mutable klu_common common_;
  klu_symbolic* symbolic_ = nullptr;
  klu_numeric* numeric_ = nullptr;
  // KLU's factors, (R \ B)(P, Q) = L U + F with F the blocks above the
  // diagonal blocks: the columns of L, U (without their diagonals) and F
  // for the ftran, their rows for the btran.  Indices are positions of the
  // permuted, scaled matrix; blockStart_ bounds its diagonal blocks.  KLU
  // keeps the row scales in the pivot order: rowScale_[k] is row P[k]'s.
  struct Sparse {
    Vec<int32_t> start, index;
    Vec<double> value;
  };
  Sparse lCol_, uCol_, fCol_, lRow_, uRow_, fRow_;
  Vec<double> uDiag_, rowScale_;
  Vec<int32_t> rowPerm_, colPerm_, blockStart_;
  mutable Vec<double> work_;
  int64_t factorNonzeros_ = 0;
  Vec<int32_t> etaPivotRow_, etaStart_, etaIndex_;
  Vec<double> etaPivot_, etaValue_;
  // The eta file by rows as well, for the btran: each entry links to the
  // entry of the same row in the eta before, rowLast_ holds the newest.
  // A btran from a sparse vector (a unit row, the usual case) then meets
  // only the eta entries in its nonzero rows, not the whole file.  The
  // links are made by the first such btran after an update, for the etas
  // up to then (rowLinked_ of them so far).
  mutable Vec<int32_t> etaOf_, etaNextInRow_, rowLast_;
  mutable int32_t rowLinked_ = 0;
  mutable Vec<double> etaDot_;
  mutable Vec<int32_t> nonzero_;
};

}  // namespace fennick

#endif
