#!/bin/sh
# check_trace.sh SCRIPT PROGRAM: a debugger that attaches to the probe sees the one request that fires it. Skipped where
# there is no debugger, or where it may not run programs.
script=$1
program=$2
gdb -q -batch -ex run /bin/true 2>/dev/null | grep -q 'exited normally' || exit 77
seen=$(gdb -q -batch -x "$script" "$program" 2>/dev/null | grep '^operation')
[ "$seen" = "operation 0, status 0, count 100" ] || { echo "seen: $seen"; exit 1; }
