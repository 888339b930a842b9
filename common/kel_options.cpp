// Log and debug options: word lists of the environment, and the setters.
#include "kel_options.h"
#include "kel_frame.h"
#include <cstdlib>
#include <cstring>
#include <iterator>

namespace
{

constexpr option_t log_option_table[] = {
    {"error", KEL_LOG_ERROR},     {"warn", KEL_LOG_WARN}, {"entry", KEL_LOG_ENTRY}, {"return", KEL_LOG_RETURN},
    {"verbose", KEL_LOG_VERBOSE}, {"perf", KEL_LOG_PERF}, {"all", kel_log_levels},
};

constexpr option_t debug_option_table[] = {
    {"arg", KEL_DEBUG_ARG},   {"extra", KEL_DEBUG_EXTRA}, {"sync", KEL_DEBUG_SYNC},
    {"perf", KEL_DEBUG_PERF}, {"all", kel_debug_options},
};

// A log line stands on the stack, so that what the environment says is shown up to here.
constexpr int shown_bytes = 200;

// Calls word(text, place) for every word of a list, with the place of the word in the list, until it answers false. A
// list that cannot be copied has no words.
template <class Word>
void each_word(const char *list, const Word &word)
{
    char *copy = strdup(list);
    if (!copy)
        return;
    bool more = true;
    for (char *start = copy; more && start;) {
        char *comma = strchr(start, ',');
        if (comma)
            *comma = '\0';
        more = *start == '\0' || word(start, list + (start - copy));
        start = comma ? comma + 1 : nullptr;
    }
    free(copy);
}

// The log options that a setter is given, with KEL_LOG_ALL resolved; false if a bit does not exist.
bool log_options(uint64_t options, uint32_t *resolved)
{
    const bool all = options & KEL_LOG_ALL;
    *resolved = all ? kel_log_levels : static_cast<uint32_t>(options);
    const uint64_t known = all ? kel_log_levels | KEL_LOG_ALL : kel_log_levels;
    return (options & ~known) == 0;
}

// The common road of the log setters; false with the status if they are to stop.
bool start_set_log(kel_context_t *ctx, uint64_t options, bool target_valid, kel_status_t *status)
{
    uint32_t resolved;
    if (bad_thread_return(ctx))
        *status = KEL_ETHREAD;
    else if (!log_options(options, &resolved) || !target_valid)
        *status = KEL_EINVAL;
    else {
        kel_log_reset(ctx, resolved);
        *status = KEL_SUCCESS;
    }
    return *status == KEL_SUCCESS;
}

// The environment's descriptor: all of the variable must be one number.
bool parse_fd(const char *text, int *fd)
{
    char *end;
    const long number = strtol(text, &end, 10);
    if (end == text || *end != '\0')
        return false;
    *fd = static_cast<int>(number);
    return true;
}

} // namespace

int get_option(const char *name, const option_t *table, size_t n, uint64_t *value)
{
    for (size_t i = 0; i < n; i++) {
        if (strcmp(table[i].name, name) == 0) {
            *value = table[i].value;
            return 1;
        }
    }
    return 0;
}

uint64_t get_options(const char *text, const option_t *table, size_t n)
{
    uint64_t options = 0;
    each_word(text, [&](const char *word, const char *) {
        uint64_t value = 0;
        get_option(word, table, n, &value);
        options |= value;
        return true;
    });
    return options;
}

const char *bad_options(const char *text, const option_t *table, size_t n)
{
    const char *bad = nullptr;
    each_word(text, [&](const char *word, const char *place) {
        uint64_t value;
        if (!get_option(word, table, n, &value))
            bad = place;
        return !bad;
    });
    return bad;
}

void kel_log_reset(kel_context_t *ctx, uint32_t options)
{
    kel_log_t &log = ctx->log;
    log.fd = -1;
    log.cb = nullptr;
    log.cb_data = nullptr;
    log.syslog = 0;
    log.options_set = options;
    log.options = options | log.options_init;
}

void kel_log_init(kel_context_t *ctx)
{
    kel_log_t &log = ctx->log;
    log.options_init = 0;
    log.fd_init = -1;
    log.syslog_init = 0;
    if (const char *options = secure_getenv("KEL_LOG_OPTIONS")) {
        if (const char *bad = bad_options(options, log_option_table, std::size(log_option_table)))
            kel_log_msg(nullptr, KEL_LOG_ERROR, "bad KEL_LOG_OPTIONS token at: %.*s", shown_bytes, bad);
        log.options_init = static_cast<uint32_t>(get_options(options, log_option_table, std::size(log_option_table)));
        const char *fd = secure_getenv("KEL_LOG_FD");
        if (!fd)
            log.syslog_init = 1;
        else if (!parse_fd(fd, &log.fd_init))
            kel_log_msg(nullptr, KEL_LOG_ERROR, "bad KEL_LOG_FD value: %.*s", shown_bytes, fd);
    }
    kel_log_reset(ctx, 0);
}

void kel_debug_init(kel_context_t *ctx)
{
    const char *options = secure_getenv("KEL_DEBUG_OPTIONS");
    ctx->debug_options = 0;
    if (!options) {
        ctx->debug_options = KEL_DEBUG_ARG;
    } else if (const char *bad = bad_options(options, debug_option_table, std::size(debug_option_table))) {
        kel_report(ctx, "bad KEL_DEBUG_OPTIONS token at: %.*s", shown_bytes, bad);
    } else {
        const uint64_t known = get_options(options, debug_option_table, std::size(debug_option_table));
        ctx->debug_options = static_cast<uint32_t>(known);
    }
}

kel_status_t kel_set_log(kel_context_t *ctx, uint64_t options)
{
    kel_status_t status;
    if (start_set_log(ctx, options, true, &status))
        ctx->log.syslog = 1;
    return status;
}

kel_status_t kel_set_log_file(kel_context_t *ctx, uint64_t options, int fd)
{
    kel_status_t status;
    if (start_set_log(ctx, options, fd >= 0, &status))
        ctx->log.fd = fd;
    return status;
}

kel_status_t kel_set_log_callback(kel_context_t *ctx, uint64_t options, kel_log_func_t cb, void *cb_data)
{
    kel_status_t status;
    if (start_set_log(ctx, options, true, &status)) {
        ctx->log.cb = cb;
        ctx->log.cb_data = cb_data;
    }
    return status;
}

kel_status_t kel_set_debug(kel_context_t *ctx, uint64_t options)
{
    if (bad_thread_return(ctx))
        return KEL_ETHREAD;
    if (options & KEL_DEBUG_ALL)
        options = (options & ~uint64_t{KEL_DEBUG_ALL}) | kel_debug_options;
    if (options > kel_debug_options)
        return KEL_EINVAL;
    const bool sync_comes = options & ~ctx->debug_options & KEL_DEBUG_SYNC;
    if (sync_comes && !debug_sync_check(ctx))
        return KEL_EQFULL;
    ctx->debug_options = static_cast<uint32_t>(options);
    return KEL_SUCCESS;
}
