// The point store of the minimum finder: points, values, gradients, the
// store-wide radius Rt and the per-minimum radii with their counters.
#include <algorithm>
#include <cmath>
#include <iostream>
#include <numeric>

#include "lxopt/minfinder_samples.h"

namespace LxOpt {
namespace LxMinfinder {

void MinfinderSamplePoints::Setup(unsigned int n, double tolerance) {
  n_ = n;
  numPoints_ = 0;
  updateCount_ = 0;
  coords_.clear();
  values_.clear();
  grads_.clear();
  radii_.clear();
  attracted_.clear();
  coords_.reserve(kReservedPoints * n);
  grads_.reserve(kReservedPoints * n);
  values_.reserve(kReservedPoints);
  tolerance_.assign(n, tolerance);
  rt_.assign(n, 0.0);
  ++generation_;
}

void MinfinderSamplePoints::Clear() {
  // The lowest value, Rt and its update count survive a Clear.
  numPoints_ = 0;
  coords_.clear();
  values_.clear();
  grads_.clear();
  radii_.clear();
  attracted_.clear();
  ++generation_;
}

std::vector<double> MinfinderSamplePoints::GetMinimumRadii(unsigned long i) const {
  if (i >= attracted_.size()) return {};
  return std::vector<double>(radii_.begin() + i * n_, radii_.begin() + (i + 1) * n_);
}

unsigned long MinfinderSamplePoints::GetAttractedCount(unsigned long i) const {
  return i < attracted_.size() ? attracted_[i] : 0;
}

bool MinfinderSamplePoints::IndexError(unsigned long i, const char* where) const {
  if (i < numPoints_) return false;
  LxThrow.Error("index>= _numSamplePoint in %s!", where);
  return true;
}

bool MinfinderSamplePoints::TooShort(std::size_t size, const char* where) const {
  if (size >= n_) return false;
  LxThrow.Error("Vector of %u entries given to %s, which needs %u!", static_cast<unsigned>(size),
                where, n_);
  return true;
}

bool MinfinderSamplePoints::addPoint(const std::vector<double>& x, double value,
                                     const std::vector<double>& grad,
                                     const std::vector<double>& lower,
                                     const std::vector<double>& upper) {
  if (TooShort(x.size(), "addPoint") || TooShort(grad.size(), "addPoint")) return false;
  if (checkInRange_) {
    if (TooShort(lower.size(), "addPoint") || TooShort(upper.size(), "addPoint")) return false;
    for (unsigned int d = 0; d < n_; ++d)
      if (!(lower[d] <= x[d] && x[d] <= upper[d])) return false;
  }
  coords_.insert(coords_.end(), x.begin(), x.begin() + n_);
  grads_.insert(grads_.end(), grad.begin(), grad.begin() + n_);
  values_.push_back(value);
  lowest_ = std::min(lowest_, value);
  ++numPoints_;
  return true;
}

bool MinfinderSamplePoints::getX(std::vector<double>& x, unsigned long i) const {
  if (IndexError(i, "getX")) return false;
  x.assign(PointData(i), PointData(i) + n_);
  return true;
}

bool MinfinderSamplePoints::getY(double& value, unsigned long i) const {
  if (IndexError(i, "getY")) return false;
  value = values_[i];
  return true;
}

bool MinfinderSamplePoints::getGrad(std::vector<double>& g, unsigned long i) const {
  if (IndexError(i, "getGrad")) return false;
  g.assign(GradientData(i), GradientData(i) + n_);
  return true;
}

bool MinfinderSamplePoints::replacePoint(unsigned long i, const std::vector<double>& x,
                                         double value, const std::vector<double>& grad) {
  if (IndexError(i, "replacePoint")) return false;
  if (TooShort(x.size(), "replacePoint") || TooShort(grad.size(), "replacePoint")) return false;
  std::copy(x.begin(), x.begin() + n_, coords_.begin() + i * n_);
  std::copy(grad.begin(), grad.begin() + n_, grads_.begin() + i * n_);
  values_[i] = value;
  lowest_ = std::min(lowest_, value);
  ++generation_;
  return true;
}

bool MinfinderSamplePoints::GetRandomSamplePoint(std::vector<double>& x,
                                                 const std::vector<double>& lower,
                                                 const std::vector<double>& upper,
                                                 GetRandomVariables* generator) const {
  if (generator == nullptr) {
    LxThrow.Error("No random point generator given to GetRandomSamplePoint!");
    return false;
  }
  const std::size_t size = std::max<std::size_t>(n_, lower.size());
  // Room for four while drawing: a pose generator writes a whole quaternion
  // even for fewer variables.
  x.resize(std::max<std::size_t>(size, 4));
  const bool drawn = (*generator)(x.data(), lower, upper);
  x.resize(size);
  return drawn;
}

double MinfinderSamplePoints::CalcDistance2(const double* a, const double* b) const {
  double sum = 0.0;
  for (unsigned int d = 0; d < n_; ++d) sum += (a[d] - b[d]) * (a[d] - b[d]);
  return sum;
}

double MinfinderSamplePoints::CalcDistance2(unsigned long i, const double* x) const {
  return CalcDistance2(PointData(i), x);
}

double MinfinderSamplePoints::CalcDistance2(unsigned long i, unsigned long j) const {
  return CalcDistance2(PointData(i), PointData(j));
}

double MinfinderSamplePoints::CalcDistance(const double* a, const double* b) const {
  return std::sqrt(CalcDistance2(a, b));
}

double MinfinderSamplePoints::CalcDistance(unsigned long i, const double* x) const {
  return std::sqrt(CalcDistance2(i, x));
}

double MinfinderSamplePoints::CalcDistance(unsigned long i, unsigned long j) const {
  return std::sqrt(CalcDistance2(i, j));
}

bool MinfinderSamplePoints::haveItAlready(unsigned long& index, const std::vector<double>& x,
                                          double value, bool byCoordinates) const {
  index = 0;
  for (unsigned long i = 0; i < numPoints_; ++i) {
    bool same = true;
    if (byCoordinates) {
      const double* p = PointData(i);
      for (unsigned int d = 0; d < n_ && same; ++d) same = std::fabs(x[d] - p[d]) <= tolerance_[d];
    } else {
      same = std::fabs(value - values_[i]) <= kSameValueTolerance;
    }
    if (same) {
      index = i;
      return true;
    }
  }
  return false;
}

bool MinfinderSamplePoints::haveItAlready(unsigned long& index, const LxFunc1& func,
                                          double tolerance, const std::vector<double>& x,
                                          double value, bool keepDegenerate) const {
  index = 0;
  for (unsigned long i = 0; i < numPoints_; ++i) {
    const bool same = keepDegenerate ? func.IsRedundant(x.data(), PointData(i), tolerance)
                                     : std::fabs(value - values_[i]) <= tolerance;
    if (same) {
      index = i;
      return true;
    }
  }
  return false;
}

bool MinfinderSamplePoints::updateEllipsoidParemetersRt(const std::vector<double>& start,
                                                        const std::vector<double>& minimum) {
  if (numPoints_ == 0) return false;
  if (TooShort(start.size(), "updateEllipsoidParemetersRt") ||
      TooShort(minimum.size(), "updateEllipsoidParemetersRt"))
    return false;
  // Rt_d = (Rt_d k + (start_d - minimum_d)^2) / (k + 1): mean of squares.
  const double k = static_cast<double>(updateCount_);
  for (unsigned int d = 0; d < n_; ++d) {
    const double step = start[d] - minimum[d];
    rt_[d] = (rt_[d] * k + step * step) / (k + 1.0);
  }
  ++updateCount_;
  return true;
}

void MinfinderSamplePoints::GrowMinimaRecords() {
  radii_.resize(static_cast<std::size_t>(numPoints_) * n_, 0.0);
  attracted_.resize(numPoints_, 0);
}

bool MinfinderSamplePoints::updateMinima(const std::vector<double>& start,
                                         const std::vector<double>& minimum, unsigned long which) {
  if (numPoints_ == 0) return false;
  if (which >= numPoints_) {
    std::cerr << "whichOne=" << which << "\n";
    std::cerr << "getNumPoints()=" << numPoints_ << "\n";
    LxThrow.Error("Bad whichOne in updateMinima!");
    return false;
  }
  if (TooShort(start.size(), "updateMinima") || TooShort(minimum.size(), "updateMinima"))
    return false;
  GrowMinimaRecords();
  // Deliberate: a running mean of ABSOLUTE displacements, unlike the mean of
  // squares kept in Rt; the two statistics stay different.
  const double c = static_cast<double>(attracted_[which]);
  double* r = radii_.data() + which * n_;
  for (unsigned int d = 0; d < n_; ++d)
    r[d] = (std::fabs(start[d] - minimum[d]) + r[d] * c) / (c + 1.0);
  ++attracted_[which];
  return true;
}

bool MinfinderSamplePoints::IsItInAnyEllipsoid(const double* x) const {
  if (attracted_.size() != numPoints_) {
    std::cerr << "_attractedCounter.size()=" << attracted_.size() << "\n";
    std::cerr << "_numSamplePoint=" << numPoints_ << "\n";
    LxThrow.Error("IsItInAnyEllipsoid function should be called on minimums only!");
    return false;
  }
  for (unsigned long i = 0; i < numPoints_; ++i) {
    const double threshold =
        attracted_[i] > kWideAfterAttracted ? kWideEllipsoidThreshold : kEllipsoidThreshold;
    const double* m = PointData(i);
    const double* r = radii_.data() + i * n_;
    // s = sum (m_d - x_d)^2 / r_d^2; a zero radius gives inf or NaN: outside.
    double s = 0.0;
    for (unsigned int d = 0; d < n_; ++d) s += (m[d] - x[d]) * (m[d] - x[d]) / (r[d] * r[d]);
    if (s <= threshold) return true;
  }
  return false;
}

bool MinfinderSamplePoints::IsItInAnyEllipsoidRt(const double* x, double t) const {
  for (unsigned long i = 0; i < numPoints_; ++i) {
    const double* p = PointData(i);
    double s = 0.0;
    for (unsigned int d = 0; d < n_; ++d) s += (p[d] - x[d]) * (p[d] - x[d]) / (rt_[d] * rt_[d]);
    if (s <= t) return true;
  }
  return false;
}

void MinfinderSamplePoints::PrintSorted(bool bounded, double bound) const {
  std::vector<unsigned long> order(numPoints_);
  std::iota(order.begin(), order.end(), 0ul);
  std::stable_sort(order.begin(), order.end(),
                   [this](unsigned long a, unsigned long b) { return values_[a] < values_[b]; });
  for (unsigned long i : order) {
    if (bounded && !(values_[i] <= bound)) break;
    std::cerr << i;
    for (unsigned int d = 0; d < n_; ++d) std::cerr << "   " << PointData(i)[d];
    std::cerr << "   " << values_[i] << "\n";
  }
}

void MinfinderSamplePoints::PrintSortedPoints() const {
  PrintSorted(false, 0.0);
}

void MinfinderSamplePoints::PrintSortedPoints(double bound) const {
  PrintSorted(true, bound);
}

}  // namespace LxMinfinder
}  // namespace LxOpt
