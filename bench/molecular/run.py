#!/usr/bin/env python3
"""Molecular benchmark: force calls to convergence of LxOpt's geometry driver
and L-BFGS next to the optimizers of ASE, scipy and RDKit.

Every optimizer sees the objective through the same counting wrapper: a force
call is a distinct point evaluated, and a case is solved at the first point
whose forces meet the suite's test (no optimizer's own stopping rule counts).
Suites:
  ase   the seven EMT systems of ASE's optimizer benchmark, fmax < 0.02 eV/A,
        at most 200 force calls;
  lj38  random 38-atom Lennard-Jones clusters (reduced units), Euclidean force
        norm < 0.01, at most 10,000 force calls;
  mmff  MMFF94 (RDKit) on drug-like molecules, largest atomic force below
        0.01 kcal/mol/A, at most 10,000 force calls.
Writes a Markdown report (--doc) and its plot next to it.

Usage: run.py --lib build/bench/molecular/liblxmolbench.so --doc docs/molecular.md
       [--quick] [--smoke SUITE] [--suites ase,lj38,mmff]
"""
import argparse
import ctypes
import os
import signal
import sys
import time
import warnings

import numpy as np

warnings.filterwarnings("ignore")

KCAL_IN_EV = 0.0433641043  # 1 kcal/mol in eV
BOHR_PER_ANGSTROM = 1.8897261246  # 1 Angstrom in bohr
LJ_STARTS = 100
LJ_SEED = 20261124
LJ_RADIUS = 3.0     # start atoms uniform in a sphere of this radius (sigma)...
LJ_MIN_DISTANCE = 0.9  # ...no two closer than this
MMFF_SEED = 0xF00D
CASE_SECONDS = 60  # wall-clock limit of a peer on one case

# Drug-like molecules for the MMFF suite (name, SMILES).
MOLECULES = [
    ("aspirin", "CC(=O)Oc1ccccc1C(=O)O"),
    ("paracetamol", "CC(=O)Nc1ccc(O)cc1"),
    ("ibuprofen", "CC(C)Cc1ccc(cc1)C(C)C(=O)O"),
    ("caffeine", "Cn1cnc2c1c(=O)n(C)c(=O)n2C"),
    ("naproxen", "COc1ccc2cc(ccc2c1)C(C)C(=O)O"),
    ("diclofenac", "OC(=O)Cc1ccccc1Nc1c(Cl)cccc1Cl"),
    ("metformin", "CN(C)C(=N)NC(=N)N"),
    ("atenolol", "CC(C)NCC(O)COc1ccc(CC(N)=O)cc1"),
    ("propranolol", "CC(C)NCC(O)COc1cccc2ccccc12"),
    ("diazepam", "CN1C(=O)CN=C(c2ccccc2)c2cc(Cl)ccc12"),
    ("fluoxetine", "CNCCC(Oc1ccc(cc1)C(F)(F)F)c1ccccc1"),
    ("nicotine", "CN1CCCC1c1cccnc1"),
    ("lidocaine", "CCN(CC)CC(=O)Nc1c(C)cccc1C"),
    ("procaine", "CCN(CC)CCOC(=O)c1ccc(N)cc1"),
    ("salbutamol", "CC(C)(C)NCC(O)c1ccc(O)c(CO)c1"),
    ("warfarin", "CC(=O)CC(c1ccccc1)c1c(O)c2ccccc2oc1=O"),
    ("indomethacin", "COc1ccc2n(C(=O)c3ccc(Cl)cc3)c(C)c(CC(=O)O)c2c1"),
    ("ketoprofen", "CC(C(=O)O)c1cccc(c1)C(=O)c1ccccc1"),
    ("celecoxib", "Cc1ccc(cc1)-c1cc(nn1-c1ccc(cc1)S(N)(=O)=O)C(F)(F)F"),
    ("sildenafil", "CCCc1nn(C)c2c1nc([nH]c2=O)-c1cc(ccc1OCC)S(=O)(=O)N1CCN(C)CC1"),
    ("imatinib", "Cc1ccc(NC(=O)c2ccc(CN3CCN(C)CC3)cc2)cc1Nc1nccc(n1)-c1cccnc1"),
    ("oseltamivir", "CCOC(=O)C1=CC(OC(CC)CC)C(NC(C)=O)C(N)C1"),
]


