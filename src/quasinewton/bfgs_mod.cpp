// BFGS that carries its inverse Hessian and trial step from run to run, so
// that a series of related minimisations starts from the curvature learnt so
// far. The iteration is quasi_newton_loop.cpp's, the update
// dense_directions.cpp's.
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "framework/run_record.h"
#include "quasinewton/bfgs_matrix.h"
#include "quasinewton/inverse_hessian.h"

namespace LxOpt {
namespace {

void WarnWorkingMatrix(unsigned int n) {
  // Deliberate: the message names the base class, as clients know it.
  LxThrow.Warning("out of memory allocating %d in LxBFGSOpt::operator()",
                  detail::ByteCountForMessage(sizeof(double) * n * static_cast<std::size_t>(n)));
}

}  // namespace

class LxBFGSModOpt::CarriedMatrix : public LxBFGSOpt::KeptMatrix {
 public:
  explicit CarriedMatrix(LxBFGSModOpt& owner) : KeptMatrix(owner), mod_(owner) {}

  // No limit on n; the persistent matrix is (re)made for n when needed, and
  // the working matrix starts from it unless a restart is due.
  double* Acquire(unsigned int n) override {
    double* const h = AllocateWorking(n);
    if (h == nullptr || !PreparePersistent(n)) {
      WarnWorkingMatrix(n);
      return nullptr;
    }
    mod_.SetHessian(h, mod_.persistent_, n);
    detail::PackInPlace(h, n);
    return h;
  }

  double FirstStep(double gg) const override {
    return mod_.restart_ ? std::sqrt(1.0 / gg) : mod_.savedStep_;
  }

  void Keep(const double* h, unsigned int n, double step) override {
    KeptMatrix::Keep(h, n, step);
    detail::Unpack(h, n, mod_.persistent_, static_cast<std::size_t>(n) * n);
    mod_.restart_ = false;
    mod_.savedStep_ = step;
  }

 private:
  bool PreparePersistent(unsigned int n) {
    if (mod_.persistent_ != nullptr && mod_.order_ == n) return true;
    const bool replaced = mod_.persistent_ != nullptr;
    mod_.FreePersistent();
    const std::size_t count = static_cast<std::size_t>(n) * n;
    mod_.persistent_ = static_cast<double*>(std::malloc(sizeof(double) * (count ? count : 1)));
    mod_.order_ = mod_.persistent_ != nullptr ? n : 0;
    if (mod_.persistent_ == nullptr) return false;
    if (replaced) {
      mod_.restart_ = true;
    } else if (!mod_.restart_) {
      // A copy of an object that ran with n = 0 has no matrix and no restart
      // due; give it the identity rather than uninitialised memory.
      detail::SetIdentityFull(mod_.persistent_, n);
    }
    return true;
  }

  LxBFGSModOpt& mod_;
};

LxBFGSModOpt::LxBFGSModOpt(const LxBFGSModOpt& other)
    : LxBFGSOpt(other),
      restart_(other.restart_),
      order_(other.order_),
      savedStep_(other.savedStep_) {
  CopyPersistentFrom(other);
}

LxBFGSModOpt& LxBFGSModOpt::operator=(const LxBFGSModOpt& other) {
  if (this == &other) return *this;
  LxBFGSOpt::operator=(other);
  restart_ = other.restart_;
  order_ = other.order_;
  savedStep_ = other.savedStep_;
  FreePersistent();
  CopyPersistentFrom(other);
  return *this;
}

LxBFGSModOpt::~LxBFGSModOpt() {
  FreePersistent();
}

void LxBFGSModOpt::FreePersistent() {
  std::free(persistent_);
  persistent_ = nullptr;
}

void LxBFGSModOpt::CopyPersistentFrom(const LxBFGSModOpt& other) {
  if (other.persistent_ == nullptr || other.order_ == 0) return;
  const std::size_t count = static_cast<std::size_t>(other.order_) * other.order_;
  persistent_ = static_cast<double*>(std::malloc(sizeof(double) * count));
  if (persistent_ != nullptr) std::memcpy(persistent_, other.persistent_, sizeof(double) * count);
}

void LxBFGSModOpt::SetHessian(double* work, double* persistent, unsigned int n) {
  if (restart_)
    detail::SetIdentityFull(work, n);
  else if (n != 0)  // with n = 0 the arrays may be null: nothing to copy
    std::memcpy(work, persistent, sizeof(double) * n * static_cast<std::size_t>(n));
}

double LxBFGSModOpt::operator()(LxFunc1& func, LxCheckpoint1* checkpoint, const double* in,
                                double* out) {
  SetHessianDimension(func.NumVar());
  CarriedMatrix matrix(*this);
  return detail::RecordRun(
      lastRun_, func, checkpoint, true, [&](LxFunc1& counted, LxCheckpoint1* recorder) {
        return detail::RunQuasiNewton({GetIterLimit(), GetTolerance(), LineMinimizer()}, matrix,
                                      counted, recorder, in, out);
      });
}

}  // namespace LxOpt
