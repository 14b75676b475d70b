// Checks of analytic gradients and Hessians against central differences, and
// of the translation and rotation invariance of coordinate objectives.
#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "framework/packed.h"
#include "lxopt/host.h"
#include "lxopt/tools.h"

namespace LxOpt {
namespace {

// error = |a - n| / max(|a|, |n|, floor); fills error, worst and the verdict.
void Compare(LxDerivativeCheck& check, const LxDerivativeCheckOptions& options) {
  check.tolerance = options.tolerance;
  check.error.resize(check.analytic.size());
  check.worst = 0;
  check.worstError = 0.0;
  for (std::size_t i = 0; i < check.analytic.size(); ++i) {
    const double a = check.analytic[i], n = check.numeric[i];
    const double scale = std::max({std::fabs(a), std::fabs(n), options.floor});
    const double e = std::fabs(a - n) / scale;
    check.error[i] = std::isnan(e) ? HUGE_VAL : e;
    if (check.error[i] > check.worstError) {
      check.worstError = check.error[i];
      check.worst = static_cast<unsigned int>(i);
    }
  }
  check.passed = check.worstError <= options.tolerance;
}

double Norm3(const double* v) {
  return std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
}

#if defined(__GNUC__)
__attribute__((format(printf, 2, 3)))
#endif
void Append(std::string& text, const char* format, ...) {
  char line[200];
  va_list args;
  va_start(args, format);
  std::vsnprintf(line, sizeof line, format, args);
  va_end(args);
  text += line;
}

}  // namespace

LxDerivativeCheck LxCheckGradient(LxFunc1& func, const double* x,
                                  const LxDerivativeCheckOptions& options) {
  const unsigned int n = func.NumVar();
  LxDerivativeCheck check;
  check.analytic.assign(n, 0.0);
  check.numeric.resize(n);
  func(x, check.analytic.data());
  std::vector<double> probe(x, x + n);
  const double h = options.step;
  for (unsigned int i = 0; i < n; ++i) {
    probe[i] = x[i] + h;
    const double up = func(probe.data());
    probe[i] = x[i] - h;
    const double down = func(probe.data());
    probe[i] = x[i];
    check.numeric[i] = (up - down) / (2.0 * h);
  }
  Compare(check, options);
  return check;
}

LxDerivativeCheck LxCheckHessian(LxFunc2& func, const double* x,
                                 const LxDerivativeCheckOptions& options) {
  const unsigned int n = func.NumVar();
  LxDerivativeCheck check;
  check.analytic.assign(packed::Size(n), 0.0);
  std::vector<double> grad(n, 0.0);
  if (!func(x, check.analytic.data(), grad.data())) {
    LxThrow.Error("LxCheckHessian: the objective could not form its Hessian");
    check.analytic.clear();
    check.passed = false;
    return check;
  }
  // Row i of the full difference matrix: (g(x + h e_i) - g(x - h e_i)) / 2h.
  std::vector<double> full(static_cast<std::size_t>(n) * n);
  std::vector<double> up(n), down(n), probe(x, x + n);
  const double h = options.step;
  for (unsigned int i = 0; i < n; ++i) {
    std::fill(up.begin(), up.end(), 0.0);
    std::fill(down.begin(), down.end(), 0.0);
    probe[i] = x[i] + h;
    func(probe.data(), up.data());
    probe[i] = x[i] - h;
    func(probe.data(), down.data());
    probe[i] = x[i];
    for (unsigned int j = 0; j < n; ++j)
      full[static_cast<std::size_t>(i) * n + j] = (up[j] - down[j]) / (2.0 * h);
  }
  check.numeric.resize(packed::Size(n));
  for (unsigned int i = 0; i < n; ++i)
    for (unsigned int j = 0; j <= i; ++j)
      check.numeric[packed::Index(i, j)] = 0.5 * (full[static_cast<std::size_t>(i) * n + j] +
                                                  full[static_cast<std::size_t>(j) * n + i]);
  Compare(check, options);
  return check;
}

LxCoordDerivativeCheck LxCheckGradient(LxCoordFunc1& func, const double* x,
                                       const LxDerivativeCheckOptions& options) {
  LxCoordDerivativeCheck check;
  check.gradient = LxCheckGradient(static_cast<LxFunc1&>(func), x, options);
  const unsigned int atoms = func.NumCoords();
  const double* g = check.gradient.analytic.data();
  double centroid[3] = {0.0, 0.0, 0.0};
  for (unsigned int a = 0; a < atoms; ++a)
    for (int k = 0; k < 3; ++k) centroid[k] += x[3 * a + k] / atoms;
  // Net force sum_a g_a and net torque sum_a (r_a - c) x g_a about the centroid.
  double force[3] = {0.0, 0.0, 0.0}, torque[3] = {0.0, 0.0, 0.0};
  double forceScale = 0.0, torqueScale = 0.0;
  for (unsigned int a = 0; a < atoms; ++a) {
    const double* ga = g + 3 * a;
    const double r[3] = {x[3 * a] - centroid[0], x[3 * a + 1] - centroid[1],
                         x[3 * a + 2] - centroid[2]};
    for (int k = 0; k < 3; ++k) force[k] += ga[k];
    torque[0] += r[1] * ga[2] - r[2] * ga[1];
    torque[1] += r[2] * ga[0] - r[0] * ga[2];
    torque[2] += r[0] * ga[1] - r[1] * ga[0];
    forceScale += Norm3(ga);
    torqueScale += Norm3(r) * Norm3(ga);
  }
  check.translationResidual = Norm3(force) / std::max(forceScale, options.floor);
  check.rotationResidual = Norm3(torque) / std::max(torqueScale, options.floor);
  check.translationInvariant = check.translationResidual <= options.tolerance;
  check.rotationInvariant = check.rotationResidual <= options.tolerance;
  return check;
}

std::string LxFormatDerivativeCheck(const LxDerivativeCheck& check, unsigned int maxLines) {
  std::string text = check.passed ? "PASSED" : "FAILED";
  Append(text, ": worst relative error %.3e at component %u (tolerance %.1e)\n", check.worstError,
         check.worst, check.tolerance);
  unsigned int lines = 0;
  for (std::size_t i = 0; i < check.error.size() && lines < maxLines; ++i) {
    if (check.error[i] <= check.tolerance) continue;
    Append(text, "  component %zu: analytic %+.8e  numeric %+.8e  error %.3e\n", i,
           check.analytic[i], check.numeric[i], check.error[i]);
    ++lines;
  }
  return text;
}

std::string LxFormatDerivativeCheck(const LxCoordDerivativeCheck& check, unsigned int maxLines) {
  std::string text = "gradient ";
  text += LxFormatDerivativeCheck(check.gradient, maxLines);
  const double tol = check.gradient.tolerance;
  Append(text, "translation invariance: residual %.3e (tolerance %.1e) %s\n",
         check.translationResidual, tol, check.translationInvariant ? "PASSED" : "FAILED");
  Append(text, "rotation invariance: residual %.3e (tolerance %.1e) %s\n", check.rotationResidual,
         tol, check.rotationInvariant ? "PASSED" : "FAILED");
  return text;
}

}  // namespace LxOpt
