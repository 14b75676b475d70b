// Pieces shared by the quasi-Newton benchmarks: the thread's CPU clock, a
// cheap objective that stays far from converged for a few iterations, and a
// checkpoint that stamps the time of every per-iteration report.
#ifndef LXOPT_BENCH_BENCH_SUPPORT_H
#define LXOPT_BENCH_BENCH_SUPPORT_H

#include <time.h>

#include <cmath>
#include <vector>

#include "lxopt/lxopt.h"

namespace lxbench {

// CPU time of this thread: time given to other processes does not count.
inline double ThreadSeconds() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return ts.tv_sec + 1e-9 * ts.tv_nsec;
}

// sum_i d_i (x_i - 1)^2 with d_i from 1 to 1e4: cheap, and far from converged
// after a few iterations from the origin.
class CheapQuadratic : public LxOpt::LxFunc1 {
 public:
  using LxOpt::LxFunc1::operator();
  explicit CheapQuadratic(unsigned int n) : d_(n) {
    for (unsigned int i = 0; i < n; ++i) d_[i] = std::pow(1e4, double(i) / (n - 1));
  }
  unsigned int NumVar() const override { return static_cast<unsigned int>(d_.size()); }
  double operator()(const double* x) override {
    double f = 0.0;
    for (size_t i = 0; i < d_.size(); ++i) f += d_[i] * (x[i] - 1.0) * (x[i] - 1.0);
    return f;
  }
  // Value and gradient in one pass.
  double operator()(const double* x, double* g) override {
    double f = 0.0;
    for (size_t i = 0; i < d_.size(); ++i) {
      const double e = x[i] - 1.0;
      g[i] = 2.0 * d_[i] * e;
      f += d_[i] * e * e;
    }
    return f;
  }
  std::vector<LxOpt::LxFComponent> GetFComponents(const double* x) override {
    return {{"total", (*this)(x)}};
  }

 private:
  std::vector<double> d_;
};

// Stamps the time of every per-iteration report.
class Stamps : public LxOpt::LxCheckpoint1 {
 public:
  using LxOpt::LxCheckpoint1::operator();
  bool operator()(unsigned int, unsigned int, double, double, const double*, const double*,
                  unsigned int state) override {
    if (state == LxOpt::kLxCont) times.push_back(ThreadSeconds());
    return true;
  }
  std::vector<double> times;
};

}  // namespace lxbench

#endif  // LXOPT_BENCH_BENCH_SUPPORT_H
