// Shared pieces of the peer comparison: the counting wrapper every library
// evaluates through, the outcome of one run and the list of methods.
//
// Every evaluation a library asks for goes through Counting, so the counts
// are ours, not the libraries' own. A call that delivers value and gradient
// together counts one of each; a Hessian call counts one Hessian and one
// gradient (the library's interface delivers both).
#ifndef LXBENCH_PEERS_HARNESS_H
#define LXBENCH_PEERS_HARNESS_H

#include <functional>
#include <string>
#include <vector>

#include "../problems/problem.h"

namespace lxbench {

// The common stopping rule: Euclidean gradient norm and iteration limit.
constexpr double kGradientTolerance = 1e-6;
constexpr unsigned int kIterLimit = 5000;
// Peers whose loop we drive (GSL, dlib) also stop after this much wall time,
// which counts as not solved; it bounds a stalled dense run at n = 1000.
constexpr double kRunSecondsLimit = 60.0;

class Counting : public LxOpt::LxFunc2 {
 public:
  explicit Counting(Problem& p) : p_(p) {}

  using LxOpt::LxFunc2::operator();
  unsigned int NumVar() const override { return p_.NumVar(); }
  std::vector<LxOpt::LxFComponent> GetFComponents(const double* x) override {
    return p_.GetFComponents(x);
  }
  double operator()(const double* x) override {
    ++values;
    return p_(x);
  }
  double operator()(const double* x, double* grad) override {
    ++values;
    ++gradients;
    return p_(x, grad);
  }
  bool operator()(const double* x, double* hessian, double* grad) override {
    ++gradients;
    ++hessians;
    return p_(x, hessian, grad);
  }
  // The gradient alone (for interfaces that ask for it separately).
  void Gradient(const double* x, double* grad) {
    ++gradients;
    p_(x, grad);
  }
  void Reset() { values = gradients = hessians = 0; }

  Problem& problem() { return p_; }

  long values = 0, gradients = 0, hessians = 0;

 private:
  Problem& p_;
};

// What one run leaves: the final point, the iterations the library made and
// its own word for how it ended.
struct Outcome {
  std::vector<double> x;
  long iterations = 0;
  std::string status;
};

struct Method {
  std::string library;  // "LxOpt", "GSL", "dlib"
  std::string name;
  std::string methodClass;  // "SD", "CG", "QN", "Newton"
  std::function<Outcome(Counting&)> run;
};

std::vector<Method> LxOptMethods();
std::vector<Method> GslMethods();
std::vector<Method> DlibMethods();

}  // namespace lxbench

#endif  // LXBENCH_PEERS_HARNESS_H
