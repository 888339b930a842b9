// The public calls of queues, and the storing of a finished request.
#include "kel_frame.h"
#include <cstring>

namespace
{

// The owner test of the calls that KEL_DEBUG_ARG alone arms.
bool bad_arg_thread(kel_context_t *ctx)
{
    return ctx->debug_options & KEL_DEBUG_ARG && bad_thread_return(ctx);
}

bool empty(const kel_queue_t *queue)
{
    return queue->rindx == queue->findx;
}

bool report_empty(const kel_queue_t *queue)
{
    if (!empty(queue))
        return false;
    kel_report(queue->ctx, "Queue is empty");
    return true;
}

void release(kel_context_t *ctx, kel_queue_t *queue, kel_queue_list_t *node)
{
    if (queue)
        kel_free(ctx, queue, sizeof *queue);
    if (node)
        kel_free(ctx, node, sizeof *node);
}

// The node whose successor is the queue's node, or with a null queue the last one; null if that is the head of the
// list.
kel_queue_list_t *node_before(kel_context_t *ctx, const kel_queue_t *queue)
{
    kel_queue_list_t *before = nullptr;
    for (kel_queue_list_t *node = ctx->qlist; node && node->queue != queue; node = node->next)
        before = node;
    return before;
}

void set_next(kel_context_t *ctx, kel_queue_list_t *node, kel_queue_list_t *next)
{
    if (node)
        node->next = next;
    else
        ctx->qlist = next;
}

kel_status_t create(kel_context_t *ctx, int qlen, kel_queue_t **made)
{
    if (bad_thread_return(ctx))
        return KEL_ETHREAD;
    if (qlen <= 0 || !kel_given(ctx, {{"queue", made}}))
        return KEL_EINVAL;
    if (ctx->closing) { // or a log callback that creates queues would keep its context from closing
        kel_report(ctx, "A context that is being closed takes no new queues");
        return KEL_EINVAL;
    }
    auto *queue = static_cast<kel_queue_t *>(kel_calloc(ctx, 1, sizeof(kel_queue_t)));
    auto *node = static_cast<kel_queue_list_t *>(kel_calloc(ctx, 1, sizeof(kel_queue_list_t)));
    if (!queue || !node || kel0_queue_create(ctx, qlen, queue) != KEL_SUCCESS) {
        release(ctx, queue, node);
        return KEL_ENOMEM;
    }
    queue->ctx = ctx;
    queue->serial_indx = -1;
    queue->cond_indx = -1;
    node->queue = queue;
    set_next(ctx, node_before(ctx, nullptr), node);
    *made = queue;
    return KEL_SUCCESS;
}

kel_status_t destroy(kel_queue_t *queue)
{
    kel_context_t *ctx = queue->ctx;
    if (bad_thread_return(ctx))
        return KEL_ETHREAD;
    kel_queue_list_t *before = node_before(ctx, queue);
    kel_queue_list_t *node = before ? before->next : ctx->qlist;
    if (node)
        set_next(ctx, before, node->next);
    (void)kel0_queue_destroy(queue);
    release(ctx, queue, node);
    return KEL_SUCCESS;
}

int poll(kel_queue_t *queue, kel_poll_t *results, int nres, int64_t timeout, int do_log)
{
    if (bad_arg_thread(queue->ctx))
        return KEL_ETHREAD;
    if (report_empty(queue))
        return KEL_EQEMPTY;
    if (nres != 0 && !kel_given(queue->ctx, {{"results", results}}))
        return KEL_EINVAL;
    // A negative capacity is widened with its sign, and so means no limit.
    return kel0_poll(queue, results, static_cast<size_t>(int64_t{nres}), timeout, do_log);
}

kel_status_t cancel_all(kel_queue_t *queue, int do_log)
{
    if (bad_arg_thread(queue->ctx))
        return KEL_ETHREAD;
    return report_empty(queue) ? KEL_EQEMPTY : kel0_cancel_all(queue, do_log);
}

// Moves the live slots to the front. Kept: serial_indx and cond_indx are not adjusted, so that the rules of chains may
// see a number that now belongs to another slot.
void compact(kel_queue_t *queue)
{
    const int live = queue->rindx - queue->findx;
    memmove(queue->state, queue->state + queue->findx, static_cast<size_t>(live) * sizeof *queue->state);
    queue->rindx = live;
    queue->findx = 0;
}

} // namespace

