// Geometry driver and its progress checkpoint.
#include <gtest/gtest.h>
#include <lxopt/lxopt.h>

#include <Eigen/Cholesky>
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

using namespace LxOpt;
using Vec = std::vector<double>;

// "iter:state " per report; "-": null point, "+": gradient, "@": state 10's limit, state 5's
// window.
std::string Trace(const LxTraceCheckpoint& trace) {
  std::string s;
  for (const LxTraceEntry& c : trace.Entries())
    s += std::to_string(c.iter) + ":" + std::to_string(c.state) + (c.x.empty() ? "-" : "") +
         (c.state == 10 ? "@" + std::to_string(c.gnorm) : "") +
         (c.state == 5 ? "@" + std::to_string(c.fval) : "") + (c.hasGradient ? "+ " : " ");
  return s;
}

// One run from start with every report recorded and the evaluations counted.
struct Run {
  LxTraceCheckpoint trace{nullptr, true};
  Vec out;
  double f;
  std::uint64_t values, gradients;
  const Vec& Point(size_t report) const { return trace.Entries()[report].x; }
  unsigned int LastState() const { return trace.Entries().back().state; }
};
std::unique_ptr<Run> RunFrom(LxBFGSOptimizer& opt, LxFunc1& func, const Vec& start) {
  auto run = std::make_unique<Run>();
  LxCountingFunc counted(func);
  run->out.resize(start.size());
  run->f = opt(counted, &run->trace, start.data(), run->out.data());
  run->values = counted.Values();
  run->gradients = counted.Gradients();
  return run;
}

// f(x) = energy * inner(x / length): the same objective in other units; also
// records the largest atom move from the lowest point so far (the driver's).
class Rescaled : public lxtest::InUnits {
 public:
  using InUnits::InUnits;
  using InUnits::operator();
  double operator()(const double* x) override { return Seen(x, InUnits::operator()(x)); }
  double operator()(const double* x, double* g) override {
    return Seen(x, InUnits::operator()(x, g));
  }
  double largest = 0.0;

 private:
  double Seen(const double* x, double f) {
    for (size_t i = 0; i + 2 < current_.size(); i += 3)
      largest = std::max(largest, std::hypot(x[i] - current_[i], x[i + 1] - current_[i + 1],
                                             x[i + 2] - current_[i + 2]));
    if (current_.empty() || f < lowest_) {
      lowest_ = f;
      current_.assign(x, x + NumVar());
    }
    return f;
  }
  double lowest_ = 0.0;
  Vec current_;
};

// One variable: f and its derivative given as functions.
class OneVariable : public lxtest::Objective {
 public:
  using Objective::operator();
  OneVariable(std::function<double(double)> f, std::function<double(double)> df)
      : f(std::move(f)), df(std::move(df)) {}
  unsigned int NumVar() const override { return 1; }
  double operator()(const double* x) override { return f(x[0]); }
  double operator()(const double* x, double* g) override {
    g[0] = df(x[0]);
    return f(x[0]);
  }
  std::function<double(double)> f, df;
};

// The symmetric n x n matrix of a packed lower triangle.
Eigen::MatrixXd Unpacked(const Vec& packed, unsigned int n) {
  Eigen::MatrixXd full(n, n);
  for (unsigned int i = 0, k = 0; i < n; ++i)
    for (unsigned int j = 0; j <= i; ++j) full(i, j) = full(j, i) = packed[k++];
  return full;
}

// ------------------------------------------------------------ checkpoint

struct CheckpointCase {
  unsigned int state;
  std::vector<std::string> messages;  // with verbose on, stream or not
  bool statistics;                    // recorded without a stream
  std::string streamed = "";  // with a stream; statistics are then recorded only if this is empty
  unsigned int iter = 3;
  bool nullVar = false;
};

