// The sample-point store of the global minimum search: points with their
// values and gradients, the same-point tests and the attraction ellipsoids.
// Its notices (index dumps, sorted points) go to std::cerr, one line each;
// errors go to LxThrow.
#ifndef LXOPT_MINFINDER_SAMPLES_H
#define LXOPT_MINFINDER_SAMPLES_H

#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

#include "lxopt/function.h"
#include "lxopt/lxopt_export.h"
#include "lxopt/minfinder_generators.h"

namespace LxOpt {
namespace LxMinfinder {

// Points (coordinates, value, gradient) of one kind: the samples of a search
// cycle or the minima found. Besides the points it keeps
//  - the lowest value ever stored (Clear keeps it),
//  - per-variable same-point tolerances,
//  - the store-wide radius Rt: per variable, the running MEAN OF SQUARES of
//    start-to-minimum displacements (updateEllipsoidParemetersRt),
//  - for a minima store, per-minimum radii r_i: per variable, the running MEAN
//    OF ABSOLUTE displacements of the start points attracted to minimum i,
//    with a counter of those start points (updateMinima).
// Deliberate: the two radii are different statistics; both are used as radii
// (squared in the ellipsoid tests).
class LXOPT_API MinfinderSamplePoints {
 public:
  static constexpr unsigned long kReservedPoints = 1000;
  static constexpr double kSameValueTolerance = 0.0001;  // haveItAlready by value
  static constexpr double kEllipsoidThreshold = 0.1;
  static constexpr double kWideEllipsoidThreshold = 0.3;  // counter > 9
  static constexpr unsigned long kWideAfterAttracted = 9;

  // An empty store over 0 variables: call Setup first.
  MinfinderSamplePoints() = default;

  // Empties the store, sets n, fills the tolerances with tolerance, zeroes
  // Rt and its update count, reserves room for 1000 points.
  void Setup(unsigned int n, double tolerance);
  // Empties points, values, gradients, per-minimum radii and counters; the
  // lowest value, Rt and its update count are kept.
  void Clear();

  // When set (the default), addPoint refuses points outside the box.
  void SetCheckMinimumInRange(bool check) { checkInRange_ = check; }
  bool GetCheckMinimumInRange() const { return checkInRange_; }
  // The per-variable same-point tolerances (n values), copied out or in.
  void GetSamePointTolerance(std::vector<double>& tolerance) const { tolerance = tolerance_; }
  void SetSamePointTolerance(const std::vector<double>& tolerance) { tolerance_ = tolerance; }

  // Number of points stored and of variables per point.
  unsigned long getNumPoints() const { return numPoints_; }
  unsigned int getNumVar() const { return n_; }
  // The largest finite double until a point is stored.
  double getLowestValue() const { return lowest_; }
  // Number of Rt updates since Setup, and Rt itself (n values).
  unsigned long getUpdateCount() const { return updateCount_; }
  const std::vector<double>& GetRt() const { return rt_; }
  // Per-minimum radius vector (n values) and attracted counter of point i;
  // empty / 0 when updateMinima has not reached i.
  std::vector<double> GetMinimumRadii(unsigned long i) const;
  unsigned long GetAttractedCount(unsigned long i) const;

  // Appends (x, value, grad); with the range check set, refuses (false) a
  // point with any x_d outside [lower_d, upper_d] (both ends allowed; a
  // coordinate that is not a number is outside). Here and in replacePoint,
  // updateEllipsoidParemetersRt and updateMinima a vector shorter than n is
  // reported as an error and refused.
  bool addPoint(const std::vector<double>& x, double value, const std::vector<double>& grad,
                const std::vector<double>& lower, const std::vector<double>& upper);
  // Copy out point i (x and g are resized to n). An index >= the number of
  // points reports "index>= _numSamplePoint in getX!" (getY, getGrad alike),
  // leaves the output alone and returns false.
  bool getX(std::vector<double>& x, unsigned long i) const;
  bool getY(double& value, unsigned long i) const;
  bool getGrad(std::vector<double>& g, unsigned long i) const;
  // Overwrites point i; an index >= the number of points reports
  // "index>= _numSamplePoint in replacePoint!" and returns false. The lowest
  // value takes in the new value.
  bool replacePoint(unsigned long i, const std::vector<double>& x, double value,
                    const std::vector<double>& grad);
  // Asks generator for a point of the box into x (resized to n). A null
  // generator is an error; the generator's answer is returned.
  bool GetRandomSamplePoint(std::vector<double>& x, const std::vector<double>& lower,
                            const std::vector<double>& upper, GetRandomVariables* generator) const;

