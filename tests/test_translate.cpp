// Translates against the reference model, and the small cases whose bytes are known.

#include "kel_translate.h"
#include "model_driver.h"
#include "translate_model.h"
#include <bit>

using namespace model;

static outcome run(test_context &ctx, road way, const translate &t)
{
    if (!t.test_value)
        return take_road(ctx, way, kel_translate, kel_translate_post, kel_translate_emulate, kel_translate_general,
                         t.flags, &t.src, &t.dst, &t.bitmap, t.val_width);
    outcome seen = {.cca = cca_before};
    const bool emulated = way == emulations || way == general_kernels;
    const auto entry = [&](const auto &call, auto val_width) {
        seen.status = call(ctx, t.flags, &t.src, &t.dst, t.bitmap.data, val_width, *t.test_value, &seen.cca);
    };
    emulated ? entry(kel_translate_testval_emulate, t.val_width) : entry(kel_translate_testval, int(t.val_width));
    return seen;
}

// Makes translates, whose destinations are placed later.
class translate_maker : public source_maker
{
  public:
    explicit translate_maker(uint64_t seed) : source_maker(seed)
    {
        widest = 3;
    }

    translate make(bool make_lawful)
    {
        lawful = make_lawful;
        no_width = !lawful && random.one_in(40);
        translate t = {};
        t.flags = (random.one_in(2) ? KEL_ONES_INDEX : 0) | (random.one_in(2) ? KEL_INVERT : 0) | draw_hints();
        draw_format(t.src, KEL_RLE);
        draw_lengths(t.src);
        const uint64_t width = bits_of(t.src);
        const uint64_t size = draw_bitmap(t.bitmap, std::min<uint64_t>(width ? width : 16, 16));
        const auto least = static_cast<uint32_t>(std::bit_width(size - 1));
        t.val_width = random.between<uint32_t>(least, std::max<uint64_t>(least, width));
        if (!lawful && random.one_in(3)) {
            t.val_width = random.between<uint32_t>(0, 70);
            t.test_value = random.one_in(4) ? random.word() : random.between(0, 3);
        }
        draw_elements(t.src, [&](uint64_t bits) { return draw_element(t, size, bits); });
        draw_results(t.flags, t.src, t.dst);
        return t;
    }

  private:
    // A bitmap of any density before a page that faults, with this number of bits at most, mostly few; the bits that
    // can be read. A few say less.
    uint64_t draw_bitmap(kel_vec_t &bitmap, uint64_t index_bits)
    {
        const uint64_t most = uint64_t{1} << (random.one_in(8) ? index_bits : random.between(0, index_bits));
        const uint64_t size = random.one_in(2) ? most : random.between(1, most), align = lawful ? 16 : 1;
        const uint64_t bytes = round_up((size + 7) / 8, random.one_in(2) ? align : std::min<uint64_t>(4 * align, 64));
        auto *const start = table.data + table.size - bytes;
        const uint64_t filler = random.one_in(2) ? 0 : 0xff, others = random.one_in(2) ? 1 : 20;
        for (uint64_t i = 0; i < bytes; i++)
            start[i] = static_cast<uint8_t>(random.one_in(others) ? random.word() : filler);
        bitmap = {KEL_BITS, random.one_in(10) ? random.between(1, size) : size, start, 1, 0, 0, 0, {}, {}, 0};
        return size;
    }

    // An element that selects a bit of the bitmap by its low bits, or with a test value by some of them.
    element_bits draw_element(const translate &t, uint64_t size, uint64_t bits)
    {
        const uint64_t indexing = t.test_value ? t.val_width % 32 : 63;
        uint64_t low = random.word();
        if (t.test_value && random.one_in(2))
            low = *t.test_value << t.val_width % 64 | random.between(0, (uint64_t{1} << t.val_width % 64) - 1);
        const uint64_t indexes = std::min({size, uint64_t{1} << indexing, bits < 16 ? uint64_t{1} << bits : size});
        low = (t.test_value ? low >> indexing << indexing : 0) | random.between(0, indexes - 1);
        element_bits drawn = draw_bits();
        for (uint64_t i = 0; i < std::min<uint64_t>(bits, 64); i++)
            drawn[bits - 1 - i] = low >> i & 1;
        return drawn;
    }

    guarded_buffer table{8192, 64};
};

class random_translates : public testing::TestWithParam<options>
{
};

TEST_P(random_translates, agree_with_the_model)
{
    check_random<translate_maker>(GetParam(), 10000);
}

INSTANTIATE_TEST_SUITE_P(contexts, random_translates, testing::ValuesIn(contexts, contexts + 7));

// ---- Known cases ----------------------------------------------------------------------------------------------------

static const known_vector three_bytes = {0, 3, 1, "050035"}, test_bytes = {0, 2, 1, "3545"},
                          two_bytes = {0, 1, 2, "0100"}, runs = {KEL_RLE, 2, 1, "0500", "0302"};

// Translates with the text of their outcome: status, ones of elements processed, size, bytes, messages.
static const struct known_case {
    uint64_t flags;
    known_vector src;
    std::string bitmap;
    uint32_t val_width;
    std::optional<uint64_t> test_value;
    const char *expected;
} known_cases[] = {
    {0, three_bytes, "0400000000000000", 8, {}, "status 0, 1 of 3, 64 bytes 80"},
    {KEL_INVERT, three_bytes, "0400000000000000", 8, {}, "status 0, 2 of 3, 64 bytes 60"},
    {KEL_INVERT | KEL_ONES_INDEX, three_bytes, "0400000000000000", 8, {}, "status 0, 2 of 3, 64 bytes 00010002"},
    {KEL_ONES_INDEX, runs, "04", 8, {}, "status 0, 3 of 5, 64 bytes 000000010002"},
    {0, two_bytes, std::string(64, '0') + "80", 8, {}, "status 0, 1 of 1, 64 bytes 80"},
    {0, test_bytes, "0400", 4, 3, "status 0, 1 of 2, 64 bytes 80"},
    {KEL_INVERT, test_bytes, "ffff", 4, 3, "status 0, 1 of 2, 64 bytes 40"},
};

TEST(translate, known_cases)
{
    for (const auto &[flags, from, bits, val_width, test_value, expected] : known_cases) {
        const placed_vector src(from), bitmap({KEL_BITS, 4 * bits.size(), 1, bits});
        const kel_vec_t dst = {KEL_BITS, 6, nullptr, flags & KEL_ONES_INDEX ? 16u : 1u, 0, 0, 0, nullptr, nullptr, 0};
        check_known(translate{flags, src.vec, dst, bitmap.vec, val_width, test_value}, expected);
    }
}

// Positions beyond 65535 in entries of 2 bytes reach into the entries before them: runs of 256, up to any end.
TEST(translate, positions_beyond_65535)
{
    test_context ctx(2, 0);
    destination_area area;
    const guarded_buffer bytes(300), runs_of_256(300), bitmap(32);
    memset(runs_of_256.data, 0xff, 300);
    random_source(5).fill(bytes.data, 300);
    const kel_vec_t src = {KEL_RLE | KEL_ADD_ONE, 300, bytes.data, 1, 0, 0, 8, runs_of_256.data, nullptr, 0};
    for (const uint64_t room : {76800, 38000, 37999}) {
        const kel_vec_t dst = {KEL_BYTES, room, nullptr, 2, 0, 0, 0, nullptr, nullptr, 0};
        translate t = {KEL_ONES_INDEX, src, dst, {KEL_BITS, 256, bitmap.data, 1, 0, 0, 0, nullptr, nullptr, 0}, 8, {}};
        check_roads(ctx, plain, t, area);
    }
}
