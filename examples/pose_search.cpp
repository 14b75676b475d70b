// A rigid-body pose search: a small asymmetric body of four points is placed
// by a quaternion and a translation (LxCoordQuatAdapt1); its score rewards
// each point for sitting on its own site in either of two target placements
// of the body. The minimum finder draws random poses (LxRandomPosOrient),
// optimizes each and lists the distinct poses it found; both targets must be
// among them.
#include <lxopt/lxopt.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

using LxOpt::LxCoordQuatAdapt1;

// The body, centred on its centroid, so that rotation and translation do not
// mix.
std::vector<double> Body() {
  std::vector<double> p{0.0, 0.0, 0.0, 1.0, 0.0, 0.0, 0.0, 1.2, 0.0, 0.0, 0.0, 0.8};
  for (int axis = 0; axis < 3; ++axis) {
    double mean = 0.0;
    for (int k = 0; k < 4; ++k) mean += p[3 * k + axis] / 4.0;
    for (int k = 0; k < 4; ++k) p[3 * k + axis] -= mean;
  }
  return p;
}

// The body placed by v = (q0, q1, q2, q3, tx, ty, tz).
std::vector<double> Placed(const std::vector<double>& v) {
  std::vector<double> p = Body();
  LxCoordQuatAdapt1::ApplyTransform(p, v);
  return p;
}

struct Target {
  std::vector<double> pose;
  double weight;
};

// Two placements of the body: the deep one (weight 1) and a shallower one
// (weight 0.7) turned by 90 degrees about z.
const std::vector<Target>& Targets() {
  static const double h = std::sqrt(0.5);
  static const std::vector<Target> targets{
      {{1.0, 0.0, 0.0, 0.0, 2.0, 0.0, 0.0}, 1.0},
      {{h, 0.0, 0.0, h, -2.0, 1.0, 0.0}, 0.7},
  };
  return targets;
}

// score = sum_points sum_targets -w exp(-|p_i - s_i|^2 / (2 sigma^2))
//         + lambda sum_points |p_i|^2
// with s_i point i of a target placement; the weak confinement keeps the
// score from going flat far from the targets.
class SiteScore : public LxOpt::LxCoordFunc1 {
 public:
  using LxOpt::LxCoordFunc1::operator();
  SiteScore() {
    for (const Target& t : Targets()) sites_.push_back(Placed(t.pose));
  }
  const char* Name() const override { return "site score"; }
  unsigned int NumCoords() const override { return 4; }
  LxCoordFunc1* CreateCopy() const override { return new SiteScore(*this); }
  double operator()(const double* x) override { return Evaluate(x, nullptr); }
  double operator()(const double* x, double* grad) override { return Evaluate(x, grad); }

 private:
  static constexpr double kSigma2 = 0.5;  // sigma^2
  static constexpr double kLambda = 0.005;

  double Evaluate(const double* x, double* grad) const {
    double f = 0.0;
    for (unsigned int i = 0; i < 12; ++i) {
      f += kLambda * x[i] * x[i];
      if (grad) grad[i] += 2.0 * kLambda * x[i];
    }
    for (std::size_t t = 0; t < sites_.size(); ++t) {
      for (unsigned int k = 0; k < 4; ++k) {
        const double* p = x + 3 * k;
        const double* s = sites_[t].data() + 3 * k;
        const double d2 = (p[0] - s[0]) * (p[0] - s[0]) + (p[1] - s[1]) * (p[1] - s[1]) +
                          (p[2] - s[2]) * (p[2] - s[2]);
        const double e = -Targets()[t].weight * std::exp(-d2 / (2.0 * kSigma2));
        f += e;
        if (grad)
          for (int a = 0; a < 3; ++a) grad[3 * k + a] += -e * (p[a] - s[a]) / kSigma2;
      }
    }
    return f;
  }

  std::vector<std::vector<double>> sites_;
};

// The pose objective for the finder: the adaptor, with two poses counted as
// the same when they place the body alike (q and -q, or quaternions of
// different lengths, are the same placement).
class PoseScore : public LxOpt::LxFunc1 {
 public:
  using LxOpt::LxFunc1::operator();
  PoseScore() : adaptor_(SiteScore(), Body()) {}
  unsigned int NumVar() const override { return 7; }
  double operator()(const double* v) override { return adaptor_(v); }
  double operator()(const double* v, double* grad) override { return adaptor_(v, grad); }
  std::vector<LxOpt::LxFComponent> GetFComponents(const double* v) override {
    return adaptor_.GetFComponents(v);
  }
  bool IsRedundant(const double* a, const double* b, double tolerance) const override {
    const std::vector<double> pa = Placed({a, a + 7}), pb = Placed({b, b + 7});
    return LxOpt::LxRMSD(pa.data(), pb.data(), 4, false) < tolerance;
  }

 private:
  LxCoordQuatAdapt1 adaptor_;
};

}  // namespace

int main() {
  std::srand(2024);  // the orientations come from rand()
  PoseScore score;
  LxOpt::LxRandomPosOrient generator;
  LxOpt::LxMinfinder::LxMinfinder finder;
  finder.SetKeepDegenerateStates(true);  // poses are told apart by placement
  finder.SetSamePointTolerance(0.05);    // RMSD of the placed points
  finder.SetThresholdNumberOfNoChange(150);
  // The quaternion's bounds are never drawn from but the minima's are checked.
  const std::vector<double> lower{-1.5, -1.5, -1.5, -1.5, -4.0, -4.0, -4.0};
  const std::vector<double> upper{1.5, 1.5, 1.5, 1.5, 4.0, 4.0, 4.0};
  if (!finder.Setup(score, &generator, lower, upper) || !finder.Optimize()) return 1;

  std::vector<double> coords, values;
  if (!finder.GetMinimums(coords, values)) return 1;
  std::printf("%zu poses within the window (of %lu minima found):\n", values.size(),
              finder.GetImpl()->GetMinima().getNumPoints());
  std::printf("  %-10s %-38s %s\n", "score", "quaternion", "translation");
  bool found[2] = {false, false};
  for (std::size_t j = 0; j < values.size(); ++j) {
    const std::vector<double> v(coords.begin() + 7 * j, coords.begin() + 7 * j + 7);
    const double norm = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2] + v[3] * v[3]);
    const double sign = v[0] < 0 ? -1.0 : 1.0;  // q and -q are one rotation
    std::printf("  %-10.5f (%7.4f, %7.4f, %7.4f, %7.4f)   (%7.4f, %7.4f, %7.4f)", values[j],
                sign * v[0] / norm, sign * v[1] / norm, sign * v[2] / norm, sign * v[3] / norm,
                v[4], v[5], v[6]);
    for (std::size_t t = 0; t < Targets().size(); ++t) {
      const std::vector<double> a = Placed(v), b = Placed(Targets()[t].pose);
      if (LxOpt::LxRMSD(a.data(), b.data(), 4, false) < 0.1) {
        found[t] = true;
        std::printf("   <- target %zu", t + 1);
      }
    }
    std::printf("\n");
  }
  return found[0] && found[1] ? 0 : 1;
}
