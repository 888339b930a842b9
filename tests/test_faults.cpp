// What the library does when the system refuses it something. The linker leads the calls below to this file.
#include "kel_init.h"
#include "support.h"
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <malloc.h>
#include <thread>

namespace
{

using lines_t = std::vector<std::string>;

// How many calls from now fails, counted from 1; 0 for none.
struct {
    int key_create, setspecific, aligned_alloc, malloc, calloc, memalign;
} countdown;

std::pair<size_t, size_t> memalign_arguments;

bool fails_now(int &count)
{
    return count > 0 && --count == 0;
}

// Memory that was in use before.
void *used(void *block, size_t size)
{
    return memset(block, 0xa5, size);
}

} // namespace

extern "C" {

int __real_pthread_key_create(pthread_key_t *key, void (*destructor)(void *));
int __real_pthread_setspecific(pthread_key_t key, const void *value);
void *__real_aligned_alloc(size_t align, size_t size);
void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void *__real_memalign(size_t align, size_t size);

void syslog(int, const char *, ...) {}

int __wrap_pthread_key_create(pthread_key_t *key, void (*destructor)(void *))
{
    return fails_now(countdown.key_create) ? EAGAIN : __real_pthread_key_create(key, destructor);
}

int __wrap_pthread_setspecific(pthread_key_t key, const void *value)
{
    return fails_now(countdown.setspecific) ? errno = ENOMEM : __real_pthread_setspecific(key, value);
}

void *__wrap_aligned_alloc(size_t align, size_t size)
{
    return fails_now(countdown.aligned_alloc) ? nullptr : used(__real_aligned_alloc(align, size), size);
}

void *__wrap_malloc(size_t size)
{
    return fails_now(countdown.malloc) ? nullptr : __real_malloc(size);
}

void *__wrap_calloc(size_t count, size_t size)
{
    return fails_now(countdown.calloc) ? nullptr : __real_calloc(count, size);
}

void *__wrap_memalign(size_t align, size_t size)
{
    memalign_arguments = {align, size};
    return fails_now(countdown.memalign) ? nullptr : used(__real_memalign(align, size), size);
}
}

static std::string error_line(const std::string &message)
{
    return "libkel ERROR: tid=" + std::to_string(static_cast<int>(pthread_self())) + ": " + message + "\n";
}

// A context that is attached by itself, because a new one has no level on when its thread record is made.
struct bare_context {
    bare_context()
    {
        ctx.api_version = 2;
        ctx.log.options = KEL_LOG_ERROR;
        ctx.log.fd = ctx.log.fd_init = -1;
        ctx.log.cb_data = &lines;
        ctx.log.cb = [](kel_context_t *, void *cb_data, uint32_t, const char *, const char *message) {
            static_cast<lines_t *>(cb_data)->emplace_back(message);
        };
        reset_hooks();
    }

    // From here on blocks come from an allocator that counts those that are not back yet.
    void count_blocks()
    {
        ctx.init_options = &counting;
    }

    kel_context_t ctx = {};
    lines_t lines;
    int live = 0;
    kel_init_options_t counting = {[](uint64_t size, void *cb_data) {
                                       ++*static_cast<int *>(cb_data);
                                       return malloc(size);
                                   },
                                   [](void *block, uint64_t, void *cb_data) {
                                       --*static_cast<int *>(cb_data);
                                       free(block);
                                   },
                                   &live};
};

static kel_context_t *const untouched = reinterpret_cast<kel_context_t *>(0x40);

TEST(memory, for_the_context)
{
    const kel_init_options_t options = {[](uint64_t, void *) -> void * { return nullptr; },
                                        [](void *, uint64_t, void *) { FAIL(); }, nullptr};
    const std::pair<int *, size_t> rows[] = {{&countdown.aligned_alloc, sizeof(kel_context_t)},
                                             {&countdown.malloc, sizeof(kel_init_options_t)}};
    for (const auto &[count, size] : rows) {
        kel_context_t *ctx = untouched;
        reset_hooks();
        testing::internal::CaptureStderr();
        *count = 1;
        const kel_status_t status = kel_thread_init(1, 1, KEL_ALLOC, &options, &ctx);
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  error_line("kel_thread_init: failed to allocate " + std::to_string(size) + " bytes"));
        EXPECT_EQ(status, KEL_ENOMEM);
        EXPECT_EQ(ctx, untouched);
        EXPECT_EQ(kel_debug_calls, 1u);
    }
}

