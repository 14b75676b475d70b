// BFGS, BFGS with a carried matrix, and DFP.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cmath>
#include <fstream>
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

using StateAt = std::pair<unsigned int, unsigned int>;  // (iteration, state)

std::vector<StateAt> StatesAt(const Recorder& r) {
  std::vector<StateAt> s;
  for (const lxtest::Call& c : r.calls) s.push_back({c.iter, c.state});
  return s;
}

// f = 1/2 (x - c)' A (x - c) with a dense symmetric positive definite A.
class DenseQuadratic : public lxtest::Objective {
 public:
  using Objective::operator();
  DenseQuadratic(std::vector<std::vector<double>> a, std::vector<double> c)
      : a_(std::move(a)), c_(std::move(c)) {}
  // A 4 x 4 matrix with off-diagonal coupling and minimizer (1, -2, 3, 0.5).
  static DenseQuadratic Coupled() {
    return DenseQuadratic({{4, 1, 0.5, 0}, {1, 3, 0.2, 0.1}, {0.5, 0.2, 2, 0.3}, {0, 0.1, 0.3, 1}},
                          {1, -2, 3, 0.5});
  }
  unsigned int NumVar() const override { return static_cast<unsigned int>(c_.size()); }
  double operator()(const double* x) override {
    std::vector<double> g(c_.size());
    return (*this)(x, g.data());
  }
  double operator()(const double* x, double* g) override {
    double f = 0.0;
    for (size_t i = 0; i < c_.size(); ++i) {
      g[i] = 0.0;
      for (size_t j = 0; j < c_.size(); ++j) g[i] += a_[i][j] * (x[j] - c_[j]);
      f += 0.5 * (x[i] - c_[i]) * g[i];
    }
    return f;
  }
  const std::vector<double>& minimizer() const { return c_; }
  const std::vector<std::vector<double>>& matrix() const { return a_; }

 private:
  std::vector<std::vector<double>> a_;
  std::vector<double> c_;
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

// Reports a number of variables it cannot serve; evaluating it is a failure.
class Huge : public lxtest::Objective {
 public:
  using Objective::operator();
  explicit Huge(unsigned int n) : n_(n) {}
  unsigned int NumVar() const override { return n_; }
  double operator()(const double*) override {
    ++evaluations;
    return 0.0;
  }
  double operator()(const double*, double*) override {
    ++evaluations;
    return 0.0;
  }
  int evaluations = 0;

