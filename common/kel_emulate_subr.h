// What the kernels of several operations share: the choice of a kernel's class, element types, the adaptation of an
// element to its destination, and the two ways out of a kernel.
#pragma once

#include "kel_cca.h"
#include "kel_init.h"
#include "kel_io.h"
#include "kel_limits.h"
#include "kel_vector.h"

// ---- Dispatch -------------------------------------------------------------------------------------------------------

// The element types of the kernels. A class is twice the type's number; the odd classes are for aligned elements of
// equal widths. Dispatch takes uint8 for a width of 0 alone, and neither uint16 nor uint32 nor an odd class; an
// operator that spills into the class can lead there, and gets the general kernels.
enum kel_type_t : unsigned {
    kel_type_uintptr,
    kel_type_uint8,
    kel_type_uint16,
    kel_type_uint32,
    kel_type_uint64,
    kel_type_uint128,
    kel_type_uint256,
    kel_types
};

// The formats of the kernels.
enum kel_fmt_t : unsigned { kel_fmt_fixed, kel_fmt_rle, kel_fmt_mixed, kel_fmts };

// The width in bytes that dispatch sees of a vector or value, and of a source, whose variable elements count as 16.
inline uint64_t kel_dispatch_bytes(uint64_t format, uint32_t elem_width)
{
    return format & KEL_BITS ? (uint64_t{elem_width} + 7) / 8 : elem_width;
}

inline uint64_t kel_dispatch_bytes(const kel_vec_t *src)
{
    return src->format & KEL_VAR ? kel_max_elem_bytes : kel_dispatch_bytes(src->format, src->elem_width);
}

// log2 of a width of 1, 2, 4, 8, 16 or 32 bytes.
inline unsigned kel_log2(unsigned bytes)
{
    return bytes <= 4 ? bytes / 2 : bytes / 16 + 3;
}

// The class for the widest of the operands, in bytes.
inline unsigned kel_class(uint64_t wide)
{
    if (wide >= 1 && wide <= 8) [[likely]]
        return 8; // the usual one, at once
    if (wide > 32)
        return 0;
    unsigned bytes = static_cast<unsigned>((wide + 7) / 8 * 8);
    if (bytes == 24)
        bytes = 32; // there is no type of 24 bytes
    return 2 * kel_log2(bytes) + 2;
}

inline kel_fmt_t kel_dispatch_fmt(const kel_vec_t *src)
{
    return src->format & KEL_RLE ? kel_fmt_rle : src->format & KEL_VAR ? kel_fmt_mixed : kel_fmt_fixed;
}

// Whether the kernels with extra checks are taken.
inline unsigned kel_dispatch_ext(const kel_context_t *ctx, const kel_vec_t *src)
{
    return ctx->debug_options & KEL_DEBUG_EXTRA || src->format & KEL_VAR;
}

// ---- Ends of a kernel -----------------------------------------------------------------------------------------------

// The end of a destination as kernels see it: its byte length rounded up to the unit of padding.
inline void *kel_dst_end(void *start, uint64_t bytes)
{
    return static_cast<uint8_t *>(start) + (bytes + kel_dst_align - 1) / kel_dst_align * kel_dst_align;
}

// A place for checks of the kernels' invariants; empty.
void do_asserts();

// Reports that a kernel stopped with status at the stored element that is the given one, counted from 1.
void kel_kernel_failed(kel_context_t *ctx, kel_status_t status, uint64_t element);

