// Fill: a repeated value of 1, 2, 4 or 8 bytes.
//
// A fill is a stream of bytes: those of an 8-byte pattern, over and over, from the first byte of the destination on. At
// another place of the stream the pattern is the same, rotated.
#include "kel_fill.h"
#include "kel_frame.h"
#include "kel_io.h"
#include "kel_platform.h"
#include "kel_valid.h"
#include <algorithm>
#include <unistd.h>

// ---- Writers --------------------------------------------------------------------------------------------------------

static uint64_t advance_pattern(uint64_t pattern, uint64_t bytes)
{
    return std::rotl(pattern, static_cast<int>(8 * (bytes % 8)));
}

static uint8_t *put_top_bytes(uint8_t *to, uint64_t pattern, uint64_t n)
{
    for (; n > 0; n--, pattern <<= 8)
        *to++ = static_cast<uint8_t>(pattern >> 56);
    return to;
}

// From some hundred words on, the processor's own loop stores as much a cycle as it can, as in memset. A sanitizer does
// not see what that stores.
static void put_words(uint8_t *to, uint64_t pattern, uint64_t n)
{
    const uint64_t word = revbytes64(pattern);
#if defined(__x86_64__) && !defined(KEL_SANITIZED)
    constexpr uint64_t many = 128;
    if (n >= many) {
        asm volatile("rep stosq" : "+D"(to), "+c"(n) : "a"(word) : "memory");
        return;
    }
#endif
    for (uint64_t i = 0; i < n; i++)
        memcpy(to + i * sizeof word, &word, sizeof word);
}

uint64_t fill_value(uint64_t val, unsigned val_width)
{
    switch (val_width) {
    case 1:
        return (val & 0xff) * 0x0101010101010101;
    case 2:
        return (val & 0xffff) * 0x0001000100010001;
    case 4:
        return val | val << 32; // kept: bits of val above 32 are merged in
    default:
        return val;
    }
}

void fill_unaligned(kel_context_t *ctx, void *dst, uint64_t pattern, uint64_t count)
{
    kel_log_line(ctx, KEL_LOG_VERBOSE, "fill, dstv(0x%lx), val(0x%lx), count(%lu)\n", kel_log_ptr(dst), pattern, count);
    const uint64_t to_word = kel_distance_to(8, dst);
    const uint64_t head = std::min(count, to_word);
    uint8_t *to = put_top_bytes(static_cast<uint8_t *>(dst), pattern, head);
    pattern = advance_pattern(pattern, to_word);
    put_words(to, pattern, (count - head) / 8);
    put_top_bytes(to + (count - head) / 8 * 8, pattern, (count - head) % 8);
}

void memsetx(uint64_t *dst, uint64_t pattern, int64_t n)
{
    if (n > 0)
        put_words(reinterpret_cast<uint8_t *>(dst), pattern, static_cast<uint64_t>(n));
}

static constexpr unsigned assertion_line = 257; // kept: part of the message

static uint64_t *aligned_words(void *dst, const char *function)
{
    if (reinterpret_cast<uintptr_t>(dst) & 7)
        kel_assert_fail("((uintptr_t)dst & 0x7) == 0", "common/kel_fill.cpp", assertion_line, function);
    return static_cast<uint64_t *>(dst);
}

uint64_t kel_fill_emulate(kel_context_t *, uint64_t, uint64_t pattern, void *dst, uint64_t count, uint32_t)
{
    memsetx(aligned_words(dst, __func__), pattern, static_cast<int64_t>(count / 8));
    return count & ~uint64_t{7};
}

// A fill below a page goes in one piece. A longer one has its main run from a multiple of 64 on.
static void fill(kel_context_t *ctx, uint64_t val, void *dst, uint64_t count, uint32_t val_width)
{
    const uint64_t pattern = fill_value(val, val_width);
    const uint64_t total = count * val_width;
    const bool short_fill = total < static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    const uint64_t first = short_fill ? total : kel_distance_to(kel_dst_align, dst);
    fill_unaligned(ctx, dst, pattern, first);
    if (first == total)
        return;

    auto *to = static_cast<uint8_t *>(dst) + first;
    const uint64_t at_word = advance_pattern(pattern, kel_distance_to(8, dst));
    const uint64_t words = (total - first) / 8;
    memsetx(aligned_words(to, __func__), at_word, static_cast<int64_t>(words));
    const uint64_t filled = first + 8 * words;
    fill_unaligned(ctx, static_cast<uint8_t *>(dst) + filled, at_word, total - filled);
}

