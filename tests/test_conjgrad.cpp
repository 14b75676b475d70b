// The conjugate-gradient optimizers: exits, failed searches, copies, convergence.
#include <gtest/gtest.h>
#include <lxopt/lxopt.h>

#include <cmath>
#include <functional>
#include <memory>
#include <tuple>

#include "../src/conjgrad/beta.h"
#include "support/linesearch.h"
#include "support/problems.h"

namespace {

using namespace LxOpt;
using lxtest::DiagonalQuadratic;
using lxtest::ScriptedSearch;
using lxtest::StopAfter;
using Points = std::vector<double>;

// make(nullptr) builds a fresh optimizer, make(&o) a copy of o. family: the
// classic family, with no gradient in its Cont and Done reports.
using Ptr = std::unique_ptr<LxConjGradBase>;
struct Named {
  const char* name;
  std::function<Ptr(const LxConjGradBase*)> make;
  bool family;
};
void PrintTo(const Named& o, std::ostream* os) {
  *os << o.name;
}
template <class T>
Named Make(const char* name, bool family) {
  return {
      name,
      [](const LxConjGradBase* o) { return Ptr(o ? new T(static_cast<const T&>(*o)) : new T()); },
      family};
}
const Named kAll[] = {Make<LxConjGradOpt>("ConjGrad", false),
                      Make<LxFletcherReevesOpt>("FletcherReeves", true),
                      Make<LxRibierePolakOpt>("RibierePolak", true),
                      Make<LxHestenesStiefelOpt>("HestenesStiefel", true)};

// 1 (x - 1)^2 + 4 (y + 1)^2 + 9 (z - 2)^2; at the origin g = (-2, 8, -36).
DiagonalQuadratic Bowl() {
  return DiagonalQuadratic({1.0, 4.0, 9.0}, {1.0, -1.0, 2.0});
}
const Points kOrigin(3, 0.0);

// The reports as "iteration state" items, e.g. "1 Cont, 2 Done".
std::string Trace(const LxTraceCheckpoint& rec) {
  std::string s;
  for (const LxTraceEntry& c : rec.Entries())
    s += (s.empty() ? "" : ", ") + std::to_string(c.iter) + " " + LxGetStateName(c.state);
  return s;
}

// One run on Bowl() through a line minimizer that fails on the calls in
// failOn. Every exit returns the value and leaves the point of the last report.
struct BowlRun {
  DiagonalQuadratic q = Bowl();
  LxCountingFunc counted{q};
  ScriptedSearch lm;
  StopAfter stop;
  LxTraceCheckpoint rec{&stop, true};
  const std::vector<LxTraceEntry>& calls = rec.Entries();
  const ScriptedSearch::Log& log = lm.log();
  Points x = Points(3);
  double f;
  BowlRun(LxConjGradBase& opt, std::set<int> failOn, unsigned long continueFor = ~0ul)
      : lm(std::move(failOn)), stop(continueFor) {
    opt.SetLineMinimize(lm);
    f = opt(counted, &rec, kOrigin.data(), x.data());
    EXPECT_TRUE(calls.empty() || (calls.back().x == x && calls.back().fval == f));
  }
};
Points GradientAt(const Points& x) {
  Points g(3);
  return Bowl()(x.data(), g.data()), g;
}
double Norm(const Points& v) {
  return std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
}

class AllFour : public ::testing::TestWithParam<Named> {};
// "<optimizer>_<case>" for the parameterised cases below.
template <class Param>
std::string CaseName(const ::testing::TestParamInfo<Param>& info) {
  return std::string(std::get<0>(info.param).name) + "_" + std::get<1>(info.param).name;
}

struct ExitCase {
  const char* name;
  unsigned int limit;
  double tolerance;  // |g|^2 = 1364 at the start
  unsigned long continueFor;
  std::string trace;
};
const ExitCase kExits[] = {{"NoOpt", 1000, 1365.0, ~0ul, "0 NoOpt"},
                           {"Limit0", 0, 0.1, ~0ul, "1 Exhaust"},
                           {"Limit1", 1, 0.1, ~0ul, "1 Exhaust"},
                           {"Limit2", 2, 0.1, ~0ul, "1 Cont, 2 Exhaust"},
                           {"StopAsked", 1000, 0.1, 1, "1 Cont, 2 Cont, 2 Done"}};
class SharedExits : public ::testing::TestWithParam<std::tuple<Named, ExitCase>> {};

// The exits all four share, as the whole sequence of reports; after a search
// the exit repeats the figures of the report before it.
TEST_P(SharedExits, ReportSequence) {
  const auto& [o, c] = GetParam();
  auto opt = o.make(nullptr);
  opt->SetIterLimit(c.limit);
  opt->SetTolerance(c.tolerance);
  BowlRun r(*opt, {}, c.continueFor);
  ASSERT_EQ(Trace(r.rec), c.trace);
  for (const LxTraceEntry& e : r.calls)
    EXPECT_EQ(!e.hasGradient, o.family && (e.state == kLxCont || e.state == kLxDone));
  const size_t n = r.calls.size();
  const LxTraceEntry &last = r.calls[n - 1], &prev = r.calls[n > 1 ? n - 2 : 0];
  EXPECT_EQ(std::make_tuple(r.f, last.fval, last.gnorm),
            std::make_tuple(r.q(r.x.data()), prev.fval, prev.gnorm));
  EXPECT_EQ(r.counted.Gradients() == 1, n == 1);  // the start alone evaluated
}
INSTANTIATE_TEST_SUITE_P(Optimizers, SharedExits,
                         ::testing::Combine(::testing::ValuesIn(kAll), ::testing::ValuesIn(kExits)),
                         CaseName<SharedExits::ParamType>);

TEST_P(AllFour, BadInput) {
  auto opt = GetParam().make(nullptr);
  DiagonalQuadratic q = Bowl(), empty({}, {});
  LxCountingFunc counted(q);
  lxtest::MessageCapture msg;
  LxTraceCheckpoint rec;
  EXPECT_EQ((*opt)(counted, &rec, kOrigin.data(), nullptr), 0.0);
  EXPECT_EQ(msg.Texts(), std::vector<std::string>{"memory not provided for optimized variables"});
  EXPECT_EQ(counted.Gradients() + rec.Entries().size(), 0u);
  (*opt)(empty, &rec, kOrigin.data(), Points(1).data());  // no variables: converged at once
  EXPECT_EQ(Trace(rec), "0 NoOpt");
}

// SetLineMinimize stores a clone; copies and assignment clone it again and
// take the limit and tolerance. The first search starts with a unit
// displacement, 1/|g|.
TEST_P(AllFour, CopiesCloneTheLineMinimizer) {
  auto opt = GetParam().make(nullptr), assigned = GetParam().make(nullptr);
  BowlRun before(*opt, {});
  *assigned = *opt;
  auto copied = GetParam().make(opt.get());
  opt->SetLineMinimize(LxCGLineMinimize());
  const size_t searches = before.log.steps.size();
  ASSERT_GT(searches, 0u);
  EXPECT_DOUBLE_EQ(before.log.steps[0], 1.0 / Norm(GradientAt(kOrigin)));
  for (LxConjGradBase* o : {opt.get(), assigned.get(), copied.get()})
    (*o)(before.q, kOrigin.data(), before.x.data());
  EXPECT_EQ(before.log.steps.size(), 3 * searches);  // none through the original
  opt->SetIterLimit(9);  // the settings travel with copies and assignment
  opt->SetTolerance(0.5);
  *assigned = *opt;
  EXPECT_EQ(std::make_pair(assigned->GetIterLimit(), assigned->GetTolerance()),
            std::make_pair(9u, 0.5));
  EXPECT_EQ(GetParam().make(opt.get())->GetTolerance(), 0.5);
}

// Failed searches (by call number). ConjGrad retries once from the last success
// along -g with 1/|g| (one re-evaluation there), ends "NotFound" with that |g|
// after two failures in a row; a success clears the recovery. The family ends
// silently when a steepest-descent search fails; a failed conjugate search
// still moves by the old step, reports the old value and |g|, and restarts
// along minus that stale gradient with the same step, unscaled.
struct FailCase {
  const char* name;
  std::set<int> failOn;
  std::string conjGrad;
  std::uint64_t gradients;  // ConjGrad's
  std::string family;
};
const FailCase kFails[] = {{"First2", {1, 2}, "2 NotFound", 1 + 1, ""},
                           {"Second3", {2, 3}, "1 Cont, 3 NotFound", 1 + 2 + 1, "1 Cont, 2 Cont"},
                           {"Second4",
                            {2, 4},
                            "1 Cont, 3 Cont, 5 Cont, 6 Cont, 7 Cont, 7 Grad",
                            1 + 5 * 2 + 2,
                            "1 Cont, 2 Cont"}};
class FailedSearches : public ::testing::TestWithParam<std::tuple<Named, FailCase>> {};

TEST_P(FailedSearches, RetryOrEnd) {
  const auto& [o, c] = GetParam();
  auto opt = o.make(nullptr);
  BowlRun r(*opt, c.failOn);
  const std::vector<LxTraceEntry>& calls = r.calls;
  const std::vector<Points>& dirs = r.log.dirs;
  const Points& steps = r.log.steps;
  if (o.family) {
    ASSERT_EQ(Trace(r.rec), c.family);
    if (calls.size() < 2) return;
    const Points g = GradientAt(calls[0].x);
    for (int i = 0; i < 3; ++i) {
      EXPECT_DOUBLE_EQ(calls[1].x[i], calls[0].x[i] + steps[1] * dirs[1][i]);
      EXPECT_DOUBLE_EQ(dirs[2][i], -g[i]);
    }
    EXPECT_EQ(std::make_tuple(steps[2], calls[1].fval, calls[1].gnorm),
              std::make_tuple(steps[1], calls[0].fval, calls[0].gnorm));
    return;
  }
  ASSERT_EQ(Trace(r.rec), c.conjGrad);
  EXPECT_EQ(r.counted.Gradients(), c.gradients);
  const size_t retry = *c.failOn.begin();  // index of the search after the failure
  const Points at = retry > 1 ? calls[0].x : kOrigin, g = GradientAt(at);
  EXPECT_EQ(dirs[retry], (Points{-g[0], -g[1], -g[2]}));
  EXPECT_DOUBLE_EQ(steps[retry], 1.0 / Norm(g));
  EXPECT_TRUE(retry == 1 || steps[1] == 1.0);  // 1.0 after the first (restart) step
  if (calls.back().state != kLxNotFound) return;
  EXPECT_EQ(r.x, at);
  EXPECT_DOUBLE_EQ(calls.back().gnorm, Norm(g));
}
INSTANTIATE_TEST_SUITE_P(Optimizers, FailedSearches,
                         ::testing::Combine(::testing::ValuesIn(kAll), ::testing::ValuesIn(kFails)),
                         CaseName<FailedSearches::ParamType>);

// About n iterations on a 10-variable quadratic (ConjGrad up to 2n: its
// trial-step ratio keeps the reference slope of before a restart, so the
// first trial after one can be far off), and the curved valley. ConjGrad
// ends "Grad" repeating the last report; the family ends quietly after a Cont.
TEST_P(AllFour, Converges) {
  DiagonalQuadratic quad = DiagonalQuadratic::IllConditioned(10, 100.0);
  lxtest::Rosenbrock valley;
  const bool family = GetParam().family;
  using Problem = std::tuple<lxtest::Objective*, Points, Points, size_t>;  // ..., max reports
  for (const auto& [f, start, minimizer, maxReports] :
       {Problem{&quad, Points(10, -1.0), Points(10, 1.0), family ? 16u : 19u},
        Problem{&valley, {-1.2, 1.0}, {1.0, 1.0}, family ? 1000u : 200u}}) {
    auto opt = GetParam().make(nullptr);
    opt->SetTolerance(1e-16);
    LxTraceCheckpoint rec(nullptr, true);
    Points x(start.size());
    (*opt)(*f, &rec, start.data(), x.data());
    for (size_t i = 0; i < x.size(); ++i) EXPECT_NEAR(x[i], minimizer[i], 1e-6);
    ASSERT_LE(rec.Entries().size(), maxReports);
    const LxTraceEntry &last = rec.Entries().back(), &prev = rec.Entries().end()[-2];
    EXPECT_TRUE(last.x == x && last.state == (family ? kLxCont : kLxGrad));
    EXPECT_TRUE(family || (last.fval == prev.fval && last.gnorm == prev.gnorm));
  }
}

INSTANTIATE_TEST_SUITE_P(Optimizers, AllFour, ::testing::ValuesIn(kAll),
                         ::testing::PrintToStringParamName());

// The reference slope of the trial-step ratio is -g.g at the start and is
// replaced only by the slope of each direction formed between restarts; a
// restart (step 1.0) and a recovery (step sqrt(1 / g.g) along -g) leave it
// as it stands. So search c starts with the step search c - 1 left times
// slope(r) / slope(c), slope(i) = g.d of search i. The first search starts
// with 1 / sqrt(g.g) (g.g = 2356: the two forms differ in the last bit).
TEST(ConjGrad, TrialStepRatioKeepsItsReferenceAcrossRestartsAndRecoveries) {
  struct Case {
    std::set<int> failOn;
    size_t search, reference;
  };
  const Case cases[] = {
      {{}, 3, 1},   // search 1 is the start, 2 follows the first restart
      {{}, 4, 3},   // 3 was formed between restarts
      {{2}, 4, 1},  // 3 is the recovery from the failed 2
  };
  auto dot = [](const Points& a, const Points& b) {
    double s = 0.0;
    for (size_t i = 0; i < a.size(); ++i) s += a[i] * b[i];
    return s;
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.search);
    DiagonalQuadratic q({1.0, 2.0, 5.0, 11.0}, {1.0, 1.0, 2.0, 2.0});
    ScriptedSearch lm(c.failOn);
    const ScriptedSearch::Log& log = lm.log();
    LxConjGradOpt opt;
    opt.SetLineMinimize(lm);
    opt.SetTolerance(1e-20);
    opt.SetIterLimit(6);
    Points x(4);
    opt(q, Points(4, 0.0).data(), x.data());
    ASSERT_GE(log.steps.size(), c.search);
    const double gg = dot(log.grads[0], log.grads[0]);
    ASSERT_EQ(gg, 2356.0);
    EXPECT_EQ(log.steps[0], 1.0 / std::sqrt(gg));
    const double gg2 = log.steps.size() > 2 ? dot(log.grads[2], log.grads[2]) : 1.0;
    EXPECT_TRUE(!c.failOn.count(2) || log.steps[2] == std::sqrt(1.0 / gg2));
    const auto slope = [&](size_t i) { return dot(log.grads[i - 1], log.dirs[i - 1]); };
    EXPECT_DOUBLE_EQ(log.steps[c.search - 1],
                     log.left[c.search - 2] * slope(c.reference) / slope(c.search));
  }
}