// Two atoms: the reference at the origin, atom 0 now at (3, 4, 0): RMSD
// sqrt(25 / 2), largest displacement 5; gnorm 2 over 6 values.
TEST(GeometryCheckpoint, EachStateReportsAndRecordsAsItShould) {
  const std::string cycle = "cycle     3 gnorm =  2.0000e+00 Energy =     -1.5000 rmsd =    3.5355";
  const std::string sum = "No of cycles                    3\nFinal rms gradient        0.81650\n";
  const std::string rmsd = "     3.53553", lower = "No point lower in Energy could be found";
  const std::string distance = "Distance test satisfied",
                    attempts = "In 5 attempts to reduce Energy decrease was less than " + rmsd;
  const std::vector<CheckpointCase> cases = {
      {0, {cycle}, false},
      {1, {"System at minimum energy, no optimization will be done."}, false},
      {2, {"Geometry optimization done, rmsd = " + rmsd}, true, sum},
      {3, {lower}, true, lower + "\n"},
      {4, {"Search is being ended. Final rmsd = " + rmsd}, true, sum},
      {5,
       {"Gradient test not passed but further calculations not justified:", attempts},
       true,
       sum},
      {6, {cycle, "Number of cycles exhausted"}, true, sum},
      {7, {distance + ", rmsd = " + rmsd}, true, sum},
      {7, {distance + ", rmsd = " + rmsd}, true, "", 0},
      {7, {distance}, false, "", 3, true},
      {8, {"Energy test satisfied"}, true},
      {9, {"Gradient test satisfied"}, true},
      {10, {"but gradient component is larger than      2.00000"}, false},
      {11, {"Geometry optimization done, " + rmsd}, true, sum},
      {12, {cycle, "Energy is basically stable"}, true},
      {13, {}, false},
  };
  Vec ref(6, 0.0), var = {3.0, 4.0, 0.0, 0.0, 0.0, 0.0};
  for (bool verbose : {true, false})
    for (bool stream : {false, true})
      for (const CheckpointCase& c : cases) {
        SCOPED_TRACE(std::to_string(c.state) + (verbose ? " verbose" : "") +
                     (stream ? " stream" : "") + " iter " + std::to_string(c.iter));
        LxBFGSCheckpoint cp;
        cp.SetParams("Energy", ref.data(), 6, nullptr, verbose, stream ? &lxout : nullptr);
        lxtest::MessageCapture capture;
        std::ostringstream text;
        std::ostream* previous = LxSetOutputStream(&text);
        EXPECT_TRUE(cp(c.iter, 6, -1.5, 2.0, c.nullVar ? nullptr : var.data(), nullptr, c.state));
        LxSetOutputStream(previous);
        EXPECT_EQ(capture.Texts(), verbose ? c.messages : std::vector<std::string>());
        for (const auto& m : capture.messages) EXPECT_EQ(m.level, LxMessageLevel::Info);
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
  LxFunc0& valueOnly = linear;
  double x = 0.0, out;
  EXPECT_DEATH(static_cast<LxCheckpoint0&>(cp)(0, 1, 0.0, &x, 0),
               "fatal: operator\\(\\) \\(unsigned int,unsigned int,double,const double\\*, "
               "unsigned in\\), can't be used with LxBFGSOptimizer");
  EXPECT_DEATH(opt(valueOnly, &x, &out), "fatal: Cannot use LxFunc0 in gradient optimization");
  EXPECT_DEATH(opt(valueOnly, static_cast<LxCheckpoint0*>(nullptr), &x, &out),
               "fatal: Cannot use LxFunc0 in gradient optimization");
}

// ------------------------------------------------------------ driver

TEST(GeometryDriver, ExitsFollowTheThresholdsAndLimits) {
  // slope: x0 (zero gradient) sets |x|; each cycle moves x1..x3 to the cap (1,
  // then 4), lowering f by 0.3, then 1.2; |g| = 0.1732. atom, loose: the cap per
  // atom or per lone variable, 1 + 3 + 4 gradients (y = 0: H never updated);
  // SetMaxAtomStep stops the cap's growth.
  lxtest::Linear slope({0.0, 0.1, 0.1, 0.1});
  lxtest::Linear atom({0.1, 0.1, 0.1, 0.0, 0.0, 0.0}), loose({0.3, 0.1});
  const double a = 1.0 / std::sqrt(3.0);
  const Vec atomMove{-a, -a, -a, 0, 0, 0}, looseMove{-1.0, -1.0 / 3.0};
  // tiny: no cycle makes 1e-7 of progress; faint: value changes below 1e-23,
  // components never below 1e-40, values within 0.01.
  lxtest::Rosenbrock valley;
  Rescaled tiny(valley, 1e-12), faint(valley, 1e-30);
  auto bowl = lxtest::DiagonalQuadratic::IllConditioned(3, 10.0);
  std::string stall, component;
  for (int k = 1; k <= 15; ++k) stall += std::to_string(k) + ":0 ";
  for (std::string k : {"1", "2", "3", "4", "5", "6"})
    component += k + ":8 " + k + ":10@0.000000 " + k + (k < "6" ? ":0 " : ":5@0.010000 ");
  const double above = 0.1000001, below = 0.0999999, far = 1e6;
  struct Case {
    lxtest::Objective* f;
    Vec start;
    double tol, value;
    unsigned int limit;
    std::string trace;
    double maxAtomStep = 0.0;
    Vec unit = {}, moved = {};    // point after cycle k: moved[k] * unit
    std::uint64_t gradients = 0;  // 0: not counted
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
      // The limit is tested after a cycle: 0 runs one, as 1 does (f 10 -> 8.1).
      {&bowl, {1, 1, 2}, 0.1, 8.1, 0, "1:6 "},
      {&bowl, {1, 1, 2}, 0.1, 8.1, 1, "1:6 "},
      {&atom, Vec(6, 0.0), 1e-3, -1.5 * a, 2, "1:0 2:6 ", 0.0, atomMove, {1, 5}, 8},
      {&loose, {0, 0}, 1e-3, -5.0 / 3.0, 2, "1:0 2:6 ", 0.0, looseMove, {1, 5}, 8},
      {&atom, Vec(6, 0.0), 1e-3, -1.5 * a, 3, "1:0 2:0 3:6 ", 2.0, atomMove, {1, 3, 5}, 10},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.trace + " tolerance " + std::to_string(c.tol));
    LxBFGSOptimizer opt;
    opt.SetTolerance(c.tol);
    opt.SetIterLimit(c.limit);
    opt.SetMaxAtomStep(c.maxAtomStep);
    const auto run = RunFrom(opt, *c.f, c.start);
    ASSERT_EQ(Trace(run->trace), c.trace);
    for (size_t k = 0; k < c.moved.size(); ++k)
      for (size_t i = 0; i < c.unit.size(); ++i)
        EXPECT_NEAR(run->Point(k)[i], c.moved[k] * c.unit[i], 1e-12);
    EXPECT_EQ(run->gradients, c.gradients != 0 ? c.gradients : run->gradients);
    EXPECT_NEAR(run->f, c.value, 1e-11);
    EXPECT_EQ(run->f, (*c.f)(run->out.data()));
    EXPECT_EQ(run->values, c.trace == "0:1- " ? 0u : 1u);  // the final re-evaluation only
  }
}

