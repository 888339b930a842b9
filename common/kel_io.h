// Bit streams: the layout of every vector, and the readers and writers of it.
//
// Bit 0 of a stream is the most significant bit of its first byte; the first bit of a field is the field's most
// significant one. Memory is touched in 8-byte words, which are byte-reversed on their way to and from a register.
// Nothing here checks a bound: a reader touches the aligned word that holds the last bit that it is asked for and
// nothing behind, a writer whole words.
//
// Shift counts are taken modulo the word's width, as the processor does (kel_shl, kel_shr): several results for
// unusual widths rest on that.
#pragma once

#include "kel.h"
#include "kel_processor.h"
#include <bit>
#include <cstring>

typedef unsigned long ulong_t;

// ---- Words ----------------------------------------------------------------------------------------------------------

inline uint64_t kel_shl(uint64_t word, uint64_t bits)
{
    return word << (bits & 63);
}

inline uint64_t kel_shr(uint64_t word, uint64_t bits)
{
    return word >> (bits & 63);
}

inline uint64_t revbytes64(uint64_t word)
{
    return __builtin_bswap64(word);
}

// The order of a word's bits reversed.
inline uint64_t reverse_bits(uint64_t word)
{
    const auto swap = [&](unsigned distance, uint64_t low) {
        word = (word & low) << distance | (word >> distance & low);
    };
    swap(1, 0x5555555555555555);
    swap(2, 0x3333333333333333);
    swap(4, 0x0f0f0f0f0f0f0f0f);
    return revbytes64(word);
}

inline uint32_t revbytes32(uint32_t word)
{
    return __builtin_bswap32(word);
}

inline uint16_t revbytes16(uint16_t word)
{
    return __builtin_bswap16(word);
}

inline uint8_t revbytes(uint8_t word)
{
    return word;
}
inline uint16_t revbytes(uint16_t word)
{
    return revbytes16(word);
}
inline uint32_t revbytes(uint32_t word)
{
    return revbytes32(word);
}
inline uint64_t revbytes(uint64_t word)
{
    return revbytes64(word);
}

// A big-endian word at any address.
template <class Word>
inline Word kel_load_be(const void *address)
{
    Word word;
    memcpy(&word, address, sizeof word);
    return revbytes(word);
}

template <class Word>
inline void kel_store_be(void *address, Word word)
{
    word = revbytes(word);
    memcpy(address, &word, sizeof word);
}

// R of a width: bits rounded up to whole bytes.
inline uint64_t kel_round_bits(uint64_t bits)
{
    return (bits + 7) & ~uint64_t{7};
}

// Without a population count, which is a call where the processor's instruction is not assumed.
inline bool kel_power_of_two(uint64_t value)
{
    return value != 0 && (value & (value - 1)) == 0;
}

template <class T>
inline T *kel_align_up(T *address, uintptr_t unit)
{
    const auto value = reinterpret_cast<uintptr_t>(address);
    return reinterpret_cast<T *>((value + unit - 1) & ~(unit - 1));
}

// Bytes from an address up to the next multiple of a power of two.
inline uint64_t kel_distance_to(uint64_t unit, const void *address)
{
    return -reinterpret_cast<uintptr_t>(address) & (unit - 1);
}

// Values of 128 and 256 bits, the most significant word first, right-justified.
typedef struct {
    uint64_t hi;
    uint64_t lo;
} qword_t;

typedef struct {
    uint64_t dw[4];
} oword_t;

inline qword_t qword_lshift(qword_t v, ulong_t n)
{
    if (n >= 64)
        return {kel_shl(v.lo, n - 64), 0};
    return n == 0 ? v : qword_t{v.hi << n | v.lo >> (64 - n), v.lo << n};
}

inline qword_t qword_rshift(qword_t v, ulong_t n)
{
    if (n >= 64)
        return {0, kel_shr(v.hi, n - 64)};
    return n == 0 ? v : qword_t{v.hi >> n, v.lo >> n | v.hi << (64 - n)};
}

inline oword_t oword_lshift(oword_t v, ulong_t n)
{
    const unsigned words = n < 192 ? static_cast<unsigned>(n / 64) : 3;
    const ulong_t bits = (n - 64 * words) & 63;
    oword_t shifted = {};
    for (unsigned i = 0; i + words < 4; i++) {
        const uint64_t carried = i + words + 1 < 4 && bits != 0 ? v.dw[i + words + 1] >> (64 - bits) : 0;
        shifted.dw[i] = v.dw[i + words] << bits | carried;
    }
    return shifted;
}

