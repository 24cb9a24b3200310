#!/usr/bin/env bash
# Proves the README from nothing: installs a bare Debian 12 into a folder, puts the last commit into it, and runs the
# two commands of the README there. Prints how long each took.
#
# Usage: scripts/bare-debian.sh [--demo-only] [--keep] [FOLDER]
#   --demo-only  leaves the tests out
#   --keep       leaves the folder behind
#   FOLDER       new or empty; a new one under $TMPDIR (or /tmp) when it is not given
#
# Needs root rights with chroot and mount, the packages debootstrap and git, and 3 GB of disk (6 GB with the tests).
# Packages come from the Debian mirror and by the proxies that this machine's apt is set to.
set -euo pipefail
release=bookworm

stop() {
    echo "$0: $*" >&2
    exit 1
}

# ---- what is asked for, and what is there

commands="scripts/demo.sh scripts/check.sh"
keep=no
root=
for word in "$@"; do
    case "$word" in
        --demo-only) commands=scripts/demo.sh ;;
        --keep) keep=yes ;;
        -*) stop "unknown option $word; usage: $0 [--demo-only] [--keep] [FOLDER]" ;;
        *) root=$word ;;
    esac
done
tree=$(cd "$(dirname "$0")/.." && pwd)
[ "$(id -u)" -eq 0 ] || stop "root rights are needed, for debootstrap, chroot and mount"
for program in debootstrap git chroot mount apt-get; do
    command -v $program >/dev/null || stop "$program is missing. On Debian: apt-get install debootstrap git"
done
for command in $commands; do
    grep -qx " *$command" "$tree/README.md" || stop "README.md does not tell to run $command"
done
git -C "$tree" rev-parse HEAD >/dev/null || stop "$tree is no git repository"
[ -z "$(git -C "$tree" status --porcelain)" ] || echo "There are changes that are not committed; they are left out."

# "RELEASE URI" of each Debian archive that this machine's apt uses.
archives=$(apt-get indextargets --format '$(RELEASE) $(COMPONENT) $(REPO_URI)' 'Identifier: Packages' |
    awk -v release=$release '$2 == "main" && ($1 == release || index($1, release "-") == 1) { print $1, $3 }' | sort -u)
mirror=$(awk -v release=$release '$1 == release { print $2; exit }' <<<"$archives")
[ -n "$mirror" ] || stop "apt has no Debian mirror of $release here"

if [ -z "$root" ]; then
    root=$(mktemp -d "${TMPDIR:-/tmp}/bare-debian.XXXXXX")
else
    mkdir -p "$root"
    [ -z "$(ls -A "$root")" ] || stop "the folder $root is not empty"
fi
root=$(cd "$root" && pwd -P)
chmod 755 "$root" # apt works as a user of its own

# ---- the end, however it comes

mounted=()
clean_up() {
    local place
    for place in "${mounted[@]}"; do umount "$place" || umount -l "$place" || true; done
    if [ $keep = yes ]; then
        echo "The bare Debian is left in $root"
    elif awk -v root="$root/" 'index($2, root) == 1 { found = 1 } END { exit found }' /proc/mounts; then
        rm -rf --one-file-system "$root"
    else
        echo "Something is still mounted in $root, which is left as it is" >&2
    fi
}
trap clean_up EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

mount_inside() { # PLACE MOUNT-ARGUMENTS
    local place=$root/$1
    shift
    mkdir -p "$place"
    mount "$@" "$place"
    mounted=("$place" "${mounted[@]}")
}

seconds_of() { # SECONDS
    printf '%d min %02d s' $(($1 / 60)) $(($1 % 60))
}

# ---- the bare system

start=$SECONDS
include=
# A mirror with certificates cannot be reached by a system without.
case "$archives" in *https://*) include=--include=ca-certificates ;; esac
echo "Installing Debian $release from $mirror into $root"
log=$(mktemp)
debootstrap --variant=minbase $include $release "$root" "$mirror" >"$log" 2>&1 ||
    { tail -20 "$log" >&2 && stop "debootstrap failed; its messages are in $log"; }
rm -f "$log"

while read -r suite uri; do echo "deb $uri $suite main"; done <<<"$archives" >"$root/etc/apt/sources.list"
apt-config dump | grep -E '^Acquire::(http|https|Check-|Retries|ForceIPv)' >"$root/etc/apt/apt.conf.d/90host" || true
cp -L /etc/resolv.conf "$root/etc/resolv.conf"
if [ -n "$include" ]; then cp -L /etc/ssl/certs/ca-certificates.crt "$root/etc/ssl/certs/"; fi
mount_inside proc -t proc proc
mount_inside dev/shm -t tmpfs tmpfs
mount_inside dev/pts -t devpts devpts
mkdir "$root/zendar"
git -C "$tree" archive HEAD | tar -x -C "$root/zendar"
echo "Debian is installed ($(seconds_of $((SECONDS - start)))), with $(ls "$root"/var/lib/dpkg/info/*.list | wc -l) packages"

# ---- the commands of the README

settings=(HOME=/root LANG=C.UTF-8 PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin)
for name in http_proxy https_proxy no_proxy HTTP_PROXY HTTPS_PROXY NO_PROXY; do
    if [ -n "${!name-}" ]; then settings+=("$name=${!name}"); fi
done
report=
for command in $commands; do
    echo
    echo "---- $command"
    start=$SECONDS
    chroot "$root" env -i "${settings[@]}" sh -c "cd /zendar && $command" || stop "$command failed with status $?"
    report+="$command: $(seconds_of $((SECONDS - start)))"$'\n'
done
echo
echo "On $(nproc) cores, in a bare Debian $(cat "$root/etc/debian_version"), packages included:"
printf '%s' "$report"
