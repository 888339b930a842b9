#!/bin/sh
# check_programs.sh PAGE EXAMPLES BINARIES: each program that a page shows in C or C++ is a file of the examples, to the
# letter, and prints what the page shows behind it.
set -eu
page=$1
examples=$2
binaries=$3
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

# The fenced blocks, in order: 01.c, 02.text, ...; those in other languages, and those behind them, are left alone.
awk -v to="$scratch" '
    /^```(c|cpp|text)$/ { file = sprintf("%s/%02d.%s", to, ++n, substr($0, 4)); next }
    /^```/ { file = "" }
    file { print > file }' "$page"

programs=0
for block in "$scratch"/*.c "$scratch"/*.cpp; do
    [ -e "$block" ] || continue
    source=
    for file in "$examples"/*.c "$examples"/*/*.cpp; do
        cmp -s "$file" "$block" && source=$file
    done
    [ "$source" ] || { echo "no file of the examples is this program:"; cat "$block"; exit 1; }
    name=$(basename "${source%.*}")
    case $source in */guide/*) name=guide_$name ;; esac
    output=$(printf '%s/%02d.text' "$scratch" $(($(basename "${block%.*}" | sed 's/^0//') + 1)))
    [ -e "$output" ] || { echo "$page does not show what $name prints"; exit 1; }
    "$binaries/$name" | diff "$output" - || { echo "$name prints something else"; exit 1; }
    programs=$((programs + 1))
done
[ "$programs" -gt 0 ] || { echo "$page shows no program"; exit 1; }
