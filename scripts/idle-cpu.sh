#!/usr/bin/env bash
# CPU used by `vexlor-schedule run` over a window with scheduling on and nothing due, as a
# percentage of one core, from the process's utime + stime in /proc.
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
"$runner" run --notify none > "$work/run.log" &
pid=$!
sleep 2   # start-up is not idle time

ticks() { awk '{ print $14 + $15 }' "/proc/$pid/stat"; }
hz=$(getconf CLK_TCK)
before=$(ticks)
sleep "$seconds"
after=$(ticks)
awk -v t=$((after - before)) -v hz="$hz" -v s="$seconds" \
  'BEGIN { printf "idle run: %d ticks of 1/%d s in %d s = %.3f %% of one core\n", t, hz, s, 100 * t / hz / s }'
