// Polling waits: MPI_Test, then a sleep of kPollInterval, until done. The
// interval is small against an objective worth distributing.
#include "mpi/collectives.h"

#include <algorithm>
#include <chrono>
#include <climits>
#include <thread>

namespace LxOpt {
namespace mpi {
namespace {

constexpr std::chrono::microseconds kPollInterval{100};

}  // namespace

void Pause() {
  std::this_thread::sleep_for(kPollInterval);
}

namespace {

void Await(MPI_Request& request) {
  int done = 0;
  MPI_Test(&request, &done, MPI_STATUS_IGNORE);
  while (!done) {
    Pause();
    MPI_Test(&request, &done, MPI_STATUS_IGNORE);
  }
}

// Broadcasts count elements in pieces an int can count.
void BroadcastPieces(void* data, std::size_t count, std::size_t size, MPI_Datatype type,
                     MPI_Comm comm) {
  char* bytes = static_cast<char*>(data);
  while (count > 0) {
    const int piece = static_cast<int>(count < INT_MAX ? count : INT_MAX);
    MPI_Request request;
    MPI_Ibcast(bytes, piece, type, 0, comm, &request);
    Await(request);
    bytes += static_cast<std::size_t>(piece) * size;
    count -= static_cast<std::size_t>(piece);
  }
}

}  // namespace

void Send(const double* data, std::size_t count, int tag, MPI_Comm comm) {
  MPI_Request request;
  MPI_Isend(data, static_cast<int>(count), MPI_DOUBLE, 0, tag, comm, &request);
  Await(request);
}

void Receive(double* data, std::size_t count, int tag, MPI_Comm comm) {
  MPI_Request request;
  MPI_Irecv(data, static_cast<int>(count), MPI_DOUBLE, 0, tag, comm, &request);
  Await(request);
}

int Rank(MPI_Comm comm) {
  int rank = 0;
  MPI_Comm_rank(comm, &rank);
  return rank;
}

int Size(MPI_Comm comm) {
  int size = 1;
  MPI_Comm_size(comm, &size);
  return size;
}

bool SameEverywhere(long long value, MPI_Comm comm) {
  long long local[2] = {value, -value};
  long long least[2];
  MPI_Allreduce(local, least, 2, MPI_LONG_LONG, MPI_MIN, comm);
  return least[0] == -least[1];  // smallest == largest
}

bool TrueEverywhere(bool flag, MPI_Comm comm) {
  int local = flag ? 1 : 0, all = 0;
  MPI_Allreduce(&local, &all, 1, MPI_INT, MPI_MIN, comm);
  return all == 1;
}

void Broadcast(double* data, std::size_t count, MPI_Comm comm) {
  BroadcastPieces(data, count, sizeof(double), MPI_DOUBLE, comm);
}

void Broadcast(long long* data, std::size_t count, MPI_Comm comm) {
  BroadcastPieces(data, count, sizeof(long long), MPI_LONG_LONG, comm);
}

std::size_t OwnedCount(std::size_t count, int rank, int size) {
  const std::size_t r = static_cast<std::size_t>(rank), s = static_cast<std::size_t>(size);
  return r < count ? (count - r + s - 1) / s : 0;
}

void GatherItems(const std::vector<double>& mine, std::size_t count, std::size_t width,
                 std::vector<double>& all, MPI_Comm comm) {
  const int rank = Rank(comm), size = Size(comm);
  std::vector<int> counts, offsets;
  std::vector<double> received;
  if (rank == 0) {
    counts.resize(size);
    offsets.resize(size);
    int offset = 0;
    for (int r = 0; r < size; ++r) {
      counts[r] = static_cast<int>(OwnedCount(count, r, size) * width);
      offsets[r] = offset;
      offset += counts[r];
    }
    received.resize(static_cast<std::size_t>(offset));
  }
  MPI_Request request;
  MPI_Igatherv(mine.data(), static_cast<int>(mine.size()), MPI_DOUBLE, received.data(),
               counts.data(), offsets.data(), MPI_DOUBLE, 0, comm, &request);
  Await(request);
  if (rank != 0) return;
  // Rank r's k-th item is item r + k size.
  all.resize(count * width);
  for (int r = 0; r < size; ++r) {
    const double* from = received.data() + offsets[r];
    for (std::size_t i = static_cast<std::size_t>(r); i < count;
         i += static_cast<std::size_t>(size)) {
      std::copy(from, from + width, all.begin() + static_cast<std::ptrdiff_t>(i * width));
      from += width;
    }
  }
}

}  // namespace mpi
}  // namespace LxOpt
