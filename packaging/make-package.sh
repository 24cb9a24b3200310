#!/usr/bin/env bash
# Builds the programs for a package and writes the Debian package, whose name it prints.
# Usage: packaging/make-package.sh [BUILD FOLDER]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/package}

scripts/install-packages.sh build package >&2
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DZENDAR_PACKAGE=ON \
    -DZENDAR_TESTS=OFF -DZENDAR_BENCHMARKS=OFF >&2
cmake --build "$build" >&2
(cd "$build" && cpack -G DEB) >&2
ls "$build"/*.deb
