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
using lxtest::Counting;
using lxtest::DiagonalQuadratic;
using lxtest::MessageCapture;
using Vec = std::vector<double>;

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

// (x^2 + y - 11)^2 + (x + y^2 - 7)^2: four minima of value 0, a maximum and
// four saddles in [-5, 5]^2.
class Himmelblau : public lxtest::Objective {
 public:
  using lxtest::Objective::operator();
  unsigned int NumVar() const override { return 2; }
  double operator()(const double* x) override {
    const double a = x[0] * x[0] + x[1] - 11.0, b = x[0] + x[1] * x[1] - 7.0;
    return a * a + b * b;
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
// values about 0.1 apart. CheckVariablesValidity counts its calls, which the
// finder makes once per local optimization.
class SixWells : public lxtest::Objective {
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
  bool CheckVariablesValidity(const double*) override {
    ++validityCalls;
    return true;
  }
  static std::vector<Vec> Approximate() {
    std::vector<Vec> wells;
    for (double x : {-2.0, 0.0, 2.0})
      for (double y : {-1.0, 1.0}) wells.push_back({x, y});
    return wells;
  }
  long validityCalls = 0;
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

TEST(Generators, GeneralStaysInTheBoxAndIsReproducible) {
  GetRandomVariablesGeneral a, b;
  const Vec lower{-1.0, 10.0, 0.0}, upper{1.0, 10.5, 1e-3};
  double x[3], y[3];
  for (int k = 0; k < 2000; ++k) {
    ASSERT_TRUE(a(x, lower, upper));
    ASSERT_TRUE(b(y, lower, upper));
    for (int i = 0; i < 3; ++i) {
      EXPECT_GE(x[i], lower[i]);
      EXPECT_LT(x[i], upper[i]);
      EXPECT_EQ(x[i], y[i]);
    }
  }
  b.Seed(99);
  a(x, lower, upper);
  b(y, lower, upper);
  EXPECT_NE(x[0], y[0]);
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
      {&pose, {}, {}, "Dimension of lower and upper bound vectors should be equal!"},
  };
  for (const Case& c : cases) {
    MessageCapture capture;
    double x[5] = {7, 7, 7, 7, 7};
    EXPECT_FALSE((*c.gen)(x, c.lower, c.upper));
    for (double v : x) EXPECT_EQ(v, 7.0);
    ASSERT_EQ(capture.messages.size(), 1u);
    EXPECT_EQ(capture.messages[0].level, LxMessageLevel::Error);
    EXPECT_EQ(capture.messages[0].text, c.message);
  }
}

TEST(Generators, PoseIsUnitQuaternionWithNonNegativeScalarThenBox) {
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
    for (int i = 4; i < 7; ++i) {
      EXPECT_GE(x[i], lower[i]);
      EXPECT_LT(x[i], upper[i]);
    }
  }
  EXPECT_TRUE(sawNegative);
  // On the uniform 3-sphere a coordinate has density (2 / pi) sqrt(1 - t^2),
  // so E|q0| = 4 / (3 pi) = 0.4244 (standard error here about 0.006).
  EXPECT_NEAR(sumFirst / 2000, 4.0 / (3.0 * M_PI), 0.02);
}

TEST(Generators, PoseQuaternionFollowsRandAndShortBoundsWriteFour) {
  LxRandomPosOrient pose;
  double a[6] = {9, 9, 9, 9, 9, 9}, b[6] = {9, 9, 9, 9, 9, 9};
  std::srand(4);
  ASSERT_TRUE(pose(a, {0, 0, 0, 0}, {1, 1, 1, 1}));
  std::srand(4);
  ASSERT_TRUE(pose(b, {5}, {6}));  // one bound: the quaternion is still written
  for (int i = 0; i < 4; ++i) EXPECT_EQ(a[i], b[i]);
  EXPECT_EQ(a[4], 9.0);
  EXPECT_EQ(b[4], 9.0);
  // The same rand() state with different bounds of length 4 gives the same
  // quaternion: those bounds are never read.
  std::srand(4);
  ASSERT_TRUE(pose(b, {100, 100, 100, 100}, {101, 101, 101, 101}));
  for (int i = 0; i < 4; ++i) EXPECT_EQ(a[i], b[i]);
}

// ---------------------------------------------------------------- store

MinfinderSamplePoints TwoVariableStore() {
  MinfinderSamplePoints store;
  store.Setup(2, 0.01);
  return store;
}

TEST(SampleStore, AddPointChecksTheBoxIncludingItsEnds) {
  MinfinderSamplePoints store = TwoVariableStore();
  const Vec lower{0, 0}, upper{1, 1}, g{0, 0};
  EXPECT_TRUE(store.addPoint({0.0, 1.0}, 3.0, g, lower, upper));
  EXPECT_FALSE(store.addPoint({1.0 + 1e-12, 0.5}, -1.0, g, lower, upper));
  EXPECT_FALSE(store.addPoint({kNaN, 0.5}, -1.0, g, lower, upper));
  EXPECT_EQ(store.getNumPoints(), 1u);
  EXPECT_EQ(store.getLowestValue(), 3.0);
  store.SetCheckMinimumInRange(false);
  EXPECT_TRUE(store.addPoint({5.0, 5.0}, 2.0, {1, 2}, lower, upper));
  EXPECT_EQ(store.getLowestValue(), 2.0);

  Vec x, grad;
  double y = 0;
  ASSERT_TRUE(store.getX(x, 1));
  ASSERT_TRUE(store.getY(y, 1));
  ASSERT_TRUE(store.getGrad(grad, 1));
  EXPECT_EQ(x, (Vec{5.0, 5.0}));
  EXPECT_EQ(y, 2.0);
  EXPECT_EQ(grad, (Vec{1.0, 2.0}));
}

TEST(SampleStore, IndexErrorsLeaveOutputsAlone) {
  MinfinderSamplePoints store = TwoVariableStore();
  store.addPoint({0.5, 0.5}, 1.0, {0, 0}, {0, 0}, {1, 1});
  MessageCapture capture;
  Vec x{7}, g{7};
  double y = 7;
  EXPECT_FALSE(store.getX(x, 1));
  EXPECT_FALSE(store.getY(y, 1));
  EXPECT_FALSE(store.getGrad(g, 5));
  EXPECT_FALSE(store.replacePoint(1, {0, 0}, 0.0, {0, 0}));
  EXPECT_EQ(capture.Texts(), (std::vector<std::string>{
                                 "index>= _numSamplePoint in getX!", "index>= _numSamplePoint in getY!",
                                 "index>= _numSamplePoint in getGrad!",
                                 "index>= _numSamplePoint in replacePoint!"}));
  EXPECT_EQ(x, Vec{7});
  EXPECT_EQ(y, 7.0);
}

TEST(SampleStore, ClearKeepsLowestValueAndRt) {
  MinfinderSamplePoints store = TwoVariableStore();
  store.addPoint({0.5, 0.5}, -4.0, {0, 0}, {0, 0}, {1, 1});
  store.updateEllipsoidParemetersRt({1, 1}, {0, 3});
  store.updateMinima({1, 1}, {0, 0}, 0);
  store.Clear();
  EXPECT_EQ(store.getNumPoints(), 0u);
  EXPECT_EQ(store.getLowestValue(), -4.0);
  EXPECT_EQ(store.GetRt(), (Vec{1.0, 4.0}));
  EXPECT_EQ(store.getUpdateCount(), 1u);
  EXPECT_EQ(store.GetAttractedCount(0), 0u);
  EXPECT_FALSE(store.IsItInAnyEllipsoid(Vec{0.5, 0.5}.data()));
}

TEST(SampleStore, DistancesOverAllOverloads) {
  MinfinderSamplePoints store = TwoVariableStore();
  store.SetCheckMinimumInRange(false);
  store.addPoint({0, 0}, 0, {0, 0}, {}, {});
  store.addPoint({3, 4}, 0, {0, 0}, {}, {});
  const double p[] = {0, 0}, q[] = {3, 4};
  EXPECT_EQ(store.CalcDistance(p, q), 5.0);
  EXPECT_EQ(store.CalcDistance(0ul, q), 5.0);
  EXPECT_EQ(store.CalcDistance(0ul, 1ul), 5.0);
  EXPECT_EQ(store.CalcDistance2(1ul, p), 25.0);
  MinfinderSamplePoints empty;
  EXPECT_EQ(empty.CalcDistance(p, q), 0.0);  // n = 0
}

TEST(SampleStore, HaveItAlreadyByCoordinatesValuesAndGeometry) {
  MinfinderSamplePoints store = TwoVariableStore();
  unsigned long index = 99;
  DiagonalQuadratic f({1, 1}, {0, 0});
  EXPECT_FALSE(store.haveItAlready(index, {0, 0}, 0.0, true));
  EXPECT_EQ(index, 0u);
  EXPECT_FALSE(store.haveItAlready(index, f, 0.01, {0, 0}, 0.0, true));

  store.SetCheckMinimumInRange(false);
  store.addPoint({0, 0}, 1.0, {0, 0}, {}, {});
  store.addPoint({2, 2}, 5.0, {0, 0}, {}, {});
  store.addPoint({2.005, 2}, 5.0, {0, 0}, {}, {});
  struct Case {
    Vec x;
    double value;
    bool byCoordinates;
    bool found;
    unsigned long index;
  } cases[] = {
      {{2.0099, 1.995}, 0.0, true, true, 1},  // |dx| <= 0.01 in each variable
      {{2.0101, 2.0}, 0.0, true, true, 2},  // only the third is close enough
      {{2.02, 2.0}, 0.0, true, false, 0},
      {{9, 9}, 5.0001, false, true, 1},  // by value within 1e-4
      {{9, 9}, 5.0002, false, false, 0},
  };
  for (const Case& c : cases) {
    index = 77;
    EXPECT_EQ(store.haveItAlready(index, c.x, c.value, c.byCoordinates), c.found) << c.x[0];
    EXPECT_EQ(index, c.found ? c.index : 0u) << c.x[0];
  }
  // keepDegenerate: geometry decides (RMS difference < tolerance) ...
  EXPECT_FALSE(store.haveItAlready(index, f, 0.01, {5, 5}, 5.0, true));
  EXPECT_TRUE(store.haveItAlready(index, f, 0.01, {2.004, 2.0}, 123.0, true));
  EXPECT_EQ(index, 1u);
  // ... otherwise different geometries with values within the tolerance merge.
  EXPECT_TRUE(store.haveItAlready(index, f, 0.01, {5, 5}, 5.01, false));
  EXPECT_EQ(index, 1u);
  EXPECT_FALSE(store.haveItAlready(index, f, 0.01, {0, 0}, 1.02, false));
}

TEST(SampleStore, EllipsoidRunningMeansDiffer) {
  MinfinderSamplePoints store = TwoVariableStore();
  EXPECT_FALSE(store.updateEllipsoidParemetersRt({1, -2}, {0, 0}));  // empty store
  EXPECT_FALSE(store.updateMinima({1, -2}, {0, 0}, 0));
  store.addPoint({0, 0}, 0.0, {0, 0}, {-10, -10}, {10, 10});
  const std::vector<Vec> starts{{1, -2}, {3, 0}, {-2, 4}};
  const std::vector<Vec> radii{{1, 2}, {2, 1}, {2, 2}};                      // mean |d|
  const std::vector<Vec> rt{{1, 4}, {5, 2}, {14.0 / 3.0, 20.0 / 3.0}};      // mean d^2
  for (std::size_t k = 0; k < starts.size(); ++k) {
    ASSERT_TRUE(store.updateMinima(starts[k], {0, 0}, 0));
    ASSERT_TRUE(store.updateEllipsoidParemetersRt(starts[k], {0, 0}));
    EXPECT_EQ(store.GetMinimumRadii(0), radii[k]) << k;
    EXPECT_NEAR(store.GetRt()[0], rt[k][0], 1e-15) << k;
    EXPECT_NEAR(store.GetRt()[1], rt[k][1], 1e-15) << k;
    EXPECT_EQ(store.GetAttractedCount(0), k + 1);
  }
  MessageCapture capture;
  CerrCapture cerr;
  EXPECT_FALSE(store.updateMinima({0, 0}, {0, 0}, 1));
  EXPECT_EQ(cerr.Text(), "whichOne=1\ngetNumPoints()=1\n");
  EXPECT_EQ(capture.Texts(), std::vector<std::string>{"Bad whichOne in updateMinima!"});
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
    EXPECT_EQ(capture.Texts(),
              std::vector<std::string>{"IsItInAnyEllipsoid function should be called on minimums only!"});
  }
  store.updateMinima({1, 0}, {0, 0}, 0);  // radius (1, 0)
  EXPECT_FALSE(store.IsItInAnyEllipsoid(Vec{0.0, 1e-3}.data()));  // d^2 / 0 = inf
  EXPECT_FALSE(store.IsItInAnyEllipsoid(Vec{0.0, 0.0}.data()));   // 0 / 0 = NaN
  // Rt is zero after Setup as well.
  EXPECT_FALSE(store.IsItInAnyEllipsoidRt(Vec{0.1, 0.1}.data(), 1e300));
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
  EXPECT_EQ(cerr.Text(),
            "1   4   5   -1\n0   1   2   3\n2   6   7   9\n"
            "1   4   5   -1\n0   1   2   3\n");
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
  void AddSample(Vec x, Vec g) {
    ASSERT_TRUE(finder.GetSamples().addPoint(x, 1.0, g, {-20, -20}, {20, 20}));
  }
  bool Criterion(Vec x, Vec g) { return finder.GradientToSamplesCriterion(x.data(), g.data()); }
};

