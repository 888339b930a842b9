// Argument tests: for every way to break a descriptor the messages, in full and in their order.
#include "kel_valid.h"
#include "support.h"
#include <algorithm>
#include <gtest/gtest.h>

#define UNKNOWN "(?\?\?)"
#define LIMITS "; must be 1-24 bits or 1-16 bytes"

namespace
{

// Which descriptors a caller accepts: the name in its messages, and the call of the block with a caller's sets.
struct block {
    const char *name;
    int (*valid)(kel_context_t *ctx, const kel_vec_t *vec, int log);
};

// A descriptor as a row spells it; what it leaves out is zero.
struct shape {
    uint64_t format;
    uint32_t width = 0;
    uint8_t offset = 0;
    uint16_t aux_width = 0;
    uint8_t aux_offset = 0;
    uintptr_t data = 0x1000;
};

struct descriptor_row {
    block by;
    shape vec;
    lines_t lines = {};
};

// Runs blocks, reporting and only answering.
void expect_lines(const std::vector<descriptor_row> &rows)
{
    for (const auto &[by, vec, lines] : rows) {
        SCOPED_TRACE(testing::Message() << by.name << "of format " << vec.format << ", width " << vec.width);
        const kel_vec_t v = {vec.format,    4,       at(vec.data), vec.width, vec.offset, vec.aux_offset,
                             vec.aux_width, nullptr, nullptr,      0};
        lines_t expected = lines;
        for (std::string &line : expected)
            line = std::string("Invalid ") + by.name + line;
        test_context ctx;
        EXPECT_EQ(by.valid(ctx, &v, 1), lines.empty());
        EXPECT_EQ(ctx.messages(), expected);
        EXPECT_EQ(by.valid(ctx, &v, 0), lines.empty());
        EXPECT_EQ(kel_debug_calls, lines.size());
    }
}

#define BLOCK(name, call)                                                                                              \
    block                                                                                                              \
    {                                                                                                                  \
        name, [](kel_context_t *ctx, const kel_vec_t *vec, int log) { return call; }                                   \
    }
#define SRC(add, remove) BLOCK("src ", src_valid(ctx, vec, add, remove, "src", 2, log))
#define DST(add, remove) BLOCK("dst ", dst_valid(ctx, vec, add, remove, 2, log))
#define ONES(flags) BLOCK("dst ", dst_ones_valid(ctx, flags, vec, 2, log))
#define FLAGS BLOCK("flags ", flags_valid(ctx, vec->format, 0, 0, 2, log))

} // namespace

// ---- The blocks -----------------------------------------------------------------------------------------------------

