// Central-difference gradients and Hessians.
#include <gtest/gtest.h>
#include <lxopt/lxopt.h>

#include <limits>
#include <vector>

#include "support/problems.h"

namespace {

using LxOpt::GradDiff;

// f = ½ xᵀAx + bᵀx + 5 + cubic (sum_i k_i x_i³ + m x0 x1 x2), n = 4, A dense.
// Central differences are exact (up to rounding) on the quadratic for
// gradients and on the cubic for Hessians formed from gradients.
class Polynomial : public lxtest::Objective {
 public:
  using lxtest::Objective::operator();
  explicit Polynomial(bool cubic, unsigned int n = 4) : cubic_(cubic), n_(n) {}
  unsigned int NumVar() const override { return n_; }
  double operator()(const double* x) override {
    double f = 5.0;
    for (unsigned int i = 0; i < n_; ++i) {
      f += b[i] * x[i];
      for (unsigned int j = 0; j < n_; ++j) f += 0.5 * x[i] * A[i][j] * x[j];
      if (cubic_) f += k[i] * x[i] * x[i] * x[i];
    }
    if (cubic_) f += m * x[0] * x[1] * x[2];
    return f;
  }
  double operator()(const double* x, double* g) override {
    for (unsigned int i = 0; i < n_; ++i) {
      g[i] += b[i];
      for (unsigned int j = 0; j < n_; ++j) g[i] += A[i][j] * x[j];
      if (cubic_) g[i] += 3.0 * k[i] * x[i] * x[i];
    }
    if (cubic_) g[0] += m * x[1] * x[2], g[1] += m * x[0] * x[2], g[2] += m * x[0] * x[1];
    return (*this)(x);
  }
  // Packed Hessian at x.
  std::vector<double> Hessian(const double* x) const {
    std::vector<double> h;
    for (unsigned int i = 0; i < n_; ++i)
      for (unsigned int j = 0; j <= i; ++j)
        h.push_back(A[i][j] + (cubic_ && i == j ? 6.0 * k[i] * x[i] : 0.0));
    if (cubic_) h[1] += m * x[2], h[3] += m * x[1], h[4] += m * x[0];
    return h;
  }
  const double A[4][4] = {{4, 1, -2, 0.5}, {1, 3, 0, 1}, {-2, 0, 5, -1}, {0.5, 1, -1, 2}};
  const double b[4] = {1, -2, 0.5, 3};
  const double k[4] = {0.3, -0.7, 1.1, 0.2};
  const double m = 1.7;

