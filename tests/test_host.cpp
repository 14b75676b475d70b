// Host services: messages, lxout, scratch blocks, random numbers, rotation,
// RMSD and the version registry.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <sstream>
#include <stdexcept>

#include "support/problems.h"

namespace {

using namespace LxOpt;
using lxtest::MessageCapture;

TEST(Messages, SinkReceivesFormattedTextAndLevel) {
  MessageCapture capture;
  LxThrow.Info("plain");
  LxThrow.Warning("out of memory allocating %d in %s", 48, "LxConjGradOpt");
  LxThrow.Error("value %.2f\n", 1.5);
  ASSERT_EQ(capture.messages.size(), 3u);
  EXPECT_EQ(capture.messages[0].level, LxMessageLevel::Info);
  EXPECT_EQ(capture.messages[1].level, LxMessageLevel::Warning);
  EXPECT_EQ(capture.messages[2].level, LxMessageLevel::Error);
  EXPECT_EQ(capture.Texts(), (std::vector<std::string>{
                                 "plain", "out of memory allocating 48 in LxConjGradOpt",
                                 "value 1.50\n"}));
}

TEST(Messages, EmptySinkRestoresDefaultOnStandardError) {
  LxMessageSink previous = LxSetMessageSink(nullptr);
  testing::internal::CaptureStderr();
  LxThrow.Warning("careful %d", 7);
  LxThrow.Error("ends\n");
  const std::string err = testing::internal::GetCapturedStderr();
  LxSetMessageSink(previous);
  EXPECT_EQ(err, "LxOpt warning: careful 7\nLxOpt error: ends\n");
}

TEST(Messages, FatalLeavesThroughAThrowingSinkOrAborts) {
  LxMessageSink previous = LxSetMessageSink([](LxMessageLevel level, const std::string& text) {
    if (level == LxMessageLevel::Fatal) throw std::runtime_error(text);
  });
  try {
    LxThrow.Fatal("broken %s", "input");
    ADD_FAILURE() << "Fatal returned";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "broken input");
  }
  LxSetMessageSink(previous);
  EXPECT_DEATH(LxThrow.Fatal("the end"), "LxOpt fatal: the end");
}

TEST(OutputStream, WritesToReplaceableTarget) {
  std::ostringstream text;
  std::ostream* previous = LxSetOutputStream(&text);
  lxout << "T = " << 1.5 << lxendl << "cycle " << 3 << ' ' << 4u << lxendl;
  EXPECT_EQ(LxSetOutputStream(previous), &text);
  EXPECT_EQ(text.str(), "T = 1.5\ncycle 3 4\n");
}

TEST(Scratch, StackWithinThresholdHeapAbove) {
  const std::size_t threshold = LxGetAllocaThreshold();
  ASSERT_EQ(threshold, kLxAllocaThreshold);
  struct Case {
    std::size_t bytes;
    bool onStack;
  } cases[] = {{0, true},
               {64, true},
               {threshold - kLxAllocaSlack, true},
               {threshold - kLxAllocaSlack + 1, false},
               {threshold * 64, false}};
  for (const Case& c : cases) {
    LxMallocaPtr block;
    void* p = block.Allocate(c.bytes);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(block.OnStack(), c.onStack) << c.bytes;
    const auto* begin = reinterpret_cast<const unsigned char*>(&block);
    const bool inside = static_cast<unsigned char*>(p) >= begin &&
                        static_cast<unsigned char*>(p) < begin + sizeof(block);
    EXPECT_EQ(inside, c.onStack) << c.bytes;
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % alignof(double), 0u);
    std::memset(p, 0xab, c.bytes);  // the whole block is writable
  }
}

TEST(Scratch, ReallocationAndOverflow) {
  LxMallocaPtr block;
  ASSERT_NE(block.AllocateDoubles(1 << 20), nullptr);
  EXPECT_FALSE(block.OnStack());
  ASSERT_NE(block.AllocateDoubles(8), nullptr);  // frees the heap block
  EXPECT_TRUE(block.OnStack());
  EXPECT_EQ(block.AllocateDoubles(std::numeric_limits<std::size_t>::max() / 4), nullptr);
  EXPECT_EQ(block.get(), nullptr);
}

TEST(Random, MersenneTwisterMatchesReferenceSequence) {
  MtRng rng;
  for (int i = 1; i < 10000; ++i) rng();
  EXPECT_EQ(rng(), 4123659995u);  // 10000th output for seed 5489
  MtRng a(42), b(7);
  b.Seed(42);
  for (int i = 0; i < 10; ++i) EXPECT_EQ(a(), b());
}

