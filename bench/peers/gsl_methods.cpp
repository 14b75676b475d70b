// GSL multimin's gradient minimizers under the common stopping rule: after
// every iteration gsl_multimin_test_gradient(g, 1e-6) (Euclidean norm), at
// most 5000 iterations; an iteration that reports no progress ends the run.
// First step 0.01 and line-search tolerance 0.1, the values GSL's manual
// recommends.
#include <gsl/gsl_errno.h>

#include <gsl/gsl_multimin.h>
#include <chrono>

#include "harness.h"

namespace lxbench {
namespace {

constexpr double kFirstStep = 0.01;
constexpr double kLineTolerance = 0.1;

Counting& Of(void* params) {
  return *static_cast<Counting*>(params);
}

double Value(const gsl_vector* x, void* params) {
  return Of(params)(x->data);
}
void Gradient(const gsl_vector* x, void* params, gsl_vector* g) {
  Of(params).Gradient(x->data, g->data);
}
void ValueGradient(const gsl_vector* x, void* params, double* f, gsl_vector* g) {
  *f = Of(params)(x->data, g->data);
}

Outcome RunGsl(const gsl_multimin_fdfminimizer_type* type, Counting& f) {
  gsl_set_error_handler_off();
  const size_t n = f.NumVar();
  const std::vector<double> start = f.problem().Start();
  gsl_vector* x = gsl_vector_alloc(n);
  for (size_t i = 0; i < n; ++i) gsl_vector_set(x, i, start[i]);
  gsl_multimin_function_fdf fdf{&Value, &Gradient, &ValueGradient, n, &f};
  gsl_multimin_fdfminimizer* s = gsl_multimin_fdfminimizer_alloc(type, n);
  gsl_multimin_fdfminimizer_set(s, &fdf, x, kFirstStep, kLineTolerance);

  Outcome o;
  o.status = "MaxIter";
  const auto t0 = std::chrono::steady_clock::now();
  for (unsigned int iter = 1; iter <= kIterLimit; ++iter) {
    o.iterations = iter;
    if (std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count() >
        kRunSecondsLimit) {
      o.status = "TimeLimit";
      break;
    }
    const int status = gsl_multimin_fdfminimizer_iterate(s);
    if (status != GSL_SUCCESS) {
      o.status = status == GSL_ENOPROG ? "NoProgress" : gsl_strerror(status);
      break;
    }
    if (gsl_multimin_test_gradient(s->gradient, kGradientTolerance) == GSL_SUCCESS) {
      o.status = "Gradient";
      break;
    }
  }
  o.x.assign(s->x->data, s->x->data + n);
  gsl_multimin_fdfminimizer_free(s);
  gsl_vector_free(x);
  return o;
}

Method Gsl(const std::string& name, const std::string& methodClass,
           const gsl_multimin_fdfminimizer_type* type) {
  return {"GSL", name, methodClass, [type](Counting& f) { return RunGsl(type, f); }};
}

}  // namespace

std::vector<Method> GslMethods() {
  return {Gsl("steepest_descent", "SD", gsl_multimin_fdfminimizer_steepest_descent),
          Gsl("conjugate_fr", "CG", gsl_multimin_fdfminimizer_conjugate_fr),
          Gsl("conjugate_pr", "CG", gsl_multimin_fdfminimizer_conjugate_pr),
          Gsl("vector_bfgs2", "QN", gsl_multimin_fdfminimizer_vector_bfgs2)};
}

}  // namespace lxbench
