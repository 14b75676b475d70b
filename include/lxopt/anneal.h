// Simulated annealing with one adaptive step length per variable, finished
// by a BFGS minimisation of the best point found.
#ifndef LXOPT_ANNEAL_H
#define LXOPT_ANNEAL_H

#include <memory>

#include "lxopt/host.h"
#include "lxopt/lxopt_export.h"
#include "lxopt/optimizer.h"

namespace LxOpt {

class LxBFGSOpt;

// Coordinate-wise annealing (Corana, Marchesi, Martini & Ridella, ACM TOMS
// 13 (1987) 262) at a temperature in kelvin, with values in kcal/mol:
//  - a move changes one variable h by (2r - 1) v_h, r uniform in [0, 1); a
//    coordinate leaving [-10000, 10000] (or not a number) is redrawn
//    uniformly in that box;
//  - a move that does not raise the value is accepted; one that raises it by
//    df is accepted with probability exp(-df / (R T)), R = 0.0019872157504780114;
//  - after 20 sweeps over all variables each v_h is adjusted towards an
//    acceptance ratio between 0.4 and 0.6 (at most 20000);
//  - after 5 adjustments the run has converged when the last four values at
//    this point agree within the tolerance and the value is within it of the
//    best; otherwise T is multiplied by 0.85 and the walk restarts at the best
//    point;
//  - the evaluation limit ends the annealing with the warning "Number of
//    function evaluation exceeded".
// Either way the best point is then minimised by an owned LxBFGSOpt, which
// alone reports to the checkpoint; its value is returned and its point left
// in x. Progress lines ("T = ...", "new minimum ...") go to lxout.
//
// Random numbers come from an owned generator seeded with 365 at
// construction and reseeded only by SetSeed, so fresh optimizers repeat each
// other and successive calls on one object continue the sequence.
//
// GetIterLimit and GetTolerance stay abstract in this class: a caller derives
// a class that supplies them (EvaluationLimit() and Tolerance() give the
// settings).
class LXOPT_API LxSAOpt : public LxOptimizer1 {
 public:
  static constexpr double kGasConstant = 0.0019872157504780114;  // kcal/(mol K)
  static constexpr unsigned int kSeed = 365;

  // temperature: the initial temperature in kelvin.
  explicit LxSAOpt(double temperature);
  // Copies the settings; the copy gets its own new local minimiser and its
  // own generator, seeded with 365 afresh.
  LxSAOpt(const LxSAOpt& other);
  // As the copy constructor: copies the settings, takes a new local
  // minimiser and reseeds its generator with 365.
  LxSAOpt& operator=(const LxSAOpt& other);
  ~LxSAOpt() override;

  // Sets the evaluation limit (default 100000).
  void SetIterLimit(unsigned int limit) override { evaluationLimit_ = limit; }
  // Sets the convergence bound on value differences (default 0.001); 0 or
  // less never converges.
  void SetTolerance(double tolerance) override { tolerance_ = tolerance; }
  // Reseeds the generator (365 unless this is called); the next run draws
  // from the new sequence. Copies still start from 365.
  void SetSeed(unsigned int seed) { random_.Seed(seed); }
  // Sets the initial temperature in kelvin of the next runs.
  void SetTemperature(double temperature) { temperature_ = temperature; }
  double GetTemperature() const { return temperature_; }

  using LxOptimizer1::operator();
  // Anneals from x0, then minimises the best point with BFGS, reporting
  // through checkpoint. Returns the final value with the point in x.
  double operator()(LxFunc1& func, LxCheckpoint1* checkpoint, const double* x0, double* x) override;
  // How the last run ended.
  const LxRunSummary& LastRun() const override { return lastRun_; }

 protected:
  // The settings, for a derived class's GetIterLimit and GetTolerance.
  unsigned int EvaluationLimit() const { return evaluationLimit_; }
  double Tolerance() const { return tolerance_; }

 private:
  double Run(LxFunc1& func, LxCheckpoint1* checkpoint, const double* x0, double* x);
  // Runs the local minimiser from xopt into x and returns its value.
  double FinalMinimization(LxFunc1& func, LxCheckpoint1* checkpoint, const double* xopt, double* x);

  double temperature_;
  unsigned int stepCycles_ = 20;
  unsigned int adjustmentsPerTemperature_ = 5;
  unsigned int evaluationLimit_ = 100000;
  double tolerance_ = 0.001;
  double coolingFactor_ = 0.85;
  std::unique_ptr<LxBFGSOpt> local_;
  LxRandom random_;
  LxRunSummary lastRun_;
};

}  // namespace LxOpt

#endif  // LXOPT_ANNEAL_H
