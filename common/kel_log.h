// Log lines and failure reports: the only way in which the library speaks.
#pragma once

#include "kel.h"

// Where a context's log lines go. There are two channels: the environment's, set at kel_thread_init for good, and the
// one that the client sets.
typedef struct {
    uint32_t options_init; // levels of the environment's channel
    uint32_t options_set;  // levels that the client asked for
    uint32_t options;      // the union of both: what call sites test, and the levels of the client's channel
    int fd_init;           // descriptor of the environment's channel, or -1
    int fd;                // descriptor of the client's channel, or -1
    kel_log_func_t cb;     // the client's callback, or null
    void *cb_data;
    int syslog_init; // non-zero: the environment's channel is the system log
    int syslog;      // non-zero: the client's channel is the system log
} kel_log_t;

// Failure hooks, for breakpoints: kel_debug is called after every report of a failure, emulate_error by a kernel that
// fails. Both are empty and weak, so that a client's function of the same name takes their place.
extern "C" KEL_API void kel_debug(void);
extern "C" KEL_API void emulate_error(void);

// Whether a line of this level is to be written. A null context writes every line.
bool kel_log_on(const kel_context_t *ctx, uint32_t level);

// Writes one line, of any length, and leaves errno as it is. It goes to the channels of the context that have the
// level, and takes no memory from the heap. With a null context the line goes to standard error and to the system log.
void kel_log_msg(kel_context_t *ctx, uint32_t level, const char *format, ...) __attribute__((format(printf, 3, 4)));

// A line whose arguments are evaluated, and whose text is built, only if its level is on; hence a macro.
#define kel_log_line(ctx, level, ...)                                                                                  \
    do {                                                                                                               \
        if (kel_log_on(ctx, level))                                                                                    \
            kel_log_msg(ctx, level, __VA_ARGS__);                                                                      \
    } while (0)

// Reports a failure: a line at error level if that level is on or there is no context, then kel_debug.
#define kel_report(ctx, ...)                                                                                           \
    do {                                                                                                               \
        kel_log_line(ctx, KEL_LOG_ERROR, __VA_ARGS__);                                                                 \
        kel_debug();                                                                                                   \
    } while (0)

// A pointer as the log shows it: the formats say 0x%lx, so that null is 0x0.
inline unsigned long kel_log_ptr(const void *pointer)
{
    return reinterpret_cast<unsigned long>(pointer);
}
