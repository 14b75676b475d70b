#!/usr/bin/python3
"""scipy.optimize on the benchmark problem set, and scipy's BFGS per iteration.

The problems are the C++ ones, loaded from liblxbench_problems.so through
ctypes, so every library evaluates the same functions. Evaluations are counted
here, around the callables handed to scipy (never scipy's own counts).

Stopping rules as close to the common one (|g| < 1e-6, 5000 iterations) as
scipy allows: BFGS and CG take gtol=1e-6 with norm=2 (Euclidean); L-BFGS-B
(8 pairs, as LxLBFGSOpt) has only a max-norm test, gtol=1e-6, and its test on
the relative decrease of f is switched off (ftol=0); Newton-CG has no gradient
test and stops on its step, xtol=1e-8 (average relative change of x).

Writes the same CSV columns as peer_compare, and a scaling CSV in the columns
of peer_scaling (section "bfgs", subject "scipy_bfgs"; section "lbfgs",
subject "scipy_lbfgsb").
"""
import argparse
import ctypes
import statistics
import sys
import time

import numpy as np
from scipy.optimize import minimize

GTOL = 1e-6
MAX_ITER = 5000
NEWTON_XTOL = 1e-8
LBFGS_MEMORY = 8
RUN_SECONDS_LIMIT = 60.0  # as for GSL and dlib: a longer run counts as not solved
SCALING_SECONDS_LIMIT = 60.0


class TimeLimit(Exception):
    """Raised from the objective to end a run that exceeds RUN_SECONDS_LIMIT
    (scipy 1.10 has no way to stop a run from a callback)."""

DOUBLE_P = ctypes.POINTER(ctypes.c_double)


def load(path):
    lib = ctypes.CDLL(path)
    lib.lxb_count.restype = ctypes.c_int
    lib.lxb_name.restype = ctypes.c_char_p
    lib.lxb_name.argtypes = [ctypes.c_int]
    lib.lxb_n.argtypes = [ctypes.c_int]
    lib.lxb_fstar.restype = ctypes.c_double
    lib.lxb_fstar.argtypes = [ctypes.c_int]
    lib.lxb_start.argtypes = [ctypes.c_int, DOUBLE_P]
    lib.lxb_value.restype = ctypes.c_double
    lib.lxb_value.argtypes = [ctypes.c_int, DOUBLE_P]
    lib.lxb_gradient.restype = ctypes.c_double
    lib.lxb_gradient.argtypes = [ctypes.c_int, DOUBLE_P, DOUBLE_P]
    lib.lxb_hessian.restype = ctypes.c_int
    lib.lxb_hessian.argtypes = [ctypes.c_int, DOUBLE_P, DOUBLE_P, DOUBLE_P]
    return lib


def ptr(a):
    return a.ctypes.data_as(DOUBLE_P)


class Counted:
    """Value, gradient and Hessian callables of problem i, each counted."""

    def __init__(self, lib, i):
        self.lib, self.i = lib, i
        self.n = lib.lxb_n(i)
        self.values = self.gradients = self.hessians = 0
        self.started = time.perf_counter()
        self.last_x = None

    def value(self, x):
        if time.perf_counter() - self.started > RUN_SECONDS_LIMIT:
            raise TimeLimit()
        self.values += 1
        x = np.ascontiguousarray(x, dtype=float)
        self.last_x = x.copy()
        return self.lib.lxb_value(self.i, ptr(x))

    def gradient(self, x):
        self.gradients += 1
        x = np.ascontiguousarray(x, dtype=float)
        g = np.zeros(self.n)
        self.lib.lxb_gradient(self.i, ptr(x), ptr(g))
        return g

    def hessian(self, x):
        self.hessians += 1
        x = np.ascontiguousarray(x, dtype=float)
        h = np.zeros((self.n, self.n))
        g = np.zeros(self.n)
        self.lib.lxb_hessian(self.i, ptr(x), ptr(h), ptr(g))
        return h


class Result:
    """The parts of a scipy result the table needs."""

    def __init__(self, x, nit, status):
        self.x, self.nit, self.status = x, nit, status


def run(lib, i, method):
    c = Counted(lib, i)
    x0 = np.zeros(c.n)
    lib.lxb_start(i, ptr(x0))
    iterations = [0]

    def count_iteration(xk):
        iterations[0] += 1

    try:
        if method == "L-BFGS-B":
            options = {"gtol": GTOL, "ftol": 0.0, "maxcor": LBFGS_MEMORY, "maxiter": MAX_ITER}
            res = minimize(c.value, x0, method=method, jac=c.gradient, options=options,
                           callback=count_iteration)
        elif method == "Newton-CG":
            options = {"xtol": NEWTON_XTOL, "maxiter": MAX_ITER}
            res = minimize(c.value, x0, method=method, jac=c.gradient, hess=c.hessian,
                           options=options, callback=count_iteration)
        else:
            options = {"gtol": GTOL, "norm": 2, "maxiter": MAX_ITER}
            res = minimize(c.value, x0, method=method, jac=c.gradient, options=options,
                           callback=count_iteration)
        status = "success" if res.success else "fail:" + str(res.status)
        return Result(res.x, res.nit, status), c
    except TimeLimit:
        return Result(c.last_x, iterations[0], "TimeLimit"), c


