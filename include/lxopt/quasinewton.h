// Quasi-Newton optimizers: BFGS, BFGS that carries its matrix from run to run,
// and DFP. All three keep a dense n x n approximation H of the inverse Hessian,
// search along d = -H g with an exchangeable line minimizer and update H from
// the step s and the change of gradient y.
#ifndef LXOPT_QUASINEWTON_H
#define LXOPT_QUASINEWTON_H

#include <memory>
#include <vector>

#include "lxopt/linmin.h"
#include "lxopt/lxopt_export.h"
#include "lxopt/optimizer.h"

namespace LxOpt {

// The settings every quasi-Newton optimizer holds. Copies clone the line
// minimizer through CreateCopy().
class LXOPT_API LxQNSettings {
 public:
  static constexpr unsigned int kDefaultIterLimit = 1000;
  static constexpr double kDefaultTolerance = 0.1;

  // Limit 1000, tolerance 0.1, an LxQNLineMinimize(32, 1e-4, 0.9, 1e-10).
  LxQNSettings();
  // Copy the limit and tolerance and take other's line minimizer's
  // CreateCopy().
  LxQNSettings(const LxQNSettings& other);
  LxQNSettings& operator=(const LxQNSettings& other);
  ~LxQNSettings();

  unsigned int iterLimit;
  double tolerance;
  std::unique_ptr<LxLineMinimize> lineMinimize;  // never null
};

// Broyden-Fletcher-Goldfarb-Shanno. The run starts from H = I, takes the first
// trial step 1/|g|, and after each accepted search updates
//   H += a s s' + b Hy Hy' + yHy u u',  a = 1/s.y, b = -1/yHy, u = a s + b Hy.
// The next trial step is the line minimizer's last step scaled by the ratio
// of the previous slope to the new one (g.d).
//
// Exits (checkpoints receive the Euclidean gradient norm; out always holds the
// current point and the current value is returned):
//   1 NoOpt    sum g^2 < tolerance at the start; H is never allocated.
//   0 Cont     after every accepted search; answering false ends the run
//              with a second call in state 11.
//   11 Done    sum g^2 < tolerance after a search or after a restart, the
//              checkpoint asked to stop, or s.y or yHy is exactly 0.
//   3 NotFound the search failed right after a (re)start. The value is the
//              one the line minimizer left: LxNRLineSearch writes its last
//              trial value even on failure, and that value is returned while
//              out keeps the last accepted point.
//              Deliberate: value and point disagree on this exit.
//   6 Exhaust  iteration limit reached (reported with the limit).
// A search that fails after an update restarts from the re-evaluated point
// along -g, with H reset to the identity unless the Hessian is kept.
// Bad input: null out warns and returns 0.0; n > 1073741823 and a matrix that
// cannot be allocated report an error and return 0.0; scratch that cannot be
// allocated warns and returns 0.0.
class LXOPT_API LxBFGSOpt : public LxOptimizer1 {
 public:
  // Default settings (see LxQNSettings), no stored matrix.
  LxBFGSOpt();
  // Copies take the settings, the flags and their own copy of any stored H.
  LxBFGSOpt(const LxBFGSOpt& other);
  LxBFGSOpt& operator=(const LxBFGSOpt& other);
  ~LxBFGSOpt() override;

  // Largest number of iterations of a run.
  void SetIterLimit(unsigned int limit) override { settings_.iterLimit = limit; }
  // Stops when sum g^2 < tolerance (squared norm, strict); checkpoints
  // receive sqrt(sum g^2).
  void SetTolerance(double tolerance) override { settings_.tolerance = tolerance; }
  // The settings above, as last set or defaulted.
  unsigned int GetIterLimit() const override { return settings_.iterLimit; }
  double GetTolerance() const override { return settings_.tolerance; }

  using LxOptimizer1::operator();
  // Minimizes func from in (n doubles) into out (n doubles; in and out may be
  // the same array); returns the value at out, or as the exits above say.
  double operator()(LxFunc1& func, LxCheckpoint1* checkpoint, const double* in,
                    double* out) override;
  // How the last run ended.
  const LxRunSummary& LastRun() const override { return lastRun_; }

  // Replaces the line minimizer by lm.CreateCopy(); returns true.
  bool SetLineMinimize(const LxLineMinimize& lm);

  // With the flag set every run stores its final H (and a search that fails
  // after an update restarts from the current H instead of the identity).
  void SetKeepHessian(bool keep) { keepHessian_ = keep; }
  bool GetKeepHessian() const { return keepHessian_; }
  // Deliberate: the element count n * n (32-bit) of the last run, not n;
  // 0 before any run.
  unsigned int GetHessianDimension() const { return hessianDim_; }
  // Writes the stored H packed (lower triangle by rows, (i, j) at
  // i(i+1)/2 + j) into out, n(n+1)/2 values. False with a warning when no H
  // was stored or it was stored for another n.
  bool GetInverseHessian(double* out, unsigned int n) const;
  // Stores the packed symmetric n x n matrix as H (the layout of
  // GetInverseHessian) and sets the start-from-stored flag: every following
  // run over n variables starts from it instead of the identity, until a
  // kept run replaces it. LxBFGSModOpt starts from its carried matrix
  // regardless. Null packed warns and returns false; a matrix that cannot be
  // allocated reports an error and returns false.
  bool SetInitialInverseHessian(const double* packed, unsigned int n);
  // As SetInitialInverseHessian with the inverse of the packed Hessian,
  // formed by the Newton optimizer's LDLT whose pivots below 0.001 become
  // 1000, so an indefinite Hessian still yields a positive definite H.
  bool SetInitialHessian(const double* packed, unsigned int n);

