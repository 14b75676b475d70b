// Geometry optimisation: the BFGS driver LxBFGSOptimizer, the checkpoint that
// prints its progress (LxBFGSCheckpoint) and the adaptor interface through
// which that checkpoint turns variables into Cartesian coordinates.
#ifndef LXOPT_GEOMOPT_H
#define LXOPT_GEOMOPT_H

#include <cstddef>
#include <vector>

#include "lxopt/host.h"
#include "lxopt/lxopt_export.h"
#include "lxopt/optimizer.h"

namespace LxOpt {

namespace geom {
struct RunState;
}  // namespace geom

// Turns a variable vector into Cartesian coordinates (x, y, z per atom).
class LXOPT_API LxAdaptor {
 public:
  // Adaptors are used through base pointers and may be deleted so.
  virtual ~LxAdaptor();
  // Writes the nvar Cartesian coordinates that vars stands for into coords.
  virtual void operator()(const double* vars, double* coords) = 0;
};

// Reports the progress of a geometry optimisation: one cycle line per
// report, "cycle %5d gnorm = %11.4e %s = %11.4f rmsd = %9.4f" (iteration,
// gradient norm, name, value, RMSD from the reference geometry), and one
// closing message per result state. Messages are informational messages
// through LxThrow, issued only when verbose is set. Without an output stream
// the final states record statistics (cycle, RMS gradient gnorm / sqrt(nvar),
// largest atom displacement from the reference, state); with one they write a
// two-line summary ("No of cycles%21d", "Final rms gradient   %12.5f")
// instead. Per state:
//   0 Cont     cycle line
//   1 NoOpt    "System at minimum energy, no optimization will be done."
//   2 OneVar   "Geometry optimization done, rmsd = %12.5f"; summary/statistics
//   3 NotFound "No point lower in %s could be found"; with a stream the same
//              line is also written to it (no summary), else statistics
//   4 Ended    "Search is being ended. Final rmsd = %12.5f"; summary/statistics
//   5 NotJust  "Gradient test not passed but further calculations not
//              justified:" and "In 5 attempts to reduce %s decrease was less
//              than %12.5f" (the RMSD is the number); summary/statistics
//   6 Exhaust  cycle line, "Number of cycles exhausted"; summary/statistics
//   7 Dist     null vars: "Distance test satisfied" only. Otherwise
//              "Distance test satisfied, rmsd = %12.5f"; summary with a stream
//              and iter != 0, statistics otherwise
//   8 Fval     "%s test satisfied"; statistics
//   9 Grad     "Gradient test satisfied"; statistics
//   10 Comp    "but gradient component is larger than %12.5f" (gnorm carries
//              the component limit); nothing recorded but the state
//   11 Done    "Geometry optimization done, %12.5f" (RMSD); summary/statistics
//   12 Stable  cycle line, "%s is basically stable"; statistics
// A state of 13 or more is only recorded. Every state records itself as the
// last state. The gradient operator always returns true.
//
// The driver LxBFGSOptimizer calls this class's handling directly (no virtual
// dispatch) when it is given exactly this class; a derived class is called
// through its virtual operator.
class LXOPT_API LxBFGSCheckpoint : public LxCheckpoint1 {
 public:
  // No reference, name or adaptor: call SetParams before use.
  LxBFGSCheckpoint() = default;

  // name: the word for the objective in messages ("Energy"); ref: reference
  // coordinates (3 per atom); adaptor: turns variables into coordinates, or
  // null when the variables are coordinates; out: summary stream, or null to
  // record statistics. The pointers are kept, not copied: they must outlive
  // the optimisation. Resets the last cycle and the last RMS gradient to 0.
  void SetParams(const char* name, double* ref, unsigned int nvar, LxAdaptor* adaptor, bool verbose,
                 lxostream* out);

  // Plain RMSD (no superposition) of var's coordinates from the reference;
  // 0.0 when nvar is not a multiple of 3 (or var or the reference is null).
  double rmsd(const double* var) const;
  // Largest atom distance between the reference and var's coordinates, over
  // atoms 0 .. nvar/3 - 1 (a remainder of nvar is ignored); 0.0 when nvar < 3
  // (or var or the reference is null).
  double maxdisp(const double* var) const;

  // The value-only form cannot serve a geometry optimisation: fatal error.
  bool operator()(unsigned int iter, unsigned int nvar, double fval, const double* vars,
                  unsigned int state) override;
  // Reports as in the table above; always returns true.
  bool operator()(unsigned int iter, unsigned int nvar, double fval, double gnorm,
                  const double* var, const double* grad, unsigned int state) override;

