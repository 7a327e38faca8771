#!/usr/bin/env bash
# Installs the dependencies, then builds and tests three ways: an optimised build with the
# whole suite, the suite again under AddressSanitizer and UndefinedBehaviorSanitizer, and
# the observer-list concurrency tests under ThreadSanitizer, then a bounded libFuzzer run of
# the stored-schedule decoder. Warnings are errors.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$root"

"$root/scripts/install-deps.sh"

section() { printf '\n== %s ==\n' "$*"; }

section "format"
git ls-files '*.cpp' '*.h' | xargs clang-format --dry-run --Werror

section "release build and tests"
cmake -S . -B build-release -G Ninja -DCMAKE_BUILD_TYPE=Release -DVEXLOR_WERROR=ON
cmake --build build-release
ctest --test-dir build-release --output-on-failure -j2

section "address and undefined-behaviour sanitizers"
cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVEXLOR_WERROR=ON \
  -DVEXLOR_SANITIZE=address,undefined -DVEXLOR_BUILD_BENCHMARKS=OFF
cmake --build build-asan
ASAN_OPTIONS=detect_leaks=1:strict_string_checks=1 UBSAN_OPTIONS=print_stacktrace=1 \
  ctest --test-dir build-asan --output-on-failure -j2

section "thread sanitizer (observer lists)"
cmake -S . -B build-tsan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVEXLOR_WERROR=ON \
  -DVEXLOR_SANITIZE=thread -DVEXLOR_BUILD_BENCHMARKS=OFF
cmake --build build-tsan --target test_event_handler_list_concurrency
TSAN_OPTIONS=halt_on_error=1 build-tsan/tests/test_event_handler_list_concurrency

section "fuzzing the stored-schedule decoder (60 s)"
# Only the decoder, Qt and the platform library are built here. New inputs go to the build
# tree; the committed seeds stay as they are.
CC=clang CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DVEXLOR_WERROR=ON -DVEXLOR_BUILD_FUZZERS=ON -DVEXLOR_BUILD_TESTS=OFF \
  -DVEXLOR_BUILD_BENCHMARKS=OFF -DVEXLOR_BUILD_TOOLS=OFF
cmake --build build-fuzz --target fuzz_schedule_decoder
mkdir -p build-fuzz/fuzz-corpus
build-fuzz/fuzz/fuzz_schedule_decoder -max_total_time=60 -rss_limit_mb=512 -print_final_stats=1 \
  build-fuzz/fuzz-corpus fuzz/corpus
build-fuzz/fuzz/fuzz_schedule_decoder -runs=0 -rss_limit_mb=512 fuzz/corpus build-fuzz/fuzz-corpus

section "all checks passed"
