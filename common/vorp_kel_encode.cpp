// A context's memory and log, as the callbacks of the vorp code.
#include "kel_init.h"
#include "vorp.h"
#include <alloca.h>
#include <cstdarg>

static constexpr uint64_t size_word = sizeof(uint64_t); // in front of a block, for its release

void *kel_alloc_func(void *ctx, uint64_t n, uint64_t size)
{
    const uint64_t total = n * size + size_word;
    auto *block = static_cast<uint8_t *>(kel_malloc(static_cast<kel_context_t *>(ctx), total));
    if (!block)
        return nullptr;
    memcpy(block, &total, size_word);
    memset(block + size_word, 0, total - size_word);
    return block + size_word;
}

void *kel_free_func(void *ctx, void *block)
{
    uint8_t *start = static_cast<uint8_t *>(block) - size_word;
    uint64_t total;
    memcpy(&total, start, size_word);
    kel_free(static_cast<kel_context_t *>(ctx), start, total);
    return block;
}

// The format without its last character, with room for it at to.
__attribute__((format_arg(2))) static const char *cut_format(char *to, const char *format)
{
    const size_t length = strlen(format);
    const size_t kept = length > 0 ? length - 1 : 0;
    memcpy(to, format, kept);
    to[kept] = '\0';
    return to;
}

__attribute__((format(printf, 2, 0))) static void log_text(kel_context_t *ctx, const char *format, va_list args)
{
    va_list measured_args;
    va_copy(measured_args, args);
    const int measured = vsnprintf(nullptr, 0, format, measured_args);
    va_end(measured_args);
    const size_t size = measured > 0 ? static_cast<size_t>(measured) + 1 : 1;
    auto *text = static_cast<char *>(alloca(size));
    vsnprintf(text, size, format, args);
    kel_log_msg(ctx, KEL_LOG_VERBOSE, "%s", text);
}

void kel_log_func(void *ctx, const char *format, ...)
{
    auto *context = static_cast<kel_context_t *>(ctx);
    if (!kel_log_on(context, KEL_LOG_VERBOSE))
        return;
    auto *room = static_cast<char *>(alloca(strlen(format) + 1));
    va_list args;
    va_start(args, format);
    log_text(context, cut_format(room, format), args);
    va_end(args);
}
