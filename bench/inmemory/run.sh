#!/bin/bash
# run.sh build_folder [work_folder [threads]]
#
# Whole runs of two-trait animal models in memory, 20,500 and 205,000 equations: seconds of the assembly, of the
# ordering, factorisation and inversion for prediction error variances, CPU seconds and peak MiB of that run; then the
# direct solution of the same equations.
set -euo pipefail

bin=$(realpath "$1")/bin
work=${2:-$(mktemp -d)}
threads=${3:-1}
export OMP_WAIT_POLICY=${OMP_WAIT_POLICY:-PASSIVE}

# Name, animals, herds, options, words of the command line.
run_once() {
    local data=$work/animal_$2 folder=$work/$1_$2
    [[ -f $data/data.txt ]] || "$bin/zendar_animal_data" "$data" "$2" 2 "$3"
    mkdir -p "$folder"
    cp "$data"/{residual,g,model}.* "$folder"
    ln -sf "$data/data.txt" "$data/pedigree.txt" "$folder"
    printf '%b' "$4" > "$folder/model.par_options"
    (cd "$folder" && /usr/bin/time -f '%M %U %e' -o time.txt "$bin/zendar" model.par $5 --ncpus "$threads" > log.txt)
}

for size in '10000 250' '100000 2500'; do
    read -r animals herds <<< "$size"
    run_once pev "$animals" "$herds" '!solver pardiso\n' 'r 1'
    log=$work/pev_$animals/log.txt
    echo "animals $animals, $threads threads: prediction error variances"
    grep -E 'least square part|ordering|Symbolic|Cholesky|inversion|Conversion|Total time' "$log" || true
    awk '{ printf "  peak %.0f MiB, CPU %s s, wall %s s\n", $1 / 1024, $2, $3 }' "$work/pev_$animals/time.txt"
    run_once direct "$animals" "$herds" '!solver pardiso\n' ''
    echo "animals $animals, $threads threads: direct solution"
    grep -E 'factors|Elapsed time \(s\)  |solving|dependent' "$work/direct_$animals/log.txt" || true
    awk '{ printf "  peak %.0f MiB, CPU %s s, wall %s s\n", $1 / 1024, $2, $3 }' "$work/direct_$animals/time.txt"
done