// The first cycle's search from 0 (cap 1) meets the strong Wolfe conditions,
// c1 = 1e-4, c2 = 0.9; on "level" every value rounds to 1000, so the slope
// alone must carry the search to |f'| <= 0.3 |f'(0)|.
TEST(GeometryStep, TheFirstSearchMeetsTheStrongWolfeConditions) {
  // Minima at 0.7, 0.5 (More and Thuente's first function, rescaled), 0.63, 0.15, 0.7.
  std::vector<OneVariable> lines = {
      {[](double x) { return (x - 0.7) * (x - 0.7); }, [](double x) { return 2.0 * (x - 0.7); }},
      {[](double x) { return -x / (x * x + 0.25); },
       [](double x) { return (x * x - 0.25) / std::pow(x * x + 0.25, 2); }},
      {[](double x) { return x * x * x * x - x; }, [](double x) { return 4 * x * x * x - 1.0; }},
      {[](double x) { return std::exp(20.0 * (x - 0.3)) - x; },
       [](double x) { return 20.0 * std::exp(20.0 * (x - 0.3)) - 1.0; }},
      {[](double x) { return 1000.0 + 1e-14 * (x - 0.7) * (x - 0.7); },
       [](double x) { return 2e-14 * (x - 0.7); }},  // level
  };
  for (OneVariable& line : lines) {
    const double c2 = &line == &lines.back() ? 0.3 : 0.9;
    SCOPED_TRACE(&line - lines.data());
    LxBFGSOptimizer opt;
    opt.SetTolerance(1e-30);
    opt.SetIterLimit(1);
    const auto run = RunFrom(opt, line, {0.0});
    ASSERT_FALSE(run->trace.Entries().empty());
    const double x = run->Point(0)[0], d = -line.df(0.0), a = x / d;
    EXPECT_GT(a, 0.0);
    EXPECT_LE(line.f(x), line.f(0.0) + 1e-4 * a * line.df(0.0) * d);
    EXPECT_LE(std::fabs(line.df(x) * d), c2 * std::fabs(line.df(0.0) * d));
  }
}

