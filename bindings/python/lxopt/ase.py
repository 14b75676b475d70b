"""LxOpt's optimizers as ASE optimizers.

    from lxopt.ase import Geometry
    opt = Geometry(atoms, logfile="-", trajectory="relax.traj", maxstep=0.2)
    opt.run(fmax=0.05, steps=200)

Geometry (the geometry BFGS driver), BFGS and LBFGS follow the conventions
of ase.optimize: run(fmax, steps), convergence when the largest atomic force
is below fmax (decided by ASE's own loop), logfile, trajectory, attach, and
constraints (FixAtoms) and cell filters (ExpCellFilter, UnitCellFilter)
through whatever object is passed as atoms.

Each ASE step is one force call: the optimizer runs through lxopt.AskTell,
so the points evaluated are exactly the ones the same optimizer evaluates
through its minimize(), line-search trials included (a step may therefore
raise the energy). Should the optimizer end on its own before ASE's test is
met (the driver stops after 16 cycles that barely lower the energy), a new
run starts from its final point; a run that finds no point lower than its
start ends ASE's loop unconverged (run() returns False).

When the optimized object is a plain ase.Atoms with no fixed atom,
Geometry and LBFGS start from a model Hessian built from the interatomic
distances (the optimizer's cartesian attribute, lxopt.Geometry.cartesian,
lxopt.LBFGS.cartesian), which saves force calls. With FixAtoms the
variables are the positions of the free atoms and the model is off by
default (built from the free atoms alone it cost force calls on clusters);
setting opt.cartesian = True after construction turns it on. Cell filters
(UnitCellFilter, ExpCellFilter) add cell degrees of freedom that are not
atoms: the model is off and every position the filter hands is a variable.

maxstep (Å): for Geometry a hard limit, as ASE defines it, on how far any
atom is placed from the optimizer's current point (the last accepted
geometry) in any step, line-search trials included (lxopt.Geometry's
max_atom_step); the default None sets no limit beyond the driver's own trust
radius, which starts at 1 Å and grows fourfold while steps reach it. For
LBFGS and BFGS maxstep is not a limit but the length unit of the variables:
it bounds the move of each atom in the first step only; later steps follow
the quasi-Newton model (default None: a unit of 1 Å). With the distance
model, LBFGS's first step is set by the interatomic distances instead (all
atoms together move one mean nearest-neighbour distance, whatever the
unit), so maxstep then changes nothing.
"""
import numpy as np
from ase import Atoms
from ase.constraints import FixAtoms
from ase.optimize.optimize import Optimizer

from . import _lxopt

__all__ = ["Geometry", "BFGS", "LBFGS"]

# The optimizer's own tests are switched off (ASE's fmax test decides); its
# iteration limit is the largest it takes.
_NO_TOLERANCE = 0.0
_NO_LIMIT = 2**32 - 1
# Positions within this (relative to the coordinates' size) of the point
# asked for count as that point; cell filters return their positions
# recomputed to rounding.
_SAME_POINT = 1e-10


def _same_point(a, b):
    return a.shape == b.shape and \
        np.allclose(a, b, rtol=0.0, atol=_SAME_POINT * (1.0 + np.abs(b).max(initial=0.0)))


