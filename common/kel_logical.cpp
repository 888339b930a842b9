// And, or, xor of bit vectors, eight bytes at a time in plain registers.
//
// A source with an offset o is a stream of bytes: the bits of a byte from bit o up, then the low o bits of the byte
// behind it. On a little-endian processor that is what a shift of whole words does, so that a source that starts at any
// address and offset is read by aligned loads, two shifts and an OR.
#include "kel_logical.h"
#include "kel_io.h"
#include "kel_valid.h"
#include <utility>

static_assert(std::endian::native == std::endian::little);

// ---- The result -----------------------------------------------------------------------------------------------------

namespace
{

inline uint64_t load_word(const uint8_t *address)
{
    uint64_t word;
    memcpy(&word, address, sizeof word);
    return word;
}

// A source as a stream of bytes.
struct bytes_t {
    const uint8_t *data;
    unsigned offset;

    uint64_t operator[](uint64_t j) const
    {
        if (offset == 0)
            return data[j];
        return static_cast<uint8_t>(data[j] >> offset | data[j + 1] << (8 - offset));
    }

    // Whether its words are not words of memory.
    bool shifted() const
    {
        return reinterpret_cast<uintptr_t>(data) % 8 != 0 || offset != 0;
    }
};

// The words of a source.
template <bool shifted>
class words_t
{
  public:
    explicit words_t(const bytes_t &bytes)
        : from(bytes.data), shift(static_cast<unsigned>(reinterpret_cast<uintptr_t>(from) % 8 * 8 + bytes.offset))
    {
        if constexpr (shifted) {
            from -= reinterpret_cast<uintptr_t>(from) % 8;
            held = load();
        }
    }

    uint64_t next()
    {
        const uint64_t word = load();
        if constexpr (!shifted)
            return word;
        return std::exchange(held, word) >> shift | word << (64 - shift);
    }

    void prefetch() const
    {
        __builtin_prefetch(from + prefetch_bytes);
    }

  private:
    static constexpr unsigned prefetch_bytes = 256;

    uint64_t load()
    {
        const uint64_t word = load_word(from);
        from += 8;
        return word;
    }

