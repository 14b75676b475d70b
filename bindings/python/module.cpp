// The compiled half of the Python package lxopt: objectives made of Python
// callables, every optimizer with its settings, the minimum finder, and the
// routing of library messages to Python's logging. The pure-Python half
// (lxopt/__init__.py) builds minimize() and OptimizeResult on top of it.
//
// Threading: every optimizer loop runs with the GIL released; each call back
// into Python (objective, callback, logging) takes it again for the call.
// A Python exception raised in a callable travels through the library as
// pybind11::error_already_set and reaches the caller unchanged.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <numeric>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

#include "lxopt/lxopt.h"

namespace py = pybind11;
using namespace LxOpt;

namespace {

using Array = py::array_t<double, py::array::c_style | py::array::forcecast>;

// A NumPy array owning a copy of n doubles: what Python code receives may be
// kept (scipy's callables may keep their argument), so it never points into
// the library's scratch memory.
Array Copy(const double* data, unsigned int n) {
  return Array(n, data);
}

// Copies a callable's array result of `count` values into out.
void CopyResult(const py::handle& result, double* out, std::size_t count, const char* what) {
  Array a = Array::ensure(result);
  if (!a) throw py::error_already_set();
  if (static_cast<std::size_t>(a.size()) != count) {
    throw py::value_error(std::string(what) + " returned " + std::to_string(a.size()) +
                          " values, expected " + std::to_string(count));
  }
  std::memcpy(out, a.data(), count * sizeof(double));
}

bool AllFinite(const double* v, unsigned int n) {
  for (unsigned int i = 0; i < n; ++i)
    if (!std::isfinite(v[i])) return false;
  return true;
}

// Thrown through the library to end a run at once; caught in Run.
struct NonFiniteStart {};
struct CallbackStop {};

// Where the gradient comes from: jac(x), fun(x) -> (value, gradient), or the
// library's central differences of fun.
enum class GradientSource { kJac, kIncluded, kNumeric };

// An objective over Python callables. fun(x) -> float; the gradient as
// GradientSource says; hess(x) -> n x n array (the lower triangle is packed),
// or central differences of the gradient without hess. Counts the
// evaluations as scipy does (a numeric gradient costs its value calls).
//
// With the guard on, a non-finite value or gradient at the start ends the
// run at once (NonFiniteStart); later it makes the point count as not a
// number (value NaN, gradient zero), which the library's non-finite guard
// turns into a very bad value the line searches step back from.
class PyObjective : public LxFunc2 {
 public:
  PyObjective(py::function fun, py::object jac, py::object hess, GradientSource source,
              unsigned int n, double step = kLxGradientStep)
      : fun_(std::move(fun)),
        jac_(std::move(jac)),
        hess_(std::move(hess)),
        source_(source),
        n_(n),
        step_(step) {}

  using LxFunc2::operator();
  unsigned int NumVar() const override { return n_; }

  double operator()(const double* x) override {
    py::gil_scoped_acquire gil;
    ++nfev;
    py::object r = fun_(Copy(x, n_));
    const double value = source_ == GradientSource::kIncluded ? py::cast<double>(py::tuple(r)[0])
                                                              : py::cast<double>(r);
    return Checked(value, nullptr);
  }

  double operator()(const double* x, double* grad) override {
    double value;
    if (source_ == GradientSource::kNumeric) {
      // 2n + 1 value calls, each counted (and guarded) by the value form.
      guardValues_ = false;
      for (unsigned int i = 0; i < n_; ++i) grad[i] = 0.0;
      value = NumericGradients(*this, x, grad, step_);
      guardValues_ = true;
      py::gil_scoped_acquire gil;
      ++njev;
    } else {
      py::gil_scoped_acquire gil;
      ++nfev;
      ++njev;
      Array arg = Copy(x, n_);
      if (source_ == GradientSource::kIncluded) {
        py::tuple r(fun_(arg));
        CopyResult(r[1], grad, n_, "fun");
        value = py::cast<double>(r[0]);
      } else {
        value = py::cast<double>(fun_(arg));
        CopyResult(jac_(arg), grad, n_, "jac");
      }
    }
    value = Checked(value, grad);
    Remember(x, grad);
    return value;
  }

