"""LxOpt numerical optimizers for Python.

minimize(fun, x0, jac=..., hess=..., method=..., options=..., callback=...)
mirrors scipy.optimize.minimize and returns an OptimizeResult. The optimizer
classes (BFGS, DFP, ConjGrad, ...), NewtonConstrained and MinFinder give the
full settings.
Messages of the library go to the logger "lxopt".
"""
import logging

import numpy as np

from ._lxopt import (BFGS, DFP, LBFGS, Anneal, BFGSCarry, ConjGrad,
                     FletcherReeves, Geometry, HestenesStiefel, MinFinder, Newton,
                     NewtonConstrained, PolakRibiere, SteepestDescent, release,
                     state_name)
from ._lxopt import AskTell  # reverse communication; lxopt.ase and lxopt.rdkit use it

__all__ = ["minimize", "OptimizeResult", "BFGS", "BFGSCarry", "LBFGS", "DFP", "ConjGrad",
           "FletcherReeves", "PolakRibiere", "HestenesStiefel", "SteepestDescent",
           "Newton", "NewtonConstrained", "Geometry", "Anneal", "MinFinder", "state_name",
           "release", "METHODS", "AskTell"]
__version__ = release

logging.getLogger("lxopt").addHandler(logging.NullHandler())

# method name -> optimizer class
METHODS = {
    "bfgs": BFGS, "lbfgs": LBFGS, "dfp": DFP, "cg": ConjGrad, "fr": FletcherReeves,
    "pr": PolakRibiere, "hs": HestenesStiefel, "sd": SteepestDescent,
    "newton": Newton, "geometry": Geometry, "anneal": Anneal,
}

# Final states that mean the run reached a minimum.
_CONVERGED = {1, 2, 7, 8, 9, 10, 11, 12}


class OptimizeResult(dict):
    """Result of minimize, shaped like scipy.optimize.OptimizeResult: x, fun,
    jac, nit, nfev, njev, nhev, status (the library's state code), message
    (its state name) and success. Keys are also attributes."""

    def __getattr__(self, name):
        try:
            return self[name]
        except KeyError as e:
            raise AttributeError(name) from e

    __setattr__ = dict.__setitem__
    __delattr__ = dict.__delitem__

    def __repr__(self):
        width = max(map(len, self)) + 1
        return "\n".join(f"{k:>{width}}: {v!r}" for k, v in self.items())


def _configure(opt, options):
    options = dict(options or {})
    line = options.pop("line_minimizer", None)
    if line is not None:
        if not hasattr(opt, "set_line_minimizer"):
            raise ValueError(f"{type(opt).__name__} takes no line minimizer")
        opt.set_line_minimizer(line)
    for key in ("iter_limit", "tolerance", "keep_hessian", "history", "memory"):
        if key in options:
            if not hasattr(opt, key):
                raise ValueError(f"{type(opt).__name__} has no option {key!r}")
            setattr(opt, key, options.pop(key))
    if options:
        raise ValueError(f"unknown options: {sorted(options)}")


def _final_gradient(fun, jac, x):
    if jac is True:
        return np.asarray(fun(x)[1], dtype=float)
    if callable(jac):
        return np.asarray(jac(x), dtype=float)
    return None


def _constraint(c):
    """A constraint of minimize as NewtonConstrained.add takes it: a callable
    or a (fun, jac) pair as they are, or scipy's {"type": "eq", "fun": ...,
    "jac": ...}."""
    if not isinstance(c, dict):
        return c
    if c.get("type", "eq") != "eq":
        raise ValueError("only equality constraints ({'type': 'eq'}) are supported")
    if "jac" not in c:
        raise ValueError("a constraint needs its gradient: give 'jac'")
    return (c["fun"], c["jac"])


def minimize(fun, x0, jac=None, hess=None, method="bfgs", options=None,
             callback=None, temperature=300.0, constraints=()):
    """Minimizes fun from x0.

    fun(x) -> float, or (float, gradient) with jac=True; jac(x) -> gradient;
    hess(x) -> n x n array (method "newton" needs it). method is one of
    METHODS. options: iter_limit, tolerance (the optimizer's own meaning:
    sum g^2 < tolerance for most), line_minimizer ("cg", "qn", "nr",
    "maxstep"), keep_hessian, history (geometry), memory (lbfgs).
    temperature is the start temperature of "anneal". callback(info)
    receives a dict with x, fun, gnorm and nit after each iteration;
    returning False stops the run (status 11, success False).
    constraints (method "newton" only) are equalities c(x) = 0, each a
    callable c(x) -> (value, gradient), a pair (fun, jac) or a dict
    {"type": "eq", "fun": ..., "jac": ...}; the run is NewtonConstrained's.

    The result's jac is evaluated once more at x after the run; that call is
    not counted in nfev/njev.
    """
    try:
        cls = METHODS[method.lower()]
    except KeyError:
        raise ValueError(f"unknown method {method!r}; one of {sorted(METHODS)}") from None
    if constraints:
        if cls is not Newton:
            raise ValueError("constraints need method='newton'")
        cls = NewtonConstrained
    opt = cls(temperature) if cls is Anneal else cls()
    for c in constraints:
        opt.add(_constraint(c))
    _configure(opt, options)
    if jac is None:
        raise ValueError("every method needs a gradient: pass jac")
    raw = opt.minimize(fun, x0, jac=jac, hess=hess, callback=callback)
    status = raw["status"]
    res = OptimizeResult(
        x=raw["x"], fun=raw["fun"], jac=_final_gradient(fun, jac, raw["x"]),
        nit=raw["nit"], nfev=raw["nfev"], njev=raw["njev"], nhev=raw["nhev"],
        status=status, message=state_name(status))
    # Some conjugate-gradient exits end silently after convergence: judge
    # those by the final gradient.
    silent_ok = status == 0 and res.jac is not None and \
        float(np.dot(res.jac, res.jac)) < opt.tolerance
    res.success = not raw["stopped"] and (status in _CONVERGED or silent_ok)
    return res
