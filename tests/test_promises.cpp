// What the library bears: null arguments, callbacks that call back, a hostile environment.
#include "support.h"
#include <cstdlib>
#include <gtest/gtest.h>
#include <pthread.h>

// ---- Null arguments -------------------------------------------------------------------------------------------------

#define CALL(call) [&]() -> int { return call; }

// Calls with one null argument each, under their names.
struct null_call {
    const char *argument;
    std::function<int()> call;
};

TEST(promises, null_arguments)
{
    test_context context(2, KEL_DEBUG_ARG, KEL_LOG_ERROR | KEL_LOG_ENTRY | KEL_LOG_RETURN);
    kel_context_t *ctx = context;
    kel_queue_t *queue = open_queue(ctx, 2);
    ASSERT_EQ(kel_nop_post(queue, 0, nullptr), KEL_SUCCESS);
    const kel_vec_t vec = {};
    const kel_int_t val = {};
    size_t length = 8;
    const uint8_t image[16] = {0, 1, 0x10, 'a'};
    kel_zip_t *codec, *none;
    ASSERT_EQ(kel_zip_create(ctx, 1, image + 2, image + 3, &codec), KEL_SUCCESS);
    small_scan scan;

    const kel_vec_t *no = nullptr;
    const kel_int_t *no_val = nullptr;
    const null_call calls[] = {
        {"src", CALL(kel_scan_value(ctx, 0, no, &vec, KEL_EQ, &val).status)},
        {"dst", CALL(kel_scan_value(ctx, 0, &vec, no, KEL_EQ, &val).status)},
        {"val", CALL(kel_scan_value(ctx, 0, &vec, &vec, KEL_EQ, no_val).status)},
        {"lower", CALL(kel_scan_range(ctx, 0, &vec, &vec, KEL_GE_AND_LE, no_val, &val).status)},
        {"upper", CALL(kel_scan_range(ctx, 0, &vec, &vec, KEL_GE_AND_LE, &val, no_val).status)},
        {"upper", CALL(kel_scan_range_post(queue, 0, &vec, &vec, KEL_GE_AND_LE, &val, no_val, nullptr))},
        {"src", CALL(kel_select(ctx, 0, no, no, no).status)},
        {"mask", CALL(kel_select(ctx, 0, &vec, &vec, no).status)},
        {"dst", CALL(kel_extract(ctx, 0, &vec, no).status)},
        {"src", CALL(kel_scan_range(ctx, 0, no, &vec, KEL_GE_AND_LE, &val, &val).status)},
        {"dst", CALL(kel_scan_range(ctx, 0, &vec, no, KEL_GE_AND_LE, &val, &val).status)},
        {"dst", CALL(kel_select_post(queue, 0, &vec, no, &vec, nullptr))},
        {"src", CALL(kel_extract(ctx, 0, no, &vec).status)},
        {"src", CALL(kel_translate(ctx, 0, no, &vec, &vec, 1).status)},
        {"dst", CALL(kel_translate(ctx, 0, &vec, no, &vec, 1).status)},
        {"bitmap", CALL(kel_translate(ctx, 0, &vec, &vec, no, 1).status)},
        {"src1", CALL(kel_and(ctx, 0, no, &vec, &vec).status)},
        {"src2", CALL(kel_or(ctx, 0, &vec, no, &vec).status)},
        {"dst", CALL(kel_xor(ctx, 0, &vec, &vec, no).status)},
        {"src", CALL(kel_copy(ctx, 0, nullptr, &length, 1).status)},
        {"dst", CALL(kel_copy(ctx, 0, &length, nullptr, 1).status)},
        {"dst", CALL(kel_copy_post(queue, 0, &length, nullptr, 1, nullptr))},
        {"dst", CALL(kel_fill(ctx, 0, 0, nullptr, 1, 8).status)},
        {"buf", CALL(kel_int_create(ctx, nullptr, 4, &scan.five))},
        {"val", CALL(kel_int_create(ctx, &length, 4, nullptr))},
        {"value", CALL(kel_version(ctx, nullptr))},
        {"queue", CALL(kel_queue_create(ctx, 1, nullptr))},
        {"results", CALL(kel_poll(queue, nullptr, 1, 0))},
        {"results", CALL(kel_poll(queue, nullptr, -1, 0))},
        {"src", CALL(kel_zip(ctx, 0, no, &length, &length, &codec).status)},
        {"buf", CALL(kel_zip(ctx, 0, &scan.src, nullptr, &length, &codec).status)},
        {"buflen", CALL(kel_zip(ctx, 0, &scan.src, &length, nullptr, &codec).status)},
        {"codec", CALL(kel_zip(ctx, 0, &scan.src, &length, &length, nullptr).status)},
        {"buf", CALL(kel_encode(ctx, &scan.src, nullptr, &length, codec).status)},
        {"src", CALL(kel_encode(ctx, no, &length, &length, codec).status)},
        {"buflen", CALL(kel_encode(ctx, &scan.src, &length, nullptr, codec).status)},
        {"codec", CALL(kel_encode(ctx, &scan.src, &length, &length, nullptr).status)},
        {"codec", CALL(kel_zip_create(ctx, 1, image + 2, image + 3, nullptr))},
        {"widths", CALL(kel_zip_create(ctx, 1, nullptr, image + 3, &none))},
        {"syms", CALL(kel_zip_create(ctx, 1, image + 2, nullptr, &none))},
        {"codec", CALL(kel_zip_create_contig(ctx, image, 4, nullptr))},
        {"buf", CALL(kel_zip_create_contig(ctx, nullptr, 16, &none))},
        {"codec", CALL(kel_zip_get_contig(ctx, nullptr, &length, &length))},
        {"buf", CALL(kel_zip_get_contig(ctx, codec, nullptr, &length))},
        {"buflen", CALL(kel_zip_get_contig(ctx, codec, &length, nullptr))},
        {"codec", CALL(kel_zip_free(ctx, nullptr))},
    };
    for (const auto &[argument, call] : calls) {
        reset_hooks();
        context.lines.clear();
        EXPECT_EQ(call(), KEL_EINVAL) << argument;
        std::erase_if(context.lines, [](const log_line &line) { return line.level != KEL_LOG_ERROR; });
        EXPECT_EQ(context.messages(), lines_t{"Invalid " + std::string(argument) + ": must not be null"});
        EXPECT_EQ(kel_debug_calls, 1u) << argument;
    }

    // Where no byte goes or comes, there need not be a buffer.
    EXPECT_EQ(kel_copy(ctx, 0, nullptr, nullptr, 0).status, KEL_SUCCESS);
    EXPECT_EQ(kel_fill(ctx, 0, 0, nullptr, 0, 8).status, KEL_SUCCESS);
    EXPECT_EQ(kel_poll(queue, nullptr, 0, 0), 0);
    EXPECT_EQ(kel_zip_get_contig(ctx, codec, nullptr, &(length = 0)), KEL_EOVERFLOW);
    EXPECT_EQ(kel_zip_free(ctx, codec), KEL_SUCCESS);
}

