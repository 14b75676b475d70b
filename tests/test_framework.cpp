// IsRedundant, state names, optimizer bases, steepest descent, version.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <limits>
#include <map>
#include <memory>
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <tuple>

#include "lxopt/lxopt.h"
#include "support/geom.h"
#include "support/problems.h"

namespace {

using namespace LxOpt;
using lxtest::DiagonalQuadratic;
using lxtest::MessageCapture;
using Vec = std::vector<double>;
using Texts = std::vector<std::string>;
const double kNaN = std::numeric_limits<double>::quiet_NaN();

TEST(States, NamesAndConvergence) {
  const char* names[] = {"Cont", "NoOpt", "OneVar", "NotFound", "Ended", "NotJust", "Exhaust",
                         "Dist", "Fval",  "Grad",   "Comp",     "Done",  "Stable"};
  const bool converged[] = {0, 1, 0, 0, 0, 0, 0, 1, 1, 1, 1, 1, 0};
  for (unsigned int s = 0; s <= 12; ++s) {
    EXPECT_STREQ(LxGetStateName(s), names[s]) << s;
    EXPECT_EQ(LxStateMeansConvergence(s), converged[s]) << s;
  }
  for (unsigned int s : {13u, UINT_MAX})
    EXPECT_TRUE(!*LxGetStateName(s) && !LxStateMeansConvergence(s));
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

// x^2 with a gradient pointing uphill (every step is rejected), or not a number below 0.5.
struct Spoiled : lxtest::Objective {
  using Objective::operator();
  explicit Spoiled(bool uphill) : uphill(uphill) {}
  unsigned int NumVar() const override { return 1; }
  double operator()(const double* x) override { return !uphill && x[0] < 0.5 ? kNaN : x[0] * x[0]; }
  double operator()(const double* x, double* g) override {
    return g[0] = uphill ? -2.0 * x[0] : x[0] < 0.5 ? kNaN : 2.0 * x[0], (*this)(x);
  }
  bool uphill;
};

// The reports as "iteration state" items, e.g. "0 Cont, 1 Exhaust".
std::string Trace(const LxTraceCheckpoint& rec) {
  std::string s;
  for (const LxTraceEntry& c : rec.Entries())
    s += (s.empty() ? "" : ", ") + std::to_string(c.iter) + " " + LxGetStateName(c.state);
  return s;
}

// Every exit: reports, gradient evaluations, value returned, out and the first report's norm.
TEST(SteepestDescent, EveryExit) {
  DiagonalQuadratic q24({1, 4}, {2, 3}), none({}, {}), square({1}, {0});
  Spoiled misleading(true), nanBelowHalf(false);
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
    LxCountingFunc f(*c.f);
    LxTraceCheckpoint rec(nullptr, true);
    LxSteepestDescentOpt opt;
    opt.SetIterLimit(c.limit);
    Vec start = c.start, out(c.start.size() + 1);
    start.push_back(0.0);  // never a null pointer, even for n = 0
    const double value = opt(f, &rec, start.data(), out.data());
    out.pop_back();
    EXPECT_EQ(Trace(rec), c.trace);
    EXPECT_TRUE(f.Gradients() == std::uint64_t(c.gradients) && f.Values() == 0) << c.trace;
    EXPECT_TRUE(std::isnan(c.value) ? std::isnan(value) : std::fabs(value - c.value) < 1e-15)
        << value;
    EXPECT_TRUE(out == c.out && rec.Entries().back().x == c.out) << c.trace;
    EXPECT_TRUE(std::isnan(c.gnorm0) || std::fabs(rec.Entries()[0].gnorm - c.gnorm0) < 1e-12);
  }
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

// Forwards to an objective, logging every point and whether its gradient was asked for.
struct Logging : lxtest::Objective {
  using Objective::operator();
  explicit Logging(LxFunc1& inner) : inner(inner) {}
  unsigned int NumVar() const override { return inner.NumVar(); }
  double operator()(const double* x) override { return Log(x, false), inner(x); }
  double operator()(const double* x, double* g) override { return Log(x, true), inner(x, g); }
  void Log(const double* x, bool gradient) { points.push_back({Vec(x, x + NumVar()), gradient}); }
  LxFunc1& inner;
  std::vector<std::pair<Vec, bool>> points;
};

// What a run leaves: the value, the final point and the last state reported.
using RunEnd = std::tuple<double, Vec, unsigned int>;

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

// The run asks for exactly the points a direct call evaluates (value-only requests too) and ends
// with its value, point and state.
TEST(AskTell, AsksForTheDirectRunsPointsAndEndsAlike) {
  struct {
    const char* optimizer;
    double tolerance;  // 0: the default
    bool cluster;      // the Lennard-Jones cluster, else Rosenbrock from (-1.2, 1)
  } const cases[] = {
      {"GeomBFGS", 0, true}, {"GeomBFGS", 1e-6, false}, {"LBFGS", 1e-12, true},
      {"BFGS", 0, false},    {"ConjGrad", 0, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.optimizer) + (c.cluster ? " cluster" : " valley"));
    LxAnyOptimizer directOpt(*LxFindOptimizer(c.optimizer)), opt(directOpt.Entry());
    if (c.tolerance > 0) directOpt.SetTolerance(c.tolerance), opt.SetTolerance(c.tolerance);
    lxtest::LennardJones lj(13);
    lxtest::Rosenbrock rosen;
    LxFunc1* f = c.cluster ? static_cast<LxFunc1*>(&lj) : &rosen;
    const Vec start = c.cluster ? lxtest::PerturbedIcosahedron(0.1) : Vec{-1.2, 1.0};
    Logging logged(*f);
    LxTraceCheckpoint rec;
    Vec out(start.size());
    const double value = (*directOpt.Gradient())(logged, &rec, start.data(), out.data());
    const RunEnd direct{value, out, rec.Entries().back().state};
    LxAskTell run;
    run.Start(*opt.Gradient(), start.data(), f->NumVar());
    std::vector<std::pair<Vec, bool>> asked;
    const RunEnd driven = Drive(run, *f, asked);
    EXPECT_GT(asked.size(), 10u);
    EXPECT_TRUE(asked == logged.points);
    EXPECT_TRUE(driven == direct);
    EXPECT_EQ(run.GetEvaluations(), asked.size());
    EXPECT_EQ(run.GetIterations(), rec.Entries().back().iter);
    EXPECT_EQ(run.LastRun().state, directOpt.LastRun().state);
    EXPECT_EQ(run.LastRun().converged, directOpt.LastRun().converged);
    EXPECT_TRUE(run.Ask() == nullptr && !run.Tell(0.0, out.data()));
  }
}

// Asking twice gives the same point; a tell needs a waiting point and the gradient it wants; a
// reset, a restart and the destruction of a running object leave later runs fresh.
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
  EXPECT_TRUE(Vec(first, first + n) == start && run.Ask() == first && run.GradientWanted());
  EXPECT_FALSE(run.Tell(1.0, nullptr));
  Vec g(n);
  for (int k = 0; k < 5; ++k) EXPECT_TRUE(run.Tell(lj(run.Ask(), g.data()), g.data()));
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
  EXPECT_LT(std::get<0>(a), lxtest::LennardJones::kIcosahedronMinimum + 1e-4);

