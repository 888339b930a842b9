// The road of a call and the road of a log line, watched on kel_nop and on the messages themselves.
#include "kel_frame.h"
#include "kel_log.h"
#include "support.h"
#include <cstdarg>
#include <gtest/gtest.h>
#include <stdio_ext.h>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>

namespace
{

using lines_t = std::vector<std::string>;

lines_t syslog_lines;

std::string prefix_of(const std::string &word)
{
    return "libkel " + word + ": tid=" + std::to_string(static_cast<int>(pthread_self())) + ": ";
}

std::string hex(const void *address)
{
    char text[24];
    snprintf(text, sizeof text, "0x%lx", reinterpret_cast<unsigned long>(address));
    return text;
}

void *at(uintptr_t address)
{
    return reinterpret_cast<void *>(address);
}

std::string wrong_thread(const kel_context_t *ctx, pthread_t caller)
{
    return "Wrong thread " + std::to_string(static_cast<int>(caller)) + " using context; owner is " +
           std::to_string(static_cast<int>(ctx->thread->tid));
}

// A file in memory, as a target of log lines.
class memory_file
{
  public:
    memory_file() : fd(memfd_create("log", 0)) {}
    ~memory_file()
    {
        close(fd);
    }
    memory_file(const memory_file &) = delete;

    std::string text() const
    {
        std::string content(static_cast<size_t>(lseek(fd, 0, SEEK_END)), '\0');
        EXPECT_EQ(pread(fd, content.data(), content.size(), 0), static_cast<ssize_t>(content.size()));
        return content;
    }

    const int fd;
};

void expect_result(const kel_result_t &result, kel_status_t status)
{
    EXPECT_EQ(result.status, status);
    EXPECT_EQ(result.reserved, 0u);
    EXPECT_EQ(result.count, 0u);
}

} // namespace

extern "C" void syslog(int priority, const char *format, ...)
{
    EXPECT_EQ(priority, 15);
    EXPECT_STREQ(format, "%s");
    va_list args;
    va_start(args, format);
    syslog_lines.emplace_back(va_arg(args, const char *));
    va_end(args);
}

// ---- kel_nop --------------------------------------------------------------------------------------------------------

struct nop_row {
    uint32_t version;
    uint64_t flags;
    lines_t lines; // what validation reports
};

static const std::string sync_line = "Synchronization flags must not be set for non-post functions: flags = ";

static const nop_row nop_rows[] = {
    {1, 0, {}},
    {2, 0, {}},
    {1, KEL_COND, {sync_line + "cond\n"}},
    {1, KEL_COND | KEL_CACHE, {"Invalid flags cache", sync_line + "cond\n"}},
    {2, KEL_SERIAL | KEL_COND | KEL_NOWAIT, {"Invalid flags nowait", sync_line + "cond|serial\n"}},
    {2, KEL_ONES_INDEX | KEL_PAD | KEL_INVERT | KEL_INVERT_SRC, {"Invalid flags ones|pad|invert|invert_src"}},
    {1, KEL_PIPE_SRC, {"Invalid flags "}},
    {1, 1024 | KEL_SERIAL, {"Invalid flags ", sync_line + "serial\n"}},
    {2, KEL_PIPE_SRC, {sync_line + "pipe_src|pipe_mask\n"}},
    {2, KEL_PIPE_AUX, {sync_line + "pipe_aux\n"}},
    {2, 1024, {sync_line + "pipe_mask\n"}},
    {2, 1 << 11, {"Invalid flags 11(?\?\?)"}},
    {1, UINT64_MAX, {"Invalid flags ones|cache|pad|invert|invert_src|nowait", sync_line + "cond|serial\n"}},
    {2,
     UINT64_MAX,
     {"Invalid flags ones|cache|pad|invert|invert_src|nowait",
      sync_line + "cond|serial|pipe_src|pipe_aux|pipe_mask\n"}},
};

TEST(nop, validated)
{
    for (const nop_row &row : nop_rows) {
        SCOPED_TRACE(testing::Message() << "version " << row.version << ", flags " << row.flags);
        const kel_status_t status = row.lines.empty() ? KEL_SUCCESS : KEL_EINVAL;
        for (const bool log_on : {true, false}) {
            test_context ctx(row.version, KEL_DEBUG_ARG, log_on ? KEL_LOG_ERROR : 0);
            expect_result(kel_nop(ctx, row.flags), status);
            EXPECT_EQ(ctx.messages(), log_on ? row.lines : lines_t());
            EXPECT_EQ(kel_debug_calls, row.lines.size());
        }
    }
}

