// The road of a call and the road of a log line, watched on kel_nop, on calls with arguments and on the messages
// themselves.
#include "kel_frame.h"
#include "kel_log.h"
#include "support.h"
#include <gtest/gtest.h>
#include <stdio_ext.h>
#include <sys/mman.h>
#include <unistd.h>

namespace
{

// The text in a file; it is empty then.
std::string taken(int fd)
{
    std::string content(static_cast<size_t>(lseek(fd, 0, SEEK_END)), '\0');
    EXPECT_EQ(pread(fd, content.data(), content.size(), 0), static_cast<ssize_t>(content.size()));
    EXPECT_EQ(ftruncate(fd, 0) | static_cast<int>(lseek(fd, 0, SEEK_SET)), 0);
    return content;
}

// A scan of two elements that is right in all its arguments.
struct scan {
    alignas(64) uint8_t in[64] = {2, 3};
    alignas(64) uint8_t out[128] = {0xa5};
    kel_vec_t src = {KEL_BYTES, 2, in, 1, 0, 0, 0, nullptr, nullptr, 0};
    kel_vec_t dst = {KEL_BITS, 2, out, 1, 0, 0, 0, nullptr, nullptr, 0};
    kel_int_t two = {KEL_BYTES, 1, {0, 0, 2}};
    kel_int_t nine = {KEL_BITS, 4, {0, 0, 9}};
};

} // namespace

// ---- Calls ----------------------------------------------------------------------------------------------------------

// Only KEL_DEBUG_ARG lets the flags be looked at, and the level decides on the lines alone.
TEST(call, nop)
{
    const std::string sync = "Synchronization flags must not be set for non-post functions: flags = ";
    const struct {
        uint32_t version;
        uint64_t flags;
        lines_t lines; // what validation reports
    } rows[] = {
        {1, 0, {}},
        {2, 0, {}},
        {1, KEL_COND, {sync + "cond\n"}},
        {1, KEL_COND | KEL_CACHE, {"Invalid flags cache", sync + "cond\n"}},
        {1, KEL_PIPE_SRC, {"Invalid flags "}},
        {1, UINT64_MAX, {"Invalid flags ones|cache|pad|invert|invert_src|nowait", sync + "cond|serial\n"}},
        {2, KEL_SERIAL | KEL_NOWAIT, {"Invalid flags nowait", sync + "serial\n"}},
        {2, KEL_PIPE_SRC, {sync + "pipe_src|pipe_mask\n"}},
        {2, KEL_PIPE_AUX, {sync + "pipe_aux\n"}},
        {2, 1 << 10, {sync + "pipe_mask\n"}},
        {2, 1 << 11, {"Invalid flags 11(?\?\?)"}},
    };
    for (const auto &row : rows)
        for (const uint32_t debug : {1u, 14u, 0u})
            for (const uint32_t log : {KEL_LOG_ERROR, 0u}) {
                SCOPED_TRACE(testing::Message() << "row " << &row - rows << ", debug " << debug << ", log " << log);
                const lines_t lines = debug == 1 ? row.lines : lines_t();
                test_context ctx(row.version, debug, log);
                const kel_result_t result = kel_nop(ctx, row.flags);
                EXPECT_EQ(result.status, lines.empty() ? KEL_SUCCESS : KEL_EINVAL);
                EXPECT_EQ(result.reserved | result.count, 0u);
                EXPECT_EQ(ctx.messages(), log ? lines : lines_t());
                EXPECT_EQ(kel_debug_calls, lines.size());
            }
}

