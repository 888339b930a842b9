// The producers of mask words in portable code.
//
// Eight elements of w bits take w bytes, whatever w and the offset are. So the places of the elements j, j + 8, j + 16
// ... of a block differ by whole bytes, and one shift count serves all of them. A block is unpacked into lanes of the
// next machine width, and the predicate turns the lanes into a mask word.
#include "kel_block.h"

namespace
{

// Fields whose last bit is at most 64 bits behind the start of the byte that holds their first.
template <class Lane>
inline void unpack_narrow(const fields_t &fields, Lane *lanes)
{
    const uint64_t mask = ~uint64_t{0} >> (64 - fields.width);
    for (unsigned j = 0; j < 8; j++) {
        const unsigned bit = fields.offset + j * fields.width;
        const unsigned below = 64 - fields.width - bit % 8;
        const uint8_t *byte = fields.data + bit / 8;
        for (unsigned i = j; i < block_elements; i += 8, byte += fields.width)
            lanes[i] = static_cast<Lane>(kel_load_be<uint64_t>(byte) >> below & mask);
    }
}

// Fields of up to 64 bits at any bit, which may reach into a ninth byte.
template <class Lane>
inline void unpack_wide(const fields_t &fields, Lane *lanes)
{
    const unsigned below = 64 - fields.width;
    for (unsigned j = 0; j < 8; j++) {
        const unsigned bit = fields.offset + j * fields.width;
        const unsigned above = bit % 8;
        const uint8_t *byte = fields.data + bit / 8;
        for (unsigned i = j; i < block_elements; i += 8, byte += fields.width)
            lanes[i] = static_cast<Lane>((kel_load_be<uint64_t>(byte) << above | byte[8] >> (8 - above)) >> below);
    }
}

// Fields that are whole lanes.
template <class Lane>
inline void unpack_bytes(const fields_t &fields, Lane *lanes)
{
    for (unsigned i = 0; i < block_elements; i++)
        lanes[i] = kel_load_be<Lane>(fields.data + i * sizeof(Lane));
}

// The lowest bits of eight bytes, the first byte's on top: each product term lands in a bit of its own, and the terms
// of the wanted bits make up the top byte.
inline uint64_t gather_bits(const uint8_t *bytes)
{
    return kel_load_be<uint64_t>(bytes) * 0x0102040810204080 >> 56;
}

template <class Lane, bool two>
inline uint64_t match_lanes(const Lane *lanes, const predicate_t &predicate)
{
    const auto first = static_cast<Lane>(predicate.first[0]);
    const auto span = static_cast<Lane>(predicate.span[0]);
    const auto first2 = static_cast<Lane>(predicate.first[1]);
    const auto span2 = static_cast<Lane>(predicate.span[1]);
    alignas(64) uint8_t hits[block_elements];
    for (unsigned i = 0; i < block_elements; i++) {
        bool hit = static_cast<Lane>(lanes[i] - first) <= span;
        if constexpr (two)
            hit |= static_cast<Lane>(lanes[i] - first2) <= span2;
        hits[i] = hit;
    }
    uint64_t mask = 0;
    for (unsigned i = 0; i < block_elements; i += 8)
        mask = mask << 8 | gather_bits(hits + i);
    return predicate.negated ? ~mask : mask;
}

template <class Lane, void (*unpack)(const fields_t &, Lane *), bool two>
void mask_blocks(fields_t fields, const predicate_t &predicate, uint64_t *masks, size_t n)
{
    alignas(64) Lane lanes[block_elements];
    for (size_t i = 0; i < n; i++, fields.data += 8 * fields.width) {
        unpack(fields, lanes);
        masks[i] = match_lanes<Lane, two>(lanes, predicate);
    }
}

template <class Lane, void (*unpack)(const fields_t &, Lane *)>
mask_blocks_t choose_count(const predicate_t &predicate)
{
    return predicate.intervals == 2 ? mask_blocks<Lane, unpack, true> : mask_blocks<Lane, unpack, false>;
}

template <class Lane>
mask_blocks_t choose_unpack(const fields_t &fields, const predicate_t &predicate)
{
    if (fields.width == 8 * sizeof(Lane) && fields.offset == 0)
        return choose_count<Lane, unpack_bytes<Lane>>(predicate);
    if constexpr (sizeof(Lane) == 8)
        if (fields.width > 57)
            return choose_count<Lane, unpack_wide<Lane>>(predicate);
    return choose_count<Lane, unpack_narrow<Lane>>(predicate);
}

} // namespace

mask_blocks_t choose_mask_blocks(const fields_t &fields, const predicate_t &predicate)
{
    if (fields.width <= 8)
        return choose_unpack<uint8_t>(fields, predicate);
    if (fields.width <= 16)
        return choose_unpack<uint16_t>(fields, predicate);
    if (fields.width <= 32)
        return choose_unpack<uint32_t>(fields, predicate);
    return choose_unpack<uint64_t>(fields, predicate);
}
