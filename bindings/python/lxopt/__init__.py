"""LxOpt numerical optimizers for Python.

minimize(fun, x0, args=(), method="BFGS", jac=None, hess=None, tol=None,
callback=None, options=None) follows scipy.optimize.minimize: the same
arguments, scipy's method names for the methods the library has, scipy's
default accuracy (the largest gradient component at most gtol = 1e-5), and an
OptimizeResult with the same keys. The optimizer classes (BFGS, DFP,
ConjGrad, ...), NewtonConstrained and MinFinder give the full settings.
Messages of the library go to the logger "lxopt".
"""
import inspect
import logging
import math
import warnings

import numpy as np

from ._lxopt import (BFGS, DFP, LBFGS, Anneal, BFGSCarry, ConjGrad,
                     FletcherReeves, Geometry, HestenesStiefel, MinFinder, Newton,
                     NewtonConstrained, PolakRibiere, SteepestDescent, release,
                     state_name)
from ._lxopt import AskTell  # reverse communication; lxopt.ase and lxopt.rdkit use it
from ._inverse import LbfgsInverse
from . import _inverse

__all__ = ["minimize", "OptimizeResult", "BFGS", "BFGSCarry", "LBFGS", "DFP", "ConjGrad",
           "FletcherReeves", "PolakRibiere", "HestenesStiefel", "SteepestDescent",
           "Newton", "NewtonConstrained", "Geometry", "Anneal", "MinFinder", "state_name",
           "release", "METHODS", "SCIPY_METHODS", "AskTell", "LbfgsInverse"]
__version__ = release

_log = logging.getLogger("lxopt")
_log.addHandler(logging.NullHandler())

# The library's method names -> optimizer class.
METHODS = {
    "bfgs": BFGS, "lbfgs": LBFGS, "dfp": DFP, "cg": ConjGrad, "fr": FletcherReeves,
    "pr": PolakRibiere, "hs": HestenesStiefel, "sd": SteepestDescent,
    "newton": Newton, "geometry": Geometry, "anneal": Anneal,
}

# scipy's names (compared in lower case, as scipy does) for the methods that
# truly correspond. "CG" is the library's nonlinear conjugate gradients
# (Shanno's directions with Beale restarts), not scipy's Polak-Ribiere: that
# one is "pr". "L-BFGS-B" is L-BFGS without bounds. "Newton-CG" is the
# library's damped Newton on the full Hessian (from hess, or central
# differences of the gradient), not a truncated-CG Newton.
SCIPY_METHODS = {"bfgs": "bfgs", "cg": "cg", "l-bfgs-b": "lbfgs", "newton-cg": "newton"}

# The scipy methods the library does not have.
_UNSUPPORTED = {"nelder-mead", "powell", "tnc", "cobyla", "slsqp", "trust-constr", "dogleg",
                "trust-ncg", "trust-exact", "trust-krylov"}

# Status codes and messages, as scipy gives them.
SUCCESS, MAXITER, PRECISION_LOSS, NONFINITE, CALLBACK_STOP = 0, 1, 2, 3, 99
_MESSAGES = {
    SUCCESS: "Optimization terminated successfully.",
    MAXITER: "Maximum number of iterations has been exceeded.",
    PRECISION_LOSS: "Desired error not necessarily achieved due to precision loss.",
    NONFINITE: "NaN result encountered.",
    CALLBACK_STOP: "`callback` raised `StopIteration`.",
}

