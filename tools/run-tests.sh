#!/bin/sh
# Builds and runs every test twice: once with warnings as errors, once more
# under AddressSanitizer and UndefinedBehaviorSanitizer (leak detection on).
# Fails when any build step or test fails.
#
#   tools/run-tests.sh [BUILD_ROOT]     (default: build/ in the source tree)
set -eu
top=$(cd "$(dirname "$0")/.." && pwd)
root=${1:-$top/build}
jobs=$(nproc 2>/dev/null || echo 2)

sh "$top/tools/install-deps.sh"

# Ninja keeps every core busy across targets and starts faster than make
# (a build directory made earlier keeps the generator it was made with).
if command -v ninja >/dev/null 2>&1 && [ ! -f "$root/test/CMakeCache.txt" ]; then
  export CMAKE_GENERATOR=Ninja
fi

echo "== build and test (warnings are errors)"
cmake -S "$top" -B "$root/test" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DWL_WERROR=ON
cmake --build "$root/test" -j "$jobs"
ctest --test-dir "$root/test" --output-on-failure -j "$jobs"

echo "== build and test under AddressSanitizer and UndefinedBehaviorSanitizer"
cmake -S "$top" -B "$root/asan" -DCMAKE_BUILD_TYPE=Debug -DWL_WERROR=ON -DWL_SANITIZE=ON
cmake --build "$root/asan" -j "$jobs"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ctest --test-dir "$root/asan" --output-on-failure -j "$jobs"
