#!/usr/bin/env bash
# Installs what is missing, builds everything with warnings as errors and runs every test.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-packages.sh build test
cmake --preset release -DZENDAR_WERROR=ON >/dev/null
cmake --build --preset release
ctest --preset release -j "$(nproc)"