TEST(valid, sources)
{
    const std::string wide = "; must be 0 if elem_width >= 8 bytes", aux_widths = " bits; must be 1, 2, 4 or 8 bits";
    const std::string exclusive = "; rle and var are mutually exclusive", var_bits = "; cannot set both var and bits";
    const std::string no_aux = "format: KEL_ADD_ONE; not allowed because aux_data = NULL";
    const block scan = SRC(KEL_VAR, 0), select = SRC(0, KEL_RLE), translate = SRC(0, KEL_ZIP);
    expect_lines({
        {scan, {KEL_BYTES, 8, 7, 99, 99, 0x1001}},
        {scan, {KEL_BYTES, 16}},
        {scan, {KEL_BITS, 1}},
        {scan, {KEL_BITS, 24}},
        {scan, {KEL_VAR | KEL_ADD_ONE | KEL_ZIP, 0, 7, 1, 7}},
        {scan, {KEL_RLE | KEL_BITS | KEL_ADD_ONE, 3, 0, 2}},
        {select, {KEL_BITS | KEL_ZIP, 3}},
        {translate, {KEL_BITS | KEL_RLE | KEL_ADD_ONE, 3, 0, 4}},
        {SRC(KEL_VAR, KEL_RLE), {KEL_VAR | KEL_ADD_ONE, 1, 0, 8}},
        // Offsets.
        {scan, {KEL_BYTES, 8, 8}, {"offset 8; must be < 8"}},
        {scan, {KEL_BYTES, 9, 1}, {"offset 1" + wide}},
        // Widths; the last of them is one byte modulo 2^32 bits.
        {scan, {KEL_RLE, 0, 0, 1}, {"elem_width 0 bytes" LIMITS}},
        {scan, {KEL_BITS, 25}, {"elem_width 25 bits" LIMITS}},
        {scan, {KEL_VAR, 17, 0, 8}, {"elem_width 17 bytes" LIMITS}},
        {scan, {KEL_BYTES, 0x20000001}, {"elem_width 536870913 bytes" LIMITS}},
        {SRC(0, KEL_BITS), {KEL_BITS}, {"elem_width 0 bytes" LIMITS, "format: bits"}},
        // Formats; those that the caller refuses ask for no aux stream.
        {select, {KEL_RLE | KEL_ADD_ONE, 1, 0, 99, 99}, {"format: rle|add1"}},
        {translate, {KEL_VAR | KEL_ADD_ONE, 0, 0, 9, 9}, {"elem_width 0 bytes" LIMITS, "format: var", no_aux}},
        {translate, {KEL_ZIP, 1}, {"format: zip"}},
        {scan, {31 << 10, 1}, {"format: 10" UNKNOWN "|11" UNKNOWN "|12" UNKNOWN "|13(?\?"}},
        {scan, {KEL_VAR | KEL_RLE, 1, 0, 8}, {"format: rle|var" + exclusive}},
        {scan, {KEL_VAR | KEL_BITS, 0, 0, 8}, {"format: bits|var" + var_bits}},
        {scan, {KEL_ADD_ONE | KEL_ZIP, 1}, {no_aux}},
        // The aux stream.
        {scan, {KEL_RLE, 1}, {"aux_width 0" + aux_widths}},
        {scan, {KEL_VAR, 0, 0, 16}, {"aux_width 16" + aux_widths}},
        {scan, {KEL_RLE, 1, 0, 8, 8}, {"aux_offset 8; must be < 8"}},
        // All that goes together.
        {scan,
         {23 | 1 << 11, 129, 3, 6, 200},
         {"offset 3" + wide, "elem_width 129 bits" LIMITS, "format: 11" UNKNOWN,
          "format: bits|rle|var|add1" + exclusive, "format: bits|rle|var|add1" + var_bits, "aux_width 6" + aux_widths,
          "aux_offset 200; must be < 8"}},
    });
}

// The widths are all that a version changes for vectors and values. The role of a vector is in the line.
TEST(valid, versions)
{
    const std::string limits = " elem_width 17 bits; must be 1-16 bits or 1-16 bytes";
    small_scan s;
    s.src.elem_width = s.five.elem_width = 17;
    s.src.format = s.five.format = KEL_BITS;
    test_context second, first(1);
    EXPECT_EQ(src_valid(second, &s.src, 0, KEL_RLE, "mask", 2, 1), 1);
    EXPECT_EQ(src_valid(first, &s.src, 0, KEL_RLE, "mask", 1, 1), 0);
    EXPECT_EQ(s.value(second).status, KEL_SUCCESS);
    EXPECT_EQ(s.value(first).status, KEL_EINVAL);
    EXPECT_EQ(first.messages(), (lines_t{"Invalid mask" + limits, "Invalid src" + limits, "Invalid val" + limits}));
}

