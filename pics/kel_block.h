// Blocks: 64 elements of fixed width at a time, from the packed stream to a mask word (its first element on top).
//
// A producer makes the mask words of some consecutive blocks; it is chosen once a call from the elements' width and
// place and from the predicate. Its loads pass the last element of a block by up to 8 bytes. Blocks for which those
// bytes are not part of the vector are copied first: the last ones of every source.
#pragma once

#include "kel_io.h"
#include "kel_predicate.h"
#include <algorithm>
#include <utility>

constexpr unsigned block_elements = 64;
constexpr unsigned block_batch = 32; // mask words that are made at a time

// A block's place and shape.
struct fields_t {
    const uint8_t *data; // the byte that holds the first bit
    unsigned width;      // bits, 1 to 64
    unsigned offset;     // bits before the first element, 0 to 7
};

// Makes the mask words of n blocks, the first of which is at fields.
using mask_blocks_t = void (*)(fields_t fields, const predicate_t &predicate, uint64_t *masks, size_t n);

mask_blocks_t choose_mask_blocks(const fields_t &fields, const predicate_t &predicate);

// The mask words of a whole fixed-width source of up to 64 bits, a batch at a time. The source's length in bits is to
// fit in 64 bits.
class block_source
{
  public:
    block_source(const kel_vec_t *src, const predicate_t &tested)
        : predicate(tested), fields{static_cast<const uint8_t *>(src->data), static_cast<unsigned>(kel_width_bits(src)),
                                    src->offset},
          bytes(kel_data_bytes(src)), elements(src->elements), whole(src->elements / block_elements),
          make(choose_mask_blocks(fields, tested))
    {
        if (whole > 0 && loaded_bytes(whole) > bytes)
            whole--;
    }

    // Fills masks and answers the number of elements that they stand for; 0 at the end. The bits of the last word
    // behind the last element are 0.
    uint64_t next(uint64_t (&masks)[block_batch])
    {
        const uint64_t blocks = std::min<uint64_t>(whole, block_batch);
        if (blocks == 0)
            return last(masks);
        make(fields, predicate, masks, blocks);
        const uint64_t taken = 8 * fields.width * blocks;
        fields.data += taken;
        bytes -= taken;
        whole -= blocks;
        elements -= block_elements * blocks;
        return block_elements * blocks;
    }

  private:
    // How far the loads of the given number of blocks reach. A block takes 8 bytes or more, so that at most the last
    // whole block reaches behind the vector.
    uint64_t loaded_bytes(uint64_t blocks) const
    {
        return (fields.offset + (block_elements * blocks - 1) * fields.width) / 8 + overrun;
    }

    // The elements behind the whole blocks, fewer than two blocks of them, from a copy that has room behind its end.
    uint64_t last(uint64_t *masks)
    {
        if (elements == 0)
            return 0;
        const uint64_t blocks = (elements + block_elements - 1) / block_elements;
        uint8_t copy[2 * 8 * 64 + overrun];
        memcpy(copy, fields.data, bytes);
        memset(copy + bytes, 0, 8 * fields.width * blocks + overrun - bytes);
        make({copy, fields.width, fields.offset}, predicate, masks, blocks);
        masks[blocks - 1] &= ~uint64_t{0} << (block_elements * blocks - elements);
        return std::exchange(elements, 0);
    }

    static constexpr unsigned overrun = 9; // bytes that a field's load may take

    const predicate_t predicate;
    fields_t fields;   // of what is left,
    uint64_t bytes;    // its length
    uint64_t elements; // and its elements
    uint64_t whole;    // blocks that can be read where they are
    mask_blocks_t make;
};
