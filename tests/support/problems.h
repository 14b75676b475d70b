// Test support: objectives that know their answers and a capture of host messages.
#ifndef LXOPT_TESTS_SUPPORT_PROBLEMS_H
#define LXOPT_TESTS_SUPPORT_PROBLEMS_H

#include <lxopt/lxopt.h>

#include <cmath>
#include <numeric>
#include <string>
#include <utility>
#include <vector>

namespace lxtest {

using LxOpt::LxFComponent;

// Shared boilerplate: one component holding the whole value.
class Objective : public LxOpt::LxFunc2 {
 public:
  using LxOpt::LxFunc2::operator();
  std::vector<LxFComponent> GetFComponents(const double* x) override {
    return {{"total", (*this)(x)}};
  }
  // No Hessian unless a problem supplies one.
  bool operator()(const double*, double*, double*) override { return false; }
};

inline double Dot(const std::vector<double>& a, const std::vector<double>& b) {
  return std::inner_product(a.begin(), a.end(), b.begin(), 0.0);
}
inline double Norm(const std::vector<double>& v) {
  return std::sqrt(Dot(v, v));
}

// f'(x') = energy f(x' / length): the inner objective in other units.
class InUnits : public Objective {
 public:
  using Objective::operator();
  InUnits(Objective& inner, double energy, double length = 1.0)
      : inner_(inner), energy_(energy), length_(length), x_(inner.NumVar()) {}
  unsigned int NumVar() const override { return inner_.NumVar(); }
  double operator()(const double* x) override { return energy_ * inner_(Shrink(x)); }
  double operator()(const double* x, double* g) override {
    const double f = inner_(Shrink(x), g);
    for (unsigned int i = 0; i < NumVar(); ++i) g[i] = g[i] * energy_ / length_;
    return energy_ * f;
  }

 private:
  const double* Shrink(const double* x) {
    for (unsigned int i = 0; i < NumVar(); ++i) x_[i] = x[i] / length_;
    return x_.data();
  }
  Objective& inner_;
  double energy_, length_;
  std::vector<double> x_;
};

// f = sum_i d_i (x_i - c_i)^2, minimum 0 at c; Hessian diag(2 d).
class DiagonalQuadratic : public Objective {
 public:
  using Objective::operator();
  DiagonalQuadratic(std::vector<double> d, std::vector<double> c)
      : d_(std::move(d)), c_(std::move(c)) {}
  // n variables with d_i = 1 .. condition spread geometrically, c_i = 1.
  static DiagonalQuadratic IllConditioned(unsigned int n, double condition) {
    std::vector<double> d(n), c(n, 1.0);
    for (unsigned int i = 0; i < n; ++i)
      d[i] = n > 1 ? std::pow(condition, double(i) / (n - 1)) : 1.0;
    return DiagonalQuadratic(d, c);
  }
  unsigned int NumVar() const override { return static_cast<unsigned int>(d_.size()); }
  double operator()(const double* x) override {
    double f = 0.0;
    for (size_t i = 0; i < d_.size(); ++i) f += d_[i] * (x[i] - c_[i]) * (x[i] - c_[i]);
    return f;
  }
  double operator()(const double* x, double* g) override {
    for (size_t i = 0; i < d_.size(); ++i) g[i] = 2.0 * d_[i] * (x[i] - c_[i]);
    return (*this)(x);
  }
  bool operator()(const double* x, double* h, double* g) override {
    (*this)(x, g);
    for (size_t i = 0; i < d_.size(); ++i) h[i * (i + 1) / 2 + i] = 2.0 * d_[i];
    return true;
  }

 private:
  std::vector<double> d_, c_;
};

// The curved valley f = 100 (y - x^2)^2 + (1 - x)^2; minimum 0 at (1, 1).
class Rosenbrock : public Objective {
 public:
  using Objective::operator();
  unsigned int NumVar() const override { return 2; }
  double operator()(const double* x) override {
    const double a = x[1] - x[0] * x[0], b = 1.0 - x[0];
    return 100.0 * a * a + b * b;
  }
  double operator()(const double* x, double* g) override {
    const double a = x[1] - x[0] * x[0];
    g[0] = -400.0 * a * x[0] - 2.0 * (1.0 - x[0]);
    g[1] = 200.0 * a;
    return (*this)(x);
  }
  bool operator()(const double* x, double* h, double* g) override {
    (*this)(x, g);
    h[0] = 1200.0 * x[0] * x[0] - 400.0 * x[1] + 2.0;
    h[1] = -400.0 * x[0];
    h[2] = 200.0;
    return true;
  }
};

// A linear function: no minimum, so every search keeps going downhill.
class Linear : public Objective {
 public:
  using Objective::operator();
  explicit Linear(std::vector<double> slope) : slope_(std::move(slope)) {}
  unsigned int NumVar() const override { return static_cast<unsigned int>(slope_.size()); }
  double operator()(const double* x) override {
    double f = 0.0;
    for (size_t i = 0; i < slope_.size(); ++i) f += slope_[i] * x[i];
    return f;
  }
  double operator()(const double* x, double* g) override {
    for (size_t i = 0; i < slope_.size(); ++i) g[i] = slope_[i];
    return (*this)(x);
  }

 private:
  std::vector<double> slope_;
};

// Captures host messages for the lifetime of the object.
class MessageCapture {
 public:
  struct Message {
    LxOpt::LxMessageLevel level;
    std::string text;
  };
  MessageCapture() {
    previous_ =
        LxOpt::LxSetMessageSink([this](LxOpt::LxMessageLevel level, const std::string& text) {
          messages.push_back({level, text});
        });
  }
  ~MessageCapture() { LxOpt::LxSetMessageSink(previous_); }
  MessageCapture(const MessageCapture&) = delete;
  MessageCapture& operator=(const MessageCapture&) = delete;
  std::vector<std::string> Texts() const {
    std::vector<std::string> t;
    for (const Message& m : messages) t.push_back(m.text);
    return t;
  }
  std::vector<Message> messages;

 private:
  LxOpt::LxMessageSink previous_;
};

}  // namespace lxtest

#endif  // LXOPT_TESTS_SUPPORT_PROBLEMS_H
