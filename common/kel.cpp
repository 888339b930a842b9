// Calls that tell about a context.
#include "kel_frame.h"

kel_status_t kel_version(kel_context_t *ctx, uint32_t *value)
{
    if (bad_thread_return(ctx))
        return KEL_ETHREAD;
    if (!kel_given(ctx, {{"value", value}}))
        return KEL_EINVAL;
    *value = ctx->api_version;
    return KEL_SUCCESS;
}
