// Counters, timers, and the trace probes that present executions.
#include "kel_timers.h"
#include "kel_init.h"
#include "kel_sdt.h"
#include <cstdio>
#include <cstdlib>

kel_perf_t kel_perf;

void kel_events_init(const kel_context_t *ctx, kel_perf_event_t *events)
{
    constexpr uint64_t coprocessor_clock = 1800;
    events->frequency = ctx->kel_version == 1 || ctx->kel_version == 2 ? coprocessor_clock : 0;
    kel_events_reset(events);
}

void kel_events_reset(kel_perf_event_t *events)
{
    *events = {.frequency = events->frequency,
               .cycles = 0,
               .page = 0,
               .emulate = 0,
               .nomap = 0,
               .copy = 0,
               .retry = 0,
               .split = 0,
               .unzip = 0};
}

void kel_events_add(kel_perf_event_t *to, const kel_perf_event_t *from)
{
    to->cycles += from->cycles;
    to->page += from->page;
    to->emulate |= from->emulate;
    to->nomap += from->nomap;
    to->copy |= from->copy;
    to->retry += from->retry;
    to->split += from->split;
    to->unzip |= from->unzip;
}

// What a probe tells first: version, minor version and command in one word.
static uint64_t probe_word(const kel_context_t *ctx, const kel_request_t *request)
{
    return uint64_t{ctx->api_version} << 24 | uint64_t{ctx->api_minor} << 16 |
           static_cast<uint64_t>(int64_t{request->cmd});
}

// Both sites share a section, so that the one that nothing calls is not dropped at linking.
#define PROBE_SITE __attribute__((noinline, section(".text.kel_probe")))

PROBE_SITE void kel_probe_execute(kel_context_t *ctx, kel_request_t *request, kel_result_t *result,
                                  kel_perf_event_t *events)
{
    KEL_SDT_PROBE4("kel", "kel-execute", probe_word(ctx, request), request, result, events);
    kel_events_reset(events);
}

PROBE_SITE void kel_probe_poll(kel_context_t *ctx, kel_request_t *request, kel_result_t *result,
                               kel_perf_event_t *events)
{
    KEL_SDT_PROBE4("kel", "kel-poll", probe_word(ctx, request), request, result, events);
    kel_events_reset(events);
}

void kel_timer_print(void)
{
    constexpr unsigned cycles = 1; // the timer that counts cycles; the others count nanoseconds
    static constexpr const char *names[kel_timers] = {
        "", "kel_cycles", "kel_execute_one", "kel_submit", "kel_cca_free", "mwait", "post", "poll", "kel_execute",
    };
    if (kel_perf.ncalls == 0)
        return;
    printf("kel_perf: %20s : %4ld\n", "kel_calls", static_cast<long>(kel_perf.ncalls));
    for (unsigned i = 0; i < kel_timers; i++) {
        const auto each = static_cast<long>(kel_perf.timers[i].time / kel_perf.ncalls);
        if (kel_perf.timers[i].time != 0)
            printf(i == cycles ? "kel_perf: %20s : %4ld cycles/call\n" : "kel_perf: %20s : %4ld ns/call\n", names[i],
                   each);
    }
}

void kel_timer_enable(void)
{
    atexit(kel_timer_print);
}
