// BFGS, BFGS with a carried matrix, DFP and L-BFGS.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <Eigen/Dense>
#include <algorithm>
#include <cmath>
#include <fstream>
#include <memory>
#include <numeric>
#include <set>
#include <string>

#include "../src/quasinewton/dfp_request.h"
#include "support/geom.h"
#include "support/problems.h"

// The bad-input test makes allocations fail on purpose; under the address
// sanitizer such a failure must come back as a null pointer.
extern "C" const char* __asan_default_options();
extern "C" const char* __asan_default_options() {
  return "allocator_may_return_null=1";
}

namespace {

using namespace LxOpt;
using namespace lxtest;
using Vec = std::vector<double>;
using States = std::vector<std::pair<unsigned int, unsigned int>>;  // (iteration, state)

double Dot(const Vec& a, const Vec& b) {
  return std::inner_product(a.begin(), a.end(), b.begin(), 0.0);
}
double Norm(const Vec& v) {
  return std::sqrt(Dot(v, v));
}

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

// What a scripted line search saw and did on each call; copies share it.
struct SearchLog {
  std::vector<Vec> dirs, grads, starts, maxStepCalls;
  Vec steps, accepted;  // trial step on entry; step written on success
};

// A line search whose outcome the test decides: calls in failOn (counted from
// 1) fail at once; others take the trial step, then the minimum of the parabola
// through the two slopes if they differ, and succeed if the value fell.
class Scripted : public LxLineMinimize {
 public:
  explicit Scripted(std::set<int> failOn = {})
      : failOn_(std::move(failOn)), log_(std::make_shared<SearchLog>()) {}
  bool operator()(unsigned int n, const double* x0, double* dir, double* grad0, double* gradOut,
                  double* fval, double* step, LxFunc1& func) const override {
    const Vec d(dir, dir + n), g0(grad0, grad0 + n);
    log_->dirs.push_back(d);
    log_->grads.push_back(g0);
    log_->starts.emplace_back(x0, x0 + n);
    log_->steps.push_back(*step);
    if (failOn_.count(static_cast<int>(log_->steps.size()))) return false;
    Vec x(n), g(n);
    auto evaluate = [&](double a) {
      for (unsigned int i = 0; i < n; ++i) x[i] = x0[i] + a * d[i];
      return func(x.data(), g.data());
    };
    double a = *step, f = evaluate(a);
    const double slope0 = Dot(g0, d), slope = Dot(g, d);
    if (slope != slope0) f = evaluate(a *= slope0 / (slope0 - slope));
    if (!(f < *fval)) return false;
    std::copy(g.begin(), g.end(), gradOut);
    *fval = f;
    *step = a;
    log_->accepted.push_back(a);
    return true;
  }
  bool SetMaxStep(unsigned int n, double* x) override {
    log_->maxStepCalls.emplace_back(x, x + n);
    return false;
  }
  LxLineMinimize* CreateCopy() const override { return new Scripted(*this); }
  const SearchLog& log() const { return *log_; }

