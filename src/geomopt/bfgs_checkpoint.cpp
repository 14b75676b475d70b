// LxBFGSCheckpoint: cycle lines, one closing message per result state, and
// either a two-line summary on a stream or the statistics of the last report.
#include <cmath>
#include <cstdarg>
#include <cstdio>

#include "lxopt/geomopt.h"

namespace LxOpt {

LxAdaptor::~LxAdaptor() = default;

void LxBFGSCheckpoint::SetParams(const char* name, double* ref, unsigned int nvar,
                                 LxAdaptor* adaptor, bool verbose, lxostream* out) {
  name_ = name;
  ref_ = ref;
  nvar_ = nvar;
  adaptor_ = adaptor;
  verbose_ = verbose;
  out_ = out;
  lastCycle_ = 0;
  lastRmsGradient_ = 0.0;
}

const double* LxBFGSCheckpoint::Coordinates(const double* var, std::vector<double>& scratch) const {
  if (adaptor_ == nullptr) return var;
  scratch.assign(nvar_, 0.0);
  (*adaptor_)(var, scratch.data());
  return scratch.data();
}

double LxBFGSCheckpoint::rmsd(const double* var) const {
  if (nvar_ % 3 != 0 || var == nullptr || ref_ == nullptr) return 0.0;
  std::vector<double> scratch;
  return LxRMSD(ref_, Coordinates(var, scratch), nvar_ / 3, false, nullptr, nullptr);
}

double LxBFGSCheckpoint::maxdisp(const double* var) const {
  if (nvar_ < 3 || var == nullptr || ref_ == nullptr) return 0.0;
  std::vector<double> scratch;
  const double* c = Coordinates(var, scratch);
  double largest = 0.0;  // squared; one root at the end
  for (unsigned int atom = 0; atom < nvar_ / 3; ++atom) {
    double d2 = 0.0;
    for (unsigned int k = 3 * atom; k < 3 * atom + 3; ++k)
      d2 += (c[k] - ref_[k]) * (c[k] - ref_[k]);
    if (d2 > largest) largest = d2;
  }
  return std::sqrt(largest);
}

bool LxBFGSCheckpoint::operator()(unsigned int, unsigned int, double, const double*, unsigned int) {
  // Deliberate: the argument list is cut short at its end ("unsigned in)");
  // the text is part of the interface.
  LxThrow.Fatal("operator() %s, can't be used with LxBFGSOptimizer",
                "(unsigned int,unsigned int,double,const double*, unsigned in)");
}

void LxBFGSCheckpoint::CycleLine(unsigned int iter, double gnorm, double fval,
                                 const double* var) const {
  LxThrow.Info("cycle %5d gnorm = %11.4e %s = %11.4f rmsd = %9.4f", static_cast<int>(iter), gnorm,
               Name(), fval, rmsd(var));
}

void LxBFGSCheckpoint::WriteLine(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::vsnprintf(line_, sizeof line_, format, args);
  va_end(args);
  *out_ << line_ << lxendl;
}

bool LxBFGSCheckpoint::Summary(unsigned int iter, unsigned int nvar, double gnorm,
                               unsigned int state) {
  WriteLine("No of cycles%21d", static_cast<int>(iter));
  WriteLine("Final rms gradient   %12.5f", gnorm / std::sqrt(static_cast<double>(nvar)));
  lastState_ = state;
  return true;
}

bool LxBFGSCheckpoint::Statistics(unsigned int iter, unsigned int nvar, double gnorm,
                                  const double* var, unsigned int state) {
  lastCycle_ = iter;
  lastRmsGradient_ = gnorm / std::sqrt(static_cast<double>(nvar));
  lastMaxDisplacement_ = maxdisp(var);
  lastState_ = state;
  return true;
}

bool LxBFGSCheckpoint::SummaryOrStatistics(unsigned int iter, unsigned int nvar, double gnorm,
                                           const double* var, unsigned int state) {
  if (out_ != nullptr) return Summary(iter, nvar, gnorm, state);
  return Statistics(iter, nvar, gnorm, var, state);
}

bool LxBFGSCheckpoint::operator()(unsigned int iter, unsigned int nvar, double fval, double gnorm,
                                  const double* var, const double*, unsigned int state) {
  const bool v = verbose_;
  switch (state) {
    case kLxCont:
      if (v) CycleLine(iter, gnorm, fval, var);
      break;
    case kLxNoOpt:
      if (v) LxThrow.Info("System at minimum energy, no optimization will be done.");
      break;
    case kLxOneVar:
      if (v) LxThrow.Info("Geometry optimization done, rmsd = %12.5f", rmsd(var));
      return SummaryOrStatistics(iter, nvar, gnorm, var, state);
    case kLxNotFound:
      if (v) LxThrow.Info("No point lower in %s could be found", Name());
      if (out_ == nullptr) return Statistics(iter, nvar, gnorm, var, state);
      WriteLine("No point lower in %s could be found", Name());
      break;
    case kLxEnded:
      if (v) LxThrow.Info("Search is being ended. Final rmsd = %12.5f", rmsd(var));
      return SummaryOrStatistics(iter, nvar, gnorm, var, state);
    case kLxNotJust:
      if (v) {
        LxThrow.Info("Gradient test not passed but further calculations not justified:");
        // Deliberate: the number printed is the RMSD, not the value decrease.
        LxThrow.Info("In 5 attempts to reduce %s decrease was less than %12.5f", Name(), rmsd(var));
      }
      return SummaryOrStatistics(iter, nvar, gnorm, var, state);
    case kLxExhaust:
      if (v) {
        CycleLine(iter, gnorm, fval, var);
        LxThrow.Info("Number of cycles exhausted");
      }
      return SummaryOrStatistics(iter, nvar, gnorm, var, state);
    case kLxDist:
      if (var == nullptr) {
        if (v) LxThrow.Info("Distance test satisfied");
        break;
      }
      if (v) LxThrow.Info("Distance test satisfied, rmsd = %12.5f", rmsd(var));
      if (out_ != nullptr && iter != 0) return Summary(iter, nvar, gnorm, state);
      return Statistics(iter, nvar, gnorm, var, state);
    case kLxFval:
      if (v) LxThrow.Info("%s test satisfied", Name());
      return Statistics(iter, nvar, gnorm, var, state);
    case kLxGrad:
      if (v) LxThrow.Info("Gradient test satisfied");
      return Statistics(iter, nvar, gnorm, var, state);
    case kLxComp:
      // gnorm carries the component limit here.
      if (v) LxThrow.Info("but gradient component is larger than %12.5f", gnorm);
      break;
    case kLxDone:
      if (v) LxThrow.Info("Geometry optimization done, %12.5f", rmsd(var));
      return SummaryOrStatistics(iter, nvar, gnorm, var, state);
    case kLxStable:
      if (v) {
        CycleLine(iter, gnorm, fval, var);
        LxThrow.Info("%s is basically stable", Name());
      }
      return Statistics(iter, nvar, gnorm, var, state);
    default:
      break;
  }
  lastState_ = state;
  return true;
}

}  // namespace LxOpt
