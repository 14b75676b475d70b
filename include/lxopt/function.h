// Objective interfaces: value only (LxFunc0), value and gradient (LxFunc1),
// value, gradient and packed Hessian (LxFunc2).
//
// A variable vector is a contiguous array of NumVar() doubles. A Hessian is
// packed: the lower triangle row by row, element (i, j) with j <= i at
// i * (i + 1) / 2 + j, n * (n + 1) / 2 doubles in all. Objectives belong to
// the caller; optimizers borrow them for one run.
#ifndef LXOPT_FUNCTION_H
#define LXOPT_FUNCTION_H

#include <string>
#include <vector>

#include "lxopt/lxopt_export.h"

namespace LxOpt {

// One named part of an objective's value.
struct LxFComponent {
  std::string name;
  double value;
};

// Objective that gives values only (value-only optimizers, numeric
// differences, NumericFunc1).
class LXOPT_API LxFunc0 {
 public:
  // Number of variables n; optimizers read it once per run.
  virtual unsigned int NumVar() const = 0;
  // Value at x (n doubles).
  virtual double operator()(const double* x) = 0;
  // The value at x split into named parts, for diagnostics.
  virtual std::vector<LxFComponent> GetFComponents(const double* x) = 0;
  // Objectives are used through base references and may be deleted so.
  virtual ~LxFunc0();
};

// Objective that gives the value and the gradient; what the gradient and
// line-search optimizers take.
class LXOPT_API LxFunc1 : public virtual LxFunc0 {
 public:
  using LxFunc0::operator();
  // Value from single-precision coordinate blocks, for objectives evaluated on
  // an accelerator. The default reports an error and returns an empty vector.
  virtual std::vector<double> operator()(float** blocks);
  // Value at x; writes the n gradient components into grad. Callers zero
  // grad first, so an implementation may either add into it or overwrite it.
  virtual double operator()(const double* x, double* grad) = 0;
  // Whether x (n doubles) is an admissible point; true admits it. The
  // default accepts every point.
  virtual bool CheckVariablesValidity(const double* x);
  // Whether a and b are the same point for this objective. The default
  // compares the root-mean-square difference sqrt(sum (a - b)^2 / n) with
  // tolerance (strictly less is redundant); a tolerance <= 0 is an error and
  // answers true.
  virtual bool IsRedundant(const double* a, const double* b, double tolerance) const;
};

// Objective that also gives the packed Hessian; what the Newton optimizers
// take.
class LXOPT_API LxFunc2 : public LxFunc1 {
 public:
  using LxFunc1::operator();
  // Writes the gradient into grad and the packed Hessian into hessian (both
  // zeroed by the caller); the value is not delivered. Returns false when the
  // derivatives cannot be formed.
  virtual bool operator()(const double* x, double* hessian, double* grad) = 0;
};

}  // namespace LxOpt

#endif  // LXOPT_FUNCTION_H
