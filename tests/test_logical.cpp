// And, or, xor against the model.

#include "request_makers.h"

using namespace model;

TEST_P(random_requests, agree_with_the_model)
{
    check_random<logical_maker>(GetParam(), 5000);
}

INSTANTIATE_TEST_SUITE_P(logical, random_requests, contexts_of_bytes());

TEST(logical, opcodes)
{
    constexpr uint64_t a = 0b0011;
    constexpr uint64_t b = 0b0101;
    const uint64_t expected[] = {a & b, a | b, a ^ b, ~(a & b), ~(a | b), ~a ^ b, ~a ^ b};
    for (int op = 240; op <= 246; op++)
        EXPECT_EQ(logical_op(op, a, b), expected[op - 240]);
    EXPECT_EQ(op_to_cmd(240), KEL_CMD_AND);
    EXPECT_EQ(op_to_cmd(241), KEL_CMD_OR);
    EXPECT_EQ(op_to_cmd(242), KEL_CMD_XOR);
    EXPECT_EQ(op_to_cmd(239), -1);
    EXPECT_EQ(op_to_cmd(243), -1);
    const kel_vec_t none = {};
    EXPECT_EQ(kel_and_emulate(no_context, 0, &none, &none, &none, nullptr), KEL_ENOTIMPL);
}

TEST(logical, log_lines)
{
    test_context ctx(2, KEL_DEBUG_ARG, KEL_LOG_ENTRY | KEL_LOG_RETURN | KEL_LOG_VERBOSE);
    kel_queue_t *queue;
    ASSERT_EQ(kel_queue_create(ctx, 1, &queue), KEL_SUCCESS);
    ctx.messages();
    alignas(64) uint8_t bytes[3][64] = {{0xff}, {0x81}, {}};
    const kel_vec_t src1 = plain_vector(KEL_BITS, 8, 1, bytes[0]);
    const kel_vec_t src2 = plain_vector(KEL_BITS, 8, 1, bytes[1]);
    const kel_vec_t dst = plain_vector(KEL_BITS, 8, 1, bytes[2]);
    const auto vec = [](const void *data, const char *before_format) {
        return "data=" + pointer_text(data) + ", elements=8, width=1, offset=0," + before_format + "fmt=bits";
    };
    const auto args = [&](const char *open, const char *close) {
        const std::string to = open + ("{ " + vec(&bytes[2], " ")) + " }" + close;
        return ": ctx=" + pointer_text(ctx.ctx) + ", flags=invert, \n  src1 = " + open + vec(&bytes[0], "\n      ") +
               close + "\n  src2 = " + open + vec(&bytes[1], "\n      ") + close + "\n  dst = " + to;
    };
    EXPECT_EQ(kel_or(ctx, KEL_INVERT, &src1, &src2, &dst).count, 0u);
    EXPECT_EQ(ctx.messages(),
              (lines_t{"kel_or()" + args("{", "}"), "kel_logical_emulate() returns {KEL_SUCCESS, count=0}",
                       "kel_or() returns {SUCCESS, count=0}"}));
    EXPECT_EQ(kel_xor_post(queue, KEL_INVERT, &src1, &src2, &dst, at(0x12)), KEL_SUCCESS);
    EXPECT_EQ(ctx.messages(),
              (lines_t{"kel_xor_post()" + args("", "") + "\n  udata = 0x12",
                       "kel_logical_emulate() returns {KEL_SUCCESS, count=2}", "kel_xor_post returns {SUCCESS}"}));
    EXPECT_EQ(kel_queue_destroy(queue), KEL_SUCCESS);
}
