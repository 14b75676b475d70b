// Per-iteration cost against bare memory passes, all measured in one run:
//   bfgs:   LxOpt BFGS and DFP and dlib's BFGS on a cheap quadratic at
//           n = 250 ... 4000, next to one read-and-write pass over an n x n
//           matrix of doubles;
//   cg:     LxOpt's conjugate gradients at n = 1e4 ... 1e6, next to one
//           read-and-write pass over a vector of n doubles and one in-order
//           dot product of two such vectors;
//   newton: an LxOpt Newton iteration on a dense quadratic at n = 250 ... 2000,
//           next to Eigen's LDLT and LLT of the same matrix.
// The baselines are timed inside the optimizer runs, at the per-iteration
// reports (and left out of the iteration's own interval), so that both sides
// of every ratio see the same state of a machine that may be busy with other
// work. "seconds" is the median interval between consecutive reports for an
// optimizer and the median time of one pass or factorization for a baseline.
// At the small sizes the interleaved pass also pushes the optimizer's matrix
// out of the faster caches, which makes those ratios pessimistic.
// Writes CSV rows: section,n,subject,seconds,iterations,values_per_iter,
// gradients_per_iter.
//
// Usage: peer_scaling OUT.csv [sections], sections a comma-separated subset of
// bfgs,cg,newton (default all).
#include <dlib/optimization.h>

#include <Eigen/Dense>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <functional>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "../bench_support.h"
#include "lxopt/lxopt.h"

