// Extract: the elements of any source as a plain vector of fixed width.
#include "kel_extract.h"
#include "kel_valid.h"

static int extract_valid(kel_context_t *ctx, uint64_t flags, const kel_vec_t *src, const kel_vec_t *dst,
                         kel_queue_t *queue, unsigned version)
{
    constexpr const char *refusal =
        "kel_extract_post() cannot be a pipeline target for a source with pipe flags KEL_PIPE_MASK";
    const pipe_target_t target = {src, nullptr, nullptr, KEL_PIPE_SRC | KEL_PIPE_AUX, refusal};
    return kel_validate([=](auto log) KEL_INLINED {
        int valid = thread_valid(ctx, log);
        valid &= flags_valid(ctx, flags, KEL_PAD, 0, version, log);
        valid &= chain_valid(ctx, queue, flags, target, version, log);
        valid &= src_valid(ctx, src, KEL_VAR, 0, "src", version, log);
        valid &= dst_valid(ctx, dst, 0, 0, version, log);
        // Kept: the counts are shown in 32 bits.
        valid &= kel_test(log, dst->elements >= src->elements, ctx, "dst elements(%u) is smaller than src elements(%u)",
                          static_cast<unsigned>(dst->elements), static_cast<unsigned>(src->elements));
        return valid;
    });
}

static int extract_valid_extra(kel_context_t *ctx, uint64_t, const kel_vec_t *src, const kel_vec_t *dst)
{
    int valid = aux_valid_extra(ctx, src, dst, ctx->api_version);
    valid &= kel_test(1, !vec_overlap(src, dst), ctx, "src and dst data stream overlap");
    valid &= kel_test(1, !aux_overlap(src, dst), ctx, "aux and dst data stream overlap");
    return valid;
}

struct extract_op {
    struct args {
        const kel_vec_t *src;
        const kel_vec_t *dst;
    };

    static bool given(kel_context_t *ctx, const args &a)
    {
        return kel_given(ctx, {{"src", a.src}, {"dst", a.dst}});
    }

    static constexpr char return_format[] = "kel_extract() returns {%s, count=%ld}";
    static constexpr char post_return_format[] = "kel_extract_post() returns {%s}";

    static void log_entry(kel_context_t *ctx, uint64_t flags, const args &a)
    {
        char vectors[kel_args_text_size];
        kel_log_msg(ctx, KEL_LOG_ENTRY, "kel_extract(): %s",
                    entry_args_str(ctx, flags, a.src, a.dst, vectors, sizeof vectors));
    }

    static void log_post_entry(kel_context_t *ctx, uint64_t flags, const args &a, const void *udata)
    {
        char vectors[kel_args_text_size];
        kel_log_msg(ctx, KEL_LOG_ENTRY, "kel_extract_post: %s\n  udata = 0x%lx",
                    entry_args_str(ctx, flags, a.src, a.dst, vectors, sizeof vectors), kel_log_ptr(udata));
    }

    static int valid(kel_context_t *ctx, uint64_t flags, const args &a, kel_queue_t *queue, unsigned version)
    {
        return extract_valid(ctx, flags, a.src, a.dst, queue, version);
    }

    static int valid_extra(kel_context_t *ctx, uint64_t flags, const args &a)
    {
        return extract_valid_extra(ctx, flags, a.src, a.dst);
    }

    static kel_status_t emulate(kel_context_t *ctx, uint64_t flags, const args &a, cca_t *cca)
    {
        return kel_extract_emulate(ctx, flags, a.src, a.dst, cca);
    }

    static const kel_vec_t *diagnosed(const args &a)
    {
        return a.src;
    }

    static void *pipe_dst(const args &a)
    {
        return a.dst->data;
    }

    static void request(const args &a, kel_request_t *request)
    {
        request->cmd = KEL_CMD_EXTRACT;
        request->src = *a.src;
        request->dst = *a.dst;
    }
};

kel_result_t kel_extract(kel_context_t *ctx, uint64_t flags, const kel_vec_t *src, const kel_vec_t *dst)
{
    return kel_execute<extract_op>(ctx, flags, {src, dst});
}

kel_status_t kel_extract_post(kel_queue_t *queue, uint64_t flags, const kel_vec_t *src, const kel_vec_t *dst,
                              void *udata)
{
    return kel_post<extract_op>(queue, flags, {src, dst}, udata);
}
