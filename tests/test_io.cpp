// Bit streams against a model that moves single bits; padding and adaptation of elements by exact bytes.
#include "kel_emulate_subr.h"
#include "support.h"
#include <bit>
#include <cstring>
#include <gtest/gtest.h>

namespace
{

unsigned stream_bit(const uint8_t *data, uint64_t bit)
{
    return data[bit / 8] >> (7 - bit % 8) & 1;
}

uint64_t model_field(const uint8_t *data, uint64_t bit, unsigned width)
{
    uint64_t field = 0;
    for (unsigned i = 0; i < width; i++)
        field = field << 1 | stream_bit(data, bit + i);
    return field;
}

// A destination on the stack, aligned as destinations are, that shows what was not written.
struct alignas(64) output_area {
    uint8_t bytes[320];

    output_area()
    {
        memset(bytes, 0xa5, sizeof bytes);
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

std::string hex(const uint8_t *data, size_t size)
{
    std::string text;
    char byte[3];
    for (size_t i = 0; i < size; i++) {
        snprintf(byte, sizeof byte, "%02x", data[i]);
        text += byte;
    }
    return text;
}

TEST(reader, reads_what_single_bits_say_and_no_word_behind)
{
    random_source random(1);
    for (unsigned turn = 0; turn < 3000; turn++) {
        const unsigned offset = static_cast<unsigned>(random.between(0, 7));
        std::vector<unsigned> widths(random.between(1, 40));
        uint64_t bits = offset;
        for (unsigned &width : widths)
            bits += width = static_cast<unsigned>(random.between(1, random.one_in(3) ? 256 : 64));
        const size_t lead = random.between(0, 7); // the stream's address modulo 8
        guarded_buffer memory((lead + (bits + 7) / 8 + 7) / 8 * 8);
        random.fill(memory.data, memory.size);
        const uint8_t *data = memory.data + lead;

        kel_input_t in;
        kelio_buf_input(data, offset, &in);
        uint64_t bit = offset;
        for (const unsigned width : widths) {
            const oword_t field = kelio_get_oword(&in, width);
            for (unsigned word = 0; word < 4; word++) {
                const unsigned below = 64 * (3 - word); // bits of the field below this word
                const unsigned here = width <= below ? 0 : width - below < 64 ? width - below : 64;
                const uint64_t start = bit + (width <= below ? 0 : width - below - here);
                ASSERT_EQ(field.dw[word], model_field(data, start, here)) << "width " << width << " at " << bit;
            }
            bit += width;
        }
    }
}

TEST(reader, takes_the_head_of_an_unaligned_stream_bytewise)
{
    alignas(8) uint8_t memory[16] = {0, 0, 0, 0, 0, 0xff, 0x12, 0x34, 0x56, 0x78, 0x9a, 0xbc, 0xde, 0xf0, 0x11, 0x22};
    kel_input_t in;
    kelio_buf_input(memory + 5, 3, &in);
    EXPECT_EQ(in.cache_bits, 21u);
    EXPECT_EQ(reinterpret_cast<uint8_t *>(in.buf), memory + 8);
    EXPECT_EQ(kelio_get_bits(&in, 5), 0x1fu);
    EXPECT_EQ(kelio_get_bits(&in, 16), 0x1234u);
    EXPECT_EQ(in.cache_bits, 0u);
    EXPECT_EQ(kelio_get_bits(&in, 8), 0x56u);
    EXPECT_EQ(reinterpret_cast<uint8_t *>(in.buf), memory + 16);
}

TEST(reader, keeps_its_odd_cases)
{
    alignas(8) uint8_t memory[24] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    kel_input_t in;
    kelio_buf_input(memory, 0, &in);
    EXPECT_EQ(kelio_get_bits(&in, 0), 0x0102030405060708u) << "no bits give the whole cache";
    EXPECT_EQ(kelio_get_bits(&in, 64), 0x0102030405060708u);
    EXPECT_EQ(in.cache_bits, 0u);
    EXPECT_EQ(kelio_get_bits(&in, 16), 0x090au);

    kelio_buf_input(memory, 0, &in);
    const uint8_t *field = kelio_get_bits_ptr(&in, 24);
    EXPECT_EQ(hex(field, 8), "0000000000010203") << "a short field stands behind leading zeros";

    kelio_nocache_input(memory + 1, &in);
    EXPECT_EQ(kelio_get_bits_ptr(&in, 24), memory + 1);
    EXPECT_EQ(kelio_get_bits_ptr(&in, 8), memory + 4);

    kel_vec_t vec = {KEL_BITS | KEL_ZIP, 1, memory, 8, 4, 0, 0, nullptr, nullptr, 1};
    kelio_vec_input(nullptr, &vec, memory, 1, &in);
    EXPECT_EQ(kelio_get_bits(&in, 8), 1u) << "the offset of a compressed stream is not that of its expansion";
}

TEST(writer, writes_what_single_bits_say)
{
    random_source random(2);
    for (unsigned turn = 0; turn < 3000; turn++) {
        output_area area;
        kel_output_t out;
        kelio_buf_output(area.bytes, sizeof area.bytes, &out);
        std::string expected;
        std::string written;
        while (expected.size() < 1000) {
            const unsigned width = static_cast<unsigned>(random.between(1, random.one_in(3) ? 256 : 64));
            oword_t field;
            for (unsigned word = 0; word < 4; word++) {
                const unsigned below = 64 * (3 - word);
                const unsigned here = width <= below ? 0 : width - below < 64 ? width - below : 64;
                field.dw[word] = here == 0 ? 0 : random.word() >> (64 - here);
                for (unsigned bit = 0; bit < here; bit++)
                    expected += '0' + (field.dw[word] >> (here - 1 - bit) & 1);
            }
            kelio_put_oword(&out, field, width);
            ASSERT_EQ(kelio_out_size(&out, area.bytes), (expected.size() + 7) / 8);
        }
        kelio_flush(&out);
        for (size_t bit = 0; bit < expected.size(); bit++)
            written += static_cast<char>('0' + stream_bit(area.bytes, bit));
        ASSERT_EQ(written, expected);
    }
}

TEST(writer, stores_words_when_it_should)
{
    output_area area;
    kel_output_t out;
    kelio_buf_output(area.bytes, sizeof area.bytes, &out);
    kelio_put_bits(&out, ~uint64_t{0}, 64);
    EXPECT_EQ(area.touched(), 0u) << "a full cache waits for the next field";
    EXPECT_FALSE(kelio_overflow(&out, area.bytes + 8));
    kelio_put_bits(&out, 5, 3);
    EXPECT_EQ(area.touched(), 8u);
    EXPECT_TRUE(kelio_overflow(&out, area.bytes + 8));
    kelio_flush(&out);
    kelio_flush(&out);
    EXPECT_EQ(hex(area.bytes, 24), "ffffffffffffffffa000000000000000a5a5a5a5a5a5a5a5") << "two flushes store once";

    output_area bits;
    kelio_buf_output(bits.bytes, sizeof bits.bytes, &out);
    for (unsigned i = 0; i < 64; i++)
        kelio_put_bit(&out, i == 1);
    EXPECT_EQ(hex(bits.bytes, 16), "4000000000000000a5a5a5a5a5a5a5a5") << "the 64th bit stores at once";

    output_area wide;
    kelio_buf_output(wide.bytes, sizeof wide.bytes, &out);
    kelio_put_bits(&out, 1, 16);
    kelio_put_bits(&out, 0x12345, 16);
    kelio_flush(&out);
    EXPECT_EQ(hex(wide.bytes, 8), "0001234500000000") << "bits above the width go into the field before";

    output_area direct;
    kelio_buf_output(direct.bytes + 3, 0, &out);
    kelio_put_bytes_nocache(&out, 0x010203, 3);
    EXPECT_EQ(reinterpret_cast<uint8_t *>(out.buf), direct.bytes + 6);
    EXPECT_EQ(hex(direct.bytes, 8), "a5a5a5010203a5a5");
}

TEST(words, shift_and_compare_like_long_numbers)
{
    random_source random(3);
    const auto bit_of = [](const oword_t &v, int bit) {
        return bit < 0 || bit > 255 ? 0 : v.dw[3 - bit / 64] >> bit % 64 & 1;
    };
    for (unsigned turn = 0; turn < 2000; turn++) {
        const oword_t v = {{random.word(), random.word(), random.word(), random.word()}};
        const int n = static_cast<int>(random.between(0, 255));
        const oword_t left = oword_lshift(v, static_cast<ulong_t>(n));
        const oword_t right = oword_rshift(v, static_cast<ulong_t>(n));
        const qword_t q = {v.dw[2], v.dw[3]};
        const int m = n % 128;
        const qword_t q_left = qword_lshift(q, static_cast<ulong_t>(m));
        const qword_t q_right = qword_rshift(q, static_cast<ulong_t>(m));
        const oword_t short_v = {{0, 0, q.hi, q.lo}};
        for (int bit = 0; bit < 256; bit++) {
            ASSERT_EQ(bit_of(left, bit), bit_of(v, bit - n)) << n;
            ASSERT_EQ(bit_of(right, bit), bit_of(v, bit + n)) << n;
            if (bit < 128) {
                ASSERT_EQ(bit_of({{0, 0, q_left.hi, q_left.lo}}, bit), bit_of(short_v, bit - m)) << m;
                ASSERT_EQ(bit_of({{0, 0, q_right.hi, q_right.lo}}, bit), bit_of(short_v, bit + m)) << m;
            }
        }
    }
    EXPECT_EQ(oword_cmp({{1, 0, 0, 0}}, {{0, ~0u, 5, 5}}), 1);
    EXPECT_EQ(oword_cmp({{1, 2, 3, 4}}, {{1, 2, 3, 5}}), -1);
    EXPECT_EQ(oword_cmp({{1, 2, 3, 4}}, {{1, 2, 3, 4}}), 0);
    EXPECT_EQ(qword_cmp({1, 0}, {0, ~uint64_t{0}}), 1);
    EXPECT_EQ(qword_cmp({1, 0}, {1, uint64_t{1} << 63}), -1);
    EXPECT_EQ(byte_cmp("\x01\xff", "\x01\x7f", 2), 1);
    EXPECT_EQ(byte_cmp("a", "b", 0), 0);
    const qword_t carried = qword_add_dword({1, ~uint64_t{0}}, 1);
    EXPECT_TRUE(carried.hi == 2 && carried.lo == 0);
    const qword_t borrowed = qword_sub_dword({1, 0}, 1);
    EXPECT_TRUE(borrowed.hi == 0 && borrowed.lo == ~uint64_t{0});
    EXPECT_EQ(revbytes64(0x0102030405060708), 0x0807060504030201u);
    EXPECT_EQ(revbytes32(0x01020304), 0x04030201u);
    EXPECT_EQ(revbytes16(0x0102), 0x0201);
}

struct padding_case {
    const char *name;
    unsigned stored;  // bytes stored before
    unsigned bits;    // bits in the cache
    unsigned nominal; // bytes of the destination
    int status;
    unsigned size; // of the output, after the flush
};

TEST(padding, ends_at_the_next_boundary_or_refuses)
{
    const padding_case cases[] = {
        {"one bit", 0, 1, 64, KEL_SUCCESS, 64},
        {"empty at the start", 0, 0, 64, KEL_SUCCESS, 0},
        {"empty at a boundary", 64, 0, 64, KEL_SUCCESS, 64},
        {"a bit at the end goes 64 bytes beyond", 64, 1, 64, KEL_SUCCESS, 128},
        {"behind the end, nothing held", 72, 0, 64, KEL_EOVERFLOW, 72},
        {"behind the end, the cache is stored alone", 72, 9, 64, KEL_EOVERFLOW, 80},
        {"a full cache", 56, 64, 64, KEL_SUCCESS, 64},
    };
    for (const padding_case &c : cases) {
        SCOPED_TRACE(c.name);
        output_area area;
        kel_output_t out;
        kelio_buf_output(area.bytes, c.nominal, &out);
        for (unsigned i = 0; i < c.stored / 8; i++)
            kelio_put_word(&out, 0x1111111111111111);
        out.cache = kel_shl(~uint64_t{0}, 64 - c.bits);
        out.cache_bits = c.bits;
        EXPECT_EQ(kelio_pad_output(&out, area.bytes + c.nominal), c.status);
        kelio_flush(&out);
        EXPECT_EQ(kelio_out_size(&out, area.bytes), c.size);
        EXPECT_EQ(area.touched(), c.size);
        for (unsigned i = c.stored * 8; i < c.size * 8; i++)
            ASSERT_EQ(stream_bit(area.bytes, i), i < c.stored * 8 + c.bits ? 1u : 0u) << "bit " << i;
    }
}

TEST(padding, clears_the_way_to_a_word_boundary_first)
{
    output_area area;
    kel_output_t out;
    kelio_buf_output(area.bytes + 3, 0, &out);
    EXPECT_EQ(kelio_pad_output(&out, area.bytes + 64), KEL_SUCCESS);
    EXPECT_EQ(hex(area.bytes, 4), "a5a5a500");
    EXPECT_EQ(area.touched(), 64u);
    EXPECT_EQ(kelio_out_size(&out, area.bytes + 3), 61u);
}

// The adaptation rule on decimal digits of the element: the top bytes of one that is too wide, zeros at one end of one
// that is too narrow.
std::string model_adapted(std::string element_hex, bool pad, unsigned dst_bits)
{
    const size_t digits = dst_bits / 4;
    if (element_hex.size() > digits)
        return element_hex.substr(0, digits);
    const std::string zeros(digits - element_hex.size(), '0');
    return pad ? element_hex + zeros : zeros + element_hex;
}

TEST(adaptation, all_members_follow_the_rule)
{
    random_source random(4);
    const unsigned dst_widths[] = {8, 16, 32, 64, 128};
    for (unsigned turn = 0; turn < 20000; turn++) {
        const unsigned src_bits = static_cast<unsigned>(random.between(1, 256));
        const unsigned src_bytes = (src_bits + 7) / 8;
        const unsigned dst_bits = random.pick(dst_widths);
        const bool pad = random.one_in(2);
        const uint64_t flags = pad ? KEL_PAD : 0;
        const ulong_t count = random.between(0, 3);
        uint8_t element[32]; // right-aligned
        random.fill(element, sizeof element);
        memset(element, 0, 32 - src_bytes);
        element[32 - src_bytes] &= static_cast<uint8_t>(0xff >> (8 * src_bytes - src_bits));
        oword_t v;
        for (unsigned i = 0; i < 4; i++)
            v.dw[i] = kel_load_be<uint64_t>(element + 8 * i);
        const std::string one = model_adapted(hex(element + 32 - src_bytes, src_bytes), pad, dst_bits);
        std::string expected;
        for (ulong_t i = 0; i < count; i++)
            expected += one;

        const auto check = [&](const char *member, auto put) {
            output_area area;
            kel_output_t out;
            kelio_buf_output(area.bytes, sizeof area.bytes, &out);
            put(&out);
            kelio_flush(&out);
            ASSERT_EQ(hex(area.bytes, expected.size() / 2), expected)
                << member << ": " << src_bits << " bits to " << dst_bits << (pad ? ", pad" : "");
        };
        check("uint256_unalign",
              [&](kel_output_t *out) { put_pad_uint256_unalign(out, flags, v, src_bits, dst_bits, count); });
        check("uintptr", [&](kel_output_t *out) {
            put_pad_uintptr(out, flags, element + 32 - src_bytes, src_bits, dst_bits, count);
        });
        if (src_bits <= 128)
            check("uint128_unalign", [&](kel_output_t *out) {
                put_pad_uint128_unalign(out, flags, {v.dw[2], v.dw[3]}, src_bits, dst_bits, count);
            });
        if (src_bits <= 64 && dst_bits <= 64)
            check("uint64_unalign",
                  [&](kel_output_t *out) { put_pad_uint64_unalign(out, flags, v.dw[3], src_bits, dst_bits, count); });
        if (src_bytes == 8 && dst_bits == 64)
            check("uint64", [&](kel_output_t *out) { put_pad_uint64(out, flags, v.dw[3], src_bits, dst_bits, count); });
        if (src_bytes <= 4 && dst_bits == 32)
            check("uint32", [&](kel_output_t *out) {
                put_pad_uint32(out, flags, static_cast<uint32_t>(v.dw[3]), src_bits, dst_bits, count);
            });
        if (src_bytes <= 2 && dst_bits == 16)
            check("uint16", [&](kel_output_t *out) {
                put_pad_uint16(out, flags, static_cast<uint16_t>(v.dw[3]), src_bits, dst_bits, count);
            });
        if (src_bytes == 1 && dst_bits == 8)
            check("uint8", [&](kel_output_t *out) {
                put_pad_uint8(out, flags, static_cast<uint8_t>(v.dw[3]), src_bits, dst_bits, count);
            });
    }
}

TEST(popcount, instruction_loop_and_words_agree)
{
    random_source random(5);
    std::vector<uint64_t> words(1000);
    random.fill(words.data(), words.size() * 8);
    words[0] = 0;
    words[1] = ~uint64_t{0};
    uint64_t total = 0;
    for (const uint64_t word : words) {
        const auto count = static_cast<uint64_t>(std::popcount(word));
        ASSERT_EQ(popc(word, 0), count);
        if (__builtin_cpu_supports("popcnt")) {
            ASSERT_EQ(popc(word, 1), count);
        }
        total += count;
    }
    EXPECT_EQ(popc_words(words.data(), words.size()), total);
    EXPECT_EQ(popc_words_parallel(words.data(), words.size()), total);
    EXPECT_LE(popcnt_supported(), 1u);
}

} // namespace
