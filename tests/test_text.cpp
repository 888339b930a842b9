// The words and lists that log lines show: every text in full, and cut to every smaller buffer.
#include "kel_text.h"
#include "support.h"
#include <functional>
#include <gtest/gtest.h>

#define UNKNOWN "(?\?\?)"

namespace
{

// A text, and the call that writes it into a buffer of the given size.
struct written {
    std::string text;
    std::function<char *(char *, int)> write;
};

#define WRITES(call) [=](char *to, int size) { return call; }

// A writer fills its buffer with as much of the text as fits, and leaves alone what lies behind.
void expect_texts(const std::vector<written> &rows)
{
    for (const auto &[text, write] : rows) {
        SCOPED_TRACE(text);
        for (size_t size = 0; size <= text.size() + 3; size++) {
            std::string buffer(text.size() + 300, '#');
            EXPECT_EQ(write(buffer.data(), static_cast<int>(size)), buffer.data());
            EXPECT_STREQ(size ? buffer.c_str() : "", text.substr(0, size ? size - 1 : 0).c_str());
            EXPECT_EQ(buffer.find_first_not_of('#', size), std::string::npos) << "size " << size;
        }
        char room[kel_args_text_size];
        EXPECT_STREQ(write(room, sizeof room), text.c_str());
    }
}

} // namespace

TEST(text, words)
{
    std::string statuses, levels, operators;
    for (int n = 1; n >= -36; n -= n == -19 ? 10 : 1)
        statuses += kel_status_str(n) + std::string(" ");
    EXPECT_EQ(statuses + kel_status_str(INT32_MIN),
              "1" UNKNOWN " SUCCESS EINTERNAL EINVAL EPARSE EDATAFMT EOVERFLOW ENOMEM EADI ETHREAD EBUSY ENOACCESS "
              "EBADVER ENODEV ECANCEL EQEMPTY EQFULL ESERIAL ENOMATCH EZIP 1844674407370955159 1844674407370955158 "
              "EAGAIN ENOMAP EUNAVAILABLE ETIMEOUT EPARTIAL EPAGEOVERFLOW 1844674407370955158 1844674407156206796");
    for (const uint32_t level : {1u, 2u, 4u, 8u, 16u, 32u, 0u, 3u, 64u})
        levels += log_str(level) + std::string(" ");
    EXPECT_EQ(levels, "ERROR ENTRY RETURN VERBOSE WARNING PERF LOG_UNKNOWN LOG_UNKNOWN LOG_UNKNOWN ");
    for (int op = 0; op <= 32; op += op == 7 ? 8 : 1)
        operators += scan_op_str(nullptr, static_cast<kel_compare_t>(op), nullptr, 0) + std::string(" ");
    EXPECT_EQ(
        operators,
        "EQ GE NE LT 4(?\?\?) LE 6(?\?\?) GT 15(?\?\?) EQ_OR_EQ GE_AND_LE NE_AND_NE LT_OR_GT 20(?\?\?) GE_AND_LT "
        "22(?\?\?) LT_OR_GE 24(?\?\?) GT_AND_LE 26(?\?\?) LE_OR_GT 28(?\?\?) GT_AND_LT 30(?\?\?) LE_OR_GE 32(?\?\?) ");
    for (const auto &[format, word] : {std::pair{0u, "bytes"}, {1u, "bits"}, {2u, "2" UNKNOWN}})
        EXPECT_STREQ(bit_byte_fmt_str(format), word);

    // An unknown value is cut at 19 characters, and keeps its text when another one follows.
    const char *const first = badval(99999999999999), *const second = badval(999999999999999);
    EXPECT_STREQ(first, "99999999999999" UNKNOWN);
    EXPECT_STREQ(second, "999999999999999(?\?\?");
}

TEST(text, flags)
{
    const struct {
        uint64_t flags;
        const char *version_1, *version_2;
    } rows[] = {
        {0, "none", "none"},
        {0x0f, "ones|cache|pad|invert", "ones|cache|pad|invert"},
        {0x33, "ones|cache|invert_src|nowait", "ones|cache|invert_src|nowait"},
        {0x55, "ones|pad|invert_src|cond", "ones|pad|invert_src|cond"},
        {0xe0, "cond|serial|nowait", "cond|serial|nowait"},
        {1 << 8, "", "pipe_src|pipe_mask"},
        {1 << 9, "", "pipe_aux"},
        {1 << 10, "", "pipe_mask"},
        {0x720, "nowait", "nowait|pipe_src|pipe_aux|pipe_mask"},
        {1 << 11 | 1 << 9, "11" UNKNOWN, "pipe_aux|11" UNKNOWN},
        {UINT64_C(1) << 63 | 1 << 12 | 1, "ones|12" UNKNOWN "|63" UNKNOWN, "ones|12" UNKNOWN "|63" UNKNOWN},
    };
    test_context first(1), second(2);
    for (const auto &row : rows)
        for (kel_context_t *ctx : {first.ctx, second.ctx})
            expect_texts({{ctx == first ? row.version_1 : row.version_2, WRITES(flags_str(ctx, row.flags, to, size))}});
}

