// One Newton iteration next to one Eigen LDLT factorization and solve of the
// same size, measured in the same run.
//
// One iteration = a run with iteration limit 2 minus a run with limit 1, both
// without preconditioning: the second iteration of a run, whose storage the
// first one has already touched, as every later one finds it. "Healthy": a diagonally dominant SPD Hessian, no pivot is
// repaired. "Repaired": n/50 diagonal entries are -2n, so that many pivots
// are negative and the factorization is rebuilt and factorized again. The
// objective is a dense quadratic (value and gradient cost O(n^2)).
// The table printed at the end gives the ratios iteration / factorization.
#include <benchmark/benchmark.h>
#include <lxopt/lxopt.h>

#include <Eigen/Cholesky>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace {

// f = 1/2 x^T Q x - b^T x, Q dense symmetric.
class DenseQuadratic : public LxOpt::LxFunc2 {
 public:
  using LxOpt::LxFunc2::operator();
  DenseQuadratic(const Eigen::MatrixXd& q, const Eigen::VectorXd& b)
      : q_(q), b_(b), packed_(q.rows() * (q.rows() + 1) / 2), work_(q.rows()) {
    for (Eigen::Index i = 0, k = 0; i < q.rows(); ++i)
      for (Eigen::Index j = 0; j <= i; ++j) packed_[k++] = q(i, j);
  }
  unsigned int NumVar() const override { return static_cast<unsigned int>(q_.rows()); }
  double operator()(const double* x) override {
    const Eigen::Map<const Eigen::VectorXd> xv(x, q_.rows());
    work_.noalias() = q_ * xv;
    return 0.5 * xv.dot(work_) - b_.dot(xv);
  }
  double operator()(const double* x, double* g) override {
    const Eigen::Map<const Eigen::VectorXd> xv(x, q_.rows());
    Eigen::Map<Eigen::VectorXd> gv(g, q_.rows());
    gv.noalias() = q_ * xv;
    const double f = 0.5 * xv.dot(gv) - b_.dot(xv);
    gv -= b_;
    return f;
  }
  bool operator()(const double* x, double* h, double* g) override {
    std::copy(packed_.begin(), packed_.end(), h);
    (*this)(x, g);
    return true;
  }
  std::vector<LxOpt::LxFComponent> GetFComponents(const double* x) override {
    return {{"total", (*this)(x)}};
  }

 private:
  Eigen::MatrixXd q_;
  Eigen::VectorXd b_;
  std::vector<double> packed_;
  Eigen::VectorXd work_;
};

// Off-diagonal entries uniform in [-1, 1], diagonal n (so SPD), except that
// every 50th diagonal entry is -2n when `indefinite`.
Eigen::MatrixXd MakeHessian(int n, bool indefinite) {
  LxOpt::MtRng rng;
  LxOpt::LxUniformDoubleRNG uniform(-1.0, 1.0);
  Eigen::MatrixXd q(n, n);
  for (int j = 0; j < n; ++j) {
    for (int i = j + 1; i < n; ++i) q(i, j) = q(j, i) = uniform(rng);
    q(j, j) = indefinite && j % 50 == 0 ? -2.0 * n : n;
  }
  return q;
}

// A Newton run without preconditioning, with a given iteration limit.
class PlainNewton : public LxOpt::LxNewtonOptImpl {
 public:
  explicit PlainNewton(unsigned int limit) {
    precondition_ = 0;
    iterLimit_ = limit;
  }
};

void NewtonRun(benchmark::State& state, bool indefinite) {
  const int n = static_cast<int>(state.range(0));
  DenseQuadratic func(MakeHessian(n, indefinite), Eigen::VectorXd::Ones(n));
  PlainNewton newton(static_cast<unsigned int>(state.range(1)));
  const std::vector<double> start(n, 0.0);
  std::vector<double> out(n);
  for (auto _ : state) benchmark::DoNotOptimize(newton(func, nullptr, start.data(), out.data()));
}

