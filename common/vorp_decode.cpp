// The decoders of vorp streams.
//
// A codeword is an index and no state passes from one to the next, so that all a decoder holds is a place in the
// stream and one in the output. For a whole stream the dictionary is spread into slots of 8 bytes, and a symbol is
// copied by one move of 8 bytes, the tail of which the next symbol overwrites. At the end of the stream, where a move
// might pass the end of the output, symbols are copied exactly.
#include "kel_platform.h"
#include "vorp.h"
#include <algorithm>

static constexpr char vorp_source[] = "common/vorp_decode.cpp";

// What the texts of checks show.
static unsigned shown(uint64_t value)
{
    return static_cast<unsigned>(value);
}

// ---- Header ---------------------------------------------------------------------------------------------------------

static constexpr uint8_t magic[] = {'V', 'O', 'R', 'P'};

enum header_place { at_version = 8, at_flags = 9, at_interval = 18, at_size = 20 };
enum header_flag { flag_stored = 1, flag_fixed_width = 2, flag_hw_constraint = 4, flag_checksum = 8 };

int vorp_header_read(const void *in, vorp_config_t *config, uint16_t *hdr_len, uint64_t *uncompressed_size)
{
    const auto *header = static_cast<const uint8_t *>(in);
    const unsigned flags = header[at_flags];
    vorp_check(memcmp(header, magic, sizeof magic) == 0, "vorp_header_read: corrupted hdr\n");
    vorp_check(header[at_version] == 0, "vorp_header_read: wrong hdr version: %u\n", header[at_version]);
    vorp_check(flags & flag_fixed_width, "vorp_header_read: only fixed_width supported\n");
    vorp_check(!(flags & flag_checksum), "vorp_header_read: checksum not implemented yet\n");
    const uint16_t interval = kel_load_be<uint16_t>(header + at_interval);
    config->fixed_width = 1;
    config->hw_constraint = (flags & flag_hw_constraint) != 0;
    config->ra_interval = interval == 0 ? int16_t{-1} : static_cast<int16_t>(interval);
    *hdr_len = vorp_header_size;
    *uncompressed_size = kel_load_be<uint32_t>(header + at_size);
    return !(flags & flag_stored);
}

void vorp_header_write(const vorp_table_t *table, const vorp_config_t *config, uint64_t uncompressed_size, void *out,
                       uint16_t *hdr_len)
{
    auto *header = static_cast<uint8_t *>(out);
    uint16_t interval = 0;
    if (config->ra_interval > 0 && !table->stored) {
        vorp_check(config->ra_interval >= vorp_min_interval && config->ra_interval <= vorp_max_interval,
                   "vorp_header_write: wrong r.a. interval: %u\n", shown(static_cast<uint64_t>(config->ra_interval)));
        interval = static_cast<uint16_t>(config->ra_interval);
    }
    memset(header, 0, vorp_header_size);
    memcpy(header, magic, sizeof magic);
    header[at_flags] =
        static_cast<uint8_t>((table->stored ? flag_stored : 0) | (config->fixed_width ? flag_fixed_width : 0) |
                             (config->hw_constraint ? flag_hw_constraint : 0));
    kel_store_be(header + at_interval, interval);
    kel_store_be(header + at_size, static_cast<uint32_t>(uncompressed_size));
    *hdr_len = vorp_header_size;
}

void vorp_adjust_dictionary_size(uint64_t input_len, vorp_config_t *config)
{
    if (config->hw_constraint)
        config->max_bytes = kel_zip_rows * kel_zip_row_bytes;
    if (input_len < 20000) {
        config->max_entries = 256;
        config->max_bytes = 2048;
    }
}

// ---- Codewords ------------------------------------------------------------------------------------------------------

namespace
{

struct code_reader {
    const uint8_t *p;
    unsigned b; // the next codeword starts at this bit of *p
    unsigned width;

    // The codeword stands in 16 bits from *p on, all widths of a stream considered; of its second byte only what it has
    // is read.
    unsigned next()
    {
        const uint32_t window = uint32_t{p[0]} << 24 | uint32_t{p[(b + width - 1) >> 3]} << 16;
        const unsigned code = window << b >> (32 - width);
        skip(width);
        return code;
    }

    // Two codewords from 4 bytes.
    std::pair<unsigned, unsigned> next_two()
    {
        const uint32_t window = kel_load_be<uint32_t>(p) << b;
        skip(2 * width);
        return {window >> (32 - width), window << width >> (32 - width)};
    }

