// Contexts, the record that the contexts of a thread share, and memory from a client's allocator.
#include "kel_init.h"
#include "support.h"
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <map>
#include <thread>
#include <unistd.h>

namespace
{

using lines_t = std::vector<std::string>;

lines_t syslog_lines;

// An allocator that knows its blocks: each has to come back once, with its size, and with nothing written behind it.
struct block_store {
    static constexpr size_t margin = 32;
    static constexpr uint8_t fill = 0xa5;

    size_t misaligned = 0; // blocks are at this address modulo 16
    size_t failing = 0;    // the number of the request that gets null, counted from 1
    std::vector<uint64_t> requests = {};
    std::map<void *, uint64_t> live = {};

    ~block_store()
    {
        while (!live.empty())
            give(live.begin()->first, live.begin()->second, this);
    }

    static void *take(uint64_t size, void *cb_data)
    {
        auto &store = *static_cast<block_store *>(cb_data);
        store.requests.push_back(size);
        if (store.requests.size() == store.failing)
            return nullptr;
        auto *memory = static_cast<uint8_t *>(malloc(store.misaligned + size + margin));
        memset(memory, fill, store.misaligned + size + margin);
        store.live[memory + store.misaligned] = size;
        return memory + store.misaligned;
    }

    static void give(void *block, uint64_t size, void *cb_data)
    {
        auto &store = *static_cast<block_store *>(cb_data);
        ASSERT_EQ(store.live.count(block), 1u) << "not a block of this allocator";
        EXPECT_EQ(store.live[block], size);
        const auto *end = static_cast<uint8_t *>(block) + store.live[block];
        for (size_t i = 0; i < margin; i++)
            EXPECT_EQ(end[i], fill) << "behind a block of " << size;
        store.live.erase(block);
        free(static_cast<uint8_t *>(block) - reinterpret_cast<uintptr_t>(block) % 16); // where malloc's block starts
    }

    kel_init_options_t options()
    {
        return {take, give, this};
    }
};

size_t round_up(size_t value, size_t unit)
{
    return (value + unit - 1) / unit * unit;
}

constexpr size_t tail_size = 16;
const uint64_t node_request = sizeof(kel_ctx_list_t) + tail_size;
const uint64_t record_request = 8192 + round_up(sizeof(kel_thread_t), 8) + tail_size;

kel_context_t *const untouched = reinterpret_cast<kel_context_t *>(0x40);

kel_context_t *open_context(uint32_t version, const kel_init_options_t *allocator = nullptr)
{
    kel_context_t *ctx = untouched;
    EXPECT_EQ(kel_thread_init(version, 1, allocator ? KEL_ALLOC : 0, allocator, &ctx), KEL_SUCCESS);
    return ctx;
}

// The contexts of a record, the newest first.
std::vector<kel_context_t *> listed(const kel_thread_t *thread)
{
    std::vector<kel_context_t *> contexts;
    for (kel_ctx_list_t node = {nullptr, thread->ctxl_head}; node.next_ctx; contexts.push_back(node.ctx))
        memcpy(&node, node.next_ctx, sizeof node); // it may stand at any address
    return contexts;
}

} // namespace

extern "C" void syslog(int, const char *, ...)
{
    syslog_lines.emplace_back("line");
}

// ---- Opening --------------------------------------------------------------------------------------------------------

TEST(init, refused_in_order)
{
    block_store store;
    const kel_init_options_t good = store.options();
    const kel_init_options_t no_alloc = {nullptr, good.free_func, nullptr};
    const kel_init_options_t no_free = {good.alloc_func, nullptr, nullptr};
    const std::string null_callback = "KEL_ALLOC is specified and one of alloc_func or free_func is NULL";
    const struct {
        uint32_t major, minor, options;
        const kel_init_options_t *init_options;
        kel_status_t status;
        std::string message;
    } rows[] = {
        {1, 1, 4, nullptr, KEL_EINVAL, "bad options 0x4"},
        {3, 9, 0xffffffff, &no_alloc, KEL_EINVAL, "bad options 0xfffffffc"},
        {1, 1, 1, &no_alloc, KEL_EINVAL, null_callback},
        {0, 0, 3, &no_free, KEL_EINVAL, null_callback},
        {0, 0, 0, nullptr, KEL_EBADVER, "bad major version 0"},
        {3, 1, 0, nullptr, KEL_EBADVER, "bad major version 3"},
        {UINT32_MAX, 0, 1, &good, KEL_EBADVER, "bad major version 4294967295"},
        {1, 0, 0, nullptr, KEL_EBADVER, "bad minor version 0"},
        {2, 2, 2, &no_alloc, KEL_EBADVER, "bad minor version 2"},
    };
    for (const auto &row : rows) {
        kel_context_t *ctx = untouched;
        reset_hooks();
        syslog_lines.clear();
        testing::internal::CaptureStderr();
        EXPECT_EQ(kel_thread_init(row.major, row.minor, row.options, row.init_options, &ctx), row.status);
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  "libkel ERROR: tid=" + std::to_string(static_cast<int>(pthread_self())) +
                      ": kel_thread_init: " + row.message + "\n");
        EXPECT_EQ(syslog_lines.size(), 1u);
        EXPECT_EQ(kel_debug_calls, 1u);
        EXPECT_EQ(ctx, untouched);
    }
    EXPECT_TRUE(store.requests.empty());
}