TEST(Random, UniformDoublesStayInRange) {
  MtRng rng;
  LxUniformDoubleRNG unit, box(-2.0, 3.0);
  double lo = 1.0, hi = 0.0, mean = 0.0;
  for (int i = 0; i < 20000; ++i) {
    const double u = unit(rng);
    ASSERT_GE(u, 0.0);
    ASSERT_LT(u, 1.0);
    lo = std::min(lo, u);
    hi = std::max(hi, u);
    mean += u / 20000;
    const double v = box(rng);
    ASSERT_GE(v, -2.0);
    ASSERT_LT(v, 3.0);
  }
  EXPECT_LT(lo, 0.001);
  EXPECT_GT(hi, 0.999);
  EXPECT_NEAR(mean, 0.5, 0.01);
}

TEST(Random, FloatGeneratorIsSeededAndReproducible) {
  LxRandom a(true), b(true);
  a.Seed(365);
  b.Seed(365);
  for (int i = 0; i < 1000; ++i) {
    const float u = a.NextFloat();
    ASSERT_GE(u, 0.0f);
    ASSERT_LT(u, 1.0f);
    ASSERT_EQ(u, b.NextFloat());
  }
  b.Seed(366);
  EXPECT_NE(a.NextFloat(), b.NextFloat());
}

TEST(Geometry, RotateQuarterTurnAboutZ) {
  const double m[9] = {0, -1, 0, 1, 0, 0, 0, 0, 1};
  double p[6] = {1, 0, 0, 2, 3, 4};
  LxGeom3DRotate(p, 2, m);
  EXPECT_EQ(std::vector<double>(p, p + 6), (std::vector<double>{0, 1, 0, -3, 2, 4}));
}

TEST(Rmsd, HandComputedWithAndWithoutSuperposition) {
  // a on the x axis, b on the y axis, twice as long and shifted by 3 in x.
  const double a[] = {1, 0, 0, -1, 0, 0};
  const double b[] = {3, 2, 0, 3, -2, 0};
  EXPECT_DOUBLE_EQ(LxRMSD(a, b, 2, false), std::sqrt((8.0 + 20.0) / 2));
  const double w[] = {1, 3};
  EXPECT_DOUBLE_EQ(LxRMSD(a, b, 2, false, w), std::sqrt((8.0 + 60.0) / 4));
  // Centred and turned onto the x axis, each point is 1 away from its partner.
  double r[9];
  EXPECT_NEAR(LxRMSD(a, b, 2, true, nullptr, r), 1.0, 1e-12);
  const double bx[3] = {0, 2, 0};
  double turned[3] = {bx[0], bx[1], bx[2]};
  LxGeom3DRotate(turned, 1, r);
  EXPECT_NEAR(std::fabs(turned[0]), 2.0, 1e-12);
  EXPECT_EQ(LxRMSD(a, b, 0, true), 0.0);
}

TEST(Rmsd, SuperpositionUndoesARigidMotionAndReturnsItsRotation) {
  const double a[] = {0, 0, 0, 1.5, 0, 0, 0, 2, 0, 0.3, 0.4, 1.1, -0.7, 0.2, 0.5};
  const double c = std::cos(1.0), s = std::sin(1.0);
  const double m[9] = {c, 0, s, 0, 1, 0, -s, 0, c};  // 1 rad about y
  double b[15];
  std::copy(a, a + 15, b);
  LxGeom3DRotate(b, 5, m);
  for (int k = 0; k < 5; ++k) b[3 * k] += 4.0, b[3 * k + 2] -= 1.0;
  double r[9];
  EXPECT_GT(LxRMSD(a, b, 5, false), 1.0);
  EXPECT_NEAR(LxRMSD(a, b, 5, true, nullptr, r), 0.0, 1e-10);
  // r undoes m: r * m = identity
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) {
      double sum = 0;
      for (int k = 0; k < 3; ++k) sum += r[3 * i + k] * m[3 * k + j];
      EXPECT_NEAR(sum, i == j ? 1.0 : 0.0, 1e-10);
    }
}

LxVersionRecord OtherLibrary() { return {"lxsuite", "Other", "1.0"}; }

TEST(VersionRegistry, KeepsEachFunctionOnce) {
  const std::size_t before = LxRegisteredVersions().size();
  LxRegisterVersion(&OtherLibrary);
  LxRegisterVersion(&OtherLibrary);
  LxRegisterVersion(nullptr);
  const std::vector<LxVersionRecord> after = LxRegisteredVersions();
  ASSERT_EQ(after.size(), before + 1);
  EXPECT_EQ(after.back().library, "Other");
}

}  // namespace