// Without KEL_DEBUG_ARG no flag is looked at, on the bare road and on the logging one.
TEST(nop, not_validated)
{
    for (const nop_row &row : nop_rows)
        for (const uint32_t debug : {0u, KEL_DEBUG_EXTRA | KEL_DEBUG_SYNC | KEL_DEBUG_PERF})
            for (const uint32_t log : {0u, KEL_LOG_ERROR}) {
                test_context ctx(row.version, debug, log);
                expect_result(kel_nop(ctx, row.flags), KEL_SUCCESS);
                EXPECT_EQ(ctx.messages(), lines_t());
                EXPECT_EQ(kel_debug_calls, 0u);
            }
}

TEST(nop, line_order_and_levels)
{
    const struct {
        uint32_t debug, levels;
        uint64_t flags;
        std::vector<std::pair<std::string, std::string>> lines;
    } rows[] = {
        {0, 63, 2, {{"ENTRY", "kel_nop()"}, {"RETURN", "kel_nop() returns {SUCCESS, count=0}"}}},
        {1, KEL_LOG_ENTRY, 2, {{"ENTRY", "kel_nop()"}}},
        {1, KEL_LOG_RETURN, 2, {{"RETURN", "kel_nop() returns {EINVAL, count=0}"}}},
        {1,
         63,
         66,
         {{"ENTRY", "kel_nop()"},
          {"ERROR", "Invalid flags cache"},
          {"ERROR", sync_line + "cond\n"},
          {"RETURN", "kel_nop() returns {EINVAL, count=0}"}}},
    };
    for (const auto &row : rows) {
        test_context ctx(2, row.debug, row.levels);
        kel_nop(ctx, row.flags);
        ASSERT_EQ(ctx.lines.size(), row.lines.size());
        for (size_t i = 0; i < row.lines.size(); i++) {
            EXPECT_EQ(ctx.lines[i].prefix, prefix_of(row.lines[i].first));
            EXPECT_EQ(ctx.lines[i].message, row.lines[i].second);
        }
    }
}

// ---- Entry and return lines of calls with arguments -----------------------------------------------------------------

TEST(scan, entry_and_return_lines)
{
    test_context ctx(2, KEL_DEBUG_ARG, KEL_LOG_ENTRY | KEL_LOG_RETURN);
    kel_vec_t src = {KEL_RLE | KEL_BITS, 8, at(0x1000), 4, 3, 2, 8, at(0x3000), nullptr, 0};
    kel_vec_t dst = {KEL_BYTES, 8, at(0x2000), 2, 0, 0, 0, nullptr, nullptr, 0};
    const kel_int_t low = {KEL_BYTES, 3, {0, 0, 0x102}};
    const kel_int_t high = {KEL_BITS, 4, {0, 0x10, 0xf}};
    const std::string args = "ctx=" + hex(ctx.ctx) +
                             ", flags=ones|nowait,\n"
                             "  src = { data=0x1000, elements=8, width=4, offset=3,\n"
                             "      fmt=bits|rle,\n"
                             "    aux_data=0x3000, aux_width=8, aux_offset=2 }\n"
                             "  dst = { { data=0x2000, elements=8, width=2, offset=0, fmt=bytes } }, \n";
    kel_scan_value(ctx, KEL_ONES_INDEX | KEL_NOWAIT, &src, &dst, static_cast<kel_compare_t>(4), &low);
    kel_scan_range(ctx, KEL_ONES_INDEX | KEL_NOWAIT, &src, &dst, KEL_EQ, &low, &high);
    const std::string low_text = "{ elem_width=3, fmt=bytes, dwords={0x0, 0x102} }";
    const std::string high_text = "{ elem_width=4, fmt=bits, dwords={0x10, 0xf} }";
    EXPECT_EQ(ctx.messages(),
              (lines_t{
                  "kel_scan_value(): " + args + "  op=4(?\?\?),\n  val = " + low_text,
                  "kel_scan_value() returns {EINVAL, count=0}",
                  "kel_scan_range(): " + args + "  op=EQ,\n  lower = " + low_text + ",\n  upper = " + high_text,
                  "kel_scan_range() returns {EINVAL, count=0}",
              }));

    alignas(64) uint8_t in[64] = {0x12, 0x32};
    alignas(64) uint8_t out[128];
    ctx->log.options = KEL_LOG_RETURN;
    src = {KEL_BITS, 4, in, 4, 0, 0, 0, nullptr, nullptr, 0};
    dst = {KEL_BITS, 4, out, 1, 0, 0, 0, nullptr, nullptr, 0};
    const kel_int_t two = {KEL_BITS, 4, {0, 0, 2}};
    EXPECT_EQ(kel_scan_value(ctx, 0, &src, &dst, KEL_EQ, &two).count, 2u);
    EXPECT_EQ(kel_scan_range(ctx, 0, &src, &dst, KEL_GE_AND_LE, &two, &high).count, 3u);
    EXPECT_EQ(ctx.messages(),
              (lines_t{"kel_scan_value() returns {SUCCESS, count=2}", "kel_scan_range() returns {SUCCESS, count=3}"}));
}