  auto abandoned = std::make_unique<LxAskTell>();
  abandoned->Start(opt, start.data(), n);
  abandoned->Ask();
  abandoned.reset();  // the worker waits for a value and must still end
}

// A checkpoint's exception reaches the caller from Ask, once; a later run is unaffected.
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
  EXPECT_LT(std::get<0>(Drive(run, r, asked)), 1e-6);
}

// ------------------------------------------------- every optimizer, run summary

// Every optimizer class the public headers declare (but the shared bases) has a registry entry.
TEST(Registry, ListsEveryOptimizerClassOfTheHeaders) {
  std::map<std::string, std::string> baseOf;
  const std::regex declaration("class LXOPT_API (\\w+) : public (\\w+)");
  for (const auto& file : std::filesystem::directory_iterator(LXOPT_SOURCE_DIR "/include/lxopt")) {
    std::ifstream in(file.path());
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    for (std::sregex_iterator m(text.begin(), text.end(), declaration), e; m != e; ++m)
      baseOf[(*m)[1]] = (*m)[2];
  }
  std::set<std::string> declared, registered;
  for (const auto& [name, base] : baseOf) {
    std::string root = base;
    while (baseOf.count(root)) root = baseOf[root];
    const bool sharedBase =
        name == "LxGradientOpt" || name == "LxConjGradBase" || name == "LxBetaConjGradOpt";
    if ((root == "LxOptimizer1" || root == "LxOptimizer2") && !sharedBase) declared.insert(name);
  }
  for (const LxOptimizerEntry& e : LxOptimizerRegistry()) {
    registered.insert(e.className);
    EXPECT_EQ(LxFindOptimizer(e.name), &e);
    EXPECT_TRUE((e.make1 == nullptr) == (e.needs == LxObjectiveNeeds::kHessian) &&
                !e.make1 != !e.make2)
        << e.name;
  }
  EXPECT_EQ(registered, declared);
  EXPECT_EQ(declared.size(), 13u);
  EXPECT_EQ(LxFindOptimizer("NoSuchOptimizer"), nullptr);
}

