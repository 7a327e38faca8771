#!/usr/bin/env bash
# Installs the dependencies, then builds and tests three ways: an optimised build with the
# whole suite, the suite again under AddressSanitizer and UndefinedBehaviorSanitizer, and
# the observer-list concurrency tests under ThreadSanitizer, then a bounded libFuzzer run of
# the stored-schedule decoder. Warnings are errors. Each build is a preset of
# CMakePresets.json, in build-<preset>/.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$root"

"$root/scripts/install-deps.sh"

section() { printf '\n== %s ==\n' "$*"; }

section "format"
git ls-files '*.cpp' '*.h' | xargs clang-format --dry-run --Werror

# Configures, builds and runs the tests of one preset.
run_preset() {
  cmake --preset "$1"
  cmake --build --preset "$1"
  ctest --preset "$1"
}

section "release build and tests"
run_preset release

section "address and undefined-behaviour sanitizers"
run_preset asan

section "thread sanitizer (observer lists)"
run_preset tsan

section "fuzzing the stored-schedule decoder (60 s)"
# Only the decoder and Qt are built here: a 60 s session (-rss_limit_mb=512), then a replay
# of the seeds and of what the session found, which stays in build-fuzz/fuzz-corpus.
run_preset fuzz

section "all checks passed"
