// Log and debug options, from the environment and from the setters; and the published limits.
#include "kel_frame.h"
#include "kel_options.h"
#include "support.h"
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>

namespace
{

auto log_words(const kel_log_t &log)
{
    return std::tuple{log.options_init, log.options_set, log.options,     log.fd_init,    log.fd,
                      log.cb,           log.cb_data,     log.syslog_init, log.syslog != 0};
}

} // namespace

// ---- The environment ------------------------------------------------------------------------------------------------

// What reports say goes to standard error and to the system log; from bad_debug on KEL_DEBUG_OPTIONS is reported as
// bad, on the channel that the other variables have just opened.
TEST(environment, words_and_lines)
{
    const std::string bad_fd = "bad KEL_LOG_FD value: ", bad_log = "bad KEL_LOG_OPTIONS token at: ";
    const struct {
        const char *log_options, *log_fd, *debug_options; // null: not set
        uint32_t levels;
        int fd;
        bool syslog;
        uint32_t debug;
        lines_t reports;
        const char *bad_debug = nullptr;
    } rows[] = {
        {nullptr, nullptr, nullptr, 0, -1, false, 1, {}},
        {nullptr, "x", "all", 0, -1, false, 15, {}}, // the descriptor is not looked at
        {"", nullptr, "", 0, -1, true, 0, {}},
        {",,", "120", ",extra,", 0, 120, false, 2, {}},
        {"error,,entry", nullptr, "arg,,perf", 3, -1, true, 9, {}},
        {"return,verbose,perf,return", "120", "sync", 44, 120, false, 4, {}},
        {"all", "2", "all,arg", 63, 2, false, 15, {}},
        // Unknown words
        {"error,foo,all,bar", "120", nullptr, 63, 120, false, 1, {bad_log + "foo,all,bar"}},
        {",warn, error", nullptr, nullptr, 16, -1, true, 1, {bad_log + " error"}},
        {"perf,%s%n,", "120", nullptr, 32, 120, false, 1, {bad_log + "%s%n,"}},
        {"err,errors", "2", "error", 0, 2, false, 0, {bad_log + "err,errors"}, "error"},
        {"error", "2", "arg,Extra,all", 1, 2, false, 0, {}, "Extra,all"},
        {"error", nullptr, "sync,,x,", 1, -1, true, 0, {}, "x,"},
        {"warn,entry,return,verbose,perf", "2", "all,all ", 62, 2, false, 0, {}, "all "},
        // Descriptors
        {"error", "", nullptr, 1, -1, false, 1, {bad_fd}},
        {"error", "0x78", nullptr, 1, -1, false, 1, {bad_fd + "0x78"}},
        {"foo,warn", "2,", "y", 16, -1, false, 0, {bad_log + "foo,warn", bad_fd + "2,"}, "y"},
        {"error", " +0120", nullptr, 1, 120, false, 1, {}},
        {"error,perf", "-3", "x", 33, -3, false, 0, {}, "x"}, // no channel at all
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
        const std::pair<const char *, const char *> variables[] = {
            {"KEL_LOG_OPTIONS", row.log_options}, {"KEL_LOG_FD", row.log_fd}, {"KEL_DEBUG_OPTIONS", row.debug_options}};
        for (const auto &[name, value] : variables)
            value ? setenv(name, value, 1) : unsetenv(name);
        reset_hooks();
        syslog_lines.clear();
        testing::internal::CaptureStderr();
        kel_context_t *ctx = open_context(2);
        const std::string in_stderr = testing::internal::GetCapturedStderr();
        const kel_log_t log = {row.levels, 0, row.levels, row.fd, -1, nullptr, nullptr, row.syslog, 0};
        EXPECT_EQ(log_words(ctx->log), log_words(log));
        EXPECT_EQ(ctx->debug_options, row.debug);
        EXPECT_EQ(kel_debug_calls, row.bad_debug ? 1u : 0u);

        std::string reported;
        lines_t logged;
        for (const std::string &report : row.reports) {
            logged.push_back(log_text("ERROR", report));
            reported += logged.back() + "\n";
        }
        if (row.bad_debug && row.levels & KEL_LOG_ERROR) {
            const std::string line = log_text("ERROR", std::string("bad KEL_DEBUG_OPTIONS token at: ") + row.bad_debug);
            reported += row.fd == 2 ? line + "\n" : "";
            logged.resize(logged.size() + row.syslog, line);
        }
        EXPECT_EQ(in_stderr, reported);
        EXPECT_EQ(syslog_lines, logged);
        ctx->log = {};
        EXPECT_EQ(kel_thread_fini(ctx), KEL_SUCCESS);
    }
    for (const char *name : {"KEL_LOG_OPTIONS", "KEL_LOG_FD", "KEL_DEBUG_OPTIONS"})
        unsetenv(name);
}