  private:
    void skip(unsigned bits)
    {
        b += bits;
        p += b >> 3;
        b &= 7;
    }
};

} // namespace

uint64_t vorp_decode_dict_remain(const uint8_t *p, unsigned b, uint64_t n, const uint8_t *symbols,
                                 const uint8_t *lengths, uint8_t *out_pos, uint8_t *out_start, unsigned width)
{
    code_reader codes = {p, b, width};
    for (; n > 0; n--) {
        const unsigned code = codes.next();
        memcpy(out_pos, symbols + kel_max_symbol_bytes * code, std::min<size_t>(lengths[code], kel_max_symbol_bytes));
        out_pos += lengths[code];
    }
    return static_cast<uint64_t>(out_pos - out_start);
}

uint64_t vorp_decode_dict_generic(const uint8_t *codewords, uint64_t count, const uint8_t *symbols,
                                  const uint8_t *lengths, uint8_t *out, unsigned width)
{
    code_reader codes = {codewords, 0, width};
    uint8_t *to = out;
    const auto put = [&](unsigned code) {
        memcpy(to, symbols + kel_max_symbol_bytes * code, kel_max_symbol_bytes);
        to += lengths[code];
    };
    const uint64_t exact = std::min(count, vorp_exact_codewords);
    uint64_t n = count - exact;
    for (; n >= 2; n -= 2) { // at least 10 codewords of 3 bits are left: 4 bytes
        const auto [first, second] = codes.next_two();
        put(first);
        put(second);
    }
    if (n > 0)
        put(codes.next());
    return vorp_decode_dict_remain(codes.p, codes.b, exact, symbols, lengths, to, out, width);
}

uint64_t vorp_decode_dict_fixed_random(const vorp_config_t *, const uint8_t *p, uint8_t *out, int64_t len, unsigned b,
                                       uint64_t skip, const uint8_t *offsets, const uint8_t *lengths, unsigned width)
{
    code_reader codes = {p, b, width};
    uint8_t *to = out;
    uint64_t sum = 0; // of the lengths so far
    while (len > 0) {
        const unsigned code = codes.next();
        const unsigned length = vorp_width(lengths, code);
        sum += length;
        if (sum <= skip)
            continue;
        const uint64_t drop = to == out ? skip - (sum - length) : 0;
        const uint8_t *offset = offsets + sizeof(uint16_t) * code;
        const int64_t copied = std::min(len, static_cast<int64_t>(length - drop));
        vorp_check(copied != 0, "vorp_decode_fixed_dict_random: len < 0\n");
        memcpy(to, offset + kel_load_be<uint16_t>(offset) + drop, static_cast<size_t>(copied));
        to += copied;
        len -= copied;
    }
    return static_cast<uint64_t>(to - out);
}

// ---- Dictionary -----------------------------------------------------------------------------------------------------

unsigned vorp_reconstruct_dict_fixed(const uint8_t *data, uint8_t *symbols, uint8_t *lengths, uint16_t *entries,
                                     uint64_t *dict_bytes, int with_ra)
{
    const uint16_t count = kel_load_be<uint16_t>(data);
    const uint8_t *widths = data + kel_zip_header;
    const uint8_t *symbol = widths + kel_zip_width_bytes(count) + (with_ra ? sizeof(uint16_t) * count : 0);
    for (unsigned i = 0; i < count; i++) {
        lengths[i] = static_cast<uint8_t>(vorp_width(widths, i));
        memcpy(symbols + kel_max_symbol_bytes * i, symbol, kel_max_symbol_bytes);
        symbol += lengths[i];
    }
    *entries = count;
    *dict_bytes = static_cast<uint64_t>(symbol - data);
    return zip_code_width(count);
}

unsigned vorp_reconstruct_dict_fixed_random(const uint8_t *data, const uint8_t **offsets, const uint8_t **lengths,
                                            uint16_t *entries, uint64_t *dict_bytes)
{
    const uint16_t count = kel_load_be<uint16_t>(data);
    *lengths = data + kel_zip_header;
    *offsets = *lengths + kel_zip_width_bytes(count);
    const uint8_t *last = *offsets + sizeof(uint16_t) * (count - 1u);
    const uint8_t *end = last + kel_load_be<uint16_t>(last) + vorp_width(*lengths, count - 1u);
    *entries = count;
    *dict_bytes = static_cast<uint64_t>(end - data);
    return zip_code_width(count);
}

