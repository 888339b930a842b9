// What the operations need to know about packed vectors without running a kernel: lengths, overlaps, sums, searches and
// counts over streams of fields, and the diagnosis of a failed request.
#pragma once

#include "kel.h"

inline uint64_t kel_width_bits(uint64_t format, uint32_t elem_width)
{
    return format & KEL_BITS ? elem_width : uint64_t{elem_width} * 8;
}

inline uint64_t kel_width_bits(const kel_vec_t *vec)
{
    return kel_width_bits(vec->format, vec->elem_width);
}

inline uint64_t kel_width_bits(const kel_int_t *val)
{
    return kel_width_bits(val->format, val->elem_width);
}

// Byte lengths of the two streams of a vector, counted from the first byte, offset included.
inline uint64_t kel_data_bytes(const kel_vec_t *vec)
{
    return (vec->offset + kel_width_bits(vec) * vec->elements + 7) / 8;
}

inline uint64_t kel_aux_bytes(const kel_vec_t *vec)
{
    return (vec->aux_offset + uint64_t{vec->aux_width} * vec->elements + 7) / 8;
}

// Overlaps of buffers: 1 for overlap. To vec_overlap a compressed vector overlaps nothing: its length is not known from
// its count.
int vec_overlap(const kel_vec_t *a, const kel_vec_t *b);
int aux_overlap(const kel_vec_t *src, const kel_vec_t *dst);
int addr_overlap(const void *a, const void *b, uint64_t len);

// The sum of a vector's aux stream, one more for each element with KEL_ADD_ONE: the elements that the runs of a KEL_RLE
// vector describe, the bytes of a KEL_VAR vector. A width that is not a power of two up to 32 is reported, and gives 0.
size_t aux_sum(kel_context_t *ctx, const kel_vec_t *vec);

// The first of count fields of width bits (1, 2, 4, 8, 16, else 32) at data, after offset bits, with (field & mask)
// equal to value, or above it. 1 if there is one, with its number in *index; if not, *index may have been written, too.
int compare_bits_eq(const void *data, unsigned width, unsigned offset, size_t count, unsigned long mask,
                    unsigned long value, unsigned long *index);
int compare_bits_gt(const void *data, unsigned width, unsigned offset, size_t count, unsigned long mask,
                    unsigned long value, unsigned long *index);

// The number of one bits among the given number of stream bits behind offset, which may be of any size.
unsigned long bit_popc(const void *data, unsigned long offset, unsigned long bits);

// 0 and a report if an aux element is zero, as far as the interface version looks at its bits.
int aux_elem_valid(kel_context_t *ctx, const kel_vec_t *vec);

// Tells in the log what was wrong with the data of a failed request; changes nothing.
void vec_diagnose(kel_context_t *ctx, const kel_vec_t *vec, kel_status_t status);