class EveryOptimizer : public ::testing::TestWithParam<size_t> {
 protected:
  const LxOptimizerEntry& entry_ = LxOptimizerRegistry()[GetParam()];
  const std::string name_ = entry_.name;
  const bool anneal_ = name_ == "Annealing";
  // A quiet run with a limit (annealing: 3000 evaluations, or 2) and a tight tolerance.
  double Run(LxAnyOptimizer& opt, LxFunc2& f, LxCheckpoint1* cp, const double* start, double* out,
             unsigned int limit = 500) {
    opt.SetIterLimit(anneal_ && limit != 2 ? 3000 : limit);
    if (!anneal_)
      opt.SetTolerance(name_ == "GeomBFGS"                      ? 1e-5
                       : entry_.family == std::string("Newton") ? 1e-6
                                                                : 1e-10);
    MessageCapture quiet;
    std::ostringstream progress;  // annealing's lines
    std::ostream* previous = LxSetOutputStream(&progress);
    const double value = opt(f, cp, start, out);
    LxSetOutputStream(previous);
    return value;
  }
};

// Converged and cut by the limit, the summary agrees with the reports and the counted calls.
TEST_P(EveryOptimizer, SummaryMatchesReportsAndCounts) {
  // Annealing's final BFGS keeps its default tolerance 0.1 on sum g^2.
  const double gradientBound = anneal_ ? std::sqrt(LxBFGSOpt::kDefaultTolerance) : 1e-3;
  const bool silent = entry_.family == std::string("CG") && name_ != "ConjGrad";
  DiagonalQuadratic q({1.0, 3.0}, {1.0, -2.0});
  LxAnyOptimizer opt(entry_);
  for (unsigned int limit : {500u, 2u}) {
    LxCountingFunc counted(q);
    LxTraceCheckpoint rec;
    const double start[] = {4.0, 5.0};
    double out[2];
    const double f = Run(opt, counted, &rec, start, out, limit);
    const LxRunSummary& s = opt.LastRun();
    ASSERT_FALSE(rec.Entries().empty());
    EXPECT_EQ(s.evaluations, counted.Total());
    EXPECT_EQ(s.value, f);
    if (limit == 2) {
      EXPECT_TRUE(anneal_ || !s.converged);
      continue;
    }
    EXPECT_TRUE(s.converged) << LxGetStateName(s.state);
    EXPECT_NE(s.state, unsigned(kLxCont));
    EXPECT_LT(s.gradientNorm, gradientBound);
    EXPECT_NEAR(out[0], 1.0, anneal_ ? gradientBound / 2 : 1e-3);  // g_0 = 2 (x_0 - 1)
    const std::vector<LxTraceEntry>& calls = rec.Entries();
    if (silent) {  // no final report, yet the summary says Grad
      EXPECT_TRUE(calls.back().state == kLxCont && s.state == kLxGrad) << calls.back().state;
    } else if (name_ == "GeomBFGS") {  // the closing Done leaves the state that ended the run
      ASSERT_GE(calls.size(), 2u);
      EXPECT_TRUE(calls.back().state == kLxDone && s.state == calls[calls.size() - 2].state);
      EXPECT_TRUE(std::isnan(s.gradientMax));  // no gradient passed
    } else {                                   // the deciding state is one the checkpoint received
      EXPECT_TRUE(std::any_of(calls.begin(), calls.end(),
                              [&](const LxTraceEntry& e) { return e.state == s.state; }));
    }
  }
}

