// Producers: the parts of kernels of which every set of instructions has its own.
//
// A producer turns some consecutive blocks of a packed stream, 64 elements of fixed width each, into something else:
// mask words, with the first element on top, or destination elements. Compaction keeps some elements of one block. A
// kernel picks its producers once a call, from the elements' width and place and from what is to be made of them.
#pragma once

#include "kel_io.h"

constexpr unsigned block_elements = 64;

// Packed fields of one width.
struct fields_t {
    const uint8_t *data; // the byte that holds the first bit
    unsigned width;      // bits: 1 to 64, or up to 128 in whole bytes
    unsigned offset;     // bits before the first element, 0 to 7; of wider ones than 64 bits none
};

__extension__ typedef unsigned __int128 uint128_t;

// ---- Mask words -----------------------------------------------------------------------------------------------------

// What is matched of elements of one width that fits in a word: membership in one or two closed intervals.
template <class Word>
struct membership_t {
    Word first[2];
    Word span[2];
    unsigned intervals;
    bool negated;
};

using predicate_t = membership_t<uint64_t>;
using wide_predicate_t = membership_t<uint128_t>; // of elements of more than 64 bits

// A bitmap that elements are looked up in: element e matches if bit e is 1, or if negated 0.
struct bitmap_t {
    const uint8_t *data;
    uint64_t bits;
    bool negated;
};

// Makes the mask words of the n blocks at data, of which elements are tested. fields gives their width and offset.
template <class Test>
using mask_blocks_t = void (*)(const uint8_t *data, const fields_t &fields, const Test &test, uint64_t *masks,
                               size_t n);

// ---- Destination elements -------------------------------------------------------------------------------------------

// Makes n blocks of destination elements from those at data: a field is shifted right, which cuts low bits off, then
// left, and stored in the width that the producer was chosen for.
using element_blocks_t = void (*)(const uint8_t *data, const fields_t &fields, unsigned right, unsigned left, void *to,
                                  size_t n);

// ---- Compaction -----------------------------------------------------------------------------------------------------
//
// What is left of 64 elements: those whose mask bit is set, the first element's bit on top. Answers the end of what was
// written. Vector forms need room for all 64: they store a group whole, up to 64 bytes behind that end, which is to be
// written over, or put back.

// The indexes of the elements, from that of the first one on, as big-endian entries.
using index_block_t = uint8_t *(*)(uint64_t mask, uint64_t index, uint8_t *to);
// The elements at from, all of which are read.
using pick_block_t = uint8_t *(*)(const uint8_t *from, uint64_t mask, uint8_t *to);

// ---- Sets -----------------------------------------------------------------------------------------------------------

// How a set is asked for a producer. Null: it has none for these fields, or for elements of so many bytes. bytes: of a
// destination element, 1, 2, 4, 8 or 16; of an entry of indexes, 2 or 4.
template <class Test>
using choose_masks_t = mask_blocks_t<Test>(const fields_t &fields, const Test &test);
using choose_elements_t = element_blocks_t(const fields_t &fields, uint64_t bytes);
using choose_indexes_t = index_block_t(uint64_t bytes);
using choose_picks_t = pick_block_t(uint64_t bytes);

// The producers of one set of instructions.
struct kernel_set_t {
    const char *name;
    bool (*present)(); // whether this processor has the instructions
    unsigned overrun;  // bytes that loads may pass the end of blocks by
    choose_masks_t<predicate_t> *interval_masks;
    choose_masks_t<wide_predicate_t> *wide_masks;
    choose_masks_t<bitmap_t> *bitmap_masks;
    choose_elements_t *elements;
    choose_indexes_t *indexes;
    choose_picks_t *picks;
};

constexpr unsigned most_overrun = 64; // of all sets

// From the widest vectors down to portable code, which has all producers. A record without a name ends the table.
extern const kernel_set_t kernel_sets[];

// The producer of a set, or of the first one behind it that has one.
template <class Choose, class... Arguments>
auto choose_producer(const kernel_set_t *set, Choose *kernel_set_t::*choose, const Arguments &...arguments)
{
    auto producer = (set->*choose)(arguments...);
    while (!producer)
        producer = ((++set)->*choose)(arguments...);
    return producer;
}

inline mask_blocks_t<predicate_t> choose_masks(const kernel_set_t *set, const fields_t &fields, const predicate_t &test)
{
    return choose_producer(set, &kernel_set_t::interval_masks, fields, test);
}

inline mask_blocks_t<wide_predicate_t> choose_masks(const kernel_set_t *set, const fields_t &fields,
                                                    const wide_predicate_t &test)
{
    return choose_producer(set, &kernel_set_t::wide_masks, fields, test);
}

inline mask_blocks_t<bitmap_t> choose_masks(const kernel_set_t *set, const fields_t &fields, const bitmap_t &test)
{
    return choose_producer(set, &kernel_set_t::bitmap_masks, fields, test);
}

choose_masks_t<predicate_t> portable_interval_masks, avx2_interval_masks, avx512_interval_masks;
choose_masks_t<wide_predicate_t> portable_wide_masks, avx2_wide_masks;
choose_masks_t<bitmap_t> portable_bitmap_masks, avx2_bitmap_masks, avx512_bitmap_masks;
choose_elements_t portable_elements, avx2_elements, avx512_elements;
choose_indexes_t portable_indexes, avx2_indexes, avx512_indexes;
choose_picks_t portable_picks, avx2_picks, avx512_picks;