kel_status_t kel_queue_create(kel_context_t *ctx, int qlen, kel_queue_t **queue)
{
    kel_log_line(ctx, KEL_LOG_ENTRY, "kel_queue_create(): ctx=0x%lx, qlen=%d, &queue=0x%lx", kel_log_ptr(ctx), qlen,
                 kel_log_ptr(queue));
    const kel_status_t status = create(ctx, qlen, queue);
    kel_log_line(ctx, KEL_LOG_RETURN, "kel_queue_create returns queue=0x%lx and status %s",
                 kel_log_ptr(status == KEL_SUCCESS ? *queue : nullptr), kel_status_str(status));
    return status;
}

kel_status_t kel_queue_destroy(kel_queue_t *queue)
{
    kel_context_t *ctx = queue->ctx;
    kel_log_line(ctx, KEL_LOG_ENTRY, "kel_queue_destroy(): queue=0x%lx\n", kel_log_ptr(queue));
    const kel_status_t status = destroy(queue);
    kel_log_line(ctx, KEL_LOG_RETURN, "kel_queue_destroy() returns %s", kel_status_str(status));
    return status;
}

int kel_poll(kel_queue_t *queue, kel_poll_t *results, int nres, int64_t timeout)
{
    kel_context_t *ctx = queue->ctx;
    kel_log_line(ctx, KEL_LOG_ENTRY, "kel_poll(): queue=0x%lx, nres=%ld, timeout=%ld", kel_log_ptr(queue), long{nres},
                 timeout);
    const int polled = poll(queue, results, nres, timeout, kel_do_log(ctx));
    kel_log_line(ctx, KEL_LOG_RETURN, "kel_poll() returns {%s, num_completed=%d}",
                 kel_status_str(polled < 0 ? polled : 0), polled < 0 ? 0 : polled);
    return polled;
}

kel_status_t kel_cancel(kel_queue_t *queue, void *udata)
{
    kel_context_t *ctx = queue->ctx;
    kel_log_line(ctx, KEL_LOG_ENTRY, "kel_cancel(): queue=0x%lx, udata=0x%lx", kel_log_ptr(queue), kel_log_ptr(udata));
    const kel_status_t status = bad_arg_thread(ctx) ? KEL_ETHREAD : kel0_cancel(queue, udata, kel_do_log(ctx));
    kel_log_line(ctx, KEL_LOG_RETURN, "kel_cancel() returns %s", kel_status_str(status));
    return status;
}

kel_status_t kel_cancel_all(kel_queue_t *queue)
{
    kel_context_t *ctx = queue->ctx;
    kel_log_line(ctx, KEL_LOG_ENTRY, "kel_cancel_all(): queue=0x%lx", kel_log_ptr(queue));
    const kel_status_t status = cancel_all(queue, kel_do_log(ctx));
    kel_log_line(ctx, KEL_LOG_RETURN, "kel_cancel_all() returns %s", kel_status_str(status));
    return status;
}

bool queue_full(kel_queue_t *queue)
{
    if (queue->nitems != queue->size)
        return false;
    kel_report(queue->ctx, "Queue 0x%lx is full", kel_log_ptr(queue));
    return true;
}

kel_status_t queue_get_next(kel_queue_t *queue, uint64_t flags, const cca_t *cca, kel_status_t status, void *udata,
                            void *pipe_dst)
{
    if (queue_full(queue)) [[unlikely]]
        return KEL_EQFULL;
    if (empty(queue)) {
        queue->rindx = 0;
        queue->findx = 0;
        queue->cond_indx = -1;
        queue->serial_indx = -1;
    }
    if (static_cast<uint32_t>(queue->rindx) >= queue->size)
        compact(queue);

    ccb_state_t &slot = queue->state[queue->rindx];
    slot.cca = *cca;
    slot.udata = udata;
    slot.pipe_dst = pipe_dst;
    slot.status = status;
    if (flags & KEL_COND) {
        slot.serial_indx = queue->serial_indx;
        queue->cond_indx = queue->rindx;
    }
    if (flags & KEL_SERIAL)
        queue->serial_indx = queue->rindx;
    queue->last_pipe_flags = static_cast<int>(flags & KEL_PIPE_FLAGS);
    queue->rindx++;
    queue->nitems++;
    return KEL_SUCCESS;
}

int debug_sync_check(kel_context_t *ctx)
{
    for (const kel_queue_list_t *node = ctx->qlist; node; node = node->next) {
        if (!empty(node->queue)) {
            // At least one option is on whenever error logging is, so the level is the only test of the line.
            kel_report(ctx, "kel_set_debug(): Queue 0x%lx has outstanding requests that have not been polled",
                       kel_log_ptr(node->queue));
            return 0;
        }
    }
    return 1;
}
