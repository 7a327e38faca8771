#!/usr/bin/env bash
# Builds in Release and runs every measurement behind BENCHMARKS.md: the micro-benchmarks
# with their baselines (medians of 10 repetitions), the start latency on the real event loop
# idle and with the other core busy, the runner's CPU use while idle at 1, 100, 1 000 and
# 10 000 records beside a bare Qt loop (medians of 3 windows of 60 s), and how far the window
# that a screen capture records lies from the planned one.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$root"
"$root/scripts/install-deps.sh"

# The measurements are read, not pass/fail tests, so the bench preset has no ctest step.
cmake --preset bench
cmake --build --preset bench

build-bench/bench/bench_core --benchmark_repetitions=10 --benchmark_report_aggregates_only=true \
  2>&1 | grep -E '^(Run on|CPU|BM_.*_median)'
build-bench/bench/start_latency --records 200
build-bench/bench/start_latency --records 200 --busy
scripts/idle-cpu.sh --runs 3 build-bench 60 1 100 1000 10000
bench/capture_window.sh build-bench 24
