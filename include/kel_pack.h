/**
 * @file
 * The client's side of a column: packs integers and texts of the host into vectors, and reads results back.
 *
 * A companion of kel.h for C11 and C++, complete in this header: the functions are inline, need no library and no
 * context (but for kel_unpack_selected), allocate nothing, and keep nothing. A vector is described as for kel.h; its buffers are the caller's, and
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

/** @cond inner loops
 *
 * Values are handled in words of the host: a lane of a word is a value, the first one the lowest. Joining the lanes
 * makes one field of their elements, the first one on top, and splitting a field makes lanes of it, so that a stream is
 * written and read by fields of several elements. What stands in the loops is inlined with a constant width of lanes,
 * so that no loop has a test of it; steps go over a batch each on its own, so that compilers can make vector
 * instructions of them. */

#define KEL_PACK_INLINE static inline __attribute__((always_inline))

#define KEL_PACK_BATCH 64   /* words */
#define KEL_PACK_BLOCK 2048 /* elements; a multiple of 512, so that a slice of blocks is aligned as the whole */

/* The lowest bits, of which there is at least one. */
KEL_PACK_INLINE uint64_t kel_ones(uint32_t bits)
{
    return UINT64_MAX >> (64 - bits);
}

/* A number in every lane of so many bits. */
KEL_PACK_INLINE uint64_t kel_in_lanes(uint32_t lane, uint64_t number)
{
    return UINT64_MAX / kel_ones(lane) * (number & kel_ones(lane));
}

/* The sums of lanes. Their top bits are added on their own, so that nothing is carried to the next lane. */
KEL_PACK_INLINE uint64_t kel_add_lanes(uint64_t word, uint32_t lane, uint64_t term)
{
    const uint64_t tops = kel_in_lanes(lane, UINT64_C(1) << (lane - 1));
    if (lane == 64)
        return word + term;
    return term ? ((word & ~tops) + (term & ~tops)) ^ ((word ^ term) & tops) : word;
}

/* Two neighbours, numbers of so many bits in lanes, to one number, the first one on top; and back. */
KEL_PACK_INLINE uint64_t kel_join_pairs(uint64_t word, uint32_t lane, uint32_t bits)
{
    const uint64_t first = kel_in_lanes(2 * lane, kel_ones(lane));
    return (word & first) << bits | (word >> lane & first);
}

KEL_PACK_INLINE uint64_t kel_split_pairs(uint64_t word, uint32_t lane, uint32_t bits)
{
    const uint64_t second = kel_in_lanes(2 * lane, kel_ones(bits));
    return (word >> bits & second) | (word & second) << lane;
}

KEL_PACK_INLINE uint64_t kel_join_lanes(uint64_t word, uint32_t lane, uint32_t bits)
{
    if (lane == 64)
        return word & kel_ones(bits); /* without effect, but a plain copy becomes a slow instruction */
    if (lane <= 8)
        word = kel_join_pairs(word, 8, bits);
    if (lane <= 16)
        word = kel_join_pairs(word, 16, 16 / lane * bits);
    return kel_join_pairs(word, 32, 32 / lane * bits);
}

/* Bits above the field are left out. */
KEL_PACK_INLINE uint64_t kel_split_lanes(uint64_t word, uint32_t lane, uint32_t bits)
{
    if (lane == 64)
        return word & kel_ones(bits);
    word = kel_split_pairs(word, 32, 32 / lane * bits);
    if (lane <= 16)
        word = kel_split_pairs(word, 16, 16 / lane * bits);
    return lane <= 8 ? kel_split_pairs(word, 8, bits) : word;
}

/* A value, or a word of them. */
KEL_PACK_INLINE uint64_t kel_load_value(const uint8_t *from, size_t width)
{
    uint64_t value = 0;
    memcpy(&value, from, width);
    return value;
}

/* Values to elements of their width, or back: a number is added before and after the bytes are put in the opposite
 * order. */