# Optimizers whose tolerance bounds sum g^2, the RMS gradient, or the largest
# component (see docs/choosing.md).
_SQUARED_NORM = {"bfgs", "lbfgs", "dfp", "cg", "fr", "pr", "hs", "sd"}
_RMS = {"newton"}
_COMPONENTS = {"geometry"}
# Methods that return hess_inv: BFGS and the geometry driver keep their
# matrix, L-BFGS its final pairs (an LbfgsInverse), and for DFP the binding
# replays the update over the run's points.
_HESS_INV = {"bfgs", "geometry", "lbfgs", "dfp"}
# Methods that take final quasi-Newton steps once gtol is met.
_FINAL_STEP_METHODS = {"bfgs", "lbfgs", "dfp"}
# At most this many: the returned point moves along -H g while that lowers f
# and keeps the gradient within gtol. A gradient test alone cannot tell how
# far an ill-conditioned valley's minimizer still is; the quasi-Newton step
# estimates it, and with superlinear convergence each step shrinks the
# error in x by a large factor for one evaluation.
_FINAL_STEPS = 2
# Fresh runs from the point reached when a run stops short of gtol.
_RESTARTS = 20
# The conjugate-gradient family keeps no inverse Hessian to step with; once
# gtol is met it continues instead for at most this many iterations with a
# hundredfold tighter gradient, the result kept only when it lowers f and
# meets gtol. On an ill-conditioned valley a few conjugate directions near
# the minimizer shrink the error in x as the quasi-Newton steps do.
_CONTINUE_METHODS = {"cg", "fr", "pr", "hs"}
_CONTINUE_ITERATIONS = 5
_CONTINUE_TIGHTENING = 1e-2

# Options of scipy's methods that lxopt accepts and does not use.
_IGNORED_SCIPY_OPTIONS = {"return_all", "xrtol", "c1", "c2", "ftol", "maxfun", "maxls", "iprint",
                          "finite_diff_rel_step", "xtol"}


class OptimizeResult(dict):
    """Result of minimize, shaped like scipy.optimize.OptimizeResult: x, fun,
    jac, nit, nfev, njev, nhev, status, message, success, hess_inv (BFGS,
    DFP and geometry a dense array, L-BFGS an LbfgsInverse), plus the library's own final state (state, state_name).
    Keys are also attributes."""

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
    options = dict(options)
    line = options.pop("line_minimizer", None)
    if line is not None:
        if not hasattr(opt, "set_line_minimizer"):
            raise ValueError(f"{type(opt).__name__} takes no line minimizer")
        opt.set_line_minimizer(line)
    for key in ("iter_limit", "tolerance", "keep_hessian", "keep_pairs", "history", "memory",
                "cartesian", "atomic_numbers", "max_atom_step", "surrogate"):
        if key in options:
            if not hasattr(opt, key):
                raise ValueError(f"{type(opt).__name__} has no option {key!r}")
            setattr(opt, key, options.pop(key))
    if options:
        raise ValueError(f"unknown options: {sorted(options)}; lxopt takes gtol, norm, maxiter, "
                         "disp, eps, maxcor, nonfinite_guard and the library's iter_limit, "
                         "tolerance, line_minimizer, keep_hessian, history, memory, cartesian, "
                         "atomic_numbers, max_atom_step, surrogate")


def _constraint(c):
    """A constraint of minimize as NewtonConstrained.add takes it: a callable
    or a (fun, jac) pair as they are, or scipy's {"type": "eq", "fun": ...,
    "jac": ...}."""
    if not isinstance(c, dict):
        return c
    if c.get("type", "eq") != "eq":
        raise ValueError("only equality constraints ({'type': 'eq'}) are supported, "
                         "with method 'newton'; inequality constraints and bounds are not")
    if "jac" not in c:
        raise ValueError("a constraint needs its gradient: give 'jac'")
    args = tuple(c.get("args", ()))
    fun, jac = c["fun"], c["jac"]
    return ((lambda x: fun(x, *args)), (lambda x: jac(x, *args))) if args else (fun, jac)


def _method(method, bounds, constraints, hessp):
    if hessp is not None:
        raise ValueError("hessp is not supported: give hess (method 'Newton-CG' or 'newton') "
                         "or no Hessian")
    if bounds is not None:
        raise ValueError("bounds are not supported: lxopt.minimize is unconstrained "
                         "(equality constraints with method 'newton')")
    if method is None:
        return "bfgs"
    name = method.lower()
    if name in SCIPY_METHODS:
        return SCIPY_METHODS[name]
    if name in METHODS:
        return name
    supported = sorted(set(METHODS) | {"BFGS", "CG", "L-BFGS-B", "Newton-CG"})
    if name in _UNSUPPORTED:
        raise ValueError(f"method {method!r} is not supported by lxopt; supported: {supported}")
    raise ValueError(f"unknown method {method!r}; one of {supported}")


