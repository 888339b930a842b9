// What the validators of the operations report: descriptors that are broken in several ways at once, with every line in
// its order, each followed by one call of the hook, and nothing written.

#include "support.h"
#include <cstring>
#include <functional>
#include <gtest/gtest.h>

namespace
{

constexpr uint64_t all_flags = 0x7ff;

kel_vec_t vec(uint64_t format, uint32_t width, uint64_t elements, void *data, uint8_t offset = 0)
{
    kel_vec_t made = {};
    made.format = format;
    made.elem_width = width;
    made.elements = elements;
    made.data = data;
    made.offset = offset;
    return made;
}

// A request, of the context or of a queue if there is one.
using request_t = std::function<kel_status_t(kel_context_t *, kel_queue_t *)>;

#define REQUEST(operation, ...)                                                                                        \
    [&](kel_context_t *by, kel_queue_t *in) {                                                                          \
        return in ? operation##_post(in, __VA_ARGS__, nullptr) : operation(by, __VA_ARGS__).status;                    \
    }

class validators : public testing::Test
{
  protected:
    void SetUp() override
    {
        memset(bytes, 0xee, sizeof bytes);
    }

    void refuses(test_context &ctx, const request_t &request, const lines_t &lines, kel_queue_t *queue = nullptr,
                 kel_status_t status = KEL_EINVAL)
    {
        reset_hooks();
        EXPECT_EQ(request(ctx, queue), status);
        EXPECT_EQ(ctx.messages(), lines);
        EXPECT_EQ(kel_debug_calls, lines.size());
        ctx->log.options = 0;
        EXPECT_EQ(request(ctx, queue), status) << "without lines";
        ctx->log.options = KEL_LOG_ERROR;
        for (const uint8_t byte : bytes)
            ASSERT_EQ(byte, 0xee);
    }

    alignas(64) uint8_t bytes[512];
    uint8_t *const misaligned = bytes + 67;
    const kel_vec_t good_bits = vec(KEL_BITS, 1, 8, bytes);
    const kel_vec_t good_bytes = vec(KEL_BYTES, 1, 8, bytes + 128);
    const kel_vec_t good_dst = vec(KEL_BYTES, 1, 8, bytes + 256);
    const kel_vec_t good_bits_dst = vec(KEL_BITS, 1, 8, bytes + 256);
};

constexpr char sync_line[] = "Synchronization flags must not be set for non-post functions: flags = ";

} // namespace

TEST_F(validators, select)
{
    const kel_vec_t src = vec(KEL_BITS | KEL_RLE | KEL_VAR, 17, 9, bytes, 8);
    const kel_vec_t dst = vec(KEL_ZIP, 3, 4, misaligned, 1);
    const kel_vec_t mask = vec(KEL_VAR, 1, 8, bytes, 9);
    test_context ctx(1);
    refuses(ctx, REQUEST(kel_select, all_flags, &src, &dst, &mask),
            {"Invalid flags ones|invert|invert_src", std::string(sync_line) + "cond|serial\n",
             "Invalid src offset 8; must be < 8", "Invalid src elem_width 17 bits; must be 1-16 bits or 1-16 bytes",
             "Invalid src format: rle|var", "Invalid dst offset 1; must be 0", "Invalid dst alignment 3; must be 64",
             "Invalid dst elem_width 3 bytes; must be 1, 2, 4, 8, or 16 bytes", "Invalid dst format: zip",
             "Invalid mask format: var; must be KEL_BITS", "Invalid mask width 1; must be 1",
             "Invalid mask offset 9; must be < 8", "mask element count 8 is smaller than src element count 9"});

    test_context extra(2, KEL_DEBUG_EXTRA);
    const kel_vec_t over_src = vec(KEL_BYTES, 1, 4, bytes + 128);
    refuses(extra, REQUEST(kel_select, 0, &good_bytes, &over_src, &good_bits),
            {"src, dst or mask address range overlap", "dst elements too small"}); // 0xee has 6 ones
    const kel_vec_t over_mask = vec(KEL_BYTES, 1, 6, bytes);
    refuses(extra, REQUEST(kel_select, 0, &good_bytes, &over_mask, &good_bits),
            {"src, dst or mask address range overlap"});
}

