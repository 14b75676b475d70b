// Coordinate objectives and the rigid-body pose adaptor.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <memory>
#include <tuple>

#include "support/problems.h"

namespace {

using namespace LxOpt;
using Vec = std::vector<double>;

// A nonlinear field over the points: sum_k |x_k - c_k|² + sin(x_kx) x_ky + 0.1 x_kz³.
struct Field : LxCoordFunc1 {
  using LxCoordFunc1::operator();
  explicit Field(Vec centre) : centre(std::move(centre)) {}
  const char* Name() const override { return "field"; }
  unsigned int NumCoords() const override { return static_cast<unsigned int>(centre.size() / 3); }
  LxCoordFunc1* CreateCopy() const override { return new Field(*this); }
  double operator()(const double* x) override { return (*this)(x, nullptr); }
  double operator()(const double* x, double* g) override {  // g added to unless null
    double f = 0.0;
    for (size_t k = 0; k < centre.size(); k += 3) {
      const double* p = x + k;
      for (size_t i = 0; i < 3; ++i) f += (p[i] - centre[k + i]) * (p[i] - centre[k + i]);
      f += std::sin(p[0]) * p[1] + 0.1 * p[2] * p[2] * p[2];
      if (!g) continue;
      for (size_t i = 0; i < 3; ++i) g[k + i] += 2.0 * (p[i] - centre[k + i]);
      g[k] += std::cos(p[0]) * p[1], g[k + 1] += std::sin(p[0]), g[k + 2] += 0.3 * p[2] * p[2];
    }
    return f;
  }
  Vec centre;
};

Vec RandomVector(MtRng& rng, size_t n, double low, double high) {
  Vec v(n);
  for (double& e : v) e = LxUniformDoubleRNG(low, high)(rng);
  return v;
}

struct Pose : ::testing::Test {
  MtRng rng{2024};
  Vec ref = RandomVector(rng, 3 * 6, -1.5, 1.5);
  Field field{RandomVector(rng, 3 * 6, -1.0, 1.0)};
  LxCoordQuatAdapt1 adaptor{field, ref};  // owns a copy of field
};

TEST_F(Pose, GradientMatchesCentralDifferencesAndHasNoPartAlongQ) {
  LxUniformDoubleRNG scale(0.2, 3.0);
  for (int trial = 0; trial < 20; ++trial) {
    Vec v = RandomVector(rng, 7, -1.0, 1.0), g(7, 0.0);
    const double lambda = scale(rng);  // unnormalised quaternions
    for (int i = 0; i < 4; ++i) v[i] *= lambda;
    const double f = adaptor(v.data(), g.data());
    EXPECT_NEAR(f, adaptor(v.data()), 1e-12 * (1 + std::fabs(f)));
    Vec w = v;  // the value ignores q's length and sign
    double alongQ = 0.0;
    for (int i = 0; i < 4; ++i) alongQ += g[i] * v[i] / lambda, w[i] *= trial % 2 ? -2.5 : 40.0;
    EXPECT_NEAR(alongQ, 0.0, 1e-10);
    EXPECT_NEAR(adaptor(w.data()), f, 1e-11 * (1 + std::fabs(f)));
    Vec numeric(7, 0.0);
    NumericGradients(adaptor, v.data(), numeric.data(), 1e-6);
    for (int i = 0; i < 7; ++i)
      EXPECT_NEAR(g[i], numeric[i], 1e-6 * (1 + std::fabs(numeric[i]))) << trial << " " << i;
  }
}

TEST_F(Pose, IdentityPoseKnownTurnsComponentsAndZeroQuaternion) {
  const double identity[7] = {1, 0, 0, 0, 0, 0, 0};
  EXPECT_EQ(adaptor(identity), field(ref));
  const std::vector<LxFComponent> c = adaptor.GetFComponents(identity);
  ASSERT_EQ(c.size(), 1u);
  EXPECT_TRUE(c[0].name == "field" && c[0].value == field(ref));
  // Each case: the pose, a point, where the pose moves it.
  for (const auto& [v, point, expected] : std::vector<std::array<Vec, 3>>{
           {{{0, 0, 0, 3, 0, 0, 0}, {1, 2, 3}, {-1, -2, 3}}},  // 180 degrees about z, |q| = 3
           {{{2, 2, 0, 0, 0, 0, 1}, {0, 1, 0}, {0, 0, 2}}},    // 90 degrees about x, |q|² = 8
           {{{1, 1, 1, 1, 0, 0, 0}, {1, 0, 0}, {0, 1, 0}}},    // 120 degrees about (1,1,1)
           {{{0, 0, 0, 0, 7, 8, 9}, {1, 2, 3}, {7, 8, 9}}},    // zero quaternion collapses
       }) {
    Vec p = point;
    LxCoordQuatAdapt1::ApplyTransform(p, v);
    for (int i = 0; i < 3; ++i) EXPECT_NEAR(p[i], expected[i], 1e-14) << i;
  }
  const double v[7] = {0, 0, 0, 0, 0.3, -0.2, 0.1};
  Vec collapsed = ref;  // every point on t
  LxCoordQuatAdapt1::ApplyTransform(collapsed, v);
  lxtest::MessageCapture capture;
  EXPECT_EQ(adaptor(v), field(collapsed));  // the value: no message
  Vec g(7, 1.0);
  EXPECT_TRUE(adaptor(v, g.data()) == 0.0 && g == Vec(7, 0.0));  // the gradient: zeroed, a warning
  EXPECT_EQ(capture.Texts(), std::vector<std::string>{"Q == 0.0 in quat adaptor"});
}

TEST_F(Pose, OwningCopiesWhileBorrowingFollowsTheCaller) {
  const double v[7] = {0.9, 0.1, -0.3, 0.2, 0.1, 0.2, 0.3};
  auto caller = std::make_unique<Field>(field);
  LxCoordQuatAdapt1 owning(*caller, ref.data()), borrowing(caller.get(), ref.data());
  const double before = owning(v);
  EXPECT_EQ(borrowing(v), before);
  caller->centre[0] += 1.0;
  EXPECT_NE(borrowing(v), before);
  LxCoordQuatAdapt1 copy(owning);
  caller.reset();
  EXPECT_EQ(std::make_pair(owning(v), copy(v)), std::make_pair(before, before));
}

// Records the gradient and component at start, writes start + 0.5 and returns the value.
struct Probe : LxSteepestDescentOpt {
  using LxSteepestDescentOpt::operator();
  double operator()(LxFunc1& f, LxCheckpoint1*, const double* start, double* out) override {
    component = f.GetFComponents(start)[0].value;
    f(start, grad.data());
    for (int i = 0; i < 7; ++i) out[i] = start[i] + 0.5;
    return f(start);
  }
  double component = 0;
  Vec grad = Vec(7, 0.0);
};

TEST_F(Pose, MinimizeReturnsTheNegatedMinimumMaximizeTheMaximum) {
  const Vec start = {0.8, 0.2, 0.1, -0.4, 0.3, 0.0, -0.2};
  Vec v = start, g(7, 0.0);
  const double f = adaptor(v.data(), g.data());
  Probe probe;
  EXPECT_EQ(adaptor.Minimize(v, probe), -f);
  EXPECT_TRUE(v[6] == start[6] + 0.5 && probe.grad == g);  // the result lands in v
  v = start;
  probe.grad.assign(7, 0.0);
  EXPECT_EQ(adaptor.Maximize(v.data(), probe), f);
  for (double& e : g) e = -e;
  EXPECT_TRUE(probe.grad == g && probe.component == f);  // components are not negated
}

}  // namespace
