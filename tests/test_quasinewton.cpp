// BFGS, BFGS with a carried matrix, and DFP.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cmath>
#include <fstream>
#include <functional>
#include <memory>
#include <set>
#include <string>

#include "support/problems.h"

// The bad-input tests make allocations fail on purpose; under the address
// sanitizer such a failure must come back as a null pointer.
extern "C" const char* __asan_default_options();
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }

namespace {

using namespace LxOpt;
using lxtest::Counting;
using lxtest::DiagonalQuadratic;
using lxtest::MessageCapture;
using lxtest::Recorder;
using Vec = std::vector<double>;
using StateAt = std::pair<unsigned int, unsigned int>;  // (iteration, state)

std::vector<StateAt> StatesAt(const Recorder& r) {
  std::vector<StateAt> s;
  for (const lxtest::Call& c : r.calls) s.push_back({c.iter, c.state});
  return s;
}

double Norm(const Vec& v) {
  double s = 0.0;
  for (double e : v) s += e * e;
  return std::sqrt(s);
}

double MaxDifference(const Vec& a, const Vec& b) {
  double m = 0.0;
  for (size_t i = 0; i < a.size(); ++i) m = std::fmax(m, std::fabs(a[i] - b[i]));
  return m;
}

Vec Negated(Vec v) {
  for (double& e : v) e = -e;
  return v;
}

// f = 1/2 x'Ax - b'x, A = [4 1 0; 1 3 1; 0 1 2], b = (1, 2, 3); minimizer
// A^-1 b = (4, 2, 26) / 18, A^-1 = [5 -2 1; -2 8 -4; 1 -4 11] / 18.
class Coupled : public lxtest::Objective {
 public:
  using Objective::operator();
  unsigned int NumVar() const override { return 3; }
  double operator()(const double* x) override {
    double g[3];
    return (*this)(x, g);
  }
  double operator()(const double* x, double* g) override {
    const double ax[3] = {4 * x[0] + x[1], x[0] + 3 * x[1] + x[2], x[1] + 2 * x[2]};
    double f = 0.0;
    for (int i = 0; i < 3; ++i) {
      g[i] = ax[i] - (i + 1);
      f += 0.5 * x[i] * ax[i] - (i + 1) * x[i];
    }
    return f;
  }
  static Vec Minimizer() { return {4.0 / 18, 2.0 / 18, 26.0 / 18}; }
  static Vec PackedInverse() {
    return {5.0 / 18, -2.0 / 18, 8.0 / 18, 1.0 / 18, -4.0 / 18, 11.0 / 18};
  }
};

// sum_i 100 (x_{i+1} - x_i^2)^2 + (1 - x_i)^2: the curved valley chained over
// n variables; minimum 0 at (1, ..., 1).
class ChainedValley : public lxtest::Objective {
 public:
  using Objective::operator();
  explicit ChainedValley(unsigned int n) : n_(n) {}
  unsigned int NumVar() const override { return n_; }
  double operator()(const double* x) override {
    double f = 0.0;
    for (unsigned int i = 0; i + 1 < n_; ++i) {
      const double a = x[i + 1] - x[i] * x[i], b = 1.0 - x[i];
      f += 100.0 * a * a + b * b;
    }
    return f;
  }
  double operator()(const double* x, double* g) override {
    for (unsigned int i = 0; i < n_; ++i) g[i] = 0.0;
    for (unsigned int i = 0; i + 1 < n_; ++i) {
      const double a = x[i + 1] - x[i] * x[i];
      g[i] += -400.0 * a * x[i] - 2.0 * (1.0 - x[i]);
      g[i + 1] += 200.0 * a;
    }
    return (*this)(x);
  }

 private:
  unsigned int n_;
};

// Claims a number of variables it cannot serve; only counts evaluations.
class Huge : public lxtest::Objective {
 public:
  using Objective::operator();
  explicit Huge(unsigned int n) : n_(n) {}
  unsigned int NumVar() const override { return n_; }
  double operator()(const double*) override { return ++evaluations; }
  double operator()(const double*, double*) override { return ++evaluations; }
  int evaluations = 0;

