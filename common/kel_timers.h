// Counters, timers, and the trace probes that present executions.
#pragma once

#include "kel.h"

// Counters of the last execution. No coprocessor counts here, so they stay zero.
typedef struct {
    uint64_t frequency; // clock of the coprocessor in MHz; 0 without one
    uint64_t cycles;
    uint32_t page;    // page events
    uint32_t emulate; // set when the request was emulated
    uint32_t nomap;   // mapping failures
    uint32_t copy;    // set when data was copied
    uint32_t retry;
    uint32_t split;
    uint32_t unzip; // set when a compressed source was expanded in software
} kel_perf_event_t;

void kel_events_init(const kel_context_t *ctx, kel_perf_event_t *events);
// Zeroes all but the frequency.
void kel_events_reset(kel_perf_event_t *events);
// Adds what is counted, joins what is set, keeps the frequency.
void kel_events_add(kel_perf_event_t *to, const kel_perf_event_t *from);

// The static probes kel-execute and kel-poll. An ordinary tracer attaches to them by the notes in the library; with
// none attached a site is one no-op. The events are reset behind the probe.
void kel_probe_execute(kel_context_t *ctx, kel_request_t *request, kel_result_t *result, kel_perf_event_t *events);
void kel_probe_poll(kel_context_t *ctx, kel_request_t *request, kel_result_t *result, kel_perf_event_t *events);

typedef struct {
    uint64_t start;
    uint32_t time; // accumulated
} kel_timer_t;

inline constexpr unsigned kel_timers = 9;

typedef struct {
    uint64_t ncalls;
    kel_timer_t timers[kel_timers];
} kel_perf_t;

// The timers of the process. Nothing starts them.
extern kel_perf_t kel_perf;

// Prints the timers that ran, for each call; nothing without calls.
void kel_timer_print(void);
// Prints them at the end of the process.
void kel_timer_enable(void);