def _scipy_options(options, tol, n):
    """Splits options into scipy's (gtol, norm, maxiter, disp, eps, maxcor,
    nonfinite_guard) and the library's; returns (scipy dict, library dict)."""
    options = dict(options or {})
    ours = {k: options.pop(k) for k in list(options)
            if k in ("gtol", "norm", "maxiter", "disp", "eps", "maxcor", "nonfinite_guard")}
    for k in list(options):
        if k in _IGNORED_SCIPY_OPTIONS:
            warnings.warn(f"lxopt ignores the option {k!r}", RuntimeWarning, stacklevel=3)
            options.pop(k)
    if "gtol" not in ours and tol is not None:
        ours["gtol"] = tol
    if "gtol" not in ours and "tolerance" not in options:
        ours["gtol"] = 1e-5
    if "maxcor" in ours:
        options.setdefault("memory", ours.pop("maxcor"))
    if "maxiter" in ours and ours["maxiter"] is not None:
        options.setdefault("iter_limit", int(ours["maxiter"]))
    return ours, options


def _library_tolerance(name, gtol, norm, n):
    """The optimizer's own tolerance for which its convergence test implies
    the largest gradient component (norm=inf) or the Euclidean norm (norm=2)
    is below gtol."""
    if name in _SQUARED_NORM:
        return gtol * gtol
    if name in _RMS:
        return gtol / math.sqrt(max(n, 1))
    if name in _COMPONENTS:
        return gtol if norm == np.inf else gtol / math.sqrt(max(n, 1))
    return None


def _gradient_size(g, norm):
    g = np.asarray(g, dtype=float)
    if g.size == 0:
        return 0.0
    return float(np.max(np.abs(g))) if norm == np.inf else float(np.linalg.norm(g, ord=norm))


def _wrap_callback(callback):
    """callback(xk) or callback(intermediate_result) (a parameter of that
    name, as scipy 1.11 decides) -> the raw form callback(x, fun, gnorm, nit)
    that answers False to stop. StopIteration raised in the callback, or a
    returned False, stops the run."""
    if callback is None:
        return None
    try:
        params = inspect.signature(callback).parameters
        wants_result = set(params) == {"intermediate_result"}
    except (TypeError, ValueError):
        wants_result = False

    def raw(x, fun, gnorm, nit):
        try:
            if wants_result:
                answer = callback(intermediate_result=OptimizeResult(x=x, fun=fun, nit=nit,
                                                                      gnorm=gnorm))
            else:
                answer = callback(x)
        except StopIteration:
            return False
        return answer is not False
    return raw


def _args_bound(f, args):
    if f is None or not args or isinstance(f, (bool, str)):
        return f
    return lambda x: f(x, *args)


