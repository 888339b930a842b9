// The pictures of docs/formats.md: their bytes are sources and results of calls here, and have to stand on the page.
#include "kel.hpp"
#include "support.h"
#include <deque>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>

namespace
{

class formats : public testing::Test
{
  protected:
    // Bytes that the page shows, as "37 17 0f 72", at the start of memory with room behind them.
    const kel::column &shown(const std::string &hex)
    {
        static const std::string page = [] {
            std::ifstream file(FORMATS_PAGE);
            return std::string(std::istreambuf_iterator<char>(file), {});
        }();
        EXPECT_NE(page.find(hex), std::string::npos) << "the page does not show " << hex;
        const kel::column &bytes = pictures.emplace_back(kel::column::bytes((hex.size() + 1) / 3, 1));
        for (size_t i = 0; i < bytes.vec.elements; i++)
            bytes_of(bytes)[i] = static_cast<uint8_t>(std::stoi(hex.substr(3 * i, 2), nullptr, 16));
        return bytes;
    }

    static uint8_t *bytes_of(const kel::column &column)
    {
        return static_cast<uint8_t *>(column.vec.data);
    }

    static kel_vec_t vector(uint64_t format, uint64_t elements, uint32_t width, const kel::column &bytes)
    {
        return {format, elements, bytes.vec.data, width, 0, 0, 0, nullptr, nullptr, 0};
    }

    static kel_vec_t with_aux(uint64_t format, uint64_t elements, uint32_t width, const kel::column &bytes,
                              uint16_t aux_width, const kel::column &aux)
    {
        return {format, elements, bytes.vec.data, width, 0, 0, aux_width, aux.vec.data, nullptr, 0};
    }

    // What a call writes to a destination are these bytes, and zeros up to the next multiple of 64.
    template <class Call>
    void expect_written(const std::string &hex, kel::column dst, const Call &call)
    {
        memset(dst.vec.data, 0xa5, 128);
        const kel_result_t result = call(&dst.vec);
        ASSERT_EQ(result.status, KEL_SUCCESS) << hex;
        EXPECT_EQ(0, memcmp(dst.vec.data, shown(hex).vec.data, 64)) << hex;
    }

    // The elements of a vector as an extract finds them, 4 bytes each.
    std::vector<uint32_t> elements(const kel_vec_t &src, uint64_t count)
    {
        const kel::column dst = kel::column::bytes(count, 4);
        EXPECT_EQ(kel_extract(ctx, 0, &src, dst).status, KEL_SUCCESS);
        std::vector<uint32_t> found(count);
        EXPECT_EQ(dst.unpack(found), KEL_SUCCESS);
        return found;
    }

    using numbers = std::vector<uint32_t>;
    const kel::context ctx = kel::open();

  private:
    std::deque<kel::column> pictures;
};

} // namespace

TEST_F(formats, fixed_width)
{
    EXPECT_EQ(elements(vector(KEL_BITS, 8, 4, shown("37 17 0f 72")), 8), (numbers{3, 7, 1, 7, 0, 15, 7, 2}));
    EXPECT_EQ(elements(vector(KEL_BITS, 3, 12, shown("12 3a bc 00 f0")), 3), (numbers{0x123, 0xabc, 0x00f}));
    EXPECT_EQ(elements(vector(KEL_BYTES, 2, 3, shown("01 02 03 0a 0b 0c")), 2), (numbers{0x010203, 0x0a0b0c}));
    kel_vec_t offset = vector(KEL_BITS, 5, 3, shown("29 eb 00"));
    offset.offset = 2;
    EXPECT_EQ(elements(offset, 5), (numbers{5, 1, 7, 2, 6}));
}

TEST_F(formats, runs)
{
    const kel::column &data = shown("59 20");
    const numbers expanded = {5, 5, 5, 9, 2, 2, 2, 2};
    EXPECT_EQ(elements(with_aux(KEL_BITS | KEL_RLE, 3, 4, data, 4, shown("31 40")), 8), expanded);
    EXPECT_EQ(elements(with_aux(KEL_BITS | KEL_RLE | KEL_ADD_ONE, 3, 4, data, 4, shown("20 30")), 8), expanded);
}

TEST_F(formats, variable_width)
{
    const kel::column &letters = shown("4f 73 6c 6f 52 6f 6d 65 4e 69 73");
    const kel_vec_t by_bytes = with_aux(KEL_VAR, 3, 0, letters, 8, shown("04 04 03"));
    const kel_vec_t by_halves = with_aux(KEL_VAR | KEL_ADD_ONE, 3, 0, letters, 4, shown("33 20"));
    for (const kel_vec_t *src : {&by_bytes, &by_halves}) {
        const kel::column texts = kel::column::bytes(3, 16);
        EXPECT_EQ(kel_extract(ctx, KEL_PAD, src, texts).status, KEL_SUCCESS);
        EXPECT_EQ(texts.text(0), "Oslo");
        EXPECT_EQ(texts.text(1), "Rome");
        EXPECT_EQ(texts.text(2), "Nis");
    }
}

