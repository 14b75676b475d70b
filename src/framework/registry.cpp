// The list of every optimizer (include/lxopt/registry.h).
#include "lxopt/registry.h"

#include "lxopt/anneal.h"
#include "lxopt/conjgrad.h"
#include "lxopt/geomopt.h"
#include "lxopt/newton.h"
#include "lxopt/quasinewton.h"
#include "lxopt/steepest.h"

namespace LxOpt {
namespace {

constexpr double kAnnealTemperature = 300.0;  // kelvin

// Annealing with the getters its base leaves open.
class DefaultAnneal : public LxSAOpt {
 public:
  DefaultAnneal() : LxSAOpt(kAnnealTemperature) {}
  unsigned int GetIterLimit() const override { return EvaluationLimit(); }
  double GetTolerance() const override { return Tolerance(); }
};

template <class Opt>
std::unique_ptr<LxOptimizer1> Make1() {
  return std::make_unique<Opt>();
}

template <class Opt>
std::unique_ptr<LxOptimizer2> Make2() {
  return std::make_unique<Opt>();
}

constexpr auto kG = LxObjectiveNeeds::kGradient;
constexpr auto kH = LxObjectiveNeeds::kHessian;

}  // namespace

const std::vector<LxOptimizerEntry>& LxOptimizerRegistry() {
  static const std::vector<LxOptimizerEntry> entries = {
      {"SteepestDescent", "LxSteepestDescentOpt", "SD", kG, false, Make1<LxSteepestDescentOpt>,
       nullptr},
      {"ConjGrad", "LxConjGradOpt", "CG", kG, true, Make1<LxConjGradOpt>, nullptr},
      {"FletcherReeves", "LxFletcherReevesOpt", "CG", kG, true, Make1<LxFletcherReevesOpt>,
       nullptr},
      {"RibierePolak", "LxRibierePolakOpt", "CG", kG, true, Make1<LxRibierePolakOpt>, nullptr},
      {"HestenesStiefel", "LxHestenesStiefelOpt", "CG", kG, true, Make1<LxHestenesStiefelOpt>,
       nullptr},
      {"BFGS", "LxBFGSOpt", "QN", kG, true, Make1<LxBFGSOpt>, nullptr},
      {"BFGSMod", "LxBFGSModOpt", "QN", kG, true, Make1<LxBFGSModOpt>, nullptr},
      {"DFP", "LxDFPOpt", "QN", kG, true, Make1<LxDFPOpt>, nullptr},
      {"LBFGS", "LxLBFGSOpt", "QN", kG, true, Make1<LxLBFGSOpt>, nullptr},
      {"GeomBFGS", "LxBFGSOptimizer", "QN", kG, false, Make1<LxBFGSOptimizer>, nullptr},
      {"Newton", "LxNewtonOpt", "Newton", kH, false, nullptr, Make2<LxNewtonOpt>},
      {"NewtonConstr", "LxNewtonConstrOpt", "Newton", kH, false, nullptr, Make2<LxNewtonConstrOpt>},
      {"Annealing", "LxSAOpt", "SA", kG, true, Make1<DefaultAnneal>, nullptr},
  };
  return entries;
}

const LxOptimizerEntry* LxFindOptimizer(const std::string& name) {
  for (const LxOptimizerEntry& e : LxOptimizerRegistry())
    if (name == e.name) return &e;
  return nullptr;
}

LxAnyOptimizer::LxAnyOptimizer(const LxOptimizerEntry& entry)
    : entry_(entry),
      gradient_(entry.make1 ? entry.make1() : nullptr),
      hessian_(entry.make2 ? entry.make2() : nullptr) {}

void LxAnyOptimizer::SetIterLimit(unsigned int limit) {
  gradient_ ? gradient_->SetIterLimit(limit) : hessian_->SetIterLimit(limit);
}

void LxAnyOptimizer::SetTolerance(double tolerance) {
  gradient_ ? gradient_->SetTolerance(tolerance) : hessian_->SetTolerance(tolerance);
}

unsigned int LxAnyOptimizer::GetIterLimit() const {
  return gradient_ ? gradient_->GetIterLimit() : hessian_->GetIterLimit();
}

double LxAnyOptimizer::GetTolerance() const {
  return gradient_ ? gradient_->GetTolerance() : hessian_->GetTolerance();
}

double LxAnyOptimizer::operator()(LxFunc2& func, LxCheckpoint1* checkpoint, const double* start,
                                  double* out) {
  return gradient_ ? (*gradient_)(func, checkpoint, start, out)
                   : (*hessian_)(func, checkpoint, start, out);
}

const LxRunSummary& LxAnyOptimizer::LastRun() const {
  return gradient_ ? gradient_->LastRun() : hessian_->LastRun();
}

}  // namespace LxOpt