TEST_F(CriterionFixture, GradientCriterionBoundaryAndNearestMinimum) {
  AddSample({1, 0}, {0, 0});
  AddMinimum({0, 0});
  EXPECT_TRUE(Criterion({2, 0}, {-5, 0}));  // one minimum: always holds
  AddMinimum({10, 0});
  // s = (2 - 1) * (g - 0)
  EXPECT_TRUE(Criterion({2, 0}, {-0.01, 0}));  // exactly -0.01 does not refuse
  EXPECT_FALSE(Criterion({2, 0}, {-0.0100001, 0}));
  EXPECT_TRUE(Criterion({2, 0}, {3, 0}));
  // A candidate nearer the other minimum ignores the sample.
  EXPECT_TRUE(Criterion({8, 0}, {50, 0}));
  // Equidistant from both: the earlier minimum (index 0) is the nearest.
  EXPECT_FALSE(Criterion({5, 0}, {-1, 0}));
}

TEST_F(CriterionFixture, GradientCriterionFollowsNewMinima) {
  AddMinimum({0, 0});
  AddMinimum({10, 0});
  AddSample({4, 0}, {0, 0});
  EXPECT_FALSE(Criterion({1, 0}, {1, 0}));  // s = -3, both nearest to minimum 0
  AddMinimum({4, 1});                       // now the sample's nearest minimum
  EXPECT_TRUE(Criterion({1, 0}, {1, 0}));
  finder.GetSamples().replacePoint(0, {2, 0}, 1.0, {0, 0});  // back to minimum 0
  EXPECT_FALSE(Criterion({1, 0}, {1, 0}));  // s = -1
}

