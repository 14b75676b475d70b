// BFGS, BFGS with a carried matrix, DFP and L-BFGS.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <Eigen/Dense>
#include <fstream>
#include <numeric>

#include "../src/quasinewton/dfp_request.h"
#include "support/geom.h"
#include "support/linesearch.h"
#include "support/problems.h"

// The bad-input test makes allocations fail: under ASan they must return null.
extern "C" const char* __asan_default_options();
extern "C" const char* __asan_default_options() {
  return "allocator_may_return_null=1";
}

namespace {

using namespace LxOpt;
using namespace lxtest;
using Vec = std::vector<double>;
using States = std::vector<std::pair<unsigned int, unsigned int>>;  // (iteration, state)

using lxtest::Dot;
using lxtest::Norm;
double MaxDifference(const Vec& a, const Vec& b) {
  return std::inner_product(
      a.begin(), a.end(), b.begin(), 0.0, [](double m, double e) { return std::fmax(m, e); },
      [](double u, double v) { return std::fabs(u - v); });
}
Vec Negated(Vec v) {
  for (double& e : v) e = -e;
  return v;
}

// f = 1/2 x'Ax - b'x, A = [4 1 0; 1 3 1; 0 1 2], b = (1, 2, 3); minimizer
// A^-1 b = (4, 2, 26) / 18, A^-1 = [5 -2 1; -2 8 -4; 1 -4 11] / 18.
class Coupled : public Objective {
 public:
  using Objective::operator();
  unsigned int NumVar() const override { return 3; }
  double operator()(const double* x) override { return (*this)(x, Vec(3).data()); }
  double operator()(const double* x, double* g) override {
    const double ax[3] = {4 * x[0] + x[1], x[0] + 3 * x[1] + x[2], x[1] + 2 * x[2]};
    for (int i = 0; i < 3; ++i) g[i] = ax[i] - (i + 1);
    // f = (x'(Ax - b) - b'x) / 2
    return 0.5 * (x[0] * (g[0] - 1) + x[1] * (g[1] - 2) + x[2] * (g[2] - 3));
  }
};
const double kOrigin[3] = {0, 0, 0};
const Vec kCoupledMinimizer = {4.0 / 18, 2.0 / 18, 26.0 / 18};
const Vec kCoupledPackedInverse = {5.0 / 18, -2.0 / 18, 8.0 / 18, 1.0 / 18, -4.0 / 18, 11.0 / 18};

// Claims n variables but stores nothing; counts evaluations, gradient (1, 0, ...).
struct Huge : Objective {
  using Objective::operator();
  explicit Huge(unsigned int count) : n(count) {}
  unsigned int NumVar() const override { return n; }
  double operator()(const double*) override { return ++evaluations; }
  double operator()(const double*, double* g) override { return g[0] = 1.0, ++evaluations; }
  unsigned int n;
  int evaluations = 0;
};

enum Kind { kBFGS, kBFGSMod, kDFP, kLBFGS };
const Kind kKinds[] = {kBFGS, kBFGSMod, kDFP, kLBFGS};
const std::string kNames[] = {"BFGS", "Mod", "DFP", "LBFGS"};

// L-BFGS with a memory of 3 pairs, so that the pairs are overwritten.
std::unique_ptr<LxGradientOpt> Make(Kind kind, const LxLineMinimize* lm = nullptr) {
  auto lbfgs = std::make_unique<LxLBFGSOpt>();
  lbfgs->SetMemory(3);
  std::unique_ptr<LxGradientOpt> o = std::move(lbfgs);
  if (kind == kBFGS) o = std::make_unique<LxBFGSOpt>();
  if (kind == kBFGSMod) o = std::make_unique<LxBFGSModOpt>();
  if (kind == kDFP) o = std::make_unique<LxDFPOpt>();
  if (lm) o->SetLineMinimize(*lm);
  return o;
}

void RunWith(LxGradientOpt& opt, const LxLineMinimize& search, unsigned int limit, LxFunc1& f,
             const double* in, double* out) {
  opt.SetLineMinimize(search);
  opt.SetIterLimit(limit);
  opt.SetTolerance(-1.0);
  opt(f, in, out);
}
// The parabola search that fails on the calls in failOn (see ScriptedSearch).
ScriptedSearch Exact(std::set<int> failOn = {}) {
  return ScriptedSearch(std::move(failOn), true);
}

// The objectives keep no state, so the tables share them.
using Shared = std::shared_ptr<Objective>;
Shared Quad(Vec d, Vec c) {
  return std::make_shared<DiagonalQuadratic>(d, c);
}
const Shared kIll30 =
    std::make_shared<DiagonalQuadratic>(DiagonalQuadratic::IllConditioned(30, 1e3));
const Shared kValley = std::make_shared<Rosenbrock>();

using Problem = std::tuple<Shared, Vec, Vec>;  // objective, start, minimizer
const Problem kProblems[] = {
    {Quad({1, 10}, {3, -1}), {0, 0}, {3, -1}},
    {std::make_shared<Coupled>(), {0, 0, 0}, kCoupledMinimizer},
    {kIll30, Vec(30, 0.0), Vec(30, 1.0)},
    {kValley, {-1.2, 1}, {1, 1}},
};

class Convergence : public ::testing::TestWithParam<std::tuple<Kind, int, bool>> {};

TEST_P(Convergence, EndsDoneAtTheMinimizer) {
  const auto [kind, index, cgSearch] = GetParam();
  const auto& [f, start, minimizer] = kProblems[index];
  const LxCGLineMinimize cg;
  auto opt = Make(kind, cgSearch ? &cg : nullptr);
  opt->SetTolerance(1e-14);
  LxTraceCheckpoint trace;
  Vec out(start.size());
  (*opt)(*f, &trace, start.data(), out.data());
  ASSERT_FALSE(trace.Entries().empty());
  EXPECT_EQ(trace.Entries().back().state, kLxDone);
  EXPECT_LT(MaxDifference(out, minimizer), 1e-6);
}

INSTANTIATE_TEST_SUITE_P(QuasiNewton, Convergence,
                         ::testing::Combine(::testing::ValuesIn(kKinds), ::testing::Range(0, 4),
                                            ::testing::Bool()));

struct ExitCase {
  const char* name;
  Shared f;
  Vec start;
  States expected;
  int gradients;              // evaluations with gradient; -1: not checked
  std::set<int> failOn = {};  // empty: the default search; {0}: scripted, never fails
  unsigned int limit = 1000;
  unsigned long continueFor = ~0ul;
  double tolerance = 0.1;
};
const ExitCase kExitCases[] = {
    // f = x^2 from 1: the first trial step 1/|g| lands on the minimum.
    {"OnMinimum", Quad({1}, {0}), {1}, {{0, kLxCont}, {0, kLxDone}}, 2},
    {"BelowTolerance", Quad({1, 2}, {1, 1}), {1, 1 + 0x1p-10}, {{0, kLxNoOpt}}, 1},
    {"NoVariables", Quad({}, {}), {}, {{0, kLxNoOpt}}, 1},
    {"NoVariablesTolerance0", Quad({}, {}), {}, {{0, kLxNotFound}}, -1, {}, 1000, ~0ul, 0.0},
    {"Limit3", kValley, {-1.2, 1}, {{0, 0}, {1, 0}, {2, 0}, {3, kLxExhaust}}, -1, {}, 3},
    {"StopsLater", kValley, {-1.2, 1}, {{0, 0}, {1, 0}, {2, 0}, {2, kLxDone}}, -1, {}, 1000, 2},
    // From (1, 1, 1, 1) the first trial gives s.y = 0 with y != 0; on a linear
    // f, y = 0. L-BFGS skips such pairs instead of ending.
    {"SyZero", Quad({.5, .5, -.5, -.5}, Vec(4, 0.0)), Vec(4, 1.0), {{0, 0}, {0, kLxDone}}, 2, {0}},
    {"YZero", std::make_shared<Linear>(Vec{1, 2}), {0, 0}, {{0, 0}, {0, kLxDone}}, 2, {0}},
    // 1 gradient at the start, 2 per accepted search, 1 per restart.
    {"FailsAtOnce", kIll30, Vec(30, 0.0), {{0, kLxNotFound}}, 1, {1}, 4},
    {"FailsAfterRestart", kIll30, Vec(30, 0.0), {{0, 0}, {1, 0}, {3, kLxNotFound}}, 6, {3, 4}, 4},
    {"Restarts", kIll30, Vec(30, 0.0), {{0, 0}, {1, 0}, {3, 0}, {4, kLxExhaust}}, 8, {3}, 4},
};

void PrintTo(const ExitCase& c, std::ostream* os) {
  *os << c.name;
}
class Exits : public ::testing::TestWithParam<std::tuple<Kind, ExitCase>> {};

// The whole sequence of reports, each with the value and |g| of its point.
TEST_P(Exits, RecordedSequence) {
  const auto& [kind, c] = GetParam();
  if (kind == kLBFGS && c.failOn.count(0)) GTEST_SKIP() << "L-BFGS skips such pairs";
  LxCountingFunc counted(*c.f);
  const ScriptedSearch search = Exact(c.failOn);
  auto opt = Make(kind, c.failOn.empty() ? nullptr : &search);
  opt->SetIterLimit(c.limit);
  opt->SetTolerance(c.tolerance);
  StopAfter stop(c.continueFor);
  LxTraceCheckpoint trace(&stop, true);
  Vec x = c.start;
  x.push_back(0.0);  // never empty, so never a null output; runs in place
  const double value = (*opt)(counted, &trace, x.data(), x.data());
  x.pop_back();
  States states;
  for (const LxTraceEntry& e : trace.Entries()) {
    states.push_back({e.iter, e.state});
    // Only DFP withholds the gradient, and only from NoOpt.
    EXPECT_EQ(!e.hasGradient, kind == kDFP && e.state == kLxNoOpt);
    Vec g(e.x.size() + 1);
    EXPECT_DOUBLE_EQ(e.fval, (*c.f)(e.x.data(), g.data()));
    g.pop_back();
    EXPECT_DOUBLE_EQ(e.gnorm, Norm(g));
  }
  ASSERT_EQ(states, c.expected);
  EXPECT_EQ(c.gradients < 0 ? -1 : static_cast<int>(counted.Gradients()), c.gradients);
  const auto& entries = trace.Entries();
  EXPECT_EQ(std::tie(value, x), std::tie(entries.back().fval, entries.back().x));
  // A final report after a continue repeats its point.
  EXPECT_EQ(x, entries[entries.size() > 1 ? entries.size() - 2 : 0].x);
}

INSTANTIATE_TEST_SUITE_P(QuasiNewton, Exits,
                         ::testing::Combine(::testing::ValuesIn(kKinds),
                                            ::testing::ValuesIn(kExitCases)),
                         [](const auto& info) {
                           return kNames[std::get<0>(info.param)] + "_" +
                                  std::get<1>(info.param).name;
                         });

TEST(QuasiNewtonSearches, TrialStepsAndRestarts) {
  Coupled q;
  double out[3];
  for (auto [kind, keep] : {std::pair{kBFGS, false}, {kBFGS, true}, {kBFGSMod, true}}) {
    // The third search fails, after two updates.
    const ScriptedSearch failing = Exact({3}), fresh = Exact();
    auto opt = Make(kind), reference = Make(kind);
    static_cast<LxBFGSOpt&>(*opt).SetKeepHessian(keep);
    RunWith(*opt, failing, 5, q, kOrigin, out);
    const ScriptedSearch::Log& log = failing.log();
    ASSERT_EQ(log.dirs.size(), 5u);
    EXPECT_EQ(log.maxStepCalls, std::vector<Vec>(1, Vec(kOrigin, kOrigin + 3)));
    // First 1/|g| along -g; then the step left, scaled by the g.d ratio from 1 on.
    EXPECT_EQ(log.dirs[0], Negated(log.grads[0]));
    EXPECT_DOUBLE_EQ(log.steps[0], 1.0 / Norm(log.grads[0]));
    EXPECT_EQ(log.steps[1], log.left[0]);
    const double ratio = Dot(log.grads[1], log.dirs[1]) / Dot(log.grads[2], log.dirs[2]);
    EXPECT_DOUBLE_EQ(log.steps[2], log.left[1] * ratio);
    // After the failure: as a new run from there (with a kept H for one search).
    RunWith(*reference, fresh, 2, q, log.starts[3].data(), out);
    EXPECT_EQ(log.starts[3], log.starts[2]);
    EXPECT_EQ(log.dirs[3], fresh.log().dirs[0]);
    EXPECT_EQ(log.steps[3], fresh.log().steps[0]);
    EXPECT_EQ(MaxDifference(log.dirs[4], fresh.log().dirs[1]) > 1e-3, keep);
  }
}

TEST(KeptHessian, ExactSearchesOnAQuadratic) {
  Coupled q;
  LxBFGSOpt opt, copy;
  Vec packed(6), copied(6);
  MessageCapture capture;
  EXPECT_FALSE(opt.GetInverseHessian(packed.data(), 3));
  // One search from I gives H = V'V + r s s', V = I - r y s', r = 1/s.y.
  const ScriptedSearch exact = Exact();
  opt.SetKeepHessian(true);
  double out[3], g1[3];
  RunWith(opt, exact, 1, q, kOrigin, out);
  q(out, g1);
  using Map = Eigen::Map<const Eigen::Vector3d>;
  const Eigen::Vector3d s = Map(out), y = Map(g1) - Map(exact.log().grads[0].data());
  const Eigen::Matrix3d v = Eigen::Matrix3d::Identity() - y * s.transpose() / s.dot(y);
  const Eigen::Matrix3d h = v.transpose() * v + s * s.transpose() / s.dot(y);
  ASSERT_TRUE(opt.GetInverseHessian(packed.data(), 3));
  EXPECT_LT(MaxDifference(packed, {h(0, 0), h(1, 0), h(1, 1), h(2, 0), h(2, 1), h(2, 2)}), 1e-12);
  // n exact searches build the exact inverse; DFP and L-BFGS visit the same points.
  RunWith(opt, exact, 3, q, kOrigin, out);
  ASSERT_EQ(exact.log().starts.size(), 4u);
  for (Kind kind : {kDFP, kLBFGS}) {
    const ScriptedSearch other = Exact();
    RunWith(*Make(kind), other, 3, q, kOrigin, out);
    EXPECT_LT(MaxDifference(Vec(out, out + 3), kCoupledMinimizer), 1e-12);
    for (size_t k = 0; k < 3; ++k)
      EXPECT_LT(MaxDifference(exact.log().starts[k + 1], other.log().starts[k]), 1e-12) << k;
  }
  ASSERT_TRUE(opt.GetInverseHessian(packed.data(), 3));
  EXPECT_LT(MaxDifference(packed, kCoupledPackedInverse), 1e-12);
  EXPECT_FALSE(opt.GetInverseHessian(packed.data(), 2));
  EXPECT_EQ(capture.Texts(),
            (std::vector<std::string>{"Hessian can't be extracted because it was not generated",
                                      "Can't extract Hessian: Wrong number of variables"}));
  // A copy owns its matrix: a later run of the original does not touch it.
  copy = opt;
  DiagonalQuadratic two({1, 2}, {0, 0});
  opt(two, kOrigin, out);
  EXPECT_EQ(opt.GetHessianDimension(), 4u);
  EXPECT_TRUE(copy.GetInverseHessian(copied.data(), 3));
  EXPECT_EQ(copied, packed);
}

TEST(CarriedHessian, SecondRunContinuesTheFirst) {
  Coupled q;
  double mid[3], out[3], persistent[] = {5, 6, 7, 8}, work[4], h1[6], h2[6];
  const ScriptedSearch whole = Exact(), first = Exact(), second = Exact(), copied = Exact(),
                       fresh = Exact();
  LxBFGSModOpt uninterrupted, opt, newObject;
  opt.SetHessian(work, persistent, 2);  // the identity until a run has left a matrix
  EXPECT_EQ(Vec(work, work + 4), (Vec{1, 0, 0, 1}));
  RunWith(uninterrupted, whole, 3, q, kOrigin, out);
  opt.SetKeepHessian(true);
  RunWith(opt, first, 2, q, kOrigin, mid);
  opt.SetHessian(work, persistent, 2);
  EXPECT_EQ(Vec(work, work + 4), (Vec{5, 6, 7, 8}));
  opt.SetHessian(nullptr, nullptr, 0);  // nothing to fill: the arrays are not touched
  // A copy carries matrix, step and search; a run with no search keeps them.
  LxBFGSModOpt copy(opt);
  copy.SetIterLimit(0);
  copy(q, mid, out);
  EXPECT_EQ(first.log().maxStepCalls.size(), 2u);
  EXPECT_TRUE(opt.GetInverseHessian(h1, 3) && copy.GetInverseHessian(h2, 3));
  EXPECT_EQ(Vec(h1, h1 + 6), Vec(h2, h2 + 6));

  RunWith(opt, second, 2, q, mid, out);
  RunWith(copy, copied, 2, q, mid, out);
  RunWith(newObject, fresh, 2, q, mid, out);
  const ScriptedSearch::Log& log = second.log();
  // Run 2 starts along -g with the uninterrupted run's next step, then uses H.
  EXPECT_EQ(log.dirs[0], Negated(log.grads[0]));
  EXPECT_EQ(log.steps[0], whole.log().steps[2]);
  EXPECT_EQ(std::tie(copied.log().steps, copied.log().dirs), std::tie(log.steps, log.dirs));
  // A failed search after an update restarts with 1/|g|, not the carried step.
  const ScriptedSearch failing = Exact({2});
  RunWith(*std::make_unique<LxBFGSModOpt>(copy), failing, 3, q, mid, out);
  EXPECT_DOUBLE_EQ(failing.log().steps[2], 1.0 / Norm(failing.log().grads[2]));
  // A new object starts from the identity.
  EXPECT_GT(MaxDifference(fresh.log().dirs[1], log.dirs[1]), 1e-6);
  // Another number of variables discards the matrix and the step.
  DiagonalQuadratic two({1, 3}, {2, 2});
  opt(two, kOrigin, out);
  ASSERT_EQ(log.steps.size(), 4u);
  EXPECT_DOUBLE_EQ(log.steps[2], 1.0 / Norm(log.grads[2]));
}

// DFP's matrix request: n * n wraps in 32 bits (n >= 65536), the factor 8 does not.
TEST(DFP, MatrixRequestWrapsOnlyInTheElementCount) {
  using Case = std::pair<unsigned int, std::size_t>;
  for (const auto& [n, bytes] :
       {Case{3, 72}, Case{23170, 4294791200u}, Case{23171, 4295161928u}, Case{65535, 34358689800u},
        Case{65536, 0}, Case{65537, 1048584}, Case{100000, 11280523264u}})
    EXPECT_EQ(detail::DFPMatrixBytes(n), bytes) << n;
}

TEST(QuasiNewtonBadInput, ReportedWithoutCrash) {
  using L = LxMessageLevel;
  auto expect = [](Kind kind, unsigned int n, const std::string& text, L level, int evaluations) {
    SCOPED_TRACE(kNames[kind] + " n " + std::to_string(n));
    Huge f(n);
    Vec x(std::min(n, 100000u), 0.0);
    LxTraceCheckpoint trace;
    MessageCapture capture;
    EXPECT_EQ((*Make(kind))(f, &trace, x.data(), n == 0xFFFFFFFFu ? nullptr : x.data()), 0.0);
    EXPECT_EQ(capture.Texts(), std::vector<std::string>(!text.empty(), text));
    for (const auto& m : capture.messages) EXPECT_EQ(m.level, level);
    EXPECT_TRUE(trace.Entries().empty());
    EXPECT_EQ(f.evaluations, evaluations);
  };
  // Address space capped at what is mapped now + 1 GiB: large requests fail.
  rlimit saved{};
  getrlimit(RLIMIT_AS, &saved);
  unsigned long long pages = 0;
  std::ifstream("/proc/self/statm") >> pages;
  const rlimit capped = {pages * sysconf(_SC_PAGESIZE) + (1ull << 30), saved.rlim_max};
  ASSERT_TRUE(pages != 0 && setrlimit(RLIMIT_AS, &capped) == 0);
  const std::string scratch = "out of memory allocating 2147483647 in LxBFGSOpt::operator()",
                    lScratch = "out of memory allocating 2147483647 in LxLBFGSOpt::operator()";
  for (Kind kind : kKinds) {
    // A null output (n = 2^32 - 1) gives this warning alone, even with no scratch;
    // 7 n doubles for n = 2^30 + 1 fail before the first evaluation.
    expect(kind, 0xFFFFFFFFu, "memory not provided for optimized variables", L::Warning, 0);
    expect(kind, 1073741825u, kind == kLBFGS ? lScratch : scratch, L::Warning, 0);
  }
  // n = 100000: the vectors fit, the matrix does not; DFP's request (11 GB,
  // 4.3 GB, 0 bytes: see above) ends each run with 0.0 silently and at once.
  expect(kBFGS, 100000u, "Can't allocate Hessian. Too many variables.", L::Error, 1);
  expect(kBFGSMod, 100000u, scratch, L::Warning, 1);
  for (unsigned int n : {100000u, 23171u, 65536u}) expect(kDFP, n, "", L::Info, 1);
  setrlimit(RLIMIT_AS, &saved);
}

TEST(LBFGS, KeptPairsGiveTheFinalInverse) {
  Coupled q;
  const ScriptedSearch exact = Exact();
  LxLBFGSOpt opt;
  MessageCapture capture;
  Vec s(9, 7.0), y(9, 7.0), out(3);
  EXPECT_FALSE(opt.GetFinalPairs(s.data(), y.data(), 3, 3));  // nothing kept yet
  opt.SetKeepPairs(true);
  RunWith(opt, exact, 3, q, kOrigin, out.data());
  ASSERT_EQ(opt.GetFinalPairCount(), 3u);
  // Wrong n, or room for fewer pairs than were kept: refused, nothing written.
  EXPECT_FALSE(opt.GetFinalPairs(s.data(), y.data(), 2, 3));
  EXPECT_FALSE(opt.GetFinalPairs(s.data(), y.data(), 3, 2));
  EXPECT_EQ(s, Vec(9, 7.0));
  ASSERT_TRUE(opt.GetFinalPairs(s.data(), y.data(), 3, 3));
  // Oldest first, row k the step and the gradient change of search k.
  std::vector<Vec> points = exact.log().starts, grads = exact.log().grads;
  points.push_back(out);
  grads.push_back(Vec(3));
  q(out.data(), grads.back().data());
  for (size_t j = 0; j < 9; ++j) {
    EXPECT_NEAR(s[j], points[j / 3 + 1][j % 3] - points[j / 3][j % 3], 1e-14) << j;
    EXPECT_NEAR(y[j], grads[j / 3 + 1][j % 3] - grads[j / 3][j % 3], 1e-14) << j;
  }
  // The memory bounds the pairs; no search keeps none; no flag, nothing kept.
  opt.SetMemory(2);
  RunWith(opt, exact, 3, q, kOrigin, out.data());
  EXPECT_EQ(opt.GetFinalPairCount(), 2u);
  RunWith(opt, exact, 0, q, kOrigin, out.data());
  EXPECT_EQ(opt.GetFinalPairCount(), 0u);
  EXPECT_TRUE(opt.GetFinalPairs(nullptr, nullptr, 3, 0));
  opt.SetKeepPairs(false);
  RunWith(opt, exact, 3, q, kOrigin, out.data());
  EXPECT_FALSE(opt.GetFinalPairs(s.data(), y.data(), 3, 3));
  const std::string notKept = "L-BFGS pairs can't be extracted because they were not kept",
                    wrongSize = "Can't extract L-BFGS pairs: wrong number of variables or pairs";
  EXPECT_EQ(capture.Texts(), (std::vector<std::string>{notKept, wrongSize, wrongSize, notKept}));
}

// f = x^4/4 - x^2/2 from 0.1: two searches end in the concave part (0.4, 0.6),
// their pairs are skipped (next search again -g, 1/|g|); the third is stored.
struct DoubleWell : Objective {
  using Objective::operator();
  unsigned int NumVar() const override { return 1; }
  double operator()(const double* x) override { return x[0] * x[0] * (x[0] * x[0] / 4 - 0.5); }
  double operator()(const double* x, double* g) override {
    g[0] = x[0] * (x[0] * x[0] - 1);
    return (*this)(x);
  }
};

TEST(LBFGS, SkipsAPairWithNegativeCurvature) {
  DoubleWell well;
  Coupled convex;
  const ScriptedSearch onWell = Exact(), onConvex = Exact();
  LxLBFGSOpt opt;
  Vec x = {0.1}, out(3);
  RunWith(opt, onWell, 4, well, x.data(), x.data());
  const ScriptedSearch::Log& log = onWell.log();
  ASSERT_EQ(log.starts.size(), 4u);
  EXPECT_NEAR(log.starts[1][0], 0.4, 1e-12);
  EXPECT_NEAR(log.starts[2][0], 0.6, 1e-12);
  for (int k : {1, 2}) {
    EXPECT_EQ(log.dirs[k], Negated(log.grads[k]));
    EXPECT_DOUBLE_EQ(log.steps[k], 1.0 / Norm(log.grads[k]));
  }
  EXPECT_NE(log.dirs[3], Negated(log.grads[3]));  // the third pair was stored
  EXPECT_EQ(log.steps[3], 1.0);
  RunWith(opt, onConvex, 2, convex, kOrigin, out.data());
  EXPECT_NE(onConvex.log().dirs[1], Negated(onConvex.log().grads[1]));
  // One variable is no triple: the Cartesian setting changes nothing.
  const ScriptedSearch cartesian = Exact();
  opt.SetCartesian(true);
  RunWith(opt, cartesian, 4, well, Vec{0.1}.data(), x.data());
  EXPECT_EQ(std::tie(cartesian.log().steps, cartesian.log().dirs), std::tie(log.steps, log.dirs));
}

// L-BFGS on LJ38 in other units of energy and (Cartesian only) length: a power
// of 2 gives the same run and point, other factors calls within 10 %. The
// Cartesian model saves calls.
TEST(LBFGS, CallsDoNotDependOnUnits) {
  constexpr double kKcalPerEv = 23.0605, kAngstromPerBohr = 0.529177;
  const std::vector<double> factors[2] = {{8.0, 1.0 / 64.0, kKcalPerEv, 1.0 / kKcalPerEv},
                                          {4.0, 0.125, 1.0 / kAngstromPerBohr, kAngstromPerBohr}};
  const Vec clusterStart =
      lxbench::PerturbedCluster::Perturbed(lxbench::TruncatedOctahedron38(), 11, 0.25);
  int calls[2];  // [cartesian], in the original units
  for (bool cartesian : {false, true}) {
    LennardJones base(38);
    auto run = [&](Objective& objective, const Vec& start, double tolerance, Vec& out) {
      LxCountingFunc counted(objective);
      LxLBFGSOpt opt;
      opt.SetCartesian(cartesian);
      opt.SetTolerance(tolerance);
      out.assign(start.size(), 0.0);
      opt(counted, start.data(), out.data());
      Vec g(out.size());
      objective(out.data(), g.data());
      EXPECT_LT(Dot(g, g), tolerance);
      return static_cast<int>(counted.Gradients());
    };
    Vec reference, out;
    calls[cartesian] = run(base, clusterStart, 1e-10, reference);
    for (int length = 0; length <= cartesian; ++length)
      for (double factor : factors[length]) {
        const bool exact = std::log2(factor) == std::round(std::log2(factor));  // a power of 2
        SCOPED_TRACE(std::string(cartesian ? "cartesian" : "plain") +
                     (length ? " length x" : " energy x") + std::to_string(factor));
        lxtest::InUnits scaled(base, length ? 1.0 : factor, length ? factor : 1.0);
        Vec start = clusterStart;
        for (double& v : start) v *= length ? factor : 1.0;
        const double gScale = length ? 1.0 / factor : factor;
        const int count = run(scaled, start, 1e-10 * gScale * gScale, out);
        if (!exact) {
          EXPECT_NEAR(count, calls[cartesian], 0.1 * calls[cartesian]);
          continue;
        }
        EXPECT_EQ(count, calls[cartesian]);
        for (double& v : out) v /= length ? factor : 1.0;
        EXPECT_EQ(out, reference);
      }
  }
  EXPECT_LT(calls[1], calls[0]);
}

}  // namespace
