// dlib's find_min with its bfgs, lbfgs (8 pairs), cg and newton search
// strategies. dlib's
// stop strategies take a callable in their place, so the common rule is our
// own: continue while |g| >= 1e-6 (Euclidean) and fewer than 5000 iterations;
// it also counts the iterations. dlib asks for value, gradient and Hessian
// through separate callables, each counted on its own.
// GCC sees dlib's lbfgs history nodes as maybe uninitialized when its copy is
// inlined here; dlib initializes them before use.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <dlib/optimization.h>
#pragma GCC diagnostic pop

#include <chrono>
#include <limits>

#include "harness.h"

namespace lxbench {
namespace {

using Column = dlib::matrix<double, 0, 1>;

constexpr unsigned long kLBFGSMemory = 8;  // as LxLBFGSOpt's default

class GradientStop {
 public:
  GradientStop(long* iterations, std::string* status)
      : iterations_(iterations), status_(status), start_(std::chrono::steady_clock::now()) {}

  template <class T>
  bool should_continue_search(const T&, double, const T& g) {
    if (dlib::length(g) < kGradientTolerance) {
      *status_ = "Gradient";
      return false;
    }
    if (*iterations_ >= long(kIterLimit)) {
      *status_ = "MaxIter";
      return false;
    }
    if (std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count() >
        kRunSecondsLimit) {
      *status_ = "TimeLimit";
      return false;
    }
    ++*iterations_;
    return true;
  }

 private:
  long* iterations_;
  std::string* status_;
  std::chrono::steady_clock::time_point start_;
};

template <class Strategy>
Outcome RunDlib(Counting& f, Strategy strategy) {
  const std::vector<double> start = f.problem().Start();
  const long n = long(start.size());
  Column x(n);
  for (long i = 0; i < n; ++i) x(i) = start[i];
  auto value = [&f](const Column& v) { return f(&v(0)); };
  auto gradient = [&f, n](const Column& v) {
    Column g(n);
    f.Gradient(&v(0), &g(0));
    return g;
  };
  Outcome o;
  try {
    dlib::find_min(strategy, GradientStop(&o.iterations, &o.status), value, gradient, x,
                   -std::numeric_limits<double>::infinity());
  } catch (const std::exception&) {
    o.status = "NonFinite";
  }
  o.x.assign(&x(0), &x(0) + n);
  return o;
}

// The full Hessian from the packed lower triangle.
dlib::matrix<double> FullHessian(Counting& f, const Column& v) {
  const long n = v.size();
  std::vector<double> packed(size_t(n) * (n + 1) / 2, 0.0), g(n, 0.0);
  f(&v(0), packed.data(), g.data());
  dlib::matrix<double> h(n, n);
  for (long i = 0; i < n; ++i)
    for (long j = 0; j <= i; ++j) h(i, j) = h(j, i) = packed[size_t(i) * (i + 1) / 2 + j];
  return h;
}

}  // namespace

std::vector<Method> DlibMethods() {
  return {
      {"dlib", "cg", "CG", [](Counting& f) { return RunDlib(f, dlib::cg_search_strategy()); }},
      {"dlib", "bfgs", "QN", [](Counting& f) { return RunDlib(f, dlib::bfgs_search_strategy()); }},
      {"dlib", "lbfgs", "QN",
       [](Counting& f) { return RunDlib(f, dlib::lbfgs_search_strategy(kLBFGSMemory)); }},
      {"dlib", "newton", "Newton", [](Counting& f) {
         auto hessian = [&f](const Column& v) { return FullHessian(f, v); };
         return RunDlib(f, dlib::newton_search_strategy(hessian));
       }}};
}

}  // namespace lxbench
