// Bit streams against a model that moves single bits; padding and adaptation of elements by exact bytes.
#include "kel_emulate_subr.h"
#include "support.h"
#include <bit>
#include <bitset>
#include <cstring>
#include <gtest/gtest.h>

namespace
{

// A writer to memory on the stack, aligned as destinations are, that shows what was not written.
struct alignas(64) output_area {
    uint8_t bytes[320];
    kel_output_t out;

    explicit output_area(unsigned start = 0)
    {
        memset(bytes, 0xa5, sizeof bytes);
        kelio_buf_output(bytes + start, sizeof bytes, &out);
    }

    // The offset behind the last byte that is not 0xa5.
    size_t touched() const
    {
        size_t end = sizeof bytes;
        while (end > 0 && bytes[end - 1] == 0xa5)
            end--;
        return end;
    }
};

// The bits of a field that stand in a word of an oword_t.
unsigned bits_in_word(unsigned width, unsigned word)
{
    const unsigned below = 64 * (3 - word);
    return width <= below ? 0 : std::min(width - below, 64u);
}

unsigned random_width(random_source &random)
{
    return random.between<unsigned>(1, random.one_in(3) ? 256 : 64);
}

TEST(reader, reads_what_single_bits_say_and_no_word_behind)
{
    random_source random(1);
    for (unsigned turn = 0; turn < 3000; turn++) {
        const unsigned offset = random.between<unsigned>(0, 7);
        std::vector<unsigned> widths(random.between(1, 40));
        uint64_t bits = offset;
        for (unsigned &width : widths)
            bits += width = random_width(random);
        const size_t lead = random.between(0, 7); // the stream's address modulo 8
        guarded_buffer memory((lead + (bits + 7) / 8 + 7) / 8 * 8);
        random.fill(memory.data, memory.size);

        kel_input_t in;
        kelio_buf_input(memory.data + lead, offset, &in);
        bit_reader model = {memory.data + lead, offset};
        for (const unsigned width : widths) {
            const oword_t field = kelio_get_oword(&in, width);
            for (unsigned word = 0; word < 4; word++)
                ASSERT_EQ(field.dw[word], model.field(bits_in_word(width, word))) << width << " to " << model.position;
        }
    }
}

TEST(reader, known_cases)
{
    alignas(8) uint8_t memory[24] = {1, 2, 3, 4, 5, 0xff, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    kel_input_t in;
    kelio_buf_input(memory + 5, 3, &in);
    EXPECT_TRUE(in.cache_bits == 21 && reinterpret_cast<uint8_t *>(in.buf) == memory + 8);
    EXPECT_EQ(kelio_get_bits(&in, 21), 0x1f0708u);
    EXPECT_EQ(in.cache_bits, 0u);
    EXPECT_EQ(kelio_get_bits(&in, 8), 9u);
    EXPECT_EQ(reinterpret_cast<uint8_t *>(in.buf), memory + 16);

    kelio_buf_input(memory, 0, &in);
    EXPECT_EQ(kelio_get_bits(&in, 0), 0x0102030405ff0708u) << "no bits give the whole cache";
    EXPECT_EQ(kelio_get_bits(&in, 64), 0x0102030405ff0708u);
    EXPECT_EQ(in.cache_bits, 0u);
    EXPECT_EQ(hex(kelio_get_bits_ptr(&in, 24), 8), "0000000000090a0b") << "a short field stands behind leading zeros";
    kelio_nocache_input(memory + 1, &in);
    EXPECT_EQ(kelio_get_bits_ptr(&in, 24), memory + 1);
    EXPECT_EQ(kelio_get_bits_ptr(&in, 8), memory + 4);
    const kel_vec_t vec = {KEL_BITS | KEL_ZIP, 1, memory, 8, 4, 0, 0, nullptr, nullptr, 1};
    kelio_vec_input(nullptr, &vec, memory, 1, &in);
    EXPECT_EQ(kelio_get_bits(&in, 8), 1u) << "the offset of a compressed stream is not that of its expansion";
}

TEST(writer, writes_what_single_bits_say)
{
    random_source random(2);
    for (unsigned turn = 0; turn < 3000; turn++) {
        output_area area;
        std::vector<std::pair<uint64_t, unsigned>> written; // words and how many of their bits
        for (uint64_t bits = 0; bits < 1000;) {
            const unsigned width = random_width(random);
            oword_t field = {{random.word(), random.word(), random.word(), random.word()}}; // above the width, too
            for (unsigned word = 0; word < 4; word++)
                if (const unsigned here = bits_in_word(width, word)) {
                    field.dw[word] = random.word() >> (64 - here);
                    written.emplace_back(field.dw[word], here);
                }
            kelio_put_oword(&area.out, field, width);
            bits += width;
            ASSERT_EQ(kelio_out_size(&area.out, area.bytes), (bits + 7) / 8);
        }
        kelio_flush(&area.out);
        bit_reader model = {area.bytes, 0};
        for (const auto &[word, bits] : written)
            ASSERT_EQ(model.field(bits), word) << bits << " to " << model.position;
    }
}

TEST(writer, stores_words_when_it_should)
{
    output_area area;
    kelio_put_bits(&area.out, ~uint64_t{0}, 64);
    EXPECT_EQ(area.touched(), 0u) << "a full cache waits for the next field";
    EXPECT_FALSE(kelio_overflow(&area.out, area.bytes + 8));
    kelio_put_bits(&area.out, 5, 3);
    EXPECT_EQ(area.touched(), 8u);
    EXPECT_TRUE(kelio_overflow(&area.out, area.bytes + 8));
    kelio_flush(&area.out);
    kelio_flush(&area.out);
    EXPECT_EQ(hex(area.bytes, 24), "ffffffffffffffffa000000000000000a5a5a5a5a5a5a5a5") << "two flushes store once";

    output_area bits;
    for (unsigned i = 0; i < 64; i++)
        kelio_put_bit(&bits.out, i == 1);
    EXPECT_EQ(hex(bits.bytes, 16), "4000000000000000a5a5a5a5a5a5a5a5") << "the 64th bit stores at once";

    output_area wide;
    kelio_put_bits(&wide.out, 1, 16);
    kelio_put_bits(&wide.out, 0x12345, 16);
    kelio_flush(&wide.out);
    EXPECT_EQ(hex(wide.bytes, 8), "0001234500000000") << "bits above the width go into the field before";

    output_area direct(3);
    kelio_put_bytes_nocache(&direct.out, 0x010203, 3);
    EXPECT_EQ(reinterpret_cast<uint8_t *>(direct.out.buf), direct.bytes + 6);
    EXPECT_EQ(hex(direct.bytes, 8), "a5a5a5010203a5a5");
}

TEST(words, shift_like_long_numbers)
{
    random_source random(3);
    const auto number = [](const oword_t &v) {
        std::bitset<256> n;
        for (const uint64_t word : v.dw)
            n = n << 64 | std::bitset<256>(word);
        return n;
    };
    const auto short_number = [&](const qword_t &v) { return number({{0, 0, v.hi, v.lo}}); };
    for (unsigned turn = 0; turn < 2000; turn++) {
        const oword_t v = {{random.word(), random.word(), random.word(), random.word()}};
        const qword_t q = {v.dw[2], v.dw[3]};
        const ulong_t n = random.between(0, 255), m = n % 128;
        ASSERT_TRUE(number(oword_lshift(v, n)) == number(v) << n && number(oword_rshift(v, n)) == number(v) >> n) << n;
        ASSERT_EQ(short_number(qword_lshift(q, m)), short_number(q) << (128 + m) >> 128) << m;
        ASSERT_EQ(short_number(qword_rshift(q, m)), short_number(q) >> m) << m;
    }
}

TEST(words, known_values)
{
    EXPECT_EQ(oword_cmp({{1, 0, 0, 0}}, {{0, ~0u, 5, 5}}), 1);
    EXPECT_EQ(oword_cmp({{1, 2, 3, 4}}, {{1, 2, 3, 5}}), -1);
    EXPECT_EQ(oword_cmp({{1, 2, 3, 4}}, {{1, 2, 3, 4}}), 0);
    EXPECT_TRUE(qword_cmp({1, 0}, {0, ~uint64_t{0}}) == 1 && qword_cmp({1, 0}, {1, uint64_t{1} << 63}) == -1);
    EXPECT_TRUE(byte_cmp("\x01\xff", "\x01\x7f", 2) == 1 && byte_cmp("a", "b", 0) == 0);
    const qword_t carried = qword_add_dword({1, ~uint64_t{0}}, 1), borrowed = qword_sub_dword({1, 0}, 1);
    EXPECT_TRUE(carried.hi == 2 && carried.lo == 0 && borrowed.hi == 0 && borrowed.lo == ~uint64_t{0});
    EXPECT_EQ(revbytes64(0x0102030405060708), 0x0807060504030201u);
    EXPECT_TRUE(revbytes32(0x01020304) == 0x04030201 && revbytes16(0x0102) == 0x0201);
}

TEST(padding, ends_at_the_next_boundary_or_refuses)
{
    constexpr struct {
        unsigned stored, held; // bytes stored before, bits in the cache
        int status;
        unsigned size; // of the output, after the flush
    } cases[] = {
        {0, 1, KEL_SUCCESS, 64},    {0, 0, KEL_SUCCESS, 0},     {64, 0, KEL_SUCCESS, 64},  {64, 1, KEL_SUCCESS, 128},
        {72, 0, KEL_EOVERFLOW, 72}, {72, 9, KEL_EOVERFLOW, 80}, {56, 64, KEL_SUCCESS, 64},
    };
    for (const auto &[stored, held, status, size] : cases) {
        SCOPED_TRACE(testing::Message() << stored << " bytes stored, " << held << " bits held");
        output_area area;
        for (unsigned i = 0; i < stored / 8; i++)
            kelio_put_word(&area.out, 0x1111111111111111);
        area.out.cache = kel_shl(~uint64_t{0}, 64 - held);
        area.out.cache_bits = held;
        EXPECT_EQ(kelio_pad_output(&area.out, area.bytes + 64), status);
        kelio_flush(&area.out);
        EXPECT_EQ(kelio_out_size(&area.out, area.bytes), size);
        EXPECT_EQ(area.touched(), size);
        bit_reader added = {area.bytes, 8 * stored};
        for (unsigned i = 0; i < 8 * (size - stored); i++)
            ASSERT_EQ(added.field(1), i < held) << "bit " << i;
    }

    output_area odd(3);
    EXPECT_EQ(kelio_pad_output(&odd.out, odd.bytes + 64), KEL_SUCCESS);
    EXPECT_EQ(hex(odd.bytes, 4), "a5a5a500") << "the way to a word boundary is cleared first";
    EXPECT_EQ(odd.touched(), 64u);
    EXPECT_EQ(kelio_out_size(&odd.out, odd.bytes + 3), 61u);
}

// The adaptation rule on hexadecimal digits of the element: the top bytes of one that is too wide, zeros at one end of
// one that is too narrow.
std::string adapted(const std::string &element, bool pad, unsigned dst_bits)
{
    const size_t digits = dst_bits / 4;
    const std::string zeros(digits - std::min(digits, element.size()), '0');
    return (pad ? element + zeros : zeros + element).substr(0, digits);
}

TEST(adaptation, all_members_follow_the_rule)
{
    random_source random(4);
    const unsigned dst_widths[] = {8, 16, 32, 64, 128};
    for (unsigned turn = 0; turn < 20000; turn++) {
        const unsigned src = random.between<unsigned>(1, 256), bytes = (src + 7) / 8, dst = random.pick(dst_widths);
        const uint64_t flags = random.one_in(2) ? KEL_PAD : 0;
        const ulong_t n = random.between(0, 3);
        uint8_t element[32] = {}; // right-aligned
        uint8_t *top = element + 32 - bytes;
        random.fill(top, bytes);
        *top &= static_cast<uint8_t>(0xff >> (8 * bytes - src));
        oword_t v;
        for (unsigned i = 0; i < 4; i++)
            v.dw[i] = bit_reader{element, 64 * i}.field(64);
        const uint64_t low = v.dw[3];

        const auto check = [&](const char *member, bool takes, auto put) {
            output_area area;
            if (!takes)
                return;
            put(&area.out);
            kelio_flush(&area.out);
            std::string expected;
            for (ulong_t i = 0; i < n; i++)
                expected += adapted(hex(top, bytes), flags & KEL_PAD, dst);
            ASSERT_EQ(hex(area.bytes, expected.size() / 2), expected)
                << member << ": " << src << " bits to " << dst << ", flags " << flags;
        };
#define CHECK(member, takes, argument)                                                                                 \
    check(#member, takes, [&](kel_output_t *out) { put_pad_##member(out, flags, argument, src, dst, n); })
        CHECK(uint256_unalign, true, v);
        CHECK(uintptr, true, top);
        CHECK(uint128_unalign, src <= 128, (qword_t{v.dw[2], low}));
        CHECK(uint64_unalign, src <= 64 && dst <= 64, low);
        CHECK(uint64, bytes == 8 && dst == 64, low);
        CHECK(uint32, bytes <= 4 && dst == 32, static_cast<uint32_t>(low));
        CHECK(uint16, bytes <= 2 && dst == 16, static_cast<uint16_t>(low));
        CHECK(uint8, bytes == 1 && dst == 8, static_cast<uint8_t>(low));
#undef CHECK
    }
}

TEST(popcount, instruction_loop_and_words_agree)
{
    random_source random(5);
    std::vector<uint64_t> words(1000);
    random.fill(words.data(), words.size() * 8);
    words[1] = ~(words[0] = 0);
    uint64_t total = 0;
    for (const uint64_t word : words) {
        const auto count = static_cast<uint64_t>(std::popcount(word));
        ASSERT_TRUE(popc(word, 0) == count && popc(word, kel_have_popcnt()) == count);
        total += count;
    }
    EXPECT_EQ(popc_words(words.data(), words.size()), total);
    EXPECT_EQ(popc_words_parallel(words.data(), words.size()), total);
}

} // namespace
