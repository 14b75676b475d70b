// One optimizer that keeps state between calls, chosen by the first bytes,
// driven through a random sequence of operations on the same object: runs
// over different numbers of variables, setting changes, keep-Hessian on and
// off, Hessian extraction with the right and wrong sizes, copies and
// assignments (the minimum finder: set-ups, searches and queries). Every
// buffer handed over is exactly as long as the size it is handed with, so the
// sanitizers see any write past it. Checks what must hold between calls:
// the element count of the last run, extraction only for the right size,
// copies that answer as the original does.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <deque>
#include <limits>
#include <memory>
#include <type_traits>
#include <vector>

#include "fuzz_input.h"
#include "lxopt/geomopt.h"
#include "lxopt/minfinder.h"
#include "lxopt/newton.h"
#include "lxopt/quasinewton.h"

namespace {

using lxfuzz::Bytes;
using lxfuzz::Check;

enum Choice : unsigned int {
  kBFGS,
  kBFGSMod,
  kDFP,
  kGeometry,
  kNewton,
  kNewtonConstr,
  kFinder,
  kChoices
};

constexpr unsigned int kMaxOperations = 16;
constexpr unsigned int kDenseCap = 40;      // variables of the dense quasi-Newton runs
constexpr unsigned int kNewtonCap = 12;     // Newton factorises n x n every step
constexpr unsigned int kFinderCap = 5;      // the finder runs many local searches
constexpr std::uint64_t kMaxBudget = 1500;  // evaluations before an objective turns flat

bool SameBits(const std::vector<double>& a, const std::vector<double>& b) {
  return a.size() == b.size() &&
         (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(double)) == 0);
}

std::size_t Packed(unsigned int m) {
  return static_cast<std::size_t>(m) * (m + 1) / 2;
}

// What one input works with: its bytes, and every objective and restraint it
// made, alive until the end (the optimizers and the finder borrow them; a
// failed Setup still keeps its objective).
struct Session {
  explicit Session(Bytes& bytes) : in(bytes) {}

  lxfuzz::Polynomial& NewObjective(unsigned int cap) {
    const unsigned int n = in.Below(cap + 1);
    objectives.push_back(std::make_unique<lxfuzz::Polynomial>(in, n, in.Range(1, kMaxBudget)));
    return *objectives.back();
  }

  // A size to extract with: mostly the last run's, else near it or any.
  unsigned int SizeNear(unsigned int n, unsigned int cap) {
    switch (in.Below(4)) {
      case 0:
        return n + 1;
      case 1:
        return n > 0 ? n - 1 : 0;
      case 2:
        return in.Below(cap + 2);
      default:
        return n;
    }
  }

  Bytes& in;
  std::deque<std::unique_ptr<lxfuzz::Polynomial>> objectives;
  std::deque<std::unique_ptr<lxfuzz::Restraint>> restraints;
  unsigned int lastN = 0;  // variables of the last run of any object
};

// The optimizers with an element count: n x n of their latest run.
template <class Opt>
constexpr bool kHasDimension =
    std::is_base_of_v<LxOpt::LxBFGSOpt, Opt> || std::is_same_v<Opt, LxOpt::LxBFGSOptimizer>;

// One run of opt on a new objective with up to cap variables.
template <class Opt>
void Run(Opt& opt, Session& s, unsigned int cap) {
  auto& func = s.NewObjective(cap);
  const unsigned int n = func.NumVar();
  lxfuzz::StoppingCheckpoint checkpoint(s.in, n);
  std::vector<double> start = lxfuzz::StartPoint(s.in, n), out(n);
  const bool inPlace = s.in.Bool();
  const bool withCheckpoint = s.in.Below(4) != 0;
  opt(func, withCheckpoint ? &checkpoint : nullptr, start.data(),
      inPlace ? start.data() : out.data());
  s.lastN = n;
  if constexpr (kHasDimension<Opt>)
    Check(opt.GetHessianDimension() == n * n, "element count of the last run");
}

template <class Opt>
void ChangeSettings(Opt& opt, Bytes& in) {
  if (in.Bool()) opt.SetIterLimit(in.Below(40));
  if (in.Bool()) opt.SetTolerance(in.Tolerance());
}