TEST_F(CriterionFixture, ValidPointNeedsValueStrictlyInsideTheWindow) {
  const Vec x{1, 2};  // f = 5, gradient (2, 4)
  double value = 0;
  Vec g(2, 99.0);
  EXPECT_TRUE(finder.IsItValidPointVer2(g.data(), value, x.data()));
  EXPECT_EQ(value, 5.0);
  EXPECT_EQ(g, (Vec{2, 4}));
  finder.SetFvalSampleMax(5.0);
  EXPECT_FALSE(finder.IsItValidPointVer2(g.data(), value, x.data()));
  finder.SetFvalSampleMax(5.0000001);
  finder.SetFvalSampleMin(5.0);
  EXPECT_FALSE(finder.IsItValidPointVer2(g.data(), value, x.data()));
  finder.SetFvalSampleMin(4.9999999);
  EXPECT_TRUE(finder.IsItValidPointVer2(g.data(), value, x.data()));
  // Inside a minimum's ellipsoid: refused without evaluating.
  finder.GetMinima().addPoint({1, 2}, 0.0, {0, 0}, {-20, -20}, {20, 20});
  finder.GetMinima().updateMinima({2, 3}, {1, 2}, 0);
  value = -1;
  EXPECT_FALSE(finder.IsItValidPointVer2(g.data(), value, x.data()));
  EXPECT_EQ(value, -1.0);
}

