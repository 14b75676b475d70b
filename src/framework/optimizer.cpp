// Optimizer bases, checkpoint defaults and the state-name table.
#include "lxopt/optimizer.h"

namespace LxOpt {

namespace {
constexpr const char* kStateNames[] = {"Cont",    "NoOpt",   "OneVar", "NotFound", "Ended",
                                       "NotJust", "Exhaust", "Dist",   "Fval",     "Grad",
                                       "Comp",    "Done",    "Stable"};
constexpr unsigned int kStateCount = sizeof(kStateNames) / sizeof(kStateNames[0]);
}  // namespace

const char* LxGetStateName(unsigned int state) {
  return state < kStateCount ? kStateNames[state] : "";
}

LxCheckpoint0::~LxCheckpoint0() = default;
LxCheckpoint1::~LxCheckpoint1() = default;

bool LxCheckpoint1::operator()(unsigned int, unsigned int, double, const double*, unsigned int) {
  return true;
}

double LxOptimizer0::operator()(LxFunc0& func, const double* start, double* out) {
  return (*this)(func, nullptr, start, out);
}
LxOptimizer0::~LxOptimizer0() = default;

double LxOptimizer1::operator()(LxFunc1& func, const double* start, double* out) {
  return (*this)(func, nullptr, start, out);
}
LxOptimizer1::~LxOptimizer1() = default;

double LxOptimizer2::operator()(LxFunc2& func, const double* start, double* out) {
  return (*this)(func, nullptr, start, out);
}
LxOptimizer2::~LxOptimizer2() = default;

}  // namespace LxOpt
