// Codecs: creation, the rules of images, export, release.
#include "kel_zip.h"
#include "kel_frame.h"
#include "kel_io.h"
#include <algorithm>

// ---- Widths and places of symbols -----------------------------------------------------------------------------------

// The end of a symbol within its row; k is the symbol's place in it.
static unsigned row_end(const huff_sym_table_entry_t &row, unsigned k)
{
    return row.s.sbos >> (12 - 4 * k) & 15u;
}

static unsigned row_start(const huff_sym_table_entry_t &row, unsigned k)
{
    return k == 0 ? 0 : row_end(row, k - 1);
}

unsigned huff_width(const void *rows, unsigned code)
{
    const auto &row = static_cast<const huff_sym_table_entry_t *>(rows)[code % kel_zip_rows];
    const unsigned k = code / kel_zip_rows;
    return row_end(row, k) - row_start(row, k);
}

unsigned kel_zip_row_place(const void *rows, unsigned code)
{
    const unsigned row = code % kel_zip_rows;
    const unsigned start = row_start(static_cast<const huff_sym_table_entry_t *>(rows)[row], code / kel_zip_rows);
    return static_cast<unsigned>(row * sizeof(huff_sym_table_entry_t) + offsetof(huff_sym_table_entry_t, s.sym_bytes)) +
           start;
}

unsigned zip_width(const void *widths, unsigned code, int vorp)
{
    return vorp ? vorp_width(widths, code) : huff_width(widths, code);
}

const void *kel_zip_widths(const kel_zip_t *codec)
{
    return static_cast<const uint8_t *>(codec->dict) + (codec->vorp ? kel_zip_header : sizeof(huff_len_table_t));
}

void kel_zip_offsets(const kel_zip_t *codec, uint16_t *offsets)
{
    const auto *widths = static_cast<const uint8_t *>(kel_zip_widths(codec));
    const auto rows_place = static_cast<unsigned>(codec->syms - widths); // used for rows alone
    unsigned packed = 0;
    for (unsigned code = 0; code < codec->nsyms; code++) {
        const unsigned place = codec->vorp ? packed : kel_zip_row_place(widths, code) - rows_place;
        offsets[code] = static_cast<uint16_t>(place);
        packed += zip_width(widths, code, codec->vorp);
    }
}

unsigned zip_code_width(unsigned nsyms)
{
    return static_cast<unsigned>(std::bit_width(nsyms)) - kel_power_of_two(nsyms);
}

// ---- Rules ----------------------------------------------------------------------------------------------------------

namespace
{

// What a walk over a table of widths finds. It takes a byte at a time, the low half first, and ends at a bad one.
struct width_walk {
    unsigned sum = 0;
    unsigned faults = 0;
    struct {
        unsigned code;
        unsigned width;
    } fault[2];

    void test(unsigned code, unsigned width)
    {
        if (kel_bad_width(width))
            fault[faults++] = {code, width};
    }
};

} // namespace

// available: bytes of the table that may be read. Kept: with an odd number of symbols the high half of the byte where
// the walk stopped is added and tested, even if the walk has had it.
static width_walk walk_widths(unsigned nsyms, const uint8_t *widths, uint64_t available)
{
    width_walk walk;
    unsigned i = 0;
    for (; i < nsyms / 2 && i < available; i++) {
        const unsigned high = widths[i] >> 4;
        const unsigned low = widths[i] & 15;
        walk.sum += high + low;
        walk.test(2 * i + 1, low);
        if (walk.faults == 0)
            walk.test(2 * i, high);
        if (walk.faults > 0)
            break;
    }
    if (nsyms % 2 != 0 && i < available) {
        walk.sum += widths[i] >> 4;
        walk.test(2 * i, widths[i] >> 4);
    }
    return walk;
}

unsigned zip_sum_widths(unsigned nsyms, const uint8_t *widths, int *bad)
{
    const width_walk walk = walk_widths(nsyms, widths, UINT64_MAX);
    *bad = walk.faults > 0;
    return walk.sum;
}

// The lowest row that has too many symbol bytes is reported.
static int rows_valid(kel_context_t *ctx, unsigned nsyms, const uint8_t *widths, uint64_t available)
{
    unsigned sums[kel_zip_rows] = {};
    for (unsigned code = 0; code < nsyms && code / 2 < available; code++)
        sums[code % kel_zip_rows] += vorp_width(widths, code);
    const unsigned *end = sums + kel_zip_rows;
    const unsigned *row = std::find_if(sums, sums + kel_zip_rows, [](unsigned sum) { return sum > kel_zip_row_bytes; });
    return kel_test(1, row == end, ctx,
                    "zip dictionary symbol length sum starting at symbol %d is %d, which exceeds the maximum of %d "
                    "bytes",
                    static_cast<int>(row - sums), static_cast<int>(*row), static_cast<int>(kel_zip_row_bytes));
}

