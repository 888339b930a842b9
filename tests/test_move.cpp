// Selects and extracts against the reference models, and the small cases whose bytes are known.

#include "element_models.h"
#include "kel_extract.h"
#include "kel_select.h"
#include "model_driver.h"

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
        m.flags = draw_flags(KEL_PAD);
        draw_format(m.src, m.select ? 0 : KEL_RLE | KEL_VAR);
        draw_lengths(m.src);
        draw_elements(m.src, [&](uint64_t) { return draw_bits(); });
        const uint64_t ones = m.select ? draw_mask(m.mask, m.src.elements) : 0;
        draw_destination(m.dst, draw_bits_of_destination(m.src), lawful && !m.select ? m.src.elements : 0,
                         m.select && !has_aux(m.src) ? ones : expanded);
        return m;
    }

  private:
    // A mask of any density, of single bits or of long runs; its ones.
    uint64_t draw_mask(kel_vec_t &mask, uint64_t count)
    {
        static constexpr unsigned densities[] = {0, 1, 10, 50, 99, 100};
        const unsigned density = random.pick(densities);
        const uint64_t longest = random.one_in(2) ? 1 : random.between(2, 300);
        mask.format = lawful || !random.one_in(10) ? KEL_BITS : KEL_BITS | KEL_ZIP;
        mask.elements = random.one_in(40) ? count / 2 : count + random.between(0, 70);
        mask.elem_width = 1;
        mask.offset = random.between<uint8_t>(0, 7);
        bit_string stream;
        append(stream, random.word(), mask.offset);
        while (stream.size() < mask.offset + count)
            stream.resize(std::min(mask.offset + count, stream.size() + random.between(1, longest)),
                          random.between(1, 100) <= density);
        mask.data = place(mask_bits, stream);
        return static_cast<uint64_t>(std::count(stream.begin() + mask.offset, stream.end(), true));
    }

    // Often the width of the source.
    uint32_t draw_bits_of_destination(const kel_vec_t &src)
    {
        static constexpr uint64_t widths[] = {1, 2, 4, 8, 16, 3, 5, 7, 9, 12, 24, 32};
        const uint64_t bytes = wide_elements      ? random.between(17, 32)
                               : random.one_in(2) ? std::bit_ceil(bytes_of(src))
                                                  : widths[random.between(0, lawful ? 4 : 11)];
        return static_cast<uint32_t>(8 * bytes - random.between(0, lawful || !random.one_in(3) ? 0 : 7));
    }

    guarded_buffer mask_bits{area, 1};
};

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