    const uint8_t *from;
    unsigned shift;
    uint64_t held = 0;
};

// What is done to each pair of words: the second one is complemented, the two are joined, the result is complemented.
struct operation_t {
    uint64_t invert_src; // all ones or zeros
    uint64_t invert;
};

template <int op>
inline uint64_t join(uint64_t a, uint64_t b)
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

// Writes n words and answers the number of their ones.
template <int op, bool shifted1, bool shifted2, bool popcnt>
[[gnu::always_inline]] inline uint64_t logical_words(const operation_t &operation, const bytes_t &src1,
                                                     const bytes_t &src2, uint8_t *dst, uint64_t n)
{
    words_t<shifted1> words1(src1);
    words_t<shifted2> words2(src2);
    uint64_t count = 0;
    for (; n > 0; n--, dst += 8) {
        words1.prefetch();
        const uint64_t b = words2.next() ^ operation.invert_src;
        const uint64_t word = join<op>(words1.next(), b) ^ operation.invert;
        memcpy(dst, &word, sizeof word);
        if constexpr (popcnt)
            count += static_cast<uint64_t>(__builtin_popcountll(word));
        else
            count += popc_parallel(word);
    }
    return count;
}

template <int op, bool popcnt>
[[gnu::always_inline]] inline uint64_t choose_words(const operation_t &operation, const bytes_t &src1,
                                                    const bytes_t &src2, uint8_t *dst, uint64_t n)
{
    if (!src1.shifted())
        return src2.shifted() ? logical_words<op, false, true, popcnt>(operation, src1, src2, dst, n)
                              : logical_words<op, false, false, popcnt>(operation, src1, src2, dst, n);
    return src2.shifted() ? logical_words<op, true, true, popcnt>(operation, src1, src2, dst, n)
                          : logical_words<op, true, false, popcnt>(operation, src1, src2, dst, n);
}

template <int op>
[[gnu::target("popcnt")]] uint64_t words_with_popcnt(const operation_t &operation, const bytes_t &src1,
                                                     const bytes_t &src2, uint8_t *dst, uint64_t n)
{
    return choose_words<op, true>(operation, src1, src2, dst, n);
}

template <int op>
uint64_t run_words(const operation_t &operation, const bytes_t &src1, const bytes_t &src2, uint8_t *dst, uint64_t n,
                   int have_popcnt)
{
    return have_popcnt ? words_with_popcnt<op>(operation, src1, src2, dst, n)
                       : choose_words<op, false>(operation, src1, src2, dst, n);
}

// The bits behind the last whole word, fewer than 64. The bytes of each source are collected in a word, the last on the
// low end, so that they are joined and counted at once.
uint64_t logical_tail(int op, const operation_t &operation, const bytes_t &src1, const bytes_t &src2, uint8_t *dst,
                      uint64_t bits)
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
    bytes_t bytes1 = {static_cast<const uint8_t *>(src1), offset1};
    bytes_t bytes2 = {static_cast<const uint8_t *>(src2), offset2};
    auto *to = static_cast<uint8_t *>(dst);
    const uint64_t words = n / 64;
    uint64_t count = 0;
    if (words > 0) {
        const auto run = op == kel_op_and  ? run_words<kel_op_and>
                         : op == kel_op_or ? run_words<kel_op_or>
                                           : run_words<kel_op_xor>;
        count = run(operation, bytes1, bytes2, to, words, have_popcnt);
        bytes1.data += 8 * words;
        bytes2.data += 8 * words;
        to += 8 * words;
    }
    return n % 64 == 0 ? count : count + logical_tail(op, operation, bytes1, bytes2, to, n % 64);
}

kel_status_t kel_logical_emulate(kel_context_t *ctx, uint64_t flags, const kel_vec_t *src1, const kel_vec_t *src2,
                                 const kel_vec_t *dst, int op, cca_t *cca)
{
    const int have_popcnt = __builtin_cpu_supports("popcnt") != 0;
    const uint64_t count = do_logical_il(op, flags, src1->data, src2->data, dst->data, src1->elements, src1->offset,
                                         src2->offset, have_popcnt);
    // Kept: neither a size nor a number of elements.
    *cca = {static_cast<uint32_t>(count), static_cast<uint32_t>(count), count};
    kel_log_line(ctx, KEL_LOG_VERBOSE, "kel_logical_emulate() returns {%s, count=%ld}", kel_status_str(KEL_SUCCESS),
                 static_cast<long>(count));
    return KEL_SUCCESS;
}

// ---- The operations -------------------------------------------------------------------------------------------------

static int bit_vector_offset_valid(kel_context_t *ctx, const kel_vec_t *vec, unsigned limit, const char *name, int log)
{
    // Kept: the text says 0, where the test of a source is below 8.
    return kel_test(log, vec->offset <= limit, ctx, "Invalid %s offset %u; must be 0", name, vec->offset);
}

static int bit_vector_width_valid(kel_context_t *ctx, const kel_vec_t *vec, const char *name, int log)
{
    return kel_test(log, vec->elem_width == 1, ctx, "Invalid %s elem_width %u %s; must be 1 bit", name, vec->elem_width,
                    bit_byte_fmt_str(vec->format & KEL_BITS));
}

static int bit_vector_format_valid(kel_context_t *ctx, const kel_vec_t *vec, const char *name, int log)
{
    char fmt[kel_fmt_text_size];
    return kel_test(log, vec->format == KEL_BITS, ctx, "Invalid %s format: %s; must be KEL_BITS", name,
                    fmt_str(ctx, vec->format & ~KEL_BITS, fmt, sizeof fmt));
}

