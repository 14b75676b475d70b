// Geometry driver and its progress checkpoint.
#include <gtest/gtest.h>
#include <lxopt/lxopt.h>

#include <cmath>
#include <limits>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/geom.h"
#include "support/problems.h"

namespace {

using LxOpt::LxBFGSCheckpoint;
using LxOpt::LxBFGSOptimizer;
using lxtest::MessageCapture;
using lxtest::Recorder;

// Redirects lxout into a string for the lifetime of the object.
class CapturedOutput {
 public:
  CapturedOutput() : previous_(LxOpt::LxSetOutputStream(&text_)) {}
  ~CapturedOutput() { LxOpt::LxSetOutputStream(previous_); }
  std::string str() const { return text_.str(); }

 private:
  std::ostringstream text_;
  std::ostream* previous_;
};

// ------------------------------------------------------------ checkpoint

// Two atoms: the reference at the origin, the current geometry with atom 0
// at (3, 4, 0): RMSD sqrt(25 / 2), largest displacement 5.
struct CheckpointFixture : ::testing::Test {
  std::vector<double> ref = std::vector<double>(6, 0.0);
  std::vector<double> var = {3.0, 4.0, 0.0, 0.0, 0.0, 0.0};
  LxBFGSCheckpoint cp;
  const double gnorm = 2.0;
  const double rms = 2.0 / std::sqrt(6.0);
  const double rmsd = std::sqrt(12.5);
  const char* cycle = "cycle     3 gnorm =  2.0000e+00 Energy =     -1.5000 rmsd =    3.5355";

