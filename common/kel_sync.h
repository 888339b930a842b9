// The rules of chains: which requests may follow one another in a queue.
//
// KEL_SERIAL and KEL_COND say that a request depends on the one before it, the pipe flags that one's output is the next
// one's input. Nothing runs differently for it: every posted request has finished when the next one comes. The rules
// see to it that a chain that passes here is well-formed for a coprocessor, too.
//
// Each test answers 1 for valid, 0 for not, and reports if do_log says so.
#pragma once

#include "kel_frame.h"
#include "kel_limits.h"

// What an operation is as the target of a pipeline: the buffers of the call at hand that a source may feed, null where
// it has none, and the operation's own rule.
typedef struct {
    const kel_vec_t *src;
    const kel_vec_t *mask;  // the mask or bitmap
    const void *src_buffer; // the source of an operation that takes no vectors
    uint64_t follows;       // pipe flags of the sources that the operation may follow; any other bit is refused
    const char *refusal;    // in these words
} pipe_target_t;

// A synchronous call may carry none of the flags.
KEL_INLINED inline int sync_flags_valid_nopost(kel_context_t *ctx, uint64_t flags, unsigned version, int do_log)
{
    const uint64_t bad = flags & kel_sync_flags(version);
    char text[kel_sync_flags_text_size];
    return kel_test(do_log, bad == 0, ctx, "Synchronization flags must not be set for non-post functions: flags = %s\n",
                    flags_str(ctx, bad, text, sizeof text));
}

// The whole rule of a posted request: synchronisation, pipeline, and the operation's own.
int chain_valid_post(kel_context_t *ctx, kel_queue_t *queue, uint64_t flags, const pipe_target_t &target,
                     unsigned version, int do_log);

// Either of these: a synchronous call has no queue.
KEL_INLINED inline int chain_valid(kel_context_t *ctx, kel_queue_t *queue, uint64_t flags, const pipe_target_t &target,
                                   unsigned version, int do_log)
{
    return queue ? chain_valid_post(ctx, queue, flags, target, version, do_log)
                 : sync_flags_valid_nopost(ctx, flags, version, do_log);
}

// Whether the pipe flags are one of the legal values.
bool pipe_flags_legal(uint64_t flags);

int sync_flags_valid(kel_context_t *ctx, kel_queue_t *queue, uint64_t flags, unsigned version, int do_log);
int sync_flags_valid_post0(kel_queue_t *queue, uint64_t flags, int do_log);
int sync_flags_valid_post(kel_queue_t *queue, uint64_t flags, unsigned version, int do_log);

// Version 1 has no pipelines and passes, and so does a call without a queue.
int pipe_flags_valid(kel_context_t *ctx, kel_queue_t *queue, uint64_t flags, const kel_vec_t *src,
                     const kel_vec_t *mask, const void *src_buffer, unsigned version, int do_log);
int pipe_flags_valid_post0(kel_queue_t *queue, uint64_t flags, const kel_vec_t *src, const kel_vec_t *mask,
                           const void *src_buffer, int do_log);
