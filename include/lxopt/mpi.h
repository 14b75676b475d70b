// The numeric Hessian and the minimum finder spread over the ranks of an MPI
// communicator (library lxopt_mpi, CMake target LxOpt::lxopt_mpi). For
// objectives whose every evaluation is expensive: the work is shared out,
// the results are those of the one-process functions bit for bit.
//
// Every call here is collective: each rank of the communicator makes it, in
// the same order. Every rank must be given the same objective: the same
// variables, and the same value and gradient at the same point, to the last
// bit (the same program and input files on every rank). The ranks first agree
// on the shape of the call (number of variables, bounds); a call whose shape
// differs between ranks is reported through LxThrow on every rank and returns
// the neutral result on every rank, without any work and without hanging.
// MPI must be initialised by the caller (MPI_Init) and the communicator valid.
#ifndef LXOPT_MPI_H
#define LXOPT_MPI_H

#include <mpi.h>

#include <memory>
#include <vector>

#include "lxopt/function.h"
#include "lxopt/lxopt_mpi_export.h"
#include "lxopt/minfinder.h"
#include "lxopt/numeric.h"

namespace LxOpt {

// The packed Hessian from central differences of gradients, as the record
// form of NumericHessian: rank r computes DifferentialGradients for the
// variables i with i mod size = r, the records are gathered to rank 0 in index
// order and added to rank 0's hessian by NumericHessian(records, hessian);
// rank 0's hessian is then copied to every rank. x and h are taken from rank 0.
// In: func, x (n values on rank 0), h. In/Out: hessian, n (n + 1) / 2 doubles
// on every rank (zero rank 0's first for a plain Hessian). Returns the record
// form's result on every rank. Errors (warnings on every rank, false, nothing
// evaluated): NumVar differs between ranks ("LxMpiNumericHessian: the ranks
// disagree on the number of variables!"), a null hessian on some rank
// ("Hessian array is not allocated"); n = 0 gives the record form's empty-list
// warning and false.
LXOPT_MPI_API bool LxMpiNumericHessian(LxFunc1& func, const double* x, double* hessian,
                                       double h = kLxHessianStep, MPI_Comm comm = MPI_COMM_WORLD);

namespace LxMinfinder {

// The minimum finder of LxMinfinder with each cycle's work on all ranks.
// Rank 0 runs the search exactly as LxMinfinder does (the first minimum, the
// draws, the skip tests, the validation and the minima store, in sample
// order); the evaluations of drawn start points, the local optimizations
// (steepest descent then BFGS) of a cycle's samples and the neighbour values
// of the validation are spread over the ranks. So the minima equal those of
// LxMinfinder with the same settings, seed and generator, for every number of
// ranks. A sample the one-process search skips (it fell into an ellipsoid
// while its cycle ran) is optimized all the same and its result dropped.
//
// The settings are LxMinfinder's; those of rank 0 count (at each Optimize
// the other ranks take rank 0's local-optimization settings and window). The generator and the
// bounds' values are used on rank 0 only; other ranks may pass a null generator, but their bounds
// must have the same length. After Optimize every rank holds the minima (GetMinimums, PrintMinimums
// give the same everywhere); rank 0 alone keeps the ellipsoids and the sample store (GetImpl).
class LXOPT_MPI_API LxMpiMinfinder : private LxMinfinder {
 public:
  // The ranks of comm share the work; comm is borrowed.
  explicit LxMpiMinfinder(MPI_Comm comm = MPI_COMM_WORLD);

  using LxMinfinder::GetCheckMinimumInRange;
  using LxMinfinder::GetFvalMinimaMax;
  using LxMinfinder::GetFvalMinimaMin;
  using LxMinfinder::GetFvalMinimaWindow;
  using LxMinfinder::GetFvalSampleMax;
  using LxMinfinder::GetFvalSampleMin;
  using LxMinfinder::GetImpl;
  using LxMinfinder::GetKeepDegenerateStates;
  using LxMinfinder::GetLocalOptMaxIter;
  using LxMinfinder::GetLocalOptTolerance;
  using LxMinfinder::GetMaxNumOptPoints;
  using LxMinfinder::GetMaxSample;
  using LxMinfinder::GetMinimums;
  using LxMinfinder::GetSamePointTolerance;
  using LxMinfinder::GetThresholdNumberOfNoChange;
  using LxMinfinder::GetTimeLimit;
  using LxMinfinder::PrintMinimums;
  using LxMinfinder::SetCheckMinimumInRange;
  using LxMinfinder::SetFvalMinimaMax;
  using LxMinfinder::SetFvalMinimaMin;
  using LxMinfinder::SetFvalMinimaWindow;
  using LxMinfinder::SetFvalSampleMax;
  using LxMinfinder::SetFvalSampleMin;
  using LxMinfinder::SetKeepDegenerateStates;
  using LxMinfinder::SetLocalOptMaxIter;
  using LxMinfinder::SetLocalOptTolerance;
  using LxMinfinder::SetMaxNumOptPoints;
  using LxMinfinder::SetMaxSample;
  using LxMinfinder::SetSamePointTolerance;
  using LxMinfinder::SetSeed;
  using LxMinfinder::SetThresholdNumberOfNoChange;
  using LxMinfinder::SetTimeLimit;

  // Collective. LxMinfinder's Setup on every rank, after the ranks agree on
  // NumVar and the bounds' lengths. A disagreement reports "LxMpiMinfinder:
  // the ranks disagree on the number of variables or the length of the
  // bounds!" on every rank; a Setup error on some rank reports that error
  // there and "LxMpiMinfinder: Setup failed on another rank!" on the others.
  // Either way every rank returns false and Optimize is refused until a
  // Setup succeeds on all ranks.
  bool Setup(LxFunc1& func, GetRandomVariables* generator, const std::vector<double>& lower,
             const std::vector<double>& upper);
  // Collective. The search; rank 0's result on every rank. Without a Setup
  // that succeeded on all ranks: "You have to setup the minfinder object
  // first!" on every rank and false.
  bool Optimize();

 private:
  MPI_Comm comm_;
  LxFunc1* func_ = nullptr;
  bool setUpEverywhere_ = false;
};

}  // namespace LxMinfinder
}  // namespace LxOpt

#endif  // LXOPT_MPI_H