TEST_F(CriterionFixture, RtCriteriaUseTheStoreWideEllipsoid) {
  AddSample({0, 0}, {0, 0});
  finder.GetSamples().updateEllipsoidParemetersRt({1, 1}, {0, 0});  // Rt = (1, 1)
  EXPECT_TRUE(finder.EllipsoidRtToSamplePointsCriterion(Vec{0.1, 0}.data()));
  EXPECT_FALSE(finder.EllipsoidRtToSamplePointsCriterion(Vec{0, 0}.data()));
  EXPECT_TRUE(finder.EllipsoidRtToMinimumPointsCriterion(Vec{0, 0}.data()));  // no minima
}

TEST(ValidateMinimum, GradientTestThenNeighbourCount) {
  struct Case {
    unsigned int n;
    Vec at;
    bool valid;
    int values;  // neighbour evaluations
  } cases[] = {
      {2, {1, 1}, true, 10},
      {6, {1, 1, 1, 1, 1, 1}, true, 12},
      {2, {1.001, 1.0}, false, 0},  // RMS gradient 0.002 / sqrt 2 > 0.001
  };
  for (const Case& c : cases) {
    DiagonalQuadratic quadratic(Vec(c.n, 1.0), Vec(c.n, 1.0));
    Counting counted(quadratic);
    GetRandomVariablesGeneral gen;
    LxMinfinderImpl finder;
    ASSERT_TRUE(finder.Setup(counted, &gen, Vec(c.n, -5.0), Vec(c.n, 5.0)));
    Vec g(c.n, 42.0);
    EXPECT_EQ(finder.ValidateMinimum(g.data(), c.at.data()), c.valid) << c.n;
    EXPECT_EQ(counted.gradients, 1);
    EXPECT_EQ(counted.values, c.values) << c.n;
    EXPECT_NEAR(g[0], 2.0 * (c.at[0] - 1.0), 1e-15);
  }
}