TEST_F(validators, extract)
{
    kel_vec_t src = vec(KEL_RLE | KEL_VAR | KEL_BITS | 32, 129, 9, bytes, 1);
    const kel_vec_t dst = vec(KEL_BITS | KEL_ADD_ONE, 7, 8, misaligned, 1);
    src.aux_width = 3;
    src.aux_offset = 8;
    test_context ctx(2);
    refuses(ctx, REQUEST(kel_extract, all_flags, &src, &dst),
            {"Invalid flags ones|invert|invert_src",
             std::string(sync_line) + "cond|serial|pipe_src|pipe_aux|pipe_mask\n",
             "Invalid src offset 1; must be 0 if elem_width >= 8 bytes",
             "Invalid src elem_width 129 bits; must be 1-24 bits or 1-16 bytes", "Invalid src format: 5(?\?\?)",
             "Invalid src format: bits|rle|var; rle and var are mutually exclusive",
             "Invalid src format: bits|rle|var; cannot set both var and bits",
             "Invalid src aux_width 3 bits; must be 1, 2, 4 or 8 bits", "Invalid src aux_offset 8; must be < 8",
             "Invalid dst offset 1; must be 0", "Invalid dst alignment 3; must be 64",
             "Invalid dst elem_width 7 bits; must be 1, 2, 4, 8, or 16 bytes", "Invalid dst format: bits|add1",
             "dst elements(8) is smaller than src elements(9)"});

    test_context extra(2, KEL_DEBUG_EXTRA);
    kel_vec_t runs = vec(KEL_RLE, 1, 2, bytes + 256);
    runs.aux_width = 8;
    runs.aux_data = bytes + 257;
    refuses(extra, REQUEST(kel_extract, 0, &runs, &good_dst),
            {"Invalid src: sum of aux_data runs (476) > dst elements (8)", "src and dst data stream overlap",
             "aux and dst data stream overlap"});
}

TEST_F(validators, translate)
{
    const kel_vec_t src = vec(KEL_ZIP | KEL_ADD_ONE, 4, 9, bytes, 8);
    const kel_vec_t dst = vec(KEL_RLE, 4, 8, misaligned, 1);
    const kel_vec_t bitmap = vec(KEL_BYTES, 2, (1 << 24) + 1, misaligned, 1);
    for (const uint32_t version : {1u, 2u}) {
        test_context ctx(version);
        const std::string bits = version == 2 ? "24" : "16";
        refuses(ctx, REQUEST(kel_translate, KEL_PAD | KEL_COND, &src, &dst, &bitmap, 25),
                {"Invalid flags pad", std::string(sync_line) + "cond\n", "Invalid src offset 8; must be < 8",
                 "Invalid src format: zip", "Invalid src format: KEL_ADD_ONE; not allowed because aux_data = NULL",
                 "Invalid src elem_width 4 bytes; must be 1-" + bits + " bits or 1-3 bytes",
                 "Invalid dst offset 1; must be 0", "Invalid dst alignment 3; must be 64",
                 "Invalid dst elem_width 4 bytes; must be 1 bit", "Invalid dst format: rle",
                 "dst elements 8 is less than src elements 9", "Invalid val_width: 25",
                 "Invalid bitmap width: 2; must be 1", "Invalid bitmap format: bytes; must be KEL_BITS",
                 "Invalid bitmap offset 1; must be 0",
                 "Invalid bitmap data alignment 3; must be " + std::string(version == 2 ? "16" : "64"),
                 "Invalid bitmap elements 16777217; must be <= (1 << 24)"});
        // Index lists, and the widths that one version alone has.
        const kel_vec_t list = vec(KEL_BYTES, 1, 8, bytes);
        const kel_vec_t odd = vec(KEL_BITS, 17, 8, bytes + 128);
        const lines_t v1 = {"Invalid src elem_width 17 bits; must be 1-16 bits or 1-16 bytes",
                            "Invalid src elem_width 17 bits; must be 1-16 bits or 1-3 bytes"};
        const std::string width = "Invalid dst elem_width 1 bytes; must be 2 or 4 bytes for KEL_ONES_INDEX";
        refuses(ctx, REQUEST(kel_translate, KEL_ONES_INDEX, &odd, &list, &good_bits, 1),
                version == 2 ? lines_t{width} : lines_t{v1[0], v1[1], width});
    }

    // Elements are 0xee.
    test_context extra(2, KEL_DEBUG_EXTRA);
    const kel_vec_t whole = vec(KEL_BITS, 1, 200, bytes + 256);
    refuses(extra, REQUEST(kel_translate, 0, &good_bytes, &good_bits_dst, &good_bits, 4),
            {"src element at index 0 has value 238 which references past the bitmap length 8",
             "High order bits in src element at index 0 above val_width(4) bits are non-zero(224)"});
    refuses(extra, REQUEST(kel_translate, 0, &good_bytes, &whole, &whole, 0),
            {"bitmap and dst vectors overlap", "Invalid val_width: 0"});
    kel_vec_t runs = vec(KEL_RLE, 4, 2, bytes + 256);
    runs.aux_width = 8;
    runs.aux_data = bytes + 256;
    refuses(extra, REQUEST(kel_translate, 0, &runs, &good_bits_dst, &good_bits, 33),
            {"Invalid src: sum of aux_data runs (476) > dst elements (8)", "src and dst vectors overlap",
             "aux and dst vectors overlap",
             "src element at index 0 has value 4008636142 which references past the bitmap length 8",
             "Invalid src elem_width 4 bytes; must be 1-24 bits or 3 bytes"});
}

