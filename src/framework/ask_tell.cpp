// LxAskTell: an optimizer on a worker thread against a relay objective. Each
// evaluation the optimizer makes posts its point and blocks until the caller
// tells the value and gradient; cancelling makes the relay throw a private
// exception, which the library lets through unchanged and the worker swallows.
#include "lxopt/asktell.h"

#include <condition_variable>
#include <exception>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "framework/internal.h"

namespace LxOpt {
namespace {

// Thrown by the relay when the run is being ended; never leaves the worker.
struct RunCancelled {};

enum class Phase {
  kIdle,       // no run started
  kComputing,  // the worker holds the turn
  kAsking,     // a point waits for its value
  kFinished,   // the worker has ended
};

}  // namespace

struct LxAskTell::Impl {
  std::mutex mutex;
  std::condition_variable turn;
  Phase phase = Phase::kIdle;
  bool cancel = false;
  std::thread worker;

  unsigned int n = 0;
  std::vector<double> point;     // the point waiting
  std::vector<double> gradient;  // told with it
  double value = 0.0;
  bool wantGradient = true;
  unsigned long evaluations = 0;

  // Outcome of the run.
  std::exception_ptr error;
  std::vector<double> finalPoint;
  double finalValue = 0.0;
  LxRunSummary summary;  // the optimizer's, once the run finished
  unsigned int state = kLxCont;
  unsigned int iterations = 0;

  // The worker's half of one evaluation: post x, wait for the answer.
  double Evaluate(const double* x, double* grad) {
    std::unique_lock<std::mutex> lock(mutex);
    if (cancel) throw RunCancelled{};
    detail::Copy(x, point.data(), n);
    wantGradient = grad != nullptr;
    ++evaluations;
    phase = Phase::kAsking;
    turn.notify_all();
    turn.wait(lock, [this] { return phase == Phase::kComputing || cancel; });
    if (cancel) throw RunCancelled{};
    if (grad != nullptr) detail::Copy(gradient.data(), grad, n);
    return value;
  }

  // The objective the optimizer sees: every evaluation goes to the caller.
  class Relay : public LxFunc1 {
   public:
    using LxFunc1::operator();
    Relay(Impl& impl, unsigned int n) : impl_(impl), n_(n) {}
    unsigned int NumVar() const override { return n_; }
    double operator()(const double* x) override { return impl_.Evaluate(x, nullptr); }
    double operator()(const double* x, double* grad) override { return impl_.Evaluate(x, grad); }
    std::vector<LxFComponent> GetFComponents(const double* x) override {
      return {LxFComponent{"f", (*this)(x)}};
    }

   private:
    Impl& impl_;
    unsigned int n_;
  };

  // Remembers the last report and passes every call on to the caller's
  // checkpoint, whose answers it returns.
  class StateRecorder : public LxCheckpoint1 {
   public:
    StateRecorder(LxCheckpoint1* inner, std::mutex& mutex, unsigned int& state,
                  unsigned int& iterations)
        : inner_(inner), mutex_(mutex), state_(state), iterations_(iterations) {}
    using LxCheckpoint1::operator();
    bool operator()(unsigned int iter, unsigned int nvar, double fval, double gnorm,
                    const double* vars, const double* grad, unsigned int state) override {
      {
        std::lock_guard<std::mutex> lock(mutex_);
        state_ = state;
        iterations_ = iter;
      }
      return detail::Report(inner_, iter, nvar, fval, gnorm, vars, grad, state);
    }

   private:
    LxCheckpoint1* inner_;
    std::mutex& mutex_;
    unsigned int& state_;
    unsigned int& iterations_;
  };

  void Run(LxOptimizer1& optimizer, LxCheckpoint1* checkpoint, std::vector<double> start);

  // Waits for the worker to end and takes the turn back.
  void Join() {
    if (worker.joinable()) worker.join();
  }
};

void LxAskTell::Impl::Run(LxOptimizer1& optimizer, LxCheckpoint1* checkpoint,
                          std::vector<double> start) {
  Relay relay(*this, n);
  StateRecorder recorder(checkpoint, mutex, state, iterations);
  std::vector<double> out(n);
  double result = 0.0;
  std::exception_ptr failure;
  try {
    result = optimizer(relay, &recorder, start.data(), out.data());
  } catch (const RunCancelled&) {
    // Reset or destruction: the result is not wanted.
  } catch (...) {
    failure = std::current_exception();
  }
  std::lock_guard<std::mutex> lock(mutex);
  summary = optimizer.LastRun();
  finalValue = result;
  finalPoint.swap(out);
  error = failure;
  phase = Phase::kFinished;
  turn.notify_all();
}

LxAskTell::LxAskTell() : impl_(new Impl) {}

LxAskTell::~LxAskTell() {
  Reset();
}

void LxAskTell::Start(LxOptimizer1& optimizer, const double* start, unsigned int n,
                      LxCheckpoint1* checkpoint) {
  Reset();
  Impl& s = *impl_;
  s.n = n;
  s.point.assign(n, 0.0);
  s.gradient.assign(n, 0.0);
  s.finalPoint.clear();
  s.evaluations = 0;
  s.summary = LxRunSummary{};
  s.state = kLxCont;
  s.iterations = 0;
  s.error = nullptr;
  s.phase = Phase::kComputing;
  std::vector<double> x(start, start + n);
  s.worker = std::thread(&Impl::Run, &s, std::ref(optimizer), checkpoint, std::move(x));
}

const double* LxAskTell::Ask() {
  Impl& s = *impl_;
  std::unique_lock<std::mutex> lock(s.mutex);
  s.turn.wait(lock, [&s] { return s.phase != Phase::kComputing; });
  if (s.phase == Phase::kAsking) return s.point.data();
  if (s.phase == Phase::kFinished) {
    lock.unlock();
    s.Join();
    if (s.error) std::rethrow_exception(std::exchange(s.error, nullptr));
  }
  return nullptr;
}

bool LxAskTell::GradientWanted() const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->wantGradient;
}

bool LxAskTell::Tell(double f, const double* grad) {
  Impl& s = *impl_;
  std::lock_guard<std::mutex> lock(s.mutex);
  if (s.phase != Phase::kAsking || (s.wantGradient && grad == nullptr)) return false;
  s.value = f;
  if (s.wantGradient) detail::Copy(grad, s.gradient.data(), s.n);
  s.phase = Phase::kComputing;
  s.turn.notify_all();
  return true;
}

void LxAskTell::Reset() {
  Impl& s = *impl_;
  {
    std::lock_guard<std::mutex> lock(s.mutex);
    if (!s.worker.joinable()) return;
    s.cancel = true;
    s.turn.notify_all();
  }
  s.Join();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.cancel = false;
  s.phase = Phase::kIdle;
  s.finalPoint.clear();
  s.summary = LxRunSummary{};
  s.error = nullptr;
}

bool LxAskTell::Finished() const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->phase == Phase::kFinished;
}

double LxAskTell::GetValue() const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->finalValue;
}

const double* LxAskTell::GetPoint() const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->phase == Phase::kFinished ? impl_->finalPoint.data() : nullptr;
}

unsigned int LxAskTell::GetState() const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->state;
}

unsigned int LxAskTell::GetIterations() const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->iterations;
}

unsigned long LxAskTell::GetEvaluations() const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->evaluations;
}

LxRunSummary LxAskTell::LastRun() const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->summary;
}

unsigned int LxAskTell::NumVar() const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->n;
}

}  // namespace LxOpt