namespace {

using Clock = std::chrono::steady_clock;

double Since(Clock::time_point t0) {
  return std::chrono::duration<double>(Clock::now() - t0).count();
}

double Median(std::vector<double> v) {
  if (v.empty()) return std::numeric_limits<double>::quiet_NaN();
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

// The benchmarks' cheap quadratic, counting its calls (a value-and-gradient
// call counts as both).
class CheapQuadratic : public lxbench::CheapQuadratic {
 public:
  using lxbench::CheapQuadratic::CheapQuadratic;
  using lxbench::CheapQuadratic::operator();
  double operator()(const double* x) override {
    ++values;
    return lxbench::CheapQuadratic::operator()(x);
  }
  double operator()(const double* x, double* g) override {
    ++values;
    ++gradients;
    return lxbench::CheapQuadratic::operator()(x, g);
  }
  long values = 0, gradients = 0;
};

// 0.5 x'Ax - b'x with a dense symmetric positive definite A (fixed seed).
class DenseQuadratic : public LxOpt::LxFunc2 {
 public:
  using LxOpt::LxFunc2::operator();
  explicit DenseQuadratic(int n) : a_(n, n), b_(n) {
    std::mt19937 rng(5489);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    for (int j = 0; j < n; ++j)
      for (int i = j; i < n; ++i) a_(i, j) = a_(j, i) = u(rng);
    a_.diagonal().array() += n;  // diagonally dominant, so positive definite
    for (int i = 0; i < n; ++i) b_(i) = u(rng);
  }
  unsigned int NumVar() const override { return static_cast<unsigned int>(b_.size()); }
  double operator()(const double* x) override {
    Eigen::Map<const Eigen::VectorXd> v(x, b_.size());
    return 0.5 * v.dot(a_ * v) - b_.dot(v);
  }
  double operator()(const double* x, double* g) override {
    Eigen::Map<const Eigen::VectorXd> v(x, b_.size());
    Eigen::Map<Eigen::VectorXd> gv(g, b_.size());
    gv.noalias() = a_ * v - b_;
    return 0.5 * v.dot(gv - b_);
  }
  bool operator()(const double* x, double* hessian, double* g) override {
    (*this)(x, g);
    const Eigen::Index n = b_.size();
    for (Eigen::Index i = 0, k = 0; i < n; ++i)
      for (Eigen::Index j = 0; j <= i; ++j, ++k) hessian[k] = a_(i, j);
    return true;
  }
  std::vector<LxOpt::LxFComponent> GetFComponents(const double* x) override {
    return {{"quadratic", (*this)(x)}};
  }
  const Eigen::MatrixXd& matrix() const { return a_; }

 private:
  Eigen::MatrixXd a_;
  Eigen::VectorXd b_;
};

// A named operation timed at the per-iteration reports.
struct Baseline {
  const char* subject;
  std::function<void()> run;
  size_t limit;  // at most this many samples
  std::vector<double> samples;
};

// Closes one iteration interval per report (leaving out the baselines run at
// the previous report), then times each baseline once while it wants samples.
class IterationClock {
 public:
  explicit IterationClock(std::vector<Baseline> baselines = {})
      : baselines_(std::move(baselines)) {}

  void Tick() {
    Clock::time_point now = Clock::now();
    if (started_) intervals_.push_back(std::chrono::duration<double>(now - last_).count());
    started_ = true;
    for (Baseline& b : baselines_) {
      if (b.samples.size() >= b.limit) continue;
      const Clock::time_point t0 = Clock::now();
      b.run();
      b.samples.push_back(Since(t0));
    }
    last_ = Clock::now();
  }
  double PerIteration() const {
    return intervals_.empty() ? std::numeric_limits<double>::quiet_NaN() : Median(intervals_);
  }
  size_t Iterations() const { return intervals_.size(); }
  const std::vector<Baseline>& Baselines() const { return baselines_; }

 private:
  std::vector<Baseline> baselines_;
  std::vector<double> intervals_;
  Clock::time_point last_;
  bool started_ = false;
};

// Ticks the clock at every per-iteration report (state 0).
class ClockCheckpoint : public LxOpt::LxCheckpoint1 {
 public:
  explicit ClockCheckpoint(IterationClock& clock) : clock_(clock) {}
  using LxOpt::LxCheckpoint1::operator();
  bool operator()(unsigned int, unsigned int, double, double, const double*, const double*,
                  unsigned int state) override {
    if (state == 0) clock_.Tick();
    return true;
  }

 private:
  IterationClock& clock_;
};

// A buffer for the bare passes, touched once so page faults stay out of them.
class PassBuffer {
 public:
  explicit PassBuffer(size_t count) : a_(count, 1.0), b_(count, 0.5) {}
  // Reads and writes every element once.
  void ReadWrite() {
    const double s = scale_, h = shift_;
    for (size_t i = 0; i < a_.size(); ++i) a_[i] = a_[i] * s + h;
  }
  // Sums a[i] b[i] in order (no reassociation), as the optimizers' own
  // reductions do, so it is bound by the latency of the additions.
  void Dot() {
    double s = 0.0;
    for (size_t i = 0; i < a_.size(); ++i) s += a_[i] * b_[i];
    sink_ = sink_ + s;
  }

 private:
  std::vector<double> a_, b_;
  volatile double scale_ = 0.999, shift_ = 1e-9, sink_ = 0.0;
};

void Row(FILE* out, const char* section, size_t n, const char* subject, double seconds,
         long iterations, double valuesPerIter, double gradientsPerIter) {
  std::fprintf(out, "%s,%zu,%s,%.6g,%ld,%.3g,%.3g\n", section, n, subject, seconds, iterations,
               valuesPerIter, gradientsPerIter);
  std::fflush(out);
  std::fprintf(stderr, "%-7s n=%-8zu %-20s %.4g s\n", section, n, subject, seconds);
}

void BaselineRows(FILE* out, const char* section, size_t n, const IterationClock& clock) {
  for (const Baseline& b : clock.Baselines())
    Row(out, section, n, b.subject, Median(b.samples), long(b.samples.size()), 0, 0);
}

// One gradient-optimizer run of `iterations` iterations from the origin.
template <class Optimizer>
void TimedLxOpt(FILE* out, const char* section, const char* subject, size_t n,
                unsigned int iterations, IterationClock& clock) {
  CheapQuadratic f(n);
  Optimizer opt;
  opt.SetIterLimit(iterations);
  opt.SetTolerance(0.0);
  ClockCheckpoint checkpoint(clock);
  std::vector<double> x0(n, 0.0), x(n);
  opt(f, &checkpoint, x0.data(), x.data());
  const double steps = double(std::max<size_t>(clock.Iterations() + 1, 1));
  Row(out, section, n, subject, clock.PerIteration(), long(clock.Iterations()), f.values / steps,
      f.gradients / steps);
}

// dlib's stop strategy slot, used to tick the clock and end after `limit`.
class ClockStop {
 public:
  ClockStop(IterationClock* clock, size_t limit) : clock_(clock), limit_(limit) {}
  template <class T>
  bool should_continue_search(const T&, double, const T&) {
    clock_->Tick();
    return clock_->Iterations() < limit_;
  }

 private:
  IterationClock* clock_;
  size_t limit_;
};

void TimedDlibBfgs(FILE* out, size_t n, unsigned int iterations) {
  using Column = dlib::matrix<double, 0, 1>;
  CheapQuadratic f(n);
  Column x(static_cast<long>(n));
  x = 0.0;
  auto value = [&f](const Column& v) { return f(&v(0)); };
  auto gradient = [&f](const Column& v) {
    Column g(v.size());
    f(&v(0), &g(0));
    return g;
  };
  IterationClock clock;
  dlib::find_min(dlib::bfgs_search_strategy(), ClockStop(&clock, iterations), value, gradient, x,
                 -std::numeric_limits<double>::infinity());
  const double steps = double(clock.Iterations() + 1);
  Row(out, "bfgs", n, "dlib_bfgs", clock.PerIteration(), long(clock.Iterations()), f.values / steps,
      f.gradients / steps);
}

void BfgsSection(FILE* out) {
  for (size_t n : {250, 500, 1000, 2000, 4000}) {
    const unsigned int iterations = n >= 2000 ? 12 : 30;
    PassBuffer matrix(n * n);
    matrix.ReadWrite();
    IterationClock bfgs({{"bare_matrix_pass", [&matrix] { matrix.ReadWrite(); }, 1000, {}}});
    TimedLxOpt<LxOpt::LxBFGSOpt>(out, "bfgs", "lxopt_bfgs", n, iterations, bfgs);
    BaselineRows(out, "bfgs", n, bfgs);
    IterationClock dfp;
    TimedLxOpt<LxOpt::LxDFPOpt>(out, "bfgs", "lxopt_dfp", n, iterations, dfp);
    TimedDlibBfgs(out, n, iterations);
  }
}

void CgSection(FILE* out) {
  for (size_t n : {10000, 100000, 1000000}) {
    PassBuffer vector(n);
    vector.ReadWrite();
    IterationClock conjgrad({{"bare_vector_pass", [&vector] { vector.ReadWrite(); }, 1000, {}},
                             {"bare_dot_pass", [&vector] { vector.Dot(); }, 1000, {}}});
    TimedLxOpt<LxOpt::LxConjGradOpt>(out, "cg", "lxopt_conjgrad", n, 50, conjgrad);
    BaselineRows(out, "cg", n, conjgrad);
    IterationClock polak;
    TimedLxOpt<LxOpt::LxRibierePolakOpt>(out, "cg", "lxopt_ribiere_polak", n, 50, polak);
  }
}

// Newton runs 4 iterations, extended by 30 once the gradient is small (the
// optimizer's own rule); the factorizations are timed at every report.
void NewtonSection(FILE* out) {
  for (int n : {250, 500, 1000, 2000}) {
    DenseQuadratic f(n);
    Eigen::LDLT<Eigen::MatrixXd> ldlt(n);
    Eigen::LLT<Eigen::MatrixXd> llt(n);
    IterationClock clock({{"eigen_ldlt", [&] { ldlt.compute(f.matrix()); }, 1000, {}},
                          {"eigen_llt", [&] { llt.compute(f.matrix()); }, 1000, {}}});
    LxOpt::LxNewtonOpt opt;
    opt.SetIterLimit(4);
    opt.SetTolerance(0.0);
    ClockCheckpoint checkpoint(clock);
    std::vector<double> x0(n, 0.0), x(n);
    opt(f, &checkpoint, x0.data(), x.data());
    BaselineRows(out, "newton", size_t(n), clock);
    Row(out, "newton", size_t(n), "lxopt_newton", clock.PerIteration(), long(clock.Iterations()), 0,
        0);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s OUT.csv [bfgs,cg,newton]\n", argv[0]);
    return 2;
  }
  FILE* out = std::fopen(argv[1], "w");
  if (!out) {
    std::perror(argv[1]);
    return 1;
  }
  const std::string sections = argc > 2 ? argv[2] : "bfgs,cg,newton";
  const auto wanted = [&sections](const char* s) { return sections.find(s) != std::string::npos; };
  std::fprintf(out, "section,n,subject,seconds,iterations,values_per_iter,gradients_per_iter\n");
  if (wanted("bfgs")) BfgsSection(out);
  if (wanted("cg")) CgSection(out);
  if (wanted("newton")) NewtonSection(out);
  std::fclose(out);
  return 0;
}
