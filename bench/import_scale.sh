#!/usr/bin/env bash
# Times `import` on generated calendars of N events (default 5000, 20000 and 100000): the
# built program end to end into a new settings file, with `list`, `status` and `export` on
# what it imported; then the import in process, without the program's file size limit. Each
# with one-off events alone, and with every tenth event a weekly plan.
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

# Runs the program on the settings file in $work; prints the seconds it took.
timed() {
  local start end
  start=$(date +%s%N)
  "$program" --settings "$work/settings.ini" "$@" > "$work/out" 2>&1 || true
  end=$(date +%s%N)
  awk -v ns=$((end - start)) 'BEGIN { printf "%.2fs", ns / 1e9 }'
}

for variant in "" "--plans 10"; do
  echo "the program, end to end${variant:+, every tenth event a weekly plan}:"
  printf '%8s %9s %8s %8s %8s %8s  %s\n' events bytes import list status export "import says"
  for n in "${sizes[@]}"; do
    "$generate" $variant --write "$work/calendar.ics" "$n"
    rm -f "$work/settings.ini"
    import=$(timed import "$work/calendar.ics")
    said=$(head -n 1 "$work/out" | sed "s|$work/||" | cut -c 1-70)
    reports=(- - -)
    if [ -e "$work/settings.ini" ]; then
      reports=("$(timed list)" "$(timed status)" "$(timed export)")
    fi
    printf '%8d %9d %8s %8s %8s %8s  %s\n' "$n" "$(stat -c %s "$work/calendar.ics")" "$import" \
      "${reports[@]}" "$said"
  done
done
echo "in process, one-off events:"
"$generate" "${sizes[@]}"
echo "in process, every tenth event a weekly plan:"
"$generate" --plans 10 "${sizes[@]}"
