// Turns fuzz bytes into objectives and settings for the libFuzzer targets.
//
// Everything is read front to back from the input; an exhausted input reads
// as zeros, so every prefix of an input is an input too. Each target caps the
// size of its problem and the work of one run (iteration limits, evaluation
// budgets), so one input runs in milliseconds.
#ifndef LXOPT_FUZZ_INPUT_H
#define LXOPT_FUZZ_INPUT_H

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <vector>

#include "lxopt/function.h"
#include "lxopt/host.h"
#include "lxopt/linmin.h"
#include "lxopt/newton.h"
#include "lxopt/optimizer.h"

namespace lxfuzz {

// A property every input must keep was broken: report and crash, so that
// libFuzzer keeps the input.
[[noreturn]] inline void Fail(const char* what) {
  std::fprintf(stderr, "fuzz check failed: %s\n", what);
  std::abort();
}

inline void Check(bool condition, const char* what) {
  if (!condition) Fail(what);
}

// Cursor over the fuzz input.
class Bytes {
 public:
  Bytes(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}

  std::size_t Remaining() const { return size_ - pos_; }

  std::uint8_t U8() { return pos_ < size_ ? data_[pos_++] : 0; }
  std::uint16_t U16() { return static_cast<std::uint16_t>(U8() | (U8() << 8)); }
  std::uint32_t U32() {
    return static_cast<std::uint32_t>(U16()) | (static_cast<std::uint32_t>(U16()) << 16);
  }
  bool Bool() { return (U8() & 1u) != 0; }
  // A value in [0, count); 0 when count is 0.
  unsigned int Below(unsigned int count) {
    return count == 0 ? 0u : static_cast<unsigned int>(U16() % count);
  }
  // A value in [low, high].
  unsigned int Range(unsigned int low, unsigned int high) { return low + Below(high - low + 1); }
  // In [0, 1).
  double Unit() { return U16() / 65536.0; }

  // A double: mostly moderate numbers, sometimes a special one (zeros,
  // infinities, not-a-number, the extremes of the range).
  double Number() {
    const std::uint8_t kind = U8();
    if (kind < 40) return Special(kind);
    const double magnitude = std::pow(10.0, static_cast<int>(kind % 9) - 4);
    return (Unit() * 2.0 - 1.0) * magnitude;
  }
  // A moderate finite number in [-scale, scale).
  double Moderate(double scale) { return (Unit() * 2.0 - 1.0) * scale; }

  // A convergence threshold: the usual ones, and zero, negative, not a number,
  // infinite and tiny ones.
  double Tolerance() {
    static const double kTolerances[] = {0.1,
                                         1e-8,
                                         1e-3,
                                         0.0,
                                         -1.0,
                                         std::numeric_limits<double>::quiet_NaN(),
                                         std::numeric_limits<double>::infinity(),
                                         1e-300,
                                         1e6,
                                         1e-12};
    const std::uint8_t kind = U8();
    if (kind < 200) return kTolerances[kind % 10];
    return Number();
  }

 private:
  static double Special(std::uint8_t kind) {
    static const double kSpecial[] = {0.0,
                                      -0.0,
                                      1.0,
                                      -1.0,
                                      std::numeric_limits<double>::quiet_NaN(),
                                      std::numeric_limits<double>::infinity(),
                                      -std::numeric_limits<double>::infinity(),
                                      1e300,
                                      -1e300,
                                      1e-300,
                                      std::numeric_limits<double>::denorm_min(),
                                      std::numeric_limits<double>::max(),
                                      -std::numeric_limits<double>::max(),
                                      1e-10,
                                      1e10};
    return kSpecial[kind % (sizeof(kSpecial) / sizeof(kSpecial[0]))];
  }

