// The owner test, in the two forms in which calls make it.
#include "kel_frame.h"

void log_wrong_thread(kel_context_t *ctx)
{
    kel_log_line(ctx, KEL_LOG_ERROR, "Wrong thread %d using context; owner is %d", static_cast<int>(pthread_self()),
                 static_cast<int>(ctx->thread->tid));
}

bool bad_thread_return(kel_context_t *ctx)
{
    return ctx->debug_options && !thread_valid(ctx, 1);
}
