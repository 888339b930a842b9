// Compaction in portable code: from one set bit of a mask to the next.
#include "kel_producer.h"

namespace
{

// Calls put(i) for each element i whose bit is set, in their order.
template <class Put>
inline void for_each_set(uint64_t mask, const Put &put)
{
    for (uint64_t left = reverse_bits(mask); left != 0; left &= left - 1)
        put(static_cast<unsigned>(std::countr_zero(left)));
}

template <class Entry>
uint8_t *index_block(uint64_t mask, uint64_t index, uint8_t *to)
{
    for_each_set(mask, [&](unsigned i) {
        kel_store_be(to, static_cast<Entry>(index + i));
        to += sizeof(Entry);
    });
    return to;
}

template <unsigned bytes>
uint8_t *pick_block(const uint8_t *from, uint64_t mask, uint8_t *to)
{
    for_each_set(mask, [&](unsigned i) {
        memcpy(to, from + bytes * i, bytes);
        to += bytes;
    });
    return to;
}

} // namespace

index_block_t portable_indexes(uint64_t bytes)
{
    return bytes == 2 ? index_block<uint16_t> : index_block<uint32_t>;
}

pick_block_t portable_picks(uint64_t bytes)
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
        return pick_block<16>;
    }
}
