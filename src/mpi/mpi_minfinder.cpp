// The minimum finder over MPI ranks. Rank 0 runs LxMinfinderImpl::Optimize
// with a batch (MpiBatch) that sends each batch's points to all ranks: values
// and gradients are dealt round robin (equal cost), local optimizations one
// at a time to whichever rank is free (Dealer), and ranks left without one
// evaluate the validation's neighbours drawn ahead by the finder's planner;
// rank 0 works on its share too.
// The other ranks serve batches until rank 0 sends the stop order. Every rank
// computes its items with LxMinfinderLocalBatch, the very code of the
// one-process search, so where an item ran does not change its answer.
#include <algorithm>
#include <deque>
#include <vector>

#include "lxopt/host.h"
#include "lxopt/mpi.h"
#include "mpi/collectives.h"
#include "mpi/work_dealing.h"

namespace LxOpt {
namespace LxMinfinder {
namespace {

using namespace dealing;

// Plans nothing: Optimize without neighbours drawn ahead.
class NoPlanner : public LxMinfinderPlanner {
 public:
  std::size_t PlanAhead(std::size_t) override { return 0; }
  const double* Point(std::size_t) const override { return nullptr; }
  void SetValue(std::size_t, double) override {}
};

// Rank 0's objective while it deals: answers waiting requests, then
// evaluates the objective unchanged.
class ServingFunc : public LxFunc1 {
 public:
  ServingFunc(LxFunc1& func, Dealer& dealer) : func_(func), dealer_(dealer) {}
  using LxFunc1::operator();
  unsigned int NumVar() const override { return func_.NumVar(); }
  double operator()(const double* x) override {
    dealer_.Serve();
    return func_(x);
  }
  double operator()(const double* x, double* grad) override {
    dealer_.Serve();
    return func_(x, grad);
  }
  std::vector<LxFComponent> GetFComponents(const double* x) override {
    return func_.GetFComponents(x);
  }

 private:
  LxFunc1& func_;
  Dealer& dealer_;
};

// Rank 0's side: heads each batch with its order, shares it out (deals the
// local optimizations), collects and unpacks the answers.
class MpiBatch : public LxMinfinderBatch {
 public:
  MpiBatch(LxMinfinderImpl& finder, LxFunc1& func, MPI_Comm comm)
      : finder_(finder), func_(func), local_(finder, func), n_(func.NumVar()), comm_(comm) {}

  bool Evaluate(const double* x, std::size_t count, double* f, double* g) override {
    Run(kEvaluate, x, count);
    Unpack(count, f, g);
    return true;
  }
  bool Optimize(const double* x, std::size_t count, double* z, double* f, double* fz,
                double* gz) override {
    NoPlanner none;
    return OptimizeAndPlan(x, count, z, f, fz, gz, none);
  }
  bool OptimizeAndPlan(const double* x, std::size_t count, double* z, double* f, double* fz,
                       double* gz, LxMinfinderPlanner& planner) override {
    Head(kOptimize, x, count);
    Dealer dealer(count, n_, z, f, fz, gz, planner, comm_);
    ServingFunc serving(func_, dealer);
    LxMinfinderLocalBatch local(finder_, serving);
    std::vector<double> answer(std::max(AnswerWidth(kOptimize, n_), kNeighboursPerItem)), neighbour;
    double code = kNone;
    std::size_t neighbours = 0;
    for (Dealer::Kind kind; (kind = dealer.Next(code, neighbours)) != Dealer::kFinished;) {
      if (kind == Dealer::kNothingYet) {
        mpi::Pause();
        continue;
      }
      if (kind == Dealer::kLocal)
        AnswerOne(local, kOptimize, points_.data() + static_cast<std::size_t>(code) * n_, n_,
                  answer.data());
      else
        Neighbours(local, planner, NeighbourOf(code), neighbours, answer.data());
      dealer.Record(code, neighbours, answer.data());
    }
    dealer.Finish();
    // The neighbours of all samples not handed out yet, shared out evenly.
    const std::size_t first = dealer.FirstLeft(), left = planner.PlanAhead(count) - first;
    if (left > 0) {
      neighbour.assign(planner.Point(first), planner.Point(first) + left * n_);
      answer.resize(left);
      Values(neighbour.data(), left, answer.data());
      for (std::size_t k = 0; k < left; ++k) planner.SetValue(first + k, answer[k]);
    }
    return true;
  }
  bool Values(const double* x, std::size_t count, double* f) override {
    Run(kValues, x, count);
    Unpack(count, f, nullptr);
    return true;
  }
  // Releases the serving ranks.
  void Stop() {
    long long heading[2] = {kStop, 0};
    mpi::Broadcast(heading, 2, comm_);
  }