inline oword_t oword_rshift(oword_t v, ulong_t n)
{
    const unsigned words = n < 192 ? static_cast<unsigned>(n / 64) : 3;
    const ulong_t bits = (n - 64 * words) & 63;
    oword_t shifted = {};
    for (unsigned i = words; i < 4; i++) {
        const uint64_t carried = i > words && bits != 0 ? v.dw[i - words - 1] << (64 - bits) : 0;
        shifted.dw[i] = v.dw[i - words] >> bits | carried;
    }
    return shifted;
}

inline int dword_cmp(uint64_t a, uint64_t b)
{
    return (a > b) - (a < b);
}

inline int qword_cmp(qword_t a, qword_t b)
{
    return a.hi != b.hi ? dword_cmp(a.hi, b.hi) : dword_cmp(a.lo, b.lo);
}

inline int oword_cmp(oword_t a, oword_t b)
{
    for (unsigned i = 0; i < 3; i++)
        if (a.dw[i] != b.dw[i])
            return dword_cmp(a.dw[i], b.dw[i]);
    return dword_cmp(a.dw[3], b.dw[3]);
}

inline int byte_cmp(const void *a, const void *b, size_t n)
{
    const int order = n == 0 ? 0 : memcmp(a, b, n);
    return (order > 0) - (order < 0);
}

inline qword_t qword_add_dword(qword_t v, int64_t n)
{
    const uint64_t lo = v.lo + static_cast<uint64_t>(n);
    return {v.hi + (lo < v.lo), lo};
}

inline qword_t qword_sub_dword(qword_t v, int64_t n)
{
    const uint64_t lo = v.lo - static_cast<uint64_t>(n);
    return {v.hi - (lo > v.lo), lo};
}

// ---- Reader ---------------------------------------------------------------------------------------------------------

typedef struct {
    uint64_t cache;       // unread bits, left-justified; zero below the top cache_bits, but after a 64-bit read
    uint64_t *buf;        // the next word to load; in direct mode the next byte to hand out
    uint64_t cache_bits;  // valid bits in cache
    uint64_t cache_flags; // bit 0: reads go through cache; clear: direct mode, for kelio_get_bits_ptr alone
    uint64_t val;         // what kelio_get_bits_ptr points to in cached mode
} kel_input_t;

void kelio_bits_init(const void *data, unsigned offset, uint64_t **buf, uint64_t *cache, uint64_t *cache_bits);

inline void kelio_buf_input(const void *data, unsigned offset, kel_input_t *in)
{
    kelio_bits_init(data, offset, &in->buf, &in->cache, &in->cache_bits);
    in->cache_flags = 1;
    in->val = 0;
}

inline void kelio_nocache_input(const void *data, kel_input_t *in)
{
    *in = {0, static_cast<uint64_t *>(const_cast<void *>(data)), 0, 0, 0};
}

// data is the vector's own or its expanded copy, to which the offset of a compressed stream does not apply.
inline void kelio_vec_input(kel_context_t *, const kel_vec_t *vec, const void *data, int cached, kel_input_t *in)
{
    if (cached)
        kelio_buf_input(data, vec->format & KEL_ZIP ? 0 : vec->offset, in);
    else
        kelio_nocache_input(data, in);
}

inline void kelio_aux_input(const kel_vec_t *vec, kel_input_t *in)
{
    kelio_buf_input(vec->aux_data, vec->aux_offset, in);
}

// The next bits, right-justified. 0 bits give the whole cache and consume nothing.
inline uint64_t kelio_get_bits(kel_input_t *in, ulong_t bits)
{
    uint64_t high = 0;
    uint64_t rest = bits;
    if (in->cache_bits < bits) {
        rest = bits - in->cache_bits;
        if (in->cache_bits != 0)
            high = kel_shl(kel_shr(in->cache, 64 - in->cache_bits), rest);
        in->cache = kel_load_be<uint64_t>(in->buf);
        in->buf++;
        in->cache_bits = 64;
    }
    const uint64_t low = kel_shr(in->cache, 64 - rest);
    in->cache = kel_shl(in->cache, rest);
    in->cache_bits -= rest;
    return high | low;
}

inline uint64_t kelio_aux_get(kel_input_t *in, ulong_t bits)
{
    return kelio_get_bits(in, bits);
}