TEST(int_create, lines)
{
    test_context ctx(1, KEL_DEBUG_ARG, 63);
    kel_int_t val = {};
    const uint8_t bytes[1] = {1};
    for (const size_t len : {1, 0})
        kel_int_create(ctx, bytes, len, &val);
    const std::string pointers[] = {"kel_int_create(): ctx=" + hex(ctx.ctx) + ", buf=" + hex(bytes), hex(&val)};
    EXPECT_EQ(ctx.messages(), (lines_t{
                                  pointers[0] + ", len=1, val=" + pointers[1],
                                  "kel_int_create() returns SUCCESS",
                                  pointers[0] + ", len=0, val=" + pointers[1],
                                  "Invalid len 0",
                                  "kel_int_create() returns EINVAL",
                              }));
}

// dword[0] is never written, dword[1] only for more than 8 bytes.
TEST(int_create, values)
{
    constexpr uint64_t left = 0xa5a5a5a5a5a5a5a5;
    const uint8_t bytes[] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 0xff};
    const struct {
        uint32_t len;
        uint64_t high, low;
    } rows[] = {
        {1, left, 1},
        {3, left, 0x010203},
        {8, left, 0x0102030405060708},
        {9, 1, 0x0203040506070809},
        {15, 0x01020304050607, 0x08090a0b0c0d0e0f},
        {16, 0x0102030405060708, 0x090a0b0c0d0e0fff},
    };
    const auto check = [&](uint32_t debug, uint32_t len, uint64_t high, uint64_t low) {
        test_context ctx(2, debug);
        kel_int_t val = {left & UINT32_MAX, left & UINT32_MAX, {left, left, left}};
        EXPECT_EQ(kel_int_create(ctx, bytes, len, &val), KEL_SUCCESS) << len;
        EXPECT_EQ(val.format, 0u);
        EXPECT_EQ(val.elem_width, len);
        EXPECT_EQ(val.dword[0], left);
        EXPECT_EQ(val.dword[1], high) << len;
        EXPECT_EQ(val.dword[2], low) << len;
    };
    for (const auto &row : rows)
        for (const uint32_t debug : {0u, 1u})
            check(debug, row.len, row.high, row.low);
    check(0, 0, left, 0);
}

// ---- The owner test -------------------------------------------------------------------------------------------------

TEST(thread, foreign_calls)
{
    using call_t = kel_status_t (*)(kel_context_t *);
    constexpr call_t nop = [](kel_context_t *ctx) { return kel_nop(ctx, 0).status; };
    constexpr call_t bad_nop = [](kel_context_t *ctx) { return kel_nop(ctx, KEL_CACHE).status; };
    constexpr call_t version = [](kel_context_t *ctx) { return kel_version(ctx, nullptr); };
    constexpr call_t int_create = [](kel_context_t *ctx) { return kel_int_create(ctx, "", 1, nullptr); };
    const struct {
        call_t call;
        uint32_t debug;
        kel_status_t status;
        lines_t lines; // "wrong" stands for the line of the owner test
    } rows[] = {
        {nop, 1, KEL_SUCCESS, {}},
        {bad_nop, 1, KEL_ETHREAD, {"Invalid flags cache"}},
        {version, 8, KEL_ETHREAD, {"wrong"}},
        {int_create, 8, KEL_ETHREAD, {"wrong"}},
        {kel_thread_fini, 2, KEL_ETHREAD, {"wrong"}},
    };
    for (const auto &row : rows)
        for (const bool log_on : {true, false}) {
            SCOPED_TRACE(&row - rows);
            test_context ctx(2, row.debug, log_on ? KEL_LOG_ERROR : 0);
            lines_t expected;
            std::thread([&] {
                for (const std::string &line : row.lines)
                    expected.push_back(line == "wrong" ? wrong_thread(ctx, pthread_self()) : line);
                EXPECT_EQ(row.call(ctx), row.status);
            }).join();
            EXPECT_EQ(ctx.messages(), log_on ? expected : lines_t());
            EXPECT_EQ(kel_debug_calls, row.lines.size());
        }
}

