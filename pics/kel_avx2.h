// The vocabulary of vector kernels, over AVX2.
//
// Fields are taken in pieces: 16 bytes of a packed stream, spread over the lanes of half a register. A lane is a
// machine word of 16, 32 or 64 bits, at least as wide as a field. The field stands at its upper end; the bits below it
// are those that follow in the stream. So a comparison with an interval needs neither a shift nor a mask: only the
// interval's ends are moved up, the last with ones behind it.
//
// Every function that uses these instructions is marked KEL_AVX2.
#pragma once

#include "kel_processor.h"
#include "kel_producer.h"

#if KEL_HAVE_AVX2_UNITS
#include <immintrin.h>
#include <type_traits>

namespace
{

// ---- Lanes ----------------------------------------------------------------------------------------------------------

// What is alike in lanes of all widths, which are machine words of that type. shift: by that many bits in each lane, as
// shifter() makes it ready. carry: the byte that follows a lane in the stream is in its carry_byte; its upper bits, as
// many as the lane was shifted by, go to the lane's lower end.
template <class Word>
struct lane_words {
    static constexpr unsigned carry_byte = 0;

    KEL_AVX2 static __m256i all(uint64_t value)
    {
        return reinterpret_cast<__m256i>(words{} + static_cast<Word>(value));
    }
    KEL_AVX2 static __m256i minus(__m256i a, __m256i b)
    {
        return reinterpret_cast<__m256i>(reinterpret_cast<words>(a) - reinterpret_cast<words>(b));
    }
    KEL_AVX2 static __m256i greater(__m256i a, __m256i b) // as signed numbers
    {
        return reinterpret_cast<__m256i>(reinterpret_cast<signed_words>(a) > reinterpret_cast<signed_words>(b));
    }
    KEL_AVX2 static __m256i right(__m256i x, unsigned by)
    {
        return reinterpret_cast<__m256i>(reinterpret_cast<words>(x) >> static_cast<Word>(by));
    }
    KEL_AVX2 static __m256i left(__m256i x, unsigned by)
    {
        return reinterpret_cast<__m256i>(reinterpret_cast<words>(x) << static_cast<Word>(by));
    }
    KEL_AVX2 static __m128i shifter(__m128i by)
    {
        return by;
    }
    KEL_AVX2 static __m256i shift(__m256i x, __m256i by)
    {
        return reinterpret_cast<__m256i>(reinterpret_cast<words>(x) << reinterpret_cast<words>(by));
    }
    KEL_AVX2 static __m256i carry(__m256i x, __m256i by)
    {
        return right(shift(x, by), 8);
    }

  private:
    typedef Word words __attribute__((vector_size(32)));
    typedef std::make_signed_t<Word> signed_words __attribute__((vector_size(32)));
};

// starts: the first bits of a piece's fields, each in its lane.
template <unsigned bits>
struct lanes;

template <>
struct lanes<16> : lane_words<uint16_t> { // there is no shift by lanes: a multiplication by powers of two
    static constexpr unsigned carry_byte = 1;

