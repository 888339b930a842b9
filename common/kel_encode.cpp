// Training and encoding: the public calls over the dictionary builder.
#include "kel_frame.h"
#include "kel_valid.h"
#include "kel_zip.h"
#include "vorp.h"
#include <iterator>

namespace
{

constexpr uint64_t thorough = 1; // the only option

int source_valid(kel_context_t *ctx, const kel_vec_t *src, unsigned version, int log)
{
    int valid = thread_valid(ctx, log);
    valid &= src_valid(ctx, src, KEL_VAR, KEL_ZIP, "src", version, log);
    return valid;
}

int zip_valid(kel_context_t *ctx, uint64_t options, const kel_vec_t *src, unsigned version)
{
    return kel_validate([=](auto log) KEL_INLINED {
        const uint64_t bad = options & ~thorough;
        int valid = kel_test(log, bad == 0, ctx, "bad options 0x%lx", bad);
        valid &= source_valid(ctx, src, version, log);
        return valid;
    });
}

int encode_valid(kel_context_t *ctx, const kel_vec_t *src, unsigned version)
{
    return kel_validate([=](auto log) KEL_INLINED { return source_valid(ctx, src, version, log); });
}

// Whether there is a buffer where bytes are to go; without room there need not be one.
bool room_given(kel_context_t *ctx, const void *buf, size_t capacity)
{
    return capacity == 0 || kel_given(ctx, {{"buf", buf}});
}

void log_ratio(kel_context_t *ctx, const char *what, uint64_t length, uint64_t compressed)
{
    kel_log_line(ctx, KEL_LOG_PERF, "compression ratio %s codec = %.2lf", what,
                 static_cast<double>(length) / static_cast<double>(compressed));
}

// The status of a stream and its codec together, which are to be no larger than the source.
kel_status_t weigh(kel_context_t *ctx, const kel_zip_t *codec, uint64_t outlen, uint64_t length, kel_status_t status)
{
    const uint64_t total = kel_zip_size(ctx, codec) + outlen;
    log_ratio(ctx, "including", length, total);
    if (total <= length)
        return status;
    kel_report(ctx, "Negative compression. dst + codec len %lu > src len %lu", total, length);
    return KEL_EZIP;
}

void report_overflow(kel_context_t *ctx, uint64_t capacity, uint64_t needed)
{
    kel_report(ctx, "Compression buffer overflow. buffer size = %lu, needed = %lu", capacity, needed);
}

// What came of training, before there is a codec.
kel_status_t training_status(kel_context_t *ctx, int outcome, unsigned nsyms, uint64_t outlen, size_t *buflen)
{
    if (outcome < 0 && nsyms > kel_max_zip_symbols) {
        kel_report(ctx, "Too many symbols %d", static_cast<int>(nsyms));
        return KEL_EZIP;
    }
    if (outcome == -1) {
        kel_log_line(ctx, KEL_LOG_PERF,
                     "Too many candidate symbols; temp space limit exceeded.  Data is not compressible.");
        return KEL_EZIP;
    }
    if (outcome < 0)
        return KEL_ENOMEM;
    if (outcome == 0)
        return KEL_SUCCESS;
    *buflen = outlen; // kept: before the report, which so shows the needed size twice
    report_overflow(ctx, *buflen, outlen);
    return KEL_EOVERFLOW;
}

kel_result_t zip(kel_context_t *ctx, uint64_t options, const kel_vec_t *src, void *buf, size_t *buflen,
                 kel_zip_t **codec)
{
    const uint64_t length = kel_decoded_bytes(ctx, src);
    if (src->format & KEL_VAR && length == 0)
        return {KEL_EINVAL, 0, 0};

    uint8_t dict[vorp_dict_out_bytes];
    memset(dict, 0, kel_zip_header + kel_zip_width_bytes(kel_max_zip_symbols)); // widths that training leaves out
    uint64_t outlen = 0;
    uint64_t count = 0;
    const vorp_level_t level = options & thorough ? VORP4 : VORP3;
    const int outcome = vorp_kel_zip(src->data, length, buf, *buflen, &outlen, kel_alloc_func, kel_free_func,
                                     kel_log_func, ctx, level, dict, &count);
    *codec = nullptr;
    const unsigned all = kel_load_be<uint16_t>(dict);
    const unsigned nsyms = vorp_fix_zeros(all, dict + kel_zip_header);
    if (outlen != 0) {
        kel_log_line(ctx, KEL_LOG_VERBOSE, "Created codec with %u symbols", nsyms);
        log_ratio(ctx, "excluding", length, outlen);
    }
    kel_status_t status = training_status(ctx, outcome, nsyms, outlen, buflen);
    if (outcome < 0)
        return {status, 0, 0};

    const uint8_t *symbols = dict + kel_zip_header + kel_zip_width_bytes(all);
    const kel_status_t created = kel_vorp_create(ctx, nsyms, dict + kel_zip_header, symbols, codec);
    if (created != KEL_SUCCESS)
        return {created, 0, 0};
    status = weigh(ctx, *codec, outlen, length, status);
    if (status == KEL_EZIP)
        zip_free(ctx, *codec); // kept: *codec still shows where it was
    *buflen = outlen;
    return {status, 0, status == KEL_SUCCESS ? count : 0};
}

// Packed widths and offsets of a codec's symbols, as the parser wants them.
struct parser_tables {
    explicit parser_tables(const kel_zip_t *codec)
    {
        const uint64_t tables = codec->vorp ? kel_zip_header + kel_zip_width_bytes(codec->nsyms) : sizeof(huff_table_t);
        inside = codec->nsyms <= kel_max_zip_symbols && tables <= codec->dict_sz;
        if (!inside)
            return;
        kel_zip_offsets(codec, offsets);
        const auto symbols = static_cast<uint64_t>(codec->syms - static_cast<const uint8_t *>(codec->dict));
        for (unsigned code = 0; code < codec->nsyms; code++) {
            const unsigned width = zip_width(kel_zip_widths(codec), code, codec->vorp) & 15;
            const unsigned pair = code % 2 ? widths[code / 2] | width : width << 4;
            widths[code / 2] = static_cast<uint8_t>(pair);
            inside &= symbols + offsets[code] + width <= codec->dict_sz;
        }
    }