 private:
  bool cubic_;
  unsigned int n_;
};

const double kX[4] = {0.1, 0.7, -1.3, 2.2};

void ExpectNear(const std::vector<double>& a, const std::vector<double>& b, double tol) {
  ASSERT_EQ(a.size(), b.size());
  for (size_t i = 0; i < a.size(); ++i) EXPECT_NEAR(a[i], b[i], tol) << "entry " << i;
}

TEST(NumericGradients, ExactOnQuadraticAccumulatesAndCounts) {
  Polynomial quadratic(false);
  lxtest::Counting counted(quadratic);
  std::vector<double> g(4, 0.0), exact(4, 0.0);
  EXPECT_EQ(LxOpt::NumericGradients(counted, kX, g.data()), quadratic(kX));
  EXPECT_EQ(counted.values, 2 * 4 + 1);
  EXPECT_EQ(counted.gradients, 0);
  quadratic(kX, exact.data());
  ExpectNear(g, exact, 1e-8);
  const std::vector<double> once = g;
  LxOpt::NumericGradients(quadratic, kX, g.data());
  for (size_t i = 0; i < g.size(); ++i) EXPECT_EQ(g[i], 2 * once[i]);
}

// Every point evaluated, in order: x_i +h, -h, then x itself; a displaced
// element is put back by adding h again, not by copying it from x.
TEST(NumericGradients, DisplacesOneElementAtATimeAndRestoresByArithmetic) {
  struct Points : lxtest::Objective {
    using lxtest::Objective::operator();
    unsigned int NumVar() const override { return 2; }
    double operator()(const double* x) override {
      seen.push_back({x[0], x[1]});
      return 0;
    }
    double operator()(const double*, double*) override { return 0; }
    std::vector<std::vector<double>> seen;
  } f;
  const double x[2] = {0.1, 0.7}, h = 1e-5;
  LxOpt::NumericGradients(f, x, std::vector<double>(2).data(), h);
  const double restored = x[0] + h - 2 * h + h;
  ASSERT_NE(restored, x[0]);  // the inputs must tell the two ways apart
  const std::vector<std::vector<double>> expected = {{x[0] + h, x[1]},
                                                     {x[0] + h - 2 * h, x[1]},
                                                     {restored, x[1] + h},
                                                     {restored, x[1] + h - 2 * h},
                                                     {x[0], x[1]}};
  EXPECT_EQ(f.seen, expected);
}

TEST(NumericHessian, ExactOnCubicElementsAndAccumulation) {
  Polynomial cubic(true);
  lxtest::Counting counted(cubic);
  std::vector<double> h(10, 0.0);
  EXPECT_EQ(LxOpt::NumericHessian(counted, kX, h.data()), cubic(kX));
  EXPECT_EQ(counted.gradients, 4 * 5);  // both gradients afresh for every element
  EXPECT_EQ(counted.values, 1);
  ExpectNear(h, cubic.Hessian(kX), 1e-8);
  // The one-call form restores each displaced element by arithmetic between
  // elements, so it agrees with single elements to rounding only.
  for (unsigned int i = 0; i < 4; ++i)
    for (unsigned int j = 0; j <= i; ++j) {
      const double element = LxOpt::NumericHessianElement(cubic, kX, i, j);
      EXPECT_EQ(LxOpt::NumericHessianElement(cubic, kX, j, i), element);
      EXPECT_NEAR(element, h[i * (i + 1) / 2 + j], 1e-9);
    }
  const std::vector<double> once = h;
  LxOpt::NumericHessian(cubic, kX, h.data());
  for (size_t i = 0; i < h.size(); ++i) EXPECT_EQ(h[i], 2 * once[i]);
}

// Records made one variable at a time (as separate machines would) and
// gathered in any order assemble the Hessian of the one-call form (to
// rounding) and exactly the elements taken one by one.
TEST(NumericHessian, AssembledFromRecordsEqualsOneCall) {
  Polynomial cubic(true);
  std::vector<double> direct(10, 0.0), assembled(10, 0.0);
  LxOpt::NumericHessian(cubic, kX, direct.data());
  std::vector<GradDiff> gathered;
  for (unsigned int i = 4; i-- > 0;) {
    const std::vector<GradDiff> machine = {LxOpt::DifferentialGradients(cubic, kX, i)};
    EXPECT_EQ(machine[0].index, i);
    EXPECT_EQ(machine[0].denominator, 2e-4);
    gathered.insert(gathered.end(), machine.begin(), machine.end());
  }
  EXPECT_TRUE(LxOpt::NumericHessian(gathered, assembled.data()));
  ExpectNear(assembled, direct, 1e-9);
  for (unsigned int i = 0; i < 4; ++i)
    for (unsigned int j = 0; j <= i; ++j)
      EXPECT_EQ(assembled[i * (i + 1) / 2 + j], LxOpt::NumericHessianElement(cubic, kX, i, j));

  // Repeated records add up; rows without one stay as they were.
  std::vector<double> partial(10, -1.0);
  const GradDiff row2 = LxOpt::DifferentialGradients(cubic, kX, 2);
  EXPECT_TRUE(LxOpt::NumericHessian({row2, row2}, partial.data()));
  for (size_t e = 0; e < 10; ++e)
    EXPECT_DOUBLE_EQ(partial[e], e >= 3 && e <= 5 ? -1.0 + 2 * assembled[e] : -1.0) << e;
}

TEST(NumericDerivatives, MatchTheTestObjective) {
  const unsigned int n = 5;
  LxOpt::LxTestF f(n);
  const double x[n] = {0.3, -0.8, 1.2, 0.5, -0.1};
  std::vector<double> numeric(n, 0.0), analytic(n, 0.0), h(n * (n + 1) / 2, 0.0),
      exact(h.size(), 0.0);
  LxOpt::NumericGradients(f, x, numeric.data());
  f(x, analytic.data());
  ExpectNear(numeric, analytic, 1e-6);
  // Hessian of (x0 - 1)² + 4 sum (x_i - x_{i-1}²)².
  exact[0] = 2.0;
  for (unsigned int i = 1; i < n; ++i) {
    exact[i * (i + 1) / 2 + i] += 8.0;
    exact[i * (i + 1) / 2 + i - 1] = -16.0 * x[i - 1];
    exact[(i - 1) * i / 2 + i - 1] += 48.0 * x[i - 1] * x[i - 1] - 16.0 * x[i];
  }
  LxOpt::NumericHessian(f, x, h.data());
  ExpectNear(h, exact, 1e-6);
}

TEST(NumericDerivatives, BadInputWarnsAndReturnsNeutralResults) {
  Polynomial cubic(true);
  lxtest::Counting counted(cubic);
  lxtest::MessageCapture capture;
  const GradDiff failed = LxOpt::DifferentialGradients(counted, kX, 4, 0.5);
  EXPECT_EQ(failed.index, 4u);
  EXPECT_EQ(failed.denominator, 1.0);
  EXPECT_TRUE(failed.gplus.empty() && failed.gminus.empty());
  EXPECT_EQ(counted.gradients, 0);
  EXPECT_EQ(LxOpt::NumericHessianElement(cubic, kX, 5, 0), std::numeric_limits<double>::max());
  EXPECT_EQ(LxOpt::NumericHessianElement(cubic, kX, 1, 5), std::numeric_limits<double>::max());
  std::vector<double> h(10, 3.0);
  EXPECT_FALSE(LxOpt::NumericHessian({}, h.data()));
  EXPECT_FALSE(LxOpt::NumericHessian({}, nullptr));
  EXPECT_TRUE(LxOpt::NumericHessian({failed}, h.data()));
  EXPECT_EQ(h, std::vector<double>(10, 3.0));
  EXPECT_EQ(capture.Texts(),
            (std::vector<std::string>{
                "Index passed is outside the variables range",
                "Hessian row or column number can't exceed Hessian dimension",
                "Hessian row or column number can't exceed Hessian dimension",
                "Numeriv Hessian failed: container with differential gradients is empty",
                "Hessian array is not allocated"}));
  for (const auto& m : capture.messages) EXPECT_EQ(m.level, LxOpt::LxMessageLevel::Warning);

  Polynomial none(false, 0);
  lxtest::Counting empty(none);
  EXPECT_EQ(LxOpt::NumericGradients(empty, nullptr, nullptr), 5.0);
  EXPECT_EQ(LxOpt::NumericHessian(empty, nullptr, nullptr), 5.0);
  EXPECT_EQ(empty.values, 2);
  EXPECT_EQ(empty.gradients, 0);
}

TEST(NumericFunc1, GivesAValueOnlyObjectiveAGradient) {
  struct ValueOnly : LxOpt::LxFunc0 {
    unsigned int NumVar() const override { return 4; }
    double operator()(const double* x) override { return quadratic(x); }
    std::vector<LxOpt::LxFComponent> GetFComponents(const double* x) override {
      return {{"q", (*this)(x)}};
    }
    Polynomial quadratic{false};
  } valueOnly;
  LxOpt::NumericFunc1 f(&valueOnly);
  EXPECT_EQ(f.NumVar(), 4u);
  EXPECT_EQ(f.GetFComponents(kX)[0].name, "q");
  std::vector<double> written(4, 9.0), numeric(4, 0.0);
  EXPECT_EQ(f(kX, written.data()), valueOnly(kX));
  LxOpt::NumericGradients(valueOnly, kX, numeric.data());
  EXPECT_EQ(written, numeric);
}

}  // namespace