  // Statistics of the last final state that recorded them.
  unsigned int GetLastCycle() const { return lastCycle_; }
  double GetLastRmsGradient() const { return lastRmsGradient_; }
  double GetLastMaxDisplacement() const { return lastMaxDisplacement_; }
  // State of the most recent call.
  unsigned int GetLastState() const { return lastState_; }

 private:
  bool SummaryOrStatistics(unsigned int iter, unsigned int nvar, double gnorm, const double* var,
                           unsigned int state);
  bool Summary(unsigned int iter, unsigned int nvar, double gnorm, unsigned int state);
  bool Statistics(unsigned int iter, unsigned int nvar, double gnorm, const double* var,
                  unsigned int state);
  void CycleLine(unsigned int iter, double gnorm, double fval, const double* var) const;
  void WriteLine(const char* format, ...) __attribute__((format(printf, 2, 3)));
  // Coordinates of var: var itself, or filled by the adaptor into scratch.
  const double* Coordinates(const double* var, std::vector<double>& scratch) const;
  const char* Name() const { return name_ != nullptr ? name_ : ""; }

  const char* name_ = nullptr;
  double* ref_ = nullptr;
  unsigned int nvar_ = 0;
  LxAdaptor* adaptor_ = nullptr;
  lxostream* out_ = nullptr;
  unsigned int lastCycle_ = 0;
  double lastRmsGradient_ = 0.0;
  double lastMaxDisplacement_ = 0.0;
  unsigned int lastState_ = 0;
  bool verbose_ = false;
  char line_[256] = {};
};

// BFGS minimisation tuned for molecular geometries: the inverse Hessian is
// kept packed (lower triangle by rows), each cycle searches along -H g with
// its own line search, and the run ends through displacement, value,
// gradient and component tests. Step generation, one function each:
//   direction   d = -H g on the packed matrix; a direction that is not
//               downhill restarts H from the identity (or, with
//               SetCartesian, from the model below).
//   model       with SetCartesian (off by default) H starts from the inverse
//               of a model Hessian built from the interatomic distances:
//               springs between atoms closer than twice the mean
//               nearest-neighbour distance r_nn, of stiffness
//               exp(-3 (r / r_nn - 1)), half along the pair and half
//               isotropic (the exponential preconditioner of Packwood et al.,
//               J. Chem. Phys. 144 (2016) 164109, with Lindh-type stretch
//               terms), plus 0.1 times the identity. Lengths enter only as
//               ratios and the energy scale is measured by the first step
//               (below), so no unit is assumed. Once an atom has moved 0.3
//               r_nn from where the model was built, it is rebuilt at the
//               current point, scaled by s.y / y.P^-1 y of the last step,
//               and the last min(n, 200) steps are replayed on it with the
//               BFGS update.
//               With SetAtomicNumbers a pair's reference length is the sum
//               of its covalent radii (Cordero et al., Dalton Trans. (2008)
//               2832) times the mean ratio of nearest-neighbour distances to
//               those sums, in place of r_nn.
//   step cap    no trial moves any atom (consecutive x, y, z triple; each
//               coordinate when n is not a multiple of 3) farther than a
//               trust radius, 1.0 at the start of a run (with SetCartesian
//               one mean nearest-neighbour distance r_nn) and four times
//               larger after every search that ended at the cap still going
//               down.
//               With SetMaxAtomStep(r > 0) the radius starts at min(1 or r_nn, r) and
//               never exceeds r, and history points that move an atom
//               farther than r are not tried: r is then a hard per-atom
//               limit on every point evaluated.
//   line search Moré-Thuente (ACM TOMS 20 (1994) 286) for a step meeting the
//               strong Wolfe conditions (c1 = 1e-4, c2 = 0.9), at most 20
//               trials. The first trial is the full quasi-Newton step; after
//               a restart it moves the farthest atom by 0.1 (with SetCartesian 0.1 r_nn,
//               so that no unit of length is assumed). The search stops
//               refining once its bracket is narrower than the cycle's
//               accuracy (0.01 in the first cycle, then 0.002 / 0.005 / 0.01
//               for value changes up to 1 / up to 5 / above) and takes the
//               lowest point found.
//   update      BFGS update of the inverse Hessian (Nocedal & Wright, eq.
//               6.17); before the first update after a (re)start H is scaled
//               by s.y / y.H y (Shanno & Phua; s.y / y.y from the identity); when s.y < 0.2 y.Hy
//               the step is damped towards H y (Powell's damping in inverse form), so H stays
//               positive definite.
//   history     off by default (SetHistory): after each accepted step a GDIIS
//               extrapolation over the stored points and gradients is tried
//               (Csaszar & Pulay, J. Mol. Struct. 114 (1984) 31), and when it
//               gives no lower value a quasi-Newton step restricted to the
//               span of the stored displacements (subspace step); either is
//               taken only when it lowers the value. On the benchmark set
//               both cost more evaluations than they save, hence off.
//   surrogate   off by default (SetSurrogate): before the direction, the
//               minimum of a Gaussian-process model of the objective is tried
//               (the GPMin method of Garijo del Rio et al., J. Chem. Phys.
//               150 (2019) 094107): squared-exponential kernel over values
//               and gradients of the latest min(40, 800 / (n + 1)) points
//               (at least 2), length l = 0.2 r_nn when n is a multiple of 3
//               (the variables read as atoms; else 0.2 times the RMS variable,
//               and no surrogate when that is 0), energy scale l |largest
//               atomic gradient at the start|, prior mean the largest value
//               seen, noise 4e-4 in these scaled units times the square root
//               of the largest atomic gradient now over the one at the
//               start. The model's mean is minimised from the current (best)
//               point by an inner L-BFGS without calling the objective, the
//               move capped at 2 l per atom; the point is taken when its value
//               is lower (then the BFGS update follows as for a search), else
//               added to the data and one more minimum tried; after two, or
//               when the model predicts no decrease, the cycle goes on as
//               without it. The surrogate is given up for the run after 5
//               such cycles in a row, and once the model holds all the points
//               it can keep. Off by default: it pays where one force call
//               costs far more than the model's O((m n)^3) algebra and the
//               potential is smooth (the small EMT systems of ASE's
//               benchmark: 163 force calls against 201 without it); on
//               Lennard-Jones clusters (4 to 38 atoms) and on MMFF94
//               molecules, small or drug-like, it costs calls.
//
// Thresholds by tolerance tol (n variables):
//   tol > 0.1    value change e1 = 0.001, displacement e2 = 1e-4, c = sqrt(n + 1e-5)
//   tol == 0.1   e1 = 1e-4,  e2 = 1e-5,  c = 1
//   tol < 0.1    e1 = 1e-23, e2 = 1e-24, c = 1
// Start: |g| < tol reports state 1 only (iteration 0, null point and gradient)
// and returns f(start) with out = start.
// After each cycle (iteration = cycles done), with displacement
// d = |step| / |x| (|step| itself when |x| = 0):
//   stall  16 cycles in a row that lower the best value by less than 1e-7:
//          state 12, then the final state.
//   tests  d <= e2: state 7; else |dE| <= e1: state 8; else |g| <= c tol:
//          state 9. After any of them: every |g_i| <= tol ends the run;
//          otherwise state 10 (gnorm argument = tol). The sixth such report
//          (the count restarts when the value moves more than 0.01 from the
//          one at the count's first report) adds state 5 (fval argument =
//          0.01); the gradient is cleared and the run ends with no final
//          state.
//   else   at the iteration limit the run ends; otherwise state 0.
// Final state: 6 at the iteration limit (tested only after a cycle, so a
// limit of 0 runs one cycle, as a limit of 1 does), else 11. A search that finds no
// lower point even from a restarted H reports 3, a direction that cannot be
// formed (gradient not finite or zero) reports 4; both end with no final
// state. Every exit after the start re-evaluates the value (value only) at the
// final point and returns it, with out = that point. Reports pass the current
// point and a null gradient; the checkpoint's answers are ignored.
class LXOPT_API LxBFGSOptimizer : public LxOptimizer1 {
 public:
  static constexpr unsigned int kDefaultIterLimit = 10000;
  static constexpr double kDefaultTolerance = 0.1;

