// The table's basic problems: a curved valley (the benchmark set's first
// problem) and an ill-conditioned quadratic.
#include <cmath>

#include "demo/demo.h"
#include "problems/mgh.h"
#include "problems/problem.h"

namespace demo {
namespace {

// sum d_i (x_i - 1)^2 with d_i spread geometrically from 1 to 1000.
class IllConditionedQuadratic : public Objective {
 public:
  using Objective::operator();
  explicit IllConditionedQuadratic(unsigned int n) : d_(n) {
    for (unsigned int i = 0; i < n; ++i) d_[i] = std::pow(1000.0, double(i) / (n - 1));
  }
  unsigned int NumVar() const override { return static_cast<unsigned int>(d_.size()); }
  double operator()(const double* x) override {
    double f = 0.0;
    for (size_t i = 0; i < d_.size(); ++i) f += d_[i] * (x[i] - 1.0) * (x[i] - 1.0);
    return f;
  }
  double operator()(const double* x, double* g) override {
    for (size_t i = 0; i < d_.size(); ++i) g[i] = 2.0 * d_[i] * (x[i] - 1.0);
    return (*this)(x);
  }
  bool operator()(const double* x, double* h, double* g) override {
    (*this)(x, g);
    for (size_t i = 0; i < d_.size(); ++i) h[i * (i + 1) / 2 + i] = 2.0 * d_[i];
    return true;
  }

 private:
  std::vector<double> d_;
};

const Register valley(Problem{
    10,
    "curved valley",
    [] { return std::make_unique<lxbench::LeastSquares<lxbench::mgh::Rosenbrock>>(); },
    {-1.2, 1.0},
    true,
    0.0});
const Register quadratic(Problem{20, "ill-cond. quadratic",
                                 [] { return std::make_unique<IllConditionedQuadratic>(100); },
                                 std::vector<double>(100, 0.0), true, 0.0});

}  // namespace
}  // namespace demo