inline uint64_t kelio_get_dword(kel_input_t *in, ulong_t bits)
{
    return kelio_get_bits(in, bits);
}

inline qword_t kelio_get_qword(kel_input_t *in, ulong_t bits)
{
    if (bits <= 64)
        return {0, kelio_get_bits(in, bits)};
    const uint64_t hi = kelio_get_bits(in, bits - 64);
    return {hi, kelio_get_bits(in, 64)};
}

inline oword_t kelio_get_oword(kel_input_t *in, ulong_t bits)
{
    oword_t v = {};
    unsigned word = bits > 192 ? 0 : bits > 128 ? 1 : bits > 64 ? 2 : 3;
    v.dw[word] = kelio_get_bits(in, bits - 64 * (3 - word));
    while (++word < 4)
        v.dw[word] = kelio_get_bits(in, 64);
    return v;
}

// The next bits as bytes, valid until the next call. In cached mode the field stands at the end of the 8 bytes of val,
// behind leading zeros, and of a field of more than 64 bits only the last 64 are there.
inline uint8_t *kelio_get_bits_ptr(kel_input_t *in, ulong_t bits)
{
    if (!(in->cache_flags & 1)) {
        auto *bytes = reinterpret_cast<uint8_t *>(in->buf);
        in->buf = reinterpret_cast<uint64_t *>(bytes + bits / 8);
        return bytes;
    }
    while (bits > 64) {
        const ulong_t dropped = bits < 128 ? bits - 64 : 64;
        kelio_get_bits(in, dropped);
        bits -= dropped;
    }
    in->val = revbytes64(kel_shr(kelio_get_bits(in, bits), -bits & 7));
    return reinterpret_cast<uint8_t *>(&in->val);
}

// Yields a stream 64 bits at a time, by aligned loads, the last of which is of the word that holds the last wanted bit.
class stream_words
{
  public:
    stream_words(const void *data, uint64_t offset)
    {
        const auto address = reinterpret_cast<uintptr_t>(data) + offset / 64 * 8;
        next_word = reinterpret_cast<const uint64_t *>(address & ~uintptr_t{7});
        skip = offset % 64 + (address & 7) * 8;
        if (skip >= 64) {
            skip -= 64;
            next_word++;
        }
    }

    // Whether the words of the stream are words of memory.
    bool aligned() const
    {
        return skip == 0;
    }

    // The next 64 bits of the stream on top, of which the first wanted ones (1 to 64) are to be used.
    uint64_t next(uint64_t wanted)
    {
        if (aligned())
            return load();
        if (!started) {
            held = load();
            started = true;
        }
        uint64_t word = held << skip;
        if (wanted > 64 - skip) {
            held = load();
            word |= held >> (64 - skip);
        }
        return word;
    }

  private:
    static constexpr unsigned prefetch_words = 32; // how far ahead memory is asked for

    uint64_t load()
    {
        __builtin_prefetch(next_word + prefetch_words);
        return kel_load_be<uint64_t>(next_word++);
    }

    const uint64_t *next_word;
    uint64_t skip;
    uint64_t held = 0;
    bool started = false;
};

// The expansion of a compressed vector. The caller owns *buf of *size bytes, which goes back by kel_free.
//
// KEL_SUCCESS, also if the stream overran the buffer: it is cut, and the error is reported; KEL_ENOMEM; KEL_EDATAFMT: a
// bad codeword or symbol, or a stream that ends too early.
inline constexpr size_t kel_unzip_room = 8; // behind the expansion, for the last word that is stored or loaded
kel_status_t kelio_unzip(kel_context_t *ctx, const kel_vec_t *src, void **buf, size_t *size);

// ---- Writer ---------------------------------------------------------------------------------------------------------

typedef struct {
    uint64_t cache;      // bits not yet stored, left-justified
    uint64_t *buf;       // where the next whole word goes; may stand at any address
    uint64_t cache_bits; // bits in cache; up to 64, as a full word is stored when the next field arrives
} kel_output_t;

inline void kelio_buf_output(void *buf, size_t, kel_output_t *out)
{
    *out = {0, static_cast<uint64_t *>(buf), 0};
}

inline void kelio_vec_output(const kel_vec_t *vec, kel_output_t *out)
{
    kelio_buf_output(vec->data, 0, out);
}

inline void kelio_aux_output(const kel_vec_t *vec, kel_output_t *out)
{
    kelio_buf_output(vec->aux_data, 0, out);
}