class _AskTellOptimizer(Optimizer):
    """An ASE optimizer whose steps are an lxopt optimizer's evaluations;
    cartesian: the optimizer starts from the distance model (on by default
    for plain Atoms when the optimizer has the model)."""

    _has_model = True

    def __init__(self, atoms, restart=None, logfile="-", trajectory=None, maxstep=None,
                 master=None, append_trajectory=False, force_consistent=None):
        if restart is not None:
            raise ValueError(f"{type(self).__name__} keeps no restart file")
        if maxstep is not None and not maxstep > 0:
            raise ValueError("maxstep must be a positive length in Å")
        self.maxstep = maxstep
        Optimizer.__init__(self, atoms, restart, logfile, trajectory, master,
                           append_trajectory=append_trajectory,
                           force_consistent=force_consistent)

    def _optimizer(self):
        """A new lxopt optimizer object with its own tests switched off."""
        raise NotImplementedError

    def _length_unit(self):
        """Å per unit of the optimizer's variables."""
        return self.maxstep if self.maxstep is not None else 1.0

    def initialize(self):
        self._run = None
        self._asked = None  # the positions set for the point waiting for its value
        self._unit = self._length_unit()
        free = _free_atoms(self.atoms)
        every = free is not None and len(free) == len(self.atoms)
        self._free = None if free is None or every else free  # variable rows; None: all
        # Fixed atoms are left out of the model, which then lacks the springs
        # that hold the free atoms near them: on clusters with fixed atoms it
        # cost force calls, so it is on only when no atom is fixed.
        self.cartesian = self._has_model and every

    def _variables(self, rows):
        return (rows if self._free is None else rows[self._free]).ravel()

    def _positions(self, u, x):
        """The positions for the variables u, fixed atoms kept where x has them."""
        if self._free is None:
            return u.reshape(x.shape) * self._unit
        p = x.copy()
        p[self._free] = u.reshape(-1, 3) * self._unit
        return p

    def todict(self):
        return {**Optimizer.todict(self), "maxstep": self.maxstep}

    def _start(self, positions):
        opt = self._optimizer()
        opt.tolerance = _NO_TOLERANCE
        opt.iter_limit = _NO_LIMIT
        if self._has_model:
            opt.cartesian = self.cartesian
        self._run = _lxopt.AskTell(opt, self._variables(positions) / self._unit)
        self._asked = positions
        self._run_start = None  # energy at the run's start
        self._run_lowest = np.inf  # lowest energy the run has seen since

    def step(self, f=None):
        atoms = self.atoms
        if f is None:
            f = atoms.get_forces()
        x = atoms.get_positions()
        e = atoms.get_potential_energy(force_consistent=self.force_consistent)
        g = -self._variables(np.asarray(f, dtype=float)) * self._unit
        if self._run is None or not _same_point(x, self._asked):
            self._start(x)  # first step, or the positions were changed from outside
        while True:
            if _same_point(x, self._asked):
                self._run.ask()
                self._run.tell(e, g)
                if self._run_start is None:
                    self._run_start = e
                else:
                    self._run_lowest = min(self._run_lowest, e)
            u = self._run.ask()
            if u is None:
                if not self._run_lowest < self._run_start:
                    self._give_up()
                    return
                # Ended on its own with progress: go on from its final point.
                self._start(self._positions(self._run.x, x))
                continue
            p = self._positions(u, x)
            self._asked = p
            if not _same_point(x, p):
                atoms.set_positions(p)
                return

    def _give_up(self):
        """A whole run found no lower point: ends ASE's loop, unconverged."""
        self.max_steps = 0
        if self.logfile is not None:
            self.logfile.write(f"{type(self).__name__}: no lower point found, stopping\n")
            self.logfile.flush()


def _free_atoms(atoms):
    """For a plain Atoms object whose constraints are all FixAtoms: the
    indices of the free atoms. None for anything else (cell filters, other
    constraints)."""
    if not isinstance(atoms, Atoms):
        return None
    if not all(isinstance(c, FixAtoms) for c in atoms.constraints):
        return None
    fixed = np.zeros(len(atoms), dtype=bool)
    for c in atoms.constraints:
        fixed[c.get_indices()] = True
    return np.flatnonzero(~fixed)


class Geometry(_AskTellOptimizer):
    """The geometry BFGS driver (lxopt.Geometry) as an ASE optimizer;
    maxstep (Å) is a hard per-atom limit."""

    def _length_unit(self):
        return 1.0

    def _optimizer(self):
        opt = _lxopt.Geometry()
        if self.maxstep is not None:
            opt.max_atom_step = self.maxstep
        return opt


class BFGS(_AskTellOptimizer):
    """Dense BFGS (lxopt.BFGS) as an ASE optimizer (no distance model)."""

    _has_model = False

    def _optimizer(self):
        return _lxopt.BFGS()


class LBFGS(_AskTellOptimizer):
    """Limited-memory BFGS (lxopt.LBFGS) as an ASE optimizer; memory is the
    number of stored pairs."""

    def __init__(self, atoms, restart=None, logfile="-", trajectory=None, maxstep=None,
                 memory=8, master=None, append_trajectory=False, force_consistent=None):
        self.memory = memory
        super().__init__(atoms, restart, logfile, trajectory, maxstep, master,
                         append_trajectory, force_consistent)

    def _optimizer(self):
        opt = _lxopt.LBFGS()
        opt.memory = self.memory
        return opt
