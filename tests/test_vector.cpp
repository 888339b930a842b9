// Sums, searches and counts over packed fields against models that read single bits.
#include "kel_frame.h"
#include "support.h"
#include <gtest/gtest.h>

namespace
{

uint64_t model_field(const uint8_t *data, uint64_t bit, unsigned width)
{
    uint64_t field = 0;
    for (unsigned i = 0; i < width; i++, bit++)
        field = field << 1 | (data[bit / 8] >> (7 - bit % 8) & 1);
    return field;
}

// A stream of fields that ends, up to its last aligned word, at a page that faults.
struct stream {
    stream(random_source &random, unsigned width_, bool aligned)
        : width(width_), offset(aligned ? 0 : static_cast<unsigned>(random.between(0, 7))),
          count(random.between(0, random.one_in(10) ? 3000 : 100)), lead(aligned ? 0 : random.between(0, 7)),
          memory((lead + (offset + width * count + 7) / 8 + 7) / 8 * 8), data(memory.data + lead)
    {
        random.fill(memory.data, memory.size);
        if (random.one_in(2)) // sparse, so that searches come far
            for (size_t i = 0; i < memory.size; i++)
                memory.data[i] &= static_cast<uint8_t>(random.one_in(50) ? 0xff : 0);
    }

    uint64_t field(uint64_t index) const
    {
        return model_field(data, offset + index * width, width);
    }

    kel_vec_t vector(uint64_t format) const
    {
        kel_vec_t vec = {};
        vec.format = format;
        vec.elements = count;
        vec.aux_width = static_cast<uint16_t>(width);
        vec.aux_offset = static_cast<uint8_t>(offset);
        vec.aux_data = data;
        return vec;
    }

