#include "bench_library.h"
#include "kel_init.h"
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>

namespace
{

library_t with_contexts(library_t library)
{
    if (library.kel_thread_init(2, 1, 0, nullptr, &library.ctx) != KEL_SUCCESS ||
        library.kel_thread_init(2, 1, 0, nullptr, &library.bare) != KEL_SUCCESS ||
        library.kel_set_debug(library.bare, 0) != KEL_SUCCESS)
        abort();
    return library;
}

template <class Call>
void find(void *file, const char *name, Call *&call)
{
    call = reinterpret_cast<Call *>(dlsym(file, name));
    if (!call) {
        fprintf(stderr, "%s\n", dlerror());
        exit(1);
    }
}

library_t load(const char *path)
{
    void *file = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (!file) {
        fprintf(stderr, "%s\n", dlerror());
        exit(1);
    }
    library_t library = {};
#define BENCH_FIND(call) find(file, #call, library.call);
    BENCH_CALLS(BENCH_FIND)
#undef BENCH_FIND
    return with_contexts(library);
}

library_t make_walk()
{
    library_t library = {};
#define BENCH_TAKE(call) library.call = ::call;
    BENCH_CALLS(BENCH_TAKE)
#undef BENCH_TAKE
    library = with_contexts(library);
    library.ctx->kernels = library.bare->kernels = nullptr;
    return library;
}

} // namespace

const library_t &get_library()
{
    static const library_t library = load(MEASURED_LIBRARY);
    return library;
}

const library_t &get_portable()
{
    static const library_t library = load(PORTABLE_LIBRARY);
    return library;
}

const library_t &get_walk()
{
    static const library_t library = make_walk();
    return library;
}
