#!/usr/bin/env bash
# Installs the Debian packages that are missing, and nothing when none is.
# Usage: scripts/install-packages.sh build|test|clang|package ...
set -euo pipefail

build="g++ cmake ninja-build libopenblas-openmp-dev libmetis-dev libmumps-seq-dev libsuitesparse-dev"
test="libgtest-dev libgmock-dev libbenchmark-dev ccache"
clang="clang-16 libclang-rt-16-dev libomp-16-dev" # ThreadSanitizer and the fuzzers
package="dpkg-dev file"

wanted=""
for group in "$@"; do
    case "$group" in
        build) wanted="$wanted $build" ;;
        test) wanted="$wanted $test" ;;
        clang) wanted="$wanted $clang" ;;
        package) wanted="$wanted $package" ;;
        *) echo "usage: $0 build|test|clang|package ..." >&2; exit 2 ;;
    esac
done

missing=""
for package in $wanted; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q '^install ok installed'; then
        missing="$missing $package"
    fi
done
[ -z "$missing" ] && exit 0

as_root=""
if [ "$(id -u)" -ne 0 ]; then
    if ! command -v sudo >/dev/null; then
        echo "These packages are missing, and neither root rights nor sudo are at hand:$missing" >&2
        exit 1
    fi
    as_root="sudo"
fi
echo "Installing Debian packages:$missing"
$as_root apt-get update -qq
DEBIAN_FRONTEND=noninteractive $as_root apt-get install -y -qq --no-install-recommends $missing >/dev/null
