// Forward-mode derivative numbers for the benchmark problems: each problem
// writes its residuals once as a template over the scalar type, and these
// types carry exact first (Dual) or first and second (Hyper) derivatives
// through the arithmetic. The derivatives are those of the formulas, exact to
// rounding, not difference quotients.
//
// Dual<N>:  value v and gradient d[N].
// Hyper<N>: value v, gradient d[N] and Hessian h, packed lower triangle by
//           rows, (i, j) with j <= i at i (i + 1) / 2 + j.
// Chain rule of a scalar function phi applied to a:
//   d = phi'(a) a.d,   h = phi'(a) a.h + phi''(a) a.d a.d'.
#ifndef LXBENCH_JET_H
#define LXBENCH_JET_H

#include <cmath>
#include <type_traits>

namespace lxbench {

template <int N>
struct Dual {
  double v = 0.0;
  double d[N] = {};

  Dual() = default;
  Dual(double value) : v(value) {}  // NOLINT: constants mix freely with jets

  // The i-th variable with value x.
  static Dual Variable(double x, int i) {
    Dual r(x);
    r.d[i] = 1.0;
    return r;
  }
  // phi(a) from phi(a.v), phi'(a.v) and phi''(a.v) (the last is unused here).
  Dual Chain(double phi, double dphi, double /*d2phi*/) const {
    Dual r(phi);
    for (int i = 0; i < N; ++i) r.d[i] = dphi * d[i];
    return r;
  }
  friend Dual operator+(const Dual& a, const Dual& b) {
    Dual r(a.v + b.v);
    for (int i = 0; i < N; ++i) r.d[i] = a.d[i] + b.d[i];
    return r;
  }
  friend Dual operator-(const Dual& a, const Dual& b) {
    Dual r(a.v - b.v);
    for (int i = 0; i < N; ++i) r.d[i] = a.d[i] - b.d[i];
    return r;
  }
  friend Dual operator*(const Dual& a, const Dual& b) {
    Dual r(a.v * b.v);
    for (int i = 0; i < N; ++i) r.d[i] = a.v * b.d[i] + b.v * a.d[i];
    return r;
  }
};

template <int N>
struct Hyper {
  static constexpr int kPacked = N * (N + 1) / 2;
  double v = 0.0;
  double d[N] = {};
  double h[kPacked] = {};

  Hyper() = default;
  Hyper(double value) : v(value) {}  // NOLINT: constants mix freely with jets

  static Hyper Variable(double x, int i) {
    Hyper r(x);
    r.d[i] = 1.0;
    return r;
  }
  Hyper Chain(double phi, double dphi, double d2phi) const {
    Hyper r(phi);
    for (int i = 0; i < N; ++i) r.d[i] = dphi * d[i];
    for (int i = 0, k = 0; i < N; ++i)
      for (int j = 0; j <= i; ++j, ++k) r.h[k] = dphi * h[k] + d2phi * d[i] * d[j];
    return r;
  }
  friend Hyper operator+(const Hyper& a, const Hyper& b) {
    Hyper r(a.v + b.v);
    for (int i = 0; i < N; ++i) r.d[i] = a.d[i] + b.d[i];
    for (int k = 0; k < kPacked; ++k) r.h[k] = a.h[k] + b.h[k];
    return r;
  }
  friend Hyper operator-(const Hyper& a, const Hyper& b) {
    Hyper r(a.v - b.v);
    for (int i = 0; i < N; ++i) r.d[i] = a.d[i] - b.d[i];
    for (int k = 0; k < kPacked; ++k) r.h[k] = a.h[k] - b.h[k];
    return r;
  }
  // (ab)'' = a b'' + b a'' + a' b'^T + b' a'^T
  friend Hyper operator*(const Hyper& a, const Hyper& b) {
    Hyper r(a.v * b.v);
    for (int i = 0; i < N; ++i) r.d[i] = a.v * b.d[i] + b.v * a.d[i];
    for (int i = 0, k = 0; i < N; ++i)
      for (int j = 0; j <= i; ++j, ++k)
        r.h[k] = a.v * b.h[k] + b.v * a.h[k] + a.d[i] * b.d[j] + b.d[i] * a.d[j];
    return r;
  }
};

template <class T>
struct IsJet : std::false_type {};
template <int N>
struct IsJet<Dual<N>> : std::true_type {};
template <int N>
struct IsJet<Hyper<N>> : std::true_type {};
// The result type J of the operations below, for jets only.
template <class J>
using IfJet = std::enable_if_t<IsJet<J>::value, J>;

// Value of a plain double or of a jet.
inline double Value(double x) {
  return x;
}
template <class J>
double Value(const J& x) {
  return x.v;
}

// Elementary functions; plain doubles go to <cmath>.
template <class J>
IfJet<J> operator-(const J& a) {
  return a.Chain(-a.v, -1.0, 0.0);
}
template <class J>
IfJet<J> operator/(const J& a, const J& b) {
  const double inv = 1.0 / b.v;
  return a * b.Chain(inv, -inv * inv, 2.0 * inv * inv * inv);
}
template <class J>
IfJet<J> exp(const J& a) {
  const double e = std::exp(a.v);
  return a.Chain(e, e, e);
}
template <class J>
IfJet<J> log(const J& a) {
  return a.Chain(std::log(a.v), 1.0 / a.v, -1.0 / (a.v * a.v));
}
template <class J>
IfJet<J> sin(const J& a) {
  const double s = std::sin(a.v), c = std::cos(a.v);
  return a.Chain(s, c, -s);
}
template <class J>
IfJet<J> cos(const J& a) {
  const double s = std::sin(a.v), c = std::cos(a.v);
  return a.Chain(c, -s, -c);
}
template <class J>
IfJet<J> sqrt(const J& a) {
  const double s = std::sqrt(a.v);
  return a.Chain(s, 0.5 / s, -0.25 / (s * a.v));
}
template <class J>
IfJet<J> atan(const J& a) {
  const double q = 1.0 / (1.0 + a.v * a.v);
  return a.Chain(std::atan(a.v), q, -2.0 * a.v * q * q);
}
template <class J>
IfJet<J> fabs(const J& a) {
  return a.v < 0.0 ? -a : a;
}
// a^p for a constant exponent p.
template <class J>
IfJet<J> pow(const J& a, double p) {
  const double w = std::pow(a.v, p - 2.0);
  return a.Chain(w * a.v * a.v, p * w * a.v, p * (p - 1.0) * w);
}
// a^b with both varying, as exp(b log a) (a > 0).
template <class J>
IfJet<J> pow(const J& a, const J& b) {
  return exp(b * log(a));
}

// Mixed arithmetic with constants.
template <class J>
IfJet<J> operator+(const J& a, double b) {
  return a + J(b);
}
template <class J>
IfJet<J> operator+(double a, const J& b) {
  return J(a) + b;
}
template <class J>
IfJet<J> operator-(const J& a, double b) {
  return a - J(b);
}
template <class J>
IfJet<J> operator-(double a, const J& b) {
  return J(a) - b;
}
template <class J>
IfJet<J> operator*(const J& a, double b) {
  return a.Chain(a.v * b, b, 0.0);
}
template <class J>
IfJet<J> operator*(double a, const J& b) {
  return b.Chain(a * b.v, a, 0.0);
}
template <class J>
IfJet<J> operator/(const J& a, double b) {
  return a.Chain(a.v / b, 1.0 / b, 0.0);
}
template <class J>
IfJet<J> operator/(double a, const J& b) {
  return J(a) / b;
}

}  // namespace lxbench

#endif  // LXBENCH_JET_H
