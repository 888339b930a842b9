// What the kernels of several operations share, as far as it runs once a call.
#include "kel_emulate_subr.h"
#include "kel_text.h"

void do_asserts() {}

void kel_kernel_failed(kel_context_t *ctx, kel_status_t status, uint64_t element)
{
    emulate_error();
    kel_report(ctx, "%s at element index %ld", kel_status_str(status), static_cast<long>(element));
}
