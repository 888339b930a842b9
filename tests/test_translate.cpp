// Translates against the reference model, and the small cases whose bytes are known.

#include "request_makers.h"

using namespace model;

TEST_P(random_requests, agree_with_the_model)
{
    check_random<translate_maker>(GetParam(), 4000);
}

INSTANTIATE_TEST_SUITE_P(translates, random_requests, contexts(0u, arg, arg | extra));

// ---- Known cases ----------------------------------------------------------------------------------------------------

static void check_translate(uint64_t flags, const known_vector &src, const known_vector &bitmap,
                            std::optional<uint64_t> test_value, const std::string &expected)
{
    const kel_vec_t dst = plain_vector(KEL_BITS, 6, flags & KEL_ONES_INDEX ? 16 : 1);
    check_known(translate{flags, src, dst, bitmap, 4, test_value}, expected);
}

TEST(translate, known_cases)
{
    const known_vector three(0, 3, 1, "050035"), five(1, 64, 1, "0400000000000000"), two(0, 2, 1, "3545");
    check_translate(0, three, five, {}, "status 0, 1 of 3, 64 bytes 80");
    check_translate(KEL_INVERT | KEL_ONES_INDEX, three, five, {}, "status 0, 2 of 3, 64 bytes 00010002");
    check_translate(KEL_ONES_INDEX, {KEL_RLE, 2, 1, "0500", "0302"}, five, {},
                    "status 0, 3 of 5, 64 bytes 000000010002");
    check_translate(0, two, five, 3, "status 0, 1 of 2, 64 bytes 80");
    check_translate(KEL_INVERT, two, {1, 16, 1, "ffff"}, 3, "status 0, 1 of 2, 64 bytes 40");

    // An element that is never reached is not looked up: it would be in the page behind the bitmap.
    check_translate(0, {KEL_RLE, 3, 3, "000005000000004000", "010001"}, five, {},
                    "status -4, 1 of 1, 64 bytes 80; EDATAFMT at element index 2");
    std::string elements;
    for (int i = 0; i < 520; i++)
        elements += i < 513 ? "0005" : "4000"; // the last bit of 64 bytes is that of element 511
    const std::string ones(128, 'f');
    check_translate(0, {0, 520, 2, elements}, five, {},
                    "status -5, 512 of 513, 64 bytes " + ones + "; EOVERFLOW at element index 513");
}