// Never the target of a pipeline; a refusal has no words.
static int logical_pipe_valid(const kel_queue_t *queue, uint64_t flags, unsigned version)
{
    return !queue || version == 1 || (pipe_flags_legal(flags) && queue->last_pipe_flags == 0);
}

static int logical_valid(kel_context_t *ctx, uint64_t flags, const kel_vec_t *src1, const kel_vec_t *src2,
                         const kel_vec_t *dst, kel_queue_t *queue, unsigned version)
{
    return kel_validate([=](int log) {
        const auto misalignment = static_cast<unsigned>(reinterpret_cast<uintptr_t>(dst->data) % kel_dst_align);
        const bool same_elements = src1->elements == src2->elements;
        int valid = thread_valid(ctx, log);
        valid &= flags_valid(ctx, flags, KEL_INVERT | KEL_INVERT_SRC, KEL_NOWAIT, version, log);
        valid &= sync_flags_valid(ctx, queue, flags, version, log);
        valid &= logical_pipe_valid(queue, flags, version);
        valid &= bit_vector_offset_valid(ctx, src1, kel_max_offset, "src1", log);
        valid &= bit_vector_offset_valid(ctx, src2, kel_max_offset, "src2", log);
        valid &= bit_vector_offset_valid(ctx, dst, 0, "dst", log);
        valid &= bit_vector_width_valid(ctx, src1, "src1", log);
        valid &= bit_vector_width_valid(ctx, src2, "src2", log);
        valid &= bit_vector_width_valid(ctx, dst, "dst", log);
        valid &= bit_vector_format_valid(ctx, src1, "src1", log);
        valid &= bit_vector_format_valid(ctx, src2, "src2", log);
        valid &= bit_vector_format_valid(ctx, dst, "dst", log);
        valid &= kel_test(log, same_elements, ctx, "src1 elements %lu does not match src2 elements %lu", src1->elements,
                          src2->elements);
        valid &= kel_test(log, !same_elements || src1->elements <= dst->elements, ctx,
                          "dst elements %lu is less than src elements %lu", dst->elements, src1->elements);
        valid &= kel_test(log, misalignment == 0, ctx, "Invalid dst data alignment %u; must be 64", misalignment);
        return valid;
    });
}

static int logical_valid_extra(kel_context_t *ctx, uint64_t, const kel_vec_t *src1, const kel_vec_t *src2,
                               const kel_vec_t *dst)
{
    int valid = kel_test(1, !vec_overlap(src1, dst), ctx, "Invalid src1 or dst: src1 data and dst data overlap");
    valid &= kel_test(1, !vec_overlap(src2, dst), ctx, "Invalid src2 or dst: src2 data and dst data overlap");
    return valid;
}

kel_cmd_t op_to_cmd(int op)
{
    constexpr kel_cmd_t commands[] = {KEL_CMD_AND, KEL_CMD_OR, KEL_CMD_XOR};
    return op >= kel_op_and && op <= kel_op_xor ? commands[op - kel_op_and] : static_cast<kel_cmd_t>(-1);
}

// All three operations.
struct logical {
    struct args {
        const kel_vec_t *src1;
        const kel_vec_t *src2;
        const kel_vec_t *dst;
        int op;
        const char *name;
    };

    static constexpr char return_format[] = "%s() returns {%s, count=%ld}";
    static constexpr char post_return_format[] = "%s_post returns {%s}";

    static const char *name(const args &a)
    {
        return a.name;
    }

    // The arguments as entry lines show them.
    struct texts {
        texts(kel_context_t *ctx, uint64_t flags_given, const args &a)
        {
            flags_str(ctx, flags_given, flags, sizeof flags);
            src_vec_str(ctx, a.src1, src1, sizeof src1);
            src_vec_str(ctx, a.src2, src2, sizeof src2);
            dst_vec_str(ctx, a.dst, dst, sizeof dst);
        }

        char flags[kel_request_flags_text_size];
        char src1[640];
        char src2[640];
        char dst[128];
    };

