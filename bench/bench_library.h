// The libraries that are measured, each as a table of its public functions with two contexts.
#pragma once

#include "kel.h"

#define BENCH_CALLS(CALL)                                                                                              \
    CALL(kel_thread_init)                                                                                              \
    CALL(kel_set_debug)                                                                                                \
    CALL(kel_nop)                                                                                                      \
    CALL(kel_scan_value)                                                                                               \
    CALL(kel_scan_range)                                                                                               \
    CALL(kel_translate)                                                                                                \
    CALL(kel_select)                                                                                                   \
    CALL(kel_extract)                                                                                                  \
    CALL(kel_and)                                                                                                      \
    CALL(kel_or)                                                                                                       \
    CALL(kel_copy)                                                                                                     \
    CALL(kel_fill)                                                                                                     \
    CALL(kel_zip_create)                                                                                               \
    CALL(kel_zip_free)

struct library_t {
#define BENCH_MEMBER(call) decltype(&::call) call;
    BENCH_CALLS(BENCH_MEMBER)
#undef BENCH_MEMBER
    kel_context_t *ctx;  // validates arguments, as contexts do by default
    kel_context_t *bare; // does not
};

// The first two are shared libraries that are loaded at run time in one way, so that nothing but their code differs.
const library_t &get_library();  // as it is built
const library_t &get_portable(); // without vector kernels
const library_t &get_walk();     // element by element