 private:
  unsigned int n_;
};

// What a scripted line search saw on each call.
struct SearchLog {
  std::vector<std::vector<double>> dirs, grads, starts;
  std::vector<double> steps;     // trial step on entry
  std::vector<double> accepted;  // step written on success
  std::vector<std::vector<double>> maxStepCalls;
  int copies = 0;
};

// A line search whose outcome the test decides. Calls listed in failOn
// (counted from 1) return false without evaluating or writing anything.
// Otherwise, Accept evaluates the trial point once and succeeds when the value
// fell; Exact evaluates the trial point and then the minimum of the parabola
// through the two slopes (the exact line minimum of a quadratic), two
// evaluations. Copies share the log.
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
    std::vector<double> x(n), g(n);
    double a = *step;
    double f = Evaluate(n, x0, dir, a, func, x, g);
    if (mode_ == kExact) {
      double slope0 = 0.0, slope = 0.0;
      for (unsigned int i = 0; i < n; ++i) {
        slope0 += grad0[i] * dir[i];
        slope += g[i] * dir[i];
      }
      a = a * slope0 / (slope0 - slope);
      f = Evaluate(n, x0, dir, a, func, x, g);
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
  static double Evaluate(unsigned int n, const double* x0, const double* dir, double a,
                         LxFunc1& func, std::vector<double>& x, std::vector<double>& g) {
    for (unsigned int i = 0; i < n; ++i) x[i] = x0[i] + a * dir[i];
    return func(x.data(), g.data());
  }
  Mode mode_;
  std::set<int> failOn_;
  std::shared_ptr<SearchLog> log_;
};

double Norm(const std::vector<double>& v) {
  double s = 0.0;
  for (double e : v) s += e * e;
  return std::sqrt(s);
}

double MaxDifference(const std::vector<double>& a, const std::vector<double>& b) {
  double m = 0.0;
  for (size_t i = 0; i < a.size(); ++i) m = std::fmax(m, std::fabs(a[i] - b[i]));
  return m;
}

std::vector<double> Negated(const std::vector<double>& v) {
  std::vector<double> r(v);
  for (double& e : r) e = -e;
  return r;
}

// ------------------------------------------------------------ convergence

enum class Kind { kBFGS, kBFGSMod, kDFP };
const char* KindName(Kind k) {
  return k == Kind::kBFGS ? "BFGS" : k == Kind::kBFGSMod ? "BFGSMod" : "DFP";
}

std::unique_ptr<LxOptimizer1> Make(Kind kind, const LxLineMinimize* lm = nullptr) {
  switch (kind) {
    case Kind::kBFGS: {
      auto o = std::make_unique<LxBFGSOpt>();
      if (lm) o->SetLineMinimize(*lm);
      return o;
    }
    case Kind::kBFGSMod: {
      auto o = std::make_unique<LxBFGSModOpt>();
      if (lm) o->SetLineMinimize(*lm);
      return o;
    }
    case Kind::kDFP: {
      auto o = std::make_unique<LxDFPOpt>();
      if (lm) o->SetLineMinimize(*lm);
      return o;
    }
  }
  return nullptr;
}

struct Problem {
  const char* name;
  std::function<std::unique_ptr<LxOpt::LxFunc1>()> make;
  std::vector<double> start, minimizer;
};

std::vector<Problem> Problems() {
  auto diag = [](std::vector<double> d, std::vector<double> c) {
    return [d, c] { return std::unique_ptr<LxFunc1>(new DiagonalQuadratic(d, c)); };
  };
  auto ill = [] {
    return std::unique_ptr<LxFunc1>(
        new DiagonalQuadratic(DiagonalQuadratic::IllConditioned(30, 1e3)));
  };
  return {
      {"quadratic2", diag({1, 10}, {3, -1}), {0, 0}, {3, -1}},
      {"coupled4", [] { return std::unique_ptr<LxFunc1>(new DenseQuadratic(
                            DenseQuadratic::Coupled())); },
       {0, 0, 0, 0}, {1, -2, 3, 0.5}},
      {"illcond30", ill, std::vector<double>(30, 0.0), std::vector<double>(30, 1.0)},
      {"valley2", [] { return std::unique_ptr<LxFunc1>(new lxtest::Rosenbrock()); }, {-1.2, 1},
       {1, 1}},
      {"valley10", [] { return std::unique_ptr<LxFunc1>(new ChainedValley(10)); },
       std::vector<double>(10, -0.5), std::vector<double>(10, 1.0)},
  };
}

class Convergence : public ::testing::TestWithParam<std::tuple<Kind, int, int>> {};

TEST_P(Convergence, EndsDoneAtTheMinimizer) {
  const Kind kind = std::get<0>(GetParam());
  const Problem p = Problems()[std::get<1>(GetParam())];
  const LxQNLineMinimize qn;
  const LxCGLineMinimize cg;
  const LxLineMinimize* searches[] = {&qn, &cg};
  auto opt = Make(kind, searches[std::get<2>(GetParam())]);
  opt->SetTolerance(1e-14);
  std::unique_ptr<LxFunc1> f = p.make();
  Recorder r;
  std::vector<double> out(p.start.size());
  const double value = (*opt)(*f, &r, p.start.data(), out.data());
  ASSERT_FALSE(r.calls.empty());
  EXPECT_EQ(r.calls.back().state, kLxDone) << KindName(kind) << " " << p.name;
  EXPECT_LT(r.calls.back().gnorm, 1e-7);
  EXPECT_LT(MaxDifference(out, p.minimizer), 1e-6) << KindName(kind) << " " << p.name;
  EXPECT_EQ(value, r.calls.back().fval);
  EXPECT_EQ(out, r.calls.back().vars);
  for (size_t i = 0; i + 1 < r.calls.size(); ++i) EXPECT_EQ(r.calls[i].state, kLxCont);
}

INSTANTIATE_TEST_SUITE_P(QuasiNewton, Convergence,
                         ::testing::Combine(::testing::Values(Kind::kBFGS, Kind::kBFGSMod,
                                                              Kind::kDFP),
                                            ::testing::Range(0, 5), ::testing::Range(0, 2)));

// ------------------------------------------------------------ exit paths

TEST(QuasiNewtonExits, OneExactStepConvergesWithTwoEvaluations) {
  // f = x^2 from x = 1: the first trial step 1/|g| lands on the minimum,
  // where the default search accepts at once.
  for (Kind kind : {Kind::kBFGS, Kind::kBFGSMod, Kind::kDFP}) {
    DiagonalQuadratic q({1}, {0});
    Counting counted(q);
    Recorder r;
    double x = 1.0;
    EXPECT_EQ((*Make(kind))(counted, &r, &x, &x), 0.0);
    EXPECT_EQ(StatesAt(r), (std::vector<StateAt>{{0, kLxCont}, {0, kLxDone}})) << KindName(kind);
    EXPECT_EQ(counted.gradients, 2);
    EXPECT_EQ(counted.values, 0);
    EXPECT_EQ(x, 0.0);
  }
}

TEST(QuasiNewtonExits, StartAtTheMinimumReportsNoOpt) {
  for (Kind kind : {Kind::kBFGS, Kind::kBFGSMod, Kind::kDFP}) {
    DiagonalQuadratic q({1, 2}, {1, 1});
    Counting counted(q);
    Recorder r;
    const double start[] = {1.0, 1.0 + 0x1p-10};
    double out[2];
    EXPECT_EQ((*Make(kind))(counted, &r, start, out), 0x1p-19);
    ASSERT_EQ(StatesAt(r), (std::vector<StateAt>{{0, kLxNoOpt}})) << KindName(kind);
    // Only DFP withholds the gradient from this report.
    EXPECT_EQ(r.calls[0].gradNull, kind == Kind::kDFP);
    EXPECT_EQ(r.calls[0].gnorm, 0x1p-8);
    EXPECT_EQ(counted.gradients, 1);
    EXPECT_EQ(out[1], start[1]);
  }
}

TEST(QuasiNewtonExits, LimitsAndCheckpointRequests) {
  struct Case {
    unsigned int limit;
    unsigned long continueFor;
    std::vector<StateAt> expected;
  } cases[] = {
      {0, ~0ul, {{0, kLxExhaust}}},
      {3, ~0ul, {{0, kLxCont}, {1, kLxCont}, {2, kLxCont}, {3, kLxExhaust}}},
      {100, 0, {{0, kLxCont}, {0, kLxDone}}},
      {100, 2, {{0, kLxCont}, {1, kLxCont}, {2, kLxCont}, {2, kLxDone}}},
  };
  for (Kind kind : {Kind::kBFGS, Kind::kBFGSMod, Kind::kDFP}) {
    for (const Case& c : cases) {
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
      EXPECT_EQ(std::vector<double>(out, out + 2), last.vars);
      if (r.calls.size() > 1) {
        EXPECT_EQ(last.fval, r.calls[r.calls.size() - 2].fval);
      }
    }
  }
}

TEST(QuasiNewtonExits, LinearObjective) {
  // The default search fails at once on a line where f is linear; a search
  // that accepts any decrease leaves y = 0, so s.y = 0 ends the run as Done.
  for (Kind kind : {Kind::kBFGS, Kind::kBFGSMod, Kind::kDFP}) {
    lxtest::Linear f({1.0, 2.0});
    const double start[] = {0.0, 0.0};
    double out[2];
    Recorder failing;
    EXPECT_EQ((*Make(kind))(f, &failing, start, out), 0.0);
    EXPECT_EQ(StatesAt(failing), (std::vector<StateAt>{{0, kLxNotFound}})) << KindName(kind);

    Recorder accepting;
    const Scripted accept(Scripted::kAccept);
    const double value = (*Make(kind, &accept))(f, &accepting, start, out);
    EXPECT_EQ(StatesAt(accepting), (std::vector<StateAt>{{0, kLxCont}, {0, kLxDone}}));
    // One step of length 1 along -g.
    EXPECT_NEAR(value, -std::sqrt(5.0), 1e-15);
  }
}

TEST(QuasiNewtonExits, FailedSearchesAndRestarts) {
  const std::vector<double> start(30, 0.0);
  struct Case {
    std::set<int> failOn;
    std::vector<StateAt> expected;
    int gradients;  // 1 at the start, 2 per accepted search, 1 per restart
  } cases[] = {
      {{1}, {{0, kLxNotFound}}, 1},
      {{3, 4}, {{0, kLxCont}, {1, kLxCont}, {3, kLxNotFound}}, 6},
      {{3}, {{0, kLxCont}, {1, kLxCont}, {3, kLxCont}, {4, kLxExhaust}}, 8},
  };
  for (Kind kind : {Kind::kBFGS, Kind::kBFGSMod, Kind::kDFP}) {
    for (const Case& c : cases) {
      DiagonalQuadratic f = DiagonalQuadratic::IllConditioned(30, 1e3);
      Counting counted(f);
      Recorder r;
      const Scripted search(Scripted::kExact, c.failOn);
      auto opt = Make(kind, &search);
      opt->SetIterLimit(4);
      std::vector<double> out(30);
      const double value = (*opt)(counted, &r, start.data(), out.data());
      EXPECT_EQ(StatesAt(r), c.expected) << KindName(kind) << " fails " << *c.failOn.begin();
      EXPECT_EQ(counted.gradients, c.gradients);
      EXPECT_EQ(value, r.calls.back().fval);
      const SearchLog& log = search.log();
      if (c.failOn.count(3)) {
        // The search after the failure starts along -g at the same point
        // with the trial step 1/|g|.
        ASSERT_GE(log.dirs.size(), 4u);
        EXPECT_EQ(log.starts[3], log.starts[2]);
        EXPECT_EQ(log.dirs[3], Negated(log.grads[3]));
        EXPECT_DOUBLE_EQ(log.steps[3], 1.0 / Norm(log.grads[3]));
      }
    }
  }
}

TEST(QuasiNewtonExits, TrialStepScaledBySlopeRatio) {
  DenseQuadratic q = DenseQuadratic::Coupled();
  const Scripted search(Scripted::kExact);
  LxBFGSOpt opt;
  opt.SetLineMinimize(search);
  opt.SetIterLimit(4);
  opt.SetTolerance(-1.0);
  const double start[] = {0, 0, 0, 0};
  double out[4];
  opt(q, start, out);
  const SearchLog& log = search.log();
  ASSERT_EQ(log.steps.size(), 4u);
  auto slope = [&](size_t k) {
    double s = 0.0;
    for (size_t i = 0; i < 4; ++i) s += log.grads[k][i] * log.dirs[k][i];
    return s;
  };
  EXPECT_DOUBLE_EQ(log.steps[0], 1.0 / Norm(log.grads[0]));
  EXPECT_EQ(log.dirs[0], Negated(log.grads[0]));
  // Iteration 0 passes the accepted step on unchanged; later ones scale it.
  EXPECT_EQ(log.steps[1], log.accepted[0]);
  for (size_t k = 2; k < 4; ++k)
    EXPECT_DOUBLE_EQ(log.steps[k], log.accepted[k - 1] * slope(k - 1) / slope(k)) << k;
  // SetMaxStep is told the start once per run.
  ASSERT_EQ(log.maxStepCalls.size(), 1u);
  EXPECT_EQ(log.maxStepCalls[0], std::vector<double>(start, start + 4));
  opt(q, start, out);
  EXPECT_EQ(log.maxStepCalls.size(), 2u);
}

// ------------------------------------------------------------ kept Hessian

// Lower triangle of A^-1 for the coupled quadratic, packed by rows.
std::vector<double> PackedInverse(const DenseQuadratic& q) {
  const unsigned int n = q.NumVar();
  // Gauss-Jordan on [A | I].
  std::vector<std::vector<double>> m = q.matrix();
  std::vector<std::vector<double>> inv(n, std::vector<double>(n, 0.0));
  for (unsigned int i = 0; i < n; ++i) inv[i][i] = 1.0;
  for (unsigned int c = 0; c < n; ++c) {
    const double pivot = m[c][c];
    for (unsigned int j = 0; j < n; ++j) {
      m[c][j] /= pivot;
      inv[c][j] /= pivot;
    }
    for (unsigned int r = 0; r < n; ++r) {
      if (r == c) continue;
      const double factor = m[r][c];
      for (unsigned int j = 0; j < n; ++j) {
        m[r][j] -= factor * m[c][j];
        inv[r][j] -= factor * inv[c][j];
      }
    }
  }
  std::vector<double> packed;
  for (unsigned int i = 0; i < n; ++i)
    for (unsigned int j = 0; j <= i; ++j) packed.push_back(inv[i][j]);
  return packed;
}

TEST(KeptHessian, ExtractionBeforeAndAfterARun) {
  DenseQuadratic q = DenseQuadratic::Coupled();
  LxBFGSOpt opt;
  std::vector<double> packed(10, -7.0);
  {
    MessageCapture capture;
    EXPECT_FALSE(opt.GetInverseHessian(packed.data(), 4));
    EXPECT_EQ(capture.Texts(),
              std::vector<std::string>{"Hessian can't be extracted because it was not generated"});
  }
  EXPECT_EQ(opt.GetHessianDimension(), 0u);

  // n exact line searches on a quadratic build the exact inverse.
  const Scripted exact(Scripted::kExact);
  opt.SetLineMinimize(exact);
  opt.SetKeepHessian(true);
  opt.SetIterLimit(4);
  opt.SetTolerance(-1.0);
  const double start[] = {0, 0, 0, 0};
  double out[4];
  Recorder r;
  opt(q, &r, start, out);
  EXPECT_EQ(r.calls.back().state, kLxExhaust);
  EXPECT_EQ(opt.GetHessianDimension(), 16u);
  EXPECT_TRUE(opt.GetInverseHessian(packed.data(), 4));
  EXPECT_LT(MaxDifference(packed, PackedInverse(q)), 1e-10);

  MessageCapture capture;
  EXPECT_FALSE(opt.GetInverseHessian(packed.data(), 3));
  EXPECT_EQ(capture.Texts(),
            std::vector<std::string>{"Can't extract Hessian: Wrong number of variables"});

  // A copy owns its own matrix: a later run of the original does not touch it.
  LxBFGSOpt copy(opt);
  DiagonalQuadratic three({1, 2, 3}, {0, 0, 0});
  const double start3[] = {1, 1, 1};
  double out3[3];
  opt(three, start3, out3);
  EXPECT_EQ(opt.GetHessianDimension(), 9u);
  std::vector<double> copied(10);
  EXPECT_TRUE(copy.GetInverseHessian(copied.data(), 4));
  EXPECT_EQ(copied, packed);
}

TEST(KeptHessian, OneUpdateFromTheIdentity) {
  // After one search H = (I - r s y')(I - r y s') + r s s', r = 1/s.y: the
  // product form of the update, independent of how the optimizer writes it.
  DenseQuadratic q = DenseQuadratic::Coupled();
  const Scripted exact(Scripted::kExact);
  LxBFGSOpt opt;
  opt.SetLineMinimize(exact);
  opt.SetKeepHessian(true);
  opt.SetIterLimit(1);
  const double start[] = {0, 0, 0, 0};
  double out[4];
  opt(q, start, out);
  std::vector<double> g1(4);
  q(out, g1.data());
  const std::vector<double>& g0 = exact.log().grads[0];
  double s[4], y[4], sy = 0.0;
  for (int i = 0; i < 4; ++i) {
    s[i] = out[i] - start[i];
    y[i] = g1[i] - g0[i];
    sy += s[i] * y[i];
  }
  const double r = 1.0 / sy;
  std::vector<double> expected;
  for (int i = 0; i < 4; ++i) {
    for (int j = 0; j <= i; ++j) {
      double h = r * s[i] * s[j];
      for (int k = 0; k < 4; ++k)
        h += ((i == k) - r * s[i] * y[k]) * ((k == j) - r * y[k] * s[j]);
      expected.push_back(h);
    }
  }
  std::vector<double> packed(10);
  ASSERT_TRUE(opt.GetInverseHessian(packed.data(), 4));
  EXPECT_LT(MaxDifference(packed, expected), 1e-12);
}

TEST(KeptHessian, RestartKeepsOrResetsTheMatrix) {
  // After a failed search the run goes on along -g. Without a kept Hessian
  // it then repeats, search for search, a fresh run from that point; with
  // the Hessian kept the second search after the restart already differs.
  DenseQuadratic q = DenseQuadratic::Coupled();
  const double start[] = {0, 0, 0, 0};
  double out[4];
  for (bool keep : {false, true}) {
    const Scripted failing(Scripted::kExact, {3});
    LxBFGSOpt opt;
    opt.SetLineMinimize(failing);
    opt.SetKeepHessian(keep);
    opt.SetIterLimit(5);
    opt.SetTolerance(-1.0);
    opt(q, start, out);
    const SearchLog& log = failing.log();
    ASSERT_EQ(log.dirs.size(), 5u);

    const Scripted fresh(Scripted::kExact);
    LxBFGSOpt reference;
    reference.SetLineMinimize(fresh);
    reference.SetIterLimit(2);
    reference.SetTolerance(-1.0);
    reference(q, log.starts[3].data(), out);
    ASSERT_EQ(fresh.log().dirs.size(), 2u);
    EXPECT_EQ(log.dirs[3], fresh.log().dirs[0]);
    if (keep) {
      EXPECT_GT(MaxDifference(log.dirs[4], fresh.log().dirs[1]), 1e-3);
    } else {
      EXPECT_LT(MaxDifference(log.dirs[4], fresh.log().dirs[1]), 1e-12);
    }
  }
}

TEST(KeptHessian, FailureAtOnceStoresTheIdentity) {
  DiagonalQuadratic q({1, 2}, {0, 0});
  const Scripted failing(Scripted::kAccept, {1});
  LxBFGSOpt opt;
  opt.SetLineMinimize(failing);
  opt.SetKeepHessian(true);
  const double start[] = {1, 1};
  double out[2];
  opt(q, start, out);
  std::vector<double> packed(3);
  ASSERT_TRUE(opt.GetInverseHessian(packed.data(), 2));
  EXPECT_EQ(packed, (std::vector<double>{1, 0, 1}));
}

// ------------------------------------------------------------ carried matrix

TEST(CarriedHessian, SecondRunContinuesTheFirst) {
  DenseQuadratic q = DenseQuadratic::Coupled();
  const double start[] = {0, 0, 0, 0};
  double mid[4], out[4];

  const Scripted search(Scripted::kExact);
  LxBFGSModOpt opt;
  opt.SetLineMinimize(search);
  opt.SetIterLimit(2);
  opt.SetTolerance(-1.0);
  opt(q, start, mid);
  EXPECT_EQ(opt.GetHessianDimension(), 16u);
  LxBFGSModOpt copy(opt);  // carries the matrix and step too

  // The full run that the two halves should reproduce.
  const Scripted whole(Scripted::kExact);
  LxBFGSModOpt reference;
  reference.SetLineMinimize(whole);
  reference.SetIterLimit(4);
  reference.SetTolerance(-1.0);
  reference(q, start, out);

  opt(q, mid, out);
  const SearchLog& log = search.log();
  ASSERT_EQ(log.dirs.size(), 4u);
  // Each run starts along -g; the second with the step the first ended with.
  EXPECT_EQ(log.dirs[2], Negated(log.grads[2]));
  EXPECT_EQ(log.steps[2], whole.log().steps[2]);
  EXPECT_NE(log.steps[2], 1.0 / Norm(log.grads[2]));
  // From there on the carried matrix steers the search; a copy made between
  // the runs carries the same matrix and step.
  const std::vector<double> restartedDir = log.dirs[3];

  const Scripted copied(Scripted::kExact);
  copy.SetLineMinimize(copied);
  copy(q, mid, out);
  ASSERT_EQ(copied.log().dirs.size(), 2u);
  EXPECT_EQ(copied.log().dirs[1], restartedDir);
  EXPECT_EQ(copied.log().steps[0], log.steps[2]);

  // A new object with the same settings starts from the identity and 1/|g|.
  const Scripted plain(Scripted::kExact);
  LxBFGSModOpt fresh;
  fresh.SetLineMinimize(plain);
  fresh.SetIterLimit(2);
  fresh.SetTolerance(-1.0);
  fresh(q, mid, out);
  EXPECT_DOUBLE_EQ(plain.log().steps[0], 1.0 / Norm(plain.log().grads[0]));
  EXPECT_GT(MaxDifference(plain.log().dirs[1], restartedDir), 1e-6);

  // Another number of variables discards the matrix.
  DiagonalQuadratic two({1, 3}, {0, 0});
  const double start2[] = {1, 1};
  double out2[2];
  opt(two, start2, out2);
  ASSERT_EQ(log.dirs.size(), 6u);
  EXPECT_DOUBLE_EQ(log.steps[4], 1.0 / Norm(log.grads[4]));
  EXPECT_EQ(opt.GetHessianDimension(), 4u);
}

TEST(CarriedHessian, SetHessianChoosesIdentityOrCopy) {
  LxBFGSModOpt opt;
  const double persistent[] = {5, 6, 7, 8};
  double work[4];
  opt.SetHessian(work, const_cast<double*>(persistent), 2);
  EXPECT_EQ(std::vector<double>(work, work + 4), (std::vector<double>{1, 0, 0, 1}));
  DiagonalQuadratic q({1, 3}, {0, 0});
  const double start[] = {1, 1};
  double out[2];
  opt.SetIterLimit(1);
  opt(q, start, out);  // clears the restart flag
  opt.SetHessian(work, const_cast<double*>(persistent), 2);
  EXPECT_EQ(std::vector<double>(work, work + 4), (std::vector<double>{5, 6, 7, 8}));
}

// ------------------------------------------------------------ DFP against BFGS

TEST(DFP, SameIteratesAsBFGSWithExactSearches) {
  DenseQuadratic q = DenseQuadratic::Coupled();
  const double start[] = {0, 0, 0, 0};
  const Scripted forBFGS(Scripted::kExact), forDFP(Scripted::kExact);
  LxBFGSOpt bfgs;
  bfgs.SetLineMinimize(forBFGS);
  LxDFPOpt dfp;
  dfp.SetLineMinimize(forDFP);
  for (LxOptimizer1* opt : {static_cast<LxOptimizer1*>(&bfgs), static_cast<LxOptimizer1*>(&dfp)})
    opt->SetTolerance(1e-16);
  double outB[4], outD[4];
  Recorder rB, rD;
  bfgs(q, &rB, start, outB);
  dfp(q, &rD, start, outD);
  // Finite termination on a quadratic: n searches, the same points in both.
  ASSERT_EQ(rB.calls.size(), rD.calls.size());
  EXPECT_LE(rB.calls.size(), 6u);
  for (size_t k = 0; k < rB.calls.size(); ++k)
    EXPECT_LT(MaxDifference(rB.calls[k].vars, rD.calls[k].vars), 1e-9) << k;
  EXPECT_LT(MaxDifference(std::vector<double>(outB, outB + 4), q.minimizer()), 1e-9);
  // With the default inexact search they still reach the same minimizer.
  LxBFGSOpt bfgs2;
  LxDFPOpt dfp2;
  bfgs2.SetTolerance(1e-18);
  dfp2.SetTolerance(1e-18);
  bfgs2(q, start, outB);
  dfp2(q, start, outD);
  EXPECT_LT(MaxDifference(std::vector<double>(outB, outB + 4), q.minimizer()), 1e-9);
  EXPECT_LT(MaxDifference(std::vector<double>(outD, outD + 4), q.minimizer()), 1e-9);
}

// ------------------------------------------------------------ settings, copies

TEST(QuasiNewtonSettings, DefaultsAndDeepCopies) {
  LxBFGSOpt bfgs;
  LxDFPOpt dfp;
  EXPECT_EQ(bfgs.GetIterLimit(), 1000u);
  EXPECT_EQ(bfgs.GetTolerance(), 0.1);
  EXPECT_EQ(dfp.GetIterLimit(), 1000u);
  EXPECT_EQ(dfp.GetTolerance(), 0.1);
  EXPECT_FALSE(bfgs.GetKeepHessian());

  const Scripted search(Scripted::kAccept);
  EXPECT_TRUE(bfgs.SetLineMinimize(search));
  EXPECT_TRUE(dfp.SetLineMinimize(search));
  EXPECT_EQ(search.log().copies, 2);
  bfgs.SetIterLimit(7);
  bfgs.SetTolerance(0.5);
  bfgs.SetKeepHessian(true);
  LxBFGSOpt copy(bfgs);
  LxDFPOpt dfpCopy(dfp);
  LxBFGSModOpt mod, modCopy;
  mod.SetLineMinimize(search);
  modCopy = mod;
  const LxBFGSModOpt& alias = modCopy;
  modCopy = alias;
  EXPECT_EQ(search.log().copies, 6);
  EXPECT_EQ(copy.GetIterLimit(), 7u);
  EXPECT_EQ(copy.GetTolerance(), 0.5);
  EXPECT_TRUE(copy.GetKeepHessian());
  // The copies search with their own clones of the line minimizer.
  DiagonalQuadratic q({1, 2}, {0, 0});
  const double start[] = {1, 1};
  double out[2];
  copy(q, start, out);
  const size_t afterCopy = search.log().steps.size();
  EXPECT_GT(afterCopy, 0u);
  dfpCopy(q, start, out);
  modCopy(q, start, out);
  EXPECT_GT(search.log().steps.size(), afterCopy);
}

// ------------------------------------------------------------ bad input

// Lowers the address-space limit to what the process maps now plus a margin,
// so that large requests fail whatever the machine's memory and overcommit
// policy; restores it on destruction.
class AddressSpaceCap {
 public:
  explicit AddressSpaceCap(unsigned long long marginBytes) {
    getrlimit(RLIMIT_AS, &saved_);
    std::ifstream status("/proc/self/status");
    std::string key;
    unsigned long long kib = 0;
    while (status >> key) {
      if (key == "VmSize:") {
        status >> kib;
        break;
      }
    }
    rlimit capped = saved_;
    capped.rlim_cur = kib * 1024ull + marginBytes;
    ok_ = kib != 0 && setrlimit(RLIMIT_AS, &capped) == 0;
  }
  ~AddressSpaceCap() { setrlimit(RLIMIT_AS, &saved_); }
  bool ok() const { return ok_; }

