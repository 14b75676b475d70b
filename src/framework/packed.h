// Indexing of packed symmetric matrices: the lower triangle stored by rows,
// element (i, j) with j <= i at i (i + 1) / 2 + j. Every packed Hessian and
// inverse Hessian of the library uses this layout.
#ifndef LXOPT_SRC_FRAMEWORK_PACKED_H
#define LXOPT_SRC_FRAMEWORK_PACKED_H

#include <cstddef>

namespace LxOpt {
namespace packed {

// Number of stored values for n variables: n (n + 1) / 2.
inline std::size_t Size(std::size_t n) {
  return n * (n + 1) / 2;
}

// Offset of row i (its element (i, 0)).
inline std::size_t RowStart(std::size_t i) {
  return i * (i + 1) / 2;
}

// Offset of element (i, j), j <= i.
inline std::size_t Index(std::size_t i, std::size_t j) {
  return RowStart(i) + j;
}

// Offset of element (i, j) in either order.
inline std::size_t SymmetricIndex(std::size_t i, std::size_t j) {
  return i >= j ? Index(i, j) : Index(j, i);
}

}  // namespace packed
}  // namespace LxOpt

#endif  // LXOPT_SRC_FRAMEWORK_PACKED_H
