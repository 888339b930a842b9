// What the kernels of several operations share, as far as it runs once a call.
#include "kel_emulate_subr.h"

// log2 of a width of whole bytes, as far as dispatch meets one: 1, 2, 4, and the multiples of 8 to 32.
static unsigned kel_log2(unsigned bytes)
{
    return bytes <= 4 ? bytes / 2 : bytes / 16 + 3;
}

uint64_t kel_dispatch_bytes(uint64_t format, uint32_t elem_width)
{
    return format & KEL_BITS ? (uint64_t{elem_width} + 7) / 8 : elem_width;
}

uint64_t kel_dispatch_bytes(const kel_vec_t *src)
{
    return src->format & KEL_VAR ? kel_max_elem_bytes : kel_dispatch_bytes(src->format, src->elem_width);
}

unsigned kel_class(uint64_t wide)
{
    if (wide > 32)
        return 0;
    unsigned bytes = static_cast<unsigned>((wide + 7) / 8 * 8);
    if (bytes == 24)
        bytes = 32; // there is no type of 24 bytes
    return 2 * kel_log2(bytes) + 2;
}

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
