// A minimum search and a numeric Hessian shared out over MPI ranks.
//
// The objective stands in for an expensive external program (a quantum
// chemistry energy, a docking score): each evaluation sleeps a fixed time
// before it returns a cheap analytic value. Run it as
//   mpirun -np 4 ./example_mpi_search [--sleep-ms 2] [--out minima.txt]
// or, for the one-process reference of the same search, without mpirun:
//   ./example_mpi_search --serial [--sleep-ms 0] [--out reference.txt]
// --out writes the minima and the Hessian at the lowest one as hexadecimal
// floating point, so that two runs can be compared bit for bit.
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "lxopt/lxopt.h"
#include "lxopt/mpi.h"

namespace {

using LxOpt::LxMinfinder::GetRandomVariablesGeneral;

constexpr unsigned int kNumVar = 3;
constexpr double kBox = 4.0;
constexpr std::uint32_t kSeed = 2026u;

// sum_i 0.02 x_i^2 + 0.03 (i + 1) x_i - cos(3 x_i): a lattice of about
// 5^3 wells of different depths in [-4, 4]^3, each evaluation costing a sleep.
class CostlyWells : public LxOpt::LxFunc1 {
 public:
  explicit CostlyWells(double sleepMs)
      : sleep_(std::chrono::microseconds(static_cast<long>(sleepMs * 1000))) {}
  using LxOpt::LxFunc1::operator();
  unsigned int NumVar() const override { return kNumVar; }
  double operator()(const double* x) override {
    Pay();
    double f = 0.0;
    for (unsigned int i = 0; i < kNumVar; ++i) f += Term(i, x[i]);
    return f;
  }
  double operator()(const double* x, double* g) override {
    Pay();
    double f = 0.0;
    for (unsigned int i = 0; i < kNumVar; ++i) {
      f += Term(i, x[i]);
      g[i] = 0.04 * x[i] + 0.03 * (i + 1) + 3.0 * std::sin(3.0 * x[i]);
    }
    return f;
  }
  std::vector<LxOpt::LxFComponent> GetFComponents(const double*) override { return {}; }
  long Evaluations() const { return evaluations_; }

 private:
  static double Term(unsigned int i, double x) {
    return 0.02 * x * x + 0.03 * (i + 1) * x - std::cos(3.0 * x);
  }
  void Pay() {
    ++evaluations_;
    if (sleep_.count() > 0) std::this_thread::sleep_for(sleep_);
  }
  std::chrono::microseconds sleep_;
  long evaluations_ = 0;
};

struct Options {
  bool serial = false;
  double sleepMs = 2.0;
  std::string out;
};

Options ParseOptions(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--serial") == 0) o.serial = true;
    if (std::strcmp(argv[i], "--sleep-ms") == 0 && i + 1 < argc) o.sleepMs = std::atof(argv[++i]);
    if (std::strcmp(argv[i], "--out") == 0 && i + 1 < argc) o.out = argv[++i];
  }
  return o;
}

// The same settings for both drivers.
template <class Finder>
void Configure(Finder& finder) {
  finder.SetSeed(kSeed);
  finder.SetFvalMinimaWindow(100.0);
  finder.SetThresholdNumberOfNoChange(200);
}

void Write(const Options& o, const std::vector<double>& coords, const std::vector<double>& values,
           const std::vector<double>& hessian) {
  if (o.out.empty()) return;
  std::FILE* file = std::fopen(o.out.c_str(), "w");
  if (file == nullptr) return;
  for (std::size_t j = 0; j < values.size(); ++j) {
    for (unsigned int i = 0; i < kNumVar; ++i) std::fprintf(file, "%a ", coords[j * kNumVar + i]);
    std::fprintf(file, "%a\n", values[j]);
  }
  std::fprintf(file, "hessian");
  for (double h : hessian) std::fprintf(file, " %a", h);
  std::fprintf(file, "\n");
  std::fclose(file);
}

void Report(int ranks, double seconds, long evaluations, std::size_t minima, double lowest) {
  std::printf("ranks %d  wall %.2f s  evaluations %ld  minima %zu  lowest %.6f\n", ranks, seconds,
              evaluations, minima, lowest);
}

// The one-process search and the one-process record form of the Hessian.
int RunSerial(const Options& o) {
  CostlyWells func(o.sleepMs);
  GetRandomVariablesGeneral generator;
  LxOpt::LxMinfinder::LxMinfinder finder;
  Configure(finder);
  const std::vector<double> lower(kNumVar, -kBox), upper(kNumVar, kBox);
  const auto start = std::chrono::steady_clock::now();
  if (!finder.Setup(func, &generator, lower, upper) || !finder.Optimize()) return 1;
  std::vector<double> coords, values;
  if (!finder.GetMinimums(coords, values)) return 1;
  std::vector<LxOpt::GradDiff> records;
  for (unsigned int i = 0; i < kNumVar; ++i)
    records.push_back(LxOpt::DifferentialGradients(func, coords.data(), i));
  std::vector<double> hessian(kNumVar * (kNumVar + 1) / 2, 0.0);
  if (!LxOpt::NumericHessian(records, hessian.data())) return 1;
  const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - start;
  Report(1, wall.count(), func.Evaluations(), values.size(), values[0]);
  Write(o, coords, values, hessian);
  return 0;
}

// The same search and Hessian over all ranks; rank 0 reports.
int RunDistributed(const Options& o) {
  const int rank = [] {
    int r = 0;
    MPI_Comm_rank(MPI_COMM_WORLD, &r);
    return r;
  }();
  const int size = [] {
    int s = 1;
    MPI_Comm_size(MPI_COMM_WORLD, &s);
    return s;
  }();
  CostlyWells func(o.sleepMs);
  GetRandomVariablesGeneral generator;
  LxOpt::LxMinfinder::LxMpiMinfinder finder;
  Configure(finder);
  const std::vector<double> lower(kNumVar, -kBox), upper(kNumVar, kBox);
  MPI_Barrier(MPI_COMM_WORLD);
  const double start = MPI_Wtime();
  if (!finder.Setup(func, &generator, lower, upper) || !finder.Optimize()) return 1;
  std::vector<double> coords, values;
  if (!finder.GetMinimums(coords, values)) return 1;
  std::vector<double> hessian(kNumVar * (kNumVar + 1) / 2, 0.0);
  if (!LxOpt::LxMpiNumericHessian(func, coords.data(), hessian.data())) return 1;
  const double wall = MPI_Wtime() - start;
  long evaluations = 0, mine = func.Evaluations();
  MPI_Reduce(&mine, &evaluations, 1, MPI_LONG, MPI_SUM, 0, MPI_COMM_WORLD);
  if (rank == 0) {
    Report(size, wall, evaluations, values.size(), values[0]);
    Write(o, coords, values, hessian);
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const Options o = ParseOptions(argc, argv);
  if (o.serial) return RunSerial(o);
  MPI_Init(&argc, &argv);
  const int status = RunDistributed(o);
  MPI_Finalize();
  return status;
}