  bool Call(unsigned int state, unsigned int iter = 3, const double* v = nullptr) {
    return cp(iter, 6, -1.5, gnorm, v != nullptr ? v : var.data(), nullptr, state);
  }
};

struct StateCase {
  unsigned int state;
  std::vector<std::string> messages;
  bool statistics;  // records cycle, RMS gradient and displacement (no stream)
};

TEST_F(CheckpointFixture, EachStateIssuesItsMessagesAndRecordsWhatItShould) {
  const std::vector<StateCase> cases = {
      {0, {cycle}, false},
      {1, {"System at minimum energy, no optimization will be done."}, false},
      {2, {"Geometry optimization done, rmsd =      3.53553"}, true},
      {3, {"No point lower in Energy could be found"}, true},
      {4, {"Search is being ended. Final rmsd =      3.53553"}, true},
      {5,
       {"Gradient test not passed but further calculations not justified:",
        "In 5 attempts to reduce Energy decrease was less than      3.53553"},
       true},
      {6, {cycle, "Number of cycles exhausted"}, true},
      {7, {"Distance test satisfied, rmsd =      3.53553"}, true},
      {8, {"Energy test satisfied"}, true},
      {9, {"Gradient test satisfied"}, true},
      {10, {"but gradient component is larger than      2.00000"}, false},
      {11, {"Geometry optimization done,      3.53553"}, true},
      {12, {cycle, "Energy is basically stable"}, true},
      {13, {}, false},
  };
  for (bool verbose : {true, false}) {
    for (const StateCase& c : cases) {
      SCOPED_TRACE("state " + std::to_string(c.state) + (verbose ? " verbose" : " quiet"));
      cp.SetParams("Energy", ref.data(), 6, nullptr, verbose, nullptr);
      MessageCapture capture;
      EXPECT_TRUE(Call(c.state));
      EXPECT_EQ(capture.Texts(), verbose ? c.messages : std::vector<std::string>());
      for (const auto& m : capture.messages) EXPECT_EQ(m.level, LxOpt::LxMessageLevel::Info);
      EXPECT_EQ(cp.GetLastState(), c.state);
      EXPECT_EQ(cp.GetLastCycle(), c.statistics ? 3u : 0u);
      EXPECT_DOUBLE_EQ(cp.GetLastRmsGradient(), c.statistics ? rms : 0.0);
      if (c.statistics) {
        EXPECT_DOUBLE_EQ(cp.GetLastMaxDisplacement(), 5.0);
      }
    }
  }
}

TEST_F(CheckpointFixture, WithAStreamTheFinalStatesWriteTheSummaryInstead) {
  const std::string summary =
      "No of cycles                    3\nFinal rms gradient        0.81650\n";
  struct Case {
    unsigned int state;
    unsigned int iter;
    std::string written;
    bool statistics;
  };
  const std::vector<Case> cases = {
      {2, 3, summary, false},   {4, 3, summary, false}, {5, 3, summary, false},
      {6, 3, summary, false},   {11, 3, summary, false}, {7, 3, summary, false},
      {7, 0, "", true},  // cycle 0: statistics, no summary
      {8, 3, "", true},         {9, 3, "", true},       {12, 3, "", true},
      {3, 3, "No point lower in Energy could be found\n", false},
  };
  for (bool verbose : {true, false}) {
    for (const Case& c : cases) {
      SCOPED_TRACE("state " + std::to_string(c.state) + " iter " + std::to_string(c.iter));
      cp.SetParams("Energy", ref.data(), 6, nullptr, verbose, &LxOpt::lxout);
      MessageCapture capture;
      CapturedOutput out;
      EXPECT_TRUE(Call(c.state, c.iter));
      EXPECT_EQ(out.str(), c.written);
      EXPECT_EQ(cp.GetLastState(), c.state);
      EXPECT_EQ(cp.GetLastCycle(), c.statistics ? c.iter : 0u);
      EXPECT_DOUBLE_EQ(cp.GetLastRmsGradient(), c.statistics ? rms : 0.0);
    }
  }
}

TEST_F(CheckpointFixture, DistanceWithoutVariablesOnlySaysSo) {
  cp.SetParams("Energy", ref.data(), 6, nullptr, true, &LxOpt::lxout);
  MessageCapture capture;
  CapturedOutput out;
  EXPECT_TRUE(cp(4, 6, -1.5, gnorm, nullptr, nullptr, 7));
  EXPECT_EQ(capture.Texts(), std::vector<std::string>{"Distance test satisfied"});
  EXPECT_EQ(out.str(), "");
  EXPECT_EQ(cp.GetLastState(), 7u);
  EXPECT_EQ(cp.GetLastCycle(), 0u);
  EXPECT_EQ(cp.GetLastRmsGradient(), 0.0);
}

TEST_F(CheckpointFixture, FourVariablesHaveNoRmsdButTheFirstAtomsDisplacement) {
  const std::vector<double> v4 = {3.0, 4.0, 0.0, 100.0};
  cp.SetParams("Energy", ref.data(), 4, nullptr, false, nullptr);
  EXPECT_EQ(cp.rmsd(v4.data()), 0.0);
  EXPECT_DOUBLE_EQ(cp.maxdisp(v4.data()), 5.0);
  cp.SetParams("Energy", ref.data(), 2, nullptr, false, nullptr);
  EXPECT_EQ(cp.maxdisp(v4.data()), 0.0);
}

// Two variables (a, b) stand for atom 0 at (a, b, 0) and atom 1 at (0, 0, 2 b).
class TwoAtomAdaptor : public LxOpt::LxAdaptor {
 public:
  void operator()(const double* v, double* c) override {
    const double coords[6] = {v[0], v[1], 0.0, 0.0, 0.0, 2.0 * v[1]};
    for (int k = 0; k < 6; ++k) c[k] = coords[k];
  }
};

TEST_F(CheckpointFixture, AnAdaptorTurnsVariablesIntoCoordinates) {
  TwoAtomAdaptor adaptor;
  cp.SetParams("Energy", ref.data(), 6, &adaptor, false, nullptr);
  const double v[2] = {3.0, 4.0};  // atoms at (3, 4, 0) and (0, 0, 8)
  EXPECT_DOUBLE_EQ(cp.rmsd(v), std::sqrt((25.0 + 64.0) / 2.0));
  EXPECT_DOUBLE_EQ(cp.maxdisp(v), 8.0);
}

TEST_F(CheckpointFixture, TheValueOnlyFormIsFatal) {
  auto previous = LxOpt::LxSetMessageSink([](LxOpt::LxMessageLevel level, const std::string& t) {
    if (level == LxOpt::LxMessageLevel::Fatal) throw std::runtime_error(t);
  });
  LxOpt::LxCheckpoint0& base = cp;
  try {
    base(0, 6, 0.0, var.data(), 0);
    ADD_FAILURE() << "no fatal error";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(),
                 "operator() (unsigned int,unsigned int,double,const double*, unsigned in), "
                 "can't be used with LxBFGSOptimizer");
  }
  LxOpt::LxSetMessageSink(previous);
}

