// Test support for line minimizers and the conjugate-gradient optimizers:
// a one-variable polynomial that logs where it was evaluated, an objective
// whose values are not numbers, and a line minimizer that fails on demand.
#ifndef LXOPT_TESTS_SUPPORT_LINESEARCH_H
#define LXOPT_TESTS_SUPPORT_LINESEARCH_H

#include <lxopt/lxopt.h>

#include <array>
#include <limits>
#include <memory>
#include <set>
#include <utility>
#include <vector>

#include "support/problems.h"

namespace lxtest {

// f(x) = c0 + c1 x + c2 x^2 + c3 x^3 in x[0] alone; logs every point.
class Poly1D : public Objective {
 public:
  using Objective::operator();
  explicit Poly1D(std::array<double, 4> c) : c_(c) {}
  unsigned int NumVar() const override { return 1; }
  double operator()(const double* x) override {
    points.push_back(x[0]);
    return F(x[0]);
  }
  double operator()(const double* x, double* g) override {
    ++gradientCalls;
    g[0] = Slope(x[0]);
    return (*this)(x);
  }
  double F(double t) const { return c_[0] + t * (c_[1] + t * (c_[2] + t * c_[3])); }
  double Slope(double t) const { return c_[1] + t * (2.0 * c_[2] + 3.0 * t * c_[3]); }
  std::vector<double> points;  // every evaluation, with or without gradient
  int gradientCalls = 0;

 private:
  std::array<double, 4> c_;
};

// One variable; value NaN everywhere, gradient -1.
class NotANumber : public Objective {
 public:
  using Objective::operator();
  unsigned int NumVar() const override { return 1; }
  double operator()(const double*) override {
    ++evaluations;
    return std::numeric_limits<double>::quiet_NaN();
  }
  double operator()(const double* x, double* g) override {
    g[0] = -1.0;
    return (*this)(x);
  }
  int evaluations = 0;
};

// An LxCGLineMinimize that returns false, touching nothing, on the calls
// (counted from 1) listed in failOn. Logs the entry step, direction and
// gradient of every call and the step it leaves; copies share the log, so
// the optimizer's copy reports here.
class FailOnDemand : public LxOpt::LxLineMinimize {
 public:
  explicit FailOnDemand(std::set<int> failOn = {})
      : failOn_(std::move(failOn)), log_(std::make_shared<Log>()) {}
  bool operator()(unsigned int n, const double* x0, double* dir, double* grad0, double* gradOut,
                  double* fval, double* step, LxOpt::LxFunc1& func) const override {
    log_->steps.push_back(*step);
    log_->dirs.emplace_back(dir, dir + n);
    log_->grads.emplace_back(grad0, grad0 + n);
    const bool ok = failOn_.count(static_cast<int>(log_->steps.size())) == 0 &&
                    LxOpt::LxCGLineMinimize()(n, x0, dir, grad0, gradOut, fval, step, func);
    log_->left.push_back(*step);
    return ok;
  }
  LxOpt::LxLineMinimize* CreateCopy() const override { return new FailOnDemand(*this); }
  const std::vector<double>& steps() const { return log_->steps; }
  const std::vector<std::vector<double>>& dirs() const { return log_->dirs; }
  const std::vector<std::vector<double>>& grads() const { return log_->grads; }
  const std::vector<double>& left() const { return log_->left; }

 private:
  struct Log {
    std::vector<double> steps, left;
    std::vector<std::vector<double>> dirs, grads;
  };
  std::set<int> failOn_;
  std::shared_ptr<Log> log_;
};

}  // namespace lxtest

#endif  // LXOPT_TESTS_SUPPORT_LINESEARCH_H
