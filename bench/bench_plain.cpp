#include "bench_plain.h"
#include <cstring>

uint64_t plain_read(const void *from, uint64_t bytes)
{
    constexpr uint64_t lanes = 32; // so that sums do not wait for each other
    const uint8_t *at = static_cast<const uint8_t *>(from);
    uint64_t sums[lanes] = {};
    uint64_t words[lanes];
    for (; bytes >= sizeof words; bytes -= sizeof words, at += sizeof words) {
        memcpy(words, at, sizeof words);
        for (uint64_t i = 0; i < lanes; i++)
            sums[i] += words[i];
    }
    for (; bytes >= 8; bytes -= 8, at += 8) {
        memcpy(words, at, 8);
        sums[0] += words[0];
    }
    uint64_t sum = 0;
    for (const uint64_t each : sums)
        sum += each;
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
