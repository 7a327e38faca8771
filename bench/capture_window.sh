#!/usr/bin/env bash
# How far the window that `run --capture screen` records lies from the planned one, over
# COUNT recordings of 2 s, 5 s apart, on an Xvfb display (1280x720) where ffplay shows a
# moving test picture. Each file's time 0 is its planned start (the file says so in its
# creation time, checked here) and its frames carry the wall-clock times at which x11grab
# grabbed them, so:
#   start offset = first frame's time                      (> 0: began late)
#   end offset   = last frame's time + 1/30 s - duration   (< 0: ended early)
#   bench/capture_window.sh BUILD_DIR [COUNT]
set -euo pipefail
build="${1:?build directory}"
count="${2:-24}"
runner="$build/tools/vexlor-schedule/vexlor-schedule"
source "$(dirname "${BASH_SOURCE[0]}")/../scripts/test-picture.sh"
work="$scratch"
export VEXLOR_SCHEDULE_SETTINGS="$work/settings.ini"
duration=2
spacing=5
show_test_picture 1280 720

first=$(($(date +%s) + 8))
for i in $(seq "$count"); do
  start=$((first + (i - 1) * spacing))
  "$runner" add "Window $i" --at "$(date -d "@$start" '+%Y-%m-%d %H:%M:%S')" \
    --for "${duration}s" > /dev/null
  echo "Window $i $start" >> "$work/planned"
done
"$runner" enable > /dev/null
"$runner" run --until-empty --notify none --no-keep-awake --capture screen \
  --output "$work/videos" > "$work/run.log"

while read -r _ i start; do
  file="$work/videos/Window $i $(date -d "@$start" '+%Y-%m-%d %H-%M-%S').mkv"
  if [ ! -s "$file" ]; then
    echo "missing: $file" >&2
    continue
  fi
  origin="$(ffprobe -v error -show_entries format_tags=creation_time -of csv=p=0 "$file")"
  if [ "$(date -d "$origin" +%s.%N)" != "$start.000000000" ]; then
    echo "Window $i: time 0 is $origin, not the planned start" >&2
  fi
  ffprobe -v error -select_streams v -show_entries packet=pts_time -of csv=p=0 "$file" \
    | sort -g | sed -n '1p;$p' | tr '\n' ' ' | awk -v d="$duration" \
      '{ printf "%.1f %.1f\n", 1000 * $1, 1000 * ($2 + 1 / 30 - d) }'
done < "$work/planned" > "$work/offsets"

echo "capture window over $(wc -l < "$work/offsets") of $count recordings (${duration} s each);" \
  "$(grep -c 'as planned' "$work/run.log") reported as planned"
# Nearest-rank percentiles of the signed offsets.
for column in 1 2; do
  name=$([ "$column" = 1 ] && echo "start offset" || echo "end offset")
  cut -d' ' -f"$column" "$work/offsets" | sort -g | awk -v name="$name" '
    function rank(p,   r) { r = p * NR; return r == int(r) ? r : int(r) + 1 }
    { v[NR] = $1 }
    END {
      printf "%-12s min %7.1f ms   p50 %7.1f ms   p99 %7.1f ms   max %7.1f ms\n",
             name, v[1], v[rank(0.50)], v[rank(0.99)], v[NR]
    }'
done
