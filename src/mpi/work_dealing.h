// How rank 0 shares a batch of the minimum finder's work with the other
// ranks: the orders, the answer layout, the round-robin share of equal-cost
// items and the one-at-a-time dealing of local optimizations (Dealer on rank
// 0, TakeItems on the serving ranks).
#ifndef LXOPT_MPI_WORK_DEALING_H
#define LXOPT_MPI_WORK_DEALING_H

#include <mpi.h>

#include <algorithm>
#include <cstddef>
#include <deque>
#include <vector>

#include "lxopt/mpi.h"
#include "mpi/collectives.h"

namespace LxOpt {
namespace LxMinfinder {
namespace dealing {

// The order heading a batch: what to do and with how many points.
enum Order : long long { kStop = 0, kEvaluate = 1, kOptimize = 2, kValues = 3 };

// Doubles per answer: Evaluate f, g; Optimize f, fz, z, gz; Values f.
std::size_t AnswerWidth(long long order, std::size_t n);

// The answer for one point x into answer (AnswerWidth doubles): f, then for
// Optimize fz and z, then (not for Values) the gradient.
void AnswerOne(LxMinfinderLocalBatch& local, long long order, const double* x, std::size_t n,
               double* answer);

// This rank's share of a batch of count points x dealt round robin: its
// items' answers one after another in item order.
std::vector<double> AnswerShare(LxMinfinderLocalBatch& local, long long order, const double* x,
                                std::size_t count, std::size_t n, MPI_Comm comm);

// A serving rank's side of Dealer.
void TakeItems(LxMinfinderLocalBatch& local, const double* x, std::size_t n, MPI_Comm comm);

// Local optimizations differ in cost, so they are handed out one at a time,
// and once none is left to hand out, the free ranks evaluate the neighbours
// that the planner draws for the optimizations already complete, a few at a
// time. A serving rank sends its last answer led by a code (-1 none yet, i
// for local optimization i, -2 - v for the neighbours from v on) and gets the
// next code, followed for neighbours by their number and points; -1 means
// nothing is left. Rank 0 answers before each of its own evaluations
// (ServingFunc) while it works on items too, and a request it cannot answer
// yet waits until items appear. The neighbours not handed out when the last
// optimization is in are left to the caller (see MpiBatch).
constexpr int kTagAnswer = 1;
constexpr int kTagItem = 2;
constexpr double kNone = -1.0;
constexpr std::size_t kNeighboursPerItem = 4;

// Doubles in a serving rank's message (the code, then a local optimization's
// answer or up to kNeighboursPerItem values) and in rank 0's reply (the code,
// the number of neighbours and their points).
inline std::size_t MessageSize(std::size_t n) {
  return 1 + std::max(AnswerWidth(kOptimize, n), kNeighboursPerItem);
}
inline std::size_t ReplySize(std::size_t n) {
  return 2 + kNeighboursPerItem * n;
}

inline double NeighbourCode(std::size_t v) {
  return -2.0 - static_cast<double>(v);
}
inline std::size_t NeighbourOf(double code) {
  return static_cast<std::size_t>(-2.0 - code);
}

class Dealer {
 public:
  enum Kind { kFinished, kNothingYet, kLocal, kNeighbour };

  Dealer(std::size_t count, std::size_t n, double* z, double* f, double* fz, double* gz,
         LxMinfinderPlanner& planner, MPI_Comm comm)
      : count_(count),
        n_(n),
        z_(z),
        f_(f),
        fz_(fz),
        gz_(gz),
        planner_(planner),
        comm_(comm),
        open_(mpi::Size(comm) - 1),
        complete_(count, 0),
        message_(MessageSize(n)),
        reply_(ReplySize(n)) {}

