// The benchmark problem set: every gradient and Hessian against central
// differences at the start point and at a second point, and the known minimum
// where the minimizer is known in closed form.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "../bench/problems/problem_set.h"

namespace {

using lxbench::Problem;

double MaxAbs(const std::vector<double>& v) {
  double m = 0.0;
  for (double e : v) m = std::max(m, std::fabs(e));
  return m;
}

// Central-difference step for variable value x.
double Step(double x) { return 1e-6 * std::max(1.0, std::fabs(x)); }

// Away from the start along a fixed pattern, by a tenth of each variable's
// scale.
std::vector<double> SecondPoint(const std::vector<double>& start) {
  std::vector<double> x = start;
  for (size_t i = 0; i < x.size(); ++i)
    x[i] += 0.1 * std::max(1.0, std::fabs(x[i])) * std::sin(1.0 + 3.0 * i);
  return x;
}

// Rounding noise of a central difference of values of size |v| with step h.
double Noise(double v, double h) { return 1e-15 * std::fabs(v) / h; }

// The largest gap between the gradient and central differences of the value,
// beyond the differences' rounding noise, relative to the largest gradient
// component (at least 1).
double GradientError(Problem& p, std::vector<double> x) {
  const size_t n = x.size();
  std::vector<double> g(n, 0.0);
  const double f = p(x.data(), g.data());
  EXPECT_NEAR(f, p(x.data()), 1e-12 * std::max(1.0, std::fabs(f))) << "value forms differ";
  double worst = 0.0;
  for (size_t i = 0; i < n; ++i) {
    const double xi = x[i], h = Step(xi);
    x[i] = xi + h;
    const double up = p(x.data());
    x[i] = xi - h;
    const double down = p(x.data());
    x[i] = xi;
    const double gap = std::fabs((up - down) / (2.0 * h) - g[i]);
    worst = std::max(worst, gap - Noise(std::max(std::fabs(up), std::fabs(down)), h));
  }
  return worst / std::max(1.0, MaxAbs(g));
}

// The same for the packed Hessian against differences of the gradient; also
// checks that the Hessian call delivers the same gradient.
double HessianError(Problem& p, std::vector<double> x) {
  const size_t n = x.size();
  std::vector<double> g(n, 0.0), gh(n, 0.0), up(n), down(n);
  std::vector<double> packed(n * (n + 1) / 2, 0.0);
  p(x.data(), g.data());
  EXPECT_TRUE(p(x.data(), packed.data(), gh.data()));
  for (size_t i = 0; i < n; ++i) EXPECT_NEAR(gh[i], g[i], 1e-12 * std::max(1.0, MaxAbs(g)));
  double worst = 0.0;
  for (size_t j = 0; j < n; ++j) {
    const double xj = x[j], h = Step(xj);
    std::fill(up.begin(), up.end(), 0.0);
    std::fill(down.begin(), down.end(), 0.0);
    x[j] = xj + h;
    p(x.data(), up.data());
    x[j] = xj - h;
    p(x.data(), down.data());
    x[j] = xj;
    // Column j of the full matrix: rows i >= j in the packed lower triangle.
    for (size_t i = j; i < n; ++i) {
      const double gap = std::fabs((up[i] - down[i]) / (2.0 * h) - packed[i * (i + 1) / 2 + j]);
      worst = std::max(worst, gap - Noise(std::max(std::fabs(up[i]), std::fabs(down[i])), h));
    }
  }
  return worst / std::max(1.0, MaxAbs(packed));
}

class BenchProblems : public ::testing::TestWithParam<size_t> {
 protected:
  void SetUp() override {
    set_ = lxbench::ProblemSet();
    problem_ = set_[GetParam()].get();
  }
  std::vector<std::unique_ptr<Problem>> set_;
  Problem* problem_ = nullptr;
};

TEST_P(BenchProblems, StartPointHasTheDeclaredSize) {
  EXPECT_EQ(problem_->Start().size(), problem_->NumVar());
  EXPECT_TRUE(std::isfinite((*problem_)(problem_->Start().data())));
}

TEST_P(BenchProblems, GradientMatchesCentralDifferences) {
  const std::vector<double> start = problem_->Start();
  EXPECT_LT(GradientError(*problem_, start), 1e-6) << "at the start";
  EXPECT_LT(GradientError(*problem_, SecondPoint(start)), 1e-6) << "at the second point";
}

TEST_P(BenchProblems, HessianMatchesDifferencesOfTheGradient) {
  ASSERT_TRUE(problem_->HasHessian());
  const std::vector<double> start = problem_->Start();
  EXPECT_LT(HessianError(*problem_, start), 1e-6) << "at the start";
  EXPECT_LT(HessianError(*problem_, SecondPoint(start)), 1e-6) << "at the second point";
}

TEST_P(BenchProblems, KnownMinimizerHasTheKnownValueAndNoSlope) {
  const std::vector<double> xstar = problem_->Minimizer();
  if (xstar.empty()) GTEST_SKIP() << "no closed-form minimizer";
  ASSERT_EQ(xstar.size(), problem_->NumVar());
  std::vector<double> g(xstar.size(), 0.0);
  const double f = (*problem_)(xstar.data(), g.data());
  EXPECT_NEAR(f, problem_->FStar(), 1e-10 * std::max(1.0, std::fabs(problem_->FStar())));
  EXPECT_LT(MaxAbs(g), 1e-6);
}

std::string ProblemName(const ::testing::TestParamInfo<size_t>& info) {
  return lxbench::ProblemSet()[info.param]->Name();
}

INSTANTIATE_TEST_SUITE_P(All, BenchProblems,
                         ::testing::Range<size_t>(0, lxbench::ProblemSet().size()), ProblemName);

TEST(BenchProblemSet, HasTheAdvertisedProblems) {
  const auto set = lxbench::ProblemSet();
  ASSERT_EQ(set.size(), 40u);
  std::vector<std::string> names;
  for (const auto& p : set) names.push_back(p->Name());
  std::sort(names.begin(), names.end());
  EXPECT_EQ(std::adjacent_find(names.begin(), names.end()), names.end()) << "duplicate name";
  EXPECT_EQ(set[36]->NumVar(), 10u);
  EXPECT_EQ(set[38]->NumVar(), 1000u);
  EXPECT_EQ(set[39]->NumVar(), 39u);
}

// A relaxed Lennard-Jones cluster is checked in the harness; here the pair
// energy: two atoms at the well distance 2^(1/6) give exactly -1 per pair.
TEST(BenchProblemSet, LennardJonesPairWellDepth) {
  lxbench::LennardJones13 lj;
  std::vector<double> x(39, 0.0);
  // Atoms on a line 10 apart except the first two at the well distance.
  for (int i = 0; i < 13; ++i) x[3 * i] = 10.0 * i;
  x[3] = std::pow(2.0, 1.0 / 6.0);
  std::vector<double> g(39, 0.0);
  const double f = lj(x.data(), g.data());
  EXPECT_NEAR(f, -1.0, 1e-4);  // the far pairs add about -5e-5 in all
  EXPECT_NEAR(g[0], 0.0, 1e-4);
}

}  // namespace
