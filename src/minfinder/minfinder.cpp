// The public front of the minimum finder: owns one implementation object.
#include "lxopt/minfinder.h"

namespace LxOpt {
namespace LxMinfinder {

LxMinfinder::LxMinfinder() : impl_(new LxMinfinderImpl) {}

LxMinfinder::~LxMinfinder() = default;

}  // namespace LxMinfinder
}  // namespace LxOpt
