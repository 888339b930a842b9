// The pictures of docs/formats.md: their bytes are sources and results of calls here, and have to stand on the page.
#include "kel.hpp"
#include "support.h"
#include <cstring>
#include <deque>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>

namespace
{

const kel::context ctx = kel::open();

// Bytes that the page shows, as "37 17 0f 72", at the start of memory with room behind them.
void *shown(const std::string &picture)
{
    struct alignas(64) memory {
        uint8_t bytes[192] = {};
    };
    static std::deque<memory> pictures;
    static const std::string page = [] {
        std::ifstream file(FORMATS_PAGE);
        return std::string(std::istreambuf_iterator<char>(file), {});
    }();
    EXPECT_NE(page.find(picture), std::string::npos) << "the page does not show " << picture;
    uint8_t *bytes = pictures.emplace_back().bytes;
    for (size_t i = 0; i < picture.size(); i += 3)
        bytes[i / 3] = static_cast<uint8_t>(std::stoi(picture.substr(i, 2), nullptr, 16));
    return bytes;
}

kel_vec_t vector(uint64_t format, uint64_t elements, uint32_t width, const std::string &data, uint16_t aux_width = 0,
                 const std::string &aux = "")
{
    return {format, elements, shown(data), width, 0, 0, aux_width, shown(aux), nullptr, 0};
}

// What a call writes to a destination are these bytes, and zeros up to the next multiple of 64.
template <class Call>
void expect_written(const std::string &picture, uint64_t format, uint64_t elements, uint32_t width, const Call &call)
{
    const kel_vec_t dst = vector(format, elements, width, "");
    memset(dst.data, 0xa5, 192);
    ASSERT_EQ(call(&dst).status, KEL_SUCCESS) << picture;
    EXPECT_EQ(hex(dst.data, 64), hex(shown(picture), 64));
}

void expect_extracted(const std::string &picture, const kel_vec_t &src, uint64_t elements, uint32_t width,
                      uint64_t flags = 0)
{
    expect_written(picture, KEL_BYTES, elements, width,
                   [&](const kel_vec_t *dst) { return kel_extract(ctx, flags, &src, dst); });
}

// The elements of a vector, as bytes or texts.
std::string elements(const kel_vec_t &src, uint64_t count, uint32_t width = 1)
{
    const kel_vec_t dst = vector(KEL_BYTES, count, width, "");
    EXPECT_EQ(kel_extract(ctx, width > 1 ? KEL_PAD : 0, &src, &dst).status, KEL_SUCCESS);
    return {static_cast<char *>(dst.data), count * width};
}

} // namespace

TEST(formats, sources)
{
    using namespace std::string_literals;
    kel_vec_t offset = vector(KEL_BITS, 5, 3, "29 eb 00"), set = vector(KEL_BITS, 16, 1, "48 40");
    offset.offset = 2;
    EXPECT_EQ(elements(vector(KEL_BITS, 8, 4, "37 17 0f 72"), 8), "\3\7\1\7\0\xf\7\2"s);
    EXPECT_EQ(elements(offset, 5), "\5\1\7\2\6");
    EXPECT_EQ(elements(set, 16), "\0\1\0\0\1\0\0\0\0\1\0\0\0\0\0\0"s);
    const kel_vec_t runs[] = {vector(KEL_BITS | KEL_RLE, 3, 4, "59 20", 4, "31 40"),
                              vector(KEL_BITS | KEL_RLE | KEL_ADD_ONE, 3, 4, "59 20", 4, "20 30")};
    for (const kel_vec_t &src : runs)
        EXPECT_EQ(elements(src, 8), "\5\5\5\x9\2\2\2\2");
    const char letters[] = "4f 73 6c 6f 52 6f 6d 65 4e 69 73";
    const kel_vec_t texts[] = {vector(KEL_VAR, 3, 0, letters, 8, "04 04 03"),
                               vector(KEL_VAR | KEL_ADD_ONE, 3, 0, letters, 4, "33 20")};
    for (const kel_vec_t &src : texts)
        EXPECT_EQ(elements(src, 3, 4), "OsloRomeNis\0"s);
}

TEST(formats, destinations)
{
    const kel_vec_t wide = vector(KEL_BITS, 3, 12, "12 3a bc 00 f0");
    expect_extracted("01 23 0a bc 00 0f", wide, 3, 2);
    expect_extracted("00 00 01 23 00 00 0a bc 00 00 00 0f", wide, 3, 4);
    expect_extracted("01 23 00 00 0a bc 00 00 00 0f 00 00", wide, 3, 4, KEL_PAD);
    expect_extracted("01 0a 00", wide, 3, 1);
    EXPECT_EQ(elements(vector(KEL_BYTES, 2, 3, "01 02 03 0a 0b 0c"), 2, 4), std::string("\1\2\3\0\xa\xb\xc\0", 8));

    const kel_vec_t codes = vector(KEL_BITS, 8, 4, "37 17 0f 72"), set = vector(KEL_BITS, 16, 1, "48 40");
    const kel_int_t seven = kel::value(7, 4);
    const auto scan = [&](const char *picture, uint64_t format, uint32_t width, uint64_t flags) {
        expect_written(picture, format, 8, width,
                       [&](const kel_vec_t *dst) { return kel_scan_value(ctx, flags, &codes, dst, KEL_EQ, &seven); });
    };
    scan("52", KEL_BITS, 1, 0);
    scan("00 01 00 03 00 06", KEL_BYTES, 2, KEL_ONES_INDEX);
    scan("00 00 00 01 00 00 00 03 00 00 00 06", KEL_BYTES, 4, KEL_ONES_INDEX);
    expect_written("20", KEL_BITS, 8, 1, // of the codes 1 alone is in {1, 4, 9}
                   [&](const kel_vec_t *dst) { return kel_translate(ctx, 0, &codes, dst, &set, 4); });

    kel_vec_t a = vector(KEL_BITS, 8, 1, "b1 6e"), zeros = vector(KEL_BITS, 8, 1, "00"), dst = zeros;
    a.offset = 3;
    dst.data = shown("");
    ASSERT_EQ(kel_or(ctx, 0, &a, &zeros, &dst).status, KEL_SUCCESS);
    EXPECT_EQ(hex(dst.data, 1), hex(shown("d6"), 1));
}

TEST(formats, values)
{
    const kel_vec_t src = vector(KEL_BYTES, 2, 3, "52 6f 6d 4f 73 6c"); // "Rom", "Osl"
    const std::tuple<kel_compare_t, const char *, uint64_t> cases[] = {
        {KEL_EQ, "R", 0}, {KEL_GT, "R", 1}, {KEL_GE, "Rom", 1}, {KEL_LT, "Rome", 2}, {KEL_EQ, "Osl", 1}};
    for (const auto &[op, text, matches] : cases) {
        const kel_int_t value = kel::value(text);
        EXPECT_EQ(kel_scan_value(ctx, 0, &src, kel::column::bits(2, 1), op, &value).count, matches) << text;
    }
}

TEST(formats, codecs)
{
    ASSERT_EQ(kel_set_debug(ctx, KEL_DEBUG_ARG | KEL_DEBUG_EXTRA), KEL_SUCCESS);
    kel_vec_t src = vector(KEL_ZIP, 7, 1, "84");
    ASSERT_EQ(kel_zip_create_contig(ctx, shown("00 03 12 30 61 62 63 64 65 66"), 10, &src.codec), KEL_SUCCESS);
    src.codewords = 4;
    expect_extracted("64 65 66 61 62 63 61", src, 7, 1);
    EXPECT_EQ(kel_zip_free(ctx, src.codec), KEL_SUCCESS);
}
