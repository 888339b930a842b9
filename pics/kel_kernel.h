// What every kernel is about, how far it came, and the expansion of its source.
#pragma once

#include "kel_emulate_subr.h"
#include "kel_producer.h"

namespace
{

// What every kernel is about.
struct kernel_t {
    kel_context_t *ctx;
    const kel_vec_t *src;
    const kel_vec_t *dst;
    unsigned ext; // whether the kernel with extra checks was chosen
    cca_t *cca;

    const kernel_set_t *set() const
    {
        return ctx->kernels;
    }

    // Whether a stream of widths goes beside the destination.
    bool var_dst() const
    {
        return ext && dst->format & KEL_VAR;
    }
};

// How far a kernel came.
struct progress_t {
    uint64_t stored = 0;    // stored elements that were taken whole
    uint64_t processed = 0; // elements seen, runs expanded
    uint64_t count = 0;     // the operation's count: matches, elements moved
};

// Whether an expansion is as long as what a kernel reads of it. It is for every source that validation accepts. Without
// validation a source may claim more: by a format that contradicts itself, or beside an operand of more than 32 bytes,
// where kernels ignore the lengths of elements.
inline bool expansion_suffices(const kel_vec_t *src, kel_type_t type, kel_fmt_t fmt, uint64_t bytes)
{
    if (fmt == kel_fmt_mixed && src->format & KEL_VAR && type != kel_type_uintptr)
        return kel_power_of_two(src->aux_width) && src->aux_width <= kel_max_aux_bits;
    const uint64_t bits = type == kel_type_uint8 ? 8 : kel_width_bits(src);
    uint64_t needed;
    return !__builtin_mul_overflow(bits, src->elements, &needed) && needed <= UINT64_MAX - 7 &&
           (needed + 7) / 8 <= bytes;
}

// Calls run() with a plain source: that of a compressed one is expanded first, and goes back afterwards. If it cannot
// be, nothing is written. Kernels' records are never copied: that would cost more than all else that comes before the
// elements.
template <class Run>
kel_status_t with_plain_source(kernel_t &kernel, kel_type_t type, kel_fmt_t fmt, const Run &run)
{
    const kel_vec_t *src = kernel.src;
    if (!(src->format & KEL_ZIP))
        return run();
    kel_vec_t plain = *src;
    size_t size;
    kel_status_t status = kelio_unzip(kernel.ctx, src, &plain.data, &size);
    if (status != KEL_SUCCESS)
        return status;
    plain.format &= ~KEL_ZIP;
    plain.offset = 0;
    kernel.src = &plain;
    const uint64_t decoded = size - kel_unzip_room;
    status = expansion_suffices(&plain, type, fmt, decoded) ? run() : KEL_EDATAFMT;
    kernel.src = src;
    kel_free(kernel.ctx, plain.data, size);
    return status;
}

} // namespace