KEL_PACK_INLINE void kel_swap_values(uint8_t *to, const uint8_t *from, uint64_t count, uint32_t lane, uint64_t before,
                                     uint64_t after)
{
    uint16_t two;
    uint32_t four;
    uint64_t eight;
    for (const uint8_t *end = from + count * lane / 8; from != end; from += lane / 8, to += lane / 8)
        switch (lane) {
        case 8:
            *to = (uint8_t)(*from + before + after);
            break;
        case 16:
            memcpy(&two, from, 2);
            two = (uint16_t)(__builtin_bswap16((uint16_t)(two + before)) + after);
            memcpy(to, &two, 2);
            break;
        case 32:
            memcpy(&four, from, 4);
            four = (uint32_t)(__builtin_bswap32((uint32_t)(four + before)) + after);
            memcpy(to, &four, 4);
            break;
        default:
            memcpy(&eight, from, 8);
            eight = __builtin_bswap64(eight + before) + after;
            memcpy(to, &eight, 8);
        }
}

/* A stream that is written: the word behind its bytes has so many free bits, the lowest ones. */
typedef struct {
    uint8_t *out;
    uint64_t word;
    uint32_t room;
} kel_stream_t;

static inline kel_stream_t kel_open_stream(void *data, uint64_t bit)
{
    kel_stream_t stream = {(uint8_t *)data + bit / 8, 0, 64 - (uint32_t)(bit % 8)};
    if (bit % 8)
        stream.word = (uint64_t)(*stream.out & (0xff00u >> bit % 8)) << 56;
    return stream;
}

static inline void kel_flush_bytes(kel_stream_t *to)
{
    for (; to->room <= 56; to->room += 8, to->word <<= 8)
        *to->out++ = (uint8_t)(to->word >> 56);
}

static inline void kel_close_stream(kel_stream_t *to)
{
    kel_flush_bytes(to);
    if (to->room < 64)
        *to->out = (uint8_t)(to->word >> 56 | (*to->out & 0xffu >> (64 - to->room)));
}

KEL_PACK_INLINE void kel_put_word(uint8_t *to, uint64_t word)
{
    word = __builtin_bswap64(word);
    memcpy(to, &word, 8);
}

static inline void kel_append_fields(kel_stream_t *stream, const uint64_t *fields, uint64_t n, uint32_t bits)
{
    kel_stream_t to = *stream;
    const uint64_t *end = fields + n;
    if (bits % 8 == 0 && to.room % 8 == 0) /* whole bytes: a word may pass the field's end if the next ones go there */
        for (kel_flush_bytes(&to); (uint64_t)(end - fields) * bits >= 64; fields++, to.out += bits / 8)
            kel_put_word(to.out, *fields << (64 - bits));
    for (; fields != end; fields++) {
        if (bits < to.room) {
            to.room -= bits;
            to.word |= *fields << to.room;
            continue;
        }
        const uint32_t over = bits - to.room;
        kel_put_word(to.out, to.word | *fields >> over);
        to.out += 8;
        to.room = 64 - over;
        to.word = over ? *fields << to.room : 0;
    }
    *stream = to;
}

/* Whether all values make elements of so many bits. */
KEL_PACK_INLINE int kel_values_fit(const uint8_t *values, uint64_t count, uint32_t lane, uint64_t base, uint32_t bits)
{
    const uint64_t size = count * lane / 8, term = kel_in_lanes(lane, -base);
    uint64_t all = 0, at = 0;
    if (bits >= lane)
        return 1;
    for (; at + 8 <= size; at += 8)
        all |= kel_add_lanes(kel_load_value(values + at, 8), lane, term);
    for (; at < size; at += lane / 8)
        all |= (kel_load_value(values + at, lane / 8) - base) & kel_ones(lane);
    return !(all & ~kel_in_lanes(lane, kel_ones(bits)));
}