def minimize(fun, x0, args=(), method=None, jac=None, hess=None, hessp=None, bounds=None,
             constraints=(), tol=None, callback=None, options=None, temperature=300.0):
    """Minimizes fun from x0 with scipy.optimize.minimize's conventions.

    fun(x, *args) -> float, or (float, gradient) with jac=True; jac(x, *args)
    -> gradient, or None / "2-point" / "3-point" for the library's central
    differences (2n + 1 calls of fun, step options["eps"], default 1e-5);
    hess(x, *args) -> n x n array for "Newton-CG" / "newton" (central
    differences of the gradient without it).

    method: scipy's "BFGS" (default), "CG", "L-BFGS-B" (no bounds),
    "Newton-CG", or the library's names in METHODS ("bfgs", "lbfgs", "dfp",
    "cg", "fr", "pr", "hs", "sd", "newton", "geometry", "anneal").

    Accuracy: the run succeeds when the largest gradient component at x is at
    most gtol (options["gtol"], else tol, else 1e-5; options["norm"] = 2 uses
    the Euclidean norm). The optimizer's own tolerance is set so that its test
    implies this, and a run that stops short (failed line search) is
    restarted from where it stopped while that lowers f. Once gtol is met,
    BFGS, L-BFGS and DFP take up to two full quasi-Newton steps x - H g, each
    kept only when it lowers f and keeps the gradient within gtol (counted in
    nit, nfev and njev); the conjugate-gradient methods continue instead for
    at most five iterations with a hundredfold tighter gradient, kept on the
    same terms. Setting the library's own options["tolerance"]
    instead keeps the optimizer's own test (and its verdict) without gtol.

    options: maxiter, gtol, norm, disp, eps, maxcor (L-BFGS-B memory),
    nonfinite_guard (default True: a non-finite x0 or start value stops at
    once; non-finite values later are stepped back from), and the library's
    iter_limit, tolerance, line_minimizer ("cg", "qn", "nr", "maxstep"),
    keep_hessian, history (geometry), memory and keep_pairs (lbfgs), cartesian
    (geometry, lbfgs: x is x, y, z per atom), atomic_numbers (geometry, lbfgs:
    the elements for the cartesian model), max_atom_step and surrogate
    (geometry).
    temperature is the start temperature of "anneal".

    callback(xk) or callback(intermediate_result) after each iteration;
    raising StopIteration (or returning False) stops the run with status 99.
    constraints (method "newton" only) are equalities c(x) = 0, each a
    callable c(x) -> (value, gradient), a pair (fun, jac) or a dict
    {"type": "eq", "fun": ..., "jac": ...}. bounds, inequality constraints
    and hessp are not supported and raise ValueError.
    """
    name = _method(method, bounds, constraints, hessp)
    constraints = list(constraints or [])
    if isinstance(constraints, dict):
        constraints = [constraints]
    x0 = np.atleast_1d(np.asarray(x0, dtype=float)).ravel()
    n = x0.size
    sp, lib = _scipy_options(options, tol, n)
    disp = bool(sp.get("disp", False))
    norm = sp.get("norm", np.inf)
    gtol = sp.get("gtol")
    guard = bool(sp.get("nonfinite_guard", True))
    eps = float(sp.get("eps", 1e-5))

    fun_ = _args_bound(fun, args)
    jac_ = _args_bound(jac, args)
    hess_ = _args_bound(hess, args)
    if jac_ is False:
        jac_ = None
    if not (jac_ is None or jac_ is True or callable(jac_) or jac_ in ("2-point", "3-point", "cs")):
        raise ValueError("jac must be a callable, True, None, '2-point' or '3-point'")
    if jac_ == "cs":
        raise ValueError("jac='cs' (complex step) is not supported; use '3-point'")

    opt = _optimizer(name, constraints, temperature, lib, gtol, norm, n)
    if guard and not np.all(np.isfinite(x0)):
        res = _result(x0, math.nan, None, 0, 0, 0, 0, NONFINITE,
                      "the start point x0 is not finite", 0, "Cont")
        return _finish(res, disp)

    kw = dict(jac=jac_ if not isinstance(jac_, str) else None, hess=hess_,
              callback=_wrap_callback(callback), guard=guard, eps=eps)
    if name == "dfp":
        kw["dfp_inverse"] = True
    raw = opt.minimize(fun_, x0, **kw)
    total = dict(nit=raw["nit"], nfev=raw["nfev"], njev=raw["njev"], nhev=raw["nhev"])
    if raw["nonfinite_start"]:
        res = _result(x0, math.nan, None, 0, total["nfev"], total["njev"], total["nhev"],
                      NONFINITE, "the objective is not finite at the start point x0", 0, "Cont")
        return _finish(res, disp)
    follow = opt
    if gtol is not None and not constraints:
        follow, raw = _polish(opt, raw, fun_, kw, total, gtol, norm, n)

    x, g = raw["x"], raw["jac"]
    if g is None and not raw["stopped"] and np.all(np.isfinite(x)):
        # The final point was not among the last evaluations: one more call,
        # counted.
        g = _gradient_at(fun_, jac_, x, eps, total)
    status = _verdict(raw, g, gtol, norm, bool(constraints))
    h = _inverse_hessian(name, follow, raw, n) if name in _HESS_INV else None
    f = raw["fun"]
    if status == SUCCESS and gtol is not None and h is not None and name in _FINAL_STEP_METHODS:
        limit = getattr(opt, "iter_limit", None)
        steps = _FINAL_STEPS if limit is None else min(_FINAL_STEPS, limit - total["nit"])
        x, f, g, h = _final_steps(fun_, jac_, eps, x, f, g, h, gtol, norm, name == "dfp",
                                  steps, total)
    if status == SUCCESS and gtol is not None and name in _CONTINUE_METHODS:
        x, f, g = _continue(opt, kw, fun_, jac_, eps, x, f, g, gtol, norm, n, total)
    res = _result(x, f, g, total["nit"], total["nfev"], total["njev"], total["nhev"],
                  status, _MESSAGES[status], raw["status"], raw["message"])
    if h is not None:
        res.hess_inv = h
    return _finish(res, disp)


