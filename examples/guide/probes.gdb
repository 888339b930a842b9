# What a tracer sees of a program: each execution, with its operation (a kel_cmd_t), status and count.
set breakpoint pending on
break -probe-stap kel:kel-execute
commands
    silent
    printf "operation %d, status %d, count %ld\n", ((int *)$_probe_arg1)[1], ((int *)$_probe_arg2)[0], ((long *)$_probe_arg2)[1]
    continue
end
run
