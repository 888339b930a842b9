// Argument tests that the operations share. The plain ones look at descriptors only, and are inlined where they are
// asked for (see kel_validate); those named _extra look at data.
//
// Each answers 1 for valid, 0 for not, and reports what failed, every fault once and in a fixed order, if its last
// argument says so. None changes anything.
#pragma once

#include "kel_io.h"
#include "kel_sync.h"

inline bool kel_source_aux_width(unsigned width)
{
    return kel_power_of_two(width) && width <= kel_max_aux_bits;
}

// The width test of a source element or of a value, without a report; a width of 0 fails.
inline int width_valid(uint64_t format, uint32_t elem_width, unsigned api_version)
{
    const uint64_t bits = kel_width_bits(format, elem_width);
    return bits != 0 && bits <= 8 * kel_max_elem_bytes && (bits % 8 == 0 || bits <= kel_max_elem_bits(api_version));
}

// fmt_add and fmt_remove name the format bits that the caller accepts beyond, or refuses of, the usual ones; name is
// the vector's role in the messages.
KEL_INLINED inline int src_valid(kel_context_t *ctx, const kel_vec_t *vec, uint64_t fmt_add, uint64_t fmt_remove,
                                 const char *name, unsigned api_version, int log)
{
    uint64_t allowed = (fmt_add | KEL_BITS | KEL_RLE | KEL_ZIP) & ~fmt_remove;
    if ((fmt_add & ~fmt_remove & (KEL_VAR | KEL_RLE)) || !(fmt_remove & KEL_RLE))
        allowed |= KEL_ADD_ONE;
    const uint64_t bad = vec->format & ~allowed;
    const uint64_t good = vec->format & allowed;
    const bool has_aux = good & (KEL_VAR | KEL_RLE);
    const uint64_t width = kel_width_bits(vec->format, vec->elem_width);
    // The widths of KEL_VAR come from its aux stream, so that elem_width may be 0; it is tested like any other if not.
    const bool width_ok = (width == 0 && good & KEL_VAR) || width_valid(vec->format, vec->elem_width, api_version);
    const bool wide = width > kel_max_offset_elem_bits;
    char fmt[kel_fmt_text_size];

    // Kept: the first text says 8 bytes, where its test is above 8.
    int valid = kel_test(log, !wide || vec->offset == 0, ctx,
                         "Invalid %s offset %u; must be 0 if elem_width >= 8 bytes", name, vec->offset);
    valid &= kel_test(log, wide || vec->offset <= kel_max_offset, ctx, "Invalid %s offset %u; must be < 8", name,
                      vec->offset);
    valid &= kel_test(log, width_ok, ctx, "Invalid %s elem_width %u %s; must be 1-%u bits or 1-%u bytes", name,
                      vec->elem_width, bit_byte_fmt_str(good & KEL_BITS), kel_max_elem_bits(api_version),
                      kel_max_elem_bytes);
    valid &= kel_test(log, bad == 0, ctx, "Invalid %s format: %s", name, fmt_str(ctx, bad, fmt, sizeof fmt));
    valid &= kel_test(log, (good & (KEL_VAR | KEL_RLE)) != (KEL_VAR | KEL_RLE), ctx,
                      "Invalid %s format: %s; rle and var are mutually exclusive", name,
                      fmt_str(ctx, good, fmt, sizeof fmt));
    valid &= kel_test(log, (good & (KEL_VAR | KEL_BITS)) != (KEL_VAR | KEL_BITS), ctx,
                      "Invalid %s format: %s; cannot set both var and bits", name, fmt_str(ctx, good, fmt, sizeof fmt));
    valid &= kel_test(log, !has_aux || kel_source_aux_width(vec->aux_width), ctx,
                      "Invalid %s aux_width %u bits; must be 1, 2, 4 or 8 bits", name, vec->aux_width);
    valid &= kel_test(log, !has_aux || vec->aux_offset <= kel_max_offset, ctx, "Invalid %s aux_offset %u; must be < 8",
                      name, vec->aux_offset);
    valid &= kel_test(log, has_aux || !(good & KEL_ADD_ONE), ctx,
                      "Invalid %s format: KEL_ADD_ONE; not allowed because aux_data = NULL", name);
    return valid;
}

