// lxopt.AskTell: the reverse-communication form of the gradient optimizers
// for Python programs that own their evaluation loop (lxopt.ase and
// lxopt.rdkit are built on it). ask() and tell() release the GIL while they
// wait for the optimizer's worker thread, which runs no Python code.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <string>

#include "lxopt/lxopt.h"

namespace py = pybind11;
using namespace LxOpt;

// Called from the module's initialisation (module.cpp).
void bind_steps(py::module_& m);

namespace {

using Array = py::array_t<double, py::array::c_style | py::array::forcecast>;

// The optimizer behind one of the module's optimizer classes, or null.
template <class First, class... Rest>
LxOptimizer1* AsOptimizer(const py::object& o) {
  if (py::isinstance<First>(o)) return &py::cast<First&>(o);
  if constexpr (sizeof...(Rest) > 0) return AsOptimizer<Rest...>(o);
  return nullptr;
}

// One ask/tell run; keeps the Python optimizer object alive while it runs.
class PyAskTell {
 public:
  PyAskTell(py::object optimizer, const py::object& x0) : optimizer_(std::move(optimizer)) {
    LxOptimizer1* opt = AsOptimizer<LxBFGSOptimizer, LxLBFGSOpt, LxBFGSOpt, LxBFGSModOpt, LxDFPOpt,
                                    LxConjGradOpt, LxFletcherReevesOpt, LxRibierePolakOpt,
                                    LxHestenesStiefelOpt, LxSteepestDescentOpt>(optimizer_);
    if (opt == nullptr) {
      throw py::type_error(
          "AskTell runs Geometry, LBFGS, BFGS, BFGSCarry, DFP, ConjGrad, FletcherReeves, "
          "PolakRibiere, HestenesStiefel or SteepestDescent");
    }
    Array start = Array::ensure(x0);
    if (!start || start.ndim() != 1) throw py::value_error("x0 must be a 1-D array of floats");
    run_.Start(*opt, start.data(), static_cast<unsigned int>(start.size()));
  }
  ~PyAskTell() {
    // A worker that is still computing may log a message, which needs the GIL.
    py::gil_scoped_release release;
    run_.Reset();
  }

  py::object Ask() {
    const double* x;
    {
      py::gil_scoped_release release;
      x = run_.Ask();
    }
    if (x == nullptr) return py::none();
    return Array(run_.NumVar(), x);
  }

  bool Tell(double f, const py::object& grad) {
    if (grad.is_none()) {
      py::gil_scoped_release release;
      return run_.Tell(f, nullptr);
    }
    Array g = Array::ensure(grad);
    if (!g || static_cast<unsigned int>(g.size()) != run_.NumVar()) {
      throw py::value_error("the gradient must have " + std::to_string(run_.NumVar()) + " values");
    }
    py::gil_scoped_release release;
    return run_.Tell(f, g.data());
  }

  void Reset() {
    py::gil_scoped_release release;
    run_.Reset();
  }

  py::object Point() const {
    const double* x = run_.GetPoint();
    if (x == nullptr) return py::none();
    return Array(run_.NumVar(), x);
  }

  const LxAskTell& Run() const { return run_; }

 private:
  py::object optimizer_;
  LxAskTell run_;
};

}  // namespace

void bind_steps(py::module_& m) {
  py::class_<PyAskTell>(m, "AskTell", R"(The optimizer's run driven by the caller's loop.

    run = AskTell(optimizer, x0)   # optimizer: Geometry, LBFGS, BFGS, ...
    while (x := run.ask()) is not None:
        f, g = fun_and_grad(x)
        run.tell(f, g)
    run.x, run.fun, run.status

The points asked for are exactly those that optimizer.minimize would
evaluate. The optimizer object must not be used elsewhere while the run
is in progress.)")
      .def(py::init<py::object, const py::object&>(), py::arg("optimizer"), py::arg("x0"))
      .def("ask", &PyAskTell::Ask,
           "The next point to evaluate (a new array), or None once the run has finished.")
      .def("tell", &PyAskTell::Tell, py::arg("f"), py::arg("grad") = py::none(),
           "Value and gradient at the point last asked for; grad may be None when "
           "gradient_wanted is False. False when no point was waiting.")
      .def("reset", &PyAskTell::Reset, "Ends the run; ask() then returns None.")
      .def_property_readonly("gradient_wanted",
                             [](const PyAskTell& s) { return s.Run().GradientWanted(); })
      .def_property_readonly("finished", [](const PyAskTell& s) { return s.Run().Finished(); })
      .def_property_readonly("x", &PyAskTell::Point, "Final point, None until finished.")
      .def_property_readonly(
          "fun", [](const PyAskTell& s) { return s.Run().GetValue(); },
          "Value the optimizer returned.")
      .def_property_readonly(
          "status", [](const PyAskTell& s) { return s.Run().LastRun().state; },
          "State that decided the finished run (0 while running).")
      .def_property_readonly(
          "nit", [](const PyAskTell& s) { return s.Run().LastRun().iterations; },
          "Iterations of the finished run.")
      .def_property_readonly(
          "converged", [](const PyAskTell& s) { return s.Run().LastRun().converged; },
          "Whether the finished run's state means convergence.")
      .def_property_readonly(
          "nfev", [](const PyAskTell& s) { return s.Run().GetEvaluations(); },
          "Points asked for so far.");
}
