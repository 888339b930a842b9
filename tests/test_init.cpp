// Contexts, the record that the contexts of a thread share, and memory from a client's allocator.
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

constexpr size_t tail_size = 16;
const uint64_t node_request = sizeof(kel_ctx_list_t) + tail_size;

// A size in bytes rounded up to whole words.
constexpr uint64_t whole_words(uint64_t size)
{
    return (size + 7) / 8 * 8;
}

const uint64_t record_request = 8192 + whole_words(sizeof(kel_thread_t)) + tail_size;

// The contexts of a record, the newest first.
std::vector<kel_context_t *> listed(const kel_thread_t *thread)
{
    std::vector<kel_context_t *> contexts;
    for (kel_ctx_list_t node = {nullptr, thread->ctxl_head}; node.next_ctx; contexts.push_back(node.ctx))
        memcpy(&node, node.next_ctx, sizeof node); // it may stand at any address
    return contexts;
}

} // namespace

// ---- Opening --------------------------------------------------------------------------------------------------------

// Of several faults only the first in this order is reported.
TEST(init, refused)
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
        {0, 0, 2, &no_free, KEL_EBADVER, "bad major version 0"},
        {3, 1, 1, &good, KEL_EBADVER, "bad major version 3"},
        {1, 0, 0, nullptr, KEL_EBADVER, "bad minor version 0"},
        {2, 2, 0, nullptr, KEL_EBADVER, "bad minor version 2"},
    };
    for (const auto &row : rows) {
        kel_context_t *ctx = no_context;
        const lines_t lines = lines_without_context(
            [&] { EXPECT_EQ(kel_thread_init(row.major, row.minor, row.options, row.init_options, &ctx), row.status); });
        EXPECT_EQ(lines, lines_t{log_text("ERROR", "kel_thread_init: " + row.message)});
        EXPECT_EQ(kel_debug_calls, 1u);
        EXPECT_EQ(ctx, no_context);
    }
    EXPECT_TRUE(store.requests.empty());
}

// ---- The thread record ----------------------------------------------------------------------------------------------

// Through an allocator whose blocks stand at any address; its record may change behind the call.
TEST(thread, contexts_share_a_record)
{
    for (const auto &[misaligned, closing] : {std::pair{0u, "012"}, {1u, "210"}, {7u, "120"}}) {
        block_store store{misaligned};
        std::vector<kel_context_t *> open;
        for (const uint32_t version : {1u, 2u, 1u}) {
            kel_init_options_t options = store.options();
            open.push_back(open_context(version, &options));
            options = {};
        }
        EXPECT_EQ(store.requests, (std::vector{node_request, record_request, node_request, node_request}));

        kel_context_t *const contexts[] = {open[0], open[1], open[2]};
        kel_thread_t *const thread = open[0]->thread;
        EXPECT_EQ(reinterpret_cast<uintptr_t>(thread) % 8192, 0u);
        for (const char *next = closing; *next; next++) {
            for (const kel_context_t *ctx : open)
                EXPECT_EQ(ctx->thread, thread);
            EXPECT_EQ(thread->refc, static_cast<int>(open.size()));
            EXPECT_EQ(listed(thread), std::vector(open.rbegin(), open.rend()));
            kel_context_t *ctx = contexts[*next - '0'];
            std::erase(open, ctx);
            EXPECT_EQ(kel_thread_fini(ctx), KEL_SUCCESS);
            EXPECT_EQ(store.live.size(), open.empty() ? 0 : open.size() + 1);
        }
    }
}

// Another thread has a record of its own. With debug options off it takes a context from its owner's record.
TEST(thread, foreign_contexts)
{
    kel_context_t *stays = open_context(1), *goes = open_context(2);
    goes->debug_options = 0;
    std::thread([&] {
        kel_context_t *other = open_context(2);
        EXPECT_NE(other->thread, stays->thread);
        EXPECT_TRUE(pthread_equal(other->thread->tid, pthread_self()));
        EXPECT_EQ(kel_thread_fini(goes), KEL_SUCCESS);
        EXPECT_EQ(listed(other->thread), std::vector{other});
        EXPECT_EQ(kel_thread_fini(other), KEL_SUCCESS);
    }).join();
    EXPECT_EQ(stays->thread->refc, 1);
    EXPECT_EQ(listed(stays->thread), std::vector{stays});
    EXPECT_EQ(kel_thread_fini(stays), KEL_SUCCESS);
}

// Threads that end with their contexts open: the nodes of a list go back, its record is cleared and stays, and the
// contexts are untouched. What is left goes by hand.
TEST(thread, ends_with_open_contexts)
{
    const auto leave = [](kel_context_t **contexts, const kel_init_options_t *allocator) {
        for (int i = 0; i < 2; i++)
            contexts[i] = open_context(2, allocator);
        EXPECT_EQ(kel_nop_post(open_queue(contexts[0], 5), 0, nullptr), KEL_SUCCESS);
    };
    block_store stores[4];
    kel_init_options_t options[4];
    kel_context_t *contexts[4][2];
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; i++) {
        options[i] = stores[i].options();
        threads.emplace_back(leave, contexts[i], &options[i]);
    }
    for (int i = 0; i < 4; i++) {
        threads[static_cast<size_t>(i)].join();
        const kel_thread_t *thread = contexts[i][0]->thread;
        EXPECT_EQ(stores[i].live.size(), 1 + 3u); // a queue is three blocks
        EXPECT_TRUE(thread->refc == 0 && thread->tid == pthread_t{} && !thread->ctxl_head);
        for (kel_context_t *ctx : contexts[i]) {
            EXPECT_TRUE(ctx->thread == thread && ctx->api_version == 2);
            free(ctx->init_options);
            free(ctx);
        }
    }
}