TEST(valid, destinations_and_flags)
{
    const std::string widths = "; must be 1, 2, 4, 8, or 16 bytes", aux_widths = " bits; must be 8, 16 or 32 bits";
    const std::string no_var = "format: KEL_ADD_ONE; only allowed with dst format KEL_VAR";
    const std::string index_widths = "; must be 2 or 4 bytes for KEL_ONES_INDEX";
    const block plain = DST(0, 0), var = DST(KEL_VAR, 0), var_add_one = DST(KEL_VAR | KEL_ADD_ONE, 0);
    expect_lines({
        // Of elements.
        {plain, {KEL_BYTES, 16, 0, 3, 9}},
        {plain, {KEL_BITS, 8}},
        {var_add_one, {KEL_VAR | KEL_ADD_ONE, 4, 0, 8}},
        {var, {KEL_VAR, 4, 0, 16}},
        {var, {KEL_VAR, 4, 0, 32}},
        {plain, {KEL_BYTES, 0}, {"elem_width 0 bytes" + widths}},
        {plain, {KEL_BYTES, 32}, {"elem_width 32 bytes" + widths}},
        {plain, {KEL_BYTES, 0x20000001}, {"elem_width 536870913 bytes" + widths}},
        {plain, {KEL_BITS, 4}, {"elem_width 4 bits" + widths}},
        {plain, {KEL_RLE | KEL_BITS, 8}, {"format: bits|rle"}},
        {var, {KEL_VAR | KEL_ADD_ONE, 1, 0, 8}, {"format: var|add1"}},
        {DST(KEL_VAR, KEL_VAR), {KEL_VAR, 1, 0, 1}, {"format: var"}},
        {var, {KEL_VAR, 1, 0, 4}, {"aux_width 4" + aux_widths}},
        {var_add_one,
         {26, 5, 255, 64, 0, 0x1001},
         {"offset 255; must be 0", "alignment 1; must be 64", "elem_width 5 bytes" + widths, "format: var|zip|add1",
          "aux_width 64" + aux_widths}},
        {var_add_one, {25, 7, 0, 64}, {"elem_width 7 bits" + widths, "format: bits|zip|add1", no_var}},
        // Of bits, and of an index list.
        {ONES(0), {KEL_BITS, 1}},
        {ONES(1), {KEL_BYTES, 2}},
        {ONES(3), {KEL_BITS, 32}},
        {ONES(2), {KEL_BITS, 16}, {"elem_width 16 bits; must be 1 bit"}},
        {ONES(1), {KEL_BYTES, 8}, {"elem_width 8 bytes" + index_widths}},
        {ONES(0), {KEL_BITS | KEL_VAR, 1, 0, 0, 0, 0x103f}, {"alignment 63; must be 64", "format: bits|var"}},
        {ONES(1),
         {KEL_ADD_ONE | KEL_RLE, 1, 1, 0, 0, 0x1020},
         {"offset 1; must be 0", "alignment 32; must be 64", "elem_width 1 bytes" + index_widths, "format: rle|add1"}},
        // The text is cut at 39 characters.
        {FLAGS, {7 << 11 | 28 | KEL_CACHE}, {"pad|invert|invert_src|11" UNKNOWN "|12" UNKNOWN "|1"}},
    });
}

// The masks of all operations, bit by bit; version 2 adds the pipe flags.
TEST(valid, flag_masks)
{
    const uint64_t rows[][3] = {{0, 34, 192}, {1, 0, 227}, {4, 0, 230}, {9, 0, 235}, {24, 32, 218}, {0, 0, 226}};
    for (const auto &[add, remove, mask] : rows)
        for (const unsigned version : {1u, 2u})
            for (unsigned bit = 0; bit < 64; bit++)
                EXPECT_EQ(flags_valid(nullptr, UINT64_C(1) << bit, add, remove, version, 0),
                          (mask | (version == 2 ? 1792 : 0)) >> bit & 1);
}

// ---- Overlaps -------------------------------------------------------------------------------------------------------

// A vector at 0x100 and a second one of bytes; at equal addresses the first argument's length decides.
TEST(overlap, vectors)
{
    // Format, elements, width and offset of the first; address and elements of the second; both answers.
    const std::tuple<uint64_t, uint64_t, uint32_t, uint8_t, uintptr_t, uint64_t, int, int> rows[] = {
        {KEL_BYTES, 4, 2, 0, 0x107, 0, 1, 1}, {KEL_BYTES, 4, 2, 0, 0x108, 9, 0, 0},
        {KEL_BITS, 8, 1, 0, 0x101, 8, 0, 0},  {KEL_BITS, 8, 1, 1, 0x101, 8, 1, 1},
        {KEL_ZIP, 9, 2, 0, 0x100, 9, 0, 0},   {KEL_BYTES, 1, 1, 0, 0x100, 0, 1, 0}};
    for (const auto &[format, elements, width, offset, address, second_elements, overlap, swapped] : rows) {
        const kel_vec_t first = {format, elements, at(0x100), width, offset, 0, 0, nullptr, nullptr, 0};
        const kel_vec_t second = {0, second_elements, at(address), 1, 0, 0, 0, nullptr, nullptr, 0};
        EXPECT_EQ(vec_overlap(&first, &second), overlap) << format << " and " << address;
        EXPECT_EQ(vec_overlap(&second, &first), swapped) << format << " and " << address;
    }
}