static bool entries_valid(unsigned entries, const vorp_config_t *config)
{
    return entries > 0 && entries <= config->max_entries;
}

static bool code_width_valid(unsigned width)
{
    return width >= zip_code_width(vorp_min_entries) && width <= kel_max_code_bits;
}

// ---- Payloads of compressed streams ---------------------------------------------------------------------------------

// Unpacks the dictionary and decodes the codewords behind it; answers the decoded length.
static uint64_t decode_payload(const uint8_t *data, const vorp_config_t *config, uint8_t *symbols, uint8_t *lengths,
                               void *out, const char *wrong_width, const char *wrong_entries)
{
    const int with_ra = config->ra_interval > 0;
    uint16_t entries;
    uint64_t dict_bytes;
    const unsigned width = vorp_reconstruct_dict_fixed(data, symbols, lengths, &entries, &dict_bytes, with_ra);
    vorp_check(code_width_valid(width), "%s: %u\n", wrong_width, width);
    vorp_check(entries == kel_load_be<uint16_t>(data), "%s", wrong_entries);
    const uint8_t *count = data + dict_bytes;
    const uint8_t *codewords = count + vorp_count_bytes;
    if (with_ra)
        codewords += vorp_access_read(codewords).distance;
    return vorp_decode_dict_generic(codewords, kel_load_be<uint32_t>(count), symbols, lengths,
                                    static_cast<uint8_t *>(out), width);
}

void vorp_decode_fixed_width(const uint8_t *data, void *out, uint64_t *outlen, const vorp_config_t *config,
                             vorp_alloc_func alloc, vorp_free_func free, void *opaque)
{
    const uint16_t told = kel_load_be<uint16_t>(data);
    vorp_check(entries_valid(told, config), "vorp_decode_fixed_width: wrong dict_entries: %u\n", told);

    vorp_mempool_t pool;
    constexpr uint64_t rounding = 64;
    static_assert(vorp_pool_use(vorp_max_entries) + vorp_pool_use(vorp_max_entries * kel_max_symbol_bytes) <=
                  vorp_max_entries * vorp_entry_wrkmem + rounding); // nothing recovers from an exhausted pool
    vorp_mempool_init(config, &pool, config->max_entries * vorp_entry_wrkmem + rounding, alloc, free, opaque);
    auto *lengths = static_cast<uint8_t *>(vorp_mempool_getmemory(&pool, told, 0, 1, "decode:length"));
    auto *symbols = static_cast<uint8_t *>(
        vorp_mempool_getmemory(&pool, told * uint64_t{kel_max_symbol_bytes}, 1, 1, "decode:symbol"));

    *outlen = decode_payload(data, config, symbols, lengths, out, "vorp_decode_fixed_width: wrong fixed_sz",
                             "vorp_decode_fixed:width: wrong dict_entries");
    vorp_mempool_release(&pool);
}

void vorp_decode_fixed_width_wrkmem(const uint8_t *data, void *out, uint64_t *outlen, const vorp_config_t *config,
                                    void *wrkmem, uint64_t wrkmem_sz)
{
    const uint16_t told = kel_load_be<uint16_t>(data);
    vorp_check(entries_valid(told, config), "vorp_decode_fixed_width_wrkmem: incorrect dict size:%%d: %u\n", told);
    vorp_check(wrkmem_sz >= config->max_entries * vorp_entry_wrkmem,
               "vorp_decode_fixed_width_wrkmem: insufficient wrkmem_sz:: %u\n", shown(wrkmem_sz));

    auto *lengths = static_cast<uint8_t *>(wrkmem);
    uint8_t *symbols = lengths + config->max_entries;
    memset(symbols, 0, told * size_t{kel_max_symbol_bytes});

    *outlen = decode_payload(data, config, symbols, lengths, out, "vorp_decode_fixed_width_wrkmem",
                             "vorp_decode_fixed_width_wrkmem: wrong dict_entries");
}

