// Global minimum search: generators, sample store, criteria, finder, batched finder.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <limits>
#include <string>
#include <vector>

#include "support/problems.h"

namespace {

using namespace LxOpt;
using namespace LxOpt::LxMinfinder;
using namespace lxtest;
using Finder = LxOpt::LxMinfinder::LxMinfinder;
using Vec = std::vector<double>;
using Texts = std::vector<std::string>;

const Vec kWellsLower{-3, -2}, kWellsUpper{3, 2};

// A 2-variable objective counting CheckVariablesValidity calls (one per local optimization).
struct Objective2 : Objective {
  using Function = double (*)(const double* x, double* g);
  using Objective::operator();
  explicit Objective2(Function f) : f(f) {}
  unsigned int NumVar() const override { return 2; }
  double operator()(const double* x) override { return f(x, Vec(2).data()); }
  double operator()(const double* x, double* g) override { return f(x, g); }
  bool CheckVariablesValidity(const double*) override { return ++validityCalls > 0; }
  Function f;
  long validityCalls = 0;
};

// Himmelblau's function: four minima of value 0 in [-5, 5]^2; NaN for x > hole.
double HimmelblauBelow(double hole, const double* x, double* g) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double a = x[0] * x[0] + x[1] - 11.0, b = x[0] + x[1] * x[1] - 7.0;
  g[0] = x[0] > hole ? nan : 4.0 * x[0] * a + 2.0 * b;
  g[1] = 2.0 * a + 4.0 * x[1] * b;
  return x[0] > hole ? nan : a * a + b * b;
}
double Himmelblau(const double* x, double* g) {
  return HimmelblauBelow(1e300, x, g);
}
double HimmelblauHole(const double* x, double* g) {
  return HimmelblauBelow(3.3, x, g);
}
// Its minima; the last lies at x > 3.3.
const std::vector<Vec> kHimmelblauMinima{
    {3.0, 2.0}, {-2.805118, 3.131312}, {-3.779310, -3.283186}, {3.584428, -1.848126}};

// Six wells near x = -2, 0, 2 and y = -1, 1, values about 0.1 apart.
double SixWells(const double* v, double* g) {
  const double x = v[0], y = v[1], p = x * x - 4.0, q = y * y - 1.0;
  g[0] = 2.0 * x * p * p + 4.0 * x * x * x * p + 0.1;
  g[1] = 4.0 * y * q + 0.05;
  return x * x * p * p + 0.1 * x + q * q + 0.05 * y;
}

// Four flat-bottomed wells: BFGS stops short, so drawn-ahead neighbours are often wrong.
double QuarticWells(const double* v, double* g) {
  const double p = v[0] * v[0] - 1.0, q = v[1] * v[1] - 1.0;
  g[0] = 8.0 * v[0] * p * p * p + 0.1;
  g[1] = 8.0 * v[1] * q * q * q + 0.2;
  return p * p * p * p + q * q * q * q + 0.1 * v[0] + 0.2 * v[1];
}

// One well at (0.5, 0.5).
double Bowl(const double* v, double* g) {
  const double a = v[0] - 0.5, b = v[1] - 0.5;
  g[0] = 2.0 * a, g[1] = 4.0 * b;
  return a * a + 2.0 * b * b;
}

// Counts its draws; fails without a message once `good` draws are made.
struct TestGenerator : GetRandomVariablesGeneral {
  int draws = 0, good = std::numeric_limits<int>::max();
  bool operator()(double* x, const Vec& lower, const Vec& upper) override {
    return draws++ < good && GetRandomVariablesGeneral::operator()(x, lower, upper);
  }
};

// A finder with its own generator and the minima table it reports.
struct Search {
  TestGenerator gen;
  Finder finder;
  Vec coords, values;
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
  MessageCapture capture;                                  // bad bounds: an error, nothing written
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
    EXPECT_TRUE(store.GetMinimumRadii(0) == radii[k] && store.GetRt() == rt[k]) << k;
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
  EXPECT_TRUE(store.getLowestValue() == -4.0 && store.GetRt() == rt[2] &&
              store.getUpdateCount() == 3u && store.GetAttractedCount(0) == 0u);
}

