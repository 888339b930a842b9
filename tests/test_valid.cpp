// Argument tests: for every way to break a descriptor the messages, in full and in their order.
//
// The messages of a call are one text, a line each. In expected texts "{limits}" stands for the widths of a version.
#include "kel_valid.h"
#include "support.h"
#include <gtest/gtest.h>

#define UNKNOWN "(?\?\?)"

namespace
{

void *at(uintptr_t address)
{
    return reinterpret_cast<void *>(address);
}

void replace(std::string &text, const std::string &from, const std::string &to)
{
    for (size_t place; (place = text.find(from)) != std::string::npos;)
        text.replace(place, from.size(), to);
}

std::string of_version(std::string text, uint32_t version)
{
    replace(text, "{limits}", version == 2 ? "must be 1-24 bits or 1-16 bytes" : "must be 1-16 bits or 1-16 bytes");
    return text;
}

std::string lines_of(const test_context &ctx)
{
    std::string text;
    for (const log_line &line : ctx.lines)
        text += line.message + "\n";
    return text;
}

kel_vec_t vec_of(uint64_t format, uint32_t width, unsigned offset, void *data, unsigned aux_width = 0,
                 unsigned aux_offset = 0)
{
    return {format,
            4,
            data,
            width,
            static_cast<uint8_t>(offset),
            static_cast<uint8_t>(aux_offset),
            static_cast<uint16_t>(aux_width),
            nullptr,
            nullptr,
            0};
}

// Runs one block in both versions: reporting, with the level off, and only answering.
template <class Call>
void expect_lines(const std::string &lines, const Call &block)
{
    for (const uint32_t version : {1u, 2u}) {
        test_context ctx(version);
        EXPECT_EQ(block(ctx, version, 1), lines.empty());
        EXPECT_EQ(lines_of(ctx), of_version(lines, version));
        const size_t reports = ctx.messages().size();
        EXPECT_EQ(kel_debug_calls, reports);
        ctx->log.options = 0;
        EXPECT_EQ(block(ctx, version, 1), lines.empty());
        EXPECT_EQ(kel_debug_calls, 2 * reports);
        ctx->log.options = KEL_LOG_ERROR;
        EXPECT_EQ(block(ctx, version, 0), lines.empty());
        EXPECT_EQ(kel_debug_calls, 2 * reports);
        EXPECT_EQ(lines_of(ctx), "");
    }
}

// Which formats a caller adds and removes.
struct caller {
    uint64_t add, remove;
};

constexpr caller by_scan = {KEL_VAR, 0};
constexpr caller by_select = {0, KEL_RLE};
constexpr caller by_translate = {0, KEL_ZIP};

} // namespace

// ---- The blocks -----------------------------------------------------------------------------------------------------