// A destination of sixteen bytes; an aux stream of four, of which a bit of offset makes five.
TEST(overlap, aux_streams_and_addresses)
{
    const kel_vec_t bytes = {KEL_BYTES, 8, at(0x100), 2, 0, 0, 0, nullptr, nullptr, 0};
    const std::tuple<uint64_t, uint64_t, uintptr_t, uint8_t, int> rows[] = {
        {KEL_RLE, 8, 0x10f, 0, 1}, {KEL_VAR, 8, 0x110, 0, 0}, {KEL_VAR, 8, 0xfd, 0, 1},
        {KEL_RLE, 8, 0xfc, 0, 0},  {KEL_RLE, 8, 0xfc, 1, 1},  {KEL_ZIP, 8, 0x100, 0, 0},
        {KEL_RLE, 0, 0x101, 0, 1}, {KEL_RLE, 0, 0x100, 0, 0}, {KEL_VAR | KEL_ZIP, 8, 0x100, 0, 1}};
    for (const auto &[format, elements, aux, offset, overlap] : rows) {
        const kel_vec_t runs = {format, elements, nullptr, 2, 0, offset, 4, at(aux), nullptr, 0};
        EXPECT_EQ(aux_overlap(&runs, &bytes), overlap) << format << " at " << aux;
    }
    for (const uintptr_t distance : {0u, 15u, 16u}) {
        EXPECT_EQ(addr_overlap(at(0x100), at(0x100 + distance), 16), distance < 16);
        EXPECT_EQ(addr_overlap(at(0x100 + distance), at(0x100), 16), distance < 16);
    }
    EXPECT_EQ(addr_overlap(at(0x100), at(0x100), 0), 0);
}

// ---- The scans ------------------------------------------------------------------------------------------------------

namespace
{

void set_aux(small_scan &s, uint64_t format, uint16_t width, std::initializer_list<uint8_t> bytes)
{
    s.src.format = format;
    s.src.aux_width = width;
    s.src.aux_data = std::copy(bytes.begin(), bytes.end(), s.in + 32) - bytes.size();
}

// The lines are those of a range scan by a thread that does not own the context. A value scan has none of "upper", and
// says "val" for "lower"; the owner has none of "{thread}".
struct scan_row {
    uint32_t debug;
    void (*spoil)(small_scan &);
    lines_t lines;
};

#define WITH(...) [](small_scan &s) { __VA_ARGS__; }

lines_t expected_lines(lines_t lines, bool range, bool foreign)
{
    std::erase_if(lines, [&](const std::string &line) {
        return (!range && line.find("upper") != std::string::npos) || (!foreign && line == "{thread}");
    });
    for (std::string &line : lines) {
        if (line == "{thread}")
            line = test_context::wrong_thread();
        if (const size_t lower = line.find("lower"); !range && lower != std::string::npos)
            line.replace(lower, 5, "val");
    }
    return lines;
}

// Status, lines, hooks, and a destination that nobody wrote to; with error logging off the same without the lines.
void expect_scans(const std::vector<scan_row> &rows, std::initializer_list<bool> threads = {false})
{
    for (const scan_row &row : rows)
        for (const bool range : {false, true})
            for (const bool foreign : threads)
                for (const uint32_t level : {KEL_LOG_ERROR, 0u}) {
                    SCOPED_TRACE(testing::Message() << "row " << &row - &rows[0] << ", range " << range);
                    const lines_t lines = expected_lines(row.lines, range, foreign);
                    small_scan s;
                    row.spoil(s);
                    const std::string before = hex(s.out, sizeof s.out);
                    test_context ctx(2, row.debug, level);
                    if (foreign)
                        ctx.disown();
                    const kel_result_t result = range ? s.range(ctx) : s.value(ctx);
                    EXPECT_EQ(result.status, lines.empty() ? KEL_SUCCESS : foreign ? KEL_ETHREAD : KEL_EINVAL);
                    EXPECT_EQ(ctx.messages(), level ? lines : lines_t());
                    EXPECT_EQ(kel_debug_calls, lines.size());
                    EXPECT_TRUE(lines.empty() || (result.count == 0 && hex(s.out, sizeof s.out) == before));
                }
}

} // namespace