// ------------------------------------------------------------ driver

// f = 0.1 (x1 + x2 + x3) with a spectator x0 (zero gradient) that sets |x|
// and so the relative displacement. Every cycle moves x1..x3 by the largest
// trial step (0.5 each), lowering f by 0.15; |g| = 0.1732.
struct ThresholdCase {
  double tolerance;
  double spectator;
  std::vector<unsigned int> states;
};

TEST(GeometryDriver, TheThresholdRowDependsOnTheToleranceExactly) {
  const double above = 0.1000001, below = 0.0999999;
  const std::vector<ThresholdCase> cases = {
      // |x| = 1000: displacement 8.7e-4, value change 0.15.
      {above, 1000.0, {9, 11}},  // |g| <= sqrt(4) tol
      {0.1, 1000.0, {0, 6}},     // |g| > 1 tol
      {below, 1000.0, {0, 6}},
      // |x| = 1e6: displacement 8.7e-7.
      {above, 1e6, {7, 11}},  // <= 1e-4
      {0.1, 1e6, {7, 11}},    // <= 1e-5
      {below, 1e6, {0, 6}},   // > 1e-24
  };
  for (const ThresholdCase& c : cases) {
    SCOPED_TRACE("tolerance " + std::to_string(c.tolerance) + " |x| " +
                 std::to_string(c.spectator));
    lxtest::Linear linear({0.0, 0.1, 0.1, 0.1});
    lxtest::Counting counted(linear);
    LxBFGSOptimizer opt;
    opt.SetTolerance(c.tolerance);
    opt.SetIterLimit(2);
    Recorder rec;
    const std::vector<double> start = {c.spectator, 0.0, 0.0, 0.0};
    std::vector<double> out(4);
    const double f = opt(counted, &rec, start.data(), out.data());
    EXPECT_EQ(rec.States(), c.states);
    const unsigned int cycles = c.states.back() == 6 ? 2 : 1;
    EXPECT_EQ(rec.Iters(), (std::vector<unsigned int>{1, cycles}));
    for (const lxtest::Call& call : rec.calls) EXPECT_TRUE(call.gradNull);
    for (unsigned int i = 1; i < 4; ++i) EXPECT_DOUBLE_EQ(out[i], -0.5 * cycles);
    EXPECT_DOUBLE_EQ(f, -0.15 * cycles);
    EXPECT_EQ(counted.values, 1);  // the final re-evaluation, value only
  }
}

TEST(GeometryDriver, AStartBelowTheToleranceReportsNoOptOnly) {
  auto quad = lxtest::DiagonalQuadratic::IllConditioned(3, 10.0);
  lxtest::Counting counted(quad);
  LxBFGSOptimizer opt;
  Recorder rec;
  const std::vector<double> start = {1.0, 1.0, 1.01};  // |g| = 0.2
  std::vector<double> out(3, 7.0);
  opt.SetTolerance(0.25);
  const double f = opt(counted, &rec, start.data(), out.data());
  ASSERT_EQ(rec.calls.size(), 1u);
  EXPECT_EQ(rec.calls[0].state, 1u);
  EXPECT_EQ(rec.calls[0].iter, 0u);
  EXPECT_TRUE(rec.calls[0].vars.empty());  // null point
  EXPECT_TRUE(rec.calls[0].gradNull);
  EXPECT_NEAR(f, 10.0 * 0.01 * 0.01, 1e-15);
  EXPECT_EQ(out, start);
  EXPECT_EQ(counted.gradients, 1);
  EXPECT_EQ(counted.values, 0);
}

TEST(GeometryDriver, SixteenFlatCyclesEndAsStable) {
  // Each cycle lowers f by 1.5e-9, below the 1e-7 that counts as progress.
  lxtest::Linear flat({1e-9, 1e-9, 1e-9});
  LxBFGSOptimizer opt;
  opt.SetTolerance(1e-10);
  Recorder rec;
  const std::vector<double> start(3, 0.0);
  std::vector<double> out(3);
  opt(flat, &rec, start.data(), out.data());
  std::vector<unsigned int> states(15, 0), iters;
  states.push_back(12);
  states.push_back(11);
  for (unsigned int k = 1; k <= 15; ++k) iters.push_back(k);
  iters.push_back(16);
  iters.push_back(16);
  EXPECT_EQ(rec.States(), states);
  EXPECT_EQ(rec.Iters(), iters);
}

