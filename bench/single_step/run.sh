#!/bin/bash
# run.sh build_folder [work_folder [animals genotyped snps]]
#
# Whole runs of a single-step model (default: 200,000 animals with a record each, the youngest 20,000 of them with
# genotypes of 20,000 SNPs): random types 30 and 22, genotypes as PLINK bytes and in the five-code store, 1 and 2
# threads. Prints two tables.
#
# 1. Seconds of wall clock: of an iteration, mean over 30 of them, and its parts: products with genotypes, and their
#    share; records; A22-inverse; the rest of the random part; the preconditioner. Then of the set-up: reading the
#    data, the five-code store of it, A-inverse with the blocks of A22-inverse, its diagonal by sampling, and the rest
#    of the preconditioner. Then of the run, and its peak memory in MiB.
# 2. On a tenth of the animals, of the genotyped ones and of the SNPs, until the criterion is met: iterations and
#    seconds without deflation and with 10, 50 and 200 equations per subdomain, by 2 threads.
set -euo pipefail

bin=$(realpath "$1")/bin
work=${2:-$(mktemp -d)}
animals=${3:-200000}
genotyped=${4:-20000}
snps=${5:-20000}
criterion=1e-12
mkdir -p "$work"
work=$(realpath "$work")
export OMP_WAIT_POLICY=${OMP_WAIT_POLICY:-PASSIVE}

# Animals, genotyped, SNPs -> the folder of the data.
make_data() {
    data=$work/data_$1_$2_$3
    [[ -f $data/residual.txt ]] || "$bin/zendar_single_step_data" "$data" "$1" "$2" "$3"
}

# Name of the run, type, threads, options. Sets `log`: one line, single blanks.
run_once() {
    folder=$work/run_$1
    mkdir -p "$folder"
    rm -f "$folder"/*.inb
    ln -sf "$data"/{data.txt,pedigree.txt,g.txt,residual.txt,snp.bed,snp.bim,snp.fam} "$folder"
    { cat "$data/model$2.par"; printf '%b' "$4"; } > "$folder/model.par"
    (cd "$folder" && /usr/bin/time -f '%M %e' -o time.txt "$bin/zendar" model.par --ncpus "$3" > log.txt)
    log=$(tr -s ' \n' ' ' < "$folder/log.txt")
}

# The first number behind a text in the log, else 0.
first() { grep -oP "\Q$1\E *\K[0-9.]+" <<< "$log" | head -n 1 || echo 0; }
# The mean of all but the first number, which is that of the right-hand side.
mean() {
    { grep -oP "\Q$1\E *\K[0-9.]+" <<< "$log" || true; } | awk 'NR > 1 { s += $1 } END { print (NR > 1 ? s / (NR - 1) : 0) }'
}
# Wall clock of a stage.
stage() {
    awk -v end="END: $1" '/^Wall clock time \(s\): / { last = $NF } $0 == end { print last }' "$folder/log.txt"
}

printf '%-4s %-10s %2s | %9s %9s %5s %8s %8s %8s %8s | %7s %7s %7s %8s %8s | %7s %7s\n' type genotypes t iteration product \
    '%' records A22i random precond data store A-inv diagonal precond wall MiB
make_data "$animals" "$genotyped" "$snps"
for type in 30 22; do
    for genotypes in PLINK five-code; do
        option=''
        [[ $genotypes == five-code ]] && option='!miraculix 3\n'
        for threads in 1 2; do
            run_once "${type}_${genotypes}_$threads" $type $threads "!noesteigen\n!convcrit 1e-30\n!maxiter 31\n$option"
            read -r memory wall < "$folder/time.txt"
            all=$(first 'All iterations (31) - Wall clock time (s):')
            diagonal=$(first 'End of Gibbs sampler - wall clock time (s):')
            setup=$(first 'Setup of the preconditioner - Wall clock time (s):')
            awk -v type=$type -v genotypes=$genotypes -v threads=$threads -v all="$all" -v wall="$wall" \
                -v first="$(mean 'Huge_covariable * x :')" -v second="$(mean 'Huge_covariable * x (single step) :')" \
                -v records="$(mean 'Least squares part * x :')" -v a22i="$(mean 'A22i * x :')" \
                -v random="$(mean 'Total random part * x :')" -v precond="$(mean 'M-1 * x:')" \
                -v data="$(stage 'reading data')" -v store="$(first 'Initialization Miraculix CPU :')" \
                -v matrices="$(stage 'creating LHS and RHS in memory')" -v setup="$setup" -v diagonal="$diagonal" \
                -v memory="$memory" 'BEGIN {
                    one = all / 30
                    printf "%-4s %-10s %2s | %9.4f %9.4f %5.1f %8.4f %8.4f %8.4f %8.4f | %7.2f %7.2f %7.2f %8.2f %8.2f | %7.2f %7.0f\n",
                        type, genotypes, threads, one, first + second, 100 * (first + second) / one, records, a22i,
                        random - a22i - second, precond, data - store, store, matrices - setup, diagonal,
                        setup - diagonal, wall, memory / 1024
                }'
        done
    done
done

printf '\n%-4s %-14s %10s %10s %10s %10s\n' type solver iterations seconds start wall
make_data $((animals / 10)) $((genotyped / 10)) $((snps / 10))
for type in 30 22; do
    for solver in pcg_iod 'dpcg_iod 200' 'dpcg_iod 50' 'dpcg_iod 10'; do
        run_once "${type}_${solver/ /_}" $type 2 "!noesteigen\n!convcrit $criterion\n!solver $solver\n"
        read -r memory wall < "$folder/time.txt"
        # The start counts as iteration 1.
        read -r iterations seconds <<< "$(sed -nE 's/^All iterations \(([0-9]+)\).*: *([0-9.]+)$/\1 \2/p' "$folder/log.txt")"
        start=$(awk -v solve="$(stage 'solving the MME')" -v seconds="$seconds" 'BEGIN { print solve - seconds }')
        printf '%-4s %-14s %10s %10s %10.2f %10s\n' $type "$solver" $((iterations - 1)) "$seconds" "$start" "$wall"
    done
done