TEST_F(validators, logical)
{
    const kel_vec_t src1 = vec(KEL_BYTES, 1, 9, bytes, 8);
    const kel_vec_t src2 = vec(KEL_BITS | KEL_ZIP, 2, 8, bytes, 9);
    const kel_vec_t dst = vec(KEL_VAR | KEL_BITS, 3, 1, misaligned, 1);
    const lines_t lines = {"Invalid flags ones|pad|nowait",
                           std::string(sync_line) + "cond|serial|pipe_src|pipe_aux|pipe_mask\n",
                           "Invalid src1 offset 8; must be 0",
                           "Invalid src2 offset 9; must be 0",
                           "Invalid dst offset 1; must be 0",
                           "Invalid src2 elem_width 2 bits; must be 1 bit",
                           "Invalid dst elem_width 3 bits; must be 1 bit",
                           "Invalid src1 format: bytes; must be KEL_BITS",
                           "Invalid src2 format: zip; must be KEL_BITS",
                           "Invalid dst format: var; must be KEL_BITS",
                           "src1 elements 9 does not match src2 elements 8",
                           "Invalid dst data alignment 3; must be 64"};
    test_context ctx(2);
    refuses(ctx, REQUEST(kel_and, all_flags, &src1, &src2, &dst), lines);
    refuses(ctx, REQUEST(kel_or, all_flags, &src1, &src2, &dst), lines);
    refuses(ctx, REQUEST(kel_xor, all_flags, &src1, &src2, &dst), lines);
    const kel_vec_t wide = vec(KEL_BITS, 8, 8, bytes);
    const kel_vec_t small = vec(KEL_BITS, 1, 7, bytes + 256);
    refuses(ctx, REQUEST(kel_and, 0, &wide, &good_bits, &small),
            {"Invalid src1 elem_width 8 bits; must be 1 bit", "dst elements 7 is less than src elements 8"});

    test_context extra(2, KEL_DEBUG_EXTRA);
    refuses(
        extra, REQUEST(kel_and, 0, &good_bits_dst, &good_bits_dst, &good_bits_dst),
        {"Invalid src1 or dst: src1 data and dst data overlap", "Invalid src2 or dst: src2 data and dst data overlap"});
}

TEST_F(validators, copy_and_fill)
{
    test_context ctx(2);
    refuses(ctx, REQUEST(kel_copy, KEL_PAD | KEL_COND, bytes, bytes + 8, 16),
            {"Invalid flags pad", std::string(sync_line) + "cond\n"});
    refuses(ctx, REQUEST(kel_fill, all_flags, 1, bytes, 1, 0x103), {"Invalid val_width: 3"});
    refuses(ctx, REQUEST(kel_fill, KEL_PAD | KEL_SERIAL, 1, bytes, 1, 1),
            {"Invalid flags pad", std::string(sync_line) + "serial\n"});
    test_context extra(2, KEL_DEBUG_EXTRA);
    refuses(extra, REQUEST(kel_copy, 0, bytes, bytes + 8, 9), {"Invalid src or dst: src and dst overlap"});
}

