// A user objective with a gradient, minimized by steepest descent with a
// checkpoint that prints each iteration.
#include <lxopt/lxopt.h>

#include <cstdio>

// f(x, y) = (x - 3)^2 + 10 (y + 1)^2
class Bowl : public LxOpt::LxFunc1 {
 public:
  using LxOpt::LxFunc1::operator();
  unsigned int NumVar() const override { return 2; }
  double operator()(const double* x) override {
    return (x[0] - 3) * (x[0] - 3) + 10 * (x[1] + 1) * (x[1] + 1);
  }
  double operator()(const double* x, double* grad) override {
    grad[0] = 2 * (x[0] - 3);
    grad[1] = 20 * (x[1] + 1);
    return (*this)(x);
  }
  std::vector<LxOpt::LxFComponent> GetFComponents(const double* x) override {
    return {{"bowl", (*this)(x)}};
  }
};

class PrintEachIteration : public LxOpt::LxCheckpoint1 {
 public:
  using LxOpt::LxCheckpoint1::operator();
  bool operator()(unsigned int iter, unsigned int, double f, double gnorm, const double* x,
                  const double*, unsigned int state) override {
    std::printf("%4u  f = %.6e  |g| = %.3e  x = (%.5f, %.5f)  %s\n", iter, f, gnorm, x[0], x[1],
                LxOpt::LxGetStateName(state));
    return true;  // keep going
  }
};

int main() {
  Bowl bowl;
  PrintEachIteration checkpoint;
  LxOpt::LxSteepestDescentOpt optimizer;
  optimizer.SetTolerance(1e-10);  // stop when the squared gradient norm is below this
  optimizer.SetIterLimit(200);

  const double start[2] = {0.0, 0.0};
  double out[2];
  const double f = optimizer(bowl, &checkpoint, start, out);
  std::printf("minimum %.3e at (%.6f, %.6f)\n", f, out[0], out[1]);
  return f < 1e-8 ? 0 : 1;
}
