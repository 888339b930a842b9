// What the kernels of several operations share, as far as it runs once a call.
#include "kel_emulate_subr.h"

void do_asserts() {}

void kel_kernel_failed(kel_context_t *ctx, kel_status_t status, uint64_t element)
{
    emulate_error();
    kel_report(ctx, "%s at element index %ld", kel_status_str(status), static_cast<long>(element));
}

kel_status_t kel_finish_output(const kel_vec_t *dst, kel_output_t *out, const void *end, kel_output_t *aux,
                               kel_status_t status, cca_t *cca)
{
    const auto pad_status = static_cast<kel_status_t>(kelio_pad_output(out, end));
    kelio_flush(out);
    cca->output_sz = static_cast<uint32_t>(kelio_out_size(out, dst->data));
    if (aux) {
        kelio_pad_output(aux, kel_dst_end(dst->aux_data, kel_aux_bytes(dst)));
        kelio_flush(aux);
    }
    return status != KEL_SUCCESS ? status : pad_status;
}
