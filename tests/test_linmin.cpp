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
// -x - x^3 falls ever faster: every interpolation is pushed out to twice the
// step, all 32 trials (1, 2, ..., 2^31) are spent and the next, unevaluated
// step 2^32 is reported with the last trial's value and slope.
const Poly kFalling{0, -1, 0, -1};
Points Doublings() {
  Points p(32);
  for (int i = 0; i < 32; ++i) p[i] = std::ldexp(1.0, i);
  return p;
}
// The More-Thuente search extrapolates on kFalling to a + 4 (a - a_prev):
// (4^(i+1) - 1) / 3, and after 20 trials takes the lowest, the last.
Points Quadruplings() {
  Points p(20);
  for (int i = 0; i < 20; ++i) p[i] = (std::ldexp(1.0, 2 * i + 2) - 1.0) / 3.0;
  return p;
}
// (x - 50)^2 with limit 1 from the entry step 100: the march walks 1, 2, ...,
// 50, where the slope stops it, and hands on 49.5, which the quasi-Newton
// search accepts at once (f = 0.25): 51 evaluations.
const Poly kFifty{2500, -100, 1, 0};
Points MarchToFifty() {
  Points p;
  for (int i = 1; i <= 50; ++i) p.push_back(i);
  p.push_back(49.5);
  return p;
}
// NR from 2 on (x - 0.1)^2: the cubic through (1, 0) and (2, f(2)) has b <= 0
// and the next step is the product sqrt(disc) (-b) / (3a), disc = 0.8704.
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
void PrintTo(const Case& c, std::ostream* os) {
  *os << c.name;
}

class OnALine : public ::testing::TestWithParam<Case> {};

// Every search runs through CreateCopy (copies keep the settings). On false,
// all but the backtracking search leave the outputs untouched.
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
        {"cg_spent_trials_report_next_step", &kCG, kFalling, 1.0, true, 0x1p32, Doublings()},
        // The quasi-Newton search accepts any first trial that meets both tests.
        {"qn_short_first_trial_accepted", &kQN, kSq, 0.5, true, 0.5, {0.5}},
        {"qn_long_first_trial_brackets", &kQN, kSq, 3.0, true, 1.0, {3.0, 1.0}},
        {"qn_overshoot_divides_by_3", &kQN, kHump, 4.0, true, kHumpMin, {4, 4.0 / 3, kHumpMin}},
        {"qn_entry_step_below_floor_searches", &kQN, kSq0, 1e-11, true, 1.0, {1e-10, 2.0, 1.0}},
        {"qn_linear_degenerate_interpolation_fails", &kQN, kLinear, 1.0, false, 0, {1.0}},
        {"qn_increase_fails", &kQN, kAtMin, 1.0, false, 0, {1.0, 0.0}},
        {"qn_spent_trials_report_next_step", &kQN, kFalling, 1.0, true, 0x1p32, Doublings()},
        // The final step is tested: a floor of 2 rejects the minimum at 1.
        {"qn_final_step_below_floor_fails", &kQNFloor2, kSq, 1.0, false, 0, {2.0, 1.0}},
        // One trial: the interpolated step with the first trial's value.
        {"qn_one_trial_reports_next_step", &kQNOneTrial, kSq, 0.05, true, 1.0, {0.05}},
        {"qn_no_trial_fails", &kQNNoTrial, kSq, 0.25, false, 0, {}},
        // Max-step: cut 4 to 0.5, march to the stop at 1.0, hand on 0.75.
        {"max_clamp_march_delegate", &kMaxHalf, kSq, 4.0, true, 0.75, {0.5, 1.0, 0.75}},
        {"max_stop_at_first_hands_on_half", &kMaxTwo, kSq, 4.0, true, 1.0, {2.0, 1.0}},
        {"max_march_to_entry_step_keeps_it", &kMaxHalf, kFar, 1.5, true, 1.5, {0.5, 1.0, 1.5}},
        {"max_long_march_to_its_end", &kMaxOne, kFifty, 100.0, true, 49.5, MarchToFifty()},
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
        {"mt_spent_trials_take_the_lowest", &kMT, kFalling, 1.0, true, Quadruplings()[19],
         Quadruplings()},
        {"mt_falling_at_the_limit_accepted", &kMTLimit2, kFalling, 1.0, true, 2.0, {1.0, 2.0}}}),
    [](const ::testing::TestParamInfo<Case>& i) { return std::string(i.param.name); });

// In n variables both cubic searches find the exact line minimum of a
// quadratic, a* = -g.d / (d.H d) = 15 / 5.125, with two gradient evaluations.
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

// Values that are not numbers end every search: CG spends its 32 trials and
// succeeds, QN stops at the degenerate interpolation, the march at the first
// such value (not 39 steps of 2.5e4 on to the entry step 1e6) before QN, the
// backtracking search fails at its smallest step, More-Thuente after its 20
// trials. n = 0: the cubic searches fail at the first trial (the value did
// not fall); the backtracking search's smallest step is infinite, so its
// first trial fails; More-Thuente sees no downhill slope and evaluates nothing.
struct EdgeCase {
  const char* name;
  const LxLineMinimize* lm;
  bool nanOk;
  int nanEvaluations;
  std::vector<double> empty;  // gradient and value calls, step left
};
void PrintTo(const EdgeCase& c, std::ostream* os) {
  *os << c.name;
}
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

// The geometry driver's search serves the quasi-Newton optimizers too: BFGS
// with it reaches the valley's minimum.
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

// The limits are copied in; copies and assignment are deep (clones: above), and
// SetMaxStep replaces them (n = 0 changes nothing). With several limits the
// smallest ratio wins (0.3 for x1, then 0.1 for x2 with the reduced step); x3,
// beyond the limit count, is free to move by 10: the march starts at 0.1.
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

// A limit so small that the step a rounds to 0: the march would sample x0 for
// ever while the caller's value lies above it; it samples x0 once and hands
// the entry step on (the quasi-Newton search accepts 0.25 at once).
TEST(MaxStepLineMinimize, AMarchThatCannotMoveEnds) {
  Poly1D f(kSq);
  double limit = 4.9e-324, x0 = 0.0, dir = 4.0, grad0 = -8.0, gradOut = 0.0, fval = 2.0;
  double step = 0.25;
  ASSERT_TRUE(LxMaxStepLineMinimize(&limit, 1)(1, &x0, &dir, &grad0, &gradOut, &fval, &step, f));
  EXPECT_EQ(f.points, (Points{0.0, 1.0}));
  EXPECT_EQ(step, 0.25);
}

// A failed backtracking search leaves the last trial's step, value and
// gradient, evaluated with the gradient once at the end.
TEST(NRLineSearch, FailureWritesTheLastTrial) {
  Poly1D f(kAtMin);
  const Outcome r = Search(kNR1, f, 1.0);
  EXPECT_TRUE(!r.ok && r.step < 1e-7 && f.gradientCalls == 1) << r.step;
  EXPECT_EQ(std::make_pair(r.fval, r.grad), std::make_pair(f.F(r.step), f.Slope(r.step)));
}

// Along the ascent direction of x - x^2/2 the quadratic backtrack from the
// full step lands on the full step again: the second trial there fails
// instead of cycling forever.
TEST(NRLineSearch, RepeatedFullStepFails) {
  Poly1D f({0, 1, -0.5, 0});
  const Outcome r = Search(kNR1, f, 1.0);
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(f.points, (Points{1.0, 1.0, 1.0}));
}

// The cap max(|x|, n) shortens the caller's direction; a copy has no cap; a
// zero direction, and any direction under a cap of 0 (n = 0), fails at once.
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
