// Optimizers and line minimizers take fixed scratch blocks per call (on the stack within
// LxGetAllocaThreshold, on the heap above it) and allocate nothing while they iterate.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "support/allocations.h"
#include "support/newton.h"
#include "support/problems.h"

namespace {

using namespace LxOpt;

// Remembers the allocation count at the first and the last checkpoint call; allocates nothing.
struct Watch : LxCheckpoint1 {
  using LxCheckpoint1::operator();
  bool operator()(unsigned int, unsigned int, double, double, const double*, const double*,
                  unsigned int) override {
    if (calls++ == 0) firstAllocations = allocations;
    lastAllocations = allocations;
    return true;
  }
  long calls = 0, firstAllocations = 0, lastAllocations = 0;
};

template <class T>
std::unique_ptr<LxLineMinimize> Make() {
  return std::make_unique<T>();
}

// Heap blocks per call within the threshold and above it: one scratch block; BFGS and DFP add the
// n x n matrix, which DFP always takes from malloc.
struct BlockRow {
  const char* name;  // registry name
  long within, above;
};
const BlockRow kBlocks[] = {
    {"SteepestDescent", 0, 1}, {"ConjGrad", 0, 1}, {"FletcherReeves", 0, 1}, {"RibierePolak", 0, 1},
    {"HestenesStiefel", 0, 1}, {"LBFGS", 0, 1},    {"BFGS", 0, 2},           {"DFP", 1, 2}};

// Small: every block within the threshold. Large: every optimizer's scratch (3n doubles at least)
// on the heap, the line searches' own 2n doubles still on the stack.
constexpr unsigned int kSmall = 10, kLarge = 1000, kLargeLine = 4096;

class OptimizerAllocations : public ::testing::TestWithParam<std::tuple<BlockRow, unsigned int>> {};

TEST_P(OptimizerAllocations, NoneWhileIteratingFixedBlocksPerCall) {
  LXTEST_SKIP_IF_NOT_COUNTED();
  const auto [row, n] = GetParam();
  const std::unique_ptr<LxOptimizer1> opt = LxFindOptimizer(row.name)->make1();
  lxtest::DiagonalQuadratic f = lxtest::DiagonalQuadratic::IllConditioned(n, 1e3);
  std::vector<double> start(n, 0.0), out(n);
  opt->SetTolerance(1e-20);
  opt->SetIterLimit(n > 100 ? 10 : 40);
  Watch watch;
  const long a0 = allocations, r0 = releases;
  (*opt)(f, &watch, start.data(), out.data());
  ASSERT_GE(watch.calls, 3);
  EXPECT_EQ(watch.lastAllocations - watch.firstAllocations, 0);
  EXPECT_EQ(allocations - a0, n == kSmall ? row.within : row.above);
  EXPECT_EQ(releases - r0, allocations - a0);
}

INSTANTIATE_TEST_SUITE_P(Registry, OptimizerAllocations,
                         ::testing::Combine(::testing::ValuesIn(kBlocks),
                                            ::testing::Values(kSmall, kLarge)),
                         [](const auto& info) {
                           return std::string(std::get<0>(info.param).name) + "_" +
                                  std::to_string(std::get<1>(info.param));
                         });

struct LineRow {
  const char* name;
  std::unique_ptr<LxLineMinimize> (*make)();
  long blocksAbove;  // heap blocks per call above the threshold
};

std::unique_ptr<LxLineMinimize> MakeCappedMaxStep() {
  std::vector<double> limits(kLargeLine, 0.05);
  return std::make_unique<LxMaxStepLineMinimize>(limits.data(), kLargeLine);
}

// A capped step marches with its own block, then its embedded quasi-Newton search takes one.
const LineRow kLines[] = {{"CG", Make<LxCGLineMinimize>, 1},
                          {"QN", Make<LxQNLineMinimize>, 1},
                          {"MaxStep", Make<LxMaxStepLineMinimize>, 1},
                          {"MaxStepCapped", MakeCappedMaxStep, 2},
                          {"NR", Make<LxNRLineSearch>, 1}};

// Blocks obtained and released by one search from 0 along -g on the quadratic.
std::pair<long, long> CountSearch(const LxLineMinimize& lm, unsigned int n) {
  lxtest::DiagonalQuadratic f = lxtest::DiagonalQuadratic::IllConditioned(n, 10.0);
  std::vector<double> x0(n, 0.0), g0(n), gOut(n), dir(n);
  double fval = f(x0.data(), g0.data()), step = 0.01;
  for (unsigned int i = 0; i < n; ++i) dir[i] = -g0[i];
  const long a0 = allocations, r0 = releases;
  const bool ok = lm(n, x0.data(), dir.data(), g0.data(), gOut.data(), &fval, &step, f);
  const std::pair<long, long> counts{allocations - a0, releases - r0};
  EXPECT_TRUE(ok);
  return counts;
}

// Nothing within the threshold; with n = 4096 a trial point alone (32 KiB) exceeds it.
TEST(LineAllocations, NoneWithinFixedBlocksAboveTheThreshold) {
  LXTEST_SKIP_IF_NOT_COUNTED();
  for (const LineRow& row : kLines) {
    auto lm = row.make();
    EXPECT_EQ(CountSearch(*lm, kSmall), std::make_pair(0l, 0l)) << row.name;
    EXPECT_EQ(CountSearch(*lm, kLargeLine), std::make_pair(row.blocksAbove, row.blocksAbove))
        << row.name;
  }
}

// Newton, plain and under a plane and a sphere, on a definite or repaired Hessian (n = 100: two
// 64-wide tiles of the unpacking) allocates nothing from the first report to the last.
TEST(NewtonAllocations, NoneWhileIterating) {
  LXTEST_SKIP_IF_NOT_COUNTED();
  const int n = 100;
  MtRng rng;
  Eigen::MatrixXd q = lxtest::Random(n, rng);
  lxtest::Quadric plane(std::vector<double>(n, 1.0), 1.0);
  lxtest::Quadric sphere(std::vector<double>(n, 0.0), 1.0, 1.0);
  for (bool indefinite : {false, true}) {
    for (int j = 0; j < n; ++j) q(j, j) = indefinite && j % 9 == 0 ? -3.0 * n : 2.0 * n;
    lxtest::Scripted f = lxtest::Descending(q);
    LxNewtonOpt newton;
    LxNewtonConstrOpt constrained;
    constrained.Add(plane);
    constrained.Add(sphere);
    for (LxOptimizer2* opt : std::initializer_list<LxOptimizer2*>{&newton, &constrained}) {
      opt->SetIterLimit(12);
      opt->SetTolerance(0.0);
      Watch watch;
      std::vector<double> start(n, 0.1), out(n);
      (*opt)(f, &watch, start.data(), out.data());
      EXPECT_GE(watch.calls, 3) << indefinite;
      EXPECT_EQ(watch.lastAllocations - watch.firstAllocations, 0) << indefinite;
    }
  }
}

// The counters see the allocations of this program at all.
TEST(AllocationCounter, SeesNewAndMalloc) {
  LXTEST_SKIP_IF_NOT_COUNTED();
  const long a0 = allocations, r0 = releases;
  auto owned = std::make_unique<std::vector<double>>(100);
  owned.reset();
  static void* volatile block;
  block = std::malloc(10);
  std::free(block);
  EXPECT_EQ(allocations - a0, 3);
  EXPECT_EQ(releases - r0, 3);
}

}  // namespace
