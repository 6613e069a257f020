#!/usr/bin/env bash
# What the farm driver adds to a render: 12 frames with the null renderer,
# as one kindlet through kindlet-control (the baseline), as one chunk through
# kindlet-farm, and as 4 chunks of 3 with 2 at once. Runs alternate so that
# load changes hit all three; prints the median wall time of each.
#   bench/farm/farm_overhead.sh ROOT [RUNS]
set -euo pipefail
root=$(cd "$1" && pwd)
runs=${2:-11}
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
for frame in $(seq 12); do
  printf '{"optree": 1, "root": {"type": "root", "children": [{"name": "f%d"}]}}\n' "$frame" \
    > "$tmp/shot.$(printf %06d "$frame").optree.json"
done
kindlet=(-tempDir "$tmp" -renderer null -renderMethodName diskRender -arbolite3OpTree "$tmp/shot.*.optree.json" -t 1-12)

seconds() { local start end; start=$(date +%s.%N); "$@" >/dev/null 2>&1 || true; end=$(date +%s.%N); echo "$end - $start" | bc; }
median() { sort -n | awk '{v[NR] = $1} END {print v[int((NR + 1) / 2)]}'; }

for run in $(seq "$runs"); do
  seconds "$root/bin/kindlet-control" render -- "${kindlet[@]}" >> "$tmp/one"
  seconds "$root/bin/kindlet-farm" --job-dir "$tmp/a$run" --chunk-size 12 --parallel 1 -- "${kindlet[@]}" >> "$tmp/chunk"
  seconds "$root/bin/kindlet-farm" --job-dir "$tmp/b$run" --chunk-size 3 --parallel 2 -- "${kindlet[@]}" >> "$tmp/four"
done
echo "runs: $runs"
echo "kindlet-control render, 12 frames:          $(median < "$tmp/one") s"
echo "kindlet-farm, 1 chunk of 12:                $(median < "$tmp/chunk") s"
echo "kindlet-farm, 4 chunks of 3, 2 at once:     $(median < "$tmp/four") s"
