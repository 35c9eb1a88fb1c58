#!/usr/bin/env bash
# Line and branch coverage of the library (Classes/ and Platform/) under the whole test suite.
# Usage: scripts/coverage.sh [SOURCE_DIR]   (default: the tree this script lives in)
#
# Builds SOURCE_DIR/build-coverage as a Debug build (-O0) with --coverage -fprofile-update=atomic (the
# library's threads share counters; plain updates race and gcov then reports negative counts, which
# gcovr refuses), runs every ctest test, then reports with gcovr 5 from inside SOURCE_DIR:
#   gcovr --root . --object-directory build-coverage --filter 'Classes/' --filter 'Platform/'
#         --exclude-throw-branches --exclude-unreachable-branches --print-summary
# Throw branches are the compiler's exception edges out of every call, which no test can steer;
# unreachable ones sit on lines that hold no code. build-coverage/coverage.txt gets the per-file branch
# table (-b), build-coverage/coverage.json the per-line data (gcovr --add-tracefile reads it back).
# Counters from earlier runs are deleted first, so the figures belong to this run alone. The figures
# are printed even when a test fails; the script then exits non-zero.
set -euo pipefail
here="$(cd "$(dirname "$0")/.." && pwd)"
src="$(cd "${1:-$here}" && pwd)"
dir="$src/build-coverage"
jobs="${ORV_COVERAGE_JOBS:-$(nproc)}"

if ! command -v gcovr >/dev/null; then
  SUDO=""
  if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends gcovr
fi

# No benchmarks: they are not part of the suite and only lengthen the build.
cmake -S "$src" -B "$dir" -G Ninja -DORV_WERROR=ON -DCMAKE_BUILD_TYPE=Debug -DORV_BUILD_BENCH=OFF \
  -DCMAKE_CXX_FLAGS="--coverage -fprofile-update=atomic" -DCMAKE_EXE_LINKER_FLAGS="--coverage" \
  -DCMAKE_SHARED_LINKER_FLAGS="--coverage" >/dev/null
cmake --build "$dir" -j"$jobs"

find "$dir" -name '*.gcda' -delete
status=0
ctest --test-dir "$dir" --output-on-failure -j"$jobs" --timeout 600 >"$dir/ctest.log" 2>&1 || status=$?
tail -n 3 "$dir/ctest.log"
if [ "$status" -ne 0 ]; then
  grep -E '^\s*[0-9]+ - ' "$dir/ctest.log" || true
  echo "some tests failed (see $dir/ctest.log); the figures below still count what ran" >&2
fi

cd "$src"
# One gcov at a time: with -j, gcovr 5.2 hangs after a gcov parse error instead of exiting.
gcovr --root . --object-directory "$dir" --filter 'Classes/' --filter 'Platform/' \
  --exclude-throw-branches --exclude-unreachable-branches \
  --txt "$dir/coverage.txt" -b --json "$dir/coverage.json" --print-summary
exit "$status"
