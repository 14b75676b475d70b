// Search directions from a dense approximation H of the inverse Hessian,
// d = -H g, updated after each search by the BFGS or the DFP formula. The
// optimizers differ only in how the matrix is obtained, restarted and kept
// between runs; the hooks below say which.
#ifndef LXOPT_SRC_QUASINEWTON_DENSE_DIRECTIONS_H
#define LXOPT_SRC_QUASINEWTON_DENSE_DIRECTIONS_H

#include "quasinewton/quasi_newton_loop.h"

namespace LxOpt {
namespace detail {

enum class QuasiNewtonUpdate {
  kBFGS,  // H += a s s' + b Hy Hy' + yHy u u', u = a s + b Hy
  kDFP,   // H += a s s' + b Hy Hy'
};        // a = 1/s.y, b = -1/yHy

class QuasiNewtonMatrix : public QuasiNewtonDirections {
 public:
  QuasiNewtonMatrix(QuasiNewtonUpdate update, bool nullGradientOnNoOpt)
      : update_(update), nullGradientOnNoOpt_(nullGradientOnNoOpt) {}

  // Obtains the n x n working block and leaves the starting H in it, packed
  // (see inverse_hessian.h). Returns nullptr after reporting a failure. The
  // block lives until this object is destroyed.
  virtual double* Acquire(unsigned int n) = 0;
  // Trial step of the first search of a run (sum g^2 = gg at the start).
  virtual double FirstStep(double gg) const;
  // After a failed search that followed an update. Default: H := I.
  virtual void Restart(double* h, unsigned int n);
  // On every exit after Acquire, with the packed H and the trial step of
  // that moment.
  virtual void Keep(const double* h, unsigned int n, double step);

  std::size_t ScratchCount(unsigned int n) const override;
  void Bind(double* scratch, unsigned int n, const double* x) override;
  bool NullGradientOnNoOpt() const override { return nullGradientOnNoOpt_; }
  bool Begin() override;
  double StartDirection(const double* g, double gg, double* d, bool restart) override;
  bool CanRestart() const override { return !fresh_; }
  void Forget() override { Restart(h_, n_); }
  double Accept(double step, const double* d, const double* w, double* x, double* g) override;
  bool NextDirection(unsigned int k, const double* g, double* d, double* step) override;
  void End(double step) override;

 private:
  QuasiNewtonUpdate update_;
  bool nullGradientOnNoOpt_;
  unsigned int n_ = 0;
  double* h_ = nullptr;  // packed H, once acquired
  double* s_ = nullptr;  // step, gradient change and H y: n each
  double* y_ = nullptr;
  double* hy_ = nullptr;
  double slope_ = 0.0;  // g.d of the last direction, for the trial step
  bool fresh_ = true;   // H has just been (re)started; d = -g
};

}  // namespace detail
}  // namespace LxOpt

#endif  // LXOPT_SRC_QUASINEWTON_DENSE_DIRECTIONS_H
