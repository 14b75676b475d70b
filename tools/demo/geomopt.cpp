// The geometry BFGS driver: a row of the table, and a 13-atom Lennard-Jones
// cluster relaxed from a perturbed icosahedron with LxBFGSCheckpoint
// printing its cycle lines.
#include <cmath>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "demo/demo.h"

namespace demo {
namespace {

constexpr double kIcosahedronMinimum = -44.326801;  // LJ13, reduced units

// E = 4 sum_{i<j} (r^-12 - r^-6) over atoms given as (x, y, z) triples.
class LennardJones : public Objective {
 public:
  using Objective::operator();
  explicit LennardJones(unsigned int atoms) : atoms_(atoms) {}
  unsigned int NumVar() const override { return 3 * atoms_; }
  double operator()(const double* x) override {
    std::vector<double> g(NumVar());
    return (*this)(x, g.data());
  }
  double operator()(const double* x, double* g) override {
    for (unsigned int k = 0; k < NumVar(); ++k) g[k] = 0.0;
    double e = 0.0;
    for (unsigned int i = 0; i < atoms_; ++i) {
      for (unsigned int j = i + 1; j < atoms_; ++j) {
        double d[3], r2 = 0.0;
        for (int k = 0; k < 3; ++k) {
          d[k] = x[3 * i + k] - x[3 * j + k];
          r2 += d[k] * d[k];
        }
        const double inv6 = 1.0 / (r2 * r2 * r2);
        e += 4.0 * (inv6 * inv6 - inv6);
        const double dEdrOverR = (-48.0 * inv6 * inv6 + 24.0 * inv6) / r2;
        for (int k = 0; k < 3; ++k) {
          g[3 * i + k] += dEdrOverR * d[k];
          g[3 * j + k] -= dEdrOverR * d[k];
        }
      }
    }
    return e;
  }

 private:
  unsigned int atoms_;
};

// A centred icosahedron of radius 1.1, every coordinate moved by up to 0.1.
std::vector<double> PerturbedIcosahedron() {
  const double phi = (1.0 + std::sqrt(5.0)) / 2.0;
  const double scale = 1.1 / std::sqrt(1.0 + phi * phi);
  std::vector<double> x = {0.0, 0.0, 0.0};
  for (double a : {-1.0, 1.0})
    for (double b : {-phi, phi}) {
      for (double v : {0.0, a, b}) x.push_back(v * scale);
      for (double v : {a, b, 0.0}) x.push_back(v * scale);
      for (double v : {b, 0.0, a}) x.push_back(v * scale);
    }
  std::mt19937 engine(2024);
  std::uniform_real_distribution<double> shift(-0.1, 0.1);
  for (double& v : x) v += shift(engine);
  return x;
}

void RelaxCluster(const Options&) {
  LennardJones cluster(13);
  const std::vector<double> start = PerturbedIcosahedron();
  std::vector<double> ref = start, out(start.size());

  // The checkpoint's lines are informational messages: show them here.
  LxOpt::LxMessageSink previous = LxOpt::LxSetMessageSink(
      [](LxOpt::LxMessageLevel level, const std::string& text) {
        std::printf("  %s%s\n", level == LxOpt::LxMessageLevel::Info ? "" : "warning: ",
                    text.c_str());
      });
  LxOpt::LxBFGSCheckpoint checkpoint;
  checkpoint.SetParams("Energy", ref.data(), static_cast<unsigned int>(ref.size()), nullptr,
                       true, &LxOpt::lxout);
  LxOpt::LxBFGSOptimizer opt;
  opt.SetTolerance(1e-4);
  std::fflush(stdout);
  const double e = opt(cluster, &checkpoint, start.data(), out.data());
  LxOpt::lxout.flush();
  LxOpt::LxSetMessageSink(previous);
  std::printf("  LJ13 from a perturbed icosahedron: E = %.6f (known minimum %.6f), "
              "state %s\n",
              e, kIcosahedronMinimum, LxOpt::LxGetStateName(checkpoint.GetLastState()));
}

LxOpt::LxBFGSOptimizer Configured() {
  LxOpt::LxBFGSOptimizer opt;
  opt.SetTolerance(1e-6);
  return opt;
}

const Register table(Optimizer{50, "GeometryBFGS", false, RunWith(Configured())});
const Register section(Section{50, "lj13", RelaxCluster});

}  // namespace
}  // namespace demo
