// lxopt-demo: minimizes the built-in problems with every optimizer and prints
// one summary table, then the demonstrations that need more than a row.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "demo/demo.h"

namespace demo {

Registry& TheRegistry() {
  static Registry registry;
  return registry;
}

const Problem* FindProblem(const std::string& name) {
  for (const Problem& p : TheRegistry().problems)
    if (p.name == name) return &p;
  return nullptr;
}

namespace {

constexpr double kTableTolerance = 1e-8;
constexpr double kGeometryTolerance = 1e-6;

// The table's first rows: every optimizer of the library, each run on a
// fresh object, at the table's tolerance (the geometry driver at its own, the
// Newton optimizer at its default). The constrained Newton run and annealing
// have sections of their own.
void AddLibraryOptimizers(Registry& r) {
  for (const LxOpt::LxOptimizerEntry& e : LxOpt::LxOptimizerRegistry()) {
    const std::string name = e.name, family = e.family;
    if (name == "NewtonConstr" || family == "SA") continue;
    const double tolerance = name == "GeomBFGS" ? kGeometryTolerance : kTableTolerance;
    r.optimizers.push_back({0, name, e.needs == LxOpt::LxObjectiveNeeds::kHessian,
                            [&e, tolerance](LxOpt::LxFunc2& f, LxOpt::LxCheckpoint1* cp,
                                            const double* start, double* out) {
                              LxOpt::LxAnyOptimizer opt(e);
                              if (e.needs == LxOpt::LxObjectiveNeeds::kGradient)
                                opt.SetTolerance(tolerance);
                              opt(f, cp, start, out);
                              return opt.LastRun();
                            }});
  }
}

// What --plot asks for: the SVG path (empty: no plot) and the problem.
struct PlotRequest {
  std::string path;
  std::string problem = "curved valley";
};

void PrintTrace(const LxOpt::LxTraceCheckpoint& trace) {
  for (const LxOpt::LxTraceEntry& e : trace.Entries())
    std::printf("    iter %6u  f = %-+14.8e  |g| = %-12.5e  %s\n", e.iter, e.fval, e.gnorm,
                LxOpt::LxGetStateName(e.state));
}

void PrintUsage() {
  std::printf(
      "usage: lxopt-demo [--trace] [--only NAME] [--plot FILE.svg [--problem NAME]] [--help]\n"
      "  --trace          print every checkpoint call\n"
      "  --only NAME      run only the optimizer or section called NAME\n"
      "  --plot FILE.svg  draw value and gradient norm against iteration for every\n"
      "                   optimizer on one problem (the curved valley unless\n"
      "                   --problem NAME), write the SVG and exit\n"
      "Optimizers:");
  for (const Optimizer& o : TheRegistry().optimizers) std::printf(" %s", o.name.c_str());
  std::printf("\nSections:");
  for (const Section& s : TheRegistry().sections) std::printf(" %s", s.name.c_str());
  std::printf("\n");
}

enum class Parsed { Run, Help, Bad };

Parsed ParseArguments(int argc, char** argv, Options& options, PlotRequest& plot) {
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--trace") == 0) {
      options.trace = true;
    } else if (std::strcmp(argv[i], "--plot") == 0 && i + 1 < argc) {
      plot.path = argv[++i];
    } else if (std::strcmp(argv[i], "--problem") == 0 && i + 1 < argc) {
      plot.problem = argv[++i];
    } else if (std::strcmp(argv[i], "--only") == 0 && i + 1 < argc) {
      options.only = argv[++i];
    } else {
      return std::strcmp(argv[i], "--help") == 0 ? Parsed::Help : Parsed::Bad;
    }
  }
  return Parsed::Run;
}

void RunTable(const Options& options) {
  Registry& r = TheRegistry();
  std::printf("%-26s %-26s %6s %16s %8s %8s %-9s %-4s %10s\n", "optimizer", "problem", "n",
              "final value", "iters", "evals", "state", "conv", "ms");
  for (const Optimizer& opt : r.optimizers) {
    if (!options.only.empty() && options.only != opt.name) continue;
    for (const Problem& p : r.problems) {
      if (opt.needsHessian && !p.hasHessian) continue;
      std::unique_ptr<LxOpt::LxFunc2> objective = p.make();
      LxOpt::LxTraceCheckpoint trace;
      std::vector<double> out(p.start.size());
      const auto t0 = std::chrono::steady_clock::now();
      const LxOpt::LxRunSummary s = opt.run(*objective, &trace, p.start.data(), out.data());
      const double ms =
          std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
      if (options.trace) {
        std::printf("  %s on %s\n", opt.name.c_str(), p.name.c_str());
        PrintTrace(trace);
      }
      std::printf("%-26s %-26s %6zu %16.8e %8u %8llu %-9s %-4s %10.3f\n", opt.name.c_str(),
                  p.name.c_str(), p.start.size(), s.value, s.iterations,
                  static_cast<unsigned long long>(s.evaluations), LxOpt::LxGetStateName(s.state),
                  s.converged ? "yes" : "no", ms);
    }
  }
  std::printf("\nKnown minima:");
  for (const Problem& p : r.problems)
    if (!std::isnan(p.knownMinimum)) std::printf("  %s %.8g;", p.name.c_str(), p.knownMinimum);
  std::printf("\n");
}

