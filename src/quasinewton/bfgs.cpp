// BFGS with a dense inverse-Hessian approximation and, on request, the final
// matrix kept for the caller. The iteration is quasi_newton_loop.cpp's, the
// update dense_directions.cpp's.
#include <cstdlib>
#include <cstring>

#include "framework/packed.h"
#include "framework/run_record.h"
#include "quasinewton/bfgs_matrix.h"
#include "quasinewton/inverse_hessian.h"

namespace LxOpt {
namespace {

// Largest n whose n x n matrix the optimizer asks for.
constexpr unsigned int kMaxVariables = 1073741823u;

}  // namespace

double* LxBFGSOpt::KeptMatrix::Acquire(unsigned int n) {
  if (n > kMaxVariables) {
    LxThrow.Error("Unable to allocate enough memory for Hessian with %d variables",
                  static_cast<int>(n));
    return nullptr;
  }
  double* const h = AllocateWorking(n);
  if (h == nullptr) {
    LxThrow.Error("Can't allocate Hessian. Too many variables.");
    return nullptr;
  }
  const LxBFGSOpt& o = owner_;
  if (o.startFromStored_ && o.storedHessian_ != nullptr &&
      o.storedCount_ == static_cast<std::size_t>(n) * n) {
    std::memcpy(h, o.storedHessian_, sizeof(double) * o.storedCount_);
    detail::PackInPlace(h, n);
  } else {
    detail::SetIdentityPacked(h, n);
  }
  return h;
}

void LxBFGSOpt::KeptMatrix::Restart(double* h, unsigned int n) {
  // Deliberate: with the Hessian kept the search restarts from the current H.
  if (!owner_.keepHessian_) detail::SetIdentityPacked(h, n);
}

void LxBFGSOpt::KeptMatrix::Keep(const double* h, unsigned int n, double) {
  if (!owner_.keepHessian_) return;
  LxBFGSOpt& o = owner_;
  o.FreeStored();
  const std::size_t count = o.hessianDim_;
  // One value at least, so that a run with n = 0 still leaves a matrix.
  o.storedHessian_ = static_cast<double*>(std::malloc(sizeof(double) * (count ? count : 1)));
  if (o.storedHessian_ == nullptr) {
    LxThrow.Warning("out of memory allocating %d in LxBFGSOpt::operator()",
                    detail::ByteCountForMessage(sizeof(double) * count));
    return;
  }
  o.storedCount_ = o.hessianDim_;
  // count is n * n in 32 bits; past n = 65535 it wraps and only the values
  // that fit are stored.
  detail::Unpack(h, n, o.storedHessian_, count);
}

LxBFGSOpt::LxBFGSOpt() : LxGradientOpt(new LxQNLineMinimize()) {}

LxBFGSOpt::LxBFGSOpt(const LxBFGSOpt& other)
    : LxGradientOpt(other),
      startFromStored_(other.startFromStored_),
      hessianDim_(other.hessianDim_),
      keepHessian_(other.keepHessian_) {
  CopyStoredFrom(other);
}

LxBFGSOpt& LxBFGSOpt::operator=(const LxBFGSOpt& other) {
  if (this == &other) return *this;
  LxGradientOpt::operator=(other);
  startFromStored_ = other.startFromStored_;
  hessianDim_ = other.hessianDim_;
  keepHessian_ = other.keepHessian_;
  FreeStored();
  CopyStoredFrom(other);
  return *this;
}

LxBFGSOpt::~LxBFGSOpt() {
  FreeStored();
}

void LxBFGSOpt::FreeStored() {
  std::free(storedHessian_);
  storedHessian_ = nullptr;
  storedCount_ = 0;
}

void LxBFGSOpt::CopyStoredFrom(const LxBFGSOpt& other) {
  if (other.storedHessian_ == nullptr) return;
  const std::size_t count = other.storedCount_;
  storedHessian_ = static_cast<double*>(std::malloc(sizeof(double) * (count ? count : 1)));
  if (storedHessian_ == nullptr) return;
  std::memcpy(storedHessian_, other.storedHessian_, sizeof(double) * count);
  storedCount_ = other.storedCount_;
}

bool LxBFGSOpt::GetInverseHessian(double* out, unsigned int n) const {
  if (storedHessian_ == nullptr) {
    LxThrow.Warning("Hessian can't be extracted because it was not generated");
    return false;
  }
  // The second test only guards the array: the element count is reset by
  // every run, the stored matrix only by runs that keep it.
  if (hessianDim_ != n * n || storedCount_ < static_cast<std::size_t>(n) * n) {
    LxThrow.Warning("Can't extract Hessian: Wrong number of variables");
    return false;
  }
  for (unsigned int i = 0; i < n; ++i) {
    const double* row = storedHessian_ + static_cast<std::size_t>(i) * n;
    for (unsigned int j = 0; j <= i; ++j) out[packed::Index(i, j)] = row[j];
  }
  return true;
}

double LxBFGSOpt::operator()(LxFunc1& func, LxCheckpoint1* checkpoint, const double* in,
                             double* out) {
  SetHessianDimension(func.NumVar());
  KeptMatrix matrix(*this);
  return detail::RecordRun(
      lastRun_, func, checkpoint, true, [&](LxFunc1& counted, LxCheckpoint1* recorder) {
        return detail::RunQuasiNewton({GetIterLimit(), GetTolerance(), LineMinimizer()}, matrix,
                                      counted, recorder, in, out);
      });
}

}  // namespace LxOpt
