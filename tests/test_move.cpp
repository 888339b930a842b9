// Selects and extracts against the reference models, and the small cases whose bytes are known.

#include "request_makers.h"

using namespace model;

TEST_P(random_requests, agree_with_the_model)
{
    check_random<move_maker>(GetParam(), 4000);
}

INSTANTIATE_TEST_SUITE_P(moves, random_requests, contexts(0u, arg, arg | extra, extra));

// ---- Known cases ----------------------------------------------------------------------------------------------------

// A move into a vector of bytes. A mask without elements makes an extract.
static void check_move(uint64_t flags, const known_vector &src, const known_vector &mask, uint64_t elements,
                       uint32_t width, const char *expected)
{
    check_known(move{flags, src, plain_vector(KEL_BYTES, elements, width), mask.elements > 0, mask}, expected);
}

TEST(move, known_cases)
{
    const known_vector no_mask(KEL_BITS, 0, 1, ""), both(KEL_BITS, 2, 1, "c0");
    check_move(0, {0, 2, 2, "01020304"}, {1, 2, 1, "00"}, 2, 4, "status 0, 0 of 2, 0 bytes ");
    check_move(0, {0, 2, 2, "01020304"}, {1, 2, 1, "40"}, 1, 1, "status 0, 1 of 2, 64 bytes 03");
    check_move(0, {0, 2, 1, "abcd"}, both, 2, 4, "status 0, 2 of 2, 64 bytes 000000ab000000cd");
    check_move(KEL_PAD, {0, 2, 1, "abcd"}, both, 2, 4, "status 0, 2 of 2, 64 bytes ab000000cd");
    check_move(0, {KEL_BITS, 2, 3, "b4"}, both, 2, 1, "status 0, 2 of 2, 64 bytes 0505");
    check_move(0, {0, 2, 1, "abcd"}, both, 0, 4, "status -5, 0 of 1, 0 bytes ; EOVERFLOW at element index 1");
    check_move(0, {KEL_BITS, 2, 4, "12"}, no_mask, 2, 1, "status 0, 0 of 2, 64 bytes 0102");
    check_move(0, {KEL_RLE, 2, 1, "0709", "0203"}, no_mask, 5, 1, "status 0, 0 of 5, 64 bytes 0707090909");
    check_move(0, {KEL_VAR, 2, 0, "0506", "0100"}, no_mask, 2, 2,
               "status -4, 0 of 1, 64 bytes 0005; EDATAFMT at element index 2");
}

// Runs in destinations of all sizes up to what they need and more, with the end inside of blocks and of runs.
TEST(move, runs_end_anywhere)
{
    test_context ctx(2, 0);
    destination_area dst;
    random_source random(5);
    const guarded_buffer data(160 * 12), lengths(160), mask(20);
    for (const guarded_buffer *buffer : {&data, &lengths, &mask})
        random.fill(buffer->data, buffer->size);
    for (const uint32_t width : {1u, 12u})
        for (const uint32_t to : {1u, 2u, 4u, 8u, 16u})
            for (uint64_t elements = 0; elements < 26000; elements += random.between(64 / to, 1500)) {
                kel_vec_t src = plain_vector(KEL_RLE, 160, width, data.data);
                src.format |= elements % 2 * KEL_ADD_ONE; // else there are runs of 0
                src.aux_width = elements % 3 ? 8 : 2;
                src.aux_data = lengths.data;
                move m = {elements % 5 ? 0 : KEL_PAD, src, plain_vector(KEL_BYTES, elements, to), elements % 7 == 0,
                          plain_vector(KEL_BITS, 160, 1, mask.data)};
                ASSERT_TRUE(check_roads(ctx, plain, m, dst));
            }
}
