#!/usr/bin/env bash
# Builds (if needed) and runs the whole test suite. Usage: scripts/test.sh [--sanitize address,undefined|thread]
set -euo pipefail
cd "$(dirname "$0")/.."
sanitize=""
if [ "${1:-}" = "--sanitize" ]; then sanitize="$2"; fi
case "$sanitize" in
  "") dir=build ;;
  thread) dir=build-tsan ;;
  *) dir=build-asan ;;
esac
if [ -n "$sanitize" ]; then
  scripts/build.sh --sanitize "$sanitize" --dir "$dir"
else
  scripts/build.sh --dir "$dir"
fi
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1:strict_string_checks=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1"
runner=()
if [ "$sanitize" = "thread" ] && [ "$(cat /proc/sys/vm/mmap_rnd_bits 2>/dev/null || echo 28)" -gt 28 ]; then
  # ThreadSanitizer cannot map its shadow memory with more address randomisation than this.
  sysctl -w vm.mmap_rnd_bits=28 >/dev/null 2>&1 || runner=(setarch "$(uname -m)" -R)
fi
"${runner[@]}" ctest --test-dir "$dir" --output-on-failure -j"$(nproc)" --timeout 300
