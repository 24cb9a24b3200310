#!/bin/bash
# run.sh build_folder [work_folder [animals [traits]]]
#
# Whole runs of an animal model (default: 1,000,000 animals with a record each, two traits): the time of the stages, of
# an iteration and of the run in seconds, and the peak memory in MiB, with 1 and 2 threads, by sparse A-inverse and by
# iteration on the pedigree. The time of an iteration is that of a run with 100 more of them, less the one without,
# without eigenvalue estimates.
set -euo pipefail

bin=$(realpath "$1")/bin
work=${2:-$(mktemp -d)}
animals=${3:-1000000}
traits=${4:-2}
data=$work/animal_${animals}_$traits
export OMP_WAIT_POLICY=${OMP_WAIT_POLICY:-ACTIVE}   # on a quiet machine; waking a thread up costs up to a third of an iteration
[[ -f $data/data.txt ]] || "$bin/zendar_animal_data" "$data" "$animals" "$traits"

# Name, threads, largest number of iterations, options.
run_once() {
    local folder=$work/run_$1_$2_$3
    mkdir -p "$folder"
    rm -f "$folder"/*.inb
    cp "$data"/{residual,g}.txt "$folder"
    ln -sf "$data/data.txt" "$data/pedigree.txt" "$folder"
    { cat "$data/model.par"; printf '!noesteigen\n!convcrit 1e-30\n!maxiter %s\n%b' "$3" "$4"; } > "$folder/model.par"
    (cd "$folder" && /usr/bin/time -f 'peak %M wall %e cpu_user %U cpu_sys %S' -o time.txt \
        "$bin/zendar" model.par --ncpus "$2" > log.txt)
}

# The first number behind a text in a log.
seconds() { awk -v text="$2" 'index($0, text) { sub(/.*: */, ""); print $1; exit }' "$1"; }
total() { awk '{ print $4 }' "$1"; }

printf '%-10s %2s %9s %9s %9s %9s %9s %9s\n' form t inbreeding A-inverse setup iteration wall MiB
for form in sparse pedigree; do
    options=''
    [[ $form == pedigree ]] && options='!notuseasparse\n'
    for threads in 1 2; do
        run_once $form $threads 20 "$options"
        run_once $form $threads 120 "$options"
        short=$work/run_${form}_${threads}_20 long=$work/run_${form}_${threads}_120
        iteration=$(awk -v a="$(total "$short/time.txt")" -v b="$(total "$long/time.txt")" 'BEGIN { print (b - a) / 100 }')
        printf '%-10s %2s %9s %9s %9s %9s %9s %9.0f\n' $form $threads \
            "$(seconds "$short/log.txt" 'Computation of inbreeding coefficients')" \
            "$(seconds "$short/log.txt" 'Wall clock time (s)               ')" \
            "$(seconds "$short/log.txt" 'Setup of the preconditioner')" \
            "$iteration" "$(total "$short/time.txt")" "$(awk '{ print $2 / 1024 }' "$short/time.txt")"
    done
done
