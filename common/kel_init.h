// Contexts, the record of the thread that owns them, and the memory services of both.
#pragma once

#include "kel_log.h"
#include "kel_timers.h"
#include <pthread.h>

typedef struct kel_thread kel_thread_t;
typedef struct kel_queue_list kel_queue_list_t;
struct kernel_set_t;

struct alignas(64) kel_context {
    uint32_t api_version; // major number of the interface, 1 or 2
    uint32_t api_minor;
    uint32_t kel_version; // generation of the coprocessor; 0: there is none
    uint32_t debug_options;
    kel_log_t log;
    kel_init_options_t *init_options; // the client's allocator, or null for the system's
    kel_thread_t *thread;             // the owner's record; null once detached
    kel_queue_list_t *qlist;          // the queues of this context, oldest first
    kel_perf_event_t events;
    bool closing;                // kel_thread_fini is at work
    const kernel_set_t *kernels; // what kernels are made of; null: elements are walked one by one, by plain code
};

// The producers for the widest vectors that this processor has.
const kernel_set_t *kel_widest_set();

// A record that stands wherever a client's allocator puts it, which need not be a multiple of anything.
#define KEL_ANYWHERE __attribute__((packed))

typedef struct KEL_ANYWHERE kel_ctx_list {
    kel_context_t *ctx;
    struct kel_ctx_list *next_ctx;
} kel_ctx_list_t;

// One for each thread that has a context, found through a thread-specific key. Allocated through the context that
// creates it, at kel_thread_align.
struct kel_thread {
    uint16_t kel_version; // generation of the coprocessor; 0: there is none
    int refc;             // contexts attached
    pthread_t tid;        // the owner
    kel_ctx_list_t *ctxl_head;
};

inline constexpr size_t kel_thread_align = 8192;

kel_status_t kel_thread_create(kel_context_t *ctx, uint32_t unused, kel_thread_t **thread);
kel_status_t kel_thread_destroy(kel_thread_t *thread, kel_context_t *ctx);
kel_status_t kel_thread_attach(kel_context_t *ctx, uint32_t unused);
kel_status_t kel_thread_detach(kel_context_t *ctx);
void kel_thread_data_destroy(void *thread);

// The generation layer: 0 is the library alone, 1 and 2 stand for coprocessors and refuse.
kel_status_t kel0_thread_create(kel_context_t *ctx, kel_thread_t *thread);
kel_status_t kel0_thread_destroy(kel_thread_t *thread, kel_context_t *ctx);
kel_status_t kel1_thread_create(kel_context_t *ctx, kel_thread_t *thread);
kel_status_t kel1_thread_destroy(kel_thread_t *thread, kel_context_t *ctx);

// The published limits of an interface version.
void kel1_get_props(kel_context_t *ctx, kel_props_t *props);
void kel2_get_props(kel_context_t *ctx, kel_props_t *props);

// Memory services. A null context, or one without an allocator of its own, means the system's functions. With a
// client's allocator kel_free needs the very size that the block was asked with. A null result is reported at error
// level, but for the system's valloc.
void *kel_malloc(kel_context_t *ctx, size_t size);
void *kel_calloc(kel_context_t *ctx, size_t count, size_t size);
void *kel_memalign(kel_context_t *ctx, size_t align, size_t size);
void *kel_valloc(kel_context_t *ctx, size_t size);
void kel_free(kel_context_t *ctx, void *block, size_t size);