TEST(promises, a_compressed_source_has_a_codec)
{
    for (const uint32_t debug : {0u, KEL_DEBUG_ARG, KEL_DEBUG_EXTRA, KEL_DEBUG_ARG | KEL_DEBUG_EXTRA}) {
        test_context ctx(2, debug);
        small_scan scan;
        kel_vec_t dst = scan.dst, mask = scan.src;
        dst.format = KEL_BYTES;
        mask.format = KEL_BITS;
        scan.src.format |= KEL_ZIP;
        scan.dst.elements = 16;
        for (const kel_result_t result : {scan.value(ctx), scan.range(ctx), kel_extract(ctx, 0, &scan.src, &dst),
                                          kel_select(ctx, 0, &scan.src, &dst, &mask)}) {
            EXPECT_EQ(result.status, KEL_EDATAFMT);
            EXPECT_EQ(result.count, 0u);
        }
        EXPECT_EQ(ctx.messages(), lines_t(4, "EDATAFMT: a KEL_ZIP source has no codec"));
        if (!(debug & KEL_DEBUG_ARG)) { // which refuses such a source of a translate
            EXPECT_EQ(kel_translate(ctx, 0, &scan.src, &scan.dst, &mask, 8).status, KEL_EDATAFMT);
        }
    }
}

// ---- Callbacks ------------------------------------------------------------------------------------------------------

namespace
{

// A log callback that calls the library again, up to some depth.
struct calling_back {
    kel_context_t *ctx;
    std::function<void()> call;
    unsigned depth = 0;

    void listen(uint64_t levels)
    {
        ASSERT_EQ(kel_set_log_callback(ctx, levels, hear, this), KEL_SUCCESS);
    }

    static void hear(kel_context_t *, void *data, uint32_t, const char *, const char *)
    {
        auto *self = static_cast<calling_back *>(data);
        if (self->depth++ < 4)
            self->call();
        self->depth--;
    }
};

} // namespace

