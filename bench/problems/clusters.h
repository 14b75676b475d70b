// Lennard-Jones clusters from perturbed starts, the geometry-optimization
// part of the peer comparison: ten 13-atom icosahedra and three 38-atom fcc
// truncated octahedra, each with every coordinate moved by a uniform random
// amount (std::mt19937 with a fixed seed per start), relaxing into the
// global minima -44.326801 (LJ13) and -173.928427 (LJ38).
#ifndef LXBENCH_CLUSTERS_H
#define LXBENCH_CLUSTERS_H

#include <cmath>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "extra.h"
#include "problem.h"

namespace lxbench {

// A centred icosahedron of radius 1.1: 13 atoms.
inline std::vector<double> Icosahedron13() {
  const double phi = (1.0 + std::sqrt(5.0)) / 2.0;
  const double scale = 1.1 / std::sqrt(1.0 + phi * phi);
  std::vector<double> x = {0.0, 0.0, 0.0};
  for (double a : {-1.0, 1.0})
    for (double b : {-phi, phi}) {
      for (double v : {0.0, a, b}) x.push_back(v * scale);
      for (double v : {a, b, 0.0}) x.push_back(v * scale);
      for (double v : {b, 0.0, a}) x.push_back(v * scale);
    }
  return x;
}

// The fcc truncated octahedron of 38 atoms around an octahedral hole: on the
// lattice of integer points with an odd coordinate sum, the shells (1,0,0)
// (6 atoms), (1,1,1) (8) and (2,1,0) (24), scaled to a nearest-neighbour
// distance of 1.1.
inline std::vector<double> TruncatedOctahedron38() {
  const double scale = 1.1 / std::sqrt(2.0);
  std::vector<double> x;
  for (int i = -2; i <= 2; ++i)
    for (int j = -2; j <= 2; ++j)
      for (int k = -2; k <= 2; ++k) {
        const int r2 = i * i + j * j + k * k;
        if ((i + j + k) % 2 != 0 && (r2 == 1 || r2 == 3 || r2 == 5))
          for (int v : {i, j, k}) x.push_back(v * scale);
      }
  return x;
}

class PerturbedCluster : public LennardJonesCluster {
 public:
  PerturbedCluster(std::string name, std::vector<double> start, double fstar)
      : LennardJonesCluster(static_cast<unsigned int>(start.size() / 3)),
        name_(std::move(name)),
        start_(std::move(start)),
        fstar_(fstar) {}
  std::string Name() const override { return name_; }
  std::vector<double> Start() const override { return start_; }
  double FStar() const override { return fstar_; }

  // x with every coordinate moved by a uniform amount in [-amplitude, amplitude].
  static std::vector<double> Perturbed(std::vector<double> x, unsigned int seed, double amplitude) {
    std::mt19937 engine(seed);
    std::uniform_real_distribution<double> shift(-amplitude, amplitude);
    for (double& v : x) v += shift(engine);
    return x;
  }

 private:
  std::string name_;
  std::vector<double> start_;
  double fstar_;
};

constexpr double kLJ13Minimum = -44.326801;
constexpr double kLJ38Minimum = -173.928427;
constexpr double kClusterPerturbation = 0.1;
constexpr unsigned int kLJ13Starts = 10;
constexpr unsigned int kLJ38Starts = 3;

inline std::vector<std::unique_ptr<Problem>> ClusterSet() {
  std::vector<std::unique_ptr<Problem>> set;
  for (unsigned int s = 1; s <= kLJ13Starts; ++s)
    set.emplace_back(new PerturbedCluster(
        "lj13_ico_s" + std::to_string(s),
        PerturbedCluster::Perturbed(Icosahedron13(), s, kClusterPerturbation), kLJ13Minimum));
  for (unsigned int s = 1; s <= kLJ38Starts; ++s)
    set.emplace_back(new PerturbedCluster(
        "lj38_to_s" + std::to_string(s),
        PerturbedCluster::Perturbed(TruncatedOctahedron38(), s, kClusterPerturbation),
        kLJ38Minimum));
  return set;
}

}  // namespace lxbench

#endif  // LXBENCH_CLUSTERS_H
