// One BFGS iteration (line search, rank-two update of the n x n inverse
// Hessian, products with it) against one bare read-and-write pass over an
// n x n matrix of doubles, both measured in the same run.
//
// BM_BFGSIteration reports as its time the time between consecutive
// per-iteration checkpoint reports (so the run's setup and first touch of the
// matrix are excluded), and the counter iter_per_pass: that time divided by
// the time of a bare pass measured alongside it in the same loop. Both are
// the thread's CPU time, so that time given to other processes on a busy
// machine counts for neither.
#include <benchmark/benchmark.h>
#include <time.h>

#include <cmath>
#include <memory>
#include <vector>

#include "bench_support.h"
#include "lxopt/lxopt.h"

namespace {

using lxbench::CheapQuadratic;
using lxbench::Stamps;
using lxbench::ThreadSeconds;

// The baseline: every element read and written once.
double MatrixPass(std::vector<double>& m) {
  const double t0 = ThreadSeconds();
  double* p = m.data();
  const size_t count = m.size();
  for (size_t k = 0; k < count; ++k) p[k] = p[k] * 0.5 + 1.0;
  benchmark::ClobberMemory();
  return ThreadSeconds() - t0;
}

// Iterations 1 and 2 of each run are timed; iteration 0 also touches the
// freshly allocated matrix for the first time.
constexpr unsigned int kIterationsPerRun = 3;

void BM_BFGSIteration(benchmark::State& state) {
  const unsigned int n = static_cast<unsigned int>(state.range(0));
  CheapQuadratic f(n);
  LxOpt::LxBFGSOpt bfgs;
  bfgs.SetIterLimit(kIterationsPerRun);
  bfgs.SetTolerance(-1.0);
  std::vector<double> start(n, 0.0), out(n);
  std::vector<double> matrix(static_cast<size_t>(n) * n, 1.0);
  double iterSeconds = 0.0, passSeconds = 0.0;
  long timedIterations = 0, passes = 0;
  for (auto _ : state) {
    Stamps stamps;
    stamps.times.reserve(kIterationsPerRun);
    bfgs(f, &stamps, start.data(), out.data());
    double runSeconds = 0.0;
    for (size_t k = 1; k < stamps.times.size(); ++k) {
      runSeconds += stamps.times[k] - stamps.times[k - 1];
      ++timedIterations;
    }
    const long perRun = static_cast<long>(stamps.times.size()) - 1;
    state.SetIterationTime(perRun > 0 ? runSeconds / perRun : 0.0);
    iterSeconds += runSeconds;
    for (long k = 0; k < perRun; ++k) {
      passSeconds += MatrixPass(matrix);
      ++passes;
    }
  }
  benchmark::DoNotOptimize(matrix.data());
  if (timedIterations > 0 && passes > 0) {
    state.counters["pass_ms"] = 1e3 * passSeconds / passes;
    state.counters["iter_per_pass"] = (iterSeconds / timedIterations) / (passSeconds / passes);
  }
}

void BM_MatrixPass(benchmark::State& state) {
  const size_t n = static_cast<size_t>(state.range(0));
  std::vector<double> matrix(n * n, 1.0);
  for (auto _ : state) state.SetIterationTime(MatrixPass(matrix));
  benchmark::DoNotOptimize(matrix.data());
}

// The sizes both measurements run at, timed by the benchmarks themselves.
void Sizes(benchmark::internal::Benchmark* b) {
  for (const int n : {500, 1000, 2000, 4000}) b->Arg(n);
  b->UseManualTime()->Unit(benchmark::kMillisecond);
}

BENCHMARK(BM_BFGSIteration)->Apply(Sizes);
BENCHMARK(BM_MatrixPass)->Apply(Sizes);

}  // namespace
