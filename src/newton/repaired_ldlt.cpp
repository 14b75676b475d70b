// LDLT with diagonal pivoting (A = P^T L D L^T P) and the repair of small
// pivots: D_i < 0.001 becomes 1000.0, which turns those directions into very
// short steps; A' = P^T L D' L^T P is rebuilt and factorized again.
//
// The rebuild is the costly part of a repaired step. With S = L sqrt(D')
// (every D'_i >= 0.001 > 0 after the repair), L D' L^T = S S^T, and because S
// is lower triangular only its tiles left of the diagonal enter: the lower
// triangle costs n^3 / 3 multiply-adds in 64 x 64 tile products. Tiles that
// small keep the product kernel's packing buffers on the stack, so nothing
// is allocated.
#include <algorithm>
#include <cmath>

#include "newton/newton_internal.h"

namespace LxOpt {
namespace detail {
namespace {

constexpr Eigen::Index kTile = 64;

}  // namespace

RepairedLdlt::RepairedLdlt(Eigen::Index n)
    : ldlt_(n), repaired_(Eigen::MatrixXd::Zero(n, n)), scratch_(Eigen::MatrixXd::Zero(n, n)),
      pivots_(n) {}

bool RepairedLdlt::Factorize(const Eigen::MatrixXd& a) {
  ldlt_.compute(a);
  pivots_ = ldlt_.vectorD();
  bool repaired = false;
  for (Eigen::Index i = 0; i < pivots_.size(); ++i) {
    if (pivots_(i) < kSmallestPivot) {
      pivots_(i) = kRepairedPivot;
      repaired = true;
    }
  }
  if (repaired) {
    RebuildRepaired();
    ldlt_.compute(repaired_);
  }
  return repaired;
}

void RepairedLdlt::RebuildRepaired() {
  const Eigen::Index n = pivots_.size();
  const Eigen::MatrixXd& factors = ldlt_.matrixLDLT();  // L below the diagonal

  // scratch = S = L sqrt(D'), zero above the diagonal.
  for (Eigen::Index j = 0; j < n; ++j) {
    const double root = std::sqrt(pivots_(j));
    scratch_.col(j).head(j).setZero();
    scratch_(j, j) = root;
    scratch_.col(j).tail(n - j - 1) = factors.col(j).tail(n - j - 1) * root;
  }

  // Lower triangle of M = S S^T: tile (I, J), I >= J, sums S_IK S_JK^T over
  // K <= J (S_JK is zero for K > J).
  for (Eigen::Index j0 = 0; j0 < n; j0 += kTile) {
    const Eigen::Index bj = std::min(kTile, n - j0);
    for (Eigen::Index i0 = j0; i0 < n; i0 += kTile) {
      const Eigen::Index bi = std::min(kTile, n - i0);
      auto tile = repaired_.block(i0, j0, bi, bj);
      tile.setZero();
      for (Eigen::Index k0 = 0; k0 <= j0; k0 += kTile) {
        const Eigen::Index bk = std::min(kTile, n - k0);
        tile.noalias() +=
            scratch_.block(i0, k0, bi, bk) * scratch_.block(j0, k0, bj, bk).transpose();
      }
    }
  }
  for (Eigen::Index j = 0; j < n; ++j)
    for (Eigen::Index i = j + 1; i < n; ++i) repaired_(j, i) = repaired_(i, j);

  // A' = P^T M P, rows then columns swapped in place.
  repaired_ = ldlt_.transpositionsP().transpose() * repaired_;
  repaired_ = repaired_ * ldlt_.transpositionsP();
}

}  // namespace detail
}  // namespace LxOpt