  // Limit 10000, tolerance 0.1, history off, no kept matrix.
  LxBFGSOptimizer();
  // Copies take the settings and any kept matrix.
  LxBFGSOptimizer(const LxBFGSOptimizer& other) = default;
  LxBFGSOptimizer& operator=(const LxBFGSOptimizer& other) = default;
  ~LxBFGSOptimizer() override;

  // Largest number of cycles.
  void SetIterLimit(unsigned int limit) override { iterLimit_ = limit; }
  // Selects the thresholds (see above); compared with the gradient norm and
  // with each gradient component.
  void SetTolerance(double tolerance) override { tolerance_ = tolerance; }
  // The settings above, as last set or defaulted.
  unsigned int GetIterLimit() const override { return iterLimit_; }
  double GetTolerance() const override { return tolerance_; }

  using LxOptimizer1::operator();
  // Minimises func from in; writes the final point to out when out is not
  // null and returns the final value.
  double operator()(LxFunc1& func, LxCheckpoint1* checkpoint, const double* in,
                    double* out) override;
  // How the last run ended.
  const LxRunSummary& LastRun() const override { return lastRun_; }
  // Value-only objectives cannot be used: fatal error.
  virtual double operator()(LxFunc0& func, const double* in, double* out);
  virtual double operator()(LxFunc0& func, LxCheckpoint0* checkpoint, const double* in,
                            double* out);

