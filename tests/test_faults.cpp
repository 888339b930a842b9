// What the library does when the system refuses it something. The linker leads the calls below to this file.
#include "kel_init.h"
#include "support.h"
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <thread>
#include <unistd.h>

namespace
{

const char *failing; // the call that fails the next time, and only then
std::pair<size_t, size_t> memalign_arguments;

bool fails_now(const char *call)
{
    const bool fails = failing && strcmp(call, failing) == 0;
    failing = fails ? nullptr : failing;
    return fails;
}

// Memory that was in use before.
void *used(void *block, size_t size)
{
    return memset(block, 0xa5, size);
}

} // namespace

#define WRAP(type, call, parameters, arguments, failure)                                                               \
    type __real_##call parameters;                                                                                     \
    type __wrap_##call parameters                                                                                      \
    {                                                                                                                  \
        return fails_now(#call) ? (failure) : __real_##call arguments;                                                 \
    }

extern "C" {

WRAP(int, pthread_key_create, (pthread_key_t * key, void (*destructor)(void *)), (key, destructor), EAGAIN)
WRAP(int, pthread_setspecific, (pthread_key_t key, const void *value), (key, value), errno = ENOMEM)
WRAP(void *, malloc, (size_t size), (size), nullptr)
WRAP(void *, calloc, (size_t count, size_t size), (count, size), nullptr)

void *__real_aligned_alloc(size_t align, size_t size);
void *__wrap_aligned_alloc(size_t align, size_t size)
{
    return fails_now("aligned_alloc") ? nullptr : used(__real_aligned_alloc(align, size), size);
}

void *__real_memalign(size_t align, size_t size);
void *__wrap_memalign(size_t align, size_t size)
{
    memalign_arguments = {align, size};
    return fails_now("memalign") ? nullptr : used(__real_memalign(align, size), size);
}
}

// A context that cannot be made, though it logs its errors to standard error: the status, the line, the calls of the
// hook, and nothing left behind.
static void expect_no_context(const char *call, int status, const std::string &line, unsigned hooks, uint32_t options)
{
    SCOPED_TRACE(call);
    block_store store;
    const kel_init_options_t allocator = store.options();
    kel_context_t *ctx = no_context;
    setenv("KEL_LOG_OPTIONS", "error", 1);
    setenv("KEL_LOG_FD", "2", 1);
    reset_hooks();
    testing::internal::CaptureStderr();
    failing = call;
    EXPECT_EQ(int{kel_thread_init(1, 1, options, &allocator, &ctx)}, status);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), log_text("ERROR", line + "\n"));
    EXPECT_TRUE(store.live.empty() && kel_debug_calls == hooks);
    EXPECT_EQ(ctx, line.starts_with("kel_thread_init") ? no_context : nullptr);
    failing = nullptr;
    unsetenv("KEL_LOG_OPTIONS");
    unsetenv("KEL_LOG_FD");
}

static const std::string set_failed = "Failed to set thread data for key with error: Cannot allocate memory";

TEST(faults, no_context)
{
    const auto failed = [](size_t size) { return "failed to allocate " + std::to_string(size) + " bytes"; };
    expect_no_context("aligned_alloc", KEL_ENOMEM, "kel_thread_init: " + failed(sizeof(kel_context_t)), 1, KEL_ALLOC);
    expect_no_context("malloc", KEL_ENOMEM, "kel_thread_init: " + failed(sizeof(kel_init_options_t)), 1, KEL_ALLOC);
    expect_no_context("calloc", 12, "kel_calloc " + failed(16), 0, 0);
    expect_no_context("memalign", KEL_ENOMEM, "kel_memalign " + failed(sizeof(kel_thread_t)) + " aligned to 8192", 0,
                      0);
    expect_no_context("pthread_setspecific", KEL_EINTERNAL, set_failed, 1, KEL_ALLOC);
    test_context next; // nothing of the failed ones is in its way
    EXPECT_EQ(next->thread->refc, 1);
}

