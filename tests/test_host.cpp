// Host services: messages, scratch blocks, random numbers, rotation, RMSD and
// the version registry (lxout is seen through the annealing tests).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <stdexcept>

#include "support/problems.h"

namespace {

using namespace LxOpt;
using lxtest::MessageCapture;

TEST(Messages, SinkDefaultSinkAndFatal) {
  LxMessageSink previous = LxSetMessageSink(nullptr);
  testing::internal::CaptureStderr();
  LxThrow.Warning("careful %d", 7);
  LxThrow.Error("ends\n");
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "LxOpt warning: careful 7\nLxOpt error: ends\n");
  EXPECT_DEATH(LxThrow.Fatal("the end"), "LxOpt fatal: the end");
  LxSetMessageSink([](LxMessageLevel level, const std::string& text) {
    if (level == LxMessageLevel::Fatal) throw std::runtime_error(text);
  });
  EXPECT_THROW(LxThrow.Fatal("broken %s", "input"), std::runtime_error);  // leaves through the sink
  LxSetMessageSink(previous);
  MessageCapture capture;
  LxThrow.Info("allocating %d in %s", 48, "LxConjGradOpt");
  ASSERT_EQ(capture.Texts(), std::vector<std::string>{"allocating 48 in LxConjGradOpt"});
  EXPECT_EQ(capture.messages[0].level, LxMessageLevel::Info);
}

TEST(Scratch, StackWithinThresholdHeapAboveAndOverflow) {
  const std::size_t threshold = LxGetAllocaThreshold(), edge = threshold - kLxAllocaSlack;
  ASSERT_EQ(threshold, kLxAllocaThreshold);
  for (const std::size_t bytes : {std::size_t{0}, std::size_t{64}, edge, edge + 1, 64 * edge}) {
    LxMallocaPtr block;
    auto* p = static_cast<unsigned char*>(block.Allocate(bytes));
    ASSERT_NE(p, nullptr);
    const auto* begin = reinterpret_cast<const unsigned char*>(&block);
    EXPECT_EQ(block.OnStack(), bytes <= edge) << bytes;
    EXPECT_EQ(p >= begin && p < begin + sizeof(block), bytes <= edge) << bytes;
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % alignof(double), 0u);
    std::memset(p, 0xab, bytes);  // the whole block is writable
  }
  LxMallocaPtr block;
  ASSERT_TRUE(block.AllocateDoubles(1 << 20) && block.AllocateDoubles(8));
  EXPECT_TRUE(block.OnStack());  // the heap block was freed
  EXPECT_TRUE(!block.AllocateDoubles(std::numeric_limits<std::size_t>::max() / 4) && !block.get());
}

TEST(Random, GeneratorsAreSeededReproducibleAndInRange) {
  MtRng rng;
  for (int i = 1; i < 10000; ++i) rng();
  EXPECT_EQ(rng(), 4123659995u);  // 10000th output for seed 5489
  MtRng a(42), b(7);
  b.Seed(42);
  for (int i = 0; i < 10; ++i) ASSERT_EQ(a(), b());
  LxUniformDoubleRNG unit, box(-2.0, 3.0);
  LxRandom fa(true), fb(true);
  fa.Seed(365);
  fb.Seed(365);
  double mean = 0.0;
  for (int i = 0; i < 20000; ++i) {
    const double u = unit(rng), v = box(rng);
    const float w = fa.NextFloat();
    ASSERT_TRUE(u >= 0.0 && u < 1.0 && v >= -2.0 && v < 3.0 && w >= 0.0f && w < 1.0f) << i;
    ASSERT_EQ(w, fb.NextFloat());
    mean += (u + v + 2.0) / 1e5;  // u + v + 2 averages 3
  }
  EXPECT_NEAR(mean, 0.6, 0.01);
  fb.Seed(366);
  EXPECT_NE(fa.NextFloat(), fb.NextFloat());
}

TEST(Rmsd, HandComputedAndARigidMotionUndone) {
  const double a[] = {1, 0, 0, -1, 0, 0}, b[] = {3, 2, 0, 3, -2, 0}, w[] = {1, 3};
  EXPECT_DOUBLE_EQ(LxRMSD(a, b, 2, false), std::sqrt((8.0 + 20.0) / 2));
  EXPECT_DOUBLE_EQ(LxRMSD(a, b, 2, false, w), std::sqrt((8.0 + 60.0) / 4));
  double r[9], turned[3] = {0, 2, 0};
  EXPECT_NEAR(LxRMSD(a, b, 2, true, nullptr, r), 1.0, 1e-12);
  LxGeom3DRotate(turned, 1, r);
  EXPECT_NEAR(std::fabs(turned[0]), 2.0, 1e-12);
  EXPECT_EQ(LxRMSD(a, b, 0, true), 0.0);
  // A rigid motion (1 rad about y, then a shift) is undone: r * m = identity.
  const double p[] = {0, 0, 0, 1.5, 0, 0, 0, 2, 0, 0.3, 0.4, 1.1, -0.7, 0.2, 0.5};
  const double c = std::cos(1.0), s = std::sin(1.0), m[9] = {c, 0, s, 0, 1, 0, -s, 0, c};
  double q[15];
  std::copy(p, p + 15, q);
  LxGeom3DRotate(q, 5, m);
  for (int k = 0; k < 5; ++k) q[3 * k] += 4.0, q[3 * k + 2] -= 1.0;
  EXPECT_GT(LxRMSD(p, q, 5, false), 1.0);
  EXPECT_NEAR(LxRMSD(p, q, 5, true, nullptr, r), 0.0, 1e-10);
  for (int i = 0; i < 9; ++i) {
    double sum = 0;
    for (int k = 0; k < 3; ++k) sum += r[3 * (i / 3) + k] * m[3 * k + i % 3];
    EXPECT_NEAR(sum, i % 4 == 0 ? 1.0 : 0.0, 1e-10) << i;
  }
}

LxVersionRecord OtherLibrary() {
  return {"lxsuite", "Other", "1.0"};
}

TEST(VersionRegistry, KeepsEachFunctionOnce) {
  const std::size_t before = LxRegisteredVersions().size();
  for (auto* f : {&OtherLibrary, &OtherLibrary, static_cast<LxVersionRecord (*)()>(nullptr)})
    LxRegisterVersion(f);
  ASSERT_EQ(LxRegisteredVersions().size(), before + 1);
  EXPECT_EQ(LxRegisteredVersions().back().library, "Other");
}

}  // namespace