// ---- The thread record ----------------------------------------------------------------------------------------------

TEST(thread, contexts_share_a_record)
{
    const int orders[][3] = {{0, 1, 2}, {2, 1, 0}, {1, 2, 0}};
    for (const auto &order : orders) {
        block_store store;
        const kel_init_options_t options = store.options();
        std::vector<kel_context_t *> open;
        for (const uint32_t version : {1u, 2u, 1u})
            open.push_back(open_context(version, &options));
        EXPECT_EQ(store.requests, (std::vector{node_request, record_request, node_request, node_request}));

        kel_context_t *const contexts[] = {open[0], open[1], open[2]};
        kel_thread_t *const thread = open[0]->thread;
        for (const int next : order) {
            for (const kel_context_t *ctx : open)
                EXPECT_EQ(ctx->thread, thread);
            EXPECT_EQ(thread->refc, static_cast<int>(open.size()));
            EXPECT_EQ(listed(thread), std::vector(open.rbegin(), open.rend()));
            std::erase(open, contexts[next]);
            EXPECT_EQ(kel_thread_fini(contexts[next]), KEL_SUCCESS);
            EXPECT_EQ(store.live.size(), open.empty() ? 0 : open.size() + 1);
        }
    }
}

TEST(thread, each_has_its_own_record)
{
    kel_context_t *mine = open_context(1);
    std::thread([&] {
        kel_context_t *other = open_context(2);
        EXPECT_NE(other->thread, mine->thread);
        EXPECT_EQ(other->thread->refc, 1);
        EXPECT_TRUE(pthread_equal(other->thread->tid, pthread_self()));
        EXPECT_EQ(kel_thread_fini(other), KEL_SUCCESS);
    }).join();
    EXPECT_EQ(listed(mine->thread), std::vector{mine});
    EXPECT_EQ(kel_thread_fini(mine), KEL_SUCCESS);
}

// Any debug option keeps a foreign thread out; without one it takes the context from its owner's record.
TEST(thread, foreign_fini)
{
    kel_context_t *stays = open_context(1);
    kel_context_t *goes = open_context(2);
    const auto fini_elsewhere = [goes] {
        kel_status_t status = KEL_EINTERNAL;
        std::thread([&] { status = kel_thread_fini(goes); }).join();
        return status;
    };
    for (const uint32_t debug : {1u, 2u, 4u, 8u}) {
        goes->debug_options = debug;
        reset_hooks();
        EXPECT_EQ(fini_elsewhere(), KEL_ETHREAD);
        EXPECT_EQ(kel_debug_calls, 1u);
        EXPECT_EQ(listed(stays->thread), (std::vector{goes, stays}));
    }
    goes->debug_options = 0;
    EXPECT_EQ(fini_elsewhere(), KEL_SUCCESS);
    EXPECT_EQ(stays->thread->refc, 1);
    EXPECT_EQ(listed(stays->thread), std::vector{stays});
    EXPECT_EQ(kel_thread_fini(stays), KEL_SUCCESS);
}

// The nodes go back, the record is cleared and stays allocated, the contexts are untouched.
TEST(thread, ends_with_contexts_open)
{
    block_store store;
    const kel_init_options_t options = store.options();
    kel_context_t *contexts[2];
    std::thread([&] {
        for (kel_context_t *&ctx : contexts)
            ctx = open_context(2, &options);
    }).join();
    EXPECT_EQ(store.requests.size(), 3u);
    ASSERT_EQ(store.live.size(), 1u);
    EXPECT_EQ(store.live.begin()->second, record_request);
    const kel_thread_t *thread = contexts[0]->thread;
    EXPECT_EQ(thread->refc, 0);
    EXPECT_EQ(thread->tid, pthread_t{});
    EXPECT_EQ(thread->ctxl_head, nullptr);
    for (kel_context_t *ctx : contexts) {
        EXPECT_EQ(ctx->thread, thread);
        EXPECT_EQ(ctx->api_version, 2u);
        free(ctx->init_options);
        free(ctx);
    }
}