TEST(call, line_order_and_levels)
{
    const struct {
        uint32_t debug, levels;
        std::vector<std::pair<std::string, std::string>> lines;
    } rows[] = {
        {0, KEL_LOG_ENTRY, {{"ENTRY", "kel_nop()"}}},
        {0, KEL_LOG_RETURN, {{"RETURN", "kel_nop() returns {SUCCESS, count=0}"}}},
        {1,
         63,
         {{"ENTRY", "kel_nop()"}, {"ERROR", "Invalid flags cache"}, {"RETURN", "kel_nop() returns {EINVAL, count=0}"}}},
    };
    for (const auto &row : rows) {
        test_context ctx(2, row.debug, row.levels);
        kel_nop(ctx, KEL_CACHE);
        ASSERT_EQ(ctx.lines.size(), row.lines.size());
        for (size_t i = 0; i < row.lines.size(); i++)
            EXPECT_EQ(ctx.lines[i].prefix + ctx.lines[i].message, log_text(row.lines[i].first, row.lines[i].second));
    }
}

TEST(call, lines_of_scans)
{
    test_context ctx(2, KEL_DEBUG_ARG, KEL_LOG_ENTRY | KEL_LOG_RETURN);
    const scan s;
    char args[kel_args_text_size];
    const std::string vectors = entry_args_str(ctx, KEL_NOWAIT, &s.src, &s.dst, args, sizeof args);
    const std::string two = "{ elem_width=1, fmt=bytes, dwords={0x0, 0x2} }";
    const std::string nine = "{ elem_width=4, fmt=bits, dwords={0x0, 0x9} }";
    kel_scan_value(ctx, KEL_NOWAIT, &s.src, &s.dst, KEL_EQ, &s.two);
    kel_scan_range(ctx, KEL_NOWAIT, &s.src, &s.dst, KEL_GE_AND_LE, &s.two, &s.nine);
    kel_scan_value(ctx, KEL_NOWAIT, &s.src, &s.dst, static_cast<kel_compare_t>(4), &s.two);
    const lines_t expected = {
        "kel_scan_value(): " + vectors + ", \n  op=EQ,\n  val = " + two,
        "kel_scan_value() returns {SUCCESS, count=1}",
        "kel_scan_range(): " + vectors + ", \n  op=GE_AND_LE,\n  lower = " + two + ",\n  upper = " + nine,
        "kel_scan_range() returns {SUCCESS, count=2}",
        "kel_scan_value(): " + vectors + ", \n  op=4(?\?\?),\n  val = " + two,
        "kel_scan_value() returns {EINVAL, count=0}",
    };
    EXPECT_EQ(ctx.messages(), expected);
}

// The calls of a thread that does not own the context. Those without a validator ask for the owner with any debug
// option, the others with KEL_DEBUG_ARG, and kel_nop never: there the owner decides on the status alone.
TEST(call, of_a_foreign_thread)
{
    using call_t = kel_status_t (*)(kel_context_t *);
    constexpr call_t nop = [](kel_context_t *ctx) { return kel_nop(ctx, 0).status; };
    constexpr call_t bad_nop = [](kel_context_t *ctx) { return kel_nop(ctx, KEL_CACHE).status; };
    constexpr call_t scan_value = [](kel_context_t *ctx) {
        scan s;
        const kel_result_t result = kel_scan_value(ctx, 0, &s.src, &s.dst, KEL_EQ, &s.two);
        EXPECT_EQ(s.out[0], result.count ? 0x80 : 0xa5);
        return result.status;
    };
    constexpr call_t version = [](kel_context_t *ctx) {
        uint32_t value = 99;
        const kel_status_t status = kel_version(ctx, &value);
        EXPECT_EQ(value, status ? 99 : ctx->api_version);
        return status;
    };
    const std::string wrong = test_context::wrong_thread();
    const struct {
        call_t call;
        uint32_t version, debug;
        kel_status_t status;
        lines_t lines;
    } rows[] = {
        {nop, 2, 1, KEL_SUCCESS, {}},
        {bad_nop, 2, 1, KEL_ETHREAD, {"Invalid flags cache"}},
        {scan_value, 1, 1, KEL_ETHREAD, {wrong}},
        {scan_value, 1, 2, KEL_SUCCESS, {}},
        {version, 1, 8, KEL_ETHREAD, {wrong}},
        {version, 1, 0, KEL_SUCCESS, {}},
        {version, 2, 0, KEL_SUCCESS, {}},
        {kel_thread_fini, 2, 1, KEL_ETHREAD, {wrong}},
        {kel_thread_fini, 1, 2, KEL_ETHREAD, {wrong}},
        {kel_thread_fini, 2, 4, KEL_ETHREAD, {wrong}},
        {kel_thread_fini, 2, 8, KEL_ETHREAD, {wrong}},
    };
    for (const auto &row : rows)
        for (const uint32_t log : {KEL_LOG_ERROR, 0u}) {
            SCOPED_TRACE(&row - rows);
            test_context ctx(row.version, row.debug, log);
            ctx.disown();
            EXPECT_EQ(row.call(ctx), row.status);
            EXPECT_EQ(ctx.messages(), log ? row.lines : lines_t());
            EXPECT_EQ(kel_debug_calls, row.lines.size());
        }
}

