// The road of an operation, from the exported function to its work and back, written once for all operations.
//
//   kel_copy, ...   what the public header declares: kel_execute reads the context's options and picks a body
//   kel_il          entry line, validation, return line, for one interface version; with all options off the road is
//                   bare, and goes straight on
//   exec            an empty completion record, the emulation, the diagnosis of a failure
//   op::emulate     the operation's own work
//
// An operation is a struct that holds only what is its own:
//
//   args            its arguments after the flags
//   given(ctx, args)                          whether no record that the call reads is null; only where there are any
//   return_format                             the text of its return line, for a status word and a count
//   post_return_format                        that of its posted form, for a status word
//   log_entry(ctx, flags, args)
//   log_post_entry(ctx, flags, args, udata)
//   valid(ctx, flags, args, queue, version)   argument tests; the queue of a posted request, or null
//   valid_extra(ctx, flags, args)             tests that depend on the data
//   emulate(ctx, flags, args, cca)
//   diagnosed(args)                           the source that is looked at after a failure; only where there is one
//   pipe_dst(args)                            the output that the next request of a pipeline may read, or null
//   emulate_post(ctx, flags, args, cca)       only where the posted form does its work in another way
//   name(args)                                the first argument of the return lines; where operations share a struct
//   request(args, request)                    fills in what trace probes show; only where the operation has a probe
//
// A posted request takes the same road to its emulation by kel_post and kel_post_il; post leaves its outcome in a slot
// of the queue.
#pragma once

#include "kel_limits.h"
#include "kel_queue.h"
#include "kel_text.h"
#include "kel_timers.h"
#include "kel_vector.h"
#include <initializer_list>
#include <type_traits>

// Whether the calling thread owns the context.
inline bool kel_owner(const kel_context_t *ctx)
{
    return pthread_equal(pthread_self(), ctx->thread->tid);
}

// The line of a failed owner test, if error logging is on.
void log_wrong_thread(kel_context_t *ctx);

// The owner test as one test of a validator.
inline int thread_valid(kel_context_t *ctx, int do_log)
{
    if (kel_owner(ctx)) [[likely]]
        return 1;
    if (do_log) {
        log_wrong_thread(ctx);
        kel_debug();
    }
    return 0;
}

// The owner test of the calls that have no validator: any debug option arms it. True: return KEL_ETHREAD.
bool bad_thread_return(kel_context_t *ctx);

// An argument that the call reads or writes through, and its name in the manual.
struct named_t {
    const char *name;
    const void *pointer;
};

void report_null(kel_context_t *ctx, const char *name);

// Whether none of these is null, as far as arguments are validated. It is the first test of all, before the entry line,
// which reads what they point to: the first null one is reported.
inline bool kel_given(kel_context_t *ctx, std::initializer_list<named_t> arguments)
{
    if (ctx->debug_options & KEL_DEBUG_ARG)
        for (const named_t &argument : arguments)
            if (!argument.pointer) [[unlikely]] {
                report_null(ctx, argument.name);
                return false;
            }
    return true;
}

template <class Op>
inline bool kel_arguments_given(kel_context_t *ctx, const typename Op::args &args)
{
    if constexpr (requires { Op::given(ctx, args); })
        return Op::given(ctx, args);
    else
        return true;
}

// Runs the tests of a validator. tests(do_log) makes all its tests in the order of their reports, each with do_log, and
// answers 1 when none failed. The first pass is silent; only if something failed does a second one report. So every
// fault of a call is reported, in a fixed order, and a good call pays for the comparisons alone: do_log is a constant
// of each pass, and what is marked KEL_INLINED comes without its reports in the first.
#define KEL_INLINED __attribute__((always_inline))

template <class Tests>
__attribute__((noinline, cold)) void kel_report_faults(const Tests &tests)
{
    tests(std::true_type());
}

template <class Tests>
KEL_INLINED inline int kel_validate(const Tests &tests)
{
    if (tests(std::false_type())) [[likely]]
        return 1;
    kel_report_faults(tests);
    return 0;
}

// One test of a validator, with the report of its failure.
#define kel_test(do_log, passed, ctx, ...)                                                                             \
    ((passed) ? 1 : [&] {                                                                                              \
        if (do_log)                                                                                                    \
            kel_report(ctx, __VA_ARGS__);                                                                              \
        return 0;                                                                                                      \
    }())

template <class Op, unsigned version>
kel_status_t kel_check(kel_context_t *ctx, uint64_t flags, const typename Op::args &args, kel_queue_t *queue)
{
    if (ctx->debug_options & KEL_DEBUG_ARG && !Op::valid(ctx, flags, args, queue, version))
        return kel_owner(ctx) ? KEL_EINVAL : KEL_ETHREAD;
    if (ctx->debug_options & KEL_DEBUG_EXTRA && !Op::valid_extra(ctx, flags, args))
        return KEL_EINVAL;
    return KEL_SUCCESS;
}

