#!/usr/bin/env bash
# Usage: run_mpi_tests.sh MPIRUN EXAMPLE MALFORMED WORKDIR
# The distributed search and Hessian (example, each evaluation sleeping 2 ms)
# on 1, 2, 4 and 8 ranks must write the one-process reference (--serial) bit
# for bit; wall times and speed-ups are printed, not asserted (the machine may
# be busy). Malformed calls on 3 ranks are refused on every rank, no hang.
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

for np in 1 2 4 8; do
  rm -f "$work/ranks$np.txt"
  line=$(launch "$np" "$example" --sleep-ms 2 --out "$work/ranks$np.txt") || fail "$np ranks: exit status"
  wall=$(sed -n 's/.*wall \([0-9.]*\) s.*/\1/p' <<<"$line")
  [ "$np" = 1 ] && wall1=$wall
  echo "$line" | awk -v w="${wall:-0}" -v w1="${wall1:-0}" \
    '{ printf "%s; speed-up over 1 rank %.2f\n", $0, (w > 0 ? w1 / w : 0) }'
  cmp -s "$work/reference.txt" "$work/ranks$np.txt" ||
    fail "$np ranks: minima or Hessian differ from the one-process driver"
done

launch 3 "$malformed" || fail "malformed calls"
exit $failed