  bool operator()(const double* x, double* hessian, double* grad) override {
    const double value = (*this)(x, grad);
    if (!std::isfinite(value)) return false;
    if (hess_.is_none()) {
      for (std::size_t k = 0; k < static_cast<std::size_t>(n_) * (n_ + 1) / 2; ++k)
        hessian[k] = 0.0;
      NumericHessian(*this, x, hessian);
      py::gil_scoped_acquire gil;
      ++nhev;
      return true;
    }
    py::gil_scoped_acquire gil;
    ++nhev;
    std::vector<double> dense(static_cast<std::size_t>(n_) * n_);
    CopyResult(hess_(Copy(x, n_)), dense.data(), dense.size(), "hess");
    for (unsigned int i = 0; i < n_; ++i) {
      for (unsigned int j = 0; j <= i; ++j) hessian[i * (i + 1) / 2 + j] = dense[i * n_ + j];
    }
    return true;
  }

  std::vector<LxFComponent> GetFComponents(const double* x) override {
    return {{"fun", (*this)(x)}};
  }

  void SetGuard(bool on) { guard_ = on; }
  // The gradient at x if one of the last evaluations was at exactly x.
  const double* KnownGradient(const double* x) const {
    for (const Evaluated& e : recent_)
      if (!e.x.empty() && std::memcmp(e.x.data(), x, n_ * sizeof(double)) == 0) return e.g.data();
    return nullptr;
  }

  unsigned long nfev = 0, njev = 0, nhev = 0, nonFinite = 0;

 private:
  struct Evaluated {
    std::vector<double> x, g;
  };
  static constexpr std::size_t kRecent = 4;  // the line searches end on a recent point

  double Checked(double value, double* grad) {
    if (!guard_ || !guardValues_) return value;
    const bool finite = std::isfinite(value) && (grad == nullptr || AllFinite(grad, n_));
    const bool first = !started_;
    started_ = true;
    if (finite) return value;
    if (first) throw NonFiniteStart();
    ++nonFinite;
    if (grad != nullptr)
      for (unsigned int i = 0; i < n_; ++i) grad[i] = 0.0;
    return std::numeric_limits<double>::quiet_NaN();
  }

  void Remember(const double* x, const double* grad) {
    Evaluated& e = recent_[next_++ % kRecent];
    e.x.assign(x, x + n_);
    e.g.assign(grad, grad + n_);
  }

  py::function fun_;
  py::object jac_;
  py::object hess_;
  GradientSource source_;
  unsigned int n_;
  double step_;
  bool guard_ = false;
  bool guardValues_ = true;  // off while the numeric gradient evaluates values
  bool started_ = false;
  Evaluated recent_[kRecent];
  std::size_t next_ = 0;
};

// The dense inverse-Hessian approximation of a DFP run for hess_inv (LxDFPOpt
// keeps no matrix): the DFP update H += s s'/s.y - Hy Hy'/yHy replayed from
// the identity over consecutive reported points, as the run applies it
// except that a restart after a failed search does not reset it.
class DFPReplay {
 public:
  explicit DFPReplay(unsigned int n)
      : n_(n), h_(static_cast<std::size_t>(n) * n, 0.0), x_(n), g_(n), s_(n), y_(n), hy_(n) {
    for (unsigned int i = 0; i < n; ++i) h_[static_cast<std::size_t>(i) * n + i] = 1.0;
  }

  void Report(const double* x, const double* g) {
    if (x == nullptr || g == nullptr) return;
    if (started_) {
      double sy = 0.0;
      for (unsigned int i = 0; i < n_; ++i) {
        s_[i] = x[i] - x_[i];
        y_[i] = g[i] - g_[i];
        sy += s_[i] * y_[i];
      }
      Update(sy);
    }
    started_ = true;
    std::copy(x, x + n_, x_.begin());
    std::copy(g, g + n_, g_.begin());
  }

  Array Matrix() const {
    Array h({n_, n_});
    std::copy(h_.begin(), h_.end(), h.mutable_data());
    return h;
  }

 private:
  void Update(double sy) {
    double yHy = 0.0;
    for (unsigned int i = 0; i < n_; ++i) {
      const double* row = &h_[static_cast<std::size_t>(i) * n_];
      hy_[i] = std::inner_product(row, row + n_, y_.begin(), 0.0);
      yHy += y_[i] * hy_[i];
    }
    if (sy == 0.0 || yHy == 0.0) return;  // no step, or the run ends here
    for (unsigned int i = 0; i < n_; ++i) {
      double* row = &h_[static_cast<std::size_t>(i) * n_];
      for (unsigned int j = 0; j < n_; ++j) row[j] += s_[i] * s_[j] / sy - hy_[i] * hy_[j] / yHy;
    }
  }

