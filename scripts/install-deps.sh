#!/usr/bin/env bash
# Installs everything the project builds and tests with, from Debian 12's packages. Idempotent.
set -euo pipefail
export DEBIAN_FRONTEND=noninteractive
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
packages=(
  build-essential g++ cmake ninja-build pkg-config ca-certificates openssl ccache curl
  libssl-dev libcurl4-openssl-dev libnghttp2-dev
  # Only the versioned 1.81 names: the unversioned boost packages are 1.74 and would remove these.
  libboost1.81-dev libboost-url1.81-dev libboost-json1.81-dev
  libfmt-dev libcli11-dev libgtest-dev libgmock-dev libbenchmark-dev
  # The staging-host test serves an exported catalog from stock nginx; one example bridges into GLib.
  nginx libglib2.0-dev
  # scripts/coverage.sh reports with it.
  gcovr
)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ "${#missing[@]}" -gt 0 ]; then
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
