// Queues of finished requests.
//
// A posted request runs to its end before the post call returns; its outcome waits in a slot until kel_poll reads it
// back, in the order of posting. The slots are a linear array: indexes grow until the queue empties or the array's end
// is reached, where the live slots move to the front.
#pragma once

#include "kel_cca.h"
#include "kel_init.h"

// One slot.
typedef struct KEL_ANYWHERE {
    cca_t cca;
    void *udata;
    void *pipe_dst;      // the request's output, which the next request of a pipeline must read
    int serial_indx;     // of a KEL_COND request: the queue's serial_indx at its post
    kel_status_t status; // the operation's own
} ccb_state_t;

struct KEL_ANYWHERE kel_queue {
    kel_context_t *ctx;
    uint32_t nitems;     // requests posted and not yet polled
    int findx;           // the oldest unpolled slot
    int rindx;           // where the next request goes; equal to findx when the queue is empty
    uint32_t size;       // capacity
    int serial_indx;     // the last KEL_SERIAL request, or -1
    int cond_indx;       // the last KEL_COND request, or -1
    int last_pipe_flags; // pipe flags of the last request posted
    ccb_state_t *state;  // the slots
};

// A node of the context's list of queues, in order of creation.
struct KEL_ANYWHERE kel_queue_list {
    kel_queue_t *queue;
    struct kel_queue_list *next;
};

// The generation layer.
kel_status_t kel0_queue_create(kel_context_t *ctx, int qlen, kel_queue_t *queue);
kel_status_t kel0_queue_destroy(kel_queue_t *queue);
int kel0_poll(kel_queue_t *queue, kel_poll_t *results, size_t nres, int64_t timeout, int do_log);
kel_status_t kel0_cancel(kel_queue_t *queue, const void *udata, int do_log);
kel_status_t kel0_cancel_all(kel_queue_t *queue, int do_log);

// Whether a queue has no free slot, which is reported.
bool queue_full(kel_queue_t *queue);

// Stores a finished request. KEL_EQFULL: a log callback of the request has taken the last slot meanwhile.
kel_status_t queue_get_next(kel_queue_t *queue, uint64_t flags, const cca_t *cca, kel_status_t status, void *udata,
                            void *pipe_dst);

// Whether all queues of a context are empty, as switching KEL_DEBUG_SYNC on requires.
int debug_sync_check(kel_context_t *ctx);