// A context that its record does not list: detaching says so, closing says so and goes on.
TEST(thread, unlisted_context)
{
    test_context keeps;
    kel_context_t *lost = open_context(1);
    const kel_log_t log = keeps->log;
    kel_ctx_list_t *node = lost->thread->ctxl_head;
    lost->log = log;
    lost->thread->ctxl_head = node->next_ctx;
    reset_hooks();
    char line[64];
    snprintf(line, sizeof line, "Failed to find ctx(0x%lx) for this thread", reinterpret_cast<unsigned long>(lost));
    EXPECT_EQ(kel_thread_detach(lost), KEL_EINTERNAL);
    EXPECT_EQ(kel_thread_fini(lost), KEL_SUCCESS);
    EXPECT_EQ(keeps.messages(), (lines_t{line, line}));
    EXPECT_EQ(kel_debug_calls, 2u);
    EXPECT_EQ(keeps->thread->refc, 2);
    keeps->thread->refc = 1;
    kel_free(keeps, node, sizeof *node);
}

// The record of a coprocessor's generation: an interface above it is refused, and it cannot be destroyed.
TEST(thread, generations)
{
    EXPECT_EQ(kel0_thread_create(nullptr, nullptr), KEL_EINVAL);
    EXPECT_EQ(kel1_thread_create(nullptr, nullptr), KEL_EINTERNAL);
    test_context first(1);
    kel_thread_t *thread = first->thread;
    thread->kel_version = 1;
    kel_context_t *second = untouched;
    reset_hooks();
    EXPECT_EQ(kel_thread_init(2, 1, 0, nullptr, &second), KEL_EBADVER);
    EXPECT_EQ(second, nullptr);
    EXPECT_EQ(kel_debug_calls, 1u);
    EXPECT_EQ(listed(thread), std::vector{first.ctx});

    EXPECT_EQ(kel_thread_destroy(thread, first), KEL_EINTERNAL);
    EXPECT_EQ(listed(thread), std::vector{first.ctx});
    thread->kel_version = 3;
    EXPECT_DEATH(kel_thread_destroy(thread, first), "common/kel_init(\\.cpp)?:105: .*Assertion `0' failed");
    thread->kel_version = 0;
}

// ---- The client's allocator -----------------------------------------------------------------------------------------

// The caller's record may change behind the call.
static void expect_good_service(size_t misaligned)
{
    block_store store{misaligned};
    kel_init_options_t options = store.options();
    kel_context_t *ctx = untouched;
    ASSERT_EQ(kel_thread_init(2, 1, 3, &options, &ctx), KEL_SUCCESS);
    options = {};
    EXPECT_EQ(ctx->init_options->cb_data, &store);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(ctx->thread) % 8192, 0u);
    EXPECT_EQ(listed(ctx->thread), std::vector{ctx});
    EXPECT_EQ(kel_thread_fini(ctx), KEL_SUCCESS);
    EXPECT_EQ(store.requests, (std::vector{node_request, record_request}));
    EXPECT_TRUE(store.live.empty());
}

TEST(allocator, serves_a_context)
{
    expect_good_service(0);
    expect_good_service(8);
}

TEST(allocator, serves_a_context_from_odd_addresses)
{
    for (const size_t misaligned : {1, 3, 15})
        expect_good_service(misaligned);
}

TEST(allocator, failures_at_init)
{
    const struct {
        size_t failing;
        int status;
        lines_t lines;
    } rows[] = {
        {1, 12, {"kel_calloc failed to allocate 16 bytes"}},
        {2, KEL_ENOMEM,
         lines_t(2,
                 "kel_memalign failed to allocate " + std::to_string(sizeof(kel_thread_t)) + " bytes aligned to 8192")},
    };
    for (const auto &row : rows) {
        block_store store{0, row.failing};
        kel_init_options_t options = store.options();
        kel_context_t *ctx = untouched;
        reset_hooks();
        EXPECT_EQ(static_cast<int>(kel_thread_init(1, 1, KEL_ALLOC, &options, &ctx)), row.status);
        EXPECT_EQ(ctx, nullptr);
        EXPECT_EQ(store.requests.size(), row.failing);
        EXPECT_TRUE(store.live.empty());

        // A new context has no level on; one that is attached by itself shows the lines.
        store.requests.clear();
        lines_t lines;
        kel_context_t bare = {};
        bare.init_options = &options;
        bare.log.options = KEL_LOG_ERROR;
        bare.log.fd = bare.log.fd_init = -1;
        bare.log.cb_data = &lines;
        bare.log.cb = [](kel_context_t *, void *cb_data, uint32_t, const char *, const char *message) {
            static_cast<lines_t *>(cb_data)->emplace_back(message);
        };
        EXPECT_EQ(static_cast<int>(kel_thread_attach(&bare, 0)), row.status);
        EXPECT_EQ(lines, row.lines);
        EXPECT_TRUE(store.live.empty());
        EXPECT_EQ(kel_debug_calls, 0u);
    }
}

