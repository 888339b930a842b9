// Blocks: 64 elements of fixed width at a time.
//
// A producer turns some consecutive blocks of a packed stream into something else: mask words, with the first element
// on top, or destination elements. It is chosen once a call from the elements' width and place and from what is to be
// made of them. Its loads pass the bytes of its last block by up to 16. Blocks for which those are not part of the
// vector are copied first: the last ones of every source.
#pragma once

#include "kel_emulate_subr.h"
#include "kel_predicate.h"
#include <algorithm>

constexpr unsigned block_elements = 64;
constexpr unsigned block_batch = 32; // mask words that are made at a time

// Packed fields of one width.
struct fields_t {
    const uint8_t *data; // the byte that holds the first bit
    unsigned width;      // bits, 1 to 64
    unsigned offset;     // bits before the first element, 0 to 7
};

// Consecutive blocks of fields; the last may have fewer elements than 64.
struct blocks_t {
    const uint8_t *data;
    uint64_t blocks;
    uint64_t elements; // 0 at the end of the source
};

// The elements of a vector, which are plain fields, and its runs.
inline fields_t element_fields(const kel_vec_t *vec)
{
    return {static_cast<const uint8_t *>(vec->data), static_cast<unsigned>(kel_width_bits(vec)), vec->offset};
}

inline fields_t run_fields(const kel_vec_t *vec)
{
    return {static_cast<const uint8_t *>(vec->aux_data), vec->aux_width, vec->aux_offset};
}

// Hands out the blocks of fields.
class block_cursor
{
  public:
    block_cursor(const fields_t &first, uint64_t count)
        : fields(first), next(first.data), elements(count), bytes((first.offset + first.width * count + 7) / 8),
          loadable(count / block_elements)
    {
        while (loadable > 0 && 8 * fields.width * loadable + overrun > bytes)
            loadable--;
    }

    block_cursor(const block_cursor &) = delete; // it may point into itself

    const fields_t &shape() const
    {
        return fields;
    }

    // The next blocks, at most the given number of them, which is not 0. They stay where they are until the next call.
    blocks_t take(uint64_t most)
    {
        if (loadable == 0)
            copy_rest();
        blocks_t taken = {next, std::min(loadable, most), 0};
        taken.elements = std::min(elements, block_elements * taken.blocks);
        next += 8 * fields.width * taken.blocks;
        loadable -= taken.blocks;
        elements -= taken.elements;
        bytes -= std::min(bytes, 8 * fields.width * taken.blocks);
        return taken;
    }

  private:
    // Copies what is left, fewer than two blocks and an overrun, to where there is room behind its end. What follows
    // the last element is 0, so that a bitmap is not looked at far behind its end for a field that does not exist.
    void copy_rest()
    {
        if (elements == 0)
            return;
        loadable = (elements + block_elements - 1) / block_elements;
        memcpy(rest, next, bytes);
        if (const uint64_t used = (fields.offset + fields.width * elements) % 8; used != 0)
            rest[bytes - 1] = static_cast<uint8_t>(rest[bytes - 1] & 0xff00 >> used);
        const uint64_t end = 8 * fields.width * loadable;
        if (bytes < end)
            memset(rest + bytes, 0, end - bytes);
        memset(rest + std::max(bytes, end), 0, overrun);
        next = rest;
    }

    static constexpr unsigned overrun = 16; // bytes that loads may pass the end of blocks by

    const fields_t fields; // of the source, as it was
    const uint8_t *next;   // what is left,
    uint64_t elements;     // its elements,
    uint64_t bytes;        // its length,
    uint64_t loadable;     // and the blocks that can be loaded where they are
    uint8_t rest[2 * 8 * 64 + 2 * overrun];
};

// ---- Producers ------------------------------------------------------------------------------------------------------

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

// In portable code, for all fields.
mask_blocks_t<predicate_t> portable_mask_blocks(const fields_t &fields, const predicate_t &predicate);
mask_blocks_t<bitmap_t> portable_mask_blocks(const fields_t &fields, const bitmap_t &bitmap);
// For AVX2. Null: there is none for these fields, or this processor or build cannot have it.
mask_blocks_t<predicate_t> avx2_mask_blocks(const fields_t &fields, const predicate_t &predicate);
mask_blocks_t<bitmap_t> avx2_mask_blocks(const fields_t &fields, const bitmap_t &bitmap);

// Makes n blocks of destination elements from those at data: a field is shifted right, which cuts low bits off, then
// left, and stored in the width that the producer was chosen for.
using element_blocks_t = void (*)(const uint8_t *data, const fields_t &fields, unsigned right, unsigned left, void *to,
                                  size_t n);

// As above. bytes: of a destination element, 1, 2, 4, 8 or 16.
element_blocks_t portable_element_blocks(const fields_t &fields, uint64_t bytes);
element_blocks_t avx2_element_blocks(const fields_t &fields, uint64_t bytes);

// ---- Compaction -----------------------------------------------------------------------------------------------------
//
// What is left of 64 elements: those whose mask bit is set, the first element's bit on top. Answers the end of what was
// written. Vector forms need room for all 64: they store a group whole, up to 32 bytes behind that end, which is to be
// written over, or put back.

// The indexes of the elements, from that of the first one on, as big-endian entries.
using index_block_t = uint8_t *(*)(uint64_t mask, uint64_t index, uint8_t *to);
// The elements at from, all of which are read.
using pick_block_t = uint8_t *(*)(const uint8_t *from, uint64_t mask, uint8_t *to);

// As above. bytes: of an entry, 2 or 4; of an element, 1, 2, 4, 8 or 16.
index_block_t portable_index_block(uint64_t bytes);
index_block_t avx2_index_block(uint64_t bytes);
pick_block_t portable_pick_block(uint64_t bytes);
pick_block_t avx2_pick_block(uint64_t bytes);

// Keeps what stands behind the end of some compactions, below a limit, and puts it back.
class kept_bytes
{
  public:
    kept_bytes(uint8_t *end, const void *limit) : place(end)
    {
        if (end < limit)
            size = std::min<size_t>(sizeof kept, static_cast<size_t>(static_cast<const uint8_t *>(limit) - end));
        memcpy(kept, place, size);
    }

    ~kept_bytes()
    {
        memcpy(place, kept, size);
    }

    kept_bytes(const kept_bytes &) = delete;

  private:
    uint8_t *const place;
    size_t size = 0;
    uint8_t kept[32]; // a group: eight entries or elements of up to 4 bytes, four elements of 8 bytes
};

// ---- The choice -----------------------------------------------------------------------------------------------------
//
// The first producer that there is, from the widest vectors down.

template <class Test>
mask_blocks_t<Test> choose_mask_blocks(const fields_t &fields, const Test &test)
{
    const mask_blocks_t<Test> vector = avx2_mask_blocks(fields, test);
    return vector ? vector : portable_mask_blocks(fields, test);
}

inline index_block_t choose_index_block(uint64_t bytes)
{
    const index_block_t vector = avx2_index_block(bytes);
    return vector ? vector : portable_index_block(bytes);
}

inline pick_block_t choose_pick_block(uint64_t bytes)
{
    const pick_block_t vector = avx2_pick_block(bytes);
    return vector ? vector : portable_pick_block(bytes);
}

inline element_blocks_t choose_element_blocks(const fields_t &fields, uint64_t bytes)
{
    const element_blocks_t vector = avx2_element_blocks(fields, bytes);
    return vector ? vector : portable_element_blocks(fields, bytes);
}