constexpr double kKcalPerEv = 23.0605, kStretch = 2.5;

// Records the states of the calls that reach it through its virtual operator.
class RecordingBFGSCheckpoint : public LxBFGSCheckpoint {
 public:
  using LxBFGSCheckpoint::operator();
  bool operator()(unsigned int iter, unsigned int nvar, double fval, double gnorm,
                  const double* var, const double* grad, unsigned int state) override {
    states.push_back(state);
    return LxBFGSCheckpoint::operator()(iter, nvar, fval, gnorm, var, grad, state);
  }
  std::vector<unsigned int> states;
};

lxtest::LennardJones lj3(3), lj13(13), lj38(38);
lxtest::Rosenbrock valley;
lxtest::DoubleWells wells(4);  // started near the barrier tops
auto mild = lxtest::DiagonalQuadratic::IllConditioned(12, 10.0);
auto ill = lxtest::DiagonalQuadratic::IllConditioned(20, 1000.0);
// A kink smoothed over 1e-3, where the surrogate's minima stop being lower
// and the line search must take over.
OneVariable kink([](double x) { return std::sqrt(x * x + 1e-6); },
                 [](double x) { return x / std::sqrt(x * x + 1e-6); });
const Vec kShaken008 = lxtest::PerturbedIcosahedron(0.08),
          kShaken01 = lxtest::PerturbedIcosahedron(0.1),
          kShaken015 = lxtest::PerturbedIcosahedron(0.15),
          kShaken03 = lxtest::PerturbedIcosahedron(0.3), kValley{-1.2, 1.0},
          kWells{0.1, -0.3, 0.5, 1.0}, kTrimerB{0, 0, 0, 1.4, 0, 0, 0.7, 1.1, 0},
          kTrimer{0, 0, 0, 1.3, 0.1, 0, 0.5, 1.2, 0.1},
          kShaken38 =
              lxbench::PerturbedCluster::Perturbed(lxbench::TruncatedOctahedron38(), 11, 0.25);

enum Flags : unsigned int {
  kCartesian = 1,
  kHistory = 2,
  kSurrogate = 4,
  kExact = 8,            // report to an LxBFGSCheckpoint itself (handled in place)
  kKept = 16,            // the kept inverse Hessian is positive definite
  kByGradientTest = 32,  // ends by the gradient test (state 9) within 40 gradient calls
  kUnits = 64,           // the calls are the same within 10 % in kcal/mol
  kStretched = 128,      // and with lengths in a unit kStretch times smaller
  kModelIgnored = 256,   // not triples: the run without the model is the same
};

struct Converging {
  const char* name;
  lxtest::Objective* f;
  Vec start;
  double tol;
  unsigned int flags;
  double cap = 0.0;  // > 0: SetMaxAtomStep, reached; < 0: no limit, an atom moves > -cap
  double minimum = NAN, slack = 0.0;
  double versusSimpler = NAN;  // extra calls over the run without surrogate (or model)
};

class Converges : public ::testing::TestWithParam<Converging> {};

