// The words and lists that log lines show: every text in full, and cut to every smaller buffer.
#include "kel_text.h"
#include "support.h"
#include <functional>
#include <gtest/gtest.h>

#define UNKNOWN "(?\?\?)"

namespace
{

using writer = std::function<char *(char *, int)>;

// A writer fills its buffer with as much of the text as fits, and leaves alone what lies behind.
void expect_text(const std::string &text, const writer &write)
{
    SCOPED_TRACE(text);
    for (size_t size = 0; size <= text.size() + 3; size++) {
        std::string buffer(text.size() + 300, '#');
        EXPECT_EQ(write(buffer.data(), static_cast<int>(size)), buffer.data());
        if (size > 0) {
            EXPECT_STREQ(buffer.c_str(), text.substr(0, size - 1).c_str()) << "size " << size;
        }
        EXPECT_EQ(buffer.find_first_not_of('#', size), std::string::npos) << "size " << size;
    }
    char room[kel_args_text_size];
    EXPECT_STREQ(write(room, sizeof room), text.c_str());
}

void *at(uintptr_t address)
{
    return reinterpret_cast<void *>(address);
}

std::string hex(const void *address)
{
    char text[24];
    snprintf(text, sizeof text, "0x%lx", reinterpret_cast<unsigned long>(address));
    return text;
}

const kel_vec_t plain = {KEL_BYTES, 5, at(0x1000), 2, 0, 3, 4, at(0x2000), static_cast<kel_zip_t *>(at(0x3000)), 77};

kel_vec_t formatted(uint64_t format)
{
    kel_vec_t vec = plain;
    vec.format = format;
    return vec;
}

} // namespace

TEST(text, statuses)
{
    const char *const words[] = {"SUCCESS", "EINTERNAL", "EINVAL",  "EPARSE",    "EDATAFMT", "EOVERFLOW", "ENOMEM",
                                 "EADI",    "ETHREAD",   "EBUSY",   "ENOACCESS", "EBADVER",  "ENODEV",    "ECANCEL",
                                 "EQEMPTY", "EQFULL",    "ESERIAL", "ENOMATCH",  "EZIP"};
    int number = 0;
    for (const char *word : words)
        EXPECT_STREQ(kel_status_str(number--), word);

    // Without a word: a negative one is the first 19 characters of the 64-bit number.
    const std::pair<int, const char *> rows[] = {
        {-30, "EAGAIN"},
        {-31, "ENOMAP"},
        {-32, "EUNAVAILABLE"},
        {-33, "ETIMEOUT"},
        {-34, "EPARTIAL"},
        {-35, "EPAGEOVERFLOW"},
        {-19, "1844674407370955159"},
        {-20, "1844674407370955159"},
        {-21, "1844674407370955159"},
        {-22, "1844674407370955159"},
        {-29, "1844674407370955158"},
        {-36, "1844674407370955158"},
        {INT32_MIN, "1844674407156206796"},
        {1, "1" UNKNOWN},
        {12, "12" UNKNOWN},
        {INT32_MAX, "2147483647" UNKNOWN},
    };
    for (const auto &[status, text] : rows)
        EXPECT_STREQ(kel_status_str(status), text) << status;
}

TEST(text, unknown_values_keep_their_texts)
{
    const char *first = badval(1);
    const char *second = badval(99999999999999);
    EXPECT_STREQ(first, "1" UNKNOWN);
    EXPECT_STREQ(second, "99999999999999" UNKNOWN);
    EXPECT_STREQ(badval(999999999999999), "999999999999999"
                                          "(?\?\?");
    EXPECT_STREQ(badval(UINT64_MAX), "1844674407370955161");
}