template <class Opt>
void ExpectSameSettings(const Opt& a, const Opt& b) {
  const double ta = a.GetTolerance(), tb = b.GetTolerance();
  Check(a.GetIterLimit() == b.GetIterLimit() && std::memcmp(&ta, &tb, sizeof ta) == 0,
        "a copy has the settings of its source");
}

// Extracts the inverse Hessian for m variables into a buffer of exactly
// m (m + 1) / 2 values; returns whether it was given and what was written.
template <class Opt>
bool Extract(const Opt& opt, unsigned int m, std::vector<double>& h) {
  h.assign(Packed(m), -7.0);
  return opt.GetInverseHessian(h.data(), m);
}

// A kept inverse Hessian is given only for the n of the object's latest run
// (its element count is n x n), whatever n the kept matrix was made for.
template <class Opt>
void CheckExtraction(const Opt& opt, unsigned int m) {
  std::vector<double> h;
  const bool given = Extract(opt, m, h);
  Check(!given || opt.GetHessianDimension() == m * m, "extraction only for the latest run's n");
}

// A copy extracts what its source does; then either may diverge and be
// assigned back.
template <class Opt>
void CopyAndAssign(Opt& opt, Session& s, unsigned int cap, unsigned int m) {
  Opt copy(opt);
  ExpectSameSettings(copy, opt);
  Check(copy.GetKeepHessian() == opt.GetKeepHessian(), "a copy keeps the keep-Hessian flag");
  Check(copy.GetHessianDimension() == opt.GetHessianDimension(), "a copy keeps the dimension");
  std::vector<double> a, b;
  const bool fromCopy = Extract(copy, m, a), fromSource = Extract(opt, m, b);
  Check(fromCopy == fromSource && (!fromCopy || SameBits(a, b)),
        "a copy extracts what its source does");
  switch (s.in.Below(4)) {
    case 0:
      Run(copy, s, cap);
      opt = copy;
      break;
    case 1: {
      Opt assigned;
      assigned = opt;
      Run(opt, s, cap);
      opt = assigned;
      break;
    }
    case 2: {
      Opt* const alias = &opt;  // self-assignment leaves the object as it is
      opt = *alias;
      Extract(opt, m, b);
      Check(!fromSource || SameBits(a, b), "self-assignment keeps the matrix");
      break;
    }
    default:
      Run(copy, s, cap);
      break;
  }
}

// LxBFGSOpt and LxBFGSModOpt.
template <class Opt>
void BFGSFamily(Session& s) {
  Opt opt;
  const unsigned int operations = s.in.Range(1, kMaxOperations);
  for (unsigned int k = 0; k < operations && s.in.Remaining() > 0; ++k) {
    const unsigned int m = s.SizeNear(s.lastN, kDenseCap);
    switch (s.in.Below(9)) {
      case 0:
      case 1:
        Run(opt, s, kDenseCap);
        break;
      case 2:
        ChangeSettings(opt, s.in);
        break;
      case 3:
        opt.SetLineMinimize(*lxfuzz::MakeLineMinimizer(s.in, s.lastN));
        break;
      case 4:
        opt.SetKeepHessian(!opt.GetKeepHessian());
        break;
      case 5:
        CheckExtraction(opt, m);
        break;
      case 6: {
        const std::vector<double> packed = lxfuzz::RandomPacked(s.in, m);
        if (s.in.Bool())
          opt.SetInitialInverseHessian(packed.data(), m);
        else
          opt.SetInitialHessian(packed.data(), m);
        break;
      }
      case 7:
        CopyAndAssign(opt, s, kDenseCap, m);
        break;
      default:
        if constexpr (std::is_same_v<Opt, LxOpt::LxBFGSModOpt>) {
          // Work and carried matrices of exactly m x m.
          std::vector<double> work(static_cast<std::size_t>(m) * m), persistent(work.size());
          for (double& v : persistent) v = s.in.Number();
          opt.SetHessian(work.data(), persistent.data(), m);
        } else {
          Run(opt, s, kDenseCap);
        }
        break;
    }
  }
}

