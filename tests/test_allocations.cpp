// Allocation discipline: the optimizers and line minimizers take one scratch
// block per call (on the stack within LxGetAllocaThreshold, on the heap above
// it) and allocate nothing while they iterate. This program replaces the
// global operator new/delete family and the malloc family with counting
// versions that forward to glibc's own entry points.
//
// What is counted: every block obtained from malloc, calloc, realloc (when
// it is given no block), aligned_alloc, posix_memalign, memalign and every
// operator new (which obtains its block through the counted malloc, so it is
// counted once); every block given back through free, realloc to size 0 or
// operator delete is counted as a release.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdlib>
#include <malloc.h>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "support/problems.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define LXTEST_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define LXTEST_SANITIZED 1
#endif
#endif

namespace {
long allocations = 0;
long releases = 0;
}  // namespace

// The sanitizers own malloc, and the forwarding needs glibc's entry points:
// elsewhere the replacements stay out and the counting tests skip.
#if !defined(LXTEST_SANITIZED) && defined(__GLIBC__)
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

namespace {
void* NewBlock(std::size_t size) {
  void* block = std::malloc(size == 0 ? 1 : size);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}
void* NewAligned(std::size_t size, std::align_val_t alignment) {
  void* block = memalign(static_cast<std::size_t>(alignment), size == 0 ? 1 : size);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}
}  // namespace

void* operator new(std::size_t size) { return NewBlock(size); }
void* operator new[](std::size_t size) { return NewBlock(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return std::malloc(size ? size : 1); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return std::malloc(size ? size : 1); }
void* operator new(std::size_t size, std::align_val_t a) { return NewAligned(size, a); }
void* operator new[](std::size_t size, std::align_val_t a) { return NewAligned(size, a); }
void* operator new(std::size_t size, std::align_val_t a, const std::nothrow_t&) noexcept {
  return memalign(static_cast<std::size_t>(a), size ? size : 1);
}
void* operator new[](std::size_t size, std::align_val_t a, const std::nothrow_t&) noexcept {
  return memalign(static_cast<std::size_t>(a), size ? size : 1);
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete(void* p, std::align_val_t) noexcept { std::free(p); }
void operator delete[](void* p, std::align_val_t) noexcept { std::free(p); }
void operator delete(void* p, std::size_t, std::align_val_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t, std::align_val_t) noexcept { std::free(p); }
void operator delete(void* p, std::align_val_t, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete[](void* p, std::align_val_t, const std::nothrow_t&) noexcept { std::free(p); }
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
class Watch : public LxCheckpoint1 {
 public:
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
  long between;  // from the first to the last checkpoint call
  long whole;    // across the whole call
  long released; // blocks given back during the whole call
  long reports;  // checkpoint calls
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

template <class T>
std::unique_ptr<LxOptimizer1> Make() {
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

bool OnStack(std::size_t doubles) {
  return doubles * sizeof(double) + kLxAllocaSlack <= LxGetAllocaThreshold();
}

TEST(AllocationSizes, StraddleTheThreshold) {
  EXPECT_TRUE(OnStack(19 * kSmall) && OnStack(kSmall * kSmall));
  EXPECT_FALSE(OnStack(3 * kLarge));
  EXPECT_TRUE(OnStack(2 * kLarge));
  EXPECT_FALSE(OnStack(kLargeLine));
}

class OptimizerAllocations : public ::testing::TestWithParam<OptimizerRow> {};

TEST_P(OptimizerAllocations, NoneWithinTheThreshold) {
  LXTEST_SKIP_IF_NOT_COUNTED();
  auto opt = GetParam().make();
  const Counts c = CountRun(*opt, kSmall);
  ASSERT_GE(c.reports, 3);
  EXPECT_EQ(c.between, 0);
  EXPECT_EQ(c.whole, GetParam().blocksWithin);
  EXPECT_EQ(c.released, c.whole);
}

TEST_P(OptimizerAllocations, FixedBlocksAboveTheThreshold) {
  LXTEST_SKIP_IF_NOT_COUNTED();
  auto opt = GetParam().make();
  const Counts c = CountRun(*opt, kLarge);
  ASSERT_GE(c.reports, 3);
  EXPECT_EQ(c.between, 0);
  EXPECT_EQ(c.whole, GetParam().blocksAbove);
  EXPECT_EQ(c.released, c.whole);
}

INSTANTIATE_TEST_SUITE_P(All, OptimizerAllocations, ::testing::ValuesIn(kOptimizers),
                         [](const ::testing::TestParamInfo<OptimizerRow>& info) {
                           return std::string(info.param.name);
                         });

struct LineRow {
  const char* name;
  std::unique_ptr<LxLineMinimize> (*make)();
  long blocksAbove;  // heap blocks per call above the threshold
};

template <class T>
std::unique_ptr<LxLineMinimize> MakeLine() {
  return std::make_unique<T>();
}

std::unique_ptr<LxLineMinimize> MakeCappedMaxStep() {
  std::vector<double> limits(kLargeLine, 0.05);
  return std::make_unique<LxMaxStepLineMinimize>(limits.data(), kLargeLine);
}

const LineRow kLines[] = {
    {"CG", MakeLine<LxCGLineMinimize>, 1},
    {"QN", MakeLine<LxQNLineMinimize>, 1},
    {"MaxStep", MakeLine<LxMaxStepLineMinimize>, 1},
    // A capped step first marches with its own block, then calls the
    // embedded quasi-Newton search, which takes its own.
    {"MaxStepCapped", MakeCappedMaxStep, 2},
    {"NR", MakeLine<LxNRLineSearch>, 1},
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

class LineAllocations : public ::testing::TestWithParam<LineRow> {};

// Within the threshold (n = 10) nothing; with n = 4096 a trial point alone
// (32 KiB) exceeds it, and each search takes exactly one block and frees it.
TEST_P(LineAllocations, NoneWithinOneAboveTheThreshold) {
  LXTEST_SKIP_IF_NOT_COUNTED();
  auto lm = GetParam().make();
  EXPECT_EQ(CountSearch(*lm, kSmall), std::make_pair(0l, 0l));
  const long blocks = GetParam().blocksAbove;
  EXPECT_EQ(CountSearch(*lm, kLargeLine), std::make_pair(blocks, blocks));
}

INSTANTIATE_TEST_SUITE_P(All, LineAllocations, ::testing::ValuesIn(kLines),
                         [](const ::testing::TestParamInfo<LineRow>& info) {
                           return std::string(info.param.name);
                         });

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