  // The next item for rank 0 itself: its code in `code`, for neighbours
  // their number in `count`.
  Kind Next(double& code, std::size_t& count) {
    Serve();
    return Take(code, count);
  }
  // The first neighbour not handed out.
  std::size_t FirstLeft() const { return nextValue_; }
  // Files the answer to code (a local optimization's answer or the values of
  // count neighbours).
  void Record(double code, std::size_t count, const double* answer) {
    if (code >= 0.0) {
      const std::size_t i = static_cast<std::size_t>(code);
      f_[i] = answer[0];
      fz_[i] = answer[1];
      std::copy(answer + 2, answer + 2 + n_, z_ + i * n_);
      std::copy(answer + 2 + n_, answer + 2 + 2 * n_, gz_ + i * n_);
      complete_[i] = 1;
      while (prefix_ < count_ && complete_[prefix_]) ++prefix_;
    } else {
      for (std::size_t k = 0; k < count; ++k) planner_.SetValue(NeighbourOf(code) + k, answer[k]);
      valuesDone_ += count;
    }
  }
  // Receives every answer waiting now and hands out what there is.
  void Serve() {
    int arrived = 0;
    MPI_Status status;
    MPI_Iprobe(MPI_ANY_SOURCE, kTagAnswer, comm_, &arrived, &status);
    while (arrived) {
      MPI_Status received;
      MPI_Recv(message_.data(), static_cast<int>(message_.size()), MPI_DOUBLE, status.MPI_SOURCE,
               kTagAnswer, comm_, &received);
      int length = 0;
      MPI_Get_count(&received, MPI_DOUBLE, &length);
      if (message_[0] != kNone)
        Record(message_[0], static_cast<std::size_t>(length - 1), message_.data() + 1);
      waiting_.push_back(status.MPI_SOURCE);
      MPI_Iprobe(MPI_ANY_SOURCE, kTagAnswer, comm_, &arrived, &status);
    }
    while (!waiting_.empty()) {
      double code = kNone;
      std::size_t count = 0;
      const Kind kind = Take(code, count);
      if (kind == kNothingYet) break;
      if (kind == kFinished) --open_;
      reply_[0] = code;
      reply_[1] = static_cast<double>(count);
      for (std::size_t k = 0; k < count; ++k) {
        const double* p = planner_.Point(NeighbourOf(code) + k);
        std::copy(p, p + n_, reply_.begin() + static_cast<std::ptrdiff_t>(2 + k * n_));
      }
      MPI_Send(reply_.data(), static_cast<int>(2 + count * n_), MPI_DOUBLE, waiting_.front(),
               kTagItem, comm_);
      waiting_.pop_front();
    }
  }
  // Serves until every serving rank is released and every value handed out
  // is in.
  void Finish() {
    for (Serve(); open_ > 0 || valuesDone_ < nextValue_; Serve()) mpi::Pause();
  }

 private:
  // Neighbours go out only while local optimizations still run.
  Kind Take(double& code, std::size_t& count) {
    count = 0;
    if (next_ < count_) {
      code = static_cast<double>(next_++);
      return kLocal;
    }
    if (prefix_ < count_ && nextValue_ >= planned_) planned_ = planner_.PlanAhead(prefix_);
    if (prefix_ < count_ && nextValue_ < planned_) {
      code = NeighbourCode(nextValue_);
      count = std::min(kNeighboursPerItem, planned_ - nextValue_);
      nextValue_ += count;
      return kNeighbour;
    }
    code = kNone;
    return prefix_ == count_ ? kFinished : kNothingYet;
  }

  std::size_t count_, n_;
  double *z_, *f_, *fz_, *gz_;
  LxMinfinderPlanner& planner_;
  MPI_Comm comm_;
  int open_;
  std::vector<char> complete_;
  std::size_t next_ = 0, prefix_ = 0, planned_ = 0, nextValue_ = 0, valuesDone_ = 0;
  std::vector<double> message_, reply_;
  std::deque<int> waiting_;
};

}  // namespace dealing
}  // namespace LxMinfinder
}  // namespace LxOpt

#endif  // LXOPT_MPI_WORK_DEALING_H
