// The iteration shared by the quasi-Newton optimizers: d = -H g, a line search
// along d, then an update from the accepted step. The optimizers differ in how
// H is held and applied (a dense matrix, or the pairs of L-BFGS); a
// QuasiNewtonDirections says which.
#ifndef LXOPT_SRC_QUASINEWTON_QUASI_NEWTON_LOOP_H
#define LXOPT_SRC_QUASINEWTON_QUASI_NEWTON_LOOP_H

#include <cstddef>

#include "lxopt/linmin.h"
#include "lxopt/optimizer.h"

namespace LxOpt {
namespace detail {

// How a run forms its search directions. The loop owns the gradient g, the
// direction d and the line search's gradient w (n doubles each) at the start
// of the run's scratch block; the rest of the block is the policy's.
class QuasiNewtonDirections {
 public:
  virtual ~QuasiNewtonDirections();

  // Doubles of the whole block for n variables, the loop's 3 n included
  // (SIZE_MAX when that overflows: the allocation then fails).
  virtual std::size_t ScratchCount(unsigned int n) const = 0;
  // The warning when the block cannot be had, with %d for its bytes.
  virtual const char* OutOfMemoryFormat() const;
  // Takes the policy's part of the block once the start point x is in place,
  // before the first evaluation.
  virtual void Bind(double* scratch, unsigned int n, const double* x) = 0;
  // Whether the NoOpt report passes a null gradient.
  virtual bool NullGradientOnNoOpt() const;
  // After the start was found not converged; false ends the run with 0.0
  // (the policy has reported why).
  virtual bool Begin();
  // Sets d for a search from what is stored (the first of the run, or the
  // first after a restart when restart is set) and returns its trial step.
  // g is the gradient and gg = g.g.
  virtual double StartDirection(const double* g, double gg, double* d, bool restart) = 0;
  // Whether a failed search can be retried after Forget.
  virtual bool CanRestart() const = 0;
  // Drops what the run has learnt, after a failed search.
  virtual void Forget() = 0;
  // Moves to the accepted point: x += step d, g = w. Returns the new g.g.
  virtual double Accept(double step, const double* d, const double* w, double* x, double* g) = 0;
  // The direction after the accepted search of iteration k; may change the
  // trial step. False when no update is possible: the run ends Done.
  virtual bool NextDirection(unsigned int k, const double* g, double* d, double* step) = 0;
  // On every reported exit, NoOpt included, with the trial step of that
  // moment.
  virtual void End(double step);
};

// The limit, tolerance and line minimizer of one run.
struct SearchSettings {
  unsigned int iterLimit;
  double tolerance;
  LxLineMinimize& search;
};

// A byte count for a "%d" in a message, saturated at INT_MAX.
int ByteCountForMessage(std::size_t bytes);

// One run: minimizes func from in into out; returns the final value (0.0 on
// bad input, as the optimizers document).
double RunQuasiNewton(const SearchSettings& settings, QuasiNewtonDirections& directions,
                      LxFunc1& func, LxCheckpoint1* checkpoint, const double* in, double* out);

}  // namespace detail
}  // namespace LxOpt

#endif  // LXOPT_SRC_QUASINEWTON_QUASI_NEWTON_LOOP_H