// A finder set up on a 2-variable quadratic whose stores the test fills.
TEST(Criterion, GradientToSamplesBoundaryAndNearestMinimum) {
  DiagonalQuadratic func({1, 1}, {0, 0});
  GetRandomVariablesGeneral gen;
  LxMinfinderImpl finder;
  ASSERT_TRUE(finder.Setup(func, &gen, {-20, -20}, {20, 20}));
  MinfinderSamplePoints &minima = finder.GetMinima(), &samples = finder.GetSamples();
  const auto AddMinimum = [&](Vec x) {  // with a zero radius
    ASSERT_TRUE(minima.addPoint(x, 0.0, {0, 0}, {-20, -20}, {20, 20}) &&
                minima.updateMinima(x, x, minima.getNumPoints() - 1));
  };
  const auto Criterion = [&](Vec x, Vec g) {
    return finder.GradientToSamplesCriterion(x.data(), g.data());
  };
  ASSERT_TRUE(samples.addPoint({1, 0}, 1.0, {0, 0}, {-20, -20}, {20, 20}));
  AddMinimum({0, 0});
  EXPECT_TRUE(Criterion({2, 0}, {-5, 0}));  // one minimum: always holds
  AddMinimum({10, 0});
  EXPECT_TRUE(Criterion({2, 0}, {-0.01, 0}));  // s = (2 - 1) (g - 0) = -0.01: not refused
  EXPECT_FALSE(Criterion({2, 0}, {-0.0100001, 0}));
  EXPECT_TRUE(Criterion({8, 0}, {50, 0}));   // nearer the other minimum: sample ignored
  EXPECT_FALSE(Criterion({5, 0}, {-1, 0}));  // equidistant: minimum 0 is the nearest
  // The samples' nearest minima follow changes of either store.
  ASSERT_TRUE(samples.replacePoint(0, {4, 0}, 1.0, {0, 0}));
  EXPECT_FALSE(Criterion({1, 0}, {1, 0}));  // s = -3
  AddMinimum({4, 1});                       // now the sample's nearest minimum
  EXPECT_TRUE(Criterion({1, 0}, {1, 0}));
  ASSERT_TRUE(samples.replacePoint(0, {2, 0}, 1.0, {0, 0}));
  EXPECT_FALSE(Criterion({1, 0}, {1, 0}));  // s = -1
}

// A failed Setup still takes objective and generator but keeps the earlier bounds and stores.
TEST(Finder, SetupTakesObjectiveAndGeneratorFirstAndKeepsTheEarlierBounds) {
  Objective2 func(SixWells), other(SixWells);
  DiagonalQuadratic three({1, 1, 1}, {0, 0, 0}), none({}, {});
  GetRandomVariablesGeneral gen;
  TestGenerator otherGen;
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
  EXPECT_TRUE(func.validityCalls == 0 && other.validityCalls > 0 && otherGen.draws > 0);
  const MinfinderSamplePoints& minima = finder.GetImpl()->GetMinima();
  for (unsigned long i = 0; i < minima.getNumPoints(); ++i)
    EXPECT_TRUE(std::fabs(minima.PointData(i)[0]) < 3 && std::fabs(minima.PointData(i)[1]) < 2);
}

TEST(Finder, GetMinimumsOrderWindowAndNotices) {
  Search s;
  DiagonalQuadratic func({1, 1}, {0, 0});
  ASSERT_TRUE(s.finder.Setup(func, &s.gen, {-100, -100}, {100, 100}));
  testing::internal::CaptureStderr();
  EXPECT_FALSE(s.finder.GetMinimums(s.coords, s.values));
  s.finder.PrintMinimums();
  for (double v : {5.0, 1.0, 30.0, 26.0, 3.0, 25.999})
    s.finder.GetImpl()->GetMinima().addPoint({v, -v}, v, {0, 0}, {-100, -100}, {100, 100});
  ASSERT_TRUE(s.finder.GetMinimums(s.coords, s.values));
  EXPECT_EQ(s.values, (Vec{1.0, 3.0, 5.0, 25.999}));  // default window 25, strict
  EXPECT_EQ(s.coords, (Vec{1, -1, 3, -3, 5, -5, 25.999, -25.999}));
  s.finder.SetFvalMinimaWindow(0.0);
  EXPECT_TRUE(!s.finder.GetMinimums(s.coords, s.values) && s.coords.empty() && s.values.empty());
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "No minimums!\nNo minimums yet!\nNo minimums within the given window!\n");
}

// Each call's first minimum is filed without a duplicate test; earlier minima are kept.
TEST(Finder, SixWellsAllFoundAndKeptAcrossCalls) {
  Objective2 func(SixWells);
  Search s;
  s.finder.SetMaxNumOptPoints(3);
  ASSERT_TRUE(s.finder.Setup(func, &s.gen, kWellsLower, kWellsUpper) && s.finder.Optimize());
  const MinfinderSamplePoints& minima = s.finder.GetImpl()->GetMinima();
  ASSERT_EQ(minima.getNumPoints(), 3u);
  const Vec first(minima.PointData(0), minima.PointData(0) + 6);
  s.finder.SetMaxNumOptPoints(1000);
  s.finder.SetThresholdNumberOfNoChange(100);
  ASSERT_TRUE(s.finder.Optimize());
  EXPECT_EQ(Vec(minima.PointData(0), minima.PointData(0) + 6), first);
  // Entry 3 repeats a well of the first call; the cycles add each missing well once.
  ASSERT_EQ(minima.getNumPoints(), 7u);
  Vec coords(minima.PointData(0), minima.PointData(0) + 14);
  coords.erase(coords.begin() + 6, coords.begin() + 8);
  ExpectSameSet(coords, {{-2, -1}, {-2, 1}, {0, -1}, {0, 1}, {2, -1}, {2, 1}}, 0.05);
}

