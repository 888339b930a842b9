// Threads with contexts of their own, side by side: each has to see what it sees alone. Meant for ThreadSanitizer.
#include "kel_frame.h"
#include "support.h"
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <thread>

namespace
{

std::atomic<unsigned> syslog_calls;

// Everything that one thread sees, as text: statuses, counts, outputs, and its log lines but for addresses.
using record_t = std::string;

template <class... Number>
void note(record_t &seen, Number... numbers)
{
    ((seen += std::to_string(numbers) + ' '), ...);
}

void record_line(kel_context_t *, void *record, uint32_t level, const char *, const char *message)
{
    auto &seen = *static_cast<record_t *>(record);
    note(seen, level, strlen(message));
    if (level != KEL_LOG_ENTRY && !strstr(message, "0x"))
        seen += message;
}

// The buffers of a thread: a stream of one repeated byte sequence, with runs and lengths from 0 to 15.
struct buffers {
    alignas(64) uint8_t data[2048];
    alignas(64) uint8_t aux[128];
    alignas(64) uint8_t out[8192];
};

// A scan with every operator, and a bad one, at once and posted, and what it leaves.
void scan(kel_context_t *ctx, kel_queue_t *queue, buffers &b, uint64_t format, uint32_t width, uint64_t flags,
          record_t &seen)
{
    const auto aux_width = static_cast<uint16_t>(width % 2 ? 4 : 8);
    const kel_vec_t src = {format, 100, b.data, width, 0, 0, aux_width, b.aux, nullptr, 0};
    const uint64_t out_format = flags ? KEL_BYTES : KEL_BITS; // an index list, or bits
    const kel_vec_t dst = {out_format, 1700, b.out, flags ? 4u : 1u, 0, 0, 0, nullptr, nullptr, 0};
    const kel_int_t low = {KEL_BYTES, 1, {0, 0, 3}}, high = {KEL_BYTES, 2, {0, 0, 0x9000}};
    memset(b.out, 0, sizeof b.out);
    for (const int number : {0, 1, 2, 3, 4, 5, 7, 16, 17, 18, 19, 21, 23, 25, 27, 29, 31}) {
        const auto op = static_cast<kel_compare_t>(number);
        const bool range = op >= KEL_EQ_OR_EQ;
        const kel_result_t result = range ? kel_scan_range(ctx, flags, &src, &dst, op, &low, &high)
                                          : kel_scan_value(ctx, flags, &src, &dst, op, &low);
        note(seen, result.status, result.count);
        note(seen, range ? kel_scan_range_post(queue, flags, &src, &dst, op, &low, &high, b.aux)
                         : kel_scan_value_post(queue, flags, &src, &dst, op, &low, b.data));
    }
    seen.append(reinterpret_cast<const char *>(b.out), sizeof b.out);
    note(seen, kel_cancel(queue, b.aux), kel_cancel_all(queue));
    kel_poll_t results[4];
    for (int polled; (polled = kel_poll(queue, results, 4, 0)) > 0;)
        for (int i = 0; i < polled; i++)
            note(seen, results[i].status, results[i].count);
}

// The calls that are no scans, a good and a bad one each.
void other_calls(kel_context_t *ctx, kel_queue_t *queue, record_t &seen)
{
    uint32_t version = 0;
    kel_props_t props;
    kel_int_t value = {};
    kel_poll_t result;
    note(seen, kel_version(ctx, &version), version);
    note(seen, kel_get_props(ctx, &props), props.max_elem_bits);
    for (const size_t length : {3u, 17u})
        note(seen, kel_int_create(ctx, "0123456789abcdefg", length, &value), value.dword[2]);
    for (const uint64_t flags : {uint64_t{0}, UINT64_MAX})
        note(seen, kel_nop(ctx, flags).status, kel_nop_post(queue, flags, nullptr));
    note(seen, kel_poll(queue, &result, 1, 0));
    for (const size_t size : {1u, 100u})
        for (void *block :
             {kel_malloc(ctx, size), kel_calloc(ctx, 1, size), kel_memalign(ctx, 64, size), kel_valloc(ctx, size)})
            kel_free(ctx, block, size);
    for (const int code : {-19, -99})
        seen += kel_status_str(static_cast<kel_status_t>(code));
    kel_timer_print();
}

// The life of a thread: pairs of contexts, of both versions, with an allocator and without, and all that they can do.
record_t work(unsigned rounds)
{
    constexpr uint64_t formats[] = {KEL_BYTES,
                                    KEL_BITS,
                                    KEL_VAR,
                                    KEL_VAR | KEL_ADD_ONE,
                                    KEL_RLE,
                                    KEL_RLE | KEL_BITS,
                                    KEL_RLE | KEL_ADD_ONE,
                                    KEL_RLE | KEL_BITS | KEL_ADD_ONE};
    record_t seen;
    reset_hooks();
    const auto b = std::make_unique<buffers>();
    for (size_t i = 0; i < sizeof b->data; i++)
        b->data[i] = static_cast<uint8_t>(i * i % 251);
    for (size_t i = 0; i < sizeof b->aux; i++)
        b->aux[i] = static_cast<uint8_t>((i + 1) % 16);
    for (unsigned round = 0; round < rounds; round++)
        for (const uint32_t version : {1u, 2u}) {
            block_store store;
            const kel_init_options_t options = store.options(), *allocator = round % 2 ? &options : nullptr;
            kel_context_t *ctx = open_context(version, allocator), *second = open_context(3 - version, allocator);
            kel_set_log_callback(ctx, round % 3 ? KEL_LOG_ERROR | KEL_LOG_RETURN : KEL_LOG_ALL, record_line, &seen);
            kel_set_log(second, KEL_LOG_ERROR);
            kel_queue_t *queue = open_queue(ctx, 20);
            for (const uint32_t debug : {KEL_DEBUG_ARG, KEL_DEBUG_ALL, 0u}) {
                note(seen, kel_set_debug(ctx, debug));
                for (const uint64_t format : formats)
                    for (const uint32_t width : {1u, 2u, 7u, 8u, 16u})
                        for (const uint64_t flags : {uint64_t{0}, KEL_ONES_INDEX})
                            scan(ctx, queue, *b, format, width, flags, seen);
                other_calls(ctx, queue, seen);
            }
            kel_nop(second, KEL_PAD);
            EXPECT_EQ(kel_thread_fini(second), KEL_SUCCESS);
            EXPECT_EQ(kel_thread_fini(ctx), KEL_SUCCESS);
            EXPECT_TRUE(store.live.empty());
        }
    note(seen, kel_debug_calls);
    return seen;
}

// A thread that ends with its contexts open: the nodes of its list go back, the record is cleared and stays, and the
// contexts are untouched. What is left goes by hand.
void leave_contexts_open()
{
    block_store store;
    const kel_init_options_t allocator = store.options();
    kel_context_t *contexts[2];
    std::thread([&] {
        for (kel_context_t *&ctx : contexts)
            ctx = open_context(2, &allocator);
        EXPECT_EQ(kel_nop_post(open_queue(contexts[0], 5), 0, nullptr), KEL_SUCCESS);
    }).join();
    const kel_thread_t *thread = contexts[0]->thread;
    EXPECT_EQ(store.live.size(), 1 + 3u); // a queue is three blocks
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

} // namespace

extern "C" void syslog(int, const char *, ...)
{
    syslog_calls++;
}

// First side by side, so that the threads meet in what is done once in a process.
TEST(threads, see_what_they_see_alone)
{
    constexpr unsigned rounds = 4;
    std::atomic<bool> running = true;
    record_t records[2];
    std::thread workers[2];
    for (int i = 0; i < 2; i++)
        workers[i] = std::thread([&, i] { records[i] = work(rounds); });
    std::thread leaving([&] {
        while (running)
            leave_contexts_open();
    });
    for (std::thread &worker : workers)
        worker.join();
    running = false;
    leaving.join();
    const record_t alone = work(rounds);
    for (const record_t &record : records)
        EXPECT_TRUE(record == alone);
    EXPECT_NE(alone.find("kel_scan_range() returns {SUCCESS, count="), record_t::npos);
    EXPECT_GT(kel_debug_calls, 0u);
    EXPECT_EQ(syslog_calls, 3 * 2 * rounds);
}