 private:
  // The values at count neighbours from `first`, copied first: planning
  // during the evaluations (ServingFunc) may move the planner's points.
  void Neighbours(LxMinfinderLocalBatch& local, LxMinfinderPlanner& planner, std::size_t first,
                  std::size_t count, double* values) {
    neighbourPoints_.assign(planner.Point(first), planner.Point(first) + count * n_);
    local.Values(neighbourPoints_.data(), count, values);
  }
  // Sends the order and the points to every rank.
  void Head(long long order, const double* x, std::size_t count) {
    long long heading[2] = {order, static_cast<long long>(count)};
    mpi::Broadcast(heading, 2, comm_);
    points_.assign(x, x + count * n_);
    mpi::Broadcast(points_.data(), points_.size(), comm_);
  }
  void Run(long long order, const double* x, std::size_t count) {
    Head(order, x, count);
    width_ = AnswerWidth(order, n_);
    mpi::GatherItems(AnswerShare(local_, order, points_.data(), count, n_, comm_), count, width_,
                     answers_, comm_);
  }
  // Item i's answer is answers_[i width ...], packed as AnswerShare packs it.
  void Unpack(std::size_t count, double* f, double* g) const {
    for (std::size_t i = 0; i < count; ++i) {
      const double* a = answers_.data() + i * width_;
      f[i] = a[0];
      if (g != nullptr) std::copy(a + 1, a + 1 + n_, g + i * n_);
    }
  }

