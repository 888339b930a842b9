// Limits of the command set, each stated once: the validators test them, the properties publish them.
#pragma once

#include "kel.h"

inline constexpr unsigned kel_max_elem_bytes = 16;   // widest element
inline constexpr unsigned kel_max_elem_bits_v1 = 16; // widest element that is not a whole number of bytes
inline constexpr unsigned kel_max_elem_bits_v2 = 24;
inline constexpr unsigned kel_max_offset_elem_bits = 64; // widest element whose vector may have an offset
inline constexpr unsigned kel_max_offset = 7;            // bits
inline constexpr unsigned kel_max_aux_bits = 8;          // widest aux element of a source
inline constexpr unsigned kel_dst_align = 64;            // bytes; also the unit in which a destination is padded
inline constexpr unsigned kel_max_int_bytes = 16;        // widest value that kel_int_create builds

inline constexpr unsigned kel_max_bitmap_elements = 1u << 24; // of translate

// Alignment of a translate bitmap in bytes.
inline constexpr unsigned kel_bitmap_align(unsigned version)
{
    return version == 2 ? 16 : 64;
}

inline constexpr unsigned kel_max_zip_symbols = 1024; // of a codec
inline constexpr unsigned kel_max_code_bits = 10;     // widest codeword
static_assert(1u << kel_max_code_bits == kel_max_zip_symbols);
inline constexpr unsigned kel_max_symbol_bytes = 8;
inline constexpr unsigned kel_zip_rows = 256;     // symbols of codewords with equal low 8 bits share a row
inline constexpr unsigned kel_zip_row_bytes = 14; // symbols of a row, and under the row rule of any image
inline constexpr unsigned kel_zip_align = 16;     // of a caller's image
inline constexpr unsigned kel_zip_block = 8192;   // bytes; no image crosses the border of such a block

// Bytes of the largest packed image.
inline constexpr unsigned kel_max_zip_contig(unsigned version)
{
    return version == 2 ? kel_zip_block : 4098;
}

// What only the properties tell: a coprocessor's limits, and its alignments for best speed, in bytes.
inline constexpr uint64_t kel_published_src_len = 1u << 24;
inline constexpr uint64_t kel_published_dst_len = 1u << 26;
inline constexpr unsigned kel_large_elem_align = 1;

inline constexpr unsigned kel_published_bitmap(unsigned version) // elements
{
    return version == 2 ? 65536 : 32768;
}

inline constexpr unsigned kel_bitmap_align_best(unsigned version)
{
    return version == 2 ? 8192 : 4096;
}

inline constexpr unsigned kel_zip_align_best(unsigned version)
{
    return version == 2 ? kel_zip_block : kel_zip_align;
}

inline constexpr uint32_t kel_log_levels = 63;    // every level that exists
inline constexpr uint32_t kel_debug_options = 15; // every debug option that exists

inline constexpr unsigned kel_max_elem_bits(unsigned version)
{
    return version == 2 ? kel_max_elem_bits_v2 : kel_max_elem_bits_v1;
}

// The flags that every operation accepts, unless it forbids some.
inline constexpr uint64_t kel_base_flags = KEL_CACHE | KEL_NOWAIT | KEL_COND | KEL_SERIAL;

// The flags that belong to posted requests alone.
inline constexpr uint64_t kel_sync_flags(unsigned version)
{
    return version == 2 ? KEL_SYNC_FLAGS_V2 : KEL_SYNC_FLAGS_V1;
}
