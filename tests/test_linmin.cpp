// Line minimizers called directly on lines whose minimum is known.
#include <gtest/gtest.h>
#include <lxopt/lxopt.h>

#include <cmath>
#include <memory>

#include "support/linesearch.h"
#include "support/problems.h"

namespace {

using namespace LxOpt;
using lxtest::Poly1D;
using Points = std::vector<double>;
using Searches = std::initializer_list<const LxLineMinimize*>;

constexpr double kUnset = 777.0;  // gradOut before the call

struct Outcome {
  bool ok;
  double step, fval, grad;
};

// One search from x0 = 0 along dir = 1 on a one-variable polynomial.
Outcome Search(const LxLineMinimize& lm, Poly1D& f, double step) {
  const double x0 = 0.0;
  double dir = 1.0, grad0 = f.Slope(x0), gradOut = kUnset, fval = f.F(x0);
  const bool ok = lm(1, &x0, &dir, &grad0, &gradOut, &fval, &step, f);
  return {ok, step, fval, gradOut};
}

double limitHalf = 0.5, limitTwo = 2.0, limitZero = 0.0, limitWide = 10.0, limitOne = 1.0,
       limitLong = 2.5e4;
const LxCGLineMinimize kCG;
const LxQNLineMinimize kQN, kQNFloor2(32, 1e-4, 0.9, 2.0), kQNOneTrial(1), kQNNoTrial(0);
const LxMaxStepLineMinimize kMaxHalf(&limitHalf, 1), kMaxTwo(&limitTwo, 1), kMaxZero(&limitZero, 1),
    kMaxWide(&limitWide, 1), kMaxOne(&limitOne, 1), kMaxLong(&limitLong, 1), kMaxNone;
const LxNRLineSearch kNR0(0), kNR1(1);
const LxMoreThuenteLineMinimize kMT, kMTLimit2 = [] {
  LxMoreThuenteLineMinimize lm;
  lm.SetStepLimit(2.0);
  return lm;
}();

// The polynomials c0 + c1 x + c2 x^2 + c3 x^3 along the line.
using Poly = std::array<double, 4>;
const Poly kSq{1, -2, 1, 0};         // (x - 1)^2
const Poly kSq0{0, -2, 1, 0};        // x^2 - 2x: no rounding of f0 at tiny steps
const Poly kAtMin{0, 0, 1, 0};       // x^2, searched from its minimum
const Poly kCubic{0, -3, 0, 1};      // x^3 - 3x, minimum at 1
const Poly kLinear{1, -1, 0, 0};     // 1 - x
const Poly kFar{100, -20, 1, 0};     // (x - 10)^2
const Poly kNear{0.01, -0.2, 1, 0};  // (x - 0.1)^2
// A hump whose trial at 4 lies higher while still descending.
const Poly kHump{0, -1, 2, -0.4};
const double kHumpMin = (4.0 - std::sqrt(16.0 - 4.8)) / 2.4;
// -x - x^3 falls ever faster: the cubic searches spend 32 trials 1, 2, ..., 2^31
// and report the unevaluated 2^32 with the last trial's value and slope.
const Poly kFalling{0, -1, 0, -1};
// f(0), ..., f(n - 1).
template <class F>
Points Series(int n, F f) {
  Points p(n);
  for (int i = 0; i < n; ++i) p[i] = f(i);
  return p;
}
const Points kDoublings = Series(32, [](int i) { return std::ldexp(1.0, i); });
// More-Thuente extrapolates to a + 4 (a - a_prev) and takes the last of 20.
const Points kQuadruplings =
    Series(20, [](int i) { return (std::ldexp(1.0, 2 * i + 2) - 1.0) / 3.0; });
// (x - 50)^2, limit 1: the march walks 1, ..., 50 and hands on 49.5 (accepted).
const Poly kFifty{2500, -100, 1, 0};
const Points kMarchToFifty = Series(51, [](int i) { return i < 50 ? i + 1.0 : 49.5; });
// NR from 2 on (x - 0.1)^2: b <= 0, so the step is sqrt(disc) (-b) / (3a).
const double kProductStep = std::sqrt(0.8704) * 0.62 / 2.43;

// step: the accepted step when ok; trials: every evaluation point, in order.
struct Case {
  const char* name;
  const LxLineMinimize* lm;
  Poly poly;
  double entryStep;
  bool ok;
  double step;
  Points trials;
};

class OnALine : public ::testing::TestWithParam<Case> {};

// Through CreateCopy (copies keep the settings); on false the outputs stay.
TEST_P(OnALine, TrialsAndResult) {
  const Case& c = GetParam();
  Poly1D f(c.poly);
  const std::unique_ptr<LxLineMinimize> lm(c.lm->CreateCopy());
  const Outcome r = Search(*lm, f, c.entryStep);
  ASSERT_EQ(f.points.size(), c.trials.size()) << ::testing::PrintToString(f.points);
  for (size_t i = 0; i < c.trials.size(); ++i)  // to 1e-7: extrapolating from 1e-10 rounds
    EXPECT_NEAR(f.points[i], c.trials[i], 1e-7 * std::fmax(1.0, std::fabs(c.trials[i])));
  ASSERT_EQ(r.ok, c.ok);
  const double last = c.ok ? f.points.back() : 0.0;
  EXPECT_NEAR(r.step, c.ok ? c.step : c.entryStep, 1e-12 * std::fmax(1.0, c.step));
  EXPECT_EQ(std::make_pair(r.fval, r.grad),
            std::make_pair(f.F(last), c.ok ? f.Slope(last) : kUnset));
}

INSTANTIATE_TEST_SUITE_P(
    Searches, OnALine,
    ::testing::ValuesIn(std::vector<Case>{
        // The CG search accepts a first trial only at a practically zero slope.
        {"cg_first_trial_at_minimum", &kCG, kSq, 1.0, true, 1.0, {1.0}},
        {"cg_short_first_trial_interpolates", &kCG, kSq, 0.5, true, 1.0, {0.5, 1.0}},
        {"cg_long_first_trial_brackets", &kCG, kSq, 3.0, true, 1.0, {3.0, 1.0}},
        {"cg_cubic_bracketed", &kCG, kCubic, 2.0, true, 1.0, {2.0, 1.0}},
        {"cg_overshoot_divides_by_3", &kCG, kHump, 4.0, true, kHumpMin, {4, 4.0 / 3, kHumpMin}},
        {"cg_entry_step_below_floor_fails", &kCG, kSq0, 1e-11, false, 0, {1e-10, 2.0, 1.0}},
        {"cg_increase_fails", &kCG, kAtMin, 1.0, false, 0, {1.0, 0.0}},
        {"cg_spent_trials_report_next_step", &kCG, kFalling, 1.0, true, 0x1p32, kDoublings},
        // The quasi-Newton search accepts any first trial that meets both tests.
        {"qn_short_first_trial_accepted", &kQN, kSq, 0.5, true, 0.5, {0.5}},
        {"qn_long_first_trial_brackets", &kQN, kSq, 3.0, true, 1.0, {3.0, 1.0}},
        {"qn_overshoot_divides_by_3", &kQN, kHump, 4.0, true, kHumpMin, {4, 4.0 / 3, kHumpMin}},
        {"qn_entry_step_below_floor_searches", &kQN, kSq0, 1e-11, true, 1.0, {1e-10, 2.0, 1.0}},
        {"qn_linear_degenerate_interpolation_fails", &kQN, kLinear, 1.0, false, 0, {1.0}},
        {"qn_increase_fails", &kQN, kAtMin, 1.0, false, 0, {1.0, 0.0}},
        {"qn_spent_trials_report_next_step", &kQN, kFalling, 1.0, true, 0x1p32, kDoublings},
        // The final step is tested: a floor of 2 rejects the minimum at 1.
        {"qn_final_step_below_floor_fails", &kQNFloor2, kSq, 1.0, false, 0, {2.0, 1.0}},
        // One trial: the interpolated step with the first trial's value.
        {"qn_one_trial_reports_next_step", &kQNOneTrial, kSq, 0.05, true, 1.0, {0.05}},
        {"qn_no_trial_fails", &kQNNoTrial, kSq, 0.25, false, 0, {}},
        // Max-step: cut 4 to 0.5, march to the stop at 1.0, hand on 0.75.
        {"max_clamp_march_delegate", &kMaxHalf, kSq, 4.0, true, 0.75, {0.5, 1.0, 0.75}},
        {"max_stop_at_first_hands_on_half", &kMaxTwo, kSq, 4.0, true, 1.0, {2.0, 1.0}},
        {"max_march_to_entry_step_keeps_it", &kMaxHalf, kFar, 1.5, true, 1.5, {0.5, 1.0, 1.5}},
        {"max_long_march_to_its_end", &kMaxOne, kFifty, 100.0, true, 49.5, kMarchToFifty},
        // No cut: exactly the quasi-Newton search.
        {"max_no_limits", &kMaxNone, kSq, 3.0, true, 1.0, {3.0, 1.0}},
        {"max_zero_limit", &kMaxZero, kSq, 3.0, true, 1.0, {3.0, 1.0}},
        {"max_wide_limit", &kMaxWide, kSq, 3.0, true, 1.0, {3.0, 1.0}},
        // Backtracking: values alone, then value and gradient at the stop.
        {"nr_mode1_starts_at_one", &kNR1, kSq, 0.3, true, 1.0, {1.0, 1.0}},
        {"nr_mode0_starts_at_entry", &kNR0, kSq, 0.3, true, 0.3, {0.3, 0.3}},
        {"nr_mode1_quadratic_backtrack", &kNR1, kNear, 7.0, true, 0.1, {1.0, 0.1, 0.1}},
        {"nr_mode0_quadratic_backtrack", &kNR0, kNear, 1.0, true, 0.1, {1.0, 0.1, 0.1}},
        {"nr_product_formula", &kNR0, kNear, 2.0, true, 0.1, {2.0, kProductStep, 0.1, 0.1}},
        // More-Thuente: strong Wolfe tests, no trial beyond the step limit.
        {"mt_first_trial_accepted", &kMT, kSq, 0.5, true, 0.5, {0.5}},
        {"mt_long_first_trial_brackets", &kMT, kSq, 3.0, true, 1.0, {3.0, 1.0}},
        {"mt_not_downhill_fails", &kMT, kAtMin, 1.0, false, 0, {}},
        {"mt_spent_trials_take_the_lowest", &kMT, kFalling, 1.0, true, kQuadruplings[19],
         kQuadruplings},
        {"mt_falling_at_the_limit_accepted", &kMTLimit2, kFalling, 1.0, true, 2.0, {1.0, 2.0}}}),
    [](const ::testing::TestParamInfo<Case>& i) { return std::string(i.param.name); });

// In n variables the cubic searches find a* = -g.d / (d.H d) in two gradients.
TEST(LineSearchInNVariables, QuadraticLineMinimum) {
  lxtest::DiagonalQuadratic q({1.0, 4.0, 9.0}, {1.0, -1.0, 2.0});
  const double x0[3] = {0.0, 0.0, 0.0};
  double grad0[3] = {-2.0, 8.0, -36.0};
  for (const LxLineMinimize* lm : Searches{&kCG, &kQN}) {
    LxCountingFunc counted(q);
    double dir[3] = {1.0, -0.5, 0.25}, gradOut[3], fval = 41.0, step = 0.1, g[3];
    ASSERT_TRUE((*lm)(3, x0, dir, grad0, gradOut, &fval, &step, counted));
    EXPECT_TRUE(counted.Gradients() == 2 && counted.Values() == 0);
    EXPECT_NEAR(step, 15.0 / 5.125, 1e-9);  // value differences limit the cubic
    const double x[3] = {step, -0.5 * step, 0.25 * step};
    EXPECT_NEAR(fval, q(x, g), 1e-12);
    for (int i = 0; i < 3; ++i) EXPECT_NEAR(gradOut[i], g[i], 1e-12);
  }
}

// NaN values end every search (the march at the first one, not after 39 steps);
// n = 0 fails at the first trial, or at none for More-Thuente.
struct EdgeCase {
  const char* name;
  const LxLineMinimize* lm;
  bool nanOk;
  int nanEvaluations;
  std::vector<double> empty;  // gradient and value calls, step left
};
class Edges : public ::testing::TestWithParam<EdgeCase> {};

TEST_P(Edges, NotANumberAndNoVariablesEndTheSearch) {
  const EdgeCase& c = GetParam();
  lxtest::NotANumber f;
  const double x0 = 0.0;
  double dir = 1.0, grad0 = -1.0, gradOut = kUnset, fval = 0.0, step = 1e6;
  EXPECT_EQ((*c.lm)(1, &x0, &dir, &grad0, &gradOut, &fval, &step, f), c.nanOk);
  EXPECT_EQ(f.evaluations, c.nanEvaluations);
  lxtest::DiagonalQuadratic empty({}, {});
  LxCountingFunc counted(empty);
  fval = 0.0, step = 0.5;
  EXPECT_FALSE((*c.lm)(0, nullptr, nullptr, nullptr, nullptr, &fval, &step, counted));
  EXPECT_EQ((std::vector<double>{1.0 * counted.Gradients(), 1.0 * counted.Values(), step}),
            c.empty);
}

INSTANTIATE_TEST_SUITE_P(Searches, Edges,
                         ::testing::ValuesIn(std::vector<EdgeCase>{
                             {"cg", &kCG, true, 32, {1, 0, 0.5}},
                             {"qn", &kQN, false, 1, {1, 0, 0.5}},
                             {"max_long", &kMaxLong, false, 1 + 1, {1, 0, 0.5}},
                             {"nr0", &kNR0, false, 46, {1, 1, 0.5}},
                             {"nr1", &kNR1, false, 23, {1, 1, 1.0}},
                             {"mt", &kMT, false, 20, {0, 0, 0.5}}}),
                         [](const auto& i) { return std::string(i.param.name); });

// The geometry driver's search serves BFGS too.
TEST(MoreThuenteLineMinimize, DrivesTheQuasiNewtonOptimizers) {
  lxtest::Rosenbrock valley;
  LxBFGSOpt bfgs;
  ASSERT_TRUE(bfgs.SetLineMinimize(LxMoreThuenteLineMinimize()));
  bfgs.SetTolerance(1e-16);
  double start[2] = {-1.2, 1.0}, out[2];
  EXPECT_LT(bfgs(valley, start, out), 1e-12);
  EXPECT_EQ(bfgs.LastRun().state, kLxDone);
  EXPECT_NEAR(out[0], 1.0, 1e-6);
}

// The tightest limit wins (x3, past the count, is free); limits are copied in,
// copies are deep and SetMaxStep replaces them (n = 0 changes nothing).
TEST(MaxStepLineMinimize, LimitsCopiesAndTheTightestLimit) {
  Poly1D f3(kSq);
  double limits[2] = {0.3, 0.1}, step = 1.0, fval = 1.0, gradOut[3], dir[3] = {1.0, 1.0, 100.0};
  double x0[3] = {0.0, 0.0, 0.0}, grad0[3] = {-2.0, 0.0, 0.0};
  LxMaxStepLineMinimize(limits, 2)(3, x0, dir, grad0, gradOut, &fval, &step, f3);
  EXPECT_NEAR(f3.points.front(), 0.1, 1e-15);
  double first = 0.5, second = 2.0;
  LxMaxStepLineMinimize lm(&first, 1), assigned;
  EXPECT_FALSE(lm.SetMaxStep(0, &second));
  const LxMaxStepLineMinimize copy(lm);
  assigned = lm;
  EXPECT_TRUE(lm.SetMaxStep(1, &second));
  first = 100.0;
  for (const LxLineMinimize* search : Searches{&copy, &assigned, &lm}) {
    Poly1D f(kSq);
    Search(*search, f, 4.0);
    EXPECT_EQ(f.points.front(), search == &lm ? 2.0 : 0.5);
  }
}

// A step that rounds to 0: the march samples x0 once and hands the step on.
TEST(MaxStepLineMinimize, AMarchThatCannotMoveEnds) {
  Poly1D f(kSq);
  double limit = 4.9e-324, x0 = 0.0, dir = 4.0, grad0 = -8.0, gradOut = 0.0, fval = 2.0;
  double step = 0.25;
  ASSERT_TRUE(LxMaxStepLineMinimize(&limit, 1)(1, &x0, &dir, &grad0, &gradOut, &fval, &step, f));
  EXPECT_EQ(f.points, (Points{0.0, 1.0}));
  EXPECT_EQ(step, 0.25);
}

// A failed backtracking search leaves the last trial, its gradient taken once.
TEST(NRLineSearch, FailureWritesTheLastTrial) {
  Poly1D f(kAtMin);
  const Outcome r = Search(kNR1, f, 1.0);
  EXPECT_TRUE(!r.ok && r.step < 1e-7 && f.gradientCalls == 1) << r.step;
  EXPECT_EQ(std::make_pair(r.fval, r.grad), std::make_pair(f.F(r.step), f.Slope(r.step)));
  Poly1D ascent({0, 1, -0.5, 0});  // a backtrack back to the full step fails, not cycles
  EXPECT_FALSE(Search(kNR1, ascent, 1.0).ok);
  EXPECT_EQ(ascent.points, (Points{1.0, 1.0, 1.0}));
}

// The cap max(|x|, n) shortens the direction (copies have none); a zero
// direction, or a cap of 0, fails at once.
TEST(NRLineSearch, DirectionCapAndZeroDirection) {
  Poly1D f(kSq);  // along x[0]
  const double x0[3] = {0.0, 0.0, 0.0};
  double grad0[3] = {-2.0, 0.0, 0.0}, gradOut[3];
  LxNRLineSearch lm;
  double unit[3] = {1.0, 0.0, 0.0};
  EXPECT_TRUE(lm.SetMaxStep(3, unit));  // max(|x| = 1, n = 3) = 3
  const std::unique_ptr<LxLineMinimize> copy(lm.CreateCopy());
  const auto run = [&](const LxLineMinimize& search, Points dir) {
    double fval = 1.0, step = 1.0;
    dir.push_back(search(3, x0, dir.data(), grad0, gradOut, &fval, &step, f) ? 1.0 : 0.0);
    return dir;
  };
  EXPECT_EQ(run(lm, {4.0, 4.0, 2.0}), (Points{2.0, 2.0, 1.0, 1.0}));  // length 6 -> 3
  EXPECT_EQ(run(*copy, {4.0, 4.0, 2.0}), (Points{4.0, 4.0, 2.0, 1.0}));
  EXPECT_EQ(run(lm, {0.0, 0.0, 0.0}), (Points{0.0, 0.0, 0.0, 0.0}));
  EXPECT_TRUE(lm.SetMaxStep(0, unit));
  EXPECT_EQ(run(lm, {1.0, 1.0, 1.0}), (Points{0.0, 0.0, 0.0, 0.0}));
}

}  // namespace
