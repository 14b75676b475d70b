// Geometry driver and its progress checkpoint.
#include <gtest/gtest.h>
#include <lxopt/lxopt.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "support/geom.h"
#include "support/problems.h"

namespace {

using LxOpt::LxBFGSCheckpoint;
using LxOpt::LxBFGSOptimizer;
using lxtest::Recorder;

// "iter:state " per report; "-" marks a null point, "+" a gradient, and
// states 10 and 5 show the limit and window they carry.
std::string Trace(const Recorder& rec) {
  std::string s;
  for (const lxtest::Call& c : rec.calls)
    s += std::to_string(c.iter) + ":" + std::to_string(c.state) + (c.vars.empty() ? "-" : "") +
         (c.state == 10 ? "@" + std::to_string(c.gnorm) : "") +
         (c.state == 5 ? "@" + std::to_string(c.fval) : "") + (c.gradNull ? " " : "+ ");
  return s;
}

// f(x) = scale * inner(x).
class Scaled : public lxtest::Objective {
 public:
  using Objective::operator();
  Scaled(lxtest::Objective& inner, double scale) : inner_(inner), scale_(scale) {}
  unsigned int NumVar() const override { return inner_.NumVar(); }
  double operator()(const double* x) override { return scale_ * inner_(x); }
  double operator()(const double* x, double* g) override {
    const double f = inner_(x, g);
    for (unsigned int i = 0; i < NumVar(); ++i) g[i] *= scale_;
    return scale_ * f;
  }

 private:
  lxtest::Objective& inner_;
  double scale_;
};

// One variable: f and its derivative given as functions.
class OneVariable : public lxtest::Objective {
 public:
  using Objective::operator();
  OneVariable(std::function<double(double)> f, std::function<double(double)> df)
      : f_(std::move(f)), df_(std::move(df)) {}
  unsigned int NumVar() const override { return 1; }
  double operator()(const double* x) override { return f_(x[0]); }
  double operator()(const double* x, double* g) override {
    g[0] = df_(x[0]);
    return f_(x[0]);
  }

