#!/usr/bin/env bash
# A fresh machine to a built tree: dependencies, then the release build in ./build.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
scripts/build.sh