// A scan that is right in all but its thread: KEL_ETHREAD, one line and an untouched destination; without KEL_DEBUG_ARG
// the owner is not asked for.
TEST(thread, foreign_scan)
{
    alignas(64) uint8_t in[64] = {7};
    alignas(64) uint8_t out[128];
    const kel_vec_t src = {KEL_BYTES, 1, in, 1, 0, 0, 0, nullptr, nullptr, 0};
    const kel_vec_t dst = {KEL_BITS, 1, out, 1, 0, 0, 0, nullptr, nullptr, 0};
    const kel_int_t val = {KEL_BYTES, 1, {0, 0, 7}};
    for (const uint32_t debug : {KEL_DEBUG_ARG, KEL_DEBUG_EXTRA, 0u}) {
        test_context ctx(1, debug);
        out[0] = 0xa5;
        lines_t expected;
        std::thread([&] {
            if (debug & KEL_DEBUG_ARG)
                expected.push_back(wrong_thread(ctx, pthread_self()));
            const kel_result_t result = kel_scan_value(ctx, 0, &src, &dst, KEL_EQ, &val);
            EXPECT_EQ(result.status, expected.empty() ? KEL_SUCCESS : KEL_ETHREAD);
            EXPECT_EQ(result.count, expected.empty() ? 1u : 0u);
        }).join();
        EXPECT_EQ(out[0], expected.empty() ? 0x80 : 0xa5);
        EXPECT_EQ(ctx.messages(), expected);
        EXPECT_EQ(kel_debug_calls, expected.size());
    }
}

TEST(thread, version)
{
    for (const uint32_t version : {1u, 2u})
        for (const uint32_t debug : {1u, 0u}) {
            test_context ctx(version, debug);
            uint32_t value = 99;
            EXPECT_EQ(kel_version(ctx, &value), KEL_SUCCESS);
            EXPECT_EQ(value, version);
            value = 99;
            std::thread([&] { EXPECT_EQ(kel_version(ctx, &value), debug ? KEL_ETHREAD : KEL_SUCCESS); }).join();
            EXPECT_EQ(value, debug ? 99 : version);
        }
}

// ---- Log lines ------------------------------------------------------------------------------------------------------

TEST(log, level_words)
{
    const std::pair<uint32_t, const char *> rows[] = {{1, "ERROR"},       {2, "ENTRY"},       {4, "RETURN"},
                                                      {8, "VERBOSE"},     {16, "WARNING"},    {32, "PERF"},
                                                      {3, "LOG_UNKNOWN"}, {64, "LOG_UNKNOWN"}};
    for (const auto &[level, word] : rows) {
        test_context ctx(2, 1, 127);
        kel_log_msg(ctx, level, "%s %d", "text", 5);
        ASSERT_EQ(ctx.lines.size(), 1u);
        EXPECT_EQ(ctx.lines[0].level, level);
        EXPECT_EQ(ctx.lines[0].prefix, prefix_of(word));
        EXPECT_EQ(ctx.lines[0].message, "text 5");
    }
}

