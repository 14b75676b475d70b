// Central-difference gradients and Hessians.
#include <gtest/gtest.h>

#include <limits>

#include "support/problems.h"

namespace {

using namespace LxOpt;
using Vec = std::vector<double>;

// ½ xᵀAx + m x0 x1 x2 (A dense): central differences are exact up to rounding.
struct Cubic : lxtest::Objective {
  using Objective::operator();
  unsigned int NumVar() const override { return 4; }
  double operator()(const double* x) override {
    double f = m * x[0] * x[1] * x[2];
    for (int k = 0; k < 16; ++k) f += 0.5 * x[k / 4] * A[k / 4][k % 4] * x[k % 4];
    return f;
  }
  double operator()(const double* x, double* g) override {  // added to g
    for (int k = 0; k < 16; ++k) g[k / 4] += A[k / 4][k % 4] * x[k % 4];
    g[0] += m * x[1] * x[2], g[1] += m * x[0] * x[2], g[2] += m * x[0] * x[1];
    return (*this)(x);
  }
  Vec Hessian(const double* x) const {  // packed
    Vec h;
    for (int i = 0; i < 4; ++i)
      for (int j = 0; j <= i; ++j) h.push_back(A[i][j]);
    h[1] += m * x[2], h[3] += m * x[1], h[4] += m * x[0];
    return h;
  }
  const double A[4][4] = {{4, 1, -2, 0.5}, {1, 3, 0, 1}, {-2, 0, 5, -1}, {0.5, 1, -1, 2}};
  const double m = 1.7;
};

const double kX[4] = {0.1, 0.7, -1.3, 2.2};

void ExpectNear(const Vec& a, const Vec& b, double tol) {
  ASSERT_EQ(a.size(), b.size());
  for (size_t i = 0; i < a.size(); ++i) EXPECT_NEAR(a[i], b[i], tol) << "entry " << i;
}

// Added to g; points x_i + h, then - 2h, then x; a displaced element is restored by adding h.
TEST(NumericGradients, MatchAnalyticAccumulateAndRestoreByArithmetic) {
  Cubic cubic;
  Vec g(4, 0.0), exact(4, 0.0);
  EXPECT_EQ(NumericGradients(cubic, kX, g.data()), cubic(kX));
  cubic(kX, exact.data());
  ExpectNear(g, exact, 1e-9);
  const Vec once = g;
  NumericGradients(cubic, kX, g.data());
  for (size_t i = 0; i < g.size(); ++i) EXPECT_EQ(g[i], 2 * once[i]);

  struct Points : lxtest::Objective {
    using lxtest::Objective::operator();
    unsigned int NumVar() const override { return 2; }
    double operator()(const double* x) override { return seen.push_back({x[0], x[1]}), 0.0; }
    double operator()(const double*, double*) override { return 0; }
    std::vector<Vec> seen;
  } f;
  const double x[2] = {0.1, 0.7}, h = 1e-5, restored = x[0] + h - 2 * h + h;
  ASSERT_NE(restored, x[0]);  // the inputs must tell the two ways apart
  NumericGradients(f, x, Vec(2).data(), h);
  EXPECT_EQ(f.seen, (std::vector<Vec>{{x[0] + h, x[1]},
                                      {x[0] + h - 2 * h, x[1]},
                                      {restored, x[1] + h},
                                      {restored, x[1] + h - 2 * h},
                                      {x[0], x[1]}}));
}

// Per-variable records gathered in any order give the one-call Hessian and exactly the
// single elements; repeated records add up, rows without one stay as they were.
TEST(NumericHessian, ExactOnCubicAndAssembledFromRecords) {
  Cubic cubic;
  LxCountingFunc counted(cubic);
  Vec direct(10, 0.0), assembled(10, 0.0);
  EXPECT_EQ(NumericHessian(counted, kX, direct.data()), cubic(kX));
  EXPECT_TRUE(counted.Gradients() == 4 * 5 && counted.Values() == 1);  // both gradients per element
  ExpectNear(direct, cubic.Hessian(kX), 1e-8);
  Vec twice = direct;  // the one-call form adds to what is there
  NumericHessian(cubic, kX, twice.data());
  for (size_t e = 0; e < 10; ++e) EXPECT_EQ(twice[e], 2 * direct[e]);
  std::vector<GradDiff> gathered;
  for (unsigned int i = 4; i-- > 0;) gathered.push_back(DifferentialGradients(cubic, kX, i));
  EXPECT_EQ(gathered[0].denominator, 2e-4);
  EXPECT_TRUE(NumericHessian(gathered, assembled.data()));
  ExpectNear(assembled, direct, 1e-9);
  for (unsigned int i = 0; i < 4; ++i)
    for (unsigned int j = 0; j <= i; ++j) {
      EXPECT_EQ(assembled[i * (i + 1) / 2 + j], NumericHessianElement(cubic, kX, i, j));
      EXPECT_EQ(NumericHessianElement(cubic, kX, j, i), NumericHessianElement(cubic, kX, i, j));
    }
  Vec partial(10, -1.0);
  const GradDiff row2 = DifferentialGradients(cubic, kX, 2);
  EXPECT_TRUE(NumericHessian({row2, row2}, partial.data()));
  for (size_t e = 0; e < 10; ++e)
    EXPECT_DOUBLE_EQ(partial[e], e >= 3 && e <= 5 ? -1.0 + 2 * assembled[e] : -1.0) << e;
}

// The test objective's values, gradient and Hessian.
TEST(NumericDerivatives, MatchTheTestObjective) {
  LxTestF ten(10), two(2);
  EXPECT_TRUE(ten(Vec(10, 1.0).data()) == 0.0 && two(Vec(2, 0.0).data()) == 1.0 &&
              two.GetFComponents(kX)[0].name == "Test function");
  const unsigned int n = 5;
  LxTestF f(n);
  const double x[n] = {0.3, -0.8, 1.2, 0.5, -0.1};
  Vec numeric(n, 0.0), analytic(n, 5.0), h(n * (n + 1) / 2, 0.0), exact(h.size(), 0.0);
  NumericGradients(f, x, numeric.data());
  f(x, analytic.data());
  ExpectNear(numeric, analytic, 1e-6);
  exact[0] = 2.0;  // the Hessian of (x0 - 1)² + 4 sum (x_i - x_{i-1}²)², packed
  for (unsigned int i = 1; i < n; ++i) {
    exact[i * (i + 1) / 2 + i] += 8.0;
    exact[i * (i + 1) / 2 + i - 1] = -16.0 * x[i - 1];
    exact[(i - 1) * i / 2 + i - 1] += 48.0 * x[i - 1] * x[i - 1] - 16.0 * x[i];
  }
  NumericHessian(f, x, h.data());
  ExpectNear(h, exact, 1e-6);
}

TEST(NumericDerivatives, BadInputWarnsAndReturnsNeutralResults) {
  Cubic cubic;
  lxtest::MessageCapture capture;
  const GradDiff failed = DifferentialGradients(cubic, kX, 4, 0.5);
  EXPECT_TRUE(failed.index == 4 && failed.denominator == 1.0 && failed.gplus.empty() &&
              failed.gminus.empty());
  for (unsigned int i : {5u, 1u})
    EXPECT_EQ(NumericHessianElement(cubic, kX, i, 6 - i), std::numeric_limits<double>::max());
  Vec h(10, 3.0);
  EXPECT_FALSE(NumericHessian({}, h.data()));
  EXPECT_FALSE(NumericHessian({failed}, nullptr));  // below: a failed record adds nothing
  EXPECT_TRUE(NumericHessian({failed}, h.data()) && h == Vec(10, 3.0));
  const std::string beyond = "Hessian row or column number can't exceed Hessian dimension";
  EXPECT_EQ(capture.Texts(),
            (std::vector<std::string>{
                "Index passed is outside the variables range", beyond, beyond,
                "Numeriv Hessian failed: container with differential gradients is empty",
                "Hessian array is not allocated"}));
  // n = 0: nothing to displace, just the value.
  lxtest::DiagonalQuadratic none({}, {});
  LxCountingFunc empty(none);
  EXPECT_TRUE(NumericGradients(empty, nullptr, nullptr) == 0.0 &&
              NumericHessian(empty, nullptr, nullptr) == 0.0);
  EXPECT_TRUE(empty.Values() == 2 && empty.Gradients() == 0);
}

TEST(NumericFunc1, GivesAValueOnlyObjectiveAGradient) {
  struct ValueOnly : LxFunc0 {
    unsigned int NumVar() const override { return 4; }
    double operator()(const double* x) override { return cubic(x); }
    std::vector<LxFComponent> GetFComponents(const double*) override { return {{"q", 1.0}}; }
    Cubic cubic;
  } valueOnly;
  NumericFunc1 f(&valueOnly);
  Vec written(4, 9.0), numeric(4, 0.0);
  EXPECT_TRUE(f.NumVar() == 4 && f.GetFComponents(kX)[0].name == "q" &&
              f(kX, written.data()) == valueOnly(kX));
  NumericGradients(valueOnly, kX, numeric.data());
  EXPECT_EQ(written, numeric);  // written, not added to
}

}  // namespace
