// Line minimizers called directly on lines whose minimum is known.
#include <gtest/gtest.h>
#include <lxopt/lxopt.h>

#include <cmath>
#include <limits>
#include <memory>
#include <vector>

#include "support/linesearch.h"
#include "support/problems.h"

namespace {

using LxOpt::LxCGLineMinimize;
using LxOpt::LxLineMinimize;
using LxOpt::LxQNLineMinimize;
using lxtest::Poly1D;

constexpr double kUnset = 777.0;  // gradOut before the call

struct Outcome {
  bool ok;
  double step, fval, grad;
  int evaluations;
};

// One search from x0 = 0 along dir on a one-variable polynomial.
Outcome Search(const LxLineMinimize& lm, Poly1D& f, double step, double dir = 1.0) {
  const double x0 = 0.0;
  double grad0 = f.Slope(x0), gradOut = kUnset, fval = f.F(x0), d = dir;
  const bool ok = lm(1, &x0, &d, &grad0, &gradOut, &fval, &step, f);
  EXPECT_EQ(x0, 0.0);
  return {ok, step, fval, gradOut, static_cast<int>(f.gradients.size() + f.values.size())};
}

void ExpectUntouched(const Outcome& r, double entryStep, double entryValue) {
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(r.step, entryStep);
  EXPECT_EQ(r.fval, entryValue);
  EXPECT_EQ(r.grad, kUnset);
}

struct Case {
  const char* name;
  double c0, c1, c2, c3;  // the polynomial along the line
  double entryStep;
  bool ok;
  int evaluations;
  double step;  // expected accepted step when ok
};

void PrintTo(const Case& c, std::ostream* os) { *os << c.name; }

// (x - 1)^2 = 1 - 2x + x^2; x^3 - 3x (minimum at 1); a hump -x + 2x^2 - 0.4x^3
// whose trial at 4 lies higher while still descending (minimum at 0.27224).
const double kHumpMin = (4.0 - std::sqrt(16.0 - 4.8)) / 2.4;

class CGSearch : public ::testing::TestWithParam<Case> {};
class QNSearch : public ::testing::TestWithParam<Case> {};

TEST_P(CGSearch, AcceptsOrFailsAsExpected) {
  const Case& c = GetParam();
  Poly1D f(c.c0, c.c1, c.c2, c.c3);
  const Outcome r = Search(LxCGLineMinimize(), f, c.entryStep);
  EXPECT_EQ(r.evaluations, c.evaluations);
  if (c.ok) {
    EXPECT_TRUE(r.ok);
    EXPECT_NEAR(r.step, c.step, 1e-12);
    EXPECT_DOUBLE_EQ(r.fval, f.F(f.gradients.back()));
    EXPECT_DOUBLE_EQ(r.grad, f.Slope(f.gradients.back()));
  } else {
    ExpectUntouched(r, c.entryStep, c.c0);
  }
}

TEST_P(QNSearch, AcceptsOrFailsAsExpected) {
  const Case& c = GetParam();
  Poly1D f(c.c0, c.c1, c.c2, c.c3);
  const Outcome r = Search(LxQNLineMinimize(), f, c.entryStep);
  EXPECT_EQ(r.evaluations, c.evaluations);
  if (c.ok) {
    EXPECT_TRUE(r.ok);
    EXPECT_NEAR(r.step, c.step, 1e-12);
    EXPECT_DOUBLE_EQ(r.fval, f.F(f.gradients.back()));
    EXPECT_DOUBLE_EQ(r.grad, f.Slope(f.gradients.back()));
  } else {
    ExpectUntouched(r, c.entryStep, c.c0);
  }
}

// The CG search accepts a first trial only at a practically zero slope.
INSTANTIATE_TEST_SUITE_P(
    Lines, CGSearch,
    ::testing::Values(
        Case{"quadratic_first_trial_at_minimum", 1, -2, 1, 0, 1.0, true, 1, 1.0},
        Case{"quadratic_short_first_trial_interpolates", 1, -2, 1, 0, 0.5, true, 2, 1.0},
        Case{"quadratic_long_first_trial_brackets", 1, -2, 1, 0, 3.0, true, 2, 1.0},
        Case{"cubic_bracketed", 0, -3, 0, 1, 2.0, true, 2, 1.0},
        Case{"hump_overshoot_divides_by_three", 0, -1, 2, -0.4, 4.0, true, 3, kHumpMin},
        Case{"entry_step_below_floor_fails", 0, -2, 1, 0, 1e-11, false, 3, 0},
        Case{"entry_step_zero_fails", 0, -2, 1, 0, 0.0, false, 3, 0},
        Case{"increase_from_minimum_fails", 0, 0, 1, 0, 1.0, false, 2, 0}),
    [](const ::testing::TestParamInfo<Case>& i) { return std::string(i.param.name); });

// The quasi-Newton search accepts any first trial that meets both tests.
INSTANTIATE_TEST_SUITE_P(
    Lines, QNSearch,
    ::testing::Values(
        Case{"quadratic_first_trial_at_minimum", 1, -2, 1, 0, 1.0, true, 1, 1.0},
        Case{"quadratic_short_first_trial_accepted", 1, -2, 1, 0, 0.5, true, 1, 0.5},
        Case{"quadratic_long_first_trial_brackets", 1, -2, 1, 0, 3.0, true, 2, 1.0},
        Case{"cubic_bracketed", 0, -3, 0, 1, 2.0, true, 2, 1.0},
        Case{"hump_overshoot_divides_by_three", 0, -1, 2, -0.4, 4.0, true, 3, kHumpMin},
        Case{"entry_step_below_floor_searches_from_floor", 0, -2, 1, 0, 1e-11, true, 3, 1.0},
        Case{"linear_degenerate_interpolation_fails", 1, -1, 0, 0, 1.0, false, 1, 0},
        Case{"increase_from_minimum_fails", 0, 0, 1, 0, 1.0, false, 2, 0}),
    [](const ::testing::TestParamInfo<Case>& i) { return std::string(i.param.name); });

// -x - x^3 falls ever faster: no trial meets the curvature test, every
// interpolation is pushed out to twice the step, and both searches spend all
// 32 trials (steps 1, 2, ..., 2^31) and report the next, unevaluated step 2^32
// with the value and slope of the last evaluated one.
TEST(LineSearchExhaustion, ReportsNextStepWithLastTrialsValue) {
  const std::vector<std::unique_ptr<LxLineMinimize>> searches = [] {
    std::vector<std::unique_ptr<LxLineMinimize>> v;
    v.emplace_back(new LxCGLineMinimize());
    v.emplace_back(new LxQNLineMinimize());
    return v;
  }();
  for (const auto& lm : searches) {
    Poly1D f(0, -1, 0, -1);
    const Outcome r = Search(*lm, f, 1.0);
    ASSERT_EQ(r.evaluations, 32);
    for (size_t i = 0; i < f.gradients.size(); ++i)
      EXPECT_EQ(f.gradients[i], std::ldexp(1.0, static_cast<int>(i)));
    const double last = f.gradients.back();
    EXPECT_TRUE(r.ok);
    EXPECT_EQ(r.step, 2.0 * last);
    EXPECT_EQ(r.fval, f.F(last));
    EXPECT_EQ(r.grad, f.Slope(last));
  }
}

// The QN search tests the final step, not the caller's: a floor of 2 rejects
// the exact minimum at 1 that the interpolation finds.
TEST(QNLineMinimize, FinalStepBelowFloorFails) {
  Poly1D f(1, -2, 1, 0);
  const Outcome r = Search(LxQNLineMinimize(32, 1e-4, 0.9, 2.0), f, 1.0);
  EXPECT_EQ(f.gradients, (std::vector<double>{2.0, 1.0}));
  ExpectUntouched(r, 1.0, 1.0);
}

TEST(QNLineMinimize, TrialLimitAndCopyKeepTheSettings) {
  // With 1 trial the interpolated step is reported with the first trial's
  // value (at 0.05 the slope ratio 0.95 fails the curvature test).
  Poly1D f(1, -2, 1, 0);
  const std::unique_ptr<LxLineMinimize> copy(LxQNLineMinimize(1).CreateCopy());
  const Outcome r = Search(*copy, f, 0.05);
  EXPECT_EQ(r.evaluations, 1);
  EXPECT_TRUE(r.ok);
  EXPECT_NEAR(r.step, 1.0, 1e-12);
  EXPECT_EQ(r.fval, f.F(0.05));

  Poly1D g(1, -2, 1, 0);
  ExpectUntouched(Search(LxQNLineMinimize(0), g, 0.25), 0.25, 1.0);
  EXPECT_EQ(g.gradients.size(), 0u);
}

// In n variables the search runs along dir from x0 and finds the exact line
// minimum of a quadratic, a* = -g.d / (d.H d), without writing the point.
TEST(LineSearchInNVariables, QuadraticLineMinimumAndUntouchedPoint) {
  lxtest::DiagonalQuadratic q({1.0, 4.0, 9.0}, {1.0, -1.0, 2.0});
  const std::vector<double> x0 = {0.0, 0.0, 0.0};
  std::vector<double> dir = {1.0, -0.5, 0.25};
  std::vector<double> grad0(3);
  const double f0 = q(x0.data(), grad0.data());
  double gd = 0.0, dHd = 0.0;
  const double d[3] = {1.0, 4.0, 9.0};
  for (int i = 0; i < 3; ++i) {
    gd += grad0[i] * dir[i];
    dHd += 2.0 * d[i] * dir[i] * dir[i];
  }
  const double exact = -gd / dHd;
  const LxCGLineMinimize cg;
  const LxQNLineMinimize qn;
  for (const LxLineMinimize* lm : {static_cast<const LxLineMinimize*>(&cg),
                                   static_cast<const LxLineMinimize*>(&qn)}) {
    lxtest::Counting counted(q);
    std::vector<double> gradOut(3, kUnset);
    double fval = f0, step = 0.1;
    ASSERT_TRUE((*lm)(3, x0.data(), dir.data(), grad0.data(), gradOut.data(), &fval, &step,
                      counted));
    EXPECT_EQ(counted.gradients, 2);
    EXPECT_EQ(counted.values, 0);
    EXPECT_NEAR(step, exact, 1e-9);  // value differences limit the cubic
    std::vector<double> x(3), g(3);
    for (int i = 0; i < 3; ++i) x[i] = x0[i] + step * dir[i];
    EXPECT_NEAR(fval, q(x.data(), g.data()), 1e-12);
    for (int i = 0; i < 3; ++i) EXPECT_NEAR(gradOut[i], g[i], 1e-12);
    EXPECT_EQ(x0, (std::vector<double>{0.0, 0.0, 0.0}));
    EXPECT_EQ(dir, (std::vector<double>{1.0, -0.5, 0.25}));
  }
}

// Values that are not numbers: the CG search runs into its 32-trial cap and,
// since no comparison rejects, reports success; the QN search stops at its
// degenerate-interpolation test.
TEST(LineSearchNotANumber, TrialCapEndsTheSearch) {
  const double x0[2] = {0.0, 0.0};
  double dir[2] = {1.0, 1.0}, grad0[2] = {-1.0, -1.0}, gradOut[2] = {kUnset, kUnset};

  lxtest::NotANumber cgFunc(2, -1.0);
  double fval = 0.0, step = 1.0;
  EXPECT_TRUE(LxCGLineMinimize()(2, x0, dir, grad0, gradOut, &fval, &step, cgFunc));
  EXPECT_EQ(cgFunc.evaluations, 32);
  EXPECT_TRUE(std::isnan(fval));

  lxtest::NotANumber qnFunc(2, -1.0);
  gradOut[0] = kUnset;
  fval = 0.0;
  step = 1.0;
  EXPECT_FALSE(LxQNLineMinimize()(2, x0, dir, grad0, gradOut, &fval, &step, qnFunc));
  EXPECT_LE(qnFunc.evaluations, 2);
  EXPECT_EQ(fval, 0.0);
  EXPECT_EQ(gradOut[0], kUnset);
}

// n = 0: both slopes are 0, the ratio is not a number, the first trial is
// accepted, and the call fails because the value did not fall.
TEST(LineSearchEmpty, NoVariablesFailsAfterOneEvaluation) {
  lxtest::DiagonalQuadratic empty({}, {});
  const LxCGLineMinimize cg;
  const LxQNLineMinimize qn;
  for (const LxLineMinimize* lm : {static_cast<const LxLineMinimize*>(&cg),
                                   static_cast<const LxLineMinimize*>(&qn)}) {
    lxtest::Counting counted(empty);
    double fval = 0.0, step = 1.0;
    EXPECT_FALSE((*lm)(0, nullptr, nullptr, nullptr, nullptr, &fval, &step, counted));
    EXPECT_EQ(counted.gradients, 1);
    EXPECT_EQ(step, 1.0);
  }
}

TEST(LineMinimizeBase, CopiesAreIndependentAndMaxStepIsIgnored) {
  LxCGLineMinimize cg;
  double limit = 1.0;
  EXPECT_FALSE(cg.SetMaxStep(1, &limit));
  std::unique_ptr<LxLineMinimize> copy(cg.CreateCopy());
  EXPECT_NE(dynamic_cast<LxCGLineMinimize*>(copy.get()), nullptr);
  std::unique_ptr<LxLineMinimize> qn(LxQNLineMinimize().CreateCopy());
  EXPECT_NE(dynamic_cast<LxQNLineMinimize*>(qn.get()), nullptr);
  EXPECT_FALSE(qn->SetMaxStep(1, &limit));
}

}  // namespace