    static void log_entry(kel_context_t *ctx, uint64_t flags, const args &a)
    {
        const texts t(ctx, flags, a);
        kel_log_msg(ctx, KEL_LOG_ENTRY, "%s(): ctx=0x%lx, flags=%s, \n  src1 = {%s}\n  src2 = {%s}\n  dst = {%s}",
                    a.name, kel_log_ptr(ctx), t.flags, t.src1, t.src2, t.dst);
    }

    static void log_post_entry(kel_context_t *ctx, uint64_t flags, const args &a, const void *udata)
    {
        const texts t(ctx, flags, a);
        kel_log_msg(ctx, KEL_LOG_ENTRY,
                    "%s_post(): ctx=0x%lx, flags=%s, \n  src1 = %s\n  src2 = %s\n  dst = %s\n  udata = 0x%lx", a.name,
                    kel_log_ptr(ctx), t.flags, t.src1, t.src2, t.dst, kel_log_ptr(udata));
    }

    static int valid(kel_context_t *ctx, uint64_t flags, const args &a, kel_queue_t *queue, unsigned version)
    {
        return logical_valid(ctx, flags, a.src1, a.src2, a.dst, queue, version);
    }

    static int valid_extra(kel_context_t *ctx, uint64_t flags, const args &a)
    {
        return logical_valid_extra(ctx, flags, a.src1, a.src2, a.dst);
    }

    static kel_status_t emulate(kel_context_t *ctx, uint64_t flags, const args &a, cca_t *cca)
    {
        return kel_logical_emulate(ctx, flags, a.src1, a.src2, a.dst, a.op, cca);
    }

    static const kel_vec_t *diagnosed(const args &)
    {
        return nullptr;
    }

    static void *pipe_dst(const args &a)
    {
        return a.dst->data;
    }

    static void request(const args &a, kel_request_t *request)
    {
        request->cmd = op_to_cmd(a.op);
        request->src = *a.src1;
        request->src2 = *a.src2;
        request->dst = *a.dst;
    }
};

kel_result_t kel_and(kel_context_t *ctx, uint64_t flags, const kel_vec_t *src1, const kel_vec_t *src2,
                     const kel_vec_t *dst)
{
    return kel_execute<logical>(ctx, flags, {src1, src2, dst, kel_op_and, "kel_and"});
}

kel_result_t kel_or(kel_context_t *ctx, uint64_t flags, const kel_vec_t *src1, const kel_vec_t *src2,
                    const kel_vec_t *dst)
{
    return kel_execute<logical>(ctx, flags, {src1, src2, dst, kel_op_or, "kel_or"});
}

kel_result_t kel_xor(kel_context_t *ctx, uint64_t flags, const kel_vec_t *src1, const kel_vec_t *src2,
                     const kel_vec_t *dst)
{
    return kel_execute<logical>(ctx, flags, {src1, src2, dst, kel_op_xor, "kel_xor"});
}

kel_status_t kel_and_post(kel_queue_t *queue, uint64_t flags, const kel_vec_t *src1, const kel_vec_t *src2,
                          const kel_vec_t *dst, void *udata)
{
    return kel_post<logical>(queue, flags, {src1, src2, dst, kel_op_and, "kel_and"}, udata);
}

kel_status_t kel_or_post(kel_queue_t *queue, uint64_t flags, const kel_vec_t *src1, const kel_vec_t *src2,
                         const kel_vec_t *dst, void *udata)
{
    return kel_post<logical>(queue, flags, {src1, src2, dst, kel_op_or, "kel_or"}, udata);
}

kel_status_t kel_xor_post(kel_queue_t *queue, uint64_t flags, const kel_vec_t *src1, const kel_vec_t *src2,
                          const kel_vec_t *dst, void *udata)
{
    return kel_post<logical>(queue, flags, {src1, src2, dst, kel_op_xor, "kel_xor"}, udata);
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
