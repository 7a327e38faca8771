#!/usr/bin/env bash
# CPU used by `vexlor-schedule run` over a window with scheduling on and nothing due, as a
# percentage of one core, from the CPU time that /proc/PID/schedstat reports in ns.
#   scripts/idle-cpu.sh BUILD_DIR [SECONDS]
set -euo pipefail
build="${1:?build directory}"
seconds="${2:-60}"
runner="$build/tools/vexlor-schedule/vexlor-schedule"
work="$(mktemp -d)"
trap 'kill "$pid" 2>/dev/null || true; rm -rf "$work"' EXIT
export VEXLOR_SCHEDULE_SETTINGS="$work/settings.ini"

"$runner" add "Tomorrow" --in 24h --for 30m > /dev/null
"$runner" enable > /dev/null
"$runner" run --notify none --no-keep-awake > "$work/run.log" &
pid=$!
sleep 2   # start-up is not idle time

cpu_ns() { awk '{ print $1 }' "/proc/$pid/schedstat"; }
before=$(cpu_ns)
sleep "$seconds"
after=$(cpu_ns)
awk -v ns=$((after - before)) -v s="$seconds" \
  'BEGIN { printf "idle run: %.1f ms of CPU in %d s = %.3f %% of one core\n", ns / 1e6, s, 100 * ns / 1e9 / s }'
