// Helpers shared by the optimizers' loops; not part of the public interface.
#ifndef LXOPT_SRC_FRAMEWORK_INTERNAL_H
#define LXOPT_SRC_FRAMEWORK_INTERNAL_H

#include <cstddef>

#include "lxopt/optimizer.h"

namespace LxOpt {
namespace detail {

// Calls the checkpoint if there is one; a missing checkpoint always continues.
inline bool Report(LxCheckpoint1* checkpoint, unsigned int iter, unsigned int n, double f,
                   double gnorm, const double* x, const double* g, unsigned int state) {
  return checkpoint == nullptr || (*checkpoint)(iter, n, f, gnorm, x, g, state);
}

// A run's final report: makes it and returns the run's value f, so that each
// exit of an optimizer is one line.
inline double Finish(LxCheckpoint1* checkpoint, unsigned int iter, unsigned int n, double f,
                     double gnorm, const double* x, const double* g, unsigned int state) {
  Report(checkpoint, iter, n, f, gnorm, x, g, state);
  return f;
}

inline double Dot(const double* a, const double* b, std::size_t n) {
  double sum = 0.0;
  for (std::size_t i = 0; i < n; ++i) sum += a[i] * b[i];
  return sum;
}

inline double SquaredNorm(const double* a, std::size_t n) {
  return Dot(a, a, n);
}

inline void Copy(const double* from, double* to, std::size_t n) {
  for (std::size_t i = 0; i < n; ++i) to[i] = from[i];
}

inline void Zero(double* a, std::size_t n) {
  for (std::size_t i = 0; i < n; ++i) a[i] = 0.0;
}

// y += alpha * x
inline void Axpy(double alpha, const double* x, double* y, std::size_t n) {
  for (std::size_t i = 0; i < n; ++i) y[i] += alpha * x[i];
}

}  // namespace detail
}  // namespace LxOpt

#endif  // LXOPT_SRC_FRAMEWORK_INTERNAL_H