  const std::uint8_t* data_;
  std::size_t size_;
  std::size_t pos_ = 0;
};

// How an objective misbehaves during its poisoned evaluations.
enum class Poison : std::uint8_t {
  kNone,
  kNaNValue,
  kPlusInfValue,
  kMinusInfValue,
  kHugeValue,      // 1e300
  kNaNGradient,    // one gradient component not a number
  kWrongGradient,  // the gradient negated: it does not match the values
  kInfGradient,    // one gradient component infinite
  kCount
};

// f(x) = sum_i a_i (x_i - c_i)^2 + sum_t coef_t prod_k x_{v_tk}^{p_tk}
// over n variables: a few random monomials of degree up to 4 (so f may be
// unbounded below) on top of a random diagonal quadratic. Exact gradient and
// packed Hessian. Evaluations numbered [poisonFrom, poisonFrom + poisonLength)
// misbehave as the poison says. After `budget` evaluations of any kind the
// objective turns flat (value 0, zero derivatives), so no optimizer can keep
// it busy for long.
class Polynomial : public LxOpt::LxFunc2 {
 public:
  using LxOpt::LxFunc2::operator();

  struct Term {
    double coef;
    unsigned int count;  // factors, 1..3
    unsigned int var[3];
    unsigned int power[3];  // 1..4
  };

  Polynomial(Bytes& in, unsigned int n, std::uint64_t budget) : n_(n), budget_(budget) {
    a_.resize(n);
    c_.resize(n);
    const bool plainQuadratic = in.Bool();
    for (unsigned int i = 0; i < n; ++i) {
      a_[i] = plainQuadratic ? 1.0 + i % 3 : in.Moderate(4.0);
      c_[i] = plainQuadratic ? 1.0 : in.Moderate(3.0);
    }
    const unsigned int terms = n == 0 ? 0 : in.Below(7);
    for (unsigned int t = 0; t < terms; ++t) {
      Term term{};
      term.coef = in.Number();
      term.count = in.Range(1, 3);
      for (unsigned int k = 0; k < term.count; ++k) {
        term.var[k] = in.Below(n);
        term.power[k] = in.Range(1, 4);
      }
      terms_.push_back(term);
    }
    poison_ = static_cast<Poison>(in.Below(static_cast<unsigned int>(Poison::kCount)));
    poisonFrom_ = in.Below(64);
    poisonLength_ = in.Range(1, 4) == 4 ? 1000000u : in.Range(1, 3);
    poisonIndex_ = in.Below(n);
  }

  unsigned int NumVar() const override { return n_; }

  double operator()(const double* x) override {
    const bool poisoned = Next();
    if (Flat()) return 0.0;
    return PoisonValue(poisoned, Value(x));
  }

  double operator()(const double* x, double* grad) override {
    const bool poisoned = Next();
    if (Flat()) {
      for (unsigned int i = 0; i < n_; ++i) grad[i] = 0.0;
      return 0.0;
    }
    for (unsigned int i = 0; i < n_; ++i) grad[i] = 2.0 * a_[i] * (x[i] - c_[i]);
    for (const Term& t : terms_) {
      for (unsigned int k = 0; k < t.count; ++k) {
        grad[t.var[k]] += t.coef * FactorDerivative(t, k, x) * OtherFactors(t, k, k, x);
      }
    }
    if (poisoned) PoisonGradient(grad);
    return PoisonValue(poisoned, Value(x));
  }

  bool operator()(const double* x, double* hessian, double* grad) override {
    const bool poisoned = Next();
    if (Flat()) return true;
    for (unsigned int i = 0; i < n_; ++i) {
      grad[i] = 2.0 * a_[i] * (x[i] - c_[i]);
      hessian[Packed(i, i)] = 2.0 * a_[i];
    }
    for (const Term& t : terms_) {
      for (unsigned int k = 0; k < t.count; ++k) {
        grad[t.var[k]] += t.coef * FactorDerivative(t, k, x) * OtherFactors(t, k, k, x);
        hessian[Packed(t.var[k], t.var[k])] +=
            t.coef * FactorSecondDerivative(t, k, x) * OtherFactors(t, k, k, x);
        for (unsigned int l = 0; l < t.count; ++l) {
          // Ordered pairs of factors; distinct variables once (lower triangle).
          if (l == k || t.var[k] < t.var[l]) continue;
          hessian[Packed(t.var[k], t.var[l])] += t.coef * FactorDerivative(t, k, x) *
                                                 FactorDerivative(t, l, x) *
                                                 OtherFactors(t, k, l, x);
        }
      }
    }
    if (poisoned) PoisonGradient(grad);
    return !(poisoned && poison_ == Poison::kNaNValue);
  }