// The key is made once in a process, and closing goes on with the address of a released record left under it, so these
// run in processes of their own.
TEST(faults, of_the_key)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto not_made = [] {
        expect_no_context("pthread_key_create", KEL_EINTERNAL,
                          "pthread_key_create() failed with error: Resource temporarily unavailable", 1, KEL_ALLOC);
        exit(testing::Test::HasFailure());
    };
    EXPECT_EXIT(not_made(), testing::ExitedWithCode(0), "");
    const auto not_cleared = [] {
        test_context shown;
        std::thread([&] {
            kel_context_t *ctx = open_context(2);
            ctx->log = shown->log;
            reset_hooks();
            failing = "pthread_setspecific";
            EXPECT_EQ(kel_thread_fini(ctx), KEL_SUCCESS);
            EXPECT_EQ(shown.messages(), lines_t{set_failed});
            EXPECT_EQ(kel_debug_calls, 1u);
            _exit(testing::Test::HasFailure());
        }).join();
    };
    EXPECT_EXIT(not_cleared(), testing::ExitedWithCode(0), "");
}

// At the end of a thread there is no context to report through.
TEST(faults, key_cannot_be_cleared_at_thread_end)
{
    kel_context_t *ctx = nullptr;
    std::string line;
    const unsigned before = kel_debug_calls_of_all;
    testing::internal::CaptureStderr();
    std::thread([&] {
        ctx = open_context(1);
        line = log_text("ERROR", set_failed + "\n");
        failing = "pthread_setspecific";
    }).join();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), line);
    EXPECT_EQ(kel_debug_calls_of_all, before + 1);
    EXPECT_TRUE(ctx->thread->refc == 0 && !ctx->thread->ctxl_head);
    free(ctx->thread);
    free(ctx);
}

// Every field is set, whatever the memory held before.
TEST(memory, of_a_new_context)
{
    const kel_init_options_t unread = {};
    for (const uint32_t version : {1u, 2u}) {
        kel_context_t *ctx = no_context;
        ASSERT_EQ(kel_thread_init(version, 1, 2, &unread, &ctx), KEL_SUCCESS);
        EXPECT_EQ(std::tuple(ctx->api_version, ctx->api_minor, ctx->kel_version, ctx->debug_options, ctx->log.fd_init,
                             ctx->log.fd),
                  std::tuple(version, 1u, 0u, KEL_DEBUG_ARG, -1, -1));
        const kel_log_t &log = ctx->log;
        EXPECT_TRUE(!log.options && !log.options_init && !log.options_set && !log.syslog && !log.syslog_init);
        EXPECT_TRUE(!log.cb && !ctx->init_options && !ctx->qlist);
        const kel_perf_event_t &e = ctx->events, none = {};
        EXPECT_EQ(memcmp(&e.frequency, &none.frequency, offsetof(kel_perf_event_t, unzip) + sizeof e.unzip), 0);
        EXPECT_EQ((reinterpret_cast<uintptr_t>(ctx) % 64) + (reinterpret_cast<uintptr_t>(ctx->thread) % 8192), 0u);
        EXPECT_TRUE(ctx->thread->refc == 1 && pthread_equal(ctx->thread->tid, pthread_self()));
        EXPECT_TRUE(ctx->thread->ctxl_head->ctx == ctx && !ctx->thread->ctxl_head->next_ctx);
        EXPECT_EQ(kel_thread_fini(ctx), KEL_SUCCESS);
    }
}

// Without a context a null result is always reported, with one only at error level.
TEST(memory, from_the_system)
{
    test_context quiet(2, 1, KEL_LOG_ENTRY);
    for (kel_context_t *ctx : {static_cast<kel_context_t *>(nullptr), quiet.ctx}) {
        testing::internal::CaptureStderr();
        failing = "malloc";
        EXPECT_EQ(kel_malloc(ctx, 100), nullptr);
        failing = "calloc";
        EXPECT_EQ(kel_calloc(ctx, 3, 7), nullptr);
        failing = "memalign";
        EXPECT_EQ(kel_memalign(ctx, 24, 9), nullptr);
        EXPECT_EQ(memalign_arguments, (std::pair<size_t, size_t>{24, 9}));
        const std::string lines = log_text("ERROR", "kel_malloc failed to allocate 100 bytes\n") +
                                  log_text("ERROR", "kel_calloc failed to allocate 21 bytes\n") +
                                  log_text("ERROR", "kel_memalign failed to allocate 9 bytes aligned to 24\n");
        EXPECT_EQ(testing::internal::GetCapturedStderr(), ctx ? "" : lines);
    }
    EXPECT_EQ(quiet.messages(), lines_t());
    EXPECT_EQ(kel_debug_calls, 0u);
}