TEST(valid, src)
{
    const std::string wide = "; must be 0 if elem_width >= 8 bytes\n";
    const std::string aux_widths = " bits; must be 1, 2, 4 or 8 bits\n";
    const std::string exclusive = "; rle and var are mutually exclusive\n";
    const std::string var_bits = "; cannot set both var and bits\n";
    const std::string no_aux = "Invalid src format: KEL_ADD_ONE; not allowed because aux_data = NULL\n";
    const struct {
        caller by;
        uint64_t format;
        uint32_t width;
        unsigned offset, aux_width, aux_offset;
        std::string lines = {};
    } rows[] = {
        {by_scan, KEL_BYTES, 1, 7, 99, 99},
        {by_scan, KEL_BYTES, 8, 1, 0, 0},
        {by_scan, KEL_BYTES, 16, 0, 0, 0},
        {by_scan, KEL_BITS, 1, 7, 0, 0},
        {by_scan, KEL_BITS, 16, 0, 0, 0},
        {by_scan, KEL_BITS, 24, 7, 0, 0},
        {by_scan, KEL_BITS, 128, 0, 0, 0},
        {by_scan, KEL_VAR | KEL_ADD_ONE, 0, 7, 1, 7},
        {by_scan, KEL_VAR | KEL_ZIP, 0, 0, 8, 0},
        {by_scan, KEL_RLE | KEL_BITS | KEL_ZIP | KEL_ADD_ONE, 3, 0, 2, 0},
        {by_select, KEL_BITS | KEL_ZIP, 3, 0, 0, 0},
        {by_translate, KEL_BITS | KEL_RLE | KEL_ADD_ONE, 3, 0, 4, 0},
        {{KEL_VAR, KEL_RLE}, KEL_VAR | KEL_ADD_ONE, 1, 0, 4, 0},
        // Offsets.
        {by_scan, KEL_BYTES, 8, 8, 0, 0, "Invalid src offset 8; must be < 8\n"},
        {by_scan, KEL_BYTES, 9, 1, 0, 0, "Invalid src offset 1" + wide},
        {by_scan, KEL_BYTES, 16, 255, 0, 0, "Invalid src offset 255" + wide},
        {by_scan, KEL_VAR, 16, 1, 8, 0, "Invalid src offset 1" + wide},
        // Widths; the last of them is one byte modulo 2^32 bits.
        {by_scan, KEL_BYTES, 0, 0, 0, 0, "Invalid src elem_width 0 bytes; {limits}\n"},
        {by_scan, KEL_BITS, 0, 0, 0, 0, "Invalid src elem_width 0 bits; {limits}\n"},
        {by_scan, KEL_RLE, 0, 0, 1, 0, "Invalid src elem_width 0 bytes; {limits}\n"},
        {by_translate, KEL_VAR, 0, 0, 1, 0, "Invalid src elem_width 0 bytes; {limits}\nInvalid src format: var\n"},
        {by_scan, KEL_BITS, 25, 0, 0, 0, "Invalid src elem_width 25 bits; {limits}\n"},
        {by_scan, KEL_BITS, 136, 0, 0, 0, "Invalid src elem_width 136 bits; {limits}\n"},
        {by_scan, KEL_VAR, 17, 0, 8, 0, "Invalid src elem_width 17 bytes; {limits}\n"},
        {by_scan, KEL_BYTES, 0x20000001, 0, 0, 0, "Invalid src elem_width 536870913 bytes; {limits}\n"},
        {{0, 1}, KEL_BITS, 0, 0, 0, 0, "Invalid src elem_width 0 bytes; {limits}\nInvalid src format: bits\n"},
        // Formats.
        {by_select, KEL_RLE | KEL_ADD_ONE, 1, 0, 99, 99, "Invalid src format: rle|add1\n"},
        {by_select, KEL_ZIP | KEL_ADD_ONE, 1, 0, 0, 0, "Invalid src format: add1\n"},
        {by_translate, KEL_ZIP, 1, 0, 0, 0, "Invalid src format: zip\n"},
        {by_translate, KEL_VAR | KEL_ADD_ONE, 1, 0, 99, 99, "Invalid src format: var\n" + no_aux},
        {by_scan, 31 << 10, 1, 0, 0, 0, "Invalid src format: 10" UNKNOWN "|11" UNKNOWN "|12" UNKNOWN "|13(?\?\n"},
        {by_scan, KEL_VAR | KEL_RLE, 1, 0, 8, 0, "Invalid src format: rle|var" + exclusive},
        {by_scan, KEL_VAR | KEL_BITS, 0, 0, 8, 0, "Invalid src format: bits|var" + var_bits},
        {by_scan, KEL_ADD_ONE | KEL_ZIP, 1, 0, 0, 0, no_aux},
        // The aux stream.
        {by_scan, KEL_RLE, 1, 0, 0, 0, "Invalid src aux_width 0" + aux_widths},
        {by_scan, KEL_VAR, 0, 0, 3, 0, "Invalid src aux_width 3" + aux_widths},
        {by_scan, KEL_RLE, 1, 0, 16, 0, "Invalid src aux_width 16" + aux_widths},
        {by_scan, KEL_RLE, 1, 0, 8, 8, "Invalid src aux_offset 8; must be < 8\n"},
        // All that goes together.
        {by_scan, 23 | 1 << 11, 129, 3, 6, 200,
         "Invalid src offset 3" + wide +
             "Invalid src elem_width 129 bits; {limits}\nInvalid src format: 11" UNKNOWN
             "\nInvalid src format: bits|rle|var|add1" +
             exclusive + "Invalid src format: bits|rle|var|add1" + var_bits + "Invalid src aux_width 6" + aux_widths +
             "Invalid src aux_offset 200; must be < 8\n"},
        {by_translate, KEL_ZIP | KEL_ADD_ONE | KEL_BITS, 0, 9, 6, 9,
         "Invalid src offset 9; must be < 8\nInvalid src elem_width 0 bits; {limits}\nInvalid src format: zip\n" +
             no_aux},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::Message() << "row " << &row - rows);
        const kel_vec_t vec = vec_of(row.format, row.width, row.offset, at(0x1001), row.aux_width, row.aux_offset);
        expect_lines(row.lines, [&](kel_context_t *ctx, uint32_t version, int log) {
            return src_valid(ctx, &vec, row.by.add, row.by.remove, "src", version, log);
        });
    }
}

