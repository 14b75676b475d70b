// Simulated annealing.
#include <gtest/gtest.h>
#include <lxopt/lxopt.h>

#include <algorithm>
#include <cmath>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "support/geom.h"

namespace {

// LxSAOpt leaves the two getters to its users.
class Annealer : public LxOpt::LxSAOpt {
 public:
  Annealer(double temperature, unsigned int limit) : LxSAOpt(temperature) { SetIterLimit(limit); }
  unsigned int GetIterLimit() const override { return EvaluationLimit(); }
  double GetTolerance() const override { return Tolerance(); }
};

// One annealing call: result, value-only points (the moves), lxout text, messages, final states.
struct Annealed : lxtest::Objective {
  using lxtest::Objective::operator();
  Annealed(LxOpt::LxSAOpt& sa, lxtest::Objective& f, std::vector<double> start)
      : inner(f), x(start.size()) {
    LxOpt::LxTraceCheckpoint rec;
    lxtest::MessageCapture capture;
    std::ostringstream text;
    std::ostream* previous = LxOpt::LxSetOutputStream(&text);
    value = sa(*this, &rec, start.data(), x.data());
    LxOpt::LxSetOutputStream(previous);
    lines = text.str();
    messages = capture.Texts();
    for (const LxOpt::LxTraceEntry& e : rec.Entries()) states.push_back(e.state);
  }
  unsigned int NumVar() const override { return inner.NumVar(); }
  double operator()(const double* p) override {
    moves.emplace_back(p, p + NumVar());
    return inner(p);
  }
  double operator()(const double* p, double* g) override { return inner(p, g); }

  lxtest::Objective& inner;
  std::vector<double> x;
  double value = 0.0;
  std::vector<std::vector<double>> moves;
  std::string lines;
  std::vector<std::string> messages;
  std::vector<unsigned int> states;
};

TEST(Annealing, SeedsRepeatAndCallsContinueTheSequence) {
  lxtest::DoubleWells wells(2);
  Annealer a(1000.0, 1500), b(1000.0, 1500);
  const Annealed first(a, wells, {2.0, 2.0}), same(b, wells, {2.0, 2.0});
  EXPECT_EQ(std::tie(first.moves, first.x, first.value, first.lines),
            std::tie(same.moves, same.x, same.value, same.lines));
  EXPECT_NE(Annealed(a, wells, {2.0, 2.0}).moves[1], first.moves[1]);  // a continues its generator
  Annealer copy(a), s365(1000.0, 1500), s7(1000.0, 1500);
  EXPECT_EQ(Annealed(copy, wells, {2.0, 2.0}).moves, first.moves);  // a copy restarts from the seed
  s365.SetSeed(365);                                                // the default
  EXPECT_EQ(Annealed(s365, wells, {2.0, 2.0}).moves, first.moves);
  s7.SetSeed(7);
  EXPECT_NE(Annealed(s7, wells, {2.0, 2.0}).moves[1], first.moves[1]);
}

TEST(Annealing, AZeroToleranceEndsOnlyAtTheEvaluationLimitAndStillMinimizes) {
  lxtest::DoubleWells wells(2);
  Annealer sa(300.0, 2000);  // ten temperatures of 200 moves
  sa.SetTolerance(0.0);
  const Annealed o(sa, wells, {2.0, 2.0});
  EXPECT_EQ(o.moves.size(), 2001u);  // the start and 2000 moves
  EXPECT_EQ(o.messages, (std::vector<std::string>{"Initial temperature =     300.00",
                                                  "Number of function evaluation exceeded"}));
  // The final BFGS run (sum g^2 < 0.1) reported to the caller's checkpoint.
  EXPECT_TRUE(!o.states.empty() && (o.states.back() == 1u || o.states.back() == 11u));
  std::vector<double> g(2);
  EXPECT_DOUBLE_EQ(o.value, wells(o.x.data(), g.data()));
  EXPECT_LT(g[0] * g[0] + g[1] * g[1], 0.1);
  // Ten temperature lines, the first with the initial temperature.
  EXPECT_EQ(o.lines.rfind("T = 300\n", 0), 0u);
  EXPECT_EQ(std::count(o.lines.begin(), o.lines.end(), '='), 10);
}

// No variables: the loop runs until four temperatures agree; tolerance 0 skips it.
TEST(Annealing, NoVariablesRunsTheLoopUntilTheHistoryAgrees) {
  lxtest::DoubleWells none(0);
  struct Case {
    double tolerance;
    const char* lines;
    std::vector<std::string> messages;
  };
  const std::string init = "Initial temperature =     300.00";
  const Case cases[] = {{0.001,
                         "T = 300\nT = 255\nT = 216.75\nT = 184.237\n",
                         {init, "Normal exit, total evaluations = 0  Final temperature =184.24K"}},
                        {0.0, "", {init}}};
  for (const Case& c : cases) {
    Annealer sa(300.0, 1000);
    sa.SetTolerance(c.tolerance);
    const Annealed o(sa, none, {0.0});  // one slot, so that x is not null
    EXPECT_EQ(o.lines, c.lines);
    EXPECT_EQ(o.messages, c.messages);
    EXPECT_TRUE(o.moves.size() == 1u && o.states == std::vector<unsigned int>{1u});  // NoOpt
  }
}

TEST(Annealing, CoordinatesOutsideTheBoxAreRedrawnInsideIt) {
  lxtest::DoubleWells wells(3);
  Annealer sa(300.0, 3);
  const Annealed o(sa, wells, {20000.0, 1.0, std::nan("")});
  ASSERT_EQ(o.moves.size(), 4u);
  // Move h changes coordinate h only; 20000 +- 1 and NaN leave the box.
  EXPECT_TRUE(std::fabs(o.moves[1][0]) < 10000.0 && o.moves[1][1] == 1.0);  // redrawn, not clamped
  EXPECT_TRUE(std::fabs(o.moves[3][2]) < 10000.0 && o.moves[3][2] != 0.0);  // false for NaN
}

TEST(Annealing, FindsTheGlobalWellWhereBFGSAloneStopsInTheNearOne) {
  lxtest::DoubleWells wells(2);
  std::vector<double> start = {2.0, 2.0}, local(2);
  EXPECT_GT(LxOpt::LxBFGSOpt()(wells, start.data(), local.data()), 1.9);  // stays near +2
  Annealer sa(2000.0, 20000);
  const Annealed o(sa, wells, start);
  EXPECT_TRUE(o.value < -2.0 && o.x[0] < -1.5 && o.x[1] < -1.5) << o.value;
  // A normal exit reports the moves made: every value-only evaluation but the first.
  ASSERT_EQ(o.messages.size(), 2u);
  const std::string exit =
      "Normal exit, total evaluations = " + std::to_string(o.moves.size() - 1) +
      "  Final temperature =";
  EXPECT_EQ(o.messages[1].rfind(exit, 0), 0u) << o.messages[1];
  EXPECT_TRUE(o.messages[1].back() == 'K' && o.lines.find("new minimum ") != std::string::npos);
}

}  // namespace
