// Rotation of a coordinate array by a row-major 3 x 3 matrix.
#include "lxopt/host.h"

namespace LxOpt {

void LxGeom3DRotate(double* coords, unsigned int count, const double* m) {
  for (unsigned int k = 0; k < count; ++k) {
    double* p = coords + 3 * static_cast<std::size_t>(k);
    const double x = p[0], y = p[1], z = p[2];
    p[0] = m[0] * x + m[1] * y + m[2] * z;
    p[1] = m[3] * x + m[4] * y + m[5] * z;
    p[2] = m[6] * x + m[7] * y + m[8] * z;
  }
}

}  // namespace LxOpt