// The one difference between the versions, and the name of another role.
TEST(valid, src_bits_by_version)
{
    for (const uint32_t width : {17u, 23u}) {
        const kel_vec_t vec = vec_of(KEL_BITS, width, 0, nullptr);
        test_context ctx;
        EXPECT_EQ(src_valid(ctx, &vec, 0, KEL_RLE, "mask", 2, 1), 1);
        EXPECT_EQ(src_valid(ctx, &vec, 0, KEL_RLE, "mask", 1, 1), 0);
        EXPECT_EQ(lines_of(ctx),
                  "Invalid mask elem_width " + std::to_string(width) + " bits; must be 1-16 bits or 1-16 bytes\n");
    }
}

TEST(valid, dst)
{
    const std::string widths = "; must be 1, 2, 4, 8, or 16 bytes\n";
    const std::string aux_widths = " bits; must be 8, 16 or 32 bits\n";
    const std::string no_var = "Invalid dst format: KEL_ADD_ONE; only allowed with dst format KEL_VAR\n";
    constexpr caller none = {0, 0}, var = {KEL_VAR, 0}, var_add_one = {KEL_VAR | KEL_ADD_ONE, 0};
    const struct {
        caller by;
        uint64_t format;
        uint32_t width;
        unsigned offset, misaligned, aux_width;
        std::string lines = {};
    } rows[] = {
        {none, KEL_BYTES, 1, 0, 0, 3},
        {none, KEL_BYTES, 16, 0, 0, 0},
        {none, KEL_BITS, 8, 0, 0, 0},
        {none, KEL_BITS, 128, 0, 0, 0},
        {var, KEL_VAR, 4, 0, 0, 8},
        {var_add_one, KEL_VAR | KEL_ADD_ONE, 4, 0, 0, 32},
        {none, KEL_BYTES, 4, 1, 0, 0, "Invalid dst offset 1; must be 0\n"},
        {none, KEL_BYTES, 4, 0, 63, 0, "Invalid dst alignment 63; must be 64\n"},
        {none, KEL_BYTES, 0, 0, 0, 0, "Invalid dst elem_width 0 bytes" + widths},
        {none, KEL_BYTES, 3, 0, 0, 0, "Invalid dst elem_width 3 bytes" + widths},
        {none, KEL_BYTES, 32, 0, 0, 0, "Invalid dst elem_width 32 bytes" + widths},
        {none, KEL_BYTES, 0x20000001, 0, 0, 0, "Invalid dst elem_width 536870913 bytes" + widths},
        {none, KEL_BITS, 4, 0, 0, 0, "Invalid dst elem_width 4 bits" + widths},
        {none, KEL_BITS, 24, 0, 0, 0, "Invalid dst elem_width 24 bits" + widths},
        {none, KEL_RLE | KEL_BITS, 8, 0, 0, 0, "Invalid dst format: bits|rle\n"},
        {none, KEL_VAR | KEL_ADD_ONE, 1, 0, 0, 0, "Invalid dst format: var|add1\n"},
        {var, KEL_VAR | KEL_ADD_ONE, 1, 0, 0, 8, "Invalid dst format: var|add1\n"},
        {{KEL_VAR, KEL_VAR}, KEL_VAR, 1, 0, 0, 1, "Invalid dst format: var\n"},
        {var, KEL_VAR, 1, 0, 0, 4, "Invalid dst aux_width 4" + aux_widths},
        {var_add_one, KEL_ADD_ONE, 1, 0, 0, 0, no_var},
        {var_add_one, 26, 5, 255, 1, 64,
         "Invalid dst offset 255; must be 0\nInvalid dst alignment 1; must be 64\nInvalid dst elem_width 5 bytes" +
             widths + "Invalid dst format: var|zip|add1\nInvalid dst aux_width 64" + aux_widths},
        {var_add_one, 25, 7, 1, 32, 64,
         "Invalid dst offset 1; must be 0\nInvalid dst alignment 32; must be 64\nInvalid dst elem_width 7 bits" +
             widths + "Invalid dst format: bits|zip|add1\n" + no_var},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::Message() << "row " << &row - rows);
        const kel_vec_t vec = vec_of(row.format, row.width, row.offset, at(0x1000 + row.misaligned), row.aux_width, 9);
        expect_lines(row.lines, [&](kel_context_t *ctx, uint32_t version, int log) {
            return dst_valid(ctx, &vec, row.by.add, row.by.remove, version, log);
        });
    }
}

