// The producers of destination elements for AVX-512.
#include "kel_avx512.h"

#if KEL_HAVE_AVX512_UNITS

namespace
{

// Elements as wide as lanes, of which the bits outside the field are cleared.
template <unsigned bits>
KEL_AVX512 void element_blocks(const uint8_t *data, const fields_t &fields, unsigned right, unsigned left, void *out,
                               size_t n)
{
    const field_groups<bits, as_stored> groups(fields);
    const __m512i from = groups.shifted(left, right);
    const uint64_t field = ~uint64_t{0} >> (64 - fields.width) >> right << left;
    const uint64_t stored = __builtin_bswap64(field << (64 - bits));
    const __m512i kept = all_lanes<bits>(stored);
    auto *to = static_cast<uint8_t *>(out);
    for (size_t block = 0; block < n; block++, data += 8 * fields.width)
        for (unsigned i = 0; i < groups.registers; i++, to += 64)
            _mm512_storeu_si512(to, _mm512_and_si512(groups.cut(groups.load(data, i), from), kept));
}

} // namespace

element_blocks_t avx512_elements(const fields_t &fields, uint64_t bytes)
{
    if (bytes > 8 || !fit_groups(fields, static_cast<unsigned>(8 * bytes)))
        return nullptr;
    return bytes == 1   ? element_blocks<8>
           : bytes == 2 ? element_blocks<16>
           : bytes == 4 ? element_blocks<32>
                        : element_blocks<64>;
}

#endif
