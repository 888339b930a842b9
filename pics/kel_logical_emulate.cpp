// And, or, xor of bit vectors, sixteen bytes at a time, in registers that every processor has.
//
// A source with an offset o is a stream of bytes: the bits of a byte from bit o up, then the low o bits of the byte
// behind it. On a little-endian processor that is what a shift of whole words does: a word of the stream is two loads,
// one byte apart, two shifts and an OR. Nothing is loaded that holds no bit of the stream.
#include "kel_init.h"
#include "kel_io.h"
#include "kel_logical.h"

static_assert(std::endian::native == std::endian::little);

namespace
{

// Two words that are shifted and joined at once.
typedef uint64_t two_words_t __attribute__((vector_size(16)));

template <class Word>
inline Word load_word(const uint8_t *address)
{
    Word word;
    memcpy(&word, address, sizeof word);
    return word;
}

// A source as a stream of bytes, and of words at any byte.
struct source_bytes {
    const uint8_t *data;
    unsigned offset;

    uint64_t operator[](uint64_t j) const
    {
        if (offset == 0)
            return data[j];
        return static_cast<uint8_t>(kel_shr(data[j], offset) | kel_shl(data[j + 1], 8 - offset));
    }

    template <bool shifted, class Word>
    Word word(uint64_t j) const
    {
        if constexpr (!shifted)
            return load_word<Word>(data + j);
        return load_word<Word>(data + j) >> uint64_t{offset} | load_word<Word>(data + j + 1) << uint64_t{8 - offset};
    }
};

// What is done to each pair of words: the second one is complemented, the two are joined, the result is complemented.
struct operation_t {
    uint64_t invert_src; // all ones or zeros
    uint64_t invert;
};

template <int op, class Word>
inline Word join(Word a, Word b)
{
    if constexpr (op == kel_op_and)
        return a & b;
    else if constexpr (op == kel_op_or)
        return a | b;
    else
        return a ^ b;
}

inline uint64_t popc_parallel(uint64_t word)
{
    return popc_words_parallel(&word, 1);
}

template <bool popcnt>
[[gnu::always_inline]] inline uint64_t ones_of(uint64_t word)
{
    return popcnt ? static_cast<uint64_t>(__builtin_popcountll(word)) : popc_parallel(word);
}

template <bool popcnt>
[[gnu::always_inline]] inline uint64_t ones_of(two_words_t words)
{
    return ones_of<popcnt>(words[0]) + ones_of<popcnt>(words[1]);
}

// Writes n words and answers the number of their ones.
template <int op, bool shifted1, bool shifted2, bool popcnt>
[[gnu::always_inline]] inline uint64_t logical_words(const operation_t &operation, const source_bytes &src1,
                                                     const source_bytes &src2, uint8_t *dst, uint64_t n)
{
    constexpr unsigned line = 64, ahead = 4 * line; // bytes
    const uint64_t invert_src = operation.invert_src, invert = operation.invert;
    const auto make = [=]<class Word>(uint64_t j, Word) {
        const Word b = src2.word<shifted2, Word>(j) ^ invert_src;
        const Word word = join<op>(src1.word<shifted1, Word>(j), b) ^ invert;
        memcpy(dst + j, &word, sizeof word);
        return ones_of<popcnt>(word);
    };
    uint64_t j = 0;
    uint64_t count = 0;
    for (; j + line <= 8 * n; j += line) {
        __builtin_prefetch(src1.data + j + ahead);
#pragma GCC unroll 4
        for (unsigned i = 0; i < line; i += sizeof(two_words_t))
            count += make(j + i, two_words_t{});
    }
    for (; j < 8 * n; j += 8)
        count += make(j, uint64_t{});
    return count;
}

template <int op, bool popcnt>
[[gnu::always_inline]] inline uint64_t choose_words(const operation_t &operation, const source_bytes &src1,
                                                    const source_bytes &src2, uint8_t *dst, uint64_t n)
{
    if (src1.offset == 0)
        return src2.offset ? logical_words<op, false, true, popcnt>(operation, src1, src2, dst, n)
                           : logical_words<op, false, false, popcnt>(operation, src1, src2, dst, n);
    return src2.offset ? logical_words<op, true, true, popcnt>(operation, src1, src2, dst, n)
                       : logical_words<op, true, false, popcnt>(operation, src1, src2, dst, n);
}

template <int op>
KEL_POPCNT uint64_t words_with_popcnt(const operation_t &operation, const source_bytes &src1, const source_bytes &src2,
                                      uint8_t *dst, uint64_t n)
{
    return choose_words<op, true>(operation, src1, src2, dst, n);
}

template <int op>
uint64_t run_words(const operation_t &operation, const source_bytes &src1, const source_bytes &src2, uint8_t *dst,
                   uint64_t n, int have_popcnt)
{
    return have_popcnt ? words_with_popcnt<op>(operation, src1, src2, dst, n)
                       : choose_words<op, false>(operation, src1, src2, dst, n);
}

// The bits behind the last whole word, fewer than 64. The bytes of each source are collected in a word, the last on the
// low end, so that they are joined and counted at once.
uint64_t logical_tail(int op, const operation_t &operation, const source_bytes &src1, const source_bytes &src2,
                      uint8_t *dst, uint64_t bits)
{
    const uint64_t whole = bits / 8;
    const uint64_t partial = bits % 8;
    // Kept: of two sources with an offset the partial byte comes from one byte further on.
    const uint64_t last = whole + (src1.offset != 0 && src2.offset != 0);
    uint64_t a = 0;
    uint64_t b = 0;
    for (uint64_t j = 0; j < whole; j++) {
        a = a << 8 | src1[j];
        b = b << 8 | src2[j];
    }
    if (partial != 0) {
        a = a << 8 | src1[last];
        b = b << 8 | src2[last];
    }
    const uint64_t unused = (8 - partial) % 8;
    const uint64_t used = ((uint64_t{1} << bits) - 1) << unused;
    uint64_t word = (logical_op(op, a, b ^ operation.invert_src) ^ operation.invert) & used;
    const uint64_t count = popc_parallel(word);
    if (partial != 0) {
        const auto kept = static_cast<uint8_t>(0xff >> partial);
        dst[whole] = static_cast<uint8_t>((dst[whole] & kept) | word);
        word >>= 8;
    }
    for (uint64_t j = whole; j-- > 0; word >>= 8)
        dst[j] = static_cast<uint8_t>(word);
    return count;
}

} // namespace