TEST(valid, dst_ones)
{
    const std::string index_widths = "; must be 2 or 4 bytes for KEL_ONES_INDEX\n";
    const struct {
        uint64_t flags, format;
        uint32_t width;
        unsigned offset, misaligned;
        std::string lines = {};
    } rows[] = {
        {0, KEL_BITS, 1, 0, 0},
        {1, KEL_BYTES, 2, 0, 0},
        {3, KEL_BYTES, 4, 0, 0},
        {1, KEL_BITS, 16, 0, 0},
        {1, KEL_BITS, 32, 0, 0},
        {2, KEL_BYTES, 1, 0, 0, "Invalid dst elem_width 1 bytes; must be 1 bit\n"},
        {0, KEL_BITS, 16, 0, 0, "Invalid dst elem_width 16 bits; must be 1 bit\n"},
        {1, KEL_BYTES, 1, 0, 0, "Invalid dst elem_width 1 bytes" + index_widths},
        {1, KEL_BYTES, 8, 0, 0, "Invalid dst elem_width 8 bytes" + index_widths},
        {1, KEL_BITS, 1, 0, 0, "Invalid dst elem_width 1 bits" + index_widths},
        {0, KEL_BITS, 1, 7, 0, "Invalid dst offset 7; must be 0\n"},
        {0, KEL_BITS, 1, 0, 32, "Invalid dst alignment 32; must be 64\n"},
        {0, KEL_BITS | KEL_VAR, 1, 0, 0, "Invalid dst format: bits|var\n"},
        {1, KEL_ADD_ONE | KEL_RLE, 3, 1, 1,
         "Invalid dst offset 1; must be 0\nInvalid dst alignment 1; must be 64\nInvalid dst elem_width 3 bytes" +
             index_widths + "Invalid dst format: rle|add1\n"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::Message() << "row " << &row - rows);
        const kel_vec_t vec = vec_of(row.format, row.width, row.offset, at(0x1000 + row.misaligned));
        expect_lines(row.lines, [&](kel_context_t *ctx, uint32_t version, int log) {
            return dst_ones_valid(ctx, row.flags, &vec, version, log);
        });
    }
}

// The masks of all operations, bit by bit; version 2 adds the pipe flags. The text is cut at 39 characters.
TEST(valid, flags)
{
    const struct {
        uint64_t add, remove, mask;
    } rows[] = {{0, 34, 192}, {1, 0, 227}, {4, 0, 230}, {9, 0, 235}, {24, 32, 218}, {0, 0, 226}};
    test_context ctx;
    for (const auto &row : rows)
        for (const unsigned version : {1u, 2u})
            for (unsigned bit = 0; bit < 64; bit++)
                EXPECT_EQ(flags_valid(ctx, UINT64_C(1) << bit, row.add, row.remove, version, 0),
                          (row.mask | (version == 2 ? 1792 : 0)) >> bit & 1);
    expect_lines("Invalid flags pad|invert|invert_src|11" UNKNOWN "|12" UNKNOWN "|1\n",
                 [](kel_context_t *context, uint32_t version, int log) {
                     return flags_valid(context, 28 | 7 << 11 | KEL_CACHE, 0, 0, version, log);
                 });
}

// Only the low four bits of an aux element count.
TEST(valid, aux_elements)
{
    uint8_t aux[8] = {1, 0x20, 0xff, 0};
    kel_vec_t vec = {KEL_RLE, 3, nullptr, 1, 0, 0, 8, aux, nullptr, 0};
    for (const uint32_t version : {1u, 2u}) {
        test_context ctx(version);
        vec.elements = 1;
        EXPECT_EQ(aux_elem_valid(ctx, &vec), 1);
        vec.elements = 3;
        EXPECT_EQ(aux_elem_valid(ctx, &vec), 0);
        EXPECT_EQ(lines_of(ctx), "EDATAFMT: aux_data element at index 1 is 0\n");
        EXPECT_EQ(kel_debug_calls, 1u);
    }
}

// ---- Overlaps -------------------------------------------------------------------------------------------------------