TEST(ValidateMinimum, SaddleHasALowerNeighbour) {
  DiagonalQuadratic saddle({1, -1}, {0, 0});
  GetRandomVariablesGeneral gen;
  LxMinfinderImpl finder;
  ASSERT_TRUE(finder.Setup(saddle, &gen, {-1, -1}, {1, 1}));
  Vec g(2);
  EXPECT_FALSE(finder.ValidateMinimum(g.data(), Vec{0, 0}.data()));
}

// ---------------------------------------------------------------- finder

TEST(Finder, SetupErrorsAndOptimizeBeforeSetup) {
  DiagonalQuadratic two({1, 1}, {0, 0});
  DiagonalQuadratic none({}, {});
  GetRandomVariablesGeneral gen;
  const char* kDims =
      "Dimension of lower and upper bound vectors should be equal to the number of variables of "
      "the scoring function!";
  const char* kOrder = "The values of lower bounds should be obviously lower than the upper bounds!";
  struct Case {
    LxFunc1* func;
    Vec lower, upper;
    const char* message;
  } cases[] = {
      {&none, {}, {},
       "numVar=0 in Setup function of the LxMinfinderImpl! Please set up your scoring function!"},
      {&two, {0}, {1}, kDims},
      {&two, {0, 0, 0}, {1, 1, 1}, kDims},
      {&two, {0, 0}, {1, 1, 1}, kDims},
      {&two, {0, 1}, {1, 1}, kOrder},
      {&two, {0, 2}, {1, 1}, kOrder},
  };
  LxMinfinder::LxMinfinder finder;
  for (const Case& c : cases) {
    MessageCapture capture;
    EXPECT_FALSE(finder.Setup(*c.func, &gen, c.lower, c.upper));
    EXPECT_EQ(capture.Texts(), std::vector<std::string>{c.message});
  }
  MessageCapture capture;
  EXPECT_FALSE(finder.Optimize());
  EXPECT_EQ(capture.Texts(), std::vector<std::string>{"You have to setup the minfinder object first!"});
}

