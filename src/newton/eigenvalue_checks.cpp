// Eigenvalue checks of a final Hessian: does it describe a minimum? The
// eigenvalues come from a self-adjoint eigensolver in ascending order.
#include <Eigen/Eigenvalues>

#include "lxopt/host.h"
#include "lxopt/newton.h"
#include "newton/newton_internal.h"

namespace LxOpt {
namespace {

// Deliberate: small negative eigenvalues down to -1.0 pass.
constexpr double kMostNegative = -1.0;
// Force-field Hessians: the six lowest eigenvalues are rigid-body motion.
constexpr unsigned int kRigidBodyModes = 6;

Eigen::MatrixXd Unpacked(unsigned int n, const double* packed) {
  Eigen::MatrixXd h(n, n);
  detail::UnpackSymmetric(packed, h);
  return h;
}

// 0 with the warning at the first eigenvalue below -1.0, else 1.
int CheckNoneBelowMostNegative(const Eigen::VectorXd& values) {
  for (Eigen::Index i = 0; i < values.size(); ++i) {
    if (values(i) < kMostNegative) {
      LxThrow.Warning(
          "Found a negative eigenvalue = %f after Newton optimization.  structure may be a "
          "transition state\n",
          values(i));
      return 0;
    }
  }
  return 1;
}

// The general test on the n x n matrix h, its ascending eigenvalues left in
// values: 1 for n = 0 (the solver is not given an empty matrix), 0 when the
// solver fails, else the -1.0 test.
int GeneralCheck(unsigned int n, const Eigen::MatrixXd& h, Eigen::VectorXd& values) {
  if (n == 0) return 1;
  // The eigenvectors are not needed; the eigenvalues are the same either way.
  Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd> solver(h, Eigen::EigenvaluesOnly);
  if (solver.info() != Eigen::Success) return 0;
  values = solver.eigenvalues();
  return CheckNoneBelowMostNegative(values);
}

}  // namespace

int LxCheckEigenvalues(unsigned int n, const double* packed) {
  return LxCheckEigenvalues(n, Unpacked(n, packed));
}

int LxCheckEigenvalues(unsigned int n, const Eigen::MatrixXd& h) {
  Eigen::VectorXd values;
  return GeneralCheck(n, h, values);
}

int LxCheckMMFFEigenvalues(unsigned int n, const double* packed) {
  return LxCheckMMFFEigenvalues(n, Unpacked(n, packed));
}

int LxCheckMMFFEigenvalues(unsigned int n, const Eigen::MatrixXd& h) {
  Eigen::VectorXd values;
  if (GeneralCheck(n, h, values) == 0) return 0;
  if (n <= kRigidBodyModes) return 1;
  for (Eigen::Index i = kRigidBodyModes; i < values.size(); ++i) {
    if (values(i) < 0.0) {
      // Deliberate: the last number printed is n itself, not 3N - 6.
      LxThrow.Warning(
          "Found a eigenvalue(%d) = %f after Newton optimization.  number %d >= 3N-6 = %d "
          "(should be a positive eigenvalue)\n",
          static_cast<int>(i), values(i), static_cast<int>(i), static_cast<int>(n));
      return 0;
    }
  }
  return 1;
}

}  // namespace LxOpt
