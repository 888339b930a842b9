// The road of a log line to its channels.
#include "kel_log.h"
#include "kel_init.h"
#include "kel_text.h"
#include <alloca.h>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <syslog.h>
#include <unistd.h>

namespace
{

constexpr size_t prefix_size = 80;

// One line in the making: prefix and message in one buffer, with room for a newline behind.
struct line_t {
    char *text;
    size_t length;
};

void write_syslog(const line_t &line)
{
    syslog(LOG_USER | LOG_DEBUG, "%s", line.text);
}

// Line and newline go out in one call, so that lines of several threads do not mix.
void write_fd(int fd, const line_t &line)
{
    line.text[line.length] = '\n';
    [[maybe_unused]] const ssize_t ignored = write(fd, line.text, line.length + 1);
    line.text[line.length] = '\0';
}

void write_flushed(int fd, const line_t &line)
{
    fflush(stdout);
    fflush(stderr);
    write_fd(fd, line);
}

// The environment's channel, then the client's: a line that the former has taken is not repeated on the same target.
void write_channels(kel_context_t *ctx, uint32_t level, const line_t &line, const char *prefix, const char *message)
{
    const kel_log_t &log = ctx->log;
    bool in_syslog = false;
    int in_fd = -1;
    if (log.options_init & level) {
        if (log.fd_init >= 0)
            write_flushed(in_fd = log.fd_init, line);
        else if ((in_syslog = log.syslog_init))
            write_syslog(line);
    }
    if (!(log.options & level))
        return;
    if (log.syslog && !in_syslog)
        write_syslog(line);
    else if (log.fd >= 0 && log.fd != in_fd)
        write_flushed(log.fd, line);
    else if (log.cb)
        log.cb(ctx, log.cb_data, level, prefix, message);
}

} // namespace

bool kel_log_on(const kel_context_t *ctx, uint32_t level)
{
    return !ctx || ctx->log.options & level;
}

void kel_log_msg(kel_context_t *ctx, uint32_t level, const char *format, ...)
{
    if (ctx && !((ctx->log.options | ctx->log.options_init) & level))
        return;

    const int caller_errno = errno; // which writing a line may change
    char prefix[prefix_size];
    const int thread = static_cast<int>(pthread_self());
    const size_t prefix_length =
        static_cast<size_t>(snprintf(prefix, sizeof prefix, "libkel %s: tid=%d: ", log_str(level), thread));

    va_list args;
    va_start(args, format);
    va_list measured_args;
    va_copy(measured_args, args);
    const int measured = vsnprintf(nullptr, 0, format, measured_args);
    va_end(measured_args);
    const size_t message_length = measured > 0 ? static_cast<size_t>(measured) : 0;

    line_t line = {static_cast<char *>(alloca(prefix_length + message_length + 2)), prefix_length + message_length};
    memcpy(line.text, prefix, prefix_length + 1);
    vsnprintf(line.text + prefix_length, message_length + 1, format, args);
    va_end(args);

    if (ctx) {
        write_channels(ctx, level, line, prefix, line.text + prefix_length);
    } else {
        write_fd(STDERR_FILENO, line);
        write_syslog(line);
    }
    errno = caller_errno;
}
