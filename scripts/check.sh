#!/usr/bin/env bash
# Installs what is missing, builds everything with warnings as errors and runs every test.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-packages.sh build test clang package

# What is compiled is kept for the test that executes the printed commands in a copy of the tree. It stands below this
# one, so that its paths are the same for the cache; whether a warning is an error, and what a package calls the folder
# of the sources, changes nothing that is tested.
export CMAKE_CXX_COMPILER_LAUNCHER=ccache
export CCACHE_DIR=${CCACHE_DIR:-$PWD/build/ccache} CCACHE_BASEDIR=${CCACHE_BASEDIR:-$PWD}
export CCACHE_NOHASHDIR=1 CCACHE_IGNOREOPTIONS="-Werror -ffile-prefix-map=*" CCACHE_MAXSIZE=${CCACHE_MAXSIZE:-2G}

cmake --preset release -DZENDAR_WERROR=ON -DCMAKE_CXX_COMPILER_LAUNCHER=ccache >/dev/null
cmake --build --preset release
if ctest --preset release -j "$(nproc)"; then exit; fi
echo "What failed, once more:"
awk '/^[0-9]+\/[0-9]+ Testing: / { n = 0 }
     { line[n++] = $0 }
     /^Test (Failed|timed out)/ { print line[0]; for (k = n > 40 ? n - 40 : 1; k < n; ++k) print line[k] }' \
    build/release/Testing/Temporary/LastTest.log
exit 1