    KEL_AVX2 static __m128i starts(unsigned first, unsigned step)
    {
        const __m128i index = _mm_setr_epi16(0, 1, 2, 3, 4, 5, 6, 7);
        const __m128i steps = _mm_mullo_epi16(index, _mm_set1_epi16(static_cast<int16_t>(step)));
        return _mm_add_epi16(steps, _mm_set1_epi16(static_cast<int16_t>(first)));
    }
    KEL_AVX2 static __m128i shifter(__m128i by)
    {
        const __m128i powers = _mm_setr_epi8(1, 2, 4, 8, 16, 32, 64, -128, 0, 0, 0, 0, 0, 0, 0, 0);
        return _mm_shuffle_epi8(powers, _mm_or_si128(by, _mm_set1_epi16(int16_t{8} << 8)));
    }
    KEL_AVX2 static __m256i shift(__m256i x, __m256i by)
    {
        return _mm256_mullo_epi16(x, by);
    }
    KEL_AVX2 static __m256i carry(__m256i x, __m256i by)
    {
        return _mm256_mulhi_epu16(x, by);
    }
};

template <>
struct lanes<32> : lane_words<uint32_t> {
    KEL_AVX2 static __m128i starts(unsigned first, unsigned step)
    {
        const __m128i steps = _mm_mullo_epi32(_mm_setr_epi32(0, 1, 2, 3), _mm_set1_epi32(static_cast<int>(step)));
        return _mm_add_epi32(steps, _mm_set1_epi32(static_cast<int>(first)));
    }
};

template <>
struct lanes<64> : lane_words<uint64_t> {
    KEL_AVX2 static __m128i starts(unsigned first, unsigned step)
    {
        return _mm_set_epi64x(first + step, first);
    }
};

// Sixteen bytes, each made from its place in its lane and the place of its lane.
template <unsigned bits, class Make>
KEL_AVX2 inline __m128i lane_bytes(Make)
{
    struct bytes_t {
        alignas(16) uint8_t bytes[16];
    };
    static constexpr bytes_t made = [] {
        bytes_t all = {};
        for (unsigned i = 0; i < sizeof all.bytes; i++)
            all.bytes[i] = static_cast<uint8_t>(Make()(i % (bits / 8), i / (bits / 8) * (bits / 8)));
        return all;
    }();
    return _mm_load_si128(reinterpret_cast<const __m128i *>(made.bytes));
}

template <unsigned bits>
KEL_AVX2 inline __m256i swap_bytes(__m256i x)
{
    const __m128i swapped = lane_bytes<bits>([](unsigned i, unsigned lane) { return lane + bits / 8 - 1 - i; });
    return _mm256_shuffle_epi8(x, _mm256_broadcastsi128_si256(swapped));
}

// ---- Pieces ---------------------------------------------------------------------------------------------------------

constexpr unsigned half_elements = 32; // of a block: what registers are filled with in one go

// Which piece of half a block goes to the lower and to the upper half of register i.
template <unsigned bits>
struct in_order {                                           // registers in the order of elements
    static constexpr unsigned patterns = bits < 64 ? 1 : 2; // of kinds of pieces that share a register
    static constexpr unsigned lower(unsigned i)
    {
        return 2 * i;
    }
    static constexpr unsigned upper(unsigned i)
    {
        return 2 * i + 1;
    }
};

template <unsigned bits>
struct for_packing { // so that packing registers pairwise leaves the pieces in order, the first ones in the upper half
    static constexpr unsigned patterns = bits / 16;
    static constexpr unsigned lower(unsigned i)
    {
        return i + bits / 8;
    }
    static constexpr unsigned upper(unsigned i)
    {
        return i;
    }
};

KEL_AVX2 inline __m256i load_both(const uint8_t *lower, const uint8_t *upper)
{
    return _mm256_loadu2_m128i(reinterpret_cast<const __m128i_u *>(upper), reinterpret_cast<const __m128i_u *>(lower));
}

// Loads the fields of a block into lanes. Pieces start at one of few bits of a byte (kinds), which come again and
// again.
// narrow: no field and the bits in front of it in its first byte are wider than a lane.
template <unsigned bits, bool narrow, template <unsigned> class Layout>
class field_loader
{
  public:
    using lane = lanes<bits>;
    using layout = Layout<bits>;
    static constexpr unsigned lane_bits = bits;
    static constexpr unsigned registers = bits / 8; // for half a block
    static constexpr unsigned piece_elements = 128 / bits;
    static constexpr unsigned kinds = bits / 16;

    KEL_AVX2 explicit field_loader(const fields_t &fields) : width(fields.width)
    {
        piece_t made[kinds];
        for (unsigned kind = 0; kind < kinds; kind++) {
            const unsigned bit = fields.offset + kind * piece_elements * fields.width;
            place[kind] = bit / 8;
            made[kind] = piece_t(bit % 8, fields.width);
        }
        for (unsigned i = 0; i < layout::patterns; i++)
            pattern[i] = {made[layout::lower(i) % kinds], made[layout::upper(i) % kinds]};
    }

    // Register i of the half block at data.
    KEL_AVX2 __m256i load(const uint8_t *data, unsigned i) const
    {
        const pattern_t &with = pattern[i % layout::patterns];
        const uint8_t *lower = piece(data, layout::lower(i)), *upper = piece(data, layout::upper(i));
        const __m256i words = _mm256_shuffle_epi8(load_both(lower, upper), with.words);
        const __m256i shifted = lane::shift(words, with.shift);
        if constexpr (narrow) {
            return shifted;
        } else {
            const __m256i next = _mm256_shuffle_epi8(load_both(lower + 1, upper + 1), with.next);
            return _mm256_or_si256(shifted, lane::carry(next, with.shift));
        }
    }

