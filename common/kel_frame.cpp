// The reports of the tests that stand before every validator's own: the owner test, and arguments that are null.
#include "kel_frame.h"

void log_wrong_thread(kel_context_t *ctx)
{
    kel_log_line(ctx, KEL_LOG_ERROR, "Wrong thread %d using context; owner is %d", static_cast<int>(pthread_self()),
                 static_cast<int>(ctx->thread->tid));
}

void report_null(kel_context_t *ctx, const char *name)
{
    kel_report(ctx, "Invalid %s: must not be null", name);
}

bool bad_thread_return(kel_context_t *ctx)
{
    return ctx->debug_options && !thread_valid(ctx, 1);
}