// Every run ends by the tests (state 11) within the tolerance, one report per
// cycle, whether the checkpoint is called in place or through its override.
TEST_P(Converges, ToTheMinimumWithTheReportsInForm) {
  const Converging& c = GetParam();
  const unsigned int n = c.f->NumVar();
  LxBFGSOptimizer opt;
  opt.SetCartesian(c.flags & kCartesian);
  opt.SetHistory(c.flags & kHistory);
  opt.SetSurrogate(c.flags & kSurrogate);
  opt.SetKeepHessian(c.flags & kKept);
  opt.SetTolerance(c.tol);
  if (c.cap > 0.0) opt.SetMaxAtomStep(c.cap);
  Rescaled tracked(*c.f, 1.0);
  LxCountingFunc counted(tracked);
  LxBFGSCheckpoint exact;
  RecordingBFGSCheckpoint derived;
  LxBFGSCheckpoint& cp = c.flags & kExact ? exact : derived;
  Vec ref(c.start), out(n), g(n), h(n * (n + 1) / 2);
  cp.SetParams("f", ref.data(), n, nullptr, false, nullptr);
  const double f = opt(counted, &cp, c.start.data(), out.data());
  EXPECT_NEAR(f, std::isnan(c.minimum) ? f : c.minimum, c.slack);
  EXPECT_EQ(cp.GetLastState(), 11u);
  EXPECT_LE(cp.GetLastRmsGradient() * std::sqrt(n), c.tol);
  (*c.f)(out.data(), g.data());
  for (double gi : g) EXPECT_LE(std::fabs(gi), c.tol);
  EXPECT_EQ(derived.states.size(), &cp == &derived ? cp.GetLastCycle() + 1 : 0u);
  EXPECT_TRUE(!(c.flags & kByGradientTest) || derived.states.end()[-2] == 9u);
  EXPECT_LE(counted.Gradients(), c.flags & kByGradientTest ? 40u : counted.Gradients());
  EXPECT_LE(tracked.largest, c.cap > 0.0 ? c.cap * (1 + 1e-12) : tracked.largest);
  EXPECT_GE(tracked.largest, c.cap > 0.0 ? 0.999 * c.cap : -c.cap);
  if (c.flags & kKept) {
    ASSERT_TRUE(opt.GetInverseHessian(h.data(), n));
    EXPECT_EQ(Eigen::LLT<Eigen::MatrixXd>(Unpacked(h, n)).info(), Eigen::Success);
  }
  if (c.flags & kModelIgnored) {
    RecordingBFGSCheckpoint plain;
    Vec end(n);
    opt.SetCartesian(false);
    EXPECT_EQ(opt(*c.f, &plain, c.start.data(), end.data()), f);
    EXPECT_EQ(plain.states, derived.states);
    EXPECT_EQ(end, out);
  }
  const auto calls = [&](LxFunc1& func, const Vec& from, double tol) {
    opt.SetTolerance(tol);
    const auto run = RunFrom(opt, func, from);
    EXPECT_EQ(run->LastState(), 11u);
    return static_cast<double>(run->gradients);
  };
  const double base = counted.Gradients();
  Rescaled kcal(*c.f, kKcalPerEv), stretched(*c.f, 1.0, kStretch);
  Vec far(c.start);
  for (double& v : far) v *= kStretch;
  EXPECT_NEAR(c.flags & kUnits ? calls(kcal, c.start, c.tol * kKcalPerEv) : base, base, 0.1 * base);
  EXPECT_NEAR(c.flags & kStretched ? calls(stretched, far, c.tol / kStretch) : base, base,
              0.1 * base);
  if (!std::isnan(c.versusSimpler)) {
    opt.SetSurrogate(false);
    opt.SetCartesian(c.flags & kCartesian && c.flags & kSurrogate);
    EXPECT_LE(base, calls(*c.f, c.start, c.tol) + c.versusSimpler);
  }
}

