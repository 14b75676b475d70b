// The settings record of the quasi-Newton optimizers.
#include "lxopt/quasinewton.h"

namespace LxOpt {
namespace {

// The default line search: at most 32 trials, sufficient decrease 1e-4,
// curvature 0.9, smallest step 1e-10.
constexpr unsigned int kSearchTrials = 32;
constexpr double kSearchDecrease = 1e-4;
constexpr double kSearchCurvature = 0.9;
constexpr double kSearchMinStep = 1e-10;

}  // namespace

LxQNSettings::LxQNSettings()
    : iterLimit(kDefaultIterLimit),
      tolerance(kDefaultTolerance),
      lineMinimize(
          new LxQNLineMinimize(kSearchTrials, kSearchDecrease, kSearchCurvature, kSearchMinStep)) {}

LxQNSettings::LxQNSettings(const LxQNSettings& other)
    : iterLimit(other.iterLimit),
      tolerance(other.tolerance),
      lineMinimize(other.lineMinimize->CreateCopy()) {}

LxQNSettings& LxQNSettings::operator=(const LxQNSettings& other) {
  if (this != &other) {
    iterLimit = other.iterLimit;
    tolerance = other.tolerance;
    lineMinimize.reset(other.lineMinimize->CreateCopy());
  }
  return *this;
}

LxQNSettings::~LxQNSettings() = default;

}  // namespace LxOpt
