// Counting wrapper, budget and trace checkpoints, derivative checks, seeds and
// the starting matrix of BFGS.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "support/problems.h"

namespace {

using namespace LxOpt;
using namespace lxtest;
using Vec = std::vector<double>;

std::vector<unsigned int> States(const LxTraceCheckpoint& trace) {
  std::vector<unsigned int> s;
  for (const LxTraceEntry& e : trace.Entries()) s.push_back(e.state);
  return s;
}

TEST(Counting, CountsEqualTheDefinedCosts) {
  DiagonalQuadratic q({1, 2, 3}, {1, -1, 0.5});
  const Vec x{0.3, -0.2, 0.1};
  Vec out(3), g(3, 0.0), h(6, 0.0);
  LxCountingFunc counted(q);
  LxSteepestDescentOpt sd;  // the start, then one evaluation per iteration
  sd.SetIterLimit(7);
  sd.SetTolerance(1e-30);
  sd(counted, x.data(), out.data());
  EXPECT_EQ(counted.Gradients(), 8u);
  EXPECT_EQ(counted.Values() + counted.Hessians(), 0u);
  counted.Reset();
  NumericHessian(counted, x.data(), h.data());  // n (n + 1) gradients, one value
  EXPECT_EQ(counted.Gradients(), 12u);
  EXPECT_EQ(counted.Values(), 1u);

  LxCountingFunc valueOnly(static_cast<LxFunc0&>(q));
  NumericGradients(valueOnly, x.data(), g.data());  // 2n + 1 values
  EXPECT_EQ(valueOnly.Values(), 7u);
  MessageCapture capture;  // operations the wrapped objective lacks
  EXPECT_EQ(valueOnly(x.data(), g.data()), 0.0);
  EXPECT_FALSE(valueOnly(x.data(), h.data(), g.data()));
  EXPECT_EQ(capture.Texts().size(), 2u);
  EXPECT_EQ(valueOnly.Total(), 7u);
}

TEST(Counting, ForwardsUnchangedUnderNewtonWithPreconditioning) {
  Rosenbrock rosen;
  LxCountingFunc counted(rosen);
  const Vec start{-1.2, 1.0};
  Vec direct(2), wrapped(2);
  LxNewtonOpt newton;
  const double f = newton(rosen, start.data(), direct.data());
  EXPECT_EQ(newton(counted, start.data(), wrapped.data()), f);
  EXPECT_EQ(wrapped, direct);
  EXPECT_GT(counted.Hessians(), 0u);
  EXPECT_GT(counted.Gradients(), 0u);  // the steepest-descent preconditioning
}

// Keeps the evaluation count at every report.
struct CountAtReport : LxCheckpoint1 {
  using LxCheckpoint1::operator();
  explicit CountAtReport(const LxCountingFunc& c) : counted(c) {}
  bool operator()(unsigned int,
                  unsigned int,
                  double,
                  double,
                  const double*,
                  const double*,
                  unsigned int) override {
    totals.push_back(counted.Total());
    return true;
  }
  const LxCountingFunc& counted;
  std::vector<std::uint64_t> totals;
};

TEST(Budget, StopsBfgsAtTheReportWhereTheCountIsSpent) {
  Rosenbrock rosen;
  const Vec start{-1.2, 1.0};
  Vec out(2);
  LxBFGSOpt bfgs;
  LxCountingFunc counted(rosen);
  CountAtReport full(counted);
  bfgs(counted, &full, start.data(), out.data());
  ASSERT_GT(full.totals.size(), 6u);
  const std::uint64_t limit = full.totals[3];  // spent at the fourth report
  ASSERT_LT(full.totals[2], limit);
  counted.Reset();
  LxTraceCheckpoint trace;
  LxBudgetCheckpoint budget(&trace);
  budget.SetEvaluationBudget(counted, limit);
  bfgs(counted, &budget, start.data(), out.data());
  EXPECT_TRUE(budget.Exhausted());
  EXPECT_EQ(States(trace), (std::vector<unsigned int>{0, 0, 0, 0, kLxDone}));
  EXPECT_EQ(counted.Total(), limit);
}

// (x - 2)^2 + 10 (y - 1)^2, not a number for x > 2.5 (the gradient stays finite).
struct Cliff : Objective {
  using Objective::operator();
  unsigned int NumVar() const override { return 2; }
  double operator()(const double* x) override {
    return x[0] > 2.5 ? std::nan("") : (x[0] - 2) * (x[0] - 2) + 10 * (x[1] - 1) * (x[1] - 1);
  }
  double operator()(const double* x, double* g) override {
    g[0] = 2 * (x[0] - 2);
    g[1] = 20 * (x[1] - 1);
    return (*this)(x);
  }
};

TEST(Counting, GuardStepsASearchAroundNonFiniteValuesAndReportsThem) {
  Cliff cliff;
  const Vec start{-40.0, 3.0};
  for (bool guard : {false, true}) {
    LxCountingFunc counted(cliff);
    counted.SetNonFiniteGuard(guard);
    LxBFGSOpt bfgs;
    bfgs.SetTolerance(1e-12);
    Vec out(2);
    const double f = bfgs(counted, start.data(), out.data());
    if (!guard) {  // the search walks into the hole and never comes out
      EXPECT_TRUE(std::isnan(f));
      continue;
    }
    EXPECT_LT(std::hypot(out[0] - 2, out[1] - 1), 1e-6);
    EXPECT_GT(counted.NonFiniteCount(), 0u);
    ASSERT_EQ(counted.FirstNonFinitePoint().size(), 2u);
    EXPECT_GT(counted.FirstNonFinitePoint()[0], 2.5);
  }
}

// A diagonal quadratic with a sign error planted in gradient component 2.
struct PlantedGradient : DiagonalQuadratic {
  using DiagonalQuadratic::operator();
  PlantedGradient() : DiagonalQuadratic({1, 2, 3, 4}, {1, 1, 1, 1}) {}
  double operator()(const double* x, double* g) override {
    const double f = DiagonalQuadratic::operator()(x, g);
    g[2] = -g[2];
    return f;
  }
};

// A diagonal quadratic whose packed Hessian element 4, (2, 1), is wrong.
struct PlantedHessian : DiagonalQuadratic {
  using DiagonalQuadratic::operator();
  PlantedHessian() : DiagonalQuadratic({1, 2, 3}, {0, 0, 0}) {}
  bool operator()(const double* x, double* h, double* g) override {
    DiagonalQuadratic::operator()(x, h, g);
    h[4] += 0.5;
    return true;
  }
};

TEST(DerivativeCheck, FlagsAndLocatesAPlantedError) {
  const Vec x{0.7, -0.4, 1.1, 0.3};
  DiagonalQuadratic good({1, 2, 3, 4}, {1, 1, 1, 1});
  PlantedGradient bad;
  EXPECT_TRUE(LxCheckGradient(good, x.data()).passed);
  const LxDerivativeCheck flagged = LxCheckGradient(bad, x.data());
  EXPECT_FALSE(flagged.passed);
  EXPECT_EQ(flagged.worst, 2u);
  EXPECT_NEAR(flagged.error[2], 2.0, 1e-6);  // |a - (-a)| / |a|
  for (unsigned int i : {0u, 1u, 3u}) EXPECT_LT(flagged.error[i], 1e-6);
  const std::string report = LxFormatDerivativeCheck(flagged);
  EXPECT_EQ(report.find("FAILED: worst relative error 2.000e+00 at component 2"), 0u);
  EXPECT_NE(report.find("component 2: analytic"), std::string::npos);
  EXPECT_EQ(report.find("component 1:"), std::string::npos);

  PlantedHessian planted;
  EXPECT_TRUE(LxCheckHessian(good, x.data()).passed);
  const LxDerivativeCheck hessian = LxCheckHessian(planted, x.data());
  EXPECT_FALSE(hessian.passed);
  EXPECT_EQ(hessian.worst, 4u);
}

// Springs sum_{a<b} |r_a - r_b|^2 between four atoms plus a uniform field
// E . sum r_a, which breaks translation invariance but not rotation about the
// centroid.
struct Springs : LxCoordFunc1 {
  using LxCoordFunc1::operator();
  explicit Springs(double strength) : field(strength) {}
  const char* Name() const override { return "springs"; }
  unsigned int NumCoords() const override { return 4; }
  LxCoordFunc1* CreateCopy() const override { return new Springs(field); }
  double operator()(const double* x) override {
    Vec g(12);
    return (*this)(x, g.data());
  }
  double operator()(const double* x, double* g) override {
    double f = 0.0;
    for (int i = 0; i < 12; ++i) f += field * x[i], g[i] = field;
    for (int a = 0; a < 4; ++a)
      for (int b = a + 1; b < 4; ++b)
        for (int k = 0; k < 3; ++k) {
          const double d = x[3 * a + k] - x[3 * b + k];
          f += d * d;
          g[3 * a + k] += 2 * d;
          g[3 * b + k] -= 2 * d;
        }
    return f;
  }
  double field;
};

TEST(DerivativeCheck, CoordinateInvariancesAreReportedSeparately) {
  const Vec x{0, 0, 0, 1.1, 0.2, 0, 0.1, 1.3, 0.4, -0.3, 0.5, 1.2};
  Springs pairOnly(0.0), withField(0.8);
  const LxCoordDerivativeCheck clean = LxCheckGradient(pairOnly, x.data());
  EXPECT_TRUE(clean.gradient.passed && clean.translationInvariant && clean.rotationInvariant);
  const LxCoordDerivativeCheck field = LxCheckGradient(withField, x.data());
  EXPECT_TRUE(field.gradient.passed && field.rotationInvariant);
  EXPECT_FALSE(field.translationInvariant);
  EXPECT_NE(LxFormatDerivativeCheck(field).find("translation invariance: residual"),
            std::string::npos);
}

TEST(Trace, RecordsEveryCallChainsAndWritesCsv) {
  Rosenbrock rosen;
  const Vec start{-1.2, 1.0};
  Recorder rec;
  rec.continueFor = 5;
  LxTraceCheckpoint trace(&rec, true);
  LxBFGSOpt bfgs;
  Vec out(2);
  bfgs(rosen, &trace, start.data(), out.data());
  ASSERT_EQ(rec.States().back(), kLxDone);  // the chained answer stopped the run
  ASSERT_EQ(trace.Entries().size(), rec.calls.size());
  for (std::size_t i = 0; i < rec.calls.size(); ++i) {
    const LxTraceEntry& e = trace.Entries()[i];
    const Call& c = rec.calls[i];
    EXPECT_TRUE(e.iter == c.iter && e.state == c.state && e.fval == c.fval && e.gnorm == c.gnorm &&
                e.hasGradient == !c.gradNull && e.x == c.vars);
  }
  std::ostringstream csv, expected;
  trace.WriteCsv(csv);
  const LxTraceEntry& e = trace.Entries()[0];
  expected.precision(17);
  expected << "iter,value,gnorm,state,x0,x1\n"
           << e.iter << ',' << e.fval << ',' << e.gnorm << ",Cont," << e.x[0] << ',' << e.x[1];
  const std::string text = csv.str();
  EXPECT_EQ(text.substr(0, expected.str().size() + 1), expected.str() + "\n");
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), long(trace.Entries().size() + 1));
}