// Restarts: before the n-th search since the last one exactly when the new
// gradient is far from orthogonal to the old one (Powell's test,
// |g'.g| > 0.2 g'.g'), and at the latest with the n-th (Beale). A restart
// shows as the entry step 1.0 (ConjGrad, which also restarts after its first
// search) or the direction -g (family). On a 12-variable problem and on the
// curved valley (n = 2).
TEST_P(AllFour, Restarts) {
  LxTestF testF(12);
  lxtest::Rosenbrock valley;
  Points x(12);
  for (size_t i = 0; i < x.size(); ++i) x[i] = 0.3 + 0.1 * static_cast<double>(i % 5);
  for (auto [f, limit] : {std::pair<LxFunc1*, unsigned int>{&testF, 60}, {&valley, 40}}) {
    ScriptedSearch lm;
    const ScriptedSearch::Log& log = lm.log();
    auto opt = GetParam().make(nullptr);
    opt->SetLineMinimize(lm);
    opt->SetIterLimit(limit);
    opt->SetTolerance(1e-20);
    const unsigned int n = f->NumVar();
    Points start = n == 2 ? Points{-1.2, 1.0} : x;
    (*opt)(*f, start.data(), start.data());
    const auto restarted = [&](size_t i) {
      bool steepest = true;
      for (size_t j = 0; j < n; ++j) steepest = steepest && log.dirs[i][j] == -log.grads[i][j];
      return GetParam().family ? steepest : log.steps[i] == 1.0;
    };
    ASSERT_GE(log.grads.size(), 6u);
    EXPECT_TRUE(GetParam().family || restarted(1));
    int byPowell = 0, kept = 0;
    for (size_t i = 2, since = 1; i < log.grads.size(); ++i) {
      const Points &g = log.grads[i], &gPrev = log.grads[i - 1];
      double gg = 0.0, gPrevG = 0.0;
      for (size_t j = 0; j < n; ++j) gg += g[j] * g[j], gPrevG += g[j] * gPrev[j];
      const bool powell = std::fabs(gPrevG) / gg > 0.2;
      EXPECT_EQ(restarted(i), powell || since >= n) << "search " << i;
      if (since < n) (powell ? byPowell : kept) += 1;
      since = restarted(i) ? 1 : since + 1;
    }
    EXPECT_TRUE(n == 2 || (byPowell > 0 && kept > 0)) << byPowell << " " << kept;
  }
}

