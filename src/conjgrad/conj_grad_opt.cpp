// Conjugate gradients with memoryless quasi-Newton directions and Beale
// restarts. D. F. Shanno, "Conjugate gradient methods with inexact searches",
// Math. Oper. Res. 3 (1978) 244-256; D. F. Shanno and K. H. Phua, "Remark on
// algorithm 500", ACM TOMS 6 (1980) 618-622.
//
// Names: s = step d is the step just taken, y = gNew - g the change of the
// gradient; (sT, yT) is the restart pair with A = yT.yT and B = sT.yT. The
// restart pair defines the scaled one-pair inverse BFGS matrix (gamma = B/A)
//   Ht v = (B/A) v - ((yT.v)/A) sT - ((sT.v)/A) yT + 2 ((sT.v)/B) sT,
// and between restarts H is Ht updated by the inverse BFGS formula with (s, y):
//   H v = Ht v - (s (Ht y).v + (Ht y) (s.v)) / (s.y)
//              + (1 + (y.Ht y)/(s.y)) (s.v)/(s.y) s.
#include <cmath>
#include <utility>

#include "conjgrad/run_start.h"
#include "framework/internal.h"
#include "framework/run_record.h"
#include "lxopt/conjgrad.h"
#include "lxopt/host.h"

namespace LxOpt {
namespace {

constexpr double kPowellRatio = 0.2;  // restart when |gNew.g| / gNew.gNew > 0.2

struct RestartPair {
  double A;  // yT . yT
  double B;  // sT . yT
};

// Stores the step just taken as the restart pair and sets d = -Ht gNew.
void RestartDirection(std::size_t n, double step, const double* g, const double* gNew, double* d,
                      double* sT, double* yT, RestartPair& pair) {
  double A = 0.0, B = 0.0, sTg = 0.0, yTg = 0.0;
  for (std::size_t i = 0; i < n; ++i) {
    sT[i] = step * d[i];
    yT[i] = gNew[i] - g[i];
    A += yT[i] * yT[i];
    B += sT[i] * yT[i];
    sTg += sT[i] * gNew[i];
    yTg += yT[i] * gNew[i];
  }
  // d = -(B/A) gNew + ((sT.gNew)/A) yT - (2 (sT.gNew)/B - (yT.gNew)/A) sT
  const double cg = B / A, cy = sTg / A, cs = 2.0 * sTg / B - yTg / A;
  for (std::size_t i = 0; i < n; ++i) d[i] = -cg * gNew[i] + cy * yT[i] - cs * sT[i];
  pair = {A, B};
}

// Sets d = -H gNew with the two-pair matrix above. Uses g as room for y and w
// for Ht y; both are scratch afterwards. Returns the new slope gNew . d.
double TwoPairDirection(std::size_t n, double step, double* g, const double* gNew, double* d,
                        const double* sT, const double* yT, double* w, const RestartPair& pair) {
  double* const s = d;
  double* const y = g;
  double yTy = 0.0, sTy = 0.0, sy = 0.0, sTg = 0.0, yTg = 0.0, sg = 0.0;
  for (std::size_t i = 0; i < n; ++i) {
    s[i] = step * d[i];
    y[i] = gNew[i] - g[i];
    yTy += yT[i] * y[i];
    sTy += sT[i] * y[i];
    sy += s[i] * y[i];
    sTg += sT[i] * gNew[i];
    yTg += yT[i] * gNew[i];
    sg += s[i] * gNew[i];
  }
  const double gamma = pair.B / pair.A;
  // w = Ht y
  const double wyS = 2.0 * sTy / pair.B - yTy / pair.A, wyY = sTy / pair.A;
  double yw = 0.0, wg = 0.0;
  for (std::size_t i = 0; i < n; ++i) {
    w[i] = gamma * y[i] + wyS * sT[i] - wyY * yT[i];
    yw += y[i] * w[i];
    wg += w[i] * gNew[i];
  }
  // d = -(Ht gNew + cS s + cW w), Ht gNew formed on the fly
  const double hgS = 2.0 * sTg / pair.B - yTg / pair.A, hgY = sTg / pair.A;
  const double cS = -wg / sy + (1.0 + yw / sy) * sg / sy, cW = -sg / sy;
  double slope = 0.0;
  for (std::size_t i = 0; i < n; ++i) {
    const double htg = gamma * gNew[i] + hgS * sT[i] - hgY * yT[i];
    d[i] = -(htg + cS * s[i] + cW * w[i]);
    slope += gNew[i] * d[i];
  }
  return slope;
}

}  // namespace

double LxConjGradOpt::operator()(LxFunc1& func, LxCheckpoint1* checkpoint, const double* x0,
                                 double* x) {
  return detail::RecordRun(
      lastRun_, func, checkpoint, true,
      [&](LxFunc1& counted, LxCheckpoint1* recorder) { return Run(counted, recorder, x0, x); });
}

double LxConjGradOpt::Run(LxFunc1& func, LxCheckpoint1* checkpoint, const double* x0, double* x) {
  LxMallocaPtr block;
  unsigned int n = 0;
  double* const work = detail::BeginConjGradRun(func, x0, x, block,
                                                "out of memory allocating %d in LxConjGradOpt", &n);
  if (work == nullptr) return 0.0;
  double* g = work;
  double* gNew = work + n;
  double* const d = work + 2 * static_cast<std::size_t>(n);
  double* const sT = d + n;
  double* const yT = sT + n;
  double* const w = yT + n;

  double f = 0.0;
  const auto finish = [&](unsigned int iter, double gnorm, const double* grad, unsigned int state) {
    return detail::Finish(checkpoint, iter, n, f, gnorm, x, grad, state);
  };
  // f, g, gg and d = -g at the current point.
  double gg = 0.0;
  const auto steepestDescentAtX = [&] { f = detail::SteepestDescentAt(func, n, x, g, d, &gg); };

  steepestDescentAtX();
  if (gg < GetTolerance()) return finish(0, std::sqrt(gg), g, kLxNoOpt);
  // A unit first step in x. Deliberate: the recovery below forms it as
  // sqrt(1 / gg), which may differ in the last bit.
  double step = 1.0 / std::sqrt(gg);
  // Reference slope of the trial-step ratio: -gg of the start, then the
  // slope of each direction formed between restarts; a restart and a
  // recovery leave it as it stands.
  double slopePrev = -gg;
  unsigned int sinceRestart = 0;  // 0: no restart pair yet
  RestartPair pair{0.0, 0.0};
  bool recovering = false;
  if (GetIterLimit() <= 1) return finish(1, std::sqrt(gg), g, kLxExhaust);

  for (unsigned int k = 1;;) {
    if (!LineMinimizer()(n, x, d, g, gNew, &f, &step, func)) {
      if (recovering) return finish(k, std::sqrt(gg), g, kLxNotFound);
      steepestDescentAtX();
      step = std::sqrt(1.0 / gg);
      recovering = true;
    } else {
      double ggNew = 0.0, gNewG = 0.0;
      for (unsigned int i = 0; i < n; ++i) {
        x[i] += step * d[i];
        ggNew += gNew[i] * gNew[i];
        gNewG += gNew[i] * g[i];
      }
      const double gnorm = std::sqrt(ggNew);
      if (!detail::Report(checkpoint, k, n, f, gnorm, x, gNew, kLxCont))
        return finish(k, gnorm, gNew, kLxDone);
      if (ggNew < GetTolerance()) return finish(k, gnorm, gNew, kLxGrad);

      const bool restart =
          sinceRestart == 0 || sinceRestart >= n || std::fabs(gNewG) / ggNew > kPowellRatio;
      if (restart) {
        RestartDirection(n, step, g, gNew, d, sT, yT, pair);
        step = 1.0;
        sinceRestart = 1;
      } else {
        const double slopeNew = TwoPairDirection(n, step, g, gNew, d, sT, yT, w, pair);
        step *= slopePrev / slopeNew;
        slopePrev = slopeNew;
        ++sinceRestart;
      }
      std::swap(g, gNew);
      gg = ggNew;
      recovering = false;
    }
    if (++k == GetIterLimit()) return finish(k, std::sqrt(gg), g, kLxExhaust);
  }
}

}  // namespace LxOpt
