// The producers of mask words in portable code: a block is unpacked into lanes of the next machine width, each lane is
// tested, and the outcomes are gathered.
#include "kel_unpack.h"

namespace
{

// ---- Lanes ----------------------------------------------------------------------------------------------------------

template <class Lane, bool wide>
inline void unpack_lanes(const uint8_t *data, const fields_t &fields, Lane *lanes)
{
    unpack<wide>(data, fields, 0, [lanes](unsigned i, uint64_t field) { lanes[i] = static_cast<Lane>(field); });
}

// Fields that are whole lanes.
template <class Lane>
inline void load_lanes(const uint8_t *data, const fields_t &, Lane *lanes)
{
    for (unsigned i = 0; i < block_elements; i++)
        lanes[i] = kel_load_be<Lane>(data + i * sizeof(Lane));
}

// Wide elements, by their first and their last eight bytes.
inline void load_wide(const uint8_t *data, const fields_t &fields, uint128_t *lanes)
{
    const unsigned bytes = fields.width / 8;
    for (unsigned i = 0; i < block_elements; i++, data += bytes) {
        const uint64_t high = kel_load_be<uint64_t>(data) >> (128 - fields.width);
        lanes[i] = uint128_t{high} << 64 | kel_load_be<uint64_t>(data + bytes - 8);
    }
}

// ---- Tests of a lane ------------------------------------------------------------------------------------------------

template <class Lane>
struct in_one_interval {
    explicit in_one_interval(const auto &predicate)
        : first(static_cast<Lane>(predicate.first[0])), span(static_cast<Lane>(predicate.span[0]))
    {
    }

    bool operator()(Lane lane) const
    {
        return static_cast<Lane>(lane - first) <= span;
    }

    Lane first;
    Lane span;
};

template <class Lane>
struct in_two_intervals : in_one_interval<Lane> {
    explicit in_two_intervals(const auto &predicate)
        : in_one_interval<Lane>(predicate), first2(static_cast<Lane>(predicate.first[1])),
          span2(static_cast<Lane>(predicate.span[1]))
    {
    }

    bool operator()(Lane lane) const
    {
        return in_one_interval<Lane>::operator()(lane) | (static_cast<Lane>(lane - first2) <= span2);
    }

    Lane first2;
    Lane span2;
};

template <class Lane>
struct in_bitmap {
    explicit in_bitmap(const bitmap_t &bitmap) : data(bitmap.data) {}

    bool operator()(Lane lane) const
    {
        return data[lane >> 3] >> (7 - (lane & 7)) & 1;
    }

    const uint8_t *data;
};

// ---- Mask words -----------------------------------------------------------------------------------------------------

// The lowest bits of eight bytes, the first byte's on top: each product term lands in a bit of its own, and the terms
// of the wanted bits make up the top byte.
inline uint64_t gather_bits(const uint8_t *bytes)
{
    return kel_load_be<uint64_t>(bytes) * 0x0102040810204080 >> 56;
}

template <class Lane, void (*unpack)(const uint8_t *, const fields_t &, Lane *), class Match, class Test>
void mask_blocks(const uint8_t *data, const fields_t &fields, const Test &test, uint64_t *masks, size_t n)
{
    const Match match(test);
    alignas(64) Lane lanes[block_elements];
    alignas(64) uint8_t hits[block_elements];
    for (size_t block = 0; block < n; block++, data += 8 * fields.width) {
        unpack(data, fields, lanes);
        for (unsigned i = 0; i < block_elements; i++)
            hits[i] = match(lanes[i]);
        uint64_t mask = 0;
        for (unsigned i = 0; i < block_elements; i += 8)
            mask = mask << 8 | gather_bits(hits + i);
        masks[block] = test.negated ? ~mask : mask;
    }
}

// Elements of one bit: their words as they stand, or their complement, or all zeros or ones.
void bit_blocks(const uint8_t *data, const fields_t &fields, const predicate_t &predicate, uint64_t *masks, size_t n)
{
    const auto matches = [&](uint64_t bit) {
        const bool inside = predicate.intervals == 2 ? in_two_intervals<uint64_t>(predicate)(bit)
                                                     : in_one_interval<uint64_t>(predicate)(bit);
        return inside != predicate.negated ? ~uint64_t{0} : 0;
    };
    const uint64_t zero = matches(0), differs = matches(1) ^ zero;
    for (size_t block = 0; block < n; block++, data += 8) {
        uint64_t word = kel_load_be<uint64_t>(data);
        if (fields.offset)
            word = word << fields.offset | data[8] >> (8 - fields.offset);
        masks[block] = (word & differs) ^ zero;
    }
}

template <class Lane, template <class> class Match, class Test>
mask_blocks_t<Test> choose_unpack(const fields_t &fields)
{
    if (fields.width == 8 * sizeof(Lane) && fields.offset == 0)
        return mask_blocks<Lane, load_lanes<Lane>, Match<Lane>, Test>;
    if constexpr (sizeof(Lane) == 8)
        if (fields.width > widest_narrow_field)
            return mask_blocks<Lane, unpack_lanes<Lane, true>, Match<Lane>, Test>;
    return mask_blocks<Lane, unpack_lanes<Lane, false>, Match<Lane>, Test>;
}

template <template <class> class Match, class Test>
mask_blocks_t<Test> choose_lane(const fields_t &fields)
{
    if (fields.width <= 8)
        return choose_unpack<uint8_t, Match, Test>(fields);
    if (fields.width <= 16)
        return choose_unpack<uint16_t, Match, Test>(fields);
    if (fields.width <= 32)
        return choose_unpack<uint32_t, Match, Test>(fields);
    return choose_unpack<uint64_t, Match, Test>(fields);
}

} // namespace

mask_blocks_t<predicate_t> portable_interval_masks(const fields_t &fields, const predicate_t &predicate)
{
    if (fields.width == 1)
        return bit_blocks;
    return predicate.intervals == 2 ? choose_lane<in_two_intervals, predicate_t>(fields)
                                    : choose_lane<in_one_interval, predicate_t>(fields);
}

mask_blocks_t<wide_predicate_t> portable_wide_masks(const fields_t &, const wide_predicate_t &predicate)
{
    return predicate.intervals == 2 ? mask_blocks<uint128_t, load_wide, in_two_intervals<uint128_t>, wide_predicate_t>
                                    : mask_blocks<uint128_t, load_wide, in_one_interval<uint128_t>, wide_predicate_t>;
}

mask_blocks_t<bitmap_t> portable_bitmap_masks(const fields_t &fields, const bitmap_t &)
{
    return choose_lane<in_bitmap, bitmap_t>(fields);
}