int kel1_dict_valid(kel_context_t *ctx, unsigned nsyms, const uint8_t *widths, const uint8_t *)
{
    return rows_valid(ctx, nsyms, widths, UINT64_MAX);
}

unsigned vorp_fix_zeros(unsigned nsyms, const uint8_t *widths)
{
    while (nsyms > 0 && vorp_width(widths, nsyms - 1) == 0)
        nsyms--;
    return nsyms;
}

// The three tests that both ways to create a codec make.
static int symbols_valid(kel_context_t *ctx, unsigned nsyms, const uint8_t *widths, uint64_t available)
{
    const bool half_used = nsyms % 2 != 0 && nsyms / 2 < available;
    int valid =
        kel_test(1, !half_used || (widths[nsyms / 2] & 15) == 0, ctx, "last unused width in widths[] is not zero");
    valid &= kel_test(1, nsyms >= 1 && nsyms <= kel_max_zip_symbols, ctx, "nsyms=%d exceeds maximum of %d",
                      static_cast<int>(nsyms), static_cast<int>(kel_max_zip_symbols));
    valid &= thread_valid(ctx, 1);
    return valid;
}

// Bytes of the widths of an image that may be read.
static uint64_t available_widths(const void *buf, size_t length)
{
    return !buf ? UINT64_MAX : length > kel_zip_header ? length - kel_zip_header : 0;
}

int zip_create_valid(kel_context_t *ctx, unsigned nsyms, const uint8_t *widths, const void *buf, size_t length)
{
    const bool first_generation = ctx->api_version <= 1 && ctx->kel_version <= 1;
    const unsigned longest = kel_max_zip_contig(ctx->api_version);
    int valid = symbols_valid(ctx, nsyms, widths, available_widths(buf, length));
    valid &= kel_test(1, reinterpret_cast<uintptr_t>(buf) % kel_zip_align == 0, ctx, "buf=0x%lx is not 16 byte aligned",
                      kel_log_ptr(buf));
    valid &= kel_test(1, !first_generation || length <= kel_max_zip_contig(1), ctx, "length=%lu exceeds maximum of %lu",
                      length, static_cast<unsigned long>(kel_max_zip_contig(1)));
    valid &= kel_test(1, !buf || length <= longest, ctx,
                      "zip dictionary length sum %ldgreater than maximum allowed bytes of %d",
                      static_cast<long>(length), static_cast<int>(longest));
    return valid;
}

int zip_create_valid_extra(kel_context_t *ctx, unsigned nsyms, const uint8_t *widths, const uint8_t *, const void *buf,
                           size_t length)
{
    const uint64_t available = available_widths(buf, length);
    width_walk walk;
    if (buf)
        walk = walk_widths(nsyms, widths, available);
    for (unsigned i = 0; i < walk.faults; i++)
        kel_report(ctx, "codeword %d maps to symbol with bad length %hhu bytes; bytes must be between 1 and 8",
                   static_cast<int>(walk.fault[i].code), static_cast<unsigned char>(walk.fault[i].width));
    int valid = walk.faults == 0;
    if (ctx->api_version != 2)
        valid &= rows_valid(ctx, nsyms, widths, available);
    const uint64_t expected = kel_zip_header + kel_zip_width_bytes(nsyms) + walk.sum;
    valid &= kel_test(1, expected == length, ctx, "invalid length=%lu; should be %lu", length, expected);
    return valid;
}

// ---- Creation -------------------------------------------------------------------------------------------------------

kel_status_t kel_vorp_create(kel_context_t *ctx, unsigned nsyms, const uint8_t *widths, const uint8_t *syms,
                             kel_zip_t **codec)
{
    *codec = nullptr;
    unsigned sum = 0;
    for (unsigned code = 0; code < nsyms; code++)
        sum += vorp_width(widths, code);
    const uint64_t width_bytes = kel_zip_width_bytes(nsyms);
    const uint64_t length = kel_zip_header + width_bytes + sum;
    if (nsyms == 0 || length > UINT16_MAX)
        return KEL_EINVAL;

    auto *made = static_cast<kel_zip_t *>(kel_malloc(ctx, sizeof(kel_zip_t)));
    if (!made)
        return KEL_ENOMEM;
    auto *image = static_cast<uint8_t *>(kel_memalign(ctx, kel_zip_block, length));
    if (!image) {
        kel_free(ctx, made, sizeof *made);
        return KEL_ENOMEM;
    }
    kel_store_be(image, static_cast<uint16_t>(nsyms));
    uint8_t *image_syms = image + kel_zip_header + width_bytes;
    memcpy(image + kel_zip_header, widths, width_bytes);
    if (sum > 0)
        memcpy(image_syms, syms, sum);
    *made = {image, image_syms, static_cast<uint16_t>(nsyms), static_cast<uint16_t>(length), 1, 1, {}};
    *codec = made;
    return KEL_SUCCESS;
}

