# Type stubs of the compiled module lxopt._lxopt.
from typing import Any, Callable, Dict, List, Optional, Sequence, Tuple, Union

import numpy as np
import numpy.typing as npt

ArrayLike = npt.ArrayLike
Vector = npt.NDArray[np.float64]
# jac: a callable, True (fun returns (value, gradient)) or None / "2-point" /
# "3-point" (central differences).
Jac = Union[Callable[[Vector], ArrayLike], bool, str, None]
# callback(x, fun, gnorm, nit) -> False stops the run.
RawCallback = Optional[Callable[[Vector, float, float, int], Optional[bool]]]
RawResult = Dict[str, Any]

release: str

def state_name(state: int) -> str: ...
def optimizer_names() -> List[str]: ...

class _Optimizer:
    registry_name: str
    iter_limit: int
    tolerance: float
    def __init__(self) -> None: ...
    def minimize(self, fun: Callable[..., Any], x0: ArrayLike, jac: Jac = None,
                 hess: Optional[Callable[[Vector], ArrayLike]] = None,
                 callback: RawCallback = None, guard: bool = True,
                 eps: float = 1e-5, dfp_inverse: bool = False) -> RawResult: ...

class _LineSearching(_Optimizer):
    def set_line_minimizer(self, name: str) -> None: ...

class BFGS(_LineSearching):
    keep_hessian: bool
    def inverse_hessian(self, n: int) -> Optional[Vector]: ...

class BFGSCarry(BFGS): ...

class LBFGS(_LineSearching):
    memory: int
    keep_pairs: bool
    def final_pairs(self, n: int) -> Optional[Tuple[Vector, Vector]]: ...
    cartesian: bool
    atomic_numbers: List[int]

class DFP(_LineSearching): ...
class ConjGrad(_LineSearching): ...
class FletcherReeves(_LineSearching): ...
class PolakRibiere(_LineSearching): ...
class HestenesStiefel(_LineSearching): ...
class SteepestDescent(_Optimizer): ...
class Newton(_Optimizer): ...

class Geometry(_Optimizer):
    keep_hessian: bool
    history: bool
    cartesian: bool
    atomic_numbers: List[int]
    max_atom_step: float
    surrogate: bool
    def inverse_hessian(self, n: int) -> Optional[Vector]: ...

class Anneal(_Optimizer):
    def __init__(self, temperature: float = 300.0) -> None: ...  # type: ignore[override]

Constraint = Union[Callable[[Vector], Tuple[float, ArrayLike]],
                   Tuple[Callable[[Vector], float], Callable[[Vector], ArrayLike]]]

class NewtonConstrained(_Optimizer):
    @property
    def constraints(self) -> List[Constraint]: ...
    def add(self, constraint: Constraint) -> bool: ...
    def remove(self, constraint: Constraint) -> bool: ...

class MinFinder:
    max_sample: int
    threshold_no_change: int
    max_opt_points: int
    same_point_tolerance: float
    fval_sample_max: float
    fval_sample_min: float
    fval_minima_max: float
    fval_minima_min: float
    fval_minima_window: float
    time_limit_hours: float
    local_tolerance: float
    local_iter_limit: int
    check_minimum_in_range: bool
    keep_degenerate_states: bool
    def __init__(self) -> None: ...
    def run(self, fun: Callable[..., Any], lower: Sequence[float], upper: Sequence[float],
            jac: Jac = None, seed: int = 5489) -> bool: ...
    def minima(self) -> Tuple[Vector, Vector]: ...
    @property
    def nfev(self) -> int: ...

class AskTell:
    def __init__(self, optimizer: _Optimizer, x0: ArrayLike) -> None: ...
    def ask(self) -> Optional[Vector]: ...
    def tell(self, f: float, grad: Optional[ArrayLike] = None) -> bool: ...
    def reset(self) -> None: ...
    @property
    def gradient_wanted(self) -> bool: ...
    @property
    def finished(self) -> bool: ...
    @property
    def x(self) -> Optional[Vector]: ...
    @property
    def fun(self) -> float: ...
    @property
    def status(self) -> int: ...
    @property
    def nit(self) -> int: ...
    @property
    def converged(self) -> bool: ...
    @property
    def nfev(self) -> int: ...
