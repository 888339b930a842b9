// Expansion of streams of codewords.
//
// A stream has no end mark: its codewords are read until their symbols make up the vector's bytes. Nothing in it can be
// trusted, so the reader is bounded by what it knows. No more codewords are read than the vector says that there are,
// or, where it says 0, than there are bytes to make; symbols are read inside the codec's image, and written inside the
// destination.
//
// The bulk of a stream goes by tables, several codewords from each load, each with one store of 8 bytes. It ends where
// its loads or stores might pass what is surely needed, and where a dictionary is damaged it does not begin: the rest
// goes codeword by codeword.
#include "kel_io.h"
#include "kel_log.h"
#include "kel_vector.h"
#include "kel_zip.h"
#include <algorithm>
#include <array>
#include <utility>

uint64_t kel_decoded_bytes(kel_context_t *ctx, const kel_vec_t *src)
{
    return src->format & KEL_VAR ? aux_sum(ctx, src) : kel_data_bytes(src);
}

namespace
{

// ---- Symbols --------------------------------------------------------------------------------------------------------

// The width of a symbol; 0 if its place in the image's tables lies behind the image.
unsigned packed_width(const kel_zip_t *codec, unsigned code)
{
    const auto *widths = static_cast<const uint8_t *>(codec->dict) + kel_zip_header;
    return kel_zip_header + code / 2 < codec->dict_sz ? vorp_width(widths, code) : 0;
}

unsigned row_width(const kel_zip_t *codec, unsigned code)
{
    const uint64_t row = sizeof(huff_len_table_t) + code % kel_zip_rows * sizeof(huff_sym_table_entry_t);
    return row + sizeof(huff_sym_table_entry_t) <= codec->dict_sz ? huff_width(kel_zip_widths(codec), code) : 0;
}

// The symbols of a codec by codeword. What is not in the dictionary, or not inside the image, has width 0.
struct symbols_t {
    uint64_t bytes[kel_max_zip_symbols]; // in the order of memory; of a longer symbol the last 8
    uint8_t width[kel_max_zip_symbols];
    bool sound; // every width of the dictionary is 1 to 8

    explicit symbols_t(const kel_zip_t *codec);

    unsigned width_of(uint32_t code) const
    {
        return code < nsyms ? width[code] : 0;
    }

  private:
    unsigned nsyms;

    void load(const kel_zip_t *codec, unsigned code, uint64_t place, unsigned symbol_width);
    void load_at_end(const kel_zip_t *codec, unsigned code, uint64_t place, unsigned symbol_width);
};

// A symbol that is not followed by enough of the image for a load of 8 bytes, or is longer than that.
void symbols_t::load_at_end(const kel_zip_t *codec, unsigned code, uint64_t place, unsigned symbol_width)
{
    const bool inside = place + symbol_width <= codec->dict_sz;
    const unsigned kept = inside ? std::min(symbol_width, kel_max_symbol_bytes) : 0;
    width[code] = inside ? static_cast<uint8_t>(symbol_width) : 0;
    bytes[code] = 0;
    if (kept > 0)
        memcpy(&bytes[code], static_cast<const uint8_t *>(codec->dict) + place + symbol_width - kept, kept);
}

inline void symbols_t::load(const kel_zip_t *codec, unsigned code, uint64_t place, unsigned symbol_width)
{
    if (kel_bad_width(symbol_width) || place + kel_max_symbol_bytes > codec->dict_sz) {
        load_at_end(codec, code, place, symbol_width);
    } else {
        width[code] = static_cast<uint8_t>(symbol_width);
        memcpy(&bytes[code], static_cast<const uint8_t *>(codec->dict) + place, kel_max_symbol_bytes);
        bytes[code] &= ~uint64_t{0} >> (64 - 8 * symbol_width);
    }
    sound &= !kel_bad_width(width[code]);
}

symbols_t::symbols_t(const kel_zip_t *codec) : sound(true), nsyms(std::min<unsigned>(codec->nsyms, kel_max_zip_symbols))
{
    if (codec->vorp) {
        auto place = static_cast<uint64_t>(codec->syms - static_cast<const uint8_t *>(codec->dict));
        for (unsigned code = 0; code < nsyms; code++) {
            const unsigned symbol_width = packed_width(codec, code);
            load(codec, code, place, symbol_width);
            place += symbol_width;
        }
    } else {
        for (unsigned code = 0; code < nsyms; code++) {
            const unsigned symbol_width = row_width(codec, code);
            const unsigned place = symbol_width == 0 ? 0 : kel_zip_row_place(kel_zip_widths(codec), code);
            load(codec, code, sizeof(huff_len_table_t) + place, symbol_width);
        }
    }
    const unsigned codes = 1u << zip_code_width(nsyms); // that a codeword can have
    std::fill(width + nsyms, width + codes, uint8_t{0});
    std::fill(bytes + nsyms, bytes + codes, uint64_t{0});
}

// ---- The stream -----------------------------------------------------------------------------------------------------

// What is left of a stream, and of what is to be made of it.
struct stream_t {
    stream_t(const kel_vec_t *src, const kel_zip_t *codec, uint64_t decoded)
        : data(static_cast<const uint8_t *>(src->data)), bit(src->offset), code_width(zip_code_width(codec->nsyms)),
          wanted(static_cast<int64_t>(decoded)), codewords(src->codewords != 0 ? src->codewords : decoded)
    {
    }