// Polak-Ribiere's beta, negative where g_new has turned back towards g, is
// used as it stands (in the loop Powell's test restarts first in such cases).
TEST(FamilyCoefficients, PolakRibiereNotClampedAtZero) {
  using Beta = LxBetaConjGradOpt::Beta;
  const detail::BetaInputs p{4.0, 1.0, -0.5, 3.5};  // gg, ggNew, gNew.y, d.y
  EXPECT_DOUBLE_EQ(detail::ConjugacyCoefficient(Beta::kFletcherReeves, p), 0.25);
  EXPECT_DOUBLE_EQ(detail::ConjugacyCoefficient(Beta::kPolakRibiere, p), -0.125);
  EXPECT_DOUBLE_EQ(detail::ConjugacyCoefficient(Beta::kHestenesStiefel, p), -0.5 / 3.5);
}

// Succeeds once with a set new gradient (and a lower value), then fails;
// logs the directions it is given.
class GivenNewGradient : public LxLineMinimize {
 public:
  GivenNewGradient(Points gNew, std::shared_ptr<std::vector<Points>> dirs)
      : gNew_(std::move(gNew)), dirs_(std::move(dirs)) {}
  bool operator()(unsigned int n, const double*, double* dir, double*, double* gradOut,
                  double* fval, double*, LxFunc1&) const override {
    dirs_->emplace_back(dir, dir + n);
    if (dirs_->size() > 1) return false;
    std::copy(gNew_.begin(), gNew_.end(), gradOut);
    *fval -= 1.0;
    return true;
  }
  LxLineMinimize* CreateCopy() const override { return new GivenNewGradient(*this); }

