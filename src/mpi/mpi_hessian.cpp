// The numeric Hessian over MPI ranks: the displaced gradients of variable i
// are computed on rank i mod size (DifferentialGradients), gathered to rank 0
// and assembled there in index order by the record form of NumericHessian, so
// the values are those of the one-process record form; the packed result is
// then broadcast.
#include <vector>

#include "framework/packed.h"
#include "lxopt/host.h"
#include "lxopt/mpi.h"
#include "mpi/collectives.h"

namespace LxOpt {
namespace {

// A record travels as (complete flag, gplus, gminus): 1 + 2n doubles.
void PackRecord(const GradDiff& record, std::size_t n, std::vector<double>& out) {
  const bool complete = record.gplus.size() == n && record.gminus.size() == n;
  out.push_back(complete ? 1.0 : 0.0);
  for (std::size_t j = 0; j < n; ++j) out.push_back(complete ? record.gplus[j] : 0.0);
  for (std::size_t j = 0; j < n; ++j) out.push_back(complete ? record.gminus[j] : 0.0);
}

// Records 0 .. n-1 from the gathered items; an incomplete one gets empty
// arrays, as DifferentialGradients leaves a failed record.
std::vector<GradDiff> UnpackRecords(const std::vector<double>& items, std::size_t n, double h) {
  std::vector<GradDiff> records;
  records.reserve(n);
  for (std::size_t i = 0; i < n; ++i) {
    const double* p = items.data() + i * (1 + 2 * n);
    GradDiff record{static_cast<unsigned int>(i), 2.0 * h, {}, {}};
    if (p[0] != 0.0) {
      record.gplus.assign(p + 1, p + 1 + n);
      record.gminus.assign(p + 1 + n, p + 1 + 2 * n);
    }
    records.push_back(std::move(record));
  }
  return records;
}

}  // namespace

bool LxMpiNumericHessian(LxFunc1& func, const double* x, double* hessian, double h, MPI_Comm comm) {
  const unsigned int n = func.NumVar();
  // Non-short-circuit &: every rank must take part in both collectives.
  const bool sameN = mpi::SameEverywhere(n, comm);
  const bool allHessians = mpi::TrueEverywhere(hessian != nullptr, comm);
  if (!sameN) {
    LxThrow.Warning("LxMpiNumericHessian: the ranks disagree on the number of variables!");
    return false;
  }
  if (!allHessians) {
    LxThrow.Warning("Hessian array is not allocated");
    return false;
  }
  if (n == 0) return NumericHessian(std::vector<GradDiff>{}, hessian);  // its warning, false
  const int rank = mpi::Rank(comm), size = mpi::Size(comm);
  // Rank 0's x and h for everybody.
  std::vector<double> point(n + 1);
  if (rank == 0) {
    std::copy(x, x + n, point.begin());
    point[n] = h;
  }
  mpi::Broadcast(point.data(), point.size(), comm);
  const double step = point[n];

  std::vector<double> mine;
  for (unsigned int i = static_cast<unsigned int>(rank); i < n;
       i += static_cast<unsigned int>(size))
    PackRecord(DifferentialGradients(func, point.data(), i, step), n, mine);
  std::vector<double> items;
  mpi::GatherItems(mine, n, 1 + 2 * static_cast<std::size_t>(n), items, comm);

  double ok = 0.0;
  if (rank == 0) ok = NumericHessian(UnpackRecords(items, n, step), hessian) ? 1.0 : 0.0;
  mpi::Broadcast(&ok, 1, comm);
  if (ok != 0.0) mpi::Broadcast(hessian, packed::Size(n), comm);
  return ok != 0.0;
}

}  // namespace LxOpt
