#!/bin/bash
# run.sh build_folder [work_folder [repeats [records levels1 levels2 levels3]]]
#
# Our program beside programs that form the matrix, on two traits and three effects (default: 1,000,000 records and 10,
# 50,000 and 1,000,000 levels, the last effect random). Prints a table of minima over the repeats: seconds of wall clock
# and of processor, per iteration and in all; iterations; true relative residual ||b - C x||^2 / ||b||^2; peak memory
# in MiB; largest difference of the random effect to the solutions of our program, relative to its largest value.
# Our solution file has 6 digits, which bounds that difference; its residual is the one of the run itself.
set -euo pipefail

bin=$(realpath "$1")/bin
work=${2:-$(mktemp -d)}
repeats=${3:-3}
criterion=1e-12
tight=1e-24   # more iterations, to tell the time of one from the rest of the run
mkdir -p "$work"
work=$(realpath "$work")
export OMP_WAIT_POLICY=${OMP_WAIT_POLICY:-PASSIVE}
[[ -f $work/data/data.txt ]] || "$bin/zendar_peer_data" "$work/data" "${@:4}"

# Name, threads and the "key value" lines of all repeats -> one row.
row() {
    awk -v name="$1" -v threads="$2" '
        !($1 in least) || $2 + 0 < least[$1] + 0 { least[$1] = $2 }
        function get(key, format) { return key in least ? sprintf(format, least[key]) : "-" }
        END { printf "%-28s %2s %5s %8s %8s %8s %8s %8s %10s %8s %10s\n", name, threads, get("iterations", "%d"),
              get("iteration_wall", "%.4f"), get("iteration_cpu", "%.4f"), get("matrix_wall", "%.2f"),
              get("total_wall", "%.2f"), get("total_cpu", "%.2f"), get("true_cr", "%.2e"), get("peak_mib", "%.0f"),
              get("other_difference", "%.1e") }' "$work/measures"
}

# One run of our program: letter of the preconditioner, criterion, further option.
ours_once() {
    local folder=$work/run_$1_$2$3
    mkdir -p "$folder"
    cp "$work"/data/{residual,g}.txt "$folder"
    ln -sf "$work/data/data.txt" "$folder/data.txt"
    {
        cat "$work/data/model.par"
        printf '!convtype cr\n!convcrit %s\n!noesteigen\n%s\n' "$2" "$3"
        printf '!structprecond %s 1 %s\n' "$1" 1 "$1" 2 "$1" 3
    } > "$folder/model.par"
    (cd "$folder" && /usr/bin/time -f '%e %U %S %M' -o time "$bin/zendar" model.par > screen)
    read -r wall user system memory < "$folder/time"
    cpu=$(awk "BEGIN { print $user + $system }")
    # The start counts as iteration 1 there.
    iterations=$(sed -n 's/^All iterations (\([0-9]*\)).*/\1/p' "$folder/log_zendar.dat")
    iterations=$((iterations - 1))
    seconds=$(sed -n 's/^All iterations ([0-9]*)  - Wall clock time (s): *//p' "$folder/log_zendar.dat")
    log=$folder/log_zendar.dat
}

ours() {
    export OMP_NUM_THREADS=$2
    : > "$work/measures"
    local first_cpu first_iterations
    for ((k = 0; k < repeats; ++k)); do
        ours_once "$1" $criterion ""
        first_cpu=$cpu first_iterations=$iterations
        {
            echo "iterations $iterations"
            awk "BEGIN { print \"iteration_wall\", $seconds / $iterations; print \"peak_mib\", $memory / 1024 }"
            echo "total_wall $wall"
            echo "total_cpu $cpu"
        } >> "$work/measures"
        ours_once "$1" $tight ""
        awk "BEGIN { print \"short_cpu\", $first_cpu; print \"long_cpu\", $cpu
                     print \"more\", $iterations - $first_iterations }" >> "$work/measures"
    done
    awk '!($1 in least) || $2 < least[$1] { least[$1] = $2 }
         END { print "iteration_cpu", (least["long_cpu"] - least["short_cpu"]) / least["more"] }' \
        "$work/measures" > "$work/difference"
    cat "$work/difference" >> "$work/measures"
    ours_once "$1" $criterion '!computefinalrhs'
    sed -n 's/^Recomputed CR *: */true_cr /p' "$log" >> "$work/measures"
    row "ours, $1" "$2"
}

# Name, threads, then the program and its arguments between the folder and the criterion.
peer() {
    local name=$1 threads=$2 program=$bin/$3
    shift 3
    [[ -x $program ]] || return 0
    export OMP_NUM_THREADS=$threads
    : > "$work/measures"
    local letter=b
    [[ " $* " == *" jacobi "* ]] && letter=d
    for ((k = 0; k < repeats; ++k)); do
        "$program" "$work/data" "$@" $criterion "$work/run_${letter}_$criterion/solutions.dat" > "$work/one"
        awk '{ print } /^(assemble|read|precond)_wall/ { sum += $2 } END { print "matrix_wall", sum }' "$work/one" \
            >> "$work/measures"
    done
    row "$name $*" "$threads"
}

printf '%-28s %2s %5s %8s %8s %8s %8s %8s %10s %8s %10s\n' program t iter it_wall it_cpu set-up wall cpu residual MiB \
    difference
for threads in 1 2; do
    for letter in d b; do ours $letter $threads; done
done
for preconditioner in jacobi blocks; do
    for threads in 1 2; do
        peer eigen $threads zendar_peer_eigen full triplets $preconditioner
        peer eigen $threads zendar_peer_eigen full streamed $preconditioner
    done
    peer eigen 1 zendar_peer_eigen upper triplets $preconditioner
    peer eigen 1 zendar_peer_eigen upper streamed $preconditioner
    peer petsc 1 zendar_peer_petsc aij $preconditioner
    peer petsc 1 zendar_peer_petsc baij $preconditioner
done
peer petsc 1 zendar_peer_petsc sbaij jacobi