TEST(GeometryDriver, ALargeComponentThatWillNotShrinkEndsAsNotJustified) {
  // |g| = 0.6 <= sqrt(4) 0.5 passes the gradient test, the component 0.6 > 0.5
  // never does, and the values stay within 0.01.
  lxtest::Kink kink(4, 0.6);
  LxBFGSOptimizer opt;
  opt.SetTolerance(0.5);
  Recorder rec;
  const std::vector<double> start = {0.001, 0.0, 0.0, 0.0};
  std::vector<double> out(4);
  const double f = opt(kink, &rec, start.data(), out.data());
  ASSERT_EQ(rec.calls.size(), 18u);
  for (unsigned int cycle = 0; cycle < 6; ++cycle) {
    SCOPED_TRACE("cycle " + std::to_string(cycle + 1));
    const lxtest::Call* c = &rec.calls[3 * cycle];
    EXPECT_TRUE(c[0].state == 7 || c[0].state == 8 || c[0].state == 9) << c[0].state;
    EXPECT_EQ(c[1].state, 10u);
    EXPECT_EQ(c[1].gnorm, 0.5);  // the component limit
    EXPECT_EQ(c[2].state, cycle < 5 ? 0u : 5u);
    for (int k = 0; k < 3; ++k) EXPECT_EQ(c[k].iter, cycle + 1);
  }
  EXPECT_EQ(rec.calls.back().fval, 0.01);  // the window, in the value argument
  EXPECT_DOUBLE_EQ(f, 0.6 * std::fabs(out[0]));
  EXPECT_LT(f, 0.0006);
}

TEST(GeometryDriver, ASearchThatFindsNothingLowerEndsAtOnce) {
  lxtest::WrongGradient wrong(2);
  lxtest::Counting counted(wrong);
  LxBFGSOptimizer opt;
  Recorder rec;
  const std::vector<double> start = {1.0, -2.0};
  std::vector<double> out(2);
  const double f = opt(counted, &rec, start.data(), out.data());
  EXPECT_EQ(rec.States(), std::vector<unsigned int>{3});
  EXPECT_EQ(rec.Iters(), std::vector<unsigned int>{0});
  EXPECT_EQ(out, start);
  EXPECT_DOUBLE_EQ(f, 5.0);
  EXPECT_EQ(counted.values, 1);
}

TEST(GeometryDriver, AGradientThatIsNotFiniteEndsTheSearch) {
  lxtest::Linear broken({std::numeric_limits<double>::quiet_NaN(), 1.0});
  LxBFGSOptimizer opt;
  Recorder rec;
  const std::vector<double> start = {1.0, 1.0};
  std::vector<double> out(2);
  opt(broken, &rec, start.data(), out.data());
  EXPECT_EQ(rec.States(), std::vector<unsigned int>{4});
}

TEST(GeometryDriver, AnIterationLimitOfZeroAllowsNoCycle) {
  lxtest::CoupledQuadratic quad(3);
  LxBFGSOptimizer opt;
  opt.SetIterLimit(0);
  Recorder rec;
  const std::vector<double> start(3, 2.0);
  std::vector<double> out(3);
  const double f = opt(quad, &rec, start.data(), out.data());
  EXPECT_EQ(rec.States(), std::vector<unsigned int>{6});
  EXPECT_EQ(rec.Iters(), std::vector<unsigned int>{0});
  EXPECT_EQ(out, start);
  EXPECT_DOUBLE_EQ(f, quad(start.data()));
}

// Convergence: optimizer settings x problems.
struct ConvergenceCase {
  const char* name;
  bool history;
};

class Convergence : public ::testing::TestWithParam<ConvergenceCase> {};