uint64_t logical_op(int op, uint64_t a, uint64_t b)
{
    switch (op) {
    case kel_op_and:
        return a & b;
    case kel_op_or:
        return a | b;
    case kel_op_xor:
        return a ^ b;
    case kel_op_nand:
        return ~(a & b);
    case kel_op_nor:
        return ~(a | b);
    default:
        return ~a ^ b;
    }
}

uint64_t do_logical_il(int op, uint64_t flags, const void *src1, const void *src2, void *dst, uint64_t n,
                       unsigned offset1, unsigned offset2, int have_popcnt)
{
    if (op != kel_op_and && op != kel_op_or)
        op = kel_op_xor;
    const operation_t operation = {flags & KEL_INVERT_SRC ? ~uint64_t{0} : 0, flags & KEL_INVERT ? ~uint64_t{0} : 0};
    source_bytes bytes1 = {static_cast<const uint8_t *>(src1), offset1};
    source_bytes bytes2 = {static_cast<const uint8_t *>(src2), offset2};
    auto *to = static_cast<uint8_t *>(dst);
    const uint64_t words = n / 64;
    uint64_t count = 0;
    if (words > 0) {
        const auto run = op == kel_op_and  ? run_words<kel_op_and>
                         : op == kel_op_or ? run_words<kel_op_or>
                                           : run_words<kel_op_xor>;
        // Words are shifted by bits of a byte; validation refuses offsets that pass one.
        const source_bytes words1 = {bytes1.data + offset1 / 8, offset1 % 8};
        const source_bytes words2 = {bytes2.data + offset2 / 8, offset2 % 8};
        count = run(operation, words1, words2, to, words, have_popcnt);
        bytes1.data += 8 * words;
        bytes2.data += 8 * words;
        to += 8 * words;
    }
    return n % 64 == 0 ? count : count + logical_tail(op, operation, bytes1, bytes2, to, n % 64);
}

kel_status_t kel_logical_emulate(kel_context_t *ctx, uint64_t flags, const kel_vec_t *src1, const kel_vec_t *src2,
                                 const kel_vec_t *dst, int op, cca_t *cca)
{
    // A context without producers counts in plain code, which then is tested. There may be no context at all.
    const int have_popcnt = (!ctx || ctx->kernels) && kel_have_popcnt();
    const uint64_t count = do_logical_il(op, flags, src1->data, src2->data, dst->data, src1->elements, src1->offset,
                                         src2->offset, have_popcnt);
    // Kept: neither a size nor a number of elements.
    *cca = {static_cast<uint32_t>(count), static_cast<uint32_t>(count), count};
    kel_log_line(ctx, KEL_LOG_VERBOSE, "kel_logical_emulate() returns {%s, count=%ld}", "KEL_SUCCESS",
                 static_cast<long>(count)); // kept: the name, where other lines have the word
    return KEL_SUCCESS;
}

// ---- Entries without an implementation ------------------------------------------------------------------------------

kel_status_t kel_and_emulate(kel_context_t *, uint64_t, const kel_vec_t *, const kel_vec_t *, const kel_vec_t *,
                             cca_t *)
{
    return KEL_ENOTIMPL;
}

kel_status_t kel_or_emulate(kel_context_t *, uint64_t, const kel_vec_t *, const kel_vec_t *, const kel_vec_t *, cca_t *)
{
    return KEL_ENOTIMPL;
}

kel_status_t kel_xor_emulate(kel_context_t *, uint64_t, const kel_vec_t *, const kel_vec_t *, const kel_vec_t *,
                             cca_t *)
{
    return KEL_ENOTIMPL;
}
