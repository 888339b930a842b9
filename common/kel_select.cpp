// Select: the elements whose mask bit is 1.
#include "kel_select.h"
#include "kel_valid.h"

static int select_valid(kel_context_t *ctx, uint64_t flags, const kel_vec_t *src, const kel_vec_t *dst,
                        const kel_vec_t *mask, kel_queue_t *queue, unsigned version)
{
    constexpr const char *refusal =
        "kel_select_post() cannot be a pipeline target for a source with pipe flags KEL_PIPE_AUX";
    const pipe_target_t target = {src, mask, nullptr, KEL_PIPE_SRC | KEL_PIPE_MASK, refusal};
    return kel_validate([=](auto log) KEL_INLINED {
        const uint64_t mask_format = mask->format & ~KEL_BITS;
        char fmt[kel_fmt_text_size];
        int valid = thread_valid(ctx, log);
        valid &= flags_valid(ctx, flags, KEL_PAD, 0, version, log);
        valid &= chain_valid(ctx, queue, flags, target, version, log);
        valid &= src_valid(ctx, src, 0, KEL_RLE, "src", version, log);
        valid &= dst_valid(ctx, dst, 0, 0, version, log);
        valid &= kel_test(log, mask_format == 0, ctx, "Invalid mask format: %s; must be KEL_BITS",
                          fmt_str(ctx, mask_format, fmt, sizeof fmt));
        // Kept: the width as it was given, so that 1 byte is refused as "1".
        valid &= kel_test(log, kel_width_bits(mask) == 1, ctx, "Invalid mask width %u; must be 1", mask->elem_width);
        valid &=
            kel_test(log, mask->offset <= kel_max_offset, ctx, "Invalid mask offset %u; must be < 8", mask->offset);
        valid &=
            kel_test(log, mask->elements >= src->elements, ctx,
                     "mask element count %lu is smaller than src element count %lu", mask->elements, src->elements);
        return valid;
    });
}

static int select_valid_extra(kel_context_t *ctx, uint64_t, const kel_vec_t *src, const kel_vec_t *dst,
                              const kel_vec_t *mask)
{
    const bool overlap = vec_overlap(src, dst) || vec_overlap(dst, mask);
    const unsigned long ones = bit_popc(mask->data, mask->offset, src->elements);
    int valid = kel_test(1, !overlap, ctx, "src, dst or mask address range overlap");
    valid &= kel_test(1, dst->elements >= ones, ctx, "dst elements too small");
    return valid;
}

struct select_op {
    struct args {
        const kel_vec_t *src;
        const kel_vec_t *dst;
        const kel_vec_t *mask;
    };

    static bool given(kel_context_t *ctx, const args &a)
    {
        return kel_given(ctx, {{"src", a.src}, {"dst", a.dst}, {"mask", a.mask}});
    }

    static constexpr char return_format[] = "kel_select() returns {%s, count=%ld}";
    static constexpr char post_return_format[] = "kel_select_post() returns %s";

    // The arguments as entry lines show them.
    struct texts {
        texts(kel_context_t *ctx, uint64_t flags, const args &a)
        {
            entry_args_str(ctx, flags, a.src, a.dst, vectors, sizeof vectors);
            src_vec_str(ctx, a.mask, mask, sizeof mask);
        }

        char vectors[kel_args_text_size];
        char mask[kel_args_text_size];
    };

    static void log_entry(kel_context_t *ctx, uint64_t flags, const args &a)
    {
        const texts t(ctx, flags, a);
        kel_log_msg(ctx, KEL_LOG_ENTRY, "kel_select(): %s,\n  mask = %s", t.vectors, t.mask);
    }

    static void log_post_entry(kel_context_t *ctx, uint64_t flags, const args &a, const void *udata)
    {
        const texts t(ctx, flags, a);
        kel_log_msg(ctx, KEL_LOG_ENTRY, "kel_select_post(): %s,\n  mask = %s,\n  udata = 0x%lx", t.vectors, t.mask,
                    kel_log_ptr(udata));
    }

    static int valid(kel_context_t *ctx, uint64_t flags, const args &a, kel_queue_t *queue, unsigned version)
    {
        return select_valid(ctx, flags, a.src, a.dst, a.mask, queue, version);
    }

    static int valid_extra(kel_context_t *ctx, uint64_t flags, const args &a)
    {
        return select_valid_extra(ctx, flags, a.src, a.dst, a.mask);
    }

    static kel_status_t emulate(kel_context_t *ctx, uint64_t flags, const args &a, cca_t *cca)
    {
        return kel_select_emulate(ctx, flags, a.src, a.dst, a.mask, cca);
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
        request->cmd = KEL_CMD_SELECT;
        request->src = *a.src;
        request->dst = *a.dst;
        request->arg.select = {*a.mask};
    }
};

kel_result_t kel_select(kel_context_t *ctx, uint64_t flags, const kel_vec_t *src, const kel_vec_t *dst,
                        const kel_vec_t *mask)
{
    return kel_execute<select_op>(ctx, flags, {src, dst, mask});
}

kel_status_t kel_select_post(kel_queue_t *queue, uint64_t flags, const kel_vec_t *src, const kel_vec_t *dst,
                             const kel_vec_t *mask, void *udata)
{
    return kel_post<select_op>(queue, flags, {src, dst, mask}, udata);
}
