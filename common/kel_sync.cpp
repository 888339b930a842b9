// The rules of chains.
//
// The queue's indexes are reset only when the next request is stored, so that the rules see through a drained queue:
// after all has been polled, a serial request still demands its conditional successor.
#include "kel_sync.h"

int sync_flags_valid_post0(kel_queue_t *queue, uint64_t flags, int do_log)
{
    const int last = queue->rindx - 1;
    const bool cond = flags & KEL_COND;
    const bool after_serial = last >= 0 && queue->serial_indx == last;
    const bool after_cond = last >= 0 && queue->cond_indx == last;
    const int valid =
        kel_test(do_log, cond || !after_serial, queue->ctx, "KEL_SERIAL request not followed by a KEL_COND request");
    return valid & kel_test(do_log, !cond || after_serial || after_cond, queue->ctx,
                            "KEL_COND request has no KEL_SERIAL predecessor");
}

int sync_flags_valid_post(kel_queue_t *queue, uint64_t flags, unsigned, int do_log)
{
    return sync_flags_valid_post0(queue, flags, do_log);
}

int sync_flags_valid(kel_context_t *ctx, kel_queue_t *queue, uint64_t flags, unsigned version, int do_log)
{
    return queue ? sync_flags_valid_post(queue, flags, version, do_log)
                 : sync_flags_valid_nopost(ctx, flags, version, do_log);
}

bool pipe_flags_legal(uint64_t flags)
{
    const uint64_t pipe = flags & KEL_PIPE_FLAGS;
    return pipe == 0 || pipe == KEL_PIPE_SRC || pipe == KEL_PIPE_AUX || pipe == KEL_PIPE_MASK;
}

// The buffer that a source with these pipe flags feeds.
static const void *fed_buffer(uint64_t pipe_flags, const kel_vec_t *src, const kel_vec_t *mask, const void *src_buffer)
{
    switch (pipe_flags) {
    case KEL_PIPE_MASK:
        return mask ? mask->data : nullptr;
    case KEL_PIPE_SRC:
        return src_buffer ? src_buffer : src ? src->data : nullptr;
    case KEL_PIPE_AUX:
        return src ? src->aux_data : nullptr;
    default:
        return nullptr;
    }
}

int pipe_flags_valid_post0(kel_queue_t *queue, uint64_t flags, const kel_vec_t *src, const kel_vec_t *mask,
                           const void *src_buffer, int do_log)
{
    if (!kel_test(do_log, pipe_flags_legal(flags), queue->ctx,
                  "Pipeline flag set incorrectly. Use one of KEL_PIPE_SRC, KEL_PIPE_MASK, or KEL_PIPE_AUX"))
        return 0;
    if (queue->rindx <= 0 || queue->last_pipe_flags == 0)
        return 1;
    const void *source = queue->state[queue->rindx - 1].pipe_dst;
    const void *target = fed_buffer(static_cast<uint64_t>(queue->last_pipe_flags), src, mask, src_buffer);
    return kel_test(do_log, source == target, queue->ctx,
                    "This request is a pipeline target, and src buffer 0x%lx != dst buffer 0x%lx of pipeline source; "
                    "they must match",
                    kel_log_ptr(target), kel_log_ptr(source));
}

int pipe_flags_valid(kel_context_t *, kel_queue_t *queue, uint64_t flags, const kel_vec_t *src, const kel_vec_t *mask,
                     const void *src_buffer, unsigned version, int do_log)
{
    if (version == 1 || !queue)
        return 1;
    return pipe_flags_valid_post0(queue, flags, src, mask, src_buffer, do_log);
}

int chain_valid_post(kel_context_t *ctx, kel_queue_t *queue, uint64_t flags, const pipe_target_t &target,
                     unsigned version, int do_log)
{
    const auto last = static_cast<uint64_t>(queue->last_pipe_flags);
    int valid = sync_flags_valid(ctx, queue, flags, version, do_log);
    valid &= pipe_flags_valid(ctx, queue, flags, target.src, target.mask, target.src_buffer, version, do_log);
    valid &= kel_test(do_log, !(last & ~target.follows), ctx, "%s", target.refusal);
    return valid;
}
