// The minimum finder with its work handed out in batches (the seam of the
// distributed driver) finds the very minima of the one-process search.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "support/minfinder.h"
#include "support/problems.h"

namespace {

using namespace LxOpt;
using namespace LxOpt::LxMinfinder;
using Vec = std::vector<double>;
using lxtest::Himmelblau;
using lxtest::Objective2;

// (x^2 - 1)^4 + (y^2 - 1)^4 + 0.1 x + 0.2 y: four flat-bottomed wells, where
// BFGS stops short and a random neighbour is often lower: validations end
// early, so the drawn-ahead neighbours of later samples are often wrong.
struct QuarticWells : Objective2 {
  using Objective2::operator();
  double operator()(const double* v, double* g) override {
    const double p = v[0] * v[0] - 1.0, q = v[1] * v[1] - 1.0;
    g[0] = 8.0 * v[0] * p * p * p + 0.1;
    g[1] = 8.0 * v[1] * q * q * q + 0.2;
    return p * p * p * p + q * q * q * q + 0.1 * v[0] + 0.2 * v[1];
  }
};

// Does the work here and counts the batches of each kind.
struct CountingBatch : LxMinfinderLocalBatch {
  using LxMinfinderLocalBatch::LxMinfinderLocalBatch;
  bool Optimize(const double* x, std::size_t count, double* z, double* f, double* fz,
                double* gz) override {
    ++optimizes;
    return LxMinfinderLocalBatch::Optimize(x, count, z, f, fz, gz);
  }
  bool Values(const double* x, std::size_t count, double* f) override {
    ++values;
    return failValues ? false : LxMinfinderLocalBatch::Values(x, count, f);
  }
  // With planAhead: one optimization at a time, the planner's new neighbours
  // after every third one, the rest at the end (as the MPI driver does).
  bool OptimizeAndPlan(const double* x, std::size_t count, double* z, double* f, double* fz,
                       double* gz, LxMinfinderPlanner& planner) override {
    if (!planAhead) return LxMinfinderBatch::OptimizeAndPlan(x, count, z, f, fz, gz, planner);
    ++optimizes;
    std::size_t valued = 0;
    for (std::size_t i = 0; i < count; ++i) {
      LxMinfinderLocalBatch::Optimize(x + 2 * i, 1, z + 2 * i, f + i, fz + i, gz + 2 * i);
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
  auto bytes = [](const double* p, std::size_t n) {
    return std::string(reinterpret_cast<const char*>(p), n * sizeof(double));
  };
  std::string out = bytes(s.GetRt().data(), s.GetRt().size());
  for (unsigned long i = 0; i < s.getNumPoints(); ++i) {
    double y = 0.0;
    s.getY(y, i);
    const Vec r = s.GetMinimumRadii(i);
    out += bytes(s.PointData(i), s.getNumVar()) + bytes(s.GradientData(i), s.getNumVar()) +
           bytes(&y, 1) + bytes(r.data(), r.size()) + std::to_string(s.GetAttractedCount(i)) + ";";
  }
  return out;
}

TEST(MinfinderBatch, SameMinimaStoresAndContinuationAsTheOneProcessSearch) {
  Himmelblau himmelblau;
  QuarticWells quartic;
  // replans: the sign of (Values batches - optimization batches), 2: not checked.
  const struct Case {
    const char* name;
    lxtest::Objective* func;
    unsigned long maxSample, maxMinima;
    bool keepDegenerate, planAhead;
    int replans;
  } cases[] = {
      {"himmelblau", &himmelblau, 1000, 1000, true, false, 2},
      {"himmelblau, 60 draws", &himmelblau, 60, 1000, true, false, 2},  // ends inside a fill
      {"himmelblau, 2 minima", &himmelblau, 1000, 2, true, false, 2},   // ends inside a cycle
      // The quartic wells do make the plan go wrong, so that path is covered.
      {"quartic", &quartic, 1000, 1000, false, false, 1},
      // Planned ahead, the neighbours of a cycle come in with its
      // optimizations: a Values batch only after a wrong guess.
      {"himmelblau, planned ahead", &himmelblau, 1000, 1000, true, true, -1},
      {"quartic, planned ahead", &quartic, 1000, 1000, false, true, 2},
  };
  for (const Case& c : cases) {
    std::string stores[2];
    bool results[2][2];
    int replans = 0;
    for (int batched = 0; batched < 2; ++batched) {
      GetRandomVariablesGeneral gen;
      LxOpt::LxMinfinder::LxMinfinder finder;
      finder.SetSeed(3);
      finder.SetMaxSample(c.maxSample);
      finder.SetMaxNumOptPoints(c.maxMinima);
      finder.SetKeepDegenerateStates(c.keepDegenerate);
      finder.SetThresholdNumberOfNoChange(100);
      ASSERT_TRUE(finder.Setup(*c.func, &gen, {-5, -5}, {5, 5}));
      CountingBatch batch(*finder.GetImpl(), *c.func);
      batch.planAhead = c.planAhead;
      if (batched) finder.GetImpl()->SetBatch(&batch);
      results[batched][0] = finder.Optimize();
      results[batched][1] = finder.Optimize();  // continues from the stores and the engines
      stores[batched] = StoreBytes(finder.GetImpl()->GetMinima());
      EXPECT_EQ(batch.optimizes > 0, batched == 1) << c.name;
      replans = batch.values - batch.optimizes;
    }
    EXPECT_TRUE(results[0][0] == results[1][0] && results[0][1] == results[1][1]) << c.name;
    EXPECT_EQ(stores[0], stores[1]) << c.name;
    EXPECT_TRUE(c.replans == 2 || (replans > 0) - (replans < 0) == c.replans) << c.name;
  }
}

TEST(MinfinderBatch, AFailedBatchEndsTheSearchWithFalse) {
  QuarticWells func;
  GetRandomVariablesGeneral gen;
  LxOpt::LxMinfinder::LxMinfinder finder;
  ASSERT_TRUE(finder.Setup(func, &gen, {-5, -5}, {5, 5}));
  CountingBatch batch(*finder.GetImpl(), func);
  batch.failValues = true;
  finder.GetImpl()->SetBatch(&batch);
  EXPECT_FALSE(finder.Optimize());
  EXPECT_EQ(batch.values, 1);
  EXPECT_EQ(batch.optimizes, 1);
}

}  // namespace