  unsigned int n_;
  std::vector<double> h_, x_, g_, s_, y_, hy_;
  bool started_ = false;
};

// Hands the state-0 reports to an optional Python callback(x, fun, gnorm,
// nit) (x a copy); an answer of False asks for a stop. Optimizers that do not
// honour a stop request are ended by an exception instead, keeping the point
// of that report.
class PyCheckpoint : public LxCheckpoint1 {
 public:
  PyCheckpoint(py::object callback, bool honoursStop, DFPReplay* replay = nullptr)
      : callback_(std::move(callback)), honoursStop_(honoursStop), replay_(replay) {}

  using LxCheckpoint1::operator();
  bool operator()(unsigned int iter, unsigned int nvar, double fval, double gnorm,
                  const double* vars, const double* grad, unsigned int state) override {
    if (replay_ != nullptr) replay_->Report(vars, grad);
    if (state != kLxCont || callback_.is_none()) return true;
    py::gil_scoped_acquire gil;
    py::object x = vars != nullptr ? py::object(Copy(vars, nvar)) : py::object(py::none());
    py::object answer = callback_(x, fval, gnorm, iter);
    if (answer.is_none() || py::cast<bool>(answer)) return true;
    stopped = true;
    if (honoursStop_) return false;
    stopX = x;
    stopF = fval;
    stopIter = iter;
    throw CallbackStop();
  }

  bool stopped = false;
  py::object stopX;
  double stopF = 0.0;
  unsigned int stopIter = 0;

 private:
  py::object callback_;
  bool honoursStop_;
  DFPReplay* replay_;
};

// Routes library messages to the Python logger "lxopt" while it lives, then
// puts back the sink it replaced. Progress text (lxout) is collected and
// logged line by line at DEBUG level when it ends; construct and destroy it
// with the GIL held.
class LoggingSink {
 public:
  LoggingSink() {
    previousStream_ = LxSetOutputStream(&progress_);
    previous_ = LxSetMessageSink([](LxMessageLevel level, const std::string& text) {
      py::gil_scoped_acquire gil;
      try {
        static const int kLevels[] = {20, 30, 40, 50};  // INFO .. CRITICAL
        py::module_::import("logging").attr("getLogger")("lxopt").attr("log")(
            kLevels[static_cast<int>(level)], text);
      } catch (py::error_already_set& e) {
        e.discard_as_unraisable("lxopt message sink");
      }
    });
  }
  ~LoggingSink() {
    LxSetMessageSink(std::move(previous_));
    LxSetOutputStream(previousStream_);
    try {
      py::object log = py::module_::import("logging").attr("getLogger")("lxopt").attr("debug");
      std::string line;
      while (std::getline(progress_, line)) log(line);
    } catch (py::error_already_set& e) {
      e.discard_as_unraisable("lxopt progress output");
    }
  }
  LoggingSink(const LoggingSink&) = delete;
  LoggingSink& operator=(const LoggingSink&) = delete;

