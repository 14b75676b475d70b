"""Tests of the Python module against the C++ library's own results."""
import logging
import os
import re
import subprocess

import numpy as np
import pytest

import lxopt


# ---------------------------------------------------------------- objectives
# Written with the same floating-point operations, in the same order, as the
# C++ objectives of the demo, so runs must agree to the last evaluation.

def tf_value(x):
    n = len(x)
    s = 0.25 * (x[0] - 1.0) * (x[0] - 1.0)
    for i in range(1, n):
        d = x[i] - x[i - 1] * x[i - 1]
        s += d * d
    return 4.0 * s


def tf_grad(x):
    n = len(x)
    g = np.empty(n)
    g[0] = 2.0 * (x[0] - 1.0) - 16.0 * x[0] * (x[1] - x[0] * x[0])
    for i in range(1, n - 1):
        g[i] = 8.0 * (x[i] - x[i - 1] * x[i - 1]) - 16.0 * x[i] * (x[i + 1] - x[i] * x[i])
    g[n - 1] = 8.0 * (x[n - 1] - x[n - 2] * x[n - 2])
    return g


QUAD_D = [1000.0 ** (i / 99) for i in range(100)]


def quad_value(x):
    f = 0.0
    for i, d in enumerate(QUAD_D):
        f += d * (x[i] - 1.0) * (x[i] - 1.0)
    return f


def quad_grad(x):
    return [2.0 * d * (x[i] - 1.0) for i, d in enumerate(QUAD_D)]


def valley_start(n):
    return [1.0 if i % 2 else -1.2 for i in range(n)]


PROBLEMS = {
    "test function n=2": (tf_value, tf_grad, valley_start(2)),
    "test function n=10": (tf_value, tf_grad, valley_start(10)),
    "ill-cond. quadratic": (quad_value, quad_grad, [0.0] * 100),
}

# demo optimizer name -> (method, options); the demo runs them at 1e-8.
DEMO_OPTIMIZERS = {
    "BFGS": ("bfgs", {}),
    "BFGS+CG": ("bfgs", {"line_minimizer": "cg"}),
    "BFGS+NR": ("bfgs", {"line_minimizer": "nr"}),
    "DFP": ("dfp", {}),
    "LBFGS": ("lbfgs", {}),
    "ConjGrad": ("cg", {}),
    "FletcherReeves": ("fr", {}),
    "RibierePolak": ("pr", {}),
    "HestenesStiefel": ("hs", {}),
}

ROW = re.compile(r"^(\S+)\s+(.+?)\s+(\d+)\s+(\S+)\s+(\d+)\s+(\d+)\s+(\w+)\s+(yes|no)\s+\S+$")


def demo_rows(name):
    demo = os.environ.get("LXOPT_DEMO")
    if not demo:
        pytest.skip("LXOPT_DEMO is not set (built without the demo)")
    out = subprocess.run([demo, "--only", name], capture_output=True, text=True,
                         check=True).stdout
    rows = {}
    for line in out.splitlines():
        m = ROW.match(line)
        if m and m.group(1) == name:
            rows[m.group(2)] = (float(m.group(4)), int(m.group(5)), int(m.group(6)),
                                m.group(7), m.group(8) == "yes")
    return rows


def test_every_library_optimizer_has_a_class():
    from lxopt import _lxopt
    bound = [c.registry_name for c in vars(_lxopt).values() if hasattr(c, "registry_name")]
    assert sorted(bound) == sorted(_lxopt.optimizer_names())


@pytest.mark.parametrize("name", sorted(DEMO_OPTIMIZERS))
def test_runs_identical_to_the_cpp_demo(name):
    method, options = DEMO_OPTIMIZERS[name]
    rows = demo_rows(name)
    for problem, (fun, jac, x0) in PROBLEMS.items():
        value, iters, evals, state, converged = rows[problem]
        # The optimizer's own tolerance: its own test and verdict, no gtol.
        opt = lxopt.METHODS[method]()
        lxopt._configure(opt, dict(options, tolerance=1e-8))
        raw = opt.minimize(fun, x0, jac=jac)
        assert (raw["nit"], raw["nfev"], raw["message"], raw["converged"]) == \
            (iters, evals, state, converged), problem
        assert raw["fun"] == pytest.approx(value, rel=1e-7, abs=1e-300), problem
        r = lxopt.minimize(fun, x0, jac=jac, method=method,
                           options=dict(options, tolerance=1e-8))
        assert (r.state_name, r.success) == (state, converged), problem