// --- max-step line minimizer ---------------------------------------------------

namespace maxstep {

using LxOpt::LxMaxStepLineMinimize;

// (x - 1)^2 from 0 with a limit of 0.5 and entry step 4: the step is cut to
// 0.5, the march finds the descent ending at 1.0 (slope 0), hands on 0.75,
// and the quasi-Newton search accepts it at once.
TEST(MaxStepLineMinimize, ClampMarchAndDelegation) {
  double limit = 0.5;
  LxMaxStepLineMinimize lm(&limit, 1);
  Poly1D f(1, -2, 1, 0);
  const Outcome r = Search(lm, f, 4.0);
  EXPECT_EQ(f.gradients, (std::vector<double>{0.5, 1.0, 0.75}));
  EXPECT_TRUE(r.ok);
  EXPECT_EQ(r.step, 0.75);
  EXPECT_EQ(r.fval, f.F(0.75));
}

// A descent that stops at the first clamped point hands on a/2.
TEST(MaxStepLineMinimize, StopAtFirstClampedPointHandsOnHalf) {
  double limit = 2.0;
  LxMaxStepLineMinimize lm(&limit, 1);
  Poly1D f(1, -2, 1, 0);
  const Outcome r = Search(lm, f, 4.0);
  EXPECT_EQ(f.gradients, (std::vector<double>{2.0, 1.0}));
  EXPECT_EQ(r.step, 1.0);
}

// A march that reaches the caller's step leaves it as it was.
TEST(MaxStepLineMinimize, MarchReachingTheEntryStepKeepsIt) {
  double limit = 0.5;
  LxMaxStepLineMinimize lm(&limit, 1);
  Poly1D f(100, -20, 1, 0);  // (x - 10)^2
  Search(lm, f, 1.5);
  ASSERT_GE(f.gradients.size(), 3u);
  EXPECT_EQ(std::vector<double>(f.gradients.begin(), f.gradients.begin() + 3),
            (std::vector<double>{0.5, 1.0, 1.5}));
}

// No limits, zero limits or a limit the entry step respects: exactly the
// quasi-Newton search.
TEST(MaxStepLineMinimize, WithoutACutItIsTheQuasiNewtonSearch) {
  double zero = 0.0, wide = 10.0;
  const std::vector<LxMaxStepLineMinimize> searches = {
      LxMaxStepLineMinimize(), LxMaxStepLineMinimize(&zero, 1),
      LxMaxStepLineMinimize(&wide, 1)};
  for (const LxMaxStepLineMinimize& lm : searches) {
    Poly1D f(1, -2, 1, 0), g(1, -2, 1, 0);
    const Outcome mine = Search(lm, f, 3.0);
    const Outcome plain = Search(LxQNLineMinimize(), g, 3.0);
    EXPECT_EQ(f.gradients, g.gradients);
    EXPECT_EQ(mine.step, plain.step);
    EXPECT_EQ(mine.ok, plain.ok);
  }
}

// Several limits: the smallest ratio wins (0.3 for x1, then 0.1 for x2 with
// the reduced step); x3, beyond the limit count, is free to move by 10.
TEST(MaxStepLineMinimize, TightestLimitWinsAndExtraVariablesAreFree) {
  class FirstPoint : public lxtest::DiagonalQuadratic {
   public:
    using DiagonalQuadratic::operator();
    FirstPoint() : DiagonalQuadratic({1.0, 1.0, 1.0}, {5.0, 5.0, 50.0}) {}
    double operator()(const double* x, double* g) override {
      if (first.empty()) first.assign(x, x + 3);
      return DiagonalQuadratic::operator()(x, g);
    }
    std::vector<double> first;
  } q;
  double limits[2] = {0.3, 0.1};
  LxMaxStepLineMinimize lm(limits, 2);
  const double x0[3] = {0.0, 0.0, 0.0};
  double dir[3] = {1.0, 1.0, 100.0}, grad0[3], gradOut[3];
  double fval = q(x0, grad0), step = 1.0;
  q.first.clear();
  lm(3, x0, dir, grad0, gradOut, &fval, &step, q);
  ASSERT_EQ(q.first.size(), 3u);
  EXPECT_DOUBLE_EQ(q.first[0], 0.1);
  EXPECT_DOUBLE_EQ(q.first[1], 0.1);
  EXPECT_DOUBLE_EQ(q.first[2], 10.0);
}

TEST(MaxStepLineMinimize, SetMaxStepAndDeepCopies) {
  double first = 0.5, second = 2.0;
  LxMaxStepLineMinimize lm(&first, 1);
  EXPECT_FALSE(lm.SetMaxStep(0, &second));
  const LxMaxStepLineMinimize copy(lm);
  const std::unique_ptr<LxLineMinimize> clone(lm.CreateCopy());
  EXPECT_TRUE(lm.SetMaxStep(1, &second));
  first = 100.0;  // the objects hold their own copies
  Poly1D a(1, -2, 1, 0), b(1, -2, 1, 0), c(1, -2, 1, 0);
  Search(copy, a, 4.0);
  Search(*clone, b, 4.0);
  Search(lm, c, 4.0);
  EXPECT_EQ(a.gradients.front(), 0.5);
  EXPECT_EQ(b.gradients.front(), 0.5);
  EXPECT_EQ(c.gradients.front(), 2.0);
  LxMaxStepLineMinimize assigned;
  assigned = copy;
  Poly1D d(1, -2, 1, 0);
  Search(assigned, d, 4.0);
  EXPECT_EQ(d.gradients.front(), 0.5);
}

TEST(MaxStepLineMinimize, ValuesThatAreNotNumbersEndTheMarch) {
  double limit = 1e-6;
  LxMaxStepLineMinimize lm(&limit, 1);
  lxtest::NotANumber f(1, -1.0);
  const double x0 = 0.0;
  double dir = 1.0, grad0 = -1.0, gradOut = 0.0, fval = 0.0, step = 1e6;
  lm(1, &x0, &dir, &grad0, &gradOut, &fval, &step, f);
  EXPECT_LE(f.evaluations, 32 + 32);
}

}  // namespace maxstep