void BM_NewtonHealthy(benchmark::State& state) { NewtonRun(state, false); }
void BM_NewtonRepaired(benchmark::State& state) { NewtonRun(state, true); }

// The baseline: factorize the shifted Hessian with a pre-sized LDLT and solve.
void BM_Ldlt(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  Eigen::MatrixXd a = MakeHessian(n, false);
  a.diagonal().array() += 0.01 * (1.0 + n);
  const Eigen::VectorXd b = Eigen::VectorXd::Ones(n);
  Eigen::VectorXd x(n);
  Eigen::LDLT<Eigen::MatrixXd> ldlt(n);
  for (auto _ : state) {
    ldlt.compute(a);
    x = ldlt.solve(b);
    benchmark::DoNotOptimize(x.data());
  }
}

const std::vector<int> kSizes = {250, 500, 1000, 2000};

void SizesAndLimits(benchmark::internal::Benchmark* b) {
  for (int n : kSizes) b->Args({n, 1})->Args({n, 2});
}
void Sizes(benchmark::internal::Benchmark* b) {
  for (int n : kSizes) b->Args({n});
}

BENCHMARK(BM_Ldlt)->Apply(Sizes)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(1.0);
BENCHMARK(BM_NewtonHealthy)
    ->Apply(SizesAndLimits)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MinTime(1.0);
BENCHMARK(BM_NewtonRepaired)
    ->Apply(SizesAndLimits)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MinTime(1.0);

// Keeps every run's real time per iteration so that ratios can be printed.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs)
      if (run.run_type == Run::RT_Iteration && !run.error_occurred)
        times[run.run_name.function_name + "/" + run.run_name.args] = {run.GetAdjustedRealTime(),
                                                                      run.GetAdjustedCPUTime()};
    ConsoleReporter::ReportRuns(runs);
  }
  std::map<std::string, std::pair<double, double>> times;  // real, CPU
};

using Times = std::map<std::string, std::pair<double, double>>;

// Real and CPU time of one iteration: limit 2 minus limit 1.
std::pair<double, double> Iteration(const Times& t, const std::string& name, const std::string& n) {
  const auto& two = t.at(name + n + "/2");
  const auto& one = t.at(name + n + "/1");
  return {two.first - one.first, two.second - one.second};
}

void PrintRatios(const Times& t) {
  std::printf("\nOne Newton iteration / one LDLT factorization and solve"
              " (goal: healthy <= 1.2, repaired <= 2.3)\n");
  std::printf("%6s %12s %12s %12s %14s %14s\n", "n", "LDLT ms", "healthy ms", "repaired ms",
              "healthy ratio", "repaired ratio");
  for (int n : kSizes) {
    const std::string size = std::to_string(n);
    const std::string ldlt = "BM_Ldlt/" + size;
    bool complete = t.count(ldlt) > 0;
    for (const char* name : {"BM_NewtonHealthy/", "BM_NewtonRepaired/"})
      for (const char* limit : {"/1", "/2"}) complete = complete && t.count(name + size + limit) > 0;
    if (!complete) continue;
    const auto base = t.at(ldlt);
    const auto healthy = Iteration(t, "BM_NewtonHealthy/", size);
    const auto repaired = Iteration(t, "BM_NewtonRepaired/", size);
    std::printf("%6d %12.3f %12.3f %12.3f %8.2f (cpu) %8.2f (cpu)\n", n, base.second,
                healthy.second, repaired.second, healthy.second / base.second,
                repaired.second / base.second);
    std::printf("%6s %12.3f %12.3f %12.3f %8.2f (real)%8.2f (real)\n", "", base.first,
                healthy.first, repaired.first, healthy.first / base.first,
                repaired.first / base.first);
  }
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  PrintRatios(reporter.times);
  benchmark::Shutdown();
  return 0;
}
