// kel_nop: the operation that does nothing, so that synchronisation can be expressed by itself.
#include "kel_frame.h"
#include "kel_valid.h"

static constexpr pipe_target_t no_target = {nullptr, nullptr, nullptr, 0, "kel_nop_post() cannot be a pipeline target"};

static int nop_valid(kel_context_t *ctx, uint64_t flags, kel_queue_t *queue, unsigned version)
{
    return kel_validate([=](auto do_log) KEL_INLINED {
        int valid = flags_valid(ctx, flags, 0, KEL_CACHE | KEL_NOWAIT, version, do_log);
        valid &= chain_valid(ctx, queue, flags, no_target, version, do_log);
        return valid;
    });
}

static int nop_valid_extra(kel_context_t *, uint64_t)
{
    return 1;
}

static kel_status_t kel_nop_emulate(kel_context_t *, uint64_t, cca_t *cca)
{
    *cca = {};
    return KEL_SUCCESS;
}

struct nop_op {
    struct args {
    };

    static constexpr char return_format[] = "kel_nop() returns {%s, count=%ld}";
    static constexpr char post_return_format[] = "kel_nop_post() returns {%s}";

    static void log_entry(kel_context_t *ctx, uint64_t, const args &)
    {
        kel_log_msg(ctx, KEL_LOG_ENTRY, "kel_nop()");
    }

    static void log_post_entry(kel_context_t *ctx, uint64_t, const args &, const void *udata)
    {
        kel_log_msg(ctx, KEL_LOG_ENTRY, "kel_nop_post()\n  udata = 0x%lx", kel_log_ptr(udata));
    }

    static int valid(kel_context_t *ctx, uint64_t flags, const args &, kel_queue_t *queue, unsigned version)
    {
        return nop_valid(ctx, flags, queue, version);
    }

    static int valid_extra(kel_context_t *ctx, uint64_t flags, const args &)
    {
        return nop_valid_extra(ctx, flags);
    }

    static kel_status_t emulate(kel_context_t *ctx, uint64_t flags, const args &, cca_t *cca)
    {
        return kel_nop_emulate(ctx, flags, cca);
    }

    static void *pipe_dst(const args &)
    {
        return nullptr;
    }
};

kel_result_t kel_nop(kel_context_t *ctx, uint64_t flags)
{
    return kel_execute<nop_op>(ctx, flags, {});
}

kel_status_t kel_nop_post(kel_queue_t *queue, uint64_t flags, void *udata)
{
    return kel_post<nop_op>(queue, flags, {}, udata);
}