 private:
  LxMessageSink previous_;
  std::ostream* previousStream_;
  std::stringstream progress_;
};

// The raw outcome of one run; lxopt/__init__.py turns it into an
// OptimizeResult. state, nit, gnorm, gmax and converged are the optimizer's
// own summary; stopped says that the callback asked for the stop.
py::dict RunResult(const Array& x, double value, const LxRunSummary& run, const PyObjective& f,
                   bool stopped) {
  py::dict r;
  r["x"] = x;
  r["fun"] = value;
  r["nit"] = run.iterations;
  r["status"] = run.state;
  r["message"] = LxGetStateName(run.state);
  r["gnorm"] = run.gradientNorm;
  r["gmax"] = run.gradientMax;
  r["converged"] = run.converged;
  r["stopped"] = stopped;
  r["nonfinite_start"] = false;
  r["nfev"] = f.nfev;
  r["njev"] = f.njev;
  r["nhev"] = f.nhev;
  r["nonfinite"] = f.nonFinite;
  const double* g = f.KnownGradient(x.data());
  r["jac"] = g != nullptr ? py::object(Copy(g, static_cast<unsigned int>(x.size())))
                          : py::object(py::none());
  return r;
}

Array StartCopy(const py::object& x0) {
  Array start = Array::ensure(x0);
  if (!start || start.ndim() != 1) throw py::value_error("x0 must be a 1-D array of floats");
  return Array(start.size(), start.data());
}

// The library's entry for an optimizer class of this module.
const LxOptimizerEntry& Entry(const char* name) {
  const LxOptimizerEntry* entry = LxFindOptimizer(name);
  if (entry == nullptr) throw std::logic_error(std::string("no optimizer called ") + name);
  return *entry;
}

// One run of `opt` (an LxOptimizer1 or LxOptimizer2) on Python callables.
// jac: a callable, True (fun returns (value, gradient)), or None / "2-point"
// / "3-point" (central differences with step eps). guard: the non-finite
// guard described at PyObjective. honoursStop: the run ends when its
// checkpoint answers false (the registry says which do).
template <class Opt, class Func>
py::dict Run(Opt& opt, py::function fun, const py::object& x0, py::object jac, py::object hess,
             py::object callback, bool guard, double eps, bool dfpInverse, bool honoursStop) {
  GradientSource source = GradientSource::kJac;
  if (py::isinstance<py::bool_>(jac)) {
    source = py::cast<bool>(jac) ? GradientSource::kIncluded : GradientSource::kNumeric;
    jac = py::none();
  } else if (jac.is_none() || py::isinstance<py::str>(jac)) {
    source = GradientSource::kNumeric;
    jac = py::none();
  }
  Array x = StartCopy(x0);
  PyObjective f(std::move(fun), std::move(jac), std::move(hess), source,
                static_cast<unsigned int>(x.size()), eps);
  f.SetGuard(guard);
  LxCountingFunc guarded(static_cast<Func&>(f));
  guarded.SetNonFiniteGuard(guard);
  std::unique_ptr<DFPReplay> replay;
  if (dfpInverse && std::is_same<Opt, LxDFPOpt>::value)
    replay = std::make_unique<DFPReplay>(static_cast<unsigned int>(x.size()));
  PyCheckpoint cp(std::move(callback), honoursStop, replay.get());
  LoggingSink sink;
  double* data = x.mutable_data();
  double value = 0.0;
  bool nonFiniteStart = false;
  bool callbackStop = false;
  {
    py::gil_scoped_release release;
    try {
      value = opt(static_cast<Func&>(guarded), &cp, data, data);
    } catch (const NonFiniteStart&) {
      nonFiniteStart = true;
    } catch (const CallbackStop&) {
      callbackStop = true;
    }
  }
  if (nonFiniteStart) {
    py::dict r = RunResult(x, std::numeric_limits<double>::quiet_NaN(), LxRunSummary{}, f, false);
    r["nonfinite_start"] = true;
    return r;
  }
  if (callbackStop) {
    LxRunSummary stop;
    stop.state = kLxDone;
    stop.iterations = cp.stopIter;
    stop.stoppedByCheckpoint = true;
    Array at = Array::ensure(cp.stopX);
    py::dict r = RunResult(at ? at : x, cp.stopF, stop, f, true);
    if (replay) r["hess_inv"] = replay->Matrix();
    return r;
  }
  // A guarded value is the largest double, not the objective's value.
  if (value == std::numeric_limits<double>::max()) value = std::numeric_limits<double>::quiet_NaN();
  py::dict r = RunResult(x, value, opt.LastRun(), f, cp.stopped);
  if (replay) r["hess_inv"] = replay->Matrix();
  return r;
}

std::unique_ptr<LxLineMinimize> MakeLineMinimizer(const std::string& name) {
  if (name == "cg") return std::make_unique<LxCGLineMinimize>();
  if (name == "qn") return std::make_unique<LxQNLineMinimize>();
  if (name == "nr") return std::make_unique<LxNRLineSearch>();
  if (name == "maxstep") return std::make_unique<LxMaxStepLineMinimize>();
  throw py::value_error("unknown line minimizer '" + name + "' (cg, qn, nr, maxstep)");
}

// Simulated annealing needs the two getters its base leaves open.
class Anneal : public LxSAOpt {
 public:
  explicit Anneal(double temperature) : LxSAOpt(temperature) {}
  unsigned int GetIterLimit() const override { return EvaluationLimit(); }
  double GetTolerance() const override { return Tolerance(); }
};

// minimize(fun, x0, ...) of the optimizer the registry calls `name`, which
// the class also carries as registry_name.
template <class Opt, class Func, class Class>
Class& Minimize(Class& cls, const char* name) {
  const bool honoursStop = Entry(name).honoursStop;
  cls.attr("registry_name") = name;
  cls.def(
      "minimize",
      [honoursStop](Opt& opt, py::function fun, const py::object& x0, py::object jac,
                    py::object hess, py::object callback, bool guard, double eps, bool dfpInverse) {
        return Run<Opt, Func>(opt, std::move(fun), x0, std::move(jac), std::move(hess),
                              std::move(callback), guard, eps, dfpInverse, honoursStop);
      },
      py::arg("fun"), py::arg("x0"), py::arg("jac") = py::none(), py::arg("hess") = py::none(),
      py::arg("callback") = py::none(), py::arg("guard") = true, py::arg("eps") = kLxGradientStep,
      py::arg("dfp_inverse") = false,
      "Minimizes fun from x0; returns a dict of the raw outcome. jac: callable, True "
      "(fun returns (f, g)) or None (central differences with step eps); "
      "callback(x, fun, gnorm, nit) -> False stops; guard: stop on a non-finite start "
      "and step back from non-finite points; dfp_inverse (DFP only): add hess_inv, the "
      "DFP update replayed over the reported points.");
  return cls;
}

// The settings every optimizer shares, and its minimize.
template <class Opt, class Func, class Class>
Class& Common(Class& cls, const char* name) {
  cls.def(py::init<>())
      .def_property("iter_limit", &Opt::GetIterLimit, &Opt::SetIterLimit)
      .def_property("tolerance", &Opt::GetTolerance, &Opt::SetTolerance);
  return Minimize<Opt, Func>(cls, name);
}

template <class Opt, class Class>
Class& WithLineMinimizer(Class& cls) {
  cls.def(
      "set_line_minimizer",
      [](Opt& o, const std::string& name) { o.SetLineMinimize(*MakeLineMinimizer(name)); },
      py::arg("name"), "Line minimizer: 'cg', 'qn', 'nr' or 'maxstep'.");
  return cls;
}

// atomic_numbers: the elements for the Cartesian model (a list; empty: none).
template <class Opt>
py::class_<Opt>& WithAtomicNumbers(py::class_<Opt>& cls) {
  return cls.def_property(
      "atomic_numbers", &Opt::GetAtomicNumbers,
      [](Opt& o, const std::vector<int>& z) {
        o.SetAtomicNumbers(z.data(), static_cast<unsigned int>(z.size()));
      },
      "Elements of the atoms for the cartesian model (empty: none).");
}

// keep_hessian and inverse_hessian() (dense, symmetric, n x n).
template <class Opt, class Class>
Class& WithKeptHessian(Class& cls) {
  cls.def_property("keep_hessian", &Opt::GetKeepHessian, &Opt::SetKeepHessian)
      .def(
          "inverse_hessian",
          [](const Opt& o, unsigned int n) -> py::object {
            std::vector<double> packed(static_cast<std::size_t>(n) * (n + 1) / 2);
            LoggingSink sink;
            if (!o.GetInverseHessian(packed.data(), n)) return py::none();
            py::array_t<double> h({n, n});
            auto m = h.mutable_unchecked<2>();
            for (unsigned int i = 0; i < n; ++i) {
              for (unsigned int j = 0; j <= i; ++j) {
                m(i, j) = m(j, i) = packed[i * (i + 1) / 2 + j];
              }
            }
            return std::move(h);
          },
          py::arg("n"), "The kept inverse Hessian as an n x n array, or None.");
  return cls;
}

// An equality constraint c(x) = 0 over Python callables: fun(x) returns
// (value, gradient), or fun(x) -> float with jac(x) -> gradient. Its NumVar()
// is the objective's, set before each run.
class PyConstraint : public LxConstrFunc {
 public:
  PyConstraint(py::function fun, py::object jac) : fun_(std::move(fun)), jac_(std::move(jac)) {}

