// Compaction for AVX2: eight elements at a time, stored at once, the next ones over what was not wanted of them.
#include "kel_avx2.h"

#if KEL_HAVE_AVX2_UNITS

namespace
{

// For each number of so many bits the places of those that are set, that of the top bit being 0. A place is that of one
// or two parts of an element, and each part has a lane; what stands behind the last one is any.
template <class Lane, unsigned bits, unsigned parts>
struct places_table {
    constexpr places_table()
    {
        for (unsigned number = 0; number < 1u << bits; number++)
            for (unsigned i = 0, next = 0; i < bits; i++)
                for (unsigned part = 0; part < parts && number << i >> (bits - 1) & 1; part++)
                    of[number][next++] = static_cast<Lane>(parts * i + part);
    }

    alignas(32) Lane of[1u << bits][bits * parts] = {};
};

constexpr places_table<uint8_t, 8, 1> places_of_eight;
constexpr places_table<uint32_t, 4, 2> halves_of_four; // of words

// Whether a mask has so few bits that a step for each is faster than one for each group of so many elements.
KEL_AVX2 inline bool few_set(uint64_t mask, unsigned elements)
{
    return static_cast<uint64_t>(_mm_popcnt_u64(mask)) <= 32 / elements;
}

// Calls put(chosen, count, i) for the groups of so many elements of a block: with a group's bits of the mask, their
// number, and its first element.
template <unsigned elements, class Put>
KEL_AVX2 inline void for_each_group(uint64_t mask, const Put &put)
{
    for (unsigned i = 0; i < block_elements; i += elements, mask <<= elements) {
        const uint64_t chosen = mask >> (block_elements - elements);
        put(chosen, static_cast<unsigned>(_mm_popcnt_u64(chosen)), i);
    }
}

KEL_AVX2 inline __m128i load_places(uint64_t chosen)
{
    return _mm_loadl_epi64(reinterpret_cast<const __m128i_u *>(places_of_eight.of[chosen]));
}

// ---- Indexes --------------------------------------------------------------------------------------------------------

struct entries_of_two {
    static constexpr unsigned bytes = 2;

    KEL_AVX2 static void store(__m128i places, uint64_t index, uint8_t *to)
    {
        const __m128i entries = _mm_add_epi16(_mm_cvtepu8_epi16(places), _mm_set1_epi16(static_cast<int16_t>(index)));
        const __m128i swapped = lane_bytes<16>([](unsigned i, unsigned lane) { return lane + 1 - i; });
        _mm_storeu_si128(reinterpret_cast<__m128i_u *>(to), _mm_shuffle_epi8(entries, swapped));
    }
};

struct entries_of_four {
    static constexpr unsigned bytes = 4;

    KEL_AVX2 static void store(__m128i places, uint64_t index, uint8_t *to)
    {
        const __m256i entries =
            _mm256_add_epi32(_mm256_cvtepu8_epi32(places), _mm256_set1_epi32(static_cast<int32_t>(index)));
        _mm256_storeu_si256(reinterpret_cast<__m256i_u *>(to), swap_bytes<32>(entries));
    }
};

template <class Entries>
KEL_AVX2 uint8_t *index_block(uint64_t mask, uint64_t index, uint8_t *to)
{
    if (few_set(mask, 8))
        return portable_indexes(Entries::bytes)(mask, index, to);
    for_each_group<8>(mask, [&](uint64_t chosen, unsigned count, unsigned i) KEL_AVX2 {
        Entries::store(load_places(chosen), index + i, to);
        to += Entries::bytes * count;
    });
    return to;
}

// ---- Elements -------------------------------------------------------------------------------------------------------

// Each picks some of the first elements at from.
struct bytes_of_eight {
    static constexpr unsigned bytes = 1, elements = 8;

    KEL_AVX2 static void pick(const uint8_t *from, uint64_t chosen, uint8_t *to)
    {
        const __m128i all = _mm_loadl_epi64(reinterpret_cast<const __m128i_u *>(from));
        _mm_storel_epi64(reinterpret_cast<__m128i_u *>(to), _mm_shuffle_epi8(all, load_places(chosen)));
    }
};

struct pairs_of_eight {
    static constexpr unsigned bytes = 2, elements = 8;

    KEL_AVX2 static void pick(const uint8_t *from, uint64_t chosen, uint8_t *to)
    {
        const __m128i all = _mm_loadu_si128(reinterpret_cast<const __m128i_u *>(from));
        const __m128i twice = _mm_mullo_epi16(_mm_cvtepu8_epi16(load_places(chosen)), _mm_set1_epi16(0x0202));
        const __m128i both = _mm_add_epi16(twice, _mm_set1_epi16(0x0100));
        _mm_storeu_si128(reinterpret_cast<__m128i_u *>(to), _mm_shuffle_epi8(all, both));
    }
};

struct fours_of_eight {
    static constexpr unsigned bytes = 4, elements = 8;

    KEL_AVX2 static void pick(const uint8_t *from, uint64_t chosen, uint8_t *to)
    {
        const __m256i all = _mm256_loadu_si256(reinterpret_cast<const __m256i_u *>(from));
        const __m256i picked = _mm256_permutevar8x32_epi32(all, _mm256_cvtepu8_epi32(load_places(chosen)));
        _mm256_storeu_si256(reinterpret_cast<__m256i_u *>(to), picked);
    }
};

struct eights_of_four {
    static constexpr unsigned bytes = 8, elements = 4;

    KEL_AVX2 static void pick(const uint8_t *from, uint64_t chosen, uint8_t *to)
    {
        const __m256i all = _mm256_loadu_si256(reinterpret_cast<const __m256i_u *>(from));
        const __m256i halves = _mm256_load_si256(reinterpret_cast<const __m256i *>(halves_of_four.of[chosen]));
        _mm256_storeu_si256(reinterpret_cast<__m256i_u *>(to), _mm256_permutevar8x32_epi32(all, halves));
    }
};

template <class Elements>
KEL_AVX2 uint8_t *pick_block(const uint8_t *from, uint64_t mask, uint8_t *to)
{
    if (few_set(mask, Elements::elements))
        return portable_picks(Elements::bytes)(from, mask, to);
    for_each_group<Elements::elements>(mask, [&](uint64_t chosen, unsigned count, unsigned i) KEL_AVX2 {
        Elements::pick(from + Elements::bytes * i, chosen, to);
        to += Elements::bytes * count;
    });
    return to;
}

} // namespace

index_block_t avx2_indexes(uint64_t bytes)
{
    return bytes == 2 ? index_block<entries_of_two> : index_block<entries_of_four>;
}

pick_block_t avx2_picks(uint64_t bytes)
{
    switch (bytes) {
    case 1:
        return pick_block<bytes_of_eight>;
    case 2:
        return pick_block<pairs_of_eight>;
    case 4:
        return pick_block<fours_of_eight>;
    case 8:
        return pick_block<eights_of_four>;
    default:
        return nullptr;
    }
}

#endif
