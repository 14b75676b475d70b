// The collectives of lxopt_mpi: agreement on the shape of a call, and
// broadcasts and gathers that wait by polling with short sleeps, so that a
// rank waiting for work leaves its core to the others (ranks may outnumber
// cores when the objective's cost is time spent elsewhere).
#ifndef LXOPT_MPI_COLLECTIVES_H
#define LXOPT_MPI_COLLECTIVES_H

#include <mpi.h>

#include <cstddef>
#include <vector>

namespace LxOpt {
namespace mpi {

int Rank(MPI_Comm comm);
int Size(MPI_Comm comm);

// Collective: whether value is the same on every rank.
bool SameEverywhere(long long value, MPI_Comm comm);
// Collective: whether flag is true on every rank.
bool TrueEverywhere(bool flag, MPI_Comm comm);

// Collective: count doubles (or 64-bit integers) from rank 0 to every rank.
void Broadcast(double* data, std::size_t count, MPI_Comm comm);
void Broadcast(long long* data, std::size_t count, MPI_Comm comm);

// Point to point with rank 0, waiting by polling: count doubles to it, or
// up to count doubles from it, with tag.
void Send(const double* data, std::size_t count, int tag, MPI_Comm comm);
void Receive(double* data, std::size_t count, int tag, MPI_Comm comm);
// One polling interval's sleep.
void Pause();

// Items 0 .. count - 1 are dealt round robin: rank r owns r, r + size, ...
std::size_t OwnedCount(std::size_t count, int rank, int size);

// Collective: each rank's `mine` (its owned items, `width` doubles each, in
// item order) to rank 0, which receives all items in item order in `all`
// (count * width doubles; untouched elsewhere).
void GatherItems(const std::vector<double>& mine, std::size_t count, std::size_t width,
                 std::vector<double>& all, MPI_Comm comm);

}  // namespace mpi
}  // namespace LxOpt

#endif  // LXOPT_MPI_COLLECTIVES_H