  double operator()(const double* x, double* grad) override {
    py::gil_scoped_acquire gil;
    Array view = Copy(x, n_);
    if (jac_.is_none()) {
      py::tuple r(fun_(view));
      CopyResult(r[1], grad, n_, "constraint");
      return py::cast<double>(r[0]);
    }
    const double value = py::cast<double>(fun_(view));
    CopyResult(jac_(view), grad, n_, "constraint jac");
    return value;
  }
  unsigned int NumVar() const override { return n_; }
  void SetNumVar(unsigned int n) { n_ = n; }

 private:
  py::function fun_;
  py::object jac_;
  unsigned int n_ = 0;
};

// A constraint given as a callable returning (value, gradient) or as a
// pair (fun, jac) of callables.
std::shared_ptr<PyConstraint> MakeConstraint(const py::object& c) {
  if (PyCallable_Check(c.ptr())) {
    return std::make_shared<PyConstraint>(py::reinterpret_borrow<py::function>(c), py::none());
  }
  if (py::isinstance<py::sequence>(c) && py::len(c) == 2) {
    py::sequence pair = py::reinterpret_borrow<py::sequence>(c);
    py::object fun = pair[0], jac = pair[1];
    if (PyCallable_Check(fun.ptr()) && PyCallable_Check(jac.ptr())) {
      return std::make_shared<PyConstraint>(py::reinterpret_borrow<py::function>(fun), jac);
    }
  }
  throw py::type_error(
      "a constraint is a callable c(x) -> (value, gradient) or a pair (fun, jac) of callables");
}

// The constrained Newton optimizer with the Python constraints it lists.
// The library only borrows constraints; this keeps each alive while listed,
// keyed by the very object the caller passed to add().
struct NewtonConstrained {
  LxNewtonConstrOpt opt;
  std::vector<std::pair<py::object, std::shared_ptr<PyConstraint>>> constraints;