 private:
  std::function<double(double)> f_, df_;
};

// Cholesky factorisation of the packed lower triangle succeeds.
bool PackedIsPositiveDefinite(const std::vector<double>& packed, unsigned int n) {
  std::vector<double> l(packed);
  auto at = [&l](unsigned int i, unsigned int j) -> double& { return l[i * (i + 1) / 2 + j]; };
  for (unsigned int j = 0; j < n; ++j) {
    double d = at(j, j);
    for (unsigned int k = 0; k < j; ++k) d -= at(j, k) * at(j, k);
    if (!(d > 0.0)) return false;
    at(j, j) = std::sqrt(d);
    for (unsigned int i = j + 1; i < n; ++i) {
      double v = at(i, j);
      for (unsigned int k = 0; k < j; ++k) v -= at(i, k) * at(j, k);
      at(i, j) = v / at(j, j);
    }
  }
  return true;
}

// ------------------------------------------------------------ checkpoint

struct CheckpointCase {
  unsigned int state;
  std::vector<std::string> messages;  // with verbose on, stream or not
  bool statistics;                    // recorded without a stream
  std::string streamed;  // with a stream; statistics are then recorded only if this is empty
  unsigned int iter;
  bool nullVar;
};

// Two atoms: the reference at the origin, atom 0 now at (3, 4, 0): RMSD
// sqrt(25 / 2), largest displacement 5; gnorm 2 over 6 values.
TEST(GeometryCheckpoint, EachStateReportsAndRecordsAsItShould) {
  const std::string cycle = "cycle     3 gnorm =  2.0000e+00 Energy =     -1.5000 rmsd =    3.5355";
  const std::string sum = "No of cycles                    3\nFinal rms gradient        0.81650\n";
  const std::vector<CheckpointCase> cases = {
      {0, {cycle}, false, "", 3, false},
      {1, {"System at minimum energy, no optimization will be done."}, false, "", 3, false},
      {2, {"Geometry optimization done, rmsd =      3.53553"}, true, sum, 3, false},
      {3,
       {"No point lower in Energy could be found"},
       true,
       "No point lower in Energy could be found\n",
       3,
       false},
      {4, {"Search is being ended. Final rmsd =      3.53553"}, true, sum, 3, false},
      {5,
       {"Gradient test not passed but further calculations not justified:",
        "In 5 attempts to reduce Energy decrease was less than      3.53553"},
       true,
       sum,
       3,
       false},
      {6, {cycle, "Number of cycles exhausted"}, true, sum, 3, false},
      {7, {"Distance test satisfied, rmsd =      3.53553"}, true, sum, 3, false},
      {7, {"Distance test satisfied, rmsd =      3.53553"}, true, "", 0, false},
      {7, {"Distance test satisfied"}, false, "", 3, true},
      {8, {"Energy test satisfied"}, true, "", 3, false},
      {9, {"Gradient test satisfied"}, true, "", 3, false},
      {10, {"but gradient component is larger than      2.00000"}, false, "", 3, false},
      {11, {"Geometry optimization done,      3.53553"}, true, sum, 3, false},
      {12, {cycle, "Energy is basically stable"}, true, "", 3, false},
      {13, {}, false, "", 3, false},
  };
  std::vector<double> ref(6, 0.0), var = {3.0, 4.0, 0.0, 0.0, 0.0, 0.0};
  for (bool verbose : {true, false})
    for (bool stream : {false, true})
      for (const CheckpointCase& c : cases) {
        SCOPED_TRACE(std::to_string(c.state) + (verbose ? " verbose" : "") +
                     (stream ? " stream" : "") + " iter " + std::to_string(c.iter));
        LxBFGSCheckpoint cp;
        cp.SetParams("Energy", ref.data(), 6, nullptr, verbose, stream ? &LxOpt::lxout : nullptr);
        lxtest::MessageCapture capture;
        std::ostringstream text;
        std::ostream* previous = LxOpt::LxSetOutputStream(&text);
        EXPECT_TRUE(cp(c.iter, 6, -1.5, 2.0, c.nullVar ? nullptr : var.data(), nullptr, c.state));
        LxOpt::LxSetOutputStream(previous);
        EXPECT_EQ(capture.Texts(), verbose ? c.messages : std::vector<std::string>());
        for (const auto& m : capture.messages) EXPECT_EQ(m.level, LxOpt::LxMessageLevel::Info);
        EXPECT_EQ(text.str(), stream ? c.streamed : "");
        const bool statistics = c.statistics && !(stream && !c.streamed.empty());
        EXPECT_EQ(cp.GetLastState(), c.state);
        EXPECT_EQ(cp.GetLastCycle(), statistics ? c.iter : 0u);
        EXPECT_DOUBLE_EQ(cp.GetLastRmsGradient(), statistics ? 2.0 / std::sqrt(6.0) : 0.0);
        EXPECT_DOUBLE_EQ(cp.GetLastMaxDisplacement(), statistics ? 5.0 : 0.0);
      }
  // Four values: no RMSD, and the displacement of the one whole atom.
  const double four[4] = {3.0, 4.0, 0.0, 100.0};
  LxBFGSCheckpoint cp;
  cp.SetParams("Energy", ref.data(), 4, nullptr, false, nullptr);
  EXPECT_EQ(cp.rmsd(four), 0.0);
  EXPECT_DOUBLE_EQ(cp.maxdisp(four), 5.0);
}

TEST(GeometryDeathTest, ValueOnlyFormsAreFatal) {
  LxBFGSCheckpoint cp;
  LxBFGSOptimizer opt;
  lxtest::Linear linear({1.0});
  LxOpt::LxFunc0& valueOnly = linear;
  double x = 0.0, out;
  EXPECT_DEATH(static_cast<LxOpt::LxCheckpoint0&>(cp)(0, 1, 0.0, &x, 0),
               "fatal: operator\\(\\) \\(unsigned int,unsigned int,double,const double\\*, "
               "unsigned in\\), can't be used with LxBFGSOptimizer");
  EXPECT_DEATH(opt(valueOnly, &x, &out), "fatal: Cannot use LxFunc0 in gradient optimization");
  EXPECT_DEATH(opt(valueOnly, static_cast<LxOpt::LxCheckpoint0*>(nullptr), &x, &out),
               "fatal: Cannot use LxFunc0 in gradient optimization");
}

// ------------------------------------------------------------ driver

TEST(GeometryDriver, ExitsFollowTheThresholdsAndLimits) {
  // slope: f = 0.1 (x1 + x2 + x3) with a spectator x0 (zero gradient) that
  // sets |x| and so the relative displacement. Every cycle moves x1..x3 to
  // the step cap, 1 each in the first cycle and 4 each in the second, lowering
  // f by 0.3 and then 1.2; |g| = 0.1732.
  lxtest::Linear slope({0.0, 0.1, 0.1, 0.1});
  // tiny: the valley at 1e-12 of its height; no cycle lowers f by the 1e-7 of
  // progress.
  lxtest::Rosenbrock valley;
  Scaled tiny(valley, 1e-12);
  auto bowl = lxtest::DiagonalQuadratic::IllConditioned(3, 10.0);
  std::string stall, component;
  for (int k = 1; k <= 15; ++k) stall += std::to_string(k) + ":0 ";
  // faint: the valley at 1e-30 of its height with tolerance 1e-40. Every
  // value change is below 1e-23 (value test), no gradient component reaches
  // 1e-40, and the values stay within 0.01.
  Scaled faint(valley, 1e-30);
  for (std::string k : {"1", "2", "3", "4", "5", "6"})
    component += k + ":8 " + k + ":10@0.000000 " + k + (k < "6" ? ":0 " : ":5@0.010000 ");
  const double above = 0.1000001, below = 0.0999999, far = 1e6;
  struct Case {
    lxtest::Objective* f;
    std::vector<double> start;
    double tol, value;
    unsigned int limit;
    std::string trace;
  };
  const std::vector<Case> cases = {
      // |x| = 1000: displacement 1.7e-3, value change 0.3.
      {&slope, {1000, 0, 0, 0}, above, -0.3, 2, "1:9 1:11 "},  // |g| <= sqrt(4) tol
      {&slope, {1000, 0, 0, 0}, 0.1, -1.5, 2, "1:0 2:6 "},     // |g| > 1 tol
      {&slope, {1000, 0, 0, 0}, below, -1.5, 2, "1:0 2:6 "},
      // |x| = 1e6: displacement 1.7e-6.
      {&slope, {far, 0, 0, 0}, above, -0.3, 2, "1:7 1:11 "},        // <= 1e-4
      {&slope, {far, 0, 0, 0}, 0.1, -0.3, 2, "1:7 1:11 "},          // <= 1e-5
      {&slope, {far, 0, 0, 0}, below, -1.5, 2, "1:0 2:6 "},         // > 1e-24
      {&tiny, {-1.2, 1}, 1e-20, 0.0, 100, stall + "16:12 16:11 "},  // f <= 2.5e-11 throughout
      {&faint, {-1.2, 1}, 1e-40, 0.0, 100, component},
      {&bowl, {1, 1, 1.0078125}, 0.25, 10.0 / 16384, 100, "0:1- "},  // |g| < tol: f(start)
      // The limit is tested after a cycle: 0 runs one cycle, as 1 does (the
      // cap of 1 takes f from 10 to 8.1).
      {&bowl, {1, 1, 2}, 0.1, 8.1, 0, "1:6 "},
      {&bowl, {1, 1, 2}, 0.1, 8.1, 1, "1:6 "},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.trace + " tolerance " + std::to_string(c.tol));
    lxtest::Counting counted(*c.f);
    LxBFGSOptimizer opt;
    opt.SetTolerance(c.tol);
    opt.SetIterLimit(c.limit);
    Recorder rec;
    std::vector<double> out(c.start.size());
    const double f = opt(counted, &rec, c.start.data(), out.data());
    EXPECT_EQ(Trace(rec), c.trace);
    EXPECT_NEAR(f, c.value, 1e-11);
    EXPECT_EQ(f, (*c.f)(out.data()));
    EXPECT_EQ(counted.values, c.trace == "0:1- " ? 0 : 1);  // the final re-evaluation only
  }
}