  // Euclidean distance over the n variables and its square; n = 0 gives 0.
  // Indices must be below getNumPoints() (not checked: inner-loop helpers).
  double CalcDistance(const double* a, const double* b) const;
  double CalcDistance(unsigned long i, const double* x) const;
  double CalcDistance(unsigned long i, unsigned long j) const;
  double CalcDistance2(const double* a, const double* b) const;
  double CalcDistance2(unsigned long i, const double* x) const;
  double CalcDistance2(unsigned long i, unsigned long j) const;

  // First stored point matching x: byCoordinates, |x_d - p_i,d| <= tolerance_d
  // for every d; otherwise |value - y_i| <= 0.0001. Sets index and returns
  // true; an empty store sets index 0 and returns false.
  bool haveItAlready(unsigned long& index, const std::vector<double>& x, double value,
                     bool byCoordinates) const;
  // keepDegenerate: point i matches when func.IsRedundant(x, p_i, tolerance)
  // (geometry decides); otherwise when |value - y_i| <= tolerance (equal
  // values merge). First match sets index; empty store: index 0, false.
  bool haveItAlready(unsigned long& index, const LxFunc1& func, double tolerance,
                     const std::vector<double>& x, double value, bool keepDegenerate) const;

  // Rt_d = (Rt_d k + (start_d - minimum_d)^2) / (k + 1), k = update count,
  // then k += 1. False (nothing changed) on an empty store.
  bool updateEllipsoidParemetersRt(const std::vector<double>& start,
                                   const std::vector<double>& minimum);
  // With c = counter[which]: r_which,d = (|start_d - minimum_d| + r_which,d c)
  // / (c + 1), counter[which] = c + 1. Radii and counters are first grown to
  // the number of points. False on an empty store; a bad index writes
  // "whichOne=" and "getNumPoints()=" lines to std::cerr, reports
  // "Bad whichOne in updateMinima!" and returns false.
  bool updateMinima(const std::vector<double>& start, const std::vector<double>& minimum,
                    unsigned long which);

  // Minima store only: true when s = sum_d (m_i,d - x_d)^2 / r_i,d^2 <= 0.1
  // (0.3 once minimum i has attracted 10 start points) for some minimum i.
  // A zero radius with any difference (or none: 0/0) leaves x outside. On a
  // store whose counters do not match its points, writes the two sizes to
  // std::cerr, reports "IsItInAnyEllipsoid function should be called on
  // minimums only!" and returns false.
  bool IsItInAnyEllipsoid(const double* x) const;
  // True when sum_d (p_i,d - x_d)^2 / Rt_d^2 <= t for some stored point.
  bool IsItInAnyEllipsoidRt(const double* x, double t) const;

  // The points in ascending order of value, one line each to std::cerr:
  // index, coordinates, value. The second form prints only values <= bound.
  void PrintSortedPoints() const;
  void PrintSortedPoints(double bound) const;

  // Read-only view of point i's n coordinates / gradient (i < getNumPoints()).
  const double* PointData(unsigned long i) const { return coords_.data() + i * n_; }
  const double* GradientData(unsigned long i) const { return grads_.data() + i * n_; }
  // Grows on every change of stored coordinates other than an append
  // (Setup, Clear, replacePoint), so that caches over the points can tell
  // when they went stale.
  std::uint64_t Generation() const { return generation_; }

 private:
  bool IndexError(unsigned long i, const char* where) const;
  bool TooShort(std::size_t size, const char* where) const;
  void GrowMinimaRecords();
  void PrintSorted(bool bounded, double bound) const;

  bool checkInRange_ = true;
  unsigned long numPoints_ = 0;
  unsigned long updateCount_ = 0;
  unsigned int n_ = 0;
  double lowest_ = std::numeric_limits<double>::max();
  std::vector<double> coords_;
  std::vector<double> values_;
  std::vector<double> grads_;
  std::vector<double> tolerance_;
  std::vector<double> rt_;
  std::vector<double> radii_;
  std::vector<unsigned long> attracted_;
  std::uint64_t generation_ = 0;
};

}  // namespace LxMinfinder
}  // namespace LxOpt

#endif  // LXOPT_MINFINDER_SAMPLES_H
