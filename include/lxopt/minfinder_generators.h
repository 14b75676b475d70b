// Random start-point generators of the global minimum search: the interface,
// the uniform box generator and the rigid-body pose generator.
#ifndef LXOPT_MINFINDER_GENERATORS_H
#define LXOPT_MINFINDER_GENERATORS_H

#include <cstdint>
#include <vector>

#include "lxopt/host.h"
#include "lxopt/lxopt_export.h"

namespace LxOpt {
namespace LxMinfinder {

// Draws one start point inside a box. The base owns a Mersenne Twister
// (seeded 5489 at construction) and a uniform [0, 1) distribution over it for
// the draws of derived generators.
class LXOPT_API GetRandomVariables {
 public:
  // Engine seeded 5489.
  GetRandomVariables() = default;
  virtual ~GetRandomVariables();
  // Writes one point into x (lower.size() entries unless the generator says
  // otherwise) and returns true; on bad bounds reports an error through
  // LxThrow and returns false without writing.
  virtual bool operator()(double* x, const std::vector<double>& lower,
                          const std::vector<double>& upper) = 0;
  // Restarts the engine, for reproducible runs.
  void Seed(std::uint32_t seed) { engine_.Seed(seed); }

 protected:
  // Next uniform draw in [0, 1) from the owned engine.
  double NextUniform() { return uniform_(engine_); }

  MtRng engine_;
  LxUniformDoubleRNG uniform_{0.0, 1.0};
};

// Uniform in the box: x_i = lower_i + u (upper_i - lower_i), u in [0, 1).
// Bounds of different lengths or empty: error "Dimension of lower and upper
// bound vectors should be equal and at least 1!", false.
class LXOPT_API GetRandomVariablesGeneral : public GetRandomVariables {
 public:
  // Writes lower.size() values into x and returns true; see above for errors.
  bool operator()(double* x, const std::vector<double>& lower,
                  const std::vector<double>& upper) override;
};

}  // namespace LxMinfinder

// For rigid-body searches over (q0, q1, q2, q3, t...): x[0..3] is a uniformly
// distributed unit quaternion with x[0] >= 0, drawn from the process-wide
// rand() (seeding it with srand is the application's business); x[4..] are
// uniform in the box from the object's own Mersenne Twister. The bounds of the
// first four variables are never read, and x always receives at least four
// values, even when the bounds are shorter: give it room for four. Bounds of
// different lengths or empty: error "Dimension of lower and upper bound
// vectors should be equal!", false.
//
// With SetQuaternionFromOwnEngine(true) the quaternion is drawn from the
// object's own Mersenne Twister as well (three uniform draws before those of
// the box), so Seed() alone reproduces every pose whatever else the process
// does with rand(). Off by default.
class LXOPT_API LxRandomPosOrient : public LxMinfinder::GetRandomVariables {
 public:
  // Writes max(4, lower.size()) values into x as described above and
  // returns true; false on bad bounds.
  bool operator()(double* x, const std::vector<double>& lower,
                  const std::vector<double>& upper) override;
  // Chooses the quaternion's source (see above); the getter reports it.
  void SetQuaternionFromOwnEngine(bool on) { ownEngineQuaternion_ = on; }
  bool GetQuaternionFromOwnEngine() const { return ownEngineQuaternion_; }

 private:
  double TwoPiTimesUniform();

  bool ownEngineQuaternion_ = false;
};

}  // namespace LxOpt

#endif  // LXOPT_MINFINDER_GENERATORS_H
