// The minimum finder's own cost next to the objective's, measured in the same
// run.
//
// The objective has 6 variables and 3^6 = 729 minima:
//   f(x) = sum_i x_i^2 (x_i^2 - 4)^2 + t_i x_i,  x in [-3, 3]^6.
// A search stops after M minima (M = 100, 200, 400). Before the timed search
// the cost of one evaluation is measured on its own (a batch of evaluations at
// random points); the search counts its evaluations, so
//   objective share = evaluations x cost per evaluation / search time
// (times are CPU times of the thread)
//   own us/opt      = (search time - objective time) / local optimizations,
// the finder's own work per local optimization: sampling, the criteria, the
// stores, and the steepest-descent and BFGS steps themselves. "burn" makes
// each evaluation also spend 200 dependent multiply-adds, an objective of
// realistic cost: the own cost per optimization must stay the same, and stay
// flat as M grows (no work quadratic in the number of stored points).
#include <benchmark/benchmark.h>
#include <lxopt/lxopt.h>

#include <time.h>

#include <cstdio>
#include <map>
#include <vector>

namespace {

// CPU time of this thread: the machine may be shared, wall time is not
// meaningful there.
double CpuSeconds() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

class SixWells : public LxOpt::LxFunc1 {
 public:
  using LxOpt::LxFunc1::operator();
  explicit SixWells(int burn) : burn_(burn) {}
  unsigned int NumVar() const override { return 6; }
  double operator()(const double* x) override {
    ++evaluations;
    return Burn() + Value(x, nullptr);
  }
  double operator()(const double* x, double* g) override {
    ++evaluations;
    return Burn() + Value(x, g);
  }
  std::vector<LxOpt::LxFComponent> GetFComponents(const double* x) override {
    return {{"total", Value(x, nullptr)}};
  }
  bool CheckVariablesValidity(const double*) override {
    ++optimizations;  // asked once per local optimization
    return true;
  }
  long evaluations = 0;
  long optimizations = 0;

 private:
  static double Value(const double* x, double* g) {
    double f = 0.0;
    for (int i = 0; i < 6; ++i) {
      const double t = 0.01 * (i + 1), p = x[i] * x[i] - 4.0;
      f += x[i] * x[i] * p * p + t * x[i];
      if (g) g[i] = 2.0 * x[i] * p * p + 4.0 * x[i] * x[i] * x[i] * p + t;
    }
    return f;
  }
  // burn_ dependent multiply-adds whose result is 0.0 but not known to the
  // compiler.
  double Burn() const {
    double a = 0.0;
    for (int k = 0; k < burn_; ++k) {
      a = a * 0.999 + 1.0;
      benchmark::DoNotOptimize(a);
    }
    return a * 0.0;
  }
  int burn_;
};

// Seconds per evaluation (value and gradient) of the objective alone.
double SecondsPerEvaluation(int burn) {
  SixWells f(burn);
  LxOpt::MtRng engine;
  LxOpt::LxUniformDoubleRNG uniform(-3.0, 3.0);
  constexpr int kPoints = 256;
  std::vector<double> points(6 * kPoints);
  for (double& v : points) v = uniform(engine);
  double g[6];
  const int rounds = burn > 0 ? 400 : 4000;
  const double start = CpuSeconds();
  for (int r = 0; r < rounds; ++r) {
    for (int k = 0; k < kPoints; ++k) {
      benchmark::DoNotOptimize(f(points.data() + 6 * k, g));
      benchmark::ClobberMemory();
    }
  }
  const double seconds = CpuSeconds() - start;
  return seconds / (static_cast<double>(rounds) * kPoints);
}

struct Row {
  double usPerOpt, ownUsPerOpt, objectiveShare, evalsPerOpt, minima;
};
std::map<std::pair<long, long>, Row>& Rows() {
  static std::map<std::pair<long, long>, Row> rows;
  return rows;
}

void BM_Search(benchmark::State& state) {
  const long maxMinima = state.range(0);
  const int burn = static_cast<int>(state.range(1));
  const double perEvaluation = SecondsPerEvaluation(burn);
  double seconds = 0.0;
  long evaluations = 0, optimizations = 0, minima = 0;
  for (auto _ : state) {
    SixWells f(burn);
    LxOpt::LxMinfinder::GetRandomVariablesGeneral generator;
    LxOpt::LxMinfinder::LxMinfinder finder;
    finder.SetKeepDegenerateStates(true);
    finder.SetMaxNumOptPoints(static_cast<unsigned long>(maxMinima));
    finder.Setup(f, &generator, std::vector<double>(6, -3.0), std::vector<double>(6, 3.0));
    const double start = CpuSeconds();
    finder.Optimize();
    seconds += CpuSeconds() - start;
    evaluations += f.evaluations;
    optimizations += f.optimizations;
    minima += static_cast<long>(finder.GetImpl()->GetMinima().getNumPoints());
  }
  const double runs = static_cast<double>(state.iterations());
  const double objectiveSeconds = evaluations * perEvaluation;
  Row row;
  row.usPerOpt = 1e6 * seconds / optimizations;
  row.ownUsPerOpt = 1e6 * (seconds - objectiveSeconds) / optimizations;
  row.objectiveShare = objectiveSeconds / seconds;
  row.evalsPerOpt = static_cast<double>(evaluations) / optimizations;
  row.minima = minima / runs;
  Rows()[{maxMinima, burn}] = row;
  state.counters["minima"] = row.minima;
  state.counters["local_opts"] = optimizations / runs;
  state.counters["us_per_opt"] = row.usPerOpt;
  state.counters["own_us_per_opt"] = row.ownUsPerOpt;
  state.counters["objective_share"] = row.objectiveShare;
  state.counters["evals_per_opt"] = row.evalsPerOpt;
}
BENCHMARK(BM_Search)
    ->ArgNames({"minima", "burn"})
    ->ArgsProduct({{100, 200, 400}, {0, 200}})
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime()
    ->Iterations(3);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  std::printf("\n%8s %6s %10s %14s %16s %15s\n", "minima", "burn", "us/opt", "own us/opt",
              "objective share", "evals per opt");
  for (const auto& entry : Rows()) {
    const Row& r = entry.second;
    std::printf("%8.0f %6ld %10.2f %14.2f %15.1f%% %15.1f\n", r.minima, entry.first.second,
                r.usPerOpt, r.ownUsPerOpt, 100.0 * r.objectiveShare, r.evalsPerOpt);
  }
  return 0;
}
