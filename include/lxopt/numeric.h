// Central finite differences: gradients from values, Hessians from
// gradients, and a gradient-capable wrapper over a value-only objective.
//
// Each function works on a private copy xp of x and displaces one element at
// a time: xp[i] += h, evaluate; xp[i] -= 2h, evaluate; xp[i] += h. Every
// gradient is evaluated into a freshly zeroed buffer. Hessians are packed:
// element (i, j), j <= i, at i * (i + 1) / 2 + j of n * (n + 1) / 2 doubles.
// Nothing here checks the objective's own failures.
#ifndef LXOPT_NUMERIC_H
#define LXOPT_NUMERIC_H

#include <vector>

#include "lxopt/function.h"
#include "lxopt/lxopt_export.h"

namespace LxOpt {

// Default steps h: gradients from values, Hessians from gradients.
constexpr double kLxGradientStep = 1e-5;
constexpr double kLxHessianStep = 1e-4;

// The two gradients of one central difference along variable `index`.
// A failed record keeps its index and denominator and has both arrays empty.
struct GradDiff {
  unsigned int index;
  double denominator;          // 2h
  std::vector<double> gplus;   // gradient at x + h e_index (n doubles)
  std::vector<double> gminus;  // gradient at x - h e_index (n doubles)
};

// Adds (f(x + h e_i) - f(x - h e_i)) / 2h to grad[i] for every i; zero grad
// first for a plain gradient. Returns f(x). 2n + 1 value evaluations.
LXOPT_API double NumericGradients(LxFunc0& func, const double* x, double* grad,
                                  double h = kLxGradientStep);

// Adds (g_j(x + h e_i) - g_j(x - h e_i)) / 2h to the packed element (i, j),
// j <= i; zero hessian first for a plain Hessian. Returns f(x).
// n (n + 1) gradient evaluations and one value evaluation.
LXOPT_API double NumericHessian(LxFunc1& func, const double* x, double* hessian,
                                double h = kLxHessianStep);

// One element (g_c(x + h e_r) - g_c(x - h e_r)) / 2h with r the larger and c
// the smaller of row and column. r > NumVar() warns "Hessian row or column
// number can't exceed Hessian dimension" and returns the largest finite
// double. r == NumVar() is not rejected: the caller keeps indices below n.
LXOPT_API double NumericHessianElement(LxFunc1& func, const double* x, unsigned int row,
                                       unsigned int column, double h = kLxHessianStep);

// The displaced gradients along variable `index`, for assembling a Hessian
// later (perhaps from records made elsewhere) with the NumericHessian below.
// index >= NumVar() warns "Index passed is outside the variables range" and
// returns the record with empty arrays.
LXOPT_API GradDiff DifferentialGradients(LxFunc1& func, const double* x, unsigned int index,
                                         double h = kLxHessianStep);

// Adds (gplus[j] - gminus[j]) / denominator to the packed element (i, j) for
// each record (i its index) and every j <= i, in order; records for the same
// index add up, rows without a record are left alone, and a record whose
// arrays hold fewer than index + 1 entries (a failed one) adds nothing.
// A null hessian warns "Hessian array is not allocated", an empty list warns
// "Numeriv Hessian failed: container with differential gradients is empty";
// both return false without touching hessian.
LXOPT_API bool NumericHessian(const std::vector<GradDiff>& records, double* hessian);

// Gives a value-only objective a gradient: NumVar, the value and
// GetFComponents forward to *func (borrowed, not null); the gradient is
// NumericGradients with the default step, written (not added) into grad.
class LXOPT_API NumericFunc1 : public LxFunc1 {
 public:
  // func: the wrapped objective, borrowed for the wrapper's lifetime.
  explicit NumericFunc1(LxFunc0* func) : func_(func) {}
  using LxFunc1::operator();
  unsigned int NumVar() const override { return func_->NumVar(); }
  double operator()(const double* x) override { return (*func_)(x); }
  // Returns f(x); Out: grad receives the central-difference gradient
  // (2n + 1 value evaluations).
  double operator()(const double* x, double* grad) override;
  std::vector<LxFComponent> GetFComponents(const double* x) override {
    return func_->GetFComponents(x);
  }

 private:
  LxFunc0* func_;
};

}  // namespace LxOpt

#endif  // LXOPT_NUMERIC_H
