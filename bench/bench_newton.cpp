// One Newton iteration next to one Eigen LDLT factorization and solve of the
// same size, measured in the same run.
//
// One iteration = a run with iteration limit 2 minus a run with limit 1, both
// without preconditioning: the second iteration of a run, whose storage the
// first one has already touched, as every later one finds it. "Healthy": a
// diagonally dominant SPD Hessian, no pivot is repaired. "Repaired": n/50 diagonal entries are -2n,
// so that many pivots are negative and the factorization is rebuilt and factorized again. The
// objective is a dense quadratic (value and gradient cost O(n^2)).
// Each benchmark reports the fastest baseline (ldlt_ms), one iteration
// (iteration_ms) and their ratio, all in thread CPU time.
#include <benchmark/benchmark.h>
#include <lxopt/lxopt.h>

#include <Eigen/Cholesky>
#include <algorithm>
#include <cmath>
#include <ctime>
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

// Thread CPU time in milliseconds: time spent while other work on the
// machine holds the core is not counted.
double CpuMilliseconds() {
  timespec t;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return 1e3 * static_cast<double>(t.tv_sec) + 1e-6 * static_cast<double>(t.tv_nsec);
}

template <class Work>
double Timed(Work&& work) {
  const double t0 = CpuMilliseconds();
  work();
  return CpuMilliseconds() - t0;
}

// Each round times, interleaved so that they share the machine's state: the
// baseline (pre-sized LDLT of the shifted Hessian, then a solve), a Newton run
// with limit 1 and one with limit 2. The fastest of each over the rounds
// gives one iteration = limit 2 - limit 1, and its ratio to the baseline.
void Compare(benchmark::State& state, bool indefinite) {
  const int n = static_cast<int>(state.range(0));
  const Eigen::MatrixXd q = MakeHessian(n, indefinite);
  DenseQuadratic func(q, Eigen::VectorXd::Ones(n));
  PlainNewton one(1), two(2);
  const std::vector<double> start(n, 0.0);
  std::vector<double> out(n);

  Eigen::MatrixXd shifted = q;
  shifted.diagonal().array() += 0.01 * (1.0 + std::fabs(q.trace() / n));
  const Eigen::VectorXd b = Eigen::VectorXd::Ones(n);
  Eigen::VectorXd x(n);
  Eigen::LDLT<Eigen::MatrixXd> ldlt(n);

  double best[3] = {1e300, 1e300, 1e300};
  for (auto _ : state) {
    const double t[3] = {
        Timed([&] {
          ldlt.compute(shifted);
          x = ldlt.solve(b);
          benchmark::DoNotOptimize(x.data());
        }),
        Timed([&] { benchmark::DoNotOptimize(one(func, nullptr, start.data(), out.data())); }),
        Timed([&] { benchmark::DoNotOptimize(two(func, nullptr, start.data(), out.data())); })};
    for (int i = 0; i < 3; ++i) best[i] = std::min(best[i], t[i]);
    state.SetIterationTime(1e-3 * (t[0] + t[1] + t[2]));
  }
  const double iteration = best[2] - best[1];
  state.counters["ldlt_ms"] = best[0];
  state.counters["iteration_ms"] = iteration;
  state.counters["ratio"] = iteration / best[0];
}

void BM_HealthyIterationVsLdlt(benchmark::State& state) {
  Compare(state, false);
}
void BM_RepairedIterationVsLdlt(benchmark::State& state) {
  Compare(state, true);
}

// Goal: ratio <= 1.2 for a healthy iteration, <= 2.3 for a repaired one.
#define LXOPT_BENCH_SIZES(bm)                                                              \
  BENCHMARK(bm)->Unit(benchmark::kMillisecond)->UseManualTime()->Arg(250)->Iterations(60); \
  BENCHMARK(bm)->Unit(benchmark::kMillisecond)->UseManualTime()->Arg(500)->Iterations(20); \
  BENCHMARK(bm)->Unit(benchmark::kMillisecond)->UseManualTime()->Arg(1000)->Iterations(8); \
  BENCHMARK(bm)->Unit(benchmark::kMillisecond)->UseManualTime()->Arg(2000)->Iterations(3)

LXOPT_BENCH_SIZES(BM_HealthyIterationVsLdlt);
LXOPT_BENCH_SIZES(BM_RepairedIterationVsLdlt);

}  // namespace