TEST(text, formats)
{
    const std::pair<uint64_t, const char *> rows[] = {
        {0, "bytes"},
        {3, "bits|var"},
        {6, "rle|var"},
        {21, "bits|rle|add1"},
        {31, "bits|rle|var|zip|add1"},
        {1 << 10, "10" UNKNOWN},
        {UINT64_C(1) << 63 | 1 << 10 | 8, "zip|10" UNKNOWN "|63" UNKNOWN},
        // A number of one digit is a character short of its place, and its end is that of the visible text.
        {1 << 5, "5" UNKNOWN},
        {1 << 6 | 1 << 7 | 1, "bits|6" UNKNOWN},
    };
    for (const auto &row : rows)
        expect_texts({{row.second, WRITES(fmt_str(nullptr, row.first, to, size))}});

    char buffer[kel_fmt_text_size];
    fmt_str(nullptr, 1 << 5 | 1 << 10, buffer, sizeof buffer);
    EXPECT_STREQ(buffer + 7, "|10" UNKNOWN);
}

TEST(text, descriptors)
{
    const auto vec = [](uint64_t format) {
        return kel_vec_t{format, 5, at(0x1000), 2, 0, 3, 4, at(0x2000), static_cast<kel_zip_t *>(at(0x3000)), 77};
    };
    const kel_vec_t bytes = vec(KEL_BYTES), var = vec(KEL_VAR), zip = vec(KEL_ZIP), all = vec(KEL_RLE | KEL_ZIP);
    // Numbers are signed; the first part is cut at 119 characters, of which the last two go with the final comma.
    const kel_vec_t wide = {
        UINT64_C(0x7f) << 10, UINT64_MAX, at(UINTPTR_MAX), UINT32_MAX, 255, 0, 0, nullptr, nullptr, 0};
    const std::string wide_text = "data=0xffffffffffffffff, elements=-1, width=-1, offset=255,\n      fmt=10" UNKNOWN
                                  "|11" UNKNOWN "|12" UNKNOWN "|13" UNKNOWN "|14" UNKNOWN "|15";
    const std::string start = "data=0x1000, elements=5, width=2, offset=0,", src = start + "\n      fmt=";
    const std::string aux = ",\n    aux_data=0x2000, aux_width=4, aux_offset=3";
    const std::string codec = ",\n    codec=0x3000, codewords=77";
    const kel_int_t whole = {KEL_BYTES, 16, {1, UINT64_MAX, 0xab}}, odd = {KEL_BITS | KEL_VAR, 12, {0, 0, 0x123}};
    expect_texts({
        {src + "bytes", WRITES(src_vec_str(nullptr, &bytes, to, size))},
        {src + "var" + aux, WRITES(src_vec_str(nullptr, &var, to, size))},
        {src + "zip" + codec, WRITES(src_vec_str(nullptr, &zip, to, size))},
        {src + "rle|zip" + aux + codec, WRITES(src_vec_str(nullptr, &all, to, size))},
        {wide_text + UNKNOWN, WRITES(src_vec_str(nullptr, &wide, to, size))},
        {"{ " + start + " fmt=rle|zip }", WRITES(dst_vec_str(nullptr, &all, to, size))},
        {"{ " + start + " fmt=bytes }", WRITES(bv_args_str(nullptr, &bytes, to, size))},
        {"{ elem_width=16, fmt=bytes, dwords={0xffffffffffffffff, 0xab} }", WRITES(val_str(nullptr, &whole, to, size))},
        {"{ elem_width=12, fmt=bits, dwords={0x0, 0x123} }", WRITES(val_str(nullptr, &odd, to, size))},
    });
}

TEST(text, argument_lists)
{
    test_context context;
    kel_context_t *const ctx = context;
    const std::string start = "ctx=" + pointer_text(ctx) + ", flags=";
    const kel_vec_t src = {KEL_VAR, 5, at(0x1000), 2, 0, 3, 4, at(0x2000), nullptr, 0};
    const kel_vec_t dst = {KEL_BITS, 5, at(0x1000), 2, 0, 0, 0, nullptr, nullptr, 0};
    // A destination's text has 79 characters here, and longer ones are cut.
    const kel_vec_t long_dst = {KEL_BITS, 1000000000000000000, at(0x7fffffffffff), 1000, 0, 0, 0, nullptr, nullptr, 0};
    const std::string with_src = start + "ones|cache,\n  src = { data=0x1000, elements=5, width=2, offset=0,\n"
                                         "      fmt=var,\n    aux_data=0x2000, aux_width=4, aux_offset=3 }\n  dst = { ";
    expect_texts({
        {with_src + "{ data=0x1000, elements=5, width=2, offset=0, fmt=bits } }",
         WRITES(entry_args_str(ctx, 3, &src, &dst, to, size))},
        {with_src + "{ data=0x7fffffffffff, elements=1000000000000000000, width=1000, offset=0, fmt= }",
         WRITES(entry_args_str(ctx, 3, &src, &long_dst, to, size))},
        {start + "none, \n  src = 0x10, dst = 0x20, count = -1",
         WRITES(copy_args_str(ctx, 0, at(0x10), at(0x20), UINT64_MAX, to, size))},
        {start + "cond|nowait, \n  val = 18446744073709551615, val_width=4, dst = 0x20, count = 9",
         WRITES(fill_args_str(ctx, 96, UINT64_MAX, at(0x20), 9, 4, to, size))},
    });
}