// ---------------------------------------------------------------- --plot

// One optimizer's trace: iteration, value and gradient norm of each report.
struct Series {
  std::string name;
  std::vector<LxOpt::LxTraceEntry> entries;
};

std::string XmlEscaped(const std::string& text) {
  std::string out;
  for (char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

// The plot's geometry: two stacked panels sharing the iteration axis.
constexpr double kWidth = 920, kPanelLeft = 80, kPanelWidth = 560, kPanelHeight = 250;
constexpr double kTop[2] = {50, 360};
constexpr double kFloor = 1e-16;  // smallest value drawn on a log axis
const char* const kColours[] = {"#1f77b4", "#d62728", "#2ca02c", "#ff7f0e", "#9467bd",
                                "#8c564b", "#e377c2", "#7f7f7f", "#bcbd22", "#17becf"};
constexpr std::size_t kColourCount = sizeof kColours / sizeof kColours[0];
// Series past the tenth repeat the colours with dashes, then dots.
const char* const kDashes[] = {"none", "6,3", "2,2"};

// The stroke attributes of series i.
std::string Stroke(std::size_t i) {
  return std::string("stroke=\"") + kColours[i % kColourCount] + "\" stroke-dasharray=\"" +
         kDashes[(i / kColourCount) % 3] + "\"";
}

// Log10 of the quantity a panel draws; NaN when it cannot be drawn.
double PanelValue(int panel, const LxOpt::LxTraceEntry& e, double lowest) {
  const double v = panel == 0 ? e.fval - lowest : e.gnorm;
  if (!std::isfinite(v)) return std::nan("");
  return std::log10(std::max(v, kFloor));
}

// Iterations run from a handful to thousands, so the axis is log10(1 + iter).
double XPosition(double iter, unsigned int maxIter) {
  return kPanelLeft + kPanelWidth * std::log10(1.0 + iter) / std::log10(2.0 + maxIter);
}

void WritePanel(std::FILE* svg, int panel, const std::vector<Series>& series, double lowest,
                unsigned int maxIter) {
  double lo = HUGE_VAL, hi = -HUGE_VAL;
  for (const Series& s : series)
    for (const LxOpt::LxTraceEntry& e : s.entries) {
      const double v = PanelValue(panel, e, lowest);
      if (std::isnan(v)) continue;
      lo = std::min(lo, v);
      hi = std::max(hi, v);
    }
  if (lo > hi) lo = hi = 0.0;
  lo = std::floor(lo);
  hi = std::max(std::ceil(hi), lo + 1.0);
  const double top = kTop[panel], bottom = top + kPanelHeight;
  const double yScale = kPanelHeight / (hi - lo);
  std::fprintf(svg, "<text x=\"%g\" y=\"%g\" font-size=\"14\">%s</text>\n", kPanelLeft, top - 10,
               panel == 0 ? "value minus the lowest value reached (log scale)"
                          : "gradient norm (log scale)");
  std::fprintf(svg,
               "<rect x=\"%g\" y=\"%g\" width=\"%g\" height=\"%g\" fill=\"none\" "
               "stroke=\"black\"/>\n",
               kPanelLeft, top, kPanelWidth, kPanelHeight);
  const double decadeStep = std::ceil((hi - lo) / 8.0);
  for (double d = lo; d <= hi; d += decadeStep) {
    const double y = bottom - (d - lo) * yScale;
    std::fprintf(svg,
                 "<line x1=\"%g\" y1=\"%g\" x2=\"%g\" y2=\"%g\" stroke=\"#dddddd\"/>\n"
                 "<text x=\"%g\" y=\"%g\" font-size=\"11\" text-anchor=\"end\">1e%+.0f</text>\n",
                 kPanelLeft, y, kPanelLeft + kPanelWidth, y, kPanelLeft - 6, y + 4, d);
  }
  for (double iter = 0; iter <= maxIter; iter = iter == 0 ? 1 : iter * 10)
    std::fprintf(svg,
                 "<text x=\"%g\" y=\"%g\" font-size=\"11\" text-anchor=\"middle\">%.0f</text>\n",
                 XPosition(iter, maxIter), bottom + 16, iter);
  std::fprintf(svg,
               "<text x=\"%g\" y=\"%g\" font-size=\"12\" text-anchor=\"middle\">iteration "
               "(log scale of 1 + iteration)</text>\n",
               kPanelLeft + kPanelWidth / 2, bottom + 32);
  for (std::size_t i = 0; i < series.size(); ++i) {
    std::fprintf(svg, "<polyline fill=\"none\" stroke-width=\"1.5\" %s points=\"",
                 Stroke(i).c_str());
    for (const LxOpt::LxTraceEntry& e : series[i].entries) {
      const double v = PanelValue(panel, e, lowest);
      if (std::isnan(v)) continue;
      std::fprintf(svg, "%.2f,%.2f ", XPosition(e.iter, maxIter), bottom - (v - lo) * yScale);
    }
    std::fprintf(svg, "\"/>\n");
  }
}

// Runs every optimizer the problem suits with a trace and draws the traces.
bool WritePlot(const std::string& path, const std::string& problemName) {
  const Problem* p = FindProblem(problemName);
  if (p == nullptr) {
    std::fprintf(stderr, "lxopt-demo: no problem called \"%s\"\n", problemName.c_str());
    return false;
  }
  std::vector<Series> series;
  double lowest = HUGE_VAL;
  unsigned int maxIter = 0;
  for (const Optimizer& opt : TheRegistry().optimizers) {
    if (opt.needsHessian && !p->hasHessian) continue;
    std::unique_ptr<LxOpt::LxFunc2> objective = p->make();
    LxOpt::LxTraceCheckpoint trace;
    std::vector<double> out(p->start.size());
    opt.run(*objective, &trace, p->start.data(), out.data());
    for (const LxOpt::LxTraceEntry& e : trace.Entries()) {
      if (std::isfinite(e.fval)) lowest = std::min(lowest, e.fval);
      maxIter = std::max(maxIter, e.iter);
    }
    series.push_back({opt.name, trace.Entries()});
  }
  std::FILE* svg = std::fopen(path.c_str(), "w");
  if (svg == nullptr) {
    std::fprintf(stderr, "lxopt-demo: cannot write %s\n", path.c_str());
    return false;
  }
  const double height = kTop[1] + kPanelHeight + 50;
  std::fprintf(svg,
               "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
               "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%g\" height=\"%g\" "
               "viewBox=\"0 0 %g %g\" font-family=\"sans-serif\">\n"
               "<rect width=\"100%%\" height=\"100%%\" fill=\"white\"/>\n"
               "<text x=\"%g\" y=\"24\" font-size=\"16\">LxOpt optimizers on %s</text>\n",
               kWidth, height, kWidth, height, kPanelLeft, XmlEscaped(p->name).c_str());
  for (int panel = 0; panel < 2; ++panel) WritePanel(svg, panel, series, lowest, maxIter);
  for (std::size_t i = 0; i < series.size(); ++i) {
    const double y = kTop[0] + 14 + 18.0 * i, x = kPanelLeft + kPanelWidth + 20;
    std::fprintf(svg,
                 "<line x1=\"%g\" y1=\"%g\" x2=\"%g\" y2=\"%g\" stroke-width=\"2\" %s/>\n"
                 "<text x=\"%g\" y=\"%g\" font-size=\"12\">%s</text>\n",
                 x, y - 4, x + 24, y - 4, Stroke(i).c_str(), x + 30, y,
                 XmlEscaped(series[i].name).c_str());
  }
  std::fprintf(svg, "</svg>\n");
  const bool ok = std::fclose(svg) == 0;
  if (ok)
    std::printf("wrote %s (%zu optimizers on %s)\n", path.c_str(), series.size(), p->name.c_str());
  return ok;
}

}  // namespace
}  // namespace demo

int main(int argc, char** argv) {
  using namespace demo;
  Options options;
  PlotRequest plot;
  const Parsed parsed = ParseArguments(argc, argv, options, plot);
  Registry& r = TheRegistry();
  AddLibraryOptimizers(r);
  auto byOrder = [](const auto& a, const auto& b) { return a.order < b.order; };
  std::stable_sort(r.problems.begin(), r.problems.end(), byOrder);
  std::stable_sort(r.optimizers.begin(), r.optimizers.end(), byOrder);
  std::stable_sort(r.sections.begin(), r.sections.end(), byOrder);
  if (parsed != Parsed::Run) {
    PrintUsage();
    return parsed == Parsed::Help ? 0 : 2;
  }

  if (!plot.path.empty()) return WritePlot(plot.path, plot.problem) ? 0 : 1;

  std::printf("LxOpt %s demo\n\n", LxOpt::LxOptGetRelease());
  RunTable(options);
  for (const Section& s : r.sections) {
    if (!options.only.empty() && options.only != s.name) continue;
    std::printf("\n== %s ==\n", s.name.c_str());
    s.run(options);
  }
  return 0;
}