TEST(Trace, DemoPlotIsWellFormedSvg) {
  char self[4096];
  const ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
  ASSERT_GT(length, 0);
  std::string dir(self, static_cast<std::size_t>(length));
  dir.erase(dir.rfind('/'));
  const std::string demo = dir + "/../tools/lxopt-demo", svg = dir + "/tools_plot_test.svg";
  ASSERT_EQ(access(demo.c_str(), X_OK), 0) << "lxopt-demo not built: " << demo;
  ASSERT_EQ(std::system((demo + " --plot " + svg + " > /dev/null").c_str()), 0);
  std::ifstream file(svg);
  const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  EXPECT_NE(text.find("<polyline"), std::string::npos);
  const std::string parse =
      "import sys, xml.dom.minidom as m; "
      "sys.exit(m.parse(sys.argv[1]).documentElement.tagName != 'svg')";
  EXPECT_EQ(std::system(("python3 -c \"" + parse + "\" " + svg).c_str()), 0);
  std::remove(svg.c_str());
}

class Annealer : public LxSAOpt {
 public:
  Annealer() : LxSAOpt(300.0) { SetIterLimit(2000); }
  unsigned int GetIterLimit() const override { return EvaluationLimit(); }
  double GetTolerance() const override { return Tolerance(); }
};

