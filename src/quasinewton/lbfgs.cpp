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

// Doubles in the run's block, (2m + 3) n + 2m, plus the pair model's n n + n
// and the point it was built at (n) for Cartesian variables, or SIZE_MAX when that overflows (the
// allocation then fails).
std::size_t ScratchCount(unsigned int m, unsigned int n, bool cartesian) {
  const std::size_t perVariable = 2 * static_cast<std::size_t>(m) + kWorkVectors;
  if (n != 0 && perVariable > (SIZE_MAX - 2 * static_cast<std::size_t>(m)) / n) return SIZE_MAX;
  const std::size_t count = perVariable * n + 2 * static_cast<std::size_t>(m);
  if (!cartesian) return count;
  if (n != 0 && n > (SIZE_MAX - count) / (std::size_t(n) + 1)) return SIZE_MAX;
  return count + geom::PairModelSize(n) + n;
}

// The stored pairs: a ring of m slots, each s and y of n contiguous doubles.
class PairRing {
 public:
  // model: room for the pair model (H0 = gamma P^-1; n n + n doubles) and
  // the point it was built at (n), or null for H0 = gamma I.
  PairRing(double* block, unsigned int m, unsigned int n, double* model)
      : s_(block),
        y_(block + static_cast<std::size_t>(m) * n),
        rho_(y_ + static_cast<std::size_t>(m) * n),
        alpha_(rho_ + m),
        m_(m),
        n_(n),
        model_(model),
        modelWork_(model != nullptr ? model + std::size_t(n) * n : nullptr),
        xModel_(model != nullptr ? modelWork_ + n : nullptr) {}

  // Builds the model at x when there is none yet (false when it cannot be
  // built: H0 = gamma I from then on), or rebuilds it once an atom has moved
  // far from where it was built.
  bool UpdateModel(const double* x, bool first) {
    if (model_ == nullptr) return false;
    if (!first && !geom::PairModelIsStale(x, xModel_, n_, nearest_)) return true;
    if (!geom::FactorPairModel(x, n_, model_, &nearest_)) {
      model_ = nullptr;
      return false;
    }
    detail::Copy(x, xModel_, n_);
    return true;
  }

  unsigned int Count() const { return count_; }
  void Clear() { count_ = 0; }

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
  double Accept(double a, const double* d, const double* w, double* x, double* g) {
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

  // d = -H g by the two-loop recursion; returns the slope g.d. The recursion
  // is linear, so it runs on -g and yields -H g directly. Each pass updates d
  // and forms the inner product the next pass needs:
  //   newest to oldest:  alpha_i = rho_i s_i.q,   q -= alpha_i y_i
  //   r = gamma q
  //   oldest to newest:  beta = rho_i y_i.r,      r += (alpha_i - beta) s_i
  double Direction(const double* g, double* d) const {
    if (count_ == 0) {
      for (unsigned int k = 0; k < n_; ++k) d[k] = -g[k];
      if (model_ != nullptr) geom::SolvePairModel(model_, n_, d);
      return detail::Dot(g, d, n_);
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
      if (j + 1 == count_) return AxpyThenDot(alpha_[i] - beta, S(i), d, g);
      const unsigned int newer = (i + 1) % m_;
      dot = AxpyThenDot(alpha_[i] - beta, S(i), d, Y(newer));
      i = newer;
    }
  }

 private:
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

  double* s_;
  double* y_;
  double* rho_;    // m values, 1 / s.y per slot
  double* alpha_;  // m values, the first loop's coefficients
  unsigned int m_;
  unsigned int n_;
  double* model_;      // factored pair model, or null
  double* modelWork_;  // n values after the model
  double* xModel_;     // point the model was built at
  double nearest_ = 0.0;
  unsigned int first_ = 0;  // slot of the oldest pair
  unsigned int count_ = 0;
  double gamma_ = 1.0;  // s.y / y.y of the newest stored pair
};

}  // namespace

bool LxLBFGSOpt::SetLineMinimize(const LxLineMinimize& lm) {
  settings_.lineMinimize.reset(lm.CreateCopy());
  return true;
}

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
  return detail::RecordRun(
      lastRun_, func, checkpoint, true,
      [&](LxFunc1& counted, LxCheckpoint1* recorder) { return Run(counted, recorder, in, out); });
}

double LxLBFGSOpt::Run(LxFunc1& func, LxCheckpoint1* checkpoint, const double* in, double* out) {
  kept_ = false;
  keptCount_ = 0;
  const unsigned int n = func.NumVar();
  const unsigned int m = memory_;
  const bool cartesian = cartesian_ && n % 3 == 0 && n != 0;
  const std::size_t count = ScratchCount(m, n, cartesian);
  LxMallocaPtr block;
  double* const g = block.AllocateDoubles(count);
  if (out == nullptr) {
    LxThrow.Warning("memory not provided for optimized variables");
    return 0.0;
  }
  if (g == nullptr) {
    const std::size_t bytes = count > SIZE_MAX / sizeof(double) ? SIZE_MAX : count * sizeof(double);
    LxThrow.Warning("out of memory allocating %d in LxLBFGSOpt::operator()",
                    detail::ByteCountForMessage(bytes));
    return 0.0;
  }
  double* const d = g + n;
  double* const w = d + n;
  double* const x = out;
  if (out != in && n != 0) std::memmove(out, in, sizeof(double) * n);
  PairRing pairs(w + n, m, n, cartesian ? w + n + 2 * (std::size_t(m) * n + m) : nullptr);
  pairs.UpdateModel(x, true);
  detail::Zero(g, n);
  double f = func(x, g);
  double gg = detail::SquaredNorm(g, n);
  const double tolerance = settings_.tolerance;
  auto finish = [&](unsigned int iter, unsigned int state) {
    if (keepPairs_) {
      pairs.CopyOut(keptS_, keptY_);
      keptCount_ = pairs.Count();
      keptN_ = n;
      kept_ = true;
    }
    detail::Report(checkpoint, iter, n, f, std::sqrt(gg), x, g, state);
    return f;
  };
  if (gg < tolerance) return finish(0, kLxNoOpt);

  LxLineMinimize& search = *settings_.lineMinimize;
  // The first search of a run or after a restart: see FirstStep.
  pairs.Direction(g, d);
  double step = pairs.FirstStep(d);
  search.SetMaxStep(n, x);

  unsigned int k = 0;
  for (; k < settings_.iterLimit; ++k) {
    if (!search(n, x, d, g, w, &f, &step, func)) {
      // As in LxBFGSOpt, f is whatever the failed search left (intended).
      if (pairs.Count() == 0) return finish(k, kLxNotFound);
      // Restart along -g from the current point, re-evaluated because some
      // line minimizers leave the last trial's value in f when they fail.
      pairs.Clear();
      detail::Zero(g, n);
      f = func(x, g);
      gg = detail::SquaredNorm(g, n);
      if (gg < tolerance) return finish(k, kLxDone);
      pairs.Direction(g, d);
      step = pairs.FirstStep(d);
      continue;
    }

    gg = pairs.Accept(step, d, w, x, g);
    pairs.UpdateModel(x, false);
    if (!detail::Report(checkpoint, k, n, f, std::sqrt(gg), x, g, kLxCont)) {
      return finish(k, kLxDone);
    }
    if (gg < tolerance) return finish(k, kLxDone);

    pairs.Direction(g, d);
    // With no pair stored yet (all skipped) the search again starts like the
    // first one.
    step = pairs.Count() == 0 ? pairs.FirstStep(d) : kUnitStep;
  }
  return finish(k, kLxExhaust);
}

}  // namespace LxOpt
