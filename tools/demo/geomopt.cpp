// The geometry BFGS driver: a 13-atom Lennard-Jones cluster relaxed from a perturbed icosahedron
// with LxBFGSCheckpoint printing its cycle lines.
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "demo/demo.h"
#include "problems/clusters.h"

namespace demo {
namespace {

void RelaxCluster(const Options&) {
  lxbench::LennardJones13 cluster;
  const std::vector<double> start =  // every coordinate moved by up to 0.1
      lxbench::PerturbedCluster::Perturbed(lxbench::Icosahedron13(), 2024, 0.1);
  std::vector<double> ref = start, out(start.size());

  // The checkpoint's lines are informational messages: show them here.
  LxOpt::LxMessageSink previous = LxOpt::LxSetMessageSink([](LxOpt::LxMessageLevel level,
                                                             const std::string& text) {
    std::printf("  %s%s\n", level == LxOpt::LxMessageLevel::Info ? "" : "warning: ", text.c_str());
  });
  LxOpt::LxBFGSCheckpoint checkpoint;
  checkpoint.SetParams("Energy", ref.data(), static_cast<unsigned int>(ref.size()), nullptr, true,
                       &LxOpt::lxout);
  LxOpt::LxBFGSOptimizer opt;
  opt.SetTolerance(1e-4);
  std::fflush(stdout);
  const double e = opt(cluster, &checkpoint, start.data(), out.data());
  LxOpt::lxout.flush();
  LxOpt::LxSetMessageSink(previous);
  std::printf(
      "  LJ13 from a perturbed icosahedron: E = %.6f (known minimum %.6f), "
      "state %s\n",
      e, cluster.FStar(), LxOpt::LxGetStateName(opt.LastRun().state));
}

const Register section(Section{50, "lj13", RelaxCluster});

}  // namespace
}  // namespace demo
