// The writer of vorp streams: lays out sections that are already made, and fills the table of random access.
#include "vorp.h"

namespace
{

// Where the sections of a compressed stream start.
struct layout_t {
    layout_t(const vorp_config_t *config, const vorp_content_t *content)
        : code_width(zip_code_width(content->nsyms)),
          interval(config->ra_interval > 0 ? static_cast<unsigned>(config->ra_interval) : 0)
    {
        uint64_t symbol_bytes = 0;
        for (unsigned code = 0; code < content->nsyms; code++)
            symbol_bytes += vorp_width(content->widths, code);
        const uint64_t points = interval == 0 ? 0 : (content->uncompressed_size + interval - 1) / interval;
        offsets = vorp_header_size + kel_zip_header + kel_zip_width_bytes(content->nsyms);
        symbols = offsets + (interval == 0 ? 0 : content->nsyms * sizeof(uint16_t));
        count = symbols + symbol_bytes;
        table = count + vorp_count_bytes;
        codewords = table + points * vorp_access_bytes;
        end = codewords + (content->count * code_width + 7) / 8;
    }

    unsigned code_width; // bits
    unsigned interval;   // 0: there is no random access
    uint64_t offsets, symbols, count, table, codewords, end;
};

} // namespace

static bool config_valid(const vorp_config_t *config)
{
    const bool interval_valid = config->ra_interval >= vorp_min_interval && config->ra_interval <= vorp_max_interval;
    return config->fixed_width && (config->ra_interval <= 0 || interval_valid);
}

// The codewords stand for as many bytes as the content says.
static bool content_valid(const vorp_content_t *content)
{
    if (content->nsyms < vorp_min_entries || content->nsyms > vorp_max_entries)
        return false;
    for (unsigned code = 0; code < content->nsyms; code++) {
        const unsigned length = vorp_width(content->widths, code);
        if (kel_bad_width(length))
            return false;
    }
    uint64_t size = 0;
    for (uint64_t i = 0; i < content->count; i++) {
        if (content->codewords[i] >= content->nsyms)
            return false;
        size += vorp_width(content->widths, content->codewords[i]);
    }
    return content->count >= vorp_exact_codewords && size == content->uncompressed_size && size <= UINT32_MAX;
}

// Each offset is counted from its own address.
static void write_dictionary(const vorp_content_t *content, uint8_t *out, const layout_t &at)
{
    uint8_t *entries = out + vorp_header_size;
    kel_store_be(entries, static_cast<uint16_t>(content->nsyms));
    memcpy(entries + kel_zip_header, content->widths, kel_zip_width_bytes(content->nsyms));
    if (content->nsyms % 2 != 0)
        out[at.offsets - 1] &= 0xf0; // the unused length
    uint64_t symbol = at.symbols, place = at.offsets;
    for (unsigned code = 0; place < at.symbols; code++, place += sizeof(uint16_t)) {
        kel_store_be(out + place, static_cast<uint16_t>(symbol - place));
        symbol += vorp_width(content->widths, code);
    }
    memcpy(out + at.symbols, content->syms, at.count - at.symbols);
    kel_store_be(out + at.count, static_cast<uint32_t>(content->count));
}

// False: an entry cannot reach its codeword.
static bool write_table(const vorp_content_t *content, uint8_t *out, const layout_t &at)
{
    uint64_t bit = 0;                // of the current codeword
    uint64_t decoded = 0, point = 0; // bytes before its symbol, and before the next point of random access
    uint8_t *entry = out + at.table;
    for (uint64_t i = 0; entry < out + at.codewords; i++, bit += at.code_width) {
        const unsigned length = vorp_width(content->widths, content->codewords[i]);
        if (point < decoded + length) {
            const uint64_t distance = static_cast<uint64_t>(out + at.codewords - entry) + bit / 8;
            if (distance > vorp_max_distance)
                return false;
            vorp_access_write(entry, {static_cast<uint32_t>(distance), static_cast<unsigned>(point - decoded),
                                      static_cast<unsigned>(bit % 8)});
            entry += vorp_access_bytes;
            point += at.interval;
        }
        decoded += length;
    }
    return true;
}

uint64_t vorp_stream_write(const vorp_config_t *config, const vorp_content_t *content, void *out, uint64_t capacity)
{
    if (!config_valid(config) || !content_valid(content))
        return 0;
    const layout_t at(config, content);
    if (at.end > capacity)
        return 0;
    auto *stream = static_cast<uint8_t *>(out);
    memset(stream, 0, at.end);
    const vorp_table_t table = {};
    uint16_t header_bytes;
    vorp_header_write(&table, config, content->uncompressed_size, stream, &header_bytes);
    write_dictionary(content, stream, at);
    vorp_code_writer writer = {stream, at.end, at.code_width, at.codewords};
    for (uint64_t i = 0; i < content->count; i++)
        writer.put(content->codewords[i]);
    return write_table(content, stream, at) ? at.end : 0;
}

uint64_t vorp_stream_store(const vorp_config_t *config, const void *data, uint64_t size, void *out, uint64_t capacity)
{
    if (!config_valid(config) || size > UINT32_MAX || vorp_header_size + size > capacity)
        return 0;
    vorp_table_t table = {};
    table.stored = 1;
    uint16_t header_bytes;
    vorp_header_write(&table, config, size, out, &header_bytes);
    memcpy(static_cast<uint8_t *>(out) + header_bytes, data, size);
    return header_bytes + size;
}
