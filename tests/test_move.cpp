// Selects and extracts against the reference models, and the small cases whose bytes are known.

#include "kel_extract.h"
#include "kel_select.h"
#include "model_driver.h"
#include "move_model.h"
#include <bit>

using namespace model;

static outcome run(test_context &ctx, road way, const move &m)
{
    if (m.select)
        return take_road(ctx, way, kel_select, kel_select_post, kel_select_emulate, kel_select_general, m.flags, &m.src,
                         &m.dst, &m.mask);
    return take_road(ctx, way, kel_extract, kel_extract_post, kel_extract_emulate, kel_extract_general, m.flags, &m.src,
                     &m.dst);
}

// Makes selects and extracts, whose destinations are placed later.
class move_maker : public source_maker
{
  public:
    using source_maker::source_maker;

    move make(bool make_lawful)
    {
        lawful = make_lawful;
        wide_elements = !lawful && random.one_in(10);
        move m = {};
        m.select = random.one_in(2);
        m.flags = (random.one_in(2) ? KEL_PAD : 0) | draw_hints();
        draw_format(m.src, m.select ? 0 : KEL_RLE | KEL_VAR);
        draw_lengths(m.src);
        draw_elements(m.src, [&](uint64_t) { return draw_bits(); });
        const uint64_t selected = m.select ? draw_mask(m.mask, m.src.elements) : m.src.elements;
        draw_destination(m.src, m.dst);
        draw_size(m.dst, m.src.elements, lawful && !m.select ? m.src.elements : 0,
                  has_aux(m.src) ? expanded(m.src) : selected);
        return m;
    }

  private:
    // A mask of any density, of single bits or of long runs; its ones.
    uint64_t draw_mask(kel_vec_t &mask, uint64_t count)
    {
        static constexpr unsigned densities[] = {0, 1, 10, 50, 99, 100};
        const unsigned density = random.pick(densities);
        const uint64_t longest = random.one_in(2) ? 1 : random.between(2, 300);
        mask = {KEL_BITS, count + random.between(0, 70), nullptr, 1, random.between<uint8_t>(0, 7), 0, 0, {}, {}, 0};
        if (random.one_in(40))
            mask.elements = count / 2;
        if (!lawful && random.one_in(10))
            mask.format |= KEL_ZIP;
        bit_string stream;
        append(stream, random.word(), mask.offset);
        while (stream.size() < mask.offset + count)
            stream.resize(std::min(mask.offset + count, stream.size() + random.between(1, longest)),
                          random.between(1, 100) <= density);
        mask.data = place(mask_bits, stream);
        return static_cast<uint64_t>(std::count(stream.begin() + mask.offset, stream.end(), true));
    }

    // Often the width of the source.
    void draw_destination(const kel_vec_t &src, kel_vec_t &dst)
    {
        static constexpr uint32_t widths[] = {1, 2, 4, 8, 16, 3, 5, 7, 9, 12, 24, 32};
        dst.elem_width = random.one_in(2) ? static_cast<uint32_t>(std::bit_ceil(bytes_of(src)))
                                          : widths[random.between(0, lawful ? 4 : 11)];
        if (wide_elements)
            dst.elem_width = random.between<uint32_t>(17, 32);
        dst.format = random.one_in(2) ? KEL_BITS : KEL_BYTES;
        if (dst.format & KEL_BITS)
            dst.elem_width = 8 * dst.elem_width - random.between<uint32_t>(0, lawful || random.one_in(2) ? 0 : 7);
        if (!lawful && random.one_in(10))
            dst.offset = random.between<uint8_t>(1, 7);
    }

    guarded_buffer mask_bits{area, 1};
};

class random_moves : public testing::TestWithParam<options>
{
};

TEST_P(random_moves, agree_with_the_model)
{
    check_random<move_maker>(GetParam(), 10000);
}

INSTANTIATE_TEST_SUITE_P(contexts, random_moves, testing::ValuesIn(contexts));

// ---- Known cases ----------------------------------------------------------------------------------------------------

static const known_vector no_mask = {}, ab = {0, 1, 1, "ab"}, words = {0, 2, 4, "0102030405060708"},
                          threes = {KEL_BITS, 2, 3, "b4"}, triple = {0, 1, 3, "010203"},
                          nibbles = {KEL_BITS, 2, 4, "12"}, runs = {KEL_RLE, 2, 1, "0709", "0203"},
                          single_runs = {KEL_RLE | KEL_ADD_ONE, 2, 1, "0709", "0000"},
                          zero_width = {KEL_VAR, 2, 0, "0506", "0100"};

// Moves with the text of their outcome: status, count of elements processed, size, bytes, messages. A mask without
// elements makes an extract.
static const struct known_case {
    uint64_t flags;
    known_vector src, mask;
    uint64_t elements; // of the destination
    uint32_t width;    // and their bytes
    const char *expected;
} known_cases[] = {
    {0, words, {1, 2, 1, "00"}, 2, 4, "status 0, 0 of 2, 0 bytes "},
    {0, words, {1, 2, 1, "40"}, 1, 1, "status 0, 1 of 2, 64 bytes 05"},
    {0, ab, {1, 1, 1, "80"}, 1, 4, "status 0, 1 of 1, 64 bytes 000000ab"},
    {KEL_PAD, ab, {1, 1, 1, "80"}, 1, 4, "status 0, 1 of 1, 64 bytes ab"},
    {0, threes, {1, 2, 1, "c0"}, 2, 1, "status 0, 2 of 2, 64 bytes 0505"},
    {0, words, {1, 2, 1, "80"}, 0, 4, "status -5, 0 of 1, 0 bytes ; EOVERFLOW at element index 1"},
    {0, nibbles, no_mask, 2, 1, "status 0, 0 of 2, 64 bytes 0102"},
    {0, runs, no_mask, 5, 1, "status 0, 0 of 5, 64 bytes 0707090909"},
    {0, single_runs, no_mask, 2, 1, "status 0, 0 of 2, 64 bytes 0709"},
    {0, zero_width, no_mask, 2, 2, "status -4, 0 of 1, 64 bytes 0005; EDATAFMT at element index 2"},
    {KEL_PAD, triple, no_mask, 1, 4, "status 0, 0 of 1, 64 bytes 010203"},
    {0, triple, no_mask, 1, 4, "status 0, 0 of 1, 64 bytes 00010203"},
};

TEST(move, known_cases)
{
    for (const auto &[flags, from, by, elements, width, expected] : known_cases) {
        const placed_vector src(from), mask(by);
        const kel_vec_t dst = {KEL_BYTES, elements, nullptr, width, 0, 0, 0, nullptr, nullptr, 0};
        check_known(move{flags, src.vec, dst, by.elements > 0, mask.vec}, expected);
    }
}
