// The generation layer of queues: slots in memory, and nothing that is ever in flight.
#include "kel_queue.h"
#include "kel_text.h"
#include <algorithm>

kel_status_t kel0_queue_create(kel_context_t *ctx, int qlen, kel_queue_t *queue)
{
    const auto size = static_cast<uint32_t>(qlen);
    queue->state = static_cast<ccb_state_t *>(kel_calloc(ctx, size, sizeof(ccb_state_t)));
    if (!queue->state)
        return KEL_ENOMEM;
    queue->size = size;
    return KEL_SUCCESS;
}

kel_status_t kel0_queue_destroy(kel_queue_t *queue)
{
    kel_free(queue->ctx, queue->state, queue->size * sizeof(ccb_state_t));
    return KEL_SUCCESS;
}

// An outcome has left its queue before it is logged, and no more are handed back than there were at the start: a log
// callback may have changed the queue.
int kel0_poll(kel_queue_t *queue, kel_poll_t *results, size_t nres, int64_t, int do_log)
{
    const size_t most = std::min<size_t>(nres, queue->nitems);
    int filled = 0;
    while (static_cast<size_t>(filled) < most && queue->findx < queue->rindx) {
        const ccb_state_t state = queue->state[queue->findx++];
        queue->nitems--;
        results[filled++] = {state.status, 0, state.cca.retval, state.udata};
        if (do_log)
            kel_log_line(queue->ctx, KEL_LOG_VERBOSE,
                         "cca = { status=%s,\n  out_bytes=%u, syms_processed=%u, retval=%u }",
                         kel_status_str(state.status), state.cca.output_sz, state.cca.n_processed,
                         static_cast<unsigned>(state.cca.retval)); // kept: the low 32 bits
    }
    return filled;
}

kel_status_t kel0_cancel(kel_queue_t *queue, const void *udata, int)
{
    for (int slot = queue->findx; slot < queue->rindx; slot++)
        if (queue->state[slot].udata == udata)
            return KEL_SUCCESS;
    return KEL_ENOMATCH;
}

kel_status_t kel0_cancel_all(kel_queue_t *, int)
{
    return KEL_SUCCESS;
}