# ------------------------------------------------- recorded report sequences

def rosen(x):
    a, b = x[1] - x[0] * x[0], 1.0 - x[0]
    return 100.0 * a * a + b * b


def rosen_grad(x):
    a = x[1] - x[0] * x[0]
    return np.array([-400.0 * a * x[0] - 2.0 * (1.0 - x[0]), 200.0 * a])


def rosen_hess(x):
    return np.array([[1200.0 * x[0] ** 2 - 400.0 * x[1] + 2.0, -400.0 * x[0]],
                     [-400.0 * x[0], 200.0]])


class Stopper:
    """Records the callback's iterations (scipy 1.11's intermediate_result
    form); raises StopIteration after `allow` calls."""

    def __init__(self, allow=None):
        self.allow, self.iters = allow, []

    def __call__(self, intermediate_result):
        assert intermediate_result.fun == rosen(intermediate_result.x)
        self.iters.append(intermediate_result.nit)
        if self.allow is not None and len(self.iters) > self.allow:
            raise StopIteration


@pytest.mark.parametrize("method", ["bfgs", "dfp"])
@pytest.mark.parametrize("limit, allow, iters, final", [
    (3, None, [0, 1, 2], (3, 1, "Exhaust", False)),       # iteration limit
    (1000, 2, [0, 1, 2], (2, 99, "Done", False)),        # callback stops
])
def test_report_sequences_match_the_cpp_tests(method, limit, allow, iters, final):
    cb = Stopper(allow)
    r = lxopt.minimize(rosen, [-1.2, 1.0], jac=rosen_grad, method=method,
                       options={"iter_limit": limit}, callback=cb)
    assert cb.iters == iters
    assert (r.nit, r.status, r.state_name, r.success) == final


def test_start_below_tolerance_takes_one_gradient():
    # 1 (x - 1)^2 + 2 (y - 1)^2 from (1, 1 + 2^-10): sum g^2 < 0.1 at once.
    calls = []

    def fun(x):
        calls.append(np.array(x))
        g = np.array([2.0 * (x[0] - 1.0), 4.0 * (x[1] - 1.0)])
        return (x[0] - 1.0) ** 2 + 2.0 * (x[1] - 1.0) ** 2, g

    r = lxopt.minimize(fun, [1.0, 1.0 + 2.0 ** -10], jac=True, method="bfgs",
                       options={"tolerance": 0.1})
    assert (r.state, r.state_name, r.success, r.nfev, r.njev) == (1, "NoOpt", True, 1, 1)
    np.testing.assert_array_equal(r.hess_inv, np.eye(2))


# ----------------------------------------------------------- against scipy

@pytest.mark.parametrize("method, scipy_method", [
    ("bfgs", "BFGS"), ("cg", "CG"), ("newton", "Newton-CG")])
def test_same_minimum_as_scipy_on_rosenbrock(method, scipy_method):
    optimize = pytest.importorskip("scipy.optimize")
    ours = lxopt.minimize(optimize.rosen, [-1.2, 1.0], jac=optimize.rosen_der,
                          hess=optimize.rosen_hess, method=method,
                          options={"tolerance": 1e-12})
    hess = optimize.rosen_hess if scipy_method == "Newton-CG" else None
    theirs = optimize.minimize(optimize.rosen, [-1.2, 1.0], jac=optimize.rosen_der,
                               hess=hess, method=scipy_method)
    assert ours.success and theirs.success
    np.testing.assert_allclose(ours.x, theirs.x, atol=1e-4)
    np.testing.assert_allclose(ours.x, [1.0, 1.0], atol=1e-5)


# ------------------------------------------------ exceptions, GIL, arrays

class Boom(Exception):
    pass


@pytest.mark.parametrize("method", sorted(lxopt.METHODS))
def test_exception_in_objective_reaches_the_caller(method):
    calls = []

    def fun(x):
        calls.append(1)
        if len(calls) == 3:
            raise Boom("third call")
        return rosen(x)

    with pytest.raises(Boom, match="third call"):
        lxopt.minimize(fun, [-1.2, 1.0], jac=rosen_grad, hess=rosen_hess, method=method)
    # The library is usable afterwards and messages are routed again.
    assert lxopt.minimize(rosen, [-1.2, 1.0], jac=rosen_grad, method="bfgs").success