 private:
  Points gNew_;
  std::shared_ptr<std::vector<Points>> dirs_;
};

// The coefficients are formed from y = gNew - g as written: gNew.y / g.g
// (Polak-Ribiere) and gNew.y / d.y (Hestenes-Stiefel), not from differences
// of separate dot products, which round otherwise (with these gradients the
// second direction differs in its last bits); Fletcher-Reeves gNew.gNew / g.g.
TEST(FamilyCoefficients, FormedFromTheChangeOfGradient) {
  using Beta = LxBetaConjGradOpt::Beta;
  DiagonalQuadratic q({1.0, 1.0, 1.0}, {1.0, 0.3, -0.7});  // g = (-2, -0.6, 1.4) at 0
  const Points gNew{-0.567, -0.156, -0.942};               // |gNew.g| / gNew.gNew < 0.2: no restart
  for (const Beta kind : {Beta::kFletcherReeves, Beta::kPolakRibiere, Beta::kHestenesStiefel}) {
    SCOPED_TRACE(static_cast<int>(kind));
    auto dirs = std::make_shared<std::vector<Points>>();
    Ptr opt(kind == Beta::kFletcherReeves ? static_cast<LxConjGradBase*>(new LxFletcherReevesOpt)
            : kind == Beta::kPolakRibiere ? static_cast<LxConjGradBase*>(new LxRibierePolakOpt)
                                          : new LxHestenesStiefelOpt);
    opt->SetLineMinimize(GivenNewGradient(gNew, dirs));
    opt->SetTolerance(1e-30);
    opt->SetIterLimit(3);
    Points x(3);
    (*opt)(q, kOrigin.data(), x.data());
    ASSERT_EQ(dirs->size(), 2u);
    const Points& d = (*dirs)[0];
    double gg = 0.0, ggNew = 0.0, gNewY = 0.0, dY = 0.0;
    for (int i = 0; i < 3; ++i) {
      const double g = -d[i], y = gNew[i] - g;
      gg += g * g;
      ggNew += gNew[i] * gNew[i];
      gNewY += gNew[i] * y;
      dY += d[i] * y;
    }
    const double beta = kind == Beta::kFletcherReeves ? ggNew / gg
                        : kind == Beta::kPolakRibiere ? gNewY / gg
                                                      : gNewY / dY;
    Points expected(3);
    for (int i = 0; i < 3; ++i) expected[i] = -gNew[i] + beta * d[i];
    EXPECT_EQ((*dirs)[1], expected);
  }
}

}  // namespace
