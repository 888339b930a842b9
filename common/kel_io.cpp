// Bit streams: the start of a reader, the finish of a writer, and the count of bits.
#include "kel_io.h"
#include "kel_limits.h"
#include "kel_log.h"
#include "kel_zip.h"

void kelio_bits_init(const void *data, unsigned offset, uint64_t **buf, uint64_t *cache, uint64_t *cache_bits)
{
    auto *bytes = static_cast<const uint8_t *>(data);
    const auto *boundary = kel_align_up(bytes, sizeof(uint64_t));
    uint64_t held = 0;
    uint64_t bits = 8 * static_cast<uint64_t>(boundary - bytes);
    if (bits == 0) {
        held = kel_load_be<uint64_t>(bytes);
        boundary += sizeof(uint64_t);
        bits = 64;
    } else {
        while (bytes < boundary)
            held = held << 8 | *bytes++;
        held <<= 64 - bits;
    }
    *buf = reinterpret_cast<uint64_t *>(const_cast<uint8_t *>(boundary));
    *cache = kel_shl(held, offset);
    *cache_bits = bits - offset;
}

kel_status_t kelio_unzip(kel_context_t *ctx, const kel_vec_t *src, void **buf, size_t *size)
{
    if (!src->codec) {
        kel_report(ctx, "EDATAFMT: a KEL_ZIP source has no codec");
        return KEL_EDATAFMT;
    }
    const size_t length = kel_decoded_bytes(ctx, src) + kel_unzip_room;
    void *expanded = kel_malloc(ctx, length);
    if (!expanded)
        return KEL_ENOMEM;
    const kel_status_t status = kel_unzip(ctx, src, src->codec, expanded, length);
    if (status == KEL_EDATAFMT) {
        kel_free(ctx, expanded, length);
        return status;
    }
    if (status == KEL_EOVERFLOW)
        kel_report(ctx, "kel_unzip outlen=%lu overflow", length);
    *buf = expanded;
    *size = length;
    return KEL_SUCCESS;
}

int kelio_pad_output(kel_output_t *out, const void *end)
{
    if (static_cast<const void *>(kel_align_up(out->buf, kel_dst_align)) > end)
        return KEL_EOVERFLOW;
    if (out->cache_bits != 0) {
        out->cache &= kel_shl(~uint64_t{0}, 64 - out->cache_bits);
        kelio_flush(out);
    }
    uint64_t *next = kel_align_up(out->buf, kel_dst_align);
    const auto padding = reinterpret_cast<uint8_t *>(next) - reinterpret_cast<uint8_t *>(out->buf);
    if (padding > 0)
        memset(out->buf, 0, static_cast<size_t>(padding));
    out->buf = next;
    return KEL_SUCCESS;
}

// Sums of ever wider neighbours, all in one word.
uint64_t popc_words_parallel(const uint64_t *words, size_t n)
{
    uint64_t count = 0;
    for (size_t i = 0; i < n; i++) {
        uint64_t v = words[i];
        v -= v >> 1 & 0x5555555555555555;
        v = (v & 0x3333333333333333) + (v >> 2 & 0x3333333333333333);
        v = (v + (v >> 4)) & 0x0f0f0f0f0f0f0f0f;
        count += v * 0x0101010101010101 >> 56;
    }
    return count;
}

KEL_POPCNT static uint64_t popc_words_instruction(const uint64_t *words, size_t n)
{
    uint64_t count = 0, i = 0;
    for (; i + 4 <= n; i += 4) // a sum of four waits once for the one before
        count += (popc_instruction(words[i]) + popc_instruction(words[i + 1])) +
                 (popc_instruction(words[i + 2]) + popc_instruction(words[i + 3]));
    for (; i < n; i++)
        count += popc_instruction(words[i]);
    return count;
}

uint64_t popc_words(const uint64_t *words, size_t n)
{
    return kel_have_popcnt() ? popc_words_instruction(words, n) : popc_words_parallel(words, n);
}
