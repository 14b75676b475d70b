"""lxopt.minimize under scipy.optimize.minimize's conventions, side by side
with scipy on a few of scipy's own test problems, and the ownership of every
array handed to Python code."""
import logging

import numpy as np
import pytest

import lxopt

optimize = pytest.importorskip("scipy.optimize")
rosen, rosen_der, rosen_hess = optimize.rosen, optimize.rosen_der, optimize.rosen_hess
START = [-1.2, 1.0]


def largest(g):
    return float(np.max(np.abs(g)))


# ------------------------------------------------------ scipy's problems

def scaled_rosen(x):
    return 1e-3 * rosen(x)


def scaled_rosen_der(x):
    return 1e-3 * rosen_der(x)


# A least-squares fit y = a exp(-b t) + c on noisy data (fixed seed): the
# minimum is where the normal equations hold, found to 1e-12 by a long run.
T = np.linspace(0.0, 4.0, 50)
Y = 2.5 * np.exp(-1.3 * T) + 0.5 + 0.05 * np.random.default_rng(1).standard_normal(T.size)


def fit(p):
    r = p[0] * np.exp(-p[1] * T) + p[2] - Y
    return 0.5 * float(r @ r)


def fit_grad(p):
    e = np.exp(-p[1] * T)
    r = p[0] * e + p[2] - Y
    return np.array([r @ e, -p[0] * (r @ (T * e)), r.sum()])


# log(x)^2 summed: NaN outside x > 0, minimum at (1, 1).
def logsq(x):
    return float(np.sum(np.log(x) ** 2)) if np.all(x > 0) else np.nan


def logsq_grad(x):
    return 2.0 * np.log(x) / x if np.all(x > 0) else np.full(len(x), np.nan)


class StopAfter:
    def __init__(self, calls):
        self.calls, self.seen = calls, 0

    def __call__(self, xk):
        self.seen += 1
        if self.seen >= self.calls:
            raise StopIteration


# name -> (fun, x0, scipy keyword arguments, exact minimizer or None)
CASES = {
    "Rosenbrock, gradient, BFGS": (rosen, START, dict(jac=rosen_der, method="BFGS"), [1, 1]),
    "Rosenbrock, no gradient, BFGS": (rosen, START, dict(method="BFGS"), [1, 1]),
    "Rosenbrock, gradient, CG": (rosen, START, dict(jac=rosen_der, method="CG"), [1, 1]),
    "Rosenbrock, gradient, L-BFGS-B": (rosen, START, dict(jac=rosen_der, method="L-BFGS-B"),
                                       [1, 1]),
    "Rosenbrock, Hessian, Newton-CG": (rosen, START, dict(jac=rosen_der, hess=rosen_hess,
                                                          method="Newton-CG"), [1, 1]),
    "1e-3 Rosenbrock, BFGS": (scaled_rosen, START, dict(jac=scaled_rosen_der, method="BFGS"),
                              [1, 1]),
    "least-squares fit, BFGS": (fit, [1.0, 1.0, 0.0], dict(jac=fit_grad, method="BFGS"), None),
    "NaN outside domain, BFGS": (logsq, [5.0, 0.1], dict(jac=logsq_grad, method="BFGS"), [1, 1]),
}


def fit_minimizer():
    r = lxopt.minimize(fit, [1.0, 1.0, 0.0], jac=fit_grad, options={"gtol": 1e-12})
    return r.x


def side_by_side(name):
    """(lxopt result, scipy result, exact minimizer) for a case."""
    fun, x0, kw, exact = CASES[name]
    ours = lxopt.minimize(fun, x0, **kw)
    with np.errstate(all="ignore"):
        theirs = optimize.minimize(fun, x0, **kw)
    return ours, theirs, np.array(exact if exact is not None else fit_minimizer(), dtype=float)


@pytest.mark.parametrize("name", sorted(CASES))
def test_as_accurate_as_scipy_and_honest_about_it(name):
    ours, theirs, exact = side_by_side(name)
    fun, _, kw, _ = CASES[name]
    assert ours.success and ours.status == 0, ours.message
    assert np.all(np.isfinite(ours.x))
    # The accuracy asked for, on the gradient at the returned point.
    assert largest(ours.jac) <= 1e-5
    # Where scipy gets there too, at least as close to the minimizer (down to
    # 1e-8), for a bounded number of evaluations more.
    if theirs.success:
        assert np.max(np.abs(ours.x - exact)) <= max(np.max(np.abs(theirs.x - exact)), 1e-8)
        assert ours.nfev <= 2.5 * theirs.nfev
    assert ours.fun == pytest.approx(fun(ours.x), rel=1e-12)


