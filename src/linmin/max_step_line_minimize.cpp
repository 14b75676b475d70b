// A line minimizer with a per-variable limit on the displacement: it cuts the
// step to the tightest limit, marches in steps of that length while the
// objective keeps falling, and hands the rest to the quasi-Newton search.
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "linmin/trial_point.h"
#include "lxopt/linmin.h"

namespace LxOpt {
namespace {

constexpr double kBackOff = 0.5;  // hand on s - 0.5 a, before the stop

double* CopyLimits(unsigned int n, const double* limits) {
  if (n == 0 || limits == nullptr) return nullptr;
  void* const copy = std::malloc(sizeof(double) * n);
  if (copy == nullptr) {
    LxThrow.Warning("out of memory allocating %d in LxMaxStepLineMinimize",
                    static_cast<int>(sizeof(double) * n));
    return nullptr;
  }
  std::memcpy(copy, limits, sizeof(double) * n);
  return static_cast<double*>(copy);
}

}  // namespace

LxMaxStepLineMinimize::LxMaxStepLineMinimize() = default;

LxMaxStepLineMinimize::LxMaxStepLineMinimize(double* maxstep, unsigned int n)
    : limits_(CopyLimits(n, maxstep)) {
  count_ = limits_ != nullptr ? n : 0;
}

LxMaxStepLineMinimize::LxMaxStepLineMinimize(const LxMaxStepLineMinimize& other)
    : LxLineMinimize(other),
      limits_(CopyLimits(other.count_, other.limits_)),
      inner_(other.inner_) {
  count_ = limits_ != nullptr ? other.count_ : 0;
}

LxMaxStepLineMinimize& LxMaxStepLineMinimize::operator=(const LxMaxStepLineMinimize& other) {
  if (this != &other) {
    std::free(limits_);
    limits_ = CopyLimits(other.count_, other.limits_);
    count_ = limits_ != nullptr ? other.count_ : 0;
    inner_ = other.inner_;
  }
  return *this;
}

LxMaxStepLineMinimize::~LxMaxStepLineMinimize() {
  std::free(limits_);
}

bool LxMaxStepLineMinimize::SetMaxStep(unsigned int n, double* maxstep) {
  if (n == 0) return false;
  std::free(limits_);
  limits_ = CopyLimits(n, maxstep);
  count_ = limits_ != nullptr ? n : 0;
  return true;
}

LxLineMinimize* LxMaxStepLineMinimize::CreateCopy() const {
  return new LxMaxStepLineMinimize(*this);
}

bool LxMaxStepLineMinimize::operator()(unsigned int n, const double* x0, double* dir, double* grad0,
                                       double* gradOut, double* fval, double* step,
                                       LxFunc1& func) const {
  // The largest a with |a dir[i]| <= limits[i] for every limited variable; the
  // test uses the already reduced a, so the smallest ratio wins.
  const unsigned int m = n < count_ ? n : count_;
  double a = *step;
  bool clamped = false;
  for (unsigned int i = 0; i < m; ++i) {
    if (limits_[i] != 0.0 && std::fabs(a * dir[i]) > limits_[i]) {
      a = limits_[i] / std::fabs(dir[i]);
      clamped = true;
    }
  }

  if (clamped) {
    LxMallocaPtr block;
    double* const xt = detail::AllocateLineWorkspace(block, n);
    if (xt == nullptr) return false;
    double* const gt = xt + n;
    // The march has no count of its own: it ends where the descent stops or
    // at the caller's step. Two guards end it otherwise, leaving *step as it
    // is: a value or slope that is not finite (a value that is not a number
    // never compares as a stop, so such a march would run on to any entry
    // step, however far), and a position that no longer moves (s + a rounds
    // to s), which would sample the same point for ever.
    for (double s = a;;) {
      const detail::LineSample sample = detail::SampleLine(func, n, x0, dir, s, xt, gt);
      if (sample.value >= *fval || sample.slope >= 0.0) {
        const double before = s - kBackOff * a;
        if (before < *step) *step = before;
        break;
      }
      if (!std::isfinite(sample.value) || !std::isfinite(sample.slope)) break;
      const double next = s + a;
      if (next == s) break;
      s = next;
      if (s >= *step) break;
    }
  }
  // Note: the first trial handed on is not itself limited; the limits shape
  // only the march.
  return inner_(n, x0, dir, grad0, gradOut, fval, step, func);
}

}  // namespace LxOpt
