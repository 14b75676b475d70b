// Different optimizer objects used at once on different threads give, bit for
// bit, the results they give one after another: the library keeps no mutable
// state shared between objects. Run under ThreadSanitizer by `make tsan`.
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "lxopt/lxopt.h"
#include "support/problems.h"

namespace {

using namespace LxOpt;
using Vec = std::vector<double>;

// What one job leaves behind: the returned value, the final point and the
// whole checkpoint record, all compared bit for bit.
struct Outcome {
  Vec numbers;
  std::vector<unsigned int> codes;

  void Add(double v) { numbers.push_back(v); }
  void Add(const Vec& v) { numbers.insert(numbers.end(), v.begin(), v.end()); }
  void Add(const lxtest::Recorder& r) {
    for (const lxtest::Call& c : r.calls) {
      codes.push_back(c.iter);
      codes.push_back(c.state);
      codes.push_back(c.gradNull);
      Add(c.fval);
      Add(c.gnorm);
      Add(c.vars);
    }
  }
  bool operator==(const Outcome& o) const {
    return codes == o.codes && numbers.size() == o.numbers.size() &&
           std::memcmp(numbers.data(), o.numbers.data(), numbers.size() * sizeof(double)) == 0;
  }
};

struct Job {
  std::string name;
  std::function<Outcome()> run;
};

// The chained curved valley as an LxFunc2 (numeric Hessian) for the Newton
// optimizer.
class ValleyWithHessian : public LxFunc2 {
 public:
  using LxFunc2::operator();
  explicit ValleyWithHessian(unsigned int n) : f_(n) {}
  unsigned int NumVar() const override { return f_.NumVar(); }
  double operator()(const double* x) override { return f_(x); }
  double operator()(const double* x, double* g) override { return f_(x, g); }
  bool operator()(const double* x, double* h, double* g) override {
    f_(x, g);
    NumericHessian(f_, x, h);
    return true;
  }
  std::vector<LxFComponent> GetFComponents(const double* x) override { return f_.GetFComponents(x); }

