// Optimizer objects run at once on different threads give, bit for bit, their sequential results:
// no mutable state is shared between objects. Run under ThreadSanitizer by `make tsan`.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "lxopt/lxopt.h"
#include "support/problems.h"

namespace {

using namespace LxOpt;
using Vec = std::vector<double>;

// What one job leaves: value, final point and the whole checkpoint record, compared bit for bit.
struct Outcome {
  Vec numbers;
  std::vector<unsigned int> codes;
  void Add(const Vec& v) { numbers.insert(numbers.end(), v.begin(), v.end()); }
  bool operator==(const Outcome& o) const {
    return codes == o.codes && numbers.size() == o.numbers.size() &&
           std::memcmp(numbers.data(), o.numbers.data(), numbers.size() * sizeof(double)) == 0;
  }
};

struct Job {
  std::string name;
  std::function<Outcome()> run;
};

// The chained curved valley with a numeric Hessian, for the Newton optimizers.
struct ValleyWithHessian : lxtest::Objective {
  using Objective::operator();
  explicit ValleyWithHessian(unsigned int n) : f(n) {}
  unsigned int NumVar() const override { return f.NumVar(); }
  double operator()(const double* x) override { return f(x); }
  double operator()(const double* x, double* g) override { return f(x, g); }
  bool operator()(const double* x, double* h, double* g) override {
    return f(x, g), NumericHessian(f, x, h), true;
  }
  LxTestF f;
};

// An optimizer on the valley of n variables from (start, ..., start).
template <class Opt>
Outcome Valley(Opt& opt, unsigned int n, double start) {
  ValleyWithHessian f(n);
  LxTraceCheckpoint record(nullptr, true);
  Vec x0(n, start), x(n);
  Outcome o;
  o.Add({opt(f, &record, x0.data(), x.data())});
  o.Add(x);
  for (const LxTraceEntry& c : record.Entries()) {
    o.codes.insert(o.codes.end(), {c.iter, c.state, c.hasGradient});
    o.Add({c.fval, c.gnorm});
    o.Add(c.x);
  }
  return o;
}

Outcome Finder(std::uint32_t seed, const Vec& lower, const Vec& upper) {
  LxTestF f(2);
  LxMinfinder::GetRandomVariablesGeneral generator;
  LxMinfinder::LxMinfinder finder;
  finder.SetSeed(seed);
  finder.SetThresholdNumberOfNoChange(60);
  Outcome o;
  Vec coords, values;
  if (finder.Setup(f, &generator, lower, upper) && finder.Optimize())
    finder.GetMinimums(coords, values);
  o.Add(coords);
  o.Add(values);
  return o;
}

// Every registered optimizer on its own valley, with settings where the defaults do not fit.
struct Setting {
  const char* name;
  unsigned int n = 5;
  double start = -0.5, tolerance = 0.0;  // 0: the default
  unsigned int limit = 0;                // 0: the default
};
const Setting kSettings[] = {
    {"BFGS", 12, -1.2},    {"ConjGrad", 8, -0.5, 1e-8}, {"RibierePolak", 5, 0.0, 1e-8},
    {"DFP", 4, 2.0},       {"LBFGS", 30, -1.0, 1e-10},  {"SteepestDescent", 3, 0.5, 0.0, 3000},
    {"GeomBFGS", 9, -0.7}, {"Newton", 6, -0.8},         {"Annealing", 3, 3.0, 0.0, 20000}};

std::vector<Job> Jobs() {
  std::vector<Job> jobs;
  for (const LxOptimizerEntry& e : LxOptimizerRegistry()) {
    Setting s{e.name};
    for (const Setting& row : kSettings) s = std::string(row.name) == e.name ? row : s;
    jobs.push_back({e.name, [&e, s] {
                      LxAnyOptimizer o(e);
                      if (s.tolerance > 0.0) o.SetTolerance(s.tolerance);
                      if (s.limit > 0) o.SetIterLimit(s.limit);
                      if (auto* sa = dynamic_cast<LxSAOpt*>(o.Gradient())) sa->SetSeed(11);
                      return Valley(o, s.n, s.start);
                    }});
  }
  jobs.push_back({"BFGS again", [] {
                    LxBFGSOpt o;
                    o.SetLineMinimize(LxMaxStepLineMinimize());
                    return Valley(o, 6, 0.3);
                  }});
  jobs.push_back({"Finder A", [] { return Finder(1, {-3, -2}, {3, 2}); }});
  jobs.push_back({"Finder B", [] { return Finder(2, {-2.5, -1.5}, {2.5, 1.5}); }});
  return jobs;
}

TEST(Threads, ConcurrentRunsMatchSequentialRunsBitForBit) {
  const std::vector<Job> jobs = Jobs();
  std::ostringstream progress;  // only the annealing job writes lxout
  std::ostream* previousOut = LxSetOutputStream(&progress);
  std::atomic<int> messages{0};  // from any thread
  const LxMessageSink previousSink =
      LxSetMessageSink([&](LxMessageLevel, const std::string&) { ++messages; });
  std::vector<Outcome> sequential, concurrent(jobs.size());
  for (const Job& job : jobs) sequential.push_back(job.run());
  const int sequentialMessages = messages.exchange(0);
  const std::string sequentialProgress = progress.str();
  progress.str("");
  std::atomic<std::size_t> arrived{0};  // every thread waits for all, so the runs overlap
  std::vector<std::thread> threads;
  for (std::size_t k = 0; k < jobs.size(); ++k) {
    threads.emplace_back([&, k] {
      for (++arrived; arrived < jobs.size();) std::this_thread::yield();
      concurrent[k] = jobs[k].run();
    });
  }
  for (std::thread& t : threads) t.join();
  LxSetMessageSink(previousSink);
  LxSetOutputStream(previousOut);
  for (std::size_t k = 0; k < jobs.size(); ++k) {
    EXPECT_FALSE(sequential[k].numbers.empty()) << jobs[k].name;
    EXPECT_TRUE(sequential[k] == concurrent[k]) << jobs[k].name << " differs beside the others";
  }
  EXPECT_EQ(messages.load(), sequentialMessages);
  EXPECT_EQ(progress.str(), sequentialProgress);
  EXPECT_NE(sequentialProgress.find("T = "), std::string::npos);
}

// Several ask/tell runs at once, each reset right after a tell (its worker computing), then run
// again, end exactly like direct runs.
TEST(Threads, AskTellRunsMatchDirectRuns) {
  auto direct = [](LxOptimizer1& opt, unsigned int n) {
    LxTestF f(n);
    Vec x0(n, -0.7), x(n);
    Vec out{opt(f, x0.data(), x.data())};
    out.insert(out.end(), x.begin(), x.end());
    return out;
  };
  auto driven = [](LxOptimizer1& opt, unsigned int n) {
    LxTestF f(n);
    Vec x0(n, -0.7), g(n);
    LxAskTell run;
    run.Start(opt, x0.data(), n);
    for (int k = 0; k < 3 && run.Ask() != nullptr; ++k) run.Tell(f(run.Ask(), g.data()), g.data());
    run.Reset();  // the worker is computing the next point
    run.Start(opt, x0.data(), n);
    while (const double* x = run.Ask()) run.Tell(f(x, g.data()), g.data());
    Vec out{run.GetValue()};
    out.insert(out.end(), run.GetPoint(), run.GetPoint() + n);
    return out;
  };
  const std::vector<std::pair<const char*, unsigned int>> cases = {
      {"GeomBFGS", 9}, {"LBFGS", 12}, {"GeomBFGS", 6}, {"LBFGS", 20}};
  std::vector<Vec> expected, got(cases.size());
  for (const auto& [name, n] : cases)
    expected.push_back(direct(*LxFindOptimizer(name)->make1(), n));
  std::vector<std::thread> threads;
  for (std::size_t k = 0; k < cases.size(); ++k)
    threads.emplace_back(
        [&, k] { got[k] = driven(*LxFindOptimizer(cases[k].first)->make1(), cases[k].second); });
  for (std::thread& t : threads) t.join();
  for (std::size_t k = 0; k < cases.size(); ++k) EXPECT_EQ(got[k], expected[k]) << k;
}

}  // namespace
