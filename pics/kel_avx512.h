// The vocabulary of vector kernels over AVX-512 with its permutes and shifts of bytes.
//
// A register takes eight groups of fields, each in a word of 8 bytes that is loaded big-endian: one permute brings the
// bytes there. From a group every byte of a lane is cut out by one instruction, wherever it starts. So there is one
// loader for all widths and lanes; it fails only where the fields of a group do not fit in a word.
//
// Every function that uses these instructions is marked KEL_AVX512.
#pragma once

#include "kel_processor.h"
#include "kel_producer.h"

#if KEL_HAVE_AVX512_UNITS
// Where all lanes are written, gcc's header names what they had been as not initialized.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuninitialized"
#if !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include <immintrin.h>
#pragma GCC diagnostic pop

namespace
{

// ---- Constants ------------------------------------------------------------------------------------------------------

// Sixty-four bytes, each made from its place.
template <class Make>
KEL_AVX512 inline __m512i constant_bytes(Make)
{
    struct bytes_t {
        alignas(64) uint8_t bytes[64];
    };
    static constexpr bytes_t made = [] {
        bytes_t all = {};
        for (unsigned i = 0; i < sizeof all.bytes; i++)
            all.bytes[i] = static_cast<uint8_t>(Make()(i));
        return all;
    }();
    return _mm512_load_si512(made.bytes);
}

// ---- Lanes ----------------------------------------------------------------------------------------------------------

// Where the elements of a register go. field: which one of its group a byte belongs to; byte: which of that field's
// lane, the lowest being 0. group: the group of a word.
template <unsigned bits>
struct last_first { // lanes of the machine's words, so that the first element's outcome is the top bit of a mask
    static constexpr unsigned group(unsigned word)
    {
        return 7 - word;
    }
    static constexpr unsigned field(unsigned i)
    {
        return (7 - i % 8) / (bits / 8);
    }
    static constexpr unsigned byte(unsigned i)
    {
        return i % (bits / 8);
    }
};

template <unsigned bits>
struct as_stored { // lanes as a stream has them, big-endian
    static constexpr unsigned group(unsigned word)
    {
        return word;
    }
    static constexpr unsigned field(unsigned i)
    {
        return i % 8 / (bits / 8);
    }
    static constexpr unsigned byte(unsigned i)
    {
        return bits / 8 - 1 - i % (bits / 8);
    }
};

// Loads fields for lanes of so many bits. Registers of a block differ in their places alone.
template <unsigned bits, template <unsigned> class Order>
class field_groups
{
  public:
    using order = Order<bits>;
    static constexpr unsigned lane_bits = bits;
    static constexpr unsigned registers = bits / 8; // for a block
    static constexpr unsigned group_fields = 64 / bits;

    KEL_AVX512 explicit field_groups(const fields_t &fields) : step(8 * fields.width / registers)
    {
        const __m512i group = constant_bytes([](unsigned i) { return i % 8 ? 0 : order::group(i / 8); });
        const __m512i width = _mm512_set1_epi64(group_fields * fields.width);
        const __m512i start = _mm512_add_epi64(_mm512_mul_epu32(group, width), _mm512_set1_epi64(fields.offset));
        const __m512i to_bytes = constant_bytes([](unsigned i) { return i % 16 / 8 * 8; });
        places = _mm512_add_epi8(_mm512_shuffle_epi8(_mm512_srli_epi64(start, 3), to_bytes),
                                 constant_bytes([](unsigned i) { return 7 - i % 8; }));
        // Fields of a group count from its start, bits of the word from its end. No product reaches the next byte.
        const __m512i ends = _mm512_set1_epi64(static_cast<int64_t>(uint64_t{fields.width} * 0x0807060504030201));
        const __m512i end = _mm512_shuffle_epi8(ends, constant_bytes([](unsigned i) { return order::field(i); }));
        const __m512i before = _mm512_shuffle_epi8(_mm512_and_si512(start, _mm512_set1_epi64(7)), to_bytes);
        lowest = _mm512_sub_epi8(_mm512_setzero_si512(), _mm512_add_epi8(before, end));
    }

    // For cut: which bit of its field each byte starts with, counted from the lowest; below 0, and above the field,
    // there are the bits of its neighbours.
    KEL_AVX512 __m512i from_bits(__m512i lowest_bits) const
    {
        return _mm512_add_epi8(lowest, lowest_bits);
    }

    // The same for lanes that hold their field shifted to the left, or to the right.
    KEL_AVX512 __m512i shifted(unsigned left, unsigned right) const
    {
        const __m512i bytes = constant_bytes([](unsigned i) { return 8 * order::byte(i); });
        return from_bits(_mm512_add_epi8(bytes, _mm512_set1_epi8(static_cast<char>(right - left))));
    }

    // The groups of register i of the block at data.
    KEL_AVX512 __m512i load(const uint8_t *data, unsigned i) const
    {
        return _mm512_permutexvar_epi8(places, _mm512_loadu_si512(data + i * step));
    }

    KEL_AVX512 static __m512i cut(__m512i groups, __m512i from)
    {
        return _mm512_multishift_epi64_epi8(from, groups);
    }

  private:
    const unsigned step; // bytes of a register
    __m512i places;      // of the groups' bytes
    __m512i lowest;      // for each byte, the lowest bit of its field in its group
};

// Whether the fields of each group stand in 8 bytes: by the highest bit of a byte that one starts at.
inline bool fit_groups(const fields_t &fields, unsigned bits)
{
    const unsigned group = 64 / bits * fields.width;
    const unsigned step = group % 8 == 0 ? 8 : group & -group;
    return fields.width <= bits && (fields.offset & (step - 1)) + 8 - step + group <= 64;
}

template <unsigned bits>
KEL_AVX512 inline __m512i all_lanes(uint64_t value)
{
    if constexpr (bits == 8)
        return _mm512_set1_epi8(static_cast<char>(value));
    else if constexpr (bits == 16)
        return _mm512_set1_epi16(static_cast<int16_t>(value));
    else if constexpr (bits == 32)
        return _mm512_set1_epi32(static_cast<int32_t>(value));
    else
        return _mm512_set1_epi64(static_cast<int64_t>(value));
}

// Lanes less first that are at most span, as unsigned numbers; the lowest lane's bit is the lowest.
template <unsigned bits>
KEL_AVX512 inline uint64_t lanes_inside(__m512i x, __m512i first, __m512i span)
{
    if constexpr (bits == 8)
        return _mm512_cmple_epu8_mask(_mm512_sub_epi8(x, first), span);
    else if constexpr (bits == 16)
        return _mm512_cmple_epu16_mask(_mm512_sub_epi16(x, first), span);
    else if constexpr (bits == 32)
        return _mm512_cmple_epu32_mask(_mm512_sub_epi32(x, first), span);
    else
        return _mm512_cmple_epu64_mask(_mm512_sub_epi64(x, first), span);
}

// A block's mask word of the outcomes of its registers, for which outcome(i) makes the bits of some elements.
template <unsigned registers, class Outcome>
KEL_AVX512 inline uint64_t join_outcomes(const Outcome &outcome)
{
    uint64_t mask = outcome(0);
    for (unsigned i = 1; i < registers; i++)
        mask = mask << (block_elements / registers % 64) | outcome(i);
    return mask;
}

} // namespace

#endif