TEST(Finder, DefaultsAndSetters) {
  LxMinfinder::LxMinfinder finder;
  EXPECT_EQ(finder.GetMaxSample(), 1000u);
  EXPECT_EQ(finder.GetThresholdNumberOfNoChange(), 500u);
  EXPECT_EQ(finder.GetMaxNumOptPoints(), 1000u);
  EXPECT_EQ(finder.GetSamePointTolerance(), 0.01);
  EXPECT_EQ(finder.GetLocalOptTolerance(), 1e-8);
  EXPECT_EQ(finder.GetLocalOptMaxIter(), 200u);
  EXPECT_EQ(finder.GetFvalSampleMax(), std::numeric_limits<double>::max());
  EXPECT_EQ(finder.GetFvalMinimaMin(), -std::numeric_limits<double>::max());
  EXPECT_EQ(finder.GetFvalMinimaWindow(), 25.0);
  EXPECT_EQ(finder.GetTimeLimit(), 6.0);
  EXPECT_TRUE(finder.GetCheckMinimumInRange());
  EXPECT_FALSE(finder.GetKeepDegenerateStates());
  EXPECT_TRUE(finder.SetLocalOptMaxIter(17));
  EXPECT_TRUE(finder.SetLocalOptTolerance(1e-3));
  EXPECT_EQ(finder.GetLocalOptMaxIter(), 17u);
}

TEST(Finder, GetMinimumsOrderWindowAndNotices) {
  DiagonalQuadratic func({1, 1}, {0, 0});
  GetRandomVariablesGeneral gen;
  LxMinfinder::LxMinfinder finder;
  ASSERT_TRUE(finder.Setup(func, &gen, {-100, -100}, {100, 100}));
  Vec coords{1}, values{1};
  {
    CerrCapture cerr;
    EXPECT_FALSE(finder.GetMinimums(coords, values));
    finder.PrintMinimums();
    EXPECT_EQ(cerr.Text(), "No minimums!\nNo minimums yet!\n");
    EXPECT_TRUE(coords.empty() && values.empty());
  }
  MinfinderSamplePoints& minima = finder.GetImpl()->GetMinima();
  for (double v : {5.0, 1.0, 30.0, 26.0, 3.0, 25.999})
    minima.addPoint({v, -v}, v, {0, 0}, {-100, -100}, {100, 100});
  ASSERT_TRUE(finder.GetMinimums(coords, values));
  EXPECT_EQ(values, (Vec{1.0, 3.0, 5.0, 25.999}));  // 26 - 1 = 25 is not below 25
  EXPECT_EQ(coords, (Vec{1, -1, 3, -3, 5, -5, 25.999, -25.999}));
  finder.SetFvalMinimaWindow(2.0);
  ASSERT_TRUE(finder.GetMinimums(coords, values));
  EXPECT_EQ(values, (Vec{1.0}));

  finder.SetFvalMinimaWindow(0.0);
  CerrCapture cerr;
  EXPECT_FALSE(finder.GetMinimums(coords, values));
  EXPECT_TRUE(coords.empty() && values.empty());
  finder.PrintMinimums();
  EXPECT_EQ(cerr.Text(),
            "No minimums within the given window!\n"
            "0   5   -5   5\n1   1   -1   1\n2   30   -30   30\n3   26   -26   26\n"
            "4   3   -3   3\n5   25.999   -25.999   25.999\n");
}

TEST(Finder, HimmelblauFindsItsFourMinimaAndNothingElse) {
  Himmelblau func;
  GetRandomVariablesGeneral gen;
  LxMinfinder::LxMinfinder finder;
  finder.SetKeepDegenerateStates(true);  // all four have the value 0
  finder.SetThresholdNumberOfNoChange(100);
  ASSERT_TRUE(finder.Setup(func, &gen, {-5, -5}, {5, 5}));
  ASSERT_TRUE(finder.Optimize());
  Vec coords, values;
  ASSERT_TRUE(finder.GetMinimums(coords, values));
  ExpectSameSet(coords, Himmelblau::Minima(), 1e-4);
  for (double v : values) EXPECT_LT(v, 1e-8);
}