void DFP(Session& s) {
  LxOpt::LxDFPOpt opt;
  const unsigned int operations = s.in.Range(1, kMaxOperations);
  for (unsigned int k = 0; k < operations && s.in.Remaining() > 0; ++k) {
    switch (s.in.Below(5)) {
      case 0:
      case 1:
        Run(opt, s, kDenseCap);
        break;
      case 2:
        ChangeSettings(opt, s.in);
        break;
      case 3:
        opt.SetLineMinimize(*lxfuzz::MakeLineMinimizer(s.in, s.lastN));
        break;
      default: {
        LxOpt::LxDFPOpt copy(opt), assigned;
        ExpectSameSettings(copy, opt);
        assigned = copy;
        ExpectSameSettings(assigned, opt);
        Run(s.in.Bool() ? copy : assigned, s, kDenseCap);
        opt = s.in.Bool() ? copy : assigned;
        break;
      }
    }
  }
}

void Geometry(Session& s) {
  LxOpt::LxBFGSOptimizer opt;
  const unsigned int operations = s.in.Range(1, kMaxOperations);
  for (unsigned int k = 0; k < operations && s.in.Remaining() > 0; ++k) {
    const unsigned int m = s.SizeNear(s.lastN, kDenseCap);
    switch (s.in.Below(7)) {
      case 0:
      case 1:
        Run(opt, s, kDenseCap);
        break;
      case 2:
        ChangeSettings(opt, s.in);
        break;
      case 3:
        opt.SetKeepHessian(!opt.GetKeepHessian());
        break;
      case 4:
        opt.SetHistory(!opt.GetHistory());
        break;
      case 5:
        CheckExtraction(opt, m);
        break;
      default:
        CopyAndAssign(opt, s, kDenseCap, m);
        break;
    }
  }
}

// The two Newton fronts; the constrained one also adds and removes
// restraints, some over another number of variables (refused at the run).
template <class Opt>
void Newton(Session& s) {
  Opt opt;
  const unsigned int operations = s.in.Range(1, kMaxOperations);
  for (unsigned int k = 0; k < operations && s.in.Remaining() > 0; ++k) {
    switch (s.in.Below(6)) {
      case 0:
      case 1:
        Run(opt, s, kNewtonCap);
        break;
      case 2:
        ChangeSettings(opt, s.in);
        break;
      case 3: {
        Opt copy(opt), assigned;
        ExpectSameSettings(copy, opt);
        assigned = copy;
        Run(s.in.Bool() ? copy : assigned, s, kNewtonCap);
        opt = s.in.Bool() ? copy : assigned;
        break;
      }
      case 4: {
        auto& func = s.NewObjective(kNewtonCap);
        std::vector<double> start = lxfuzz::StartPoint(s.in, func.NumVar()), out(func.NumVar());
        opt.GetImpl()->PreconditionWSteepestDescent(func, start.data(), out.data());
        break;
      }
      default:
        if constexpr (std::is_same_v<Opt, LxOpt::LxNewtonConstrOpt>) {
          if (s.restraints.empty() || s.in.Bool()) {
            const unsigned int n = s.in.Bool() ? s.lastN : s.in.Below(kNewtonCap + 1);
            s.restraints.push_back(std::make_unique<lxfuzz::Restraint>(n, s.in.Number()));
            opt.Add(*s.restraints.back());
          } else {
            opt.Remove(*s.restraints[s.in.Below(static_cast<unsigned int>(s.restraints.size()))]);
          }
        } else {
          Run(opt, s, kNewtonCap);
        }
        break;
    }
  }
}

// A bound of a window around 0: an objective that has turned flat (value 0)
// must be able to pass every window, or the search for a first minimum, which
// has no bound of its own, would never end.
double WindowBound(Bytes& in) {
  static const double kBounds[] = {std::numeric_limits<double>::max(), 1e6, 1.0, 1e-3};
  return kBounds[in.Below(4)];
}

