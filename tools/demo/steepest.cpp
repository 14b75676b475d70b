// Steepest descent in the demo table.
#include "demo/demo.h"

namespace demo {
namespace {

LxOpt::LxSteepestDescentOpt Configured() {
  LxOpt::LxSteepestDescentOpt opt;
  opt.SetTolerance(1e-8);
  return opt;
}

const Register steepest(Optimizer{10, "SteepestDescent", false, RunWith(Configured())});

}  // namespace
}  // namespace demo