// A context that its record does not list: detaching says so, closing says so and goes on.
TEST(thread, unlisted_context)
{
    test_context keeps;
    kel_context_t *lost = open_context(1);
    kel_ctx_list_t *node = lost->thread->ctxl_head;
    lost->log = keeps->log;
    lost->thread->ctxl_head = node->next_ctx;
    reset_hooks();
    const std::string line = "Failed to find ctx(" + pointer_text(lost) + ") for this thread";
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
    kel_context_t *second = no_context;
    EXPECT_EQ(kel_thread_init(2, 1, 0, nullptr, &second), KEL_EBADVER);
    EXPECT_EQ(second, nullptr);
    EXPECT_EQ(kel_debug_calls, 1u);
    EXPECT_EQ(kel_thread_destroy(thread, first), KEL_EINTERNAL);
    EXPECT_EQ(listed(thread), std::vector{first.ctx});
    thread->kel_version = 3;
    EXPECT_DEATH(kel_thread_destroy(thread, first), "common/kel_init(\\.cpp)?:105: .*Assertion `0' failed");
    thread->kel_version = 0;
}

// ---- The client's allocator -----------------------------------------------------------------------------------------

// Whichever block cannot be had, nothing is left behind.
TEST(allocator, fails_at_init)
{
    for (const auto &[failing, status] : {std::pair{1u, 12}, {2u, int{KEL_ENOMEM}}}) {
        block_store store{0, failing};
        const kel_init_options_t options = store.options();
        kel_context_t *ctx = no_context;
        reset_hooks();
        EXPECT_EQ(int{kel_thread_init(2, 1, 3, &options, &ctx)}, status);
        EXPECT_EQ(ctx, nullptr);
        EXPECT_TRUE(store.live.empty());
        EXPECT_EQ(kel_debug_calls, 0u);
    }
}

TEST(allocator, block_shapes)
{
    for (const size_t misaligned : {0u, 1u, 7u}) {
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
                memcpy(tail, at(whole_words(address + size)), sizeof tail);
                EXPECT_EQ(store.live.count(at(tail[0])), 1u);
                EXPECT_EQ(tail[1], request);
            }
            memset(block, 0xff, size);
            kel_free(ctx, block, size);
            EXPECT_EQ(store.live.size(), 2u); // those of the context
        };
        const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        for (const size_t size : {1u, 7u, 8u, 9u, 1001u}) {
            const uint64_t request = whole_words(size) + tail_size;
            expect_block(kel_malloc(ctx, size), size, 1, request);
            for (const size_t align : {1u, 8u, 8192u})
                expect_block(kel_memalign(ctx, align, size), size, align, align + request);
            expect_block(kel_valloc(ctx, size), size, page, page + request);
        }
        expect_block(kel_malloc(ctx, 0), 0, 1, tail_size);

        auto *zeros = static_cast<uint8_t *>(kel_calloc(ctx, 3, 7));
        for (size_t i = 0; i < 24; i++)
            EXPECT_EQ(zeros[i], i < 21 ? 0 : 0xa5) << i;
        expect_block(zeros, 21, 1, 40);
        kel_free(ctx, nullptr, 8);
        EXPECT_EQ(ctx.messages(), lines_t());
    }
}

// Alignments and sizes that are refused, and the largest that are asked for.
TEST(allocator, null_results)
{
    constexpr size_t limit = size_t{1} << 31;
    block_store store;
    const kel_init_options_t options = store.options();
    test_context ctx(1, 1, 1, &options);
    const std::tuple<size_t, size_t, bool> rows[] = {{24, 100, true},
                                                     {0, 8, true},
                                                     {8, 0, true},
                                                     {3, 1, true},
                                                     {limit, 8, true},
                                                     {8, limit, true},
                                                     {limit / 2, limit - 1, false},
                                                     {1, limit - 8, false}};
    for (const auto &[align, size, refused] : rows) {
        const std::string size_text = std::to_string(size), align_text = std::to_string(align);
        lines_t lines(2, "kel_memalign failed to allocate " + size_text + " bytes aligned to " + align_text);
        if (refused)
            lines[0] = "kel_memalign: size = " + size_text + ", align = " + align_text + ": invalid size or alignment";
        errno = 0;
        store.requests = {};
        store.failing = 1;
        EXPECT_EQ(kel_memalign(ctx, align, size), nullptr);
        EXPECT_EQ(errno, refused ? EINVAL : 0);
        EXPECT_EQ(ctx.messages(), lines);
        EXPECT_EQ(store.requests, std::vector(refused ? 0 : 1, align + whole_words(size) + tail_size));
    }
    for (const auto &[call, name] : {std::pair{0, "kel_calloc"}, {1, "kel_malloc"}}) {
        store.requests = {};
        EXPECT_EQ(call ? kel_malloc(ctx, 21) : kel_calloc(ctx, 3, 7), nullptr);
        EXPECT_EQ(ctx.messages(), lines_t{std::string(name) + " failed to allocate 21 bytes"});
    }
    EXPECT_EQ(kel_debug_calls, 0u);
}
