// Objectives over Cartesian coordinates (LxCoordFunc1), the rigid-body pose
// adaptor that moves them with a quaternion and a translation
// (LxCoordQuatAdapt1), and a ready-made test objective (LxTestF).
#ifndef LXOPT_COORDFUNC_H
#define LXOPT_COORDFUNC_H

#include <memory>
#include <vector>

#include "lxopt/function.h"
#include "lxopt/lxopt_export.h"
#include "lxopt/optimizer.h"

namespace LxOpt {

// An objective over the coordinates of NumCoords() points: the variables are
// x, y, z of each point in turn, so NumVar() is 3 * NumCoords().
class LXOPT_API LxCoordFunc1 : public LxFunc1 {
 public:
  using LxFunc1::operator();
  // 3 * NumCoords(); derived classes keep that meaning.
  unsigned int NumVar() const override { return 3 * NumCoords(); }
  // Exactly one component: { Name(), value at x } (one value evaluation).
  std::vector<LxFComponent> GetFComponents(const double* x) override;

  // Zero-terminated name of the objective.
  virtual const char* Name() const = 0;
  // Number of points.
  virtual unsigned int NumCoords() const = 0;
  // A new objective, owned by the caller, that evaluates like this one.
  virtual LxCoordFunc1* CreateCopy() const = 0;

  // Conveniences over growable arrays; neither checks nor resizes: each array
  // must hold NumVar() elements. The second writes the gradient into grad.
  double operator()(const std::vector<double>& x) { return (*this)(x.data()); }
  double operator()(const std::vector<double>& x, std::vector<double>& grad) {
    return (*this)(x.data(), grad.data());
  }
};

// Turns an LxCoordFunc1 over N points into an objective of 7 variables that
// move the points as one rigid body:
//   v = (q0, q1, q2, q3, tx, ty, tz),
// q a quaternion (q0 the scalar part, any non-zero length) and t a
// translation. The points are the reference coordinates rotated by q and
// then shifted by t (see ApplyTransform).
class LXOPT_API LxCoordQuatAdapt1 : public LxFunc1 {
 public:
  // Holds its own f.CreateCopy(); the caller's f may die afterwards.
  // ref: the reference coordinates, 3N doubles (N = f.NumCoords()), copied.
  LxCoordQuatAdapt1(const LxCoordFunc1& f, const double* ref);
  LxCoordQuatAdapt1(const LxCoordFunc1& f, const std::vector<double>& ref);
  // Borrows *f (not null): the caller keeps it alive as long as the adaptor.
  LxCoordQuatAdapt1(LxCoordFunc1* f, const double* ref);
  LxCoordQuatAdapt1(LxCoordFunc1* f, const std::vector<double>& ref);
  // A copy holds f's CreateCopy(): its own copy for an owning adaptor, a
  // further reference to the same objective for a borrowing one.
  LxCoordQuatAdapt1(const LxCoordQuatAdapt1& other);
  // Takes other's reference coordinates and its objective's CreateCopy(), as
  // the copy constructor does.
  LxCoordQuatAdapt1& operator=(const LxCoordQuatAdapt1& other);
  ~LxCoordQuatAdapt1() override;

  using LxFunc1::operator();
  // Always 7: four quaternion and three translation components.
  unsigned int NumVar() const override { return 7; }
  // The held objective's value at the reference coordinates moved by v. A
  // zero quaternion collapses every point onto t (no message).
  double operator()(const double* v) override;
  // Value, and the gradient with respect to v added into grad (zeroed by the
  // caller). The quaternion part has no component along q, since the value
  // does not depend on q's length. A zero quaternion warns
  // "Q == 0.0 in quat adaptor", sets all 7 components to 0 and returns 0.0.
  double operator()(const double* v, double* grad) override;
  // One component named by the held objective's Name(): the value at v.
  std::vector<LxFComponent> GetFComponents(const double* v) override;

  // Moves count points (3 * count doubles, in place) by v: q is scaled to
  // unit length (unless zero), turned into the rotation matrix
  //   | a²+b²-c²-d²   2(bc-ad)      2(ac+bd)    |
  //   | 2(bc+ad)      a²-b²+c²-d²   2(cd-ab)    |
  //   | 2(bd-ac)      2(cd+ab)      a²-b²-c²+d² |
  // with (a, b, c, d) = q, which is applied to every point before t is added.
  // The zero quaternion gives the zero matrix.
  static void ApplyTransform(double* coords, unsigned int count, const double* v);
  // The same over growable arrays: count = coords.size() / 3, v of 7 doubles.
  static void ApplyTransform(std::vector<double>& coords, const double* v);
  static void ApplyTransform(std::vector<double>& coords, const std::vector<double>& v);

  // Minimizes this adaptor with opt from v (7 doubles) and leaves the result
  // in v. Returns -(the minimum value the optimizer found).
  double Minimize(double* v, LxOptimizer1& opt);
  // Maximizes (minimizes the negated adaptor) from v and leaves the result in
  // v. Returns the maximum value.
  double Maximize(double* v, LxOptimizer1& opt);
  // The same over a growable array's data (its size is not checked).
  double Minimize(std::vector<double>& v, LxOptimizer1& opt);
  double Maximize(std::vector<double>& v, LxOptimizer1& opt);

 private:
  void SetReference(const double* ref);

  std::unique_ptr<LxCoordFunc1> func_;
  std::vector<double> reference_;  // 3N, fixed after construction
  std::vector<double> working_;    // 3N, the moved points
  std::vector<double> coordGrad_;  // 3N, gradient over the moved points
};

// A chained curved valley of n variables with its unique minimum 0 at
// (1, ..., 1):
//   f(x) = 4 (0.25 (x0 - 1)² + sum_{i=1}^{n-1} (x_i - x_{i-1}²)²).
// The value needs n >= 1 and the gradient n >= 2; neither is checked.
class LXOPT_API LxTestF : public LxFunc1 {
 public:
  // n: the number of variables.
  explicit LxTestF(unsigned int n);
  // Copies n.
  LxTestF(const LxTestF& other);
  LxTestF& operator=(const LxTestF& other);
  ~LxTestF() override;

  using LxFunc1::operator();
  unsigned int NumVar() const override { return *n_; }
  // f(x) for the n variables at x.
  double operator()(const double* x) override;
  // Writes (does not add) the gradient and returns f(x).
  double operator()(const double* x, double* grad) override;
  // One component, "Test function", holding f(x).
  std::vector<LxFComponent> GetFComponents(const double* x) override;

 private:
  std::unique_ptr<unsigned int> n_;  // kept in its own allocation
};

}  // namespace LxOpt

#endif  // LXOPT_COORDFUNC_H
