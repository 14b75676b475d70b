// RMSD between two point sets, optionally after optimal superposition.
// Superposition follows Kabsch: centre both sets, take the SVD of the 3 x 3
// weighted covariance H = sum w (b - cb)(a - ca)^T = U S V^T, and rotate b by
// R = V diag(1, 1, d) U^T with d = sign(det(V U^T)) so that R is proper.
#include <Eigen/Dense>
#include <cmath>

#include "lxopt/host.h"

namespace LxOpt {
namespace {

using Point = Eigen::Vector3d;

Point PointAt(const double* coords, unsigned int k) {
  return Point(coords[3 * k], coords[3 * k + 1], coords[3 * k + 2]);
}

double WeightAt(const double* weights, unsigned int k) {
  return weights != nullptr ? weights[k] : 1.0;
}

Point Centroid(const double* coords, const double* weights, unsigned int count,
               double totalWeight) {
  Point sum = Point::Zero();
  for (unsigned int k = 0; k < count; ++k) sum += WeightAt(weights, k) * PointAt(coords, k);
  return sum / totalWeight;
}

void StoreRowMajor(const Eigen::Matrix3d& r, double* out) {
  if (out == nullptr) return;
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) out[3 * i + j] = r(i, j);
}

}  // namespace

double LxRMSD(const double* a, const double* b, unsigned int count, bool superpose,
              const double* weights, double* rotation) {
  StoreRowMajor(Eigen::Matrix3d::Identity(), rotation);
  if (count == 0) return 0.0;
  double totalWeight = 0.0;
  for (unsigned int k = 0; k < count; ++k) totalWeight += WeightAt(weights, k);

  Point ca = Point::Zero(), cb = Point::Zero();
  Eigen::Matrix3d r = Eigen::Matrix3d::Identity();
  if (superpose) {
    ca = Centroid(a, weights, count, totalWeight);
    cb = Centroid(b, weights, count, totalWeight);
    Eigen::Matrix3d h = Eigen::Matrix3d::Zero();
    for (unsigned int k = 0; k < count; ++k)
      h += WeightAt(weights, k) * (PointAt(b, k) - cb) * (PointAt(a, k) - ca).transpose();
    Eigen::JacobiSVD<Eigen::Matrix3d> svd(h, Eigen::ComputeFullU | Eigen::ComputeFullV);
    Eigen::Matrix3d d = Eigen::Matrix3d::Identity();
    d(2, 2) = (svd.matrixV() * svd.matrixU().transpose()).determinant() < 0.0 ? -1.0 : 1.0;
    r = svd.matrixV() * d * svd.matrixU().transpose();
    StoreRowMajor(r, rotation);
  }

  double sum = 0.0;
  for (unsigned int k = 0; k < count; ++k) {
    const Point diff = (PointAt(a, k) - ca) - r * (PointAt(b, k) - cb);
    sum += WeightAt(weights, k) * diff.squaredNorm();
  }
  return std::sqrt(sum / totalWeight);
}

}  // namespace LxOpt
