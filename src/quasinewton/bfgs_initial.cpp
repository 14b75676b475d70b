// A caller-supplied starting matrix for LxBFGSOpt: an inverse Hessian taken
// as it is, or a Hessian inverted by the Newton optimizer's repaired LDLT.
#include <cstdlib>

#include "framework/packed.h"
#include "lxopt/host.h"
#include "lxopt/quasinewton.h"
#include "newton/newton_internal.h"

namespace LxOpt {

bool LxBFGSOpt::SetInitialInverseHessian(const double* packed, unsigned int n) {
  if (packed == nullptr) {
    LxThrow.Warning("SetInitialInverseHessian: null matrix");
    return false;
  }
  const std::size_t count = static_cast<std::size_t>(n) * n;
  double* full = static_cast<double*>(std::malloc(sizeof(double) * (count ? count : 1)));
  if (full == nullptr) {
    LxThrow.Error("Can't allocate Hessian. Too many variables.");
    return false;
  }
  for (std::size_t i = 0; i < n; ++i)
    for (std::size_t j = 0; j <= i; ++j)
      full[i * n + j] = full[j * n + i] = packed[packed::Index(i, j)];
  FreeStored();
  storedHessian_ = full;
  storedCount_ = static_cast<unsigned int>(count);
  startFromStored_ = true;
  return true;
}

bool LxBFGSOpt::SetInitialHessian(const double* packed, unsigned int n) {
  if (packed == nullptr) {
    LxThrow.Warning("SetInitialHessian: null matrix");
    return false;
  }
  const Eigen::Index size = static_cast<Eigen::Index>(n);
  Eigen::MatrixXd hessian(size, size);
  detail::UnpackSymmetric(packed, hessian);
  detail::RepairedLdlt ldlt(size);
  ldlt.Factorize(hessian);
  // Column j of the inverse solves H' x = e_j; H'^-1 is symmetric, so only
  // the lower triangle is packed.
  Eigen::MatrixXd inverse(size, size);
  Eigen::VectorXd unit = Eigen::VectorXd::Zero(size);
  for (Eigen::Index j = 0; j < size; ++j) {
    unit(j) = 1.0;
    ldlt.Solve(unit, inverse.col(j));
    unit(j) = 0.0;
  }
  Eigen::VectorXd lower(static_cast<Eigen::Index>(packed::Size(n)));
  for (Eigen::Index i = 0; i < size; ++i)
    for (Eigen::Index j = 0; j <= i; ++j)
      lower(static_cast<Eigen::Index>(packed::Index(i, j))) = 0.5 * (inverse(i, j) + inverse(j, i));
  return SetInitialInverseHessian(lower.data(), n);
}

}  // namespace LxOpt