# --------------------------------------------------------------- counting

class Stop(Exception):
    """Raised by the counter once a case is decided."""


class Counter:
    """Counts distinct points; stops at the first that passes the test or
    when the budget is spent. fg(x) -> (value, gradient)."""

    def __init__(self, fg, passes, budget):
        self.fg, self.passes, self.budget = fg, passes, budget
        self.seen = set()
        self.solved_at = None
        self.done = False
        self.final = None

    @property
    def calls(self):
        return len(self.seen)

    def __call__(self, x):
        if self.done:
            raise Stop
        x = np.array(x, dtype=float)
        f, g = self.fg(x)
        self.seen.add(x.tobytes())
        if self.passes(g):
            self.solved_at, self.done, self.final = self.calls, True, f
            raise Stop
        if self.calls >= self.budget:
            self.done, self.final = True, f
            raise Stop
        return f, g


def max_atom_force(g):
    return float(np.sqrt((g.reshape(-1, 3) ** 2).sum(axis=1)).max()) if g.size else 0.0


class Case:
    """One problem: start x0 (free Cartesian coordinates), fg in its native
    units, the test on the gradient, and for ASE optimizers an Atoms object
    and the factor from native energy units to eV."""

    def __init__(self, name, x0, fg, passes, budget, atoms=None, free=None, to_ev=1.0):
        self.name, self.x0, self.fg, self.passes, self.budget = name, x0, fg, passes, budget
        self.atoms, self.free, self.to_ev = atoms, free, to_ev


# --------------------------------------------------------------- runners

class LxOpt:
    """The library through bench/molecular/harness.cpp."""
    CALLBACK = ctypes.CFUNCTYPE(ctypes.c_double, ctypes.POINTER(ctypes.c_double),
                                ctypes.POINTER(ctypes.c_double))

    def __init__(self, path):
        self.lib = ctypes.CDLL(path)
        self.lib.lxm_minimize.restype = ctypes.c_double
        self.lib.lxm_minimize.argtypes = [ctypes.c_int, ctypes.c_int,
                                          ctypes.POINTER(ctypes.c_double),
                                          ctypes.POINTER(ctypes.c_double), self.CALLBACK,
                                          ctypes.c_char_p]
        self.lib.lxm_set_atomic_numbers.argtypes = [ctypes.POINTER(ctypes.c_int), ctypes.c_int]

    def runner(self, method, settings=""):
        def run(case, counter):
            n = case.x0.size

            def fg(xp, gp):
                x = np.ctypeslib.as_array(xp, (n,))
                g = np.ctypeslib.as_array(gp, (n,))
                try:
                    f, grad = counter(x)
                    g[:] = grad
                    return f
                except Stop:
                    # Decided: a zero gradient ends the run at once.
                    g[:] = 0.0
                    return counter.final
            cb = self.CALLBACK(fg)
            if "elements=1" in settings:
                z = np.ascontiguousarray(case.atoms.numbers[case.free], dtype=np.intc)
                self.lib.lxm_set_atomic_numbers(z.ctypes.data_as(ctypes.POINTER(ctypes.c_int)),
                                                z.size)
            x0 = np.ascontiguousarray(case.x0, dtype=float)
            out = np.zeros(n)
            ptr = ctypes.POINTER(ctypes.c_double)
            self.lib.lxm_minimize(method, n, x0.ctypes.data_as(ptr), out.ctypes.data_as(ptr),
                                  cb, settings.encode())
        return run


def scipy_runner(method):
    from scipy.optimize import minimize
    options = {"L-BFGS-B": {"maxiter": 10**7, "maxfun": 10**7, "ftol": 0.0, "gtol": 0.0},
               "BFGS": {"maxiter": 10**7, "gtol": 0.0}}[method]

    def run(case, counter):
        try:
            minimize(counter, case.x0, jac=True, method=method, options=options)
        except Stop:
            pass
    return run