TEST_P(Convergence, LennardJonesThirteenReachesTheIcosahedron) {
  lxtest::LennardJones cluster(13);
  LxBFGSOptimizer opt;
  opt.SetHistory(GetParam().history);
  opt.SetTolerance(1e-4);
  Recorder rec;
  const std::vector<double> start = lxtest::PerturbedIcosahedron(0.08);
  std::vector<double> out(39);
  const double f = opt(cluster, &rec, start.data(), out.data());
  EXPECT_NEAR(f, lxtest::LennardJones::kIcosahedronMinimum, 1e-6);
  ASSERT_GE(rec.calls.size(), 2u);
  EXPECT_EQ(rec.calls.back().state, 11u);
  EXPECT_EQ(rec.calls[rec.calls.size() - 2].state, 9u);
  EXPECT_LE(rec.calls.back().gnorm, 1e-4);
  EXPECT_LT(rec.calls.back().iter, 200u);
}

TEST_P(Convergence, ConvexQuadraticsReachTheirMinimizer) {
  lxtest::CoupledQuadratic coupled(12);
  auto ill = lxtest::DiagonalQuadratic::IllConditioned(20, 1000.0);
  struct Problem {
    LxOpt::LxFunc1* f;
    std::vector<double> minimizer;
  };
  const std::vector<Problem> problems = {{&coupled, coupled.minimizer()},
                                         {&ill, ill.minimizer()}};
  for (const Problem& p : problems) {
    const unsigned int n = p.f->NumVar();
    LxBFGSOptimizer opt;
    opt.SetHistory(GetParam().history);
    opt.SetTolerance(1e-8);
    Recorder rec;
    const std::vector<double> start(n, 0.0);
    std::vector<double> out(n);
    const double f = opt(*p.f, &rec, start.data(), out.data());
    SCOPED_TRACE("n = " + std::to_string(n));
    EXPECT_EQ(rec.calls.back().state, 11u);
    EXPECT_LT(f, 1e-12);
    for (unsigned int i = 0; i < n; ++i) EXPECT_NEAR(out[i], p.minimizer[i], 1e-6);
  }
}

