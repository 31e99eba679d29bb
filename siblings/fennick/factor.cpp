#include "siblings/fennick/factor.h"

#include <cmath>

namespace fennick {

namespace {
// A pivot of KLU's U below this, relative to the scaled rows, counts as zero.
constexpr double kSingularPivot = 1e-11;
// Eta entries below this are dropped; they are noise of the ftran.
constexpr double kEtaDrop = 1e-14;
}  // namespace

BasisFactor::BasisFactor() {
  klu_defaults(&common_);
  // A singular basis is repaired by the caller, so KLU must finish the
  // factorisation and tell where the zero pivots are.
  common_.halt_if_singular = 0;
}

BasisFactor::~BasisFactor() { release(); }

void BasisFactor::release() {
  if (numeric_) klu_free_numeric(&numeric_, &common_);
  if (symbolic_) klu_free_symbolic(&symbolic_, &common_);
  numeric_ = nullptr;
  symbolic_ = nullptr;
}

int BasisFactor::factor(int32_t m, const Vec<int32_t>& start,
                        const Vec<int32_t>& index, const Vec<double>& value,
                        Vec<int32_t>* dependentPosition,
                        Vec<int32_t>* dependentRow) {
  release();
  etaPivotRow_.clear();
  etaStart_.assign(1, 0);
  etaIndex_.clear();
  etaPivot_.clear();
  etaValue_.clear();
  etaOf_.clear();
  etaNextInRow_.clear();
  rowLast_.assign(m, -1);
  rowLinked_ = 0;
  dependentPosition->clear();
  dependentRow->clear();
  m_ = m;
  if (m == 0) return 0;
  // KLU allocates on its own; its calls count as one allocation each.
  allocationPoint();
  symbolic_ = klu_analyze(m, const_cast<int32_t*>(start.data()),
                          const_cast<int32_t*>(index.data()), &common_);
  if (!symbolic_) return common_.status == KLU_OUT_OF_MEMORY ? -1 : 1;
  allocationPoint();
  numeric_ = klu_factor(const_cast<int32_t*>(start.data()), const_cast<int32_t*>(index.data()),
                        const_cast<double*>(value.data()), symbolic_, &common_);
  if (!numeric_) return common_.status == KLU_OUT_OF_MEMORY ? -1 : 1;
  // Pivot k of U sits at row Pnum[k] and column Q[k] of the basis.
  const double* udiag = static_cast<const double*>(numeric_->Udiag);
  for (int32_t k = 0; k < m; k++) {
    if (std::fabs(udiag[k]) >= kSingularPivot && std::isfinite(udiag[k])) continue;
    dependentPosition->push_back(symbolic_->Q[k]);
    dependentRow->push_back(numeric_->Pnum[k]);
  }
  if (!dependentPosition->empty()) return 1;
  const int rc = extract();
  release();
  return rc;
}

namespace {
// An m x m matrix by columns into col, without its diagonal (into diag when
// given), and the same by rows into row.
template <typename S>
void splitTranspose(int32_t m, const Vec<int32_t>& start, const Vec<int32_t>& index,
                    const Vec<double>& value, Vec<double>* diag, S* col, S* row) {
  col->start.assign(m + 1, 0);
  row->start.assign(m + 1, 0);
  col->index.clear();
  col->value.clear();
  for (int32_t k = 0; k < m; k++) {
    for (int32_t p = start[k]; p < start[k + 1]; p++) {
      const int32_t i = index[p];
      if (i == k) {
        if (diag) (*diag)[k] = value[p];
        continue;
      }
      col->index.push_back(i);
      col->value.push_back(value[p]);
      row->start[i + 1]++;
    }
    col->start[k + 1] = (int32_t)col->index.size();
  }
  for (int32_t i = 0; i < m; i++) row->start[i + 1] += row->start[i];
  row->index.resize(col->index.size());
  row->value.resize(col->index.size());
  Vec<int32_t> next(row->start.begin(), row->start.end() - 1);
  for (int32_t k = 0; k < m; k++)
    for (int32_t p = col->start[k]; p < col->start[k + 1]; p++) {
      const int32_t q = next[col->index[p]]++;
      row->index[q] = k;
      row->value[q] = col->value[p];
    }
}
}  // namespace

// KLU's factors into our own arrays; KLU's objects are freed after.
int BasisFactor::extract() {
  const int32_t m = m_;
  const int64_t lnz = numeric_->lnz, unz = numeric_->unz, nzoff = numeric_->nzoff;
  factorNonzeros_ = lnz + unz + nzoff;
  Vec<int32_t> lp(m + 1), li(lnz), up(m + 1), ui(unz), fp(m + 1), fi(std::max<int64_t>(nzoff, 1));
  Vec<double> lx(lnz), ux(unz), fx(std::max<int64_t>(nzoff, 1));
  rowPerm_.resize(m);
  colPerm_.resize(m);
  rowScale_.assign(m, 1.0);
  blockStart_.resize(symbolic_->nblocks + 1);
  if (!klu_extract(numeric_, symbolic_, lp.data(), li.data(), lx.data(), up.data(), ui.data(),
                   ux.data(), fp.data(), fi.data(), fx.data(), rowPerm_.data(), colPerm_.data(),
                   rowScale_.data(), blockStart_.data(), &common_))
    return 1;
  if (common_.scale <= 0) std::fill(rowScale_.begin(), rowScale_.end(), 1.0);
  uDiag_.assign(m, 1.0);
  splitTranspose(m, lp, li, lx, nullptr, &lCol_, &lRow_);
  splitTranspose(m, up, ui, ux, &uDiag_, &uCol_, &uRow_);
  splitTranspose(m, fp, fi, fx, nullptr, &fCol_, &fRow_);
  work_.assign(m, 0.0);
  return 0;
}

// B = R P' (L U + F) Q': the blocks of L U + F from the last to the first,
// each block's solution taken out of the rows of the blocks before it by F.
void BasisFactor::ftran(double* v) const {
  if (m_ == 0) return;
  double* c = work_.data();
  for (int32_t k = 0; k < m_; k++) {
    c[k] = v[rowPerm_[k]] / rowScale_[k];
  }
  for (int32_t b = (int32_t)blockStart_.size() - 2; b >= 0; b--) {
    const int32_t k1 = blockStart_[b], k2 = blockStart_[b + 1];
    for (int32_t k = k1; k < k2 - 1; k++) {
      const double x = c[k];
      if (x == 0.0) continue;
      for (int32_t p = lCol_.start[k]; p < lCol_.start[k + 1]; p++)
        c[lCol_.index[p]] -= lCol_.value[p] * x;
    }
    for (int32_t k = k2 - 1; k >= k1; k--) {
      if (c[k] == 0.0) continue;
      const double x = c[k] /= uDiag_[k];
      for (int32_t p = uCol_.start[k]; p < uCol_.start[k + 1]; p++)
        c[uCol_.index[p]] -= uCol_.value[p] * x;
      for (int32_t p = fCol_.start[k]; p < fCol_.start[k + 1]; p++)
        c[fCol_.index[p]] -= fCol_.value[p] * x;
    }
  }
  for (int32_t k = 0; k < m_; k++) v[colPerm_[k]] = c[k];
  const int32_t k = (int32_t)etaPivotRow_.size();
  for (int32_t e = 0; e < k; e++) {
    const int32_t r = etaPivotRow_[e];
    const double xr = v[r] / etaPivot_[e];
    v[r] = xr;
    if (xr == 0.0) continue;
    for (int32_t p = etaStart_[e]; p < etaStart_[e + 1]; p++) v[etaIndex_[p]] -= etaValue_[p] * xr;
  }
}

// The etas of the btran, newest first: eta e sets v_r = (v_r - eta_e' v) / pivot.
// From a sparse v the dot products are gathered by rows instead: each
// nonzero of v adds its share to the etas that hold its row, and a change
// of v_r at eta e to the older etas that hold row r.
void BasisFactor::btranEtas(double* v) const {
  const int32_t etas = (int32_t)etaPivotRow_.size();
  if (etas == 0) return;
  nonzero_.clear();
  for (int32_t i = 0; i < m_; i++)
    if (v[i] != 0.0) nonzero_.push_back(i);
  // Dense: the row-wise walk costs more than the plain dot products.
  if ((int64_t)nonzero_.size() * 4 > m_) {
    for (int32_t e = etas - 1; e >= 0; e--) {
      const int32_t r = etaPivotRow_[e];
      double s = v[r];
      for (int32_t p = etaStart_[e]; p < etaStart_[e + 1]; p++) s -= etaValue_[p] * v[etaIndex_[p]];
      v[r] = s / etaPivot_[e];
    }
    return;
  }
  // The rows of the etas since the last btran (the push makes only ftrans).
  etaOf_.resize(etaIndex_.size());
  etaNextInRow_.resize(etaIndex_.size());
  for (; rowLinked_ < etas; rowLinked_++)
    for (int32_t p = etaStart_[rowLinked_]; p < etaStart_[rowLinked_ + 1]; p++) {
      const int32_t i = etaIndex_[p];
      etaNextInRow_[p] = rowLast_[i];
      rowLast_[i] = p;
      etaOf_[p] = rowLinked_;
    }
  etaDot_.assign(etas, 0.0);
  for (const int32_t i : nonzero_) {
    const double x = v[i];
    for (int32_t p = rowLast_[i]; p >= 0; p = etaNextInRow_[p]) etaDot_[etaOf_[p]] += etaValue_[p] * x;
  }
  for (int32_t e = etas - 1; e >= 0; e--) {
    const int32_t r = etaPivotRow_[e];
    const double old = v[r];
    const double now = (old - etaDot_[e]) / etaPivot_[e];
    v[r] = now;
    const double change = now - old;
    if (change == 0.0) continue;
    for (int32_t p = rowLast_[r]; p >= 0; p = etaNextInRow_[p])
      if (etaOf_[p] < e) etaDot_[etaOf_[p]] += etaValue_[p] * change;
  }
}

// The transposed solve, blocks first to last, by the rows of the factors.
void BasisFactor::btran(double* v) const {
  if (m_ == 0) return;
  btranEtas(v);
  double* c = work_.data();
  for (int32_t k = 0; k < m_; k++) c[k] = v[colPerm_[k]];
  const int32_t blocks = (int32_t)blockStart_.size() - 1;
  for (int32_t b = 0; b < blocks; b++) {
    const int32_t k1 = blockStart_[b], k2 = blockStart_[b + 1];
    for (int32_t k = k1; k < k2; k++) {
      if (c[k] == 0.0) continue;
      const double x = c[k] /= uDiag_[k];
      for (int32_t p = uRow_.start[k]; p < uRow_.start[k + 1]; p++)
        c[uRow_.index[p]] -= uRow_.value[p] * x;
    }
    for (int32_t k = k2 - 1; k > k1; k--) {
      const double x = c[k];
      if (x == 0.0) continue;
      for (int32_t p = lRow_.start[k]; p < lRow_.start[k + 1]; p++)
        c[lRow_.index[p]] -= lRow_.value[p] * x;
    }
    for (int32_t k = k1; k < k2; k++) {
      const double x = c[k];
      if (x == 0.0) continue;
      for (int32_t p = fRow_.start[k]; p < fRow_.start[k + 1]; p++)
        c[fRow_.index[p]] -= fRow_.value[p] * x;
    }
  }
  for (int32_t k = 0; k < m_; k++) v[rowPerm_[k]] = c[k] / rowScale_[k];
}

void BasisFactor::update(int32_t r, const double* alpha) {
  etaPivotRow_.push_back(r);
  etaPivot_.push_back(alpha[r]);
  for (int32_t i = 0; i < m_; i++) {
    if (i == r || std::fabs(alpha[i]) < kEtaDrop) continue;
    etaIndex_.push_back(i);
    etaValue_.push_back(alpha[i]);
  }
  etaStart_.push_back((int32_t)etaIndex_.size());
}

}  // namespace fennick
