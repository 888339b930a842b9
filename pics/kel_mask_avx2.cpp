// The producers of mask words for AVX2.
#include "kel_avx2.h"
#include <algorithm>

#if KEL_HAVE_AVX2_UNITS

namespace
{

// ---- Intervals ------------------------------------------------------------------------------------------------------

// Whether lanes are outside an interval. The comparison is one of signed numbers, so that both sides are moved by half
// of the lanes' domain.
template <unsigned bits>
class outside_interval
{
  public:
    KEL_AVX2 outside_interval(uint64_t low, uint64_t above_low, unsigned unused)
        : first(lanes<bits>::all((low << unused) - half)),
          span(lanes<bits>::all((above_low << unused | ((uint64_t{1} << unused) - 1)) - half))
    {
    }

    KEL_AVX2 __m256i operator()(__m256i x) const
    {
        return lanes<bits>::greater(lanes<bits>::minus(x, first), span);
    }

  private:
    static constexpr uint64_t half = uint64_t{1} << (bits - 1);

    __m256i first;
    __m256i span;
};

// The upper and the lower words of four wide elements.
struct words_t {
    __m256i high;
    __m256i low;
};

// Half a block of wide elements, four to a load, in the order for packing.
class word_loader : wide_loader
{
  public:
    static constexpr unsigned lane_bits = 64;
    static constexpr unsigned registers = 8;

    KEL_AVX2 explicit word_loader(const fields_t &fields)
        : wide_loader(fields, _mm_sub_epi8(_mm_set1_epi8(static_cast<char>(fields.width / 8 - 1)),
                                           lane_bytes<128>([](unsigned i, unsigned) { return i; })))
    {
    }

    KEL_AVX2 words_t load(const uint8_t *data, unsigned i) const
    {
        const uint8_t *lower = data + 2 * for_packing<64>::lower(i) * bytes;
        const uint8_t *upper = data + 2 * for_packing<64>::upper(i) * bytes;
        const __m256i even = wide_loader::load(lower, upper);
        const __m256i odd = wide_loader::load(lower + bytes, upper + bytes);
        return {_mm256_unpackhi_epi64(even, odd), _mm256_unpacklo_epi64(even, odd)};
    }
};

// The same of wide elements. A difference of lower words borrows from the upper ones.
class outside_wide_interval
{
  public:
    KEL_AVX2 outside_wide_interval(uint128_t low, uint128_t above_low, unsigned)
        : first{lanes<64>::all(static_cast<uint64_t>(low >> 64) - half), lanes<64>::all(static_cast<uint64_t>(low))},
          span{lanes<64>::all(static_cast<uint64_t>(above_low >> 64) - half),
               lanes<64>::all(static_cast<uint64_t>(above_low) - half)}
    {
    }

    KEL_AVX2 __m256i operator()(const words_t &x) const
    {
        const __m256i halves = lanes<64>::all(half);
        const __m256i moved = _mm256_xor_si256(x.low, halves);
        const __m256i borrow = lanes<64>::greater(_mm256_xor_si256(first.low, halves), moved);
        const __m256i high = _mm256_add_epi64(lanes<64>::minus(x.high, first.high), borrow);
        const __m256i low = lanes<64>::minus(moved, first.low);
        const __m256i low_outside =
            _mm256_and_si256(_mm256_cmpeq_epi64(high, span.high), lanes<64>::greater(low, span.low));
        return _mm256_or_si256(lanes<64>::greater(high, span.high), low_outside);
    }

  private:
    static constexpr uint64_t half = uint64_t{1} << 63;

    words_t first;
    words_t span;
};

template <class Outside>
class outside_one : public Outside
{
  public:
    KEL_AVX2 outside_one(const auto &predicate, unsigned unused)
        : Outside(predicate.first[0], predicate.span[0], unused)
    {
    }
};

template <class Outside>
class outside_two
{
  public:
    KEL_AVX2 outside_two(const auto &predicate, unsigned unused)
        : one(predicate.first[0], predicate.span[0], unused), other(predicate.first[1], predicate.span[1], unused)
    {
    }

    KEL_AVX2 __m256i operator()(const auto &x) const
    {
        return _mm256_and_si256(one(x), other(x));
    }

