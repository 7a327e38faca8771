# Sourced by the demo and the capture benchmark: a scratch folder and the processes started
# here, both gone on exit, and an X server of our own to record.
scratch="$(mktemp -d)"
pids=()
cleanup() {
  for pid in "${pids[@]}"; do
    kill "$pid" 2>/dev/null || true
  done
  wait 2>/dev/null || true
  rm -rf "$scratch"
}
trap cleanup EXIT

# show_test_picture WIDTH HEIGHT: Xvfb at that size with ffplay's moving test picture on it;
# exports its DISPLAY.
show_test_picture() {
  local size="$1x$2"
  # Xvfb writes the display it took once it accepts clients.
  Xvfb -displayfd 3 -nolisten tcp -noreset -screen 0 "${size}x24" 3> "$scratch/display" \
    2> /dev/null &
  pids+=($!)
  for _ in $(seq 100); do
    grep -q . "$scratch/display" 2> /dev/null && break
    sleep 0.1
  done
  export DISPLAY=":$(cat "$scratch/display")"
  SDL_AUDIODRIVER=dummy ffplay -loglevel quiet -an -noborder -left 0 -top 0 -x "$1" -y "$2" \
    -f lavfi -i "testsrc=size=$size:rate=30" > /dev/null 2>&1 &
  pids+=($!)
}
