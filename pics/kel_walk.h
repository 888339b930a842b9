// The walk over a source's stored elements, and the types in which they are read and written.
//
// The walk is the definition of correct: any type, format and width, element by element. Faster roads for the common
// shapes stand beside it, with the same bytes, counters, statuses and messages.
#pragma once

#include "kel_kernel.h"
#include <algorithm>
#include <type_traits>

namespace
{

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

// ---- The walk -------------------------------------------------------------------------------------------------------

// Takes the stored elements one after the other: visit(element, bits, run) is called with each, and may stop the walk
// by a status. widths: the aux stream holds the elements' lengths; runs: their repeat counts. A length is read before
// its element, a run behind it.
template <class Type, bool widths, bool runs, class Visit>
kel_status_t walk_elements(const kernel_t &kernel, progress_t &progress, Visit visit)
{
    const kel_vec_t *src = kernel.src;
    const uint64_t add_one = src->format & KEL_ADD_ONE ? 1 : 0;
    uint64_t bits = kel_width_bits(src);
    uint64_t run = 1;
    kel_input_t in;
    kel_input_t aux = {};
    if (progress.stored == src->elements)
        return KEL_SUCCESS;
    if constexpr (widths || runs)
        kelio_aux_input(src, &aux);
    if constexpr (widths)
        if (kel_input_t first = aux; kelio_aux_get(&first, src->aux_width) + add_one == 0)
            return KEL_EDATAFMT;
    kelio_vec_input(kernel.ctx, src, src->data, Type::cached, &in); // loads the first word at once: there has to be one
    // What blocks have taken is read again, without visits: only the lengths tell where the next element stands. Blocks
    // leave elements in error alone, so that this comes before a failure, at most once a call.
    if constexpr (widths)
        for (uint64_t passed = 0; passed < progress.stored; passed++)
            Type::get(&in, 8 * (kelio_aux_get(&aux, src->aux_width) + add_one));

    for (; progress.stored < src->elements; progress.stored++) {
        if constexpr (widths)
            if ((bits = 8 * (kelio_aux_get(&aux, src->aux_width) + add_one)) == 0)
                return KEL_EDATAFMT;
        const typename Type::word element = Type::get(&in, bits);
        if constexpr (runs)
            if ((run = kelio_aux_get(&aux, src->aux_width) + add_one) == 0)
                return KEL_EDATAFMT;
        progress.processed += run;
        if (const kel_status_t status = visit(element, bits, run); status != KEL_SUCCESS)
            return status;
    }
    return KEL_SUCCESS;
}

// As above, in the form that the source has.
template <class Type, class Visit>
kel_status_t walk_source(const kernel_t &kernel, bool widths, bool runs, progress_t &progress, const Visit &visit)
{
    return runs     ? walk_elements<Type, false, true>(kernel, progress, visit)
           : widths ? walk_elements<Type, true, false>(kernel, progress, visit)
                    : walk_elements<Type, false, false>(kernel, progress, visit);
}

// Calls run<Type>(widths, runs) for the type and the form of a source. The remaining types, whose classes dispatch
// never takes, lead to that of 64 bits.
template <class Run>
kel_status_t with_element_type(const kernel_t &kernel, kel_type_t type, kel_fmt_t fmt, const Run &run)
{
    const bool runs = fmt != kel_fmt_fixed && kernel.src->format & KEL_RLE;
    const bool widths = fmt == kel_fmt_mixed && kernel.ext && kernel.src->format & KEL_VAR;
    switch (type) {
    case kel_type_uintptr:
        return run.template operator()<uintptr_unalign>(false, runs);
    case kel_type_uint8:
        return run.template operator()<uint8_aligned>(false, runs);
    case kel_type_uint128:
        return run.template operator()<uint128_unalign>(widths, runs);
    case kel_type_uint256:
        return run.template operator()<uint256_unalign>(widths, runs);
    default:
        return run.template operator()<uint64_unalign>(widths, runs);
    }
}

} // namespace