def _optimizer(name, constraints, temperature, lib, gtol, norm, n):
    """The configured optimizer object for a method."""
    cls = METHODS[name]
    if constraints:
        if name != "newton":
            raise ValueError("constraints need method='newton' (equality constraints only)")
        cls = NewtonConstrained
    opt = cls(temperature) if cls is Anneal else cls()
    for c in constraints:
        opt.add(_constraint(c))
    if gtol is not None and "tolerance" not in lib:
        t = _library_tolerance(name, gtol, norm, n)
        if t is not None:
            lib["tolerance"] = t
    if name in ("bfgs", "geometry"):
        lib.setdefault("keep_hessian", True)
    if name == "lbfgs":
        lib.setdefault("keep_pairs", True)
    _configure(opt, lib)
    return opt


def _polish(opt, raw, fun, kw, total, gtol, norm, n):
    """Runs that stopped short of gtol start afresh from where they stopped,
    while that lowers f and iterations remain (annealing continues with
    BFGS). Adds the counts to total; returns the optimizer of the last run
    and the outcome kept."""
    limit = getattr(opt, "iter_limit", None)
    follow = opt
    if isinstance(opt, Anneal):
        follow = BFGS()
        follow.tolerance = _library_tolerance("bfgs", gtol, norm, n)
    for _ in range(_RESTARTS):
        if (raw["stopped"] or _meets(raw, gtol, norm) or not np.all(np.isfinite(raw["x"]))
                or raw["status"] == 6 or (limit is not None and total["nit"] >= limit)):
            break
        if limit is not None:
            follow.iter_limit = max(1, limit - total["nit"])
        again = follow.minimize(fun, raw["x"], **kw)
        for k in total:
            total[k] += again[k]
        if not again["fun"] < raw["fun"]:
            raw["status"], raw["message"] = again["status"], again["message"]
            break
        raw = again
    if limit is not None:
        follow.iter_limit = limit
    return follow, raw


def _continue(opt, kw, fun, jac, eps, x, f, g, gtol, norm, n, total):
    """A short run of the same optimizer from a point that meets gtol, with a
    tighter tolerance; its end is kept only when it lowers f and its
    gradient meets gtol. Counts in total; returns (x, f, g)."""
    limit = getattr(opt, "iter_limit", None)
    iterations = _CONTINUE_ITERATIONS if limit is None else min(_CONTINUE_ITERATIONS,
                                                                 limit - total["nit"])
    if iterations <= 0:
        return x, f, g
    tolerance = opt.tolerance
    opt.iter_limit = iterations
    opt.tolerance = _library_tolerance("cg", gtol * _CONTINUE_TIGHTENING, norm, n)
    try:
        more = opt.minimize(fun, x, **{**kw, "callback": None})
    finally:
        opt.tolerance = tolerance
        if limit is not None:
            opt.iter_limit = limit
    for k in total:
        total[k] += more[k]
    xn, fn = more["x"], more["fun"]
    if not (math.isfinite(fn) and fn < f and np.all(np.isfinite(xn))):
        return x, f, g
    gn = more["jac"]
    if gn is None:
        gn = _gradient_at(fun, jac, xn, eps, total)
    if not (np.all(np.isfinite(gn)) and _gradient_size(gn, norm) <= gtol):
        return x, f, g
    return xn, fn, gn


def _verdict(raw, g, gtol, norm, constrained):
    """scipy's status of a run: callback stop, not finite, then success by
    gtol (or the optimizer's own verdict without gtol), iteration limit or
    stopped short."""
    if raw["stopped"]:
        return CALLBACK_STOP
    if not (np.all(np.isfinite(raw["x"])) and math.isfinite(raw["fun"])):
        return NONFINITE
    if gtol is None:
        success = bool(raw["converged"])
    elif constrained:
        # The gradient that vanishes is the Lagrangian's, as the run reported.
        largest = raw["gmax"] if norm == np.inf else raw["gnorm"]
        success = bool(raw["converged"]) and bool(largest <= gtol)
    else:
        success = g is not None and _gradient_size(g, norm) <= gtol
    if success:
        return SUCCESS
    return MAXITER if raw["status"] == 6 else PRECISION_LOSS


