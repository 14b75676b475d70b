// How a BFGS run obtains, restarts and keeps its matrix; shared by LxBFGSOpt
// and LxBFGSModOpt.
#ifndef LXOPT_SRC_QUASINEWTON_BFGS_MATRIX_H
#define LXOPT_SRC_QUASINEWTON_BFGS_MATRIX_H

#include "lxopt/host.h"
#include "lxopt/quasinewton.h"
#include "quasinewton/dense_directions.h"

namespace LxOpt {

class LxBFGSOpt::KeptMatrix : public detail::QuasiNewtonMatrix {
 public:
  explicit KeptMatrix(LxBFGSOpt& owner)
      : QuasiNewtonMatrix(detail::QuasiNewtonUpdate::kBFGS, false), owner_(owner) {}

  // Error on n > 1073741823 or a failed allocation; starts from the stored
  // matrix when asked to, else from the identity.
  double* Acquire(unsigned int n) override;
  // Keeps H as it is when the Hessian is kept, else H := I.
  void Restart(double* h, unsigned int n) override;
  // Stores H when the Hessian is kept.
  void Keep(const double* h, unsigned int n, double step) override;

 protected:
  // The working matrix itself, n x n doubles; nullptr when it cannot be had.
  double* AllocateWorking(unsigned int n) {
    return block_.AllocateDoubles(static_cast<std::size_t>(n) * n);
  }
  LxBFGSOpt& owner_;

 private:
  LxMallocaPtr block_;
};

}  // namespace LxOpt

#endif  // LXOPT_SRC_QUASINEWTON_BFGS_MATRIX_H