TEST(Finder, SixWellsAllFoundNoneTwice) {
  SixWells func;
  GetRandomVariablesGeneral gen;
  LxMinfinder::LxMinfinder finder;
  finder.SetThresholdNumberOfNoChange(100);
  ASSERT_TRUE(finder.Setup(func, &gen, {-3, -2}, {3, 2}));
  ASSERT_TRUE(finder.Optimize());
  Vec coords, values;
  ASSERT_TRUE(finder.GetMinimums(coords, values));
  ExpectSameSet(coords, SixWells::Approximate(), 0.05);
  for (std::size_t j = 1; j < values.size(); ++j) EXPECT_GT(values[j], values[j - 1] + 0.05);
}

// One well at (0.5, 0.5); counts CheckVariablesValidity like SixWells.
class Bowl : public DiagonalQuadratic {
 public:
  Bowl() : DiagonalQuadratic({1, 2}, {0.5, 0.5}) {}
  bool CheckVariablesValidity(const double*) override {
    ++validityCalls;
    return true;
  }
  long validityCalls = 0;
};

TEST(Finder, NoChangeThresholdEndsTheSearch) {
  struct Case {
    unsigned long threshold;
    long minCalls, maxCalls;  // 1 + local optimizations of the cycles
  } cases[] = {
      {0, 2, 51},                // the first cycle finds nothing new: 1 > 0
      {120, 1 + 121, 1 + 170},  // ends in the cycle that passes 120
  };
  for (const Case& c : cases) {
    Bowl func;
    GetRandomVariablesGeneral gen;
    LxMinfinder::LxMinfinder finder;
    finder.SetThresholdNumberOfNoChange(c.threshold);
    ASSERT_TRUE(finder.Setup(func, &gen, {-3, -2}, {3, 2}));
    EXPECT_TRUE(finder.Optimize());
    EXPECT_EQ(finder.GetImpl()->GetMinima().getNumPoints(), 1u);
    EXPECT_GE(func.validityCalls, c.minCalls) << c.threshold;
    EXPECT_LE(func.validityCalls, c.maxCalls) << c.threshold;
  }
}

TEST(Finder, OtherEndsOfTheSearch) {
  const long kAny = -1;
  struct Case {
    const char* name;
    unsigned long maxSample, maxPoints;
    double hours;
    long minima;              // expected count, or kAny
    long minCalls, maxCalls;  // 1 + local optimizations of the cycles
  } cases[] = {
      {"max points 2", 1000, 2, 6.0, 2, 2, 51},
      {"max points 1", 1000, 1, 6.0, kAny, 2, 2},  // ends after the first sample
      {"max sample 0", 0, 1000, 6.0, 1, 1, 1},
      {"max sample 50", 50, 1000, 6.0, 1, 1, 1},  // all draws needed: ends
      {"time limit", 1000, 1000, -1.0, kAny, 2, 51},  // first cycle adds a minimum
  };
  for (const Case& c : cases) {
    SixWells func;
    GetRandomVariablesGeneral gen;
    LxMinfinder::LxMinfinder finder;
    finder.SetMaxSample(c.maxSample);
    finder.SetMaxNumOptPoints(c.maxPoints);
    finder.SetTimeLimit(c.hours);
    ASSERT_TRUE(finder.Setup(func, &gen, {-3, -2}, {3, 2}));
    EXPECT_TRUE(finder.Optimize()) << c.name;
    const long count = static_cast<long>(finder.GetImpl()->GetMinima().getNumPoints());
    if (c.minima != kAny) {
      EXPECT_EQ(count, c.minima) << c.name;
    }
    EXPECT_GE(func.validityCalls, c.minCalls) << c.name;
    EXPECT_LE(func.validityCalls, c.maxCalls) << c.name;
  }
}