    // Reads the codewords one by one. Kept: a codeword of 0 bits, that of a dictionary with one symbol, has as its
    // value the low half of the word that the reader holds, so that it is valid only while that half is zero.
    kel_input_t reader() const
    {
        kel_input_t in;
        kelio_buf_input(data + bit / 8, bit % 8, &in);
        return in;
    }

    const uint8_t *data;
    uint64_t bit;        // where the next codeword starts
    unsigned code_width; // bits
    int64_t wanted;      // bytes; the last symbol may make it negative
    uint64_t codewords;  // that may be read
};

// A destination that is written byte after byte and has a firm end.
struct decoded_t {
    uint8_t *start;
    uint64_t room;
    uint64_t size = 0; // bytes that were put, some of which may have found no room

    void put(uint8_t byte)
    {
        if (size < room)
            start[size] = byte;
        size++;
    }

    void put(uint64_t bytes, unsigned width)
    {
        for (; width > kel_max_symbol_bytes; width--)
            put(0);
        for (unsigned i = 0; i < width; i++)
            put(static_cast<uint8_t>(bytes >> 8 * i));
    }

    // Whether a writer of words, which holds the last one back, would have reached the end.
    bool full() const
    {
        return (size == 0 ? 0 : (size - 1) / 8 * 8) >= room;
    }

    // Fills the last word with zeros.
    kel_status_t finish()
    {
        while (size % 8 != 0)
            put(0);
        return size < room ? KEL_SUCCESS : KEL_EOVERFLOW;
    }
};

kel_status_t unzip_codewords(stream_t &stream, const symbols_t &symbols, bool extra, decoded_t &dst)
{
    if (stream.wanted <= 0) // a reader loads at once
        return KEL_SUCCESS;
    kel_input_t reader = stream.reader();
    const unsigned code_width = stream.code_width;
    while (stream.wanted > 0) {
        if (stream.codewords-- == 0)
            return KEL_EDATAFMT;
        const auto code = static_cast<uint32_t>(kelio_get_bits(&reader, code_width));
        const unsigned width = symbols.width_of(code);
        if (extra) {
            if (kel_bad_width(width))
                return KEL_EDATAFMT;
            if (dst.full())
                return KEL_EOVERFLOW;
        }
        if (width == 0 && code_width == 0) // a codeword of 0 bits stays what it is
            return KEL_EDATAFMT;
        if (width > 0)
            dst.put(symbols.bytes[code], width);
        stream.wanted -= width;
    }
    return KEL_SUCCESS;
}

// ---- The bulk -------------------------------------------------------------------------------------------------------

constexpr unsigned group = 4; // codewords from one load
static_assert(7 + group * kel_max_code_bits <= 64);

// How many codewords can be read by loads of 8 bytes and written by stores of 8 bytes with no test between them. No
// symbol has more than 8 bytes, so that at least an eighth as many codewords are still to come as bytes are wanted, and
// each of them has room for its store. The last of these are left out: a load that starts in the codeword before them
// touches no byte behind them.
template <unsigned width>
uint64_t safe_codewords(const stream_t &stream, const decoded_t &dst)
{
    constexpr uint64_t left_out = (64 + width - 1) / width + 1;
    const uint64_t room = dst.room > dst.size ? dst.room - dst.size : 0;
    const uint64_t needed = std::min<uint64_t>(static_cast<uint64_t>(stream.wanted), room) / kel_max_symbol_bytes;
    const uint64_t readable = std::min(needed, stream.codewords);
    return readable > left_out ? readable - left_out : 0;
}

// Calls take(code) for the codewords of a group. Whole bytes and halves of bytes need no shift of a word.
template <unsigned width, bool whole, class Take>
inline void take_group(const uint8_t *data, uint64_t bit, const Take &take)
{
    if constexpr (whole) {
        const uint8_t *byte = data + bit / 8;
        for (unsigned j = 0; j < group; j++)
            take(width == 8 ? byte[j] : byte[j / 2] >> (4 - j % 2 * 4) & 15);
    } else {
        uint64_t word = kel_load_be<uint64_t>(data + bit / 8) << bit % 8;
        for (unsigned j = 0; j < group; j++, word <<= width)
            take(word >> (64 - width));
    }
}

template <unsigned width, bool whole>
void unzip_groups(stream_t &stream, const symbols_t &symbols, decoded_t &dst)
{
    const uint8_t *data = stream.data;
    uint64_t bit = stream.bit;
    uint8_t *to = dst.start + dst.size;
    while (const uint64_t groups = safe_codewords<width>(stream, dst) / group) {
        uint8_t *start = to;
        for (uint64_t i = 0; i < groups; i++, bit += group * width)
            take_group<width, whole>(data, bit, [&](uint64_t code) {
                memcpy(to, &symbols.bytes[code], kel_max_symbol_bytes);
                to += symbols.width[code];
            });
        stream.wanted -= to - start;
        stream.codewords -= group * groups;
        dst.size += static_cast<uint64_t>(to - start);
    }
    stream.bit = bit;
}

template <size_t... widths>
constexpr auto make_bulk_table(std::index_sequence<widths...>)
{
    return std::array{unzip_groups<widths + 1, false>...};
}

// By the width of a codeword, less 1.
constexpr auto bulk_table = make_bulk_table(std::make_index_sequence<kel_max_code_bits>());

void unzip_bulk(stream_t &stream, const symbols_t &symbols, decoded_t &dst)
{
    const bool whole = stream.bit % 8 == 0;
    if (whole && stream.code_width == 8)
        unzip_groups<8, true>(stream, symbols, dst);
    else if (whole && stream.code_width == 4)
        unzip_groups<4, true>(stream, symbols, dst);
    else
        bulk_table[stream.code_width - 1](stream, symbols, dst);
}

} // namespace