 protected:
  // The limit, tolerance and line minimizer, for derived runs.
  const LxQNSettings& Settings() const { return settings_; }
  // The element count is n * n in 32-bit arithmetic, as it is reported.
  void SetHessianDimension(unsigned int n) { hessianDim_ = n * n; }

  // How a run obtains, restarts and keeps its matrix (defined with the loop).
  class KeptMatrix;

  // Set by derived classes and by SetInitialInverseHessian; copies carry it
  // over. With a stored matrix of the right size a run then starts from it
  // instead of the identity.
  bool startFromStored_ = false;
  // The summary of the last run, LxBFGSModOpt's runs included.
  LxRunSummary lastRun_;

 private:
  void FreeStored();
  void CopyStoredFrom(const LxBFGSOpt& other);

  double* storedHessian_ = nullptr;  // row-major, storedCount_ values, malloc'd
  unsigned int storedCount_ = 0;     // values in storedHessian_
  unsigned int hessianDim_ = 0;      // n * n of the last run
  bool keepHessian_ = false;
  LxQNSettings settings_;
};

// BFGS that continues where its previous run stopped: it carries its own
// inverse Hessian and the last trial step from run to run. A new object, or a
// run with another number of variables, starts from the identity and the
// trial step 1/|g|. Every exit after the matrix is set up (states 3, 6 and 11)
// saves the matrix and the trial step for the next run; each run still takes
// its first search along -g. Apart from that it behaves as LxBFGSOpt,
// SetKeepHessian included (a kept run also stores H for GetInverseHessian and
// restarts a failed search from the current H), except that there is no limit
// on n and a working matrix that cannot be allocated is reported as the
// warning "out of memory allocating %d in LxBFGSOpt::operator()".
class LXOPT_API LxBFGSModOpt : public LxBFGSOpt {
 public:
  // Starts from the identity on its first run.
  LxBFGSModOpt() = default;
  // Copies also take their own copy of the carried matrix and trial step.
  LxBFGSModOpt(const LxBFGSModOpt& other);
  LxBFGSModOpt& operator=(const LxBFGSModOpt& other);
  ~LxBFGSModOpt() override;

  using LxBFGSOpt::operator();
  // Minimizes func from in into out (may be the same array) as described
  // above; returns the value at out, or as LxBFGSOpt's exits say.
  double operator()(LxFunc1& func, LxCheckpoint1* checkpoint, const double* in,
                    double* out) override;

  // Fills the n x n array work: the identity when a restart is due, else a
  // copy of the n x n values of persistent.
  void SetHessian(double* work, double* persistent, unsigned int n);

 private:
  class CarriedMatrix;
  void FreePersistent();
  void CopyPersistentFrom(const LxBFGSModOpt& other);

  bool restart_ = true;  // a new object starts from the identity
  unsigned int order_ = 0;
  double savedStep_ = 0.0;
  double* persistent_ = nullptr;  // order_ x order_, malloc'd
};

// Davidon-Fletcher-Powell: as LxBFGSOpt with the two-term update
//   H += s s' / s.y - Hy Hy' / yHy,
// always starting from the identity, restarting from it after a failed search,
// and keeping no matrix. The NoOpt report passes a null gradient. A matrix
// that cannot be allocated ends the run with 0.0, silently.
class LXOPT_API LxDFPOpt : public LxOptimizer1 {
 public:
  // Default settings (see LxQNSettings).
  LxDFPOpt() = default;

  // Largest number of iterations of a run.
  void SetIterLimit(unsigned int limit) override { settings_.iterLimit = limit; }
  // Stops when sum g^2 < tolerance (squared norm, strict); checkpoints
  // receive sqrt(sum g^2).
  void SetTolerance(double tolerance) override { settings_.tolerance = tolerance; }
  // The settings above, as last set or defaulted.
  unsigned int GetIterLimit() const override { return settings_.iterLimit; }
  double GetTolerance() const override { return settings_.tolerance; }

  using LxOptimizer1::operator();
  // Minimizes func from in (n doubles) into out (n doubles, may be in);
  // returns the value at out, or as the exits of LxBFGSOpt say.
  double operator()(LxFunc1& func, LxCheckpoint1* checkpoint, const double* in,
                    double* out) override;
  // How the last run ended.
  const LxRunSummary& LastRun() const override { return lastRun_; }

  // Replaces the line minimizer by lm.CreateCopy(); returns true.
  bool SetLineMinimize(const LxLineMinimize& lm);