  std::vector<LxOpt::LxFComponent> GetFComponents(const double* x) override {
    return {{"polynomial", (*this)(x)}};
  }

  std::uint64_t Evaluations() const { return evaluations_; }

 private:
  static std::size_t Packed(unsigned int i, unsigned int j) {
    return i >= j ? static_cast<std::size_t>(i) * (i + 1) / 2 + j
                  : static_cast<std::size_t>(j) * (j + 1) / 2 + i;
  }

  bool Next() {
    const std::uint64_t index = evaluations_++;
    return poison_ != Poison::kNone && index >= poisonFrom_ && index - poisonFrom_ < poisonLength_;
  }
  bool Flat() const { return evaluations_ > budget_; }

  double Value(const double* x) const {
    double f = 0.0;
    for (unsigned int i = 0; i < n_; ++i) f += a_[i] * (x[i] - c_[i]) * (x[i] - c_[i]);
    for (const Term& t : terms_) f += t.coef * OtherFactors(t, t.count, t.count, x);
    return f;
  }

  // Product of the term's factors except factors k and l (pass count to skip none).
  static double OtherFactors(const Term& t, unsigned int k, unsigned int l, const double* x) {
    double p = 1.0;
    for (unsigned int m = 0; m < t.count; ++m) {
      if (m != k && m != l) p *= std::pow(x[t.var[m]], static_cast<int>(t.power[m]));
    }
    return p;
  }
  static double FactorDerivative(const Term& t, unsigned int k, const double* x) {
    return t.power[k] * std::pow(x[t.var[k]], static_cast<int>(t.power[k]) - 1);
  }
  static double FactorSecondDerivative(const Term& t, unsigned int k, const double* x) {
    if (t.power[k] < 2) return 0.0;
    return t.power[k] * (t.power[k] - 1.0) *
           std::pow(x[t.var[k]], static_cast<int>(t.power[k]) - 2);
  }

  double PoisonValue(bool poisoned, double f) const {
    if (!poisoned) return f;
    switch (poison_) {
      case Poison::kNaNValue:
        return std::numeric_limits<double>::quiet_NaN();
      case Poison::kPlusInfValue:
        return std::numeric_limits<double>::infinity();
      case Poison::kMinusInfValue:
        return -std::numeric_limits<double>::infinity();
      case Poison::kHugeValue:
        return 1e300;
      default:
        return f;
    }
  }
  void PoisonGradient(double* grad) const {
    if (n_ == 0) return;
    switch (poison_) {
      case Poison::kNaNGradient:
        grad[poisonIndex_] = std::numeric_limits<double>::quiet_NaN();
        break;
      case Poison::kInfGradient:
        grad[poisonIndex_] = std::numeric_limits<double>::infinity();
        break;
      case Poison::kWrongGradient:
        for (unsigned int i = 0; i < n_; ++i) grad[i] = -grad[i];
        break;
      default:
        break;
    }
  }

  unsigned int n_;
  std::uint64_t budget_;
  std::vector<double> a_, c_;
  std::vector<Term> terms_;
  Poison poison_ = Poison::kNone;
  std::uint64_t poisonFrom_ = 0, poisonLength_ = 0;
  unsigned int poisonIndex_ = 0;
  std::uint64_t evaluations_ = 0;
};

// Checks every report and asks for a stop at a random per-iteration report
// (never, when stopAt is 0).
class StoppingCheckpoint : public LxOpt::LxCheckpoint1 {
 public:
  using LxOpt::LxCheckpoint1::operator();

  StoppingCheckpoint(Bytes& in, unsigned int nvar) : nvar_(nvar) {
    stopAt_ = in.Bool() ? 0u : in.Range(1, 40);
  }

  bool operator()(unsigned int /*iter*/, unsigned int nvar, double /*fval*/, const double* vars,
                  unsigned int state) override {
    return Record(nvar, vars, state);
  }
  bool operator()(unsigned int /*iter*/, unsigned int nvar, double /*fval*/, double /*gnorm*/,
                  const double* vars, const double* /*grad*/, unsigned int state) override {
    return Record(nvar, vars, state);
  }