// The number of symbols that an image says it has.
static unsigned image_nsyms(const void *buf, size_t length)
{
    return length >= kel_zip_header ? kel_load_be<uint16_t>(buf) : 0;
}

static const uint8_t *image_widths(const void *buf)
{
    return static_cast<const uint8_t *>(buf) + kel_zip_header;
}

static bool crosses_block(const void *buf, size_t length)
{
    const auto first = reinterpret_cast<uintptr_t>(buf);
    return ((first + length - 1) ^ first) >= kel_zip_block;
}

// The image that a codec keeps: the caller's own or a copy.
static void *keep_image(kel_context_t *ctx, const void *buf, size_t length, uint8_t *copied)
{
    *copied = crosses_block(buf, length);
    if (!*copied)
        return const_cast<void *>(buf);
    kel_log_line(ctx, KEL_LOG_PERF,
                 "kel_vorp_create_contig(): buf will cross a %d byte alignment boundary; copying to aligned buffer",
                 static_cast<int>(kel_zip_block));
    void *image = kel_memalign(ctx, kel_zip_block, length);
    if (image)
        memcpy(image, buf, length);
    return image;
}

kel_status_t kel_vorp_create_contig(kel_context_t *ctx, const void *buf, size_t length, kel_zip_t **codec)
{
    *codec = nullptr;
    if (length > UINT16_MAX)
        return KEL_EINVAL;
    auto *made = static_cast<kel_zip_t *>(kel_malloc(ctx, sizeof(kel_zip_t)));
    if (!made)
        return KEL_ENOMEM;
    uint8_t copied;
    auto *image = static_cast<uint8_t *>(keep_image(ctx, buf, length, &copied));
    if (!image) {
        kel_free(ctx, made, sizeof *made);
        return KEL_ENOMEM;
    }
    const unsigned nsyms = image_nsyms(buf, length);
    uint8_t *syms = image + kel_zip_header + kel_zip_width_bytes(nsyms);
    *made = {image, syms, static_cast<uint16_t>(nsyms), static_cast<uint16_t>(length), 1, copied, {}};
    *codec = made;
    return KEL_SUCCESS;
}

static kel_status_t zip_create(kel_context_t *ctx, uint16_t nsyms, const uint8_t *widths, const uint8_t *syms,
                               kel_zip_t **codec)
{
    if (ctx->debug_options & KEL_DEBUG_ARG && !symbols_valid(ctx, nsyms, widths, UINT64_MAX))
        return KEL_EINVAL;
    if (ctx->debug_options & KEL_DEBUG_EXTRA && ctx->api_version != 2 && !kel1_dict_valid(ctx, nsyms, widths, syms))
        return KEL_EINVAL;
    return kel_vorp_create(ctx, nsyms, widths, syms, codec);
}

kel_status_t kel_zip_create(kel_context_t *ctx, uint16_t nsyms, const uint8_t *widths, const uint8_t *syms,
                            kel_zip_t **codec)
{
    if (!kel_given(ctx, {{"codec", codec}}))
        return KEL_EINVAL;
    if (nsyms > 0 && !kel_given(ctx, {{"widths", widths}, {"syms", syms}}))
        return KEL_EINVAL;
    kel_log_line(ctx, KEL_LOG_ENTRY,
                 "kel_zip_create(): ctx=0x%lx, nsyms=%d, \n  widths=0x%lx, syms=0x%lx, &codec=0x%lx", kel_log_ptr(ctx),
                 nsyms, kel_log_ptr(widths), kel_log_ptr(syms), kel_log_ptr(codec));
    const kel_status_t status = zip_create(ctx, nsyms, widths, syms, codec);
    kel_log_line(ctx, KEL_LOG_RETURN, "kel_zip_create() returns codec=0x%lx and status %s", kel_log_ptr(*codec),
                 kel_status_str(status));
    return status;
}

