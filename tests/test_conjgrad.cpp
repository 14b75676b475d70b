// The conjugate-gradient optimizers: exits, recorded checkpoint sequences,
// first trial steps, failed searches and convergence.
#include <gtest/gtest.h>
#include <lxopt/lxopt.h>

#include <cmath>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "../src/conjgrad/beta.h"
#include "support/linesearch.h"
#include "support/problems.h"

namespace {

using LxOpt::LxBetaConjGradOpt;
using LxOpt::LxConjGradBase;
using LxOpt::LxConjGradOpt;
using LxOpt::LxFletcherReevesOpt;
using LxOpt::LxHestenesStiefelOpt;
using LxOpt::LxRibierePolakOpt;
using lxtest::Counting;
using lxtest::DiagonalQuadratic;
using lxtest::FailOnDemand;
using lxtest::Recorder;

using Factory = std::function<std::unique_ptr<LxConjGradBase>()>;
struct Named {
  const char* name;
  Factory make;
};
void PrintTo(const Named& o, std::ostream* os) { *os << o.name; }

const Named kShanno{"ConjGrad", [] { return std::make_unique<LxConjGradOpt>(); }};
const Named kFamily[] = {
    {"FletcherReeves", [] { return std::make_unique<LxFletcherReevesOpt>(); }},
    {"RibierePolak", [] { return std::make_unique<LxRibierePolakOpt>(); }},
    {"HestenesStiefel", [] { return std::make_unique<LxHestenesStiefelOpt>(); }},
};

// 1 (x - 1)^2 + 4 (y + 1)^2 + 9 (z - 2)^2, started at the origin.
DiagonalQuadratic Bowl() { return DiagonalQuadratic({1.0, 4.0, 9.0}, {1.0, -1.0, 2.0}); }
const std::vector<double> kOrigin(3, 0.0);

double Distance(const std::vector<double>& a, const std::vector<double>& b) {
  double s = 0.0;
  for (size_t i = 0; i < a.size(); ++i) s += (a[i] - b[i]) * (a[i] - b[i]);
  return std::sqrt(s);
}

// --- exits shared by all four ------------------------------------------------

class AllFour : public ::testing::TestWithParam<Named> {};

TEST_P(AllFour, NullOutputWarnsAndReturnsZeroWithoutEvaluating) {
  DiagonalQuadratic q = Bowl();
  Counting counted(q);
  lxtest::MessageCapture messages;
  Recorder rec;
  EXPECT_EQ((*GetParam().make())(counted, &rec, kOrigin.data(), nullptr), 0.0);
  EXPECT_EQ(messages.Texts(),
            std::vector<std::string>{"memory not provided for optimized variables"});
  EXPECT_EQ(counted.gradients, 0);
  EXPECT_TRUE(rec.calls.empty());
}

TEST_P(AllFour, ConvergedStartReportsNoOptOnceWithTheGradient) {
  DiagonalQuadratic q = Bowl();
  Counting counted(q);
  Recorder rec;
  std::vector<double> x(3);
  const std::vector<double> start = q.minimizer();
  EXPECT_EQ((*GetParam().make())(counted, &rec, start.data(), x.data()), 0.0);
  EXPECT_EQ(counted.gradients, 1);
  ASSERT_EQ(rec.calls.size(), 1u);
  EXPECT_EQ(rec.Iters(), std::vector<unsigned int>{0});
  EXPECT_EQ(rec.States(), std::vector<unsigned int>{LxOpt::kLxNoOpt});
  EXPECT_FALSE(rec.calls[0].gradNull);
  EXPECT_EQ(x, start);
}

TEST_P(AllFour, NoVariablesIsConvergedAtOnce) {
  DiagonalQuadratic empty({}, {});
  Recorder rec;
  double unused = 0.0;
  (*GetParam().make())(empty, &rec, &unused, &unused);
  EXPECT_EQ(rec.States(), std::vector<unsigned int>{LxOpt::kLxNoOpt});
}

TEST_P(AllFour, IterationLimitsZeroAndOneEndBeforeSearching) {
  for (unsigned int limit : {0u, 1u}) {
    DiagonalQuadratic q = Bowl();
    Counting counted(q);
    Recorder rec;
    std::vector<double> x(3);
    auto opt = GetParam().make();
    opt->SetIterLimit(limit);
    const double f = (*opt)(counted, &rec, kOrigin.data(), x.data());
    EXPECT_EQ(f, q(kOrigin.data()));
    EXPECT_EQ(counted.gradients, 1);
    EXPECT_EQ(rec.Iters(), std::vector<unsigned int>{1});
    EXPECT_EQ(rec.States(), std::vector<unsigned int>{LxOpt::kLxExhaust});
    EXPECT_EQ(x, kOrigin);
  }
}

TEST_P(AllFour, LimitTwoSearchesOnceThenExhausts) {
  DiagonalQuadratic q = Bowl();
  Recorder rec;
  std::vector<double> x(3);
  auto opt = GetParam().make();
  opt->SetIterLimit(2);
  const double f = (*opt)(q, &rec, kOrigin.data(), x.data());
  EXPECT_EQ(rec.Iters(), (std::vector<unsigned int>{1, 2}));
  EXPECT_EQ(rec.States(), (std::vector<unsigned int>{LxOpt::kLxCont, LxOpt::kLxExhaust}));
  EXPECT_EQ(rec.calls[1].fval, f);
  EXPECT_EQ(rec.calls[1].gnorm, rec.calls[0].gnorm);
  EXPECT_EQ(rec.calls[1].vars, x);
  EXPECT_EQ(f, q(x.data()));
}

TEST_P(AllFour, CheckpointThatSaysStopGetsDoneWithTheSameFigures) {
  DiagonalQuadratic q = Bowl();
  Recorder rec;
  rec.continueFor = 1;
  std::vector<double> x(3);
  const double f = (*GetParam().make())(q, &rec, kOrigin.data(), x.data());
  ASSERT_EQ(rec.calls.size(), 3u);
  EXPECT_EQ(rec.Iters(), (std::vector<unsigned int>{1, 2, 2}));
  EXPECT_EQ(rec.States(),
            (std::vector<unsigned int>{LxOpt::kLxCont, LxOpt::kLxCont, LxOpt::kLxDone}));
  EXPECT_EQ(rec.calls[2].fval, rec.calls[1].fval);
  EXPECT_EQ(rec.calls[2].gnorm, rec.calls[1].gnorm);
  EXPECT_EQ(rec.calls[2].vars, x);
  EXPECT_EQ(f, rec.calls[2].fval);
}

TEST_P(AllFour, FirstSearchStartsWithAUnitDisplacement) {
  DiagonalQuadratic q = Bowl();
  FailOnDemand lm;
  auto opt = GetParam().make();
  EXPECT_TRUE(opt->SetLineMinimize(lm));
  std::vector<double> x(3), g(3);
  q(kOrigin.data(), g.data());
  (*opt)(q, kOrigin.data(), x.data());
  ASSERT_FALSE(lm.steps().empty());
  EXPECT_DOUBLE_EQ(lm.steps()[0], 1.0 / std::sqrt(g[0] * g[0] + g[1] * g[1] + g[2] * g[2]));
}

// Copies own a clone of the line minimizer: a copy made before the original's
// line minimizer is replaced keeps the old one, and assignment brings the new.
TEST_P(AllFour, CopiesCloneTheLineMinimizer) {
  DiagonalQuadratic q = Bowl();
  FailOnDemand failing({1});
  auto opt = GetParam().make();
  opt->SetLineMinimize(failing);
  auto copy = GetParam().make();
  *copy = *opt;
  opt->SetLineMinimize(LxOpt::LxCGLineMinimize());
  std::vector<double> x(3);
  (*copy)(q, kOrigin.data(), x.data());
  const size_t searches = failing.steps().size();
  EXPECT_GE(searches, 1u);
  (*opt)(q, kOrigin.data(), x.data());
  EXPECT_EQ(failing.steps().size(), searches);
  LxConjGradOpt shanno;
  shanno.SetLineMinimize(failing);
  const LxConjGradOpt copied(shanno);
  shanno.SetLineMinimize(LxOpt::LxCGLineMinimize());
  LxConjGradOpt runner(copied);
  runner(q, kOrigin.data(), x.data());
  EXPECT_GT(failing.steps().size(), searches);
}

INSTANTIATE_TEST_SUITE_P(Optimizers, AllFour,
                         ::testing::Values(kShanno, kFamily[0], kFamily[1], kFamily[2]),
                         [](const ::testing::TestParamInfo<Named>& i) {
                           return std::string(i.param.name);
                         });

// --- LxConjGradOpt ---------------------------------------------------------

TEST(ConjGrad, DefaultsAndCopiedSettings) {
  LxConjGradOpt opt;
  EXPECT_EQ(opt.GetIterLimit(), 1000u);
  EXPECT_EQ(opt.GetTolerance(), 0.1);
  opt.SetIterLimit(7);
  opt.SetTolerance(1e-3);
  const LxConjGradOpt copy(opt);
  EXPECT_EQ(copy.GetIterLimit(), 7u);
  EXPECT_EQ(copy.GetTolerance(), 1e-3);
}

// The whole checkpoint sequence on a 2-variable quadratic: two exact searches
// reach the minimum; the second report is followed by "Grad" with the same
// figures and the gradient.
TEST(ConjGrad, RecordedSequenceOnTwoVariableQuadratic) {
  DiagonalQuadratic q({1.0, 4.0}, {1.0, 1.0});
  Recorder rec;
  LxConjGradOpt opt;
  opt.SetTolerance(1e-16);
  std::vector<double> x(2);
  const std::vector<double> start{0.0, 0.0};
  const double f = opt(q, &rec, start.data(), x.data());
  EXPECT_EQ(rec.Iters(), (std::vector<unsigned int>{1, 2, 2}));
  EXPECT_EQ(rec.States(),
            (std::vector<unsigned int>{LxOpt::kLxCont, LxOpt::kLxCont, LxOpt::kLxGrad}));
  for (const lxtest::Call& c : rec.calls) EXPECT_FALSE(c.gradNull);
  EXPECT_LT(rec.calls[0].fval, q(start.data()));
  EXPECT_EQ(rec.calls[2].fval, rec.calls[1].fval);
  EXPECT_EQ(rec.calls[2].gnorm, rec.calls[1].gnorm);
  EXPECT_LT(rec.calls[2].gnorm, 1e-8);
  EXPECT_EQ(f, rec.calls[2].fval);
  EXPECT_LT(Distance(x, q.minimizer()), 1e-9);
}

// First trial steps: 1/|g| at the start, 1.0 after the first (restart) step.
// A failed search costs one re-evaluation and retries along -g with 1/|g|;
// success clears the recovery, so a later single failure is survived too.
TEST(ConjGrad, RecoveryAfterOneFailedSearch) {
  DiagonalQuadratic q = Bowl();
  Counting counted(q);
  FailOnDemand lm({2, 4});
  LxConjGradOpt opt;
  opt.SetLineMinimize(lm);
  opt.SetTolerance(1e-14);
  Recorder rec;
  std::vector<double> x(3);
  opt(counted, &rec, kOrigin.data(), x.data());

  ASSERT_GE(lm.steps().size(), 5u);
  EXPECT_EQ(lm.steps()[1], 1.0);
  std::vector<double> g(3);
  q(rec.calls[0].vars.data(), g.data());
  EXPECT_DOUBLE_EQ(lm.steps()[2], 1.0 / std::sqrt(g[0] * g[0] + g[1] * g[1] + g[2] * g[2]));
  // Iteration 2 and 4 failed: no report for them, the counter still moved.
  ASSERT_GE(rec.calls.size(), 3u);
  EXPECT_EQ(rec.calls[0].iter, 1u);
  EXPECT_EQ(rec.calls[1].iter, 3u);
  EXPECT_EQ(rec.calls[2].iter, 5u);
  EXPECT_EQ(rec.calls.back().state, LxOpt::kLxGrad);
  EXPECT_LT(Distance(x, q.minimizer()), 1e-6);
}

TEST(ConjGrad, TwoFailedSearchesInARowEndWithNotFound) {
  DiagonalQuadratic q = Bowl();
  Counting counted(q);
  FailOnDemand lm({2, 3});
  LxConjGradOpt opt;
  opt.SetLineMinimize(lm);
  Recorder rec;
  std::vector<double> x(3);
  const double f = opt(counted, &rec, kOrigin.data(), x.data());
  EXPECT_EQ(rec.Iters(), (std::vector<unsigned int>{1, 3}));
  EXPECT_EQ(rec.States(), (std::vector<unsigned int>{LxOpt::kLxCont, LxOpt::kLxNotFound}));
  EXPECT_EQ(rec.calls[1].fval, rec.calls[0].fval);
  EXPECT_EQ(rec.calls[1].gnorm, rec.calls[0].gnorm);
  EXPECT_EQ(rec.calls[1].vars, rec.calls[0].vars);
  EXPECT_EQ(x, rec.calls[0].vars);
  EXPECT_EQ(f, rec.calls[0].fval);
  // start, the first search's 2 trials, one re-evaluation after the failure
  EXPECT_EQ(counted.gradients, 1 + 2 + 1);
}

TEST(ConjGrad, FailedFirstSearchRetriesOnceThenGivesUp) {
  DiagonalQuadratic q = Bowl();
  FailOnDemand lm({1, 2});
  LxConjGradOpt opt;
  opt.SetLineMinimize(lm);
  Recorder rec;
  std::vector<double> x(3);
  opt(q, &rec, kOrigin.data(), x.data());
  EXPECT_EQ(rec.Iters(), std::vector<unsigned int>{2});
  EXPECT_EQ(rec.States(), std::vector<unsigned int>{LxOpt::kLxNotFound});
  EXPECT_EQ(lm.steps()[0], lm.steps()[1]);  // both 1/|g| at the start
  EXPECT_EQ(x, kOrigin);
}

// Beale restarts: with n variables at least every n-th search after the first
// starts with the restart step 1.0.
TEST(ConjGrad, RestartAtLeastEveryNIterations) {
  lxtest::Rosenbrock valley;
  FailOnDemand lm;
  LxConjGradOpt opt;
  opt.SetLineMinimize(lm);
  opt.SetTolerance(1e-20);
  opt.SetIterLimit(40);
  const std::vector<double> start{-1.2, 1.0};
  std::vector<double> x(2);
  opt(valley, start.data(), x.data());
  const std::vector<double>& s = lm.steps();
  ASSERT_GE(s.size(), 6u);
  EXPECT_EQ(s[1], 1.0);
  for (size_t i = 2; i < s.size(); ++i)
    EXPECT_TRUE(s[i] == 1.0 || s[i - 1] == 1.0) << "search " << i;
}

// Objective values that are not numbers end in a bounded number of calls.
TEST(ConjGrad, ValuesThatAreNotNumbersDoNotHang) {
  lxtest::NotANumber nan(2, -1.0);
  LxConjGradOpt opt;
  std::vector<double> x(2, 0.0);
  opt(nan, x.data(), x.data());
  EXPECT_LE(nan.evaluations, 1 + 1000 * 32);
}

// --- the classic family ------------------------------------------------------

class Family : public ::testing::TestWithParam<Named> {};

// On a quadratic the run ends silently once a steepest-descent step lands
// below the tolerance: the last report is a state-0 one, and no report passes
// a gradient.
TEST_P(Family, QuadraticEndsSilentlyAfterASteepestDescentStep) {
  DiagonalQuadratic q = DiagonalQuadratic::IllConditioned(6, 20.0);
  Recorder rec;
  auto opt = GetParam().make();
  opt->SetTolerance(1e-14);
  std::vector<double> x(6);
  const std::vector<double> start(6, 0.0);
  const double f = (*opt)(q, &rec, start.data(), x.data());
  ASSERT_FALSE(rec.calls.empty());
  for (const lxtest::Call& c : rec.calls) {
    EXPECT_EQ(c.state, LxOpt::kLxCont);
    EXPECT_TRUE(c.gradNull);
  }
  EXPECT_LE(rec.calls.size(), 6u + 2u);
  EXPECT_EQ(rec.calls.back().fval, f);
  EXPECT_EQ(rec.calls.back().vars, x);
  EXPECT_LT(rec.calls.back().gnorm, 1e-7);
  EXPECT_LT(Distance(x, q.minimizer()), 1e-7);
}

// A failed first search (along -g) ends the run with no report at all.
TEST_P(Family, FailedSteepestDescentSearchEndsSilently) {
  DiagonalQuadratic q = Bowl();
  FailOnDemand lm({1});
  auto opt = GetParam().make();
  opt->SetLineMinimize(lm);
  Recorder rec;
  std::vector<double> x(3);
  EXPECT_EQ((*opt)(q, &rec, kOrigin.data(), x.data()), q(kOrigin.data()));
  EXPECT_TRUE(rec.calls.empty());
  EXPECT_EQ(lm.steps().size(), 1u);
  EXPECT_EQ(x, kOrigin);
}

// A failed search along a conjugate direction still moves the point by the
// step that stood before it, reports the old value and gradient norm, and
// restarts: the next search is along minus that (stale) gradient with the
// same step, kept unscaled.
TEST_P(Family, FailedConjugateSearchMovesByTheOldStepAndRestarts) {
  DiagonalQuadratic q = Bowl();
  FailOnDemand lm({2});
  auto opt = GetParam().make();
  opt->SetLineMinimize(lm);
  Recorder rec;
  std::vector<double> x(3);
  (*opt)(q, &rec, kOrigin.data(), x.data());
  ASSERT_GE(rec.calls.size(), 2u);
  ASSERT_GE(lm.steps().size(), 3u);
  EXPECT_EQ(rec.calls[1].iter, 2u);
  EXPECT_EQ(rec.calls[1].fval, rec.calls[0].fval);
  EXPECT_EQ(rec.calls[1].gnorm, rec.calls[0].gnorm);
  for (int i = 0; i < 3; ++i)
    EXPECT_DOUBLE_EQ(rec.calls[1].vars[i],
                     rec.calls[0].vars[i] + lm.steps()[1] * lm.dirs()[1][i]);
  EXPECT_EQ(lm.steps()[2], lm.steps()[1]);
  std::vector<double> g(3);
  q(rec.calls[0].vars.data(), g.data());
  for (int i = 0; i < 3; ++i) EXPECT_DOUBLE_EQ(lm.dirs()[2][i], -g[i]);
}

INSTANTIATE_TEST_SUITE_P(Optimizers, Family, ::testing::ValuesIn(kFamily),
                         [](const ::testing::TestParamInfo<Named>& i) {
                           return std::string(i.param.name);
                         });

// The coefficients on one set of dot products where g_new has turned back
// towards g: Polak-Ribiere's beta is negative and is used as it stands.
// (In the loop Powell's test restarts first whenever it would be negative,
// since g_new.g > g_new.g_new > 0.2 g_new.g_new.)
TEST(FamilyCoefficients, PolakRibiereNotClampedAtZero) {
  using Beta = LxBetaConjGradOpt::Beta;
  const LxOpt::detail::BetaInputs p{/*gg=*/4.0, /*ggNew=*/1.0, /*gNewG=*/1.5,
                                    /*dGNew=*/-0.5, /*dG=*/-4.0};
  EXPECT_DOUBLE_EQ(LxOpt::detail::ConjugacyCoefficient(Beta::kFletcherReeves, p), 0.25);
  EXPECT_DOUBLE_EQ(LxOpt::detail::ConjugacyCoefficient(Beta::kPolakRibiere, p), -0.125);
  EXPECT_DOUBLE_EQ(LxOpt::detail::ConjugacyCoefficient(Beta::kHestenesStiefel, p),
                   -0.5 / 3.5);
}

// --- convergence matrix --------------------------------------------------------

struct Problem {
  const char* name;
  std::function<std::unique_ptr<lxtest::Objective>()> make;
  std::vector<double> start, minimizer;
};

struct MatrixCase {
  Named optimizer;
  Problem problem;
  unsigned int maxReports;  // state-0 reports allowed
};
void PrintTo(const MatrixCase& c, std::ostream* os) {
  *os << c.optimizer.name << "_" << c.problem.name;
}

const Problem kQuad10{"quadratic10",
                      [] {
                        return std::make_unique<DiagonalQuadratic>(
                            DiagonalQuadratic::IllConditioned(10, 100.0));
                      },
                      std::vector<double>(10, -1.0), std::vector<double>(10, 1.0)};
const Problem kValley{"valley", [] { return std::make_unique<lxtest::Rosenbrock>(); },
                      {-1.2, 1.0}, {1.0, 1.0}};

class Convergence : public ::testing::TestWithParam<MatrixCase> {};

TEST_P(Convergence, ReachesTheMinimizer) {
  const MatrixCase& c = GetParam();
  auto f = c.problem.make();
  auto opt = c.optimizer.make();
  opt->SetTolerance(1e-16);
  Recorder rec;
  std::vector<double> x(c.problem.start.size());
  (*opt)(*f, &rec, c.problem.start.data(), x.data());
  EXPECT_LT(Distance(x, c.problem.minimizer), 1e-6);
  EXPECT_LE(rec.calls.size(), c.maxReports + 1);
  EXPECT_NE(rec.calls.back().state, LxOpt::kLxExhaust);
}

std::vector<MatrixCase> MatrixCases() {
  std::vector<MatrixCase> cases;
  // Exact searches on a quadratic: about n iterations ("Grad" for ConjGrad).
  cases.push_back({kShanno, kQuad10, 14});
  cases.push_back({kShanno, kValley, 200});
  for (const Named& o : kFamily) {
    cases.push_back({o, kQuad10, 16});
    cases.push_back({o, kValley, 999});
  }
  return cases;
}

INSTANTIATE_TEST_SUITE_P(Matrix, Convergence, ::testing::ValuesIn(MatrixCases()),
                         [](const ::testing::TestParamInfo<MatrixCase>& i) {
                           return std::string(i.param.optimizer.name) + "_" +
                                  i.param.problem.name;
                         });

}  // namespace