// The slots end before a page that faults.
TEST(promises, callbacks_that_post_and_poll)
{
    for (const int size : {1, 2, 5}) {
        block_store store;
        const kel_init_options_t options = store.options();
        kel_context_t *ctx = open_context(2, &options);
        kel_queue_t *queue = open_queue(ctx, size);
        uint8_t filled[8];
        const auto post = [&] { return kel_fill_post(queue, 0, 7, filled, sizeof filled, 1, nullptr); };

        calling_back poster = {ctx, post};
        poster.listen(KEL_LOG_VERBOSE);
        EXPECT_EQ(post(), size < 5 ? KEL_EQFULL : KEL_SUCCESS); // four of the callback came first
        EXPECT_EQ(queue->nitems, static_cast<unsigned>(size));
        EXPECT_EQ(post(), KEL_EQFULL);

        std::vector<kel_poll_t> results(16), inner(16);
        int polled_inside = 0;
        calling_back poller = {ctx, [&] { polled_inside += std::max(kel_poll(queue, inner.data(), 1, 0), 0); }};
        poller.listen(KEL_LOG_VERBOSE);
        const int polled = kel_poll(queue, results.data(), -1, 0);
        EXPECT_EQ(polled + polled_inside, size); // each outcome once
        EXPECT_EQ(queue->nitems, 0u);

        calling_back refill = {ctx, [&] { kel_nop_post(queue, 0, nullptr); }};
        refill.listen(KEL_LOG_VERBOSE);
        EXPECT_EQ(kel_nop_post(queue, 0, nullptr), KEL_SUCCESS);
        EXPECT_EQ(kel_poll(queue, results.data(), -1, 0), 1); // no more than there were at the start
        EXPECT_EQ(kel_thread_fini(ctx), KEL_SUCCESS);
        EXPECT_TRUE(store.live.empty());
    }
}

TEST(promises, callbacks_cannot_keep_a_context_from_closing)
{
    kel_context_t *ctx = open_context(2);
    open_queue(ctx, 1);
    unsigned refused = 0, calls = 0;
    calling_back creator = {ctx, [&] {
                                kel_queue_t *queue;
                                if (++calls < 100)
                                    refused += kel_queue_create(ctx, 1, &queue) == KEL_EINVAL;
                            }};
    creator.listen(KEL_LOG_ENTRY);
    EXPECT_EQ(kel_thread_fini(ctx), KEL_SUCCESS);
    EXPECT_GT(refused, 0u);
    EXPECT_EQ(refused, calls);
}

// ---- Environment ----------------------------------------------------------------------------------------------------

static bool privileged; // the program runs with more rights than who started it

extern "C" char *__real_secure_getenv(const char *name);
extern "C" char *__wrap_secure_getenv(const char *name)
{
    return privileged ? nullptr : __real_secure_getenv(name);
}

// Runs on a small stack, which a line of the whole text would pass.
static void *open_and_close(void *)
{
    kel_context_t *ctx = open_context(2);
    EXPECT_TRUE(!privileged || ctx->debug_options == KEL_DEBUG_ARG);
    EXPECT_EQ(kel_thread_fini(ctx), KEL_SUCCESS);
    return nullptr;
}

TEST(promises, hostile_environment)
{
    const std::string word(2 << 20, 'x');
    for (const auto &[name, text] : {std::pair{"KEL_LOG_OPTIONS", "bad KEL_LOG_OPTIONS token at: "},
                                     {"KEL_LOG_FD", "bad KEL_LOG_FD value: "},
                                     {"KEL_DEBUG_OPTIONS", "bad KEL_DEBUG_OPTIONS token at: "}}) {
        setenv("KEL_LOG_OPTIONS", "error", 1);
        setenv("KEL_LOG_FD", "2", 1);
        setenv(name, word.c_str(), 1);
        testing::internal::CaptureStderr();
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        pthread_attr_setstacksize(&attributes, 512 << 10);
        pthread_t thread;
        ASSERT_EQ(pthread_create(&thread, &attributes, open_and_close, nullptr), 0);
        pthread_join(thread, nullptr);
        pthread_attr_destroy(&attributes);
        EXPECT_TRUE(testing::internal::GetCapturedStderr().ends_with(": " + (text + std::string(200, 'x')) + "\n"));

        privileged = true;
        testing::internal::CaptureStderr();
        open_and_close(nullptr);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
        privileged = false;
        unsetenv(name);
    }
    unsetenv("KEL_LOG_OPTIONS");
    unsetenv("KEL_LOG_FD");
}