 private:
  rlimit saved_{};
  bool ok_ = false;
};

constexpr unsigned long long kMargin = 1ull << 30;

TEST(QuasiNewtonBadInput, NullOutput) {
  for (Kind kind : {Kind::kBFGS, Kind::kBFGSMod, Kind::kDFP}) {
    // Even a number of variables whose scratch cannot exist gives this
    // warning, without a single evaluation.
    Huge f(0xFFFFFFFFu);
    Recorder r;
    MessageCapture capture;
    const double start = 1.0;
    EXPECT_EQ((*Make(kind))(f, &r, &start, nullptr), 0.0);
    EXPECT_EQ(capture.Texts(),
              std::vector<std::string>{"memory not provided for optimized variables"});
    EXPECT_EQ(capture.messages[0].level, LxMessageLevel::Warning);
    EXPECT_TRUE(r.calls.empty());
    EXPECT_EQ(f.evaluations, 0);
  }
}

TEST(QuasiNewtonBadInput, NoVariables) {
  for (Kind kind : {Kind::kBFGS, Kind::kBFGSMod, Kind::kDFP}) {
    DiagonalQuadratic empty({}, {});
    Recorder r;
    auto opt = Make(kind);
    double none = 5.0;
    EXPECT_EQ((*opt)(empty, &r, &none, &none), 0.0);
    EXPECT_EQ(StatesAt(r), (std::vector<StateAt>{{0, kLxNoOpt}})) << KindName(kind);
    // Without a positive tolerance the empty problem reaches the search,
    // which finds nothing lower.
    Recorder r2;
    opt->SetTolerance(0.0);
    EXPECT_EQ((*opt)(empty, &r2, &none, &none), 0.0);
    EXPECT_EQ(StatesAt(r2), (std::vector<StateAt>{{0, kLxNotFound}})) << KindName(kind);
  }
}

TEST(QuasiNewtonBadInput, ScratchForTooManyVariables) {
  // 7 n doubles for n = 2^30 + 1 cannot be had, so the run ends before the
  // first evaluation (and before the limit on n is reached).
  AddressSpaceCap cap(kMargin);
  ASSERT_TRUE(cap.ok());
  for (Kind kind : {Kind::kBFGS, Kind::kBFGSMod, Kind::kDFP}) {
    Huge f(1073741825u);
    Recorder r;
    MessageCapture capture;
    double x = 0.0;
    EXPECT_EQ((*Make(kind))(f, &r, &x, &x), 0.0);
    EXPECT_EQ(capture.Texts(), std::vector<std::string>{"out of memory allocating 2147483647 in "
                                                        "LxBFGSOpt::operator()"});
    EXPECT_TRUE(r.calls.empty());
    EXPECT_EQ(f.evaluations, 0);
  }
}

TEST(QuasiNewtonBadInput, MatrixThatCannotBeAllocated) {
  // n = 100000: the vectors fit, the 80 GB matrix does not.
  const unsigned int n = 100000;
  lxtest::Linear f(std::vector<double>(n, 1.0));
  std::vector<double> x(n, 0.0);
  AddressSpaceCap cap(kMargin);
  ASSERT_TRUE(cap.ok());
  struct Case {
    Kind kind;
    std::vector<std::string> texts;
    LxMessageLevel level;
  } cases[] = {
      {Kind::kBFGS, {"Can't allocate Hessian. Too many variables."}, LxMessageLevel::Error},
      {Kind::kBFGSMod,
       {"out of memory allocating 2147483647 in LxBFGSOpt::operator()"},
       LxMessageLevel::Warning},
      {Kind::kDFP, {}, LxMessageLevel::Info},
  };
  for (const Case& c : cases) {
    Counting counted(f);
    Recorder r;
    MessageCapture capture;
    EXPECT_EQ((*Make(c.kind))(counted, &r, x.data(), x.data()), 0.0) << KindName(c.kind);
    EXPECT_EQ(capture.Texts(), c.texts);
    if (!c.texts.empty()) {
      EXPECT_EQ(capture.messages[0].level, c.level);
    }
    EXPECT_TRUE(r.calls.empty());
    EXPECT_EQ(counted.gradients, 1);
  }
}

TEST(QuasiNewtonBadInput, DFPByteCountWrapsIn32Bits) {
  // n * n * 8 in 32 bits: 65536 wraps to 0 bytes and 23171 to 194632; both
  // blocks are too small for the matrix, so the run ends with 0.0 silently.
  for (unsigned int n : {65536u, 23171u}) {
    lxtest::Linear f(std::vector<double>(n, 1.0));
    Counting counted(f);
    std::vector<double> x(n, 0.0);
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
