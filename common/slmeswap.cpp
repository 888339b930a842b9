// The exchange of two blocks of memory.
#include "vorp.h"

template <class Word>
static void swap_words(void *a, void *b, uint64_t size)
{
    auto *left = static_cast<uint8_t *>(a);
    auto *right = static_cast<uint8_t *>(b);
    for (uint64_t i = 0; i < size; i += sizeof(Word)) {
        Word kept, moved;
        memcpy(&kept, left + i, sizeof kept);
        memcpy(&moved, right + i, sizeof moved);
        memcpy(left + i, &moved, sizeof moved);
        memcpy(right + i, &kept, sizeof kept);
    }
}

void slmeswap(void *a, void *b, uint64_t size)
{
    const uint64_t low_bits = reinterpret_cast<uintptr_t>(a) | reinterpret_cast<uintptr_t>(b) | size;
    if (low_bits % sizeof(uint64_t) == 0)
        swap_words<uint64_t>(a, b, size);
    else
        swap_words<uint8_t>(a, b, size);
}