TEST(memory, for_the_thread_record)
{
    const std::string aligned = std::to_string(sizeof(kel_thread_t)) + " bytes aligned to 8192";
    const struct {
        int *count;
        int status;
        std::string line;
    } rows[] = {{&countdown.calloc, 12, "kel_calloc failed to allocate 16 bytes"},
                {&countdown.memalign, KEL_ENOMEM, "kel_memalign failed to allocate " + aligned}};
    for (const auto &row : rows) {
        kel_context_t *ctx = untouched;
        *row.count = 1;
        EXPECT_EQ(static_cast<int>(kel_thread_init(2, 1, 0, nullptr, &ctx)), row.status);
        EXPECT_EQ(ctx, nullptr);

        bare_context bare;
        *row.count = 1;
        EXPECT_EQ(static_cast<int>(kel_thread_attach(&bare.ctx, 0)), row.status);
        EXPECT_EQ(bare.lines, lines_t{row.line});
        EXPECT_EQ(kel_debug_calls, 0u);
    }
}

// Every field is set, whatever the memory held before.
TEST(memory, of_a_new_context)
{
    const kel_init_options_t unread = {};
    for (const uint32_t version : {1u, 2u})
        for (const uint32_t options : {0u, 2u}) {
            kel_context_t *ctx = untouched;
            ASSERT_EQ(kel_thread_init(version, 1, options, &unread, &ctx), KEL_SUCCESS);
            EXPECT_EQ(reinterpret_cast<uintptr_t>(ctx) % 64, 0u);
            EXPECT_EQ(ctx->api_version, version);
            EXPECT_EQ(ctx->api_minor, 1u);
            EXPECT_EQ(ctx->kel_version, 0u);
            EXPECT_EQ(ctx->debug_options, KEL_DEBUG_ARG);
            EXPECT_EQ(ctx->log.options | ctx->log.options_init | ctx->log.options_set, 0u);
            EXPECT_EQ(ctx->log.fd_init, -1);
            EXPECT_EQ(ctx->log.fd, -1);
            EXPECT_EQ(ctx->log.syslog | ctx->log.syslog_init, 0);
            EXPECT_EQ(ctx->log.cb, nullptr);
            EXPECT_EQ(ctx->init_options, nullptr);
            EXPECT_EQ(ctx->qlist, nullptr);
            const kel_perf_event_t &events = ctx->events;
            EXPECT_EQ(events.frequency | events.cycles | events.page | events.emulate | events.nomap | events.copy |
                          events.retry | events.split | events.unzip,
                      0u);
            EXPECT_EQ(reinterpret_cast<uintptr_t>(ctx->thread) % 8192, 0u);
            EXPECT_EQ(ctx->thread->refc, 1);
            EXPECT_TRUE(pthread_equal(ctx->thread->tid, pthread_self()));
            EXPECT_EQ(ctx->thread->ctxl_head->ctx, ctx);
            EXPECT_EQ(ctx->thread->ctxl_head->next_ctx, nullptr);
            EXPECT_EQ(kel_thread_fini(ctx), KEL_SUCCESS);
        }
}

// Without a context a null result is always reported, with one only at error level.
TEST(memory, from_the_system)
{
    test_context quiet(2, 1, KEL_LOG_ENTRY);
    for (kel_context_t *ctx : {static_cast<kel_context_t *>(nullptr), quiet.ctx}) {
        testing::internal::CaptureStderr();
        countdown.malloc = 1;
        void *const by_malloc = kel_malloc(ctx, 100);
        countdown.calloc = 1;
        void *const by_calloc = kel_calloc(ctx, 3, 7);
        countdown.memalign = 1;
        void *const by_memalign = kel_memalign(ctx, 24, 9);
        const std::string lines = error_line("kel_malloc failed to allocate 100 bytes") +
                                  error_line("kel_calloc failed to allocate 21 bytes") +
                                  error_line("kel_memalign failed to allocate 9 bytes aligned to 24");
        EXPECT_EQ(testing::internal::GetCapturedStderr(), ctx ? "" : lines);
        EXPECT_EQ(by_malloc, nullptr);
        EXPECT_EQ(by_calloc, nullptr);
        EXPECT_EQ(by_memalign, nullptr);
        EXPECT_EQ(memalign_arguments, (std::pair<size_t, size_t>{24, 9}));
    }
    EXPECT_EQ(quiet.messages(), lines_t());
    EXPECT_EQ(kel_debug_calls, 0u);
}