KEL_PACK_INLINE kel_status_t kel_pack_values(const kel_vec_t *vec, uint64_t first, uint64_t count, const void *values,
                                             uint32_t lane, uint64_t base)
{
    const uint32_t bits = (uint32_t)kel_element_bits(vec), in_word = 64 / lane;
    const uint64_t bit = vec->offset + first * bits, term = kel_in_lanes(lane, -base);
    uint64_t words = count / in_word, more = count % in_word;
    const uint8_t *from = (const uint8_t *)values;
    if (count == 0)
        return KEL_SUCCESS;
    __asm__("" : "+r"(from)); /* a compiler that sees a short array warns of loads that are not reached */
    if (!kel_values_fit(from, count, lane, base, bits))
        return KEL_EDATASIZE;
    if (bits == lane && bit % 8 == 0) {
        kel_swap_values((uint8_t *)vec->data + bit / 8, from, count, lane, -base, 0);
        return KEL_SUCCESS;
    }
    if (bits > lane) { /* elements that have no room in a lane */
        more = count;
        words = 0;
    }
    kel_stream_t stream = kel_open_stream(vec->data, bit);
    uint64_t batch[KEL_PACK_BATCH];
    for (uint64_t n; words > 0; words -= n, from += 8 * n) {
        n = words < KEL_PACK_BATCH ? words : KEL_PACK_BATCH;
        for (uint64_t i = 0; i < n; i++)
            batch[i] = kel_join_lanes(kel_add_lanes(kel_load_value(from + 8 * i, 8), lane, term), lane, bits);
        kel_append_fields(&stream, batch, n, in_word * bits);
    }
    for (; more > 0; more--, from += lane / 8) {
        const uint64_t element = (kel_load_value(from, lane / 8) - base) & kel_ones(lane);
        kel_append_fields(&stream, &element, 1, bits);
    }
    kel_close_stream(&stream);
    return KEL_SUCCESS;
}

/* The field at bit shift of a byte, with bits of the stream above it. Nine bytes may be read. */
KEL_PACK_INLINE uint64_t kel_load_field(const uint8_t *from, uint32_t shift, uint32_t bits)
{
    const uint64_t word = __builtin_bswap64(kel_load_value(from, 8));
    return shift + bits <= 64 ? word >> (64 - shift - bits)
                              : word << (shift + bits - 64) | from[8] >> (72 - shift - bits);
}

/* Reads fields of in_word elements from a bit of the stream on, which has end bytes. Eight elements take as many bytes
 * as one has bits, so that fields of one place among the eight have one shift. */
static inline void kel_read_fields(uint64_t *fields, uint64_t n, const uint8_t *data, uint64_t bit, uint64_t end,
                                   uint32_t bits, uint32_t in_word)
{
    const uint32_t in_eight = 8 / in_word, field_bits = in_word * bits;
    uint64_t loadable = n / in_eight * in_eight;
    while (loadable > 0 && (bit + (loadable - 1) * field_bits) / 8 + 9 > end)
        loadable -= in_eight;
    for (uint64_t place = 0; place < in_eight; place++) {
        const uint64_t start = bit + place * field_bits;
        const uint8_t *from = data + start / 8;
        for (uint64_t i = place; i < loadable; i += in_eight, from += bits)
            fields[i] = kel_load_field(from, start % 8, field_bits);
    }
    for (uint64_t i = loadable; i < n; i++)
        fields[i] = kel_get_field(data, bit + i * field_bits, field_bits);
}