    bool inside; // the image has all of the symbols, which validation need not have tested
    uint8_t widths[kel_max_zip_symbols / 2];
    uint16_t offsets[kel_max_zip_symbols];
};

kel_result_t encode(kel_context_t *ctx, const kel_vec_t *src, void *buf, size_t *buflen, const kel_zip_t *codec)
{
    const uint64_t length = kel_data_bytes(src);
    const parser_tables tables(codec);
    if (!tables.inside) {
        kel_report(ctx, "EDATAFMT: codec of %u symbols passes its image of %lu bytes", codec->nsyms,
                   static_cast<unsigned long>(codec->dict_sz));
        return {KEL_EDATAFMT, 0, 0};
    }

    uint64_t outlen = 0;
    uint64_t count = 0;
    const uint16_t *offsets = codec->vorp ? nullptr : tables.offsets; // packed symbols need none
    const auto outcome = static_cast<int64_t>(vorp_kel_encode(src->data, length, buf, *buflen, &outlen, kel_alloc_func,
                                                              kel_free_func, kel_log_func, ctx, codec->nsyms,
                                                              tables.widths, codec->syms, offsets, &count));
    if (outlen != 0)
        log_ratio(ctx, "excluding", length, outlen);
    if (outcome == -2)
        return {KEL_ENOMEM, 0, 0};
    if (outcome < 0) {
        kel_report(ctx, "Some bytes in src cannot be encoded with codec");
        return {KEL_EZIP, 0, 0};
    }
    if (outcome > 0)
        report_overflow(ctx, *buflen, outlen);
    const kel_status_t status = weigh(ctx, codec, outlen, length, outcome > 0 ? KEL_EOVERFLOW : KEL_SUCCESS);
    *buflen = outlen;
    return {status, 0, status == KEL_SUCCESS ? count : 0};
}

} // namespace

kel_result_t kel_zip(kel_context_t *ctx, uint64_t options, const kel_vec_t *src, void *buf, size_t *buflen,
                     kel_zip_t **codec)
{
    if (!kel_given(ctx, {{"src", src}, {"buflen", buflen}, {"codec", codec}}))
        return {KEL_EINVAL, 0, 0};
    if (kel_log_on(ctx, KEL_LOG_ENTRY)) {
        char text[kel_args_text_size];
        kel_log_msg(ctx, KEL_LOG_ENTRY,
                    "kel_zip(): ctx=0x%lx, options=0x%lx,\n  src = %s\n  buf=0x%lx, *buflen=%lu, &codec=0x%lx",
                    kel_log_ptr(ctx), options, src_vec_str(ctx, src, text, sizeof text), kel_log_ptr(buf), *buflen,
                    kel_log_ptr(codec));
    }
    kel_result_t result = {KEL_EINVAL, 0, 0};
    const bool tested = ctx->debug_options & KEL_DEBUG_ARG;
    if (!tested || (zip_valid(ctx, options, src, ctx->api_version) && room_given(ctx, buf, *buflen)))
        result = zip(ctx, options, src, buf, buflen, codec);
    kel_log_line(ctx, KEL_LOG_RETURN, "kel_zip() returns codec=0x%lx, *buflen=%ld, and {%s, count=%ld}",
                 kel_log_ptr(*codec), static_cast<long>(*buflen), kel_status_str(result.status),
                 static_cast<long>(result.count));
    return result;
}

kel_result_t kel_encode(kel_context_t *ctx, const kel_vec_t *src, void *buf, size_t *buflen, const kel_zip_t *codec)
{
    if (!kel_given(ctx, {{"src", src}, {"buflen", buflen}, {"codec", codec}}))
        return {KEL_EINVAL, 0, 0};
    if (kel_log_on(ctx, KEL_LOG_ENTRY)) {
        char text[kel_args_text_size];
        kel_log_msg(ctx, KEL_LOG_ENTRY, "kel_encode(): ctx=0x%lx,\n  src = %s\n  buf=0x%lx, *buflen=%lu, codec=0x%lx",
                    kel_log_ptr(ctx), src_vec_str(ctx, src, text, sizeof text), kel_log_ptr(buf), *buflen,
                    kel_log_ptr(codec));
    }
    kel_result_t result = {KEL_EINVAL, 0, 0};
    const bool tested = ctx->debug_options & KEL_DEBUG_ARG;
    if (!tested || (encode_valid(ctx, src, ctx->api_version) && room_given(ctx, buf, *buflen)))
        result = encode(ctx, src, buf, buflen, codec);
    kel_log_line(ctx, KEL_LOG_RETURN, "kel_encode() returns *buflen=%ld and {%s, count=%ld}",
                 static_cast<long>(*buflen), kel_status_str(result.status), static_cast<long>(result.count));
    return result;
}
