// LDLT with diagonal pivoting (A = P^T L D L^T P) and the repair of small
// pivots: D_i < 0.001 becomes 1000.0, which turns those directions into very
// short steps; A' = P^T L D' L^T P is factorized again.
//
// A' differs from A only through the repaired pivots:
//   P A' P^T = L D' L^T = P A P^T + sum_{k repaired} (D'_k - D_k) l_k l_k^T,
// with l_k the k-th column of L (zero above row k). So the lower triangle of
// P A' P^T is gathered from A and updated by V V^T, V = [l_k sqrt(D'_k - D_k)]
// (every D'_k - D_k > 999 > 0), and that matrix is factorized: solving
// (P A' P^T) (P s) = P g is solving A' s = g with its rows and columns
// relabelled, which leaves pivoting by magnitude unchanged and spares two
// strided permutations of the whole matrix. The update runs in 64 x 64 tile
// products that skip the zero rows of V: r repaired pivots cost at most
// r n^2 / 2 multiply-adds, all n of them n^3 / 3. Tiles that small keep the
// product kernel's packing buffers on the stack, so nothing is allocated.
#include <algorithm>
#include <cmath>
#include <utility>

#include "newton/newton_internal.h"

namespace LxOpt {
namespace detail {
namespace {

constexpr Eigen::Index kTile = 64;

}  // namespace

RepairedLdlt::RepairedLdlt(Eigen::Index n)
    : ldlt_(n),
      repairedMatrix_(Eigen::MatrixXd::Zero(n, n)),
      scratch_(Eigen::MatrixXd::Zero(n, n)),
      repairedPivots_(n),
      rowOf_(n),
      permuted_(Eigen::VectorXd::Zero(n)) {}

bool RepairedLdlt::Factorize(const Eigen::MatrixXd& a) {
  ldlt_.compute(a);
  repaired_ = false;
  const auto pivots = ldlt_.vectorD();
  Eigen::Index count = 0;
  for (Eigen::Index k = 0; k < pivots.size(); ++k)
    if (pivots(k) < kSmallestPivot) repairedPivots_(count++) = static_cast<int>(k);
  if (count == 0) return false;
  BuildRepaired(a, count);
  ldlt_.compute(repairedMatrix_);
  repaired_ = true;
  return true;
}

void RepairedLdlt::BuildRepaired(const Eigen::MatrixXd& a, Eigen::Index repairedCount) {
  const Eigen::Index n = a.rows();
  const Eigen::MatrixXd& factors = ldlt_.matrixLDLT();  // L strictly below the diagonal
  const auto pivots = ldlt_.vectorD();

  // The factorization swapped rows and columns k and t_k for k = 0, 1, ...;
  // the same swaps on the identity labelling give (P v)(i) = v(rowOf(i)).
  for (Eigen::Index i = 0; i < n; ++i) rowOf_(i) = static_cast<int>(i);
  for (Eigen::Index k = 0; k < n; ++k)
    std::swap(rowOf_(k), rowOf_(ldlt_.transpositionsP().coeff(k)));

  // V in the first columns of scratch, in ascending pivot order.
  for (Eigen::Index j = 0; j < repairedCount; ++j) {
    const Eigen::Index k = repairedPivots_(j);
    const double root = std::sqrt(kRepairedPivot - pivots(k));
    auto column = scratch_.col(j);
    column.head(k).setZero();
    column(k) = root;
    column.tail(n - k - 1) = factors.col(k).tail(n - k - 1) * root;
  }

  // Lower triangle of P A P^T: column j reads column rowOf(j) of A.
  for (Eigen::Index j = 0; j < n; ++j) {
    const double* source = a.col(rowOf_(j)).data();
    double* target = repairedMatrix_.col(j).data();
    for (Eigen::Index i = j; i < n; ++i) target[i] = source[rowOf_(i)];
  }

  // Lower triangle += V V^T, tile (I, J) with I >= J. Only the columns of V
  // whose pivot lies above the end of block J reach it; they lead V.
  Eigen::Index reaching = 0;
  for (Eigen::Index j0 = 0; j0 < n; j0 += kTile) {
    const Eigen::Index bj = std::min(kTile, n - j0);
    while (reaching < repairedCount && repairedPivots_(reaching) < j0 + bj) ++reaching;
    for (Eigen::Index i0 = j0; i0 < n; i0 += kTile) {
      const Eigen::Index bi = std::min(kTile, n - i0);
      auto tile = repairedMatrix_.block(i0, j0, bi, bj);
      for (Eigen::Index c0 = 0; c0 < reaching; c0 += kTile) {
        const Eigen::Index bc = std::min(kTile, reaching - c0);
        tile.noalias() +=
            scratch_.block(i0, c0, bi, bc) * scratch_.block(j0, c0, bj, bc).transpose();
      }
    }
  }
}

}  // namespace detail
}  // namespace LxOpt
