// What the kernels of all operations on elements have in common: the types in which elements are read and written, the
// walk over a source's stored elements, and the end of a kernel.
//
// The walk is the definition of correct: any type, format and width, element by element. Faster roads for the common
// shapes stand beside it, with the same bytes, counters, statuses and messages.
#pragma once

#include "kel_emulate_subr.h"
#include "kel_sink.h"
#include <algorithm>
#include <type_traits>

namespace
{

// What every kernel is about.
struct kernel_t {
    kel_context_t *ctx;
    const kel_vec_t *src;
    const kel_vec_t *dst;
    unsigned ext; // whether the kernel with extra checks was chosen
    cca_t *cca;

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

// ---- Element types --------------------------------------------------------------------------------------------------
//
// A type reads an element (get) and holds it right-aligned, writes it as it is (put) or adapted to the destination's
// width (put_pad), and knows its low word (low); widths are in bits.

struct uint64_unalign {
    using word = uint64_t;
    static constexpr int cached = 1;
    static constexpr auto get = kelio_get_dword;
    static constexpr auto put = kelio_put_dword;
    static constexpr auto put_pad = put_pad_uint64_unalign;

    static uint64_t low(word element)
    {
        return element;
    }
};

struct uint128_unalign {
    using word = qword_t;
    static constexpr int cached = 1;
    static constexpr auto get = kelio_get_qword;
    static constexpr auto put = kelio_put_qword;
    static constexpr auto put_pad = put_pad_uint128_unalign;

    static uint64_t low(word element)
    {
        return element.lo;
    }
};

struct uint256_unalign {
    using word = oword_t;
    static constexpr int cached = 1;
    static constexpr auto get = kelio_get_oword;
    static constexpr auto put = kelio_put_oword;
    static constexpr auto put_pad = put_pad_uint256_unalign;

    static uint64_t low(word element)
    {
        return element.dw[3];
    }
};

// Bytes, one after the other, whatever the offset is: what widths of zero lead to.
struct uint8_aligned {
    using word = uint64_t;
    static constexpr int cached = 0;

    static word get(kel_input_t *in, uint64_t)
    {
        return *kelio_get_bits_ptr(in, 8);
    }

    static void put(kel_output_t *out, word element, uint64_t)
    {
        kelio_put_bytes_nocache(out, element, 1);
    }

    static void put_pad(kel_output_t *out, uint64_t flags, word element, uint64_t bits, uint64_t dst_bits, uint64_t run)
    {
        put_pad_uint8(out, flags, static_cast<uint8_t>(element), bits, dst_bits, run);
    }

    static uint64_t low(word element)
    {
        return element;
    }
};

// Elements of more than 32 bytes, or beside such an operand, as a pointer to the 8 bytes that kelio_get_bits_ptr keeps.
struct uintptr_unalign {
    using word = const uint8_t *;
    static constexpr int cached = 1;
    static constexpr uint64_t kept_bits = 64;
    static constexpr auto get = kelio_get_bits_ptr;

    static void put(kel_output_t *out, word element, uint64_t bits)
    {
        put_pad(out, 0, element, bits, bits, 1);
    }

    static void put_pad(kel_output_t *out, uint64_t flags, word element, uint64_t bits, uint64_t dst_bits, uint64_t run)
    {
        put_pad_uintptr_unalign(out, flags, element, std::min(bits, kept_bits), dst_bits, run);
    }

