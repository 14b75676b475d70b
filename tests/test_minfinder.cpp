// Global minimum search: generators, sample store, validity criteria, finder.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "support/minfinder.h"
#include "support/problems.h"

namespace {

using namespace LxOpt;
using namespace LxOpt::LxMinfinder;
using namespace lxtest;
using Finder = LxOpt::LxMinfinder::LxMinfinder;
using Vec = std::vector<double>;
using Texts = std::vector<std::string>;

const Vec kWellsLower{-3, -2}, kWellsUpper{3, 2};

// Collects what is written to std::cerr while alive.
struct CerrCapture {
  std::ostringstream text;
  std::streambuf* previous = std::cerr.rdbuf(text.rdbuf());
  ~CerrCapture() { std::cerr.rdbuf(previous); }
};

// Counts CheckVariablesValidity calls: the finder makes one per local optimization.
template <class F>
struct CountingValidity : F {
  using F::F;
  bool CheckVariablesValidity(const double*) override { return ++validityCalls > 0; }
  long validityCalls = 0;
};

// x^2 (x^2 - 4)^2 + 0.1 x + (y^2 - 1)^2 + 0.05 y: six wells near x = -2, 0, 2 and
// y = -1, 1, with values about 0.1 apart.
struct SixWellsBase : Objective2 {
  using Objective2::operator();
  double operator()(const double* v, double* g) override {
    const double x = v[0], y = v[1], p = x * x - 4.0, q = y * y - 1.0;
    g[0] = 2.0 * x * p * p + 4.0 * x * x * x * p + 0.1;
    g[1] = 4.0 * y * q + 0.05;
    return x * x * p * p + 0.1 * x + q * q + 0.05 * y;
  }
};
using SixWells = CountingValidity<SixWellsBase>;

// A finder with its own uniform generator and the minima table it reports.
struct Search {
  GetRandomVariablesGeneral gen;
  Finder finder;
  Vec coords, values;
  void Run(LxFunc1& func, const Vec& lower, const Vec& upper) {
    ASSERT_TRUE(finder.Setup(func, &gen, lower, upper));
    ASSERT_TRUE(finder.Optimize());
    ASSERT_TRUE(finder.GetMinimums(coords, values));
  }
};

// As many 2-variable minima as expected, each expected one found once (within tol).
void ExpectSameSet(const Vec& coords, const std::vector<Vec>& expected, double tol) {
  ASSERT_EQ(coords.size(), 2 * expected.size());
  for (const Vec& e : expected) {
    int hits = 0;
    for (std::size_t j = 0; j < coords.size(); j += 2)
      hits += std::fabs(coords[j] - e[0]) < tol && std::fabs(coords[j + 1] - e[1]) < tol;
    EXPECT_EQ(hits, 1) << "expected minimum at " << e[0] << ", " << e[1];
  }
}

TEST(Generators, InTheBoxUnitQuaternionsWithNonNegativeScalarBadBoundsRefused) {
  std::srand(12345);
  GetRandomVariablesGeneral general;
  LxRandomPosOrient pose;
  const Vec lower{-1, -1, -1, -1, -2, 0, 5}, upper{1, 1, 1, 1, 2, 1, 6};
  double sumFirst = 0.0;
  for (int k = 0; k < 2000; ++k) {
    double x[7], y[7];
    ASSERT_TRUE(pose(x, lower, upper) && general(y, lower, upper));
    EXPECT_NEAR(x[0] * x[0] + x[1] * x[1] + x[2] * x[2] + x[3] * x[3], 1.0, 1e-12);
    EXPECT_GE(x[0], 0.0);
    sumFirst += x[0];
    for (int i = 0; i < 7; ++i)
      EXPECT_TRUE(lower[i] <= y[i] && y[i] < upper[i] &&
                  (i < 4 || (lower[i] <= x[i] && x[i] < upper[i])));
  }
  EXPECT_NEAR(sumFirst / 2000, 4.0 / (3.0 * M_PI), 0.02);  // E|q0| on the 3-sphere; s.e. 0.006
  // Bad bounds: an error, nothing written.
  MessageCapture capture;
  double z[5] = {7, 7, 7, 7, 7};
  EXPECT_FALSE(general(z, {}, {}) || pose(z, {0, 0, 0, 0, 0}, {1, 1, 1, 1}));
  EXPECT_EQ(Vec(z, z + 5), Vec(5, 7.0));
  EXPECT_EQ(capture.Texts(),
            (Texts{"Dimension of lower and upper bound vectors should be equal and at least 1!",
                   "Dimension of lower and upper bound vectors should be equal!"}));
}

TEST(SampleStore, EllipsoidMeansThresholdsZeroRadiusAndClear) {
  MinfinderSamplePoints store;
  store.Setup(2, 0.01);
  store.addPoint({0, 0}, -4.0, {0, 0}, {-10, -10}, {10, 10});
  const std::vector<Vec> starts{{1, -2}, {3, 0}, {-2, 4}};
  const std::vector<Vec> radii{{1, 2}, {2, 1}, {2, 2}};                 // mean |d|
  const std::vector<Vec> rt{{1, 4}, {5, 2}, {14.0 / 3.0, 20.0 / 3.0}};  // mean d^2
  for (std::size_t k = 0; k < starts.size(); ++k) {
    ASSERT_TRUE(store.updateMinima(starts[k], {0, 0}, 0) &&
                store.updateEllipsoidParemetersRt(starts[k], {0, 0}));
    EXPECT_EQ(store.GetMinimumRadii(0), radii[k]) << k;
    EXPECT_NEAR(store.GetRt()[0], rt[k][0], 1e-15) << k;
    EXPECT_NEAR(store.GetRt()[1], rt[k][1], 1e-15) << k;
  }
  // s = (x^2 + y^2) / 2^2 against 0.1, and 0.3 once 10 start points came.
  for (unsigned long k = 3; k <= 10; ++k) {
    EXPECT_EQ(store.GetAttractedCount(0), k);
    EXPECT_TRUE(store.IsItInAnyEllipsoid(Vec{0.5, 0.25}.data())) << k;        // s = 0.078
    EXPECT_EQ(store.IsItInAnyEllipsoid(Vec{0.6, 0.3}.data()), k == 10) << k;  // s = 0.1125
    store.updateMinima({2, -2}, {0, 0}, 0);                                   // radius stays (2, 2)
  }
  store.addPoint({5, 5}, 0.0, {0, 0}, {-10, -10}, {10, 10});
  store.updateMinima({6, 5}, {5, 5}, 1);                           // radius (1, 0)
  EXPECT_FALSE(store.IsItInAnyEllipsoid(Vec{5.0, 5.001}.data()));  // d^2 / 0 = inf
  EXPECT_FALSE(store.IsItInAnyEllipsoid(Vec{5.0, 5.0}.data()));    // 0 / 0 = NaN
  store.Clear();
  EXPECT_EQ(store.getLowestValue(), -4.0);
  EXPECT_NEAR(store.GetRt()[1], 20.0 / 3.0, 1e-15);
  EXPECT_EQ(store.getUpdateCount(), 3u);
  EXPECT_EQ(store.GetAttractedCount(0), 0u);
}

// A finder set up on a 2-variable quadratic whose stores the tests fill.
TEST(Criterion, GradientToSamplesBoundaryAndNearestMinimum) {
  DiagonalQuadratic func({1, 1}, {0, 0});
  GetRandomVariablesGeneral gen;
  LxMinfinderImpl finder;
  ASSERT_TRUE(finder.Setup(func, &gen, {-20, -20}, {20, 20}));
  const auto AddMinimum = [&](Vec x) {  // with a zero radius
    MinfinderSamplePoints& minima = finder.GetMinima();
    ASSERT_TRUE(minima.addPoint(x, 0.0, {0, 0}, {-20, -20}, {20, 20}) &&
                minima.updateMinima(x, x, minima.getNumPoints() - 1));
  };
  const auto Criterion = [&](Vec x, Vec g) {
    return finder.GradientToSamplesCriterion(x.data(), g.data());
  };
  ASSERT_TRUE(finder.GetSamples().addPoint({1, 0}, 1.0, {0, 0}, {-20, -20}, {20, 20}));
  AddMinimum({0, 0});
  EXPECT_TRUE(Criterion({2, 0}, {-5, 0}));  // one minimum: always holds
  AddMinimum({10, 0});
  EXPECT_TRUE(Criterion({2, 0}, {-0.01, 0}));  // s = (2 - 1) (g - 0) = -0.01: not refused
  EXPECT_FALSE(Criterion({2, 0}, {-0.0100001, 0}));
  EXPECT_TRUE(Criterion({8, 0}, {50, 0}));   // nearer the other minimum: sample ignored
  EXPECT_FALSE(Criterion({5, 0}, {-1, 0}));  // equidistant: minimum 0 is the nearest
  // The samples' nearest minima follow changes of either store.
  ASSERT_TRUE(finder.GetSamples().replacePoint(0, {4, 0}, 1.0, {0, 0}));
  EXPECT_FALSE(Criterion({1, 0}, {1, 0}));  // s = -3
  AddMinimum({4, 1});                       // now the sample's nearest minimum
  EXPECT_TRUE(Criterion({1, 0}, {1, 0}));
  ASSERT_TRUE(finder.GetSamples().replacePoint(0, {2, 0}, 1.0, {0, 0}));
  EXPECT_FALSE(Criterion({1, 0}, {1, 0}));  // s = -1
}

// Counts the start points it draws.
struct CountingGenerator : GetRandomVariablesGeneral {
  int draws = 0;
  bool operator()(double* x, const Vec& lower, const Vec& upper) override {
    ++draws;
    return GetRandomVariablesGeneral::operator()(x, lower, upper);
  }
};

// Setup takes the objective and the generator before its checks; a failed
// Setup leaves the bounds and stores of the earlier one. An objective left so
// that does not fit them is refused by Optimize; one that fits is searched.
TEST(Finder, SetupTakesObjectiveAndGeneratorFirstAndKeepsTheEarlierBounds) {
  SixWells func, other;
  DiagonalQuadratic three({1, 1, 1}, {0, 0, 0}), none({}, {});
  GetRandomVariablesGeneral gen;
  CountingGenerator otherGen;
  Finder finder;
  MessageCapture capture;
  EXPECT_FALSE(finder.Optimize());
  finder.SetMaxNumOptPoints(1);
  ASSERT_TRUE(finder.Setup(func, &gen, kWellsLower, kWellsUpper));
  EXPECT_FALSE(finder.Setup(none, &gen, {}, {}) || finder.Setup(three, &gen, {0, 0, 0}, {1, 1}) ||
               finder.Setup(three, &gen, {0, 1, 0}, {1, 1, 1}));
  EXPECT_EQ(
      capture.Texts(),
      (Texts{
          "You have to setup the minfinder object first!",
          "numVar=0 in Setup function of the LxMinfinderImpl! Please set up your scoring function!",
          "Dimension of lower and upper bound vectors should be equal to the number of variables "
          "of the scoring function!",
          "The values of lower bounds should be obviously lower than the upper bounds!"}));
  ASSERT_EQ(finder.GetImpl()->GetMinima().getNumVar(), 2u);
  EXPECT_FALSE(finder.Optimize());  // the 3-variable objective of the last Setup
  EXPECT_EQ(capture.Texts().back(), "You have to setup the minfinder object first!");
  EXPECT_FALSE(finder.Setup(other, &otherGen, {-3, -2}, {-3, 2}));  // lower == upper
  EXPECT_TRUE(finder.Optimize());  // other's wells, in the box of the first Setup
  EXPECT_EQ(func.validityCalls, 0);
  EXPECT_GT(other.validityCalls, 0);
  EXPECT_GT(otherGen.draws, 0);
  const MinfinderSamplePoints& minima = finder.GetImpl()->GetMinima();
  for (unsigned long i = 0; i < minima.getNumPoints(); ++i)
    EXPECT_TRUE(std::fabs(minima.PointData(i)[0]) < 3 && std::fabs(minima.PointData(i)[1]) < 2);
}

// Optimize runs its first-minimum phase on every call: a second call on a
// bowl with one minimum files that minimum a second time (the phase adds
// what it finds without a duplicate test), then its cycles add nothing.
TEST(Finder, OptimizeAgainStartsWithAFirstMinimum) {
  CountingValidity<DiagonalQuadratic> bowl(Vec{1, 2}, Vec{0.5, 0.5});
  Search s;
  s.finder.SetThresholdNumberOfNoChange(0);
  s.Run(bowl, kWellsLower, kWellsUpper);
  const MinfinderSamplePoints& minima = s.finder.GetImpl()->GetMinima();
  ASSERT_EQ(minima.getNumPoints(), 1u);
  ASSERT_TRUE(s.finder.Optimize());
  ASSERT_EQ(minima.getNumPoints(), 2u);
  for (unsigned long i = 0; i < 2; ++i)
    for (int d = 0; d < 2; ++d) EXPECT_NEAR(minima.PointData(i)[d], 0.5, 1e-4);
}

TEST(Finder, GetMinimumsOrderWindowAndNotices) {
  Search s;
  DiagonalQuadratic func({1, 1}, {0, 0});
  ASSERT_TRUE(s.finder.Setup(func, &s.gen, {-100, -100}, {100, 100}));
  CerrCapture cerr;
  EXPECT_FALSE(s.finder.GetMinimums(s.coords, s.values));
  s.finder.PrintMinimums();
  for (double v : {5.0, 1.0, 30.0, 26.0, 3.0, 25.999})
    s.finder.GetImpl()->GetMinima().addPoint({v, -v}, v, {0, 0}, {-100, -100}, {100, 100});
  ASSERT_TRUE(s.finder.GetMinimums(s.coords, s.values));
  EXPECT_EQ(s.values, (Vec{1.0, 3.0, 5.0, 25.999}));  // default window 25, strict
  EXPECT_EQ(s.coords, (Vec{1, -1, 3, -3, 5, -5, 25.999, -25.999}));
  s.finder.SetFvalMinimaWindow(0.0);
  EXPECT_FALSE(s.finder.GetMinimums(s.coords, s.values));
  EXPECT_TRUE(s.coords.empty() && s.values.empty());
  EXPECT_EQ(cerr.text.str(),
            "No minimums!\nNo minimums yet!\nNo minimums within the given window!\n");
}

TEST(Finder, HimmelblauFindsItsFourMinimaAndNothingElseNotANumberNeverAMinimum) {
  const std::vector<Vec> minima{
      {3.0, 2.0}, {-2.805118, 3.131312}, {-3.779310, -3.283186}, {3.584428, -1.848126}};
  for (double hole : {1e300, 3.3}) {  // the last minimum lies in the hole
    Himmelblau func;
    func.hole = hole;
    Search s;
    s.finder.SetKeepDegenerateStates(true);  // all four have the value 0
    s.finder.SetThresholdNumberOfNoChange(100);
    s.Run(func, {-5, -5}, {5, 5});
    ExpectSameSet(s.coords, std::vector<Vec>(minima.begin(), minima.end() - (hole < 5)), 1e-4);
    for (double v : s.values) EXPECT_LT(v, 1e-8);
  }
}

TEST(Finder, SixWellsAllFoundAndKeptAcrossCalls) {
  SixWells func;
  Search s;
  s.finder.SetMaxNumOptPoints(3);
  s.Run(func, kWellsLower, kWellsUpper);
  const MinfinderSamplePoints& minima = s.finder.GetImpl()->GetMinima();
  ASSERT_EQ(minima.getNumPoints(), 3u);
  const Vec first(minima.PointData(0), minima.PointData(0) + 6);
  s.finder.SetMaxNumOptPoints(1000);
  s.finder.SetThresholdNumberOfNoChange(100);
  ASSERT_TRUE(s.finder.Optimize());
  EXPECT_EQ(Vec(minima.PointData(0), minima.PointData(0) + 6), first);
  // The second call files its own first minimum (entry 3) without a
  // duplicate test, here a well the first call found; its cycles add each
  // missing well once.
  ASSERT_EQ(minima.getNumPoints(), 7u);
  Vec coords(minima.PointData(0), minima.PointData(0) + 14);
  coords.erase(coords.begin() + 6, coords.begin() + 8);
  ExpectSameSet(coords, {{-2, -1}, {-2, 1}, {0, -1}, {0, 1}, {2, -1}, {2, 1}}, 0.05);
  ASSERT_TRUE(s.finder.GetMinimums(s.coords, s.values));
  EXPECT_EQ(s.values.size(), 7u);
  for (std::size_t j = 1; j < s.values.size(); ++j) EXPECT_GE(s.values[j], s.values[j - 1]);
}

TEST(Finder, EndsOfTheSearch) {
  // bowl: one well at (0.5, 0.5) instead of the six; minima: the count (-1 any);
  // calls: bounds on 1 + the local optimizations of the cycles.
  struct Case {
    const char* name;
    bool bowl;
    unsigned long maxSample, maxPoints, noChange;
    double hours;
    long minima, minCalls, maxCalls;
  } const cases[] = {
      {"no change 0", true, 1000, 1000, 0, 6.0, 1, 2, 51},  // first cycle finds nothing new
      {"no change 120", true, 1000, 1000, 120, 6.0, 1, 1 + 121, 1 + 170},
      {"max points 2", false, 1000, 2, 500, 6.0, 2, 2, 51},
      {"max sample 50", false, 50, 1000, 500, 6.0, 1, 1, 1},    // all draws needed
      {"time limit", false, 1000, 1000, 500, -1.0, -1, 2, 51},  // first cycle adds a minimum
  };
  for (const Case& c : cases) {
    SixWells wells;
    CountingValidity<DiagonalQuadratic> bowl(Vec{1, 2}, Vec{0.5, 0.5});
    Search s;
    s.finder.SetMaxSample(c.maxSample);
    s.finder.SetMaxNumOptPoints(c.maxPoints);
    s.finder.SetThresholdNumberOfNoChange(c.noChange);
    s.finder.SetTimeLimit(c.hours);
    s.Run(c.bowl ? static_cast<LxFunc1&>(bowl) : wells, kWellsLower, kWellsUpper);
    const long count = static_cast<long>(s.finder.GetImpl()->GetMinima().getNumPoints());
    EXPECT_TRUE(c.minima < 0 || count == c.minima) << c.name << ": " << count;
    const long calls = c.bowl ? bowl.validityCalls : wells.validityCalls;
    EXPECT_TRUE(c.minCalls <= calls && calls <= c.maxCalls) << c.name << ": " << calls;
  }
}

// Succeeds `good` times, then fails without a message.
struct FailingGenerator : GetRandomVariablesGeneral {
  int good = 0;
  bool operator()(double* x, const Vec& lower, const Vec& upper) override {
    return good-- > 0 && GetRandomVariablesGeneral::operator()(x, lower, upper);
  }
};

TEST(Finder, FailingOrMissingGeneratorEndsTheSearch) {
  for (int good : {-1, 0, 30}) {  // -1: no generator; 30: fails inside the first cycle
    SixWells func;
    FailingGenerator gen;
    gen.good = good;
    Finder finder;
    ASSERT_TRUE(finder.Setup(func, good < 0 ? nullptr : &gen, kWellsLower, kWellsUpper));
    MessageCapture capture;
    EXPECT_FALSE(finder.Optimize());
    EXPECT_EQ(capture.Texts().back(),
              "The random point generator failed; the minimum search ends!");
    EXPECT_EQ(finder.GetImpl()->GetMinima().getNumPoints(), good > 0 ? 1u : 0u);
  }
}

}  // namespace
