// Log and debug options, from the environment and from the setters; and the published limits.
#include "kel_frame.h"
#include "kel_options.h"
#include "support.h"
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace
{

using lines_t = std::vector<std::string>;

constexpr uint32_t levels[] = {KEL_LOG_ERROR,   KEL_LOG_ENTRY, KEL_LOG_RETURN,
                               KEL_LOG_VERBOSE, KEL_LOG_WARN,  KEL_LOG_PERF};

std::string prefix_of(const std::string &word)
{
    return "libkel " + word + ": tid=" + std::to_string(static_cast<int>(pthread_self())) + ": ";
}

std::string error_line(const std::string &message)
{
    return prefix_of("ERROR") + message + "\n";
}

// One line at each of these levels.
std::string level_lines(uint32_t options)
{
    static constexpr const char *words[] = {"ERROR", "ENTRY", "RETURN", "VERBOSE", "WARNING", "PERF"};
    std::string lines;
    for (size_t i = 0; i < std::size(levels); i++)
        if (options & levels[i])
            lines += prefix_of(words[i]) + "line\n";
    return lines;
}

std::string hex(const void *address)
{
    char text[24];
    snprintf(text, sizeof text, "0x%lx", reinterpret_cast<unsigned long>(address));
    return text;
}

std::string wrong_thread(const kel_context_t *ctx, pthread_t caller)
{
    return "Wrong thread " + std::to_string(static_cast<int>(caller)) + " using context; owner is " +
           std::to_string(static_cast<int>(ctx->thread->tid));
}

int syslog_fd = -1; // where the system log goes

struct environment {
    const char *log_options, *log_fd, *debug_options; // null: not set
};

// The places that a child writes to: standard error, two descriptors, the system log, a callback.
enum sink_t { err, fd_a, fd_b, sys, callback, n_sinks };
constexpr int fd_numbers[] = {2, 120, 121}; // in the child; the last sinks have no number

struct child_words {
    kel_status_t status;
    kel_log_t log;
    uint32_t debug_options;
    unsigned debug_calls;
};

struct child_outcome {
    child_words words;
    std::string text[n_sinks];
};

void set_variable(const char *name, const char *value)
{
    if (value)
        setenv(name, value, 1);
    else
        unsetenv(name);
}

// Opens a context under an environment in a process of its own, goes on with script, and tells what there was to see.
child_outcome in_child(const environment &env, const std::function<void(kel_context_t *, int)> &script)
{
    int files[n_sinks];
    for (int &file : files)
        file = memfd_create("sink", 0);
    void *memory = mmap(nullptr, sizeof(child_words), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    auto *words = static_cast<child_words *>(memory);
    const pid_t pid = fork();
    if (pid == 0) {
        set_variable("KEL_LOG_OPTIONS", env.log_options);
        set_variable("KEL_LOG_FD", env.log_fd);
        set_variable("KEL_DEBUG_OPTIONS", env.debug_options);
        for (const sink_t sink : {err, fd_a, fd_b})
            dup2(files[sink], fd_numbers[sink]);
        syslog_fd = files[sys];
        reset_hooks();
        kel_context_t *ctx = nullptr;
        words->status = kel_thread_init(2, 1, 0, nullptr, &ctx);
        words->debug_calls = kel_debug_calls;
        words->log = ctx->log;
        words->debug_options = ctx->debug_options;
        script(ctx, files[callback]);
        _exit(0);
    }
    int ended = -1;
    EXPECT_EQ(waitpid(pid, &ended, 0), pid);
    EXPECT_EQ(ended, 0);
    child_outcome outcome = {*words, {}};
    munmap(memory, sizeof(child_words));
    for (int sink = 0; sink < n_sinks; sink++) {
        std::string &text = outcome.text[sink];
        text.resize(static_cast<size_t>(lseek(files[sink], 0, SEEK_END)));
        EXPECT_EQ(pread(files[sink], text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
        close(files[sink]);
    }
    return outcome;
}

void log_every_level(kel_context_t *ctx)
{
    for (const uint32_t level : levels)
        kel_log_msg(ctx, level, "line");
}

} // namespace

extern "C" void syslog(int priority, const char *format, ...)
{
    if (priority != 15 || strcmp(format, "%s") != 0)
        dprintf(syslog_fd, "priority %d, format %s: ", priority, format);
    va_list args;
    va_start(args, format);
    vdprintf(syslog_fd, format, args);
    va_end(args);
    dprintf(syslog_fd, "\n");
}

// ---- The environment ------------------------------------------------------------------------------------------------

struct environment_row {
    environment env;
    uint32_t levels;
    int fd;
    bool syslog;
    uint32_t debug;
    lines_t reports;                 // what goes to standard error and to the system log
    const char *bad_debug = nullptr; // from where on KEL_DEBUG_OPTIONS is reported as bad
};

static const std::string bad_fd = "bad KEL_LOG_FD value: ", bad_log = "bad KEL_LOG_OPTIONS token at: ";

static const environment_row environment_rows[] = {
    {{nullptr, nullptr, nullptr}, 0, -1, false, 1, {}},
    {{nullptr, "x", nullptr}, 0, -1, false, 1, {}}, // not looked at
    {{nullptr, "120", "all"}, 0, -1, false, 15, {}},
    {{"", nullptr, ""}, 0, -1, true, 0, {}},
    {{",,", "120", ",,"}, 0, 120, false, 0, {}},
    {{"error,,entry", nullptr, "arg,,perf"}, 3, -1, true, 9, {}},
    {{",warn,", "120", ",extra,"}, 16, 120, false, 2, {}},
    {{"return,verbose,perf,return", "120", "sync"}, 44, 120, false, 4, {}},
    {{"all", nullptr, "extra,sync"}, 63, -1, true, 6, {}},
    {{"all", "2", "all,arg"}, 63, 2, false, 15, {}},
    // Unknown words
    {{"error,foo,all,bar", "120", nullptr}, 63, 120, false, 1, {bad_log + "foo,all,bar"}},
    {{"Error", nullptr, nullptr}, 0, -1, true, 1, {bad_log + "Error"}},
    {{",warn, error", nullptr, nullptr}, 16, -1, true, 1, {bad_log + " error"}},
    {{"err,errors", "120", nullptr}, 0, 120, false, 1, {bad_log + "err,errors"}},
    {{"perf,%s%n,", "120", nullptr}, 32, 120, false, 1, {bad_log + "%s%n,"}},
    {{"arg", "120", "error"}, 0, 120, false, 0, {bad_log + "arg"}, "error"},
    {{"error", "120", "arg,Extra,all"}, 1, 120, false, 0, {}, "Extra,all"},
    {{"error", nullptr, "sync,,x,"}, 1, -1, true, 0, {}, "x,"},
    {{"error", "2", "all,all "}, 1, 2, false, 0, {}, "all "},
    {{"warn,entry,return,verbose,perf", "120", "x"}, 62, 120, false, 0, {}, "x"},
    {{nullptr, nullptr, "x"}, 0, -1, false, 0, {}, "x"},
    // Descriptors
    {{"error", "", nullptr}, 1, -1, false, 1, {bad_fd}},
    {{"error", "120x", nullptr}, 1, -1, false, 1, {bad_fd + "120x"}},
    {{"error", "120 ", nullptr}, 1, -1, false, 1, {bad_fd + "120 "}},
    {{"error", "0x78", nullptr}, 1, -1, false, 1, {bad_fd + "0x78"}},
    {{"error", "stderr", nullptr}, 1, -1, false, 1, {bad_fd + "stderr"}},
    {{"foo,warn", "2,", "y"}, 16, -1, false, 0, {bad_log + "foo,warn", bad_fd + "2,"}, "y"},
    {{"error", " +0120", nullptr}, 1, 120, false, 1, {}},
    {{"error,perf", "-3", "x"}, 33, -3, false, 0, {}, "x"}, // no channel at all
};

TEST(environment, words_and_lines)
{
    for (const environment_row &row : environment_rows) {
        SCOPED_TRACE(&row - environment_rows);
        const child_outcome seen = in_child(row.env, [](kel_context_t *ctx, int) { log_every_level(ctx); });
        const kel_log_t &log = seen.words.log;
        EXPECT_EQ(seen.words.status, KEL_SUCCESS);
        EXPECT_EQ(log.options_init, row.levels);
        EXPECT_EQ(log.options_set, 0u);
        EXPECT_EQ(log.options, row.levels);
        EXPECT_EQ(log.fd_init, row.fd);
        EXPECT_EQ(log.syslog_init != 0, row.syslog);
        EXPECT_TRUE(log.fd == -1 && !log.cb && !log.cb_data && !log.syslog);
        EXPECT_EQ(seen.words.debug_options, row.debug);
        if (row.reports.empty()) {
            EXPECT_EQ(seen.words.debug_calls, row.bad_debug ? 1u : 0u);
        }

        std::string reports, lines;
        for (const std::string &report : row.reports)
            reports += error_line(report);
        if (row.bad_debug && row.levels & KEL_LOG_ERROR)
            lines = error_line(std::string("bad KEL_DEBUG_OPTIONS token at: ") + row.bad_debug);
        lines += level_lines(row.levels);
        EXPECT_EQ(seen.text[err], reports + (row.fd == 2 ? lines : ""));
        EXPECT_EQ(seen.text[fd_a], row.fd == 120 ? lines : "");
        EXPECT_EQ(seen.text[sys], reports + (row.syslog ? lines : ""));
    }
}

// The client's channel on top of the environment's. Setters by letter: S the system log, A and B two descriptors, C the
// callback, 0 a null callback, D descriptor -1, which is refused. A line of the environment's goes to the client's
// channel as well, whatever the client's levels, but to each target once.
TEST(environment, under_the_setters)
{
    const struct {
        const char *log_options, *log_fd;
        const char *setters;
        uint64_t options;
        uint32_t on_a, on_b, on_syslog, on_callback;
    } rows[] = {{nullptr, nullptr, "S", 64, 0, 0, 63, 0},
                {nullptr, nullptr, "A", 127, 63, 0, 0, 0},
                {nullptr, nullptr, "C", 5, 0, 0, 0, 5},
                {nullptr, nullptr, "SABC", 2, 0, 0, 0, 2},
                {nullptr, nullptr, "CBAS", 2, 0, 0, 2, 0},
                {nullptr, nullptr, "SCB", 2, 0, 2, 0, 0},
                {nullptr, nullptr, "C0", 2, 0, 0, 0, 0},
                {nullptr, nullptr, "CD", 2, 0, 0, 0, 2},
                {"error", "120", "A", 1, 1, 0, 0, 0},
                {"error", "120", "A", 3, 3, 0, 0, 0},
                {"error", "120", "A", 0, 1, 0, 0, 0},
                {"error", "120", "B", 1, 1, 1, 0, 0},
                {"error,warn", "120", "B", 2, 17, 19, 0, 0},
                {"error", "120", "B", 0, 1, 1, 0, 0},
                {"error", "120", "S", 2, 1, 0, 3, 0},
                {"error", "120", "C", 2, 1, 0, 0, 3},
                {"error", "120", "0", 2, 1, 0, 0, 0},
                {"all", nullptr, "S", 1, 0, 0, 63, 0},
                {"error", nullptr, "S", 3, 0, 0, 3, 0},
                {"error", nullptr, "A", 2, 3, 0, 1, 0},
                {"error", nullptr, "C", 0, 0, 0, 1, 1},
                {"error", "-1", "A", 2, 3, 0, 0, 0},
                {"", "120", "B", 2, 0, 2, 0, 0}};
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
        const auto script = [&](kel_context_t *ctx, int callback_fd) {
            constexpr kel_log_func_t show = [](kel_context_t *, void *fd, uint32_t level, const char *prefix,
                                               const char *message) {
                dprintf(*static_cast<int *>(fd), "%s%s\n", prefix, level & (level - 1) ? "levels" : message);
            };
            for (const char *setter = row.setters; *setter; setter++) {
                if (*setter == 'S')
                    kel_set_log(ctx, row.options);
                else if (*setter == 'C' || *setter == '0')
                    kel_set_log_callback(ctx, row.options, *setter == 'C' ? show : nullptr, &callback_fd);
                else
                    kel_set_log_file(ctx, row.options, *setter == 'D' ? -1 : fd_numbers[*setter == 'A' ? fd_a : fd_b]);
            }
            log_every_level(ctx);
        };
        const child_outcome seen = in_child({row.log_options, row.log_fd, nullptr}, script);
        EXPECT_EQ(seen.text[err], "");
        EXPECT_EQ(seen.text[fd_a], level_lines(row.on_a));
        EXPECT_EQ(seen.text[fd_b], level_lines(row.on_b));
        EXPECT_EQ(seen.text[sys], level_lines(row.on_syslog));
        EXPECT_EQ(seen.text[callback], level_lines(row.on_callback));
    }
}

// ---- The setters ----------------------------------------------------------------------------------------------------

static void no_callback(kel_context_t *, void *, uint32_t, const char *, const char *) {}

// What a setter is to leave: its own target, and the environment's channel as it was.
struct setter_row {
    kel_status_t (*call)(kel_context_t *ctx, uint64_t options);
    int fd;
    kel_log_func_t cb;
    void *cb_data;
    int syslog;
    bool refused = false; // for its target
};

static int datum;
static const setter_row setters[] = {
    {kel_set_log, -1, nullptr, nullptr, 1},
    {[](kel_context_t *ctx, uint64_t options) { return kel_set_log_file(ctx, options, 0); }, 0, nullptr, nullptr, 0},
    {[](kel_context_t *ctx, uint64_t options) { return kel_set_log_callback(ctx, options, no_callback, &datum); }, -1,
     no_callback, &datum, 0},
    {[](kel_context_t *ctx, uint64_t options) { return kel_set_log_callback(ctx, options, nullptr, &datum); }, -1,
     nullptr, &datum, 0},
    {[](kel_context_t *ctx, uint64_t options) { return kel_set_log_file(ctx, options, -1); }, 0, nullptr, nullptr, 0,
     true},
};

static auto log_words(const kel_log_t &log)
{
    return std::tuple{log.options_init, log.options_set, log.options,     log.fd_init,    log.fd,
                      log.cb,           log.cb_data,     log.syslog_init, log.syslog != 0};
}

TEST(setters, log_levels_and_targets)
{
    constexpr uint64_t high = uint64_t{1} << 32;
    constexpr int bad = -1;
    const struct {
        uint64_t options;
        int levels; // or bad
    } rows[] = {{0, 0},   {1, 1},          {63, 63},         {64, 63},         {65, 63},   {127, 63},
                {96, 63}, {128, bad},      {129, bad},       {192, bad},       {255, bad}, {high, bad},
                {32, 32}, {high | 1, bad}, {high | 64, bad}, {UINT64_MAX, bad}};
    for (const setter_row &setter : setters)
        for (const auto &row : rows) {
            SCOPED_TRACE(testing::Message() << "setter " << &setter - setters << ", options " << row.options);
            test_context ctx;
            const kel_log_t before = {8, 3, 11, 77, 78, ctx->log.cb, &ctx, 1, 1};
            ctx->log = before;
            const bool valid = row.levels != bad && !setter.refused;
            EXPECT_EQ(setter.call(ctx, row.options), valid ? KEL_SUCCESS : KEL_EINVAL);
            const auto set = static_cast<uint32_t>(row.levels);
            const kel_log_t after = {8, set, set | 8, 77, setter.fd, setter.cb, setter.cb_data, 1, setter.syslog};
            EXPECT_EQ(log_words(ctx->log), log_words(valid ? after : before));
            EXPECT_EQ(ctx.lines.size(), 0u);
            EXPECT_EQ(kel_debug_calls, 0u);
        }
}

TEST(setters, debug_options)
{
    constexpr uint64_t high = uint64_t{1} << 32;
    constexpr int bad = -1;
    const struct {
        uint64_t options;
        int after; // or bad
    } rows[] = {{0, 0},    {1, 1},    {6, 6},    {15, 15},    {16, 15},         {17, 15},         {31, 15},
                {32, bad}, {48, bad}, {47, bad}, {high, bad}, {high | 16, bad}, {UINT64_MAX, bad}};
    for (const auto &row : rows)
        for (const uint32_t before : {0u, 1u, 12u}) {
            test_context ctx(2, before);
            EXPECT_EQ(kel_set_debug(ctx, row.options), row.after == bad ? KEL_EINVAL : KEL_SUCCESS) << row.options;
            EXPECT_EQ(ctx->debug_options, row.after == bad ? before : static_cast<uint32_t>(row.after)) << row.options;
            EXPECT_EQ(ctx.lines.size(), 0u);
            EXPECT_EQ(kel_debug_calls, 0u);
        }
}

// KEL_DEBUG_SYNC comes on between chains only; bits that do not exist are seen before, and what is on stays on.
TEST(setters, debug_sync_with_an_unpolled_request)
{
    const struct {
        uint32_t before;
        uint64_t options;
        kel_status_t status;
    } rows[] = {
        {1, 4, KEL_EQFULL},  {0, 4, KEL_EQFULL},  {3, 15, KEL_EQFULL},  {1, 16, KEL_EQFULL},  {8, 31, KEL_EQFULL},
        {1, 36, KEL_EINVAL}, {1, 48, KEL_EINVAL}, {1, 11, KEL_SUCCESS}, {5, 12, KEL_SUCCESS}, {4, 16, KEL_SUCCESS},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
        test_context ctx(2, row.before);
        kel_queue_t *queue = nullptr;
        ASSERT_EQ(kel_queue_create(ctx, 2, &queue), KEL_SUCCESS);
        ASSERT_EQ(kel_nop_post(queue, 0, nullptr), KEL_SUCCESS);
        EXPECT_EQ(kel_set_debug(ctx, row.options), row.status);
        const bool full = row.status == KEL_EQFULL;
        EXPECT_EQ(ctx.messages(), full ? lines_t{"kel_set_debug(): Queue " + hex(queue) +
                                                 " has outstanding requests that have not been polled"}
                                       : lines_t());
        EXPECT_EQ(kel_debug_calls, full ? 1u : 0u);
        const auto set = static_cast<uint32_t>(row.options & 16 ? 15 : row.options);
        EXPECT_EQ(ctx->debug_options, row.status == KEL_SUCCESS ? set : row.before);
        kel_poll_t outcome;
        EXPECT_EQ(kel_poll(queue, &outcome, 1, 0), 1);
        EXPECT_EQ(kel_set_debug(ctx, 4), KEL_SUCCESS);
    }
}

// Any debug option arms the owner test, which comes before the tests of arguments.
TEST(setters, wrong_thread)
{
    std::vector<kel_status_t (*)(kel_context_t *, uint64_t)> calls = {kel_set_debug};
    for (const setter_row &setter : setters)
        if (!setter.refused)
            calls.push_back(setter.call);
    for (const auto call : calls)
        for (const uint64_t options : {uint64_t{0}, uint64_t{4}, UINT64_MAX})
            for (const uint32_t debug : {1u, 8u, 0u}) {
                test_context ctx(2, debug);
                const kel_log_t before = ctx->log;
                lines_t expected;
                std::thread([&] {
                    if (debug)
                        expected.push_back(wrong_thread(ctx, pthread_self()));
                    const kel_status_t unseen = options == UINT64_MAX ? KEL_EINVAL : KEL_SUCCESS;
                    EXPECT_EQ(call(ctx, options), debug ? KEL_ETHREAD : unseen);
                }).join();
                EXPECT_EQ(ctx.messages(), expected);
                EXPECT_EQ(kel_debug_calls, expected.size());
                if (debug) {
                    EXPECT_EQ(log_words(ctx->log), log_words(before));
                    EXPECT_EQ(ctx->debug_options, debug);
                }
            }
}

// ---- Properties -----------------------------------------------------------------------------------------------------

template <class... Word>
static std::vector<uint64_t> words(Word... word)
{
    return {uint64_t{word}...};
}

static std::vector<uint64_t> fields(const kel_props_t &p)
{
    return words(p.ones_saturates, p.max_elem_bits, p.max_elem_bytes, p.max_log_elem_bytes, p.max_var_elem_bytes,
                 p.max_rle_elem_bits, p.max_width_elem_bits, p.max_scan_value_bytes, p.dst_align, p.dst_pad,
                 p.trans_bitmap_align, p.zip_align, p.large_elem_align, p.zip_constrained, p.zip_native,
                 p.max_native_bitmap, p.max_zip_symbols, p.max_src_len, p.max_dst_len, p.debug_options, p.log_options,
                 p.max_zip_contig, p.trans_bitmap_align_best, p.zip_align_best, p.pipe);
}

static const std::vector<uint64_t> published[] = {
    words(1u, 16u, 16u, 4u, 16u, 8u, 8u, 16u, 64u, 64u, 64u, 16u, 1u, 1u, 0u, 32768u, 1024u, 16777216u, 67108864u, 15u,
          63u, 4098u, 4096u, 16u, 0u),
    words(1u, 24u, 16u, 4u, 16u, 8u, 8u, 16u, 64u, 64u, 16u, 16u, 1u, 0u, 1u, 65536u, 1024u, 16777216u, 67108864u, 15u,
          63u, 8192u, 8192u, 8192u, 1u),
};

// Both versions on one thread; the coprocessor's generation plays no part, nor do the options that are on.
TEST(props, of_each_version)
{
    for (const uint32_t debug : {0u, 1u, 9u}) {
        test_context first(1, debug, KEL_LOG_ENTRY | KEL_LOG_RETURN), second(2, debug, KEL_LOG_ENTRY | KEL_LOG_RETURN);
        first->kel_version = 2;
        second->kel_version = 1;
        for (test_context *ctx : {&first, &second}) {
            kel_props_t props;
            memset(&props, 0xa5, sizeof props);
            EXPECT_EQ(kel_get_props(*ctx, &props), KEL_SUCCESS);
            EXPECT_EQ(fields(props), published[ctx == &second]);
            ASSERT_EQ(ctx->lines.size(), 2u);
            EXPECT_EQ(ctx->lines[0].prefix, prefix_of("ENTRY"));
            EXPECT_EQ(ctx->lines[1].prefix, prefix_of("RETURN"));
            EXPECT_EQ(ctx->messages(), (lines_t{"kel_get_props(): ctx=" + hex(ctx->ctx) + ", props=" + hex(&props),
                                                "kel_get_props() returns SUCCESS"}));
        }
    }
    test_context ctx(2, 0, 0);
    ctx->api_version = 3;
    kel_props_t props;
    EXPECT_DEATH(kel_get_props(ctx, &props), "common/kel(\\.cpp)?:247: .*Assertion `0' failed");
}

// The owner test comes before the entry line, and calls no hook.
TEST(props, wrong_thread)
{
    for (const uint32_t debug : {1u, 8u, 0u})
        for (const uint32_t options : {63u, uint32_t{KEL_LOG_RETURN}, 0u}) {
            test_context ctx(1, debug, options);
            kel_props_t props;
            memset(&props, 0xa5, sizeof props);
            const kel_props_t untouched = props;
            lines_t expected;
            std::thread([&] {
                if (debug && options & KEL_LOG_ERROR)
                    expected.push_back(wrong_thread(ctx, pthread_self()));
                if (!debug && options & KEL_LOG_ENTRY)
                    expected.push_back("kel_get_props(): ctx=" + hex(ctx.ctx) + ", props=" + hex(&props));
                if (options & KEL_LOG_RETURN)
                    expected.push_back(std::string("kel_get_props() returns ") + (debug ? "ETHREAD" : "SUCCESS"));
                EXPECT_EQ(kel_get_props(ctx, &props), debug ? KEL_ETHREAD : KEL_SUCCESS);
            }).join();
            EXPECT_EQ(fields(props), debug ? fields(untouched) : published[0]);
            EXPECT_EQ(ctx.messages(), expected);
            EXPECT_EQ(kel_debug_calls, 0u);
        }
}