// ---- Interface ------------------------------------------------------------------------------------------------------

kel_status_t kel_unzip(kel_context_t *ctx, const kel_vec_t *src, const kel_zip_t *codec, void *dst, size_t dst_len)
{
    const bool extra = ctx->debug_options & KEL_DEBUG_EXTRA;
    stream_t stream(src, codec, kel_decoded_bytes(ctx, src));
    decoded_t decoded = {static_cast<uint8_t *>(dst), dst_len};
    if (stream.wanted > 0) {
        if (codec->nsyms > kel_max_zip_symbols)
            return KEL_EDATAFMT;
        const symbols_t symbols(codec);
        if (!extra && symbols.sound && stream.code_width > 0)
            unzip_bulk(stream, symbols, decoded);
        const kel_status_t status = unzip_codewords(stream, symbols, extra, decoded);
        if (status != KEL_SUCCESS)
            return status;
    }
    return decoded.finish();
}

int zip_valid_syms(kel_context_t *ctx, const kel_vec_t *src, const kel_zip_t *codec)
{
    stream_t stream(src, codec, kel_decoded_bytes(ctx, src));
    if (stream.wanted <= 0)
        return 1;
    if (codec->nsyms > kel_max_zip_symbols) {
        kel_report(ctx, "EDATAFMT: codec of %u symbols; must be at most %u", codec->nsyms, kel_max_zip_symbols);
        return 0;
    }
    const symbols_t symbols(codec);
    kel_input_t reader = stream.reader();
    for (unsigned long index = 0; stream.wanted > 0; index++) {
        if (index == stream.codewords) {
            kel_report(ctx, "EDATAFMT: the stream of %lu codewords ends before the decoded data", index);
            return 0;
        }
        const auto code = static_cast<uint32_t>(kelio_get_bits(&reader, stream.code_width));
        if (code >= codec->nsyms) {
            kel_report(ctx, "EDATAFMT: codeword %u > max valid codeword %u at index %lu", code, codec->nsyms - 1u,
                       index);
            return 0;
        }
        const unsigned width = symbols.width_of(code);
        if (kel_bad_width(width)) {
            kel_report(ctx,
                       "EDATAFMT: codeword %u at index %lu maps to symbol with bad length %u bytes; must be between 1 "
                       "and 8 bytes",
                       code, index, width);
            return 0;
        }
        stream.wanted -= width;
    }
    return 1;
}