TEST(Finder, FailingOrMissingGeneratorEndsTheSearch) {
  for (int good : {-1, 0, 30}) {  // -1: no generator; 30: fails inside the first cycle
    Objective2 func(SixWells);
    Search s;
    s.gen.good = good;
    ASSERT_TRUE(s.finder.Setup(func, good < 0 ? nullptr : &s.gen, kWellsLower, kWellsUpper));
    MessageCapture capture;
    EXPECT_FALSE(s.finder.Optimize());
    EXPECT_EQ(capture.Texts().back(),
              "The random point generator failed; the minimum search ends!");
    EXPECT_EQ(s.finder.GetImpl()->GetMinima().getNumPoints(), good > 0 ? 1u : 0u);
  }
}

// Does the work here and counts the batches of each kind.
struct CountingBatch : LxMinfinderLocalBatch {
  using LxMinfinderLocalBatch::LxMinfinderLocalBatch;
  bool Values(const double* x, std::size_t count, double* f) override {
    ++values;
    return !failValues && LxMinfinderLocalBatch::Values(x, count, f);
  }
  // planAhead: one optimization at a time, new neighbours after every third (as MPI does).
  bool OptimizeAndPlan(const double* x, std::size_t count, double* z, double* f, double* fz,
                       double* gz, LxMinfinderPlanner& planner) override {
    ++optimizes;
    if (!planAhead) return LxMinfinderBatch::OptimizeAndPlan(x, count, z, f, fz, gz, planner);
    std::size_t valued = 0;
    for (std::size_t i = 0; i < count; ++i) {
      Optimize(x + 2 * i, 1, z + 2 * i, f + i, fz + i, gz + 2 * i);
      if (i % 3 != 2 && i + 1 < count) continue;
      for (const std::size_t planned = planner.PlanAhead(i + 1); valued < planned; ++valued) {
        double v = 0.0;
        LxMinfinderLocalBatch::Values(planner.Point(valued), 1, &v);
        planner.SetValue(valued, v);
      }
    }
    return true;
  }
  int optimizes = 0, values = 0;
  bool failValues = false, planAhead = false;
};

// Everything a minima store holds, as raw bytes.
std::string StoreBytes(const MinfinderSamplePoints& s) {
  Vec all = s.GetRt();
  for (unsigned long i = 0; i < s.getNumPoints(); ++i) {
    const Vec r = s.GetMinimumRadii(i);
    all.insert(all.end(), s.PointData(i), s.PointData(i) + 2);
    all.insert(all.end(), s.GradientData(i), s.GradientData(i) + 2);
    all.insert(all.end(), r.begin(), r.end());
    all.push_back(static_cast<double>(s.GetAttractedCount(i)));
    s.getY(all.emplace_back(), i);
  }
  return std::string(reinterpret_cast<const char*>(all.data()), all.size() * sizeof(double));
}

TEST(Finder, ASeedRepeatsItsSearch) {
  const auto Run = [](std::uint32_t seed) {
    Objective2 func(SixWells);
    Search s;
    s.finder.SetSeed(seed);
    s.finder.SetMaxNumOptPoints(4);
    EXPECT_TRUE(s.finder.Setup(func, &s.gen, kWellsLower, kWellsUpper) && s.finder.Optimize());
    return StoreBytes(s.finder.GetImpl()->GetMinima());
  };
  EXPECT_EQ(Run(11), Run(11));
  EXPECT_NE(Run(11), Run(12));
}

// After the first call: minima stored (-1: unchecked; Himmelblau: its first ones), bounds on
// local optimizations (0, 0: unchecked), sign of Values - optimize batches (2: unchecked).
struct SearchCase {
  const char* name;
  Objective2::Function function;
  unsigned long maxSample, maxMinima, noChange;
  double hours;
  long minima, minCalls, maxCalls;
  bool planAhead;
  int replans;
};
class Searches : public testing::TestWithParam<SearchCase> {};