// The cap and the line search seen from outside: a slope in atom 0 of two
// atoms (and in two loose coordinates) is followed to the cap, 1.0 in the
// first cycle and 4.0 in the second. Trials per cycle: after a restart the
// first moves the farthest atom by 0.1, then the search extrapolates to 5 x
// that and on to the cap (1 + 3 + 4 gradients: the start, cycle 1, cycle 2;
// the slope leaves y = 0, so H is never updated and both cycles start fresh).
TEST(GeometryStep, TrialsStopAtAPerAtomCapThatGrowsWhenReached) {
  struct Case {
    std::vector<double> slope;
    std::vector<double> move1, move2;  // point after cycles 1 and 2
  };
  const double third = 1.0 / 3.0, a = 1.0 / std::sqrt(3.0);
  const std::vector<Case> cases = {
      {{0.1, 0.1, 0.1, 0.0, 0.0, 0.0}, {-a, -a, -a, 0, 0, 0}, {-5 * a, -5 * a, -5 * a, 0, 0, 0}},
      {{0.3, 0.1}, {-1.0, -third}, {-5.0, -5 * third}},  // not atoms: each coordinate capped
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.slope.size());
    lxtest::Linear slope(c.slope);
    lxtest::Counting counted(slope);
    LxBFGSOptimizer opt;
    opt.SetTolerance(1e-3);
    opt.SetIterLimit(2);
    Recorder rec;
    std::vector<double> start(c.slope.size(), 0.0), out(c.slope.size());
    opt(counted, &rec, start.data(), out.data());
    ASSERT_EQ(Trace(rec), "1:0 2:6 ");
    for (size_t i = 0; i < start.size(); ++i) {
      EXPECT_NEAR(rec.calls[0].vars[i], c.move1[i], 1e-12);
      EXPECT_NEAR(rec.calls[1].vars[i], c.move2[i], 1e-12);
    }
    EXPECT_EQ(counted.gradients, 8);
    EXPECT_EQ(counted.values, 1);
  }
}

// Largest move of an atom (triple) from the driver's current point over all
// evaluations. The driver moves only to lower points and takes the lowest
// point of each search, so its current point is the lowest evaluated so far.
class MoveTracker : public lxtest::Objective, public LxOpt::LxCheckpoint1 {
 public:
  using lxtest::Objective::operator();
  using LxOpt::LxCheckpoint1::operator();
  MoveTracker(lxtest::Objective& inner, std::vector<double> start)
      : inner_(inner), current_(std::move(start)), lowest_(inner_(current_.data())) {}
  unsigned int NumVar() const override { return inner_.NumVar(); }
  double operator()(const double* x) override { return Seen(x, inner_(x)); }
  double operator()(const double* x, double* g) override { return Seen(x, inner_(x, g)); }
  bool operator()(unsigned int, unsigned int, double, double, const double*, const double*,
                  unsigned int state) override {
    last = state;
    return true;
  }
  double largest = 0.0;
  unsigned int last = 0;

 private:
  double Seen(const double* x, double f) {
    for (size_t i = 0; i + 2 < current_.size(); i += 3) {
      double d2 = 0.0;
      for (size_t k = i; k < i + 3; ++k) d2 += (x[k] - current_[k]) * (x[k] - current_[k]);
      largest = std::max(largest, std::sqrt(d2));
    }
    if (f < lowest_) {
      lowest_ = f;
      current_.assign(x, x + current_.size());
    }
    return f;
  }
  lxtest::Objective& inner_;
  std::vector<double> current_;
  double lowest_;
};

