// Copy: bytes from one buffer to another. The lines tell of the parts that a destination at a multiple of 64 takes.
#include "kel_frame.h"
#include "kel_io.h"
#include "kel_valid.h"
#include <cstring>

// memcpy, whose pointers may not be null even for 0 bytes.
static void copy_bytes(void *dst, const void *src, uint64_t count)
{
    if (count > 0)
        memcpy(dst, src, count);
}

// Kept: the lines are those of a copy in three parts, the main one an extract of bytes. That does what memcpy does, and
// cannot fail, so one call serves all parts.
static void log_parts(kel_context_t *ctx, const void *dst, uint64_t count)
{
    const uint64_t head = kel_distance_to(kel_dst_align, dst);
    if (count <= head) // kept: the text says 64 bytes, the test is the distance to the next multiple of 64
        return kel_log_msg(ctx, KEL_LOG_VERBOSE, "under 64B, do software copy");
    if (head > 0)
        kel_log_msg(ctx, KEL_LOG_VERBOSE, "software copy 1st %ld bytes\n", static_cast<long>(head));
    const uint64_t main = (count - head) / kel_dst_align * kel_dst_align;
    if (main > 0) {
        kel_log_msg(ctx, KEL_LOG_VERBOSE, "kel copy %ld bytes\n", static_cast<long>(main));
        kel_log_msg(ctx, KEL_LOG_VERBOSE, "Emulating kel_extract");
    }
}

static int copy_valid(kel_context_t *ctx, uint64_t flags, const void *src, kel_queue_t *queue, unsigned version)
{
    constexpr const char *refusal = "kel_copy_post() cannot be a pipeline target for a source with pipe flags "
                                    "KEL_PIPE_AUX and KEL_PIPE_MASK";
    const pipe_target_t target = {nullptr, nullptr, src, KEL_PIPE_SRC, refusal};
    return kel_validate([=](auto log) KEL_INLINED {
        int valid = flags_valid(ctx, flags, 0, 0, version, log);
        valid &= thread_valid(ctx, log);
        valid &= chain_valid(ctx, queue, flags, target, version, log);
        return valid;
    });
}

static int copy_valid_extra(kel_context_t *ctx, uint64_t, const void *src, const void *dst, uint64_t count)
{
    return kel_test(1, !addr_overlap(src, dst, count), ctx, "Invalid src or dst: src and dst overlap");
}

struct copy_op {
    struct args {
        const void *src;
        void *dst;
        uint64_t count;
    };

    static constexpr char return_format[] = "kel_copy() returns {%s, count=%ld}\n";
    static constexpr char post_return_format[] = "kel_copy_post() returns {%s}\n";

    static void log_entry(kel_context_t *ctx, uint64_t flags, const args &a)
    {
        char text[kel_args_text_size];
        kel_log_msg(ctx, KEL_LOG_ENTRY, "kel_copy(): %s ",
                    copy_args_str(ctx, flags, a.src, a.dst, a.count, text, sizeof text));
    }

    static void log_post_entry(kel_context_t *ctx, uint64_t flags, const args &a, const void *udata)
    {
        char text[kel_args_text_size];
        kel_log_msg(ctx, KEL_LOG_ENTRY, "kel_copy_post(): %s\n  udata=0x%lx",
                    copy_args_str(ctx, flags, a.src, a.dst, a.count, text, sizeof text), kel_log_ptr(udata));
    }

    static int valid(kel_context_t *ctx, uint64_t flags, const args &a, kel_queue_t *queue, unsigned version)
    {
        return copy_valid(ctx, flags, a.src, queue, version) &&
               (a.count == 0 || kel_given(ctx, {{"src", a.src}, {"dst", a.dst}}));
    }

    static int valid_extra(kel_context_t *ctx, uint64_t flags, const args &a)
    {
        return copy_valid_extra(ctx, flags, a.src, a.dst, a.count);
    }

    static kel_status_t emulate(kel_context_t *ctx, uint64_t, const args &a, cca_t *)
    {
        if (ctx->log.options & KEL_LOG_VERBOSE) [[unlikely]]
            log_parts(ctx, a.dst, a.count);
        copy_bytes(a.dst, a.src, a.count);
        return KEL_SUCCESS;
    }

    // Without the lines.
    static kel_status_t emulate_post(kel_context_t *, uint64_t, const args &a, cca_t *)
    {
        copy_bytes(a.dst, a.src, a.count);
        return KEL_SUCCESS;
    }

    static void *pipe_dst(const args &a)
    {
        return a.dst;
    }

    static void request(const args &a, kel_request_t *request)
    {
        request->cmd = KEL_CMD_COPY;
        request->arg.copy = {const_cast<void *>(a.src), a.dst, a.count};
    }
};

kel_result_t kel_copy(kel_context_t *ctx, uint64_t flags, const void *src, void *dst, uint64_t count)
{
    return kel_execute<copy_op>(ctx, flags, {src, dst, count});
}

kel_status_t kel_copy_post(kel_queue_t *queue, uint64_t flags, const void *src, void *dst, uint64_t count, void *udata)
{
    return kel_post<copy_op>(queue, flags, {src, dst, count}, udata);
}
