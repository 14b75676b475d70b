// The benchmark problem set behind a C interface, so the scipy script
// evaluates exactly the same functions (loaded with ctypes). Problems are
// addressed by their index in the set (ProblemSet, then ClusterSet); the set
// is built on first use.
#include <cstring>
#include <memory>
#include <vector>

#include "../problems/clusters.h"
#include "../problems/problem_set.h"
#include "problems_capi.h"

namespace {

std::vector<std::unique_ptr<lxbench::Problem>>& Set() {
  static std::vector<std::unique_ptr<lxbench::Problem>> set = [] {
    auto all = lxbench::ProblemSet();
    for (auto& p : lxbench::ClusterSet()) all.push_back(std::move(p));
    return all;
  }();
  return set;
}

std::string& NameBuffer() {
  static std::string name;
  return name;
}

}  // namespace

extern "C" {

int lxb_count() {
  return static_cast<int>(Set().size());
}

const char* lxb_name(int i) {
  NameBuffer() = Set()[i]->Name();
  return NameBuffer().c_str();
}

int lxb_n(int i) {
  return static_cast<int>(Set()[i]->NumVar());
}

double lxb_fstar(int i) {
  return Set()[i]->FStar();
}

void lxb_start(int i, double* x) {
  const std::vector<double> s = Set()[i]->Start();
  std::memcpy(x, s.data(), s.size() * sizeof(double));
}

double lxb_value(int i, const double* x) {
  return (*Set()[i])(x);
}

double lxb_gradient(int i, const double* x, double* g) {
  return (*Set()[i])(x, g);
}

int lxb_hessian(int i, const double* x, double* h, double* g) {
  lxbench::Problem& p = *Set()[i];
  const size_t n = p.NumVar();
  std::vector<double> packed(n * (n + 1) / 2, 0.0);
  if (!p(x, packed.data(), g)) return 0;
  for (size_t r = 0; r < n; ++r)
    for (size_t c = 0; c <= r; ++c) h[r * n + c] = h[c * n + r] = packed[r * (r + 1) / 2 + c];
  return 1;
}

}  // extern "C"
