// Allocation discipline: the optimizers and line minimizers take one scratch
// block per call (on the stack within LxGetAllocaThreshold, on the heap above
// it) and allocate nothing while they iterate. This program replaces the
// malloc family with counting versions that forward to glibc's own entry
// points. The runtime's operator new and delete obtain and return their blocks
// through malloc, aligned_alloc and free, so they are counted too (the first
// test checks that).
#include <gtest/gtest.h>

#include <malloc.h>
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "support/newton.h"
#include "support/problems.h"

namespace {
long allocations = 0;
long releases = 0;
}  // namespace

// The sanitizers own malloc, and the forwarding needs glibc's entry points:
// elsewhere the replacements stay out and the counting tests skip.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) && defined(__GLIBC__)
#define LXTEST_COUNTED 1
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void* block);

void* malloc(std::size_t size) {
  ++allocations;
  return __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) {
  ++allocations;
  return __libc_calloc(count, size);
}
void* realloc(void* block, std::size_t size) {
  if (block == nullptr) ++allocations;
  if (size == 0 && block != nullptr) ++releases;
  return __libc_realloc(block, size);
}
void free(void* block) {
  if (block != nullptr) ++releases;
  __libc_free(block);
}
void* memalign(std::size_t alignment, std::size_t size) {
  ++allocations;
  return __libc_memalign(alignment, size);
}
void* aligned_alloc(std::size_t alignment, std::size_t size) {
  return memalign(alignment, size);
}
int posix_memalign(void** out, std::size_t alignment, std::size_t size) {
  void* block = memalign(alignment, size);
  if (block == nullptr) return 12;  // ENOMEM
  *out = block;
  return 0;
}
}  // extern "C"

#endif

namespace {

using namespace LxOpt;

#ifdef LXTEST_COUNTED
#define LXTEST_SKIP_IF_NOT_COUNTED() static_cast<void>(0)
#else
#define LXTEST_SKIP_IF_NOT_COUNTED() \
  GTEST_SKIP() << "a sanitizer intercepts malloc (or no glibc): nothing is counted"
#endif

// Remembers the allocation and release counts at the first and at the last
// checkpoint call; allocates nothing itself.
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

struct Counts {
  long between, whole, released, reports;  // first to last checkpoint; whole call; reports
};

Counts CountRun(LxOptimizer1& opt, unsigned int n) {
  lxtest::DiagonalQuadratic f = lxtest::DiagonalQuadratic::IllConditioned(n, 1e3);
  std::vector<double> start(n, 0.0), out(n);
  opt.SetTolerance(1e-20);
  opt.SetIterLimit(n > 100 ? 10 : 40);
  Watch watch;
  const long a0 = allocations, r0 = releases;
  opt(f, &watch, start.data(), out.data());
  return {watch.lastAllocations - watch.firstAllocations, allocations - a0, releases - r0,
          watch.calls};
}

struct OptimizerRow {
  const char* name;
  std::unique_ptr<LxOptimizer1> (*make)();
  long blocksWithin;  // heap blocks per call within the threshold
  long blocksAbove;   // heap blocks per call above it
};

template <class T, class Base = LxOptimizer1>
std::unique_ptr<Base> Make() {
  return std::make_unique<T>();
}

// Steepest descent, the conjugate gradients and L-BFGS take one scratch
// block; BFGS and DFP take their scratch vectors and, as a second block,
// the n x n working matrix, which DFP always takes from malloc.
const OptimizerRow kOptimizers[] = {
    {"SteepestDescent", Make<LxSteepestDescentOpt>, 0, 1},
    {"ConjGrad", Make<LxConjGradOpt>, 0, 1},
    {"FletcherReeves", Make<LxFletcherReevesOpt>, 0, 1},
    {"RibierePolak", Make<LxRibierePolakOpt>, 0, 1},
    {"HestenesStiefel", Make<LxHestenesStiefelOpt>, 0, 1},
    {"BFGS", Make<LxBFGSOpt>, 0, 2},
    {"DFP", Make<LxDFPOpt>, 1, 2},
    {"LBFGS", Make<LxLBFGSOpt>, 0, 1},
};

// Small: every block within the threshold (the largest, L-BFGS's 19n doubles
// and BFGS's n x n matrix, too). Large: 1000 variables put every optimizer's
// scratch (at least 3n doubles) on the heap, while the line searches' own
// 2n doubles (16000 bytes) still fit on the stack.
constexpr unsigned int kSmall = 10, kLarge = 1000, kLargeLine = 4096;

TEST(OptimizerAllocations, NoneWhileIteratingFixedBlocksPerCall) {
  LXTEST_SKIP_IF_NOT_COUNTED();
  for (const OptimizerRow& row : kOptimizers)
    for (unsigned int n : {kSmall, kLarge}) {
      SCOPED_TRACE(std::string(row.name) + " n " + std::to_string(n));
      const Counts c = CountRun(*row.make(), n);
      ASSERT_GE(c.reports, 3);
      EXPECT_EQ(c.between, 0);
      EXPECT_EQ(c.whole, n == kSmall ? row.blocksWithin : row.blocksAbove);
      EXPECT_EQ(c.released, c.whole);
    }
}

struct LineRow {
  const char* name;
  std::unique_ptr<LxLineMinimize> (*make)();
  long blocksAbove;  // heap blocks per call above the threshold
};

std::unique_ptr<LxLineMinimize> MakeCappedMaxStep() {
  std::vector<double> limits(kLargeLine, 0.05);
  return std::make_unique<LxMaxStepLineMinimize>(limits.data(), kLargeLine);
}

const LineRow kLines[] = {
    {"CG", Make<LxCGLineMinimize, LxLineMinimize>, 1},
    {"QN", Make<LxQNLineMinimize, LxLineMinimize>, 1},
    {"MaxStep", Make<LxMaxStepLineMinimize, LxLineMinimize>, 1},
    // A capped step first marches with its own block, then calls the
    // embedded quasi-Newton search, which takes its own.
    {"MaxStepCapped", MakeCappedMaxStep, 2},
    {"NR", Make<LxNRLineSearch, LxLineMinimize>, 1},
};

// One search from 0 along -g on the quadratic; returns the blocks obtained
// and released during the call.
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

// Within the threshold (n = 10) nothing; with n = 4096 a trial point alone
// (32 KiB) exceeds it, and each search takes its blocks and frees them.
TEST(LineAllocations, NoneWithinFixedBlocksAboveTheThreshold) {
  LXTEST_SKIP_IF_NOT_COUNTED();
  for (const LineRow& row : kLines) {
    auto lm = row.make();
    EXPECT_EQ(CountSearch(*lm, kSmall), std::make_pair(0l, 0l)) << row.name;
    EXPECT_EQ(CountSearch(*lm, kLargeLine), std::make_pair(row.blocksAbove, row.blocksAbove))
        << row.name;
  }
}

// The Newton runs, plain and under a plane and a sphere, on a Hessian that is
// positive definite or needs its pivots repaired (n = 100: two 64-wide
// tiles of the unpacking) allocate nothing from the first report to the last.
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