 private:
  std::set<int> failOn_;
  std::shared_ptr<SearchLog> log_;
};

enum Kind { kBFGS, kBFGSMod, kDFP, kLBFGS };
const Kind kKinds[] = {kBFGS, kBFGSMod, kDFP, kLBFGS};
const std::string kNames[] = {"BFGS", "Mod", "DFP", "LBFGS"};

// L-BFGS with a memory of 3 pairs, so that the pairs are overwritten.
std::unique_ptr<LxOptimizer1> Make(Kind kind, const LxLineMinimize* lm = nullptr) {
  auto configured = [lm](auto* o) {
    if (lm) o->SetLineMinimize(*lm);
    return std::unique_ptr<LxOptimizer1>(o);
  };
  LxLBFGSOpt lbfgs;
  lbfgs.SetMemory(3);
  if (kind == kLBFGS) return configured(new LxLBFGSOpt(lbfgs));
  if (kind == kDFP) return configured(new LxDFPOpt);
  return configured(kind == kBFGS ? new LxBFGSOpt : new LxBFGSModOpt);
}

// One run with the search, the limit and no tolerance.
template <class Opt>
void RunWith(Opt& opt, const LxLineMinimize& search, unsigned int limit, LxFunc1& f,
             const double* in, double* out) {
  opt.SetLineMinimize(search);
  opt.SetIterLimit(limit);
  opt.SetTolerance(-1.0);
  opt(f, in, out);
}

// The objectives keep no state, so the tables share them.
using Shared = std::shared_ptr<Objective>;
Shared Quad(Vec d, Vec c) {
  return std::make_shared<DiagonalQuadratic>(d, c);
}
const Shared kIll30 =
    std::make_shared<DiagonalQuadratic>(DiagonalQuadratic::IllConditioned(30, 1e3));
const Shared kValley = std::make_shared<Rosenbrock>();

const struct Problem {
  Shared f;
  Vec start, minimizer;
} kProblems[] = {
    {Quad({1, 10}, {3, -1}), {0, 0}, {3, -1}},
    {std::make_shared<Coupled>(), {0, 0, 0}, kCoupledMinimizer},
    {kIll30, Vec(30, 0.0), Vec(30, 1.0)},
    {kValley, {-1.2, 1}, {1, 1}},
};

class Convergence : public ::testing::TestWithParam<std::tuple<Kind, int, bool>> {};

TEST_P(Convergence, EndsDoneAtTheMinimizer) {
  const auto [kind, index, cgSearch] = GetParam();
  const Problem& p = kProblems[index];
  const LxCGLineMinimize cg;
  auto opt = Make(kind, cgSearch ? &cg : nullptr);
  opt->SetTolerance(1e-14);
  Recorder r;
  Vec out(p.start.size());
  const double value = (*opt)(*p.f, &r, p.start.data(), out.data());
  ASSERT_FALSE(r.calls.empty());
  EXPECT_EQ(r.calls.back().state, kLxDone);
  EXPECT_LT(MaxDifference(out, p.minimizer), 1e-6);
  EXPECT_EQ(value, r.calls.back().fval);
}

INSTANTIATE_TEST_SUITE_P(QuasiNewton, Convergence,
                         ::testing::Combine(::testing::ValuesIn(kKinds), ::testing::Range(0, 4),
                                            ::testing::Bool()));

const struct ExitCase {
  const char* name;
  Shared f;
  Vec start;
  States expected;
  int gradients;              // evaluations with gradient; -1: not checked
  std::set<int> failOn = {};  // empty: the default search; {0}: scripted, never fails
  unsigned int limit = 1000;
  unsigned long continueFor = ~0ul;
  double tolerance = 0.1;
} kExitCases[] = {
    // f = x^2 from 1: the first trial step 1/|g| lands on the minimum.
    {"on minimum", Quad({1}, {0}), {1}, {{0, kLxCont}, {0, kLxDone}}, 2},
    {"below tolerance", Quad({1, 2}, {1, 1}), {1, 1 + 0x1p-10}, {{0, kLxNoOpt}}, 1},
    {"n = 0", Quad({}, {}), {}, {{0, kLxNoOpt}}, 1},
    {"n = 0, tolerance 0", Quad({}, {}), {}, {{0, kLxNotFound}}, -1, {}, 1000, ~0ul, 0.0},
    {"limit 3", kValley, {-1.2, 1}, {{0, 0}, {1, 0}, {2, 0}, {3, kLxExhaust}}, -1, {}, 3},
    {"stops later", kValley, {-1.2, 1}, {{0, 0}, {1, 0}, {2, 0}, {2, kLxDone}}, -1, {}, 1000, 2},
    // From (1, 1, 1, 1) the first trial gives s = (-1, -1, 1, 1) / 2 and
    // y = -(1, 1, 1, 1) / 2: s.y = 0 with y != 0; on a linear f, y = 0.
    {"s.y = 0", Quad({.5, .5, -.5, -.5}, Vec(4, 0.0)), Vec(4, 1.0), {{0, 0}, {0, kLxDone}}, 2, {0}},
    {"y = 0", std::make_shared<Linear>(Vec{1, 2}), {0, 0}, {{0, 0}, {0, kLxDone}}, 2, {0}},
    // 1 gradient at the start, 2 per accepted search, 1 per restart.
    {"fails at once", kIll30, Vec(30, 0.0), {{0, kLxNotFound}}, 1, {1}, 4},
    {"fails after restart", kIll30, Vec(30, 0.0), {{0, 0}, {1, 0}, {3, kLxNotFound}}, 6, {3, 4}, 4},
    {"restarts", kIll30, Vec(30, 0.0), {{0, 0}, {1, 0}, {3, 0}, {4, kLxExhaust}}, 8, {3}, 4},
};

TEST(QuasiNewtonExits, RecordedSequences) {
  for (Kind kind : kKinds) {
    for (const ExitCase& c : kExitCases) {
      // L-BFGS skips such pairs instead of ending.
      if (kind == kLBFGS && (c.name[0] == 's' || c.name[0] == 'y')) continue;
      SCOPED_TRACE(kNames[kind] + ": " + c.name);
      Counting counted(*c.f);
      const Scripted search(c.failOn);
      auto opt = Make(kind, c.failOn.empty() ? nullptr : &search);
      opt->SetIterLimit(c.limit);
      opt->SetTolerance(c.tolerance);
      Recorder r;
      r.continueFor = c.continueFor;
      Vec x = c.start;
      x.push_back(0.0);  // never empty, so never a null output; runs in place
      const double value = (*opt)(counted, &r, x.data(), x.data());
      x.pop_back();
      States states;
      for (const Call& call : r.calls) {
        states.push_back({call.iter, call.state});
        // Only DFP withholds the gradient, and only from NoOpt.
        EXPECT_EQ(call.gradNull, kind == kDFP && call.state == kLxNoOpt);
        Vec g(call.vars.size() + 1);
        EXPECT_DOUBLE_EQ(call.fval, (*c.f)(call.vars.data(), g.data()));
        g.pop_back();
        EXPECT_DOUBLE_EQ(call.gnorm, Norm(g));
      }
      ASSERT_EQ(states, c.expected);
      EXPECT_EQ(c.gradients < 0 ? -1 : counted.gradients, c.gradients);
      EXPECT_EQ(value, r.calls.back().fval);
      EXPECT_EQ(x, r.calls.back().vars);
      // A final report after a continue repeats its point.
      EXPECT_EQ(x, r.calls[r.calls.size() > 1 ? r.calls.size() - 2 : 0].vars);
    }
  }
}

TEST(QuasiNewtonSearches, TrialStepsAndRestarts) {
  Coupled q;
  double out[3];
  for (bool keep : {false, true}) {
    const Scripted failing({3}), fresh;  // the third search fails, after two updates
    LxBFGSOpt opt, reference;
    opt.SetKeepHessian(keep);
    RunWith(opt, failing, 5, q, kOrigin, out);
    const SearchLog& log = failing.log();
    ASSERT_EQ(log.dirs.size(), 5u);
    EXPECT_EQ(log.maxStepCalls, std::vector<Vec>(1, Vec(kOrigin, kOrigin + 3)));
    // The first trial is 1/|g| along -g. Iteration 0 passes the accepted step
    // on unchanged; later ones scale it by the ratio of the slopes g.d.
    EXPECT_EQ(log.dirs[0], Negated(log.grads[0]));
    EXPECT_DOUBLE_EQ(log.steps[0], 1.0 / Norm(log.grads[0]));
    EXPECT_EQ(log.steps[1], log.accepted[0]);
    const double ratio = Dot(log.grads[1], log.dirs[1]) / Dot(log.grads[2], log.dirs[2]);
    EXPECT_DOUBLE_EQ(log.steps[2], log.accepted[1] * ratio);
    // After the failure the run goes on as a new run from the same point would;
    // without a kept Hessian search for search, with it not beyond the first.
    RunWith(reference, fresh, 2, q, log.starts[3].data(), out);
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
  // One search from the identity gives the product form of the update:
  // H = V'V + r s s', V = I - r y s', r = 1/s.y.
  const Scripted exact;
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
  // n exact searches build the exact inverse. DFP visits the same points.
  const Scripted forDFP;
  LxDFPOpt dfp;
  RunWith(dfp, forDFP, 3, q, kOrigin, out);
  EXPECT_LT(MaxDifference(Vec(out, out + 3), kCoupledMinimizer), 1e-12);
  RunWith(opt, exact, 3, q, kOrigin, out);
  ASSERT_EQ(exact.log().starts.size(), 4u);
  for (size_t k = 0; k < 3; ++k)
    EXPECT_LT(MaxDifference(exact.log().starts[k + 1], forDFP.log().starts[k]), 1e-12) << k;
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
  const Scripted whole, first, second, copied, fresh;
  LxBFGSModOpt uninterrupted, opt, newObject;
  opt.SetHessian(work, persistent, 2);  // the identity until a run has left a matrix
  EXPECT_EQ(Vec(work, work + 4), (Vec{1, 0, 0, 1}));
  RunWith(uninterrupted, whole, 3, q, kOrigin, out);
  opt.SetKeepHessian(true);
  RunWith(opt, first, 2, q, kOrigin, mid);
  opt.SetHessian(work, persistent, 2);
  EXPECT_EQ(Vec(work, work + 4), (Vec{5, 6, 7, 8}));
  opt.SetHessian(nullptr, nullptr, 0);  // nothing to fill: the arrays are not touched
  // A copy carries the matrix, the step and a clone of the search; a run that
  // stops before its first search leaves them as it found them.
  LxBFGSModOpt copy(opt);
  copy.SetIterLimit(0);
  copy(q, mid, out);
  EXPECT_EQ(first.log().maxStepCalls.size(), 2u);
  EXPECT_TRUE(opt.GetInverseHessian(h1, 3) && copy.GetInverseHessian(h2, 3));
  EXPECT_EQ(Vec(h1, h1 + 6), Vec(h2, h2 + 6));

  RunWith(opt, second, 2, q, mid, out);
  RunWith(copy, copied, 2, q, mid, out);
  RunWith(newObject, fresh, 2, q, mid, out);
  const SearchLog& log = second.log();
  // The second run starts along -g with the step an uninterrupted run tries
  // next, then follows the carried matrix, as does the copy.
  EXPECT_EQ(log.dirs[0], Negated(log.grads[0]));
  EXPECT_EQ(log.steps[0], whole.log().steps[2]);
  EXPECT_EQ(copied.log().steps, log.steps);
  EXPECT_EQ(copied.log().dirs, log.dirs);
  // A new object starts from the identity and 1/|g|.
  EXPECT_DOUBLE_EQ(fresh.log().steps[0], 1.0 / Norm(fresh.log().grads[0]));
  EXPECT_GT(MaxDifference(fresh.log().dirs[1], log.dirs[1]), 1e-6);
  // Another number of variables discards the matrix and the step.
  DiagonalQuadratic two({1, 3}, {2, 2});
  opt(two, kOrigin, out);
  ASSERT_EQ(log.steps.size(), 4u);
  EXPECT_DOUBLE_EQ(log.steps[2], 1.0 / Norm(log.grads[2]));
}

// DFP's matrix request: n * n wraps in 32 bits (from n = 65536 on), the
// factor of 8 bytes does not (so n = 23171 asks for the whole matrix).
TEST(DFP, MatrixRequestWrapsOnlyInTheElementCount) {
  using Case = std::pair<unsigned int, std::size_t>;
  for (const auto& [n, bytes] :
       {Case{3, 72}, Case{23170, 4294791200u}, Case{23171, 4295161928u}, Case{65535, 34358689800u},
        Case{65536, 0}, Case{65537, 1048584}, Case{100000, 11280523264u}})
    EXPECT_EQ(detail::DFPMatrixBytes(n), bytes) << n;
}

TEST(QuasiNewtonBadInput, ReportedWithoutCrash) {
  using L = LxMessageLevel;
  auto expect = [](Kind kind, unsigned int n, bool nullOut, const std::string& text, L level,
                   int evaluations) {
    SCOPED_TRACE(kNames[kind] + " n " + std::to_string(n));
    Huge f(n);
    Vec x(std::min(n, 100000u), 0.0);
    Recorder r;
    MessageCapture capture;
    EXPECT_EQ((*Make(kind))(f, &r, x.data(), nullOut ? nullptr : x.data()), 0.0);
    EXPECT_EQ(capture.Texts(),
              text.empty() ? std::vector<std::string>{} : std::vector<std::string>{text});
    for (const auto& m : capture.messages) EXPECT_EQ(m.level, level);
    EXPECT_TRUE(r.calls.empty());
    EXPECT_EQ(f.evaluations, evaluations);
  };
  // Cap the address space at what the process maps now plus 1 GiB, so that
  // large requests fail whatever the machine's memory and overcommit policy.
  rlimit saved{};
  getrlimit(RLIMIT_AS, &saved);
  unsigned long long pages = 0;
  std::ifstream("/proc/self/statm") >> pages;
  const rlimit capped = {pages * sysconf(_SC_PAGESIZE) + (1ull << 30), saved.rlim_max};
  ASSERT_TRUE(pages != 0 && setrlimit(RLIMIT_AS, &capped) == 0);
  const std::string scratch = "out of memory allocating 2147483647 in LxBFGSOpt::operator()";
  for (Kind kind : kKinds) {
    // A null output gives this warning alone, even where no scratch can exist.
    expect(kind, 0xFFFFFFFFu, true, "memory not provided for optimized variables", L::Warning, 0);
    // The 7 n doubles for n = 2^30 + 1 cannot be had: the run ends before the
    // first evaluation, so before the limit on n is looked at.
    expect(
        kind, 1073741825u, false,
        kind == kLBFGS ? "out of memory allocating 2147483647 in LxLBFGSOpt::operator()" : scratch,
        L::Warning, 0);
  }
  // n = 100000: the vectors fit, the 80 GB matrix does not, nor DFP's 11 GB
  // ((n * n mod 2^32) * 8); at n = 23171 DFP asks for the whole 4.3 GB, at
  // n = 65536 for 0 bytes: each run ends with 0.0 silently and at once.
  expect(kBFGS, 100000u, false, "Can't allocate Hessian. Too many variables.", L::Error, 1);
  expect(kBFGSMod, 100000u, false, scratch, L::Warning, 1);
  expect(kDFP, 100000u, false, "", L::Info, 1);
  expect(kDFP, 23171u, false, "", L::Info, 1);
  expect(kDFP, 65536u, false, "", L::Info, 1);
  setrlimit(RLIMIT_AS, &saved);
}

// ---------------------------------------------------------------- L-BFGS

TEST(LBFGS, MatchesBFGSWithExactSearchesOnAQuadratic) {
  // With room for every pair, L-BFGS and BFGS visit the same points.
  const Scripted exactL, exactB;
  LxLBFGSOpt lbfgs;
  lbfgs.SetMemory(30);
  LxBFGSOpt bfgs;
  Vec outL(30), outB(30);
  RunWith(lbfgs, exactL, 12, *kIll30, Vec(30, 0.0).data(), outL.data());
  RunWith(bfgs, exactB, 12, *kIll30, Vec(30, 0.0).data(), outB.data());
  ASSERT_EQ(exactL.log().starts.size(), 12u);
  for (size_t k = 1; k < 12; ++k)
    EXPECT_LT(MaxDifference(exactL.log().starts[k], exactB.log().starts[k]), 1e-9) << k;
  EXPECT_LT(MaxDifference(outL, outB), 1e-9);
}

// H from kept pairs as the two-loop recursion applies it: H0 = gamma I from
// the newest pair, then the BFGS update for each pair, oldest first.
Eigen::MatrixXd InverseFromPairs(const Vec& s, const Vec& y, unsigned int count, unsigned int n) {
  using Map = Eigen::Map<const Eigen::VectorXd>;
  const Eigen::MatrixXd id = Eigen::MatrixXd::Identity(n, n);
  if (count == 0) return id;
  const Map sn(&s[(count - 1) * n], n), yn(&y[(count - 1) * n], n);
  Eigen::MatrixXd h = sn.dot(yn) / yn.dot(yn) * id;
  for (unsigned int k = 0; k < count; ++k) {
    const Map sk(&s[k * n], n), yk(&y[k * n], n);
    const double r = 1.0 / sk.dot(yk);
    const Eigen::MatrixXd v = id - r * yk * sk.transpose();
    h = v.transpose() * h * v + r * sk * sk.transpose();
  }
  return h;
}

TEST(LBFGS, KeptPairsGiveTheFinalInverse) {
  Coupled q;
  const Scripted exact;
  LxLBFGSOpt opt;
  MessageCapture capture;
  Vec s(9, 7.0), y(9, 7.0), out(3);
  EXPECT_FALSE(opt.GetFinalPairs(s.data(), y.data(), 3, 3));  // nothing kept yet
  opt.SetKeepPairs(true);
  // Three exact searches on the 3-variable quadratic: the pairs define A^-1.
  RunWith(opt, exact, 3, q, kOrigin, out.data());
  ASSERT_EQ(opt.GetFinalPairCount(), 3u);
  // Wrong n, or room for fewer pairs than were kept: refused, nothing written.
  EXPECT_FALSE(opt.GetFinalPairs(s.data(), y.data(), 2, 3));
  EXPECT_FALSE(opt.GetFinalPairs(s.data(), y.data(), 3, 2));
  EXPECT_EQ(s, Vec(9, 7.0));
  ASSERT_TRUE(opt.GetFinalPairs(s.data(), y.data(), 3, 3));
  EXPECT_EQ(Vec(s.begin(), s.begin() + 3), exact.log().starts[1]);  // oldest first, from 0
  const Eigen::MatrixXd h = InverseFromPairs(s, y, 3, 3);
  const Vec packed = {h(0, 0), h(1, 0), h(1, 1), h(2, 0), h(2, 1), h(2, 2)};
  EXPECT_LT(MaxDifference(packed, kCoupledPackedInverse), 1e-10);
  // The memory bounds the pairs; a run that stops before its first search
  // keeps none; a run without the flag leaves nothing to extract.
  opt.SetMemory(2);
  RunWith(opt, exact, 3, q, kOrigin, out.data());
  EXPECT_EQ(opt.GetFinalPairCount(), 2u);
  RunWith(opt, exact, 0, q, kOrigin, out.data());
  EXPECT_EQ(opt.GetFinalPairCount(), 0u);
  EXPECT_TRUE(opt.GetFinalPairs(nullptr, nullptr, 3, 0));
  opt.SetKeepPairs(false);
  RunWith(opt, exact, 3, q, kOrigin, out.data());
  EXPECT_FALSE(opt.GetFinalPairs(s.data(), y.data(), 3, 3));
  EXPECT_EQ(capture.Texts(), (std::vector<std::string>{
                                 "L-BFGS pairs can't be extracted because they were not kept",
                                 "Can't extract L-BFGS pairs: wrong number of variables or pairs",
                                 "Can't extract L-BFGS pairs: wrong number of variables or pairs",
                                 "L-BFGS pairs can't be extracted because they were not kept"}));
}

// f = x^4/4 - x^2/2: from 0.1 the first two searches end at 0.4 and 0.6 inside
// the concave part (s = 0.3, y = -0.237; s = 0.2, y = -0.048), so both pairs
// are skipped and the next searches again go along -g from the trial step
// 1/|g|, as the first did; the third pair (from 0.6 to about 0.73) is stored.
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
  const Scripted onWell, onConvex;
  LxLBFGSOpt opt;
  Vec x = {0.1}, out(3);
  RunWith(opt, onWell, 4, well, x.data(), x.data());
  const SearchLog& log = onWell.log();
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
}

// f times a constant factor (an energy in other units).
struct InUnits : Objective {
  using Objective::operator();
  InUnits(Objective& inner, double factor) : inner(inner), factor(factor) {}
  unsigned int NumVar() const override { return inner.NumVar(); }
  double operator()(const double* x) override { return factor * inner(x); }
  double operator()(const double* x, double* g) override {
    const double f = inner(x, g);
    for (unsigned int i = 0; i < NumVar(); ++i) g[i] *= factor;
    return factor * f;
  }
  Objective& inner;
  double factor;
};

// The 38-atom truncated octahedron shaken by 0.25 in eV and in kcal/mol (a
// factor 23.06; the tolerance on sum g^2 scaled by its square): the same
// number of gradient calls within 10 %, with and without the Cartesian model,
// which saves calls; both runs end at |g| below the tolerance.
TEST(LBFGS, CartesianModelSavesCallsInAnyEnergyUnit) {
  constexpr double kKcalPerEv = 23.0605;
  LennardJones ev(38);
  InUnits kcal(ev, kKcalPerEv);
  const Vec start =
      lxbench::PerturbedCluster::Perturbed(lxbench::TruncatedOctahedron38(), 11, 0.25);
  int calls[2][2];  // [cartesian][unit]
  for (bool cartesian : {false, true}) {
    for (int unit = 0; unit < 2; ++unit) {
      SCOPED_TRACE(std::to_string(cartesian) + " " + std::to_string(unit));
      const double scale = unit == 0 ? 1.0 : kKcalPerEv;
      Counting counted(unit == 0 ? static_cast<Objective&>(ev) : kcal);
      LxLBFGSOpt opt;
      opt.SetCartesian(cartesian);
      EXPECT_EQ(opt.GetCartesian(), cartesian);
      opt.SetTolerance(1e-10 * scale * scale);
      Vec out(start.size()), g(start.size());
      opt(counted, start.data(), out.data());
      ev(out.data(), g.data());
      EXPECT_LT(Dot(g, g), 1e-10);
      calls[cartesian][unit] = counted.gradients;
    }
    EXPECT_NEAR(calls[cartesian][1], calls[cartesian][0], 0.1 * calls[cartesian][0]);
  }
  EXPECT_LT(calls[1][0], calls[0][0]);
}

// Variables that are not triples: the Cartesian setting changes nothing.
TEST(LBFGS, CartesianSettingIgnoresVariablesThatAreNotTriples) {
  Vec ends[2];
  int calls[2];
  for (bool cartesian : {false, true}) {
    Rosenbrock valley;
    Counting counted(valley);
    LxLBFGSOpt opt;
    opt.SetCartesian(cartesian);
    opt.SetTolerance(1e-16);
    ends[cartesian] = Vec(2);
    const Vec start = {-1.2, 1.0};
    opt(counted, start.data(), ends[cartesian].data());
    calls[cartesian] = counted.gradients;
  }
  EXPECT_EQ(ends[0], ends[1]);
  EXPECT_EQ(calls[0], calls[1]);
}

}  // namespace