#define SYNC "Synchronization flags must not be set for non-post functions: flags = "

TEST(scan, plain_faults)
{
    expect_scans(
        {
            {1, WITH(s.dst.elements = 5), {"{thread}"}},
            {1, WITH(s.flags = KEL_COND | KEL_CACHE), {"{thread}", SYNC "cond\n"}},
            {1, WITH(s.five = {KEL_BITS, 25, {}}), {"{thread}", "Invalid lower elem_width 25 bits" LIMITS}},
            {1, WITH(s.seven = {KEL_BITS, 0, {}}), {"{thread}", "Invalid upper elem_width 0 bits" LIMITS}},
            // All of it: source, destination, thread, operator, count, flags, upper value, value; and the data unseen.
            {3,
             WITH(s.src = {KEL_VAR | KEL_BITS, 4, s.out, 129, 1, 0, 8, s.out, nullptr, 0};
                  s.dst = {KEL_ZIP, 3, s.out + 1, 1, 2, 0, 0, nullptr, nullptr, 0};
                  s.value_op = s.range_op = kel_compare_t{6}; s.flags = KEL_PAD | KEL_SERIAL;
                  s.five = {KEL_RLE | KEL_BITS, 0, {1, 1, 1}}; s.seven = {1 << 5, 32, {1, 1, 1}}),
             {"Invalid src offset 1; must be 0 if elem_width >= 8 bytes", "Invalid src elem_width 129 bits" LIMITS,
              "Invalid src format: bits|var; cannot set both var and bits", "Invalid dst offset 2; must be 0",
              "Invalid dst alignment 1; must be 64", "Invalid dst elem_width 1 bytes; must be 1 bit",
              "Invalid dst format: zip", "{thread}", "Invalid op 6" UNKNOWN,
              "dst elements 3 is less than src elements 4", "Invalid flags pad", SYNC "serial\n",
              "Invalid upper format: 5" UNKNOWN "; must be KEL_BITS or KEL_BYTES",
              "Invalid upper elem_width 32 bytes" LIMITS, "Invalid lower format: rle; must be KEL_BITS or KEL_BYTES",
              "Invalid lower elem_width 0 bits" LIMITS}},
        },
        {false, true});
}

#define DATA_OVERLAP "Invalid src or dst: src data and dst data overlap"
#define AUX_OVERLAP "Invalid src or dst: src aux_data and dst data overlap"
#define ABOVE(word, width) "->dword[" word "]: bytes above elem_width " width " are non-zero"
#define HIGH_BITS "; high 4 bits are non-zero. They must be 0 for variable-width elements with aux_width = 8 bits."

