// The global minimum search on Himmelblau's function: every minimum found,
// beside the four known ones.
#include <cmath>
#include <cstdio>

#include "demo/demo.h"

namespace demo {
namespace {

// (x^2 + y - 11)^2 + (x + y^2 - 7)^2: four minima of value 0 in [-5, 5]^2,
// besides a maximum and four saddle points.
class Himmelblau : public Objective {
 public:
  using Objective::operator();
  unsigned int NumVar() const override { return 2; }
  double operator()(const double* x) override {
    const double a = x[0] * x[0] + x[1] - 11.0, b = x[0] + x[1] * x[1] - 7.0;
    return a * a + b * b;
  }
  double operator()(const double* x, double* g) override {
    ++evaluations;
    const double a = x[0] * x[0] + x[1] - 11.0, b = x[0] + x[1] * x[1] - 7.0;
    g[0] = 4.0 * x[0] * a + 2.0 * b;
    g[1] = 2.0 * a + 4.0 * x[1] * b;
    return a * a + b * b;
  }
  long evaluations = 0;  // value-and-gradient calls
};

struct Known {
  double x, y;
};
const Known kKnown[] = {
    {3.0, 2.0}, {-2.805118, 3.131312}, {-3.779310, -3.283186}, {3.584428, -1.848126}};

// The known minimum nearest to (x, y) and its distance.
int NearestKnown(double x, double y, double& distance) {
  int best = 0;
  distance = INFINITY;
  for (int k = 0; k < 4; ++k) {
    const double d = std::hypot(x - kKnown[k].x, y - kKnown[k].y);
    if (d < distance) {
      distance = d;
      best = k;
    }
  }
  return best;
}

void GlobalSearch(const Options&) {
  Himmelblau func;
  LxOpt::LxMinfinder::GetRandomVariablesGeneral generator;
  LxOpt::LxMinfinder::LxMinfinder finder;
  finder.SetKeepDegenerateStates(true);  // the four minima share the value 0
  finder.SetThresholdNumberOfNoChange(100);
  if (!finder.Setup(func, &generator, {-5.0, -5.0}, {5.0, 5.0}) || !finder.Optimize()) {
    std::printf("  the search failed\n");
    return;
  }
  std::vector<double> coords, values;
  if (!finder.GetMinimums(coords, values)) return;
  std::printf("  Himmelblau's function in [-5, 5]^2: %zu minima, %ld gradient evaluations\n",
              values.size(), func.evaluations);
  std::printf("  %-3s %-24s %-14s %-24s %s\n", "#", "found (x, y)", "f", "known (x, y)",
              "distance");
  for (std::size_t j = 0; j < values.size(); ++j) {
    double distance = 0.0;
    const Known& k = kKnown[NearestKnown(coords[2 * j], coords[2 * j + 1], distance)];
    std::printf("  %-3zu (%9.6f, %9.6f)   %-14.3e (%9.6f, %9.6f)   %.1e\n", j + 1, coords[2 * j],
                coords[2 * j + 1], values[j], k.x, k.y, distance);
  }
}

const Register search(Section{90, "global-search", GlobalSearch});

}  // namespace
}  // namespace demo