// Each search ends as set; batched, its results and stores match bit for bit, twice.
TEST_P(Searches, EndAsSetAndGiveTheSameMinimaInBatches) {
  const SearchCase& c = GetParam();
  const bool himmelblau = c.function == Himmelblau || c.function == HimmelblauHole;
  std::string stores[2];
  bool results[2][2];
  int replans = 0;
  for (int batched = 0; batched < 2; ++batched) {
    Objective2 func(c.function);
    Search s;
    s.finder.SetSeed(3);
    s.finder.SetMaxSample(c.maxSample);
    s.finder.SetMaxNumOptPoints(c.maxMinima);
    s.finder.SetThresholdNumberOfNoChange(c.noChange);
    s.finder.SetTimeLimit(c.hours);
    s.finder.SetKeepDegenerateStates(true);  // Himmelblau's minima all have the value 0
    ASSERT_TRUE(s.finder.Setup(func, &s.gen, {-5, -5}, {5, 5}));
    CountingBatch batch(*s.finder.GetImpl(), func);
    batch.planAhead = c.planAhead;
    if (batched) s.finder.GetImpl()->SetBatch(&batch);
    results[batched][0] = s.finder.Optimize();
    const long count = static_cast<long>(s.finder.GetImpl()->GetMinima().getNumPoints());
    EXPECT_TRUE(c.minima < 0 || count == c.minima) << count;
    EXPECT_TRUE(c.maxCalls == 0 ||
                (c.minCalls <= func.validityCalls && func.validityCalls <= c.maxCalls))
        << func.validityCalls;
    if (himmelblau && c.minima > 0) {
      ASSERT_TRUE(s.finder.GetMinimums(s.coords, s.values));
      ExpectSameSet(s.coords, {kHimmelblauMinima.begin(), kHimmelblauMinima.begin() + c.minima},
                    1e-4);
      for (double v : s.values) EXPECT_LT(v, 1e-8);
    }
    results[batched][1] = s.finder.Optimize();
    stores[batched] = StoreBytes(s.finder.GetImpl()->GetMinima());
    // Batches go out for every cycle that optimizes (maxCalls 1: none does).
    EXPECT_EQ(batch.optimizes > 0, batched == 1 && c.maxCalls != 1);
    replans = batch.values - batch.optimizes;
  }
  EXPECT_TRUE(results[0][0] == results[1][0] && results[0][1] == results[1][1] &&
              stores[0] == stores[1]);
  EXPECT_TRUE(c.replans == 2 || (replans > 0) - (replans < 0) == c.replans) << replans;
}

INSTANTIATE_TEST_SUITE_P(
    Finder, Searches,
    testing::Values(
        SearchCase{"Himmelblau", Himmelblau, 1000, 1000, 100, 6.0, 4, 0, 0, false, 2},
        // NaN values never make a minimum: the one in the hole is not found.
        SearchCase{"HimmelblauHole", HimmelblauHole, 1000, 1000, 100, 6.0, 3, 0, 0, false, 2},
        SearchCase{"Himmelblau60Draws", Himmelblau, 60, 1000, 100, 6.0, -1, 0, 0, false, 2},
        // The quartic wells make the plan go wrong, so that path is covered.
        SearchCase{"Quartic", QuarticWells, 1000, 1000, 100, 6.0, -1, 0, 0, false, 1},
        // Planned ahead: a Values batch only after a wrong guess.
        SearchCase{"HimmelblauPlannedAhead", Himmelblau, 1000, 1000, 100, 6.0, -1, 0, 0, true, -1},
        SearchCase{"QuarticPlannedAhead", QuarticWells, 1000, 1000, 100, 6.0, -1, 0, 0, true, 2},
        SearchCase{"NoChange0", Bowl, 1000, 1000, 0, 6.0, 1, 2, 51, false, 2},  // nothing new
        SearchCase{"NoChange120", Bowl, 1000, 1000, 120, 6.0, 1, 1 + 121, 1 + 170, false, 2},
        SearchCase{"MaxPoints2", SixWells, 1000, 2, 500, 6.0, 2, 2, 51, false, 2},
        SearchCase{"MaxSample50", SixWells, 50, 1000, 500, 6.0, 1, 1, 1, false, 2},  // all draws
        SearchCase{"TimeLimit", SixWells, 1000, 1000, 500, -1.0, -1, 2, 51, false, 2}),  // 1 cycle
    [](const testing::TestParamInfo<SearchCase>& i) { return std::string(i.param.name); });

TEST(Finder, AFailedBatchEndsTheSearchWithFalse) {
  Objective2 func(QuarticWells);
  Search s;
  ASSERT_TRUE(s.finder.Setup(func, &s.gen, {-5, -5}, {5, 5}));
  CountingBatch batch(*s.finder.GetImpl(), func);
  batch.failValues = true;
  s.finder.GetImpl()->SetBatch(&batch);
  EXPECT_FALSE(s.finder.Optimize());
  EXPECT_TRUE(batch.values == 1 && batch.optimizes == 1);
}

}  // namespace
