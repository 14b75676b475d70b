// Newton optimizers: eigenvalue checks, the damped run, the pivot repair and
// the constrained run.
#include <gtest/gtest.h>

#include <Eigen/Cholesky>
#include <Eigen/QR>
#include <cmath>
#include <functional>

#include "support/newton.h"

namespace {

using namespace LxOpt;
using namespace lxtest;
using States = std::vector<unsigned int>;

// The implementation with its fixed settings opened up; no preconditioning.
struct OpenNewton : LxNewtonOptImpl {
  using LxNewtonOptImpl::initialDamping_;
  using LxNewtonOptImpl::precondition_;
  explicit OpenNewton(unsigned int limit = 1000) {
    precondition_ = 0;
    SetIterLimit(limit);
  }
};

// One recorded run.
struct Outcome {
  LxTraceCheckpoint rec{nullptr, true};
  std::vector<double> out;
  double f;
  const std::vector<LxTraceEntry>& calls() const { return rec.Entries(); }
  States Column(unsigned int LxTraceEntry::*field) const {
    States column;
    for (const LxTraceEntry& e : calls()) column.push_back(e.*field);
    return column;
  }
  States states() const { return Column(&LxTraceEntry::state); }
  States iters() const { return Column(&LxTraceEntry::iter); }
};
template <class Optimizer>
Outcome RunFrom(Optimizer& opt, LxFunc2& func, std::vector<double> start) {
  Outcome run;
  run.out.resize(start.size());
  run.f = opt(func, &run.rec, start.data(), run.out.data());
  return run;
}

// ---------------------------------------------------------------- eigenvalues

TEST(EigenvalueChecks, KnownSpectraInBothForms) {
  const std::string negative =
      "Found a negative eigenvalue = -1.500000 after Newton optimization.  structure may be a "
      "transition state\n";
  const std::string afterRigid =
      "Found a eigenvalue(6) = -0.001000 after Newton optimization.  number 6 >= 3N-6 = 9 "
      "(should be a positive eigenvalue)\n";
  struct Case {
    std::vector<double> spectrum;
    int general, forceField;
    std::vector<std::string> messages;  // warnings of both checks
  } cases[] = {
      {{}, 1, 1, {}},
      {{-0.5, 1.0, 2.0}, 1, 1, {}},
      {{-1.0, 1.0, 2.0}, 1, 1, {}},  // the threshold itself passes
      {{-1.5, 1.0, 2.0}, 0, 0, {negative, negative}},
      {{-0.9, -0.5, -0.1, 0.2, 1.0, 2.0}, 1, 1, {}},  // n = 6: no positivity test
      {{-0.5, -0.4, -0.3, -0.2, -0.1, -0.05, 0.001, 1.0, 2.0}, 1, 1, {}},
      {{-0.5, -0.4, -0.3, -0.2, -0.1, -0.05, -0.001, 1.0, 2.0}, 1, 0, {afterRigid}},
  };
  for (const Case& c : cases) {
    const auto n = static_cast<unsigned int>(c.spectrum.size());
    MtRng rng;  // the spectrum hidden by a seeded rotation
    const Eigen::MatrixXd q = Eigen::HouseholderQR<Eigen::MatrixXd>(Random(n, rng)).householderQ();
    const Eigen::MatrixXd h =
        q * Eigen::Map<const Eigen::VectorXd>(c.spectrum.data(), n).asDiagonal() * q.transpose();
    const std::vector<double> packed = Packed(h);
    for (bool dense : {true, false}) {
      SCOPED_TRACE(testing::Message() << "n " << n << (dense ? " dense" : " packed"));
      MessageCapture capture;
      EXPECT_EQ(dense ? LxCheckEigenvalues(n, h) : LxCheckEigenvalues(n, packed.data()), c.general);
      EXPECT_EQ(dense ? LxCheckMMFFEigenvalues(n, h) : LxCheckMMFFEigenvalues(n, packed.data()),
                c.forceField);
      EXPECT_EQ(capture.Texts(), c.messages);
    }
  }
}

// ---------------------------------------------------------------- Newton

TEST(Newton, ConvexQuadraticTakesOneStepOnceDampingIsSmall) {
  DiagonalQuadratic quadratic({1.0, 10.0, 100.0}, {1.0, -2.0, 3.0});
  LxCountingFunc counted(quadratic);
  OpenNewton newton;
  newton.initialDamping_ = 1e-14;
  const Outcome run = RunFrom(newton, counted, {0.0, 0.0, 0.0});
  EXPECT_EQ(run.states(), (States{kLxCont, kLxCont, kLxDone}));
  EXPECT_EQ(run.iters(), (States{0, 1, 1}));
  const std::vector<double>& v = run.calls()[0].x;
  EXPECT_LT(std::hypot(v[0] - 1.0, v[1] + 2.0, v[2] - 3.0), 1e-10);
  EXPECT_LT(run.f, 1e-18);
  EXPECT_EQ((std::vector<std::uint64_t>{counted.Values(), counted.Gradients(), counted.Hessians()}),
            (std::vector<std::uint64_t>{3, 0, 2}));
}

TEST(Newton, DampingGrowsToMaximumThenNotFoundAtTheTrialPoint) {
  // f = |x|^2 with the gradient pointing uphill: every step raises f.
  Scripted uphill(2, [](const double* x, double* h, double* g) {
    if (g) g[0] = -2.0 * x[0], g[1] = -2.0 * x[1], h[0] = h[2] = 2.0;
    return x[0] * x[0] + x[1] * x[1];
  });
  LxCountingFunc counted(uphill);
  OpenNewton newton;
  const Outcome run = RunFrom(newton, counted, {0.3, -0.4});
  // lambda grows 0.01, 0.08, ..., to 1000 (mu = 3000, step g / 3002): out at that trial.
  ASSERT_EQ(run.states(), States{kLxNotFound});
  EXPECT_EQ(run.calls()[0].iter, 6u);
  const double grow = 1.0 + 2.0 / 3002.0;
  EXPECT_DOUBLE_EQ(run.out[0], 0.3 * grow);
  EXPECT_DOUBLE_EQ(run.out[1], -0.4 * grow);
  EXPECT_DOUBLE_EQ(run.f, 0.25 * grow * grow);
  EXPECT_DOUBLE_EQ(run.calls()[0].gnorm, std::sqrt(0.5));
  EXPECT_EQ(counted.Hessians(), 1u);  // H and g are reused after a failed step
  EXPECT_EQ(counted.Values(), 8u);
}

TEST(Newton, IterationLimitZeroAndHessianFailureEndAfterPreconditioning) {
  DiagonalQuadratic quadratic({1.0, 4.0}, {1.0, 1.0});
  LxCountingFunc counted(quadratic);
  LxNewtonOpt newton;
  newton.SetIterLimit(0);
  const Outcome run = RunFrom(newton, counted, {-3.0, 5.0});
  // The preconditioning run: steepest descent, tolerance n * 1 * 1, 20 iterations.
  LxSteepestDescentOpt descent;
  descent.SetTolerance(2.0);
  descent.SetIterLimit(20);
  const Outcome expected = RunFrom(descent, quadratic, {-3.0, 5.0});
  ASSERT_EQ(run.states(), States{kLxExhaust});
  EXPECT_EQ(run.calls()[0].iter, 0u);
  EXPECT_EQ(run.calls()[0].gnorm, 0.0);
  EXPECT_EQ(run.out, expected.out);
  EXPECT_EQ(run.f, quadratic(expected.out.data()));
  EXPECT_EQ(counted.Values(), 1u);
  EXPECT_EQ(counted.Hessians(), 0u);
  // A failing Hessian: 0.0, no report, out where the preconditioning left it.
  lxtest::Linear linear({1.0, -2.0});
  newton.SetIterLimit(5);
  const Outcome failed = RunFrom(newton, linear, {0.5, 0.5});
  EXPECT_EQ(failed.f, 0.0);
  EXPECT_TRUE(failed.calls().empty());
  EXPECT_NE(failed.out[0], 0.5);
}

TEST(Newton, RiseBelowValueChangeToleranceIsAccepted) {
  // Derivatives of (x - 1)^2 step from 0 to 2 / 2.03; the value rises by slope * x.
  const double x1 = 2.0 / 2.03;
  for (double slope : {4e-13, 2e-12}) {
    SCOPED_TRACE(slope);
    Scripted rising(1, [slope](const double* x, double* h, double* g) {
      if (g) g[0] = 2.0 * (x[0] - 1.0), h[0] = 2.0;
      return slope * x[0];
    });
    OpenNewton newton(1);
    const Outcome run = RunFrom(newton, rising, {0.0});
    const bool accepted = slope * x1 < 1e-12;
    EXPECT_EQ(run.states(), (accepted ? States{kLxCont, kLxExhaust} : States{kLxExhaust}));
    EXPECT_EQ(run.calls().back().iter, 1u);
    EXPECT_DOUBLE_EQ(run.out[0], accepted ? x1 : 0.0);
    EXPECT_DOUBLE_EQ(run.f, slope * x1);  // the last computed value, even when rejected
  }
}

TEST(Newton, SmallGradientMovesTheLimitToIterationPlus30) {
  // f = x^2, Hessian twice too large: x halves, 2|x| < 1e-5 from iteration 3.
  Scripted halving(1, [](const double* x, double* h, double* g) {
    if (g) g[0] = 2.0 * x[0], h[0] = 4.0;
    return x[0] * x[0];
  });
  for (unsigned int limit : {5u, 1000u}) {
    SCOPED_TRACE(limit);
    OpenNewton newton(limit);
    newton.SetTolerance(0.0);
    const Outcome run = RunFrom(newton, halving, {3.3e-5});
    States states(34, kLxCont), iters{0, 1, 2, 3};
    states.insert(states.begin() + 4, kLxStable);
    states.back() = kLxExhaust;
    for (unsigned int i = 3; i <= 33; ++i) iters.push_back(i);
    EXPECT_EQ(run.states(), states);
    EXPECT_EQ(run.iters(), iters);
    EXPECT_LT(run.calls()[4].gnorm, 1e-5);
    EXPECT_GE(run.calls()[2].gnorm, 1e-5);
  }
}

// First step of the damped run on 1/2 x^T H x from x0 (every step accepted).
Eigen::VectorXd FirstStep(const Eigen::MatrixXd& h, const Eigen::VectorXd& x0) {
  Scripted f = Descending(h);
  OpenNewton newton(1);
  const Outcome run = RunFrom(newton, f, std::vector<double>(x0.data(), x0.data() + x0.size()));
  EXPECT_EQ(run.states(), (States{kLxCont, kLxExhaust}));
  return x0 - Eigen::Map<const Eigen::VectorXd>(run.calls()[0].x.data(), x0.size());
}

TEST(Newton, IndefiniteHessianIsRepaired) {
  // Diagonal saddle, mu = 0.01: the step along the negative direction is g / 1000.
  const Eigen::VectorXd step =
      FirstStep(Eigen::Vector2d(2.0, -2.0).asDiagonal(), Eigen::Vector2d(1.0, 1.0));
  EXPECT_NEAR(step(0), 2.0 / 2.01, 1e-14);
  EXPECT_NEAR(step(1), -2.0 / 1000.0, 1e-15);
  // n = 150 spans several 64-wide tiles; the step solves P^T L D' L^T P s = g.
  const int n = 150;
  MtRng rng;
  LxUniformDoubleRNG uniform(-1.0, 1.0);
  const std::function<double(int)> diagonals[] = {
      [](int j) { return j % 10 == 3 ? -40.0 : 40.0 + j; },  // few negative pivots
      [](int j) { return -40.0 - j; },                       // all negative
      [](int j) { return j % 7 == 0 ? 0.0 : 30.0; },         // near singular
  };
  for (const auto& diagonal : diagonals) {
    Eigen::MatrixXd h = Random(n, rng);  // the lower triangle is the Hessian
    Eigen::VectorXd x0(n);
    for (int i = 0; i < n; ++i) h(i, i) = diagonal(i), x0(i) = uniform(rng);
    const double mu = 0.01 * (1.0 + std::fabs(h.trace() / n));
    const Eigen::LDLT<Eigen::MatrixXd> ldlt(h + mu * Eigen::MatrixXd::Identity(n, n));
    const Eigen::ArrayXd d = ldlt.vectorD().array();
    ASSERT_GT((d < 0.001).count(), 0);
    const Eigen::MatrixXd l = ldlt.matrixL(), pl = ldlt.transpositionsP().transpose() * l;
    const Eigen::MatrixXd repaired =
        pl * (d < 0.001).select(1000.0, d).matrix().asDiagonal() * pl.transpose();
    const Eigen::VectorXd g = h * x0;
    EXPECT_LT((repaired * FirstStep(h, x0) - g).norm(), 1e-9 * g.norm());
  }
}

// ---------------------------------------------------------------- constrained

TEST(ConstrainedNewton, ReachesAnalyticConstrainedMinima) {
  const std::vector<double> c{1.0, -1.0, 2.0, 0.5};
  DiagonalQuadratic quadratic({1.0, 2.0, 3.0, 0.5}, c), round({1.0, 1.0, 1.0, 1.0}, c);
  Quadric first({1, 1, 1, 0}, 1.0), second({0, 1, -1, 2}, -0.5), sphere({0, 0, 0, 0}, 1.0, 1.0);
  // The Lagrange conditions solved by hand; on the sphere the minimizer is c / |c|.
  const std::vector<double> one{5.0 / 11, -14.0 / 11, 20.0 / 11, 0.5},
      two{85.0 / 194, -231.0 / 194, 340.0 / 194, 237.0 / 194}, projected{0.4, -0.4, 0.8, 0.2};
  struct Case {
    LxFunc2* f;
    std::vector<LxConstrFunc*> constraints;
    std::vector<double> minimizer, start;
  } cases[] = {
      {&quadratic, {&first}, one, {0.0, 0.0, 0.0, 0.0}},
      {&quadratic, {&first, &second}, two, {3.0, -2.0, 1.0, 4.0}},
      {&round, {&sphere}, projected, {0.5, 0.5, 0.5, 0.5}},
      {&round, {&sphere}, projected, {-3.0, 1.0, 2.0, -1.0}},
  };
  for (const Case& k : cases) {
    SCOPED_TRACE(testing::Message() << k.constraints.size() << " from " << k.start[0]);
    LxNewtonConstrOpt newton;
    // The default 1e-5 bounds the point to about 1e-6 only.
    newton.SetTolerance(1e-9);
    for (LxConstrFunc* constraint : k.constraints) ASSERT_TRUE(newton.Add(*constraint));
    const Outcome run = RunFrom(newton, *k.f, k.start);
    ASSERT_FALSE(run.calls().empty());
    EXPECT_EQ(run.calls().back().state, kLxDone);
    for (int i = 0; i < 4; ++i) EXPECT_NEAR(run.out[i], k.minimizer[i], 1e-7) << i;
    EXPECT_NEAR(run.f, (*k.f)(k.minimizer.data()), 1e-10);
  }
}

TEST(ConstrainedNewton, AddAndRemoveByAddress) {
  Quadric p({1.0}, 0.0), q({1.0}, 0.0), unknown({1.0}, 0.0), other({1.0}, 0.0);
  LxNewtonConstrOpt newton;
  EXPECT_EQ((std::vector<bool>{newton.Add(p), newton.Add(p), newton.Add(q), newton.Remove(p),
                               newton.Remove(p), newton.Remove(unknown), newton.Add(other)}),
            (std::vector<bool>{true, false, true, true, false, false, true}));
  LxNewtonConstrOpt copy(newton);  // shares the constraint objects, not the list
  EXPECT_TRUE(copy.Remove(q));
  EXPECT_EQ(copy.GetImpl()->Constraints(), std::vector<LxConstrFunc*>{&other});
  EXPECT_EQ(newton.GetImpl()->Constraints(), (std::vector<LxConstrFunc*>{&q, &other}));
}

}  // namespace
