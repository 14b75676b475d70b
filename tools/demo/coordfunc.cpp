// The test objective at three sizes (with a numeric Hessian, so the Newton
// optimizers can run on it too) and a rigid-body pose fit through the
// quaternion adaptor.
#include <cmath>
#include <cstdio>
#include <string>
#include <utility>

#include "demo/demo.h"

namespace demo {
namespace {

// LxTestF with its analytic gradient and a Hessian by central differences of
// that gradient.
class TestFunction : public Objective {
 public:
  using Objective::operator();
  explicit TestFunction(unsigned int n) : f_(n) {}
  unsigned int NumVar() const override { return f_.NumVar(); }
  double operator()(const double* x) override { return f_(x); }
  double operator()(const double* x, double* g) override { return f_(x, g); }
  std::vector<LxOpt::LxFComponent> GetFComponents(const double* x) override {
    return f_.GetFComponents(x);
  }
  bool operator()(const double* x, double* h, double* g) override {
    f_(x, g);
    LxOpt::NumericHessian(f_, x, h);
    return true;
  }

 private:
  LxOpt::LxTestF f_;
};

// The customary start of curved-valley problems: (-1.2, 1, -1.2, 1, ...).
std::vector<double> ValleyStart(unsigned int n) {
  std::vector<double> x(n);
  for (unsigned int i = 0; i < n; ++i) x[i] = i % 2 ? 1.0 : -1.2;
  return x;
}

Problem TestProblem(int order, unsigned int n) {
  return Problem{order,
                 "test function n=" + std::to_string(n),
                 [n] { return std::make_unique<TestFunction>(n); },
                 ValleyStart(n),
                 true,
                 0.0};
}

// sum_k |x_k - target_k|² over the points' coordinates.
class HarmonicFit : public LxOpt::LxCoordFunc1 {
 public:
  using LxOpt::LxCoordFunc1::operator();
  explicit HarmonicFit(std::vector<double> targets) : targets_(std::move(targets)) {}
  const char* Name() const override { return "harmonic fit"; }
  unsigned int NumCoords() const override { return unsigned(targets_.size() / 3); }
  LxCoordFunc1* CreateCopy() const override { return new HarmonicFit(*this); }
  double operator()(const double* x) override {
    double f = 0;
    for (size_t i = 0; i < targets_.size(); ++i) f += (x[i] - targets_[i]) * (x[i] - targets_[i]);
    return f;
  }
  double operator()(const double* x, double* grad) override {
    for (size_t i = 0; i < targets_.size(); ++i) grad[i] += 2 * (x[i] - targets_[i]);
    return (*this)(x);
  }

 private:
  std::vector<double> targets_;
};

double AngleDegrees(const double* q) {
  const double norm = std::sqrt(q[0] * q[0] + q[1] * q[1] + q[2] * q[2] + q[3] * q[3]);
  return 2 * std::acos(std::fabs(q[0]) / norm) * 180 / std::acos(-1.0);
}

// 30 random points turned by 120 degrees about (1, 1, 1) (q = (1, 1, 1, 1),
// unnormalised) and shifted; the pose is fitted back from the identity.
void RigidFit(const Options&) {
  const unsigned int count = 30;
  LxOpt::MtRng rng(11);
  LxOpt::LxUniformDoubleRNG coordinate(-3.0, 3.0);
  std::vector<double> body(3 * count);
  for (double& c : body) c = coordinate(rng);
  const std::vector<double> truth = {1, 1, 1, 1, 2.0, -1.0, 0.5};
  std::vector<double> targets = body;
  LxOpt::LxCoordQuatAdapt1::ApplyTransform(targets, truth);
  LxOpt::LxCoordQuatAdapt1 pose(HarmonicFit(targets), body);
  std::printf("%d points, true angle %.4f deg, RMSD at the identity %.6f\n", count,
              AngleDegrees(truth.data()), LxOpt::LxRMSD(body.data(), targets.data(), count, false));

  LxOpt::LxSteepestDescentOpt steepest;
  LxOpt::LxBFGSOpt bfgs;
  const std::pair<const char*, LxOpt::LxOptimizer1*> runs[] = {{"SteepestDescent", &steepest},
                                                               {"BFGS", &bfgs}};
  for (const auto& run : runs) {
    run.second->SetTolerance(1e-12);
    std::vector<double> v = {1, 0, 0, 0, 0, 0, 0};
    const double score = -pose.Minimize(v, *run.second);
    std::vector<double> fitted = body;
    LxOpt::LxCoordQuatAdapt1::ApplyTransform(fitted, v);
    std::printf("  %-16s score %.3e  RMSD %.3e  angle %.6f deg  t = (%.5f, %.5f, %.5f)\n",
                run.first, score, LxOpt::LxRMSD(fitted.data(), targets.data(), count, false),
                AngleDegrees(v.data()), v[4], v[5], v[6]);
  }
}

const Register small(TestProblem(80, 2));
const Register medium(TestProblem(81, 10));
const Register large(TestProblem(82, 100));
const Register rigidFit(Section{80, "rigid-fit", RigidFit});

}  // namespace
}  // namespace demo
