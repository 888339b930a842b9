// And, or, xor against the rule for each byte of the result.

#include "kel_io.h"
#include "kel_logical.h"
#include "support.h"
#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>

namespace
{

struct request {
    int op; // opcode
    uint64_t flags;
    uint64_t elements;
    unsigned offset[2];
};

// The longest request, with the bytes that offsets need.
constexpr uint64_t most_elements = 2100;
constexpr uint64_t area = most_elements / 8 + 16;

uint8_t joined(const request &r, unsigned a, unsigned b)
{
    b ^= r.flags & KEL_INVERT_SRC ? 0xff : 0;
    const unsigned v = r.op == kel_op_and ? a & b : r.op == kel_op_or ? a | b : a ^ b;
    return static_cast<uint8_t>(r.flags & KEL_INVERT ? ~v : v);
}

uint8_t source_byte(const uint8_t *data, unsigned offset, uint64_t j)
{
    return static_cast<uint8_t>(offset == 0 ? data[j] : data[j] >> offset | data[j + 1] << (8 - offset));
}

// The bytes of a source that a request needs.
uint64_t needed(const request &r, unsigned source)
{
    const bool both = r.offset[0] != 0 && r.offset[1] != 0;
    const uint64_t bytes = (r.elements + 7) / 8;
    return bytes == 0 ? 0 : bytes + (r.offset[source] != 0) + (both && r.elements % 8 != 0);
}

// Writes the result over dst and answers its ones.
uint64_t model(const request &r, const uint8_t *src1, const uint8_t *src2, uint8_t *dst)
{
    uint64_t ones = 0;
    for (uint64_t j = 0; 8 * j < r.elements; j++) {
        const uint64_t bits = std::min<uint64_t>(r.elements - 8 * j, 8);
        const uint64_t from = j + (bits < 8 && r.offset[0] != 0 && r.offset[1] != 0);
        const unsigned mask = 0xff00u >> bits & 0xff;
        const unsigned v = joined(r, source_byte(src1, r.offset[0], from), source_byte(src2, r.offset[1], from)) & mask;
        dst[j] = static_cast<uint8_t>((dst[j] & ~mask) | v);
        for (unsigned bit = 0; bit < 8; bit++)
            ones += v >> bit & 1;
    }
    return ones;
}

kel_vec_t bits(void *data, uint64_t elements, unsigned offset = 0)
{
    kel_vec_t vec = {};
    vec.format = KEL_BITS;
    vec.elements = elements;
    vec.data = data;
    vec.elem_width = 1;
    vec.offset = static_cast<uint8_t>(offset);
    return vec;
}

class logical_operations : public testing::Test
{
  protected:
    // Both sources end as near to a page that faults as words of 8 bytes are read; the result is in front of one.
    void place(const request &r)
    {
        for (unsigned i = 0; i < 2; i++) {
            const uint64_t bytes = needed(r, i);
            const uint64_t end = random.between(0, 7); // bytes of the last word that are not needed
            src[i] = source[i].data + area - end - bytes;
            random.fill(source[i].data, area);
        }
        room = (r.elements + 7) / 8 + random.between(0, 20);
        dst = target.data + area / 64 * 64 - (room + 63) / 64 * 64;
        random.fill(target.data, target.size);
        expected.assign(dst, dst + (room + 63) / 64 * 64);
        ones = model(r, src[0], src[1], expected.data());
    }

    bool holds() const
    {
        return memcmp(dst, expected.data(), expected.size()) == 0;
    }

    request any()
    {
        const uint64_t flags = random.between(0, 3) * KEL_INVERT; // KEL_INVERT_SRC is the next bit
        const auto offset = [&] { return random.one_in(2) ? 0 : random.between<unsigned>(1, 7); };
        return {random.between<int>(kel_op_and, kel_op_xor),
                flags,
                random.between(0, random.one_in(3) ? most_elements : 200),
                {offset(), offset()}};
    }

    random_source random{57};
    guarded_buffer source[2] = {guarded_buffer(area), guarded_buffer(area)};
    guarded_buffer target{area / 64 * 64, 64};
    uint8_t *src[2];
    uint8_t *dst;
    uint64_t room;
    std::vector<uint8_t> expected;
    uint64_t ones;
};

using call_t = kel_result_t (*)(kel_context_t *, uint64_t, const kel_vec_t *, const kel_vec_t *, const kel_vec_t *);
using post_t = kel_status_t (*)(kel_queue_t *, uint64_t, const kel_vec_t *, const kel_vec_t *, const kel_vec_t *,
                                void *);
constexpr call_t calls[] = {kel_and, kel_or, kel_xor};
constexpr post_t posts[] = {kel_and_post, kel_or_post, kel_xor_post};

} // namespace

