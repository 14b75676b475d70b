// Per-iteration cost against bare memory passes, all measured in one run:
//   bfgs:   LxOpt BFGS and DFP and dlib's BFGS on a cheap quadratic at
//           n = 250 ... 4000, next to one read-and-write pass over an n x n
//           matrix of doubles;
//   cg:     LxOpt's conjugate gradients at n = 1e4 ... 1e6, next to one
//           read-and-write pass over a vector of n doubles and one in-order
//           dot product of two such vectors;
//   newton: an LxOpt Newton iteration on a dense quadratic at n = 250 ... 2000,
//           next to Eigen's LDLT and LLT of the same matrix.
// Writes CSV rows: section,n,subject,seconds,iterations,values_per_iter,
// gradients_per_iter. "seconds" is per iteration for optimizers (the median
// interval between consecutive per-iteration reports, so setup is excluded) and per pass or factorization (median)
// for the baselines (around the optimizer runs, see each section).
//
// Usage: peer_scaling OUT.csv [sections], sections a comma-separated subset of
// bfgs,cg,newton (default all).
#include <dlib/optimization.h>

#include <Eigen/Dense>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "lxopt/lxopt.h"

namespace {

using Clock = std::chrono::steady_clock;

double Since(Clock::time_point t0) {
  return std::chrono::duration<double>(Clock::now() - t0).count();
}

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

// sum_i d_i (x_i - 1)^2, d_i from 1 to 1e4 geometrically: cheap, and far
// from converged after a few iterations from the origin.
class CheapQuadratic : public LxOpt::LxFunc1 {
 public:
  using LxOpt::LxFunc1::operator();
  explicit CheapQuadratic(size_t n) : d_(n) {
    for (size_t i = 0; i < n; ++i) d_[i] = std::pow(1e4, double(i) / double(n - 1));
  }
  unsigned int NumVar() const override { return static_cast<unsigned int>(d_.size()); }
  double operator()(const double* x) override {
    ++values;
    double f = 0.0;
    for (size_t i = 0; i < d_.size(); ++i) f += d_[i] * (x[i] - 1.0) * (x[i] - 1.0);
    return f;
  }
  double operator()(const double* x, double* g) override {
    ++values;
    ++gradients;
    double f = 0.0;
    for (size_t i = 0; i < d_.size(); ++i) {
      const double e = x[i] - 1.0;
      g[i] = 2.0 * d_[i] * e;
      f += d_[i] * e * e;
    }
    return f;
  }
  std::vector<LxOpt::LxFComponent> GetFComponents(const double* x) override {
    return {{"quadratic", (*this)(x)}};
  }
  long values = 0, gradients = 0;

 private:
  std::vector<double> d_;
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

// Seconds per iteration: the median interval between consecutive stamps, so
// that a preemption by other work on the machine does not count.
double MedianInterval(const std::vector<Clock::time_point>& times) {
  if (times.size() < 2) return std::numeric_limits<double>::quiet_NaN();
  std::vector<double> intervals;
  for (size_t i = 1; i < times.size(); ++i)
    intervals.push_back(std::chrono::duration<double>(times[i] - times[i - 1]).count());
  return Median(intervals);
}

// Stamps every per-iteration report (state 0).
class Stamps : public LxOpt::LxCheckpoint1 {
 public:
  using LxOpt::LxCheckpoint1::operator();
  bool operator()(unsigned int, unsigned int, double, double, const double*, const double*,
                  unsigned int state) override {
    if (state == 0) times.push_back(Clock::now());
    return true;
  }
  double PerIteration() const { return MedianInterval(times); }
  std::vector<Clock::time_point> times;
};

// Median time of one read-and-write pass over count doubles.
double BarePass(size_t count, int repeats) {
  std::vector<double> a(count, 1.0);
  std::vector<double> t;
  volatile double scale = 0.999, shift = 1e-9;
  for (int r = 0; r < repeats + 1; ++r) {  // the first pass only touches the memory
    const double s = scale, h = shift;
    const Clock::time_point t0 = Clock::now();
    for (size_t i = 0; i < count; ++i) a[i] = a[i] * s + h;
    if (r > 0) t.push_back(Since(t0));
  }
  volatile double sink = a[count / 2];
  (void)sink;
  return Median(t);
}

// Median time of one dot product of two vectors of count doubles. Summed in
// order (no reassociation), as the optimizers' own reductions are, so it is
// bound by the latency of the additions rather than by memory.
double BareDotPass(size_t count, int repeats) {
  std::vector<double> a(count, 1.0), b(count, 0.5);
  std::vector<double> t;
  volatile double sink = 0.0;
  for (int r = 0; r < repeats + 1; ++r) {
    const Clock::time_point t0 = Clock::now();
    double s = 0.0;
    for (size_t i = 0; i < count; ++i) s += a[i] * b[i];
    if (r > 0) t.push_back(Since(t0));
    sink = sink + s;
  }
  return Median(t);
}

void Row(FILE* out, const char* section, size_t n, const char* subject, double seconds,
         long iterations, double valuesPerIter, double gradientsPerIter) {
  std::fprintf(out, "%s,%zu,%s,%.6g,%ld,%.3g,%.3g\n", section, n, subject, seconds, iterations,
               valuesPerIter, gradientsPerIter);
  std::fflush(out);
  std::fprintf(stderr, "%-7s n=%-8zu %-18s %.4g s\n", section, n, subject, seconds);
}

// One gradient-optimizer run with the iteration limit; returns the row data.
template <class Optimizer>
void TimedLxOpt(FILE* out, const char* section, const char* subject, size_t n,
                unsigned int iterations) {
  CheapQuadratic f(n);
  Optimizer opt;
  opt.SetIterLimit(iterations);
  opt.SetTolerance(0.0);
  Stamps stamps;
  std::vector<double> x0(n, 0.0), x(n);
  opt(f, &stamps, x0.data(), x.data());
  const double steps = double(std::max<size_t>(stamps.times.size(), 1));
  Row(out, section, n, subject, stamps.PerIteration(), long(stamps.times.size()),
      f.values / steps, f.gradients / steps);
}

// dlib's BFGS for a fixed number of iterations, stamped by its stop strategy.
class StampingStop {
 public:
  StampingStop(std::vector<Clock::time_point>* times, size_t limit)
      : times_(times), limit_(limit) {}
  template <class T>
  bool should_continue_search(const T&, double, const T&) {
    times_->push_back(Clock::now());
    return times_->size() <= limit_;
  }

