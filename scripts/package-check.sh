#!/usr/bin/env bash
# Consumes the library the way hosts do, from a built ./build tree:
#  1. installs it into a fresh prefix and checks that no project build flag reaches a consumer;
#  2. builds and runs examples/ against that prefix (CMake package and pkg-config);
#  3. builds the shared library with built-in trust anchors, installs it and runs the examples against
#     it (with anchors of their own they succeed, without they are refused);
#  4. builds the Debian package, installs it with apt-get and runs the examples against /usr.
# Usage: scripts/package-check.sh [--no-deb]
set -euo pipefail
cd "$(dirname "$0")/.."
deb=1
[ "${1:-}" = "--no-deb" ] && deb=0
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

echo "-- install (static) into a fresh prefix"
cmake --install build --prefix "$work/static" >/dev/null
leaks=$(grep -lE -- '-Werror|-Wpedantic|-fsanitize|OPENSSL_NO_DEPRECATED' \
  "$work"/static/lib/cmake/OrvAppConfigService/*.cmake "$work"/static/lib/pkgconfig/*.pc || true)
if [ -n "$leaks" ]; then
  echo "project build flags leak into the package: $leaks" >&2
  exit 1
fi
examples/run-examples.sh "$work/static" "$work/examples-static"

echo "-- shared library, with default trust anchors built in"
# A CA of the right name that signed nothing: the built-in anchors must refuse the emulator's signer.
openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 -keyout /dev/null \
  -subj "/O=Varnel Systems, Inc./CN=Varnel Systems, Inc." -out "$work/foreign-ca.pem" 2>/dev/null
cmake -S . -B build-shared -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DORV_WERROR=ON -DBUILD_SHARED_LIBS=ON \
  -DORV_BUILD_TOOLS=OFF -DORV_TRUST_ANCHORS="$work/foreign-ca.pem" >/dev/null
cmake --build build-shared -j"$(nproc)"
cmake --install build-shared --prefix "$work/shared" >/dev/null
ORV_EMULATOR="$work/static/bin/orv-discovery-emulator" ORV_EXPECT_FOREIGN_DEFAULT_ANCHORS=1 \
  examples/run-examples.sh "$work/shared" "$work/examples-shared"

if [ "$deb" = 1 ]; then
  echo "-- Debian package"
  (cd build && cpack -G DEB -B "$work/deb" >/dev/null)
  package=$(ls "$work"/deb/*.deb)
  dpkg-deb --field "$package" Package Version Depends
  $SUDO apt-get install -y -qq "$package" >/dev/null
  status=0
  examples/run-examples.sh /usr "$work/examples-deb" || status=$?
  $SUDO apt-get remove -y -qq liborvappconfigservice-dev >/dev/null
  exit "$status"
fi