// A false answer to the first report: optimizers that honour it end with Done, stopped and not
// converged; the others run exactly as without it.
TEST_P(EveryOptimizer, StopRequestHonouredOrIgnored) {
  lxtest::Rosenbrock r;
  LxTraceCheckpoint free, stopped;
  LxBudgetCheckpoint stop(&stopped);
  LxCountingFunc counted(r);
  stop.SetEvaluationBudget(counted, 0);
  const double start[] = {-1.2, 1.0};
  double out[2];
  LxAnyOptimizer opt(entry_), other(entry_);
  const unsigned int limit = anneal_ ? 2 : 50;  // annealing: its BFGS starts at the start
  Run(other, r, &free, start, out, limit);
  Run(opt, counted, &stop, start, out, limit);
  const LxRunSummary& s = opt.LastRun();
  EXPECT_EQ(s.stoppedByCheckpoint, entry_.honoursStop);
  EXPECT_TRUE(entry_.honoursStop ? s.state == kLxDone && !s.converged
                                 : Trace(stopped) == Trace(free))
      << LxGetStateName(s.state) << ": " << Trace(stopped);
}

// A null out is refused with a message before any evaluation; the summary of the last good run
// gives way to state 0 and no convergence. (The geometry driver accepts a null out.)
TEST_P(EveryOptimizer, RefusedInputIsNoConvergence) {
  if (name_ == "GeomBFGS") GTEST_SKIP() << "a null out is legal there";
  DiagonalQuadratic q({1.0, 3.0}, {1.0, -2.0});
  const double start[] = {4.0, 5.0};
  double out[2];
  LxAnyOptimizer opt(entry_);
  Run(opt, q, nullptr, start, out);
  ASSERT_TRUE(opt.LastRun().converged);
  LxCountingFunc counted(q);
  LxTraceCheckpoint rec;
  MessageCapture capture;
  EXPECT_EQ(opt(counted, &rec, start, nullptr), 0.0);
  EXPECT_TRUE(opt.LastRun().state == kLxCont && !opt.LastRun().converged);
  EXPECT_EQ(counted.Total() + rec.Entries().size(), 0u);  // refused before evaluating
  EXPECT_TRUE(std::any_of(capture.messages.begin(), capture.messages.end(),
                          [](const auto& m) { return m.level != LxMessageLevel::Info; }));
  if (name_ == "SteepestDescent") {
    EXPECT_EQ(capture.Texts(), Texts{"memory not provided for optimized variables"});
  }
}

// The three-argument form equals a null checkpoint; out may equal start (fresh objects each).
TEST_P(EveryOptimizer, ThreeArgumentFormAndInPlaceRun) {
  lxtest::Rosenbrock r;
  const double start[] = {-1.2, 1.0};
  double a[2], b[2], c[2] = {-1.2, 1.0};
  LxAnyOptimizer oa(entry_), ob(entry_), oc(entry_);
  for (LxAnyOptimizer* o : {&oa, &ob, &oc}) o->SetIterLimit(anneal_ ? 300 : 200);
  std::ostringstream progress;
  std::ostream* previous = LxSetOutputStream(&progress);
  MessageCapture quiet;
  const double fa = oa.Gradient() ? (*oa.Gradient())(r, start, a) : (*oa.Hessian())(r, start, a);
  const double fb = ob(r, nullptr, start, b), fc = oc(r, nullptr, c, c);
  LxSetOutputStream(previous);
  EXPECT_EQ(Vec({fa, a[0], a[1]}), Vec({fb, b[0], b[1]}));
  EXPECT_EQ(Vec({fa, a[0], a[1]}), Vec({fc, c[0], c[1]}));
}

INSTANTIATE_TEST_SUITE_P(Registry, EveryOptimizer,
                         ::testing::Range<size_t>(0, LxOptimizerRegistry().size()),
                         [](const ::testing::TestParamInfo<size_t>& info) {
                           return std::string(LxOptimizerRegistry()[info.param].name);
                         });

}  // namespace
