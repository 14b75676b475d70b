// L-BFGS at large n, and on Lennard-Jones clusters.
//
// BM_LBFGSIteration: one L-BFGS iteration (m = 8, memory full) on a cheap
// objective at n = 1e5 and 1e6, next to the bare cost of the 4m + 4 vector
// passes the method must make per iteration (2m + 2 dot products and 2m + 2
// axpy passes over distinct vectors of n doubles), measured alongside it in
// the same loop. Reported: the iteration's CPU time, pass_ms (the 4m + 4
// passes) and iter_per_pass (their ratio).
//
// BM_LennardJones: final energy and evaluations on the 13-atom cluster
// (L-BFGS and BFGS) and on a 1,000-atom cluster cut from a perturbed fcc
// lattice (L-BFGS and the conjugate-gradient optimizer), reported as counters.
#include <benchmark/benchmark.h>
#include <time.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "bench_support.h"
#include "lxopt/lxopt.h"
#include "problems/extra.h"

namespace {

using lxbench::CheapQuadratic;
using lxbench::Stamps;
using lxbench::ThreadSeconds;

constexpr unsigned int kMemory = 8;

// The baseline: 2m + 2 dot products and 2m + 2 axpy passes over the 2m + 3
// vectors of pool.
double VectorPasses(std::vector<std::vector<double>>& pool) {
  const double t0 = ThreadSeconds();
  const size_t n = pool[0].size();
  double sum = 0.0;
  for (size_t k = 0; k + 1 < pool.size(); ++k) {
    const double* a = pool[k].data();
    double* b = pool[k + 1].data();
    double dot = 0.0;
    for (size_t i = 0; i < n; ++i) dot += a[i] * b[i];
    sum += dot;
    const double c = dot > 0.0 ? 1e-9 : -1e-9;
    for (size_t i = 0; i < n; ++i) b[i] += c * a[i];
  }
  benchmark::DoNotOptimize(sum);
  benchmark::ClobberMemory();
  return ThreadSeconds() - t0;
}

// Iterations after the memory has filled are timed (the first ones also
// touch the freshly allocated block).
constexpr unsigned int kFirstTimed = kMemory + 1;
constexpr unsigned int kIterationsPerRun = kFirstTimed + 6;

void BM_LBFGSIteration(benchmark::State& state) {
  const unsigned int n = static_cast<unsigned int>(state.range(0));
  CheapQuadratic f(n);
  LxOpt::LxLBFGSOpt lbfgs;
  lbfgs.SetMemory(kMemory);
  lbfgs.SetIterLimit(kIterationsPerRun);
  lbfgs.SetTolerance(-1.0);
  std::vector<double> start(n, 0.0), out(n);
  // 2m + 3 vectors: 2m + 2 neighbouring pairs, a dot product and an axpy each.
  std::vector<std::vector<double>> pool(2 * kMemory + 3, std::vector<double>(n, 1.0));
  double iterSeconds = 0.0, passSeconds = 0.0;
  long timedIterations = 0, passes = 0;
  for (auto _ : state) {
    Stamps stamps;
    stamps.times.reserve(kIterationsPerRun);
    lbfgs(f, &stamps, start.data(), out.data());
    double runSeconds = 0.0;
    long perRun = 0;
    for (size_t k = kFirstTimed; k < stamps.times.size(); ++k, ++perRun)
      runSeconds += stamps.times[k] - stamps.times[k - 1];
    state.SetIterationTime(perRun > 0 ? runSeconds / perRun : 0.0);
    iterSeconds += runSeconds;
    timedIterations += perRun;
    for (long k = 0; k < perRun; ++k, ++passes) passSeconds += VectorPasses(pool);
  }
  if (timedIterations > 0 && passes > 0) {
    state.counters["pass_ms"] = 1e3 * passSeconds / passes;
    state.counters["iter_per_pass"] = (iterSeconds / timedIterations) / (passSeconds / passes);
  }
}

BENCHMARK(BM_LBFGSIteration)
    ->Arg(100000)
    ->Arg(1000000)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

// Counts value-and-gradient evaluations of the wrapped objective.
class Counted : public LxOpt::LxFunc1 {
 public:
  using LxOpt::LxFunc1::operator();
  explicit Counted(LxOpt::LxFunc1& f) : f_(f) {}
  unsigned int NumVar() const override { return f_.NumVar(); }
  double operator()(const double* x) override { return ++evaluations, f_(x); }
  double operator()(const double* x, double* g) override { return ++evaluations, f_(x, g); }
  std::vector<LxOpt::LxFComponent> GetFComponents(const double* x) override {
    return f_.GetFComponents(x);
  }
  long evaluations = 0;