def ase_runner(name):
    def run(case, counter):
        import ase.optimize
        import ase.optimize.sciopt
        from ase.calculators.calculator import Calculator, all_changes

        cls = getattr(ase.optimize, name, None) or getattr(ase.optimize.sciopt, name)
        free = case.free

        class Counted(Calculator):
            implemented_properties = ["energy", "forces"]

            def calculate(self, atoms=None, properties=("energy",), system_changes=all_changes):
                Calculator.calculate(self, atoms, properties, system_changes)
                f, g = counter(self.atoms.positions[free].ravel())
                forces = np.zeros((len(self.atoms), 3))
                forces[free] = -g.reshape(-1, 3) * case.to_ev
                self.results = {"energy": f * case.to_ev, "forces": forces}

        atoms = case.atoms.copy()
        atoms.calc = Counted()
        try:
            opt = cls(atoms, logfile=None)
            opt.run(fmax=1e-12, steps=10**7)
        except Stop:
            pass
    return run


class TimeLimit(Exception):
    """A peer ran out of its wall-clock time on one case."""


def _time_up(signum, frame):
    raise TimeLimit(f"more than {CASE_SECONDS} s")


def run_case(runner, case, limited):
    """limited: the case gets CASE_SECONDS of wall-clock time (peers only:
    GPMin's cost grows with the cube of the points it has seen)."""
    counter = Counter(case.fg, case.passes, case.budget)
    start = time.perf_counter()
    if limited:
        signal.signal(signal.SIGALRM, _time_up)
        signal.setitimer(signal.ITIMER_REAL, CASE_SECONDS)
    timed_out = False
    try:
        runner(case, counter)
    except Stop:
        pass
    except TimeLimit:
        timed_out = True
    except Exception as e:  # a peer that breaks down counts as unsolved
        print(f"    {case.name}: {type(e).__name__}: {e}", file=sys.stderr)
    finally:
        if limited:
            signal.setitimer(signal.ITIMER_REAL, 0)
    return {"calls": counter.solved_at, "spent": counter.calls, "final": counter.final,
            "seconds": time.perf_counter() - start, "timeout": timed_out}


# --------------------------------------------------------------- suites

def ase_cases(only_first):
    from ase.calculators.emt import EMT
    from ase.constraints import FixAtoms
    from ase.optimize.test.systems import get_systems

    cases = []
    for atoms, description in get_systems():
        fixed = set()
        for c in atoms.constraints:
            if isinstance(c, FixAtoms):
                fixed.update(int(i) for i in c.index)
        free = np.array([i for i in range(len(atoms)) if i not in fixed], dtype=int)
        emt_atoms = atoms.copy()
        emt_atoms.calc = EMT()

        def fg(x, a=emt_atoms, free=free):
            pos = a.positions.copy()
            pos[free] = x.reshape(-1, 3)
            a.positions = pos
            e = a.get_potential_energy()
            forces = a.calc.get_forces(a)  # unconstrained; only free rows used
            return e, -forces[free].ravel()
        cases.append(Case(description, atoms.positions[free].ravel().copy(), fg,
                          lambda g: max_atom_force(g) < 0.02, 200, atoms=atoms, free=free))
        if only_first:
            break
    return cases


def lj_fg(x):
    p = x.reshape(-1, 3)
    d = p[:, None, :] - p[None, :, :]
    r2 = (d ** 2).sum(-1)
    np.fill_diagonal(r2, np.inf)
    ir6 = 1.0 / r2 ** 3
    e = 2.0 * float(np.sum(ir6 * ir6 - ir6))
    w = (-48.0 * ir6 * ir6 + 24.0 * ir6) / r2
    return e, (w[:, :, None] * d).sum(axis=1).ravel()