TEST(overlap, vectors)
{
    const struct {
        uint64_t format, elements;
        uint32_t width;
        uint8_t offset;
        uintptr_t higher;
        uint64_t higher_elements;
        int overlap, swapped;
    } rows[] = {
        {KEL_BYTES, 4, 2, 0, 0x107, 9, 1, 1}, {KEL_BYTES, 4, 2, 0, 0x108, 9, 0, 0},
        {KEL_BYTES, 4, 2, 0, 0x107, 0, 1, 1}, {KEL_BITS, 8, 1, 0, 0x101, 8, 0, 0},
        {KEL_BITS, 8, 1, 1, 0x101, 8, 1, 1},  {KEL_BYTES, 0, 2, 0, 0x101, 8, 0, 0},
        {KEL_BYTES, 1, 1, 0, 0x100, 0, 1, 0}, // at equal addresses the first one's length decides
        {KEL_ZIP, 9, 2, 0, 0x100, 9, 0, 0},
    };
    for (const auto &row : rows) {
        const kel_vec_t low = {row.format, row.elements, at(0x100), row.width, row.offset, 0, 0, nullptr, nullptr, 0};
        const kel_vec_t high = {0, row.higher_elements, at(row.higher), 1, 0, 0, 0, nullptr, nullptr, 0};
        EXPECT_EQ(vec_overlap(&low, &high), row.overlap) << "row " << &row - rows;
        EXPECT_EQ(vec_overlap(&high, &low), row.swapped) << "row " << &row - rows;
    }
}

// A destination of sixteen bytes; an aux stream of four, of which a bit of offset makes five.
TEST(overlap, aux_streams_and_addresses)
{
    const kel_vec_t dst = {KEL_BYTES, 8, at(0x100), 2, 0, 0, 0, nullptr, nullptr, 0};
    const struct {
        uint64_t format, elements;
        uintptr_t aux;
        uint8_t offset;
        int overlap;
    } rows[] = {
        {KEL_RLE, 8, 0x10f, 0, 1}, {KEL_VAR, 8, 0x110, 0, 0},
        {KEL_RLE, 8, 0x100, 0, 1}, {KEL_VAR, 8, 0xfd, 0, 1},
        {KEL_RLE, 8, 0xfc, 0, 0},  {KEL_RLE, 8, 0xfc, 1, 1},
        {KEL_ZIP, 8, 0x100, 0, 0}, {KEL_VAR | KEL_ZIP, 8, 0x100, 0, 1},
        {KEL_RLE, 0, 0x101, 0, 1}, {KEL_RLE, 0, 0x100, 0, 0}, // at equal addresses the aux stream's length decides
    };
    for (const auto &row : rows) {
        const kel_vec_t src = {row.format, row.elements, nullptr, 2, 0, row.offset, 4, at(row.aux), nullptr, 0};
        EXPECT_EQ(aux_overlap(&src, &dst), row.overlap) << "row " << &row - rows;
    }
    EXPECT_EQ(addr_overlap(at(0x100), at(0x10f), 16), 1);
    EXPECT_EQ(addr_overlap(at(0x10f), at(0x100), 16), 1);
    EXPECT_EQ(addr_overlap(at(0x110), at(0x100), 16), 0);
    EXPECT_EQ(addr_overlap(at(0x100), at(0x110), 16), 0);
    EXPECT_EQ(addr_overlap(at(0x100), at(0x100), 0), 0);
}

// ---- The scans ------------------------------------------------------------------------------------------------------

namespace
{

// A request that is valid until a row spoils it.
struct request {
    alignas(64) uint8_t in[64] = {0, 7, 0, 8, 0, 7};
    alignas(64) uint8_t out[192] = {0x11, 0x11, 0x11, 0x11, 0x11};
    uint8_t aux[8] = {1, 1, 1, 1};
    kel_vec_t src = {KEL_BYTES, 4, in, 2, 0, 0, 8, aux, nullptr, 0};
    kel_vec_t dst = {KEL_BITS, 4, out, 1, 0, 0, 0, nullptr, nullptr, 0};
    kel_int_t val = {KEL_BYTES, 2, {0, 0, 7}};
    kel_int_t upper = {KEL_BYTES, 2, {0, 0, 9}};
    uint64_t flags = 0;
    int op = -1; // -1 for an operator that fits

    kel_result_t run(kel_context_t *ctx, bool range) const
    {
        const auto given = static_cast<kel_compare_t>(op >= 0 ? op : range ? KEL_GE_AND_LE : KEL_EQ);
        return range ? kel_scan_range(ctx, flags, &src, &dst, given, &val, &upper)
                     : kel_scan_value(ctx, flags, &src, &dst, given, &val);
    }