// ---- The operation --------------------------------------------------------------------------------------------------

static int fill_valid(kel_context_t *ctx, uint64_t flags, uint32_t val_width, kel_queue_t *queue, unsigned version)
{
    constexpr pipe_target_t no_target = {nullptr, nullptr, nullptr, 0, "kel_fill_post() cannot be a pipeline target"};
    const unsigned width = val_width & 0xff; // kept: the width is looked at in 8 bits
    const bool width_ok = width == 1 || width == 2 || width == 4 || width == 8;
    if (!kel_test(1, width_ok, ctx, "Invalid val_width: %u", width))
        return 0;
    return kel_validate([=](auto log) KEL_INLINED {
        int valid = thread_valid(ctx, log);
        valid &= flags_valid(ctx, flags, 0, 0, version, log);
        valid &= chain_valid(ctx, queue, flags, no_target, version, log);
        return valid;
    });
}

static int fill_valid_extra(kel_context_t *, uint64_t)
{
    return 1;
}

struct fill_op {
    struct args {
        uint64_t val;
        void *dst;
        uint64_t count;
        uint32_t val_width;
    };

    static constexpr char return_format[] = "kel_fill() returns {%s, count=%ld}";
    static constexpr char post_return_format[] = "kel_fill_post() returns {%s}";

    static void log_entry(kel_context_t *ctx, uint64_t flags, const args &a)
    {
        char text[kel_args_text_size];
        kel_log_msg(ctx, KEL_LOG_ENTRY, "kel_fill(): %s",
                    fill_args_str(ctx, flags, a.val, a.dst, a.count, a.val_width, text, sizeof text));
    }

    static void log_post_entry(kel_context_t *ctx, uint64_t flags, const args &a, const void *udata)
    {
        char text[kel_args_text_size];
        kel_log_msg(ctx, KEL_LOG_ENTRY, "kel_fill_post(): %s\n  udata=0x%lx",
                    fill_args_str(ctx, flags, a.val, a.dst, a.count, a.val_width, text, sizeof text),
                    kel_log_ptr(udata));
    }

    static int valid(kel_context_t *ctx, uint64_t flags, const args &a, kel_queue_t *queue, unsigned version)
    {
        return fill_valid(ctx, flags, a.val_width, queue, version) &&
               (a.count == 0 || kel_given(ctx, {{"dst", a.dst}}));
    }

    static int valid_extra(kel_context_t *ctx, uint64_t flags, const args &)
    {
        return fill_valid_extra(ctx, flags);
    }

    static kel_status_t emulate(kel_context_t *ctx, uint64_t, const args &a, cca_t *)
    {
        fill(ctx, a.val, a.dst, a.count, a.val_width);
        return KEL_SUCCESS;
    }

    // Kept: the posted form goes through the synchronous call, which logs and validates again; a failure there is lost.
    static kel_status_t emulate_post(kel_context_t *ctx, uint64_t flags, const args &a, cca_t *)
    {
        (void)kel_fill(ctx, flags & ~KEL_SYNC_FLAGS_V2, a.val, a.dst, a.count, a.val_width);
        return KEL_SUCCESS;
    }

    static void *pipe_dst(const args &a)
    {
        return a.dst;
    }

    static void request(const args &a, kel_request_t *request)
    {
        request->cmd = KEL_CMD_FILL;
        request->arg.fill = {a.val, a.dst, a.count, a.val_width};
    }
};

kel_result_t kel_fill(kel_context_t *ctx, uint64_t flags, uint64_t val, void *dst, uint64_t count, uint32_t val_width)
{
    return kel_execute<fill_op>(ctx, flags, {val, dst, count, val_width});
}

kel_status_t kel_fill_post(kel_queue_t *queue, uint64_t flags, uint64_t val, void *dst, uint64_t count,
                           uint32_t val_width, void *udata)
{
    return kel_post<fill_op>(queue, flags, {val, dst, count, val_width}, udata);
}