// SetMaxAtomStep is a hard limit on every trial, with and without the model
// and the history steps; the cluster still converges, and some trial goes to
// the limit. Without it the same run moves an atom farther.
TEST(GeometryStep, MaxAtomStepBoundsEveryTrialPerAtom) {
  lxtest::LennardJones cluster(13);
  const std::vector<double> start = lxtest::PerturbedIcosahedron(0.3);
  struct Case {
    double cap;
    bool cartesian, history, surrogate;
  };
  for (const Case& c : std::vector<Case>{{0.05, false, false, false},
                                         {0.05, true, false, false},
                                         {0.08, false, true, false},
                                         {0.05, true, false, true},
                                         {0.0, false, false, false}}) {
    SCOPED_TRACE(testing::Message() << c.cap << (c.surrogate ? " surrogate" : ""));
    LxBFGSOptimizer opt;
    EXPECT_EQ(opt.GetMaxAtomStep(), 0.0);
    opt.SetMaxAtomStep(c.cap);
    opt.SetCartesian(c.cartesian);
    opt.SetHistory(c.history);
    opt.SetSurrogate(c.surrogate);
    opt.SetTolerance(1e-4);
    MoveTracker tracked(cluster, start);
    std::vector<double> out(start.size());
    opt(tracked, &tracked, start.data(), out.data());
    EXPECT_EQ(tracked.last, 11u);
    if (c.cap > 0.0) {
      EXPECT_LE(tracked.largest, c.cap * (1 + 1e-12));
      EXPECT_GT(tracked.largest, 0.999 * c.cap);
    } else {
      EXPECT_GT(tracked.largest, 0.1);
    }
  }
}

// A limit above the initial radius stops its growth: a slope in atom 0 is
// followed by 1.0 in the first cycle, then by the limit 2.0 (4.0 without it).
TEST(GeometryStep, MaxAtomStepStopsTheTrustRadiusGrowing) {
  lxtest::Linear slope({0.1, 0.1, 0.1, 0.0, 0.0, 0.0});
  LxBFGSOptimizer opt;
  opt.SetMaxAtomStep(2.0);
  opt.SetTolerance(1e-3);
  opt.SetIterLimit(3);
  Recorder rec;
  std::vector<double> start(6, 0.0), out(6);
  opt(slope, &rec, start.data(), out.data());
  ASSERT_EQ(Trace(rec), "1:0 2:0 3:6 ");
  const double expected[] = {1.0, 3.0, 5.0};  // distance of atom 0 from the start
  for (int k = 0; k < 3; ++k) {
    const std::vector<double>& x = rec.calls[k].vars;
    EXPECT_NEAR(std::sqrt(x[0] * x[0] + x[1] * x[1] + x[2] * x[2]), expected[k], 1e-12);
  }
}