TEST_F(logical_operations, random_requests)
{
    for (const uint32_t debug : {0u, 1u, 3u}) {
        test_context ctx(debug == 3 ? 1 : 2, debug);
        kel_queue_t *queue;
        ASSERT_EQ(kel_queue_create(ctx, 1, &queue), KEL_SUCCESS);
        for (unsigned i = 0; i < 7000; i++) {
            const request r = any();
            place(r);
            const kel_vec_t src1 = bits(src[0], r.elements, r.offset[0]);
            const kel_vec_t src2 = bits(src[1], r.elements, r.offset[1]);
            const kel_vec_t to = bits(dst, r.elements + random.between(0, 100));
            cca_t cca = {};
            kel_result_t result = {};
            kel_poll_t polled = {};
            switch (i % 3) {
            case 0:
                result = calls[r.op - kel_op_and](ctx, r.flags, &src1, &src2, &to);
                break;
            case 1:
                ASSERT_EQ(posts[r.op - kel_op_and](queue, r.flags, &src1, &src2, &to, this), KEL_SUCCESS);
                ASSERT_EQ(kel_poll(queue, &polled, 1, 0), 1);
                result = {polled.status, 0, polled.count};
                break;
            default:
                result.status = kel_logical_emulate(ctx, r.flags, &src1, &src2, &to, r.op, &cca);
                result.count = cca.retval;
                ASSERT_TRUE(cca.output_sz == cca.retval && cca.n_processed == cca.retval);
            }
            ASSERT_TRUE(result.status == KEL_SUCCESS && result.count == ones && holds())
                << "op " << r.op << " flags " << r.flags << " n " << r.elements << " offsets " << r.offset[0] << ' '
                << r.offset[1] << ": count " << result.count << " for " << ones;
        }
        ASSERT_EQ(kel_queue_destroy(queue), KEL_SUCCESS);
        EXPECT_EQ(ctx.messages(), lines_t{});
    }
}

TEST_F(logical_operations, with_and_without_the_instruction)
{
    for (unsigned i = 0; i < 3000; i++) {
        const request r = any();
        const int have_popcnt = i % 2 && __builtin_cpu_supports("popcnt");
        place(r);
        ASSERT_EQ(do_logical_il(r.op, r.flags, src[0], src[1], dst, r.elements, r.offset[0], r.offset[1], have_popcnt),
                  ones);
        ASSERT_TRUE(holds());
    }
}

TEST(logical, opcodes)
{
    constexpr uint64_t a = 0b0011;
    constexpr uint64_t b = 0b0101;
    const uint64_t expected[] = {a & b, a | b, a ^ b, ~(a & b), ~(a | b), ~a ^ b, ~a ^ b};
    for (int op = 240; op <= 246; op++)
        EXPECT_EQ(logical_op(op, a, b), expected[op - 240]);
    EXPECT_EQ(op_to_cmd(240), KEL_CMD_AND);
    EXPECT_EQ(op_to_cmd(241), KEL_CMD_OR);
    EXPECT_EQ(op_to_cmd(242), KEL_CMD_XOR);
    EXPECT_EQ(op_to_cmd(239), -1);
    EXPECT_EQ(op_to_cmd(243), -1);
    const kel_vec_t none = {};
    EXPECT_EQ(kel_and_emulate(no_context, 0, &none, &none, &none, nullptr), KEL_ENOTIMPL);
}

TEST(logical, log_lines)
{
    test_context ctx(2, KEL_DEBUG_ARG, KEL_LOG_ENTRY | KEL_LOG_RETURN | KEL_LOG_VERBOSE);
    kel_queue_t *queue;
    ASSERT_EQ(kel_queue_create(ctx, 1, &queue), KEL_SUCCESS);
    ctx.messages();
    alignas(64) uint8_t bytes[3][64] = {{0xff}, {0x81}, {}};
    const kel_vec_t src1 = bits(bytes[0], 8);
    const kel_vec_t src2 = bits(bytes[1], 8);
    const kel_vec_t dst = bits(bytes[2], 8);
    const auto vec = [](const void *data, const char *before_format) {
        return "data=" + pointer_text(data) + ", elements=8, width=1, offset=0," + before_format + "fmt=bits";
    };
    const auto args = [&](const char *open, const char *close) {
        const std::string to = open + ("{ " + vec(&bytes[2], " ")) + " }" + close;
        return ": ctx=" + pointer_text(ctx.ctx) + ", flags=invert, \n  src1 = " + open + vec(&bytes[0], "\n      ") +
               close + "\n  src2 = " + open + vec(&bytes[1], "\n      ") + close + "\n  dst = " + to;
    };
    EXPECT_EQ(kel_or(ctx, KEL_INVERT, &src1, &src2, &dst).count, 0u);
    EXPECT_EQ(ctx.messages(),
              (lines_t{"kel_or()" + args("{", "}"), "kel_logical_emulate() returns {KEL_SUCCESS, count=0}",
                       "kel_or() returns {SUCCESS, count=0}"}));
    EXPECT_EQ(kel_xor_post(queue, KEL_INVERT, &src1, &src2, &dst, at(0x12)), KEL_SUCCESS);
    EXPECT_EQ(ctx.messages(),
              (lines_t{"kel_xor_post()" + args("", "") + "\n  udata = 0x12",
                       "kel_logical_emulate() returns {KEL_SUCCESS, count=2}", "kel_xor_post returns {SUCCESS}"}));
    EXPECT_EQ(kel_queue_destroy(queue), KEL_SUCCESS);
}