def lj_start(rng, atoms=38):
    points = []
    while len(points) < atoms:
        p = rng.uniform(-LJ_RADIUS, LJ_RADIUS, 3)
        if p @ p > LJ_RADIUS ** 2:
            continue
        if all(np.linalg.norm(p - q) >= LJ_MIN_DISTANCE for q in points):
            points.append(p)
    return np.array(points).ravel()


def lj_cases(starts):
    from ase import Atoms
    rng = np.random.default_rng(LJ_SEED)
    cases = []
    for k in range(starts):
        x0 = lj_start(rng)
        atoms = Atoms("Ar38", positions=x0.reshape(-1, 3))
        cases.append(Case(f"start {k}", x0, lj_fg, lambda g: float(np.linalg.norm(g)) < 0.01,
                          10000, atoms=atoms, free=np.arange(38)))
    return cases


def mmff_molecule(smiles):
    from rdkit import Chem
    from rdkit.Chem import AllChem
    mol = Chem.AddHs(Chem.MolFromSmiles(smiles))
    AllChem.EmbedMolecule(mol, randomSeed=MMFF_SEED)
    props = AllChem.MMFFGetMoleculeProperties(mol)
    return mol, props


def mmff_cases(count):
    from ase import Atoms
    from rdkit.Chem import AllChem
    cases = []
    for name, smiles in MOLECULES[:count]:
        mol, props = mmff_molecule(smiles)
        ff = AllChem.MMFFGetMoleculeForceField(mol, props)
        x0 = np.array(ff.Positions(), dtype=float)

        def fg(x, ff=ff):
            xs = x.tolist()
            return ff.CalcEnergy(xs), np.array(ff.CalcGrad(xs))
        atoms = Atoms([a.GetSymbol() for a in mol.GetAtoms()], positions=x0.reshape(-1, 3))
        cases.append(Case(name, x0, fg, lambda g: max_atom_force(g) < 0.01, 10000, atoms=atoms,
                          free=np.arange(len(atoms)), to_ev=KCAL_IN_EV))
    return cases


def in_ev(case):
    """The same case with energies in eV instead of kcal/mol."""
    def fg(x, inner=case.fg):
        f, g = inner(x)
        return f * KCAL_IN_EV, g * KCAL_IN_EV
    return Case(case.name, case.x0, fg, lambda g: max_atom_force(g) < 0.01 * KCAL_IN_EV,
                case.budget, atoms=case.atoms, free=case.free)


def in_bohr(case):
    """The same case with lengths in bohr instead of Angstrom."""
    def fg(x, inner=case.fg):
        f, g = inner(x / BOHR_PER_ANGSTROM)
        return f, g / BOHR_PER_ANGSTROM
    return Case(case.name, case.x0 * BOHR_PER_ANGSTROM, fg,
                lambda g, passes=case.passes: passes(g * BOHR_PER_ANGSTROM), case.budget,
                atoms=case.atoms, free=case.free)


def unit_check(lx, cases):
    """Per molecule, force calls in kcal/mol and Angstrom, in eV, and in bohr
    of the LxOpt entries: {name: (totals in each unit system, largest relative
    difference of a case from the first)}."""
    rows = {}
    for name, runner in entries(lx, "mmff").items():
        if name not in OURS:
            continue
        calls = [[run_case(runner, convert(c), False)["calls"] for c in cases]
                 for convert in (lambda c: c, in_ev, in_bohr)]
        if any(None in column for column in calls):
            rows[name] = (None, None)
            continue
        worst = max(abs(a - b) / a for other in calls[1:] for a, b in zip(calls[0], other))
        rows[name] = (tuple(sum(column) for column in calls), worst)
    return rows


def rdkit_minimizer(count):
    """RDKit's own MMFF minimizer: seconds, final energy, largest force."""
    from rdkit.Chem import AllChem
    rows = []
    for name, smiles in MOLECULES[:count]:
        mol, props = mmff_molecule(smiles)
        ff = AllChem.MMFFGetMoleculeForceField(mol, props)
        start = time.perf_counter()
        status = ff.Minimize(maxIts=100000)
        seconds = time.perf_counter() - start
        x = list(ff.Positions())
        rows.append((name, seconds, ff.CalcEnergy(x), max_atom_force(np.array(ff.CalcGrad(x))),
                     status))
    return rows


