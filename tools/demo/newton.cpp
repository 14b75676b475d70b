// The constrained Newton section: nearest points on a sphere, a plane and
// their intersection circle, each printed beside its known answer.
#include <array>
#include <cmath>
#include <cstdio>

#include "demo/demo.h"

namespace demo {
namespace {

using Vec3 = std::array<double, 3>;

// |x - p|^2: the nearest point to p wins.
class SquaredDistance : public Objective {
 public:
  using Objective::operator();
  explicit SquaredDistance(const Vec3& p) : p_(p) {}
  unsigned int NumVar() const override { return 3; }
  double operator()(const double* x) override {
    double f = 0.0;
    for (int i = 0; i < 3; ++i) f += (x[i] - p_[i]) * (x[i] - p_[i]);
    return f;
  }
  double operator()(const double* x, double* g) override {
    for (int i = 0; i < 3; ++i) g[i] = 2.0 * (x[i] - p_[i]);
    return (*this)(x);
  }
  bool operator()(const double* x, double* h, double* g) override {
    (*this)(x, g);
    h[0] = h[2] = h[5] = 2.0;
    return true;
  }

 private:
  Vec3 p_;
};

// |x|^2 - 1 = 0.
class UnitSphere : public LxOpt::LxConstrFunc {
 public:
  double operator()(const double* x, double* grad) override {
    for (int i = 0; i < 3; ++i) grad[i] = 2.0 * x[i];
    return x[0] * x[0] + x[1] * x[1] + x[2] * x[2] - 1.0;
  }
  unsigned int NumVar() const override { return 3; }
};

// x + y + z - 1 = 0.
class Plane : public LxOpt::LxConstrFunc {
 public:
  double operator()(const double* x, double* grad) override {
    for (int i = 0; i < 3; ++i) grad[i] = 1.0;
    return x[0] + x[1] + x[2] - 1.0;
  }
  unsigned int NumVar() const override { return 3; }
};

// Prints every report (used with --trace).
class TraceReports : public LxOpt::LxCheckpoint1 {
 public:
  using LxOpt::LxCheckpoint1::operator();
  bool operator()(unsigned int iter, unsigned int, double fval, double gnorm, const double*,
                  const double*, unsigned int s) override {
    std::printf("    iter %4u  f = %-+14.8e  rms = %-12.5e  %s\n", iter, fval, gnorm,
                LxOpt::LxGetStateName(s));
    return true;
  }
};

Vec3 Scaled(const Vec3& v, double s) {
  return {v[0] * s, v[1] * s, v[2] * s};
}
Vec3 Plus(const Vec3& a, const Vec3& b) {
  return {a[0] + b[0], a[1] + b[1], a[2] + b[2]};
}
double Norm(const Vec3& v) {
  return std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
}

// The nearest point of the plane x + y + z = 1 to p.
Vec3 OntoPlane(const Vec3& p) {
  return Plus(p, Scaled({1, 1, 1}, (1.0 - p[0] - p[1] - p[2]) / 3.0));
}

void RunCase(const char* name, const Vec3& p, std::vector<LxOpt::LxConstrFunc*> constraints,
             const Vec3& known, const Options& options) {
  SquaredDistance f(p);
  LxOpt::LxNewtonConstrOpt opt;
  opt.SetTolerance(1e-8);
  for (LxOpt::LxConstrFunc* c : constraints) opt.Add(*c);
  TraceReports trace;
  const double start[] = {0.5, 0.5, 0.5};
  Vec3 x{};
  const double value = opt(f, options.trace ? &trace : nullptr, start, x.data());
  const LxOpt::LxRunSummary& last = opt.LastRun();
  double worst = 0.0;
  std::vector<double> grad(3);
  for (LxOpt::LxConstrFunc* c : constraints)
    worst = std::fmax(worst, std::fabs((*c)(x.data(), grad.data())));
  std::printf("%-34s found (%+.9f, %+.9f, %+.9f)  f = %.9f  max|c| = %.1e  %s after %u\n", name,
              x[0], x[1], x[2], value, worst, LxOpt::LxGetStateName(last.state), last.iterations);
  std::printf("%-34s known (%+.9f, %+.9f, %+.9f)  f = %.9f\n", "", known[0], known[1], known[2],
              f(known.data()));
}

void RunConstrained(const Options& options) {
  UnitSphere sphere;
  Plane plane;
  const Vec3 p{2.0, 1.0, -2.0};
  RunCase("nearest to (2,1,-2) on |x| = 1", p, {&sphere}, Scaled(p, 1.0 / Norm(p)), options);
  const Vec3 q{2.0, 1.0, 3.0};
  RunCase("nearest to (2,1,3) on x+y+z = 1", q, {&plane}, OntoPlane(q), options);
  // On the circle where both meet: centre (1,1,1)/3, radius sqrt(2/3), in
  // the plane; the answer lies along the projection of p onto the plane.
  const Vec3 centre{1.0 / 3, 1.0 / 3, 1.0 / 3};
  const Vec3 radial = Plus(OntoPlane(p), Scaled(centre, -1.0));
  RunCase("nearest to (2,1,-2) on both", p, {&sphere, &plane},
          Plus(centre, Scaled(radial, std::sqrt(2.0 / 3.0) / Norm(radial))), options);
}

const Register constrained(Section{60, "constrained Newton", RunConstrained});

}  // namespace
}  // namespace demo
