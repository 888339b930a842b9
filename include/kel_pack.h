/**
 * @file
 * The client's side of a column: packs integers and texts of the host into vectors, and reads results back.
 *
 * A companion of kel.h for C11 and C++, complete in this header: the functions are inline, need no library and no
 * context, allocate nothing, and keep nothing. A vector is described as for kel.h; its buffers are the caller's, and
 * need no alignment here. Only the bits of the named elements are written, and no byte is touched that holds none of
 * the elements that are packed or read.
 *
 * Integers of the host are arrays of value_width bytes (1, 2, 4 or 8) an element, signed or unsigned, in the host's
 * byte order. An element of a vector is an unsigned number of up to 64 bits: the value less base. So a column of values
 * from -40 to 60 fits in 7 bits with base -40; with base 0 the values are stored as they are. Differences and sums are
 * modulo 2 to the 8 * value_width, so a negative base may be given as it is.
 */
#ifndef KEL_PACK_H
#define KEL_PACK_H

#include <kel.h>
#include <string.h>

#ifdef __cplusplus
extern "C" {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wold-style-cast"
#endif

/**
 * @defgroup pack_sizes Sizes
 * @{
 */

/** The width of an element of vec in bits, whatever unit its elem_width has. */
static inline uint64_t kel_element_bits(const kel_vec_t *vec)
{
    return vec->format & KEL_BITS ? vec->elem_width : (uint64_t)8 * vec->elem_width;
}

/** The least width in bits that a source may have for elements from 0 to greatest: 1 to 24, or whole bytes. A context
 * of version 1 takes whole bytes above 16. */
static inline uint32_t kel_width_for(uint64_t greatest)
{
    const uint32_t bits = greatest ? 64u - (uint32_t)__builtin_clzll(greatest) : 1u;
    return bits > 24 ? (bits + 7) / 8 * 8 : bits;
}

/** Bytes to allocate for a source, at a multiple of 8, whose elements start at bit 0: whole words of 8 bytes. If its
 * bits cannot be counted in 64 bits, a size that no allocator has. */
static inline uint64_t kel_source_size(uint64_t elements, uint64_t bits)
{
    uint64_t length;
    const int vast = __builtin_mul_overflow(elements, bits, &length) || length > UINT64_MAX - 63;
    return vast ? UINT64_MAX / 64 * 64 : (length + 63) / 64 * 8;
}

/** Bytes to allocate for a destination, at a multiple of 64: its length rounded up to 64, and 64 bytes of room. If its
 * bits cannot be counted in 64 bits, a size that no allocator has. */
static inline uint64_t kel_destination_size(uint64_t elements, uint64_t bits)
{
    const uint64_t source = kel_source_size(elements, bits);
    return source > UINT64_MAX / 8 ? source : (source + 63) / 64 * 64 + 64;
}

/** @} */

/**
 * @defgroup pack_one_field_of_a_stream One field of a stream
 * @{
 */

/** The field of 1 to 64 bits that starts at this bit of a stream. */
static inline uint64_t kel_get_field(const void *stream, uint64_t bit, uint32_t bits)
{
    const uint8_t *byte = (const uint8_t *)stream + bit / 8;
    uint64_t field = *byte & 0xffu >> bit % 8;
    uint32_t below = 8 - (uint32_t)(bit % 8); /* bits of the field's last byte that have been taken */
    uint32_t taken = below;
    for (; taken < bits; taken += below) {
        below = bits - taken < 8 ? bits - taken : 8;
        field = field << below | *++byte >> (8 - below);
    }
    return field >> (taken - bits);
}

/** Writes the low bits of field there; the other bits of the stream stay. */
static inline void kel_put_field(void *stream, uint64_t bit, uint32_t bits, uint64_t field)
{
    uint8_t *byte = (uint8_t *)stream + bit / 8;
    for (uint32_t room = 8 - (uint32_t)(bit & 7); bits > 0; room = 8, byte++) {
        const uint32_t part = bits < room ? bits : room;
        const uint32_t kept = room - part; /* bits behind the field */
        const uint32_t mask = (1u << room) - (1u << kept);
        bits -= part;
        *byte = (uint8_t)((*byte & ~mask) | ((uint32_t)(field >> bits) << kept & mask));
    }
}

/** @} */

/**
 * @defgroup pack_integers Integers
 * @{
 */

/** @cond inner loops */

/* What stands in the loops is inlined with a constant value_width, so that no loop has a test of it. */
#define KEL_PACK_INLINE static inline __attribute__((always_inline))

KEL_PACK_INLINE uint64_t kel_host_value(const void *values, size_t value_width, uint64_t at)
{
    uint64_t value = 0;
    memcpy(&value, (const uint8_t *)values + at * value_width, value_width);
    return value;
}

KEL_PACK_INLINE void kel_set_host_value(void *values, size_t value_width, uint64_t at, uint64_t value)
{
    memcpy((uint8_t *)values + at * value_width, &value, value_width);
}

/* The element that a value makes. */
KEL_PACK_INLINE uint64_t kel_element_of(const void *values, size_t value_width, uint64_t at, uint64_t base)
{
    return (kel_host_value(values, value_width, at) - base) & UINT64_MAX >> (64 - 8 * value_width);
}

/* The union of the bits of all elements that values will make. */
KEL_PACK_INLINE uint64_t kel_pack_union(const void *values, size_t value_width, uint64_t count, uint64_t base)
{
    uint64_t all = 0;
    for (uint64_t i = 0; i < count; i++)
        all |= kel_element_of(values, value_width, i, base);
    return all;
}

/* Packs elements that fill whole bytes, as eights do: they are gathered in a word, the first one on top. */
KEL_PACK_INLINE void kel_pack_bytes(uint8_t *out, uint32_t bits, uint64_t count, const void *values, size_t value_width,
                                    uint64_t base)
{
    uint64_t word = 0;
    uint32_t room = 64; /* bits of the word that are free */
    for (uint64_t i = 0; i < count; i++) {
        const uint64_t element = kel_element_of(values, value_width, i, base);
        if (bits < room) {
            room -= bits;
            word |= element << room;
            continue;
        }
        const uint32_t over = bits - room;
        word = __builtin_bswap64(word | element >> over);
        memcpy(out, &word, 8);
        out += 8;
        room = 64 - over;
        word = over ? element << room : 0;
    }
    for (; room < 64; room += 8, word <<= 8)
        *out++ = (uint8_t)(word >> 56);
}

KEL_PACK_INLINE kel_status_t kel_pack_values(const kel_vec_t *vec, uint64_t first, uint64_t count, const void *values,
                                             size_t value_width, uint64_t base)
{
    const uint32_t bits = (uint32_t)kel_element_bits(vec);
    if (bits < 64 && kel_pack_union(values, value_width, count, base) >> bits)
        return KEL_EDATASIZE;
    uint64_t bit = vec->offset + first * bits, i = 0;
    for (; i < count && bit % 8; i++, bit += bits)
        kel_put_field(vec->data, bit, bits, kel_element_of(values, value_width, i, base));
    const uint64_t eights = (count - i) / 8 * 8;
    kel_pack_bytes((uint8_t *)vec->data + bit / 8, bits, eights, (const uint8_t *)values + i * value_width, value_width,
                   base);
    for (i += eights, bit += eights * bits; i < count; i++, bit += bits)
        kel_put_field(vec->data, bit, bits, kel_element_of(values, value_width, i, base));
    return KEL_SUCCESS;
}

KEL_PACK_INLINE kel_status_t kel_unpack_values(const kel_vec_t *vec, uint64_t first, uint64_t count, void *values,
                                               size_t value_width, uint64_t base)
{
    const uint32_t bits = (uint32_t)kel_element_bits(vec);
    uint64_t bit = vec->offset + first * bits, i = 0;
    const uint64_t bytes = (bit + count * bits) / 8; /* whole ones, up to the end */
    const uint8_t *data = (const uint8_t *)vec->data;
    for (; i < count && bit / 8 + 9 <= bytes; i++, bit += bits) {
        uint64_t word;
        memcpy(&word, data + bit / 8, 8);
        word = __builtin_bswap64(word) << bit % 8;
        if (bits > 57)
            word |= (uint64_t)data[bit / 8 + 8] >> (8 - bit % 8);
        kel_set_host_value(values, value_width, i, (word >> (64 - bits)) + base);
    }
    for (; i < count; i++, bit += bits)
        kel_set_host_value(values, value_width, i, kel_get_field(data, bit, bits) + base);
    return KEL_SUCCESS;
}

/* Whether elements first to first + count - 1 of vec are integers of up to 64 bits. */
static inline int kel_has_integers(const kel_vec_t *vec, uint64_t first, uint64_t count)
{
    const uint64_t bits = kel_element_bits(vec);
    return !(vec->format & (KEL_VAR | KEL_ZIP)) && bits >= 1 && bits <= 64 && first <= vec->elements &&
           count <= vec->elements - first && (vec->data || count == 0);
}

/** @endcond */

/**
 * Packs count values into vec, from its element number first on. vec: KEL_BYTES or KEL_BITS, also with KEL_RLE (the
 * stored elements), of up to 64 bits.
 *
 * KEL_SUCCESS; KEL_EINVAL: another vector, elements or data that vec does not have, or no such value_width;
 * KEL_EDATASIZE: an element is too narrow for its value. After a failure nothing has been written.
 */
static inline kel_status_t kel_pack(const kel_vec_t *vec, uint64_t first, uint64_t count, const void *values,
                                    size_t value_width, uint64_t base)
{
    if (!kel_has_integers(vec, first, count))
        return KEL_EINVAL;
    switch (value_width) {
    case 1:
        return kel_pack_values(vec, first, count, values, 1, base);
    case 2:
        return kel_pack_values(vec, first, count, values, 2, base);
    case 4:
        return kel_pack_values(vec, first, count, values, 4, base);
    case 8:
        return kel_pack_values(vec, first, count, values, 8, base);
    default:
        return KEL_EINVAL;
    }
}

/**
 * Reads count elements of vec, from number first on, and adds base to each: numbers that a select or an extract wrote,
 * indexes of a list, bits. vec: as for kel_pack.
 *
 * KEL_SUCCESS; KEL_EINVAL: as kel_pack; KEL_EDATASIZE: vec has elements of more bits than values has. After a failure
 * nothing has been written.
 */
static inline kel_status_t kel_unpack(const kel_vec_t *vec, uint64_t first, uint64_t count, void *values,
                                      size_t value_width, uint64_t base)
{
    if (!kel_has_integers(vec, first, count))
        return KEL_EINVAL;
    if (kel_element_bits(vec) > 8 * value_width)
        return KEL_EDATASIZE;
    switch (value_width) {
    case 1:
        return kel_unpack_values(vec, first, count, values, 1, base);
    case 2:
        return kel_unpack_values(vec, first, count, values, 2, base);
    case 4:
        return kel_unpack_values(vec, first, count, values, 4, base);
    case 8:
        return kel_unpack_values(vec, first, count, values, 8, base);
    default:
        return KEL_EINVAL;
    }
}

/** @} */

/**
 * @defgroup pack_runs_and_texts Runs and texts
 * @{
 */

/** @cond aux elements */

/* The greatest number that an aux element of vec stands for. */
static inline uint64_t kel_longest(const kel_vec_t *vec)
{
    return (UINT64_C(1) << vec->aux_width) - (vec->format & KEL_ADD_ONE ? 0 : 1);
}

static inline int kel_has_aux(const kel_vec_t *vec)
{
    const uint32_t width = vec->aux_width;
    return vec->aux_data && (width == 1 || width == 2 || width == 4 || width == 8);
}

/* Writes the run or length of element number at. */
static inline void kel_put_aux(const kel_vec_t *vec, uint64_t at, uint64_t number)
{
    const uint64_t stored = number - (vec->format & KEL_ADD_ONE ? 1 : 0);
    kel_put_field(vec->aux_data, vec->aux_offset + at * vec->aux_width, vec->aux_width, stored);
}

/** @endcond */

/**
 * Packs count values into vec as runs of equal ones. vec: KEL_RLE, with KEL_BYTES or KEL_BITS, of up to 64 bits;
 * vec->elements says for how many stored elements its buffers have room, count being always enough, and becomes the
 * number of those that were stored.
 *
 * KEL_SUCCESS; KEL_EINVAL: as kel_pack, or no KEL_RLE, no aux_data, or an aux_width that does not exist;
 * KEL_EDATASIZE: an element is too narrow for its value; KEL_EOVERFLOW: there are more runs than room. After a failure
 * vec->elements is untouched; the buffers hold the runs before the failing one.
 */
static inline kel_status_t kel_pack_runs(kel_vec_t *vec, uint64_t count, const void *values, size_t value_width,
                                         uint64_t base)
{
    if (!(vec->format & KEL_RLE) || !kel_has_aux(vec) || kel_pack(vec, 0, 0, values, value_width, base) != KEL_SUCCESS)
        return KEL_EINVAL;
    const uint8_t *at = (const uint8_t *)values;
    uint64_t stored = 0;
    for (uint64_t left = count; left > 0; stored++) {
        uint64_t run = 1;
        while (run < left && run < kel_longest(vec) && memcmp(at, at + run * value_width, value_width) == 0)
            run++;
        if (stored == vec->elements)
            return KEL_EOVERFLOW;
        const kel_status_t status = kel_pack(vec, stored, 1, at, value_width, base);
        if (status != KEL_SUCCESS)
            return status;
        kel_put_aux(vec, stored, run);
        at += run * value_width;
        left -= run;
    }
    vec->elements = stored;
    return KEL_SUCCESS;
}

/**
 * Appends a text, which is any bytes, to vec, whose streams start at bit 0, and counts it in vec->elements. *size is
 * the number of bytes in data so far; it grows by those of the text. vec: KEL_VAR, texts of at least one byte, the
 * longest being the least of 16, what an aux element can stand for, and 15 without KEL_ADD_ONE; or KEL_BYTES, texts of
 * up to elem_width bytes, with zero bytes behind. The buffers must have room for one text more. A KEL_VAR vector is
 * encoded (kel_encode) as what kel_text_bytes makes of it.
 *
 * KEL_SUCCESS; KEL_EINVAL: another vector, or one without data or aux_data; KEL_EDATASIZE: the text is too long, or has
 * no byte in a KEL_VAR vector. After a failure nothing has been written or counted.
 */
static inline kel_status_t kel_append_text(kel_vec_t *vec, uint64_t *size, const void *text, size_t length)
{
    const uint64_t format = vec->format & ~KEL_ADD_ONE;
    size_t width = vec->elem_width;
    if (!vec->data || ((format != KEL_VAR || !kel_has_aux(vec)) && format != KEL_BYTES))
        return KEL_EINVAL;
    if (format == KEL_VAR) {
        const size_t longest = vec->format & KEL_ADD_ONE ? 16 : 15;
        if (length < 1 || length > longest || length > kel_longest(vec))
            return KEL_EDATASIZE;
        kel_put_aux(vec, vec->elements, length);
        width = length;
    } else if (length > width) {
        return KEL_EDATASIZE;
    }
    uint8_t *data = (uint8_t *)vec->data + *size;
    if (length > 0)
        memcpy(data, text, length);
    memset(data + length, 0, width - length);
    vec->elements++;
    *size += width;
    return KEL_SUCCESS;
}

/** The texts of vec, of size bytes together, as a vector of single bytes. kel_encode counts the bytes of any source as
 * elements times elem_width, which for KEL_VAR is not their number: this is the source that has them all. */
static inline kel_vec_t kel_text_bytes(const kel_vec_t *vec, uint64_t size)
{
    const kel_vec_t bytes = {KEL_BYTES, size, vec->data, 1, 0, 0, 0, NULL, NULL, 0};
    return bytes;
}

/** The text in element number at of a KEL_BYTES vector, less zero bytes at its end, such as KEL_PAD leaves there. It
 * stays in the vector's buffer; *text becomes its first byte. The length in bytes; 0 if vec has no data. */
static inline size_t kel_text_at(const kel_vec_t *vec, uint64_t at, const char **text)
{
    size_t length = vec->elem_width;
    *text = "";
    if (!vec->data)
        return 0;
    *text = (const char *)vec->data + at * length;
    while (length > 0 && (*text)[length - 1] == 0)
        length--;
    return length;
}

/** @} */

#undef KEL_PACK_INLINE

#ifdef __cplusplus
#pragma GCC diagnostic pop
}
#endif

#endif
