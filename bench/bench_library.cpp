#include "bench_library.h"
#include "kel_extract.h"
#include "kel_scan.h"
#include "kel_select.h"
#include "kel_translate.h"
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

// A kernel in the place of a public function.
template <auto kernel, class... Arguments>
kel_result_t call_kernel(kel_context_t *ctx, uint64_t flags, Arguments... arguments)
{
    cca_t cca = {};
    const kel_status_t status = kernel(ctx, flags, arguments..., &cca);
    return {status, 0, cca.retval};
}

library_t make_walk()
{
    library_t library = {};
#define BENCH_TAKE(call) library.call = ::call;
    BENCH_CALLS(BENCH_TAKE)
#undef BENCH_TAKE
    library = with_contexts(library);
    library.kel_scan_range = call_kernel<kel_scan_range_general>;
    library.kel_translate = call_kernel<kel_translate_general>;
    library.kel_select = call_kernel<kel_select_general>;
    library.kel_extract = [](kel_context_t *ctx, uint64_t flags, const kel_vec_t *src, const kel_vec_t *dst) {
        kel_result_t result = call_kernel<kel_extract_general>(ctx, flags, src, dst);
        result.count = 0;
        return result;
    };
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
