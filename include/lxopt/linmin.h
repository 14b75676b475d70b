// Line minimizers: the one-dimensional searches of the gradient optimizers.
#ifndef LXOPT_LINMIN_H
#define LXOPT_LINMIN_H

#include "lxopt/function.h"
#include "lxopt/lxopt_export.h"

namespace LxOpt {

// A search along x0 + a * dir. Contract of operator():
//   n        in      number of variables; every array has n entries
//   x0       in      start of the line (the optimizer's current point)
//   dir      in      search direction (a line minimizer may say it shortens it)
//   grad0    in      gradient at x0
//   gradOut  out     on success, the gradient at the accepted point
//   fval     in/out  value at x0 on entry; on success the accepted value
//   step     in/out  first trial step a on entry (a multiple of dir, not a
//                    distance); on success the accepted step
//   func     in      evaluated through its value-and-gradient operation
// Returns true when a value strictly below the entry value was accepted.
// The point itself is never written; the caller forms x0 + step * dir. On
// failure gradOut, fval and step keep their entry contents unless the
// minimizer says otherwise.
class LXOPT_API LxLineMinimize {
 public:
  virtual ~LxLineMinimize();
  virtual bool operator()(unsigned int n, const double* x0, double* dir, double* grad0,
                          double* gradOut, double* fval, double* step,
                          LxFunc1& func) const = 0;
  // Per-variable step limits; this base ignores them and returns false.
  virtual bool SetMaxStep(unsigned int n, double* maxstep);
  // A new heap copy, owned by the caller.
  virtual LxLineMinimize* CreateCopy() const = 0;
};

}  // namespace LxOpt

#endif  // LXOPT_LINMIN_H