    static uint64_t low(word element)
    {
        return kel_load_be<uint64_t>(element);
    }
};

// ---- Compressed sources ---------------------------------------------------------------------------------------------

// Whether an expansion has the bytes that a kernel reads of it. More are described only by what validation refuses: a
// format that contradicts itself, or an operand of more than 32 bytes, beside which lengths are not looked at.
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

// ---- The walk -------------------------------------------------------------------------------------------------------

// Takes the stored elements one after the other: visit(element, bits, run) outputs one, and may stop the walk by a
// status. widths: the aux stream holds the elements' lengths; runs: their repeat counts. A length is read before its
// element, a run behind it.
template <class Type, bool widths, bool runs, class Visit>
kel_status_t walk_elements(const kernel_t &kernel, const sink &to, progress_t &progress, Visit visit)
{
    const kel_vec_t *src = kernel.src;
    const uint64_t add_one = src->format & KEL_ADD_ONE ? 1 : 0;
    uint64_t bits = kel_width_bits(src);
    uint64_t run = 1;
    kel_input_t in;
    kel_input_t aux = {};
    if (src->elements == 0)
        return KEL_SUCCESS;
    if constexpr (widths || runs)
        kelio_aux_input(src, &aux);
    if constexpr (widths)
        if (kel_input_t first = aux; kelio_aux_get(&first, src->aux_width) + add_one == 0)
            return KEL_EDATAFMT;
    kelio_vec_input(kernel.ctx, src, src->data, Type::cached, &in); // loads the first word at once: there has to be one

    for (; progress.stored < src->elements; progress.stored++) {
        if constexpr (widths)
            if ((bits = 8 * (kelio_aux_get(&aux, src->aux_width) + add_one)) == 0)
                return KEL_EDATAFMT;
        const typename Type::word element = Type::get(&in, bits);
        if constexpr (runs)
            if ((run = kelio_aux_get(&aux, src->aux_width) + add_one) == 0)
                return KEL_EDATAFMT;
        progress.processed += run;
        if (to.full())
            return KEL_EOVERFLOW;
        if (const kel_status_t status = visit(element, bits, run); status != KEL_SUCCESS)
            return status;
    }
    return KEL_SUCCESS;
}

inline kel_status_t finish(const kernel_t &kernel, sink &to, kel_status_t status, const progress_t &progress)
{
    if (status != KEL_SUCCESS)
        kel_kernel_failed(kernel.ctx, status, progress.stored + 1);
    kel_output_t *aux = kernel.var_dst() ? &to.aux : nullptr;
    status = kel_finish_output(kernel.dst, &to.out, to.end, aux, status, kernel.cca);
    kernel.cca->retval = progress.count;
    kernel.cca->n_processed = static_cast<uint32_t>(progress.processed);
    return status;
}

// The general kernel of a type and a format: a walk with the visitor that make_visit<Type>(progress) makes.
template <class Type, class MakeVisit>
kel_status_t general_by_format(const kernel_t &kernel, sink &to, bool widths, bool runs, const MakeVisit &make_visit)
{
    progress_t progress;
    const auto visit = make_visit.template operator()<Type>(progress);
    kel_status_t status;
    if (runs)
        status = walk_elements<Type, false, true>(kernel, to, progress, visit);
    else if (widths)
        status = walk_elements<Type, true, false>(kernel, to, progress, visit);
    else
        status = walk_elements<Type, false, false>(kernel, to, progress, visit);
    return finish(kernel, to, status, progress);
}

// The remaining types, whose classes dispatch never takes, lead to that of 64 bits.
template <class MakeVisit>
kel_status_t general_kernel(const kernel_t &kernel, sink &to, kel_type_t type, kel_fmt_t fmt,
                            const MakeVisit &make_visit)
{
    const bool runs = fmt != kel_fmt_fixed && kernel.src->format & KEL_RLE;
    const bool widths = fmt == kel_fmt_mixed && kernel.ext && kernel.src->format & KEL_VAR;
    switch (type) {
    case kel_type_uintptr:
        return general_by_format<uintptr_unalign>(kernel, to, false, runs, make_visit);
    case kel_type_uint8:
        return general_by_format<uint8_aligned>(kernel, to, false, runs, make_visit);
    case kel_type_uint128:
        return general_by_format<uint128_unalign>(kernel, to, widths, runs, make_visit);
    case kel_type_uint256:
        return general_by_format<uint256_unalign>(kernel, to, widths, runs, make_visit);
    default:
        return general_by_format<uint64_unalign>(kernel, to, widths, runs, make_visit);
    }
}

// ---- Shapes with faster roads ---------------------------------------------------------------------------------------

// Sources whose stored elements are fields of one width up to 64 bits, at an offset that stays in the first byte, with
// a length in bits that fits in 64 bits.
inline bool plain_fields(const kel_vec_t *src)
{
    const uint64_t bits = kel_width_bits(src);
    return bits >= 1 && bits <= 64 && src->offset <= kel_max_offset && src->elements <= (UINT64_MAX - 2 * 8) / 64;
}

// And whose runs, if they have any, are fields of up to 32 bits.
inline bool plain_runs(const kel_vec_t *src)
{
    return kel_power_of_two(src->aux_width) && src->aux_width <= 32 && src->aux_offset <= kel_max_offset;
}

} // namespace
