// The owner test, in the two forms in which calls make it.
#include "kel_frame.h"

#define WRONG_THREAD                                                                                                   \
    "Wrong thread %d using context; owner is %d", static_cast<int>(pthread_self()), static_cast<int>(ctx->thread->tid)

int thread_valid(kel_context_t *ctx, int do_log)
{
    return kel_test(do_log, kel_owner(ctx), ctx, WRONG_THREAD);
}

bool bad_thread_return(kel_context_t *ctx)
{
    return ctx->debug_options && !thread_valid(ctx, 1);
}