TEST_F(formats, results_of_scans)
{
    const kel_vec_t src = vector(KEL_BITS, 8, 4, shown("37 17 0f 72"));
    const kel_int_t seven = kel::value(7, 4);
    const auto scan = [&](uint64_t flags) {
        return [&, flags](const kel_vec_t *dst) { return kel_scan_value(ctx, flags, &src, dst, KEL_EQ, &seven); };
    };
    expect_written("52", kel::column::bits(8, 1), scan(0));
    expect_written("00 01 00 03 00 06", kel::column::bytes(8, 2), scan(KEL_ONES_INDEX));
    expect_written("00 00 00 01 00 00 00 03 00 00 00 06", kel::column::bytes(8, 4), scan(KEL_ONES_INDEX));
}

TEST_F(formats, destination_elements)
{
    const kel_vec_t src = vector(KEL_BITS, 3, 12, shown("12 3a bc 00 f0"));
    const auto extract = [&](uint64_t flags) {
        return [&, flags](const kel_vec_t *dst) { return kel_extract(ctx, flags, &src, dst); };
    };
    expect_written("01 23 0a bc 00 0f", kel::column::bytes(3, 2), extract(0));
    expect_written("00 00 01 23 00 00 0a bc 00 00 00 0f", kel::column::bytes(3, 4), extract(0));
    expect_written("01 23 00 00 0a bc 00 00 00 0f 00 00", kel::column::bytes(3, 4), extract(KEL_PAD));
    expect_written("01 0a 00", kel::column::bytes(3, 1), extract(0));
}

TEST_F(formats, values)
{
    const kel_vec_t src = vector(KEL_BYTES, 2, 3, shown("52 6f 6d 4f 73 6c")); // "Rom", "Osl"
    const struct {
        kel_compare_t op;
        const char *text;
        uint64_t matches;
    } cases[] = {{KEL_EQ, "R", 0}, {KEL_GT, "R", 1}, {KEL_GE, "Rom", 1}, {KEL_LT, "Rome", 2}, {KEL_EQ, "Osl", 1}};
    for (const auto &c : cases) {
        const kel_int_t value = kel::value(c.text);
        EXPECT_EQ(kel_scan_value(ctx, 0, &src, kel::column::bits(2, 1), c.op, &value).count, c.matches) << c.text;
    }
}

TEST_F(formats, bitmaps)
{
    const kel_vec_t codes = vector(KEL_BITS, 8, 4, shown("37 17 0f 72")); // of these 1 alone is in {1, 4, 9}
    kel_vec_t set = vector(KEL_BITS, 16, 1, shown("48 40"));
    EXPECT_EQ(elements(set, 16), (numbers{0, 1, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0}));
    expect_written("20", kel::column::bits(8, 1),
                   [&](const kel_vec_t *dst) { return kel_translate(ctx, 0, &codes, dst, &set, 4); });
}

TEST_F(formats, codecs)
{
    const kel::column &image = shown("00 03 12 30 61 62 63 64 65 66"), &codewords = shown("84");
    kel_set_debug(ctx, KEL_DEBUG_ARG | KEL_DEBUG_EXTRA);
    kel_zip_t *made = nullptr;
    ASSERT_EQ(kel_zip_create_contig(ctx, image.vec.data, image.vec.elements, &made), KEL_SUCCESS);
    const kel::codec codec(made, {ctx});
    kel_vec_t src = vector(KEL_ZIP, 7, 1, codewords);
    src.codec = codec;
    src.codewords = 4;
    expect_written("64 65 66 61 62 63 61", kel::column::bytes(7, 1),
                   [&](const kel_vec_t *dst) { return kel_extract(ctx, 0, &src, dst); });
}

TEST_F(formats, offsets_of_logical_operations)
{
    kel_vec_t a = vector(KEL_BITS, 8, 1, shown("b1 6e")), zeros = vector(KEL_BITS, 8, 1, shown("00"));
    a.offset = 3;
    const kel::column dst = kel::column::bits(8, 1);
    ASSERT_EQ(kel_or(ctx, 0, &a, &zeros, dst).status, KEL_SUCCESS);
    EXPECT_EQ(0, memcmp(dst.vec.data, shown("d6").vec.data, 1));
}
