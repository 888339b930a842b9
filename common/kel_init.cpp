// Opening and closing of contexts, and the record that ties them to their thread.
#include "kel_frame.h"
#include "kel_options.h"
#include "kel_platform.h"
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace
{

constexpr uint32_t init_option_bits = 3; // KEL_ALLOC, and a bit without effect
constexpr uint32_t minor_version = 1;

// What attaching returns when the first block cannot be had: a plain number, kept because clients may test for it.
constexpr auto no_list_node = static_cast<kel_status_t>(12);

constexpr auto no_key = static_cast<pthread_key_t>(-1);
std::atomic<pthread_key_t> kel_pthread_key{no_key};
int key_error; // why the key could not be created; written once, under key_once
pthread_once_t key_once = PTHREAD_ONCE_INIT;

void create_key()
{
    pthread_key_t key;
    key_error = pthread_key_create(&key, kel_thread_data_destroy);
    if (key_error == 0)
        kel_pthread_key.store(key, std::memory_order_release);
}

kel_thread_t *thread_of_key()
{
    const pthread_key_t key = kel_pthread_key.load(std::memory_order_acquire);
    return key == no_key ? nullptr : static_cast<kel_thread_t *>(pthread_getspecific(key));
}

// Sets the calling thread's record; a failure is reported through ctx, which may be null.
bool set_thread_of_key(kel_thread_t *thread, kel_context_t *ctx)
{
    if (pthread_setspecific(kel_pthread_key.load(std::memory_order_acquire), thread) == 0)
        return true;
    // Kept: the text is that of errno, not of the returned number.
    kel_report(ctx, "Failed to set thread data for key with error: %s", strerror(errno));
    return false;
}

// Reports a failure before there is a context, and answers its status.
#define init_failed(status, ...) (kel_log_msg(nullptr, KEL_LOG_ERROR, __VA_ARGS__), kel_debug(), (status))

// The last steps in the making of a thread record: the key, and the record under it.
kel_status_t publish(kel_context_t *ctx, kel_thread_t *thread)
{
    pthread_once(&key_once, create_key);
    if (key_error != 0) {
        kel_report(ctx, "pthread_key_create() failed with error: %s", strerror(key_error));
        return KEL_EINTERNAL;
    }
    return set_thread_of_key(thread, ctx) ? KEL_SUCCESS : KEL_EINTERNAL;
}

void release_thread(kel_thread_t *thread, kel_context_t *ctx)
{
    kel_free(ctx, thread, sizeof *thread);
}

// Takes the context's node out of the thread's list and answers it, or null.
kel_ctx_list_t *unlink_node(kel_thread_t *thread, const kel_context_t *ctx)
{
    kel_ctx_list_t *before = nullptr;
    kel_ctx_list_t *node = thread->ctxl_head;
    while (node && node->ctx != ctx) {
        before = node;
        node = node->next_ctx;
    }
    if (node && before)
        before->next_ctx = node->next_ctx;
    else if (node)
        thread->ctxl_head = node->next_ctx;
    return node;
}

kel_status_t generation_destroy(kel_thread_t *thread, kel_context_t *ctx)
{
    switch (thread->kel_version) {
    case 0:
        return kel0_thread_destroy(thread, ctx);
    case 1:
    case 2:
        return kel1_thread_destroy(thread, ctx);
    default:
        kel_assert_fail("0", "common/kel_init.cpp", 105, __func__);
    }
}

kel_status_t check_init_arguments(uint32_t major, uint32_t minor, uint32_t options,
                                  const kel_init_options_t *init_options)
{
    if (options & ~init_option_bits)
        return init_failed(KEL_EINVAL, "kel_thread_init: bad options 0x%x", options & ~init_option_bits);
    if (options & KEL_ALLOC && (!init_options->alloc_func || !init_options->free_func))
        return init_failed(KEL_EINVAL,
                           "kel_thread_init: KEL_ALLOC is specified and one of alloc_func or free_func is NULL");
    if (major != 1 && major != 2)
        return init_failed(KEL_EBADVER, "kel_thread_init: bad major version %u", major);
    if (minor != minor_version)
        return init_failed(KEL_EBADVER, "kel_thread_init: bad minor version %u", minor);
    return KEL_SUCCESS;
}

// The context record and its copy of the options come from the system, whatever the options say.
kel_status_t allocate_context(const kel_init_options_t *init_options, kel_context_t **made)
{
    auto *ctx = static_cast<kel_context_t *>(aligned_alloc(alignof(kel_context_t), sizeof(kel_context_t)));
    if (!ctx)
        return init_failed(KEL_ENOMEM, "kel_thread_init: failed to allocate %ld bytes",
                           static_cast<long>(sizeof(kel_context_t)));
    ctx->init_options = nullptr;
    if (init_options) {
        ctx->init_options = static_cast<kel_init_options_t *>(malloc(sizeof *init_options));
        if (!ctx->init_options) {
            free(ctx);
            return init_failed(KEL_ENOMEM, "kel_thread_init: failed to allocate %ld bytes",
                               static_cast<long>(sizeof *init_options));
        }
        *ctx->init_options = *init_options;
    }
    *made = ctx;
    return KEL_SUCCESS;
}

} // namespace