KEL_INLINED inline int alignment_valid(kel_context_t *ctx, const void *data, unsigned align, const char *name, int log)
{
    const auto misalignment = static_cast<unsigned>(reinterpret_cast<uintptr_t>(data) % align);
    return kel_test(log, misalignment == 0, ctx, "Invalid %s alignment %u; must be %u", name, misalignment, align);
}

// What every destination has to be: at bit 0 of an aligned address.
KEL_INLINED inline int kel_dst_start_valid(kel_context_t *ctx, const kel_vec_t *vec, int log)
{
    int valid = kel_test(log, vec->offset == 0, ctx, "Invalid dst offset %u; must be 0", vec->offset);
    valid &= alignment_valid(ctx, vec->data, kel_dst_align, "dst", log);
    return valid;
}

// A destination that receives elements.
KEL_INLINED inline int dst_valid(kel_context_t *ctx, const kel_vec_t *vec, uint64_t fmt_add, uint64_t fmt_remove,
                                 unsigned, int log)
{
    const uint64_t allowed = (fmt_add | KEL_BITS) & ~fmt_remove;
    const bool var = fmt_add & ~fmt_remove & vec->format & KEL_VAR;
    const uint64_t width = kel_width_bits(vec->format, vec->elem_width);
    const bool width_ok = width >= 8 && width <= 8 * kel_max_elem_bytes && (width & (width - 1)) == 0;
    const bool aux_width_ok = vec->aux_width == 8 || vec->aux_width == 16 || vec->aux_width == 32;
    char fmt[kel_fmt_text_size];

    int valid = kel_dst_start_valid(ctx, vec, log);
    valid &= kel_test(log, width_ok, ctx, "Invalid dst elem_width %u %s; must be 1, 2, 4, 8, or 16 bytes",
                      vec->elem_width, bit_byte_fmt_str(vec->format & allowed & KEL_BITS));
    valid &= kel_test(log, !(vec->format & ~allowed), ctx, "Invalid dst format: %s",
                      fmt_str(ctx, vec->format, fmt, sizeof fmt));
    valid &= kel_test(log, !var || aux_width_ok, ctx, "Invalid dst aux_width %u bits; must be 8, 16 or 32 bits",
                      vec->aux_width);
    valid &= kel_test(log, var || !(vec->format & allowed & KEL_ADD_ONE), ctx,
                      "Invalid dst format: KEL_ADD_ONE; only allowed with dst format KEL_VAR");
    return valid;
}

// A destination that receives a bit vector, or with KEL_ONES_INDEX an index list.
KEL_INLINED inline int dst_ones_valid(kel_context_t *ctx, uint64_t flags, const kel_vec_t *vec, unsigned, int log)
{
    const bool ones = flags & KEL_ONES_INDEX;
    const uint64_t width = kel_width_bits(vec->format, vec->elem_width);
    char fmt[kel_fmt_text_size];

    int valid = kel_dst_start_valid(ctx, vec, log);
    valid &= kel_test(log, !ones || width == 16 || width == 32, ctx,
                      "Invalid dst elem_width %u %s; must be 2 or 4 bytes for KEL_ONES_INDEX", vec->elem_width,
                      bit_byte_fmt_str(vec->format & KEL_BITS));
    valid &= kel_test(log, ones || width == 1, ctx, "Invalid dst elem_width %u %s; must be 1 bit", vec->elem_width,
                      bit_byte_fmt_str(vec->format & KEL_BITS));
    valid &= kel_test(log, vec->format <= KEL_BITS, ctx, "Invalid dst format: %s",
                      fmt_str(ctx, vec->format, fmt, sizeof fmt));
    return valid;
}

KEL_INLINED inline int flags_valid(kel_context_t *ctx, uint64_t flags, uint64_t flags_add, uint64_t flags_remove,
                                   unsigned api_version, int log)
{
    uint64_t allowed = (flags_add | kel_base_flags) & ~flags_remove;
    if (api_version == 2)
        allowed |= KEL_PIPE_FLAGS;
    const uint64_t bad = flags & ~allowed;
    char text[kel_flags_text_size];
    return kel_test(log, bad == 0, ctx, "Invalid flags %s", flags_str(ctx, bad, text, sizeof text));
}

// The sum and the contents of a source's aux stream, reported at once.
int aux_valid_extra(kel_context_t *ctx, const kel_vec_t *src, const kel_vec_t *dst, unsigned api_version);
