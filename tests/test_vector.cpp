// Sums, searches and counts over packed fields against models that read single bits.
#include "kel_frame.h"
#include "support.h"
#include <gtest/gtest.h>

namespace
{

// A stream of fields that ends, up to its last aligned word, at a page that faults.
struct stream {
    stream(random_source &random, unsigned width_, bool aligned)
        : width(width_), offset(random.between<unsigned>(0, aligned ? 0 : 7)),
          count(random.between(0, random.one_in(10) ? 3000 : 100)), lead(random.between(0, aligned ? 0 : 7)),
          memory((lead + (offset + width * count + 7) / 8 + 7) / 8 * 8), data(memory.data + lead)
    {
        random.fill(memory.data, memory.size);
        if (random.one_in(2)) // sparse, so that searches come far
            for (size_t i = 0; i < memory.size; i++)
                memory.data[i] &= static_cast<uint8_t>(random.one_in(50) ? 0xff : 0);
    }

    uint64_t field(uint64_t index) const
    {
        return bit_reader{data, offset + index * width}.field(width);
    }

    unsigned width, offset;
    uint64_t count;
    size_t lead;
    guarded_buffer memory;
    uint8_t *data;
};

std::ostream &operator<<(std::ostream &out, const stream &s)
{
    return out << "width " << s.width << ", offset " << s.offset << ", lead " << s.lead << ", count " << s.count;
}

constexpr unsigned widths[] = {1, 2, 4, 8, 16, 32};

kel_vec_t vector(uint64_t format, uint64_t elements, unsigned width, unsigned offset, void *aux)
{
    const auto aux_width = static_cast<uint16_t>(width);
    return {format, elements, nullptr, 1, 0, static_cast<uint8_t>(offset), aux_width, aux, nullptr, 0};
}

// Fields of 16 and 32 bits in the whole words of a stream that starts at a word count byte-reversed.
uint64_t model_sum(const stream &s)
{
    const bool reversed = s.width > 8 && s.offset == 0 && s.lead == 0;
    const uint64_t in_words = s.count - s.count % (64 / s.width);
    uint64_t sum = 0;
    for (uint64_t i = 0; i < s.count; i++)
        sum += reversed && i < in_words ? __builtin_bswap64(s.field(i)) >> (64 - s.width) : s.field(i);
    return sum;
}

TEST(sums, agree_with_the_model)
{
    test_context ctx;
    random_source random(1);
    for (unsigned turn = 0; turn < 6000; turn++) {
        const stream s(random, random.pick(widths), random.one_in(3));
        const bool add_one = random.one_in(2);
        const kel_vec_t vec = vector(KEL_RLE | (add_one ? KEL_ADD_ONE : 0), s.count, s.width, s.offset, s.data);
        ASSERT_EQ(aux_sum(ctx, &vec), model_sum(s) + (add_one ? s.count : 0)) << s;
    }
}

TEST(sums, known_values)
{
    test_context ctx;
    alignas(8) uint8_t two_bits[8] = {0b01101100, 0b01101100}; // 1 2 3 0 1 2 3
    const kel_vec_t seven = vector(KEL_RLE | KEL_ADD_ONE, 7, 2, 0, two_bits);
    EXPECT_EQ(aux_sum(ctx, &seven), 19u);
    alignas(8) uint8_t ones[16] = {0, 1, 0, 1, 0, 1, 0, 1, 0, 1};
    const kel_vec_t wide = vector(KEL_RLE, 5, 16, 0, ones);
    EXPECT_EQ(aux_sum(ctx, &wide), 1025u);

    for (const unsigned width : {0u, 3u, 64u}) {
        const kel_vec_t bad = vector(KEL_RLE, 7, width, 0, two_bits);
        reset_hooks();
        EXPECT_EQ(aux_sum(ctx, &bad), 0u);
        EXPECT_EQ(ctx.messages(), lines_t{"Invalid src aux_width " + std::to_string(width)});
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
        const bool present = random.one_in(2) && s.count > 0;
        const uint64_t value = (present ? s.field(random.between(0, s.count - 1)) : random.word()) & mask;
        for (const bool greater : {false, true}) {
            uint64_t expected = 0;
            for (; expected < s.count; expected++)
                if (const uint64_t field = s.field(expected) & mask; greater ? field > value : field == value)
                    break;
            const auto search = greater ? compare_bits_gt : compare_bits_eq;
            unsigned long index = ~0ul;
            const int found = search(s.data, s.width, s.offset, s.count, mask, value, &index);
            ASSERT_EQ(found, expected < s.count) << s;
            ASSERT_TRUE(!found || index == expected) << s << ": " << index << ", not " << expected;
        }
    }
}

TEST(searches, known_values)
{
    alignas(8) uint8_t data[8] = {0x11, 0x11, 0x11, 0x11, 0x11, 0x01, 0x11, 0x11}, bytes[8] = {1, 2, 15, 16, 3};
    unsigned long index = 0;
    EXPECT_EQ(compare_bits_eq(data, 4, 0, 10, 15, 0, &index), 0) << "a hit behind the last field is none";
    EXPECT_TRUE(compare_bits_eq(data, 4, 0, 11, 15, 0, &index) == 1 && index == 10);
    EXPECT_TRUE(compare_bits_gt(bytes, 8, 0, 5, 255, 15, &index) == 1 && index == 3);
}

TEST(counts, agree_with_the_model)
{
    random_source random(3);
    for (unsigned turn = 0; turn < 4000; turn++) {
        const uint64_t offset = random.between(0, 300), bits = random.between(0, random.one_in(10) ? 20000 : 200);
        const size_t lead = random.between(0, 7);
        guarded_buffer memory((lead + (offset + bits + 7) / 8 + 7) / 8 * 8);
        random.fill(memory.data, memory.size);
        bit_reader model = {memory.data + lead, offset};
        uint64_t expected = 0;
        for (uint64_t i = 0; i < bits; i++)
            expected += model.field(1);
        ASSERT_EQ(bit_popc(memory.data + lead, offset, bits), expected) << offset << " " << bits << " " << lead;
    }
}

TEST(diagnosis, tells_the_first_zero)
{
    constexpr struct {
        uint64_t format;
        kel_status_t status;
        uint8_t third; // the third aux element, of which the low bits count; the others are 1
        bool reported;
    } cases[] = {
        {KEL_RLE, KEL_EDATAFMT, 0, true},    {KEL_VAR, KEL_EDATAFMT, 0, true},
        {KEL_RLE, KEL_EDATAFMT, 0x10, true}, {KEL_RLE, KEL_EDATAFMT, 0x11, false},
        {KEL_RLE, KEL_EOVERFLOW, 0, false},  {KEL_RLE | KEL_ADD_ONE, KEL_EDATAFMT, 0, false},
        {KEL_BYTES, KEL_EDATAFMT, 0, false},
    };
    for (const uint32_t version : {1u, 2u})
        for (const auto &[format, status, third, reported] : cases) {
            test_context ctx(version);
            alignas(8) uint8_t aux[8] = {1, 1, third, 1};
            const kel_vec_t vec = vector(format, 4, 8, 0, aux);
            vec_diagnose(ctx, &vec, status);
            EXPECT_EQ(ctx.messages(), reported ? lines_t{"EDATAFMT: aux_data element at index 2 is 0"} : lines_t());
            EXPECT_EQ(kel_debug_calls, reported) << format << ' ' << +third;
        }
    test_context ctx;
    const kel_vec_t unreadable = vector(KEL_RLE, 4, 8, 0, nullptr);
    vec_diagnose(ctx, &unreadable, KEL_EOVERFLOW);
    EXPECT_EQ(kel_debug_calls, 0u);
}

} // namespace
