// Simulated annealing.
#include <gtest/gtest.h>
#include <lxopt/lxopt.h>

#include <cmath>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "support/geom.h"
#include "support/problems.h"

namespace {

using lxtest::MessageCapture;
using lxtest::Recorder;

// LxSAOpt leaves the two getters to its users.
class Annealer : public LxOpt::LxSAOpt {
 public:
  using LxOpt::LxSAOpt::LxSAOpt;
  unsigned int GetIterLimit() const override { return EvaluationLimit(); }
  double GetTolerance() const override { return Tolerance(); }
};

// Keeps every value-only evaluation point (the annealing moves).
class MoveLog : public LxOpt::LxFunc2 {
 public:
  using LxOpt::LxFunc2::operator();
  explicit MoveLog(LxOpt::LxFunc2& inner) : inner_(inner) {}
  unsigned int NumVar() const override { return inner_.NumVar(); }
  double operator()(const double* x) override {
    points.emplace_back(x, x + NumVar());
    return inner_(x);
  }
  double operator()(const double* x, double* g) override {
    ++gradients;
    return inner_(x, g);
  }
  bool operator()(const double* x, double* h, double* g) override { return inner_(x, h, g); }
  std::vector<LxOpt::LxFComponent> GetFComponents(const double* x) override {
    return inner_.GetFComponents(x);
  }
  std::vector<std::vector<double>> points;
  int gradients = 0;

 private:
  LxOpt::LxFunc2& inner_;
};

// What one annealing call did.
struct Outcome {
  double value;
  std::vector<double> x;
  std::vector<std::vector<double>> moves;
  std::string lines;  // lxout
  std::vector<std::string> messages;
  std::vector<unsigned int> localStates;
  int gradients;  // value-and-gradient evaluations (the local run's)
};

Outcome Anneal(LxOpt::LxSAOpt& sa, LxOpt::LxFunc2& f, std::vector<double> start) {
  MoveLog log(f);
  Recorder rec;
  MessageCapture capture;
  std::ostringstream text;
  std::ostream* previous = LxOpt::LxSetOutputStream(&text);
  Outcome o;
  o.x.resize(start.size());
  o.value = sa(log, &rec, start.data(), o.x.data());
  LxOpt::LxSetOutputStream(previous);
  o.moves = log.points;
  o.lines = text.str();
  o.messages = capture.Texts();
  o.localStates = rec.States();
  o.gradients = log.gradients;
  return o;
}

TEST(Annealing, FreshOptimizersRepeatEachOtherAndCallsContinueTheSequence) {
  lxtest::DoubleWells wells(2);
  Annealer a(1000.0), b(1000.0);
  a.SetIterLimit(1500);
  b.SetIterLimit(1500);
  const Outcome first = Anneal(a, wells, {2.0, 2.0});
  const Outcome same = Anneal(b, wells, {2.0, 2.0});
  EXPECT_EQ(first.moves, same.moves);
  EXPECT_EQ(first.x, same.x);
  EXPECT_EQ(first.value, same.value);
  EXPECT_EQ(first.lines, same.lines);

  const Outcome next = Anneal(a, wells, {2.0, 2.0});
  ASSERT_GT(next.moves.size(), 1u);
  EXPECT_NE(next.moves[1], first.moves[1]);

  // A copy starts a generator of its own from the seed.
  Annealer copy(a);
  EXPECT_EQ(Anneal(copy, wells, {2.0, 2.0}).moves, first.moves);
  Annealer assigned(5.0);
  assigned = a;
  EXPECT_EQ(Anneal(assigned, wells, {2.0, 2.0}).moves, first.moves);
}

TEST(Annealing, AZeroToleranceEndsOnlyAtTheEvaluationLimitAndStillMinimizes) {
  lxtest::DoubleWells wells(2);
  Annealer sa(300.0);
  sa.SetTolerance(0.0);
  sa.SetIterLimit(2000);  // ten temperatures of 200 moves
  const Outcome o = Anneal(sa, wells, {2.0, 2.0});
  EXPECT_EQ(o.moves.size(), 2001u);  // the start and 2000 moves
  ASSERT_EQ(o.messages.size(), 2u);
  EXPECT_EQ(o.messages[0], "Initial temperature =     300.00");
  EXPECT_EQ(o.messages[1], "Number of function evaluation exceeded");
  // The local BFGS run (default tolerance: sum g^2 < 0.1) reported to the
  // caller's checkpoint and left its point and value.
  ASSERT_FALSE(o.localStates.empty());
  EXPECT_TRUE(o.localStates.back() == 1u || o.localStates.back() == 11u);
  EXPECT_GE(o.gradients, 1);
  std::vector<double> g(2);
  EXPECT_DOUBLE_EQ(o.value, wells(o.x.data(), g.data()));
  EXPECT_LT(g[0] * g[0] + g[1] * g[1], 0.1);
  // Ten temperature lines, the first with the initial temperature.
  EXPECT_EQ(o.lines.rfind("T = 300\n", 0), 0u);
  size_t temperatures = 0;
  for (size_t at = o.lines.find("T = "); at != std::string::npos; at = o.lines.find("T = ", at + 1))
    ++temperatures;
  EXPECT_EQ(temperatures, 10u);
}

TEST(Annealing, CoordinatesOutsideTheBoxAreRedrawnInsideIt) {
  lxtest::DoubleWells wells(3);
  Annealer sa(300.0);
  sa.SetIterLimit(3);
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const Outcome o = Anneal(sa, wells, {20000.0, 1.0, nan});
  ASSERT_EQ(o.moves.size(), 4u);
  // Move h changes coordinate h only; 20000 +- 1 and NaN leave the box.
  const std::vector<double>& m0 = o.moves[1];
  EXPECT_LE(std::fabs(m0[0]), 10000.0);
  EXPECT_EQ(m0[1], 1.0);
  const std::vector<double>& m2 = o.moves[3];
  EXPECT_FALSE(std::isnan(m2[2]));
  EXPECT_LE(std::fabs(m2[2]), 10000.0);
  EXPECT_NE(m2[2], 0.0);
}

TEST(Annealing, FindsTheGlobalWellWhereBFGSAloneStopsInTheNearOne) {
  lxtest::DoubleWells wells(2);
  const std::vector<double> start = {2.0, 2.0};
  std::vector<double> local(2);
  LxOpt::LxBFGSOpt bfgs;
  const double fLocal = bfgs(wells, start.data(), local.data());
  EXPECT_GT(fLocal, 1.9);  // both coordinates stay in the near well

  Annealer sa(2000.0);
  sa.SetIterLimit(20000);
  const Outcome o = Anneal(sa, wells, start);
  EXPECT_LT(o.value, -2.0);
  EXPECT_LT(o.x[0], -1.5);
  EXPECT_LT(o.x[1], -1.5);
  // A normal exit reports the moves made: every value-only evaluation but
  // the first.
  ASSERT_EQ(o.messages.size(), 2u);
  const std::string exit = "Normal exit, total evaluations = " +
                           std::to_string(o.moves.size() - 1) + "  Final temperature =";
  EXPECT_EQ(o.messages[1].rfind(exit, 0), 0u) << o.messages[1];
  EXPECT_EQ(o.messages[1].back(), 'K');
  EXPECT_NE(o.lines.find("new minimum "), std::string::npos);
}

}  // namespace