// x' = c x (coordinates in other units of length): f'(x') = f(x' / c).
struct InLengthUnits : Objective {
  using Objective::operator();
  InLengthUnits(Objective& inner, double factor)
      : inner(inner), factor(factor), x(inner.NumVar()) {}
  unsigned int NumVar() const override { return inner.NumVar(); }
  double operator()(const double* xs) override { return inner(Unscaled(xs)); }
  double operator()(const double* xs, double* g) override {
    const double f = inner(Unscaled(xs), g);
    for (unsigned int i = 0; i < NumVar(); ++i) g[i] /= factor;
    return f;
  }
  const double* Unscaled(const double* xs) {
    for (unsigned int i = 0; i < NumVar(); ++i) x[i] = xs[i] / factor;
    return x.data();
  }
  Objective& inner;
  double factor;
  Vec x;
};

// Runs of L-BFGS on clusters in other units of energy (f -> c f) and of
// length (x -> c x), the tolerance on sum g^2 scaled alike. Nothing in a run
// may depend on the units: a factor that is a power of 2 scales every
// quantity exactly, so the run must be the same call for call and end at the
// same point (scaled); with any other factor rounding alone differs, which
// on these clusters keeps the calls within 10 %. Length units enter only
// through the first move, which the Cartesian model measures in
// nearest-neighbour distances; without it length is left out.
TEST(LBFGS, CallsDoNotDependOnUnits) {
  constexpr double kKcalPerEv = 23.0605;
  constexpr double kAngstromPerBohr = 0.529177;
  const struct {
    const char* name;
    unsigned int atoms;
    Vec start;
  } clusters[] = {
      {"LJ13", 13, PerturbedIcosahedron(0.2)},
      {"LJ38", 38,
       lxbench::PerturbedCluster::Perturbed(lxbench::TruncatedOctahedron38(), 11, 0.25)},
  };
  const struct {
    double factor;
    bool length;
    bool exact;
  } units[] = {
      {8.0, false, true},
      {1.0 / 64.0, false, true},
      {kKcalPerEv, false, false},
      {1.0 / kKcalPerEv, false, false},
      {4.0, true, true},
      {0.125, true, true},
      {1.0 / kAngstromPerBohr, true, false},
      {kAngstromPerBohr, true, false},
  };
  for (const auto& cluster : clusters) {
    for (bool cartesian : {false, true}) {
      LennardJones base(cluster.atoms);
      auto run = [&](Objective& objective, const Vec& start, double tolerance, Vec& out) {
        Counting counted(objective);
        LxLBFGSOpt opt;
        opt.SetCartesian(cartesian);
        opt.SetTolerance(tolerance);
        out.assign(start.size(), 0.0);
        opt(counted, start.data(), out.data());
        return counted.gradients;
      };
      Vec reference;
      const int calls = run(base, cluster.start, 1e-10, reference);
      for (const auto& unit : units) {
        if (unit.length && !cartesian) continue;
        SCOPED_TRACE(std::string(cluster.name) + (cartesian ? " cartesian" : " plain") +
                     (unit.length ? " length x" : " energy x") + std::to_string(unit.factor));
        InUnits energy(base, unit.factor);
        InLengthUnits length(base, unit.factor);
        Vec start = cluster.start;
        if (unit.length)
          for (double& v : start) v *= unit.factor;
        const double gScale = unit.length ? 1.0 / unit.factor : unit.factor;
        Vec out;
        const int scaled = run(unit.length ? static_cast<Objective&>(length) : energy, start,
                               1e-10 * gScale * gScale, out);
        if (unit.exact) {
          EXPECT_EQ(scaled, calls);
          if (unit.length)
            for (double& v : out) v /= unit.factor;
          EXPECT_EQ(out, reference);
        } else {
          EXPECT_NEAR(scaled, calls, 0.1 * calls);
        }
      }
    }
  }
}