 private:
  LxTestF f_;
};

// Six wells: x^2 (x^2 - 4)^2 + 0.1 x + (y^2 - 1)^2 + 0.05 y.
class SixWells : public lxtest::Objective {
 public:
  using lxtest::Objective::operator();
  unsigned int NumVar() const override { return 2; }
  double operator()(const double* v) override {
    double g[2];
    return (*this)(v, g);
  }
  double operator()(const double* v, double* g) override {
    const double x = v[0], y = v[1], p = x * x - 4.0, q = y * y - 1.0;
    g[0] = 2.0 * x * p * p + 4.0 * x * x * x * p + 0.1;
    g[1] = 4.0 * y * q + 0.05;
    return x * x * p * p + 0.1 * x + q * q + 0.05 * y;
  }
};

// Simulated annealing leaves the two getters to a derived class.
class Annealing : public LxSAOpt {
 public:
  using LxSAOpt::LxSAOpt;
  unsigned int GetIterLimit() const override { return EvaluationLimit(); }
  double GetTolerance() const override { return Tolerance(); }
};

Vec Start(unsigned int n, double value) { return Vec(n, value); }

// A gradient optimizer on the chained valley from a fixed start.
template <class Opt>
Outcome Valley(Opt& opt, unsigned int n, double start) {
  LxTestF f(n);
  lxtest::Recorder record;
  Vec x0 = Start(n, start), x(n);
  Outcome o;
  o.Add(opt(f, &record, x0.data(), x.data()));
  o.Add(x);
  o.Add(record);
  return o;
}

Outcome Finder(std::uint32_t seed, const Vec& lower, const Vec& upper) {
  SixWells f;
  LxMinfinder::GetRandomVariablesGeneral generator;
  LxMinfinder::LxMinfinder finder;
  finder.SetSeed(seed);
  finder.SetThresholdNumberOfNoChange(60);
  Outcome o;
  if (!finder.Setup(f, &generator, lower, upper) || !finder.Optimize()) return o;
  Vec coords, values;
  finder.GetMinimums(coords, values);
  o.Add(coords);
  o.Add(values);
  return o;
}

std::vector<Job> Jobs() {
  return {
      {"BFGS", [] { LxBFGSOpt o; return Valley(o, 12, -1.2); }},
      {"BFGS again", [] { LxBFGSOpt o; o.SetLineMinimize(LxMaxStepLineMinimize()); return Valley(o, 6, 0.3); }},
      {"ConjGrad", [] { LxConjGradOpt o; o.SetTolerance(1e-8); return Valley(o, 8, -0.5); }},
      {"PolakRibiere", [] { LxRibierePolakOpt o; o.SetTolerance(1e-8); return Valley(o, 5, 0.0); }},
      {"DFP", [] { LxDFPOpt o; return Valley(o, 4, 2.0); }},
      {"LBFGS", [] { LxLBFGSOpt o; o.SetTolerance(1e-10); return Valley(o, 30, -1.0); }},
      {"Steepest", [] { LxSteepestDescentOpt o; o.SetIterLimit(3000); return Valley(o, 3, 0.5); }},
      {"Geometry", [] { LxBFGSOptimizer o; return Valley(o, 9, -0.7); }},
      {"Newton",
       [] {
         ValleyWithHessian f(6);
         LxNewtonOpt opt;
         lxtest::Recorder record;
         Vec x0 = Start(6, -0.8), x(6);
         Outcome o;
         o.Add(opt(f, &record, x0.data(), x.data()));
         o.Add(x);
         o.Add(record);
         return o;
       }},
      {"Annealing",
       [] {
         Annealing opt(300.0);
         opt.SetSeed(11);
         opt.SetIterLimit(20000);
         LxTestF f(3);
         lxtest::Recorder record;
         Vec x0 = Start(3, 3.0), x(3);
         Outcome o;
         o.Add(opt(f, &record, x0.data(), x.data()));
         o.Add(x);
         o.Add(record);
         return o;
       }},
      {"Finder A", [] { return Finder(1, {-3, -2}, {3, 2}); }},
      {"Finder B", [] { return Finder(2, {-2.5, -1.5}, {2.5, 1.5}); }},
  };
}

// Counts messages by level from any thread.
struct CountingSink {
  std::mutex mutex;
  std::vector<std::string> texts;
  LxMessageSink previous;
  CountingSink() {
    previous = LxSetMessageSink([this](LxMessageLevel, const std::string& text) {
      std::lock_guard<std::mutex> lock(mutex);
      texts.push_back(text);
    });
  }
  ~CountingSink() { LxSetMessageSink(previous); }
};

// Holds every thread until all have started, so the runs overlap.
class StartLine {
 public:
  explicit StartLine(std::size_t count) : waiting_(count) {}
  void Arrive() {
    std::unique_lock<std::mutex> lock(mutex_);
    if (--waiting_ == 0) {
      ready_.notify_all();
      return;
    }
    ready_.wait(lock, [this] { return waiting_ == 0; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable ready_;
  std::size_t waiting_;
};

TEST(Threads, ConcurrentRunsMatchSequentialRunsBitForBit) {
  const std::vector<Job> jobs = Jobs();
  std::ostringstream progress;  // only the annealing job writes lxout
  std::ostream* previousOut = LxSetOutputStream(&progress);

  std::vector<Outcome> sequential;
  std::size_t sequentialMessages = 0;
  std::string sequentialProgress;
  {
    CountingSink sink;
    for (const Job& job : jobs) sequential.push_back(job.run());
    sequentialMessages = sink.texts.size();
    sequentialProgress = progress.str();
  }
  progress.str("");

  std::vector<Outcome> concurrent(jobs.size());
  std::size_t concurrentMessages = 0;
  {
    CountingSink sink;
    StartLine start(jobs.size());
    std::vector<std::thread> threads;
    for (std::size_t k = 0; k < jobs.size(); ++k) {
      threads.emplace_back([&, k] {
        start.Arrive();
        concurrent[k] = jobs[k].run();
      });
    }
    for (std::thread& t : threads) t.join();
    concurrentMessages = sink.texts.size();
  }
  LxSetOutputStream(previousOut);

  for (std::size_t k = 0; k < jobs.size(); ++k) {
    EXPECT_FALSE(sequential[k].numbers.empty()) << jobs[k].name;
    EXPECT_TRUE(sequential[k] == concurrent[k]) << jobs[k].name << " differs when run beside the others";
  }
  EXPECT_EQ(concurrentMessages, sequentialMessages);
  EXPECT_EQ(progress.str(), sequentialProgress);
  EXPECT_NE(sequentialProgress.find("T = "), std::string::npos);
}

// Two finders with the same settings side by side agree with each other and
// with one run alone.
TEST(Threads, TwoFindersAtOnceAgreeWithOneAlone) {
  const Outcome alone = Finder(7, {-3, -2}, {3, 2});
  ASSERT_FALSE(alone.numbers.empty());
  Outcome a, b;
  std::thread ta([&] { a = Finder(7, {-3, -2}, {3, 2}); });
  std::thread tb([&] { b = Finder(7, {-3, -2}, {3, 2}); });
  ta.join();
  tb.join();
  EXPECT_TRUE(a == alone);
  EXPECT_TRUE(b == alone);
}

}  // namespace
