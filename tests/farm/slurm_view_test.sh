#!/usr/bin/env bash
# One live view on two kindlets that run as the tasks of a Slurm array job
# (kindlet-control --kindlets 2 --slurm) on a one-node cluster: both register
# with the controller's registry, one task's kindlet is killed mid-render, and
# the merged image goes on from the other until the script stops it. Exit 77
# (skipped) only when the cluster can't start.
#   slurm_view_test.sh ROOT
set -u
root=$(cd "$1" && pwd)
here=$(cd "$(dirname "$0")" && pwd)
skip() { echo "SKIPPED: $*"; exit 77; }
fail() { echo "FAILED: $*"; [ -n "${tmp:-}" ] && tail -n 20 "$tmp"/*.log "$tmp"/view.err 2>/dev/null; exit 1; }
. "$here/slurm_cluster.sh"

# The newest merged pass that kindlet-control wrote, from its debug lines.
lastPass() { sed -n 's/.*of session merged sequenceID 0: pass \([0-9]*\),.*/\1/p' "$tmp/view.err" | tail -n 1; }
within() {  # seconds, then a command that says when
  local seconds=$1; shift
  for _ in $(seq $((seconds * 10))); do "$@" && return 0; sleep 0.1; done
  return 1
}

mkfifo "$tmp/script"
SELVANE_LOG_LEVEL=debug "$root/bin/kindlet-control" --kindlets 2 --slurm --images "$tmp/images" \
  --script "$tmp/script" --connect-timeout 90 -- -selvaneRoot "$root" -tempDir "$tmp" \
  -arbolite3OpTree "$root/share/kindlet/examples/pathtracer/wuson.optree.json" \
  -renderer pathtracer -renderMethodName liveRender -samples 100000 -threads 1 \
  >"$tmp/view.out" 2>"$tmp/view.err" &
driver=$!
exec 3>"$tmp/script"
registered() { [ "$(grep -c '^registered ' "$tmp/view.out")" -ge 2 ]; }
within 90 registered || fail "the tasks did not register: $(cat "$tmp/view.out"; squeue)"
grep -q '^slurm job [0-9]' "$tmp/view.out" || fail "no job line"
passes() { [ "$(lastPass)" -ge "$1" ] 2>/dev/null; }
within 60 passes 3 || fail "no merged passes"

victim=$(sed -n 's/^registered .* pid \([0-9]*\)$/\1/p' "$tmp/view.out" | head -n 1)
kill -KILL "$victim"
left() { grep -q "pid $victim left the view" "$tmp/view.err"; }
within 30 left || fail "the killed kindlet did not leave the view"
before=$(lastPass)
within 60 passes $((before + 3)) || fail "the merged image stopped with the killed task"

echo stop >&3
exec 3>&-
wait "$driver"
status=$?
driver=""
[ "$status" = 0 ] || fail "kindlet-control exited with $status"
gone() { [ -z "$(squeue -h)" ]; }
within 30 gone || fail "tasks are left: $(squeue)"
echo "PASSED"
