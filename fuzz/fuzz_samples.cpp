// The minimum finder's sample-point store driven by a random program of
// operations: set-up, adding (in and out of the box, short vectors), reading
// and replacing points (bad indices too), matching, distances, both radius
// updates, both ellipsoid tests, random sample points from both generators,
// clearing and printing.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "fuzz_input.h"
#include "lxopt/minfinder.h"

namespace {

using lxfuzz::Bytes;
using lxfuzz::Check;
using LxOpt::LxMinfinder::MinfinderSamplePoints;

constexpr unsigned int kMaxVariables = 12;
constexpr unsigned int kMaxOperations = 160;

// n values, sometimes fewer (the store must refuse short vectors).
std::vector<double> Vector(Bytes& in, unsigned int n) {
  const unsigned int size = in.Below(8) == 0 ? in.Below(n + 1) : n;
  std::vector<double> v(size);
  for (double& d : v) d = in.Below(6) == 0 ? in.Number() : in.Moderate(2.0);
  return v;
}

// The default objective geometry test (root-mean-square distance).
class Plain : public LxOpt::LxFunc1 {
 public:
  using LxOpt::LxFunc1::operator();
  explicit Plain(unsigned int n) : n_(n) {}
  unsigned int NumVar() const override { return n_; }
  double operator()(const double*) override { return 0.0; }
  double operator()(const double*, double*) override { return 0.0; }
  std::vector<LxOpt::LxFComponent> GetFComponents(const double*) override { return {}; }

 private:
  unsigned int n_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Bytes in(data, size);
  MinfinderSamplePoints store;
  unsigned int n = in.Below(kMaxVariables + 1);
  store.Setup(n, in.Number());
  std::vector<double> lower(n, -2.0), upper(n, 2.0);
  LxOpt::LxMinfinder::GetRandomVariablesGeneral uniform;
  LxOpt::LxRandomPosOrient poses;
  uniform.Seed(in.U32());
  poses.Seed(in.U32());
  poses.SetQuaternionFromOwnEngine(true);  // leave the process-wide rand() alone

  for (unsigned int op = 0; op < kMaxOperations && in.Remaining() > 0; ++op) {
    const unsigned long points = store.getNumPoints();
    const unsigned long i = in.Below(static_cast<unsigned int>(points) + 2);  // may be out of range
    switch (in.Below(16)) {
      case 0:
        if (in.Below(8) == 0) {
          n = in.Below(kMaxVariables + 1);
          store.Setup(n, in.Number());
          lower.assign(n, -2.0);
          upper.assign(n, 2.0);
        } else {
          store.Clear();
        }
        break;
      case 1:
      case 2: {
        store.SetCheckMinimumInRange(in.Below(4) != 0);
        const unsigned long before = store.getNumPoints();
        const std::vector<double> x = Vector(in, n), g = Vector(in, n);
        const bool added = store.addPoint(x, in.Number(), g, lower, upper);
        Check(store.getNumPoints() == before + (added ? 1 : 0), "addPoint adds one point or none");
        break;
      }
      case 3: {
        std::vector<double> x, g;
        double y = 0.0;
        const bool gotX = store.getX(x, i), gotY = store.getY(y, i), gotG = store.getGrad(g, i);
        const bool ok = gotX && gotY && gotG;
        Check(ok == (i < points) && gotX == gotY && gotY == gotG,
              "reads succeed exactly below the count");
        if (ok) Check(x.size() == n && g.size() == n, "reads give n values");
        break;
      }
      case 4: {
        const std::vector<double> x = Vector(in, n), g = Vector(in, n);
        store.replacePoint(i, x, in.Number(), g);
        break;
      }
      case 5: {
        if (points == 0) break;
        const unsigned long j = in.Below(static_cast<unsigned int>(points));
        const unsigned long k = in.Below(static_cast<unsigned int>(points));
        const std::vector<double> x = Vector(in, n);
        if (x.size() < n) break;  // the distance helpers take n values
        const double d = store.CalcDistance(j, k);
        const double d2 = store.CalcDistance2(j, x.data());
        store.CalcDistance(store.PointData(j), x.data());
        store.CalcDistance2(j, k);
        Check(!(d < 0.0) && !(d2 < 0.0), "distances are not negative");
        break;
      }
      case 6: {
        unsigned long index = 12345;
        const std::vector<double> x = Vector(in, n);
        if (x.size() < n) break;
        const bool found = store.haveItAlready(index, x, in.Number(), in.Bool());
        if (found) Check(index < points, "haveItAlready index in range");
        if (points == 0) Check(!found && index == 0, "an empty store matches nothing");
        break;
      }
      case 7: {
        unsigned long index = 12345;
        const std::vector<double> x = Vector(in, n);
        if (x.size() < n) break;
        Plain func(n);
        const bool found = store.haveItAlready(index, func, in.Number(), x, in.Number(), in.Bool());
        if (found) Check(index < points, "haveItAlready index in range");
        break;
      }
      case 8:
        store.updateEllipsoidParemetersRt(Vector(in, n), Vector(in, n));
        break;
      case 9: {
        const std::vector<double> s = Vector(in, n), m = Vector(in, n);
        store.updateMinima(s, m, in.Bool() ? i : in.U32());
        break;
      }
      case 10:
      case 11: {
        const std::vector<double> x = Vector(in, n);
        if (x.size() < n) break;
        store.IsItInAnyEllipsoid(x.data());
        store.IsItInAnyEllipsoidRt(x.data(), in.Number());
        break;
      }
      case 12: {
        std::vector<double> x;
        LxOpt::LxMinfinder::GetRandomVariables* generators[] = {&uniform, &poses, nullptr};
        std::vector<double> lo = lower, hi = upper;
        if (in.Below(4) == 0) {
          for (std::size_t d = 0; d < lo.size(); ++d) {
            lo[d] = in.Number();
            hi[d] = in.Number();
          }
        }
        store.GetRandomSamplePoint(x, lo, hi, generators[in.Below(3)]);
        break;
      }
      case 13: {
        std::vector<double> tolerance;
        store.GetSamePointTolerance(tolerance);
        Check(tolerance.size() == n, "n tolerances");
        for (double& t : tolerance) t = in.Number();
        store.SetSamePointTolerance(tolerance);
        break;
      }
      case 14:
        store.GetMinimumRadii(i);
        store.GetAttractedCount(i);
        break;
      default:
        if (in.Bool()) {
          store.PrintSortedPoints();
        } else {
          store.PrintSortedPoints(in.Number());
        }
        break;
    }
  }
  return 0;
}
