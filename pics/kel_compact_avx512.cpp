// Compaction for AVX-512: a register of elements at a time, stored at once, the next ones over what was not wanted of
// them. Compressed stores to memory would not need that, but some processors take a hundred cycles for each.
#include "kel_avx512.h"

#if KEL_HAVE_AVX512_UNITS

namespace
{

KEL_AVX512 inline unsigned ones(uint64_t mask)
{
    return static_cast<unsigned>(_mm_popcnt_u64(mask));
}

// ---- Indexes --------------------------------------------------------------------------------------------------------

// Sixteen or thirty-two entries, made from the places of elements in their block.
KEL_AVX512 inline void store_entries_of_two(__m512i places, uint64_t index, uint8_t *to)
{
    const __m512i entries = _mm512_add_epi16(_mm512_cvtepu8_epi16(_mm512_castsi512_si256(places)),
                                             _mm512_set1_epi16(static_cast<int16_t>(index)));
    _mm512_storeu_si512(to, _mm512_shuffle_epi8(entries, constant_bytes([](unsigned i) { return i % 16 ^ 1; })));
}

KEL_AVX512 inline void store_entries_of_four(__m512i places, uint64_t index, uint8_t *to)
{
    const __m512i entries = _mm512_add_epi32(_mm512_cvtepu8_epi32(_mm512_castsi512_si128(places)),
                                             _mm512_set1_epi32(static_cast<int32_t>(index)));
    _mm512_storeu_si512(to, _mm512_shuffle_epi8(entries, constant_bytes([](unsigned i) { return i % 16 ^ 3; })));
}

// Stores the entries of a block, of so many bytes each, a register at a time.
template <unsigned bytes, void (*store)(__m512i, uint64_t, uint8_t *)>
KEL_AVX512 uint8_t *index_block(uint64_t mask, uint64_t index, uint8_t *to)
{
    constexpr unsigned at_once = 64 / bytes;
    const __m512i all = constant_bytes([](unsigned i) { return i; });
    __m512i places = _mm512_maskz_compress_epi8(_cvtu64_mask64(reverse_bits(mask)), all);
    const unsigned count = ones(mask);
    for (unsigned stored = 0; stored < count; stored += at_once) {
        store(places, index, to + stored * bytes);
        places = bytes == 2 ? _mm512_shuffle_i64x2(places, places, 2 | 3 << 2)
                            : _mm512_shuffle_i64x2(places, places, 1 | 2 << 2 | 3 << 4);
    }
    return to + count * bytes;
}

// ---- Elements -------------------------------------------------------------------------------------------------------

template <unsigned bytes>
KEL_AVX512 inline __m512i compress(uint64_t chosen, __m512i x)
{
    if constexpr (bytes == 1)
        return _mm512_maskz_compress_epi8(_cvtu64_mask64(chosen), x);
    else if constexpr (bytes == 2)
        return _mm512_maskz_compress_epi16(_cvtu32_mask32(static_cast<uint32_t>(chosen)), x);
    else if constexpr (bytes == 4)
        return _mm512_maskz_compress_epi32(_cvtu32_mask16(static_cast<uint32_t>(chosen)), x);
    else
        return _mm512_maskz_compress_epi64(_cvtu32_mask8(static_cast<uint32_t>(chosen)), x);
}

template <unsigned bytes>
KEL_AVX512 uint8_t *pick_block(const uint8_t *from, uint64_t mask, uint8_t *to)
{
    constexpr unsigned elements = 64 / bytes; // of a register
    uint64_t left = reverse_bits(mask);
    for (unsigned i = 0; i < bytes; i++, from += 64) {
        const uint64_t chosen = left & ~uint64_t{0} >> (64 - elements);
        _mm512_storeu_si512(to, compress<bytes>(chosen, _mm512_loadu_si512(from)));
        to += ones(chosen) * bytes;
        left >>= elements % 64;
    }
    return to;
}

} // namespace

index_block_t avx512_indexes(uint64_t bytes)
{
    return bytes == 2 ? index_block<2, store_entries_of_two> : index_block<4, store_entries_of_four>;
}

pick_block_t avx512_picks(uint64_t bytes)
{
    switch (bytes) {
    case 1:
        return pick_block<1>;
    case 2:
        return pick_block<2>;
    case 4:
        return pick_block<4>;
    case 8:
        return pick_block<8>;
    default:
        return nullptr;
    }
}

#endif
