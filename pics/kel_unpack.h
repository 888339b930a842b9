// Unpacking blocks in portable code.
//
// Eight elements of w bits take w bytes, whatever w and the offset are. So the places of the elements j, j + 8, j + 16
// ... of a block differ by whole bytes, and one shift count serves all of them.
#pragma once

#include "kel_producer.h"

namespace
{

// Calls put(i, field) for each field i of the block at data; right cuts low bits off the field. A narrow field's last
// bit is at most 64 bits behind the start of the byte that holds its first; a wide one may reach into a ninth byte.
template <bool wide, class Put>
inline void unpack(const uint8_t *data, const fields_t &fields, unsigned right, const Put &put)
{
    const uint64_t mask = ~uint64_t{0} >> (64 - fields.width + right);
    for (unsigned j = 0; j < 8; j++) {
        const unsigned bit = fields.offset + j * fields.width;
        const unsigned above = bit % 8;
        const unsigned below = 64 - fields.width + right - (wide ? 0 : above);
        const uint8_t *byte = data + bit / 8;
        for (unsigned i = j; i < block_elements; i += 8, byte += fields.width) {
            uint64_t word = kel_load_be<uint64_t>(byte);
            if constexpr (wide)
                word = word << above | byte[8] >> (8 - above);
            put(i, word >> below & mask);
        }
    }
}

constexpr unsigned widest_narrow_field = 57;

} // namespace
