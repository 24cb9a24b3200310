#!/bin/bash
# plink2.sh build_folder [work_folder [individuals snps]]
#
# Products of genotypes with 10 columns, text to text and reading included, beside those of plink2: SNP weights to
# individuals (--score) and weights of individuals to SNPs (--variant-score); default 10,000 individuals and 50,000
# SNPs. Prints seconds of processor and of wall clock, the least of three runs, one thread each, peak memory in MiB, and
# the largest difference between the results, relative to the largest result (plink2 writes 6 digits).
#
# The weights of each column sum to 0 over the individuals, so that centring changes nothing in their products.
set -euo pipefail

bin=$(realpath "$1")/bin
work=${2:-$(mktemp -d)}
individuals=${3:-10000}
snps=${4:-50000}
columns=10
repeats=3
mkdir -p "$work"
work=$(realpath "$work")
data=$work/data_${individuals}_$snps
export OMP_NUM_THREADS=1
[[ -f $data/residual.txt ]] || "$bin/zendar_single_step_data" "$data" $((2 * individuals)) "$individuals" "$snps"

awk -v n=$columns 'BEGIN { srand(1) }
    { printf "%s %s", $2, $6; for (j = 1; j <= n; ++j) printf " %.6f", 2 * rand() - 1; print "" }' \
    "$data/snp.bim" > "$work/snp_weights.txt"
awk -v n=$columns 'BEGIN { srand(2); printf "#IID"; for (j = 1; j <= n; ++j) printf " W%d", j; print "" }
    { if (NR % 2) for (j = 1; j <= n; ++j) w[j] = NR == last ? 0 : 2 * rand() - 1
      printf "%s", $2; for (j = 1; j <= n; ++j) printf " %.6f", NR % 2 ? w[j] : -w[j]; print "" }' \
    last=$((individuals % 2 ? individuals : 0)) "$data/snp.fam" > "$work/individual_weights.txt"

# Name and a command -> a row.
measure() {
    local name=$1
    shift
    for ((k = 0; k < repeats; ++k)); do
        /usr/bin/time -f '%e %U %S %M' -o "$work/time.txt" "$@" > "$work/screen.txt" 2>&1 ||
            { cat "$work/screen.txt" >&2; exit 1; }
        cat "$work/time.txt"
    done | awk -v name="$name" '
        NR == 1 || $2 + $3 < cpu { cpu = $2 + $3 }
        NR == 1 || $1 < wall { wall = $1 }
        NR == 1 || $4 < memory { memory = $4 }
        END { printf "%-28s %8.2f %8.2f %8.0f\n", name, cpu, wall, memory / 1024 }'
}

plink=(plink2 --bfile "$data/snp" --chr-set 29 no-xy --threads 1 --out "$work/plink2")
ours=("$bin/zendar_genotype_product" "$data/snp")
printf '%-28s %8s %8s %8s\n' program cpu wall MiB
measure 'plink2 --score' "${plink[@]}" --score "$work/snp_weights.txt" 1 2 center 'cols=scoresums' \
    --score-col-nums 3-$((columns + 2))
for store in plain compressed; do
    measure "SNPs to individuals, $store" "${ours[@]}" n "$work/snp_weights.txt" "$work/n_$store.txt" $columns $store
done
measure 'plink2 --variant-score' "${plink[@]}" --variant-score "$work/individual_weights.txt" cols=
for store in plain compressed; do
    measure "individuals to SNPs, $store" "${ours[@]}" t "$work/individual_weights.txt" "$work/t_$store.txt" $columns \
        $store
done

# Files with the results in the last columns, the sign that turns the first into the second. Theirs has a header.
difference() {
    paste -d ' ' <(tail -n +2 "$1") "$2" | awk -v n=$columns -v sign="$3" '
        function abs(x) { return x < 0 ? -x : x }
        { for (j = 0; j < n; ++j) { a = $(NF - n - 1 - j); b = $(NF - j)
            if (abs(b) > most) most = abs(b)
            if (abs(sign * a - b) > d) d = abs(sign * a - b) } }
        END { printf "%.1e", d / most }'
}
printf 'difference: SNPs to individuals %s, individuals to SNPs %s\n' \
    "$(difference "$work/plink2.sscore" "$work/n_plain.txt" 1)" \
    "$(difference "$work/plink2.vscore" "$work/t_plain.txt" -1)"
