// Translates against the reference model, and the small cases whose bytes are known.

#include "kel.hpp"
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

// Of codewords, which translate takes for elements where arguments are not validated, none behind the stream is looked
// at.
TEST(translate, compressed_source_under_extra_tests)
{
    test_context ctx(2, extra);
    const guarded_buffer stream(1, 8), image(10, 16);
    memcpy(image.data,
           "\0\3\x12\x30"
           "abcdef",
           10);
    kel_zip_t *codec = nullptr;
    ASSERT_EQ(kel_zip_create_contig(ctx, image.data, 10, &codec), KEL_SUCCESS);
    *stream.data = 0x84; // 2 0 1 0: "defabca"
    kel_vec_t src = plain_vector(KEL_ZIP, 7, 1, stream.data);
    src.codec = codec;
    src.codewords = 4;
    kel::column bitmap = kel::column::bits(256, 1), dst = kel::column::bits(7, 1);
    kel_put_field(bitmap.vec.data, 'a', 1, 1);
    EXPECT_EQ(kel_translate(ctx, 0, &src, dst, bitmap, 8).count, 2u);
    EXPECT_EQ(*static_cast<uint8_t *>(dst.vec.data), 0x12);
    bitmap.vec.elements = 0x84; // which the byte of the stream does not lie in, taken for an element
    EXPECT_EQ(kel_translate(ctx, 0, &src, dst, bitmap, 8).status, KEL_EINVAL);
    EXPECT_EQ(kel_zip_free(ctx, codec), KEL_SUCCESS);
}
