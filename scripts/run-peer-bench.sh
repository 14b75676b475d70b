#!/usr/bin/env bash
# Runs the peer comparison from a built benchmark tree and regenerates
# docs/performance.md with its profile docs/performance-profile.svg. The raw
# per-library CSVs and the full tables (*.csv, *.md) stay in
# BUILD_DIR/peer-results.
# Usage: scripts/run-peer-bench.sh BUILD_DIR
# The Debian python (/usr/bin/python3) is used: scipy comes from its packages.
set -euo pipefail

build="${1:?usage: $0 BUILD_DIR}"
root="$(cd "$(dirname "$0")/.." && pwd)"
raw="$build/peer-results"
python=/usr/bin/python3
mkdir -p "$raw" "$root/docs"

start=$(date +%s)
echo "== problem set: LxOpt, GSL, dlib"
"$build/bench/peer_compare" "$raw/peers_cpp.csv"
echo "== problem set and scaling: scipy"
"$python" "$root/bench/peers/scipy_peers.py" --lib "$build/bench/liblxbench_problems.so" \
  --out "$raw/peers_scipy.csv" --scaling-out "$raw/scaling_scipy.csv"
echo "== scaling: LxOpt, dlib, Eigen"
"$build/bench/peer_scaling" "$raw/scaling_cpp.csv"
echo "== report"
"$python" "$root/scripts/peers_report.py" --raw "$raw" --results "$raw" \
  --doc "$root/docs/performance.md" --profile "$root/docs/performance-profile.svg" \
  --command "make bench-peers" --seconds "$(( $(date +%s) - start ))"
