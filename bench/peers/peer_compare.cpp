// Runs every method of LxOpt, GSL and dlib on every problem of the benchmark
// set and the perturbed clusters, and writes one CSV row per (problem, method):
//   problem,n,fstar,library,method,class,status,iterations,values,gradients,
//   hessians,fval,gnorm,time_s,repeats
// fval and gnorm are evaluated by the harness at the final point (uncounted);
// counts come from the first run; time_s is the median wall time of the
// repeats (5 for runs under 0.05 s, 3 under 0.5 s, else 1).
//
// Usage: peer_compare OUT.csv [problem-substring [method-substring]]; the
// method filter matches "library/method" (for example "LxOpt/Geom").
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "../problems/clusters.h"
#include "../problems/problem_set.h"
#include "harness.h"

namespace {

using lxbench::Counting;
using lxbench::Method;
using lxbench::Outcome;
using lxbench::Problem;
using Clock = std::chrono::steady_clock;

double Seconds(Clock::time_point since) {
  return std::chrono::duration<double>(Clock::now() - since).count();
}

int RepeatsFor(double firstRun) {
  return firstRun < 0.05 ? 5 : firstRun < 0.5 ? 3 : 1;
}

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  const size_t m = v.size() / 2;
  return v.size() % 2 ? v[m] : 0.5 * (v[m - 1] + v[m]);
}

void WriteRow(FILE* out, Problem& p, const Method& m, const Outcome& o, const Counting& c,
              double seconds, int repeats) {
  std::vector<double> g(p.NumVar(), 0.0);
  const double f = p(o.x.data(), g.data());
  double g2 = 0.0;
  for (double e : g) g2 += e * e;
  std::fprintf(out, "%s,%u,%.17g,%s,%s,%s,%s,%ld,%ld,%ld,%ld,%.17g,%.6g,%.6g,%d\n",
               p.Name().c_str(), p.NumVar(), p.FStar(), m.library.c_str(), m.name.c_str(),
               m.methodClass.c_str(), o.status.c_str(), o.iterations, c.values, c.gradients,
               c.hessians, f, std::sqrt(g2), seconds, repeats);
  std::fflush(out);
}

void RunOne(FILE* out, Problem& p, const Method& m) {
  Counting counted(p);
  Clock::time_point t0 = Clock::now();
  const Outcome first = m.run(counted);
  std::vector<double> times{Seconds(t0)};
  const Counting counts = counted;
  const int repeats = RepeatsFor(times[0]);
  for (int r = 1; r < repeats; ++r) {
    counted.Reset();
    t0 = Clock::now();
    m.run(counted);
    times.push_back(Seconds(t0));
  }
  WriteRow(out, p, m, first, counts, Median(times), repeats);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s OUT.csv [problem-substring [method-substring]]\n", argv[0]);
    return 2;
  }
  FILE* out = std::fopen(argv[1], "w");
  if (!out) {
    std::perror(argv[1]);
    return 1;
  }
  const std::string filter = argc > 2 ? argv[2] : "";
  const std::string methodFilter = argc > 3 ? argv[3] : "";
  std::fprintf(out,
               "problem,n,fstar,library,method,class,status,iterations,values,gradients,"
               "hessians,fval,gnorm,time_s,repeats\n");
  std::vector<Method> methods = lxbench::LxOptMethods();
  for (auto more : {lxbench::GslMethods(), lxbench::DlibMethods()})
    methods.insert(methods.end(), more.begin(), more.end());
  methods.erase(std::remove_if(methods.begin(), methods.end(),
                               [&](const Method& m) {
                                 return (m.library + "/" + m.name).find(methodFilter) ==
                                        std::string::npos;
                               }),
                methods.end());
  auto problems = lxbench::ProblemSet();
  for (auto& p : lxbench::ClusterSet()) problems.push_back(std::move(p));
  for (auto& p : problems) {
    if (p->Name().find(filter) == std::string::npos) continue;
    const Clock::time_point t0 = Clock::now();
    for (const Method& m : methods) RunOne(out, *p, m);
    std::fprintf(stderr, "%-28s %6.2f s\n", p->Name().c_str(), Seconds(t0));
  }
  std::fclose(out);
  return 0;
}