// Which channels take a line. A and B are two files, S is the system log, C the callback; '-' is no descriptor.
TEST(log, channels)
{
    const struct {
        bool in_init;
        char fd_init;
        int syslog_init;
        bool in_options;
        char fd;
        int syslog;
        bool cb;
        const char *seen;
    } rows[] = {
        // The environment's channel alone: the descriptor hides the system log.
        {true, 'A', 0, false, '-', 0, false, "A"},
        {true, 'A', 1, false, 'B', 1, true, "A"},
        {true, '-', 1, false, 'B', 1, true, "S"},
        {true, '-', 0, false, 'B', 1, true, ""},
        {false, 'A', 1, false, 'B', 1, true, ""},
        // The client's alone: the system log, the descriptor, the callback.
        {false, 'A', 1, true, '-', 0, false, ""},
        {false, 'A', 1, true, 'B', 1, true, "S"},
        {false, 'A', 1, true, 'B', 0, true, "B"},
        {false, 'A', 1, true, '-', 0, true, "C"},
        {false, 'A', 0, true, 'A', 0, true, "A"},
        // Both: different targets get the line each, the same one gets it once and the next in rank takes over.
        {true, 'A', 0, true, 'B', 0, true, "AB"},
        {true, 'A', 1, true, 'B', 1, true, "AS"},
        {true, 'A', 0, true, '-', 0, true, "AC"},
        {true, 'A', 0, true, 'A', 0, false, "A"},
        {true, 'A', 0, true, 'A', 0, true, "AC"},
        {true, '-', 1, true, '-', 1, false, "S"},
        {true, '-', 1, true, 'B', 1, true, "BS"},
        {true, '-', 1, true, '-', 1, true, "CS"},
        {true, '-', 1, true, 'B', 0, true, "BS"},
        {true, '-', 0, true, '-', 1, false, "S"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
        test_context ctx;
        const memory_file a, b;
        const auto fd = [&](char name) { return name == 'A' ? a.fd : name == 'B' ? b.fd : -1; };
        syslog_lines.clear();
        ctx->log = {row.in_init ? 1u : 0u,          0,    row.in_options ? 1u : 0u, fd(row.fd_init), fd(row.fd),
                    row.cb ? ctx->log.cb : nullptr, &ctx, row.syslog_init,          row.syslog};
        kel_log_msg(ctx, KEL_LOG_ERROR, "line %d", 7);

        const std::string line = prefix_of("ERROR") + "line 7";
        std::string seen;
        for (const auto &[name, text] : {std::pair{'A', a.text()}, {'B', b.text()}})
            if (!text.empty()) {
                EXPECT_EQ(text, line + "\n");
                seen += name;
            }
        for (const log_line &called : ctx.lines) {
            EXPECT_EQ(called.prefix + called.message, line);
            seen += 'C';
        }
        for (const std::string &logged : syslog_lines) {
            EXPECT_EQ(logged, line);
            seen += 'S';
        }
        EXPECT_EQ(seen, row.seen);
    }
}

// Without a context every level goes to standard error and to the system log.
TEST(log, no_context)
{
    for (const auto &[level, word] : {std::pair{1u, "ERROR"}, {2u, "ENTRY"}, {32u, "PERF"}, {0u, "LOG_UNKNOWN"}}) {
        syslog_lines.clear();
        testing::internal::CaptureStderr();
        kel_log_msg(nullptr, level, "%s", "100%s");
        EXPECT_EQ(testing::internal::GetCapturedStderr(), prefix_of(word) + "100%s\n");
        EXPECT_EQ(syslog_lines, lines_t{prefix_of(word) + "100%s"});
    }
}

TEST(log, long_lines_and_line_ends)
{
    for (const std::string &message :
         {std::string(200000, 'x'), std::string("line\n"), std::string("\n"), std::string()}) {
        test_context ctx;
        const memory_file file;
        const std::string line = prefix_of("ERROR") + message;
        kel_log_msg(ctx, KEL_LOG_ERROR, "%s", message.c_str());
        ctx->log.fd = file.fd;
        kel_log_msg(ctx, KEL_LOG_ERROR, "%s", message.c_str());
        EXPECT_EQ(file.text(), line + "\n");
        EXPECT_EQ(ctx.messages(), lines_t{message});

        syslog_lines.clear();
        testing::internal::CaptureStderr();
        kel_log_msg(nullptr, KEL_LOG_ERROR, "%s", message.c_str());
        EXPECT_EQ(testing::internal::GetCapturedStderr(), line + "\n");
        EXPECT_EQ(syslog_lines, lines_t{line});
    }
}

// An argument that faults when it is read shows whether the format is expanded.
TEST(log, level_off)
{
    const guarded_buffer buffer(1, 1);
    const char *faults = reinterpret_cast<const char *>(buffer.data + 1);
    const memory_file file;
    test_context ctx(2, 1, 63 & ~KEL_LOG_VERBOSE);
    ctx->log.options_init = 63 & ~KEL_LOG_VERBOSE;
    ctx->log.fd_init = file.fd;
    kel_log_msg(ctx, KEL_LOG_VERBOSE, "%s", faults);
    EXPECT_EQ(ctx.messages(), lines_t());
    EXPECT_EQ(file.text(), "");
}

// What the client has printed before comes first: both channels flush the standard streams.
TEST(log, descriptors_flush_the_streams)
{
    const memory_file file;
    for (const bool environment : {true, false}) {
        test_context ctx;
        (environment ? ctx->log.fd_init : ctx->log.fd) = file.fd;
        (environment ? ctx->log.options_init : ctx->log.options) = KEL_LOG_ERROR;
        fputc(' ', stdout);
        ASSERT_GT(__fpending(stdout), 0u);
        kel_log_msg(ctx, KEL_LOG_ERROR, "line");
        EXPECT_EQ(__fpending(stdout), 0u);
    }
}
