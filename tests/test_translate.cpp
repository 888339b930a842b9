// Translates against the reference model, and the small cases whose bytes are known.

#include "element_models.h"
#include "kel_translate.h"
#include "model_driver.h"

using namespace model;

static outcome run(test_context &ctx, road way, const translate &t)
{
    if (!t.test_value)
        return take_road(ctx, way, kel_translate, kel_translate_post, kel_translate_emulate, kel_translate_general,
                         t.flags, &t.src, &t.dst, &t.bitmap, t.val_width);
    outcome seen = {.cca = cca_before};
    const auto run_with = [&](const auto &function, auto val_width) {
        seen.status = function(ctx, t.flags, &t.src, &t.dst, t.bitmap.data, val_width, *t.test_value, &seen.cca);
    };
    way == calls || way == posts ? run_with(kel_translate_testval, static_cast<int>(t.val_width))
                                 : run_with(kel_translate_testval_emulate, t.val_width);
    return seen;
}

// Makes translates, whose destinations are placed later.
class translate_maker : public source_maker
{
  public:
    using source_maker::source_maker;

    translate make(bool make_lawful)
    {
        lawful = make_lawful;
        widest = 3;
        no_width = !lawful && random.one_in(40);
        translate t = {};
        t.flags = draw_flags(KEL_ONES_INDEX | KEL_INVERT);
        draw_format(t.src, KEL_RLE);
        if (lawful && random.one_in(1000)) // positions that need not fit in an entry of 2 bytes
            t.src.elements = random.between(65000, 70000);
        draw_lengths(t.src);
        const uint64_t width = bits_of(t.src);
        const uint64_t size = draw_bitmap(t.bitmap, std::min<uint64_t>(width ? width : 16, 16));
        const auto least = static_cast<uint32_t>(std::bit_width(size - 1));
        t.val_width = random.between<uint32_t>(random.one_in(10) ? 0 : least, std::max<uint64_t>(least, width));
        if (!lawful && random.one_in(3)) {
            t.val_width = random.between<uint32_t>(0, 70);
            t.test_value = random.one_in(4) ? random.word() : random.between(0, 3);
        }
        draw_elements(t.src, [&](uint64_t bits) { return draw_element(t, size, bits); });
        draw_results(t.flags, t.dst);
        return t;
    }

  private:
    // A bitmap of any density before a page that faults, with this number of bits at most, mostly few; the bits that
    // can be read. A few say less.
    uint64_t draw_bitmap(kel_vec_t &bitmap, uint64_t index_bits)
    {
        const uint64_t most = uint64_t{1} << (random.one_in(8) ? index_bits : random.between(0, index_bits));
        const uint64_t size = random.one_in(2) ? most : random.between(1, most);
        const uint64_t bytes = round_up((size + 7) / 8, !lawful ? 1 : random.one_in(2) ? 16 : 64);
        auto *const start = table.data + table.size - bytes;
        const uint64_t filler = random.one_in(2) ? 0 : 0xff, others = random.one_in(2) ? 1 : 20;
        for (uint64_t i = 0; i < bytes; i++)
            start[i] = static_cast<uint8_t>(random.one_in(others) ? random.word() : filler);
        bitmap = plain_vector(KEL_BITS, random.one_in(10) ? random.between(1, size) : size, 1, start);
        return size;
    }

    // An element that selects a bit of the bitmap by its low bits, or with a test value by some of them.
    element_bits draw_element(const translate &t, uint64_t size, uint64_t bits)
    {
        const uint64_t indexing = t.test_value ? t.val_width % 32 : 16;
        uint64_t low = random.between(0, std::min(size, uint64_t{1} << std::min(indexing, bits)) - 1);
        if (t.test_value)
            low |= (random.one_in(2) ? *t.test_value : random.word()) << t.val_width % 64 |
                   random.between(0, (uint64_t{1} << t.val_width % 64) - 1) >> indexing << indexing;
        element_bits drawn = draw_bits();
        for (uint64_t i = 0; i < std::min<uint64_t>(bits, 64); i++)
            drawn[bits - 1 - i] = low >> i & 1;
        return drawn;
    }

    guarded_buffer table{8192, 64};
};

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