def test_wrong_gradient_size_is_a_value_error():
    with pytest.raises(ValueError, match="jac returned 3 values, expected 2"):
        lxopt.minimize(rosen, [-1.2, 1.0], jac=lambda x: np.zeros(3))


def test_newton_without_hessian_differentiates_the_gradient():
    r = lxopt.minimize(rosen, [-1.2, 1.0], jac=rosen_grad, method="newton")
    assert r.success and r.nhev > 0
    np.testing.assert_allclose(r.x, [1.0, 1.0], atol=1e-6)


# -------------------------------------------------------------- logging

def test_library_messages_go_to_logging(caplog):
    with caplog.at_level(logging.WARNING, logger="lxopt"):
        assert lxopt.BFGS().inverse_hessian(2) is None
    assert [(r.name, r.levelname) for r in caplog.records] == [("lxopt", "WARNING")]
    assert "Hessian" in caplog.records[0].getMessage()


def test_progress_text_is_logged_at_debug(caplog):
    opt = lxopt.Anneal(10.0)
    opt.iter_limit = 200
    with caplog.at_level(logging.DEBUG, logger="lxopt"):
        opt.minimize(rosen, [-1.2, 1.0], jac=rosen_grad)
    assert any(r.getMessage().startswith("T = 10") for r in caplog.records)


# ------------------------------------------ settings, Hessian, minimum finder

def test_kept_inverse_hessian_is_symmetric_positive_definite():
    opt = lxopt.BFGS()
    opt.keep_hessian, opt.tolerance = True, 1e-12
    opt.set_line_minimizer("qn")
    assert (opt.keep_hessian, opt.tolerance) == (True, 1e-12)
    opt.minimize(rosen, [-1.2, 1.0], jac=rosen_grad)
    h = opt.inverse_hessian(2)
    np.testing.assert_array_equal(h, h.T)
    # At the minimum H approaches the inverse of the true Hessian.
    np.testing.assert_allclose(h, np.linalg.inv(rosen_hess([1.0, 1.0])), rtol=0.2, atol=0.02)
    with pytest.raises(ValueError, match="unknown line minimizer"):
        opt.set_line_minimizer("golden")


def test_min_finder_finds_both_wells():
    finder = lxopt.MinFinder()
    finder.max_sample, finder.threshold_no_change = 200, 50
    assert finder.run(lambda x: (x[0] ** 2 - 1.0) ** 2 + 0.1 * x[0], [-2.0], [2.0],
                      jac=lambda x: [4.0 * x[0] * (x[0] ** 2 - 1.0) + 0.1])
    coords, values = finder.minima()
    assert coords.shape == (2, 1) and values.shape == (2,)
    assert list(values) == sorted(values)
    np.testing.assert_allclose(coords[:, 0], [-1.0, 1.0], atol=0.02)


# ------------------------------------------------------ constrained Newton

def bowl(x):
    """x^2 + 2 y^2 with its gradient; Hessian diag(2, 4)."""
    return x[0] ** 2 + 2.0 * x[1] ** 2, np.array([2.0 * x[0], 4.0 * x[1]])


def bowl_hess(x):
    return np.diag([2.0, 4.0])


def line(x):
    """x + y - 1 = 0 as a (fun, jac) pair."""
    return x[0] + x[1] - 1.0


def line_grad(x):
    return np.array([1.0, 1.0])


def test_constrained_newton_reaches_the_minimum_on_a_line():
    # grad f = nu grad c: 2x = 4y = nu and x + y = 1, so (2/3, 1/3), f = 2/3.
    opt = lxopt.NewtonConstrained()
    assert opt.add((line, line_grad))
    r = opt.minimize(bowl, [0.0, 0.0], jac=True, hess=bowl_hess)
    assert (r["status"], r["message"], r["stopped"], r["converged"]) == (11, "Done", False, True)
    np.testing.assert_allclose(r["x"], [2.0 / 3.0, 1.0 / 3.0], atol=1e-6)
    assert r["fun"] == pytest.approx(2.0 / 3.0, abs=1e-9)