  unsigned long Calls() const { return calls_; }

 private:
  bool Record(unsigned int nvar, const double* vars, unsigned int state) {
    ++calls_;
    Check(state <= LxOpt::kLxStable, "checkpoint state is a known code");
    Check(nvar == nvar_, "checkpoint nvar is the objective's");
    // vars may be null (the geometry driver's reports without a point).
    if (nvar > 0 && vars != nullptr) {
      // Touch every variable, so the sanitizers see a bad array.
      volatile double sink = 0.0;
      for (unsigned int i = 0; i < nvar; ++i) sink = sink + vars[i];
    }
    if (state != LxOpt::kLxCont) return true;
    ++reports_;
    return stopAt_ == 0 || reports_ < stopAt_;
  }

  unsigned int nvar_;
  unsigned int stopAt_ = 0;
  unsigned long calls_ = 0;
  unsigned long reports_ = 0;
};

// A random line minimizer of the four, with random settings.
inline std::unique_ptr<LxOpt::LxLineMinimize> MakeLineMinimizer(Bytes& in, unsigned int n) {
  std::unique_ptr<LxOpt::LxLineMinimize> lm;
  switch (in.Below(4)) {
    case 0:
      lm.reset(new LxOpt::LxCGLineMinimize());
      break;
    case 1:
      if (in.Bool()) {
        lm.reset(new LxOpt::LxQNLineMinimize());
      } else {
        const unsigned int trials = in.Below(41);
        const double c1 = in.Number(), c2 = in.Number(), minStep = in.Number();
        lm.reset(new LxOpt::LxQNLineMinimize(trials, c1, c2, minStep));
      }
      break;
    case 2: {
      if (in.Bool()) {
        lm.reset(new LxOpt::LxMaxStepLineMinimize());
      } else {
        std::vector<double> limits(in.Below(n + 2) + 1);
        for (double& l : limits) l = in.Bool() ? 0.0 : in.Number();
        lm.reset(new LxOpt::LxMaxStepLineMinimize(limits.data(),
                                                  static_cast<unsigned int>(limits.size())));
      }
      break;
    }
    default:
      lm.reset(new LxOpt::LxNRLineSearch(in.Below(3)));
      break;
  }
  if (in.Below(4) == 0 && n > 0) {
    std::vector<double> x(n);
    for (double& v : x) v = in.Number();
    lm->SetMaxStep(n, x.data());
  }
  return lm;
}

// A spherical restraint (|x|^2 - r^2) on the first n variables.
class Restraint : public LxOpt::LxConstrFunc {
 public:
  Restraint(unsigned int n, double radius) : n_(n), radius_(radius) {}
  double operator()(const double* x, double* grad) override {
    double s = 0.0;
    for (unsigned int i = 0; i < n_; ++i) {
      s += x[i] * x[i];
      if (grad != nullptr) grad[i] += 2.0 * x[i];
    }
    return s - radius_ * radius_;
  }
  unsigned int NumVar() const override { return n_; }

 private:
  unsigned int n_;
  double radius_;
};

// A packed symmetric n x n matrix: near the identity, or any numbers.
inline std::vector<double> RandomPacked(Bytes& in, unsigned int n) {
  std::vector<double> packed(static_cast<std::size_t>(n) * (n + 1) / 2);
  const bool identityLike = in.Bool();
  for (unsigned int i = 0, k = 0; i < n; ++i) {
    for (unsigned int j = 0; j <= i; ++j, ++k) {
      packed[k] = identityLike ? (i == j ? 1.0 + in.Unit() : 0.01 * in.Moderate(1.0)) : in.Number();
    }
  }
  return packed;
}

// n values for a start point.
inline std::vector<double> StartPoint(Bytes& in, unsigned int n) {
  std::vector<double> x(n);
  const bool moderate = in.Below(4) != 0;
  for (double& v : x) v = moderate ? in.Moderate(4.0) : in.Number();
  return x;
}

}  // namespace lxfuzz

#endif  // LXOPT_FUZZ_INPUT_H