 private:
  unsigned int n_;
};

// What a scripted line search saw and did on each call.
struct SearchLog {
  std::vector<Vec> dirs, grads, starts;
  Vec steps;     // trial step on entry
  Vec accepted;  // step written on success
  std::vector<Vec> maxStepCalls;
  int copies = 0;
};

// A line search whose outcome the test decides. Calls listed in failOn
// (counted from 1) return false without evaluating or writing anything.
// Otherwise kAccept evaluates the trial point once and succeeds when the
// value fell; kExact evaluates the trial point, then the minimum of the
// parabola through the two slopes (the exact line minimum of a quadratic):
// two evaluations. Copies share the log.
class Scripted : public LxLineMinimize {
 public:
  enum Mode { kAccept, kExact };
  explicit Scripted(Mode mode, std::set<int> failOn = {})
      : mode_(mode), failOn_(std::move(failOn)), log_(std::make_shared<SearchLog>()) {}
  bool operator()(unsigned int n, const double* x0, double* dir, double* grad0,
                  double* gradOut, double* fval, double* step, LxFunc1& func) const override {
    log_->dirs.emplace_back(dir, dir + n);
    log_->grads.emplace_back(grad0, grad0 + n);
    log_->starts.emplace_back(x0, x0 + n);
    log_->steps.push_back(*step);
    if (failOn_.count(static_cast<int>(log_->steps.size()))) return false;
    Vec x(n), g(n);
    auto evaluate = [&](double a) {
      for (unsigned int i = 0; i < n; ++i) x[i] = x0[i] + a * dir[i];
      return func(x.data(), g.data());
    };
    double a = *step;
    double f = evaluate(a);
    if (mode_ == kExact) {
      double slope0 = 0.0, slope = 0.0;
      for (unsigned int i = 0; i < n; ++i) {
        slope0 += grad0[i] * dir[i];
        slope += g[i] * dir[i];
      }
      a *= slope0 / (slope0 - slope);
      f = evaluate(a);
    }
    if (!(f < *fval)) return false;
    for (unsigned int i = 0; i < n; ++i) gradOut[i] = g[i];
    *fval = f;
    *step = a;
    log_->accepted.push_back(a);
    return true;
  }
  bool SetMaxStep(unsigned int n, double* x) override {
    log_->maxStepCalls.emplace_back(x, x + n);
    return false;
  }
  LxLineMinimize* CreateCopy() const override {
    ++log_->copies;
    return new Scripted(*this);
  }
  const SearchLog& log() const { return *log_; }