  auto Find(const py::object& key) {
    return std::find_if(constraints.begin(), constraints.end(),
                        [&](const auto& entry) { return entry.first.is(key); });
  }
};

void BindNewtonConstrained(py::module_& m) {
  py::class_<NewtonConstrained>(m, "NewtonConstrained")
      .def(py::init<>())
      .def_property(
          "iter_limit", [](const NewtonConstrained& s) { return s.opt.GetIterLimit(); },
          [](NewtonConstrained& s, unsigned int v) { s.opt.SetIterLimit(v); })
      .def_property(
          "tolerance", [](const NewtonConstrained& s) { return s.opt.GetTolerance(); },
          [](NewtonConstrained& s, double v) { s.opt.SetTolerance(v); })
      .def(
          "add",
          [](NewtonConstrained& s, py::object c) {
            if (s.Find(c) != s.constraints.end()) return false;
            std::shared_ptr<PyConstraint> constraint = MakeConstraint(c);
            s.opt.Add(*constraint);
            s.constraints.emplace_back(std::move(c), std::move(constraint));
            return true;
          },
          py::arg("constraint"),
          "Appends the constraint c(x) = 0: a callable returning (value, gradient) or a "
          "pair (fun, jac). False if this very object is already listed.")
      .def(
          "remove",
          [](NewtonConstrained& s, const py::object& c) {
            auto it = s.Find(c);
            if (it == s.constraints.end()) return false;
            s.opt.Remove(*it->second);
            s.constraints.erase(it);
            return true;
          },
          py::arg("constraint"),
          "Removes the object given to add(), keeping the order of the others; False if "
          "it is not listed.")
      .def_property_readonly(
          "constraints",
          [](const NewtonConstrained& s) {
            py::list out;
            for (const auto& entry : s.constraints) out.append(entry.first);
            return out;
          },
          "The listed constraints, in order.")
      .def(
          "minimize",
          [](NewtonConstrained& s, py::function fun, const py::object& x0, py::object jac,
             py::object hess, py::object callback, bool guard, double eps) {
            Array x = StartCopy(x0);
            for (auto& entry : s.constraints) {
              entry.second->SetNumVar(static_cast<unsigned int>(x.size()));
            }
            return Run<LxNewtonConstrOpt, LxFunc2>(s.opt, std::move(fun), x, std::move(jac),
                                                   std::move(hess), std::move(callback), guard, eps,
                                                   false, Entry("NewtonConstr").honoursStop);
          },
          py::arg("fun"), py::arg("x0"), py::arg("jac") = py::none(), py::arg("hess") = py::none(),
          py::arg("callback") = py::none(), py::arg("guard") = true,
          py::arg("eps") = kLxGradientStep,
          "Minimizes fun from x0 subject to the listed constraints; returns a dict of the "
          "raw outcome.");
}

void BindMinFinder(py::module_& m) {
  using Finder = LxMinfinder::LxMinfinder;
  // Owns what the library's finder only borrows: the objective and the
  // random point generator.
  struct MinFinder {
    Finder finder;
    std::unique_ptr<PyObjective> func;
    LxMinfinder::GetRandomVariablesGeneral generator;
  };
  py::class_<MinFinder> cls(m, "MinFinder");
  cls.def(py::init<>());
#define LXOPT_SETTING(name, Get, Set)                          \
  cls.def_property(                                            \
      name, [](const MinFinder& s) { return s.finder.Get(); }, \
      [](MinFinder& s, decltype(s.finder.Get()) v) { s.finder.Set(v); })
  LXOPT_SETTING("max_sample", GetMaxSample, SetMaxSample);
  LXOPT_SETTING("threshold_no_change", GetThresholdNumberOfNoChange, SetThresholdNumberOfNoChange);
  LXOPT_SETTING("max_opt_points", GetMaxNumOptPoints, SetMaxNumOptPoints);
  LXOPT_SETTING("same_point_tolerance", GetSamePointTolerance, SetSamePointTolerance);
  LXOPT_SETTING("fval_sample_max", GetFvalSampleMax, SetFvalSampleMax);
  LXOPT_SETTING("fval_sample_min", GetFvalSampleMin, SetFvalSampleMin);
  LXOPT_SETTING("fval_minima_max", GetFvalMinimaMax, SetFvalMinimaMax);
  LXOPT_SETTING("fval_minima_min", GetFvalMinimaMin, SetFvalMinimaMin);
  LXOPT_SETTING("fval_minima_window", GetFvalMinimaWindow, SetFvalMinimaWindow);
  LXOPT_SETTING("time_limit_hours", GetTimeLimit, SetTimeLimit);
  LXOPT_SETTING("local_tolerance", GetLocalOptTolerance, SetLocalOptTolerance);
  LXOPT_SETTING("local_iter_limit", GetLocalOptMaxIter, SetLocalOptMaxIter);
  LXOPT_SETTING("check_minimum_in_range", GetCheckMinimumInRange, SetCheckMinimumInRange);
  LXOPT_SETTING("keep_degenerate_states", GetKeepDegenerateStates, SetKeepDegenerateStates);
#undef LXOPT_SETTING
  cls.def(
      "run",
      [](MinFinder& s, py::function fun, std::vector<double> lower, std::vector<double> upper,
         py::object jac, unsigned int seed) -> bool {
        if (lower.size() != upper.size()) throw py::value_error("lower and upper differ in size");
        GradientSource source = GradientSource::kJac;
        if (py::isinstance<py::bool_>(jac) || jac.is_none()) {
          source = py::isinstance<py::bool_>(jac) && py::cast<bool>(jac) ? GradientSource::kIncluded
                                                                         : GradientSource::kNumeric;
          jac = py::none();
        }
        s.func = std::make_unique<PyObjective>(std::move(fun), std::move(jac), py::none(), source,
                                               static_cast<unsigned int>(lower.size()));
        s.generator.Seed(seed);
        LoggingSink sink;
        py::gil_scoped_release release;
        return s.finder.Setup(*s.func, &s.generator, lower, upper) && s.finder.Optimize();
      },
      py::arg("fun"), py::arg("lower"), py::arg("upper"), py::arg("jac") = py::none(),
      py::arg("seed") = 5489u,
      "Searches the box [lower, upper] for minima; False when the search could not run.");
  cls.def(
      "minima",
      [](const MinFinder& s) {
        std::vector<double> coords, values;
        {
          LoggingSink sink;
          s.finder.GetMinimums(coords, values);
        }
        const std::size_t k = values.size();
        const std::size_t n = k == 0 ? 0 : coords.size() / k;
        Array x({k, n});
        if (!coords.empty())
          std::memcpy(x.mutable_data(), coords.data(), coords.size() * sizeof(double));
        return py::make_tuple(x, Array(k, values.data()));
      },
      "(coords, values): one row of coords per minimum, ascending by value.");
  cls.def_property_readonly("nfev", [](const MinFinder& s) { return s.func ? s.func->nfev : 0; });
}

}  // namespace

