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

} // namespace

// ---- Calls ----------------------------------------------------------------------------------------------------------

// Only KEL_DEBUG_ARG lets the flags be looked at; the level decides on the lines alone, the owner on the status.
TEST(call, nop)
{
    const std::string sync = "Synchronization flags must not be set for non-post functions: flags = ";
    const std::tuple<uint32_t, uint64_t, lines_t> rows[] = {
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
    for (const auto &[version, flags, reports] : rows)
        for (const uint32_t debug : {1u, 14u, 0u})
            for (const uint32_t log : {KEL_LOG_ERROR, 0u})
                for (const bool foreign : {false, true}) {
                    SCOPED_TRACE(testing::Message() << "flags " << flags << ", debug " << debug << ", log " << log);
                    const lines_t lines = debug == 1 ? reports : lines_t();
                    test_context ctx(version, debug, log);
                    if (foreign)
                        ctx.disown();
                    const kel_result_t result = kel_nop(ctx, flags);
                    EXPECT_EQ(result.status, lines.empty() ? KEL_SUCCESS : foreign ? KEL_ETHREAD : KEL_EINVAL);
                    EXPECT_EQ(result.reserved | result.count, 0u);
                    EXPECT_EQ(ctx.messages(), log ? lines : lines_t());
                    EXPECT_EQ(kel_debug_calls, lines.size());
                }
}

TEST(call, lines_and_levels)
{
    for (const uint32_t levels : {63u, uint32_t{KEL_LOG_ENTRY}, uint32_t{KEL_LOG_RETURN}}) {
        test_context ctx(2, KEL_DEBUG_ARG, levels);
        small_scan s;
        s.flags = KEL_NOWAIT;
        const std::string vectors = s.text(ctx), five = s.five_text, seven = s.seven_text;
        kel_nop(ctx, KEL_CACHE);
        s.value(ctx);
        s.range(ctx);
        s.value_op = kel_compare_t{4};
        s.value(ctx);
        const std::pair<uint32_t, std::string> lines[] = {
            {KEL_LOG_ENTRY, "kel_nop()"},
            {KEL_LOG_ERROR, "Invalid flags cache"},
            {KEL_LOG_RETURN, "kel_nop() returns {EINVAL, count=0}"},
            {KEL_LOG_ENTRY, "kel_scan_value(): " + vectors + ", \n  op=EQ,\n  val = " + five},
            {KEL_LOG_VERBOSE, "Emulating kel_scan_value"},
            {KEL_LOG_RETURN, "kel_scan_value() returns {SUCCESS, count=2}"},
            {KEL_LOG_ENTRY,
             "kel_scan_range(): " + vectors + ", \n  op=EQ_OR_EQ,\n  lower = " + five + ",\n  upper = " + seven},
            {KEL_LOG_VERBOSE, "Emulating kel_scan_range"},
            {KEL_LOG_RETURN, "kel_scan_range() returns {SUCCESS, count=3}"},
            {KEL_LOG_ENTRY, "kel_scan_value(): " + vectors + ", \n  op=4(?\?\?),\n  val = " + five},
            {KEL_LOG_ERROR, "Invalid op 4(?\?\?)"},
            {KEL_LOG_RETURN, "kel_scan_value() returns {EINVAL, count=0}"},
        };
        lines_t expected;
        for (const auto &[level, message] : lines)
            if (levels & level)
                expected.push_back(log_text(log_str(level), message));
        EXPECT_EQ(ctx.texts(), expected);
    }
}

// Any debug option arms the owner test of the calls that have no validator.
TEST(call, of_a_foreign_thread)
{
    for (const uint32_t version : {1u, 2u})
        for (const uint32_t debug : {0u, 1u, 2u, 4u, 8u}) {
            test_context ctx(version, debug);
            ctx.disown();
            uint32_t value = 99;
            EXPECT_EQ(kel_version(ctx, &value), debug ? KEL_ETHREAD : KEL_SUCCESS);
            EXPECT_EQ(value, debug ? 99 : version);
            if (debug) {
                EXPECT_EQ(kel_thread_fini(ctx), KEL_ETHREAD);
            }
            EXPECT_EQ(ctx.messages(), lines_t(debug ? 2 : 0, test_context::wrong_thread()));
            EXPECT_EQ(kel_debug_calls, debug ? 2u : 0u);
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
        lines_t lines = row.reports;
        lines.insert(lines.begin(), "kel_int_create(): ctx=" + pointer_text(ctx) + ", buf=" + pointer_text(bytes) +
                                        ", len=" + std::to_string(static_cast<long>(row.len)) +
                                        ", val=" + pointer_text(&val));
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

// Which channels take a line. A and B are two files, S is the system log, C the callback. The environment's descriptor
// hides its system log; of the client's the system log comes before the descriptor, and that before the callback. With
// both, different targets get the line each, the same one gets it once, and the next in rank takes over. The files
// flush the standard streams, so that what the client has printed before comes first.
TEST(log, channels)
{
    // The environment's level and targets, the client's, and what is seen.
    const std::tuple<uint32_t, std::string, uint32_t, std::string, std::string> rows[] = {
        {1, "AS", 0, "BSC", "A"}, {1, "S", 0, "BSC", "S"},   {1, "", 0, "BSC", ""},   {0, "AS", 0, "BSC", ""},
        {0, "AS", 1, "BSC", "S"}, {0, "AS", 1, "BC", "B"},   {0, "AS", 1, "C", "C"},  {0, "A", 1, "AC", "A"},
        {1, "A", 1, "BC", "AB"},  {1, "AS", 1, "BSC", "AS"}, {1, "A", 1, "C", "AC"},  {1, "A", 1, "A", "A"},
        {1, "A", 1, "AC", "AC"},  {1, "S", 1, "BSC", "BS"},  {1, "S", 1, "SC", "CS"}, {1, "", 1, "S", "S"}};
    const std::string line = log_text("ERROR", "line 7");
    const int a = memfd_create("a", 0), b = memfd_create("b", 0);
    const auto has = [](const std::string &channels, char name) { return channels.find(name) != std::string::npos; };
    const auto fd = [&](const std::string &channels) { return has(channels, 'A') ? a : has(channels, 'B') ? b : -1; };
    for (const auto &[options_init, init, options, set, targets] : rows) {
        SCOPED_TRACE(init + " and " + set);
        test_context ctx;
        syslog_lines.clear();
        const kel_log_func_t cb = has(set, 'C') ? ctx->log.cb : nullptr;
        ctx->log = {options_init, 0, options, fd(init), fd(set), cb, &ctx, has(init, 'S'), has(set, 'S')};
        fputc(' ', stdout);
        kel_log_msg(ctx, KEL_LOG_ERROR, "line %d", 7);

        std::string seen;
        for (const auto &[name, text] : {std::pair{"A", taken(a)}, {"B", taken(b)}})
            seen += text == line + "\n" ? name : text;
        EXPECT_EQ(__fpending(stdout) == 0, !seen.empty());
        for (const std::string &called : ctx.texts())
            seen += called == line ? "C" : called;
        for (const std::string &logged : syslog_lines)
            seen += logged == line ? "S" : logged;
        EXPECT_EQ(seen, targets);
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
            const auto log = [&, number = level] { kel_log_msg(nullptr, number, "%s", message.c_str()); };
            EXPECT_EQ(lines_without_context(log), lines_t{log_text(word, message)});

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
