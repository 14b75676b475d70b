// Step generation of the geometry BFGS driver: packed inverse-Hessian
// algebra, the step cap and the history (DIIS and subspace) steps.
// Not part of the public interface.
#ifndef LXOPT_SRC_GEOMOPT_GEOM_INTERNAL_H
#define LXOPT_SRC_GEOMOPT_GEOM_INTERNAL_H

#include <cstddef>
#include <vector>

#include "framework/packed.h"
#include "lxopt/function.h"
#include "lxopt/linmin.h"

namespace LxOpt {
namespace geom {

class Surrogate;

// ------------------------------------------------ packed inverse Hessian
// Lower triangle by rows (framework/packed.h).

// h = scale * I
void ResetInverseHessian(double* h, unsigned int n, double scale);
// out = H v (matxvec)
void MatXVec(const double* h, const double* v, double* out, unsigned int n);
// H = factor * H
void ScaleInverseHessian(double* h, unsigned int n, double factor);
// Shanno-Phua initial scaling: H = (s.y / y.Hy) H, applied to the starting H
// (the identity or a model) before its first update; hy: scratch of n
// doubles. False (H unchanged) when the factor is not a positive finite
// number.
bool ShannoPhuaScale(double* h, const double* s, const double* y, double* hy, unsigned int n);
// Restricted self-scaling: the factor tau = max(1, s.y / y.Hy) by which H is
// scaled before an update, so that H y is no shorter than the step s says
// (an H that underestimates the inverse curvature along y is enlarged, one
// that overestimates it is left to the update). 1 when s.y / y.Hy is not a
// finite number above 1.
double SelfScaleFactor(double sy, double yhy);
// BFGS update of the inverse Hessian with the step s and gradient change y,
// after H = tau H (SelfScaleFactor) when selfScale is set:
//   H+ = H + (1 + y.Hy / s.y) s s^T / s.y - (Hy s^T + s (Hy)^T) / s.y
// hy is scratch of n doubles. When s.y < 0.2 y.Hy, s is first replaced by the
// damped s = theta s + (1 - theta) H y with s.y = 0.2 y.Hy (Powell's damping
// in its inverse form), so H stays positive definite. Skipped (returns false,
// H unchanged) when y or H y vanish or are not finite.
bool UpdateInverseHessian(double* h, double* s, const double* y, double* hy, unsigned int n,
                          bool selfScale);

// ------------------------------------------------ step cap (trust radius)

// Largest multiple a of dir whose move a dir keeps every atom (consecutive
// x, y, z triple) within radius of where it is; when n is not a multiple of
// 3, every single coordinate. Infinite when dir is zero.
double CappedStep(const double* dir, unsigned int n, double radius);

// Radius of the cap at the start of a run: about one bond length in reduced
// (Lennard-Jones) units, well above a typical relaxation step.
constexpr double kInitialRadius = 1.0;
// The radius of the cap for the next cycle: four times larger (up to 1e12)
// when the last search ended at the cap while still going down, else
// unchanged.
double NextRadius(double radius, bool capped);
// True when no atom (triple, or coordinate when n is not a multiple of 3)
// of b lies farther than limit from its place in a.
bool WithinAtomStep(const double* a, const double* b, unsigned int n, double limit);

// ------------------------------------------------ history steps

// The last `count` points and gradients, newest at slot (next - 1) mod m.
struct History {
  double* points;     // m * n
  double* gradients;  // m * n
  double* coef;       // m
  unsigned int m;
  unsigned int n;
  unsigned int count;
  unsigned int next;
};

void PushHistory(History& history, const double* x, const double* g);
inline void ClearHistory(History& history) {
  history.count = 0;
  history.next = 0;
}

// GDIIS: coefficients c (sum 1) minimising |sum c_i g_i|, then the point
// sum c_i x_i - H sum c_i g_i, written to xTrial. work: 2 n doubles. False when
// fewer than 3 entries are stored, the system is singular, a coefficient is
// implausibly large or the point lies more than maxStep (per coordinate) away
// from x.
bool DiisPoint(History& history, const double* h, const double* x, double* xTrial, double* work,
               double maxStep);

// Quasi-Newton step in the span of the displacements S = x - x_i of the
// stored points: with Y = g - g_i, solve sym(S^T Y) c = -S^T g and write
// x + S c to xTrial. False when fewer than 3 entries are stored, the reduced
// matrix is not positive definite or the step exceeds maxStep per coordinate.
bool SubspacePoint(const History& history, const double* x, const double* g, double* xTrial,
                   double maxStep);

// ------------------------------------------------ one run

// The buffers of one driver run: the point x, its gradient g and value f,
// and, with history, the stored points, gradients and coefficients.
struct RunState {
  RunState(unsigned int n, bool withHistory);
  std::vector<double> buffer;
  double* x;
  double* g;
  double f = 0.0;
  History history;
};

// ------------------------------------------------ one cycle's step

enum class StepStatus {
  kLowered,   // x, g and f now hold a lower point
  kNotFound,  // no lower point, even along -g from a restarted H
  kEnded,     // no direction can be formed: the gradient is zero or not finite
};

// Produces each cycle's move on the driver's point x, gradient g and value f:
// d = -H g (a direction that is not downhill restarts H), the line search,
// a restart of H and a second search along -g when a search from an updated
// H fails, the BFGS update, and, with a history, the DIIS or subspace step.
class CycleStep {
 public:
  // Doubles of scratch the object needs.
  static std::size_t ScratchSize(unsigned int n, bool cartesian);

