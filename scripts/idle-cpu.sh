#!/usr/bin/env bash
# CPU used by `vexlor-schedule run` over a window with scheduling on and nothing due (the
# next record a day away), as a percentage of one core, from the CPU time in ns that
# /proc/PID/task/*/schedstat reports for the runner's threads. One runner per schedule size,
# all measured side by side over the same window, so that other load on the machine falls
# on every size alike; with --runs N the window is repeated N times and the median is shown.
# Beside them runs the baseline: a bare Qt event loop waking on a 100 ms timer (idle_floor).
#   scripts/idle-cpu.sh [--runs N] BUILD_DIR [SECONDS [RECORDS...]]
set -euo pipefail
runs=1
if [ "${1:-}" = "--runs" ]; then
  runs="${2:?number of runs}"
  shift 2
fi
build="${1:?build directory}"
seconds="${2:-60}"
shift $(($# < 2 ? $# : 2))
sizes=("$@")
[ ${#sizes[@]} -gt 0 ] || sizes=(1 100 1000 10000)
runner="$build/tools/vexlor-schedule/vexlor-schedule"
seed="$build/bench/seed_schedule"
work="$(mktemp -d)"
pids=()
trap 'for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done; rm -rf "$work"' EXIT

cpu_ns() { cat /proc/"$1"/task/*/schedstat | awk '{ sum += $1 } END { print sum }'; }

for size in "${sizes[@]}"; do
  "$seed" "$work/$size.ini" "$size"
  VEXLOR_SCHEDULE_SETTINGS="$work/$size.ini" \
    "$runner" run --notify none --no-keep-awake > "$work/$size.log" &
  pids+=($!)
done
"$build/bench/idle_floor" &
pids+=($!)
for size in "${sizes[@]}"; do
  until grep -q . "$work/$size.log"; do sleep 0.1; done
done
sizes+=(0)  # the baseline's row
sleep 2   # start-up is not idle time

for ((run = 0; run < runs; ++run)); do
  before=()
  for pid in "${pids[@]}"; do before+=("$(cpu_ns "$pid")"); done
  sleep "$seconds"
  for i in "${!pids[@]}"; do
    echo "${sizes[$i]} $(($(cpu_ns "${pids[$i]}") - ${before[$i]}))" >> "$work/samples"
  done
done
for size in "${sizes[@]}"; do
  awk -v size="$size" '$1 == size { print $2 }' "$work/samples" | sort -n |
    awk -v size="$size" -v s="$seconds" -v runs="$runs" '{ ns[NR] = $1 }
      END { m = (NR % 2) ? ns[(NR + 1) / 2] : (ns[NR / 2] + ns[NR / 2 + 1]) / 2
            printf "%-22s %6.1f ms of CPU in %d s = %.3f %% of one core (median of %d)\n",
                   size ? sprintf("idle run, %d records:", size) : "baseline (Qt loop):",
                   m / 1e6, s, 100 * m / 1e9 / s, runs }'
done