// Finishes the destination: pads it, counts its bytes, and answers the kernel's status, or that of the padding if the
// kernel has none of its own. aux: the writer beside it that is to be padded as well, or null.
inline kel_status_t kel_finish_output(const kel_vec_t *dst, kel_output_t *out, const void *end, kel_output_t *aux,
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

// ---- Adaptation of an element to the width of a destination element -------------------------------------------------
//
// The element of src_bits is right-aligned in its word. Too wide for dst_bits, it keeps its top bytes; narrower, it
// stands at the low end, or at the high end with KEL_PAD. It is written count times.

// Shifts of a word of Word's width, taken modulo that width as the processor does.
template <class Word>
inline Word kel_word_shift(Word v, bool left, uint64_t bits)
{
    const uint64_t masked = bits & (8 * sizeof(Word) < 32 ? 31 : 8 * sizeof(Word) - 1);
    return static_cast<Word>(left ? uint64_t{v} << masked : uint64_t{v} >> masked);
}

inline qword_t kel_word_shift(qword_t v, bool left, uint64_t bits)
{
    return left ? qword_lshift(v, bits) : qword_rshift(v, bits);
}

inline oword_t kel_word_shift(oword_t v, bool left, uint64_t bits)
{
    return left ? oword_lshift(v, bits) : oword_rshift(v, bits);
}

// The shifts of an adaptation, one of which is 0.
struct adaptation_t {
    uint64_t right;
    uint64_t left;
};

inline adaptation_t kel_adaptation(uint64_t flags, uint64_t src_bits, uint64_t dst_bits)
{
    const uint64_t rounded = kel_round_bits(src_bits);
    return {rounded > dst_bits ? rounded - dst_bits : 0,
            flags & KEL_PAD && rounded < dst_bits ? dst_bits - rounded : 0};
}

template <class Word>
inline Word kel_adapt(uint64_t flags, Word v, ulong_t src_bits, ulong_t dst_bits)
{
    const adaptation_t shift = kel_adaptation(flags, src_bits, dst_bits);
    return shift.right != 0  ? kel_word_shift(v, false, shift.right)
           : shift.left != 0 ? kel_word_shift(v, true, shift.left)
                             : v;
}

// The aligned forms store whole elements at out->buf, which is a plain byte pointer here.
template <class Word>
inline void kel_put_pad_aligned(kel_output_t *out, uint64_t flags, Word v, ulong_t src_bits, ulong_t dst_bits,
                                ulong_t count)
{
    v = kel_adapt(flags, v, src_bits, dst_bits);
    for (; count > 0; count--) {
        kel_store_be(out->buf, v);
        kelio_advance(out, sizeof v);
    }
}

inline void put_pad_uint8(kel_output_t *out, uint64_t flags, uint8_t v, ulong_t src_bits, ulong_t dst_bits,
                          ulong_t count)
{
    kel_put_pad_aligned(out, flags, v, src_bits, dst_bits, count);
}

inline void put_pad_uint16(kel_output_t *out, uint64_t flags, uint16_t v, ulong_t src_bits, ulong_t dst_bits,
                           ulong_t count)
{
    kel_put_pad_aligned(out, flags, v, src_bits, dst_bits, count);
}

inline void put_pad_uint32(kel_output_t *out, uint64_t flags, uint32_t v, ulong_t src_bits, ulong_t dst_bits,
                           ulong_t count)
{
    kel_put_pad_aligned(out, flags, v, src_bits, dst_bits, count);
}

inline void put_pad_uint64(kel_output_t *out, uint64_t flags, uint64_t v, ulong_t src_bits, ulong_t dst_bits,
                           ulong_t count)
{
    kel_put_pad_aligned(out, flags, v, src_bits, dst_bits, count);
}

inline void put_pad_uint64_unalign(kel_output_t *out, uint64_t flags, uint64_t v, ulong_t src_bits, ulong_t dst_bits,
                                   ulong_t count)
{
    v = kel_adapt(flags, v, src_bits, dst_bits);
    for (; count > 0; count--)
        kelio_put_bits(out, v, dst_bits);
}

inline void put_pad_uint128_unalign(kel_output_t *out, uint64_t flags, qword_t v, ulong_t src_bits, ulong_t dst_bits,
                                    ulong_t count)
{
    v = kel_adapt(flags, v, src_bits, dst_bits);
    for (; count > 0; count--)
        kelio_put_qword(out, v, dst_bits);
}

inline void put_pad_uint256_unalign(kel_output_t *out, uint64_t flags, oword_t v, ulong_t src_bits, ulong_t dst_bits,
                                    ulong_t count)
{
    v = kel_adapt(flags, v, src_bits, dst_bits);
    for (; count > 0; count--)
        kelio_put_oword(out, v, dst_bits);
}

// The element as bytes, written at out->buf.
inline void put_pad_uintptr(kel_output_t *out, uint64_t flags, const uint8_t *element, ulong_t src_bits,
                            ulong_t dst_bits, ulong_t count)
{
    const size_t size = dst_bits / 8;
    const size_t bytes = kel_round_bits(src_bits) / 8;
    const size_t kept = bytes < size ? bytes : size;
    const size_t front = flags & KEL_PAD ? 0 : size - kept;
    for (; count > 0; count--) {
        auto *to = reinterpret_cast<uint8_t *>(out->buf);
        memset(to, 0, size);
        memcpy(to + front, element, kept);
        kelio_advance(out, size);
    }
}

inline void put_pad_uintptr_unalign(kel_output_t *out, uint64_t flags, const uint8_t *element, ulong_t src_bits,
                                    ulong_t dst_bits, ulong_t count)
{
    put_pad_uintptr(out, flags, element, src_bits, dst_bits, count);
}

// count is a flag: once, or not at all.
inline void put_pad_ptr(kel_output_t *out, uint64_t flags, const uint8_t *element, ulong_t src_bits, ulong_t dst_bits,
                        ulong_t count)
{
    put_pad_uintptr(out, flags, element, src_bits, dst_bits, count != 0);
}
