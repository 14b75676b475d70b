// Gaussian-process surrogate of the objective for the geometry driver: the
// next point is the minimum of the model's mean, found without calling the
// objective. Not part of the public interface.
#ifndef LXOPT_SRC_GEOMOPT_SURROGATE_STEP_H
#define LXOPT_SRC_GEOMOPT_SURROGATE_STEP_H

#include <cstddef>

namespace LxOpt {
namespace geom {

// Squared-exponential kernel k = s^2 exp(-|x - x'|^2 / (2 l^2)) over values
// and gradients; constant prior mean, the largest value seen. The length l
// is a share of the mean nearest-neighbour distance (Cartesian coordinates)
// or of the RMS coordinate, the energy scale s is l times the largest atomic
// gradient at the start, so no unit is assumed. The model keeps the latest
// SurrogatePoints(n) points.
class Surrogate {
 public:
  static std::size_t ScratchSize(unsigned int n);

  // scratch: ScratchSize(n) doubles (null: an unusable model, never started).
  Surrogate(unsigned int n, double* scratch);

  // Sets the scales from the start point x and its gradient g and clears
  // the data.
  void Start(const double* x, const double* g);
  // Adds a point, its value and gradient (the oldest point leaves when full).
  void Add(const double* x, double f, const double* g);
  // True when the model holds as many points as it can.
  bool Full() const { return count_ == capacity_; }
  // Minimises the model's mean from x (the best point seen), the move capped
  // per atom, and writes the point to xTrial. False when the model cannot be
  // factored, the scales are not usable or the model predicts no decrease.
  bool Propose(const double* x, const double* g, double* xTrial);

 private:
  bool Refactor();
  bool ExtendFactor(unsigned int firstPoint);
  // Model mean at u (scaled coordinates) and its gradient.
  double Mean(const double* u, double* grad) const;
  void MinimiseMean(double* u);

  unsigned int n_;
  unsigned int capacity_;
  unsigned int count_ = 0;
  unsigned int factored_ = 0;  // points whose rows of L are valid
  double length_ = 0.0;
  double weight_ = 0.0;
  double prior_ = 0.0;
  double noise_ = 0.0;
  bool usable_ = false;
  double* points_ = nullptr;  // capacity n, scaled by 1 / length_
  double* values_ = nullptr;  // capacity (n + 1): f, then g (raw)
  double* chol_ = nullptr;    // N x N row-major lower factor, N = capacity (n + 1)
  double* alpha_ = nullptr;   // N
  double* work_ = nullptr;    // inner minimisation: 6 n + 2 kInnerMemory n + 2 kInnerMemory
};

}  // namespace geom
}  // namespace LxOpt

#endif  // LXOPT_SRC_GEOMOPT_SURROGATE_STEP_H