// Any debug option arms the tests; with all off no length is looked at. dword[0] is never written, dword[1] only for
// more than 8 bytes, and nothing by a refused call.
TEST(call, int_create)
{
    constexpr uint64_t left = 0xa5a5a5a5a5a5a5a5;
    const uint8_t bytes[] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 0xff};
    const std::string wrong = test_context::wrong_thread();
    const struct {
        uint32_t debug;
        bool foreign;
        size_t len;
        uint64_t high, low;
        std::string status = "SUCCESS";
        lines_t reports = {};
    } rows[] = {
        {0, true, 0, left, 0},
        {1, false, 1, left, 1},
        {8, false, 8, left, 0x0102030405060708},
        {1, false, 9, 1, 0x0203040506070809},
        {1, false, 16, 0x0102030405060708, 0x090a0b0c0d0e0fff},
        {8, false, 0, left, left, "EINVAL", {"Invalid len 0"}},
        {1, false, 17, left, left, "EINVAL", {"Invalid len 17"}},
        {2, true, 1, left, left, "ETHREAD", {wrong}},
        {4, true, SIZE_MAX, left, left, "ETHREAD", {"Invalid len -1", wrong}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
        test_context ctx(1, row.debug, 63);
        if (row.foreign)
            ctx.disown();
        kel_int_t val = {99, 99, {left, left, left}};
        lines_t lines = {"kel_int_create(): ctx=" + pointer_text(ctx) + ", buf=" + pointer_text(bytes) +
                         ", len=" + std::to_string(static_cast<long>(row.len)) + ", val=" + pointer_text(&val)};
        lines.insert(lines.end(), row.reports.begin(), row.reports.end());
        lines.push_back("kel_int_create() returns " + row.status);
        EXPECT_EQ(kel_status_str(kel_int_create(ctx, bytes, row.len, &val)), row.status);
        EXPECT_EQ(ctx.messages(), lines);
        EXPECT_EQ(kel_debug_calls, row.reports.size());
        EXPECT_EQ(val.format, row.reports.empty() ? KEL_BYTES : 99);
        EXPECT_EQ(val.elem_width, row.reports.empty() ? row.len : 99);
        EXPECT_EQ(std::vector(val.dword, std::end(val.dword)), (std::vector{left, row.high, row.low}));
    }
}

// ---- Log lines ------------------------------------------------------------------------------------------------------