# --------------------------------------------------------------- entries

# The goals are judged on the first two: the variables are Cartesian
# coordinates and the benchmark says so (SetCartesian). The (plain) entries
# run with no settings at all; the (surrogate) entry adds SetSurrogate.
OURS = ["LxOpt geometry", "LxOpt L-BFGS", "LxOpt geometry (plain)", "LxOpt L-BFGS (plain)",
        "LxOpt geometry (surrogate)"]


def entries(lx, suite):
    # On molecules the runs are told the elements too, as lxopt.rdkit does.
    model = "cartesian=1 elements=1" if suite == "mmff" else "cartesian=1"
    ours = {"LxOpt geometry": lx.runner(0, model),
            "LxOpt L-BFGS": lx.runner(1, model),
            "LxOpt geometry (plain)": lx.runner(0), "LxOpt L-BFGS (plain)": lx.runner(1),
            "LxOpt geometry (surrogate)": lx.runner(0, "cartesian=1 surrogate=1")}
    if suite == "ase":
        peers = ["BFGS", "BFGSLineSearch", "LBFGS", "LBFGSLineSearch", "FIRE", "MDMin", "GPMin",
                 "GoodOldQuasiNewton", "SciPyFminBFGS", "SciPyFminCG"]
        return {**ours, **{f"ASE {p}": ase_runner(p) for p in peers}}
    if suite == "lj38":
        return {**ours, "scipy L-BFGS-B": scipy_runner("L-BFGS-B"),
                "scipy BFGS": scipy_runner("BFGS"), "ASE LBFGS": ase_runner("LBFGS"),
                "ASE BFGSLineSearch": ase_runner("BFGSLineSearch"),
                "ASE FIRE": ase_runner("FIRE")}
    return {**ours, "scipy BFGS": scipy_runner("BFGS"),
            "scipy L-BFGS-B": scipy_runner("L-BFGS-B"), "ASE BFGS": ase_runner("BFGS"),
            "ASE BFGSLineSearch": ase_runner("BFGSLineSearch")}


def run_suite(lx, suite, cases):
    results = {}
    for name, runner in entries(lx, suite).items():
        start = time.perf_counter()
        results[name] = [run_case(runner, c, name not in OURS) for c in cases]
        solved = sum(r["calls"] is not None for r in results[name])
        print(f"  {suite:5s} {name:24s} solved {solved}/{len(cases)} "
              f"calls {sum(r['calls'] or 0 for r in results[name])} "
              f"({time.perf_counter() - start:.1f} s)", flush=True)
    return results


# --------------------------------------------------------------- report

def solved_all(rows):
    return all(r["calls"] is not None for r in rows)


def total(rows, mask=None):
    return sum(r["calls"] for k, r in enumerate(rows) if mask is None or mask[k])


def fmt_calls(r):
    if r["calls"] is not None:
        return str(r["calls"])
    return f"-({r['spent']}{', time' if r['timeout'] else ''})"


def table(cases, results):
    names = list(results)
    lines = ["| case | " + " | ".join(names) + " |", "|---" * (len(names) + 1) + "|"]
    for k, c in enumerate(cases):
        lines.append(f"| {c.name} | " + " | ".join(fmt_calls(results[n][k]) for n in names) + " |")
    lines.append("| **solved** | " + " | ".join(
        f"{sum(r['calls'] is not None for r in results[n])}/{len(cases)}" for n in names) + " |")
    lines.append("| **total (solved)** | " + " | ".join(
        str(sum(r["calls"] or 0 for r in results[n])) for n in names) + " |")
    return lines


