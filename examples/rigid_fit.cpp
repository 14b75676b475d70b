// Recovers the pose of a rigid body: 30 points were turned and shifted by an
// unknown rotation and translation; a harmonic score pulls them back onto
// their targets, and the pose adaptor lets a general optimizer find the
// quaternion and translation that minimize it.
#include <lxopt/lxopt.h>

#include <cmath>
#include <cstdio>
#include <vector>

namespace {

const double kPi = std::acos(-1.0);

// score = sum_k |x_k - target_k|², over the coordinates of the points.
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

// Rotation angle in degrees of a quaternion of any non-zero length.
double AngleDegrees(const double* q) {
  const double norm = std::sqrt(q[0] * q[0] + q[1] * q[1] + q[2] * q[2] + q[3] * q[3]);
  return 2 * std::acos(std::fabs(q[0]) / norm) * 180 / kPi;
}

}  // namespace

int main() {
  const unsigned int count = 30;
  LxOpt::MtRng rng(7);
  LxOpt::LxUniformDoubleRNG coordinate(-3.0, 3.0);
  std::vector<double> body(3 * count);
  for (double& c : body) c = coordinate(rng);

  // The unknown pose: 70 degrees about (1, 2, -1), then a shift.
  const double half = 35 * kPi / 180, axis = std::sqrt(6.0);
  const double truth[7] = {std::cos(half),
                           std::sin(half) / axis,
                           2 * std::sin(half) / axis,
                           -std::sin(half) / axis,
                           4.0,
                           -2.5,
                           1.0};
  std::vector<double> targets = body;
  LxOpt::LxCoordQuatAdapt1::ApplyTransform(targets, truth);

  // The adaptor keeps its own copy of the score; variables (q0..q3, tx, ty, tz).
  LxOpt::LxCoordQuatAdapt1 pose(HarmonicFit(targets), body);
  std::vector<double> v = {1, 0, 0, 0, 0, 0, 0};  // start at the identity
  std::printf("RMSD before: %.6f\n", LxOpt::LxRMSD(body.data(), targets.data(), count, false));

  LxOpt::LxBFGSOpt optimizer;
  optimizer.SetTolerance(1e-14);                      // on the squared gradient norm
  const double score = -pose.Minimize(v, optimizer);  // Minimize returns -(minimum)

  std::vector<double> fitted = body;
  LxOpt::LxCoordQuatAdapt1::ApplyTransform(fitted, v);
  const double rmsd = LxOpt::LxRMSD(fitted.data(), targets.data(), count, false);
  std::printf("RMSD after:  %.2e  (score %.2e)\n", rmsd, score);
  std::printf("rotation angle: recovered %.6f deg, true %.6f deg\n", AngleDegrees(v.data()),
              AngleDegrees(truth));
  std::printf("translation: (%.6f, %.6f, %.6f)\n", v[4], v[5], v[6]);
  const bool ok = rmsd < 1e-5 && std::fabs(AngleDegrees(v.data()) - 70.0) < 1e-3;
  return ok ? 0 : 1;
}
