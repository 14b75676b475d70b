// The iteration shared by the quasi-Newton optimizers. The optimizers differ
// only in how the working matrix is obtained, restarted and kept between
// runs, and in the update formula; a QuasiNewtonMatrix says which.
#ifndef LXOPT_SRC_QUASINEWTON_QUASI_NEWTON_LOOP_H
#define LXOPT_SRC_QUASINEWTON_QUASI_NEWTON_LOOP_H

#include <cstddef>

#include "lxopt/optimizer.h"
#include "lxopt/quasinewton.h"

namespace LxOpt {
namespace detail {

enum class QuasiNewtonUpdate {
  kBFGS,  // H += a s s' + b Hy Hy' + yHy u u', u = a s + b Hy
  kDFP,   // H += a s s' + b Hy Hy'
};        // a = 1/s.y, b = -1/yHy

class QuasiNewtonMatrix {
 public:
  QuasiNewtonMatrix(QuasiNewtonUpdate update, bool nullGradientOnNoOpt)
      : update_(update), nullGradientOnNoOpt_(nullGradientOnNoOpt) {}
  virtual ~QuasiNewtonMatrix();

  // Obtains the n x n working block and leaves the starting H in it, packed
  // (see inverse_hessian.h). Returns nullptr after reporting a failure. The
  // block lives until this object is destroyed.
  virtual double* Acquire(unsigned int n) = 0;
  // Trial step of the first search (sum g^2 = gg at the start).
  virtual double FirstStep(double gg) const;
  // After a failed search that followed an update. Default: H := I.
  virtual void Restart(double* h, unsigned int n);
  // On every exit after Acquire, with the packed H and the trial step of
  // that moment.
  virtual void Keep(const double* h, unsigned int n, double step);

  QuasiNewtonUpdate update() const { return update_; }
  bool nullGradientOnNoOpt() const { return nullGradientOnNoOpt_; }

 private:
  QuasiNewtonUpdate update_;
  bool nullGradientOnNoOpt_;
};

// A byte count for a "%d" in a message, saturated at INT_MAX.
int ByteCountForMessage(std::size_t bytes);

// One run: minimizes func (n variables) from in into out with the settings'
// limit, tolerance and line minimizer; returns the final value (0.0 on bad
// input, as the optimizers document).
double RunQuasiNewton(const LxQNSettings& settings, QuasiNewtonMatrix& matrix, unsigned int n,
                      LxFunc1& func, LxCheckpoint1* checkpoint, const double* in, double* out);

}  // namespace detail
}  // namespace LxOpt

#endif  // LXOPT_SRC_QUASINEWTON_QUASI_NEWTON_LOOP_H
