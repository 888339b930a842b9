#!/bin/sh
# coverage.sh BUILD: a table of the lines that tests reached, from the profiles that a run of them left.
set -eu
build=$1
llvm-profdata merge -sparse -o "$build/tests.profdata" "$build"/profiles/*.profraw
set --
for program in "$build"/tests/test_* "$build"/examples/flights "$build"/tests/public_c_kel_static; do
    [ -x "$program" ] && [ -f "$program" ] && set -- "$@" -object "$program"
done
llvm-cov report -instr-profile "$build/tests.profdata" -show-region-summary=false -show-branch-summary=false \
    -ignore-filename-regex='(tests|examples|googletest|/usr)/' "$@"