inline void kelio_put_word(kel_output_t *out, uint64_t word)
{
    kel_store_be(out->buf, word);
    out->buf++;
}

inline void kelio_flush(kel_output_t *out)
{
    if (out->cache_bits == 0)
        return;
    kelio_put_word(out, out->cache);
    out->cache = 0;
    out->cache_bits = 0;
}

// Appends the low bits of val. Where the field is not split, val is not masked: higher bits land in the fields before
// it.
inline void kelio_put_bits(kel_output_t *out, uint64_t val, ulong_t bits)
{
    uint64_t free = 64 - out->cache_bits;
    if (bits > free) {
        if (free > 0) {
            out->cache |= kel_shr(val, bits - free);
            bits -= free;
            val &= kel_shr(~uint64_t{0}, 64 - bits);
        }
        out->cache_bits = 64;
        kelio_flush(out);
        free = 64;
    }
    out->cache |= kel_shl(val, free - bits);
    out->cache_bits += bits;
}

// Appends one bit, 0 or 1, and stores a word as soon as it is full. Not to be mixed with kelio_put_bits in one stream.
inline void kelio_put_bit(kel_output_t *out, uint64_t val)
{
    out->cache |= kel_shl(val, 63 - out->cache_bits);
    if (++out->cache_bits == 64)
        kelio_flush(out);
}

inline void kelio_put_bytes(kel_output_t *out, uint64_t val, size_t n)
{
    kelio_put_bits(out, val, n * 8);
}

inline void kelio_put_dword(kel_output_t *out, uint64_t val, ulong_t bits)
{
    kelio_put_bits(out, val, bits);
}

inline void kelio_put_qword(kel_output_t *out, qword_t val, ulong_t bits)
{
    if (bits > 64) {
        kelio_put_bits(out, val.hi, bits - 64);
        bits = 64;
    }
    kelio_put_bits(out, val.lo, bits);
}

inline void kelio_put_oword(kel_output_t *out, oword_t val, ulong_t bits)
{
    unsigned word = bits > 192 ? 0 : bits > 128 ? 1 : bits > 64 ? 2 : 3;
    kelio_put_bits(out, val.dw[word], bits - 64 * (3 - word));
    while (++word < 4)
        kelio_put_bits(out, val.dw[word], 64);
}

// Moves the writer on by count bytes; for a writer that is used as a byte pointer.
inline void kelio_advance(kel_output_t *out, size_t count)
{
    out->buf = reinterpret_cast<uint64_t *>(reinterpret_cast<uint8_t *>(out->buf) + count);
}

inline void kelio_put_bytes_nocache(kel_output_t *out, uint64_t val, size_t n)
{
    auto *bytes = reinterpret_cast<uint8_t *>(out->buf);
    for (size_t i = 0; i < n; i++)
        bytes[i] = static_cast<uint8_t>(kel_shr(val, 8 * (n - 1 - i)));
    kelio_advance(out, n);
}

inline size_t kelio_out_size(const kel_output_t *out, const void *start)
{
    const auto stored = reinterpret_cast<const uint8_t *>(out->buf) - static_cast<const uint8_t *>(start);
    return static_cast<size_t>(stored) + (out->cache_bits + 7) / 8;
}

inline int kelio_overflow(const kel_output_t *out, const void *end)
{
    return static_cast<const void *>(out->buf) >= end;
}

// Stores what the cache holds and pads with zeros to the next multiple of 64 bytes. KEL_EOVERFLOW, with nothing
// written, if that lies above end; a cache that is left is the caller's to flush.
int kelio_pad_output(kel_output_t *out, const void *end);

// ---- Population count -----------------------------------------------------------------------------------------------

// The processor's instruction; only where the processor has it.
KEL_POPCNT inline uint64_t popc_instruction(uint64_t v)
{
    return static_cast<uint64_t>(__builtin_popcountll(v));
}

// Set bits of v, by the processor's instruction if the caller says that it has one, else one by one.
inline uint64_t popc(uint64_t v, int have_popcnt)
{
    if (have_popcnt)
        return popc_instruction(v);
    uint64_t count = 0;
    for (; v != 0; v >>= 1)
        count += v & 1;
    return count;
}

// Set bits of n words, for the data path: by the instruction where the processor has it, else by word arithmetic.
uint64_t popc_words(const uint64_t *words, size_t n);
uint64_t popc_words_parallel(const uint64_t *words, size_t n);
