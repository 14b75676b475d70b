// The rigid-body quaternion adaptor over a random coordinate objective of N
// points: values, gradients, components, the static transforms (zero and
// non-finite quaternions included), Minimize and Maximize with a short
// optimizer run, both ways of holding the objective, and copies.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "fuzz_input.h"
#include "lxopt/conjgrad.h"
#include "lxopt/coordfunc.h"
#include "lxopt/quasinewton.h"
#include "lxopt/steepest.h"

namespace {

using lxfuzz::Bytes;
using lxfuzz::Check;

constexpr unsigned int kMaxPoints = 60;

// A random polynomial over the 3N coordinates of N points.
class PointField : public LxOpt::LxCoordFunc1 {
 public:
  using LxOpt::LxCoordFunc1::operator();
  PointField(Bytes& in, unsigned int points) : points_(points), poly_(in, 3 * points, 4000) {}
  double operator()(const double* x) override { return poly_(x); }
  double operator()(const double* x, double* grad) override { return poly_(x, grad); }
  const char* Name() const override { return "point field"; }
  unsigned int NumCoords() const override { return points_; }
  LxOpt::LxCoordFunc1* CreateCopy() const override { return new PointField(*this); }

 private:
  unsigned int points_;
  lxfuzz::Polynomial poly_;
};

std::vector<double> Pose(Bytes& in) {
  std::vector<double> v(7);
  const unsigned int kind = in.Below(4);
  for (unsigned int i = 0; i < 7; ++i) {
    if (kind == 0) {
      v[i] = in.Number();
    } else if (kind == 1 && i < 4) {
      v[i] = 0.0;  // the zero quaternion
    } else {
      v[i] = in.Moderate(2.0);
    }
  }
  return v;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Bytes in(data, size);
  const unsigned int points = in.Below(kMaxPoints + 1);
  PointField field(in, points);
  std::vector<double> reference(3 * points);
  for (double& r : reference) r = in.Below(8) == 0 ? in.Number() : in.Moderate(5.0);

  std::unique_ptr<LxOpt::LxCoordQuatAdapt1> adaptor;
  switch (in.Below(4)) {
    case 0:
      adaptor.reset(new LxOpt::LxCoordQuatAdapt1(field, reference.data()));
      break;
    case 1:
      adaptor.reset(new LxOpt::LxCoordQuatAdapt1(field, reference));
      break;
    case 2:
      adaptor.reset(new LxOpt::LxCoordQuatAdapt1(&field, reference.data()));
      break;
    default:
      adaptor.reset(new LxOpt::LxCoordQuatAdapt1(&field, reference));
      break;
  }
  Check(adaptor->NumVar() == 7, "the adaptor has seven variables");

  const unsigned int operations = in.Below(8) + 1;
  for (unsigned int k = 0; k < operations && in.Remaining() > 0; ++k) {
    std::vector<double> v = Pose(in);
    switch (in.Below(6)) {
      case 0:
        (*adaptor)(v.data());
        break;
      case 1: {
        std::vector<double> grad(7, 0.0);
        const double f = (*adaptor)(v.data(), grad.data());
        const bool zeroQuaternion = v[0] == 0.0 && v[1] == 0.0 && v[2] == 0.0 && v[3] == 0.0;
        if (zeroQuaternion) {
          Check(f == 0.0 && grad == std::vector<double>(7, 0.0),
                "zero quaternion: 0 and zero gradient");
        }
        break;
      }
      case 2:
        adaptor->GetFComponents(v.data());
        break;
      case 3: {
        std::vector<double> coords = reference;
        if (in.Bool()) {
          LxOpt::LxCoordQuatAdapt1::ApplyTransform(coords.data(), points, v.data());
        } else {
          LxOpt::LxCoordQuatAdapt1::ApplyTransform(coords, v);
        }
        break;
      }
      case 4: {
        LxOpt::LxSteepestDescentOpt sd;
        LxOpt::LxBFGSOpt bfgs;
        LxOpt::LxFletcherReevesOpt fr;
        LxOpt::LxOptimizer1* opts[] = {&sd, &bfgs, &fr};
        LxOpt::LxOptimizer1& opt = *opts[in.Below(3)];
        opt.SetIterLimit(in.Below(20));
        opt.SetTolerance(in.Tolerance());
        if (in.Bool()) {
          adaptor->Minimize(v, opt);
        } else {
          adaptor->Maximize(v.data(), opt);
        }
        break;
      }
      default: {
        LxOpt::LxCoordQuatAdapt1 copy(*adaptor);
        if (in.Bool()) {
          LxOpt::LxCoordQuatAdapt1 other(field, reference);
          other = copy;
          other(v.data());
        } else {
          copy(v.data());
        }
        break;
      }
    }
  }
  return 0;
}
