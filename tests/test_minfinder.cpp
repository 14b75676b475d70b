// Global minimum search: generators, sample store, validity criteria, finder.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <iostream>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "support/problems.h"

namespace {

using namespace LxOpt;
using LxMinfinder::GetRandomVariables;
using LxMinfinder::GetRandomVariablesGeneral;
using LxMinfinder::LxMinfinderImpl;
using LxMinfinder::MinfinderSamplePoints;
using lxtest::DiagonalQuadratic;
using lxtest::MessageCapture;
using Vec = std::vector<double>;
using Texts = std::vector<std::string>;

const double kNaN = std::numeric_limits<double>::quiet_NaN();

// Collects what is written to std::cerr while alive.
class CerrCapture {
 public:
  CerrCapture() : previous_(std::cerr.rdbuf(text_.rdbuf())) {}
  ~CerrCapture() { std::cerr.rdbuf(previous_); }
  std::string Text() const { return text_.str(); }

 private:
  std::ostringstream text_;
  std::streambuf* previous_;
};

// An objective that counts its CheckVariablesValidity calls, which the finder
// makes once per local optimization.
template <class F>
class CountingValidity : public F {
 public:
  using F::F;
  bool CheckVariablesValidity(const double*) override {
    ++validityCalls;
    return true;
  }
  long validityCalls = 0;
};

// (x^2 + y - 11)^2 + (x + y^2 - 7)^2: four minima of value 0, a maximum and
// four saddles in [-5, 5]^2.
class Himmelblau : public lxtest::Objective {
 public:
  using lxtest::Objective::operator();
  unsigned int NumVar() const override { return 2; }
  double operator()(const double* x) override {
    double g[2];
    return (*this)(x, g);
  }
  double operator()(const double* x, double* g) override {
    const double a = x[0] * x[0] + x[1] - 11.0, b = x[0] + x[1] * x[1] - 7.0;
    g[0] = 4.0 * x[0] * a + 2.0 * b;
    g[1] = 2.0 * a + 4.0 * x[1] * b;
    return a * a + b * b;
  }
  static std::vector<Vec> Minima() {
    return {{3.0, 2.0}, {-2.805118, 3.131312}, {-3.779310, -3.283186}, {3.584428, -1.848126}};
  }
};

// Six wells: p(x) + q(y) with p = x^2 (x^2 - 4)^2 + 0.1 x (wells near -2, 0,
// 2) and q = (y^2 - 1)^2 + 0.05 y (wells near -1, 1); the six minima have
// values about 0.1 apart.
class SixWellsBase : public lxtest::Objective {
 public:
  using lxtest::Objective::operator();
  unsigned int NumVar() const override { return 2; }
  double operator()(const double* v) override {
    const double x = v[0], y = v[1], p = x * x - 4.0, q = y * y - 1.0;
    return x * x * p * p + 0.1 * x + q * q + 0.05 * y;
  }
  double operator()(const double* v, double* g) override {
    const double x = v[0], y = v[1], p = x * x - 4.0, q = y * y - 1.0;
    g[0] = 2.0 * x * p * p + 4.0 * x * x * x * p + 0.1;
    g[1] = 4.0 * y * q + 0.05;
    return (*this)(v);
  }
  static std::vector<Vec> Approximate() {
    return {{-2, -1}, {-2, 1}, {0, -1}, {0, 1}, {2, -1}, {2, 1}};
  }
};
using SixWells = CountingValidity<SixWellsBase>;
const Vec kWellsLower{-3, -2}, kWellsUpper{3, 2};

// A finder with its own uniform generator and the minima table it reports.
struct Search {
  GetRandomVariablesGeneral gen;
  LxMinfinder::LxMinfinder finder;
  Vec coords, values;
  void Run(LxFunc1& func, const Vec& lower, const Vec& upper) {
    ASSERT_TRUE(finder.Setup(func, &gen, lower, upper));
    ASSERT_TRUE(finder.Optimize());
    ASSERT_TRUE(finder.GetMinimums(coords, values));
  }
  unsigned long Count() const { return finder.GetImpl()->GetMinima().getNumPoints(); }
};

// Each expected point matched by exactly one found minimum (within tol) and
// every found minimum matched.
void ExpectSameSet(const Vec& coords, const std::vector<Vec>& expected, double tol) {
  ASSERT_EQ(coords.size(), 2 * expected.size());
  std::vector<int> hits(expected.size(), 0);
  for (std::size_t j = 0; j < expected.size(); ++j) {
    int matched = 0;
    for (std::size_t e = 0; e < expected.size(); ++e) {
      if (std::fabs(coords[2 * j] - expected[e][0]) < tol &&
          std::fabs(coords[2 * j + 1] - expected[e][1]) < tol) {
        ++hits[e];
        ++matched;
      }
    }
    EXPECT_EQ(matched, 1) << "minimum " << j << " at " << coords[2 * j] << ", " << coords[2 * j + 1];
  }
  for (std::size_t e = 0; e < expected.size(); ++e) EXPECT_EQ(hits[e], 1) << "expected " << e;
}

// ---------------------------------------------------------------- generators

TEST(Generators, GeneralStaysInTheBoxAndFollowsItsSeed) {
  GetRandomVariablesGeneral a, b;
  const Vec lower{-1.0, 10.0, 0.0}, upper{1.0, 10.5, 1e-3};
  double x[3], y[3];
  for (int k = 0; k < 2000; ++k) {
    ASSERT_TRUE(a(x, lower, upper));
    ASSERT_TRUE(b(y, lower, upper));
    for (int i = 0; i < 3; ++i) {
      EXPECT_TRUE(lower[i] <= x[i] && x[i] < upper[i]) << x[i];
      EXPECT_EQ(x[i], y[i]);
    }
  }
  b.Seed(99);
  a(x, lower, upper);
  b(y, lower, upper);
  EXPECT_NE(x[0], y[0]);
}

TEST(Generators, PoseIsUniformUnitQuaternionWithNonNegativeScalarThenBox) {
  std::srand(12345);
  LxRandomPosOrient pose;
  const Vec lower{-1, -1, -1, -1, -2, 0, 5}, upper{1, 1, 1, 1, 2, 1, 6};
  double sumFirst = 0.0;
  bool sawNegative = false;
  for (int k = 0; k < 2000; ++k) {
    double x[7];
    ASSERT_TRUE(pose(x, lower, upper));
    EXPECT_NEAR(x[0] * x[0] + x[1] * x[1] + x[2] * x[2] + x[3] * x[3], 1.0, 1e-12);
    EXPECT_GE(x[0], 0.0);
    sawNegative = sawNegative || x[1] < 0 || x[2] < 0 || x[3] < 0;
    sumFirst += x[0];
    for (int i = 4; i < 7; ++i) EXPECT_TRUE(lower[i] <= x[i] && x[i] < upper[i]) << x[i];
  }
  EXPECT_TRUE(sawNegative);
  // On the uniform 3-sphere E|q0| = 4 / (3 pi) = 0.4244 (standard error here
  // about 0.006).
  EXPECT_NEAR(sumFirst / 2000, 4.0 / (3.0 * M_PI), 0.02);

  // Bounds shorter than 5 (or their values) do not change the quaternion and
  // nothing past it is written.
  double a[5] = {9, 9, 9, 9, 9}, b[5] = {9, 9, 9, 9, 9};
  std::srand(4);
  ASSERT_TRUE(pose(a, {0, 0, 0, 0}, {1, 1, 1, 1}));
  std::srand(4);
  ASSERT_TRUE(pose(b, {5}, {6}));
  EXPECT_EQ(Vec(a, a + 5), Vec(b, b + 5));
  EXPECT_EQ(a[4], 9.0);
}

TEST(Generators, BadBoundsReportAndWriteNothing) {
  GetRandomVariablesGeneral general;
  LxRandomPosOrient pose;
  struct Case {
    GetRandomVariables* gen;
    Vec lower, upper;
    const char* message;
  } cases[] = {
      {&general, {0, 0}, {1}, "Dimension of lower and upper bound vectors should be equal and at least 1!"},
      {&general, {}, {}, "Dimension of lower and upper bound vectors should be equal and at least 1!"},
      {&pose, {0, 0, 0, 0, 0}, {1, 1, 1, 1}, "Dimension of lower and upper bound vectors should be equal!"},
  };
  for (const Case& c : cases) {
    MessageCapture capture;
    double x[5] = {7, 7, 7, 7, 7};
    EXPECT_FALSE((*c.gen)(x, c.lower, c.upper));
    EXPECT_EQ(Vec(x, x + 5), Vec(5, 7.0));
    ASSERT_EQ(capture.messages.size(), 1u);
    EXPECT_EQ(capture.messages[0].level, LxMessageLevel::Error);
    EXPECT_EQ(capture.messages[0].text, c.message);
  }
}

// ---------------------------------------------------------------- store

MinfinderSamplePoints TwoVariableStore() {
  MinfinderSamplePoints store;
  store.Setup(2, 0.01);
  return store;
}

TEST(SampleStore, AddPointChecksTheBoxAndIndexErrorsLeaveOutputsAlone) {
  MinfinderSamplePoints store = TwoVariableStore();
  const Vec lower{0, 0}, upper{1, 1}, g{0, 0};
  EXPECT_TRUE(store.addPoint({0.0, 1.0}, 3.0, g, lower, upper));  // both ends allowed
  EXPECT_FALSE(store.addPoint({1.0 + 1e-12, 0.5}, -1.0, g, lower, upper));
  EXPECT_FALSE(store.addPoint({kNaN, 0.5}, -1.0, g, lower, upper));
  EXPECT_EQ(store.getNumPoints(), 1u);
  EXPECT_EQ(store.getLowestValue(), 3.0);
  store.SetCheckMinimumInRange(false);
  EXPECT_TRUE(store.addPoint({3.0, 4.0}, 2.0, {1, 2}, lower, upper));
  EXPECT_EQ(store.getLowestValue(), 2.0);
  Vec x, grad;
  double y = 0;
  ASSERT_TRUE(store.getX(x, 1) && store.getY(y, 1) && store.getGrad(grad, 1));
  EXPECT_EQ(x, (Vec{3.0, 4.0}));
  EXPECT_EQ(y, 2.0);
  EXPECT_EQ(grad, (Vec{1.0, 2.0}));
  EXPECT_EQ(store.CalcDistance(0ul, 1ul), std::sqrt(18.0));

  MessageCapture capture;
  x = grad = {7};
  EXPECT_FALSE(store.getX(x, 2));
  EXPECT_FALSE(store.getY(y, 2));
  EXPECT_FALSE(store.getGrad(grad, 5));
  EXPECT_FALSE(store.replacePoint(2, {0, 0}, 0.0, {0, 0}));
  EXPECT_EQ(capture.Texts(), (Texts{"index>= _numSamplePoint in getX!", "index>= _numSamplePoint in getY!",
                                    "index>= _numSamplePoint in getGrad!",
                                    "index>= _numSamplePoint in replacePoint!"}));
  EXPECT_EQ(x, Vec{7});
  EXPECT_EQ(y, 2.0);
}

TEST(SampleStore, HaveItAlreadyByCoordinatesValuesAndGeometry) {
  MinfinderSamplePoints store = TwoVariableStore();
  DiagonalQuadratic f({1, 1}, {0, 0});
  unsigned long index = 99;
  EXPECT_FALSE(store.haveItAlready(index, {0, 0}, 0.0, true));
  EXPECT_EQ(index, 0u);
  store.SetCheckMinimumInRange(false);
  for (const Vec& p : {Vec{0, 0, 1}, Vec{2, 2, 5}, Vec{2.005, 2, 5}})
    store.addPoint({p[0], p[1]}, p[2], {0, 0}, {}, {});
  struct Case {
    Vec x;
    double value;
    int form;  // 0 by coordinates, 1 by value, 2 geometry (IsRedundant), 3 value with tolerance
    long index;  // -1: not found
  } cases[] = {
      {{2.0099, 1.995}, 0.0, 0, 1},  // |dx| <= 0.01 in each variable
      {{2.0101, 2.0}, 0.0, 0, 2},    // only the third is close enough
      {{2.02, 2.0}, 0.0, 0, -1},
      {{9, 9}, 5.0001, 1, 1},  // within 1e-4
      {{9, 9}, 5.0002, 1, -1},
      {{5, 5}, 5.0, 2, -1},  // geometry decides, the value does not
      {{2.004, 2.0}, 123.0, 2, 1},
      {{5, 5}, 5.01, 3, 1},  // different geometries of values within 0.01 merge
      {{0, 0}, 1.02, 3, -1},
  };
  for (const Case& c : cases) {
    index = 77;
    const bool found = c.form < 2 ? store.haveItAlready(index, c.x, c.value, c.form == 0)
                                  : store.haveItAlready(index, f, 0.01, c.x, c.value, c.form == 2);
    EXPECT_EQ(found, c.index >= 0) << c.x[0] << " form " << c.form;
    EXPECT_EQ(index, c.index >= 0 ? static_cast<unsigned long>(c.index) : 0u) << c.x[0];
  }
}

TEST(SampleStore, EllipsoidRunningMeansDifferAndClearKeepsRt) {
  MinfinderSamplePoints store = TwoVariableStore();
  EXPECT_FALSE(store.updateEllipsoidParemetersRt({1, -2}, {0, 0}));  // empty store
  EXPECT_FALSE(store.updateMinima({1, -2}, {0, 0}, 0));
  store.addPoint({0, 0}, -4.0, {0, 0}, {-10, -10}, {10, 10});
  const std::vector<Vec> starts{{1, -2}, {3, 0}, {-2, 4}};
  const std::vector<Vec> radii{{1, 2}, {2, 1}, {2, 2}};                  // mean |d|
  const std::vector<Vec> rt{{1, 4}, {5, 2}, {14.0 / 3.0, 20.0 / 3.0}};  // mean d^2
  for (std::size_t k = 0; k < starts.size(); ++k) {
    ASSERT_TRUE(store.updateMinima(starts[k], {0, 0}, 0));
    ASSERT_TRUE(store.updateEllipsoidParemetersRt(starts[k], {0, 0}));
    EXPECT_EQ(store.GetMinimumRadii(0), radii[k]) << k;
    EXPECT_NEAR(store.GetRt()[0], rt[k][0], 1e-15) << k;
    EXPECT_NEAR(store.GetRt()[1], rt[k][1], 1e-15) << k;
    EXPECT_EQ(store.GetAttractedCount(0), k + 1);
  }
  {
    MessageCapture capture;
    CerrCapture cerr;
    EXPECT_FALSE(store.updateMinima({0, 0}, {0, 0}, 1));
    EXPECT_EQ(cerr.Text(), "whichOne=1\ngetNumPoints()=1\n");
    EXPECT_EQ(capture.Texts(), Texts{"Bad whichOne in updateMinima!"});
  }
  store.Clear();
  EXPECT_EQ(store.getNumPoints(), 0u);
  EXPECT_EQ(store.getLowestValue(), -4.0);
  EXPECT_NEAR(store.GetRt()[1], 20.0 / 3.0, 1e-15);
  EXPECT_EQ(store.getUpdateCount(), 3u);
  EXPECT_EQ(store.GetAttractedCount(0), 0u);
}

TEST(SampleStore, EllipsoidThresholdWidensAfterTenAttractedPoints) {
  MinfinderSamplePoints store = TwoVariableStore();
  store.addPoint({0, 0}, 0.0, {0, 0}, {-10, -10}, {10, 10});
  const double inside[] = {0.5, 0.25};  // s = 0.078
  const double between[] = {0.6, 0.3};  // s = 0.1125
  for (int k = 1; k <= 10; ++k) {
    store.updateMinima({2, -2}, {0, 0}, 0);  // radius stays (2, 2)
    EXPECT_TRUE(store.IsItInAnyEllipsoid(inside)) << k;
    EXPECT_EQ(store.IsItInAnyEllipsoid(between), k == 10) << k;
  }
}

TEST(SampleStore, ZeroRadiusIsOutsideAndMinimaOnlyCheck) {
  MinfinderSamplePoints store = TwoVariableStore();
  store.addPoint({0, 0}, 0.0, {0, 0}, {-1, -1}, {1, 1});
  {
    MessageCapture capture;
    CerrCapture cerr;
    EXPECT_FALSE(store.IsItInAnyEllipsoid(Vec{0, 0}.data()));  // counters not grown
    EXPECT_EQ(cerr.Text(), "_attractedCounter.size()=0\n_numSamplePoint=1\n");
    EXPECT_EQ(capture.Texts(), Texts{"IsItInAnyEllipsoid function should be called on minimums only!"});
  }
  store.updateMinima({1, 0}, {0, 0}, 0);  // radius (1, 0)
  EXPECT_FALSE(store.IsItInAnyEllipsoid(Vec{0.0, 1e-3}.data()));  // d^2 / 0 = inf
  EXPECT_FALSE(store.IsItInAnyEllipsoid(Vec{0.0, 0.0}.data()));   // 0 / 0 = NaN
  EXPECT_FALSE(store.IsItInAnyEllipsoidRt(Vec{0.1, 0.1}.data(), 1e300));  // Rt zero after Setup
  store.updateEllipsoidParemetersRt({1, 1}, {0, 0});
  EXPECT_TRUE(store.IsItInAnyEllipsoidRt(Vec{0.5, 0.5}.data(), 0.5));
  EXPECT_FALSE(store.IsItInAnyEllipsoidRt(Vec{0.5, 0.5}.data(), 0.49));
}

TEST(SampleStore, PrintSortedPointsAscendingWithBound) {
  MinfinderSamplePoints store = TwoVariableStore();
  store.SetCheckMinimumInRange(false);
  store.addPoint({1, 2}, 3.0, {0, 0}, {}, {});
  store.addPoint({4, 5}, -1.0, {0, 0}, {}, {});
  store.addPoint({6, 7}, 9.0, {0, 0}, {}, {});
  CerrCapture cerr;
  store.PrintSortedPoints();
  store.PrintSortedPoints(3.0);
  EXPECT_EQ(cerr.Text(), "1   4   5   -1\n0   1   2   3\n2   6   7   9\n1   4   5   -1\n0   1   2   3\n");
}

// ---------------------------------------------------------------- criteria

// A finder set up on a 2-variable quadratic whose stores the tests fill.
struct CriterionFixture : ::testing::Test {
  DiagonalQuadratic func{{1, 1}, {0, 0}};
  GetRandomVariablesGeneral gen;
  LxMinfinderImpl finder;
  void SetUp() override { ASSERT_TRUE(finder.Setup(func, &gen, {-20, -20}, {20, 20})); }
  void AddMinimum(Vec x) {
    MinfinderSamplePoints& minima = finder.GetMinima();
    ASSERT_TRUE(minima.addPoint(x, 0.0, {0, 0}, {-20, -20}, {20, 20}));
    ASSERT_TRUE(minima.updateMinima(x, x, minima.getNumPoints() - 1));  // zero radius
  }
  bool Criterion(Vec x, Vec g) { return finder.GradientToSamplesCriterion(x.data(), g.data()); }
};

TEST_F(CriterionFixture, GradientCriterionBoundaryAndNearestMinimum) {
  ASSERT_TRUE(finder.GetSamples().addPoint({1, 0}, 1.0, {0, 0}, {-20, -20}, {20, 20}));
  AddMinimum({0, 0});
  EXPECT_TRUE(Criterion({2, 0}, {-5, 0}));  // one minimum: always holds
  AddMinimum({10, 0});
  // s = (2 - 1) * (g - 0)
  EXPECT_TRUE(Criterion({2, 0}, {-0.01, 0}));  // exactly -0.01 does not refuse
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

TEST_F(CriterionFixture, ValidPointNeedsValueStrictlyInsideTheWindowAndNoEllipsoid) {
  const Vec x{1, 2};  // f = 5, gradient (2, 4)
  struct Case {
    double low, high;
    bool valid;
  } cases[] = {{-1e300, 1e300, true}, {-1e300, 5.0, false}, {5.0, 6.0, false}, {4.9999999, 5.0000001, true}};
  for (const Case& c : cases) {
    double value = 0;
    Vec g(2, 99.0);
    finder.SetFvalSampleMin(c.low);
    finder.SetFvalSampleMax(c.high);
    EXPECT_EQ(finder.IsItValidPointVer2(g.data(), value, x.data()), c.valid) << c.low << " " << c.high;
    EXPECT_EQ(value, 5.0);
    EXPECT_EQ(g, (Vec{2, 4}));
  }
  // Inside a minimum's ellipsoid: refused without evaluating.
  finder.GetMinima().addPoint({1, 2}, 0.0, {0, 0}, {-20, -20}, {20, 20});
  finder.GetMinima().updateMinima({2, 3}, {1, 2}, 0);
  double value = -1;
  Vec g(2);
  EXPECT_FALSE(finder.IsItValidPointVer2(g.data(), value, x.data()));
  EXPECT_EQ(value, -1.0);
}

TEST(ValidateMinimum, GradientTestThenNeighbourCount) {
  struct Case {
    Vec d, at;
    bool valid;
    int values;  // neighbour evaluations
  } cases[] = {
      {{1, 1}, {1, 1}, true, 10},
      {Vec(6, 1.0), Vec(6, 1.0), true, 12},  // max(10, 2n)
      {{1, 1}, {1.001, 1.0}, false, 0},      // RMS gradient 0.002 / sqrt 2 > 0.001
      {{1, -1}, {1, 1}, false, -1},          // a saddle has a lower neighbour
  };
  for (const Case& c : cases) {
    DiagonalQuadratic quadratic(c.d, Vec(c.d.size(), 1.0));
    lxtest::Counting counted(quadratic);
    GetRandomVariablesGeneral gen;
    LxMinfinderImpl finder;
    ASSERT_TRUE(finder.Setup(counted, &gen, Vec(c.d.size(), -5.0), Vec(c.d.size(), 5.0)));
    Vec g(c.d.size(), 42.0);
    EXPECT_EQ(finder.ValidateMinimum(g.data(), c.at.data()), c.valid) << c.d.size();
    EXPECT_EQ(counted.gradients, 1);
    if (c.values >= 0) EXPECT_EQ(counted.values, c.values) << c.d.size();
    EXPECT_NEAR(g[0], 2.0 * (c.at[0] - 1.0), 1e-15);
  }
}

// ---------------------------------------------------------------- finder

TEST(Finder, SetupErrorsKeepTheEarlierSetupAndOptimizeNeedsOne) {
  SixWells func;
  DiagonalQuadratic two({1, 1}, {0, 0}), none({}, {});
  GetRandomVariablesGeneral gen;
  LxMinfinder::LxMinfinder finder;
  {
    MessageCapture capture;
    EXPECT_FALSE(finder.Optimize());
    EXPECT_EQ(capture.Texts(), Texts{"You have to setup the minfinder object first!"});
  }
  finder.SetMaxNumOptPoints(1);
  ASSERT_TRUE(finder.Setup(func, &gen, kWellsLower, kWellsUpper));
  const char* kDims =
      "Dimension of lower and upper bound vectors should be equal to the number of variables of "
      "the scoring function!";
  const char* kOrder = "The values of lower bounds should be obviously lower than the upper bounds!";
  struct Case {
    LxFunc1* func;
    Vec lower, upper;
    const char* message;
  } cases[] = {
      {&none, {}, {}, "numVar=0 in Setup function of the LxMinfinderImpl! Please set up your scoring function!"},
      {&two, {0}, {1}, kDims},
      {&two, {0, 0}, {1, 1, 1}, kDims},
      {&two, {0, 1}, {1, 1}, kOrder},
      {&two, {0, 2}, {1, 1}, kOrder},
  };
  for (const Case& c : cases) {
    MessageCapture capture;
    EXPECT_FALSE(finder.Setup(*c.func, &gen, c.lower, c.upper));
    EXPECT_EQ(capture.Texts(), Texts{c.message});
  }
  EXPECT_TRUE(finder.Optimize());  // on the six wells
  EXPECT_GT(func.validityCalls, 0);
}

TEST(Finder, GetMinimumsOrderWindowAndNotices) {
  Search s;
  DiagonalQuadratic func({1, 1}, {0, 0});
  ASSERT_TRUE(s.finder.Setup(func, &s.gen, {-100, -100}, {100, 100}));
  s.coords = s.values = {1};
  {
    CerrCapture cerr;
    EXPECT_FALSE(s.finder.GetMinimums(s.coords, s.values));
    s.finder.PrintMinimums();
    EXPECT_EQ(cerr.Text(), "No minimums!\nNo minimums yet!\n");
    EXPECT_TRUE(s.coords.empty() && s.values.empty());
  }
  for (double v : {5.0, 1.0, 30.0, 26.0, 3.0, 25.999})
    s.finder.GetImpl()->GetMinima().addPoint({v, -v}, v, {0, 0}, {-100, -100}, {100, 100});
  ASSERT_TRUE(s.finder.GetMinimums(s.coords, s.values));
  EXPECT_EQ(s.values, (Vec{1.0, 3.0, 5.0, 25.999}));  // default window 25, strict
  EXPECT_EQ(s.coords, (Vec{1, -1, 3, -3, 5, -5, 25.999, -25.999}));
  s.finder.SetFvalMinimaWindow(2.0);
  ASSERT_TRUE(s.finder.GetMinimums(s.coords, s.values));
  EXPECT_EQ(s.values, (Vec{1.0}));

  s.finder.SetFvalMinimaWindow(0.0);
  CerrCapture cerr;
  EXPECT_FALSE(s.finder.GetMinimums(s.coords, s.values));
  EXPECT_TRUE(s.coords.empty() && s.values.empty());
  s.finder.PrintMinimums();
  EXPECT_EQ(cerr.Text(),
            "No minimums within the given window!\n"
            "0   5   -5   5\n1   1   -1   1\n2   30   -30   30\n3   26   -26   26\n"
            "4   3   -3   3\n5   25.999   -25.999   25.999\n");
}

TEST(Finder, HimmelblauFindsItsFourMinimaAndNothingElse) {
  Himmelblau func;
  Search s;
  s.finder.SetKeepDegenerateStates(true);  // all four have the value 0
  s.finder.SetThresholdNumberOfNoChange(100);
  s.Run(func, {-5, -5}, {5, 5});
  ExpectSameSet(s.coords, Himmelblau::Minima(), 1e-4);
  for (double v : s.values) EXPECT_LT(v, 1e-8);
}

TEST(Finder, SixWellsAllFoundNoneTwiceAndKeptAcrossCalls) {
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
  ASSERT_TRUE(s.finder.GetMinimums(s.coords, s.values));
  ExpectSameSet(s.coords, SixWells::Approximate(), 0.05);
  for (std::size_t j = 1; j < s.values.size(); ++j) EXPECT_GT(s.values[j], s.values[j - 1] + 0.05);
}

TEST(Finder, EndsOfTheSearch) {
  const long kAny = -1;
  struct Case {
    const char* name;
    bool bowl;  // a single well at (0.5, 0.5) instead of the six wells
    unsigned long maxSample, maxPoints, noChange;
    double hours;
    long minima;              // expected count, or kAny
    long minCalls, maxCalls;  // 1 + local optimizations of the cycles
  } cases[] = {
      {"no change 0", true, 1000, 1000, 0, 6.0, 1, 2, 51},  // first cycle finds nothing new
      {"no change 120", true, 1000, 1000, 120, 6.0, 1, 1 + 121, 1 + 170},
      {"max points 2", false, 1000, 2, 500, 6.0, 2, 2, 51},
      {"max points 1", false, 1000, 1, 500, 6.0, kAny, 2, 2},  // ends after the first sample
      {"max sample 50", false, 50, 1000, 500, 6.0, 1, 1, 1},  // all draws needed
      {"time limit", false, 1000, 1000, 500, -1.0, kAny, 2, 51},  // first cycle adds a minimum
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
    if (c.minima != kAny) EXPECT_EQ(static_cast<long>(s.Count()), c.minima) << c.name;
    const long calls = c.bowl ? bowl.validityCalls : wells.validityCalls;
    EXPECT_GE(calls, c.minCalls) << c.name;
    EXPECT_LE(calls, c.maxCalls) << c.name;
  }
}

// Himmelblau whose value and gradient are not numbers for x > 3.3, where one
// of its minima lies.
class HimmelblauWithHole : public Himmelblau {
 public:
  using Himmelblau::operator();
  double operator()(const double* x, double* g) override {
    const double f = Himmelblau::operator()(x, g);
    if (x[0] <= 3.3) return f;
    g[0] = g[1] = kNaN;
    return kNaN;
  }
};

TEST(Finder, ValuesThatAreNotNumbersNeverBecomeMinima) {
  HimmelblauWithHole func;
  Search s;
  s.finder.SetKeepDegenerateStates(true);
  s.finder.SetThresholdNumberOfNoChange(100);
  s.Run(func, {-5, -5}, {5, 5});
  std::vector<Vec> expected = Himmelblau::Minima();
  expected.pop_back();  // (3.58, -1.85) is in the hole
  ExpectSameSet(s.coords, expected, 1e-4);
  for (double v : s.values) EXPECT_TRUE(std::isfinite(v));
}

// Succeeds `good` times, then fails without a message.
class FailingGenerator : public GetRandomVariablesGeneral {
 public:
  explicit FailingGenerator(int good) : good_(good) {}
  bool operator()(double* x, const Vec& lower, const Vec& upper) override {
    return good_-- > 0 && GetRandomVariablesGeneral::operator()(x, lower, upper);
  }

 private:
  int good_;
};

TEST(Finder, FailingOrMissingGeneratorEndsTheSearch) {
  const char* kFailed = "The random point generator failed; the minimum search ends!";
  struct Case {
    int good;  // -1: no generator at all
    Texts messages;
    unsigned long minima;
  } cases[] = {
      {0, {kFailed}, 0},
      {-1, {"No random point generator given to GetRandomSamplePoint!", kFailed}, 0},
      {30, {kFailed}, 1},  // fails inside the first cycle
  };
  for (const Case& c : cases) {
    SixWells func;
    FailingGenerator gen(c.good);
    LxMinfinder::LxMinfinder finder;
    ASSERT_TRUE(finder.Setup(func, c.good < 0 ? nullptr : &gen, kWellsLower, kWellsUpper));
    MessageCapture capture;
    EXPECT_FALSE(finder.Optimize());
    EXPECT_EQ(capture.Texts(), c.messages);
    EXPECT_EQ(finder.GetImpl()->GetMinima().getNumPoints(), c.minima);
  }
}

}  // namespace