// The first cycle's search on one-variable functions whose minimum is known
// (from x = 0, along -g with H = I, cap 1): the accepted point meets the
// strong Wolfe conditions with c1 = 1e-4, c2 = 0.9 and lies below the start.
// Minima at 0.7, 0.5 (the first test function of More and Thuente's paper,
// rescaled to lie within the cap), 0.63 and 0.15.
TEST(GeometryStep, TheFirstSearchMeetsTheStrongWolfeConditions) {
  struct Case {
    const char* name;
    std::function<double(double)> f, df;
  };
  const std::vector<Case> cases = {
      {"quadratic", [](double x) { return (x - 0.7) * (x - 0.7); },
       [](double x) { return 2.0 * (x - 0.7); }},
      {"-x/(x^2+1/4)", [](double x) { return -x / (x * x + 0.25); },
       [](double x) { return (x * x - 0.25) / ((x * x + 0.25) * (x * x + 0.25)); }},
      {"x^4-x", [](double x) { return x * x * x * x - x; },
       [](double x) { return 4 * x * x * x - 1.0; }},
      {"steep wall", [](double x) { return std::exp(20.0 * (x - 0.3)) - x; },
       [](double x) { return 20.0 * std::exp(20.0 * (x - 0.3)) - 1.0; }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    OneVariable line(c.f, c.df);
    LxBFGSOptimizer opt;
    opt.SetTolerance(1e-12);
    opt.SetIterLimit(1);
    Recorder rec;
    double start = 0.0, out = 0.0;
    opt(line, &rec, &start, &out);
    ASSERT_FALSE(rec.calls.empty());
    const double x = rec.calls[0].vars[0], d = -c.df(0.0), a = x / d;
    EXPECT_GT(a, 0.0);
    EXPECT_LE(c.f(x), c.f(0.0) + 1e-4 * a * c.df(0.0) * d);
    EXPECT_LE(std::fabs(c.df(x) * d), 0.9 * std::fabs(c.df(0.0) * d));
  }
}

// A line whose values all round to 1000 (the quadratic's change is below an
// ulp): the slope alone must carry the first search close to the minimum at
// 0.7, not stop at the first trial (0.1) because its value is not higher.
TEST(GeometryStep, ValuesLevelToRoundingLeaveTheSearchToTheSlope) {
  auto df = [](double x) { return 2e-14 * (x - 0.7); };
  OneVariable line([](double x) { return 1000.0 + 1e-14 * (x - 0.7) * (x - 0.7); }, df);
  LxBFGSOptimizer opt;
  opt.SetTolerance(1e-30);
  opt.SetIterLimit(1);
  Recorder rec;
  double start = 0.0, out = 0.0;
  opt(line, &rec, &start, &out);
  ASSERT_FALSE(rec.calls.empty());
  const double x = rec.calls[0].vars[0];
  EXPECT_GT(x, 0.0);
  EXPECT_LE(std::fabs(df(x)), 0.3 * std::fabs(df(0.0)));
}

// The end phase on perturbed icosahedra: the self-scaled updates and the
// slope-judged searches bring |g| below the tolerance (gradient test, state
// 9) well before 16 cycles of negligible progress (stall rule, state 12).
TEST(GeometryStep, PerturbedClustersEndByTheGradientTestNotTheStallRule) {
  for (double amplitude : {0.1, 0.15}) {
    SCOPED_TRACE(amplitude);
    lxtest::LennardJones cluster(13);
    lxtest::Counting counted(cluster);
    const std::vector<double> start = lxtest::PerturbedIcosahedron(amplitude);
    LxBFGSOptimizer opt;
    opt.SetTolerance(1e-6);
    Recorder rec;
    std::vector<double> out(start.size());
    opt(counted, &rec, start.data(), out.data());
    ASSERT_GE(rec.calls.size(), 2u);
    EXPECT_EQ(rec.calls[rec.calls.size() - 2].state, 9u);
    EXPECT_LT(rec.calls.back().gnorm, 1e-6);
    EXPECT_LE(counted.gradients, 40);
  }
}

// The kept inverse Hessian after runs through non-convex regions: the update
// (scaled, damped where needed) must leave it positive definite.
TEST(GeometryStep, KeptInverseHessianIsPositiveDefinite) {
  lxtest::Rosenbrock valley;
  lxtest::LennardJones cluster(13);
  lxtest::DoubleWells wells(4);
  struct Case {
    lxtest::Objective* f;
    std::vector<double> start;
  };
  const std::vector<Case> cases = {
      {&valley, {-1.2, 1.0}},
      {&cluster, lxtest::PerturbedIcosahedron(0.15)},
      {&wells, {0.1, -0.3, 0.5, 1.0}},  // starts near the barrier tops
  };
  for (const Case& c : cases) {
    for (bool cartesian : {false, true}) {
      const unsigned int n = c.f->NumVar();
      SCOPED_TRACE(std::to_string(n) + (cartesian ? " cartesian" : ""));
      LxBFGSOptimizer opt;
      opt.SetKeepHessian(true);
      opt.SetCartesian(cartesian);
      opt.SetTolerance(1e-6);
      std::vector<double> out(n), h(n * (n + 1) / 2);
      opt(*c.f, c.start.data(), out.data());
      ASSERT_TRUE(opt.GetInverseHessian(h.data(), n));
      EXPECT_TRUE(PackedIsPositiveDefinite(h, n));
    }
  }
}

// Gradient calls of one run to tolerance tol, which must end by the tests
// (state 11).
int GradientCalls(LxBFGSOptimizer& opt, lxtest::Objective& f, const std::vector<double>& start,
                  double tol) {
  lxtest::Counting counted(f);
  opt.SetTolerance(tol);
  Recorder rec;
  std::vector<double> out(start.size());
  opt(counted, &rec, start.data(), out.data());
  EXPECT_EQ(rec.calls.back().state, 11u);
  return counted.gradients;
}

// Clusters far from their minima (the icosahedron shaken by 0.3 and the
// 38-atom truncated octahedron shaken by 0.25): the same cluster in eV and in
// kcal/mol (a factor 23.06, tolerance scaled alike) takes the same number of
// gradient calls within 10 %, with and without the Cartesian model, and the
// model saves calls.
TEST(GeometryStep, CallsDoNotDependOnTheEnergyUnitAndTheModelSavesThem) {
  constexpr double kKcalPerEv = 23.0605;
  struct Case {
    unsigned int atoms;
    std::vector<double> start;
  };
  const std::vector<Case> cases = {
      {13, lxtest::PerturbedIcosahedron(0.3)},
      {38, lxbench::PerturbedCluster::Perturbed(lxbench::TruncatedOctahedron38(), 11, 0.25)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.atoms);
    lxtest::LennardJones ev(c.atoms);
    Scaled kcal(ev, kKcalPerEv);
    int calls[2][2];  // [cartesian][unit]
    for (bool cartesian : {false, true}) {
      LxBFGSOptimizer opt;
      opt.SetCartesian(cartesian);
      calls[cartesian][0] = GradientCalls(opt, ev, c.start, 1e-5);
      calls[cartesian][1] = GradientCalls(opt, kcal, c.start, 1e-5 * kKcalPerEv);
      EXPECT_NEAR(calls[cartesian][1], calls[cartesian][0], 0.1 * calls[cartesian][0]);
    }
    EXPECT_LT(calls[1][0], calls[0][0]);
  }
}

// Variables that are not triples leave the Cartesian setting without effect:
// the run is the same report for report.
TEST(GeometryStep, TheCartesianSettingIgnoresVariablesThatAreNotTriples) {
  lxtest::Rosenbrock valley;
  std::string traces[2];
  std::vector<double> ends[2];
  for (bool cartesian : {false, true}) {
    LxBFGSOptimizer opt;
    opt.SetCartesian(cartesian);
    EXPECT_EQ(opt.GetCartesian(), cartesian);
    opt.SetTolerance(1e-8);
    Recorder rec;
    std::vector<double> start = {-1.2, 1.0}, out(2);
    opt(valley, &rec, start.data(), out.data());
    traces[cartesian] = Trace(rec);
    ends[cartesian] = out;
  }
  EXPECT_EQ(traces[0], traces[1]);
  EXPECT_EQ(ends[0], ends[1]);
}

// Counts the calls that reach it through its virtual operator.
class CountingBFGSCheckpoint : public LxBFGSCheckpoint {
 public:
  using LxBFGSCheckpoint::operator();
  bool operator()(unsigned int iter, unsigned int nvar, double fval, double gnorm,
                  const double* var, const double* grad, unsigned int state) override {
    ++calls;
    return LxBFGSCheckpoint::operator()(iter, nvar, fval, gnorm, var, grad, state);
  }
  unsigned int calls = 0;
};

// f(x) = inner(x / c): the same objective with lengths in a unit c times
// smaller.
class Stretched : public lxtest::Objective {
 public:
  using Objective::operator();
  Stretched(lxtest::Objective& inner, double c) : inner_(inner), c_(c), x_(inner.NumVar()) {}
  unsigned int NumVar() const override { return inner_.NumVar(); }
  double operator()(const double* x) override { return inner_(Shrink(x)); }
  double operator()(const double* x, double* g) override {
    const double f = inner_(Shrink(x), g);
    for (unsigned int i = 0; i < NumVar(); ++i) g[i] /= c_;
    return f;
  }

 private:
  double* Shrink(const double* x) {
    for (unsigned int i = 0; i < NumVar(); ++i) x_[i] = x[i] / c_;
    return x_.data();
  }
  lxtest::Objective& inner_;
  double c_;
  std::vector<double> x_;
};

// Two three-atom clusters on which the surrogate saves gradient calls over
// the Cartesian model alone (on most Lennard-Jones starts it does not), and
// takes the same number with energies in kcal/mol and with lengths in a unit
// 2.5 times smaller.
TEST(GeometrySurrogate, SavesCallsOnTheSmallestClustersInAnyUnits) {
  constexpr double kKcalPerEv = 23.0605;
  constexpr double kStretch = 2.5;
  constexpr double kTol = 1e-2;
  const std::vector<std::vector<double>> starts = {
      {0, 0, 0, 1.3, 0.1, 0, 0.5, 1.2, 0.1},
      {0, 0, 0, 1.4, 0, 0, 0.7, 1.1, 0},
  };
  for (const std::vector<double>& start : starts) {
    SCOPED_TRACE(start.size());
    lxtest::LennardJones cluster(static_cast<unsigned int>(start.size() / 3));
    Scaled kcal(cluster, kKcalPerEv);
    Stretched stretched(cluster, kStretch);
    std::vector<double> far(start);
    for (double& v : far) v *= kStretch;
    LxBFGSOptimizer opt;
    opt.SetCartesian(true);
    const int plain = GradientCalls(opt, cluster, start, kTol);
    opt.SetSurrogate(true);
    EXPECT_TRUE(opt.GetSurrogate());
    const int surrogate = GradientCalls(opt, cluster, start, kTol);
    EXPECT_LT(surrogate, plain);
    EXPECT_NEAR(GradientCalls(opt, kcal, start, kTol * kKcalPerEv), surrogate, 0.1 * surrogate);
    EXPECT_NEAR(GradientCalls(opt, stretched, far, kTol / kStretch), surrogate, 0.1 * surrogate);
  }
}

// With the surrogate on, the reports keep their form (one cycle line per
// cycle but the last, a test state, the final state 11) and runs reach the
// minimum, also on objectives the model describes badly (a valley, wells, a
// kink smoothed over 1e-3 where its minima stop being lower and the line
// search must take over).
TEST(GeometrySurrogate, KeepsTheReportsAndFallsBackWhereTheModelFails) {
  lxtest::LennardJones cluster(13);
  lxtest::Rosenbrock valley;
  lxtest::DoubleWells wells(4);
  OneVariable kink([](double x) { return std::sqrt(x * x + 1e-6); },
                   [](double x) { return x / std::sqrt(x * x + 1e-6); });
  struct Case {
    lxtest::Objective* f;
    std::vector<double> start;
    double tol;
    bool fallsBack;
  };
  const std::vector<Case> cases = {
      {&cluster, lxtest::PerturbedIcosahedron(0.08), 1e-4, false},
      {&valley, {-1.2, 1.0}, 1e-6, false},
      {&wells, {0.1, -0.3, 0.5, 1.0}, 1e-6, false},
      {&kink, {3.0}, 1e-4, true},
  };
  for (const Case& c : cases) {
    const unsigned int n = c.f->NumVar();
    SCOPED_TRACE(n);
    int calls[2];
    for (bool surrogate : {false, true}) {
      LxBFGSOptimizer opt;
      opt.SetSurrogate(surrogate);
      opt.SetTolerance(c.tol);
      lxtest::Counting counted(*c.f);
      CountingBFGSCheckpoint cp;
      std::vector<double> ref(c.start), out(n), g(n);
      cp.SetParams("f", ref.data(), n, nullptr, false, nullptr);
      opt(counted, &cp, c.start.data(), out.data());
      EXPECT_EQ(cp.GetLastState(), 11u);
      EXPECT_EQ(cp.calls, cp.GetLastCycle() + 1);
      (*c.f)(out.data(), g.data());
      for (double gi : g) EXPECT_LE(std::fabs(gi), c.tol);
      calls[surrogate] = counted.gradients;
    }
    // A model that keeps failing is given up after five cycles of at most
    // two tries each.
    if (c.fallsBack) {
      EXPECT_LE(calls[1], calls[0] + 10);
    }
  }
}

// History steps on or off x an LxBFGSCheckpoint (handled in place) or a
// class derived from it (called through its override).
class Convergence : public ::testing::TestWithParam<std::tuple<bool, bool>> {};

TEST_P(Convergence, TheClusterAndConvexQuadraticsReachTheirMinima) {
  lxtest::LennardJones cluster(13);
  auto mild = lxtest::DiagonalQuadratic::IllConditioned(12, 10.0);
  auto ill = lxtest::DiagonalQuadratic::IllConditioned(20, 1000.0);
  struct Case {
    lxtest::Objective* f;
    std::vector<double> start;
    double tol, minimum, slack;
  };
  std::vector<Case> cases = {
      {&cluster, lxtest::PerturbedIcosahedron(0.08), 1e-4,
       lxtest::LennardJones::kIcosahedronMinimum, 1e-6},
      // f >= |x - minimizer|^2 on both: f < 1e-12 puts x within 1e-6 of it.
      {&mild, std::vector<double>(12, -1.0), 1e-8, 0.0, 1e-12},
      {&ill, std::vector<double>(20, 0.0), 1e-8, 0.0, 1e-12},
  };
  for (Case& c : cases) {
    const unsigned int n = c.f->NumVar();
    SCOPED_TRACE(n);
    LxBFGSOptimizer opt;
    opt.SetHistory(std::get<0>(GetParam()));
    opt.SetTolerance(c.tol);
    LxBFGSCheckpoint exact;
    CountingBFGSCheckpoint derived;
    LxBFGSCheckpoint& cp = std::get<1>(GetParam()) ? derived : exact;
    cp.SetParams("f", c.start.data(), n, nullptr, false, nullptr);
    std::vector<double> out(n);
    EXPECT_NEAR(opt(*c.f, &cp, c.start.data(), out.data()), c.minimum, c.slack);
    EXPECT_EQ(cp.GetLastState(), 11u);
    EXPECT_LE(cp.GetLastRmsGradient() * std::sqrt(n), c.tol);
    // Reports: a cycle line per cycle but the last, one test state, the end.
    EXPECT_EQ(derived.calls, &cp == &derived ? cp.GetLastCycle() + 1 : 0u);
  }
}

INSTANTIATE_TEST_SUITE_P(HistoryAndCheckpoint, Convergence,
                         ::testing::Combine(::testing::Bool(), ::testing::Bool()));

TEST(GeometryDriver, KeepHessianStoresThePackedInverseThatMeetsTheLastSecant) {
  auto quad = lxtest::DiagonalQuadratic::IllConditioned(4, 10.0);
  LxBFGSOptimizer opt;
  lxtest::MessageCapture capture;
  std::vector<double> h(10), out(4), start(4, 3.0);
  opt(quad, start.data(), out.data());  // keep-Hessian off: nothing kept
  EXPECT_EQ(opt.GetHessianDimension(), 16u);
  EXPECT_FALSE(opt.GetInverseHessian(h.data(), 4));
  EXPECT_EQ(capture.Texts().back(), "Hessian can't be extracted because it not generated");

  opt.SetKeepHessian(true);
  opt.SetTolerance(1e-6);
  Recorder rec;
  opt(quad, &rec, start.data(), out.data());
  EXPECT_FALSE(opt.GetInverseHessian(h.data(), 3));
  EXPECT_EQ(capture.Texts().back(), "Can't extract Hessian: Wrong number of variables");
  ASSERT_TRUE(LxBFGSOptimizer(opt).GetInverseHessian(h.data(), 4));  // copies keep it too

  // The last update used s = x_last - x_before and y = g_last - g_before: H y = s.
  ASSERT_GE(rec.calls.size(), 3u);
  const std::vector<double>& last = rec.calls[rec.calls.size() - 2].vars;
  const std::vector<double>& before = rec.calls[rec.calls.size() - 3].vars;
  std::vector<double> g1(4), g0(4);
  quad(last.data(), g1.data());
  quad(before.data(), g0.data());
  for (int i = 0; i < 4; ++i) {
    double hy = 0.0, s = last[i] - before[i];
    for (int j = 0; j < 4; ++j)
      hy += h[i >= j ? i * (i + 1) / 2 + j : j * (j + 1) / 2 + i] * (g1[j] - g0[j]);
    EXPECT_NEAR(hy, s, 1e-9 + 1e-6 * std::fabs(s));
  }
}

// The kept matrix outlives runs that do not keep one; extraction checks n
// against the latest run and copies n (n + 1) / 2 values of it as they are
// stored, never more. A kept matrix too small for that n is refused.
TEST(GeometryDriver, ExtractionCopiesOnlyTheValuesForTheLatestN) {
  auto ten = lxtest::DiagonalQuadratic::IllConditioned(10, 10.0);
  auto three = lxtest::DiagonalQuadratic::IllConditioned(3, 10.0);
  constexpr double kUntouched = -777.0;
  LxBFGSOptimizer opt;
  lxtest::MessageCapture capture;
  std::vector<double> start(10, 3.0), out(10), kept(55), h(55, kUntouched);
  opt.SetKeepHessian(true);
  opt.SetTolerance(1e-6);
  opt(ten, start.data(), out.data());
  ASSERT_TRUE(opt.GetInverseHessian(kept.data(), 10));
  opt.SetKeepHessian(false);
  opt(three, start.data(), out.data());
  ASSERT_TRUE(opt.GetInverseHessian(h.data(), 3));
  EXPECT_EQ(std::vector<double>(h.begin(), h.begin() + 6),
            std::vector<double>(kept.begin(), kept.begin() + 6));
  EXPECT_EQ(std::vector<double>(h.begin() + 6, h.end()), std::vector<double>(49, kUntouched));

  LxBFGSOptimizer small;  // kept for 3, asked for 10 after a run over 10
  small.SetKeepHessian(true);
  small(three, start.data(), out.data());
  small.SetKeepHessian(false);
  small(ten, start.data(), out.data());
  EXPECT_FALSE(small.GetInverseHessian(h.data(), 10));
  EXPECT_EQ(capture.Texts().back(), "Can't extract Hessian: Wrong number of variables");
}

// Harmonic springs between atoms, E = sum k/2 (r - r0)^2: a methane-like
// molecule (C-H bonds 1.09, H-H as in a regular tetrahedron) whose minimum is 0.
class SpringMolecule : public lxtest::Objective {
 public:
  using Objective::operator();
  struct Spring {
    unsigned int a, b;
    double r0, k;
  };
  explicit SpringMolecule(std::vector<Spring> springs, unsigned int atoms)
      : springs_(std::move(springs)), atoms_(atoms) {}
  unsigned int NumVar() const override { return 3 * atoms_; }
  double operator()(const double* x) override {
    std::vector<double> g(NumVar());
    return (*this)(x, g.data());
  }
  double operator()(const double* x, double* g) override {
    std::fill(g, g + NumVar(), 0.0);
    double e = 0.0;
    for (const Spring& s : springs_) {
      double d[3], r = 0.0;
      for (int k = 0; k < 3; ++k) {
        d[k] = x[3 * s.a + k] - x[3 * s.b + k];
        r += d[k] * d[k];
      }
      r = std::sqrt(r);
      e += 0.5 * s.k * (r - s.r0) * (r - s.r0);
      for (int k = 0; k < 3; ++k) {
        g[3 * s.a + k] += s.k * (r - s.r0) * d[k] / r;
        g[3 * s.b + k] -= s.k * (r - s.r0) * d[k] / r;
      }
    }
    return e;
  }

 private:
  std::vector<Spring> springs_;
  unsigned int atoms_;
};

// The elements change the model only where they can be used: with the
// Cartesian model, one known element per atom. Elsewhere the run is the same
// report for report as without them.
TEST(GeometryStep, AtomicNumbersShapeTheModelOnlyWhereTheyApply) {
  std::vector<SpringMolecule::Spring> springs;
  for (unsigned int h = 1; h <= 4; ++h) springs.push_back({0, h, 1.09, 5.0});
  for (unsigned int h = 1; h <= 4; ++h)
    for (unsigned int j = h + 1; j <= 4; ++j)
      springs.push_back({h, j, 1.09 * std::sqrt(8.0 / 3.0), 0.5});
  SpringMolecule methane(springs, 5);
  const std::vector<double> start = {0.05, -0.02, 0.0,  0.7,  0.6, 0.55,  -0.6, -0.7,
                                     0.6,  -0.5,  0.65, -0.7, 0.6, -0.55, -0.6};
  auto run = [&](bool cartesian, const std::vector<int>& numbers, double* value) {
    LxBFGSOptimizer opt;
    opt.SetCartesian(cartesian);
    opt.SetAtomicNumbers(numbers.data(), static_cast<unsigned int>(numbers.size()));
    EXPECT_EQ(opt.GetAtomicNumbers(), numbers);
    opt.SetTolerance(1e-8);
    Recorder rec;
    std::vector<double> out(15);
    *value = opt(methane, &rec, start.data(), out.data());
    return Trace(rec);
  };
  double plain = 0.0, value = 0.0;
  const std::string cartesianTrace = run(true, {}, &plain);
  const std::string withElements = run(true, {6, 1, 1, 1, 1}, &value);
  EXPECT_NE(withElements, cartesianTrace);
  EXPECT_LT(value, 1e-12);
  EXPECT_LT(plain, 1e-12);

  struct Ignored {
    const char* why;
    bool cartesian;
    std::vector<int> numbers;
  };
  const std::vector<Ignored> ignored = {
      {"an unknown element", true, {6, 1, 1, 1, 0}},
      {"an element past the table", true, {97, 1, 1, 1, 1}},
      {"fewer numbers than atoms", true, {6, 1, 1, 1}},
      {"no Cartesian model", false, {6, 1, 1, 1, 1}},
  };
  const std::string noModelTrace = run(false, {}, &plain);
  for (const Ignored& c : ignored) {
    SCOPED_TRACE(c.why);
    EXPECT_EQ(run(c.cartesian, c.numbers, &value), c.cartesian ? cartesianTrace : noModelTrace);
  }

  LxBFGSOptimizer cleared;
  const int numbers[] = {6, 1};
  cleared.SetAtomicNumbers(numbers, 2);
  cleared.SetAtomicNumbers(nullptr, 2);
  EXPECT_TRUE(cleared.GetAtomicNumbers().empty());
}

}  // namespace