    void set_aux(uint64_t format, uint16_t width, std::initializer_list<uint8_t> bytes)
    {
        src.format = format;
        src.aux_width = width;
        std::copy(bytes.begin(), bytes.end(), aux);
    }
};

// The lines of a value scan and of a range scan are one text: "{val}" is "val" or "lower", the line that starts with
// "{range}" is one of a range scan only, and "{thread}" is the owner's line if the owner is another thread.
struct scan_row {
    uint32_t debug;
    void (*spoil)(request &);
    std::string lines = {};
};

#define WITH(...) [](request &r) { __VA_ARGS__; }

constexpr pthread_t other_thread = 0x1234;

void drop_lines(std::string &text, const std::string &mark)
{
    for (size_t place; (place = text.find(mark)) != std::string::npos;)
        text.erase(place, text.find('\n', place) + 1 - place);
}

std::string expected_lines(std::string text, uint32_t version, bool range, bool foreign)
{
    const std::string caller = std::to_string(static_cast<int>(pthread_self()));
    if (!range)
        drop_lines(text, "{range}");
    if (!foreign)
        drop_lines(text, "{thread}");
    replace(text, "{range}", "");
    replace(text, "{thread}", "Wrong thread " + caller + " using context; owner is 4660");
    replace(text, "{val}", range ? "lower" : "val");
    return of_version(text, version);
}

// Status, lines, hooks, and a destination that nobody wrote to; with error logging off the same without the lines.
void expect_scan(const scan_row &row, uint32_t version, bool range, bool foreign)
{
    const std::string lines = expected_lines(row.lines, version, range, foreign);
    size_t reports = 0;
    for (const uint32_t level : {KEL_LOG_ERROR, 0u}) {
        request spoiled;
        row.spoil(spoiled);
        const std::vector<uint8_t> before(spoiled.out, std::end(spoiled.out));
        test_context ctx(version, row.debug, level);
        ctx->thread->tid = foreign ? other_thread : pthread_self();
        const kel_result_t result = spoiled.run(ctx, range);
        ctx->thread->tid = pthread_self();
        EXPECT_EQ(result.status, lines.empty() ? KEL_SUCCESS : foreign ? KEL_ETHREAD : KEL_EINVAL);
        EXPECT_EQ(result.reserved, 0u);
        EXPECT_EQ(lines_of(ctx), level ? lines : "");
        reports = level ? ctx.lines.size() : reports;
        EXPECT_EQ(kel_debug_calls, reports);
        if (!lines.empty()) {
            EXPECT_EQ(result.count, 0u);
            EXPECT_EQ(before, std::vector<uint8_t>(spoiled.out, std::end(spoiled.out)));
        }
    }
}

template <size_t n>
void expect_scans(const scan_row (&rows)[n], bool foreign)
{
    for (const scan_row &row : rows)
        for (const bool range : {false, true})
            for (const uint32_t version : {1u, 2u}) {
                SCOPED_TRACE(testing::Message() << "row " << &row - rows << ", range " << range);
                expect_scan(row, version, range, foreign);
            }
}

} // namespace

#define SYNC_LINE "Synchronization flags must not be set for non-post functions: flags = "

TEST(scan, plain_faults)
{
    const scan_row rows[] = {
        {1, WITH(r.dst.elements = 5), "{thread}\n"},
        {1, WITH(r.dst.elements = 3), "{thread}\ndst elements 3 is less than src elements 4\n"},
        {1, WITH(r.op = 4), "{thread}\nInvalid op 4" UNKNOWN "\n"},
        {1, WITH(r.flags = KEL_PAD | KEL_INVERT), "{thread}\nInvalid flags pad|invert\n"},
        {1, WITH(r.flags = KEL_COND | KEL_CACHE), "{thread}\n" SYNC_LINE "cond\n\n"},
        {1, WITH(r.val.format = KEL_VAR | KEL_BITS),
         "{thread}\nInvalid {val} format: var; must be KEL_BITS or KEL_BYTES\n"},
        {1, WITH(r.val.format = 1 << 5),
         "{thread}\nInvalid {val} format: 5" UNKNOWN "; must be KEL_BITS or KEL_BYTES\n"},
        {1, WITH(r.val.elem_width = 0), "{thread}\nInvalid {val} elem_width 0 bytes; {limits}\n"},
        {1, WITH(r.val.elem_width = 17), "{thread}\nInvalid {val} elem_width 17 bytes; {limits}\n"},
        {1, WITH(r.val.elem_width = 0x20000001), "{thread}\nInvalid {val} elem_width 536870913 bytes; {limits}\n"},
        {1, WITH(r.val = {KEL_BITS, 25, {}}), "{thread}\nInvalid {val} elem_width 25 bits; {limits}\n"},
        {1, WITH(r.upper = {KEL_BITS, 0, {}}), "{thread}\n{range}Invalid upper elem_width 0 bits; {limits}\n"},
        // All of it: source, destination, thread, operator, count, flags, upper value, value; and the data unseen.
        {3,
         WITH(r.src = {KEL_VAR | KEL_BITS, 4, r.out, 129, 1, 0, 8, r.out, nullptr, 0};
              r.dst = {KEL_ZIP, 3, r.out + 1, 1, 2, 0, 0, nullptr, nullptr, 0}; r.op = 6;
              r.flags = KEL_PAD | KEL_SERIAL; r.val = {KEL_RLE | KEL_BITS, 0, {1, 1, 1}};
              r.upper = {KEL_ADD_ONE, 32, {1, 1, 1}}),
         "Invalid src offset 1; must be 0 if elem_width >= 8 bytes\nInvalid src elem_width 129 bits; {limits}\n"
         "Invalid src format: bits|var; cannot set both var and bits\nInvalid dst offset 2; must be 0\n"
         "Invalid dst alignment 1; must be 64\nInvalid dst elem_width 1 bytes; must be 1 bit\n"
         "Invalid dst format: zip\n{thread}\nInvalid op 6" UNKNOWN "\ndst elements 3 is less than src elements 4\n"
         "Invalid flags pad\n" SYNC_LINE "serial\n\n"
         "{range}Invalid upper format: add1; must be KEL_BITS or KEL_BYTES\n"
         "{range}Invalid upper elem_width 32 bytes; {limits}\n"
         "Invalid {val} format: rle; must be KEL_BITS or KEL_BYTES\nInvalid {val} elem_width 0 bits; {limits}\n"},
    };
    expect_scans(rows, false);
    expect_scans(rows, true);
}