def summary_table(cases, results):
    """Per optimizer: solved, mean, median and total over solved cases."""
    lines = ["| optimizer | solved | mean | median | max |", "|---|---|---|---|---|"]
    for n, rows in results.items():
        calls = [r["calls"] for r in rows if r["calls"] is not None]
        if calls:
            lines.append(f"| {n} | {len(calls)}/{len(cases)} | {np.mean(calls):.1f} | "
                         f"{np.median(calls):.0f} | {max(calls)} |")
        else:
            lines.append(f"| {n} | 0/{len(cases)} | - | - | - |")
    return lines


def ratio(a, b):
    return a / b if b else float("nan")


def ase_goals(res, ours, label):
    rows = []
    peers = {n: r for n, r in res.items() if n.startswith("ASE ") and solved_all(r)}
    if peers and solved_all(ours):
        best = min(peers, key=lambda n: total(peers[n]))
        q = ratio(total(ours), total(peers[best]))
        rows.append((f"ASE: {label} total <= 0.8 x best ASE optimizer solving all seven",
                     f"{total(ours)} vs {best} {total(peers[best])}: {q:.2f}x", q <= 0.8))
    if "ASE GPMin" in res:
        mask = [r["calls"] is not None and o["calls"] is not None
                for r, o in zip(res["ASE GPMin"], ours)]
        gp_solved = sum(r["calls"] is not None for r in res["ASE GPMin"])
        a, b = total(ours, mask), total(res["ASE GPMin"], mask)
        rows.append((f"ASE: {label} <= GPMin on the systems GPMin solves ({gp_solved})",
                     f"{a} vs {b}: {ratio(a, b):.2f}x", a <= b))
    return rows


def goals(data, units=None):
    """(goal, measured, met) rows for the suites that were run."""
    rows = []
    for entry, label in (("LxOpt geometry", "geometry"), ("LxOpt L-BFGS", "L-BFGS")):
        if units and units.get(entry, (None,))[0] is not None:
            totals, worst = units[entry]
            rows.append((f"MMFF in kcal/mol, in eV and in bohr: {label} calls within 10 % on "
                         "every molecule", "totals " + ", ".join(map(str, totals)) +
                         f"; largest difference {100 * worst:.1f} %", worst <= 0.10))
    if "ase" in data:
        cases, res = data["ase"]
        for entry, label in (("LxOpt geometry", "geometry"),
                             ("LxOpt geometry (surrogate)", "geometry (surrogate)")):
            if entry in res:
                rows += ase_goals(res, res[entry], label)
    if "lj38" in data:
        cases, res = data["lj38"]
        ours, ref = res["LxOpt geometry"], res["scipy L-BFGS-B"]
        mask = [o["calls"] is not None and r["calls"] is not None for o, r in zip(ours, ref)]
        if any(mask):
            a = total(ours, mask) / sum(mask)
            b = total(ref, mask) / sum(mask)
            rows.append((f"LJ38: geometry mean <= 0.70 x scipy L-BFGS-B (starts both solve: "
                         f"{sum(mask)})", f"{a:.1f} vs {b:.1f}: {ratio(a, b):.2f}x",
                         ratio(a, b) <= 0.70))
    if "mmff" in data:
        cases, res = data["mmff"]
        ours = res["LxOpt geometry"]
        peers = {n: r for n, r in res.items() if n not in OURS and solved_all(r)}
        if peers and solved_all(ours):
            best = min(peers, key=lambda n: total(peers[n]))
            q = ratio(total(ours), total(peers[best]))
            rows.append(("MMFF: geometry total <= 0.8 x best peer",
                         f"{total(ours)} vs {best} {total(peers[best])}: {q:.2f}x", q <= 0.8))
        lb, ref = res["LxOpt L-BFGS"], res["scipy L-BFGS-B"]
        if solved_all(lb) and solved_all(ref):
            rows.append(("MMFF: L-BFGS total <= scipy L-BFGS-B",
                         f"{total(lb)} vs {total(ref)}: {ratio(total(lb), total(ref)):.2f}x",
                         total(lb) <= total(ref)))
    every = all(solved_all(res["LxOpt geometry"]) for _, res in data.values())
    rows.insert(0, ("geometry driver solves every case", "yes" if every else "no", every))
    return rows


