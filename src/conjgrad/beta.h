// The conjugacy coefficients of the classic conjugate-gradient family.
#ifndef LXOPT_SRC_CONJGRAD_BETA_H
#define LXOPT_SRC_CONJGRAD_BETA_H

#include "lxopt/conjgrad.h"

namespace LxOpt {
namespace detail {

// The dot products one iteration gathers for the coefficient (d is the
// direction just searched, g the gradient at its start, gNew at its end).
struct BetaInputs {
  double gg;     // g . g
  double ggNew;  // gNew . gNew
  double gNewG;  // gNew . g
  double dGNew;  // d . gNew
  double dG;     // d . g
};

// beta of d' = -gNew + beta d; used as computed (no clamping at zero).
inline double ConjugacyCoefficient(LxBetaConjGradOpt::Beta kind, const BetaInputs& p) {
  switch (kind) {
    case LxBetaConjGradOpt::Beta::kFletcherReeves:
      return p.ggNew / p.gg;
    case LxBetaConjGradOpt::Beta::kPolakRibiere:
      return (p.ggNew - p.gNewG) / p.gg;
    case LxBetaConjGradOpt::Beta::kHestenesStiefel:
      return (p.ggNew - p.gNewG) / (p.dGNew - p.dG);
  }
  return 0.0;
}

}  // namespace detail
}  // namespace LxOpt

#endif  // LXOPT_SRC_CONJGRAD_BETA_H
