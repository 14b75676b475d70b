#!/usr/bin/env bash
# Runs every fuzz target of a build for a fixed time on a copy of its seed
# corpus (the repository's corpus stays as it is), prints the executions of
# each and fails when any target finds a crash, a leak or a time-out.
# Usage: fuzz/run.sh <build dir> <seconds per target>
set -uo pipefail
build=${1:?build dir}
seconds=${2:?seconds per target}
here=$(cd "$(dirname "$0")" && pwd)
work="$build/fuzz-run"
rm -rf "$work"
mkdir -p "$work"

status=0
summary=()
for target in "$build"/fuzz/fuzz_*; do
  [ -x "$target" ] && [ -f "$target" ] || continue
  name=$(basename "$target")
  short=${name#fuzz_}
  corpus="$work/corpus-$short"
  mkdir -p "$corpus" "$work/artifacts"
  [ -d "$here/corpus/$short" ] && cp "$here/corpus/$short"/* "$corpus"/ 2>/dev/null
  log="$work/$name.log"
  echo "== $name: ${seconds}s"
  "$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
    -artifact_prefix="$work/artifacts/$short-" "$corpus" >"$log" 2>&1
  rc=$?
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  if [ $rc -ne 0 ]; then
    status=1
    echo "!! $name failed (exit $rc); log $log, input in $work/artifacts/"
    grep -E 'ERROR|fuzz check failed|SUMMARY|runtime error|Test unit written' "$log" | head -20
  fi
  summary+=("$(printf '%-20s %12s executions  %s' "$name" "${execs:-?}" "$([ $rc -eq 0 ] && echo ok || echo FAILED)")")
done
[ ${#summary[@]} -gt 0 ] || { echo "no fuzz targets in $build/fuzz"; exit 1; }
printf '%s\n' "${summary[@]}"
exit $status