  // With keep-Hessian set, a run stores its final packed inverse Hessian when
  // the final gradient norm is below the one at which H was last (re)started.
  void SetKeepHessian(bool keep) { keepHessian_ = keep; }
  // The keep-Hessian flag as last set (off by default).
  bool GetKeepHessian() const { return keepHessian_; }
  // n * n for the n of the latest run (0 before any run).
  unsigned int GetHessianDimension() const { return n_ * n_; }
  // Copies n (n + 1) / 2 values of the kept packed inverse Hessian to out, as
  // they are stored (the kept matrix may be from an earlier, larger run).
  // False with a warning when none was kept, when n is not the latest run's
  // n, or when the kept matrix holds fewer values than that.
  bool GetInverseHessian(double* out, unsigned int n) const;

  // Turns the DIIS and subspace steps on or off (off by default).
  void SetHistory(bool on) { historyEnabled_ = on; }
  // The history flag as last set.
  bool GetHistory() const { return historyEnabled_; }

  // Declares the variables Cartesian coordinates (x, y, z per atom): the
  // inverse Hessian then starts, and restarts, from the inverse of a model
  // Hessian built from the interatomic distances at the current point
  // (springs between near atoms, stiffer the shorter they are) instead of the
  // identity; its energy scale is measured by the first step. Off by default;
  // ignored when the number of variables is not a multiple of 3.
  void SetCartesian(bool on) { cartesian_ = on; }
  // The Cartesian flag as last set.
  bool GetCartesian() const { return cartesian_; }

  // The elements of the atoms (atomic numbers, one per x, y, z triple) for
  // the model of SetCartesian: a pair's reference length is then the sum of
  // the two atoms' covalent radii (rescaled to the geometry, so no unit of
  // length is assumed) rather than the mean nearest-neighbour distance, and
  // bonds between different elements are weighted alike. Used only with
  // SetCartesian(true), for runs with 3 * atoms variables, and when every
  // number is in 1..96. The numbers are copied; null or 0 atoms clears them.
  void SetAtomicNumbers(const int* numbers, unsigned int atoms);
  // The atomic numbers as last set (empty when cleared).
  const std::vector<int>& GetAtomicNumbers() const { return atomicNumbers_; }

  // Hard limit on how far any atom (x, y, z triple; each coordinate when the
  // number of variables is not a multiple of 3) moves from the current point
  // in any trial of a cycle. 0 (the default) or a value that is not a
  // positive finite number: no limit beyond the growing trust radius.
  void SetMaxAtomStep(double limit) { maxAtomStep_ = limit; }
  // The limit as last set.
  double GetMaxAtomStep() const { return maxAtomStep_; }

  // Surrogate steps for expensive objectives: each cycle first tries the
  // minimum of a Gaussian-process model fitted to the values and gradients
  // seen (see above), and takes the line search only when that point is not
  // lower. Off by default.
  void SetSurrogate(bool on) { surrogate_ = on; }
  // The surrogate flag as last set.
  bool GetSurrogate() const { return surrogate_; }

  // Remembers a point: fsave = f, gsave = g, ssave = s, xsave = x (n values).
  static void store(double f, double& fsave, double g, double& gsave, const double* x,
                    double* xsave, double s, double& ssave, std::size_t n);

 private:
  // The cycles of one run on the point, gradient and value in run.
  void optimize(LxFunc1& func, LxCheckpoint1* checkpoint, geom::RunState& run);
  double Run(LxFunc1& func, LxCheckpoint1* checkpoint, const double* in, double* out);
  LxRunSummary lastRun_;

  unsigned int n_ = 0;  // variables of the latest run
  unsigned int iterLimit_ = kDefaultIterLimit;
  double tolerance_ = kDefaultTolerance;
  bool historyEnabled_ = false;
  // Kept packed inverse Hessian; empty until stored.
  std::vector<double> keptHessian_;
  bool keepHessian_ = false;
  bool cartesian_ = false;
  std::vector<int> atomicNumbers_;
  double maxAtomStep_ = 0.0;
  bool surrogate_ = false;
};

}  // namespace LxOpt

#endif  // LXOPT_GEOMOPT_H
