#!/usr/bin/env bash
# Configures and builds one build tree. Usage: scripts/build.sh [--sanitize address,undefined|thread] [--dir DIR]
set -euo pipefail
cd "$(dirname "$0")/.."
sanitize=""
dir=""
while [ $# -gt 0 ]; do
  case "$1" in
    --sanitize) sanitize="$2"; shift 2 ;;
    --dir) dir="$2"; shift 2 ;;
    *) echo "unknown option $1" >&2; exit 2 ;;
  esac
done
if [ -z "$dir" ]; then
  case "$sanitize" in
    "") dir=build ;;
    thread) dir=build-tsan ;;
    *) dir=build-asan ;;
  esac
fi
args=(-G Ninja -DORV_WERROR=ON)
if [ -n "$sanitize" ]; then
  args+=(-DCMAKE_BUILD_TYPE=Debug -DORV_SANITIZE="$sanitize" -DORV_BUILD_BENCH=OFF)
else
  args+=(-DCMAKE_BUILD_TYPE=RelWithDebInfo)
fi
cmake -S . -B "$dir" "${args[@]}" >/dev/null
cmake --build "$dir" -j"$(nproc)"
