#!/bin/sh
# check_library.sh LIBRARY HEADER: the shared library needs the C library alone, and exports what the header declares and
# the two failure hooks, nothing else.
set -u
library=$1
header=$2

needed=$(ldd "$library" | awk '{print $1}' | sed 's|.*/||' | grep -v '^linux-vdso' | sort | tr '\n' ' ')
case $needed in
"ld-linux-x86-64.so.2 libc.so.6 ") ;;
*) echo "needs at run time: $needed"; exit 1 ;;
esac

declared=$({ tr '\n' ' ' <"$header" | grep -o 'KEL_API [a-z_]* [*]*kel_[a-z_]*(' | sed 's/($//; s/.* [*]*//'; printf 'emulate_error\nkel_debug\n'; } | sort)
exported=$(nm -D --defined-only "$library" | awk '{print $NF}' | sed 's/@.*//' | sort)
if [ "$declared" != "$exported" ]; then
    printf 'declared:\n%s\nexported:\n%s\n' "$declared" "$exported"
    exit 1
fi
