// LxTraceCheckpoint: records every report, chains to another checkpoint and
// writes the record as CSV.
#include <algorithm>
#include <fstream>
#include <limits>
#include <ostream>

#include "lxopt/host.h"
#include "lxopt/tools.h"

namespace LxOpt {

LxTraceCheckpoint::LxTraceCheckpoint(LxCheckpoint1* next, bool recordPoints)
    : next_(next), recordPoints_(recordPoints) {}

bool LxTraceCheckpoint::operator()(unsigned int iter, unsigned int nvar, double fval,
                                   const double* vars, unsigned int state) {
  entries_.push_back({iter, fval, std::numeric_limits<double>::quiet_NaN(), state, false, {}});
  if (recordPoints_ && vars != nullptr) entries_.back().x.assign(vars, vars + nvar);
  return next_ == nullptr || (*next_)(iter, nvar, fval, vars, state);
}

bool LxTraceCheckpoint::operator()(unsigned int iter, unsigned int nvar, double fval, double gnorm,
                                   const double* vars, const double* grad, unsigned int state) {
  entries_.push_back({iter, fval, gnorm, state, grad != nullptr, {}});
  if (recordPoints_ && vars != nullptr) entries_.back().x.assign(vars, vars + nvar);
  return next_ == nullptr || (*next_)(iter, nvar, fval, gnorm, vars, grad, state);
}

void LxTraceCheckpoint::WriteCsv(std::ostream& out) const {
  std::size_t columns = 0;
  for (const LxTraceEntry& e : entries_) columns = std::max(columns, e.x.size());
  out << "iter,value,gnorm,state";
  for (std::size_t i = 0; i < columns; ++i) out << ",x" << i;
  out << '\n';
  const std::streamsize oldPrecision = out.precision(17);
  for (const LxTraceEntry& e : entries_) {
    out << e.iter << ',' << e.fval << ',' << e.gnorm << ',' << LxGetStateName(e.state);
    for (std::size_t i = 0; i < columns; ++i) {
      out << ',';
      if (i < e.x.size()) out << e.x[i];
    }
    out << '\n';
  }
  out.precision(oldPrecision);
}

bool LxTraceCheckpoint::WriteCsv(const std::string& path) const {
  std::ofstream file(path);
  if (file) WriteCsv(file);
  if (!file) {
    LxThrow.Warning("Can't write the trace to %s", path.c_str());
    return false;
  }
  return true;
}

}  // namespace LxOpt
