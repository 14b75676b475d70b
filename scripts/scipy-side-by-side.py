#!/usr/bin/env python3
"""Prints lxopt.minimize next to scipy.optimize.minimize on the problems of
bindings/python/tests/test_minimize.py: distance of x from the minimizer,
largest gradient component, evaluations, success.

Usage: PYTHONPATH=build/python scripts/scipy-side-by-side.py
"""
import importlib.util
import pathlib

import numpy as np
import scipy

ROOT = pathlib.Path(__file__).resolve().parent.parent
module_source = importlib.util.spec_from_file_location(
    "cases", ROOT / "bindings" / "python" / "tests" / "test_minimize.py")
cases = importlib.util.module_from_spec(module_source)
module_source.loader.exec_module(cases)


def gradient(name, x):
    fun, _, kw, _ = cases.CASES[name]
    jac = kw.get("jac")
    if callable(jac):
        return jac(x)
    return scipy.optimize.approx_fprime(x, fun, 1e-8)


def row(name, library, r, exact, g):
    err = np.max(np.abs(r.x - exact)) if np.all(np.isfinite(r.x)) else np.nan
    return (f"| {name} | {library} | {err:.1e} | {np.max(np.abs(g)):.1e} | {r.nfev} | "
            f"{r.get('njev', '-')} | {r.success} | {r.status} |")


def main():
    print(f"scipy {scipy.__version__}\n")
    print("| problem | library | max abs error in x | max abs gradient | nfev | njev | "
          "success | status |")
    print("|---|---|---:|---:|---:|---:|---|---:|")
    for name in cases.CASES:
        with np.errstate(all="ignore"):
            ours, theirs, exact = cases.side_by_side(name)
            print(row(name, "lxopt", ours, exact, ours.jac))
            print(row(name, "scipy", theirs, exact, gradient(name, theirs.x)))
    # A callback that asks to stop at its third call.
    ours = cases.lxopt.minimize(cases.rosen, cases.START, jac=cases.rosen_der,
                                callback=cases.StopAfter(3))
    print(f"| callback stop at call 3, BFGS | lxopt | nit {ours.nit} | - | {ours.nfev} | "
          f"{ours.njev} | {ours.success} | {ours.status} |")
    try:
        theirs = scipy.optimize.minimize(cases.rosen, cases.START, jac=cases.rosen_der,
                                         method="BFGS", callback=cases.StopAfter(3))
        print(f"| callback stop at call 3, BFGS | scipy | nit {theirs.nit} | - | {theirs.nfev} |"
              f" {theirs.njev} | {theirs.success} | {theirs.status} |")
    except StopIteration:
        print("| callback stop at call 3, BFGS | scipy | StopIteration propagates (scipy < 1.11)"
              " | - | - | - | - | - |")


if __name__ == "__main__":
    main()
