// The geometry driver and L-BFGS behind a C interface, for the molecular
// benchmark script (loaded with ctypes). The objective is a C callback that
// writes the gradient and returns the value; the script stops a run by
// answering with a zero gradient once it has seen what it needs.
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "lxopt/geomopt.h"
#include "lxopt/quasinewton.h"

// Writes the gradient at x into g and returns the value.
extern "C" typedef double (*LxmCallback)(const double* x, double* g);

namespace {

using Callback = LxmCallback;

class CallbackObjective : public LxOpt::LxFunc1 {
 public:
  using LxOpt::LxFunc1::operator();
  CallbackObjective(unsigned int n, Callback fg) : n_(n), fg_(fg) {}
  unsigned int NumVar() const override { return n_; }
  double operator()(const double* x) override {
    scratch_.assign(n_, 0.0);
    return fg_(x, scratch_.data());
  }
  double operator()(const double* x, double* g) override { return fg_(x, g); }
  std::vector<LxOpt::LxFComponent> GetFComponents(const double*) override { return {}; }

 private:
  unsigned int n_;
  Callback fg_;
  std::vector<double> scratch_;
};

// "key=value" words; unknown keys are ignored.
double Setting(const char* settings, const char* key, double fallback) {
  std::istringstream words(settings != nullptr ? settings : "");
  std::string word;
  const std::string prefix = std::string(key) + "=";
  while (words >> word)
    if (word.compare(0, prefix.size(), prefix) == 0) return std::atof(word.c_str() + prefix.size());
  return fallback;
}

// Counts the cycles of the last run.
class CycleCounter : public LxOpt::LxCheckpoint1 {
 public:
  using LxOpt::LxCheckpoint1::operator();
  bool operator()(unsigned int iter, unsigned int, double, double, const double*, const double*,
                  unsigned int) override {
    cycles = iter;
    return true;
  }
  unsigned int cycles = 0;
};

// Atomic numbers for runs with "elements=1", set by lxm_set_atomic_numbers.
std::vector<int>& Elements() {
  static std::vector<int> numbers;
  return numbers;
}

CycleCounter& LastRun() {
  static CycleCounter counter;
  return counter;
}

}  // namespace

extern "C" {
// Cycles (iterations) of the last run, as its checkpoint last saw them.
int lxm_last_cycles();
void lxm_set_atomic_numbers(const int* numbers, int atoms);
double lxm_minimize(int method, int n, const double* x0, double* out, LxmCallback fg,
                    const char* settings);
}

// method 0: LxBFGSOptimizer, 1: LxLBFGSOpt. settings: "tolerance=1e-10
// iterlimit=100000 memory=8 cartesian=1 surrogate=1 elements=1 ..." (elements: the
// atomic numbers of lxm_set_atomic_numbers). Writes the final point to out
// and returns the final value.
extern "C" double lxm_minimize(int method, int n, const double* x0, double* out, LxmCallback fg,
                               const char* settings) {
  CallbackObjective func(static_cast<unsigned int>(n), fg);
  LastRun().cycles = 0;
  const double tolerance = Setting(settings, "tolerance", 1e-10);
  const unsigned int limit = static_cast<unsigned int>(Setting(settings, "iterlimit", 100000));
  if (method == 0) {
    LxOpt::LxBFGSOptimizer opt;
    opt.SetTolerance(tolerance);
    opt.SetIterLimit(limit);
    opt.SetCartesian(Setting(settings, "cartesian", 0) != 0);
    opt.SetSurrogate(Setting(settings, "surrogate", 0) != 0);
    if (Setting(settings, "elements", 0) != 0)
      opt.SetAtomicNumbers(Elements().data(), static_cast<unsigned int>(Elements().size()));
    return opt(func, &LastRun(), x0, out);
  }
  LxOpt::LxLBFGSOpt opt;
  opt.SetTolerance(tolerance);
  opt.SetIterLimit(limit);
  opt.SetMemory(static_cast<unsigned int>(Setting(settings, "memory", 8)));
  opt.SetCartesian(Setting(settings, "cartesian", 0) != 0);
  if (Setting(settings, "elements", 0) != 0)
    opt.SetAtomicNumbers(Elements().data(), static_cast<unsigned int>(Elements().size()));
  return opt(func, &LastRun(), x0, out);
}

extern "C" void lxm_set_atomic_numbers(const int* numbers, int atoms) {
  Elements().assign(numbers, numbers + (atoms > 0 ? atoms : 0));
}

extern "C" int lxm_last_cycles() {
  return static_cast<int>(LastRun().cycles);
}
