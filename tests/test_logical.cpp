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