 private:
  LxQNSettings settings_;
  LxRunSummary lastRun_;
};

// Limited-memory BFGS for large problems. Instead of H it keeps the last m
// pairs (s, y) with s.y > 0 and forms d = -H g by the two-loop recursion from
// H0 = gamma I, gamma = s.y / y.y of the newest pair. A pair with s.y <= 0 is
// skipped (not stored); the older pairs stay. The first search of a run, and
// the first after a restart, goes along -g with the trial step 1/|g|; later
// searches start from the unit step. With SetCartesian the variables are taken
// as x, y, z per atom and H0 = gamma P^-1 with P a model Hessian built from
// the interatomic distances at the start (springs between near atoms) and
// gamma = s.y / y.P^-1 y; the first search then goes along -P^-1 g with a
// trial step that moves the point by the mean nearest-neighbour distance, so
// that the run depends on the units of neither energy nor length. (Without
// SetCartesian it depends on the units of length through the first move.)
//
// Exits, checkpoint calls and bad input as LxBFGSOpt:
//   1 NoOpt    sum g^2 < tolerance at the start (gradient passed).
//   0 Cont     after every accepted search; answering false ends the run
//              with a second call in state 11.
//   11 Done    sum g^2 < tolerance after a search or after a restart, or the
//              checkpoint asked to stop.
//   3 NotFound the search failed while no pair was stored (right after a
//              (re)start, or after pairs were only skipped); the value
//              returned is the one the line minimizer left, out keeps the
//              last accepted point.
//   6 Exhaust  iteration limit reached (reported with the limit).
// A search that fails after a pair was stored restarts from the re-evaluated
// point along -g with the memory emptied. Memory: one scratch block per run
// (stack or heap) of (2m + 3) n + 2m doubles (n n + n more with SetCartesian),
// nothing per iteration.
// Bad input: null out warns and returns 0.0; scratch that cannot be allocated
// warns "out of memory allocating %d in LxLBFGSOpt::operator()" and returns
// 0.0.
class LXOPT_API LxLBFGSOpt : public LxOptimizer1 {
 public:
  static constexpr unsigned int kDefaultMemory = 8;

  // Default settings (see LxQNSettings) and memory 8.
  LxLBFGSOpt() = default;

  // Largest number of iterations of a run.
  void SetIterLimit(unsigned int limit) override { settings_.iterLimit = limit; }
  // Stops when sum g^2 < tolerance (squared norm, strict); checkpoints
  // receive sqrt(sum g^2).
  void SetTolerance(double tolerance) override { settings_.tolerance = tolerance; }
  // The settings above, as last set or defaulted.
  unsigned int GetIterLimit() const override { return settings_.iterLimit; }
  double GetTolerance() const override { return settings_.tolerance; }

  // Number of pairs kept (default 8); 0 is taken as 1.
  void SetMemory(unsigned int m) { memory_ = m == 0 ? 1 : m; }
  unsigned int GetMemory() const { return memory_; }

  // Declares the variables Cartesian coordinates (see above). Off by
  // default; ignored when the number of variables is not a multiple of 3.
  void SetCartesian(bool on) { cartesian_ = on; }
  bool GetCartesian() const { return cartesian_; }

  using LxOptimizer1::operator();
  // Minimizes func from in (n doubles) into out (n doubles; in and out may be
  // the same array); returns the value at out, or as the exits above say.
  double operator()(LxFunc1& func, LxCheckpoint1* checkpoint, const double* in,
                    double* out) override;
  // How the last run ended.
  const LxRunSummary& LastRun() const override { return lastRun_; }

  // Replaces the line minimizer by lm.CreateCopy(); returns true.
  bool SetLineMinimize(const LxLineMinimize& lm);

  // With the flag set (off by default) every run stores the pairs it holds
  // at its end, oldest first: they define the final H (H0 = gamma I from the
  // newest pair, the identity when none is held). A run that stops before
  // its first search holds none.
  void SetKeepPairs(bool keep) { keepPairs_ = keep; }
  bool GetKeepPairs() const { return keepPairs_; }
  // Pairs stored by the last run (0 when it kept none).
  unsigned int GetFinalPairCount() const { return keptCount_; }
  // Copies the stored pairs into s and y, row k of each (n doubles at k n)
  // the k-th oldest pair. capacity is the number of rows each array holds.
  // False with a warning, writing nothing, when the last run did not keep
  // its pairs, n is not its number of variables or capacity is below
  // GetFinalPairCount().
  bool GetFinalPairs(double* s, double* y, unsigned int n, unsigned int capacity) const;

 private:
  double Run(LxFunc1& func, LxCheckpoint1* checkpoint, const double* in, double* out);
  LxQNSettings settings_;
  unsigned int memory_ = kDefaultMemory;
  LxRunSummary lastRun_;
  bool cartesian_ = false;
  bool keepPairs_ = false;
  bool kept_ = false;           // the last run stored its pairs (maybe none)
  unsigned int keptN_ = 0;      // variables of that run
  unsigned int keptCount_ = 0;  // pairs stored
  std::vector<double> keptS_;   // keptCount_ rows of keptN_, oldest first
  std::vector<double> keptY_;
};

}  // namespace LxOpt

#endif  // LXOPT_QUASINEWTON_H
