// Codecs: dictionaries that map a codeword, which is an index, to a symbol of 1 to 8 bytes; and the expansion of
// streams of codewords.
//
// A codec's image has one of two layouts, which clients store and coprocessors read. The packed one, the only one that
// the library makes: the number of symbols in 2 bytes, big-endian; a length of 4 bits for each symbol, the first in the
// high half of its byte; the symbols, one behind the other. The row one: the symbols of the codewords r, r + 256,
// r + 512 and r + 768 share the row r of 14 bytes.
#pragma once

#include "kel_init.h"
#include "kel_limits.h"

struct KEL_ANYWHERE kel_codec {
    void *dict;        // the image
    uint8_t *syms;     // its first symbol byte
    uint16_t nsyms;    // codewords are below
    uint16_t dict_sz;  // bytes of the image
    uint8_t vorp;      // 1: the packed layout; 0: rows
    uint8_t free_dict; // 1: the image is the codec's, 0: the caller's
    uint8_t unused[2];
};
static_assert(sizeof(kel_zip_t) == 24); // what a codec's size counts beside its image

inline constexpr unsigned kel_zip_header = 2; // bytes of a packed image before its lengths
static_assert(kel_max_zip_contig(1) == kel_zip_header + kel_max_zip_symbols / 2 + kel_zip_rows * kel_zip_row_bytes);

inline bool kel_bad_width(unsigned width)
{
    return width == 0 || width > kel_max_symbol_bytes;
}

// Bytes of the lengths of a packed image.
inline constexpr uint64_t kel_zip_width_bytes(uint64_t nsyms)
{
    return (nsyms + 1) / 2;
}

// ---- The row layout -------------------------------------------------------------------------------------------------

typedef struct {
    uint16_t code_len : 4;
    uint16_t rsvd : 2;
    uint16_t base_entry_num : 8;
    uint16_t sym_index : 2;
} huff_len_table_entry_t;

typedef struct {
    huff_len_table_entry_t entries[128];
} huff_len_table_t;

// sbos holds the end of each symbol within sym_bytes, the first in the top 4 bits.
typedef union {
    uint64_t dwords[2];
    struct {
        uint16_t sbos;
        uint8_t sym_bytes[kel_zip_row_bytes];
    } s;
} huff_sym_table_entry_t;

typedef struct {
    huff_sym_table_entry_t rows[kel_zip_rows];
} huff_sym_table_t;

typedef struct {
    huff_len_table_t lengths; // read by nothing here
    huff_sym_table_t symbols;
} huff_table_t;
static_assert(sizeof(huff_table_t) == 256 + 4096);

// ---- Widths and places of symbols -----------------------------------------------------------------------------------
//
// In bytes, as the image has them: a damaged image may have any from 0 to 15, rows also differences below 0.

inline unsigned vorp_width(const void *widths, unsigned code)
{
    const uint8_t pair = static_cast<const uint8_t *>(widths)[code / 2];
    return code % 2 ? pair & 15 : pair >> 4;
}

unsigned huff_width(const void *rows, unsigned code);
unsigned zip_width(const void *widths, unsigned code, int vorp);

// What zip_width reads in.
const void *kel_zip_widths(const kel_zip_t *codec);

// Where a symbol starts in the rows.
unsigned kel_zip_row_place(const void *rows, unsigned code);

// The distance of each symbol from syms.
void kel_zip_offsets(const kel_zip_t *codec, uint16_t *offsets);

// Bits of a codeword; 0 for one symbol.
unsigned zip_code_width(unsigned nsyms);

// ---- Life -----------------------------------------------------------------------------------------------------------

// Makes a codec from lengths and symbols, without a test or a line. KEL_ENOMEM; KEL_EINVAL: there are no symbols, or
// more than an image can hold.
kel_status_t kel_vorp_create(kel_context_t *ctx, unsigned nsyms, const uint8_t *widths, const uint8_t *syms,
                             kel_zip_t **codec);
// Makes one from a packed image, in place if it crosses no border of a block.
kel_status_t kel_vorp_create_contig(kel_context_t *ctx, const void *buf, size_t length, kel_zip_t **codec);
void zip_free(kel_context_t *ctx, kel_zip_t *codec);
size_t kel_zip_size(const kel_context_t *ctx, const kel_zip_t *codec);

// ---- Rules ----------------------------------------------------------------------------------------------------------

int zip_create_valid(kel_context_t *ctx, unsigned nsyms, const uint8_t *widths, const void *buf, size_t length);
int zip_create_valid_extra(kel_context_t *ctx, unsigned nsyms, const uint8_t *widths, const uint8_t *syms,
                           const void *buf, size_t length);
// The row rule: the widths of codewords with equal low 8 bits add up to 14 at most.
int kel1_dict_valid(kel_context_t *ctx, unsigned nsyms, const uint8_t *widths, const uint8_t *syms);

// The sum of the widths; *bad tells whether one is not 1 to 8, which ends the walk.
unsigned zip_sum_widths(unsigned nsyms, const uint8_t *widths, int *bad);

// The symbols that are left when those of width 0 at the end are dropped.
unsigned vorp_fix_zeros(unsigned nsyms, const uint8_t *widths);

// ---- Expansion ------------------------------------------------------------------------------------------------------

// Expands the codewords of a vector into dst, dst_len bytes at any address; nothing is written behind them. A symbol
// that runs past the vector's length is written whole, as far as there is room.
//
// KEL_SUCCESS; KEL_EOVERFLOW: what was written, rounded up to 8 bytes, reaches the end of dst; KEL_EDATAFMT: a bad
// codeword or symbol (with KEL_DEBUG_EXTRA), or the stream ends too early.
kel_status_t kel_unzip(kel_context_t *ctx, const kel_vec_t *src, const kel_zip_t *codec, void *dst, size_t dst_len);

// Tells in the log which codeword of a stream is bad. 1: none.
int zip_valid_syms(kel_context_t *ctx, const kel_vec_t *src, const kel_zip_t *codec);

// Bytes of a vector's expansion.
uint64_t kel_decoded_bytes(kel_context_t *ctx, const kel_vec_t *src);
