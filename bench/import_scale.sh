#!/usr/bin/env bash
# Times `import` on generated calendars of N events (default 5000, 20000 and 100000):
# the built program end to end into a new settings file, then in process without the
# program's file size limit, one-off events alone and with every tenth a weekly plan.
#
#   bench/import_scale.sh BUILD_DIR [N...]
set -euo pipefail
build="$(cd "${1:?usage: import_scale.sh BUILD_DIR [N...]}" && pwd)"
shift
sizes=("$@")
[ ${#sizes[@]} -gt 0 ] || sizes=(5000 20000 100000)
program="$build/tools/vexlor-schedule/vexlor-schedule"
generate="$build/bench/import_calendar"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

echo "the program, end to end (a run of \`import\` on a new settings file):"
for n in "${sizes[@]}"; do
  "$generate" --write "$work/calendar.ics" "$n"
  rm -f "$work/settings.ini"
  start=$(date +%s%N)
  outcome=$("$program" --settings "$work/settings.ini" import "$work/calendar.ics" 2>&1 | head -1 || true)
  end=$(date +%s%N)
  printf '%8d events %9d bytes %8.2fs  %s\n' "$n" "$(stat -c %s "$work/calendar.ics")" \
    "$(awk -v ns=$((end - start)) 'BEGIN { print ns / 1e9 }')" "${outcome:0:90}"
done
echo "in process, one-off events:"
"$generate" "${sizes[@]}"
echo "in process, every tenth event a weekly plan:"
"$generate" --plans "${sizes[@]}"