def repeats_for(first):
    return 5 if first < 0.05 else 3 if first < 0.5 else 1


def compare(lib, out, name_filter, method_filter=""):
    print("problem,n,fstar,library,method,class,status,iterations,values,gradients,"
          "hessians,fval,gnorm,time_s,repeats", file=out)
    classes = {"BFGS": "QN", "L-BFGS-B": "QN", "CG": "CG", "Newton-CG": "Newton"}
    for i in range(lib.lxb_count()):
        name = lib.lxb_name(i).decode()
        if name_filter not in name:
            continue
        t_problem = time.perf_counter()
        for method, cls in classes.items():
            if method_filter and method not in method_filter.split(","):
                continue
            with np.errstate(all="ignore"):
                t0 = time.perf_counter()
                res, c = run(lib, i, method)
                times = [time.perf_counter() - t0]
                for _ in range(repeats_for(times[0]) - 1):
                    t0 = time.perf_counter()
                    run(lib, i, method)
                    times.append(time.perf_counter() - t0)
            x = np.ascontiguousarray(res.x, dtype=float)
            g = np.zeros(c.n)
            f = lib.lxb_gradient(i, ptr(x), ptr(g))
            print(f"{name},{c.n},{lib.lxb_fstar(i)!r},scipy,{method},{cls},{res.status},"
                  f"{res.nit},{c.values},{c.gradients},{c.hessians},{f!r},"
                  f"{np.linalg.norm(g):.6g},{statistics.median(times):.6g},{len(times)}",
                  file=out, flush=True)
        print(f"{name:28s} {time.perf_counter() - t_problem:6.2f} s", file=sys.stderr)


def scaling(out):
    """scipy BFGS per iteration on the cheap quadratic of peer_scaling."""
    print("section,n,subject,seconds,iterations,values_per_iter,gradients_per_iter", file=out)
    for n in (250, 500, 1000, 2000, 4000):
        d = np.power(1e4, np.arange(n) / (n - 1))
        counts = {"f": 0, "g": 0}

        def f(x):
            counts["f"] += 1
            e = x - 1.0
            return float(np.dot(d * e, e))

        def g(x):
            counts["g"] += 1
            return 2.0 * d * (x - 1.0)

        stamps = []
        iterations = 8 if n >= 2000 else 20
        t0 = time.perf_counter()
        minimize(f, np.zeros(n), jac=g, method="BFGS",
                 options={"gtol": 0.0, "maxiter": iterations},
                 callback=lambda xk: stamps.append(time.perf_counter()))
        total = time.perf_counter() - t0
        per_iter = statistics.median(b - a for a, b in zip(stamps, stamps[1:]))
        steps = len(stamps)
        print(f"bfgs,{n},scipy_bfgs,{per_iter:.6g},{steps},{counts['f'] / steps:.3g},"
              f"{counts['g'] / steps:.3g}", file=out, flush=True)
        print(f"bfgs    n={n:<8d} scipy_bfgs         {per_iter:.4g} s (run {total:.1f} s)",
              file=sys.stderr)
        # scipy updates its matrix with dense matrix products, O(n^3): the next
        # size costs about eight times as much.
        if total * 8.0 > SCALING_SECONDS_LIMIT:
            break


def lbfgs_scaling(out):
    """scipy L-BFGS-B per iteration on the same cheap quadratic at large n."""
    for n in (100000, 1000000):
        d = np.power(1e4, np.arange(n) / (n - 1))

        def fg(x):
            e = x - 1.0
            de = d * e
            return float(np.dot(de, e)), 2.0 * de

        stamps = []
        minimize(fg, np.zeros(n), jac=True, method="L-BFGS-B",
                 options={"gtol": 0.0, "ftol": 0.0, "maxcor": LBFGS_MEMORY, "maxiter": 20},
                 callback=lambda xk: stamps.append(time.perf_counter()))
        # Iterations after the memory has filled, as in bench_lbfgs.
        timed = stamps[LBFGS_MEMORY:]
        per_iter = statistics.median(b - a for a, b in zip(timed, timed[1:]))
        print(f"lbfgs,{n},scipy_lbfgsb,{per_iter:.6g},{len(stamps)},,", file=out, flush=True)
        print(f"lbfgs   n={n:<8d} scipy_lbfgsb       {per_iter:.4g} s", file=sys.stderr)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--lib", required=True, help="path of liblxbench_problems.so")
    parser.add_argument("--out", required=True, help="CSV of the problem-set runs")
    parser.add_argument("--scaling-out", help="CSV of the per-iteration scaling runs")
    parser.add_argument("--filter", default="", help="only problems whose name contains this")
    parser.add_argument("--methods", default="",
                        help="comma-separated scipy methods to run (default all)")
    args = parser.parse_args()
    lib = load(args.lib)
    with open(args.out, "w") as out:
        compare(lib, out, args.filter, args.methods)
    if args.scaling_out:
        with open(args.scaling_out, "w") as out:
            scaling(out)
            lbfgs_scaling(out)


if __name__ == "__main__":
    main()
