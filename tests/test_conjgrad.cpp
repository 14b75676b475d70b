// The conjugate-gradient optimizers: exits, failed searches, copies, convergence.
#include <gtest/gtest.h>
#include <lxopt/lxopt.h>

#include <cmath>
#include <functional>
#include <memory>
#include <numeric>
#include <tuple>

#include "../src/conjgrad/beta.h"
#include "support/linesearch.h"
#include "support/problems.h"

namespace {

using namespace LxOpt;
using lxtest::DiagonalQuadratic;
using lxtest::Dot;
using lxtest::Norm;
using lxtest::ScriptedSearch;
using lxtest::StopAfter;
using Points = std::vector<double>;

// make(nullptr): a fresh optimizer, make(&o): a copy of o; family: beta-based.
using Ptr = std::unique_ptr<LxConjGradBase>;
using Beta = LxBetaConjGradOpt::Beta;
struct Named {
  const char* name;
  std::function<Ptr(const LxConjGradBase*)> make;
  bool family;
  Beta beta;
};
template <class T>
Named Make(const char* name, bool family, Beta beta = Beta::kFletcherReeves) {
  return {
      name,
      [](const LxConjGradBase* o) { return Ptr(o ? new T(static_cast<const T&>(*o)) : new T()); },
      family, beta};
}
const Named kAll[] = {Make<LxConjGradOpt>("ConjGrad", false),
                      Make<LxFletcherReevesOpt>("FletcherReeves", true, Beta::kFletcherReeves),
                      Make<LxRibierePolakOpt>("RibierePolak", true, Beta::kPolakRibiere),
                      Make<LxHestenesStiefelOpt>("HestenesStiefel", true, Beta::kHestenesStiefel)};

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

// One run on Bowl() through a search failing on the calls in failOn.
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

class AllFour : public ::testing::TestWithParam<Named> {};
template <class Param>
std::string CaseName(const ::testing::TestParamInfo<Param>& info) {
  return std::string(std::get<0>(info.param).name) + "_" + std::get<0>(std::get<1>(info.param));
}

// name, iteration limit, tolerance (|g|^2 = 1364 at the start), reports before a stop, trace
using ExitCase = std::tuple<const char*, unsigned int, double, unsigned long, std::string>;
const ExitCase kExits[] = {{"NoOpt", 1000, 1365.0, ~0ul, "0 NoOpt"},
                           {"Limit0", 0, 0.1, ~0ul, "1 Exhaust"},
                           {"Limit1", 1, 0.1, ~0ul, "1 Exhaust"},
                           {"Limit2", 2, 0.1, ~0ul, "1 Cont, 2 Exhaust"},
                           {"StopAsked", 1000, 0.1, 1, "1 Cont, 2 Cont, 2 Done"}};
class SharedExits : public ::testing::TestWithParam<std::tuple<Named, ExitCase>> {};

// Shared exits; after a search the exit repeats the figures of the last report.
TEST_P(SharedExits, ReportSequence) {
  const auto& [o, c] = GetParam();
  const auto& [name, limit, tolerance, continueFor, trace] = c;
  auto opt = o.make(nullptr);
  opt->SetIterLimit(limit);
  opt->SetTolerance(tolerance);
  BowlRun r(*opt, {}, continueFor);
  ASSERT_EQ(Trace(r.rec), trace);
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
  lxtest::MessageCapture msg;
  LxTraceCheckpoint rec;
  EXPECT_EQ((*opt)(q, &rec, kOrigin.data(), nullptr), 0.0);  // the rest: test_framework
  EXPECT_EQ(msg.Texts(), std::vector<std::string>{"memory not provided for optimized variables"});
  (*opt)(empty, &rec, kOrigin.data(), Points(1).data());  // no variables: converged at once
  EXPECT_EQ(Trace(rec), "0 NoOpt");
}

// Copies and assignment clone the search and take the limit and tolerance.
TEST_P(AllFour, CopiesCloneTheLineMinimizer) {
  auto opt = GetParam().make(nullptr), assigned = GetParam().make(nullptr);
  BowlRun before(*opt, {});
  *assigned = *opt;
  auto copied = GetParam().make(opt.get());
  opt->SetLineMinimize(LxCGLineMinimize());
  const size_t searches = before.log.steps.size();
  ASSERT_GT(searches, 0u);
  EXPECT_DOUBLE_EQ(before.log.steps[0], 1.0 / Norm(GradientAt(kOrigin)));  // unit move
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

// Failed searches (by call). ConjGrad retries once along -g with 1/|g|. The
// family ends silently on a failed first search; after a failed conjugate one
// it moves by the old step, reports old figures and restarts along the old -g.
// name, failing calls, ConjGrad's trace and gradient evaluations, the family's trace
using FailCase = std::tuple<const char*, std::set<int>, std::string, std::uint64_t, std::string>;
const std::string kRecovered = "1 Cont, 3 Cont, 5 Cont, 6 Cont, 7 Cont, 7 Grad";
const FailCase kFails[] = {{"First2", {1, 2}, "2 NotFound", 1 + 1, ""},
                           {"Second3", {2, 3}, "1 Cont, 3 NotFound", 1 + 2 + 1, "1 Cont, 2 Cont"},
                           {"Second4", {2, 4}, kRecovered, 1 + 5 * 2 + 2, "1 Cont, 2 Cont"}};
class FailedSearches : public ::testing::TestWithParam<std::tuple<Named, FailCase>> {};

TEST_P(FailedSearches, RetryOrEnd) {
  const auto& [o, c] = GetParam();
  const auto& [name, failOn, conjGradTrace, gradients, familyTrace] = c;
  auto opt = o.make(nullptr);
  BowlRun r(*opt, failOn);
  const auto& [calls, dirs, steps] = std::tie(r.calls, r.log.dirs, r.log.steps);
  if (o.family) {
    ASSERT_EQ(Trace(r.rec), familyTrace);
    if (calls.size() < 2) return;
    const Points g = GradientAt(calls[0].x);
    for (int i = 0; i < 3; ++i)
      EXPECT_DOUBLE_EQ(calls[1].x[i], calls[0].x[i] + steps[1] * dirs[1][i]);
    EXPECT_EQ(dirs[2], (Points{-g[0], -g[1], -g[2]}));
    EXPECT_EQ(std::make_tuple(steps[2], calls[1].fval, calls[1].gnorm),
              std::make_tuple(steps[1], calls[0].fval, calls[0].gnorm));
    return;
  }
  ASSERT_EQ(Trace(r.rec), conjGradTrace);
  EXPECT_EQ(r.counted.Gradients(), gradients);
  const size_t retry = *failOn.begin();  // index of the search after the failure
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

// About n iterations on a quadratic (ConjGrad up to 2n), and the valley.
// ConjGrad ends "Grad" repeating the last report; the family after a Cont.
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
                         [](const auto& info) { return std::string(info.param.name); });

// ConjGrad's trial steps: first 1 / sqrt(g.g) (not sqrt(1 / g.g): they differ
// in the last bit at g.g = 2356), the retry sqrt(1 / g.g); then slope(1) / slope(4).
TEST(ConjGrad, TrialStepsAroundARecovery) {
  DiagonalQuadratic q({1.0, 2.0, 5.0, 11.0}, {1.0, 1.0, 2.0, 2.0});
  ScriptedSearch lm({2});
  const ScriptedSearch::Log& log = lm.log();
  LxConjGradOpt opt;
  opt.SetLineMinimize(lm);
  Points x(4);
  opt(q, x.data(), x.data());
  ASSERT_GE(log.steps.size(), 4u);
  const double gg = Dot(log.grads[0], log.grads[0]);
  ASSERT_EQ(gg, 2356.0);
  EXPECT_EQ(log.steps[0], 1.0 / std::sqrt(gg));
  EXPECT_EQ(log.steps[2], std::sqrt(1.0 / Dot(log.grads[2], log.grads[2])));
  const auto slope = [&](size_t i) { return Dot(log.grads[i], log.dirs[i]); };
  EXPECT_DOUBLE_EQ(log.steps[3], log.left[2] * slope(0) / slope(3));
}

// Search by search: a restart (step 1.0 for ConjGrad, -g for the family) comes
// exactly on Powell's test |g'.g| > 0.2 g'.g' or at the n-th search. Trial
// steps scale the step left by slope(r) / slope(c), slope = g.d; the family
// keeps it at a restart and forms beta from y = g' - g as written.
TEST_P(AllFour, SearchBySearch) {
  LxTestF testF(12);
  lxtest::Rosenbrock valley;
  Points x(12);
  for (size_t i = 0; i < x.size(); ++i) x[i] = 0.3 + 0.1 * static_cast<double>(i % 5);
  const bool family = GetParam().family;
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
      Points minusG = log.grads[i];
      for (double& v : minusG) v = -v;
      return family ? log.dirs[i] == minusG : log.steps[i] == 1.0;
    };
    const auto slope = [&](size_t i) { return Dot(log.grads[i], log.dirs[i]); };
    ASSERT_GE(log.grads.size(), 6u);
    EXPECT_TRUE(family || restarted(1));
    int byPowell = 0, kept = 0;
    for (size_t i = 1, since = 0, reference = 0; i < log.grads.size(); ++i) {
      SCOPED_TRACE(i);
      const Points &g = log.grads[i], &gPrev = log.grads[i - 1], &d = log.dirs[i - 1];
      const bool powell = std::fabs(Dot(g, gPrev)) / Dot(g, g) > 0.2;
      EXPECT_TRUE(i == 1 || restarted(i) == (powell || since >= n));
      if (i > 1 && since < n) (powell ? byPowell : kept) += 1;
      if (restarted(i)) {
        EXPECT_TRUE(!family || log.steps[i] == log.left[i - 1]);
        since = 1;
        continue;
      }
      EXPECT_DOUBLE_EQ(log.steps[i],
                       log.left[i - 1] * slope(family ? i - 1 : reference) / slope(i));
      reference = i;
      ++since;
      if (!family) continue;
      detail::BetaInputs p{0.0, 0.0, 0.0, 0.0};
      for (size_t j = 0; j < n; ++j) {
        const double y = g[j] - gPrev[j];
        p = {p.gg + gPrev[j] * gPrev[j], p.ggNew + g[j] * g[j], p.gNewY + g[j] * y,
             p.dY + d[j] * y};
      }
      const double beta = detail::ConjugacyCoefficient(GetParam().beta, p);
      Points expected(n);
      for (size_t j = 0; j < n; ++j) expected[j] = -g[j] + beta * d[j];
      EXPECT_EQ(log.dirs[i], expected);
    }
    EXPECT_TRUE(n == 2 || (byPowell > 0 && kept > 0)) << byPowell << " " << kept;
  }
}

// A negative Polak-Ribiere beta stands (in runs Powell's test restarts first).
TEST(FamilyCoefficients, PolakRibiereNotClampedAtZero) {
  const detail::BetaInputs p{4.0, 1.0, -0.5, 3.5};  // gg, ggNew, gNew.y, d.y
  EXPECT_DOUBLE_EQ(detail::ConjugacyCoefficient(Beta::kFletcherReeves, p), 0.25);
  EXPECT_DOUBLE_EQ(detail::ConjugacyCoefficient(Beta::kPolakRibiere, p), -0.125);
  EXPECT_DOUBLE_EQ(detail::ConjugacyCoefficient(Beta::kHestenesStiefel, p), -0.5 / 3.5);
}

}  // namespace