template <class Op>
kel_result_t exec(kel_context_t *ctx, uint64_t flags, const typename Op::args &args)
{
    cca_t cca = {};
    const kel_status_t status = Op::emulate(ctx, flags, args, &cca);
    if constexpr (requires { Op::diagnosed(args); })
        if (status != KEL_SUCCESS)
            vec_diagnose(ctx, Op::diagnosed(args), status);
    return {status, 0, cca.retval};
}

// Presents an execution to trace probes, if the operation has one.
template <class Op>
void kel_probe(kel_context_t *ctx, uint64_t flags, const typename Op::args &args, kel_result_t result)
{
    if constexpr (requires(kel_request_t request) { Op::request(args, &request); }) {
        kel_request_t request = {};
        request.major = static_cast<uint8_t>(ctx->api_version);
        request.ctx = ctx;
        request.flags = flags;
        Op::request(args, &request);
        kel_probe_execute(ctx, &request, &result, &ctx->events);
    }
}

// The return line of a call; outcome is what its format shows.
template <class Op>
void log_return(kel_context_t *ctx, const typename Op::args &args, const char *format, auto... outcome)
{
    if constexpr (requires { Op::name(args); })
        kel_log_msg(ctx, KEL_LOG_RETURN, format, Op::name(args), outcome...);
    else
        kel_log_msg(ctx, KEL_LOG_RETURN, format, outcome...);
}

template <class Op, unsigned version>
kel_result_t kel_il(kel_context_t *ctx, uint64_t flags, const typename Op::args &args)
{
    if (!kel_arguments_given<Op>(ctx, args)) [[unlikely]]
        return {KEL_EINVAL, 0, 0};
    if (ctx->log.options & KEL_LOG_ENTRY)
        Op::log_entry(ctx, flags, args);
    const kel_status_t refused = kel_check<Op, version>(ctx, flags, args, nullptr);
    kel_result_t result = {refused, 0, 0};
    if (!refused) {
        result = exec<Op>(ctx, flags, args);
        if (ctx->debug_options & KEL_DEBUG_PERF) [[unlikely]]
            kel_probe<Op>(ctx, flags, args, result);
    }
    if (ctx->log.options & KEL_LOG_RETURN)
        log_return<Op>(ctx, args, Op::return_format, kel_status_str(result.status), static_cast<long>(result.count));
    return result;
}

// Whether a call takes the logging body.
inline bool kel_do_log(const kel_context_t *ctx)
{
    return (ctx->log.options & kel_log_levels) || ctx->debug_options;
}

template <class Op>
inline kel_result_t kel_execute(kel_context_t *ctx, uint64_t flags, const typename Op::args &args)
{
    if (!kel_do_log(ctx))
        return exec<Op>(ctx, flags, args);
    return ctx->api_version == 2 ? kel_il<Op, 2>(ctx, flags, args) : kel_il<Op, 1>(ctx, flags, args);
}

// ---- Posted requests ------------------------------------------------------------------------------------------------

template <class Op>
kel_status_t post(kel_queue_t *queue, uint64_t flags, const typename Op::args &args, void *udata)
{
    cca_t cca = {};
    kel_status_t status;
    if constexpr (requires { Op::emulate_post(queue->ctx, flags, args, &cca); })
        status = Op::emulate_post(queue->ctx, flags, args, &cca);
    else
        status = Op::emulate(queue->ctx, flags, args, &cca);
    return queue_get_next(queue, flags, &cca, status, udata, Op::pipe_dst(args));
}

// A full queue comes before every validation but that of null arguments. The operation's own outcome stays in its slot:
// a request that fails has been posted all the same.
template <class Op, unsigned version>
kel_status_t kel_post_il(kel_queue_t *queue, uint64_t flags, const typename Op::args &args, void *udata)
{
    kel_context_t *ctx = queue->ctx;
    if (!kel_arguments_given<Op>(ctx, args)) [[unlikely]]
        return KEL_EINVAL;
    if (ctx->log.options & KEL_LOG_ENTRY)
        Op::log_post_entry(ctx, flags, args, udata);
    kel_status_t status = queue_full(queue) ? KEL_EQFULL : kel_check<Op, version>(ctx, flags, args, queue);
    if (status == KEL_SUCCESS)
        status = post<Op>(queue, flags, args, udata);
    if (ctx->log.options & KEL_LOG_RETURN)
        log_return<Op>(ctx, args, Op::post_return_format, kel_status_str(status));
    return status;
}

template <class Op>
inline kel_status_t kel_post(kel_queue_t *queue, uint64_t flags, const typename Op::args &args, void *udata)
{
    const kel_context_t *ctx = queue->ctx;
    if (!kel_do_log(ctx))
        return queue_full(queue) ? KEL_EQFULL : post<Op>(queue, flags, args, udata);
    return ctx->api_version == 2 ? kel_post_il<Op, 2>(queue, flags, args, udata)
                                 : kel_post_il<Op, 1>(queue, flags, args, udata);
}
