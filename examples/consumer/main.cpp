// Minimizes a quadratic with an installed copy of the library.
#include <lxopt/lxopt.h>

#include <cstdio>

namespace {

class Bowl : public LxOpt::LxFunc1 {
 public:
  unsigned int NumVar() const override { return 2; }
  double operator()(const double* x) override {
    return (x[0] - 1) * (x[0] - 1) + 2 * (x[1] + 2) * (x[1] + 2);
  }
  double operator()(const double* x, double* g) override {
    g[0] = 2 * (x[0] - 1);
    g[1] = 4 * (x[1] + 2);
    return (*this)(x);
  }
  std::vector<LxOpt::LxFComponent> GetFComponents(const double* x) override {
    return {{"bowl", (*this)(x)}};
  }
};

}  // namespace

int main() {
  Bowl bowl;
  LxOpt::LxSteepestDescentOpt opt;
  opt.SetTolerance(1e-12);
  const double start[2] = {0.0, 0.0};
  double out[2];
  const double f = opt(bowl, start, out);
  std::printf("LxOpt %s: f = %.3g at (%.4f, %.4f)\n", LxOpt::LxOptGetRelease(), f, out[0], out[1]);
  return f < 1e-8 ? 0 : 1;
}
