#!/usr/bin/env bash
# Installs the dependencies, builds the runner and lets it carry out one short recording:
# planned 5 s ahead for 3 s, run to its end, then the (now empty) schedule is listed.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$root"

"$root/scripts/install-deps.sh"
cmake -S . -B build-demo -G Ninja -DCMAKE_BUILD_TYPE=Release \
  -DVEXLOR_BUILD_TESTS=OFF -DVEXLOR_BUILD_BENCHMARKS=OFF > /dev/null
cmake --build build-demo --target vexlor-schedule

program="$root/build-demo/tools/vexlor-schedule/vexlor-schedule"
workdir="$(mktemp -d)"
trap 'rm -rf "$workdir"' EXIT
export VEXLOR_SCHEDULE_SETTINGS="$workdir/settings.ini"

# Echoes each command as it could be typed, then runs it.
step() {
  printf '\n$ vexlor-schedule'
  for argument in "$@"; do
    if [[ "$argument" =~ ^[A-Za-z0-9_./:=-]+$ ]]; then
      printf ' %s' "$argument"
    else
      printf " '%s'" "${argument//\'/\'\\\'\'}"
    fi
  done
  printf '\n'
  "$program" "$@"
}

step add Demo --in 5s --for 3s --tag 1
step enable
step status
# The command would run for 10 s; the recording's 3 s end it first.
step run --until-empty --exec 'echo "capturing $VEXLOR_TITLE from $VEXLOR_START for $VEXLOR_DURATION_MS ms"; exec sleep 10'
listed="$(step list)"
printf '%s\n' "$listed"
if [ "$(printf '%s\n' "$listed" | wc -l)" -le 2 ]; then
  echo "(nothing listed: the schedule is empty)"
fi
step status
