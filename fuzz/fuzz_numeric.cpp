// The finite-difference derivatives: gradients, Hessians, single elements,
// displaced-gradient records (also hand-made, failed and mismatched ones)
// and the NumericFunc1 wrapper, with random steps h.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "fuzz_input.h"
#include "lxopt/numeric.h"

namespace {

using lxfuzz::Bytes;
using lxfuzz::Check;

constexpr unsigned int kMaxGradientVariables = 300;
constexpr unsigned int kMaxHessianVariables = 40;  // n (n + 1) gradients

double Step(Bytes& in, double usual) {
  return in.Below(3) == 0 ? in.Number() : usual;
}

// A record as DifferentialGradients makes it, or a hand-made one whose
// arrays may be short or empty.
LxOpt::GradDiff Record(Bytes& in, LxOpt::LxFunc1& func, const std::vector<double>& x,
                       unsigned int n) {
  if (in.Bool()) {
    const unsigned int index = in.Below(n + 2);
    LxOpt::GradDiff r =
        LxOpt::DifferentialGradients(func, x.data(), index, Step(in, LxOpt::kLxHessianStep));
    const bool failed = r.gplus.empty() && r.gminus.empty();
    Check(r.index == index && failed == (index >= n),
          "DifferentialGradients fails exactly outside the range");
    if (!failed)
      Check(r.gplus.size() == n && r.gminus.size() == n, "a record holds two gradients of n");
    return r;
  }
  LxOpt::GradDiff r;
  r.index = in.Below(n + 1);
  r.denominator = in.Number();
  r.gplus.resize(in.Below(n + 2));
  r.gminus.resize(in.Bool() ? r.gplus.size() : in.Below(n + 2));
  for (double& v : r.gplus) v = in.Number();
  for (double& v : r.gminus) v = in.Number();
  return r;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Bytes in(data, size);
  const unsigned int what = in.Below(5);
  const unsigned int cap = what == 0 || what == 4 ? kMaxGradientVariables : kMaxHessianVariables;
  const unsigned int n = in.Below(cap + 1);
  lxfuzz::Polynomial func(in, n, 1u << 20);
  const std::vector<double> x = lxfuzz::StartPoint(in, n);

  switch (what) {
    case 0: {
      std::vector<double> grad(n, 0.0);
      LxOpt::NumericGradients(func, x.data(), grad.data(), Step(in, LxOpt::kLxGradientStep));
      break;
    }
    case 1: {
      std::vector<double> hessian(static_cast<std::size_t>(n) * (n + 1) / 2, 0.0);
      LxOpt::NumericHessian(func, x.data(), hessian.data(), Step(in, LxOpt::kLxHessianStep));
      break;
    }
    case 2: {
      // Rows and columns up to n + 1; r == n itself is the caller's error
      // (not rejected by the function), so it is skipped.
      const unsigned int row = in.Below(n + 2), column = in.Below(n + 2);
      const unsigned int r = row > column ? row : column;
      if (r != n)
        LxOpt::NumericHessianElement(func, x.data(), row, column, Step(in, LxOpt::kLxHessianStep));
      break;
    }
    case 3: {
      std::vector<LxOpt::GradDiff> records;
      const unsigned int count = in.Below(6);
      unsigned int rows = 0;
      for (unsigned int k = 0; k < count; ++k) {
        records.push_back(Record(in, func, x, n));
        if (records.back().index + 1 > rows) rows = records.back().index + 1;
      }
      std::vector<double> hessian(static_cast<std::size_t>(rows) * (rows + 1) / 2 + 1, 0.0);
      const bool ok = LxOpt::NumericHessian(records, in.Below(8) == 0 ? nullptr : hessian.data());
      if (records.empty()) Check(!ok, "no records, no Hessian");
      break;
    }
    default: {
      LxOpt::NumericFunc1 wrapped(&func);
      std::vector<double> grad(n, 0.0);
      wrapped(x.data(), grad.data());
      wrapped(x.data());
      break;
    }
  }
  return 0;
}
