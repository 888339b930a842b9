// And, or, xor of bit vectors: validation and the public calls, which the three share.
#include "kel_logical.h"
#include "kel_valid.h"

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
    return kel_validate([=](auto log) KEL_INLINED {
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
        valid &= alignment_valid(ctx, dst->data, kel_dst_align, "dst data", log);
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

    static bool given(kel_context_t *ctx, const args &a)
    {
        return kel_given(ctx, {{"src1", a.src1}, {"src2", a.src2}, {"dst", a.dst}});
    }

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
