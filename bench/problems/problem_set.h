// The whole benchmark problem set, in a fixed order: the 35 More-Garbow-
// Hillstrom problems, LxTestF at n = 2, 10, 100, 1000, and the 13-atom
// Lennard-Jones cluster.
#ifndef LXBENCH_PROBLEM_SET_H
#define LXBENCH_PROBLEM_SET_H

#include <memory>
#include <vector>

#include "extra.h"
#include "mgh.h"
#include "problem.h"

namespace lxbench {

inline std::vector<std::unique_ptr<Problem>> ProblemSet() {
  std::vector<std::unique_ptr<Problem>> set;
  auto add = [&set](Problem* p) { set.emplace_back(p); };
  using namespace mgh;  // NOLINT: the model list below reads as the paper's table
  add(new LeastSquares<Rosenbrock>);
  add(new LeastSquares<FreudensteinRoth>);
  add(new LeastSquares<PowellBadlyScaled>);
  add(new LeastSquares<BrownBadlyScaled>);
  add(new LeastSquares<Beale>);
  add(new LeastSquares<JennrichSampson>);
  add(new LeastSquares<HelicalValley>);
  add(new LeastSquares<Bard>);
  add(new LeastSquares<Gaussian>);
  add(new LeastSquares<Meyer>);
  add(new LeastSquares<GulfResearch>);
  add(new LeastSquares<Box3D>);
  add(new LeastSquares<PowellSingular>);
  add(new LeastSquares<Wood>);
  add(new LeastSquares<KowalikOsborne>);
  add(new LeastSquares<BrownDennis>);
  add(new LeastSquares<Osborne1>);
  add(new LeastSquares<BiggsExp6>);
  add(new LeastSquares<Osborne2>);
  add(new LeastSquares<Watson>);
  add(new LeastSquares<ExtendedRosenbrock>);
  add(new LeastSquares<ExtendedPowell>);
  add(new LeastSquares<PenaltyI>);
  add(new LeastSquares<PenaltyII>);
  add(new LeastSquares<VariablyDimensioned>);
  add(new LeastSquares<Trigonometric>);
  add(new LeastSquares<BrownAlmostLinear>);
  add(new LeastSquares<DiscreteBoundary>);
  add(new LeastSquares<DiscreteIntegral>);
  add(new LeastSquares<BroydenTridiagonal>);
  add(new LeastSquares<BroydenBanded>);
  add(new LeastSquares<LinearFullRank>);
  add(new LeastSquares<LinearRank1>);
  add(new LeastSquares<LinearRank1Zero>);
  add(new LeastSquares<Chebyquad>);
  for (unsigned int n : {2u, 10u, 100u, 1000u}) add(new TestFProblem(n));
  add(new LennardJones13);
  return set;
}

}  // namespace lxbench

#endif  // LXBENCH_PROBLEM_SET_H