void bind_steps(py::module_& m);  // steps.cpp: lxopt.AskTell

PYBIND11_MODULE(_lxopt, m) {
  m.doc() = "Compiled core of lxopt";
  m.def("state_name", &LxGetStateName, py::arg("state"));
  m.attr("release") = LxOptGetRelease();
  m.def(
      "optimizer_names",
      [] {
        py::list names;
        for (const LxOptimizerEntry& e : LxOptimizerRegistry()) names.append(e.name);
        return names;
      },
      "The library's name of every optimizer (the classes' registry_name).");

  py::class_<LxBFGSOpt> bfgs(m, "BFGS");
  WithKeptHessian<LxBFGSOpt>(
      WithLineMinimizer<LxBFGSOpt>(Common<LxBFGSOpt, LxFunc1>(bfgs, "BFGS")));
  py::class_<LxBFGSModOpt> bfgsMod(m, "BFGSCarry");
  WithKeptHessian<LxBFGSModOpt>(
      WithLineMinimizer<LxBFGSModOpt>(Common<LxBFGSModOpt, LxFunc1>(bfgsMod, "BFGSMod")));
  py::class_<LxLBFGSOpt> lbfgs(m, "LBFGS");
  WithLineMinimizer<LxLBFGSOpt>(Common<LxLBFGSOpt, LxFunc1>(lbfgs, "LBFGS"));
  lbfgs.def_property("memory", &LxLBFGSOpt::GetMemory, &LxLBFGSOpt::SetMemory)
      .def_property("keep_pairs", &LxLBFGSOpt::GetKeepPairs, &LxLBFGSOpt::SetKeepPairs)
      .def(
          "final_pairs",
          [](const LxLBFGSOpt& o, unsigned int n) -> py::object {
            const unsigned int count = o.GetFinalPairCount();
            Array s({count, n}), y({count, n});
            LoggingSink sink;
            if (!o.GetFinalPairs(s.mutable_data(), y.mutable_data(), n, count)) return py::none();
            return py::make_tuple(s, y);
          },
          py::arg("n"), "(s, y): the pairs kept by the last run, oldest first, or None.")
      .def_property("cartesian", &LxLBFGSOpt::GetCartesian, &LxLBFGSOpt::SetCartesian,
                    "Variables are x, y, z per atom: start from a model Hessian.");
  WithAtomicNumbers(lbfgs);
  py::class_<LxDFPOpt> dfp(m, "DFP");
  WithLineMinimizer<LxDFPOpt>(Common<LxDFPOpt, LxFunc1>(dfp, "DFP"));
  py::class_<LxConjGradOpt> cg(m, "ConjGrad");
  WithLineMinimizer<LxConjGradOpt>(Common<LxConjGradOpt, LxFunc1>(cg, "ConjGrad"));
  py::class_<LxFletcherReevesOpt> fr(m, "FletcherReeves");
  WithLineMinimizer<LxFletcherReevesOpt>(
      Common<LxFletcherReevesOpt, LxFunc1>(fr, "FletcherReeves"));
  py::class_<LxRibierePolakOpt> pr(m, "PolakRibiere");
  WithLineMinimizer<LxRibierePolakOpt>(Common<LxRibierePolakOpt, LxFunc1>(pr, "RibierePolak"));
  py::class_<LxHestenesStiefelOpt> hs(m, "HestenesStiefel");
  WithLineMinimizer<LxHestenesStiefelOpt>(
      Common<LxHestenesStiefelOpt, LxFunc1>(hs, "HestenesStiefel"));
  py::class_<LxSteepestDescentOpt> sd(m, "SteepestDescent");
  Common<LxSteepestDescentOpt, LxFunc1>(sd, "SteepestDescent");
  py::class_<LxNewtonOpt> newton(m, "Newton");
  Common<LxNewtonOpt, LxFunc2>(newton, "Newton");
  py::class_<LxBFGSOptimizer> geometry(m, "Geometry");
  WithKeptHessian<LxBFGSOptimizer>(Common<LxBFGSOptimizer, LxFunc1>(geometry, "GeomBFGS"));
  geometry.def_property("history", &LxBFGSOptimizer::GetHistory, &LxBFGSOptimizer::SetHistory);
  geometry.def_property("cartesian", &LxBFGSOptimizer::GetCartesian, &LxBFGSOptimizer::SetCartesian,
                        "Variables are x, y, z per atom: start from a model Hessian.");
  WithAtomicNumbers(geometry);
  geometry.def_property("max_atom_step", &LxBFGSOptimizer::GetMaxAtomStep,
                        &LxBFGSOptimizer::SetMaxAtomStep,
                        "Hard limit on any atom's move per trial (0: none).");
  geometry.def_property("surrogate", &LxBFGSOptimizer::GetSurrogate, &LxBFGSOptimizer::SetSurrogate,
                        "Try a Gaussian-process model's minimum first in each cycle.");

  py::class_<Anneal> anneal(m, "Anneal");
  anneal.def(py::init<double>(), py::arg("temperature") = 300.0)
      .def_property("iter_limit", &Anneal::GetIterLimit, &Anneal::SetIterLimit)
      .def_property("tolerance", &Anneal::GetTolerance, &Anneal::SetTolerance);
  Minimize<Anneal, LxFunc1>(anneal, "Annealing");

  BindNewtonConstrained(m);
  m.attr("NewtonConstrained").attr("registry_name") = "NewtonConstr";
  BindMinFinder(m);
  bind_steps(m);
}