// Which channels take a line. A and B are two files, S is the system log, C the callback; '-' is no descriptor. The
// files flush the standard streams, so that what the client has printed before comes first.
TEST(log, channels)
{
    const struct {
        uint32_t options_init;
        char fd_init;
        int syslog_init;
        uint32_t options;
        char fd;
        int syslog;
        bool cb;
        const char *seen;
    } rows[] = {
        // The environment's channel alone: the descriptor hides the system log.
        {1, 'A', 1, 0, 'B', 1, true, "A"},
        {1, '-', 1, 0, 'B', 1, true, "S"},
        {1, '-', 0, 0, 'B', 1, true, ""},
        {0, 'A', 1, 0, 'B', 1, true, ""},
        // The client's alone: the system log, the descriptor, the callback.
        {0, 'A', 1, 1, 'B', 1, true, "S"},
        {0, 'A', 1, 1, 'B', 0, true, "B"},
        {0, 'A', 1, 1, '-', 0, true, "C"},
        {0, 'A', 0, 1, 'A', 0, true, "A"},
        // Both: different targets get the line each, the same one gets it once and the next in rank takes over.
        {1, 'A', 0, 1, 'B', 0, true, "AB"},
        {1, 'A', 1, 1, 'B', 1, true, "AS"},
        {1, 'A', 0, 1, '-', 0, true, "AC"},
        {1, 'A', 0, 1, 'A', 0, false, "A"},
        {1, 'A', 0, 1, 'A', 0, true, "AC"},
        {1, '-', 1, 1, 'B', 1, true, "BS"},
        {1, '-', 1, 1, '-', 1, true, "CS"},
        {1, '-', 0, 1, '-', 1, false, "S"},
    };
    const std::string line = log_text("ERROR", "line 7");
    const int a = memfd_create("a", 0), b = memfd_create("b", 0);
    const auto fd = [&](char name) { return name == 'A' ? a : name == 'B' ? b : -1; };
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
        test_context ctx;
        syslog_lines.clear();
        ctx->log = {
            row.options_init, 0,         row.options, fd(row.fd_init), fd(row.fd), row.cb ? ctx->log.cb : nullptr, &ctx,
            row.syslog_init,  row.syslog};
        fputc(' ', stdout);
        kel_log_msg(ctx, KEL_LOG_ERROR, "line %d", 7);

        std::string seen;
        for (const auto &[name, text] : {std::pair{"A", taken(a)}, {"B", taken(b)}})
            seen += text == line + "\n" ? name : text;
        EXPECT_EQ(__fpending(stdout) == 0, !seen.empty());
        for (const log_line &called : ctx.lines)
            seen += called.prefix + called.message == line ? "C" : called.message;
        for (const std::string &logged : syslog_lines)
            seen += logged == line ? "S" : logged;
        EXPECT_EQ(seen, row.seen);
        fflush(stdout);
    }
    close(a);
    close(b);
}

// Without a context every level goes to standard error and to the system log. Where a level is off the format is not
// expanded: its argument would fault.
TEST(log, levels_and_messages)
{
    const guarded_buffer buffer(1, 1);
    const std::pair<uint32_t, std::string> levels[] = {{1, "ERROR"}, {32, "PERF"}, {0, "LOG_UNKNOWN"}};
    for (const std::string &message :
         {std::string("100%s"), std::string(200000, 'x'), std::string("line\n"), std::string()})
        for (const auto &[level, word] : levels) {
            const std::string line = log_text(word, message);
            syslog_lines.clear();
            testing::internal::CaptureStderr();
            kel_log_msg(nullptr, level, "%s", message.c_str());
            EXPECT_EQ(testing::internal::GetCapturedStderr(), line + "\n");
            EXPECT_EQ(syslog_lines, lines_t{line});

            test_context on(2, 1, level), off(2, 1, ~level);
            off->log.options_init = ~level;
            kel_log_msg(off, level, "%s", reinterpret_cast<const char *>(buffer.data + 1));
            EXPECT_EQ(off.messages(), lines_t());
            if (level) {
                kel_log_msg(on, level, "%s", message.c_str());
                ASSERT_EQ(on.lines.size(), 1u);
                EXPECT_EQ(on.lines[0].level, level);
                EXPECT_EQ(on.lines[0].prefix, log_text(word, ""));
                EXPECT_EQ(on.lines[0].message, message);
            }
        }
}