TEST(text, words)
{
    const std::pair<uint32_t, const char *> levels[] = {
        {1, "ERROR"}, {2, "ENTRY"},       {4, "RETURN"},      {8, "VERBOSE"},      {16, "WARNING"},
        {32, "PERF"}, {0, "LOG_UNKNOWN"}, {3, "LOG_UNKNOWN"}, {64, "LOG_UNKNOWN"}, {UINT32_MAX, "LOG_UNKNOWN"},
    };
    for (const auto &[level, word] : levels)
        EXPECT_STREQ(log_str(level), word) << level;

    const char *const operators[] = {
        "EQ",         "GE",         "NE",         "LT",         "4" UNKNOWN,  "LE",         "6" UNKNOWN,
        "GT",         "8" UNKNOWN,  "9" UNKNOWN,  "10" UNKNOWN, "11" UNKNOWN, "12" UNKNOWN, "13" UNKNOWN,
        "14" UNKNOWN, "15" UNKNOWN, "EQ_OR_EQ",   "GE_AND_LE",  "NE_AND_NE",  "LT_OR_GT",   "20" UNKNOWN,
        "GE_AND_LT",  "22" UNKNOWN, "LT_OR_GE",   "24" UNKNOWN, "GT_AND_LE",  "26" UNKNOWN, "LE_OR_GT",
        "28" UNKNOWN, "GT_AND_LT",  "30" UNKNOWN, "LE_OR_GE",   "32" UNKNOWN,
    };
    int op = 0;
    for (const char *word : operators)
        EXPECT_STREQ(scan_op_str(nullptr, static_cast<kel_compare_t>(op++), nullptr, 0), word);

    EXPECT_STREQ(bit_byte_fmt_str(0), "bytes");
    EXPECT_STREQ(bit_byte_fmt_str(1), "bits");
    EXPECT_STREQ(bit_byte_fmt_str(2), "2" UNKNOWN);
}

TEST(text, flags)
{
    const struct {
        uint64_t flags;
        const char *version_1;
        const char *version_2;
    } rows[] = {
        {0, "none", "none"},
        {1, "ones", "ones"},
        {2, "cache", "cache"},
        {4, "pad", "pad"},
        {8, "invert", "invert"},
        {16, "invert_src", "invert_src"},
        {192, "cond|serial", "cond|serial"},
        {32 | 64, "cond|nowait", "cond|nowait"},
        {255, "ones|cache|pad|invert|invert_src|cond|serial|nowait",
         "ones|cache|pad|invert|invert_src|cond|serial|nowait"},
        {256, "", "pipe_src|pipe_mask"},
        {512, "", "pipe_aux"},
        {1024, "", "pipe_mask"},
        {1280, "", "pipe_src|pipe_mask"},
        {1792 | 32, "nowait", "nowait|pipe_src|pipe_aux|pipe_mask"},
        {1 << 11, "11" UNKNOWN, "11" UNKNOWN},
        {1 << 11 | 512, "11" UNKNOWN, "pipe_aux|11" UNKNOWN},
        {UINT64_C(1) << 63 | 1 << 12 | 1, "ones|12" UNKNOWN "|63" UNKNOWN, "ones|12" UNKNOWN "|63" UNKNOWN},
    };
    test_context version_1(1);
    test_context version_2(2);
    for (const auto &row : rows) {
        expect_text(row.version_1, [&](char *to, int size) { return flags_str(version_1, row.flags, to, size); });
        expect_text(row.version_2, [&](char *to, int size) { return flags_str(version_2, row.flags, to, size); });
    }
}

TEST(text, formats)
{
    const std::pair<uint64_t, const char *> rows[] = {
        {0, "bytes"},
        {1, "bits"},
        {17, "bits|add1"},
        {2 | 16, "var|add1"},
        {31, "bits|rle|var|zip|add1"},
        {1 << 10, "10" UNKNOWN},
        {UINT64_C(1) << 63 | 1 << 10 | 8, "zip|10" UNKNOWN "|63" UNKNOWN},
        // A number of one digit is a character short of its place, and its end is that of the visible text.
        {1 << 5, "5" UNKNOWN},
        {1 << 6 | 1 << 7 | 1, "bits|6" UNKNOWN},
        {1 << 9 | 1 << 10, "9" UNKNOWN},
    };
    for (const auto &[format, text] : rows)
        expect_text(text, [format = format](char *to, int size) { return fmt_str(nullptr, format, to, size); });

    char buffer[kel_fmt_text_size];
    fmt_str(nullptr, 1 << 5 | 1 << 10, buffer, sizeof buffer);
    EXPECT_STREQ(buffer + 7, "|10" UNKNOWN);
}

