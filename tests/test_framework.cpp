// Objective defaults, state names, optimizer bases, steepest descent, version.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <limits>

#include "support/problems.h"

namespace {

using namespace LxOpt;
using lxtest::Call;
using lxtest::Counting;
using lxtest::DiagonalQuadratic;
using lxtest::MessageCapture;
using lxtest::Recorder;

TEST(StateNames, TableAndOutOfRange) {
  const char* expected[] = {"Cont", "NoOpt", "OneVar", "NotFound", "Ended", "NotJust", "Exhaust",
                            "Dist", "Fval",  "Grad",   "Comp",     "Done",  "Stable"};
  for (unsigned int s = 0; s <= 12; ++s) EXPECT_STREQ(LxGetStateName(s), expected[s]) << s;
  for (unsigned int s : {13u, 100u, UINT_MAX}) {
    ASSERT_NE(LxGetStateName(s), nullptr);
    EXPECT_STREQ(LxGetStateName(s), "");
  }
}

TEST(IsRedundant, RootMeanSquareAgainstTolerance) {
  DiagonalQuadratic two({1, 1}, {0, 0});
  const double a[] = {0, 0}, b[] = {1, 1};
  struct Case {
    const double* p;
    const double* q;
    double tolerance;
    bool redundant;
    bool error;
  } cases[] = {
      {a, a, 1e-9, true, false},
      {a, b, 1.0, false, false},  // RMS difference exactly equal: not redundant
      {a, b, std::nextafter(1.0, 2.0), true, false},
      {a, b, 0.0, true, true},
      {a, b, -1.0, true, true},
  };
  for (const Case& c : cases) {
    MessageCapture capture;
    EXPECT_EQ(two.IsRedundant(c.p, c.q, c.tolerance), c.redundant) << c.tolerance;
    if (c.error) {
      ASSERT_EQ(capture.messages.size(), 1u);
      EXPECT_EQ(capture.messages[0].level, LxMessageLevel::Error);
      EXPECT_EQ(capture.messages[0].text,
                "Tolerance should have positive value in the IsRedundant function!");
    } else {
      EXPECT_TRUE(capture.messages.empty());
    }
  }
  DiagonalQuadratic empty({}, {});
  EXPECT_FALSE(empty.IsRedundant(a, a, 1.0));  // 0/0 compares false
}

TEST(ObjectiveDefaults, ValidityAcceptsEverythingAndSinglePrecisionFails) {
  DiagonalQuadratic f({1}, {0});
  const double nan[] = {std::numeric_limits<double>::quiet_NaN()};
  EXPECT_TRUE(f.CheckVariablesValidity(nan));
  MessageCapture capture;
  float block[1] = {0.f};
  float* blocks[1] = {block};
  EXPECT_TRUE(f(blocks).empty());
  EXPECT_TRUE(f(blocks).empty());
  EXPECT_EQ(capture.Texts(),
            std::vector<std::string>(
                2, "This is a GPU-specific method and should only be called from the derived class."));
}

// f(x) = x^2 with a gradient that points uphill, so every step is rejected.
class Misleading : public lxtest::Objective {
 public:
  using Objective::operator();
  unsigned int NumVar() const override { return 1; }
  double operator()(const double* x) override { return x[0] * x[0]; }
  double operator()(const double* x, double* g) override {
    g[0] = -2.0 * x[0];
    return x[0] * x[0];
  }
};

// x^2, but not a number below 0.5.
class NanBelowHalf : public lxtest::Objective {
 public:
  using Objective::operator();
  unsigned int NumVar() const override { return 1; }
  double operator()(const double* x) override {
    return x[0] < 0.5 ? std::numeric_limits<double>::quiet_NaN() : x[0] * x[0];
  }
  double operator()(const double* x, double* g) override {
    g[0] = x[0] < 0.5 ? std::numeric_limits<double>::quiet_NaN() : 2.0 * x[0];
    return (*this)(x);
  }
};

TEST(SteepestDescent, NullOutWarnsWithoutEvaluating) {
  DiagonalQuadratic q({1}, {0});
  Counting f(q);
  Recorder rec;
  MessageCapture capture;
  const double start[] = {1.0};
  EXPECT_EQ(LxSteepestDescentOpt()(f, &rec, start, nullptr), 0.0);
  EXPECT_EQ(f.gradients + f.values, 0);
  EXPECT_TRUE(rec.calls.empty());
  ASSERT_EQ(capture.messages.size(), 1u);
  EXPECT_EQ(capture.messages[0].level, LxMessageLevel::Warning);
  EXPECT_EQ(capture.messages[0].text, "memory not provided for optimized variables");
}

TEST(SteepestDescent, ConvergedStartReportsNoOptOnce) {
  DiagonalQuadratic q({1, 4}, {2, 3});
  Counting f(q);
  Recorder rec;
  const double start[] = {2.0, 3.01};  // g = (0, 0.08): sum g^2 below 0.1
  double out[2];
  const double value = LxSteepestDescentOpt()(f, &rec, start, out);
  EXPECT_NEAR(value, 4e-4, 1e-15);
  EXPECT_EQ(f.gradients, 1);
  ASSERT_EQ(rec.calls.size(), 1u);
  EXPECT_EQ(rec.calls[0].iter, 0u);
  EXPECT_EQ(rec.calls[0].state, kLxNoOpt);
  EXPECT_NEAR(rec.calls[0].gnorm, 0.08, 1e-12);
  EXPECT_EQ(out[1], 3.01);
}

TEST(SteepestDescent, NoVariablesEvaluatesOnceAndStops) {
  DiagonalQuadratic q({}, {});
  Counting f(q);
  Recorder rec;
  double dummy = 0.0;
  EXPECT_EQ(LxSteepestDescentOpt()(f, &rec, &dummy, &dummy), 0.0);
  EXPECT_EQ(f.gradients, 1);
  EXPECT_EQ(rec.States(), std::vector<unsigned int>{kLxNoOpt});
}

TEST(SteepestDescent, IterationLimitZeroReportsExhaust) {
  DiagonalQuadratic q({1}, {0});
  Counting f(q);
  Recorder rec;
  LxSteepestDescentOpt opt;
  opt.SetIterLimit(0);
  const double start[] = {3.0};
  double out[1];
  EXPECT_EQ(opt(f, &rec, start, out), 9.0);
  EXPECT_EQ(f.gradients, 1);
  EXPECT_EQ(rec.States(), std::vector<unsigned int>{kLxExhaust});
  EXPECT_EQ(rec.Iters(), std::vector<unsigned int>{0});
  EXPECT_EQ(out[0], 3.0);
}

TEST(SteepestDescent, IterationLimitCountsReportsAndEvaluations) {
  lxtest::Rosenbrock r;
  Counting f(r);
  Recorder rec;
  LxSteepestDescentOpt opt;
  opt.SetIterLimit(3);
  const double start[] = {-1.2, 1.0};
  double out[2];
  opt(f, &rec, start, out);
  EXPECT_EQ(f.gradients, 4);  // one at the start, one per iteration
  EXPECT_EQ(rec.States(), (std::vector<unsigned int>{0, 0, 0, kLxExhaust}));
  EXPECT_EQ(rec.Iters(), (std::vector<unsigned int>{0, 1, 2, 3}));
  EXPECT_EQ(rec.calls.back().vars, std::vector<double>(out, out + 2));
}

TEST(SteepestDescent, ConvergedTrialIsReturnedButNotCopiedOut) {
  DiagonalQuadratic q({1}, {0});  // f = x^2; from x = 1 the first step lands on 0
  Counting f(q);
  Recorder rec;
  const double start[] = {1.0};
  double out[1];
  EXPECT_EQ(LxSteepestDescentOpt()(f, &rec, start, out), 0.0);
  EXPECT_EQ(out[0], 1.0);
  EXPECT_EQ(f.gradients, 2);
  ASSERT_EQ(rec.calls.size(), 1u);
  EXPECT_EQ(rec.calls[0].state, kLxDone);
  EXPECT_EQ(rec.calls[0].iter, 0u);
  EXPECT_EQ(rec.calls[0].fval, 0.0);
  EXPECT_EQ(rec.calls[0].vars, std::vector<double>{1.0});
}

TEST(SteepestDescent, RepeatedRejectionsHalveTheStepUntilNotFound) {
  Misleading m;
  Counting f(m);
  Recorder rec;
  const double start[] = {1.0};
  double out[1];
  EXPECT_EQ(LxSteepestDescentOpt()(f, &rec, start, out), 1.0);
  // h starts at 1/2 and halves per rejection: below 1e-10 after the 33rd.
  EXPECT_EQ(f.gradients, 34);
  ASSERT_EQ(rec.calls.size(), 33u);
  for (unsigned int k = 0; k < 32; ++k) {
    EXPECT_EQ(rec.calls[k].state, kLxCont);
    EXPECT_EQ(rec.calls[k].iter, k);
    EXPECT_EQ(rec.calls[k].fval, 1.0);
  }
  // After a rejection the norm reported is the rejected trial's: x = 2 -> 4.
  EXPECT_DOUBLE_EQ(rec.calls[0].gnorm, 4.0);
  EXPECT_EQ(rec.calls.back().state, kLxNotFound);
  EXPECT_EQ(rec.calls.back().iter, 32u);
  EXPECT_EQ(out[0], 1.0);
}

TEST(SteepestDescent, CheckpointCannotStopIt) {
  auto run = [](unsigned long continueFor) {
    lxtest::Rosenbrock r;
    Recorder rec;
    rec.continueFor = continueFor;
    LxSteepestDescentOpt opt;
    opt.SetIterLimit(50);
    const double start[] = {-1.2, 1.0};
    double out[2];
    opt(r, &rec, start, out);
    return rec.States();
  };
  EXPECT_EQ(run(0), run(~0ul));
  EXPECT_EQ(run(0).size(), 51u);
}

TEST(SteepestDescent, ValueThatIsNotANumberIsAcceptedAsADecrease) {
  NanBelowHalf nb;
  Recorder rec;
  LxSteepestDescentOpt opt;
  opt.SetIterLimit(1);
  const double start[] = {1.0};
  double out[1];
  EXPECT_TRUE(std::isnan(opt(nb, &rec, start, out)));
  EXPECT_EQ(out[0], 0.0);
  EXPECT_EQ(rec.States(), (std::vector<unsigned int>{kLxCont, kLxExhaust}));
}

TEST(SteepestDescent, ConvergesOnIllConditionedQuadraticAndValley) {
  DiagonalQuadratic q = DiagonalQuadratic::IllConditioned(20, 10.0);
  std::vector<double> start(20, 0.0), out(20);
  LxSteepestDescentOpt opt;
  opt.SetTolerance(1e-12);
  Recorder rec;
  EXPECT_LT(opt(q, &rec, start.data(), out.data()), 1e-10);
  EXPECT_EQ(rec.calls.back().state, kLxDone);
  for (double v : out) EXPECT_NEAR(v, 1.0, 1e-5);

  lxtest::Rosenbrock r;
  const double s2[] = {-1.2, 1.0};
  double o2[2];
  opt.SetTolerance(1e-6);
  opt.SetIterLimit(50000);
  EXPECT_LT(opt(r, s2, o2), 1e-4);
  EXPECT_NEAR(o2[0], 1.0, 0.02);
}

TEST(SteepestDescent, ThreeArgumentFormEqualsNullCheckpointAndInPlaceRun) {
  lxtest::Rosenbrock r;
  const double start[] = {-1.2, 1.0};
  double a[2], b[2], c[2] = {-1.2, 1.0};
  LxSteepestDescentOpt opt;
  opt.SetIterLimit(200);
  const double fa = opt(r, start, a);
  const double fb = opt(r, nullptr, start, b);
  const double fc = opt(r, c, c);  // out may alias start
  EXPECT_EQ(fa, fb);
  EXPECT_EQ(fa, fc);
  EXPECT_EQ(std::vector<double>(a, a + 2), std::vector<double>(b, b + 2));
  EXPECT_EQ(std::vector<double>(a, a + 2), std::vector<double>(c, c + 2));
}

TEST(Version, StringsAndRegistration) {
  EXPECT_EQ(LxOptGetVersion(), 20260727u);
  EXPECT_STREQ(LxOptGetRelease(), "2.9.2.0");
  EXPECT_STREQ(LxOptGetNonDebugRelease(), "2.9.2.0");
  EXPECT_STREQ(LxOptGetDebugRelease(), "2.9.2.0 debug");
  EXPECT_STREQ(LxOptGetArch(), "redhat-RHEL8-x64");
  EXPECT_STREQ(LxOptGetPlatform(), "redhat-RHEL8-g++8.5-x64");
  const LxVersionRecord own = LxOptVersion();
  EXPECT_EQ(own.family, "lxsuite");
  EXPECT_EQ(own.library, "LxOpt");
  EXPECT_EQ(own.release, "2.9.2.0");
  int registered = 0;
  for (const LxVersionRecord& r : LxRegisteredVersions())
    registered += r.library == "LxOpt" && r.family == "lxsuite" && r.release == "2.9.2.0";
  EXPECT_EQ(registered, 1);
}

}  // namespace