// ---- The setters ----------------------------------------------------------------------------------------------------

static void no_callback(kel_context_t *, void *, uint32_t, const char *, const char *) {}

static int datum;

#define CALL(name, ...) [](kel_context_t *ctx, uint64_t options) { return name(ctx, options, __VA_ARGS__); }

// What a setter is to leave: its own target, and the environment's channel as it was.
static const struct setter {
    kel_status_t (*call)(kel_context_t *ctx, uint64_t options);
    int fd;
    kel_log_func_t cb;
    void *cb_data;
    int syslog;
    bool refused = false; // for its target
} setters[] = {
    {kel_set_log, -1, nullptr, nullptr, 1},
    {CALL(kel_set_log_file, 0), 0, nullptr, nullptr, 0},
    {CALL(kel_set_log_callback, no_callback, &datum), -1, no_callback, &datum, 0},
    {CALL(kel_set_log_callback, nullptr, &datum), -1, nullptr, &datum, 0},
    {CALL(kel_set_log_file, -1), 0, nullptr, nullptr, 0, true},
};

// Options and what they come to: one of their bits stands for all that exist, and hides none that does not.
using option_rows = std::vector<std::pair<uint64_t, int>>;
static constexpr uint64_t high = uint64_t{1} << 32;
static constexpr int bad = -1;

// The owner test comes before the tests of arguments.
TEST(setters, log)
{
    const option_rows rows = {{0, 0},      {1, 1},          {32, 32},         {63, 63},         {64, 63},   {65, 63},
                              {96, 63},    {127, 63},       {128, bad},       {129, bad},       {192, bad}, {255, bad},
                              {high, bad}, {high | 1, bad}, {high | 64, bad}, {UINT64_MAX, bad}};
    for (const setter &set : setters)
        for (const auto &[options, result] : rows)
            for (const bool foreign : {false, true}) {
                SCOPED_TRACE(testing::Message() << "setter " << &set - setters << ", options " << options);
                test_context ctx;
                syslog_lines.clear();
                const kel_log_t before = {8, 3, 11, 77, 78, ctx->log.cb, &ctx, 1, 1};
                ctx->log = before;
                if (foreign)
                    ctx.disown();
                const bool valid = result != bad && !set.refused && !foreign;
                EXPECT_EQ(set.call(ctx, options), valid ? KEL_SUCCESS : foreign ? KEL_ETHREAD : KEL_EINVAL);
                const auto levels = static_cast<uint32_t>(result);
                const kel_log_t after = {8, levels, levels | 8, 77, set.fd, set.cb, set.cb_data, 1, set.syslog};
                EXPECT_EQ(log_words(ctx->log), log_words(valid ? after : before));
                EXPECT_EQ(syslog_lines, lines_t(foreign, log_text("ERROR", test_context::wrong_thread())));
                EXPECT_EQ(kel_debug_calls, foreign ? 1u : 0u);
            }
}