  LxMinfinderImpl& finder_;
  LxFunc1& func_;
  LxMinfinderLocalBatch local_;
  std::size_t n_;
  MPI_Comm comm_;
  std::size_t width_ = 1;
  std::vector<double> points_, answers_, neighbourPoints_;
};

// The other ranks' side: answers batches until the stop order.
void ServeBatches(LxMinfinderImpl& finder, LxFunc1& func, MPI_Comm comm) {
  LxMinfinderLocalBatch local(finder, func);
  const std::size_t n = func.NumVar();
  std::vector<double> points, none;
  for (;;) {
    long long heading[2];
    mpi::Broadcast(heading, 2, comm);
    if (heading[0] == kStop) return;
    const std::size_t count = static_cast<std::size_t>(heading[1]);
    points.resize(count * n);
    mpi::Broadcast(points.data(), points.size(), comm);
    if (heading[0] == kOptimize) {
      TakeItems(local, points.data(), n, comm);
      continue;
    }
    mpi::GatherItems(AnswerShare(local, heading[0], points.data(), count, n, comm), count,
                     AnswerWidth(heading[0], n), none, comm);
  }
}

// Rank 0's settings that other ranks use (local optimizations, the window
// of GetMinimums), to every rank.
void ShareSettings(LxMinfinderImpl& impl, MPI_Comm comm) {
  double settings[3] = {impl.GetLocalOptTolerance(), static_cast<double>(impl.GetLocalOptMaxIter()),
                        impl.GetFvalMinimaWindow()};
  mpi::Broadcast(settings, 3, comm);
  impl.SetLocalOptTolerance(settings[0]);
  impl.SetLocalOptMaxIter(static_cast<unsigned int>(settings[1]));
  impl.SetFvalMinimaWindow(settings[2]);
}

// Rank 0's minima (coordinates, values, gradients) into every other rank's
// minima store, so that GetMinimums answers alike everywhere.
void ShareMinima(MinfinderSamplePoints& minima, MPI_Comm comm) {
  const bool root = mpi::Rank(comm) == 0;
  const std::size_t n = minima.getNumVar();
  long long count = static_cast<long long>(minima.getNumPoints());
  mpi::Broadcast(&count, 1, comm);
  const std::size_t width = 1 + 2 * n;
  std::vector<double> packed(static_cast<std::size_t>(count) * width);
  std::vector<double> x(n), g(n);
  for (std::size_t i = 0; root && i < static_cast<std::size_t>(count); ++i) {
    double* p = packed.data() + i * width;
    minima.getY(p[0], i);
    std::copy(minima.PointData(i), minima.PointData(i) + n, p + 1);
    std::copy(minima.GradientData(i), minima.GradientData(i) + n, p + 1 + n);
  }
  mpi::Broadcast(packed.data(), packed.size(), comm);
  if (root) return;
  std::vector<double> tolerance;
  minima.GetSamePointTolerance(tolerance);
  const bool check = minima.GetCheckMinimumInRange();
  minima.Clear();
  minima.SetCheckMinimumInRange(false);
  for (std::size_t i = 0; i < static_cast<std::size_t>(count); ++i) {
    const double* p = packed.data() + i * width;
    x.assign(p + 1, p + 1 + n);
    g.assign(p + 1 + n, p + 1 + 2 * n);
    minima.addPoint(x, p[0], g, x, x);
  }
  minima.SetCheckMinimumInRange(check);
}

}  // namespace

LxMpiMinfinder::LxMpiMinfinder(MPI_Comm comm) : comm_(comm) {}

bool LxMpiMinfinder::Setup(LxFunc1& func, GetRandomVariables* generator,
                           const std::vector<double>& lower, const std::vector<double>& upper) {
  const long long n = func.NumVar();
  setUpEverywhere_ = false;
  // Every rank takes part in all three collectives before any answer is used.
  const bool sameN = mpi::SameEverywhere(n, comm_);
  const bool sameLower = mpi::SameEverywhere(static_cast<long long>(lower.size()), comm_);
  const bool sameUpper = mpi::SameEverywhere(static_cast<long long>(upper.size()), comm_);
  if (!(sameN && sameLower && sameUpper)) {
    LxThrow.Error(
        "LxMpiMinfinder: the ranks disagree on the number of variables or the length of the "
        "bounds!");
    return false;
  }
  const bool here = LxMinfinder::Setup(func, generator, lower, upper);
  setUpEverywhere_ = mpi::TrueEverywhere(here, comm_);
  if (here && !setUpEverywhere_) LxThrow.Error("LxMpiMinfinder: Setup failed on another rank!");
  if (setUpEverywhere_) func_ = &func;
  return setUpEverywhere_;
}

bool LxMpiMinfinder::Optimize() {
  if (!mpi::TrueEverywhere(setUpEverywhere_, comm_)) {
    LxThrow.Error("You have to setup the minfinder object first!");
    return false;
  }
  LxMinfinderImpl& impl = *GetImpl();
  ShareSettings(impl, comm_);
  double result = 0.0;
  if (mpi::Rank(comm_) == 0) {
    MpiBatch batch(impl, *func_, comm_);
    impl.SetBatch(&batch);
    result = impl.Optimize() ? 1.0 : 0.0;
    impl.SetBatch(nullptr);
    batch.Stop();
  } else {
    ServeBatches(impl, *func_, comm_);
  }
  mpi::Broadcast(&result, 1, comm_);
  ShareMinima(impl.GetMinima(), comm_);
  return result != 0.0;
}

}  // namespace LxMinfinder
}  // namespace LxOpt