MARKERS = "o^sDv<>pP*hX+x1234"


def plot(data, path):
    import matplotlib
    matplotlib.use("Agg")
    import matplotlib.pyplot as plt
    suites = list(data)
    fig, axes = plt.subplots(len(suites), 1, figsize=(11, 3.6 * len(suites)), squeeze=False)
    titles = {"ase": "ASE optimizer benchmark (EMT, fmax < 0.02 eV/A)",
              "lj38": "random LJ38 clusters (|F| < 0.01)",
              "mmff": "MMFF94 (max atomic force < 0.01 kcal/mol/A)"}
    for ax, suite in zip(axes[:, 0], suites):
        cases, res = data[suite]
        for k, (name, rows) in enumerate(res.items()):
            xs = [i for i, r in enumerate(rows) if r["calls"] is not None]
            ys = [rows[i]["calls"] for i in xs]
            big = name in OURS
            ax.scatter(np.array(xs) + (k - len(res) / 2) * 0.03, ys, marker=MARKERS[k % 18],
                       s=40 if big else 18, label=name, zorder=3 if big else 2,
                       color="black" if name == "LxOpt geometry" else None)
        ax.set_yscale("log")
        ax.set_title(titles[suite])
        ax.set_ylabel("force calls")
        if len(cases) <= 25:
            ax.set_xticks(range(len(cases)))
            ax.set_xticklabels([c.name for c in cases], rotation=30, ha="right", fontsize=7)
        else:
            ax.set_xlabel("start")
        ax.legend(fontsize=6, ncol=2, loc="upper left", bbox_to_anchor=(1.0, 1.0))
        ax.grid(True, which="both", alpha=0.3)
    fig.tight_layout()
    fig.savefig(path)
    plt.close(fig)