// A foreign thread's call: its line comes first, but for copy behind that of bad flags.
TEST_F(validators, wrong_thread)
{
    const std::string thread = test_context::wrong_thread();
    const std::string flags = "Invalid flags ones";
    test_context ctx(2);
    ctx.disown();
    const lines_t lines = {thread, flags};
    const auto foreign = [&](const request_t &request, const lines_t &expected) {
        refuses(ctx, request, expected, nullptr, KEL_ETHREAD);
    };
    foreign(REQUEST(kel_select, KEL_ONES_INDEX, &good_bytes, &good_dst, &good_bits), lines);
    foreign(REQUEST(kel_extract, KEL_ONES_INDEX, &good_bytes, &good_dst), lines);
    foreign(REQUEST(kel_translate, 0, &good_bytes, &good_bits_dst, &good_bits, 8), {thread});
    foreign(REQUEST(kel_and, KEL_ONES_INDEX, &good_bits, &good_bits, &good_bits_dst), lines);
    foreign(REQUEST(kel_copy, KEL_ONES_INDEX, bytes, bytes + 64, 1), {flags, thread});
    foreign(REQUEST(kel_fill, KEL_ONES_INDEX, 1, bytes, 1, 1), lines);
    foreign(REQUEST(kel_fill, KEL_ONES_INDEX, 1, bytes, 1, 0), {"Invalid val_width: 0"});
}

// What a request may follow in a queue. Each is posted behind one with a pipe flag that feeds another buffer.
TEST_F(validators, chains)
{
    struct row {
        uint64_t last; // pipe flags of the request before
        request_t request;
        const char *target; // the buffer that it feeds here, for the line of the pipeline rule; null: no line
        std::string refusal;
    };
    const auto refusal = [](const char *operation, const char *flags) {
        return std::string(operation) + "_post() cannot be a pipeline target" + flags;
    };
    const char *mask_source = " for a source with pipe flags KEL_PIPE_MASK";
    const auto *mask_data = reinterpret_cast<const char *>(bytes);
    const auto *none = reinterpret_cast<const char *>(0);
    const row rows[] = {
        {KEL_PIPE_AUX, REQUEST(kel_select, 0, &good_bytes, &good_dst, &good_bits), none,
         refusal("kel_select", " for a source with pipe flags KEL_PIPE_AUX")},
        {KEL_PIPE_MASK, REQUEST(kel_select, 0, &good_bytes, &good_dst, &good_bits), mask_data, ""},
        {KEL_PIPE_MASK, REQUEST(kel_extract, 0, &good_bytes, &good_dst), none, refusal("kel_extract", mask_source)},
        {KEL_PIPE_SRC, REQUEST(kel_extract, 0, &good_bytes, &good_dst), mask_data + 128, ""},
        {KEL_PIPE_MASK, REQUEST(kel_translate, 0, &good_bytes, &good_bits_dst, &good_bits, 8), mask_data,
         refusal("kel_translate", mask_source)},
        {KEL_PIPE_SRC, REQUEST(kel_copy, 0, bytes, bytes + 256, 8), mask_data, ""},
        {KEL_PIPE_MASK, REQUEST(kel_copy, 0, bytes, bytes + 256, 8), none,
         refusal("kel_copy", " for a source with pipe flags KEL_PIPE_AUX and KEL_PIPE_MASK")},
        {KEL_PIPE_SRC, REQUEST(kel_fill, 0, 1, bytes, 1, 1), none, refusal("kel_fill", "")},
    };
    test_context ctx(2);
    kel_queue_t *queue;
    ASSERT_EQ(kel_queue_create(ctx, 20, &queue), KEL_SUCCESS);
    uint8_t fed[64] = {};
    const auto post_before = [&](uint64_t flags) {
        EXPECT_EQ(kel_fill_post(queue, flags, 0, fed, 0, 1, nullptr), KEL_SUCCESS);
    };
    const auto drain = [&] {
        ASSERT_EQ(kel_queue_destroy(queue), KEL_SUCCESS);
        ASSERT_EQ(kel_queue_create(ctx, 20, &queue), KEL_SUCCESS);
        ctx.messages();
    };
    for (const row &r : rows) {
        post_before(r.last | KEL_SERIAL);
        lines_t lines = {"KEL_SERIAL request not followed by a KEL_COND request",
                         "This request is a pipeline target, and src buffer " + pointer_text(r.target) +
                             " != dst buffer " + pointer_text(fed) + " of pipeline source; they must match"};
        if (!r.refusal.empty())
            lines.push_back(r.refusal);
        refuses(ctx, r.request, lines, queue);
        drain();
    }
    // Logical operations are no targets, and say nothing.
    post_before(KEL_PIPE_SRC);
    refuses(ctx, REQUEST(kel_and, 0, &good_bits, &good_bits, &good_bits_dst), {}, queue);
    drain();
    refuses(ctx, REQUEST(kel_xor, KEL_PIPE_AUX | KEL_PIPE_SRC, &good_bits, &good_bits, &good_bits_dst), {}, queue);
    EXPECT_EQ(kel_queue_destroy(queue), KEL_SUCCESS);
}