// Where a row is to show that something is no fault, an overlap keeps the request from its kernel.
TEST(scan, faults_in_the_data)
{
    expect_scans({
        // Runs: the sum against the room.
        {3, WITH(set_aux(s, KEL_RLE, 8, {1, 1, 1, 1})), {}},
        {3, WITH(set_aux(s, KEL_RLE, 8, {1, 1, 1, 2})), {"Invalid src: sum of aux_data runs (5) > dst elements (4)"}},
        {3, WITH(set_aux(s, KEL_RLE, 1, {0x0f})), {"Invalid src aux_data: total length is 0"}},
        {2, WITH(set_aux(s, KEL_RLE, 16, {9, 9}); s.src.data = s.out), {DATA_OVERLAP}},
        // Lengths: the low four bits of eight.
        {3, WITH(set_aux(s, KEL_VAR, 8, {1, 15, 16, 255})), {"Invalid src aux_data element at index 2" HIGH_BITS}},
        {2, WITH(set_aux(s, KEL_VAR, 4, {0xff, 0xff}); s.src.data = s.out), {DATA_OVERLAP}},
        // Overlaps of the aux stream; of the data see the others.
        {3, WITH(set_aux(s, KEL_RLE, 1, {}); s.out[0] = 0xf0; s.src.aux_data = s.out), {AUX_OVERLAP}},
        // Values: the bits above their whole bytes, in the word of the top byte.
        {3, WITH(s.five = {KEL_BYTES, 16, {1, UINT64_MAX, 1}}), {}},
        {3, WITH(s.five = {KEL_BITS, 12, {1, 1, 0xffff}}), {}},
        {3, WITH(s.five = {KEL_BITS, 12, {0, 0, 0x10000}}), {"Invalid lower" ABOVE("2", "12 bits")}},
        {3, WITH(s.five = {KEL_BYTES, 9, {0, 0x100, 0}}), {"Invalid lower" ABOVE("1", "9 bytes")}},
        {2, WITH(s.five = {KEL_BYTES, 17, {0x100, 0, 0}}), {"Invalid lower" ABOVE("0", "17 bytes")}},
        {2,
         WITH(s.src.data = s.out; s.five = {1, 193, {UINT64_MAX, 1, 1}}; s.seven = {1, 0, {1, 1, 1}}),
         {DATA_OVERLAP}},
        // A plain fault keeps the data from being looked at, and each debug option arms its own tests alone.
        {1, WITH(s.five.dword[2] = 0x105), {}},
        {3, WITH(s.src.data = s.out; s.flags = KEL_PAD), {"Invalid flags pad"}},
        {2, WITH(s.src.data = s.out; s.flags = KEL_PAD), {DATA_OVERLAP}},
        // All of it; a run and a length of 16.
        {2,
         WITH(memset(s.out, 0x10, 4); s.src = {KEL_RLE | KEL_VAR, 4, s.out, 1, 0, 0, 8, s.out, nullptr, 0};
              s.five.dword[2] = s.seven.dword[2] = 0x100),
         {"Invalid src: sum of aux_data runs (64) > dst elements (4)",
          "Invalid src aux_data element at index 0" HIGH_BITS, DATA_OVERLAP, AUX_OVERLAP,
          "Invalid lower" ABOVE("2", "1 bytes"), "Invalid upper" ABOVE("2", "1 bytes")}},
    });
}

// An operator is looked up modulo 32; an index list and the hints are accepted. The pipe flags are refused by each
// version in its own words, so that no call reaches a kernel.
TEST(scan, operators_and_flags)
{
    for (const bool range : {false, true})
        for (const uint32_t version : {1u, 2u})
            for (int op = 0; op < 64; op++) {
                test_context ctx(version);
                small_scan s;
                s.dst = {KEL_BYTES, 4, s.out, 2, 0, 0, 0, nullptr, nullptr, 0};
                s.flags = KEL_ONES_INDEX | KEL_CACHE | KEL_NOWAIT | KEL_PIPE_AUX;
                s.value_op = s.range_op = static_cast<kel_compare_t>(op);
                EXPECT_EQ((range ? s.range(ctx) : s.value(ctx)).status, KEL_EINVAL);
                const bool known = (range ? 0xaaaf0000 : 175) >> op % 32 & 1;
                lines_t lines(known ? 0 : 1, std::string("Invalid op ") + scan_op_str(ctx, s.value_op, nullptr, 0));
                lines.push_back(version == 2 ? SYNC "pipe_aux\n" : "Invalid flags ");
                EXPECT_EQ(ctx.messages(), lines);
            }
}
