#!/usr/bin/env bash
# Installs the dependencies, builds the runner and lets it record the screen once: a
# recording planned 5 s ahead for 3 s, run to its end; then the video's name, duration and
# size, and the (now empty) schedule. Without a display it records an X server of its own
# (Xvfb) on which ffplay shows a moving test picture.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$root"

"$root/scripts/install-deps.sh"
cmake -S . -B build-demo -G Ninja -DCMAKE_BUILD_TYPE=Release \
  -DVEXLOR_BUILD_TESTS=OFF -DVEXLOR_BUILD_BENCHMARKS=OFF > /dev/null
cmake --build build-demo --target vexlor-schedule

program="$root/build-demo/tools/vexlor-schedule/vexlor-schedule"
videos="$root/build-demo/videos"
source "$root/scripts/test-picture.sh"
export VEXLOR_SCHEDULE_SETTINGS="$scratch/settings.ini"

if [ -z "${DISPLAY:-}" ]; then
  show_test_picture 640 480
  echo "(recording display $DISPLAY: Xvfb showing ffmpeg's moving test picture)"
fi

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

step add "Demo recording" --in 5s --for 3s --tag 1
step enable
step status
mkdir -p "$videos"
before="$(ls "$videos")"
step run --until-empty --notify console --capture screen --output "$videos"

file="$(comm -13 <(printf '%s\n' "$before") <(ls "$videos") | head -1)"
printf '\nthe recording: %s\n' "$videos/$file"
ffprobe -v error -show_entries format=duration,size -of default=noprint_wrappers=1 \
  "$videos/$file" | awk -F= '
    $1 == "duration" { printf "  duration: %.2f s\n", $2 }
    $1 == "size" { printf "  size: %d bytes\n", $2 }'

listed="$(step list)"
printf '%s\n' "$listed"
if [ "$(printf '%s\n' "$listed" | wc -l)" -le 2 ]; then
  echo "(nothing listed: the schedule is empty)"
fi
step status