void FinderSettings(LxOpt::LxMinfinder::LxMinfinder& finder, Bytes& in) {
  switch (in.Below(6)) {
    case 0:
      finder.SetMaxSample(in.Below(300));
      finder.SetThresholdNumberOfNoChange(in.Below(80));
      finder.SetMaxNumOptPoints(in.Range(1, 12));
      break;
    case 1:
      finder.SetFvalSampleMax(WindowBound(in));
      finder.SetFvalSampleMin(-WindowBound(in));
      break;
    case 2:
      finder.SetFvalMinimaMax(WindowBound(in));
      finder.SetFvalMinimaMin(-WindowBound(in));
      finder.SetFvalMinimaWindow(in.Number());
      break;
    case 3:
      finder.SetLocalOptTolerance(in.Tolerance());
      finder.SetLocalOptMaxIter(in.Below(40));
      break;
    case 4:
      finder.SetSamePointTolerance(in.Number());
      finder.SetCheckMinimumInRange(in.Bool());
      finder.SetKeepDegenerateStates(in.Bool());
      break;
    default:
      finder.SetSeed(in.U32());
      finder.SetTimeLimit(in.Bool() ? -1.0 : 6.0);
      break;
  }
}

// Bounds for n variables: mostly a valid box, sometimes of the wrong length
// or with a lower bound not below its upper one.
void Bounds(Bytes& in, unsigned int n, std::vector<double>& lower, std::vector<double>& upper) {
  const unsigned int kind = in.Below(8);
  const unsigned int length = kind == 0 ? in.Below(kFinderCap + 2) : n;
  lower.assign(length, 0.0);
  upper.assign(kind == 1 ? length + 1 : length, 0.0);
  for (unsigned int i = 0; i < length; ++i) {
    lower[i] = in.Moderate(4.0);
    upper[i] = kind == 2 ? lower[i] - in.Unit() : lower[i] + 0.01 + in.Unit() * 6.0;
  }
}

void Finder(Session& s) {
  using namespace LxOpt::LxMinfinder;
  LxMinfinder finder;
  finder.SetMaxSample(120);
  finder.SetThresholdNumberOfNoChange(30);
  finder.SetMaxNumOptPoints(6);
  finder.SetLocalOptMaxIter(30);
  GetRandomVariablesGeneral uniform;
  unsigned int setUpN = 0;  // variables of the last successful Setup
  const unsigned int operations = s.in.Range(1, kMaxOperations);
  for (unsigned int k = 0; k < operations && s.in.Remaining() > 0; ++k) {
    switch (s.in.Below(6)) {
      case 0:
      case 1: {
        auto& func = s.NewObjective(kFinderCap);
        std::vector<double> lower, upper;
        Bounds(s.in, func.NumVar(), lower, upper);
        if (finder.Setup(func, s.in.Below(8) == 0 ? nullptr : &uniform, lower, upper))
          setUpN = func.NumVar();
        break;
      }
      case 2:
        finder.Optimize();
        break;
      case 3:
        FinderSettings(finder, s.in);
        break;
      case 4: {
        std::vector<double> coords, values;
        if (finder.GetMinimums(coords, values)) {
          Check(coords.size() == values.size() * setUpN, "n coordinates per minimum");
          Check(std::is_sorted(values.begin(), values.end()), "minima in ascending order");
        } else {
          Check(coords.empty() && values.empty(), "no minima: both outputs empty");
        }
        if (s.in.Bool()) finder.PrintMinimums();
        break;
      }
      default: {
        // The implementation's point tests, on arrays of the set-up size.
        LxMinfinderImpl& impl = *finder.GetImpl();
        std::vector<double> x = lxfuzz::StartPoint(s.in, setUpN), grad(setUpN);
        double value = 0.0;
        if (s.in.Bool())
          impl.ValidateMinimum(grad.data(), x.data());
        else
          impl.IsItValidPointVer2(grad.data(), value, x.data());
        break;
      }
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Bytes in(data, size);
  Session s(in);
  switch (in.Below(kChoices)) {
    case kBFGS:
      BFGSFamily<LxOpt::LxBFGSOpt>(s);
      break;
    case kBFGSMod:
      BFGSFamily<LxOpt::LxBFGSModOpt>(s);
      break;
    case kDFP:
      DFP(s);
      break;
    case kGeometry:
      Geometry(s);
      break;
    case kNewton:
      Newton<LxOpt::LxNewtonOpt>(s);
      break;
    case kNewtonConstr:
      Newton<LxOpt::LxNewtonConstrOpt>(s);
      break;
    case kFinder:
      Finder(s);
      break;
    default:
      break;
  }
  return 0;
}
