// The producers of mask words for AVX-512.
#include "kel_avx512.h"

#if KEL_HAVE_AVX512_UNITS

namespace
{

// ---- Intervals ------------------------------------------------------------------------------------------------------

// Fields stand at the upper end of lanes, with any bits below: the intervals' ends are moved up, the last with ones
// behind it.
template <unsigned bits, unsigned intervals>
KEL_AVX512 void interval_blocks(const uint8_t *data, const fields_t &fields, const predicate_t &predicate,
                                uint64_t *masks, size_t n)
{
    const field_groups<bits, last_first> groups(fields);
    const unsigned unused = bits - fields.width;
    const __m512i from = groups.shifted(unused, 0);
    __m512i first[intervals], span[intervals];
    for (unsigned i = 0; i < intervals; i++) {
        first[i] = all_lanes<bits>(predicate.first[i] << unused);
        span[i] = all_lanes<bits>(predicate.span[i] << unused | ((uint64_t{1} << unused) - 1));
    }
    const uint64_t negated = predicate.negated ? ~uint64_t{0} : 0;
    for (size_t block = 0; block < n; block++, data += 8 * fields.width)
        masks[block] = negated ^ join_outcomes<groups.registers>([&](unsigned i) KEL_AVX512 {
                           const __m512i x = groups.cut(groups.load(data, i), from);
                           uint64_t inside = lanes_inside<bits>(x, first[0], span[0]);
                           if constexpr (intervals == 2)
                               inside |= lanes_inside<bits>(x, first[1], span[1]);
                           return inside;
                       });
}

template <unsigned bits>
mask_blocks_t<predicate_t> choose_count(const predicate_t &predicate)
{
    return predicate.intervals == 2 ? interval_blocks<bits, 2> : interval_blocks<bits, 1>;
}

// ---- Bitmaps --------------------------------------------------------------------------------------------------------
//
// An element's upper bits pick a byte of the bitmap, its lowest three a bit of that. A bitmap in registers comes again
// and again, so that it does not matter which bits stand above an element.

// A register of the bitmap for elements of so many bits.
KEL_AVX512 inline __m512i bitmap_register(const bitmap_t &bitmap, unsigned width, unsigned i)
{
    alignas(64) uint8_t bytes[64];
    const size_t size = width < 3 ? 1 : size_t{1} << (width - 3);
    if (size >= sizeof bytes)
        return _mm512_loadu_si512(bitmap.data + i % (size / 64) * 64);
    unsigned byte = *bitmap.data;
    for (unsigned bits = 1u << width; bits < 8; bits *= 2)
        byte = (byte & (0xff00 >> bits)) | (byte & (0xff00 >> bits)) >> bits;
    memset(bytes, static_cast<int>(byte), sizeof bytes);
    for (size_t at = 0; size > 1 && at < sizeof bytes; at += size)
        memcpy(bytes + at, bitmap.data, size);
    return _mm512_load_si512(bytes);
}

KEL_AVX512 inline __m512i bit_of(__m512i elements)
{
    return _mm512_permutexvar_epi8(elements, constant_bytes([](unsigned i) { return 0x80 >> i % 8; }));
}

// Elements of up to 8 bits.
KEL_AVX512 void byte_bitmap_blocks(const uint8_t *data, const fields_t &fields, const bitmap_t &bitmap, uint64_t *masks,
                                   size_t n)
{
    const field_groups<8, last_first> groups(fields);
    const __m512i element = groups.shifted(0, 0), upper = groups.shifted(0, 3);
    const __m512i table = bitmap_register(bitmap, fields.width, 0);
    const uint64_t negated = bitmap.negated ? ~uint64_t{0} : 0;
    for (size_t block = 0; block < n; block++, data += 8 * fields.width) {
        const __m512i group = groups.load(data, 0);
        const __m512i byte = _mm512_permutexvar_epi8(groups.cut(group, upper), table);
        masks[block] = negated ^ _mm512_test_epi8_mask(byte, bit_of(groups.cut(group, element)));
    }
}

// Elements of 9 to 11 bits. The lower byte of a lane has an element's upper bits, the upper byte its lower ones.
KEL_AVX512 void word_bitmap_blocks(const uint8_t *data, const fields_t &fields, const bitmap_t &bitmap, uint64_t *masks,
                                   size_t n)
{
    const field_groups<16, last_first> groups(fields);
    const __m512i from = groups.from_bits(constant_bytes([](unsigned i) { return i % 2 ? 0 : 3; }));
    __m512i table[4];
    for (unsigned i = 0; i < 4; i++)
        table[i] = bitmap_register(bitmap, fields.width, i);
    const uint64_t negated = bitmap.negated ? ~uint64_t{0} : 0;
    for (size_t block = 0; block < n; block++, data += 8 * fields.width)
        masks[block] = negated ^ join_outcomes<groups.registers>([&](unsigned i) KEL_AVX512 {
                           const __m512i x = groups.cut(groups.load(data, i), from);
                           const __m512i low = _mm512_permutex2var_epi8(table[0], x, table[1]);
                           const __m512i high = _mm512_permutex2var_epi8(table[2], x, table[3]);
                           const __m512i byte = _mm512_mask_blend_epi8(_mm512_movepi8_mask(x), low, high);
                           return _mm512_test_epi16_mask(byte, _mm512_srli_epi16(bit_of(x), 8));
                       });
}

} // namespace

// ---- The choice -----------------------------------------------------------------------------------------------------

mask_blocks_t<predicate_t> avx512_interval_masks(const fields_t &fields, const predicate_t &predicate)
{
    return fields.width == 1        ? nullptr
           : fit_groups(fields, 8)  ? choose_count<8>(predicate)
           : fit_groups(fields, 16) ? choose_count<16>(predicate)
           : fit_groups(fields, 32) ? choose_count<32>(predicate)
           : fit_groups(fields, 64) ? choose_count<64>(predicate)
                                    : nullptr;
}

// Bitmaps that have no bit for some elements are left to the next set, and so are large ones: gathers of more elements
// are not faster.
mask_blocks_t<bitmap_t> avx512_bitmap_masks(const fields_t &fields, const bitmap_t &bitmap)
{
    constexpr unsigned widest = 11;
    if (fields.width > widest || bitmap.bits < uint64_t{1} << fields.width)
        return nullptr;
    return fit_groups(fields, 8) ? byte_bitmap_blocks : fit_groups(fields, 16) ? word_bitmap_blocks : nullptr;
}

#endif
