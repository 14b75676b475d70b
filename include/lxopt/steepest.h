// Steepest descent with an adaptive step and no line search.
#ifndef LXOPT_STEEPEST_H
#define LXOPT_STEEPEST_H

#include "lxopt/optimizer.h"

namespace LxOpt {

// Walks against the gradient: x' = x - h g. An accepted step (lower value)
// grows h by 1.2, a rejected one halves it. The first h is 1/|g|.
//
// Exits (the checkpoint receives the Euclidean gradient norm):
//   1 NoOpt    sum g^2 < tolerance at the start; returns f(start), out = start.
//   11 Done    an accepted trial has sum g^2 < tolerance. Deliberate: the
//              trial value is returned while out keeps the previous point.
//   3 NotFound h fell below 1e-10 after a rejection; out = last accepted point.
//   6 Exhaust  iteration limit reached; out = last accepted point.
// Every iteration reports state 0; the checkpoint's answer is ignored, so a
// checkpoint cannot stop this optimizer. After a rejected step the reported
// norm is the rejected trial's. A null out warns and returns 0.0.
class LXOPT_API LxSteepestDescentOpt : public LxOptimizer1 {
 public:
  static constexpr unsigned int kDefaultIterLimit = 5000;
  static constexpr double kDefaultTolerance = 0.1;

  LxSteepestDescentOpt() = default;

  // Largest number of iterations (accepted or rejected steps).
  void SetIterLimit(unsigned int limit) override { iterLimit_ = limit; }
  // Stops when sum g^2 < tolerance (squared norm, strict).
  void SetTolerance(double tolerance) override { tolerance_ = tolerance; }
  unsigned int GetIterLimit() const override { return iterLimit_; }
  double GetTolerance() const override { return tolerance_; }

  using LxOptimizer1::operator();
  // Minimizes func from start (n doubles) into out (n doubles, may equal
  // start); returns the value as listed under the exits above.
  double operator()(LxFunc1& func, LxCheckpoint1* checkpoint, const double* start,
                    double* out) override;
  // How the last run ended.
  const LxRunSummary& LastRun() const override { return lastRun_; }

 private:
  double Run(LxFunc1& func, LxCheckpoint1* checkpoint, const double* start, double* out);
  LxRunSummary lastRun_;
  unsigned int iterLimit_ = kDefaultIterLimit;
  double tolerance_ = kDefaultTolerance;
};

}  // namespace LxOpt

#endif  // LXOPT_STEEPEST_H
