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

// ---- Training and encoding ------------------------------------------------------------------------------------------

static void clear(void *buf, uint64_t buflen)
{
    if (buflen > 0)
        memset(buf, 0, buflen);
}

int vorp_kel_zip(const void *src, uint64_t srclen, void *buf, uint64_t buflen, uint64_t *outlen, vorp_alloc_func alloc,
                 vorp_free_func release, vorp_log_func log, void *opaque, vorp_level_t level, uint8_t *dict_out,
                 uint64_t *count)
{
    vorp_log_t record = {log, opaque};
    vorp_config_t config;
    vorp_config_init(&config, level, &record);
    clear(buf, buflen);
    vorp_adjust_dictionary_size(srclen, &config);
    return vorp_encode_internal(static_cast<const uint8_t *>(src), srclen, static_cast<uint8_t *>(buf), buflen, outlen,
                                &config, alloc, release, opaque, dict_out, count);
}

uint64_t vorp_kel_encode(const void *src, uint64_t srclen, void *buf, uint64_t buflen, uint64_t *outlen,
                         vorp_alloc_func alloc, vorp_free_func release, vorp_log_func log, void *opaque, unsigned nsyms,
                         const uint8_t *widths, const uint8_t *syms, const uint16_t *offsets, uint64_t *count)
{
    constexpr uint64_t no_codewords = static_cast<uint64_t>(-1);
    constexpr uint64_t no_memory = static_cast<uint64_t>(-2);
    vorp_log_t record = {log, opaque};
    vorp_config_t config;
    vorp_config_init(&config, VORP4, &record);
    vorp_mempool_t pool;
    if (vorp_mempool_init(&config, &pool, vorp_pool_bytes, alloc, release, opaque) != 0) {
        *outlen = 0;
        return no_memory;
    }
    vorp_dict_t dict;
    make_vorp_dict(nsyms, widths, syms, offsets, &pool, &dict);
    clear(buf, buflen);
    int overflow = 0;
    const uint64_t parsed = vorp_parse_fixed(static_cast<const uint8_t *>(src), srclen, static_cast<uint8_t *>(buf),
                                             buflen, outlen, zip_code_width(nsyms), &dict, &config, &overflow, count);
    free_vorp_dict(&dict);
    return parsed == 0 ? no_codewords : static_cast<uint64_t>(overflow);
}