// ---- The thread-specific key ----------------------------------------------------------------------------------------

// The key is made once in a process, so this runs in one of its own.
TEST(key, cannot_be_created)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto run = [] {
        bare_context bare;
        bare.count_blocks();
        countdown.key_create = 1;
        EXPECT_EQ(kel_thread_attach(&bare.ctx, 0), KEL_EINTERNAL);
        EXPECT_EQ(bare.live, 0);
        EXPECT_EQ(countdown.key_create, 0);
        EXPECT_EQ(bare.lines, lines_t{"pthread_key_create() failed with error: Resource temporarily unavailable"});
        EXPECT_EQ(kel_debug_calls, 1u);
        exit(testing::Test::HasFailure());
    };
    EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
    const auto init = [] {
        kel_context_t *ctx = untouched;
        countdown.key_create = 1;
        EXPECT_EQ(kel_thread_init(1, 1, 0, nullptr, &ctx), KEL_EINTERNAL);
        EXPECT_EQ(ctx, nullptr);
        EXPECT_EQ(kel_debug_calls, 1u);
        exit(testing::Test::HasFailure());
    };
    EXPECT_EXIT(init(), testing::ExitedWithCode(0), "");
}

static const std::string set_failed = "Failed to set thread data for key with error: Cannot allocate memory";

TEST(key, cannot_be_set)
{
    kel_context_t *ctx = untouched;
    reset_hooks();
    countdown.setspecific = 1;
    EXPECT_EQ(kel_thread_init(2, 1, 0, nullptr, &ctx), KEL_EINTERNAL);
    EXPECT_EQ(ctx, nullptr);
    EXPECT_EQ(kel_debug_calls, 1u);

    bare_context bare;
    bare.count_blocks();
    countdown.setspecific = 1;
    EXPECT_EQ(kel_thread_attach(&bare.ctx, 0), KEL_EINTERNAL);
    EXPECT_EQ(bare.live, 0);
    EXPECT_EQ(bare.lines, lines_t{set_failed});
    EXPECT_EQ(kel_debug_calls, 1u);

    test_context next; // nothing of the failed ones is in its way
    EXPECT_EQ(next->thread->refc, 1);
}

// Closing goes on, but leaves the key with the address of a released record, so this runs in a process of its own.
TEST(key, cannot_be_cleared)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto run = [] {
        bare_context lines;
        kel_context_t *ctx = nullptr;
        EXPECT_EQ(kel_thread_init(2, 1, 0, nullptr, &ctx), KEL_SUCCESS);
        ctx->log = lines.ctx.log;
        countdown.setspecific = 1;
        EXPECT_EQ(kel_thread_fini(ctx), KEL_SUCCESS);
        EXPECT_EQ(lines.lines, lines_t{set_failed});
        EXPECT_EQ(kel_debug_calls, 1u);
        exit(testing::Test::HasFailure());
    };
    EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

// At the end of a thread there is no context to report through.
TEST(key, cannot_be_cleared_at_thread_end)
{
    kel_context_t *ctx = nullptr;
    kel_thread_t *thread = nullptr;
    std::string line;
    reset_hooks();
    testing::internal::CaptureStderr();
    std::thread([&] {
        EXPECT_EQ(kel_thread_init(1, 1, 0, nullptr, &ctx), KEL_SUCCESS);
        thread = ctx->thread;
        line = error_line(set_failed);
        countdown.setspecific = 1;
    }).join();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), line);
    EXPECT_EQ(kel_debug_calls, 1u);
    EXPECT_EQ(thread->refc, 0);
    EXPECT_EQ(thread->ctxl_head, nullptr);
    free(thread);
    free(ctx);
}
