// The work-dealing protocol of lxopt_mpi's minimum finder (work_dealing.h).
#include "mpi/work_dealing.h"

namespace LxOpt {
namespace LxMinfinder {
namespace dealing {

// Doubles per answer: Evaluate f, g; Optimize f, fz, z, gz; Values f.
std::size_t AnswerWidth(long long order, std::size_t n) {
  switch (order) {
    case kEvaluate:
      return 1 + n;
    case kOptimize:
      return 2 + 2 * n;
    default:
      return 1;
  }
}

// The answer for one point x into answer (AnswerWidth doubles): f, then for
// Optimize fz and z, then (not for Values) the gradient.
void AnswerOne(LxMinfinderLocalBatch& local, long long order, const double* x, std::size_t n,
               double* answer) {
  if (order == kEvaluate) local.Evaluate(x, 1, answer, answer + 1);
  if (order == kOptimize) local.Optimize(x, 1, answer + 2, answer, answer + 1, answer + 2 + n);
  if (order == kValues) local.Values(x, 1, answer);
}

// This rank's share of a batch of count points x dealt round robin: its
// items' answers one after another in item order.
std::vector<double> AnswerShare(LxMinfinderLocalBatch& local, long long order, const double* x,
                                std::size_t count, std::size_t n, MPI_Comm comm) {
  const std::size_t rank = static_cast<std::size_t>(mpi::Rank(comm));
  const std::size_t size = static_cast<std::size_t>(mpi::Size(comm));
  const std::size_t width = AnswerWidth(order, n);
  std::vector<double> answers(
      mpi::OwnedCount(count, static_cast<int>(rank), static_cast<int>(size)) * width);
  double* answer = answers.data();
  for (std::size_t i = rank; i < count; i += size, answer += width)
    AnswerOne(local, order, x + i * n, n, answer);
  return answers;
}

// A serving rank's side of Dealer.
void TakeItems(LxMinfinderLocalBatch& local, const double* x, std::size_t n, MPI_Comm comm) {
  std::vector<double> message(MessageSize(n)), reply(ReplySize(n));
  message[0] = kNone;
  std::size_t length = 1;
  for (;;) {
    mpi::Send(message.data(), length, kTagAnswer, comm);
    mpi::Receive(reply.data(), reply.size(), kTagItem, comm);
    const double code = reply[0];
    if (code == kNone) return;
    message[0] = code;
    if (code >= 0.0) {
      AnswerOne(local, kOptimize, x + static_cast<std::size_t>(code) * n, n, message.data() + 1);
      length = message.size();
    } else {
      const std::size_t count = static_cast<std::size_t>(reply[1]);
      local.Values(reply.data() + 2, count, message.data() + 1);
      length = 1 + count;
    }
  }
}

}  // namespace dealing
}  // namespace LxMinfinder
}  // namespace LxOpt
