"""RDKit force-field minimisation with LxOpt's geometry driver.

    from lxopt.rdkit import optimize_molecule, optimize_molecule_confs
    status = optimize_molecule(mol, forcefield="MMFF94")          # like MMFFOptimizeMolecule
    results = optimize_molecule_confs(mol, forcefield="UFF")      # [(not_converged, energy)]

A conformer is converged when the largest atomic force is below forceTol
(kcal/mol/Å) at a point no higher than any evaluated before. maxIters counts
the driver's cycles (one line search each), as RDKit counts its iterations.
The optimized positions are written back to the conformer. The driver
starts from a model Hessian built from the interatomic distances and the
elements (lxopt.Geometry.cartesian, lxopt.Geometry.atomic_numbers), which
saves force-field calls.
"""
import numpy as np
from rdkit.Chem import AllChem
from rdkit.Geometry import Point3D

from . import _lxopt

__all__ = ["optimize_molecule", "optimize_molecule_confs"]

FORCEFIELDS = ("MMFF94", "MMFF94s", "UFF")


def _force_field_factory(mol, forcefield, nonBondedThresh, ignoreInterfragInteractions):
    """A function confId -> force field for mol, or None when the force field
    cannot be set up for this molecule."""
    if forcefield not in FORCEFIELDS:
        raise ValueError(f"forcefield must be one of {FORCEFIELDS}, not {forcefield!r}")
    if forcefield == "UFF":
        if not AllChem.UFFHasAllMoleculeParams(mol):
            return None
        return lambda confId: AllChem.UFFGetMoleculeForceField(
            mol, vdwThresh=nonBondedThresh, confId=confId,
            ignoreInterfragInteractions=ignoreInterfragInteractions)
    props = AllChem.MMFFGetMoleculeProperties(mol, mmffVariant=forcefield)
    if props is None:
        return None
    return lambda confId: AllChem.MMFFGetMoleculeForceField(
        mol, props, nonBondedThresh=nonBondedThresh, confId=confId,
        ignoreInterfragInteractions=ignoreInterfragInteractions)


def _atomic_numbers(mol):
    return [a.GetAtomicNum() for a in mol.GetAtoms()]


def _largest_force(g):
    return float(np.sqrt((g.reshape(-1, 3) ** 2).sum(axis=1).max(initial=0.0)))


def _relax(ff, maxIters, forceTol, numbers):
    """Minimizes the force field from its positions: (not_converged, energy,
    positions). Runs that end on their own before convergence are started
    again from their final point while cycles remain and the energy falls."""
    ff.Initialize()
    x = np.array(ff.Positions(), dtype=float)
    best_e, best_x = float(ff.CalcEnergy(x.tolist())), x
    cycles = 0
    while cycles < maxIters:
        opt = _lxopt.Geometry()
        opt.tolerance = 0.0  # the force test below decides
        opt.cartesian = True  # x, y, z per atom: start from the distance model
        opt.atomic_numbers = numbers
        opt.iter_limit = maxIters - cycles
        run = _lxopt.AskTell(opt, best_x)
        start_e = best_e
        while (p := run.ask()) is not None:
            pos = p.tolist()
            e = float(ff.CalcEnergy(pos))
            if not run.gradient_wanted:
                run.tell(e)
                continue
            g = np.array(ff.CalcGrad(pos), dtype=float)
            run.tell(e, g)
            if e <= best_e:
                best_e, best_x = e, p
                if _largest_force(g) < forceTol:
                    run.reset()
                    return 0, best_e, best_x
        cycles += max(run.nit, 1)
        if not best_e < start_e:
            break
    return 1, best_e, best_x


def _write_positions(conf, x):
    xyz = x.reshape(-1, 3)
    if hasattr(conf, "SetPositions"):
        conf.SetPositions(xyz)
    else:  # older RDKit: atom by atom
        for i, (a, b, c) in enumerate(xyz):
            conf.SetAtomPosition(i, Point3D(float(a), float(b), float(c)))


def optimize_molecule(mol, forcefield="MMFF94", confId=-1, maxIters=200, forceTol=1e-3,
                      nonBondedThresh=100.0, ignoreInterfragInteractions=True):
    """Minimizes conformer confId of mol in the force field ("MMFF94",
    "MMFF94s" or "UFF") and writes the positions back. Returns what
    AllChem.MMFFOptimizeMolecule returns: 0 converged, 1 more iterations
    needed, -1 the force field could not be set up."""
    factory = _force_field_factory(mol, forcefield, nonBondedThresh,
                                   ignoreInterfragInteractions)
    ff = factory(confId) if factory is not None else None
    if ff is None:
        return -1
    status, _, x = _relax(ff, maxIters, forceTol, _atomic_numbers(mol))
    _write_positions(mol.GetConformer(confId), x)
    return status


def optimize_molecule_confs(mol, forcefield="MMFF94", maxIters=200, forceTol=1e-3,
                            nonBondedThresh=100.0, ignoreInterfragInteractions=True):
    """optimize_molecule for every conformer of mol; returns one
    (not_converged, energy) pair per conformer like
    AllChem.MMFFOptimizeMoleculeConfs ((-1, -1.0) each when the force field
    cannot be set up)."""
    factory = _force_field_factory(mol, forcefield, nonBondedThresh,
                                   ignoreInterfragInteractions)
    results = []
    for conf in mol.GetConformers():
        ff = factory(conf.GetId()) if factory is not None else None
        if ff is None:
            results.append((-1, -1.0))
            continue
        status, energy, x = _relax(ff, maxIters, forceTol, _atomic_numbers(mol))
        _write_positions(conf, x)
        results.append((status, energy))
    return results