INSTANTIATE_TEST_SUITE_P(History, Convergence,
                         ::testing::Values(ConvergenceCase{"plain", false},
                                           ConvergenceCase{"history", true}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(GeometryDriver, HistoryStepsShortenTheRunOnACoupledQuadratic) {
  // With 12 variables six points are kept; subspace steps solve the quadratic
  // model within their span, so the history run needs fewer cycles.
  lxtest::CoupledQuadratic quad(12);
  unsigned int cycles[2] = {0, 0};
  for (bool history : {false, true}) {
    LxBFGSOptimizer opt;
    opt.SetHistory(history);
    opt.SetTolerance(1e-8);
    Recorder rec;
    const std::vector<double> start(12, 0.0);
    std::vector<double> out(12);
    opt(quad, &rec, start.data(), out.data());
    cycles[history] = rec.calls.back().iter;
  }
  EXPECT_LT(cycles[1], cycles[0]);
}

TEST(GeometryDriver, KeepHessianStoresThePackedInverseThatMeetsTheLastSecant) {
  lxtest::CoupledQuadratic quad(4);
  LxBFGSOptimizer opt;
  MessageCapture capture;
  std::vector<double> h(10);
  EXPECT_FALSE(opt.GetInverseHessian(h.data(), 4));
  EXPECT_EQ(capture.Texts().back(), "Hessian can't be extracted because it not generated");
  EXPECT_EQ(opt.GetHessianDimension(), 0u);

  Recorder rec;
  const std::vector<double> start(4, 3.0);
  std::vector<double> out(4);
  opt(quad, &rec, start.data(), out.data());  // keep-Hessian off: nothing kept
  EXPECT_EQ(opt.GetHessianDimension(), 16u);
  EXPECT_FALSE(opt.GetInverseHessian(h.data(), 4));

  opt.SetKeepHessian(true);
  opt.SetTolerance(1e-6);
  rec.calls.clear();
  opt(quad, &rec, start.data(), out.data());
  ASSERT_TRUE(opt.GetInverseHessian(h.data(), 4));
  EXPECT_FALSE(opt.GetInverseHessian(h.data(), 3));
  EXPECT_EQ(capture.Texts().back(), "Can't extract Hessian: Wrong number of variables");

  // The last update used s = x_last - x_before and y = A s: H y = s.
  ASSERT_GE(rec.calls.size(), 3u);
  const std::vector<double>& last = rec.calls[rec.calls.size() - 2].vars;
  const std::vector<double>& before = rec.calls[rec.calls.size() - 3].vars;
  std::vector<double> s(4);
  for (int i = 0; i < 4; ++i) s[i] = last[i] - before[i];
  const std::vector<double> y = quad.Apply(s);
  for (int i = 0; i < 4; ++i) {
    double hy = 0.0;
    for (int j = 0; j < 4; ++j) hy += h[i >= j ? i * (i + 1) / 2 + j : j * (j + 1) / 2 + i] * y[j];
    EXPECT_NEAR(hy, s[i], 1e-9 + 1e-6 * std::fabs(s[i]));
  }

  const LxBFGSOptimizer copy(opt);
  std::vector<double> copied(10);
  ASSERT_TRUE(copy.GetInverseHessian(copied.data(), 4));
  EXPECT_EQ(copied, h);
}

// A checkpoint derived from LxBFGSCheckpoint is called through its own
// operator; the exact class is handled in place with the same outcome.
class CountingBFGSCheckpoint : public LxBFGSCheckpoint {
 public:
  using LxBFGSCheckpoint::operator();
  bool operator()(unsigned int iter, unsigned int nvar, double fval, double gnorm,
                  const double* var, const double* grad, unsigned int state) override {
    ++calls;
    return LxBFGSCheckpoint::operator()(iter, nvar, fval, gnorm, var, grad, state);
  }
  int calls = 0;
};

TEST(GeometryDriver, ReportsReachTheGeometryCheckpointInPlaceOrThroughItsOverride) {
  lxtest::LennardJones cluster(13);
  const std::vector<double> start = lxtest::PerturbedIcosahedron(0.08);
  std::vector<double> ref = start, out(39);
  LxBFGSOptimizer opt;
  opt.SetTolerance(1e-3);

  LxBFGSCheckpoint exact;
  exact.SetParams("Energy", ref.data(), 39, nullptr, true, nullptr);
  MessageCapture capture;
  const double f = opt(cluster, &exact, start.data(), out.data());
  const std::vector<std::string> texts = capture.Texts();
  ASSERT_GE(texts.size(), 3u);
  EXPECT_EQ(texts[0].rfind("cycle     1 gnorm = ", 0), 0u) << texts[0];
  EXPECT_NE(texts[0].find(" Energy = "), std::string::npos);
  EXPECT_EQ(texts[texts.size() - 2], "Gradient test satisfied");
  EXPECT_EQ(texts.back().rfind("Geometry optimization done, ", 0), 0u);
  EXPECT_EQ(exact.GetLastState(), 11u);
  EXPECT_EQ(exact.GetLastCycle(), texts.size() - 1);  // one cycle line per cycle but the last
  EXPECT_LE(exact.GetLastRmsGradient(), 1e-3 / std::sqrt(39.0));
  EXPECT_GT(exact.GetLastMaxDisplacement(), 0.0);
  EXPECT_NEAR(f, lxtest::LennardJones::kIcosahedronMinimum, 1e-4);

  CountingBFGSCheckpoint derived;
  derived.SetParams("Energy", ref.data(), 39, nullptr, false, nullptr);
  opt(cluster, &derived, start.data(), out.data());
  EXPECT_EQ(derived.calls, static_cast<int>(texts.size()));
  EXPECT_EQ(derived.GetLastState(), 11u);
  EXPECT_EQ(derived.GetLastCycle(), exact.GetLastCycle());
}

TEST(GeometryDriver, ValueOnlyObjectivesAreFatal) {
  auto previous = LxOpt::LxSetMessageSink([](LxOpt::LxMessageLevel level, const std::string& t) {
    if (level == LxOpt::LxMessageLevel::Fatal) throw std::runtime_error(t);
  });
  lxtest::CoupledQuadratic quad(2);
  LxOpt::LxFunc0& valueOnly = quad;
  LxBFGSOptimizer opt;
  const double x[2] = {0.0, 0.0};
  double out[2];
  EXPECT_THROW(opt(valueOnly, x, out), std::runtime_error);
  try {
    opt(valueOnly, static_cast<LxOpt::LxCheckpoint0*>(nullptr), x, out);
    ADD_FAILURE() << "no fatal error";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "Cannot use LxFunc0 in gradient optimization");
  }
  LxOpt::LxSetMessageSink(previous);
}

}  // namespace
