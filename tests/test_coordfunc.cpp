// Coordinate objectives, the rigid-body pose adaptor and the test objective.
#include <gtest/gtest.h>
#include <lxopt/lxopt.h>

#include <cmath>
#include <memory>
#include <vector>

#include "support/problems.h"

namespace {

using LxOpt::LxCoordQuatAdapt1;

// A nonlinear field over the points: sum_k |x_k - c_k|² + sin(x_kx) x_ky + 0.1 x_kz³.
class Field : public LxOpt::LxCoordFunc1 {
 public:
  using LxOpt::LxCoordFunc1::operator();
  explicit Field(std::vector<double> centre) : centre(std::move(centre)) {}
  const char* Name() const override { return "field"; }
  unsigned int NumCoords() const override { return static_cast<unsigned int>(centre.size() / 3); }
  LxCoordFunc1* CreateCopy() const override { return new Field(*this); }
  double operator()(const double* x) override {
    ++values;
    return Value(x);
  }
  double operator()(const double* x, double* g) override {
    ++gradients;
    for (size_t i = 0; i < centre.size(); ++i) g[i] += 2.0 * (x[i] - centre[i]);
    for (size_t k = 0; k < centre.size(); k += 3) {
      g[k] += std::cos(x[k]) * x[k + 1];
      g[k + 1] += std::sin(x[k]);
      g[k + 2] += 0.3 * x[k + 2] * x[k + 2];
    }
    return Value(x);
  }
  double Value(const double* x) const {
    double f = 0.0;
    for (size_t i = 0; i < centre.size(); ++i) f += (x[i] - centre[i]) * (x[i] - centre[i]);
    for (size_t k = 0; k < centre.size(); k += 3)
      f += std::sin(x[k]) * x[k + 1] + 0.1 * x[k + 2] * x[k + 2] * x[k + 2];
    return f;
  }
  std::vector<double> centre;
  int values = 0, gradients = 0;
};

std::vector<double> RandomVector(LxOpt::MtRng& rng, size_t n, double low, double high) {
  LxOpt::LxUniformDoubleRNG u(low, high);
  std::vector<double> v(n);
  for (double& e : v) e = u(rng);
  return v;
}

struct PoseFixture : ::testing::Test {
  LxOpt::MtRng rng{2024};
  std::vector<double> ref = RandomVector(rng, 3 * 6, -1.5, 1.5);
  Field field{RandomVector(rng, 3 * 6, -1.0, 1.0)};
};

TEST(CoordFunc, ComponentsAndConveniences) {
  Field empty({});
  EXPECT_EQ(empty.NumVar(), 0u);
  std::vector<LxOpt::LxFComponent> c = empty.GetFComponents(nullptr);
  ASSERT_EQ(c.size(), 1u);
  EXPECT_EQ(c[0].name, "field");
  EXPECT_EQ(c[0].value, 0.0);

  Field f({1, 2, 3, 4, 5, 6});
  const std::vector<double> x = {0.5, -1, 2, 0, 1, 3};
  std::vector<double> g(6, 0.0), graw(6, 0.0);
  EXPECT_EQ(f.NumVar(), 6u);
  c = f.GetFComponents(x.data());
  EXPECT_EQ(f.values, 1);
  EXPECT_EQ(f.gradients, 0);
  EXPECT_EQ(c[0].value, f(x));
  EXPECT_EQ(f(x, g), f(x.data(), graw.data()));
  EXPECT_EQ(g, graw);
}

TEST_F(PoseFixture, GradientMatchesCentralDifferencesAndHasNoPartAlongQ) {
  LxCoordQuatAdapt1 adaptor(field, ref);
  ASSERT_EQ(adaptor.NumVar(), 7u);
  LxOpt::LxUniformDoubleRNG scale(0.2, 3.0);
  for (int trial = 0; trial < 20; ++trial) {
    std::vector<double> v = RandomVector(rng, 7, -1.0, 1.0);
    const double lambda = scale(rng);  // unnormalised quaternions
    for (int i = 0; i < 4; ++i) v[i] *= lambda;
    std::vector<double> g(7, 0.0);
    const double f = adaptor(v.data(), g.data());
    EXPECT_NEAR(f, adaptor(v.data()), 1e-12 * (1 + std::fabs(f)));
    double alongQ = 0.0, qq = 0.0;
    for (int i = 0; i < 4; ++i) alongQ += g[i] * v[i], qq += v[i] * v[i];
    EXPECT_NEAR(alongQ / std::sqrt(qq), 0.0, 1e-10);
    for (int i = 0; i < 7; ++i) {
      const double h = 1e-6;
      std::vector<double> vp = v, vm = v;
      vp[i] += h, vm[i] -= h;
      const double numeric = (adaptor(vp.data()) - adaptor(vm.data())) / (2 * h);
      EXPECT_NEAR(g[i], numeric, 1e-6 * (1 + std::fabs(numeric)))
          << "trial " << trial << " i " << i;
    }
    for (double factor : {-2.5, 0.01, 40.0}) {
      std::vector<double> w = v;
      for (int i = 0; i < 4; ++i) w[i] *= factor;
      EXPECT_NEAR(adaptor(w.data()), f, 1e-11 * (1 + std::fabs(f))) << factor;
    }
  }
}

TEST_F(PoseFixture, IdentityPoseAndKnownTurns) {
  LxCoordQuatAdapt1 adaptor(field, ref);
  const double identity[7] = {1, 0, 0, 0, 0, 0, 0};
  EXPECT_EQ(adaptor(identity), field(ref));
  EXPECT_EQ(adaptor.GetFComponents(identity)[0].name, "field");
  EXPECT_EQ(adaptor.GetFComponents(identity)[0].value, field(ref));

  struct Case {
    std::vector<double> v, point, expected;
  };
  const Case cases[] = {
      {{1, 0, 0, 0, 0.5, -1, 2}, {1, 2, 3}, {1.5, 1, 5}},
      {{0, 0, 0, 3, 0, 0, 0}, {1, 2, 3}, {-1, -2, 3}},  // 180 degrees about z, |q| = 3
      {{2, 2, 0, 0, 0, 0, 1}, {0, 1, 0}, {0, 0, 2}},    // 90 degrees about x, |q|² = 8
      {{1, 1, 1, 1, 0, 0, 0}, {1, 0, 0}, {0, 1, 0}},    // 120 degrees about (1,1,1)
      {{0, 0, 0, 0, 7, 8, 9}, {1, 2, 3}, {7, 8, 9}},    // zero quaternion collapses
  };
  for (const Case& c : cases) {
    std::vector<double> p = c.point;
    LxCoordQuatAdapt1::ApplyTransform(p, c.v);
    for (int i = 0; i < 3; ++i) EXPECT_NEAR(p[i], c.expected[i], 1e-14) << i;
  }
}

TEST_F(PoseFixture, ZeroQuaternion) {
  LxCoordQuatAdapt1 adaptor(&field, ref);
  const double v[7] = {0, 0, 0, 0, 0.3, -0.2, 0.1};
  std::vector<double> collapsed;
  for (unsigned int k = 0; k < field.NumCoords(); ++k)
    collapsed.insert(collapsed.end(), v + 4, v + 7);
  lxtest::MessageCapture capture;
  EXPECT_EQ(adaptor(v), field(collapsed));
  EXPECT_TRUE(capture.messages.empty());
  double g[7] = {1, 1, 1, 1, 1, 1, 1};
  EXPECT_EQ(adaptor(v, g), 0.0);
  EXPECT_EQ(std::vector<double>(g, g + 7), std::vector<double>(7, 0.0));
  EXPECT_EQ(capture.Texts(), std::vector<std::string>{"Q == 0.0 in quat adaptor"});
  EXPECT_EQ(capture.messages[0].level, LxOpt::LxMessageLevel::Warning);
}

TEST_F(PoseFixture, OwningCopiesWhileBorrowingFollowsTheCaller) {
  const double v[7] = {0.9, 0.1, -0.3, 0.2, 0.1, 0.2, 0.3};
  auto caller = std::make_unique<Field>(field);
  LxCoordQuatAdapt1 owning(*caller, ref.data());
  LxCoordQuatAdapt1 borrowing(caller.get(), ref.data());
  const double before = owning(v);
  EXPECT_EQ(borrowing(v), before);
  caller->centre[0] += 1.0;
  EXPECT_NE(borrowing(v), before);
  LxCoordQuatAdapt1 copy(owning);
  caller.reset();
  EXPECT_EQ(owning(v), before);
  EXPECT_EQ(copy(v), before);
}

// Hands the objective to the caller's code instead of optimizing: returns its
// value at start and writes start + 0.5 to out.
class Probe : public LxOpt::LxOptimizer1 {
 public:
  using LxOpt::LxOptimizer1::operator();
  void SetIterLimit(unsigned int) override {}
  void SetTolerance(double) override {}
  unsigned int GetIterLimit() const override { return 0; }
  double GetTolerance() const override { return 0; }
  double operator()(LxOpt::LxFunc1& f,
                    LxOpt::LxCheckpoint1*,
                    const double* start,
                    double* out) override {
    sameArray = start == out;
    components = f.GetFComponents(start)[0].value;
    grad.assign(7, 0.0);
    f(start, grad.data());
    const double value = f(start);
    for (int i = 0; i < 7; ++i) out[i] = start[i] + 0.5;
    return value;
  }
  bool sameArray = true;
  double components = 0;
  std::vector<double> grad;
};

TEST_F(PoseFixture, MinimizeReturnsTheNegatedMinimumMaximizeTheMaximum) {
  LxCoordQuatAdapt1 adaptor(field, ref);
  std::vector<double> v = {0.8, 0.2, 0.1, -0.4, 0.3, 0.0, -0.2}, start = v;
  const double f = adaptor(v.data());
  std::vector<double> g(7, 0.0);
  adaptor(v.data(), g.data());

  Probe probe;
  EXPECT_EQ(adaptor.Minimize(v, probe), -f);
  EXPECT_FALSE(probe.sameArray);
  EXPECT_EQ(v[6], start[6] + 0.5);
  EXPECT_EQ(probe.grad, g);

  v = start;
  EXPECT_EQ(adaptor.Maximize(v.data(), probe), f);
  EXPECT_EQ(probe.components, f);  // components are not negated
  for (int i = 0; i < 7; ++i) EXPECT_EQ(probe.grad[i], -g[i]);
}

TEST(TestObjective, KnownValuesAndWrittenGradient) {
  for (unsigned int n : {2u, 3u, 10u}) {
    LxOpt::LxTestF f(n);
    std::vector<double> ones(n, 1.0), g(n, 5.0);
    EXPECT_EQ(f.NumVar(), n);
    EXPECT_EQ(f(ones.data(), g.data()), 0.0);
    EXPECT_EQ(g, std::vector<double>(n, 0.0)) << n;
  }
  LxOpt::LxTestF f2(2);
  const double origin[2] = {0, 0};
  double g[2] = {9, 9};
  EXPECT_EQ(f2(origin, g), 1.0);
  EXPECT_EQ(g[0], -2.0);
  EXPECT_EQ(g[1], 0.0);
  EXPECT_EQ(f2.GetFComponents(origin)[0].name, "Test function");
  EXPECT_EQ(LxOpt::LxTestF(1)(std::vector<double>{4.0}.data()), 9.0);
  const double x[3] = {0.5, -1, 2};
  // 4 (0.25 (-0.5)² + (-1 - 0.25)² + (2 - 1)²)
  EXPECT_DOUBLE_EQ(LxOpt::LxTestF(3)(x), 4 * (0.0625 + 1.5625 + 1));
}

}  // namespace