def report(data, rdkit_rows, doc, seconds, command, units=None):
    png = os.path.splitext(doc)[0] + ".png"
    plot(data, png)
    import ase
    import rdkit
    import scipy
    lines = [
        "# Molecular geometry benchmark",
        "",
        f"Generated by `{command}` in {seconds:.0f} s (ASE {ase.__version__}, scipy "
        f"{scipy.__version__}, RDKit {rdkit.__version__}). Do not edit by hand.",
        "",
        "Every optimizer sees the objective through the same counting wrapper: a force call "
        "is a distinct point evaluated, counted up to the first point whose forces meet the "
        "suite's test; no optimizer's own stopping rule counts. `-(n)` marks a case not "
        "solved after n calls (budget spent, or the optimizer stopped or broke down); "
        f"`-(n, time)` one stopped after {CASE_SECONDS} s of wall-clock time (peers only). "
        "Variables are the Cartesian coordinates of the free atoms; ASE optimizers get "
        "energies in eV, the others the objective in its own units. LxOpt entries run "
        "with tolerance 1e-10 (so the wrapper decides); `LxOpt geometry` and `LxOpt L-BFGS` "
        "are told that the variables are Cartesian coordinates (`SetCartesian(true)`: "
        "model Hessian from interatomic distances), on the MMFF94 molecules also the elements "
        "(`SetAtomicNumbers`, as `lxopt.rdkit` does), the `(plain)` entries run with no "
        "settings at all, `LxOpt geometry (surrogate)` adds `SetSurrogate(true)` (each cycle "
        "first tries the minimum of a Gaussian-process model of the points seen).",
        "",
        "## Goals",
        "",
        "| goal | measured | met |",
        "|---|---|---|",
    ]
    for goal, measured, met in goals(data, units):
        lines.append(f"| {goal} | {measured} | {'yes' if met else 'no'} |")
    lines += ["", f"![force calls per case]({os.path.basename(png)})", ""]
    if "ase" in data:
        cases, res = data["ase"]
        lines += ["## ASE optimizer benchmark", "",
                  "The seven EMT systems of `ase.optimize.test.systems`; solved when the "
                  "largest force on a free atom is below 0.02 eV/A; at most 200 force calls.",
                  ""] + table(cases, res) + [""]
    if "lj38" in data:
        cases, res = data["lj38"]
        lines += ["## Random LJ38 clusters", "",
                  f"{len(cases)} starts (numpy seed {LJ_SEED}): 38 atoms uniform in a sphere "
                  f"of radius {LJ_RADIUS} sigma, no two closer than {LJ_MIN_DISTANCE}; reduced "
                  "units; solved when the Euclidean norm of the gradient is below 0.01; at "
                  "most 10,000 force calls. Figures over the solved starts.", ""
                  ] + summary_table(cases, res) + [""]
    if "mmff" in data:
        cases, res = data["mmff"]
        lines += ["## MMFF94 (RDKit)", "",
                  f"Hydrogens added, one conformer embedded with seed {MMFF_SEED}; solved "
                  "when the largest atomic force is below 0.01 kcal/mol/A; at most 10,000 "
                  "force calls.", ""] + table(cases, res) + [""]
        if rdkit_rows:
            lines += ["RDKit's own minimizer (`ForceField.Minimize`, default tolerances) counts "
                      "no force calls; its time, final energy and largest final force, next to "
                      "the energy where the geometry driver met the test:", "",
                      "| molecule | RDKit s | RDKit energy | RDKit max force | "
                      "geometry energy |", "|---|---|---|---|---|"]
            for k, (name, sec, e, fmax, status) in enumerate(rdkit_rows):
                ours = res["LxOpt geometry"][k]["final"]
                lines.append(f"| {name} | {sec:.3f} | {e:.4f} | {fmax:.4f} | "
                             f"{ours:.4f} |" if ours is not None else
                             f"| {name} | {sec:.3f} | {e:.4f} | {fmax:.4f} | - |")
            lines.append("")
        if units:
            lines += ["The same molecules with energies in eV, and with lengths in bohr (the "
                      "test scaled alike): force calls of the LxOpt entries in each unit.", "",
                      "| optimizer | kcal/mol, A | eV, A | kcal/mol, bohr | "
                      "largest difference of a molecule |",
                      "|---|---|---|---|---|"]
            for name, (totals, worst) in units.items():
                lines.append(f"| {name} | " + " | ".join(map(str, totals)) +
                             f" | {100 * worst:.1f} % |" if totals is not None else
                             f"| {name} | - | - | - | - |")
            lines.append("")
    with open(doc, "w") as fh:
        fh.write("\n".join(lines))
    print(f"wrote {doc} and {png}")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--lib", required=True, help="path of liblxmolbench.so")
    parser.add_argument("--doc", required=True, help="Markdown report to write")
    parser.add_argument("--suites", default="ase,lj38,mmff")
    parser.add_argument("--quick", action="store_true", help="10 LJ38 starts, 8 molecules")
    parser.add_argument("--smoke", choices=["ase", "lj38", "mmff"],
                        help="one case of one suite; fails unless the geometry driver solves it")
    parser.add_argument("--command", default="make bench-molecular")
    args = parser.parse_args()

    lx = LxOpt(args.lib)
    start = time.perf_counter()
    suites = [args.smoke] if args.smoke else args.suites.split(",")
    starts = 1 if args.smoke else (10 if args.quick else LJ_STARTS)
    molecules = 1 if args.smoke else (8 if args.quick else len(MOLECULES))
    data = {}
    rdkit_rows = []
    units = None
    for suite in suites:
        if suite == "ase":
            cases = ase_cases(bool(args.smoke))
        elif suite == "lj38":
            cases = lj_cases(starts)
        else:
            cases = mmff_cases(molecules)
            rdkit_rows = rdkit_minimizer(molecules)
            units = unit_check(lx, cases)
        data[suite] = (cases, run_suite(lx, suite, cases))
    report(data, rdkit_rows, args.doc, time.perf_counter() - start, args.command, units)
    if args.smoke:
        return 0 if all(solved_all(res[n]) for _, res in data.values() for n in OURS) else 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