uint64_t vorp_decode_fixed_random(const uint8_t *data, void *out, uint64_t pos, int64_t len,
                                  const vorp_config_t *config)
{
    const uint16_t told = kel_load_be<uint16_t>(data);
    vorp_check(entries_valid(told, config), "vorp_decode_fixed_random: wrong dict_entries: %u\n", told);

    const uint8_t *offsets, *lengths;
    uint16_t entries;
    uint64_t dict_bytes;
    const unsigned width = vorp_reconstruct_dict_fixed_random(data, &offsets, &lengths, &entries, &dict_bytes);
    vorp_check(code_width_valid(width), "vorp_decode_fixed_random: wrong fixed_size: %u\n", width);
    vorp_check(entries == told, "vorp_decode_fixed_width_random: bad dict_entries");
    if (len <= 0) // pos may be behind the last interval
        return 0;

    const auto interval = static_cast<uint64_t>(config->ra_interval);
    const uint8_t *entry = data + dict_bytes + vorp_count_bytes + pos / interval * vorp_access_bytes;
    const vorp_access_t access = vorp_access_read(entry);
    return vorp_decode_dict_fixed_random(config, entry + access.distance, static_cast<uint8_t *>(out), len, access.bit,
                                         pos % interval + access.skip, offsets, lengths, width);
}

// ---- Streams --------------------------------------------------------------------------------------------------------

namespace
{

// A stream whose header has been read.
struct stream_t {
    stream_t(vorp_log_t *log, uint64_t reserved, const void *in)
    {
        config.log = log;
        config.reserved = reserved;
        config.max_entries = vorp_max_entries;
        config.max_bytes = vorp_max_bytes;
        uint16_t header_bytes;
        compressed = vorp_header_read(in, &config, &header_bytes, &size);
        payload = static_cast<const uint8_t *>(in) + header_bytes;
    }

    // Copies a stored stream; false: the stream is compressed.
    bool copy(void *out, uint64_t *outlen) const
    {
        if (compressed)
            return false;
        memcpy(out, payload, size);
        *outlen = size;
        return true;
    }

    vorp_config_t config = {};
    bool compressed;
    uint64_t size; // of the decoded data
    const uint8_t *payload;
};

} // namespace

static unsigned misalignment(const void *address)
{
    return shown(reinterpret_cast<uintptr_t>(address) % sizeof(uint64_t));
}

int vorp_decode(vorp_log_t *log, uint64_t reserved, const void *in, void *out, uint64_t *outlen, uint64_t max_out,
                vorp_alloc_func alloc, vorp_free_func free, void *opaque)
{
    vorp_check(misalignment(in) == 0, "vorp_decode: input buffer is not aligned: %u\n", misalignment(in));
    vorp_check(misalignment(out) == 0, "vorp_decode: output buffer is not aligned: %u\n", misalignment(out));
    const stream_t stream(log, reserved, in);
    vorp_check(stream.size <= max_out, "vorp_decode: max output buffer size > uncompressed_size: %u, %u\n",
               shown(max_out), shown(stream.size));
    if (!stream.copy(out, outlen))
        vorp_decode_fixed_width(stream.payload, out, outlen, &stream.config, alloc, free, opaque);
    return 0;
}

int vorp_decode_wrkmem(vorp_log_t *log, uint64_t reserved, const void *in, void *out, uint64_t *outlen,
                       uint64_t max_out, void *wrkmem, uint64_t wrkmem_sz)
{
    const stream_t stream(log, reserved, in);
    vorp_check(stream.size <= max_out, "vorp_decode_wrkmem: max output buffer size > uncompressed_size: %u, %u\n",
               shown(max_out), shown(stream.size));
    if (!stream.copy(out, outlen))
        vorp_decode_fixed_width_wrkmem(stream.payload, out, outlen, &stream.config, wrkmem, wrkmem_sz);
    return 0;
}

uint64_t vorp_decode_selective(vorp_log_t *log, uint64_t reserved, const void *in, void *out, uint64_t uncmp_pos,
                               int64_t len)
{
    const stream_t stream(log, reserved, in);
    len = std::min(len, static_cast<int64_t>(stream.size - uncmp_pos));
    if (stream.compressed) {
        vorp_check(stream.config.ra_interval != 0, "vorp_decode_selective: wrong r.a. interval");
        return vorp_decode_fixed_random(stream.payload, out, uncmp_pos, len, &stream.config);
    }
    vorp_check(uncmp_pos <= stream.size, "vorp_decode_selective: uncmp_size < uncmp_byte_pos: %u, %u\n",
               shown(stream.size), shown(uncmp_pos));
    const uint64_t copied = len > 0 ? static_cast<uint64_t>(len) : 0;
    memcpy(out, stream.payload + uncmp_pos, copied);
    return copied;
}
