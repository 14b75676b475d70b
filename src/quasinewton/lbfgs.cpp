// Limited-memory BFGS: the inverse Hessian is never formed; d = -H g comes from
// the two-loop recursion over the last m pairs (s, y), starting from
// H0 = gamma I with gamma = s.y / y.y of the newest pair.
// Reference: Nocedal and Wright, Numerical Optimization, 2nd ed., section 7.2
// (Algorithm 7.4 and eq. 7.20); Liu and Nocedal, Math. Programming 45 (1989).
// Names: s, y as in the books; rho = 1 / s.y.
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "framework/internal.h"
#include "framework/run_record.h"
#include "geomopt/pair_model.h"
#include "lxopt/host.h"
#include "lxopt/quasinewton.h"
#include "quasinewton/quasi_newton_loop.h"

namespace LxOpt {
namespace {

// Besides the 2m pair vectors the block holds the gradient, the direction and
// the line search's gradient at the accepted point.
constexpr std::size_t kWorkVectors = 3;

// Trial step of a search once a pair is stored: gamma already scales H0.
constexpr double kUnitStep = 1.0;
// First move of a run (or after a restart) with Cartesian variables, in units
// of the mean nearest-neighbour distance, so that no length unit enters.
constexpr double kFirstMoveShare = 1.0;

// Doubles in the run's block, (2m + 3) n + 2m, plus the pair model's n n + n,
// the point it was built at (n) and the atoms' radii (n / 3) for Cartesian
// variables, or SIZE_MAX when that overflows (the allocation then fails).
std::size_t BlockCount(unsigned int m, unsigned int n, bool cartesian) {
  const std::size_t perVariable = 2 * static_cast<std::size_t>(m) + kWorkVectors;
  if (n != 0 && perVariable > (SIZE_MAX - 2 * static_cast<std::size_t>(m)) / n) return SIZE_MAX;
  const std::size_t count = perVariable * n + 2 * static_cast<std::size_t>(m);
  if (!cartesian) return count;
  if (n != 0 && n > (SIZE_MAX - count) / (std::size_t(n) + 2)) return SIZE_MAX;
  return count + geom::PairModelSize(n) + n + n / 3;
}

}  // namespace

// The stored pairs, a ring of m slots, each s and y of n contiguous doubles,
// and the directions they give.
class LxLBFGSOpt::PairMemory : public detail::QuasiNewtonDirections {
 public:
  // With cartesian set the block also holds the pair model.
  PairMemory(LxLBFGSOpt& owner, bool cartesian)
      : owner_(owner), m_(owner.memory_), cartesian_(cartesian) {}

  std::size_t ScratchCount(unsigned int n) const override { return BlockCount(m_, n, cartesian_); }
  const char* OutOfMemoryFormat() const override {
    return "out of memory allocating %d in LxLBFGSOpt::operator()";
  }

  // The block after the loop's vectors: s and y of every slot, rho, alpha,
  // then (Cartesian) the pair model (H0 = gamma P^-1; n n + n doubles), the
  // point it was built at (n) and the radii of the atoms' elements (n / 3,
  // used when the owner holds one known element per atom); the model is
  // built here.
  void Bind(double* block, unsigned int n, const double* x) override {
    n_ = n;
    s_ = block;
    y_ = block + static_cast<std::size_t>(m_) * n;
    rho_ = y_ + static_cast<std::size_t>(m_) * n;
    alpha_ = rho_ + m_;
    if (cartesian_) {
      model_ = alpha_ + m_;
      modelWork_ = model_ + std::size_t(n) * n;
      xModel_ = modelWork_ + n;
      const std::vector<int>& z = owner_.atomicNumbers_;
      if (3 * z.size() == n && geom::CovalentRadii(z.data(), n / 3, xModel_ + n))
        radii_ = xModel_ + n;
    }
    UpdateModel(x, true);
  }

  // The first search of a run or after a restart: see FirstStep.
  double StartDirection(const double* g, double, double* d, bool) override {
    Direction(g, d);
    return FirstStep(d);
  }
  bool CanRestart() const override { return count_ != 0; }
  void Forget() override { count_ = 0; }
  double Accept(double step, const double* d, const double* w, double* x, double* g) override {
    const double ww = Store(step, d, w, x, g);
    UpdateModel(x, false);
    return ww;
  }
  bool NextDirection(unsigned int, const double* g, double* d, double* step) override {
    Direction(g, d);
    // With no pair stored yet (all skipped) the search again starts like the
    // first one.
    *step = count_ == 0 ? FirstStep(d) : kUnitStep;
    return true;
  }
  void End(double) override {
    if (!owner_.keepPairs_) return;
    CopyOut(owner_.keptS_, owner_.keptY_);
    owner_.keptCount_ = count_;
    owner_.keptN_ = n_;
    owner_.kept_ = true;
  }