// The points the final BFGS reports, which start from the annealing's best.
std::vector<Vec> AnnealPath(int seed) {
  Annealer sa;
  if (seed >= 0) sa.SetSeed(static_cast<unsigned int>(seed));
  Rosenbrock rosen;
  LxTraceCheckpoint trace(nullptr, true);
  const Vec start{0.5, 0.5};
  Vec out(2);
  std::ostringstream sink;
  std::ostream* previous = LxSetOutputStream(&sink);
  sa(rosen, &trace, start.data(), out.data());
  LxSetOutputStream(previous);
  std::vector<Vec> path;
  for (const LxTraceEntry& e : trace.Entries()) path.push_back(e.x);
  return path;
}

TEST(Seeds, AnnealingRepeatsItsSeedAndDefaultsTo365) {
  EXPECT_EQ(AnnealPath(-1), AnnealPath(365));
  EXPECT_EQ(AnnealPath(7), AnnealPath(7));
  EXPECT_NE(AnnealPath(7), AnnealPath(8));
}

// Four wells (x^2 - 1)^2 + (y^2 - 1)^2 + 0.1 x + 0.05 y; keeps the first
// ten points evaluated.
struct Wells : Objective {
  using Objective::operator();
  unsigned int NumVar() const override { return 2; }
  double operator()(const double* x) override {
    double g[2];
    return (*this)(x, g);
  }
  double operator()(const double* v, double* g) override {
    if (visited.size() < 20) visited.insert(visited.end(), v, v + 2);
    const double p = v[0] * v[0] - 1, q = v[1] * v[1] - 1;
    g[0] = 4 * v[0] * p + 0.1;
    g[1] = 4 * v[1] * q + 0.05;
    return p * p + q * q + 0.1 * v[0] + 0.05 * v[1];
  }
  Vec visited;
};

