#!/usr/bin/env bash
# Writes the pages that are made of the option tables and the help of the programs: docs/options.md, docs/man/*.1
# and packaging/completion/*.
# Usage: scripts/make-docs.sh [FOLDER OF THE PROGRAMS [FOLDER FOR THE PAGES]]
set -euo pipefail
source=$(cd "$(dirname "$0")/.." && pwd)
programs=$(cd "${1:-$source/build/release/bin}" && pwd)
pages=${2:-$source}
mkdir -p "$pages/docs/man" "$pages/packaging/completion"
pages=$(cd "$pages" && pwd)

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
"$programs/zendar" --markdown --noscreen
others="zendar-matrices zendar-simulate"
for program in $others; do "$programs/$program" --help >"$program.txt"; done
version=$(sed -n 's/^Version //p' zendar.md)

part() { # PROGRAM PART [FORM]
    local input=$1.txt markdown=0
    if [ "$1" = zendar ]; then
        input=zendar.md
        markdown=1
    fi
    LC_ALL=C awk -v markdown_input=$markdown -v part="$2" -v form="${3:-roff}" -f "$source/docs/man/page.awk" "$input"
}

# ---- manual pages

for program in zendar $others; do
    while IFS= read -r line; do
        case "$line" in
            @*@) name=${line//@/} && part "$program" "${name,,}" ;;
            *) printf '%s\n' "${line//@VERSION@/$version}" ;;
        esac
    done <"$source/docs/man/$program.1.in" >"$pages/docs/man/$program.1"
done

# ---- docs/options.md

{
    printf '# Options of the programs\n\nMade by `scripts/make-docs.sh` from the tables of the programs.\n\n'
    sed 's/^#/##/' zendar.md
    for program in $others; do
        printf '\n## %s\n\n```\n%s\n```\n\n' "$program" "$(sed -n 's/^usage: //p' $program.txt)"
        part "$program" description markdown
        printf '### Options of %s\n\n' "$program"
        part "$program" options markdown
    done
} | cat -s | sed '$ { /^$/ d }' >"$pages/docs/options.md"

# ---- completion

# Each line: the words of an option, separated by "|", and what stands for its value.
sed -n 's/^| `\([^`]*\)`.*/\1/p' zendar.md | sed 's/, /|/; s/ value$/ VALUE/' >zendar.words
for program in $others; do sed -n 's/^   \(-[^ ]*\)/\1/p' "$program.txt" >"$program.words"; done

for program in zendar $others; do
    files='compgen -f -- "$word"'
    if [ "$program" = zendar ]; then files='compgen -f -X "!*.par" -- "$word"; compgen -d -- "$word"'; fi
    if [ "$program" = zendar-simulate ]; then files='compgen -d -- "$word"'; fi
    function=_${program//-/_}
    {
        echo "# Completion of $program for bash. Made by scripts/make-docs.sh from the help of the program."
        echo "$function() {"
        echo '    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}'
        echo '    case "$before" in'
        # Options with the same kind of value stand together.
        while read -r words value; do
            case "$value" in
                "") continue ;;
                FILE | OUT | STEM) reply='mapfile -t COMPREPLY < <(compgen -f -- "$word")' ;;
                *"|"*) reply="mapfile -t COMPREPLY < <(compgen -W \"${value//|/ }\" -- \"\$word\")" ;;
                *) reply="COMPREPLY=()" ;;
            esac
            printf '%s\t%s\n' "$reply" "$words"
        done <"$program.words" | LC_ALL=C sort -s -t $'\t' -k1,1 | while IFS=$'\t' read -r reply words; do
            if [ "$reply" != "${last-}" ]; then
                printf '%s        %s' "${last+) $last; return ;;
}" "${words//|/ | }"
            else
                printf ' | %s' "${words//|/ | }"
            fi
            last=$reply
            echo "$last" >last_reply
        done
        printf ') %s; return ;;\n' "$(cat last_reply)"
        echo '    esac'
        echo '    if [[ "$word" == -* ]]; then'
        printf '        mapfile -t COMPREPLY < <(compgen -W "%s" -- "$word")\n' \
            "$(cut -d' ' -f1 "$program.words" | tr '|\n' '  ' | sed 's/ $//')"
        echo '    else'
        echo "        mapfile -t COMPREPLY < <($files)"
        echo '    fi'
        echo '}'
        echo "complete -o filenames -F $function $program"
    } >"$pages/packaging/completion/$program"
done