 private:
  // Builds the model at x when there is none yet (when it cannot be built,
  // H0 = gamma I from then on), or rebuilds it once an atom has moved far
  // from where it was built.
  void UpdateModel(const double* x, bool first) {
    if (model_ == nullptr) return;
    if (!first && !geom::PairModelIsStale(x, xModel_, n_, nearest_)) return;
    if (!geom::FactorPairModel(x, n_, model_, &nearest_, radii_)) {
      model_ = nullptr;
      return;
    }
    detail::Copy(x, xModel_, n_);
  }

  // Copies the pairs, oldest first, into rows of n values of s and y.
  void CopyOut(std::vector<double>& s, std::vector<double>& y) const {
    s.resize(static_cast<std::size_t>(count_) * n_);
    y.resize(s.size());
    for (unsigned int k = 0; k < count_; ++k) {
      const unsigned int slot = (first_ + k) % m_;
      std::memcpy(&s[static_cast<std::size_t>(k) * n_], S(slot), sizeof(double) * n_);
      std::memcpy(&y[static_cast<std::size_t>(k) * n_], Y(slot), sizeof(double) * n_);
    }
  }

  // Trial step of a search with no pair stored, along d: the point moves by
  // kFirstMoveShare nearest-neighbour distances with the pair model, else by
  // a unit length.
  double FirstStep(const double* d) const {
    const double move = model_ != nullptr ? kFirstMoveShare * nearest_ : 1.0;
    return std::sqrt(move * move / detail::SquaredNorm(d, n_));
  }

  // With the accepted step a along d, w the gradient there and g the old one:
  // when s.y > 0 (s = a d, y = w - g) stores the pair over the oldest one;
  // then x += s and g = w. Returns sum w^2. A pair with s.y <= 0 is skipped.
  double Store(double a, const double* d, const double* w, double* x, double* g) {
    double sy = 0.0, yy = 0.0, ww = 0.0;
    for (unsigned int i = 0; i < n_; ++i) {
      const double si = a * d[i];
      const double yi = w[i] - g[i];
      sy += si * yi;
      yy += yi * yi;
      ww += w[i] * w[i];
    }
    if (sy > 0.0) {
      const unsigned int slot = (first_ + count_) % m_;
      double* const s = S(slot);
      double* const y = Y(slot);
      for (unsigned int i = 0; i < n_; ++i) {
        s[i] = a * d[i];
        y[i] = w[i] - g[i];
        x[i] += s[i];
        g[i] = w[i];
      }
      rho_[slot] = 1.0 / sy;
      gamma_ = sy / (model_ != nullptr ? ModelDot(y) : yy);
      if (count_ < m_) {
        ++count_;
      } else {
        first_ = (first_ + 1) % m_;
      }
    } else {
      for (unsigned int i = 0; i < n_; ++i) {
        x[i] += a * d[i];
        g[i] = w[i];
      }
    }
    return ww;
  }

  // d = -H g by the two-loop recursion. The recursion
  // is linear, so it runs on -g and yields -H g directly. Each pass updates d
  // and forms the inner product the next pass needs:
  //   newest to oldest:  alpha_i = rho_i s_i.q,   q -= alpha_i y_i
  //   r = gamma q
  //   oldest to newest:  beta = rho_i y_i.r,      r += (alpha_i - beta) s_i
  void Direction(const double* g, double* d) const {
    if (count_ == 0) {
      for (unsigned int k = 0; k < n_; ++k) d[k] = -g[k];
      if (model_ != nullptr) geom::SolvePairModel(model_, n_, d);
      return;
    }
    unsigned int i = Newest();
    double dot = NegateThenDot(g, d, S(i));
    for (unsigned int j = 0;; ++j) {
      alpha_[i] = rho_[i] * dot;
      if (j + 1 == count_) break;
      const unsigned int older = (i + m_ - 1) % m_;
      dot = AxpyThenDot(-alpha_[i], Y(i), d, S(older));
      i = older;
    }
    dot = model_ != nullptr
              ? AxpySolveScaleThenDot(-alpha_[i], Y(i), d, Y(i))
              : AxpyScaleThenDot(-alpha_[i], Y(i), gamma_, d, Y(i));  // i is the oldest
    for (unsigned int j = 0;; ++j) {
      const double beta = rho_[i] * dot;
      if (j + 1 == count_) {
        detail::Axpy(alpha_[i] - beta, S(i), d, n_);
        return;
      }
      const unsigned int newer = (i + 1) % m_;
      dot = AxpyThenDot(alpha_[i] - beta, S(i), d, Y(newer));
      i = newer;
    }
  }