  private:
    Outside one;
    Outside other;
};

template <class Loader, class Outside, class Predicate>
KEL_AVX2 void interval_blocks(const uint8_t *data, const fields_t &fields, const Predicate &predicate, uint64_t *masks,
                              size_t n)
{
    const Loader loader(fields);
    const Outside outside(predicate, Loader::lane_bits - fields.width);
    const uint64_t matching = predicate.negated ? 0 : ~uint64_t{0};
    for (size_t block = 0; block < n; block++) {
        uint64_t mask = 0;
        for (unsigned half = 0; half < 2; half++, data += half_elements / 8 * fields.width) {
            __m256i outcomes[Loader::registers];
            for (unsigned i = 0; i < Loader::registers; i++)
                outcomes[i] = outside(loader.load(data, i));
            mask = mask << 32 | top_bits(pack_outcomes<Loader::lane_bits>(outcomes));
        }
        masks[block] = mask ^ matching;
    }
}

// ---- Bitmaps --------------------------------------------------------------------------------------------------------

// A bitmap of up to 256 bits stands in two registers: a byte of it is picked by an element's upper bits, and from that
// a bit by its lower ones. Only its own bytes are read, and of those the ones that elements of this width can select a
// bit of; so blocks with an element behind them are left to portable code, which reads what lies there.
KEL_AVX2 void small_bitmap_blocks(const uint8_t *data, const fields_t &fields, const bitmap_t &bitmap, uint64_t *masks,
                                  size_t n)
{
    using loader_t = field_loader<16, true, for_packing>;
    const loader_t loader(fields);
    alignas(32) uint8_t bytes[32] = {};
    const size_t size = (std::min(bitmap.bits, uint64_t{1} << fields.width) + 7) / 8;
    memcpy(bytes, bitmap.data, size);
    const __m256i low = _mm256_broadcastsi128_si256(_mm_load_si128(reinterpret_cast<const __m128i *>(bytes)));
    const __m256i high = _mm256_broadcastsi128_si256(_mm_load_si128(reinterpret_cast<const __m128i *>(bytes + 16)));
    const __m256i bits = _mm256_set1_epi64x(0x0102040810204080);
    const __m256i last = _mm256_set1_epi8(static_cast<char>(8 * size - 1));
    const uint64_t negated = bitmap.negated ? ~uint64_t{0} : 0;
    for (size_t block = 0; block < n; block++) {
        const uint8_t *const start = data;
        __m256i behind = _mm256_setzero_si256();
        uint64_t mask = 0;
        for (unsigned half = 0; half < 2; half++, data += half_elements / 8 * fields.width) {
            const __m256i element = _mm256_packus_epi16(lanes<16>::right(loader.load(data, 0), 16 - fields.width),
                                                        lanes<16>::right(loader.load(data, 1), 16 - fields.width));
            const __m256i place = _mm256_and_si256(_mm256_srli_epi16(element, 3), _mm256_set1_epi8(31));
            const __m256i byte = _mm256_blendv_epi8(_mm256_shuffle_epi8(low, place), _mm256_shuffle_epi8(high, place),
                                                    _mm256_slli_epi16(place, 3));
            const __m256i bit = _mm256_shuffle_epi8(bits, _mm256_and_si256(element, _mm256_set1_epi8(7)));
            const __m256i hit = _mm256_cmpeq_epi8(_mm256_and_si256(byte, bit), bit);
            mask = mask << 32 | top_bits(backwards(hit));
            behind = _mm256_or_si256(behind, _mm256_subs_epu8(element, last));
        }
        masks[block] = mask ^ negated;
        if (!_mm256_testz_si256(behind, behind)) [[unlikely]]
            portable_bitmap_masks(fields, bitmap)(start, fields, bitmap, &masks[block], 1);
    }
}

// Looks up eight elements in the words of a bitmap: the outcomes are the upper bits of lanes. Bit e of it is bit e ^ 7
// of its little-endian words, and comes to the top by a shift to the left by the complement of that.
KEL_AVX2 inline __m256i look_up(const bitmap_t &bitmap, __m256i elements)
{
    const auto *words = reinterpret_cast<const int *>(bitmap.data);
    const __m256i found = _mm256_i32gather_epi32(words, _mm256_srli_epi32(elements, 5), 4);
    const __m256i shift = _mm256_xor_si256(elements, _mm256_set1_epi32(31 ^ 7));
    return _mm256_sllv_epi32(found, _mm256_and_si256(shift, _mm256_set1_epi32(31)));
}

template <bool narrow>
KEL_AVX2 void bitmap_blocks(const uint8_t *data, const fields_t &fields, const bitmap_t &bitmap, uint64_t *masks,
                            size_t n)
{
    using loader_t = field_loader<32, narrow, for_packing>;
    const loader_t loader(fields);
    const uint64_t negated = bitmap.negated ? ~uint64_t{0} : 0;
    for (size_t block = 0; block < n; block++) {
        uint64_t mask = 0;
        for (unsigned half = 0; half < 2; half++, data += half_elements / 8 * fields.width) {
            __m256i outcomes[loader_t::registers];
            for (unsigned i = 0; i < loader_t::registers; i++)
                outcomes[i] = look_up(bitmap, lanes<32>::right(loader.load(data, i), 32 - fields.width));
            mask = mask << 32 | top_bits(pack_outcomes<32>(outcomes));
        }
        masks[block] = mask ^ negated;
    }
}

// ---- The choice -----------------------------------------------------------------------------------------------------

template <class Loader, class Outside, class Predicate>
mask_blocks_t<Predicate> choose_count(const Predicate &predicate)
{
    return predicate.intervals == 2 ? interval_blocks<Loader, outside_two<Outside>, Predicate>
                                    : interval_blocks<Loader, outside_one<Outside>, Predicate>;
}

template <unsigned bits>
mask_blocks_t<predicate_t> choose_intervals(const fields_t &fields, const predicate_t &predicate)
{
    return narrow_in(fields, bits)
               ? choose_count<field_loader<bits, true, for_packing>, outside_interval<bits>>(predicate)
               : choose_count<field_loader<bits, false, for_packing>, outside_interval<bits>>(predicate);
}

} // namespace

mask_blocks_t<predicate_t> avx2_interval_masks(const fields_t &fields, const predicate_t &predicate)
{
    return fields.width == 1    ? nullptr
           : fields.width <= 16 ? choose_intervals<16>(fields, predicate)
           : fields.width <= 32 ? choose_intervals<32>(fields, predicate)
                                : choose_intervals<64>(fields, predicate);
}

mask_blocks_t<wide_predicate_t> avx2_wide_masks(const fields_t &, const wide_predicate_t &predicate)
{
    return choose_count<word_loader, outside_wide_interval>(predicate);
}

// Large bitmaps are read by their aligned words of 4 bytes.
mask_blocks_t<bitmap_t> avx2_bitmap_masks(const fields_t &fields, const bitmap_t &bitmap)
{
    if (fields.width > 32)
        return nullptr;
    if (fields.width <= 8 && bitmap.bits > 0)
        return small_bitmap_blocks;
    if (reinterpret_cast<uintptr_t>(bitmap.data) % 4 != 0)
        return nullptr;
    return narrow_in(fields, 32) ? bitmap_blocks<true> : bitmap_blocks<false>;
}

#endif
