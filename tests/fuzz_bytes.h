// What the fuzz targets of codecs share: blocks that end with the last byte that may be touched, and hold stale bytes,
// as a caller's memory does.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fuzzer/FuzzedDataProvider.h>
#include <vector>

using bytes_t = std::vector<uint8_t>;

inline void require(bool condition)
{
    if (!condition)
        abort();
}

inline uint64_t stale_state; // to be set by each input

inline void make_stale(void *memory, size_t size)
{
    for (size_t i = 0; i < size; i += sizeof stale_state) {
        stale_state = stale_state * 0x5851f42d4c957f2d + 1;
        const uint64_t word = stale_state ^ stale_state >> 32;
        memcpy(static_cast<uint8_t *>(memory) + i, &word, std::min(size - i, sizeof word));
    }
}

inline bytes_t stale_bytes(size_t size)
{
    bytes_t bytes(size);
    make_stale(bytes.data(), size);
    return bytes;
}

// Memory of destinations, which is aligned and padded.
struct alignas(64) line {
    uint8_t bytes[64];
};

inline std::vector<line> stale_lines(size_t count)
{
    std::vector<line> lines(count);
    make_stale(lines.data(), sizeof(line) * count);
    return lines;
}