// Minima coordinates, values and the first points visited.
std::vector<Vec> Find(std::uint32_t seed) {
  Wells f;
  LxMinfinder::GetRandomVariablesGeneral gen;
  LxMinfinder::LxMinfinder finder;
  finder.SetSeed(seed);
  finder.SetMaxNumOptPoints(4);
  Vec coords, values;
  std::ostringstream sink;
  std::ostream* previous = LxSetOutputStream(&sink);
  EXPECT_TRUE(finder.Setup(f, &gen, {-2, -2}, {2, 2}) && finder.Optimize() &&
              finder.GetMinimums(coords, values));
  LxSetOutputStream(previous);
  return {coords, values, f.visited};
}

TEST(Seeds, MinimumFinderRepeatsItsSeed) {
  const std::vector<Vec> a = Find(11), b = Find(11), c = Find(12);
  EXPECT_EQ(a[1].size(), 4u);
  EXPECT_EQ(a, b);
  EXPECT_NE(a[2], c[2]);
}

TEST(Seeds, PosOrientOwnEngineIgnoresRand) {
  const Vec lower(6, -1.0), upper(6, 1.0);
  auto draw = [&](std::uint32_t seed, unsigned int srandSeed) {
    LxRandomPosOrient gen;
    gen.SetQuaternionFromOwnEngine(true);
    gen.Seed(seed);
    std::srand(srandSeed);
    Vec x(6);
    gen(x.data(), lower, upper);
    return x;
  };
  const Vec a = draw(3, 1);
  EXPECT_EQ(a, draw(3, 99));
  EXPECT_NE(a, draw(4, 1));
  EXPECT_NEAR(a[0] * a[0] + a[1] * a[1] + a[2] * a[2] + a[3] * a[3], 1.0, 1e-12);
}

// Every run searches along -g first; from then on the exact inverse Hessian
// makes the direction the Newton direction, which reaches the minimum c.
TEST(BfgsStart, ExactInverseHessianMakesTheNextSearchANewtonStep) {
  const Vec d{1, 10, 100}, c{1, -2, 0.5}, start{3, 3, 3};
  DiagonalQuadratic q(d, c);  // Hessian diag(2 d)
  const Vec hessian{2 * d[0], 0, 2 * d[1], 0, 0, 2 * d[2]};
  const Vec inverse{1 / hessian[0], 0, 1 / hessian[2], 0, 0, 1 / hessian[5]};
  auto run = [&](int mode) {
    LxBFGSOpt bfgs;
    bfgs.SetTolerance(1e-20);
    const bool set = mode == 1   ? bfgs.SetInitialInverseHessian(inverse.data(), 3)
                     : mode == 2 ? bfgs.SetInitialHessian(hessian.data(), 3)
                                 : true;
    EXPECT_TRUE(set);
    Recorder rec;
    Vec out(3);
    bfgs(q, &rec, start.data(), out.data());
    return rec.calls;
  };
  const std::size_t plainCalls = run(0).size();
  for (int mode : {1, 2}) {
    const std::vector<Call> calls = run(mode);
    ASSERT_GE(calls.size(), 3u);
    EXPECT_LT(calls.size(), plainCalls);
    const Vec &x0 = calls[0].vars, &x1 = calls[1].vars;
    double cross = 0.0, along = 0.0, toMin = 0.0;
    for (int i = 0; i < 3; ++i) {
      along += std::pow(x1[i] - x0[i], 2);
      toMin += std::pow(c[i] - x0[i], 2);
      cross += (x1[i] - x0[i]) * (c[i] - x0[i]);
    }
    EXPECT_NEAR(cross / std::sqrt(along * toMin), 1.0, 1e-12) << mode;
    EXPECT_LT(calls[1].fval, 1e-10) << mode;
  }
}

// A kept run limited to 0 iterations stores its starting matrix unchanged.
Vec StartingMatrixOf(LxBFGSOpt& bfgs) {
  Rosenbrock rosen;
  const Vec start{-1.2, 1.0};
  Vec out(2), h(3);
  bfgs.SetKeepHessian(true);
  bfgs.SetIterLimit(0);
  bfgs(rosen, start.data(), out.data());
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