 private:
  std::vector<Clock::time_point>* times_;
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
  std::vector<Clock::time_point> times;
  dlib::find_min(dlib::bfgs_search_strategy(), StampingStop(&times, iterations), value, gradient,
                 x, -std::numeric_limits<double>::infinity());
  const double perIter = MedianInterval(times);
  const double steps = double(times.size());
  Row(out, "bfgs", n, "dlib_bfgs", perIter, long(times.size() - 1), f.values / steps,
      f.gradients / steps);
}

void BfgsSection(FILE* out) {
  for (size_t n : {250, 500, 1000, 2000, 4000}) {
    const unsigned int iterations = n >= 2000 ? 8 : 20;
    const double before = BarePass(n * n, 3);
    TimedLxOpt<LxOpt::LxBFGSOpt>(out, "bfgs", "lxopt_bfgs", n, iterations);
    TimedLxOpt<LxOpt::LxDFPOpt>(out, "bfgs", "lxopt_dfp", n, iterations);
    TimedDlibBfgs(out, n, iterations);
    // Measured before and after the optimizers; the smaller of the two medians.
    Row(out, "bfgs", n, "bare_matrix_pass", std::min(before, BarePass(n * n, 3)), 1, 0, 0);
  }
}

void CgSection(FILE* out) {
  for (size_t n : {10000, 100000, 1000000}) {
    Row(out, "cg", n, "bare_vector_pass", BarePass(n, 21), 1, 0, 0);
    Row(out, "cg", n, "bare_dot_pass", BareDotPass(n, 21), 1, 0, 0);
    TimedLxOpt<LxOpt::LxConjGradOpt>(out, "cg", "lxopt_conjgrad", n, 50);
    TimedLxOpt<LxOpt::LxRibierePolakOpt>(out, "cg", "lxopt_ribiere_polak", n, 50);
  }
}

// Times of `repeats` factorizations of a.
template <class Factorization>
std::vector<double> FactorizationTimes(const Eigen::MatrixXd& a, int repeats) {
  Factorization factor(a.rows());
  std::vector<double> t;
  for (int r = 0; r < repeats; ++r) {
    const Clock::time_point t0 = Clock::now();
    factor.compute(a);
    t.push_back(Since(t0));
  }
  return t;
}

std::vector<double> Joined(std::vector<double> a, const std::vector<double>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// The factorizations are timed both before and after the Newton run (median
// of all), so a disturbance of the machine during one phase shows less.
void NewtonSection(FILE* out) {
  using Ldlt = Eigen::LDLT<Eigen::MatrixXd>;
  using Llt = Eigen::LLT<Eigen::MatrixXd>;
  for (int n : {250, 500, 1000, 2000}) {
    DenseQuadratic f(n);
    const std::vector<double> ldlt = FactorizationTimes<Ldlt>(f.matrix(), 3);
    const std::vector<double> llt = FactorizationTimes<Llt>(f.matrix(), 3);
    LxOpt::LxNewtonOpt opt;
    opt.SetIterLimit(4);
    opt.SetTolerance(0.0);
    Stamps stamps;
    std::vector<double> x0(n, 0.0), x(n);
    opt(f, &stamps, x0.data(), x.data());
    Row(out, "newton", n, "eigen_ldlt",
        Median(Joined(ldlt, FactorizationTimes<Ldlt>(f.matrix(), 3))), 1, 0, 0);
    Row(out, "newton", n, "eigen_llt", Median(Joined(llt, FactorizationTimes<Llt>(f.matrix(), 3))),
        1, 0, 0);
    Row(out, "newton", n, "lxopt_newton", stamps.PerIteration(), long(stamps.times.size()), 0, 0);
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
