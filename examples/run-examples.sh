#!/usr/bin/env bash
# Builds the examples against an installed package and runs each one against a local discovery emulator.
#   examples/run-examples.sh PREFIX [BUILD_DIR]
# ORV_EMULATOR overrides the emulator binary (default PREFIX/bin/orv-discovery-emulator).
set -euo pipefail

[[ $# -ge 1 && $# -le 2 ]] || { echo "usage: $0 PREFIX [BUILD_DIR]" >&2; exit 2; }
prefix=$(realpath "$1")
build=${2:-$(mktemp -d)}
here=$(cd "$(dirname "$0")" && pwd)
emulator=${ORV_EMULATOR:-$prefix/bin/orv-discovery-emulator}
work=$(mktemp -d)
emulator_pid=
# shellcheck disable=SC2317  # called by the EXIT trap
cleanup() {
  if [[ -n $emulator_pid ]]; then kill "$emulator_pid" 2>/dev/null || true; wait "$emulator_pid" 2>/dev/null || true; fi
  rm -rf "$work"
}
trap cleanup EXIT

generator=()
command -v ninja >/dev/null && generator=(-G Ninja)
cmake -S "$here" -B "$build" "${generator[@]}" -DCMAKE_PREFIX_PATH="$prefix" >"$work/configure.log" ||
  { cat "$work/configure.log"; exit 1; }
cmake --build "$build" -j2

examples=()
for name in minimal poll glib asio; do
  [[ -x $build/$name ]] && examples+=("$build/$name")
done

# The minimal example once more, from pkg-config alone, as a host without CMake builds it.
results=()
status=0
if command -v pkg-config >/dev/null; then
  export PKG_CONFIG_PATH="$prefix/lib/pkgconfig${PKG_CONFIG_PATH:+:$PKG_CONFIG_PATH}"
  # shellcheck disable=SC2046  # the flags are meant to split
  if ${CXX:-g++} -std=c++20 -Wall -Wextra -I"$here/common" "$here/minimal/main.cpp" -o "$build/minimal-pkgconfig" \
      $(pkg-config --cflags --libs OrvAppConfigService) \
      -Wl,-rpath,"$(pkg-config --variable=libdir OrvAppConfigService)" >"$work/pkgconfig.log" 2>&1; then
    examples+=("$build/minimal-pkgconfig")
  else
    results+=("FAILED minimal-pkgconfig (build)")
    status=1
    tail -n 20 "$work/pkgconfig.log" | sed "s/^/  minimal-pkgconfig: /" >&2
  fi
fi

# Output goes to a file, not a pipe, so that the emulator can never block on it.
"$emulator" --generate "$work/material" >/dev/null
"$emulator" --material "$work/material" >"$work/emulator.out" 2>&1 &
emulator_pid=$!
for _ in $(seq 300); do
  [[ -s $work/emulator.out ]] && break
  kill -0 "$emulator_pid" 2>/dev/null || break
  sleep 0.1
done
line=$(head -n 1 "$work/emulator.out")
[[ $line =~ ^listening\ on\ https://127\.0\.0\.1:([0-9]+)$ ]] || { echo "the emulator did not start: $line" >&2; exit 1; }
port=${BASH_REMATCH[1]}

for example in "${examples[@]}"; do
  name=$(basename "$example")
  if timeout 120 "$example" demo.user@example.com --host "127.0.0.1:$port" --ca-file "$work/material/tls-ca.pem" \
      --trust-anchor "$work/material/signing-ca.pem" >"$work/$name.log" 2>&1; then
    results+=("ok     $name")
  else
    results+=("FAILED $name")
    status=1
    sed "s/^/  $name: /" "$work/$name.log" >&2
  fi
done
# A library built with default anchors of another CA (ORV_EXPECT_FOREIGN_DEFAULT_ANCHORS=1) must refuse
# the emulator's signer, with the untrusted-chain code, when the host names no anchor of its own.
if [[ -n ${ORV_EXPECT_FOREIGN_DEFAULT_ANCHORS:-} ]]; then
  if ! "$build/minimal" demo.user@example.com --host "127.0.0.1:$port" --ca-file "$work/material/tls-ca.pem" \
      >"$work/anchors.log" 2>&1 && grep -q "Code=13" "$work/anchors.log"; then
    results+=("ok     minimal refused by the built-in anchors")
  else
    results+=("FAILED minimal accepted a signer outside the built-in anchors")
    status=1
    sed "s/^/  built-in anchors: /" "$work/anchors.log" >&2
  fi
fi
printf '%s\n' "${results[@]}"
exit "$status"
