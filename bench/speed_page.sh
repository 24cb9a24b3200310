#!/bin/bash
# speed_page.sh [--quick] build_folder [page [work_folder]]
#
# Runs the benchmarks of a built tree and writes the page of measured speed (default: docs/speed.md): the machine, then
# each benchmark beside its floor and its peer, then whole runs. It wants a quiet machine, and time; with --quick only
# the smallest sizes run, which shows that everything works but measures little. Peers that are not installed are said
# to be absent. The results of the benchmarks stay in the work folder.
set -euo pipefail

quick=0
if [[ ${1:-} == --quick ]]; then
    quick=1
    shift
fi
source=$(cd "$(dirname "$0")/.." && pwd)
build=$(realpath "$1")
bin=$build/bin
page=$(realpath -m "${2:-$source/docs/speed.md}")
work=${3:-$(mktemp -d)}
mkdir -p "$work"
work=$(realpath "$work")
export OMP_WAIT_POLICY=${OMP_WAIT_POLICY:-ACTIVE}

options=(--benchmark_format=json)
if ((quick)); then
    options+=(--benchmark_min_time=0.02)
    # Names that begin with a minus are left out: what takes more than a second once.
    many='animals:[14]000000|/50000000|slots:|67108864|BM_add_genomic|BM_dsyrk|min_time|readpedigree|BM_read[gt]'
    filter="-($many|inbreeding|ainverse|getorder|setup_lhsrhs|columns:(10|16|32)|missing:[1-9]|mija_lhs|plink2comp)"
    grid=0                     # of the factorisations: the animal model
    animal=(20000 1)           # animals, traits
    single_step=(10000 1000 1000)
    peer=(1 20000 10 1000 20000)
    plink=(1000 2000)
else
    filter=.
    grid='[01]'
    animal=(1000000 2)
    single_step=()
    peer=(3)
    plink=()
fi

say() { echo "$(date +%H:%M:%S) $*" >&2; }

# ---- the machine

field() { LC_ALL=C lscpu | sed -n "s/^$1: *//p" | head -n 1; }
memory=$(awk '/^MemTotal/ { printf "%.0f", $2 / 1048576 }' /proc/meminfo)
compiler=$(sed -n 's/^CMAKE_CXX_COMPILER:[A-Z]*=//p' "$build/CMakeCache.txt")
build_type=$(sed -n 's/^CMAKE_BUILD_TYPE:[A-Z]*=//p' "$build/CMakeCache.txt")
commit=$(git -C "$source" rev-parse --short HEAD 2> "$work/git.txt" || echo unknown)
changed=$(git -C "$source" status --porcelain 2> "$work/git.txt" | head -n 1 || true)
[[ -z $changed ]] || commit="$commit and changes"
load=$(cut -d ' ' -f 1 /proc/loadavg)

# ---- benchmarks of single steps

results=()
for program in zendar_bench zendar_sparse_inv_bench; do
    say "$program"
    chosen=$filter
    [[ $program == zendar_bench ]] || chosen="machine|/$grid/"
    "$bin/$program" "${options[@]}" "--benchmark_filter=$chosen" > "$work/$program.json"
    results+=("$work/$program.json")
done
say 'table of the benchmarks'
"$bin/zendar_speed_page" "${results[@]}" > "$work/table.md"

# ---- whole runs, as they print themselves

# Name of the output, then a script and its arguments behind the build folder.
whole() {
    local name=$1 script=$2
    shift 2
    say "$script"
    mkdir -p "$work/$name"
    "$source/bench/$script" "$build" "$work/$name" "$@" > "$work/$name.txt"
}

# A heading, what the columns are, the output.
section() {
    printf '\n## %s\n\n%s\n\n' "$1" "$2"
    sed 's/^\(.\)/    \1/' "$work/$3.txt"
}

whole animal animal/run.sh "${animal[@]}"
whole single_step single_step/run.sh "${single_step[@]}"
if ((quick)); then
    echo 'left out of the quick page' > "$work/inmemory.txt"
else
    whole inmemory inmemory/run.sh 1
fi
whole peer peer/run.sh "${peer[@]}"
absent=''
[[ -x $bin/zendar_peer_eigen ]] || absent+=' Eigen is absent.'
[[ -x $bin/zendar_peer_petsc ]] || absent+=' PETSc is absent.'
if command -v plink2 > "$work/plink2.where"; then
    whole plink2 single_step/plink2.sh "${plink[@]}"
else
    echo 'plink2 is absent' > "$work/plink2.txt"
fi

# ---- the page

{
    echo '# Measured speed'
    echo
    echo "Made by \`bench/speed_page.sh\` on $(date +%Y-%m-%d), in one go. Every figure was measured on this machine:"
    echo
    echo '| Machine | |'
    echo '|---|---|'
    echo "| processor | $(field 'Model name'), $(field 'CPU(s)') logical cores |"
    echo "| memory | $memory GiB |"
    echo "| load before the start | $load |"
    echo "| compiler | $("$compiler" --version | head -n 1), $build_type |"
    echo "| version | $commit |"
    echo "| waiting threads | OMP_WAIT_POLICY=$OMP_WAIT_POLICY |"
    echo
    ((!quick)) || printf 'This is a quick page with the smallest sizes: it shows what there is, and measures little.\n\n'
    echo 'A floor is what no method can do without, measured in the same run: the bytes at the rate of reading memory,'
    echo 'random accesses, the same additions by DGEMM. A ratio of 1 is at the floor. A peer does the same work by another'
    echo 'program or library. Ratios are the measured time over the other; time of floor or peer is the measured one by'
    echo 'the ratio, which some benchmarks take from their best pass.'
    echo
    cat "$work/table.md"
    section 'Whole runs of an animal model' \
        "${animal[0]} animals with a record each, ${animal[1]} traits; seconds, 1 and 2 threads (t)." animal
    section 'Whole runs of a single-step model' \
        'Seconds of an iteration and of its parts, of the set-up, and of the run; below, until the criterion is met.' \
        single_step
    section 'Whole runs in memory' 'Direct solution and exact prediction error variances.' inmemory
    section 'Beside programs that form the matrix' \
        "Two traits, three effects; seconds of an iteration, of making the matrix, of the run.$absent" peer
    section 'Genotypes beside plink2' 'Products with 10 columns, text to text; seconds, one thread.' plink2
} > "$work/page.md"
sed -i 's/ *$//' "$work/page.md"
mkdir -p "$(dirname "$page")"
cp "$work/page.md" "$page"
say "$page"
