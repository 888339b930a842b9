// Argument tests that look at data. They stand in the order of their reports.
#include "kel_valid.h"

int aux_valid_extra(kel_context_t *ctx, const kel_vec_t *src, const kel_vec_t *dst, unsigned)
{
    constexpr unsigned high_bits = 4;       // an element of 8 bits has this many above the longest length
    constexpr unsigned high_bits_width = 8; // the one width that has them
    constexpr unsigned long longest_length = 15;
    if (!kel_source_aux_width(src->aux_width))
        return 1;

    const bool runs = src->format & KEL_RLE;
    const size_t sum = runs ? aux_sum(ctx, src) : 0;
    unsigned long index = 0;
    const bool too_long =
        src->aux_width == high_bits_width && src->format & KEL_VAR &&
        compare_bits_gt(src->aux_data, src->aux_width, src->aux_offset, src->elements, 255, longest_length, &index);
    int valid =
        kel_test(1, !runs || sum <= dst->elements, ctx, "Invalid src: sum of aux_data runs (%ld) > dst elements (%ld)",
                 static_cast<long>(sum), static_cast<long>(dst->elements));
    valid &= kel_test(1, !runs || sum != 0, ctx, "Invalid src aux_data: total length is 0");
    valid &= kel_test(1, !too_long, ctx,
                      "Invalid src aux_data element at index %lu; high %u bits are non-zero. They must be 0 for "
                      "variable-width elements with aux_width = %u bits.",
                      index, high_bits, high_bits_width);
    return valid;
}