  double* S(unsigned int slot) const { return s_ + static_cast<std::size_t>(slot) * n_; }
  double* Y(unsigned int slot) const { return y_ + static_cast<std::size_t>(slot) * n_; }
  unsigned int Newest() const { return (first_ + count_ - 1) % m_; }

  // d = -g; returns u.d.
  double NegateThenDot(const double* g, double* d, const double* u) const {
    double sum = 0.0;
    for (unsigned int k = 0; k < n_; ++k) {
      d[k] = -g[k];
      sum += u[k] * d[k];
    }
    return sum;
  }
  // d += c v; returns u.d.
  double AxpyThenDot(double c, const double* v, double* d, const double* u) const {
    double sum = 0.0;
    for (unsigned int k = 0; k < n_; ++k) {
      d[k] += c * v[k];
      sum += u[k] * d[k];
    }
    return sum;
  }
  // d = scale (d + c v); returns u.d.
  double AxpyScaleThenDot(double c, const double* v, double scale, double* d,
                          const double* u) const {
    double sum = 0.0;
    for (unsigned int k = 0; k < n_; ++k) {
      d[k] = scale * (d[k] + c * v[k]);
      sum += u[k] * d[k];
    }
    return sum;
  }

  // d = gamma P^-1 (d + c v); returns u.d.
  double AxpySolveScaleThenDot(double c, const double* v, double* d, const double* u) const {
    for (unsigned int k = 0; k < n_; ++k) d[k] += c * v[k];
    geom::SolvePairModel(model_, n_, d);
    double sum = 0.0;
    for (unsigned int k = 0; k < n_; ++k) {
      d[k] *= gamma_;
      sum += u[k] * d[k];
    }
    return sum;
  }
  // y.P^-1 y
  double ModelDot(const double* y) const {
    detail::Copy(y, modelWork_, n_);
    geom::SolvePairModel(model_, n_, modelWork_);
    return detail::Dot(y, modelWork_, n_);
  }

  LxLBFGSOpt& owner_;  // receives the kept pairs
  unsigned int m_;
  bool cartesian_;
  unsigned int n_ = 0;
  double* s_ = nullptr;
  double* y_ = nullptr;
  double* rho_ = nullptr;        // m values, 1 / s.y per slot
  double* alpha_ = nullptr;      // m values, the first loop's coefficients
  double* model_ = nullptr;      // factored pair model, or null
  double* modelWork_ = nullptr;  // n values after the model
  double* xModel_ = nullptr;     // point the model was built at
  double nearest_ = 0.0;
  const double* radii_ = nullptr;  // covalent radius per atom, null without elements
  unsigned int first_ = 0;         // slot of the oldest pair
  unsigned int count_ = 0;
  double gamma_ = 1.0;  // s.y / y.y of the newest stored pair
};

bool LxLBFGSOpt::GetFinalPairs(double* s, double* y, unsigned int n, unsigned int capacity) const {
  if (!kept_) {
    LxThrow.Warning("L-BFGS pairs can't be extracted because they were not kept");
    return false;
  }
  if (n != keptN_ || capacity < keptCount_) {
    LxThrow.Warning("Can't extract L-BFGS pairs: wrong number of variables or pairs");
    return false;
  }
  if (keptS_.empty()) return true;
  if (s == nullptr || y == nullptr) {
    LxThrow.Warning("memory not provided for L-BFGS pairs");
    return false;
  }
  std::memcpy(s, keptS_.data(), sizeof(double) * keptS_.size());
  std::memcpy(y, keptY_.data(), sizeof(double) * keptY_.size());
  return true;
}

double LxLBFGSOpt::operator()(LxFunc1& func, LxCheckpoint1* checkpoint, const double* in,
                              double* out) {
  kept_ = false;
  keptCount_ = 0;
  const unsigned int n = func.NumVar();
  PairMemory pairs(*this, cartesian_ && n % 3 == 0 && n != 0);
  return detail::RecordRun(
      lastRun_, func, checkpoint, true, [&](LxFunc1& counted, LxCheckpoint1* recorder) {
        return detail::RunQuasiNewton({GetIterLimit(), GetTolerance(), LineMinimizer()}, pairs,
                                      counted, recorder, in, out);
      });
}

}  // namespace LxOpt