#define DATA_OVERLAP "Invalid src or dst: src data and dst data overlap\n"
#define AUX_OVERLAP "Invalid src or dst: src aux_data and dst data overlap\n"
#define HIGH_BITS "; high 4 bits are non-zero. They must be 0 for variable-width elements with aux_width = 8 bits.\n"

// Where a row is to show that something is no fault, an overlap keeps the request from its kernel.
TEST(scan, faults_in_the_data)
{
    const scan_row rows[] = {
        // Runs: the sum against the room.
        {3, WITH(r.set_aux(KEL_RLE, 8, {1, 1, 1, 1}))},
        {3, WITH(r.set_aux(KEL_RLE, 8, {1, 1, 1, 2})), "Invalid src: sum of aux_data runs (5) > dst elements (4)\n"},
        {2, WITH(r.set_aux(KEL_RLE | KEL_ADD_ONE, 4, {0x10, 0})),
         "Invalid src: sum of aux_data runs (5) > dst elements (4)\n"},
        {3, WITH(r.set_aux(KEL_RLE, 1, {0x0f})), "Invalid src aux_data: total length is 0\n"},
        {2, WITH(r.set_aux(KEL_RLE, 16, {9, 9}); r.src.data = r.out), DATA_OVERLAP},
        // Lengths: the low four bits of eight.
        {3, WITH(r.set_aux(KEL_VAR, 8, {1, 15, 16, 255})), "Invalid src aux_data element at index 2" HIGH_BITS},
        {2, WITH(r.set_aux(KEL_VAR, 4, {0xff, 0xff}); r.src.data = r.out), DATA_OVERLAP},
        // Overlaps.
        {3, WITH(r.src.data = r.out), DATA_OVERLAP},
        {3, WITH(r.set_aux(KEL_RLE, 1, {}); r.out[0] = 0xf0; r.src.aux_data = r.out), AUX_OVERLAP},
        // Values: the bits above their whole bytes, in the word of the top byte.
        {3, WITH(r.val = {KEL_BYTES, 8, {1, 1, UINT64_MAX}})},
        {3, WITH(r.val = {KEL_BYTES, 16, {1, UINT64_MAX, 1}})},
        {3, WITH(r.val = {KEL_BITS, 12, {1, 1, 0xffff}})},
        {3, WITH(r.val = {KEL_BITS, 12, {0, 0, 0x10000}}),
         "Invalid {val}->dword[2]: bytes above elem_width 12 bits are non-zero\n"},
        {3, WITH(r.val = {KEL_BYTES, 3, {0, 0, UINT64_C(1) << 63}}),
         "Invalid {val}->dword[2]: bytes above elem_width 3 bytes are non-zero\n"},
        {3, WITH(r.val = {KEL_BYTES, 9, {0, 0x100, 0}}),
         "Invalid {val}->dword[1]: bytes above elem_width 9 bytes are non-zero\n"},
        {3, WITH(r.upper = {KEL_BITS, 120, {0, UINT64_C(1) << 56, 0}}),
         "{range}Invalid upper->dword[1]: bytes above elem_width 120 bits are non-zero\n"},
        {2, WITH(r.val = {KEL_BYTES, 17, {0x100, 0, 0}}),
         "Invalid {val}->dword[0]: bytes above elem_width 17 bytes are non-zero\n"},
        {2, WITH(r.src.data = r.out; r.val = {1, 193, {UINT64_MAX, 1, 1}}; r.upper = {1, 0, {1, 1, 1}}), DATA_OVERLAP},
        // A plain fault keeps the data from being looked at, and without KEL_DEBUG_ARG it is not seen.
        {3, WITH(r.src.data = r.out; r.flags = KEL_PAD), "Invalid flags pad\n"},
        {2, WITH(r.src.data = r.out; r.flags = KEL_PAD), DATA_OVERLAP},
        // All of it; a run and a length of 17.
        {2,
         WITH(r.src = {KEL_RLE | KEL_VAR, 4, r.out, 2, 0, 0, 8, r.out, nullptr, 0};
              r.val.dword[2] = r.upper.dword[2] = 0x10000),
         "Invalid src: sum of aux_data runs (68) > dst elements (4)\n"
         "Invalid src aux_data element at index 0" HIGH_BITS DATA_OVERLAP AUX_OVERLAP
         "Invalid {val}->dword[2]: bytes above elem_width 2 bytes are non-zero\n"
         "{range}Invalid upper->dword[2]: bytes above elem_width 2 bytes are non-zero\n"},
    };
    expect_scans(rows, false);
}