 private:
  Mode mode_;
  std::set<int> failOn_;
  std::shared_ptr<SearchLog> log_;
};

enum class Kind { kBFGS, kBFGSMod, kDFP };
const Kind kKinds[] = {Kind::kBFGS, Kind::kBFGSMod, Kind::kDFP};
const char* KindName(Kind k) {
  return k == Kind::kBFGS ? "BFGS" : k == Kind::kBFGSMod ? "BFGSMod" : "DFP";
}

template <class Opt>
std::unique_ptr<LxOptimizer1> Configured(const LxLineMinimize* lm) {
  auto o = std::make_unique<Opt>();
  if (lm) o->SetLineMinimize(*lm);
  return o;
}

std::unique_ptr<LxOptimizer1> Make(Kind kind, const LxLineMinimize* lm = nullptr) {
  if (kind == Kind::kBFGS) return Configured<LxBFGSOpt>(lm);
  if (kind == Kind::kBFGSMod) return Configured<LxBFGSModOpt>(lm);
  return Configured<LxDFPOpt>(lm);
}

// ------------------------------------------------------------ convergence

struct Problem {
  const char* name;
  std::function<std::unique_ptr<LxFunc1>()> make;
  Vec start, minimizer;
};

template <class F, class... Args>
std::function<std::unique_ptr<LxFunc1>()> Maker(Args... args) {
  return [=] { return std::unique_ptr<LxFunc1>(new F(args...)); };
}

const Problem kProblems[] = {
    {"quadratic2", Maker<DiagonalQuadratic>(Vec{1, 10}, Vec{3, -1}), {0, 0}, {3, -1}},
    {"coupled3", Maker<Coupled>(), {0, 0, 0}, Coupled::Minimizer()},
    {"illcond30", Maker<DiagonalQuadratic>(DiagonalQuadratic::IllConditioned(30, 1e3)),
     Vec(30, 0.0), Vec(30, 1.0)},
    {"valley2", Maker<lxtest::Rosenbrock>(), {-1.2, 1}, {1, 1}},
    {"valley10", Maker<ChainedValley>(10u), Vec(10, -0.5), Vec(10, 1.0)},
};

class Convergence : public ::testing::TestWithParam<std::tuple<Kind, int, bool>> {};

TEST_P(Convergence, EndsDoneAtTheMinimizer) {
  const auto [kind, index, cgSearch] = GetParam();
  const Problem& p = kProblems[index];
  const LxCGLineMinimize cg;
  auto opt = Make(kind, cgSearch ? &cg : nullptr);
  opt->SetTolerance(1e-14);
  std::unique_ptr<LxFunc1> f = p.make();
  Recorder r;
  Vec out(p.start.size());
  const double value = (*opt)(*f, &r, p.start.data(), out.data());
  ASSERT_FALSE(r.calls.empty());
  EXPECT_EQ(r.calls.back().state, kLxDone) << KindName(kind) << " " << p.name;
  EXPECT_LT(MaxDifference(out, p.minimizer), 1e-6) << KindName(kind) << " " << p.name;
  EXPECT_EQ(value, r.calls.back().fval);
  EXPECT_EQ(out, r.calls.back().vars);
  for (size_t i = 0; i + 1 < r.calls.size(); ++i) EXPECT_EQ(r.calls[i].state, kLxCont);
}

INSTANTIATE_TEST_SUITE_P(QuasiNewton, Convergence,
                         ::testing::Combine(::testing::ValuesIn(kKinds), ::testing::Range(0, 5),
                                            ::testing::Bool()));

// ------------------------------------------------------------ exit paths

TEST(QuasiNewtonExits, FirstTrialOnTheMinimumAndStartOnIt) {
  for (Kind kind : kKinds) {
    // f = x^2 from 1: the first trial step 1/|g| lands on the minimum.
    DiagonalQuadratic q({1}, {0});
    Counting counted(q);
    Recorder r;
    double x = 1.0;
    EXPECT_EQ((*Make(kind))(counted, &r, &x, &x), 0.0);
    EXPECT_EQ(StatesAt(r), (std::vector<StateAt>{{0, kLxCont}, {0, kLxDone}})) << KindName(kind);
    EXPECT_EQ(counted.gradients, 2);
    EXPECT_EQ(x, 0.0);

    // A start below the tolerance: one evaluation, one report.
    DiagonalQuadratic q2({1, 2}, {1, 1});
    Counting counted2(q2);
    Recorder r2;
    const double start[] = {1.0, 1.0 + 0x1p-10};
    double out[2];
    EXPECT_EQ((*Make(kind))(counted2, &r2, start, out), 0x1p-19);
    ASSERT_EQ(StatesAt(r2), (std::vector<StateAt>{{0, kLxNoOpt}}));
    EXPECT_EQ(r2.calls[0].gradNull, kind == Kind::kDFP);  // only DFP withholds it
    EXPECT_EQ(r2.calls[0].gnorm, 0x1p-8);
    EXPECT_EQ(counted2.gradients, 1);
  }
}

TEST(QuasiNewtonExits, LimitsAndCheckpointRequests) {
  const struct {
    unsigned int limit;
    unsigned long continueFor;
    std::vector<StateAt> expected;
  } cases[] = {
      {0, ~0ul, {{0, kLxExhaust}}},
      {3, ~0ul, {{0, kLxCont}, {1, kLxCont}, {2, kLxCont}, {3, kLxExhaust}}},
      {100, 0, {{0, kLxCont}, {0, kLxDone}}},
      {100, 2, {{0, kLxCont}, {1, kLxCont}, {2, kLxCont}, {2, kLxDone}}},
  };
  for (Kind kind : kKinds) {
    for (const auto& c : cases) {
      lxtest::Rosenbrock f;
      Recorder r;
      r.continueFor = c.continueFor;
      auto opt = Make(kind);
      opt->SetIterLimit(c.limit);
      const double start[] = {-1.2, 1.0};
      double out[2];
      const double value = (*opt)(f, &r, start, out);
      EXPECT_EQ(StatesAt(r), c.expected) << KindName(kind) << " limit " << c.limit;
      // The final report repeats the last point.
      const lxtest::Call& last = r.calls.back();
      EXPECT_EQ(value, last.fval);
      EXPECT_EQ(Vec(out, out + 2), last.vars);
      if (r.calls.size() > 1) {
        EXPECT_EQ(last.fval, r.calls[r.calls.size() - 2].fval);
      }
    }
  }
}

// f = (x0^2 + x1^2 - x2^2 - x3^2) / 2. From (1, 1, 1, 1) the first trial,
// step 1/|g| = 0.5 along -g, is exact: s = (-1, -1, 1, 1) / 2 and
// y = (-1, -1, -1, -1) / 2, so s.y = 0 while y != 0.
class Saddle : public lxtest::Objective {
 public:
  using Objective::operator();
  unsigned int NumVar() const override { return 4; }
  double operator()(const double* x) override {
    return 0.5 * (x[0] * x[0] + x[1] * x[1] - x[2] * x[2] - x[3] * x[3]);
  }
  double operator()(const double* x, double* g) override {
    for (int i = 0; i < 4; ++i) g[i] = i < 2 ? x[i] : -x[i];
    return (*this)(x);
  }
};

TEST(QuasiNewtonExits, LinearObjectiveAndZeroCurvature) {
  // The default search fails at once where f is linear; a search that takes
  // any decrease leaves y = 0 there, or s.y = 0 on the saddle: both end the
  // run as Done after the first step.
  for (Kind kind : kKinds) {
    Saddle saddle;
    const Scripted accept(Scripted::kAccept);
    const double one[] = {1.0, 1.0, 1.0, 1.0};
    double at[4];
    Recorder r;
    (*Make(kind, &accept))(saddle, &r, one, at);
    EXPECT_EQ(StatesAt(r), (std::vector<StateAt>{{0, kLxCont}, {0, kLxDone}})) << KindName(kind);

    lxtest::Linear f({1.0, 2.0});
    const double start[] = {0.0, 0.0};
    double out[2];
    Recorder failing, accepting;
    EXPECT_EQ((*Make(kind))(f, &failing, start, out), 0.0);
    EXPECT_EQ(StatesAt(failing), (std::vector<StateAt>{{0, kLxNotFound}})) << KindName(kind);
    EXPECT_NEAR((*Make(kind, &accept))(f, &accepting, start, out), -std::sqrt(5.0), 1e-15);
    EXPECT_EQ(StatesAt(accepting), (std::vector<StateAt>{{0, kLxCont}, {0, kLxDone}}));
  }
}

TEST(QuasiNewtonExits, FailedSearchesAndRestarts) {
  const Vec start(30, 0.0);
  const struct {
    std::set<int> failOn;
    std::vector<StateAt> expected;
    int gradients;  // 1 at the start, 2 per accepted search, 1 per restart
  } cases[] = {
      {{1}, {{0, kLxNotFound}}, 1},
      {{3, 4}, {{0, kLxCont}, {1, kLxCont}, {3, kLxNotFound}}, 6},
      {{3}, {{0, kLxCont}, {1, kLxCont}, {3, kLxCont}, {4, kLxExhaust}}, 8},
  };
  for (Kind kind : kKinds) {
    for (const auto& c : cases) {
      DiagonalQuadratic f = DiagonalQuadratic::IllConditioned(30, 1e3);
      Counting counted(f);
      Recorder r;
      const Scripted search(Scripted::kExact, c.failOn);
      auto opt = Make(kind, &search);
      opt->SetIterLimit(4);
      Vec out(30);
      const double value = (*opt)(counted, &r, start.data(), out.data());
      EXPECT_EQ(StatesAt(r), c.expected) << KindName(kind) << " fails " << *c.failOn.begin();
      EXPECT_EQ(counted.gradients, c.gradients);
      EXPECT_EQ(value, r.calls.back().fval);
      const SearchLog& log = search.log();
      if (c.failOn.count(3)) {
        // After the failure: same point, along -g, trial step 1/|g|.
        ASSERT_GE(log.dirs.size(), 4u);
        EXPECT_EQ(log.starts[3], log.starts[2]);
        EXPECT_EQ(log.dirs[3], Negated(log.grads[3]));
        EXPECT_DOUBLE_EQ(log.steps[3], 1.0 / Norm(log.grads[3]));
      }
    }
  }
}

TEST(QuasiNewtonExits, TrialStepScaledBySlopeRatio) {
  Coupled q;
  const Scripted search(Scripted::kExact);
  LxBFGSOpt opt;
  opt.SetLineMinimize(search);
  opt.SetIterLimit(3);
  opt.SetTolerance(-1.0);
  const double start[] = {0, 0, 0};
  double out[3];
  opt(q, start, out);
  const SearchLog& log = search.log();
  ASSERT_EQ(log.steps.size(), 3u);
  auto slope = [&](size_t k) {
    double s = 0.0;
    for (size_t i = 0; i < 3; ++i) s += log.grads[k][i] * log.dirs[k][i];
    return s;
  };
  EXPECT_DOUBLE_EQ(log.steps[0], 1.0 / Norm(log.grads[0]));
  EXPECT_EQ(log.dirs[0], Negated(log.grads[0]));
  // Iteration 0 passes the accepted step on unchanged; later ones scale it.
  EXPECT_EQ(log.steps[1], log.accepted[0]);
  EXPECT_DOUBLE_EQ(log.steps[2], log.accepted[1] * slope(1) / slope(2));
  // SetMaxStep is told the start once per run.
  ASSERT_EQ(log.maxStepCalls.size(), 1u);
  EXPECT_EQ(log.maxStepCalls[0], Vec(start, start + 3));
  opt(q, start, out);
  EXPECT_EQ(log.maxStepCalls.size(), 2u);
}

// ------------------------------------------------------------ kept Hessian

TEST(KeptHessian, ExtractionBeforeAndAfterARun) {
  Coupled q;
  LxBFGSOpt opt;
  Vec packed(6, -7.0);
  {
    MessageCapture capture;
    EXPECT_FALSE(opt.GetInverseHessian(packed.data(), 3));
    EXPECT_EQ(capture.Texts(), std::vector<std::string>{
                                   "Hessian can't be extracted because it was not generated"});
  }
  EXPECT_EQ(opt.GetHessianDimension(), 0u);

  // n exact line searches on a quadratic build the exact inverse.
  const Scripted exact(Scripted::kExact);
  opt.SetLineMinimize(exact);
  opt.SetKeepHessian(true);
  opt.SetIterLimit(3);
  opt.SetTolerance(-1.0);
  const double start[] = {0, 0, 0};
  double out[3];
  opt(q, start, out);
  EXPECT_EQ(opt.GetHessianDimension(), 9u);
  EXPECT_TRUE(opt.GetInverseHessian(packed.data(), 3));
  EXPECT_LT(MaxDifference(packed, Coupled::PackedInverse()), 1e-12);
  {
    MessageCapture capture;
    EXPECT_FALSE(opt.GetInverseHessian(packed.data(), 2));
    EXPECT_EQ(capture.Texts(),
              std::vector<std::string>{"Can't extract Hessian: Wrong number of variables"});
  }

  // A copy owns its matrix: a later run of the original does not touch it.
  LxBFGSOpt copy(opt);
  DiagonalQuadratic two({1, 2}, {0, 0});
  opt(two, start, out);
  EXPECT_EQ(opt.GetHessianDimension(), 4u);
  Vec copied(6);
  EXPECT_TRUE(copy.GetInverseHessian(copied.data(), 3));
  EXPECT_EQ(copied, packed);
}

TEST(KeptHessian, OneUpdateFromTheIdentity) {
  // After one search H = (I - r s y')(I - r y s') + r s s', r = 1/s.y: the
  // product form of the update, independent of how the optimizer writes it.
  Coupled q;
  const Scripted exact(Scripted::kExact);
  LxBFGSOpt opt;
  opt.SetLineMinimize(exact);
  opt.SetKeepHessian(true);
  opt.SetIterLimit(1);
  const double start[] = {0, 0, 0};
  double out[3], g1[3];
  opt(q, start, out);
  q(out, g1);
  const Vec& g0 = exact.log().grads[0];
  double s[3], y[3], sy = 0.0;
  for (int i = 0; i < 3; ++i) {
    s[i] = out[i] - start[i];
    y[i] = g1[i] - g0[i];
    sy += s[i] * y[i];
  }
  Vec expected;
  for (int i = 0; i < 3; ++i) {
    for (int j = 0; j <= i; ++j) {
      double h = s[i] * s[j] / sy;
      for (int k = 0; k < 3; ++k)
        h += ((i == k) - s[i] * y[k] / sy) * ((k == j) - y[k] * s[j] / sy);
      expected.push_back(h);
    }
  }
  Vec packed(6);
  ASSERT_TRUE(opt.GetInverseHessian(packed.data(), 3));
  EXPECT_LT(MaxDifference(packed, expected), 1e-12);
}

TEST(KeptHessian, RestartKeepsOrResetsTheMatrix) {
  // After a failed search the run goes on along -g. Without a kept Hessian
  // it then repeats, search for search, a fresh run from that point; with it
  // the second search after the restart already differs.
  Coupled q;
  const double start[] = {0, 0, 0};
  double out[3];
  for (bool keep : {false, true}) {
    const Scripted failing(Scripted::kExact, {3}), fresh(Scripted::kExact);
    LxBFGSOpt opt, reference;
    opt.SetLineMinimize(failing);
    opt.SetKeepHessian(keep);
    opt.SetIterLimit(5);
    opt.SetTolerance(-1.0);
    opt(q, start, out);
    const SearchLog& log = failing.log();
    ASSERT_EQ(log.dirs.size(), 5u);
    reference.SetLineMinimize(fresh);
    reference.SetIterLimit(2);
    reference.SetTolerance(-1.0);
    reference(q, log.starts[3].data(), out);
    ASSERT_EQ(fresh.log().dirs.size(), 2u);
    EXPECT_EQ(log.dirs[3], fresh.log().dirs[0]);
    EXPECT_EQ(MaxDifference(log.dirs[4], fresh.log().dirs[1]) > 1e-3, keep) << keep;
  }
}

// ------------------------------------------------------------ carried matrix

TEST(CarriedHessian, SecondRunContinuesTheFirst) {
  Coupled q;
  const double start[] = {0, 0, 0};
  double mid[3], out[3];
  const Scripted search(Scripted::kExact);
  LxBFGSModOpt opt;
  opt.SetLineMinimize(search);
  opt.SetIterLimit(2);
  opt.SetTolerance(-1.0);
  opt(q, start, mid);
  EXPECT_EQ(opt.GetHessianDimension(), 9u);
  LxBFGSModOpt copy(opt);  // carries the matrix and the step too

  // The step the first run ended with: what an uninterrupted run tries next.
  const Scripted whole(Scripted::kExact);
  LxBFGSModOpt uninterrupted;
  uninterrupted.SetLineMinimize(whole);
  uninterrupted.SetIterLimit(3);
  uninterrupted.SetTolerance(-1.0);
  uninterrupted(q, start, out);

  opt(q, mid, out);
  const SearchLog& log = search.log();
  ASSERT_EQ(log.dirs.size(), 4u);
  // The second run starts along -g with the carried step...
  EXPECT_EQ(log.dirs[2], Negated(log.grads[2]));
  EXPECT_EQ(log.steps[2], whole.log().steps[2]);
  EXPECT_NE(log.steps[2], 1.0 / Norm(log.grads[2]));
  // ... and then follows the carried matrix, as does the copy.
  const Scripted copied(Scripted::kExact), plain(Scripted::kExact);
  copy.SetLineMinimize(copied);
  copy(q, mid, out);
  ASSERT_EQ(copied.log().dirs.size(), 2u);
  EXPECT_EQ(copied.log().steps[0], log.steps[2]);
  EXPECT_EQ(copied.log().dirs[1], log.dirs[3]);
  // A new object starts from the identity and 1/|g|.
  LxBFGSModOpt fresh;
  fresh.SetLineMinimize(plain);
  fresh.SetIterLimit(2);
  fresh.SetTolerance(-1.0);
  fresh(q, mid, out);
  EXPECT_DOUBLE_EQ(plain.log().steps[0], 1.0 / Norm(plain.log().grads[0]));
  EXPECT_GT(MaxDifference(plain.log().dirs[1], log.dirs[3]), 1e-6);

  // Another number of variables discards the matrix.
  DiagonalQuadratic two({1, 3}, {0, 0});
  const double start2[] = {1, 1};
  opt(two, start2, out);
  ASSERT_EQ(log.dirs.size(), 6u);
  EXPECT_DOUBLE_EQ(log.steps[4], 1.0 / Norm(log.grads[4]));
  EXPECT_EQ(opt.GetHessianDimension(), 4u);
}

TEST(CarriedHessian, KeptHessianSurvivesTheCarry) {
  // A run that stops before its first search leaves the carried matrix as it
  // found it; with the Hessian kept both runs' matrices can be read.
  Coupled q;
  const double start[] = {0, 0, 0};
  double out[3];
  const Scripted exact(Scripted::kExact);
  LxBFGSModOpt opt;
  opt.SetLineMinimize(exact);
  opt.SetKeepHessian(true);
  opt.SetIterLimit(2);
  opt(q, start, out);
  Vec first(6), second(6);
  ASSERT_TRUE(opt.GetInverseHessian(first.data(), 3));
  opt.SetIterLimit(0);
  opt(q, out, out);
  ASSERT_TRUE(opt.GetInverseHessian(second.data(), 3));
  EXPECT_EQ(first, second);
  EXPECT_GT(MaxDifference(first, {1, 0, 1, 0, 0, 1}), 1e-3);
}

TEST(CarriedHessian, SetHessianChoosesIdentityOrCopy) {
  LxBFGSModOpt opt;
  double persistent[] = {5, 6, 7, 8}, work[4];
  opt.SetHessian(work, persistent, 2);
  EXPECT_EQ(Vec(work, work + 4), (Vec{1, 0, 0, 1}));
  DiagonalQuadratic q({1, 3}, {0, 0});
  const double start[] = {1, 1};
  double out[2];
  opt.SetIterLimit(1);
  opt(q, start, out);  // clears the restart flag
  opt.SetHessian(work, persistent, 2);
  EXPECT_EQ(Vec(work, work + 4), (Vec{5, 6, 7, 8}));
}

// ------------------------------------------------------------ DFP against BFGS

TEST(DFP, SameIteratesAsBFGSWithExactSearches) {
  // With exact searches on a quadratic both visit the same points and end
  // at the minimizer after n searches; with the default search they still
  // reach the same minimizer.
  Coupled q;
  const double start[] = {0, 0, 0};
  const Scripted forBFGS(Scripted::kExact), forDFP(Scripted::kExact);
  std::unique_ptr<LxOptimizer1> runs[] = {Make(Kind::kBFGS, &forBFGS), Make(Kind::kDFP, &forDFP),
                                          Make(Kind::kBFGS), Make(Kind::kDFP)};
  Recorder r[4];
  for (int k = 0; k < 4; ++k) {
    runs[k]->SetTolerance(1e-18);
    double out[3];
    (*runs[k])(q, &r[k], start, out);
    EXPECT_LT(MaxDifference(Vec(out, out + 3), Coupled::Minimizer()), 1e-7) << k;
  }
  ASSERT_EQ(r[0].calls.size(), r[1].calls.size());
  EXPECT_LE(r[0].calls.size(), 4u);
  for (size_t k = 0; k < r[0].calls.size(); ++k)
    EXPECT_LT(MaxDifference(r[0].calls[k].vars, r[1].calls[k].vars), 1e-12) << k;
}

// ------------------------------------------------------------ settings, copies

TEST(QuasiNewtonSettings, DefaultsAndDeepCopies) {
  const Scripted search(Scripted::kAccept);
  for (Kind kind : kKinds) {
    auto opt = Make(kind, &search);
    EXPECT_EQ(opt->GetIterLimit(), 1000u);
    EXPECT_EQ(opt->GetTolerance(), 0.1);
  }
  LxBFGSModOpt mod;
  mod.SetLineMinimize(search);
  mod.SetIterLimit(7);
  mod.SetKeepHessian(true);
  LxBFGSModOpt copy(mod);
  LxDFPOpt dfp, dfpCopy;
  dfp.SetLineMinimize(search);
  dfpCopy = dfp;
  const LxBFGSModOpt& alias = copy;
  copy = alias;
  // Five SetLineMinimize calls and two copies clone; self-assignment does not.
  EXPECT_EQ(search.log().copies, 7);
  EXPECT_EQ(copy.GetIterLimit(), 7u);
  EXPECT_TRUE(copy.GetKeepHessian());
  // The clones report to the same log: each run calls SetMaxStep once.
  DiagonalQuadratic q({1, 2}, {0, 0});
  const double start[] = {1, 1};
  double out[2];
  copy(q, start, out);
  dfpCopy(q, start, out);
  EXPECT_EQ(search.log().maxStepCalls.size(), 2u);
}

// ------------------------------------------------------------ bad input

// Lowers the address-space limit to what the process maps now plus a margin,
// so that large requests fail whatever the machine's memory and overcommit
// policy; restores it on destruction.
class AddressSpaceCap {
 public:
  AddressSpaceCap() {
    getrlimit(RLIMIT_AS, &saved_);
    std::ifstream status("/proc/self/status");
    std::string key;
    unsigned long long kib = 0;
    while (status >> key && key != "VmSize:") {
    }
    status >> kib;
    rlimit capped = saved_;
    capped.rlim_cur = kib * 1024ull + (1ull << 30);
    ok_ = kib != 0 && setrlimit(RLIMIT_AS, &capped) == 0;
  }
  ~AddressSpaceCap() { setrlimit(RLIMIT_AS, &saved_); }
  bool ok() const { return ok_; }

