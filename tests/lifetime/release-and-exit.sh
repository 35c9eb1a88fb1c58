#!/usr/bin/env bash
# Runs orv-release-and-exit RUNS times against one emulator, cycling through release points and the
# three places a host may let go from. Any failed run (sanitizer report, leak, crash) fails the test.
set -euo pipefail
emulator=$1 program=$2 runs=${3:-100}
dir=$(mktemp -d)
pid=""
cleanup() {
  if [ -n "$pid" ]; then kill "$pid" 2>/dev/null || true; wait "$pid" 2>/dev/null || true; fi
  rm -rf "$dir"
}
trap cleanup EXIT
"$emulator" --generate "$dir" >/dev/null
"$emulator" --material "$dir" --listen 127.0.0.1:0 --fault /ads/root/domain/slow.example/:delay=30000 >"$dir/out" 2>&1 &
pid=$!
for _ in $(seq 1 300); do
  grep -q '^listening on https://' "$dir/out" && break
  sleep 0.1
done
address=$(sed -n 's|^listening on https://||p' "$dir/out" | head -n 1)
[ -n "$address" ] || { echo "emulator did not start"; cat "$dir/out"; exit 1; }
modes=(main worker completion)
start=$(date +%s%N)
for i in $(seq 1 "$runs"); do
  mode=${modes[$((i % 3))]}
  delay=$(( (i * 7) % 40 ))
  if ! "$program" "$address" "$dir/tls-ca.pem" "$delay" "$mode"; then
    echo "run $i (release from $mode after $delay ms) failed"
    exit 1
  fi
done
echo "$runs runs in $(( ($(date +%s%N) - start) / 1000000 )) ms"
