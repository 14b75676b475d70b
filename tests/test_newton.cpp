// Newton optimizers: eigenvalue checks, the damped run's exits and damping,
// the pivot repair, the constrained run and the allocation-free loop.
#include <gtest/gtest.h>

#include <Eigen/Cholesky>
#include <Eigen/LU>
#include <Eigen/QR>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <limits>

#include "support/problems.h"

#if defined(__SANITIZE_ADDRESS__)
#define NEWTON_TEST_COUNTS_MALLOC 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(memory_sanitizer)
#define NEWTON_TEST_COUNTS_MALLOC 0
#endif
#endif
#ifndef NEWTON_TEST_COUNTS_MALLOC
#define NEWTON_TEST_COUNTS_MALLOC 1
#endif

#if NEWTON_TEST_COUNTS_MALLOC
// Every malloc of the process (the library's and Eigen's included) is counted
// so that a test can tell whether the Newton loop allocates. Only malloc is
// replaced; it forwards to glibc's, so free, calloc and realloc stay matched.
extern "C" void* __libc_malloc(std::size_t size);
namespace {
std::atomic<long> mallocCount{0};
}  // namespace
extern "C" void* malloc(std::size_t size) {
  mallocCount.fetch_add(1, std::memory_order_relaxed);
  return __libc_malloc(size);
}
#endif

namespace {

using namespace LxOpt;
using lxtest::Counting;
using lxtest::DiagonalQuadratic;
using lxtest::MessageCapture;
using lxtest::Recorder;

// The implementations with their fixed settings opened up for tests.
class OpenNewton : public LxNewtonOptImpl {
 public:
  using LxNewtonOptImpl::checkEigenvalues_;
  using LxNewtonOptImpl::initialDamping_;
  using LxNewtonOptImpl::precondition_;
};
class OpenConstrNewton : public LxNewtonConstrOptImpl {
 public:
  using LxNewtonConstrOptImpl::precondition_;
};

OpenNewton Plain(unsigned int limit = 1000) {
  OpenNewton newton;
  newton.precondition_ = 0;
  newton.SetIterLimit(limit);
  return newton;
}

// An objective made of separate value and derivative functions, for runs that
// need them to disagree on purpose.
class Scripted : public lxtest::Objective {
 public:
  using Objective::operator();
  using Value = std::function<double(const double*)>;
  using Derivatives = std::function<void(const double* x, double* packed, double* g)>;
  Scripted(unsigned int n, Value value, Derivatives derivatives)
      : n_(n), value_(std::move(value)), derivatives_(std::move(derivatives)) {}
  unsigned int NumVar() const override { return n_; }
  double operator()(const double* x) override { return value_(x); }
  double operator()(const double* x, double* g) override {
    std::vector<double> packed(n_ * (n_ + 1) / 2);
    derivatives_(x, packed.data(), g);
    return value_(x);
  }
  bool operator()(const double* x, double* packed, double* g) override {
    derivatives_(x, packed, g);
    return true;
  }

