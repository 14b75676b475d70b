// Uniform random numbers on top of the Mersenne Twister.
#include "lxopt/host.h"

namespace LxOpt {

double LxUniformDoubleRNG::operator()(MtRng& engine) const {
  // 53-bit resolution: 27 high bits of one draw and 26 of the next.
  const std::uint32_t a = engine() >> 5;
  const std::uint32_t b = engine() >> 6;
  const double unit = (a * 67108864.0 + b) * (1.0 / 9007199254740992.0);
  return low_ + unit * (high_ - low_);
}

LxRandom::LxRandom(bool seedNow) {
  if (seedNow) engine_.Seed(kDefaultSeed);
}

float LxRandom::NextFloat() {
  // 24 random bits: every float in [0, 1) with that spacing, never 1.
  return static_cast<float>(engine_() >> 8) * (1.0f / 16777216.0f);
}

}  // namespace LxOpt