// f >= |x - minimizer|^2 on the quadratics: f < 1e-12 puts x within 1e-6 of it.
const double kLJ13 = lxtest::LennardJones::kIcosahedronMinimum;
INSTANTIATE_TEST_SUITE_P(
    GeometryDriver, Converges,
    ::testing::ValuesIn(std::vector<Converging>{
        {"Cluster", &lj13, kShaken008, 1e-4, 0, 0, kLJ13, 1e-6},
        {"ClusterExact", &lj13, kShaken008, 1e-4, kExact, 0, kLJ13, 1e-6},
        {"ClusterHistory", &lj13, kShaken008, 1e-4, kHistory, 0, kLJ13, 1e-6},
        {"ClusterHistoryExact", &lj13, kShaken008, 1e-4, kHistory | kExact, 0, kLJ13, 1e-6},
        {"ClusterSurrogate", &lj13, kShaken008, 1e-4, kSurrogate},
        {"Mild", &mild, Vec(12, -1.0), 1e-8, 0, 0, 0.0, 1e-12},
        {"MildExact", &mild, Vec(12, -1.0), 1e-8, kExact, 0, 0.0, 1e-12},
        {"MildHistory", &mild, Vec(12, -1.0), 1e-8, kHistory, 0, 0.0, 1e-12},
        {"MildHistoryExact", &mild, Vec(12, -1.0), 1e-8, kHistory | kExact, 0, 0.0, 1e-12},
        {"Ill", &ill, Vec(20, 0.0), 1e-8, 0, 0, 0.0, 1e-12},
        {"IllExact", &ill, Vec(20, 0.0), 1e-8, kExact, 0, 0.0, 1e-12},
        {"IllHistory", &ill, Vec(20, 0.0), 1e-8, kHistory, 0, 0.0, 1e-12},
        {"IllHistoryExact", &ill, Vec(20, 0.0), 1e-8, kHistory | kExact, 0, 0.0, 1e-12},
        // Ended by the gradient test, well before 16 cycles of no progress.
        {"Shaken01", &lj13, kShaken01, 1e-6, kByGradientTest},
        {"Shaken015Kept", &lj13, kShaken015, 1e-6, kByGradientTest | kKept},
        {"Shaken015ModelKept", &lj13, kShaken015, 1e-6, kCartesian | kKept},
        // Kept matrices after runs through non-convex regions.
        {"ValleyKept", &valley, kValley, 1e-6, kKept},
        {"ValleyModelKept", &valley, kValley, 1e-6, kCartesian | kKept | kModelIgnored},
        {"ValleySurrogate", &valley, kValley, 1e-6, kSurrogate},
        {"WellsKept", &wells, kWells, 1e-6, kKept},
        {"WellsModelKept", &wells, kWells, 1e-6, kCartesian | kKept},
        {"WellsSurrogate", &wells, kWells, 1e-6, kSurrogate},
        {"Kink", &kink, {3.0}, 1e-4, 0},
        {"KinkSurrogate", &kink, {3.0}, 1e-4, kSurrogate, 0, NAN, 0, 10},
        // Calls independent of the energy (and, with the model, length) unit; the
        // model saves calls, and on the trimers the surrogate saves more.
        {"Shaken03Units", &lj13, kShaken03, 1e-5, kUnits},
        {"Shaken03ModelUnits", &lj13, kShaken03, 1e-5, kCartesian | kUnits | kStretched, 0, NAN, 0,
         -1},
        {"Lj38Units", &lj38, kShaken38, 1e-5, kUnits},
        {"Lj38ModelUnits", &lj38, kShaken38, 1e-5, kCartesian | kUnits, 0, NAN, 0, -1},
        {"TrimerBSurrogateUnits", &lj3, kTrimerB, 1e-2,
         kCartesian | kSurrogate | kUnits | kStretched, 0, NAN, 0, -1},
        {"TrimerSurrogateUnits", &lj3, kTrimer, 1e-2, kCartesian | kSurrogate | kUnits | kStretched,
         0, NAN, 0, -1},
        // SetMaxAtomStep bounds every trial; without it an atom moves farther.
        {"Cap005", &lj13, kShaken03, 1e-4, 0, 0.05},
        {"Cap005Model", &lj13, kShaken03, 1e-4, kCartesian, 0.05},
        {"Cap008History", &lj13, kShaken03, 1e-4, kHistory, 0.08},
        {"Cap005ModelSurrogate", &lj13, kShaken03, 1e-4, kCartesian | kSurrogate, 0.05},
        {"Uncapped", &lj13, kShaken03, 1e-4, 0, -0.1}}),
    [](const ::testing::TestParamInfo<Converging>& i) { return std::string(i.param.name); });

