// Cost of the conjugate-gradient optimizers and line minimizers against the
// bare passes over n doubles they must make, both measured in the same run.
//
// Objective: f = sum_i c_i (x_i - 1)^2 with c_i = 1 + (i mod 8), one pass that
// reads x and writes g. A line search with E evaluations must make, per
// evaluation, one axpy (the trial point), the objective's pass and one dot
// product (the slope), plus one dot product for the slope at the start. An
// iteration of a conjugate-gradient optimizer adds four passes (moving x with
// the gradient dot products, and the direction update). The *_Baseline
// benchmarks run exactly those passes with the evaluation counts the library
// used (counted before timing); the ratio library / baseline is the
// overhead (goal: at most 1.5).
#include <benchmark/benchmark.h>
#include <lxopt/lxopt.h>

#include <cstddef>
#include <vector>

namespace {

class CheapQuadratic : public LxOpt::LxFunc1 {
 public:
  using LxOpt::LxFunc1::operator();
  explicit CheapQuadratic(unsigned int n) : n_(n) {}
  unsigned int NumVar() const override { return n_; }
  double operator()(const double* x) override {
    ++evaluations;
    double f = 0.0;
    for (unsigned int i = 0; i < n_; ++i) {
      const double r = x[i] - 1.0;
      f += (1.0 + (i & 7u)) * r * r;
    }
    return f;
  }
  double operator()(const double* x, double* g) override {
    ++evaluations;
    double f = 0.0;
    for (unsigned int i = 0; i < n_; ++i) {
      const double c = 1.0 + (i & 7u), r = x[i] - 1.0;
      g[i] = 2.0 * c * r;
      f += c * r * r;
    }
    return f;
  }
  std::vector<LxOpt::LxFComponent> GetFComponents(const double*) override { return {}; }
  long evaluations = 0;

 private:
  unsigned int n_;
};

double Dot(const std::vector<double>& a, const std::vector<double>& b) {
  double s = 0.0;
  for (std::size_t i = 0; i < a.size(); ++i) s += a[i] * b[i];
  return s;
}

void Axpy(double alpha, const std::vector<double>& x, std::vector<double>& y) {
  for (std::size_t i = 0; i < x.size(); ++i) y[i] += alpha * x[i];
}

// The bare passes: `evaluations` x (axpy + objective + dot) + `dots` dot
// products + `axpys` axpys.
struct Passes {
  explicit Passes(unsigned int n) : f(n), x(n, 0.0), d(n, -1.0), g(n, 0.0) {}
  double Run(long evaluations, int dots, int axpys) {
    double sink = 0.0;
    for (long e = 0; e < evaluations; ++e) {
      Axpy(1e-3, d, x);
      sink += f(x.data(), g.data());
      sink += Dot(d, g);
    }
    for (int k = 0; k < dots; ++k) sink += Dot(d, g);
    for (int k = 0; k < axpys; ++k) Axpy(1e-3, g, x);
    return sink;
  }
  CheapQuadratic f;
  std::vector<double> x, d, g;
};

// One line-minimizer call from x0 = 0 along -g (two evaluations for the
// searches here: the cubic is exact on the quadratic's line).
template <class LineMin>
struct LineCall {
  explicit LineCall(unsigned int n) : f(n), x0(n, 0.0), dir(n), g0(n), gOut(n) {
    f0 = f(x0.data(), g0.data());
    for (unsigned int i = 0; i < n; ++i) dir[i] = -g0[i];
    f.evaluations = 0;
  }
  bool Run() {
    double fval = f0, step = 0.05;
    return lm(static_cast<unsigned int>(x0.size()), x0.data(), dir.data(), g0.data(), gOut.data(),
              &fval, &step, f);
  }
  CheapQuadratic f;
  LineMin lm;
  std::vector<double> x0, dir, g0, gOut;
  double f0;
};

template <class LineMin>
void BM_LineSearch(benchmark::State& state) {
  LineCall<LineMin> call(static_cast<unsigned int>(state.range(0)));
  for (auto _ : state) benchmark::DoNotOptimize(call.Run());
  state.counters["evals"] = double(call.f.evaluations) / double(state.iterations());
}

template <class LineMin>
void BM_LineSearch_Baseline(benchmark::State& state) {
  const unsigned int n = static_cast<unsigned int>(state.range(0));
  LineCall<LineMin> probe(n);
  probe.Run();
  const long evaluations = probe.f.evaluations;
  Passes passes(n);
  for (auto _ : state) benchmark::DoNotOptimize(passes.Run(evaluations, 1, 0));
}

// A run of 1 + kIterations iterations from x = 0 (the start evaluation, then
// kIterations line searches and direction updates; the tolerance 0 never
// stops it); the baseline makes the start evaluation and per iteration the
// line search's passes plus four.
constexpr unsigned int kIterations = 10;

template <class Opt>
long RunOptimizer(Opt& opt, CheapQuadratic& f, const std::vector<double>& start,
                  std::vector<double>& out) {
  opt(f, start.data(), out.data());
  return f.evaluations;
}

template <class Opt>
void BM_Optimizer(benchmark::State& state) {
  const unsigned int n = static_cast<unsigned int>(state.range(0));
  CheapQuadratic f(n);
  Opt opt;
  opt.SetTolerance(0.0);
  opt.SetIterLimit(kIterations + 1);
  std::vector<double> start(n, 0.0), out(n);
  for (auto _ : state) {
    opt(f, start.data(), out.data());
    benchmark::ClobberMemory();
  }
  state.counters["evals/iter"] = double(f.evaluations) / double(state.iterations()) / kIterations;
}

template <class Opt>
void BM_Optimizer_Baseline(benchmark::State& state) {
  const unsigned int n = static_cast<unsigned int>(state.range(0));
  CheapQuadratic f(n);
  Opt opt;
  opt.SetTolerance(0.0);
  opt.SetIterLimit(kIterations + 1);
  std::vector<double> start(n, 0.0), out(n);
  const long evaluations = RunOptimizer(opt, f, start, out);
  Passes passes(n);
  for (auto _ : state)
    benchmark::DoNotOptimize(passes.Run(evaluations, 3 * kIterations, 2 * kIterations));
}

void Sizes(benchmark::internal::Benchmark* b) {
  b->Arg(1000)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMicrosecond);
}

}  // namespace

BENCHMARK_TEMPLATE(BM_LineSearch, LxOpt::LxCGLineMinimize)->Apply(Sizes);
BENCHMARK_TEMPLATE(BM_LineSearch_Baseline, LxOpt::LxCGLineMinimize)->Apply(Sizes);
BENCHMARK_TEMPLATE(BM_LineSearch, LxOpt::LxQNLineMinimize)->Apply(Sizes);
BENCHMARK_TEMPLATE(BM_LineSearch_Baseline, LxOpt::LxQNLineMinimize)->Apply(Sizes);
BENCHMARK_TEMPLATE(BM_Optimizer, LxOpt::LxConjGradOpt)->Apply(Sizes);
BENCHMARK_TEMPLATE(BM_Optimizer_Baseline, LxOpt::LxConjGradOpt)->Apply(Sizes);
BENCHMARK_TEMPLATE(BM_Optimizer, LxOpt::LxFletcherReevesOpt)->Apply(Sizes);
BENCHMARK_TEMPLATE(BM_Optimizer_Baseline, LxOpt::LxFletcherReevesOpt)->Apply(Sizes);
