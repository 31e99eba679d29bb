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
  return dependentPosition->empty() ? 0 : 1;
}

void BasisFactor::ftran(double* v) const {
  if (m_ == 0) return;
  klu_solve(symbolic_, numeric_, m_, 1, v, &common_);
  const int32_t k = (int32_t)etaPivotRow_.size();
  for (int32_t e = 0; e < k; e++) {
    const int32_t r = etaPivotRow_[e];
    const double xr = v[r] / etaPivot_[e];
    v[r] = xr;
    if (xr == 0.0) continue;
    for (int32_t p = etaStart_[e]; p < etaStart_[e + 1]; p++) v[etaIndex_[p]] -= etaValue_[p] * xr;
  }
}

void BasisFactor::btran(double* v) const {
  if (m_ == 0) return;
  for (int32_t e = (int32_t)etaPivotRow_.size() - 1; e >= 0; e--) {
    const int32_t r = etaPivotRow_[e];
    double s = v[r];
    for (int32_t p = etaStart_[e]; p < etaStart_[e + 1]; p++) s -= etaValue_[p] * v[etaIndex_[p]];
    v[r] = s / etaPivot_[e];
  }
  klu_tsolve(symbolic_, numeric_, m_, 1, v, &common_);
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