// An index list and the hints are accepted; pipe flags are refused, by each version in its own words.
TEST(scan, flags)
{
    for (const bool range : {false, true})
        for (const uint32_t version : {1u, 2u}) {
            test_context ctx(version);
            request r;
            r.dst = {KEL_BYTES, 4, r.out, 2, 0, 0, 0, nullptr, nullptr, 0};
            r.flags = KEL_ONES_INDEX | KEL_CACHE | KEL_NOWAIT;
            EXPECT_EQ(r.run(ctx, range).status, KEL_SUCCESS);
            r.flags |= KEL_PIPE_AUX;
            EXPECT_EQ(r.run(ctx, range).status, KEL_EINVAL);
            EXPECT_EQ(lines_of(ctx), version == 2 ? SYNC_LINE "pipe_aux\n\n" : "Invalid flags \n");
        }
}

// An operator is looked up modulo 32. The flag makes every call fail, so that none reaches a kernel.
TEST(scan, operators)
{
    for (const bool range : {false, true})
        for (int op = 0; op < 64; op++) {
            test_context ctx;
            request r;
            r.op = op;
            r.flags = KEL_PAD;
            EXPECT_EQ(r.run(ctx, range).status, KEL_EINVAL);
            const bool known = (range ? 0xaaaf0000 : 175) >> op % 32 & 1;
            const std::string word = scan_op_str(ctx, static_cast<kel_compare_t>(op), nullptr, 0);
            EXPECT_EQ(lines_of(ctx), (known ? "" : "Invalid op " + word + "\n") + "Invalid flags pad\n");
        }
}

// Any debug option arms the tests.
TEST(int_create, faults)
{
    for (const auto &[len, line] :
         {std::pair{size_t{0}, "Invalid len 0\n"}, {17, "Invalid len 17\n"}, {SIZE_MAX, "Invalid len -1\n"}, {16, ""}})
        for (const bool foreign : {false, true}) {
            test_context ctx(1, KEL_DEBUG_SYNC);
            ctx->thread->tid = foreign ? other_thread : pthread_self();
            const std::string lines = line + expected_lines("{thread}\n", 1, false, foreign);
            const uint8_t bytes[16] = {};
            kel_int_t val = {9, 9, {9, 9, 9}};
            const kel_status_t status = kel_int_create(ctx, bytes, len, &val);
            ctx->thread->tid = pthread_self();
            EXPECT_EQ(status, lines.empty() ? KEL_SUCCESS : foreign ? KEL_ETHREAD : KEL_EINVAL);
            EXPECT_EQ(lines_of(ctx), lines);
            EXPECT_EQ(kel_debug_calls, ctx.lines.size());
            EXPECT_EQ(val.elem_width, lines.empty() ? 16u : 9u);
            EXPECT_EQ(val.dword[2], lines.empty() ? 0u : 9u);
        }
}
