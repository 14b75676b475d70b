"""The inverse-Hessian approximations minimize returns as hess_inv, and the
quasi-Newton updates its final steps apply to them."""
import numpy as np

try:
    from scipy.optimize import LbfgsInvHessProduct as _Base
except ImportError:  # scipy is optional
    _Base = object


class LbfgsInverse(_Base):
    """H of L-BFGS pairs (rows of s and y, oldest first), as the library's
    two-loop recursion applies it: H0 = gamma I with gamma = s.y / y.y of the
    newest pair (the identity without pairs), then the BFGS update for each
    pair. With scipy this is a scipy.optimize.LbfgsInvHessProduct (scipy's
    own takes H0 = I); either way it has matvec, dot, @ and todense()."""

    def __init__(self, sk, yk, memory=None):
        sk = np.array(sk, dtype=float, ndmin=2)
        yk = np.array(yk, dtype=float, ndmin=2)
        if sk.shape != yk.shape:
            raise ValueError("s and y must have the same shape")
        self.memory = memory
        if _Base is object:
            self.sk, self.yk = sk, yk
            self.n_corrs, n = sk.shape
            self.shape, self.dtype = (n, n), np.dtype(float)
            self.rho = 1.0 / np.einsum("ij,ij->i", sk, yk)
        else:
            super().__init__(sk, yk)
        self.gamma = (float(sk[-1] @ yk[-1]) / float(yk[-1] @ yk[-1])) if len(sk) else 1.0

    def _matvec(self, x):
        q = np.array(x, dtype=float).reshape(-1)
        alpha = np.empty(self.n_corrs)
        for i in range(self.n_corrs - 1, -1, -1):
            alpha[i] = self.rho[i] * (self.sk[i] @ q)
            q -= alpha[i] * self.yk[i]
        r = self.gamma * q
        for i in range(self.n_corrs):
            beta = self.rho[i] * (self.yk[i] @ r)
            r += (alpha[i] - beta) * self.sk[i]
        return r

    def todense(self):
        """H as a dense n x n array."""
        return np.column_stack([self._matvec(e) for e in np.eye(self.shape[0])])

    if _Base is object:
        def matvec(self, x):
            return self._matvec(x)

        dot = matvec
        __matmul__ = matvec

    def with_pair(self, s, y):
        """The operator after one more pair (the oldest dropped beyond the
        memory); itself when s.y <= 0, which the library skips too."""
        if not float(s @ y) > 0:
            return self
        sk, yk = np.vstack([self.sk, s]), np.vstack([self.yk, y])
        if self.memory is not None and len(sk) > self.memory:
            sk, yk = sk[-self.memory:], yk[-self.memory:]
        return LbfgsInverse(sk, yk, self.memory)


def apply(h, g):
    """H g for a dense H or an LbfgsInverse."""
    return h.matvec(g) if isinstance(h, LbfgsInverse) else h @ g


def updated(h, s, y, dfp=False):
    """H after the step s with gradient change y: the BFGS (or DFP) inverse
    update, skipped when s.y <= 0 so that H stays positive definite."""
    if isinstance(h, LbfgsInverse):
        return h.with_pair(s, y)
    sy = float(s @ y)
    hy = h @ y
    yhy = float(y @ hy)
    if not (sy > 0 and yhy > 0):
        return h
    if dfp:
        return h + np.outer(s, s) / sy - np.outer(hy, hy) / yhy
    u = s / sy - hy / yhy
    return h + np.outer(s, s) / sy - np.outer(hy, hy) / yhy + yhy * np.outer(u, u)