// The first generation lays every image out anew, from its lengths and symbols, whatever length says.
static kel_status_t zip_create_contig(kel_context_t *ctx, const void *buf, size_t length, kel_zip_t **codec)
{
    const unsigned nsyms = image_nsyms(buf, length);
    const uint8_t *widths = image_widths(buf);
    const uint8_t *syms = widths + kel_zip_width_bytes(nsyms);
    if (ctx->debug_options & KEL_DEBUG_ARG && !zip_create_valid(ctx, nsyms, widths, buf, length))
        return KEL_EINVAL;
    if (ctx->debug_options & KEL_DEBUG_EXTRA && !zip_create_valid_extra(ctx, nsyms, widths, syms, buf, length))
        return KEL_EINVAL;
    if (ctx->api_version > 1 || ctx->kel_version > 1)
        return kel_vorp_create_contig(ctx, buf, length, codec);
    return kel_vorp_create(ctx, nsyms, widths, syms, codec);
}

kel_status_t kel_zip_create_contig(kel_context_t *ctx, const void *buf, size_t length, kel_zip_t **codec)
{
    if (!kel_given(ctx, {{"codec", codec}}))
        return KEL_EINVAL;
    *codec = nullptr;
    if (length > 0 && !kel_given(ctx, {{"buf", buf}}))
        return KEL_EINVAL;
    kel_log_line(ctx, KEL_LOG_ENTRY, "kel_zip_create_contig(): ctx=0x%lx, buf=0x%lx, \n  length=%lu, &codec=0x%lx",
                 kel_log_ptr(ctx), kel_log_ptr(buf), length, kel_log_ptr(codec));
    const kel_status_t status = zip_create_contig(ctx, buf, length, codec);
    kel_log_line(ctx, KEL_LOG_RETURN, "kel_zip_create_contig() returns codec=0x%lx and status %s", kel_log_ptr(*codec),
                 kel_status_str(status));
    return status;
}

// ---- Export and release ---------------------------------------------------------------------------------------------

size_t kel_zip_size(const kel_context_t *, const kel_zip_t *codec)
{
    return codec->dict_sz + sizeof *codec;
}

static int zip_get_contig_valid(kel_context_t *ctx, const kel_zip_t *codec, const void *buf, size_t capacity)
{
    return thread_valid(ctx, 1) && (codec->dict_sz > capacity || kel_given(ctx, {{"buf", buf}}));
}

// count is the length of the image, copied or not.
static kel_result_t zip_get_contig(const kel_zip_t *codec, void *buf, size_t capacity)
{
    if (codec->dict_sz > capacity)
        return {KEL_EOVERFLOW, 0, codec->dict_sz};
    memcpy(buf, codec->dict, codec->dict_sz);
    return {KEL_SUCCESS, 0, codec->dict_sz};
}

kel_status_t kel_zip_get_contig(kel_context_t *ctx, const kel_zip_t *codec, void *buf, size_t *buflen)
{
    if (!kel_given(ctx, {{"codec", codec}, {"buflen", buflen}}))
        return KEL_EINVAL;
    kel_log_line(ctx, KEL_LOG_ENTRY, "kel_zip_get_contig(): ctx=0x%lx, codec=0x%lx,\n  buf=0x%lx, *buflen=%lu",
                 kel_log_ptr(ctx), kel_log_ptr(codec), kel_log_ptr(buf), *buflen);
    kel_status_t status = KEL_EINVAL;
    if (!(ctx->debug_options & KEL_DEBUG_ARG) || zip_get_contig_valid(ctx, codec, buf, *buflen)) {
        const kel_result_t result = zip_get_contig(codec, buf, *buflen);
        status = result.status;
        if (status == KEL_EOVERFLOW && kel_do_log(ctx))
            kel_report(ctx, "Contig buffer overflow. buffer size = %lu, needed = %lu", *buflen, result.count);
        *buflen = result.count;
    }
    kel_log_line(ctx, KEL_LOG_RETURN, "kel_zip_get_contig() returns *buflen=%lu and %s", *buflen,
                 kel_status_str(status));
    return status;
}

void zip_free(kel_context_t *ctx, kel_zip_t *codec)
{
    if (codec->free_dict) {
        kel_free(ctx, codec->dict, codec->dict_sz);
        codec->free_dict = 0;
    }
    codec->nsyms = 0;
    codec->dict = nullptr;
    kel_free(ctx, codec, sizeof *codec);
}

kel_status_t kel_zip_free(kel_context_t *ctx, kel_zip_t *codec)
{
    if (!kel_given(ctx, {{"codec", codec}}))
        return KEL_EINVAL;
    kel_status_t status = KEL_ETHREAD;
    if (!bad_thread_return(ctx)) {
        kel_log_line(ctx, KEL_LOG_ENTRY, "kel_zip_free(): ctx=0x%lx, codec=0x%lx", kel_log_ptr(ctx),
                     kel_log_ptr(codec));
        zip_free(ctx, codec);
        status = KEL_SUCCESS;
    }
    kel_log_line(ctx, KEL_LOG_RETURN, "kel_zip_free() returns %s", kel_status_str(status));
    return status;
}