@pytest.mark.parametrize("form", ["callable", "dict"])
def test_minimize_with_a_sphere_constraint(form):
    # (x - 2)^2 + (y - 1)^2 on the unit circle: the point of the circle
    # nearest (2, 1), i.e. (2, 1) / sqrt(5).
    def sphere(x):
        return x[0] ** 2 + x[1] ** 2 - 1.0, 2.0 * np.asarray(x)

    c = sphere if form == "callable" else {
        "type": "eq", "fun": lambda x: sphere(x)[0], "jac": lambda x: sphere(x)[1]}
    r = lxopt.minimize(lambda x: (x[0] - 2.0) ** 2 + (x[1] - 1.0) ** 2, [0.5, 0.5],
                       jac=lambda x: np.array([2.0 * (x[0] - 2.0), 2.0 * (x[1] - 1.0)]),
                       hess=lambda x: 2.0 * np.eye(2), method="newton", constraints=[c])
    assert r.success, r.message
    np.testing.assert_allclose(r.x, np.array([2.0, 1.0]) / np.sqrt(5.0), atol=1e-6)
    assert r.fun == pytest.approx((np.sqrt(5.0) - 1.0) ** 2, abs=1e-9)


def test_add_and_remove_keep_the_library_semantics(caplog):
    opt = lxopt.NewtonConstrained()
    pair, other = (line, line_grad), lambda x: (x[0] - x[1], np.array([1.0, -1.0]))
    assert opt.add(pair) and opt.add(other)
    assert not opt.add(pair)                  # the same object is listed once
    assert opt.constraints == [pair, other]
    assert opt.remove(pair) and not opt.remove(pair)
    assert opt.constraints == [other]
    # Only x = y is left: the minimum of the bowl on it is the origin.
    r = opt.minimize(bowl, [1.0, 0.5], jac=True, hess=bowl_hess)
    np.testing.assert_allclose(r["x"], [0.0, 0.0], atol=1e-6)
    # With none left the run warns and is unconstrained.
    assert opt.remove(other) and opt.constraints == []
    with caplog.at_level(logging.WARNING, logger="lxopt"):
        r = opt.minimize(bowl, [1.0, 0.5], jac=True, hess=bowl_hess)
    assert [rec.levelname for rec in caplog.records] == ["WARNING"]
    np.testing.assert_allclose(r["x"], [0.0, 0.0], atol=1e-6)


def test_constraint_errors_reach_the_caller():
    opt = lxopt.NewtonConstrained()
    with pytest.raises(TypeError, match="a constraint is a callable"):
        opt.add((line, 1.0))

    def failing(x):
        raise Boom("constraint")

    assert opt.add(failing)
    with pytest.raises(Boom, match="constraint"):
        opt.minimize(bowl, [0.0, 0.0], jac=True, hess=bowl_hess)
    with pytest.raises(ValueError, match="constraints need method='newton'"):
        lxopt.minimize(rosen, [-1.2, 1.0], jac=rosen_grad, constraints=[(line, line_grad)])


# ------------------------------------------------------------ type stubs

def test_type_stubs_declare_the_compiled_module():
    import ast
    import pathlib

    from lxopt import _lxopt
    stub = pathlib.Path(lxopt.__file__).with_name("_lxopt.pyi")
    assert stub.with_name("py.typed").exists()
    tree = ast.parse(stub.read_text())
    classes = {n.name: n for n in tree.body if isinstance(n, ast.ClassDef)}
    names = set(classes) | {n.name for n in tree.body if isinstance(n, ast.FunctionDef)} | \
        {n.target.id for n in tree.body if isinstance(n, ast.AnnAssign)}

    def members(name):
        node = classes[name]
        own = {m.name for m in node.body if isinstance(m, ast.FunctionDef)} | \
            {m.target.id for m in node.body if isinstance(m, ast.AnnAssign)}
        for base in node.bases:
            if isinstance(base, ast.Name) and base.id in classes:
                own |= members(base.id)
        return own

    public = {n for n in dir(_lxopt) if not n.startswith("_")}
    assert public <= names, public - names
    for name in public:
        obj = getattr(_lxopt, name)
        if isinstance(obj, type):
            attrs = {a for a in dir(obj) if not a.startswith("_")}
            assert attrs <= members(name), (name, attrs - members(name))
