#!/usr/bin/env bash
# Usage: run_mpi_tests.sh MPIRUN EXAMPLE MALFORMED WORKDIR
# 1. The one-process search (example --serial, no sleep) gives the reference
#    minima and Hessian.
# 2. The distributed search on 1, 2, 4 and 8 ranks, each evaluation sleeping
#    2 ms, must write the same file bit for bit; the wall times and speed-ups
#    over 1 rank are printed (not asserted: the machine may be busy).
# 3. Malformed calls on 3 ranks are refused on every rank without a hang.
set -u
mpirun=$1 example=$2 malformed=$3 work=$4
mkdir -p "$work"
# Open MPI refuses root without these; ranks may outnumber cores (the cost
# is a sleep), and waiting ranks should give up their core.
export OMPI_ALLOW_RUN_AS_ROOT=1 OMPI_ALLOW_RUN_AS_ROOT_CONFIRM=1
export OMPI_MCA_mpi_yield_when_idle=1
launch() { timeout 120 "$mpirun" --oversubscribe --allow-run-as-root -np "$@"; }

failed=0
fail() { echo "FAILED: $*"; failed=1; }

"$example" --serial --sleep-ms 0 --out "$work/reference.txt" || fail "one-process search"
echo "one-process reference: $(grep -vc hessian "$work/reference.txt") minima"

declare -A wall
for np in 1 2 4 8; do
  rm -f "$work/ranks$np.txt"
  line=$(launch "$np" "$example" --sleep-ms 2 --out "$work/ranks$np.txt") || fail "$np ranks: exit status"
  echo "$line"
  wall[$np]=$(sed -n 's/.*wall \([0-9.]*\) s.*/\1/p' <<<"$line")
  if cmp -s "$work/reference.txt" "$work/ranks$np.txt"; then
    echo "  $np ranks: minima and Hessian identical to the one-process driver"
  else
    fail "$np ranks: minima or Hessian differ from the one-process driver"
  fi
done

echo "ranks  wall(s)  speed-up"
for np in 1 2 4 8; do
  awk -v np="$np" -v w="${wall[$np]:-0}" -v w1="${wall[1]:-0}" \
    'BEGIN { printf "%5d  %7.2f  %8.2f\n", np, w, (w > 0 ? w1 / w : 0) }'
done

launch 3 "$malformed" || fail "malformed calls"
exit $failed
