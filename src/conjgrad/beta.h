// The conjugacy coefficients of the classic conjugate-gradient family.
#ifndef LXOPT_SRC_CONJGRAD_BETA_H
#define LXOPT_SRC_CONJGRAD_BETA_H

#include "lxopt/conjgrad.h"

namespace LxOpt {
namespace detail {

// The dot products one iteration gathers for the coefficient (d is the
// direction just searched, g the gradient at its start, gNew at its end and
// y = gNew - g the change). The products with y are summed over y itself,
// not as differences of separate products, which round otherwise and cancel
// near convergence.
struct BetaInputs {
  double gg;     // g . g
  double ggNew;  // gNew . gNew
  double gNewY;  // gNew . y
  double dY;     // d . y
};

// beta of d' = -gNew + beta d; used as computed (no clamping at zero).
inline double ConjugacyCoefficient(LxBetaConjGradOpt::Beta kind, const BetaInputs& p) {
  switch (kind) {
    case LxBetaConjGradOpt::Beta::kFletcherReeves:
      return p.ggNew / p.gg;
    case LxBetaConjGradOpt::Beta::kPolakRibiere:
      return p.gNewY / p.gg;
    case LxBetaConjGradOpt::Beta::kHestenesStiefel:
      return p.gNewY / p.dY;
  }
  return 0.0;
}

}  // namespace detail
}  // namespace LxOpt

#endif  // LXOPT_SRC_CONJGRAD_BETA_H