 private:
  rlimit saved_{};
  bool ok_ = false;
};

TEST(QuasiNewtonBadInput, NullOutputAndNoVariables) {
  for (Kind kind : kKinds) {
    // Even a number of variables whose scratch cannot exist gives only this
    // warning, without an evaluation.
    Huge f(0xFFFFFFFFu);
    Recorder r;
    MessageCapture capture;
    const double start = 1.0;
    EXPECT_EQ((*Make(kind))(f, &r, &start, nullptr), 0.0);
    ASSERT_EQ(capture.Texts(),
              std::vector<std::string>{"memory not provided for optimized variables"});
    EXPECT_EQ(capture.messages[0].level, LxMessageLevel::Warning);
    EXPECT_TRUE(r.calls.empty());
    EXPECT_EQ(f.evaluations, 0);

    // n = 0 meets any positive tolerance; with none the search finds nothing.
    DiagonalQuadratic empty({}, {});
    Recorder r1, r2;
    auto opt = Make(kind);
    double none = 5.0;
    EXPECT_EQ((*opt)(empty, &r1, &none, &none), 0.0);
    opt->SetTolerance(0.0);
    EXPECT_EQ((*opt)(empty, &r2, &none, &none), 0.0);
    EXPECT_EQ(StatesAt(r1), (std::vector<StateAt>{{0, kLxNoOpt}})) << KindName(kind);
    EXPECT_EQ(StatesAt(r2), (std::vector<StateAt>{{0, kLxNotFound}})) << KindName(kind);
  }
}

TEST(QuasiNewtonBadInput, AllocationFailures) {
  AddressSpaceCap cap;
  ASSERT_TRUE(cap.ok());
  const std::string scratch = "out of memory allocating 2147483647 in LxBFGSOpt::operator()";
  // 7 n doubles for n = 2^30 + 1 cannot be had: the run ends before the first
  // evaluation, so before the limit on n is looked at.
  for (Kind kind : kKinds) {
    Huge f(1073741825u);
    Recorder r;
    MessageCapture capture;
    double x = 0.0;
    EXPECT_EQ((*Make(kind))(f, &r, &x, &x), 0.0);
    EXPECT_EQ(capture.Texts(), std::vector<std::string>{scratch});
    EXPECT_TRUE(r.calls.empty());
    EXPECT_EQ(f.evaluations, 0);
  }
  // n = 100000: the vectors fit, the 80 GB matrix does not. DFP asks for
  // n * n * 8 mod 2^32 bytes (2.7 GB), which does not fit either.
  const unsigned int n = 100000;
  lxtest::Linear f(Vec(n, 1.0));
  Vec x(n, 0.0);
  const struct {
    Kind kind;
    std::vector<std::string> texts;
    LxMessageLevel level;
  } cases[] = {
      {Kind::kBFGS, {"Can't allocate Hessian. Too many variables."}, LxMessageLevel::Error},
      {Kind::kBFGSMod, {scratch}, LxMessageLevel::Warning},
      {Kind::kDFP, {}, LxMessageLevel::Info},
  };
  for (const auto& c : cases) {
    Counting counted(f);
    Recorder r;
    MessageCapture capture;
    EXPECT_EQ((*Make(c.kind))(counted, &r, x.data(), x.data()), 0.0) << KindName(c.kind);
    EXPECT_EQ(capture.Texts(), c.texts);
    for (const auto& m : capture.messages) EXPECT_EQ(m.level, c.level);
    EXPECT_TRUE(r.calls.empty());
    EXPECT_EQ(counted.gradients, 1);
  }
}

TEST(QuasiNewtonBadInput, DFPByteCountWrapsIn32Bits) {
  // n * n * 8 in 32 bits: 65536 wraps to 0 bytes and 23171 to 194632; both
  // blocks are too small for the matrix, so the run ends with 0.0 silently.
  for (unsigned int n : {65536u, 23171u}) {
    lxtest::Linear f(Vec(n, 1.0));
    Counting counted(f);
    Vec x(n, 0.0);
    Recorder r;
    MessageCapture capture;
    LxDFPOpt dfp;
    EXPECT_EQ(dfp(counted, &r, x.data(), x.data()), 0.0) << n;
    EXPECT_TRUE(capture.messages.empty());
    EXPECT_TRUE(r.calls.empty());
    EXPECT_EQ(counted.gradients, 1);
  }
}

}  // namespace
