// Stack-or-heap scratch blocks.
#include <cstdlib>
#include <limits>

#include "lxopt/host.h"

namespace LxOpt {

std::size_t LxGetAllocaThreshold() {
  return kLxAllocaThreshold;
}

void* LxMallocaPtr::Allocate(std::size_t bytes) {
  Release();
  if (bytes <= LxGetAllocaThreshold() - kLxAllocaSlack) {
    block_ = local_;
    return block_;
  }
  heap_ = std::malloc(bytes);
  block_ = heap_;
  return block_;
}

double* LxMallocaPtr::AllocateDoubles(std::size_t count) {
  if (count > std::numeric_limits<std::size_t>::max() / sizeof(double)) {
    Release();
    return nullptr;
  }
  return static_cast<double*>(Allocate(count * sizeof(double)));
}

void LxMallocaPtr::Release() {
  std::free(heap_);
  heap_ = nullptr;
  block_ = nullptr;
}

}  // namespace LxOpt
