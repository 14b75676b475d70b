// The More-Garbow-Hillstrom unconstrained test problems (ACM TOMS 7(1),
// 1981), numbered as in the paper, each f = sum_i r_i(x)^2 with its standard
// start point and known minimum value. Indices in the comments are 1-based
// as in the paper; the code is 0-based. Where a problem has several reported
// minima, fstar is the global one (0 for Freudenstein-Roth and Biggs EXP6,
// whose local minima 48.9842 and 5.65565e-3 many methods end in).
#ifndef LXBENCH_MGH_H
#define LXBENCH_MGH_H

#include <algorithm>
#include <cmath>
#include <vector>

#include "jet.h"

namespace lxbench {
namespace mgh {

constexpr double kPi = 3.14159265358979323846;

// Helpers shared by the models: start points and minimizers as vectors.
inline std::vector<double> Filled(int n, double value) {
  return std::vector<double>(n, value);
}

// 1. Rosenbrock: r1 = 10 (x2 - x1^2), r2 = 1 - x1.
struct Rosenbrock {
  static constexpr int kN = 2, kM = 2;
  const char* name = "mgh01_rosenbrock";
  double fstar = 0.0;
  std::vector<double> Start() const { return {-1.2, 1.0}; }
  std::vector<double> Minimizer() const { return {1.0, 1.0}; }
  template <class T>
  void Residuals(const T* x, T* r) const {
    r[0] = 10.0 * (x[1] - x[0] * x[0]);
    r[1] = 1.0 - x[0];
  }
};

// 2. Freudenstein and Roth.
struct FreudensteinRoth {
  static constexpr int kN = 2, kM = 2;
  const char* name = "mgh02_freudenstein_roth";
  double fstar = 0.0;
  std::vector<double> Start() const { return {0.5, -2.0}; }
  std::vector<double> Minimizer() const { return {5.0, 4.0}; }
  template <class T>
  void Residuals(const T* x, T* r) const {
    r[0] = -13.0 + x[0] + ((5.0 - x[1]) * x[1] - 2.0) * x[1];
    r[1] = -29.0 + x[0] + ((x[1] + 1.0) * x[1] - 14.0) * x[1];
  }
};

// 3. Powell badly scaled.
struct PowellBadlyScaled {
  static constexpr int kN = 2, kM = 2;
  const char* name = "mgh03_powell_badly_scaled";
  double fstar = 0.0;
  std::vector<double> Start() const { return {0.0, 1.0}; }
  std::vector<double> Minimizer() const { return {}; }
  template <class T>
  void Residuals(const T* x, T* r) const {
    using std::exp;
    r[0] = 1e4 * x[0] * x[1] - 1.0;
    r[1] = exp(-x[0]) + exp(-x[1]) - 1.0001;
  }
};

// 4. Brown badly scaled.
struct BrownBadlyScaled {
  static constexpr int kN = 2, kM = 3;
  const char* name = "mgh04_brown_badly_scaled";
  double fstar = 0.0;
  std::vector<double> Start() const { return {1.0, 1.0}; }
  std::vector<double> Minimizer() const { return {1e6, 2e-6}; }
  template <class T>
  void Residuals(const T* x, T* r) const {
    r[0] = x[0] - 1e6;
    r[1] = x[1] - 2e-6;
    r[2] = x[0] * x[1] - 2.0;
  }
};

// 5. Beale: r_i = y_i - x1 (1 - x2^i).
struct Beale {
  static constexpr int kN = 2, kM = 3;
  const char* name = "mgh05_beale";
  double fstar = 0.0;
  std::vector<double> Start() const { return {1.0, 1.0}; }
  std::vector<double> Minimizer() const { return {3.0, 0.5}; }
  template <class T>
  void Residuals(const T* x, T* r) const {
    const double y[3] = {1.5, 2.25, 2.625};
    T power = x[1];
    for (int i = 0; i < kM; ++i) {
      r[i] = y[i] - x[0] * (1.0 - power);
      power = power * x[1];
    }
  }
};

// 6. Jennrich and Sampson, m = 10: r_i = 2 + 2i - (e^(i x1) + e^(i x2)).
struct JennrichSampson {
  static constexpr int kN = 2, kM = 10;
  const char* name = "mgh06_jennrich_sampson";
  double fstar = 124.36218235561473;  // 124.362 in the paper, refined here
  std::vector<double> Start() const { return {0.3, 0.4}; }
  std::vector<double> Minimizer() const { return {}; }
  template <class T>
  void Residuals(const T* x, T* r) const {
    using std::exp;
    for (int i = 1; i <= kM; ++i) r[i - 1] = 2.0 + 2.0 * i - (exp(i * x[0]) + exp(i * x[1]));
  }
};

// 7. Helical valley, theta = atan(x2 / x1) / 2 pi (+ 0.5 when x1 < 0).
struct HelicalValley {
  static constexpr int kN = 3, kM = 3;
  const char* name = "mgh07_helical_valley";
  double fstar = 0.0;
  std::vector<double> Start() const { return {-1.0, 0.0, 0.0}; }
  std::vector<double> Minimizer() const { return {1.0, 0.0, 0.0}; }
  template <class T>
  void Residuals(const T* x, T* r) const {
    using std::atan;
    using std::sqrt;
    T theta = atan(x[1] / x[0]) / (2.0 * kPi);
    if (Value(x[0]) < 0.0) theta = theta + 0.5;
    r[0] = 10.0 * (x[2] - 10.0 * theta);
    r[1] = 10.0 * (sqrt(x[0] * x[0] + x[1] * x[1]) - 1.0);
    r[2] = x[2];
  }
};

// 8. Bard: r_i = y_i - (x1 + u_i / (v_i x2 + w_i x3)), u = i, v = 16 - i,
// w = min(u, v).
struct Bard {
  static constexpr int kN = 3, kM = 15;
  const char* name = "mgh08_bard";
  double fstar = 8.21487730657e-3;
  std::vector<double> Start() const { return {1.0, 1.0, 1.0}; }
  std::vector<double> Minimizer() const { return {}; }
  template <class T>
  void Residuals(const T* x, T* r) const {
    const double y[kM] = {0.14, 0.18, 0.22, 0.25, 0.29, 0.32, 0.35, 0.39,
                          0.37, 0.58, 0.73, 0.96, 1.34, 2.10, 4.39};
    for (int i = 1; i <= kM; ++i) {
      const double u = i, v = 16 - i, w = std::min(u, v);
      r[i - 1] = y[i - 1] - (x[0] + u / (v * x[1] + w * x[2]));
    }
  }
};

// 9. Gaussian: r_i = x1 exp(-x2 (t_i - x3)^2 / 2) - y_i, t_i = (8 - i) / 2.
struct Gaussian {
  static constexpr int kN = 3, kM = 15;
  const char* name = "mgh09_gaussian";
  double fstar = 1.12793e-8;
  std::vector<double> Start() const { return {0.4, 1.0, 0.0}; }
  std::vector<double> Minimizer() const { return {}; }
  template <class T>
  void Residuals(const T* x, T* r) const {
    using std::exp;
    const double y[kM] = {0.0009, 0.0044, 0.0175, 0.0540, 0.1295, 0.2420, 0.3521, 0.3989,
                          0.3521, 0.2420, 0.1295, 0.0540, 0.0175, 0.0044, 0.0009};
    for (int i = 1; i <= kM; ++i) {
      const double t = (8.0 - i) / 2.0;
      const T dt = t - x[2];
      r[i - 1] = x[0] * exp(-0.5 * x[1] * dt * dt) - y[i - 1];
    }
  }
};

// 10. Meyer: r_i = x1 exp(x2 / (t_i + x3)) - y_i, t_i = 45 + 5 i.
struct Meyer {
  static constexpr int kN = 3, kM = 16;
  const char* name = "mgh10_meyer";
  double fstar = 87.945855170395;  // 87.9458 in the paper, refined here
  std::vector<double> Start() const { return {0.02, 4000.0, 250.0}; }
  std::vector<double> Minimizer() const { return {}; }
  template <class T>
  void Residuals(const T* x, T* r) const {
    using std::exp;
    const double y[kM] = {34780, 28610, 23650, 19630, 16370, 13720, 11540, 9744,
                          8261,  7030,  6005,  5147,  4427,  3820,  3307,  2872};
    for (int i = 1; i <= kM; ++i)
      r[i - 1] = x[0] * exp(x[1] / ((45.0 + 5.0 * i) + x[2])) - y[i - 1];
  }
};

// 11. Gulf research and development, m = 99:
// r_i = exp(-|y_i - x2|^x3 / x1) - t_i, t_i = i / 100,
// y_i = 25 + (-50 ln t_i)^(2/3).
struct GulfResearch {
  static constexpr int kN = 3, kM = 99;
  const char* name = "mgh11_gulf_research";
  double fstar = 0.0;
  std::vector<double> Start() const { return {5.0, 2.5, 0.15}; }
  std::vector<double> Minimizer() const { return {50.0, 25.0, 1.5}; }
  template <class T>
  void Residuals(const T* x, T* r) const {
    using std::exp;
    using std::fabs;
    using std::pow;
    for (int i = 1; i <= kM; ++i) {
      const double t = i / 100.0;
      const double y = 25.0 + std::pow(-50.0 * std::log(t), 2.0 / 3.0);
      r[i - 1] = exp(-pow(fabs(y - x[1]), x[2]) / x[0]) - t;
    }
  }
};

// 12. Box three-dimensional, m = 10, t_i = 0.1 i.
struct Box3D {
  static constexpr int kN = 3, kM = 10;
  const char* name = "mgh12_box_3d";
  double fstar = 0.0;
  std::vector<double> Start() const { return {0.0, 10.0, 20.0}; }
  std::vector<double> Minimizer() const { return {1.0, 10.0, 1.0}; }
  template <class T>
  void Residuals(const T* x, T* r) const {
    using std::exp;
    for (int i = 1; i <= kM; ++i) {
      const double t = 0.1 * i;
      r[i - 1] = exp(-t * x[0]) - exp(-t * x[1]) - x[2] * (std::exp(-t) - std::exp(-10.0 * t));
    }
  }
};

// 13. Powell singular.
struct PowellSingular {
  static constexpr int kN = 4, kM = 4;
  const char* name = "mgh13_powell_singular";
  double fstar = 0.0;
  std::vector<double> Start() const { return {3.0, -1.0, 0.0, 1.0}; }
  std::vector<double> Minimizer() const { return Filled(kN, 0.0); }
  template <class T>
  void Residuals(const T* x, T* r) const {
    const T a = x[1] - 2.0 * x[2], b = x[0] - x[3];
    r[0] = x[0] + 10.0 * x[1];
    r[1] = std::sqrt(5.0) * (x[2] - x[3]);
    r[2] = a * a;
    r[3] = std::sqrt(10.0) * b * b;
  }
};

// 14. Wood.
struct Wood {
  static constexpr int kN = 4, kM = 6;
  const char* name = "mgh14_wood";
  double fstar = 0.0;
  std::vector<double> Start() const { return {-3.0, -1.0, -3.0, -1.0}; }
  std::vector<double> Minimizer() const { return Filled(kN, 1.0); }
  template <class T>
  void Residuals(const T* x, T* r) const {
    r[0] = 10.0 * (x[1] - x[0] * x[0]);
    r[1] = 1.0 - x[0];
    r[2] = std::sqrt(90.0) * (x[3] - x[2] * x[2]);
    r[3] = 1.0 - x[2];
    r[4] = std::sqrt(10.0) * (x[1] + x[3] - 2.0);
    r[5] = (x[1] - x[3]) / std::sqrt(10.0);
  }
};

// 15. Kowalik and Osborne: r_i = y_i - x1 (u^2 + u x2) / (u^2 + u x3 + x4).
struct KowalikOsborne {
  static constexpr int kN = 4, kM = 11;
  const char* name = "mgh15_kowalik_osborne";
  double fstar = 3.07505603849e-4;
  std::vector<double> Start() const { return {0.25, 0.39, 0.415, 0.39}; }
  std::vector<double> Minimizer() const { return {}; }
  template <class T>
  void Residuals(const T* x, T* r) const {
    const double y[kM] = {0.1957, 0.1947, 0.1735, 0.1600, 0.0844, 0.0627,
                          0.0456, 0.0342, 0.0323, 0.0235, 0.0246};
    const double u[kM] = {4.0, 2.0, 1.0, 0.5, 0.25, 0.167, 0.125, 0.1, 0.0833, 0.0714, 0.0625};
    for (int i = 0; i < kM; ++i)
      r[i] = y[i] - x[0] * (u[i] * u[i] + u[i] * x[1]) / (u[i] * u[i] + u[i] * x[2] + x[3]);
  }
};

// 16. Brown and Dennis, m = 20, t_i = i / 5.
struct BrownDennis {
  static constexpr int kN = 4, kM = 20;
  const char* name = "mgh16_brown_dennis";
  double fstar = 85822.2016263563;  // 85822.2 in the paper, refined here
  std::vector<double> Start() const { return {25.0, 5.0, -5.0, -1.0}; }
  std::vector<double> Minimizer() const { return {}; }
  template <class T>
  void Residuals(const T* x, T* r) const {
    for (int i = 1; i <= kM; ++i) {
      const double t = i / 5.0;
      const T a = x[0] + t * x[1] - std::exp(t);
      const T b = x[2] + x[3] * std::sin(t) - std::cos(t);
      r[i - 1] = a * a + b * b;
    }
  }
};

// 17. Osborne 1, t_i = 10 (i - 1).
struct Osborne1 {
  static constexpr int kN = 5, kM = 33;
  const char* name = "mgh17_osborne1";
  double fstar = 5.46489469748e-5;
  std::vector<double> Start() const { return {0.5, 1.5, -1.0, 0.01, 0.02}; }
  std::vector<double> Minimizer() const { return {}; }
  template <class T>
  void Residuals(const T* x, T* r) const {
    using std::exp;
    const double y[kM] = {0.844, 0.908, 0.932, 0.936, 0.925, 0.908, 0.881, 0.850, 0.818,
                          0.784, 0.751, 0.718, 0.685, 0.658, 0.628, 0.603, 0.580, 0.558,
                          0.538, 0.522, 0.506, 0.490, 0.478, 0.467, 0.457, 0.448, 0.438,
                          0.431, 0.424, 0.420, 0.414, 0.411, 0.406};
    for (int i = 0; i < kM; ++i) {
      const double t = 10.0 * i;
      r[i] = y[i] - (x[0] + x[1] * exp(-t * x[3]) + x[2] * exp(-t * x[4]));
    }
  }
};

// 18. Biggs EXP6, m = 13, t_i = 0.1 i.
struct BiggsExp6 {
  static constexpr int kN = 6, kM = 13;
  const char* name = "mgh18_biggs_exp6";
  double fstar = 0.0;
  std::vector<double> Start() const { return {1.0, 2.0, 1.0, 1.0, 1.0, 1.0}; }
  std::vector<double> Minimizer() const { return {1.0, 10.0, 1.0, 5.0, 4.0, 3.0}; }
  template <class T>
  void Residuals(const T* x, T* r) const {
    using std::exp;
    for (int i = 1; i <= kM; ++i) {
      const double t = 0.1 * i;
      const double y = std::exp(-t) - 5.0 * std::exp(-10.0 * t) + 3.0 * std::exp(-4.0 * t);
      r[i - 1] = x[2] * exp(-t * x[0]) - x[3] * exp(-t * x[1]) + x[5] * exp(-t * x[4]) - y;
    }
  }
};

// 19. Osborne 2, t_i = (i - 1) / 10.
struct Osborne2 {
  static constexpr int kN = 11, kM = 65;
  const char* name = "mgh19_osborne2";
  double fstar = 4.01377362935e-2;
  std::vector<double> Start() const {
    return {1.3, 0.65, 0.65, 0.7, 0.6, 3.0, 5.0, 7.0, 2.0, 4.5, 5.5};
  }
  std::vector<double> Minimizer() const { return {}; }
  template <class T>
  void Residuals(const T* x, T* r) const {
    using std::exp;
    const double y[kM] = {
        1.366, 1.191, 1.112, 1.013, 0.991, 0.885, 0.831, 0.847, 0.786, 0.725, 0.746, 0.679, 0.608,
        0.655, 0.616, 0.606, 0.602, 0.626, 0.651, 0.724, 0.649, 0.649, 0.694, 0.644, 0.624, 0.661,
        0.612, 0.558, 0.533, 0.495, 0.500, 0.423, 0.395, 0.375, 0.372, 0.391, 0.396, 0.405, 0.428,
        0.429, 0.523, 0.562, 0.607, 0.653, 0.672, 0.708, 0.633, 0.668, 0.645, 0.632, 0.591, 0.559,
        0.597, 0.625, 0.739, 0.710, 0.729, 0.720, 0.636, 0.581, 0.428, 0.292, 0.162, 0.098, 0.054};
    for (int i = 0; i < kM; ++i) {
      const double t = i / 10.0;
      const T a = t - x[8], b = t - x[9], c = t - x[10];
      r[i] = y[i] - (x[0] * exp(-t * x[4]) + x[1] * exp(-a * a * x[5]) + x[2] * exp(-b * b * x[6]) +
                     x[3] * exp(-c * c * x[7]));
    }
  }
};

// 20. Watson, n = 6, t_i = i / 29:
// r_i = sum_{j>=2} (j-1) x_j t^(j-2) - (sum_j x_j t^(j-1))^2 - 1, i <= 29;
// r_30 = x1, r_31 = x2 - x1^2 - 1.
struct Watson {
  static constexpr int kN = 6, kM = 31;
  const char* name = "mgh20_watson";
  double fstar = 2.28767005355e-3;
  std::vector<double> Start() const { return Filled(kN, 0.0); }
  std::vector<double> Minimizer() const { return {}; }
  template <class T>
  void Residuals(const T* x, T* r) const {
    for (int i = 1; i <= 29; ++i) {
      const double t = i / 29.0;
      T s1 = 0.0, s2 = 0.0;
      double tp = 1.0;  // t^(j-1) for the sum s2, t^(j-2) for s1
      for (int j = 1; j <= kN; ++j) {
        if (j >= 2) s1 = s1 + ((j - 1) * tp / t) * x[j - 1];
        s2 = s2 + tp * x[j - 1];
        tp *= t;
      }
      r[i - 1] = s1 - s2 * s2 - 1.0;
    }
    r[29] = x[0];
    r[30] = x[1] - x[0] * x[0] - 1.0;
  }
};

// 21. Extended Rosenbrock, n = 10.
struct ExtendedRosenbrock {
  static constexpr int kN = 10, kM = 10;
  const char* name = "mgh21_ext_rosenbrock";
  double fstar = 0.0;
  std::vector<double> Start() const {
    std::vector<double> x(kN);
    for (int i = 0; i < kN; ++i) x[i] = i % 2 == 0 ? -1.2 : 1.0;
    return x;
  }
  std::vector<double> Minimizer() const { return Filled(kN, 1.0); }
  template <class T>
  void Residuals(const T* x, T* r) const {
    for (int i = 0; i < kN; i += 2) {
      r[i] = 10.0 * (x[i + 1] - x[i] * x[i]);
      r[i + 1] = 1.0 - x[i];
    }
  }
};

// 22. Extended Powell singular, n = 12.
struct ExtendedPowell {
  static constexpr int kN = 12, kM = 12;
  const char* name = "mgh22_ext_powell";
  double fstar = 0.0;
  std::vector<double> Start() const {
    std::vector<double> x(kN);
    const double block[4] = {3.0, -1.0, 0.0, 1.0};
    for (int i = 0; i < kN; ++i) x[i] = block[i % 4];
    return x;
  }
  std::vector<double> Minimizer() const { return Filled(kN, 0.0); }
  template <class T>
  void Residuals(const T* x, T* r) const {
    for (int i = 0; i < kN; i += 4) {
      const T a = x[i + 1] - 2.0 * x[i + 2], b = x[i] - x[i + 3];
      r[i] = x[i] + 10.0 * x[i + 1];
      r[i + 1] = std::sqrt(5.0) * (x[i + 2] - x[i + 3]);
      r[i + 2] = a * a;
      r[i + 3] = std::sqrt(10.0) * b * b;
    }
  }
};

// 23. Penalty I, n = 10: r_i = sqrt(1e-5) (x_i - 1), r_{n+1} = sum x^2 - 1/4.
struct PenaltyI {
  static constexpr int kN = 10, kM = 11;
  const char* name = "mgh23_penalty1";
  double fstar = 7.08765146709e-5;
  std::vector<double> Start() const {
    std::vector<double> x(kN);
    for (int i = 0; i < kN; ++i) x[i] = i + 1.0;
    return x;
  }
  std::vector<double> Minimizer() const { return {}; }
  template <class T>
  void Residuals(const T* x, T* r) const {
    T s = -0.25;
    for (int i = 0; i < kN; ++i) {
      r[i] = std::sqrt(1e-5) * (x[i] - 1.0);
      s = s + x[i] * x[i];
    }
    r[kN] = s;
  }
};

// 24. Penalty II, n = 10, m = 2n, a = 1e-5.
struct PenaltyII {
  static constexpr int kN = 10, kM = 20;
  const char* name = "mgh24_penalty2";
  double fstar = 2.93660397e-4;
  std::vector<double> Start() const { return Filled(kN, 0.5); }
  std::vector<double> Minimizer() const { return {}; }
  template <class T>
  void Residuals(const T* x, T* r) const {
    using std::exp;
    const double sa = std::sqrt(1e-5);
    r[0] = x[0] - 0.2;
    for (int i = 2; i <= kN; ++i) {
      const double y = std::exp(i / 10.0) + std::exp((i - 1) / 10.0);
      r[i - 1] = sa * (exp(x[i - 1] / 10.0) + exp(x[i - 2] / 10.0) - y);
    }
    for (int i = kN + 1; i < 2 * kN; ++i) r[i - 1] = sa * (exp(x[i - kN] / 10.0) - std::exp(-0.1));
    T s = -1.0;
    for (int j = 1; j <= kN; ++j) s = s + (kN - j + 1.0) * x[j - 1] * x[j - 1];
    r[2 * kN - 1] = s;
  }
};

// 25. Variably dimensioned, n = 10.
struct VariablyDimensioned {
  static constexpr int kN = 10, kM = 12;
  const char* name = "mgh25_variably_dimensioned";
  double fstar = 0.0;
  std::vector<double> Start() const {
    std::vector<double> x(kN);
    for (int j = 1; j <= kN; ++j) x[j - 1] = 1.0 - double(j) / kN;
    return x;
  }
  std::vector<double> Minimizer() const { return Filled(kN, 1.0); }
  template <class T>
  void Residuals(const T* x, T* r) const {
    T s = 0.0;
    for (int j = 1; j <= kN; ++j) {
      r[j - 1] = x[j - 1] - 1.0;
      s = s + double(j) * (x[j - 1] - 1.0);
    }
    r[kN] = s;
    r[kN + 1] = s * s;
  }
};

// 26. Trigonometric, n = 10:
// r_i = n - sum_j cos x_j + i (1 - cos x_i) - sin x_i.
struct Trigonometric {
  static constexpr int kN = 10, kM = 10;
  const char* name = "mgh26_trigonometric";
  double fstar = 0.0;
  std::vector<double> Start() const { return Filled(kN, 1.0 / kN); }
  std::vector<double> Minimizer() const { return Filled(kN, 0.0); }
  template <class T>
  void Residuals(const T* x, T* r) const {
    using std::cos;
    using std::sin;
    T c[kN];
    T s = double(kN);
    for (int j = 0; j < kN; ++j) {
      c[j] = cos(x[j]);
      s = s - c[j];
    }
    for (int i = 1; i <= kN; ++i) r[i - 1] = s + double(i) * (1.0 - c[i - 1]) - sin(x[i - 1]);
  }
};

// 27. Brown almost-linear, n = 10.
struct BrownAlmostLinear {
  static constexpr int kN = 10, kM = 10;
  const char* name = "mgh27_brown_almost_linear";
  double fstar = 0.0;
  std::vector<double> Start() const { return Filled(kN, 0.5); }
  std::vector<double> Minimizer() const { return Filled(kN, 1.0); }
  template <class T>
  void Residuals(const T* x, T* r) const {
    T s = 0.0, p = 1.0;
    for (int j = 0; j < kN; ++j) {
      s = s + x[j];
      p = p * x[j];
    }
    for (int i = 0; i < kN - 1; ++i) r[i] = x[i] + s - (kN + 1.0);
    r[kN - 1] = p - 1.0;
  }
};

// Start point t_j (t_j - 1), t_j = j h, h = 1 / (n + 1), of problems 28, 29.
inline std::vector<double> BoundaryStart(int n) {
  std::vector<double> x(n);
  const double h = 1.0 / (n + 1);
  for (int j = 1; j <= n; ++j) x[j - 1] = j * h * (j * h - 1.0);
  return x;
}

// 28. Discrete boundary value, n = 10:
// r_i = 2 x_i - x_{i-1} - x_{i+1} + h^2 (x_i + t_i + 1)^3 / 2, x_0 = x_{n+1} = 0.
struct DiscreteBoundary {
  static constexpr int kN = 10, kM = 10;
  const char* name = "mgh28_discrete_boundary";
  double fstar = 0.0;
  std::vector<double> Start() const { return BoundaryStart(kN); }
  std::vector<double> Minimizer() const { return {}; }
  template <class T>
  void Residuals(const T* x, T* r) const {
    const double h = 1.0 / (kN + 1);
    for (int i = 1; i <= kN; ++i) {
      const T u = x[i - 1] + (i * h + 1.0);
      T ri = 2.0 * x[i - 1] + 0.5 * h * h * u * u * u;
      if (i > 1) ri = ri - x[i - 2];
      if (i < kN) ri = ri - x[i];
      r[i - 1] = ri;
    }
  }
};

// 29. Discrete integral equation, n = 10.
struct DiscreteIntegral {
  static constexpr int kN = 10, kM = 10;
  const char* name = "mgh29_discrete_integral";
  double fstar = 0.0;
  std::vector<double> Start() const { return BoundaryStart(kN); }
  std::vector<double> Minimizer() const { return {}; }
  template <class T>
  void Residuals(const T* x, T* r) const {
    const double h = 1.0 / (kN + 1);
    T cube[kN];
    for (int j = 1; j <= kN; ++j) {
      const T u = x[j - 1] + (j * h + 1.0);
      cube[j - 1] = u * u * u;
    }
    for (int i = 1; i <= kN; ++i) {
      const double ti = i * h;
      T lower = 0.0, upper = 0.0;
      for (int j = 1; j <= i; ++j) lower = lower + (j * h) * cube[j - 1];
      for (int j = i + 1; j <= kN; ++j) upper = upper + (1.0 - j * h) * cube[j - 1];
      r[i - 1] = x[i - 1] + 0.5 * h * ((1.0 - ti) * lower + ti * upper);
    }
  }
};

// 30. Broyden tridiagonal, n = 10: r_i = (3 - 2 x_i) x_i - x_{i-1} - 2 x_{i+1} + 1.
struct BroydenTridiagonal {
  static constexpr int kN = 10, kM = 10;
  const char* name = "mgh30_broyden_tridiagonal";
  double fstar = 0.0;
  std::vector<double> Start() const { return Filled(kN, -1.0); }
  std::vector<double> Minimizer() const { return {}; }
  template <class T>
  void Residuals(const T* x, T* r) const {
    for (int i = 0; i < kN; ++i) {
      T ri = (3.0 - 2.0 * x[i]) * x[i] + 1.0;
      if (i > 0) ri = ri - x[i - 1];
      if (i < kN - 1) ri = ri - 2.0 * x[i + 1];
      r[i] = ri;
    }
  }
};

// 31. Broyden banded, n = 10, lower band 5, upper band 1.
struct BroydenBanded {
  static constexpr int kN = 10, kM = 10;
  const char* name = "mgh31_broyden_banded";
  double fstar = 0.0;
  std::vector<double> Start() const { return Filled(kN, -1.0); }
  std::vector<double> Minimizer() const { return {}; }
  template <class T>
  void Residuals(const T* x, T* r) const {
    for (int i = 0; i < kN; ++i) {
      T ri = x[i] * (2.0 + 5.0 * x[i] * x[i]) + 1.0;
      for (int j = std::max(0, i - 5); j <= std::min(kN - 1, i + 1); ++j)
        if (j != i) ri = ri - x[j] * (1.0 + x[j]);
      r[i] = ri;
    }
  }
};

// 32. Linear function, full rank, n = 10, m = 20; minimum m - n at x = -1.
struct LinearFullRank {
  static constexpr int kN = 10, kM = 20;
  const char* name = "mgh32_linear_full_rank";
  double fstar = kM - kN;
  std::vector<double> Start() const { return Filled(kN, 1.0); }
  std::vector<double> Minimizer() const { return Filled(kN, -1.0); }
  template <class T>
  void Residuals(const T* x, T* r) const {
    T s = 0.0;
    for (int j = 0; j < kN; ++j) s = s + x[j];
    const T c = (2.0 / kM) * s + 1.0;
    for (int i = 0; i < kM; ++i) r[i] = i < kN ? x[i] - c : -c;
  }
};

// 33. Linear function, rank 1, n = 10, m = 20: r_i = i sum_j j x_j - 1;
// minimum m (m - 1) / (2 (2m + 1)) wherever sum_j j x_j = 3 / (2m + 1).
struct LinearRank1 {
  static constexpr int kN = 10, kM = 20;
  const char* name = "mgh33_linear_rank1";
  double fstar = kM * (kM - 1.0) / (2.0 * (2.0 * kM + 1.0));
  std::vector<double> Start() const { return Filled(kN, 1.0); }
  std::vector<double> Minimizer() const {
    std::vector<double> x(kN, 0.0);
    x[0] = 3.0 / (2.0 * kM + 1.0);
    return x;
  }
  template <class T>
  void Residuals(const T* x, T* r) const {
    T s = 0.0;
    for (int j = 1; j <= kN; ++j) s = s + double(j) * x[j - 1];
    for (int i = 1; i <= kM; ++i) r[i - 1] = double(i) * s - 1.0;
  }
};

// 34. Linear function, rank 1 with zero columns and rows, n = 10, m = 20:
// r_1 = r_m = -1, r_i = (i - 1) sum_{j=2}^{n-1} j x_j - 1; minimum
// (m^2 + 3m - 6) / (2 (2m - 3)) wherever that sum is 3 / (2m - 3).
struct LinearRank1Zero {
  static constexpr int kN = 10, kM = 20;
  const char* name = "mgh34_linear_rank1_zero";
  double fstar = (kM * kM + 3.0 * kM - 6.0) / (2.0 * (2.0 * kM - 3.0));
  std::vector<double> Start() const { return Filled(kN, 1.0); }
  std::vector<double> Minimizer() const {
    std::vector<double> x(kN, 0.0);
    x[1] = 3.0 / (2.0 * kM - 3.0) / 2.0;
    return x;
  }
  template <class T>
  void Residuals(const T* x, T* r) const {
    T s = 0.0;
    for (int j = 2; j <= kN - 1; ++j) s = s + double(j) * x[j - 1];
    r[0] = T(-1.0);
    for (int i = 2; i <= kM - 1; ++i) r[i - 1] = double(i - 1) * s - 1.0;
    r[kM - 1] = T(-1.0);
  }
};

// 35. Chebyquad, n = m = 8: r_i = (1/n) sum_j T_i(x_j) - integral of T_i
// over [0, 1], T_i the Chebyshev polynomial shifted to [0, 1]; the integral is
// 0 for odd i and -1 / (i^2 - 1) for even i.
struct Chebyquad {
  static constexpr int kN = 8, kM = 8;
  const char* name = "mgh35_chebyquad";
  double fstar = 3.51687372568e-3;
  std::vector<double> Start() const {
    std::vector<double> x(kN);
    for (int j = 1; j <= kN; ++j) x[j - 1] = double(j) / (kN + 1);
    return x;
  }
  std::vector<double> Minimizer() const { return {}; }
  template <class T>
  void Residuals(const T* x, T* r) const {
    for (int i = 0; i < kM; ++i) r[i] = T(0.0);
    for (int j = 0; j < kN; ++j) {
      const T y = 2.0 * x[j] - 1.0;
      T previous = 1.0, current = y;
      for (int i = 1; i <= kM; ++i) {
        r[i - 1] = r[i - 1] + current / double(kN);
        const T next = 2.0 * y * current - previous;
        previous = current;
        current = next;
      }
    }
    for (int i = 2; i <= kM; i += 2) r[i - 1] = r[i - 1] + 1.0 / (i * i - 1.0);
  }
};

}  // namespace mgh
}  // namespace lxbench

#endif  // LXBENCH_MGH_H