kel_status_t kel_thread_create(kel_context_t *ctx, uint32_t, kel_thread_t **made)
{
    auto *thread = static_cast<kel_thread_t *>(kel_memalign(ctx, kel_thread_align, sizeof(kel_thread_t)));
    if (!thread)
        return KEL_ENOMEM;
    *thread = {};
    kel_status_t status = kel0_thread_create(ctx, thread);
    if (status == KEL_SUCCESS) {
        thread->tid = pthread_self();
        status = publish(ctx, thread);
        if (status != KEL_SUCCESS)
            (void)kel0_thread_destroy(thread, ctx);
    }
    if (status != KEL_SUCCESS) {
        release_thread(thread, ctx);
        return status;
    }
    *made = thread;
    return KEL_SUCCESS;
}

kel_status_t kel_thread_destroy(kel_thread_t *thread, kel_context_t *ctx)
{
    const kel_status_t status = generation_destroy(thread, ctx);
    if (status != KEL_SUCCESS)
        return status;
    set_thread_of_key(nullptr, ctx);
    *thread = {};
    if (ctx)
        release_thread(thread, ctx);
    return KEL_SUCCESS;
}

kel_status_t kel_thread_attach(kel_context_t *ctx, uint32_t unused)
{
    auto *node = static_cast<kel_ctx_list_t *>(kel_calloc(ctx, 1, sizeof(kel_ctx_list_t)));
    if (!node)
        return no_list_node;

    kel_thread_t *thread = thread_of_key();
    kel_status_t status = thread ? KEL_SUCCESS : kel_thread_create(ctx, unused, &thread);
    if (status == KEL_SUCCESS) {
        ctx->thread = thread;
        ctx->kel_version = thread->kel_version;
        if (ctx->kel_version != 0 && ctx->api_version > ctx->kel_version) {
            kel_report(ctx, "api_version(%u) > kel_version(%u)", ctx->api_version, ctx->kel_version);
            status = KEL_EBADVER;
        }
    }
    if (status != KEL_SUCCESS) {
        kel_free(ctx, node, sizeof *node);
        return status;
    }
    *node = {ctx, thread->ctxl_head};
    thread->ctxl_head = node;
    thread->refc++;
    return KEL_SUCCESS;
}

kel_status_t kel_thread_detach(kel_context_t *ctx)
{
    kel_thread_t *thread = ctx->thread;
    kel_ctx_list_t *node = unlink_node(thread, ctx);
    if (!node) {
        kel_report(ctx, "Failed to find ctx(0x%lx) for this thread", kel_log_ptr(ctx));
        return KEL_EINTERNAL;
    }
    kel_free(ctx, node, sizeof *node);
    ctx->thread = nullptr;
    return --thread->refc == 0 ? kel_thread_destroy(thread, ctx) : KEL_SUCCESS;
}

// Runs at the end of a thread that still holds contexts. The record's memory stays: no context is left that could say
// through which allocator it goes. The contexts stay allocated, too, and are dead.
void kel_thread_data_destroy(void *data)
{
    auto *thread = static_cast<kel_thread_t *>(data);
    while (kel_ctx_list_t *node = thread->ctxl_head) {
        thread->ctxl_head = node->next_ctx;
        kel_free(node->ctx, node, sizeof *node);
    }
    (void)kel_thread_destroy(thread, nullptr);
}

kel_status_t kel_thread_init(uint32_t major, uint32_t minor, uint32_t options, const kel_init_options_t *init_options,
                             kel_context_t **ctx)
{
    kel_context_t *made = nullptr;
    kel_status_t status = check_init_arguments(major, minor, options, init_options);
    if (status == KEL_SUCCESS)
        status = allocate_context(options & KEL_ALLOC ? init_options : nullptr, &made);
    if (status != KEL_SUCCESS)
        return status;

    made->api_version = major;
    made->api_minor = minor;
    made->qlist = nullptr;
    made->closing = false;
    made->kernels = kel_widest_set();
    kel_log_init(made);
    kel_debug_init(made);
    *ctx = made;
    status = kel_thread_attach(made, 0);
    if (status != KEL_SUCCESS) {
        free(made); // kept: the copy of the options is never released, here as in kel_thread_fini
        *ctx = nullptr;
        return status;
    }
    kel_events_init(made, &made->events);
    return KEL_SUCCESS;
}

kel_status_t kel_thread_fini(kel_context_t *ctx)
{
    if (bad_thread_return(ctx))
        return KEL_ETHREAD;
    ctx->closing = true;
    while (ctx->qlist)
        (void)kel_queue_destroy(ctx->qlist->queue);
    (void)kel_thread_detach(ctx);
    // A later use of the stale pointer is to meet the owner test, not the bare road. The barrier keeps the compiler
    // from dropping stores to memory that is about to be freed.
    *ctx = {};
    ctx->debug_options = KEL_DEBUG_ARG;
    __asm__ volatile("" : : "r"(ctx) : "memory");
    free(ctx);
    return KEL_SUCCESS;
}
