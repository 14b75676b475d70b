// IsRedundant, state names, optimizer bases, steepest descent, version.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <functional>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>

#include "lxopt/lxopt.h"
#include "support/geom.h"
#include "support/problems.h"

namespace {

using namespace LxOpt;
using lxtest::Counting;
using lxtest::DiagonalQuadratic;
using lxtest::MessageCapture;
using lxtest::Recorder;
using Vec = std::vector<double>;
using Texts = std::vector<std::string>;
const double kNaN = std::numeric_limits<double>::quiet_NaN();

TEST(StateNames, TableAndOutOfRange) {
  const char* expected[] = {"Cont", "NoOpt", "OneVar", "NotFound", "Ended", "NotJust", "Exhaust",
                            "Dist", "Fval",  "Grad",   "Comp",     "Done",  "Stable"};
  for (unsigned int s = 0; s <= 12; ++s) EXPECT_STREQ(LxGetStateName(s), expected[s]) << s;
  for (unsigned int s : {13u, UINT_MAX}) EXPECT_STREQ(LxGetStateName(s), "");
}

TEST(IsRedundant, RootMeanSquareAgainstTolerance) {
  DiagonalQuadratic two({1, 1}, {0, 0}), empty({}, {});
  const double a[] = {0, 0}, b[] = {1, 1};
  MessageCapture capture;
  EXPECT_TRUE(two.IsRedundant(a, a, 1e-9));
  EXPECT_FALSE(two.IsRedundant(a, b, 1.0));  // RMS difference exactly equal: not redundant
  EXPECT_TRUE(two.IsRedundant(a, b, std::nextafter(1.0, 2.0)));
  EXPECT_FALSE(empty.IsRedundant(a, a, 1.0));  // 0/0 compares false
  EXPECT_TRUE(two.IsRedundant(a, b, 0.0) && two.IsRedundant(a, b, -1.0));
  EXPECT_EQ(capture.Texts(),
            Texts(2, "Tolerance should have positive value in the IsRedundant function!"));
  EXPECT_EQ(capture.messages[0].level, LxMessageLevel::Error);
}

// f(x) = x^2 with a gradient that points uphill, so every step is rejected.
struct Misleading : lxtest::Objective {
  using Objective::operator();
  unsigned int NumVar() const override { return 1; }
  double operator()(const double* x) override { return x[0] * x[0]; }
  double operator()(const double* x, double* g) override { return g[0] = -2.0 * x[0], x[0] * x[0]; }
};

// x^2, but not a number below 0.5.
struct NanBelowHalf : lxtest::Objective {
  using Objective::operator();
  unsigned int NumVar() const override { return 1; }
  double operator()(const double* x) override { return x[0] < 0.5 ? kNaN : x[0] * x[0]; }
  double operator()(const double* x, double* g) override {
    return g[0] = x[0] < 0.5 ? kNaN : 2.0 * x[0], (*this)(x);
  }
};

// The reports as "iteration state" items, e.g. "0 Cont, 1 Exhaust".
std::string Trace(const Recorder& rec) {
  std::string s;
  for (const lxtest::Call& c : rec.calls)
    s += (s.empty() ? "" : ", ") + std::to_string(c.iter) + " " + LxGetStateName(c.state);
  return s;
}

// Every exit: the reports, gradient evaluations (the start, then one per
// trial), the value returned, out and the first report's norm.
TEST(SteepestDescent, EveryExit) {
  DiagonalQuadratic q24({1, 4}, {2, 3}), none({}, {}), square({1}, {0});
  Misleading misleading;
  NanBelowHalf nanBelowHalf;
  std::string rejections;  // h starts at 1/2 and halves per rejection: below 1e-10 after the 33rd
  for (int k = 0; k < 32; ++k) rejections += std::to_string(k) + " Cont, ";
  const double x2 = 3 - 0.125 * 1.2 * 6;  // from 4: h = 1/8 lands on 3, then h grows by 1.2
  struct Case {
    lxtest::Objective* f;
    Vec start;
    unsigned int limit;
    std::string trace;
    int gradients;
    double value;
    Vec out;
    double gnorm0;
  } cases[] = {
      // g = (0, 0.08): sum g^2 below 0.1
      {&q24, {2, 3.01}, 1000, "0 NoOpt", 1, 4e-4, {2, 3.01}, 0.08},
      {&none, {}, 1000, "0 NoOpt", 1, 0.0, {}, 0.0},
      {&square, {3}, 0, "0 Exhaust", 1, 9.0, {3}, 6.0},
      {&square, {4}, 2, "0 Cont, 1 Cont, 2 Exhaust", 3, x2 * x2, {x2}, 6.0},
      // The converged trial (0) is returned and reported, but not copied out.
      {&square, {1}, 1000, "0 Done", 2, 0.0, {1}, 0.0},
      // After a rejection the norm reported is the rejected trial's: x = 2 -> 4.
      {&misleading, {1}, 1000, rejections + "32 NotFound", 34, 1.0, {1}, 4.0},
      // A value that is not a number is accepted as a decrease.
      {&nanBelowHalf, {1}, 1, "0 Cont, 1 Exhaust", 2, kNaN, {0}, kNaN},
  };
  for (const Case& c : cases) {
    Counting f(*c.f);
    Recorder rec;
    LxSteepestDescentOpt opt;
    opt.SetIterLimit(c.limit);
    Vec start = c.start, out(c.start.size() + 1);
    start.push_back(0.0);  // never a null pointer, even for n = 0
    const double value = opt(f, &rec, start.data(), out.data());
    out.pop_back();
    EXPECT_EQ(Trace(rec), c.trace);
    EXPECT_TRUE(f.gradients == c.gradients && f.values == 0) << c.trace;
    EXPECT_TRUE(std::isnan(c.value) ? std::isnan(value) : std::fabs(value - c.value) < 1e-15)
        << value;
    EXPECT_TRUE(out == c.out && rec.calls.back().vars == c.out) << c.trace;
    EXPECT_TRUE(std::isnan(c.gnorm0) || std::fabs(rec.calls[0].gnorm - c.gnorm0) < 1e-12);
  }
}

TEST(SteepestDescent, NullOutWarnsWithoutEvaluating) {
  DiagonalQuadratic q({1}, {0});
  Counting f(q);
  Recorder rec;
  MessageCapture capture;
  const double start[] = {1.0};
  EXPECT_EQ(LxSteepestDescentOpt()(f, &rec, start, nullptr), 0.0);
  EXPECT_EQ(f.gradients + f.values + rec.calls.size(), 0u);
  EXPECT_EQ(capture.Texts(), Texts{"memory not provided for optimized variables"});
  EXPECT_EQ(capture.messages[0].level, LxMessageLevel::Warning);
}

TEST(SteepestDescent, CheckpointCannotStopIt) {
  lxtest::Rosenbrock r;
  LxSteepestDescentOpt opt;
  opt.SetIterLimit(50);
  Recorder stop, go;
  stop.continueFor = 0;
  const double start[] = {-1.2, 1.0};
  double out[2];
  opt(r, &stop, start, out);
  opt(r, &go, start, out);
  EXPECT_EQ(Trace(stop), Trace(go));
  EXPECT_EQ(stop.calls.size(), 51u);
}

TEST(SteepestDescent, ThreeArgumentFormEqualsNullCheckpointAndInPlaceRun) {
  lxtest::Rosenbrock r;
  const double start[] = {-1.2, 1.0};
  double a[2], b[2], c[2] = {-1.2, 1.0};
  LxSteepestDescentOpt opt;
  opt.SetIterLimit(200);
  const double fa = opt(r, start, a), fb = opt(r, nullptr, start, b), fc = opt(r, c, c);
  EXPECT_EQ(std::vector<double>({fa, a[0], a[1]}), std::vector<double>({fb, b[0], b[1]}));
  EXPECT_EQ(std::vector<double>({fa, a[0], a[1]}), std::vector<double>({fc, c[0], c[1]}));
}

TEST(Version, StringsAndRegistration) {
  EXPECT_EQ(LxOptGetVersion(), 20260727u);
  EXPECT_EQ(std::string(LxOptGetRelease()) + "|" + LxOptGetNonDebugRelease() + "|" +
                LxOptGetDebugRelease() + "|" + LxOptGetArch() + "|" + LxOptGetPlatform(),
            "2.9.2.0|2.9.2.0|2.9.2.0 debug|redhat-RHEL8-x64|redhat-RHEL8-g++8.5-x64");
  const LxVersionRecord own = LxOptVersion();
  EXPECT_EQ(own.family + " " + own.library + " " + own.release, "lxsuite LxOpt 2.9.2.0");
  int registered = 0;
  for (const LxVersionRecord& r : LxRegisteredVersions())
    registered += r.library == "LxOpt" && r.family == "lxsuite" && r.release == "2.9.2.0";
  EXPECT_EQ(registered, 1);
}

// ---------------------------------------------------------------- ask / tell

// Forwards to an objective and records every point evaluated, tagged with
// whether the gradient was asked for.
class Logging : public lxtest::Objective {
 public:
  using Objective::operator();
  explicit Logging(LxFunc1& inner) : inner_(inner) {}
  unsigned int NumVar() const override { return inner_.NumVar(); }
  double operator()(const double* x) override { return Log(x, false), inner_(x); }
  double operator()(const double* x, double* g) override { return Log(x, true), inner_(x, g); }
  std::vector<std::pair<Vec, bool>> points;

