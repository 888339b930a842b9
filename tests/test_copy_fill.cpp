// Copies and fills at all addresses against the model, and the lines and writers that are theirs.

#include "kel_fill.h"
#include "request_makers.h"
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

using namespace model;

TEST_P(random_requests, agree_with_the_model)
{
    check_random<transfer_maker>(GetParam(), 3000);
}

INSTANTIATE_TEST_SUITE_P(transfers, random_requests, contexts_of_bytes());

// Where the copy is split, told by its lines.
TEST(copy, verbose_lines)
{
    test_context ctx(2, KEL_DEBUG_ARG, KEL_LOG_VERBOSE);
    alignas(64) uint8_t bytes[512] = {};
    const auto lines = [&](uint64_t at, uint64_t count) {
        EXPECT_EQ(kel_copy(ctx, 0, bytes + 256, bytes + at, count).status, KEL_SUCCESS);
        return ctx.messages();
    };
    const std::string software = "under 64B, do software copy";
    EXPECT_EQ(lines(0, 0), lines_t{software});
    EXPECT_EQ(lines(63, 1), lines_t{software});
    EXPECT_EQ(lines(63, 2), lines_t{"software copy 1st 1 bytes\n"});
    EXPECT_EQ(lines(0, 63), lines_t{});
    EXPECT_EQ(lines(0, 129), (lines_t{"kel copy 128 bytes\n", "Emulating kel_extract"}));
    EXPECT_EQ(lines(60, 68), (lines_t{"software copy 1st 4 bytes\n", "kel copy 64 bytes\n", "Emulating kel_extract"}));
}

TEST(fill, writers)
{
    test_context ctx(2, 0, KEL_LOG_VERBOSE);
    guarded_buffer area(256, 64);
    uint8_t *const bytes = area.data;
    for (int n = -1; n < 20; n++) {
        memset(bytes, 0xee, area.size);
        memsetx(reinterpret_cast<uint64_t *>(bytes + 8), 0x0102030405060708, n);
        std::string expected(16, 'e');
        for (int i = 0; i < n; i++)
            expected += "0102030405060708";
        EXPECT_EQ(hex(bytes, expected.size() / 2 + 1), expected + "ee");
    }
    EXPECT_EQ(kel_fill_emulate(ctx, 0, 0x0202020202020202, bytes, 15, 8), 8u);
    fill_unaligned(ctx, bytes + 3, 0xa1a2a3a4a5a6a7a8, 4);
    EXPECT_EQ(hex(bytes, 10), "020202a1a2a3a4020102");
    EXPECT_EQ(ctx.messages(),
              lines_t{"fill, dstv(" + pointer_text(bytes + 3) + "), val(0xa1a2a3a4a5a6a7a8), count(4)\n"});
    EXPECT_DEATH(kel_fill_emulate(ctx, 0, 0, bytes + 1, 8, 8), "257.*\\(uintptr_t\\)dst & 0x7\\) == 0");
}

// Counts are not cut: a fill of 16 GiB goes up from its start, over what there is of its destination, and faults there.
TEST(fill, sixteen_gigabytes)
{
    constexpr uint64_t size = uint64_t{1} << 34, present = uint64_t{1} << 16;
    test_context ctx(2, 0);
    auto *const memory =
        static_cast<uint8_t *>(mmap(nullptr, 3 * size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
    ASSERT_NE(memory, MAP_FAILED);
    static uint8_t *start;
    start = memory + size;
    ASSERT_EQ(mprotect(start, present, PROT_READ | PROT_WRITE), 0);
    struct sigaction action = {};
    action.sa_flags = SA_SIGINFO;
    action.sa_sigaction = [](int, siginfo_t *fault, void *) {
        const bool full = std::all_of(start, start + present, [](uint8_t byte) { return byte == 7; });
        _exit(fault->si_addr == start + present && full ? 0 : 1);
    };
    EXPECT_EXIT((sigaction(SIGSEGV, &action, nullptr), kel_fill(ctx, 0, 7, start, size, 1)), testing::ExitedWithCode(0),
                "");
    munmap(memory, 3 * size);
}

// A posted fill is validated twice, and what the inner call says is lost.
TEST(fill, posted)
{
    test_context ctx;
    kel_queue_t *queue;
    ASSERT_EQ(kel_queue_create(ctx, 2, &queue), KEL_SUCCESS);
    uint8_t byte = 7;
    EXPECT_EQ(kel_fill_post(queue, KEL_PIPE_SRC, 1, &byte, 1, 3, nullptr), KEL_EINVAL);
    EXPECT_EQ(ctx.messages(), lines_t{"Invalid val_width: 3"});
    ctx->debug_options = KEL_DEBUG_EXTRA; // the posted form does not look at widths, the inner call neither
    EXPECT_EQ(kel_fill_post(queue, KEL_PIPE_SRC | KEL_SERIAL, 1, &byte, 1, 1, &byte), KEL_SUCCESS);
    kel_poll_t polled = {};
    EXPECT_EQ(kel_poll(queue, &polled, 1, 0), 1);
    EXPECT_TRUE(polled.status == KEL_SUCCESS && polled.count == 0 && polled.udata == &byte && byte == 1);
    EXPECT_EQ(kel_queue_destroy(queue), KEL_SUCCESS);
}
