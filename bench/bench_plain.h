// What a program would write for itself: loops over plain arrays. Bit vectors have their first bit at the low end of a
// word, as is usual with them. Compiled for the processor that builds them, at -O3; so is the plain read, which is the
// limit of what only looks at its source.
#pragma once

#include <cstdint>

// Reads bytes, a multiple of 8, and returns the sum of their words.
uint64_t plain_read(const void *from, uint64_t bytes);

// Elements between lower and upper, as bits; elements are a multiple of 64.
template <class T>
void plain_range_bits(const T *from, uint64_t elements, T lower, T upper, uint64_t *to);

// The same as a list of indexes. Returns its length.
template <class T, class Index>
uint64_t plain_range_indexes(const T *from, uint64_t elements, T lower, T upper, Index *to);

// Elements looked up in a bitmap, as bits; elements are a multiple of 64.
template <class T>
void plain_lookup(const T *from, uint64_t elements, const uint64_t *bitmap, uint64_t *to);

// Elements whose bit in mask is 1. Returns their number.
template <class T>
uint64_t plain_select(const T *from, uint64_t elements, const uint64_t *mask, T *to);