def _meets(raw, gtol, norm):
    g = raw["jac"]
    if g is not None:
        return _gradient_size(g, norm) <= gtol
    # Without the final gradient: the Euclidean norm bounds every component.
    return bool(raw["gnorm"] <= gtol)


def _gradient_at(fun, jac, x, eps, total):
    if callable(jac) and jac is not True:
        total["njev"] += 1
        return np.asarray(jac(x), dtype=float)
    if jac is True:
        total["nfev"] += 1
        total["njev"] += 1
        return np.asarray(fun(x)[1], dtype=float)
    g = np.empty_like(x)
    for i in range(x.size):
        xp, xm = x.copy(), x.copy()
        xp[i] += eps
        xm[i] -= eps
        g[i] = (fun(xp) - fun(xm)) / (2 * eps)
    total["nfev"] += 2 * x.size
    return g


def _final_steps(fun, jac, eps, x, f, g, h, gtol, norm, dfp, steps, total):
    """Up to `steps` full quasi-Newton steps x - H g from a point that meets
    gtol, each kept only when it lowers f and the gradient there meets gtol
    too (H updated by the step). Counts the evaluations and iterations in
    total; returns (x, f, g, H)."""
    for _ in range(max(steps, 0)):
        p = -_inverse.apply(h, g)
        xn = x + p
        if not np.all(np.isfinite(p)) or np.array_equal(xn, x):
            break
        fn, gn = _value_and_gradient(fun, jac, xn, eps, total)
        if not (math.isfinite(fn) and fn < f and np.all(np.isfinite(gn))
                and _gradient_size(gn, norm) <= gtol):
            break
        total["nit"] += 1
        h = _inverse.updated(h, xn - x, gn - g, dfp)
        x, f, g = xn, fn, gn
    return x, f, g, h


def _value_and_gradient(fun, jac, x, eps, total):
    """(f, g) at x by the run's gradient source, counted as scipy counts."""
    if jac is True:
        total["nfev"] += 1
        total["njev"] += 1
        value, g = fun(x)
        return float(value), np.asarray(g, dtype=float)
    total["nfev"] += 1
    value = float(fun(x))
    return value, _gradient_at(fun, jac, x, eps, total)


def _inverse_hessian(name, opt, raw, n):
    """hess_inv of the run: the kept matrix (BFGS, geometry), an LbfgsInverse
    of the final pairs, the replayed DFP matrix; None when there is none."""
    if name == "lbfgs":
        pairs = opt.final_pairs(n) if hasattr(opt, "final_pairs") else None
        if pairs is None:
            return None
        return LbfgsInverse(pairs[0], pairs[1], opt.memory)
    if name == "dfp":
        return raw.get("hess_inv")
    if not hasattr(opt, "inverse_hessian"):
        return None
    if raw["nit"] == 0 or raw["status"] == 1:
        return np.eye(n)  # no step was taken, as scipy
    logger = logging.getLogger("lxopt")
    level = logger.level
    logger.setLevel(logging.ERROR)  # a run that kept no matrix only warns
    try:
        h = opt.inverse_hessian(n)
    finally:
        logger.setLevel(level)
    return h


def _result(x, fun, jac, nit, nfev, njev, nhev, status, message, state, state_name_):
    return OptimizeResult(x=np.array(x, dtype=float), fun=float(fun), jac=jac, nit=int(nit),
                          nfev=int(nfev), njev=int(njev), nhev=int(nhev), status=status,
                          message=message, success=status == SUCCESS, state=int(state),
                          state_name=state_name_)


def _finish(res, disp):
    summary = (f"{'' if res.success else 'Warning: '}{res.message}\n"
               f"         Current function value: {res.fun:f}\n"
               f"         Iterations: {res.nit}\n"
               f"         Function evaluations: {res.nfev}\n"
               f"         Gradient evaluations: {res.njev}")
    if disp:
        _log.info("%s", summary)
        print(summary)
    return res