// The entry and return lines of the operations on elements.
TEST_F(validators, entry_and_return_lines)
{
    test_context ctx(2, 0, KEL_LOG_ENTRY | KEL_LOG_RETURN);
    kel_queue_t *queue;
    ASSERT_EQ(kel_queue_create(ctx, 3, &queue), KEL_SUCCESS);
    ctx.messages();
    const auto source = [](const kel_vec_t &v, const char *fmt) {
        return "data=" + pointer_text(v.data) + ", elements=" + std::to_string(v.elements) +
               ", width=1, offset=0,\n      fmt=" + fmt;
    };
    const auto dst = [](const kel_vec_t &v, const char *fmt) {
        return "{ data=" + pointer_text(v.data) + ", elements=" + std::to_string(v.elements) +
               ", width=1, offset=0, fmt=" + fmt + " }";
    };
    const auto args = [&](const kel_vec_t &to, const char *fmt) {
        return "ctx=" + pointer_text(ctx.ctx) + ", flags=none,\n  src = { " + source(good_bytes, "bytes") +
               " }\n  dst = { " + dst(to, fmt) + " }";
    };
    const std::string elements = args(good_dst, "bytes");
    const std::string outcomes = args(good_bits_dst, "bits");
    const std::string mask = source(good_bits, "bits");
    kel_select(ctx, 0, &good_bytes, &good_dst, &good_bits);
    kel_select_post(queue, 0, &good_bytes, &good_dst, &good_bits, at(5));
    EXPECT_EQ(ctx.messages(),
              (lines_t{"kel_select(): " + elements + ",\n  mask = " + mask, "kel_select() returns {SUCCESS, count=6}",
                       "kel_select_post(): " + elements + ",\n  mask = " + mask + ",\n  udata = 0x5",
                       "kel_select_post() returns SUCCESS"}));
    kel_extract(ctx, 0, &good_bytes, &good_dst);
    kel_extract_post(queue, 0, &good_bytes, &good_dst, at(6));
    EXPECT_EQ(ctx.messages(),
              (lines_t{"kel_extract(): " + elements, "kel_extract() returns {SUCCESS, count=0}",
                       "kel_extract_post: " + elements + "\n  udata = 0x6", "kel_extract_post() returns {SUCCESS}"}));
    const kel_vec_t bitmap = vec(KEL_BITS, 1, 256, bytes);
    kel_translate(ctx, 0, &good_bytes, &good_bits_dst, &bitmap, 8); // bit 238 of ee ee ... is 1
    kel_translate_post(queue, 0, &good_bytes, &good_bits_dst, &bitmap, 8, at(7));
    EXPECT_EQ(
        ctx.messages(),
        (lines_t{"kel_translate(): " + outcomes + ",\n  bitmap = " + dst(bitmap, "bits") + ",\n  val_width=8",
                 "kel_translate() returns {SUCCESS, count=8}",
                 "kel_translate_post(): " + outcomes + "\n  bitmap=" + pointer_text(bytes) + "  val_width=8  udata=0x7",
                 "kel_translate_post() returns SUCCESS"}));
    EXPECT_EQ(kel_queue_destroy(queue), KEL_SUCCESS);
}