TEST(Finder, MinimaKeptAcrossTwoOptimizeCalls) {
  SixWells func;
  GetRandomVariablesGeneral gen;
  LxMinfinder::LxMinfinder finder;
  finder.SetMaxNumOptPoints(3);
  ASSERT_TRUE(finder.Setup(func, &gen, {-3, -2}, {3, 2}));
  ASSERT_TRUE(finder.Optimize());
  const MinfinderSamplePoints& minima = finder.GetImpl()->GetMinima();
  ASSERT_EQ(minima.getNumPoints(), 3u);
  Vec first(minima.PointData(0), minima.PointData(0) + 6);

  finder.SetMaxNumOptPoints(1000);
  finder.SetThresholdNumberOfNoChange(100);
  ASSERT_TRUE(finder.Optimize());
  EXPECT_EQ(Vec(minima.PointData(0), minima.PointData(0) + 6), first);
  Vec coords, values;
  ASSERT_TRUE(finder.GetMinimums(coords, values));
  ExpectSameSet(coords, SixWells::Approximate(), 0.05);
}

// Himmelblau whose value and gradient are not numbers for x > 3.3, where one
// of its minima lies.
class HimmelblauWithHole : public Himmelblau {
 public:
  using Himmelblau::operator();
  double operator()(const double* x) override {
    return x[0] > 3.3 ? kNaN : Himmelblau::operator()(x);
  }
  double operator()(const double* x, double* g) override {
    const double f = Himmelblau::operator()(x, g);
    if (x[0] <= 3.3) return f;
    g[0] = g[1] = kNaN;
    return kNaN;
  }
};

TEST(Finder, ValuesThatAreNotNumbersNeverBecomeMinima) {
  HimmelblauWithHole func;
  GetRandomVariablesGeneral gen;
  LxMinfinder::LxMinfinder finder;
  finder.SetKeepDegenerateStates(true);
  finder.SetThresholdNumberOfNoChange(100);
  ASSERT_TRUE(finder.Setup(func, &gen, {-5, -5}, {5, 5}));
  ASSERT_TRUE(finder.Optimize());
  Vec coords, values;
  ASSERT_TRUE(finder.GetMinimums(coords, values));
  std::vector<Vec> expected = Himmelblau::Minima();
  expected.pop_back();  // (3.58, -1.85) is in the hole
  ExpectSameSet(coords, expected, 1e-4);
  for (double v : values) EXPECT_TRUE(std::isfinite(v));
}

// Succeeds `good` times, then fails without a message.
class FailingGenerator : public GetRandomVariables {
 public:
  explicit FailingGenerator(int good) : good_(good) {}
  bool operator()(double* x, const Vec& lower, const Vec& upper) override {
    if (good_-- <= 0) return false;
    return inner_(x, lower, upper);
  }

 private:
  int good_;
  GetRandomVariablesGeneral inner_;
};

TEST(Finder, FailingOrMissingGeneratorEndsTheSearch) {
  const char* kFailed = "The random point generator failed; the minimum search ends!";
  struct Case {
    int good;  // -1: no generator at all
    std::vector<std::string> messages;
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
    ASSERT_TRUE(finder.Setup(func, c.good < 0 ? nullptr : &gen, {-3, -2}, {3, 2}));
    MessageCapture capture;
    EXPECT_FALSE(finder.Optimize());
    EXPECT_EQ(capture.Texts(), c.messages);
    EXPECT_EQ(finder.GetImpl()->GetMinima().getNumPoints(), c.minima);
  }
}

TEST(Finder, FailedSetupKeepsTheEarlierOne) {
  SixWells func;
  DiagonalQuadratic three({1, 1, 1}, {0, 0, 0});
  GetRandomVariablesGeneral gen;
  LxMinfinder::LxMinfinder finder;
  finder.SetMaxNumOptPoints(1);
  ASSERT_TRUE(finder.Setup(func, &gen, {-3, -2}, {3, 2}));
  {
    MessageCapture capture;
    EXPECT_FALSE(finder.Setup(three, &gen, {0, 0, 0}, {1, 0, 1}));
  }
  EXPECT_TRUE(finder.Optimize());
  EXPECT_EQ(finder.GetImpl()->GetMinima().getNumVar(), 2u);
  EXPECT_GT(func.validityCalls, 0);
}

}  // namespace
