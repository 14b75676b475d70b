// The benchmark problem interface: an LxFunc2 that also knows its name, its
// standard start point and its known minimum value, and the least-squares
// form f = sum_i r_i(x)^2 in which the More-Garbow-Hillstrom problems are
// written once (residuals as a template) and differentiated exactly.
#ifndef LXBENCH_PROBLEM_H
#define LXBENCH_PROBLEM_H

#include <string>
#include <vector>

#include "jet.h"
#include "lxopt/function.h"

namespace lxbench {

class Problem : public LxOpt::LxFunc2 {
 public:
  using LxOpt::LxFunc2::operator();
  virtual std::string Name() const = 0;
  virtual std::vector<double> Start() const = 0;
  // The known minimum value the benchmark compares with.
  virtual double FStar() const = 0;
  // A minimizer in closed form where one is known (empty otherwise).
  virtual std::vector<double> Minimizer() const { return {}; }
  // Whether the Hessian is formed (all problems of this set do).
  virtual bool HasHessian() const { return true; }

  std::vector<LxOpt::LxFComponent> GetFComponents(const double* x) override {
    return {{Name(), (*this)(x)}};
  }
};

// A sum of squares over a model with
//   static constexpr int kN;            number of variables
//   static constexpr int kM;            number of residuals
//   const char* name;  double fstar;  std::vector<double> Start() const;
//   std::vector<double> Minimizer() const;
//   template <class T> void Residuals(const T* x, T* r) const;
// Value in plain doubles, the gradient through Dual<kN>, the Hessian
// through Hyper<kN>.
template <class Model>
class LeastSquares : public Problem {
 public:
  static constexpr int kN = Model::kN;
  static constexpr int kM = Model::kM;

  using Problem::operator();
  unsigned int NumVar() const override { return kN; }
  std::string Name() const override { return model_.name; }
  std::vector<double> Start() const override { return model_.Start(); }
  double FStar() const override { return model_.fstar; }
  std::vector<double> Minimizer() const override { return model_.Minimizer(); }

  double operator()(const double* x) override {
    double r[kM];
    model_.Residuals(x, r);
    double f = 0.0;
    for (int i = 0; i < kM; ++i) f += r[i] * r[i];
    return f;
  }

  // Overwrites grad with 2 J' r and returns f.
  double operator()(const double* x, double* grad) override {
    using D = Dual<kN>;
    D v[kN];
    for (int i = 0; i < kN; ++i) v[i] = D::Variable(x[i], i);
    D r[kM];
    model_.Residuals(v, r);
    double f = 0.0;
    for (int i = 0; i < kN; ++i) grad[i] = 0.0;
    for (int k = 0; k < kM; ++k) {
      f += r[k].v * r[k].v;
      for (int i = 0; i < kN; ++i) grad[i] += 2.0 * r[k].v * r[k].d[i];
    }
    return f;
  }

  // Overwrites grad and the packed Hessian 2 (J'J + sum_k r_k H_k).
  bool operator()(const double* x, double* hessian, double* grad) override {
    using H = Hyper<kN>;
    H v[kN];
    for (int i = 0; i < kN; ++i) v[i] = H::Variable(x[i], i);
    H r[kM];
    model_.Residuals(v, r);
    for (int i = 0; i < kN; ++i) grad[i] = 0.0;
    for (int k = 0; k < H::kPacked; ++k) hessian[k] = 0.0;
    for (int m = 0; m < kM; ++m) {
      const H& q = r[m];
      for (int i = 0, k = 0; i < kN; ++i) {
        grad[i] += 2.0 * q.v * q.d[i];
        for (int j = 0; j <= i; ++j, ++k) hessian[k] += 2.0 * (q.d[i] * q.d[j] + q.v * q.h[k]);
      }
    }
    return true;
  }

 private:
  Model model_;
};

}  // namespace lxbench

#endif  // LXBENCH_PROBLEM_H