def test_issue_examples():
    r = lxopt.minimize(rosen, START, jac=rosen_der, method="BFGS")
    np.testing.assert_allclose(r.x, [1.0, 1.0], atol=1e-6)
    r = lxopt.minimize(scaled_rosen, START, jac=scaled_rosen_der, method="BFGS")
    assert r.success and np.max(np.abs(r.x - 1.0)) < 1e-2 and r.nit > 10
    # A non-finite start stops before any call; a non-finite start value
    # after the first.
    r = lxopt.minimize(rosen, [np.nan, 1.0], jac=rosen_der)
    assert (r.success, r.status, r.nfev) == (False, 3, 0) and "not finite" in r.message
    r = lxopt.minimize(logsq, [-1.0, 1.0], jac=logsq_grad)
    assert (r.success, r.status, r.nfev) == (False, 3, 1) and "not finite" in r.message
    r = lxopt.minimize(logsq, [5.0, 0.1], jac=logsq_grad)
    assert r.success and np.all(np.isfinite(r.x))


def test_callback_stop_has_its_own_status():
    cb = StopAfter(3)
    r = lxopt.minimize(rosen, START, jac=rosen_der, callback=cb)
    assert (r.success, r.status, cb.seen, r.nit) == (False, 99, 3, 2)
    assert "StopIteration" in r.message
    # Optimizers that run on regardless of a stop request are stopped too,
    # at the point the callback saw.
    for method in ["sd", "newton", "geometry"]:
        seen = []

        def keep(xk):
            seen.append(xk)
            if len(seen) == 2:
                raise StopIteration

        r = lxopt.minimize(rosen, START, jac=rosen_der, hess=rosen_hess, method=method,
                           callback=keep)
        assert (r.status, len(seen)) == (99, 2), method
        np.testing.assert_array_equal(r.x, seen[-1])


def test_callback_forms_and_args():
    xs, results = [], []
    lxopt.minimize(lambda x, a: rosen(x) * a, START, args=(1.0,),
                   jac=lambda x, a: rosen_der(x) * a, callback=xs.append)
    lxopt.minimize(rosen, START, jac=rosen_der,
                   callback=lambda intermediate_result: results.append(intermediate_result))
    assert len(xs) == len(results) > 5
    assert all(isinstance(x, np.ndarray) and x.shape == (2,) for x in xs)
    assert all(r.fun == pytest.approx(rosen(r.x)) for r in results)
    assert [r.nit for r in results] == list(range(len(results)))


@pytest.mark.parametrize("jac", [None, "2-point", "3-point", True])
def test_gradient_sources(jac):
    fun = (lambda x: (rosen(x), rosen_der(x))) if jac is True else rosen
    r = lxopt.minimize(fun, START, jac=jac)
    assert r.success and largest(r.jac) <= 1e-5
    np.testing.assert_allclose(r.x, [1.0, 1.0], atol=1e-4)
    if jac is not True:
        assert r.nfev >= 5 * r.njev  # each gradient costs 2n + 1 values


def test_tolerances_and_limits():
    loose = lxopt.minimize(rosen, START, jac=rosen_der, tol=1e-2)
    tight = lxopt.minimize(rosen, START, jac=rosen_der, options={"gtol": 1e-9})
    assert largest(loose.jac) <= 1e-2 and largest(tight.jac) <= 1e-9
    assert loose.nit < tight.nit
    # The library's own tolerance keeps its own test and verdict (sum g^2).
    own = lxopt.minimize(rosen, START, jac=rosen_der, options={"tolerance": 1e-2})
    assert own.success and float(own.jac @ own.jac) < 1e-2
    short = lxopt.minimize(rosen, START, jac=rosen_der, options={"maxiter": 3})
    assert (short.success, short.status, short.nit) == (False, 1, 3)
    assert "iterations" in short.message


def test_hess_inv_approaches_the_inverse_hessian():
    r = lxopt.minimize(rosen, START, jac=rosen_der, method="BFGS")
    np.testing.assert_allclose(r.hess_inv, np.linalg.inv(rosen_hess([1.0, 1.0])),
                               rtol=0.2, atol=0.02)


# f = x'Ax/2 - b'x on four variables: hess_inv against A^-1.
A4 = np.array([[4.0, 1, 0, 0], [1, 3, 1, 0], [0, 1, 2, 0.5], [0, 0, 0.5, 1]])
B4 = np.array([1.0, 2, 3, 4])


@pytest.mark.parametrize("method, rtol", [("L-BFGS-B", 0.02), ("dfp", 1e-9), ("bfgs", 0.05)])
def test_hess_inv_of_every_quasi_newton_method_on_a_quadratic(method, rtol):
    r = lxopt.minimize(lambda x: 0.5 * x @ A4 @ x - B4 @ x, np.zeros(4), jac=lambda x: A4 @ x - B4,
                       method=method)
    assert r.success
    h = r.hess_inv
    dense = h.todense() if method == "L-BFGS-B" else h
    exact = np.linalg.inv(A4)
    assert np.max(np.abs(dense - exact)) <= rtol * np.max(np.abs(exact))
    if method == "L-BFGS-B":
        # scipy's type, applied by the same recursion as the run (H0 = gamma I).
        assert isinstance(h, optimize.LbfgsInvHessProduct) and h.shape == (4, 4)
        v = np.arange(1.0, 5.0)
        np.testing.assert_allclose(h.matvec(v), dense @ v, rtol=1e-12)
        np.testing.assert_allclose(h @ v, dense @ v, rtol=1e-12)
        assert 1 <= h.n_corrs <= 8
    # A run that takes no step: the identity.
    r = lxopt.minimize(lambda x: float(x @ x), np.zeros(3), jac=lambda x: 2 * x, method=method)
    dense = r.hess_inv.todense() if method == "L-BFGS-B" else r.hess_inv
    np.testing.assert_array_equal(dense, np.eye(3))


