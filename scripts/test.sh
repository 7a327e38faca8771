#!/usr/bin/env bash
# Installs the dependencies, then builds and tests three ways: an optimised build with the
# whole suite, the suite again under AddressSanitizer and UndefinedBehaviorSanitizer, and
# the observer-list concurrency tests under ThreadSanitizer. Warnings are errors.
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

section "all checks passed"