// The kept packed inverse meets the last secant, copies keep it, it outlives
// runs that keep none, and extraction copies n (n + 1) / 2 values, never more.
TEST(GeometryDriver, KeepHessianStoresThePackedInverseThatMeetsTheLastSecant) {
  auto quad = lxtest::DiagonalQuadratic::IllConditioned(4, 10.0);
  LxBFGSOptimizer opt;
  lxtest::MessageCapture capture;
  Vec h(10), start(10, 3.0);
  RunFrom(opt, quad, Vec(4, 3.0));
  EXPECT_EQ(opt.GetHessianDimension(), 16u);
  EXPECT_FALSE(opt.GetInverseHessian(h.data(), 4));
  EXPECT_EQ(capture.Texts().back(), "Hessian can't be extracted because it not generated");

  opt.SetKeepHessian(true);
  opt.SetTolerance(1e-6);
  const auto run = RunFrom(opt, quad, Vec(4, 3.0));
  EXPECT_FALSE(opt.GetInverseHessian(h.data(), 3));
  EXPECT_EQ(capture.Texts().back(), "Can't extract Hessian: Wrong number of variables");
  ASSERT_TRUE(LxBFGSOptimizer(opt).GetInverseHessian(h.data(), 4));
  // The last update used s = x_last - x_before and y = g_last - g_before: H y = s.
  const size_t reports = run->trace.Entries().size();
  ASSERT_GE(reports, 3u);
  const Vec &last = run->Point(reports - 2), &before = run->Point(reports - 3);
  Eigen::Vector4d g1, g0;
  quad(last.data(), g1.data());
  quad(before.data(), g0.data());
  const Eigen::Vector4d hy = Unpacked(h, 4) * (g1 - g0);
  for (int i = 0; i < 4; ++i) {
    const double s = last[i] - before[i];
    EXPECT_NEAR(hy(i), s, 1e-9 + 1e-6 * std::fabs(s));
  }

  auto ten = lxtest::DiagonalQuadratic::IllConditioned(10, 10.0),
       three = lxtest::DiagonalQuadratic::IllConditioned(3, 10.0);
  constexpr double kUntouched = -777.0;
  Vec out(10), kept(55), small(55, kUntouched);
  opt(ten, start.data(), out.data());
  ASSERT_TRUE(opt.GetInverseHessian(kept.data(), 10));
  opt.SetKeepHessian(false);
  opt(three, start.data(), out.data());
  ASSERT_TRUE(opt.GetInverseHessian(small.data(), 3));
  EXPECT_EQ(Vec(small.begin(), small.begin() + 6), Vec(kept.begin(), kept.begin() + 6));
  EXPECT_EQ(Vec(small.begin() + 6, small.end()), Vec(49, kUntouched));

  LxBFGSOptimizer fewer;  // kept for 3, asked for 10 after a run over 10
  fewer.SetKeepHessian(true);
  fewer(three, start.data(), out.data());
  fewer.SetKeepHessian(false);
  fewer(ten, start.data(), out.data());
  EXPECT_FALSE(fewer.GetInverseHessian(small.data(), 10));
  EXPECT_EQ(capture.Texts().back(), "Can't extract Hessian: Wrong number of variables");
}

// The elements shape the Cartesian model only with one known element per
// atom; elsewhere the run is the same report for report as without them.
TEST(GeometryStep, AtomicNumbersShapeTheModelOnlyWhereTheyApply) {
  auto bowl = lxtest::DiagonalQuadratic::IllConditioned(15, 10.0);
  const Vec start = {0.05, -0.02, 0.0,  0.7,  0.6, 0.55,  -0.6, -0.7,
                     0.6,  -0.5,  0.65, -0.7, 0.6, -0.55, -0.6};
  auto run = [&](bool cartesian, const std::vector<int>& numbers) {
    LxBFGSOptimizer opt;
    opt.SetCartesian(cartesian);
    opt.SetAtomicNumbers(numbers.data(), static_cast<unsigned int>(numbers.size()));
    opt.SetTolerance(1e-8);
    const auto r = RunFrom(opt, bowl, start);
    EXPECT_LT(r->f, 1e-12);
    return Trace(r->trace);
  };
  const std::string cartesianTrace = run(true, {}), noModelTrace = run(false, {});
  EXPECT_NE(run(true, {6, 1, 1, 1, 1}), cartesianTrace);
  EXPECT_EQ(run(true, {6, 1, 1, 1, 0}), cartesianTrace);   // an unknown element
  EXPECT_EQ(run(true, {97, 1, 1, 1, 1}), cartesianTrace);  // past the table
  EXPECT_EQ(run(true, {6, 1, 1, 1}), cartesianTrace);      // fewer numbers than atoms
  EXPECT_EQ(run(false, {6, 1, 1, 1, 1}), noModelTrace);
  LxBFGSOptimizer cleared;
  const int numbers[] = {6, 1};
  cleared.SetAtomicNumbers(numbers, 2);
  cleared.SetAtomicNumbers(nullptr, 2);
  EXPECT_TRUE(cleared.GetAtomicNumbers().empty());
}

}  // namespace