// Any debug option arms the owner test. KEL_DEBUG_SYNC comes on between chains only; bits that do not exist are seen
// before, and what is on stays on.
TEST(setters, debug)
{
    const option_rows rows = {{0, 0},    {1, 1},      {4, 4},           {11, 11},         {12, 12},  {15, 15},
                              {16, 15},  {17, 15},    {31, 15},         {32, bad},        {36, bad}, {47, bad},
                              {48, bad}, {high, bad}, {high | 16, bad}, {UINT64_MAX, bad}};
    for (const auto &[options, result] : rows)
        for (const uint32_t before : {0u, 1u, 5u, 8u})
            for (const bool foreign : {false, true})
                for (const bool busy : {false, true}) {
                    SCOPED_TRACE(testing::Message() << options << " after " << before << ", busy " << busy);
                    test_context ctx(2, before);
                    kel_queue_t *queue = open_queue(ctx, 1);
                    EXPECT_EQ(busy ? kel_nop_post(queue, 0, nullptr) : KEL_SUCCESS, KEL_SUCCESS);
                    if (foreign)
                        ctx.disown();
                    kel_status_t status = KEL_SUCCESS;
                    lines_t lines;
                    if (foreign && before) {
                        status = KEL_ETHREAD;
                        lines = {test_context::wrong_thread()};
                    } else if (result == bad) {
                        status = KEL_EINVAL;
                    } else if (busy && static_cast<uint32_t>(result) & ~before & KEL_DEBUG_SYNC) {
                        status = KEL_EQFULL;
                        lines = {"kel_set_debug(): Queue " + pointer_text(queue) +
                                 " has outstanding requests that have not been polled"};
                    }
                    EXPECT_EQ(kel_set_debug(ctx, options), status);
                    EXPECT_EQ(ctx->debug_options, status ? before : static_cast<uint32_t>(result));
                    EXPECT_EQ(ctx.messages(), lines);
                    EXPECT_EQ(kel_debug_calls, lines.size());
                }
}

// ---- Properties -----------------------------------------------------------------------------------------------------

static constexpr kel_props_t published[] = {
    {1, 16, 16, 4, 16, 8, 8, 16, 64, 64, 64, 16, 1, 1, 0, 32768, 1024, 16777216, 67108864, 15, 63, 4098, 4096, 16, 0},
    {1, 24, 16, 4, 16, 8, 8, 16, 64, 64, 16, 16, 1, 0, 1, 65536, 1024, 16777216, 67108864, 15, 63, 8192, 8192, 8192, 1},
};

// The coprocessor's generation plays no part. The owner test comes before the entry line, and calls no hook.
TEST(props, of_each_version)
{
    for (const uint32_t version : {1u, 2u})
        for (const uint32_t debug : {0u, 1u, 8u})
            for (const bool foreign : {false, true}) {
                test_context ctx(version, debug, 63);
                ctx->kel_version = 3 - version;
                if (foreign)
                    ctx.disown();
                const bool refused = foreign && debug;
                static constexpr kel_props_t none = {};
                kel_props_t props;
                memset(&props, 0, sizeof props);
                EXPECT_EQ(kel_get_props(ctx, &props), refused ? KEL_ETHREAD : KEL_SUCCESS);
                EXPECT_EQ(memcmp(&props, refused ? &none : &published[version - 1], sizeof props), 0);
                const std::string entry =
                    "kel_get_props(): ctx=" + pointer_text(ctx) + ", props=" + pointer_text(&props);
                EXPECT_EQ(ctx.messages(),
                          (lines_t{refused ? test_context::wrong_thread() : entry,
                                   refused ? "kel_get_props() returns ETHREAD" : "kel_get_props() returns SUCCESS"}));
                EXPECT_EQ(kel_debug_calls, 0u);
            }
    test_context ctx(2, 0, 0);
    ctx->api_version = 3;
    kel_props_t props;
    EXPECT_DEATH(kel_get_props(ctx, &props), "common/kel(\\.cpp)?:247: .*Assertion `0' failed");
}
