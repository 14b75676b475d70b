// lxopt-demo: minimizes the built-in problems with every optimizer and prints
// one summary table, then the demonstrations that need more than a row.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "demo/demo.h"

namespace demo {

Registry& TheRegistry() {
  static Registry registry;
  return registry;
}

const Problem* FindProblem(const std::string& name) {
  for (const Problem& p : TheRegistry().problems)
    if (p.name == name) return &p;
  return nullptr;
}

namespace {

// Counts every evaluation the optimizer asks for.
class Counting : public LxOpt::LxFunc2 {
 public:
  using LxOpt::LxFunc2::operator();
  explicit Counting(LxOpt::LxFunc2& inner) : inner_(inner) {}
  unsigned int NumVar() const override { return inner_.NumVar(); }
  double operator()(const double* x) override { ++count; return inner_(x); }
  double operator()(const double* x, double* g) override { ++count; return inner_(x, g); }
  bool operator()(const double* x, double* h, double* g) override {
    ++count;
    return inner_(x, h, g);
  }
  std::vector<LxOpt::LxFComponent> GetFComponents(const double* x) override {
    return inner_.GetFComponents(x);
  }
  long count = 0;

 private:
  LxOpt::LxFunc2& inner_;
};

// Remembers the last report and, with --trace, prints every one.
class Tracer : public LxOpt::LxCheckpoint1 {
 public:
  using LxOpt::LxCheckpoint1::operator();
  explicit Tracer(bool print) : print_(print) {}
  bool operator()(unsigned int iter, unsigned int, double fval, double gnorm, const double*,
                  const double*, unsigned int state) override {
    lastIter = iter;
    lastState = state;
    ++calls;
    if (print_)
      std::printf("    iter %6u  f = %-+14.8e  |g| = %-12.5e  %s\n", iter, fval, gnorm,
                  LxOpt::LxGetStateName(state));
    return true;
  }
  unsigned int lastIter = 0, lastState = 0;
  long calls = 0;

 private:
  bool print_;
};

void PrintUsage() {
  std::printf(
      "usage: lxopt-demo [--trace] [--only NAME] [--help]\n"
      "  --trace      print every checkpoint call\n"
      "  --only NAME  run only the optimizer or section called NAME\n"
      "Optimizers:");
  for (const Optimizer& o : TheRegistry().optimizers) std::printf(" %s", o.name.c_str());
  std::printf("\nSections:");
  for (const Section& s : TheRegistry().sections) std::printf(" %s", s.name.c_str());
  std::printf("\n");
}

enum class Parsed { Run, Help, Bad };

Parsed ParseArguments(int argc, char** argv, Options& options) {
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--trace") == 0) {
      options.trace = true;
    } else if (std::strcmp(argv[i], "--only") == 0 && i + 1 < argc) {
      options.only = argv[++i];
    } else {
      return std::strcmp(argv[i], "--help") == 0 ? Parsed::Help : Parsed::Bad;
    }
  }
  return Parsed::Run;
}

void RunTable(const Options& options) {
  Registry& r = TheRegistry();
  std::printf("%-26s %-26s %6s %16s %8s %8s %-9s %10s\n", "optimizer", "problem", "n",
              "final value", "iters", "evals", "state", "ms");
  for (const Optimizer& opt : r.optimizers) {
    if (!options.only.empty() && options.only != opt.name) continue;
    for (const Problem& p : r.problems) {
      if (opt.needsHessian && !p.hasHessian) continue;
      std::unique_ptr<LxOpt::LxFunc2> objective = p.make();
      Counting counted(*objective);
      Tracer tracer(options.trace);
      std::vector<double> out(p.start.size());
      if (options.trace) std::printf("  %s on %s\n", opt.name.c_str(), p.name.c_str());
      const auto t0 = std::chrono::steady_clock::now();
      const double f = opt.run(counted, &tracer, p.start.data(), out.data());
      const double ms =
          std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
      std::printf("%-26s %-26s %6zu %16.8e %8u %8ld %-9s %10.3f\n", opt.name.c_str(),
                  p.name.c_str(), p.start.size(), f, tracer.lastIter, counted.count,
                  tracer.calls ? LxOpt::LxGetStateName(tracer.lastState) : "-", ms);
    }
  }
  std::printf("\nKnown minima:");
  for (const Problem& p : r.problems)
    if (!std::isnan(p.knownMinimum)) std::printf("  %s %.8g;", p.name.c_str(), p.knownMinimum);
  std::printf("\n");
}

}  // namespace
}  // namespace demo

int main(int argc, char** argv) {
  using namespace demo;
  Options options;
  const Parsed parsed = ParseArguments(argc, argv, options);
  Registry& r = TheRegistry();
  auto byOrder = [](const auto& a, const auto& b) { return a.order < b.order; };
  std::stable_sort(r.problems.begin(), r.problems.end(), byOrder);
  std::stable_sort(r.optimizers.begin(), r.optimizers.end(), byOrder);
  std::stable_sort(r.sections.begin(), r.sections.end(), byOrder);
  if (parsed != Parsed::Run) {
    PrintUsage();
    return parsed == Parsed::Help ? 0 : 2;
  }

  std::printf("LxOpt %s demo\n\n", LxOpt::LxOptGetRelease());
  RunTable(options);
  for (const Section& s : r.sections) {
    if (!options.only.empty() && options.only != s.name) continue;
    std::printf("\n== %s ==\n", s.name.c_str());
    s.run(options);
  }
  return 0;
}