 private:
  void Log(const double* x, bool gradient) { points.push_back({Vec(x, x + NumVar()), gradient}); }
  LxFunc1& inner_;
};

// What a run leaves: the value, the final point and the last state reported.
struct RunEnd {
  double value;
  Vec x;
  unsigned int state;
  bool operator==(const RunEnd& o) const {
    return value == o.value && x == o.x && state == o.state;
  }
};

// Drives a started run to its end with f, logging what it asks for.
RunEnd Drive(LxAskTell& run, LxFunc1& f, std::vector<std::pair<Vec, bool>>& asked) {
  const unsigned int n = f.NumVar();
  Vec g(n);
  while (const double* x = run.Ask()) {
    asked.push_back({Vec(x, x + n), run.GradientWanted()});
    const double value = run.GradientWanted() ? f(x, g.data()) : f(x);
    EXPECT_TRUE(run.Tell(value, g.data()));
  }
  EXPECT_TRUE(run.Finished());
  return {run.GetValue(), Vec(run.GetPoint(), run.GetPoint() + n), run.GetState()};
}

// An optimizer of type Opt with the given tolerance (0: its default).
template <class Opt>
std::function<std::unique_ptr<LxOptimizer1>()> Make(double tolerance = 0.0) {
  return [tolerance] {
    auto o = std::make_unique<Opt>();
    if (tolerance > 0.0) o->SetTolerance(tolerance);
    return std::unique_ptr<LxOptimizer1>(std::move(o));
  };
}

struct AskTellCase {
  std::string name;
  std::function<std::unique_ptr<LxOptimizer1>()> make;
  bool cluster;  // the Lennard-Jones cluster, else Rosenbrock from (-1.2, 1)
};

// The run asks for exactly the points a direct call evaluates, in the same
// order and with the same value-only requests, and ends with the direct
// call's value, point and final state.
TEST(AskTell, AsksForTheDirectRunsPointsAndEndsAlike) {
  const AskTellCase cases[] = {
      {"Geometry", Make<LxBFGSOptimizer>(), true},
      {"Geometry tight", Make<LxBFGSOptimizer>(1e-6), false},
      {"LBFGS", Make<LxLBFGSOpt>(1e-12), true},
      {"BFGS", Make<LxBFGSOpt>(), false},
      {"ConjGrad", Make<LxConjGradOpt>(), false},
  };
  for (const AskTellCase& c : cases) {
    lxtest::LennardJones lj(13);
    lxtest::Rosenbrock rosen;
    LxFunc1* f = c.cluster ? static_cast<LxFunc1*>(&lj) : &rosen;
    const Vec start = c.cluster ? lxtest::PerturbedIcosahedron(0.1) : Vec{-1.2, 1.0};
    Logging logged(*f);
    Recorder rec;
    Vec out(start.size());
    std::unique_ptr<LxOptimizer1> directOpt = c.make();
    const double value = (*directOpt)(logged, &rec, start.data(), out.data());
    const RunEnd direct{value, out, rec.calls.back().state};

    std::unique_ptr<LxOptimizer1> opt = c.make();
    LxAskTell run;
    run.Start(*opt, start.data(), f->NumVar());
    std::vector<std::pair<Vec, bool>> asked;
    const RunEnd driven = Drive(run, *f, asked);
    EXPECT_GT(asked.size(), 10u) << c.name;
    EXPECT_TRUE(asked == logged.points) << c.name;
    EXPECT_TRUE(driven == direct) << c.name;
    EXPECT_EQ(run.GetEvaluations(), asked.size()) << c.name;
    EXPECT_EQ(run.GetIterations(), rec.calls.back().iter) << c.name;
    EXPECT_EQ(run.LastRun().state, directOpt->LastRun().state) << c.name;
    EXPECT_EQ(run.LastRun().converged, directOpt->LastRun().converged) << c.name;
    EXPECT_TRUE(run.Ask() == nullptr && !run.Tell(0.0, out.data())) << c.name;
  }
}

// Asking twice gives the same point; a tell needs a waiting point and the
// gradient it wants; a reset mid-run, a restart and the destruction of a
// running object leave the next run as a fresh one would be.
TEST(AskTell, ProtocolResetAndRestart) {
  lxtest::LennardJones lj(13);
  const Vec start = lxtest::PerturbedIcosahedron(0.1);
  const unsigned int n = lj.NumVar();
  LxBFGSOptimizer opt;
  LxAskTell run;
  EXPECT_TRUE(run.Ask() == nullptr && !run.Finished() && run.GetPoint() == nullptr);
  EXPECT_FALSE(run.Tell(1.0, start.data()));

  run.Start(opt, start.data(), n);
  const double* first = run.Ask();
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(Vec(first, first + n), start);
  EXPECT_EQ(run.Ask(), first);
  EXPECT_TRUE(run.GradientWanted());
  EXPECT_FALSE(run.Tell(1.0, nullptr));
  Vec g(n);
  for (int k = 0; k < 5; ++k) {
    const double* x = run.Ask();
    EXPECT_TRUE(run.Tell(lj(x, g.data()), g.data()));
  }
  EXPECT_FALSE(run.Finished());
  run.Reset();
  EXPECT_TRUE(run.Ask() == nullptr && !run.Finished() && run.GetPoint() == nullptr);

  std::vector<std::pair<Vec, bool>> again, fresh;
  run.Start(opt, start.data(), n);
  run.Ask();
  run.Start(opt, start.data(), n);  // restarts a run that waits for a value
  const RunEnd a = Drive(run, lj, again);
  LxBFGSOptimizer other;
  LxAskTell second;
  second.Start(other, start.data(), n);
  const RunEnd b = Drive(second, lj, fresh);
  EXPECT_TRUE(a == b && again == fresh);
  EXPECT_LT(a.value, lxtest::LennardJones::kIcosahedronMinimum + 1e-4);

  auto abandoned = std::make_unique<LxAskTell>();
  abandoned->Start(opt, start.data(), n);
  abandoned->Ask();
  abandoned.reset();  // the worker waits for a value and must still end
}

// An exception escaping the optimizer (here from the caller's checkpoint)
// reaches the caller from Ask, once; a later run is unaffected.
TEST(AskTell, CheckpointExceptionReachesAsk) {
  struct Throwing : LxCheckpoint1 {
    using LxCheckpoint1::operator();
    bool operator()(unsigned int iter, unsigned int, double, double, const double*, const double*,
                    unsigned int) override {
      if (iter == 2) throw std::runtime_error("stop here");
      return true;
    }
  } throwing;
  lxtest::Rosenbrock r;
  const Vec start = {-1.2, 1.0};
  LxLBFGSOpt opt;
  opt.SetTolerance(1e-14);
  LxAskTell run;
  run.Start(opt, start.data(), 2, &throwing);
  Vec g(2);
  std::string caught;
  try {
    while (const double* x = run.Ask()) run.Tell(r(x, g.data()), g.data());
  } catch (const std::runtime_error& e) {
    caught = e.what();
  }
  EXPECT_EQ(caught, "stop here");
  EXPECT_TRUE(run.Ask() == nullptr && run.Finished());
  std::vector<std::pair<Vec, bool>> asked;
  run.Start(opt, start.data(), 2);
  EXPECT_LT(Drive(run, r, asked).value, 1e-6);
}

// ------------------------------------------------------------ run summary

// One optimizer of every family behind one signature; Newton's run takes
// the Hessian objective.
struct SummaryCase {
  const char* name;
  std::function<double(LxFunc2&, LxCheckpoint1*, const double*, double*, unsigned int limit)> run;
  std::function<const LxRunSummary&()> summary;
  bool honoursStop;
  double gradientBound = 1e-3;  // of a converged run
  bool limited = true;          // an iteration limit of 2 ends unconverged
};

template <class Opt>
SummaryCase Case(const char* name, bool honoursStop, double tolerance = 1e-10) {
  auto opt = std::make_shared<Opt>();
  return {name,
          [opt, tolerance](LxFunc2& f, LxCheckpoint1* cp, const double* s, double* o,
                           unsigned int limit) {
            opt->SetTolerance(tolerance);
            opt->SetIterLimit(limit);
            return (*opt)(f, cp, s, o);
          },
          [opt]() -> const LxRunSummary& { return opt->LastRun(); }, honoursStop};
}

// Annealing leaves the two getters open.
struct Anneal : LxSAOpt {
  Anneal() : LxSAOpt(1.0) {}
  unsigned int GetIterLimit() const override { return EvaluationLimit(); }
  double GetTolerance() const override { return Tolerance(); }
};

SummaryCase AnnealCase() {
  auto opt = std::make_shared<Anneal>();
  return {"LxSAOpt",
          [opt](LxFunc2& f, LxCheckpoint1* cp, const double* s, double* o, unsigned int limit) {
            opt->SetIterLimit(limit == 2 ? 2 : 3000);  // limit 2: annealing ends at once
            return (*opt)(f, cp, s, o);
          },
          [opt]() -> const LxRunSummary& { return opt->LastRun(); }, true,
          // The final BFGS run keeps its default tolerance 0.1 on sum g^2.
          std::sqrt(LxBFGSOpt::kDefaultTolerance), false};
}

std::vector<SummaryCase> SummaryCases() {
  return {Case<LxSteepestDescentOpt>("LxSteepestDescentOpt", false),
          Case<LxConjGradOpt>("LxConjGradOpt", true),
          Case<LxFletcherReevesOpt>("LxFletcherReevesOpt", true),
          Case<LxRibierePolakOpt>("LxRibierePolakOpt", true),
          Case<LxHestenesStiefelOpt>("LxHestenesStiefelOpt", true),
          Case<LxBFGSOpt>("LxBFGSOpt", true),
          Case<LxBFGSModOpt>("LxBFGSModOpt", true),
          Case<LxDFPOpt>("LxDFPOpt", true),
          Case<LxLBFGSOpt>("LxLBFGSOpt", true),
          Case<LxBFGSOptimizer>("LxBFGSOptimizer", false, 1e-5),
          Case<LxNewtonOpt>("LxNewtonOpt", false, 1e-6),
          Case<LxNewtonConstrOpt>("LxNewtonConstrOpt", false, 1e-6),
          AnnealCase()};
}

// A converged run and a run cut by the iteration limit: the summary agrees
// with the reports the caller's checkpoint saw and the calls the objective
// counted.
TEST(RunSummary, MatchesReportsAndCountsForEveryOptimizer) {
  for (const SummaryCase& c : SummaryCases()) {
    SCOPED_TRACE(c.name);
    DiagonalQuadratic q({1.0, 3.0}, {1.0, -2.0});
    MessageCapture quiet;
    for (unsigned int limit : {500u, 2u}) {
      Counting counted(q);
      Recorder rec;
      const double start[] = {4.0, 5.0};
      double out[2];
      const double f = c.run(counted, &rec, start, out, limit);
      const LxRunSummary& s = c.summary();
      ASSERT_FALSE(rec.calls.empty());
      EXPECT_EQ(s.evaluations,
                std::uint64_t(counted.values + counted.gradients + counted.hessians));
      EXPECT_EQ(s.value, f);
      if (limit == 2) {
        if (c.limited) {
          EXPECT_FALSE(s.converged);
        }
        continue;
      }
      EXPECT_TRUE(s.converged) << LxGetStateName(s.state);
      EXPECT_NE(s.state, unsigned(kLxCont));
      EXPECT_LT(s.gradientNorm, c.gradientBound);
      EXPECT_NEAR(out[0], 1.0, 1e-3);
      // The deciding state is one the checkpoint received.
      bool seen = false;
      for (const lxtest::Call& call : rec.calls) seen = seen || call.state == s.state;
      EXPECT_TRUE(seen || c.name == std::string("LxFletcherReevesOpt") ||
                  c.name == std::string("LxRibierePolakOpt") ||
                  c.name == std::string("LxHestenesStiefelOpt"));
    }
  }
}

// A checkpoint that answers false to the first report: optimizers that honour
// it end with Done and the summary says they were stopped, not converged.
TEST(RunSummary, StopByCheckpointIsNotConvergence) {
  for (const SummaryCase& c : SummaryCases()) {
    SCOPED_TRACE(c.name);
    lxtest::Rosenbrock r;
    Recorder rec;
    rec.continueFor = 0;
    const double start[] = {-1.2, 1.0};
    double out[2];
    MessageCapture quiet;
    c.run(r, &rec, start, out, 500);
    const LxRunSummary& s = c.summary();
    EXPECT_EQ(s.stoppedByCheckpoint, c.honoursStop);
    if (c.honoursStop) {
      EXPECT_EQ(s.state, unsigned(kLxDone));
      EXPECT_FALSE(s.converged);
    }
  }
}

// Refused input (a null out) leaves state 0 and no convergence, never the
// 0.0 of the return value passing for a minimum; a later good run is summed
// up afresh.
TEST(RunSummary, RefusedInputIsNoConvergence) {
  for (const SummaryCase& c : SummaryCases()) {
    if (c.name == std::string("LxBFGSOptimizer")) continue;  // a null out is legal there
    SCOPED_TRACE(c.name);
    DiagonalQuadratic q({1.0, 3.0}, {1.0, -2.0});
    const double start[] = {4.0, 5.0};
    double out[2];
    MessageCapture quiet;
    c.run(q, nullptr, start, out, 500);
    ASSERT_TRUE(c.summary().converged);
    c.run(q, nullptr, start, nullptr, 500);
    const LxRunSummary& s = c.summary();
    EXPECT_EQ(s.state, unsigned(kLxCont));
    EXPECT_FALSE(s.converged);
  }
}

// The classic conjugate gradients end converged runs without a final report;
// the summary still says Grad. The geometry driver's closing Done leaves the
// state that ended the run.
TEST(RunSummary, SilentAndClosingEnds) {
  DiagonalQuadratic q({1.0, 1.0}, {1.0, -2.0});  // one steepest step converges
  const double start[] = {4.0, 5.0};
  double out[2];
  LxFletcherReevesOpt fr;
  fr.SetTolerance(1e-12);
  Recorder rec;
  fr(q, &rec, start, out);
  EXPECT_EQ(rec.calls.back().state, unsigned(kLxCont));
  EXPECT_EQ(fr.LastRun().state, unsigned(kLxGrad));
  EXPECT_TRUE(fr.LastRun().converged);

  lxtest::Rosenbrock r;
  const double far[] = {-1.2, 1.0};
  LxBFGSOptimizer geo;
  geo.SetTolerance(1e-5);
  Recorder grec;
  geo(r, &grec, far, out);
  ASSERT_GE(grec.calls.size(), 2u);
  EXPECT_EQ(grec.calls.back().state, unsigned(kLxDone));
  EXPECT_EQ(geo.LastRun().state, grec.calls[grec.calls.size() - 2].state);
  EXPECT_TRUE(geo.LastRun().converged);
  EXPECT_EQ(geo.LastRun().gradientMax != geo.LastRun().gradientMax, true);  // no gradient passed
}

TEST(RunSummary, ConvergenceTable) {
  const bool expected[] = {false, true, false, false, false, false, false,
                           true,  true, true,  true,  true,  false};
  for (unsigned int s = 0; s <= 12; ++s) EXPECT_EQ(LxStateMeansConvergence(s), expected[s]) << s;
  EXPECT_FALSE(LxStateMeansConvergence(13));
}

}  // namespace
