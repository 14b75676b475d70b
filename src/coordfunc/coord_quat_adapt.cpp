// Rigid-body pose adaptor: seven variables (a quaternion q and a translation
// t) move the reference points of a coordinate objective as one body.
//
// With s = |q|² and R(q) the rotation matrix of the unnormalised q (entries
// quadratic in q), the moved points are x_k = R(q) p_k / s + t. The gradient
// follows from the chain rule over the coordinate gradient g_k:
//   df/dt   = sum_k g_k
//   df/dq_i = sum_k g_k . (dR/dq_i) p_k / s - 2 q_i (sum_k g_k . R p_k) / s²,
// the second term being the projection that removes the component along q
// (R is homogeneous of degree 2, so q . dR/dq = 2R).
#include <algorithm>
#include <cmath>

#include "lxopt/coordfunc.h"
#include "lxopt/host.h"

namespace LxOpt {
namespace {

// Forwards to a coordinate objective owned by someone else.
class LxRefCoordFunc1 : public LxCoordFunc1 {
 public:
  using LxCoordFunc1::operator();
  explicit LxRefCoordFunc1(LxCoordFunc1* target) : target_(target) {}
  unsigned int NumVar() const override { return target_->NumVar(); }
  double operator()(const double* x) override { return (*target_)(x); }
  double operator()(const double* x, double* grad) override { return (*target_)(x, grad); }
  std::vector<LxFComponent> GetFComponents(const double* x) override {
    return target_->GetFComponents(x);
  }
  const char* Name() const override { return target_->Name(); }
  unsigned int NumCoords() const override { return target_->NumCoords(); }
  LxCoordFunc1* CreateCopy() const override { return new LxRefCoordFunc1(target_); }

 private:
  LxCoordFunc1* target_;
};

// -f over a borrowed objective, so that a minimizer maximizes f.
class LxNegFunc1 : public LxFunc1 {
 public:
  using LxFunc1::operator();
  explicit LxNegFunc1(LxFunc1* target) : target_(target) {}
  unsigned int NumVar() const override { return target_->NumVar(); }
  double operator()(const double* x) override { return -(*target_)(x); }
  double operator()(const double* x, double* grad) override {
    const double f = (*target_)(x, grad);
    const unsigned int n = target_->NumVar();
    for (unsigned int i = 0; i < n; ++i) grad[i] = -grad[i];
    return -f;
  }
  // Deliberate: the components are the target's, not negated.
  std::vector<LxFComponent> GetFComponents(const double* x) override {
    return target_->GetFComponents(x);
  }
  bool CheckVariablesValidity(const double* x) override {
    return target_->CheckVariablesValidity(x);
  }
  bool IsRedundant(const double* a, const double* b, double tolerance) const override {
    return target_->IsRedundant(a, b, tolerance);
  }