KEL_PACK_INLINE kel_status_t kel_unpack_values(const kel_vec_t *vec, uint64_t first, uint64_t count, void *values,
                                               uint32_t lane, uint64_t base)
{
    const uint32_t bits = (uint32_t)kel_element_bits(vec), in_word = 64 / lane;
    const uint8_t *data = (const uint8_t *)vec->data;
    uint64_t bit = vec->offset + first * bits;
    const uint64_t end = (bit + count * bits) / 8, term = kel_in_lanes(lane, base);
    uint8_t *to = (uint8_t *)values;
    if (bits == lane && bit % 8 == 0) {
        if (count > 0)
            kel_swap_values(to, data + bit / 8, count, lane, 0, base);
        return KEL_SUCCESS;
    }
    uint64_t batch[KEL_PACK_BATCH];
    for (uint64_t words = count / in_word, n; words > 0; words -= n, bit += n * in_word * bits) {
        n = words < KEL_PACK_BATCH ? words : KEL_PACK_BATCH;
        kel_read_fields(batch, n, data, bit, end, bits, in_word);
        for (uint64_t i = 0; i < n; i++, to += 8) {
            const uint64_t word = kel_add_lanes(kel_split_lanes(batch[i], lane, bits), lane, term);
            memcpy(to, &word, 8);
        }
    }
    for (uint64_t more = count % in_word; more > 0; more--, bit += bits, to += lane / 8) {
        const uint64_t value = kel_get_field(data, bit, bits) + base;
        memcpy(to, &value, lane / 8);
    }
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
        return kel_pack_values(vec, first, count, values, 8, base);
    case 2:
        return kel_pack_values(vec, first, count, values, 16, base);
    case 4:
        return kel_pack_values(vec, first, count, values, 32, base);
    case 8:
        return kel_pack_values(vec, first, count, values, 64, base);
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
        return kel_unpack_values(vec, first, count, values, 8, base);
    case 2:
        return kel_unpack_values(vec, first, count, values, 16, base);
    case 4:
        return kel_unpack_values(vec, first, count, values, 32, base);
    case 8:
        return kel_unpack_values(vec, first, count, values, 64, base);
    default:
        return KEL_EINVAL;
    }
}

/**
 * Reads the elements of src whose bit in mask is 1, and adds base to each: a kel_select whose result goes to an array
 * of the host without a pass over memory. It makes a kel_select of each 2,048 elements, with KEL_DEBUG_EXTRA, log
 * lines and counters as each of them has, and 16 KB of the stack. src: as for kel_pack, but for KEL_RLE. mask: as for
 * kel_select. room: how many values there is room for; count: how many have been written.
 *
 * KEL_EINVAL, KEL_EDATASIZE: as kel_unpack, or mask has fewer elements than src; KEL_EOVERFLOW: more than room are
 * selected, and values has the first ones; or what kel_select answers. After another failure nothing has been written.
 */
static inline kel_result_t kel_unpack_selected(kel_context_t *ctx, const kel_vec_t *src, const kel_vec_t *mask,
                                               void *values, uint64_t room, size_t value_width, uint64_t base)
{
    uint8_t selected[8 * KEL_PACK_BLOCK + 64] __attribute__((aligned(64)));
    const kel_vec_t dst = {KEL_BYTES, KEL_PACK_BLOCK, selected, (uint32_t)value_width, 0, 0, 0, NULL, NULL, 0};
    kel_vec_t part = *src, bits = *mask;
    kel_result_t result = {kel_unpack(&part, 0, 0, values, value_width, base), 0, 0};
    if (result.status == KEL_SUCCESS && (src->format & KEL_RLE || mask->elements < src->elements))
        result.status = KEL_EINVAL;
    for (uint64_t first = 0; result.status == KEL_SUCCESS && first < src->elements; first += KEL_PACK_BLOCK) {
        part.elements = bits.elements = src->elements - first < KEL_PACK_BLOCK ? src->elements - first : KEL_PACK_BLOCK;
        part.data = (uint8_t *)src->data + first / 8 * kel_element_bits(src);
        bits.data = (uint8_t *)mask->data + first / 8;
        const kel_result_t some = kel_select(ctx, 0, &part, &dst, &bits);
        const uint64_t fitting = some.count < room - result.count ? some.count : room - result.count;
        result.status = fitting < some.count ? KEL_EOVERFLOW : some.status;
        (void)kel_unpack(&dst, 0, fitting, (uint8_t *)values + result.count * value_width, value_width, base);
        result.count += fitting;
    }
    return result;
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

#undef KEL_PACK_BATCH
#undef KEL_PACK_BLOCK
#undef KEL_PACK_INLINE

#ifdef __cplusplus
#pragma GCC diagnostic pop
}
#endif

#endif
