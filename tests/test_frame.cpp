// The road of a log line, and kel_int_create.
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

// Any debug option arms the tests; with all off no length is looked at. dword[0] is never written, dword[1] only for
// more than 8 bytes, and nothing by a refused call.
TEST(call, int_create)
{
    constexpr uint64_t left = 0xa5a5a5a5a5a5a5a5;
    const uint8_t bytes[] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 0xff};
    // Debug options, length, and the value, which is left when nothing is reported.
    const std::tuple<uint32_t, size_t, uint64_t, uint64_t, lines_t> rows[] = {
        {0, 1, left, 1, {}},
        {8, 8, left, 0x0102030405060708, {}},
        {1, 9, 1, 0x0203040506070809, {}},
        {1, 16, 0x0102030405060708, 0x090a0b0c0d0e0fff, {}},
        {8, 0, left, left, {"Invalid len 0"}},
        {1, 17, left, left, {"Invalid len 17"}},
        {4, SIZE_MAX, left, left, {"Invalid len -1"}},
    };
    for (const auto &[debug, length, high, low, lines] : rows) {
        test_context ctx(1, debug);
        kel_int_t val = {99, 99, {left, left, left}};
        EXPECT_EQ(kel_int_create(ctx, bytes, length, &val), lines.empty() ? KEL_SUCCESS : KEL_EINVAL);
        EXPECT_EQ(ctx.messages(), lines);
        EXPECT_EQ(kel_debug_calls, lines.size());
        EXPECT_EQ(val.format, lines.empty() ? KEL_BYTES : 99);
        EXPECT_EQ(val.elem_width, lines.empty() ? length : 99);
        EXPECT_EQ(std::vector(val.dword, std::end(val.dword)), (std::vector{left, high, low}));
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
