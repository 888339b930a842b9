// The writers behind fill.
#pragma once

#include "kel.h"

// The 8 bytes that repeat, in the order of a big-endian word.
uint64_t fill_value(uint64_t val, unsigned val_width);

// Writes count bytes of a stream that starts at dst with the first byte of pattern.
void fill_unaligned(kel_context_t *ctx, void *dst, uint64_t pattern, uint64_t count);

// Writes the pattern to n words of 8 bytes at an aligned address; nothing if n is not positive.
void memsetx(uint64_t *dst, uint64_t pattern, int64_t n);

// A fill of whole words. Answers the bytes written; an address that is not a multiple of 8 ends the program.
uint64_t kel_fill_emulate(kel_context_t *ctx, uint64_t flags, uint64_t pattern, void *dst, uint64_t count,
                          uint32_t val_width);