 private:
  LxOpt::LxFunc1& f_;
};

// Lennard-Jones energy sum_{i<j} 4 (r^-12 - r^-6) of an arbitrary number of
// atoms, all pairs.
class LennardJones : public LxOpt::LxFunc1 {
 public:
  using LxOpt::LxFunc1::operator();
  explicit LennardJones(unsigned int atoms) : atoms_(atoms) {}
  unsigned int NumVar() const override { return 3 * atoms_; }
  double operator()(const double* x) override {
    std::vector<double> g(3 * atoms_);
    return (*this)(x, g.data());
  }
  // With s = r^-6: (df/dr) / r = -24 (2 s^2 - s) / r^2 per pair.
  double operator()(const double* x, double* g) override {
    for (unsigned int k = 0; k < 3 * atoms_; ++k) g[k] = 0.0;
    double f = 0.0;
    for (unsigned int i = 0; i < atoms_; ++i) {
      const double* xi = x + 3 * i;
      double gi[3] = {0.0, 0.0, 0.0};
      for (unsigned int j = i + 1; j < atoms_; ++j) {
        const double* xj = x + 3 * j;
        const double d[3] = {xi[0] - xj[0], xi[1] - xj[1], xi[2] - xj[2]};
        const double r2 = d[0] * d[0] + d[1] * d[1] + d[2] * d[2];
        const double s = 1.0 / (r2 * r2 * r2);
        f += 4.0 * (s * s - s);
        const double c = -24.0 * (2.0 * s * s - s) / r2;
        for (int a = 0; a < 3; ++a) {
          gi[a] += c * d[a];
          g[3 * j + a] -= c * d[a];
        }
      }
      for (int a = 0; a < 3; ++a) g[3 * i + a] += gi[a];
    }
    return f;
  }
  std::vector<LxOpt::LxFComponent> GetFComponents(const double* x) override {
    return {{"lj", (*this)(x)}};
  }

 private:
  unsigned int atoms_;
};

// The 1,000 fcc sites nearest the origin (nearest-neighbour distance 2^(1/6),
// the pair minimum), each moved by up to 0.05 in every coordinate.
std::vector<double> PerturbedFcc(unsigned int atoms) {
  const double a = std::sqrt(2.0) * std::pow(2.0, 1.0 / 6.0);  // cube edge
  const double basis[4][3] = {{0, 0, 0}, {0.5, 0.5, 0}, {0.5, 0, 0.5}, {0, 0.5, 0.5}};
  std::vector<std::vector<double>> sites;
  const int cells = 6;
  for (int i = -cells; i <= cells; ++i)
    for (int j = -cells; j <= cells; ++j)
      for (int k = -cells; k <= cells; ++k)
        for (const auto& b : basis)
          sites.push_back({a * (i + b[0]), a * (j + b[1]), a * (k + b[2])});
  auto r2 = [](const std::vector<double>& p) { return p[0] * p[0] + p[1] * p[1] + p[2] * p[2]; };
  std::stable_sort(sites.begin(), sites.end(),
                   [&](const auto& p, const auto& q) { return r2(p) < r2(q); });
  LxOpt::MtRng rng;
  LxOpt::LxUniformDoubleRNG jitter(-0.05, 0.05);
  std::vector<double> x;
  for (unsigned int k = 0; k < atoms; ++k)
    for (double c : sites[k]) x.push_back(c + jitter(rng));
  return x;
}

void Report(benchmark::State& state, const char* name, LxOpt::LxOptimizer1& opt, LxOpt::LxFunc1& f,
            const std::vector<double>& start) {
  Counted counted(f);
  std::vector<double> out(start.size());
  const double energy = opt(counted, start.data(), out.data());
  std::vector<double> g(start.size());
  f(out.data(), g.data());
  double gg = 0.0;
  for (double e : g) gg += e * e;
  state.counters[std::string(name) + "_energy"] = energy;
  state.counters[std::string(name) + "_evals"] = static_cast<double>(counted.evaluations);
  state.counters[std::string(name) + "_gnorm"] = std::sqrt(gg);
}

constexpr double kClusterTolerance = 1e-8;  // on sum g^2
constexpr unsigned int kClusterIterLimit = 20000;

template <class Opt>
Opt ClusterOptimizer() {
  Opt opt;
  opt.SetTolerance(kClusterTolerance);
  opt.SetIterLimit(kClusterIterLimit);
  return opt;
}

void BM_LennardJones13(benchmark::State& state) {
  lxbench::LennardJones13 f;
  for (auto _ : state) {
    LxOpt::LxLBFGSOpt lbfgs = ClusterOptimizer<LxOpt::LxLBFGSOpt>();
    LxOpt::LxBFGSOpt bfgs = ClusterOptimizer<LxOpt::LxBFGSOpt>();
    Report(state, "LBFGS", lbfgs, f, f.Start());
    Report(state, "BFGS", bfgs, f, f.Start());
  }
}

void BM_LennardJones1000(benchmark::State& state) {
  LennardJones f(1000);
  const std::vector<double> start = PerturbedFcc(1000);
  for (auto _ : state) {
    LxOpt::LxLBFGSOpt lbfgs = ClusterOptimizer<LxOpt::LxLBFGSOpt>();
    LxOpt::LxConjGradOpt cg = ClusterOptimizer<LxOpt::LxConjGradOpt>();
    Report(state, "LBFGS", lbfgs, f, start);
    Report(state, "CG", cg, f, start);
  }
}

BENCHMARK(BM_LennardJones13)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LennardJones1000)->Iterations(1)->Unit(benchmark::kSecond);

}  // namespace