TEST(text, source_vectors)
{
    const std::string start = "data=0x1000, elements=5, width=2, offset=0,\n      fmt=";
    const std::string aux = ",\n    aux_data=0x2000, aux_width=4, aux_offset=3";
    const std::string zip = ",\n    codec=0x3000, codewords=77";
    const std::pair<uint64_t, std::string> rows[] = {
        {KEL_BYTES, start + "bytes"},   {KEL_BITS, start + "bits"},
        {KEL_VAR, start + "var" + aux}, {KEL_RLE | KEL_ADD_ONE, start + "rle|add1" + aux},
        {KEL_ZIP, start + "zip" + zip}, {KEL_BITS | KEL_RLE | KEL_ZIP, start + "bits|rle|zip" + aux + zip},
    };
    for (const auto &row : rows) {
        const kel_vec_t vec = formatted(row.first);
        expect_text(row.second, [&](char *to, int size) { return src_vec_str(nullptr, &vec, to, size); });
    }

    // Numbers are signed, and the first part is cut at 119 characters, of which the last two go with the final comma.
    const kel_vec_t wide = {
        UINT64_C(0x7f) << 10, UINT64_MAX, at(UINTPTR_MAX), UINT32_MAX, 255, 0, 0, nullptr, nullptr, 0};
    const std::string all = "data=0xffffffffffffffff, elements=-1, width=-1, offset=255,\n      fmt=10" UNKNOWN
                            "|11" UNKNOWN "|12" UNKNOWN "|13" UNKNOWN "|14" UNKNOWN "|15" UNKNOWN "|16" UNKNOWN ",\n";
    ASSERT_GT(all.size(), 119u);
    expect_text(all.substr(0, 117), [&](char *to, int size) { return src_vec_str(nullptr, &wide, to, size); });
}

TEST(text, destinations_and_values)
{
    const kel_vec_t bits = formatted(KEL_BITS);
    const kel_vec_t runs = formatted(KEL_RLE | KEL_ZIP);
    const std::string start = "{ data=0x1000, elements=5, width=2, offset=0, fmt=";
    for (auto *write : {dst_vec_str, bv_args_str}) {
        expect_text(start + "bits }", [&](char *to, int size) { return write(nullptr, &bits, to, size); });
        expect_text(start + "rle|zip }", [&](char *to, int size) { return write(nullptr, &runs, to, size); });
    }

    test_context ctx;
    const kel_int_t bytes = {KEL_BYTES, 16, {1, UINT64_MAX, 0xab}};
    const kel_int_t odd = {KEL_BITS | KEL_VAR, 12, {0, 0, 0x123}};
    expect_text("{ elem_width=16, fmt=bytes, dwords={0xffffffffffffffff, 0xab} }",
                [&](char *to, int size) { return val_str(ctx, &bytes, to, size); });
    expect_text("{ elem_width=12, fmt=bits, dwords={0x0, 0x123} }",
                [&](char *to, int size) { return val_str(ctx, &odd, to, size); });
}

TEST(text, argument_lists)
{
    test_context ctx;
    const std::string start = "ctx=" + hex(ctx.ctx) + ", flags=";
    const kel_vec_t src = formatted(KEL_VAR);
    kel_vec_t dst = formatted(KEL_BITS);
    const std::string src_text = "src = { data=0x1000, elements=5, width=2, offset=0,\n      fmt=var,\n"
                                 "    aux_data=0x2000, aux_width=4, aux_offset=3 }\n  ";
    const auto entry = [&](char *to, int size) { return entry_args_str(ctx, 3, &src, &dst, to, size); };
    expect_text(start + "ones|cache,\n  " + src_text +
                    "dst = { { data=0x1000, elements=5, width=2, offset=0, fmt=bits } }",
                entry);

    // A destination's text has 79 characters here, and longer ones are cut.
    dst.elements = 1000000000000000000;
    dst.data = at(0x7fffffffffff);
    dst.elem_width = 1000;
    const std::string dst_text =
        "{ data=0x7fffffffffff, elements=1000000000000000000, width=1000, offset=0, fmt=bits }";
    expect_text(start + "ones|cache,\n  " + src_text + "dst = { " + dst_text.substr(0, 79) + " }", entry);

    expect_text(start + "none, \n  src = 0x10, dst = 0x20, count = -1",
                [&](char *to, int size) { return copy_args_str(ctx, 0, at(0x10), at(0x20), UINT64_MAX, to, size); });
    expect_text(start + "cond|nowait, \n  val = 18446744073709551615, val_width=4, dst = 0x20, count = 9",
                [&](char *to, int size) { return fill_args_str(ctx, 96, UINT64_MAX, at(0x20), 9, 4, to, size); });
}