    unsigned width;
    unsigned offset;
    uint64_t count;
    size_t lead;
    guarded_buffer memory;
    uint8_t *data;
};

constexpr unsigned widths[] = {1, 2, 4, 8, 16, 32};

// Fields of 16 and 32 bits in the whole words of a stream that starts at a word count byte-reversed.
uint64_t model_sum(const stream &s, bool add_one)
{
    const bool aligned = s.offset == 0 && s.lead == 0;
    const uint64_t whole = aligned ? s.count / (64 / s.width) * (64 / s.width) : 0;
    uint64_t sum = add_one ? s.count : 0;
    for (uint64_t i = 0; i < s.count; i++) {
        const uint64_t field = s.field(i);
        if (i >= whole || s.width <= 8)
            sum += field;
        else
            sum += s.width == 16 ? __builtin_bswap16(static_cast<uint16_t>(field))
                                 : __builtin_bswap32(static_cast<uint32_t>(field));
    }
    return sum;
}

TEST(sums, agree_with_the_model)
{
    test_context ctx;
    random_source random(1);
    for (unsigned turn = 0; turn < 6000; turn++) {
        const stream s(random, random.pick(widths), random.one_in(3));
        const bool add_one = random.one_in(2);
        const kel_vec_t vec = s.vector(KEL_RLE | (add_one ? KEL_ADD_ONE : 0));
        ASSERT_EQ(aux_sum(ctx, &vec), model_sum(s, add_one))
            << "width " << s.width << ", offset " << s.offset << ", lead " << s.lead << ", count " << s.count;
    }
}

TEST(sums, known_values)
{
    test_context ctx;
    alignas(8) uint8_t two_bits[8] = {0b01101100, 0b01101100}; // 1 2 3 0 1 2 3
    const kel_vec_t seven = {KEL_RLE | KEL_ADD_ONE, 7, nullptr, 0, 0, 0, 2, two_bits, nullptr, 0};
    EXPECT_EQ(aux_sum(ctx, &seven), 19u);

    alignas(8) uint8_t ones[16] = {0, 1, 0, 1, 0, 1, 0, 1, 0, 1};
    const kel_vec_t wide = {KEL_RLE, 5, nullptr, 0, 0, 0, 16, ones, nullptr, 0};
    EXPECT_EQ(aux_sum(ctx, &wide), 1025u);

    for (const unsigned width : {0u, 3u, 64u}) {
        kel_vec_t bad = seven;
        bad.aux_width = static_cast<uint16_t>(width);
        reset_hooks();
        EXPECT_EQ(aux_sum(ctx, &bad), 0u);
        EXPECT_EQ(ctx.messages(), std::vector<std::string>{"Invalid src aux_width " + std::to_string(width)});
        EXPECT_EQ(kel_debug_calls, 1u);
    }
}

TEST(searches, find_the_first_field)
{
    random_source random(2);
    for (unsigned turn = 0; turn < 12000; turn++) {
        const stream s(random, random.pick(widths), random.one_in(3));
        const uint64_t all = ~uint64_t{0} >> (64 - s.width);
        const uint64_t mask = random.one_in(2) ? all : random.word() & all;
        const uint64_t value =
            (random.one_in(2) && s.count > 0 ? s.field(random.between(0, s.count - 1)) : random.word()) & mask;
        for (const bool greater : {false, true}) {
            uint64_t expected = 0;
            const auto hit = [&] {
                return greater ? (s.field(expected) & mask) > value : (s.field(expected) & mask) == value;
            };
            while (expected < s.count && !hit())
                expected++;
            unsigned long index = ~0ul;
            const int found =
                (greater ? compare_bits_gt : compare_bits_eq)(s.data, s.width, s.offset, s.count, mask, value, &index);
            ASSERT_EQ(found, expected < s.count);
            if (found) {
                ASSERT_EQ(index, expected) << "width " << s.width << ", offset " << s.offset << ", lead " << s.lead;
            }
        }
    }
}

TEST(searches, a_hit_behind_the_last_field_is_none)
{
    alignas(8) uint8_t data[8] = {0x11, 0x11, 0x11, 0x11, 0x11, 0x01, 0x11, 0x11};
    unsigned long index = 0;
    EXPECT_EQ(compare_bits_eq(data, 4, 0, 10, 15, 0, &index), 0);
    EXPECT_EQ(compare_bits_eq(data, 4, 0, 11, 15, 0, &index), 1);
    EXPECT_EQ(index, 10u);
    alignas(8) uint8_t bytes[8] = {1, 2, 15, 16, 3};
    EXPECT_EQ(compare_bits_gt(bytes, 8, 0, 5, 255, 15, &index), 1);
    EXPECT_EQ(index, 3u);
}

TEST(counts, agree_with_the_model)
{
    random_source random(3);
    for (unsigned turn = 0; turn < 4000; turn++) {
        const unsigned long offset = random.between(0, 300);
        const unsigned long bits = random.between(0, random.one_in(10) ? 20000 : 200);
        const size_t lead = random.between(0, 7);
        guarded_buffer memory((lead + (offset + bits + 7) / 8 + 7) / 8 * 8);
        random.fill(memory.data, memory.size);
        unsigned long expected = 0;
        for (unsigned long i = 0; i < bits; i++)
            expected += model_field(memory.data + lead, offset + i, 1);
        ASSERT_EQ(bit_popc(memory.data + lead, offset, bits), expected) << offset << " " << bits << " " << lead;
    }
}

struct diagnosis_case {
    const char *name;
    uint64_t format;
    kel_status_t status;
    uint8_t third; // the third aux element; the first two are 1
    std::vector<std::string> messages;
};

TEST(diagnosis, tells_the_first_zero)
{
    const std::string zero = "EDATAFMT: aux_data element at index 2 is 0";
    const diagnosis_case cases[] = {
        {"zero run", KEL_RLE, KEL_EDATAFMT, 0, {zero}},
        {"zero length", KEL_VAR, KEL_EDATAFMT, 0, {zero}},
        {"only high bits count as zero", KEL_RLE, KEL_EDATAFMT, 0x10, {zero}},
        {"no zero", KEL_RLE, KEL_EDATAFMT, 0x11, {}},
        {"a zero with one added is a run", KEL_RLE | KEL_ADD_ONE, KEL_EDATAFMT, 0, {}},
        {"another status", KEL_RLE, KEL_EOVERFLOW, 0, {}},
        {"no aux stream", KEL_BYTES, KEL_EDATAFMT, 0, {}},
    };
    for (const uint32_t version : {1u, 2u}) {
        for (const diagnosis_case &c : cases) {
            SCOPED_TRACE(c.name);
            test_context ctx(version);
            alignas(8) uint8_t aux[8] = {1, 1, c.third, 1};
            const kel_vec_t vec = {c.format, 4, nullptr, 1, 0, 0, 8, aux, nullptr, 0};
            vec_diagnose(ctx, &vec, c.status);
            EXPECT_EQ(ctx.messages(), c.messages);
            EXPECT_EQ(kel_debug_calls, c.messages.size());
        }
    }
    test_context quiet(2, KEL_DEBUG_ARG, 0);
    const kel_vec_t unreadable = {KEL_RLE, 4, nullptr, 1, 0, 0, 8, nullptr, nullptr, 0};
    vec_diagnose(quiet, &unreadable, KEL_EOVERFLOW);
    EXPECT_EQ(kel_debug_calls, 0u);
}

} // namespace
