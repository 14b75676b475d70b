// Step cap of the geometry driver: a trust radius on the move of each atom.
// Geometry optimizers limit the Cartesian displacement per atom rather than
// the step's overall length, so one badly placed atom cannot drag the others
// far, and a large molecule is not slowed down by its size (for instance the
// per-atom limits of Baker, J. Comput. Chem. 7 (1986) 385, and of most
// quantum-chemistry drivers). The driver sees only a vector: it treats
// consecutive triples as atoms when n is a multiple of 3 and caps each
// coordinate otherwise. The radius starts at about a bond length and grows
// geometrically while searches end at it still going down, so problems on
// other scales lose only a few cycles.
#include <algorithm>
#include <cmath>
#include <limits>

#include "geomopt/geom_internal.h"

namespace LxOpt {
namespace geom {
namespace {

constexpr double kRadiusGrowth = 4.0;
constexpr double kMaxRadius = 1e12;

}  // namespace

double CappedStep(const double* dir, unsigned int n, double radius) {
  double largest = 0.0;  // largest squared move of an atom (or coordinate) per unit a
  if (n % 3 == 0) {
    for (unsigned int i = 0; i < n; i += 3)
      largest =
          std::max(largest, dir[i] * dir[i] + dir[i + 1] * dir[i + 1] + dir[i + 2] * dir[i + 2]);
  } else {
    for (unsigned int i = 0; i < n; ++i) largest = std::max(largest, dir[i] * dir[i]);
  }
  if (!(largest > 0.0)) return std::numeric_limits<double>::infinity();
  return radius / std::sqrt(largest);
}

double NextRadius(double radius, bool capped) {
  return capped ? std::min(kMaxRadius, radius * kRadiusGrowth) : radius;
}

bool WithinAtomStep(const double* a, const double* b, unsigned int n, double limit) {
  const unsigned int width = n % 3 == 0 ? 3 : 1;
  const double limit2 = limit * limit;
  for (unsigned int i = 0; i < n; i += width) {
    double moved2 = 0.0;
    for (unsigned int k = i; k < i + width; ++k) moved2 += (b[k] - a[k]) * (b[k] - a[k]);
    if (moved2 > limit2) return false;
  }
  return true;
}

}  // namespace geom
}  // namespace LxOpt
