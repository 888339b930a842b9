// The sets of producers, and the choice among them.
#include "kel_init.h"
#include "kel_processor.h"
#include "kel_producer.h"

// Loads of portable code are words of 8 bytes, those of AVX2 have 16, those of AVX-512 64, each from a byte of a block
// on. Masked loads would not pass the end, but they are not seen by what fetches memory ahead: three times as slow.
const kernel_set_t kernel_sets[] = {
#if KEL_HAVE_AVX512_UNITS
    {"avx512", kel_have_avx512, 64, avx512_interval_masks, avx2_wide_masks, avx512_bitmap_masks, avx512_elements,
     avx512_indexes, avx512_picks},
#endif
#if KEL_HAVE_AVX2_UNITS
    {"avx2", kel_have_avx2, 16, avx2_interval_masks, avx2_wide_masks, avx2_bitmap_masks, avx2_elements, avx2_indexes,
     avx2_picks},
#endif
    {"portable", [] { return true; }, 8, portable_interval_masks, portable_wide_masks, portable_bitmap_masks,
     portable_elements, portable_indexes, portable_picks},
    {},
};

const kernel_set_t *kel_widest_set()
{
    const kernel_set_t *set = kernel_sets;
    while (!set->present())
        set++;
    return set;
}
