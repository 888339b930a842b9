#include "bench_plain.h"
#include <cstring>

namespace
{

using lanes_t = uint64_t __attribute__((vector_size(32)));

lanes_t load_lanes(const uint8_t *from)
{
    lanes_t lanes;
    memcpy(&lanes, from, sizeof lanes);
    return lanes;
}

} // namespace

// In four sums, so that loads are all that it waits for.
uint64_t plain_read(const void *from, uint64_t bytes)
{
    constexpr uint64_t step = sizeof(lanes_t);
    const uint8_t *at = static_cast<const uint8_t *>(from);
    lanes_t first = {};
    lanes_t second = {};
    lanes_t third = {};
    lanes_t fourth = {};
    for (; bytes >= 4 * step; bytes -= 4 * step, at += 4 * step) {
        first += load_lanes(at);
        second += load_lanes(at + step);
        third += load_lanes(at + 2 * step);
        fourth += load_lanes(at + 3 * step);
    }
    first += second + third + fourth;
    uint64_t sum = first[0] + first[1] + first[2] + first[3];
    for (; bytes >= 8; bytes -= 8, at += 8) {
        uint64_t word;
        memcpy(&word, at, sizeof word);
        sum += word;
    }
    return sum;
}

namespace
{

template <class Test>
void pack_bits(uint64_t elements, uint64_t *to, const Test &test)
{
    for (uint64_t i = 0; i < elements; i += 64) {
        uint64_t word = 0;
        for (uint64_t j = 0; j < 64; j++)
            word |= static_cast<uint64_t>(test(i + j)) << j;
        *to++ = word;
    }
}

} // namespace

template <class T>
void plain_range_bits(const T *from, uint64_t elements, T lower, T upper, uint64_t *to)
{
    pack_bits(elements, to, [=](uint64_t i) { return (from[i] >= lower) & (from[i] <= upper); });
}

template <class T, class Index>
uint64_t plain_range_indexes(const T *from, uint64_t elements, T lower, T upper, Index *to)
{
    uint64_t count = 0;
    for (uint64_t i = 0; i < elements; i++) {
        to[count] = static_cast<Index>(i);
        count += (from[i] >= lower) & (from[i] <= upper);
    }
    return count;
}

template <class T>
void plain_lookup(const T *from, uint64_t elements, const uint64_t *bitmap, uint64_t *to)
{
    pack_bits(elements, to, [=](uint64_t i) { return bitmap[from[i] / 64] >> from[i] % 64 & 1; });
}

template <class T>
uint64_t plain_select(const T *from, uint64_t elements, const uint64_t *mask, T *to)
{
    uint64_t count = 0;
    for (uint64_t i = 0; i < elements; i++) {
        to[count] = from[i];
        count += mask[i / 64] >> i % 64 & 1;
    }
    return count;
}

#define FOR_TYPE(T)                                                                                                    \
    template void plain_range_bits(const T *, uint64_t, T, T, uint64_t *);                                             \
    template uint64_t plain_range_indexes(const T *, uint64_t, T, T, uint16_t *);                                      \
    template uint64_t plain_range_indexes(const T *, uint64_t, T, T, uint32_t *);                                      \
    template void plain_lookup(const T *, uint64_t, const uint64_t *, uint64_t *);                                     \
    template uint64_t plain_select(const T *, uint64_t, const uint64_t *, T *);
FOR_TYPE(uint8_t)
FOR_TYPE(uint16_t)
FOR_TYPE(uint32_t)
FOR_TYPE(uint64_t)