// --- backtracking search -----------------------------------------------------

namespace backtracking {

using LxOpt::LxNRLineSearch;

// Success on the first trial: one value-only and one value-and-gradient call.
// Mode 1 starts at 1.0 whatever *step says; mode 0 at *step.
TEST(NRLineSearch, FirstTrialByMode) {
  Poly1D one(1, -2, 1, 0);
  const Outcome r1 = Search(LxNRLineSearch(1), one, 0.3);
  EXPECT_EQ(one.values, std::vector<double>{1.0});
  EXPECT_EQ(one.gradients, std::vector<double>{1.0});
  EXPECT_TRUE(r1.ok);
  EXPECT_EQ(r1.step, 1.0);
  EXPECT_EQ(r1.fval, 0.0);
  EXPECT_EQ(r1.grad, 0.0);

  Poly1D zero(1, -2, 1, 0);
  const Outcome r0 = Search(LxNRLineSearch(0), zero, 0.3);
  EXPECT_EQ(zero.values, std::vector<double>{0.3});
  EXPECT_EQ(r0.step, 0.3);
}

// (x - 0.1)^2: the full step is rejected and the quadratic backtrack lands on
// the minimum 0.1; in mode 0 the same happens only for an entry step of
// exactly 1.0.
TEST(NRLineSearch, QuadraticBacktrackFromTheFullStep) {
  for (const auto& [mode, entry] : {std::pair<int, double>{1, 7.0}, {0, 1.0}}) {
    Poly1D f(0.01, -0.2, 1, 0);
    const Outcome r = Search(LxNRLineSearch(mode), f, entry);
    ASSERT_EQ(f.values.size(), 2u);
    EXPECT_EQ(f.values[0], 1.0);
    EXPECT_NEAR(f.values[1], 0.1, 1e-15);
    EXPECT_TRUE(r.ok);
  }
}

// From an entry step of 2 the cubic uses the initial previous point (1.0,
// 0.0): a = 0.81, b = -0.62 <= 0, disc = 0.8704, and the next step is the
// product sqrt(disc) (-b) / (3a) = 0.238..., not (-b + sqrt(disc)) / (3a).
TEST(NRLineSearch, ProductFormulaWhenBIsNotPositive) {
  Poly1D f(0.01, -0.2, 1, 0);
  Search(LxNRLineSearch(0), f, 2.0);
  ASSERT_GE(f.values.size(), 2u);
  EXPECT_EQ(f.values[0], 2.0);
  EXPECT_NEAR(f.values[1], std::sqrt(0.8704) * 0.62 / 2.43, 1e-12);
}

// A failed search leaves the last trial's step, value and gradient.
TEST(NRLineSearch, FailureWritesTheLastTrial) {
  Poly1D f(0, 0, 1, 0);  // x^2 from its minimum: nothing lower exists
  const Outcome r = Search(LxNRLineSearch(1), f, 1.0);
  EXPECT_FALSE(r.ok);
  EXPECT_LT(r.step, 1e-7);
  EXPECT_EQ(f.values.back(), r.step);
  EXPECT_EQ(f.gradients, std::vector<double>{r.step});
  EXPECT_EQ(r.fval, f.F(r.step));
  EXPECT_EQ(r.grad, f.Slope(r.step));
}

// n = 0 or a zero direction: the smallest step is infinite and the first
// trial fails after one value and one value-and-gradient evaluation.
TEST(NRLineSearch, NoVariablesOrZeroDirectionFail) {
  lxtest::DiagonalQuadratic empty({}, {});
  lxtest::Counting none(empty);
  double fval = 5.0, step = 0.5;
  EXPECT_FALSE(LxNRLineSearch()(0, nullptr, nullptr, nullptr, nullptr, &fval, &step, none));
  EXPECT_EQ(none.values, 1);
  EXPECT_EQ(none.gradients, 1);
  EXPECT_EQ(fval, 0.0);
  EXPECT_EQ(step, 0.5);

  lxtest::DiagonalQuadratic q({1.0, 1.0}, {1.0, 1.0});
  lxtest::Counting counted(q);
  const double x0[2] = {0.0, 0.0};
  double dir[2] = {0.0, 0.0}, grad0[2] = {-2.0, -2.0}, gradOut[2] = {kUnset, kUnset};
  fval = 2.0;
  EXPECT_FALSE(LxNRLineSearch()(2, x0, dir, grad0, gradOut, &fval, &step, counted));
  EXPECT_EQ(counted.values, 1);
  EXPECT_EQ(counted.gradients, 1);
  EXPECT_EQ(gradOut[0], -2.0);
}

// The cap max(|x|, n) shortens the caller's direction; CreateCopy drops it.
TEST(NRLineSearch, DirectionCapFromSetMaxStep) {
  lxtest::DiagonalQuadratic q({1.0, 1.0, 1.0}, {10.0, 10.0, 10.0});
  const double x0[3] = {0.0, 0.0, 0.0};
  double grad0[3], gradOut[3];
  const double f0 = q(x0, grad0);

  LxNRLineSearch lm;
  double unit[3] = {1.0, 0.0, 0.0};
  EXPECT_TRUE(lm.SetMaxStep(3, unit));  // max(1, 3) = 3
  double dir[3] = {4.0, 4.0, 2.0};      // length 6
  double fval = f0, step = 1.0;
  lm(3, x0, dir, grad0, gradOut, &fval, &step, q);
  EXPECT_EQ(dir[0], 2.0);
  EXPECT_EQ(dir[1], 2.0);
  EXPECT_EQ(dir[2], 1.0);

  const std::unique_ptr<LxLineMinimize> copy(lm.CreateCopy());
  double free[3] = {4.0, 4.0, 2.0};
  fval = f0;
  step = 1.0;
  EXPECT_TRUE((*copy)(3, x0, free, grad0, gradOut, &fval, &step, q));
  EXPECT_EQ(free[0], 4.0);

  EXPECT_TRUE(lm.SetMaxStep(0, unit));  // a cap of 0: every search fails
  double any[3] = {1.0, 1.0, 1.0};
  fval = f0;
  EXPECT_FALSE(lm(3, x0, any, grad0, gradOut, &fval, &step, q));
  EXPECT_EQ(any[0], 0.0);
}

TEST(NRLineSearch, ValuesThatAreNotNumbersStillEnd) {
  lxtest::NotANumber f(1, -1.0);
  const double x0 = 0.0;
  double dir = 1.0, grad0 = -1.0, gradOut = 0.0, fval = 0.0, step = 1.0;
  EXPECT_FALSE(LxNRLineSearch(1)(1, &x0, &dir, &grad0, &gradOut, &fval, &step, f));
  EXPECT_LE(f.evaluations, 40);  // 0.1 then halving down to 1e-7, plus the last
}

}  // namespace backtracking
