// Counting wrapper, budget and trace checkpoints, derivative checks, BFGS start matrices.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "support/problems.h"

namespace {

using namespace LxOpt;
using namespace lxtest;
using Vec = std::vector<double>;

TEST(Counting, CountsEqualTheDefinedCostsAndForwardEveryForm) {
  DiagonalQuadratic q({1, 2, 3}, {1, -1, 0.5});
  const Vec x{0.3, -0.2, 0.1};
  Vec g(3, 0.0), h(6, 0.0), h1(6, 0.0), hq(6, 0.0), gq(3, 0.0);
  LxCountingFunc counted(q);  // optimizer runs are counted in the steepest-descent tests
  EXPECT_EQ(counted(x.data(), g.data()), q(x.data()));
  EXPECT_TRUE(counted.Gradients() == 1 && counted.Values() == 0 && counted.Hessians() == 0);
  EXPECT_TRUE(counted(x.data(), h1.data(), g.data()) && q(x.data(), hq.data(), gq.data()) &&
              counted.Hessians() == 1);
  EXPECT_EQ(std::make_pair(h1, g), std::make_pair(hq, gq));

  LxCountingFunc valueOnly(static_cast<LxFunc0&>(q));
  NumericGradients(valueOnly, x.data(), g.data());  // 2n + 1 values
  MessageCapture capture;  // operations the wrapped objective lacks: errors, not counted
  EXPECT_TRUE(valueOnly(x.data(), g.data()) == 0.0 && !valueOnly(x.data(), h.data(), g.data()));
  EXPECT_TRUE(capture.Texts().size() == 2u && valueOnly.Values() == 7 && valueOnly.Total() == 7);
}

struct CountAtReport : LxCheckpoint1 {
  using LxCheckpoint1::operator();
  explicit CountAtReport(const LxCountingFunc& c) : counted(c) {}
  bool operator()(unsigned, unsigned, double, double, const double*, const double*,
                  unsigned) override {
    return totals.push_back(counted.Total()), true;
  }
  const LxCountingFunc& counted;
  std::vector<std::uint64_t> totals;
};

// Budget (between trace and tail) stops BFGS when spent; trace entries checked at their points.
TEST(Budget, StopsBfgsAtTheReportWhereTheCountIsSpentAndTheTraceRecordsIt) {
  Rosenbrock rosen;
  const Vec start{-1.2, 1.0};
  LxBFGSOpt bfgs;
  LxCountingFunc counted(rosen);
  CountAtReport full(counted);  // the count at every report of a full run
  bfgs(counted, &full, start.data(), Vec(2).data());
  ASSERT_GT(full.totals.size(), 6u);
  const std::uint64_t limit = full.totals[3];  // spent at the fourth report
  ASSERT_LT(full.totals[2], limit);
  counted.Reset();
  LxTraceCheckpoint tail;
  LxBudgetCheckpoint budget(&tail);
  budget.SetEvaluationBudget(counted, limit);
  LxTraceCheckpoint trace(&budget, true);
  bfgs(counted, &trace, start.data(), Vec(2).data());
  EXPECT_TRUE(budget.Exhausted() && counted.Total() == limit && tail.Entries().size() == 5u);
  std::vector<unsigned int> states, iters;
  std::ostringstream csv, expected;  // every call, in full precision
  trace.WriteCsv(csv);
  expected.precision(17);
  expected << "iter,value,gnorm,state,x0,x1\n";
  for (const LxTraceEntry& e : trace.Entries()) {
    Vec g(2);
    ASSERT_EQ(e.x.size(), 2u);
    EXPECT_TRUE(e.hasGradient && e.fval == rosen(e.x.data(), g.data()));
    EXPECT_NEAR(e.gnorm, std::hypot(g[0], g[1]), 1e-12 * e.gnorm);
    expected << e.iter << ',' << e.fval << ',' << e.gnorm << ',' << LxGetStateName(e.state) << ','
             << e.x[0] << ',' << e.x[1] << '\n';
    states.push_back(e.state), iters.push_back(e.iter);
  }
  EXPECT_EQ(states, (std::vector<unsigned int>{0, 0, 0, 0, kLxDone}));
  EXPECT_EQ(iters, (std::vector<unsigned int>{0, 1, 2, 3, 3}));
  EXPECT_EQ(csv.str(), expected.str());
}

// (x - 2)^2 + 10 (y - 1)^2, not a number for x > 2.5 (the gradient stays finite).
struct Cliff : DiagonalQuadratic {
  using DiagonalQuadratic::operator();
  Cliff() : DiagonalQuadratic({1, 10}, {2, 1}) {}
  double operator()(const double* x) override {
    return x[0] > 2.5 ? std::nan("") : DiagonalQuadratic::operator()(x);
  }
};

TEST(Counting, GuardStepsASearchAroundNonFiniteValuesAndReportsThem) {
  Cliff cliff;
  for (bool guard : {false, true}) {
    LxCountingFunc counted(cliff);
    counted.SetNonFiniteGuard(guard);
    LxBFGSOpt bfgs;
    bfgs.SetTolerance(1e-12);
    Vec out(2);
    const double f = bfgs(counted, Vec{-40.0, 3.0}.data(), out.data());
    EXPECT_EQ(std::isnan(f), !guard);  // unguarded, the search walks into the hole
    if (!guard) continue;
    EXPECT_LT(std::hypot(out[0] - 2, out[1] - 1), 1e-6);
    ASSERT_TRUE(counted.NonFiniteCount() > 0 && counted.FirstNonFinitePoint().size() == 2);
    EXPECT_GT(counted.FirstNonFinitePoint()[0], 2.5);
  }
}

// Planted errors: gradient component 2 negated, or packed Hessian element 4 off by 0.5.
struct Planted : DiagonalQuadratic {
  using DiagonalQuadratic::operator();
  Planted() : DiagonalQuadratic({1, 2, 3, 4}, {1, 1, 1, 1}) {}
  double operator()(const double* x, double* g) override {
    const double f = DiagonalQuadratic::operator()(x, g);
    if (inGradient) g[2] = -g[2];
    return f;
  }
  bool operator()(const double* x, double* h, double* g) override {
    DiagonalQuadratic::operator()(x, h, g);
    if (!inGradient) h[4] += 0.5;
    return true;
  }
  bool inGradient = true;
};

TEST(DerivativeCheck, FlagsAndLocatesAPlantedError) {
  const Vec x{0.7, -0.4, 1.1, 0.3};
  DiagonalQuadratic good({1, 2, 3, 4}, {1, 1, 1, 1});
  Planted badGradient, badHessian;
  badHessian.inGradient = false;
  EXPECT_TRUE(LxCheckGradient(good, x.data()).passed);
  const LxDerivativeCheck flagged = LxCheckGradient(badGradient, x.data());
  EXPECT_TRUE(!flagged.passed && flagged.worst == 2u);
  EXPECT_NEAR(flagged.error[2], 2.0, 1e-6);  // |a - (-a)| / |a|
  for (unsigned int i : {0u, 1u, 3u}) EXPECT_LT(flagged.error[i], 1e-6);
  const std::string report = LxFormatDerivativeCheck(flagged);
  EXPECT_EQ(report.find("FAILED: worst relative error 2.000e+00 at component 2"), 0u);
  EXPECT_TRUE(report.find("component 2: analytic") != std::string::npos &&
              report.find("component 1:") == std::string::npos);
  Rosenbrock curved;  // off-diagonal terms too
  EXPECT_TRUE(LxCheckHessian(good, x.data()).passed && LxCheckHessian(curved, x.data()).passed);
  const LxDerivativeCheck hessian = LxCheckHessian(badHessian, x.data());
  EXPECT_TRUE(!hessian.passed && hessian.worst == 4u);
}

// A spring between two atoms plus a uniform field, which breaks translation invariance only.
struct Spring : LxCoordFunc1 {
  using LxCoordFunc1::operator();
  explicit Spring(double strength) : field(strength) {}
  const char* Name() const override { return "spring"; }
  unsigned int NumCoords() const override { return 2; }
  LxCoordFunc1* CreateCopy() const override { return new Spring(field); }
  double operator()(const double* x) override { return (*this)(x, Vec(6).data()); }
  double operator()(const double* x, double* g) override {
    double f = 0.0;
    for (int k = 0; k < 3; ++k) {
      const double d = x[k] - x[3 + k];
      f += d * d + field * (x[k] + x[3 + k]), g[k] = 2 * d + field, g[3 + k] = field - 2 * d;
    }
    return f;
  }
  double field;
};

TEST(DerivativeCheck, CoordinateInvariancesAreReportedSeparately) {
  const Vec x{0.1, 1.3, 0.4, -0.3, 0.5, 1.2};
  Spring pairOnly(0.0), withField(0.8);
  const LxCoordDerivativeCheck clean = LxCheckGradient(pairOnly, x.data());
  EXPECT_TRUE(clean.gradient.passed && clean.translationInvariant && clean.rotationInvariant);
  const LxCoordDerivativeCheck field = LxCheckGradient(withField, x.data());
  EXPECT_TRUE(field.gradient.passed && field.rotationInvariant && !field.translationInvariant);
  EXPECT_NE(LxFormatDerivativeCheck(field).find("translation invariance: residual"),
            std::string::npos);
}

TEST(Trace, DemoPlotIsWellFormedSvg) {
  char self[4096] = {};
  ASSERT_GT(readlink("/proc/self/exe", self, sizeof self - 1), 0);
  const std::string dir = std::string(self).substr(0, std::string(self).rfind('/'));
  const std::string demo = dir + "/../tools/lxopt-demo", svg = dir + "/tools_plot_test.svg";
  ASSERT_EQ(access(demo.c_str(), X_OK), 0) << "lxopt-demo not built: " << demo;
  ASSERT_EQ(std::system((demo + " --plot " + svg + " > /dev/null").c_str()), 0);
  const std::string parse =
      "import sys, xml.dom.minidom as m; d = m.parse(sys.argv[1]).documentElement; "
      "sys.exit(d.tagName != 'svg' or not d.getElementsByTagName('polyline'))";
  EXPECT_EQ(std::system(("python3 -c \"" + parse + "\" " + svg).c_str()), 0);
  std::remove(svg.c_str());
}

// After the first step along -g, an exact start matrix makes the next a Newton step.
TEST(BfgsStart, ExactInverseHessianMakesTheNextSearchANewtonStep) {
  const Vec d{1, 10, 100}, start{3, 3, 3};
  DiagonalQuadratic q(d, {1, -2, 0.5});  // Hessian diag(2 d)
  const Vec hessian{2 * d[0], 0, 2 * d[1], 0, 0, 2 * d[2]};
  const Vec inverse{1 / hessian[0], 0, 1 / hessian[2], 0, 0, 1 / hessian[5]};
  for (int mode : {0, 1, 2}) {  // plain, inverse Hessian, Hessian
    LxBFGSOpt bfgs;
    bfgs.SetTolerance(1e-20);
    EXPECT_TRUE(mode == 0 || (mode == 1 ? bfgs.SetInitialInverseHessian(inverse.data(), 3)
                                        : bfgs.SetInitialHessian(hessian.data(), 3)));
    LxTraceCheckpoint rec;
    bfgs(q, &rec, start.data(), Vec(3).data());
    ASSERT_GE(rec.Entries().size(), 3u);  // converged at the second report, unless plain
    EXPECT_EQ(rec.Entries()[1].fval < 1e-10, mode != 0) << mode;
  }
}

// A kept run limited to 0 iterations stores its starting matrix unchanged.
Vec StartingMatrixOf(LxBFGSOpt& bfgs) {
  Rosenbrock rosen;
  Vec h(3);
  bfgs.SetKeepHessian(true);
  bfgs.SetIterLimit(0);
  bfgs(rosen, Vec{-1.2, 1.0}.data(), Vec(2).data());
  EXPECT_TRUE(bfgs.GetInverseHessian(h.data(), 2));
  return h;
}

TEST(BfgsStart, ExportedMatrixImportedBackStartsTheNextRun) {
  Rosenbrock rosen;
  const Vec start{-1.2, 1.0};
  LxBFGSOpt first, second, indefinite;
  first.SetKeepHessian(true);
  first.SetIterLimit(4);
  Vec out(2), exported(3);
  first(rosen, start.data(), out.data());
  ASSERT_TRUE(first.GetInverseHessian(exported.data(), 2));
  ASSERT_NE(exported, (Vec{1, 0, 1}));
  ASSERT_TRUE(second.SetInitialInverseHessian(exported.data(), 2));
  EXPECT_EQ(StartingMatrixOf(second), exported);
  const Vec hessian{2.0, 0.0, -4.0};  // the pivot -4 is repaired to 1000
  ASSERT_TRUE(indefinite.SetInitialHessian(hessian.data(), 2));
  EXPECT_EQ(StartingMatrixOf(indefinite), (Vec{0.5, 0.0, 1.0 / 1000.0}));
  MessageCapture capture;
  EXPECT_FALSE(second.SetInitialInverseHessian(nullptr, 2));
  EXPECT_EQ(capture.Texts().size(), 1u);
}

}  // namespace