 private:
  unsigned int n_;
  Value value_;
  Derivatives derivatives_;
};

// A value that falls with every call, so that every step is accepted.
Scripted::Value AlwaysLower() {
  auto calls = std::make_shared<double>(0.0);
  return [calls](const double*) { return -(*calls += 1.0); };
}

// Gradient and Hessian of the quadratic 1/2 x^T H x (H dense, symmetric).
Scripted::Derivatives QuadraticDerivatives(const Eigen::MatrixXd& h) {
  return [h](const double* x, double* packed, double* g) {
    const Eigen::Index n = h.rows();
    Eigen::Map<Eigen::VectorXd>(g, n) = h * Eigen::Map<const Eigen::VectorXd>(x, n);
    for (Eigen::Index i = 0, k = 0; i < n; ++i)
      for (Eigen::Index j = 0; j <= i; ++j) packed[k++] = h(i, j);
  };
}

std::vector<double> Packed(const Eigen::MatrixXd& h) {
  std::vector<double> packed;
  for (Eigen::Index i = 0; i < h.rows(); ++i)
    for (Eigen::Index j = 0; j <= i; ++j) packed.push_back(h(i, j));
  return packed;
}

// A fixed orthogonal matrix (seeded), so spectra can be hidden in dense matrices.
Eigen::MatrixXd Orthogonal(int n) {
  MtRng rng;
  LxUniformDoubleRNG uniform(-1.0, 1.0);
  Eigen::MatrixXd a(n, n);
  for (int j = 0; j < n; ++j)
    for (int i = 0; i < n; ++i) a(i, j) = uniform(rng);
  return Eigen::HouseholderQR<Eigen::MatrixXd>(a).householderQ();
}

Eigen::MatrixXd WithSpectrum(const std::vector<double>& values) {
  const int n = static_cast<int>(values.size());
  const Eigen::MatrixXd q = Orthogonal(n);
  return q * Eigen::Map<const Eigen::VectorXd>(values.data(), n).asDiagonal() * q.transpose();
}

// ---------------------------------------------------------------- eigenvalues

TEST(EigenvalueChecks, KnownSpectraBothFormsAndMessages) {
  const std::string negative =
      "Found a negative eigenvalue = -1.500000 after Newton optimization.  structure may be a "
      "transition state\n";
  const std::string afterRigid =
      "Found a eigenvalue(6) = -0.001000 after Newton optimization.  number 6 >= 3N-6 = 9 "
      "(should be a positive eigenvalue)\n";
  struct Case {
    std::vector<double> spectrum;
    int general;
    int forceField;
    std::string message;  // of both checks, "" for none
    std::string forceFieldMessage;
  } cases[] = {
      {{}, 1, 1, "", ""},
      {{-0.5, 1.0, 2.0}, 1, 1, "", ""},
      {{-1.0, 1.0, 2.0}, 1, 1, "", ""},  // the threshold itself passes
      {{-1.5, 1.0, 2.0}, 0, 0, negative, negative},
      {{-0.9, -0.5, -0.1, 0.2, 1.0, 2.0}, 1, 1, "", ""},  // n = 6: no positivity test
      {{-0.5, -0.4, -0.3, -0.2, -0.1, -0.05, 0.001, 1.0, 2.0}, 1, 1, "", ""},
      {{-0.5, -0.4, -0.3, -0.2, -0.1, -0.05, -0.001, 1.0, 2.0}, 1, 0, "", afterRigid},
  };
  for (const Case& c : cases) {
    const unsigned int n = static_cast<unsigned int>(c.spectrum.size());
    const Eigen::MatrixXd h = WithSpectrum(c.spectrum);
    const std::vector<double> packed = Packed(h);
    for (bool dense : {true, false}) {
      SCOPED_TRACE(testing::Message() << "n " << n << (dense ? " dense" : " packed"));
      MessageCapture general;
      EXPECT_EQ(dense ? LxCheckEigenvalues(n, h) : LxCheckEigenvalues(n, packed.data()),
                c.general);
      EXPECT_EQ(general.Texts(),
                c.message.empty() ? std::vector<std::string>{} : std::vector<std::string>{c.message});
      MessageCapture forceField;
      EXPECT_EQ(dense ? LxCheckMMFFEigenvalues(n, h) : LxCheckMMFFEigenvalues(n, packed.data()),
                c.forceField);
      EXPECT_EQ(forceField.Texts(), c.forceFieldMessage.empty()
                                        ? std::vector<std::string>{}
                                        : std::vector<std::string>{c.forceFieldMessage});
      for (const auto& m : forceField.messages) EXPECT_EQ(m.level, LxMessageLevel::Warning);
    }
  }
}

TEST(EigenvalueChecks, SolverFailureIsZeroWithoutMessage) {
  Eigen::MatrixXd h = Eigen::MatrixXd::Identity(3, 3);
  h(1, 0) = h(0, 1) = std::numeric_limits<double>::quiet_NaN();
  MessageCapture capture;
  EXPECT_EQ(LxCheckEigenvalues(3, h), 0);
  EXPECT_EQ(LxCheckMMFFEigenvalues(3, h), 0);
  EXPECT_TRUE(capture.messages.empty());
}

// ---------------------------------------------------------------- Newton

TEST(Newton, ConvexQuadraticTakesOneStepOnceDampingIsSmall) {
  DiagonalQuadratic quadratic({1.0, 10.0, 100.0}, {1.0, -2.0, 3.0});
  Counting counted(quadratic);
  OpenNewton newton = Plain();
  newton.initialDamping_ = 1e-14;
  Recorder recorder;
  const double start[] = {0.0, 0.0, 0.0};
  double out[3];
  const double f = newton(counted, &recorder, start, out);
  // Step 0 lands on the minimum; step 1 starts there with r < 1e-6: Done.
  EXPECT_EQ(recorder.States(), (std::vector<unsigned int>{kLxCont, kLxCont, kLxDone}));
  EXPECT_EQ(recorder.Iters(), (std::vector<unsigned int>{0, 1, 1}));
  for (int i = 0; i < 3; ++i) EXPECT_NEAR(out[i], quadratic.minimizer()[i], 1e-10);
  EXPECT_NEAR(recorder.calls[0].vars[2], 3.0, 1e-10);
  EXPECT_LT(f, 1e-18);
  EXPECT_EQ(counted.hessians, 2);
  EXPECT_EQ(counted.values, 3);  // the start and two trial points
  EXPECT_EQ(counted.gradients, 0);
  EXPECT_LT(recorder.calls[1].gnorm, 1e-6);
}

TEST(Newton, DampingGrowsToMaximumThenNotFoundAtTheTrialPoint) {
  // f = |x|^2 with the gradient pointing uphill: every step raises f.
  Scripted uphill(
      2, [](const double* x) { return x[0] * x[0] + x[1] * x[1]; },
      [](const double* x, double* h, double* g) {
        g[0] = -2.0 * x[0];
        g[1] = -2.0 * x[1];
        h[0] = h[2] = 2.0;
      });
  Counting counted(uphill);
  OpenNewton newton = Plain();
  Recorder recorder;
  const double start[] = {0.3, -0.4};
  double out[2];
  const double f = newton(counted, &recorder, start, out);
  // lambda: 0.01, 0.08, 0.64, 5.12, 40.96, 327.68, then capped at 1000.
  ASSERT_EQ(recorder.States(), std::vector<unsigned int>{kLxNotFound});
  EXPECT_EQ(recorder.calls[0].iter, 6u);
  // At lambda = 1000: mu = 1000 (1 + 2) and the step is g / 3002.
  const double expected[] = {0.3 * (1.0 + 2.0 / 3002.0), -0.4 * (1.0 + 2.0 / 3002.0)};
  EXPECT_DOUBLE_EQ(out[0], expected[0]);
  EXPECT_DOUBLE_EQ(out[1], expected[1]);
  EXPECT_DOUBLE_EQ(f, expected[0] * expected[0] + expected[1] * expected[1]);
  EXPECT_DOUBLE_EQ(recorder.calls[0].fval, f);
  EXPECT_DOUBLE_EQ(recorder.calls[0].gnorm, std::sqrt((0.36 + 0.64) / 2.0));
  EXPECT_EQ(counted.hessians, 1);  // H and g are reused after a failed step
  EXPECT_EQ(counted.values, 8);
}

TEST(Newton, IterationLimitZeroReportsExhaustAfterPreconditioning) {
  DiagonalQuadratic quadratic({1.0, 4.0}, {1.0, 1.0});
  Counting counted(quadratic);
  LxNewtonOpt newton;
  newton.SetIterLimit(0);
  Recorder recorder;
  const double start[] = {-3.0, 5.0};
  double out[2];
  const double f = newton(counted, &recorder, start, out);

  // The preconditioning run: steepest descent, tolerance n * 1 * 1, 20 iterations.
  LxSteepestDescentOpt descent;
  descent.SetTolerance(2.0);
  descent.SetIterLimit(20);
  double expected[2];
  descent(quadratic, start, expected);

  ASSERT_EQ(recorder.States(), std::vector<unsigned int>{kLxExhaust});
  EXPECT_EQ(recorder.calls[0].iter, 0u);
  EXPECT_EQ(recorder.calls[0].gnorm, 0.0);
  EXPECT_EQ(out[0], expected[0]);
  EXPECT_EQ(out[1], expected[1]);
  EXPECT_EQ(f, quadratic(expected));
  EXPECT_EQ(counted.values, 1);
  EXPECT_EQ(counted.hessians, 0);
  EXPECT_GT(counted.gradients, 1);
}

TEST(Newton, RiseBelowValueChangeToleranceIsAccepted) {
  // Derivatives of (x - 1)^2 drive the step from 0 to 2 / 2.03; the value
  // rises along it by slope * x.
  const double x1 = 2.0 / 2.03;
  for (double slope : {4e-13, 2e-12}) {
    Scripted rising(
        1, [slope](const double* x) { return slope * x[0]; },
        [](const double* x, double* h, double* g) {
          g[0] = 2.0 * (x[0] - 1.0);
          h[0] = 2.0;
        });
    OpenNewton newton = Plain(1);
    Recorder recorder;
    const double start[] = {0.0};
    double out[1];
    const double f = newton(rising, &recorder, start, out);
    const bool accepted = slope * x1 < 1e-12;
    SCOPED_TRACE(slope);
    const std::vector<unsigned int> states =
        accepted ? std::vector<unsigned int>{kLxCont, kLxExhaust} : std::vector<unsigned int>{kLxExhaust};
    EXPECT_EQ(recorder.States(), states);
    EXPECT_DOUBLE_EQ(out[0], accepted ? x1 : 0.0);
    // Deliberate: the last computed value is returned even when rejected.
    EXPECT_DOUBLE_EQ(f, slope * x1);
    EXPECT_EQ(recorder.calls.back().iter, 1u);
  }
}

TEST(Newton, SmallGradientMovesTheLimitToIterationPlus30) {
  // f = x^2 with a Hessian twice too large: every step halves x, and the RMS
  // gradient 2|x| first drops below 1e-5 at iteration 3.
  Scripted halving(
      1, [](const double* x) { return x[0] * x[0]; },
      [](const double* x, double* h, double* g) {
        g[0] = 2.0 * x[0];
        h[0] = 4.0;
      });
  for (unsigned int limit : {5u, 1000u}) {
    SCOPED_TRACE(limit);
    OpenNewton newton = Plain(limit);
    newton.SetTolerance(0.0);
    Recorder recorder;
    const double start[] = {3.3e-5};
    double out[1];
    newton(halving, &recorder, start, out);
    std::vector<unsigned int> states(34, kLxCont);
    states.insert(states.begin() + 4, kLxStable);
    states.back() = kLxExhaust;
    ASSERT_EQ(recorder.States(), states);
    EXPECT_EQ(recorder.calls[4].iter, 3u);
    EXPECT_LT(recorder.calls[4].gnorm, 1e-5);
    EXPECT_GE(recorder.calls[2].gnorm, 1e-5);
    EXPECT_EQ(recorder.calls.back().iter, 33u);
  }
}

TEST(Newton, HessianFailureReturnsZeroWithoutReport) {
  lxtest::Linear linear({1.0, -2.0});
  Counting counted(linear);
  LxNewtonOpt newton;
  Recorder recorder;
  const double start[] = {0.5, 0.5};
  double out[2] = {0.0, 0.0};
  EXPECT_EQ(newton(counted, &recorder, start, out), 0.0);
  EXPECT_TRUE(recorder.calls.empty());
  EXPECT_EQ(counted.hessians, 1);
  EXPECT_EQ(counted.values, 1);
  EXPECT_NE(out[0], 0.5);  // the preconditioning run moved it, and it stays there
}

// First step of the damped run on 1/2 x^T H x from x0 (every step accepted).
Eigen::VectorXd FirstStep(const Eigen::MatrixXd& h, const Eigen::VectorXd& x0) {
  const Eigen::Index n = h.rows();
  Scripted saddle(static_cast<unsigned int>(n), AlwaysLower(), QuadraticDerivatives(h));
  OpenNewton newton = Plain(1);
  Recorder recorder;
  std::vector<double> out(n);
  newton(saddle, &recorder, x0.data(), out.data());
  EXPECT_EQ(recorder.States(), (std::vector<unsigned int>{kLxCont, kLxExhaust}));
  return x0 - Eigen::Map<const Eigen::VectorXd>(recorder.calls[0].vars.data(), n);
}

TEST(Newton, IndefiniteHessianRepairedTwoByTwo) {
  // mu = 0.01 (1 + |trace / 2|). The larger |A_ii| is pivot p; the other
  // pivot D_q = A_qq - A_qp^2 / A_pp is negative and becomes 1000, so
  // A' = [[A_pp, A_pq], [A_pq, A_pq^2 / A_pp + 1000]] in (p, q) order.
  struct Case {
    double h00, h10, h11;
  } cases[] = {{2.0, 0.0, -2.0}, {4.0, 2.0, -3.0}, {-3.0, 2.0, 4.0}};
  for (const Case& c : cases) {
    Eigen::Matrix2d h;
    h << c.h00, c.h10, c.h10, c.h11;
    const Eigen::Vector2d x0(1.0, 1.0);
    const double mu = 0.01 * (1.0 + std::fabs(h.trace() / 2.0));
    const Eigen::Matrix2d a = h + mu * Eigen::Matrix2d::Identity();
    const int p = std::fabs(a(0, 0)) >= std::fabs(a(1, 1)) ? 0 : 1, q = 1 - p;
    ASSERT_LT(a(q, q) - a(p, q) * a(p, q) / a(p, p), 0.001);
    Eigen::Matrix2d repaired;
    repaired(p, p) = a(p, p);
    repaired(p, q) = repaired(q, p) = a(p, q);
    repaired(q, q) = a(p, q) * a(p, q) / a(p, p) + 1000.0;
    const Eigen::Vector2d expected = repaired.inverse() * (h * x0);
    const Eigen::VectorXd step = FirstStep(h, x0);
    SCOPED_TRACE(testing::Message() << c.h00 << " " << c.h10 << " " << c.h11);
    EXPECT_NEAR(step(0), expected(0), 1e-12);
    EXPECT_NEAR(step(1), expected(1), 1e-12);
  }
  // Diagonal saddle: the step along the negative direction is g / 1000.
  const Eigen::VectorXd step = FirstStep(Eigen::Vector2d(2.0, -2.0).asDiagonal(), Eigen::Vector2d(1.0, 1.0));
  EXPECT_NEAR(step(0), 2.0 / 2.01, 1e-14);
  EXPECT_NEAR(step(1), -2.0 / 1000.0, 1e-15);
}

TEST(Newton, RepairedStepEqualsSolveWithRepairedPivots) {
  // n = 150 spans several 64-wide tiles. The step must equal
  // P^T L^-T D'^-1 L^-1 P g, computed here from the factors directly.
  const int n = 150;
  MtRng rng;
  LxUniformDoubleRNG uniform(-1.0, 1.0);
  Eigen::MatrixXd base(n, n);
  for (int j = 0; j < n; ++j)
    for (int i = j; i < n; ++i) base(i, j) = base(j, i) = uniform(rng);
  struct Case {
    const char* name;
    std::function<double(int)> diagonal;
  } cases[] = {
      {"few negative pivots", [](int j) { return j % 10 == 3 ? -40.0 : 40.0 + j; }},
      {"all negative", [](int j) { return -40.0 - j; }},
      {"near singular", [](int j) { return j % 7 == 0 ? 0.0 : 30.0; }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Eigen::MatrixXd h = base;
    for (int j = 0; j < n; ++j) h(j, j) = c.diagonal(j);
    Eigen::VectorXd x0(n);
    for (int i = 0; i < n; ++i) x0(i) = uniform(rng);

    Eigen::MatrixXd a = h;
    a.diagonal().array() += 0.01 * (1.0 + std::fabs(h.trace() / n));
    const Eigen::LDLT<Eigen::MatrixXd> ldlt(a);
    Eigen::VectorXd d = ldlt.vectorD();
    int repaired = 0;
    for (int i = 0; i < n; ++i)
      if (d(i) < 0.001) d(i) = 1000.0, ++repaired;
    ASSERT_GT(repaired, 0);
    Eigen::VectorXd expected = ldlt.transpositionsP() * (h * x0);
    ldlt.matrixL().solveInPlace(expected);
    expected.array() /= d.array();
    ldlt.matrixU().solveInPlace(expected);
    expected = ldlt.transpositionsP().transpose() * expected;

    const Eigen::VectorXd step = FirstStep(h, x0);
    EXPECT_LT((step - expected).norm(), 1e-9 * expected.norm()) << repaired << " repaired";
  }
}

TEST(Newton, FailedEigenvalueCheckReportsNotFoundAfterTheRun) {
  // Constant Hessians: the check sees the last shifted Hessian.
  struct Case {
    double h11;
    bool passes;
  } cases[] = {{3.0, true}, {-0.5, true}, {-5.0, false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.h11);
    Scripted constant(2, AlwaysLower(), QuadraticDerivatives(Eigen::Vector2d(2.0, c.h11).asDiagonal()));
    OpenNewton newton = Plain(1);
    newton.checkEigenvalues_ = true;
    Recorder recorder;
    MessageCapture capture;
    const double start[] = {1.0, 1.0};
    double out[2];
    newton(constant, &recorder, start, out);
    std::vector<unsigned int> states{kLxCont, kLxExhaust};
    if (!c.passes) states.push_back(kLxNotFound);
    EXPECT_EQ(recorder.States(), states);
    EXPECT_EQ(capture.messages.size(), c.passes ? 0u : 1u);
  }
}

// A small matrix of problems the unconstrained optimizer must solve.
TEST(Newton, ReachesKnownMinima) {
  struct Case {
    const char* name;
    std::function<std::unique_ptr<lxtest::Objective>()> make;
    std::vector<double> start, minimizer;
  } cases[] = {
      {"curved valley", [] { return std::make_unique<lxtest::Rosenbrock>(); }, {-1.2, 1.0}, {1.0, 1.0}},
      {"ill-conditioned quadratic",
       [] { return std::make_unique<DiagonalQuadratic>(DiagonalQuadratic::IllConditioned(20, 1e4)); },
       std::vector<double>(20, -2.0), std::vector<double>(20, 1.0)},
      {"start at the minimum",
       [] { return std::make_unique<DiagonalQuadratic>(std::vector<double>{1, 2}, std::vector<double>{3, 4}); },
       {3.0, 4.0}, {3.0, 4.0}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto f = c.make();
    LxNewtonOpt newton;
    Recorder recorder;
    std::vector<double> out(c.start.size());
    newton(*f, &recorder, c.start.data(), out.data());
    ASSERT_FALSE(recorder.calls.empty());
    EXPECT_EQ(recorder.calls.back().state, kLxDone);
    for (size_t i = 0; i < out.size(); ++i) EXPECT_NEAR(out[i], c.minimizer[i], 1e-6);
  }
}

TEST(Newton, CopiesAreDeep) {
  LxNewtonOpt a;
  a.SetIterLimit(7);
  LxNewtonOpt b(a);
  b.SetTolerance(0.5);
  EXPECT_EQ(b.GetIterLimit(), 7u);
  EXPECT_EQ(a.GetTolerance(), 1e-6);
  EXPECT_NE(a.GetImpl(), b.GetImpl());
  a = b;
  EXPECT_EQ(a.GetTolerance(), 0.5);
  b.SetIterLimit(3);
  EXPECT_EQ(a.GetIterLimit(), 7u);
}

// ---------------------------------------------------------------- constrained

// a^T x - b = 0.
class Plane : public LxConstrFunc {
 public:
  Plane(std::vector<double> a, double b) : a_(std::move(a)), b_(b) {}
  double operator()(const double* x, double* grad) override {
    double v = -b_;
    for (size_t i = 0; i < a_.size(); ++i) {
      v += a_[i] * x[i];
      grad[i] = a_[i];
    }
    return v;
  }
  unsigned int NumVar() const override { return static_cast<unsigned int>(a_.size()); }

 private:
  std::vector<double> a_;
  double b_;
};

// |x|^2 - 1 = 0.
class Sphere : public LxConstrFunc {
 public:
  explicit Sphere(unsigned int n) : n_(n) {}
  double operator()(const double* x, double* grad) override {
    double v = -1.0;
    for (unsigned int i = 0; i < n_; ++i) {
      v += x[i] * x[i];
      grad[i] = 2.0 * x[i];
    }
    return v;
  }
  unsigned int NumVar() const override { return n_; }

 private:
  unsigned int n_;
};

// Minimizer of sum d_i (x_i - c_i)^2 subject to A x = b:
// x = c + D^-1 A^T y / 2 with (A D^-1 A^T / 2) y = b - A c.
Eigen::VectorXd ConstrainedMinimizer(const Eigen::VectorXd& d, const Eigen::VectorXd& c,
                                     const Eigen::MatrixXd& a, const Eigen::VectorXd& b) {
  const Eigen::MatrixXd scaled = a * d.cwiseInverse().asDiagonal();
  const Eigen::VectorXd y = (0.5 * scaled * a.transpose()).ldlt().solve(b - a * c);
  return c + 0.5 * scaled.transpose() * y;
}

TEST(ConstrainedNewton, ReachesAnalyticConstrainedMinima) {
  const std::vector<double> d{1.0, 2.0, 3.0, 0.5}, c{1.0, -1.0, 2.0, 0.5};
  DiagonalQuadratic quadratic(d, c);
  const Eigen::Map<const Eigen::VectorXd> dv(d.data(), 4), cv(c.data(), 4);
  Plane first({1.0, 1.0, 1.0, 0.0}, 1.0), second({0.0, 1.0, -1.0, 2.0}, -0.5);
  Sphere sphere(4);

  Eigen::MatrixXd a1(1, 4), a2(2, 4);
  a1 << 1, 1, 1, 0;
  a2 << 1, 1, 1, 0, 0, 1, -1, 2;
  const Eigen::VectorXd one = ConstrainedMinimizer(dv, cv, a1, Eigen::VectorXd::Constant(1, 1.0));
  const Eigen::VectorXd two = ConstrainedMinimizer(dv, cv, a2, Eigen::Vector2d(1.0, -0.5));
  // On the unit sphere with equal weights the minimizer is the projection of c.
  DiagonalQuadratic round({1.0, 1.0, 1.0, 1.0}, c);
  const Eigen::VectorXd projected = cv.normalized();

  struct Case {
    const char* name;
    LxFunc2* f;
    std::vector<LxConstrFunc*> constraints;
    Eigen::VectorXd minimizer;
    std::vector<double> start;
  } cases[] = {
      {"one plane", &quadratic, {&first}, one, {0.0, 0.0, 0.0, 0.0}},
      {"two planes", &quadratic, {&first, &second}, two, {3.0, -2.0, 1.0, 4.0}},
      {"sphere", &round, {&sphere}, projected, {0.5, 0.5, 0.5, 0.5}},
      {"sphere from far", &round, {&sphere}, projected, {-3.0, 1.0, 2.0, -1.0}},
  };
  for (const Case& k : cases) {
    SCOPED_TRACE(k.name);
    LxNewtonConstrOpt newton;
    // The default 1e-5 bounds the Lagrangian's RMS gradient, so the point only
    // to about 1e-6; a tighter tolerance lets the answer be checked to 1e-7.
    newton.SetTolerance(1e-9);
    for (LxConstrFunc* constraint : k.constraints) ASSERT_TRUE(newton.Add(*constraint));
    Recorder recorder;
    std::vector<double> out(4);
    MessageCapture capture;
    const double f = newton(*k.f, &recorder, k.start.data(), out.data());
    EXPECT_TRUE(capture.messages.empty());
    ASSERT_FALSE(recorder.calls.empty());
    EXPECT_EQ(recorder.calls.back().state, kLxDone);
    EXPECT_LT(recorder.calls.size(), 60u);
    for (int i = 0; i < 4; ++i) EXPECT_NEAR(out[i], k.minimizer(i), 1e-7) << i;
    EXPECT_NEAR(f, (*k.f)(k.minimizer.data()), 1e-10);
    std::vector<double> grad(4);
    for (LxConstrFunc* constraint : k.constraints)
      EXPECT_LT(std::fabs((*constraint)(out.data(), grad.data())), 1e-8);
  }
}

TEST(ConstrainedNewton, WithoutConstraintsWarnsAndRunsTheUnconstrainedAlgorithm) {
  lxtest::Rosenbrock valley;
  const double start[] = {-1.2, 1.0};
  LxNewtonConstrOpt constrained;
  Recorder recorded;
  double out[2];
  MessageCapture capture;
  const double f = constrained(valley, &recorded, start, out);
  ASSERT_EQ(capture.messages.size(), 1u);
  EXPECT_EQ(capture.messages[0].level, LxMessageLevel::Warning);
  EXPECT_EQ(capture.messages[0].text,
            "No constraints has been applied. Will perform unconstrained optimization");

  OpenNewton plain;
  plain.initialDamping_ = 10.0;
  plain.SetTolerance(1e-5);
  Recorder expected;
  double expectedOut[2];
  EXPECT_EQ(f, plain(valley, &expected, start, expectedOut));
  EXPECT_EQ(out[0], expectedOut[0]);
  EXPECT_EQ(out[1], expectedOut[1]);
  ASSERT_EQ(recorded.calls.size(), expected.calls.size());
  EXPECT_EQ(recorded.States(), expected.States());
  EXPECT_EQ(recorded.Iters(), expected.Iters());
  EXPECT_EQ(constrained.GetTolerance(), 1e-5);
}

TEST(ConstrainedNewton, AddAndRemoveByAddress) {
  Plane p({1.0}, 0.0), q({1.0}, 0.0), unknown({1.0}, 0.0);
  LxNewtonConstrOpt newton;
  EXPECT_TRUE(newton.Add(p));
  EXPECT_FALSE(newton.Add(p));
  EXPECT_TRUE(newton.Add(q));
  EXPECT_TRUE(newton.Add(unknown));
  EXPECT_TRUE(newton.Remove(p));
  EXPECT_FALSE(newton.Remove(p));
  EXPECT_EQ(newton.GetImpl()->Constraints(), (std::vector<LxConstrFunc*>{&q, &unknown}));

  LxNewtonConstrOpt copy(newton);  // shares the constraint objects, not the list
  EXPECT_TRUE(copy.Remove(q));
  EXPECT_EQ(copy.GetImpl()->Constraints(), std::vector<LxConstrFunc*>{&unknown});
  EXPECT_EQ(newton.GetImpl()->Constraints(), (std::vector<LxConstrFunc*>{&q, &unknown}));
  EXPECT_FALSE(copy.Remove(q));
}

TEST(ConstrainedNewton, ConstraintOfAnotherSizeIsAnError) {
  DiagonalQuadratic quadratic({1.0, 1.0}, {0.0, 0.0});
  Plane wrong({1.0, 1.0, 1.0}, 0.0);
  LxNewtonConstrOpt newton;
  newton.Add(wrong);
  Recorder recorder;
  MessageCapture capture;
  const double start[] = {1.0, 1.0};
  double out[2];
  EXPECT_EQ(newton(quadratic, &recorder, start, out), 0.0);
  EXPECT_TRUE(recorder.calls.empty());
  ASSERT_EQ(capture.messages.size(), 1u);
  EXPECT_EQ(capture.messages[0].level, LxMessageLevel::Error);
}

// ---------------------------------------------------------------- allocation

// Dense quadratic 1/2 x^T Q x - b^T x whose evaluations do not allocate.
class DenseQuadratic : public lxtest::Objective {
 public:
  using Objective::operator();
  explicit DenseQuadratic(Eigen::MatrixXd q) : q_(std::move(q)), packed_(Packed(q_)) {}
  unsigned int NumVar() const override { return static_cast<unsigned int>(q_.rows()); }
  double operator()(const double* x) override {
    double f = 0.0;
    for (Eigen::Index j = 0; j < q_.cols(); ++j)
      f += x[j] * (0.5 * q_.col(j).dot(Eigen::Map<const Eigen::VectorXd>(x, q_.rows())) - 1.0);
    return f;
  }
  double operator()(const double* x, double* g) override {
    for (Eigen::Index j = 0; j < q_.cols(); ++j)
      g[j] = q_.col(j).dot(Eigen::Map<const Eigen::VectorXd>(x, q_.rows())) - 1.0;
    return (*this)(x);
  }
  bool operator()(const double* x, double* h, double* g) override {
    std::copy(packed_.begin(), packed_.end(), h);
    (*this)(x, g);
    return true;
  }

 private:
  Eigen::MatrixXd q_;
  std::vector<double> packed_;
};

#if NEWTON_TEST_COUNTS_MALLOC
// Notes the malloc count at every report; stores nothing on the heap.
class MallocWatch : public LxCheckpoint1 {
 public:
  using LxCheckpoint1::operator();
  bool operator()(unsigned int, unsigned int, double, double, const double*, const double*,
                  unsigned int state) override {
    const long now = mallocCount.load();
    if (state == kLxCont) {
      if (conts > 0 && now != last) ++allocatingIterations;
      ++conts;
    }
    last = now;
    return true;
  }
  long last = 0, conts = 0, allocatingIterations = 0;
};
#endif

TEST(NewtonAllocation, IterationsDoNotAllocate) {
#if NEWTON_TEST_COUNTS_MALLOC
  const long before = mallocCount.load();
  auto probe = std::make_unique<std::vector<double>>(1000);
  ASSERT_GT(mallocCount.load(), before) << "malloc is not interposed; the test would prove nothing";
  probe.reset();

  const int n = 100;  // two 64-wide tiles
  MtRng rng;
  LxUniformDoubleRNG uniform(-1.0, 1.0);
  Eigen::MatrixXd q(n, n);
  for (int j = 0; j < n; ++j) {
    for (int i = j + 1; i < n; ++i) q(i, j) = q(j, i) = uniform(rng);
    q(j, j) = j % 9 == 0 ? -3.0 * n : 2.0 * n;  // indefinite: repaired steps
  }
  Plane plane(std::vector<double>(n, 1.0), 1.0);
  Sphere sphere(n);
  for (bool indefinite : {false, true}) {
    Eigen::MatrixXd h = q;
    if (!indefinite) h.diagonal().setConstant(2.0 * n);
    DenseQuadratic f(h);
    OpenNewton newton = Plain(12);
    newton.SetTolerance(0.0);
    LxNewtonConstrOpt constrained;
    constrained.Add(plane);
    constrained.Add(sphere);
    constrained.SetIterLimit(12);
    constrained.SetTolerance(0.0);
    std::vector<double> start(n, 0.1), out(n);
    for (LxOptimizer2* opt : std::initializer_list<LxOptimizer2*>{nullptr, &constrained}) {
      SCOPED_TRACE(testing::Message() << (indefinite ? "indefinite" : "convex")
                                      << (opt ? " constrained" : ""));
      MallocWatch watch;
      if (opt)
        (*opt)(f, &watch, start.data(), out.data());
      else
        newton(f, &watch, start.data(), out.data());
      EXPECT_GE(watch.conts, 3);
      EXPECT_EQ(watch.allocatingIterations, 0);
    }
  }
#else
  GTEST_SKIP() << "malloc is not counted under the address sanitizer";
#endif
}

}  // namespace
