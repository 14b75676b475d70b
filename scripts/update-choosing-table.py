#!/usr/bin/env python3
"""Rewrites the evaluations table of docs/choosing.md from lxopt-demo.

Usage: scripts/update-choosing-table.py [BUILD_DIR]   (default: build)

Runs BUILD_DIR/tools/lxopt-demo, takes its table (optimizer, problem, n,
final value, iterations, evaluations, state, converged) and writes one row per optimizer,
one column per problem, between the markers <!-- table:begin --> and
<!-- table:end -->. A cell is the number of evaluations (value, gradient and
Hessian calls together); a run that did not converge shows its final state.
"""
import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
PAGE = ROOT / "docs" / "choosing.md"
ROW = re.compile(r"^(\S+)\s+(.+?)\s+(\d+)\s+(\S+)\s+(\d+)\s+(\d+)\s+(\w+)\s+(yes|no)\s+\S+$")


def main():
    build = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else ROOT / "build")
    demo = build / "tools" / "lxopt-demo"
    out = subprocess.run([str(demo)], capture_output=True, text=True, check=True).stdout
    optimizers, problems, cells = [], [], {}
    for line in out.splitlines():
        m = ROW.match(line)
        if not m or m.group(1) == "optimizer":
            continue
        opt, problem, n, evals, state = m.group(1), m.group(2), m.group(3), m.group(6), m.group(7)
        if opt not in optimizers:
            optimizers.append(opt)
        if (problem, n) not in problems:
            problems.append((problem, n))
        cells[opt, problem] = evals if m.group(8) == "yes" else f"{evals} ({state})"
    if not cells:
        sys.exit(f"no table rows in the output of {demo}")
    lines = ["| optimizer | " + " | ".join(p if "n=" in p else f"{p} (n={n})" for p, n in problems) + " |",
             "|---|" + "---:|" * len(problems)]
    for opt in optimizers:
        lines.append(f"| {opt} | " +
                     " | ".join(cells.get((opt, p), "") for p, _ in problems) + " |")
    text = PAGE.read_text()
    begin, end = "<!-- table:begin -->", "<!-- table:end -->"
    head, rest = text.split(begin, 1)
    _, tail = rest.split(end, 1)
    PAGE.write_text(head + begin + "\n" + "\n".join(lines) + "\n" + end + tail)
    print(f"{PAGE}: {len(problems)} problems x {len(optimizers)} optimizers")


if __name__ == "__main__":
    main()