def test_final_steps_keep_the_run_honest():
    # Only steps that lower f and keep the gradient within gtol are taken:
    # the returned gradient and value are those of the returned point.
    for method in ["BFGS", "L-BFGS-B", "dfp"]:
        for gtol in [1e-3, 1e-5]:
            r = lxopt.minimize(scaled_rosen, START, jac=scaled_rosen_der, method=method,
                               options={"gtol": gtol})
            assert r.success and largest(r.jac) <= gtol, (method, gtol)
            np.testing.assert_array_equal(r.jac, scaled_rosen_der(r.x))
            assert r.fun == scaled_rosen(r.x)
    # maxiter bounds them too.
    r = lxopt.minimize(rosen, START, jac=rosen_der, options={"maxiter": 3})
    assert r.nit == 3


def test_disp_prints_and_logs(capsys, caplog):
    with caplog.at_level(logging.INFO, logger="lxopt"):
        r = lxopt.minimize(rosen, START, jac=rosen_der, options={"disp": True})
    out = capsys.readouterr().out
    assert out.startswith("Optimization terminated successfully.")
    assert f"Iterations: {r.nit}" in out and f"Function evaluations: {r.nfev}" in out
    assert any("Current function value" in rec.getMessage() for rec in caplog.records)


@pytest.mark.parametrize("kwargs, match", [
    (dict(bounds=[(0, 2), (0, 2)]), "bounds are not supported"),
    (dict(method="Nelder-Mead"), "not supported by lxopt"),
    (dict(method="newton", constraints=[{"type": "ineq", "fun": rosen, "jac": rosen_der}]),
     "only equality constraints"),
    (dict(hessp=lambda x, p: p), "hessp is not supported"),
    (dict(options={"frobnicate": 1}), "unknown options"),
])
def test_unsupported_features_say_what_is_supported(kwargs, match):
    with pytest.raises(ValueError, match=match):
        lxopt.minimize(rosen, START, jac=rosen_der, **kwargs)


# ------------------------------------------------------------ ownership

def test_every_array_handed_to_python_is_owned_at_n_50000():
    n = 50_000
    d = np.linspace(1.0, 10.0, n)
    kept, copies, seen = [], [], []

    def fun(x):
        kept.append(x)  # legal in scipy, which passes a copy
        copies.append(x.copy())
        return float(d @ (x - 1.0) ** 2), 2.0 * d * (x - 1.0)

    r = lxopt.minimize(fun, np.zeros(n), jac=True, method="L-BFGS-B",
                       callback=seen.append, options={"maxiter": 15})
    assert len(kept) > 15 and len(seen) > 10
    for x, c in zip(kept, copies):
        np.testing.assert_array_equal(x, c)
    # Arrays are distinct objects that own their memory (or keep its owner).
    assert len({id(x) for x in kept}) == len(kept)
    assert all(x.flags.owndata or x.base is not None for x in kept + seen)
    r.x[:] = 7.0  # the result is the caller's to change
    assert not any(np.any(x == 7.0) for x in kept[-3:] + seen[-3:])


@pytest.mark.parametrize("method", ["geometry", "lbfgs"])
def test_atom_options_reach_the_optimizer(method, monkeypatch):
    """cartesian and atomic_numbers in options are set on the optimizer; a
    water-like triangle of springs reaches its minimum with them."""
    seen = []
    cls = {"geometry": lxopt.Geometry, "lbfgs": lxopt.LBFGS}[method]

    class Spy(cls):
        def __init__(self, *a):
            super().__init__(*a)
            seen.append(self)

    monkeypatch.setitem(lxopt.METHODS, method, Spy)
    bonds = [(0, 1, 0.96, 5.0), (0, 2, 0.96, 5.0), (1, 2, 1.52, 1.0)]

    def springs(x):
        p, f, g = x.reshape(3, 3), 0.0, np.zeros((3, 3))
        for a, b, r0, k in bonds:
            d = p[a] - p[b]
            r = np.linalg.norm(d)
            f += 0.5 * k * (r - r0) ** 2
            g[a] += k * (r - r0) * d / r
            g[b] -= k * (r - r0) * d / r
        return f, g.ravel()

    x0 = np.array([0.0, 0.0, 0.1, 0.9, 0.2, 0.0, -0.3, 0.8, 0.0])
    res = lxopt.minimize(springs, x0, jac=True, method=method,
                         options={"cartesian": True, "atomic_numbers": [8, 1, 1]})
    assert res.success and res.fun < 1e-10
    assert seen and all(o.cartesian and o.atomic_numbers == [8, 1, 1] for o in seen)