  // scratch: ScratchSize(n, cartesian) doubles. history: null when history is
  // off. cartesian: H starts (and restarts) from the inverse of the pair
  // model Hessian at the current point (pair_model.h) instead of the
  // identity, when n is a multiple of 3. atomicNumbers: null, or one per
  // atom (n / 3) for the model's reference lengths; ignored when one is not
  // a known element.
  CycleStep(LxFunc1& func, unsigned int n, double* x, double* g, double& f, double* scratch,
            History* history, bool cartesian, const int* atomicNumbers = nullptr);

  // With a surrogate (surrogate_step.h), each cycle first tries the minimum
  // of the model fitted to the points seen, and falls back to the line
  // search when that point is not lower.
  void SetSurrogate(Surrogate* surrogate);

  // One cycle. On kLowered, displacement = |x_new - x_old|.
  StepStatus Take(double accuracy, double& displacement);

  // Makes limit (> 0) a hard cap on every atom's move from the current point
  // in every trial: the radius starts at no more than limit and never grows
  // beyond it. Call before the first Take.
  void CapAtomStep(double limit);

  const double* InverseHessian() const { return h_; }
  // |g| when H was last set to the identity.
  double RestartGradientNorm() const { return restartGnorm_; }

 private:
  void Restart();
  // Rebuilds the model at the current point once an atom has moved farther
  // than a share of the nearest-neighbour distance since it was built:
  // H = gamma P^-1 with gamma = s.y / y.P^-1 y of the last step.
  void RefreshModel();
  // The capped line search along dir; on success step and fNew are the
  // accepted step and value, the gradient is in gBest.
  bool Search(double accuracy, double& step, double& fNew);
  // Takes the accepted point of a search: x += step dir, g = gBest, f = fNew.
  void Move(double step, double fNew);
  // BFGS update from the move xOld -> x, gOld -> g; scales H first after a
  // restart (Shanno-Phua) and self-scales it in the first n updates.
  void Update();
  void TryHistoryStep();
  // Up to kSurrogateTries model minima; true once one is lower (and taken).
  bool TrySurrogate();
  // Takes the evaluated trial point (xt, ft, gt) as the new point and
  // updates the inverse Hessian with the step.
  void AcceptTrial(double ft);
  // Moves the trial point xt toward x until no atom moves farther than the
  // hard limit (uses dir as scratch).
  void PullWithinAtomStep();
  // Moves to xTrial (in xt) when its value is lower than f.
  bool TryPoint();

  LxFunc1& func_;
  LxMoreThuenteLineMinimize lineSearch_;
  unsigned int n_;
  double* x_;
  double* g_;
  double& f_;
  History* history_;
  Surrogate* surrogate_ = nullptr;
  unsigned int surrogateMisses_ = 0;  // cycles in a row the surrogate found nothing lower
  double* h_;
  double* dir_;
  double* xStart_;
  double* xOld_;
  double* gOld_;
  double* s_;
  double* y_;
  double* hy_;
  double* xt_;
  double* gt_;  // xt_ + n: the line search's trial point and gradient
  double* gBest_;
  double* historyWork_;      // 2 n
  double* model_;            // pair model factor (n n + n), null unless cartesian
  double* xModel_;           // point the model was built at (n), with model_
  double* pairS_;            // the last kModelPairs steps s (m n), with model_
  double* pairY_;            // and their gradient changes y (m n)
  double* radii_ = nullptr;  // covalent radius per atom (n / 3), null without elements
  unsigned int pairCapacity_ = 0;
  unsigned int pairCount_ = 0;
  unsigned int pairNext_ = 0;
  double modelNearest_ = 0.0;
  bool fresh_ = true;         // H was (re)started and has not been updated since
  unsigned int updates_ = 0;  // updates since H was (re)started
  double restartGnorm_ = 0.0;
  double radius_ = kInitialRadius;  // step cap per atom
  double radiusLimit_ = 0.0;        // hard cap on radius_, 0 when off
};

}  // namespace geom
}  // namespace LxOpt

#endif  // LXOPT_SRC_GEOMOPT_GEOM_INTERNAL_H