 private:
  LxFunc1* target_;
};

constexpr unsigned int kPoseVars = 7;

}  // namespace

LxCoordQuatAdapt1::LxCoordQuatAdapt1(const LxCoordFunc1& f, const double* ref)
    : func_(f.CreateCopy()) {
  SetReference(ref);
}

LxCoordQuatAdapt1::LxCoordQuatAdapt1(const LxCoordFunc1& f, const std::vector<double>& ref)
    : LxCoordQuatAdapt1(f, ref.data()) {}

LxCoordQuatAdapt1::LxCoordQuatAdapt1(LxCoordFunc1* f, const double* ref)
    : func_(new LxRefCoordFunc1(f)) {
  SetReference(ref);
}

LxCoordQuatAdapt1::LxCoordQuatAdapt1(LxCoordFunc1* f, const std::vector<double>& ref)
    : LxCoordQuatAdapt1(f, ref.data()) {}

LxCoordQuatAdapt1::LxCoordQuatAdapt1(const LxCoordQuatAdapt1& other)
    : LxFunc0(other),
      LxFunc1(other),
      func_(other.func_->CreateCopy()),
      reference_(other.reference_),
      working_(other.working_),
      coordGrad_(other.coordGrad_) {}

LxCoordQuatAdapt1& LxCoordQuatAdapt1::operator=(const LxCoordQuatAdapt1& other) {
  if (this != &other) {
    func_.reset(other.func_->CreateCopy());
    reference_ = other.reference_;
    working_ = other.working_;
    coordGrad_ = other.coordGrad_;
  }
  return *this;
}

LxCoordQuatAdapt1::~LxCoordQuatAdapt1() = default;

void LxCoordQuatAdapt1::SetReference(const double* ref) {
  const unsigned int n = func_->NumVar();
  reference_.assign(ref, ref + n);
  working_.assign(n, 0.0);
  coordGrad_.assign(n, 0.0);
}

void LxCoordQuatAdapt1::ApplyTransform(double* coords, unsigned int count, const double* v) {
  double a = v[0], b = v[1], c = v[2], d = v[3];
  double s = a * a + b * b + c * c + d * d;
  if (s != 0.0) {
    const double scale = std::sqrt(1.0 / s);
    a *= scale;
    b *= scale;
    c *= scale;
    d *= scale;
    s = a * a + b * b + c * c + d * d;
  }
  double m[9] = {
      a * a + b * b - c * c - d * d, 2.0 * (b * c - a * d),         2.0 * (a * c + b * d),
      2.0 * (b * c + a * d),         a * a - b * b + c * c - d * d, 2.0 * (c * d - a * b),
      2.0 * (b * d - a * c),         2.0 * (c * d + a * b),         a * a - b * b - c * c + d * d};
  // The normalised s differs from 1 only by rounding; dividing by it keeps
  // the matrix as orthogonal as the arithmetic allows.
  if (s != 1.0 && s != 0.0)
    for (double& e : m) e /= s;
  LxGeom3DRotate(coords, count, m);
  for (unsigned int k = 0; k < count; ++k) {
    double* p = coords + 3 * static_cast<std::size_t>(k);
    p[0] += v[4];
    p[1] += v[5];
    p[2] += v[6];
  }
}

void LxCoordQuatAdapt1::ApplyTransform(std::vector<double>& coords, const double* v) {
  ApplyTransform(coords.data(), static_cast<unsigned int>(coords.size() / 3), v);
}

void LxCoordQuatAdapt1::ApplyTransform(std::vector<double>& coords, const std::vector<double>& v) {
  ApplyTransform(coords, v.data());
}

double LxCoordQuatAdapt1::operator()(const double* v) {
  working_ = reference_;
  ApplyTransform(working_, v);
  return (*func_)(working_.data());
}

double LxCoordQuatAdapt1::operator()(const double* v, double* grad) {
  working_ = reference_;
  ApplyTransform(working_, v);
  std::fill(coordGrad_.begin(), coordGrad_.end(), 0.0);
  const double f = (*func_)(working_.data(), coordGrad_.data());

  // S[u][w] = sum_k p_ku g_kw over the reference points p_k.
  double S[3][3] = {};
  const unsigned int n = func_->NumVar();
  for (unsigned int k = 0; k + 2 < n; k += 3) {
    const double* p = &reference_[k];
    const double* g = &coordGrad_[k];
    for (int w = 0; w < 3; ++w) grad[4 + w] += g[w];
    for (int u = 0; u < 3; ++u)
      for (int w = 0; w < 3; ++w) S[u][w] += p[u] * g[w];
  }

  // Half of sum_k g_k . (dR/dq_i) p_k for the unnormalised q.
  const double a = v[0], b = v[1], c = v[2], d = v[3];
  const double xx = S[0][0], xy = S[0][1], xz = S[0][2];
  const double yx = S[1][0], yy = S[1][1], yz = S[1][2];
  const double zx = S[2][0], zy = S[2][1], zz = S[2][2];
  grad[0] += a * xx - d * yx + c * zx + d * xy + a * yy - b * zy - c * xz + b * yz + a * zz;
  grad[1] += b * xx + c * yx + d * zx + c * xy - b * yy - a * zy + d * xz + a * yz - b * zz;
  grad[2] += -c * xx + b * yx + a * zx + b * xy + c * yy + d * zy - a * xz + d * yz - c * zz;
  grad[3] += -d * xx - a * yx + b * zx + a * xy - d * yy + c * zy + b * xz + c * yz + d * zz;

  const double s = a * a + b * b + c * c + d * d;
  if (s == 0.0) {
    LxThrow.Warning("Q == 0.0 in quat adaptor");
    for (unsigned int i = 0; i < kPoseVars; ++i) grad[i] = 0.0;
    // Deliberate: 0.0, not f, on this exit.
    return 0.0;
  }
  // Scale by 2/s, then remove the part along q: grad_q -= q (q . grad_q) / s.
  const double r = 1.0 / s;
  for (int i = 0; i < 4; ++i) grad[i] *= 2.0 * r;
  double t = 0.0;
  for (int i = 0; i < 4; ++i) t += v[i] * grad[i];
  for (int i = 0; i < 4; ++i) grad[i] -= v[i] * r * t;
  return f;
}

std::vector<LxFComponent> LxCoordQuatAdapt1::GetFComponents(const double* v) {
  return {{func_->Name(), (*this)(v)}};
}

double LxCoordQuatAdapt1::Minimize(double* v, LxOptimizer1& opt) {
  double start[kPoseVars];
  for (unsigned int i = 0; i < kPoseVars; ++i) start[i] = v[i];
  // Deliberate: the negated minimum is returned; callers rely on the sign.
  return -opt(*this, start, v);
}

double LxCoordQuatAdapt1::Maximize(double* v, LxOptimizer1& opt) {
  double start[kPoseVars];
  for (unsigned int i = 0; i < kPoseVars; ++i) start[i] = v[i];
  LxNegFunc1 negated(this);
  return -opt(negated, start, v);
}

double LxCoordQuatAdapt1::Minimize(std::vector<double>& v, LxOptimizer1& opt) {
  return Minimize(v.data(), opt);
}

double LxCoordQuatAdapt1::Maximize(std::vector<double>& v, LxOptimizer1& opt) {
  return Maximize(v.data(), opt);
}

}  // namespace LxOpt
