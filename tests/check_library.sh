#!/bin/sh
# check_library.sh SHARED STATIC INTERNAL HEADER CLIENT: the shared library needs the C library alone. Both libraries
# show what the header declares and the two failure hooks, nothing else: a client may define every other name that stands
# in the internal archive.
set -u
shared=$1
static=$2
internal=$3
header=$4
client=$5
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

needed=$(ldd "$shared" | awk '{print $1}' | sed 's|.*/||' | grep -v '^linux-vdso' | sort | tr '\n' ' ')
case $needed in
"ld-linux-x86-64.so.2 libc.so.6 ") ;;
*) echo "needs at run time: $needed"; exit 1 ;;
esac

defined() { # defined NM_OPTION FILE
    nm "$1" --defined-only "$2" | awk 'NF == 3 {print $3}' | sed 's/@.*//' | sort
}

{ tr '\n' ' ' <"$header" | grep -o 'KEL_API [a-z_]* [*]*kel_[a-z_]*(' | sed 's/($//; s/.* [*]*//'
    printf 'emulate_error\nkel_debug\n'; } | sort >"$scratch/declared"
defined -D "$shared" >"$scratch/shared"
defined -g "$static" >"$scratch/static"
for library in shared static; do
    diff "$scratch/declared" "$scratch/$library" || { echo "< declared, > defined by the $library library"; exit 1; }
done

defined -g "$internal" | uniq | comm -13 "$scratch/declared" - | sed 's/.*/.globl &\n&:/' >"$scratch/names.s"
grep -q popc_words "$scratch/names.s" || { echo "no internal names in $internal"; exit 1; }
cc -z noexecstack -o "$scratch/client" -I "$(dirname "$header")" "$client" "$scratch/names.s" "$static" && "$scratch/client"
