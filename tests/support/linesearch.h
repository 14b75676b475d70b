// Test support for line minimizers and the optimizers that use them: a
// one-variable polynomial that logs where it was evaluated, an objective whose
// values are not numbers, a scripted line minimizer that logs its calls and a
// checkpoint that stops a run after a number of reports.
#ifndef LXOPT_TESTS_SUPPORT_LINESEARCH_H
#define LXOPT_TESTS_SUPPORT_LINESEARCH_H

#include <lxopt/lxopt.h>

#include <algorithm>
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

// A line minimizer whose outcome the test decides: the calls in failOn
// (counted from 1) fail at once, touching nothing; the others go to an
// LxCGLineMinimize or, with parabola set, take the trial step, then the
// minimum of the parabola through the two slopes if they differ, and succeed
// if the value fell. Logs every call and every SetMaxStep point; copies share
// the log, so the optimizer's copy reports here.
class ScriptedSearch : public LxOpt::LxLineMinimize {
 public:
  using Vec = std::vector<double>;
  struct Log {
    Vec steps, left;  // the trial step on entry; the step left on return
    std::vector<Vec> starts, dirs, grads, maxStepCalls;
  };
  explicit ScriptedSearch(std::set<int> failOn = {}, bool parabola = false)
      : failOn_(std::move(failOn)), parabola_(parabola), log_(std::make_shared<Log>()) {}
  bool operator()(unsigned int n, const double* x0, double* dir, double* grad0, double* gradOut,
                  double* fval, double* step, LxOpt::LxFunc1& func) const override {
    log_->steps.push_back(*step);
    log_->starts.emplace_back(x0, x0 + n);
    log_->dirs.emplace_back(dir, dir + n);
    log_->grads.emplace_back(grad0, grad0 + n);
    const bool ok =
        failOn_.count(static_cast<int>(log_->steps.size())) == 0 &&
        (parabola_ ? Parabola(n, x0, dir, grad0, gradOut, fval, step, func)
                   : LxOpt::LxCGLineMinimize()(n, x0, dir, grad0, gradOut, fval, step, func));
    log_->left.push_back(*step);
    return ok;
  }
  bool SetMaxStep(unsigned int n, double* x) override {
    log_->maxStepCalls.emplace_back(x, x + n);
    return false;
  }
  LxOpt::LxLineMinimize* CreateCopy() const override { return new ScriptedSearch(*this); }
  const Log& log() const { return *log_; }

 private:
  static bool Parabola(unsigned int n, const double* x0, const double* d, const double* g0,
                       double* gradOut, double* fval, double* step, LxOpt::LxFunc1& func) {
    Vec x(n), g(n);
    auto evaluate = [&](double a) {
      for (unsigned int i = 0; i < n; ++i) x[i] = x0[i] + a * d[i];
      return func(x.data(), g.data());
    };
    auto slope = [&](const double* v) {
      double s = 0.0;
      for (unsigned int i = 0; i < n; ++i) s += v[i] * d[i];
      return s;
    };
    double a = *step, f = evaluate(a);
    const double slope0 = slope(g0), slope1 = slope(g.data());
    if (slope1 != slope0) f = evaluate(a *= slope0 / (slope0 - slope1));
    if (!(f < *fval)) return false;
    std::copy(g.begin(), g.end(), gradOut);
    *fval = f;
    *step = a;
    return true;
  }

  std::set<int> failOn_;
  bool parabola_;
  std::shared_ptr<Log> log_;
};

// Answers false to the state-0 reports after the first `count`.
class StopAfter : public LxOpt::LxCheckpoint1 {
 public:
  explicit StopAfter(unsigned long count) : left_(count) {}
  using LxOpt::LxCheckpoint1::operator();
  bool operator()(unsigned int, unsigned int, double, double, const double*, const double*,
                  unsigned int state) override {
    return state != 0 || left_-- > 0;
  }

 private:
  unsigned long left_;
};

}  // namespace lxtest

#endif  // LXOPT_TESTS_SUPPORT_LINESEARCH_H
