#!/usr/bin/env bash
# Usage: scripts/test-package.sh   (builds the Debian package and checks it as installed)
#
# Builds the package, checks it with lintian, unpacks it into a scratch root, prepares a few
# photos with the installed varnelo-batch and the installed varnelo beside it, renders both
# manual pages and checks that the pages, the README and the completion name every option the
# programs know. Needs the release tree (build/) for the photo maker.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
fail() {
    echo "package test: $*" >&2
    exit 1
}

deb=$(scripts/package.sh "$scratch/dist" | tail -1)
lintian --fail-on error "$deb" 2>&1 | grep -v 'running with root privileges' || true
lintian --fail-on error "$deb" >/dev/null 2>&1 || fail "lintian reports errors"
depends=$(dpkg-deb -f "$deb" Depends)
for library in libjpeg62-turbo libtinyxml libexiv2; do
    [[ $depends == *"$library"* ]] || fail "Depends lacks $library: $depends"
done

dpkg -x "$deb" "$scratch/root"
bin="$scratch/root/usr/bin"
man1="$scratch/root/usr/share/man/man1"
completion="$scratch/root/usr/share/bash-completion/completions/varnelo-batch"
[ -x "$bin/varnelo" ] && [ -x "$bin/varnelo-batch" ] || fail "the programs are not in /usr/bin"
[ -f "$completion" ] || fail "no bash completion"

# A few photos, one with its name in Latin-1, through the installed programs.
mkdir -p "$scratch/photos/trip"
build/varnelo-sample-photo "$scratch/photos/trip/IMG_0001.jpg" 1200 900
build/varnelo-sample-photo --seed 2 "$scratch/photos/trip/IMG_0002.JPG" 900 1200
build/varnelo-sample-photo --seed 3 "$scratch/photos/caf$(printf '\351').jpg" 1000 750
"$bin/varnelo-batch" -q -r --size 400 --thumbnails --report "$scratch/report.json" \
    "$scratch/photos" -o "$scratch/upload" || fail "varnelo-batch failed"
count=$(find "$scratch/upload" -name '*.jpg' ! -name '*_thumb.jpg' | wc -l)
[ "$count" -eq 3 ] || fail "$count copies instead of 3"
grep -q '"status":"converted"' "$scratch/report.json" || fail "no converted photo in the report"
[ "$("$bin/varnelo-batch" --version | cut -d' ' -f1)" = varnelo-batch ] || fail "--version"

# The pages render without a warning, and name every option.
for page in varnelo varnelo-batch; do
    warnings=$(MANWIDTH=80 man --warnings -l "$man1/$page.1.gz" 2>&1 >"$scratch/$page.txt")
    [ -z "$warnings" ] || fail "man $page: $warnings"
done
options=$("$bin/varnelo-batch" --help | grep -oE '(^|[ ,])--?[a-z0-9][a-z0-9-]*' |
    sed 's/^[ ,]*//' | sort -u)
[ "$(wc -l <<<"$options")" -ge 20 ] || fail "too few options read from --help"
for option in $options; do
    grep -qe "$option\b" "$scratch/varnelo-batch.txt" || fail "man varnelo-batch lacks $option"
    grep -qe "\`$option\b" README.md || fail "the README lacks $option"
    if [[ $option == --* ]]; then
        grep -qe "$option\b" "$completion" || fail "the completion lacks $option"
    fi
done
usage=$("$bin/varnelo" -h 2>&1 >/dev/null || true)
for option in $(grep -oE '^  -[a-z]' <<<"$usage"); do
    grep -qe "$option\b" "$scratch/varnelo.txt" || fail "man varnelo lacks $option"
done
echo "package test: $(basename "$deb") passed"