  private:
    // For a piece whose first field starts at a bit of its first byte: where the lanes' bytes come from, and where the
    // byte behind each lane, seen from the second byte on; and by how much each lane is shifted.
    struct piece_t {
        piece_t() = default;
        KEL_AVX2 piece_t(unsigned bit, unsigned width)
        {
            constexpr uint8_t last = bits / 8 - 1;
            const __m128i starts = lane::starts(bit, width);
            const __m128i to_bytes = lane_bytes<bits>([](unsigned, unsigned lane_start) { return lane_start; });
            const __m128i first =
                _mm_shuffle_epi8(_mm_and_si128(_mm_srli_epi16(starts, 3), _mm_set1_epi16(15)), to_bytes);
            words = _mm_add_epi8(first, lane_bytes<bits>([](unsigned i, unsigned) { return last - i; }));
            next =
                _mm_or_si128(_mm_add_epi8(first, _mm_set1_epi8(last)),
                             lane_bytes<bits>([](unsigned i, unsigned) { return i == lane::carry_byte ? 0u : 0x80u; }));
            shift = lane::shifter(
                _mm_and_si128(starts, lane_bytes<bits>([](unsigned i, unsigned) { return i ? 0u : 7u; })));
        }

        __m128i words, next, shift;
    };

    struct pattern_t {
        pattern_t() = default;
        KEL_AVX2 pattern_t(const piece_t &lower, const piece_t &upper)
            : words(_mm256_set_m128i(upper.words, lower.words)), next(_mm256_set_m128i(upper.next, lower.next)),
              shift(_mm256_set_m128i(upper.shift, lower.shift))
        {
        }

        __m256i words, next, shift;
    };

    const uint8_t *piece(const uint8_t *data, unsigned k) const
    {
        return data + place[k % kinds] + k / kinds * width;
    }

    const uint64_t width;
    uint64_t place[kinds]; // of the first piece of each kind
    pattern_t pattern[layout::patterns];
};

// Wide fields, of 9 to 16 bytes: two of them in a register, their bytes in the order that is asked for.
class wide_loader
{
  public:
    // order: which byte of an element each byte of half a register is; beyond its last, or negative: 0.
    KEL_AVX2 wide_loader(const fields_t &fields, __m128i order)
        : bytes(fields.width / 8), places(_mm256_broadcastsi128_si256(_mm_or_si128(
                                       order, _mm_cmpgt_epi8(order, _mm_set1_epi8(static_cast<char>(bytes - 1))))))
    {
    }

    KEL_AVX2 __m256i load(const uint8_t *lower, const uint8_t *upper) const
    {
        return _mm256_shuffle_epi8(load_both(lower, upper), places);
    }

    const uint64_t bytes;

  private:
    const __m256i places;
};

// Whether fields are narrow in lanes of that many bits: by the highest bit of a byte that one starts at.
inline bool narrow_in(const fields_t &fields, unsigned bits)
{
    const unsigned step = fields.width % 8 == 0 ? 8 : fields.width & -fields.width;
    return (fields.offset & (step - 1)) + 8 - step + fields.width <= bits;
}

// ---- Outcomes -------------------------------------------------------------------------------------------------------

// The bytes of each half in the opposite order.
KEL_AVX2 inline __m256i backwards(__m256i x)
{
    return swap_bytes<128>(x);
}

// Packs the outcomes of half a block, the top bits of lanes, to the top bit of a byte for each element, the last one
// first.
template <unsigned bits>
KEL_AVX2 inline __m256i pack_outcomes(__m256i *of)
{
    unsigned n = bits / 8;
    for (; n > 2; n /= 2)
        for (unsigned i = 0; i < n / 2; i++)
            of[i] = _mm256_packs_epi32(of[2 * i], of[2 * i + 1]);
    return backwards(_mm256_packs_epi16(of[0], of[1]));
}

// The top bits of all bytes, the last byte's on top.
KEL_AVX2 inline uint32_t top_bits(__m256i bytes)
{
    return static_cast<uint32_t>(_mm256_movemask_epi8(bytes));
}

} // namespace

#endif