TEST(allocator, block_shapes)
{
    for (const size_t misaligned : {0, 1, 7}) {
        block_store store;
        const kel_init_options_t options = store.options();
        test_context ctx(2, 1, 1, &options);
        store.misaligned = misaligned;
        const auto expect_block = [&](void *block, size_t size, size_t align, uint64_t request) {
            SCOPED_TRACE(testing::Message() << size << " bytes aligned to " << align << " at " << misaligned);
            const auto address = reinterpret_cast<uintptr_t>(block);
            EXPECT_EQ(store.requests.back(), request);
            EXPECT_EQ(address % align, 0u);
            if (misaligned == 0) {
                uint64_t tail[2];
                memcpy(tail, reinterpret_cast<void *>(round_up(address + size, 8)), sizeof tail);
                ASSERT_EQ(store.live.count(reinterpret_cast<void *>(tail[0])), 1u);
                EXPECT_EQ(tail[1], request);
            }
            memset(block, 0xff, size);
            kel_free(ctx, block, size);
            EXPECT_EQ(store.live.size(), 2u); // those of the context
        };
        for (const size_t size : {1, 7, 8, 9, 64, 1001}) {
            const uint64_t request = round_up(size, 8) + tail_size;
            expect_block(kel_malloc(ctx, size), size, 1, request);
            for (const size_t align : {1, 2, 8, 64, 8192})
                expect_block(kel_memalign(ctx, align, size), size, align, align + request);
            const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
            expect_block(kel_valloc(ctx, size), size, page, page + request);
        }
        expect_block(kel_malloc(ctx, 0), 0, 1, tail_size);

        auto *zeros = static_cast<uint8_t *>(kel_calloc(ctx, 3, 7));
        for (size_t i = 0; i < 24; i++)
            EXPECT_EQ(zeros[i], i < 21 ? 0 : block_store::fill) << i;
        expect_block(zeros, 21, 1, 40);

        kel_free(ctx, nullptr, 8);
        EXPECT_EQ(ctx.messages(), lines_t());
    }
}

TEST(allocator, refused_alignments)
{
    constexpr size_t limit = size_t{1} << 31;
    block_store store;
    const kel_init_options_t options = store.options();
    test_context ctx(1, 1, 1, &options);
    const std::pair<size_t, size_t> rows[] = {{24, 100},  {0, 8},     {8, 0},        {3, 1},
                                              {limit, 8}, {8, limit}, {limit, limit}};
    for (const auto &[align, size] : rows) {
        errno = 0;
        EXPECT_EQ(kel_memalign(ctx, align, size), nullptr);
        EXPECT_EQ(errno, EINVAL);
        const std::string numbers[] = {std::to_string(size), std::to_string(align)};
        EXPECT_EQ(ctx.messages(),
                  (lines_t{
                      "kel_memalign: size = " + numbers[0] + ", align = " + numbers[1] + ": invalid size or alignment",
                      "kel_memalign failed to allocate " + numbers[0] + " bytes aligned to " + numbers[1],
                  }));
    }
    EXPECT_EQ(kel_valloc(ctx, 0), nullptr);
    EXPECT_EQ(ctx.messages().front(), "kel_memalign: size = 0, align = " + std::to_string(sysconf(_SC_PAGESIZE)) +
                                          ": invalid size or alignment");
    EXPECT_EQ(store.requests.size(), 2u); // those of the context
    EXPECT_EQ(kel_debug_calls, 0u);

    // The largest that are accepted.
    for (const auto &[align, size] : {std::pair{limit / 2, limit - 1}, {size_t{1}, limit - 8}}) {
        store.failing = store.requests.size() + 1;
        EXPECT_EQ(kel_memalign(ctx, align, size), nullptr);
        EXPECT_EQ(store.requests.back(), align + round_up(size, 8) + tail_size);
    }
}

TEST(allocator, null_results)
{
    for (const bool log_on : {true, false}) {
        block_store store;
        const kel_init_options_t options = store.options();
        test_context ctx(2, 1, log_on ? KEL_LOG_ERROR : KEL_LOG_PERF, &options);
        const auto fail_next = [&] { store.failing = store.requests.size() + 1; };
        fail_next();
        EXPECT_EQ(kel_malloc(ctx, 100), nullptr);
        fail_next();
        EXPECT_EQ(kel_calloc(ctx, 3, 7), nullptr);
        fail_next();
        EXPECT_EQ(kel_memalign(ctx, 64, 9), nullptr);
        const std::string aligned = "kel_memalign failed to allocate 9 bytes aligned to 64";
        EXPECT_EQ(ctx.messages(), log_on ? (lines_t{"kel_malloc failed to allocate 100 bytes",
                                                    "kel_calloc failed to allocate 21 bytes", aligned, aligned})
                                         : lines_t());
        EXPECT_EQ(kel_debug_calls, 0u);
    }
}
