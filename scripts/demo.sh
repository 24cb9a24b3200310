#!/usr/bin/env bash
# Installs what is missing, builds the program and runs it on the example data.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-packages.sh build
cmake --preset release -DZENDAR_TESTS=OFF -DZENDAR_BENCHMARKS=OFF -B build/demo >/dev/null
cmake --build build/demo --target zendar
export OMP_WAIT_POLICY=PASSIVE

run=build/demo/run/gryphon_bwt
rm -rf "$run" && mkdir -p "$run"
cp examples/gryphon_bwt/* "$run"
program=$PWD/build/demo/bin/zendar
echo
echo "Running: zendar model.par --ncpus 2   (in $run)"
(cd "$run" && "$program" model.par --ncpus 2)
echo
echo "The sexes, and the ten animals with the highest breeding values for birth weight,"
echo "beside the published answers ($run/solutions.dat, expected_solutions.txt):"
echo
awk 'NR == FNR { expected[$2, $3] = $5; next }
     $2 == 1   { printf "sex    %6d %12s   published %12.5f\n", $3, $5, expected[$2, $3] }' \
    "$run/expected_solutions.txt" "$run/solutions.dat"
awk 'NR == FNR { expected[$2, $3] = $5; next }
     $2 == 2   { printf "animal %6d %12s   published %12.5f\n", $3, $5, expected[$2, $3] }' \
    "$run/expected_solutions.txt" "$run/solutions.dat" | LC_ALL=C sort -k3,3gr | sed -n 1,10p
